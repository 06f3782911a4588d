// Error state and its reports: the tables, raising and pushing, and the exact texts of
// niserrmsgget and niserrmsg.
#include "is_error.h"

#include <gtest/gtest.h>

#include "kisam_test.h"

#include <cerrno>
#include <cstring>
#include <string>

namespace {

void clear_errors() {
    is_errno = 0;
    is_etop = nullptr;
    std::memset(is_estk, 0, sizeof is_estk);
    errno = 0;
}

int16_t word_of(const is_etrace& e) {
    int16_t w;
    std::memcpy(&w, &e, sizeof w);
    return w;
}

}  // namespace

TEST(ErrorTables, EveryCodeHasItsNamedText) {
    const char* names[] = {"ISE_BTNP", "ISE_CREATF", "ISE_INITERR", "ISE_NKEYERR", "ISE_NOIDB",
                           "ISE_NOKEY", "ISE_OPENF", "ISE_INVKL", "ISE_RONLY", "ISE_RSIZE",
                           "ISE_BADFD", "ISE_BADKN", "ISE_NOFCP", "ISE_NOTISAM", "ISE_RDSK",
                           "ISE_RDWT", "ISE_BUFLINK", "ISE_RDRD", "ISE_FLSK", "ISE_FLWT",
                           "ISE_NWSK", "ISE_NWWT", "ISE_FLFCP", "ISE_BTS", "ISE_KEYSAVE",
                           "ISE_TMFILES", "ISE_MAGICVALERR", "ISE_VERSIONERR",
                           "ISE_CREATEISOPEN", "ISE_INCONSISTENT"};
    EXPECT_STREQ(kisam::msg_tbl[0], "");
    for (int code = 1; code <= 30; ++code) {
        std::string text = kisam::msg_tbl[code];
        std::string name = names[code - 1];
        EXPECT_EQ(text.compare(0, name.size(), name), 0) << code;
        char after = text[name.size()];
        EXPECT_TRUE(after == ' ' || after == '\t') << code;
    }
    EXPECT_EQ(ISE_INCONSISTENT, 30);
    // Texts whose exact spacing or quoting is easy to lose.
    EXPECT_STREQ(kisam::msg_tbl[ISE_NOFCP], "ISE_NOFCP   cannot allocate fcp block           ");
    EXPECT_STREQ(kisam::msg_tbl[ISE_RDSK], "ISE_RDSK    seek failed in \"v_read\"");
    EXPECT_STREQ(kisam::msg_tbl[ISE_VERSIONERR], "ISE_VERSIONERR\t Incompatible Versions of Isam Common");
    EXPECT_STREQ(kisam::msg_tbl[ISE_RONLY], "ISE_RONLY   read only file / can't nisdelete or niswrite");
}

TEST(ErrorTables, ProcedureNames) {
    int rows = 0;
    while (kisam::proc_tbl[rows] != nullptr) ++rows;
    EXPECT_EQ(rows, 42);
    EXPECT_STREQ(KIprocname(P_ISUNLOCK), "isunlock");
    EXPECT_STREQ(KIprocname(P_BT_DELETE), "bt_delete");
    EXPECT_STREQ(KIprocname(P_SEQWRITE), "seqwrite");
    EXPECT_STREQ(KIprocname(P_ISFWRITE), "isfwrite");
    EXPECT_STREQ(KIprocname(0x30), "#48");
    EXPECT_STREQ(KIprocname(-3), "#-3");
    EXPECT_STREQ(KIprocname(0x130), "#304");  // the character compares as a signed byte only
    // Every row's character finds that row.
    for (int i = 0; i < rows; ++i)
        EXPECT_STREQ(KIprocname(static_cast<signed char>(kisam::proc_tbl[i][0])), kisam::proc_tbl[i] + 1);
}

TEST(ErrorStack, RaiseRestartsAndPushAppends) {
    clear_errors();
    is_push(PROC(P_ISOPEN, 2));  // a push before any raise starts at the bottom
    EXPECT_EQ(is_etop, &is_estk[1]);
    EXPECT_EQ(is_raise(ISE_INITERR, PROC(P_IS_INIT, 7)), -1);
    EXPECT_EQ(is_errno, ISE_INITERR);
    EXPECT_EQ(is_etop, &is_estk[1]);
    EXPECT_EQ(word_of(is_estk[0]), 0x2207);
    EXPECT_EQ(is_push(PROC(P_ISOPEN, 2)), -1);
    EXPECT_EQ(is_etop, &is_estk[2]);
    EXPECT_EQ(word_of(is_estk[1]), 0x3802);
    EXPECT_EQ(is_errno, ISE_INITERR);
}

TEST(ErrorStack, PushesBeyondTheLastEntryAreDropped) {
    clear_errors();
    is_raise(ISE_BTS, PROC(P_BT_SEARCH, 1));
    for (int i = 0; i < 40; ++i) is_push(PROC(P_V_READ, i));
    EXPECT_EQ(is_etop, is_estk + 20);
    EXPECT_EQ(word_of(is_estk[0]), 0x0501);
    EXPECT_EQ(word_of(is_estk[19]), PROC(P_V_READ, 18));
}

TEST(ErrorReport, NothingBeforeTheFirstFailure) {
    clear_errors();
    char buf[64] = "junk";
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(kt::capture_output(2, [] { niserrmsg(); }), "");
}

TEST(ErrorReport, OneLineFormInEachCase) {
    char buf[1100];
    clear_errors();
    is_raise(ISE_OPENF, PROC(P_ISOPEN, 4));
    is_push(PROC(P_ISCLOSE, 1));  // further entries are not part of the one-line form
    std::string known = "ISE_OPENF   cannot open file in proc. isopen - 4";
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), static_cast<int>(known.size()));
    EXPECT_EQ(std::string(buf), known);

    is_errno = 31;  // no text: the numeric form
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)), "isam error #31 in proc. isopen - 4");
    is_errno = 0;
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)), "isam error #0 in proc. isopen - 4");

    is_raise(ISE_RDRD, PROC(0x30, 200));  // unknown procedure, detail shown as a signed byte
    errno = ENOENT;
    std::string sys = std::string("ISE_RDRD    read failed in \"v_read\" in proc. #48 - -56") +
                      ", Sys errno #2 " + std::strerror(ENOENT);
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), static_cast<int>(sys.size()));
    EXPECT_EQ(std::string(buf), sys);
    EXPECT_EQ(errno, ENOENT);

    // Cut to buflen - 1; no cut for buflen 0 or less.
    std::memset(buf, 'z', sizeof buf);
    EXPECT_EQ(niserrmsgget(buf, 10), 9);
    EXPECT_EQ(std::string(buf), sys.substr(0, 9));
    EXPECT_EQ(niserrmsgget(buf, 0), static_cast<int>(sys.size()));
    EXPECT_EQ(niserrmsgget(buf, -5), static_cast<int>(sys.size()));
    EXPECT_EQ(niserrmsgget(buf, 1), 0);
    EXPECT_STREQ(buf, "");
}

TEST(ErrorReport, FullReportOnStandardError) {
    clear_errors();
    is_raise(ISE_INITERR, PROC(P_IS_INIT, 1));
    is_push(PROC(P_ISOPEN, 2));
    is_push(PROC(0x7F, 3));
    errno = EACCES;
    std::string out = kt::capture_output(2, [] { niserrmsg(); });
    std::string want = std::string("ISE_INITERR isam initialization error in proc. is_init - 1\r\n") +
                       "    called from proc. isopen - 2\r\n" + "    called from proc. #127 - 3\r\n" +
                       "Sys errno #13 " + std::strerror(EACCES) + "\n";
    EXPECT_EQ(out, want);

    errno = 0;
    is_errno = 44;
    EXPECT_EQ(kt::capture_output(2, [] { niserrmsg(); }),
              "isam error #44 in proc. is_init - 1\r\n    called from proc. isopen - 2\r\n"
              "    called from proc. #127 - 3\r\n");
    EXPECT_EQ(kt::capture_output(2, [] { is_msg(3, -4); }), "proc: 3, det: -4\n");
}
