// The buffer pool in one process: hits, victim choice, clocks, page I/O and its
// failures, flushing, and a randomized run against a model of the slots.
#include "pool_fixture.h"

#include "os.h"

#include <cerrno>
#include <map>
#include <random>

using namespace pt;

namespace {

class Pool : public PoolEnv {};

// Hit and miss counts are the random run's; here the address and v_hit's quiet look.
TEST_F(Pool, SecondReadIsAHitAtTheSameAddress) {
    start(cfg(8, 0));
    int fd = make_file("a.ism", 3);
    begin(fd);
    IS_DATA* a = get(2);
    EXPECT_EQ(get(2), a);
    EXPECT_EQ(slot(slot_of(a)).bu_id, static_cast<uint16_t>(uid(fd) | BU_INUSE));
    const uint32_t lru = isam_com->lru_cnt, hit = isam_com->hit;
    EXPECT_EQ(v_hit(2048, kKeyno), 1);
    EXPECT_EQ(v_hit(2048, kKeyno + 1), 0);
    EXPECT_EQ(v_hit(3072, kKeyno), 0);
    EXPECT_EQ(isam_com->lru_cnt, lru);
    EXPECT_EQ(isam_com->hit, hit);
    ASSERT_EQ(end(), 0);
    EXPECT_EQ(fixed_slots(), 0) << "the release unfixes";
}

TEST_F(Pool, ReadOnlyOpenerNeverEvictsADirtySlot) {
    for (int quota : {2, 100}) {  // own-quota reuse, then the steal scan
        SCOPED_TRACE(quota);
        start(cfg(2, quota));
        int fd = make_file("a.ism", 4, 1024, ISO_RDONLY);
        begin(fd);
        IS_DATA* p1 = get(1);
        get(2);
        slot(slot_of(p1)).bu_id |= BU_DIRTY;
        ASSERT_EQ(end(), 0);
        EXPECT_TRUE(slot(slot_of(p1)).bu_id & BU_DIRTY) << "a read-only flush writes nothing";
        begin(fd);
        get(3);
        EXPECT_EQ(chain_pages(uid(fd)).back(), 1024u);
        EXPECT_EQ(slot(slot_of(p1)).bu_pno, 1024u);
        slot(slot_of(p1)).bu_id &= static_cast<uint16_t>(~BU_DIRTY);
        ASSERT_EQ(end(), 0);
        nisunisam();
        inst_.reset();
    }
}

TEST_F(Pool, ClocksWrapToOne) {
    start(cfg(4, 0));
    int fd = make_file("a.ism", 2);
    begin(fd);
    isam_com->lru_cnt = 0xFFFFFFFFu;
    isam_com->lru_wcnt = 0xFFFFFFFFu;
    IS_DATA* d = get(1);
    EXPECT_EQ(isam_com->lru_cnt, 1u);
    EXPECT_EQ(slot(slot_of(d)).bu_cnt, 1u);
    EXPECT_EQ(slot(slot_of(d)).bu_wcnt, 1u);
    EXPECT_EQ(end(), 0);
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
    EXPECT_EQ(is_estk[0].is_eproc, P_V_READ);
    EXPECT_EQ(is_estk[0].is_euid, 7);
    EXPECT_EQ(isam_com->vr_nsleep, sleeps);
    EXPECT_EQ(end(), 0);
    begin(fd);
    get(3);  // the release unfixed both slots
    EXPECT_EQ(end(), 0);
}

TEST_F(Pool, WriteAndUnsafeRefuseAnotherPage) {
    start(cfg(4, 0));
    int fd = make_file("a.ism", 2);
    begin(fd);
    IS_DATA* d = get(1);
    const uint32_t w0 = isam_com->syswrite;
    EXPECT_EQ(v_write(2048, d), -1);
    EXPECT_EQ(v_unsafe(2048, d->c), -1);
    EXPECT_EQ(v_unsafe(1024, d->c + 1), -1) << "not the start of a slot's page";
    IS_DATA outside;
    EXPECT_EQ(v_write(1024, &outside), -1);
    EXPECT_EQ(isam_com->syswrite, w0);
    EXPECT_TRUE(slot(slot_of(d)).bu_id & BU_INUSE);
    d->c[100] = 'x';
    EXPECT_EQ(v_write(1024, d), 0);
    EXPECT_EQ(isam_com->syswrite, w0 + 1);
    EXPECT_EQ(v_unsafe(1024, d->c), 0);
    EXPECT_FALSE(slot(slot_of(d)).bu_id & BU_INUSE);
    EXPECT_EQ(end(), 0);
    unsigned char page[1024];
    int os = ::open(path("a.ism").c_str(), O_RDONLY);
    ASSERT_EQ(::pread(os, page, 1024, 1024), 1024);
    ::close(os);
    EXPECT_EQ(page[100], 'x');
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
        EXPECT_EQ(is_errno, ISE_RDRD);
        EXPECT_EQ(stack_code(), 0x4305);
        for (PAGE p : chain_pages(uid(fd))) EXPECT_NE(p, 2048u);
        EXPECT_EQ(v_hit(2048, kKeyno), 0);
        const uint32_t rd = isam_com->sysread;
        get(2);
        EXPECT_EQ(isam_com->sysread, rd + 1) << "loaded again from disk";
        // An outright failure of the positioned read counts as a failed seek when the
        // offset was refused, else as a failed read.
        for (int e : {EINVAL, EIO}) {
            kt::FailIo fail(kt::FailIo::kRead, 0, e);
            EXPECT_EQ(v_read(3072), nullptr);
            EXPECT_EQ(is_errno, e == EINVAL ? ISE_RDSK : ISE_RDRD);
            EXPECT_EQ(stack_code(), e == EINVAL ? 0x4304 : 0x4305);
        }
        get(3);
        EXPECT_EQ(end(), 0);
        nisunisam();
        inst_.reset();
    }
}

TEST_F(Pool, SequentialFileReadsZeroPagesPastItsEnd) {
    start(cfg(8, 0));
    std::string p = path("seq.dat");
    std::vector<unsigned char> bytes(1500, 0xAB);
    int os = ::open(p.c_str(), O_RDWR | O_CREAT, 0666);
    ASSERT_EQ(::write(os, bytes.data(), bytes.size()), 1500);
    ::close(os);
    int fd = nisopen(p.c_str(), ISO_RDWR | ISF_SEQ);
    ASSERT_GE(fd, 0) << is_errno;
    begin(fd);
    IS_FCP* f = fcp_of(fd);
    IS_DATA* d = v_read(1024);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(static_cast<unsigned char>(d->c[475]), 0xAB);
    EXPECT_EQ(d->c[476], 0);
    EXPECT_EQ(d->c[1023], 0);
    EXPECT_EQ(f->is_lastpage, 2048u);
    d = v_read(4096);
    ASSERT_NE(d, nullptr);
    for (int i = 0; i < 1024; ++i) ASSERT_EQ(d->c[i], 0);
    EXPECT_EQ(f->is_lastpage, 5120u);
    EXPECT_EQ(f->is_nextfree, 5120u);
    // No page past the 32-bit numbering, not even a zero one.
    EXPECT_EQ(v_read(KISAM_NOPAGE), nullptr);
    EXPECT_EQ(is_errno, ISE_RDSK);
    EXPECT_EQ(f->is_lastpage, 5120u);
    EXPECT_EQ(end(), 0);
}

TEST_F(Pool, FlushWritesTheControlImageAndDirtySlots) {
    for (int fcpsize : {1024, 512}) {
        SCOPED_TRACE(fcpsize);
        start(cfg(8, 0));
        int fd = make_file("a.ism", 3, fcpsize);
        // Bytes 512 .. 1023 of a 1024-byte control page are never written.
        if (fcpsize == 1024) {
            unsigned char junk[512];
            std::memset(junk, 0x5A, sizeof junk);
            int os = ::open(path("a.ism").c_str(), O_RDWR);
            ASSERT_EQ(::pwrite(os, junk, 512, 512), 512);
            ::close(os);
        }
        begin(fd);
        IS_FCP* f = fcp_of(fd);
        IS_DATA* d = get(2);  // page 2048 lies at 2048 - 512 in a compact file
        d->c[200] = 'D';
        slot(slot_of(d)).bu_id |= BU_DIRTY;
        f->is_cdp[3] = 0x12345678;
        f->is_optbits |= ISO_CHANGED;
        const uint32_t w0 = isam_com->syswrite;
        ASSERT_EQ(end(), 0);
        EXPECT_EQ(isam_com->syswrite, w0 + 2);
        EXPECT_FALSE(f->is_optbits & ISO_CHANGED);
        EXPECT_FALSE(slot(slot_of(d)).bu_id & (BU_DIRTY | BU_INUSE));
        unsigned char disk[1024];
        int os = ::open(path("a.ism").c_str(), O_RDONLY);
        ASSERT_EQ(::pread(os, disk, 1024, 0), 1024);
        const size_t n = 104 + 16 * static_cast<size_t>(f->is_nkeys);
        EXPECT_EQ(std::memcmp(disk, &f->is_magic, n), 0);
        for (size_t i = n; i < 512; ++i) ASSERT_EQ(disk[i], 0) << i;
        if (fcpsize == 1024) {
            EXPECT_EQ(disk[512], 0x5A);
        }
        ASSERT_EQ(::pread(os, disk, 1024, fcpsize == 512 ? 1536 : 2048), 1024);
        ::close(os);
        EXPECT_EQ(disk[200], 'D');
        // A control page whose magic does not match the opener's expectation.
        begin(fd);
        f->is_magic ^= 1;
        EXPECT_EQ(v_flush(), -1);
        EXPECT_EQ(is_errno, ISE_FLFCP);
        EXPECT_EQ(stack_code(), fcpsize == 1024 ? 0x4301 : 0x4302);
        f->is_magic ^= 1;
        EXPECT_EQ(end(), 0);
        nisunisam();
        inst_.reset();
    }
}

TEST_F(Pool, DataChangedMarkReachesDiskBeforeTheFirstPageWrite) {
    start(cfg(8, 0, 0x1));  // co_bits 0x1: track the data-changed mark
    int fd = make_file("a.ism", 2);
    begin(fd);
    IS_FCP* f = fcp_of(fd);
    ASSERT_TRUE(f->is_optbits & ISO_TRACK);
    IS_DATA* d = get(1);
    ASSERT_EQ(v_write(1024, d), 0);
    EXPECT_TRUE(f->is_optbits & ISO_DIRTYMARK);
    unsigned char head[100];
    int os = ::open(path("a.ism").c_str(), O_RDONLY);
    ASSERT_EQ(::pread(os, head, sizeof head, 0), 100);
    ::close(os);
    EXPECT_TRUE(head[88] & ISO_DIRTYMARK);
    EXPECT_EQ(end(), 0);
}

TEST_F(Pool, FixesLeftByAnotherHolderAreClearedAfterARecordLockWait) {
    start(cfg(8, 0));
    int fd = make_file("a.ism", 2);
    begin(fd);
    IS_DATA* d = get(1);
    ASSERT_EQ(end(), 0);
    // A fix this process never made: a holder that gave the lock up to wait.
    slot(slot_of(d)).bu_id |= BU_INUSE;
    isam_com->usrwaits++;
    begin(fd);
    ASSERT_EQ(end(), 0);
    EXPECT_EQ(fixed_slots(), 0);
}

TEST_F(Pool, RelbufGivesTheChainBackUntagged) {
    start(cfg(6, 0));
    int fd = make_file("a.ism", 3);
    begin(fd);
    std::vector<int> used;
    for (int i = 1; i <= 3; ++i) used.push_back(slot_of(get(i)));
    v_relbuf();
    EXPECT_EQ(free_slots(), 6);
    for (int i : used) {
        EXPECT_EQ(slot(i).bu_id, BU_FILEMASK);
        EXPECT_EQ(slot(i).bu_pno, KISAM_NOPAGE);
    }
    EXPECT_EQ(fcp_of(fd)->jd_buf_hd, -1);
    EXPECT_EQ(end(), 0);
}

// The slots as the pool's rules place them, for one process that owns every file.
struct Model {
    struct Slot { int file = -1; PAGE page = 0; LRUt cnt = 0; bool fixed = false; int next = -1; };
    std::vector<Slot> s;
    std::map<int, int> head;
    int freehd = 0;
    LRUt lru = 0;
    int maxfbuf;
    uint32_t hit = 0, missfree = 0, missread = 0;
    Model(int n, int q) : s(static_cast<size_t>(n)), maxfbuf(q) {
        for (int i = 0; i < n; ++i) s[i].next = i + 1 < n ? i + 1 : -1;
    }
    int read(int f, PAGE p) {
        lru = lru == 0xFFFFFFFFu ? 1 : lru + 1;
        if (!head.count(f)) head[f] = -1;
        int n = 0, cand = -1;
        for (int i = head[f]; i >= 0; i = s[i].next, ++n) {
            Slot& b = s[i];
            if (b.page == p) { ++hit; b.cnt = lru; b.fixed = true; return i; }
            if (!b.fixed && (cand < 0 || b.cnt < s[cand].cnt)) cand = i;
        }
        if (n >= maxfbuf && cand >= 0) {
            Slot& b = s[cand];
            b.cnt = lru; b.page = p; b.fixed = true; ++missfree;
            return cand;
        }
        int v;
        if (freehd >= 0) {
            v = freehd; freehd = s[v].next; ++missfree;
        } else {
            v = -1;
            for (int i = 0; i < static_cast<int>(s.size()); ++i)
                if (!s[i].fixed && (v < 0 || s[i].cnt < s[v].cnt)) v = i;
            if (v < 0) return -1;
            ++missread;
            int& h = head[s[v].file];
            if (h == v) h = s[v].next;
            else for (int i = h; i >= 0; i = s[i].next)
                if (s[i].next == v) { s[i].next = s[v].next; break; }
        }
        Slot& b = s[v];
        b.next = head[f]; head[f] = v; b.file = f; b.cnt = lru; b.page = p; b.fixed = true;
        return v;
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
    m.lru = isam_com->lru_cnt;
    auto check = [&] {
        ASSERT_EQ(isam_com->hit, m.hit);
        ASSERT_EQ(isam_com->missfree, m.missfree);
        ASSERT_EQ(isam_com->missread, m.missread);
        for (int i = 0; i < nbuf; ++i) {
            const Model::Slot& ms = m.s[i];
            if (ms.file < 0) continue;
            ASSERT_EQ(slot(i).bu_id & BU_FILEMASK, ms.file) << "slot " << i;
            ASSERT_EQ(slot(i).bu_pno, ms.page) << "slot " << i;
            ASSERT_EQ(stamp_of(&slot(i).bu_data), ms.page) << "slot " << i;
        }
    };
    for (int step = 0; step < 300; ++step) {
        SCOPED_TRACE("step " + std::to_string(step) + ", KISAM_SEED=" + std::to_string(seed));
        const int k = static_cast<int>(rng() % 3);
        const int fd = fds[k];
        const int nread = 1 + static_cast<int>(rng() % 4);
        std::vector<PAGE> pages;
        for (int j = 0; j < nread; ++j) pages.push_back(static_cast<PAGE>(1 + rng() % npages) * 1024);
        const bool foreign = rng() % 8 == 0;
        if (foreign) {
            int rc = kt::run_child([&] {
                if (is_chinit() != 0) return 2;
                begin(fd);
                for (PAGE p : pages)
                    if (!v_read(p)) return 3;
                end();
                nisunisam();
                return ::testing::Test::HasFailure() ? 4 : 0;
            });
            ASSERT_EQ(rc, 0);
            for (PAGE p : pages) m.read(uid(fd), p);
            m.release(uid(fd));
        } else {
            begin(fd);
            for (PAGE p : pages) {
                int want = m.read(uid(fd), p);
                IS_DATA* d = v_read(p);
                ASSERT_NE(d, nullptr);
                ASSERT_EQ(slot_of(d), want);
                ASSERT_EQ(stamp_of(d), p);
                if (rng() % 3 == 0) {
                    ASSERT_EQ(v_unsafe(p, d->c), 0);
                    m.s[want].fixed = false;
                }
            }
            ASSERT_EQ(end(), 0);
            m.release(uid(fd));
        }
        check();
        m.lru = isam_com->lru_cnt;  // children advance the same clock
    }
}

}  // namespace
