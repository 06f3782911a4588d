/* A disk of known flush time, for durable-mode figures on a machine whose own disk is
 * shared and erratic: preloaded into a benchmark (LD_PRELOAD), it turns every fdatasync
 * and fsync into a sleep of FLUSH_MODEL_US microseconds (nothing reaches the disk, so
 * the figures say what the engines' protocols make of such a disk, not what survives).
 * With FLUSH_MODEL_SERIAL set, the disk flushes one at a time (a lock on a file of
 * $TMPDIR, else /tmp, shared by every process); otherwise flushes overlap freely.
 * With FLUSH_MODEL_CPU_US, each flush also spends that much processor time first (a real
 * disk's flush costs the kernel processor time: about 40 us here, which 2 cores shared by
 * several writers feel).
 * With FLUSH_MODEL_OUT=FILE, every process that flushed appends a line there when it
 * ends: its pid, its flushes in all, and those of redo logs of this library (files
 * whose name ends in ".w" and a number).
 *
 *   cc -O2 -shared -fPIC -o flush_model.so bench/flush_model.c   (the build makes
 *   build/bench/libflush_model.so)
 *   LD_PRELOAD=build/bench/libflush_model.so FLUSH_MODEL_US=100 \
 *     build/bench/peer_bench 100000 32 2 --durable 2000 --no-default
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static long flushes, log_flushes;
static int lock_fd = -2;

static int is_log(int fd) {
    if (fd < 0) return 0;
    char link[64], name[512];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, name, sizeof name - 1);
    if (n <= 0) return 0;
    name[n] = '\0';
    const char* dot = strrchr(name, '.');
    return dot && dot[1] == 'w' && dot[2] >= '0' && dot[2] <= '9';
}

static int model(int fd) {
    const char* v = getenv("FLUSH_MODEL_US");
    long us = v ? atol(v) : 100;
    ++flushes;
    if (getenv("FLUSH_MODEL_OUT") && is_log(fd)) ++log_flushes;
    if (lock_fd == -2) {
        lock_fd = -1;
        if (getenv("FLUSH_MODEL_SERIAL")) {
            const char* dir = getenv("TMPDIR");
            char path[512];
            snprintf(path, sizeof path, "%s/flush_model.lock", dir && *dir ? dir : "/tmp");
            lock_fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        }
    }
    const char* c = getenv("FLUSH_MODEL_CPU_US");
    if (c) {
        const long cpu_ns = atol(c) * 1000;
        struct timespec c0, c1;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c0);
        do {
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &c1);
        } while ((c1.tv_sec - c0.tv_sec) * 1000000000L + (c1.tv_nsec - c0.tv_nsec) < cpu_ns);
    }
    if (lock_fd >= 0) flock(lock_fd, LOCK_EX);
    struct timespec ts = {us / 1000000, (us % 1000000) * 1000};
    while (nanosleep(&ts, &ts) != 0) {
    }
    if (lock_fd >= 0) flock(lock_fd, LOCK_UN);
    return 0;
}

int fdatasync(int fd) { return model(fd); }
int fsync(int fd) { return model(fd); }
int msync(void* addr, size_t len, int flags) {
    if (flags & MS_SYNC) return model(-1);
    int (*real)(void*, size_t, int) = (int (*)(void*, size_t, int))dlsym(RTLD_NEXT, "msync");
    return real(addr, len, flags);
}

static void report(void) {
    const char* out = getenv("FLUSH_MODEL_OUT");
    if (!out || flushes == 0) return;
    FILE* f = fopen(out, "a");
    if (!f) return;
    fprintf(f, "%d %ld %ld\n", (int)getpid(), flushes, log_flushes);
    fclose(f);
    flushes = 0;
}

/* Benchmarks end their worker processes with _exit, which runs no exit handler. */
void _exit(int status) {
    report();
    void (*real)(int) = (void (*)(int))dlsym(RTLD_NEXT, "_exit");
    real(status);
    for (;;) {
    }
}

__attribute__((destructor)) static void at_end(void) { report(); }
