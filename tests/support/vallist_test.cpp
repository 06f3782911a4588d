// Settings lists and the escape conversion.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kisam_test.h"

namespace {

std::string upper(std::string s) {
    for (auto &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

int add(ValList **h, const char *key, const std::string &value) {
    std::vector<char> buf(value.begin(), value.end());
    buf.push_back('\0');
    return addvl(h, key, buf.data());
}

std::vector<std::string> keys(ValList *h) {
    std::vector<std::string> out;
    for (; h; h = h->next) out.emplace_back(reinterpret_cast<const char *>(h) + offsetof(ValList, key));
    return out;
}

TEST(ValList, QuotedValuesAreConverted) {
    ValList *h = nullptr;
    ASSERT_EQ(add(&h, "k1", "'a\\tb'"), 0);
    EXPECT_STREQ(getvlp(h, "k1"), "a\tb");
    add(&h, "k2", "'abc\"");
    EXPECT_STREQ(getvlp(h, "k2"), "'abc\"");   // not closed by the same quote: unchanged
    add(&h, "k3", "\"\"");
    EXPECT_STREQ(getvlp(h, "k3"), "");
    add(&h, "k4", "'");
    EXPECT_STREQ(getvlp(h, "k4"), "'");
    ASSERT_EQ(addvl(&h, "k5", nullptr), 0);
    EXPECT_STREQ(getvlp(h, "k5"), "");
    emptyvl(&h);
    EXPECT_EQ(h, nullptr);
}

TEST(ValList, TypesAndOwnedValues) {
    ValList *h = nullptr;
    add(&h, "alpha", "1");
    add(&h, "gamma", "3");
    EXPECT_EQ(getvlp(h, "nope"), nullptr);
    EXPECT_EQ(getvlty(), -1);
    EXPECT_NE(getvlp(h, "alpha"), nullptr);
    EXPECT_EQ(getvlty(), 0);

    char *owned = static_cast<char *>(std::malloc(8));
    std::strcpy(owned, "mine");
    EXPECT_EQ(repvl(&h, "GAMMA", owned, 6), 0);
    EXPECT_STREQ(getvlp(h, "gamma"), "mine");
    EXPECT_EQ(getvlty(), 7);
    char *owned2 = static_cast<char *>(std::malloc(8));
    std::strcpy(owned2, "again");
    EXPECT_EQ(repvl(&h, "gamma", owned2, 2), 0);   // frees the first owned value
    EXPECT_EQ(repvl(&h, "nope", owned2, 0), -1);
    ValList *empty = nullptr;
    EXPECT_EQ(repvl(&empty, "x", owned2, 0), -1);
    add(&h, "gamma", "plain");                      // replacing an owning record frees its value
    EXPECT_STREQ(getvlp(h, "gamma"), "plain");
    emptyvl(&h);
}

TEST(ValList, RandomizedAgainstModel) {
    uint64_t seed = kt::test_seed(7);
    std::mt19937_64 rng(seed);
    const char *pool[] = {"a", "A", "b", "B", "key", "KEY", "Key", "x_1", "X_1", "long_key_name"};
    std::vector<std::pair<std::string, std::string>> model;   // insertion order, one per key
    ValList *h = nullptr;
    for (int i = 0; i < 3000; ++i) {
        std::string k = pool[rng() % 10];
        if (rng() % 3 != 0) {
            std::string v = std::to_string(rng() % 1000);
            if (rng() % 5 == 0) v.clear();
            ASSERT_EQ(add(&h, k.c_str(), v), 0);
            auto it = std::find_if(model.begin(), model.end(),
                                   [&](auto &p) { return upper(p.first) == upper(k); });
            if (it != model.end())
                *it = {k, v};
            else
                model.emplace_back(k, v);
        } else {
            const char *got = getvlp(h, k.c_str());
            auto it = std::find_if(model.begin(), model.end(),
                                   [&](auto &p) { return upper(p.first) == upper(k); });
            if (it == model.end()) {
                ASSERT_EQ(got, nullptr) << "seed " << seed << " step " << i;
            } else {
                ASSERT_NE(got, nullptr) << "seed " << seed << " step " << i;
                ASSERT_EQ(std::string(got), it->second) << "seed " << seed << " step " << i;
            }
        }
    }
    std::vector<std::string> mk;
    for (auto &p : model) mk.push_back(p.first);
    EXPECT_EQ(keys(h), mk) << "seed " << seed;
    emptyvl(&h);
}

TEST(ValList, CaseInsensitiveCompare) {
    EXPECT_EQ(ICStrcmp("abc", "ABC"), 0);
    EXPECT_LT(ICStrcmp("abc", "abd"), 0);
    EXPECT_GT(ICStrcmp("abcd", "ABC"), 0);
    EXPECT_EQ(ICStrcmp("", ""), 0);
}

TEST(ConvLine, EscapesCaretsAndWarnings) {
    char out[64];
    EXPECT_EQ(convline(out, "^A\\x"), 2);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[1], 'x');
    EXPECT_EQ(convlineverify(out, "^1"), 1);
    EXPECT_STREQ(out, "^1");
    convline(out, "\\f");
    EXPECT_STREQ(out, "\f");
    convline(out, "\\a\\B\\E\\n\\R\\t\\V\\\\\\^");
    EXPECT_STREQ(out, "\a\b\x1b\n\r\t\v\\^");
    convline(out, "^c^@^Z");
    EXPECT_STREQ(out, "\x03");          // ^@ is NUL: the text ends there
    EXPECT_EQ(convlineverify(out, "ab\\"), 1);
    EXPECT_STREQ(out, "ab\\");
    EXPECT_EQ(convlineverify(out, "ab^"), 1);
    EXPECT_STREQ(out, "ab^");
    EXPECT_EQ(convlineverify(out, "^1^2"), 2);
    EXPECT_EQ(convline(nullptr, "x"), 0);
    EXPECT_EQ(convline(out, nullptr), 0);
    EXPECT_STREQ(out, "");
    char inplace[] = "a\\tb^Ic";
    EXPECT_EQ(convline(inplace, inplace), 5);
    EXPECT_STREQ(inplace, "a\tb\tc");
}

}  // namespace
