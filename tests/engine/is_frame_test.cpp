// The call frame: descriptor and key-number refusals, and the repair of a call that
// never left.
#include "open_fixture.h"

#include "is_file.h"
#include "is_lock.h"
#include "is_rec.h"

#include <sys/wait.h>

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

    // The ranges are free too: another process gets all three without waiting.
    unsigned long offs[] = {kisam::com_offset(&isam_com->opcl_lock),
                            kisam::com_offset(&isam_com->free_lock),
                            kisam::com_offset(&ot::shared_fcp(fd)->jd_fcplock)};
    EXPECT_EQ(kt::run_child([&] {
                  for (unsigned long o : offs)
                      if (is_lockitnw(o) != 0) return 1;
                  return 0;
              }),
              0);
    EXPECT_EQ(nisclose(fd), 0);
}

}  // namespace
