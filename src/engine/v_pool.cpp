// The buffer pool: one array of page slots in the common area, shared by every process.
//
// Shared state (guarded as stated):
//   - a file's chain (jd_buf_hd, bu_next of its slots), its slots' marks and contents:
//     that file's control lock;
//   - the free list (buf_free) and moving a slot from one chain to another: buf_lock,
//     taken after the current file's control lock; another file's control lock is then
//     only tried without waiting;
//   - lru_cnt, lru_wcnt and the statistics: no lock (atomic updates).
//
// Per-process bookkeeping keeps hits and releases independent of the pool's size.  The
// rules below are what makes it agree with the shared slots (numbered as in
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
//  3. "Authority" for u means: every slot on u's chain is in the index, and chain_len[u]
//     is the chain's length.  It is gained by walking the whole chain under u's control
//     lock.  Every attach of a slot to a chain, and every re-tag in place, happens inside
//     some v_read that first advanced lru_cnt while holding that chain's control lock.
//     This process advances lru_cnt by compare-and-swap; when the old value is not the
//     one it produced last, another process ran v_read since, and all authority is
//     dropped.  Removals by others only make index entries fail rule 2.
//  4. The fix list holds every slot this process set BU_INUSE on (or found fixed) while
//     holding the slot's file's control lock, each slot once.  v_flush of u clears the
//     fixes and writes the dirty slots of u that are on the list; nothing else walks the
//     chain.  Fixes that other processes left are dealt with where they can arise: a
//     holder that died (v_stale_fcplock, called when its stale control word is taken
//     over) and a holder that gave the control lock up while waiting for a record lock
//     (that wait counts usrwaits; a flush that sees usrwaits moved since its last full
//     walk of the file walks the chain once, as a full flush does).
//     The first flush of a file in a process walks its chain once as well.
//  5. The steal scan over all slots is the miss path when the free list is empty.  It
//     clears the victim's tag before giving up the victim owner's control lock (rule 1),
//     updates that file's chain length, and, before waiting for a slot, takes over the
//     control words of holders that died so that their fixes do not block it forever.
//  6. The bookkeeping belongs to one attachment: it is rebuilt when the segment changes
//     (v_reset_process after attach and fork), and v_forget_file(u) when u's file goes.
//
// A process whose bookkeeping could not be allocated works without it: every lookup
// walks the chain and every flush walks it too.
#include "v_pool.h"

#include "fcp.h"
#include "is_common.h"
#include "is_error.h"
#include "is_lock.h"
#include "jn.h"
#include "os.h"

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

    // Page index: open addressing over slot numbers; key_of[s] is the key slot s is
    // filed under (kNoKey: not in the index), so each slot appears at most once and the
    // table never holds more than nbufs entries.
    int16_t* tab = nullptr;
    uint32_t mask = 0;
    int shift = 64;
    uint64_t* key_of = nullptr;

    // Authority (rule 3): auth_gen[u] == gen means authoritative for u.
    LRUt last_lru = 0;
    bool have_lru = false;
    uint32_t gen = 1;
    uint32_t* auth_gen = nullptr;
    int32_t* chain_len = nullptr;
    int32_t* auth_fcp = nullptr;     // pfo_tbl entry the authority was gained for

    // Fix list (rule 4).
    int16_t* fixed = nullptr;
    int nfixed = 0;
    uint8_t* listed = nullptr;

    // usrwaits at this process's last full flush walk of each file; walked[u] says valid.
    uint32_t* walk_waits = nullptr;
    uint8_t* walked = nullptr;
};

PoolBook bk;

void book_free() noexcept {
    std::free(bk.tab);
    std::free(bk.key_of);
    std::free(bk.auth_gen);
    std::free(bk.chain_len);
    std::free(bk.auth_fcp);
    std::free(bk.fixed);
    std::free(bk.listed);
    std::free(bk.walk_waits);
    std::free(bk.walked);
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
        bk.tab = static_cast<int16_t*>(std::malloc(cap * sizeof(int16_t)));
        bk.key_of = static_cast<uint64_t*>(std::malloc((nb + 1) * sizeof(uint64_t)));
        bk.fixed = static_cast<int16_t*>(std::malloc((nb + 1) * sizeof(int16_t)));
        bk.listed = static_cast<uint8_t*>(std::malloc(nb + 1));
        bk.auth_gen = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.chain_len = static_cast<int32_t*>(std::malloc((no + 1) * sizeof(int32_t)));
        bk.auth_fcp = static_cast<int32_t*>(std::malloc((no + 1) * sizeof(int32_t)));
        bk.walk_waits = static_cast<uint32_t*>(std::malloc((no + 1) * sizeof(uint32_t)));
        bk.walked = static_cast<uint8_t*>(std::malloc(no + 1));
        bk.ok = bk.tab && bk.key_of && bk.fixed && bk.listed && bk.auth_gen && bk.chain_len &&
                bk.auth_fcp && bk.walk_waits && bk.walked;
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
        std::memset(bk.tab, 0xFF, (bk.mask + 1) * sizeof(int16_t));
        for (int i = 0; i < nb; ++i) bk.key_of[i] = kNoKey;
        std::memset(bk.listed, 0, nb + 1);
        std::memset(bk.auth_gen, 0, (no + 1) * sizeof(uint32_t));
        std::memset(bk.walked, 0, no + 1);
        bk.gen = 1;
        bk.nfixed = 0;
    }
    bk.have_lru = false;
    bk.com = isam_com;
    bk.shmid = is_shmid;
}

inline bool book() noexcept {
    if (bk.com != isam_com || bk.shmid != is_shmid) book_setup();
    return bk.ok;
}

inline uint64_t page_key(int u, PAGE pno) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(u)) << 32) | pno;
}
inline uint32_t home_of(uint64_t key) {
    return static_cast<uint32_t>((key * 0x9E3779B97F4A7C15ull) >> bk.shift);
}

inline IS_BUF* slot(int s) { return is_env.buf_ + s; }
inline int file_of(const IS_BUF* b) { return b->bu_id & BU_FILEMASK; }

// Position in tab of slot s filed under key, or -1.
int index_pos(uint64_t key) noexcept {
    for (uint32_t i = home_of(key);; i = (i + 1) & bk.mask) {
        int s = bk.tab[i];
        if (s < 0) return -1;
        if (bk.key_of[s] == key) return static_cast<int>(i);
    }
}

void index_erase(int s) noexcept {
    uint64_t key = bk.key_of[s];
    if (key == kNoKey) return;
    bk.key_of[s] = kNoKey;
    uint32_t i = home_of(key);
    while (bk.tab[i] != s) i = (i + 1) & bk.mask;
    // Backward-shift deletion keeps every probe sequence unbroken without tombstones.
    for (uint32_t j = i;;) {
        j = (j + 1) & bk.mask;
        int t = bk.tab[j];
        if (t < 0) break;
        uint32_t k = home_of(bk.key_of[t]);
        bool movable = (j > i) ? (k <= i || k > j) : (k <= i && k > j);
        if (movable) {
            bk.tab[i] = static_cast<int16_t>(t);
            i = j;
        }
    }
    bk.tab[i] = -1;
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
        bk.key_of[bk.tab[pos]] = kNoKey;
        bk.tab[pos] = static_cast<int16_t>(s);
    } else {
        uint32_t i = home_of(key);
        while (bk.tab[i] >= 0) i = (i + 1) & bk.mask;
        bk.tab[i] = static_cast<int16_t>(s);
    }
    bk.key_of[s] = key;
}

// Slot of page (u, pno) by the index, validated against the shared tag (rule 2); -1.
inline int index_find(int u, PAGE pno) noexcept {
    int pos = index_pos(page_key(u, pno));
    if (pos < 0) return -1;
    int s = bk.tab[pos];
    const IS_BUF* b = slot(s);
    if (file_of(b) == u && b->bu_pno == pno) return s;
    index_erase(s);
    return -1;
}

inline bool authoritative(int u) noexcept {
    return bk.auth_gen[u] == bk.gen && bk.auth_fcp[u] == is_env.pfo_tbl[u];
}
inline void drop_all_authority() noexcept {
    if (++bk.gen == 0) {
        std::memset(bk.auth_gen, 0, (bk.nopen + 1) * sizeof(uint32_t));
        bk.gen = 1;
    }
}
inline void set_authority(int u, int len) noexcept {
    bk.auth_gen[u] = bk.gen;
    bk.chain_len[u] = len;
    bk.auth_fcp[u] = is_env.pfo_tbl[u];
}
// Authority may be used without advancing the clock (v_hit) only if nobody advanced it.
inline void check_authority() noexcept {
    if (!bk.have_lru ||
        std::atomic_ref<uint32_t>(isam_com->lru_cnt).load(std::memory_order_acquire) !=
            bk.last_lru)
        drop_all_authority();
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

// Advances lru_cnt; drops all authority when another process advanced it meanwhile.
inline LRUt use_clock(bool have_book) noexcept {
    std::atomic_ref<uint32_t> c(isam_com->lru_cnt);
    uint32_t old = c.load(std::memory_order_relaxed), nv;
    do {
        nv = old + 1;
        if (nv == 0) nv = 1;
    } while (!c.compare_exchange_weak(old, nv, std::memory_order_acq_rel));
    if (have_book) {
        if (!bk.have_lru || old != bk.last_lru) drop_all_authority();
        bk.last_lru = nv;
        bk.have_lru = true;
    }
    return nv;
}

inline void count(uint32_t& stat) noexcept {
    std::atomic_ref<uint32_t>(stat).fetch_add(1, std::memory_order_relaxed);
}
inline LRUt clock_now() noexcept {
    return std::atomic_ref<uint32_t>(isam_com->lru_cnt).load(std::memory_order_relaxed);
}

inline int current_file() noexcept {
    return is_curdb ? is_curdb->uniqueid : static_cast<int>(is_curpfi - is_pfi);
}

inline bool writable(const IS_PFI* pfi) { return pfi->pfi_osfd >= 0 && !(pfi->pfi_bits & PFI_RDONLY); }

inline bool valid_slot(int s) { return s >= 0 && s < isam_com->maxbufs; }

// A failing pread/pwrite stands for a failing seek when the offset was the problem.
inline bool seek_errno(int e) { return e == EINVAL || e == ESPIPE || e == EOVERFLOW; }

// Writes the control page image of fcp at offset 0; 0 or -1 (errno set).
int write_fcp(IS_FCP* fcp, int fd) noexcept {
    unsigned char img[kisam::kFcpImage];
    kisam::fcp_image(fcp, img);
    if (kisam::os_pwrite_full(fd, img, sizeof img, 0) != 0) {
        fcp->is_optbits |= ISO_CHANGED;  // still due: the next flush tries again
        return -1;
    }
    count(isam_com->syswrite);
    return 0;
}

// Clears every fix on u's chain and writes its dirty slots when the file is writable
// here; stops at the first failing write (-1, error raised with the flush codes when
// `flush_codes`, else by writebuf).
int walk_unfix(IS_FCP* fcp, int u, bool flush_codes) noexcept {
    // A process still attaching (cleaning up after the dead) has no tables yet: it
    // cannot write anything, and only unfixes.
    IS_PFI* pfi = is_pfi ? &is_pfi[u] : nullptr;
    const bool wr = pfi && writable(pfi);
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < isam_com->maxbufs; s = slot(s)->bu_next, ++n) {
        IS_BUF* b = slot(s);
        b->bu_id &= static_cast<uint16_t>(~BU_INUSE);
        if (!wr || !(b->bu_id & BU_DIRTY)) continue;
        if (!flush_codes) {
            if (writebuf(b) != 0) return -1;
            continue;
        }
        off_t off = v_fileoffset(fcp, b->bu_pno);
        if (off < 0) return is_raise(ISE_FLSK, PROC(P_V_READ, 2));
        if (kisam::os_pwrite_full(pfi->pfi_osfd, b->bu_data.c, kisam::kPage, off) != 0)
            return is_raise(seek_errno(errno) ? ISE_FLSK : ISE_FLWT,
                            PROC(P_V_READ, seek_errno(errno) ? 2 : 3));
        count(isam_com->syswrite);
        b->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
    }
    return 0;
}

// Unlinks slot v from the chain of fcp; false when v is not on it.
bool chain_unlink(IS_FCP* fcp, int v) noexcept {
    if (fcp->jd_buf_hd == v) {
        fcp->jd_buf_hd = slot(v)->bu_next;
        return true;
    }
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < isam_com->maxbufs; s = slot(s)->bu_next, ++n) {
        if (slot(s)->bu_next == v) {
            slot(s)->bu_next = slot(v)->bu_next;
            return true;
        }
    }
    return false;
}

inline void clear_tag(IS_BUF* b) {
    b->bu_id = BU_FILEMASK;
    b->bu_pno = KISAM_NOPAGE;
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

// The lock-holding part of a miss: a free slot or a victim, attached to u's chain and
// loaded with pno.  Returns the slot or -1 (error raised, nothing of ours left locked).
int take_slot(IS_FCP* fcp, int u, PAGE pno, bool hb) noexcept {
    struct isam_com* com = isam_com;
    const int nb = com->maxbufs;
    for (;;) {
        if (lock_bufs() != 0) return is_raise(ISE_DEADLOCK, PROC(P_V_READ, 6));
        int S = com->buf_free;
        if (S != -1) {
            if (!valid_slot(S)) {
                is_unlock(&com->buf_lock);
                return is_raise(ISE_BUFLINK, PROC(P_V_READ, 1));
            }
            com->buf_free = slot(S)->bu_next;
            count(com->missfree);
        } else {
            // Least recently used slot whose owner file this process can lock now.
            int best = -1;
            LRUt bestcnt = 0;
            IS_FCP* bestfcp = nullptr;
            bool bestlocked = false;  // the scan took bestfcp's control word
            for (int i = 0; i < nb; ++i) {
                IS_BUF* b = slot(i);
                uint16_t id = b->bu_id;
                if (id & BU_INUSE) continue;
                if (best >= 0 && !(b->bu_cnt < bestcnt)) continue;
                int w = id & BU_FILEMASK;
                if (w >= com->maxopen) continue;
                IS_FCP* ofcp = pfo_fcp(w);
                if (!ofcp) continue;
                if ((id & BU_DIRTY) && (!is_pfi || !writable(&is_pfi[w]))) continue;
                bool took = false;
                if (ofcp != bestfcp) {
                    if (!is_lock_mine(&ofcp->jd_fcplock)) {
                        if (is_lockitnw(kisam::com_offset(&ofcp->jd_fcplock)) != 0) continue;
                        const unsigned prev = is_lock_claim(&ofcp->jd_fcplock);
                        const bool stale = prev != 0;
                        took = true;
                        // A holder that died may have left fixes on its file's slots, and
                        // a call half done, which the file's next user rolls back.
                        if (stale) {
                            jn_note_stale(ofcp, prev);
                            v_stale_fcplock(ofcp);
                        }
                    }
                    if (bestlocked) is_unlock(&bestfcp->jd_fcplock);
                    bestfcp = ofcp;
                    bestlocked = took;
                }
                best = i;
                bestcnt = b->bu_cnt;
            }
            if (best < 0) {
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
            IS_BUF* v = slot(best);
            const int w = file_of(v);
            if (v->bu_id & BU_DIRTY) {
                if (writebuf(v) != 0) {
                    if (bestlocked) is_unlock(&bestfcp->jd_fcplock);
                    is_unlock(&com->buf_lock);
                    return -1;
                }
                count(com->misswrite);
            } else {
                count(com->missread);
            }
            if (!chain_unlink(bestfcp, best)) {
                if (bestlocked) is_unlock(&bestfcp->jd_fcplock);
                is_unlock(&com->buf_lock);
                return is_raise(ISE_BUFLINK, PROC(P_V_READ, 1));
            }
            // Off its chain the slot must not keep a tag that names it (rule 1): once the
            // owner's lock is given up, its next holder would take it for the page.
            clear_tag(v);
            if (hb && bk.auth_gen[w] == bk.gen) bk.chain_len[w]--;
            if (bestlocked) is_unlock(&bestfcp->jd_fcplock);
            S = best;
        }
        IS_BUF* b = slot(S);
        b->bu_next = fcp->jd_buf_hd;
        fcp->jd_buf_hd = static_cast<int16_t>(S);
        b->bu_id = static_cast<uint16_t>(u);
        b->bu_cnt = clock_now();
        b->bu_pno = KISAM_NOPAGE;  // named only once loaded (readbuf)
        b->bu_wcnt = clock_advance(com->lru_wcnt);
        if (readbuf(b, pno) != 0) {
            // Give the slot back rather than leave a page-less slot on the chain.
            fcp->jd_buf_hd = b->bu_next;
            clear_tag(b);
            b->bu_next = com->buf_free;
            com->buf_free = static_cast<int16_t>(S);
            if (hb) index_erase(S);
            is_unlock(&com->buf_lock);
            return -1;
        }
        b->bu_id |= BU_INUSE;
        is_unlock(&com->buf_lock);
        if (hb) {
            if (authoritative(u)) bk.chain_len[u]++;
            index_put(u, pno, S);
            fix_note(S);
        }
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

IS_DATA* v_read(PAGE pno) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    const bool hb = book();
    const LRUt C = use_clock(hb);

    if (hb) {
        int s = index_find(u, pno);
        if (s >= 0) {
            IS_BUF* b = slot(s);
            count(isam_com->hit);
            b->bu_cnt = C;
            b->bu_id |= BU_INUSE;
            fix_note(s);
            return &b->bu_data;
        }
    }

    // Walk the chain when the index cannot answer: count the slots and pick the own-quota
    // candidate (smallest bu_cnt, first met on a tie; unfixed; clean for a read-only opener).
    const bool rdonly = is_curpfi->pfi_bits & PFI_RDONLY;
    const int nb = isam_com->maxbufs;
    int len = 0;
    int cand = -1;
    if (!hb || !authoritative(u) || bk.chain_len[u] >= isam_com->maxfbuf) {
        const bool lookup = !hb || !authoritative(u);
        LRUt candcnt = 0;
        for (int s = fcp->jd_buf_hd; valid_slot(s) && len < nb; s = slot(s)->bu_next) {
            IS_BUF* b = slot(s);
            ++len;
            if (lookup && b->bu_pno == pno && pno != KISAM_NOPAGE) {
                count(isam_com->hit);
                b->bu_cnt = C;
                b->bu_id |= BU_INUSE;
                if (hb) {
                    index_put(u, pno, s);
                    fix_note(s);
                }
                return &b->bu_data;
            }
            if (hb) index_put(u, b->bu_pno, s);
            uint16_t id = b->bu_id;
            if (!(id & BU_INUSE) && !(rdonly && (id & BU_DIRTY)) && (cand < 0 || b->bu_cnt < candcnt)) {
                cand = s;
                candcnt = b->bu_cnt;
            }
        }
        if (hb) set_authority(u, len);
    } else {
        len = bk.chain_len[u];
    }

    if (len >= isam_com->maxfbuf && cand >= 0) {
        // Own-quota reuse: the slot stays on this file's chain; no buf_lock needed.
        IS_BUF* b = slot(cand);
        if ((b->bu_id & BU_DIRTY) && writebuf(b) != 0) return nullptr;
        b->bu_cnt = clock_now();
        b->bu_pno = KISAM_NOPAGE;  // stays on the chain, holding no page until loaded
        b->bu_wcnt = clock_advance(isam_com->lru_wcnt);
        if (hb) index_erase(cand);
        if (readbuf(b, pno) != 0) return nullptr;
        count(isam_com->missfree);
        b->bu_id |= BU_INUSE;
        if (hb) {
            index_put(u, pno, cand);
            fix_note(cand);
        }
        return &b->bu_data;
    }

    int s = take_slot(fcp, u, pno, hb);
    return s < 0 ? nullptr : &slot(s)->bu_data;
}

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
    const off_t off = v_fileoffset(ofcp, b->bu_pno);
    b->bu_wcnt = clock_advance(isam_com->lru_wcnt);
    // The data-changed mark reaches the disk before the first page write after a clean
    // state; a page is not written when its mark could not be.
    if ((ofcp->is_optbits & (ISO_TRACK | ISO_DIRTYMARK)) == ISO_TRACK &&
        fcp_setdatachanged(ofcp, pfi, 1, ofcp->is_optbits & (ISO_SYNC | ISO_CLEARREL)) < 0)
        return is_raise(ISE_RDWT, PROC(P_V_READ, 3));
    if (off < 0) return is_raise(ISE_RDSK, PROC(P_V_READ, 2));
    if (kisam::os_pwrite_full(pfi->pfi_osfd, b->bu_data.c, kisam::kPage, off) != 0)
        return seek_errno(errno) ? is_raise(ISE_RDSK, PROC(P_V_READ, 2))
                                 : is_raise(ISE_RDWT, PROC(P_V_READ, 3));
    count(isam_com->syswrite);
    b->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
    return 0;
}

int v_write(PAGE pno, IS_DATA* datap) noexcept {
    int s = v_slot_of(datap);
    if (s < 0 || slot(s)->bu_pno != pno) return -1;
    return writebuf(slot(s));
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
    const bool hb = book();
    int s = -1;
    if (hb) {
        s = index_find(u, pno);
        if (s < 0) {
            check_authority();
            if (authoritative(u)) return 0;
        }
    }
    if (s < 0 && pno != KISAM_NOPAGE) {
        const int nb = isam_com->maxbufs;
        int len = 0;
        for (int t = fcp->jd_buf_hd; valid_slot(t) && len < nb; t = slot(t)->bu_next, ++len) {
            if (slot(t)->bu_pno == pno) {
                s = t;
                break;
            }
        }
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
    const bool wr = writable(pfi);
    if ((fcp->is_optbits & ISO_CHANGED) && wr) {
        if (fcp->is_optbits & ISO_SEQ) {
            fcp->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);
        } else if (write_fcp(fcp, pfi->pfi_osfd) != 0) {
            return is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        }
    }

    if (!book()) return walk_unfix(fcp, u, true);
    // A holder that waited for a record lock gave the control lock up with its fixes in
    // place; the first flush after such a wait walks the chain once.
    const uint32_t waits = std::atomic_ref<uint32_t>(isam_com->usrwaits).load(std::memory_order_relaxed);
    if (!bk.walked[u] || bk.walk_waits[u] != waits) {
        if (walk_unfix(fcp, u, true) != 0) return -1;
        bk.walked[u] = 1;
        bk.walk_waits[u] = waits;
    }

    int keep = 0;
    int rc = 0;
    for (int i = 0; i < bk.nfixed; ++i) {
        const int s = bk.fixed[i];
        IS_BUF* b = slot(s);
        const int f = file_of(b);
        if (rc != 0 || (f != u && f < bk.nopen)) {
            bk.fixed[keep++] = static_cast<int16_t>(s);  // another file's, or not reached
            continue;
        }
        if (f == u) {
            b->bu_id &= static_cast<uint16_t>(~BU_INUSE);
            if (wr && (b->bu_id & BU_DIRTY)) {
                const off_t off = v_fileoffset(fcp, b->bu_pno);
                if (off < 0) {
                    rc = is_raise(ISE_FLSK, PROC(P_V_READ, 2));
                } else if (kisam::os_pwrite_full(pfi->pfi_osfd, b->bu_data.c, kisam::kPage, off) != 0) {
                    rc = is_raise(seek_errno(errno) ? ISE_FLSK : ISE_FLWT,
                                  PROC(P_V_READ, seek_errno(errno) ? 2 : 3));
                } else {
                    count(isam_com->syswrite);
                    b->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
                }
                if (rc != 0) {
                    bk.fixed[keep++] = static_cast<int16_t>(s);
                    continue;
                }
            }
        }
        bk.listed[s] = 0;
    }
    bk.nfixed = keep;
    return rc;
}

namespace {

// Gives fcp's whole chain to the free list.  The stores are ordered so that a process
// killed between any two of them leaves every slot on at most one list (at worst some
// slots on none, which the steal scan's repair finds again).
void chain_to_free_list(IS_FCP* fcp) noexcept {
    const int nb = isam_com->maxbufs;
    const int head = fcp->jd_buf_hd;
    int last = -1;
    int n = 0;
    for (int s = head; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        clear_tag(slot(s));
        last = s;
    }
    struct isam_com* com = isam_com;
    while (lock_bufs() != 0) ZTSleepMS(1);
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
    chain_to_free_list(fcp);
    v_forget_file(u);
}

bool v_giveback(IS_FCP* fcp, int u) noexcept {
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n)
        if (slot(s)->bu_id & BU_DIRTY) return false;
    chain_to_free_list(fcp);
    v_forget_file(u);
    return true;
}

int fcp_setdatachanged(IS_FCP* fcp, IS_PFI* pfi, int datachangedf, int syncf) noexcept {
    if ((fcp->is_optbits & ISO_SEQ) || (pfi->pfi_bits & PFI_RDONLY)) return 0;
    const bool marked = fcp->is_optbits & ISO_DIRTYMARK;
    if ((datachangedf != 0) == marked) return 0;
    // The data must be on disk before a mark that says it is clean, and a mark that says
    // it is being changed before the data: a synchronisation that fails leaves the mark
    // as it was, and says so.
    if (syncf && kisam::os_fdatasync(pfi->pfi_osfd) != 0) {
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
    if (datachangedf)
        fcp->is_optbits |= ISO_DIRTYMARK;
    else
        fcp->is_optbits &= static_cast<uint8_t>(~ISO_DIRTYMARK);
    fcp->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);
    if (write_fcp(fcp, pfi->pfi_osfd) != 0) {
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
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
        // Errors of the writes stay with the slots (still dirty); the caller's operation
        // goes on and its own flush tries again.
        const short err = is_errno;
        struct is_etrace stk[20];
        std::memcpy(stk, is_estk, sizeof stk);
        struct is_etrace* top = is_etop;
        const int64_t all = is_eall;
        walk_unfix(fcp, u, false);
        is_errno = err;
        std::memcpy(is_estk, stk, sizeof stk);
        is_etop = top;
        is_eall = all;
        return;
    }
}

void v_discard(IS_FCP* fcp, int u, PAGE* pages, int n, PAGE from) noexcept {
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
        }
    }
}

void v_repair_lists(void) noexcept { repair_lists(); }

void v_forget_file(int u) noexcept {
    if (!isam_com || bk.com != isam_com || !bk.ok || u < 0 || u >= bk.nopen) return;
    bk.auth_gen[u] = 0;
    bk.walked[u] = 0;
}

void v_reset_process(void) noexcept {
    bk.com = nullptr;
    bk.shmid = -1;
}
