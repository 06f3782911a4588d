/* A preload library for the tool tests, never installed: makes the process's fdatasync
 * fail with EIO from its Nth call on, N from KISAM_TEST_FAIL_FDATASYNC (unset or 0:
 * never).  The shipped library has no such switch; its calls reach this one because
 * a preloaded definition comes first in the dynamic linker's search. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

int fdatasync(int fd) {
    static long calls = 0, from = -1;
    static int (*real)(int) = NULL;
    if (from < 0) {
        const char* v = getenv("KISAM_TEST_FAIL_FDATASYNC");
        from = v ? atol(v) : 0;
    }
    if (from > 0 && ++calls >= from) {
        errno = EIO;
        return -1;
    }
    if (!real) real = (int (*)(int))dlsym(RTLD_NEXT, "fdatasync");
    return real ? real(fd) : 0;
}
