// The common heap: first fit over a circular free list with a roving start, in 16-byte
// units.
//
// Invariants (all under free_lock):
//  1. The free list is circular and ascending by heap offset except at its one wrap
//     point; it always holds the anchor block at offset 0, whose size is 0, so the
//     anchor never satisfies a request and is never handed out.
//  2. No two free blocks touch: freencom merges a block with each neighbour it meets.
//  3. free_base names a block in the free list (the block before the last one used).
//  4. Every link is a heap offset, never an address; every block starts on a 16-byte
//     boundary from the heap's start, which itself is only 4-aligned in the segment,
//     so headers are reached only through Cheader (declared 4-aligned).
//  5. A process killed between any two stores of an allocation or a release leaves no
//     two free blocks overlapping: a block is taken out of the list before it shrinks
//     or is handed out, and linked in only once complete; at worst a block is lost.
// Reads and writes: isam_com->free_base, free_lock; is_env.heap_ as the heap's start.
#include "is_heap.h"

#include "is_lock.h"

#include <cerrno>

#include <cstdint>
#include <cstring>

namespace {

constexpr uint64_t kUnit = sizeof(Cheader);  // 16 bytes, the size of a header
constexpr RELt kFirstBlock = 2 * kUnit;        // the anchor's unit and one unused unit

inline Cheader* block(RELt off) { return reinterpret_cast<Cheader*>(is_env.heap_ + off); }

inline unsigned* free_lock() { return &isam_com->free_lock; }

}  // namespace

void heapinit(void* vp, unsigned int nbytes) noexcept {
    Cheader* anchor = static_cast<Cheader*>(vp);
    const uint64_t units = nbytes / kUnit;
    anchor->Cpad = 0;
    anchor->Csize = 0;
    if (units > 2) {
        Cheader* first = reinterpret_cast<Cheader*>(static_cast<char*>(vp) + kFirstBlock);
        anchor->Cnext = kFirstBlock;
        first->Cnext = 0;
        first->Cpad = 0;
        first->Csize = units - 2;
    } else {
        anchor->Cnext = 0;  // too small to hold a block: the list is the anchor alone
    }
    isam_com->free_base = 0;
}

void is_heaplayout(const struct is_config* conf) noexcept {
    heapinit(reinterpret_cast<char*>(isam_com) + conf->co_heapbase,
             static_cast<unsigned int>(conf->co_comsize - conf->co_heapbase));
}

char* alloccom(unsigned int nbytes) noexcept {
    const uint64_t units = (static_cast<uint64_t>(nbytes) + kUnit - 1) / kUnit + 1;
    if (is_lock(free_lock()) != 0) return nullptr;

    const RELt start = isam_com->free_base;
    RELt prev_off = start;
    Cheader* prev = block(prev_off);
    RELt p_off = prev->Cnext;
    Cheader* p = block(p_off);
    // A sound list has fewer blocks than the heap has units; a longer walk means a list
    // damaged into a cycle that misses its start, which must not hang every process.
    const uint64_t limit = static_cast<uint64_t>(isam_com->comsize) / kUnit + 2;
    uint64_t steps = 0;
    while (p->Csize < units) {
        if (p_off == start || ++steps > limit) {  // walked the whole list once
            is_unlock(free_lock());
            errno = ENOMEM;
            return nullptr;
        }
        prev_off = p_off;
        prev = p;
        p_off = p->Cnext;
        p = block(p_off);
    }

    char* got;
    if (p->Csize == units) {
        prev->Cnext = p->Cnext;
        got = reinterpret_cast<char*>(p);
    } else {
        // Cut from the tail: the free block keeps its place and links.
        p->Csize -= units;
        got = reinterpret_cast<char*>(p) + p->Csize * kUnit;
        reinterpret_cast<Cheader*>(got)->Csize = units;
    }
    isam_com->free_base = prev_off;
    is_unlock(free_lock());

    std::memset(got + kUnit, 0, nbytes);
    return got + kUnit;
}

char* allocncom(unsigned int nbytes) noexcept {
    const uint64_t rounded = (static_cast<uint64_t>(nbytes) + kUnit - 1) / kUnit * kUnit;
    // A zero-byte block cannot be given back (its size would be 0 units).
    if (rounded == 0 || rounded > UINT32_MAX) {
        errno = ENOMEM;
        return nullptr;
    }
    char* r = alloccom(static_cast<unsigned int>(rounded - kUnit));
    if (r == nullptr) return nullptr;
    std::memset(r - kUnit, 0, kUnit);
    return r - kUnit;
}

void freencom(char* ap, unsigned int nbytes) noexcept {
    if (ap == nullptr || nbytes == 0) return;
    Cheader* b = reinterpret_cast<Cheader*>(ap);
    b->Csize = (static_cast<uint64_t>(nbytes) + kUnit - 1) / kUnit;
    const RELt b_off = kisam::rel_of(ap);
    // The heap's holder waits for nothing, so only a failing lock call refuses this: the
    // block is then left out of the free list (its space is lost until the area goes),
    // which harms nothing else.
    if (is_lock(free_lock()) != 0) return;

    // Find p such that b lies between p and its successor, or beyond the wrap point.
    // A walk longer than the heap has units means a corrupt list: leave the block out
    // rather than loop for ever.
    const uint64_t limit = static_cast<uint64_t>(isam_com->comsize) / kUnit + 2;
    RELt p_off = isam_com->free_base;
    Cheader* p = block(p_off);
    for (uint64_t steps = 0;; ++steps) {
        const RELt next = p->Cnext;
        if (p_off < b_off && b_off < next) break;
        if (next <= p_off && (b_off > p_off || b_off < next)) break;
        if (steps > limit) {
            is_unlock(free_lock());
            return;
        }
        p_off = next;
        p = block(p_off);
    }

    const RELt next = p->Cnext;
    if (b_off + b->Csize * kUnit == next) {  // merge with the block above
        Cheader* s = block(next);
        b->Csize += s->Csize;
        b->Cnext = s->Cnext;
    } else {
        b->Cnext = next;
    }
    if (p_off + p->Csize * kUnit == b_off) {  // merge into the block below
        // Link first, grow second: a process killed between the two leaves the block
        // out of the list (lost to use), never a free block that overlaps another.
        p->Cnext = b->Cnext;
        p->Csize += b->Csize;
    } else {
        p->Cnext = b_off;
    }
    isam_com->free_base = p_off;
    is_unlock(free_lock());
}
