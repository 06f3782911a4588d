// The changing calls alone, one phase at a time: inserts, updates (key 1 changes) and
// deletes of the workload's records in random order, each phase timed on its own.
//
//   write_bench [records [buffers [rounds [grow]]]]
//               (defaults: 100000 records, 32000 buffers, 1 round, grow 0)
//
// Each phase is one function that nothing inlines (write_insert, write_update,
// write_delete), so that a profiler can count one phase's instructions alone, e.g.
//   valgrind --tool=callgrind --collect-atstart=no --toggle-collect=write_update
//            build/bench/write_bench 100000 32000
// and divide by the records.  Each phase prints operations per second, processor time
// per operation and page faults per operation.  With rounds > 1 the updates run that many times (key 1
// takes a new value each time); with grow > 0 round r makes every record r * grow bytes
// longer, so that its data part moves.  The installation, segment and directory are removed at
// the end.
#include "kisam_engine.h"

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using Ids = std::vector<unsigned>;

extern "C" __attribute__((noinline)) bool write_insert(wl::Engine& e, const Ids& ids) {
    char rec[wl::kRecLen];
    for (unsigned id : ids) {
        wl::make_record(rec, id, 0);
        if (!e.insert(rec)) return false;
    }
    return true;
}

extern "C" __attribute__((noinline)) bool write_update(wl::KisamEngine& e, const Ids& ids, unsigned gen, int len) {
    std::vector<char> rec(static_cast<size_t>(len), 'u');
    for (unsigned id : ids) {
        wl::make_record(rec.data(), id, gen);
        if (len == wl::kRecLen ? !e.update(rec.data()) : nisupdate(e.fd(), rec.data(), len) != 0) return false;
    }
    return true;
}

extern "C" __attribute__((noinline)) bool write_delete(wl::Engine& e, const Ids& ids) {
    char key[wl::kKey0];
    for (unsigned id : ids) {
        wl::make_key0(key, id);
        if (!e.remove(key)) return false;
    }
    return true;
}

// Page faults of this process so far (every first store into a page of a mapping, and
// every store into one the system write-protected since).
long minor_faults() {
    struct rusage ru;
    ::getrusage(RUSAGE_SELF, &ru);
    return ru.ru_minflt;
}

template <class F>
bool timed(const char* name, long n, F body) {
    const long f0 = minor_faults();
    const double c0 = wl::cpu_seconds();
    const auto t0 = wl::Clock::now();
    const bool ok = body();
    const double s = std::chrono::duration<double>(wl::Clock::now() - t0).count();
    const double cpu = (wl::cpu_seconds() - c0) * 1e6 / static_cast<double>(n);
    if (!ok) {
        std::fprintf(stderr, "phase \"%s\" failed\n", name);
        return false;
    }
    const double faults = static_cast<double>(minor_faults() - f0) / static_cast<double>(n);
    std::printf("%-10s %10.0f ops/s %7.2f cpu us/op %7.3f faults/op\n", name, static_cast<double>(n) / s, cpu, faults);
    std::fflush(stdout);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const long n = argc > 1 ? std::atol(argv[1]) : 100000;
    const int maxbuf = argc > 2 ? std::atoi(argv[2]) : 32000;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 1;
    const int grow = argc > 4 ? std::atoi(argv[4]) : 0;
    if (n < 1 || n > 4000000 || maxbuf < 16 || maxbuf > 32767 || rounds < 1 || rounds > 100 || grow < 0 ||
        grow > 500) {
        std::fprintf(stderr,
                     "usage: write_bench [records (1..4000000) [buffers (16..32767) [rounds (1..100) [grow (0..500)]]]]\n");
        return 2;
    }
    char tmpl[] = "/tmp/kisam-wbench-XXXXXX";
    if (!::mkdtemp(tmpl)) return 1;
    const std::string dir = tmpl;
    wl::KisamEngine e;
    int rc = 1;
    if (e.open(dir, static_cast<long>(maxbuf) * 1024)) {
        Ids ids(static_cast<size_t>(n));
        std::iota(ids.begin(), ids.end(), 0u);
        std::mt19937 rng(12345);
        std::shuffle(ids.begin(), ids.end(), rng);
        bool ok = timed("insert", n, [&] { return write_insert(e, ids); });
        for (int r = 1; ok && r <= rounds; ++r) {
            std::shuffle(ids.begin(), ids.end(), rng);
            ok = timed("update", n, [&] { return write_update(e, ids, static_cast<unsigned>(r), wl::kRecLen + r * grow); });
        }
        std::shuffle(ids.begin(), ids.end(), rng);
        ok = ok && timed("delete", n, [&] { return write_delete(e, ids); });
        rc = ok ? 0 : 1;
    }
    e.close();
    std::string cmd = "rm -rf '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) rc = 1;
    return rc;
}
