// Page allocation: the free chain on disk, growth, damaged chain heads, the 32-bit ceiling.
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
    std::vector<unsigned char> disk(off_t off, size_t n = 1024) {
        std::vector<unsigned char> b(n);
        int os = ::open(path("a.ism").c_str(), O_RDONLY);
        EXPECT_EQ(::pread(os, b.data(), n, off), static_cast<ssize_t>(n));
        ::close(os);
        return b;
    }
    PAGE grab() {
        PAGE p = 0;
        IS_DATA* d = v_new(&p);
        EXPECT_NE(d, nullptr);
        return p;
    }
    int fd_ = -1;
    IS_FCP* f_ = nullptr;
};

TEST_F(Alloc, NewPagesGrowTheFileOneAtATime) {
    PAGE p = 0;
    f_->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);
    IS_DATA* d = v_new(&p);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(p, 1024u);
    EXPECT_EQ(f_->is_nextfree, 2048u);
    EXPECT_EQ(f_->is_lastpage, 2048u);
    EXPECT_TRUE(f_->is_optbits & ISO_CHANGED);
    for (int i = 0; i < 1024; ++i) ASSERT_EQ(d->c[i], 0);
    EXPECT_TRUE(slot(slot_of(d)).bu_id & BU_INUSE);
    // On disk until the caller writes it: first and last words 0xFFFF.
    auto b = disk(1024);
    EXPECT_EQ(b[0], 0xFF);
    EXPECT_EQ(b[1], 0xFF);
    EXPECT_EQ(b[1022], 0xFF);
    EXPECT_EQ(b[1023], 0xFF);
    EXPECT_EQ(b[2], 0);
    EXPECT_EQ(grab(), 2048u);
    EXPECT_EQ(f_->is_lastpage, 3072u);
}

TEST_F(Alloc, FreedPagesComeBackLastInFirstOut) {
    const PAGE a = grab(), b = grab(), c = grab();
    ASSERT_EQ(v_dispose(a, nullptr), 0);
    ASSERT_EQ(v_dispose(b, nullptr), 0);
    EXPECT_EQ(f_->is_nextfree, b);
    auto img = disk(b);
    EXPECT_EQ(img[0], 0xFE);
    EXPECT_EQ(img[1], 0xFF);
    EXPECT_EQ(img[2], 0xFF);
    EXPECT_EQ(img[3], 0xFF);
    EXPECT_EQ(kisam::load_at<PAGE>(img.data() + 4), a);
    for (int i = 8; i < 32; ++i) ASSERT_EQ(img[static_cast<size_t>(i)], 0xFF) << i;
    EXPECT_EQ(kisam::load_at<PAGE>(disk(a).data() + 4), c + 1024) << "a ends the chain";
    EXPECT_EQ(grab(), b);
    EXPECT_EQ(grab(), a);
    EXPECT_EQ(f_->is_nextfree, f_->is_lastpage);
    EXPECT_EQ(grab(), c + 1024) << "chain used up: the file grows";
}

TEST_F(Alloc, DisposeRefusesPagesItCannotFree) {
    const PAGE a = grab();
    IS_DATA* other = v_read(a);
    const PAGE next = f_->is_nextfree;
    EXPECT_EQ(v_dispose(0, nullptr), -1);
    EXPECT_EQ(v_dispose(f_->is_lastpage, nullptr), -1);
    EXPECT_EQ(v_dispose(a + 1, nullptr), -1);
    EXPECT_EQ(v_dispose(a + 1024, other), -1) << "the buffer holds another page";
    EXPECT_EQ(f_->is_nextfree, next);
    EXPECT_NE(other->fp.fp_ident, -2);
}

TEST_F(Alloc, DamagedChainHeadIsAbandoned) {
    grab();
    for (PAGE bad : {PAGE{0}, PAGE{1500}, PAGE{1024 * 100}}) {
        SCOPED_TRACE(bad);
        const PAGE end = f_->is_lastpage;
        f_->is_nextfree = bad;
        EXPECT_EQ(grab(), end);
        EXPECT_EQ(f_->is_nextfree, end + 1024);
    }
}

TEST_F(Alloc, ChainHeadWithoutTheFreeMarkIsNeverHandedOut) {
    const PAGE used = grab();
    grab();
    IS_DATA* d = v_read(used);
    ASSERT_NE(d, nullptr);
    d->bt.bt_keyno = 0;  // a page in use, as an index page would be
    d->bt.bt_nitems = 1;
    ASSERT_EQ(v_write(used, d), 0);
    const PAGE end = f_->is_lastpage;
    f_->is_nextfree = used;  // a damaged head that names it
    EXPECT_EQ(grab(), end);
    EXPECT_EQ(f_->is_nextfree, end + 1024);
    EXPECT_EQ(disk(used)[2], 1) << "the page in use kept its content";
}

TEST_F(Alloc, EndOfFileIsTakenFromTheFileRoundedUp) {
    grab();
    int os = ::open(path("a.ism").c_str(), O_RDWR);
    ASSERT_EQ(::ftruncate(os, 2048 + 100), 0);
    ::close(os);
    EXPECT_EQ(grab(), 3072u);
    EXPECT_EQ(f_->is_lastpage, 4096u);
}

TEST_F(Alloc, CheckedAgainstTheOpener) {
    is_curpfi->pfi_nkeys++;
    PAGE p;
    EXPECT_EQ(v_new(&p), nullptr);
    EXPECT_EQ(is_errno, ISE_BADFD);
    EXPECT_EQ(stack_code(), 0x4201);
    is_curpfi->pfi_nkeys--;
    f_->is_magic = ISMAGIC_512;
    EXPECT_EQ(v_new(&p), nullptr);
    EXPECT_EQ(is_errno, ISE_NWWT);
    EXPECT_EQ(stack_code(), 0x4201);
    f_->is_magic = ISMAGIC_1024;
}

TEST_F(Alloc, FailedGrowthLeavesTheEndAlone) {
    for (int e : {EIO, EINVAL}) {
        PAGE p;
        {
            kt::FailIo fail(kt::FailIo::kWrite, 0, e);
            EXPECT_EQ(v_new(&p), nullptr);
        }
        EXPECT_EQ(is_errno, e == EIO ? ISE_NWWT : ISE_NWSK);
        EXPECT_EQ(stack_code(), e == EIO ? 0x4204 : 0x4202);
        EXPECT_EQ(f_->is_lastpage, 1024u);
    }
}

// The last page a file can have ends at 4 GiB - 1024; the file is sparse.
TEST_F(Alloc, FilesStopBelowFourGiB) {
    int os = ::open(path("a.ism").c_str(), O_RDWR);
    ASSERT_EQ(::ftruncate(os, 0xFFFFF800ll), 0);
    EXPECT_EQ(grab(), 0xFFFFF800u);
    EXPECT_EQ(f_->is_lastpage, 0xFFFFFC00u);
    PAGE p;
    EXPECT_EQ(v_new(&p), nullptr);
    EXPECT_EQ(is_errno, ISE_NWSK);
    EXPECT_EQ(stack_code(), 0x4201);
    // A compact file's page would start below the offset limit, but its end would not
    // fit in 32 bits.
    f_->is_magic = ISMAGIC_512;
    is_curpfi->pfi_bits &= static_cast<uint8_t>(~PFI_BIGFCP);
    ASSERT_EQ(::ftruncate(os, 0xFFFFFA00ll), 0);
    ::close(os);
    EXPECT_EQ(v_new(&p), nullptr);
    EXPECT_EQ(is_errno, ISE_NWSK);
    EXPECT_EQ(f_->is_lastpage, 0xFFFFFC00u);
    f_->is_magic = ISMAGIC_1024;
    is_curpfi->pfi_bits |= PFI_BIGFCP;
    f_->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);  // keep the test's control page
}

}  // namespace
