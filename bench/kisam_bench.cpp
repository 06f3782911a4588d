// Throughput of the record operations on one file through the public interface.
//
//   kisam_bench [buffers [records]]     (defaults: 1000 buffers, 100000 records)
//
// Sets up its own installation in a temporary directory (configuration and lock file,
// settings variables pointing there), creates a file with three keys of 8, 12 and 4
// bytes and times, one call per record of 100 bytes: inserts in random key order,
// random reads by key 0, a full scan along key 1, updates that change key 1, the random
// reads again bracketed by nisgetctl/nisrelctl in batches of 1000, and deletes in random
// order.  For each phase it prints operations per second and the pool's counters from
// the common area header.  The segment goes away when the program detaches as the last
// process (and is removed explicitly should anything fail); the directory is removed at
// the end.
#include <kisam/kisam.h>

#include "bench_config.h"
#include <kisam/ztsupport.h>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRecLen = 100;


// Key 0: 8 bytes from the record number; key 1: 12 bytes that change with `gen`;
// key 2: 4 bytes with few distinct values.  The rest is filler.
void make_record(char* r, unsigned id, unsigned gen) {
    std::snprintf(r, 9, "%08u", id);
    std::snprintf(r + 8, 13, "%04u%08u", gen % 10000, (id * 2654435761u) % 100000000u);
    std::snprintf(r + 20, 5, "%04u", id % 97);
    std::memset(r + 24, 'a' + static_cast<int>(id % 26), kRecLen - 24);
}

struct Counters {
    uint32_t hit, missfree, misswrite, missread, sysread, syswrite;
};

Counters counters() {
    const struct isam_com* c = static_cast<const struct isam_com*>(ZTKISAMGetComAddr());
    return {c->hit, c->missfree, c->misswrite, c->missread, c->sysread, c->syswrite};
}

void report(const char* phase, long n, Clock::duration d, const Counters& a, const Counters& b) {
    double s = std::chrono::duration<double>(d).count();
    std::printf("%-34s %9.0f ops/s  hit %9u  miss(free %u, write %u, read %u)  sysread %u  syswrite %u\n",
                phase, static_cast<double>(n) / s, b.hit - a.hit, b.missfree - a.missfree,
                b.misswrite - a.misswrite, b.missread - a.missread, b.sysread - a.sysread,
                b.syswrite - a.syswrite);
}

int fail(const char* what) {
    std::fprintf(stderr, "kisam_bench: %s failed\n", what);
    niserrmsg();
    return 1;
}

int run(const std::string& dir, int maxbuf, long n) {
    const std::string cfg = dir + "/kisamconfig";
    if (!bench_write_config(cfg, maxbuf)) return 1;
    ::setenv("KISCONFIG", cfg.c_str(), 1);
    ZTPutEnv("KISCONFIG", cfg.c_str());
    if (is_init() != 0) return fail("is_init");

    const std::string file = dir + "/bench.ism";
    int lens[3] = {8, 12, 4};
    niscr_ctl(0, 1024);
    int fd = niscreate(file.c_str(), 3, lens);
    if (fd < 0) return fail("niscreate");

    std::vector<unsigned> order(static_cast<size_t>(n));
    std::iota(order.begin(), order.end(), 0u);
    std::mt19937 rng(12345);
    std::vector<char> rec(kRecLen), buf(kRecLen + 16);
    std::printf("%ld records of %d bytes, %d buffers\n", n, kRecLen, maxbuf);

    auto phase = [&](const char* name, auto&& body) -> bool {
        Counters a = counters();
        auto t0 = Clock::now();
        bool ok = body();
        auto t1 = Clock::now();
        if (ok) report(name, n, t1 - t0, a, counters());
        return ok;
    };

    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("insert, random key order", [&] {
            for (unsigned id : order) {
                make_record(rec.data(), id, 0);
                if (niswrite(fd, rec.data(), kRecLen) != 0) return false;
            }
            return true;
        }))
        return fail("niswrite");

    std::shuffle(order.begin(), order.end(), rng);
    auto random_reads = [&] {
        char key[9];
        for (unsigned id : order) {
            std::snprintf(key, sizeof key, "%08u", id);
            if (nisfind(fd, 0, key, buf.data(), kRecLen) != kRecLen) return false;
        }
        return true;
    };
    if (!phase("read by key 0, random", random_reads)) return fail("nisfind");

    if (!phase("scan along key 1", [&] {
            long seen = 0;
            int r;
            while ((r = nisread(fd, 1, buf.data(), kRecLen)) > 0) ++seen;
            return r == 0 && seen == n;
        }))
        return fail("nisread");

    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("update changing key 1", [&] {
            for (unsigned id : order) {
                make_record(rec.data(), id, 1);
                if (nisupdate(fd, rec.data(), kRecLen) != 0) return false;
            }
            return true;
        }))
        return fail("nisupdate");

    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("read by key 0, batches of 1000", [&] {
            char key[9];
            for (size_t i = 0; i < order.size(); ++i) {
                if (i % 1000 == 0 && nisgetctl(fd) != 0) return false;
                std::snprintf(key, sizeof key, "%08u", order[i]);
                if (nisfind(fd, 0, key, buf.data(), kRecLen) != kRecLen) return false;
                if ((i % 1000 == 999 || i + 1 == order.size()) && nisrelctl(fd) != 0) return false;
            }
            return true;
        }))
        return fail("bracketed nisfind");

    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("delete, random order", [&] {
            char key[9];
            for (unsigned id : order) {
                std::snprintf(key, sizeof key, "%08u", id);
                if (nisdelete(fd, key) != 0) return false;
            }
            return true;
        }))
        return fail("nisdelete");

    if (nisclose(fd) != 0) return fail("nisclose");
    if (nisunisam() != 0) return fail("nisunisam");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int maxbuf = argc > 1 ? std::atoi(argv[1]) : 1000;
    long n = argc > 2 ? std::atol(argv[2]) : 100000;
    if (maxbuf < 16 || maxbuf > 32767 || n < 1) {
        std::fprintf(stderr, "usage: kisam_bench [buffers (16..32767) [records]]\n");
        return 2;
    }
    char tmpl[] = "/tmp/kisam-bench-XXXXXX";
    if (!::mkdtemp(tmpl)) return 1;
    const std::string dir = tmpl;
    ::setenv("HOME", dir.c_str(), 1);
    ::setenv("HOME_Q9", dir.c_str(), 1);
    ::setenv("PROFILEQ9ENV", (dir + "/.Q9.profile").c_str(), 1);
    int rc = run(dir, maxbuf, n);
    if (ZTKISAMGetComAddr() != nullptr) nisunisam();
    // The last detach removes the segment; make sure of it even after a failure.
    key_t key = ::ftok((dir + "/kisamconfig.lk").c_str(), 1);
    int id = key == -1 ? -1 : ::shmget(key, 0, 0);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
    std::string cmd = "rm -rf '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) rc = rc ? rc : 1;
    return rc;
}
