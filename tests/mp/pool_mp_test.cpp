// The buffer pool between real processes, and one B-tree shared by several.
#include "../engine/bt_fixture.h"
#include "../engine/pool_fixture.h"

#include "isx_area.h"
#include "kcheck.h"

#include <algorithm>

#include <signal.h>

#include <random>
#include <set>
#include <sys/wait.h>

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
        if (how == 0) {
            EXPECT_EQ(kt::wait_child(child), 0);
        }
        EXPECT_EQ(fixed_slots(), 0);
        stop();
    }
}

// ---- one tree ------------------------------------------------------------------------------

constexpr int kChildren = 3;
constexpr int kPerChild = 150;

std::string item_of(int len, int v) {
    std::string s(static_cast<size_t>(len), 'm');
    s[0] = static_cast<char>(v >> 8);
    s[1] = static_cast<char>(v);
    kisam::store_at<uint32_t>(s.data() + len - 4, static_cast<uint32_t>(v) * 3u);
    return s;
}

// Child c inserts its values (c mod kChildren) in random order, deletes every third,
// and finds the others exactly.
int child_work(int fd, int c, uint64_t seed) {
    if (is_chinit() != 0) return 10;
    std::mt19937_64 rng(seed + static_cast<uint64_t>(c));
    std::vector<int> mine;
    for (int i = 0; i < kPerChild; ++i) mine.push_back(c + kChildren * i);
    std::shuffle(mine.begin(), mine.end(), rng);
    std::vector<int> inserted;
    for (size_t n = 0; n < mine.size() || !inserted.empty();) {
        if (is_isin(PROC(P_ISWRITE), fd, 0) != 0 || is_getctl() != 0) return 11;
        IS_KEY* kp = kisam::fcp_key(is_curfcp, 0);
        const int len = kp->k_itemlen;
        int rc = 0;
        if (n < mine.size() && (inserted.empty() || rng() % 3 != 0)) {
            const int v = mine[n++];
            std::string it = item_of(len, v);
            if (bt_insert(0, kp->k_root, it.data(), 0, 0) != 0) rc = 12;
            inserted.push_back(v);
        } else {
            const size_t at = static_cast<size_t>(rng() % inserted.size());
            const int v = inserted[at];
            inserted.erase(inserted.begin() + static_cast<long>(at));
            std::string it = item_of(len, v);
            if ((v / kChildren) % 3 == 0) {
                if (bt_delete(0, kp->k_root, it.data(), KISAM_NOPAGE) != 0) rc = 13;
            } else {   // the exact search finds it whole, through whatever hint is left
                std::string probe = item_of(len, v);
                kisam::store_at<uint32_t>(probe.data() + len - 4, 0);
                if (bt_search(0, kp->k_root, 1, probe.data(), 0) != 1 || probe != it) rc = 14;
            }
        }
        if (is_relctl() != 0) rc = rc ? rc : 15;
        is_isout();
        if (rc) return rc;
    }
    nisunisam();
    return 0;
}

class BtMp : public ::testing::TestWithParam<int> {};

// One tree, one operation per control-lock hold (every hint stale): sound and exact.
TEST_P(BtMp, ProcessesShareOneTree) {
    const int keylen = GetParam();
    kt::Config cfg;
    cfg.maxbuf = 24;   // small: the processes also take slots from one another
    btt::BtFile f(1024, {keylen}, cfg);
    ASSERT_TRUE(f.ok());
    const uint64_t seed = kt::test_seed(0xB7B7);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));

    kt::Pipe go;   // the children start together
    std::vector<pid_t> kids;
    for (int c = 0; c < kChildren; ++c)
        kids.push_back(kt::start_child([&, c] {
            go.close_write();   // only the parent writes: a parent gone ends the wait
            return go.wait() == 'x' ? child_work(f.fd(), c, seed) : 9;
        }));
    for (int c = 0; c < kChildren; ++c) go.signal();
    for (pid_t p : kids) EXPECT_EQ(kt::wait_child(p), 0);

    ASSERT_EQ(kt::write_back(f.fd()), 0);
    const auto rep = kisam::check::check_file(f.path(), kisam::check::CHECK_TREES | kisam::check::CHECK_FREE);
    ASSERT_TRUE(rep.ok) << rep.error;
    EXPECT_EQ(rep.unknown_pages, 0);

    std::vector<std::string> items, want;
    std::string err;
    ASSERT_GE(kisam::check::list_items(f.path(), 0, &items, &err), 0) << err;
    for (int v = 0; v < kChildren * kPerChild; ++v)
        if ((v / kChildren) % 3 != 0) want.push_back(item_of(((keylen + 1) & ~1) + 4, v));
    EXPECT_TRUE(items == want);
}

INSTANTIATE_TEST_SUITE_P(Bt, BtMp, ::testing::Values(300, 240));   // orders 3 and 4

}  // namespace
