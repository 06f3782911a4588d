// Checkpoints: every committed page of a file written back, then the log's next
// generation begun where the old one ended; and the takeover of a generation that a dead
// checkpointer began.
#include "lg_internal.h"

#include "fcp.h"
#include "os.h"
#include "v_pool.h"

#include <cstring>

using namespace kisam::lg;

namespace {

int checkpoint(IS_FCP* fcp, int u, int fd) noexcept {
    isx_file* x = xfile(u);
    const uint64_t end = at(x->xf_log_end).load(std::memory_order_relaxed);
    const uint64_t start = at(x->xf_log_start).load(std::memory_order_relaxed);
    // Nothing since the last one -- unless the log was cut short, which may have taken its
    // header: the records that follow need one.
    bool cut = at32(x->xf_log_cut).load(std::memory_order_acquire) != 0;
    // A sync of the file failed since the generation began: the pages written before it
    // (by checkpoints and victims, none of which are dirty in the pool any more) may be
    // missing from the file although a sync now would succeed.
    const bool lost = sync_failed(u).load(std::memory_order_acquire) & ISX_FAILED_FILE;
    if (end == start && !(fcp->is_optbits & ISO_CHANGED) && !cut && !lost) return 0;
    if (fd < 0) return fail(ISE_FLWT, 0x2A);
    // A call whose rollback is still due left pages in the pool that it never committed:
    // none may reach the file (rule 2), so the file waits for the rollback (or for the
    // replay of its log) to be brought up to date.
    if (x->xf_undo != 0) return fail(ISE_FLWT, 0x2A);
    // A log cut short no longer holds its records, and no sync makes it hold them again
    // (every sync fails while the cut is known): the pages of the pool going into the
    // file is what brings them back.  A cut that no store met is looked for first: the
    // sync would succeed over it.
    if (!cut && end != start) {
        const int lfd = log_fd(u);
        cut = lfd >= 0 && log_short(u, lfd, x->xf_log_gen, start, end);
    }
    if (!cut && lg_sync_to(u, end) != 0) return -1;
    if (lost) {
        // A log cut short as well holds none of what the file lost: the pool does, in
        // slots the write-back passes over (they went out clean before the sync failed).
        // The log is made to hold the pool first (lg_relog, by lg_checkpoint), so that
        // the next checkpoint writes them from there.
        if (cut) return fail(ISE_FLWT, 0x2A);
        // Every page the generation's records hold goes to the file again, as the log
        // leaves it: the last committed content of each, which is what the pool holds of
        // it too, so no reader ever finds a page older than the one it replaces (and the
        // change count is odd meanwhile, as for any write-back).  The dirty pages follow,
        // the same again or newer.
        v_changing(fcp, u);
        const int lfd = log_fd(u);
        if (lfd < 0) return fail(ISE_OPENF, 0x26);
        if (write_logged(lfd, x->xf_log_gen, start, end, fd, nullptr) != 0) return fail(ISE_FLWT, 0x2A);
    }
    if (v_write_back(fcp, u, fd) != 0) return -1;
    if (!(fcp->is_optbits & ISO_SEQ)) {
        unsigned char img[kisam::kFcpImage];
        kisam::fcp_image(fcp, img);
        if (kisam::os_pwrite_full(fd, img, sizeof img, 0) != 0) {
            fcp->is_optbits |= ISO_CHANGED;
            return fail(ISE_FLFCP, 0x2A);
        }
    }
    if (kisam::os_fdatasync(fd) != 0) {
        // The kernel says so once: from now on the file may lack what was written since
        // the generation began, and only the log still has it.
        sync_failed(u).fetch_or(ISX_FAILED_FILE, std::memory_order_acq_rel);
        return fail(ISE_FLWT, 0x2A);
    }
    // Everything up to `end` is on disk in the file itself, whatever an earlier sync lost.
    sync_failed(u).fetch_and(~ISX_FAILED_FILE, std::memory_order_acq_rel);
    const int lfd = log_fd(u);
    if (lfd < 0) return fail(ISE_OPENF, 0x26);
    lg_head h;
    std::memset(&h, 0, sizeof h);
    h.lh_gen = x->xf_log_gen + 1;
    h.lh_start = end;
    h.lh_dev = fcp->jd_dev;
    h.lh_ino = fcp->jd_ino;
    std::snprintf(h.lh_path, sizeof h.lh_path, "%s", kisam::isx_path(u));
    if (write_head(lfd, &h, true) != 0) {
        // The header may be in the log all the same (its sync failed, not its write):
        // the records that follow must then carry its generation, or a replay would stop
        // before them.  The file holds everything up to `end`, so either is right for it.
        lg_head now;
        if (read_head(lfd, &now) && now.lh_gen == h.lh_gen) {
            x->xf_log_gen = h.lh_gen;
            at(x->xf_log_start).store(end);
        }
        // A header whose sync failed may be dropped from the cache: the log's next sync
        // writes it again first (or fails when it is gone).
        log_sync_failed(u);
        return fail(ISE_FLWT, 0x2A);
    }
    x->xf_log_gen = h.lh_gen;
    at(x->xf_log_start).store(end);
    at32(x->xf_log_cut).store(0, std::memory_order_release);
    return 0;
}

}  // namespace

int lg_checkpoint(IS_FCP* fcp, int u, int fd) noexcept {
    if (checkpoint(fcp, u, fd) == 0) return 0;
    // The file could not be brought up to date, and the log, cut short, cannot stand in
    // for it (a last close now would leave the replay a log that ends at the cut, over a
    // file that may have lost what the pool held): the log is made to hold the pool.  Not
    // while a rollback is due: the pool then holds pages no call committed.  Nor inside a
    // call (the clear of the data-changed mark at its release): its unit notes where the
    // records it appends end, and it has one already; the file's next call, or its last
    // close, makes the log hold the pool instead.
    if (at32(xfile(u)->xf_log_cut).load(std::memory_order_acquire) != 0 && xfile(u)->xf_undo == 0 &&
        !jn_active()) {
        kisam::ErrorKeep keep;  // the checkpoint's failure is what the caller learns
        lg_relog(fcp, u);
    }
    return -1;
}

int lg_maybe_checkpoint(IS_FCP* fcp, int u) noexcept {
    isx_file* x = xfile(u);
    // A log cut short from outside no longer holds every call since the last checkpoint:
    // the file is brought up to date before the next call adds to it.  So is a file whose
    // sync failed, before the call reads a page the file may have lost.
    if (at(x->xf_log_end).load(std::memory_order_relaxed) - at(x->xf_log_start).load(std::memory_order_relaxed) <
            limit_of(fcp) &&
        at32(x->xf_log_cut).load(std::memory_order_relaxed) == 0 &&
        !(sync_failed(u).load(std::memory_order_relaxed) & ISX_FAILED_FILE))
        return 0;
    return lg_checkpoint(fcp, u, lg_wfd(u));
}

void lg_file_sync_failed(int u) noexcept {
    if (!isx_area || u < 0 || u >= isam_com->maxopen) return;
    sync_failed(u).fetch_or(ISX_FAILED_FILE, std::memory_order_acq_rel);
}

void lg_stale(int u) noexcept {
    if (!isx_area || u < 0 || u >= isam_com->maxopen) return;
    kisam::ErrorKeep keep;
    isx_file* x = xfile(u);
    const int fd = log_fd(u);
    lg_head h;
    if (fd < 0 || !read_head(fd, &h)) return;
    // The file holds every call up to the new generation's start (it was synced before
    // the header was written), so the log may as well begin there.
    const uint64_t end = at(x->xf_log_end).load(std::memory_order_relaxed);
    if (h.lh_gen == x->xf_log_gen + 1 && h.lh_start == end) {
        x->xf_log_gen = h.lh_gen;
        at(x->xf_log_start).store(end);
    }
}
