// The buffer pool: one array of page slots in the common area, shared by every process.
//
// Shared state (guarded as stated):
//   - a file's chain (jd_buf_hd, bu_next of its slots), its slots' marks and contents, and
//     its record in the extension area (change count, chain log, clock hand, chain
//     length): that file's control lock;
//   - the free list (buf_free), the steal hand and moving a slot from one chain to
//     another: buf_lock, taken after the current file's control lock; another file's
//     control lock is then only tried without waiting;
//   - lru_cnt, lru_wcnt, the reference bytes and the statistics: no lock (atomic
//     updates).
//
// Per-process bookkeeping keeps hits, misses and releases independent of the pool's
// size.  The rules below are what makes it agree with the shared slots (numbered as in
// README.pool.md; the tests check them):
//
//  1. Tags are truthful.  A slot's (bu_id & BU_FILEMASK, bu_pno) names what it holds: a
//     slot on file u's chain carries file bits u; a slot tagged (u, p) with u < maxopen
//     is on u's chain and holds page p as of its last load or write.  A slot that is
//     given back to the free list, or taken off a chain to move, is tagged (BU_FILEMASK,
//     KISAM_NOPAGE); a slot whose load failed goes back to the free list, or, when it was
//     reused in place, stays on u's chain holding page KISAM_NOPAGE.
//     Slots never used since the segment was laid out carry zeros; they are on the free
//     list and nothing below ever names them.
//  2. The page index maps (u, page) to a slot.  It is a hint: every use re-reads the
//     slot's tag and drops an entry that no longer matches.  Since the caller holds u's
//     control lock, nobody else can change a slot tagged u meanwhile, so a validated
//     entry is the page.
//  3. Chain knowledge.  Every change of u's chain or of the tag of one of its slots goes
//     through load_slot, take_away or v_relbuf, under u's control lock, and ends in
//     chain_changed: xf_chaingen advances by one and u's chain log names the slot.  This
//     process "knows" u as of change count g when every slot that was on u's chain at g
//     is in the index.  Knowing u as of the current count, a page missing from the index
//     is not cached.  Behind by at most the log's length, it re-files the logged slots;
//     further behind (or never), it walks the chain once.  A chain's length is shared
//     (xf_chainlen), so nobody counts it.
//  4. The fix list holds every slot this process set BU_INUSE on (or found fixed) while
//     holding the slot's file's control lock, each slot once.  v_flush of u clears the
//     fixes and writes the dirty slots of u that are on the list; nothing else walks the
//     chain.  Fixes that other processes left are dealt with where they can arise: a
//     holder that died (v_stale_fcplock, called when its stale control word is taken
//     over) and a holder that gave the control lock up while waiting for a record lock
//     (that wait counts usrwaits; a flush that sees usrwaits moved since its last full
//     walk of the file walks the chain once, as a full flush does).
//     The first flush of a file in a process walks its chain once as well.
//  5. Victims by clock.  A use sets the slot's reference byte.  A file at its quota turns
//     its own hand (xf_hand) along its chain; the steal scan turns the hand over all slots
//     (xh_steal_hand).  A hand clears the reference byte of an unfixed candidate and
//     passes it over; the first unfixed candidate without one is the victim.  A stolen
//     victim's tag is cleared before its owner's control lock is given up (rule 1);
//     before waiting for a slot, the scan takes over the control words of holders that
//     died so that their fixes do not block it for ever.
//  6. The bookkeeping belongs to one attachment: it is rebuilt when the segment changes
//     (v_reset_process after attach; v_fork_process keeps it in a child), and v_forget_file(u) when u's file goes.
//
// A process whose bookkeeping could not be allocated works without it: every lookup
// walks the chain and every flush walks it too.
#include "v_pool.h"

#include "fcp.h"
#include "is_common.h"
#include "is_error.h"
#include "is_lock.h"
#include "jn.h"
#include "lg.h"
#include "isx_area.h"
#include "os.h"
#include "test_hook.h"

#include <kisam/ztsupport.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

using kisam::pfo_fcp;

constexpr uint64_t kNoKey = ~uint64_t{0};

// Per-process bookkeeping of one attachment.
struct PoolBook {
    const void* com = nullptr;  // segment these tables describe; null: not set up
    int shmid = -1;
    bool ok = false;            // tables allocated
    int nbufs = 0;
    int nopen = 0;

    // Page index: open addressing; an entry holds its key and its slot together
    // (entry_of), so that a probe reads one table and no per-slot array: in a large pool
    // each further array read is a cache miss at every page miss.  key_of[s] is the key
    // slot s is filed under (kNoKey: not in the index), so each slot appears at most once
    // and the table never holds more than nbufs entries.
    uint64_t* tab = nullptr;
    uint32_t mask = 0;
    int shift = 64;
    uint64_t* key_of = nullptr;

    // Chain knowledge (rule 3): known[u] says valid, for the file whose control page is
    // known_fcp[u], as of change count known_gen[u].
    uint8_t* known = nullptr;
    uint32_t* known_gen = nullptr;
    int32_t* known_fcp = nullptr;

    // Fix list (rule 4).
    int16_t* fixed = nullptr;
    int nfixed = 0;
    uint8_t* listed = nullptr;

    // usrwaits at this process's last full flush walk of each file; walked[u] says valid.
    uint32_t* walk_waits = nullptr;
    uint8_t* walked = nullptr;

    // Steal scans: an owner whose control lock was refused in scan number scan_no has
    // refused[w] == scan_no, so that one scan asks the kernel once per file.
    uint32_t* refused = nullptr;
    uint32_t scan_no = 0;
};

PoolBook bk;

// The pages this process changed (v_write) since its last commit, each slot once: the
// content of the next log record of their file (lg.h).  Slots of several files may be
// listed when a process holds several control locks.
int16_t chg_slot[BU_FILEMASK + 1];
uint8_t chg_in[BU_FILEMASK + 1];
int chg_n = 0;
// Set while the list and the marks above disagree for a moment: a call left there by a
// signal handler (siglongjmp) leaves them to be rebuilt from the marks (v_abandoned).
volatile int chg_busy = 0;
// Whether this process's victims may be slots listed above (pages of its running call):
// only when nothing else is left.
bool take_own = false;

void book_free() noexcept {
    std::free(bk.tab);
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

// Sets the tables up for the attached segment; called on first use after attach.
void book_setup() noexcept {
    const int nb = isam_com->maxbufs > 0 ? isam_com->maxbufs : 0;
    const int no = isam_com->maxopen > 0 ? isam_com->maxopen : 0;
    if (!bk.ok || bk.nbufs != nb || bk.nopen != no) {
        book_free();
        uint32_t cap = 16;
        int bits = 4;
        while (cap < 2u * static_cast<uint32_t>(nb)) cap <<= 1, ++bits;
        bk.tab = static_cast<uint64_t*>(std::malloc(cap * sizeof(uint64_t)));
        bk.key_of = static_cast<uint64_t*>(std::malloc((nb + 1) * sizeof(uint64_t)));
        bk.fixed = static_cast<int16_t*>(std::malloc((nb + 1) * sizeof(int16_t)));
        bk.listed = static_cast<uint8_t*>(std::malloc(nb + 1));
        bk.known = static_cast<uint8_t*>(std::malloc(no + 1));
        bk.known_gen = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.known_fcp = static_cast<int32_t*>(std::malloc((no + 1) * sizeof(int32_t)));
        bk.walk_waits = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.walked = static_cast<uint8_t*>(std::malloc(no + 1));
        bk.refused = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.ok = bk.tab && bk.key_of && bk.fixed && bk.listed && bk.known && bk.known_gen &&
                bk.known_fcp && bk.walk_waits && bk.walked && bk.refused;
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

inline bool book() noexcept {
    if (bk.com != isam_com || bk.shmid != is_shmid) book_setup();
    return bk.ok;
}

// A key is 48 bits: the page above the file slot (file slots are a 16-bit field).
inline uint64_t page_key(int u, PAGE pno) {
    return (static_cast<uint64_t>(pno) << 16) | static_cast<uint16_t>(u);
}
inline int key_file(uint64_t key) { return static_cast<int>(key & 0xFFFF); }

// An index entry: the key above the slot number.  Slots are below 32768, so no entry is
// all ones.
constexpr uint64_t kEmpty = ~uint64_t{0};
inline uint64_t entry_of(uint64_t key, int s) { return (key << 16) | static_cast<uint16_t>(s); }
inline uint64_t entry_key(uint64_t e) { return e >> 16; }
inline int entry_slot(uint64_t e) { return static_cast<int>(e & 0xFFFF); }
inline uint32_t home_of(uint64_t key) {
    return static_cast<uint32_t>((key * 0x9E3779B97F4A7C15ull) >> bk.shift);
}

inline IS_BUF* slot(int s) { return is_env.buf_ + s; }
inline int file_of(const IS_BUF* b) { return b->bu_id & BU_FILEMASK; }
inline isx_file* xfile(int u) { return kisam::isx_file_of(u); }

// Position in tab of the entry filed under key, or -1.
int index_pos(uint64_t key) noexcept {
    for (uint32_t i = home_of(key);; i = (i + 1) & bk.mask) {
        const uint64_t e = bk.tab[i];
        if (e == kEmpty) return -1;
        if (entry_key(e) == key) return static_cast<int>(i);
    }
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

// Files slot s as its tag says when it is u's; drops an entry of u's that it no longer
// deserves.
inline void index_refile(int u, int s) noexcept {
    const IS_BUF* b = slot(s);
    if (file_of(b) == u)
        index_put(u, b->bu_pno, s);
    else if (bk.key_of[s] != kNoKey && key_file(bk.key_of[s]) == u)
        index_erase(s);
}

// Slot of page (u, pno) by the index, validated against the shared tag (rule 2); -1.
inline int index_find(int u, PAGE pno) noexcept {
    int pos = index_pos(page_key(u, pno));
    if (pos < 0) return -1;
    int s = entry_slot(bk.tab[pos]);
    const IS_BUF* b = slot(s);
    if (file_of(b) == u && b->bu_pno == pno) return s;
    index_erase(s);
    return -1;
}

inline bool valid_slot(int s) { return s >= 0 && s < isam_com->maxbufs; }

inline uint32_t chaingen(int u) noexcept {
    return std::atomic_ref<uint32_t>(xfile(u)->xf_chaingen).load(std::memory_order_acquire);
}
inline uint32_t log_mask() noexcept { return isx_area->xh_log_len - 1; }

// Knowledge of u that is valid for the file now in slot u (rule 3), at whatever count.
inline bool knows(int u) noexcept {
    return bk.known[u] && bk.known_fcp[u] == is_env.pfo_tbl[u];
}

// Brings this process's knowledge of u up to the current change count: re-files the
// slots of the changes it missed, or walks the chain when it missed more than the log
// holds.  Requires u's control lock.
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

// The one place where a chain change is recorded (rule 3): slot s of file u was attached
// to u's chain, re-tagged or loaded, or taken away.  Called after the change, under u's
// control lock.  A process that knew u up to the change keeps knowing it.
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

// A whole chain changed at once (given back, or the file slot taken by a new file):
// whoever knew it must walk it again.
void chain_reset(int u) noexcept {
    isx_file* f = xfile(u);
    f->xf_hand = -1;
    f->xf_chainlen = 0;
    std::atomic_ref<uint32_t>(f->xf_chaingen)
        .store(f->xf_chaingen + isx_area->xh_log_len + 1, std::memory_order_release);
}

// Makes everyone's knowledge of u's chain out of date, so that the next miss walks it (and
// counts its length again).  Requires u's control lock.
void chain_forget(int u) noexcept {
    isx_file* f = xfile(u);
    std::atomic_ref<uint32_t>(f->xf_chaingen)
        .store(f->xf_chaingen + isx_area->xh_log_len + 1, std::memory_order_release);
}

inline void fix_note(int s) noexcept {
    if (!bk.listed[s]) {
        bk.listed[s] = 1;
        bk.fixed[bk.nfixed++] = static_cast<int16_t>(s);
    }
}

inline LRUt clock_advance(LRUt& clock) noexcept {
    std::atomic_ref<uint32_t> c(clock);
    uint32_t old = c.load(std::memory_order_relaxed), nv;
    do {
        nv = old + 1;
        if (nv == 0) nv = 1;
    } while (!c.compare_exchange_weak(old, nv, std::memory_order_acq_rel));
    return nv;
}

inline void count(uint32_t& stat) noexcept {
    std::atomic_ref<uint32_t>(stat).fetch_add(1, std::memory_order_relaxed);
}
inline LRUt clock_now() noexcept {
    return std::atomic_ref<uint32_t>(isam_com->lru_cnt).load(std::memory_order_relaxed);
}

// Reference bytes (rule 5): set at every use, cleared by a passing hand.  Written only
// when they change, so that hits on a hot slot do not bounce its cache line.
inline void ref_set(int s) noexcept {
    std::atomic_ref<uint8_t> r(*kisam::isx_ref(s));
    if (r.load(std::memory_order_relaxed) == 0) r.store(1, std::memory_order_relaxed);
}
// Clears the reference byte; true when it was set.
inline bool ref_take(int s) noexcept {
    std::atomic_ref<uint8_t> r(*kisam::isx_ref(s));
    if (r.load(std::memory_order_relaxed) == 0) return false;
    r.store(0, std::memory_order_relaxed);
    return true;
}

inline int current_file() noexcept {
    return is_curdb ? is_curdb->uniqueid : static_cast<int>(is_curpfi - is_pfi);
}

inline bool writable(const IS_PFI* pfi) { return pfi->pfi_osfd >= 0 && !(pfi->pfi_bits & PFI_RDONLY); }

// A failing pread/pwrite stands for a failing seek when the offset was the problem.
inline bool seek_errno(int e) { return e == EINVAL || e == ESPIPE || e == EOVERFLOW; }

// Clears every fix on u's chain.  Dirty slots stay dirty: pages reach the file only by
// write-back after the log that covers them (lg.h).
void walk_unfix(IS_FCP* fcp, int u) noexcept {
    (void)u;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < isam_com->maxbufs; s = slot(s)->bu_next, ++n)
        slot(s)->bu_id &= static_cast<uint16_t>(~BU_INUSE);
}

inline void clear_tag(IS_BUF* b) {
    b->bu_id = BU_FILEMASK;
    b->bu_pno = KISAM_NOPAGE;
}

// Slot of page pno on the chain of fcp found by walking it; -1.
int chain_find(const IS_FCP* fcp, PAGE pno) noexcept {
    if (pno == KISAM_NOPAGE) return -1;
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n)
        if (slot(s)->bu_pno == pno) return s;
    return -1;
}

// ---- Chain changes ----------------------------------------------------------------------
// load_slot, take_away and v_relbuf are the only places where a slot joins
// a chain, gets another page, or leaves a chain.  Each requires the control lock of the
// chain's file and records the change (chain_changed or chain_reset).

// Puts page pno of the current file u into slot s and loads it.  `attach`: s comes off the
// free list or another chain (buf_lock held) and goes to the head of u's chain; else s is
// one of u's own slots, re-tagged in place.  A failed load gives an attached slot back to
// the free list and leaves a slot in place on the chain holding no page (rule 1).
// 0, or -1 with the error raised.
int load_slot(IS_FCP* fcp, int u, int s, PAGE pno, bool attach, bool fresh = false) noexcept {
    IS_BUF* b = slot(s);
    isx_file* f = xfile(u);
    v_changing(fcp, u);
    // The slot names no page before it is on the chain (a slot never used carries page
    // 0), and none until the load is complete (readbuf).
    b->bu_pno = KISAM_NOPAGE;
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
    b->bu_wcnt = clock_advance(isam_com->lru_wcnt);
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
    if (fresh) {
        std::memset(b->bu_data.c, 0, kisam::kPage);
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

// Takes slot v off the chain of file w (control page wfcp) and tags it as moving (rule 1).
// Requires w's control lock and buf_lock.  False when v is not on that chain.
bool take_away(IS_FCP* wfcp, int w, int v) noexcept {
    IS_BUF* b = slot(v);
    v_changing(wfcp, w);
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
    // again, a reader without the lock would take for the page.
    clear_tag(b);
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

// ---- Victims ----------------------------------------------------------------------------

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
        const unsigned long off = kisam::com_offset(&f->jd_fcplock);
        if (is_lockitnw(off) != 0) continue;  // a live holder
        // The word is cleared before its range is released, so a word still set once the
        // range is ours names a holder that died.
        if (f->jd_fcplock == 0) {
            is_unlockit(off);
            continue;
        }
        const unsigned dead = is_lock_claim(&f->jd_fcplock);
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

// Takes buf_lock; whoever takes it over from a holder that died first puts back the
// slots that holder may have left on no list.  0, or -1 (deadlock refused).
int lock_bufs() noexcept {
    if (is_lock(&isam_com->buf_lock) != 0) return -1;
    if (is_lock_stale) repair_lists();
    return 0;
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
            if (is_lockitnw(kisam::com_offset(&ofcp->jd_fcplock)) != 0) {
                if (hb) bk.refused[w] = bk.scan_no;
                continue;
            }
            const unsigned prev = is_lock_claim(&ofcp->jd_fcplock);
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

// The lock-holding part of a miss: a free slot or a victim, attached to u's chain and
// loaded with pno.  Returns the slot or -1 (error raised, nothing of ours left locked).
int take_slot(IS_FCP* fcp, int u, PAGE pno, bool hb, bool fresh) noexcept {
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
            // The stealer holds w's control lock: it changes w's chain (and, writing a
            // dirty victim, maybe w's mark) under w's change count.
            v_changing(wfcp, w);
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
        if (load_slot(fcp, u, S, pno, true, fresh) != 0) {
            is_unlock(&com->buf_lock);
            return -1;
        }
        slot(S)->bu_id |= BU_INUSE;
        is_unlock(&com->buf_lock);
        if (hb) fix_note(S);
        return S;
    }
}

}  // namespace

int v_slot_of(const void* addr) noexcept {
    if (!isam_com || !addr) return -1;
    const uintptr_t base = reinterpret_cast<uintptr_t>(is_env.buf_) + offsetof(IS_BUF, bu_data);
    const uintptr_t p = reinterpret_cast<uintptr_t>(addr);
    if (p < base || (p - base) % sizeof(IS_BUF) != 0) return -1;
    const uintptr_t s = (p - base) / sizeof(IS_BUF);
    return s < static_cast<uintptr_t>(isam_com->maxbufs) ? static_cast<int>(s) : -1;
}

namespace {

// Page pno of the current file fixed in a slot: as cached or read, or (fresh) a page
// past the file's end, zeroed without a read.
IS_DATA* get(PAGE pno, bool fresh) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    const bool hb = book();
    const LRUt C = clock_advance(isam_com->lru_cnt);

    int s;
    if (hb) {
        s = index_find(u, pno);
        if (s < 0 && !(knows(u) && bk.known_gen[u] == chaingen(u))) {
            learn(fcp, u);
            s = index_find(u, pno);
        }
    } else {
        s = chain_find(fcp, pno);
    }
    if (s >= 0) {
        IS_BUF* b = slot(s);
        count(isam_com->hit);
        b->bu_cnt = C;
        b->bu_id |= BU_INUSE;
        ref_set(s);
        if (hb) fix_note(s);
        if (fresh) std::memset(b->bu_data.c, 0, kisam::kPage);
        return &b->bu_data;
    }

    // A miss.  At its quota the file reuses one of its own slots in place: no buf_lock.
    if (static_cast<int64_t>(xfile(u)->xf_chainlen) >= isam_com->maxfbuf) {
        const bool rdonly = (is_curpfi->pfi_bits & PFI_RDONLY) && lg_wfd(u) < 0;
        const int v = own_victim(fcp, u, rdonly);
        if (v >= 0) {
            IS_BUF* b = slot(v);
            if ((b->bu_id & BU_DIRTY) && writebuf(b) != 0) return nullptr;
            if (load_slot(fcp, u, v, pno, false, fresh) != 0) return nullptr;
            count(isam_com->missfree);
            b->bu_id |= BU_INUSE;
            if (hb) fix_note(v);
            return &b->bu_data;
        }
    }

    s = take_slot(fcp, u, pno, hb, fresh);
    return s < 0 ? nullptr : &slot(s)->bu_data;
}

}  // namespace

IS_DATA* v_read(PAGE pno) noexcept { return get(pno, false); }
IS_DATA* v_fresh(PAGE pno) noexcept { return get(pno, true); }

int readbuf(IS_BUF* b, PAGE pno) noexcept {
    IS_FCP* fcp = is_curfcp;
    const off_t off = v_fileoffset(fcp, pno);
    // A page must start at a valid offset and end within the 32-bit numbering.
    if (off < 0 || pno > KISAM_NOPAGE - kisam::kPage) return is_raise(ISE_RDSK, PROC(P_V_READ, 4));
    ssize_t n = kisam::os_pread_full(is_curpfi->pfi_osfd, b->bu_data.c, kisam::kPage, off);
    if (n < 0) {
        // An outright failure is never taken for an empty read, not even in a sequential
        // file: zeros would hide an I/O error as data.
        return seek_errno(errno) ? is_raise(ISE_RDSK, PROC(P_V_READ, 4))
                                 : is_raise(ISE_RDRD, PROC(P_V_READ, 5));
    }
    if (n < kisam::kPage) {
        if (!(fcp->is_optbits & ISO_SEQ)) return is_raise(ISE_RDRD, PROC(P_V_READ, 5));
        std::memset(b->bu_data.c + n, 0, static_cast<size_t>(kisam::kPage - n));
        if (fcp->is_lastpage < pno + kisam::kPage)
            fcp->is_nextfree = fcp->is_lastpage = pno + kisam::kPage;
    }
    count(isam_com->sysread);
    // Only a complete page gets a name: a process killed during the read leaves the
    // slot holding no page, never a page made of another page's bytes.
    std::atomic_ref<uint32_t>(b->bu_pno).store(pno, std::memory_order_release);
    return 0;
}

int writebuf(IS_BUF* b) noexcept {
    const int w = file_of(b);
    IS_FCP* ofcp = w < isam_com->maxopen ? pfo_fcp(w) : nullptr;
    if (!ofcp) return is_raise(ISE_RDWT, PROC(P_V_READ, 1));
    IS_PFI* pfi = &is_pfi[w];
    const int fd = lg_wfd(w);
    if (fd < 0) return is_raise(ISE_RDWT, PROC(P_V_READ, 1));
    const int s = static_cast<int>(b - is_env.buf_);
    // The log first (lg.h rule 2); a page of this process's running call goes in with
    // its before-image.
    if (chg_in[s]) {
        if (lg_steal(ofcp, w, s) != 0) return -1;
        chg_busy = 1;
        chg_in[s] = 0;
        for (int i = 0; i < chg_n; ++i)
            if (chg_slot[i] == s) {
                chg_slot[i] = chg_slot[--chg_n];
                break;
            }
        chg_busy = 0;
    } else if (lg_wal(w, s) != 0) {
        return -1;
    } else {
        // A page logged whole in this generation (its mark says so) may come back later:
        // the table remembers it, so that its next entry need not be whole again.
        const uint64_t mark = *kisam::isx_lsn(s);
        isx_file* xf = xfile(w);
        if (!(mark & ISX_LSN_FULL) && mark > std::atomic_ref<uint64_t>(xf->xf_log_start).load(std::memory_order_relaxed)) {
            const uint64_t e = kisam::whole_entry(w, xf->xf_log_gen, b->bu_pno);
            std::atomic_ref<uint64_t>(*kisam::isx_whole_at(e)).store(e, std::memory_order_relaxed);
        }
    }
    const off_t off = v_fileoffset(ofcp, b->bu_pno);
    b->bu_wcnt = clock_advance(isam_com->lru_wcnt);
    // The data-changed mark reaches the disk before the first page write after a clean
    // state; a page is not written when its mark could not be.
    if ((ofcp->is_optbits & (ISO_TRACK | ISO_DIRTYMARK)) == ISO_TRACK &&
        fcp_setdatachanged(ofcp, pfi, 1, ofcp->is_optbits & (ISO_SYNC | ISO_CLEARREL)) < 0)
        return is_raise(ISE_RDWT, PROC(P_V_READ, 3));
    if (off < 0) return is_raise(ISE_RDSK, PROC(P_V_READ, 2));
    if (kisam::os_pwrite_full(fd, b->bu_data.c, kisam::kPage, off) != 0)
        return seek_errno(errno) ? is_raise(ISE_RDSK, PROC(P_V_READ, 2))
                                 : is_raise(ISE_RDWT, PROC(P_V_READ, 3));
    count(isam_com->syswrite);
    b->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
    return 0;
}

int v_write(PAGE pno, IS_DATA* datap) noexcept {
    int s = v_slot_of(datap);
    // A buffer that does not hold the page it is said to hold: only a damaged file (a
    // page reached twice along its links) leads here.
    if (s < 0 || slot(s)->bu_pno != pno) return is_raise(ISE_BTS, PROC(P_V_WRITE, 6));
    // Dirty, and listed for the commit.  Until then only this process (which holds the
    // control lock) could make the slot a victim, and it does so only when the pool has
    // no other (lg_steal).
    IS_BUF* b = slot(s);
    b->bu_id |= BU_DIRTY;
    if (!chg_in[s]) {
        chg_busy = 1;
        chg_in[s] = 1;
        chg_slot[chg_n++] = static_cast<int16_t>(s);
        chg_busy = 0;
    }
    return 0;
}

int v_unsafe(PAGE pno, char* addr) noexcept {
    int s = v_slot_of(addr);
    if (s < 0 || slot(s)->bu_pno != pno) return -1;
    slot(s)->bu_id &= static_cast<uint16_t>(~BU_INUSE);
    return 0;
}

int v_hit(PAGE pno, int keyno) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    int s;
    if (book()) {
        s = index_find(u, pno);
        if (s < 0 && !(knows(u) && bk.known_gen[u] == chaingen(u))) {
            learn(fcp, u);
            s = index_find(u, pno);
        }
    } else {
        s = chain_find(fcp, pno);
    }
    return s >= 0 && slot(s)->bu_data.bt.bt_keyno == keyno ? 1 : 0;
}

int v_flush(void) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    IS_PFI* pfi = &is_pfi[u];
    if (!(pfi->pfi_bits & PFI_SEQ)) {
        const bool big = pfi->pfi_bits & PFI_BIGFCP;
        if (fcp->is_magic != (big ? ISMAGIC_1024 : ISMAGIC_512))
            return is_raise(ISE_FLFCP, PROC(P_V_READ, big ? 1 : 2));
    }
    // The commit: the pages this process changed in u, and u's control page, go into
    // u's log as one record.  They stay in the pool, dirty, for write-back.  A release
    // inside a call's unit that goes on (is_write's own hold inside niswrite, say)
    // commits nothing: the call may still fail, and a committed record could no longer
    // be rolled back.  Its pages stay listed for the release that ends the unit.
    const bool unit_goes_on = jn_continues(fcp, pfi->pfi_ctlcnt);
    int n = 0;
    int keep = 0;
    chg_busy = 1;
    for (int i = 0; i < chg_n; ++i) {
        const int s = chg_slot[i];
        if (file_of(slot(s)) == u && !unit_goes_on)
            chg_slot[BU_FILEMASK - n++] = static_cast<int16_t>(s);  // collected at the top
        else
            chg_slot[keep++] = static_cast<int16_t>(s);
    }
    if (!unit_goes_on && (n > 0 || (fcp->is_optbits & ISO_CHANGED))) {
        if (writable(pfi)) {
            // In the order they were changed.
            int16_t* list = chg_slot + BU_FILEMASK + 1 - n;
            std::reverse(list, list + n);
            uint64_t end = 0;
            if (lg_commit(fcp, u, list, n, &end) != 0) {
                // Listed again: the rollback that follows forgets them.
                for (int i = 0; i < n; ++i) chg_slot[keep++] = list[i];
                chg_n = keep;
                chg_busy = 0;
                return is_push(PROC(P_V_READ, 3));
            }
            for (int i = 0; i < n; ++i) chg_in[list[i]] = 0;
            fcp->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);
            lg_owe(u, end);
        } else {
            for (int i = 0; i < n; ++i) chg_in[chg_slot[BU_FILEMASK - i]] = 0;
        }
    }
    chg_n = keep;
    chg_busy = 0;

    if (!book()) {
        walk_unfix(fcp, u);
        return 0;
    }
    // A holder that waited for a record lock gave the control lock up with its fixes in
    // place; the first flush after such a wait walks the chain once.
    const uint32_t waits = std::atomic_ref<uint32_t>(isam_com->usrwaits).load(std::memory_order_relaxed);
    if (!bk.walked[u] || bk.walk_waits[u] != waits) {
        walk_unfix(fcp, u);
        bk.walked[u] = 1;
        bk.walk_waits[u] = waits;
    }

    keep = 0;
    for (int i = 0; i < bk.nfixed; ++i) {
        const int s = bk.fixed[i];
        IS_BUF* b = slot(s);
        const int f = file_of(b);
        if (f != u && f < bk.nopen) {
            bk.fixed[keep++] = static_cast<int16_t>(s);  // another file's
            continue;
        }
        if (f == u) b->bu_id &= static_cast<uint16_t>(~BU_INUSE);
        bk.listed[s] = 0;
    }
    bk.nfixed = keep;
    return 0;
}

void v_abandoned(void) noexcept {
    take_own = false;
    if (!isam_com) return;
    // The page index may have been left half changed (an entry moved, another not yet):
    // a page of the pool it failed to find would be read from the file, which holds an
    // older copy of every page not yet written back.  It is built again from the chains.
    // (Fixes of the abandoned call are cleared by the first flush of each file, which
    // then walks the file's chain.)
    bk.com = nullptr;
    // A load cut short after it named its slot, before the change was recorded, would
    // let another process catching up load the page into a second slot: every file whose
    // lock this process still holds is learnt afresh by everyone, from its chain as it
    // stands.
    for (int u = 0; isx_area && u < isam_com->maxopen; ++u) {
        IS_FCP* f = pfo_fcp(u);
        if (!f || !is_lock_mine(&f->jd_fcplock)) continue;
        isx_file* x = xfile(u);
        std::atomic_ref<uint32_t>(x->xf_chaingen)
            .store(x->xf_chaingen + isx_area->xh_log_len + 1, std::memory_order_release);
        v_forget_file(u);
    }
    if (!chg_busy) return;
    // Rebuilt from the marks: every slot marked is listed once.
    chg_n = 0;
    for (int s = 0; s < isam_com->maxbufs && s <= BU_FILEMASK; ++s)
        if (chg_in[s]) chg_slot[chg_n++] = static_cast<int16_t>(s);
    chg_busy = 0;
}

void v_unit_forget(int u) noexcept {
    chg_busy = 1;
    int keep = 0;
    for (int i = 0; i < chg_n; ++i) {
        const int s = chg_slot[i];
        if (file_of(slot(s)) == u || (slot(s)->bu_id & BU_FILEMASK) == BU_FILEMASK)
            chg_in[s] = 0;
        else
            chg_slot[keep++] = static_cast<int16_t>(s);
    }
    chg_n = keep;
    chg_busy = 0;
}

bool v_restore(IS_FCP* fcp, int u, PAGE pno, const IS_DATA* d) noexcept {
    // Every slot of the chain that names the page gets it back: a load abandoned after
    // the slot was named, but before the change was recorded, can leave a second one.
    bool found = false;
    const int nb = isam_com->maxbufs;
    const uint64_t mark = std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load() | ISX_LSN_FULL;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        IS_BUF* b = slot(s);
        if (b->bu_pno != pno || file_of(b) != u) continue;
        std::memcpy(b->bu_data.c, d->c, kisam::kPage);
        b->bu_id |= BU_DIRTY;
        // What the page holds now was committed by a record before the log's end; its
        // next entry is whole, since the entries since its last whole one were not all
        // kept.
        *kisam::isx_lsn(s) = mark;
        found = true;
    }
    return found;
}

int v_write_back(IS_FCP* fcp, int u, int fd) noexcept {
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        IS_BUF* b = slot(s);
        if (!(b->bu_id & BU_DIRTY) || file_of(b) != u || b->bu_pno == KISAM_NOPAGE) continue;
        // A fixed page goes too (a fix left by a call that failed, or by a holder that
        // died): under the file's control lock nobody changes it, and with no rollback
        // due (lg_checkpoint) it holds what was committed.  Leaving it out would start the
        // log's next generation over a file that lacks it.  Only a page of this process's
        // running call is not committed: then the file cannot be brought up to date.
        if (chg_in[s]) return is_raise(ISE_FLWT, PROC(P_V_READ, 3));
        const off_t off = v_fileoffset(fcp, b->bu_pno);
        if (off < 0) return is_raise(ISE_FLSK, PROC(P_V_READ, 2));
        if (kisam::os_pwrite_full(fd, b->bu_data.c, kisam::kPage, off) != 0)
            return is_raise(seek_errno(errno) ? ISE_FLSK : ISE_FLWT, PROC(P_V_READ, seek_errno(errno) ? 2 : 3));
        count(isam_com->syswrite);
        b->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
    }
    return 0;
}

int v_dirty_pages(IS_FCP* fcp, int u, int (*fn)(void*, off_t, const IS_DATA*), void* arg) noexcept {
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        IS_BUF* b = slot(s);
        if (!(b->bu_id & BU_DIRTY) || file_of(b) != u || b->bu_pno == KISAM_NOPAGE) continue;
        if (fn(arg, v_fileoffset(fcp, b->bu_pno), &b->bu_data) != 0) return -1;
    }
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

int fcp_setdatachanged(IS_FCP* fcp, IS_PFI* pfi, int datachangedf, int syncf) noexcept {
    if ((fcp->is_optbits & ISO_SEQ) || (pfi->pfi_bits & PFI_RDONLY)) return 0;
    const bool marked = fcp->is_optbits & ISO_DIRTYMARK;
    if ((datachangedf != 0) == marked) return 0;
    const int u = pfi >= is_pfi && pfi < is_pfi + isam_com->maxopen ? static_cast<int>(pfi - is_pfi) : -1;
    if (u >= 0) {
        v_changing(fcp, u);
        // A mark that says clean needs every committed page in the file (a checkpoint);
        // the control page that carries a mark is a committed one, whose log must be on
        // disk first (lg.h rule 2).
        if (!datachangedf ? lg_checkpoint(fcp, u, pfi->pfi_osfd) != 0
                          : lg_sync_to(u, std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load()) != 0) {
            is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
            return -1;
        }
    }
    // The data must be on disk before a mark that says it is clean, and a mark that says
    // it is being changed before the data: a synchronisation that fails leaves the mark
    // as it was, and says so.
    if (syncf && kisam::os_fdatasync(pfi->pfi_osfd) != 0) {
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
    // The shared copy says "marked" whenever the disk may be: a mark is set in the copy
    // before it is written, and cleared in the copy only once the disk has it cleared.  A
    // process killed in between leaves at worst a copy marked over a clean disk, which a
    // later clear writes again -- never a mark on the disk that the copy has forgotten,
    // which a last close would leave behind on a sound file.
    if (datachangedf) fcp->is_optbits |= ISO_DIRTYMARK;
    // The control page as committed: a call under way in this process has it as it was
    // when the call began (lg.h rule 2).  ISO_CHANGED stays as it is in the shared copy.
    unsigned char img[kisam::kFcpImage];
    // (A mark cleared is written after the checkpoint, the call committed: as it is now.)
    if (!(datachangedf && u >= 0 && jn_unit_fcp(fcp, img))) {
        const size_t len = static_cast<size_t>(IS_FCP_SIZE(fcp->is_nkeys) - IS_FCP_JDSIZE);
        const size_t take = len < sizeof img ? len : sizeof img;
        std::memcpy(img, &fcp->is_magic, take);
        std::memset(img + take, 0, sizeof img - take);
    }
    constexpr size_t kBitsAt = offsetof(IS_FCP, is_optbits) - offsetof(IS_FCP, is_magic);
    img[kBitsAt] = static_cast<unsigned char>((img[kBitsAt] & ~ISO_CHANGED) | ISO_DIRTYMARK);
    constexpr size_t kOptbitsAt = offsetof(IS_FCP, is_optbits) - offsetof(IS_FCP, is_magic);
    if (!datachangedf) img[kOptbitsAt] = static_cast<unsigned char>(img[kOptbitsAt] & ~ISO_DIRTYMARK);
    if (kisam::os_pwrite_full(pfi->pfi_osfd, img, sizeof img, 0) != 0) {
        fcp->is_optbits |= ISO_CHANGED;  // still due: the next flush tries again
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
    count(isam_com->syswrite);
    if (!datachangedf) fcp->is_optbits &= static_cast<uint8_t>(~ISO_DIRTYMARK);
    if (syncf && kisam::os_fdatasync(pfi->pfi_osfd) != 0) {
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
    return 1;
}

void v_stale_fcplock(IS_FCP* fcp) noexcept {
    if (!isam_com || !fcp) return;
    const int32_t rel = static_cast<int32_t>(kisam::rel_of(fcp));
    for (int u = 0; u < isam_com->maxopen; ++u) {
        if (is_env.pfo_tbl[u] != rel) continue;
        // The holder may have died in the middle of a chain change, before recording it:
        // whatever anyone knew of the chain is suspect, and the next miss walks it.
        if (isx_area) chain_forget(u);
        // A change count it left odd is now this hold's to make even at its release,
        // after the repairs (readers meanwhile take the lock and wait for them).
        v_seq_adopt(fcp, u);
        walk_unfix(fcp, u);
        return;
    }
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

void v_forget_file(int u) noexcept {
    if (!isam_com || bk.com != isam_com || !bk.ok || u < 0 || u >= bk.nopen) return;
    bk.known[u] = 0;
    bk.walked[u] = 0;
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
    bk.com = nullptr;
    bk.shmid = -1;
}

// ---- Change counts and reads without the lock (README.reads.md) ------------------------

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

namespace {
// Pages found by reads without the lock, not yet added to the shared hit count: added in
// batches, so that readers of one file do not all write one cache line per page.
uint32_t peek_hits = 0;
constexpr uint32_t kPeekFold = 4096;
}  // namespace

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

void v_fork_process(void) noexcept {
    peek_hits = 0;  // the parent adds its own
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
