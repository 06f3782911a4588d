// Lock words.  Every lock has a documented word in the common area that holds its
// holder's is_pid (0 when free).  What excludes and waits differs (README.locks.md):
//  - a file's control lock (jd_fcplock) and buf_lock: a futex word of our own area
//    (isx_file.xf_ctl_word, isx_head.xh_buf_word) holding the holder's tag; taking and
//    giving up a free one makes no system call.  A waiter sleeps on it and looks now and
//    then whether the holder is gone (taking the word over) and whether the wait closes
//    a cycle of waits (EDEADLK);
//  - opcl_lock, free_lock and record locks: a write lock on the 4 bytes of the lock file
//    at the word's offset from the segment's start.  The kernel does the excluding and
//    waiting, refuses a wait that would close a cycle (EDEADLK), and frees the ranges of
//    a process that dies.
// Ownership is per process, not per thread, for both kinds.
//
// Lock order: opcl_lock, then a file's control lock, then free_lock or buf_lock.
//
// Requires: the segment attached and the lock file open (is_lockfd); a caller takes the
// words in the order above and waits for no word while it holds free_lock or buf_lock.
// A control lock's word is found through the shared-file table: its control page must be
// in a slot (pfo_tbl) while the lock is taken, held or given up.
//
// A request to take a lock that fails does not abort: a wait that would close a cycle of
// waits (EDEADLK), a lock call that fails (ENOLCK when the kernel's lock table is full,
// EIO, ...), or a wait given up because a signal came (see kisam_set_wait_hook; errno
// EINTR).  The taking call returns -1 with errno saying why, the word is left as it was,
// and the operation fails with is_lock_code()'s code, holding nothing it did not hold
// before -- except a record-lock wait whose control lock cannot be taken back (is_fwait
// -2), after which the caller holds that control lock no more.  A failed release of a
// held range aborts the process with a message: the range would stay held with no way to
// give it up.
//
// Taking a free futex word costs no system call; a free range one non-waiting request.
// Only a lock held elsewhere costs more: the process sleeps (and, with a wait hook set,
// learns the holder first).
#pragma once

#include "layout.h"

int is_lockitnw(unsigned long ofst) noexcept;  // 0, or -1 when another process holds it
int is_lockitw(unsigned long ofst) noexcept;   // 0, or -1 (errno set; need entry left set)
// The ISE_* code for a take that failed with errno err: ISE_DEADLOCK for EDEADLK,
// KISAM_ISE_INTERRUPTED for a wait given up (EINTR), KISAM_ISE_LOCKFAIL otherwise.
int is_lock_code(int err) noexcept;
// Writes fmt (with errno) to standard output and standard error and aborts: for a lock
// call whose failure leaves no safe way on.
[[noreturn]] void is_lock_abort(const char* fmt) noexcept;
int is_unlockit(unsigned long ofst) noexcept;  // 0 or -1

// Acquire, waiting as needed.  0; -1 when the take failed (errno says why; nothing taken).
// A wait for opcl_lock or a control lock may be given up when a signal comes (the wait
// hook); waits for free_lock and buf_lock, held only for moments inside a call, are not.  A word found
// holding the pid of a process that died while holding it (the word is non-zero and not
// ours once the range is granted) is taken over, and is_lock_stale is set to 1 (else 0)
// so that the caller can repair what the dead holder left.
int is_lock(volatile unsigned* lockidp) noexcept;
// is_lock that never gives its wait up for a signal (a lock the caller must have back).
int is_lock_nogiveup(volatile unsigned* lockidp) noexcept;
void is_unlock(unsigned* lockidp) noexcept;
void is_incsyslocks(void) noexcept;
// Wait until lockidp (a record lock's range) is released, giving up the current file's
// control lock meanwhile.  0; -1 when the wait for lockidp failed or was given up (the
// control lock has been retaken; errno says why); -2 when retaking the control lock
// afterwards failed at every one of 1 + kFwaitRetakeTries tries, kFwaitRetakePauseNs
// apart (about a second in all): the control lock is then NOT held (errno from the last
// try).  Nothing is raised; the caller reports.
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
// Takes lockidp without waiting: 0 when it is now this process's (or was already), with
// *dead the pid of a holder that died holding it (its documented word was still set),
// else 0; -1 when a live process holds it.  Leaves is_lock_stale as it was.
int is_lock_try(volatile unsigned* lockidp, uint32_t* dead) noexcept;
// Change counts tied to a hold (the readers that take no lock, README.reads.md): the
// holder of lockidp makes `seq` odd and registers it here; is_unlock of lockidp makes it
// even again just before the word is given up, whatever path gives it up.  False when
// lockidp is not a word this process holds in its table (more than 64 held at once):
// the count then stays odd until the next holder of the word adopts it.
bool is_lock_set_seq(const volatile unsigned* lockidp, uint32_t* seq) noexcept;
// Whether this hold of lockidp carries a change count (made odd in this hold).
bool is_lock_has_seq(const volatile unsigned* lockidp) noexcept;
// A call of this process was abandoned (a signal handler jumped out of it), perhaps in a
// wait: this process waits for nothing now (its record for the walks of crossed waits).
void is_lock_abandoned(void) noexcept;
// Forgets every word this process believed it held (a child after fork holds none).
void is_lock_forget(void) noexcept;
