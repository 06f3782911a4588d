// The kisam tool run as a separate process in a private installation: a temporary
// directory with its own configuration file, HOME, HOME_Q9 and PROFILEQ9ENV.  Every test
// must leave no shared segment behind; TearDown checks it and removes the directory.
// A command's output goes to IO.out and IO.err in the directory (IO "" unless a test
// runs several at once); `table` runs a list of commands, each checked by its exit
// status and by what its output and error output hold.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

struct Result { int rc = -1; std::string out, err; };

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void spit(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

inline uint32_t u32(const std::string& b, size_t off) {
    uint32_t v = 0;
    if (off + 4 <= b.size()) std::memcpy(&v, b.data() + off, 4);
    return v;
}

inline long long size_of(const std::string& f) {
    struct stat st;
    return ::stat(f.c_str(), &st) == 0 ? (long long)st.st_size : -1;
}

// Writes `bytes` at `off` of `file`.
inline void poke(const std::string& file, off_t off, const std::string& bytes) {
    int fd = ::open(file.c_str(), O_RDWR);
    EXPECT_EQ(::pwrite(fd, bytes.data(), bytes.size(), off), ssize_t(bytes.size())) << file;
    ::close(fd);
}

// Bytes in the dump's text form: printable ASCII as itself, a backslash doubled, any
// other byte \xHH.
inline std::string escape(const std::string& b) {
    std::string out;
    char h[8];
    for (unsigned char c : b) {
        std::snprintf(h, sizeof h, c == '\\' ? "\\\\" : c >= 0x20 && c < 0x7f ? "%c" : "\\x%02x", c);
        out += h;
    }
    return out;
}

// The record lines of a dump, in order (without the header and closing lines).
inline std::vector<std::string> records_of(const std::string& dump) {
    std::vector<std::string> lines;
    for (size_t at = 0, nl; at < dump.size(); at = nl + 1) {
        if ((nl = dump.find('\n', at)) == std::string::npos) nl = dump.size();
        if (nl > at && dump[at] != '#') lines.push_back(dump.substr(at, nl - at));
    }
    return lines;
}

inline int wait_for(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// One command of a table: its arguments, exit status, and what its output and error
// output must show: "=TEXT" all of it, "!TEXT" not TEXT anywhere, else TEXT somewhere.
struct Case {
    std::vector<std::string> args;
    int rc;
    std::vector<std::string> out = {}, err = {};
    std::string in = {};   // standard input
};

class ToolInstallation : public ::testing::Test {
protected:
    std::string dir, cfg;
    bool quiet = false;        // pass --quiet to every command
    bool with_config = true;   // pass --config CFG to every command
    bool ignore_hup = false;   // start commands with SIGHUP ignored, as nohup does
    // Set in the command's environment (LC_ALL is "C" unless a test sets it here).
    std::vector<std::pair<std::string, std::string>> env;
    long fsize_limit = -1;       // RLIMIT_FSIZE of the command (SIGXFSZ ignored): a disk that fills
    bool stdout_gone = false;    // standard output a pipe whose reader has gone
    std::string out_link;        // standard output opened through a link to this file

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
        if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
        if (std::system(("rm -rf '" + dir + "'").c_str()) != 0) { /* best effort */ }
    }

    int segment() const {
        std::string lk = cfg + ".lk";
        key_t k = ::ftok((::access(lk.c_str(), F_OK) == 0 ? lk : cfg).c_str(), 1);
        return k == -1 ? -1 : ::shmget(k, 0, 0);
    }

    std::string path(const std::string& name) const { return dir + "/" + name; }

    // In a child: the installation's environment, and the test's own settings.
    void private_env() const {
        for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
            ::setenv(var, (dir + sub).c_str(), 1);
        ::unsetenv("KISCONFIG");
        ::setenv("LC_ALL", "C", 1);
        for (const auto& [var, value] : env) ::setenv(var.c_str(), value.c_str(), 1);
    }

    // Starts the tool with `args`; standard input from `input_file`, output into IO.out
    // and IO.err (emptied first: what a command before it said is not its).
    pid_t start(const std::vector<std::string>& args, const std::string& input_file = "/dev/null",
                const std::string& io = "") {
        std::vector<std::string> argv{KISAM_TOOL_PATH};
        if (with_config) argv.insert(argv.end(), {"--config", cfg});
        if (quiet) argv.push_back("--quiet");
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string out = path(io + ".out"), err = path(io + ".err");
        spit(out, "");
        spit(err, "");
        if (!out_link.empty()) {
            ::unlink(out.c_str());
            EXPECT_EQ(::symlink(out_link.c_str(), out.c_str()), 0);
        }
        std::fflush(nullptr);
        int gone[2] = {-1, -1};
        // The reader is gone before the command starts: its first write fails (EPIPE).
        if (stdout_gone && ::pipe(gone) == 0) ::close(gone[0]);
        pid_t pid = ::fork();
        if (pid == 0) {
            private_env();
            if (ignore_hup) ::signal(SIGHUP, SIG_IGN);
            if (fsize_limit >= 0) {
                struct rlimit rl = {rlim_t(fsize_limit), rlim_t(fsize_limit)};
                ::signal(SIGXFSZ, SIG_IGN);
                if (::setrlimit(RLIMIT_FSIZE, &rl) != 0) ::_exit(126);
            }
            const int fds[3] = {::open(input_file.c_str(), O_RDONLY),
                                stdout_gone ? gone[1] : ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666),
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
        Result r{rc, out_link.empty() ? slurp(path(io + ".out")) : "", slurp(path(io + ".err"))};
        if (!out_link.empty()) ::unlink(path(io + ".out").c_str());
        return r;
    }

    Result run(const std::vector<std::string>& args, const std::string& input = "") {
        std::string in = "/dev/null";
        if (!input.empty()) spit(in = path(".in"), input);
        return finish(start(args, in));
    }

    // A configuration for the tests: small, and replacing any before it.
    void init_config(std::vector<std::string> more = {}) {
        std::vector<std::string> args{"config", "init", cfg, "--buffers", "32", "--files", "8", "--users", "8", "--force"};
        args.insert(args.end(), more.begin(), more.end());
        Result r = run(args);
        ASSERT_EQ(r.rc, 0) << r.err;
    }

    // Runs each case in turn and checks it.
    void table(const std::vector<Case>& cases) {
        auto match = [](const std::string& text, const std::string& want) {
            if (!want.empty() && want[0] == '=') return text == want.substr(1);
            if (!want.empty() && want[0] == '!') return !has(text, want.substr(1));
            return has(text, want);
        };
        for (const Case& c : cases) {
            std::string line;
            for (const auto& a : c.args) line += " " + a;
            SCOPED_TRACE("kisam" + line);
            Result r = run(c.args, c.in);
            EXPECT_EQ(r.rc, c.rc) << r.out << r.err;
            for (const auto& w : c.out) EXPECT_TRUE(match(r.out, w)) << "output, wanted " << w << "\n" << r.out;
            for (const auto& w : c.err) EXPECT_TRUE(match(r.err, w)) << "errors, wanted " << w << "\n" << r.err;
        }
    }

    // A command that stays attached with FILE open: 'put FILE -' reading a pipe, which
    // has stored `line` (its first 3 bytes a key 0 value of its own) when this returns.
    // Its output goes to IO.out/.err.
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

    // Entries of the directory whose name begins with a dot (temporaries), other than
    // the commands' own output files.
    std::string temporaries() const {
        std::string out;
        FILE* p = ::popen(("ls -A '" + dir + "'").c_str(), "r");
        char line[512];
        while (p && std::fgets(line, sizeof line, p)) {
            std::string name(line);
            if (name[0] == '.' && name != ".out\n" && name != ".err\n" && name != ".in\n") out += name;
        }
        if (p) ::pclose(p);
        return out;
    }
};
