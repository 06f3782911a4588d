// The buffer pool between real processes: shared hits, misses of two processes on the same
// files, stealing under other processes' control locks, the one-second wait, and fixes left
// by a process that died.
#include "../engine/pool_fixture.h"

#include "isx_area.h"

#include <signal.h>

#include <random>
#include <set>
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

// Two processes miss on the same two files in turn, each holding a file's control lock
// for a few reads (the other catches up from the file's chain log) or for 100 (more than
// the log holds: the other walks the chain), with own-quota reuse and stealing between the files.
// Every read returns its page, no chain ever holds a page twice or disagrees with its
// shared length, and the counters account for every read exactly.
TEST_F(PoolMp, TwoProcessesMissOnTheSameFilesAtOnce) {
    const uint64_t seed = kt::test_seed(20261123);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    start(cfg(40, 24));
    const int npages = 120, holds = 150;
    int fds[2] = {make_file("a.ism", npages), make_file("b.ism", npages)};
    ASSERT_GE(isx_area->xh_log_len, 64u);
    auto misses = [] { return isam_com->missfree + isam_com->missread + isam_com->misswrite; };
    const uint32_t hit0 = isam_com->hit, miss0 = misses(), rd0 = isam_com->sysread;
    kt::Pipe go[2], counts[2];
    pid_t kids[2];
    for (int k = 0; k < 2; ++k) {
        kids[k] = kt::start_child([&, k] {
            if (is_chinit() != 0) return 2;
            std::mt19937_64 rng(seed + static_cast<uint64_t>(k));
            go[k].wait();
            uint32_t reads = 0;
            for (int h = 0; h < holds; ++h) {
                const int fd = fds[rng() % 2];
                begin(fd);
                const int n = rng() % 4 ? 1 + static_cast<int>(rng() % 8) : 100;
                int kept = 0;  // a few pages stay fixed, as a B-tree descent leaves them
                for (int i = 0; i < n; ++i) {
                    const PAGE p = static_cast<PAGE>(1 + rng() % npages) * 1024;
                    IS_DATA* d = v_read(p);
                    if (!d || stamp_of(d) != p) return 3;
                    ++reads;
                    if (kept < 3 && rng() % 8 == 0) ++kept;
                    else v_unsafe(p, d->c);
                }
                const std::vector<PAGE> pages = chain_pages(uid(fd));
                if (std::set<PAGE>(pages.begin(), pages.end()).size() != pages.size()) return 4;
                if (kisam::isx_file_of(uid(fd))->xf_chainlen != pages.size()) return 5;
                if (end() != 0) return 6;
                ::usleep(static_cast<useconds_t>(rng() % 300));  // let the other one in
            }
            for (int b = 0; b < 4; ++b) counts[k].signal(static_cast<char>(reads >> (8 * b)));
            nisunisam();
            return 0;
        });
    }
    go[0].signal();
    go[1].signal();
    counts[0].close_write();  // a child that fails early ends its pipe
    counts[1].close_write();
    uint32_t reads = 0;
    for (int k = 0; k < 2; ++k) {
        uint32_t r = 0;
        for (int b = 0; b < 4; ++b)
            r |= static_cast<uint32_t>(static_cast<unsigned char>(counts[k].wait())) << (8 * b);
        reads += r;
        EXPECT_EQ(kt::wait_child(kids[k]), 0) << "child " << k;
    }
    EXPECT_EQ((isam_com->hit - hit0) + (misses() - miss0), reads);
    EXPECT_EQ(isam_com->sysread - rd0, misses() - miss0) << "one disk read per miss";
    EXPECT_GT(isam_com->missread, 0u) << "slots were stolen between the files";
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
