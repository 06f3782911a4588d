/* A program built against an installed libkisam: creates a file, writes a record,
 * reads it back by key, and detaches.  Prints "consumer ok" on success. */
#include <kisam/kisam.h>

#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: consumer FILE\n");
        return 2;
    }
    int lens[2] = {4, 6};
    niscr_ctl(0, 1024);
    int fd = niscreate(argv[1], 2, lens);
    if (fd < 0) {
        niserrmsg();
        return 1;
    }
    const char rec[] = "K001second-key payload";
    if (niswrite(fd, rec, (int)sizeof rec - 1) != 0) {
        niserrmsg();
        return 1;
    }
    char buf[64];
    memset(buf, 0, sizeof buf);
    int n = nisfind(fd, 1, "second", buf, (int)sizeof buf);
    if (n != (int)sizeof rec - 1 || memcmp(buf, rec, (size_t)n) != 0) {
        fprintf(stderr, "consumer: read back %d bytes, not the record written\n", n);
        return 1;
    }
    nisclose(fd);
    nisunisam();
    puts("consumer ok");
    return 0;
}
