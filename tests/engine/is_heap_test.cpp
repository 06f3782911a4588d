// The common segment as start-up lays it out, and its heap: the worked example, and a
// randomized run checked against a model of the blocks handed out.
#include "is_heap.h"

#include <gtest/gtest.h>

#include "is_common.h"
#include "kisam_test.h"

#include <algorithm>
#include <map>
#include <random>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

const Cheader* hdr(RELt off) { return reinterpret_cast<const Cheader*>(is_env.heap_ + off); }
// By value: Csize is only 4-aligned in the heap, so no reference may bind to it.
uint64_t units(RELt off) { return hdr(off)->Csize; }
RELt off_of(const char* p) { return static_cast<RELt>(p - is_env.heap_); }

// Free blocks other than the anchor, in list order.
std::vector<std::pair<RELt, uint64_t>> free_blocks() {
    std::vector<std::pair<RELt, uint64_t>> out;
    for (RELt off = hdr(0)->Cnext; off != 0 && out.size() < 100000; off = hdr(off)->Cnext)
        out.emplace_back(off, units(off));
    return out;
}

class Heap : public ::testing::Test {
protected:
    void attach(const kt::Config& c) {
        inst_ = std::make_unique<kt::Installation>(c);
        ASSERT_EQ(kt::attach_raw(*inst_, c), 0);
    }
    void TearDown() override {
        kt::detach_raw();
        inst_.reset();
    }
    std::unique_ptr<kt::Installation> inst_;
};

}  // namespace

// The worked example: a configuration laid out as start-up lays it out (sizes, region
// offsets, the tables' initial links), whose heap is 3796 bytes: one free block of 235
// units, cut from the tail and merged back.  (Exhaustion and whole-block use are the
// random run's.)
TEST_F(Heap, WorkedExample) {
    kt::Config c;
    c.maxbuf = 4; c.maxopen = 10; c.maxusers = 5; c.avgalts = 2; c.alenlock = 10; c.anumlock = 4;
    struct is_config rec = kt::to_record(c);
    ASSERT_EQ(sizecomm(&rec), 0);
    EXPECT_EQ(rec.co_comsize, 8192);
    EXPECT_EQ(rec.co_heapbase, 4396);
    attach(c);
    const struct isam_com* h = isam_com;
    EXPECT_EQ(h->comsize, 8192);
    EXPECT_EQ(h->buf_base, 156);
    EXPECT_EQ(h->pfo_base, 4316);
    EXPECT_EQ(h->pid_base, 4356);
    EXPECT_EQ(h->need_base, 4376);
    EXPECT_EQ(h->heap_base, 4396);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(is_env.buf_[i].bu_next, i == 3 ? -1 : i + 1);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(is_env.pfo_tbl[i], -1);
    EXPECT_EQ(is_env.pid_[0], ::getpid());
    EXPECT_EQ(hdr(0)->Cnext, 32u);
    EXPECT_EQ(units(32), 235u);
    char* f = allocncom(136);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(off_of(f), 3648u);
    EXPECT_EQ(units(32), 226u);
    EXPECT_EQ(isam_com->free_lock, 0u);  // released
    freencom(f, 136);
    EXPECT_EQ(units(32), 235u);
    EXPECT_EQ(hdr(32)->Cnext, 0u);
}

// Random allocations and frees against a model: blocks handed out are zeroed, never
// overlap each other or the free list and together tile the heap; the list stays ordered
// and merged; a refused request fits no free block; freeing everything restores the
// single initial block.
TEST_F(Heap, RandomizedAgainstModel) {
    attach(kt::Config());
    const uint64_t seed = kt::test_seed(20240611);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    std::mt19937_64 rng(seed);
    const RELt first = 32;
    const uint64_t initial = units(first);
    std::map<RELt, std::pair<char*, unsigned>> live;  // offset -> (address, size asked)
    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE(step);
        if (live.empty() || rng() % 100 < 55) {
            unsigned n = static_cast<unsigned>(rng() % 3 == 0 ? rng() % 2000 + 1 : rng() % 200 + 1);
            char* p = allocncom(n);
            if (p == nullptr) {
                for (auto& [off, u] : free_blocks()) ASSERT_LT(u, (n + 15) / 16) << "fits at " << off;
                continue;
            }
            for (unsigned i = 0; i < (n + 15) / 16 * 16; ++i) ASSERT_EQ(p[i], 0);
            ASSERT_EQ(live.count(off_of(p)), 0u) << "handed out twice";
            std::memset(p, 0xC3, n);  // the caller owns every byte, header included
            live[off_of(p)] = {p, n};
        } else {
            auto it = live.begin();
            std::advance(it, static_cast<long>(rng() % live.size()));
            freencom(it->second.first, it->second.second);
            live.erase(it);
        }
        auto fb = free_blocks();
        bool rover_found = isam_com->free_base == 0;
        for (size_t i = 0; i < fb.size(); ++i) {
            if (i + 1 < fb.size()) {
                ASSERT_LT(fb[i].first + fb[i].second * 16, fb[i + 1].first) << "unordered or unmerged";
            }
            rover_found |= fb[i].first == isam_com->free_base;
        }
        ASSERT_TRUE(rover_found);
        for (auto& [off, blk] : live) fb.emplace_back(off, (blk.second + 15) / 16);
        std::sort(fb.begin(), fb.end());
        RELt at = first;
        for (auto& [off, u] : fb) {
            ASSERT_EQ(off, at) << "gap or overlap";
            at = static_cast<RELt>(off + u * 16);
        }
        ASSERT_EQ(at, first + initial * 16);
    }
    std::vector<std::pair<char*, unsigned>> rest;
    for (auto& [off, blk] : live) rest.push_back(blk);
    std::shuffle(rest.begin(), rest.end(), rng);
    for (auto& [p, n] : rest) freencom(p, n);
    ASSERT_EQ(free_blocks(), (std::vector<std::pair<RELt, uint64_t>>{{first, initial}}));
    EXPECT_EQ(isam_com->cursyslocks, 0u);
}
