// Open and close within one process: old control pages (their conversion, and their
// open), the data-changed mark, the sharing of one slot by several handles, the levels
// of close, and a create that fails at any system call.
#include "open_fixture.h"

#include "fcp.h"
#include "is_file.h"
#include "kcheck.h"
#include "os.h"

#include <dirent.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace {

using ot::Env;
using ot::read_head;
using ot::stack_code;

class Open : public Env {};

template <class T>
void put(char* disk, int off, T v) { std::memcpy(disk + off, &v, sizeof v); }
template <class T>
T get(const char* disk, int off) { T v; std::memcpy(&v, disk + off, sizeof v); return v; }

IS_KEY key_n(int i) {
    IS_KEY k{};
    k.k_root = static_cast<PAGE>(1024 * (i + 1));
    k.k_order = static_cast<int16_t>(50 + i);
    k.k_keylen = 4;
    k.k_offset = 4;
    k.k_itemlen = 8;
    k.k_ncomp = static_cast<int16_t>(i == 0 ? 4 : 8);
    return k;
}
const unsigned char* hints() {
    static unsigned char h[40];
    for (int i = 0; i < 40; ++i) h[i] = static_cast<unsigned char>(0xA0 + i);
    return h;
}

// An old-layout control page of n keys (key i: key_n(i)) at d, built byte by byte; the
// ten free-space hints follow the key table.
void old_page(char* d, uint16_t magic, int n) {
    put<uint16_t>(d, 0, magic);
    put<int16_t>(d, 2, static_cast<int16_t>(n));
    put<int16_t>(d, 4, static_cast<int16_t>(4 * n + 5));   // is_minrec: the keys and more
    put<int16_t>(d, 6, 0x1400);    // is_nextfree: hi half 0x1400, lo half 1
    put<int16_t>(d, 8, 0x0001);
    put<uint32_t>(d, 10, 0x00020400);
    put<uint8_t>(d, 14, ISO_KEYOPT);
    put<int8_t>(d, 15, -1);        // is_usecnt
    put<uint16_t>(d, 16, 0xBEEF);  // dropped fields
    put<uint32_t>(d, 18, 0xDEADBEEF);
    put<int16_t>(d, 28, 3);        // is_mincdpi
    put<uint32_t>(d, 30, 0xCAFEF00D);
    for (int i = 0; i < n; ++i) {
        IS_KEY k = key_n(i);
        std::memcpy(d + 34 + 16 * i, &k, sizeof k);
    }
    std::memcpy(d + 34 + 16 * n, hints(), 40);
}

// The old layout converted in place, for every key count (the key table moves over
// itself from six keys on) and both control-page sizes.
TEST(FcpConvert, EveryKeyCountAndBothMagics) {
    constexpr int kJd = IS_FCP_JDSIZE;
    for (uint16_t magic : {ISMAGIC_OLD512, ISMAGIC_OLD1024})
        for (int n = 0; n <= KISAM_MAXKEYS; ++n) {
            SCOPED_TRACE(n);
            // Identity area + 512 bytes at an odd address: pages arrive in read buffers
            // of any alignment.
            std::vector<char> store(kJd + kisam::kFcpImage + 1, 0);
            char* scratch = store.data() + 1;
            char* d = scratch + kJd;
            std::memset(scratch, 0x5A, kJd);  // identity area: must survive untouched
            old_page(d, magic, n);

            kisam::fcp_convert_old(scratch);
            EXPECT_EQ(get<uint16_t>(d, 0), magic == ISMAGIC_OLD512 ? ISMAGIC_512 : ISMAGIC_1024);
            EXPECT_EQ(get<int16_t>(d, 2), n);
            EXPECT_EQ(get<uint32_t>(d, 4), 0x00011400u);
            EXPECT_EQ(get<uint32_t>(d, 8), 0x00020400u);
            EXPECT_EQ(get<uint32_t>(d, 12), 0u);
            EXPECT_EQ(std::memcmp(d + 16, hints(), 40), 0);
            for (int i = 56; i < 80; ++i) EXPECT_EQ(d[i], 0) << "cdp byte " << i;
            EXPECT_EQ(get<int32_t>(d, 80), 0);
            EXPECT_EQ(get<int16_t>(d, 84), -1);
            EXPECT_EQ(get<int16_t>(d, 86), 4 * n + 5);
            EXPECT_EQ(get<uint8_t>(d, 88), ISO_KEYOPT);
            EXPECT_EQ(get<int16_t>(d, 96), 3);
            for (int i = 0; i < n; ++i) {
                IS_KEY want = key_n(i);
                EXPECT_EQ(std::memcmp(&want, d + 100 + 16 * i, sizeof want), 0) << "key " << i;
            }
            for (int i = 0; i < kJd; ++i) EXPECT_EQ(static_cast<unsigned char>(scratch[i]), 0x5A);
        }
}

// Opened, such a page reaches the shared control page converted, whatever use count
// it carries.
TEST_F(Open, OldControlPagesAreConverted) {
    ASSERT_EQ(is_init(), 0);
    for (uint16_t magic : {ISMAGIC_OLD1024, ISMAGIC_OLD512}) {
        SCOPED_TRACE(magic);
        const int nkeys = 6;
        std::vector<char> page(512, 0);
        old_page(page.data(), magic, nkeys);
        ot::write_bytes(path("old"), page.data(), page.size(), 0);
        int fd = nisopen(path("old").c_str(), ISO_RDWR);
        ASSERT_GE(fd, 0) << is_errno;
        IS_FCP* f = ot::shared_fcp(fd);
        EXPECT_EQ(f->is_magic, magic + 2);
        EXPECT_EQ(f->is_nkeys, nkeys);
        EXPECT_EQ(f->is_minrec, 4 * nkeys + 5);
        EXPECT_EQ(f->is_nextfree, 0x00011400u);
        EXPECT_EQ(f->is_lastpage, 0x00020400u);
        EXPECT_EQ(f->is_mincdpi, 3);
        EXPECT_EQ(f->is_usecnt, 1) << "the first opener counts itself, whatever the page says";
        EXPECT_EQ(f->is_optbits & ISO_KEYOPT, ISO_KEYOPT);
        for (int k = 0; k < nkeys; ++k) {
            IS_KEY want = key_n(k);
            EXPECT_EQ(std::memcmp(kisam::fcp_key(f, k), &want, sizeof want), 0) << "key " << k;
        }
        EXPECT_EQ(std::memcmp(f->is_cdp, hints(), 40), 0);
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

// A create that fails at any system call leaves nothing new behind: every call that
// niscreate makes through the OS layer (opens, writes, reads, status queries, the
// rename) fails in turn.  On a new name no file stays; over an existing file the file
// stays byte for byte as it was.  A create that succeeds made a sound empty file.
namespace create_sweep {

int at = 0, calls = 0;   // the call to fail (0: none), calls so far
const char* what = "";
bool fails(const char* kind) {
    if (++calls != at) return false;
    what = kind;
    errno = EIO;
    return true;
}
int f_open(const char* p, int fl, mode_t m) { return fails("open") ? -1 : kisam::os_real.open(p, fl, m); }
ssize_t f_pread(int fd, void* b, size_t n, off_t o) { return fails("pread") ? -1 : kisam::os_real.pread(fd, b, n, o); }
ssize_t f_pwrite(int fd, const void* b, size_t n, off_t o) {
    return fails("pwrite") ? -1 : kisam::os_real.pwrite(fd, b, n, o);
}
int f_fstat(int fd, struct stat* st) { return fails("fstat") ? -1 : kisam::os_real.fstat(fd, st); }
int f_rename(const char* a, const char* b) { return fails("rename") ? -1 : kisam::os_real.rename(a, b); }

// The directory's names, but for the installation's redo logs ("<lock file>.w<n>"): they
// belong to the installation, not to a create.
std::vector<std::string> listing(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (!std::strstr(e->d_name, ".lk.w")) names.emplace_back(e->d_name);
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace create_sweep

TEST_F(Open, ACreateThatFailsLeavesNothingNewBehind) {
    namespace cs = create_sweep;
    const int lens[3] = {8, 12, 4};
    const std::string f = path("made");
    const std::string dir = inst_->dir();
    // niscreate with the nth call failing (0: none); its result.
    auto create = [&](int n) {
        cs::calls = 0;
        cs::at = n;
        kisam::os.open = cs::f_open;
        kisam::os.pread = cs::f_pread;
        kisam::os.pwrite = cs::f_pwrite;
        kisam::os.fstat = cs::f_fstat;
        kisam::os.rename = cs::f_rename;
        is_errno = 0;
        const int fd = niscreate(f.c_str(), 3, const_cast<int*>(lens));
        kisam::os = kisam::os_real;
        return fd;
    };
    for (bool existing : {false, true}) {
        ::unlink(f.c_str());
        std::string old;
        if (existing) {
            int fd = niscreate(f.c_str(), 3, const_cast<int*>(lens));
            ASSERT_GE(fd, 0);
            std::string r(40, 'x');
            for (int i = 0; i < 30; ++i) {
                std::snprintf(&r[0], 9, "%08d", i);
                ASSERT_EQ(niswrite(fd, r.data(), static_cast<int>(r.size())), 0);
            }
            ASSERT_EQ(nisclose(fd), 0);
            old = cs::contents(f);
        }
        // Puts the name back as it was before the create.
        auto restore = [&] {
            nisunisam();   // each create attaches afresh: start-up's calls fail in turn too
            ::unlink(f.c_str());
            if (existing) {
                std::ofstream(f, std::ios::binary) << old;
                ASSERT_EQ(::chmod(f.c_str(), 0640), 0);
            }
        };
        restore();
        const std::vector<std::string> before = cs::listing(dir);

        int fd = create(0);
        ASSERT_GE(fd, 0);
        const int total = cs::calls;
        ASSERT_GT(total, 3);
        nisclose(fd);
        struct stat st;
        ASSERT_EQ(::stat(f.c_str(), &st), 0);
        if (existing) {
            EXPECT_EQ(st.st_mode & 0777, 0640u) << "the replaced file's permissions";
        }
        restore();

        int failed = 0;
        for (int n = 1; n <= total; ++n) {
            SCOPED_TRACE(std::string(existing ? "over a file" : "new name") + ", call " +
                         std::to_string(n) + " of " + std::to_string(total));
            fd = create(n);
            if (fd >= 0) {
                // The fault fell on a call whose failure the create rode out.
                std::printf("[ sweep    ] call %d (%s) failed, the create went on\n", n, cs::what);
                ASSERT_EQ(nisclose(fd), 0);
                kisam::check::Report rep = kisam::check::check_file(f);
                ASSERT_TRUE(rep.ok) << rep.error;
            } else {
                ++failed;
                EXPECT_GT(is_errno, 0);
                EXPECT_EQ(cs::listing(dir), before) << "a failed create left a file behind";
                if (existing) {
                    EXPECT_TRUE(cs::contents(f) == old) << "a failed create changed the file";
                }
            }
            restore();
        }
        EXPECT_GT(failed, 0);
        std::printf("[ sweep    ] create %s: %d calls, %d failed creates\n",
                    existing ? "over a file" : "of a new name", total, failed);
    }
}
