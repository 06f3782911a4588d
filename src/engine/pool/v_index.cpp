// The pool's per-process bookkeeping of one attachment: the page index, which maps
// (file slot, page) to a pool slot, and what this process knows of each file's chain
// (v_internal.h rules 2, 3 and 6).  Everything here is this process's own memory but the
// change counts and chain logs in the extension area, written under the file's control
// lock.
#include "v_pool.h"
#include "v_internal.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

namespace kisam::pool {

PoolBook bk;

namespace {

// The page index is probed for every page a call touches, at random places: in a large
// pool a table of 4 KiB pages costs most probes a walk of the page tables on top of the
// miss of the caches.  A table of 256 KiB or more is given memory of its own aligned to
// 2 MiB and asked to be backed by huge pages (one entry of the TLB covers it where the
// system grants them; elsewhere it is plain memory).  tab_len says how it was made.
constexpr size_t kHuge = size_t{2} << 20;
size_t tab_len = 0;  // 0: malloc

uint64_t* table_alloc(size_t bytes) noexcept {
    tab_len = 0;
    if (bytes < (size_t{256} << 10)) return static_cast<uint64_t*>(std::malloc(bytes));
    const size_t len = (bytes + kHuge - 1) / kHuge * kHuge;
    void* p = ::mmap(nullptr, len + kHuge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return static_cast<uint64_t*>(std::malloc(bytes));
    const uintptr_t a = reinterpret_cast<uintptr_t>(p);
    const uintptr_t at = (a + kHuge - 1) / kHuge * kHuge;
    if (at > a) ::munmap(p, at - a);
    if (at + len < a + len + kHuge) ::munmap(reinterpret_cast<void*>(at + len), a + len + kHuge - (at + len));
    ::madvise(reinterpret_cast<void*>(at), len, MADV_HUGEPAGE);
    tab_len = len;
    return reinterpret_cast<uint64_t*>(at);
}

void table_free(uint64_t* t) noexcept {
    if (t && tab_len) ::munmap(t, tab_len);
    else std::free(t);
    tab_len = 0;
}

void near_free() noexcept {
    for (int u = 0; bk.near && u <= bk.nopen; ++u) {
        std::free(bk.near[u]);
        bk.near[u] = nullptr;
        bk.near_len[u] = 0;
    }
}

void book_free() noexcept {
    if (bk.map_base) map_drop(-1);
    near_free();
    std::free(bk.near);
    std::free(bk.near_len);
    std::free(bk.map_base);
    std::free(bk.map_len);
    std::free(bk.map_cap);
    std::free(bk.map_last);
    std::free(bk.map_past);
    std::free(bk.map_rw);
    table_free(bk.tab);
    std::free(bk.key_of);
    std::free(bk.known);
    std::free(bk.known_gen);
    std::free(bk.known_fcp);
    std::free(bk.fixed);
    std::free(bk.listed);
    std::free(bk.walk_waits);
    std::free(bk.walked);
    std::free(bk.refused);
    bk = PoolBook();
}

}  // namespace

void book_setup() noexcept {
    const int nb = isam_com->maxbufs > 0 ? isam_com->maxbufs : 0;
    const int no = isam_com->maxopen > 0 ? isam_com->maxopen : 0;
    if (!bk.ok || bk.nbufs != nb || bk.nopen != no) {
        book_free();
        uint32_t cap = 16;
        int bits = 4;
        while (cap < 2u * static_cast<uint32_t>(nb)) cap <<= 1, ++bits;
        bk.tab = table_alloc(cap * sizeof(uint64_t));
        bk.key_of = static_cast<uint64_t*>(std::malloc((nb + 1) * sizeof(uint64_t)));
        bk.fixed = static_cast<int16_t*>(std::malloc((nb + 1) * sizeof(int16_t)));
        bk.listed = static_cast<uint8_t*>(std::malloc(nb + 1));
        bk.known = static_cast<uint8_t*>(std::malloc(no + 1));
        bk.known_gen = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.known_fcp = static_cast<int32_t*>(std::malloc((no + 1) * sizeof(int32_t)));
        bk.walk_waits = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.walked = static_cast<uint8_t*>(std::malloc(no + 1));
        bk.refused = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.map_base = static_cast<const char**>(std::calloc(no + 1, sizeof(const char*)));
        bk.map_len = static_cast<size_t*>(std::calloc(no + 1, sizeof(size_t)));
        bk.map_cap = static_cast<size_t*>(std::calloc(no + 1, sizeof(size_t)));
        bk.map_last = static_cast<uint32_t*>(std::calloc(no + 1, sizeof(uint32_t)));
        bk.map_past = static_cast<uint32_t*>(std::calloc(no + 1, sizeof(uint32_t)));
        bk.map_rw = static_cast<uint8_t*>(std::calloc(no + 1, 1));
        bk.near = static_cast<uint16_t**>(std::calloc(no + 1, sizeof(uint16_t*)));
        bk.near_len = static_cast<uint32_t*>(std::calloc(no + 1, sizeof(uint32_t)));
        bk.ok = bk.tab && bk.key_of && bk.fixed && bk.listed && bk.known && bk.known_gen &&
                bk.known_fcp && bk.walk_waits && bk.walked && bk.refused && bk.map_base &&
                bk.map_len && bk.map_cap && bk.map_last && bk.map_past && bk.map_rw && bk.near &&
                bk.near_len;
        if (!bk.ok) {
            book_free();
        } else {
            bk.mask = cap - 1;
            bk.shift = 64 - bits;
            bk.nbufs = nb;
            bk.nopen = no;
        }
    }
    if (bk.ok) {
        map_drop(-1);  // of the segment these tables described before
        near_free();   // slots of that segment
        std::memset(bk.tab, 0xFF, (bk.mask + 1) * sizeof(uint64_t));  // kEmpty
        for (int i = 0; i < nb; ++i) bk.key_of[i] = kNoKey;
        std::memset(bk.listed, 0, nb + 1);
        std::memset(bk.known, 0, no + 1);
        std::memset(bk.walked, 0, no + 1);
        std::memset(bk.refused, 0, (no + 1) * sizeof(uint32_t));
        bk.scan_no = 0;
        bk.nfixed = 0;
    }
    bk.com = isam_com;
    bk.shmid = is_shmid;
}

void index_erase(int s) noexcept {
    uint64_t key = bk.key_of[s];
    if (key == kNoKey) return;
    bk.key_of[s] = kNoKey;
    const uint64_t mine = entry_of(key, s);
    uint32_t i = home_of(key);
    while (bk.tab[i] != mine) i = (i + 1) & bk.mask;
    // Backward-shift deletion keeps every probe sequence unbroken without tombstones.
    for (uint32_t j = i;;) {
        j = (j + 1) & bk.mask;
        const uint64_t t = bk.tab[j];
        if (t == kEmpty) break;
        uint32_t k = home_of(entry_key(t));
        bool movable = (j > i) ? (k <= i || k > j) : (k <= i && k > j);
        if (movable) {
            bk.tab[i] = t;
            i = j;
        }
    }
    bk.tab[i] = kEmpty;
}

void index_put(int u, PAGE pno, int s) noexcept {
    if (pno == KISAM_NOPAGE) {
        index_erase(s);
        return;
    }
    uint64_t key = page_key(u, pno);
    if (bk.key_of[s] == key) return;
    index_erase(s);
    int pos = index_pos(key);
    if (pos >= 0) {
        bk.key_of[entry_slot(bk.tab[pos])] = kNoKey;
        bk.tab[pos] = entry_of(key, s);
    } else {
        uint32_t i = home_of(key);
        while (bk.tab[i] != kEmpty) i = (i + 1) & bk.mask;
        bk.tab[i] = entry_of(key, s);
    }
    bk.key_of[s] = key;
}

namespace {

// Files slot s as its tag says when it is u's; drops an entry of u's that it no longer
// deserves.
inline void index_refile(int u, int s) noexcept {
    const IS_BUF* b = slot(s);
    if (file_of(b) == u)
        index_put(u, b->bu_pno, s);
    else if (bk.key_of[s] != kNoKey && key_file(bk.key_of[s]) == u)
        index_erase(s);
}

}  // namespace

void learn(IS_FCP* fcp, int u) noexcept {
    const uint32_t now = chaingen(u);
    if (knows(u)) {
        const uint32_t behind = now - bk.known_gen[u];
        if (behind == 0) return;
        if (behind <= isx_area->xh_log_len) {
            const int16_t* log = kisam::isx_log(u);
            for (uint32_t g = bk.known_gen[u] + 1; g != now + 1; ++g) {
                const int s = log[g & log_mask()];
                if (valid_slot(s)) index_refile(u, s);
            }
            bk.known_gen[u] = now;
            return;
        }
    }
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n)
        index_put(u, slot(s)->bu_pno, s);
    // The shared length is only as good as the last change: a process that died in the
    // middle of one may have left it off.  The walk knows it exactly.
    xfile(u)->xf_chainlen = static_cast<uint32_t>(n);
    bk.known[u] = 1;
    bk.known_gen[u] = now;
    bk.known_fcp[u] = is_env.pfo_tbl[u];
}

int learn_unlocked(int u) noexcept {
    if (!knows(u)) return 0;
    const uint32_t k = bk.known_gen[u];
    const uint32_t now = chaingen(u);
    if (now == k) return 1;
    // Entry g of the log is overwritten by change g + xh_log_len, which its holder writes
    // before it publishes the count: with half the log as margin, no entry read below
    // can be one that a change under way is overwriting.
    const uint32_t margin = isx_area->xh_log_len / 2;
    if (now - k >= margin) return 0;
    const int16_t* log = kisam::isx_log(u);
    for (uint32_t g = k + 1; g != now + 1; ++g) {
        const int s = std::atomic_ref<int16_t>(const_cast<int16_t&>(log[g & log_mask()])).load(std::memory_order_relaxed);
        if (!valid_slot(s)) continue;
        // The tag as it is now: a slot that changes after this read has that change
        // logged past `now`, and the next catch-up files it again.  A slot in the middle
        // of a load carries no page and leaves the index.
        IS_BUF* b = slot(s);
        const PAGE p = std::atomic_ref<uint32_t>(b->bu_pno).load(std::memory_order_acquire);
        const uint16_t id = std::atomic_ref<uint16_t>(b->bu_id).load(std::memory_order_relaxed);
        if ((id & BU_FILEMASK) == u)
            index_put(u, p, s);
        else if (bk.key_of[s] != kNoKey && key_file(bk.key_of[s]) == u)
            index_erase(s);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (chaingen(u) - k >= margin) return 0;  // entries may have been overwritten meanwhile
    bk.known_gen[u] = now;
    return 2;
}

void chain_changed(int u, int s) noexcept {
    isx_file* f = xfile(u);
    const uint32_t g = f->xf_chaingen + 1;
    kisam::isx_log(u)[g & log_mask()] = static_cast<int16_t>(s);
    std::atomic_ref<uint32_t>(f->xf_chaingen).store(g, std::memory_order_release);
    if (bk.com == isam_com && bk.ok && u < bk.nopen && knows(u) && bk.known_gen[u] == g - 1) {
        index_refile(u, s);
        bk.known_gen[u] = g;
    }
}

void chain_reset(int u) noexcept {
    isx_file* f = xfile(u);
    f->xf_hand = -1;
    f->xf_chainlen = 0;
    std::atomic_ref<uint32_t>(f->xf_chaingen)
        .store(f->xf_chaingen + isx_area->xh_log_len + 1, std::memory_order_release);
}

void chain_forget(int u) noexcept {
    isx_file* f = xfile(u);
    std::atomic_ref<uint32_t>(f->xf_chaingen)
        .store(f->xf_chaingen + isx_area->xh_log_len + 1, std::memory_order_release);
}

}  // namespace kisam::pool

using namespace kisam::pool;

void v_forget_file(int u) noexcept {
    if (!isam_com || bk.com != isam_com || !bk.ok || u < 0 || u >= bk.nopen) return;
    bk.known[u] = 0;
    bk.walked[u] = 0;
    map_drop(u);
    // Where its pages were found: the tags would refuse them, but the next file in the
    // slot starts with nothing of this one's.
    std::free(bk.near[u]);
    bk.near[u] = nullptr;
    bk.near_len[u] = 0;
}

void v_enter_file(int u) noexcept {
    if (!isam_com || !isx_area || u < 0 || u >= isam_com->maxopen) return;
    chain_reset(u);
    // Nobody has the slot's old file open any more; whatever count it left, the new
    // file starts with no change under way.
    std::atomic_ref<uint32_t> q(xfile(u)->xf_seq);
    if (q.load(std::memory_order_relaxed) & 1) q.fetch_add(1, std::memory_order_release);
    v_forget_file(u);
}

void v_reset_process(void) noexcept {
    if (bk.ok) map_drop(-1);
    bk.com = nullptr;
    bk.shmid = -1;
}

void v_fork_process(void) noexcept {
    peek_forget();  // the parent adds its own
    if (bk.com != isam_com || bk.shmid != is_shmid || !bk.ok) {
        v_reset_process();
        return;
    }
    // A fork happens between calls, when no page is fixed; the fixes of the parent, if
    // any, stay the parent's to release.
    bk.nfixed = 0;
    std::memset(bk.listed, 0, bk.nbufs + 1);
    std::memset(bk.walked, 0, bk.nopen + 1);
    std::memset(bk.refused, 0, (bk.nopen + 1) * sizeof(uint32_t));
    bk.scan_no = 0;
}
