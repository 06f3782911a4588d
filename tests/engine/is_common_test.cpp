// Common segment: the worked example's sizes as start-up lays the segment out.
#include "is_common.h"

#include <gtest/gtest.h>

#include "kisam_test.h"

TEST(Segment, SizeCommExampleLayout) {
    kt::Config k;
    k.maxbuf = 4; k.maxopen = 10; k.maxusers = 5; k.avgalts = 2; k.alenlock = 10; k.anumlock = 4;
    struct is_config c = kt::to_record(k);
    ASSERT_EQ(sizecomm(&c), 0);
    EXPECT_EQ(c.co_comsize, 8192);
    EXPECT_EQ(c.co_heapbase, 4396);
    kt::Installation inst(k);
    ASSERT_EQ(kt::attach_raw(inst, k), 0);
    const struct isam_com* h = isam_com;
    EXPECT_EQ(h->comsize, 8192);
    EXPECT_EQ(h->buf_base, 156);
    EXPECT_EQ(h->pfo_base, 4316);
    EXPECT_EQ(h->pid_base, 4356);
    EXPECT_EQ(h->need_base, 4376);
    EXPECT_EQ(h->heap_base, 4396);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(is_env.buf_[i].bu_next, i == 3 ? -1 : i + 1);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(is_env.pfo_tbl[i], -1);
    EXPECT_EQ(is_env.pid_[0], ::getpid());
    kt::detach_raw();
}
