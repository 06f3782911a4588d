// The buffer pool in one process: victim rules a model cannot show, failed loads, and a
// randomized run against a model of the slots.
#include "pool_fixture.h"

#include "isx_area.h"
#include "os.h"

#include <map>
#include <random>

using namespace pt;

namespace {

class Pool : public PoolEnv {};

TEST_F(Pool, ReadOnlyOpenerNeverEvictsADirtySlot) {
    for (int quota : {2, 100}) {  // own-quota reuse, then the steal scan
        SCOPED_TRACE(quota);
        start(cfg(2, quota));
        int fd = make_file("a.ism", 4, ISO_RDONLY);
        begin(fd);
        IS_DATA* p1 = get(1);
        get(2);
        slot(slot_of(p1)).bu_id |= BU_DIRTY;
        ASSERT_EQ(end(), 0);
        begin(fd);
        get(3);
        EXPECT_EQ(slot(slot_of(p1)).bu_pno, 1024u) << "the dirty slot kept its page";
        slot(slot_of(p1)).bu_id &= static_cast<uint16_t>(~BU_DIRTY);
        ASSERT_EQ(end(), 0);
        stop();
    }
}

TEST_F(Pool, ReadFailsRatherThanWaitForSlotsOnlyThisProcessCanRelease) {
    start(cfg(2, 100));
    int fd = make_file("a.ism", 3);
    begin(fd);
    get(1);
    get(2);
    const uint16_t sleeps = isam_com->vr_nsleep;
    EXPECT_EQ(v_read(3 * 1024), nullptr);
    EXPECT_EQ(is_errno, ISE_BUFLINK);
    EXPECT_EQ(stack_code(), 0x4307);
    EXPECT_EQ(isam_com->vr_nsleep, sleeps);
    EXPECT_EQ(end(), 0);
    begin(fd);
    get(3);  // the release unfixed both slots
    EXPECT_EQ(end(), 0);
}

// A short read of garbage, then end of file.
int g_calls = 0;
ssize_t short_pread(int, void* buf, size_t, off_t) {
    if (g_calls++ > 0) return 0;
    std::memset(buf, 0xEE, 100);
    return 100;
}

TEST_F(Pool, FailedLoadNeverLeavesASlotForThePage) {
    for (int quota : {100, 1}) {  // free-list load, then own-quota load in place
        SCOPED_TRACE(quota);
        start(cfg(4, quota));
        int fd = make_file("a.ism", 3);
        begin(fd);
        get(1);
        ASSERT_EQ(end(), 0);
        begin(fd);
        g_calls = 0;
        kisam::os.pread = short_pread;
        EXPECT_EQ(v_read(2048), nullptr);
        kisam::os.pread = kisam::os_real.pread;
        EXPECT_EQ(stack_code(), 0x4305);
        for (PAGE p : chain_pages(uid(fd))) EXPECT_NE(p, 2048u);
        EXPECT_EQ(v_hit(2048, kKeyno), 0);
        const uint32_t rd = isam_com->sysread;
        get(2);
        EXPECT_EQ(isam_com->sysread, rd + 1) << "loaded again from disk";
        EXPECT_EQ(end(), 0);
        stop();
    }
}

// The slots as the pool's rules place them, for one process that owns every file: a
// page found on its file's chain is a hit; a file at its quota turns its own clock hand
// along its chain; otherwise the free list serves, else the hand over all slots turns.
// A hand passes fixed slots, and clears and passes referenced ones.
struct Model {
    struct Slot { int file = -1; PAGE page = 0; bool fixed = false, ref = false; int next = -1; };
    std::vector<Slot> s;
    std::map<int, int> head, hand, len;
    int freehd = 0, maxfbuf, steal = 0;
    uint32_t hit = 0, missfree = 0, missread = 0;
    Model(int n, int q) : s(static_cast<size_t>(n)), maxfbuf(q) {
        for (int i = 0; i < n; ++i) s[i].next = i + 1 < n ? i + 1 : -1;
    }
    // The first slot that a hand starting at h passes without a second chance, within
    // two turns of n slots; h ends after it.
    template <class Next>
    int turn(int& h, int n, Next next) {
        for (int k = 0; k < 2 * n + 1; ++k) {
            int i = h;
            h = next(i);
            if (s[i].fixed) continue;
            if (s[i].ref) { s[i].ref = false; continue; }
            return i;
        }
        return -1;
    }
    int use(int i, PAGE p) { s[i].page = p; s[i].fixed = s[i].ref = true; return i; }
    int read(int f, PAGE p) {
        if (!head.count(f)) head[f] = hand[f] = -1, len[f] = 0;
        for (int i = head[f]; i >= 0; i = s[i].next)
            if (s[i].page == p) { ++hit; return use(i, p); }
        if (len[f] >= maxfbuf) {
            int& h = hand[f];
            if (h < 0 || s[h].file != f) h = head[f];
            int v = turn(h, len[f], [&](int i) { return s[i].next >= 0 ? s[i].next : head[f]; });
            if (v >= 0) { ++missfree; return use(v, p); }
        }
        int v = freehd;
        if (v >= 0) {
            freehd = s[v].next; ++missfree;
        } else {
            const int n = static_cast<int>(s.size());
            v = turn(steal, n, [&](int i) { return (i + 1) % n; });
            if (v < 0) return -1;
            ++missread;
            const int w = s[v].file;
            if (hand[w] == v) hand[w] = s[v].next;
            --len[w];
            int& h = head[w];
            if (h == v) h = s[v].next;
            else for (int i = h; i >= 0; i = s[i].next)
                if (s[i].next == v) { s[i].next = s[v].next; break; }
        }
        s[v].next = head[f]; head[f] = v; s[v].file = f; ++len[f];
        return use(v, p);
    }
    void release(int f) {
        for (int i = head.count(f) ? head[f] : -1; i >= 0; i = s[i].next) s[i].fixed = false;
    }
};

// Random holds on three files, some of them run by short-lived child processes, each
// checked against the model: hit or miss, the slot chosen, every slot's tag and stamp.
TEST_F(Pool, RandomizedRunAgreesWithModel) {
    const uint64_t seed = kt::test_seed(20261122);
    std::mt19937_64 rng(seed);
    const int nbuf = 12, quota = 5, npages = 30;
    start(cfg(nbuf, quota));
    int fds[3];
    for (int i = 0; i < 3; ++i) fds[i] = make_file("f" + std::to_string(i) + ".ism", npages);
    Model m(nbuf, quota);
    isam_com->lru_cnt = 0xFFFFFF00u;  // the clock wraps during the run
    for (int step = 0; step < 300; ++step) {
        SCOPED_TRACE("step " + std::to_string(step) + ", KISAM_SEED=" + std::to_string(seed));
        const int fd = fds[rng() % 3];
        std::vector<PAGE> pages(1 + rng() % 4);
        for (PAGE& p : pages) p = static_cast<PAGE>(1 + rng() % npages) * 1024;
        if (rng() % 8 == 0) {
            ASSERT_EQ(kt::run_child([&] {
                if (is_chinit() != 0) return 2;
                begin(fd);
                for (PAGE p : pages)
                    if (!v_read(p)) return 3;
                end();
                nisunisam();
                return ::testing::Test::HasFailure() ? 4 : 0;
            }), 0);
            for (PAGE p : pages) m.read(uid(fd), p);
        } else {
            begin(fd);
            for (PAGE p : pages) {
                int want = m.read(uid(fd), p);
                IS_DATA* d = v_read(p);
                ASSERT_NE(d, nullptr);
                ASSERT_EQ(slot_of(d), want);
                ASSERT_EQ(stamp_of(d), p);
                ASSERT_EQ(slot(want).bu_cnt, isam_com->lru_cnt) << "stamped with the clock";
                ASSERT_NE(isam_com->lru_cnt, 0u);
                if (rng() % 3 == 0) {
                    ASSERT_EQ(v_unsafe(p, d->c), 0);
                    m.s[want].fixed = false;
                }
            }
            ASSERT_EQ(end(), 0);
        }
        m.release(uid(fd));
        ASSERT_EQ(isam_com->hit, m.hit);
        ASSERT_EQ(isam_com->missfree, m.missfree);
        ASSERT_EQ(isam_com->missread, m.missread);
        for (int i = 0; i < nbuf; ++i) {
            if (m.s[i].file < 0) continue;
            ASSERT_EQ(slot(i).bu_id & BU_FILEMASK, m.s[i].file) << "slot " << i;
            ASSERT_EQ(slot(i).bu_pno, m.s[i].page) << "slot " << i;
            ASSERT_EQ(stamp_of(&slot(i).bu_data), m.s[i].page) << "slot " << i;
            ASSERT_EQ(*kisam::isx_ref(i) != 0, m.s[i].ref) << "slot " << i;
        }
        for (int f = 0; f < 3; ++f)
            ASSERT_EQ(kisam::isx_file_of(uid(fds[f]))->xf_chainlen, chain_pages(uid(fds[f])).size());
    }
    EXPECT_LT(isam_com->lru_cnt, 0xFFFFFF00u) << "the clock wrapped";
}

}  // namespace
