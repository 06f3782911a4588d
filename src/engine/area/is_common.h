// The common segment: attaching, removing, and laying out a new segment; whole-range
// file locks; file identity.
//
// Module globals is_shmid and is_firstcomf describe the last getcomm().
//
// Requires: getcomm, freecom, is_comlayout (and is_heaplayout) run under the start-up
// lock (bytes 0-1 of the lock file); the rest needs only the segment attached.  The
// folder's other contracts: layout.h (the records), fcp.h (the control page's image),
// is_lock.h (lock words), is_heap.h (the heap), isx_area.h (our own shared state),
// is_access.h (who may use an installation).
#pragma once

#include "layout.h"
#include <sys/ipc.h>

extern int is_shmid;
extern int is_firstcomf;
// Size in bytes of the segment under the key of the last getcomm (0 when unknown); set
// also when the attach failed because the segment was smaller than asked for.
extern size_t is_shmsize;

// Creates or attaches the segment; address, or (char *) -1.  A segment that no process
// had attached is zeroed -- after `leftover` (when given) has looked at what its last
// users left in it.  With `acc`, the segment follows the installation's access rule
// (is_access.h): created with its lock file's owner, group and shared mode, and refused
// (is_shm_refused, with a message) when the one found at the key is not its own; without,
// or when everyone may use the installation, it is created 0666 and taken as found.
struct is_access;
char* getcomm(key_t key, int size, void (*leftover)(char* base, size_t segsize) = nullptr,
              const struct is_access* acc = nullptr) noexcept;
// Detaches isam_com and removes the segment when nobody is attached any more.  A caller
// that may be the last holds the start-up lock (bytes 0-1 of the lock file), as getcomm's
// caller does: a removal between another process's shmget and shmat would leave that
// process without a segment, or with one nobody else can find.
void freecom(void) noexcept;
int ISLockFile(int fd, long sofst, long eofst) noexcept;
int ISUnlockFile(int fd, long sofst, long eofst) noexcept;
int osstat(const char* fn, struct file_info* fi) noexcept;
int osfstat(int fd, struct file_info* fi) noexcept;

// Fills the computed fields of confp; 0, or -1 (with the heap-size message) when too big.
int sizecomm(struct is_config* confp) noexcept;
// The same without the message: *heapp receives the heap's size either way.
int size_layout(struct is_config* confp, int64_t* heapp) noexcept;

// First-attacher initialisation of the segment at isam_com from the configuration
// record: header, buffer chain, shared-file table; the heap is laid out next by
// is_heaplayout (is_heap.h).  Caller holds the start-up lock.
void is_comlayout(const struct is_config* conf) noexcept;
// Sets is_env from the header's bases and the attach address isam_com.
void is_setenv(void) noexcept;
