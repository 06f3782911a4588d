// Lock words: futex words of our own area for control locks and buf_lock, lock-file
// ranges for opcl_lock, free_lock and record locks: taking and giving them back.  The
// rulebook is README.locks.md.
//
// Rules kept here (the numbers are the rulebook's):
//  1. The documented word of a lock holds its holder's is_pid (0 when free), as it always
//     has.  It goes 0 -> is_pid only once the lock is this process's (its futex word
//     taken, or its range granted) and back to 0 before the lock is given up; so whoever
//     takes a lock finds the documented word 0, or set by a holder that died (stale).
//  2. A process that already holds a word takes it again at once (ownership is per
//     process, not per thread); locks do not nest, one release frees it.
//  3. A take that fails is reported, not fatal: the waiting call returns -1 having
//     taken nothing and leaving the word as it was (errno EDEADLK for a cycle of waits,
//     EINTR for a wait given up for a signal, the lock call's own errno otherwise), and
//     the waiter's need-table entry and waiting record are cleared again.  A failed
//     release of a held range means the lock file or the kernel's lock table is unusable
//     and the range cannot be given up: the process prints the message to standard
//     output and aborts.
//  4. Statistics are plain read-modify-write updates without a common lock; concurrent
//     updates may be lost, nothing depends on them.
//  5. A free futex word costs no system call to take or to give up: a compare-and-swap
//     takes it, an exchange gives it up, and only a word whose waiters bit is set costs
//     a FUTEX_WAKE.  A free range costs one non-waiting request (F_SETLK).
//  6. A futex word holds its holder's tag: (claim count << 16 | process slot + 1) for an
//     attached process, kPidForm | pid for one without a slot; kWaiters is set by those
//     who sleep on it.  A waiter looks at the holder whenever a sleep runs out: a holder
//     that is gone (is_slot_gone; kill for the pid form) has its word taken over by
//     compare-and-swap, so one taker wins and finds the documented word stale.
//  7. Crossed waits are found by the waiters (is_wait.cpp): every process that sleeps on a
//     word or waits for a range records what in its isx_proc (xp_wait).
// The waiting itself, the wait hook and signals are is_wait.cpp's.
// Reads: isam_com, isx_area, is_env (need table, process table, pfo_tbl), is_pid,
// is_lockfd, is_curfcp (is_fwait), is_curpfi/is_pfi (the current file's slot).
#include "is_lock_internal.h"

#include "is_common.h"
#include "is_live.h"
#include "isx_area.h"
#include "os.h"
#include "test_hook.h"

#include <kisam/kisam.h>

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

int is_lock_stale = 0;
uint32_t is_lock_stale_pid = 0;

namespace kisam::locks {

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

// The words this process holds (their offsets), so that a word naming this process is
// known to be this process's -- and not left by a dead one with the same pid or tag.
// A process holds a handful at once; should more ever be held, the rest are trusted by
// their contents alone.
// Each entry may carry a change count that this hold made odd (is_lock_set_seq); the
// release makes it even again before the word is given up.
constexpr int kHeld = 64;
struct Held {
    unsigned long off;
    uint32_t* seq;
    uint32_t tag;  // a futex word's: the tag this process wrote when it took it
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
void enter(unsigned long o, uint32_t tag = 0) {
    if (Held* e = entry(o)) {
        e->tag = tag;
        return;
    }
    if (nheld < kHeld)
        held[nheld++] = Held{o, nullptr, tag};
    else
        held_overflow = true;
}
uint32_t self_tag();
// Whether futex word value v is this process's hold of the word at offset o: the tag it
// wrote when it took it (its identity may have changed since: a slot claimed after a
// take without one).
bool holds(unsigned long o, uint32_t v) {
    const Held* e = entry(o);
    if (e) return (v & 0x7FFFFFFFu) == e->tag;
    return held_overflow && (v & 0x7FFFFFFFu) == self_tag();
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

// ---- who this process is, and who holds a futex word -------------------------------------

// In a child forked from a process that used the library: the child's own pid (the child
// keeps the parent's is_pid and slot until is_chinit gives it its own).
pid_t forked_pid = 0;
void after_fork_in_child() {
    forked_pid = ::getpid();
    nheld = 0;  // the child holds none of the parent's words
    held_overflow = false;
}

// This process's xp_wait, or null without a slot.
uint32_t* my_wait() {
    const int i = is_env.useridx;
    if (!isx_area || !isam_com || !is_env.pid_ || i < 0 || i >= isam_com->maxusers) return nullptr;
    return &kisam::isx_proc_of(i)->xp_wait;
}

// The tag this process writes into the futex words it takes.
uint32_t self_tag() {
    const int i = is_env.useridx;
    const bool own_slot = (forked_pid == 0 || forked_pid == is_pid) && isx_area && isam_com && is_env.pid_ &&
                          i >= 0 && i < isam_com->maxusers &&
                          std::atomic_ref<int32_t>(is_env.pid_[i]).load(std::memory_order_relaxed) == is_pid;
    if (own_slot) {
        const uint32_t gen = std::atomic_ref<uint32_t>(kisam::isx_proc_of(i)->xp_gen).load(std::memory_order_relaxed);
        return (gen & kGenMask) << 16 | static_cast<uint32_t>(i + 1);
    }
    return kPidForm | (static_cast<uint32_t>(forked_pid ? forked_pid : is_pid) & 0x3FFFFFFFu);
}

// The process slot a tag names (-1 for the pid form).
int tag_slot(uint32_t t) { return (t & kPidForm) ? -1 : static_cast<int>(t & 0xFFFFu) - 1; }

// The pid of the holder a tag names, for the wait hook (0 when not known).
int tag_pid(uint32_t t) {
    if (t & kPidForm) return static_cast<int>(t & 0x3FFFFFFFu);
    const int i = tag_slot(t);
    if (i < 0 || i >= isam_com->maxusers) return 0;
    return std::atomic_ref<int32_t>(is_env.pid_[i]).load(std::memory_order_relaxed);
}

// Whether process pid has ended and not been waited for yet: it exists for kill, but
// runs no more (a child that its parent has not reaped).
bool zombie(pid_t pid) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[256];
    const ssize_t n = ::read(fd, buf, sizeof buf - 1);
    ::close(fd);
    if (n <= 0) return false;
    buf[n] = '\0';
    // "pid (name) state ...": the name may hold anything, the state follows its last ')'.
    const char* r = std::strrchr(buf, ')');
    return r && r[1] == ' ' && (r[2] == 'Z' || r[2] == 'X');
}

// Whether the holder a tag names is gone (rule 6).  Costs a system call or a few.
bool holder_gone(uint32_t t) {
    const int e = errno;
    bool gone;
    if (t & kPidForm) {
        const pid_t pid = static_cast<pid_t>(t & 0x3FFFFFFFu);
        gone = pid <= 0 || (::kill(pid, 0) != 0 && errno == ESRCH) || zombie(pid);
    } else {
        gone = is_slot_gone(tag_slot(t), t >> 16 & kGenMask);
    }
    errno = e;
    return gone;
}

// The futex word standing for the documented word at doc: buf_lock's, or the control
// lock's of the file whose shared control page holds doc; null for the words that stand
// for lock-file ranges (opcl_lock, free_lock) and for a control page in no slot.
int last_slot = -1;  // the slot of the control page found last
uint32_t* futex_of(const volatile unsigned* doc) {
    if (!isx_area || !isam_com) return nullptr;
    if (doc == &isam_com->buf_lock) return &isx_area->xh_buf_word;
    if (doc == &isam_com->opcl_lock || doc == &isam_com->free_lock) return nullptr;
    const auto rel = static_cast<int32_t>(reinterpret_cast<const volatile char*>(doc) -
                                          offsetof(IS_FCP, jd_fcplock) - is_env.heap_);
    const int n = isam_com->maxopen;
    auto at = [&](int u) { return u >= 0 && u < n && is_env.pfo_tbl[u] == rel; };
    int u = is_curpfi && is_pfi ? static_cast<int>(is_curpfi - is_pfi) : -1;
    if (!at(u)) {
        u = last_slot;
        if (!at(u)) {
            for (u = 0; u < n && !at(u); ++u) {
            }
            if (u == n) return nullptr;
            last_slot = u;
        }
    }
    return &kisam::isx_file_of(u)->xf_ctl_word;
}

// The futex word at segment offset x, or null when x is not one (a range).
uint32_t* futex_at(uint32_t x) {
    if (x == kisam::com_offset(&isam_com->buf_lock)) return &isx_area->xh_buf_word;
    for (int u = 0; u < isam_com->maxopen; ++u) {
        const IS_FCP* f = kisam::pfo_fcp(u);
        if (f && kisam::com_offset(&f->jd_fcplock) == x) return &kisam::isx_file_of(u)->xf_ctl_word;
    }
    return nullptr;
}

// ---- futex calls ---------------------------------------------------------------------------

// Sleeps while *w holds val, until the monotonic deadline.  0 when woken or the word
// changed, ETIMEDOUT, or EINTR for a signal whose handler does not restart calls.
// futex_waitv restarts after a handler installed with SA_RESTART, as a lock-file wait
// does; FUTEX_WAIT with a timeout would not, so it serves only on kernels without it.
int futex_sleep(uint32_t* w, uint32_t val, const struct timespec& deadline) {
    if (kisam::test_hook) kisam::test_hook(kisam::kHookSleep, 0);
    static bool no_waitv = false;
    const int e = errno;
    int r = 0;
    if (!no_waitv) {
        struct futex_waitv fw {};
        fw.val = val;
        fw.uaddr = reinterpret_cast<uintptr_t>(w);
        fw.flags = FUTEX_32;  // shared between processes: not private
        if (::syscall(__NR_futex_waitv, &fw, 1, 0, &deadline, CLOCK_MONOTONIC) < 0) {
            if (errno == ENOSYS)
                no_waitv = true;
            else if (errno == ETIMEDOUT || errno == EINTR)
                r = errno;
        }
    }
    if (no_waitv) {
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        long ns = (deadline.tv_sec - now.tv_sec) * 1000000000L + (deadline.tv_nsec - now.tv_nsec);
        if (ns <= 0) {
            r = ETIMEDOUT;
        } else {
            struct timespec rel {ns / 1000000000L, ns % 1000000000L};
            if (::syscall(SYS_futex, w, FUTEX_WAIT, val, &rel, nullptr, 0) != 0 &&
                (errno == ETIMEDOUT || errno == EINTR))
                r = errno;
        }
    }
    errno = e;
    return r;
}

void futex_wake(uint32_t* w) {
    const int e = errno;
    ::syscall(SYS_futex, w, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    errno = e;
}

int request(int cmd, short type, unsigned long ofst, struct flock* fl) {
    *fl = {};
    fl->l_type = type;
    fl->l_whence = SEEK_SET;
    fl->l_start = static_cast<off_t>(ofst);
    fl->l_len = kRangeLen;
    return kisam::os.fcntl_lock(is_lockfd, cmd, fl);
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

// Makes the futex word (documented word doc at offset o), just taken with tag me, this
// process's.
void own(volatile unsigned* doc, unsigned long o, uint32_t me) {
    auto d = word(doc);
    const uint32_t cur = d.load(std::memory_order_acquire);
    // Rule 1: a documented word set when the lock became ours was left by a holder that
    // died; the caller may have to repair what it was doing.
    is_lock_stale = cur != 0 ? 1 : 0;
    is_lock_stale_pid = cur;
    d.store(static_cast<uint32_t>(is_pid), std::memory_order_release);
    enter(o, me);
    is_incsyslocks();
}

int lock_futex(volatile unsigned* doc, uint32_t* fw, bool may_give_up) {
    auto a = word(fw);
    const uint32_t me = self_tag();
    const unsigned long o = kisam::com_offset(doc);
    uint32_t cur = 0;
    if (!a.compare_exchange_strong(cur, me, std::memory_order_acquire)) {
        if (holds(o, cur)) {
            is_lock_stale = 0;
            is_lock_stale_pid = 0;
            return 0;
        }
        isam_com->syswaits++;
        if (futex_wait_held(fw, me, o, wait_for(doc, may_give_up)) != 0) {
            is_lock_stale = 0;
            is_lock_stale_pid = 0;
            return -1;
        }
    }
    own(doc, o, me);
    return 0;
}

}  // namespace kisam::locks

using namespace kisam::locks;

namespace {
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
    if (uint32_t* fw = futex_of(lockidp)) return lock_futex(lockidp, fw, may_give_up);
    if (lockidp != &isam_com->opcl_lock && lockidp != &isam_com->free_lock) {
        // A control page in no slot of the shared-file table: nobody could find its
        // lock, and taking it would exclude nobody.
        errno = ENOLCK;
        is_lock_stale = 0;
        is_lock_stale_pid = 0;
        return -1;
    }
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
    const unsigned long o = kisam::com_offset(lockidp);
    if (const uint32_t* fw = futex_of(lockidp))
        return holds(o, std::atomic_ref<const uint32_t>(*fw).load(std::memory_order_acquire));
    const uint32_t cur = std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(lockidp)).load(std::memory_order_acquire);
    return cur == static_cast<uint32_t>(is_pid) && registered(o);
}

int is_lock_try(volatile unsigned* lockidp, uint32_t* dead) noexcept {
    *dead = 0;
    const unsigned long o = kisam::com_offset(lockidp);
    uint32_t* fw = futex_of(lockidp);
    if (!fw) {
        if (lockidp != &isam_com->opcl_lock && lockidp != &isam_com->free_lock) return -1;
        if (is_lockitnw(o) != 0) return -1;
        auto w = word(lockidp);
        const uint32_t cur = w.load(std::memory_order_acquire);
        w.store(static_cast<uint32_t>(is_pid), std::memory_order_release);
        enter(o);
        is_incsyslocks();
        // The word is cleared before its range is released: set once the range is ours,
        // it names a holder that died.
        *dead = cur;
        return 0;
    }
    auto a = word(fw);
    const uint32_t me = self_tag();
    uint32_t cur = 0;
    if (!a.compare_exchange_strong(cur, me, std::memory_order_acquire)) {
        const uint32_t t = cur & kTagMask;
        if (holds(o, cur)) return 0;
        // Taken over only from a holder that is gone (a word naming this process that it
        // did not take is one); the waiters bit stays for whoever sleeps on it.
        if (t != me && !holder_gone(t)) return -1;
        if (!a.compare_exchange_strong(cur, me | (cur & kWaiters), std::memory_order_acquire)) return -1;
    }
    const int stale = is_lock_stale;
    const uint32_t stale_pid = is_lock_stale_pid;
    own(lockidp, o, me);
    *dead = is_lock_stale_pid;
    is_lock_stale = stale;
    is_lock_stale_pid = stale_pid;
    return 0;
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
    static bool fork_noted = false;
    if (!fork_noted) {
        // A child forked without is_chinit must not take words as its parent.
        ::pthread_atfork(nullptr, nullptr, after_fork_in_child);
        fork_noted = true;
    }
    nheld = 0;
    held_overflow = false;
    forked_pid = 0;  // is_pid is this process's again (start-up, is_chinit)
}

void is_lock_abandoned(void) noexcept {
    if (uint32_t* w = my_wait()) word(w).store(0);
}

void is_unlock(unsigned* lockidp) noexcept {
    const unsigned long o = kisam::com_offset(lockidp);
    uint32_t* fw = futex_of(lockidp);
    auto w = word(lockidp);
    if (fw) {
        if (!holds(o, word(fw).load(std::memory_order_acquire))) return;
    } else {
        const uint32_t cur = w.load(std::memory_order_acquire);
        // A word holding our pid that we did not take is a dead process's: not ours to clear.
        if (cur == 0 || cur != static_cast<uint32_t>(is_pid) || !registered(o)) return;
    }
    // A change count this hold made odd becomes even after the hold's last change and
    // before anyone else can take the word: readers without the lock see it even only
    // when no change is under way.
    Held* e = entry(o);
    uint32_t* seq = e ? e->seq : nullptr;
    // A control word's hold that the full table could not note: its count, odd only when
    // this hold made it so or adopted it (nobody else changes the file meanwhile), is the
    // file's own, beside its futex word.
    if (!e && held_overflow && fw && fw != &isx_area->xh_buf_word)
        seq = &reinterpret_cast<isx_file*>(reinterpret_cast<char*>(fw) - offsetof(isx_file, xf_ctl_word))->xf_seq;
    if (seq) {
        std::atomic_ref<uint32_t> q(*seq);
        const uint32_t v = q.load(std::memory_order_relaxed);
        if (v & 1) q.store(v + 1, std::memory_order_release);
        if (e) e->seq = nullptr;
    }
    w.store(0, std::memory_order_release);
    leave(o);
    isam_com->cursyslocks--;
    if (fw) {
        if (word(fw).exchange(0, std::memory_order_acq_rel) & kWaiters) futex_wake(fw);
        return;
    }
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
