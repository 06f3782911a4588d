/* A host program that defines the message hook ZTVError receives the library's messages
 * through its own definition. */
#include <kisam/kisam.h>
#include <kisam/ztsupport.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

static char received[1024];
static int calls;

void ZTVError(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(received, sizeof received, fmt, ap);
    va_end(ap);
    ++calls;
}

int main(void) {
    char path[] = "/nonexistent-kisam-hook-test";
    char *paths[1] = {path};
    int status = -1;
    int rc = ZTFileOp(0, 0, &status, 1, paths);
    if (rc != -1 || status != 1) {
        fprintf(stderr, "ZTFileOp(0, ...) = %d, status %d\n", rc, status);
        return 1;
    }
    if (calls == 0 || strncmp(received, "Invalid ZTFileOp() Command: 0", 29) != 0) {
        fprintf(stderr, "hook called %d times, last message '%s'\n", calls, received);
        return 1;
    }
    return 0;
}
