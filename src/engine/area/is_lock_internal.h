// What the taking of locks (is_lock.cpp) and the waiting for them (is_wait.cpp) share:
// the form of a futex word, the lock-file request, and who holds what.  Not for other
// layers: their contract is is_lock.h.
//
// Requires what is_lock.h requires; every function here is called inside a lock call of
// this process, one thread at a time.
#pragma once

#include "is_lock.h"

#include <fcntl.h>

#include <atomic>
#include <cstdint>
#include <ctime>

namespace kisam::locks {

constexpr off_t kRangeLen = 4;  // a lock-file range: the 4 bytes at the word's offset

// A futex word: the holder's tag, and kWaiters while someone sleeps on it.
constexpr uint32_t kWaiters = 0x80000000u;
constexpr uint32_t kPidForm = 0x40000000u;  // a holder without a process slot: its pid
constexpr uint32_t kTagMask = ~kWaiters;

// A lock word as seen by other processes: never cached across the lock calls.
inline std::atomic_ref<uint32_t> word(volatile unsigned* p) {
    return std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(p));
}
inline std::atomic_ref<uint32_t> word(uint32_t* p) { return std::atomic_ref<uint32_t>(*p); }

// What a wait is for, worked out only once the lock is found held.
struct WaitFor {
    const volatile unsigned* word;  // the lock word, or the record-lock entry's range
    int what;                       // KISAM_WAIT_*, 0 when not known
    bool may_give_up;               // the caller can refuse its call with nothing changed
};

// Who this process is, and who holds a word (is_lock.cpp).
uint32_t self_tag();               // the tag this process writes into the words it takes
int tag_slot(uint32_t t);          // the process slot a tag names (-1 for the pid form)
int tag_pid(uint32_t t);           // the pid a tag names, 0 when not known
bool holder_gone(uint32_t t);      // rule 6; costs a system call or a few
uint32_t* futex_at(uint32_t x);    // the futex word at segment offset x, null for a range
uint32_t* my_wait();               // this process's xp_wait, null without a slot
void set_need(unsigned long ofst); // this process's entry of the documented need table

// System calls (is_lock.cpp).
int request(int cmd, short type, unsigned long ofst, struct flock* fl);  // a range's lock call
// Sleeps while *w holds val, until the monotonic deadline: 0 (woken, or the word
// changed), ETIMEDOUT, or EINTR for a signal whose handler does not restart calls.
int futex_sleep(uint32_t* w, uint32_t val, const struct timespec& deadline);
void futex_wake(uint32_t* w);

// The waits (is_wait.cpp): 0 once the lock is this process's, or -1 with errno (EDEADLK
// for a crossed wait, EINTR when given up for a signal, a lock call's own errno).
// The range at ofst, held by another process: waits in the kernel.
int wait_held(unsigned long ofst, const WaitFor& wf);
// Futex word fw (documented word at offset o), held: sleeps on it; me is this process's tag.
int futex_wait_held(uint32_t* fw, uint32_t me, unsigned long o, const WaitFor& wf);

}  // namespace kisam::locks
