// Lock words and their lock-file ranges.
//
// Rules kept here:
//  1. A word goes 0 -> is_pid only after its range is granted, and back to 0 before its
//     range is released; so whoever is granted a range finds the word 0 or stale (left
//     by a holder that died, whose ranges the kernel dropped), never a live holder.
//  2. A process that already holds a word is granted its range again at once (POSIX
//     locks of one process do not conflict); locks do not nest, one release frees it.
//  3. A waiting request refused with EDEADLK (the kernel saw a cycle of waits between
//     processes) is reported, not fatal: the waiting call returns -1 having taken nothing
//     and leaving the word as it was, and the waiter's need-table entry is cleared again
//     since it no longer waits.  Every other failure of the lock file means the lock file
//     or the kernel's lock table is unusable: the process prints the message to standard
//     output and aborts.
//  4. Statistics are plain read-modify-write updates without a common lock; concurrent
//     updates may be lost, nothing depends on them.
// Reads: isam_com, is_env (need table), is_pid, is_lockfd, is_curfcp (is_fwait).
#include "is_lock.h"

#include "is_common.h"
#include "os.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

int is_lock_stale = 0;
uint32_t is_lock_stale_pid = 0;

namespace {

constexpr off_t kRangeLen = 4;

// A lock word as seen by other processes: never cached across the lock calls.
inline std::atomic_ref<uint32_t> word(volatile unsigned* p) {
    return std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(p));
}

[[noreturn]] void fatal(const char* fmt) {
    int e = errno;
    std::printf(fmt, e);
    std::fflush(stdout);
    // Standard output may go anywhere (or nowhere); the reason a process ends must not.
    std::fprintf(stderr, fmt, e);
    std::fflush(stderr);
    // Leave no segment that nobody is attached to.  (A call this process was making
    // stays in its journal and is rolled back by the next process that takes the file,
    // or at the next start.)
    freecom();
    isam_com = nullptr;
    std::abort();
}

// The words this process holds (their offsets), so that a word holding this process's
// pid is known to be this process's -- and not left by a dead one with the same pid.
// A process holds a handful at once; should more ever be held, the rest are trusted by
// their pid alone.
// Each entry may carry a change count that this hold made odd (is_lock_set_seq); the
// release makes it even again before the word is given up.
constexpr int kHeld = 64;
struct Held {
    unsigned long off;
    uint32_t* seq;
};
Held held[kHeld];
int nheld = 0;
bool held_overflow = false;

Held* entry(unsigned long o) {
    for (int i = 0; i < nheld; ++i)
        if (held[i].off == o) return &held[i];
    return nullptr;
}
bool registered(unsigned long o) { return entry(o) != nullptr || held_overflow; }
void enter(unsigned long o) {
    if (entry(o)) return;
    if (nheld < kHeld)
        held[nheld++] = Held{o, nullptr};
    else
        held_overflow = true;
}
void leave(unsigned long o) {
    for (int i = 0; i < nheld; ++i) {
        if (held[i].off == o) {
            held[i] = held[--nheld];
            return;
        }
    }
}

void set_need(unsigned long ofst) {
    if (is_env.needs_ != nullptr && is_env.useridx >= 0)
        is_env.needs_[is_env.useridx] = static_cast<uint32_t>(ofst);
}

}  // namespace

int is_lockitnw(unsigned long ofst) noexcept {
    return kisam::os_lock(is_lockfd, F_SETLK, F_WRLCK, static_cast<off_t>(ofst), kRangeLen) == 0
               ? 0 : -1;
}

int is_lockitw(unsigned long ofst) noexcept {
    set_need(ofst);
    if (kisam::os_lock(is_lockfd, F_SETLKW, F_WRLCK, static_cast<off_t>(ofst), kRangeLen) != 0)
        return -1;  // the need entry stays set: the caller decides
    set_need(0);
    return 0;
}

int is_unlockit(unsigned long ofst) noexcept {
    return kisam::os_lock(is_lockfd, F_SETLKW, F_UNLCK, static_cast<off_t>(ofst), kRangeLen) == 0
               ? 0 : -1;
}

int is_lock(volatile unsigned* lockidp) noexcept {
    auto w = word(lockidp);
    if (w.load(std::memory_order_acquire) != 0) isam_com->syswaits++;
    const unsigned long o = kisam::com_offset(lockidp);
    if (is_lockitw(o) != 0) {
        if (errno != EDEADLK) fatal("is lockitw fail - errno = %d\n");
        set_need(0);
        is_lock_stale = 0;
        is_lock_stale_pid = 0;
        return -1;
    }
    const uint32_t cur = w.load(std::memory_order_acquire);
    const uint32_t me = static_cast<uint32_t>(is_pid);
    if (cur == me && registered(o)) {
        is_lock_stale = 0;
        is_lock_stale_pid = 0;
        return 0;
    }
    // Rule 1: a non-zero word that is not ours once the range is ours was left by a
    // holder that died (even when it holds our pid: a dead process may have had it);
    // the caller may have to repair what it was doing.
    is_lock_stale = cur != 0 ? 1 : 0;
    is_lock_stale_pid = cur;
    w.store(me, std::memory_order_release);
    enter(o);
    is_incsyslocks();
    return 0;
}

bool is_lock_mine(const volatile unsigned* lockidp) noexcept {
    const uint32_t cur = std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(lockidp)).load(std::memory_order_acquire);
    return cur == static_cast<uint32_t>(is_pid) && registered(kisam::com_offset(lockidp));
}

uint32_t is_lock_claim(volatile unsigned* lockidp) noexcept {
    auto w = word(lockidp);
    const uint32_t cur = w.load(std::memory_order_acquire);
    const unsigned long o = kisam::com_offset(lockidp);
    w.store(static_cast<uint32_t>(is_pid), std::memory_order_release);
    enter(o);
    is_incsyslocks();
    return cur;
}

bool is_lock_set_seq(const volatile unsigned* lockidp, uint32_t* seq) noexcept {
    Held* e = entry(kisam::com_offset(lockidp));
    if (!e) return false;
    e->seq = seq;
    return true;
}

bool is_lock_has_seq(const volatile unsigned* lockidp) noexcept {
    const Held* e = entry(kisam::com_offset(lockidp));
    return e && e->seq;
}

void is_lock_forget(void) noexcept {
    nheld = 0;
    held_overflow = false;
}

void is_unlock(unsigned* lockidp) noexcept {
    auto w = word(lockidp);
    const uint32_t cur = w.load(std::memory_order_acquire);
    const unsigned long o = kisam::com_offset(lockidp);
    // A word holding our pid that we did not take is a dead process's: not ours to clear.
    if (cur == 0 || cur != static_cast<uint32_t>(is_pid) || !registered(o)) return;
    // A change count this hold made odd becomes even after the hold's last change and
    // before anyone else can take the word: readers without the lock see it even only
    // when no change is under way.
    if (Held* e = entry(o); e && e->seq) {
        std::atomic_ref<uint32_t> q(*e->seq);
        const uint32_t v = q.load(std::memory_order_relaxed);
        if (v & 1) q.store(v + 1, std::memory_order_release);
        e->seq = nullptr;
    }
    w.store(0, std::memory_order_release);
    leave(o);
    isam_com->cursyslocks--;
    if (is_unlockit(o) != 0) fatal("is unlockit fail - errno = %d\n");
}

void is_incsyslocks(void) noexcept {
    isam_com->totsyslocks++;
    isam_com->cursyslocks++;
    if (isam_com->maxsyslocks < isam_com->cursyslocks) isam_com->maxsyslocks = isam_com->cursyslocks;
}

int is_fwait(volatile unsigned* lockidp) noexcept {
    // The buffer pool reads this count to learn that a holder gave its control lock up
    // without a flush; an increment lost to a concurrent one would hide that.
    std::atomic_ref<uint32_t>(isam_com->usrwaits).fetch_add(1, std::memory_order_relaxed);
    is_unlock(&is_curfcp->jd_fcplock);
    const unsigned long o = kisam::com_offset(lockidp);
    int rc = 0;
    if (is_lockitw(o) != 0) {
        if (errno != EDEADLK) fatal("is lockitw fail - errno = %d\n");
        set_need(0);
        rc = -1;
    } else if (is_unlockit(o) != 0) {
        fatal("is unlockit fail - errno = %d\n");
    }
    // The control lock is retaken.  The kernel refuses this wait only when a process
    // that holds it waits, directly or through others, for a lock this process still
    // holds -- another file's control lock kept with nisgetctl, say.  Such a cycle may
    // clear when the other side gives up, so the wait is tried again after a pause; but
    // while this process keeps its locks it may never clear, so the tries are bounded
    // and the caller then fails without the control lock rather than hang.
    for (int tries = 0; is_lock(&is_curfcp->jd_fcplock) != 0; ++tries) {
        if (tries == kFwaitRetakeTries) return -2;
        struct timespec ts {0, kFwaitRetakePauseNs};
        ::nanosleep(&ts, nullptr);
    }
    return rc;
}

int is_fdone(unsigned* lockidp) noexcept {
    if (is_unlockit(kisam::com_offset(lockidp)) != 0) fatal("is unlockit fail - errno = %d\n");
    return 0;
}
