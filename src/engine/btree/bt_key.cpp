// Key helpers.  Keys are plain byte strings ordered as unsigned bytes: no collation,
// sign or case folding, so every index orders exactly as is_more says.
#include "bt_key.h"

#include <cstring>

namespace {
constexpr int kBtHeader = 8;   // page header and leftmost pointer
constexpr int kBtPointer = 4;  // page pointer beside each item
}  // namespace

void is_pad(char* addr, int nbytes, char value) noexcept {
    if (nbytes > 0) std::memset(addr, static_cast<unsigned char>(value), static_cast<size_t>(nbytes));
}

void is_movblk(const char* src, char* dest, int nbytes) noexcept {
    // memmove copies as if through a temporary, which is what callers shifting items
    // inside one page rely on.
    if (nbytes > 0) std::memmove(dest, src, static_cast<size_t>(nbytes));
}

int is_more(const CmpType* ap, const CmpType* bp, int n, int srchflag) noexcept {
    if (srchflag & 0x02) {
        const CmpType* t = ap;
        ap = bp;
        bp = t;
    }
    for (int i = 0; i < n; ++i) {
        if (ap[i] != bp[i]) return ap[i] > bp[i] ? 1 : 0;
    }
    return (srchflag & 0x01) ? 0 : 1;
}

int bt_order(int itemlen, int pagesize) noexcept {
    if (itemlen < 1 || (itemlen & 1)) return -1;
    const int order = (pagesize - kBtHeader) / (itemlen + kBtPointer);
    return order < 2 ? -1 : order;
}
