/*
 * nisgetctl / nisrelctl: a read and an update as one unit.
 *
 * Two accounts hold 1000 units between them.  Two mover processes shift one unit at a
 * time from one account to the other: read both, change both, write both.  An auditor
 * process reads both accounts again and again and checks that they still add up to 1000.
 *
 * Each call alone is atomic, but the movers' five calls are not: between them another
 * process could read one account already changed and the other not yet.  Holding the
 * file's control lock with nisgetctl() around the five calls makes them one unit; the
 * auditor takes it around its two reads, so it never sees half a move.  Other processes'
 * calls on the file wait while it is held, so a bracket should stay short.
 */
#include <kisam/kisam.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#define MOVES 400
#define CHECKS 400
#define TOTAL 1000

static int fail(const char *who, const char *what) {
    char msg[1024];
    niserrmsgget(msg, sizeof msg);
    fprintf(stderr, "bracket: %s: %s failed: %s\n", who, what, msg);
    nisunisam();
    return 1;
}

/* An account record: 4-byte name (key 0), then the balance as text. */
static int account(char *rec, const char *name, long balance) {
    return snprintf(rec, 32, "%.4s%08ld", name, balance);
}

static long balance_of(int fd, const char *name, char *rec) {
    int n = nisfind(fd, 0, name, rec, 31);
    if (n <= 0) return -1;
    rec[n] = '\0';
    return atol(rec + 4);
}

/* Moves one unit from `from` to `to`, MOVES times, each move under one hold. */
static int mover(const char *from, const char *to) {
    char rec[32];
    int fd = nisopen("accounts.isam", ISO_RDWR);
    if (fd < 0) return fail("mover", "nisopen");
    for (int i = 0; i < MOVES; i++) {
        if (nisgetctl(fd) != 0) return fail("mover", "nisgetctl");
        long a = balance_of(fd, from, rec), b = balance_of(fd, to, rec);
        if (a < 0 || b < 0) return fail("mover", "nisfind");
        if (a > 0) {
            int n = account(rec, from, a - 1);
            if (nisupdate(fd, rec, n) != 0) return fail("mover", "nisupdate");
            n = account(rec, to, b + 1);
            if (nisupdate(fd, rec, n) != 0) return fail("mover", "nisupdate");
        }
        if (nisrelctl(fd) != 0) return fail("mover", "nisrelctl");
    }
    nisclose(fd);
    nisunisam();
    return 0;
}

static int auditor(void) {
    char rec[32];
    int fd = nisopen("accounts.isam", ISO_RDONLY);
    if (fd < 0) return fail("auditor", "nisopen");
    for (int i = 0; i < CHECKS; i++) {
        if (nisgetctl(fd) != 0) return fail("auditor", "nisgetctl");
        long sum = balance_of(fd, "AAAA", rec) + balance_of(fd, "BBBB", rec);
        nisrelctl(fd);
        if (sum != TOTAL) {
            fprintf(stderr, "bracket: the accounts add up to %ld\n", sum);
            return 1;
        }
    }
    nisclose(fd);
    nisunisam();
    return 0;
}

int main(void) {
    int keylens[1] = {4};
    char rec[32];
    pid_t pids[3];
    int fd, n, ok = 1;

    fd = niscreate("accounts.isam", 1, keylens);
    if (fd < 0) return fail("main", "niscreate");
    n = account(rec, "AAAA", 600);
    if (niswrite(fd, rec, n) != 0) return fail("main", "niswrite");
    n = account(rec, "BBBB", 400);
    if (niswrite(fd, rec, n) != 0) return fail("main", "niswrite");
    nisclose(fd);
    nisunisam();   /* detached: the children below attach on their own */

    for (int i = 0; i < 3; i++) {
        pids[i] = fork();
        if (pids[i] < 0) return perror("fork"), 1;
        if (pids[i] == 0)
            _exit(i == 0 ? mover("AAAA", "BBBB") : i == 1 ? mover("BBBB", "AAAA") : auditor());
    }
    for (int i = 0; i < 3; i++) {
        int status;
        if (waitpid(pids[i], &status, 0) != pids[i] || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 0)
            ok = 0;
    }

    fd = nisopen("accounts.isam", ISO_RDONLY);
    if (fd < 0) return fail("main", "nisopen");
    long a = balance_of(fd, "AAAA", rec), b = balance_of(fd, "BBBB", rec);
    printf("AAAA %ld + BBBB %ld = %ld\n", a, b, a + b);
    nisclose(fd);
    nisunisam();
    return ok && a + b == TOTAL ? 0 : 1;
}
