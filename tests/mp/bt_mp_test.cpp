// Processes share one tree, one operation per control-lock hold, so every page hint goes
// stale between operations.  The tree must end sound and hold exactly what each left.
#include "../engine/bt_fixture.h"

#include "kcheck.h"

#include <algorithm>
#include <random>
#include <set>

namespace {

constexpr int kChildren = 3;
constexpr int kPerChild = 150;

std::string item_of(int len, int v) {
    std::string s(static_cast<size_t>(len), 'm');
    s[0] = static_cast<char>(v >> 8);
    s[1] = static_cast<char>(v);
    kisam::store_at<uint32_t>(s.data() + len - 4, static_cast<uint32_t>(v) * 3u);
    return s;
}

// Child c owns values c, c + kChildren, ...; it inserts them all in a random order and
// deletes every third again, checking its own items by exact search as it goes.
int child_work(int fd, int c, uint64_t seed) {
    if (is_chinit() != 0) return 10;
    std::mt19937_64 rng(seed + static_cast<uint64_t>(c));
    std::vector<int> mine;
    for (int i = 0; i < kPerChild; ++i) mine.push_back(c + kChildren * i);
    std::shuffle(mine.begin(), mine.end(), rng);
    std::vector<int> inserted;
    std::set<int> deleted;
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
                deleted.insert(v);
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

TEST_P(BtMp, ProcessesShareOneTree) {
    const int keylen = GetParam();
    kt::Config cfg;
    cfg.maxbuf = 24;   // small: the processes also take slots from one another
    btt::BtFile f(1024, {keylen}, cfg);
    ASSERT_TRUE(f.ok());
    const uint64_t seed = kt::test_seed(0xB7B7);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));

    // All children start together, so that their operations interleave.
    kt::Pipe go;
    std::vector<pid_t> kids;
    for (int c = 0; c < kChildren; ++c) {
        const int fd = f.fd();
        kids.push_back(kt::start_child([&go, fd, c, seed] {
            go.close_write();
            if (go.wait() != 'g') return 9;
            return child_work(fd, c, seed);
        }));
    }
    for (int c = 0; c < kChildren; ++c) go.signal('g');
    for (pid_t p : kids) EXPECT_EQ(kt::wait_child(p), 0);

    ASSERT_EQ(kt::write_back(f.fd()), 0);
    kisam::check::Report rep =
        kisam::check::check_file(f.path(), kisam::check::CHECK_TREES | kisam::check::CHECK_FREE);
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
