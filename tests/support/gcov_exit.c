/* Coverage builds only.  A child process that ends with _exit() or _Exit() runs no exit
 * handler, and one that kills itself with SIGKILL runs nothing more at all, so what it
 * ran would be missing from the coverage report: the test programs are linked with
 * --wrap for these calls, and the wrappers write gcov's counters first. */
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

extern void __gcov_dump(void);
extern void __real__exit(int) __attribute__((noreturn));
extern void __real__Exit(int) __attribute__((noreturn));
extern int __real_raise(int);
extern int __real_kill(pid_t, int);

void __wrap__exit(int rc) __attribute__((noreturn));
void __wrap__Exit(int rc) __attribute__((noreturn));
int __wrap_raise(int sig);
int __wrap_kill(pid_t pid, int sig);

void __wrap__exit(int rc) {
    __gcov_dump();
    __real__exit(rc);
}

void __wrap__Exit(int rc) {
    __gcov_dump();
    __real__Exit(rc);
}

int __wrap_raise(int sig) {
    if (sig == SIGKILL) __gcov_dump();
    return __real_raise(sig);
}

int __wrap_kill(pid_t pid, int sig) {
    if (sig == SIGKILL && pid == getpid()) __gcov_dump();
    return __real_kill(pid, sig);
}
