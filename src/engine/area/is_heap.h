// The common heap: first fit over a circular, address-ordered free list with a roving
// start, in 16-byte units, every link a heap offset, all of it under free_lock.
//
// Requires: the segment attached; alloccom, allocncom and freencom take free_lock
// themselves, so the caller holds neither free_lock nor buf_lock (opcl_lock or a control
// lock may be held).  heapinit and is_heaplayout: the start-up lock.
#pragma once

#include "layout.h"

void heapinit(void* vp, unsigned int nbytes) noexcept;
// The heap of a new segment at isam_com, laid out by is_comlayout from conf: one free
// block over the whole heap.  Caller holds the start-up lock.
void is_heaplayout(const struct is_config* conf) noexcept;
// Null with errno ENOMEM when no free block is large enough, or with the errno of a
// take of free_lock that failed (is_lock_code).
char* alloccom(unsigned int nbytes) noexcept;     // area behind a header, or null
char* allocncom(unsigned int nbytes) noexcept;    // whole block (rounded to 16), or null
void freencom(char* ap, unsigned int nbytes) noexcept;
