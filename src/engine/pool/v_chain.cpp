// Chains and the free list (v_internal.h rule 1): a slot joins a file's chain, gets
// another page or leaves the chain only here, under the control lock of the chain's file
// (and buf_lock when the slot comes from or goes to another list), and every such change
// is recorded for the other processes (chain_changed, chain_reset).
#include "v_pool.h"
#include "v_internal.h"

#include "is_lock.h"
#include "test_hook.h"

#include <kisam/ztsupport.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace kisam::pool {

int chain_find(const IS_FCP* fcp, PAGE pno) noexcept {
    if (pno == KISAM_NOPAGE) return -1;
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n)
        if (slot(s)->bu_pno == pno) return s;
    return -1;
}

int load_slot(IS_FCP* fcp, int u, int s, PAGE pno, bool attach, bool fresh, const IS_DATA* src) noexcept {
    IS_BUF* b = slot(s);
    isx_file* f = xfile(u);
    // The slot names no page before it is on the chain (a slot never used carries page
    // 0), and none until the load is complete (readbuf).  A reader without the lock that
    // is reading the slot's previous page finds the tag or the stamp (bu_wcnt) changed
    // when it checks the slot again: the stores below come after the cleared tag.
    std::atomic_ref<uint32_t>(b->bu_pno).store(KISAM_NOPAGE, std::memory_order_relaxed);
    if (attach) {
        const int head = fcp->jd_buf_hd;
        b->bu_next = static_cast<int16_t>(head);
        *kisam::isx_link(s) = -1;
        if (valid_slot(head)) *kisam::isx_link(head) = static_cast<int16_t>(s);
        fcp->jd_buf_hd = static_cast<int16_t>(s);
        f->xf_chainlen++;
    }
    // Every slot on u's chain carries u (an untagged one left by a process killed in
    // take_away gets its tag back when it is reused in place).
    b->bu_id = static_cast<uint16_t>(u);
    if (kisam::test_hook) kisam::test_hook(kisam::kHookLoad, u);
    b->bu_cnt = clock_now();
    std::atomic_ref<uint32_t>(b->bu_wcnt).store(clock_advance(isam_com->lru_wcnt), std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    // The page is as on disk (or new): nothing need reach the log before it is written
    // back, and its first log entry is its whole image -- unless the log of this
    // generation has it whole already (it left the pool since), when the bytes that
    // change will do.
    {
        const uint32_t gen = f->xf_log_gen;
        const uint64_t e = kisam::whole_entry(u, gen, pno);
        const bool whole = !fresh && std::atomic_ref<uint64_t>(*kisam::isx_whole_at(e)).load(std::memory_order_relaxed) == e;
        *kisam::isx_lsn(s) = whole ? std::atomic_ref<uint64_t>(f->xf_log_start).load(std::memory_order_relaxed) + 1
                                   : ISX_LSN_FULL;
    }
    int rc = 0;
    if (fresh || src) {
        if (src) {
            std::memcpy(b->bu_data.c, src->c, kisam::kPage);
            count(isam_com->sysread);
        } else {
            std::memset(b->bu_data.c, 0, kisam::kPage);
        }
        std::atomic_ref<uint32_t>(b->bu_pno).store(pno, std::memory_order_release);
    } else {
        rc = readbuf(b, pno);
    }
    if (rc == 0) {
        ref_set(s);
    } else if (attach) {
        // Untagged first: a slot on no list must never name a page of u (rule 1).
        clear_tag(b);
        fcp->jd_buf_hd = b->bu_next;
        if (valid_slot(b->bu_next)) *kisam::isx_link(b->bu_next) = -1;
        f->xf_chainlen--;
        b->bu_next = isam_com->buf_free;
        isam_com->buf_free = static_cast<int16_t>(s);
    }
    chain_changed(u, s);
    return rc;
}

bool take_away(IS_FCP* wfcp, int w, int v) noexcept {
    IS_BUF* b = slot(v);
    // The back link is a hint (a process that died may have left it stale): it is used
    // only when the chain confirms it, else the chain is walked.
    int prev = *kisam::isx_link(v);
    const bool linked = valid_slot(prev) ? slot(prev)->bu_next == v && file_of(slot(prev)) == w
                                         : wfcp->jd_buf_hd == v;
    if (!linked) {
        prev = -1;
        if (wfcp->jd_buf_hd != v) {
            const int nb = isam_com->maxbufs;
            int n = 0, s = wfcp->jd_buf_hd;
            while (valid_slot(s) && n < nb && slot(s)->bu_next != v) s = slot(s)->bu_next, ++n;
            if (!valid_slot(s) || n >= nb) return false;
            prev = s;
        }
    }
    // The tag goes before the slot leaves the chain: a process killed in between
    // leaves an untagged slot on the chain (harmless: it holds no page) rather than a
    // slot on no chain that still names a page of w -- which, once the count is even
    // again, a reader without the lock would take for the page.  A reader without the
    // lock that is using the slot finds the tag changed when it checks the slot again
    // (README.reads.md rule 6); w's change count is left alone.
    clear_tag(b);
    std::atomic_thread_fence(std::memory_order_release);
    if (kisam::test_hook) kisam::test_hook(kisam::kHookTakeAway, w);
    const int next = b->bu_next;
    if (prev < 0)
        wfcp->jd_buf_hd = static_cast<int16_t>(next);
    else
        slot(prev)->bu_next = static_cast<int16_t>(next);
    if (valid_slot(next)) *kisam::isx_link(next) = static_cast<int16_t>(prev);
    isx_file* f = xfile(w);
    if (f->xf_hand == v) f->xf_hand = static_cast<int16_t>(next);
    if (f->xf_chainlen > 0) f->xf_chainlen--;
    chain_changed(w, v);
    return true;
}

namespace {

// Puts back on the free list every slot that is on no list: a process killed while it
// moved a slot from one list to another (every move is done under buf_lock, with the
// slot unlinked before it is linked again) can leave one on none.  Requires buf_lock,
// which is why no list changes meanwhile.
void repair_lists() noexcept {
    const int nb = isam_com->maxbufs;
    uint8_t* on = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(nb), 1));
    if (!on) return;
    int n = 0;
    for (int s = isam_com->buf_free; valid_slot(s) && n < nb && !on[s]; s = slot(s)->bu_next, ++n) on[s] = 1;
    for (int u = 0; u < isam_com->maxopen; ++u) {
        const IS_FCP* f = pfo_fcp(u);
        if (!f) continue;
        n = 0;
        for (int s = f->jd_buf_hd; valid_slot(s) && n < nb && !on[s]; s = slot(s)->bu_next, ++n) on[s] = 1;
    }
    for (int s = 0; s < nb; ++s) {
        if (on[s]) continue;
        clear_tag(slot(s));
        slot(s)->bu_next = isam_com->buf_free;
        isam_com->buf_free = static_cast<int16_t>(s);
    }
    std::free(on);
}

}  // namespace

int lock_bufs() noexcept {
    if (is_lock(&isam_com->buf_lock) != 0) return -1;
    if (is_lock_stale) repair_lists();
    return 0;
}

namespace {

// Gives fcp's whole chain to the free list.  The stores are ordered so that a process
// killed between any two of them leaves every slot on at most one list (at worst some
// slots on none, which the steal scan's repair finds again).
void chain_to_free_list(IS_FCP* fcp, int u) noexcept {
    v_changing(fcp, u);
    const int nb = isam_com->maxbufs;
    const int head = fcp->jd_buf_hd;
    int last = -1;
    int n = 0;
    for (int s = head; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        clear_tag(slot(s));
        last = s;
    }
    struct isam_com* com = isam_com;
    // The chain must reach the free list: a cycle of waits may clear, a lock call that
    // fails leaves no way on.
    while (lock_bufs() != 0) {
        if (errno != EDEADLK) is_lock_abort("is lockitw fail - errno = %d\n");
        ZTSleepMS(1);
    }
    fcp->jd_buf_hd = -1;
    if (last >= 0) {
        slot(last)->bu_next = com->buf_free;
        com->buf_free = static_cast<int16_t>(head);
    }
    is_unlock(&com->buf_lock);
}

}  // namespace

}  // namespace kisam::pool

using namespace kisam::pool;

void v_relbuf(void) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    v_flush();
    // The chain now belongs to the free list; the control page is about to be discarded.
    chain_to_free_list(fcp, u);
    chain_reset(u);
    v_forget_file(u);
}

bool v_giveback(IS_FCP* fcp, int u) noexcept {
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n)
        if (slot(s)->bu_id & BU_DIRTY) return false;
    chain_to_free_list(fcp, u);
    chain_reset(u);
    v_forget_file(u);
    return true;
}

void v_discard(IS_FCP* fcp, int u, PAGE* pages, int n, PAGE from) noexcept {
    v_changing(fcp, u);
    if (n > 1) std::sort(pages, pages + n);
    const int nb = isam_com->maxbufs;
    int len = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && len < nb; s = slot(s)->bu_next, ++len) {
        IS_BUF* b = slot(s);
        const PAGE p = b->bu_pno;
        if (file_of(b) != u || p == KISAM_NOPAGE) continue;
        if (n < 0 || p >= from || std::binary_search(pages, pages + n, p)) {
            // Rule 1: on its chain, holding no page.
            b->bu_pno = KISAM_NOPAGE;
            b->bu_id = static_cast<uint16_t>(u);
            chain_changed(u, s);
        }
    }
}

void v_repair_lists(void) noexcept { repair_lists(); }
