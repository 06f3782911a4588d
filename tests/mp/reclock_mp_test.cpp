// Record locks: a randomized comparison of lock and unlock against a simple model, and
// conflicts, waits and prefix overlap between processes.
#include "../engine/open_fixture.h"

#include <algorithm>
#include <random>

namespace {

using ot::Env;

class RecLock : public Env {};

struct Lock {
    int isfd;
    std::string key;
    bool operator==(const Lock& o) const { return isfd == o.isfd && key == o.key; }
};

bool overlap(const std::string& a, const std::string& b) {
    size_t n = std::min(a.size(), b.size());
    return a.compare(0, n, b, 0, n) == 0;
}

// The file's lock chain, front first.
std::vector<Lock> chain(IS_FCP* f) {
    std::vector<Lock> out;
    for (RELt r = f->jd_lock_hd; r != KISAM_NOREL;) {
        IS_RC* e = kisam::rel_ptr<IS_RC>(r);
        if (e->rc_lock != 0) out.push_back({e->rc_isfd, std::string(e->rc_key, static_cast<size_t>(e->rc_len))});
        r = e->rc_next;
    }
    return out;
}

TEST_F(RecLock, MatchesTheModel) {
    const uint64_t seed = kt::test_seed(20261122);
    std::mt19937_64 rng(seed);
    int h[2] = {create("f", {4}), -1};
    ASSERT_GE(h[0], 0);
    h[1] = nisopen(path("f").c_str(), ISO_RDWR);
    ASSERT_GE(h[1], 0);
    IS_FCP* f = ot::shared_fcp(h[0]);
    std::vector<Lock> model;  // front first, like the chain

    auto rnd = [&](int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); };
    for (int step = 0; step < 3000; ++step) {
        int which = rnd(2);
        int fd = h[which];
        std::string key;
        for (int n = rnd(4); n > 0; --n) key.push_back("ab"[rnd(2)]);
        int op = rnd(10);
        int got = 0, want = 0;
        std::string what;
        if (op < 5) {
            int rtnopt = rnd(3);
            what = "lock " + std::to_string(rtnopt);
            bool mine = std::any_of(model.begin(), model.end(), [&](const Lock& l) { return overlap(l.key, key); });
            want = rtnopt == 2 && mine ? 1 : 0;
            if (want == 0) model.insert(model.begin(), {fd, key});
            got = nislock(fd, key.data(), static_cast<int>(key.size()), rtnopt);
        } else if (op < 7) {
            what = "unlock exact";
            auto it = std::find_if(model.begin(), model.end(),
                                   [&](const Lock& l) { return l.isfd == fd && l.key == key; });
            want = it == model.end() ? -1 : 0;
            if (it != model.end()) model.erase(it);
            got = nisunlock(fd, key.data(), static_cast<int>(key.size()), 0);
        } else if (op < 9) {
            what = "unlock overlapping";
            auto keep = [&](const Lock& l) { return !(l.isfd == fd && overlap(l.key, key)); };
            auto it = std::stable_partition(model.begin(), model.end(), keep);
            want = static_cast<int>(model.end() - it);
            model.erase(it, model.end());
            got = nisunlock(fd, key.data(), static_cast<int>(key.size()), 1);
        } else {
            what = "close and reopen";
            model.erase(std::remove_if(model.begin(), model.end(), [&](const Lock& l) { return l.isfd == fd; }),
                        model.end());
            ASSERT_EQ(nisclose(fd), 0);
            h[which] = nisopen(path("f").c_str(), ISO_RDWR);
            ASSERT_EQ(h[which], fd) << "the freed number is reused";
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + ": " + what + " '" + key + "'");
        ASSERT_EQ(got, want);
        ASSERT_TRUE(chain(f) == model) << "the lock chain differs from the model";
        ASSERT_EQ(isam_com->curusrlocks, model.size());
    }
    EXPECT_EQ(nisclose(h[0]), 0);
    EXPECT_EQ(nisclose(h[1]), 0);
}

TEST_F(RecLock, ConflictsWaitsAndOverlapBetweenProcesses) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    const int me = is_env.useridx;
    kt::Pipe locked, go;
    pid_t child = kt::start_child([&] {
        if (is_chinit() != 0) return 1;
        if (nislock(fd, "ab", 2, 1) != 0) return 2;
        if (nislock(fd, "zz", 2, 1) != 0) return 3;
        locked.signal();
        go.wait();
        // Release once the parent sleeps on the lock.
        while (is_env.needs_[me] == 0) ::usleep(1000);
        ::usleep(20000);
        if (nisunlock(fd, "ab", 2, 0) != 0) return 4;
        if (nisunlock(fd, "ab", 2, 0) != -1) return 5;
        nisunisam();  // closing releases "zz"
        return 0;
    });
    ASSERT_EQ(locked.wait(), 'x');
    struct Try {
        const char* key;
        int len;
        int want;
    } tries[] = {{"abc", 3, -1}, {"a", 1, -1}, {"ax", 2, 0}, {"b", 1, 0}};
    for (const Try& t : tries) {
        for (int rtnopt : {1, 2}) {
            is_errno = 0;
            EXPECT_EQ(nislock(fd, t.key, t.len, rtnopt), rtnopt == 2 && t.want == 0 ? 1 : t.want)
                << t.key << " " << rtnopt;
            EXPECT_EQ(is_errno, 0) << "a conflict sets no error code";
        }
    }
    uint32_t waits = isam_com->usrwaits;
    go.signal();
    EXPECT_EQ(nislock(fd, "abc", 3, 0), 0) << "waits until the holder unlocks";
    EXPECT_GT(isam_com->usrwaits, waits);
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_EQ(nislock(fd, "", 0, 1), 0) << "the child's locks went with its close";
    EXPECT_EQ(nisunlock(fd, "", 0, 1), 4);  // ax, b, abc and the empty key
    EXPECT_EQ(chain(ot::shared_fcp(fd)).size(), 0u);
}

}  // namespace
