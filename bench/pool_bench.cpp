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
//   - the 1024-byte pread of a cached file page alone, which every miss includes, into a
//     region as large as the pool (rounds alternate with the misses at the quota).
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
#include <time.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Processor time of this thread (user and system), in nanoseconds: what a miss costs
// without the time the machine gave to other processes.
double cpu_ns() {
    timespec ts;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}


double ns_per(Clock::duration d, long n) {
    return std::chrono::duration<double, std::nano>(d).count() / static_cast<double>(n);
}

// Reads pages first .. first+n-1 of a cycle over 2 * maxbuf pages in one hold: past the
// first turn every read misses.
bool miss_cycle(int isfd, long first, long n, int maxbuf) {
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
}

// The timed misses at the quota, apart so that a profiler can count this call alone
// (valgrind --tool=callgrind --cache-sim=yes --toggle-collect='*quota_round*').
__attribute__((noinline)) bool quota_round(int isfd, long first, long n, int maxbuf) {
    return miss_cycle(isfd, first, n, maxbuf);
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

    auto cycle = [&](int isfd, long first, long n) { return miss_cycle(isfd, first, n, maxbuf); };
    // Misses at the quota and the page read alone, in alternating rounds so that a burst of
    // load on the machine hits both alike; each figure is the median of its rounds, in
    // processor time (user and system) per miss.  The read
    // alone lands in a region the size of the pool, one slot after another as the file's
    // hand takes them, so that both pay the same for a destination that is cold in the cache
    // (at 32 MiB it is, at 1 MiB it is not): what is left is the pool's own share.
    const char* scale = std::getenv("POOL_BENCH_MISSES");
    const long n_miss = scale && std::atol(scale) >= 8000 ? std::atol(scale) : 400000;
    const int rounds = 8;
    const long per_round = n_miss / rounds;
    if (!cycle(fd, 0, 2L * maxbuf)) return 1;  // warm the file's pages in the page cache
    const int os = ::open(file.c_str(), O_RDONLY);
    std::vector<char> region(static_cast<size_t>(maxbuf) * 1024);
    std::vector<double> miss_ns, read_ns;
    const uint32_t m0 = isam_com->missfree + isam_com->missread + isam_com->misswrite;
    long next = 2L * maxbuf;
    for (int r = 0; r < rounds; ++r) {
        const double a = cpu_ns();
        if (!quota_round(fd, next, per_round, maxbuf)) return 1;
        const double b = cpu_ns();
        for (long i = next; i < next + per_round; ++i) {
            char* dst = region.data() + static_cast<size_t>(i % maxbuf) * 1024;
            if (::pread(os, dst, 1024, (1 + i % (2L * maxbuf)) * 1024) != 1024) return 1;
        }
        const double c = cpu_ns();
        next += per_round;
        miss_ns.push_back((b - a) / static_cast<double>(per_round));
        read_ns.push_back((c - b) / static_cast<double>(per_round));
    }
    ::close(os);
    const uint32_t m1 = isam_com->missfree + isam_com->missread + isam_com->misswrite;
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    };
    const double miss = median(miss_ns), alone = median(read_ns);

    // Misses that steal: two files share the pool, the quota is the whole pool, so neither
    // reuses its own and the free list is empty; alternate holds of 1000 reads.
    if (!cycle(fd2, 0, 2L * maxbuf)) return 1;
    const uint32_t s0 = isam_com->missread + isam_com->misswrite;
    auto t8 = Clock::now();
    for (long i = 0; i < n_miss; i += 1000)
        if (!cycle((i / 1000) % 2 ? fd2 : fd, i, 1000)) return 1;
    auto t9 = Clock::now();
    const uint32_t s1 = isam_com->missread + isam_com->misswrite;

    std::printf("buffers %6d  v_read hit %7.1f ns/op  getctl+hit+release %8.1f ns/op  "
                "getctl+release %8.1f ns/op\n",
                maxbuf, ns_per(t1 - t0, n_hit), ns_per(t3 - t2, n_cycle), ns_per(t5 - t4, n_cycle));
    std::printf("               miss at quota %7.1f cpu ns/op (%u of %ld missed)  pread alone %7.1f cpu ns/op  "
                "pool's share %6.1f\n",
                miss, m1 - m0, n_miss, alone, miss - alone);
    std::printf("               miss stealing %7.1f ns/op (%u stolen)\n", ns_per(t9 - t8, n_miss), s1 - s0);
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
