// The redo log as a program sees it: kisam_sync puts what the process committed on disk,
// durable mode waits for the disk at every changing call and lets processes that end
// their calls together share a sync, and a segment made anew replays what killed
// processes left in the logs (kisam_last_recovery tells).
#include "../engine/open_fixture.h"

#include "kcheck.h"
#include "os.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string rec(int id, char fill = 'r') {
    char r[48];
    std::snprintf(r, sizeof r, "%08d", id);
    std::memset(r + 8, fill, sizeof r - 8);
    return std::string(r, sizeof r);
}
int put(int fd, int id, char fill = 'r') {
    std::string r = rec(id, fill);
    return niswrite(fd, r.data(), static_cast<int>(r.size()));
}
// 0: the record is there as put; 1: absent; 2: something else.
int look(int fd, int id, char fill = 'r') {
    std::string want = rec(id, fill), got(want.size(), '\0');
    const int n = nisfind(fd, 0, want.data(), got.data(), static_cast<int>(got.size()));
    return n == static_cast<int>(want.size()) && got == want ? 0 : n == 0 ? 1 : 2;
}
int syncs() { return kt::Faults::calls(kt::Faults::kSync); }

// Sets KISAM_DURABLE for the life of a scope (read at start-up).
struct Durable {
    explicit Durable(const char* v) { ::setenv("KISAM_DURABLE", v, 1); }
    ~Durable() { ::unsetenv("KISAM_DURABLE"); }
};

class Log : public ot::Env {};

// A call of the default mode waits for no disk; kisam_sync does, once for what is new,
// not at all when nothing is; a sync that fails is reported and not taken for done.
TEST_F(Log, SyncPutsWhatTheProcessCommittedOnDisk) {
    int fd = create("f", {8});
    ASSERT_GE(fd, 0) << is_errno;
    kt::Faults f;
    ASSERT_EQ(put(fd, 1), 0);
    ASSERT_EQ(put(fd, 2), 0);
    EXPECT_EQ(syncs(), 0) << "a call of the default mode waited for the disk";
    ASSERT_EQ(kisam_sync(), 0);
    EXPECT_EQ(syncs(), 1);
    ASSERT_EQ(kisam_sync(), 0);
    EXPECT_EQ(syncs(), 1) << "nothing new since the last sync";

    ASSERT_EQ(put(fd, 3), 0);
    f.arm(kt::Faults::kSync, 1, kt::Faults::kOnce);
    EXPECT_EQ(kisam_sync(), -1);
    EXPECT_TRUE(kt::Faults::hit());
    f.disarm();
    ASSERT_EQ(kisam_sync(), 0);
    EXPECT_EQ(syncs(), 1) << "the failed sync counted as done";
    EXPECT_EQ(look(fd, 3), 0);
    EXPECT_EQ(nisclose(fd), 0);
}

// KISAM_DURABLE=1: every changing call returns after one sync of its record; reads sync
// nothing.  KISAM_DURABLE=0 overrides nothing it did not set: no sync per call.
TEST_F(Log, DurableModeSyncsEveryChangingCall) {
    {
        Durable d("1");
        int fd = create("f", {8});
        ASSERT_GE(fd, 0) << is_errno;
        kt::Faults f;
        for (int i = 0; i < 5; ++i) ASSERT_EQ(put(fd, i), 0);
        EXPECT_EQ(syncs(), 5);
        std::string r = rec(2, 'u');
        ASSERT_EQ(nisupdate(fd, r.data(), static_cast<int>(r.size())), 0);
        ASSERT_EQ(nisdelete(fd, rec(3).data()), 0);
        EXPECT_EQ(syncs(), 7);
        EXPECT_EQ(look(fd, 1), 0);
        EXPECT_EQ(look(fd, 2, 'u'), 0);
        EXPECT_EQ(syncs(), 7) << "a read synced";
        // The sync after the commit fails: the call says so, though its change stands.
        f.arm(kt::Faults::kSync, 1, kt::Faults::kOnce);
        EXPECT_EQ(put(fd, 9), -1);
        EXPECT_TRUE(kt::Faults::hit());
        f.disarm();
        EXPECT_EQ(look(fd, 9), 0);
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
    }
    Durable d("0");
    int fd = nisopen(path("f").c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0) << is_errno;
    kt::Faults f;
    for (int i = 10; i < 15; ++i) ASSERT_EQ(put(fd, i), 0);
    EXPECT_EQ(syncs(), 0);
    EXPECT_EQ(nisclose(fd), 0);
}

// Four durable writers on one file whose disk takes 2 ms a sync: calls that end while
// a sync runs are covered by the next one, so the writers sync fewer times than they
// call; and every record is there.
std::atomic<int>* g_syncs = nullptr;
int slow_sync(int fd) {
    ::usleep(2000);
    g_syncs->fetch_add(1);
    return kisam::os_real.fdatasync(fd);
}

TEST_F(Log, DurableWritersShareSyncs) {
    constexpr int kWriters = 4, kCalls = 40;
    const std::string file = path("shared");
    {
        int fd = create("shared", {8});
        ASSERT_GE(fd, 0);
        ASSERT_EQ(nisclose(fd), 0);
        nisunisam();
    }
    void* m = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(m, MAP_FAILED);
    g_syncs = new (m) std::atomic<int>(0);
    kt::Pipe go;
    pid_t kids[kWriters];
    for (int w = 0; w < kWriters; ++w) {
        kids[w] = kt::start_child([&, w] {
            go.close_write();
            ::setenv("KISAM_DURABLE", "1", 1);
            int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            if (go.wait() != 'x') return 2;
            kisam::os.fdatasync = slow_sync;
            for (int i = 0; i < kCalls; ++i)
                if (put(fd, w * 1000 + i) != 0) return 3;
            kisam::os.fdatasync = kisam::os_real.fdatasync;
            nisclose(fd);
            nisunisam();
            return 0;
        });
    }
    go.close_read();
    for (int w = 0; w < kWriters; ++w) go.signal();
    for (pid_t k : kids) EXPECT_EQ(kt::wait_child(k), 0);
    const int total = g_syncs->load();
    std::printf("%d durable calls, %d syncs\n", kWriters * kCalls, total);
    EXPECT_GE(total, kCalls) << "a writer returned before its record was synced";
    EXPECT_LT(total, kWriters * kCalls) << "no sync was shared";
    ::munmap(m, sizeof(std::atomic<int>));
    g_syncs = nullptr;
    int fd = nisopen(file.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    for (int w = 0; w < kWriters; ++w)
        for (int i = 0; i < kCalls; ++i) EXPECT_EQ(look(fd, w * 1000 + i), 0) << w << " " << i;
    EXPECT_EQ(nisclose(fd), 0);
}

// Two processes commit calls to one file and are killed before any page reached the
// file; the segment goes (ipcrm).  The next to attach replays the log: the file checks
// sound with every record, before anyone opens it, and kisam_last_recovery says what
// was replayed.  The next segment made anew finds nothing left to replay.
TEST_F(Log, ASegmentMadeAnewReplaysTheLogsOfKilledProcesses) {
    constexpr int kEach = 30;
    const std::string file = path("f");
    {
        int fd = create("f", {8});
        ASSERT_GE(fd, 0);
        ASSERT_EQ(nisclose(fd), 0);
        nisunisam();
    }
    kt::Pipe ready;
    pid_t kids[2];
    for (int k = 0; k < 2; ++k) {
        kids[k] = kt::start_child([&, k] {
            ready.close_read();
            int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            for (int i = 0; i < kEach; ++i)
                if (put(fd, k * 1000 + i) != 0) return 2;
            ready.signal();
            for (;;) ::pause();
        });
    }
    ready.close_write();
    for (int k = 0; k < 2; ++k) ASSERT_EQ(ready.wait(), 'x');
    kisam::check::Report before = kisam::check::check_file(file);
    EXPECT_EQ(before.records, 0) << "pages reached the file: the test proves nothing";
    for (pid_t k : kids) {
        ::kill(k, SIGKILL);
        EXPECT_EQ(kt::wait_child(k), 128 + SIGKILL);
    }
    inst_->remove_segment();

    ASSERT_EQ(is_init(), 0) << is_errno;
    struct kisam_recovery r;
    ASSERT_EQ(kisam_last_recovery(&r), 0);
    EXPECT_EQ(r.self, 1);
    EXPECT_EQ(r.logs, 1);
    EXPECT_EQ(r.calls, 2 * kEach);
    EXPECT_GT(r.pages, 0);
    kisam::check::Report after = kisam::check::check_file(file);
    EXPECT_TRUE(after.ok) << after.error;
    EXPECT_EQ(after.records, 2 * kEach);
    int fd = nisopen(file.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    for (int k = 0; k < 2; ++k)
        for (int i = 0; i < kEach; ++i) EXPECT_EQ(look(fd, k * 1000 + i), 0) << k << " " << i;
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();

    ASSERT_EQ(is_init(), 0);
    ASSERT_EQ(kisam_last_recovery(&r), 0);
    EXPECT_EQ(r.self, 0);
    EXPECT_EQ(r.logs, 0) << "replayed twice";
}

}  // namespace
