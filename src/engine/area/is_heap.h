// The common heap: first fit over a circular, address-ordered free list with a roving
// start, in 16-byte units, every link a heap offset, all of it under free_lock.
#pragma once

#include "layout.h"

void heapinit(void* vp, unsigned int nbytes) noexcept;
char* alloccom(unsigned int nbytes) noexcept;     // area behind a header, or null
char* allocncom(unsigned int nbytes) noexcept;    // whole block (rounded to 16), or null
void freencom(char* ap, unsigned int nbytes) noexcept;
