// The interface in one process: open and close, the call frame, error reports, damage.
#include "open_fixture.h"
#include "fcp.h"
#include "is_error.h"
#include "is_file.h"
#include "is_lock.h"
#include "is_rec.h"
#include "isx_area.h"
#include "kcheck.h"
#include "os.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

using ot::Env;
using ot::read_head;
using ot::stack_code;

namespace {

class Open : public Env {};

template <class T>
void put(char* disk, int off, T v) { std::memcpy(disk + off, &v, sizeof v); }

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

// An old-layout control page of n keys, built byte by byte.
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

// Converted in place for every key count (the table overlaps itself from six keys on)
// and both page sizes; opened, it reaches the shared control page converted.
TEST_F(Open, OldControlPagesAreConverted) {
    constexpr int kJd = IS_FCP_JDSIZE;
    ASSERT_EQ(is_init(), 0);
    for (uint16_t magic : {ISMAGIC_OLD512, ISMAGIC_OLD1024})
        for (int n = 0; n <= KISAM_MAXKEYS; ++n) {
            SCOPED_TRACE(std::to_string(magic) + ", keys " + std::to_string(n));
            // At an odd address: read buffers have any alignment.
            std::vector<char> store(kJd + kisam::kFcpImage + 1, 0);
            char* scratch = store.data() + 1;
            char* d = scratch + kJd;
            std::memset(scratch, 0x5A, kJd);  // identity area: must survive untouched
            old_page(d, magic, n);
            if (n == 6) {
                ::unlink(path("old").c_str());
                ot::write_bytes(path("old"), d, 512, 0);
            }

            kisam::fcp_convert_old(scratch);
            // (offset, bytes, value) of the new page: magic, keys, free and last page, the
            // hints moved to 16, the table's tail zero, use count, minrec, options, mincdpi.
            const struct { int off, size; int64_t v; } fields[] = {
                {0, 2, magic == ISMAGIC_OLD512 ? ISMAGIC_512 : ISMAGIC_1024}, {2, 2, n},
                {4, 4, 0x00011400}, {8, 4, 0x00020400}, {12, 4, 0}, {56, 8, 0}, {64, 8, 0}, {72, 8, 0},
                {80, 4, 0}, {84, 2, 0xFFFF}, {86, 2, 4 * n + 5}, {88, 1, ISO_KEYOPT}, {96, 2, 3}};
            for (auto [off, size, v] : fields) {
                int64_t got = 0;
                std::memcpy(&got, d + off, static_cast<size_t>(size));
                EXPECT_EQ(got, v) << "byte " << off;
            }
            EXPECT_EQ(std::memcmp(d + 16, hints(), 40), 0);
            for (int i = 0; i < n; ++i) {
                const IS_KEY want = key_n(i);
                EXPECT_EQ(std::memcmp(&want, d + 100 + 16 * i, sizeof want), 0) << "key " << i;
            }
            for (int i = 0; i < kJd; ++i) EXPECT_EQ(static_cast<unsigned char>(scratch[i]), 0x5A);
            if (n != 6) continue;

            int fd = nisopen(path("old").c_str(), ISO_RDWR);
            ASSERT_GE(fd, 0) << is_errno;
            IS_FCP* f = ot::shared_fcp(fd);
            EXPECT_EQ(f->is_magic, magic + 2);
            EXPECT_EQ(f->is_nextfree, 0x00011400u);
            EXPECT_EQ(f->is_usecnt, 1) << "the first opener counts itself, whatever the page says";
            EXPECT_EQ(std::memcmp(kisam::fcp_key(f, n - 1), d + 100 + 16 * (n - 1), sizeof(IS_KEY)), 0);
            EXPECT_EQ(std::memcmp(f->is_cdp, hints(), 40), 0);
            EXPECT_EQ((ot::pfi_of(fd)->pfi_bits & PFI_BIGFCP) != 0, magic == ISMAGIC_OLD1024);
            int keylens[8];
            EXPECT_EQ(nisstat(fd, 8, keylens), n);
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
    // References, the read-only bit, the descriptor's mode, the shared use count, files.
    EXPECT_EQ((std::vector<int>{pfi->pfi_refcnt, pfi->pfi_bits & PFI_RDONLY, ::fcntl(pfi->pfi_osfd, F_GETFL) & O_ACCMODE,
                                ot::shared_fcp(rw)->is_usecnt, n_ufiles}),
              (std::vector<int>{2, 0, O_RDWR, 1, 2}));

    int third = nisopen(path("f").c_str(), ISO_RDWR | ISF_DEFER);
    ASSERT_GE(third, 0);

    // Close, level one: the slot and the descriptor stay; the number is reused first.
    int u = is_db[rw]->uniqueid;
    EXPECT_EQ(nisclose(ro), 0);
    EXPECT_EQ(pfi->pfi_refcnt, 2);
    EXPECT_NE(is_env.pfo_tbl[u], -1);
    EXPECT_EQ(nisopen(path("f").c_str(), ISO_RDWR), ro);
    EXPECT_EQ((std::vector<int>{nisclose(ro), nisclose(third), nisclose(rw)}), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(pfi->pfi_osfd, -1);
    EXPECT_EQ(is_env.pfo_tbl[u], -1) << "the last close anywhere frees the slot";
    EXPECT_EQ(nisclose(rw), -1);
    EXPECT_EQ(is_errno, ISE_BADFD);
    EXPECT_EQ(n_ufiles, 0);

    // nisexit: a child's handles are closed and its process slot given back before it
    // exits with the status asked for; a child that simply ends leaves both to be reaped.
    int keep = nisopen(path("f").c_str(), ISO_RDWR);
    ASSERT_GE(keep, 0);
    const int attached = ot::attached_processes();
    EXPECT_EQ(kt::run_child([&] {
                  if (is_chinit() != 0 || nisopen(path("f").c_str(), ISO_RDWR) < 0) return 1;
                  nisexit(7);
                  return 2;
              }),
              7);
    EXPECT_EQ(ot::attached_processes(), attached);
    EXPECT_EQ(ot::shared_fcp(keep)->is_usecnt, 1);
    EXPECT_EQ(nisclose(keep), 0);
    EXPECT_EQ(isallclose(), 0);
}

}  // namespace

// A create failing at each of its system calls in turn leaves nothing new behind, and an
// existing file byte for byte as it was.
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

// The directory's names but the installation's redo logs.
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

}  // namespace create_sweep

TEST_F(Open, ACreateThatFailsLeavesNothingNewBehind) {
    namespace cs = create_sweep;
    const int lens[3] = {8, 12, 4};
    const std::string f = path("made");
    const std::string dir = inst_->dir();
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
            old = kt::slurp(f);
        }
        auto restore = [&] {
            nisunisam();   // each create attaches afresh: start-up's calls fail in turn too
            ::unlink(f.c_str());
            if (existing) kt::spit(f, old, 0640);
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
                std::printf("[ sweep    ] call %d (%s) failed, the create went on\n", n, cs::what);
                ASSERT_EQ(nisclose(fd), 0);
                kisam::check::Report rep = kisam::check::check_file(f);
                ASSERT_TRUE(rep.ok) << rep.error;
            } else {
                ++failed;
                EXPECT_GT(is_errno, 0);
                EXPECT_EQ(cs::listing(dir), before) << "a failed create left a file behind";
                if (existing) {
                    EXPECT_TRUE(kt::slurp(f) == old) << "a failed create changed the file";
                }
            }
            restore();
        }
        EXPECT_GT(failed, 0);
        std::printf("[ sweep    ] create %s: %d calls, %d failed creates\n",
                    existing ? "over a file" : "of a new name", total, failed);
    }
}

namespace {

class Frame : public Env {};

// -1, the code, one stack entry naming the call, and the call left.
TEST_F(Frame, BadDescriptorsAndKeyNumbersAreRefused) {
    int lens[2] = {4, 6};
    int keylens[4];
    char rec[16] = {};
    // Before start-up.
    EXPECT_EQ(nisclose(0), -1);
    EXPECT_EQ(is_errno, ISE_BADFD);
    EXPECT_EQ(stack_code(), 0x3100);
    EXPECT_EQ(Iscurfun, -0x3100);

    int fd = niscreate(path("f").c_str(), 2, lens);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(nisread(fd, 1, rec, sizeof rec), 0);
    const int maxopen = isam_com->maxopen;
    struct Call {
        int err, code;
        std::function<int()> fn;
    };
    std::vector<Call> calls;
    for (int bad : {-1, maxopen, fd + 1})
        calls.insert(calls.end(), {{ISE_BADFD, 0x3100, [=] { return nisclose(bad); }},
                                   {ISE_BADFD, 0x3700, [=] { return nislock(bad, "ab", 2, 1); }},
                                   {ISE_BADFD, 0x4000, [=, &rec] { return nisread(bad, 0, rec, sizeof rec); }},
                                   {ISE_BADFD, 0x3D00, [=, &rec] { return niswrite(bad, rec, sizeof rec); }},
                                   {ISE_BADFD, 0x3A00, [=] { return kisam_rewind(bad, 0); }}});
    for (int k : {-1, 2, 25})
        calls.insert(calls.end(), {{ISE_BADKN, 0x4000, [=, &rec] { return nisread(fd, k, rec, sizeof rec); }},
                                   {ISE_BADKN, 0x3A00, [=] { return kisam_rewind(fd, k); }}});
    for (size_t i = 0; i < calls.size(); ++i) {
        is_errno = 0;
        const int rc = calls[i].fn();   // then the code, stack top, depth and frame left
        EXPECT_EQ((std::vector<int>{rc, is_errno, stack_code(), ot::stack_depth(), Iscurfun}),
                  (std::vector<int>{-1, calls[i].err, calls[i].code, 1, -calls[i].code})) << "call " << i;
    }
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_EQ(is_db[fd], nullptr);
    EXPECT_EQ(nisstat(fd, 4, keylens), -1);
    EXPECT_EQ(is_errno, ISE_BADFD);
}

// Refused before anything changes: an update in a process that has the file open only
// read-only (its delete would go through, its write not) and a find without a key.
TEST_F(Frame, ARefusedUpdateOrFindChangesNothing) {
    const int fd = create("f", {4});
    ASSERT_EQ(niswrite(fd, "abcd-rec", 8), 0);
    ASSERT_EQ(nisclose(fd), 0);
    const int ro = nisopen(path("f").c_str(), ISO_RDONLY);
    ASSERT_GE(ro, 0);
    char rec[16] = {};
    EXPECT_EQ((std::vector<int>{nisupdate(ro, "abcd-new", 8), is_errno, stack_code()}),
              (std::vector<int>{-1, ISE_RONLY, 0x2101}));
    EXPECT_EQ((std::vector<int>{nisfind(ro, 0, nullptr, rec, sizeof rec), is_errno, stack_code()}),
              (std::vector<int>{-1, ISE_INVKL, 0x3401}));
    EXPECT_EQ(nisfind(ro, 0, "abcd", rec, sizeof rec), 8);
    EXPECT_EQ(std::string(rec, 8), "abcd-rec");
}

TEST_F(Frame, AbandonedCallIsRepairedByTheNextCall) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Iscurfun, -0x3800) << "create leaves through the open it ends with";

    // An operation that stops half-way holding four locks.
    ASSERT_EQ(is_isin(0x3B00, fd, 0), 0);
    ASSERT_EQ(is_lock(&isam_com->opcl_lock), 0);
    ASSERT_EQ(is_getctl(), 0);
    ASSERT_EQ(is_lock(&isam_com->free_lock), 0);
    ASSERT_EQ(is_lock(&isam_com->buf_lock), 0);
    EXPECT_GT(Iscurfun, 0);

    int keylens[1];
    EXPECT_EQ(nisstat(fd, 1, keylens), 1);
    EXPECT_EQ(Islastfun, 0x3B00);
    EXPECT_EQ(Iscurfun, -0x4500);
    // The open, free and buffer locks, the control lock and this process's count of it.
    EXPECT_EQ((std::vector<unsigned>{isam_com->opcl_lock, isam_com->free_lock, isam_com->buf_lock,
                                     ot::shared_fcp(fd)->jd_fcplock, static_cast<unsigned>(ot::pfi_of(fd)->pfi_ctlcnt)}),
              (std::vector<unsigned>{0, 0, 0, 0, 0}));

    // Another process gets all four without waiting.
    unsigned long offs[] = {kisam::com_offset(&isam_com->opcl_lock),
                            kisam::com_offset(&isam_com->free_lock)};
    unsigned* ctl = &ot::shared_fcp(fd)->jd_fcplock;
    EXPECT_EQ(kt::run_child([&] {
                  for (unsigned long o : offs)
                      if (is_lockitnw(o) != 0) return 1;
                  uint32_t dead = 1;
                  if (is_lock_try(ctl, &dead) != 0 || dead != 0) return 2;
                  dead = 1;
                  if (is_lock_try(&isam_com->buf_lock, &dead) != 0 || dead != 0) return 3;
                  return 0;
              }),
              0);
    EXPECT_EQ(nisclose(fd), 0);
}

TEST(ErrorReport, OneLineFormInEachCase) {
    char buf[1100];
    is_errno = 0;
    is_etop = nullptr;
    errno = 0;
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), 0) << "nothing before the first failure";
    is_raise(ISE_OPENF, PROC(P_ISOPEN, 4));
    is_push(PROC(P_ISCLOSE, 1));  // further entries are not part of the one-line form
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)), "ISE_OPENF   cannot open file in proc. isopen - 4");
    is_errno = ISE_INCONSISTENT;  // the last code with a text
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)),
              "ISE_INCONSISTENT\tFile was not closed properly and is in an inconsistent state in proc. isopen - 4");
    is_errno = 31;  // no text: the numeric form
    EXPECT_EQ(std::string(buf, niserrmsgget(buf, sizeof buf)), "isam error #31 in proc. isopen - 4");

    is_raise(ISE_RDRD, PROC(0x30, 200));  // unknown procedure, detail shown as a signed byte
    errno = ENOENT;
    std::string sys = std::string("ISE_RDRD    read failed in \"v_read\" in proc. #48 - -56") +
                      ", Sys errno #2 " + std::strerror(ENOENT);
    EXPECT_EQ(niserrmsgget(buf, sizeof buf), static_cast<int>(sys.size()));
    EXPECT_EQ(std::string(buf), sys);
    // Cut to buflen - 1; no cut for buflen 0.
    EXPECT_EQ(niserrmsgget(buf, 10), 9);
    EXPECT_EQ(std::string(buf), sys.substr(0, 9));
    EXPECT_EQ(niserrmsgget(buf, 0), static_cast<int>(sys.size()));
}

TEST(ErrorReport, FullReportOnStandardError) {
    is_raise(ISE_INITERR, PROC(P_IS_INIT, 1));
    is_push(PROC(P_ISOPEN, 2));
    is_push(PROC(0x7F, 3));
    errno = EACCES;
    EXPECT_EQ(kt::capture_output(2, [] { niserrmsg(); }),
              std::string("ISE_INITERR isam initialization error in proc. is_init - 1\r\n") +
                  "    called from proc. isopen - 2\r\n    called from proc. #127 - 3\r\n" +
                  "Sys errno #13 " + std::strerror(EACCES) + "\n");
    errno = 0;
    is_errno = 44;
    EXPECT_EQ(kt::capture_output(2, [] { niserrmsg(); }),
              "isam error #44 in proc. is_init - 1\r\n    called from proc. isopen - 2\r\n"
              "    called from proc. #127 - 3\r\n");
}

constexpr int kKeyLen = 8;

class Damage : public Env {
public:
    // A short record and a long one, closed so that nothing is cached when damaged.
    void SetUp() override {
        Env::SetUp();
        file_ = path("dmg");
        int fd = create("dmg", {kKeyLen});
        ASSERT_GE(fd, 0);
        short_ = record("00000001", 100);
        long_ = record("00000002", 1500);
        ASSERT_EQ(niswrite(fd, short_.data(), static_cast<int>(short_.size())), 0);
        ASSERT_EQ(niswrite(fd, long_.data(), static_cast<int>(long_.size())), 0);
        ASSERT_EQ(nisclose(fd), 0);
        std::vector<std::string> items;
        std::string err;
        ASSERT_EQ(kisam::check::list_items(file_, 0, &items, &err), 2) << err;
        std::memcpy(&short_addr_, items[0].data() + kKeyLen, 4);
        std::memcpy(&long_addr_, items[1].data() + kKeyLen, 4);
        ASSERT_EQ(short_addr_ & 1, 0u) << "short record in a shared page";
        ASSERT_EQ(long_addr_ & 0x3FF, 1u) << "long record starts in an overflow page";
    }

    static std::string record(const char* key, size_t n) {
        std::string r(key);
        for (size_t i = r.size(); i < n; ++i) r.push_back(static_cast<char>('a' + i % 26));
        return r;
    }
    void poke(off_t off, const void* p, size_t n) { ot::write_bytes(file_, p, n, off); }
    void poke16(off_t off, uint16_t v) { poke(off, &v, 2); }
    void poke32(off_t off, uint32_t v) { poke(off, &v, 4); }

    std::string file_, short_, long_;
    PAGE short_addr_ = 0, long_addr_ = 0;
};

struct Case {
    const char* what;
    std::function<void(Damage&)> damage;
    bool long_record;        // the damaged record is the long one
    int where;               // procedure code at the bottom of the stack
};

// Reading, deleting and replacing a damaged record fail with ISE_BTS, the damage at the
// bottom of the stack and the call's own entry above it: no entry of an earlier failure.
TEST_F(Damage, EveryOperationThatMeetsItFailsWithTheDamagedCode) {
    const Case cases[] = {
        {"segment runs off its page",
         [](Damage& d) { d.poke16(d.short_addr_, 0x8000 | 0x3FF); }, false, 0x1103},
        {"continued segment names an odd offset",
         [](Damage& d) {
             d.poke16(d.short_addr_, 0xC000 | 10);
             const unsigned char odd = 3;
             d.poke(d.short_addr_ + 2, &odd, 1);
         }, false, 0x1103},
        {"overflow page links to the control page",
         [](Damage& d) { d.poke32((d.long_addr_ - 1) + 4, 0 + 1); }, true, 0x1101},
        {"overflow page links to an odd address",
         [](Damage& d) { d.poke32((d.long_addr_ - 1) + 4, 2048 + 3); }, true, 0x1101},
    };
    for (const Case& c : cases) {
        for (int op = 0; op < 3; ++op) {
            TearDown();   // a fresh installation and sound file for every operation
            SetUp();
            ASSERT_FALSE(HasFatalFailure());
            SCOPED_TRACE(std::string(c.what) + ", operation " + std::to_string(op));
            c.damage(*this);
            int fd = nisopen(file_.c_str(), ISO_RDWR);
            ASSERT_GE(fd, 0);
            const std::string& rec = c.long_record ? long_ : short_;
            std::vector<char> buf(4096);
            EXPECT_EQ(nisread(fd, 7, buf.data(), 10), -1);   // the earlier failure
            const int n = static_cast<int>(op == 0 ? buf.size() : rec.size());
            EXPECT_EQ(op == 0 ? nisfind(fd, 0, rec.data(), buf.data(), n) : op == 1 ? nisdelete(fd, rec.data())
                                                                                   : nisupdate(fd, rec.data(), n),
                      -1);
            EXPECT_EQ(is_errno, ISE_BTS);
            // A change meets it while releasing the record (0x15xx).
            const int where = op != 0 && c.where >> 8 == 0x11 ? (0x15 << 8) | (c.where & 0xFF) : c.where;
            EXPECT_EQ(kt::error_stack(), (std::vector<int>{where, op == 0 ? 0x2302 : 0x2105}));
            char msg[200];
            niserrmsgget(msg, sizeof msg);
            EXPECT_NE(std::string(msg).find("ISE_BTS"), std::string::npos) << msg;
            const std::string& other = c.long_record ? short_ : long_;
            EXPECT_EQ(nisfind(fd, 0, other.data(), buf.data(), static_cast<int>(buf.size())),
                      static_cast<int>(other.size()));
            EXPECT_EQ(nisclose(fd), 0);
        }
    }
}

}  // namespace

namespace {

// Brackets over more files at once than the table of held lock words has room for: a
// change under a hold the table could not note still leaves its file's change count
// even at the release -- left odd, every read of that file without the lock would fall
// back to the locked read until another process changed it.
TEST_F(Frame, ChangesUnderMoreHoldsThanTheTableNotesLeaveTheCountsEven) {
    kt::Config c;
    c.maxopen = 80;
    c.maxbuf = 400;
    start(c);
    std::vector<int> fds;
    for (int i = 0; i < 70; ++i) {
        fds.push_back(create("f" + std::to_string(i), {4}));
        ASSERT_GE(fds.back(), 0) << i << ": " << is_errno;
    }
    for (int fd : fds) ASSERT_EQ(nisgetctl(fd), 0) << is_errno;
    for (int fd : fds) ASSERT_EQ(niswrite(fd, "abcd-rec", 8), 0) << is_errno;
    for (int fd : fds) ASSERT_EQ(nisrelctl(fd), 0) << is_errno;
    for (size_t i = 0; i < fds.size(); ++i)
        EXPECT_EQ(kisam::isx_file_of(is_db[fds[i]]->uniqueid)->xf_seq % 2, 0u) << "file " << i;
}

}  // namespace
