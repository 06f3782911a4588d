// Write and replace: stores a record's data part, then indexes it under every key.
//
// Key 0 items carry the record address; the items of every other key carry the key 0
// value, so key 0 admits no duplicates and the other keys do.  Replacing (force) swaps
// the address in the key 0 item and re-indexes only the alternate keys whose values
// changed; an update is such a replace of a record that must exist.  A failure part-way
// leaves the steps already done, which the caller's unit of the journal rolls back.
//
// Detail of is_write (0x26) raised here besides the documented ones: 12, ISE_NKEYERR,
// for a file without keys (a sequential file), which has no index to store a record in.
#include "is_rec.h"

#include "bt.h"
#include "dr.h"
#include "is_error.h"

#include <cstdlib>
#include <cstring>

using namespace kisam;

namespace {

constexpr int kTbufSize = 1536;

// Holds the old record's key fields: the process scratch buffer, or a heap block for
// files whose key fields are longer.
class KeySave {
public:
    explicit KeySave(int n)
        : p_(n <= kTbufSize ? is_tbufp : static_cast<char*>(std::malloc(static_cast<size_t>(n)))),
          owned_(n > kTbufSize) {}
    ~KeySave() {
        if (owned_) std::free(p_);
    }
    KeySave(const KeySave&) = delete;
    KeySave& operator=(const KeySave&) = delete;
    char* get() const { return p_; }

private:
    char* p_;
    bool owned_;
};

// Builds, in temp, the key i item of a record: the key i value, and at k_offset of key i
// the key 0 value.  Pad bytes are zero.
void alt_item(char* temp, const IS_KEY* ki, const char* value, const IS_KEY* k0, const char* key0) {
    std::memset(temp, 0, static_cast<size_t>(ki->k_itemlen));
    std::memcpy(temp, value, static_cast<size_t>(ki->k_keylen));
    std::memcpy(temp + ki->k_offset, key0, static_cast<size_t>(k0->k_keylen));
}

// Takes out and puts in again the item of every alternate key whose value differs
// between the old key fields at `po` (key 1 on) and the record's; the codes are pushed
// when a take-out or a put-in fails.
int reindex_changed(const char* record, const char* po, int out_code, int in_code) {
    IS_FCP* fcp = is_curfcp;
    IS_DB* db = is_curdb;
    const IS_KEY* k0 = fcp_key(fcp, 0);
    char* temp = db->temp;
    const char* pn = record + k0->k_keylen;
    for (int i = 1; i < fcp->is_nkeys; ++i) {
        const IS_KEY* ki = fcp_key(fcp, i);
        const size_t len = static_cast<size_t>(ki->k_keylen);
        if (std::memcmp(po, pn, len) != 0) {
            alt_item(temp, ki, po, k0, record);
            db_cursor(db, i)->currpage = KISAM_NOPAGE;
            if (bt_delete(i, ki->k_root, temp, KISAM_NOPAGE) != 0) return is_push(out_code);
            alt_item(temp, ki, pn, k0, record);
            if (bt_insert(i, fcp_key(fcp, i)->k_root, temp, 0, 0) < 0) return is_push(in_code);
        }
        po += len;
        pn += len;
    }
    return 0;
}

// Replaces the alternate items of the record whose key 0 item now carries the new
// address; `old` is the address of the record being replaced.
int replace_alternates(const char* record, PAGE old) {
    IS_FCP* fcp = is_curfcp;
    const IS_KEY* k0 = fcp_key(fcp, 0);
    const int kl0 = k0->k_keylen;
    const int nkeys = fcp->is_nkeys;

    if (nkeys == 1) {
        if (old != KISAM_NOPAGE && dr_rel(old) != 0) return is_push(PROC(P_IS_WRITE, 8));
        return 0;
    }

    const int minrec = fcp->is_minrec;
    KeySave save(minrec);
    char* buf = save.get();
    if (buf == nullptr) return is_raise(ISE_KEYSAVE, PROC(P_IS_WRITE, 6));
    int got;
    if (fcp->is_optbits & ISO_KEYOPT) {
        std::memcpy(buf, record, static_cast<size_t>(kl0));
        got = dr_get(old, buf + kl0, minrec - kl0);
    } else {
        got = dr_get(old, buf, minrec);
    }
    if (got < 0) return is_push(PROC(P_IS_WRITE, 7));
    if (old != KISAM_NOPAGE && dr_rel(old) != 0) return is_push(PROC(P_IS_WRITE, 8));

    return reindex_changed(record, buf + kl0, PROC(P_IS_WRITE, 9), PROC(P_IS_WRITE, 10));
}

// Stores the data part of a record -- the whole record, or what follows key 0 when key 0
// lives in the index -- and gives its address (none for an empty part).  0, or -1.
int put_data(const char* record, int recsize, PAGE* addr) {
    const int kl0 = fcp_key(is_curfcp, 0)->k_keylen;
    const bool keyopt = (is_curfcp->is_optbits & ISO_KEYOPT) != 0;
    const int dlen = keyopt ? recsize - kl0 : recsize;
    *addr = KISAM_NOPAGE;
    if (dlen <= 0) return 0;
    *addr = dr_put(keyopt ? record + kl0 : record, dlen);
    return *addr == KISAM_NOPAGE ? is_push(PROC(P_IS_WRITE, 3)) : 0;
}

// The items of a record under each key, for bt_warm: built apart from db->temp, which
// the inserts use.  Static, as the B-tree's carried item: nothing is allocated in a call.
constexpr int kWarmItem = 256;
char warm_area[kBtWarmTrees][kWarmItem];

// Asks the memory at once for the pages the inserts of record's items will descend
// through (bt_warm): a record's keys lie in trees of their own, whose leaves are each a
// miss of the caches in a large pool.
void warm_trees(const char* record) {
    IS_FCP* fcp = is_curfcp;
    const int n = fcp->is_nkeys < kBtWarmTrees ? fcp->is_nkeys : kBtWarmTrees;
    if (n < 2) return;  // one tree: nothing to overlap
    const IS_KEY* k0 = fcp_key(fcp, 0);
    int keynos[kBtWarmTrees];
    const char* items[kBtWarmTrees];
    const char* p = record + k0->k_keylen;
    for (int i = 0; i < n; ++i) {
        const IS_KEY* ki = fcp_key(fcp, i);
        if (ki->k_itemlen > kWarmItem || ki->k_itemlen < ki->k_ncomp) return;
        char* it = warm_area[i];
        if (i == 0) {
            std::memset(it, 0, static_cast<size_t>(k0->k_itemlen));
            std::memcpy(it, record, static_cast<size_t>(k0->k_keylen));
        } else {
            alt_item(it, ki, p, k0, record);
            p += ki->k_keylen;
        }
        keynos[i] = i;
        items[i] = it;
    }
    bt_warm(n, keynos, items);
}

int write_locked(const char* record, int recsize, int force) {
    IS_FCP* fcp = is_curfcp;
    IS_DB* db = is_curdb;
    if (is_curpfi->pfi_bits & PFI_RDONLY) return is_raise(ISE_RONLY, PROC(P_IS_WRITE, 1));
    if (fcp->is_nkeys < 1) return is_raise(ISE_NKEYERR, PROC(P_IS_WRITE, 12));
    if (record == nullptr || recsize < fcp->is_minrec || recsize > KISAM_MAXREC)
        return is_raise(ISE_RSIZE, PROC(P_IS_WRITE, 2));

    const IS_KEY* k0 = fcp_key(fcp, 0);
    const int kl0 = k0->k_keylen;
    char* temp = db->temp;
    std::memset(temp, 0, static_cast<size_t>(k0->k_itemlen));
    std::memcpy(temp, record, static_cast<size_t>(kl0));

    warm_trees(record);
    PAGE addr;
    if (put_data(record, recsize, &addr) != 0) return -1;

    store_at<PAGE>(temp + k0->k_offset, addr);
    int r = bt_insert(0, k0->k_root, temp, 0, force);
    if (r < 0) return is_push(PROC(P_IS_WRITE, 4));

    if (r == 0) {
        const char* p = record + kl0;
        for (int i = 1; i < fcp->is_nkeys; ++i) {
            const IS_KEY* ki = fcp_key(fcp, i);
            alt_item(temp, ki, p, k0, record);
            if (bt_insert(i, ki->k_root, temp, 0, 0) < 0) return is_push(PROC(P_IS_WRITE, 11));
            p += ki->k_keylen;
        }
        return 0;
    }

    if (force == 0) {
        // Duplicate key 0: the data just stored is not wanted.
        if (addr != KISAM_NOPAGE && dr_rel(addr) != 0) return is_push(PROC(P_IS_WRITE, 5));
        return 1;
    }

    // bt_insert exchanged the addresses: temp now carries the replaced record's.
    const PAGE old = load_at<PAGE>(temp + k0->k_offset);
    return replace_alternates(record, old);
}

}  // namespace

int is_update(const char* record, int recsize) noexcept {
    IS_FCP* fcp = is_curfcp;
    IS_DB* db = is_curdb;
    if (fcp->is_nkeys < 1) return is_raise(ISE_NOKEY, PROC(P_IS_DELETE, 2));
    const IS_KEY* k0 = fcp_key(fcp, 0);
    const int kl0 = k0->k_keylen;
    char* temp = db->temp;
    std::memset(temp, 0, static_cast<size_t>(k0->k_itemlen));
    std::memcpy(temp, record, static_cast<size_t>(kl0));
    const int found = bt_search(0, k0->k_root, 5, temp, 0);
    // A search that failed says why (a page that could not be read, a damaged tree);
    // only a search that found nothing means there is no such record.
    if (found < 0) return is_push(PROC(P_IS_DELETE, 2));
    if (found != 1) return is_raise(ISE_NOKEY, PROC(P_IS_DELETE, 2));
    const PAGE old = load_at<PAGE>(temp + k0->k_offset);

    // The steps of a delete and a write, in their order and with their failure codes,
    // but for what stays as it is: a data part of the same footprint is rewritten in
    // place, the key 0 item keeps its place and only takes a new address, and an
    // alternate item is taken out and put in again only when its key value changed.  The
    // records and indexes come out as a delete and a write would leave them.
    const bool keyopt = (fcp->is_optbits & ISO_KEYOPT) != 0;
    const int nkeys = fcp->is_nkeys;
    const int n = fcp->is_minrec - (keyopt ? kl0 : 0);
    KeySave save(n > 0 ? n : 1);
    char* buf = save.get();
    if (buf == nullptr) return is_raise(ISE_KEYSAVE, PROC(P_IS_DELETE, 3));
    if (nkeys >= 2 && dr_get(old, buf, n) < 0) return is_push(PROC(P_IS_DELETE, 4));

    // A data part that takes the room of the old one is written over it: the address,
    // and so the key 0 item, stay.  Otherwise the old part is released and the new one
    // stored wherever a write would store it, and the key 0 item takes its address.
    const int dlen = keyopt ? recsize - kl0 : recsize;
    const int inplace = dlen > 0 ? dr_rewrite(old, keyopt ? record + kl0 : record, dlen) : 0;
    if (inplace < 0) return is_push(PROC(P_IS_DELETE, 5));
    if (inplace == 0) {
        if (old != KISAM_NOPAGE && dr_rel(old) != 0) return is_push(PROC(P_IS_DELETE, 5));
        PAGE addr;
        if (put_data(record, recsize, &addr) != 0) return -1;
        if (addr != old) {
            std::memset(temp, 0, static_cast<size_t>(k0->k_itemlen));
            std::memcpy(temp, record, static_cast<size_t>(kl0));
            store_at<PAGE>(temp + k0->k_offset, addr);
            // Most often in the page the search found it in, without a second descent.
            const int r0 = bt_exchange_found(0, temp);
            if (r0 < 0) return is_push(PROC(P_IS_WRITE, 4));
            if (r0 > 0) {
                db_cursor(db, 0)->currpage = KISAM_NOPAGE;
                if (bt_insert(0, k0->k_root, temp, 0, 1) < 0) return is_push(PROC(P_IS_WRITE, 4));
            }
        }
    }

    return reindex_changed(record, keyopt ? buf : buf + kl0, PROC(P_IS_DELETE, 6), PROC(P_IS_WRITE, 11));
}

int is_write(const char* record, int recsize, int force) noexcept {
    if (is_getctl() < 0) return -1;
    int r = write_locked(record, recsize, force);
    // The record is stored (or not) whatever the release's flush does: a failed flush
    // keeps the control lock and is repeated by the next release, so the result stays
    // the write's and a caller never stores the record twice.
    is_relctl();
    return r;
}
