// Option parsing, the escaped text form of records, messages and progress display.
#include "json.h"
#include "tool.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace kisam_tool {

Globals g;
volatile int g_interrupted = 0;
int g_write_errno = 0;

bool parse_long(const std::string& s, long lo, long hi, long& out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    out = v;
    return true;
}

bool parse_key_lengths(const std::string& text, std::vector<int>& lens) {
    lens.clear();
    size_t start = 0;
    while (true) {
        size_t comma = text.find(',', start);
        long v;
        if (!parse_long(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start), 1, 500, v))
            return false;
        lens.push_back(int(v));
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

bool Args::parse() {
    auto known = [](const std::vector<std::string>& list, const std::string& n) {
        for (const auto& x : list)
            if (x == n) return true;
        return false;
    };
    bool only_pos = false;
    for (size_t i = 0; i < w_.size(); ++i) {
        const std::string& a = w_[i];
        if (only_pos || a.size() < 2 || a[0] != '-' || a == "-") {
            pos_.push_back(a);
            continue;
        }
        if (a == "--") {
            only_pos = true;
            continue;
        }
        if (a[1] != '-') {
            usage_error(cmd_, "unknown option " + a);
            return false;
        }
        std::string name = a.substr(2), value;
        bool inline_value = false;
        if (auto eq = name.find('='); eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.resize(eq);
            inline_value = true;
        }
        if (known(flags_, name)) {
            if (inline_value) {
                usage_error(cmd_, "option --" + name + " takes no value");
                return false;
            }
            seen_.emplace_back(name, "");
        } else if (known(opts_, name)) {
            if (!inline_value) {
                if (i + 1 >= w_.size()) {
                    usage_error(cmd_, "option --" + name + " needs a value");
                    return false;
                }
                value = w_[++i];
            }
            seen_.emplace_back(name, value);
        } else {
            usage_error(cmd_, "unknown option --" + name);
            return false;
        }
    }
    return true;
}

bool Args::has(const char* name) const {
    for (const auto& [n, v] : seen_)
        if (n == name) return true;
    return false;
}

std::optional<std::string> Args::get(const char* name) const {
    std::optional<std::string> r;
    for (const auto& [n, v] : seen_)
        if (n == name) r = v;   // the last occurrence wins, as in most tools
    return r;
}

bool Args::get_int(const char* name, long lo, long hi, long& out) const {
    auto v = get(name);
    if (!v) return true;
    if (!parse_long(*v, lo, hi, out)) {
        usage_error(cmd_, "--" + std::string(name) + " must be a whole number from " + std::to_string(lo) +
                              " to " + std::to_string(hi) + ", not \"" + *v + "\"");
        return false;
    }
    return true;
}

int usage_error(const std::string& cmd, const std::string& msg) {
    progress_clear();
    std::string who = cmd.empty() ? "kisam" : "kisam " + cmd;
    std::fprintf(stderr, "%s: %s\n", who.c_str(), msg.c_str());
    std::fprintf(stderr, "Try '%s' for more information.\n", cmd.empty() ? "kisam help" : ("kisam help " + cmd).c_str());
    return EXIT_USAGE;
}

int fail(const std::string& cmd, const std::string& msg) {
    progress_clear();
    std::string who = cmd.empty() ? "kisam" : "kisam " + cmd;
    std::fprintf(stderr, "%s: %s\n", who.c_str(), msg.c_str());
    return EXIT_FAIL;
}

// Said once: after an interrupt, the waits of the closes and the detach on the way out
// are given up too, and each would otherwise say it again.
int interrupted(const std::string& cmd, const std::string& what) {
    static bool told = false;
    if (!told) fail(cmd, "interrupted" + what);
    told = true;
    return EXIT_INTERRUPTED;
}

// ---- text form ---------------------------------------------------------------------------------

std::string escape(std::string_view bytes) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 4);
    for (unsigned char c : bytes) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string show(std::string_view bytes) {
    if (!g.utf8) return escape(bytes);
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 4);
    for (size_t i = 0; i < bytes.size();) {
        const size_t n = utf8_seq(bytes.substr(i));
        // C2 80 .. C2 9F are the control characters U+0080 .. U+009F.
        if (n > 1 && !(n == 2 && uint8_t(bytes[i]) == 0xC2 && uint8_t(bytes[i + 1]) < 0xA0)) {
            out.append(bytes.substr(i, n));
            i += n;
        } else {
            out += escape(bytes.substr(i, 1));
            ++i;
        }
    }
    return out;
}

bool locale_is_utf8() {
    if (!std::setlocale(LC_CTYPE, "")) return false;
    const char* cs = ::nl_langinfo(CODESET);
    const bool utf8 = cs && (std::strcmp(cs, "UTF-8") == 0 || std::strcmp(cs, "utf8") == 0);
    std::setlocale(LC_CTYPE, "C");
    return utf8;
}

static int hexval(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> unescape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i >= text.size()) return std::nullopt;
        switch (text[i]) {
        case '\\': out += '\\'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case '0': out += '\0'; break;
        case 'x': {
            if (i + 2 >= text.size()) return std::nullopt;
            int h = hexval(text[i + 1]), l = hexval(text[i + 2]);
            if (h < 0 || l < 0) return std::nullopt;
            out += static_cast<char>(h * 16 + l);
            i += 2;
            break;
        }
        default: return std::nullopt;
        }
    }
    return out;
}

// ---- input lines ----------------------------------------------------------------------------------

LineReader::~LineReader() {
    std::free(buf_);
    if (owned_ && f_) std::fclose(f_);
}

bool LineReader::open(const std::string& path) {
    if (path.empty() || path == "-") {
        f_ = stdin;
    } else {
        f_ = std::fopen(path.c_str(), "rb");
        if (!f_) return false;
        owned_ = true;
        name_ = path;
    }
    struct stat st;
    if (::fstat(fileno(f_), &st) == 0 && S_ISREG(st.st_mode)) size_ = uint64_t(st.st_size);
    return true;
}

bool LineReader::next(std::string& line) {
    if (!f_ || err_) return false;
    errno = 0;
    ssize_t n = ::getline(&buf_, &cap_, f_);
    if (n < 0) {
        if (std::ferror(f_)) err_ = errno ? errno : EIO;
        return false;
    }
    consumed_ += uint64_t(n);
    ++lineno_;
    if (n > 0 && buf_[n - 1] == '\n') --n;
    line.assign(buf_, size_t(n));
    return true;
}

// ---- output files ---------------------------------------------------------------------------------

bool OutputFile::open(const std::string& name) {
    if (name.empty() || name == "-") {
        f_ = stdout;
        name_ = "standard output";
        return true;
    }
    name_ = name;
    struct stat st;
    const bool exists = ::lstat(name.c_str(), &st) == 0;
    if (exists && !S_ISREG(st.st_mode)) {
        f_ = std::fopen(name.c_str(), "w");
        return f_ != nullptr;
    }
    // The new file gets the mode the old one had, or the one fopen would give it.
    mode_t mode;
    if (exists) {
        mode = st.st_mode & 07777;
    } else {
        mode = ::umask(0);
        ::umask(mode);
        mode = 0666 & ~mode;
    }
    const size_t slash = name.rfind('/');
    tmp_ = (slash == std::string::npos ? std::string() : name.substr(0, slash + 1)) + "." +
           name.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
    int fd = ::mkstemp(tmp_.data());
    if (fd < 0) {
        tmp_.clear();
        // A file that may be written in a directory that may not: write it in place.
        if (exists && (errno == EACCES || errno == EPERM || errno == EROFS)) {
            f_ = std::fopen(name.c_str(), "w");
            return f_ != nullptr;
        }
        return false;
    }
    if (::fchmod(fd, mode) != 0 || !(f_ = ::fdopen(fd, "w"))) {
        int e = errno;
        ::close(fd);
        ::unlink(tmp_.c_str());
        tmp_.clear();
        errno = e;
        return false;
    }
    temp_ = true;
    return true;
}

int OutputFile::commit() {
    if (!f_) return EBADF;
    int err = 0;
    if (std::fflush(f_) != 0 || std::ferror(f_)) err = errno ? errno : EIO;
    if (f_ == stdout) {
        f_ = nullptr;
        return err;
    }
    if (std::fclose(f_) != 0 && !err) err = errno ? errno : EIO;
    f_ = nullptr;
    if (!err && !tmp_.empty() && std::rename(tmp_.c_str(), name_.c_str()) != 0) err = errno;
    if (err) abandon();
    tmp_.clear();
    return err;
}

void OutputFile::abandon() {
    if (f_ && f_ != stdout) std::fclose(f_);
    f_ = nullptr;
    if (!tmp_.empty()) ::unlink(tmp_.c_str());
    tmp_.clear();
}

// ---- progress ------------------------------------------------------------------------------------

Progress::Progress(std::string what, uint64_t total, const char* unit)
    : what_(std::move(what)), unit_(unit), total_(total), on_(!g.quiet && ::isatty(STDERR_FILENO)) {}

// True while a progress line stands on standard error without its newline.
static bool g_progress_shown = false;

void progress_clear() {
    if (!g_progress_shown) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    g_progress_shown = false;
}

Progress::~Progress() { progress_clear(); }

void Progress::show(uint64_t records, uint64_t done) {
    g_progress_shown = true;
    if (total_)
        std::fprintf(stderr, "\r%s: %llu %s (%3llu%%)", what_.c_str(), static_cast<unsigned long long>(records), unit_,
                     static_cast<unsigned long long>(done * 100 / total_));
    else
        std::fprintf(stderr, "\r%s: %llu %s", what_.c_str(), static_cast<unsigned long long>(records), unit_);
    std::fflush(stderr);
}

// The first interrupt asks the running command to stop at its next record and detach;
// a second one ends the process at once (for a command stuck waiting for a lock).
static void on_signal(int sig) {
    if (g_interrupted) {
        ::signal(sig, SIG_DFL);
        ::raise(sig);
        return;
    }
    g_interrupted = 1;
}

void catch_interrupts() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: a blocking read of the input, or a wait for a lock, returns so that
    // the loop sees the flag.  A signal ignored when the tool started ('nohup', a shell
    // running it in the background without job control) stays ignored.
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction old;
        if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
        sigaction(sig, &sa, nullptr);
    }
    // A closed output pipe ('kisam scan FILE | head') must end the command through its
    // normal path, which detaches, not through the signal.
    ::signal(SIGPIPE, SIG_IGN);
}

// ---- waiting for locks ------------------------------------------------------------------------

static volatile sig_atomic_t g_alarm = 0;
static std::string g_wait_cmd;
static bool g_wait_told = false;

static void on_alarm(int) { g_alarm = 1; }

static const char* held_what(int what) {
    switch (what) {
    case KISAM_WAIT_CONTROL: return "the control lock of ";
    case KISAM_WAIT_RECORD: return "a record lock of ";
    case KISAM_WAIT_OPEN: return "the lock over opening and closing files";
    case KISAM_WAIT_HEAP: return "the shared heap's lock";
    case KISAM_WAIT_BUFFERS: return "the buffer pool's lock";
    default: return "a lock";
    }
}

// The timer rings every second of a wait: the first ring says whom we wait for, and
// every ring also catches an interrupt that came just before the wait began (when it
// could not interrupt it).  A wait that begins after the interrupt (a close on the way
// out) rings at once, so that it is given up now rather than a second later.
static int on_wait(const struct kisam_wait* w, void*) {
    switch (w->event) {
    case KISAM_WAIT_BEGIN:
        g_alarm = 0;
        g_wait_told = false;
        if (g_interrupted) {
            const struct itimerval soon {{0, 0}, {0, 1000}};
            ::setitimer(ITIMER_REAL, &soon, nullptr);
        } else {
            ::alarm(1);
        }
        return 0;
    case KISAM_WAIT_SIGNAL:
        if (g_alarm) {
            g_alarm = 0;
            if (!g_wait_told && !g_interrupted) {
                g_wait_told = true;
                progress_clear();
                std::string what = held_what(w->what);
                if (w->what == KISAM_WAIT_CONTROL || w->what == KISAM_WAIT_RECORD)
                    what += w->file ? w->file : "the file";
                std::fprintf(stderr, "kisam %s: waiting for process %d (holds %s)\n", g_wait_cmd.c_str(), w->holder,
                             what.c_str());
                std::fflush(stderr);
            }
            ::alarm(1);
        }
        return g_interrupted ? 1 : 0;
    default:
        ::alarm(0);
        g_alarm = 0;
        return 0;
    }
}

void watch_lock_waits(const std::string& cmd) {
    g_wait_cmd = cmd;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_alarm;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGALRM, &sa, nullptr);  // no SA_RESTART: the ring must end the kernel's wait
    kisam_set_wait_hook(on_wait, nullptr, 0);
}

}  // namespace kisam_tool
