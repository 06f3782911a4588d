// Parameter files (records, continuations, argument cracking) and configuration
// entry files (entries, comments, push-back, splitting).
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kisam_test.h"
#include "support_util.h"

namespace {

struct Rec {
    std::string id;
    bool has_value;
    std::string value;
    bool operator==(const Rec &o) const { return id == o.id && has_value == o.has_value && value == o.value; }
};

std::ostream &operator<<(std::ostream &os, const Rec &r) {
    return os << "{" << r.id << (r.has_value ? " = [" + r.value + "]" : " (none)") << "}";
}

std::vector<Rec> read_all(const std::string &path) {
    std::vector<Rec> out;
    EXPECT_EQ(ParmOpen(path.c_str()), 0);
    while (ParmRead() == 1) out.push_back({ParmID(), ParmValue() != nullptr, ParmValue() ? ParmValue() : ""});
    ParmOpen(nullptr);
    return out;
}

class ParmFile : public ::testing::Test {
protected:
    st::Sandbox box;
    std::string file = box.path("parms");
};

TEST_F(ParmFile, RecordSyntax) {
    st::write_file(file,
                   "tmp_dir /var/tmp\n"
                   "tmp_dir=/var/tmp\n"
                   "novalue\n"
                   "# comment\n"
                   " indented x\n"
                   "\n"
                   "_u\t\t tabbed  \n"
                   "blank_after   \n"
                   "a b \\\n"
                   "c\n"
                   "9digit x\n"
                   "last_no_newline v");
    std::vector<Rec> want = {{"tmp_dir", true, "/var/tmp"}, {"novalue", false, ""}, {"_u", true, "tabbed  "},
                             {"blank_after", false, ""},   {"a", true, "b c"},     {"last_no_newline", true, "v"}};
    EXPECT_EQ(read_all(file), want);
    st::write_file(file, "a 1\r\nnovalue\r\ncont x \\\r\ny\r\n");   // CR LF reads like LF
    EXPECT_EQ(read_all(file), (std::vector<Rec>{{"a", true, "1"}, {"novalue", false, ""}, {"cont", true, "x y"}}));
}

// Random records written with random separators, continuations and noise lines
// must read back exactly.
TEST_F(ParmFile, RandomizedRoundTrip) {
    uint64_t seed = kt::test_seed(5);
    std::mt19937_64 rng(seed);
    auto pick = [&](const std::string &set) { return set[rng() % set.size()]; };
    const std::string first = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
    const std::string rest = first + "0123456789";
    std::string printable;
    for (char c = ' '; c < 127; ++c)
        if (c != '\\') printable += c;
    const char *noise[] = {"# comment\n", "\n", "   indented value\n", "\tx y\n", "9lives x\n", "key=value\n",
                           "key:value\n"};
    for (int round = 0; round < 20; ++round) {
        std::vector<Rec> want;
        std::string text;
        for (int r = 0; r < 40; ++r) {
            if (rng() % 4 == 0) text += noise[rng() % 7];
            std::string id(1, pick(first));
            for (size_t n = rng() % 12; n > 0; --n) id += pick(rest);
            std::string value;
            size_t len = rng() % 5 == 0 ? 0 : 1 + rng() % 80;
            for (size_t n = 0; n < len; ++n) value += pick(printable);
            if (!value.empty() && value[0] == ' ') value[0] = 'v';
            std::string sep = rng() % 2 ? " " : "\t ";
            if (value.empty()) {
                text += id + (rng() % 2 ? sep : "") + "\n";
                want.push_back({id, false, ""});
                continue;
            }
            std::string line = value;
            if (rng() % 3 == 0) {   // a continuation inside the value
                size_t at = 1 + rng() % line.size();
                line = line.substr(0, at) + "\\\n" + line.substr(at);
            }
            text += id + sep + line + "\n";
            want.push_back({id, true, value});
        }
        st::write_file(file, text);
        ASSERT_EQ(read_all(file), want) << "seed " << seed << " round " << round;
    }
}

TEST_F(ParmFile, OverlongLinesAreCutNotSplit) {
    std::string longv(3000, 'v');
    st::write_file(file, "k " + longv + "\nnext 1\n" + "j a\\\n" + std::string(2000, 'w') + "\nafter 2\n");
    auto recs = read_all(file);
    ASSERT_EQ(recs.size(), 4u);
    EXPECT_EQ(recs[0].id, "k");
    EXPECT_LT(recs[0].value.size(), 1023u);
    EXPECT_EQ(recs[1], (Rec{"next", true, "1"}));
    EXPECT_EQ(recs[2].id, "j");
    EXPECT_EQ(recs[3], (Rec{"after", true, "2"}));
}

TEST_F(ParmFile, ReaderStates) {
    ParmOpen(nullptr);
    EXPECT_EQ(ParmRead(), -2);
    EXPECT_NE(ParmOpen(box.path("missing").c_str()), 0);
    EXPECT_EQ(ParmRead(), -2);
    st::write_file(file, "x 1\n");
    ASSERT_EQ(ParmOpen(file.c_str()), 0);
    EXPECT_EQ(ParmRead(), 1);
    EXPECT_EQ(ParmRead(), 0);
    EXPECT_EQ(ParmOpen(nullptr), 0);
}

TEST_F(ParmFile, ArgumentCracking) {
    st::write_file(file,
                   "r1 abc 12 \"x y\" +=5\n"
                   "r2 0x10 08 010 12ab 0x1F -5 99999999999\n"
                   "r3 'a\\'b' \"\\101\\x41\\xg\\t\\n\\\\\" \"open\n"
                   "r4 \"tail\\\n"
                   "r5\n");
    ASSERT_EQ(ParmOpen(file.c_str()), 0);

    ASSERT_EQ(ParmRead(), 1);
    ASSERT_EQ(ParmArgc(), 5);
    const char *want1[] = {"abc", "12", "x y", "+=", "5"};
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(ParmArgvS(i), want1[i]) << i;
    EXPECT_EQ(ParmArgvN(1), 12);
    EXPECT_EQ(ParmArgvN(4), 5);
    EXPECT_EQ(ParmArgvN(0), INT32_MIN);
    EXPECT_EQ(ParmArgvSl(2), 3);
    EXPECT_EQ(ParmArgvS(5), nullptr);
    EXPECT_EQ(ParmArgvS(50), nullptr);
    EXPECT_EQ(ParmArgvS(-1), nullptr);
    EXPECT_EQ(ParmArgvSl(-1), -1);
    EXPECT_EQ(ParmArgvN(99), INT32_MIN);

    ASSERT_EQ(ParmRead(), 1);
    ASSERT_EQ(ParmArgc(), 8);
    EXPECT_EQ(ParmArgvN(0), 16);
    EXPECT_EQ(ParmArgvN(1), INT32_MIN);   // 08 is no octal number
    EXPECT_EQ(ParmArgvN(2), 8);
    EXPECT_EQ(ParmArgvN(3), INT32_MIN);
    EXPECT_EQ(ParmArgvN(4), 31);
    EXPECT_STREQ(ParmArgvS(5), "-");
    EXPECT_EQ(ParmArgvN(6), 5);
    EXPECT_EQ(ParmArgvN(7), INT32_MIN);   // beyond 32 bits

    ASSERT_EQ(ParmRead(), 1);
    ASSERT_EQ(ParmArgc(), 3);
    EXPECT_STREQ(ParmArgvS(0), "a'b");
    EXPECT_STREQ(ParmArgvS(1), "AAxgt\n\\");
    EXPECT_STREQ(ParmArgvS(2), "open");

    ASSERT_EQ(ParmRead(), 1);   // continued onto r5's line
    EXPECT_STREQ(ParmID(), "r4");
    ParmOpen(nullptr);
}

TEST_F(ParmFile, CrackingIsBounded) {
    std::string v;
    for (int i = 0; i < 300; ++i) v += "a+";   // 600 tokens
    st::write_file(file, "many " + v + "\nwords " + std::string(1000, 'x') + "\n");
    ASSERT_EQ(ParmOpen(file.c_str()), 0);
    ASSERT_EQ(ParmRead(), 1);
    EXPECT_EQ(ParmArgc(), 50);
    EXPECT_STREQ(ParmArgvS(49), "+");
    ASSERT_EQ(ParmRead(), 1);
    EXPECT_EQ(ParmArgc(), 1);
    EXPECT_EQ(ParmArgvSl(0), 1000);
    ParmOpen(nullptr);
}

TEST_F(ParmFile, ConfigurationEntries) {
    st::write_file(file,
                   "  lead 0\n"
                   "A 1\n"
                   "  B 2   # trailing comment\n"
                   "\n"
                   "# whole-line comment\n"
                   "   \t\n"
                   "C 3\n"
                   "D \"x:y\":z\n");
    ZTConfigInfo *ci = ZTCFOpen(file.c_str());
    ASSERT_NE(ci, nullptr);
    EXPECT_STREQ(ZTCFGetEntry(ci), "lead 0\n");
    EXPECT_STREQ(ZTCFGetEntry(ci), "A 1\nB 2\n");
    char *argv[8];
    EXPECT_EQ(ZTCFParseEntry(ci, argv, 8, " \n"), 4);
    EXPECT_STREQ(argv[3], "2");
    EXPECT_EQ(ZTCFParseEntry(ci, argv, 8, " \n"), -1);
    EXPECT_STREQ(ZTCFGetEntry(ci), "C 3\n");
    EXPECT_EQ(ZTCFGetParsedEntry(ci, argv, 8, nullptr), 2);
    EXPECT_STREQ(argv[0], "D \"x:y\"");
    EXPECT_STREQ(argv[1], "z");
    EXPECT_EQ(ZTCFGetEntry(ci), nullptr);
    EXPECT_EQ(ZTCFGetParsedEntry(ci, argv, 8, nullptr), -1);
    ZTCFClose(ci);
    EXPECT_EQ(ZTCFOpen(box.path("missing").c_str()), nullptr);
}

TEST_F(ParmFile, ConfigurationLinesAndPushBack) {
    st::write_file(file, "one\ntwo\n");
    ZTConfigInfo *ci = ZTCFOpen(file.c_str());
    ASSERT_NE(ci, nullptr);
    EXPECT_STREQ(ZTCFGetLine(ci), "one\n");
    ZTCFUngetLine(ci);
    ZTCFUngetLine(ci);   // only the last line read can be pushed back, once
    EXPECT_STREQ(ZTCFGetLine(ci), "one\n");
    EXPECT_STREQ(ZTCFGetLine(ci), "two\n");
    EXPECT_EQ(ZTCFGetLine(ci), nullptr);
    ZTCFClose(ci);
}

TEST_F(ParmFile, OversizedEntryIsCut) {
    std::string text = "E start\n";
    for (int i = 0; i < 400; ++i) text += "  " + std::string(40, 'c') + "\n";
    text += "F next\n";
    st::write_file(file, text);
    ZTConfigInfo *ci = ZTCFOpen(file.c_str());
    ASSERT_NE(ci, nullptr);
    const char *e = ZTCFGetEntry(ci);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e).size(), 8191u);
    EXPECT_STREQ(ZTCFGetEntry(ci), "F next\n");
    ZTCFClose(ci);
}

}  // namespace
