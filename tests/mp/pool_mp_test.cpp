// The buffer pool between real processes: whose slots a miss may take, and whom it waits for.
#include "../engine/pool_fixture.h"

#include "isx_area.h"

#include <signal.h>

#include <random>
#include <set>

using namespace pt;

namespace {

class PoolMp : public PoolEnv {};

// Two processes miss on two files (few reads per hold: the chain log; 100: a chain walk):
// every read gets its page, chains stay exact, counters account for every read, and what
// they left in the pool is a hit for a third process.
TEST_F(PoolMp, TwoProcessesMissOnTheSameFilesAtOnce) {
    const uint64_t seed = kt::test_seed(20261123);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    start(cfg(40, 24));
    const int npages = 120, holds = 150;
    int fds[2] = {make_file("a.ism", npages), make_file("b.ism", npages)};
    ASSERT_GE(isx_area->xh_log_len, 64u);
    auto misses = [] { return isam_com->missfree + isam_com->missread + isam_com->misswrite; };
    const uint32_t hit0 = isam_com->hit, miss0 = misses(), rd0 = isam_com->sysread;
    auto* reads = static_cast<uint32_t*>(kt::shared_memory(2 * sizeof(uint32_t)));
    kt::Pipe go;
    pid_t kids[2];
    for (int k = 0; k < 2; ++k) {
        kids[k] = kt::start_child([&, k] {
            if (is_chinit() != 0) return 2;
            std::mt19937_64 rng(seed + static_cast<uint64_t>(k));
            go.wait();
            for (int h = 0; h < holds; ++h) {
                const int fd = fds[rng() % 2];
                begin(fd);
                const int n = rng() % 4 ? 1 + static_cast<int>(rng() % 8) : 100;
                int kept = 0;  // a few pages stay fixed, as a B-tree descent leaves them
                for (int i = 0; i < n; ++i) {
                    const PAGE p = static_cast<PAGE>(1 + rng() % npages) * 1024;
                    IS_DATA* d = v_read(p);
                    if (!d || stamp_of(d) != p) return 3;
                    ++reads[k];
                    if (kept < 3 && rng() % 8 == 0) ++kept;
                    else v_unsafe(p, d->c);
                }
                const std::vector<PAGE> pages = chain_pages(uid(fd));
                if (std::set<PAGE>(pages.begin(), pages.end()).size() != pages.size()) return 4;
                if (kisam::isx_file_of(uid(fd))->xf_chainlen != pages.size()) return 5;
                if (end() != 0) return 6;
                ::usleep(static_cast<useconds_t>(rng() % 300));  // let the other one in
            }
            nisunisam();
            return 0;
        });
    }
    go.signal();
    go.signal();
    for (int k = 0; k < 2; ++k) EXPECT_EQ(kt::wait_child(kids[k]), 0) << "child " << k;
    EXPECT_EQ((isam_com->hit - hit0) + (misses() - miss0), reads[0] + reads[1]);
    EXPECT_EQ(isam_com->sysread - rd0, misses() - miss0) << "one disk read per miss";
    EXPECT_GT(isam_com->missread, 0u) << "slots were stolen between the files";
    begin(fds[0]);   // a page the children left in the pool is a hit here, with no disk read
    const std::vector<PAGE> left = chain_pages(uid(fds[0]));
    ASSERT_FALSE(left.empty());
    const uint32_t hit = isam_com->hit, rd = isam_com->sysread;
    get(static_cast<int>(left.back() / 1024));
    EXPECT_EQ(isam_com->hit, hit + 1);
    EXPECT_EQ(isam_com->sysread, rd);
    EXPECT_EQ(end(), 0);
}

TEST_F(PoolMp, StealingPassesOverAFileLockedElsewhere) {
    start(cfg(4, 100));
    const int a = make_file("a.ism", 4), b = make_file("b.ism", 4);
    begin(a);
    for (int i = 1; i <= 4; ++i) get(i);
    ASSERT_EQ(end(), 0);
    begin(b);
    get(1);  // steals a's least recently used slot
    ASSERT_EQ(end(), 0);
    ASSERT_EQ(chain_pages(uid(a)).size(), 3u);
    kt::Pipe locked, done;
    const pid_t child = kt::start_child([&] {
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

// Every slot fixed elsewhere: a miss waits while the holder lives, not once it died
// (its fixes cleared by the steal scan, or by taking its lock).
TEST_F(PoolMp, EverySlotFixedElsewhereWaitsForALiveHolderNotForADeadOne) {
    for (int how : {0, 1, 2}) {   // alive; killed, then a steal; killed, then its file
        SCOPED_TRACE(how);
        start(cfg(2, 100));
        const int a = make_file("a.ism", 2), b = make_file("b.ism", 2);
        kt::Pipe fixed;
        const pid_t child = kt::start_child([&] {   // fixes both slots, then sleeps or waits to be killed
            if (is_chinit() != 0) return 2;
            begin(a);
            get(1);
            get(2);
            fixed.signal();
            if (how > 0) for (;;) ::pause();
            ::usleep(1300 * 1000);
            end();
            nisunisam();
            return ::testing::Test::HasFailure() ? 4 : 0;
        });
        ASSERT_EQ(fixed.wait(), 'x');
        if (how > 0) {
            ::kill(child, SIGKILL);
            EXPECT_EQ(kt::wait_child(child), 128 + SIGKILL);
            EXPECT_EQ(fixed_slots(), 2);
        }
        const uint16_t sleeps = isam_com->vr_nsleep;
        begin(how == 2 ? a : b);
        get(1);
        EXPECT_EQ(isam_com->vr_nsleep > sleeps, how == 0) << "slept " << isam_com->vr_nsleep - sleeps;
        EXPECT_EQ(end(), 0);
        if (how == 0) { EXPECT_EQ(kt::wait_child(child), 0); }
        EXPECT_EQ(fixed_slots(), 0);
        stop();
    }
}

}  // namespace
