// Keyed reads without the control lock: nisread, nispread and nisfind, at the cost of
// memory reads alone.
//
// A read takes the file's change count (xf_seq, even when no change is under way), walks
// the trees and the record's pages straight in the pool's slots -- found through this
// process's page index, each slot's tag checked, nothing fixed, nothing shared written
// (README.reads.md lists the exceptions) -- or, for a page that no slot holds in a version
// newer than the file's, in place in the file's mapping; copies the record into the
// caller's buffer, and takes the count again.  Equal: nothing changed meanwhile, and what
// was read is what a locked read would have read at that moment; only then do the cursors
// move.  A read that cannot say so (the count moved, a page neither in the pool nor
// readable from the file as it stands, anything that a locked read would report, repair
// or write) leaves the cursors alone and says which way to go on: once more, or the
// locked read.
//
// Everything read from a slot may be torn by a change under way: every count, offset and
// length taken from a page is bounded before it is used (an index never leaves its page,
// a copy never leaves the slot or the caller's buffer, every chain is walked a bounded
// number of steps), so a torn page costs a retry, never a fault.  Values that bound
// something are read once, through volatile loads, so that the bound checked is the
// value used.
//
// Requires: the call frame (is_curdb, is_curpfi, is_curfcp); no lock.
#include "is_rec.h"

#include "bt.h"
#include "bt_key.h"
#include "dr.h"
#include "is_leafdir.h"
#include "isx_area.h"
#include "test_hook.h"
#include "v_pool.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kisam {
TestHook test_hook = nullptr;
bool test_locked_reads = false;
}  // namespace kisam

unsigned long is_nolock_reads = 0;
unsigned long is_leafdir_hits = 0;
unsigned long is_leafdir_drops = 0;
unsigned long is_lookaheads = 0;
unsigned long is_unarmed_reads = 0;
unsigned long is_rearmed_reads = 0;
NolockMiss is_nolock_miss;

using namespace kisam;

namespace {

// Offsets handed to these are even (items and segments start at even offsets, slots at
// multiples of 4), so 16-bit loads are aligned.
inline int ld16(const char* p) { return *reinterpret_cast<const volatile int16_t*>(p); }
inline unsigned ldu16(const char* p) { return *reinterpret_cast<const volatile uint16_t*>(p); }
inline PAGE ld32(const char* p) {
    const volatile uint16_t* q = reinterpret_cast<const volatile uint16_t*>(p);
    return static_cast<PAGE>(q[0]) | (static_cast<PAGE>(q[1]) << 16);
}
inline unsigned ld8(const char* p) { return *reinterpret_cast<const volatile uint8_t*>(p); }

// Copies n bytes of a key or an item between buffers of this process (they do not
// overlap): lengths of a few to a few dozen bytes, where a library call costs more than
// the copy.  Up to 32 bytes as two pairs of overlapping words.
inline void copy_item(char* d, const char* s, size_t n) {
    if (n >= 8 && n <= 16) {
        uint64_t a, b;
        std::memcpy(&a, s, 8);
        std::memcpy(&b, s + n - 8, 8);
        std::memcpy(d, &a, 8);
        std::memcpy(d + n - 8, &b, 8);
    } else if (n > 16 && n <= 32) {
        uint64_t a[2], b[2];
        std::memcpy(a, s, 16);
        std::memcpy(b, s + n - 16, 16);
        std::memcpy(d, a, 16);
        std::memcpy(d + n - 16, b, 16);
    } else {
        std::memcpy(d, s, n);
    }
}

// A page position a tree or a record may lead to: on a page boundary, not the control page.
inline bool page_ok(PAGE p) { return p != 0 && p != KISAM_NOPAGE && (p & kDrLowMask) == 0; }

// Why an attempt gave up.  kArm: it needs a page of the file's mapping and runs unarmed.
enum Fail { kNone, kMiss, kTorn, kArm };

// An attempt that runs unarmed and would read a page in a mapping gives up with this;
// is_read_nolock runs it again armed.  Never leaves is_read_nolock.
constexpr int kReadArm = -5;

struct Search {
    Search(int file, bool arm) : u(file), armed(arm) {}
    int u;
    // Whether the thread is armed for faults in the files' mappings: an unarmed attempt
    // touches no mapping (a fault there would reach the program).
    bool armed;
    Fail fail = kNone;
    PAGE missed = KISAM_NOPAGE;  // kMiss: the page not in the pool
    bool hint = false;           // kMiss: it was the cursor's hint, which is never loaded
    bool file = false;           // a page came from the file's mapping (past the pool)
    // The slots read since the last check (still()): a slot may be given another page
    // without the change count moving (a miss of another process), so each is checked
    // once what was read from it has been used.
    static constexpr int kMarks = 32;
    PeekMark marks[kMarks];
    int nmarks = 0;
    // Where the page last returned came from: its slot, or slot -1 for the file.
    PeekMark last{-1, 0, KISAM_NOPAGE};
    // What the attempt learnt for key 0's leaf directory, filed only once it stands (a
    // page read while it changed may say anything): an entry that misled it, and leaves
    // it came to (by their first key).
    static constexpr int kNotes = 2;
    bool dir_hit = false;
    bool drop = false;
    char drop_lo[LeafDir::kMaxKey];
    int nputs = 0;
    char put_lo[kNotes][LeafDir::kMaxKey];
    LeafRef put_ref[kNotes];
    void note_put(const char* lo, int klen, const PeekMark& m) {
        if (nputs == kNotes) return;
        std::memcpy(put_lo[nputs], lo, static_cast<size_t>(klen));
        put_ref[nputs++] = LeafRef{m.pno, m.slot, m.stamp};
    }

    // Whether every slot read since the last check still holds its page as it did then.
    bool still() {
        std::atomic_thread_fence(std::memory_order_acquire);
        const bool ok = v_peek_still_all(u, marks, nmarks);
        nmarks = 0;
        return ok;
    }
    // Page pno through the page index, its slot noted for the check.
    const IS_DATA* peek(PAGE pno, int ask = kPeekWhole) {
        PeekMark m;  // the caller made room (nmarks < kMarks)
        const IS_DATA* p = v_peek(u, pno, &m, ask);
        if (p) marks[nmarks++] = last = m;
        return p;
    }
};

// Where a search found its item: the page (its slot, or slot -1: the file) and the
// item's index in it.
struct Found {
    PeekMark at{-1, 0, KISAM_NOPAGE};
    int x = -1;
    const char* page = nullptr;  // the page's bytes as the search read them
};

// The item the last read of this process along a key found, where it found it: the next
// read from the same cursor in the same direction, with the file unchanged since (the
// same even count) and the page where it was (the same load of the same page in a slot,
// or the file's page, which the unchanged count keeps current), steps to the
// neighbouring item without a probe of the page index or a bisection -- what the
// bisection of the cursor's hint page would find, since the item there still equals the
// cursor's value and items are unique and ordered.  Checked in full at every use.
struct StepMemo {
    const IS_DB* db = nullptr;
    int keyno = -1;
    uint32_t seq = 1;  // odd: nothing remembered
    Found at;
};
StepMemo memo;

// Key 0's leaf directory of each file slot, this process's own: a search of key 0 goes
// first to the leaf that held the keys around its key when this process last came to it
// (is_leafdir.h), and takes it as the locked search takes its hint -- key 0's items are
// unique over the bytes compared, so that the page that holds the key, or that the key
// falls inside of, gives the answer a descent from the root gives.  A directory serves
// the file whose shared control page it was made for, and starts again empty for
// another.
struct FileDir {
    const IS_FCP* fcp;
    LeafDir dir;
};
FileDir* dirs = nullptr;
int ndirs = 0;

// The leaf directory of key 0 of file u (control page fcp), or null when there is none:
// a key 0 whose items do not compare over the key alone, a longer key than a directory
// holds, or no memory.
LeafDir* dir_of(int u, const IS_FCP* fcp, const IS_KEY* k0) noexcept {
    const int klen = k0->k_ncomp;
    if (klen != k0->k_keylen || klen < 1 || klen > LeafDir::kMaxKey || u < 0) return nullptr;
    if (u >= ndirs) {
        const int n = isam_com && isam_com->maxopen > u ? isam_com->maxopen : u + 1;
        auto* nd = static_cast<FileDir*>(std::malloc(static_cast<size_t>(n) * sizeof(FileDir)));
        if (!nd) return nullptr;
        // The old directories are dropped rather than moved: they only save work.
        for (int i = 0; i < ndirs; ++i) dirs[i].dir.~LeafDir();
        std::free(dirs);
        for (int i = 0; i < n; ++i) {
            nd[i].fcp = nullptr;
            new (&nd[i].dir) LeafDir();
        }
        dirs = nd;
        ndirs = n;
    }
    FileDir& f = dirs[u];
    if (f.fcp != fcp || f.dir.klen() != klen) {
        if (!f.dir.reset(klen)) return nullptr;
        f.fcp = fcp;
    }
    return &f.dir;
}


// Page pno not in this process's page index: the chain changes of others may have put
// it in the pool; when they did not, the file holds the page as it is (the count checks
// that it stays so).  Null with the reason in s.fail when neither can be said.
__attribute__((noinline)) const IS_DATA* page_past_index(Search& s, PAGE pno, int ask) {
    const int known = v_peek_learn(s.u);
    const IS_DATA* p = known == 2 ? s.peek(pno, ask) : nullptr;
    if (!p && known && !s.armed) {
        s.fail = kArm;
        return nullptr;
    }
    if (!p && known && (p = v_peek_file(s.u, pno))) {
        s.last = PeekMark{-1, 0, pno};
        s.file = true;
        v_peek_ask(p->c, ask);
    }
    if (!p) {
        s.fail = kMiss;
        s.missed = pno;
        s.hint = false;
    }
    return p;
}

// Page pno of the search's file in the pool (or read from the file), or null with the
// reason in s.fail: a position no page can have (torn), or a page not in the pool that
// the file cannot be said to hold as it is (miss).
__attribute__((always_inline)) inline const char* page_at(Search& s, PAGE pno, int ask = kPeekWhole) {
    if (!page_ok(pno)) {
        s.fail = kTorn;
        return nullptr;
    }
    if (s.nmarks == Search::kMarks && !s.still()) {
        s.fail = kTorn;
        return nullptr;
    }
    const IS_DATA* p = s.peek(pno, ask);
    if (!p && !(p = page_past_index(s, pno, ask))) return nullptr;
    return p->c;
}

// The page a directory entry names, wherever it is now: the slot it was in while that
// holds it as it did (no probe of the page index), else through the index, or the file
// (as page_past_index).  Null when it is nowhere to be read without a miss -- the entry is
// only a guess, and a descent from the root reports what it needs -- or, with s.fail set,
// when the attempt is torn.
const IS_DATA* dir_page(Search& s, const LeafRef& r) {
    if (!page_ok(r.pno)) return nullptr;
    if (s.nmarks == Search::kMarks && !s.still()) {
        s.fail = kTorn;
        return nullptr;
    }
    if (r.slot >= 0) {
        const PeekMark m{r.slot, r.stamp, r.pno};
        if (const IS_DATA* p = v_peek_again(s.u, m, kPeekWhole)) {
            s.marks[s.nmarks++] = s.last = m;
            return p;
        }
    }
    if (const IS_DATA* p = s.peek(r.pno)) return p;
    const int known = v_peek_learn(s.u);
    const IS_DATA* p = known == 2 ? s.peek(r.pno) : nullptr;
    if (!p && known && !s.armed) {
        s.fail = kArm;
        return nullptr;
    }
    if (!p && known && (p = v_peek_file(s.u, r.pno))) {
        s.last = PeekMark{-1, 0, r.pno};
        s.file = true;
        v_peek_ask(p->c, kPeekWhole);
    }
    return p;
}

// Compares key with the item at x over len bytes, the item's pad byte (at pad, when pad
// >= 0) taken as 0 -- as the locked search compares after zeroing it in the page.
__attribute__((always_inline)) inline int cmp_item(const char* key, const char* x, size_t len, int pad) {
    if (pad < 0 || static_cast<size_t>(pad) >= len) return key_cmp(key, x, len);
    const size_t p = static_cast<size_t>(pad);
    if (int c = key_cmp(key, x, p)) return c;
    if (key[p] != 0) return 1;
    return key_cmp(key + p + 1, x + p + 1, len - p - 1);
}

// The answer of a scan over n items, given goes_on(i) -- whether the scan goes on past
// item i -- which is true before the answer and false from it on (forward), or false up
// to it and true after it (backwards).  With `edges` (a hint page, of use only when the
// key falls inside it) the end items are asked first, so that a key off either end costs
// one or two comparisons; the result is the same.  The bisection chooses its halves by
// data, not by branches: which half comes next is what a branch would mispredict half of
// the time.
template <class Pred>
__attribute__((always_inline)) inline int first_false(int lo, int hi, Pred p) {
    // p is true on [.., a) and false on [a, ..), a in [lo, hi]: a.  Invariant: p is true
    // below base and false from base + len on.
    int base = lo, len = hi - lo;
    while (len > 1) {
        const int half = len / 2;
        base += half & -static_cast<int>(p(base + half - 1));
        len -= half;
    }
    return base + (len == 1 && p(base) ? 1 : 0);
}

template <class GoesOn>
__attribute__((always_inline)) inline int bisect(int n, bool back, bool edges, GoesOn goes_on) {
    int lo = 0, hi = n;
    if (back) {
        if (edges) {
            if (goes_on(0)) return -1;
            if (!goes_on(n - 1)) return n - 1;
            lo = 1;
            hi = n - 1;
        }
        return first_false(lo, hi, [&](int i) __attribute__((always_inline)) { return !goes_on(i); }) - 1;
    }
    if (edges) {
        if (goes_on(n - 1)) return -1;
        if (!goes_on(0)) return 0;
        lo = 1;
        hi = n - 1;
    }
    const int a = first_false(lo, hi, goes_on);
    return a < n ? a : -1;
}

// The first 8 bytes at p as a big-endian integer: integer order is byte order.
inline uint64_t be64(const char* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

// bt_scan of a page in the pool, writing nothing; n within the page's order.  See bisect
// for `edges`.
int scan(const char* d, int n, const IS_KEY* kp, const char* key, int ncomp, int srchflag, bool edges = false) {
    const int inc = kp->k_itemlen + 4;
    const int pad = kp->k_offset > kp->k_keylen ? kp->k_keylen : -1;
    const bool eq_goes_on = !(srchflag & 0x01);
    const bool back = (srchflag & 0x02) != 0;
    const size_t len = ncomp > 0 ? static_cast<size_t>(ncomp) : 0;
    if (len >= 1 && len <= 8 && (pad < 0 || static_cast<size_t>(pad) >= len)) {
        // A short key compares as one integer.  Eight bytes may be loaded from any item
        // (and from the caller's item buffer): an item of a short key is followed by at
        // least its 4-byte pointer, and the last item of a full page ends 8 bytes or more
        // before the page does.
        const int sh = static_cast<int>(64 - 8 * len);
        const uint64_t kv = be64(key) >> sh;
        auto iv = [&](int i) __attribute__((always_inline)) { return be64(d + bt_item_off(i, inc)) >> sh; };
        if (back) {
            if (eq_goes_on) return bisect(n, true, edges, [&](int i) __attribute__((always_inline)) { return kv <= iv(i); });
            return bisect(n, true, edges, [&](int i) __attribute__((always_inline)) { return kv < iv(i); });
        }
        if (eq_goes_on) return bisect(n, false, edges, [&](int i) __attribute__((always_inline)) { return kv >= iv(i); });
        return bisect(n, false, edges, [&](int i) __attribute__((always_inline)) { return kv > iv(i); });
    }
    return bisect(n, back, edges, [&](int i) __attribute__((always_inline)) {
        const int c = cmp_item(key, d + bt_item_off(i, inc), len, pad);
        return back ? (c < 0 || (c == 0 && eq_goes_on)) : (c > 0 || (c == 0 && eq_goes_on));
    });
}

// Item count of tree page d of key keyno, or -1 when d is no such page.  (The lines a
// bisection will look at were asked for when the page was found: it reads them one
// after another, and waiting for each in turn is most of what a page costs when it is
// not in a cache.)
inline int items_of(const char* d, int keyno, int order) {
    const int n = ld16(d + 2);
    if (ld16(d) != keyno || n < 0 || n > order) return -1;
    return n;
}

// bt_search without the lock: 1 found (item filled), 0 none, -1 gave up (s.fail).
// *hint is the cursor's page hint, updated as the locked search updates it.
// *found tells where the item was found; `step`, the memo of the cursor's last read
// when it may apply (a strict step from a positioned cursor).
int search(Search& s, int keyno, PAGE root, int srchflag, char* item, PAGE* hint, Found* found = nullptr,
           const StepMemo* step = nullptr, LeafDir* dir = nullptr) {
    const IS_KEY* kp = fcp_key(is_curfcp, keyno);
    const int len = kp->k_itemlen;
    const int inc = len + 4;
    const int order = kp->k_order;
    const bool exact5 = srchflag == 5;
    const int ncomp = exact5 ? kp->k_keylen : kp->k_ncomp;
    const bool back = (srchflag & 0x02) != 0;
    const int nothing = exact5 ? 0 : 1;
    const int pad = kp->k_offset > kp->k_keylen ? kp->k_keylen : -1;
    const size_t cl = static_cast<size_t>(ncomp);
    auto take = [&](const char* xp) {
        copy_item(item, xp, static_cast<size_t>(len));
        bt_zero_pad(item, kp);
    };

    bt_zero_pad(item, kp);
    if (root == KISAM_NOPAGE) return 0;
    PAGE pno = root;
    const char* d = nullptr;
    int x = -1, n = 0;

    // The hint, exactly as the locked search takes it: where it lands among equal items
    // of an alternate key depends on the hint, so a hint the locked read would have found
    // in the pool must be found here too.
    const PAGE h = *hint;
    if (step && step->at.at.pno == h && h != KISAM_NOPAGE && s.nmarks < Search::kMarks) {
        const PeekMark& sm = step->at.at;
        const IS_DATA* sp = sm.slot >= 0 ? v_peek_again(s.u, sm) : s.armed ? v_peek_file(s.u, h) : nullptr;
        const int sx = step->at.x;
        if (sp) {
            if (sm.slot >= 0) s.marks[s.nmarks++] = sm;
            else s.file = true;
            s.last = sm;
            n = items_of(sp->c, keyno, order);
            const int nx = back ? sx - 1 : sx + 1;
            if (sx >= 0 && sx < n && nx >= 0 && nx < n &&
                cmp_item(item, sp->c + bt_item_off(sx, inc), cl, pad) == 0) {
                d = sp->c;
                pno = h;
                x = nx;
            }
        }
    }
    // Key 0's leaf directory: the leaf that held the keys around this one, taken as a
    // hint is.  An entry whose page no longer starts with its key is dropped; a leaf the
    // descent below comes to is filed.
    LeafRef* dref = d == nullptr && dir ? dir->floor(item) : nullptr;
    if (dref) {
        const IS_DATA* cp = dir_page(s, *dref);
        if (s.fail != kNone) return -1;
        const int klen = dir->klen();
        const char* cd = cp ? cp->c : nullptr;
        const int cn = cd ? items_of(cd, keyno, order) : -1;
        if (cn > 0 && ld32(cd + bt_ptr_off(0, inc)) == KISAM_NOPAGE &&
            dir->found_is(cd + bt_item_off(0, inc))) {
            if (s.last.slot != dref->slot || s.last.stamp != dref->stamp)
                s.note_put(cd + bt_item_off(0, inc), klen, s.last);
            const int cx = scan(cd, cn, kp, item, ncomp, srchflag, true);
            if (cx >= 0 && (srchflag & 0x01) && cmp_item(item, cd + bt_item_off(cx, inc), cl, pad) == 0) {
                s.dir_hit = true;
                take(cd + bt_item_off(cx, inc));
                *hint = dref->pno;
                if (found) *found = Found{s.last, cx, cd};
                return 1;
            }
            if (cx >= 0 && cx != (back ? cn - 1 : 0)) {
                s.dir_hit = true;
                d = cd;
                pno = dref->pno;
                n = cn;
                x = cx;
            }
        } else {
            s.drop = true;
            dir->found_key(s.drop_lo);
        }
    }
    if (h != KISAM_NOPAGE && d == nullptr) {
        if (s.nmarks == Search::kMarks && !s.still()) {
            s.fail = kTorn;
            return -1;
        }
        const IS_DATA* hp = page_ok(h) ? s.peek(h) : nullptr;
        bool known = false;
        if (!hp && page_ok(h)) {
            const int kn = v_peek_learn(s.u);
            known = kn != 0;
            if (kn == 2) hp = s.peek(h);
            // Items compared whole are unique: a search for the nearest lands on the same
            // item from any page on its way, so that the file's copy of a hint page not in
            // the pool serves as well.  Only a search of equal key values (5, on the key's
            // own length) depends on whether the locked read would have had the hint.
            if (!hp && known && !exact5 && !s.armed) {
                s.fail = kArm;
                return -1;
            }
            if (!hp && known && !exact5 && (hp = v_peek_file(s.u, h))) {
                s.last = PeekMark{-1, 0, h};
                s.file = true;
            }
        }
        if (!hp && page_ok(h) && !known) {
            s.fail = kMiss;
            s.missed = h;
            s.hint = true;
            return -1;
        }
        if (hp) {
            const char* hd = hp->c;
            n = items_of(hd, keyno, order);
            if (n > 0) {
                x = scan(hd, n, kp, item, ncomp, srchflag, true);
                if (x >= 0 && (srchflag & 0x01) && cmp_item(item, hd + bt_item_off(x, inc), cl, pad) == 0) {
                    take(hd + bt_item_off(x, inc));
                    if (found) *found = Found{s.last, x, hd};
                    return 1;
                }
                if (x >= 0 && x != (back ? n - 1 : 0)) {
                    d = hd;
                    pno = h;
                }
            }
        }
    }

    // The page on the way down whose item is the answer when no exact match turns up:
    // the locked search returns up through every page whose scan stopped at an item; a
    // nearest search stops at the deepest such page (a 1 from below goes straight up),
    // an exact one (whose nearest is a 0) lets each of them replace the item, so the
    // highest one wins.
    const char* best = nullptr;
    PAGE bestp = KISAM_NOPAGE;
    Found bestat;
    PeekMark dmark = s.last;  // where page d came from
    for (int depth = 0;; ++depth) {
        if (depth > kBtMaxDepth) {
            s.fail = kTorn;
            return -1;
        }
        if (d == nullptr) {
            d = page_at(s, pno);
            if (!d) return -1;
            dmark = s.last;
            n = items_of(d, keyno, order);
            if (n < 0) {
                s.fail = kTorn;
                return -1;
            }
            if (dir && n > 0 && ld32(d + bt_ptr_off(0, inc)) == KISAM_NOPAGE)
                s.note_put(d + bt_item_off(0, inc), dir->klen(), dmark);
            x = n == 0 ? -1 : scan(d, n, kp, item, ncomp, srchflag);
        }
        PAGE child;
        if (x >= 0) {
            const char* xp = d + bt_item_off(x, inc);
            if ((srchflag & 0x01) && cmp_item(item, xp, cl, pad) == 0) {
                take(xp);
                *hint = pno;
                if (found) *found = Found{dmark, x, d};
                return 1;
            }
            if (!best || !exact5) {
                best = xp;
                bestp = pno;
                bestat = Found{dmark, x, d};
            }
            child = ld32(d + bt_ptr_off(back ? x + 1 : x, inc));
            if (child == KISAM_NOPAGE) break;
        } else {
            child = ld32(d + bt_ptr_off(back ? 0 : n, inc));
            if (child == KISAM_NOPAGE) break;
        }
        pno = child;
        d = nullptr;
    }
    if (!best) return 0;
    take(best);
    *hint = bestp;
    if (found) *found = bestat;
    return nothing;
}

// dr_get without the lock: bytes copied, or -1 (s.fail).
int fetch(Search& s, PAGE drp, char* recptr, int maxlen) {
    int got = 0;
    if (maxlen < 0) maxlen = 0;
    // A record of at most KISAM_MAXREC bytes spans at most this many overflow pages; a
    // longer chain is damage or a torn link, which the locked read deals with.
    constexpr int kMaxOverflow = KISAM_MAXREC / kDrOverflowData + 1;
    for (int steps = 0; maxlen > 0 && drp != KISAM_NOPAGE && (drp & kDrLowMask) == 1; ++steps) {
        const PAGE pno = drp & ~kDrLowMask;
        if (steps >= kMaxOverflow) {
            s.fail = kTorn;
            return -1;
        }
        const char* pg = page_at(s, pno);
        if (!pg) return -1;
        const int n = std::min(kDrOverflowData, maxlen - got);
        std::memcpy(recptr, pg + offsetof(BDR, bdr_data), static_cast<size_t>(n));
        drp = ld32(pg + offsetof(BDR, bdr_link));
        recptr += n;
        got += n;
        if (got >= maxlen) return got;
    }

    int sx = static_cast<int>(drp & kDrLowMask);
    const PAGE pno = drp & ~kDrLowMask;
    if ((drp & 1) != 0 || sx == 0) {
        s.fail = kTorn;
        return -1;
    }
    const char* page = page_at(s, pno, sx);
    if (!page) return -1;
    for (int steps = 0; steps < kPage / 4; ++steps) {
        if (sx < 2 || sx > kPage - 2) break;
        const unsigned ctlw = ldu16(page + sx);
        int len, hdr, next = 0;
        if ((ctlw & 0x8000) == 0) {
            len = static_cast<int>(ctlw & 0xFF);  // the length byte comes first
            hdr = 1;
        } else if ((ctlw & 0x4000) == 0) {
            len = static_cast<int>(ctlw & 0x3FF);
            hdr = 2;
        } else {
            if (sx + 3 > kPage) break;
            len = static_cast<int>(ctlw & 0x3FF);
            hdr = 3;
            next = static_cast<int>(((ctlw >> 2) & 0x300) + ld8(page + sx + 2));
            if (next & 1) break;
        }
        if (sx + hdr + len > kPage) break;
        const char* data = page + sx + hdr;
        got += len;
        if (got > maxlen) {
            std::memcpy(recptr, data, static_cast<size_t>(len - (got - maxlen)));
            return maxlen;
        }
        std::memcpy(recptr, data, static_cast<size_t>(len));
        if (next == 0) return got;
        recptr += len;
        sx = next;
    }
    s.fail = kTorn;
    return -1;
}

// An attempt that stopped at a page not in the pool: says which, for the caller to load.
int missed(const Search& s) {
    is_nolock_miss = {s.missed, s.hint};
    return kReadMiss;
}

// The largest item a read without the lock keeps a copy of: every key's fits (two items
// must fit in a page).
constexpr int kItemMax = kPage;

// A scan along an alternate key past the pool waits, at each step, for key 0's leaf of
// its record and then for the record's page, one after the other, where neither is in a
// cache.  The items of the next steps are in the page at hand: the record's page of the
// next one (whose leaf the step before asked for) and key 0's leaf of the one after it
// are asked of the memory now, so that they arrive while the caller works on this
// record.  Only a guess, from bytes that may be torn or changing: every index is bounded
// by its page, and nothing read here is used but as an address to prefetch.  Reads of
// the file's mapping are covered by the attempt's arming (a fault sends the read to the
// lock, as any other access of the attempt).
// The directory's entry that the last look-ahead found for the item two steps on: the
// next step's look-ahead takes it for its item one step on instead of searching the
// directory again (a guess like the rest).
struct AheadMemo {
    const char* page = nullptr;
    int x = -1;
    LeafRef ref{};
};
AheadMemo ahead_memo;

void look_ahead(int u, const Found& f, int keyno, bool back, LeafDir* dir) {
    const IS_KEY* kd = fcp_key(is_curfcp, keyno);
    const IS_KEY* k0 = fcp_key(is_curfcp, 0);
    const int inc = kd->k_itemlen + 4, inc0 = k0->k_itemlen + 4;
    const int n = items_of(f.page, keyno, kd->k_order);
    const int klen = dir->klen();
    // key 0's value in an item of key keyno, which the directory and key 0's leaves
    // compare over klen bytes (it has one only when k_ncomp == k_keylen == klen).
    if (kd->k_offset + klen > kd->k_itemlen) return;
    ++is_lookaheads;
    const int x2 = back ? f.x - 2 : f.x + 2, x1 = back ? f.x - 1 : f.x + 1;
    const bool have1 = ahead_memo.page == f.page && ahead_memo.x == x1;
    const LeafRef m1 = ahead_memo.ref;
    // Key 0's leaf of the item two steps on.
    if (x2 >= 0 && x2 < n) {
        const LeafRef* r = dir->floor(f.page + bt_item_off(x2, inc) + kd->k_offset);
        const char* leaf = r && page_ok(r->pno) ? v_peek_guess(u, r->pno, r->slot) : nullptr;
        if (leaf) {
            v_peek_ask(leaf, kPeekWhole);
            ahead_memo = AheadMemo{f.page, x2, *r};
        }
    }
    // The record's page of the item one step on, from its leaf (asked for a step ago).
    if (x1 < 0 || x1 >= n) return;
    const char* key = f.page + bt_item_off(x1, inc) + kd->k_offset;
    LeafRef r1;
    if (have1) {
        r1 = m1;
    } else if (const LeafRef* r = dir->floor(key)) {
        r1 = *r;
    } else {
        return;
    }
    const char* leaf = page_ok(r1.pno) ? v_peek_guess(u, r1.pno, r1.slot) : nullptr;
    if (!leaf) return;
    const int ln = items_of(leaf, 0, k0->k_order);
    if (ln <= 0) return;
    const int lx = scan(leaf, ln, k0, key, klen, 1);
    if (lx < 0) return;
    const char* it = leaf + bt_item_off(lx, inc0);
    if (key_cmp(key, it, static_cast<size_t>(klen)) != 0) return;
    const PAGE drp = ld32(it + k0->k_offset);
    const int sx = static_cast<int>(drp & kDrLowMask);
    if ((drp & 1) == 0 && sx != 0 && page_ok(drp & ~kDrLowMask)) v_peek_prefetch(u, drp & ~kDrLowMask, sx);
}

// One attempt (is_read_nolock's result).  Armed for faults in the files' mappings, or, when
// not, kReadArm where it would read a page in one.
int attempt(int keyno, char* record, int recsize, int dir, bool armed) noexcept {
    IS_PFI* pfi = is_curpfi;
    IS_FCP* fcp = is_curfcp;
    IS_DB* db = is_curdb;
    if (!isx_area || test_locked_reads) return kReadLocked;
    // A hold of this process's own (an application's bracket) makes the locked read as
    // cheap, and it sees this process's changes under way.
    if (pfi->pfi_ctlcnt != 0 || (pfi->pfi_bits & PFI_SEQ)) return kReadLocked;
    const int nkeys = fcp->is_nkeys;
    if (nkeys < 1 || keyno >= nkeys) return kReadLocked;
    const IS_KEY* k0 = fcp_key(fcp, 0);
    const IS_KEY* kd = fcp_key(fcp, keyno);
    // What the locked read reports as an error, it reports.
    if (record == nullptr || recsize < k0->k_keylen) return kReadLocked;
    if (kd->k_itemlen > kItemMax || k0->k_itemlen > kItemMax) return kReadLocked;
    const bool exact = dir == 5;
    char saved[512];
    if (exact && kd->k_itemlen > static_cast<int>(sizeof saved)) return kReadLocked;

    const int u = db->uniqueid;
    // A pool this process has not set its index up for yet (its first read since it
    // attached): a miss that only learns the chain sets it up under the lock, and the
    // read runs again.
    if (!v_peek_ready(u)) {
        const PAGE root = ld32(reinterpret_cast<const char*>(&kd->k_root));
        if (!page_ok(root)) return kReadLocked;
        is_nolock_miss = {root, true};
        return kReadMiss;
    }
    isx_file* xf = isx_file_of(u);
    std::atomic_ref<uint32_t> seq(xf->xf_seq);
    const uint32_t s0 = seq.load(std::memory_order_acquire);
    if (s0 & 1) return kReadAgain;
    auto same = [&] {
        std::atomic_thread_fence(std::memory_order_acquire);
        return seq.load(std::memory_order_relaxed) == s0;
    };
    Search s{u, armed};
    // Why a search or the record's fetch gave up, as is_read_nolock's result.
    auto gave_up = [&] {
        if (s.fail == kArm) return kReadArm;
        return s.fail == kMiss && same() ? missed(s) : kReadAgain;
    };
    // A rollback still pending, a control page still due to be written by this
    // process's release, or a data-changed mark that the release would clear: the
    // locked read does more than read.
    const unsigned opt = ld8(reinterpret_cast<const char*>(&fcp->is_optbits));
    const bool writable = pfi->pfi_osfd >= 0 && !(pfi->pfi_bits & PFI_RDONLY);
    if (std::atomic_ref<uint32_t>(xf->xf_undo).load(std::memory_order_relaxed) != 0 ||
        (opt & ISO_SEQ) || ((opt & ISO_CHANGED) && writable) ||
        (writable && (opt & (ISO_DIRTYMARK | ISO_CLEARREL)) == (ISO_DIRTYMARK | ISO_CLEARREL)))
        return same() ? kReadLocked : kReadAgain;

    // The cursors as the locked read would leave them, kept aside until the count says
    // the read stands.
    IS_DBKEY* cur = db_cursor(db, keyno);
    IS_DBKEY* cur0 = db_cursor(db, 0);
    const int ilen = kd->k_itemlen;
    char ck[kItemMax];
    char k0item[kItemMax];
    copy_item(ck, cur->currkey, static_cast<size_t>(ilen));
    int16_t kstate = cur->curr_kstate;
    PAGE hint = cur->currpage;
    PAGE hint0 = cur0->currpage;

    const char pad = dir == 2 ? static_cast<char>(0xFF) : 0;
    if (kstate == 0) is_pad(ck, kd->k_keylen, pad);
    int mode = kstate == 2 ? dir : (dir | 1);
    // A strict step from a positioned cursor, the file unchanged since the last read of
    // this cursor along this key.
    const bool stepping = (mode == 0 || mode == 2) && memo.db == db && memo.keyno == keyno && memo.seq == s0;
    Found found;
    LeafDir* ldir = nullptr;
    char* item = ck;
    int result = -1;
    if (keyno >= 1) {
        if (kstate != 2) is_pad(ck + kd->k_offset, ilen - kd->k_offset, pad);
        kstate = 2;
        if (exact) copy_item(saved, ck, static_cast<size_t>(ilen));
        const int r = search(s, keyno, ld32(reinterpret_cast<const char*>(&kd->k_root)), mode, ck, &hint, &found,
                             stepping ? &memo : nullptr);
        if (r < 0) return gave_up();
        if (r == 0 && exact) copy_item(ck, saved, static_cast<size_t>(ilen));
        if (r != 1) {
            result = r;
        } else {
            item = k0item;
            copy_item(item, ck + kd->k_offset, static_cast<size_t>(k0->k_keylen));
            mode = 1;
        }
    } else {
        kstate = 2;
        if (exact) copy_item(saved, ck, static_cast<size_t>(ilen));
    }

    if (result < 0) {
        PAGE* h0 = keyno == 0 ? &hint : &hint0;
        ldir = dir_of(u, fcp, k0);
        const int r = search(s, 0, ld32(reinterpret_cast<const char*>(&k0->k_root)), mode, item, h0,
                             keyno == 0 ? &found : nullptr, keyno == 0 && stepping ? &memo : nullptr, ldir);
        if (r < 0) return gave_up();
        if (r == 0 && exact && keyno == 0) copy_item(ck, saved, static_cast<size_t>(ilen));
        if (r != 1) {
            result = r;
        } else if (keyno >= 1 &&
                   key_cmp(item, ck + kd->k_offset, static_cast<size_t>(k0->k_keylen)) != 0) {
            result = 0;
        } else {
            const PAGE addr = load_at<PAGE>(item + k0->k_offset);
            int kl = 0;
            if (opt & ISO_KEYOPT) {
                kl = k0->k_keylen;
                std::memcpy(record, item, static_cast<size_t>(kl));
            }
            if ((opt & ISO_KEYOPT) && (addr == KISAM_NOPAGE || recsize == kl)) {
                result = kl;
            } else {
                const int n = fetch(s, addr, record + kl, recsize - kl);
                if (n < 0) return gave_up();
                result = n + kl;
            }
        }
    }

    if (!s.still() || !same()) return kReadAgain;
    // A step past the pool along an alternate key: the next steps' pages asked for (before
    // the cursors move: the look-ahead may still fault in the file's mapping).
    if (s.file && ldir && keyno >= 1 && (dir == 0 || dir == 2) && result > 0 && found.page)
        look_ahead(u, found, keyno, dir == 2, ldir);
    if (ldir) {
        is_leafdir_hits += s.dir_hit;
        if (s.drop) {
            ldir->drop(s.drop_lo);
            ++is_leafdir_drops;
        }
        for (int i = 0; i < s.nputs; ++i) ldir->put(s.put_lo[i], s.put_ref[i]);
    }
    memo.seq = 1;
    if (found.at.pno == hint && hint != KISAM_NOPAGE) {
        memo.db = db;
        memo.keyno = keyno;
        memo.seq = s0;
        memo.at = found;
    }
    copy_item(cur->currkey, ck, static_cast<size_t>(ilen));
    cur->curr_kstate = kstate;
    cur->currpage = hint;
    if (keyno >= 1) cur0->currpage = hint0;
    ++is_nolock_reads;
    return result;
}

// Whether the next attempt is armed from its start, and the armed attempts in a row
// since one last read a page in a mapping.  Arming costs a sigsetjmp and the thread's
// target set and cleared: a process whose reads all find their pages in the pool runs
// them unarmed, and one whose reads go past the pool arms each from its start rather
// than give up part way (kReadArm) and start again.
bool arm_first = true;
int calm = 0;
constexpr int kCalm = 16;

}  // namespace

// An attempt may read pages in place in the file's mapping, where a file cut short by
// another program (or a page the disk cannot read back) faults.  Such a fault jumps back
// here, and the read goes to the lock and pread, which report it as for any read.  The
// jump is safe at any access of a mapping: the attempt takes no lock, writes nothing
// shared but whole words (a reference byte, the hit count), moves the cursors and the
// step memo only after its last access, holds nothing that needs a destructor, and
// leaves at worst part of a record in the caller's buffer (as a read that does not
// stand may).  The step memo may name a page of the dropped mapping: it is forgotten.
// An attempt that runs unarmed touches no mapping: where it would, it gives up before
// the access (kReadArm, nothing moved) and runs again armed.
int is_read_nolock(int keyno, char* record, int recsize, int dir) noexcept {
    if (!arm_first) {
        ++is_unarmed_reads;
        const int r = attempt(keyno, record, recsize, dir, false);
        if (r != kReadArm) return r;
        ++is_rearmed_reads;
        arm_first = true;
        calm = 0;
    }
    MappedRead armed;
    if (sigsetjmp(armed.env, 0) != 0) {
        v_mapped_fault();
        memo.seq = 1;
        calm = 0;
        return kReadLocked;
    }
    const unsigned long file_reads = v_file_reads;
    MappedRead** target = v_mapped_arm(&armed);
    const int r = attempt(keyno, record, recsize, dir, true);
    v_mapped_disarm(target);
    if (v_file_reads != file_reads) calm = 0;
    else if (++calm >= kCalm) arm_first = false;
    return r;
}
