// The buffer pool and page allocation (rules in v_internal.h and README.pool.md).
//
// Requires: the calls on pages work on the current file (is_curdb, is_curpfi, is_curfcp,
// set by the call frame) and require this process to hold that file's control lock;
// calls on another file (slot u, control page fcp) state the lock they need; buf_lock is
// the pool's own, never held by a caller.  A page returned by v_read or v_new stays fixed
// (BU_INUSE) until v_unsafe or the next v_flush.
#pragma once

#include "layout.h"

#include <setjmp.h>

#include <atomic>

IS_DATA* v_read(PAGE pno) noexcept;                 // fixed page, or null (error raised)
int v_write(PAGE pno, IS_DATA* datap) noexcept;     // 0, -1
int v_unsafe(PAGE pno, char* addr) noexcept;        // 0, -1 when the slot does not hold pno
int v_hit(PAGE pno, int keyno) noexcept;            // 1 when cached as a page of keyno
// For the holder of the current file's control lock, ahead of the reads of several pages
// at once (bt_warm): v_ask asks the memory for the line of this process's page index that
// names page pno; v_glance then gives the page's slot data when the index names a slot
// that holds it (its lines asked for, as a hit's), else null.  Nothing is fixed, loaded,
// learnt or counted: a page the pool does not hold is left to the read that follows.
// Under the lock nobody else re-tags the file's slots, so the data is the page until
// this process calls the pool again.
void v_ask(PAGE pno) noexcept;
const IS_DATA* v_glance(PAGE pno) noexcept;
int v_flush(void) noexcept;                         // 0, -1
void v_relbuf(void) noexcept;                       // flush, then give the chain back
int fcp_setdatachanged(IS_FCP* fcp, IS_PFI* pfi, int datachangedf, int syncf) noexcept;

// Page I/O of one slot.  readbuf loads page pno of the current file into b and only then
// sets bu_pno (the slot holds no page until the load is complete); writebuf writes b to
// its owner file (bu_id) and clears BU_DIRTY.  0, or -1 with the error raised.
int readbuf(IS_BUF* b, PAGE pno) noexcept;
int writebuf(IS_BUF* b) noexcept;
// Slot whose bu_data is at addr, or -1 when addr is not the data of a slot.
int v_slot_of(const void* addr) noexcept;

IS_DATA* v_new(PAGE* pno) noexcept;                 // zeroed fixed page, or null
// Page pno past the file's end, zeroed in a fixed slot without reading; null on error.
IS_DATA* v_fresh(PAGE pno) noexcept;

// ---- The log's side of the pool (lg.h) ---------------------------------------------------
// v_write marks a page dirty and keeps it fixed until the commit; v_flush commits: the
// pages this process changed in the current file go into its log as one record.
// After a call of this process was abandoned (a signal handler left it with siglongjmp):
// makes the list of changed pages agree with their marks again.
void v_abandoned(void) noexcept;
// Forgets the pages this process changed in file u since its last commit (rolled back).
void v_unit_forget(int u) noexcept;
// Puts d back as page pno of file u when a slot on u's chain holds it; false when none
// does.  Requires u's control lock.
bool v_restore(IS_FCP* fcp, int u, PAGE pno, const IS_DATA* d) noexcept;
// Writes every dirty, unfixed slot of u through fd (the log on disk before: a checkpoint).
// 0, or -1 with the error raised.  Requires u's control lock.
int v_write_back(IS_FCP* fcp, int u, int fd) noexcept;
// Calls fn(arg, file offset, page) for each page of u not yet written back; stops at the
// first nonzero return (-1).  Requires u's control lock.
int v_dirty_pages(IS_FCP* fcp, int u, int (*fn)(void*, off_t, const IS_DATA*), void* arg) noexcept;
// Calls fn(arg, slot) for each slot of the pool that holds a page of u, written back or
// not; stops at the first nonzero return (-1).  Requires u's control lock.
int v_file_slots(IS_FCP* fcp, int u, int (*fn)(void*, int), void* arg) noexcept;
int v_dispose(PAGE pno, IS_DATA* bp) noexcept;      // 0, -1

// File offset of page pno of a file with control page fcp.
inline off_t v_fileoffset(const IS_FCP* fcp, PAGE pno) {
    bool full = (fcp->is_optbits & ISO_SEQ) || fcp->is_magic == ISMAGIC_1024;
    return full ? static_cast<off_t>(pno) : static_cast<off_t>(pno) - 512;
}

// Per-process pool bookkeeping: drop everything known about shared-file slot u (its
// file was closed everywhere or its slot is being reused).
void v_forget_file(int u) noexcept;
// Shared-file slot u has just been taken by a newly opened file (whose chain is empty):
// resets the pool's shared record of the slot, so that nothing learnt about the previous
// file carries over in any process.  Requires opcl_lock.
void v_enter_file(int u) noexcept;
// Called when this process takes over the control word of fcp from a holder that died
// (is_getctl after is_lock reported a stale word, or the pool's own no-wait scan): clears
// the fixes (BU_INUSE) that holder left on the file's slots.  Requires that control lock.
void v_stale_fcplock(IS_FCP* fcp) noexcept;
// Drops the cached copies of file u's pages that an undo rewrites on disk: every page in
// pages[0..n) (n < 0: every page) and every page from `from` on.  Their slots stay on
// the chain holding no page, unfixed and clean.  Requires u's control lock.
void v_discard(IS_FCP* fcp, int u, PAGE* pages, int n, PAGE from) noexcept;
// Gives the whole chain of fcp (slot u) to the free list without writing anything, for a
// file that nobody has open any more; false (nothing done) when a slot holds a page not
// yet on disk.  Requires fcp's control lock.
bool v_giveback(IS_FCP* fcp, int u) noexcept;
// Puts every slot that is on no list (left by a process killed while it moved one) back
// on the free list.  Requires buf_lock; done by the first miss after a dead holder of
// buf_lock.
void v_repair_lists(void) noexcept;
// Drop the whole per-process bookkeeping (after attach or detach).
void v_reset_process(void) noexcept;
// In a child after fork: keeps what the parent knew of the files' chains (dated by the
// shared change counts, so the child checks it as the parent would have), drops what was
// the parent's alone (its fix list, flush walks, steal scans, uncounted hits).
void v_fork_process(void) noexcept;

// ---- Change counts: reads that take no lock (README.reads.md) --------------------------
// The holder of fcp's control lock (file slot u) is about to change a page, a slot, the
// chain or the shared control page of u: makes u's change count (xf_seq) odd, once per
// hold; the release of the control word makes it even again (is_unlock).
void v_changing(IS_FCP* fcp, int u) noexcept;
// After this process took fcp's control word over: a count left odd by a holder that died
// becomes this hold's, made even at its release.
void v_seq_adopt(IS_FCP* fcp, int u) noexcept;
// For a reader that holds no lock: the slot data of page pno of file u when this
// process's page index names a slot whose tag says it holds that page; null otherwise.
// Writes nothing shared but the slot's reference byte (only when a hand cleared it) and,
// every 4096 pages, the pool's hit count.  What it returns may change at any moment: the
// caller validates what it read with the file's change count, and, since a slot may be
// given another page without that count (a miss of another process), with the slot's
// mark (*m): v_peek_still_all after the last byte of the page was read.
struct PeekMark {
    int slot;
    uint32_t stamp;  // bu_wcnt: changes at every load of the slot (and write-back)
    PAGE pno;
};
// `ask` names the bytes of the page the caller reads next, asked of the memory at once
// with the slot's tag: kPeekWhole the whole page (a bisection), an offset > 0 the two
// lines from there (a record), 0 nothing.
inline constexpr int kPeekWhole = -1;
// Whether this process's page index serves file u of the attached pool.  v_peek and
// v_peek_again require it: a reader checks it once per read, not at every page (nothing
// in a read without the lock attaches, detaches or sets the index up).
bool v_peek_ready(int u) noexcept;
const IS_DATA* v_peek(int u, PAGE pno, PeekMark* m, int ask = 0) noexcept;
// The slot data of m again, for a reader that holds no lock, when the slot still holds
// the page of m as it did when v_peek returned it (tag and stamp); null otherwise.  The
// same check is due after use (v_peek_still_all).
const IS_DATA* v_peek_again(int u, const PeekMark& m, int ask = 0) noexcept;
// The cache line at p asked for ahead of its use, as an instruction the compiler keeps:
// GCC drops a branch whose only effects are three or more __builtin_prefetch calls.
inline void v_prefetch(const char* p) noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __asm__ volatile("prefetcht0 %0" : : "m"(*p));
#else
    __builtin_prefetch(p);
#endif
}
// Asks the memory for the bytes `ask` names (as v_peek) of a page at p.
inline void v_peek_ask(const char* p, int ask) noexcept {
    if (ask == kPeekWhole) {
#pragma GCC unroll 16
        for (int off = 0; off < 1024; off += 64) v_prefetch(p + off);
    } else if (ask > 0 && ask < 1024) {
        v_prefetch(p + ask);
        v_prefetch(p + (ask + 63 < 1024 ? ask + 63 : 1023));
    }
}
// Look-ahead of a reader that holds no lock (a scan asking for what its next steps will
// read): the bytes of page pno of u (the current file) where a read would find them now
// -- the slot this process's page index names (slot -1: look it up; the tag is not
// checked), else the file's mapping -- or null.  Only a guess, never to be trusted: the
// bytes may be any page's, torn, or change at any moment; a caller bounds everything it
// takes from them.  Writes nothing; no system call.
const char* v_peek_guess(int u, PAGE pno, int slot = -1) noexcept;
// Asks the memory for the bytes `ask` names (as v_peek) of page pno of u where
// v_peek_guess finds it.
void v_peek_prefetch(int u, PAGE pno, int ask) noexcept;
// Whether the slots of the n marks at m all still hold the pages of their marks as they
// did when v_peek returned them: neither re-tagged nor reloaded since.  Call after an
// acquire fence that follows the reads of the pages.
bool v_peek_still_all(int u, const PeekMark* m, int n) noexcept;
// For a reader that holds no lock: learns the chain changes of others that u's chain
// log still holds, without the lock (only this process's page index changes).  Nonzero
// when this process then knows u as of a change count read during the call (2: it learnt
// something, so that a page v_peek did not find may be in the index now): a page that
// v_peek does not find after it is not in the pool, or is there as the file holds it
// (a page changed in the pool, and not yet written back, stays in its slot until a
// write-back, which makes the change count odd).
int v_peek_learn(int u) noexcept;
// For a reader that holds no lock, after v_peek_learn(u) said nonzero and v_peek did not
// find page pno: the page as the current file (u) holds it, through a read-only
// mapping of the file that this process keeps; null when the page is not in the file,
// past the file's end, or cannot be mapped.  Valid when u's change count, even when the
// read began, is still the same after the last byte was read: every write of a page of
// u to the file, and every change of a page in the pool, makes it odd.  Nothing is
// fixed or loaded; no lock, no system call but a mapping's (made again when the file grew).
const IS_DATA* v_peek_file(int u, PAGE pno) noexcept;
// Pages this process read through v_peek_file (a figure for tests and benchmarks).
extern unsigned long v_file_reads;
// Pages this process's misses loaded into the pool from its mapping of the file, not by
// a read call (a figure for tests and benchmarks).
extern unsigned long v_map_loads;
// Pages this process wrote back by a store into its mapping of the file, not by a write
// call, and stores that faulted and were written by a write call instead (figures for
// tests and benchmarks).
extern unsigned long v_map_stores;
extern unsigned long v_store_faults;
// A read through the files' mappings may fault where the file no longer holds the page
// (another program cut it short, the disk failed to read it back): the kernel sends
// SIGBUS.  A reader arms its thread's jump target for the span of its accesses
// (v_mapped_arm: after a sigsetjmp(r->env, 0) that returned 0; v_mapped_disarm at the
// end).  The library's SIGBUS handler, installed once per process with the first
// mapping, jumps there when the faulting address lies in one of this process's mappings
// and the thread is armed; any other SIGBUS goes on to the disposition the handler
// replaced.  After the jump (sigsetjmp returned nonzero, the thread disarmed),
// v_mapped_fault drops the mapping that faulted: it is measured and made again when
// next needed.  Between arming and disarming a reader takes no lock and leaves nothing
// shared or per process half changed at any access to a mapping.
struct MappedRead {
    sigjmp_buf env;
};
// v_mapped_arm returns the thread's target, which v_mapped_disarm clears: one look-up of
// the thread's storage per read.  The form without it looks the target up again.
MappedRead** v_mapped_arm(MappedRead* r) noexcept;
inline void v_mapped_disarm(MappedRead** target) noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    *target = nullptr;
}
void v_mapped_disarm() noexcept;
// The same for stores into another shared mapping of this process, [lo, lo + len) (the
// redo log's, whose pages the disk may fail to read back or another program may cut
// away): the handler jumps to r when the fault lies there.  The writer handles the fault
// itself (no v_mapped_fault).  v_mapped_install installs the handler first (once per
// process; false when it cannot be, and the mapping must then not be stored into).
void v_mapped_arm_range(MappedRead* r, const void* lo, size_t len) noexcept;
bool v_mapped_install() noexcept;
void v_mapped_fault() noexcept;
// Faults in a mapping that this process turned into a jump (a figure for tests).
extern unsigned long v_map_faults;
// For a reader that holds no lock and did not find page pno of u in its page index:
// false when the chain changes this process has not learnt yet (the chain log since its
// count) name no slot that now holds the page, so that the page is most likely not in
// the pool; true when it may be there, or when this process cannot tell.  A hint only.
bool v_peek_maybe_cached(int u, PAGE pno) noexcept;
// A miss of a reader without the lock (README.reads.md rule 16): page pno of the current
// file read from the file into img, with no lock, after the file's change count (*seq)
// was found even.  0, or -1 when the count was odd, the page cannot be a page of the file
// or the read failed (nothing raised: the locked read reports whatever is wrong).
int v_fetch_unlocked(PAGE pno, IS_DATA* img, uint32_t* seq) noexcept;
// The second half of such a miss, under the current file's control lock: learns the
// chain changes of others; when page pno is not in the pool and `load`, loads it fixed
// (released by the next v_flush) -- from img when the change count is still seq (no page
// of the file was written or changed since img was read), else from the file.  0, or -1
// with the error raised.
int v_install(PAGE pno, const IS_DATA* img, uint32_t seq, bool load) noexcept;
// Adds the pages v_peek found since the last fold to the pool's hit count.
void v_peek_fold(void) noexcept;
