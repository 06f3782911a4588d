// Attach, open and close between processes.
#include "../engine/open_fixture.h"

#include "is_common.h"
#include "is_file.h"
#include "is_heap.h"

#include <sys/shm.h>

#include <cstring>

namespace {

using ot::stack_code;

class OpenMp : public ot::Env {};

// Attach/detach races: an attach meeting the last detacher's removal would get a pool of
// its own, and increments under the control lock would be lost.
TEST_F(OpenMp, AttachingWhileTheLastDetacherLeavesKeepsOnePool) {
    constexpr int kProcs = 3, kRounds = 1500;
    const std::string f = path("count.ism");
    int fd = create("count.ism", {8});
    ASSERT_EQ(niswrite(fd, "counter\0\0\0\0\0", 12), 0);
    ASSERT_EQ(nisclose(fd), 0);
    nisunisam();
    auto count = [&](int fd, uint32_t* n) {
        char rec[12];
        if (nisfind(fd, 0, "counter\0", rec, sizeof rec) != 12) return false;
        std::memcpy(n, rec + 8, 4);
        return true;
    };
    for (int st : workers(kProcs, [&](int) {
             for (int r = 0; r < kRounds; ++r) {
                 const int fd = nisopen(f.c_str(), ISO_RDWR);
                 uint32_t n;
                 if (fd < 0 || nisgetctl(fd) != 0 || !count(fd, &n)) return 10;
                 ++n;
                 char rec[12] = "counter";
                 std::memcpy(rec + 8, &n, 4);
                 if (nisupdate(fd, rec, sizeof rec) != 0 || nisrelctl(fd) != 0) return 11;
                 if (nisclose(fd) != 0 || nisunisam() != 0) return 12;
             }
             return 0;
         }))
        EXPECT_EQ(st, 0);
    EXPECT_LT(::shmget(inst_->key(), 0, 0), 0) << "the last detacher removed the segment";
    uint32_t n = 0;
    fd = nisopen(f.c_str(), ISO_RDONLY);
    ASSERT_TRUE(count(fd, &n));
    EXPECT_EQ(n, uint32_t(kProcs * kRounds));
}

TEST_F(OpenMp, TwoProcessesShareOneSlot) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    const int u = is_db[fd]->uniqueid;
    kt::Pipe up, down;   // the child's steps: opened, closed; the parent's: close, exit
    pid_t child = kt::start_child([&] {
        ot::become_unattached();
        const int cfd = nisopen(path("f").c_str(), ISO_RDWR);
        if (cfd < 0 || is_db[cfd]->uniqueid != u || ot::pfi_of(cfd)->pfi_refcnt != 1) return 1;
        up.signal();
        down.wait();
        if (nisclose(cfd) != 0) return 2;
        up.signal();
        down.wait();
        nisunisam();
        return 0;
    });
    ASSERT_EQ(up.wait(), 'x');
    IS_FCP* f = ot::shared_fcp(fd);
    EXPECT_EQ(f->is_usecnt, 2);
    EXPECT_EQ(ot::pfi_of(fd)->pfi_refcnt, 1);
    EXPECT_EQ(ot::attached_processes(), 2);
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_EQ(f->is_usecnt, 1);
    EXPECT_EQ(is_env.pfo_tbl[u], static_cast<int32_t>(kisam::rel_of(f))) << "the child keeps it";
    EXPECT_EQ(create("f", {4}), -1);
    EXPECT_EQ(is_errno, ISE_CREATEISOPEN);

    fd = nisopen(path("f").c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(is_db[fd]->uniqueid, u);
    down.signal();
    ASSERT_EQ(up.wait(), 'x');
    EXPECT_EQ(f->is_usecnt, 1);
    int keylens[1];
    EXPECT_EQ(nisstat(fd, 1, keylens), 1);
    EXPECT_EQ(nisclose(fd), 0);
    EXPECT_EQ(is_env.pfo_tbl[u], -1);
    EXPECT_GE(create("f", {4}), 0) << "closed everywhere: create is allowed again";
    EXPECT_EQ(nisunisam(), 0);
    EXPECT_GE(::shmget(inst_->key(), 0, 0), 0);
    down.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_LT(::shmget(inst_->key(), 0, 0), 0);
}

// The parent closes a file and opens another into its slot before its child's
// is_chinit: the child's handle must not lead to the second file.
TEST_F(OpenMp, AChildDoesNotTakeTheFileThatTookItsClosedFilesSlot) {
    const int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    const int u = is_db[fd]->uniqueid;
    kt::Pipe go;
    pid_t child = kt::start_child([&] {
        go.wait();
        char buf[64];
        if (is_chinit() != 0) return 1;
        if (nisread(fd, 0, buf, sizeof buf) >= 0) return 2;  // g's record, through f's handle
        nisunisam();
        return 0;
    });
    ASSERT_EQ(nisclose(fd), 0);
    const int g = create("g", {4});
    ASSERT_GE(g, 0);
    ASSERT_EQ(is_db[g]->uniqueid, u) << "g takes f's slot";
    ASSERT_EQ(niswrite(g, "gggg", 4), 0);
    go.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_EQ(ot::shared_fcp(g)->is_usecnt, 1) << "the child is no user of g";
}

// Holding a's control lock while a closer holding opcl_lock waits for it: our wait for
// opcl_lock is refused, holding nothing new.
TEST_F(OpenMp, RefusedWaitForOpclLockFailsCleanly) {
    const int a = create("a", {4}), b = create("b", {4});
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_EQ(nisgetctl(a), 0);
    kt::Pipe ready;
    pid_t child = kt::start_child([&] {
        if (is_chinit() != 0) return 1;
        ready.signal();
        return nisclose(a) == 0 ? 0 : 2;
    });
    ASSERT_EQ(ready.wait(), 'x');
    kt::await([&] { return kt::waiting(child) && isam_com->opcl_lock == static_cast<uint32_t>(child); }, 1 << 30);
    ::usleep(20000);  // the entry is set just before the child blocks
    const short files = n_ufiles;
    EXPECT_EQ(nisclose(b), -1);
    EXPECT_EQ(is_errno, ISE_DEADLOCK);
    EXPECT_EQ(stack_code(), 0x3101);
    EXPECT_EQ(n_ufiles, files);
    EXPECT_NE(isam_com->opcl_lock, static_cast<uint32_t>(is_pid));
    EXPECT_EQ(nisrelctl(a), 0);
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_EQ(ot::shared_fcp(a)->is_usecnt, 1);
    int keylens[1];
    EXPECT_EQ(nisstat(b, 1, keylens), 1) << "the refused close left b open";
}

}  // namespace
