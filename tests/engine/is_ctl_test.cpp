// The control lock: nesting, unbalanced releases, the clean mark at the outermost
// release, exclusion between processes and a refused wait.
#include "open_fixture.h"

#include "is_lock.h"
#include "is_rec.h"

#include <signal.h>

namespace {

using ot::Env;

class Ctl : public Env {};

TEST_F(Ctl, HoldsNestAndOnlyTheOutermostReleaseFrees) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    IS_FCP* f = ot::shared_fcp(fd);
    IS_PFI* pfi = ot::pfi_of(fd);

    EXPECT_EQ(nisrelctl(fd), 0) << "a release without a hold is tolerated";
    EXPECT_EQ(pfi->pfi_ctlcnt, 0);
    EXPECT_EQ(f->jd_fcplock, 0u);

    EXPECT_EQ(nisgetctl(fd), 0);
    EXPECT_EQ(nisgetctl(fd), 0);
    EXPECT_EQ(pfi->pfi_ctlcnt, 2);
    EXPECT_EQ(f->jd_fcplock, static_cast<uint32_t>(is_pid));
    EXPECT_EQ(nisflush(fd), 0);
    EXPECT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(f->jd_fcplock, static_cast<uint32_t>(is_pid)) << "still held once";

    // While held, another process cannot take it.
    unsigned long o = kisam::com_offset(&f->jd_fcplock);
    EXPECT_EQ(kt::run_child([o] { return is_lockitnw(o) == 0 ? 1 : 0; }), 0);
    EXPECT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(f->jd_fcplock, 0u);
    EXPECT_EQ(pfi->pfi_ctlcnt, 0);
    EXPECT_EQ(kt::run_child([o] { return is_lockitnw(o) == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(nisclose(fd), 0);
}

TEST_F(Ctl, OutermostReleaseClearsTheMarkWhenAskedTo) {
    kt::Config c;
    c.bits = 0x1 | 0x4;
    start(c);
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    IS_FCP* f = ot::shared_fcp(fd);
    EXPECT_EQ(f->is_optbits & (ISO_TRACK | ISO_CLEARREL), ISO_TRACK | ISO_CLEARREL);

    ASSERT_EQ(nisgetctl(fd), 0);
    ASSERT_EQ(nisgetctl(fd), 0);
    f->is_optbits |= ISO_DIRTYMARK;  // as the first write under the hold leaves it
    ASSERT_EQ(nisrelctl(fd), 0);
    EXPECT_TRUE(f->is_optbits & ISO_DIRTYMARK) << "an inner release keeps the mark";
    ASSERT_EQ(nisrelctl(fd), 0);
    EXPECT_FALSE(f->is_optbits & ISO_DIRTYMARK);
    EXPECT_EQ(ot::read_head(path("f"))[88] & ISO_DIRTYMARK, 0);

    // Through a read-only handle nothing is cleared.
    ASSERT_EQ(nisclose(fd), 0);
    int ro = nisopen(path("f").c_str(), ISO_RDONLY);
    ASSERT_GE(ro, 0);
    f = ot::shared_fcp(ro);
    ASSERT_EQ(nisgetctl(ro), 0);
    f->is_optbits |= ISO_DIRTYMARK;
    ASSERT_EQ(nisrelctl(ro), 0);
    EXPECT_TRUE(f->is_optbits & ISO_DIRTYMARK);
    f->is_optbits &= static_cast<uint8_t>(~ISO_DIRTYMARK);
}

TEST_F(Ctl, WaitsForTheHolderAndARefusedWaitHoldsNothing) {
    int a = create("a", {4});
    int b = create("b", {4});
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_EQ(nisgetctl(a), 0);
    const int me = is_env.useridx;

    kt::Pipe ready;
    pid_t child = kt::start_child([&] {
        if (is_chinit() != 0) return 1;
        if (nisgetctl(b) != 0) return 2;
        ready.signal();
        // Wait until the parent sleeps on b, then ask for a: the kernel sees the cycle.
        while (is_env.needs_[me] == 0) ::usleep(1000);
        ::usleep(20000);  // the entry is set just before the parent blocks
        if (nisgetctl(a) != -1) return 3;
        if (is_errno != ISE_DEADLOCK) return 4;
        if (ot::stack_code(0) != 0x3601) return 5;
        if (ot::pfi_of(a)->pfi_ctlcnt != 0) return 6;
        if (ot::shared_fcp(a)->jd_fcplock == static_cast<uint32_t>(is_pid)) return 7;
        ::usleep(50000);
        if (nisrelctl(b) != 0) return 8;
        nisunisam();
        return 0;
    });
    ASSERT_EQ(ready.wait(), 'x');
    EXPECT_EQ(nisgetctl(b), 0) << "granted once the child lets b go";
    EXPECT_EQ(ot::shared_fcp(b)->jd_fcplock, static_cast<uint32_t>(is_pid));
    EXPECT_EQ(nisrelctl(b), 0);
    EXPECT_EQ(nisrelctl(a), 0);
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_EQ(ot::shared_fcp(a)->is_usecnt, 1);
}

}  // namespace
