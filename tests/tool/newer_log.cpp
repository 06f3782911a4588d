// Makes the redo log at LOG look written by a newer version of the library: its header in
// use gets the next version, sealed with its checksum.  The tool tests' log that this
// version can neither replay nor read.  Exit 0, or 1 when LOG has no valid header.
#include "lg_internal.h"

#include <cstddef>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    namespace lg = kisam::lg;
    if (argc != 2) return 2;
    const int fd = ::open(argv[1], O_RDWR);
    lg::lg_head h;
    if (fd < 0 || !lg::read_head(fd, &h)) return 1;
    h.lh_version = lg::kVersion + 1;
    h.lh_sum = lg::checksum(&h, offsetof(lg::lg_head, lh_sum));
    const bool ok = ::pwrite(fd, &h, sizeof h, static_cast<off_t>(h.lh_gen & 1) * 512) == sizeof h;
    ::close(fd);
    return ok ? 0 : 1;
}
