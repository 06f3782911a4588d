// The support library: strings, numbers, hashes, bit sets and settings lists; the
// settings store; file operations; parameter files; mutexes.
#include "kisam_test.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <bitset>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <kisam/ztsupport.h>
#include <random>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#define CHILD_CHECK(cond) \
    do { if (!(cond)) { std::fprintf(stderr, "child check failed at line %d: %s\n", __LINE__, #cond); return 1; } } while (0)

namespace {

// home/ and q9/ in a temporary directory; HOME, HOME_Q9 and PROFILEQ9ENV point there.
struct Sandbox {
    std::string dir = [] { char t[] = "/tmp/kisam-sup-XXXXXX"; return std::string(::mkdtemp(t) ? t : "/nonexistent"); }();
    Sandbox() {
        for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
            ::setenv(var, (dir + sub).c_str(), 1);
        std::filesystem::create_directories(home());
        std::filesystem::create_directories(q9());
    }
    ~Sandbox() { std::error_code ec; std::filesystem::remove_all(dir, ec); }
    std::string home() const { return dir + "/home"; }
    std::string q9() const { return dir + "/q9"; }
    std::string path(const std::string &name) const { return dir + "/" + name; }
};

bool exists(const std::string &path) { struct stat s; return ::lstat(path.c_str(), &s) == 0; }
bool is_dir(const std::string &path) { struct stat s; return ::stat(path.c_str(), &s) == 0 && S_ISDIR(s.st_mode); }
int mode_of(const std::string &p) { struct stat s; return ::stat(p.c_str(), &s) == 0 ? static_cast<int>(s.st_mode & 07777) : -1; }

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
    // Signed characters for the string hashes (toupper(-3) is 253), unsigned bytes for
    // the buffer hash.
    const struct { uint32_t (*hash)(const char *); const char *text; uint32_t want; } strings[] = {
        {ZTStringHash, "ab", 3105u}, {ZTICStringHash, "ab", 2081u}, {ZTICStringHash, "AB", 2081u},
        {ZTStringHash, "\xFF", 0xFFFFFFFFu}, {ZTICStringHash, "\xFD", 253u},
        {ZTICStringHash, "a\xFD\x80", (65u * 31u + 253u) * 31u + 128u}};
    for (const auto &c : strings) EXPECT_EQ(c.hash(c.text), c.want) << c.text;
    for (int b = 1; b < 256; ++b) {
        const char one[2] = {static_cast<char>(b), 0};
        ASSERT_EQ(ZTICStringHash(one), static_cast<uint32_t>(std::toupper(static_cast<signed char>(b)))) << b;
    }
    EXPECT_EQ(ZTBufHash("\xFF", 1), 255u);
    // Fletcher-16, with sums past 255 (the modulus is 255, not 256).
    const unsigned char zeros[255] = {};
    const struct { const void *buf; int n; int want; } sums[] = {
        {"\x01\x02", 2, 0x0403}, {zeros, 255, 0xFFFF}, {"abcde", 5, 0xC8F0}, {"abcdef", 6, 0x2057}};
    for (const auto &c : sums) EXPECT_EQ(Fletcher16CSum(c.buf, c.n), c.want) << c.n;
}

TEST(Compare, CaseBlindOrderAndPrefixes) {
    const auto sign = [](int v) { return (v > 0) - (v < 0); };
    const struct { int got, want; const char *what; } cases[] = {
        {sign(ICStrcmp("abc", "ABD")), -1, "abc ABD"}, {sign(ICStrcmp("b", "A")), 1, "b A"},
        {sign(ICStrcmp("abc", "AB")), 1, "abc AB"}, {ICStrcmp("Abc", "aBC"), 0, "Abc aBC"},
        {equsub("abc", "abc"), 1, "a prefix may be the whole text"}, {equsub("ab", "abc"), 1, "ab abc"},
        {equsub("abcd", "abc"), 0, "abcd abc"}, {equsub("abd", "abc"), 0, "abd abc"},
        {sign(cmpbuf("ab\x01", "ab\x80", 3)), -1, "unsigned"}, {sign(cmpbuf("b", "a", 1)), 1, "b a"},
        {cmpbuf("abX", "abY", 2), 0, "only n bytes"}};
    for (const auto &c : cases) EXPECT_EQ(c.got, c.want) << c.what;
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

// Case-blind keys; a replaced record keeps its place; quoted values are converted.
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
        if (rng() % 4 == 0) {   // a value handed over as it stands (no escapes), then owned
            char *own = ZTStrAlloc("o'wn\\t");
            const int rc = repvl(&h, k.c_str(), own, 6);
            ASSERT_EQ(rc, it != model.end() ? 0 : -1) << "seed " << seed << " step " << i;
            if (rc == 0) it->second = own;
            else ZTFree(own);
            continue;
        }
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

TEST(Blanks, StripEndsAndAllBlankTexts) {
    const struct { void (*strip)(char *); const char *in, *out; } cases[] = {
        {StripBl, "a b  ", "a b"}, {StripBl, "   ", ""}, {LStripBl, "  a b ", "a b "}, {StripBl, "", ""}};
    for (const auto &c : cases) {
        std::string text = c.in;
        c.strip(text.data());
        EXPECT_STREQ(text.c_str(), c.out) << '"' << c.in << '"';
    }
}

// Edit masks: the literals outside quotes (escaped or repeated ones too) come out of the
// value, in order; a stripped copy keeps within its room.
TEST(Blanks, MasksAndStrippedCharacters) {
    const struct { const char *value, *mask, *out; } masks[] = {
        {"123-45-6789", "999-99-9999", "123456789"}, {"(12) 345", "\\(99\\) 999", "12345"},
        {"a--b-c", "X-(2)X-X", "abc"}, {"1--2", "\"-\"9-9", "1-2"}, {"12-3", "9(2)-9", "123"}, {"", "9-9", ""}};
    for (const auto &m : masks) {
        char out[32] = "junk";
        ZT_stripfill(m.value, m.mask, out);
        EXPECT_STREQ(out, m.out) << m.value << " " << m.mask;
    }
    char out[8];
    EXPECT_EQ(ZTStringStripChars("a-b-c-d", "-", out, 3), 2);
    EXPECT_STREQ(out, "ab");
}

// The text helpers against std::string models on random texts; the seed is printed.
TEST(Text, FillsSubstringsCaseAndSearchAgainstAModel) {
    const unsigned seed = static_cast<unsigned>(kt::test_seed(20261127u));
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    std::mt19937 rng(seed);
    auto text = [&](int most) {
        std::string t;
        for (int n = static_cast<int>(rng() % static_cast<unsigned>(most + 1)); n > 0; --n) t += "aZb. Q"[rng() % 6];
        return t;
    };
    auto num = [&](int lo, int hi) { return lo + static_cast<int>(rng() % static_cast<unsigned>(hi - lo + 1)); };
    for (int round = 0; round < 2000; ++round) {
        const std::string a = text(12), b = text(12);
        const int first = num(-2, 14), last = num(-2, 14), n = num(-1, 14);
        SCOPED_TRACE("a=\"" + a + "\" b=\"" + b + "\" first=" + std::to_string(first) + " last=" + std::to_string(last) +
                     " n=" + std::to_string(n));
        std::vector<char> buf(64, '\x7f');
        auto set = [&](const std::string &t) { std::memcpy(buf.data(), t.c_str(), t.size() + 1); };
        auto got = [&] { return std::string(buf.data()); };

        std::string want = first < 0 ? a : first > last || first >= int(a.size()) ? "" : a.substr(size_t(first), size_t(last - first + 1));
        mvf_sstr(a.c_str(), buf.data(), first, last);
        EXPECT_EQ(got(), want) << "mvf_sstr";

        set(b);
        if (first < 0) want = a;
        else if (first > last) want = b;
        else want = b.substr(0, size_t(first)) + std::string(size_t(std::max(0, first - int(b.size()))), ' ') + a +
                    (last + 1 < int(b.size()) ? b.substr(size_t(last + 1)) : "");
        mvt_sstr(a.c_str(), buf.data(), first, last);
        EXPECT_EQ(got(), want) << "mvt_sstr";

        set(a);
        RightFill(buf.data(), '.', n);
        EXPECT_EQ(got(), n >= 1 && int(a.size()) < n ? a + std::string(size_t(n) - a.size(), '.') : a) << "RightFill";
        set(a);
        BlFill(buf.data(), n);
        EXPECT_EQ(got(), n >= 1 && int(a.size()) < n ? a + std::string(size_t(n) - a.size(), ' ') : a) << "BlFill";
        if (n >= 0) {
            set(a);
            chlfillmem(buf.data(), n, '0');
            EXPECT_EQ(got(), int(a.size()) >= n ? a.substr(0, size_t(n)) : std::string(size_t(n) - a.size(), '0') + a) << "chlfillmem";
        }

        std::string lower = a, upper = a, swapped = a;
        for (char &c : lower) c = c >= 'A' && c <= 'Z' ? char(c + 32) : c;
        for (char &c : upper) c = c >= 'a' && c <= 'z' ? char(c - 32) : c;
        uctolc(buf.data(), a.c_str());
        EXPECT_EQ(got(), lower) << "uctolc";
        lctouc(buf.data(), a.c_str());
        EXPECT_EQ(got(), upper) << "lctouc";
        set(a);
        EXPECT_EQ(ZTStringReplaceChar(buf.data(), 'a', '#'), int(std::count(a.begin(), a.end(), 'a')));
        std::replace(swapped.begin(), swapped.end(), 'a', '#');
        EXPECT_EQ(got(), swapped) << "ZTStringReplaceChar";
        set(a);
        chconv(buf.data(), 'a', '#');
        EXPECT_EQ(got(), swapped) << "chconv";

        const size_t at = a.find('Z');
        EXPECT_EQ(ZTIndex(a.c_str(), 'Z'), at == std::string::npos ? -1 : int(at));
        EXPECT_EQ(issubstr(a.c_str(), b.c_str()), b.compare(0, a.size(), a) == 0 ? 1 : 0);
        EXPECT_EQ(icissubstr(a.c_str(), b.c_str()), upper.size() <= b.size() && strncasecmp(a.c_str(), b.c_str(), a.size()) == 0 ? 1 : 0);
    }
    EXPECT_EQ(ZTStringReplaceChar(nullptr, 'a', 'b'), -1);
}

// Byte moves, number formatting and file times.
TEST(Text, BytesNumbersAndFileTimes) {
    char b[16] = "abcdefgh";
    mvovbytes(b, b + 2, 6);   // overlapping: the bytes as they were
    EXPECT_STREQ(b, "ababcdef");
    mvbytes(b, b, 4);
    notbytes(b, 2);
    EXPECT_EQ(static_cast<unsigned char>(b[0]), 0xFFu ^ 'a');
    notbytes(b, 2);
    chfillmem(b, 3, 'x');
    EXPECT_STREQ(b, "xxxbcdef");
    nullmem(b + 4, 1);
    EXPECT_STREQ(b, "xxxb");
    char n[32];
    EXPECT_STREQ(ZTItoA(-42, n, 5), "  -42");
    EXPECT_STREQ(ZTLongtoA(int64_t(1) << 40, n, 3), "1099511627776");
    EXPECT_STREQ(ZTL64toA(-7, n, 0), "-7");
    Sandbox box;
    std::FILE *f = std::fopen(box.path("t").c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    struct stat st;
    ASSERT_EQ(::stat(box.path("t").c_str(), &st), 0);
    EXPECT_EQ(ZTFileGetMTime(box.dir.c_str(), "t"), uint32_t(st.st_mtime));
    EXPECT_EQ(ZTFileGetCTime(nullptr, box.path("t").c_str()), uint32_t(st.st_ctime));
    EXPECT_EQ(ZTFileGetMTime("/nonexistent", box.path("t").c_str()), uint32_t(st.st_mtime)) << "an absolute name ignores dir";
    EXPECT_EQ(ZTFileGetMTime(box.dir.c_str(), "absent"), 0u);
    EXPECT_EQ(ZTFileGetCTime(box.dir.c_str(), ""), 0u);
    EXPECT_EQ(ZTFileGetCTime(box.dir.c_str(), std::string(600, 'x').c_str()), 0u);
    EXPECT_EQ(ZTPathIsAbsolute("/a"), 1);
    EXPECT_EQ(ZTPathIsAbsolute("a/"), 0);
}

TEST(Messages, OneLineEachAndCut) {
    EXPECT_EQ(kt::capture_output(1, [] { VMsg("abc"); VMsg("%s-%d\n", "x", 5); }), "abc\nx-5\n");
    std::string longtext(2000, 'z');
    std::string out = kt::capture_output(2, [&] { VError("%s", longtext.c_str()); });
    EXPECT_EQ(out, longtext.substr(0, 1022) + "\n");
}

// The settings store loads once per process: each check runs in a child.

bool eq(const char *a, const std::string &b) { return a != nullptr && b == a; }

class EnvStore : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char *v : {"ZT_APPDATA", "ZT_DOCUMENTS", "ZT_TEMP", "ZT_COMMONAPPDATA", "WQTMP", "WQCONFIG",
                              "WQSYSTEM", "config_fn", "base_dir", "KEYX", "WQALTTMP"})
            ::unsetenv(v);
    }
    Sandbox box;
    std::string info = box.q9() + "/Q9.info";
};

TEST_F(EnvStore, PrecedenceDirectivesAndCaching) {
    kt::spit(box.home() + "/.Q9.profile", "both from_profile\nquoted 'a\\nb'\nuser_only u\n");
    kt::spit(info, "both from_info\nsys_only s\nKEYX from_info\nLocalEnv LOCALV lv\n"
                         "Env EXPV ${HOME}/e\nEnv PRESET nope\nsetting 1\nsetting 2\n");
    kt::spit(box.q9() + "/Q9Config", "from_config yes\n");
    ::setenv("KEYX", "from_process", 1);
    ::setenv("PRESET", "kept", 1);
    EXPECT_EQ(kt::run_child([&] {
        CHILD_CHECK(eq(ZTGetEnv("BOTH"), "from_profile"));
        CHILD_CHECK(eq(GetSysEnv("both"), "from_info"));
        CHILD_CHECK(eq(ZTGetEnvX("sys_only"), "s") && GetUsrEnv("sys_only") == nullptr);
        CHILD_CHECK(eq(ZTGetEnvX("quoted"), "a\nb"));
        CHILD_CHECK(eq(ZTGetEnvX("KEYX"), "from_process"));   // the process beats the files, cached
        ::setenv("KEYX", "changed", 1);
        CHILD_CHECK(eq(ZTGetEnvX("KEYX"), "from_process"));
        CHILD_CHECK(eq(ZTGetEnvX("LOCALV"), "lv") && std::getenv("LOCALV") == nullptr);
        CHILD_CHECK(eq(std::getenv("EXPV"), box.home() + "/e"));
        CHILD_CHECK(eq(ZTGetEnvX("PRESET"), "kept") && eq(GetSysEnv("setting"), "2"));
        CHILD_CHECK(eq(GetSysEnv("from_config"), "yes"));
        ZTPutEnv("put", "x${user_only}y${NOPE}z");
        CHILD_CHECK(eq(ZTGetEnvX("put"), "xuyz") && std::getenv("put") == nullptr);
        ::setenv("RAW", "${put}", 1);
        char out[8];
        ZTExpand("<${RAW}${HOME", out, sizeof out);
        CHILD_CHECK(eq(out, "<${put}"));   // a substituted value is not rescanned; cut to fit
        return 0;
    }), 0);
}

// Where the directories are, what is exported, and what attaching does outside the
// library (the documents list it): directories made, their modes, PATH.
TEST_F(EnvStore, DirectoriesExportsAndSideEffects) {
    ::setenv("ZT_TEMP", "${HOME}/mytmp", 1);
    ::setenv("PATH", "/usr/bin:/bin", 1);
    EXPECT_EQ(kt::run_child([&] {
        ::umask(022);
        LoadEnv();
        const std::string q9 = box.q9(), home = box.home();
        CHILD_CHECK(eq(zt_homep, q9) && eq(zt_appdatap, home + "/.Q9") && eq(zt_docp, home + "/Documents"));
        CHILD_CHECK(eq(zt_comappdatap, q9 + "/share") && eq(zt_imagep, q9 + "/images"));
        CHILD_CHECK(is_dir(home + "/.Q9") && is_dir(home + "/Documents"));
        CHILD_CHECK(eq(zt_tempp, home + "/mytmp") && mode_of(home + "/mytmp") == 0777);   // whatever the umask
        CHILD_CHECK(mode_of(q9 + "/share") == 0777 && mode_of(q9 + "/share/_Q9_Glbl_Mtx_.lck") == 0666);
        CHILD_CHECK(eq(ZTGetEnvX("bin_dir"), q9 + "/bin") && eq(ZTGetEnv("WQSYSTEM"), q9 + "/system"));
        CHILD_CHECK(eq(std::getenv("ZT_HOME"), q9) && eq(std::getenv("ZT_APPDATA"), home + "/.Q9"));
        CHILD_CHECK(eq(std::getenv("PATH"), "/usr/bin:/bin:" + q9 + "/bin:"));  // the trailing colon
        FreeSysEnv();
        CHILD_CHECK(zt_glblmtxp == nullptr && !exists(q9 + "/share/_Q9_Glbl_Mtx_.lck"));
        return 0;
    }), 0);
    // ZTSetNoExport: PATH and the home directory alone; the shared directories all the same.
    ::unsetenv("ZT_TEMP");
    std::filesystem::remove_all(box.home() + "/.Q9");
    std::filesystem::remove_all(box.home() + "/Documents");
    EXPECT_EQ(kt::run_child([&] {
        ZTSetNoExport();
        LoadEnv();
        CHILD_CHECK(eq(std::getenv("PATH"), "/usr/bin:/bin"));
        CHILD_CHECK(std::getenv("ZT_HOME") == nullptr && eq(GetUsrEnv("ZT_HOME"), box.q9()));
        CHILD_CHECK(!exists(box.home() + "/.Q9") && !exists(box.home() + "/Documents"));
        CHILD_CHECK(exists(box.q9() + "/share/_Q9_Glbl_Mtx_.lck") && is_dir(box.q9() + "/tmp"));
        return 0;
    }), 0);
    // A HOME_Q9 that does not exist is made, with its share directory; with no
    // installation the home is "." and nothing is added to PATH.
    ::setenv("HOME_Q9", box.path("absent").c_str(), 1);
    EXPECT_EQ(kt::run_child([&] {
        LoadEnv();
        CHILD_CHECK(mode_of(box.path("absent/share")) == 0777 && !exists(box.path("absent/tmp")));
        CHILD_CHECK(eq(zt_homep, ".") && ZTGetEnvX("bin_dir") == nullptr && eq(GetUsrEnv("ZT_HOME"), "."));
        CHILD_CHECK(eq(std::getenv("PATH"), "/usr/bin:/bin"));
        return 0;
    }), 0);
}

TEST_F(EnvStore, OverrideVariables) {
    const std::string cfg = box.path("other.cfg");
    kt::spit(cfg, "via_wqconfig 1\n");
    kt::spit(info, "alt_tmp_dir from_info\n");
    ::setenv("WQCONFIG", cfg.c_str(), 1);
    ::setenv("WQALTTMP", "from_env", 1);
    ::setenv("WQTMP", "/wq/tmp", 1);
    ::setenv("WQFOO", "over", 1);
    EXPECT_EQ(kt::run_child([&] {
        LoadEnv();
        CHILD_CHECK(eq(GetSysEnv("via_wqconfig"), "1") && eq(ZTGetEnvX("config_fn"), cfg));
        CHILD_CHECK(eq(GetSysEnv("alt_tmp_dir"), "from_env") && eq(ZTGetEnvX("tmp_dir"), "/wq/tmp"));
        CHILD_CHECK(ZTGetEnvX("FOO_DIR") == nullptr);            // upper-case keys have none
        CHILD_CHECK(eq(ZTGetEnvX("foo_lst"), "over") && eq(GetUsrEnv("foo_lst"), "over"));
        return 0;
    }), 0);
}

class FileOps : public ::testing::Test {
protected:
    int op(int cmd, int flags, std::vector<std::string> paths) {
        std::vector<char *> argv;
        for (auto &p : paths) argv.push_back(p.data());
        status = 0;
        return ZTFileOp(cmd, flags | ZTFO_QUIET, &status, static_cast<int>(argv.size()), argv.data());
    }
    Sandbox box;
    int status = 0;
};

TEST_F(FileOps, StatusCodes) {
    for (auto [err, code] : {std::pair{ENOENT, 3}, {EACCES, 4}, {EISDIR, 5}, {ENOTDIR, 6}, {ENOTEMPTY, 7}, {EIO, 9999}})
        EXPECT_EQ(ZTFileOpErrStatus("X", ZTFO_QUIET, err), code) << err;

    const std::string d = box.path("a/b"), f = box.path("n/m/c.txt");
    const struct { int cmd, flags; V paths; int rc, status; } calls[] = {
        {15, 0, {box.dir}, -1, 1}, {ZTFO_RENAME, 0, {"a", "b", "c"}, -1, 2},   // no such command; wrong count
        {ZTFO_CREATEDIR, 0, {d}, 0, 0}, {ZTFO_CREATEDIR, 0, {d}, -1, 9},
        {ZTFO_CREATEFILE, 0, {f}, 0, 0},             // parents made
        {ZTFO_CREATEFILE, 0, {f}, -1, 9},            // an existing file only with force
        {ZTFO_CREATEFILE, ZTFO_FORCE, {f}, 0, 0}, {ZTFO_TESTDIR, 0, {f}, 0, 0}, {ZTFO_TESTDIR, 0, {f + "x"}, -1, 3},
        {ZTFO_TESTEXIST, 0, {f}, 1, 0}, {ZTFO_TESTEXIST, 0, {f + "x"}, 0, 0}, {ZTFO_TESTEXIST, 0, {f + "/x"}, -1, 6},
        {ZTFO_TESTFILE, 0, {f}, 1, 0}, {ZTFO_TESTFILE, 0, {d}, 0, 0},
        {ZTFO_TRUNCATE, 0, {d}, -1, 5}, {ZTFO_TRUNCATE, 0, {f + "x"}, -1, 3}, {ZTFO_TRUNCATE, 0, {f}, 0, 0},
        {ZTFO_DELETEDIR, 0, {box.path("a")}, -1, 7}, {ZTFO_DELETEDIR, 0, {d}, 0, 0}, {ZTFO_DELETEFILE, 0, {f}, 0, 0}};
    for (const auto &c : calls) {
        if (c.cmd == ZTFO_TRUNCATE && c.rc == 0) kt::spit(f, "bytes");
        EXPECT_EQ(op(c.cmd, c.flags, c.paths), c.rc) << c.cmd << " " << c.paths[0];
        EXPECT_EQ(c.rc < 0 ? status : 0, c.status) << c.cmd << " " << c.paths[0];
        if (c.cmd == ZTFO_TRUNCATE && c.rc == 0) { EXPECT_EQ(kt::slurp(f), ""); }
    }
    EXPECT_FALSE(exists(d));
    EXPECT_EQ(ZTFileExists(box.path("n//m").data()), 1);
    EXPECT_EQ(ZTFileExists(box.path("n/m/gone").data()), 0);
    EXPECT_EQ((std::vector<int>{ZTFileIsFile(box.path("n").c_str()), ZTFileIsDir(box.path("n").c_str())}),
              (std::vector<int>{0, 1}));

    // Cut to fit, this path would name the existing file "victim": it is refused.
    kt::spit(box.path("victim"), "x");
    EXPECT_EQ(op(ZTFO_DELETE, 0, {box.path("victim") + std::string(1100, '/') + "x"}), -1);
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(exists(box.path("victim")));
}

TEST_F(FileOps, ShellCommandsActOnExactlyTheNamedFiles) {
    const char *const hostile[] = {"a'; touch pwned; '", "$(touch pwned)", "`touch pwned`", "x\ny; touch pwned",
                                   "q\"uo'te\\back", "-rf", "semi;amp&pipe|<>()", "$HOME", "star*"};
    const std::string src = box.path("src"), dst = box.path("dst");
    std::filesystem::create_directories(src);
    std::vector<std::string> want = {"/dst", "/dst/sub", "/home", "/q9", "/src"};
    for (const char *name : hostile) {
        SCOPED_TRACE(name);
        const std::string a = src + "/" + name, b = dst + "/sub/" + name;
        const std::string c = b + ".moved", r = b + ".renamed";
        kt::spit(a, name);
        want.push_back(std::string("/src/") + name);
        ASSERT_EQ(op(ZTFO_COPY, 0, {a, b}), 0) << status;
        EXPECT_EQ(kt::slurp(b), name);
        ASSERT_EQ(op(ZTFO_MOVE, 0, {b, c}), 0) << status;
        ASSERT_EQ(op(ZTFO_RENAME, 0, {c, r}), 0) << status;
        ASSERT_EQ(op(ZTFO_DELETE, 0, {r}), 0) << status;
    }
    std::vector<std::string> got;
    for (auto &e : std::filesystem::recursive_directory_iterator(box.dir))
        got.push_back(e.path().string().substr(box.dir.size()));
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(got, want);
    EXPECT_FALSE(exists("pwned"));

    EXPECT_EQ(op(ZTFO_DELETE, 0, {box.path("none")}), -1);   // a failing command: 9999
    EXPECT_EQ(status, 9999);
    const std::string d = box.path("it's $(touch pwned)");
    std::filesystem::create_directories(d + "/deep");
    ZTRMDashRF(d.c_str());
    EXPECT_FALSE(exists(d));
    EXPECT_FALSE(exists(box.path("pwned")));
}

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
    Sandbox box;
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
        kt::spit(file, text);
        ASSERT_EQ(read_all(file), want) << "seed " << seed << " round " << round;
    }
}

TEST_F(ParmFile, LineLimits) {
    const std::string full = "key " + std::string(1019, 'v');   // 1023 characters: kept whole
    kt::spit(file, full + "\nk " + std::string(3000, 'w') + "\nnext 1\nlast \t ");
    V recs = read_all(file);
    ASSERT_EQ(recs.size(), 4u);
    EXPECT_TRUE(recs[1].substr(0, 2) == "k=" && recs[1].size() < 1025u) << "an over-long line is cut, not split";
    recs[1] = "k=";
    // Trailing blanks up to the end of the file: an empty value.
    EXPECT_EQ(recs, (V{"key=" + full.substr(4), "k=", "next=1", "last="}));
}

TEST_F(ParmFile, ArgumentCracking) {
    kt::spit(file, "r1 abc 12 \"x y\" +=5\n"
                         "r2 0x10 08 010 12ab -5 99999999999\n"
                         "r3 'a\\'b' \"\\101\\x41\\x6a\\xg\\t\\n\\\\\" \"open\n");
    // Each record's arguments: as strings (r1, r3) or as numbers (r2: INT32_MIN where
    // none, "-" and "5" apart).
    const std::vector<V> strings = {{"abc", "12", "x y", "+=", "5"}, {}, {"a'b", "AAjxgt\n\\", "open"}};
    const std::vector<int> numbers = {16, INT32_MIN, 8, INT32_MIN, INT32_MIN, 5, INT32_MIN};
    ASSERT_EQ(ParmOpen(file.c_str()), 0);
    for (size_t r = 0; r < 3; ++r) {
        ASSERT_EQ(ParmRead(), 1);
        ASSERT_EQ(ParmArgc(), static_cast<int>(r == 1 ? numbers.size() : strings[r].size())) << "record " << r;
        for (int i = 0; i < ParmArgc(); ++i) {
            if (r == 1) EXPECT_EQ(ParmArgvN(i), numbers[size_t(i)]) << i;
            else EXPECT_STREQ(ParmArgvS(i), strings[r][size_t(i)].c_str()) << r << " " << i;
        }
    }
    ParmOpen(nullptr);
}

TEST_F(ParmFile, ConfigurationEntries) {
    kt::spit(file, "A 1\n  B 2   # trailing comment\n\n# whole-line comment\n   \t\nD \"x:y\":z\n");
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

// Runs fn while another thread holds m.
template <class F> void while_held(ZTMutex *m, F fn) {
    std::atomic<int> stage{0};
    std::thread holder([&] {
        ZTMutexLock(m);
        stage = 1;
        while (stage != 2) std::this_thread::yield();
        ZTMutexUnlock(m);
    });
    while (stage != 1) std::this_thread::yield();
    fn();
    stage = 2;
    holder.join();
}

TEST(LocalMutex, RecursionExclusionAndTimeOut) {
    ZTMutex *m = ZTMutexAlloc(nullptr);
    long counter = 0;
    std::thread workers[4];
    for (auto &t : workers)
        t = std::thread([&] {
            for (int i = 0; i < 20000; ++i) {
                ZTMutexLock(m), ZTMutexLock(m);   // recursive
                ++counter;
                ZTMutexUnlock(m), ZTMutexUnlock(m);
            }
        });
    for (auto &t : workers) t.join();
    EXPECT_EQ(counter, 80000);
    while_held(m, [&] { EXPECT_EQ(ZTMutexLockWTO(m, 0), 1); });
    // Given back while a wait with a time-out sleeps: taken at its next try.
    std::atomic<bool> held{false};
    std::thread giver([&] {
        ZTMutexLock(m);
        held = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ZTMutexUnlock(m);
    });
    while (!held) std::this_thread::yield();
    EXPECT_EQ(ZTMutexLockWTO(m, 3), 0);
    giver.join();
    ZTMutexUnlock(m);
    EXPECT_EQ((std::vector<int>{ZTMutexLockWTO(nullptr, 0), m->m_count}), (std::vector<int>{-1, 0}));
    EXPECT_EQ(ZTMutexLockWTO(m, 1), 0);
    EXPECT_EQ(m->m_count, 1);
    ZTMutexUnlock(m);
    ZTMutexFree(m);
}

TEST(GlobalMutex, ExcludesProcessesAndRemovesFileWithLastUser) {
    Sandbox box;
    const std::string name = box.path("g"), lockfile = name + ".lck";
    ZTMutex *g = ZTGlobalMutexAlloc(name.c_str());
    ASSERT_TRUE(g != nullptr && ZTMutexLock(g) == 0);
    EXPECT_EQ(ZTMutexLockWTO(g, 0), -1) << "no time-out for a global mutex";
    kt::Pipe ready, go, got;
    pid_t child = kt::start_child([&] {
        ZTMutex *cg = ZTGlobalMutexAlloc(name.c_str());
        if (cg == nullptr) return 2;
        ready.signal();
        if (ZTMutexLock(cg) != 0) return 3;   // blocks until the parent unlocks
        got.signal();
        go.wait();
        ZTMutexUnlock(cg), ZTMutexFree(cg);   // not the last user: the file stays
        return 0;
    });
    ready.wait();
    ::usleep(100000);
    EXPECT_EQ(ZTMutexUnlock(g), 0);
    got.wait();
    go.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_TRUE(exists(lockfile));
    ZTMutexFree(g);
    EXPECT_FALSE(exists(lockfile));
}

TEST(ForkHandlers, ChildStartsWithUnlockedMutexes) {
    ZTMutex *unmarked = ZTMutexAlloc(nullptr), *marked = ZTMutexAlloc(nullptr);
    ZTMutexLockOnFork(marked);
    ZTMutexLock(marked), ZTMutexLock(marked);
    while_held(unmarked, [&] {
        EXPECT_EQ(kt::run_child([&] {
            if (ZTMutexLockWTO(unmarked, 0) != 0) return 1;   // its holder is not in the child
            if (ZTMutexLock(marked) != 0 || marked->m_count != 1) return 3;
            return 0;
        }), 0);
    });
    EXPECT_EQ(marked->m_count, 2);
    ZTMutexUnlock(marked), ZTMutexUnlock(marked);
    ZTMutexFree(marked), ZTMutexFree(unmarked);
}

}  // namespace
