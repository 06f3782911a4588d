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
