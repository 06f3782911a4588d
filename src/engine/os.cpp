// The OS boundary: the system calls of the engine, with EINTR retried and short transfers
// reported.  Calls go through the table `os` so that a test can make one kind of call
// fail and reach the error paths; `os_real` holds the real calls for restoring it.
#include "os.h"

#include <cerrno>
#include <sys/shm.h>
#include <unistd.h>

namespace kisam {

namespace {

int real_fcntl_lock(int fd, int cmd, struct flock* fl) { return ::fcntl(fd, cmd, fl); }
int real_open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int real_fstat(int fd, struct stat* st) { return ::fstat(fd, st); }

}  // namespace

const os_table os_real = {
    ::pread, ::pwrite, ::fdatasync, real_fcntl_lock, ::shmget, real_open, real_fstat,
};
os_table os = os_real;

ssize_t os_pread_full(int fd, void* buf, size_t n, off_t off) noexcept {
    char* p = static_cast<char*>(buf);
    size_t done = 0;
    while (done < n) {
        ssize_t r = os.pread(fd, p + done, n - done, off + static_cast<off_t>(done));
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (r == 0) break;  // end of file: the caller sees the short count
        done += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(done);
}

int os_pwrite_full(int fd, const void* buf, size_t n, off_t off) noexcept {
    const char* p = static_cast<const char*>(buf);
    size_t done = 0;
    while (done < n) {
        ssize_t r = os.pwrite(fd, p + done, n - done, off + static_cast<off_t>(done));
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (r == 0) {  // no progress and no error: report it rather than spin
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(r);
    }
    return 0;
}

int os_fdatasync(int fd) noexcept {
    int r;
    do {
        r = os.fdatasync(fd);
    } while (r != 0 && errno == EINTR);
    return r;
}

int os_open(const char* path, int flags, mode_t mode) noexcept {
    int fd;
    do {
        fd = os.open(path, flags, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int os_close(int fd) noexcept {
    // note: no retry on EINTR; on Linux the descriptor is gone whatever close returned.
    return ::close(fd);
}

int os_lock(int fd, int cmd, short type, off_t start, off_t len) noexcept {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    int r;
    do {
        r = os.fcntl_lock(fd, cmd, &fl);
    } while (r != 0 && errno == EINTR);
    return r;
}

}  // namespace kisam
