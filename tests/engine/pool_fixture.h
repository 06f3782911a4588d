// Buffer-pool tests: files whose pages carry their own number, views of the slots.
#pragma once

#include <gtest/gtest.h>
#include <kisam/kisam.h>

#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "kisam_test.h"
#include "layout.h"
#include "v_pool.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace pt {

constexpr int16_t kKeyno = 7;  // bt_keyno stamped into every test page

inline PAGE stamp_of(const IS_DATA* d) { return kisam::load_at<PAGE>(d->c + 8); }
inline IS_BUF& slot(int i) { return is_env.buf_[i]; }
inline int slot_of(const IS_DATA* d) { return v_slot_of(d); }
inline int uid(int isfd) { return is_db[isfd]->uniqueid; }
inline IS_FCP* fcp_of(int isfd) { return kisam::pfo_fcp(uid(isfd)); }
using kt::stack_code;

// Pages held by file slot u, in chain order.
inline std::vector<PAGE> chain_pages(int u) {
    std::vector<PAGE> v;
    IS_FCP* f = kisam::pfo_fcp(u);
    for (int s = f ? f->jd_buf_hd : -1; s >= 0 && v.size() < 10000; s = slot(s).bu_next)
        v.push_back(slot(s).bu_pno);
    return v;
}
inline int fixed_slots() {
    int n = 0;
    for (int i = 0; i < isam_com->maxbufs; ++i) n += (slot(i).bu_id & BU_INUSE) != 0;
    return n;
}

class PoolEnv : public ::testing::Test {
protected:
    void start(const kt::Config& c) {
        inst_ = std::make_unique<kt::Installation>(c);
        ASSERT_EQ(is_init(), 0);
    }
    void stop() {
        nisunisam();
        inst_.reset();
    }
    void TearDown() override { stop(); }
    std::string path(const std::string& n) const { return inst_->path(n); }
    // A one-key file whose pages 1024 .. npages * 1024 carry their own number at byte 8,
    // reopened with `access`.
    int make_file(const std::string& n, int npages, int access = ISO_RDWR) {
        int lens[1] = {8};
        int fd = niscreate(path(n).c_str(), 1, lens);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(nisclose(fd), 0);
        int os = ::open(path(n).c_str(), O_RDWR);
        unsigned char page[1024] = {};
        kisam::store_at<int16_t>(page, kKeyno);
        for (PAGE p = 1024; p <= static_cast<PAGE>(npages) * 1024; p += 1024) {
            kisam::store_at<PAGE>(page + 8, p);
            EXPECT_EQ(::pwrite(os, page, 1024, p), 1024);
        }
        ::close(os);
        fd = nisopen(path(n).c_str(), access);
        EXPECT_GE(fd, 0) << is_errno;
        return fd;
    }
    void begin(int isfd) {
        ASSERT_EQ(is_isin(PROC(P_ISREAD), isfd, 0), 0);
        ASSERT_EQ(is_getctl(), 0);
    }
    int end() {
        int rc = is_relctl();
        is_isout();
        return rc;
    }
    // v_read of page i * 1024, checked against its stamp.
    IS_DATA* get(int i) {
        IS_DATA* d = v_read(static_cast<PAGE>(i) * 1024);
        EXPECT_NE(d, nullptr) << "page " << i;
        if (d) {
            EXPECT_EQ(stamp_of(d), static_cast<PAGE>(i) * 1024);
        }
        return d;
    }
    std::unique_ptr<kt::Installation> inst_;
};

inline kt::Config cfg(int maxbuf, int maxfbuf) {
    kt::Config c;
    c.maxbuf = static_cast<int16_t>(maxbuf);
    c.maxfbuf = static_cast<int16_t>(maxfbuf);
    return c;
}

}  // namespace pt
