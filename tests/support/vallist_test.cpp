// Settings lists against a model, and the escape conversion.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <strings.h>
#include <vector>

#include "kisam_test.h"

namespace {

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

}  // namespace
