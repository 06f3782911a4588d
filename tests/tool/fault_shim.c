/* A preload library for the tool tests, never installed: makes the process's fdatasync
 * fail with EIO from its Nth call on, N from KISAM_TEST_FAIL_FDATASYNC, and its pwrite
 * fail with ENOSPC (a full disk) from its Nth call on, N from KISAM_TEST_FAIL_PWRITE
 * (unset or 0: never).  With KISAM_TEST_FAIL_PWRITE set, the redo logs ("*.w<slot>")
 * cannot be mapped either, so that the library writes their records with pwrite and the
 * full disk reaches them too.  The shipped library has no such switch; its calls reach
 * these because a preloaded definition comes first in the dynamic linker's search. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

static long from_env(const char* name) {
    const char* v = getenv(name);
    return v ? atol(v) : 0;
}

/* Whether this call fails: the Nth counted by *calls and all after it, N from VAR. */
static int fails(const char* var, long* calls, long* from) {
    if (*from < 0) *from = from_env(var);
    return *from > 0 && ++*calls >= *from;
}

int fdatasync(int fd) {
    static long calls = 0, from = -1;
    if (fails("KISAM_TEST_FAIL_FDATASYNC", &calls, &from)) return errno = EIO, -1;
    int (*real)(int) = (int (*)(int))dlsym(RTLD_NEXT, "fdatasync");
    return real ? real(fd) : 0;
}

/* pwrite and pwrite64 are one function on x86-64; a caller may be bound to either name. */
static ssize_t failing_pwrite(const char* name, int fd, const void* buf, size_t n, off_t off) {
    static long calls = 0, from = -1;
    if (fails("KISAM_TEST_FAIL_PWRITE", &calls, &from)) return errno = ENOSPC, -1;
    ssize_t (*real)(int, const void*, size_t, off_t) = (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, name);
    return real ? real(fd, buf, n, off) : -1;
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t off) { return failing_pwrite("pwrite", fd, buf, n, off); }
ssize_t pwrite64(int fd, const void* buf, size_t n, off_t off) { return failing_pwrite("pwrite64", fd, buf, n, off); }

/* Whether fd is a redo log: its name ends in ".w" and digits. */
static int is_log(int fd) {
    char link[64], name[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, name, sizeof name - 1);
    if (n <= 0) return 0;
    name[n] = '\0';
    const char* w = strrchr(name, '.');
    if (!w || w[1] != 'w' || !w[2]) return 0;
    for (const char* c = w + 2; *c; ++c)
        if (*c < '0' || *c > '9') return 0;
    return 1;
}

static void* mapping(const char* name, void* addr, size_t len, int prot, int flags, int fd, off_t off) {
    if (from_env("KISAM_TEST_FAIL_PWRITE") > 0 && fd >= 0 && is_log(fd)) return errno = ENOMEM, MAP_FAILED;
    void* (*real)(void*, size_t, int, int, int, off_t) =
        (void* (*)(void*, size_t, int, int, int, off_t))dlsym(RTLD_NEXT, name);
    return real ? real(addr, len, prot, flags, fd, off) : MAP_FAILED;
}

void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off) {
    return mapping("mmap", addr, len, prot, flags, fd, off);
}
void* mmap64(void* addr, size_t len, int prot, int flags, int fd, off_t off) {
    return mapping("mmap64", addr, len, prot, flags, fd, off);
}
