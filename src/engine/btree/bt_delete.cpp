// B-tree delete: predecessor replacement and underflow repair.
//
// An item of an internal page is replaced by the greatest item of its left subtree
// (bt_getnxt), so items only ever leave leaves.  A page other than the root that drops
// below K / 2 items is repaired by bt_unflow: it borrows from, or merges with, its right
// sibling, or its left one when it is the rightmost child.  A merge takes a separator out
// of the parent, so the repair may climb; an empty root gives way to its only child,
// which is the only way the tree becomes shallower.
//
// Results between levels: 0 done, 1 the page the caller treats as parent fell below the
// limit, -1 failure.
//
// Requires: the control lock of the current file.  Up to three pages (page, parent,
// sibling) are fixed at once; every changed page is written at once, given-back pages go
// to the free chain.
#include "bt.h"

#include "bt_key.h"
#include "is_error.h"
#include "jn.h"
#include "v_pool.h"

#include <cstring>

using kisam::bt_item_off;
using kisam::bt_ptr;
using kisam::bt_ptr_off;
using kisam::bt_setptr;

namespace {

inline size_t sz(int n) { return static_cast<size_t>(n); }

// Levels of bt_delete and bt_getnxt currently active: they have no depth argument, and
// a damaged tree must not lead them round a cycle for ever.
class Descent {
public:
    Descent() { ++level_; }
    ~Descent() { --level_; }
    Descent(const Descent&) = delete;
    Descent& operator=(const Descent&) = delete;
    bool too_deep() const { return level_ > kisam::kBtMaxDepth; }
    static void reset() { level_ = 0; }
private:
    static inline int level_ = 0;
};

}  // namespace

void bt_reset_descent(void) noexcept { Descent::reset(); }

int bt_delete(int keyno, PAGE page, char* item, PAGE parent) noexcept {
    if (page == KISAM_NOPAGE) return is_raise(ISE_BTNP, PROC(P_BT_DELETE, 1));
    Descent level;
    if (level.too_deep()) return is_raise(ISE_BTS, PROC(P_BT_DELETE, 2));
    IS_KEY* kp = kisam::fcp_key(is_curfcp, keyno);
    const int len = kp->k_itemlen;
    const int inc = len + 4;
    const int half = kp->k_order / 2;

    IS_DATA* d = v_read(page);
    if (d == nullptr) return is_push(PROC(P_BT_DELETE, 2));
    if (!kisam::bt_page_ok(d, keyno, kp->k_order)) {
        v_unsafe(page, d->c);
        return is_raise(ISE_BTS, PROC(P_BT_DELETE, 2));
    }
    kisam::bt_zero_pad(item, kp);

    const int n = d->bt.bt_nitems;
    int j = kisam::bt_scan(d, kp, item, kp->k_ncomp, 1);   // the first item not below it
    if (j < 0) j = n;
    const PAGE child = bt_ptr(d, j, inc);   // left of item j; the last pointer when j == n

    if (j < n && is_same(item, d->c + bt_item_off(j, inc), static_cast<short>(kp->k_ncomp))) {
        if (child == KISAM_NOPAGE) {
            if (jn_touch_part(page, d, kisam::bt_take_change(j, n, inc)) != 0) {
                v_unsafe(page, d->c);
                return is_push(PROC(P_BT_DELETE, 3));
            }
            char* at = d->c + bt_item_off(j, inc);
            std::memmove(at, at + inc, sz((n - 1 - j) * inc));
            d->bt.bt_nitems = static_cast<int16_t>(n - 1);
            // The repair reads the page again from the pool (it stays fixed) and writes it.
            if (n - 1 < half) return bt_unflow(keyno, parent, page);
            if (v_write(page, d) != 0) return is_push(PROC(P_BT_DELETE, 3));
            v_unsafe(page, d->c);
            return 0;
        }
        v_unsafe(page, d->c);
        const int r = bt_getnxt(keyno, page, bt_item_off(j, inc), page, child);
        if (r < 0) return is_push(PROC(P_BT_DELETE, 4));
        return r == 1 ? bt_unflow(keyno, parent, page) : 0;
    }

    v_unsafe(page, d->c);
    const int r = bt_delete(keyno, child, item, page);
    if (r < 0) return is_push(PROC(P_BT_DELETE, 5));
    return r == 1 ? bt_unflow(keyno, parent, page) : 0;
}

int bt_delete_found(int keyno, char* item) noexcept {
    const kisam::BtFound f = kisam::bt_found;
    if (f.page == KISAM_NOPAGE || f.db != is_curdb || f.keyno != keyno || f.depth < 0) return 1;
    IS_KEY* kp = kisam::fcp_key(is_curfcp, keyno);
    const int inc = kp->k_itemlen + 4;
    // The failures of a delete from the root: its levels above the leaf push theirs.
    auto failed = [&](int detail) {
        is_push(PROC(P_BT_DELETE, detail));
        for (int i = 0; i < f.depth; ++i) is_push(PROC(P_BT_DELETE, 5));
        return -1;
    };

    IS_DATA* d = v_read(f.page);
    if (d == nullptr) return failed(2);
    const int n = d->bt.bt_nitems;
    // A leaf (no child pointers) of this key, where the item still is, that keeps at
    // least half its items needs no repair and no parent.
    int j = -1;
    if (kisam::bt_page_ok(d, keyno, kp->k_order) && n - 1 >= kp->k_order / 2 &&
        bt_ptr(d, 0, inc) == KISAM_NOPAGE) {
        kisam::bt_zero_pad(item, kp);
        j = kisam::bt_scan(d, kp, item, kp->k_ncomp, 1);
        if (j >= 0 && !is_same(item, d->c + bt_item_off(j, inc), static_cast<short>(kp->k_ncomp))) j = -1;
    }
    if (j < 0) {
        v_unsafe(f.page, d->c);
        return 1;
    }
    kisam::bt_found.page = KISAM_NOPAGE;
    if (jn_touch_part(f.page, d, kisam::bt_take_change(j, n, inc)) != 0) {
        v_unsafe(f.page, d->c);
        return failed(3);
    }
    char* at = d->c + bt_item_off(j, inc);
    std::memmove(at, at + inc, sz((n - 1 - j) * inc));
    d->bt.bt_nitems = static_cast<int16_t>(n - 1);
    if (v_write(f.page, d) != 0) return failed(3);
    v_unsafe(f.page, d->c);
    return 0;
}

int bt_getnxt(int keyno, PAGE ins_pg, int offset, PAGE parent, PAGE page) noexcept {
    if (page == KISAM_NOPAGE) return is_raise(ISE_BTNP, PROC(P_BT_GETNXT, 1));
    Descent level;
    if (level.too_deep()) return is_raise(ISE_BTS, PROC(P_BT_GETNXT, 2));
    IS_KEY* kp = kisam::fcp_key(is_curfcp, keyno);
    const int len = kp->k_itemlen;
    const int inc = len + 4;

    IS_DATA* d = v_read(page);
    if (d == nullptr) return is_push(PROC(P_BT_GETNXT, 2));
    if (!kisam::bt_page_ok(d, keyno, kp->k_order)) {
        v_unsafe(page, d->c);
        return is_raise(ISE_BTS, PROC(P_BT_GETNXT, 2));
    }
    const int n = d->bt.bt_nitems > 0 ? d->bt.bt_nitems : 0;
    const PAGE last = bt_ptr(d, n, inc);
    if (last != KISAM_NOPAGE) {
        v_unsafe(page, d->c);
        const int r = bt_getnxt(keyno, ins_pg, offset, page, last);
        if (r < 0) return is_push(PROC(P_BT_GETNXT, 6));
        return r == 1 ? bt_unflow(keyno, parent, page) : 0;
    }
    // A leaf without items has no predecessor to give: the tree is damaged.
    if (n == 0) {
        v_unsafe(page, d->c);
        return is_raise(ISE_BTS, PROC(P_BT_GETNXT, 7));
    }

    // The leaf's last item replaces the one at ins_pg/offset; ins_pg's pointers stay.
    // ins_pg is read before the leaf changes, so a failed read leaves the leaf intact.
    IS_DATA* ip = v_read(ins_pg);
    if (ip == nullptr) return is_push(PROC(P_BT_GETNXT, 3));
    if (jn_touch_part(page, d, jn_change{kisam::bt_blocks(2, 4), 0, 0, 0}) != 0 ||
        jn_touch_part(ins_pg, ip, jn_change{kisam::bt_blocks(offset, offset + len), 0, 0, 0}) != 0) {
        v_unsafe(ins_pg, ip->c);
        v_unsafe(page, d->c);
        return is_push(PROC(P_BT_GETNXT, 4));
    }
    d->bt.bt_nitems = static_cast<int16_t>(n - 1);
    std::memcpy(ip->c + offset, d->c + bt_item_off(n - 1, inc), sz(len));
    if (v_write(ins_pg, ip) != 0) return is_push(PROC(P_BT_GETNXT, 4));
    v_unsafe(ins_pg, ip->c);
    if (n - 1 < kp->k_order / 2) return bt_unflow(keyno, parent, page);
    if (v_write(page, d) != 0) return is_push(PROC(P_BT_GETNXT, 5));
    v_unsafe(page, d->c);
    return 0;
}

int bt_unflow(int keyno, PAGE parent, PAGE page) noexcept {
    IS_KEY* kp = kisam::fcp_key(is_curfcp, keyno);
    const int len = kp->k_itemlen;
    const int inc = len + 4;
    const int half = kp->k_order / 2;

    IS_DATA* d = v_read(page);
    if (d == nullptr) return is_push(PROC(P_BT_UNFLOW, 1));
    if (!kisam::bt_page_ok(d, keyno, kp->k_order)) {
        v_unsafe(page, d->c);
        return is_raise(ISE_BTS, PROC(P_BT_UNFLOW, 1));
    }
    const int nu = d->bt.bt_nitems;

    if (parent == KISAM_NOPAGE) {
        if (jn_touch(page, d) != 0) {
            v_unsafe(page, d->c);
            return is_push(PROC(P_BT_UNFLOW, nu == 0 ? 2 : 3));
        }
        if (nu == 0) {
            // An empty root gives way to its only child (none when the tree is now empty).
            kp->k_root = bt_ptr(d, 0, inc);
            is_curfcp->is_optbits |= ISO_CHANGED;
            if (v_dispose(page, d) != 0) return is_push(PROC(P_BT_UNFLOW, 2));
        } else {
            if (v_write(page, d) != 0) return is_push(PROC(P_BT_UNFLOW, 3));
        }
        v_unsafe(page, d->c);
        return 0;
    }

    IS_DATA* pp = v_read(parent);
    if (pp == nullptr) return is_push(PROC(P_BT_UNFLOW, 4));
    if (!kisam::bt_page_ok(pp, keyno, kp->k_order)) {
        v_unsafe(page, d->c);
        v_unsafe(parent, pp->c);
        return is_raise(ISE_BTS, PROC(P_BT_UNFLOW, 4));
    }
    const int np = pp->bt.bt_nitems;
    int k = 0;
    while (k < np && bt_ptr(pp, k, inc) != page) ++k;

    if (k < np) {
        // Right sibling R; separator S = parent item k goes down as page item nu.
        const PAGE rpno = bt_ptr(pp, k + 1, inc);
        IS_DATA* rd = v_read(rpno);
        if (rd == nullptr) return is_push(PROC(P_BT_UNFLOW, 0x0D));
        const int nb = rd->bt.bt_nitems;
        if (!kisam::bt_page_ok(rd, keyno, kp->k_order) || nu >= half) {
            v_unsafe(page, d->c);
            v_unsafe(parent, pp->c);
            v_unsafe(rpno, rd->c);
            return is_raise(ISE_BTS, PROC(P_BT_UNFLOW, 0x0D));
        }
        // What each page changes: a merge fills the page after S and takes S out of the
        // parent (R is given back); a borrow fills the page after S, puts a new separator
        // in S's place and moves R's remaining items down.
        const int at = bt_item_off(nu, inc), sk = bt_item_off(k, inc);
        const bool merge = nb - nu < 2;
        const int m = merge ? 0 : (nb - nu) / 2;
        const jn_change cd{kisam::bt_blocks(2, 4) | kisam::bt_blocks(at, at + len + 4 + (merge ? nb : m - 1) * inc), 0, 0, 0};
        const jn_change cp = merge ? kisam::bt_take_change(k, np, inc) : jn_change{kisam::bt_blocks(sk, sk + len), 0, 0, 0};
        const jn_change cr = merge ? kJnAnywhere
                                   : jn_change{kisam::bt_blocks(2, 4), static_cast<uint16_t>(bt_ptr_off(m, inc)),
                                               static_cast<uint16_t>(4 + (nb - m) * inc), static_cast<int16_t>(-m * inc)};
        if (jn_touch_part(page, d, cd) != 0 || jn_touch_part(parent, pp, cp) != 0 || jn_touch_part(rpno, rd, cr) != 0) {
            v_unsafe(page, d->c);
            v_unsafe(parent, pp->c);
            v_unsafe(rpno, rd->c);
            return is_push(PROC(P_BT_UNFLOW, nb - nu < 2 ? 0x11 : 0x0E));
        }
        char* s = pp->c + bt_item_off(k, inc);
        std::memcpy(d->c + bt_item_off(nu, inc), s, sz(len));
        char* tail = d->c + bt_item_off(nu, inc) + len;   // pointer right of S in page

        if (merge) {
            // Merge: page takes S, R's pointer 0 and all of R; the parent loses S and its
            // right pointer.
            std::memmove(s, s + inc, sz((np - 1 - k) * inc));
            pp->bt.bt_nitems = static_cast<int16_t>(np - 1);
            std::memcpy(tail, rd->c + bt_ptr_off(0, inc), sz(4 + nb * inc));
            d->bt.bt_nitems = static_cast<int16_t>(nu + nb + 1);
            if (v_dispose(rpno, rd) != 0) return is_push(PROC(P_BT_UNFLOW, 0x11));
            if (v_write(parent, pp) != 0) return is_push(PROC(P_BT_UNFLOW, 0x12));
            if (v_write(page, d) != 0) return is_push(PROC(P_BT_UNFLOW, 0x13));
            v_unsafe(rpno, rd->c);
            v_unsafe(parent, pp->c);
            v_unsafe(page, d->c);
            return np - 1 < half ? 1 : 0;
        }

        // Borrow m items: S, then R's items 0 .. m-2; R's item m-1 is the new separator.
        std::memcpy(tail, rd->c + bt_ptr_off(0, inc), sz(4 + (m - 1) * inc));
        d->bt.bt_nitems = static_cast<int16_t>(nu + m);
        std::memcpy(s, rd->c + bt_item_off(m - 1, inc), sz(len));
        std::memmove(rd->c + bt_ptr_off(0, inc), rd->c + bt_ptr_off(m, inc),
                     sz(4 + (nb - m) * inc));
        rd->bt.bt_nitems = static_cast<int16_t>(nb - m);
        if (v_write(page, d) != 0) return is_push(PROC(P_BT_UNFLOW, 0x0E));
        if (v_write(parent, pp) != 0) return is_push(PROC(P_BT_UNFLOW, 0x0F));
        if (v_write(rpno, rd) != 0) return is_push(PROC(P_BT_UNFLOW, 0x10));
        v_unsafe(page, d->c);
        v_unsafe(parent, pp->c);
        v_unsafe(rpno, rd->c);
        return 0;
    }

    if (np <= 0 || bt_ptr(pp, np, inc) != page) {
        v_unsafe(page, d->c);
        v_unsafe(parent, pp->c);
        return is_raise(ISE_BTS, PROC(P_BT_UNFLOW, 5));
    }

    // Rightmost child: left sibling L; separator S = the parent's last item.
    const PAGE lpno = bt_ptr(pp, np - 1, inc);
    IS_DATA* ld = v_read(lpno);
    if (ld == nullptr) return is_push(PROC(P_BT_UNFLOW, 6));
    const int nl = ld->bt.bt_nitems;
    if (!kisam::bt_page_ok(ld, keyno, kp->k_order) || nu >= half) {
        v_unsafe(page, d->c);
        v_unsafe(parent, pp->c);
        v_unsafe(lpno, ld->c);
        return is_raise(ISE_BTS, PROC(P_BT_UNFLOW, 6));
    }
    // What each page changes: a merge fills L after its items and drops the parent's
    // last item (the page is given back); a borrow moves the page's content up, fills
    // its front, puts a new separator in S's place and drops L's last items.
    const bool merge = nl - nu < 2;
    const int m = merge ? 0 : (nl - nu) / 2;
    const int sl = bt_item_off(np - 1, inc), al = bt_item_off(nl, inc), am = bt_item_off(m > 0 ? m - 1 : 0, inc);
    const jn_change cd =
        merge ? kJnAnywhere
              : jn_change{kisam::bt_blocks(2, 4) | kisam::bt_blocks(am, am + len) |
                              kisam::bt_blocks(bt_ptr_off(0, inc), bt_ptr_off(0, inc) + 4 + (m - 1) * inc),
                          static_cast<uint16_t>(bt_ptr_off(0, inc)), static_cast<uint16_t>(4 + nu * inc),
                          static_cast<int16_t>(m * inc)};
    const jn_change cp{kisam::bt_blocks(2, 4) | (merge ? 0 : kisam::bt_blocks(sl, sl + len)), 0, 0, 0};
    const jn_change cl{kisam::bt_blocks(2, 4) | (merge ? kisam::bt_blocks(al, al + len + 4 + nu * inc) : 0), 0, 0, 0};
    if (jn_touch_part(page, d, cd) != 0 || jn_touch_part(parent, pp, cp) != 0 || jn_touch_part(lpno, ld, cl) != 0) {
        v_unsafe(page, d->c);
        v_unsafe(parent, pp->c);
        v_unsafe(lpno, ld->c);
        return is_push(PROC(P_BT_UNFLOW, nl - nu < 2 ? 0x0A : 7));
    }
    char* s = pp->c + bt_item_off(np - 1, inc);

    if (merge) {
        // Merge into L: S, then page's pointer 0 and all of page.
        std::memcpy(ld->c + bt_item_off(nl, inc), s, sz(len));
        std::memcpy(ld->c + bt_item_off(nl, inc) + len, d->c + bt_ptr_off(0, inc),
                    sz(4 + nu * inc));
        ld->bt.bt_nitems = static_cast<int16_t>(nl + nu + 1);
        pp->bt.bt_nitems = static_cast<int16_t>(np - 1);
        if (v_dispose(page, d) != 0) return is_push(PROC(P_BT_UNFLOW, 0x0A));
        if (v_write(parent, pp) != 0) return is_push(PROC(P_BT_UNFLOW, 0x0B));
        if (v_write(lpno, ld) != 0) return is_push(PROC(P_BT_UNFLOW, 0x0C));
        v_unsafe(page, d->c);
        v_unsafe(parent, pp->c);
        v_unsafe(lpno, ld->c);
        return np - 1 < half ? 1 : 0;
    }

    // Borrow m items: page's content moves up m slots; S becomes its item m-1, L's items
    // nl-m+1 .. nl-1 (with the pointer left of the first) fill the front, and L's item
    // nl-m becomes the new separator.
    std::memmove(d->c + bt_ptr_off(m, inc), d->c + bt_ptr_off(0, inc), sz(4 + nu * inc));
    std::memcpy(d->c + bt_item_off(m - 1, inc), s, sz(len));
    std::memcpy(d->c + bt_ptr_off(0, inc), ld->c + bt_ptr_off(nl - m + 1, inc),
                sz(4 + (m - 1) * inc));
    d->bt.bt_nitems = static_cast<int16_t>(nu + m);
    std::memcpy(s, ld->c + bt_item_off(nl - m, inc), sz(len));
    ld->bt.bt_nitems = static_cast<int16_t>(nl - m);
    if (v_write(page, d) != 0) return is_push(PROC(P_BT_UNFLOW, 7));
    v_unsafe(page, d->c);
    if (v_write(parent, pp) != 0) return is_push(PROC(P_BT_UNFLOW, 8));
    v_unsafe(parent, pp->c);
    if (v_write(lpno, ld) != 0) return is_push(PROC(P_BT_UNFLOW, 9));
    v_unsafe(lpno, ld->c);
    return 0;
}
