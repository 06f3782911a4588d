// The workload's engine for this library: one ISAM file with the three keys, in an
// installation of its own (configuration and lock file in the store's directory, the
// settings variables pointing there).  Every changed page reaches the file as it changes,
// so a completed call survives the kill of its process.  In durable mode the engine sets
// "KISAM_DURABLE" to 1 before it attaches (its children inherit it), which asks the library
// to make every changing call durable before it returns; a library without that mode
// ignores the variable.
#pragma once

#include <kisam/kisam.h>
#include <kisam/ztsupport.h>

#include "bench_config.h"
#include "workload.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdlib>
#include <string>

namespace wl {

class KisamEngine : public Engine {
public:
    // durable: 1 sets "KISAM_DURABLE", 0 removes it, -1 leaves the environment as it is.
    explicit KisamEngine(int durable = -1) : durable_(durable) {}
    const char* name() const override { return "kisam"; }
    bool open(const std::string& dir, long cache_bytes) override {
        dir_ = dir;
        if (durable_ == 1) ::setenv("KISAM_DURABLE", "1", 1);
        if (durable_ == 0) ::unsetenv("KISAM_DURABLE");
        long bufs = cache_bytes / 1024;
        if (bufs > 32767) bufs = 32767;  // the slot count is a 16-bit field
        const std::string cfg = dir + "/kisamconfig";
        if (!bench_write_config(cfg, static_cast<int>(bufs))) return false;
        ::setenv("HOME", dir.c_str(), 1);
        ::setenv("HOME_Q9", dir.c_str(), 1);
        ::setenv("PROFILEQ9ENV", (dir + "/.Q9.profile").c_str(), 1);
        ::setenv("KISCONFIG", cfg.c_str(), 1);
        ZTPutEnv("KISCONFIG", cfg.c_str());
        if (is_init() != 0) return report("is_init");
        int lens[3] = {kKey0, kKey1, kKey2};
        niscr_ctl(0, 1024);
        fd_ = niscreate((dir + "/bench.ism").c_str(), 3, lens);
        return fd_ >= 0 || report("niscreate");
    }
    void close() override {
        if (fd_ >= 0) nisclose(fd_);
        fd_ = -1;
        if (ZTKISAMGetComAddr() != nullptr) nisunisam();
        // The last detach removes the segment; make sure of it even after a failure.
        key_t key = ::ftok((dir_ + "/kisamconfig.lk").c_str(), 1);
        int id = key == -1 ? -1 : ::shmget(key, 0, 0);
        if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
    }
    bool child_open() override { return is_chinit() == 0; }
    void child_close() override { nisunisam(); }
    bool insert(const char* rec) override { return niswrite(fd_, rec, kRecLen) == 0 || report("niswrite"); }
    bool find(const char* key0, char* rec) override {
        return nisfind(fd_, 0, key0, rec, kRecLen) == kRecLen || report("nisfind");
    }
    long scan_key1() override {
        char buf[kRecLen + 16];
        long seen = 0;
        int r;
        while ((r = nisread(fd_, 1, buf, kRecLen)) > 0) ++seen;
        return r == 0 ? seen : (report("nisread"), -1);
    }
    bool update(const char* rec) override {
        return nisupdate(fd_, rec, kRecLen) == 0 || report("nisupdate");
    }
    bool remove(const char* key0) override { return nisdelete(fd_, key0) == 0 || report("nisdelete"); }
    int fd() const { return fd_; }

private:
    static bool report(const char* what) {
        std::fprintf(stderr, "kisam: %s failed\n", what);
        niserrmsg();
        return false;
    }
    std::string dir_;
    int durable_ = -1;
    int fd_ = -1;
};

}  // namespace wl
