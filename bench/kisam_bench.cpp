// Throughput of the record operations on one file through the public interface, with the
// buffer pool's figures of every phase.
//
//   kisam_bench [records [buffers [processes]]]
//               (defaults: 100000 records, 1000 buffers, 2 processes for the mix)
//
// Sets up its own installation in a temporary directory (configuration and lock file,
// settings variables pointing there), creates a file with three keys of 8, 12 and 4 bytes
// and runs the workload of workload.h, one call per record of 100 bytes, plus the random
// reads again bracketed by nisgetctl/nisrelctl in batches of 1000.  For each phase it
// prints operations per second, processor time per operation (user and system, which a
// busy machine disturbs less than the wall time) and the pool's counters from the common area header: hits,
// misses served from the file's quota or the free list, steals (a dirty victim written
// first, or a clean one), pages read and written, and one-second waits.  The segment and
// the directory are removed at the end.
#include "kisam_engine.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Counters {
    uint32_t hit, missfree, misswrite, missread, sysread, syswrite, nsleep;
};

Counters counters() {
    const struct isam_com* c = static_cast<const struct isam_com*>(ZTKISAMGetComAddr());
    return {c->hit, c->missfree, c->misswrite, c->missread, c->sysread, c->syswrite, c->vr_nsleep};
}

void print(const char* phase, double ops, double cpu, const Counters& a, const Counters& b) {
    std::printf("%-36s %10.0f ops/s %7.2f cpu us/op  hit %9u  miss %8u  steal %7u  sysread %8u  syswrite %8u  waits %u\n",
                phase, ops, cpu, b.hit - a.hit, b.missfree - a.missfree,
                (b.misswrite - a.misswrite) + (b.missread - a.missread), b.sysread - a.sysread,
                b.syswrite - a.syswrite, static_cast<unsigned>(static_cast<uint16_t>(b.nsleep - a.nsleep)));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const long n = argc > 1 ? std::atol(argv[1]) : 100000;
    const int maxbuf = argc > 2 ? std::atoi(argv[2]) : 1000;
    const int procs = argc > 3 ? std::atoi(argv[3]) : 2;
    if (n < 1 || n > 4000000 || maxbuf < 16 || maxbuf > 32767 || procs < 1 || procs > 8) {
        std::fprintf(stderr, "usage: kisam_bench [records (1..4000000) [buffers (16..32767) [processes (1..8)]]]\n");
        return 2;
    }
    char tmpl[] = "/tmp/kisam-bench-XXXXXX";
    if (!::mkdtemp(tmpl)) return 1;
    const std::string dir = tmpl;
    wl::KisamEngine e;
    int rc = 1;
    if (e.open(dir, static_cast<long>(maxbuf) * 1024)) {
        std::printf("%ld records of %d bytes, %d buffers, %d processes in the mix\n", n, wl::kRecLen,
                    maxbuf, procs);
        std::vector<wl::Phase> out;
        Counters last = counters();
        auto after = [&](const char* name) {
            Counters now = counters();
            print(name, out.back().ops_per_s, out.back().cpu_us, last, now);
            last = now;
            if (std::string(name).rfind("read by key 0", 0) != 0) return;
            // The same reads, many calls to one hold of the control lock.
            std::vector<unsigned> order(static_cast<size_t>(n));
            std::iota(order.begin(), order.end(), 0u);
            std::shuffle(order.begin(), order.end(), std::mt19937(777));
            char key[wl::kKey0], buf[wl::kRecLen + 16];
            const double c0 = wl::cpu_seconds();
            auto t0 = wl::Clock::now();
            for (size_t i = 0; i < order.size(); ++i) {
                if (i % 1000 == 0 && nisgetctl(e.fd()) != 0) return;
                wl::make_key0(key, order[i]);
                if (!e.find(key, buf)) return;
                if ((i % 1000 == 999 || i + 1 == order.size()) && nisrelctl(e.fd()) != 0) return;
            }
            double s = std::chrono::duration<double>(wl::Clock::now() - t0).count();
            now = counters();
            print("read by key 0, batches of 1000", static_cast<double>(n) / s,
                  (wl::cpu_seconds() - c0) * 1e6 / static_cast<double>(n), last, now);
            last = now;
        };
        if (wl::run_all(e, n, procs, out, after)) rc = 0;
    }
    e.close();
    std::string cmd = "rm -rf '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) rc = rc ? rc : 1;
    return rc;
}
