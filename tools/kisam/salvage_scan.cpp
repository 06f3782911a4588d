// kisam dump --salvage: the file and its control page, the free list, pass 1 (every page
// by its format) and pass 2 (the segments of each shared page).  See salvage_internal.h.
#include "salvage_internal.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool::salvage {

bool Salvager::setup(std::string* error) {
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

bool Salvager::guess_compact() {
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

bool Salvager::read_page(uint32_t p, unsigned char* b) {
    if (!present(p)) return false;
    ssize_t n = ::pread(fd_, b, kPage, offset(p));
    return n == kPage;
}

void Salvager::walk_free_list() {
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

void Salvager::scan_pages() {
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

void Salvager::damaged(uint32_t p, const std::string& why) {
    rep_.skipped.push_back({p, why + ": its records are lost"});
}

bool Salvager::valid_address(uint32_t a) const {
    const uint32_t low = a & kLow;
    if (a == KISAM_NOPAGE || !is_page(a & ~kLow)) return false;
    return low == 1 || (low % 2 == 0 && low >= 2 && low <= uint32_t(kPage - 4));
}

bool Salvager::free_chunks(const unsigned char* b, SharedPage* sp) {
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

bool Salvager::tree_page(const unsigned char* b, uint32_t p) {
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

bool Salvager::other_tree_page(const unsigned char* b, int k) {
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

bool Salvager::decode(const unsigned char* b, int off, int e, Seg* s) {
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

void Salvager::tile(uint32_t p, SharedPage& sp) {
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

}  // namespace kisam_tool::salvage
