// Lock words between real processes: exclusion, waiting, takeover of a dead holder's
// word, the non-waiting request, a refused cycle of waits, the waits of record locking,
// and the fatal path.
#include "is_lock.h"

#include <gtest/gtest.h>

#include "is_common.h"
#include "is_heap.h"
#include "kisam_test.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A forked child inherits the attachment but not the parent's locks or identity: it
// takes its own pid and process slot, as start-up does in a child.
int child_attach() {
    is_pid = ::getpid();
    for (int i = 0; i < isam_com->maxusers; ++i) {
        if (is_env.pid_[i] == 0) {
            is_env.pid_[i] = is_pid;
            is_env.useridx = static_cast<int16_t>(i);
            is_env.needs_[i] = 0;
            return 0;
        }
    }
    return -1;
}

uint32_t load(const unsigned* w) { return std::atomic_ref<const uint32_t>(*w).load(); }

class LockMp : public ::testing::Test {
protected:
    void SetUp() override {
        inst_ = std::make_unique<kt::Installation>(cfg_);
        ASSERT_EQ(kt::attach_raw(*inst_, cfg_), 0);
    }
    void TearDown() override {
        kt::detach_raw();
        inst_.reset();
    }
    unsigned* opcl() { return &isam_com->opcl_lock; }
    unsigned* freel() { return &isam_com->free_lock; }
    kt::Config cfg_;
    std::unique_ptr<kt::Installation> inst_;
};

}  // namespace

TEST_F(LockMp, OneHolderAtATime) {
    // Two processes bump a counter with a deliberately slow read-modify-write under the
    // lock; a lost update or an overlapping holder shows as a wrong total.
    char* area = alloccom(16);
    ASSERT_NE(area, nullptr);
    volatile int* counter = reinterpret_cast<volatile int*>(area);
    volatile int* inside = counter + 1;
    constexpr int kRounds = 200;
    auto worker = [&] {
        if (child_attach() != 0) return 2;
        for (int i = 0; i < kRounds; ++i) {
            if (is_lock(opcl()) != 0) return 3;
            if (*inside != 0) return 4;
            *inside = 1;
            int v = *counter;
            if (i % 16 == 0) ::usleep(200);
            *counter = v + 1;
            *inside = 0;
            is_unlock(opcl());
        }
        return 0;
    };
    pid_t a = kt::start_child(worker);
    pid_t b = kt::start_child(worker);
    EXPECT_EQ(kt::wait_child(a), 0);
    EXPECT_EQ(kt::wait_child(b), 0);
    EXPECT_EQ(*counter, 2 * kRounds);
    EXPECT_EQ(load(opcl()), 0u);
}

TEST_F(LockMp, WaiterProceedsWhenHolderReleases) {
    kt::Pipe held, go, done;
    const int16_t parent_idx = is_env.useridx;
    pid_t c = kt::start_child([&] {
        if (child_attach() != 0 || is_lock(opcl()) != 0) return 2;
        held.signal();
        go.wait();
        // Let go only once the parent really waits (its need entry names the range), so
        // that it finds the word set and counts the wait.
        const uint32_t want = static_cast<uint32_t>(kisam::com_offset(opcl()));
        for (int i = 0; i < 5000 && is_env.needs_[parent_idx] != want; ++i) ::usleep(1000);
        is_unlock(opcl());
        done.wait();
        return 0;
    });
    ASSERT_EQ(held.wait(), 'x');
    EXPECT_EQ(load(opcl()), static_cast<uint32_t>(c));
    uint32_t waits = isam_com->syswaits;
    EXPECT_EQ(is_lockitnw(kisam::com_offset(opcl())), -1);  // held elsewhere: at once
    go.signal();
    ASSERT_EQ(is_lock(opcl()), 0);  // waits until the child lets go
    EXPECT_EQ(is_lock_stale, 0);   // released properly, not taken over
    EXPECT_EQ(load(opcl()), static_cast<uint32_t>(is_pid));
    EXPECT_EQ(isam_com->syswaits, waits + 1);
    is_unlock(opcl());
    done.signal();
    EXPECT_EQ(kt::wait_child(c), 0);
}

TEST_F(LockMp, KilledHolderLeavesAStaleWordThatIsTakenOver) {
    kt::Pipe held;
    pid_t c = kt::start_child([&] {
        if (child_attach() != 0 || is_lock(opcl()) != 0) return 2;
        held.signal();
        for (;;) ::pause();
    });
    ASSERT_EQ(held.wait(), 'x');
    ::kill(c, SIGKILL);
    EXPECT_EQ(kt::wait_child(c), 128 + SIGKILL);
    EXPECT_EQ(load(opcl()), static_cast<uint32_t>(c));  // the word still names the dead holder
    ASSERT_EQ(is_lock(opcl()), 0);
    EXPECT_EQ(is_lock_stale, 1);
    EXPECT_EQ(load(opcl()), static_cast<uint32_t>(is_pid));
    is_unlock(opcl());
    ASSERT_EQ(is_lock(opcl()), 0);
    EXPECT_EQ(is_lock_stale, 0);
    is_unlock(opcl());
}

TEST_F(LockMp, RelockAndForeignUnlockAndStatistics) {
    uint32_t tot = isam_com->totsyslocks, waits = isam_com->syswaits;
    ASSERT_EQ(is_lock(opcl()), 0);
    ASSERT_EQ(is_lock(opcl()), 0);  // already ours: granted at once, not counted again
    EXPECT_EQ(isam_com->totsyslocks, tot + 1);
    EXPECT_EQ(isam_com->cursyslocks, 1u);
    EXPECT_EQ(isam_com->syswaits, waits + 1);
    ASSERT_EQ(is_lock(freel()), 0);
    EXPECT_EQ(isam_com->cursyslocks, 2u);
    EXPECT_EQ(isam_com->maxsyslocks, 2u);
    is_unlock(freel());
    is_unlock(opcl());  // one release frees it: locks do not nest
    EXPECT_EQ(load(opcl()), 0u);
    EXPECT_EQ(isam_com->cursyslocks, 0u);
    EXPECT_EQ(isam_com->maxsyslocks, 2u);
    EXPECT_EQ(kt::run_child([&] { return is_lockitnw(kisam::com_offset(opcl())) == 0 ? 0 : 1; }), 0);

    // A word naming another process is left alone, and its range is not touched.
    *opcl() = 12345;
    is_unlock(opcl());
    EXPECT_EQ(load(opcl()), 12345u);
    EXPECT_EQ(isam_com->cursyslocks, 0u);
    *opcl() = 0;
    is_unlock(opcl());
    EXPECT_EQ(isam_com->cursyslocks, 0u);
}

TEST_F(LockMp, CycleOfWaitsIsRefusedWithoutAborting) {
    // The parent holds opcl and waits for free; the child holds free and then asks for
    // opcl, closing the cycle.  The kernel refuses the request that closes it: that
    // is_lock returns -1 holding nothing new, and the other waiter proceeds once the
    // refused process lets go.
    kt::Pipe child_holds, parent_waits;
    ASSERT_EQ(is_lock(opcl()), 0);
    const uint32_t parent = static_cast<uint32_t>(is_pid);
    const unsigned long free_off = kisam::com_offset(freel());
    const int16_t parent_slot = is_env.useridx;
    pid_t c = kt::start_child([&] {
        if (child_attach() != 0 || is_lock(freel()) != 0) return 2;
        child_holds.signal();
        parent_waits.wait();
        // Wait until the parent is really blocked on free's range.
        for (int i = 0; i < 5000 && is_env.needs_[parent_slot] != free_off; ++i) ::usleep(1000);
        if (is_env.needs_[parent_slot] != free_off) return 3;
        ::usleep(20000);
        errno = 0;
        int rc = is_lock(opcl());
        int err = errno;
        if (rc != -1 || err != EDEADLK) return 4;
        if (load(opcl()) != parent) return 5;          // untouched
        if (is_env.needs_[is_env.useridx] != 0) return 6;  // no longer waiting
        if (load(freel()) != static_cast<uint32_t>(is_pid)) return 7;  // still ours
        is_unlock(freel());
        return 0;
    });
    ASSERT_EQ(child_holds.wait(), 'x');
    parent_waits.signal();
    ASSERT_EQ(is_lock(freel()), 0);  // proceeds once the child gives up
    EXPECT_EQ(load(freel()), parent);
    EXPECT_EQ(kt::wait_child(c), 0);
    is_unlock(freel());
    is_unlock(opcl());
}

TEST_F(LockMp, RecordWaitGivesUpTheControlLockMeanwhile) {
    char* fcpmem = allocncom(IS_FCP_SIZE(1));
    char* rec = allocncom(16);
    ASSERT_NE(fcpmem, nullptr);
    ASSERT_NE(rec, nullptr);
    is_curfcp = reinterpret_cast<IS_FCP*>(fcpmem);
    unsigned* ctl = &is_curfcp->jd_fcplock;
    unsigned* word = reinterpret_cast<unsigned*>(rec);
    kt::Pipe held;
    pid_t c = kt::start_child([&] {
        if (child_attach() != 0 || is_lock(word) != 0) return 2;
        held.signal();
        // The waiter must drop its control lock: take it to prove it is free.
        for (int i = 0; i < 5000; ++i) {
            if (is_lockitnw(kisam::com_offset(ctl)) == 0) {
                if (is_unlockit(kisam::com_offset(ctl)) != 0) return 3;
                is_unlock(word);
                return 0;
            }
            ::usleep(1000);
        }
        return 4;
    });
    ASSERT_EQ(held.wait(), 'x');
    ASSERT_EQ(is_lock(ctl), 0);
    uint32_t uw = isam_com->usrwaits;
    EXPECT_EQ(is_fwait(word), 0);
    EXPECT_EQ(load(ctl), static_cast<uint32_t>(is_pid));  // control lock back
    EXPECT_EQ(load(word), 0u);  // the awaited word is not taken by the waiter
    EXPECT_EQ(isam_com->usrwaits, uw + 1);
    EXPECT_EQ(kt::wait_child(c), 0);
    // The waiter's range is free again.
    EXPECT_EQ(kt::run_child([&] { return is_lockitnw(kisam::com_offset(word)) == 0 ? 0 : 1; }), 0);

    // is_fdone gives up a range and leaves the word alone.
    ASSERT_EQ(is_lock(word), 0);
    EXPECT_EQ(is_fdone(word), 0);
    EXPECT_EQ(load(word), static_cast<uint32_t>(is_pid));
    EXPECT_EQ(kt::run_child([&] { return is_lockitnw(kisam::com_offset(word)) == 0 ? 0 : 1; }), 0);
    is_unlock(ctl);
    is_curfcp = nullptr;
}

TEST_F(LockMp, UnusableLockFileAbortsWithTheMessage) {
    auto run = [&](bool unlock) {
        int fds[2];
        EXPECT_EQ(::pipe(fds), 0);
        pid_t c = kt::start_child([&] {
            ::dup2(fds[1], 1);
            if (unlock) {
                *opcl() = static_cast<unsigned>(is_pid);  // ours, so the release is attempted
                is_lockfd = 9999;
                is_unlock(opcl());
            } else {
                is_lockfd = 9999;
                is_lock(opcl());
            }
            return 0;
        });
        ::close(fds[1]);
        std::string out;
        char buf[256];
        ssize_t n;
        while ((n = ::read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
        ::close(fds[0]);
        EXPECT_EQ(kt::wait_child(c), 128 + SIGABRT);
        return out;
    };
    EXPECT_EQ(run(false), "is lockitw fail - errno = " + std::to_string(EBADF) + "\n");
    EXPECT_EQ(run(true), "is unlockit fail - errno = " + std::to_string(EBADF) + "\n");
    *opcl() = 0;
}
