// Open and close between processes: one shared slot per file, the use count, create
// refused while the file is open elsewhere, the segment going away with the last
// process, and a refused wait for opcl_lock.
#include "../engine/open_fixture.h"

#include "is_file.h"

#include <sys/shm.h>

namespace {

using ot::Env;
using ot::stack_code;

class OpenMp : public Env {};

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

    // Create is refused while any process has the file open.
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_EQ(f->is_usecnt, 1);
    EXPECT_EQ(is_env.pfo_tbl[u], static_cast<int32_t>(kisam::rel_of(f))) << "the child keeps it";
    EXPECT_EQ(create("f", {4}), -1);
    EXPECT_EQ(is_errno, ISE_CREATEISOPEN);

    // Reopening finds the same slot; the child's close leaves this process's handle.
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

    // The segment stays while the child is attached and goes with the last process.
    EXPECT_EQ(nisunisam(), 0);
    EXPECT_GE(::shmget(inst_->key(), 0, 0), 0);
    go_exit.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_LT(::shmget(inst_->key(), 0, 0), 0);
}

// This process holds a's control lock (nisgetctl) while another process, inside a close
// of a, holds opcl_lock and waits for that control lock.  Waiting for opcl_lock now would
// close a cycle: the kernel refuses it and the operation fails holding nothing new.
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
    // Wait until the child sleeps on a's control lock.
    for (bool asleep = false; !asleep; ::usleep(1000))
        for (int i = 0; i < isam_com->maxusers; ++i)
            asleep |= is_env.pid_[i] == child && is_env.needs_[i] != 0 &&
                      isam_com->opcl_lock == static_cast<uint32_t>(child);
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
