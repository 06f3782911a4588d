/* Loading the library at run time: ZTKISAMInit fills the entry table without touching the
 * two reserved slots, and the entries it gives work. */
#include <kisam/kisam.h>

#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
        return 2;
    }
    void *lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (lib == NULL) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 1;
    }
    int (*init)(KisamEntryTable *);
    void *sym = dlsym(lib, "ZTKISAMInit");
    memcpy(&init, &sym, sizeof init);
    if (init == NULL) {
        fprintf(stderr, "no ZTKISAMInit: %s\n", dlerror());
        return 1;
    }

    KisamEntryTable tbl;
    memset(&tbl, 0, sizeof tbl);
    void *const s0 = (void *)(uintptr_t)0x5AFE0001u;
    void *const s1 = (void *)(uintptr_t)0x5AFE0002u;
    tbl.reserved0 = s0;
    tbl.reserved1 = s1;
    if (init(&tbl) != 0) {
        fprintf(stderr, "ZTKISAMInit did not return 0\n");
        return 1;
    }
    int failures = 0;
    if (tbl.reserved0 != s0 || tbl.reserved1 != s1) {
        fprintf(stderr, "reserved slots changed\n");
        ++failures;
    }
    void *slots[28];
    memcpy(slots, &tbl, sizeof slots);
    for (int i = 2; i < 28; ++i) {
        if (slots[i] == NULL) {
            fprintf(stderr, "slot %d left empty\n", i);
            ++failures;
        }
    }
    /* The slots hold the exported functions themselves. */
    void *by_name = dlsym(lib, "nisopen");
    if (slots[10] != by_name) {
        fprintf(stderr, "slot 10 is not nisopen\n");
        ++failures;
    }

    char buf[32] = "junk";
    if (tbl.ZTKISAMGetLastError() != 0) ++failures;
    if (tbl.niserrmsgget(buf, (int)sizeof buf) != 0 || buf[0] != '\0') ++failures;
    if (tbl.ZTKISAMGetLastErrorMsg(buf, (int)sizeof buf) != 0) ++failures;
    if (tbl.ZTKISAMGetComAddr() != NULL) ++failures;
    fflush(stdout);
    if (tbl.ZTKISAMTest("abi") != 0) ++failures;
    fflush(stdout);
    if (failures) fprintf(stderr, "%d entry checks failed\n", failures);
    dlclose(lib);
    return failures ? 1 : 0;
}
