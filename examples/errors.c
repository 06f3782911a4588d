/*
 * Error handling: what each result means and how to report a failure.
 *
 * Every operation returns a negative value (-1) on failure; is_errno then holds an
 * ISE_* code and niserrmsgget() gives a one-line report with the procedure where the
 * failure arose and the system error, if any.  is_errno is not cleared by a call that
 * succeeds, so look at it only after a failure.  Some results are not failures:
 * a read that finds nothing returns 0, niswrite of an existing key 0 returns 1.
 *
 * Run without a configuration, the program shows how a failed start-up names the
 * configuration file it looked for.
 */
#include <kisam/kisam.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

static int failures;

/* Reports the last failure, the way a program would log it. */
static void report(const char *what) {
    char msg[256];
    niserrmsgget(msg, sizeof msg);
    printf("%-34s -> %s\n", what, msg);
}

/* Checks that a call failed with the expected code. */
static void expect(const char *what, int result, int code) {
    if (result >= 0 || is_errno != code) {
        printf("%-34s -> UNEXPECTED: result %d, is_errno %d\n", what, result, is_errno);
        failures++;
        return;
    }
    report(what);
}

int main(void) {
    int keylens[2] = {6, 4};
    char rec[64], small[10];
    int fd, n;

    if (is_init() != 0) {
        /* The usual first failure: no configuration.  Say which file was meant and
         * why it could not be used (errno is that of the failed open). */
        int err = errno;
        report("is_init");
        if (is_errno == ISE_INITERR) {
            const char *path = kisam_config_path();
            printf("configuration file tried: %s (%s)\n", path ? path : "none",
                   strerror(err));
            printf("create one with 'kisam config init PATH' and set KISCONFIG=PATH\n");
        }
        return 2;
    }

    expect("nisopen of a missing file", nisopen("no-such-file.isam", ISO_RDWR), ISE_OPENF);
    expect("niscreate with a key of length 0", niscreate("bad.isam", 1, (int[]){0}), ISE_INVKL);

    fd = niscreate("errors.isam", 2, keylens);
    if (fd < 0) {
        report("niscreate");
        return 1;
    }
    strcpy(rec, "000001" "blue" "key 0, key 1, then free text");
    n = (int)strlen(rec);
    if (niswrite(fd, rec, n) != 0) {
        report("niswrite");
        return 1;
    }

    /* Not failures. */
    printf("%-34s -> %d (key 0 exists; nothing stored)\n", "niswrite of the same record",
           niswrite(fd, rec, n));
    printf("%-34s -> %d (no such record)\n", "nisfind of a missing key",
           nisfind(fd, 0, "999999", rec, sizeof rec));
    printf("%-34s -> %d of %d bytes (cut without an error)\n", "nisfind into a 10-byte buffer",
           nisfind(fd, 0, "000001", small, sizeof small), n);

    /* Failures. */
    expect("niswrite of a 5-byte record", niswrite(fd, rec, 5), ISE_RSIZE);
    expect("nisdelete of a missing key", nisdelete(fd, "999999"), ISE_NOKEY);
    expect("nisread on key 2 of 2 keys", nisread(fd, 2, rec, sizeof rec), ISE_BADKN);
    expect("nisread into a 3-byte buffer", nisread(fd, 0, rec, 3), ISE_RSIZE);
    expect("niscreate of a file open here", niscreate("errors.isam", 1, keylens),
           ISE_CREATEISOPEN);
    expect("nisclose of descriptor 99", nisclose(99), ISE_BADFD);

    /* The full report, as niserrmsg() prints it on standard error. */
    nisdelete(fd, "999999");
    niserrmsg();
    nisclose(fd);

    /* A process that has the file open only read-only cannot change it.  (Read-only
     * belongs to the process's hold of the file: while it also has a read-write
     * descriptor of the file, every descriptor of it may write.) */
    int ro = nisopen("errors.isam", ISO_RDONLY);
    if (ro < 0) {
        report("nisopen read-only");
        return 1;
    }
    expect("nisdelete through a read-only fd", nisdelete(ro, "000001"), ISE_RONLY);
    nisclose(ro);

    nisunisam();
    printf("%s\n", failures ? "some results were not as expected" : "all results as expected");
    return failures ? 1 : 0;
}
