// Page allocation: a last-in first-out chain of free pages on disk, headed by is_nextfree
// of the control page; the file grows by one page when the chain is empty.
//
// Requires the current file's control lock.  Both operations change the shared control
// page (ISO_CHANGED); it reaches the disk at the next flush.
//
// v_dispose (0x41) raises ISE_BTS, the code of a damaged file, for a page that is not a
// page of the file (detail 1: a damaged link led there) and for a buffer that does not
// hold the page it is given (detail 2); a failing read or write keeps its own error.
#include "v_pool.h"

#include "is_common.h"
#include "is_error.h"
#include "jn.h"
#include "os.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr int16_t kFreeMark = -2;
// Highest file offset a page may start at: the page must end within 32 bits.
constexpr uint64_t kMaxPageOffset = 0xFFFFFBFEull;
// Highest page number whose end is still a PAGE: is_lastpage must stay representable.
constexpr uint64_t kMaxPage = 0xFFFFFFFFull - KISAM_PAGESIZE;

}  // namespace

IS_DATA* v_new(PAGE* pno) noexcept {
    IS_FCP* fcp = is_curfcp;
    IS_PFI* pfi = is_curpfi;
    if (pfi->pfi_nkeys != fcp->is_nkeys) {
        is_raise(ISE_BADFD, PROC(P_V_NEW, 1));
        return nullptr;
    }
    if (!(pfi->pfi_bits & PFI_SEQ)) {
        const bool big = pfi->pfi_bits & PFI_BIGFCP;
        if (fcp->is_magic != (big ? ISMAGIC_1024 : ISMAGIC_512)) {
            is_raise(ISE_NWWT, PROC(P_V_NEW, big ? 1 : 2));
            return nullptr;
        }
    }
    // The shared control page says where the file ends: pages past the end on disk may
    // live in the pool only, not yet written back (lg.h).
    PAGE next = fcp->is_nextfree;
    if (next % KISAM_PAGESIZE != 0 || next < KISAM_PAGESIZE || next > fcp->is_lastpage)
        next = fcp->is_nextfree = fcp->is_lastpage;  // a damaged chain is abandoned
    *pno = next;

    IS_DATA* pg = nullptr;
    if (next != fcp->is_lastpage) {
        pg = v_read(next);
        if (!pg) return nullptr;
        if (pg->fp.fp_ident == -2) {
            // The free page is about to become the caller's: its free-chain form is part
            // of what an undo must give back.
            if (jn_touch(next, pg) != 0) {
                v_unsafe(next, pg->c);
                return nullptr;
            }
            fcp->is_nextfree = pg->fp.fp_nextpage;
        } else {
            // Every page put on the chain carries the free mark; one without it means
            // the chain is damaged and would hand out a page in use.  Abandon the chain
            // (its pages are lost to reuse, never given out twice) and grow instead.
            v_unsafe(next, pg->c);
            pg = nullptr;
            next = fcp->is_nextfree = fcp->is_lastpage;
            *pno = next;
        }
    }
    if (pg == nullptr) {
        const off_t off = v_fileoffset(fcp, next);
        if (off < 0 || static_cast<uint64_t>(off) > kMaxPageOffset || next > kMaxPage) {
            is_raise(ISE_NWSK, PROC(P_V_NEW, 1));
            return nullptr;
        }
        // The new page lives in the pool until it is written back after its log (lg.h):
        // the file grows then, not now.
        pg = v_fresh(next);
        if (!pg) return nullptr;
        fcp->is_nextfree += KISAM_PAGESIZE;
        fcp->is_lastpage += KISAM_PAGESIZE;
    }
    std::memset(pg, 0, sizeof *pg);
    fcp->is_optbits |= ISO_CHANGED;
    return pg;
}

int v_dispose(PAGE pno, IS_DATA* bp) noexcept {
    IS_FCP* fcp = is_curfcp;
    if (pno == 0 || pno >= fcp->is_lastpage || pno % KISAM_PAGESIZE != 0)
        return is_raise(ISE_BTS, PROC(P_V_DISPOSE, 1));
    if (bp) {
        // The caller's buffer must hold the page: nothing is changed otherwise.
        const int s = v_slot_of(bp);
        if (s < 0 || is_env.buf_[s].bu_pno != pno) return is_raise(ISE_BTS, PROC(P_V_DISPOSE, 2));
    } else {
        bp = v_read(pno);
        if (!bp) return -1;
    }
    if (jn_touch(pno, bp) != 0) return -1;
    std::memset(bp->c + 2, 0xFF, 30);
    bp->fp.fp_ident = kFreeMark;
    bp->fp.fp_nextpage = fcp->is_nextfree;
    fcp->is_nextfree = pno;
    if (v_write(pno, bp) != 0) return -1;
    fcp->is_optbits |= ISO_CHANGED;
    return 0;
}
