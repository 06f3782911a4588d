// Attaching to the engine, finding the configuration, and turning the library's
// failures into messages a user can act on.
#include "tool.h"

#include <kisam/ztsupport.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool {

void apply_config_choice() {
    if (g.config.empty()) return;
    ::setenv("KISCONFIG", g.config.c_str(), 1);
    // The settings store keeps the first value it looked up; put it there too.
    ZTPutEnv("KISCONFIG", g.config.c_str());
}

static std::string fold_slashes(std::string s) {
    std::string out;
    for (char c : s)
        if (!(c == '/' && !out.empty() && out.back() == '/')) out += c;
    return out;
}

std::string find_config(std::vector<std::string>* tried) {
    apply_config_choice();
    LoadEnv();
    auto value = [](const char* name) {
        const char* v = ZTGetEnvX(name);
        return std::string(v ? v : "");
    };
    std::string kc = value("KISCONFIG");
    if (!kc.empty()) {
        kc = fold_slashes(kc);
        if (tried) tried->push_back(kc + (g.config.empty() ? " (KISCONFIG)" : " (--config)"));
        return ::access(kc.c_str(), R_OK) == 0 ? kc : "";
    }
    std::string first = fold_slashes(value("etc_dir") + "/kisamconfig");
    if (tried) tried->push_back(first + " (etc_dir)");
    if (::access(first.c_str(), F_OK) == 0 || errno != ENOENT) return ::access(first.c_str(), R_OK) == 0 ? first : "";
    std::string second = fold_slashes(value("HOME_Q9") + "/kisamconfig");
    if (tried) tried->push_back(second + " (HOME_Q9)");
    return ::access(second.c_str(), R_OK) == 0 ? second : "";
}

long installation_key(const std::string& conf) {
    std::string lk = conf + ".lk";
    const std::string& keyfile = ::access(lk.c_str(), F_OK) == 0 ? lk : conf;
    return ::ftok(keyfile.c_str(), 1);
}

Session::~Session() {
    if (attached_) nisunisam();
}

bool Session::attach(bool quiet) {
    if (attached_) return true;
    std::vector<std::string> tried;
    if (find_config(&tried).empty()) {
        if (!quiet) {
            std::fprintf(stderr, "kisam %s: no configuration file found; looked at:\n", cmd_.c_str());
            for (const auto& t : tried) std::fprintf(stderr, "  %s\n", t.c_str());
            std::fprintf(stderr,
                         "Create one with 'kisam config init PATH', then pass '--config PATH' or set "
                         "KISCONFIG=PATH.\n");
        }
        return false;
    }
    if (is_init() != 0) {
        if (!quiet) report_attach_failure();
        return false;
    }
    attached_ = true;
    report_replay();
    return true;
}

void report_replay() {
    static bool reported = false;
    struct kisam_recovery r;
    if (reported || kisam_last_recovery(&r) != 0 || !r.self || r.logs <= 0) return;
    reported = true;
    std::fprintf(stderr,
                 "kisam: the programs that last used this installation did not all close their files "
                 "(a crash?): %ld %s redone from %ld redo %s, %ld %s written, in %.1f ms\n",
                 r.calls, r.calls == 1 ? "call" : "calls", r.logs, r.logs == 1 ? "log" : "logs", r.pages,
                 r.pages == 1 ? "page" : "pages", double(r.usec) / 1000.0);
}

void Session::report_attach_failure() { lib_error(cmd_, "cannot attach to the shared area"); }

int Session::open(const std::string& file, int access) {
    if (!attach()) return -1;
    // Refuse names the engine cannot hold rather than let it fail obscurely.
    if (file.size() > 127) {
        fail(cmd_, file + ": file name longer than 127 characters");
        return -1;
    }
    int fd = nisopen(file.c_str(), access);
    if (fd < 0) lib_error(cmd_, file, file);
    else names_.emplace_back(fd, file);
    return fd;
}

int Session::create(const std::string& file, const std::vector<int>& keylens, int keyopt, int header) {
    if (!attach()) return -1;
    niscr_ctl(keyopt, header);
    int fd = niscreate(file.c_str(), int(keylens.size()), keylens.data());
    if (fd < 0) lib_error(cmd_, file, file);
    else names_.emplace_back(fd, file);
    return fd;
}

bool g_late_failure = false;

void clear_lib_error() {
    is_errno = 0;
    is_etop = nullptr;
}

bool Session::close(int isfd) {
    if (isfd < 0) return true;
    std::string file = "descriptor " + std::to_string(isfd);
    for (auto it = names_.begin(); it != names_.end(); ++it)
        if (it->first == isfd) {
            file = it->second;
            names_.erase(it);
            break;
        }
    clear_lib_error();
    if (nisclose(isfd) == 0 && !is_etop) return true;
    lib_error(cmd_, file + ": closing the file");
    g_late_failure = true;
    return false;
}

bool release_ctl(int isfd) {
    clear_lib_error();
    return nisrelctl(isfd) == 0 && !is_etop;
}

// The first two bytes of a file, to say which magic an unknown file carries.
static std::string magic_of(const std::string& file) {
    int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) return "";
    unsigned char b[2];
    ssize_t n = ::pread(fd, b, 2, 0);
    ::close(fd);
    if (n != 2) return "the file is shorter than a control page";
    char buf[64];
    std::snprintf(buf, sizeof buf, "unknown magic 0x%04x", b[0] | (b[1] << 8));
    return buf;
}

int lib_error(const std::string& cmd, const std::string& what, const std::string& file) {
    int sys = errno;
    progress_clear();
    // A wait for a lock given up at an interrupt: the call changed nothing.
    if (is_etop && is_errno == KISAM_ISE_INTERRUPTED) return interrupted(cmd);
    char buf[1100];
    niserrmsgget(buf, sizeof buf);
    std::fprintf(stderr, "kisam %s: %s: %s\n", cmd.c_str(), what.c_str(), buf[0] ? buf : "failed");
    if (!is_etop) return EXIT_FAIL;
    int proc = static_cast<uint8_t>(is_estk[0].is_eproc);
    int detail = static_cast<uint8_t>(is_estk[0].is_euid);
    std::string hint;
    // The configuration file the library tried, so that a failed start-up names it.
    const char* tried = kisam_config_path();
    const std::string conf = std::string("the configuration file ") + (tried ? std::string(tried) + " " : "");
    switch (is_errno) {
    case ISE_INITERR:
        if (proc != 0x22) break;
        switch (detail) {
        case 1: hint = conf + "cannot be read; create one with 'kisam config init PATH'"; break;
        case 2: case 3: hint = conf + "is empty or shorter than 48 bytes; rewrite it with 'kisam config init PATH --force'"; break;
        case 4:
            hint = "the kernel refused the shared segment: it may exceed the kernel's shared-memory limits "
                   "(kernel.shmmax, kernel.shmall, kernel.shmmni), or a smaller segment of the same installation "
                   "was left behind by processes that ended without detaching; once no program uses it, remove it "
                   "with 'ipcrm -m ID' ('ipcs -m' lists them)";
            break;
        case 5: case 8: hint = "the process table is full: every process slot of the configuration is taken (raise --users, or see 'kisam stat' for processes that no longer exist)"; break;
        case 7: hint = "the configuration asks for a common heap above 2 GiB; lower --files, --avg-alt-keys, --lock-key-len or --locks-per-file"; break;
        case 9: case 13: hint = "the lock file cannot be opened for writing: check its permissions"; break;
        default: break;
        }
        break;
    case ISE_MAGICVALERR:
    case ISE_VERSIONERR:
        hint = "the shared segment was made by another release of the library; stop every program that uses it and remove it with 'ipcrm -m ID'";
        break;
    case ISE_NOFCP:
        hint = detail == 7 ? "the common heap is full: too many files or record locks for the configuration (raise --files or --locks-per-file)"
                           : "the shared-file table is full: the configuration allows no more files open at once (raise --files)";
        break;
    case ISE_TMFILES: hint = "this process holds as many files as the configuration allows per process (--files-per-process)"; break;
    case ISE_NKEYERR: hint = "more keys than the configuration allows (--keys, at most 25)"; break;
    case ISE_INVKL: hint = "a key is too long: two items of a key (key, then key 0 or the record address) must fit a 1024-byte index page"; break;
    case ISE_NOTISAM:
        if (!file.empty()) hint = "not an ISAM file: " + magic_of(file);
        break;
    case ISE_INCONSISTENT:
        hint = "the file's data-changed mark is set: a program stopped in the middle of a change; run 'kisam check' on it "
               "(and 'kisam check --clear-mark' once it is sound), or save what it holds with 'kisam dump --ignore-mark'";
        break;
    case ISE_NWSK:
        if (proc == 0x42 && detail == 1) hint = "the file has reached the 4 GiB ceiling of its 32-bit page positions; no page can be added";
        break;
    case ISE_CREATEISOPEN: hint = "some program has the file open; close it everywhere first"; break;
    case ISE_OPENF:
        if (sys == EACCES || errno == EACCES) hint = "permission denied";
        break;
    default: break;
    }
    if (!hint.empty()) std::fprintf(stderr, "kisam %s: %s\n", cmd.c_str(), hint.c_str());
    return EXIT_FAIL;
}

}  // namespace kisam_tool
