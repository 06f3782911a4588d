// Page misses in several processes: readers without the lock, and page reads and
// write-backs through the file's mapping.  Every record's bytes follow from its id and generation.
#include "genrec.h"
#include "is_common.h"
#include "is_error.h"
#include "is_rec.h"
#include "isx_area.h"
#include "kisam_test.h"
#include "os.h"
#include "test_hook.h"
#include "v_pool.h"

#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace kg = kt::gen;
constexpr int kBuf = 4000;

// One record in ten spans overflow pages; kPage: records of about a page, one to a data page.
const kg::Layout kL{.k1 = 1000, .big = 10, .big_len = 1100, .small_len = 40, .small_span = 200};
const kg::Layout kPage{.k1 = 1000, .small_len = 700};
const kg::Layout* layout = &kL;

std::string record(unsigned id, uint32_t gen) { return kg::record(*layout, id, gen); }

// 0 when id holds exactly generation gen (0: any): 1 none, 2 another generation, 3 wrong bytes.
int check(int fd, unsigned id, uint32_t gen, uint32_t* seen = nullptr) {
    uint32_t g = 0;
    const int n = kg::find(fd, *layout, id, &g);
    if (seen) *seen = g;
    return n == -2 ? 3 : n <= 0 ? 1 : gen != 0 && g != gen ? 2 : 0;
}

// 0 when ids [from, to) hold exactly generation gen, else the first wrong one's check().
int check_range(int fd, unsigned from, unsigned to, uint32_t gen) {
    for (unsigned id = from; id < to; ++id)
        if (const int rc = check(fd, id, gen)) {
            std::fprintf(stderr, "id %u: wrong (%d)\n", id, rc);
            return rc;
        }
    return 0;
}

enum Put { kWrite, kUpdate };
bool put_range(int fd, Put how, unsigned from, unsigned to, uint32_t gen) {
    for (unsigned id = from; id < to; ++id) {
        const std::string r = record(id, gen);
        const int n = static_cast<int>(r.size());
        if ((how == kUpdate ? nisupdate(fd, r.data(), n) : niswrite(fd, r.data(), n)) != 0) return false;
    }
    return true;
}

uint32_t seq_of(int fd) {
    return std::atomic_ref<uint32_t>(kisam::isx_file_of(is_db[fd]->uniqueid)->xf_seq).load();
}

off_t size_of(const std::string& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? st.st_size : -1;
}

// id read by key 0 without the lock, then locked: 1 when both read its record whole at
// generation 1, 0 when both failed alike as a cut file fails them (ISE_RDRD, ISE_BTS),
// -1 (said) otherwise.
int read_as_locked(int fd, unsigned id) {
    std::vector<char> buf(kBuf);
    is_errno = 0;
    const int n = nisfind(fd, 0, kg::key0(id).data(), buf.data(), kBuf);
    const int err = is_errno;
    const bool whole = kg::is(*layout, buf.data(), n, id, 1);
    kisam::test_locked_reads = true;
    is_errno = 0;
    const int locked = nisfind(fd, 0, kg::key0(id).data(), buf.data(), kBuf);
    kisam::test_locked_reads = false;
    if (n >= 0 && locked >= 0 && whole) return 1;
    if (n < 0 && locked < 0 && err == is_errno && (err == ISE_RDRD || err == ISE_BTS)) return 0;
    std::fprintf(stderr, "id %u: %d (error %d), locked %d (error %d)\n", id, n, err, locked, is_errno);
    return -1;
}

// Reads without the lock store nothing into the shared segment, so that readers never
// take a cache line from each other.  stores_of(pass): the pages of the segment that pass
// stored into, run with the segment read-only (a fault handler notes each and lets the
// store through); -1 when pass failed.
uintptr_t seg_lo = 0, seg_hi = 0;
int seg_stores = 0;
long seg_first = -1;  // offset of the first store

void on_store(int, siginfo_t* si, void*) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(si->si_addr);
    if (a < seg_lo || a >= seg_hi) ::_exit(90);  // a fault of anything else
    if (seg_stores++ == 0) seg_first = static_cast<long>(a - seg_lo);
    const uintptr_t pg = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
    ::mprotect(reinterpret_cast<void*>(a & ~(pg - 1)), pg, PROT_READ | PROT_WRITE);
}

int stores_of(const std::function<int()>& pass) {
    struct shmid_ds ds;
    if (::shmctl(is_shmid, IPC_STAT, &ds) != 0) return -1;
    const size_t pg = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    seg_lo = reinterpret_cast<uintptr_t>(isam_com);
    seg_hi = seg_lo + (ds.shm_segsz + pg - 1) / pg * pg;
    struct sigaction sa {}, old;
    sa.sa_sigaction = on_store;
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    v_peek_fold();  // the batched hit count flushed now, so the pass adds none
    seg_stores = 0;
    if (::sigaction(SIGSEGV, &sa, &old) != 0 || ::mprotect(reinterpret_cast<void*>(seg_lo), seg_hi - seg_lo, PROT_READ) != 0)
        return -1;
    const int rc = pass();
    ::mprotect(reinterpret_cast<void*>(seg_lo), seg_hi - seg_lo, PROT_READ | PROT_WRITE);
    ::sigaction(SIGSEGV, &old, nullptr);
    if (seg_stores != 0) std::fprintf(stderr, "%d pages of the segment stored into, first at %ld\n", seg_stores, seg_first);
    return rc != 0 ? -1 : seg_stores;
}

// A hooked body that went through and leaves the file open.
constexpr int kLeftOpen = 69;

kt::Pipe* to_parent = nullptr;
kt::Pipe* from_parent = nullptr;
bool kill_at_fetch = false;

void fetch_hook(int where, int) {
    if (where != kisam::kHookFetch) return;
    kisam::test_hook = nullptr;  // the first miss only
    to_parent->signal('f');
    if (kill_at_fetch) ::kill(::getpid(), SIGKILL);
    from_parent->wait();
}

// With the table replaced, misses read and install the page, never through the mapping.
ssize_t plain_pread(int fd, void* buf, size_t n, off_t off) { return ::pread(fd, buf, n, off); }

class MissMp : public kt::Env {
protected:
    void SetUp() override {
        bound(240);
        layout = &kL;
        kill_at_fetch = false;   // a test before this one in the same process may have set it
        kisam::os.pread = plain_pread;
    }
    void TearDown() override {
        kisam::os = kisam::os_real;
        kt::Env::TearDown();
    }
    // Ids 0..ids-1 at generation 1, written by a child (this process stays unattached).
    void start(int buffers, unsigned ids, int magic = 0) {
        kt::Config c;
        c.maxbuf = static_cast<int16_t>(buffers);
        Env::start(c);
        ids_ = ids;
        path_ = path("m.ism");
        up_ = std::make_unique<kt::Pipe>();
        down_ = std::make_unique<kt::Pipe>();
        ASSERT_EQ(kt::run_child([&] {
            if (magic != 0) niscr_ctl(0, magic);
            const int fd = create("m.ism", layout->lens());
            if (fd < 0) return 1;
            if (!put_range(fd, kWrite, 0, ids, 1)) return 2;
            nisclose(fd);
            return nisunisam() == 0 ? 0 : 3;
        }), 0);
    }
    int open() {
        if (is_init() != 0) return -1;
        return nisopen(path_.c_str(), ISO_RDWR);
    }
    // body on the file opened in this process; body's 0 closes and detaches.
    int opened(const std::function<int(int fd)>& body) {
        const int fd = open();
        if (fd < 0) return 80;
        if (const int rc = body(fd)) return rc;
        nisclose(fd);
        nisunisam();
        return 0;
    }
    int in_child(const std::function<int(int fd)>& body) {
        return kt::run_child([&] { return opened(body); });
    }
    // Another process writes ids 600..2999 at generation 1; then child r goes on.
    void grow_then_release(pid_t r) {
        EXPECT_EQ(in_child([](int fd) { return put_range(fd, kWrite, 600, 3000, 1) ? 0 : 81; }), 0);
        release(r);
    }
    // A child running body that has stopped where it said `ready` (fetch_hook: 'f' at its
    // first miss) until signalled.
    pid_t hooked_reader(const std::function<int(int fd)>& body, char ready = 'f') {
        const pid_t a = kt::start_child([&] {
            up_->close_read();
            down_->close_write();
            to_parent = up_.get();
            from_parent = down_.get();
            return opened(body);
        });
        up_->close_write();
        down_->close_read();
        EXPECT_EQ(up_->wait(), ready);
        return a;
    }
    // In the hooked child: stop until the parent lets it go on.
    char stop_here() {
        up_->signal('r');
        return down_->wait();
    }
    void release(pid_t child, int want = 0) {
        down_->signal('g');
        EXPECT_EQ(kt::wait_child(child), want);
    }
    // body in a hooked child, the file cut where it stops (`cuts` times: to a half of its
    // size, then a fifth); the last cut.
    off_t cut_under(const std::function<int(int fd)>& body, int want = 0, int cuts = 1) {
        start(40, 1500);
        const off_t size = size_of(path_);
        const pid_t r = hooked_reader([&](int fd) {
            ::alarm(60);
            return body(fd);
        }, 'r');
        off_t cut = 0;
        for (int i = 0; i < cuts; ++i) {
            if (i > 0) { EXPECT_EQ(up_->wait(), 'r'); }  // the first stop is hooked_reader's
            cut = size / (2 + 3 * i) / 4096 * 4096;
            EXPECT_EQ(::truncate(path_.c_str(), cut), 0);
            if (i + 1 < cuts) down_->signal('g');
        }
        release(r, want);
        return cut;
    }
    // Another process with read calls only finds each range [from, to) at its generation;
    // the file sound.
    struct Range {
        unsigned from, to;
        uint32_t gen;
    };
    void reads_back_by_read_calls(std::initializer_list<Range> want) {
        kisam::os.pread = plain_pread;
        EXPECT_EQ(in_child([&](int fd) {
            for (const Range& r : want)
                if (check_range(fd, r.from, r.to, r.gen) != 0) return 81;
            return 0;
        }), 0);
        kisam::os = kisam::os_real;
        EXPECT_TRUE(kt::sound(path_));
    }
    std::unique_ptr<kt::Pipe> up_, down_;
    std::string path_;
    unsigned ids_ = 0;
};

// A reader stopped between its read of a page and taking the lock, or killed there,
// holds up no other reader: those go on without the lock and load pages, and the change
// count stays even and unmoved.
TEST_F(MissMp, AReaderStoppedOrKilledInTheMiddleOfAMissHoldsNobodyUp) {
    for (const bool killed : {false, true}) {
        SCOPED_TRACE(killed ? "killed" : "stopped");
        start(40, 1500);
        kill_at_fetch = killed;
        const pid_t a = hooked_reader([&](int fd) {
            kisam::test_hook = fetch_hook;
            for (unsigned id = 0; id < ids_; id += 7)
                if (const int rc = check(fd, id, 1)) return 71 + rc;
            return 0;
        });
        if (killed) { EXPECT_EQ(kt::wait_child(a), 128 + SIGKILL); }
        EXPECT_EQ(in_child([&](int fd) {
            const uint32_t seq = seq_of(fd), reads0 = isam_com->sysread;
            const unsigned long nolock0 = is_nolock_reads;
            if (check_range(fd, 0, ids_, 1) != 0) return 81;
            if (isam_com->sysread - reads0 < 100) return 82;  // it missed, and loaded
            if (is_nolock_reads - nolock0 != ids_) return 83;  // each read took no lock
            if (seq % 2 != 0 || seq_of(fd) != seq) return 84;  // nor moved the count
            return 0;
        }), 0);
        if (!killed) release(a);
        EXPECT_TRUE(kt::sound(path_));
    }
}

// A page read before a writer changed it and pushed it out must not reach the pool.
TEST_F(MissMp, AnImageReadBeforeTheFileChangedNeverReachesThePool) {
    layout = &kPage;
    start(40, 200);
    constexpr unsigned kX = 10;
    const pid_t a = hooked_reader([&](int fd) {
        if (check_range(fd, 0, ids_, 1) != 0) return 71;
        // Only kX's data page is missing from the pool.
        if (check(fd, kX + 1, 1) != 0) return 72;
        kisam::test_hook = fetch_hook;
        uint32_t g = 0;
        if (check(fd, kX, 0, &g) != 0) return 73;
        if (g != 2) return 74;
        return 0;
    });
    // kX changed, then pushed out to the file by other reads.
    EXPECT_EQ(in_child([&](int fd) {
        if (!put_range(fd, kUpdate, kX, kX + 1, 2)) return 81;
        if (check_range(fd, 100, ids_, 1) != 0) return 82;
        return 0;
    }), 0);
    release(a);
    EXPECT_TRUE(kt::sound(path_));
}

// Misses as a program sees them: through a read-only mapping of the file.
class FileReads : public MissMp {
protected:
    void SetUp() override {
        MissMp::SetUp();
        kisam::os = kisam::os_real;
    }
    int read_all(int fd, uint32_t gen, unsigned from = 0) { return check_range(fd, from, ids_, gen); }
};

// Once the chain is known, reads past the pool come from the file's mapping without the
// lock, a load, a change of the count or a store into the segment, and a writer's misses
// copy from it (counted as loads).  After another process grew the file, both go on over the new pages, never
// past the file's end; a reader with read calls only finds every update.  Both
// control-page sizes.
TEST_F(FileReads, PagesPastThePoolComeFromTheMappingAlsoAfterTheFileGrew) {
    for (const int magic : {512, 1024}) {
        SCOPED_TRACE(magic);
        start(40, 600, magic);
        const pid_t r = hooked_reader([&](int fd) {
            if (read_all(fd, 1) != 0) return 71;
            const uint32_t seq = seq_of(fd), reads0 = isam_com->sysread;
            const unsigned long nolock0 = is_nolock_reads, file0 = v_file_reads;
            if (stores_of([&] { return read_all(fd, 1); }) != 0) return 72;
            if (is_nolock_reads - nolock0 != ids_) return 73;   // no read took the lock
            if (v_file_reads - file0 < ids_ / 2) return 74;    // most pages from the file
            if (isam_com->sysread != reads0) return 75;        // none loaded
            if (seq_of(fd) != seq) return 76;
            const unsigned long loads0 = v_map_loads;
            if (!put_range(fd, kUpdate, 0, ids_, 2)) return 77;
            if (v_map_loads - loads0 < ids_ / 4) return 78;                    // misses from the mapping
            if (isam_com->sysread - reads0 < v_map_loads - loads0) return 79;  // and counted as loads
            stop_here();
            if (check_range(fd, 0, 600, 2) != 0 || check_range(fd, 600, 3000, 1) != 0) return 80;  // the chain learnt again
            const unsigned long file1 = v_file_reads;
            if (check_range(fd, 600, 3000, 1) != 0) return 81;
            if (v_file_reads - file1 < (3000 - 600) / 2) return 82;  // the new pages too
            const unsigned long loads1 = v_map_loads, faults1 = v_map_faults;
            if (!put_range(fd, kUpdate, 600, 3000, 2)) return 83;
            if (v_map_loads - loads1 < (3000 - 600) / 4) return 84;
            if (v_map_faults != faults1) return 85;  // never past the end
            return 0;
        }, 'r');
        grow_then_release(r);
        reads_back_by_read_calls({{0, 3000, 2}});
    }
}

// A change another process made in the pool, not yet in the file, is what a reader
// without the lock finds: a record updated, and a step along key 1 after the next record
// was deleted, never the file's older page.
TEST_F(FileReads, AChangeInThePoolIsReadThereNeverFromTheFilesOlderPage) {
    start(20, 3000);
    constexpr int kRounds = 12;
    auto updated = [](int round) { return 3 + 250 * static_cast<unsigned>(round); };
    struct Shared {
        char z[kRounds][kg::kK0];  // key 0 of the record after the cursor's, along key 1
    };
    Shared& sh = shared<Shared>();
    const pid_t r = hooked_reader([&](int fd) {
        if (read_all(fd, 1) != 0 || read_all(fd, 1) != 0) return 71;
        std::vector<char> buf(kBuf);
        const int k1at = kg::kK0, genat = kg::kK0 + kg::kK1;
        for (int round = 0; round < kRounds; ++round) {
            // Note key 0 of the next record along key 1, and step back.
            const std::string x = record(97 + 211 * static_cast<unsigned>(round), 1);
            if (nisfind(fd, 1, x.data() + k1at, buf.data(), kBuf) < genat) return 72;
            if (nisread(fd, 1, buf.data(), kBuf) < genat) return 73;
            std::memcpy(sh.z[round], buf.data(), kg::kK0);
            if (nispread(fd, 1, buf.data(), kBuf) < genat) return 74;
            stop_here();
            if (nisread(fd, 1, buf.data(), kBuf) < genat) return 75;
            if (std::memcmp(buf.data(), sh.z[round], kg::kK0) == 0) return 76;  // the deleted record
            if (check(fd, static_cast<unsigned>(std::atoi(std::string(buf.data(), kg::kK0).c_str())), 1) != 0) return 77;
            if (check(fd, updated(round), 2) != 0) return 78;
        }
        // Every other record, read without the lock: the changes were learnt without it.
        const unsigned long nolock0 = is_nolock_reads, file0 = v_file_reads;
        int gone = 0;
        for (unsigned id = 0; id < ids_; ++id) {
            uint32_t g = 0;
            const int rc = check(fd, id, 0, &g);
            gone += rc == 1;
            if (rc > 1 || (rc == 0 && g != (id % 250 == 3 && id < updated(kRounds) ? 2u : 1u))) return 79;
        }
        if (gone != kRounds) return 80;
        if (is_nolock_reads - nolock0 < ids_ - 20) return 81;
        if (v_file_reads == file0) return 82;
        return 0;
    }, 'r');
    for (int round = 0; round < kRounds; ++round) {
        if (round > 0) { ASSERT_EQ(up_->wait(), 'r'); }  // the first stop is hooked_reader's
        EXPECT_EQ(in_child([&](int fd) {
            if (nisdelete(fd, sh.z[round]) != 0) return 81;
            return put_range(fd, kUpdate, updated(round), updated(round) + 1, 2) ? 0 : 82;
        }), 0);
        down_->signal('g');
    }
    EXPECT_EQ(kt::wait_child(r), 0);
    EXPECT_TRUE(kt::sound(path_));
}

// Scans past the pool ask ahead and read, both ways, exactly what locked scans read; with
// every page in the pool they do not ask ahead, and finds and scans store nothing into
// the segment.
TEST_F(FileReads, ScansPastThePoolAskAheadAndReadWhatLockedScansRead) {
    auto scan = [&](int fd, bool back, std::vector<std::string>& out) {
        std::vector<char> buf(kBuf);
        int n;
        while ((n = back ? nispread(fd, 1, buf.data(), kBuf) : nisread(fd, 1, buf.data(), kBuf)) > 0)
            out.emplace_back(buf.data(), static_cast<size_t>(n));
        return n;
    };
    // Each direction without the lock, then locked from a fresh cursor: 0 or what differed.
    auto both_ways = [&](unsigned long* ahead) {
        for (const bool back : {false, true}) {
            std::vector<std::string> mine, locked;
            const int fd2 = nisopen(path_.c_str(), ISO_RDWR);
            const unsigned long nolock0 = is_nolock_reads, ahead0 = is_lookaheads;
            if (fd2 < 0 || scan(fd2, back, mine) != 0) return 1;
            *ahead += is_lookaheads - ahead0;
            if (is_nolock_reads - nolock0 < ids_) return 2;  // no step took the lock
            nisclose(fd2);
            kisam::test_locked_reads = true;
            const int fd3 = nisopen(path_.c_str(), ISO_RDWR);
            const int rc = fd3 < 0 ? -1 : scan(fd3, back, locked);
            kisam::test_locked_reads = false;
            if (rc != 0) return 3;
            nisclose(fd3);
            if (mine.size() != ids_ || mine != locked) return 4;
        }
        return 0;
    };
    start(40, 1500);
    EXPECT_EQ(in_child([&](int fd) {
        if (read_all(fd, 1) != 0) return 81;  // key 0's leaves known, the chain learnt
        unsigned long ahead = 0;
        if (const int rc = both_ways(&ahead)) return 81 + rc;
        return ahead >= ids_ ? 0 : 86;
    }), 0);
    start(2000, 300);
    EXPECT_EQ(in_child([&](int fd) {
        kisam::test_locked_reads = true;  // every page into the pool
        std::vector<std::string> all;
        const int rc = read_all(fd, 1) != 0 || scan(fd, false, all) != 0;
        kisam::test_locked_reads = false;
        if (rc != 0 || stores_of([&] { return read_all(fd, 1); }) != 0) return 91;
        std::vector<std::string> again;
        if (kisam_rewind(fd, 1) != 0 || stores_of([&] { return scan(fd, false, again); }) != 0 || again != all) return 97;
        unsigned long ahead = 0;
        if (const int rc2 = both_ways(&ahead)) return 91 + rc2;
        return ahead == 0 ? 0 : 96;
    }), 0);
    EXPECT_TRUE(kt::sound(path_));
}

sigjmp_buf own_jump;
volatile sig_atomic_t own_faults = 0;
void own_bus_handler(int, siginfo_t*, void*) {
    own_faults = own_faults + 1;
    siglongjmp(own_jump, 1);
}

// 0 when the program's handler took the fault of its own cut mapping, 1 when none came.
int touch_own_cut_mapping(const std::string& p) {
    const int fd = ::open(p.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ::ftruncate(fd, 8192) != 0) return 2;
    void* m = ::mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED || ::ftruncate(fd, 0) != 0) return 3;
    const sig_atomic_t before = own_faults;
    int rc = 1;
    if (sigsetjmp(own_jump, 1) == 0) {
        const volatile char* c = static_cast<const char*>(m) + 4096;
        (void)*c;
    } else {
        rc = own_faults == before + 1 ? 0 : 4;
    }
    ::munmap(m, 8192);
    ::close(fd);
    return rc;
}

// A file cut short (twice) under a mapped reader: reads past the end fail as locked reads
// do, the rest read as before, and once remapped nothing faults.  None of those faults
// reaches the program's own SIGBUS handler, which the library's took the place of; the
// program's own faults still do.
TEST_F(FileReads, AFileCutShortUnderAReaderGivesErrorsNotASignal) {
    constexpr int kCuts = 2;
    cut_under([&](int fd) {
        struct sigaction own {}, cur;
        own.sa_sigaction = own_bus_handler;
        own.sa_flags = SA_SIGINFO;
        sigemptyset(&own.sa_mask);
        if (::sigaction(SIGBUS, &own, nullptr) != 0) return 70;
        if (read_all(fd, 1) != 0 || read_all(fd, 1) != 0) return 71;
        if (v_file_reads == 0) return 72;  // the reader has the file mapped
        if (::sigaction(SIGBUS, nullptr, &cur) != 0 || cur.sa_sigaction == own_bus_handler) return 74;
        unsigned before = 0;  // reads that failed after the previous cut
        for (int cut = 0; cut < kCuts; ++cut) {
            stop_here();
            for (int pass = 0; pass < 2; ++pass) {
                const unsigned long faults0 = v_map_faults;
                unsigned failed = 0;
                for (unsigned id = 0; id < ids_; ++id) {
                    const int got = read_as_locked(fd, id);
                    if (got < 0) return 73;
                    failed += got == 0;
                }
                if (failed <= before || failed == ids_) return 75;
                if (pass == 0 && v_map_faults == faults0) return 76;  // it met the cut in the mapping
                if (pass == 1 && v_map_faults != faults0) return 77;  // mapped again over the new size
                if (pass == 1) before = failed;
            }
        }
        if (own_faults != 0) return 78;
        for (int i = 0; i < 2; ++i)  // twice: the handler stays in place
            if (const int rc = touch_own_cut_mapping(path("own"))) return 80 + rc;
        return 0;
    }, 0, kCuts);
}

// A reader whose reads have stayed in the pool long enough runs them unarmed for faults
// in the mapping.  Reading records from the end of a file cut short, each right after
// it went unarmed again (reads of record 0, in the pool), a read that needs a page of the
// mapping -- a leaf its directory names (a first pass without the lock filed them all),
// a page on the way down (a first pass with the lock filed none) -- stops before it
// touches it and runs again armed: it meets the cut there or reads what is left, as the
// locked read does, and the reader lives on.
TEST_F(FileReads, AnUnarmedReaderArmsBeforeTheMappingSoACutFileGivesErrorsNotASignal) {
    for (const bool locked_first : {true, false}) {
        SCOPED_TRACE(locked_first);
        cut_under([&](int fd) {
            // Either pass maps the file (locked misses copy pages from it too).
            kisam::test_locked_reads = locked_first;
            const int rc = read_all(fd, 1);
            kisam::test_locked_reads = false;
            if (rc != 0) return 71;
            stop_here();
            unsigned failed = 0, tried = 0;
            const unsigned long faults0 = v_map_faults, rearmed0 = is_rearmed_reads;
            for (unsigned y = ids_ - 1; y >= 7 && tried < 150; y -= 7, ++tried) {
                kisam::test_locked_reads = true;  // record 0 into the pool: its pages lie before the cut
                const int rc0 = check(fd, 0, 1);
                kisam::test_locked_reads = false;
                if (rc0 != 0) return 72;
                const unsigned long file0 = v_file_reads, unarmed0 = is_unarmed_reads;
                for (int i = 0; i < 20; ++i)
                    if (check(fd, 0, 1) != 0) return 73;
                if (v_file_reads != file0 || is_unarmed_reads == unarmed0) return 74;
                const int got = read_as_locked(fd, y);
                if (got < 0) return 75;
                failed += got == 0;
            }
            if (failed == 0 || failed == tried) return 76;
            if (is_rearmed_reads == rearmed0) return 77;  // it left the pool unarmed
            if (v_map_faults == faults0) return 78;        // and met the cut armed
            return 0;
        });
    }
}

// A SIGBUS of the program's own accesses, without a handler of its own (or with a
// sanitizer's), still ends it by its disposition through the library's handler.
TEST_F(FileReads, AProgramsOwnSigbusStillReachesIt) {
    start(40, 1500);
    struct sigaction before;
    ASSERT_EQ(::sigaction(SIGBUS, nullptr, &before), 0);
    const bool by_default = !(before.sa_flags & SA_SIGINFO) && before.sa_handler == SIG_DFL;
    const int rc = in_child([&](int fd) {
        ::alarm(10);
        const struct rlimit none {0, 0};
        ::setrlimit(RLIMIT_CORE, &none);
        if (read_all(fd, 1) != 0 || read_all(fd, 1) != 0) return 81;
        if (v_file_reads == 0) return 82;
        touch_own_cut_mapping(path("own"));
        return 83;
    });
    if (by_default) { EXPECT_EQ(rc, 128 + SIGBUS); }
    else EXPECT_TRUE(rc > 128 && rc != 128 + SIGALRM) << rc;  // ended by the program's disposition
}

// A file cut short under a writer: its misses meet the cut in the mapping and fail with
// an error, never a signal.
TEST_F(FileReads, AFileCutShortUnderAWriterGivesErrorsNotASignal) {
    cut_under([&](int fd) {
        // Downwards and flushed: the first miss past the cut precedes any write-back past it.
        for (unsigned id = ids_; id-- > 0;)
            if (!put_range(fd, kUpdate, id, id + 1, 2)) return 71;
        if (v_map_loads == 0) return 72;  // the writer has the file mapped
        if (nisflush(fd) != 0) return 76;
        stop_here();
        const unsigned long faults0 = v_map_faults;
        unsigned failed = 0;
        for (unsigned id = ids_; id-- > 0;) {
            is_errno = 0;
            if (put_range(fd, kUpdate, id, id + 1, 3)) continue;
            if (is_errno == 0) return 73;  // a failing call says why
            ++failed;
        }
        if (failed == 0) return 74;
        if (v_map_faults == faults0) return 75;  // it met the cut in the mapping
        return kLeftOpen;                        // the file is left as the cut made it
    }, kLeftOpen);
}

// ---- Write-backs through the mapping ------------------------------------------------------

// Page writes of the counted file: stores into the mapping, and write calls.
int counted_fd = -1;
unsigned long data_stores = 0, data_pwrites = 0;
int counting_mstore(int fd, char* map, off_t off, const void* src, size_t n) {
    if (fd == counted_fd) ++data_stores;
    return kisam::os_real.mstore(fd, map, off, src, n);
}
ssize_t counting_pwrite(int fd, const void* b, size_t n, off_t off) {
    if (fd == counted_fd) ++data_pwrites;
    return kisam::os_real.pwrite(fd, b, n, off);
}
void count_page_writes(int isfd) {
    counted_fd = is_pfi[is_db[isfd]->uniqueid].pfi_osfd;
    data_stores = data_pwrites = 0;
    kisam::os.mstore = counting_mstore;
    kisam::os.pwrite = counting_pwrite;
}

class MappedWrites : public FileReads {
protected:
    enum Then { kKilled, kClosed, kMore, kMoreElsewhere };
    void failed_sync_then(int then);
};

// Victims and checkpoints are stores into the mapping, each seen as a page write.  A
// growing file is taken ahead in zeros by few write calls, the new pages then stored,
// never past its allocated pages nor over pages another process wrote since this one
// measured the file.  Both control-page sizes.
TEST_F(MappedWrites, VictimsAndCheckpointsAreStoresAndAGrowingFileIsTakenAheadOnlyOverWhatItNeverHeld) {
    for (const int magic : {512, 1024}) {
        SCOPED_TRACE(magic);
        start(40, 600, magic);
        const pid_t w = hooked_reader([&](int fd) {
            ::alarm(120);
            count_page_writes(fd);
            if (!put_range(fd, kUpdate, 0, ids_, 2)) return 71;
            if (v_map_stores < ids_ / 4) return 72;          // victims stored, ...
            if (data_stores != v_map_stores) return 73;       // ... each seen as a write
            if (data_pwrites > v_map_stores / 20) return 74;  // few write calls
            if (stop_here() != 'g') return 75;
            const IS_FCP* fcp = kisam::pfo_fcp(is_db[fd]->uniqueid);
            struct stat st;
            const PAGE last0 = fcp->is_lastpage;
            const unsigned long pwrites0 = data_pwrites;
            for (unsigned k = 0; k < 3900; ++k) {
                const unsigned id = k < 1500 ? 3000 + k : 600 + (k - 1500);
                if (!put_range(fd, id >= 3000 ? kWrite : kUpdate, id, id + 1, 2)) return 76;
                if (::fstat(counted_fd, &st) != 0) return 77;
                if (st.st_size > v_fileoffset(fcp, fcp->is_lastpage)) return 78;  // past its end
            }
            // Far fewer write calls than new pages: the rest are stores.
            const unsigned fresh = (fcp->is_lastpage - last0) / 1024;
            if (data_pwrites == pwrites0 || (data_pwrites - pwrites0) * 3 > fresh) {
                std::fprintf(stderr, "%lu write calls for %u new pages\n", data_pwrites - pwrites0, fresh);
                return 79;
            }
            const unsigned long stores0 = v_map_stores;
            if (!put_range(fd, kUpdate, 3000, 4500, 3)) return 80;
            if (v_map_stores - stores0 < 1500 / 4) return 81;  // the new pages stored once written
            const unsigned long before_flush = v_map_stores;
            if (nisflush(fd) != 0 || v_map_stores == before_flush) return 82;  // the checkpoint too
            if (v_store_faults != 0) return 83;
            kisam::os = kisam::os_real;
            nisclose(fd);
            nisunisam();
            return 0;
        }, 'r');
        grow_then_release(w);
        reads_back_by_read_calls({{0, 3000, 2}, {3000, 4500, 3}});
    }
}

// A file cut short under a victim's or a checkpoint's store: the page goes by a write
// call instead, whose result the call gets; no signal.
TEST_F(MappedWrites, AFileCutShortUnderAStoreGetsTheWriteCallsResult) {
    for (const bool by_checkpoint : {false, true}) {
        SCOPED_TRACE(by_checkpoint ? "a checkpoint's store" : "a victim's store");
        const off_t cut = cut_under([&](int fd) {
            count_page_writes(fd);
            // Dirty pages at the back of the file; the front read through the mapping.
            if (check_range(fd, 0, 200, 1) != 0) return 71;
            for (unsigned id = ids_; id-- > ids_ - 30;)
                if (!put_range(fd, kUpdate, id, id + 1, 2)) return 72;
            if (v_map_stores == 0 && v_map_loads == 0) return 73;
            stop_here();
            const unsigned long pwrites0 = data_pwrites;
            if (by_checkpoint) {
                if (kt::write_back(fd) != 0) return 74;
            } else {
                // Misses of the front make the dirty pages victims.
                for (unsigned id = 0; id < 400; ++id) {
                    is_errno = 0;
                    if (!put_range(fd, kUpdate, id, id + 1, 2) && is_errno == 0) return 75;
                }
            }
            if (v_store_faults == 0) return 76;         // a store met the cut ...
            if (data_pwrites == pwrites0) return 77;    // ... and its page went by a write call
            return 0;
        });
        EXPECT_GT(size_of(path_), cut);
    }
}

// A private tmpfs of `bytes` at dir (as root or through a user namespace); false if neither.
bool small_disk(const std::string& dir, size_t bytes) {
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
        auto put = [](const char* file, const std::string& text) {
            const int f = ::open(file, O_WRONLY);
            const bool ok = f >= 0 && ::write(f, text.data(), text.size()) == static_cast<ssize_t>(text.size());
            if (f >= 0) ::close(f);
            return ok;
        };
        put("/proc/self/setgroups", "deny");
        if (!put("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1\n") ||
            !put("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1\n"))
            return false;
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    ::mkdir(dir.c_str(), 0700);
    const std::string opt = "size=" + std::to_string(bytes);
    return ::mount("kisam-test", dir.c_str(), "tmpfs", 0, opt.c_str()) == 0;
}

std::string fill_up(const std::string& dir) {
    const std::string f = dir + "/filler";
    const int fd = ::open(f.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    char block[4096];
    std::memset(block, 'f', sizeof block);
    while (fd >= 0 && ::write(fd, block, sizeof block) > 0) {
    }
    if (fd >= 0) ::close(fd);
    return f;
}

// A store into a hole of a full disk faults; the write call's ENOSPC fails the
// write-back, nothing is lost, and with room again the same write-back succeeds.
TEST_F(MappedWrites, AStoreIntoAHoleOfAFullDiskGetsTheWriteCallsError) {
    start(400, 10);
    const std::string dir = path("small");
    const int rc = kt::run_child([&] {
        ::alarm(60);
        if (!small_disk(dir, 1 << 20)) return 99;
        const std::string file = dir + "/h.ism";
        int fd = niscreate(file.c_str(), 2, kL.lens().data());
        if (fd < 0) return 1;
        if (!put_range(fd, kWrite, 0, 600, 1)) return 2;
        if (kt::write_back(fd) != 0) return 3;  // the file whole on the disk
        if (!put_range(fd, kUpdate, 0, 600, 2)) return 4;
        // Four dirty pages filling one system page, punched out: a hole only the pool holds.
        const int u = is_db[fd]->uniqueid;
        const IS_FCP* fcp = kisam::pfo_fcp(u);
        std::vector<off_t> dirty;
        for (int s = 0; s < isam_com->maxbufs; ++s) {
            const IS_BUF* b = is_env.buf_ + s;
            if ((b->bu_id & BU_DIRTY) && (b->bu_id & BU_FILEMASK) == u && b->bu_pno != KISAM_NOPAGE)
                dirty.push_back(v_fileoffset(fcp, b->bu_pno));
        }
        std::sort(dirty.begin(), dirty.end());
        off_t hole = -1;
        for (size_t i = 0; i + 3 < dirty.size() && hole < 0; ++i)
            if (dirty[i] % 4096 == 0 && dirty[i + 3] == dirty[i] + 3 * 1024) hole = dirty[i];
        if (hole < 0) return 5;
        const int raw = ::open(file.c_str(), O_RDWR);
        if (raw < 0 || ::fallocate(raw, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, hole, 4096) != 0) return 6;
        ::close(raw);
        const std::string filler = fill_up(dir);
        count_page_writes(fd);
        is_errno = 0;
        if (kt::write_back(fd) == 0) return 7;      // no room for the page ...
        if (is_errno != ISE_FLWT) return 8;         // ... said as a failed write says it
        if (v_store_faults != 1) return 9;          // the store met the hole
        if (data_pwrites == 0) return 10;           // and the write call said why
        ::unlink(filler.c_str());
        if (kt::write_back(fd) != 0) return 11;     // room again: the same write-back
        if (nisclose(fd) != 0) return 12;
        nisunisam();
        kisam::os = kisam::os_real;
        kisam::os.pread = plain_pread;
        if (is_init() != 0 || (fd = nisopen(file.c_str(), ISO_RDWR)) < 0) return 13;
        if (check_range(fd, 0, 600, 2) != 0) return 14;
        nisclose(fd);
        nisunisam();
        return kt::sound(file) ? 0 : 15;
    });
    if (rc == 99) GTEST_SKIP() << "no mount namespace for a small file system";
    EXPECT_EQ(rc, 0);
}

// A disk that lost every write since the file held `was` (same inode, its size too).
bool lose_since(const std::string& path, const std::string& was) {
    const int f = ::open(path.c_str(), O_WRONLY);
    const bool ok = f >= 0 && ::pwrite(f, was.data(), was.size(), 0) == static_cast<ssize_t>(was.size()) &&
                    ::ftruncate(f, static_cast<off_t>(was.size())) == 0;
    if (f >= 0) ::close(f);
    return ok;
}

int failing_fd = -1;
int failing_data_sync(int fd) {
    if (fd == failing_fd) {
        errno = EIO;
        return -1;
    }
    return kisam::os_real.fdatasync(fd);
}

int more_calls(int fd, unsigned ids) {
    for (unsigned id = 0; id < ids; id += 3)
        if (!put_range(fd, kUpdate, id, id + 1, 3)) return 76;
    if (!put_range(fd, kWrite, ids, ids + 300, 1)) return 77;
    return 0;
}

// A checkpoint whose sync fails fails, and the kernel may then drop the pages.  Killed
// there, the kept log restores them at the next start; otherwise the next good checkpoint
// (last close, the next call, another process's call) puts every call in the file itself.
void MappedWrites::failed_sync_then(int then) {
    const char* const ends[] = {"killed", "closed", "more calls", "more calls of another process"};
    SCOPED_TRACE(std::string(ends[then]) + " after the failure");
    start(40, 600);
    const std::string before = kt::slurp(path_);
    ASSERT_FALSE(before.empty());
    // The other process makes the last close.
    const pid_t other = then != kMoreElsewhere ? -1 : hooked_reader([&](int fd) {
        stop_here();
        return more_calls(fd, ids_);
    }, 'r');
    EXPECT_EQ(in_child([&](int fd) {
        if (!put_range(fd, kUpdate, 0, ids_, 2)) return 71;
        if (v_map_stores == 0) return 72;  // victims went out before the sync
        const int u = is_db[fd]->uniqueid;
        failing_fd = is_pfi[u].pfi_osfd;
        kisam::os.fdatasync = failing_data_sync;
        is_errno = 0;
        if (kt::write_back(fd) == 0 || is_errno != ISE_FLWT) return 73;
        const auto* x = kisam::isx_file_of(u);
        if (x->xf_log_start == x->xf_log_end) return 74;  // the log still holds the calls
        kisam::os.fdatasync = kisam::os_real.fdatasync;  // the disk works again
        if (!lose_since(path_, before)) return 75;
        if (then == kKilled) ::kill(::getpid(), SIGKILL);
        return then == kMore ? more_calls(fd, ids_) : 0;  // then closed and detached
    }), then == kKilled ? 128 + SIGKILL : 0);
    if (other > 0) release(other);
    if (then != kKilled) { EXPECT_EQ(kisam_pending(path_.c_str()), 0); }
    const bool more = then == kMore || then == kMoreElsewhere;
    EXPECT_EQ(in_child([&](int fd) {
        kisam_recovery r;
        if (then != kKilled && kisam_last_recovery(&r) == 0 && r.calls != 0) return 80;  // no replay
        for (unsigned id = 0; id < ids_; ++id)
            if (const int rc = check(fd, id, more && id % 3 == 0 ? 3 : 2)) {
                std::fprintf(stderr, "id %u: wrong (%d)\n", id, rc);
                return 81;
            }
        for (unsigned id = ids_; more && id < ids_ + 300; ++id)
            if (check(fd, id, 1) != 0) return 82;
        return 0;
    }), 0);
    EXPECT_TRUE(kt::sound(path_));
}

TEST_F(MappedWrites, ACheckpointWhoseSyncFailsKeepsTheLogAndTheNextGoodOneWritesItsPages) {
    for (const int then : {kKilled, kClosed, kMore, kMoreElsewhere}) failed_sync_then(then);
}

}  // namespace
