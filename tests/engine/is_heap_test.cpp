// Common heap: the worked example, merging, exhaustion, and a randomized run checked
// against a model of the blocks handed out.
#include "is_heap.h"

#include <gtest/gtest.h>

#include "is_common.h"
#include "kisam_test.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

// The configuration whose heap is 3796 bytes: one free block of 235 units.
kt::Config small_config() {
    kt::Config c;
    c.maxbuf = 4;
    c.maxopen = 10;
    c.maxusers = 5;
    c.avgalts = 2;
    c.alenlock = 10;
    c.anumlock = 4;
    return c;
}

const Cheader* hdr(RELt off) { return reinterpret_cast<const Cheader*>(is_env.heap_ + off); }
// By value: Csize is only 4-aligned in the heap, so no reference may bind to it.
uint64_t units(RELt off) { return hdr(off)->Csize; }
RELt off_of(const char* p) { return static_cast<RELt>(p - is_env.heap_); }

// Free blocks other than the anchor, in list order starting after the anchor.
std::vector<std::pair<RELt, uint64_t>> free_blocks() {
    std::vector<std::pair<RELt, uint64_t>> out;
    RELt off = hdr(0)->Cnext;
    for (int guard = 0; off != 0 && guard < 100000; ++guard) {
        out.emplace_back(off, units(off));
        off = hdr(off)->Cnext;
    }
    return out;
}

class Heap : public ::testing::Test {
protected:
    void SetUp() override {
        inst_ = std::make_unique<kt::Installation>(cfg_);
        ASSERT_EQ(kt::attach_raw(*inst_, cfg_), 0);
        heap_units_ = static_cast<uint64_t>(isam_com->comsize - isam_com->heap_base) / 16;
    }
    void TearDown() override {
        kt::detach_raw();
        inst_.reset();
    }
    // The list is ordered (no wrap except back to the anchor), no two free blocks touch,
    // and free_base names a block of the list.
    void check_free_list() {
        auto fb = free_blocks();
        bool rover_found = isam_com->free_base == 0;
        for (size_t i = 0; i < fb.size(); ++i) {
            ASSERT_GT(fb[i].second, 0u);
            ASSERT_EQ(fb[i].first % 16, 0u);
            if (i + 1 < fb.size()) {
                ASSERT_LT(fb[i].first, fb[i + 1].first) << "list out of order";
                ASSERT_NE(fb[i].first + fb[i].second * 16, fb[i + 1].first) << "unmerged neighbours";
            }
            ASSERT_LE((fb[i].first + fb[i].second * 16) / 16, heap_units_);
            if (fb[i].first == isam_com->free_base) rover_found = true;
        }
        ASSERT_TRUE(rover_found);
    }
    kt::Config cfg_ = small_config();
    std::unique_ptr<kt::Installation> inst_;
    uint64_t heap_units_ = 0;
};

class BigHeap : public Heap {
protected:
    void SetUp() override {
        cfg_ = kt::Config();
        Heap::SetUp();
    }
};

}  // namespace

TEST_F(Heap, WorkedExample) {
    ASSERT_EQ(isam_com->comsize - isam_com->heap_base, 3796);
    EXPECT_EQ(units(0), 0u);
    EXPECT_EQ(hdr(0)->Cnext, 32u);
    EXPECT_EQ(units(32), 235u);
    EXPECT_EQ(hdr(32)->Cnext, 0u);
    EXPECT_EQ(isam_com->free_base, 0u);

    char* f = allocncom(136);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(off_of(f), 3648u);
    EXPECT_EQ(units(32), 226u);
    for (int i = 0; i < 144; ++i) ASSERT_EQ(f[i], 0);
    EXPECT_EQ(isam_com->free_lock, 0u);  // released
    EXPECT_EQ(isam_com->totsyslocks, 1u);

    freencom(f, 136);
    EXPECT_EQ(units(32), 235u);
    EXPECT_EQ(hdr(32)->Cnext, 0u);
    EXPECT_EQ(hdr(0)->Cnext, 32u);
}

TEST_F(Heap, HeaderKeepingAllocation) {
    char* a = alloccom(0);  // header only
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(units(off_of(a) - 16), 1u);
    EXPECT_EQ(units(32), 234u);
    char* b = alloccom(17);  // two units of area plus the header
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(units(off_of(b) - 16), 3u);
    EXPECT_EQ(b + 16 * 3, a);  // cut from the tail, one after another downwards
    for (int i = 0; i < 17; ++i) EXPECT_EQ(b[i], 0);
}

TEST_F(Heap, ExhaustionLeavesTheHeapUnchanged) {
    EXPECT_EQ(allocncom(0), nullptr);
    std::string before(is_env.heap_, 3796);
    uint32_t rover = isam_com->free_base;
    EXPECT_EQ(alloccom(235 * 16), nullptr);  // needs 236 units
    EXPECT_EQ(allocncom(236 * 16), nullptr);
    EXPECT_EQ(allocncom(0xFFFFFFFFu), nullptr);
    EXPECT_EQ(std::string(is_env.heap_, 3796), before);
    EXPECT_EQ(isam_com->free_base, rover);
    EXPECT_EQ(isam_com->free_lock, 0u);
    char* all = allocncom(235 * 16);  // exactly the one block: unlinked whole
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(off_of(all), 32u);
    EXPECT_TRUE(free_blocks().empty());
    EXPECT_EQ(allocncom(16), nullptr);
    freencom(all, 235 * 16);
    EXPECT_EQ(free_blocks().size(), 1u);
}

// Random allocations and frees against a model: blocks handed out never overlap each
// other or the free list, together they tile the heap, a refused request really fits no
// free block, and freeing everything restores the single initial block.
TEST_F(BigHeap, RandomizedAgainstModel) {
    const uint64_t seed = kt::test_seed(20240611);
    std::mt19937_64 rng(seed);
    const RELt first = 32;
    const uint64_t initial = units(first);
    std::map<RELt, std::pair<char*, unsigned>> live;  // offset -> (address, size asked)

    auto check_tiling = [&] {
        std::vector<std::pair<RELt, uint64_t>> all = free_blocks();
        for (auto& [off, blk] : live) all.emplace_back(off, (blk.second + 15) / 16);
        std::sort(all.begin(), all.end());
        RELt at = first;
        for (auto& [off, units] : all) {
            ASSERT_EQ(off, at) << "gap or overlap at heap offset " << off << " (seed " << seed << ")";
            at = static_cast<RELt>(off + units * 16);
        }
        ASSERT_EQ(at, first + initial * 16);
    };

    for (int step = 0; step < 4000; ++step) {
        bool do_alloc = live.empty() || rng() % 100 < 55;
        if (do_alloc) {
            unsigned n = static_cast<unsigned>(rng() % 3 == 0 ? rng() % 2000 + 1 : rng() % 200 + 1);
            char* p = allocncom(n);
            if (p == nullptr) {
                uint64_t need = (n + 15) / 16;
                for (auto& [off, units] : free_blocks()) {
                    ASSERT_LT(units, need) << "refused although block at " << off << " fits, seed " << seed;
                }
                continue;
            }
            for (unsigned i = 0; i < (n + 15) / 16 * 16; ++i) ASSERT_EQ(p[i], 0) << "seed " << seed;
            RELt off = off_of(p);
            ASSERT_EQ(live.count(off), 0u) << "handed out twice, seed " << seed;
            std::memset(p, 0xC3, n);  // the caller owns every byte, header included
            live[off] = {p, n};
        } else {
            auto it = live.begin();
            std::advance(it, static_cast<long>(rng() % live.size()));
            freencom(it->second.first, it->second.second);
            live.erase(it);
        }
        ASSERT_NO_FATAL_FAILURE(check_free_list()) << "step " << step << " seed " << seed;
        if (step % 50 == 0) {
            ASSERT_NO_FATAL_FAILURE(check_tiling()) << "step " << step;
        }
    }
    std::vector<std::pair<char*, unsigned>> rest;
    for (auto& [off, blk] : live) rest.push_back(blk);
    std::shuffle(rest.begin(), rest.end(), rng);
    for (auto& [p, n] : rest) freencom(p, n);
    auto fb = free_blocks();
    ASSERT_EQ(fb.size(), 1u) << "seed " << seed;
    EXPECT_EQ(fb[0], std::make_pair(first, initial));
    EXPECT_EQ(isam_com->cursyslocks, 0u);
}
