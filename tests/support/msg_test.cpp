// Message output: one line per message, cut at the buffer, nothing for empty formats.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support_util.h"

namespace {

// Captures what a function writes to the given stream's descriptor.
template <class F>
std::string capture(FILE *stream, F fn) {
    st::Sandbox box;
    const std::string file = box.path("out");
    std::fflush(stream);
    int saved = ::dup(::fileno(stream));
    int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    ::dup2(fd, ::fileno(stream));
    ::close(fd);
    fn();
    StdFlush(stream);
    ::dup2(saved, ::fileno(stream));
    ::close(saved);
    return st::read_file(file);
}

TEST(Messages, OneLineEachAndCut) {
    EXPECT_EQ(capture(stdout, [] { VMsg("abc"); }), "abc\n");
    EXPECT_EQ(capture(stdout, [] { VMsg("abc\n"); }), "abc\n");
    EXPECT_EQ(capture(stdout, [] { VMsg("%s-%d", "x", 5); }), "x-5\n");
    EXPECT_EQ(capture(stdout, [] { VMsg("%s", ""); }), "");
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
