// Delete: removes a record's data and its item in every index.
//
// The alternate items are found through the record's own key fields, so the front of
// the record is read before anything is freed.  The caller holds the control lock.
// There is no undo: a failure part-way leaves the data freed and some items present.
#include "is_rec.h"

#include "bt.h"
#include "dr.h"
#include "is_error.h"

#include <cstdlib>
#include <cstring>

using namespace kisam;

namespace {

constexpr int kTbufSize = 1536;

int delete_items(const char* primekey, char* buf, PAGE addr) {
    IS_FCP* fcp = is_curfcp;
    IS_DB* db = is_curdb;
    const IS_KEY* k0 = fcp_key(fcp, 0);
    char* temp = db->temp;

    if (addr != KISAM_NOPAGE && dr_rel(addr) != 0) return is_push(PROC(P_IS_DELETE, 5));

    // The search that found the record found its key 0 item: most often it goes from
    // that leaf without a second descent.
    const int r0 = bt_delete_found(0, temp);
    if (r0 < 0) return is_push(PROC(P_IS_DELETE, 7));
    db_cursor(db, 0)->currpage = KISAM_NOPAGE;
    if (r0 > 0 && bt_delete(0, k0->k_root, temp, KISAM_NOPAGE) != 0) return is_push(PROC(P_IS_DELETE, 7));

    if (fcp->is_nkeys < 2) return 0;
    const char* p = (fcp->is_optbits & ISO_KEYOPT) ? buf : buf + k0->k_keylen;
    for (int i = 1; i < fcp->is_nkeys; ++i) {
        const IS_KEY* ki = fcp_key(fcp, i);
        std::memset(temp, 0, static_cast<size_t>(ki->k_itemlen));
        std::memcpy(temp, p, static_cast<size_t>(ki->k_keylen));
        std::memcpy(temp + ki->k_offset, primekey, static_cast<size_t>(k0->k_keylen));
        db_cursor(db, i)->currpage = KISAM_NOPAGE;
        if (bt_delete(i, ki->k_root, temp, KISAM_NOPAGE) != 0)
            return is_push(PROC(P_IS_DELETE, 6));
        p += ki->k_keylen;
    }
    return 0;
}

}  // namespace

int is_delete(const char* primekey) noexcept {
    IS_FCP* fcp = is_curfcp;
    if (is_curpfi->pfi_bits & PFI_RDONLY) return is_raise(ISE_RONLY, PROC(P_IS_DELETE, 1));
    if (fcp->is_nkeys < 1 || primekey == nullptr)
        return is_raise(ISE_NOKEY, PROC(P_IS_DELETE, 2));

    const IS_KEY* k0 = fcp_key(fcp, 0);
    char* temp = is_curdb->temp;
    std::memset(temp, 0, static_cast<size_t>(k0->k_itemlen));
    std::memcpy(temp, primekey, static_cast<size_t>(k0->k_keylen));
    // Only a search that ran and found nothing means "no such record"; a search that
    // failed (a page that could not be read) keeps its own code and stack.
    const int found = bt_search(0, k0->k_root, 5, temp, 0);
    if (found < 0) return is_push(PROC(P_IS_DELETE, 2));
    if (found != 1) return is_raise(ISE_NOKEY, PROC(P_IS_DELETE, 2));
    const PAGE addr = load_at<PAGE>(temp + k0->k_offset);

    if (fcp->is_nkeys < 2) return delete_items(primekey, nullptr, addr);

    // The alternate key values: the front of the stored data part.
    const int n = fcp->is_minrec - ((fcp->is_optbits & ISO_KEYOPT) ? k0->k_keylen : 0);
    char* buf = n <= kTbufSize ? is_tbufp : static_cast<char*>(std::malloc(static_cast<size_t>(n)));
    if (buf == nullptr) return is_raise(ISE_KEYSAVE, PROC(P_IS_DELETE, 3));
    int r;
    if (dr_get(addr, buf, n) < 0)
        r = is_push(PROC(P_IS_DELETE, 4));
    else
        r = delete_items(primekey, buf, addr);
    if (buf != is_tbufp) std::free(buf);
    return r;
}
