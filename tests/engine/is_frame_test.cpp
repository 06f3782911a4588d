// The call frame: descriptor and key-number refusals, the repair of a call that never
// left, and the error reports a failed call leaves.
#include "open_fixture.h"

#include "is_error.h"
#include "is_file.h"
#include "is_lock.h"
#include "is_rec.h"

#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

using ot::Env;
using ot::stack_code;

class Frame : public Env {};

TEST_F(Frame, BadDescriptorsAreRefused) {
    int lens[1] = {4};
    int keylens[4];
    char rec[16] = {};
    // Before start-up.
    EXPECT_EQ(nisclose(0), -1);
    EXPECT_EQ(is_errno, ISE_BADFD);
    EXPECT_EQ(stack_code(), 0x3100);
    EXPECT_EQ(Iscurfun, -0x3100);

    int fd = niscreate(path("f").c_str(), 1, lens);
    ASSERT_GE(fd, 0);
    const int maxopen = isam_com->maxopen;
    struct Call {
        int code;
        std::function<int()> fn;
    };
    for (int bad : {-1, maxopen, fd + 1}) {
        SCOPED_TRACE(bad);
        std::vector<Call> calls = {
            {0x3100, [&] { return nisclose(bad); }},
            {0x3700, [&] { return nislock(bad, "ab", 2, 1); }},
            {0x4000, [&] { return nisread(bad, 0, rec, sizeof rec); }},
            {0x3D00, [&] { return niswrite(bad, rec, sizeof rec); }},
            {0x3A00, [&] { return kisam_rewind(bad, 0); }},
        };
        for (auto& c : calls) {
            is_errno = 0;
            EXPECT_EQ(c.fn(), -1);
            EXPECT_EQ(is_errno, ISE_BADFD);
            EXPECT_EQ(stack_code(), c.code);
            EXPECT_EQ(ot::stack_depth(), 1);
            EXPECT_EQ(Iscurfun, -c.code);
        }
    }
    // A descriptor whose handle was freed by a close.
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_EQ(is_db[fd], nullptr);
    EXPECT_EQ(nisstat(fd, 4, keylens), -1);
    EXPECT_EQ(is_errno, ISE_BADFD);
}

TEST_F(Frame, KeyNumbers) {
    int two = create("two", {4, 6});
    ASSERT_GE(two, 0);
    char rec[16];
    EXPECT_EQ(nisread(two, 1, rec, sizeof rec), 0);
    for (int k : {-1, 2, 25}) {
        EXPECT_EQ(nisread(two, k, rec, sizeof rec), -1);
        EXPECT_EQ(is_errno, ISE_BADKN);
        EXPECT_EQ(stack_code(), 0x4000);
        EXPECT_EQ(kisam_rewind(two, k), -1);
        EXPECT_EQ(is_errno, ISE_BADKN);
        EXPECT_EQ(stack_code(), 0x3A00);
    }
}

TEST_F(Frame, AbandonedCallIsRepairedByTheNextCall) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Iscurfun, -0x3800) << "create leaves through the open it ends with";

    // An operation that stops half-way, holding opcl_lock, the control lock and
    // free_lock, and never reaches its exit.
    ASSERT_EQ(is_isin(0x3B00, fd, 0), 0);
    ASSERT_EQ(is_lock(&isam_com->opcl_lock), 0);
    ASSERT_EQ(is_getctl(), 0);
    ASSERT_EQ(is_lock(&isam_com->free_lock), 0);
    EXPECT_GT(Iscurfun, 0);

    int keylens[1];
    EXPECT_EQ(nisstat(fd, 1, keylens), 1);
    EXPECT_EQ(Islastfun, 0x3B00);
    EXPECT_EQ(Iscurfun, -0x4500);
    EXPECT_EQ(isam_com->opcl_lock, 0u);
    EXPECT_EQ(isam_com->free_lock, 0u);
    EXPECT_EQ(ot::shared_fcp(fd)->jd_fcplock, 0u);
    EXPECT_EQ(ot::pfi_of(fd)->pfi_ctlcnt, 0);

    // The ranges and the control lock's word are free too: another process gets all
    // three without waiting.
    unsigned long offs[] = {kisam::com_offset(&isam_com->opcl_lock),
                            kisam::com_offset(&isam_com->free_lock)};
    unsigned* ctl = &ot::shared_fcp(fd)->jd_fcplock;
    EXPECT_EQ(kt::run_child([&] {
                  for (unsigned long o : offs)
                      if (is_lockitnw(o) != 0) return 1;
                  uint32_t dead = 1;
                  if (is_lock_try(ctl, &dead) != 0 || dead != 0) return 2;
                  return 0;
              }),
              0);
    EXPECT_EQ(nisclose(fd), 0);
}

// Error reports: the texts of niserrmsgget and niserrmsg in each form.
TEST(ErrorReport, OneLineFormInEachCase) {
    char buf[1100];
    is_errno = 0;
    is_etop = nullptr;
    errno = 0;
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), 0) << "nothing before the first failure";
    is_raise(ISE_OPENF, PROC(P_ISOPEN, 4));
    is_push(PROC(P_ISCLOSE, 1));  // further entries are not part of the one-line form
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)), "ISE_OPENF   cannot open file in proc. isopen - 4");
    is_errno = ISE_INCONSISTENT;  // the last code with a text
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)),
              "ISE_INCONSISTENT\tFile was not closed properly and is in an inconsistent state in proc. isopen - 4");
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

}  // namespace
