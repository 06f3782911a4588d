/* Coverage builds only.  A child process that ends with _exit() or _Exit() runs no exit
 * handler, so what it ran would be missing from the coverage report: the test programs
 * are linked with --wrap for both, and these write gcov's counters first. */
extern void __gcov_dump(void);
extern void __real__exit(int) __attribute__((noreturn));
extern void __real__Exit(int) __attribute__((noreturn));

void __wrap__exit(int rc) __attribute__((noreturn));
void __wrap__Exit(int rc) __attribute__((noreturn));

void __wrap__exit(int rc) {
    __gcov_dump();
    __real__exit(rc);
}

void __wrap__Exit(int rc) {
    __gcov_dump();
    __real__Exit(rc);
}
