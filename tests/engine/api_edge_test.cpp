// Public operations at their edges: what a refused or failing call reports and what it
// leaves behind.
#include "kisam_test.h"

#include "is_file.h"
#include "layout.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

class ApiEdge : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(is_init(), 0); }
    void TearDown() override { nisunisam(); }
    std::string path(const char* name) const { return inst_.path(name); }

    kt::Installation inst_;
};

// Overwrites n bytes of a file at off.
void poke(const std::string& file, off_t off, const void* p, size_t n) {
    int fd = ::open(file.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, p, n, off), static_cast<ssize_t>(n));
    ::close(fd);
}

// A control page whose key table creation could not have written would let later calls
// overrun the handle's key buffers or the index pages; open refuses it as foreign.
TEST_F(ApiEdge, DamagedKeyTableIsRefusedAtOpen) {
    const std::string f = path("keys.ism");
    int lens[] = {4, 3};
    int fd = niscreate(f.c_str(), 2, lens);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(niswrite(fd, "aaaabbbcc", 9), 0);
    ASSERT_EQ(nisclose(fd), 0);
    std::vector<char> intact(512);
    {
        int ofd = ::open(f.c_str(), O_RDONLY);
        ASSERT_EQ(::pread(ofd, intact.data(), intact.size(), 0), 512);
        ::close(ofd);
    }

    constexpr off_t kKey1 = 100 + 16;
    struct Damage {
        const char* what;
        off_t off;
        int16_t value;
    } damages[] = {
        {"key 1 longer than its item", kKey1 + 6, 300},
        {"key 0 of length 0", 100 + 6, 0},
        {"key 1 item too short for key 0", kKey1 + 10, 4},
        {"compared bytes beyond the item", kKey1 + 12, 12},
        {"page order above what fits", kKey1 + 4, 200},
        {"page order below two", 100 + 4, 1},
        {"minimum record below the key fields", 86, 6},
    };
    const short files = n_ufiles;
    for (const Damage& d : damages) {
        SCOPED_TRACE(d.what);
        poke(f, d.off, &d.value, sizeof d.value);
        EXPECT_EQ(nisopen(f.c_str(), ISO_RDWR), -1);
        EXPECT_EQ(is_errno, ISE_NOTISAM);
        EXPECT_EQ(kt::error_stack(), std::vector<int>{0x3806});
        EXPECT_EQ(n_ufiles, files);
        for (int u = 0; u < isam_com->maxopen; ++u) EXPECT_EQ(is_env.pfo_tbl[u], -1);
        poke(f, 0, intact.data(), intact.size());
    }

    fd = nisopen(f.c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0);
    char rec[16];
    EXPECT_EQ(nisread(fd, 1, rec, sizeof rec), 9);
    EXPECT_EQ(nisclose(fd), 0);
}

// A release whose flush fails keeps the control lock, so the next release writes the
// control page again; the operation itself took effect and reports its own result, so
// that a caller does not repeat a write that was stored or a delete that was done.
TEST_F(ApiEdge, FailedReleaseFlushLeavesTheResultAndKeepsTheLock) {
    const std::string f = path("flush.ism");
    int lens[] = {4};
    int fd = niscreate(f.c_str(), 1, lens);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(niswrite(fd, "aaaa-first", 10), 0);
    const IS_FCP* fcp = kisam::pfo_fcp(is_db[fd]->uniqueid);
    const IS_PFI* pfi = &is_pfi[is_db[fd]->uniqueid];

    // Writes of a new record: its data page, its key 0 page, then the control page.
    int r;
    {
        kt::FailIo fail(kt::FailIo::kWrite, 3);
        r = niswrite(fd, "bbbb-second", 11);
    }
    ASSERT_EQ(kt::error_stack().back(), 0x2402) << "the third write is the release's flush";
    EXPECT_EQ(r, 0);
    EXPECT_EQ(fcp->jd_fcplock, static_cast<uint32_t>(is_pid));
    EXPECT_EQ(pfi->pfi_ctlcnt, 0);

    // The next release writes the control page and gives the lock up.
    char rec[32];
    EXPECT_EQ(nisfind(fd, 0, "bbbb", rec, sizeof rec), 11);
    EXPECT_EQ(fcp->jd_fcplock, 0u);

    {
        kt::FailIo fail(kt::FailIo::kWrite, 3);
        r = nisdelete(fd, "aaaa");
    }
    ASSERT_EQ(kt::error_stack().back(), 0x2402);
    EXPECT_EQ(r, 0);
    // An update's delete and write each write two pages; its write's own release flushes.
    {
        kt::FailIo fail(kt::FailIo::kWrite, 5);
        r = nisupdate(fd, "bbbb-third!", 11);
    }
    ASSERT_EQ(kt::error_stack().back(), 0x2402);
    EXPECT_EQ(r, 0);
    ASSERT_EQ(nisclose(fd), 0);

    fd = nisopen(f.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(nisread(fd, 0, rec, sizeof rec), 11);
    EXPECT_EQ(std::string(rec, 11), "bbbb-third!");
    EXPECT_EQ(nisread(fd, 0, rec, sizeof rec), 0);
    EXPECT_EQ(nisclose(fd), 0);
}

// A loader that passes no table gets -1, not a fault.
TEST(ApiEntry, NullEntryTableIsRefused) { EXPECT_EQ(ZTKISAMInit(nullptr), -1); }

}  // namespace

namespace {

// A create that fails on its own arguments reports no system error: the check for an
// existing file, which fails for a new name, must not leave its errno behind.
TEST_F(ApiEdge, CreateFailureOfANewFileCarriesNoStaleSystemError) {
    int lens[] = {600};  // too long for a page
    EXPECT_EQ(niscreate(path("new.ism").c_str(), 1, lens), -1);
    EXPECT_EQ(is_errno, ISE_INVKL);
    char msg[256];
    niserrmsgget(msg, sizeof msg);
    EXPECT_EQ(std::string(msg).find("Sys errno"), std::string::npos) << msg;
}

}  // namespace
