// The benchmarks' own installation: a configuration record sized for maxbuf buffers
// (the whole pool may serve one file) and its lock file.
#pragma once

#include <kisam/isamdb.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

inline bool bench_write_config(const std::string& path, int maxbuf) {
    struct is_config c;
    std::memset(&c, 0, sizeof c);
    c.co_maxopen = 16;
    c.co_maxbuf = static_cast<int16_t>(maxbuf);
    c.co_maxusers = 64;  // the parent and up to 63 writer or reader processes
    c.co_maxnkeys = 25;
    c.co_avgalts = 2;
    c.co_alenlock = 16;
    c.co_anumlock = 16;
    c.co_maxfbuf = static_cast<int16_t>(maxbuf);
    c.co_maxufile = 16;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) return false;
    bool ok = ::write(fd, &c, sizeof c) == static_cast<ssize_t>(sizeof c);
    ::close(fd);
    fd = ::open((path + ".lk").c_str(), O_RDWR | O_CREAT, 0666);
    if (fd >= 0) ::close(fd);
    return ok && fd >= 0;
}
