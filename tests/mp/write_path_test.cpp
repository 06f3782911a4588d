// The costs a changing call's path pays apart from its own work: here, the growth of the
// redo log.  Each growth of the log's zeros waits for a sync of its own, so a log that
// grows large must grow by larger stretches -- still zeros only, each synced before any
// record lands in it, never while the control lock is held.  The log's writes and syncs
// are watched through the OS layer.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "isx_area.h"
#include "kcheck.h"
#include "os.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

namespace {

namespace ko = kt::oracle;
const ko::Layout kL{8, 0, 0};  // one key: the id
constexpr int kLen = 900;      // records big enough that the log passes many MiB
constexpr off_t kMiB = off_t{1} << 20;

// What the process did to its log (the file whose name ends in ".w0").
struct Growth {
    off_t size = 0;           // the log's size as its writes made it
    off_t synced_size = 0;    // ... at its last sync that followed a growth
    int growths = 0;          // syncs that followed a growth: one per stretch
    off_t largest = 0;        // the largest stretch so synced
    int nonzero = 0;          // growths with anything but zeros in them
    int under_lock = 0;       // growths while the file's control lock was held
    int mixed = 0;            // growths whose sync came after a write below the size
    bool grown = false;       // a growth since the last sync
    bool wrote_after = false; // ... and a write below the size after it
};
Growth g;

bool is_log(int fd) {
    char link[64], name[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = ::readlink(link, name, sizeof name - 1);
    if (n <= 0) return false;
    name[n] = '\0';
    const size_t len = static_cast<size_t>(n);
    return len > 3 && std::strcmp(name + len - 3, ".w0") == 0;
}

ssize_t watched_pwrite(int fd, const void* buf, size_t n, off_t off) {
    if (is_log(fd)) {
        struct stat st;
        if (::fstat(fd, &st) == 0 && off + static_cast<off_t>(n) > st.st_size) {
            g.grown = true;
            g.size = std::max(g.size, off + static_cast<off_t>(n));
            const char* p = static_cast<const char*>(buf);
            if (std::any_of(p, p + n, [](char c) { return c != 0; })) ++g.nonzero;
            if (isx_area && std::atomic_ref<uint32_t>(kisam::isx_file_of(0)->xf_ctl_word).load() != 0)
                ++g.under_lock;
        } else if (g.grown) {
            g.wrote_after = true;
        }
    }
    return kisam::os_real.pwrite(fd, buf, n, off);
}

int watched_fdatasync(int fd) {
    if (is_log(fd) && g.grown) {
        ++g.growths;
        if (g.wrote_after) ++g.mixed;
        g.largest = std::max(g.largest, g.size - g.synced_size);
        g.synced_size = g.size;
        g.grown = g.wrote_after = false;
    }
    return kisam::os_real.fdatasync(fd);
}

class WritePath : public ot::Env {
protected:
    void TearDown() override {
        kisam::os = kisam::os_real;
        ot::Env::TearDown();
    }
};

// One writer takes its log past 24 MiB.  Grown a MiB at a time that would be 24 syncs of
// zeros; in stretches of a quarter of what is written it is about a dozen, the last
// ones several MiB each -- and every stretch is still zeros alone, written outside the
// control lock and synced before any record lands in it.  Every call is in the file.
TEST_F(WritePath, ALargeLogGrowsByLargerStretchesEachSyncedOnItsOwn) {
    int fd = create("f", {8});
    ASSERT_GE(fd, 0) << is_errno;
    g = Growth();
    kisam::os.pwrite = watched_pwrite;
    kisam::os.fdatasync = watched_fdatasync;
    int calls = 0;
    for (; g.size < 24 * kMiB && calls < 100000; ++calls)
        ASSERT_EQ(niswrite(fd, ko::record(kL, calls, 0, kLen).data(), kLen), 0) << calls << " " << is_errno;
    kisam::os = kisam::os_real;
    std::printf("%d calls, %d growths to %lld MiB, the largest %lld MiB\n", calls, g.growths,
                static_cast<long long>(g.size / kMiB), static_cast<long long>(g.largest / kMiB));
    ASSERT_GE(g.size, 24 * kMiB) << "the log never grew that far: the test proves nothing";
    EXPECT_LE(g.growths, 16) << "the log grew by small stretches, a sync each";
    EXPECT_GE(g.largest, 4 * kMiB);
    EXPECT_LE(g.largest, 8 * kMiB) << "a stretch larger than the disk should be asked for at once";
    EXPECT_EQ(g.nonzero, 0) << "a record was written past the log's size";
    EXPECT_EQ(g.under_lock, 0) << "a call grew the log while it held the control lock";
    EXPECT_EQ(g.mixed, 0) << "a record was written between a growth and its sync";
    for (int i = 0; i < calls; i += 211) EXPECT_TRUE(ko::find(fd, kL, i) == (ko::Rec{0, kLen})) << i;
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_TRUE(kt::sound(path("f")));
}

// A disk with room for the zeros a record needs but not for the whole stretch: the
// growth falls back to what was asked for, so the calls go on as far as the disk allows
// rather than failing a stretch short of it.  Past that, the call that finds no room
// fails having changed nothing, and every call that returned is in the file.
ssize_t full_past_9mib(int fd, const void* buf, size_t n, off_t off) {
    if (is_log(fd) && off + static_cast<off_t>(n) > 9 * kMiB) {
        errno = ENOSPC;
        return -1;
    }
    return kisam::os_real.pwrite(fd, buf, n, off);
}

TEST_F(WritePath, ADiskWithNoRoomForAWholeStretchStillTakesWhatARecordNeeds) {
    int fd = create("f", {8});
    ASSERT_GE(fd, 0) << is_errno;
    kisam::os.pwrite = full_past_9mib;
    int stored = 0, code = 0;
    for (; stored < 40000; ++stored) {
        if (niswrite(fd, ko::record(kL, stored, 0, kLen).data(), kLen) != 0) {
            code = is_errno;
            break;
        }
    }
    kisam::os = kisam::os_real;
    ASSERT_LT(stored, 40000) << "the log never met the full disk: the test proves nothing";
    EXPECT_EQ(code, ISE_FLWT);
    // From 8 MiB the stretch would be 2 MiB, of which only one fits.
    EXPECT_EQ(std::atomic_ref<uint64_t>(kisam::isx_sync_of(0)->xs_zeros).load(), static_cast<uint64_t>(9 * kMiB))
        << "the zeros stopped short of what the disk could hold";
    EXPECT_FALSE(ko::find(fd, kL, stored) == (ko::Rec{0, kLen})) << "the failed call left its record";
    for (int i = 0; i < stored; i += 97) EXPECT_TRUE(ko::find(fd, kL, i) == (ko::Rec{0, kLen})) << i;
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_TRUE(kt::sound(path("f")));
}

}  // namespace
