/*
 * fork() in an attached process: the child calls is_chinit() first.
 *
 * A child inherits the parent's attachment, its ISAM descriptors and its tables, but
 * none of its locks, and the shared area does not know it yet.  is_chinit() registers
 * the child and counts it as a user of every file the parent has open; after that the
 * child may use the inherited descriptors as its own.  It detaches with nisunisam()
 * like any process, which leaves the parent's files open for the parent.
 */
#include <kisam/kisam.h>

#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#define CHILDREN 3
#define PER_CHILD 100

static int fail(const char *who, const char *what) {
    char msg[1024];
    niserrmsgget(msg, sizeof msg);
    fprintf(stderr, "fork: %s: %s failed: %s\n", who, what, msg);
    nisunisam();
    return 1;
}

/* Runs in the child: adds PER_CHILD records through the parent's descriptor. */
static int child(int id, int fd) {
    char who[32], rec[64];
    snprintf(who, sizeof who, "child %d", id);
    if (is_chinit() != 0) return fail(who, "is_chinit");
    for (int i = 0; i < PER_CHILD; i++) {
        /* key 0: child number and sequence; the rest says who wrote it */
        int n = snprintf(rec, sizeof rec, "%02d%06d written by process %d", id, i, (int)getpid());
        if (niswrite(fd, rec, n) != 0) return fail(who, "niswrite");
    }
    nisunisam();   /* closes the inherited descriptor in the child only */
    return 0;
}

int main(void) {
    int keylens[1] = {8};
    char rec[64];
    pid_t pids[CHILDREN];
    int fd, n, count = 0, ok = 1;

    if (is_init() != 0) return fail("parent", "is_init");
    fd = niscreate("log.isam", 1, keylens);
    if (fd < 0) return fail("parent", "niscreate");

    for (int i = 0; i < CHILDREN; i++) {
        pids[i] = fork();
        if (pids[i] < 0) return perror("fork"), 1;
        if (pids[i] == 0) _exit(child(i, fd));
    }
    for (int i = 0; i < CHILDREN; i++) {
        int status;
        if (waitpid(pids[i], &status, 0) != pids[i] || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 0)
            ok = 0;
    }
    if (!ok) {
        fprintf(stderr, "fork: a child failed\n");
        return 1;
    }

    /* The parent's descriptor is still open and sees what the children wrote. */
    while ((n = nisread(fd, 0, rec, sizeof rec - 1)) > 0) {
        rec[n] = '\0';
        if (count++ % PER_CHILD == 0) printf("%s\n", rec);
    }
    if (n < 0) return fail("parent", "nisread");
    printf("records: %d (expected %d)\n", count, CHILDREN * PER_CHILD);
    if (nisclose(fd) != 0) return fail("parent", "nisclose");
    nisunisam();
    return count == CHILDREN * PER_CHILD ? 0 : 1;
}
