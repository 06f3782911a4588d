// Message output: one line per message, cut at the buffer, nothing for empty formats.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "kisam_test.h"

namespace {

std::string capture(FILE *stream, const std::function<void()> &fn) {
    return kt::capture_output(::fileno(stream), fn);
}

TEST(Messages, OneLineEachAndCut) {
    EXPECT_EQ(capture(stdout, [] { VMsg("abc"); }), "abc\n");
    EXPECT_EQ(capture(stdout, [] { VMsg("abc\n"); }), "abc\n");
    EXPECT_EQ(capture(stdout, [] { VMsg("%s-%d", "x", 5); }), "x-5\n");
    EXPECT_EQ(capture(stdout, [] { VMsg("%s", ""); }), "\n");
    const std::string empty;
    EXPECT_EQ(capture(stdout, [&] { VMsg(empty.c_str()); }), "");
    EXPECT_EQ(capture(stderr, [] { VError("err"); }), "err\n");
    std::string longtext(2000, 'z');
    std::string out = capture(stderr, [&] { VError("%s", longtext.c_str()); });
    EXPECT_EQ(out.size(), 1023u);
    EXPECT_EQ(out.back(), '\n');
    EXPECT_EQ(out.substr(0, 1022), longtext.substr(0, 1022));
    // The hooks discard by default.
    EXPECT_EQ(capture(stderr, [] { ZTVError("x"); ZTVDebug("y"); ZTVErrorW("z"); }), "");
}

TEST(Messages, HexDump) {
    unsigned char bytes[25];
    for (int i = 0; i < 25; ++i) bytes[i] = static_cast<unsigned char>(i * 11);
    std::string out = capture(stdout, [&] { printhexbytearray("hdr", bytes, 25); });
    std::string want = "hdr\n";
    for (int i = 0; i < 25; ++i) {
        if (i == 20) want += "\n";
        char b[8];
        std::snprintf(b, sizeof b, "%02x ", bytes[i]);
        want += b;
    }
    want += "\n";
    EXPECT_EQ(out, want);
}

}  // namespace
