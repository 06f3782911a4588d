// The redo log's size: it grows ahead of its records by zeros, outside the control lock,
// each growth synced on its own; and it is checkpointed when it reaches its limit.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "isx_area.h"
#include "kcheck.h"
#include "os.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

namespace ko = kt::oracle;
const ko::Layout kL{8, 0, 0};   // one key: the id
constexpr int kLen = 900;       // records big enough that the log passes several MiB
constexpr uint64_t kMiB = uint64_t{1} << 20;

int put(int fd, int id) { return niswrite(fd, ko::record(kL, id, 0, kLen).data(), kLen); }
bool present(int fd, int id) { return ko::find(fd, kL, id) == ko::Rec{0, kLen}; }
using kt::Durable;

// What the watched process did to its log.
struct Watch {
    off_t size = 0;            // the log's size as its writes made it
    off_t synced_size = 0;     // ... at the last sync that followed a growth
    off_t largest = 0;         // the largest growth so synced: one stretch
    int grew = 0;              // writes that took the log past its size
    int grew_nonzero = 0;      // ... with anything but zeros in them
    int grew_under_lock = 0;   // ... while the file's control lock was held
    int growths = 0;           // syncs that followed a growth: one per stretch
    int syncs = 0;             // syncs of the log
    int mixed = 0;             // growths whose sync came after a write of a record
    bool grown = false;        // a growth since the log's last sync
    bool wrote_after = false;  // ... and a record written after it
};
Watch w;

using kt::is_log_fd;

ssize_t watched_pwrite(int fd, const void* buf, size_t n, off_t off) {
    if (is_log_fd(fd)) {
        struct stat st;
        if (::fstat(fd, &st) == 0 && off + static_cast<off_t>(n) > st.st_size) {
            ++w.grew;
            w.grown = true;
            w.size = std::max(w.size, off + static_cast<off_t>(n));
            const char* p = static_cast<const char*>(buf);
            if (std::any_of(p, p + n, [](char c) { return c != 0; })) ++w.grew_nonzero;
            if (isx_area && std::atomic_ref<uint32_t>(kisam::isx_file_of(0)->xf_ctl_word).load() != 0)
                ++w.grew_under_lock;
        } else if (w.grown) {
            w.wrote_after = true;
        }
    }
    return kisam::os_real.pwrite(fd, buf, n, off);
}

int watched_fdatasync(int fd) {
    if (is_log_fd(fd)) {
        ++w.syncs;
        if (w.grown) {
            ++w.growths;
            if (w.wrote_after) ++w.mixed;
            w.largest = std::max(w.largest, w.size - w.synced_size);
            w.synced_size = w.size;
        }
        w.grown = w.wrote_after = false;
    }
    return kisam::os_real.fdatasync(fd);
}

class LogZeros : public ot::Env {
protected:
    int watched_file() {
        const int fd = create("f", {8});
        w = Watch();
        kisam::os.pwrite = watched_pwrite;
        kisam::os.fdatasync = watched_fdatasync;
        return fd;
    }
    static void growths_kept_apart() {
        EXPECT_EQ(w.grew_nonzero, 0) << "a record was written past the log's size";
        EXPECT_EQ(w.grew_under_lock, 0) << "a call grew the log while it held the control lock";
        EXPECT_EQ(w.mixed, 0) << "a record was written between a growth and its sync";
    }
    void TearDown() override {
        kisam::os = kisam::os_real;
        ot::Env::TearDown();
    }
};

// One writer takes its log past 24 MiB, syncing every few calls at first: every growth
// is zeros alone, outside the control lock, synced on its own and never with a record;
// past the first MiBs it grows by stretches of a quarter of what is written (a dozen
// syncs, not 24).
TEST_F(LogZeros, GrowthIsSyncedOnItsOwnOutsideTheControlLockByLargerStretches) {
    int fd = watched_file();
    ASSERT_GE(fd, 0) << is_errno;
    constexpr int kSyncedCalls = 1800;
    const off_t target = 24 * kMiB;
    int calls = 0;
    for (; w.size < target && calls < 100000; ++calls) {
        ASSERT_EQ(put(fd, calls), 0) << calls << " " << is_errno;
        if (calls < kSyncedCalls && calls % 8 == 7) {
            ASSERT_EQ(kisam_sync(), 0) << calls;
        }
    }
    kisam::os = kisam::os_real;
    std::printf("%d calls, %d growths to %lld MiB, the largest %lld MiB\n", calls, w.growths,
                static_cast<long long>(w.size / kMiB), static_cast<long long>(w.largest / kMiB));
    ASSERT_GE(w.size, target) << "the log never grew that far: the test proves nothing";
    EXPECT_GE(w.syncs, kSyncedCalls / 8);
    EXPECT_LE(w.growths, 16) << "the log grew by small stretches, a sync each";
    EXPECT_GE(w.largest, off_t{4 * kMiB});
    EXPECT_LE(w.largest, off_t{8 * kMiB}) << "a stretch larger than the disk should be asked for at once";
    growths_kept_apart();
    for (int i = 0; i < calls; i += 97) EXPECT_TRUE(present(fd, i)) << i;
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_TRUE(kt::sound(path("f")));
}

// One writer idle while others take the log past every size it saw, then all killed:
// the replay gives every call back (zeros over a record would end it early).
TEST_F(LogZeros, ZerosWrittenAheadNeverCoverARecordOfAnother) {
    constexpr int kWriters = 3, kEach = 700, kLate = 40;
    const std::string file = made("f", {8});
    kt::Pipe done, go;
    const std::vector<pid_t> kids = spawn(kWriters, [&](int k) {
        int fd = nisopen(file.c_str(), ISO_RDWR);
        if (fd < 0) return 1;
        const int first = k == 0 ? kLate : kEach;
        for (int i = 0; i < first; ++i)
            if (put(fd, k * 10000 + i) != 0) return 2;
        done.signal();
        if (k == 0) {
            if (go.wait() != 'x') return 3;
            for (int i = kLate; i < 2 * kLate; ++i)
                if (put(fd, i) != 0) return 2;
            done.signal();
        }
        for (;;) ::pause();
    });
    done.close_write();
    go.close_read();
    for (int k = 0; k < kWriters; ++k) ASSERT_EQ(done.wait(), 'x') << "a writer failed";
    go.signal();
    ASSERT_EQ(done.wait(), 'x') << "the late writer failed";
    for (pid_t k : kids) {
        held_.push_back(k);
        kill(k);
    }
    struct stat st;
    ASSERT_EQ(::stat((inst_->config_path() + ".lk.w0").c_str(), &st), 0);
    EXPECT_GT(st.st_size, off_t{2} << 20) << "the log never grew while others appended";
    inst_->remove_segment();

    ASSERT_EQ(is_init(), 0) << is_errno;
    struct kisam_recovery r;
    ASSERT_EQ(kisam_last_recovery(&r), 0);
    const int calls = (kWriters - 1) * kEach + 2 * kLate;
    EXPECT_EQ(r.calls, calls);
    EXPECT_TRUE(kt::sound(file));
    ko::Model want;
    for (int i = 0; i < 2 * kLate; ++i) want[i] = ko::Rec{0, kLen};
    for (int k = 1; k < kWriters; ++k)
        for (int i = 0; i < kEach; ++i) want[k * 10000 + i] = ko::Rec{0, kLen};
    EXPECT_TRUE(ko::holds(file, kL, want));
}

// A disk full for the log's growth: the call that finds no room fails with its code and
// nothing kept, never a store past the end (SIGBUS); a growth falls back to what it needs.
// Full past the first stretch, and past 9 MiB (a stretch of 2 MiB where one fits).
off_t g_room;
ssize_t full_past_room(int fd, const void* buf, size_t n, off_t off) {
    if (is_log_fd(fd) && off + static_cast<off_t>(n) > g_room) {
        errno = ENOSPC;
        return -1;
    }
    return kisam::os_real.pwrite(fd, buf, n, off);
}

TEST_F(LogZeros, AFullDiskFailsTheCallThatFindsNoRoomNeverAStorePastTheEnd) {
    for (const off_t room : {off_t{1 * kMiB}, off_t{9 * kMiB}}) {
        SCOPED_TRACE("the disk full past " + std::to_string(room / kMiB) + " MiB");
        const std::string name = "f" + std::to_string(room / kMiB);
        int fd = create(name, {8});
        ASSERT_GE(fd, 0) << is_errno;
        g_room = room;
        kisam::os.pwrite = full_past_room;
        const int most = static_cast<int>(2 * room / kLen);
        int stored = 0, code = 0;
        for (; stored < most; ++stored)
            if (put(fd, stored) != 0) {
                code = is_errno;
                break;
            }
        ASSERT_LT(stored, most) << "the log never met the full disk: the test proves nothing";
        EXPECT_EQ(code, ISE_FLWT);
        EXPECT_EQ(std::atomic_ref<uint64_t>(kisam::isx_sync_of(0)->xs_zeros).load(), static_cast<uint64_t>(room))
            << "the zeros stopped short of what the disk could hold";
        EXPECT_FALSE(present(fd, stored)) << "the failed call left its record";
        kisam::os = kisam::os_real;
        for (int i = stored; i < stored + 200; ++i) ASSERT_EQ(put(fd, i), 0) << i << " " << is_errno;
        for (int i = 0; i < stored + 200; i += 7) EXPECT_TRUE(present(fd, i)) << i;
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
        EXPECT_TRUE(kt::sound(path(name)));
    }
}

// ---- when the log is checkpointed: exactly when due, never earlier, never skipped -------

constexpr int kBig = 8000;   // eight pages a record: the file and its log grow fast

// KISAM_LOG_LIMIT for a scope (null removes it); read at attach.
struct LimitEnv {
    explicit LimitEnv(const char* v) {
        if (v) ::setenv("KISAM_LOG_LIMIT", v, 1);
        else ::unsetenv("KISAM_LOG_LIMIT");
    }
    ~LimitEnv() { ::unsetenv("KISAM_LOG_LIMIT"); }
};

// What the calls on one file did to its log's generation.
struct Checkpoints {
    int calls = 0;
    int checkpoints = 0;
    int past = 0;          // checkpoints of a file larger than `past_at` bytes
    uint64_t past_at = 0;
};

// op checkpoints first exactly when the log held at least limit(file's end) bytes.
template <class Op, class Limit>
void watched(int fd, Checkpoints& cp, Limit limit, Op op) {
    const isx_file* x = kisam::isx_file_of(is_db[fd]->uniqueid);
    const IS_FCP* fcp = ot::shared_fcp(fd);
    const uint32_t gen = x->xf_log_gen;
    const uint64_t bytes = x->xf_log_end - x->xf_log_start;
    const uint64_t last = fcp->is_lastpage;
    ASSERT_EQ(op(), 0) << "call " << cp.calls << ": " << is_errno;
    ++cp.calls;
    const bool due = bytes >= limit(last);
    const bool done = x->xf_log_gen != gen;
    ASSERT_EQ(done, due) << "call " << cp.calls << ": log of " << bytes << " bytes, file of " << last
                         << " bytes, limit " << limit(last);
    if (done) {
        ++cp.checkpoints;
        if (last > cp.past_at) ++cp.past;
    }
}

class LogLimit : public ot::Env {};

// By default the limit is the file's size, at least 64 MiB.
TEST_F(LogLimit, ALogGrowsAsLargeAsItsFileBeforeACheckpoint) {
    bound(300);
    const LimitEnv env(nullptr);
    int fd = create("f", {8});
    ASSERT_GE(fd, 0) << is_errno;
    Checkpoints cp;
    cp.past_at = 65 * kMiB;  // well past 64 MiB: a limit stuck there would show
    const auto limit = [](uint64_t last) { return last < 64 * kMiB ? 64 * kMiB : last; };
    int n = 0;
    // Inserts past 66 MiB, then updates until the log catches up with the file.
    while (ot::shared_fcp(fd)->is_lastpage < 66 * kMiB) {
        watched(fd, cp, limit, [&] { return niswrite(fd, ko::record(kL, n, 0, kBig).data(), kBig); });
        if (HasFatalFailure()) return;
        ++n;
    }
    for (int i = 0, gen = 1; cp.past < 1; ++i) {
        ASSERT_LT(i, 4 * n) << "the log never caught up with the file";
        if (i == n) i = 0, ++gen;
        watched(fd, cp, limit, [&] { return nisupdate(fd, ko::record(kL, i, gen, kBig).data(), kBig); });
        if (HasFatalFailure()) return;
    }
    EXPECT_GE(cp.checkpoints, 2) << "no checkpoint while the file was below 64 MiB";
    for (int i = 0; i < n; i += 61) EXPECT_NE(ko::find(fd, kL, i).gen, -1) << i;
    EXPECT_EQ(nisclose(fd), 0);
    const kisam::check::Report r = kisam::check::check_file(path("f"));
    EXPECT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.records, n);
}

// KISAM_LOG_LIMIT sets the limit whatever the file's size: 1 MiB here, below the file.
TEST_F(LogLimit, KisamLogLimitSetsItWhateverTheFilesSize) {
    bound(120);
    const LimitEnv env("1048576");
    int fd = create("f", {8});
    ASSERT_GE(fd, 0) << is_errno;
    Checkpoints cp;
    cp.past_at = 2 * kMiB;
    const auto limit = [](uint64_t) { return kMiB; };
    for (int i = 0; i < 600; ++i) {
        watched(fd, cp, limit, [&] { return niswrite(fd, ko::record(kL, i, 0, kBig).data(), kBig); });
        if (HasFatalFailure()) return;
    }
    EXPECT_GE(cp.past, 2) << "no checkpoint of a file larger than the limit";
    for (int i = 0; i < 600; i += 37) EXPECT_NE(ko::find(fd, kL, i).gen, -1) << i;
    EXPECT_EQ(nisclose(fd), 0);
}

}  // namespace
