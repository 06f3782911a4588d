// B-tree indexes: search, insert with splits, delete with underflow repair.
//
// Requires: the current file's control lock, and for a change the call's unit (a page's
// before-image is saved before it first changes).  Pages go through the buffer pool and
// reach the file's log at the commit.  Item layout and page format: see bt_search.cpp.
//
// Page of key k (L = k_itemlen, inc = L + 4):
//   0  int16 bt_keyno, 2 int16 bt_nitems, 4 PAGE pointer 0 (__p0),
//   8 + i*inc item i (L bytes), then pointer i+1 (the child right of item i).
// In a leaf every pointer is KISAM_NOPAGE.  Items rise strictly over k_ncomp bytes, with
// the pad byte of an odd-length key taken as 0.
//
// Errors: the routine where a failure arises raises (is_errno + new stack); the B-tree
// adds its own procedure code with the detail of the failing step on the way out.  A
// failure in the middle of a split or a repair leaves the pages already written.
#pragma once

#include "jn.h"
#include "layout.h"

#include <cstdint>

// search: 1 found (item filled), 0 none, -1 failure.  srchflag 0/1 forward (1: equal
// qualifies), 2/3 backward, 5 exact over k_keylen bytes.  Reads and updates the cursor's
// currpage as a start hint.  The page holding the returned item stays fixed until flush.
int bt_search(int keyno, PAGE page, int srchflag, char* item, int depth) noexcept;
// insert: 0 stored, 1 already present (exchanged with forcef), -1 failure.  With forcef
// the 4 bytes at k_offset of the present item and of `item` are exchanged.  Fails with
// ISE_KEYSAVE (stack 0x030E) when the carried item area cannot be allocated.
int bt_insert(int keyno, PAGE page, char* item, int depth, int forcef) noexcept;
// Before the inserts of one record's items into several trees (a write): descends the
// trees of keys keynos[0..n) towards items[i] all at once, a level at a time, through the
// pages the pool holds, so that the misses of the caches of one level overlap instead of
// following one another; each leaf reached becomes its cursor's hint, which the next
// bt_insert of that key tries first.  Reads only, and decides nothing: a page the pool
// does not hold ends that tree's descent, and the insert checks its hint as any other.
// At most kBtWarmTrees trees; items need not have their pad byte zeroed.
inline constexpr int kBtWarmTrees = 8;
void bt_warm(int n, const int* keynos, const char* const* items) noexcept;
// New root page: pointer 0 = page, item 0 = item, pointer 1 = oldpage; sets k_root.
int newroot(int keyno, PAGE page, char* item, PAGE oldpage, IS_KEY* kfp) noexcept;
// delete: 0 done, -1 failure (ISE_BTNP when the item is absent).
int bt_delete(int keyno, PAGE page, char* item, PAGE parent) noexcept;
// delete of the item the last search of this process found (bt_search returned 1 for
// key keyno of the current file, and nothing changed that tree since), without a descent:
// done in the page that holds it when that page is a leaf that keeps at least half its
// items.  0 done, 1 not done (nothing changed: delete from the root), -1 failure with the
// stack a delete from the root leaves.
int bt_delete_found(int keyno, char* item) noexcept;
// insert with forcef of an item equal to the one the last search found (as above), in
// the page that holds it, without a descent: the 4 bytes at k_offset are exchanged.  0
// done, 1 not done (nothing changed: insert from the root), -1 failure with the stack an
// insert from the root leaves.
int bt_exchange_found(int keyno, char* item) noexcept;
int bt_getnxt(int keyno, PAGE ins_pg, int offset, PAGE parent, PAGE page) noexcept;
// Forgets the levels of bt_delete and bt_getnxt that a call abandoned part way (left by
// a signal handler's jump) never left.  For the call frame's repair only.
void bt_reset_descent(void) noexcept;
int bt_unflow(int keyno, PAGE parent, PAGE page) noexcept;

// Page accessors shared by the three B-tree modules.
namespace kisam {

// Where the last search that found its item (bt_search returning 1) found it: the page and
// its depth below the root (-1 when not known: found through the cursor's hint).  Set
// under the control lock for the file of db; a change of the tree after it stales it,
// which its users check against the page itself.
struct BtFound {
    const IS_DB* db;
    int keyno;
    PAGE page;
    int depth;
};
extern BtFound bt_found;

inline constexpr int kBtHeader = 4;   // bt_keyno, bt_nitems; pointer 0 follows

// Deepest descent accepted.  A tree over the largest possible file (2^22 pages) with two
// items per page stays far below it; a deeper descent can only run round a cycle of
// child pointers in a damaged file, and is refused with ISE_BTS.
inline constexpr int kBtMaxDepth = 64;

// Byte offset of item i and of pointer i (the pointer left of item i).
inline int bt_item_off(int i, int inc) { return 8 + i * inc; }
inline int bt_ptr_off(int i, int inc) { return kBtHeader + i * inc; }

inline PAGE bt_ptr(const IS_DATA* d, int i, int inc) {
    return load_at<PAGE>(d->c + bt_ptr_off(i, inc));
}
inline void bt_setptr(IS_DATA* d, int i, int inc, PAGE p) {
    store_at<PAGE>(d->c + bt_ptr_off(i, inc), p);
}

// What putting an item in at j of a page of n items changes (jn_touch_part): items j..
// move up one place, and the count and the new item's bytes change.  Taking item j out
// of n: items after it move down one place, and the count changes.  Exchanging the 4
// bytes at `at`: those bytes.
inline uint32_t bt_blocks(int lo, int hi) {
    uint32_t m = 0;
    for (int b = lo < 0 ? 0 : lo / 32; b * 32 < hi && b < 32; ++b) m |= uint32_t{1} << b;
    return m;
}
inline jn_change bt_put_change(int j, int n, int inc) {
    const int at = bt_item_off(j, inc);
    return {bt_blocks(2, 4) | bt_blocks(at, at + inc), static_cast<uint16_t>(at), static_cast<uint16_t>((n - j) * inc),
            static_cast<int16_t>(inc)};
}
inline jn_change bt_take_change(int j, int n, int inc) {
    const int at = bt_item_off(j, inc);
    return {bt_blocks(2, 4), static_cast<uint16_t>(at + inc), static_cast<uint16_t>((n - 1 - j) * inc),
            static_cast<int16_t>(-inc)};
}
inline jn_change bt_swap_change(int at) { return {bt_blocks(at, at + 4), 0, 0, 0}; }

// A page read for key keyno can be worked on: right key, item count within the order.
// Anything else is a damaged tree and is refused rather than walked.
inline bool bt_page_ok(const IS_DATA* d, int keyno, int order) {
    return d->bt.bt_keyno == keyno && d->bt.bt_nitems >= 0 && d->bt.bt_nitems <= order;
}

// Odd-length keys carry one pad byte that always compares as 0.
inline void bt_zero_pad(char* item, const IS_KEY* kp) {
    if (kp->k_offset > kp->k_keylen) item[kp->k_keylen] = 0;
}

// The item of page d at which a scan for `key` stops: scanning the items in the
// direction of srchflag (backwards with 0x02), the first item x for which
// is_more(key, x, ncomp, srchflag) is 0; -1 when none stops it.  Found by bisection,
// which the strict order of a page's items makes equal to the scan; the pad byte of each
// item compared is zeroed (written only when it is not zero already), as is the key's
// by the caller.
int bt_scan(IS_DATA* d, const IS_KEY* kp, const char* key, int ncomp, int srchflag) noexcept;

// How the cursor's hint has fared for the searches or inserts of each (handle, key): work
// in key order finds its page there nearly every time, work in random order nearly never,
// and then pays a pool lookup and a scan per call for nothing.  After two misses in a row
// the hint is tried only every 16th time, which finds ordered work again soon enough.
// Speed only, where whether the hint is tried changes no answer and no item's place: not
// for a search that several equal items may answer.
struct HintLuck {
    const IS_DB* db;
    int keyno;
    uint8_t misses;
    uint8_t tick;
    bool worth_trying() { return misses < 2 || (++tick & 15) == 0; }
    void fared(bool used) {
        if (used) misses = 0;
        else if (misses < 255) ++misses;
    }
};
inline constexpr int kHintLuckSlots = 64;
// The entry of (db, keyno) in a direct-mapped table; one taken by another handle or key
// starts afresh.
inline HintLuck& hint_luck(HintLuck* table, const IS_DB* db, int keyno) {
    const auto h = (reinterpret_cast<uintptr_t>(db) >> 4) * 31u + static_cast<unsigned>(keyno);
    HintLuck& e = table[h & (kHintLuckSlots - 1)];
    if (e.db != db || e.keyno != keyno) e = {db, keyno, 0, 0};
    return e;
}

}  // namespace kisam
