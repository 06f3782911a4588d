// Reads of a store built beforehand, for profiles of one reader process: a parent builds
// the store (the workload's records, inserted in random order, as peer_bench does) and
// keeps it attached, then runs a reader as a separate program -- by default this one, or
// any command given after "--", such as valgrind with its options and this program -- so
// that a profiler sees the reader alone.  The reader makes a pass of random finds by key
// 0, untimed (a process's first touch of each page of a mapping faults), then the timed
// pass (`timed_finds`; the untimed pass is `warm_finds`: --toggle-collect='*timed_*'), then a scan of
// STEPS records along key 1 (`timed_scan`), and prints its rates and its minor faults.
//
//   read_probe kisam|lmdb DIR RECORDS [CACHE_MIB [FINDS [STEPS]]] [-- COMMAND...]...
//
// DIR must not exist; it is removed at the end.  The reader gets its arguments as
//   read_probe --reader ENGINE DIR RECORDS FINDS STEPS
// appended to COMMAND.  READ_PROBE_READERS=K runs K readers at once (their timed passes
// start together), each with orders of its own.  Several commands ("-- A... -- B...",
// such as one program under two builds of the library through LD_LIBRARY_PATH) run one
// after the other on the same store, READ_PROBE_ROUNDS times in turn.  LMDB's store is the one of peer_bench's "lmdb-wm" (a writable
// map; its reads are LMDB's own).
#include "kisam_engine.h"

#include <lmdb.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

struct Lmdb {
    MDB_env* env = nullptr;
    MDB_txn* rt = nullptr;
    MDB_dbi prim = 0, k1 = 0;
    bool open(const std::string& dir) {
        if (mdb_env_create(&env) != 0) return false;
        mdb_env_set_mapsize(env, size_t{16} << 30);
        mdb_env_set_maxdbs(env, 4);
        if (mdb_env_open(env, dir.c_str(), MDB_WRITEMAP | MDB_NOSYNC, 0644) != 0) return false;
        MDB_txn* t;
        if (mdb_txn_begin(env, nullptr, 0, &t) != 0) return false;
        bool ok = mdb_dbi_open(t, "prim", MDB_CREATE, &prim) == 0 &&
                  mdb_dbi_open(t, "k1", MDB_CREATE | MDB_DUPSORT, &k1) == 0;
        return mdb_txn_commit(t) == 0 && ok;
    }
    bool insert(const char* rec) {
        MDB_txn* t;
        if (mdb_txn_begin(env, nullptr, 0, &t) != 0) return false;
        MDB_val k{wl::kKey0, const_cast<char*>(rec)}, d{wl::kRecLen, const_cast<char*>(rec)};
        MDB_val k1v{wl::kKey1, const_cast<char*>(rec + wl::kKey0)};
        bool ok = mdb_put(t, prim, &k, &d, MDB_NOOVERWRITE) == 0 && mdb_put(t, k1, &k1v, &k, 0) == 0;
        if (!ok) {
            mdb_txn_abort(t);
            return false;
        }
        return mdb_txn_commit(t) == 0;
    }
    bool find(const char* key0, char* rec) {
        if (rt ? mdb_txn_renew(rt) != 0 : mdb_txn_begin(env, nullptr, MDB_RDONLY, &rt) != 0) return false;
        MDB_val k{wl::kKey0, const_cast<char*>(key0)}, d;
        bool ok = mdb_get(rt, prim, &k, &d) == 0 && d.mv_size == wl::kRecLen;
        if (ok) std::memcpy(rec, d.mv_data, wl::kRecLen);
        mdb_txn_reset(rt);
        return ok;
    }
    long scan(long steps, char* rec) {
        if (rt ? mdb_txn_renew(rt) != 0 : mdb_txn_begin(env, nullptr, MDB_RDONLY, &rt) != 0) return -1;
        MDB_cursor* c;
        if (mdb_cursor_open(rt, k1, &c) != 0) return -1;
        MDB_val k, d, r;
        long n = 0;
        int rc = mdb_cursor_get(c, &k, &d, MDB_FIRST);
        for (; rc == 0 && n < steps; rc = mdb_cursor_get(c, &k, &d, MDB_NEXT)) {
            if (mdb_get(rt, prim, &d, &r) != 0 || r.mv_size != wl::kRecLen) break;
            std::memcpy(rec, r.mv_data, wl::kRecLen);
            ++n;
        }
        mdb_cursor_close(c);
        mdb_txn_reset(rt);
        return n;
    }
};

std::vector<unsigned> shuffled(long n, unsigned seed) {
    std::vector<unsigned> v(static_cast<size_t>(n));
    std::iota(v.begin(), v.end(), 0u);
    std::shuffle(v.begin(), v.end(), std::mt19937(seed));
    return v;
}

template <class Find>
__attribute__((always_inline)) inline bool finds(const std::vector<unsigned>& order, Find&& find) {
    char k[wl::kKey0], b[wl::kRecLen + 16];
    for (unsigned id : order) {
        wl::make_key0(k, id);
        if (!find(k, b) || std::memcmp(b, k, wl::kKey0) != 0) return false;
    }
    return true;
}

volatile int pass_no = 0;

// The untimed pass, a function of its own so that a profiler can leave it out.
template <class Find>
__attribute__((noinline)) bool warm_finds(const std::vector<unsigned>& order, Find&& find) {
    pass_no = 1;  // a body of its own: not folded with timed_finds by the linker
    return finds(order, find);
}

template <class Find>
__attribute__((noinline)) bool timed_finds(const std::vector<unsigned>& order, Find&& find) {
    pass_no = 2;
    return finds(order, find);
}

template <class Scan>
__attribute__((noinline)) long timed_scan(Scan&& scan) {
    return scan();
}

long minflt() {
    struct rusage ru;
    ::getrusage(RUSAGE_SELF, &ru);
    return ru.ru_minflt;
}

double cpu_now() {
    struct rusage ru;
    ::getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// With several readers: each says it is ready on one pipe and waits for the end of
// another (READ_PROBE_SYNC="READY_FD,GO_FD"), so that their timed passes overlap.
void wait_for_go() {
    const char* e = std::getenv("READ_PROBE_SYNC");
    int rfd = -1, gfd = -1;
    if (!e || std::sscanf(e, "%d,%d", &rfd, &gfd) != 2) return;
    char c = 'r';
    if (::write(rfd, &c, 1) != 1) return;
    while (::read(gfd, &c, 1) > 0) {
    }
}

// READ_PROBE_RO=1: the shared segment made read-only for the timed passes, so that a
// write to it (which readers of one file must not make per read) stops the reader
// with its address.
uintptr_t ro_lo = 0, ro_hi = 0;
unsigned long ro_writes = 0;
void on_segv(int, siginfo_t* si, void*) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(si->si_addr);
    if (a < ro_lo || a >= ro_hi) ::_exit(9);
    // Each page written is reported once, then left writable.
    char m[160];
    const int n = std::snprintf(m, sizeof m, "write to the shared segment at offset %#lx\n",
                                static_cast<unsigned long>(a - ro_lo));
    if (++ro_writes <= 20 && ::write(2, m, static_cast<size_t>(n)) < 0) {
    }
    ::mprotect(reinterpret_cast<void*>(a & ~uintptr_t{4095}), 4096, PROT_READ | PROT_WRITE);
}
void segment_read_only() {
    if (!std::getenv("READ_PROBE_RO")) return;
    FILE* f = std::fopen("/proc/self/maps", "r");
    char line[512];
    while (f && std::fgets(line, sizeof line, f)) {
        unsigned long lo, hi;
        if (std::strstr(line, "SYSV") && std::sscanf(line, "%lx-%lx", &lo, &hi) == 2 && hi - lo > (1ul << 20)) {
            ro_lo = lo;
            ro_hi = hi;
            ::mprotect(reinterpret_cast<void*>(lo), hi - lo, PROT_READ);
        }
    }
    if (f) std::fclose(f);
    struct sigaction sa {};
    sa.sa_sigaction = on_segv;
    sa.sa_flags = SA_SIGINFO;
    ::sigaction(SIGSEGV, &sa, nullptr);
}

template <class Find, class Scan>
int reader_passes(long n, long finds, const Find& find, const Scan& scan) {
    const char* rs = std::getenv("READ_PROBE_READER");
    const unsigned r = rs ? static_cast<unsigned>(std::atoi(rs)) : 0;
    std::vector<unsigned> order = shuffled(n, 99 + r);
    if (finds < n) order.resize(static_cast<size_t>(finds));
    const long f0 = minflt();
    if (!warm_finds(shuffled(n, 7 + r), find)) return 3;
    const long f1 = minflt();
    wait_for_go();
    segment_read_only();
    const double c0 = cpu_now();
    auto t0 = Clock::now();
    if (!timed_finds(order, find)) return 3;
    auto t1 = Clock::now();
    const double c1 = cpu_now();
    const long f2 = minflt();
    const long got = timed_scan(scan);
    auto t2 = Clock::now();
    const long f3 = minflt();
    const double fs = std::chrono::duration<double>(t1 - t0).count();
    const double ss = std::chrono::duration<double>(t2 - t1).count();
    const double cs = cpu_now() - c1;
    if (ro_lo) std::printf("pages of the shared segment written: %lu\n", ro_writes);
    std::printf("reader %u: finds %ld: %.0f/s, %.0f ns CPU each, faults %ld (warm-up pass %ld); scan %ld: %.0f/s, %.0f ns CPU each, faults %ld\n",
                r, static_cast<long>(order.size()), static_cast<double>(order.size()) / fs,
                (c1 - c0) * 1e9 / static_cast<double>(order.size()), f2 - f1, f1 - f0, got,
                static_cast<double>(got) / ss, cs * 1e9 / static_cast<double>(got > 0 ? got : 1), f3 - f2);
    return 0;
}

int reader(const std::string& engine, const std::string& dir, long n, long finds, long steps) {
    if (engine == "kisam") {
        if (is_init() != 0) return 2;
        const int fd = nisopen((dir + "/bench.ism").c_str(), ISO_RDWR);
        if (fd < 0) return 2;
        const int rc = reader_passes(
            n, finds, [fd](const char* k, char* b) { return nisfind(fd, 0, k, b, wl::kRecLen) == wl::kRecLen; },
            [fd, steps] {
                char b[wl::kRecLen + 16];
                long seen = 0;
                while (seen < steps && nisread(fd, 1, b, wl::kRecLen) > 0) ++seen;
                return seen;
            });
        nisclose(fd);
        nisunisam();
        return rc;
    }
    Lmdb l;
    if (!l.open(dir)) return 2;
    char rec[wl::kRecLen];
    const int rc = reader_passes(
        n, finds, [&l](const char* k, char* b) { return l.find(k, b); }, [&l, steps, &rec] { return l.scan(steps, rec); });
    if (l.rt) mdb_txn_abort(l.rt);
    mdb_env_close(l.env);
    return rc;
}

// Runs k copies of the reader command at once; the number that failed.
int run_readers(std::vector<std::string> args, int k) {
    int ready[2], go[2];
    if (::pipe(ready) != 0 || ::pipe(go) != 0) return k;
    if (k > 1) ::setenv("READ_PROBE_SYNC", (std::to_string(ready[1]) + "," + std::to_string(go[0])).c_str(), 1);
    std::vector<pid_t> kids;
    for (int r = 0; r < k; ++r) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(ready[0]);
            ::close(go[1]);
            ::setenv("READ_PROBE_READER", std::to_string(r).c_str(), 1);
            std::vector<char*> av;
            for (auto& a : args) av.push_back(a.data());
            av.push_back(nullptr);
            ::execvp(av[0], av.data());
            std::perror(av[0]);
            ::_exit(127);
        }
        kids.push_back(pid);
    }
    ::close(ready[1]);
    ::close(go[0]);
    char c;
    for (int seen = 0; k > 1 && seen < k && ::read(ready[0], &c, 1) == 1;) ++seen;
    ::close(go[1]);
    ::close(ready[0]);
    int st = 0, bad = 0;
    for (pid_t pid : kids) {
        ::waitpid(pid, &st, 0);
        bad += !WIFEXITED(st) || WEXITSTATUS(st) != 0;
    }
    return bad;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 7 && std::strcmp(argv[1], "--reader") == 0)
        return reader(argv[2], argv[3], std::atol(argv[4]), std::atol(argv[5]), std::atol(argv[6]));
    int dd = argc;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--") == 0) {
            dd = i;
            break;
        }
    if (dd < 4) {
        std::fprintf(stderr, "usage: read_probe kisam|lmdb DIR RECORDS [CACHE_MIB [FINDS [STEPS]]] [-- COMMAND...]...\n");
        return 2;
    }
    const std::string engine = argv[1], dir = argv[2];
    const long n = std::atol(argv[3]);
    const long cache = dd > 4 ? std::atol(argv[4]) : 32;
    const long finds = dd > 5 ? std::atol(argv[5]) : n;
    const long steps = dd > 6 ? std::atol(argv[6]) : n;
    if (::mkdir(dir.c_str(), 0755) != 0) {
        std::perror(dir.c_str());
        return 2;
    }
    wl::KisamEngine k;
    Lmdb l;
    const bool is_k = engine == "kisam";
    if (is_k ? !k.open(dir, cache << 20) : !l.open(dir)) return 2;
    char rec[wl::kRecLen];
    for (unsigned id : shuffled(n, 12345)) {
        wl::make_record(rec, id, 0);
        if (is_k ? !k.insert(rec) : !l.insert(rec)) return 2;
    }
    {
        // The builder's own finds right after its inserts, as the benchmark's first read
        // phase makes them (no untimed pass: what a process pays to start reading counts).
        const long f0 = minflt();
        const double c0 = cpu_now();
        auto t0 = Clock::now();
        const bool ok = is_k ? timed_finds(shuffled(n, 4242), [&k](const char* key, char* b) { return k.find(key, b); })
                             : timed_finds(shuffled(n, 4242), [&l](const char* key, char* b) { return l.find(key, b); });
        const double s = std::chrono::duration<double>(Clock::now() - t0).count();
        if (!ok) return 3;
        std::printf("builder: finds %ld: %.0f/s, %.0f ns CPU each, faults %ld\n", n, static_cast<double>(n) / s,
                    (cpu_now() - c0) * 1e9 / static_cast<double>(n), minflt() - f0);
    }
    std::fflush(nullptr);
    const std::string ns = std::to_string(n), fs = std::to_string(finds), ss = std::to_string(steps);
    char self[4096];
    const ssize_t sl = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (sl <= 0) return 2;
    self[sl] = 0;
    // The commands between "--" separators, each a reader program (by default this one).
    std::vector<std::vector<std::string>> cmds;
    for (int i = dd; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) cmds.emplace_back();
        else cmds.back().push_back(argv[i]);
    }
    if (cmds.empty()) cmds.emplace_back();
    for (auto& args : cmds) {
        if (args.empty() || args.back().find("read_probe") == std::string::npos) args.push_back(self);
        for (const std::string& a : {std::string("--reader"), engine, dir, ns, fs, ss}) args.push_back(a);
    }
    const char* ks = std::getenv("READ_PROBE_READERS");
    const int nr = ks && std::atoi(ks) > 1 ? std::atoi(ks) : 1;
    const char* rr = std::getenv("READ_PROBE_ROUNDS");
    const int rounds = rr && std::atoi(rr) > 1 ? std::atoi(rr) : 1;
    int bad = 0;
    for (int round = 0; round < rounds; ++round)
        for (size_t c = 0; c < cmds.size(); ++c) {
            std::printf("round %d command %zu:\n", round, c);
            std::fflush(nullptr);
            bad += run_readers(cmds[c], nr);
        }
    if (is_k) k.close();
    else mdb_env_close(l.env);
    std::system(("rm -rf '" + dir + "'").c_str());
    return bad ? 1 : 0;
}
