// Common segment: sizing, the layout of a new segment, attach address, whole-range file
// locks and the text helpers.  (File identity is exercised by every open of a file.)
#include "is_common.h"

#include <gtest/gtest.h>

#include "is_heap.h"
#include "kisam_test.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

kt::Config example_config() {
    kt::Config c;
    c.maxbuf = 4;
    c.maxopen = 10;
    c.maxusers = 5;
    c.avgalts = 2;
    c.alenlock = 10;
    c.anumlock = 4;
    return c;
}

}  // namespace

TEST(SizeComm, SegmentIsAMultipleOf8192AndHeapFollowsTheTables) {
    for (int16_t users : {1, 3, 7, 100})
        for (int16_t bufs : {1, 9, 300}) {
            kt::Config k;
            k.maxusers = users;
            k.maxbuf = bufs;
            struct is_config c = kt::to_record(k);
            ASSERT_EQ(sizecomm(&c), 0);
            EXPECT_EQ(c.co_comsize % 8192, 0);
            EXPECT_EQ(c.co_heapbase % 4, 0);
            EXPECT_GE(c.co_heapbase, c.co_needbase + 4 * users);
            EXPECT_GT(c.co_comsize, c.co_heapbase);
        }
}

TEST(SizeComm, RefusesAHeapBeyondTheMaximum) {
    kt::Config k;
    k.maxopen = 32767;
    k.avgalts = 32767;
    k.alenlock = 32767;
    k.anumlock = 32767;
    struct is_config c = kt::to_record(k);
    int rc = 0;
    std::string msg = kt::capture_output(2, [&] { rc = sizecomm(&c); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(msg.rfind("common heap size of ", 0), 0u) << msg;
    EXPECT_NE(msg.find("K bytes exceeds maximum of 2097151K bytes.\n"), std::string::npos) << msg;
    EXPECT_EQ(c.co_comsize, 0);  // nothing filled in
}

// The worked example's sizes, as start-up lays the segment out.
TEST(Segment, NewSegmentLayout) {
    kt::Config k = example_config();
    k.bits = 0x5;
    kt::Installation inst(k);
    ASSERT_EQ(kt::attach_raw(inst, k), 0);
    EXPECT_EQ(is_firstcomf, 1);
    const struct isam_com* h = isam_com;
    EXPECT_EQ(h->maxopen, 10);
    EXPECT_EQ(h->maxbufs, 4);
    EXPECT_EQ(h->maxusers, 5);
    EXPECT_EQ(h->maxufile, 10);
    EXPECT_EQ(h->comsize, 8192);
    EXPECT_EQ(h->buf_base, 156);
    EXPECT_EQ(h->pfo_base, 4316);
    EXPECT_EQ(h->pid_base, 4356);
    EXPECT_EQ(h->need_base, 4376);
    EXPECT_EQ(h->heap_base, 4396);
    EXPECT_EQ(h->buf_lock, 0x5u);  // receives co_bits
    EXPECT_EQ(h->iscom_magicval, ISCOM_MAGIC);
    EXPECT_EQ(h->buf_free, 0);
    EXPECT_EQ(h->lru_cnt, 0u);
    EXPECT_EQ(h->vr_nsleep, 0);
    EXPECT_EQ(h->isc_bits, 0u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(is_env.buf_[i].bu_next, i == 3 ? -1 : i + 1);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(is_env.pfo_tbl[i], -1);
    EXPECT_EQ(reinterpret_cast<char*>(is_env.buf_), reinterpret_cast<char*>(isam_com) + 156);
    EXPECT_EQ(is_env.heap_, reinterpret_cast<char*>(isam_com) + 4396);
    EXPECT_EQ(reinterpret_cast<char*>(is_env.pid_), reinterpret_cast<char*>(isam_com) + 4356);
    EXPECT_EQ(reinterpret_cast<char*>(is_env.needs_), reinterpret_cast<char*>(isam_com) + 4376);
    EXPECT_EQ(is_env.pid_[0], ::getpid());
    for (int i = 1; i < 5; ++i) EXPECT_EQ(is_env.pid_[i], 0);
    kt::detach_raw();
}

TEST(Segment, AttachAddressFromIsamaddr) {
    kt::Config k = example_config();
    kt::Installation inst(k);
    ::setenv("ISAMADDR", "1024", 1);
    char* p = getcomm(inst.key(), 8192);
    ::unsetenv("ISAMADDR");
    ASSERT_NE(p, reinterpret_cast<char*>(-1));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p), uintptr_t{1} << 30);
    isam_com = reinterpret_cast<struct isam_com*>(p);
    freecom();
    isam_com = nullptr;
    EXPECT_EQ(::shmget(inst.key(), 0, 0), -1);  // the last detach removed it
}

TEST(Segment, ExistingSmallerSegmentIsRefusedWithTheMessage) {
    kt::Installation inst(example_config());
    int id = ::shmget(inst.key(), 8192, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    char* p = nullptr;
    std::string msg = kt::capture_output(2, [&] { p = getcomm(inst.key(), 16384); });
    EXPECT_EQ(p, reinterpret_cast<char*>(-1));
    EXPECT_EQ(msg, "shmget fail. errno = " + std::to_string(EINVAL) + "\n");
}

TEST(FileLocks, StartUpRangeExcludesOtherProcesses) {
    kt::Installation inst;
    std::string lk = inst.config_path() + ".lk";
    int fd = ::open(lk.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ISLockFile(fd, 0, 2), 0);
    auto probe = [&](off_t at) {
        return kt::run_child([&] {
            int cfd = ::open(lk.c_str(), O_RDWR);
            if (::lseek(cfd, at, SEEK_SET) < 0) return 2;
            return ::lockf(cfd, F_TLOCK, 1) == 0 ? 0 : 1;
        });
    };
    EXPECT_EQ(probe(1), 1);  // held
    EXPECT_EQ(probe(2), 0);  // outside the range
    ASSERT_EQ(ISUnlockFile(fd, 0, 2), 0);
    EXPECT_EQ(probe(0), 0);
    ::close(fd);
}

TEST(TextHelpers, FormatAndIndex) {
    char buf[32];
    wqltoa(42, buf, 5);
    EXPECT_STREQ(buf, "   42");
    wqltoa(-1234567890123L, buf, 3);
    EXPECT_STREQ(buf, "-1234567890123");
    wqitoa(-7, buf, 4);
    EXPECT_STREQ(buf, "  -7");
    EXPECT_EQ(wqindex("abc", 'c'), 2);
    EXPECT_EQ(wqindex("abc", 'd'), -1);
    EXPECT_EQ(wqindex("abca", 'a'), 0);
    EXPECT_EQ(wqindex("", 'a'), -1);
}
