// The shared segment between real processes: a second attacher finds it as the first
// left it, the last detach removes it, and a segment that every process left without
// detaching properly is rebuilt at the next attach.
#include "is_common.h"

#include <gtest/gtest.h>

#include "is_heap.h"
#include "kisam_test.h"

#include <cerrno>
#include <cstring>
#include <sys/shm.h>
#include <unistd.h>

namespace {

constexpr uint32_t kMarker = 0x5EED1234;

// The configured size, as start-up computes it.
int segment_size(const kt::Config& k) {
    struct is_config c = kt::to_record(k);
    return sizecomm(&c) == 0 ? c.co_comsize : -1;
}

// In a forked child: drop the inherited mapping and attach afresh, as another program
// would.  Returns the new address or null.
struct isam_com* reattach_in_child(const kt::Installation& inst, int size) {
    ::shmdt(isam_com);
    char* p = getcomm(inst.key(), size);
    return p == reinterpret_cast<char*>(-1) ? nullptr : reinterpret_cast<struct isam_com*>(p);
}

bool segment_exists(const kt::Installation& inst) { return ::shmget(inst.key(), 0, 0) >= 0; }

}  // namespace

TEST(SegmentMp, SecondAttacherFindsItAsLeftAndLastDetachRemovesIt) {
    kt::Config k;
    kt::Installation inst(k);
    ASSERT_EQ(kt::attach_raw(inst, k), 0);
    ASSERT_EQ(is_firstcomf, 1);
    char* block = allocncom(32);
    ASSERT_NE(block, nullptr);
    std::memcpy(block, &kMarker, sizeof kMarker);
    const RELt rel = kisam::rel_of(block);
    const int size = segment_size(k);

    kt::Pipe attached, leave;
    pid_t c = kt::start_child([&]() -> int {
        isam_com = reattach_in_child(inst, size);
        if (isam_com == nullptr) return 2;
        if (is_firstcomf != 0) return 3;
        if (isam_com->iscom_magicval != ISCOM_MAGIC || isam_com->iscom_version != ISCOM_VERSION) return 4;
        is_setenv();
        uint32_t m;
        std::memcpy(&m, kisam::rel_ptr(rel), sizeof m);
        if (m != kMarker) return 5;
        if (is_env.pid_[0] != ::getppid()) return 6;
        attached.signal();
        leave.wait();
        freecom();  // not the last: only detaches
        return 0;
    });
    ASSERT_EQ(attached.wait(), 'x');
    leave.signal();
    EXPECT_EQ(kt::wait_child(c), 0);
    EXPECT_TRUE(segment_exists(inst));
    kt::detach_raw();
    EXPECT_FALSE(segment_exists(inst));
}

TEST(SegmentMp, SegmentLeftByDeadProcessesIsRebuilt) {
    kt::Config k;
    kt::Installation inst(k);
    const int size = segment_size(k);
    // A process attaches, lays the segment out and dies without detaching.
    ASSERT_EQ(kt::run_child([&] {
        char* p = getcomm(inst.key(), size);
        if (p == reinterpret_cast<char*>(-1) || is_firstcomf != 1) return 2;
        std::memset(p, 0xAB, static_cast<size_t>(size));
        ::_exit(0);
    }), 0);
    ASSERT_TRUE(segment_exists(inst));
    char* p = getcomm(inst.key(), size);
    ASSERT_NE(p, reinterpret_cast<char*>(-1));
    EXPECT_EQ(is_firstcomf, 1);  // nobody attached: start clean
    for (int i = 0; i < size; ++i) ASSERT_EQ(p[i], 0) << i;
    isam_com = reinterpret_cast<struct isam_com*>(p);
    freecom();
    isam_com = nullptr;
    EXPECT_FALSE(segment_exists(inst));
}
