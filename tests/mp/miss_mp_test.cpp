// Misses of readers without the lock, in several processes: the page is read from the file
// with no lock held, and the lock taken only to put it in a slot.  A reader stopped in the
// middle of such a read holds nobody up; an image read before the file changed never
// reaches the pool; readers that evict each other's pages (which leaves the change count
// alone) still read only whole records; a reader killed in the middle leaves nothing
// behind.  Every record says what it must hold: its id and generation make all of its
// bytes.
#include "kisam_test.h"

#include "is_rec.h"
#include "isx_area.h"
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
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kK0 = 8, kK1 = 6;
constexpr int kGenAt = kK0 + kK1;
constexpr int kBuf = 4000;

using kt::mix;

// Records of about a page each, one to a data page (for the test that needs to know which
// page a read misses).
bool page_sized = false;

// The record of id at generation gen; one in ten spans overflow pages.
std::string record(unsigned id, uint32_t gen) {
    char t[16];
    std::string r;
    std::snprintf(t, sizeof t, "%08u", id);
    r.append(t, kK0);
    std::snprintf(t, sizeof t, "%06u", mix(id, gen) % 1000);
    r.append(t, kK1);
    r.append(reinterpret_cast<const char*>(&gen), 4);
    const uint32_t h = mix(gen, id);
    const size_t len = page_sized ? 700 : h % 10 == 0 ? 1100 + h % 1500 : 40 + h % 200;
    std::mt19937 g(h);
    for (size_t i = 0; i < len; ++i) r += static_cast<char>(g());
    return r;
}

std::string key0(unsigned id) { return record(id, 0).substr(0, kK0); }

// Reads id by key 0; 0 when it holds exactly generation gen (any generation: gen 0).
int check(int fd, unsigned id, uint32_t gen, uint32_t* seen = nullptr) {
    std::vector<char> buf(kBuf);
    const int n = nisfind(fd, 0, key0(id).data(), buf.data(), kBuf);
    if (n < kGenAt + 4) return 1;
    uint32_t g;
    std::memcpy(&g, buf.data() + kGenAt, 4);
    if (seen) *seen = g;
    if (gen != 0 && g != gen) return 2;
    const std::string r = record(id, g);
    return n == static_cast<int>(r.size()) && std::memcmp(buf.data(), r.data(), r.size()) == 0 ? 0 : 3;
}

// Writes (kWrite) or updates (kUpdate) ids [from, to) at generation gen; whether every
// call went through.
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

// A hooked reader's body that went through and leaves the file open.
constexpr int kLeftOpen = 69;

// Where the hooked reader stands (a forked child's own copies).
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

// The real pread behind a replaced entry of the table: with the table replaced, a reader
// misses by a read of the page and its installation in the pool (the path these tests
// stop in the middle of), never through a mapping of the file.
ssize_t plain_pread(int fd, void* buf, size_t n, off_t off) { return ::pread(fd, buf, n, off); }

class MissMp : public kt::Env {
protected:
    void SetUp() override {
        bound(240);
        kisam::os.pread = plain_pread;
    }
    void TearDown() override {
        kisam::os = kisam::os_real;
        kt::Env::TearDown();
    }
    // The installation (a pool far smaller than the file) and the file, ids 0..ids-1 at
    // generation 1; nobody attached afterwards.
    void start(int buffers, unsigned ids, int magic = 0) {
        kt::Config c;
        c.maxbuf = static_cast<int16_t>(buffers);
        Env::start(c);
        ids_ = ids;
        path_ = path("m.ism");
        // Written by a child: the misses of the writes map the file, and this process
        // must start its children as a program that never used the library would.
        ASSERT_EQ(kt::run_child([&] {
                      if (magic != 0) niscr_ctl(0, magic);
                      const int fd = create("m.ism", {kK0, kK1});
                      if (fd < 0) return 1;
                      if (!put_range(fd, kWrite, 0, ids, 1)) return 2;
                      nisclose(fd);
                      return nisunisam() == 0 ? 0 : 3;
                  }),
                  0);
    }
    int open() {
        if (is_init() != 0) return -1;
        return nisopen(path_.c_str(), ISO_RDWR);
    }
    // A child process that opens the file and runs body(fd); a body that returns 0 has
    // the file closed and the process detached.  Its exit status.
    int in_child(const std::function<int(int fd)>& body) {
        return kt::run_child([&] {
            const int fd = open();
            if (fd < 0) return 80;
            if (const int rc = body(fd)) return rc;
            nisclose(fd);
            nisunisam();
            return 0;
        });
    }
    // A child that grows the file: records 600 to 2999, generation 1.  Its exit status.
    int grow_in_child() {
        return in_child([](int fd) {
            if (!put_range(fd, kWrite, 600, 3000, 1)) return 81;
            return 0;
        });
    }
    // Grows the file from another process while child r waits, then lets r go on and
    // collects it.
    void grow_then_release(pid_t r) {
        EXPECT_EQ(grow_in_child(), 0);
        down_.signal('g');
        EXPECT_EQ(kt::wait_child(r), 0);
    }
    // A child that opens the file and runs body(fd), which stops where it says `ready` to
    // the parent until signalled: with fetch_hook in place ('f') at its first miss, after
    // the read of the page (or dies there with kill_at_fetch).  Returns once it has
    // stopped; body's result ends it (0: with the file closed and the process detached).
    pid_t hooked_reader(const std::function<int(int fd)>& body, char ready = 'f') {
        const pid_t a = kt::start_child([&] {
            up_.close_read();
            down_.close_write();
            to_parent = &up_;
            from_parent = &down_;
            const int fd = open();
            if (fd < 0) return 70;
            if (const int rc = body(fd)) return rc;
            nisclose(fd);
            nisunisam();
            return 0;
        });
        up_.close_write();
        down_.close_read();
        EXPECT_EQ(up_.wait(), ready);
        return a;
    }
    kt::Pipe up_, down_;
    std::string path_;
    unsigned ids_ = 0;
};


// A reader stopped after its read of a missing page, before it takes the lock: another
// reader's reads, misses and all, go on without the lock, load their pages, and leave the
// change count alone.
TEST_F(MissMp, AReaderInTheMiddleOfAMissHoldsNobodyUp) {
    start(40, 1500);
    const pid_t a = hooked_reader([&](int fd) {
        kisam::test_hook = fetch_hook;
        for (unsigned id = 0; id < ids_; id += 7)
            if (const int rc = check(fd, id, 1)) return 71 + rc;
        return 0;
    });
    EXPECT_EQ(in_child([&](int fd) {
                  const uint32_t seq = seq_of(fd);
                  const uint32_t reads0 = isam_com->sysread;
                  const unsigned long nolock0 = is_nolock_reads;
                  std::mt19937 rng(5);
                  for (int i = 0; i < 600; ++i)
                      if (check(fd, static_cast<unsigned>(rng() % ids_), 1) != 0) return 81;
                  if (isam_com->sysread - reads0 < 100) return 82;      // it missed, and loaded
                  if (is_nolock_reads - nolock0 != 600) return 83;      // each read took no lock
                  if (seq_of(fd) != seq) return 84;                     // nor moved the count
                  return 0;
              }),
              0);
    down_.signal('g');
    EXPECT_EQ(kt::wait_child(a), 0);
}

// A reader stopped after its read of a record's page, while a writer changes the record
// and the page goes through the pool and out to the file: what the reader read is out of
// date and must not reach the pool; its read finds the new record.
TEST_F(MissMp, AnImageReadBeforeTheFileChangedNeverReachesThePool) {
    page_sized = true;
    start(40, 200);
    constexpr unsigned kX = 10;
    const pid_t a = hooked_reader([&](int fd) {
        for (unsigned id = 0; id < ids_; ++id)
            if (check(fd, id, 1) != 0) return 71;
        // The index pages on the way to kX are in the pool, kX's data page is not: the
        // read of kX misses that page alone.
        if (check(fd, kX + 1, 1) != 0) return 72;
        kisam::test_hook = fetch_hook;
        uint32_t g = 0;
        if (check(fd, kX, 0, &g) != 0) return 73;
        if (g != 2) return 74;
        return 0;
    });
    // The record changed in its page; then reads of a hundred other pages push the page
    // out of the pool, to the file.
    EXPECT_EQ(in_child([&](int fd) {
                  const std::string r = record(kX, 2);
                  if (nisupdate(fd, r.data(), static_cast<int>(r.size())) != 0) return 81;
                  for (unsigned id = 100; id < ids_; ++id)
                      if (check(fd, id, 1) != 0) return 82;
                  return 0;
              }),
              0);
    down_.signal('g');
    EXPECT_EQ(kt::wait_child(a), 0);
    EXPECT_TRUE(kt::sound(path_));
}

// Readers of a file twenty times the pool: every read misses, and each miss takes a slot
// another reader may be reading at that moment -- with the change count left alone, only
// the check of each slot used keeps a reader from returning bytes of another page.
TEST_F(MissMp, ReadersThatEvictEachOtherReadOnlyWholeRecords) {
    start(20, 800);
    const uint64_t seed = kt::test_seed(0x5EED);
    const std::vector<int> rcs = workers(3, [&](int r) {
        const int fd = open();
        if (fd < 0) return 70;
        std::mt19937 rng(static_cast<unsigned>(seed) + static_cast<unsigned>(r));
        for (int i = 0; i < 4000; ++i) {
            const unsigned id = static_cast<unsigned>(rng() % ids_);
            if (const int rc = check(fd, id, 1)) {
                std::fprintf(stderr, "reader %d: id %u wrong (%d), seed %llu\n", r, id, rc,
                             static_cast<unsigned long long>(seed));
                return 71;
            }
        }
        nisclose(fd);
        nisunisam();
        return 0;
    });
    for (int rc : rcs) EXPECT_EQ(rc, 0);
}

// A reader killed after its read of a missing page leaves no lock, no slot and no count
// behind: another reader reads every record without the lock, and the file is sound.
TEST_F(MissMp, AReaderKilledInTheMiddleOfAMissLeavesNothingBehind) {
    start(40, 600);
    const pid_t a = hooked_reader([&](int fd) {
        kill_at_fetch = true;
        kisam::test_hook = fetch_hook;
        for (unsigned id = 0; id < ids_; ++id) check(fd, id, 1);
        return 71;
    });
    EXPECT_EQ(kt::wait_child(a), 128 + SIGKILL);
    EXPECT_EQ(in_child([&](int fd) {
                  const uint32_t seq = seq_of(fd);
                  if (seq % 2 != 0) return 81;
                  const unsigned long nolock0 = is_nolock_reads;
                  for (unsigned id = 0; id < ids_; ++id)
                      if (check(fd, id, 1) != 0) return 82;
                  if (is_nolock_reads - nolock0 != ids_) return 83;
                  return 0;
              }),
              0);
    EXPECT_TRUE(kt::sound(path_));
}

// The same misses as a program sees them: through a read-only mapping of the file, with
// no lock, no load and no system call, once the reader knows the file's chain.
class FileReads : public MissMp {
protected:
    void SetUp() override {
        MissMp::SetUp();
        kisam::os = kisam::os_real;
    }
    // Reads every id at gen (0: any) and says how: 0, or what went wrong.
    int read_all(int fd, uint32_t gen, unsigned from = 0) {
        for (unsigned id = from; id < ids_; ++id)
            if (const int rc = check(fd, id, gen)) {
                std::fprintf(stderr, "id %u: wrong (%d)\n", id, rc);
                return rc;
            }
        return 0;
    }
};

// Both sizes of control page (pages start 512 bytes apart in the file): once a first
// pass has learnt the chain, a second reads every record without the lock, its pages
// past the pool from the file's mapping, with no page loaded and the count left alone.
TEST_F(FileReads, PagesPastThePoolComeFromTheFileWithNoLoad) {
    for (const int magic : {512, 1024}) {
        SCOPED_TRACE(magic);
        start(40, 1500, magic);
        EXPECT_EQ(in_child([&](int fd) {
                      if (read_all(fd, 1) != 0) return 81;
                      const uint32_t seq = seq_of(fd);
                      const uint32_t reads0 = isam_com->sysread;
                      const unsigned long nolock0 = is_nolock_reads, file0 = v_file_reads;
                      if (read_all(fd, 1) != 0) return 82;
                      if (is_nolock_reads - nolock0 != ids_) return 83;   // no read took the lock
                      if (v_file_reads - file0 < ids_ / 2) return 84;    // most pages from the file
                      if (isam_com->sysread != reads0) return 85;        // none loaded
                      if (seq_of(fd) != seq) return 86;
                      return 0;
                  }),
                  0);
        EXPECT_TRUE(kt::sound(path_));
    }
}

// Pages that another process changed stay in the pool, changed, until written back: the
// file holds them as they were.  A reader that knew the chain before the change must
// learn where they went and read them there, never the file's older bytes.
TEST_F(FileReads, APageChangedInThePoolIsNeverReadFromTheFile) {
    start(60, 1500);
    const unsigned changed[] = {3, 400, 777, 1200, 1499};
    auto is_changed = [&](unsigned id) {
        for (unsigned c : changed)
            if (c == id) return true;
        return false;
    };
    const pid_t r = hooked_reader([&](int fd) {
        if (read_all(fd, 1) != 0 || read_all(fd, 1) != 0) return 71;
        up_.signal('r');
        down_.wait();
        const unsigned long nolock0 = is_nolock_reads, file0 = v_file_reads;
        for (unsigned id = 0; id < ids_; ++id)
            if (const int rc = check(fd, id, is_changed(id) ? 2 : 1)) {
                std::fprintf(stderr, "id %u: wrong (%d)\n", id, rc);
                return 72;
            }
        if (is_nolock_reads - nolock0 < ids_ - 20) return 73;  // the changes were learnt without the lock
        if (v_file_reads == file0) return 74;
        return 0;
    }, 'r');
    EXPECT_EQ(in_child([&](int fd) {
                  for (unsigned id : changed) {
                      const std::string rec = record(id, 2);
                      if (nisupdate(fd, rec.data(), static_cast<int>(rec.size())) != 0) return 81;
                  }
                  return 0;
              }),
              0);
    down_.signal('g');
    EXPECT_EQ(kt::wait_child(r), 0);
    EXPECT_TRUE(kt::sound(path_));
}

// A file that grew after the reader mapped it: the pages past the mapping are read after
// the file is mapped again (or under the lock), never past the file's end.
TEST_F(FileReads, AFileThatGrewIsMappedAgain) {
    start(40, 600);
    const pid_t r = hooked_reader([&](int fd) {
        if (read_all(fd, 1) != 0) return 71;
        up_.signal('r');
        down_.wait();
        ids_ = 3000;
        if (read_all(fd, 1) != 0) return 72;                 // learns the chain again
        const unsigned long file0 = v_file_reads;
        if (read_all(fd, 1, 600) != 0) return 73;
        if (v_file_reads - file0 < (ids_ - 600) / 2) return 74;  // the new pages too
        return 0;
    }, 'r');
    grow_then_release(r);
    EXPECT_TRUE(kt::sound(path_));
}

// A step along key 1 from a cursor whose page was read from the file, after another
// process deleted the next record in the pool (its page changed there, not yet in the
// file): the step must not take the file's older copy of the page for the current one.
// Several rounds, each from another place of key 1.
TEST_F(FileReads, AStepAfterAChangeNeverUsesTheFilesOlderPage) {
    start(20, 3000);
    constexpr int kRounds = 12;
    struct Shared {
        char z[kRounds][kK0];  // key 0 of the record after the cursor's, along key 1
    };
    Shared& sh = shared<Shared>();
    const pid_t r = hooked_reader([&](int fd) {
        if (read_all(fd, 1) != 0) return 71;
        std::vector<char> buf(kBuf);
        for (int round = 0; round < kRounds; ++round) {
            // The cursor on a record of key 1's order, one step on and back: the next
            // record's key 0 is noted, the cursor is back where it was.
            const std::string x = record(97 + 211 * static_cast<unsigned>(round), 1);
            if (nisfind(fd, 1, x.data() + kK0, buf.data(), kBuf) < kGenAt) return 72;
            if (nisread(fd, 1, buf.data(), kBuf) < kGenAt) return 73;
            std::memcpy(sh.z[round], buf.data(), kK0);
            if (nispread(fd, 1, buf.data(), kBuf) < kGenAt) return 74;
            up_.signal('r');
            down_.wait();
            if (nisread(fd, 1, buf.data(), kBuf) < kGenAt) return 75;
            if (std::memcmp(buf.data(), sh.z[round], kK0) == 0) return 76;  // the deleted record
            char id[kK0 + 1] = {};
            std::memcpy(id, buf.data(), kK0);
            if (check(fd, static_cast<unsigned>(std::atoi(id)), 1) != 0) return 77;
        }
        return 0;
    }, 'r');
    for (int round = 0; round < kRounds; ++round) {
        if (round > 0) {  // the first stop is hooked_reader's
            ASSERT_EQ(up_.wait(), 'r');
        }
        EXPECT_EQ(in_child([&](int fd) {
                      if (nisdelete(fd, sh.z[round]) != 0) return 81;
                      return 0;
                  }),
                  0);
        down_.signal('g');
    }
    EXPECT_EQ(kt::wait_child(r), 0);
    EXPECT_TRUE(kt::sound(path_));
}

// Scans along key 1 past the pool ask ahead for the pages of their next steps, which
// changes no result: forwards and backwards they read, without the lock, exactly what
// locked scans read.  With every page in the pool they do not ask ahead at all (nothing
// to gain there, and the guesses cost).
TEST_F(FileReads, ScansPastThePoolAskAheadAndReadWhatLockedScansRead) {
    auto scan = [&](int fd, bool back, std::vector<std::string>& out) {
        std::vector<char> buf(kBuf);
        int n;
        while ((n = back ? nispread(fd, 1, buf.data(), kBuf) : nisread(fd, 1, buf.data(), kBuf)) > 0)
            out.emplace_back(buf.data(), static_cast<size_t>(n));
        return n;
    };
    // Both directions, each without the lock and then locked from a fresh cursor: 0 or
    // what went wrong; the look-aheads of the scans without the lock in *ahead.
    auto both_ways = [&](int fd, unsigned long* ahead) {
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
        (void)fd;
        return 0;
    };
    start(40, 1500);
    EXPECT_EQ(in_child([&](int fd) {
                  if (read_all(fd, 1) != 0) return 81;  // key 0's leaves known, the chain learnt
                  unsigned long ahead = 0;
                  if (const int rc = both_ways(fd, &ahead)) return 81 + rc;
                  return ahead >= ids_ ? 0 : 86;
              }),
              0);
    start(2000, 300);
    EXPECT_EQ(in_child([&](int fd) {
                  kisam::test_locked_reads = true;  // every page into the pool
                  std::vector<std::string> all;
                  const int rc = read_all(fd, 1) != 0 || scan(fd, false, all) != 0;
                  kisam::test_locked_reads = false;
                  if (rc != 0 || read_all(fd, 1) != 0) return 91;
                  unsigned long ahead = 0;
                  if (const int rc2 = both_ways(fd, &ahead)) return 91 + rc2;
                  return ahead == 0 ? 0 : 96;
              }),
              0);
    EXPECT_TRUE(kt::sound(path_));
}

// Another program cuts the file short under a reader that has it mapped, twice: each
// read that needs a page past the new end fails exactly as the locked read of it fails
// (ISE_RDRD for a record's page; a tree's page read on the way fails its search,
// ISE_BTS), the reader lives on, and what the file still holds reads as before.  Once the
// mapping that faulted is dropped and the file mapped again over its new size, nothing
// faults until the next cut.
TEST_F(FileReads, AFileCutShortUnderAReaderGivesErrorsNotASignal) {
    start(40, 1500);
    constexpr int kCuts = 2;
    const pid_t r = hooked_reader([&](int fd) {
        if (read_all(fd, 1) != 0 || read_all(fd, 1) != 0) return 71;
        if (v_file_reads == 0) return 72;  // the reader has the file mapped
        std::vector<char> buf(kBuf);
        unsigned before = 0;  // reads that failed after the previous cut
        for (int cut = 0; cut < kCuts; ++cut) {
            up_.signal('r');
            down_.wait();
            for (int pass = 0; pass < 2; ++pass) {
                const unsigned long faults0 = v_map_faults;
                unsigned failed = 0;
                for (unsigned id = 0; id < ids_; ++id) {
                    is_errno = 0;
                    const int n = nisfind(fd, 0, key0(id).data(), buf.data(), kBuf);
                    const int err = is_errno;
                    kisam::test_locked_reads = true;
                    is_errno = 0;
                    const int locked = nisfind(fd, 0, key0(id).data(), buf.data(), kBuf);
                    kisam::test_locked_reads = false;
                    const bool as_locked = (n < 0) == (locked < 0) && (n >= 0 || err == is_errno);
                    if (!as_locked || (n < 0 && err != ISE_RDRD && err != ISE_BTS)) {
                        std::fprintf(stderr, "cut %d, pass %d, id %u: %d (error %d), locked %d (error %d)\n", cut,
                                     pass, id, n, err, locked, is_errno);
                        return 73;
                    }
                    if (n < 0) {
                        ++failed;
                        continue;
                    }
                    const std::string rec = record(id, 1);
                    if (n != static_cast<int>(rec.size()) || std::memcmp(buf.data(), rec.data(), rec.size()) != 0)
                        return 74;
                }
                if (failed <= before || failed == ids_) return 75;
                if (pass == 0 && v_map_faults == faults0) return 76;  // it met the cut in the mapping
                if (pass == 1 && v_map_faults != faults0) return 77;  // mapped again over the new size
                if (pass == 1) before = failed;
            }
        }
        return 0;
    }, 'r');
    struct stat st;
    ASSERT_EQ(::stat(path_.c_str(), &st), 0);
    for (int cut = 0; cut < kCuts; ++cut) {
        if (cut > 0) {  // the first stop is hooked_reader's
            ASSERT_EQ(up_.wait(), 'r');
        }
        ASSERT_EQ(::truncate(path_.c_str(), st.st_size / (2 + 3 * cut) / 4096 * 4096), 0);
        down_.signal('g');
    }
    EXPECT_EQ(kt::wait_child(r), 0);
}

sigjmp_buf own_jump;
volatile sig_atomic_t own_faults = 0;
void own_bus_handler(int, siginfo_t*, void*) {
    own_faults = own_faults + 1;
    siglongjmp(own_jump, 1);
}

// A mapping of the program's own, cut short and touched past its new end: 0 when the
// program's handler took the fault and came back, 1 when nothing faulted.
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

// A SIGBUS that the program's own accesses cause is the program's: its handler, in
// place before the library's first mapping, still gets it (the library's handler took
// its place and hands it on); without one, the program ends with the signal as it would
// have without the library.
TEST_F(FileReads, AProgramsOwnSigbusStillReachesIt) {
    start(40, 1500);
    EXPECT_EQ(in_child([&](int fd) {
                  ::alarm(10);  // a fault that came back to the access forever
                  struct sigaction cur;
                  struct sigaction own {};
                  own.sa_sigaction = own_bus_handler;
                  own.sa_flags = SA_SIGINFO;
                  sigemptyset(&own.sa_mask);
                  if (::sigaction(SIGBUS, &own, nullptr) != 0) return 91;
                  if (read_all(fd, 1) != 0 || read_all(fd, 1) != 0) return 81;
                  if (v_file_reads == 0) return 82;
                  if (::sigaction(SIGBUS, nullptr, &cur) != 0 || cur.sa_sigaction == own_bus_handler)
                      return 83;  // the library's handler took its place
                  if (const int rc = touch_own_cut_mapping(path("own"))) return 84 + rc;
                  if (const int rc = touch_own_cut_mapping(path("own"))) return 84 + rc;  // and again
                  return 0;
              }),
              0);
    // What the program had before (a sanitizer's handler, say, that reports and aborts):
    // the test's process has made no mapping, so its children start with it.
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
    if (by_default) EXPECT_EQ(rc, 128 + SIGBUS);
    else EXPECT_TRUE(rc > 128 && rc != 128 + SIGALRM) << rc;  // ended by the program's disposition
}

// Misses under the control lock (a writer's) copy their page from the same mapping, with
// no read call, and in every case load the page the file holds: the updates, checked by
// a process that reads with read calls only, all took.  The mapping of a file that
// another process made grow is measured again and serves the new pages too (within the
// room it reserved, so never from past the file's end).
TEST_F(FileReads, WritersMissesAreCopiedFromTheMappingAlsoAfterTheFileGrew) {
    start(40, 600);
    const pid_t r = hooked_reader([&](int fd) {
        const unsigned long loads0 = v_map_loads;
        const uint32_t reads0 = isam_com->sysread;
        if (!put_range(fd, kUpdate, 0, ids_, 2)) return 71;
        if (v_map_loads - loads0 < ids_ / 4) return 72;                 // misses from the mapping
        if (isam_com->sysread - reads0 < v_map_loads - loads0) return 73;  // and counted as loads
        up_.signal('r');
        down_.wait();
        const unsigned long loads1 = v_map_loads, faults1 = v_map_faults;
        if (!put_range(fd, kUpdate, 600, 3000, 2)) return 74;
        if (v_map_loads - loads1 < (3000 - 600) / 4) return 75;  // the new pages too
        if (v_map_faults != faults1) return 76;                  // never past the end
        return 0;
    }, 'r');
    grow_then_release(r);
    ids_ = 3000;
    kisam::os.pread = plain_pread;  // no mapping: every page by a read call
    EXPECT_EQ(in_child([&](int fd) { return read_all(fd, 2); }), 0);
    EXPECT_TRUE(kt::sound(path_));
}

// Another program cuts the file short under a writer that has it mapped: a miss whose
// page lies past the new end fails its call with an error (the mapping that faulted is
// dropped and the page read, which finds nothing there), never with a signal, and the
// writer goes on with its next call.
TEST_F(FileReads, AFileCutShortUnderAWriterGivesErrorsNotASignal) {
    start(40, 1500);
    struct stat st;
    ASSERT_EQ(::stat(path_.c_str(), &st), 0);
    const pid_t r = hooked_reader([&](int fd) {
        ::alarm(60);
        // Downwards, so that the pool is left with the front of the file, all of it
        // written back (nisflush): the first miss past the cut comes before any write-back
        // past it could make the file long again.
        for (unsigned id = ids_; id-- > 0;) {
            const std::string rec = record(id, 2);
            if (nisupdate(fd, rec.data(), static_cast<int>(rec.size())) != 0) return 71;
        }
        if (v_map_loads == 0) return 72;  // the writer has the file mapped
        if (nisflush(fd) != 0) return 76;
        up_.signal('r');
        down_.wait();
        const unsigned long faults0 = v_map_faults;
        unsigned failed = 0;
        for (unsigned id = ids_; id-- > 0;) {
            const std::string rec = record(id, 3);
            is_errno = 0;
            if (nisupdate(fd, rec.data(), static_cast<int>(rec.size())) == 0) continue;
            if (is_errno == 0) return 73;  // a failing call says why
            ++failed;
        }
        if (failed == 0) return 74;
        if (v_map_faults == faults0) return 75;  // it met the cut in the mapping
        return kLeftOpen;                        // the file is left as the cut made it
    }, 'r');
    ASSERT_EQ(::truncate(path_.c_str(), st.st_size / 2 / 4096 * 4096), 0);
    down_.signal('g');
    EXPECT_EQ(kt::wait_child(r), kLeftOpen);
}

// ---- Write-backs through the mapping ------------------------------------------------------

// Page writes of the data file, by kind, in the process that counts them: stores into its
// mapping (through the OS layer, as the hooks see them) and write calls.
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
    void cut_under_write_back(bool by_checkpoint);
    // What the writer left, read by another process with read calls only (no mapping in
    // the checker): the whole file along `keyno`, ids [lo, hi) at generation `gen`; then
    // the file's structure.
    void reads_back_by_read_calls(int keyno, unsigned lo, unsigned hi, int gen) {
        kisam::os.pread = plain_pread;
        EXPECT_EQ(in_child([&](int fd) {
                      if (read_all(fd, keyno, 0) != 0) return 81;
                      for (unsigned id = lo; id < hi; ++id)
                          if (check(fd, id, gen) != 0) return 82;
                      return 0;
                  }),
                  0);
        kisam::os = kisam::os_real;
        EXPECT_TRUE(kt::sound(path_));
    }
};

// A writer whose pool is far smaller than the file writes its victims and its checkpoints
// back by stores into its mapping of the file, each made known to the OS layer's hooks as
// the write of its page; pages past the file's end (the file growing) go out by write
// calls, after which the mapping covers them.  A process that reads with read calls only
// finds every record as written.  Both sizes of control page: with pages 512 bytes apart
// a page straddles two of the system's pages.
TEST_F(MappedWrites, VictimsAndCheckpointsAreStoresThatReadersSee) {
    for (const int magic : {512, 1024}) {
        SCOPED_TRACE(magic);
        start(40, 1500, magic);
        EXPECT_EQ(in_child([&](int fd) {
                      count_page_writes(fd);
                      if (!put_range(fd, kUpdate, 0, ids_, 2)) return 71;
                      if (v_map_stores < ids_ / 4) return 72;          // victims stored, ...
                      if (data_stores != v_map_stores) return 73;       // ... each seen as a write
                      if (data_pwrites > v_map_stores / 20) return 74;  // few write calls
                      // New pages past the file's end: write calls first, stores after.
                      const unsigned long stores0 = v_map_stores, pwrites0 = data_pwrites;
                      if (!put_range(fd, kWrite, 1500, 3000, 2)) return 75;
                      if (!put_range(fd, kUpdate, 1500, 3000, 3)) return 76;
                      if (data_pwrites == pwrites0) return 77;
                      if (v_map_stores - stores0 < 1500 / 4) return 78;
                      const unsigned long before_flush = v_map_stores;
                      if (nisflush(fd) != 0 || v_map_stores == before_flush) return 79;  // the checkpoint too
                      if (v_store_faults != 0) return 80;
                      return 0;
                  }),
                  0);
        reads_back_by_read_calls(2, 1500, 3000, 3);
    }
}

// A file growing by write-backs is taken ahead in zeros, a chunk at a time, so that its
// next new pages are stores into the mapping rather than a write call each: never past
// the end of its allocated pages, and never over a page another process wrote since this
// one last measured the file (the writer below mapped it before another process grew it
// by 2,400 records, and its first victims are that process's pages).  Every record reads
// back with read calls only.  Pages 512 bytes apart: a page straddles two of the system's.
TEST_F(MappedWrites, AGrowingFileIsTakenAheadOnlyOverWhatItNeverHeld) {
    {
        start(40, 600, 512);
        const pid_t w = hooked_reader([&](int fd) {
            ::alarm(120);
            for (unsigned id = 0; id < 200; ++id)
                if (check(fd, id, 1) != 0) return 71;
            up_.signal('r');
            if (down_.wait() != 'g') return 72;
            count_page_writes(fd);
            const IS_FCP* fcp = kisam::pfo_fcp(is_db[fd]->uniqueid);
            struct stat st;
            const PAGE last0 = fcp->is_lastpage;
            // Inserts first: their first misses write victims back before anything is
            // read, with the size this process measured before the other grew the file.
            for (unsigned k = 0; k < 3900; ++k) {
                const unsigned id = k < 1500 ? 3000 + k : 600 + (k - 1500);
                const std::string rec = record(id, 2);
                const int rc = id >= 3000 ? niswrite(fd, rec.data(), static_cast<int>(rec.size()))
                                          : nisupdate(fd, rec.data(), static_cast<int>(rec.size()));
                if (rc != 0) return 73;
                if (::fstat(counted_fd, &st) != 0) return 74;
                if (st.st_size > v_fileoffset(fcp, fcp->is_lastpage)) return 75;  // past its end
            }
            // The new pages of 1,500 inserts (each page a write call of its own without the
            // zeros ahead): far fewer write calls, the rest stores.
            const unsigned fresh = (fcp->is_lastpage - last0) / 1024;
            if (data_pwrites * 3 > fresh) {
                std::fprintf(stderr, "%lu write calls for %u new pages\n", data_pwrites, fresh);
                return 76;
            }
            kisam::os = kisam::os_real;
            nisclose(fd);
            nisunisam();
            return 0;
        }, 'r');
        grow_then_release(w);
        reads_back_by_read_calls(1, 600, 4500, 2);
    }
}

// Another program cuts the file short under a writer whose pool holds changed pages past
// the new end: the store of such a page faults, and the page is written by a write call
// instead -- which succeeds, as it would have without the mapping -- and the writer goes
// on, never killed by the signal.  Victims (writebuf) and the checkpoint (the write-back
// of every dirty page) both meet it.
void MappedWrites::cut_under_write_back(bool by_checkpoint) {
    {
        start(40, 1500);
        struct stat st;
        ASSERT_EQ(::stat(path_.c_str(), &st), 0);
        const pid_t r = hooked_reader([&](int fd) {
            ::alarm(60);
            count_page_writes(fd);
            // Changed pages of the back of the file, held in the pool; the front read
            // through the mapping, so that the writer has the file mapped.
            for (unsigned id = 0; id < 200; ++id)
                if (check(fd, id, 1) != 0) return 71;
            for (unsigned id = ids_; id-- > ids_ - 30;) {
                const std::string rec = record(id, 2);
                if (nisupdate(fd, rec.data(), static_cast<int>(rec.size())) != 0) return 72;
            }
            if (v_map_stores == 0 && v_map_loads == 0) return 73;
            up_.signal('r');
            down_.wait();
            const unsigned long pwrites0 = data_pwrites;
            if (by_checkpoint) {
                if (kt::write_back(fd) != 0) return 74;
            } else {
                // Misses of the front of the file make the changed pages victims (a call
                // that meets the cut itself fails with an error).
                for (unsigned id = 0; id < 400; ++id) {
                    const std::string rec = record(id, 2);
                    is_errno = 0;
                    if (nisupdate(fd, rec.data(), static_cast<int>(rec.size())) != 0 && is_errno == 0) return 75;
                }
            }
            if (v_store_faults == 0) return 76;         // a store met the cut ...
            if (data_pwrites == pwrites0) return 77;    // ... and its page went by a write call
            return 0;
        }, 'r');
        const off_t cut = st.st_size / 2 / 4096 * 4096;
        ASSERT_EQ(::truncate(path_.c_str(), cut), 0);
        down_.signal('g');
        EXPECT_EQ(kt::wait_child(r), 0);
        // The write calls put the pages back past the cut, as they would have unmapped.
        ASSERT_EQ(::stat(path_.c_str(), &st), 0);
        EXPECT_GT(st.st_size, cut);
    }
}

TEST_F(MappedWrites, AFileCutShortUnderAVictimsStoreGetsTheWriteCallsResult) { cut_under_write_back(false); }
TEST_F(MappedWrites, AFileCutShortUnderACheckpointsStoreGetsTheWriteCallsResult) { cut_under_write_back(true); }

// A private mount namespace with a small file system of its own at dir (a tmpfs of
// `bytes`), for this process only: as root, or through a user namespace.  False when the
// system allows neither.
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
    // Nothing mounted here may reach the system's own namespace.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    ::mkdir(dir.c_str(), 0700);
    const std::string opt = "size=" + std::to_string(bytes);
    return ::mount("kisam-test", dir.c_str(), "tmpfs", 0, opt.c_str()) == 0;
}

// Fills the file system of dir until it has no block left; the filler's path.
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

// A changed page whose place in the file is a hole, on a disk with no block left: its store
// faults (the disk cannot give the block), and the page goes by a write call, which fails
// for want of room -- the write-back fails with the write's error, nothing is lost, and
// once there is room again the same write-back succeeds and the file holds every record.
TEST_F(MappedWrites, AStoreIntoAHoleOfAFullDiskGetsTheWriteCallsError) {
    start(400, 10);
    const std::string dir = path("small");
    const int rc = kt::run_child([&] {
        ::alarm(60);
        if (!small_disk(dir, 1 << 20)) return 99;
        const std::string file = dir + "/h.ism";
        int fd = niscreate(file.c_str(), 2, std::vector<int>{kK0, kK1}.data());
        if (fd < 0) return 1;
        if (!put_range(fd, kWrite, 0, 600, 1)) return 2;
        if (kt::write_back(fd) != 0) return 3;  // the file whole on the disk
        if (!put_range(fd, kUpdate, 0, 600, 2)) return 4;
        // Four changed pages that fill one of the system's pages: punched out, they leave
        // a hole only the pool holds the bytes of.
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
        // Read back with read calls (a new attachment, the pool empty).
        kisam::os.pread = plain_pread;
        if (is_init() != 0 || (fd = nisopen(file.c_str(), ISO_RDWR)) < 0) return 13;
        for (unsigned id = 0; id < 600; ++id)
            if (check(fd, id, 2) != 0) return 14;
        nisclose(fd);
        nisunisam();
        return kt::sound(file) ? 0 : 15;
    });
    if (rc == 99) GTEST_SKIP() << "no mount namespace for a small file system";
    EXPECT_EQ(rc, 0);
}

// Stores into the mapping reach the disk at the next sync, and a disk that fails to write
// them says so there: a checkpoint whose sync of the file fails fails, and keeps the log.
// Here the sync's failure is made at the OS layer and the disk's loss by putting the
// file's bytes of before the calls back: the next start replays the log and the calls are
// all there.
// A disk that lost every page written since the file held `was`: its bytes put back in
// place (the same file, which processes may have open), its size too.
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

TEST_F(MappedWrites, ACheckpointWhoseSyncFailsKeepsTheLog) {
    start(40, 600);
    const std::string before = kt::slurp(path_);
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(kt::run_child([&] {
                  const int fd = open();
                  if (fd < 0) return 70;
                  if (!put_range(fd, kUpdate, 0, ids_, 2)) return 71;
                  if (v_map_stores == 0) return 72;
                  const int u = is_db[fd]->uniqueid;
                  failing_fd = is_pfi[u].pfi_osfd;
                  kisam::os.fdatasync = failing_data_sync;
                  is_errno = 0;
                  if (kt::write_back(fd) == 0 || is_errno != ISE_FLWT) return 73;
                  const auto* x = kisam::isx_file_of(u);
                  if (x->xf_log_start == x->xf_log_end) return 74;  // the log still holds the calls
                  ::kill(::getpid(), SIGKILL);                        // and nothing else happens
                  return 75;
              }),
              128 + SIGKILL);
    ASSERT_TRUE(lose_since(path_, before)) << "what the disk lost: every page write since the file was whole";
    EXPECT_EQ(in_child([&](int fd) { return read_all(fd, 2); }), 0);
    EXPECT_TRUE(kt::sound(path_));
}

// The kernel reports a failed write-back once, then takes the pages for clean and may drop
// them: the next sync succeeds over a file that lacks them.  Here the checkpoint's sync
// fails, and the disk and the cache forget every page written since the file was last
// whole (its bytes of then put back).  The next checkpoint that succeeds must still leave
// every call in the file itself, with nothing left in the log for a replay: the last
// close's, the one before the same process's next changing call, or the one before the
// next call of another process that had the file open all along (the failure is the
// file's, not the process's).
int more_calls(int fd, unsigned ids) {
    for (unsigned id = 0; id < ids; id += 3) {
        const std::string rec = record(id, 3);
        if (nisupdate(fd, rec.data(), static_cast<int>(rec.size())) != 0) return 76;
    }
    if (!put_range(fd, kWrite, ids, ids + 300, 1)) return 77;
    return 0;
}

TEST_F(MappedWrites, PagesAFailedSyncLostReachTheFileAtTheNextCheckpoint) {
    enum { kClosed, kMore, kMoreElsewhere };
    for (const int then : {kClosed, kMore, kMoreElsewhere}) {
        SCOPED_TRACE(then == kClosed ? "closed after the failure"
                     : then == kMore ? "more calls after the failure"
                                     : "more calls of another process after the failure");
        start(40, 600);
        const std::string before = kt::slurp(path_);
        ASSERT_FALSE(before.empty());
        kt::Pipe up, down;
        pid_t other = -1;
        if (then == kMoreElsewhere) {
            other = kt::start_child([&] {
                up.close_read();
                down.close_write();
                const int fd = open();
                if (fd < 0) return 90;
                up.signal('o');
                if (down.wait() != 'g') return 91;
                if (const int rc = more_calls(fd, ids_)) return rc;
                nisclose(fd);  // the last close
                nisunisam();
                return 0;
            });
            up.close_write();
            down.close_read();
            ASSERT_EQ(up.wait(), 'o');
        }
        EXPECT_EQ(in_child([&](int fd) {
                      if (!put_range(fd, kUpdate, 0, ids_, 2)) return 71;
                      if (v_map_stores == 0) return 72;  // victims went out before the sync
                      const int u = is_db[fd]->uniqueid;
                      failing_fd = is_pfi[u].pfi_osfd;
                      kisam::os.fdatasync = failing_data_sync;
                      is_errno = 0;
                      if (kt::write_back(fd) == 0 || is_errno != ISE_FLWT) return 73;
                      kisam::os.fdatasync = kisam::os_real.fdatasync;  // the disk works again
                      if (!lose_since(path_, before)) return 75;
                      return then == kMore ? more_calls(fd, ids_) : 0;  // then closed and detached
                  }),
                  0);
        if (other > 0) {
            down.signal('g');
            EXPECT_EQ(kt::wait_child(other), 0);
        }
        // Nothing is left for a replay: what follows reads the file as it is.
        EXPECT_EQ(kisam_pending(path_.c_str()), 0);
        const bool more = then != kClosed;
        EXPECT_EQ(in_child([&](int fd) {
                      kisam_recovery r;
                      if (kisam_last_recovery(&r) == 0 && r.calls != 0) return 80;  // no replay
                      for (unsigned id = 0; id < ids_; ++id)
                          if (const int rc = check(fd, id, more && id % 3 == 0 ? 3 : 2)) {
                              std::fprintf(stderr, "id %u: wrong (%d)\n", id, rc);
                              return 81;
                          }
                      for (unsigned id = ids_; more && id < ids_ + 300; ++id)
                          if (check(fd, id, 1) != 0) return 82;
                      return 0;
                  }),
                  0);
        EXPECT_TRUE(kt::sound(path_));
    }
}

}  // namespace
