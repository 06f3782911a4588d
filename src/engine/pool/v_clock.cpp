// Victims (v_internal.h rule 5) and the miss that needs one.  A use sets the slot's
// reference byte; a file at its quota turns its own hand along its chain, the steal scan
// turns one hand over all slots, and each passes over a slot whose byte it clears.  The
// steal scan takes buf_lock and only tries another file's control lock, and it takes over
// the control words of holders that died before it waits for a slot.
#include "v_pool.h"
#include "v_internal.h"

#include "is_error.h"
#include "is_lock.h"
#include "jn.h"
#include "lg.h"

#include <kisam/ztsupport.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace kisam::pool {

// Own-quota victim of the current file u (rule 5): u's hand turns along its chain from
// where it stopped last.  -1 when no slot qualifies: every one is fixed or, for a read-only
// opener, dirty.  Two turns at most: the first clears the reference bytes it passes.
int own_victim(IS_FCP* fcp, int u, bool rdonly) noexcept {
    isx_file* f = xfile(u);
    int h = f->xf_hand;
    if (!valid_slot(h) || file_of(slot(h)) != u) h = fcp->jd_buf_hd;
    if (!valid_slot(h)) return -1;
    const int nb = isam_com->maxbufs;
    const long len = f->xf_chainlen < 1 ? 1 : f->xf_chainlen > static_cast<uint32_t>(nb) ? nb : f->xf_chainlen;
    int victim = -1;
    for (long step = 0; step < 2 * len + 1; ++step) {
        const int s = h;
        const IS_BUF* b = slot(s);
        h = b->bu_next;
        if (!valid_slot(h)) h = fcp->jd_buf_hd;
        const uint16_t id = b->bu_id;
        if ((id & BU_INUSE) || (rdonly && (id & BU_DIRTY))) continue;
        if (chg_in[s] && !take_own) continue;
        // A page changed by a call whose rollback is still due must not reach the file.
        if ((id & BU_DIRTY) && f->xf_undo != 0) continue;
        if (ref_take(s)) continue;
        victim = s;
        break;
    }
    f->xf_hand = static_cast<int16_t>(h);
    return victim;
}

namespace {

// Takes over, without waiting, the control word of every open file whose holder died,
// clears the fixes it left, and gives the word up again.  True when one was found.
// Requires buf_lock (the words are only tried, so the lock order is kept).
bool reap_dead_holders() noexcept {
    bool found = false;
    for (int u = 0; u < isam_com->maxopen; ++u) {
        IS_FCP* f = pfo_fcp(u);
        if (!f) continue;
        const unsigned w = f->jd_fcplock;
        if (w == 0 || is_lock_mine(&f->jd_fcplock)) continue;
        uint32_t dead = 0;
        if (is_lock_try(&f->jd_fcplock, &dead) != 0) continue;  // a live holder
        // The word is cleared before the lock is given up, so a word still set once the
        // lock is ours names a holder that died.
        if (dead == 0) {
            is_unlock(&f->jd_fcplock);
            continue;
        }
        // The call it was making is rolled back by the file's next user (noted first: a
        // death of this process meanwhile must not lose it).
        jn_note_stale(f, dead);
        v_stale_fcplock(f);
        is_unlock(&f->jd_fcplock);
        found = true;
    }
    return found;
}

// True when every slot is fixed and each belongs to a file whose control lock this
// process holds.  Requires buf_lock.
bool fixed_by_us_only() noexcept {
    for (int i = 0; i < isam_com->maxbufs; ++i) {
        const IS_BUF* b = slot(i);
        if (!(b->bu_id & BU_INUSE)) return false;
        const int w = b->bu_id & BU_FILEMASK;
        const IS_FCP* f = w < isam_com->maxopen ? pfo_fcp(w) : nullptr;
        if (!f || !is_lock_mine(&f->jd_fcplock)) return false;
    }
    return true;
}


// A slot that the steal scan may take as it stands: unfixed, of an open file, and, when
// dirty, of a file this process can write.
inline bool stealable(uint16_t id, int w) noexcept {
    if (id & BU_INUSE) return false;
    if (w >= isam_com->maxopen || !pfo_fcp(w)) return false;
    if (!(id & BU_DIRTY)) return true;
    // A dirty page of a call whose rollback is still due must not reach the file.
    return xfile(w)->xf_undo == 0 && lg_wfd(w) >= 0;
}

// The steal scan (rule 5): the hand over all slots turns from where it stopped last.  A
// slot whose owner's control lock this process does not hold is taken only when that
// lock can be had without waiting; the lock is then this process's (*took) until the
// slot has moved.  -1 when no slot qualifies within two turns.  Requires buf_lock.
int steal_victim(bool hb, bool* took) noexcept {
    const int nb = isam_com->maxbufs;
    *took = false;
    if (hb && ++bk.scan_no == 0) {
        std::memset(bk.refused, 0, (bk.nopen + 1) * sizeof(uint32_t));
        bk.scan_no = 1;
    }
    uint32_t h = isx_area->xh_steal_hand;
    if (h >= static_cast<uint32_t>(nb)) h = 0;
    int victim = -1;
    for (long step = 0; step < 2L * nb + 1 && victim < 0; ++step) {
        const int i = static_cast<int>(h);
        h = h + 1 == static_cast<uint32_t>(nb) ? 0 : h + 1;
        IS_BUF* b = slot(i);
        const uint16_t id = b->bu_id;
        const int w = id & BU_FILEMASK;
        if (!stealable(id, w)) continue;
        if (chg_in[i] && !take_own) continue;
        if (ref_take(i)) continue;
        IS_FCP* ofcp = pfo_fcp(w);
        if (!is_lock_mine(&ofcp->jd_fcplock)) {
            if (hb && bk.refused[w] == bk.scan_no) continue;
            uint32_t prev = 0;
            if (is_lock_try(&ofcp->jd_fcplock, &prev) != 0) {
                if (hb) bk.refused[w] = bk.scan_no;
                continue;
            }
            // A holder that died may have left fixes on its file's slots, and a call half
            // done, which the file's next user rolls back (noted first: a death of this
            // process meanwhile must not lose it).
            if (prev != 0) {
                jn_note_stale(ofcp, prev);
                v_stale_fcplock(ofcp);
            }
            // The owner may have changed the slot before its lock came free.
            const uint16_t now = b->bu_id;
            if ((now & BU_FILEMASK) != w || !stealable(now, w)) {
                is_unlock(&ofcp->jd_fcplock);
                continue;
            }
            *took = true;
        }
        victim = i;
    }
    isx_area->xh_steal_hand = h;
    return victim;
}

}  // namespace

int take_slot(IS_FCP* fcp, int u, PAGE pno, bool hb, bool fresh, const IS_DATA* src) noexcept {
    struct isam_com* com = isam_com;
    for (;;) {
        if (lock_bufs() != 0) return is_raise(is_lock_code(errno), PROC(P_V_READ, 6));
        int S = com->buf_free;
        if (S != -1) {
            if (!valid_slot(S)) {
                is_unlock(&com->buf_lock);
                return is_raise(ISE_BUFLINK, PROC(P_V_READ, 1));
            }
            com->buf_free = slot(S)->bu_next;
            count(com->missfree);
        } else {
            bool took = false;
            const int v = steal_victim(hb, &took);
            if (v < 0 && chg_n > 0 && !take_own) {
                // Every slot left is fixed or holds a page of this process's running call:
                // one of the latter goes (through the log, lg_steal).
                take_own = true;
                is_unlock(&com->buf_lock);
                continue;
            }
            take_own = false;
            if (v < 0) {
                // Fixes left by a holder that died are never unfixed by a flush; clear
                // them and look again before waiting for slots that no one will release.
                if (reap_dead_holders()) {
                    is_unlock(&com->buf_lock);
                    continue;
                }
                // Only the holder of a file's control lock unfixes its slots.  When every
                // slot is fixed under control locks this process holds, no other process
                // can ever free one: waiting would hang, so the read fails instead.
                if (fixed_by_us_only()) {
                    is_unlock(&com->buf_lock);
                    return is_raise(ISE_BUFLINK, PROC(P_V_READ, 7));
                }
                std::atomic_ref<uint16_t>(com->vr_nsleep).fetch_add(1, std::memory_order_relaxed);
                is_unlock(&com->buf_lock);
                ZTSleep(1);
                continue;
            }
            IS_BUF* b = slot(v);
            const int w = file_of(b);
            IS_FCP* wfcp = pfo_fcp(w);
            // The stealer holds w's control lock.  A clean victim leaves w's change count
            // alone (readers without the lock check the slots they use); writing a dirty
            // one makes it odd (writebuf).
            if (b->bu_id & BU_DIRTY) {
                if (writebuf(b) != 0) {
                    if (took) is_unlock(&wfcp->jd_fcplock);
                    is_unlock(&com->buf_lock);
                    return -1;
                }
                count(com->misswrite);
            } else {
                count(com->missread);
            }
            // Off its chain the slot must not keep a tag that names it (rule 1): once the
            // owner's lock is given up, its next holder would take it for the page.
            const bool moved = take_away(wfcp, w, v);
            if (took) is_unlock(&wfcp->jd_fcplock);
            if (!moved) {
                is_unlock(&com->buf_lock);
                return is_raise(ISE_BUFLINK, PROC(P_V_READ, 1));
            }
            S = v;
        }
        if (load_slot(fcp, u, S, pno, true, fresh, src) != 0) {
            is_unlock(&com->buf_lock);
            return -1;
        }
        slot(S)->bu_id |= BU_INUSE;
        is_unlock(&com->buf_lock);
        if (hb) fix_note(S);
        return S;
    }
}

}  // namespace kisam::pool
