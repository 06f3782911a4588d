// The leaf directory of a reader (is_leafdir.h): sorted blocks of entries, each entry a
// first key and where its leaf was.  Invariants: every block but a sole one holds at
// least one entry; entries rise strictly within a block, and every entry of a block is
// below every entry of the next; bpre_[i] is the prefix of block i's first entry.
#include "is_leafdir.h"

#include <cstdlib>
#include <cstring>

namespace kisam {

void LeafDir::release() noexcept {
    for (int i = 0; i < nblocks_; ++i) std::free(blocks_[i]);
    std::free(blocks_);
    std::free(bpre_);
    blocks_ = nullptr;
    bpre_ = nullptr;
    nblocks_ = capblocks_ = 0;
    count_ = 0;
}

bool LeafDir::reset(int klen) noexcept {
    release();
    if (klen < 1 || klen > kMaxKey) {
        klen_ = 0;
        return false;
    }
    klen_ = klen;
    rlen_ = klen > 8 ? static_cast<size_t>(klen - 8) : 0;
    stride_ = (sizeof(LeafRef) + rlen_ + alignof(LeafRef) - 1) & ~(alignof(LeafRef) - 1);
    return true;
}

void LeafDir::clear() noexcept {
    const int k = klen_;
    reset(k);
}

LeafDir::Key LeafDir::key_of(const char* k) const noexcept {
    uint64_t v = 0;
    if (klen_ >= 8) {
        std::memcpy(&v, k, 8);
    } else {
        unsigned char b[8] = {};
        for (int i = 0; i < klen_; ++i) b[i] = static_cast<unsigned char>(k[i]);
        std::memcpy(&v, b, 8);
    }
    return Key{__builtin_bswap64(v), k + 8};
}

int LeafDir::block_of(const Key& k) const noexcept {
    // The last block whose first entry is <= k (block 0 when none is).
    if (rlen_ == 0) {
        // Keys of 8 bytes or fewer are their integers: a bisection without branches on
        // the data (each would be mispredicted half of the time).
        const uint64_t* base = bpre_;
        int n = nblocks_;
        while (n > 1) {
            const int half = n / 2;
            base = base[half] <= k.pre ? base + half : base;
            n -= half;
        }
        return static_cast<int>(base - bpre_);
    }
    int lo = 1, hi = nblocks_;
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        const bool le = bpre_[mid] != k.pre ? bpre_[mid] < k.pre : cmp(k, bpre_[mid], body(blocks_[mid], 0)) >= 0;
        if (le) lo = mid + 1;
        else hi = mid;
    }
    return lo - 1;
}

int LeafDir::rank(const Block* b, const Key& k, bool le) const noexcept {
    if (rlen_ == 0 && b->n > 0) {
        // As block_of: the last entry <= k (or < k), then the count up to it.
        const uint64_t* base = b->pre;
        int n = b->n;
        if (le) {
            while (n > 1) {
                const int half = n / 2;
                base = base[half] <= k.pre ? base + half : base;
                n -= half;
            }
            return static_cast<int>(base - b->pre) + (*base <= k.pre);
        }
        while (n > 1) {
            const int half = n / 2;
            base = base[half] < k.pre ? base + half : base;
            n -= half;
        }
        return static_cast<int>(base - b->pre) + (*base < k.pre);
    }
    int lo = 0, hi = b->n;
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        const int c = cmp(k, b->pre[mid], body(b, mid));  // k against the entry
        if (c > 0 || (le && c == 0)) lo = mid + 1;
        else hi = mid;
    }
    return lo;
}

LeafRef* LeafDir::floor(const char* key) noexcept {
    fb_ = nullptr;
    if (nblocks_ == 0) return nullptr;
    const Key k = key_of(key);
    Block* b = blocks_[block_of(k)];
    const int r = rank(b, k, true);
    if (r == 0) return nullptr;  // below the first entry of the first block
    fb_ = b;
    fi_ = r - 1;
    return reinterpret_cast<LeafRef*>(body(b, r - 1));
}

bool LeafDir::found_is(const char* key) const noexcept {
    return fb_ && cmp(key_of(key), fb_->pre[fi_], body(fb_, fi_)) == 0;
}

void LeafDir::found_key(char* out) const noexcept {
    if (!fb_) return;
    const uint64_t v = __builtin_bswap64(fb_->pre[fi_]);
    char first[8];
    std::memcpy(first, &v, 8);
    std::memcpy(out, first, static_cast<size_t>(klen_ < 8 ? klen_ : 8));
    if (rlen_) std::memcpy(out + 8, body(fb_, fi_) + sizeof(LeafRef), rlen_);
}

LeafDir::Block* LeafDir::new_block() noexcept {
    Block* b = static_cast<Block*>(std::malloc(offsetof(Block, body) + kBlock * stride_));
    if (b) b->n = 0;
    return b;
}

bool LeafDir::add_block(int at, Block* b) noexcept {
    if (nblocks_ == capblocks_) {
        const int cap = capblocks_ ? 2 * capblocks_ : 16;
        Block** nb = static_cast<Block**>(std::realloc(blocks_, static_cast<size_t>(cap) * sizeof(Block*)));
        if (!nb) return false;
        blocks_ = nb;
        uint64_t* np = static_cast<uint64_t*>(std::realloc(bpre_, static_cast<size_t>(cap) * sizeof(uint64_t)));
        if (!np) return false;
        bpre_ = np;
        capblocks_ = cap;
    }
    std::memmove(blocks_ + at + 1, blocks_ + at, static_cast<size_t>(nblocks_ - at) * sizeof(Block*));
    std::memmove(bpre_ + at + 1, bpre_ + at, static_cast<size_t>(nblocks_ - at) * sizeof(uint64_t));
    blocks_[at] = b;
    bpre_[at] = b->n ? b->pre[0] : 0;
    ++nblocks_;
    return true;
}

void LeafDir::put(const char* lo, const LeafRef& ref) noexcept {
    if (klen_ == 0) return;
    if (count_ >= kMaxEntries) clear();
    if (nblocks_ == 0) {
        Block* b = new_block();
        if (!b) return;
        if (!add_block(0, b)) {
            std::free(b);
            return;
        }
    }
    const Key k = key_of(lo);
    int bi = block_of(k);
    Block* b = blocks_[bi];
    int at = rank(b, k, false);
    if (at < b->n && cmp(k, b->pre[at], body(b, at)) == 0) {
        std::memcpy(body(b, at), &ref, sizeof ref);
        return;
    }
    if (b->n == kBlock) {
        // Split the full block in halves; the entry goes into the half that covers it.
        Block* nb = new_block();
        if (!nb) return;
        constexpr int half = kBlock / 2;
        std::memcpy(nb->pre, b->pre + half, static_cast<size_t>(kBlock - half) * sizeof(uint64_t));
        std::memcpy(nb->body, body(b, half), static_cast<size_t>(kBlock - half) * stride_);
        nb->n = kBlock - half;
        if (!add_block(bi + 1, nb)) {
            std::free(nb);
            return;
        }
        b->n = half;
        if (at > half) {
            b = nb;
            ++bi;
            at -= half;
        }
    }
    std::memmove(b->pre + at + 1, b->pre + at, static_cast<size_t>(b->n - at) * sizeof(uint64_t));
    char* e = body(b, at);
    std::memmove(e + stride_, e, static_cast<size_t>(b->n - at) * stride_);
    b->pre[at] = k.pre;
    std::memcpy(e, &ref, sizeof ref);
    if (rlen_) std::memcpy(e + sizeof(LeafRef), k.rest, rlen_);
    ++b->n;
    ++count_;
    if (at == 0) bpre_[bi] = k.pre;
}

void LeafDir::drop(const char* lo) noexcept {
    if (nblocks_ == 0) return;
    const Key k = key_of(lo);
    const int bi = block_of(k);
    Block* b = blocks_[bi];
    const int at = rank(b, k, false);
    if (at >= b->n || cmp(k, b->pre[at], body(b, at)) != 0) return;
    std::memmove(b->pre + at, b->pre + at + 1, static_cast<size_t>(b->n - at - 1) * sizeof(uint64_t));
    char* e = body(b, at);
    std::memmove(e, e + stride_, static_cast<size_t>(b->n - at - 1) * stride_);
    --b->n;
    --count_;
    if (b->n == 0 && nblocks_ > 1) {
        std::free(b);
        std::memmove(blocks_ + bi, blocks_ + bi + 1, static_cast<size_t>(nblocks_ - bi - 1) * sizeof(Block*));
        std::memmove(bpre_ + bi, bpre_ + bi + 1, static_cast<size_t>(nblocks_ - bi - 1) * sizeof(uint64_t));
        --nblocks_;
    } else if (at == 0 && b->n > 0) {
        bpre_[bi] = b->pre[0];
    }
}

}  // namespace kisam
