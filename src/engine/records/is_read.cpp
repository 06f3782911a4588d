// Keyed read: the next, previous or an exactly matching record along any key.  A read
// is first tried without the control lock (is_read_nolock.cpp); what that cannot do is
// done here, under the lock, as it always was.
//
// A cursor is a key value, not a place in a page: every read searches the index again
// from the value it remembers, so inserts, deletions and splits made by other processes
// between two reads are simply seen.  The page hint only shortens the search.
#include "is_rec.h"

#include "bt.h"
#include "bt_key.h"
#include "dr.h"
#include "is_error.h"
#include "v_pool.h"

#include <cstring>

using namespace kisam;

namespace {

char tbuf[1536];

// Work of one read under the control lock; see is_read.
int read_locked(int keyno, char* record, int recsize, int dir) {
    IS_FCP* fcp = is_curfcp;
    IS_DB* db = is_curdb;
    if (fcp->is_nkeys < 1) return 0;   // a file without keys holds no record to find

    const IS_KEY* k0 = fcp_key(fcp, 0);
    if (recsize < k0->k_keylen || record == nullptr)
        return is_raise(ISE_RSIZE, PROC(P_IS_READ, 1));

    IS_DBKEY* cur = db_cursor(db, keyno);
    const IS_KEY* kd = fcp_key(fcp, keyno);
    const char pad = dir == 2 ? static_cast<char>(0xFF) : 0;
    if (cur->curr_kstate == 0) is_pad(cur->currkey, kd->k_keylen, pad);
    int mode = cur->curr_kstate == 2 ? dir : (dir | 1);

    // An exact search that finds nothing may leave the nearest item in its buffer; the
    // cursor must keep the value it was given, so that the next read steps from there.
    char saved[512];
    const bool exact = dir == 5 && kd->k_itemlen <= static_cast<int>(sizeof saved);

    char* item = cur->currkey;
    if (keyno >= 1) {
        // Without a remembered item the key 0 part decides where among equal key values
        // the search lands: the first of them forwards, the last backwards.
        if (cur->curr_kstate != 2)
            is_pad(cur->currkey + kd->k_offset, kd->k_itemlen - kd->k_offset, pad);
        cur->curr_kstate = 2;
        if (exact) std::memcpy(saved, cur->currkey, static_cast<size_t>(kd->k_itemlen));
        int r = bt_search(keyno, kd->k_root, mode, cur->currkey, 0);
        if (r == 0 && exact) std::memcpy(cur->currkey, saved, static_cast<size_t>(kd->k_itemlen));
        if (r != 1) return r;
        item = db->temp;
        std::memcpy(item, cur->currkey + kd->k_offset, static_cast<size_t>(k0->k_keylen));
        mode = 1;
    } else {
        cur->curr_kstate = 2;
        if (exact) std::memcpy(saved, cur->currkey, static_cast<size_t>(kd->k_itemlen));
    }

    int r = bt_search(0, k0->k_root, mode, item, 0);
    if (r == 0 && exact && keyno == 0)
        std::memcpy(cur->currkey, saved, static_cast<size_t>(kd->k_itemlen));
    if (r != 1) return r;
    if (keyno >= 1 &&
        std::memcmp(item, cur->currkey + kd->k_offset, static_cast<size_t>(k0->k_keylen)) != 0)
        return 0;   // key i names a key 0 value that key 0 does not hold: no record

    const PAGE addr = load_at<PAGE>(item + k0->k_offset);
    int kl = 0;
    if (fcp->is_optbits & ISO_KEYOPT) {
        // Key 0 is held only in the index: it comes from the item, the rest from the data.
        kl = k0->k_keylen;
        std::memcpy(record, item, static_cast<size_t>(kl));
        if (addr == KISAM_NOPAGE || recsize == kl) return kl;
    }
    int n = dr_get(addr, record + kl, recsize - kl);
    if (n < 0) return is_push(PROC(P_IS_READ, 2));
    return n + kl;
}

// Pages one read loads before it leaves the rest to the locked read: a search of every
// key's tree and a record's first page, with room to spare.
constexpr int kMaxLoads = 8;

// A page that a read without the lock did not find in the pool (README.reads.md rule
// 11).  Its read from the file is done without the control lock -- so that the misses of
// several readers go to the disk at once and no reader's lock-free reads wait for it --
// and the lock taken only to put the image in a slot, when the page is still not in the
// pool and no page of the file was written or changed since it was read (else the page
// is read again under the lock, as a locked read would).  A hint page is never loaded:
// only the chain changes of others are learnt, so that the next attempt knows whether it
// is in the pool.  True when the next attempt may find the page; errors are left to the
// locked read, which reports its own.
bool load_missed(const NolockMiss& m) noexcept {
    static IS_DATA img;
    uint32_t seq = 0;
    bool have = false;
    const int u = is_curdb->uniqueid;
    if (!m.hint && !v_peek_maybe_cached(u, m.page)) {
        if (v_fetch_unlocked(m.page, &img, &seq) != 0) return false;
        have = true;
    }
    kisam::ErrorKeep keep;
    if (is_getctl() < 0) return false;
    const int rc = v_install(m.page, have ? &img : nullptr, seq, !m.hint);
    return is_relctl() == 0 && rc == 0;
}

}  // namespace

char* is_tbufp = tbuf;

// The result is the read's: a release whose flush fails has pushed its own entry and
// kept the control lock, and the next release of this process writes the pages again.
int is_read(int keyno, char* record, int recsize, int dir) noexcept {
    // Without the lock first: twice at most when the file changed under the attempt,
    // since a change under way may well still be under way at a third look, and the
    // locked read then waits for its end.  A page not in the pool is loaded (its read
    // done without the lock) and the read tried again, kMaxLoads times at most.
    int changed = 0, loads = 0;
    for (;;) {
        const int r = is_read_nolock(keyno, record, recsize, dir);
        if (r >= 0) return r;
        if (r == kReadAgain && ++changed < 2) continue;
        if (r == kReadMiss && ++loads <= kMaxLoads && load_missed(is_nolock_miss)) continue;
        break;
    }
    if (is_getctl() < 0) return -1;
    int r = read_locked(keyno, record, recsize, dir);
    is_relctl();
    return r;
}
