// The control lock of the current file: one lock word per shared file, held per process
// with a nesting count so that operations can bracket each other.  Every release writes
// the dirty buffers back; only the outermost one gives the word up.
//
// Taking the word over from a holder that died repairs what it left: its fixes on the
// file's slots, and the unit it was running (rolled back through its journal).  A
// rollback still pending on the file is settled by every taker before anything else.
//
// Detail of procedure isgetctl (0x36) raised or pushed here besides the documented ones:
//   1  the word could not be taken: ISE_DEADLOCK (a cycle of waits), KISAM_ISE_LOCKFAIL
//      (the lock call failed) or KISAM_ISE_INTERRUPTED (the wait was given up)
//   2  a pending rollback could not be completed (pushed over the I/O error); nothing
//      is held afterwards
#include "is_error.h"
#include "is_lock.h"
#include "is_ctl.h"
#include "isx_area.h"
#include "jn.h"
#include "v_pool.h"

#include <cerrno>

int is_getctl(void) noexcept {
    IS_PFI* pfi = is_curpfi;
    IS_FCP* fcp = is_curfcp;
    if (++pfi->pfi_ctlcnt != 1) {
        // Held already.  A rollback still pending (this process's own, cut short when a
        // signal handler left it part way) is settled before anything reads or builds on
        // the pages it was putting back.
        const int u = static_cast<int>(pfi - is_pfi);
        if (isx_area && kisam::isx_file_of(u)->xf_undo != 0 && jn_settle(fcp, u) != 0) {
            --pfi->pfi_ctlcnt;
            return is_push(PROC(P_ISGETCTL, 2));
        }
        return 0;
    }
    if (is_lock(&fcp->jd_fcplock) != 0) {
        // The kernel refused the wait (it would close a cycle with a process that waits
        // for something this process holds), the lock call failed, or the wait was given
        // up for a signal.  Give the hold back untouched.
        pfi->pfi_ctlcnt = 0;
        return is_raise(is_lock_code(errno), PROC(P_ISGETCTL, 1));
    }
    if (is_lock_stale == 1) {
        // The previous holder died inside its hold: the pages it had fixed are still
        // marked in use, and the call it was making may be half done.
        jn_note_stale(fcp, is_lock_stale_pid);
        v_stale_fcplock(fcp);
    }
    const int u = static_cast<int>(pfi - is_pfi);
    // Only a holder changes the file's change count, so a count found odd was left by
    // one that died (or could not register it): this hold makes it even at its end.
    v_seq_adopt(fcp, u);
    if (isx_area && kisam::isx_file_of(u)->xf_undo != 0 && jn_settle(fcp, u) != 0) {
        // Nothing may read or build on a half-undone call: give the word back and fail.
        pfi->pfi_ctlcnt = 0;
        is_unlock(&fcp->jd_fcplock);
        return is_push(PROC(P_ISGETCTL, 2));
    }
    return 0;
}

namespace {

// With the option, the outermost release syncs the data and clears the mark; 0, or -1
// (error raised) when that failed.
int clear_mark(IS_FCP* fcp, IS_PFI* pfi) noexcept {
    if (!(pfi->pfi_bits & PFI_RDONLY) &&
        (fcp->is_optbits & (ISO_DIRTYMARK | ISO_CLEARREL | ISO_SEQ)) == (ISO_DIRTYMARK | ISO_CLEARREL) &&
        fcp_setdatachanged(fcp, pfi, 0, 1) < 0)
        return -1;
    return 0;
}

}  // namespace

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
    // A sync that fails at the outermost release is a failed release like a failed flush.
    if (pfi->pfi_ctlcnt == 0 && clear_mark(fcp, pfi) != 0) return is_push(PROC(P_IS_RELCTL, 2));
    // The release that ends a unit's hold ends the unit: all of it is on disk.
    jn_release(fcp, pfi->pfi_ctlcnt);
    if (pfi->pfi_ctlcnt == 0) is_unlock(&fcp->jd_fcplock);
    return 0;
}

void is_relctl_again(void) noexcept {
    kisam::ErrorKeep keep;  // the caller reports the release that failed first
    IS_PFI* pfi = is_curpfi;
    IS_FCP* fcp = is_curfcp;
    if (pfi->pfi_ctlcnt != 0 || !is_lock_mine(&fcp->jd_fcplock)) return;
    const int u = static_cast<int>(pfi - is_pfi);
    const bool pending = isx_area && kisam::isx_file_of(u)->xf_undo != 0;
    if ((v_flush() == 0 && clear_mark(fcp, pfi) == 0) || pending) is_unlock(&fcp->jd_fcplock);
}
