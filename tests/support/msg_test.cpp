// Message output: one line per message, cut at the buffer.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <string>

#include "kisam_test.h"

namespace {

TEST(Messages, OneLineEachAndCut) {
    EXPECT_EQ(kt::capture_output(1, [] { VMsg("abc"); VMsg("%s-%d\n", "x", 5); }), "abc\nx-5\n");
    std::string longtext(2000, 'z');
    std::string out = kt::capture_output(2, [&] { VError("%s", longtext.c_str()); });
    EXPECT_EQ(out, longtext.substr(0, 1022) + "\n");
}

}  // namespace
