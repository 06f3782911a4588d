// Mutexes: recursion across threads, the time-out form, global mutexes between
// processes with their lock file, and the fork handlers.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "kisam_test.h"
#include "support_util.h"

namespace {

// Runs fn while another thread holds m.
template <class F> void while_held(ZTMutex *m, F fn) {
    std::atomic<int> stage{0};
    std::thread holder([&] {
        ZTMutexLock(m);
        stage = 1;
        while (stage != 2) std::this_thread::yield();
        ZTMutexUnlock(m);
    });
    while (stage != 1) std::this_thread::yield();
    fn();
    stage = 2;
    holder.join();
}

TEST(LocalMutex, RecursionExclusionAndTimeOut) {
    ZTMutex *m = ZTMutexAlloc(nullptr);
    long counter = 0;
    std::thread workers[4];
    for (auto &t : workers)
        t = std::thread([&] {
            for (int i = 0; i < 20000; ++i) {
                ZTMutexLock(m), ZTMutexLock(m);   // recursive
                ++counter;
                ZTMutexUnlock(m), ZTMutexUnlock(m);
            }
        });
    for (auto &t : workers) t.join();
    EXPECT_EQ(counter, 80000);
    while_held(m, [&] { EXPECT_EQ(ZTMutexLockWTO(m, 0), 1); });
    EXPECT_EQ(ZTMutexLockWTO(m, 1), 0);
    EXPECT_EQ(m->m_count, 1);
    ZTMutexUnlock(m);
    ZTMutexFree(m);
}

TEST(GlobalMutex, ExcludesProcessesAndRemovesFileWithLastUser) {
    st::Sandbox box;
    const std::string name = box.path("g"), lockfile = name + ".lck";
    ZTMutex *g = ZTGlobalMutexAlloc(name.c_str());
    ASSERT_TRUE(g != nullptr && ZTMutexLock(g) == 0);
    kt::Pipe ready, go, got;
    pid_t child = kt::start_child([&] {
        ZTMutex *cg = ZTGlobalMutexAlloc(name.c_str());
        if (cg == nullptr) return 2;
        ready.signal();
        if (ZTMutexLock(cg) != 0) return 3;   // blocks until the parent unlocks
        got.signal();
        go.wait();
        ZTMutexUnlock(cg), ZTMutexFree(cg);   // not the last user: the file stays
        return 0;
    });
    ready.wait();
    ::usleep(100000);
    EXPECT_EQ(ZTMutexUnlock(g), 0);
    got.wait();
    go.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_TRUE(st::exists(lockfile));
    ZTMutexFree(g);
    EXPECT_FALSE(st::exists(lockfile));
}

TEST(ForkHandlers, ChildStartsWithUnlockedMutexes) {
    ZTMutex *unmarked = ZTMutexAlloc(nullptr), *marked = ZTMutexAlloc(nullptr);
    ZTMutexLockOnFork(marked);
    ZTMutexLock(marked), ZTMutexLock(marked);
    while_held(unmarked, [&] {
        EXPECT_EQ(kt::run_child([&] {
            if (ZTMutexLockWTO(unmarked, 0) != 0) return 1;   // its holder is not in the child
            if (ZTMutexLock(marked) != 0 || marked->m_count != 1) return 3;
            return 0;
        }), 0);
    });
    EXPECT_EQ(marked->m_count, 2);
    ZTMutexUnlock(marked), ZTMutexUnlock(marked);
    ZTMutexFree(marked), ZTMutexFree(unmarked);
}

}  // namespace
