// Key helpers: fill, overlap-safe move, ordering and equality of byte strings, and the
// capacity of a B-tree page.  Keys compare as unsigned bytes.
//
// Requires: nothing; pure functions of their arguments.
#pragma once

#include "layout.h"

void is_pad(char* addr, int nbytes, char value) noexcept;
void is_movblk(const char* src, char* dest, int nbytes) noexcept;
int is_more(const CmpType* ap, const CmpType* bp, int n, int srchflag) noexcept;
int bt_order(int itemlen, int pagesize) noexcept;

namespace kisam {

// Orders n bytes of a and b as unsigned bytes, as memcmp does (only the sign counts),
// without a call: keys are a few to a few dozen bytes, compared a dozen times per page,
// and a library call per item costs more than the comparison.  Eight bytes at a time,
// loaded big-endian so that integer order is byte order.
inline int key_cmp(const char* a, const char* b, size_t n) noexcept {
    while (n >= 8) {
        uint64_t x, y;
        __builtin_memcpy(&x, a, 8);
        __builtin_memcpy(&y, b, 8);
        if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
        a += 8;
        b += 8;
        n -= 8;
    }
    if (n >= 4) {
        uint32_t x, y;
        __builtin_memcpy(&x, a, 4);
        __builtin_memcpy(&y, b, 4);
        if (x != y) return __builtin_bswap32(x) < __builtin_bswap32(y) ? -1 : 1;
        a += 4;
        b += 4;
        n -= 4;
    }
    for (; n > 0; --n, ++a, ++b) {
        if (*a != *b) return static_cast<unsigned char>(*a) < static_cast<unsigned char>(*b) ? -1 : 1;
    }
    return 0;
}

}  // namespace kisam

// Whether the first n bytes of a and b are equal (n taken as unsigned 16 bits; 0: equal).
inline int is_same(const char* a, const char* b, short n) noexcept {
    return kisam::key_cmp(a, b, static_cast<unsigned short>(n)) == 0 ? 1 : 0;
}
