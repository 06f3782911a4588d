// kisam_config_write: the binary configuration record of an installation, and its lock
// file, written from settings rather than by hand.
//
// The record is written with the same layout arithmetic as start-up (size_layout), so a
// record this call accepts is one that is_init can lay out; start-up recomputes the
// computed fields anyway.  An existing file is overwritten in place (one write, then
// cut to the record's length), never emptied first: a process attaching meanwhile reads
// the old record or the new one, not an empty file.
#include "is_common.h"
#include "isx_area.h"
#include "os.h"

#include <kisam/kisam.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <climits>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr unsigned kKnownOptions =
    KISAM_TRACK_CHANGES | KISAM_SYNC_ON_MARK | KISAM_CLEAR_ON_RELEASE | KISAM_DURABLE;
constexpr unsigned kRecordOptions = KISAM_TRACK_CHANGES | KISAM_SYNC_ON_MARK | KISAM_CLEAR_ON_RELEASE;
// This library's own settings follow the record (start-up reads up to 512 bytes and
// ignores what follows the record): "KXC1", then option bits (1: durable calls).
constexpr uint32_t kExtMagic = 0x3143584Bu;
constexpr int kKnownFlags = KISAM_CONFIG_REPLACE;

bool in(int v, int lo, int hi) { return v >= lo && v <= hi; }

// The record for settings s, or false (errno set) when they are out of range or the
// area they ask for cannot be laid out.
bool make_record(const kisam_settings& s, is_config& c) {
    if (!in(s.files, 1, BU_FILEMASK) || !in(s.buffers, 1, INT16_MAX) || !in(s.users, 1, INT16_MAX) ||
        !in(s.keys, 1, KISAM_MAXKEYS) || !in(s.files_per_process, 0, s.files) ||
        !in(s.file_buffers, 0, INT16_MAX) || !in(s.avg_alt_keys, 0, KISAM_MAXKEYS - 1) ||
        !in(s.lock_key_len, 0, INT16_MAX) || !in(s.locks_per_file, 0, INT16_MAX) ||
        (s.options & ~kKnownOptions) != 0 ||
        // Syncing or clearing the data-changed mark means nothing without keeping it.
        ((s.options & (KISAM_SYNC_ON_MARK | KISAM_CLEAR_ON_RELEASE)) && !(s.options & KISAM_TRACK_CHANGES))) {
        errno = EINVAL;
        return false;
    }
    std::memset(&c, 0, sizeof c);
    c.co_maxopen = static_cast<int16_t>(s.files);
    c.co_maxbuf = static_cast<int16_t>(s.buffers);
    c.co_maxusers = static_cast<int16_t>(s.users);
    c.co_maxnkeys = static_cast<int16_t>(s.keys);
    c.co_avgalts = static_cast<int16_t>(s.avg_alt_keys);
    c.co_alenlock = static_cast<int16_t>(s.lock_key_len);
    c.co_anumlock = static_cast<int16_t>(s.locks_per_file);
    c.co_maxfbuf = static_cast<int16_t>(s.file_buffers ? s.file_buffers : s.buffers);
    c.co_maxufile = static_cast<int16_t>(s.files_per_process);
    c.co_bits = s.options & kRecordOptions;
    int64_t heap = 0;
    if (size_layout(&c, &heap) != 0 ||
        int64_t(c.co_comsize) + isx_size(s.files, s.users, s.buffers) > INT32_MAX) {
        errno = ERANGE;
        return false;
    }
    return true;
}

}  // namespace

extern "C" KISAM_API int kisam_config_write(const char* path, const struct kisam_settings* settings, int flags,
                                            int mode) {
    static const kisam_settings defaults = KISAM_SETTINGS_DEFAULT;
    if (path == nullptr || *path == '\0' || (flags & ~kKnownFlags) != 0 || (mode & ~0777) != 0) {
        errno = EINVAL;
        return -1;
    }
    char lk[PATH_MAX + 4];
    if (std::snprintf(lk, sizeof lk, "%s.lk", path) >= static_cast<int>(sizeof lk)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    is_config c;
    if (!make_record(settings ? *settings : defaults, c)) return -1;
    const mode_t perm = mode ? static_cast<mode_t>(mode) : 0666;
    static_assert(sizeof c == 52, "the configuration record is 52 bytes");

    const bool replace = flags & KISAM_CONFIG_REPLACE;
    int fd = kisam::os_open(path, O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? 0 : O_EXCL), perm);
    if (fd < 0) return -1;
    unsigned char out[sizeof c + 8];
    std::memcpy(out, &c, sizeof c);
    size_t len = sizeof c;
    const unsigned opts = (settings ? *settings : defaults).options;
    if (opts & KISAM_DURABLE) {
        const uint32_t ext[2] = {kExtMagic, 1};
        std::memcpy(out + len, ext, sizeof ext);
        len += sizeof ext;
    }
    bool ok = kisam::os_pwrite_full(fd, out, len, 0) == 0 && kisam::os_ftruncate(fd, static_cast<off_t>(len)) == 0;
    int saved = errno;
    if (kisam::os_close(fd) != 0 && ok) {
        ok = false;
        saved = errno;
    }
    if (!ok) {
        // A file this call created is not left behind half-written; one it was asked
        // to replace is past saving either way.
        if (!replace) ::unlink(path);
        errno = saved;
        return -1;
    }
    // Every process of the installation locks ranges of this file; one that exists
    // already (the installation is running, perhaps) is kept as it is.
    int lfd = kisam::os_open(lk, O_RDWR | O_CREAT | O_CLOEXEC, perm);
    if (lfd < 0) return -1;
    kisam::os_close(lfd);
    return 0;
}
