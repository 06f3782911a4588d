// Data-page check of the structural checker.
//
// Follows every record address of key 0 through its overflow chain to its segments in a
// shared page, then checks each shared page as a whole: the free list is well formed,
// segments and free chunks lie in the body without overlapping (slack between them),
// and the free-space table agrees with the pages' free totals.  Finally every index
// must reach exactly the records of key 0: the items of each other key are the
// records' key values paired with their key 0 values, no more and no fewer.
#include "kcheck.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

namespace kisam::check {

namespace {

constexpr PAGE kLow = 0x3FF;
constexpr int kOverflowData = 1016;


uint16_t u16(const IS_DATA& d, int off) {
    uint16_t v;
    std::memcpy(&v, d.c + off, 2);
    return v;
}
int16_t s16(const IS_DATA& d, int off) {
    int16_t v;
    std::memcpy(&v, d.c + off, 2);
    return v;
}
uint32_t u32(const IS_DATA& d, int off) {
    uint32_t v;
    std::memcpy(&v, d.c + off, 4);
    return v;
}

std::string hex(const std::string& s) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : s) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

// One piece of a shared page: a segment or a free chunk, [start, end).
struct Piece {
    int start;
    int end;
    bool segment;
};

class DataCheck {
public:
    DataCheck(const FileImage& img, PageMap& map, Report& rep) : img_(img), map_(map), rep_(rep) {}

    bool run() {
        if (img_.nkeys < 1) return finish_table();
        std::vector<std::vector<std::string>> items(static_cast<size_t>(img_.nkeys));
        for (int k = 0; k < img_.nkeys; ++k) {
            std::string err;
            if (list_items(img_.path, k, &items[static_cast<size_t>(k)], &err) < 0)
                return rep_.fail("data: " + err);
        }
        const IS_KEY& k0 = img_.keys[0];
        const bool keyopt = (img_.optbits & ISO_KEYOPT) != 0;
        std::vector<std::vector<std::string>> expect(static_cast<size_t>(img_.nkeys));

        for (const std::string& it : items[0]) {
            const std::string key0 = it.substr(0, static_cast<size_t>(k0.k_keylen));
            PAGE addr;
            std::memcpy(&addr, it.data() + k0.k_offset, 4);
            // Only the key fields are kept; the length counts the whole record.
            std::string rec = keyopt ? key0 : std::string();
            size_t length = rec.size();
            if (!(keyopt && addr == KISAM_NOPAGE)) {
                std::string data;
                size_t dlen = 0;
                const size_t keep = static_cast<size_t>(img_.minrec) - rec.size();
                if (!fetch(addr, &data, keep, &dlen, key0)) return false;
                rec += data;
                length += dlen;
            }
            if (length < static_cast<size_t>(img_.minrec) || length > KISAM_MAXREC)
                return rep_.fail(fmt("data: record %s is %zu bytes (is_minrec %d)",
                                     hex(key0).c_str(), length, img_.minrec));
            if (rec.compare(0, key0.size(), key0) != 0)
                return rep_.fail("data: record " + hex(key0) + " holds another key 0 value");
            ++rep_.records;

            // The items the other keys must hold for this record.
            size_t pos = static_cast<size_t>(k0.k_keylen);
            for (int k = 1; k < img_.nkeys; ++k) {
                const IS_KEY& kd = img_.keys[static_cast<size_t>(k)];
                std::string item(static_cast<size_t>(kd.k_ncomp), '\0');
                std::memcpy(item.data(), rec.data() + pos, static_cast<size_t>(kd.k_keylen));
                std::memcpy(item.data() + kd.k_offset, key0.data(), key0.size());
                expect[static_cast<size_t>(k)].push_back(std::move(item));
                pos += static_cast<size_t>(kd.k_keylen);
            }
        }

        if (!check_pages()) return false;
        if (!finish_table()) return false;

        for (int k = 1; k < img_.nkeys; ++k) {
            const IS_KEY& kd = img_.keys[static_cast<size_t>(k)];
            auto& want = expect[static_cast<size_t>(k)];
            std::sort(want.begin(), want.end());
            std::vector<std::string> have;
            for (const std::string& it : items[static_cast<size_t>(k)]) {
                std::string c = it.substr(0, static_cast<size_t>(kd.k_ncomp));
                if (kd.k_offset > kd.k_keylen) c[static_cast<size_t>(kd.k_keylen)] = '\0';
                have.push_back(std::move(c));
            }
            if (have != want) return index_mismatch(k, have, want);
        }
        rep_.data_accounted = true;
        return rep_.ok;
    }

private:
    const IS_DATA* page(PAGE p, const char* what) {
        auto it = cache_.find(p);
        if (it != cache_.end()) return &it->second;
        IS_DATA d;
        std::string err;
        if (!img_.read_page(p, &d, &err)) {
            rep_.fail(fmt("data: %s: ", what) + err);
            return nullptr;
        }
        return &cache_.emplace(p, d).first->second;
    }

    // Claims p as a data page; the same shared page may be reached by many records.
    bool claim(PAGE p, bool shared) {
        if (shared && shared_.count(p)) return true;
        PageUse prev;
        if (!map_.claim(p, PageUse::data, -1, &prev))
            return rep_.fail(fmt("data: page %u is a data page and also %s", p, page_use_name(prev)));
        ++rep_.data_pages;
        if (shared) shared_[p];
        return true;
    }

    // Follows the data part of the record at addr, noting its segments: its first `keep`
    // bytes go to *out, its length to *length.
    bool fetch(PAGE addr, std::string* out, size_t keep, size_t* length, const std::string& key0) {
        auto take = [&](const char* p, size_t n) {
            if (out->size() < keep) out->append(p, std::min(n, keep - out->size()));
            *length += n;
        };
        const std::string who = "record " + hex(key0);
        for (int segx = 1; addr != KISAM_NOPAGE && (addr & kLow) == 1; ++segx) {
            const PAGE p = addr - 1;
            if (!img_.valid_page(p))
                return rep_.fail(fmt("data: %s: overflow page %u is not a page of the file",
                                     who.c_str(), p));
            if (segx > KISAM_MAXREC / kOverflowData + 1)
                return rep_.fail("data: " + who + ": overflow chain too long");
            if (!claim(p, false)) return false;
            IS_DATA ov;   // overflow pages are read once: not kept
            std::string err;
            if (!img_.read_page(p, &ov, &err)) return rep_.fail("data: " + who + ": " + err);
            const IS_DATA* d = &ov;
            if (u16(*d, 0) != 0x8001 || u16(*d, 2) != segx)
                return rep_.fail(fmt("data: %s: overflow page %u has magic 0x%04x segx %d, expected "
                                     "0x8001 and %d", who.c_str(), p, u16(*d, 0), u16(*d, 2), segx));
            take(d->c + 8, kOverflowData);
            addr = u32(*d, 4);
        }
        const int s0 = static_cast<int>(addr & kLow);
        const PAGE p = addr & ~kLow;
        if (addr == KISAM_NOPAGE || (s0 & 1) || s0 < 2 || !img_.valid_page(p))
            return rep_.fail(fmt("data: %s: address 0x%08x leads to no shared page", who.c_str(), addr));
        if (!claim(p, true)) return false;
        const IS_DATA* d = page(p, who.c_str());
        if (!d) return false;
        auto& pieces = shared_[p];
        for (int s = s0, n = 0; s != 0; ++n) {
            if (n > kPageSize / 4 || (s & 1) || s < 2 || s > kPageSize - 4)
                return rep_.fail(fmt("data: %s: segment offset %d in page %u", who.c_str(), s, p));
            const uint16_t w = u16(*d, s);
            if ((w & 0x8000) == 0)
                return rep_.fail(fmt("data: %s: compact segment at %d of page %u", who.c_str(), s, p));
            const int len = w & 0x3FF;
            int next = 0, hdr = 2;
            if (w & 0x4000) {
                next = ((w >> 2) & 0x300) + static_cast<unsigned char>(d->c[s + 2]);
                hdr = 3;
            } else if (w & 0x3C00) {
                return rep_.fail(fmt("data: %s: control word 0x%04x at %d of page %u", who.c_str(), w, s, p));
            }
            int size = len + (next != 0 ? 3 : 2);
            size += size & 1;
            size = std::max(size, 4);
            if (s + hdr + len > kPageSize)
                return rep_.fail(fmt("data: %s: segment at %d of page %u runs past the page", who.c_str(), s, p));
            take(d->c + s + hdr, static_cast<size_t>(len));
            pieces.push_back({s, s + size, true});
            s = next;
        }
        return true;
    }

    // Every shared page: free list, tiling, free total.
    bool check_pages() {
        for (auto& [p, pieces] : shared_)
            if (!check_page(p, pieces)) return false;
        return true;
    }

    bool check_page(PAGE p, std::vector<Piece>& pieces) {
        {
            const IS_DATA* d = page(p, "shared page");
            if (!d) return false;
            const uint16_t pw = u16(*d, 0);
            if ((pw & 0x8000) == 0 || pw == 0x8001)
                return rep_.fail(fmt("data: shared page %u: page word 0x%04x", p, pw));
            int total = 0, n = 0;
            for (int c = pw & 0x7FFF; c != 0; c = s16(*d, c)) {
                // The chunk's place first: its size is read from inside the page only.
                if ((c & 1) || c < 2 || c > kPageSize - 4 || ++n > kPageSize / 4)
                    return rep_.fail(fmt("data: shared page %u: free chunk at %d", p, c));
                const int a = s16(*d, c + 2);
                if (a < 4 || (a & 1) || c + a > kPageSize)
                    return rep_.fail(fmt("data: shared page %u: free chunk at %d of %d bytes", p, c, a));
                if (!pieces.empty() && !pieces.back().segment && c <= pieces.back().start)
                    return rep_.fail(fmt("data: shared page %u: free list not ascending at %d", p, c));
                pieces.push_back({c, c + a, false});
                total += a;
            }
            std::sort(pieces.begin(), pieces.end(),
                      [](const Piece& a, const Piece& b) { return a.start < b.start; });
            // Pieces may not overlap.  Bytes between them are slack: a segment that took
            // a chunk whole leaves up to 3 bytes behind it, and that slack stays when the
            // segment is freed next to another segment, so slack can grow by reuse.
            int at = 2;
            for (const Piece& pc : pieces) {
                if (pc.start < at)
                    return rep_.fail(fmt("data: shared page %u: %s at %d overlaps the piece ending at %d",
                                         p, pc.segment ? "segment" : "free chunk", pc.start, at));
                at = pc.end;
            }
            if (at > kPageSize)
                return rep_.fail(fmt("data: shared page %u: the body ends at %d", p, at));
            if (total > 1019)
                return rep_.fail(fmt("data: shared page %u is in use but has %d free bytes", p, total));
            free_[p] = total;
        }
        return true;
    }

    // A page in the free-space table that no record reaches any more: the slack its last
    // records left (lost bytes between pieces, see check_page) kept its free total under
    // the mark of an empty page, so it was kept for reuse.  It must still be a sound
    // shared page of its own.
    bool check_unreached(PAGE p) {
        if (!img_.valid_page(p))
            return rep_.fail(fmt("data: is_cdp names page %u, which is not a page of the file", p));
        if (!claim(p, true)) return false;
        return check_page(p, shared_[p]);
    }

    // The free-space table: packed, each entry a shared page with its free total,
    // is_mincdpi the first entry with the least room.
    bool finish_table() {
        int used = 0;
        while (used < 16 && img_.cdp[used] != 0) ++used;
        for (int i = used; i < 16; ++i)
            if (img_.cdp[i] != 0) return rep_.fail(fmt("data: is_cdp[%d] used after an empty entry", i));
        int min = -1;
        std::set<PAGE> seen;
        for (int i = 0; i < used; ++i) {
            const PAGE p = img_.cdp[i] & ~kLow;
            const int f = static_cast<int>(img_.cdp[i] & kLow);
            auto it = free_.find(p);
            if (it == free_.end()) {
                if (!check_unreached(p)) return false;
                it = free_.find(p);
            }
            if (it->second != f || f < 1 || f > 1019)
                return rep_.fail(fmt("data: is_cdp[%d] gives page %u %d free bytes, the page has %d",
                                     i, p, f, it->second));
            if (!seen.insert(p).second) return rep_.fail(fmt("data: page %u twice in is_cdp", p));
            if (min < 0 || f < static_cast<int>(img_.cdp[min] & kLow)) min = i;
        }
        // A file that never had a shared page still carries the zero of its creation.
        if (img_.mincdpi != min && !(used == 0 && img_.mincdpi == 0))
            return rep_.fail(fmt("data: is_mincdpi is %d, the least free entry is %d", img_.mincdpi, min));
        return true;
    }

    bool index_mismatch(int k, const std::vector<std::string>& have, const std::vector<std::string>& want) {
        size_t i = 0;
        while (i < have.size() && i < want.size() && have[i] == want[i]) ++i;
        if (i < want.size() && (i >= have.size() || want[i] < have[i]))
            return rep_.fail(fmt("data: key %d lacks the item %s of a record (%zu items, %zu records)", k,
                                 hex(want[i]).c_str(), have.size(), want.size()));
        return rep_.fail(fmt("data: key %d holds the item %s, which no record gives (%zu items, %zu records)",
                             k, hex(have[i]).c_str(), have.size(), want.size()));
    }

    const FileImage& img_;
    PageMap& map_;
    Report& rep_;
    std::map<PAGE, IS_DATA> cache_;
    std::map<PAGE, std::vector<Piece>> shared_;
    std::map<PAGE, int> free_;
};

}  // namespace

bool check_data(const FileImage& img, PageMap& map, Report& report) {
    if (!report.ok) return false;
    DataCheck c(img, map, report);
    return c.run();
}

}  // namespace kisam::check
