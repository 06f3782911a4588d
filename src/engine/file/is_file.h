// Start-up, handles, open, create, close, call framing and record locks.
#pragma once

#include "layout.h"

// Per-process counters and create options.
extern short n_ufiles;
extern short IsKeyopt;
extern short IsMagicVal;

// Call frame.
int is_isin(int procid, int isfd, int keyno) noexcept;
void is_isout(void) noexcept;

// Start-up helpers.
int kiopenconfigfile(char* fnbuf, int util) noexcept;

// Handles.
void is_dbfree(int isfd) noexcept;

// Record locks: release this process's locks of handle isfd matching key (exact when
// matchopt is 0, overlapping otherwise).  Requires the control lock.
int is_unres(int isfd, const char* key, int keylen, int matchopt) noexcept;

// Processes that died while attached (is_reap.cpp).  A process holds a lock on the byte
// of the lock file at its process-table entry for as long as it is attached.
bool is_slot_dead(int i) noexcept;        // slot i names a process that is gone
int is_live_claim(void) noexcept;         // take that lock for this process's slot; 0/-1
void is_live_release(void) noexcept;      // give it up (detach)
// Marks file slot u open (or no longer open) in this process's open set.  Requires
// opcl_lock.
void is_open_note(int u, bool open) noexcept;
// Cleans dead slot i up (journal, record locks, use counts, the slot): 1 cleaned, 0
// nothing to do, -1 not now (a lock it needs is held elsewhere).  Requires: no
// opcl_lock held.  With `wait` the files' control locks are waited for (only for a
// process that holds none, attaching); otherwise they are only tried.
int is_reap_slot(int i, bool wait) noexcept;
// Cleans every dead slot whose locks are free; returns how many, their pids in
// pids[0..maxpids).
int is_reap_dead(int* pids, int maxpids) noexcept;
// Cleans the dead slots that hold file slot u open; returns how many.
int is_reap_holders(int u) noexcept;
