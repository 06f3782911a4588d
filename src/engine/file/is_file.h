// Files and handles: create, open, close and shutdown, the per-process handle tables, and
// processes that died while attached (is_reap.cpp).
//
// Requires: opcl_lock for every change of the shared-file table, of is_usecnt and of this
// process's IS_PFI entries (is_open_note, the open and close paths); the exported
// operations take it themselves.  Nothing else may be held when is_reap_slot waits.
#pragma once

#include "is_live.h"

#include "layout.h"

// Per-process counters and create options.
extern short n_ufiles;
extern short IsKeyopt;
extern short IsMagicVal;

// Call frame (is_frame.h): every exported operation on files enters through it.
#include "is_frame.h"

// Handles.
void is_dbfree(int isfd) noexcept;

// Processes that died while attached (is_reap.cpp); telling them from live ones is the
// area's (is_live.h).
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
