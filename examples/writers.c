/*
 * Several writer processes with record locks.
 *
 * Four processes each add 1 to a shared counter record 250 times.  Every single call
 * is atomic, but reading the counter and writing it back are two calls: without a lock,
 * two processes may read the same value and one increment is lost.  nislock on the
 * record's key makes the read-modify-write one step: a second process asking for the
 * same key waits (rtnopt 0) until the first unlocks it.
 *
 * The writers are forked before this process attaches, so each is a fresh process that
 * attaches on its own (nisopen does it).  A child forked after attaching calls
 * is_chinit() instead; see fork.c.
 */
#include <kisam/kisam.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#define WRITERS 4
#define ROUNDS 250
#define FILE_NAME "counters.isam"
#define KEY "hits    "        /* key 0: 8 bytes */

static int fail(const char *who, const char *what) {
    char msg[1024];
    niserrmsgget(msg, sizeof msg);
    fprintf(stderr, "writers: %s: %s failed: %s\n", who, what, msg);
    nisunisam();
    return 1;
}

/* A record: the 8-byte key, then the count as text. */
static int put_count(char *rec, long count) {
    return snprintf(rec, 64, "%s%012ld", KEY, count);
}

static int writer(int id) {
    char who[32], rec[64];
    snprintf(who, sizeof who, "writer %d", id);
    int fd = nisopen(FILE_NAME, ISO_RDWR);
    if (fd < 0) return fail(who, "nisopen");
    for (int i = 0; i < ROUNDS; i++) {
        if (nislock(fd, KEY, 8, 0) != 0) return fail(who, "nislock");
        int n = nisfind(fd, 0, KEY, rec, sizeof rec - 1);
        if (n <= 0) return fail(who, "nisfind");
        rec[n] = '\0';
        n = put_count(rec, atol(rec + 8) + 1);
        if (nisupdate(fd, rec, n) != 0) return fail(who, "nisupdate");
        if (nisunlock(fd, KEY, 8, 0) != 0) return fail(who, "nisunlock");
    }
    if (nisclose(fd) != 0) return fail(who, "nisclose");
    nisunisam();
    return 0;
}

int main(void) {
    int keylens[1] = {8};
    char rec[64];
    pid_t pids[WRITERS];
    int fd, n, ok = 1;

    /* Create the file with the counter at 0, then detach before forking. */
    fd = niscreate(FILE_NAME, 1, keylens);
    if (fd < 0) return fail("main", "niscreate");
    n = put_count(rec, 0);
    if (niswrite(fd, rec, n) != 0) return fail("main", "niswrite");
    if (nisclose(fd) != 0) return fail("main", "nisclose");
    nisunisam();

    for (int i = 0; i < WRITERS; i++) {
        pids[i] = fork();
        if (pids[i] < 0) return perror("fork"), 1;
        if (pids[i] == 0) _exit(writer(i));
    }
    for (int i = 0; i < WRITERS; i++) {
        int status;
        if (waitpid(pids[i], &status, 0) != pids[i] || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 0)
            ok = 0;
    }
    if (!ok) {
        fprintf(stderr, "writers: a writer failed\n");
        return 1;
    }

    fd = nisopen(FILE_NAME, ISO_RDONLY);
    if (fd < 0) return fail("main", "nisopen");
    n = nisfind(fd, 0, KEY, rec, sizeof rec - 1);
    if (n <= 0) return fail("main", "nisfind");
    rec[n] = '\0';
    printf("counter: %ld (expected %d)\n", atol(rec + 8), WRITERS * ROUNDS);
    nisclose(fd);
    nisunisam();
    return atol(rec + 8) == WRITERS * ROUNDS ? 0 : 1;
}
