// Change counts and reads without the lock (README.reads.md): a file's holder makes its
// change count odd before it changes anything a reader without the lock may see, and the
// release makes it even; such a reader finds pages through this process's page index and
// checks what it read against the count.
#include "v_pool.h"
#include "v_internal.h"

#include "is_lock.h"

#include <atomic>
#include <cstdint>

namespace kisam::pool {

namespace {

// Pages found by reads without the lock, not yet added to the shared hit count: added in
// batches, so that readers of one file do not all write one cache line per page.
uint32_t peek_hits = 0;
constexpr uint32_t kPeekFold = 4096;

}  // namespace

void peek_forget() noexcept { peek_hits = 0; }

}  // namespace kisam::pool

using namespace kisam::pool;

void v_changing(IS_FCP* fcp, int u) noexcept {
    if (!isx_area || !fcp || u < 0 || u >= isam_com->maxopen) return;
    if (is_lock_has_seq(&fcp->jd_fcplock)) return;  // odd already, by this hold
    uint32_t* seq = &xfile(u)->xf_seq;
    std::atomic_ref<uint32_t> q(*seq);
    const uint32_t v = q.load(std::memory_order_relaxed);
    if (!(v & 1)) q.store(v + 1, std::memory_order_relaxed);
    // Nothing that follows may become visible before the odd count.
    std::atomic_thread_fence(std::memory_order_release);
    is_lock_set_seq(&fcp->jd_fcplock, seq);
}

void v_seq_adopt(IS_FCP* fcp, int u) noexcept {
    if (!isx_area || !fcp || u < 0 || u >= isam_com->maxopen) return;
    uint32_t* seq = &xfile(u)->xf_seq;
    if (std::atomic_ref<uint32_t>(*seq).load(std::memory_order_acquire) & 1)
        is_lock_set_seq(&fcp->jd_fcplock, seq);
}

const IS_DATA* v_peek(int u, PAGE pno) noexcept {
    if (bk.com != isam_com || bk.shmid != is_shmid || !bk.ok || u < 0 || u >= bk.nopen) return nullptr;
    // The index names at most one slot for (u, pno); that slot is the page when its tag
    // says so (rule 1).  A stale entry sends the reader to the locked path, which mends
    // the index; this path leaves the index as it is.
    const uint64_t key = page_key(u, pno);
    for (uint32_t i = home_of(key);; i = (i + 1) & bk.mask) {
        const uint64_t e = bk.tab[i];
        if (e == kEmpty) return nullptr;
        if (entry_key(e) != key) continue;
        const int s = entry_slot(e);
        IS_BUF* b = slot(s);
        const PAGE p = std::atomic_ref<uint32_t>(b->bu_pno).load(std::memory_order_acquire);
        const uint16_t id = std::atomic_ref<uint16_t>(b->bu_id).load(std::memory_order_relaxed);
        if (p != pno || (id & BU_FILEMASK) != u) return nullptr;
        // The reference byte keeps the clock's meaning (a page in use is passed over);
        // it is written only when a hand has cleared it, not at every read.
        ref_set(s);
        if (++peek_hits == kPeekFold) v_peek_fold();
        return &b->bu_data;
    }
}

bool v_peek_knows(int u) noexcept {
    return bk.com == isam_com && bk.shmid == is_shmid && bk.ok && u >= 0 && u < bk.nopen && knows(u) &&
           bk.known_gen[u] == chaingen(u);
}

void v_peek_fold(void) noexcept {
    if (peek_hits == 0 || !isam_com || bk.com != isam_com) {
        peek_hits = 0;
        return;
    }
    std::atomic_ref<uint32_t>(isam_com->hit).fetch_add(peek_hits, std::memory_order_relaxed);
    peek_hits = 0;
}
