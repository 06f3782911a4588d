// Cost of a buffer-pool hit and of a release, with a small and a large pool.
//
// Sets up its own installation in a temporary directory (configuration and lock file,
// settings variables pointing there), fills the pool with the pages of one file so that
// the file's chain holds every slot, then times:
//   - v_read of a cached page alone (inside one control-lock hold);
//   - a control-lock get + v_read hit + release (which flushes).
// The segment goes away when the program detaches as the last process.
#include <kisam/kisam.h>

#include "bench_config.h"
#include <kisam/ztsupport.h>

#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "layout.h"
#include "v_pool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;


double ns_per(Clock::duration d, long n) {
    return std::chrono::duration<double, std::nano>(d).count() / static_cast<double>(n);
}

int run(const std::string& dir, int maxbuf) {
    const std::string cfg = dir + "/kisamconfig";
    if (!bench_write_config(cfg, maxbuf)) return 1;
    ::setenv("KISCONFIG", cfg.c_str(), 1);
    ZTPutEnv("KISCONFIG", cfg.c_str());
    if (is_init() != 0) {
        std::fprintf(stderr, "is_init failed: %d\n", is_errno);
        return 1;
    }
    const std::string file = dir + "/bench" + std::to_string(maxbuf) + ".ism";
    int lens[1] = {8};
    int fd = niscreate(file.c_str(), 1, lens);
    if (fd < 0) {
        std::fprintf(stderr, "niscreate failed: %d\n", is_errno);
        nisunisam();
        return 1;
    }
    // One page per slot, written straight to the file.
    {
        int os = ::open(file.c_str(), O_RDWR);
        std::vector<char> page(1024, 0);
        for (int i = 1; i <= maxbuf; ++i)
            if (::pwrite(os, page.data(), page.size(), static_cast<off_t>(i) * 1024) != 1024) return 1;
        ::close(os);
    }
    is_isin(PROC(P_ISREAD), fd, 0);
    is_getctl();
    for (int i = 1; i <= maxbuf; ++i)
        if (!v_read(static_cast<PAGE>(i) * 1024)) return 1;
    is_relctl();
    is_isout();

    std::mt19937 rng(42);
    std::vector<PAGE> pages(4096);
    for (PAGE& p : pages) p = static_cast<PAGE>(1 + rng() % static_cast<unsigned>(maxbuf)) * 1024;

    const long n_hit = 2000000;
    is_isin(PROC(P_ISREAD), fd, 0);
    is_getctl();
    auto t0 = Clock::now();
    for (long i = 0; i < n_hit; ++i) {
        IS_DATA* d = v_read(pages[static_cast<size_t>(i) & 4095]);
        if (!d) return 1;
    }
    auto t1 = Clock::now();
    is_relctl();
    is_isout();

    const long n_cycle = 300000;
    is_isin(PROC(P_ISREAD), fd, 0);
    auto t2 = Clock::now();
    for (long i = 0; i < n_cycle; ++i) {
        is_getctl();
        IS_DATA* d = v_read(pages[static_cast<size_t>(i) & 4095]);
        if (!d) return 1;
        is_relctl();
    }
    auto t3 = Clock::now();
    is_isout();

    // The lock pair alone, for comparison: what a release costs beyond it is the flush.
    is_isin(PROC(P_ISREAD), fd, 0);
    auto t4 = Clock::now();
    for (long i = 0; i < n_cycle; ++i) {
        is_getctl();
        is_relctl();
    }
    auto t5 = Clock::now();
    is_isout();

    std::printf("buffers %6d  v_read hit %7.1f ns/op  getctl+hit+release %8.1f ns/op  "
                "getctl+release %8.1f ns/op\n",
                maxbuf, ns_per(t1 - t0, n_hit), ns_per(t3 - t2, n_cycle), ns_per(t5 - t4, n_cycle));
    std::printf("               pool: hit %u missfree %u missread %u misswrite %u sysread %u "
                "syswrite %u vr_nsleep %u lru_cnt %u\n",
                isam_com->hit, isam_com->missfree, isam_com->missread, isam_com->misswrite,
                isam_com->sysread, isam_com->syswrite, isam_com->vr_nsleep, isam_com->lru_cnt);
    nisclose(fd);
    nisunisam();
    return 0;
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/kisam-bench-XXXXXX";
    char* d = ::mkdtemp(tmpl);
    if (!d) return 1;
    const std::string dir = d;
    ::mkdir((dir + "/home").c_str(), 0777);
    ::mkdir((dir + "/q9").c_str(), 0777);
    ::setenv("HOME", (dir + "/home").c_str(), 1);
    ::setenv("HOME_Q9", (dir + "/q9").c_str(), 1);
    ::setenv("PROFILEQ9ENV", (dir + "/home/.Q9.profile").c_str(), 1);
    int rc = 0;
    for (int n : {1000, 32000})
        if (rc == 0) rc = run(dir, n);
    std::string cmd = "rm -rf '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) rc = rc ? rc : 1;
    return rc;
}
