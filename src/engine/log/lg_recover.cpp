// Replay: a log's records brought into their file when nobody has it open -- a slot's
// previous file at the next open, every log at the first attach after a crash (recovery,
// reported by kisam_last_recovery), a log a last close left behind.
#include "lg_internal.h"

#include "fcp.h"
#include "is_access.h"
#include "os.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unordered_map>
#include <utility>
#include <vector>

using namespace kisam::lg;

namespace {

struct Replayed {
    uint32_t units = 0, pages = 0;
};

// The pages of a log's generation as its records leave them.
struct Gathered {
    // Each page's content as the records leave it: entries that hold part of a page
    // apply to what the earlier records (or, failing those, the file) gave it.
    std::unordered_map<uint64_t, IS_DATA> pages;
    unsigned char fcp[kisam::kFcpImage];
    bool have_fcp = false;
    uint32_t units = 0;
    uint64_t end = 0;  // the LSN after the last valid record
};

// Reads the records of generation gen from `start` on, of the log on lfd, until the
// first that is not valid, into g: every page's last committed content (a page that a
// call let go of before a final record that never came goes back to its before-image,
// and one it added is dropped), and the control page's.  Parts of pages the records do
// not hold whole are read from the file on dfd.  0; -1 (errno) when a record or the
// file cannot be read or the log holds an entry this version does not know.  May throw
// std::bad_alloc.
int gather(int lfd, uint32_t gen, uint64_t start, int dfd, Gathered& g) {
    Buf b;
    uint64_t lsn = start;
    uint32_t len = read_record(lfd, gen, start, lsn, b);
    int rc = 0;
    try {
        auto& pages = g.pages;
        auto& fcp = g.fcp;
        auto& have_fcp = g.have_fcp;
        auto& units = g.units;
        // Pages a call let go of before its end, in order: undone when the log ends
        // before the call's final record (their before-images; none for a page the call
        // added past the file's old end, which is then no page of the file).
        std::vector<std::pair<uint64_t, IS_DATA>> undo;
        std::vector<uint64_t> added;
        while (len != 0) {
            const lg_rec* r = reinterpret_cast<const lg_rec*>(b.p);
            const bool open = r->lr_flags & kUnitOpen;
            if (!open) {
                undo.clear();
                added.clear();
            }
            size_t at = sizeof(lg_rec);
            for (uint32_t i = 0; i < r->lr_nent && rc == 0; ++i) {
                if (at + sizeof(lg_ent) > len) {
                    rc = -1;
                    break;
                }
                lg_ent e;
                std::memcpy(&e, b.p + at, sizeof e);
                at += sizeof e;
                if (at + e.le_len > len) {
                    rc = -1;
                    break;
                }
                if (e.le_kind == kBeforeEntry && e.le_len == kisam::kPage) {
                    IS_DATA d;
                    std::memcpy(d.c, b.p + at, kisam::kPage);
                    undo.emplace_back(e.le_off, d);
                    if (!added.empty() && added.back() == e.le_off) added.pop_back();
                } else if (e.le_kind == kControlEntry && e.le_at + e.le_len <= kisam::kFcpImage) {
                    // A part applies to the whole image an earlier record (or the file)
                    // gave.
                    if (!have_fcp && e.le_len != kisam::kFcpImage &&
                        kisam::os_pread_full(dfd, fcp, sizeof fcp, 0) != static_cast<ssize_t>(sizeof fcp)) {
                        rc = -1;
                        break;
                    }
                    std::memcpy(fcp + e.le_at, b.p + at, e.le_len);
                    have_fcp = true;
                } else if (e.le_kind == kPageEntry || e.le_kind == kMoveEntry) {
                    auto it = pages.find(e.le_off);
                    if (it == pages.end()) {
                        IS_DATA d;
                        std::memset(&d, 0, sizeof d);
                        if ((e.le_kind != kPageEntry || e.le_len != kisam::kPage) &&
                            kisam::os_pread_full(dfd, d.c, kisam::kPage, static_cast<off_t>(e.le_off)) < 0) {
                            rc = -1;
                            break;
                        }
                        it = pages.emplace(e.le_off, d).first;
                    }
                    if (!apply_entry(reinterpret_cast<unsigned char*>(it->second.c), e, b.p + at)) {
                        errno = EINVAL;
                        rc = -1;
                        break;
                    }
                    if (open) added.push_back(e.le_off);  // dropped again if a before-image follows
                } else {
                    // Whole by its checksum, yet not an entry this version writes: the log
                    // is refused rather than replayed in part.
                    errno = EINVAL;
                    rc = -1;
                    break;
                }
                at += round8(e.le_len);
            }
            if (rc != 0) break;
            ++units;
            lsn += len;
            len = read_record(lfd, gen, start, lsn, b);
        }
        // The log ended inside a call: what it let go of goes back as it was.
        for (auto it = undo.rbegin(); it != undo.rend(); ++it) pages[it->first] = it->second;
        for (uint64_t off : added) pages.erase(off);
    } catch (...) {
        std::free(b.p);
        throw;
    }
    std::free(b.p);
    g.end = lsn;
    return rc;
}

}  // namespace

namespace kisam::lg {

int write_logged(int lfd, uint32_t gen, uint64_t start, uint64_t end, int dfd, uint32_t* pages) noexcept {
    try {
        Gathered g;
        if (gather(lfd, gen, start, dfd, g) != 0) return -1;
        // The log no longer holds every record up to its end: the pages it lost cannot be
        // written from it.
        if (g.end != end) {
            errno = EIO;
            return -1;
        }
        for (const auto& [off, d] : g.pages)
            if (kisam::os_pwrite_full(dfd, d.c, kisam::kPage, static_cast<off_t>(off)) != 0) return -1;
        if (pages) *pages = static_cast<uint32_t>(g.pages.size());
        return 0;
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
}

}  // namespace kisam::lg

namespace {

// Replays the records of the log on lfd (header h) into its file, then starts the log's
// next generation.  The file must not be in use.  0; -1 (errno) when the file could not
// be brought up to date (the log keeps its records).  A file that is gone, or is another
// file now, cannot take them: they are dropped.
int replay(int lfd, lg_head h, Replayed* out) noexcept {
    Buf b;
    const uint32_t first = read_record(lfd, h.lh_gen, h.lh_start, h.lh_start, b);
    std::free(b.p);
    if (first == 0) return 0;  // nothing to replay
    int dfd = kisam::os_open(h.lh_path, O_RDWR | O_CLOEXEC);
    struct stat st;
    bool same = dfd >= 0 && kisam::os.fstat(dfd, &st) == 0 && static_cast<uint64_t>(st.st_dev) == h.lh_dev &&
                static_cast<uint64_t>(st.st_ino) == h.lh_ino;
    if (!same) {
        const int e = dfd >= 0 ? ESTALE : errno;
        if (dfd >= 0) kisam::os_close(dfd);
        if (e != ENOENT && e != ESTALE) {
            errno = e;
            return -1;
        }
        // Gone: the records can go too.
        h.lh_gen++;
        return write_head(lfd, &h, true);
    }
    int rc = 0;
    uint64_t lsn = h.lh_start;
    try {
        Gathered g;
        rc = gather(lfd, h.lh_gen, h.lh_start, dfd, g);
        lsn = g.end;
        if (rc == 0) {
            for (const auto& [off, d] : g.pages)
                if (kisam::os_pwrite_full(dfd, d.c, kisam::kPage, static_cast<off_t>(off)) != 0) rc = -1;
            if (g.have_fcp && rc == 0) {
                // Everything the file went through is in it now: its data-changed mark
                // (if kept) can go.
                const size_t ob = offsetof(IS_FCP, is_optbits) - IS_FCP_JDSIZE;
                g.fcp[ob] = static_cast<unsigned char>(g.fcp[ob] & ~(ISO_DIRTYMARK | ISO_CHANGED));
                if (kisam::os_pwrite_full(dfd, g.fcp, sizeof g.fcp, 0) != 0) rc = -1;
            }
            if (rc == 0) rc = kisam::os_fdatasync(dfd);
            if (out) {
                out->units += g.units;
                out->pages += static_cast<uint32_t>(g.pages.size());
            }
        }
    } catch (...) {
        errno = ENOMEM;
        rc = -1;
    }
    const int e = errno;
    kisam::os_close(dfd);
    if (rc != 0) {
        errno = e;
        return -1;
    }
    h.lh_gen++;
    h.lh_start = lsn;
    return write_head(lfd, &h, true);
}

// Whether the log on fd (header h) holds at least one valid record.
bool has_records(int fd, const lg_head& h) noexcept {
    lg_rec r;
    const off_t off = kFirst;
    if (kisam::os_pread_full(fd, &r, sizeof r, off) != static_cast<ssize_t>(sizeof r)) return false;
    if (r.lr_magic != kRecMagic || r.lr_gen != h.lh_gen || r.lr_lsn != h.lh_start) return false;
    Buf b;
    const bool ok = read_record(fd, h.lh_gen, h.lh_start, h.lh_start, b) != 0;
    std::free(b.p);
    return ok;
}

// Whether a header copy of the log on fd, whole by its checksum and of a newer version,
// names the file of device dev and inode ino.  Every version keeps the header's magic,
// version, identity (device, inode, path) and checksum where they are, so that an older
// library can tell whose calls a newer log holds.
bool newer_names(int fd, uint64_t dev, uint64_t ino) noexcept {
    lg_head h[2];
    const ssize_t n = kisam::os_pread_full(fd, h, sizeof h, 0);
    for (int i = 0; i < 2 && n >= static_cast<ssize_t>((i + 1) * sizeof(lg_head)); ++i)
        if (h[i].lh_magic == kHeadMagic && h[i].lh_version > kVersion &&
            h[i].lh_sum == checksum(&h[i], offsetof(lg_head, lh_sum)) && h[i].lh_dev == dev && h[i].lh_ino == ino)
            return true;
    return false;
}

// Calls fn(slot, fd) for every log file of the installation (fd closed afterwards).
template <class Fn>
void each_log(Fn fn) noexcept {
    is_each_beside(lbase, ".w", BU_FILEMASK, [](int slot, void* arg) {
        char name[PATH_MAX + 16];
        log_name(name, sizeof name, slot);
        const int fd = is_open_beside(lbase, name, O_RDWR);
        if (fd < 0) return;
        (*static_cast<Fn*>(arg))(slot, fd);
        kisam::os_close(fd);
    }, &fn);
}

}  // namespace

int lg_prepare(int u, uint64_t dev, uint64_t ino) noexcept {
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    lg_head h;
    bool newer = false;
    // What the slot's previous file left in its log goes into that file first.  A log
    // written by a newer version of the library is neither read nor overwritten.
    const bool valid = read_head(fd, &h, &newer);
    if (newer || (valid && replay(fd, h, nullptr) != 0)) return fail(ISE_FLWT, 0x27);
    // A log that a last close could not bring into its file may hold calls of this one.
    if (isx_area->xh_leftover) {
        bool any = false, failed = false;
        each_log([&](int k, int lfd) {
            lg_head o;
            bool newer = false;
            if (k == u) return;
            const bool valid = read_head(lfd, &o, &newer);
            if (newer) {
                // A newer version's log stays a leftover until that version replays it;
                // one that names this file may hold calls the file lacks, so the file
                // does not open without them, in whichever slot it lands.
                any = true;
                if (newer_names(lfd, dev, ino)) failed = true;
                return;
            }
            if (!valid || !has_records(lfd, o)) return;
            any = true;
            if (o.lh_dev != dev || o.lh_ino != ino) return;
            if (replay(lfd, o, nullptr) != 0) failed = true;
        });
        if (failed) return fail(ISE_FLWT, 0x27);
        if (!any) isx_area->xh_leftover = 0;
    }
    return 0;
}

namespace {
bool recovered_here = false;
kisam_recovery recovered{};  // what this process replayed, kept past its detach
}  // namespace

void lg_recover_all(void) noexcept {
    recovered_here = false;  // of this segment only: an earlier one may have been ours
    if (lbase[0] == '\0') return;
    kisam::ErrorKeep keep;
    struct timespec t0, t1;
    ::clock_gettime(CLOCK_MONOTONIC, &t0);
    Replayed r;
    uint32_t logs = 0;
    bool left = false;
    each_log([&](int, int fd) {
        lg_head h;
        bool newer = false;
        const bool valid = read_head(fd, &h, &newer);
        if (newer) left = true;  // not ours to replay: whoever opens its slot is refused
        if (newer || !valid || !has_records(fd, h)) return;
        if (replay(fd, h, &r) == 0)
            ++logs;
        else
            left = true;
    });
    if (!isx_area) return;
    if (left) isx_area->xh_leftover = 1;
    if (logs == 0) return;
    ::clock_gettime(CLOCK_MONOTONIC, &t1);
    recovered_here = true;
    recovered.logs = logs;
    recovered.calls = r.units;
    recovered.pages = r.pages;
    recovered.usec = (t1.tv_sec - t0.tv_sec) * 1000000 + (t1.tv_nsec - t0.tv_nsec) / 1000;
    recovered.when = static_cast<long>(::time(nullptr));
    recovered.self = 1;
    isx_area->xh_rec_logs = logs;
    isx_area->xh_rec_units = r.units;
    isx_area->xh_rec_pages = r.pages;
    isx_area->xh_rec_time = static_cast<uint32_t>(::time(nullptr));
    isx_area->xh_rec_usec = static_cast<uint32_t>((t1.tv_sec - t0.tv_sec) * 1000000 + (t1.tv_nsec - t0.tv_nsec) / 1000);
}

int lg_pending(uint64_t dev, uint64_t ino) noexcept {
    if (lbase[0] == '\0') return 0;
    int found = 0;
    each_log([&](int, int fd) {
        lg_head h;
        bool newer = false;
        if (found == 2) return;
        if (read_head(fd, &h, &newer) && h.lh_dev == dev && h.lh_ino == ino && has_records(fd, h)) found = 1;
        // A newer version's records cannot be read here, nor whether any is left: a log
        // of such a version that names the file may hold calls the file lacks.
        else if (newer && newer_names(fd, dev, ino)) found = 2;
    });
    return found;
}

extern "C" KISAM_API int kisam_last_recovery(struct kisam_recovery* out) {
    if (!out) return -1;
    std::memset(out, 0, sizeof *out);
    if (!isam_com || !isx_area) {
        // Detached: what this process replayed itself, if anything.
        if (!recovered_here) return -1;
        *out = recovered;
        return 0;
    }
    out->logs = isx_area->xh_rec_logs;
    out->calls = isx_area->xh_rec_units;
    out->pages = isx_area->xh_rec_pages;
    out->usec = isx_area->xh_rec_usec;
    out->when = isx_area->xh_rec_time;
    out->self = recovered_here ? 1 : 0;
    return 0;
}
