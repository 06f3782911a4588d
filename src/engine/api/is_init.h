// Start-up (is_init.cpp): finding the configuration, attaching the common area, the
// per-process tables.  is_init and is_chinit themselves are exported (kisam.h).
//
// Requires: nothing held; a process attaches once (is_init) and a forked child calls
// is_chinit before it uses a file.
#pragma once

// Opens the installation's configuration file read-only: $KISCONFIG when set, else
// "kisamconfig" in the etc directory, else in $HOME_Q9.  fnbuf receives the name tried
// last (the callers' buffers hold 512 bytes).  The descriptor, or -1 (errno set).
int kiopenconfigfile(char* fnbuf, int util) noexcept;
