// Rolling a unit back (jn.h rules 2 to 4): the call of this process that failed
// (jn_abort), or the unit of a process that died, found by whoever takes the file's
// control word over (jn_note_stale) and undone by the next taker of the control lock
// (jn_settle) or when the dead process's slot is reclaimed (jn_clear_slot).
#include "jn.h"
#include "jn_internal.h"

#include "lg.h"

#include "is_error.h"
#include "is_lock.h"
#include "os.h"
#include "v_pool.h"

#include <atomic>
#include <cstddef>
#include <cstring>

namespace kisam::journal {

bool committed(const jn_head* h, int u) noexcept {
    return h->jh_commit != 0 && isx_area &&
           std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load(std::memory_order_acquire) == h->jh_commit;
}

namespace {

// Full rollback of m's unit on the shared file fcp (slot u), whose control lock the
// caller holds.  None of the unit's pages reached the file (lg.h rule 2): their copies in
// the pool get their before-images back, the pages past the old end are dropped, and the
// shared control page is restored.  A record the unit may have left in the log past the
// log's end is made invalid first.  0, or -1 (error raised).
int undo_shared(const Map& m, IS_FCP* fcp, int u) noexcept {
    jn_head* h = m.h;
    // First of all: nothing of the unit may be committed by a release that follows a
    // rollback cut short.
    v_unit_forget(u);
    if (h->jh_commit != 0 && lg_undo_tail(u, h->jh_commit) != 0) return -1;
    v_changing(fcp, u);

    // The shared control page as it was, but for the count of processes: no unit changes
    // it, and opens and closes change it under opcl_lock alone while this runs under the
    // control lock, so its bytes are never written here -- saved and put back around the
    // copy, an open or a close made meanwhile would be undone, and a count one too low
    // frees the shared copy under a process that still has the file open.
    const uint32_t len = h->jh_fcplen <= kisam::kFcpImage ? h->jh_fcplen : 0;
    if (len == static_cast<uint32_t>(IS_FCP_SIZE(fcp->is_nkeys) - IS_FCP_JDSIZE)) {
        constexpr size_t at = offsetof(IS_FCP, is_usecnt) - offsetof(IS_FCP, is_magic);
        constexpr size_t after = at + sizeof fcp->is_usecnt;
        char* img = reinterpret_cast<char*>(&fcp->is_magic);
        const char* was = reinterpret_cast<const char*>(h->jh_fcp);
        std::memcpy(img, was, at);
        std::memcpy(img + after, was + after, len - after);
    }

    int bad = 0;
    const uint32_t n = valid_images(m);
    for (uint32_t i = 0; i < n; ++i) {
        const jn_image& im = images(h)[i];
        if (v_restore(fcp, u, im.ji_pno, &im.ji_data)) continue;
        // Not in the pool (a slot fixed by the unit is never a victim, so this is only
        // ever a page the unit saved but did not change): the file gets the before-image,
        // once the log that covers it is on disk.
        const int fd = lg_wfd(u);
        const off_t off = v_fileoffset(fcp, im.ji_pno);
        if (fd < 0 || off < 0 ||
            lg_sync_to(u, std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load()) != 0 ||
            kisam::os_pwrite_full(fd, im.ji_data.c, kisam::kPage, off) != 0) {
            if (bad++ == 0) fail(5);
        }
    }
    // Pages the unit added lie past the old end: nothing refers to them any more.
    v_discard(fcp, u, nullptr, 0, fcp->is_lastpage);
    // Pages the unit let go of are in the log as it left them, in a record that leaves
    // it open: a record with the pages as they are again closes it.
    if (h->jh_stole && bad == 0) {
        // Read straight from the journal's images: a rollback runs inside the call's
        // frame, where a signal handler's jump out of the allocator would damage the heap.
        const lg_page_at image_at = [](const void* ctx, int i, PAGE* pno, const IS_DATA** data) {
            const jn_image& im = images(const_cast<jn_head*>(static_cast<const jn_head*>(ctx)))[i];
            *pno = im.ji_pno;
            *data = &im.ji_data;
        };
        if (lg_compensate(fcp, u, static_cast<int>(n), image_at, h) != 0) bad = 1;
        else h->jh_stole = 0;
    }
    if (isx_area) std::atomic_ref<uint32_t>(isx_area->xh_rolledback).fetch_add(1);
    return bad ? -1 : 0;
}

// Shared-file slot of fcp, or -1.
int slot_of(const IS_FCP* fcp) {
    const int32_t rel = static_cast<int32_t>(kisam::rel_of(fcp));
    for (int u = 0; u < isam_com->maxopen; ++u)
        if (is_env.pfo_tbl[u] == rel) return u;
    return -1;
}

}  // namespace
}  // namespace kisam::journal

using namespace kisam::journal;

void jn_abort(void) noexcept {
    if (!own.active) return;
    kisam::ErrorKeep keep;
    jn_head* h = own.m.h;
    const int u = own.u;
    // A call that failed after its commit point (the sync that clears the data-changed
    // mark, say) is whole: there is nothing to undo.
    if (committed(h, u)) {
        state_of(h).store(JN_IDLE, std::memory_order_release);
        own.active = false;
        return;
    }
    // The rollback is named before the unit stops being this process's running one: a
    // signal handler that leaves this very rollback part way (the next call runs it
    // again first) must not lose it in between.
    if (isx_area) xfile(u)->xf_undo = static_cast<uint32_t>(own.slot + 1);
    state_of(h).store(JN_UNDO, std::memory_order_release);
    own.active = false;
    if (undo_shared(own.m, own.fcp, u) == 0) {
        state_of(h).store(JN_IDLE, std::memory_order_release);
        if (isx_area) xfile(u)->xf_undo = 0;
    }
}

void jn_note_stale(IS_FCP* fcp, uint32_t pid) noexcept {
    if (!isam_com || !isx_area || !fcp || pid == 0) return;
    const int u = slot_of(fcp);
    if (u < 0) return;
    lg_stale(u);  // a checkpoint the dead holder was making
    if (xfile(u)->xf_undo != 0) return;
    // A journal that holds a unit of this file belongs to a process that died: a live
    // one would hold the word now being taken over.  It need not be the dead holder's
    // own: a process that took the word over from it may have died before noting it.
    // So every slot's journal is looked at (this happens only after a death).
    for (int i = 0; i < isam_com->maxusers; ++i) {
        if (i == own.slot && own.pid == is_pid) continue;
        Map m;
        if (!open_other(i, m)) continue;
        const jn_head* h = m.h;
        const bool holds = state_of(m.h).load(std::memory_order_acquire) != JN_IDLE && h->jh_file == u &&
                           h->jh_dev == fcp->jd_dev && h->jh_ino == fcp->jd_ino;
        unmap(m);
        if (holds) {
            xfile(u)->xf_undo = static_cast<uint32_t>(i + 1);
            return;
        }
    }
}

int jn_settle(IS_FCP* fcp, int u) noexcept {
    if (!isx_area || u < 0) return 0;
    const uint32_t x = xfile(u)->xf_undo;
    if (x == 0) return 0;
    const int i = static_cast<int>(x) - 1;
    Map other;
    const bool mine = i == own.slot && own.pid == is_pid && own.m.h;
    if (!mine && !open_other(i, other)) {
        xfile(u)->xf_undo = 0;  // no journal there: nothing can be rolled back
        return 0;
    }
    const Map& m = mine ? own.m : other;
    jn_head* h = m.h;
    if (state_of(h).load(std::memory_order_acquire) == JN_IDLE || h->jh_file != u ||
        h->jh_dev != fcp->jd_dev || h->jh_ino != fcp->jd_ino) {
        xfile(u)->xf_undo = 0;
        unmap(other);
        return 0;
    }
    // A unit that died after its commit point is whole.
    const int rc = committed(h, u) ? 0 : (state_of(h).store(JN_UNDO, std::memory_order_release), undo_shared(m, fcp, u));
    if (rc == 0) {
        state_of(h).store(JN_IDLE, std::memory_order_release);
        xfile(u)->xf_undo = 0;
    }
    unmap(other);
    return rc;
}

int jn_clear_slot(int i, bool wait) noexcept {
    if (!isam_com) return 0;
    Map m;
    if (!open_other(i, m)) return 0;
    jn_head* h = m.h;
    int rc = 0;
    if (state_of(h).load(std::memory_order_acquire) != JN_IDLE) {
        const int u = h->jh_file;
        IS_FCP* fcp = u >= 0 && u < isam_com->maxopen ? kisam::pfo_fcp(u) : nullptr;
        if (fcp && (fcp->jd_dev != h->jh_dev || fcp->jd_ino != h->jh_ino)) fcp = nullptr;
        if (fcp) {
            // The unit's file is shared: roll back under its control lock, which is only
            // tried -- a live holder has taken the dead one's word over and settles the
            // unit itself.
            unsigned* w = &fcp->jd_fcplock;
            const bool mine = is_lock_mine(w);
            if (!mine) {
                unsigned prev = 0;
                if (wait) {
                    if (is_lock(w) != 0) {
                        unmap(m);
                        return -1;
                    }
                    prev = is_lock_stale ? is_lock_stale_pid : 0;
                } else {
                    uint32_t dead = 0;
                    if (is_lock_try(w, &dead) != 0) {
                        unmap(m);
                        return -1;
                    }
                    prev = dead;
                }
                if (prev != 0) {
                    jn_note_stale(fcp, prev);
                    if (state_of(h).load(std::memory_order_acquire) != JN_IDLE && isx_area &&
                        xfile(u)->xf_undo == 0)
                        xfile(u)->xf_undo = static_cast<uint32_t>(i + 1);
                    v_stale_fcplock(fcp);
                }
            }
            if (state_of(h).load(std::memory_order_acquire) != JN_IDLE && isx_area &&
                xfile(u)->xf_undo == 0)
                xfile(u)->xf_undo = static_cast<uint32_t>(i + 1);
            rc = jn_settle(fcp, u);
            if (!mine) is_unlock(w);
        } else {
            // Open nowhere: none of the unit reached the file (lg.h rule 2), and the pool
            // that held it is gone.
            state_of(h).store(JN_IDLE, std::memory_order_release);
        }
    }
    if (state_of(h).load(std::memory_order_acquire) != JN_IDLE) rc = -1;
    unmap(m);
    return rc;
}
