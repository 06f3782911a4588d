// Record storage and release: segments and free chunks inside shared data pages,
// overflow chains for the front of long records, and the file's free-space table.
//
// Shared page invariants (kept by every change here):
//   - the page word is 0x8000 + the offset of the first free chunk, 0x8000 when none;
//   - free chunks lie at even offsets, in ascending order, each at least 4 bytes, and
//     never adjoin each other or a segment's slack closer than 4 bytes;
//   - segments and free chunks tile the body, save slack of at most 3 bytes behind a
//     segment;
//   - slack is 2 bytes (sizes are even) and, in the middle of the body, holds the mark
//     kSlack, so that the release of the segment frees its slack with it.  A chunk
//     taken whole with 2 bytes to spare would otherwise lose them when its segment is
//     freed next to another segment; the chunk's next reuse of the kind loses 2 more,
//     and so on: the lost bytes split chunks that can then never merge, and a page
//     holding no record any more keeps a free total under the mark of an empty page
//     (or drops out of the full table) and is never given back.
// Free-space table invariants: used entries are packed from entry 0; each holds a page
// position plus that page's free total (1..1019) in the low 10 bits; is_mincdpi is the
// first used entry with the least free bytes, -1 when there is none.
//
// Failures: where a call below (buffer pool, page allocation) failed, its error stays and
// the detail of dr_put, dr_sync or dr_rel is pushed on it.  Where the damage is found
// here -- a free-space entry or record address that names no page of data, a free list
// or segment chain that breaks the invariants above -- ISE_BTS, the code of a damaged
// file, is raised with that same detail, so the stack is the same either way.
#include "dr.h"

#include "is_error.h"
#include "jn.h"
#include "v_pool.h"

#include <cstring>

using namespace kisam;

namespace {

constexpr int kCdp = 16;
constexpr int kFreeMax = 1019;   // a page with more free bytes than this is empty
// Mark of slack.  No segment begins with it (its length, 1023, does not fit in the
// body), nor a free chunk (it would link to offset -1): a word that is this is slack,
// whoever wrote it.
constexpr uint16_t kSlack = 0xFFFF;

inline uint16_t page_word(const char* bp) { return load_at<uint16_t>(bp); }
inline void set_page_word(char* bp, int first) {
    store_at<uint16_t>(bp, static_cast<uint16_t>(kDrPageWord + first));
}
inline int chunk_next(const char* bp, int off) { return load_at<int16_t>(bp + off); }
inline int chunk_avail(const char* bp, int off) { return load_at<int16_t>(bp + off + 2); }
inline void set_chunk(char* bp, int off, int next, int avail) {
    store_at<int16_t>(bp + off, static_cast<int16_t>(next));
    store_at<int16_t>(bp + off + 2, static_cast<int16_t>(avail));
}
inline void set_chunk_next(char* bp, int off, int next) {
    store_at<int16_t>(bp + off, static_cast<int16_t>(next));
}
inline void set_chunk_avail(char* bp, int off, int avail) {
    store_at<int16_t>(bp + off + 2, static_cast<int16_t>(avail));
}

// Offset of the first free chunk; 0 when the page has none.
inline int first_free(const char* bp) { return page_word(bp) & 0x7FFF; }

// Sum of the free chunks of a shared page, or -1 when the free list is damaged (out of
// the body, odd, unordered, overlapping or too small): such a page is never changed.
int free_total(const char* bp) {
    uint16_t pw = page_word(bp);
    if ((pw & 0x8000) == 0) return -1;
    int total = 0, end = 2;
    for (int c = pw & 0x7FFF; c != 0; c = chunk_next(bp, c)) {
        if ((c & 1) != 0 || c < end || c > kPage - 4) return -1;
        int a = chunk_avail(bp, c);
        if (a < 4 || (a & 1) != 0 || c + a > kPage) return -1;
        total += a;
        end = c + a;
    }
    return total;
}

inline bool page_ok(PAGE p) {
    return p != 0 && (p & kDrLowMask) == 0 && p != (KISAM_NOPAGE & ~kDrLowMask);
}

// Writes a segment header and its data at offset off.
void put_last(char* bp, int off, const char* src, int len) {
    store_at<uint16_t>(bp + off, static_cast<uint16_t>(0x8000 + len));
    std::memcpy(bp + off + 2, src, static_cast<size_t>(len));
}
// Marks the slack of a segment at off that took a chunk of avail bytes.
void mark_slack(char* bp, int off, int len, int avail) {
    const int n = dr_need(len);
    if (avail > n) store_at<uint16_t>(bp + off + n, kSlack);
}
void put_continued(char* bp, int off, int next, const char* src, int len) {
    store_at<uint16_t>(bp + off,
                       static_cast<uint16_t>(0xC000 + ((next << 2) & 0xC00) + len));
    bp[off + 2] = static_cast<char>(next & 0xFF);
    std::memcpy(bp + off + 3, src, static_cast<size_t>(len));
}

int cdp_used(const IS_FCP* fcp) {
    int n = 0;
    while (n < kCdp && fcp->is_cdp[n] != 0) ++n;
    return n;
}

int cdp_min(const IS_FCP* fcp) {
    int best = -1;
    for (int i = 0; i < kCdp && fcp->is_cdp[i] != 0; ++i) {
        if (best < 0 || (fcp->is_cdp[i] & kDrLowMask) < (fcp->is_cdp[best] & kDrLowMask))
            best = i;
    }
    return best;
}

}  // namespace

// The 32-byte blocks of a page that [lo, hi) touches (jn_change).
inline uint32_t blocks(int lo, int hi) {
    uint32_t m = 0;
    for (int b = lo < 0 ? 0 : lo / 32; b * 32 < hi && b < 32; ++b) m |= uint32_t{1} << b;
    return m;
}

// Places reclen bytes in shared page bp (position drp).  Returns the record address,
// 0 when the bytes do not fit in this page, 0xFFFFFFFF for a page without a free chunk
// when reclen <= 0 (or a damaged free list).  *noted gains the blocks it changed.
static PAGE dr_putrec(const char* recptr, int reclen, PAGE drp, char* bp, uint32_t* noted) noexcept {
    int head = first_free(bp);
    if (head == 0) return reclen > 0 ? 0 : KISAM_NOPAGE;
    if (free_total(bp) < 0) return KISAM_NOPAGE;

    const int n = dr_need(reclen);
    int r = reclen;    // fit test for pieces: what the chunks walked so far leave over
    int prev = 0;
    for (int c = head; c != 0; prev = c, c = chunk_next(bp, c)) {
        int a = chunk_avail(bp, c);
        if (a >= n) {
            int seg;
            if (a - n <= 3) {    // take the chunk whole, slack included
                if (prev == 0)
                    set_page_word(bp, chunk_next(bp, c));
                else
                    set_chunk_next(bp, prev, chunk_next(bp, c));
                *noted |= prev == 0 ? blocks(0, 2) : blocks(prev, prev + 2);
                seg = c;
            } else {             // the record goes to the chunk's end; the front stays
                set_chunk_avail(bp, c, a - n);
                *noted |= blocks(c + 2, c + 4);
                seg = c + a - n;
            }
            put_last(bp, seg, recptr, reclen);
            *noted |= blocks(seg, seg + 2 + reclen);
            if (seg == c) {
                mark_slack(bp, seg, reclen, a);
                *noted |= blocks(seg + n, seg + a);
            }
            return drp + static_cast<PAGE>(seg);
        }
        if (r > 0) r = dr_need(r) <= a ? 0 : r - (a - 3);
    }
    if (r > 0) return 0;

    // Pieces, following the free list: every chunk before the last is consumed whole.
    *noted = ~0u;
    const char* src = recptr;
    int remaining = reclen;
    for (int c = head; c != 0;) {
        int a = chunk_avail(bp, c);
        int nx = chunk_next(bp, c);
        int need = dr_need(remaining);
        if (need > a) {
            put_continued(bp, c, nx, src, a - 3);
            src += a - 3;
            remaining -= a - 3;
            c = nx;
            continue;
        }
        if (a - need > 3) {
            set_chunk(bp, c + need, nx, a - need);
            set_page_word(bp, c + need);
        } else {
            set_page_word(bp, nx);
        }
        put_last(bp, c, src, remaining);
        if (a - need <= 3) mark_slack(bp, c, remaining, a);
        return drp + static_cast<PAGE>(head);
    }
    return KISAM_NOPAGE;
}

// After a change to shared page bp: brings is_cdp and is_mincdpi up to date for it, then
// writes the page, or frees it when nothing is left in it.  cdpx is a position hint
// (-1 for none); the outcome does not depend on it.
static int dr_sync(PAGE drp, char* bp, int cdpx) noexcept {
    IS_FCP* fcp = is_curfcp;
    const PAGE p = drp & ~kDrLowMask;
    const int f = free_total(bp);
    if (f < 0) return is_raise(ISE_BTS, PROC(P_DR_SYNC, 2));

    int at = -1;
    if (cdpx >= 0 && cdpx < kCdp && fcp->is_cdp[cdpx] != 0 &&
        (fcp->is_cdp[cdpx] & ~kDrLowMask) == p) {
        at = cdpx;
    } else {
        for (int i = 0; i < kCdp && fcp->is_cdp[i] != 0; ++i) {
            if ((fcp->is_cdp[i] & ~kDrLowMask) == p) {
                at = i;
                break;
            }
        }
    }

    if (f >= 1 && f <= kFreeMax) {
        const PAGE entry = p + static_cast<PAGE>(f);
        if (at >= 0) {
            fcp->is_cdp[at] = entry;
        } else {
            int used = cdp_used(fcp);
            if (used < kCdp) {
                fcp->is_cdp[used] = entry;
            } else {
                // Full table: a page only displaces the entry with the least room, and
                // only when it has more.
                int m = cdp_min(fcp);
                if (m >= 0 && static_cast<int>(fcp->is_cdp[m] & kDrLowMask) < f)
                    fcp->is_cdp[m] = entry;
            }
        }
        fcp->is_optbits |= ISO_CHANGED;
    } else if (at >= 0) {
        // Full or empty: the page leaves the table.
        fcp->is_optbits |= ISO_CHANGED;
        for (int i = at; i < kCdp - 1; ++i) fcp->is_cdp[i] = fcp->is_cdp[i + 1];
        fcp->is_cdp[kCdp - 1] = 0;
    }
    fcp->is_mincdpi = static_cast<int16_t>(cdp_min(fcp));

    IS_DATA* pg = reinterpret_cast<IS_DATA*>(bp);
    if (f > kFreeMax) {
        if (v_dispose(p, pg) != 0) return is_push(PROC(P_DR_SYNC, 1));
    } else if (v_write(p, pg) != 0) {
        return is_push(PROC(P_DR_SYNC, 2));
    }
    return 0;
}

PAGE dr_put(const char* recptr, int reclen) noexcept {
    IS_FCP* fcp = is_curfcp;
    if (reclen < 1 || reclen > KISAM_MAXREC) {
        is_raise(ISE_RSIZE, PROC(P_DR_PUT, 2));
        return KISAM_NOPAGE;
    }

    // Split: k whole overflow blocks in front, a tail of 1..1016 bytes (or the whole of a
    // record up to 1020 bytes) in a shared page.
    int k = 0, t = reclen;
    if (reclen > kDrMaxShared) {
        k = reclen / kDrOverflowData;
        t = reclen - kDrOverflowData * k;
        if (t == 0) {
            --k;
            t = kDrOverflowData;
        }
    }
    const char* tail = recptr + kDrOverflowData * k;
    const int need = dr_need(t);

    PAGE addr = 0;
    PAGE tailpage = 0;
    char* tailbp = nullptr;
    for (int i = 0; i < kCdp && fcp->is_cdp[i] != 0; ++i) {
        const PAGE e = fcp->is_cdp[i];
        if (need > static_cast<int>(e & kDrLowMask)) continue;
        const PAGE p = e & ~kDrLowMask;
        if (!page_ok(p)) {
            is_raise(ISE_BTS, PROC(P_DR_PUT, 1));
            return KISAM_NOPAGE;
        }
        IS_DATA* pg = v_read(p);
        // The before-image first; what changes is noted once it is known.
        if (pg == nullptr || jn_touch_part(p, pg, jn_change{0, 0, 0, 0}) != 0) {
            if (pg) v_unsafe(p, pg->c);
            is_push(PROC(P_DR_PUT, 1));
            return KISAM_NOPAGE;
        }
        uint32_t noted = 0;
        PAGE a = dr_putrec(tail, t, p, pg->c, &noted);
        if (noted && jn_touch_part(p, pg, jn_change{noted, 0, 0, 0}) != 0) {
            is_push(PROC(P_DR_PUT, 1));
            return KISAM_NOPAGE;
        }
        if (a == KISAM_NOPAGE) {   // the page's free list is damaged
            is_raise(ISE_BTS, PROC(P_DR_PUT, 2));
            return KISAM_NOPAGE;
        }
        if (a != 0) {
            addr = a;
            tailpage = p;
            tailbp = pg->c;
            break;
        }
        v_unsafe(p, pg->c);   // no room after all: let the pool reuse the slot
    }

    if (addr == 0) {
        PAGE p = KISAM_NOPAGE;
        IS_DATA* pg = v_new(&p);
        if (pg == nullptr) {
            is_push(PROC(P_DR_PUT, 3));
            return KISAM_NOPAGE;
        }
        set_page_word(pg->c, 2);
        set_chunk(pg->c, 2, 0, kPage - 2);
        uint32_t noted = 0;   // a new page: logged whole
        PAGE a = dr_putrec(tail, t, p, pg->c, &noted);
        if (a == KISAM_NOPAGE || a == 0) {
            is_raise(ISE_BTS, PROC(P_DR_PUT, a == 0 ? 5 : 4));
            return KISAM_NOPAGE;
        }
        addr = a;
        tailpage = p;
        tailbp = pg->c;
    }

    // Overflow pages, last block first, each linking to what was built before it.
    for (int blk = k; blk >= 1; --blk) {
        PAGE op = KISAM_NOPAGE;
        IS_DATA* pg = v_new(&op);
        if (pg == nullptr) {
            if (dr_sync(tailpage, tailbp, -1) != 0) {
                is_push(PROC(P_DR_PUT, 6));
                return KISAM_NOPAGE;
            }
            dr_rel(addr);
            return KISAM_NOPAGE;
        }
        BDR* b = reinterpret_cast<BDR*>(pg);
        b->bdr_magic = kDrOverflowMagic;
        b->bdr_segx = static_cast<uint16_t>(blk);
        b->bdr_link = addr;
        std::memcpy(b->bdr_data, recptr + kDrOverflowData * (blk - 1), kDrOverflowData);
        v_unsafe(op, pg->c);
        if (v_write(op, pg) != 0) {
            is_push(PROC(P_DR_PUT, 7));
            return KISAM_NOPAGE;
        }
        addr = op + 1;
    }

    if (dr_sync(tailpage, tailbp, -1) != 0) {
        is_push(PROC(P_DR_PUT, 9));
        return KISAM_NOPAGE;
    }
    return addr;
}

int dr_rewrite(PAGE drp, const char* recptr, int reclen) noexcept {
    const PAGE p = drp & ~kDrLowMask;
    const int s = static_cast<int>(drp & kDrLowMask);
    // Overflow chains and odd (damaged) addresses go the long way, which checks them.
    if (drp == KISAM_NOPAGE || (drp & 1) != 0 || s < 2 || s > kPage - 4 || !page_ok(p) ||
        reclen < 1 || reclen > kDrMaxShared)
        return 0;
    IS_DATA* pg = v_read(p);
    if (pg == nullptr) return is_push(PROC(P_DR_REL, 1));
    char* bp = pg->c;
    const uint16_t ctlw = load_at<uint16_t>(bp + s);
    // Only a last-form segment is the whole record; its footprint must not change.  A
    // damaged page (a segment running off the page) is left to dr_rel to report.
    const int len = ctlw & 0x3FF;
    if ((ctlw & 0xC000) != 0x8000 || s + dr_need(len) > kPage || dr_need(len) != dr_need(reclen)) {
        v_unsafe(p, bp);
        return 0;
    }
    if (jn_touch_part(p, pg, jn_change{blocks(s, s + 2 + reclen), 0, 0, 0}) != 0) {
        v_unsafe(p, bp);
        return is_push(PROC(P_DR_REL, 1));
    }
    put_last(bp, s, recptr, reclen);
    if (v_write(p, pg) != 0) return is_push(PROC(P_DR_REL, 5));
    v_unsafe(p, bp);
    return 1;
}

int dr_rel(PAGE drp) noexcept {
    // Overflow pages go back to the free chain one by one.
    for (int n = 0; drp != KISAM_NOPAGE && (drp & kDrLowMask) == 1; ++n) {
        const PAGE p = drp - 1;
        // A record has at most 64 overflow pages; a longer chain is damage.
        if (!page_ok(p) || n > KISAM_MAXREC / kDrOverflowData) return is_raise(ISE_BTS, PROC(P_DR_REL, 1));
        IS_DATA* pg = v_read(p);
        if (pg == nullptr) return is_push(PROC(P_DR_REL, 1));
        const BDR* b = reinterpret_cast<const BDR*>(pg);
        // Never hand a page that is not an overflow page to the free chain.
        if (b->bdr_magic != kDrOverflowMagic) return is_raise(ISE_BTS, PROC(P_DR_REL, 1));
        const PAGE link = b->bdr_link;
        if (v_dispose(p, pg) != 0) return is_push(PROC(P_DR_REL, 2));
        // A long record has more overflow pages than a small pool has slots: unfix each.
        v_unsafe(p, pg->c);
        drp = link;
    }

    const PAGE p = drp & ~kDrLowMask;
    if (drp == KISAM_NOPAGE || (drp & 1) != 0 || !page_ok(p)) return is_raise(ISE_BTS, PROC(P_DR_REL, 1));
    IS_DATA* pg = v_read(p);
    if (pg == nullptr) return is_push(PROC(P_DR_REL, 1));
    // The before-image first; the chunk words the release changes are noted at its end.
    if (jn_touch_part(p, pg, jn_change{0, 0, 0, 0}) != 0) {
        v_unsafe(p, pg->c);
        return is_push(PROC(P_DR_REL, 1));
    }
    char* bp = pg->c;
    const unsigned char* ub = reinterpret_cast<const unsigned char*>(bp);
    uint32_t noted = 0;

    int s = static_cast<int>(drp & kDrLowMask);
    if (s != 0 && free_total(bp) < 0) return is_raise(ISE_BTS, PROC(P_DR_REL, 3));
    for (int steps = 0; s != 0; ++steps) {
        if ((s & 1) != 0 || s < 2 || s > kPage - 4 || steps >= kPage / 4)
            return is_raise(ISE_BTS, PROC(P_DR_REL, 3));
        const uint16_t ctlw = load_at<uint16_t>(bp + s);
        int size, next = 0;
        if ((ctlw & 0x8000) == 0) {
            // Compact form (never written here): its one length byte and its data.  Taking
            // bits 0-9 of the control word instead would count a data byte as length and
            // free bytes of the segment behind it.
            size = 1 + ub[s];
        } else if ((ctlw & 0x4000) != 0) {
            next = ((ctlw >> 2) & 0x300) + ub[s + 2];
            size = (ctlw & 0x3FF) + (next != 0 ? 3 : 2);
        } else {
            size = (ctlw & 0x3FF) + 2;
        }
        size += size & 1;
        if (size < 4) size = 4;

        int before = 0, after = first_free(bp);
        while (after != 0 && after < s) {
            before = after;
            after = chunk_next(bp, after);
        }
        if (after == s) return is_raise(ISE_BTS, PROC(P_DR_REL, 2));
        if (s + size > kPage || (after != 0 && s + size > after)) return is_raise(ISE_BTS, PROC(P_DR_REL, 3));
        if (before != 0 && before + chunk_avail(bp, before) > s)
            return is_raise(ISE_BTS, PROC(P_DR_REL, 4));
        // The segment's slack goes with it: slack marked as such, and bytes at the end
        // of the body too few for anything else.  (Slack next to a free chunk is
        // absorbed below anyway.)
        int e = s + size;
        if (after == 0 || after - e > 3) {
            if (kPage - e <= 3)
                e = kPage;
            else if (load_at<uint16_t>(bp + e) == kSlack)
                e += 2;
        }

        int merged;
        if (before != 0 && s - (before + chunk_avail(bp, before)) <= 3) {
            set_chunk_avail(bp, before, e - before);   // the gap is absorbed
            merged = before;
        } else {
            set_chunk(bp, s, after, e - s);
            if (before != 0)
                set_chunk_next(bp, before, s);
            else
                set_page_word(bp, s);
            noted |= blocks(s, s + 4) | (before != 0 ? blocks(before, before + 2) : blocks(0, 2));
            merged = s;
        }
        noted |= blocks(merged, merged + 4);
        if (after != 0 && after - e <= 3) {
            const int aend = after + chunk_avail(bp, after);
            set_chunk(bp, merged, chunk_next(bp, after), aend - merged);
        }
        s = next;
    }
    if (noted && jn_touch_part(p, pg, jn_change{noted, 0, 0, 0}) != 0) return is_push(PROC(P_DR_REL, 5));

    if (dr_sync(drp, bp, -1) != 0) return is_push(PROC(P_DR_REL, 5));
    return 0;
}
