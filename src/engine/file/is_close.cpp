// Closing files and leaving the ISAM system.
//
// A close undoes an open at up to three levels: the handle (always), this process's
// descriptor (with its last handle on the file) and the shared control page (with the
// last process anywhere).  nisclose holds opcl_lock throughout, and the file's control
// lock inside it, so opens and closes of all processes are serialised.
//
// Details of procedure isclose (0x31) raised here:
//   1  ISE_DEADLOCK: the wait for opcl_lock was refused
//   2  the wait for the file's control lock was refused (pushed over ISE_DEADLOCK)
// In both cases nothing is closed and nothing new is held.
#include "is_common.h"
#include "is_error.h"
#include "is_file.h"
#include "is_heap.h"
#include "is_lock.h"
#include "is_ctl.h"
#include "isx_area.h"
#include "jn.h"
#include "lg.h"
#include "os.h"
#include "v_pool.h"

#include <cerrno>
#include <cstdlib>
#include <sys/shm.h>

namespace {

constexpr int kClose = 0x3100;


// Releases this handle's record locks and keeps the live-lock figure true.
void release_handle_locks(int isfd) noexcept {
    int n = is_unres(isfd, nullptr, 0, 1);
    if (n > 0) {
        uint32_t cur = isam_com->curusrlocks;
        isam_com->curusrlocks = cur > static_cast<uint32_t>(n) ? cur - static_cast<uint32_t>(n) : 0;
    }
}

// The last process closed the file: whatever is still chained belongs to processes that
// died holding locks (their ranges went with them).  Each entry is unlinked before it is
// freed and never read afterwards.
void drop_lock_chain(IS_FCP* fcp) noexcept {
    RELt rel = fcp->jd_lock_hd;
    fcp->jd_lock_hd = KISAM_NOREL;
    while (rel != KISAM_NOREL) {
        IS_RC* rc = kisam::rel_ptr<IS_RC>(rel);
        RELt next = rc->rc_next;
        freencom(reinterpret_cast<char*>(rc), static_cast<unsigned>(rc->rc_len) + 16u);
        rel = next;
    }
}

}  // namespace

void is_dbfree(int isfd) noexcept {
    if (!isam_com || !is_db || isfd < 0 || isfd >= isam_com->maxopen || !is_db[isfd]) return;
    if (is_db[isfd] == is_curdb) is_curdb = nullptr;
    std::free(is_db[isfd]);
    is_db[isfd] = nullptr;
    --n_ufiles;
}

extern "C" {

KISAM_API int nisclose(int isfd) {
    if (is_isin(kClose, isfd, 0) != 0) return -1;
    // Processes that died with the file open still count as its users: clean them up
    // first, so that a last close really is the last.
    if (is_curpfi->pfi_refcnt == 1) is_reap_holders(is_curdb->uniqueid);
    if (is_lock(&isam_com->opcl_lock) != 0) {
        is_raise(is_lock_code(errno), PROC(P_ISCLOSE, 1));
        is_isout();
        return -1;
    }
    if (is_getctl() != 0) {
        is_unlock(&isam_com->opcl_lock);
        is_push(PROC(P_ISCLOSE, 2));
        is_isout();
        return -1;
    }

    IS_FCP* fcp = is_curfcp;
    IS_PFI* pfi = is_curpfi;
    const int u = is_curdb->uniqueid;

    if (!(pfi->pfi_bits & PFI_RDONLY) && (fcp->is_optbits & (ISO_DIRTYMARK | ISO_SEQ)) == ISO_DIRTYMARK)
        fcp_setdatachanged(fcp, pfi, 0, fcp->is_optbits & ISO_SYNC);

    if (--pfi->pfi_refcnt > 0) {
        // Other handles of this process keep the descriptor and the slot.
        release_handle_locks(isfd);
        is_relctl();
        is_dbfree(isfd);
        is_unlock(&isam_com->opcl_lock);
        is_isout();
        return 0;
    }
    // This process stops counting among the file's users.  It stays in the file's open
    // set until the close is complete: a process killed anywhere in between is then
    // still found there by the clean-up of dead processes, which recounts the users and,
    // when none is left, finishes the last close (checkpoint included) in its place.
    // Left out of the set earlier, it would leave a shared copy that no clean-up visits
    // and no last close ever writes back.
    if (--fcp->is_usecnt > 0) {
        // Other processes keep the shared copy.
        v_flush();
        release_handle_locks(isfd);
        is_unlock(&fcp->jd_fcplock);
        kisam::os_close(pfi->pfi_osfd);
        pfi->pfi_osfd = -1;
        is_dbfree(isfd);
    } else {
        // Last close anywhere: the file takes in what its log holds, then the buffers go
        // back and the shared copy is freed.  When it cannot (a full disk, say), the log
        // keeps the calls and the next open of the file replays them.  The close still
        // succeeds (the handle is gone), but its report stays: a sync that failed here
        // may have left the calls nowhere but in the page cache, and the caller must
        // be able to tell.
        if (!(pfi->pfi_bits & PFI_RDONLY) || lg_wfd(u) >= 0) {
            if (lg_checkpoint(fcp, u, lg_wfd(u)) != 0) {
                isx_area->xh_leftover = 1;
            } else if (!(pfi->pfi_bits & PFI_RDONLY) && (fcp->is_optbits & (ISO_DIRTYMARK | ISO_SEQ)) == ISO_DIRTYMARK) {
                // The clear above failed (a sync), and the checkpoint that went through
                // since wrote the control page as the shared copy has it: marked.  Every
                // page is on disk now, so the mark goes, or a sound file would be
                // refused at its next open.
                fcp_setdatachanged(fcp, pfi, 0, fcp->is_optbits & ISO_SYNC);
            }
        } else if (kisam::isx_file_of(u)->xf_log_end != kisam::isx_file_of(u)->xf_log_start) {
            isx_area->xh_leftover = 1;
        }
        v_relbuf();
        release_handle_locks(isfd);
        drop_lock_chain(fcp);
        is_unlock(&fcp->jd_fcplock);
        kisam::os_close(pfi->pfi_osfd);
        pfi->pfi_osfd = -1;
        v_forget_file(u);
        is_env.pfo_tbl[u] = -1;
        is_dbfree(isfd);
        freencom(reinterpret_cast<char*>(fcp), IS_FCP_SIZE(fcp->is_nkeys));
    }
    is_open_note(u, false);
    if (pfi->pfi_osfd < 0) {
        // This process no longer has the file: the shared copy may go with another
        // process's close, so nothing may keep pointing at it.
        is_curfcp = nullptr;
        is_curpfi = nullptr;
    }
    is_unlock(&isam_com->opcl_lock);
    is_isout();
    return 0;
}

KISAM_API int isallclose(void) {
    if (!isam_com || !is_db) return 0;
    for (int isfd = 0; isfd < isam_com->maxopen; ++isfd)
        if (is_db[isfd]) nisclose(isfd);
    return 0;
}

KISAM_API int nisunisam(void) {
    if (!isam_com) return 0;
    // Words left by an interrupted call of this process.
    if (is_lock_mine(&isam_com->opcl_lock)) is_unlock(&isam_com->opcl_lock);
    if (is_lock_mine(&isam_com->free_lock)) is_unlock(&isam_com->free_lock);
    if (is_lock_mine(&isam_com->buf_lock)) is_unlock(&isam_com->buf_lock);
    is_env.needs_[is_env.useridx] = 0;

    isallclose();
    // A close whose wait was given up at a signal left its file open.  Freeing the slot
    // would leave that file counted open by nobody for as long as the shared area lives
    // (never closed for good, its log never applied); the slot is left instead to be
    // cleaned up as a dead process's, which recounts and releases the file.
    bool left_open = false;
    for (int isfd = 0; is_db && isfd < isam_com->maxopen; ++isfd) left_open |= is_db[isfd] != nullptr;
    v_peek_fold();  // the pages its reads without the lock found
    // The last process to leave removes the shared area, and with it whatever processes
    // that died attached left in it: their units are rolled back and their files'
    // data-changed marks cleared first, or the next first open would find a file marked
    // that is sound.
    //
    // Leaving holds the start-up lock, as attaching does: otherwise the last process could
    // find itself alone and remove the segment while another has found it but not yet
    // attached, and that one would fail to attach or, worse, keep a segment nobody else
    // can find -- a second pool over the same files.
    const bool startup = is_lockfd >= 0 && ISLockFile(is_lockfd, 0, 2) == 0;
    struct shmid_ds ds;
    if (::shmctl(is_shmid, IPC_STAT, &ds) == 0 && ds.shm_nattch <= 1) is_reap_dead(nullptr, 0);

    std::free(is_db);
    is_db = nullptr;
    is_pfi = nullptr;
    is_curdb = nullptr;
    is_curpfi = nullptr;
    is_curfcp = nullptr;
    n_ufiles = 0;

    jn_close();
    is_lock_forget();
    // Last, so that a clean-up of a slot left behind finds the journal already let go.
    if (left_open) {
        is_live_abandon();
    } else {
        is_live_release();
        is_env.pid_[is_env.useridx] = 0;
    }
    freecom();
    isam_com = nullptr;
    if (startup) ISUnlockFile(is_lockfd, 0, 2);
    v_reset_process();
    return 0;
}

KISAM_API void nisexit(int rc) {
    nisunisam();
    std::exit(rc);
}

}  // extern "C"
