// Record fetch: follows a record address through its overflow pages and the segments
// of its shared page, copying straight from the buffer pool into the caller's buffer.
//
// A record longer than the caller's buffer is cut without error.  Overflow pages are
// released as soon as they are copied; the shared page stays fixed until the flush at
// the release of the control lock.
//
// Failures: a page that cannot be read keeps the buffer pool's error, with dr_get's
// detail pushed on it; damage found here (an address that leads to no page of data, a
// segment chain that leaves its page or loops) raises ISE_BTS, the code of a damaged
// file, with the same details: 1 the overflow chain, 2 the shared page, 3 its segments.
#include "dr.h"

#include "is_error.h"
#include "v_pool.h"

#include <algorithm>
#include <cstring>

using namespace kisam;

namespace {

// A page position that can hold record data: not the control page, on a page boundary.
bool dr_pageok(PAGE p) {
    return p != 0 && (p & kDrLowMask) == 0 && p != (KISAM_NOPAGE & ~kDrLowMask);
}

}  // namespace

int dr_get(PAGE drp, char* recptr, int maxlen) noexcept {
    int got = 0;
    if (maxlen < 0) maxlen = 0;

    // Overflow chain: whole 1016-byte blocks of the front of the record.
    while (maxlen > 0 && drp != KISAM_NOPAGE && (drp & kDrLowMask) == 1) {
        PAGE pno = drp & ~kDrLowMask;
        if (!dr_pageok(pno)) return is_raise(ISE_BTS, PROC(P_DR_GET, 1));
        IS_DATA* pg = v_read(pno);
        if (pg == nullptr) return is_push(PROC(P_DR_GET, 1));
        const BDR* b = reinterpret_cast<const BDR*>(pg);
        int n = std::min(kDrOverflowData, maxlen - got);
        std::memcpy(recptr, b->bdr_data, static_cast<size_t>(n));
        PAGE link = b->bdr_link;
        v_unsafe(pno, pg->c);
        recptr += n;
        got += n;
        drp = link;
        if (got >= maxlen) return got;
    }

    // The tail, or the whole of a short record, in one shared page.
    int s = static_cast<int>(drp & kDrLowMask);
    if ((drp & 1) != 0 || s == 0) return is_raise(ISE_BTS, PROC(P_DR_GET, 1));
    PAGE pno = drp & ~kDrLowMask;
    if (!dr_pageok(pno)) return is_raise(ISE_BTS, PROC(P_DR_GET, 2));
    IS_DATA* pg = v_read(pno);
    if (pg == nullptr) return is_push(PROC(P_DR_GET, 2));
    const unsigned char* page = reinterpret_cast<const unsigned char*>(pg->c);

    // A page holds at most 255 segments (each takes 4 bytes or more); more steps than
    // that mean the continuation links form a cycle.
    for (int steps = 0; steps < kPage / 4; ++steps) {
        if (s < 2 || s > kPage - 2) break;
        uint16_t ctlw = load_at<uint16_t>(page + s);
        int len, hdr, next = 0;
        if ((ctlw & 0x8000) == 0) {          // compact form: one length byte
            len = page[s];
            hdr = 1;
        } else if ((ctlw & 0x4000) == 0) {   // last form
            len = ctlw & 0x3FF;
            hdr = 2;
        } else {                             // continued form
            if (s + 3 > kPage) break;
            len = ctlw & 0x3FF;
            hdr = 3;
            next = ((ctlw >> 2) & 0x300) + page[s + 2];
            if (next & 1) return is_raise(ISE_BTS, PROC(P_DR_GET, 3));
        }
        if (s + hdr + len > kPage) break;    // a segment never crosses the page end

        const unsigned char* data = page + s + hdr;
        got += len;
        if (got > maxlen) {
            std::memcpy(recptr, data, static_cast<size_t>(len - (got - maxlen)));
            return maxlen;
        }
        std::memcpy(recptr, data, static_cast<size_t>(len));
        if (next == 0) return got;
        recptr += len;
        s = next;
    }
    // The segment chain leaves the page or loops: the page is damaged.
    return is_raise(ISE_BTS, PROC(P_DR_GET, 3));
}
