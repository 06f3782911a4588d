// The private installation of a fuzz process, and the shared-segment clean-up.
#include "harness.h"

#include <kisam/kisam.h>
#include <kisam/ztsupport.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Every segment this process attaches is marked for removal at once: Linux keeps a
// marked segment for as long as some process has it attached, so the engine works on
// as usual, and the kernel frees it with the last detach, also when the process is
// killed.  No harness needs a second process to attach the same segment.
extern "C" void* shmat(int shmid, const void* addr, int flags) {
    using Fn = void* (*)(int, const void*, int);
    static Fn real = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, "shmat"));
    void* p = real(shmid, addr, flags);
    if (p != reinterpret_cast<void*>(-1)) ::shmctl(shmid, IPC_RMID, nullptr);
    return p;
}

namespace kfz {
namespace {

std::string g_dir;

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

void remove_sandbox() {
    if (!g_dir.empty()) ::nftw(g_dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace

const std::string& sandbox() {
    if (!g_dir.empty()) return g_dir;
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/kisam-fuzz-XXXXXX";
    if (::mkdtemp(tmpl.data()) == nullptr) finding("cannot make a directory under %s", tmpl.c_str());
    g_dir = tmpl;
    ::mkdir((g_dir + "/home").c_str(), 0777);
    ::mkdir((g_dir + "/q9").c_str(), 0777);
    ::setenv("HOME", (g_dir + "/home").c_str(), 1);
    ::setenv("HOME_Q9", (g_dir + "/q9").c_str(), 1);
    ::setenv("PROFILEQ9ENV", (g_dir + "/home/.Q9.profile").c_str(), 1);
    ::setenv("KISCONFIG", (g_dir + "/kisamconfig").c_str(), 1);
    ::unsetenv("ISAMADDR");
    // The settings store keeps the first value it sees of a variable.
    ZTPutEnv("KISCONFIG", (g_dir + "/kisamconfig").c_str());
    write_default_config(g_dir + "/kisamconfig");
    write_file(g_dir + "/kisamconfig.lk", nullptr, 0);
    std::atexit(remove_sandbox);
    return g_dir;
}

std::string in_sandbox(const std::string& name) { return sandbox() + "/" + name; }

void write_default_config(const std::string& path) {
    struct is_config c;
    std::memset(&c, 0, sizeof c);
    c.co_maxopen = 16;
    c.co_maxbuf = 32;
    c.co_maxusers = 4;
    c.co_maxnkeys = 25;
    c.co_avgalts = 2;
    c.co_alenlock = 16;
    c.co_anumlock = 16;
    c.co_maxfbuf = 32;
    write_file(path, reinterpret_cast<const uint8_t*>(&c), sizeof c);
}

void write_file(const std::string& path, const uint8_t* data, size_t n) {
    // A new file each time: truncating one that holds data makes the file system write
    // it out at the close (its guard for files replaced in place), which costs every run
    // a disk write and leaves the fuzzer waiting instead of running.
    ::unlink(path.c_str());
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) finding("cannot write %s", path.c_str());
    for (size_t done = 0; done < n;) {
        ssize_t w = ::write(fd, data + done, n - done);
        if (w <= 0) finding("cannot write %s", path.c_str());
        done += static_cast<size_t>(w);
    }
    ::close(fd);
}

void finding(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::fputs("kisam fuzz finding: ", stderr);
    std::vfprintf(stderr, fmt, ap);
    std::fputc('\n', stderr);
    va_end(ap);
    std::abort();
}

void clear_error() {
    is_errno = 0;
    is_etop = nullptr;
}

void expect_named(int r, const char* what) {
    if (r != -1) return;
    if (is_errno < 1 || is_errno > ISE_DEADLOCK)
        finding("%s failed with is_errno %d: a failure without a code", what, is_errno);
    if (is_etop == nullptr || is_etop == is_estk)
        finding("%s failed with is_errno %d and no stack", what, is_errno);
}

}  // namespace kfz
