// The OS boundary: every system call of the engine goes through here.
//
// EINTR is retried; pread/pwrite transfer at exact offsets and report a short transfer
// as a failure with errno kept (EIO for a transfer that ended early without an error).
// The calls go through a table of function pointers so that tests can make the Nth call
// of a kind fail and reach the error paths.
//
// Requires: nothing; callable from every layer under any lock.
#pragma once

#include <sys/types.h>
#include <sys/stat.h>
#include <fcntl.h>

namespace kisam {

struct os_table {
    ssize_t (*pread)(int, void*, size_t, off_t);
    ssize_t (*pwrite)(int, const void*, size_t, off_t);
    int (*fdatasync)(int);
    int (*fcntl_lock)(int fd, int cmd, struct flock* fl);
    int (*shmget)(key_t, size_t, int);
    int (*open)(const char*, int, mode_t);
    int (*fstat)(int, struct stat*);
    int (*fallocate)(int fd, off_t off, off_t len);  // posix_fallocate: 0 or an error number
    int (*ftruncate)(int fd, off_t len);
    int (*rename)(const char* from, const char* to);
    // Maps [0, len) of fd shared and writable (MAP_SHARED); MAP_FAILED with errno.
    void* (*mmap)(int fd, size_t len);
    // A store into a file through its shared mapping `map` (of fd from offset 0): bytes
    // [off, off + len) of the file become those at src.  src may already be map + off (the
    // bytes were built in place): the store is then only made known.  0, or -1 with errno
    // (a test's failure; the real one cannot fail).  A store past the end of the file, or
    // into a hole whose block the disk cannot give, or into a page the disk cannot read
    // back, raises SIGBUS: both users store armed for it.  The redo log stores only below a
    // size whose blocks it wrote and synced, so only a log cut short by another program or
    // an unreadable page faults, and fails the call; the pool's write-backs write the page
    // by a write call after a fault.
    int (*mstore)(int fd, char* map, off_t off, const void* src, size_t len);
};
// The live table; tests may replace entries and must restore them.
extern os_table os;
// The real system calls, for restoring the table.
extern const os_table os_real;

// Read exactly n bytes at off; returns bytes read (may be < n at end of file), -1 on error.
ssize_t os_pread_full(int fd, void* buf, size_t n, off_t off) noexcept;
// Write exactly n bytes at off; returns 0, or -1 (short write sets errno EIO if unset).
int os_pwrite_full(int fd, const void* buf, size_t n, off_t off) noexcept;
int os_fdatasync(int fd) noexcept;
int os_open(const char* path, int flags, mode_t mode = 0) noexcept;
int os_close(int fd) noexcept;
// Reserves disk space for [off, off + len) of fd; 0, or -1 with errno set.
int os_fallocate(int fd, off_t off, off_t len) noexcept;
int os_ftruncate(int fd, off_t len) noexcept;
// A shared writable mapping of [0, len) of fd, or null (errno set); os_unmap gives it back.
char* os_map(int fd, size_t len) noexcept;
void os_unmap(char* map, size_t len) noexcept;
// Drops this process's page-table entries for [off, off + len) of a shared mapping (page
// aligned): the pages stay in the file's cache, dirty or not, and the next touch maps them
// again.  Writing out a page that no process maps needs no write-protection of it (no TLB
// flush across processors, no fault at the next store); the redo log drops what lies
// behind its tail before it has the disk start on it.
void os_map_drop(char* map, size_t off, size_t len) noexcept;
// Whether another process holds a lock over [start, start + len) of fd: 1 yes, 0 no,
// -1 the question failed.
int os_testlock(int fd, off_t start, off_t len) noexcept;
// fcntl record lock with EINTR retried for waiting commands.
int os_lock(int fd, int cmd, short type, off_t start, off_t len) noexcept;

}  // namespace kisam
