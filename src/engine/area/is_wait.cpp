// Waiting for a lock held elsewhere: the sleeps, what the program hears of them (the
// wait hook, and signals), and the walk that finds crossed waits.  The rulebook is
// README.locks.md; is_lock.cpp takes and gives back the words and calls in here only
// once a lock is found held.
//
// Rules kept here (the rulebook's "Waiting" and "Crossed waits"):
//  - Waiting.  A waiter on a futex word records what it waits for (xp_wait), sets kWaiters and
//     sleeps until a deadline: kLookFirstUs, then twice as long each time up to
//     kLookMaxUs, and from the start again whenever the holder changes.  When a sleep runs
//     out it looks whether the holder is gone (taking the word over, as "Death" says).  A waiter
//     that leaves without the word after it slept passes a wake on.  A wait that a
//     signal may give up, or that a hook hears of, holds signals back for its whole
//     length (see SignalGate) and lets them through after each sleep: one that came
//     during the sleep or before it counts as interrupting it.
//  - Crossed waits.  Before its first sleep a waiter follows holder -> what it waits for
//     -> ...; coming back to itself it fails with EDEADLK.  After a sleep ran out or the
//     holder changed, it looks again, and then fails only for a cycle that runs through a
//     range: the kernel sees no cycle through a futex word, so a cycle closed by a range
//     wait is found by a futex waiter on it.
// Reads: isam_com, isx_area, is_env (need table, process table, pfo_tbl), is_pid,
// is_curfcp and is_pfi (the file a hook is told of).
#include "is_lock_internal.h"

#include "is_common.h"
#include "is_live.h"
#include "isx_area.h"
#include "test_hook.h"

#include <kisam/kisam.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace kisam::locks {
namespace {

// A waiter looks at the holder (alive? a cycle?) after sleeping this long, then twice as
// long each time up to kLookMaxUs, and again from the start whenever the holder changes.
constexpr long kLookFirstUs = 1000;
constexpr long kLookMaxUs = 50000;

// The program's wait hook (kisam_set_wait_hook).
kisam_wait_fn hook_fn = nullptr;
void* hook_arg = nullptr;
int hook_flags = 0;

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

// Signals around a wait that may hear of them.  A signal let through while the wait is
// awake (the holder looks, the deadline sums, the cycle walks, or the instant before a
// sleep begins) would run its handler unheard and leave the wait to go on until the
// holder lets go.  So such a wait holds signals back for its whole length, its sleeps
// included (each is bounded), and after each sleep lets them through: one held back
// whose handler does not restart calls counts as interrupting that sleep.
class SignalGate {
public:
    explicit SignalGate(bool on) : on_(on) {
        if (!on_) return;
        sigset_t all;
        sigfillset(&all);
        on_ = ::pthread_sigmask(SIG_BLOCK, &all, &old_) == 0;
    }
    ~SignalGate() {
        if (on_) ::pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    SignalGate(const SignalGate&) = delete;
    SignalGate& operator=(const SignalGate&) = delete;
    bool on() const { return on_; }
    // Lets the held-back signals through, their handlers run now: true when one of them
    // would have interrupted a sleep.  Only the signals found pending go through: one
    // that comes after the look stays held back until the next, where it is heard;
    // unmasked with the rest, it would run its handler unheard in the moment between the
    // look and the unmasking, and the wait would go on until the holder let go.
    bool open() {
        if (!on_) return false;
        bool came = false;
        sigset_t pend, let;
        sigfillset(&let);
        if (::sigpending(&pend) == 0) {
            if (kisam::test_hook) kisam::test_hook(kisam::kHookGate, 0);
            for (int s = 1; s < NSIG; ++s) {
                if (sigismember(&pend, s) != 1 || sigismember(&old_, s) == 1) continue;
                sigdelset(&let, s);
                struct sigaction sa {};
                if (came || ::sigaction(s, nullptr, &sa) != 0) continue;
                const bool handled = (sa.sa_flags & SA_SIGINFO) != 0 ||
                                     (sa.sa_handler != SIG_DFL && sa.sa_handler != SIG_IGN);
                came = handled && (sa.sa_flags & SA_RESTART) == 0;
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &let, nullptr);
        return came;
    }
    // After a sleep: holds signals back again.
    void close() {
        if (!on_) return;
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    }

private:
    bool on_;
    sigset_t old_ {};
};

// One wait as the hook hears of it: whom it waits for at its beginning, each signal
// that interrupts it (and whether that gives it up), and its end.
class HookedWait {
public:
    explicit HookedWait(const WaitFor& wf)
        : wf_(wf), fn_(hook_fn), arg_(hook_arg), flags_(hook_flags), start_(fn_ ? now() : 0) {}
    bool hooked() const { return fn_ != nullptr; }
    // Whether a signal can change anything: the hook hears of it, or it gives the wait up.
    bool hears_signals() const { return fn_ != nullptr || (wf_.may_give_up && (flags_ & KISAM_WAIT_GIVE_UP)); }
    void begin(int holder) {
        if (!fn_ || told_) return;
        w_.holder = holder;
        w_.what = wf_.what;
        const IS_FCP* fcp = nullptr;
        if (wf_.what == KISAM_WAIT_RECORD)
            fcp = is_curfcp;
        else if (wf_.what == KISAM_WAIT_CONTROL)
            fcp = reinterpret_cast<const IS_FCP*>(reinterpret_cast<const char*>(
                      const_cast<const unsigned*>(wf_.word)) - offsetof(IS_FCP, jd_fcplock));
        file_name(fcp, name_, sizeof name_);
        w_.file = name_[0] ? name_ : nullptr;
        w_.event = KISAM_WAIT_BEGIN;
        w_.can_give_up = wf_.may_give_up ? 1 : 0;
        fn_(&w_, arg_);
        told_ = true;
    }
    // A signal whose handler does not restart calls came: true when the wait is given up.
    bool signal() {
        bool give_up = wf_.may_give_up && (flags_ & KISAM_WAIT_GIVE_UP);
        if (fn_ && told_) {
            w_.event = KISAM_WAIT_SIGNAL;
            w_.seconds = now() - start_;
            if (fn_(&w_, arg_) != 0 && wf_.may_give_up) give_up = true;
        }
        return give_up;
    }
    void end(bool taken) {
        if (!told_) return;
        const int e = errno;
        w_.event = KISAM_WAIT_END;
        w_.seconds = now() - start_;
        w_.given_up = taken ? 0 : 1;
        fn_(&w_, arg_);
        errno = e;
    }

private:
    const WaitFor& wf_;
    const kisam_wait_fn fn_;
    void* const arg_;
    const int flags_;
    const double start_;
    struct kisam_wait w_ {};
    char name_[512];
    bool told_ = false;
};

// ---- crossed waits (rule 7) ----------------------------------------------------------------

// The slot of the process that holds what segment offset x stands for, -1 when none is
// known (free, or held by a process without a slot).  Appends what it read to trace;
// *range is set when x is a lock-file range.
constexpr int kMaxHops = 256;
uint32_t hop_tags[kMaxHops + 2];  // the futex words' holders met by the latest walk
int nhop_tags = 0;

int holder_slot(uint32_t x, uint32_t* trace, int& n, bool* range) {
    if (uint32_t* fw = futex_at(x)) {
        const uint32_t t = word(fw).load() & kTagMask;
        trace[n++] = t;
        if (t != 0 && nhop_tags < kMaxHops + 2) hop_tags[nhop_tags++] = t;
        if (t == 0) return -1;
        return tag_slot(t);
    }
    *range = true;
    struct flock fl;
    int32_t pid = 0;
    if (request(F_GETLK, F_WRLCK, x, &fl) == 0 && fl.l_type != F_UNLCK) {
        pid = fl.l_pid;
    } else if (x + 12 <= static_cast<uint32_t>(isam_com->comsize)) {
        // The kernel does not report this process's own ranges: the word (opcl_lock,
        // free_lock) or the record-lock entry (its holder at byte 8) may name this process.
        const auto* p = reinterpret_cast<const char*>(isam_com) + x;
        const bool word_range = x == kisam::com_offset(&isam_com->opcl_lock) || x == kisam::com_offset(&isam_com->free_lock);
        const uint32_t named = kisam::load_at<uint32_t>(word_range ? p : p + 8);
        if (named == static_cast<uint32_t>(is_pid)) pid = is_pid;
    }
    trace[n++] = static_cast<uint32_t>(pid);
    if (pid <= 0) return -1;
    if (pid == is_pid) return is_env.useridx;
    for (int i = 0; i < isam_com->maxusers; ++i)
        if (std::atomic_ref<int32_t>(is_env.pid_[i]).load(std::memory_order_relaxed) == pid) return i;
    return -1;
}

// Follows holder -> what it waits for -> ... from what this process waits for (offset
// o).  True when the chain comes back to this process; *range when it runs through a
// lock-file range.  trace receives everything read, n its length.
bool walk(uint32_t o, uint32_t* trace, int& n, bool* range) {
    n = 0;
    nhop_tags = 0;
    *range = false;
    const int me = is_env.useridx;
    int s = holder_slot(o, trace, n, range);
    for (int hop = 0; hop < kMaxHops && hop <= isam_com->maxusers; ++hop) {
        if (s < 0 || s >= isam_com->maxusers) return false;
        if (s == me) return true;
        const uint32_t x = word(&kisam::isx_proc_of(s)->xp_wait).load();
        trace[n++] = x;
        if (x == 0) return false;
        s = holder_slot(x, trace, n, range);
    }
    return false;
}

// Whether this process's wait for offset o closes a cycle of waits.  A cycle is believed
// only when a second walk reads the same (a holder that let go and went on to wait for
// something else between two reads would look like one).  first: the wait is new, and
// any cycle counts; else only one through a range (rule 7).
bool crossed(uint32_t o, bool first) {
    if (tag_slot(self_tag()) < 0) return false;  // a process without a slot waits for none
    static uint32_t a[2 * kMaxHops + 4], b[2 * kMaxHops + 4];
    int na = 0, nb = 0;
    bool ra = false, rb = false;
    if (!walk(o, a, na, &ra) || (!first && !ra)) return false;
    if (!walk(o, b, nb, &rb) || na != nb || std::memcmp(a, b, sizeof a[0] * static_cast<size_t>(na)) != 0)
        return false;
    // A process that died waiting still names what it waited for, and a word it holds
    // is taken over, not waited for forever: a cycle through a gone holder is none.  (A
    // range's holder is the kernel's answer: alive.)
    for (int i = 0; i < nhop_tags; ++i)
        if (hop_tags[i] != self_tag() && holder_gone(hop_tags[i])) return false;
    return true;
}

// A range wait's sleep, signals held back (they are looked at after it).
void range_sleep(long us) {
    if (kisam::test_hook) kisam::test_hook(kisam::kHookSleep, 1);
    struct timespec rel {us / 1000000, (us % 1000000) * 1000};
    const int e = errno;
    ::clock_nanosleep(CLOCK_MONOTONIC, 0, &rel, nullptr);
    errno = e;
}

}  // namespace

// The slow path of taking a range: it is held by another process.  Tells the hook whom
// it waits for, and asks it (or the flag) whether a signal that interrupts the wait gives
// the wait up.  0, or -1 with errno (EINTR when given up, EDEADLK for a cycle).
//
// A wait no signal can change sleeps in the kernel (F_SETLKW).  One that hears of
// signals cannot: F_SETLKW has no deadline, so signals would have to be let through just
// before it, and one landing in that gap would run its handler unheard and leave the wait
// to go on until the holder let go.  So it holds signals back for its whole length and
// asks again (F_SETLK) after each sleep: kLookFirstUs, then twice as long up to
// kLookMaxUs, from the start again whenever the holder changes.  The price: the range is
// taken up to that late after the holder lets go, and a waiter in the kernel is granted
// it first.  Being no kernel waiter, it also looks for a cycle itself after each sleep.
int wait_held(unsigned long ofst, const WaitFor& wf) {
    HookedWait hw(wf);
    SignalGate gate(hw.hears_signals());  // also over the hook's BEGIN
    struct flock fl;
    int holder = 0;
    if (hw.hooked() || gate.on()) {
        // Whom we wait for: the kernel's answer is the truth (the word may be stale, or
        // already cleared by a holder on its way out).
        if (request(F_GETLK, F_WRLCK, ofst, &fl) == 0 && fl.l_type != F_UNLCK) holder = static_cast<int>(fl.l_pid);
        // else the holder let go meanwhile: the request below is granted at once.
        if (holder) hw.begin(holder);
    }
    uint32_t* wait_rec = my_wait();
    if (wait_rec) word(wait_rec).store(static_cast<uint32_t>(ofst));
    // The kernel refuses a wait that closes a cycle of range waits, but it cannot see a
    // holder that sleeps on a futex word (rule 7).
    int rc = -1;
    if (crossed(static_cast<uint32_t>(ofst), true)) {
        if (wait_rec) word(wait_rec).store(0);
        errno = EDEADLK;
        hw.end(false);
        return -1;
    }
    long look_us = kLookFirstUs;
    int seen_crossed = 0;  // looks in a row that found a cycle
    for (;;) {
        if (!gate.on()) {
            rc = request(F_SETLKW, F_WRLCK, ofst, &fl);
            if (rc == 0 || errno != EINTR) break;
            if (hw.signal()) {  // (only when the gate could not be put on)
                errno = EINTR;
                break;
            }
            continue;
        }
        rc = request(F_SETLK, F_WRLCK, ofst, &fl);
        if (rc == 0 || (errno != EAGAIN && errno != EACCES)) break;
        const int now_holder = request(F_GETLK, F_WRLCK, ofst, &fl) == 0 && fl.l_type != F_UNLCK ? static_cast<int>(fl.l_pid) : 0;
        if (now_holder == 0) continue;  // let go meanwhile: ask again at once
        if (now_holder != holder) {
            holder = now_holder;
            look_us = kLookFirstUs;
            seen_crossed = 0;
        } else if (!crossed(static_cast<uint32_t>(ofst), false)) {
            seen_crossed = 0;
        } else if (++seen_crossed == 2) {   // believed once two looks in a row find it
            rc = -1;
            errno = EDEADLK;
            break;
        }
        range_sleep(look_us);
        look_us = look_us * 2 > kLookMaxUs ? kLookMaxUs : look_us * 2;
        const bool came = gate.open();
        gate.close();
        if (came && hw.signal()) {
            rc = -1;
            errno = EINTR;
            break;
        }
    }
    if (wait_rec) word(wait_rec).store(0);
    hw.end(rc == 0);
    return rc;
}

// The slow path of taking futex word fw (documented word at offset o): it is held.
// Sleeps on it, looking at the holder as rule 6 and 7 say.  0 once it is this process's,
// or -1 with errno (EDEADLK, EINTR when given up).
int futex_wait_held(uint32_t* fw, uint32_t me, unsigned long o, const WaitFor& wf) {
    auto a = word(fw);
    HookedWait hw(wf);
    uint32_t* wait_rec = my_wait();
    set_need(o);
    if (wait_rec) word(wait_rec).store(static_cast<uint32_t>(o));
    uint32_t holder = 0;   // the holder seen last
    bool first = true;     // no look at any holder yet
    bool slept = false;
    int seen_crossed = 0;  // looks in a row that found a cycle
    long look_us = kLookFirstUs;
    struct timespec deadline {};
    int rc = 0;
    SignalGate gate(hw.hears_signals());
    for (;;) {
        uint32_t cur = a.load(std::memory_order_acquire);
        const uint32_t t = cur & kTagMask;
        if (t == 0) {
            // Free.  Whoever slept takes it with the waiters bit: others may sleep still.
            if (a.compare_exchange_strong(cur, me | (slept ? kWaiters : 0), std::memory_order_acquire)) break;
            continue;
        }
        bool ran_out = false;
        if (t != holder || first) {
            holder = t;
            look_us = kLookFirstUs;
            seen_crossed = 0;
            ::clock_gettime(CLOCK_MONOTONIC, &deadline);
            deadline.tv_nsec += look_us * 1000;
            if (deadline.tv_nsec >= 1000000000L) { deadline.tv_sec += 1; deadline.tv_nsec -= 1000000000L; }
            if (t == me) {
                // Names this process, which did not take it: left by an earlier image of
                // it (an exec) or by its parent's hold in a child -- gone either way.
                if (a.compare_exchange_strong(cur, me | kWaiters, std::memory_order_acquire)) break;
                continue;
            }
            // A new holder closes any cycle it makes itself (and finds it); this wait
            // looks when it begins.
            if (first && crossed(static_cast<uint32_t>(o), true)) {
                errno = EDEADLK;
                rc = -1;
                break;
            }
            first = false;
        } else {
            struct timespec n {};
            ::clock_gettime(CLOCK_MONOTONIC, &n);
            ran_out = n.tv_sec > deadline.tv_sec || (n.tv_sec == deadline.tv_sec && n.tv_nsec >= deadline.tv_nsec);
        }
        if (ran_out) {
            if (holder_gone(t)) {
                if (a.compare_exchange_strong(cur, me | kWaiters, std::memory_order_acquire)) break;
                continue;
            }
            // A backstop: a cycle that whoever closed it did not see (their walks raced
            // past each other's records) is believed once two looks in a row find it.
            if (!crossed(static_cast<uint32_t>(o), false))
                seen_crossed = 0;
            else if (++seen_crossed == 2) {
                errno = EDEADLK;
                rc = -1;
                break;
            }
            look_us = look_us * 2 > kLookMaxUs ? kLookMaxUs : look_us * 2;
            ::clock_gettime(CLOCK_MONOTONIC, &deadline);
            deadline.tv_nsec += look_us * 1000;
            while (deadline.tv_nsec >= 1000000000L) { deadline.tv_sec += 1; deadline.tv_nsec -= 1000000000L; }
        }
        if (!(cur & kWaiters)) {
            if (!a.compare_exchange_strong(cur, cur | kWaiters)) continue;
            cur |= kWaiters;
        }
        hw.begin(tag_pid(t));
        slept = true;
        // With the gate on, signals stay held back through the sleep and are let through
        // after it: a signal let through before the sleep could run its handler in the
        // gap before the kernel's wait began, unheard, and the wait would go on until the
        // holder let go.  A sleep lasts at most kLookMaxUs, so a held-back signal is heard
        // that late at the most.
        int r = futex_sleep(fw, cur, deadline);
        if (gate.open()) r = EINTR;
        gate.close();
        if (r == EINTR && hw.signal()) {
            errno = EINTR;
            rc = -1;
            break;
        }
    }
    if (wait_rec) word(wait_rec).store(0);
    set_need(0);
    // A wake meant for the next waiter may have come to this one, which leaves without
    // the word: pass it on.
    if (rc != 0 && slept) futex_wake(fw);
    hw.end(rc == 0);
    return rc;
}

}  // namespace kisam::locks

using namespace kisam::locks;

extern "C" KISAM_API int kisam_set_wait_hook(kisam_wait_fn fn, void* arg, int flags) {
    hook_fn = fn;
    hook_arg = arg;
    hook_flags = flags;
    return 0;
}
