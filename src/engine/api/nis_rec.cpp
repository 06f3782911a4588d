// Public record operations: each frames the call and hands the work to the record layer.
//
// nisread, nispread and nisfind take no control lock themselves: the record layer
// brackets its own work.  The changing calls (niswrite, nisfwrite, nisupdate, nisdelete)
// each run as one unit of the undo journal under one hold of the control lock: all of
// the call reaches the file, or none of it.  A call that fails part way is rolled back
// before it returns -1; so is a call whose closing flush fails (the caller then learns
// that its change did not happen: -1, with is_relctl's 0x2402 on the stack).
//
// Refused before anything changes: nisfind without a key (ISE_INVKL, isfind 1), and an
// update that could not write its record again (read-only file, bad size), so that the
// old record is not deleted first.  On a file without keys reads find nothing and
// nisseek sets no cursor.  The result of every operation is that of its work: a release
// whose flush fails leaves its error on the stack and keeps the control lock until a
// later release of this process writes the pages.
#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "jn.h"
#include "lg.h"

#include <cstring>

using namespace kisam;

namespace {

// Sets the search value of cursor keyno (state 1); the next read starts from it.
void set_search(int keyno, const char* key) {
    IS_DBKEY* cur = db_cursor(is_curdb, keyno);
    std::memcpy(cur->currkey, key, static_cast<size_t>(fcp_key(is_curfcp, keyno)->k_keylen));
    cur->curr_kstate = 1;
}

// Runs work() as one unit: under the control lock, with every page it changes saved
// first, rolled back when it fails.  Returns work's result, or -1.
template <class Work>
int unit(Work work) noexcept {
    if (is_getctl() < 0) return -1;
    // A read-only handle changes nothing (the work refuses): no unit to keep.  A log
    // grown past its limit is brought into the file first: a failure there leaves
    // nothing changed.
    if (!(is_curpfi->pfi_bits & PFI_RDONLY) &&
        (lg_maybe_checkpoint(is_curfcp, is_curdb->uniqueid) != 0 || jn_begin() != 0)) {
        is_relctl();
        return -1;
    }
    int r = work();
    if (r < 0) jn_abort();
    if (is_relctl() != 0) {
        // The commit failed: undo what the call changed, and say so.
        jn_abort();
        is_relctl_again();
        r = -1;
    }
    // Durable mode: the call returns once its record is on disk (shared with the calls
    // of others that ended meanwhile).
    if (lg_pay() != 0) r = -1;
    return r;
}

}  // namespace

extern "C" {

KISAM_API int nisread(int isfd, int keyno, char* record, int recsize) {
    if (is_isin(PROC(P_ISREAD), isfd, keyno) < 0) return -1;
    int r = is_read(keyno, record, recsize, 0);
    is_isout();
    return r;
}

KISAM_API int nispread(int isfd, int keyno, char* record, int recsize) {
    if (is_isin(PROC(P_ISPREAD), isfd, keyno) < 0) return -1;
    int r = is_read(keyno, record, recsize, 2);
    is_isout();
    return r;
}

KISAM_API int nisfind(int isfd, int keyno, const char* key, char* record, int recsize) {
    if (is_isin(PROC(P_ISFIND), isfd, keyno) < 0) return -1;
    int r = 0;
    if (key == nullptr) {
        r = is_raise(ISE_INVKL, PROC(P_ISFIND, 1));
    } else if (is_curfcp->is_nkeys > 0) {
        set_search(keyno, key);
        r = is_read(keyno, record, recsize, 5);
    }
    is_isout();
    return r;
}

KISAM_API int nisseek(int isfd, int keyno, const char* key) {
    if (is_isin(PROC(P_ISSEEK), isfd, keyno) < 0) return -1;
    if (key != nullptr && is_curfcp->is_nkeys > 0) set_search(keyno, key);
    is_isout();
    return 0;
}

// Framed as a seek (its failures come from isseek): it only sets a cursor.
KISAM_API int kisam_rewind(int isfd, int keyno) {
    if (is_isin(PROC(P_ISSEEK), isfd, keyno) < 0) return -1;
    if (is_curfcp->is_nkeys > 0) db_cursor(is_curdb, keyno)->curr_kstate = 0;
    is_isout();
    return 0;
}

KISAM_API int niswrite(int isfd, const char* record, int recsize) {
    if (is_isin(PROC(P_ISWRITE), isfd, 0) < 0) return -1;
    int r = unit([&] { return is_write(record, recsize, 0); });
    is_isout();
    return r;
}

KISAM_API int nisfwrite(int isfd, const char* record, int recsize) {
    if (is_isin(PROC(P_ISFWRITE), isfd, 0) < 0) return -1;
    int r = unit([&] { return is_write(record, recsize, 1); });
    is_isout();
    return r;
}

KISAM_API int nisupdate(int isfd, const char* record, int recsize) {
    if (is_isin(PROC(P_ISUPDATE), isfd, 0) < 0) return -1;
    int r;
    const IS_FCP* fcp = is_curfcp;
    if (is_curpfi->pfi_bits & PFI_RDONLY) {
        r = is_raise(ISE_RONLY, PROC(P_IS_DELETE, 1));
    } else if (record == nullptr || recsize < fcp->is_minrec || recsize > KISAM_MAXREC) {
        // Refused before the delete: a record that cannot be written again must not be
        // removed first.
        r = is_raise(ISE_RSIZE, PROC(P_IS_WRITE, 2));
    } else {
        r = unit([&] { return is_update(record, recsize); });
    }
    is_isout();
    return static_cast<short>(r);
}

KISAM_API int nisdelete(int isfd, const char* primekey) {
    if (is_isin(PROC(P_ISDELETE), isfd, 0) < 0) return -1;
    int r = unit([&] { return is_delete(primekey); });
    is_isout();
    return static_cast<short>(r);
}

}  // extern "C"
