// The shared segment between real processes: a second attacher finds it as the first
// left it, and the last detach removes it.
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
    struct is_config conf = kt::to_record(k);
    ASSERT_EQ(sizecomm(&conf), 0);

    kt::Pipe attached, leave;
    pid_t c = kt::start_child([&]() -> int {
        ::shmdt(isam_com);  // attach afresh, as another program would
        char* p = getcomm(inst.key(), conf.co_comsize);
        if (p == reinterpret_cast<char*>(-1)) return 2;
        isam_com = reinterpret_cast<struct isam_com*>(p);
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
