// Mutexes: recursion and ownership, the time-out form, global mutexes between real
// processes with their lock file, and the fork handlers.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "kisam_test.h"
#include "support_util.h"

namespace {

TEST(LocalMutex, RecursionOwnerAndCount) {
    ZTMutex *m = ZTMutexAlloc(nullptr);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->m_bits & ZTMTX_INIT, ZTMTX_INIT);
    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(ZTMutexLock(m), 0);
        EXPECT_EQ(m->m_count, i);
        EXPECT_TRUE(pthread_equal(m->m_owner, pthread_self()));
    }
    for (int i = 0; i < 3; ++i) ASSERT_EQ(ZTMutexUnlock(m), 0);
    EXPECT_EQ(m->m_count, 0);
    EXPECT_EQ(m->m_owner, pthread_t{});
    ZTMutexFree(m);

    EXPECT_EQ(ZTMutexLock(nullptr), -1);
    EXPECT_EQ(ZTMutexUnlock(nullptr), -1);
    EXPECT_EQ(ZTMutexLockWTO(nullptr, 1), -1);
    ZTMutexFree(nullptr);
}

TEST(LocalMutex, ListKeepsCreationOrder) {
    ZTMutex *a = ZTMutexAlloc(nullptr);
    ZTMutex *b = ZTMutexAlloc(nullptr);
    ZTMutex *c = ZTMutexAlloc(nullptr);
    EXPECT_EQ(mtx_tailp, c);
    EXPECT_EQ(c->m_prevp, b);
    ZTMutexFree(b);
    EXPECT_EQ(a->m_nextp, c);
    EXPECT_EQ(c->m_prevp, a);
    ZTMutexFree(c);
    EXPECT_EQ(mtx_tailp, a);
    ZTMutexFree(a);
}

TEST(LocalMutex, ExcludesThreadsAndTimesOut) {
    ZTMutex *m = ZTMutexAlloc(nullptr);
    long counter = 0;
    std::thread workers[4];
    for (auto &t : workers)
        t = std::thread([&] {
            for (int i = 0; i < 20000; ++i) {
                ZTMutexLock(m);
                ZTMutexLock(m);
                ++counter;
                ZTMutexUnlock(m);
                ZTMutexUnlock(m);
            }
        });
    for (auto &t : workers) t.join();
    EXPECT_EQ(counter, 80000);

    std::atomic<int> stage{0};
    std::thread holder([&] {
        ZTMutexLock(m);
        stage = 1;
        while (stage != 2) std::this_thread::yield();
        ZTMutexUnlock(m);
    });
    while (stage != 1) std::this_thread::yield();
    EXPECT_EQ(ZTMutexLockWTO(m, 0), 1);
    EXPECT_EQ(ZTMutexLockWTO(m, 2), 1);   // two tries, one second apart
    stage = 2;
    holder.join();
    EXPECT_EQ(ZTMutexLockWTO(m, 2), 0);
    EXPECT_EQ(m->m_count, 1);
    ZTMutexUnlock(m);
    ZTMutexFree(m);
}

TEST(GlobalMutex, ExcludesProcessesAndRemovesFileWithLastUser) {
    st::Sandbox box;
    const std::string name = box.path("g");
    const std::string lockfile = name + ".lck";
    ZTMutex *g = ZTGlobalMutexAlloc(name.c_str());
    ASSERT_NE(g, nullptr);
    EXPECT_TRUE(st::exists(lockfile));
    EXPECT_EQ(ZTMutexLockWTO(g, 1), -1);

    ASSERT_EQ(ZTMutexLock(g), 0);
    kt::Pipe ready, go, got;
    pid_t child = kt::start_child([&] {
        ZTMutex *cg = ZTGlobalMutexAlloc(name.c_str());
        if (cg == nullptr) return 2;
        ready.signal();
        if (ZTMutexLock(cg) != 0) return 3;   // blocks until the parent unlocks
        got.signal();
        go.wait();
        ZTMutexUnlock(cg);
        ZTMutexFree(cg);                      // not the last user: the file stays
        return 0;
    });
    ready.wait();
    ::usleep(100000);
    // The child is blocked: the parent can take bytes 4-7 again recursively.
    ASSERT_EQ(ZTMutexLock(g), 0);
    EXPECT_EQ(ZTMutexUnlock(g), 0);   // the first unlock releases the file lock
    got.wait();
    // Now the child holds it; a second global record of ours must wait.
    ZTMutex *g2 = ZTGlobalMutexAlloc(name.c_str());
    ASSERT_NE(g2, nullptr);
    go.signal();
    EXPECT_EQ(kt::wait_child(child), 0);
    EXPECT_TRUE(st::exists(lockfile));
    ZTMutexFree(g2);
    ZTMutexUnlock(g);
    ZTMutexFree(g);
    EXPECT_FALSE(st::exists(lockfile));
    EXPECT_EQ(ZTGlobalMutexAlloc(nullptr), nullptr);
}

TEST(GlobalMutex, RelativeNameLivesInSharedDirectory) {
    st::Sandbox box;
    EXPECT_EQ(st::in_child([&] {
        ZTMutex *g = ZTGlobalMutexAlloc("named");
        CHILD_CHECK(g != nullptr);
        CHILD_CHECK(st::exists(box.q9() + "/share/named.lck"));
        CHILD_CHECK(ZTMutexLock(g) == 0 && ZTMutexUnlock(g) == 0);
        ZTMutexFree(g);
        CHILD_CHECK(!st::exists(box.q9() + "/share/named.lck"));
        ZTSysMutexFree();
        return 0;
    }), 0);
    EXPECT_EQ(ZTGlobalMutexAlloc(box.path("no/such/dir/x").c_str()), nullptr);
}

TEST(ForkHandlers, ChildStartsWithUnlockedMutexes) {
    ZTMutex *unmarked = ZTMutexAlloc(nullptr);
    ZTMutex *marked = ZTMutexAlloc(nullptr);
    ZTMutexLockOnFork(marked);
    EXPECT_NE(marked->m_bits & ZTMTX_ONFORK, 0u);

    std::atomic<int> stage{0};
    std::thread holder([&] {
        ZTMutexLock(unmarked);
        stage = 1;
        while (stage != 2) std::this_thread::yield();
        ZTMutexUnlock(unmarked);
    });
    while (stage != 1) std::this_thread::yield();
    // The forking thread itself holds the marked mutex twice.
    ZTMutexLock(marked);
    ZTMutexLock(marked);
    int rc = kt::run_child([&] {
        if (ZTMutexLockWTO(unmarked, 0) != 0) return 1;   // its holder is not in the child
        if (ZTMutexUnlock(unmarked) != 0) return 2;
        if (ZTMutexLock(marked) != 0 || marked->m_count != 1) return 3;
        if (ZTMutexUnlock(marked) != 0) return 4;
        return 0;
    });
    EXPECT_EQ(rc, 0);
    stage = 2;
    holder.join();
    // In the parent the marked mutex is still held twice by this thread.
    EXPECT_EQ(marked->m_count, 2);
    ZTMutexUnlock(marked);
    ZTMutexUnlock(marked);
    ZTMutexFree(marked);
    ZTMutexFree(unmarked);
}

}  // namespace
