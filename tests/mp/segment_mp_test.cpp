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

#include <cstdio>
#include <string>
#include <vector>

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

// Processes that attach and detach over and over while others do the same: the last
// detacher's removal must never meet an attach in the middle, or one process would end up
// with a segment nobody else can find (its own pool: increments lost between the two) or
// fail to attach at all.  Every increment is made under the control lock.
TEST(SegmentMp, AttachingWhileTheLastDetacherLeavesKeepsOnePool) {
    kt::Config k;
    kt::Installation inst(k);
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
