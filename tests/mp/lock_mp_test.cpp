// Lock words between real processes: exclusion, takeover of a dead holder's word, the
// non-waiting request, a refused cycle of waits.
#include "is_lock.h"

#include <gtest/gtest.h>

#include "is_common.h"
#include "is_heap.h"
#include "kisam_test.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A forked child inherits the attachment but not the parent's locks or identity: it
// takes its own pid and process slot, as start-up does in a child.
int child_attach() {
    is_pid = ::getpid();
    int i = 0;
    while (i < isam_com->maxusers && is_env.pid_[i] != 0) ++i;
    if (i == isam_com->maxusers) return -1;
    is_env.pid_[i] = is_pid;
    is_env.useridx = static_cast<int16_t>(i);
    is_env.needs_[i] = 0;
    return 0;
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
    // A slow read-modify-write under the lock: an overlapping holder shows as a wrong total.
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

TEST_F(LockMp, KilledHolderLeavesAStaleWordThatIsTakenOver) {
    kt::Pipe held;
    pid_t c = kt::start_child([&] {
        if (child_attach() != 0 || is_lock(opcl()) != 0) return 2;
        held.signal();
        for (;;) ::pause();
    });
    ASSERT_EQ(held.wait(), 'x');
    EXPECT_EQ(is_lockitnw(kisam::com_offset(opcl())), -1);  // held elsewhere: refused at once
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

TEST_F(LockMp, CycleOfWaitsIsRefusedWithoutAborting) {
    // The parent holds opcl and waits for free; the child holds free and asks for opcl.
    // The request that closes the cycle returns -1 holding nothing new.
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
        if (is_lock(opcl()) != -1 || errno != EDEADLK) return 4;
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
