// Processes that died while attached: telling them from live ones, and cleaning up what
// they held in the common area.
//
// Every attached process holds, for as long as it is attached, a write lock on one byte
// of the lock file at the offset of its process-table entry (the process table is no
// lock word, so nothing else locks there).  The kernel drops that lock with the process,
// so a slot whose byte nobody holds belongs to a process that is gone -- a test that a
// reused process id cannot fool.  (A process between claiming its slot and taking the
// lock, or attached by a tool that takes none, is judged by whether its pid exists.)
//
// Cleaning a dead process's slot, in this order: its journal's unit is rolled back (the
// file's control lock is taken over for that); under opcl_lock, for each file in its
// open set, its record locks go and the file's count of processes is recounted from the
// open sets of the processes still attached (so that a process killed half way through
// an open or a close leaves no count wrong); a file that nobody has open any more is
// released as the last close would; finally the slot is freed.  Control locks are only
// tried, never waited for: a file whose lock another process holds is cleaned later.
// Reads and writes: the process table, the waiting table, isx_area (open sets, process
// records, statistics), pfo_tbl, the files' record-lock chains and use counts.
#include "is_common.h"
#include "is_error.h"
#include "is_file.h"
#include "is_heap.h"
#include "is_live.h"
#include "is_lock.h"
#include "isx_area.h"
#include "jn.h"
#include "lg.h"
#include "os.h"
#include "test_hook.h"
#include "v_pool.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <signal.h>

namespace {

inline bool bit(const uint8_t* set, int u) { return (set[u >> 3] >> (u & 7)) & 1; }
inline void set_bit(uint8_t* set, int u, bool on) {
    std::atomic_ref<uint8_t> b(set[u >> 3]);
    if (on)
        b.fetch_or(static_cast<uint8_t>(1u << (u & 7)));
    else
        b.fetch_and(static_cast<uint8_t>(~(1u << (u & 7))));
}

// A control word taken, waiting for it or not; `took` says whether it must be given back.
struct TryWord {
    unsigned* word;
    bool ok = false;
    bool took = false;
    TryWord(unsigned* w, bool wait) : word(w) {
        if (is_lock_mine(w)) {
            ok = true;  // already this process's (an application's bracket)
            return;
        }
        unsigned prev = 0;
        if (wait) {
            if (is_lock(w) != 0) return;
            prev = is_lock_stale ? is_lock_stale_pid : 0;
        } else {
            uint32_t dead = 0;
            if (is_lock_try(w, &dead) != 0) return;
            prev = dead;
        }
        ok = took = true;
        if (prev != 0) {
            IS_FCP* fcp = reinterpret_cast<IS_FCP*>(reinterpret_cast<char*>(w) - offsetof(IS_FCP, jd_fcplock));
            jn_note_stale(fcp, prev);
            v_stale_fcplock(fcp);
        }
    }
    ~TryWord() {
        if (took) is_unlock(word);
    }
    TryWord(const TryWord&) = delete;
    TryWord& operator=(const TryWord&) = delete;
};

// Removes the record locks that pid left on fcp's chain (their ranges must be free:
// a live process that reuses the pid holds its own).  Requires fcp's control lock.
void drop_dead_locks(IS_FCP* fcp, uint32_t pid) noexcept {
    RELt* link = &fcp->jd_lock_hd;
    int steps = 0;
    while (*link != KISAM_NOREL && steps++ < 1 << 20) {
        IS_RC* e = kisam::rel_ptr<IS_RC>(*link);
        if (e->rc_lock != pid) {
            link = &e->rc_next;
            continue;
        }
        const unsigned long o = kisam::com_offset(&e->rc_next);
        if (is_lockitnw(o) != 0) {
            link = &e->rc_next;
            continue;
        }
        is_unlockit(o);
        uint32_t cur = isam_com->curusrlocks;
        if (cur > 0) isam_com->curusrlocks = cur - 1;
        if (e->rc_waitcount == 0) {
            *link = e->rc_next;
            freencom(reinterpret_cast<char*>(e), static_cast<unsigned>(e->rc_len) + 16u);
        } else {
            e->rc_lock = 0;
            link = &e->rc_next;
        }
    }
}

// Processes still attached that have file u open, not counting slot `skip`.
int16_t holders(int u, int skip) noexcept {
    int16_t n = 0;
    for (int j = 0; j < isam_com->maxusers; ++j) {
        if (j == skip || is_env.pid_[j] == 0) continue;
        if (bit(kisam::isx_open_set(j), u)) ++n;
    }
    return n;
}

// Nobody has file u open any more: release its shared copy as the last close does.
// Requires opcl_lock and u's control lock.  False when pages or the control page are
// still due to be written (nobody has a descriptor to write them with): the copy stays,
// with no process counted, and the next open of the file finds it again.
bool release_file(IS_FCP* fcp, int u) noexcept {
    {
        // What the file's log holds goes into the file first, through the path it was
        // opened by.
        kisam::ErrorKeep keep;
        if (lg_checkpoint(fcp, u, lg_wfd(u)) != 0) return false;
    }
    if (fcp->is_optbits & ISO_CHANGED) return false;
    if (!v_giveback(fcp, u)) return false;
    // Every call on it is whole (the dead process's was rolled back): the file is sound,
    // and its mark goes as a last close would take it away.
    if ((fcp->is_optbits & (ISO_DIRTYMARK | ISO_SEQ)) == ISO_DIRTYMARK) jn_clear_mark(kisam::isx_path(u), fcp);
    RELt rel = fcp->jd_lock_hd;
    fcp->jd_lock_hd = KISAM_NOREL;
    for (int steps = 0; rel != KISAM_NOREL && steps < 1 << 20; ++steps) {
        IS_RC* rc = kisam::rel_ptr<IS_RC>(rel);
        const RELt next = rc->rc_next;
        freencom(reinterpret_cast<char*>(rc), static_cast<unsigned>(rc->rc_len) + 16u);
        rel = next;
    }
    return true;
}

}  // namespace

void is_open_note(int u, bool open) noexcept {
    if (!isx_area || u < 0 || u >= isam_com->maxopen) return;
    set_bit(kisam::isx_open_set(is_env.useridx), u, open);
}

int is_reap_slot(int i, bool wait) noexcept {
    // The process judged dead is the one whose pid was read before the judgement and is
    // still there after it.  Read after, the pid may already be that of a live process
    // that claimed the slot once another clean-up freed it -- which the check under
    // opcl_lock below would then take for the dead one and clean up alive.
    const int32_t pid = std::atomic_ref<int32_t>(is_env.pid_[i]).load();
    if (pid <= 0 || !is_slot_dead(i)) return 0;
    if (kisam::test_hook) kisam::test_hook(kisam::kHookReap, i);
    if (std::atomic_ref<int32_t>(is_env.pid_[i]).load() != pid) return 0;
    // A unit the process was making is rolled back before anything else of it goes.
    if (jn_clear_slot(i, wait) != 0) return -1;
    if (is_lock(&isam_com->opcl_lock) != 0) return -1;
    if (is_env.pid_[i] != pid) {  // cleaned by somebody else meanwhile
        is_unlock(&isam_com->opcl_lock);
        return 0;
    }
    uint8_t* set = kisam::isx_open_set(i);
    const int maxopen = isam_com->maxopen;
    for (int u = 0; u < maxopen; ++u) {
        if (!bit(set, u)) continue;
        IS_FCP* fcp = kisam::pfo_fcp(u);
        if (!fcp) {
            set_bit(set, u, false);
            continue;
        }
        TryWord w(&fcp->jd_fcplock, wait);
        if (!w.ok) {
            // Another process holds the file: the rest is done at a later look.
            is_unlock(&isam_com->opcl_lock);
            return -1;
        }
        drop_dead_locks(fcp, static_cast<uint32_t>(pid));
        fcp->is_usecnt = holders(u, i);
        if (fcp->is_usecnt == 0 && w.took &&
            release_file(fcp, u)) {
            w.took = false;
            is_unlock(&fcp->jd_fcplock);
            is_env.pfo_tbl[u] = -1;
            freencom(reinterpret_cast<char*>(fcp), IS_FCP_SIZE(fcp->is_nkeys));
        }
        // Only now does the dead process leave the file's open set: a cleaner killed
        // while it finishes the last close (in the middle of its checkpoint, say) leaves
        // the dead process there, and the next clean-up finishes the close.  Out of the
        // set any earlier, the file would be left with no process counted and no
        // clean-up to visit it, its log unapplied when the last process leaves.
        set_bit(set, u, false);
    }
    isx_proc* p = kisam::isx_proc_of(i);
    p->xp_flags = 0;
    p->xp_pid = 0;
    is_env.needs_[i] = 0;
    std::atomic_ref<int32_t>(is_env.pid_[i]).store(0);
    const uint32_t k = std::atomic_ref<uint32_t>(isx_area->xh_cleaned).fetch_add(1);
    isx_reaped* r = kisam::isx_reaped_at(static_cast<int>(k % ISX_NREAPED));
    r->xr_pid = pid;
    r->xr_time = static_cast<uint32_t>(::time(nullptr));
    is_unlock(&isam_com->opcl_lock);
    return 1;
}

int is_reap_dead(int* pids, int maxpids) noexcept {
    if (!isam_com || !isx_area) return 0;
    int n = 0;
    for (int i = 0; i < isam_com->maxusers; ++i) {
        const int32_t pid = is_env.pid_[i];
        if (is_reap_slot(i, false) == 1) {
            if (pids && n < maxpids) pids[n] = pid;
            ++n;
        }
    }
    return n;
}

int is_reap_holders(int u) noexcept {
    if (!isam_com || !isx_area || u < 0 || u >= isam_com->maxopen) return 0;
    int n = 0;
    for (int i = 0; i < isam_com->maxusers; ++i) {
        if (is_env.pid_[i] == 0 || !bit(kisam::isx_open_set(i), u)) continue;
        if (is_reap_slot(i, false) == 1) ++n;
    }
    return n;
}

extern "C" {

KISAM_API int kisam_reap(int* pids, int maxpids) {
    if (!isam_com) return 0;
    return is_reap_dead(pids, maxpids < 0 ? 0 : maxpids);
}

KISAM_API int kisam_recovery_stats(unsigned* cleaned, unsigned* rolledback, int* recent, int maxrecent) {
    if (!isam_com || !isx_area) return -1;
    const uint32_t n = std::atomic_ref<uint32_t>(isx_area->xh_cleaned).load();
    if (cleaned) *cleaned = n;
    if (rolledback) *rolledback = std::atomic_ref<uint32_t>(isx_area->xh_rolledback).load();
    int got = 0;
    // Newest first.
    for (uint32_t k = 0; recent && got < maxrecent && k < n && k < static_cast<uint32_t>(ISX_NREAPED); ++k)
        recent[got++] = kisam::isx_reaped_at(static_cast<int>((n - 1 - k) % ISX_NREAPED))->xr_pid;
    return got;
}

}  // extern "C"
