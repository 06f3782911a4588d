// Backups of files in use: a copy of a file exactly as it stood at one moment between
// calls, made while other processes go on reading and writing it.
//
// The moment is a hold of the file's control lock (the control lock is what every
// changing call holds from its first change to its last write): while it is held no call
// is half done on disk -- every completed call has written its pages and its control
// page, and a rollback still pending is settled by the taking of the lock -- so the disk
// image is a state between calls.  Writers wait only while that image is taken: a
// clone of the file's blocks where the file system shares them (one ioctl), else a read
// of the file into memory; writing, syncing and checking the copy happen after the lock
// is given back.  The copy is written under a temporary name beside the destination and
// renamed over it only once it is complete, synced and (when the caller asks) verified,
// so that a backup that fails leaves nothing under the destination's name.
//
// Failures of the copy itself are raised with the procedure code of isflush and these
// details (the open and the lock report their own):
//   0x21  ISE_CREATF  the temporary copy cannot be created beside the destination
//   0x22  ISE_RDRD    the file cannot be read
//   0x23  ISE_FLWT    the copy cannot be written or synced (a full disk, say)
//   0x24  ISE_BTS     the caller's verification found the copy unsound
//   0x25  ISE_CREATF  the copy cannot be renamed to the destination
#include "fcp.h"
#include "is_error.h"
#include "is_file.h"
#include "v_pool.h"

#include <kisam/kisam.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os.h"

namespace {

// Above this a copy is not taken into memory under the lock but written out directly.
constexpr off_t kMemoryCopy = off_t{1} << 30;

long long now_us() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int fail(int code, int detail) noexcept { return is_raise(code, PROC(P_ISFLUSH, detail)); }

// Copies len bytes of fd at 0 into out at 0; false on failure (errno set).
bool copy_range(int fd, int out, off_t len) noexcept {
    off_t in_off = 0, out_off = 0;
    while (in_off < len) {
        const ssize_t n = ::copy_file_range(fd, &in_off, out, &out_off, static_cast<size_t>(len - in_off), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            break;
        }
    }
    if (in_off == len) return true;
    // Where copy_file_range cannot serve (another file system, an old kernel), plainly.
    if (errno != EXDEV && errno != ENOSYS && errno != EOPNOTSUPP && errno != EINVAL) return false;
    char buf[1 << 16];
    for (off_t at = 0; at < len;) {
        const size_t want = static_cast<size_t>(len - at < off_t(sizeof buf) ? len - at : off_t(sizeof buf));
        const ssize_t n = kisam::os_pread_full(fd, buf, want, at);
        if (n != static_cast<ssize_t>(want)) {
            if (n >= 0) errno = EIO;
            return false;
        }
        if (kisam::os_pwrite_full(out, buf, want, at) != 0) return false;
        at += static_cast<off_t>(want);
    }
    return true;
}

// The control page of the copy: the shared copy's image (always the current one, also
// when its write is still due), without the data-changed mark -- the copy is a state
// between calls, and must open without being taken for an interrupted one.
bool write_control_page(const IS_FCP* fcp, int out) noexcept {
    alignas(8) char scratch[IS_FCP_JDSIZE + kisam::kFcpImage] = {};
    const size_t n = static_cast<size_t>(IS_FCP_SIZE(fcp->is_nkeys));
    std::memcpy(scratch, fcp, n < sizeof scratch ? n : sizeof scratch);
    IS_FCP* f = reinterpret_cast<IS_FCP*>(scratch);
    f->is_optbits = static_cast<uint8_t>(f->is_optbits & ~(ISO_CHANGED | ISO_DIRTYMARK));
    unsigned char img[kisam::kFcpImage];
    kisam::fcp_image(f, img);
    return kisam::os_pwrite_full(out, img, sizeof img, 0) == 0;
}

// A temporary name beside dest, created exclusively with mode; -1 (errno) on failure.
int make_temp(const char* dest, mode_t mode, char* tmp, size_t n) noexcept {
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::snprintf(tmp, n, "%s.tmp%d.%d", dest, static_cast<int>(::getpid()), attempt);
        const int fd = kisam::os_open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode & 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    errno = EEXIST;
    return -1;
}

// Makes the rename of a file in dest's directory durable.
void sync_dir_of(const char* dest) noexcept {
    char dir[PATH_MAX];
    std::snprintf(dir, sizeof dir, "%s", dest);
    char* slash = std::strrchr(dir, '/');
    if (slash == dir) slash[1] = '\0';
    else if (slash) *slash = '\0';
    else std::strcpy(dir, ".");
    const int fd = kisam::os_open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        kisam::os_close(fd);
    }
}

// Where the pages not yet written back go: into the image in memory, else straight
// into the copy.
struct Overlay {
    char* image;
    int out;
    off_t len;
};
int overlay_page(void* arg, off_t off, const IS_DATA* d) {
    const Overlay* o = static_cast<const Overlay*>(arg);
    if (off < 0 || off + kisam::kPage > o->len) return 0;  // past the end: no page of the file
    if (o->image) {
        std::memcpy(o->image + off, d->c, kisam::kPage);
        return 0;
    }
    return kisam::os_pwrite_full(o->out, d->c, kisam::kPage, off);
}

}  // namespace

extern "C" KISAM_API int kisam_backup(const char* path, const char* dest, kisam_verify_fn verify, void* arg,
                                      long* held_us) {
    if (held_us) *held_us = 0;
    if (!dest || !*dest || std::strlen(dest) > PATH_MAX - 32) return fail(ISE_CREATF, 0x21);
    const bool attached = isam_com != nullptr;
    if (!attached && is_init() != 0) return -1;
    int rc = 0;
    char tmp[PATH_MAX];
    tmp[0] = '\0';
    int out = -1;
    char* image = nullptr;
    off_t len = 0;
    const int isfd = nisopen(path, ISO_RDONLY);
    if (isfd < 0) {
        rc = -1;
    } else {
        const int u = is_db[isfd]->uniqueid;
        const int fd = is_pfi[u].pfi_osfd;
        struct stat st;
        if (kisam::os.fstat(fd, &st) != 0 || (out = make_temp(dest, st.st_mode, tmp, sizeof tmp)) < 0) {
            tmp[0] = '\0';
            rc = fail(ISE_CREATF, 0x21);
        } else if (nisgetctl(isfd) != 0) {
            rc = -1;
        } else {
            // The moment: from here to the release nothing changes the file.
            const long long t0 = now_us();
            struct stat now;
            bool ok = kisam::os.fstat(fd, &now) == 0;
            len = now.st_size;
            if (ok && ::ioctl(out, FICLONE, fd) == 0) {
                // The blocks are shared until either file changes them: nothing to copy.
            } else if (ok && len <= kMemoryCopy && (image = static_cast<char*>(std::malloc(len ? len : 1)))) {
                ok = kisam::os_pread_full(fd, image, static_cast<size_t>(len), 0) == static_cast<ssize_t>(len);
            } else if (ok) {
                ok = copy_range(fd, out, len);
                if (!ok) rc = fail(ISE_FLWT, 0x23);
            }
            // Pages of calls not yet written back live in the pool: the copy gets them
            // over what the disk holds, and runs to the end the control page says.
            if (ok) {
                IS_FCP* f = kisam::pfo_fcp(u);
                const off_t logical = v_fileoffset(f, f->is_lastpage);
                if (image && logical > len) {
                    char* grown = static_cast<char*>(std::realloc(image, static_cast<size_t>(logical)));
                    if (!grown) {
                        ok = false;
                    } else {
                        image = grown;
                        std::memset(image + len, 0, static_cast<size_t>(logical - len));
                    }
                }
                if (ok && logical > len) len = logical;
                Overlay o{image, out, len};
                if (ok && v_dirty_pages(f, u, overlay_page, &o) != 0) {
                    ok = false;
                    rc = fail(ISE_FLWT, 0x23);
                }
            }
            if (ok && !write_control_page(kisam::pfo_fcp(u), out)) rc = fail(ISE_FLWT, 0x23);
            if (!ok && rc == 0) rc = fail(ISE_RDRD, 0x22);
            {
                kisam::ErrorKeep keep;
                if (nisrelctl(isfd) != 0 && rc == 0) rc = -1;
            }
            if (held_us) *held_us = static_cast<long>(now_us() - t0);
        }
        kisam::ErrorKeep keep;
        nisclose(isfd);
    }
    // Outside the lock: the copy is written, synced and checked.
    if (rc == 0 && image) {
        // The control page went in already; the rest of the image goes around it.
        const off_t head = kisam::kFcpImage;
        if (len > head && kisam::os_pwrite_full(out, image + head, static_cast<size_t>(len - head), head) != 0)
            rc = fail(ISE_FLWT, 0x23);
    }
    std::free(image);
    if (rc == 0 && (kisam::os_ftruncate(out, len) != 0 || kisam::os_fdatasync(out) != 0)) rc = fail(ISE_FLWT, 0x23);
    if (out >= 0 && kisam::os_close(out) != 0 && rc == 0) rc = fail(ISE_FLWT, 0x23);
    if (rc == 0 && verify && verify(tmp, arg) != 0) rc = fail(ISE_BTS, 0x24);
    if (rc == 0 && ::rename(tmp, dest) != 0) rc = fail(ISE_CREATF, 0x25);
    if (rc == 0) {
        sync_dir_of(dest);
    } else if (tmp[0]) {
        kisam::ErrorKeep keep;
        ::unlink(tmp);
    }
    if (!attached) {
        kisam::ErrorKeep keep;
        nisunisam();
    }
    return rc;
}
