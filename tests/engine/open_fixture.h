// Shared helpers of the start-up, open/close, framing and locking tests: a private
// installation per test, the error stack as codes, and raw control-page access.
#pragma once

#include <gtest/gtest.h>
#include <kisam/kisam.h>

#include "kisam_test.h"
#include "layout.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace ot {

using kt::stack_code;
inline int stack_depth() { return is_etop ? static_cast<int>(is_etop - is_estk) : 0; }

// The shared control page behind a descriptor of this process.
inline IS_FCP* shared_fcp(int isfd) { return kisam::pfo_fcp(is_db[isfd]->uniqueid); }
inline IS_PFI* pfi_of(int isfd) { return &is_pfi[is_db[isfd]->uniqueid]; }

// The first n bytes of a file.
inline std::vector<unsigned char> read_head(const std::string& path, size_t n = 512) {
    std::vector<unsigned char> b(n);
    int fd = ::open(path.c_str(), O_RDONLY);
    ssize_t got = fd < 0 ? 0 : ::pread(fd, b.data(), n, 0);
    if (fd >= 0) ::close(fd);
    b.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return b;
}
inline void write_bytes(const std::string& path, const void* p, size_t n, off_t off) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, p, n, off), static_cast<ssize_t>(n));
    ::close(fd);
}

// Number of processes registered in the process table.
inline int attached_processes() {
    int n = 0;
    for (int i = 0; i < isam_com->maxusers; ++i) n += is_env.pid_[i] != 0;
    return n;
}

// Turns a forked child of an attached process into one that has never attached: drops
// the inherited mapping, so that its own detach can tell when it is the last.
inline void become_unattached() {
    if (isam_com) ::shmdt(isam_com);
    isam_com = nullptr;
}

// A test with its own installation; detaches (and so removes the segment) at the end.
class Env : public ::testing::Test {
protected:
    void start(const kt::Config& c = kt::Config(), bool lock_file = true) {
        inst_ = std::make_unique<kt::Installation>(c, lock_file);
    }
    void SetUp() override { start(); }
    void TearDown() override {
        nisunisam();
        inst_.reset();
    }
    std::string path(const std::string& name) const { return inst_->path(name); }
    // Creates a file with the given key lengths and returns its descriptor.
    int create(const std::string& name, std::vector<int> lens) {
        return niscreate(path(name).c_str(), static_cast<int>(lens.size()), lens.data());
    }
    std::unique_ptr<kt::Installation> inst_;
};

}  // namespace ot
