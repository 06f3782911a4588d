// Record operations on the current file: keyed read, write, update, delete.
//
// Requires: the call frame has selected the current file (is_isin).  is_read and is_write
// take the control lock themselves (it nests); is_update and is_delete require it held,
// inside the call's unit (nis_rec.cpp).
#pragma once

#include "is_ctl.h"
#include "layout.h"

int is_read(int keyno, char* record, int recsize, int dir) noexcept;
// The same read without the control lock (README.reads.md): its result (>= 0) when it
// stands, else kReadAgain (the file changed meanwhile: try once more), kReadMiss (a page
// it needs is not in the pool: is_nolock_miss says which; once it is, try again) or
// kReadLocked (only the locked read can do it), with nothing changed.  Requires the call
// frame.
inline constexpr int kReadAgain = -2;
inline constexpr int kReadLocked = -3;
inline constexpr int kReadMiss = -4;
int is_read_nolock(int keyno, char* record, int recsize, int dir) noexcept;
struct NolockMiss {
    PAGE page;
    bool hint;  // the cursor's hint page: only the chain changes are to be learnt, no load
};
extern NolockMiss is_nolock_miss;
// Reads this process completed without the lock (a figure for tests and benchmarks).
extern unsigned long is_nolock_reads;
// Searches of key 0 without the lock that key 0's leaf directory took to their leaf, and
// entries of it found misleading and dropped (figures for tests).
extern unsigned long is_leafdir_hits;
extern unsigned long is_leafdir_drops;
// Steps without the lock past the pool that asked ahead for the pages of the next steps
// (a figure for tests).
extern unsigned long is_lookaheads;
// Reads without the lock that ran unarmed for faults in the files' mappings, and those
// of them that stopped where they would have read a mapping and ran again armed
// (figures for tests).
extern unsigned long is_unarmed_reads;
extern unsigned long is_rearmed_reads;
int is_write(const char* record, int recsize, int force) noexcept;
int is_delete(const char* primekey) noexcept;
// nisupdate's work: replaces the record with the same key 0 value (ISE_NOKEY when there is
// none), touching only the alternate keys whose values changed.  Requires the control
// lock.  0 or -1.
int is_update(const char* record, int recsize) noexcept;

// The process scratch buffer shared with the B-tree layer (1536 bytes).
extern char* is_tbufp;
