// The buffer pool between real processes: shared hits, stealing under other processes'
// control locks, the one-second wait, and fixes left by a process that died.
#include "../engine/pool_fixture.h"

#include <signal.h>
#include <sys/wait.h>

using namespace pt;

namespace {

class PoolMp : public PoolEnv {
protected:
    // A child that fixes pages 1 and 2 of fd, signals, then sleeps `ms` (or for ever).
    pid_t fix_two_in_child(int fd, kt::Pipe& fixed, int ms) {
        return kt::start_child([&, fd, ms] {
            if (is_chinit() != 0) return 2;
            begin(fd);
            get(1);
            get(2);
            fixed.signal();
            if (ms < 0) for (;;) ::pause();
            ::usleep(static_cast<useconds_t>(ms) * 1000);
            end();
            nisunisam();
            return ::testing::Test::HasFailure() ? 4 : 0;
        });
    }
};

TEST_F(PoolMp, APageLoadedByOneProcessIsAHitForAnother) {
    start(cfg(16, 0));
    int fd = make_file("a.ism", 4);
    begin(fd);
    get(1);  // this process now knows the whole (one-slot) chain
    ASSERT_EQ(end(), 0);
    const uint32_t rd0 = isam_com->sysread;
    ASSERT_EQ(kt::run_child([&] {
        if (is_chinit() != 0) return 2;
        begin(fd);
        const uint32_t hit = isam_com->hit;
        if (!get(1) || isam_com->hit != hit + 1) return 3;
        get(3);
        end();
        nisunisam();
        return ::testing::Test::HasFailure() ? 4 : 0;
    }), 0);
    begin(fd);
    const uint32_t hit = isam_com->hit;
    get(3);
    EXPECT_EQ(isam_com->hit, hit + 1) << "the other process's page is found";
    EXPECT_EQ(isam_com->sysread, rd0 + 1) << "only page 3 was read from disk";
    EXPECT_EQ(end(), 0);
}

TEST_F(PoolMp, StealingPassesOverAFileLockedElsewhere) {
    start(cfg(4, 100));
    int a = make_file("a.ism", 4);
    int b = make_file("b.ism", 4);
    begin(a);
    for (int i = 1; i <= 4; ++i) get(i);
    ASSERT_EQ(end(), 0);
    begin(b);
    get(1);  // steals a's least recently used slot
    ASSERT_EQ(end(), 0);
    ASSERT_EQ(chain_pages(uid(a)).size(), 3u);
    kt::Pipe locked, done;
    pid_t child = kt::start_child([&] {
        if (is_chinit() != 0 || nisgetctl(a) != 0) return 2;
        locked.signal();
        done.wait();
        nisrelctl(a);
        nisunisam();
        return 0;
    });
    ASSERT_EQ(locked.wait(), 'x');
    begin(b);
    get(2);  // a's slots are older, but a is held elsewhere: b's own slot goes
    EXPECT_EQ(chain_pages(uid(a)).size(), 3u);
    EXPECT_EQ(chain_pages(uid(b)), (std::vector<PAGE>{2048}));
    ASSERT_EQ(end(), 0);
    done.signal();
    ASSERT_EQ(kt::wait_child(child), 0);
    begin(b);
    get(3);
    EXPECT_EQ(chain_pages(uid(a)).size(), 2u) << "free again: a's oldest slot is taken";
    EXPECT_EQ(end(), 0);
}

TEST_F(PoolMp, WaitsOneSecondAtATimeWhileEverySlotIsFixed) {
    start(cfg(2, 100));
    int a = make_file("a.ism", 2);
    int b = make_file("b.ism", 2);
    kt::Pipe fixed;
    pid_t child = fix_two_in_child(a, fixed, 1300);
    ASSERT_EQ(fixed.wait(), 'x');
    const uint16_t sleeps = isam_com->vr_nsleep;
    begin(b);
    get(1);
    EXPECT_GE(isam_com->vr_nsleep, sleeps + 1);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(kt::wait_child(child), 0);
}

TEST_F(PoolMp, FixesOfAHolderThatDiedAreCleared) {
    for (bool via_steal : {false, true}) {
        SCOPED_TRACE(via_steal);
        start(cfg(2, 100));
        int a = make_file("a.ism", 2);
        int b = make_file("b.ism", 2);
        kt::Pipe fixed;
        pid_t child = fix_two_in_child(a, fixed, -1);
        ASSERT_EQ(fixed.wait(), 'x');
        ::kill(child, SIGKILL);
        EXPECT_EQ(kt::wait_child(child), 128 + SIGKILL);
        EXPECT_EQ(fixed_slots(), 2);
        const uint16_t sleeps = isam_com->vr_nsleep;
        begin(via_steal ? b : a);  // the steal scan, or taking the dead holder's lock
        get(1);
        EXPECT_EQ(isam_com->vr_nsleep, sleeps);
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(fixed_slots(), 0);
        stop();
    }
}

}  // namespace
