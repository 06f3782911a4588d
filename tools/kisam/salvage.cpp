// kisam dump --salvage: see salvage.h.
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
#include "salvage.h"

#include "tool.h"

#include <kisam/isamdb.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool {
namespace {

constexpr int kPage = KISAM_PAGESIZE;
constexpr uint32_t kLow = 0x3FF;
constexpr int kOverflowData = 1016;
// Longest chain of overflow pages a record can have: 64 full pages and a tail.
constexpr int kMaxOverflow = KISAM_MAXREC / kOverflowData;
constexpr int kShortest = 1020;   // records up to this length live in one shared page

uint16_t u16(const unsigned char* b, int off) {
    uint16_t v;
    std::memcpy(&v, b + off, 2);
    return v;
}
int16_t s16(const unsigned char* b, int off) { return static_cast<int16_t>(u16(b, off)); }
uint32_t u32(const unsigned char* b, int off) {
    uint32_t v;
    std::memcpy(&v, b + off, 4);
    return v;
}

std::string hexaddr(uint32_t a) {
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

    bool run(std::vector<std::string>* out, std::string* error) {
        struct stat st;
        if (::fstat(fd_, &st) != 0) {
            *error = std::strerror(errno);
            return false;
        }
        fsize_ = st.st_size;
        if (!setup(error)) return false;
        if (have_cp_) walk_free_list();
        scan_pages();
        for (auto& [p, sp] : shared_) tile(p, sp);
        if (g_interrupted) return stopped(error);
        read_tree();
        collect_overflow();
        collect_heads();
        if (g_interrupted) return stopped(error);
        decide(out);
        return true;
    }

private:
    static bool stopped(std::string* error) {
        *error = "interrupted";
        return false;
    }

    // ---- the file and its control page ------------------------------------------------------

    bool setup(std::string* error) {
        ControlPage cp;
        std::string err;
        if (read_control_page(fd_, cp, err)) {
            if (cp.nkeys < 1) err = "the control page gives no keys";
            for (int i = 0; err.empty() && i < cp.nkeys; ++i) {
                const KeyDesc& k = cp.keys[size_t(i)];
                const int even = k.keylen + (k.keylen & 1);
                if (k.keylen < 1 || k.keylen > 500 || k.offset != even)
                    err = "the key descriptor of key " + std::to_string(i) + " is damaged";
                else if (i == 0 && k.itemlen != even + 4)
                    err = "the key descriptor of key 0 is damaged";
            }
            if (err.empty() && (cp.lastpage % kPage != 0 || cp.lastpage < uint32_t(kPage)))
                err = "its end of file (is_lastpage " + std::to_string(cp.lastpage) + ") is damaged";
        }
        if (err.empty()) {
            have_cp_ = true;
            cp_ = cp;
            compact_ = cp.small_header();
            for (const KeyDesc& k : cp.keys) rep_.keylens.push_back(k.keylen);
            rep_.key_in_index = (cp.optbits & ISO_KEYOPT) != 0;
        } else {
            rep_.control_error = err;
        }
        const bool same = have_cp_ && opt_.keylens == rep_.keylens && opt_.key_in_index == rep_.key_in_index;
        if (!opt_.keylens.empty() && !same) {
            rep_.keys_given = true;
            rep_.keylens = opt_.keylens;
            rep_.key_in_index = opt_.key_in_index;
        }
        if (rep_.keylens.empty()) {
            *error = "the control page cannot be read (" + rep_.control_error +
                     "), so the key lengths are unknown: give them with --keys L0,L1,... (and --key-in-index if "
                     "the file keeps key 0 in its index only)";
            return false;
        }
        if (!have_cp_) compact_ = guess_compact();
        l0_ = rep_.keylens[0];
        itemlen_ = l0_ + (l0_ & 1) + 4;
        order_ = (kPage - 8) / (itemlen_ + 4);
        for (int l : rep_.keylens) minrec_ += l;
        keyopt_ = rep_.key_in_index;

        // Pages lie from 1024 on; the last whole one ends at or before the end of the file.
        const long long first = offset(kPage);
        const long long whole = fsize_ > first ? (fsize_ - first) / kPage : 0;
        rep_.partial_page = fsize_ > first && (fsize_ - first) % kPage != 0;
        end_ = uint32_t(std::min<long long>(kPage + whole * kPage, 0xFFFFFC00LL));
        if (have_cp_) {
            if (cp_.lastpage > end_) rep_.truncated = true;
            if (end_ > cp_.lastpage) {
                rep_.beyond_last = long((end_ - cp_.lastpage) / kPage);
                end_ = cp_.lastpage;
            }
        }
        return true;
    }

    // Without a control page: the layout whose page starts hold more known page words.
    bool guess_compact() {
        unsigned char b[2];
        if (::pread(fd_, b, 2, 0) == 2 && (u16(b, 0) == ISMAGIC_512 || u16(b, 0) == ISMAGIC_OLD512)) return true;
        if (::pread(fd_, b, 2, 0) == 2 && (u16(b, 0) == ISMAGIC_1024 || u16(b, 0) == ISMAGIC_OLD1024)) return false;
        long score[2] = {0, 0};
        for (int c = 0; c < 2; ++c)
            for (long long off = c ? 512 : 1024, n = 0; off + 2 <= fsize_ && n < 4096; off += kPage, ++n)
                if (::pread(fd_, b, 2, off) == 2) {
                    const uint16_t w = u16(b, 0);
                    if (w == 0x8001 || w == 0xFFFE || (w & 0x8000 && (w & 0x7FFF) < kPage) ||
                        w < KISAM_MAXKEYS)
                        ++score[c];
                }
        return score[1] > score[0];
    }

    long long offset(uint32_t p) const { return compact_ ? static_cast<long long>(p) - 512 : p; }
    bool is_page(uint32_t p) const { return p >= uint32_t(kPage) && p % kPage == 0 && p != KISAM_NOPAGE; }
    bool present(uint32_t p) const { return is_page(p) && p < end_; }

    bool read_page(uint32_t p, unsigned char* b) {
        if (!present(p)) return false;
        ssize_t n = ::pread(fd_, b, kPage, offset(p));
        return n == kPage;
    }

    // ---- free pages --------------------------------------------------------------------------

    void walk_free_list() {
        unsigned char b[kPage];
        uint32_t p = cp_.nextfree;
        const long limit = long(cp_.lastpage / kPage);
        for (long n = 0; p != cp_.lastpage; ++n) {
            if (!is_page(p) || p > cp_.lastpage || n > limit) {
                rep_.free_list_error = "it leads to " + hexaddr(p) + ", which is not a page of the file";
                return;
            }
            if (!present(p)) {
                rep_.free_list_error = "it leads to page " + std::to_string(p) + ", past the end of the file";
                return;
            }
            if (!read_page(p, b) || s16(b, 0) != -2) {
                rep_.free_list_error = "page " + std::to_string(p) + " on it is not marked free";
                return;
            }
            if (!free_.insert(p).second) {
                rep_.free_list_error = "it runs in a circle at page " + std::to_string(p);
                return;
            }
            p = u32(b, 4);
        }
    }

    // ---- pass 1: every page by its format -------------------------------------------------------

    void scan_pages() {
        unsigned char b[kPage];
        for (uint32_t p = kPage; p < end_ && !g_interrupted; p += kPage) {
            if (free_.count(p)) {
                ++rep_.free_pages;
                continue;
            }
            if (!read_page(p, b)) {   // an I/O error: the pages after it may still be read
                rep_.skipped.push_back({p, std::string("the page cannot be read: ") + std::strerror(errno)});
                continue;
            }
            ++rep_.pages_read;
            const uint16_t w = u16(b, 0);
            if (w == 0x8001) {
                const int segx = u16(b, 2);
                const uint32_t link = u32(b, 4);
                if (segx >= 1 && segx <= kMaxOverflow && valid_address(link)) {
                    ovf_[p] = {segx, link};
                    ++rep_.overflow_pages;
                    if ((link & kLow) != 1) anchor(link);
                } else {
                    ++rep_.damaged_pages;
                    damaged(p, "overflow page with an impossible place or link");
                }
            } else if (w == 0xFFFE) {
                ++rep_.free_pages;
            } else if (w & 0x8000) {
                SharedPage sp;
                if (free_chunks(b, &sp)) {
                    shared_[p] = std::move(sp);
                    ++rep_.data_pages;
                } else {
                    ++rep_.damaged_pages;
                    damaged(p, "data page whose free list is damaged");
                }
            } else if (w == 0 && tree_page(b, p)) {
                ++rep_.index_pages;
            } else if (w < rep_.keylens.size() && other_tree_page(b, int(w))) {
                ++rep_.other_pages;
            } else {
                ++rep_.other_pages;
            }
        }
    }

    void damaged(uint32_t p, const std::string& why) {
        rep_.skipped.push_back({p, why + ": its records are lost"});
    }

    // A record address that can lead somewhere: an overflow page + 1, or an even offset
    // of 2 .. 1020 in a page.
    bool valid_address(uint32_t a) const {
        const uint32_t low = a & kLow;
        if (a == KISAM_NOPAGE || !is_page(a & ~kLow)) return false;
        return low == 1 || (low % 2 == 0 && low >= 2 && low <= uint32_t(kPage - 4));
    }

    void anchor(uint32_t a) { anchors_[a & ~kLow].insert(int(a & kLow)); }

    // The free list of a shared page: ascending, inside the body, without overlaps.
    bool free_chunks(const unsigned char* b, SharedPage* sp) {
        const uint16_t w = u16(b, 0);
        int end = 2, total = 0;
        for (int c = w & 0x7FFF, n = 0; c != 0; c = s16(b, c)) {
            if ((c & 1) || c < end || c > kPage - 4 || ++n > kPage / 4) return false;
            const int a = s16(b, c + 2);
            if (a < 4 || (a & 1) || c + a > kPage) return false;
            sp->free.emplace_back(c, a);
            total += a;
            end = c + a;
        }
        // An empty page is given back at once; one that claims so is not a live page.
        return total <= kShortest - 1;
    }

    bool tree_page(const unsigned char* b, uint32_t p) {
        const int n = s16(b, 2);
        if (n < 1 || n > order_) return false;
        TreePage t;
        const uint32_t p0 = u32(b, 4);
        t.leaf = p0 == KISAM_NOPAGE;
        if (!t.leaf) t.child.push_back(p0);
        const int even = l0_ + (l0_ & 1);
        for (int i = 0; i < n; ++i) {
            const int at = 8 + i * (itemlen_ + 4);
            std::string key(reinterpret_cast<const char*>(b + at), size_t(l0_));
            if (!t.keys.empty() && key <= t.keys.back()) return false;
            t.keys.push_back(std::move(key));
            t.addrs.push_back(u32(b, at + even));
            const uint32_t ptr = u32(b, at + itemlen_);
            if (t.leaf ? ptr != KISAM_NOPAGE : !is_page(ptr)) return false;
            if (!t.leaf) t.child.push_back(ptr);
        }
        for (uint32_t a : t.addrs)
            if (a != KISAM_NOPAGE && valid_address(a) && (a & kLow) != 1) anchor(a);
        tree_[p] = std::move(t);
        return true;
    }

    // A tree page of another key: its items (key value, key 0 value) can vouch for a
    // record that the key-0 tree lost in a cut file.
    bool other_tree_page(const unsigned char* b, int k) {
        const int lk = rep_.keylens[size_t(k)];
        const int off = lk + (lk & 1), itemlen = off + l0_ + (l0_ & 1);
        const int n = s16(b, 2);
        if (n < 1 || n > (kPage - 8) / (itemlen + 4)) return false;
        std::vector<std::string> items;
        for (int i = 0; i < n; ++i) {
            const char* at = reinterpret_cast<const char*>(b + 8 + i * (itemlen + 4));
            std::string item(1, char(k));
            item.append(at, size_t(lk));
            item.append(at + off, size_t(l0_));
            if (!items.empty() && item <= items.back()) return false;
            items.push_back(std::move(item));
        }
        for (std::string& it : items) other_items_.insert(std::move(it));
        return true;
    }

    // True when another key's tree holds the record's items.
    bool vouched_by_other_key(const std::string& rec) const {
        size_t pos = size_t(l0_);
        bool any = false;
        for (size_t k = 1; k < rep_.keylens.size(); ++k) {
            const size_t lk = size_t(rep_.keylens[k]);
            std::string item(1, char(k));
            item.append(rec, pos, lk);
            item.append(rec, 0, size_t(l0_));
            if (!other_items_.count(item)) return false;
            any = true;
            pos += lk;
        }
        return any;
    }

    // ---- pass 2: the segments of a shared page -----------------------------------------------------

    // The segment at off, if its header is one this library writes and it ends by e.
    static bool decode(const unsigned char* b, int off, int e, Seg* s) {
        const uint16_t w = u16(b, off);
        if (!(w & 0x8000)) return false;   // the compact form is never written
        s->off = off;
        s->len = w & 0x3FF;
        if (w & 0x4000) {
            if (w & 0x3000) return false;
            s->hdr = 3;
            s->next = ((w >> 2) & 0x300) + b[off + 2];
            if (s->next == 0 || (s->next & 1) || s->next < 2 || s->next > kPage - 4) return false;
        } else {
            if (w & 0x3C00) return false;
            s->hdr = 2;
            s->next = 0;
        }
        if (s->len < 1) return false;
        s->size = std::max(4, (s->len + s->hdr + 1) & ~1);
        return off + s->size <= e;
    }

    void tile(uint32_t p, SharedPage& sp) {
        unsigned char b[kPage];
        if (!read_page(p, b)) return;
        std::set<int> fixed = anchors_.count(p) ? anchors_[p] : std::set<int>();
        std::vector<std::pair<int, int>> used;   // the regions between free chunks
        int at = 2;
        for (auto [c, a] : sp.free) {
            if (c > at) used.emplace_back(at, c);
            at = c + a;
        }
        if (at < kPage) used.emplace_back(at, kPage);
        for (int pass = 0; pass < 3; ++pass) {
            sp.segs.clear();
            for (auto [a, e] : used) {
                for (int o = a; o + 4 <= e;) {
                    Seg s;
                    if (decode(b, o, e, &s)) {
                        // A place something points to is taken as a segment; elsewhere a
                        // segment may not cover such a place, which would be slack read
                        // as a header hiding the pieces behind it.
                        auto it = fixed.upper_bound(o);
                        if (fixed.count(o) || it == fixed.end() || *it >= o + s.size) {
                            sp.segs.push_back(s);
                            o += s.size;
                            continue;
                        }
                    }
                    o += 2;   // slack
                }
            }
            // Continued segments name their next pieces, which become fixed places too: a
            // piece named but hidden behind slack read as a segment is found again.
            bool again = false;
            for (const Seg& s : sp.segs)
                if (s.next && fixed.insert(s.next).second) again = true;
            if (!again) break;
        }
    }

    // ---- pass 3: records ------------------------------------------------------------------------

    // The pieces of one record in shared page p from offset off; false with *why.
    bool follow(uint32_t p, int off, const unsigned char* b, std::string* out, std::string* why) {
        const SharedPage& sp = shared_.at(p);
        int prev = 0;
        for (int n = 0;; ++n) {
            const Seg* s = sp.at(off);
            if (!s) {
                *why = "no segment at offset " + std::to_string(off);
                return false;
            }
            if (off <= prev || n > kPage / 4) {
                *why = "its pieces run backwards at offset " + std::to_string(off);
                return false;
            }
            if (in_refs(p, off) > 1) {
                *why = "two pieces lead to the segment at offset " + std::to_string(off);
                return false;
            }
            out->append(reinterpret_cast<const char*>(b + off + s->hdr), size_t(s->len));
            if (!s->next) return true;
            prev = off;
            off = s->next;
        }
    }

    void collect_overflow() {
        // Every link counts as a reference, whether or not its chain is whole: the tail
        // of a chain that lost its first pages is no record of its own.
        for (auto& [p, sp] : shared_)
            for (const Seg& s : sp.segs)
                if (s.next) ++refs_[p][s.next];
        for (auto& [p, ov] : ovf_) {
            if ((ov.link & kLow) != 1) ++tail_refs_[ov.link & ~kLow][int(ov.link & kLow)];
            else ++ovf_in_[ov.link - 1];
        }

        unsigned char b[kPage];
        std::set<uint32_t> reached;
        for (auto& [first, ov0] : ovf_) {
            if (ov0.segx != 1) continue;
            std::string data, why;
            uint32_t cur = first;
            int segx = 1;
            std::set<uint32_t> seen;
            while (why.empty()) {
                seen.insert(cur);
                reached.insert(cur);
                if (!read_page(cur, b)) {
                    why = "overflow page " + std::to_string(cur) + " cannot be read";
                    break;
                }
                data.append(reinterpret_cast<const char*>(b + 8), kOverflowData);
                const uint32_t link = ovf_[cur].link;
                if ((link & kLow) == 1) {
                    const uint32_t nx = link - 1;
                    auto it = ovf_.find(nx);
                    if (!present(nx))
                        why = "overflow page " + std::to_string(cur) + " leads to page " + std::to_string(nx) +
                              ", past the end of the file";
                    else if (it == ovf_.end())
                        why = "overflow page " + std::to_string(cur) + " leads to page " + std::to_string(nx) +
                              ", which is no overflow page";
                    else if (it->second.segx != segx + 1 || seen.count(nx))
                        why = "overflow page " + std::to_string(cur) + " (part " + std::to_string(segx) +
                              ") leads to page " + std::to_string(nx) + " (part " +
                              std::to_string(it->second.segx) + ")";
                    else if (ovf_in_[nx] > 1)
                        why = "two overflow pages lead to page " + std::to_string(nx);
                    else {
                        cur = nx;
                        ++segx;
                    }
                    continue;
                }
                const uint32_t tp = link & ~kLow;
                const int off = int(link & kLow);
                unsigned char tb[kPage];
                std::string tail;
                if (!shared_.count(tp) || !read_page(tp, tb)) {
                    why = "its tail page " + std::to_string(tp) +
                          (present(tp) ? " is no readable data page" : " lies past the end of the file");
                } else if (in_refs(tp, off) || item_addrs_.count(link)) {
                    // A piece that another segment continues into, or the start of a
                    // record the index knows, is no tail: the link is damaged.
                    why = "its tail link " + hexaddr(link) + " leads into another record";
                } else if (tail_refs_[tp][off] > 1) {
                    why = "two overflow chains end at " + hexaddr(link);
                } else if (!follow(tp, off, tb, &tail, &why)) {
                    why = "its tail in page " + std::to_string(tp) + ": " + why;
                } else if (tail.empty() || tail.size() > size_t(kOverflowData) ||
                           data.size() + tail.size() <= size_t(kShortest) ||
                           data.size() + tail.size() > size_t(KISAM_MAXREC)) {
                    why = std::to_string(segx) + " overflow pages and a tail of " + std::to_string(tail.size()) +
                          " bytes make no record";
                } else {
                    cands_.push_back({first + 1, data + tail});
                    break;
                }
            }
            if (!why.empty()) lost(first, first + 1, "record from overflow page " + std::to_string(first) + ": " + why);
        }
        // Overflow pages no first page leads to: what is left of records whose front is lost.
        std::set<uint32_t> targets;
        for (auto& [p, ov] : ovf_)
            if ((ov.link & kLow) == 1 && !reached.count(p)) targets.insert(ov.link - 1);
        for (auto& [p, ov] : ovf_) {
            if (reached.count(p) || targets.count(p)) continue;
            lost(p, KISAM_NOPAGE, "overflow page " + std::to_string(p) + " is part " + std::to_string(ov.segx) +
                                      " of a record whose first pages are lost");
            for (uint32_t q = p; ovf_.count(q) && reached.insert(q).second && (ovf_[q].link & kLow) == 1;)
                q = ovf_[q].link - 1;
        }
    }

    void collect_heads() {
        unsigned char b[kPage];
        for (auto& [p, sp] : shared_) {
            if (!read_page(p, b)) continue;
            for (const Seg& s : sp.segs) {
                // A later piece, or an overflow chain's tail -- unless the index says a
                // record starts here, when the link that leads to it is the damaged one.
                if (in_refs(p, s.off)) continue;
                if (tail_refs_[p].count(s.off) && !item_addrs_.count(p + uint32_t(s.off))) continue;
                std::string data, why;
                if (!follow(p, s.off, b, &data, &why)) {
                    lost(p, p + uint32_t(s.off), "record at offset " + std::to_string(s.off) + ": " + why);
                } else if (data.size() > size_t(kShortest)) {
                    lost(p, p + uint32_t(s.off), "record at offset " + std::to_string(s.off) + " is " +
                                                     std::to_string(data.size()) + " bytes, too long for one page");
                } else {
                    cands_.push_back({p + uint32_t(s.off), std::move(data)});
                }
            }
        }
    }

    int in_refs(uint32_t p, int off) {
        auto it = refs_.find(p);
        if (it == refs_.end()) return 0;
        auto jt = it->second.find(off);
        return jt == it->second.end() ? 0 : jt->second;
    }

    // A record found in part: reported, and its address remembered so that an index item
    // leading to it is not reported a second time.
    void lost(uint32_t page, uint32_t addr, const std::string& why) {
        rep_.skipped.push_back({page & ~kLow, why});
        if (addr != KISAM_NOPAGE) lost_addrs_.insert(addr);
    }

    // ---- the key-0 tree ----------------------------------------------------------------------------

    void read_tree() {
        if (!have_cp_ || rep_.keys_given) {
            uncertain_.push_back({});
        } else if (cp_.keys[0].root != KISAM_NOPAGE) {
            std::set<uint32_t> seen;
            walk(cp_.keys[0].root, {}, 0, seen);
        }
        // Pages of key 0 that the walk did not reach still tell live records.
        for (auto& [p, t] : tree_)
            for (size_t i = 0; i < t.keys.size(); ++i) known_.emplace(t.keys[i], t.addrs[i]);
        rep_.index_whole = uncertain_.empty();
        // The ranges are disjoint (each is a subtree's, or the whole key space alone), so
        // in rising order of their lower bounds one binary search finds a key's range.
        std::sort(uncertain_.begin(), uncertain_.end(), [](const Range& a, const Range& b) {
            return !b.lo ? false : !a.lo || *a.lo < *b.lo;
        });
        for (auto& [k, a] : known_) item_addrs_.insert(a);
    }

    void walk(uint32_t p, Range r, int depth, std::set<uint32_t>& seen) {
        auto it = tree_.find(p);
        if (depth > 32 || it == tree_.end() || !seen.insert(p).second) {
            uncertain_.push_back(r);
            return;
        }
        const TreePage& t = it->second;
        for (size_t i = 0; i < t.keys.size(); ++i) {
            if (!r.holds(t.keys[i])) {   // out of order with its parent: trust none of it
                uncertain_.push_back(r);
                return;
            }
        }
        for (size_t i = 0; i < t.keys.size(); ++i) known_.emplace(t.keys[i], t.addrs[i]);
        if (t.leaf) return;
        for (size_t i = 0; i < t.child.size(); ++i) {
            Range c;
            c.lo = i == 0 ? r.lo : std::optional<std::string>(t.keys[i - 1]);
            c.hi = i == t.keys.size() ? r.hi : std::optional<std::string>(t.keys[i]);
            walk(t.child[i], c, depth + 1, seen);
        }
    }

    bool in_doubt(const std::string& key) const {
        // The last range whose lower bound lies below the key is the only one that can hold it.
        auto it = std::partition_point(uncertain_.begin(), uncertain_.end(),
                                       [&](const Range& r) { return !r.lo || *r.lo < key; });
        return it != uncertain_.begin() && std::prev(it)->holds(key);
    }

    // ---- what is written ---------------------------------------------------------------------------

    struct Out {
        std::string rec;
        bool confirmed;
        uint32_t addr;
    };

    void decide(std::vector<std::string>* out) {
        std::map<uint32_t, std::string> by_addr;   // index items, by record address
        for (auto& [k, a] : known_) by_addr.emplace(a, k);
        std::vector<Out> recs;
        std::set<uint32_t> found;
        for (Candidate& c : cands_) {
            const uint32_t page = c.addr & ~kLow;
            const std::string at = (c.addr & kLow) == 1 ? "record from overflow page " + std::to_string(page)
                                                        : "record at offset " + std::to_string(c.addr & kLow);
            auto item = by_addr.find(c.addr);
            found.insert(c.addr);
            if (keyopt_) {
                if (item == by_addr.end()) {
                    rep_.skipped.push_back({page, at + ": no key-0 index item leads to it, so its key is lost"});
                    continue;
                }
                std::string rec = item->second + c.data;
                if (rec.size() < size_t(minrec_) || rec.size() > size_t(KISAM_MAXREC)) {
                    rep_.skipped.push_back({page, at + ": " + std::to_string(rec.size()) +
                                                      " bytes with its key, outside the record lengths of the file"});
                    continue;
                }
                recs.push_back({std::move(rec), true, c.addr});
                continue;
            }
            if (c.data.size() < size_t(minrec_)) {
                rep_.skipped.push_back({page, at + ": " + std::to_string(c.data.size()) +
                                                  " bytes, shorter than the keys (" + std::to_string(minrec_) + ")"});
                continue;
            }
            const std::string key = c.data.substr(0, size_t(l0_));
            if (item != by_addr.end()) {
                if (item->second != key) {
                    rep_.skipped.push_back({page, at + ": the key-0 index gives it another key 0 value"});
                    continue;
                }
                recs.push_back({std::move(c.data), true, c.addr});
                continue;
            }
            auto same = known_.find(key);
            if (same != known_.end()) {
                rep_.skipped.push_back({page, at + ": its key 0 value belongs to the record at " +
                                                  hexaddr(same->second) + " (an old piece)"});
            } else if (in_doubt(key) && rep_.truncated && (c.addr & kLow) != 1 && vouched_by_other_key(c.data)) {
                recs.push_back({std::move(c.data), true, c.addr});
            } else if (in_doubt(key) && rep_.truncated && (c.addr & kLow) != 1) {
                // The pages past the cut may have held the front of a longer record
                // whose tail this is: nothing tells the two apart, so it is not written.
                // A record that begins with the first of its overflow pages is whole, and
                // one that every other key's tree holds is live.
                rep_.skipped.push_back({page, at + ": not confirmed by the key-0 index, and the file is cut short "
                                                  "(it may be the tail of a record whose front is lost)"});
            } else if (in_doubt(key)) {
                recs.push_back({std::move(c.data), false, c.addr});
            } else {
                rep_.skipped.push_back({page, at + ": not in the key-0 index (a released or orphaned piece)"});
            }
        }
        // Index items whose record was not found at all.
        for (auto& [k, a] : known_) {
            if (a == KISAM_NOPAGE && keyopt_) {
                if (int(k.size()) >= minrec_) recs.push_back({k, true, a});
                else rep_.skipped.push_back({0, "the key-0 index holds a record without data that is too short"});
                continue;
            }
            if (found.count(a) || lost_addrs_.count(a)) continue;
            rep_.skipped.push_back({valid_address(a) ? a & ~kLow : 0,
                                    "the key-0 index leads to " + hexaddr(a) + ", where no record was found"});
        }
        // One record per key 0 value: a piece the index vouches for wins; two that nobody
        // vouches for are both left out.
        std::stable_sort(recs.begin(), recs.end(), [&](const Out& a, const Out& b) {
            return std::memcmp(a.rec.data(), b.rec.data(), size_t(l0_)) < 0;
        });
        for (size_t i = 0; i < recs.size();) {
            size_t j = i + 1;
            while (j < recs.size() && std::memcmp(recs[i].rec.data(), recs[j].rec.data(), size_t(l0_)) == 0) ++j;
            int sure = 0;
            for (size_t k = i; k < j; ++k) sure += recs[k].confirmed;
            for (size_t k = i; k < j; ++k) {
                if (j - i == 1 || (sure == 1 && recs[k].confirmed)) {
                    if (!recs[k].confirmed) ++rep_.unconfirmed;
                    out->push_back(std::move(recs[k].rec));
                } else {
                    rep_.skipped.push_back({recs[k].addr & ~kLow, "record at " + hexaddr(recs[k].addr) +
                                                                      ": another record has the same key 0 value"});
                }
            }
            i = j;
        }
        rep_.records = long(out->size());
    }

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

}  // namespace

bool salvage_file(int fd, const SalvageOptions& opt, std::vector<std::string>* records, SalvageReport* report,
                  std::string* error) {
    *report = SalvageReport();
    records->clear();
    Salvager s(fd, opt, *report);
    return s.run(records, error);
}

int salvage_dump(const std::string& file, const std::string& output, const SalvageOptions& opt) {
    int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) return fail("dump", file + ": " + std::strerror(errno));
    std::vector<std::string> recs;
    SalvageReport rep;
    std::string err;
    const bool ok = salvage_file(fd, opt, &recs, &rep, &err);
    ::close(fd);
    if (!ok && g_interrupted) return interrupted("dump", "; nothing was written");
    if (!ok) return fail("dump", file + ": " + err);

    std::string keys;
    for (size_t i = 0; i < rep.keylens.size(); ++i) keys += (i ? "," : "") + std::to_string(rep.keylens[i]);
    DumpWriter out;
    if (!out.open(output, rep.keylens, rep.key_in_index)) return EXIT_FAIL;
    for (const std::string& r : recs)
        if (!out.record(r)) break;
    if (const int wrc = out.finish(true); wrc != EXIT_OK) return wrc;

    // The report: what was read, what is in doubt, what was left out and why.
    progress_clear();
    const char* f = file.c_str();
    if (!rep.control_error.empty())
        std::fprintf(stderr, "kisam dump: %s: the control page is damaged (%s); keys %s%s from --keys\n", f,
                     rep.control_error.c_str(), keys.c_str(), rep.key_in_index ? " key-in-index" : "");
    else if (rep.keys_given)
        std::fprintf(stderr, "kisam dump: %s: keys %s taken from --keys, not from the control page\n", f, keys.c_str());
    if (rep.truncated) std::fprintf(stderr, "kisam dump: %s: the file is cut short of its last page\n", f);
    if (rep.partial_page) std::fprintf(stderr, "kisam dump: %s: the file ends inside a page; that page is not read\n", f);
    if (rep.beyond_last)
        std::fprintf(stderr, "kisam dump: %s: %ld pages past the file's last page are not read\n", f, rep.beyond_last);
    if (!rep.free_list_error.empty())
        std::fprintf(stderr, "kisam dump: %s: the free page list is damaged: %s\n", f, rep.free_list_error.c_str());
    std::fprintf(stderr,
                 "kisam dump: %s: %ld pages read: %ld data, %ld overflow, %ld key-0 index, %ld free, %ld damaged, "
                 "%ld other\n",
                 f, rep.pages_read, rep.data_pages, rep.overflow_pages, rep.index_pages, rep.free_pages,
                 rep.damaged_pages, rep.other_pages);
    if (!rep.index_whole && rep.unconfirmed)
        std::fprintf(stderr,
                     "kisam dump: %s: the key-0 index cannot be read whole; %ld records were taken from the data "
                     "pages alone\n",
                     f, rep.unconfirmed);
    else if (!rep.index_whole)
        std::fprintf(stderr, "kisam dump: %s: the key-0 index cannot be read whole; its pages that can be read "
                             "vouch for every record written\n", f);
    std::fprintf(stderr, "kisam dump: %s: %ld records written, %zu skipped\n", f, rep.records, rep.skipped.size());
    size_t shown = 0;
    for (const SalvageSkip& s : rep.skipped) {
        if (++shown > 200) {
            std::fprintf(stderr, "kisam dump: %s: ... and %zu more\n", f, rep.skipped.size() - 200);
            break;
        }
        if (s.page) std::fprintf(stderr, "kisam dump: %s: page %u: %s\n", f, s.page, s.reason.c_str());
        else std::fprintf(stderr, "kisam dump: %s: %s\n", f, s.reason.c_str());
    }
    return rep.skipped.empty() ? EXIT_OK : EXIT_FAIL;
}

}  // namespace kisam_tool
