// String and buffer helpers: splitting, number buffers, hashes, checksum, bit sets,
// settings lists and the escape conversion; message output.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <bitset>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <strings.h>
#include <utility>
#include <vector>

#include "kisam_test.h"

namespace {

using V = std::vector<std::string>;

V split(std::string line, const char *delims, int flags, int maxargs = 20) {
    std::vector<char *> argv(static_cast<size_t>(maxargs) + 1, reinterpret_cast<char *>(1));
    int n = ZTSplitArgs(line.data(), argv.data(), maxargs, delims, flags);
    EXPECT_EQ(argv[static_cast<size_t>(n)], nullptr) << "array must end with a null pointer";
    return V(argv.begin(), argv.begin() + n);
}

TEST(Split, QuotesDelimitersAndFlags) {
    EXPECT_EQ(split("  abc   \"d e\" f", " \t", 0), (V{"abc", "d e", "f"}));
    EXPECT_EQ(split(",a,,b,", ",", 2), (V{"", "a", "", "b"}));    // empty fields, none trailing
    EXPECT_EQ(split("a:b c", nullptr, 0), (V{"a", "b c"}));
    EXPECT_EQ(split("'x y", " ", 0), (V{"x y"}));                  // unclosed quote runs to the end
    EXPECT_EQ(split("k='a b' c", " ", 0), (V{"k='a b'", "c"}));
    EXPECT_EQ(split("\"a b\" c", " ", 1), (V{"\"a", "b\"", "c"}));  // quotes ordinary
    EXPECT_EQ(split("\"a b\" c", " ", 4), (V{"\"a b\"", "c"}));    // leading quote kept
    EXPECT_EQ(split("a b c d", " ", 0, 3), (V{"a", "b"}));
}

TEST(Numbers, BigEndianBuffersAndText) {
    unsigned char b[8];
    ToLBuf(b, 0x01020304);
    EXPECT_EQ(std::memcmp(b, "\x01\x02\x03\x04", 4), 0);
    EXPECT_EQ(FromLBuf(reinterpret_cast<const unsigned char *>("\xFF\xFF\xFF\xFE")), -2);
    EXPECT_EQ(FromWBuf(reinterpret_cast<const unsigned char *>("\x80\x00")), -32768);
    ToL64Buf(b, -0x0102030405060708LL);
    EXPECT_EQ(std::memcmp(b, "\xFE\xFD\xFC\xFB\xFA\xF9\xF8\xF8", 8), 0);
    EXPECT_EQ(FromL64Buf(b), -0x0102030405060708LL);
    char s[32];
    EXPECT_STREQ(ZTLtoA(42, s, 5), "   42");
}

TEST(Hashes, KnownValuesSignednessAndChecksum) {
    EXPECT_EQ(ZTStringHash("ab"), 3105u);
    EXPECT_EQ(ZTICStringHash("ab"), 2081u);
    EXPECT_EQ(ZTICStringHash("AB"), 2081u);
    EXPECT_EQ(ZTStringHash("\xFF"), 0xFFFFFFFFu);   // characters are signed
    // From 0x80 up the case-blind hash takes the C library's upper-case form of the
    // signed character: in the C locale toupper(-3) is 253, so 0xFD adds 253, not -3.
    EXPECT_EQ(ZTICStringHash("\xFD"), 253u);
    EXPECT_EQ(ZTICStringHash("a\xFD\x80"), (65u * 31u + 253u) * 31u + 128u);
    for (int b = 1; b < 256; ++b) {
        const char one[2] = {static_cast<char>(b), 0};
        ASSERT_EQ(ZTICStringHash(one), static_cast<uint32_t>(std::toupper(static_cast<signed char>(b)))) << b;
    }
    EXPECT_EQ(ZTBufHash("\xFF", 1), 255u);          // bytes are not
    const unsigned char one_two[2] = {1, 2};
    EXPECT_EQ(Fletcher16CSum(one_two, 2), 0x0403);
    unsigned char zeros[255] = {};
    EXPECT_EQ(Fletcher16CSum(zeros, 255), 0xFFFF);
    // Sums past 255 (the modulus is 255, not 256).
    EXPECT_EQ(Fletcher16CSum("abcde", 5), 0xC8F0);
    EXPECT_EQ(Fletcher16CSum("abcdef", 6), 0x2057);
}

TEST(Compare, CaseBlindOrderAndPrefixes) {
    EXPECT_LT(ICStrcmp("abc", "ABD"), 0);
    EXPECT_GT(ICStrcmp("b", "A"), 0);
    EXPECT_GT(ICStrcmp("abc", "AB"), 0);
    EXPECT_EQ(ICStrcmp("Abc", "aBC"), 0);
    EXPECT_EQ(equsub("abc", "abc"), 1);   // a prefix may be the whole text
    EXPECT_EQ(equsub("ab", "abc"), 1);
    EXPECT_EQ(equsub("abcd", "abc"), 0);
    EXPECT_EQ(equsub("abd", "abc"), 0);
    EXPECT_LT(cmpbuf("ab\x01", "ab\x80", 3), 0);   // bytes compare unsigned, first by first
    EXPECT_GT(cmpbuf("b", "a", 1), 0);
    EXPECT_EQ(cmpbuf("abX", "abY", 2), 0);
}

TEST(Bits, RandomizedAgainstBitset) {
    uint64_t seed = kt::test_seed(11);
    std::mt19937_64 rng(seed);
    unsigned char set[32] = {};
    std::bitset<256> model;
    for (int i = 0; i < 5000; ++i) {
        int n = static_cast<int>(rng() % 256);
        auto k = static_cast<size_t>(n);
        switch (rng() % 3) {
        case 0: ZTSetBit(set, n); model.set(k); break;
        case 1: ZTClearBit(set, n); model.reset(k); break;
        default: ASSERT_EQ(ZTGetBit(set, n), model.test(k) ? 1 : 0) << "seed " << seed;
        }
    }
    for (int n = 0; n < 128; ++n) ASSERT_EQ(ZTGet128Bit(set, n), ZTGetBit(set, n)) << "seed " << seed;
    EXPECT_EQ(ZTGet128Bit(set, 128), 0);
    unsigned char s16[17] = {};
    ZTSet128Bit(s16, 128);
    EXPECT_EQ(s16[16], 0);
    uint32_t word = 0;
    SetLBit(&word, 33);
    EXPECT_EQ(word, 2u);
}

// Keys match without regard to case; a record keeps its place when replaced; quoted
// values are converted.
TEST(ValList, RandomizedAgainstModel) {
    uint64_t seed = kt::test_seed(7);
    std::mt19937_64 rng(seed);
    const char *pool[] = {"a", "A", "b", "key", "KEY", "Key", "x_1", "X_1", "long_key_name"};
    const char *values[][2] = {{"1", "1"}, {"", ""}, {"'a\\tb'", "a\tb"}, {"'abc\"", "'abc\""}, {"\"\"", ""}, {"'", "'"}};
    std::vector<std::pair<std::string, std::string>> model;   // insertion order, one per key
    ValList *h = nullptr;
    for (int i = 0; i < 3000; ++i) {
        std::string k = pool[rng() % 9];
        auto it = model.begin();
        while (it != model.end() && ::strcasecmp(it->first.c_str(), k.c_str()) != 0) ++it;
        const char *got = getvlp(h, k.c_str());
        ASSERT_EQ(got != nullptr, it != model.end()) << "seed " << seed << " step " << i;
        if (got) { ASSERT_EQ(got, it->second) << "seed " << seed << " step " << i; }
        auto &v = values[rng() % 6];
        std::string in = v[0];
        ASSERT_EQ(addvl(&h, k.c_str(), in.data()), 0);
        if (it != model.end()) it->second = v[1];
        else model.emplace_back(k, v[1]);
    }
    size_t n = 0;
    for (ValList *p = h; p; p = p->next, ++n)
        ASSERT_EQ(::strcasecmp(reinterpret_cast<const char *>(p) + offsetof(ValList, key), model[n].first.c_str()), 0);
    EXPECT_EQ(n, model.size()) << "seed " << seed;
    emptyvl(&h);
}

TEST(ConvLine, EscapesCaretsAndWarnings) {
    char out[64];
    convline(out, "\\a\\B\\E\\n\\R\\t\\V\\\\\\^^A");
    EXPECT_STREQ(out, "\a\b\x1b\n\r\t\v\\^\x01");
    convline(out, "^c^@^Z");
    EXPECT_STREQ(out, "\x03");   // ^@ is NUL: the text ends there
    EXPECT_EQ(convlineverify(out, "^1^2ab\\"), 3);
    EXPECT_STREQ(out, "^1^2ab\\");
    char inplace[] = "a\\tb^Ic";
    EXPECT_EQ(convline(inplace, inplace), 5);
    EXPECT_STREQ(inplace, "a\tb\tc");
}

// Blanks go from the end (StripBl) or the front (LStripBl), all of them, also when the
// text is nothing else.
TEST(Blanks, StripEndsAndAllBlankTexts) {
    char a[] = "a b  ", b[] = "   ", c[] = "  a b ", d[] = "";
    StripBl(a);
    StripBl(b);
    LStripBl(c);
    StripBl(d);
    EXPECT_STREQ(a, "a b");
    EXPECT_STREQ(b, "");
    EXPECT_STREQ(c, "a b ");
    EXPECT_STREQ(d, "");
}

TEST(Messages, OneLineEachAndCut) {
    EXPECT_EQ(kt::capture_output(1, [] { VMsg("abc"); VMsg("%s-%d\n", "x", 5); }), "abc\nx-5\n");
    std::string longtext(2000, 'z');
    std::string out = kt::capture_output(2, [&] { VError("%s", longtext.c_str()); });
    EXPECT_EQ(out, longtext.substr(0, 1022) + "\n");
}

}  // namespace
