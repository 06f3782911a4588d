/*
 * A short tour of libkisam from C: create a file with a primary and an alternate key,
 * write records, read one back by the alternate key, update it, lock it, delete it.
 *
 * Records start with their key values in key order: here 6 bytes of customer number
 * (key 0), then 10 bytes of city (key 1), then free text.
 */
#include <kisam/kisam.h>

#include <stdio.h>
#include <string.h>

#define FAIL(what) do { fprintf(stderr, "basic: %s failed\n", what); niserrmsg(); return 1; } while (0)

static int make(char *rec, const char *no, const char *city, const char *text) {
    memset(rec, ' ', 16);
    memcpy(rec, no, strlen(no) < 6 ? strlen(no) : 6);
    memcpy(rec + 6, city, strlen(city) < 10 ? strlen(city) : 10);
    strcpy(rec + 16, text);
    return (int)(16 + strlen(text));
}

int main(void) {
    int key_lens[2] = {6, 10};
    char rec[256], out[256];
    int fd, n;

    if (is_init() != 0) FAIL("is_init");
    fd = niscreate("customers.ism", 2, key_lens);
    if (fd < 0) FAIL("niscreate");

    n = make(rec, "000017", "Lyon", "first customer");
    if (niswrite(fd, rec, n) != 0) FAIL("niswrite");
    n = make(rec, "000042", "Oslo", "second customer");
    if (niswrite(fd, rec, n) != 0) FAIL("niswrite");
    if (niswrite(fd, rec, n) != 1) FAIL("niswrite of a duplicate");   /* 1: key 0 exists */

    /* Read by the alternate key. */
    n = nisfind(fd, 1, "Oslo      ", out, sizeof out - 1);
    if (n <= 0) FAIL("nisfind");
    out[n] = 0;
    printf("found by city: %s\n", out);

    /* Update: same key 0, new city and text. */
    n = make(rec, "000042", "Bergen", "moved north");
    if (nisupdate(fd, rec, n) != 0) FAIL("nisupdate");
    if (nisfind(fd, 1, "Oslo      ", out, sizeof out) != 0) FAIL("the old city is gone");

    /* Lock the record while working on it. */
    if (nislock(fd, "000042", 6, 1) != 0) FAIL("nislock");
    if (nisunlock(fd, "000042", 6, 0) != 0) FAIL("nisunlock");

    /* Delete, then walk what is left in key order. */
    if (nisdelete(fd, "000017") != 0) FAIL("nisdelete");
    while ((n = nisread(fd, 0, out, sizeof out - 1)) > 0) {
        out[n] = 0;
        printf("left: %s\n", out);
    }
    if (n < 0) FAIL("nisread");

    if (nisclose(fd) != 0) FAIL("nisclose");
    if (nisunisam() != 0) FAIL("nisunisam");
    return 0;
}
