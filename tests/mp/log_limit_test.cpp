// When a file's redo log is checkpointed: by default once the log has grown as large as
// the file itself (at least 64 MiB), so that a large file is not brought up to date on
// disk, with every page of it logged whole again afterwards, every 64 MiB of calls;
// with KISAM_LOG_LIMIT set, once it reaches that size whatever the file's.  Each call is
// watched: a checkpoint comes exactly when it is due, never earlier, never skipped.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "isx_area.h"
#include "kcheck.h"

#include <cstdlib>
#include <string>

namespace {

namespace ko = kt::oracle;
const ko::Layout kL{8, 0, 0};  // one key: the id
constexpr int kLen = 8000;     // eight pages a record: the file and its log grow fast
constexpr uint64_t kMiB = uint64_t{1} << 20;

// Sets (or, with null, removes) KISAM_LOG_LIMIT for the life of a scope; the library
// reads it when the process attaches.
struct LimitEnv {
    explicit LimitEnv(const char* v) {
        if (v) ::setenv("KISAM_LOG_LIMIT", v, 1);
        else ::unsetenv("KISAM_LOG_LIMIT");
    }
    ~LimitEnv() { ::unsetenv("KISAM_LOG_LIMIT"); }
};

// What the calls on one file did to its log's generation.
struct Watch {
    int calls = 0;
    int checkpoints = 0;
    int past = 0;          // checkpoints of a file larger than `past_at` bytes
    uint64_t past_at = 0;
};

// One changing call (op), checked against the rule: it checkpoints the file first exactly
// when the log held at least `limit(file's end)` bytes when it began.
template <class Op, class Limit>
void watched(int fd, Watch& w, Limit limit, Op op) {
    const isx_file* x = kisam::isx_file_of(is_db[fd]->uniqueid);
    const IS_FCP* fcp = ot::shared_fcp(fd);
    const uint32_t gen = x->xf_log_gen;
    const uint64_t bytes = x->xf_log_end - x->xf_log_start;
    const uint64_t last = fcp->is_lastpage;
    ASSERT_EQ(op(), 0) << "call " << w.calls << ": " << is_errno;
    ++w.calls;
    const bool due = bytes >= limit(last);
    const bool done = x->xf_log_gen != gen;
    ASSERT_EQ(done, due) << "call " << w.calls << ": log of " << bytes << " bytes, file of " << last
                         << " bytes, limit " << limit(last);
    if (done) {
        ++w.checkpoints;
        if (last > w.past_at) ++w.past;
    }
}

class LogLimit : public ot::Env {};

// By default: the first checkpoint at 64 MiB of log while the file is smaller; once the
// file is larger, not before the log is as large as the file.  Every record reads back.
TEST_F(LogLimit, ALogGrowsAsLargeAsItsFileBeforeACheckpoint) {
    bound(300);
    const LimitEnv env(nullptr);
    int fd = create("f", {8});
    ASSERT_GE(fd, 0) << is_errno;
    Watch w;
    w.past_at = 65 * kMiB;  // well past 64 MiB: a limit stuck there would show
    const auto limit = [](uint64_t last) { return last < 64 * kMiB ? 64 * kMiB : last; };
    int n = 0;
    // Inserts until the file passes 66 MiB, then updates in turn (each logs its record's
    // pages again) until the log has caught up with the file once more.
    while (ot::shared_fcp(fd)->is_lastpage < 66 * kMiB) {
        watched(fd, w, limit, [&] { return niswrite(fd, ko::record(kL, n, 0, kLen).data(), kLen); });
        if (HasFatalFailure()) return;
        ++n;
    }
    for (int i = 0, gen = 1; w.past < 1; ++i) {
        ASSERT_LT(i, 4 * n) << "the log never caught up with the file";
        if (i == n) i = 0, ++gen;
        watched(fd, w, limit, [&] { return nisupdate(fd, ko::record(kL, i, gen, kLen).data(), kLen); });
        if (HasFatalFailure()) return;
    }
    EXPECT_GE(w.checkpoints, 2) << "no checkpoint while the file was below 64 MiB";
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
    Watch w;
    w.past_at = 2 * kMiB;
    const auto limit = [](uint64_t) { return kMiB; };
    for (int i = 0; i < 600; ++i) {
        watched(fd, w, limit, [&] { return niswrite(fd, ko::record(kL, i, 0, kLen).data(), kLen); });
        if (HasFatalFailure()) return;
    }
    EXPECT_GE(w.past, 2) << "no checkpoint of a file larger than the limit";
    for (int i = 0; i < 600; i += 37) EXPECT_NE(ko::find(fd, kL, i).gen, -1) << i;
    EXPECT_EQ(nisclose(fd), 0);
}

}  // namespace
