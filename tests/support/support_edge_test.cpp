// Boundary cases of the parameter and configuration readers: lines that fill the
// 1024-byte line buffer exactly, and values that run into the end of the file.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <string>

#include "support_util.h"

namespace {

class ReaderEdges : public ::testing::Test {
protected:
    void TearDown() override { ParmOpen(nullptr); }
    st::Sandbox box;
    std::string file = box.path("parms");
};

// 1023 characters plus the newline is the longest line the buffer holds whole.
TEST_F(ReaderEdges, LineFillingTheBufferExactlyIsWhole) {
    const std::string value = std::string(1017, 'v') + "Z";   // "key " + value = 1022
    const std::string full = "key " + value + "E";            // 1023 characters
    for (const char *eol : {"\n", "\r\n"}) {
        SCOPED_TRACE(eol[0] == '\r' ? "CR LF" : "LF");
        st::write_file(file, full + eol + "next 1" + eol);
        ASSERT_EQ(ParmOpen(file.c_str()), 0);
        ASSERT_EQ(ParmRead(), 1);
        EXPECT_STREQ(ParmID(), "key");
        ASSERT_NE(ParmValue(), nullptr);
        EXPECT_EQ(std::string(ParmValue()), value + "E");
        ASSERT_EQ(ParmRead(), 1);
        EXPECT_STREQ(ParmID(), "next");
        EXPECT_EQ(ParmArgvN(0), 1);
        EXPECT_EQ(ParmRead(), 0);
    }

    // A continuation line that fills what is left of the buffer exactly.
    const std::string tail(1024 - 1 - 6, 't');   // after "key a " the room is 1018
    st::write_file(file, "key a \\\n" + tail + "\nnext 2\n");
    ASSERT_EQ(ParmOpen(file.c_str()), 0);
    ASSERT_EQ(ParmRead(), 1);
    EXPECT_EQ(std::string(ParmValue()), "a " + tail);
    ASSERT_EQ(ParmRead(), 1);
    EXPECT_STREQ(ParmID(), "next");

    // The entry reader returns the whole line; its newline comes as a line of its own.
    st::write_file(file, full + "\n  more\n");
    ZTConfigInfo *ci = ZTCFOpen(file.c_str());
    ASSERT_NE(ci, nullptr);
    EXPECT_EQ(std::string(ZTCFGetLine(ci)), full);
    EXPECT_STREQ(ZTCFGetLine(ci), "\n");
    EXPECT_STREQ(ZTCFGetLine(ci), "  more\n");
    EXPECT_EQ(ZTCFGetLine(ci), nullptr);
    ZTCFClose(ci);
}

TEST_F(ReaderEdges, OnlyANewlineMeansNoValue) {
    st::write_file(file, "bare\nblanks   \nlast \t ");
    ASSERT_EQ(ParmOpen(file.c_str()), 0);
    ASSERT_EQ(ParmRead(), 1);
    EXPECT_EQ(ParmValue(), nullptr);
    ASSERT_EQ(ParmRead(), 1);
    EXPECT_STREQ(ParmID(), "blanks");
    EXPECT_EQ(ParmValue(), nullptr);
    ASSERT_EQ(ParmRead(), 1);
    EXPECT_STREQ(ParmID(), "last");
    ASSERT_NE(ParmValue(), nullptr);
    EXPECT_STREQ(ParmValue(), "");
    EXPECT_EQ(ParmArgc(), 0);
    EXPECT_EQ(ParmRead(), 0);
}

}  // namespace
