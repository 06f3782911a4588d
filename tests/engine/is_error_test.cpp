// Error reports: the texts of niserrmsgget and niserrmsg in each form.
#include "is_error.h"

#include <gtest/gtest.h>

#include "kisam_test.h"

#include <cerrno>
#include <cstring>
#include <string>

TEST(ErrorReport, OneLineFormInEachCase) {
    char buf[1100];
    is_errno = 0;
    is_etop = nullptr;
    errno = 0;
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), 0) << "nothing before the first failure";
    is_raise(ISE_OPENF, PROC(P_ISOPEN, 4));
    is_push(PROC(P_ISCLOSE, 1));  // further entries are not part of the one-line form
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)), "ISE_OPENF   cannot open file in proc. isopen - 4");
    is_errno = 31;  // no text: the numeric form
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)), "isam error #31 in proc. isopen - 4");

    is_raise(ISE_RDRD, PROC(0x30, 200));  // unknown procedure, detail shown as a signed byte
    errno = ENOENT;
    std::string sys = std::string("ISE_RDRD    read failed in \"v_read\" in proc. #48 - -56") +
                      ", Sys errno #2 " + std::strerror(ENOENT);
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), static_cast<int>(sys.size()));
    EXPECT_EQ(std::string(buf), sys);
    // Cut to buflen - 1; no cut for buflen 0.
    EXPECT_EQ(niserrmsgget(buf, 10), 9);
    EXPECT_EQ(std::string(buf), sys.substr(0, 9));
    EXPECT_EQ(niserrmsgget(buf, 0), static_cast<int>(sys.size()));
}

TEST(ErrorReport, FullReportOnStandardError) {
    is_raise(ISE_INITERR, PROC(P_IS_INIT, 1));
    is_push(PROC(P_ISOPEN, 2));
    is_push(PROC(0x7F, 3));
    errno = EACCES;
    EXPECT_EQ(kt::capture_output(2, [] { niserrmsg(); }),
              std::string("ISE_INITERR isam initialization error in proc. is_init - 1\r\n") +
                  "    called from proc. isopen - 2\r\n    called from proc. #127 - 3\r\n" +
                  "Sys errno #13 " + std::strerror(EACCES) + "\n");
    errno = 0;
    is_errno = 44;
    EXPECT_EQ(kt::capture_output(2, [] { niserrmsg(); }),
              "isam error #44 in proc. is_init - 1\r\n    called from proc. isopen - 2\r\n"
              "    called from proc. #127 - 3\r\n");
}
