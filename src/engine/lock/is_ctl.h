// The locks that bracket work on a file: its control lock (is_ctl.cpp) and the record
// locks on key values (is_reclock.cpp: nislock, nisunlock, the releases at close).
//
// Requires: the call frame has selected the current file (is_curdb, is_curpfi,
// is_curfcp).  is_getctl takes nothing else first: opcl_lock may be held, never free_lock
// or buf_lock (lock order: opcl_lock, a control lock, then free_lock or buf_lock).
// is_unres and every change of a file's record-lock list require its control lock; no
// process waits for a record lock while holding that file's control lock (is_fwait gives
// it up while it waits).  Control locks of other files that the application holds with
// nisgetctl stay held meanwhile, so a cycle of waits may mix record locks (lock-file
// ranges) and control locks (futex words); the lock layer finds such cycles too
// (area/README.locks.md, "Crossed waits").
#pragma once

// Control lock of the current file, nesting per process and file.  The first take
// settles a rollback still due on the file; the outermost release commits the unit's
// pages (v_flush) and gives the word up.  is_getctl: 0, or -1 when the wait was refused
// as a deadlock (ISE_DEADLOCK raised, nothing taken).
int is_getctl(void) noexcept;
int is_relctl(void) noexcept;   // 0, -1 when the flush failed (lock kept)
// After an outermost release that failed and the rollback of the unit it ended: flush
// again and give the word up when that succeeds, or when a rollback is still pending on
// the file (every later taker settles it before using the file).
void is_relctl_again(void) noexcept;

// Releases this process's record locks of handle isfd matching key (exact when matchopt
// is 0, overlapping otherwise).  Requires the control lock.  Exact: 0 when one was
// released, -1 when none matched; overlapping: how many were released.
int is_unres(int isfd, const char* key, int keylen, int matchopt) noexcept;
