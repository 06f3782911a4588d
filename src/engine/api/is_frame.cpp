// Per-call entry and exit of every operation that works on an ISAM file descriptor.
//
// The frame selects the current handle, physical-file entry and shared control page,
// which every lower layer reads as implicit arguments, and repairs what an earlier call
// of this process left behind when it never reached its exit.
#include "bt.h"
#include "is_error.h"
#include "is_file.h"
#include "is_lock.h"
#include "is_rec.h"
#include "isx_area.h"
#include "jn.h"
#include "lg.h"
#include "v_pool.h"

#include <cerrno>

extern "C" {
KISAM_API short Iscurfun = 0;
KISAM_API short Islastfun = 0;
KISAM_API IS_DB* is_curdb = nullptr;
KISAM_API IS_PFI* is_curpfi = nullptr;
KISAM_API IS_FCP* is_curfcp = nullptr;
KISAM_API IS_DB** is_db = nullptr;
KISAM_API IS_PFI* is_pfi = nullptr;
}

namespace {

constexpr int kCreate = 0x3200;
constexpr int kOpen = 0x3800;
constexpr int kSeqCreate = 0x5000;

int refuse(int code, int procid, int detail) noexcept {
    is_raise(code, procid + detail);
    Iscurfun = static_cast<short>(-procid);
    return -1;
}

// Repairs what a call of this process left when it was abandoned part way, so that it
// is whole or absent like the call of a process that was killed:
//  - slots it was moving between lists under buf_lock go back to the free list;
//  - the unit it was running is rolled back (its pages as before, the shared control
//    page restored) while this process still holds the file's control lock -- given
//    back first, its half-done changes would be flushed and kept;
//  - control words its steal scan took on other files (held without a hold count) are
//    given back;
//  - then the hold of its own file ends as a release would end it, and opcl_lock and
//    free_lock go.
// A call abandoned after its unit ended is whole: nothing is rolled back.
void abandoned() noexcept {
    kisam::ErrorKeep keep;
    is_lock_abandoned();
    bt_reset_descent();
    v_abandoned();
    if (is_lock_mine(&isam_com->buf_lock)) {
        v_repair_lists();
        is_unlock(&isam_com->buf_lock);
    }
    if (jn_active()) jn_abort();
    lg_abandoned();
    // A rollback that an earlier abandonment cut short is finished before any hold ends:
    // a release would commit pages it had not put back yet.
    for (int u = 0; is_pfi && isx_area && u < isam_com->maxopen; ++u) {
        IS_FCP* f = kisam::pfo_fcp(u);
        if (f && is_lock_mine(&f->jd_fcplock) && kisam::isx_file_of(u)->xf_undo != 0) jn_settle(f, u);
    }
    for (int u = 0; is_pfi && u < isam_com->maxopen; ++u) {
        IS_FCP* f = kisam::pfo_fcp(u);
        if (f && is_pfi[u].pfi_ctlcnt == 0 && is_lock_mine(&f->jd_fcplock)) is_unlock(&f->jd_fcplock);
    }
    if (is_curfcp && is_curpfi && is_lock_mine(&is_curfcp->jd_fcplock)) is_relctl();
    if (is_lock_mine(&isam_com->opcl_lock)) is_unlock(&isam_com->opcl_lock);
    if (is_lock_mine(&isam_com->free_lock)) is_unlock(&isam_com->free_lock);
}

}  // namespace

int is_isin(int procid, int isfd, int keyno) noexcept {
    errno = 0;

    // A positive Iscurfun means the previous framed call never left (a signal handler
    // jumped out of it): repair what it left, then give back the locks it may still
    // hold, so this call does not wait on its own process.
    if (Iscurfun > 0 && isam_com) abandoned();

    Islastfun = Iscurfun;
    Iscurfun = static_cast<short>(procid);

    if (procid == kCreate || procid == kOpen || procid == kSeqCreate) return 0;

    if (isfd < 0 || !isam_com || !is_db || isfd >= isam_com->maxopen || !is_db[isfd])
        return refuse(ISE_BADFD, procid, 0);

    is_curdb = is_db[isfd];
    int u = is_curdb->uniqueid;
    is_curpfi = &is_pfi[u];
    is_curfcp = kisam::pfo_fcp(u);
    if (!is_curfcp) return refuse(ISE_BADFD, procid, 0);

    if (is_curpfi->pfi_nkeys != is_curfcp->is_nkeys) return refuse(ISE_BADFD, procid, 1);

    if (!(is_curpfi->pfi_bits & PFI_SEQ)) {
        if (is_curpfi->pfi_bits & PFI_BIGFCP) {
            if (is_curfcp->is_magic != ISMAGIC_1024) return refuse(ISE_BADFD, procid, 2);
        } else if (is_curfcp->is_magic != ISMAGIC_512) {
            return refuse(ISE_BADFD, procid, 3);
        }
    }

    int nkeys = is_curfcp->is_nkeys;
    if (keyno < 0 || !(keyno < nkeys || (keyno == 0 && nkeys == 0)))
        return refuse(ISE_BADKN, procid, 0);
    return 0;
}

void is_isout(void) noexcept { Iscurfun = static_cast<short>(-Iscurfun); }
