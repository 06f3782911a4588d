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
//
// This header holds what the pool's files share: the per-process bookkeeping and the
// list of changed pages, the page index's lookup and the small helpers of every path.
// The pieces: v_index.cpp (bookkeeping, page index, chain knowledge: rules 2, 3, 6),
// v_chain.cpp (chain changes and the free list: rule 1), v_clock.cpp (victims and the
// miss that takes a slot: rule 5), v_read.cpp (fixing pages, page reads, releasing the
// fixes: rule 4), v_write.cpp (changed pages, the commit, write-back), v_peek.cpp
// (change counts and reads without the lock), v_alloc.cpp (page allocation).
#pragma once

#include "is_common.h"
#include "isx_area.h"
#include "layout.h"
#include "v_pool.h"

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace kisam::pool {

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

    // Mappings of the files' data for reads without the lock, for misses (v_peek.cpp)
    // and for write-backs (v_write.cpp), by file slot: base, the file's size as measured
    // (null, 0: none), the length mapped (a reserve past that size), the file's end
    // (is_lastpage) when its size was last measured, the misses past the mapping since
    // then, and whether the mapping is writable (the file is open for writing here).
    // Readers only ever read through a mapping.
    const char** map_base = nullptr;
    size_t* map_len = nullptr;
    size_t* map_cap = nullptr;
    uint32_t* map_last = nullptr;
    uint32_t* map_past = nullptr;
    uint8_t* map_rw = nullptr;

    // Where reads without the lock last found each page, by file slot and page number
    // (near[u][pno / page size]: slot + 1, 0 none), beside the page index: a read asks
    // this small array of its own first, and the page index only when the slot named
    // no longer carries the page's tag.  Only a guess, checked by the tag as an index
    // entry is; never used to say a page is not in the pool.  Grown as pages further in
    // are found, up to kNearMax pages per file.
    uint16_t** near = nullptr;
    uint32_t* near_len = nullptr;
};
inline constexpr uint32_t kNearMax = uint32_t{1} << 20;

extern PoolBook bk;


// The pages this process changed (v_write) since its last commit, each slot once: the
// content of the next log record of their file (lg.h).  Slots of several files may be
// listed when a process holds several control locks.  Indexed by buffer slot: a pool has
// at most INT16_MAX buffers (isx_config.cpp), so kSlots covers every slot and an int16_t
// names each.  (BU_FILEMASK bounds file slots, not buffers: the two must not be confused.)
inline constexpr int kSlots = INT16_MAX + 1;
extern int16_t chg_slot[kSlots];
extern uint8_t chg_in[kSlots];
extern int chg_n;
// (chg_in is the truth; after a call abandoned with a jump the list is rebuilt from it.)
// Whether this process's victims may be slots listed above (pages of its running call):
// only when nothing else is left.
extern bool take_own;

// Sets the tables up for the attached segment; called on first use after attach.
void book_setup() noexcept;

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
inline int index_pos(uint64_t key) noexcept {
    for (uint32_t i = home_of(key);; i = (i + 1) & bk.mask) {
        const uint64_t e = bk.tab[i];
        if (e == kEmpty) return -1;
        if (entry_key(e) == key) return static_cast<int>(i);
    }
}

// Drops slot s from the index.
void index_erase(int s) noexcept;
// Files slot s under (u, pno); pno KISAM_NOPAGE drops it.
void index_put(int u, PAGE pno, int s) noexcept;

// Slot of page (u, pno) by the index, validated against the shared tag (rule 2); -1.
inline int index_find(int u, PAGE pno) noexcept {
    int pos = index_pos(page_key(u, pno));
    if (pos < 0) return -1;
    int s = entry_slot(bk.tab[pos]);
    const IS_BUF* b = slot(s);
    // The page's lines are asked for with the tag's: in a large pool each is a miss of
    // the caches, and the search that follows would wait for them one after another.
    v_peek_ask(b->bu_data.c, kPeekWhole);
    if (file_of(b) == u && b->bu_pno == pno) return s;
    index_erase(s);
    return -1;
}

inline bool valid_slot(int s) { return s >= 0 && s < isam_com->maxbufs; }

// Slot whose bu_data is at addr, or -1 (v_slot_of).
inline int slot_of_data(const void* addr) noexcept {
    if (!isam_com || !addr) return -1;
    const uintptr_t base = reinterpret_cast<uintptr_t>(is_env.buf_) + offsetof(IS_BUF, bu_data);
    const uintptr_t p = reinterpret_cast<uintptr_t>(addr);
    if (p < base || (p - base) % sizeof(IS_BUF) != 0) return -1;
    const uintptr_t s = (p - base) / sizeof(IS_BUF);
    return s < static_cast<uintptr_t>(isam_com->maxbufs) ? static_cast<int>(s) : -1;
}

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
void learn(IS_FCP* fcp, int u) noexcept;
// The same without the lock, from the chain log alone: re-files the logged slots by the
// tags they carry now.  When this process then knows u as of a change count read during
// the call: 1 when it knew it already, 2 when it learnt something; 0 (knowledge left as
// it was) when it never knew u, or is so far behind that the log entries it needs may be
// overwritten while it reads them.  Only this process's index changes.
int learn_unlocked(int u) noexcept;
// Drops this process's read mapping of file slot u (all of them: u < 0).
void map_drop(int u) noexcept;
// The one place where a chain change is recorded (rule 3): slot s of file u was attached
// to u's chain, re-tagged or loaded, or taken away.  Called after the change, under u's
// control lock.  A process that knew u up to the change keeps knowing it.
void chain_changed(int u, int s) noexcept;
// A whole chain changed at once (given back, or the file slot taken by a new file):
// whoever knew it must walk it again.
void chain_reset(int u) noexcept;
// Makes everyone's knowledge of u's chain out of date, so that the next miss walks it (and
// counts its length again).  Requires u's control lock.
void chain_forget(int u) noexcept;

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

inline void clear_tag(IS_BUF* b) {
    b->bu_id = BU_FILEMASK;
    b->bu_pno = KISAM_NOPAGE;
}

// Clears every fix on u's chain.  Dirty slots stay dirty: pages reach the file only by
// write-back after the log that covers them (lg.h).
void walk_unfix(IS_FCP* fcp, int u) noexcept;
// Slot of page pno on the chain of fcp found by walking it; -1.
int chain_find(const IS_FCP* fcp, PAGE pno) noexcept;

// ---- Chain changes (v_chain.cpp) ---------------------------------------------------------
// load_slot, take_away and v_relbuf are the only places where a slot joins
// a chain, gets another page, or leaves a chain.  Each requires the control lock of the
// chain's file and records the change (chain_changed or chain_reset).
// Puts page pno of the current file u into slot s and loads it.  `attach`: s comes off the
// free list or another chain (buf_lock held) and goes to the head of u's chain; else s is
// one of u's own slots, re-tagged in place.  The page comes from the file, or (fresh)
// zeroed, or from src: an image read from the file without the lock (v_install).  A
// failed load gives an attached slot back to the free list and leaves a slot in place on
// the chain holding no page (rule 1).  Leaves u's change count alone: readers without the
// lock check each slot they used instead (README.reads.md rule 6).
// 0, or -1 with the error raised.
int load_slot(IS_FCP* fcp, int u, int s, PAGE pno, bool attach, bool fresh = false,
              const IS_DATA* src = nullptr) noexcept;
// Takes slot v off the chain of file w (control page wfcp) and tags it as moving (rule 1).
// Requires w's control lock and buf_lock.  False when v is not on that chain.
bool take_away(IS_FCP* wfcp, int w, int v) noexcept;
// Takes buf_lock; whoever takes it over from a holder that died first puts back the
// slots that holder may have left on no list.  0, or -1 (deadlock refused).
int lock_bufs() noexcept;

// ---- Victims (v_clock.cpp) ---------------------------------------------------------------
// Own-quota victim of the current file u (rule 5); -1 when no slot qualifies.
int own_victim(IS_FCP* fcp, int u, bool rdonly) noexcept;
// The lock-holding part of a miss: a free slot or a victim, attached to u's chain and
// loaded with pno.  Returns the slot or -1 (error raised, nothing of ours left locked).
int take_slot(IS_FCP* fcp, int u, PAGE pno, bool hb, bool fresh, const IS_DATA* src = nullptr) noexcept;

// ---- The commit (v_write.cpp) ------------------------------------------------------------
// The first half of v_flush: the pages this process changed in u, and u's control page,
// go into u's log as one record.  0, or -1 with the error pushed.
int commit_changes(IS_FCP* fcp, int u, IS_PFI* pfi) noexcept;

// ---- Reads without the lock (v_peek.cpp) -------------------------------------------------
// A miss's page read without a system call: bytes [off, off + kPage) of the current file
// u (descriptor fd) copied into dst from this process's mapping of the file
// (the one reads without the lock use).  False when the mapping does not cover them, a
// test replaced the system calls, or the copy faulted (the mapping is then dropped): the
// caller reads the page from the file instead.
bool map_load(int u, int fd, off_t off, char* dst) noexcept;
// The writable address of bytes [off, off + kPage) of file u (this process's descriptor
// fd, the file's end `last`) in this process's mapping of the file, made or grown as
// map_load would; null when the mapping is read-only or does not cover them.  A page past
// the file's size as measured is left to a write call (which extends the file: then
// map_reached) rather than measured again at every such page.
char* map_for_store(int u, int fd, off_t off, PAGE last) noexcept;
// A write call put bytes up to `end` into file u: the file reaches at least that far (a
// data file never shrinks while open), so the mapping covers them from now on when its
// reserve does.
void map_reached(int u, size_t end) noexcept;
// Forgets the hits counted by v_peek and not yet folded (a child after fork).
void peek_forget() noexcept;

}  // namespace kisam::pool
