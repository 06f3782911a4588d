// What the pieces of kisam dump --salvage share (salvage.h says what it does).
//
// Three passes over the file, each reading pages with pread only:
//   1. every page once: its kind by format; the free list of a shared page, the place
//      and link of an overflow page, the items of a key-0 tree page;
//   2. every shared page again: its segments, found between the free chunks with the
//      addresses that point into the page (overflow links, key-0 items, continued
//      segments) as fixed points -- a segment that takes a whole chunk can leave a few
//      bytes of slack behind it, whose stale contents must not be read as a segment;
//   3. the records: overflow chains from their first page, then the heads of the
//      shared pages, each followed to its end; then the key-0 tree decides what a
//      record's key is (key-in-index files) and whether a piece is live.
//
// The pieces: salvage_scan.cpp (the control page, the free list, passes 1 and 2),
// salvage_records.cpp (pass 3, the key-0 tree and what is written), salvage.cpp (the
// run, salvage_file and the dump command).
#pragma once

#include "salvage.h"

#include "tool.h"

#include <kisam/isamdb.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kisam_tool::salvage {

constexpr int kPage = KISAM_PAGESIZE;
constexpr uint32_t kLow = 0x3FF;
constexpr int kOverflowData = 1016;
// Longest chain of overflow pages a record can have: 64 full pages and a tail.
constexpr int kMaxOverflow = KISAM_MAXREC / kOverflowData;
constexpr int kShortest = 1020;   // records up to this length live in one shared page

inline uint16_t u16(const unsigned char* b, int off) {
    uint16_t v;
    std::memcpy(&v, b + off, 2);
    return v;
}
inline int16_t s16(const unsigned char* b, int off) { return static_cast<int16_t>(u16(b, off)); }
inline uint32_t u32(const unsigned char* b, int off) {
    uint32_t v;
    std::memcpy(&v, b + off, 4);
    return v;
}

inline std::string hexaddr(uint32_t a) {
    char t[16];
    std::snprintf(t, sizeof t, "0x%08x", a);
    return t;
}

// One segment of a shared page: [off, off + size), data at off + hdr.
struct Seg {
    int off, len, hdr, next, size;
};

struct SharedPage {
    std::vector<std::pair<int, int>> free;   // free chunks: offset, size, ascending
    std::vector<Seg> segs;                   // ascending offset
    const Seg* at(int off) const {
        auto it = std::lower_bound(segs.begin(), segs.end(), off, [](const Seg& s, int o) { return s.off < o; });
        return it != segs.end() && it->off == off ? &*it : nullptr;
    }
};

struct OverflowPage {
    int segx;
    uint32_t link;
};

struct TreePage {
    bool leaf;
    std::vector<uint32_t> child;     // n + 1 pointers (leaf: none)
    std::vector<std::string> keys;   // key 0 values, L0 bytes
    std::vector<uint32_t> addrs;
};

// A key range (lo, hi), open at both ends; an absent bound is unbounded.
struct Range {
    std::optional<std::string> lo, hi;
    bool holds(const std::string& k) const { return (!lo || k > *lo) && (!hi || k < *hi); }
};

struct Candidate {
    uint32_t addr;   // record address: first overflow page + 1, or shared page + offset
    std::string data;
};

class Salvager {
public:
    Salvager(int fd, const SalvageOptions& opt, SalvageReport& rep) : fd_(fd), opt_(opt), rep_(rep) {}

    bool run(std::vector<std::string>* out, std::string* error);

private:
    static bool stopped(std::string* error);

    // ---- the file and its control page ------------------------------------------------------

    bool setup(std::string* error);

    // Without a control page: the layout whose page starts hold more known page words.
    bool guess_compact();

    long long offset(uint32_t p) const { return compact_ ? static_cast<long long>(p) - 512 : p; }
    bool is_page(uint32_t p) const { return p >= uint32_t(kPage) && p % kPage == 0 && p != KISAM_NOPAGE; }
    bool present(uint32_t p) const { return is_page(p) && p < end_; }

    bool read_page(uint32_t p, unsigned char* b);

    // ---- free pages --------------------------------------------------------------------------

    void walk_free_list();

    // ---- pass 1: every page by its format -------------------------------------------------------

    void scan_pages();

    void damaged(uint32_t p, const std::string& why);

    // A record address that can lead somewhere: an overflow page + 1, or an even offset
    // of 2 .. 1020 in a page.
    bool valid_address(uint32_t a) const;

    void anchor(uint32_t a) { anchors_[a & ~kLow].insert(int(a & kLow)); }

    // The free list of a shared page: ascending, inside the body, without overlaps.
    bool free_chunks(const unsigned char* b, SharedPage* sp);

    bool tree_page(const unsigned char* b, uint32_t p);

    // A tree page of another key: its items (key value, key 0 value) can vouch for a
    // record that the key-0 tree lost in a cut file.
    bool other_tree_page(const unsigned char* b, int k);

    // True when another key's tree holds the record's items.
    bool vouched_by_other_key(const std::string& rec) const;

    // ---- pass 2: the segments of a shared page -----------------------------------------------------

    // The segment at off, if its header is one this library writes and it ends by e.
    static bool decode(const unsigned char* b, int off, int e, Seg* s);

    void tile(uint32_t p, SharedPage& sp);

    // ---- pass 3: records ------------------------------------------------------------------------

    // The pieces of one record in shared page p from offset off; false with *why.
    bool follow(uint32_t p, int off, const unsigned char* b, std::string* out, std::string* why);

    void collect_overflow();

    void collect_heads();

    int in_refs(uint32_t p, int off);

    // A record found in part: reported, and its address remembered so that an index item
    // leading to it is not reported a second time.
    void lost(uint32_t page, uint32_t addr, const std::string& why);

    // ---- the key-0 tree ----------------------------------------------------------------------------

    void read_tree();

    void walk(uint32_t p, Range r, int depth, std::set<uint32_t>& seen);

    bool in_doubt(const std::string& key) const;

    // ---- what is written ---------------------------------------------------------------------------

    struct Out {
        std::string rec;
        bool confirmed;
        uint32_t addr;
    };

    void decide(std::vector<std::string>* out);

    int fd_;
    const SalvageOptions& opt_;
    SalvageReport& rep_;
    long long fsize_ = 0;
    bool have_cp_ = false;
    ControlPage cp_;
    bool compact_ = false;
    uint32_t end_ = kPage;   // pages below this are read
    int l0_ = 0, itemlen_ = 0, order_ = 0, minrec_ = 0;
    bool keyopt_ = false;
    std::set<uint32_t> free_;
    std::map<uint32_t, SharedPage> shared_;
    std::map<uint32_t, OverflowPage> ovf_;
    std::map<uint32_t, TreePage> tree_;
    std::map<uint32_t, std::set<int>> anchors_;
    std::map<uint32_t, std::map<int, int>> refs_;        // continued segments into a piece
    std::map<uint32_t, std::map<int, int>> tail_refs_;   // overflow links into a piece
    std::map<uint32_t, int> ovf_in_;                     // overflow links into an overflow page
    std::set<uint32_t> item_addrs_;                      // record addresses the key-0 tree gives
    std::set<std::string> other_items_;                  // key number, key value, key 0 value
    std::vector<Candidate> cands_;
    std::set<uint32_t> lost_addrs_;
    std::map<std::string, uint32_t> known_;   // key 0 value -> record address, from the tree
    std::vector<Range> uncertain_;
};

}  // namespace kisam_tool::salvage
