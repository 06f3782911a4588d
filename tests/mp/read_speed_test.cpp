// What the fast paths of reads without the lock must keep: a read that runs unarmed for
// faults in the files' mappings (a process whose reads have all stayed in the pool)
// never touches a mapping, so that a file cut short under it still gives errors, never a
// signal; and where a process last found each page is only a guess, checked by the
// slot's tag, so that readers whose slots are taken from under them by each other and by
// a writer still read only records that were there.
#include "genrec.h"
#include "is_error.h"
#include "is_rec.h"
#include "kisam_test.h"
#include "os.h"
#include "test_hook.h"
#include "v_pool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

namespace kg = kt::gen;
// One record in ten spans overflow pages.
const kg::Layout kL{.k1 = 1000, .big = 10, .big_len = 1100, .small_len = 40, .small_span = 200};
constexpr int kBuf = 4000;

// The real pread behind a replaced entry of the table: with the table replaced, every
// miss loads its page into the pool (no read in the file's mapping), so that readers take
// slots from each other all the time.
ssize_t plain_pread(int fd, void* buf, size_t n, off_t off) { return ::pread(fd, buf, n, off); }

// Reads id by key 0: 0 when it holds a whole record of id at some generation (*gen), 1
// when the read gave too little, 2 when the bytes are wrong.
int check(int fd, unsigned id, uint32_t* gen) {
    std::vector<char> buf(kBuf);
    const int n = nisfind(fd, 0, kg::key0(id).data(), buf.data(), kBuf);
    unsigned got;
    if (n < kL.min()) return 1;
    return kg::genuine(kL, buf.data(), n, kBuf, &got, gen) && got == id ? 0 : 2;
}

class ReadSpeed : public kt::Env {
protected:
    void SetUp() override { bound(240); }
    void start(int buffers, unsigned ids) {
        kt::Config c;
        c.maxbuf = static_cast<int16_t>(buffers);
        Env::start(c);
        ids_ = ids;
        path_ = path("r.ism");
        ASSERT_EQ(kt::run_child([&] {
                      const int fd = create("r.ism", kL.lens());
                      for (unsigned id = 0; fd >= 0 && id < ids; ++id) {
                          const std::string r = kg::record(kL, id, 1);
                          if (niswrite(fd, r.data(), static_cast<int>(r.size())) != 0) return 2;
                      }
                      return fd < 0 ? 1 : nisclose(fd) != 0 || nisunisam() != 0 ? 3 : 0;
                  }),
                  0);
    }
    int open() { return is_init() != 0 ? -1 : nisopen(path_.c_str(), ISO_RDWR); }
    std::string path_;
    unsigned ids_ = 0;
};

// A reader whose reads have stayed in the pool long enough runs them unarmed; the file
// is then cut short by another program, and the reader reads records from its end, each
// right after it went unarmed again (reads of one record in the pool): a read that needs
// a page of the mapping -- a leaf its directory names (a first pass without the lock
// filed them all), a page on the way down (a first pass with the lock filed none) --
// stops before it touches it and runs again armed, meets the cut there or reads what is
// left, as the locked read of the same record does; the reader lives on.
TEST_F(ReadSpeed, AnUnarmedReaderArmsBeforeTheMappingSoACutFileGivesErrorsNotASignal) {
    for (const bool locked_first : {true, false}) {
        SCOPED_TRACE(locked_first);
        start(40, 1500);
        kt::Pipe up, down;
        const pid_t r = kt::start_child([&] {
            up.close_read();
            down.close_write();
            const int fd = open();
            if (fd < 0) return 70;
            uint32_t g = 0;
            // Either pass maps the file (locked misses copy pages from it too).
            kisam::test_locked_reads = locked_first;
            for (unsigned id = 0; id < ids_; ++id)
                if (check(fd, id, &g) != 0 || g != 1) return 71;
            kisam::test_locked_reads = false;
            up.signal('r');
            down.wait();
            std::vector<char> buf(kBuf);
            unsigned failed = 0, tried = 0;
            const unsigned long faults0 = v_map_faults, rearmed0 = is_rearmed_reads;
            for (unsigned y = ids_ - 1; y >= 7 && tried < 150; y -= 7, ++tried) {
                // Record 0 into the pool (its pages lie before the cut), then read there
                // until the reads run unarmed.
                kisam::test_locked_reads = true;
                const int rc0 = check(fd, 0, &g);
                kisam::test_locked_reads = false;
                if (rc0 != 0) return 72;
                const unsigned long file0 = v_file_reads, unarmed0 = is_unarmed_reads;
                for (int i = 0; i < 20; ++i)
                    if (check(fd, 0, &g) != 0 || g != 1) return 73;
                if (v_file_reads != file0 || is_unarmed_reads == unarmed0) return 74;
                is_errno = 0;
                const int n = nisfind(fd, 0, kg::key0(y).data(), buf.data(), kBuf);
                const int err = is_errno;
                const std::string got(buf.data(), n > 0 ? static_cast<size_t>(n) : 0);
                kisam::test_locked_reads = true;
                is_errno = 0;
                const int locked = nisfind(fd, 0, kg::key0(y).data(), buf.data(), kBuf);
                kisam::test_locked_reads = false;
                if ((n < 0) != (locked < 0) || (n < 0 && (err != is_errno || (err != ISE_RDRD && err != ISE_BTS)))) {
                    std::fprintf(stderr, "id %u: %d (error %d), locked %d (error %d)\n", y, n, err, locked, is_errno);
                    return 75;
                }
                failed += n < 0;
                if (n >= 0 && got != kg::record(kL, y, 1)) return 76;
            }
            if (failed == 0 || failed == tried) return 77;
            if (is_rearmed_reads == rearmed0) return 78;  // it left the pool unarmed
            if (v_map_faults == faults0) return 79;        // and met the cut armed
            nisclose(fd);
            nisunisam();
            return 0;
        });
        up.close_write();
        down.close_read();
        ASSERT_EQ(up.wait(), 'r');
        struct stat st;
        ASSERT_EQ(::stat(path_.c_str(), &st), 0);
        ASSERT_EQ(::truncate(path_.c_str(), st.st_size / 2 / 4096 * 4096), 0);
        down.signal('g');
        EXPECT_EQ(kt::wait_child(r), 0);
    }
}

// Readers in a small pool take slots from each other (a load leaves the change count
// alone) while a writer updates records to new generations: where a reader last found a
// page is then mostly some other page's slot.  Every read returns a whole record, never
// one older than a generation the same reader saw before.
TEST_F(ReadSpeed, ReadersWhoseSlotsAreTakenReadOnlyWholeRecordsNeverOlder) {
    start(24, 900);
    const uint64_t seed = kt::test_seed(0x51075);
    constexpr int kReaders = 3, kReads = 3000;
    // First the readers alone, every miss loaded into the pool: a slot noted for a page
    // that now holds another is passed over for the page index, so that nearly every read
    // still stands without the lock (one whose slot changed under it while it read takes
    // the lock after two tries).
    for (int rc : workers(kReaders, [&](int w) {
             kisam::os.pread = plain_pread;
             const int fd = open();
             if (fd < 0) return 60;
             std::mt19937 rng(static_cast<unsigned>(seed) + 100 + static_cast<unsigned>(w));
             const unsigned long nolock0 = is_nolock_reads;
             for (int i = 0; i < kReads; ++i)
                 if (uint32_t g = 0; check(fd, static_cast<unsigned>(rng() % ids_), &g) != 0 || g != 1) return 61;
             if (is_nolock_reads - nolock0 < kReads * 9 / 10) {
                 std::fprintf(stderr, "reader %d: %lu of %d reads without the lock\n", w, is_nolock_reads - nolock0, kReads);
                 return 62;
             }
             nisclose(fd);
             nisunisam();
             return 0;
         }))
        EXPECT_EQ(rc, 0);
    for (int rc : workers(kReaders + 1, [&](int w) {
             const int fd = open();
             if (fd < 0) return 70;
             std::mt19937 rng(static_cast<unsigned>(seed) + static_cast<unsigned>(w));
             std::vector<uint32_t> seen(ids_, 1);
             std::vector<char> buf(kBuf);
             for (uint32_t gen = 2; w == kReaders && gen < 6; ++gen)   // the writer: generations 2..5 over random ids
                 for (int i = 0; i < 150; ++i) {
                     const std::string r = kg::record(kL, static_cast<unsigned>(rng() % ids_), gen);
                     if (nisupdate(fd, r.data(), static_cast<int>(r.size())) != 0) return 71;
                 }
             for (int i = 0; w < kReaders && i < 5000; ++i) {
                 const unsigned id = static_cast<unsigned>(rng() % ids_);
                 uint32_t g = 0;
                 if (const int rc = check(fd, id, &g); rc != 0 || g < seen[id]) {
                     std::fprintf(stderr, "reader %d, read %d: id %u: %d, generation %u after %u\n", w, i, id, rc, g, seen[id]);
                     return 72;
                 }
                 seen[id] = g;
                 // Now and then a step along key 1 from there, which moves the cursors'
                 // hints to pages the next reads of this process ask for.
                 if (i % 16 == 0 && nisread(fd, 1, buf.data(), kBuf) < 0) return 73;
             }
             nisclose(fd);
             nisunisam();
             return 0;
         }))
        EXPECT_EQ(rc, 0);
    EXPECT_TRUE(kt::sound(path_));
}

}  // namespace
