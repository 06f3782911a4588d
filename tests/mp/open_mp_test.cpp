// Open and close between processes: one shared slot per file, the use count, create
// refused while the file is open elsewhere, a child after fork, a full shared-file table,
// and the segment going away with the last process.
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

TEST_F(OpenMp, ForkedChildCountsAsAUserOfItsFiles) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    IS_FCP* f = ot::shared_fcp(fd);
    EXPECT_EQ(kt::run_child([&] {
                  if (is_chinit() != 0) return 1;
                  if (is_pid != ::getpid()) return 2;
                  if (f->is_usecnt != 2) return 3;
                  if (ot::attached_processes() != 2) return 4;
                  if (nisgetctl(fd) != 0 || nisrelctl(fd) != 0) return 5;
                  nisunisam();
                  return 0;
              }),
              0);
    EXPECT_EQ(f->is_usecnt, 1);
    EXPECT_EQ(ot::attached_processes(), 1);
    // nisexit closes everything on the way out.
    EXPECT_EQ(kt::run_child([&] {
                  if (is_chinit() != 0) return 1;
                  nisexit(3);
                  return 4;
              }),
              3);
    EXPECT_EQ(f->is_usecnt, 1);
    EXPECT_EQ(ot::attached_processes(), 1);
    EXPECT_EQ(nisclose(fd), 0);
}

TEST_F(OpenMp, FullSharedFileTable) {
    kt::Config c;
    c.maxopen = 2;
    start(c);
    ASSERT_GE(create("a", {4}), 0);
    ASSERT_GE(create("b", {4}), 0);
    isallclose();
    ASSERT_GE(create("c", {4}), 0);
    isallclose();
    kt::Pipe ready, done;
    pid_t child = kt::start_child([&] {
        ot::become_unattached();
        if (nisopen(path("a").c_str(), ISO_RDWR) < 0 || nisopen(path("b").c_str(), ISO_RDWR) < 0) return 1;
        ready.signal();
        done.wait();
        nisunisam();
        return 0;
    });
    ASSERT_EQ(ready.wait(), 'x');
    EXPECT_EQ(nisopen(path("c").c_str(), ISO_RDWR), -1);
    EXPECT_EQ(is_errno, ISE_NOFCP);
    EXPECT_EQ(stack_code(), 0x3803);
    int fa = nisopen(path("a").c_str(), ISO_RDWR);
    EXPECT_GE(fa, 0) << "a file already open still shares its slot";
    done.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_EQ(nisclose(fa), 0);
}

// This process holds a's control lock (nisgetctl) while another process, inside a close
// of a, holds opcl_lock and waits for that control lock.  Waiting for opcl_lock now would
// close a cycle: the kernel refuses it and the operation fails holding nothing new.
TEST_F(OpenMp, RefusedWaitForOpclLockFailsCleanly) {
    int a = create("a", {4});
    int b = create("b", {4});
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    int lens[1] = {4};
    struct Op {
        const char* name;
        int code;
        std::function<int()> fn;
    } ops[] = {{"open", 0x3810, [&] { return nisopen(path("b").c_str(), ISO_RDWR); }},
               {"create", 0x3209, [&] { return niscreate(path("c").c_str(), 1, lens); }},
               {"close", 0x3101, [&] { return nisclose(b); }}};
    for (const Op& op : ops) {
        SCOPED_TRACE(op.name);
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
        EXPECT_EQ(op.fn(), -1);
        EXPECT_EQ(is_errno, ISE_DEADLOCK);
        EXPECT_EQ(stack_code(), op.code);
        EXPECT_EQ(n_ufiles, files);
        EXPECT_NE(isam_com->opcl_lock, static_cast<uint32_t>(is_pid));
        EXPECT_EQ(nisrelctl(a), 0);
        EXPECT_EQ(kt::wait_child(child), 0);
    }
    EXPECT_EQ(ot::shared_fcp(a)->is_usecnt, 1);
    int keylens[1];
    EXPECT_EQ(nisstat(b, 1, keylens), 1) << "the refused close left b open";
}

}  // namespace
