// Helpers of the start-up, open/close and locking tests.
#pragma once

#include <gtest/gtest.h>
#include <kisam/kisam.h>

#include "kisam_test.h"
#include "layout.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace ot {

using kt::stack_code;
inline int stack_depth() { return is_etop ? static_cast<int>(is_etop - is_estk) : 0; }

// The shared control page behind a descriptor of this process.
inline IS_FCP* shared_fcp(int isfd) { return kisam::pfo_fcp(is_db[isfd]->uniqueid); }
inline IS_PFI* pfi_of(int isfd) { return &is_pfi[is_db[isfd]->uniqueid]; }

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

inline int attached_processes() {
    int n = 0;
    for (int i = 0; i < isam_com->maxusers; ++i) n += is_env.pid_[i] != 0;
    return n;
}

using kt::become_unattached;
// A test with its own installation; detaches (and so removes the segment) at the end.
using Env = kt::Env;

}  // namespace ot
