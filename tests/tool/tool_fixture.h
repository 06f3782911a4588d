// The kisam tool run as a separate process in a private installation: a temporary
// directory with its own configuration file, HOME, HOME_Q9 and PROFILEQ9ENV.  Every test
// must leave no shared segment behind; TearDown checks it and removes the directory.
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
#include <cstdio>
#include <cstdlib>
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

// In a forked child: standard input, output and error from and to in, out and err (a
// descriptor below 0 ends the child with 126), then the program of argv; never returns.
[[noreturn]] inline void exec_with(int in, int out, int err, std::vector<std::string>& argv) {
    const int fds[3] = {in, out, err};
    for (int i = 0; i < 3; ++i)
        if (fds[i] < 0 || ::dup2(fds[i], i) < 0) ::_exit(126);
    std::vector<char*> av;
    for (auto& a : argv) av.push_back(a.data());
    av.push_back(nullptr);
    ::execv(av[0], av.data());
    ::_exit(127);
}

class ToolInstallation : public ::testing::Test {
protected:
    std::string dir, cfg;
    bool quiet = false;  // pass --quiet to every command
    // Set in the command's environment (LC_ALL is "C" unless a test sets it here).
    std::vector<std::pair<std::string, std::string>> env;
    long fsize_limit = -1;       // RLIMIT_FSIZE of the command (SIGXFSZ ignored): a disk that fills
    bool stdout_gone = false;    // standard output a pipe whose reader has gone

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

    // Starts the tool with `args`; standard input from `input_file`, output into files.
    pid_t start(const std::vector<std::string>& args, const std::string& input_file = "/dev/null",
                bool with_config = true) {
        std::vector<std::string> argv{KISAM_TOOL_PATH};
        if (with_config) argv.insert(argv.end(), {"--config", cfg});
        if (quiet) argv.push_back("--quiet");
        argv.insert(argv.end(), args.begin(), args.end());
        std::fflush(nullptr);
        int gone[2] = {-1, -1};
        // The reader is gone before the command starts: its first write fails (EPIPE).
        if (stdout_gone) {
            if (::pipe(gone) != 0) return -1;
            ::close(gone[0]);
            spit(dir + "/.out", "");
        }
        pid_t pid = ::fork();
        if (pid == 0) {
            for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
                ::setenv(var, (dir + sub).c_str(), 1);
            ::unsetenv("KISCONFIG");
            ::setenv("LC_ALL", "C", 1);
            for (const auto& [var, value] : env) ::setenv(var.c_str(), value.c_str(), 1);
            if (fsize_limit >= 0) {
                struct rlimit rl = {rlim_t(fsize_limit), rlim_t(fsize_limit)};
                ::signal(SIGXFSZ, SIG_IGN);
                if (::setrlimit(RLIMIT_FSIZE, &rl) != 0) ::_exit(126);
            }
            exec_with(::open(input_file.c_str(), O_RDONLY),
                      stdout_gone ? gone[1] : ::open((dir + "/.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666),
                      ::open((dir + "/.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666), argv);
        }
        if (stdout_gone) ::close(gone[1]);
        return pid;
    }

    Result finish(pid_t pid) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(dir + "/.out"),
                slurp(dir + "/.err")};
    }

    Result run(const std::vector<std::string>& args, const std::string& input = "", bool with_config = true) {
        std::string in = "/dev/null";
        if (!input.empty()) spit(in = dir + "/.in", input);
        return finish(start(args, in, with_config));
    }
};
