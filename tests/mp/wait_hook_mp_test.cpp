// Waiting for a lock that another process holds: the wait hook learns the holder, what
// it holds and the file; a signal gives the wait up when the hook (or the flag) says so,
// and the call then fails with KISAM_ISE_INTERRUPTED having changed and kept nothing.
// A free lock costs one lock request, hook or not; a failed request refuses its call
// with a code.
#include "../engine/open_fixture.h"

#include "is_lock.h"
#include "os.h"

#include <csignal>
#include <cstring>

namespace {

using ot::Env;

class WaitHook : public Env {};

// What the child's hook saw; the hook writes only these and the pipe.
struct Seen {
    int begins = 0, signals = 0, ends = 0;
    int holder = 0, what = 0, can_give_up = -1, given_up = -1;
    char file[256] = {};
    double seconds = -1;
};
Seen seen;
int hook_answer = 0;
int begin_pipe = -1;

int hook(const struct kisam_wait* w, void*) {
    if (w->event == KISAM_WAIT_BEGIN) {
        ++seen.begins;
        seen.holder = w->holder;
        seen.what = w->what;
        std::snprintf(seen.file, sizeof seen.file, "%s", w->file ? w->file : "");
        if (begin_pipe >= 0) (void)!::write(begin_pipe, "b", 1);
    } else if (w->event == KISAM_WAIT_SIGNAL) {
        ++seen.signals;
        seen.can_give_up = w->can_give_up;
        seen.seconds = w->seconds;
        return hook_answer;
    } else {
        ++seen.ends;
        seen.given_up = w->given_up;
    }
    return 0;
}

void on_usr1(int) {}

// A handler that interrupts system calls (no SA_RESTART), as a program that wants its
// waits to end installs it.
void interrupting_usr1() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_usr1;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGUSR1, &sa, nullptr);
}

bool ends_with(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Sends SIGUSR1 to pid until it has ended (the wait may be entered just after a signal).
int interrupt_until_done(pid_t pid) {
    for (int i = 0; i < 500; ++i) {
        ::kill(pid, SIGUSR1);
        int st;
        pid_t r = ::waitpid(pid, &st, WNOHANG);
        if (r == pid) return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        ::usleep(10000);
    }
    ::kill(pid, SIGKILL);
    return kt::wait_child(pid) + 1000;
}

TEST_F(WaitHook, TellsTheHolderAndGivesUpAtASignalWithNothingWritten) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisgetctl(fd), 0);
    const pid_t parent = ::getpid();
    kt::Pipe began;
    int pfd[2];
    ASSERT_EQ(::pipe(pfd), 0);
    pid_t child = kt::start_child([&] {
        interrupting_usr1();
        if (is_chinit() != 0) return 1;
        begin_pipe = pfd[1];
        hook_answer = 1;
        kisam_set_wait_hook(hook, nullptr, 0);
        if (niswrite(fd, "abcd-record", 11) != -1) return 2;
        if (is_errno != KISAM_ISE_INTERRUPTED || errno != EINTR) return 3;
        if (seen.begins != 1 || seen.ends != 1 || seen.signals < 1) return 4;
        if (seen.holder != parent || seen.what != KISAM_WAIT_CONTROL) return 5;
        if (!ends_with(seen.file, "/f")) return 6;
        if (seen.can_give_up != 1 || seen.given_up != 1) return 7;
        // Nothing held: no hold counted, the word not ours, no wait noted.
        if (is_pfi[is_db[fd]->uniqueid].pfi_ctlcnt != 0) return 8;
        if (is_lock_mine(&ot::shared_fcp(fd)->jd_fcplock)) return 9;
        if (is_env.needs_[is_env.useridx] != 0) return 10;
        char msg[200];
        niserrmsgget(msg, sizeof msg);
        if (!std::strstr(msg, "KISAM_ISE_INTERRUPTED wait for a lock given up at a signal")) return 11;
        return 0;
    });
    char c;
    ASSERT_EQ(::read(pfd[0], &c, 1), 1) << "the hook heard of no wait";
    EXPECT_EQ(interrupt_until_done(child), 0);
    ::close(pfd[0]);
    ::close(pfd[1]);
    char buf[64];
    EXPECT_EQ(nisfind(fd, 0, "abcd", buf, sizeof buf), 0) << "the record was written";
    EXPECT_EQ(nisrelctl(fd), 0);
    // The file is free for others after the child gave up.
    EXPECT_EQ(kt::run_child([&] {
        if (is_chinit() != 0) return 1;
        return niswrite(fd, "abcd-record", 11) == 0 ? 0 : 2;
    }), 0);
    EXPECT_GT(nisfind(fd, 0, "abcd", buf, sizeof buf), 0);
}

TEST_F(WaitHook, ASignalTheHookLetsPassKeepsTheWaitUntilTheHolderLetsGo) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisgetctl(fd), 0);
    int pfd[2], sig[2];
    ASSERT_EQ(::pipe(pfd), 0);
    ASSERT_EQ(::pipe(sig), 0);
    pid_t child = kt::start_child([&] {
        interrupting_usr1();
        if (is_chinit() != 0) return 1;
        begin_pipe = pfd[1];
        hook_answer = 0;
        kisam_set_wait_hook(hook, nullptr, 0);
        if (niswrite(fd, "abcd-record", 11) != 0) return 2;
        if (seen.begins != 1 || seen.ends != 1 || seen.signals < 1 || seen.given_up != 0) return 3;
        if (seen.seconds <= 0) return 4;
        return 0;
    });
    char c;
    ASSERT_EQ(::read(pfd[0], &c, 1), 1);
    for (int i = 0; i < 5; ++i) {
        ::kill(child, SIGUSR1);
        ::usleep(20000);
    }
    char buf[64];
    EXPECT_EQ(nisfind(fd, 0, "abcd", buf, sizeof buf), 0);
    EXPECT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_GT(nisfind(fd, 0, "abcd", buf, sizeof buf), 0) << "the wait ended without the write";
    for (int f : {pfd[0], pfd[1], sig[0], sig[1]}) ::close(f);
}

TEST_F(WaitHook, ARecordLockWaitGivenUpKeepsTheCallersControlLock) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nislock(fd, "ab", 2, 1), 0);
    const pid_t parent = ::getpid();
    int pfd[2];
    ASSERT_EQ(::pipe(pfd), 0);
    pid_t child = kt::start_child([&] {
        interrupting_usr1();
        if (is_chinit() != 0) return 1;
        begin_pipe = pfd[1];
        hook_answer = 1;
        kisam_set_wait_hook(hook, nullptr, 0);
        if (nisgetctl(fd) != 0) return 2;
        if (nislock(fd, "abc", 3, 0) != -1 || is_errno != KISAM_ISE_INTERRUPTED) return 3;
        if (seen.what != KISAM_WAIT_RECORD || seen.holder != parent || !ends_with(seen.file, "/f")) return 4;
        // The application's hold is in force again, and the entry waited on has no waiter.
        IS_FCP* f = ot::shared_fcp(fd);
        if (!is_lock_mine(&f->jd_fcplock) || is_pfi[is_db[fd]->uniqueid].pfi_ctlcnt != 1) return 5;
        IS_RC* e = kisam::rel_ptr<IS_RC>(f->jd_lock_hd);
        if (e->rc_waitcount != 0 || e->rc_next != KISAM_NOREL) return 6;
        if (nisrelctl(fd) != 0) return 7;
        return 0;
    });
    char c;
    ASSERT_EQ(::read(pfd[0], &c, 1), 1);
    EXPECT_EQ(interrupt_until_done(child), 0);
    EXPECT_EQ(nisunlock(fd, "ab", 2, 0), 0);
    EXPECT_EQ(ot::shared_fcp(fd)->jd_lock_hd, KISAM_NOREL) << "a lock was added";
    ::close(pfd[0]);
    ::close(pfd[1]);
}

TEST_F(WaitHook, TheFlagGivesUpAnOpenWaitingForTheOpenLockWithoutAHook) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisclose(fd), 0);
    const uint32_t o = static_cast<uint32_t>(kisam::com_offset(&isam_com->opcl_lock));
    kt::Pipe ready, go;
    pid_t child = kt::start_child([&] {
        interrupting_usr1();
        if (is_chinit() != 0) return 1;
        kisam_set_wait_hook(nullptr, nullptr, KISAM_WAIT_GIVE_UP);
        ready.signal();
        go.wait();
        if (nisopen(path("f").c_str(), ISO_RDWR) != -1 || is_errno != KISAM_ISE_INTERRUPTED) return 2;
        if (is_lock_mine(&isam_com->opcl_lock)) return 3;
        return 0;
    });
    ASSERT_EQ(ready.wait(), 'x');
    ASSERT_EQ(is_lock(&isam_com->opcl_lock), 0);
    go.signal();
    // Once the child waits for the range, interrupt it.
    bool waiting = false;
    for (int i = 0; i < 1000 && !waiting; ++i) {
        for (int u = 0; u < isam_com->maxusers; ++u) waiting |= is_env.needs_[u] == o;
        if (!waiting) ::usleep(2000);
    }
    EXPECT_TRUE(waiting);
    EXPECT_EQ(interrupt_until_done(child), 0);
    is_unlock(&isam_com->opcl_lock);
}

TEST_F(WaitHook, WithoutHookOrFlagASignalDoesNotEndTheWait) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisgetctl(fd), 0);
    kt::Pipe ready;
    pid_t child = kt::start_child([&] {
        interrupting_usr1();
        if (is_chinit() != 0) return 1;
        ready.signal();
        return niswrite(fd, "abcd-record", 11) == 0 ? 0 : 2;
    });
    ASSERT_EQ(ready.wait(), 'x');
    for (int i = 0; i < 10; ++i) {
        ::kill(child, SIGUSR1);
        ::usleep(10000);
    }
    EXPECT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(kt::wait_child(child), 0);
}

// A free lock costs one lock request with or without a hook; a take whose request fails
// refuses the call with KISAM_ISE_LOCKFAIL and keeps nothing.
TEST_F(WaitHook, AFreeLockCostsOneRequestAndAFailedOneRefusesTheCall) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    for (bool with_hook : {false, true}) {
        kisam_set_wait_hook(with_hook ? hook : nullptr, nullptr, with_hook ? KISAM_WAIT_GIVE_UP : 0);
        kt::Faults count;
        ASSERT_EQ(nisgetctl(fd), 0);
        EXPECT_EQ(kt::Faults::calls(kt::Faults::kLock), 1) << "hook " << with_hook;
        ASSERT_EQ(nisrelctl(fd), 0);
    }
    kisam_set_wait_hook(nullptr, nullptr, 0);
    EXPECT_EQ(seen.begins, 0);
    for (int err : {ENOLCK, EIO}) {
        kt::Faults fail;
        fail.arm(kt::Faults::kLock, 1, kt::Faults::kOnce, err);
        EXPECT_EQ(niswrite(fd, "abcd-record", 11), -1);
        EXPECT_EQ(is_errno, KISAM_ISE_LOCKFAIL);
        EXPECT_EQ(errno, err);
        EXPECT_EQ(is_pfi[is_db[fd]->uniqueid].pfi_ctlcnt, 0);
        EXPECT_FALSE(is_lock_mine(&ot::shared_fcp(fd)->jd_fcplock));
    }
    char buf[64];
    EXPECT_EQ(nisfind(fd, 0, "abcd", buf, sizeof buf), 0);
    EXPECT_EQ(niswrite(fd, "abcd-record", 11), 0) << "the file works once the lock calls do";
}

}  // namespace
