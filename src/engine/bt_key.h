// Key helpers: fill, overlap-safe move, ordering and equality of byte strings, and the
// capacity of a B-tree page.  Keys compare as unsigned bytes.
#pragma once

#include "layout.h"

void is_pad(char* addr, int nbytes, char value) noexcept;
void is_movblk(const char* src, char* dest, int nbytes) noexcept;
int is_more(const CmpType* ap, const CmpType* bp, int n, int srchflag) noexcept;
int is_same(const char* a, const char* b, short n) noexcept;
int bt_order(int itemlen, int pagesize) noexcept;
