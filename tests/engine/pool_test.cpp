// The buffer pool in one process, and page allocation.
#include "pool_fixture.h"

#include "isx_area.h"
#include "lg.h"
#include "os.h"

#include <algorithm>
#include <map>
#include <random>

using namespace pt;

namespace {

class Pool : public PoolEnv {};

// An uncommitted page never reaches the file; a committed one does, by its path, only
// after its log record; with no way to write it the slot stays.
std::vector<std::pair<char, int>> g_io;  // 's' fdatasync(fd), 'w' pwrite at offset
int rec_sync(int fd) {
    g_io.push_back({'s', fd});
    return kisam::os_real.fdatasync(fd);
}
ssize_t rec_pwrite(int fd, const void* b, size_t n, off_t off) {
    g_io.push_back({'w', static_cast<int>(off)});
    return kisam::os_real.pwrite(fd, b, n, off);
}
char on_disk(const std::string& file, off_t off) {
    char c = 0;
    const int fd = ::open(file.c_str(), O_RDONLY);
    EXPECT_EQ(::pread(fd, &c, 1, off), 1);
    ::close(fd);
    return c;
}

TEST_F(Pool, ReadOnlyOpenerWritesBackOnlyCommittedPagesAfterTheirLog) {
    for (int quota : {2, 100}) {  // own-quota reuse, then the steal scan
        SCOPED_TRACE(quota);
        start(cfg(2, quota));
        const std::string file = path("a.ism");
        int fd = make_file("a.ism", 4, ISO_RDONLY);
        const int u = uid(fd);
        isx_file* xf = kisam::isx_file_of(u);

        begin(fd);
        IS_DATA* p1 = get(1);
        p1->c[100] = 'C';
        const int16_t list[1] = {static_cast<int16_t>(slot_of(p1))};
        uint64_t rec_end = 0;
        ASSERT_EQ(lg_commit(is_curfcp, u, list, 1, &rec_end), 0);
        slot(list[0]).bu_id |= BU_DIRTY;
        ASSERT_EQ(end(), 0);
        EXPECT_LT(xf->xf_log_synced, rec_end);
        ASSERT_EQ(::rename(file.c_str(), path("moved").c_str()), 0);
        begin(fd);
        get(4);
        EXPECT_EQ(slot(list[0]).bu_pno, 1024u) << "a slot no one could write went";
        ASSERT_EQ(end(), 0);
        ASSERT_EQ(::rename(path("moved").c_str(), file.c_str()), 0);

        g_io.clear();
        kisam::os.fdatasync = rec_sync;
        kisam::os.pwrite = rec_pwrite;
        begin(fd);
        get(2);
        get(3);
        kisam::os.fdatasync = kisam::os_real.fdatasync;
        kisam::os.pwrite = kisam::os_real.pwrite;
        EXPECT_NE(slot(list[0]).bu_pno, 1024u) << "the committed page was not written back";
        ASSERT_EQ(end(), 0);
        EXPECT_EQ(on_disk(file, 1024 + 100), 'C');
        EXPECT_GE(xf->xf_log_synced, rec_end);
        const auto sync_at = std::find_if(g_io.begin(), g_io.end(), [](auto& io) { return io.first == 's'; });
        const auto written = std::find(g_io.rbegin(), g_io.rend(), std::pair<char, int>{'w', 1024});
        ASSERT_NE(written, g_io.rend());
        EXPECT_LT(sync_at, written.base() - 1) << "the page reached the file before its log";

        // Uncommitted: page 2 changed and dirty, its rollback due; page 3 clean.
        begin(fd);
        IS_DATA* p2 = get(2);
        const int s2 = slot_of(p2);
        p2->c[100] = 'U';
        slot(s2).bu_id |= BU_DIRTY;
        ASSERT_EQ(end(), 0);  // unfixed, as a dead call leaves it
        begin(fd);
        xf->xf_undo = 1;
        get(4);
        EXPECT_EQ(slot(s2).bu_pno, 2048u) << "the uncommitted page lost its slot";
        EXPECT_NE(on_disk(file, 2048 + 100), 'U') << "an uncommitted page reached the file";
        p2->c[100] = 0;
        slot(s2).bu_id &= static_cast<uint16_t>(~BU_DIRTY);
        xf->xf_undo = 0;
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

// The slots as the pool's rules place them: hit on the chain, own clock at the quota,
// else the free list, else the global clock; a hand skips fixed and referenced slots.
struct Model {
    struct Slot { int file = -1; PAGE page = 0; bool fixed = false, ref = false; int next = -1; };
    std::vector<Slot> s;
    std::map<int, int> head, hand, len;
    int freehd = 0, maxfbuf, steal = 0;
    uint32_t hit = 0, missfree = 0, missread = 0;
    Model(int n, int q) : s(static_cast<size_t>(n)), maxfbuf(q) {
        for (int i = 0; i < n; ++i) s[i].next = i + 1 < n ? i + 1 : -1;
    }
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

// Every one of the 32,767 slots of the largest pool can hold a changed page.
TEST_F(Pool, EverySlotOfTheLargestPoolHoldsAChangedPage) {
    const int nbuf = INT16_MAX, npages = nbuf - 8;
    start(cfg(nbuf, 0));
    const int fd = make_file("big.ism", npages);
    for (int first = 1; first <= npages; first += 1000) {
        begin(fd);
        for (int i = first; i < first + 1000 && i <= npages; ++i) {
            IS_DATA* d = get(i);
            ASSERT_NE(d, nullptr);
            d->c[12] = 'x';
            ASSERT_EQ(v_write(static_cast<PAGE>(i) * 1024, d), 0);
        }
        ASSERT_EQ(end(), 0) << "pages from " << first;
    }
    int high = 0;  // dirty slots past the file-slot bound
    for (int i = BU_FILEMASK + 1; i < nbuf; ++i) high += (slot(i).bu_id & BU_DIRTY) != 0;
    ASSERT_GT(high, 16000);
    ASSERT_EQ(kt::write_back(fd), 0) << "stack " << std::hex << stack_code();
    for (int i : {1, 16384, 16385, 20000, npages}) EXPECT_EQ(on_disk(path("big.ism"), i * 1024L + 12), 'x') << i;
}

// Random holds on three files, some in child processes, against the model.
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

class Alloc : public PoolEnv {
protected:
    void SetUp() override {
        start(cfg(16, 0));
        fd_ = make_file("a.ism", 0);
        begin(fd_);
        f_ = fcp_of(fd_);
    }
    void TearDown() override {
        end();
        PoolEnv::TearDown();
    }
    PAGE grab() {
        PAGE p = 0;
        EXPECT_NE(v_new(&p), nullptr);
        return p;
    }
    int fd_ = -1;
    IS_FCP* f_ = nullptr;
};

TEST_F(Alloc, DamagedChainHeadIsAbandoned) {
    const PAGE used = grab();
    IS_DATA* d = v_read(used);
    ASSERT_NE(d, nullptr);
    d->bt.bt_keyno = 0;  // a page in use, as an index page would be
    d->bt.bt_nitems = 1;
    ASSERT_EQ(v_write(used, d), 0);
    for (PAGE bad : {PAGE{0}, PAGE{1500}, PAGE{1024 * 100}, used}) {
        SCOPED_TRACE(bad);
        const PAGE end = f_->is_lastpage;
        f_->is_nextfree = bad;
        EXPECT_EQ(grab(), end);
        EXPECT_EQ(f_->is_nextfree, end + 1024);
    }
    ASSERT_EQ(kt::write_back(), 0);
    EXPECT_EQ(on_disk(path("a.ism"), used + 2), 1) << "the page in use kept its content";
}

// The last page a file can have ends at 4 GiB - 1024; the file is sparse.
TEST_F(Alloc, FilesStopBelowFourGiB) {
    f_->is_nextfree = f_->is_lastpage = 0xFFFFF800u;
    EXPECT_EQ(grab(), 0xFFFFF800u);
    EXPECT_EQ(f_->is_lastpage, 0xFFFFFC00u);
    PAGE p;
    EXPECT_EQ(v_new(&p), nullptr);
    EXPECT_EQ(is_errno, ISE_NWSK);
    EXPECT_EQ(f_->is_lastpage, 0xFFFFFC00u);
    f_->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);  // keep the test's control page
}

}  // namespace
