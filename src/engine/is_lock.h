// Lock words and their lock-file ranges.
//
// A lock word in the common area holds its holder's is_pid (0 when free) and stands for
// a write lock on the 4 bytes of the lock file at the word's offset from the segment's
// start.  The kernel does the excluding and waiting and frees the ranges of a process
// that dies; the word only tells who holds it.
//
// Lock order: opcl_lock, then a file's control lock, then free_lock or buf_lock.
//
// A waiting request that the kernel refuses with EDEADLK (a cycle of waits between
// processes) does not abort: the waiting call returns -1, the word is left as it was,
// and the operation that waited fails with ISE_DEADLOCK, holding nothing it did not hold
// before -- except a record-lock wait whose control lock cannot be taken back (is_fwait
// -2), after which the caller holds that control lock no more.  Every other failure of
// the lock file aborts the process with a message.
#pragma once

#include "layout.h"

int is_lockitnw(unsigned long ofst) noexcept;  // 0, or -1 when another process holds it
int is_lockitw(unsigned long ofst) noexcept;   // 0, or -1 (errno set; need entry left set)
int is_unlockit(unsigned long ofst) noexcept;  // 0 or -1

// Acquire, waiting as needed.  0; -1 only for EDEADLK (nothing taken).  A word found
// holding the pid of a process that died while holding it (the word is non-zero and not
// ours once the range is granted) is taken over, and is_lock_stale is set to 1 (else 0)
// so that the caller can repair what the dead holder left.
int is_lock(volatile unsigned* lockidp) noexcept;
void is_unlock(unsigned* lockidp) noexcept;
void is_incsyslocks(void) noexcept;
// Wait until lockidp is released, giving up the current file's control lock meanwhile.
// 0; -1 when the wait for lockidp was refused with EDEADLK (the control lock has been
// retaken); -2 when retaking the control lock afterwards was refused with EDEADLK at
// every one of 1 + kFwaitRetakeTries tries, kFwaitRetakePauseNs apart (about a second in
// all): the control lock is then NOT held.  Nothing is raised; the caller reports.
int is_fwait(volatile unsigned* lockidp) noexcept;
inline constexpr int kFwaitRetakeTries = 1000;
inline constexpr long kFwaitRetakePauseNs = 1000000;
int is_fdone(unsigned* lockidp) noexcept;

// Set by is_lock: 1 when the word it just took was left by a holder that died, and
// that holder's pid (0 otherwise).
extern int is_lock_stale;
extern uint32_t is_lock_stale_pid;

// Whether this process holds lockidp: the word holds is_pid and this process took it.
// (Process ids are reused: a word may hold this process's pid left by a dead process
// that had it, and that word is not this process's.)
bool is_lock_mine(const volatile unsigned* lockidp) noexcept;
// After the range of lockidp was granted to this process without waiting (is_lockitnw):
// makes the word this process's and counts it.  Returns the pid of a holder that died
// holding it (the word was set and not this process's), else 0.
uint32_t is_lock_claim(volatile unsigned* lockidp) noexcept;
// Change counts tied to a hold (the readers that take no lock, README.reads.md): the
// holder of lockidp makes `seq` odd and registers it here; is_unlock of lockidp makes it
// even again just before the word is given up, whatever path gives it up.  False when
// lockidp is not a word this process holds in its table (more than 64 held at once):
// the count then stays odd until the next holder of the word adopts it.
bool is_lock_set_seq(const volatile unsigned* lockidp, uint32_t* seq) noexcept;
// Whether this hold of lockidp carries a change count (made odd in this hold).
bool is_lock_has_seq(const volatile unsigned* lockidp) noexcept;
// Forgets every word this process believed it held (a child after fork holds none).
void is_lock_forget(void) noexcept;
