// String and buffer helpers: splitting, number buffers, hashes, checksum, bit sets,
// fills and substring edits, the edit-mask stripper.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <bitset>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kisam_test.h"

namespace {

std::vector<std::string> split(std::string line, const char *delims, int flags, int maxargs = 20) {
    std::vector<char> buf(line.begin(), line.end());
    buf.push_back('\0');
    std::vector<char *> argv(static_cast<size_t>(maxargs) + 1, reinterpret_cast<char *>(1));
    int n = ZTSplitArgs(buf.data(), argv.data(), maxargs, delims, flags);
    std::vector<std::string> out;
    for (int i = 0; i < n; ++i) out.emplace_back(argv[static_cast<size_t>(i)]);
    EXPECT_EQ(argv[static_cast<size_t>(n)], nullptr) << "array must end with a null pointer";
    return out;
}

using V = std::vector<std::string>;

TEST(Split, QuotesDelimitersAndFlags) {
    EXPECT_EQ(split("  abc   \"d e\" f", " \t", 0), (V{"abc", "d e", "f"}));
    EXPECT_EQ(split("a,,b", ",", 2), (V{"a", "", "b"}));
    EXPECT_EQ(split("a,,b,", ",", 2), (V{"a", "", "b"}));        // no trailing empty field
    EXPECT_EQ(split(",a", ",", 2), (V{"", "a"}));
    EXPECT_EQ(split("a:b", nullptr, 0), (V{"a", "b"}));
    EXPECT_EQ(split("a b", nullptr, 0), (V{"a b"}));               // blank is no default delimiter
    EXPECT_EQ(split("\"ab\"cd", " ", 0), (V{"ab", "cd"}));
    EXPECT_EQ(split("'x y", " ", 0), (V{"x y"}));                  // unclosed quote runs to the end
    EXPECT_EQ(split("k='a b' c", " ", 0), (V{"k='a b'", "c"}));    // protected stretch keeps quotes
    EXPECT_EQ(split("\"a b\" c", " ", 1), (V{"\"a", "b\"", "c"}));  // quotes ordinary
    EXPECT_EQ(split("\"a b\" c", " ", 4), (V{"\"a b\"", "c"}));    // leading quote kept
    EXPECT_EQ(split("a b c d", " ", 0, 3), (V{"a", "b"}));         // maxargs - 1 fields
    EXPECT_TRUE(split("", " ", 0).empty());
    EXPECT_TRUE(split("a b", " ", 0, 1).empty());
    EXPECT_TRUE(split(":::", nullptr, 0).empty());
}

TEST(Numbers, BigEndianBuffers) {
    unsigned char b[8];
    ToLBuf(b, 0x01020304);
    EXPECT_EQ(std::memcmp(b, "\x01\x02\x03\x04", 4), 0);
    const unsigned char m2[4] = {0xFF, 0xFF, 0xFF, 0xFE};
    EXPECT_EQ(FromLBuf(m2), -2);
    const unsigned char w[2] = {0x80, 0x00};
    EXPECT_EQ(FromWBuf(w), -32768);
    ToWBuf(b, 0x1234);
    EXPECT_EQ(b[0], 0x12);
    EXPECT_EQ(b[1], 0x34);
    ToL64Buf(b, -0x0102030405060708LL);
    EXPECT_EQ(FromL64Buf(b), -0x0102030405060708LL);
    ToL64Buf(b, 0x0102030405060708LL);
    EXPECT_EQ(b[0], 1);
    EXPECT_EQ(b[7], 8);

    char s[32];
    EXPECT_STREQ(ZTLtoA(42, s, 5), "   42");
    EXPECT_STREQ(ZTItoA(-7, s, 1), "-7");
    EXPECT_STREQ(ZTL64toA(1234567890123LL, s, 0), "1234567890123");
}

TEST(Hashes, KnownValuesAndSignedness) {
    EXPECT_EQ(ZTStringHash("ab"), 3105u);
    EXPECT_EQ(ZTStringHash(""), 0u);
    EXPECT_EQ(ZTICStringHash("ab"), ZTICStringHash("AB"));
    EXPECT_EQ(ZTICStringHash("AB"), 2081u);
    const unsigned char ff = 0xFF;
    EXPECT_EQ(ZTBufHash(&ff, 1), 255u);
    EXPECT_EQ(ZTStringHash("\xFF"), 0xFFFFFFFFu);
    EXPECT_EQ(ZTBufHash("ab", 2), ZTStringHash("ab"));
    EXPECT_EQ(ZTBufHash("ab", 0), 0u);

    const unsigned char one_two[2] = {1, 2};
    EXPECT_EQ(Fletcher16CSum(one_two, 2), 0x0403);
    unsigned char zeros[255] = {};
    EXPECT_EQ(Fletcher16CSum(zeros, 255), 0xFFFF);
    EXPECT_EQ(Fletcher16CSum(zeros, 0), 0xFFFF);
}

TEST(Bits, RandomizedAgainstBitset) {
    uint64_t seed = kt::test_seed(11);
    std::mt19937_64 rng(seed);
    unsigned char set[32] = {};
    std::bitset<256> model;
    for (int i = 0; i < 5000; ++i) {
        int n = static_cast<int>(rng() % 256);
        switch (rng() % 3) {
        case 0: ZTSetBit(set, n); model.set(static_cast<size_t>(n)); break;
        case 1: ZTClearBit(set, n); model.reset(static_cast<size_t>(n)); break;
        default: ASSERT_EQ(ZTGetBit(set, n), model.test(static_cast<size_t>(n)) ? 1 : 0) << "seed " << seed; break;
        }
    }
    for (int n = 0; n < 128; ++n) ASSERT_EQ(ZTGet128Bit(set, n), ZTGetBit(set, n)) << "seed " << seed;
    EXPECT_EQ(ZTGet128Bit(set, 128), 0);
    EXPECT_EQ(ZTGetBit(set, -1), 0);
    unsigned char s16[17] = {};
    ZTSet128Bit(s16, 128);
    ZTSet128Bit(s16, -1);
    EXPECT_EQ(s16[16], 0);
    ZTSet128Bit(s16, 9);
    EXPECT_EQ(s16[1], 2);
    uint32_t word = 0;
    SetLBit(&word, 33);
    SetLBit(&word, -1);
    EXPECT_EQ(word, 2u);
}

TEST(Text, FillsStripsAndCopies) {
    char b[64];
    std::strcpy(b, "ab");
    RightFill(b, '.', 5);
    EXPECT_STREQ(b, "ab...");
    std::strcpy(b, "abcdef");
    RightFill(b, '.', 5);
    EXPECT_STREQ(b, "abcdef");
    std::strcpy(b, "42");
    chlfillmem(b, 5, '0');
    EXPECT_STREQ(b, "00042");
    std::strcpy(b, "123456");
    chlfillmem(b, 5, '0');
    EXPECT_STREQ(b, "12345");
    std::strcpy(b, "  a b  ");
    StripBl(b);
    LStripBl(b);
    EXPECT_STREQ(b, "a b");

    EXPECT_STREQ(ZTStrNCopy(b, "abcdef", 4), "abc");
    EXPECT_EQ(ZTStringStripChars("a-b-c", "-", b, 3), 2);
    EXPECT_STREQ(b, "ab");
    EXPECT_EQ(ZTStringStripChars(nullptr, "-", b, 3), -1);
    std::strcpy(b, "a.b.c");
    EXPECT_EQ(ZTStringReplaceChar(b, '.', '/'), 2);
    EXPECT_STREQ(b, "a/b/c");
    EXPECT_EQ(ZTStringReplaceChar(nullptr, 'a', 'b'), -1);
    EXPECT_EQ(ZTIndex("abc", 'c'), 2);
    EXPECT_EQ(ZTIndex("", 'c'), -1);
    EXPECT_EQ(ZTStrAlloc(""), nullptr);
    char *copy = ZTStrAlloc("xyz");
    EXPECT_STREQ(copy, "xyz");
    ZTFree(copy);
    EXPECT_EQ(ZTAlloc(0), nullptr);

    EXPECT_EQ(equsub("ab", "abc"), 1);
    EXPECT_EQ(equsub("abc", "ab"), 0);
    EXPECT_EQ(ICEqusub("AB", "abc"), 1);
    EXPECT_EQ(issubstr("", "x"), 1);
    EXPECT_EQ(icissubstr("aB", "Abc"), 1);
    EXPECT_LT(cmpbuf("\x01", "\xF0", 1), 0);
    EXPECT_EQ(cmpbuf(nullptr, "a", 1), 0);
    lctouc(b, "aBc-1");
    EXPECT_STREQ(b, "ABC-1");
    uctolc(b, "aBc-1");
    EXPECT_STREQ(b, "abc-1");
}

TEST(Text, SubstringMoves) {
    char to[64];
    mvf_sstr("abcdef", to, 1, 3);
    EXPECT_STREQ(to, "bcd");
    mvf_sstr("abcdef", to, 4, 99);
    EXPECT_STREQ(to, "ef");
    mvf_sstr("abcdef", to, 3, 2);
    EXPECT_STREQ(to, "");
    mvf_sstr("abc", to, -1, 0);
    EXPECT_STREQ(to, "abc");

    std::strcpy(to, "abcdef");
    mvt_sstr("XY", to, 1, 3);
    EXPECT_STREQ(to, "aXYef");
    std::strcpy(to, "ab");
    mvt_sstr("XY", to, 4, 5);
    EXPECT_STREQ(to, "ab  XY");
    std::strcpy(to, "abc");
    mvt_sstr("Z", to, 2, 1);
    EXPECT_STREQ(to, "abc");

    char spread[8] = "abcdef";
    mvbytes(spread, spread + 1, 5);          // forward copy over itself
    EXPECT_STREQ(spread, "aaaaaa");
    char ov[16] = "0123456789";
    mvovbytes(ov, ov + 2, 8);
    EXPECT_STREQ(ov, "0101234567");
    unsigned char nb[2] = {0x0F, 0xFF};
    notbytes(nb, 2);
    EXPECT_EQ(nb[0], 0xF0);
    EXPECT_EQ(nb[1], 0x00);
}

TEST(Text, EditMaskStripping) {
    char out[64];
    ZT_stripfill("123-45-6789", "999-99-9999", out);
    EXPECT_STREQ(out, "123456789");
    ZT_stripfill("(555) 123-4567", "(999) 999-9999", out);
    EXPECT_STREQ(out, "5551234567");
    ZT_stripfill("12--34", "99-(2)99", out);       // a repeat count
    EXPECT_STREQ(out, "1234");
    ZT_stripfill("ab-cd", "\"-\"XX-XX", out);      // quoted literals contribute nothing
    EXPECT_STREQ(out, "abcd");
    ZT_stripfill("9a9", "9\\a9", out);             // escaped placeholder is a literal
    EXPECT_STREQ(out, "99");
    ZT_stripfill("", "999", out);
    EXPECT_STREQ(out, "");
    std::string longmask(2000, '-');
    ZT_stripfill("x", longmask.c_str(), out);      // fill list is cut, never overflows
    EXPECT_STREQ(out, "x");
}

TEST(Alloc, ZeroFilledGrowthReportAndAbortOnExhaustion) {
    uint32_t grown = 0xDEADBEEF;
    zt_uimaxumemp = &grown;
    std::vector<void *> blocks;
    for (int i = 0; i < 100; ++i) {
        auto p = static_cast<unsigned char *>(ZTAlloc(33));
        ASSERT_NE(p, nullptr);
        for (int j = 0; j < 34; ++j) ASSERT_EQ(p[j], 0) << "odd sizes are rounded up, zero-filled";
        blocks.push_back(p);
    }
    EXPECT_NE(grown, 0xDEADBEEFu);   // reported at the 100th allocation
    zt_uimaxumemp = nullptr;
    for (void *p : blocks) ZTFree(p);
    ZTFree(nullptr);
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer's allocator reports huge requests itself";
#else
    auto exhaust = [] {
        struct rlimit lim;
        lim.rlim_cur = lim.rlim_max = 256u << 20;
        ::setrlimit(RLIMIT_AS, &lim);
        ZTAlloc(0xFFFFFFFFu);
    };
    EXPECT_DEATH(exhaust(), "");
#endif
}

TEST(Paths, UrlAbsoluteAndFileTimes) {
    EXPECT_EQ(ZTPathIsURL("HTTPS://x"), 1);
    EXPECT_EQ(ZTPathIsURL("mailto:x"), 0);
    EXPECT_EQ(ZTPathIsAbsolute("/a"), 1);
    EXPECT_EQ(ZTPathIsAbsolute("a"), 0);
    EXPECT_NE(ZTFileGetMTime("/", "tmp"), 0u);
    EXPECT_NE(ZTFileGetCTime(nullptr, "/tmp"), 0u);
    EXPECT_EQ(ZTFileGetMTime("/", "no-such-file-here"), 0u);
    EXPECT_EQ(ZTFileGetMTime("/", ""), 0u);
}

}  // namespace
