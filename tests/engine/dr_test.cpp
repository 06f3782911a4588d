// Data pages byte for byte: where records of each size land, how the free chunks of a
// shared page are split, merged and tiled, and how the free-space table follows.
#include "kisam_test.h"

#include "dr.h"
#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "v_pool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Page = std::array<unsigned char, 1024>;

uint16_t w16(const Page& p, int off) { return static_cast<uint16_t>(p[off] | (p[off + 1] << 8)); }
uint32_t w32(const Page& p, int off) {
    return static_cast<uint32_t>(w16(p, off)) | (static_cast<uint32_t>(w16(p, off + 2)) << 16);
}

std::vector<char> pattern(int n, int seed) {
    std::vector<char> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[static_cast<size_t>(i)] = static_cast<char>((i * 7 + seed * 31 + i / 251) & 0xFF);
    return v;
}

class DataPages : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(is_init(), 0);
        path_ = inst_.path("data.ism");
        int lens[1] = {8};
        fd_ = niscreate(path_.c_str(), 1, lens);
        ASSERT_GE(fd_, 0);
        osfd_ = ::open(path_.c_str(), O_RDONLY);
        ASSERT_GE(osfd_, 0);
    }
    void TearDown() override {
        if (osfd_ >= 0) ::close(osfd_);
        nisclose(fd_);
        nisunisam();
    }

    // Runs f in the frame of a public operation: handle selected, control lock held.
    template <class F>
    auto locked(F f) {
        EXPECT_EQ(is_isin(PROC(P_ISWRITE), fd_, 0), 0);
        EXPECT_EQ(is_getctl(), 0);
        auto r = f();
        EXPECT_EQ(is_relctl(), 0);
        is_isout();
        return r;
    }
    PAGE put(const std::vector<char>& rec) {
        return locked([&] { return dr_put(rec.data(), static_cast<int>(rec.size())); });
    }
    int rel(PAGE a) { return locked([&] { return dr_rel(a); }); }
    std::vector<char> get(PAGE a, int maxlen, int* n) {
        std::vector<char> out(static_cast<size_t>(maxlen) + 16, 0);
        *n = locked([&] { return dr_get(a, out.data(), maxlen); });
        if (*n > 0) out.resize(static_cast<size_t>(*n));
        return out;
    }
    Page disk(PAGE p) {
        EXPECT_EQ(kt::write_back(fd_), 0);
        return raw(p);
    }
    // Page p as the file holds it now, without writing anything back first.
    Page raw(PAGE p) {
        Page pg{};
        EXPECT_EQ(::pread(osfd_, pg.data(), pg.size(), static_cast<off_t>(p)), 1024) << p;
        return pg;
    }
    // Page p as this process's pool holds it (no write-back, no system call on a hit).
    Page pooled(PAGE p) {
        return locked([&] {
            Page pg{};
            IS_DATA* d = v_read(p);
            EXPECT_NE(d, nullptr) << p;
            if (d) {
                std::memcpy(pg.data(), d->c, pg.size());
                v_unsafe(p, d->c);
            }
            return pg;
        });
    }
    std::vector<char> whole_file() {
        EXPECT_EQ(kt::write_back(fd_), 0);
        off_t end = ::lseek(osfd_, 0, SEEK_END);
        std::vector<char> v(static_cast<size_t>(end));
        EXPECT_EQ(::pread(osfd_, v.data(), v.size(), 0), end);
        return v;
    }
    // The shared control page of the file (valid while it is open).
    IS_FCP* fcp() {
        EXPECT_EQ(is_isin(PROC(P_ISREAD), fd_, 0), 0);
        is_isout();
        return is_curfcp;
    }

    kt::Installation inst_;
    std::string path_;
    int fd_ = -1;
    int osfd_ = -1;
};

TEST_F(DataPages, RecordShapesByLength) {
    ASSERT_EQ(fcp()->is_magic, ISMAGIC_1024);   // page P lies at file offset P

    // 1020 bytes fill a fresh shared page exactly: page word without free chunk.
    auto r1020 = pattern(1020, 1);
    PAGE a = put(r1020);
    EXPECT_EQ(a, 1024u + 2);
    Page p = disk(1024);
    EXPECT_EQ(w16(p, 0), 0x8000);
    EXPECT_EQ(w16(p, 2), 0x8000 + 1020);
    EXPECT_EQ(std::memcmp(p.data() + 4, r1020.data(), 1020), 0);
    EXPECT_EQ(fcp()->is_cdp[0], 0u);
    EXPECT_EQ(fcp()->is_mincdpi, -1);

    // 1021 bytes: one overflow page and a 5-byte tail at the end of a new shared page.
    auto r1021 = pattern(1021, 2);
    PAGE b = put(r1021);
    EXPECT_EQ(b, 3072u + 1);
    Page ov = disk(3072);
    EXPECT_EQ(w16(ov, 0), 0x8001);
    EXPECT_EQ(w16(ov, 2), 1);
    EXPECT_EQ(w32(ov, 4), 2048u + 1016);
    EXPECT_EQ(std::memcmp(ov.data() + 8, r1021.data(), 1016), 0);
    Page tail = disk(2048);
    EXPECT_EQ(w16(tail, 0), 0x8002);
    EXPECT_EQ(w16(tail, 2), 0);       // dr_next
    EXPECT_EQ(w16(tail, 4), 1014);    // dr_avail
    EXPECT_EQ(w16(tail, 1016), 0x8000 + 5);
    EXPECT_EQ(std::memcmp(tail.data() + 1018, r1021.data() + 1016, 5), 0);
    EXPECT_EQ(fcp()->is_cdp[0], 2048u + 1014);
    EXPECT_EQ(fcp()->is_mincdpi, 0);

    // 2032 bytes: one overflow page and a full 1016-byte tail, which no longer fits in
    // the page with 1014 free bytes: a new page keeps a 4-byte chunk in front.
    auto r2032 = pattern(2032, 3);
    PAGE c = put(r2032);
    EXPECT_EQ(c, 5120u + 1);
    EXPECT_EQ(w32(disk(5120), 4), 4096u + 6);
    Page t2 = disk(4096);
    EXPECT_EQ(w16(t2, 0), 0x8002);
    EXPECT_EQ(w16(t2, 4), 4);
    EXPECT_EQ(w16(t2, 6), 0x8000 + 1016);
    EXPECT_EQ(fcp()->is_cdp[0], 2048u + 1014);
    EXPECT_EQ(fcp()->is_cdp[1], 4096u + 4);
    EXPECT_EQ(fcp()->is_mincdpi, 1);

    // 3000 bytes: overflow pages numbered 1 and 2, and a 968-byte tail placed at the end
    // of the first page of the table with room.
    auto r3000 = pattern(3000, 4);
    PAGE d = put(r3000);
    // The tail goes in first; then the last block's page, then the first block's.
    Page last = disk(6144), first = disk(7168);
    EXPECT_EQ(d, 7168u + 1);
    EXPECT_EQ(w16(first, 0), 0x8001);
    EXPECT_EQ(w16(first, 2), 1);
    EXPECT_EQ(w32(first, 4), 6144u + 1);
    EXPECT_EQ(w16(last, 2), 2);
    EXPECT_EQ(w32(last, 4), 2048u + 46);
    EXPECT_EQ(std::memcmp(first.data() + 8, r3000.data(), 1016), 0);
    EXPECT_EQ(std::memcmp(last.data() + 8, r3000.data() + 1016, 1016), 0);
    Page t3 = disk(2048);
    EXPECT_EQ(w16(t3, 4), 44);
    EXPECT_EQ(w16(t3, 46), 0x8000 + 968);
    EXPECT_EQ(fcp()->is_cdp[0], 2048u + 44);
    EXPECT_EQ(fcp()->is_mincdpi, 1);

    // Everything reads back whole, and prefixes are cut without error.
    for (auto [addr, rec] : {std::pair{a, &r1020}, {b, &r1021}, {c, &r2032}, {d, &r3000}}) {
        int n = 0;
        auto back = get(addr, 65534, &n);
        ASSERT_EQ(n, static_cast<int>(rec->size()));
        EXPECT_EQ(back, *rec);
        back = get(addr, 100, &n);
        EXPECT_EQ(n, 100);
        EXPECT_EQ(std::memcmp(back.data(), rec->data(), 100), 0);
    }
}

TEST_F(DataPages, RecordInPiecesFollowsTheFreeList) {
    // Lay out one page: 100-byte segments A, C, E separated by small ones, then fill it.
    std::vector<PAGE> keep;
    PAGE A = put(pattern(98, 1));
    keep.push_back(put(pattern(18, 2)));
    PAGE C = put(pattern(98, 3));
    keep.push_back(put(pattern(18, 4)));
    PAGE E = put(pattern(98, 5));
    keep.push_back(put(pattern(680, 6)));
    ASSERT_EQ(A, 1024u + 924);
    ASSERT_EQ(C, 1024u + 804);
    ASSERT_EQ(E, 1024u + 684);
    ASSERT_EQ(w16(disk(1024), 0), 0x8000);
    for (PAGE x : {A, C, E}) ASSERT_EQ(rel(x), 0);
    Page p = disk(1024);
    EXPECT_EQ(w16(p, 0), 0x8000 + 684);
    EXPECT_EQ(w16(p, 684), 804);
    EXPECT_EQ(w16(p, 686), 100);
    EXPECT_EQ(w16(p, 804), 924);
    EXPECT_EQ(w16(p, 924), 0);
    EXPECT_EQ(fcp()->is_cdp[0], 1024u + 300);

    // 250 bytes: no chunk holds them whole, so they go as 97 + 97 + 56.
    auto rec = pattern(250, 7);
    PAGE r = put(rec);
    EXPECT_EQ(r, 1024u + 684);
    p = disk(1024);
    EXPECT_EQ(w16(p, 684), 0xC000 + 0xC00 + 97);   // next 804 = 0x324
    EXPECT_EQ(p[686], 0x24);
    EXPECT_EQ(w16(p, 804), 0xC000 + 0xC00 + 97);   // next 924 = 0x39C
    EXPECT_EQ(p[806], 0x9C);
    EXPECT_EQ(w16(p, 924), 0x8000 + 56);
    EXPECT_EQ(w16(p, 0), 0x8000 + 982);            // the rest of the last chunk
    EXPECT_EQ(w16(p, 982), 0);
    EXPECT_EQ(w16(p, 984), 42);
    EXPECT_EQ(std::memcmp(p.data() + 687, rec.data(), 97), 0);
    EXPECT_EQ(std::memcmp(p.data() + 807, rec.data() + 97, 97), 0);
    EXPECT_EQ(std::memcmp(p.data() + 926, rec.data() + 194, 56), 0);
    EXPECT_EQ(fcp()->is_cdp[0], 1024u + 42);
    int n = 0;
    EXPECT_EQ(get(r, 300, &n), rec);

    // Freeing it all merges everything back into one chunk: the page goes back to the
    // free chain.
    ASSERT_EQ(rel(r), 0);
    for (PAGE x : keep) ASSERT_EQ(rel(x), 0);
    p = disk(1024);
    EXPECT_EQ(w16(p, 0), 0xFFFE);   // free-page mark
    EXPECT_EQ(fcp()->is_cdp[0], 0u);
    EXPECT_EQ(fcp()->is_mincdpi, -1);
    EXPECT_EQ(fcp()->is_nextfree, 1024u);
}

TEST_F(DataPages, RefusedReleaseWritesNothing) {
    PAGE x = put(pattern(100, 1));   // at 922
    PAGE y = put(pattern(100, 2));   // at 820, in front of x
    ASSERT_EQ(x, 1024u + 922);
    ASSERT_EQ(y, 1024u + 820);
    ASSERT_EQ(rel(x), 0);            // not merged: y separates it from the front chunk
    auto before = whole_file();

    EXPECT_EQ(rel(x), -1);
    EXPECT_EQ(whole_file(), before);

    int n = 0;
    EXPECT_EQ(get(y, 200, &n), pattern(100, 2));
}

// Random stores and releases against a model of the live records.  After every step
// each shared page that holds a live record is tiled by those records' segments and its
// free chunks, with no more than 3 bytes of slack, and only behind a live segment (a
// released segment takes its slack with it, or it would be lost for good); its entry
// in the free-space table (if any) gives its free total; a page whose last record went
// is given back at once.  At the end every record reads back, and releasing them all
// leaves every page of the file on the free chain.
TEST_F(DataPages, RandomStoresAndReleasesAgreeWithAModel) {
    const uint64_t seed = kt::test_seed(2711);
    const int kSteps = std::getenv("KISAM_STEPS") ? std::atoi(std::getenv("KISAM_STEPS")) : 10000;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    auto pick = [&](int lo, int hi) { return lo + static_cast<int>(rng() % static_cast<uint64_t>(hi - lo + 1)); };

    struct Live {
        std::vector<char> data;
        PAGE tail;   // the shared page of its tail
    };
    std::map<PAGE, Live> live;

    // The tail address of a record: past its overflow pages.
    auto tail_of = [&](PAGE addr) {
        while ((addr & 0x3FF) == 1) addr = w32(pooled(addr - 1), 4);
        return addr;
    };
    // The pieces a record's segments occupy in its tail page.
    auto segments = [&](const Page& p, PAGE addr, std::vector<std::pair<int, int>>* out) {
        for (int s = static_cast<int>(addr & 0x3FF); s != 0;) {
            const uint16_t ctlw = w16(p, s);
            const int len = ctlw & 0x3FF;
            int next = 0, size = len + 2;
            if ((ctlw & 0xC000) == 0xC000) {
                next = ((ctlw >> 2) & 0x300) + p[static_cast<size_t>(s) + 2];
                if (next != 0) size = len + 3;
            }
            size += size & 1;
            out->push_back({s, s + std::max(size, 4)});
            s = next;
        }
    };
    auto check_pages = [&](int step) {
        std::map<PAGE, std::vector<PAGE>> by_page;
        for (auto& [addr, l] : live) by_page[l.tail & ~PAGE{0x3FF}].push_back(l.tail);
        // The pool's pages at every step, the file's every 64th (a checkpoint is slow).
        const bool on_disk = step % 64 == 0;
        if (on_disk) {
            ASSERT_EQ(kt::write_back(fd_), 0);
        }
        const IS_FCP* f = fcp();
        for (auto& [pg, addrs] : by_page) {
            const Page p = on_disk ? raw(pg) : pooled(pg);
            std::vector<std::pair<int, int>> segs, pieces;
            for (PAGE a : addrs) segments(p, a, &segs);
            int total = 0;
            for (int c = w16(p, 0) & 0x7FFF; c != 0; c = w16(p, c)) {
                pieces.push_back({c, c + w16(p, c + 2)});
                total += w16(p, c + 2);
            }
            std::set<int> seg_ends;
            for (auto& s : segs) seg_ends.insert(s.second);
            pieces.insert(pieces.end(), segs.begin(), segs.end());
            std::sort(pieces.begin(), pieces.end());
            int at = 2;
            bool behind_segment = false;
            for (auto& [b, e] : pieces) {
                ASSERT_GE(b, at) << "step " << step << ": page " << pg << ": piece at " << b << " overlaps";
                ASSERT_TRUE(b == at || (behind_segment && b - at <= 3))
                    << "step " << step << ": page " << pg << ": " << b - at << " bytes lost at " << at;
                behind_segment = seg_ends.count(e) != 0;
                at = e;
            }
            ASSERT_LE(at, 1024);
            ASSERT_TRUE(at == 1024 || (behind_segment && 1024 - at <= 3))
                << "step " << step << ": page " << pg << ": " << 1024 - at << " bytes lost at the end";
            for (int i = 0; i < 16 && f->is_cdp[i] != 0; ++i) {
                if ((f->is_cdp[i] & ~PAGE{0x3FF}) == pg) {
                    ASSERT_EQ(static_cast<int>(f->is_cdp[i] & 0x3FF), total) << "step " << step << ": page " << pg;
                }
            }
        }
    };

    auto release = [&](std::map<PAGE, Live>::iterator it, int step) {
        const PAGE pg = it->second.tail & ~PAGE{0x3FF};
        ASSERT_EQ(rel(it->first), 0) << "step " << step;
        live.erase(it);
        for (auto& [a, l] : live)
            if ((l.tail & ~PAGE{0x3FF}) == pg) return;
        ASSERT_EQ(w16(pooled(pg), 0), 0xFFFE) << "step " << step << ": page " << pg << " holds no record";
    };

    for (int step = 0; step < kSteps; ++step) {
        const bool store = live.empty() || (live.size() < 60 && rng() % 100 < 55);
        if (store) {
            const int r = pick(0, 99);
            const int len = r < 60 ? pick(1, 40) : r < 90 ? pick(41, 400) : r < 98 ? pick(401, 1020) : pick(1021, 3100);
            auto rec = pattern(len, step);
            const PAGE a = put(rec);
            ASSERT_NE(a, KISAM_NOPAGE) << "step " << step << " is_errno " << is_errno;
            ASSERT_EQ(live.count(a), 0u) << "step " << step;
            live[a] = Live{rec, tail_of(a)};
        } else {
            auto it = live.begin();
            std::advance(it, static_cast<long>(rng() % live.size()));
            release(it, step);
        }
        check_pages(step);
        if (HasFatalFailure()) return;
    }
    for (auto& [a, l] : live) {
        int n = 0;
        ASSERT_EQ(get(a, 65534, &n), l.data) << "record at " << a;
    }
    while (!live.empty()) {
        auto it = live.begin();
        std::advance(it, static_cast<long>(rng() % live.size()));
        release(it, -1);
        if (HasFatalFailure()) return;
    }
    const IS_FCP* f = fcp();
    EXPECT_EQ(f->is_cdp[0], 0u);
    ASSERT_EQ(kt::write_back(fd_), 0);
    for (PAGE pg = 1024; pg < f->is_lastpage; pg += 1024) EXPECT_EQ(w16(raw(pg), 0), 0xFFFE) << pg;
}

}  // namespace
