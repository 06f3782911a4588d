// B-tree insert: page splits on the way back up, new roots at the top.
//
// The item being placed at a level travels in the module's carried state: new_item (the
// item) and new_page (the page right of it, KISAM_NOPAGE at the leaf).  A level that
// splits sends its middle item up in the same state and returns 2, so every level above
// works on one carried item only.  The carried area holds any item that fits a page; the
// module is single-entry per process (the control lock keeps other processes out of the
// tree).
//
// Split rule: with Sp_half non-zero the old page keeps (K + 1) / 2 of the K + 1 items;
// with Sp_half zero it splits at the insertion point, so that ascending or descending
// loads leave the pages behind them full to K - 1 items.
//
// Requires: the control lock of the current file.  Every changed page is written at once;
// k_root and the free chain reach the disk with the next flush of the control page.
#include "bt.h"

#include "bt_key.h"
#include "is_error.h"
#include "jn.h"
#include "v_pool.h"

#include <cstdlib>
#include <cstring>

extern "C" {
KISAM_API short Sp_half = 1;
}

using kisam::bt_item_off;
using kisam::bt_ptr;
using kisam::bt_ptr_off;
using kisam::bt_setptr;

namespace {

// Carried item.  Its room is static, not allocated in the call: a call left part way by
// a signal handler's jump must never be inside the allocator.  An item of any key that
// fits a page fits here.
char new_item[kisam::kPage];
PAGE new_page = KISAM_NOPAGE;

// K + 1 items with their pointers, in page layout from pointer 0 on: at most
// 4 + (K + 1) * (L + 4) <= 4 + 1016 + 508 bytes.
char split_area[1536];

// The first item not below `item`, or n when every item is below it.
int scan_insert(IS_DATA* d, const IS_KEY* kp, const char* item) {
    const int j = kisam::bt_scan(d, kp, item, kp->k_ncomp, 1);
    return j < 0 ? d->bt.bt_nitems : j;
}

bool reserve_new_item(int len) { return len >= 0 && len <= static_cast<int>(sizeof new_item); }

// The keys whose cursor hint bt_warm set for the handle warm_db since: the next insert
// of each tries it whatever its luck, and once.
const IS_DB* warm_db = nullptr;
uint32_t warm_keys = 0;

bool take_warm(int keyno) {
    if (warm_db != is_curdb || keyno < 0 || keyno >= kBtWarmTrees) return false;
    const uint32_t bit = uint32_t{1} << keyno;
    const bool was = (warm_keys & bit) != 0;
    warm_keys &= ~bit;
    return was;
}

// The pointer a descent towards `key` follows in page d (items rising strictly over
// ncomp bytes): right of the last item below it.  As scan_insert, but reading only.
PAGE warm_child(const IS_DATA* d, int n, int inc, const char* key, int ncomp) {
    const char* items = d->c + bt_item_off(0, inc);
    int lo = 0, hi = n;
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        if (kisam::key_cmp(key, items + mid * inc, static_cast<size_t>(ncomp)) > 0) lo = mid + 1;
        else hi = mid;
    }
    return bt_ptr(d, lo, inc);
}


}  // namespace

void bt_warm(int n, const int* keynos, const char* const* items) noexcept {
    warm_db = is_curdb;
    warm_keys = 0;
    if (n > kBtWarmTrees) n = kBtWarmTrees;
    PAGE at[kBtWarmTrees];
    const IS_KEY* kp[kBtWarmTrees];
    const IS_DATA* d[kBtWarmTrees];
    for (int i = 0; i < n; ++i) {
        kp[i] = kisam::fcp_key(is_curfcp, keynos[i]);
        at[i] = kp[i]->k_root;
    }
    // A level of every tree at a time: first the index lines of its pages, then the
    // pages' slots, then their items; each step's loads are independent of one another.
    for (int depth = 0; depth <= kisam::kBtMaxDepth; ++depth) {
        bool more = false;
        for (int i = 0; i < n; ++i)
            if (at[i] != KISAM_NOPAGE) v_ask(at[i]);
        for (int i = 0; i < n; ++i) d[i] = at[i] != KISAM_NOPAGE ? v_glance(at[i]) : nullptr;
        for (int i = 0; i < n; ++i) {
            if (!d[i]) {
                at[i] = KISAM_NOPAGE;
                continue;
            }
            const int keyno = keynos[i];
            const int inc = kp[i]->k_itemlen + 4;
            const int items_n = d[i]->bt.bt_nitems;
            if (!kisam::bt_page_ok(d[i], keyno, kp[i]->k_order) || items_n < 1) {
                at[i] = KISAM_NOPAGE;
                continue;
            }
            if (bt_ptr(d[i], 0, inc) == KISAM_NOPAGE) {
                // A leaf: where the insert begins.
                kisam::db_cursor(is_curdb, keyno)->currpage = at[i];
                if (keyno >= 0 && keyno < kBtWarmTrees) warm_keys |= uint32_t{1} << keyno;
                at[i] = KISAM_NOPAGE;
                continue;
            }
            at[i] = warm_child(d[i], items_n, inc, items[i], kp[i]->k_ncomp);
            more = true;
        }
        if (!more) break;
    }
}

int newroot(int keyno, PAGE page, char* item, PAGE oldpage, IS_KEY* kfp) noexcept {
    const int inc = kfp->k_itemlen + 4;
    PAGE np;
    IS_DATA* d = v_new(&np);
    if (d == nullptr) return -1;
    d->bt.bt_keyno = static_cast<int16_t>(keyno);
    d->bt.bt_nitems = 1;
    bt_setptr(d, 0, inc, page);
    std::memcpy(d->c + bt_item_off(0, inc), item, static_cast<size_t>(kfp->k_itemlen));
    bt_setptr(d, 1, inc, oldpage);
    kfp->k_root = np;
    is_curfcp->is_optbits |= ISO_CHANGED;
    if (v_write(np, d) != 0) return -1;
    v_unsafe(np, d->c);
    return 0;
}

int bt_exchange_found(int keyno, char* item) noexcept {
    const kisam::BtFound f = kisam::bt_found;
    if (f.page == KISAM_NOPAGE || f.db != is_curdb || f.keyno != keyno || f.depth < 0) return 1;
    IS_KEY* kp = kisam::fcp_key(is_curfcp, keyno);
    const int len = kp->k_itemlen;
    if (!reserve_new_item(len)) return 1;   // the insert from the root says why
    // The failures of an insert from the root that found the item at this depth.
    auto failed = [&]() {
        is_push(PROC(P_BT_INSERT, 4));
        for (int i = 0; i < f.depth; ++i) is_push(PROC(P_BT_INSERT, 5));
        return -1;
    };
    IS_DATA* d = v_read(f.page);
    if (d == nullptr) return failed();
    kisam::bt_zero_pad(item, kp);
    int j = -1;
    if (kisam::bt_page_ok(d, keyno, kp->k_order) && d->bt.bt_nitems > 0) {
        j = scan_insert(d, kp, item);
        if (j >= d->bt.bt_nitems ||
            !is_same(item, d->c + bt_item_off(j, len + 4), static_cast<short>(kp->k_ncomp)))
            j = -1;
    }
    if (j < 0) {
        v_unsafe(f.page, d->c);
        return 1;
    }
    kisam::db_cursor(is_curdb, keyno)->currpage = f.page;
    if (jn_touch_part(f.page, d, kisam::bt_swap_change(bt_item_off(j, len + 4) + kp->k_offset)) != 0) {
        v_unsafe(f.page, d->c);
        return failed();
    }
    // The tree takes the caller's record address; the caller gets the old one.
    char* a = item + kp->k_offset;
    char* b = d->c + bt_item_off(j, len + 4) + kp->k_offset;
    char t[4];
    std::memcpy(t, a, 4);
    std::memcpy(a, b, 4);
    std::memcpy(b, t, 4);
    if (v_write(f.page, d) != 0) return failed();
    v_unsafe(f.page, d->c);
    return 0;
}

int bt_insert(int keyno, PAGE page, char* item, int depth, int forcef) noexcept {
    IS_KEY* kp = kisam::fcp_key(is_curfcp, keyno);
    IS_DBKEY* cur = kisam::db_cursor(is_curdb, keyno);
    const int len = kp->k_itemlen;
    const int inc = len + 4;
    const int order = kp->k_order;

    PAGE pno = page;
    IS_DATA* d = nullptr;
    int j = 0;
    if (depth > kisam::kBtMaxDepth) return is_raise(ISE_BTS, PROC(P_BT_INSERT, 3));

    if (depth == 0) {
        if (!reserve_new_item(len)) return is_raise(ISE_KEYSAVE, PROC(P_BT_INSERT, 0x0E));
        kisam::bt_zero_pad(item, kp);
        if (page == KISAM_NOPAGE) {
            if (newroot(keyno, KISAM_NOPAGE, item, kp->k_root, kp) != 0)
                return is_push(PROC(P_BT_INSERT, 1));
            return 0;
        }
        const PAGE hint = cur->currpage;
        static kisam::HintLuck luck_table[kisam::kHintLuckSlots];
        kisam::HintLuck& luck = kisam::hint_luck(luck_table, is_curdb, keyno);
        const bool warmed = take_warm(keyno);
        if (hint != KISAM_NOPAGE && (warmed || luck.worth_trying())) {
            IS_DATA* h = v_read(hint);
            if (h == nullptr) return is_push(PROC(P_BT_INSERT, 2));
            const int n = h->bt.bt_nitems;
            if (h->bt.bt_keyno == keyno && n > 0 && n < order) {
                j = scan_insert(h, kp, item);
                // Only an item strictly inside the page's range proves that it belongs
                // here (or below); otherwise start from the root.
                if (j > 0 && j < n) {
                    d = h;
                    pno = hint;
                }
            }
            if (d == nullptr) v_unsafe(hint, h->c);
            if (!warmed) luck.fared(d != nullptr);
        }
    }

    if (d == nullptr) {
        d = v_read(pno);
        if (d == nullptr) return is_push(PROC(P_BT_INSERT, 3));
        if (!kisam::bt_page_ok(d, keyno, order)) {
            v_unsafe(pno, d->c);
            return is_raise(ISE_BTS, PROC(P_BT_INSERT, 3));
        }
        j = scan_insert(d, kp, item);
    }

    int n = d->bt.bt_nitems;
    if (j < n) {
        char* x = d->c + bt_item_off(j, inc);
        if (is_same(item, x, static_cast<short>(kp->k_ncomp))) {
            cur->currpage = pno;
            if (forcef) {
                if (jn_touch_part(pno, d, kisam::bt_swap_change(bt_item_off(j, inc) + kp->k_offset)) != 0) {
                    v_unsafe(pno, d->c);
                    return is_push(PROC(P_BT_INSERT, 4));
                }
                // The tree takes the caller's record address; the caller gets the old one.
                char* a = item + kp->k_offset;
                char* b = x + kp->k_offset;
                char t[4];
                std::memcpy(t, a, 4);
                std::memcpy(a, b, 4);
                std::memcpy(b, t, 4);
                if (v_write(pno, d) != 0) return is_push(PROC(P_BT_INSERT, 4));
            }
            v_unsafe(pno, d->c);
            return 1;
        }
    }

    const PAGE child = bt_ptr(d, j, inc);
    if (child != KISAM_NOPAGE) {
        v_unsafe(pno, d->c);
        const int r = bt_insert(keyno, child, item, depth + 1, forcef);
        if (r < 0) return is_push(PROC(P_BT_INSERT, 5));
        if (r != 2) return r;
        d = v_read(pno);
        if (d == nullptr) return is_push(PROC(P_BT_INSERT, 6));
        if (!kisam::bt_page_ok(d, keyno, order) || j > d->bt.bt_nitems) {
            v_unsafe(pno, d->c);
            return is_raise(ISE_BTS, PROC(P_BT_INSERT, 6));
        }
        n = d->bt.bt_nitems;
    } else {
        std::memcpy(new_item, item, static_cast<size_t>(len));
        new_page = KISAM_NOPAGE;
    }

    if (jn_touch_part(pno, d, n < order ? kisam::bt_put_change(j, n, inc) : kJnAnywhere) != 0) {
        v_unsafe(pno, d->c);
        return is_push(PROC(P_BT_INSERT, n < order ? 7 : 9));
    }
    if (n < order) {
        // Room here: open slot j (items j.. move up with the pointers right of them).
        char* at = d->c + bt_item_off(j, inc);
        std::memmove(at + inc, at, static_cast<size_t>((n - j) * inc));
        std::memcpy(at, new_item, static_cast<size_t>(len));
        kisam::store_at<PAGE>(at + len, new_page);
        d->bt.bt_nitems = static_cast<int16_t>(n + 1);
        cur->currpage = n + 1 < order ? pno : KISAM_NOPAGE;
        if (v_write(pno, d) != 0) return is_push(PROC(P_BT_INSERT, 7));
        v_unsafe(pno, d->c);
        return 0;
    }

    // Full: split into this page and a new right page around the middle item.
    PAGE rp;
    IS_DATA* r = v_new(&rp);
    if (r == nullptr) return is_push(PROC(P_BT_INSERT, 8));
    r->bt.bt_keyno = static_cast<int16_t>(keyno);

    int nleft;
    if (Sp_half != 0) {
        nleft = (order + 1) / 2;
    } else {
        nleft = j == 0 ? 1 : j == order ? order - 1 : j;
    }

    // Lay out the K + 1 items in order, from pointer 0 on.
    const int before = bt_item_off(j, inc) - kisam::kBtHeader;   // pointer 0 and items < j
    std::memcpy(split_area, d->c + kisam::kBtHeader, static_cast<size_t>(before));
    std::memcpy(split_area + before, new_item, static_cast<size_t>(len));
    kisam::store_at<PAGE>(split_area + before + len, new_page);
    std::memcpy(split_area + before + inc, d->c + bt_item_off(j, inc),
                static_cast<size_t>((n - j) * inc));

    // Left: pointer 0 and nleft items.  Up: item nleft.  Right: the pointer right of it
    // and the K - nleft items after it.
    const int sep = bt_item_off(nleft, inc) - kisam::kBtHeader;
    std::memcpy(d->c + kisam::kBtHeader, split_area, static_cast<size_t>(sep));
    d->bt.bt_nitems = static_cast<int16_t>(nleft);
    std::memcpy(new_item, split_area + sep, static_cast<size_t>(len));
    std::memcpy(r->c + bt_ptr_off(0, inc), split_area + sep + len,
                static_cast<size_t>(4 + (order - nleft) * inc));
    r->bt.bt_nitems = static_cast<int16_t>(order - nleft);
    new_page = rp;

    if (v_write(pno, d) != 0) return is_push(PROC(P_BT_INSERT, 9));
    v_unsafe(pno, d->c);
    if (v_write(rp, r) != 0) return is_push(PROC(P_BT_INSERT, 0x0A));
    v_unsafe(rp, r->c);
    if (depth > 0) return 2;

    // The root has split: it becomes the left child of a new root.
    if (newroot(keyno, pno, new_item, new_page, kp) != 0) return is_push(PROC(P_BT_INSERT, 0x0D));
    cur->currpage = KISAM_NOPAGE;
    return 0;
}
