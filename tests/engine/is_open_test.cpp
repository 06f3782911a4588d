// Open and close within one process: old control pages, the data-changed mark, the
// sharing of one slot by several handles, and the levels of close.
#include "open_fixture.h"

#include "is_file.h"

#include <sys/shm.h>

namespace {

using ot::Env;
using ot::read_head;
using ot::stack_code;

class Open : public Env {};

// An old-layout control page, built byte by byte.
std::vector<unsigned char> old_page(uint16_t magic, int nkeys) {
    std::vector<unsigned char> p(512, 0);
    unsigned char* b = p.data();
    kisam::store_at<uint16_t>(b + 0, magic);
    kisam::store_at<int16_t>(b + 2, static_cast<int16_t>(nkeys));
    kisam::store_at<int16_t>(b + 4, static_cast<int16_t>(4 * nkeys));  // is_minrec
    kisam::store_at<uint32_t>(b + 6, 5 * 1024);                         // is_nextfree
    kisam::store_at<uint32_t>(b + 10, 9 * 1024);                        // is_lastpage
    b[14] = ISO_KEYOPT;
    b[15] = 3;                                                          // is_usecnt
    kisam::store_at<int16_t>(b + 28, 2);                                // is_mincdpi
    for (int k = 0; k < nkeys; ++k) {
        IS_KEY key{};
        key.k_root = static_cast<PAGE>(1024 * (k + 1));
        key.k_order = static_cast<int16_t>(50 + k);
        key.k_keylen = 4;
        key.k_offset = 4;
        key.k_itemlen = 8;
        key.k_ncomp = static_cast<int16_t>(k == 0 ? 4 : 8);
        std::memcpy(b + 34 + 16 * k, &key, sizeof key);
    }
    for (int i = 0; i < 10; ++i)
        kisam::store_at<uint32_t>(b + 34 + 16 * nkeys + 4 * i, static_cast<uint32_t>(0x1000 * (i + 1) + i));
    return p;
}

TEST_F(Open, OldControlPagesAreConverted) {
    ASSERT_EQ(is_init(), 0);
    for (uint16_t magic : {ISMAGIC_OLD1024, ISMAGIC_OLD512}) {
        SCOPED_TRACE(magic);
        const int nkeys = 6;  // the key table moves over itself
        auto page = old_page(magic, nkeys);
        ot::write_bytes(path("old"), page.data(), page.size(), 0);
        int fd = nisopen(path("old").c_str(), ISO_RDWR);
        ASSERT_GE(fd, 0) << is_errno;
        IS_FCP* f = ot::shared_fcp(fd);
        EXPECT_EQ(f->is_magic, magic + 2);
        EXPECT_EQ(f->is_nkeys, nkeys);
        EXPECT_EQ(f->is_minrec, 4 * nkeys);
        EXPECT_EQ(f->is_nextfree, 5u * 1024);
        EXPECT_EQ(f->is_lastpage, 9u * 1024);
        EXPECT_EQ(f->is_mincdpi, 2);
        EXPECT_EQ(f->is_usecnt, 1) << "the first opener counts itself, whatever the page says";
        EXPECT_EQ(f->is_optbits & ISO_KEYOPT, ISO_KEYOPT);
        for (int k = 0; k < nkeys; ++k) {
            EXPECT_EQ(kisam::fcp_key(f, k)->k_root, static_cast<PAGE>(1024 * (k + 1)));
            EXPECT_EQ(kisam::fcp_key(f, k)->k_order, 50 + k);
        }
        for (int i = 0; i < 10; ++i) EXPECT_EQ(f->is_cdp[i], static_cast<PAGE>(0x1000 * (i + 1) + i));
        for (int i = 10; i < 16; ++i) EXPECT_EQ(f->is_cdp[i], 0u);
        EXPECT_EQ((ot::pfi_of(fd)->pfi_bits & PFI_BIGFCP) != 0, magic == ISMAGIC_OLD1024);
        int keylens[8];
        EXPECT_EQ(nisstat(fd, 8, keylens), nkeys);
        EXPECT_EQ(nisclose(fd), 0);
    }
}

TEST_F(Open, DataChangedMark) {
    kt::Config c;
    c.bits = 0x1;
    start(c);
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ot::shared_fcp(fd)->is_optbits & (ISO_TRACK | ISO_SYNC | ISO_CLEARREL), ISO_TRACK);
    ASSERT_EQ(nisclose(fd), 0);

    // A file left with its mark set is refused unless the caller accepts it.
    unsigned char ob = ISO_KEYOPT | ISO_DIRTYMARK;
    ot::write_bytes(path("f"), &ob, 1, 88);
    EXPECT_EQ(nisopen(path("f").c_str(), ISO_RDWR), -1);
    EXPECT_EQ(is_errno, ISE_INCONSISTENT);
    EXPECT_EQ(stack_code(), 0x380E);
    // Only a process that may write marks the file clean.
    fd = nisopen(path("f").c_str(), ISO_RDONLY | ISF_NOVERIFY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_EQ(read_head(path("f"))[88] & ISO_DIRTYMARK, ISO_DIRTYMARK);
    fd = nisopen(path("f").c_str(), ISO_RDWR | ISF_NOVERIFY);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(ot::shared_fcp(fd)->is_optbits & ISO_TRACK) << "no tracking when not verified";

    // The close of a read-write handle marks the file clean.
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_EQ(read_head(path("f"))[88] & ISO_DIRTYMARK, 0);
    fd = nisopen(path("f").c_str(), ISO_RDWR);
    EXPECT_GE(fd, 0) << is_errno;
}

TEST_F(Open, HandlesShareOneSlot) {
    int w = create("f", {4, 6});
    ASSERT_GE(w, 0);
    ASSERT_EQ(nisclose(w), 0);

    int ro = nisopen(path("f").c_str(), ISO_RDONLY);
    ASSERT_GE(ro, 0);
    IS_PFI* pfi = ot::pfi_of(ro);
    EXPECT_EQ(pfi->pfi_bits, PFI_RDONLY | PFI_BIGFCP);

    int rw = nisopen(path("f").c_str(), ISO_RDWR);
    ASSERT_GE(rw, 0);
    EXPECT_NE(rw, ro);
    EXPECT_EQ(ot::pfi_of(rw), pfi);
    EXPECT_EQ(pfi->pfi_refcnt, 2);
    EXPECT_EQ(pfi->pfi_bits & PFI_RDONLY, 0);
    EXPECT_EQ(::fcntl(pfi->pfi_osfd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(ot::shared_fcp(rw)->is_usecnt, 1);
    EXPECT_EQ(n_ufiles, 2);

    int third = nisopen(path("f").c_str(), ISO_RDWR | ISF_DEFER);
    ASSERT_GE(third, 0);

    // Close, level one: the slot and the descriptor stay; the number is reused first.
    int u = is_db[rw]->uniqueid;
    EXPECT_EQ(nisclose(ro), 0);
    EXPECT_EQ(pfi->pfi_refcnt, 2);
    EXPECT_NE(is_env.pfo_tbl[u], -1);
    EXPECT_EQ(nisopen(path("f").c_str(), ISO_RDWR), ro);
    EXPECT_EQ(nisclose(ro), 0);
    EXPECT_EQ(nisclose(third), 0);
    EXPECT_EQ(nisclose(rw), 0);
    EXPECT_EQ(pfi->pfi_osfd, -1);
    EXPECT_EQ(is_env.pfo_tbl[u], -1) << "the last close anywhere frees the slot";
    EXPECT_EQ(nisclose(rw), -1);
    EXPECT_EQ(is_errno, ISE_BADFD);
    EXPECT_EQ(n_ufiles, 0);
    EXPECT_EQ(isallclose(), 0);
}

TEST_F(Open, OpenAttachesOnItsOwnAndUnisamDetaches) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    int keylens[1];
    EXPECT_EQ(nisstat(fd, 1, keylens), 1);
    key_t key = inst_->key();
    EXPECT_EQ(nisunisam(), 0);
    EXPECT_EQ(ZTKISAMGetComAddr(), nullptr);
    EXPECT_LT(::shmget(key, 0, 0), 0) << "the last process to leave removes the segment";
    EXPECT_EQ(nisunisam(), 0);
    fd = nisopen(path("f").c_str(), ISO_RDWR);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(nisstat(fd, 1, keylens), 1);
}

}  // namespace
