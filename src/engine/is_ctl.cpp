// The control lock of the current file: one lock word per shared file, held per process
// with a nesting count so that operations can bracket each other.  Every release writes
// the dirty buffers back; only the outermost one gives the word up.
#include "is_error.h"
#include "is_lock.h"
#include "is_rec.h"
#include "v_pool.h"

int is_getctl(void) noexcept {
    IS_PFI* pfi = is_curpfi;
    IS_FCP* fcp = is_curfcp;
    if (++pfi->pfi_ctlcnt != 1) return 0;
    if (is_lock(&fcp->jd_fcplock) != 0) {
        // The kernel refused the wait: it would close a cycle with a process that waits
        // for something this process holds.  Give the hold back untouched.
        pfi->pfi_ctlcnt = 0;
        return is_raise(ISE_DEADLOCK, PROC(P_ISGETCTL, 1));
    }
    // The previous holder died inside its hold: the pages it had fixed are still marked
    // in use and must be freed before this process relies on them.
    if (is_lock_stale == 1) v_stale_fcplock(fcp);
    return 0;
}

int is_relctl(void) noexcept {
    IS_PFI* pfi = is_curpfi;
    IS_FCP* fcp = is_curfcp;
    if (--pfi->pfi_ctlcnt < 0) {
        pfi->pfi_ctlcnt = 0;
        return 0;
    }
    // A failed flush keeps the word even at count 0: the unwritten buffers are this
    // process's, and nobody else may see the file half written.
    if (v_flush() != 0) return is_push(PROC(P_IS_RELCTL, 2));
    if (pfi->pfi_ctlcnt == 0) {
        if (!(pfi->pfi_bits & PFI_RDONLY) &&
            (fcp->is_optbits & (ISO_DIRTYMARK | ISO_CLEARREL | ISO_SEQ)) ==
                (ISO_DIRTYMARK | ISO_CLEARREL))
            fcp_setdatachanged(fcp, pfi, 0, 1);
        is_unlock(&fcp->jd_fcplock);
    }
    return 0;
}
