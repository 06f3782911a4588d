// The OS boundary: the system calls of the engine, with EINTR retried and short transfers
// reported.  Calls go through the table `os` so that a test can make one kind of call
// fail and reach the error paths; `os_real` holds the real calls for restoring it.
#include "os.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

namespace kisam {

namespace {

int real_fcntl_lock(int fd, int cmd, struct flock* fl) { return ::fcntl(fd, cmd, fl); }
int real_open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int real_fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
int real_fallocate(int fd, off_t off, off_t len) { return ::posix_fallocate(fd, off, len); }
int real_ftruncate(int fd, off_t len) { return ::ftruncate(fd, len); }
void* real_mmap(int fd, size_t len) { return ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0); }
int real_mstore(int, char* map, off_t off, const void* src, size_t len) {
    char* to = map + off;
    if (to != src) std::memcpy(to, src, len);
    return 0;
}

}  // namespace

const os_table os_real = {
    ::pread, ::pwrite, ::fdatasync, real_fcntl_lock, ::shmget, real_open, real_fstat,
    real_fallocate, real_ftruncate, ::rename, real_mmap, real_mstore,
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

int os_fallocate(int fd, off_t off, off_t len) noexcept {
    int r;
    do {
        r = os.fallocate(fd, off, len);
    } while (r == EINTR);
    if (r == 0) return 0;
    errno = r;
    return -1;
}

int os_ftruncate(int fd, off_t len) noexcept {
    int r;
    do {
        r = os.ftruncate(fd, len);
    } while (r != 0 && errno == EINTR);
    return r;
}

char* os_map(int fd, size_t len) noexcept {
    void* m = os.mmap(fd, len);
    return m == MAP_FAILED ? nullptr : static_cast<char*>(m);
}

void os_unmap(char* map, size_t len) noexcept {
    if (map) ::munmap(map, len);
}

void os_map_drop(char* map, size_t off, size_t len) noexcept {
    if (map && len) {
        const int e = errno;
        ::madvise(map + off, len, MADV_DONTNEED);
        errno = e;
    }
}

int os_testlock(int fd, off_t start, off_t len) noexcept {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    int r;
    do {
        r = os.fcntl_lock(fd, F_GETLK, &fl);
    } while (r != 0 && errno == EINTR);
    if (r != 0) return -1;
    return fl.l_type == F_UNLCK ? 0 : 1;
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
