// A process's directory of the leaf pages of one B-tree: each leaf it has come to, filed
// by the first item it held then, so that a search for a key can go straight to the
// leaf that held the keys around it instead of descending from the root.
//
// Only a guess: an entry may name a page that has since split, merged, been freed or
// given to another tree; its user reads the page and checks that it still holds the key
// before relying on it, and drops or refiles an entry that misled it.  So the directory
// may hold anything without harm to what a read returns -- only to what it costs.
//
// Entries are ordered by their first key (unsigned bytes, klen of them) in blocks of at
// most kBlock, so that filing one moves at most one block's bytes.
//
// Requires: nothing shared; one thread of one process uses a directory.
#pragma once

#include "bt_key.h"
#include "layout.h"

#include <cstddef>
#include <cstdint>

namespace kisam {

// Where a leaf was found: its page and the pool slot that held it (-1: read from the
// file), with that slot's load stamp then.
struct LeafRef {
    PAGE pno;
    int32_t slot;
    uint32_t stamp;
};

class LeafDir {
public:
    static constexpr int kMaxKey = 64;
    static constexpr int kBlock = 64;
    // Entries at most: past it the directory starts again, empty.
    static constexpr size_t kMaxEntries = size_t{1} << 18;

    LeafDir() = default;
    LeafDir(const LeafDir&) = delete;
    LeafDir& operator=(const LeafDir&) = delete;
    ~LeafDir() { release(); }

    // Empties the directory and sets its key length; false (and unusable) for a length
    // outside 1..kMaxKey.
    bool reset(int klen) noexcept;
    int klen() const noexcept { return klen_; }
    size_t size() const noexcept { return count_; }

    // The entry with the greatest first key <= key, or null.  The pointer is good until
    // the next change.
    LeafRef* floor(const char* key) noexcept;
    // Whether the first key of the entry the last floor found is key; its first key.
    bool found_is(const char* key) const noexcept;
    void found_key(char* out) const noexcept;
    // Files ref under first key lo, replacing the entry of an equal first key.  Quietly
    // does nothing when memory runs out.
    void put(const char* lo, const LeafRef& ref) noexcept;
    // Removes the entry of first key lo, if any.
    void drop(const char* lo) noexcept;
    void clear() noexcept;

private:
    // A key as the directory compares it: its first 8 bytes as a big-endian integer (so
    // that integer order is byte order), and the bytes after them.
    struct Key {
        uint64_t pre;
        const char* rest;
    };
    // An entry: the first 8 bytes of its key in pre[i], its ref and the rest of its key
    // at body + i * stride_.
    struct Block {
        int n;
        uint64_t pre[kBlock];
        char body[1];
    };
    void release() noexcept;
    Key key_of(const char* k) const noexcept;
    int cmp(const Key& a, uint64_t pre, const char* body) const noexcept {
        if (a.pre != pre) return a.pre < pre ? -1 : 1;
        return rlen_ ? key_cmp(a.rest, body + sizeof(LeafRef), rlen_) : 0;
    }
    char* body(Block* b, int i) const noexcept { return b->body + static_cast<size_t>(i) * stride_; }
    const char* body(const Block* b, int i) const noexcept { return b->body + static_cast<size_t>(i) * stride_; }
    // The last block whose first key is <= k, or 0.
    int block_of(const Key& k) const noexcept;
    // In block b: the number of entries whose first key is < k (le false) or <= k.
    int rank(const Block* b, const Key& k, bool le) const noexcept;
    Block* new_block() noexcept;
    bool add_block(int at, Block* b) noexcept;

    int klen_ = 0;
    size_t rlen_ = 0;    // key bytes after the first 8
    size_t stride_ = 0;  // a ref and the rest of a key, rounded to the ref's alignment
    Block** blocks_ = nullptr;
    int nblocks_ = 0, capblocks_ = 0;
    size_t count_ = 0;
    // The first key of each block as the key is assembled, kept beside the blocks so
    // that the search among blocks reads one array.
    uint64_t* bpre_ = nullptr;
    const Block* fb_ = nullptr;  // where the last floor found its entry
    int fi_ = 0;
};

}  // namespace kisam
