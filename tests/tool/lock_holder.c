/* Holds the control lock of an ISAM file for the tool's tests: opens FILE (with the
 * configuration of the environment), takes the lock with nisgetctl, writes "held\n" to
 * standard output, and releases it and detaches when its standard input ends.
 * Exit status 0, or 1 when the file could not be opened or the lock taken. */
#include <kisam/kisam.h>

#include <stdio.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    char buf[64];
    int fd;
    if (argc != 2)
        return 2;
    fd = nisopen(argv[1], ISO_RDWR);
    if (fd < 0 || nisgetctl(fd) != 0) {
        niserrmsg();
        return 1;
    }
    printf("held\n");
    fflush(stdout);
    while (read(0, buf, sizeof buf) > 0) {
    }
    nisrelctl(fd);
    nisclose(fd);
    nisunisam();
    return 0;
}
