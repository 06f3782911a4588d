// Page allocation: damaged chain heads, the 32-bit ceiling.  (The free chain on disk,
// given back last first, is the B-tree page images' test.)
#include "pool_fixture.h"

using namespace pt;

namespace {

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
    std::vector<unsigned char> disk(off_t off) {
        EXPECT_EQ(kt::write_back(), 0);
        std::vector<unsigned char> b(1024);
        int os = ::open(path("a.ism").c_str(), O_RDONLY);
        EXPECT_EQ(::pread(os, b.data(), 1024, off), 1024);
        ::close(os);
        return b;
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
    EXPECT_EQ(disk(used)[2], 1) << "the page in use kept its content";
}

// The last page a file can have ends at 4 GiB - 1024; the file is sparse.
TEST_F(Alloc, FilesStopBelowFourGiB) {
    // A file that has grown to just below the limit (the shared control page says where
    // a file ends).
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
