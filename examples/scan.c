/*
 * Range scans in both directions.
 *
 * A file of orders: key 0 is the 8-digit order number, key 1 the 6-digit customer number
 * followed by the 8-digit date (yyyymmdd), so that one customer's orders sort by date.
 * Key values are compared as unsigned bytes: fixed-width digits sort as numbers.
 *
 *   nisseek(fd, k, v) + nisread   walks forwards from the first record with key >= v;
 *   nisseek(fd, k, v) + nispread  walks backwards from the last record with key <= v.
 * A scan stops by looking at the records themselves: nothing in the library knows where
 * the range ends.
 */
#include <kisam/kisam.h>

#include <stdio.h>
#include <string.h>

#define ORDER_LEN 8
#define CUSTDATE_LEN 14                      /* 6 digits of customer, 8 of date */
#define KEYS_LEN (ORDER_LEN + CUSTDATE_LEN)  /* the key values open every record */

static int fail(const char *what) {
    char msg[1024];
    niserrmsgget(msg, sizeof msg);
    fprintf(stderr, "scan: %s failed: %s\n", what, msg);
    nisunisam();
    return 1;
}

/* Prints the customer, date and text of a record. */
static void show(const char *rec, int n) {
    printf("  order %.8s customer %.6s date %.8s %.*s\n", rec, rec + ORDER_LEN,
           rec + ORDER_LEN + 6, n - KEYS_LEN, rec + KEYS_LEN);
}

int main(void) {
    int keylens[2] = {ORDER_LEN, CUSTDATE_LEN};
    char rec[256], key[CUSTDATE_LEN];
    int fd, n, i, count;

    fd = niscreate("orders.isam", 2, keylens);
    if (fd < 0) return fail("niscreate");

    /* 60 orders of customers 000100 .. 000105, ten each, on ten different days. */
    for (i = 0; i < 60; i++) {
        n = snprintf(rec, sizeof rec, "%08d%06d2024%02d%02d%s", 1000 + i, 100 + i % 6,
                     1 + i / 6, 1 + i % 28, i % 2 ? "paid" : "open");
        if (niswrite(fd, rec, n) != 0) return fail("niswrite");
    }

    /* Forwards: the orders of customer 000103 from 2024-05-01 on. */
    printf("customer 000103 from 2024-05-01, oldest first:\n");
    memcpy(key, "00010320240501", CUSTDATE_LEN);
    if (nisseek(fd, 1, key) != 0) return fail("nisseek");
    count = 0;
    while ((n = nisread(fd, 1, rec, sizeof rec)) > 0 &&
           memcmp(rec + ORDER_LEN, "000103", 6) == 0) {
        show(rec, n);
        count++;
    }
    if (n < 0) return fail("nisread");
    if (count != 6) {
        fprintf(stderr, "scan: expected 6 orders forwards, got %d\n", count);
        return 1;
    }

    /* Backwards: the same customer's orders up to 2024-05-31, newest first.  A key
     * value may be any bytes: "99" after the month sorts after every day in it. */
    printf("customer 000103 up to 2024-05, newest first:\n");
    memcpy(key, "00010320240599", CUSTDATE_LEN);
    if (nisseek(fd, 1, key) != 0) return fail("nisseek");
    count = 0;
    while ((n = nispread(fd, 1, rec, sizeof rec)) > 0 &&
           memcmp(rec + ORDER_LEN, "000103", 6) == 0) {
        show(rec, n);
        count++;
    }
    if (n < 0) return fail("nispread");
    if (count != 5) {
        fprintf(stderr, "scan: expected 5 orders backwards, got %d\n", count);
        return 1;
    }

    /* Along key 0, from the back: the three highest order numbers.  A fresh cursor
     * (no nisseek since the open) starts at the end for nispread. */
    printf("the three last orders:\n");
    for (i = 0; i < 3 && (n = nispread(fd, 0, rec, sizeof rec)) > 0; i++) show(rec, n);
    if (n < 0) return fail("nispread");

    /* Past the last record nisread finds nothing: 0, which is no error.  The cursor
     * keeps the value, so nispread then returns the last record before it. */
    memcpy(key, "99999999", ORDER_LEN);
    if (nisseek(fd, 0, key) != 0) return fail("nisseek");
    if (nisread(fd, 0, rec, sizeof rec) != 0) return fail("reading past the end");
    n = nispread(fd, 0, rec, sizeof rec);
    if (n <= 0 || memcmp(rec, "00001059", ORDER_LEN) != 0) return fail("reading back");

    if (nisclose(fd) != 0) return fail("nisclose");
    nisunisam();
    return 0;
}
