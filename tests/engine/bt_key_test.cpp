// Key helpers: ordering, equality, overlapping moves and page capacity.
#include "bt_key.h"

#include <gtest/gtest.h>

#include "kisam_test.h"

#include <cstring>
#include <random>
#include <vector>

namespace {
const CmpType* u(const char* s) { return reinterpret_cast<const CmpType*>(s); }
}  // namespace

TEST(KeyOrder, EmptyCountsAndHigherFlagBits) {
    EXPECT_EQ(is_more(u("a"), u("b"), 0, 0), 1);  // nothing compared: equal
    EXPECT_EQ(is_more(u("a"), u("b"), -4, 1), 0);
    EXPECT_EQ(is_more(u("a"), u("b"), 1, 0x10), 0);  // higher bits are ignored
}

TEST(KeyOrder, AgreesWithUnsignedComparison) {
    std::mt19937_64 rng(kt::test_seed(7));
    for (int round = 0; round < 2000; ++round) {
        int n = static_cast<int>(rng() % 6);
        std::vector<CmpType> a(n + 1), b(n + 1);
        for (int i = 0; i < n; ++i) {
            a[i] = static_cast<CmpType>(rng() % 3 + 0x7E);  // small alphabet around 0x7F/0x80
            b[i] = static_cast<CmpType>(rng() % 3 + 0x7E);
        }
        int c = n ? std::memcmp(a.data(), b.data(), n) : 0;
        EXPECT_EQ(is_more(a.data(), b.data(), n, 0), c >= 0 ? 1 : 0);
        EXPECT_EQ(is_more(a.data(), b.data(), n, 1), c > 0 ? 1 : 0);
        EXPECT_EQ(is_more(a.data(), b.data(), n, 2), c <= 0 ? 1 : 0);
        EXPECT_EQ(is_more(a.data(), b.data(), n, 3), c < 0 ? 1 : 0);
        EXPECT_EQ(is_same(reinterpret_cast<char*>(a.data()), reinterpret_cast<char*>(b.data()),
                          static_cast<short>(n)),
                  c == 0 ? 1 : 0);
    }
}

TEST(KeyBytes, SameTakesTheCountUnsigned) {
    EXPECT_EQ(is_same("x", "y", 0), 1);
    std::vector<char> a(65535, 'q'), b(65535, 'q');
    EXPECT_EQ(is_same(a.data(), b.data(), -1), 1);  // 65535 bytes
    b[65534] = 'r';
    EXPECT_EQ(is_same(a.data(), b.data(), -1), 0);
    EXPECT_EQ(is_same(a.data(), b.data(), 32767), 1);
}

TEST(KeyBytes, MoveAndPadHandleOverlapAndEmptyCounts) {
    char s[16] = "0123456789";
    is_movblk(s, s + 1, 10);
    EXPECT_EQ(std::string(s, 11), "00123456789");
    char t[16] = "0123456789";
    is_movblk(t + 1, t, 9);
    EXPECT_EQ(std::string(t, 10), "1234567899");
    is_movblk(t, t + 3, 0);
    is_movblk(t, t + 3, -1);
    EXPECT_EQ(std::string(t, 10), "1234567899");
    is_pad(t, 4, ' ');
    is_pad(t + 4, -2, 'x');
    EXPECT_EQ(std::string(t, 10), "    567899");
}

TEST(KeyBytes, PageCapacity) {
    EXPECT_EQ(bt_order(6, 1024), 101);
    EXPECT_EQ(bt_order(20, 1024), 42);
    EXPECT_EQ(bt_order(250, 1024), 4);
    EXPECT_EQ(bt_order(504, 1024), 2);
    EXPECT_EQ(bt_order(506, 1024), -1);
    EXPECT_EQ(bt_order(7, 1024), -1);
    EXPECT_EQ(bt_order(0, 1024), -1);
    EXPECT_EQ(bt_order(-2, 1024), -1);
}
