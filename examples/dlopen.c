/*
 * Loading libkisam at run time: open the shared library, ask ZTKISAMInit for the entry
 * table, and work only through its slots.  The library path is the first argument.
 */
#include <kisam/kisam.h>

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
    const char *lib = argc > 1 ? argv[1] : "libkisam.so.1";
    void *h = dlopen(lib, RTLD_NOW | RTLD_LOCAL);
    KisamEntryTable t;
    int (*init)(KisamEntryTable *);
    int key_lens[1] = {4};
    char out[64];
    int fd, n;

    if (!h) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 1;
    }
    *(void **)&init = dlsym(h, "ZTKISAMInit");
    if (!init) {
        fprintf(stderr, "dlsym: %s\n", dlerror());
        return 1;
    }
    memset(&t, 0, sizeof t);
    t.reserved0 = &t;   /* the caller's own slots: the library leaves them alone */
    if (init(&t) != 0 || t.reserved0 != &t || t.reserved1 != NULL) return 2;

    if (t.is_init() != 0) return 3;
    fd = t.niscreate("table.ism", 1, key_lens);
    if (fd < 0) return 4;
    if (t.niswrite(fd, "k001hello", 9) != 0) return 5;
    if (t.nisfwrite(fd, "k001hello again", 15) != 0) return 6;
    n = t.nisfind(fd, 0, "k001", out, sizeof out - 1);
    if (n != 15) return 7;
    out[n] = 0;
    printf("through the table: %s\n", out);
    if (t.nisread(-1, 0, out, sizeof out) != -1 || t.ZTKISAMGetLastError() != ISE_BADFD) return 8;
    if (t.ZTKISAMGetLastErrorMsg(out, sizeof out) <= 0) return 9;
    printf("expected error: %s\n", out);
    if (t.nisclose(fd) != 0) return 10;
    if (t.nisunisam() != 0) return 11;
    dlclose(h);
    return 0;
}
