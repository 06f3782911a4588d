// Cost of a buffer-pool hit, of a release and of a miss, from a small to the largest pool.
//
//   pool_bench [buffers...]     (default: 1000 4000 16000 32000 32767)
//
// The slot count is a 16-bit field of the shared header, so 32,767 slots is the largest
// pool there is.  For each size it sets up its own installation in a temporary directory
// (configuration and lock file, settings variables pointing there), fills the pool with
// the pages of one file so that the file's chain holds every slot, then times:
//   - v_read of a cached page alone (inside one control-lock hold);
//   - a control-lock get + v_read hit + release (which flushes);
//   - the control-lock pair alone;
//   - a miss at the file's quota: pages read in a cycle over twice as many pages as there
//     are slots, so that every read misses and reuses one of the file's own slots;
//   - a miss that steals: the same over two files that share the pool, so that every
//     read takes a slot through the scan over all slots;
//   - the 1024-byte pread of a cached file page alone, which every miss includes.
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
    // Files of twice as many pages as slots, written straight to the disk.
    auto make = [&](const std::string& file) {
        int lens[1] = {8};
        int fd = niscreate(file.c_str(), 1, lens);
        if (fd < 0) return -1;
        nisclose(fd);
        int os = ::open(file.c_str(), O_RDWR);
        std::vector<char> page(1024, 0);
        for (int i = 1; i <= 2 * maxbuf; ++i)
            if (::pwrite(os, page.data(), page.size(), static_cast<off_t>(i) * 1024) != 1024) return -1;
        ::close(os);
        return nisopen(file.c_str(), ISO_RDWR);
    };
    const std::string file = dir + "/bench" + std::to_string(maxbuf) + ".ism";
    const std::string file2 = dir + "/other" + std::to_string(maxbuf) + ".ism";
    int fd = make(file);
    int fd2 = make(file2);
    if (fd < 0 || fd2 < 0) {
        std::fprintf(stderr, "file set-up failed: %d\n", is_errno);
        nisunisam();
        return 1;
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

    // Misses at the quota: a cycle over 2 * maxbuf pages misses at every read.
    auto cycle = [&](int isfd, long first, long n) {
        is_isin(PROC(P_ISREAD), isfd, 0);
        is_getctl();
        for (long i = first; i < first + n; ++i) {
            const PAGE p = static_cast<PAGE>(1 + i % (2L * maxbuf)) * 1024;
            IS_DATA* d = v_read(p);
            if (!d) return false;
            v_unsafe(p, d->c);
        }
        is_relctl();
        is_isout();
        return true;
    };
    const long n_miss = 400000;
    if (!cycle(fd, 0, 2L * maxbuf)) return 1;  // warm the file's pages in the page cache
    const uint32_t m0 = isam_com->missfree + isam_com->missread + isam_com->misswrite;
    auto t6 = Clock::now();
    if (!cycle(fd, 2L * maxbuf, n_miss)) return 1;
    auto t7 = Clock::now();
    const uint32_t m1 = isam_com->missfree + isam_com->missread + isam_com->misswrite;

    // Misses that steal: two files share the pool, the quota is the whole pool, so neither
    // reuses its own and the free list is empty; alternate holds of 1000 reads.
    if (!cycle(fd2, 0, 2L * maxbuf)) return 1;
    const uint32_t s0 = isam_com->missread + isam_com->misswrite;
    auto t8 = Clock::now();
    for (long i = 0; i < n_miss; i += 1000)
        if (!cycle((i / 1000) % 2 ? fd2 : fd, i, 1000)) return 1;
    auto t9 = Clock::now();
    const uint32_t s1 = isam_com->missread + isam_com->misswrite;

    // The page read alone.
    const int os = ::open(file.c_str(), O_RDONLY);
    char page[1024];
    auto t10 = Clock::now();
    for (long i = 0; i < n_miss; ++i)
        if (::pread(os, page, sizeof page, (1 + i % (2L * maxbuf)) * 1024) != 1024) return 1;
    auto t11 = Clock::now();
    ::close(os);

    std::printf("buffers %6d  v_read hit %7.1f ns/op  getctl+hit+release %8.1f ns/op  "
                "getctl+release %8.1f ns/op\n",
                maxbuf, ns_per(t1 - t0, n_hit), ns_per(t3 - t2, n_cycle), ns_per(t5 - t4, n_cycle));
    std::printf("               miss at quota %7.1f ns/op (%u of %ld missed)  miss stealing %7.1f ns/op "
                "(%u stolen)  pread alone %7.1f ns/op\n",
                ns_per(t7 - t6, n_miss), m1 - m0, n_miss, ns_per(t9 - t8, n_miss), s1 - s0,
                ns_per(t11 - t10, n_miss));
    std::printf("               pool: hit %u missfree %u missread %u misswrite %u sysread %u "
                "syswrite %u vr_nsleep %u lru_cnt %u\n",
                isam_com->hit, isam_com->missfree, isam_com->missread, isam_com->misswrite,
                isam_com->sysread, isam_com->syswrite, isam_com->vr_nsleep, isam_com->lru_cnt);
    nisclose(fd);
    nisclose(fd2);
    nisunisam();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
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
    std::vector<int> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
    if (sizes.empty()) sizes = {1000, 4000, 16000, 32000, 32767};
    for (int n : sizes) {
        if (n < 16 || n > 32767) {
            std::fprintf(stderr, "pool_bench: buffers must lie in 16..32767 (a 16-bit field)\n");
            return 2;
        }
    }
    for (int n : sizes)
        if (rc == 0) rc = run(dir, n);
    std::string cmd = "rm -rf '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) rc = rc ? rc : 1;
    return rc;
}
