// A record-lock wait whose control lock cannot be taken back: the waiter holds another
// file's control lock that a second process waits for while holding the first file's.
// The kernel refuses the retake for as long as the cycle lasts; nislock gives up after
// its bound with ISE_DEADLOCK instead of trying for ever.
#include "../engine/open_fixture.h"

#include "is_lock.h"

#include <chrono>
#include <csignal>

namespace {

using ot::Env;

class Fwait : public Env {};

// True while some process of the installation waits for the lock-file range of word.
bool someone_waits_for(volatile unsigned* word) {
    const auto o = static_cast<uint32_t>(kisam::com_offset(word));
    for (int i = 0; i < isam_com->maxusers; ++i)
        if (is_env.needs_[i] == o) return true;
    return false;
}

TEST_F(Fwait, RetakeRefusedUntilTheBoundEndsInDeadlock) {
    const int f1 = create("f1", {4});
    const int f2 = create("f2", {4});
    ASSERT_GE(f1, 0);
    ASSERT_GE(f2, 0);
    IS_FCP* c1 = ot::shared_fcp(f1);
    IS_FCP* c2 = ot::shared_fcp(f2);
    const int me = is_env.useridx;

    // H holds the record lock, and dies once B waits for f2's control lock: the kernel
    // then wakes the parent, whose retake of f1's control lock closes the cycle.
    kt::Pipe held;
    pid_t h = kt::start_child([&] {
        if (is_chinit() != 0 || nislock(f1, "k", 1, 1) != 0) return 1;
        held.signal();
        while (!someone_waits_for(&c2->jd_fcplock)) ::usleep(1000);
        ::usleep(100000);   // B is inside its wait by now
        ::_exit(0);         // dies holding the lock
    });
    ASSERT_EQ(held.wait(), 'x');

    ASSERT_EQ(nisgetctl(f2), 0);
    ASSERT_EQ(nisgetctl(f1), 0);   // an application hold of the file being locked
    // B takes f1's control lock while the parent waits for the record lock, then waits
    // for f2's control lock, which the parent keeps.
    pid_t b = kt::start_child([&] {
        if (is_chinit() != 0) return 1;
        while (is_env.needs_[me] == 0) ::usleep(1000);
        if (nisgetctl(f1) != 0) return 2;
        if (nisgetctl(f2) != 0) return 3;
        nisrelctl(f2);
        nisrelctl(f1);
        return 0;
    });

    const auto t0 = std::chrono::steady_clock::now();
    is_errno = 0;
    EXPECT_EQ(nislock(f1, "k", 1, 0), -1);
    const auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(is_errno, ISE_DEADLOCK);
    EXPECT_EQ(kt::error_stack(), std::vector<int>{0x3704});
    EXPECT_GE(waited, std::chrono::milliseconds(kFwaitRetakeTries * kFwaitRetakePauseNs / 1000000));
    EXPECT_EQ(ot::pfi_of(f1)->pfi_ctlcnt, 0) << "every hold on f1 is gone";
    EXPECT_NE(c1->jd_fcplock, static_cast<uint32_t>(is_pid));
    EXPECT_EQ(ot::pfi_of(f2)->pfi_ctlcnt, 1) << "the other file's hold is untouched";

    EXPECT_EQ(nisrelctl(f1), 0) << "the application's release finds nothing to release";
    EXPECT_EQ(nisrelctl(f2), 0);   // lets B go on
    EXPECT_EQ(kt::wait_child(b), 0);
    EXPECT_EQ(kt::wait_child(h), 0);

    // The waiter left nothing behind: the dead holder's entry goes at the next lock.
    EXPECT_EQ(nislock(f1, "k", 1, 1), 0);
    EXPECT_EQ(nisunlock(f1, "k", 1, 0), 0);
    EXPECT_EQ(c1->jd_lock_hd, KISAM_NOREL);
}

}  // namespace
