// B-tree search: exact, nearest above or nearest below, with a start hint.
//
// Each key has its own tree of 1024-byte pages rooted at k_root (layout in bt.h).  An
// item of key 0 is the key bytes (padded to even) and the 32-bit record address; an item
// of another key is its key bytes (padded to even) and the record's key 0 value.  Only
// the first k_ncomp bytes take part in ordering, so items of an alternate key are unique
// through the key 0 value they carry.
//
// The cursor's currpage remembers the page that held the last item found; a search that
// starts there (when the pool still holds it as a page of this key) skips the descent
// from the root.  A hint is only trusted when the key lies strictly inside the page's
// items: then the answer is in that page or below it, whatever page it is.
//
// Requires: the control lock of the current file (is_curfcp, is_curdb).
#include "bt.h"

#include "bt_key.h"
#include "is_error.h"
#include "v_pool.h"

#include <cstring>

using kisam::bt_item_off;
using kisam::bt_ptr;

kisam::BtFound kisam::bt_found = {nullptr, -1, KISAM_NOPAGE, -1};

namespace {
void found_at(int keyno, PAGE page, int depth) {
    kisam::bt_found = {is_curdb, keyno, page, depth};
}
}  // namespace

int kisam::bt_scan(IS_DATA* d, const IS_KEY* kp, const char* key, int ncomp, int srchflag) noexcept {
    const int inc = kp->k_itemlen + 4;
    const int n = d->bt.bt_nitems;
    const int pad = kp->k_offset > kp->k_keylen ? kp->k_keylen : -1;
    const size_t len = ncomp > 0 ? static_cast<size_t>(ncomp) : 0;
    // Whether the scan goes on past item i: key above it (forward) or below it (backward),
    // and equal to it unless an equal item stops the scan.  key_cmp gives -1, 0 or 1, so
    // with the sign of the direction one comparison with a floor decides.
    const int sign = (srchflag & 0x02) ? -1 : 1;
    const int floor = (srchflag & 0x01) ? 0 : -1;
    char* const items = d->c + bt_item_off(0, inc);
    auto goes_on = [&](int i) {
        char* x = items + i * inc;
        if (pad >= 0 && x[pad] != 0) x[pad] = 0;
        return sign * kisam::key_cmp(key, x, len) > floor;
    };
    if (srchflag & 0x02) {
        // The scan goes on over a run at the top; it stops just below that run.
        int lo = 0, hi = n;
        while (lo < hi) {
            const int mid = lo + (hi - lo) / 2;
            if (goes_on(mid)) hi = mid; else lo = mid + 1;
        }
        return lo - 1;
    }
    // The scan goes on over a run at the bottom; it stops at the first item after it.
    int lo = 0, hi = n;
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        if (goes_on(mid)) lo = mid + 1; else hi = mid;
    }
    return lo < n ? lo : -1;
}

int bt_search(int keyno, PAGE page, int srchflag, char* item, int depth) noexcept {
    IS_KEY* kp = kisam::fcp_key(is_curfcp, keyno);
    IS_DBKEY* cur = kisam::db_cursor(is_curdb, keyno);
    const int len = kp->k_itemlen;
    const int inc = len + 4;
    const bool exact5 = srchflag == 5;
    const int ncomp = exact5 ? kp->k_keylen : kp->k_ncomp;
    const bool back = (srchflag & 0x02) != 0;
    const int nothing = exact5 ? 0 : 1;   // result when the nearest item is the answer

    PAGE pno = page;
    IS_DATA* d = nullptr;
    int x = -1;   // index of the item that stopped the scan
    bool via_hint = false;
    if (depth > kisam::kBtMaxDepth) return is_raise(ISE_BTS, PROC(P_BT_SEARCH, 2));

    if (depth == 0) {
        kisam::bt_found.page = KISAM_NOPAGE;
        kisam::bt_zero_pad(item, kp);
        if (page == KISAM_NOPAGE) return 0;
        const PAGE hint = cur->currpage;
        // Where items compare equal over fewer bytes than make them unique (an exact
        // search of an alternate key's value), the hint decides which of the equal ones
        // is found: it is then always tried, as a caller may rely on that choice.
        static kisam::HintLuck luck_table[kisam::kHintLuckSlots];
        kisam::HintLuck& luck = kisam::hint_luck(luck_table, is_curdb, keyno);
        if (hint != KISAM_NOPAGE && (ncomp < kp->k_ncomp || luck.worth_trying()) && v_hit(hint, keyno)) {
            IS_DATA* h = v_read(hint);
            if (h == nullptr) return is_push(PROC(P_BT_SEARCH, 1));
            const int n = h->bt.bt_nitems;
            if (h->bt.bt_keyno == keyno && n > 0 && n <= kp->k_order) {
                x = kisam::bt_scan(h, kp, item, ncomp, srchflag);
                if (x >= 0 && (srchflag & 0x01) &&
                    is_same(item, h->c + bt_item_off(x, inc), static_cast<short>(ncomp))) {
                    std::memcpy(item, h->c + bt_item_off(x, inc), static_cast<size_t>(len));
                    found_at(keyno, hint, -1);
                    luck.fared(true);
                    return 1;
                }
                // The first item scanned stopping the scan says nothing about what lies
                // before the page; only an item inside the page's range is usable.
                if (x >= 0 && x != (back ? n - 1 : 0)) {
                    d = h;
                    pno = hint;
                    via_hint = true;
                }
            }
            if (d == nullptr) v_unsafe(hint, h->c);
            luck.fared(d != nullptr);
        }
    }

    if (d == nullptr) {
        d = v_read(pno);
        if (d == nullptr) return is_push(PROC(P_BT_SEARCH, 2));
        if (!kisam::bt_page_ok(d, keyno, kp->k_order)) {
            v_unsafe(pno, d->c);
            return is_raise(ISE_BTS, PROC(P_BT_SEARCH, 2));
        }
        if (d->bt.bt_nitems <= 0) {
            x = -1;
        } else {
            x = kisam::bt_scan(d, kp, item, ncomp, srchflag);
        }
    }

    PAGE child;
    if (x >= 0) {
        char* xp = d->c + bt_item_off(x, inc);
        if ((srchflag & 0x01) && is_same(item, xp, static_cast<short>(ncomp))) {
            std::memcpy(item, xp, static_cast<size_t>(len));
            cur->currpage = pno;
            found_at(keyno, pno, via_hint ? -1 : depth);
            return 1;
        }
        child = bt_ptr(d, back ? x + 1 : x, inc);
        if (child == KISAM_NOPAGE) {
            cur->currpage = pno;
            std::memcpy(item, xp, static_cast<size_t>(len));
            return nothing;
        }
    } else {
        const int n = d->bt.bt_nitems > 0 ? d->bt.bt_nitems : 0;
        child = bt_ptr(d, back ? 0 : n, inc);
        if (child == KISAM_NOPAGE) {
            v_unsafe(pno, d->c);
            return 0;
        }
    }

    // Descend.  The page is released while the subtree is searched and read again only
    // when its own item turns out to be the answer.
    v_unsafe(pno, d->c);
    const int r = bt_search(keyno, child, srchflag, item, depth + 1);
    if (r < 0) return is_raise(ISE_BTS, PROC(P_BT_SEARCH, 3));
    if (r == 1) return 1;
    if (x < 0) return 0;

    d = v_read(pno);
    if (d == nullptr) return is_push(PROC(P_BT_SEARCH, 4));
    if (!kisam::bt_page_ok(d, keyno, kp->k_order) || x >= d->bt.bt_nitems) {
        v_unsafe(pno, d->c);
        return is_raise(ISE_BTS, PROC(P_BT_SEARCH, 4));
    }
    cur->currpage = pno;
    std::memcpy(item, d->c + bt_item_off(x, inc), static_cast<size_t>(len));
    return nothing;
}
