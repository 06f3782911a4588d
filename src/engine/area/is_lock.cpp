// Lock words and their lock-file ranges.
//
// Rules kept here:
//  1. A word goes 0 -> is_pid only after its range is granted, and back to 0 before its
//     range is released; so whoever is granted a range finds the word 0 or stale (left
//     by a holder that died, whose ranges the kernel dropped), never a live holder.
//  2. A process that already holds a word is granted its range again at once (POSIX
//     locks of one process do not conflict); locks do not nest, one release frees it.
//  3. A take that fails is reported, not fatal: the waiting call returns -1 having
//     taken nothing and leaving the word as it was (errno EDEADLK for a cycle of waits
//     the kernel refused, EINTR for a wait given up for a signal, the lock call's own
//     errno otherwise), and the waiter's need-table entry is cleared again since it no
//     longer waits.  A failed release of a held range means the lock file or the
//     kernel's lock table is unusable and the range cannot be given up: the process
//     prints the message to standard output and aborts.
//  4. Statistics are plain read-modify-write updates without a common lock; concurrent
//     updates may be lost, nothing depends on them.
//  5. A free range costs one non-waiting request (F_SETLK), as much as a waiting one
//     would.  Only a range held elsewhere costs more: with a wait hook set, one request
//     to learn the holder (F_GETLK), then the waiting request; the kernel queues and
//     wakes the waiter, nothing polls.
// Reads: isam_com, is_env (need table), is_pid, is_lockfd, is_curfcp (is_fwait).
#include "is_lock.h"

#include "is_common.h"
#include "os.h"

#include <kisam/kisam.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

int is_lock_stale = 0;
uint32_t is_lock_stale_pid = 0;

namespace {

constexpr off_t kRangeLen = 4;

// A lock word as seen by other processes: never cached across the lock calls.
inline std::atomic_ref<uint32_t> word(volatile unsigned* p) {
    return std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(p));
}

[[noreturn]] void fatal(const char* fmt) noexcept {
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

// The program's wait hook (kisam_set_wait_hook).
kisam_wait_fn hook_fn = nullptr;
void* hook_arg = nullptr;
int hook_flags = 0;

// What a wait is for, worked out only once the range is found held.
struct WaitFor {
    const volatile unsigned* word;  // the lock word, or the record-lock entry's range
    int what;                       // KISAM_WAIT_*, 0 when not known
    bool may_give_up;               // the caller can refuse its call with nothing changed
};

int request(int cmd, short type, unsigned long ofst, struct flock* fl) {
    *fl = {};
    fl->l_type = type;
    fl->l_whence = SEEK_SET;
    fl->l_start = static_cast<off_t>(ofst);
    fl->l_len = kRangeLen;
    return kisam::os.fcntl_lock(is_lockfd, cmd, fl);
}

double now() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);  // answered in user space: no system call
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The name this process opened the file of control page fcp under, as the kernel knows
// it, for the hook; empty when the file is not open here.
void file_name(const IS_FCP* fcp, char* buf, size_t size) {
    buf[0] = '\0';
    if (!fcp || !isam_com || !is_pfi) return;
    for (int u = 0; u < isam_com->maxopen; ++u) {
        if (is_env.pfo_tbl[u] == -1 || kisam::pfo_fcp(u) != fcp || is_pfi[u].pfi_osfd < 0) continue;
        char link[64];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", is_pfi[u].pfi_osfd);
        ssize_t n = ::readlink(link, buf, size - 1);
        buf[n > 0 ? n : 0] = '\0';
        return;
    }
}

// The slow path of taking a range: it is held by another process.  Waits in the kernel;
// tells the hook whom it waits for, and asks it (or the flag) whether a signal that
// interrupts the wait gives the wait up.  0, or -1 with errno (EINTR when given up).
int wait_held(unsigned long ofst, const WaitFor& wf) {
    const kisam_wait_fn fn = hook_fn;
    void* const arg = hook_arg;
    const int flags = hook_flags;
    struct kisam_wait w {};
    char name[512];
    struct flock fl;
    const double start = fn ? now() : 0;
    bool told = false;
    if (fn) {
        // Whom we wait for: the kernel's answer is the truth (the word may be stale, or
        // already cleared by a holder on its way out).
        if (request(F_GETLK, F_WRLCK, ofst, &fl) == 0 && fl.l_type != F_UNLCK) {
            w.holder = static_cast<int>(fl.l_pid);
            w.what = wf.what;
            const IS_FCP* fcp = nullptr;
            if (wf.what == KISAM_WAIT_RECORD)
                fcp = is_curfcp;
            else if (wf.what == KISAM_WAIT_CONTROL)
                fcp = reinterpret_cast<const IS_FCP*>(reinterpret_cast<const char*>(
                          const_cast<const unsigned*>(wf.word)) - offsetof(IS_FCP, jd_fcplock));
            file_name(fcp, name, sizeof name);
            w.file = name[0] ? name : nullptr;
            w.event = KISAM_WAIT_BEGIN;
            w.can_give_up = wf.may_give_up ? 1 : 0;
            fn(&w, arg);
            told = true;
        }
        // else the holder let go meanwhile: the waiting request is granted at once.
    }
    int rc;
    for (;;) {
        rc = request(F_SETLKW, F_WRLCK, ofst, &fl);
        if (rc == 0 || errno != EINTR) break;
        // A signal whose handler does not restart calls: the program may want to stop.
        bool give_up = false;
        if (wf.may_give_up && (flags & KISAM_WAIT_GIVE_UP)) give_up = true;
        if (fn && told) {
            w.event = KISAM_WAIT_SIGNAL;
            w.seconds = now() - start;
            if (fn(&w, arg) != 0 && wf.may_give_up) give_up = true;
        }
        if (give_up) {
            errno = EINTR;
            break;
        }
    }
    if (told) {
        const int e = errno;
        w.event = KISAM_WAIT_END;
        w.seconds = now() - start;
        w.given_up = rc == 0 ? 0 : 1;
        fn(&w, arg);
        errno = e;
    }
    return rc;
}

// Takes the range at ofst: 0, or -1 with errno (the need entry is left set).
int take(unsigned long ofst, const WaitFor& wf) {
    set_need(ofst);
    struct flock fl;
    int r;
    do {
        r = request(F_SETLK, F_WRLCK, ofst, &fl);
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
        if (errno != EAGAIN && errno != EACCES) return -1;
        if (wait_held(ofst, wf) != 0) return -1;
    }
    set_need(0);
    return 0;
}

WaitFor wait_for(volatile unsigned* lockidp, bool may_give_up) {
    if (lockidp == &isam_com->free_lock) return {lockidp, KISAM_WAIT_HEAP, false};
    if (lockidp == &isam_com->buf_lock) return {lockidp, KISAM_WAIT_BUFFERS, false};
    if (lockidp == &isam_com->opcl_lock) return {lockidp, KISAM_WAIT_OPEN, may_give_up};
    return {lockidp, KISAM_WAIT_CONTROL, may_give_up};  // the other words are control locks
}

int lock_word(volatile unsigned* lockidp, bool may_give_up) noexcept;

}  // namespace

int is_lock_code(int err) noexcept {
    if (err == EDEADLK) return ISE_DEADLOCK;
    if (err == EINTR) return KISAM_ISE_INTERRUPTED;
    return KISAM_ISE_LOCKFAIL;
}

void is_lock_abort(const char* fmt) noexcept { fatal(fmt); }

int is_lockitnw(unsigned long ofst) noexcept {
    return kisam::os_lock(is_lockfd, F_SETLK, F_WRLCK, static_cast<off_t>(ofst), kRangeLen) == 0
               ? 0 : -1;
}

int is_lockitw(unsigned long ofst) noexcept {
    return take(ofst, WaitFor{nullptr, 0, false});  // on failure the need entry stays set
}

int is_unlockit(unsigned long ofst) noexcept {
    return kisam::os_lock(is_lockfd, F_SETLKW, F_UNLCK, static_cast<off_t>(ofst), kRangeLen) == 0
               ? 0 : -1;
}

int is_lock(volatile unsigned* lockidp) noexcept { return lock_word(lockidp, true); }

int is_lock_nogiveup(volatile unsigned* lockidp) noexcept { return lock_word(lockidp, false); }

namespace {

int lock_word(volatile unsigned* lockidp, bool may_give_up) noexcept {
    auto w = word(lockidp);
    if (w.load(std::memory_order_acquire) != 0) isam_com->syswaits++;
    const unsigned long o = kisam::com_offset(lockidp);
    if (take(o, wait_for(lockidp, may_give_up)) != 0) {
        const int e = errno;
        set_need(0);
        errno = e;
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

}  // namespace

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
    int err = 0;
    if (take(o, WaitFor{lockidp, KISAM_WAIT_RECORD, true}) != 0) {
        err = errno;
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
    // The same holds for a lock call that fails (a full lock table may empty).  A signal
    // does not end this wait: the caller must have its control lock back.
    for (int tries = 0; is_lock_nogiveup(&is_curfcp->jd_fcplock) != 0; ++tries) {
        if (tries == kFwaitRetakeTries) return -2;
        struct timespec ts {0, kFwaitRetakePauseNs};
        ::nanosleep(&ts, nullptr);
    }
    errno = err;
    return rc;
}

int is_fdone(unsigned* lockidp) noexcept {
    if (is_unlockit(kisam::com_offset(lockidp)) != 0) fatal("is unlockit fail - errno = %d\n");
    return 0;
}

extern "C" KISAM_API int kisam_set_wait_hook(kisam_wait_fn fn, void* arg, int flags) {
    hook_fn = fn;
    hook_arg = arg;
    hook_flags = flags;
    return 0;
}
