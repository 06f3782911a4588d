/* A preload library for the tool tests, never installed: makes the process's fdatasync
 * fail with EIO from its Nth call on, N from KISAM_TEST_FAIL_FDATASYNC, and its pwrite
 * fail with ENOSPC (a full disk) from its Nth call on, N from KISAM_TEST_FAIL_PWRITE
 * (unset or 0: never).  The shipped library has no such switch; its calls reach these
 * because a preloaded definition comes first in the dynamic linker's search. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

static long from_env(const char* name) {
    const char* v = getenv(name);
    return v ? atol(v) : 0;
}

int fdatasync(int fd) {
    static long calls = 0, from = -1;
    static int (*real)(int) = NULL;
    if (from < 0) from = from_env("KISAM_TEST_FAIL_FDATASYNC");
    if (from > 0 && ++calls >= from) {
        errno = EIO;
        return -1;
    }
    if (!real) real = (int (*)(int))dlsym(RTLD_NEXT, "fdatasync");
    return real ? real(fd) : 0;
}

/* pwrite and pwrite64 are one function on x86-64; a caller may be bound to either name. */
static ssize_t failing_pwrite(const char* name, int fd, const void* buf, size_t n, off_t off) {
    static long calls = 0, from = -1;
    if (from < 0) from = from_env("KISAM_TEST_FAIL_PWRITE");
    if (from > 0 && ++calls >= from) {
        errno = ENOSPC;
        return -1;
    }
    ssize_t (*real)(int, const void*, size_t, off_t) = (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, name);
    return real ? real(fd, buf, n, off) : -1;
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t off) { return failing_pwrite("pwrite", fd, buf, n, off); }
ssize_t pwrite64(int fd, const void* buf, size_t n, off_t off) { return failing_pwrite("pwrite64", fd, buf, n, off); }
