// A B-tree file in a private installation, and its pages on disk.
#pragma once

#include <gtest/gtest.h>
#include <kisam/kisam.h>

#include "bt.h"
#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "kisam_test.h"
#include "layout.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace btt {

// Between begin() and end() the test holds the frame and control lock.
class BtFile {
public:
    BtFile(int magicv, std::vector<int> lens, const kt::Config& cfg = kt::Config())
        : inst_(std::make_unique<kt::Installation>(cfg)), path_(inst_->path("bt.isam")),
          compact_(magicv == 512) {
        niscr_ctl(0, magicv);
        fd_ = niscreate(path_.c_str(), static_cast<int>(lens.size()), lens.data());
    }
    ~BtFile() {
        if (in_) end();
        if (fd_ >= 0) nisclose(fd_);
        nisunisam();
        inst_.reset();
    }
    bool ok() const { return fd_ >= 0; }
    const std::string& path() const { return path_; }
    int fd() const { return fd_; }

    void begin() {
        ASSERT_EQ(is_isin(PROC(P_ISWRITE), fd_, 0), 0);
        ASSERT_EQ(is_getctl(), 0);
        in_ = true;
    }
    void end() {
        in_ = false;
        EXPECT_EQ(kt::write_back(), 0);
        EXPECT_EQ(is_relctl(), 0);
        is_isout();
    }

    IS_KEY* key(int k) const { return kisam::fcp_key(is_curfcp, k); }
    PAGE root(int k) const { return key(k)->k_root; }
    PAGE& currpage(int k) const { return kisam::db_cursor(is_curdb, k)->currpage; }

    int insert(int k, std::string& item, int forcef = 0) {
        return bt_insert(k, root(k), item.data(), 0, forcef);
    }
    int remove(int k, std::string item) { return bt_delete(k, root(k), item.data(), KISAM_NOPAGE); }

    // Page p as it is on disk (page 1024 of a compact-header file lies at offset 512).
    IS_DATA disk_page(PAGE p) const {
        EXPECT_EQ(kt::write_back(), 0);
        IS_DATA d;
        std::memset(&d, 0x5A, sizeof d);
        int fd = ::open(path_.c_str(), O_RDONLY);
        EXPECT_EQ(::pread(fd, d.c, sizeof d.c, static_cast<off_t>(p) - (compact_ ? 512 : 0)),
                  static_cast<ssize_t>(sizeof d.c)) << p;
        ::close(fd);
        return d;
    }

private:
    std::unique_ptr<kt::Installation> inst_;
    std::string path_;
    bool compact_;
    int fd_ = -1;
    bool in_ = false;
};

inline int16_t nitems(const IS_DATA& d) { return d.bt.bt_nitems; }
inline PAGE ptr_at(const IS_DATA& d, int i, int len) {
    return kisam::load_at<PAGE>(d.c + 4 + i * (len + 4));
}
inline std::string item_at(const IS_DATA& d, int i, int len) {
    return std::string(d.c + 8 + i * (len + 4), static_cast<size_t>(len));
}

}  // namespace btt
