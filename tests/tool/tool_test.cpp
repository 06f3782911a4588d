// The kisam tool: its commands, backup and compact, and dump --salvage on damaged files.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <pty.h>
#include <random>
#include <set>
#include <signal.h>
#include <string>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using nlohmann::json;
struct Result { int rc = -1; std::string out, err; };

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
void spit(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary | std::ios::trunc) << text; }
bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
// A little-endian field of a file image; 0 past its end.
template <class T> T field(const std::string& b, size_t off) {
    T v{};
    if (off + sizeof v <= b.size()) std::memcpy(&v, b.data() + off, sizeof v);
    return v;
}
uint32_t u32(const std::string& b, size_t off) { return field<uint32_t>(b, off); }
long long size_of(const std::string& f) {
    struct stat st;
    return ::stat(f.c_str(), &st) == 0 ? (long long)st.st_size : -1;
}
mode_t mode_of(const std::string& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? st.st_mode & 07777 : 01;
}
void poke(const std::string& file, off_t off, const std::string& bytes) {
    int fd = ::open(file.c_str(), O_RDWR);
    EXPECT_EQ(::pwrite(fd, bytes.data(), bytes.size(), off), ssize_t(bytes.size())) << file;
    ::close(fd);
}
template <class... A> std::string fmt(const char* f, A... a) {
    char b[512];
    return {b, size_t(std::snprintf(b, sizeof b, f, a...))};
}
std::string lines(int n, const std::function<std::string(int)>& line) {
    std::string s;
    for (int i = 0; i < n; ++i) s += line(i);
    return s;
}
// Bytes in the dump's text form.
std::string escape(const std::string& b) {
    std::string out;
    for (unsigned char c : b) out += c == '\\' ? "\\\\" : c >= 0x20 && c < 0x7f ? std::string(1, char(c)) : fmt("\\x%02x", c);
    return out;
}
std::vector<std::string> records_of(const std::string& dump) {
    std::vector<std::string> out;
    for (size_t at = 0, nl; at < dump.size(); at = nl + 1) {
        if ((nl = dump.find('\n', at)) == std::string::npos) nl = dump.size();
        if (nl > at && dump[at] != '#') out.push_back(dump.substr(at, nl - at));
    }
    return out;
}
std::set<std::string> lines_of(const std::string& dump) {
    const std::vector<std::string> v = records_of(dump);
    return {v.begin(), v.end()};
}
std::vector<json> ndjson(const std::string& out) {
    std::vector<json> docs;
    for (size_t at = 0, nl; (nl = out.find('\n', at)) != std::string::npos; at = nl + 1)
        docs.push_back(json::parse(out.substr(at, nl - at)));
    return docs;
}
int wait_for(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
bool running(pid_t pid) {
    int st;
    return ::waitpid(pid, &st, WNOHANG) == 0;
}

// A command, its exit status, and what its output and error output show: "=TEXT" all
// of it, "!TEXT" not TEXT anywhere, else TEXT somewhere; its standard input, and its
// RLIMIT_FSIZE (a disk that fills).
struct Case {
    std::vector<std::string> args;
    int rc;
    std::vector<std::string> out = {}, err = {};
    std::string in = {};
    long fsize = -1;
};

// The tool run as a separate process in a private installation (its own directory,
// configuration, HOME, HOME_Q9, PROFILEQ9ENV); TearDown fails a test that left the segment.
class ToolInstallation : public ::testing::Test {
protected:
    std::string dir, cfg;
    bool quiet = false;        // pass --quiet to every command
    bool with_config = true;   // pass --config CFG to every command
    bool ignore_hup = false;   // start commands with SIGHUP ignored, as nohup does
    std::vector<std::pair<std::string, std::string>> env;
    long fsize_limit = -1;       // RLIMIT_FSIZE of the command
    bool stdout_gone = false;    // standard output a pipe whose reader has gone
    std::string out_to;          // standard output to this file (a device) instead

    void SetUp() override {
        char tmpl[] = "/tmp/kisam-tool-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir = tmpl;
        cfg = dir + "/kisamconfig";
        ::mkdir((dir + "/home").c_str(), 0777);
        ::mkdir((dir + "/q9").c_str(), 0777);
    }
    void TearDown() override {
        int id = segment();
        EXPECT_LT(id, 0) << "a command left the shared segment behind";
        drop_segment();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    int segment() const {
        std::string lk = cfg + ".lk";
        key_t k = ::ftok((::access(lk.c_str(), F_OK) == 0 ? lk : cfg).c_str(), 1);
        return k == -1 ? -1 : ::shmget(k, 0, 0);
    }
    void drop_segment() const {
        if (int id = segment(); id >= 0) ::shmctl(id, IPC_RMID, nullptr);
    }
    std::string path(const std::string& name) const { return dir + "/" + name; }

    void private_env() const {
        for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
            ::setenv(var, (dir + sub).c_str(), 1);
        ::unsetenv("KISCONFIG");
        ::setenv("LC_ALL", "C", 1);
        for (const auto& [var, value] : env) ::setenv(var.c_str(), value.c_str(), 1);
    }

    // Output into IO.out and IO.err, emptied first.
    pid_t start(const std::vector<std::string>& args, const std::string& input_file = "/dev/null",
                const std::string& io = "") {
        std::vector<std::string> argv{KISAM_TOOL_PATH};
        if (with_config) argv.insert(argv.end(), {"--config", cfg});
        if (quiet) argv.push_back("--quiet");
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string out = path(io + ".out"), err = path(io + ".err");
        spit(out, "");
        spit(err, "");
        std::fflush(nullptr);
        int gone[2] = {-1, -1};
        if (stdout_gone && ::pipe(gone) == 0) ::close(gone[0]);
        pid_t pid = ::fork();
        if (pid == 0) {
            private_env();
            // As a terminal's shell leaves them, whatever this test inherited.
            for (int sig : {SIGINT, SIGQUIT, SIGHUP, SIGTERM}) ::signal(sig, SIG_DFL);
            if (ignore_hup) ::signal(SIGHUP, SIG_IGN);
            if (fsize_limit >= 0) {
                struct rlimit rl = {rlim_t(fsize_limit), rlim_t(fsize_limit)};
                ::signal(SIGXFSZ, SIG_IGN);
                if (::setrlimit(RLIMIT_FSIZE, &rl) != 0) ::_exit(126);
            }
            const int fds[3] = {::open(input_file.c_str(), O_RDONLY),
                                stdout_gone ? gone[1] : ::open((out_to.empty() ? out : out_to).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666),
                                ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666)};
            for (int i = 0; i < 3; ++i)
                if (fds[i] < 0 || ::dup2(fds[i], i) < 0) ::_exit(126);
            std::vector<char*> av;
            for (auto& a : argv) av.push_back(a.data());
            av.push_back(nullptr);
            ::execv(av[0], av.data());
            ::_exit(127);
        }
        if (stdout_gone) ::close(gone[1]);
        return pid;
    }
    Result finish(pid_t pid, const std::string& io = "") {
        const int rc = wait_for(pid);
        return {rc, slurp(path(io + ".out")), slurp(path(io + ".err"))};
    }
    Result run(const std::vector<std::string>& args, const std::string& input = "") {
        std::string in = "/dev/null";
        if (!input.empty()) spit(in = path(".in"), input);
        return finish(start(args, in));
    }
    // Whether TEXT shows in the file NAME within ten seconds.
    bool appears(const std::string& name, const std::string& text) {
        for (int i = 0; i < 1000 && !has(slurp(path(name)), text); ++i) ::usleep(10000);
        return has(slurp(path(name)), text);
    }

    void init_config(std::vector<std::string> more = {}) {
        std::vector<std::string> args{"config", "init", cfg, "--buffers", "32", "--files", "8", "--users", "8", "--force"};
        args.insert(args.end(), more.begin(), more.end());
        Result r = run(args);
        ASSERT_EQ(r.rc, 0) << r.err;
    }
    // The next commands run with the n-th call `var` names failing with EIO.
    void failing(const char* var, int n) {
        const char* asan = std::getenv("ASAN_OPTIONS");
        env = {{"LD_PRELOAD", KISAM_FAULT_SHIM}, {var, std::to_string(n)},
               {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0"}};
    }

    // Returns the last row's result.
    Result table(const std::vector<Case>& cases) {
        auto match = [](const std::string& text, const std::string& want) {
            if (!want.empty() && want[0] == '=') return text == want.substr(1);
            if (!want.empty() && want[0] == '!') return !has(text, want.substr(1));
            return has(text, want);
        };
        Result r;
        for (const Case& c : cases) {
            std::string line;
            for (const auto& a : c.args) line += " " + a;
            SCOPED_TRACE("kisam" + line);
            fsize_limit = c.fsize;
            r = run(c.args, c.in);
            fsize_limit = -1;
            EXPECT_EQ(r.rc, c.rc) << r.out << r.err;
            for (const auto& w : c.out) EXPECT_TRUE(match(r.out, w)) << "output, wanted " << w << "\n" << r.out;
            for (const auto& w : c.err) EXPECT_TRUE(match(r.err, w)) << "errors, wanted " << w << "\n" << r.err;
        }
        return r;
    }

    // The output as one JSON document; a pointer ending in '#' compares an array's size.
    struct JsonCase { std::vector<std::string> args; int rc; std::vector<std::pair<std::string, json>> want; };
    void json_table(const std::vector<JsonCase>& cases) {
        for (const JsonCase& c : cases) {
            Result r = run(c.args);
            SCOPED_TRACE(c.args[0] + " " + (c.args.size() > 2 ? c.args.back() : "") + ": " + r.out);
            EXPECT_EQ(r.rc, c.rc) << r.err;
            const json doc = json::parse(r.out, nullptr, false);
            for (const auto& [ptr, value] : c.want) {
                const bool size = !ptr.empty() && ptr.back() == '#';
                const json::json_pointer at(size ? ptr.substr(0, ptr.size() - 1) : ptr);
                ASSERT_TRUE(doc.contains(at)) << ptr;
                EXPECT_EQ(size ? json(doc[at].size()) : doc[at], value) << ptr;
            }
        }
    }

    // 'put FILE -' reading a pipe, attached with FILE open; `line` is stored on return.
    struct Writer { pid_t pid; int fd; std::string io; };
    Writer writer(const std::string& file, const std::string& line, const std::string& io) {
        const std::string fifo = path(io + ".fifo");
        EXPECT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
        Writer w{start({"put", file, "-"}, fifo, io), ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC), io};
        EXPECT_EQ(::write(w.fd, (line + "\n").data(), line.size() + 1), ssize_t(line.size() + 1));
        for (int i = 0; i < 500 && finish(start({"get", file, line.substr(0, 3)}, "/dev/null", io + "get"), io + "get").rc;
             ++i)
            ::usleep(10000);
        return w;
    }
    Result end(Writer& w) {
        ::close(w.fd);
        return finish(w.pid, w.io);
    }

    // Dot files other than the commands' own: temporaries left behind.
    std::string temporaries() const {
        std::string out;
        for (const auto& e : std::filesystem::directory_iterator(dir)) {
            const std::string name = e.path().filename().string();
            if (name[0] == '.' && name != ".out" && name != ".err" && name != ".in") out += name + "\n";
        }
        return out;
    }
};

using Tool = ToolInstallation;

TEST_F(Tool, ConfigurationAndUsage) {
    spit(path("text"), "This is a text file, long enough to be read as a configuration record.\n");
    spit(path("empty"), "");
    with_config = false;
    table({{{"get", path("f"), "x"}, 1, {}, {"kisam config init", "/q9/kisamconfig"}},
           {{"config", "show", path("text")}, 1, {}, {"not a kisam configuration: " + path("text")}},
           {{"--config", path("empty"), "get", path("f"), "x"}, 1, {},
            {"ISE_INITERR", "is_init - 2", "the configuration file " + path("empty") + " is empty"}},
           {{"--config=" + path("empty"), "get", path("f"), "x"}, 1, {}, {"the configuration file " + path("empty")}},
           {{"config", "show"}, 1, {}, {"no configuration file found; looked at:", "/q9/kisamconfig", "kisam config init PATH"}},
           {{"stat"}, 1, {}, {"no configuration file found; looked at:", "--config PATH"}}});
    with_config = true;
    table({{{"get", path("f"), "x"}, 1, {}, {cfg + " (--config)", "!KISCONFIG)"}},
           {{"config", "init", cfg, "--files", "10", "--buffers", "4", "--users", "5", "--avg-alt-keys", "2",
             "--lock-key-len", "10", "--locks-per-file", "4", "--track-changes", "--clear-on-release"}, 0}});
    const std::string b = slurp(cfg);
    table({{{"config", "show", cfg}, 0, {"library state         at 8192", "cleared after every change"}},
           {{"config", "init", cfg}, 1},   // an existing configuration is kept
           {{"config", "init", cfg, "--buffers", "12x", "--force"}, 2},
           {{"create", path("f")}, 2},
           {{"scan", path("f"), "--limit"}, 2},
           {{}, 2, {"="}, {"Usage: kisam [--config PATH]"}},
           {{"frobnicate"}, 2, {}, {"unknown command \"frobnicate\"", "Try 'kisam help'"}},
           {{"scan", path("f"), "-x"}, 2, {}, {"unknown option -x", "kisam help scan"}},
           {{"scan", path("f"), "--bogus"}, 2, {}, {"unknown option --bogus"}},
           {{"scan", path("f"), "--count=yes"}, 2, {}, {"option --count takes no value"}},
           {{"config", "init", cfg, "--force", "--sync-on-mark"}, 2, {}, {"need --track-changes"}},
           {{"config", "remove", cfg}, 2, {}, {"unknown subcommand \"remove\""}}});
    EXPECT_EQ(slurp(cfg), b);
}

// --access sets the lock file's mode, which the journals follow.
TEST_F(Tool, ConfigurationForOneUserOneGroupOrEveryone) {
    struct { std::string access; mode_t conf, lock; const char* said; } cases[] = {
        {"user", 0600, 0600, "alone (lock file mode 0600"},
        {"group:65534", 0640, 0660, "(lock file mode 0660"},
        {"all", 0644, 0666, "every user of this host (lock file mode 0666)"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.access);
        if (c.access == "group:65534" && ::geteuid() != 0) continue;  // only members and root may
        for (const char* made : {".lk", ".lk.u0"}) ::unlink((cfg + made).c_str());
        table({{{"config", "init", cfg, "--buffers", "32", "--files", "8", "--users", "8", "--force", "--access",
                 c.access}, 0, {c.said}},
               {{"create", path("f"), "8", "--force"}, 0},
               {{"put", path("f"), "00000001rest"}, 0}});
        EXPECT_EQ(mode_of(cfg), c.conf);
        EXPECT_EQ(mode_of(cfg + ".lk"), c.lock);
        EXPECT_EQ(mode_of(cfg + ".lk.u0"), c.lock & 0666) << "the journal follows the lock file";
        struct stat st {};
        EXPECT_TRUE(c.access != "group:65534" || (::stat((cfg + ".lk").c_str(), &st) == 0 && st.st_gid == 65534u));
    }
    table({{{"config", "init", cfg, "--force", "--access", "nobody"}, 2},
           {{"config", "init", cfg, "--force", "--access", "group:no-such-group-here"}, 2}});
}

TEST_F(Tool, RecordsByEveryKey) {
    init_config();
    const std::string f = path("cust"), full = path("full");
    // key 0 (4 bytes), key 1 (6), key 2 (3), then free text.
    const std::string r1 = "C001smith_NYCfirst\n", r2 = "C002jones_LAXsecond\n", r3 = "C003smith_SFOthird\\x00\\xff\n",
                      r4 = "C004brown_NYCfourth\n";
    table({
        {{"create", f, "4,6,3"}, 0},
        {{"create", f, "4"}, 1},   // an existing file is kept
        {{"put", f, "-"}, 0, {}, {}, r1 + r2 + r3 + r4},
        {{"put", f, "C002other_BOSdup"}, 1},   // a key 0 value already there
        {{"get", f, "C003"}, 0, {"=" + r3}},
        {{"get", f, "LAX", "--key", "2"}, 0, {"=" + r2}},
        // A shorter value is a prefix; among equal alternate values the smallest key 0 wins.
        {{"get", f, "smi", "--key", "1"}, 0, {"=" + r1}},
        {{"get", f, "C009"}, 1},
        {{"scan", f, "--key", "1", "--from", "smith", "--to", "smith"}, 0, {"=" + r1 + r3}},
        {{"scan", f, "--key", "2", "--from", "NYC", "--backward"}, 0, {"=" + r4 + r1 + r2}},
        {{"scan", f, "--backward", "--from", "C003", "--to", "C002"}, 0, {"=" + r3 + r2}},
        {{"scan", f, "--from", "C002", "--limit", "2"}, 0, {"=" + r2 + r3}},
        {{"put", f, "C002jones_BOSmoved", "--replace"}, 0},
        {{"get", f, "BOS", "--key", "2"}, 0, {"=C002jones_BOSmoved\n"}},
        {{"get", f, "LAX", "--key", "2"}, 1},   // the old alternate value is gone
        {{"del", f, "C003", "C777"}, 1},        // one key did not exist
        {{"scan", f, "--count"}, 0, {"=3\n"}},
        {{"get", path("absent"), "a"}, 1, {}, {"ISE_OPENF"}},
        {{"create", full, "4"}, 0},
    });
    // Free chain and end (is_nextfree, is_lastpage) at 4 GiB - 1 KiB: the ceiling is named.
    poke(full, 4, std::string("\x00\xFC\xFF\xFF\x00\xFC\xFF\xFF", 8));
    table({{{"put", full, "abcd"}, 1, {}, {"4 GiB"}}});
}

TEST_F(Tool, DumpAndLoadAreExactForAnyBytes) {
    init_config();
    const char* env = std::getenv("KISAM_SEED");
    uint64_t seed = env ? std::strtoull(env, nullptr, 0) : 20261122;
    std::mt19937_64 rng(seed);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    static const unsigned char special[] = {0, '\\', '\n', '\r', 'x', ' ', 0x7f, 0x80, 0xff, '#'};
    for (bool keyopt : {false, true}) {
        const std::string a = path(keyopt ? "a_opt" : "a"), b = path(keyopt ? "b_opt" : "b");
        std::vector<std::string> cargs{"create", a, "5,3"};
        if (keyopt) cargs.push_back("--key-in-index");
        ASSERT_EQ(run(cargs).rc, 0);
        std::map<std::string, std::string> model;
        std::string input;
        for (int i = 0; i < 400; ++i) {
            size_t len = 8 + (i % 50 == 0 ? rng() % 3000 : rng() % 120);   // some need overflow pages
            std::string rec;
            while (rec.size() < len) rec += char(rng() % 3 == 0 ? special[rng() % sizeof special] : rng() % 256);
            if (keyopt && i % 97 == 0) rec.resize(5 + 3);                  // only the keys
            if (model.emplace(rec.substr(0, 5), rec).second) input += escape(rec) + "\n";
        }
        ASSERT_EQ(run({"put", a, "-"}, input).rc, 0);
        std::string expect = "# kisam dump 1\n# keys 5,3" + std::string(keyopt ? " key-in-index" : "") + "\n";
        for (const auto& [k, rec] : model) expect += std::to_string(rec.size()) + " " + escape(rec) + "\n";
        expect += "# end " + std::to_string(model.size()) + " records\n";
        spit(path("d.txt"), expect);
        // A second load finds every record present: reported, nothing changes.
        table({{{"dump", a}, 0, {"=" + expect}}, {{"load", b, path("d.txt")}, 0}, {{"dump", b}, 0, {"=" + expect}},
               {{"check", b}, 0}, {{"load", b}, 1, {}, {}, expect}, {{"dump", b}, 0, {"=" + expect}}});
    }
}

// Each damage: check calls the file damaged, the command that meets it names it.
TEST_F(Tool, DamageIsFoundAndNamed) {
    init_config();
    const std::string f = path("dmg");
    table({{{"create", f, "6,8"}, 0},
           {{"put", f, "-"}, 0, {}, {}, lines(2000, [](int i) { return fmt("R%05dALT%05d some data %d\n", i, i * 7919 % 100000, i); })},
           {{"del", f, "R00100", "R00101", "R00102"}, 0}, {{"check", f}, 0}});
    const std::string img = slurp(f);
    const uint32_t head = u32(img, 4), last = u32(img, 8);
    ASSERT_NE(head, last) << "deleting should have freed a page";
    ASSERT_NE(img.find("R00005ALT"), std::string::npos);
    const struct { off_t at; std::string bytes; std::vector<Case> then; } damages[] = {
        {off_t(img.find("ALT")) + 3, "X", {}},   // a record's key changed behind the index
        {off_t(head) + 4, img.substr(4, 4), {{{"info", f}, 1, {"problem", "loop"}}}},
        // A segment running off its page: the dump stops there, without a closing line.
        {off_t(img.find("R00005ALT")) - 2, "\xff\x83", {{{"dump", f}, 1, {"R00004ALT", "!# end"}, {"ISE_BTS", "dr_get"}}}},
    };
    for (const auto& d : damages) {
        spit(f, img);
        poke(f, d.at, d.bytes);
        table(d.then);
        table({{{"check", f}, 1, {"DAMAGED"}}});
    }
}

// 1 nothing found or damage, 2 usage, 3 unreadable, 130 interrupted.
TEST_F(Tool, ExitStatusesAndMessages) {
    init_config();
    const std::string f = path("e"), d = path("d");
    const std::string dump = "# kisam dump 1\n# keys 3\n3 abc\n3 abd\n";
    spit(path("data.csv"), "id,name\n1,x\n");
    spit(path("short"), "x");
    table({
        {{"create", f, "4,3"}, 0},
        {{"put", f, "-"}, 0, {}, {}, "aaaaXYZone\naabbXYZtwo\nbbbbQQQthree\n"},
        {{"scan", f, "--from", "c"}, 1, {"="}},   // no record matched, as get
        {{"scan", f, "--from", "zz", "--count"}, 1, {"=0\n"}},
        {{"scan", f, "--from", "bbbb", "--to", "aaaa"}, 2, {}, {"reversed", "--backward"}},
        {{"scan", f, "--from", "aaaa", "--to", "bbbb", "--backward"}, 2},
        {{"scan", f, "--from", "aa", "--to", "a"}, 0, {"=aaaaXYZone\naabbXYZtwo\n"}},
        {{"scan", f, "--from", "bbbb", "--to", "aab", "--backward"}, 0, {"=bbbbQQQthree\naabbXYZtwo\n"}},
        {{"check", dir}, 3, {"!DAMAGED"}, {"read error"}},
        {{"check", path("missing")}, 3},
        {{"check", path("data.csv")}, 1, {"NOT AN ISAM FILE: unknown magic 0x6469", "!DAMAGED"}},
        {{"get", path("data.csv"), "1"}, 1, {}, {"ISE_NOTISAM", "not an ISAM file: unknown magic 0x6469"}},
        {{"get", path("short"), "1"}, 1, {}, {"not an ISAM file: the file is shorter than a control page"}},
        {{"load", f, dir}, 1, {}, {"read error", "Is a directory", "!closing line"}},
        {{"dump", f, "/dev/full"}, 1, {}, {"incomplete"}},
        {{"load", path("l1")}, 1, {}, {"counts 3 records, the dump holds 2"}, dump + "# end 3 records\n"},
        {{"load", path("l2")}, 0, {}, {}, dump + "# end 2 records\n"},
        {{"load", path("l3")}, 1, {}, {"malformed closing line"}, dump + "# end two records\n"},
        {{"create", path("k26"), "1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1"}, 2, {}, {"at most 25 keys"}},
        {{"create", path("wide"), "300,300"}, 1, {}, {"ISE_INVKL", "must fit a 1024-byte index page"}},
        {{"create", d, "4"}, 0},
        {{"put", d, "-"}, 0, {}, {}, "ab01x\nab02x\nac01x\nb\\x00\\x00\\x00x\nzz99x\n"},
        {{"get", d, "\\x7A\\x7a99"}, 0, {"=zz99x\n"}},
        {{"get", d, "\\q"}, 2, {}, {"malformed escape in \"\\q\""}},
        {{"put", d, "ab\\qcd"}, 1, {}, {"malformed escape in the record"}},
        {{"del", d, "ab"}, 1, {}, {"more than one record", "ab01", "ab02"}},
        {{"del", d, "ac"}, 0},
        {{"get", d, "ac01"}, 1},
        {{"del", d, "b"}, 0},   // a value filled with zero bytes is still found
        {{"del", d, "q"}, 1, {}, {"no record with key 0 beginning with \"q\""}},
        {{"del", d, "-"}, 1, {}, {"line 2: no record"}, "ab01\nnone\nzz\n"},
        {{"scan", d}, 0, {"=ab02x\n"}},
    });
    json_table({{{"check", path("data.csv"), "--json"}, 1, {{"/status", "not_isam"}}}});
    out_to = "/dev/full";
    table({{{"scan", f}, 1}, {{"dump", f}, 1, {}, {"No space left"}}});
    out_to.clear();
    Writer w = writer(f, "ccccRRRfour", "w");
    ::kill(w.pid, SIGINT);
    Result r = finish(w.pid, "w");   // reaped before its input closes: an end of input is no interrupt
    ::close(w.fd);
    EXPECT_EQ(r.rc, 130) << r.err;
    EXPECT_TRUE(has(r.err, "interrupted")) << r.err;
    table({{{"get", f, "cccc"}, 0, {"=ccccRRRfour\n"}}});
}

// A file left with its data-changed mark is refused until check has found it sound and
// cleared the mark; check leaves the mark on a damaged file and on one that a process
// has open.
TEST_F(Tool, DataChangedMarkIsClearedOnlyWhenSound) {
    init_config({"--track-changes"});
    const std::string f = path("m");
    table({{{"create", f, "4,3"}, 0}, {{"put", f, "-"}, 0, {}, {}, "aaaaXYZone\nbbbbQQQtwo\n"}});
    const auto marked = [&] { return (field<uint8_t>(slurp(f), 88) & 0x10) != 0; };
    const auto set_mark = [&] { poke(f, 88, std::string(1, char(field<uint8_t>(slurp(f), 88) | 0x10))); };
    ASSERT_FALSE(marked());
    set_mark();
    const std::string sound = slurp(f);
    poke(f, off_t(sound.find("XYZone")) + 1, "W");   // key 1's item no longer matches its record
    table({{{"check", f, "--clear-mark"}, 1, {"DAMAGED"}}});
    EXPECT_TRUE(marked()) << "the mark of a damaged file was cleared";
    spit(f, sound);
    table({{{"get", f, "aaaa"}, 1, {}, {"ISE_INCONSISTENT", "'kisam check --clear-mark' once it is sound"}},
           {{"check", f}, 0, {"sound, but its data-changed mark is set"}}});
    json_table({{{"check", f, "--json"}, 0, {{"/status", "sound"}, {"/data_changed_mark", true}}}});
    EXPECT_TRUE(marked());
    table({{{"check", f, "--clear-mark"}, 0, {"sound; data-changed mark cleared"}},
           {{"get", f, "aaaa"}, 0, {"=aaaaXYZone\n"}}});
    EXPECT_FALSE(marked());
    EXPECT_EQ(field<uint8_t>(slurp(f), 88) | 0x10, field<uint8_t>(sound, 88)) << "other option bits changed";

    // Without a configuration nobody can tell whether a process has the file open.
    set_mark();
    with_config = false;
    table({{{"check", f, "--clear-mark"}, 1, {"exactly the 2 records of key 0"}, {"the mark is left set", "cannot be told"}}});
    with_config = true;
    EXPECT_TRUE(marked());
    table({{{"check", f, "--clear-mark"}, 0}});
    Writer w = writer(f, "ccccRRRthree", "w");
    table({{{"check", f}, 0, {"is open in the shared area; changes not yet flushed are not seen", ": sound\n"}},
           {{"create", f, "4", "--force"}, 1, {}, {"ISE_CREATEISOPEN", "close it everywhere first"}}});
    EXPECT_EQ(end(w).rc, 0) << slurp(path("w.err"));
}

TEST_F(Tool, ProgressLineIsErased) {
    init_config();
    spit(path("big.dump"), "# kisam dump 1\n# keys 6\n" + lines(3000, [](int i) { return fmt("10 K%05dxxxx\n", i); }) +
                               "# end 3000 records\n");
    std::fflush(nullptr);
    int master = -1;
    pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        private_env();
        ::execl(KISAM_TOOL_PATH, KISAM_TOOL_PATH, "--config", cfg.c_str(), "load", path("big").c_str(),
                path("big.dump").c_str(), (char*)nullptr);
        ::_exit(127);
    }
    std::string seen;
    char buf[4096];
    for (ssize_t n; (n = ::read(master, buf, sizeof buf)) > 0;) seen.append(buf, size_t(n));   // EIO once it has gone
    ::close(master);
    EXPECT_EQ(wait_for(pid), 0) << seen;
    size_t at = seen.find("loaded 3000 records");
    ASSERT_NE(at, std::string::npos) << seen;
    EXPECT_TRUE(has(seen, "records (")) << "a progress line was shown: " << seen;
    EXPECT_EQ(seen.substr(at - 4, 4), "\r\033[K") << seen;
}

TEST_F(Tool, ImportAndExportCsv) {
    init_config();
    const std::string f = path("cust"), fields = "id:4,name:6,city:5,rest:*";
    spit(path("in.csv"),
        "name,id,rest,city\r\n"                      // 1
        "smith,C001,plain,NYC\r\n"                   // 2
        "\"jo,nes\",C002,\"says \"\"hi\"\"\nand more\",LA\r\n"   // 3-4: quoted, a line end inside
        "Mmmmm\xc3\xbc,C003,x,Z\xc3\xbcrich\n"      // 5: both cut, never inside the two-byte u
        "bad\"quote,C004,x,Y\n"                      // 6: a quote inside an unquoted value
        "short,C005,x\n"                             // 7: three fields of four
        "bin\xff,C006,x,Y\n"                         // 8: not UTF-8
        "again,C001,dup,NYC\n"                       // 9: key 0 present already
        "\n"                                         // 10: blank, skipped
        "last,C007,no newline at the end,SF");       // 11
    const std::string csv = "id,name,city,rest\r\nC001,smith,NYC,plain\r\nC002,\"jo,nes\",LA,\"says \"\"hi\"\"\nand more\"\r\n"
                            "C003,Mmmmm,Z\xc3\xbcri,x\r\nC007,last,SF,no newline at the end\r\n";
    spit(path("out.csv"), csv);
    table({
        {{"create", f, "4,6"}, 0},
        {{"import", f, path("in.csv"), "--fields", fields}, 1, {},
         {"line 5: warning: field \"name\" cut from 7 to 5 bytes; field \"city\" cut from 7 to 5 bytes",
          "line 6: bad quoting", "line 7: 3 fields, expected 4", "line 8: field \"name\": byte 4 is not valid UTF-8",
          "imported 4 records into " + f + " from " + path("in.csv") +
              "; 1 duplicates not loaded (lines 9); 3 lines rejected (lines 6, 7, 8)"}},
        {{"scan", f}, 0, {"=C001smith NYC  plain\nC002jo,nesLA   says \"hi\"\\x0aand more\nC003Mmmmm Z\\xc3\\xbcrix\n"
                          "C007last  SF   no newline at the end\n"}},
        {{"export", f, "--fields", fields}, 0, {"=" + csv}},
        {{"create", path("copy"), "4,6"}, 0},
        {{"import", path("copy"), path("out.csv"), "--fields", fields}, 0},
        {{"export", f}, 0, {"key0,key1,rest\r\nC001,smith,NYC  plain\r\n"}},
    });
    const std::string before = run({"dump", f}).out;
    EXPECT_EQ(run({"dump", path("copy")}).out.substr(20), before.substr(20));
    const std::vector<json> docs = ndjson(table({{{"export", f, "--json", "--fields", fields}, 0}}).out);
    ASSERT_EQ(docs.size(), 4u);
    EXPECT_EQ(docs[1]["name"], "jo,nes");
    EXPECT_EQ(docs[1]["rest"], "says \"hi\"\nand more");
    EXPECT_EQ(docs[2]["city"], "Z\xc3\xbcri");

    // Layouts whose first fields are not the keys: refused (2) with nothing written.
    const std::string out = path("refused.out");
    const auto refused = [&](const char* cmd, const char* layout, const char* says) {
        return Case{{cmd, f, std::string(cmd) == "import" ? path("in.csv") : out, "--fields", layout}, 2, {}, {says}};
    };
    table({refused("import", "id:4,name:10,city:5,rest:*", "the field \"name\" is 10 bytes, key 1 is 6 bytes"),
           refused("import", "id:3,name:6,city:5,rest:*", "the field \"id\" is 3 bytes, key 0 is 4 bytes"),
           refused("import", "whole:10,rest:*", "the field \"whole\" is 10 bytes, key 0 is 4 bytes"),
           refused("import", "id:4,rest:*", "the field \"rest\" is of any length (*), key 1 is 6 bytes"),
           refused("import", "id:4", "no field for key 1 (6 bytes)"),
           refused("import", "id:4,rest:*,name:6", "must be the last"),
           refused("import", "id:4,id:6", "given twice"),
           refused("export", "id:4,name:16,rest:*", "the field \"name\" is 16 bytes, key 1 is 6 bytes"),
           refused("export", "id:2,name:6", "the field \"id\" is 2 bytes, key 0 is 4 bytes")});
    EXPECT_NE(::access(out.c_str(), F_OK), 0) << "a refused export wrote its output";
    EXPECT_EQ(run({"dump", f}).out, before) << "nothing stored";
    spit(path("h.csv"), "id,nom,city,rest\nC100,x,y,z\n");
    spit(path("q.csv"), "id,name,city,rest\nC200,ok,x,y\nC201,\"open,x,y\nC202,z,x,y\n");
    table({{{"import", f, path("h.csv"), "--fields", fields}, 1, {}, {"no column \"name\"", "imported 0 records"}},
           {{"import", f, path("q.csv"), "--fields", fields}, 1, {},
            {"line 3: a quoted value is not closed before the end of the input (lines 3 to 4)", "imported 1 records"}}});
}

TEST_F(Tool, JsonAndRawOutput) {
    init_config();
    const std::string f = path("j");
    table({
        {{"create", f, "3"}, 0},
        {{"put", f, "-"}, 0, {}, {}, "abcM\\xc3\\xbcller \"q\" \\\\ \\x01\nbinraw\\xff\\x00end\n"},
        // Not UTF-8: U+FFFD in the string, the exact bytes in NAME_base64.
        {{"get", f, "bin", "--json"}, 0, {"={\"length\":11,\"keys\":[\"bin\"],\"record\":\"binraw\xef\xbf\xbd\\u0000end\","
                                          "\"record_base64\":\"YmlucmF3/wBlbmQ=\"}\n"}},
        {{"put", f, "\\xffzzkey\\xfe"}, 0},
        {{"scan", f, "--from", "\\xff\\xff", "--json-array"}, 1, {"=[]\n"}},
        {{"scan", f, "--json", "--json-array"}, 2},
        {{"scan", f, "--json", "--raw"}, 2},
    });
    const std::vector<json> docs = ndjson(run({"scan", f, "--json"}).out);
    EXPECT_EQ(docs.size(), 3u);
    for (const json& doc : docs) EXPECT_TRUE(doc.is_object());
    json_table({
        {{"get", f, "abc", "--json"}, 0,
         {{"/record", "abcM\xc3\xbcller \"q\" \\ \x01"}, {"/keys/0", "abc"}, {"/length", 18}}},
        {{"get", f, "\\xffzz", "--json"}, 0, {{"/keys_base64", json::array({"/3p6"})}, {"/record_base64", "/3p6a2V5/g=="}}},
        {{"scan", f, "--json-array"}, 0, {{"#", 3}, {"/1/record_base64", "YmlucmF3/wBlbmQ="}}},
        {{"export", f, "--json-array"}, 0, {{"#", 3}, {"/1/rest_base64", "cmF3/wBlbmQ="}, {"/2/key0_base64", "/3p6"}}},
    });
    table({{{"del", f, "\\xffzz"}, 0}, {{"get", f, "bin", "--raw"}, 0, {"=" + std::string("binraw\xff\0end", 11)}}});
    json_table({
        {{"scan", f, "--json", "--count"}, 0, {{"/count", 2}}},
        {{"info", f, "--json"}, 0, {{"/records", 2}, {"/keys/0/length", 3}, {"/problems", json::array()}}},
        {{"check", f, "--json"}, 0, {{"/status", "sound"}, {"/records", 2}}},
        {{"check", dir, "--json"}, 3, {{"/status", "unreadable"}}},
    });
    Writer w = writer(f, "xyz1", "w");
    json_table({{{"stat", f, "--json"}, 0, {{"/files#", 1}, {"/files/0/name", f}, {"/files/0/users", 1}}}});
    end(w);
}

TEST_F(Tool, StatSeesProcessesAndTheDead) {
    init_config();
    const std::string f = path("s");
    ASSERT_EQ(run({"create", f, "4"}).rc, 0);
    pid_t st = start({"stat", "--every", "1", "--count", "1"}, "/dev/null", "st");
    ::usleep(300000);
    Writer w[2] = {writer(f, "abcdEFGH", "w0"), writer(f, "wxyz1234", "w1")};
    Result r = finish(st, "st");
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_TRUE(has(r.out, "waiting for a program to attach") && has(r.out, "shared area at")) << r.out;
    table({{{"stat"}, 0, {"processes 3 attached", "used by 2 processes", "pid " + std::to_string(w[0].pid)}}});
    // A writer killed: stat's own attach cleans it up and says so.
    ::kill(w[1].pid, SIGKILL);
    end(w[1]);
    const std::string dead = std::to_string(w[1].pid);
    table({{{"stat"}, 0, {"1 dead process cleaned up", "last cleaned up: pid " + dead, "used by 1 process,",
                          "!pid " + dead + " NO LONGER EXISTS"}}});
    EXPECT_EQ(end(w[0]).rc, 0);
    table({{{"get", f, "abcd"}, 0, {"=abcdEFGH\n"}}});
}

// In a UTF-8 locale valid characters show as they are and read back as the same bytes;
// the dump is the same in every locale.
TEST_F(Tool, TextFormFollowsTheLocale) {
    init_config();
    const std::string f = path("u"), shown = "abcM\xc3\xbcller\\x01\\xc2\\x85\\xff\n";
    table({{{"create", f, "3"}, 0},
           {{"put", f, "abcM\\xc3\\xbcller\\x01\\xc2\\x85\\xff"}, 0},
           {{"scan", f}, 0, {"=abcM\\xc3\\xbcller\\x01\\xc2\\x85\\xff\n"}}});
    const std::string dump = run({"dump", f}).out;
    env = {{"LC_ALL", "C.UTF-8"}};
    table({{{"scan", f}, 0, {"=" + shown}},
           {{"dump", f}, 0, {"=" + dump}},
           {{"put", f, "-", "--update"}, 0, {}, {}, shown},
           {{"dump", f}, 0, {"=" + dump}},   // the shown form reads back as the same bytes
           {{"get", f, "\xc3\xbc"}, 1, {}, {"beginning with \"\xc3\xbc\""}}});
    env = {{"LANG", "C.UTF-8"}, {"LC_ALL", ""}};
    table({{{"get", f, "abc"}, 0, {"=" + shown}}});
}

// A reader that goes away ('| head -1') is a normal end: status 0, no message.
TEST_F(Tool, ClosedOutputPipeIsANormalEnd) {
    init_config();
    const std::string f = path("p");
    table({{{"create", f, "4"}, 0},
           {{"put", f, "-"}, 0, {}, {}, lines(2000, [](int i) { return fmt("%04d some data of record %d\n", i, i); })}});
    stdout_gone = true;
    std::vector<Case> cases;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"scan", f}, {"scan", f, "--json"}, {"scan", f, "--json-array"}, {"get", f, "0001"},
          {"dump", f}, {"export", f}, {"export", f, "--json-array"}, {"info", f}, {"check", f}, {"check", f, "--json"},
          {"stat"}, {"stat", "--every", "1"}, {"config", "show"}, {"help"}, {"help", "scan"}, {"--version"}})
        cases.push_back({args, 0, {}, {"="}});
    table(cases);
}

// A full disk and failed syncs reach the exit status; what a load says it stored is
// what the file holds; a failed dump leaves nothing under its name.
TEST_F(Tool, FullDiskAndFailedSync) {
    init_config();
    const std::string dump = "# kisam dump 1\n# keys 6\n" +
                             lines(2000, [](int i) { return fmt("300 K%05d", i) + std::string(294, 'x') + "\n"; }) +
                             "# end 2000 records\n";
    spit(path("big.dump"), dump);
    const auto stored = [](const std::string& err, const std::string& word) {
        const size_t at = err.find(word);
        return at == std::string::npos ? "(none)" : std::to_string(std::strtol(err.c_str() + at + word.size(), nullptr, 10));
    };
    // Past the journal's and the log's first sizes, below what the whole load needs.
    Result r = table({{{"load", path("big"), path("big.dump")}, 1, {}, {"ISE_", "stopped at line", "before the failure"},
                       "", 1024 * 1024 + 64 * 1024}});
    const long n = std::atol(stored(r.err, "loaded ").c_str());
    EXPECT_TRUE(n > 0 && n < 2000) << r.err;
    spit(path("old.dump"), "an older dump\n");
    table({{{"scan", path("big"), "--count"}, 0, {"=" + std::to_string(n) + "\n"}},
           {{"dump", path("big"), path("old.dump")}, 1, {}, {"cannot write", "was not written"}, "", 4096},
           {{"dump", path("big"), path("new.dump")}, 1, {}, {"cannot write", "was not written"}, "", 4096}});
    EXPECT_EQ(slurp(path("old.dump")), "an older dump\n");
    EXPECT_NE(::access(path("new.dump").c_str(), F_OK), 0);
    EXPECT_EQ(temporaries(), "") << "a temporary left";
    table({{{"dump", path("big"), path("old.dump")}, 0}});
    EXPECT_EQ(slurp(path("old.dump")), run({"dump", path("big")}).out);

    // Mark cleared at every release, the third sync and all after it failing.
    init_config({"--track-changes", "--clear-on-release"});
    spit(path("in.csv"), "key0,rest\n" + lines(300, [](int i) { return fmt("C%05d,row %d\n", i, i); }));
    spit(path("small.dump"), dump.substr(0, dump.find("\n300 K00040")) + "\n# end 40 records\n");
    const struct { const char *cmd, *input, *says, *stored; } stopped[] = {
        {"load", "big.dump", "stopped at line", "loaded "},
        {"import", "in.csv", "closing the file: ISE_FLWT", "imported "},
        {"load", "small.dump", "closing the file: ISE_FLWT", "loaded "},
    };
    for (const auto& c : stopped) {
        SCOPED_TRACE(c.input);
        const std::string file = path(std::string("synced.") + c.input);
        ASSERT_EQ(run({"create", file, "6"}).rc, 0);
        failing("KISAM_TEST_FAIL_FDATASYNC", 3);
        r = table({{{c.cmd, file, path(c.input)}, 1, {}, {c.says, "ISE_", "Sys errno #5"}}});
        env.clear();
        table({{{"scan", file, "--count"}, 0, {"=" + stored(r.err, c.stored) + "\n"}}, {{"check", file}, 0}});
    }
    // Mark synced when it changes: a close whose sync fails fails the tool, loses nothing.
    init_config({"--track-changes", "--sync-on-mark"});
    ASSERT_EQ(run({"create", path("closed"), "6"}).rc, 0);
    failing("KISAM_TEST_FAIL_FDATASYNC", 3);
    table({{{"put", path("closed"), "K00001abc"}, 1, {}, {"closing the file: ISE_FLWT", "Sys errno #5"}}});
    env.clear();
    table({{{"get", path("closed"), "K00001"}, 0}});
}

// The tool waiting for the control lock of another process: a load, which holds it over
// each batch of records, also while it waits for the next line of its input (a pipe).
class ToolWait : public ToolInstallation {
protected:
    pid_t holder = -1;
    int holder_in = -1;

    void SetUp() override {
        ToolInstallation::SetUp();
        init_config();
        ASSERT_EQ(run({"create", path("f"), "4"}).rc, 0);
        ASSERT_EQ(::mkfifo(path("hold.fifo").c_str(), 0666), 0);
        holder = start({"load", path("f"), path("hold.fifo")}, "/dev/null", "holder");
        holder_in = ::open(path("hold.fifo").c_str(), O_WRONLY | O_CLOEXEC);   // the tools started later must not keep it
        const std::string first = "# kisam dump 1\n# keys 4\n10 hold000001\n";
        ASSERT_EQ(::write(holder_in, first.data(), first.size()), ssize_t(first.size()));
        const std::string held = "control lock held by pid " + std::to_string(holder);
        for (int i = 0; i < 1000 && !has(run({"stat"}).out, held); ++i) ::usleep(10000);
        ASSERT_TRUE(has(run({"stat"}).out, held));
    }
    void TearDown() override {
        release();
        ToolInstallation::TearDown();
    }
    void release() {
        if (holder < 0) return;
        const std::string last = "# end 1 records\n";
        EXPECT_EQ(::write(holder_in, last.data(), last.size()), ssize_t(last.size()));
        ::close(holder_in);
        EXPECT_EQ(finish(holder, "holder").rc, 0) << "the holder failed: " << slurp(path("holder.err"));
        holder = -1;
    }
    // Returns once the command says whom it waits for.
    pid_t waiting(const std::vector<std::string>& args) {
        pid_t pid = start(args);
        EXPECT_TRUE(appears(".err", "waiting for process " + std::to_string(holder) + " (holds the control lock of " +
                                        dir + "/f)")) << slurp(path(".err"));
        return pid;
    }
};

TEST_F(ToolWait, AnInterruptDuringAWaitStopsWithNothingWritten) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE("signal " + std::to_string(sig));
        pid_t pid = waiting({"put", path("f"), "abcdRECORD"});
        ASSERT_TRUE(running(pid));
        const auto t0 = std::chrono::steady_clock::now();
        ::kill(pid, sig);
        Result r = finish(pid);
        EXPECT_EQ(r.rc, 130) << r.err;
        EXPECT_TRUE(has(r.err, "waiting for process") && has(r.err, "\nkisam put: interrupted\n") &&
                    r.err.find("interrupted") == r.err.rfind("interrupted")) << r.err;
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5)) << "the interrupt waited for the holder";
    }
    // Their slots wait for the clean-up of dead processes while the holder holds the file.
    table({{{"stat"}, 0, {" NO LONGER EXISTS: it ended without giving its slot back", "3 slot(s) held by processes that no longer exist"}}});
    // A hangup ignored at the start ('nohup') stays ignored.
    ignore_hup = true;
    pid_t pid = waiting({"put", path("f"), "wxyzRECORD"});
    ::kill(pid, SIGHUP);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(running(pid)) << "a hangup ended a command that started with it ignored";
    release();
    EXPECT_EQ(finish(pid).rc, 0);
    // The interrupted ones stored nothing, and their files were closed for them.
    table({{{"get", path("f"), "abcd"}, 1, {"="}, {"!did not all close"}},
           {{"get", path("f"), "wxyz"}, 0, {"=wxyzRECORD\n"}}});
}

class Backup : public ToolInstallation {
protected:
    void SetUp() override {
        ToolInstallation::SetUp();
        quiet = true;
        init_config({"--buffers", "64"});
    }
    static std::string dump_of(int n) {
        return "# kisam dump 1\n# keys 8,6\n" + lines(n, [](int i) {
                   const std::string rec = fmt("K%07dA%05d", i, (i * 7919) % 100000) + std::string(size_t(20 + (i * 37) % 90), char('a' + i % 26));
                   return std::to_string(rec.size()) + " " + rec + "\n";
               }) + "# end " + std::to_string(n) + " records\n";
    }
};

// Each backup taken under a load is sound and a prefix of it, cut at a batch of 256.
TEST_F(Backup, BackupsOfAFileBeingWrittenAreSoundPrefixes) {
    const std::string src = dump_of(100000), f = path("live"), dest = path("copy");
    spit(path("in.dump"), src);
    const std::vector<std::string> want = records_of(src);
    ASSERT_EQ(run({"create", f, "8,6", "--key-in-index"}).rc, 0);
    const long long empty = size_of(f);
    const pid_t writer = start({"load", f, path("in.dump")}, "/dev/null", "writer");
    for (int i = 0; i < 2000 && size_of(f) == empty; ++i) ::usleep(1000);   // the load has begun
    int status = 0, done = 0;
    for (int i = 0; i < 40 && (done = ::waitpid(writer, &status, WNOHANG)) == 0; ++i) {
        table({{{"backup", f, dest}, 0, {"writers were held for", "checked sound"}}, {{"check", dest}, 0}});
        const std::vector<std::string> got = records_of(table({{{"dump", dest}, 0}}).out);
        ASSERT_LE(got.size(), want.size());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), want.begin())) << "backup " << i << " is no prefix of the load";
        EXPECT_TRUE(got.size() % 256 == 0 || got.size() == want.size()) << got.size() << " records: inside a batch";
    }
    EXPECT_EQ(done ? (WIFEXITED(status) ? WEXITSTATUS(status) : 128) : wait_for(writer), 0) << slurp(path("writer.err"));
    EXPECT_EQ(temporaries(), "") << "a temporary was left";
}

// Half the records deleted: compact halves the file and keeps every record and order.
TEST_F(Backup, CompactGivesBackWhatDeletesFreed) {
    spit(path("in.dump"), dump_of(4000));
    const std::string del = lines(2000, [](int i) { return fmt("K%07d\n", 2 * i); });
    auto estimate = [&](const char* cmd, const std::string& f) {
        const std::string out = run({cmd, f}).out;
        const size_t at = out.find("compaction would give back about ");
        EXPECT_NE(at, std::string::npos) << out;
        return at == std::string::npos ? -1LL : std::atoll(out.c_str() + at + 33);
    };
    auto line = [](const std::string& out, const char* start) {
        const size_t a = out.find(start);
        return a == std::string::npos ? "(none)" : out.substr(a, out.find('\n', a) + 1 - a);
    };
    for (const char* opt : {"", "--key-in-index", "--small-header"}) {
        SCOPED_TRACE(opt);
        const std::string f = path(std::string("c") + opt);
        std::vector<std::string> create{"create", f, "8,6"};
        if (*opt) create.push_back(opt);
        table({{create, 0}, {{"load", f, path("in.dump")}, 0}});
        const long long full = size_of(f);
        EXPECT_LE(estimate("info", f), full / 8) << "a file just loaded has little to give back";
        table({{{"del", f, "-"}, 0, {}, {}, del}});
        EXPECT_EQ(size_of(f), full) << "deletes give nothing back by themselves";
        for (const char* cmd : {"info", "stat"}) {
            const long long est = estimate(cmd, f);
            EXPECT_TRUE(est >= full / 3 && est <= full * 2 / 3) << cmd << ": " << est << " of " << full;
        }
        const std::string keys0 = run({"dump", f}).out, keys1 = run({"scan", f, "--key", "1"}).out, info = run({"info", f}).out;
        table({{{"compact", f}, 0, {"2000 records", "given back"}}, {{"check", f}, 0},
               {{"dump", f}, 0, {"=" + keys0}}, {{"scan", f, "--key", "1"}, 0, {"=" + keys1}},
               {{"info", f}, 0, {line(info, "format "), line(info, "key 0 stored")}}});
        // Denser than half: the rewrite fills the index pages.
        EXPECT_TRUE(size_of(f) <= full / 2 + 2 * 1024 && size_of(f) >= full * 2 / 5) << size_of(f) << " of " << full;
    }
    EXPECT_EQ(temporaries(), "") << "a temporary was left";
}

// A backup that fails, and a compact refused while another process has the file open,
// leave the file, the destination and the directory as they were.
TEST_F(Backup, FailuresAndRefusalsLeaveEverythingAsItWas) {
    const std::string f = path("src");
    spit(path("in.dump"), dump_of(3000));
    spit(path("old"), "an older backup\n");
    table({{{"load", f, path("in.dump")}, 0},
           {{"backup", f, path("nowhere/copy")}, 1, {}, {"nothing was written"}},
           {{"backup", f}, 2},
           {{"backup", f, path("old")}, 1, {}, {"ISE_FLWT"}, "", 100000}});
    // Names the engine or the temporary beside the file could not hold.
    const std::string longer = path(std::string(95, 'n'));
    table({{{"create", longer, "8"}, 0},
           {{"compact", longer}, 1, {}, {"the name is too long for the temporary file beside it"}},
           {{"get", longer + std::string(20, 'n'), "x"}, 1, {}, {"file name longer than 127 characters"}}});
    Writer w = writer(f, "K9999999A00000held open", "holder");
    const std::string before = slurp(f);
    table({{{"compact", f}, 1, {}, {"open in 1 other process"}}});
    EXPECT_EQ(slurp(f), before);
    EXPECT_EQ(end(w).rc, 0) << slurp(path("holder.err"));
    table({{{"compact", f}, 0}, {{"check", f}, 0}, {{"get", f, "K9999999"}, 0}});
    const size_t at = slurp(f).find("K0000005A");
    ASSERT_NE(at, std::string::npos);
    poke(f, off_t(at) - 2, "\xff\x83");   // a record's length now runs off its page
    table({{{"check", f}, 1}, {{"backup", f, path("old")}, 1, {}, {"did not check sound"}}});
    EXPECT_EQ(slurp(path("old")), "an older backup\n");
    EXPECT_NE(::access(path("nowhere").c_str(), F_OK), 0);
    EXPECT_EQ(temporaries(), "") << "a temporary was left";
}

// A rollback a full disk left pending is applied first by check, info and dump, never
// called damage; when it cannot be applied either, status 4 says it is pending.
TEST_F(Backup, CheckSettlesARollbackLeftByAFullDisk) {
    spit(path("in.dump"), dump_of(1000));
    int failed_loads = 0, settled = 0, pending = 0;
    for (int n : {3, 9, 17, 40, 77, 130, 211, 333}) {
        SCOPED_TRACE("n=" + std::to_string(n));
        const std::string f = path("full" + std::to_string(n));
        ASSERT_EQ(run({"create", f, "8,6"}).rc, 0);
        failing("KISAM_TEST_FAIL_PWRITE", n);
        Result r = run({"load", f, path("in.dump")});
        env.clear();
        if (r.rc == 0) continue;
        ++failed_loads;
        EXPECT_EQ(r.rc, 1) << r.err;
        if (n == 17 || n == 40 || n == 77) {
            failing("KISAM_TEST_FAIL_PWRITE", 1);
            r = run({"check", f});
            env.clear();
            pending += r.rc != 0;
            EXPECT_TRUE(r.rc == 0 || (r.rc == 4 && has(r.err, "is pending") && has(r.err, "next open")))
                << r.rc << ": " << r.err;
            EXPECT_FALSE(has(r.out, "DAMAGED")) << r.out;
        }
        const std::string cmd = n % 3 == 0 ? "info" : n % 3 == 1 ? "dump" : "check";
        r = run({cmd, f});
        settled += has(r.err, "was applied first");
        EXPECT_EQ(r.rc, 0) << cmd << ": " << r.out << r.err;
        EXPECT_FALSE(has(r.out, "DAMAGED") || has(r.out, "problem")) << r.out;
        table({{{"check", f}, 0, {}, {"!was applied first"}}});   // applied once only
    }
    EXPECT_GT(failed_loads, 4) << "the full disk stopped too few loads";
    EXPECT_GT(settled, 0) << "no load left a rollback pending";
    EXPECT_GT(pending, 0) << "no load left a rollback that a full disk kept pending";
}

// A redo log a newer version wrote: check, info and dump say so (status 4); once the log
// is one this version reads, they write its calls in first.
TEST_F(Backup, ALogOfANewerVersionIsSaidToBePending) {
    const std::string f = path("f");
    ASSERT_EQ(run({"create", f, "8,6"}).rc, 0);
    Writer w = writer(f, "K0000001A00001a record only the log holds", "w");
    ::kill(w.pid, SIGKILL);
    end(w);
    ASSERT_EQ(::shmctl(segment(), IPC_RMID, nullptr), 0);
    const std::string log = cfg + ".lk.w0", ours = slurp(log), other = cfg + ".lk.w1";
    ASSERT_FALSE(ours.empty());
    ASSERT_EQ(std::system((std::string(NEWER_LOG_PATH) + " " + log).c_str()), 0);
    table({{{"check", f}, 4, {"LOG PENDING"}, {"newer version", "cannot replay"}},
           {{"info", f}, 4, {}, {"newer version"}},
           {{"dump", f}, 4, {"!K0000001"}, {"newer version"}}});
    // The same log in another slot: the file does not open without its calls.
    ASSERT_EQ(::rename(log.c_str(), other.c_str()), 0);
    drop_segment();
    Result g = run({"get", f, "K0000001"});
    EXPECT_NE(g.rc, 0);
    EXPECT_FALSE(has(g.out, "a record only the log holds"));
    EXPECT_FALSE(has(g.err, "no record")) << g.err;
    drop_segment();
    ::unlink(other.c_str());
    spit(log, ours);
    table({{{"check", f}, 0, {"!PENDING"}}, {{"get", f, "K0000001"}, 0, {"a record only the log holds"}}});
}

// dump --salvage on files cut short or damaged.  Oracle: the intact file's dump and the
// pages each record needs; every record whose pages survive comes back exactly, and
// nothing appears that was not a live record.

// Key 0 value -> the pages its record needs.
struct Layout {
    size_t header = 0;                                  // 0 or 512: file offset = page - header
    std::map<std::string, std::vector<uint32_t>> pages;
    std::set<uint32_t> shared, overflow, tree;
    uint32_t root = 0;
};

Layout layout_of(const std::string& img) {
    Layout l;
    l.header = field<uint16_t>(img, 0) == 0xAB54 ? 512 : 0;
    const int l0 = field<int16_t>(img, 106), itemlen = field<int16_t>(img, 110), even = l0 + (l0 & 1);
    l.root = u32(img, 100);
    auto page = [&](uint32_t p) { return img.substr(p - l.header, 1024); };
    for (std::vector<uint32_t> todo{l.root}; !todo.empty();) {
        const uint32_t p = todo.back();
        todo.pop_back();
        if (p == 0xFFFFFFFFu) continue;
        l.tree.insert(p);
        const std::string b = page(p);
        if (u32(b, 4) != 0xFFFFFFFFu) todo.push_back(u32(b, 4));
        for (int i = 0; i < field<int16_t>(b, 2); ++i) {
            const size_t at = 8 + size_t(i) * size_t(itemlen + 4);
            std::vector<uint32_t> pages{p};
            uint32_t a = u32(b, at + size_t(even));
            for (int guard = 0; a != 0xFFFFFFFFu && (a & 0x3FF) == 1 && guard < 100; ++guard, a = u32(page(a - 1), 4)) {
                pages.push_back(a - 1);
                l.overflow.insert(a - 1);
            }
            if (a != 0xFFFFFFFFu) {
                pages.push_back(a & ~0x3FFu);
                l.shared.insert(a & ~0x3FFu);
            }
            l.pages[b.substr(at, size_t(l0))] = pages;
            if (u32(b, at + size_t(itemlen)) != 0xFFFFFFFFu) todo.push_back(u32(b, at + size_t(itemlen)));
        }
    }
    return l;
}

class Salvage : public ToolInstallation {
protected:
    unsigned seed = 20261125;
    std::set<std::string> intact;                   // the intact file's dump lines
    std::map<std::string, std::string> by_key;      // key 0 value -> dump line

    void SetUp() override {
        ToolInstallation::SetUp();
        quiet = true;
        if (const char* s = std::getenv("KISAM_SALVAGE_SEED")) seed = unsigned(std::strtoul(s, nullptr, 10));
        init_config();
    }

    // A seeded mix of short and long records, some deleted, some replaced.
    std::string build(const std::string& name, bool key_in_index) {
        const std::string f = path(name);
        std::vector<std::string> create{"create", f, "8,4"}, del{"del", f};
        if (key_in_index) create.insert(create.end(), {"--key-in-index", "--small-header"});
        std::mt19937 rng(seed);
        const int lengths[] = {12, 13, 40, 101, 300, 700, 1016, 1018, 1020, 1021, 1500, 2032, 3000, 4064, 7000};
        auto record = [&](int i) {
            std::string r = fmt("%08d", i * 7);
            for (int len = lengths[rng() % (sizeof lengths / sizeof *lengths)]; int(r.size()) < len;) r += char(rng() % 256);
            return escape(r) + "\n";
        };
        const int n = 110;
        const std::string in = lines(n, record);
        std::string repl;
        for (int i = 0; i < n; ++i) {
            const unsigned roll = rng() % 10;
            if (roll < 2) del.push_back(fmt("%08d", i * 7));
            else if (roll < 4) repl += record(i);
        }
        const std::string more = lines(15, [&](int i) { return record(n + i); });
        table({{create, 0}, {{"put", f, "-"}, 0, {}, {}, in}, {del, 0}, {{"put", f, "-", "--replace"}, 0, {}, {}, repl},
               {{"put", f, "-"}, 0, {}, {}, more}, {{"check", f}, 0}});
        return f;
    }

    // Every output record is a live one of the intact file; every one in `must` is there.
    std::set<std::string> salvage_and_check(const std::string& file, const std::set<std::string>& must,
                                            const std::string& what, const std::vector<std::string>& extra = {}) {
        std::vector<std::string> args{"dump", "--salvage", file};
        args.insert(args.end(), extra.begin(), extra.end());
        Result r = run(args);
        EXPECT_TRUE(r.rc == 0 || r.rc == 1) << what << ": status " << r.rc << "\n" << r.err;
        EXPECT_TRUE(has(r.out, "# kisam dump 1\n") && has(r.out, "# end ")) << what;
        std::set<std::string> got = lines_of(r.out);
        for (const std::string& line : got)
            EXPECT_TRUE(intact.count(line)) << what << ": invented or stale record " << line.substr(0, 60);
        for (const std::string& k : must)
            EXPECT_TRUE(got.count(by_key.at(k))) << what << ": record " << k.substr(0, 8) << " lost\n" << r.err;
        EXPECT_TRUE(r.rc != 0 || has(r.err, "0 skipped")) << what << "\n" << r.err;
        return got;
    }

    void exercise(bool key_in_index) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (KISAM_SALVAGE_SEED to repeat)");
        const std::string f = build(key_in_index ? "kii" : "plain", key_in_index), img = slurp(f);
        intact = lines_of(table({{{"dump", f}, 0}}).out);
        ASSERT_GT(intact.size(), 80u);
        const Layout lay = layout_of(img);
        for (const std::string& line : intact)   // keys are digits: escaped as themselves
            by_key[line.substr(line.find(' ') + 1, 8)] = line;
        ASSERT_EQ(by_key.size(), lay.pages.size());
        const auto must_where = [&](const std::function<bool(const std::vector<uint32_t>&)>& keep) {
            std::set<std::string> must;
            for (auto& [k, pages] : lay.pages)
                if (keep(pages)) must.insert(k);
            return must;
        };
        const auto whole_below = [&](size_t end) {   // every page of the record before `end`
            return must_where([&](const std::vector<uint32_t>& pages) {
                return std::all_of(pages.begin(), pages.end(), [&](uint32_t p) { return p - lay.header + 1024 <= end; });
            });
        };
        table({{{"dump", "--salvage", f, path("rescued.dump")}, 0},
               {{"load", path("new"), path("rescued.dump")}, 0},
               {{"check", path("new")}, 0}});
        EXPECT_EQ(lines_of(slurp(path("rescued.dump"))), intact);
        EXPECT_EQ(lines_of(run({"dump", path("new")}).out), intact);

        // Cut at every page boundary and at odd bytes.
        const std::string cut = path("cut"), bad = path("bad");
        std::vector<size_t> cuts;
        for (size_t at = 1024; at <= img.size(); at += 1024) cuts.push_back(at);
        std::mt19937 rng(seed ^ 0x5a5a);
        for (int i = 0; i < 12; ++i) cuts.push_back(1024 + rng() % (img.size() - 1024));
        for (size_t at : cuts) {
            spit(cut, img.substr(0, at));
            salvage_and_check(cut, whole_below(at), "cut at " + std::to_string(at));
            if (at == cuts[cuts.size() / 3]) {   // a load of what came back is sound
                run({"dump", "--salvage", cut, path("part.dump")});
                table({{{"load", path("part"), path("part.dump")}, 0}, {{"check", path("part")}, 0}});
            }
        }

        // One page damaged at a time: the records that do not need it come back.
        auto damage = [&](uint32_t page, const std::string& bytes, size_t at, const std::string& what, uint32_t also = 0) {
            std::string b = img;
            b.replace(page - lay.header + at, bytes.size(), bytes);
            spit(bad, b);
            // A plain file's records come back from the data pages without the tree.
            const bool tree = !key_in_index && lay.tree.count(page);
            salvage_and_check(bad, must_where([&](const std::vector<uint32_t>& pages) {
                return tree || std::none_of(pages.begin(), pages.end(), [&](uint32_t p) { return p == page || p == also; });
            }), what);
        };
        std::string garbage(1024, '\0');
        for (char& c : garbage) c = char(rng() % 256);
        int n = 0;
        for (uint32_t p : lay.shared)
            if (n++ % 5 == 0) damage(p, garbage, 0, "garbage over data page " + std::to_string(p));
        n = 0;
        for (uint32_t p : lay.overflow) {
            if (n++ % 4 != 0) continue;
            damage(p, std::string(1024, '\0'), 0, "zeroed overflow page " + std::to_string(p));
            // A record claimed by two chains may be left out.
            std::string link = img.substr(p - lay.header + 4, 4);
            link[1] = char(link[1] ^ 0x24);
            damage(p, link, 4, "overflow link of page " + std::to_string(p), u32(link, 0) & ~0x3FFu);
        }
        for (uint32_t p : lay.tree) damage(p, garbage, 0, "garbage over key-0 index page " + std::to_string(p));

        // Cut short and a key-0 leaf lost: short records of that leaf may be tails of
        // records cut away, so they need not come back.
        if (!key_in_index) {
            uint32_t leaf = 0;
            for (uint32_t p : lay.tree)
                if (p != lay.root) leaf = p;
            ASSERT_NE(leaf, 0u) << "the key-0 tree has one level";
            std::string b = img.substr(0, img.size() - 1024);
            b.replace(leaf - lay.header, 1024, std::string(1024, '\0'));
            spit(bad, b);
            std::set<std::string> must = whole_below(b.size());
            std::erase_if(must, [&](const std::string& k) { return lay.pages.at(k)[0] == leaf && lay.pages.at(k).size() <= 2; });
            salvage_and_check(bad, must, "cut short, key-0 leaf " + std::to_string(leaf) + " lost");
        }

        std::string b = img;
        b.replace(0, 512, garbage.substr(0, 512));
        spit(bad, b);
        table({{{"dump", "--salvage", bad}, 1, {"!# kisam dump 1"}, {"--keys"}}});
        std::vector<std::string> keys{"--keys", "8,4"};
        if (key_in_index) keys.push_back("--key-in-index");
        salvage_and_check(bad, must_where([](const std::vector<uint32_t>&) { return true; }), "damaged control page", keys);
    }
};

TEST_F(Salvage, PlainFile) { exercise(false); }
TEST_F(Salvage, KeyInIndexFile) { exercise(true); }

TEST_F(Salvage, UsageAndOddInputs) {
    const std::string f = path("f");
    spit(path("text"), std::string(5000, 'x'));
    table({
        {{"create", f, "4"}, 0},
        {{"dump", "--salvage", f}, 0, {"=# kisam dump 1\n# keys 4\n# end 0 records\n"}},   // empty: an empty dump
        {{"dump", f, "--keys", "4"}, 2},   // --keys without --salvage
        {{"dump", "--salvage", f, "--keys", "0"}, 2},
        {{"dump", "--salvage", f, "--key-in-index"}, 2},
        {{"dump", "--salvage", path("none")}, 1},
        {{"dump", "--salvage", path("text")}, 1, {}, {"--keys"}},
        {{"dump", "--salvage", path("text"), "--keys", "4"}, 0, {"# end 0 records"}},
    });
}

}  // namespace
