// Parameter files (records, continuations, argument cracking, line limits) and
// configuration entry files (entries, comments, splitting).
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "kisam_test.h"
#include "support_util.h"

namespace {

// Each record as "id=value", or "id" alone when it has no value.
std::vector<std::string> read_all(const std::string &path) {
    std::vector<std::string> out;
    EXPECT_EQ(ParmOpen(path.c_str()), 0);
    while (ParmRead() == 1) out.push_back(std::string(ParmID()) + (ParmValue() ? std::string("=") + ParmValue() : ""));
    ParmOpen(nullptr);
    return out;
}

class ParmFile : public ::testing::Test {
protected:
    st::Sandbox box;
    std::string file = box.path("parms");
};

// Random records with random separators, continuations and noise lines read back exactly.
TEST_F(ParmFile, RandomizedRoundTrip) {
    uint64_t seed = kt::test_seed(5);
    std::mt19937_64 rng(seed);
    auto pick = [&](const std::string &set) { return set[rng() % set.size()]; };
    const std::string first = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_", rest = first + "0123456789";
    std::string printable;
    for (char c = ' '; c < 127; ++c) if (c != '\\') printable += c;
    const char *noise[] = {"# comment\n", "\n", "   indented value\n", "\tx y\n", "9lives x\n", "key=value\n"};
    for (int round = 0; round < 20; ++round) {
        std::vector<std::string> want;
        std::string text;
        for (int r = 0; r < 40; ++r) {
            if (rng() % 4 == 0) text += noise[rng() % 6];
            std::string id(1, pick(first)), value;
            for (size_t n = rng() % 12; n > 0; --n) id += pick(rest);
            for (size_t n = rng() % 5 == 0 ? 0 : 1 + rng() % 80; n > 0; --n) value += pick(printable);
            if (!value.empty() && value[0] == ' ') value[0] = 'v';
            std::string sep = rng() % 2 ? " " : "\t ", line = value, eol = rng() % 2 ? "\n" : "\r\n";
            if (!line.empty() && rng() % 3 == 0) {   // a continuation inside the value
                size_t at = 1 + rng() % line.size();
                line = line.substr(0, at) + "\\" + eol + line.substr(at);
            }
            text += id + (line.empty() ? (rng() % 2 ? sep : "") : sep + line) + eol;
            want.push_back(value.empty() ? id : id + "=" + value);
        }
        st::write_file(file, text);
        ASSERT_EQ(read_all(file), want) << "seed " << seed << " round " << round;
    }
}

TEST_F(ParmFile, LineLimits) {
    const std::string full = "key " + std::string(1019, 'v');   // 1023 characters: kept whole
    st::write_file(file, full + "\nk " + std::string(3000, 'w') + "\nnext 1\nlast \t ");
    auto recs = read_all(file);
    ASSERT_EQ(recs.size(), 4u);
    EXPECT_EQ(recs[0], "key=" + full.substr(4));
    EXPECT_EQ(recs[1].substr(0, 2), "k=");   // an over-long line is cut, not split
    EXPECT_LT(recs[1].size(), 1025u);
    EXPECT_EQ(recs[2], "next=1");
    EXPECT_EQ(recs[3], "last=");   // trailing blanks up to the end of the file: an empty value
}

TEST_F(ParmFile, ArgumentCracking) {
    st::write_file(file, "r1 abc 12 \"x y\" +=5\n"
                         "r2 0x10 08 010 12ab -5 99999999999\n"
                         "r3 'a\\'b' \"\\101\\x41\\x6a\\xg\\t\\n\\\\\" \"open\n");
    ASSERT_EQ(ParmOpen(file.c_str()), 0);
    ASSERT_EQ(ParmRead(), 1);
    ASSERT_EQ(ParmArgc(), 5);
    const char *want1[] = {"abc", "12", "x y", "+=", "5"};
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(ParmArgvS(i), want1[i]) << i;
    ASSERT_EQ(ParmRead(), 1);
    const int want2[] = {16, INT32_MIN, 8, INT32_MIN, INT32_MIN, 5, INT32_MIN};   // "-" and "5" apart
    ASSERT_EQ(ParmArgc(), 7);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(ParmArgvN(i), want2[i]) << i;
    ASSERT_EQ(ParmRead(), 1);
    const char *want3[] = {"a'b", "AAjxgt\n\\", "open"};
    ASSERT_EQ(ParmArgc(), 3);
    for (int i = 0; i < 3; ++i) EXPECT_STREQ(ParmArgvS(i), want3[i]) << i;
    ParmOpen(nullptr);
}

TEST_F(ParmFile, ConfigurationEntries) {
    st::write_file(file, "A 1\n  B 2   # trailing comment\n\n# whole-line comment\n   \t\nD \"x:y\":z\n");
    ZTConfigInfo *ci = ZTCFOpen(file.c_str());
    ASSERT_NE(ci, nullptr);
    char *argv[8];
    EXPECT_STREQ(ZTCFGetEntry(ci), "A 1\nB 2\n");
    EXPECT_EQ(ZTCFParseEntry(ci, argv, 8, " \n"), 4);
    EXPECT_STREQ(argv[3], "2");
    EXPECT_EQ(ZTCFGetParsedEntry(ci, argv, 8, nullptr), 2);
    EXPECT_STREQ(argv[0], "D \"x:y\"");
    EXPECT_STREQ(argv[1], "z");
    EXPECT_EQ(ZTCFGetEntry(ci), nullptr);
    ZTCFClose(ci);
}

}  // namespace
