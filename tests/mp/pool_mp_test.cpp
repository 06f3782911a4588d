// The buffer pool between real processes: shared hits, stealing under other processes'
// control locks, the one-second wait, and fixes left by a process that died.
#include "../engine/pool_fixture.h"

#include <signal.h>
#include <sys/wait.h>

#include <random>

using namespace pt;

namespace {

class PoolMp : public PoolEnv {};

TEST_F(PoolMp, APageLoadedByOneProcessIsAHitForAnother) {
    start(cfg(16, 0));
    int fd = make_file("a.ism", 4);
    begin(fd);
    get(1);  // this process now knows the whole (one-slot) chain
    ASSERT_EQ(end(), 0);
    const uint32_t rd0 = isam_com->sysread;
    int rc = kt::run_child([&] {
        if (is_chinit() != 0) return 2;
        begin(fd);
        const uint32_t hit = isam_com->hit;
        IS_DATA* one = get(1);
        if (!one || isam_com->hit != hit + 1) return 3;
        get(3);
        end();
        nisunisam();
        return ::testing::Test::HasFailure() ? 4 : 0;
    });
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(isam_com->sysread, rd0 + 1) << "only page 3 was read from disk";
    begin(fd);
    const uint32_t hit = isam_com->hit;
    get(3);
    EXPECT_EQ(isam_com->hit, hit + 1) << "the other process's page is found";
    EXPECT_EQ(isam_com->sysread, rd0 + 1);
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
        if (is_chinit() != 0) return 2;
        if (nisgetctl(a) != 0) return 3;
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
    pid_t child = kt::start_child([&] {
        if (is_chinit() != 0) return 2;
        begin(a);
        get(1);
        get(2);
        fixed.signal();
        ::usleep(1300 * 1000);
        end();
        nisunisam();
        return ::testing::Test::HasFailure() ? 4 : 0;
    });
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
        pid_t child = kt::start_child([&] {
            if (is_chinit() != 0) return 2;
            begin(a);
            get(1);
            get(2);
            fixed.signal();
            for (;;) ::pause();
        });
        ASSERT_EQ(fixed.wait(), 'x');
        ::kill(child, SIGKILL);
        EXPECT_EQ(kt::wait_child(child), 128 + SIGKILL);
        EXPECT_EQ(fixed_slots(), 2);
        const uint16_t sleeps = isam_com->vr_nsleep;
        if (via_steal) {
            begin(b);  // the scan finds only the dead holder's fixed slots
            get(1);
            EXPECT_EQ(isam_com->vr_nsleep, sleeps);
        } else {
            begin(a);  // taking the dead holder's control lock clears its fixes
            EXPECT_EQ(fixed_slots(), 0);
            get(1);
        }
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(fixed_slots(), 0);
        nisunisam();
        inst_.reset();
    }
}

// Processes at once on a pool much smaller than the files: every page read must be
// the page, and no increment made through the pool may be lost.
TEST_F(PoolMp, ConcurrentProcessesNeverSeeAStaleOrForeignPage) {
    constexpr int kFiles = 4, kPages = 8, kProcs = 3, kHolds = 250;
    constexpr int kCounter = 16;  // byte offset of the counter in a page
    start(cfg(10, 4));  // four files at quota would need 16 slots: they steal
    int fds[kFiles];
    for (int f = 0; f < kFiles; ++f) fds[f] = make_file("f" + std::to_string(f) + ".ism", kPages);
    uint32_t initial[kFiles][kPages];
    for (int f = 0; f < kFiles; ++f)
        for (int p = 0; p < kPages; ++p) {
            unsigned char page[1024];
            stamp(page, static_cast<PAGE>(p + 1) * 1024);
            initial[f][p] = kisam::load_at<uint32_t>(page + kCounter);
        }
    const uint64_t seed = kt::test_seed(7);
    std::vector<pid_t> kids;
    for (int k = 0; k < kProcs; ++k) {
        kids.push_back(kt::start_child([&, k] {
            if (is_chinit() != 0) return 2;
            std::mt19937_64 rng(seed + static_cast<uint64_t>(k));
            uint32_t adds[kFiles][kPages] = {};
            for (int h = 0; h < kHolds; ++h) {
                const int f = static_cast<int>(rng() % kFiles);
                begin(fds[f]);
                for (int n = 1 + static_cast<int>(rng() % 2); n > 0; --n) {
                    const int p = static_cast<int>(rng() % kPages);
                    const PAGE pno = static_cast<PAGE>(p + 1) * 1024;
                    IS_DATA* d = v_read(pno);
                    if (!d || stamp_of(d) != pno) return 3;
                    if (rng() % 2) {
                        kisam::store_at<uint32_t>(d->c + kCounter, kisam::load_at<uint32_t>(d->c + kCounter) + 1);
                        if (v_write(pno, d) != 0) return 4;
                        ++adds[f][p];
                    }
                    v_unsafe(pno, d->c);
                }
                if (end() != 0) return 5;
            }
            // The counts go to a file of this child's own.
            int out = ::open(path("adds" + std::to_string(k)).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (out < 0 || ::write(out, adds, sizeof adds) != static_cast<ssize_t>(sizeof adds)) return 6;
            ::close(out);
            nisunisam();
            return 0;
        }));
    }
    for (pid_t kid : kids) EXPECT_EQ(kt::wait_child(kid), 0) << "seed " << seed;
    uint64_t total[kFiles][kPages] = {};
    for (int k = 0; k < kProcs; ++k) {
        uint32_t adds[kFiles][kPages];
        int in = ::open(path("adds" + std::to_string(k)).c_str(), O_RDONLY);
        ASSERT_EQ(::read(in, adds, sizeof adds), static_cast<ssize_t>(sizeof adds));
        ::close(in);
        for (int f = 0; f < kFiles; ++f)
            for (int p = 0; p < kPages; ++p) total[f][p] += adds[f][p];
    }
    EXPECT_GT(isam_com->missread, 0u) << "the processes stole from each other";
    EXPECT_GT(isam_com->hit, 0u);
    for (int f = 0; f < kFiles; ++f) {
        begin(fds[f]);
        for (int p = 0; p < kPages; ++p) {
            IS_DATA* d = get(p + 1);
            ASSERT_NE(d, nullptr);
            EXPECT_EQ(kisam::load_at<uint32_t>(d->c + kCounter), initial[f][p] + total[f][p])
                << "file " << f << " page " << p << " seed " << seed;
        }
        EXPECT_EQ(end(), 0);
    }
}

}  // namespace
