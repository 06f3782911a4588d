// Create, open and close within one process: the control page written by create, the
// refusals of both, old control pages, the data-changed mark, the sharing of one slot by
// several handles, and the three levels of close.
#include "open_fixture.h"

#include "bt_key.h"
#include "is_file.h"

#include <sys/shm.h>

namespace {

using ot::Env;
using ot::read_head;
using ot::stack_code;

class Open : public Env {};

template <class T>
T at(const std::vector<unsigned char>& b, size_t off) {
    return kisam::load_at<T>(b.data() + off);
}

TEST_F(Open, CreateWritesTheControlPage) {
    int fd = create("f", {4, 5});
    ASSERT_GE(fd, 0) << is_errno;
    auto b = read_head(path("f"));
    ASSERT_EQ(b.size(), 512u);
    EXPECT_EQ(ot::file_size(path("f")), 512);
    EXPECT_EQ(at<uint16_t>(b, 0), ISMAGIC_1024);
    EXPECT_EQ(at<int16_t>(b, 2), 2);
    EXPECT_EQ(at<uint32_t>(b, 4), 1024u);
    EXPECT_EQ(at<uint32_t>(b, 8), 1024u);
    EXPECT_EQ(at<int16_t>(b, 86), 9);      // is_minrec
    EXPECT_EQ(b[88], ISO_KEYOPT);          // IsKeyopt starts at 1
    // key 0: length 4, item = key + record address
    EXPECT_EQ(at<uint32_t>(b, 100), KISAM_NOPAGE);
    EXPECT_EQ(at<int16_t>(b, 104), bt_order(8, 1024));
    EXPECT_EQ(at<int16_t>(b, 106), 4);
    EXPECT_EQ(at<int16_t>(b, 108), 4);
    EXPECT_EQ(at<int16_t>(b, 110), 8);
    EXPECT_EQ(at<int16_t>(b, 112), 4);
    // key 1: length 5, item = key + primary key
    EXPECT_EQ(at<int16_t>(b, 122), 5);
    EXPECT_EQ(at<int16_t>(b, 124), 6);
    EXPECT_EQ(at<int16_t>(b, 126), 10);
    EXPECT_EQ(at<int16_t>(b, 128), 10);
    for (size_t i = 132; i < 512; ++i) ASSERT_EQ(b[i], 0) << i;

    int keylens[4] = {-1, -1, -1, -1};
    EXPECT_EQ(nisstat(fd, 4, keylens), 2);
    EXPECT_EQ(keylens[0], 4);
    EXPECT_EQ(keylens[1], 5);
    EXPECT_EQ(keylens[2], -1) << "only is_nkeys entries are written";
    keylens[0] = -1;
    EXPECT_EQ(nisstat(fd, 0, keylens), 2);
    EXPECT_EQ(nisstat(fd, -5, keylens), 2);
    EXPECT_EQ(keylens[0], -1);
}

TEST_F(Open, CreateOptions) {
    niscr_ctl(0, 512);
    int a = create("a", {7});
    ASSERT_GE(a, 0);
    auto b = read_head(path("a"));
    EXPECT_EQ(at<uint16_t>(b, 0), ISMAGIC_512);
    EXPECT_EQ(b[88], 0);
    EXPECT_FALSE(ot::pfi_of(a)->pfi_bits & PFI_BIGFCP);

    int lens[2] = {3, 3};
    int c = niscreate(path("c").c_str(), -2, lens);  // key option for this file only
    ASSERT_GE(c, 0);
    b = read_head(path("c"));
    EXPECT_EQ(at<int16_t>(b, 2), 2);
    EXPECT_EQ(b[88], ISO_KEYOPT);

    niscr_ctl(7, 333);  // neither value is an option: nothing changes
    int d = create("d", {2});
    ASSERT_GE(d, 0);
    b = read_head(path("d"));
    EXPECT_EQ(at<uint16_t>(b, 0), ISMAGIC_512);
    EXPECT_EQ(b[88], 0);
    niscr_ctl(1, 1024);
}

TEST_F(Open, CreateRefusals) {
    kt::Config c;
    c.maxnkeys = 3;
    start(c);
    ASSERT_EQ(is_init(), 0);
    int fd = create("f", {4, 4, 4, 4});
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(is_errno, ISE_NKEYERR);
    EXPECT_EQ(stack_code(), 0x3202);
    EXPECT_EQ(Iscurfun, -0x3200);

    EXPECT_EQ(create("f", {600}), -1);
    EXPECT_EQ(is_errno, ISE_INVKL);
    EXPECT_EQ(stack_code(), 0x3203);
    EXPECT_EQ(create("f", {4, 600}), -1);
    EXPECT_EQ(stack_code(), 0x3204);
    EXPECT_EQ(create("f", {4, 0}), -1);
    EXPECT_EQ(stack_code(), 0x3204);
    EXPECT_EQ(create("no-dir/f", {4}), -1);
    EXPECT_EQ(is_errno, ISE_CREATF);
    EXPECT_EQ(stack_code(), 0x3205);

    // Names: 127 characters are fine, 128 are refused by both operations.
    std::string base = path("");
    std::string ok = base + std::string(127 - base.size(), 'n');
    std::string tl = ok + "x";
    int lens[1] = {4};
    fd = niscreate(ok.c_str(), 1, lens);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(niscreate(tl.c_str(), 1, lens), -1);
    EXPECT_EQ(is_errno, ISE_CREATF);
    EXPECT_EQ(stack_code(), 0x3208);
    ASSERT_EQ(::symlink(ok.c_str(), tl.c_str()), 0);
    EXPECT_EQ(nisopen(tl.c_str(), ISO_RDWR), -1);
    EXPECT_EQ(is_errno, ISE_OPENF);
    EXPECT_EQ(stack_code(), 0x380F);
    EXPECT_EQ(nisopen(nullptr, ISO_RDWR), -1);
    EXPECT_EQ(niscreate(nullptr, 1, lens), -1);
}

TEST_F(Open, CreateOfAnOpenFileIsRefusedAndLeavesItAlone) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ot::write_bytes(path("f"), "tail", 4, 2000);
    auto before = read_head(path("f"), 4096);
    EXPECT_EQ(create("f", {8}), -1);
    EXPECT_EQ(is_errno, ISE_CREATEISOPEN);
    EXPECT_EQ(stack_code(), 0x3201);
    EXPECT_EQ(read_head(path("f"), 4096), before);

    ASSERT_EQ(nisclose(fd), 0);
    fd = create("f", {8});
    ASSERT_GE(fd, 0) << "closed everywhere: re-created";
    EXPECT_EQ(ot::file_size(path("f")), 512);
    EXPECT_EQ(at<int16_t>(read_head(path("f")), 106), 8);
}

TEST_F(Open, OpenRefusals) {
    ASSERT_EQ(is_init(), 0);
    EXPECT_EQ(nisopen(path("missing").c_str(), ISO_RDWR), -1);
    EXPECT_EQ(is_errno, ISE_OPENF);
    EXPECT_EQ(stack_code(), 0x3801);

    ot::write_bytes(path("short"), "\x55\xAB", 2, 0);
    EXPECT_EQ(nisopen(path("short").c_str(), ISO_RDWR), -1);
    EXPECT_EQ(is_errno, ISE_NOTISAM);
    EXPECT_EQ(stack_code(), 0x3805);

    unsigned char page[512] = {};
    for (uint16_t magic : {0xAB51, 0xAB56, 0x0000, 0xFFFF}) {
        kisam::store_at<uint16_t>(page, magic);
        ot::write_bytes(path("bad"), page, sizeof page, 0);
        EXPECT_EQ(nisopen(path("bad").c_str(), ISO_RDWR), -1) << magic;
        EXPECT_EQ(stack_code(), 0x3806);
    }
    kisam::store_at<uint16_t>(page, ISMAGIC_1024);
    kisam::store_at<int16_t>(page + 2, 26);  // the key table cannot fit the page
    ot::write_bytes(path("bad"), page, sizeof page, 0);
    EXPECT_EQ(nisopen(path("bad").c_str(), ISO_RDWR), -1);
    EXPECT_EQ(stack_code(), 0x3806);
    // Nothing was left behind by the refusals.
    for (int u = 0; u < isam_com->maxopen; ++u) EXPECT_EQ(is_env.pfo_tbl[u], -1);
    EXPECT_EQ(n_ufiles, 0);
}

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
    kisam::store_at<uint32_t>(b + 18, 0xDEADBEEF);                      // dropped
    kisam::store_at<int16_t>(b + 28, 2);                                // is_mincdpi
    for (int k = 0; k < nkeys; ++k) {
        IS_KEY key{};
        key.k_root = static_cast<PAGE>(1024 * (k + 1));
        key.k_order = static_cast<int16_t>(50 + k);
        key.k_keylen = 4;
        key.k_offset = 4;
        key.k_itemlen = static_cast<int16_t>(k == 0 ? 8 : 8);
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
        EXPECT_EQ(f->Ofcp_time, 0u);
        EXPECT_EQ(f->is_optbits & ISO_KEYOPT, ISO_KEYOPT);
        for (int k = 0; k < nkeys; ++k) {
            EXPECT_EQ(kisam::fcp_key(f, k)->k_root, static_cast<PAGE>(1024 * (k + 1)));
            EXPECT_EQ(kisam::fcp_key(f, k)->k_order, 50 + k);
        }
        for (int i = 0; i < 10; ++i) EXPECT_EQ(f->is_cdp[i], static_cast<PAGE>(0x1000 * (i + 1) + i));
        for (int i = 10; i < 16; ++i) EXPECT_EQ(f->is_cdp[i], 0u);
        EXPECT_EQ((ot::pfi_of(fd)->pfi_bits & PFI_BIGFCP) != 0, magic == ISMAGIC_OLD1024);
        int keylens[8];
        EXPECT_EQ(nisstat(fd, 8, keylens), nkeys) << "the frame accepts the converted magic";
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
    kt::Config c;
    c.maxopen = 4;
    start(c);
    int w = create("f", {4, 6});
    ASSERT_GE(w, 0);
    ASSERT_EQ(nisclose(w), 0);

    int ro = nisopen(path("f").c_str(), ISO_RDONLY);
    ASSERT_GE(ro, 0);
    IS_PFI* pfi = ot::pfi_of(ro);
    EXPECT_EQ(pfi->pfi_bits, PFI_RDONLY | PFI_BIGFCP);
    int oldfd = pfi->pfi_osfd;
    EXPECT_EQ(::fcntl(oldfd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

    int rw = nisopen(path("f").c_str(), ISO_RDWR);
    ASSERT_GE(rw, 0);
    EXPECT_NE(rw, ro);
    EXPECT_EQ(ot::pfi_of(rw), pfi);
    EXPECT_EQ(pfi->pfi_refcnt, 2);
    EXPECT_EQ(pfi->pfi_bits & PFI_RDONLY, 0);
    EXPECT_EQ(::fcntl(pfi->pfi_osfd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(ot::shared_fcp(rw)->is_usecnt, 1);
    EXPECT_EQ(n_ufiles, 2);

    // A new handle: every cursor unpositioned, key buffers in order, then the scratch item.
    IS_DB* db = is_db[rw];
    for (int k = 0; k < 2; ++k) {
        EXPECT_EQ(kisam::db_cursor(db, k)->currpage, KISAM_NOPAGE);
        EXPECT_EQ(kisam::db_cursor(db, k)->curr_kstate, 0);
    }
    char* base = reinterpret_cast<char*>(db);
    EXPECT_EQ(kisam::db_cursor(db, 0)->currkey, base + 16 + 2 * 24);
    EXPECT_EQ(kisam::db_cursor(db, 1)->currkey, base + 16 + 2 * 24 + 8);
    EXPECT_EQ(db->temp, base + 16 + 2 * 24 + 8 + 10);

    // Sequential opens of the same file live in a slot of their own.
    int seq = nisopen(path("f").c_str(), ISO_RDONLY | ISF_SEQ);
    ASSERT_GE(seq, 0);
    EXPECT_NE(is_db[seq]->uniqueid, is_db[rw]->uniqueid);
    EXPECT_EQ(ot::shared_fcp(seq)->is_nkeys, 0);
    EXPECT_EQ(ot::shared_fcp(seq)->is_lastpage, 1024u);
    EXPECT_EQ(ot::shared_fcp(seq)->is_optbits & ISO_SEQ, ISO_SEQ);

    // maxufile is maxopen here: the fourth handle is the last.
    int fourth = nisopen(path("f").c_str(), ISO_RDWR | ISF_DEFER);
    ASSERT_GE(fourth, 0);
    EXPECT_EQ(nisopen(path("f").c_str(), ISO_RDWR), -1);
    EXPECT_EQ(is_errno, ISE_TMFILES);
    EXPECT_EQ(stack_code(), 0x380D);

    // Close, level one: the slot and the descriptor stay; the number is reused first.
    int u = is_db[rw]->uniqueid;
    EXPECT_EQ(nisclose(ro), 0);
    EXPECT_EQ(pfi->pfi_refcnt, 2);
    EXPECT_NE(is_env.pfo_tbl[u], -1);
    EXPECT_EQ(nisopen(path("f").c_str(), ISO_RDWR), ro);
    EXPECT_EQ(nisclose(ro), 0);
    EXPECT_EQ(nisclose(fourth), 0);
    EXPECT_EQ(nisclose(rw), 0);
    EXPECT_EQ(pfi->pfi_osfd, -1);
    EXPECT_EQ(is_env.pfo_tbl[u], -1) << "the last close anywhere frees the slot";
    EXPECT_EQ(nisclose(rw), -1);
    EXPECT_EQ(is_errno, ISE_BADFD);
    EXPECT_EQ(nisclose(seq), 0);
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
