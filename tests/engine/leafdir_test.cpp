// The leaf directory against an ordered map of first keys, for keys shorter than, as
// long as and longer than the 8 bytes compared as one integer.
#include "is_leafdir.h"
#include "kisam_test.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

namespace {

using kisam::LeafDir;
using kisam::LeafRef;

// A small alphabet with the extremes of unsigned order: prefix ties and high bytes.
std::string random_key(std::mt19937_64& rng, int klen, int spread) {
    static const char alphabet[] = {'\x00', '\x01', 'a', 'b', '\x7f', '\x80', '\xfe', '\xff'};
    std::string k(static_cast<size_t>(klen), 'a');
    for (int i = 0; i < klen; ++i)
        if (static_cast<int>(rng() % static_cast<unsigned>(klen)) < spread || i >= klen - 2)
            k[static_cast<size_t>(i)] = alphabet[rng() % sizeof alphabet];
    return k;
}

const std::pair<const std::string, LeafRef>* model_floor(const std::map<std::string, LeafRef>& m,
                                                        const std::string& key) {
    auto it = m.upper_bound(key);
    if (it == m.begin()) return nullptr;
    return &*std::prev(it);
}

TEST(LeafDir, AgreesWithAnOrderedMap) {
    const uint64_t seed = kt::test_seed(0x1EAFD1);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    std::mt19937_64 rng(seed);
    for (int klen : {1, 5, 8, 9, 13, 64}) {
        SCOPED_TRACE("klen " + std::to_string(klen));
        LeafDir d;
        ASSERT_TRUE(d.reset(klen));
        std::map<std::string, LeafRef> m;  // std::string compares as unsigned bytes
        const int spread = klen > 8 ? 2 : klen;
        for (int op = 0; op < 40000; ++op) {
            const std::string k = random_key(rng, klen, spread);
            const unsigned what = rng() % 10;
            if (what < 5) {
                const LeafRef r{static_cast<PAGE>(rng() % 100000) * 1024, static_cast<int32_t>(rng() % 7) - 1,
                                static_cast<uint32_t>(rng())};
                d.put(k.data(), r);
                m[k] = r;
            } else if (what < 7) {
                std::string victim = k;
                if (!m.empty() && rng() % 4 != 0) {
                    auto it = m.lower_bound(k);
                    if (it == m.end()) it = m.begin();
                    victim = it->first;
                }
                d.drop(victim.data());
                m.erase(victim);
            } else {
                LeafRef* got = d.floor(k.data());
                const auto* want = model_floor(m, k);
                ASSERT_EQ(got != nullptr, want != nullptr) << "op " << op;
                if (!got) {
                    EXPECT_FALSE(d.found_is(k.data()));
                    continue;
                }
                EXPECT_EQ(got->pno, want->second.pno);
                EXPECT_EQ(got->slot, want->second.slot);
                EXPECT_EQ(got->stamp, want->second.stamp);
                std::string first(static_cast<size_t>(klen), '?');
                d.found_key(first.data());
                EXPECT_EQ(first, want->first);
                EXPECT_TRUE(d.found_is(want->first.data()));
                EXPECT_EQ(d.found_is(k.data()), k == want->first);
                // A refile through the ref floor returned changes the entry in place.
                got->stamp ^= 1;
                m[want->first].stamp ^= 1;
            }
            ASSERT_EQ(d.size(), m.size()) << "op " << op;
        }
        // Everything in order, from below the first entry to past the last.
        for (const auto& [k, r] : m) {
            LeafRef* got = d.floor(k.data());
            ASSERT_NE(got, nullptr);
            EXPECT_EQ(got->pno, r.pno);
        }
        // Dropped down to nothing and filled again: empty blocks go, the first comes back.
        while (!m.empty()) {
            d.drop(m.begin()->first.data());
            m.erase(m.begin());
        }
        EXPECT_EQ(d.size(), 0u);
        const std::string k(static_cast<size_t>(klen), 'b');
        EXPECT_EQ(d.floor(k.data()), nullptr);
        d.put(k.data(), LeafRef{1024, 3, 9});
        ASSERT_NE(d.floor(k.data()), nullptr);
        EXPECT_EQ(d.floor(k.data())->slot, 3);
    }
}

TEST(LeafDir, RefusesKeysItCannotHoldAndStartsAgainWhenFull) {
    LeafDir d;
    EXPECT_FALSE(d.reset(0));
    EXPECT_FALSE(d.reset(LeafDir::kMaxKey + 1));
    d.put("x", LeafRef{1024, 0, 0});  // an unusable directory files nothing
    EXPECT_EQ(d.size(), 0u);
    EXPECT_EQ(d.floor("x"), nullptr);

    ASSERT_TRUE(d.reset(4));
    char k[4];
    for (uint32_t i = 0; i <= LeafDir::kMaxEntries; ++i) {
        const uint32_t be = __builtin_bswap32(i);
        std::memcpy(k, &be, 4);
        d.put(k, LeafRef{i * 1024, 0, 0});
    }
    // The entry past the limit found a full directory: it starts again with that one.
    EXPECT_EQ(d.size(), 1u);
    ASSERT_NE(d.floor(k), nullptr);
    EXPECT_EQ(d.floor(k)->pno, static_cast<PAGE>(LeafDir::kMaxEntries * 1024));
    const uint32_t zero = 0;
    EXPECT_EQ(d.floor(reinterpret_cast<const char*>(&zero)), nullptr);
}

}  // namespace
