// Record locks: advisory locks on key values, one IS_RC entry in the common heap per lock
// plus a write lock on the lock-file range at the entry's own offset.  The kernel-held
// range is what other processes wait on and what shows that a holder died; the entry
// carries the key and the holder.  The list of a file is read and changed only under the
// file's control lock, and no process sleeps on a record lock while it holds that lock.
//
// Details of procedure islock (0x37) raised here:
//   2  ISE_INVKL: a negative or too large key length, or a null key with a positive
//      length;
//   3  the wait for a conflicting lock failed: ISE_DEADLOCK (the kernel saw a cycle of
//      waits), KISAM_ISE_INTERRUPTED (given up at a signal) or KISAM_ISE_LOCKFAIL (the
//      lock call failed); no lock was added and the control lock is held as before the
//      call;
//   4  ISE_DEADLOCK or KISAM_ISE_LOCKFAIL: after the wait, taking the file's control lock
//      back failed again and again for about a second (see is_fwait): no lock was added,
//      and this process no longer holds the file's control lock, nor any hold on it that
//      the application had taken with nisgetctl (a later nisrelctl is harmless);
//   5  ISE_DEADLOCK or KISAM_ISE_LOCKFAIL: the range of the new lock could not be taken;
//      no lock was added.
//   6  KISAM_ISE_LOCKFAIL or ISE_DEADLOCK: the heap's lock could not be taken for the
//      new lock's entry; no lock was added.
// A conflict under rtnopt > 0 and an exhausted heap return -1 with no code.
#include "is_ctl.h"

#include "is_error.h"
#include "is_frame.h"
#include "is_heap.h"
#include "is_lock.h"
#include "jn.h"
#include "v_pool.h"

#include <atomic>
#include <cerrno>
#include <cstring>

namespace {

constexpr int kLock = 0x3700;

inline bool overlaps(const IS_RC* e, const char* key, int keylen) {
    int n = e->rc_len < keylen ? e->rc_len : keylen;
    return n <= 0 || std::memcmp(e->rc_key, key, static_cast<size_t>(n)) == 0;
}

// The lock-file range of entry e is that of its first word.
inline unsigned* range_of(IS_RC* e) { return reinterpret_cast<unsigned*>(&e->rc_next); }

inline void unlink_free(RELt* link, IS_RC* e) {
    *link = e->rc_next;
    freencom(reinterpret_cast<char*>(e), static_cast<unsigned>(e->rc_len) + 16u);
}

bool bad_key(const char* key, int keylen) {
    return keylen < 0 || keylen > 0x7FFF || (keylen > 0 && !key);
}

int leave(int r) noexcept {
    is_relctl();
    is_isout();
    return r;
}

}  // namespace

int is_unres(int isfd, const char* key, int keylen, int matchopt) noexcept {
    int released = 0;
    RELt* link = &is_curfcp->jd_lock_hd;
    while (*link != KISAM_NOREL) {
        IS_RC* e = kisam::rel_ptr<IS_RC>(*link);
        bool mine = e->rc_lock == static_cast<uint32_t>(is_pid) && e->rc_isfd == isfd;
        bool match = matchopt == 0
                         ? e->rc_len == keylen &&
                               (keylen == 0 || std::memcmp(e->rc_key, key, static_cast<size_t>(keylen)) == 0)
                         : overlaps(e, key, keylen);
        if (!mine || !match) {
            link = &e->rc_next;
            continue;
        }
        e->rc_lock = 0;
        // Wake the waiters before the entry can go; they rescan under the control lock,
        // which this process holds until it is done with the list.
        is_fdone(range_of(e));
        if (e->rc_waitcount == 0)
            unlink_free(link, e);
        else
            link = &e->rc_next;
        ++released;
        if (matchopt == 0) return 0;
    }
    return matchopt == 0 ? -1 : released;
}

// Entry of nislock and nisunlock: frame, key check, control lock.  0, or -1 with the
// frame already left.
static int lock_entry(int isfd, const char* key, int keylen) noexcept {
    if (is_isin(kLock, isfd, 0) != 0) return -1;
    if (bad_key(key, keylen)) {
        is_raise(ISE_INVKL, PROC(P_ISLOCK, 2));
        is_isout();
        return -1;
    }
    if (is_getctl() != 0) {
        is_push(PROC(P_ISLOCK, 0));
        is_isout();
        return -1;
    }
    return 0;
}

extern "C" {

KISAM_API int nislock(int isfd, const char* key, int keylen, int rtnopt) {
    if (lock_entry(isfd, key, keylen) != 0) return -1;
    IS_FCP* fcp = is_curfcp;

rescan:
    bool already_held = false;
    for (RELt* link = &fcp->jd_lock_hd; *link != KISAM_NOREL;) {
        IS_RC* e = kisam::rel_ptr<IS_RC>(*link);
        if (e->rc_lock == 0) {
            if (e->rc_waitcount == 0) {
                unlink_free(link, e);
                continue;
            }
            link = &e->rc_next;
            continue;
        }
        if (!overlaps(e, key, keylen)) {
            link = &e->rc_next;
            continue;
        }
        if (e->rc_lock == static_cast<uint32_t>(is_pid)) {
            if (rtnopt == 2) already_held = true;
            link = &e->rc_next;
            continue;
        }
        unsigned long o = kisam::com_offset(range_of(e));
        if (is_lockitnw(o) == 0) {
            // The holder is gone: the kernel freed its range.
            is_unlockit(o);
            if (e->rc_waitcount == 0) {
                unlink_free(link, e);
                continue;
            }
            e->rc_lock = 0;
            link = &e->rc_next;
            continue;
        }
        if (rtnopt > 0) return leave(-1);
        ++e->rc_waitcount;
        int w = is_fwait(range_of(e));
        if (w != -2 && is_lock_stale) {
            // The control word was retaken from a holder that died meanwhile: its fixes
            // and its change count are this hold's to clear, its call is rolled back by
            // the file's next taker.
            jn_note_stale(fcp, is_lock_stale_pid);
            v_stale_fcplock(fcp);
        }
        const int code = w != 0 ? is_lock_code(errno) : 0;
        if (w == -2) {
            // The control lock stays with the others: the count drops outside it, as one
            // atomic step, and every hold of this process on the file is gone.
            std::atomic_ref<int16_t>(e->rc_waitcount).fetch_sub(1);
            is_curpfi->pfi_ctlcnt = 0;
            is_raise(code, PROC(P_ISLOCK, 4));
            is_isout();
            return -1;
        }
        --e->rc_waitcount;
        if (w != 0) {
            is_raise(code, PROC(P_ISLOCK, 3));
            return leave(-1);
        }
        goto rescan;
    }
    if (already_held) return leave(1);

    IS_RC* e = reinterpret_cast<IS_RC*>(allocncom(static_cast<unsigned>(keylen) + 16u));
    if (!e) {
        if (errno != ENOMEM) is_raise(is_lock_code(errno), PROC(P_ISLOCK, 6));
        return leave(-1);
    }
    if (keylen > 0) std::memcpy(e->rc_key, key, static_cast<size_t>(keylen));
    e->rc_lock = static_cast<uint32_t>(is_pid);
    e->rc_isfd = static_cast<int16_t>(isfd);
    e->rc_len = static_cast<int16_t>(keylen);
    e->rc_waitcount = 0;
    e->rc_next = fcp->jd_lock_hd;
    fcp->jd_lock_hd = kisam::rel_of(e);
    if (is_lockitw(kisam::com_offset(range_of(e))) != 0) {
        const int code = is_lock_code(errno);
        fcp->jd_lock_hd = e->rc_next;
        freencom(reinterpret_cast<char*>(e), static_cast<unsigned>(keylen) + 16u);
        is_raise(code, PROC(P_ISLOCK, 5));
        return leave(-1);
    }

    is_relctl();
    isam_com->totusrlocks += 1;
    isam_com->curusrlocks += 1;
    if (isam_com->maxusrlocks < isam_com->curusrlocks) isam_com->maxusrlocks = isam_com->curusrlocks;
    is_isout();
    return 0;
}

KISAM_API int nisunlock(int isfd, const char* key, int keylen, int matchopt) {
    if (lock_entry(isfd, key, keylen) != 0) return -1;
    int r = is_unres(isfd, key, keylen, matchopt);
    is_relctl();
    uint32_t n = matchopt == 0 ? (r == 0 ? 1u : 0u) : static_cast<uint32_t>(r);
    uint32_t cur = isam_com->curusrlocks;
    isam_com->curusrlocks = cur > n ? cur - n : 0;
    is_isout();
    return r;
}

}  // extern "C"
