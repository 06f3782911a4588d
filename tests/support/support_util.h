// Helpers of the support-library tests: a private temporary directory with the
// settings variables pointed into it, file helpers, checks inside a forked child.
#pragma once

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace st {

// home/ and q9/ in a temporary directory; HOME, HOME_Q9 and PROFILEQ9ENV point there.
class Sandbox {
public:
    Sandbox() {
        char tmpl[] = "/tmp/kisam-sup-XXXXXX";
        if (::mkdtemp(tmpl) == nullptr) std::abort();
        dir_ = tmpl;
        std::filesystem::create_directories(home());
        std::filesystem::create_directories(q9());
        ::setenv("HOME", home().c_str(), 1);
        ::setenv("HOME_Q9", q9().c_str(), 1);
        ::setenv("PROFILEQ9ENV", (home() + "/.Q9.profile").c_str(), 1);
    }
    ~Sandbox() { std::error_code ec; std::filesystem::remove_all(dir_, ec); }
    const std::string &dir() const { return dir_; }
    std::string home() const { return dir_ + "/home"; }
    std::string q9() const { return dir_ + "/q9"; }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

inline void write_file(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}
inline std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}
inline bool exists(const std::string &path) { struct stat s; return ::lstat(path.c_str(), &s) == 0; }
inline bool is_dir(const std::string &path) { struct stat s; return ::stat(path.c_str(), &s) == 0 && S_ISDIR(s.st_mode); }

// Runs fn in a forked child (a fresh settings store); returns the child's exit status.
inline int in_child(const std::function<int()> &fn) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) { int rc = fn(); std::fflush(nullptr); ::_exit(rc == 0 ? 0 : 1); }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace st

// Inside an in_child function: report the failing line and fail.
#define CHILD_CHECK(cond) \
    do { if (!(cond)) { std::fprintf(stderr, "child check failed at line %d: %s\n", __LINE__, #cond); return 1; } } while (0)
