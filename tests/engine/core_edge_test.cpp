// Start-up, common area, heap, lock words, pool and page allocation at their edges:
// configurations that would lay the segment out wrongly, and the exact accounting of
// the pool and the allocator.
#include "open_fixture.h"
#include "pool_fixture.h"

#include <sys/shm.h>

#include "is_common.h"

namespace {

using ot::Env;
using ot::stack_code;

class CoreInit : public Env {
protected:
    void SetUp() override {}
};

// Settings that size the heap from negative averages, or that give more shared files
// than a buffer tag can name, would make the first attacher write outside the segment
// or mix up the owners of buffers; they are refused before any segment exists.
TEST_F(CoreInit, ConfigurationsThatCannotBeLaidOutAreRefused) {
    struct Case {
        const char* what;
        kt::Config cfg;
    };
    std::vector<Case> cases;
    auto add = [&](const char* what, auto edit) {
        kt::Config c;
        edit(c);
        cases.push_back({what, c});
    };
    // 8 buffers, one file, one user: the tables end at 8488; these averages shrink the
    // estimate to one 8192-byte segment that would end before the heap begins.
    add("heap estimate below the tables", [](kt::Config& c) {
        c.maxbuf = 8; c.maxopen = 1; c.maxusers = 1; c.avgalts = -100; c.alenlock = 0;
        c.anumlock = -100;
    });
    add("heap estimate below zero", [](kt::Config& c) { c.avgalts = -32768; });
    add("more files than a buffer tag names", [](kt::Config& c) {
        c.maxopen = 16384; c.maxbuf = 4; c.maxusers = 2; c.avgalts = 0; c.alenlock = 0;
        c.anumlock = 0;
    });
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        start(k.cfg);
        if (is_init() == 0) {
            ADD_FAILURE() << "attached";
            nisunisam();
        }
        EXPECT_EQ(is_errno, ISE_INITERR);
        EXPECT_EQ(stack_code(), 0x220A);
        EXPECT_EQ(isam_com, nullptr);
        EXPECT_LT(::shmget(inst_->key(), 0, 0), 0);
        inst_.reset();
    }
    // The largest usable table still starts.
    kt::Config c;
    c.maxopen = 16383; c.maxbuf = 4; c.maxusers = 2; c.avgalts = 0; c.alenlock = 0;
    c.anumlock = 0;
    start(c);
    EXPECT_EQ(is_init(), 0) << is_errno;
}

class CorePool : public pt::PoolEnv {};

// A dirty victim is written before the slot changes hands, whichever path takes it:
// the steal scan (quota out of reach) counts misswrite, own-quota reuse counts missfree;
// each write and each load moves the write clock and stamps the slot.
TEST_F(CorePool, DirtyVictimIsWrittenAndCountedOnEitherPath) {
    for (int quota : {100, 2}) {
        SCOPED_TRACE(quota);
        start(pt::cfg(2, quota));
        int fd = make_file("a.ism", 3);
        begin(fd);
        IS_DATA* p1 = get(1);
        get(2);
        ASSERT_EQ(end(), 0);
        const int s1 = pt::slot_of(p1);
        p1->c[300] = 'W';
        pt::slot(s1).bu_id |= BU_DIRTY;
        const struct isam_com before = *isam_com;
        begin(fd);
        IS_DATA* p3 = get(3);
        ASSERT_EQ(pt::slot_of(p3), s1) << "the least recently used slot";
        EXPECT_EQ(isam_com->misswrite, before.misswrite + (quota == 100 ? 1u : 0u));
        EXPECT_EQ(isam_com->missfree, before.missfree + (quota == 100 ? 0u : 1u));
        EXPECT_EQ(isam_com->missread, before.missread);
        EXPECT_EQ(isam_com->syswrite, before.syswrite + 1);
        EXPECT_EQ(isam_com->sysread, before.sysread + 1);
        EXPECT_EQ(isam_com->lru_wcnt, before.lru_wcnt + 2);
        EXPECT_EQ(pt::slot(s1).bu_wcnt, isam_com->lru_wcnt);
        EXPECT_FALSE(pt::slot(s1).bu_id & BU_DIRTY);
        ASSERT_EQ(end(), 0);
        unsigned char disk[1024];
        int os = ::open(path("a.ism").c_str(), O_RDONLY);
        ASSERT_EQ(::pread(os, disk, sizeof disk, 1024), 1024);
        ::close(os);
        EXPECT_EQ(disk[300], 'W');
        nisunisam();
        inst_.reset();
    }
}

// Growing a file past the process's size limit is a failed write of the new page, not a
// failed seek; the end of the file stays where it was.
TEST_F(CorePool, GrowthPastTheSizeLimitIsAWriteError) {
    start(pt::cfg(8, 0));
    int fd = make_file("a.ism", 0);
    begin(fd);
    IS_FCP* f = pt::fcp_of(fd);
    PAGE p = 0;
    {
        kt::FailIo fail(kt::FailIo::kWrite, 0, EFBIG);
        EXPECT_EQ(v_new(&p), nullptr);
    }
    EXPECT_EQ(is_errno, ISE_NWWT);
    EXPECT_EQ(stack_code(), 0x4204);
    EXPECT_EQ(f->is_lastpage, 1024u);
    EXPECT_EQ(f->is_nextfree, 1024u);
    f->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);
    EXPECT_EQ(end(), 0);
}

}  // namespace
