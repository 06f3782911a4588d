// What the fast path of reads without the lock must keep: a read that runs unarmed for
// faults in the files' mappings (a process whose reads have all stayed in the pool)
// never touches a mapping, so that a file cut short under it still gives errors, never a
// signal.
#include "genrec.h"
#include "is_error.h"
#include "is_rec.h"
#include "kisam_test.h"
#include "test_hook.h"
#include "v_pool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

namespace kg = kt::gen;
// One record in ten spans overflow pages.
const kg::Layout kL{.k1 = 1000, .big = 10, .big_len = 1100, .small_len = 40, .small_span = 200};
constexpr int kBuf = 4000;

// Reads id by key 0: 0 when it holds a whole record of id at some generation (*gen).
int check(int fd, unsigned id, uint32_t* gen) { return kg::find(fd, kL, id, gen) > 0 ? 0 : 1; }

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

}  // namespace
