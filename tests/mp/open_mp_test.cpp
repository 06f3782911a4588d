// Attach, open and close between processes.
#include "../engine/open_fixture.h"

#include "is_common.h"
#include "is_file.h"
#include "is_heap.h"

#include <sys/shm.h>

#include <cstdio>
#include <cstring>

namespace {

using ot::Env;
using ot::stack_code;

class OpenMp : public Env {};

bool segment_exists(const kt::Installation& inst) { return ::shmget(inst.key(), 0, 0) >= 0; }

// Attach/detach races: an attach meeting the last detacher's removal would get a pool of
// its own, and increments under the control lock would be lost.
TEST_F(OpenMp, AttachingWhileTheLastDetacherLeavesKeepsOnePool) {
    kt::Installation& inst = *inst_;
    const std::string path = inst.path("count.ism");
    ASSERT_EQ(kt::run_child([&] {
                  int lens[1] = {8};
                  int fd = niscreate(path.c_str(), 1, lens);
                  if (fd < 0 || niswrite(fd, "counter\0\0\0\0\0", 12) != 0) return 1;
                  nisclose(fd);
                  return nisunisam() == 0 ? 0 : 2;
              }),
              0);
    constexpr int kProcs = 3;
    constexpr int kRounds = 1500;
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        kids.push_back(kt::start_child([&]() -> int {
            for (int r = 0; r < kRounds; ++r) {
                int fd = nisopen(path.c_str(), ISO_RDWR);
                if (fd < 0) return 10;
                char rec[12];
                if (nisgetctl(fd) != 0) return 11;
                if (nisfind(fd, 0, "counter\0", rec, sizeof rec) != 12) return 12;
                uint32_t n;
                std::memcpy(&n, rec + 8, 4);
                ++n;
                std::memcpy(rec + 8, &n, 4);
                if (nisupdate(fd, rec, sizeof rec) != 0) return 13;
                if (nisrelctl(fd) != 0) return 14;
                if (nisclose(fd) != 0) return 15;
                if (nisunisam() != 0) return 16;
            }
            return 0;
        }));
    }
    for (pid_t c : kids) EXPECT_EQ(kt::wait_child(c), 0);
    EXPECT_FALSE(segment_exists(inst));
    EXPECT_EQ(kt::run_child([&] {
                  int fd = nisopen(path.c_str(), ISO_RDONLY);
                  char rec[12];
                  if (fd < 0 || nisfind(fd, 0, "counter\0", rec, sizeof rec) != 12) return 1;
                  uint32_t n;
                  std::memcpy(&n, rec + 8, 4);
                  std::fprintf(stderr, "counter %u of %d\n", n, kProcs * kRounds);
                  nisunisam();
                  return n == kProcs * kRounds ? 0 : 2;
              }),
              0);
}

TEST_F(OpenMp, TwoProcessesShareOneSlot) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    const int u = is_db[fd]->uniqueid;
    kt::Pipe opened, go_close, closed, go_exit;
    pid_t child = kt::start_child([&] {
        ot::become_unattached();
        int cfd = nisopen(path("f").c_str(), ISO_RDWR);
        if (cfd < 0) return 1;
        if (is_db[cfd]->uniqueid != u) return 2;
        if (ot::pfi_of(cfd)->pfi_refcnt != 1) return 3;
        opened.signal();
        go_close.wait();
        if (nisclose(cfd) != 0) return 4;
        closed.signal();
        go_exit.wait();
        nisunisam();
        return 0;
    });
    ASSERT_EQ(opened.wait(), 'x');
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
    go_close.signal();
    ASSERT_EQ(closed.wait(), 'x');
    EXPECT_EQ(f->is_usecnt, 1);
    int keylens[1];
    EXPECT_EQ(nisstat(fd, 1, keylens), 1);
    EXPECT_EQ(nisclose(fd), 0);
    EXPECT_EQ(is_env.pfo_tbl[u], -1);
    fd = create("f", {4});
    EXPECT_GE(fd, 0) << "closed everywhere: create is allowed again";

    EXPECT_EQ(nisunisam(), 0);
    EXPECT_GE(::shmget(inst_->key(), 0, 0), 0);
    go_exit.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_LT(::shmget(inst_->key(), 0, 0), 0);
}

// The parent closes a file and opens another into its slot before its child's
// is_chinit: the child's handle must not lead to the second file.
TEST_F(OpenMp, AChildDoesNotTakeTheFileThatTookItsClosedFilesSlot) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    const int u = is_db[fd]->uniqueid;
    kt::Pipe go;
    pid_t child = kt::start_child([&] {
        go.wait();
        if (is_chinit() != 0) return 1;
        char buf[64];
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
    EXPECT_EQ(nisclose(g), 0);
}

// Holding a's control lock while a closer holding opcl_lock waits for it: our wait for
// opcl_lock is refused, holding nothing new.
TEST_F(OpenMp, RefusedWaitForOpclLockFailsCleanly) {
    int a = create("a", {4});
    int b = create("b", {4});
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
    short files = n_ufiles;
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
