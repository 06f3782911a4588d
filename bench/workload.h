// The workload that kisam_bench and peer_bench run on every engine: records of 100 bytes
// with a unique 8-byte key 0, a 12-byte key 1 that changes on update and a 4-byte key 2 of
// few values; one call (one transaction) per operation.
//
// Phases, each timed on its own: insert in random key order, read by key 0 in random
// order (by this process, then by one and by several reader processes at once), scan
// along key 1, update changing key 1 in random order, two mixes run by several processes
// at once (each on its own share of the records): reads and updates (3 : 1), then reads,
// updates and inserts or deletes of fresh records (5 : 3 : 2), and delete in random order.
//
// The durable set (run_durable) times inserts and then updates by one writer process and
// by several at once on the same store, each writer on a key range of its own, for engines
// that make every changing call durable before it returns: what group commit gives.
#pragma once

#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace wl {

using Clock = std::chrono::steady_clock;
constexpr int kRecLen = 100;
constexpr int kKey0 = 8, kKey1 = 12, kKey2 = 4;

// Key 0 from the record number; key 1 changes with `gen`; key 2 takes 97 values.
inline void make_record(char* r, unsigned id, unsigned gen) {
    char t[16];
    std::snprintf(t, sizeof t, "%08u", id);
    std::memcpy(r, t, 8);
    std::snprintf(t, sizeof t, "%04u%08u", gen % 10000, (id * 2654435761u) % 100000000u);
    std::memcpy(r + 8, t, 12);
    std::snprintf(t, sizeof t, "%04u", id % 97);
    std::memcpy(r + 20, t, 4);
    std::memset(r + 24, 'a' + static_cast<int>(id % 26), kRecLen - 24);
}
inline void make_key0(char* k, unsigned id) {
    char t[16];
    std::snprintf(t, sizeof t, "%08u", id);
    std::memcpy(k, t, 8);
}

// One engine under test.  Every call is one complete operation; a call that returned
// survives the kill of its process.
class Engine {
public:
    virtual ~Engine() = default;
    virtual const char* name() const = 0;
    // Creates the store in dir with a page cache of cache_bytes.
    virtual bool open(const std::string& dir, long cache_bytes) = 0;
    virtual void close() = 0;
    // In a forked child: handles of its own (child_open), closed before it exits.
    virtual bool child_open() = 0;
    virtual void child_close() = 0;
    virtual bool insert(const char* rec) = 0;
    virtual bool find(const char* key0, char* rec) = 0;  // the record whose key 0 it is
    virtual long scan_key1() = 0;                         // records seen in key 1 order, -1
    virtual bool update(const char* rec) = 0;             // same key 0, new key 1 and rest
    virtual bool remove(const char* key0) = 0;
};

struct Phase {
    std::string name;
    double ops_per_s = 0;
    double cpu_us = 0;   // processor time (user and system, children included) per operation
    long ops = 0;        // operations timed
    long calls = 0;      // engine calls made in the phase, untimed warm-up passes included
};

// Called with a phase's name just before it starts (before) and after it ended (after):
// for engine figures, or to count the system calls of each phase.
using PhaseHook = std::function<void(const char*)>;

// Processor time used so far by this process and its waited-for children, in seconds.
inline double cpu_seconds() {
    double t = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage ru;
        ::getrusage(who, &ru);
        t += static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
             static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    }
    return t;
}

// Runs every phase on `e`; `before` and `after` are called around each phase with its
// name.  False when an operation failed (reported on stderr).
inline bool run_all(Engine& e, long n, int procs, std::vector<Phase>& out,
                    const PhaseHook& after = {}, const PhaseHook& before = {}, bool pin_readers = true) {
    std::vector<unsigned> order(static_cast<size_t>(n));
    std::iota(order.begin(), order.end(), 0u);
    std::mt19937 rng(12345);
    char rec[kRecLen], buf[kRecLen + 16], key[kKey0];
    Clock::time_point t0;  // start of the phase's timing; a body may start it later
    Clock::time_point t1;  // its end, when the body sets it (else when the body returns)
    auto phase = [&](const char* name, long ops, const std::function<bool()>& body, long calls = 0) {
        if (before) before(name);
        const double c0 = cpu_seconds();
        t0 = Clock::now();
        t1 = {};
        bool ok = body();
        const Clock::time_point end = t1 == Clock::time_point{} ? Clock::now() : t1;
        double s = std::chrono::duration<double>(end - t0).count();
        const double cpu = (cpu_seconds() - c0) * 1e6 / static_cast<double>(ops);
        if (!ok) {
            std::fprintf(stderr, "%s: phase \"%s\" failed\n", e.name(), name);
            return false;
        }
        out.push_back({name, static_cast<double>(ops) / s, cpu, ops, calls ? calls : ops});
        if (after) after(name);
        return true;
    };

    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("insert, random order", n, [&] {
            for (unsigned id : order) {
                make_record(rec, id, 0);
                if (!e.insert(rec)) return false;
            }
            return true;
        }))
        return false;
    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("read by key 0, random", n, [&] {
            for (unsigned id : order) {
                make_key0(key, id);
                if (!e.find(key, buf) || std::memcmp(buf, key, kKey0) != 0) return false;
            }
            return true;
        }))
        return false;
    // The same reads by forked reader processes, each over all the records in an order of
    // its own: one reader, then `procs` at once, their sum of operations per second.  Each
    // reader first reads every record once, untimed: a process pays for the page tables of
    // the memory it maps at its first touch of each page (on a virtual machine several
    // microseconds a page), whatever the engine, and that is not the cost of a read.  The
    // clock starts when every reader is ready, and stops when the last one has made its
    // last read: what a reader pays to close its store, unmap it and exit (the other end
    // of the page tables its first pass built, a millisecond or more for a mapping of tens
    // of MiB, and its exit and reaping) is not the cost of a read either.  Each reader
    // sends the time its reads ended (the monotonic clock, the same in every process).
    // The timed reads of each reader are at least kReaderReads (whole passes): a pass over
    // 100,000 records lasts some 40 ms, and a figure that short is one hiccup of the
    // scheduler or the hypervisor, not the engine's.
    // When the processors this process may use are at least as many as the readers, each
    // reader is bound to one of its own (`pin_readers`, on by default): on a machine whose
    // processors are all busy with other work, the scheduler otherwise leaves two readers
    // woken at once on one processor for part of their pass, and the figure is then the
    // scheduler's, not the engine's.
    constexpr long kReaderReads = 500000;
    const int timed_passes = static_cast<int>(std::max(1L, (kReaderReads + n - 1) / n));
    auto readers = [&](int k) {
        cpu_set_t allowed;
        std::vector<int> cpus;
        if (pin_readers && ::sched_getaffinity(0, sizeof allowed, &allowed) == 0)
            for (int c = 0; c < CPU_SETSIZE; ++c)
                if (CPU_ISSET(c, &allowed)) cpus.push_back(c);
        if (static_cast<int>(cpus.size()) < k) cpus.clear();
        int ready[2], go[2], done[2];
        if (::pipe(ready) != 0) return false;
        if (::pipe(go) != 0) {
            ::close(ready[0]);
            ::close(ready[1]);
            return false;
        }
        if (::pipe(done) != 0) {
            for (int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
            return false;
        }
        std::vector<pid_t> kids;
        std::fflush(nullptr);
        for (int r = 0; r < k; ++r) {
            pid_t pid = ::fork();
            if (pid < 0) break;
            if (pid == 0) {
                ::close(ready[0]);
                ::close(go[1]);
                ::close(done[0]);
                if (!cpus.empty()) {
                    cpu_set_t one;
                    CPU_ZERO(&one);
                    CPU_SET(cpus[static_cast<size_t>(r)], &one);
                    ::sched_setaffinity(0, sizeof one, &one);
                }
                int rc = e.child_open() ? 0 : 1;
                std::vector<unsigned> mine(order);
                std::shuffle(mine.begin(), mine.end(), std::mt19937(static_cast<unsigned>(r) + 99));
                char b[kRecLen + 16], k0[kKey0];
                // BENCH_READER_DETAIL=1: each reader's own timed pass on stderr (its processor,
                // wall and processor time, faults, switches), to tell a reader that waited
                // from one whose reads were slower.
                struct rusage ru0{}, ru1{};
                int64_t begun = 0;
                for (int pass = 0; pass <= timed_passes; ++pass) {
                    if (pass == 1) {
                        ::getrusage(RUSAGE_SELF, &ru0);
                        begun = Clock::now().time_since_epoch().count();
                    }
                    for (size_t i = 0; rc == 0 && i < mine.size(); ++i) {
                        make_key0(k0, mine[i]);
                        if (!e.find(k0, b) || std::memcmp(b, k0, kKey0) != 0) rc = 3;
                    }
                    if (pass == 0) {
                        char c = 'r';
                        if (::write(ready[1], &c, 1) != 1) rc = 4;
                        while (::read(go[0], &c, 1) > 0) {
                        }
                    }
                }
                const int64_t end = Clock::now().time_since_epoch().count();
                if (std::getenv("BENCH_READER_DETAIL")) {
                    ::getrusage(RUSAGE_SELF, &ru1);
                    auto ms = [](const timeval& a, const timeval& b) {
                        return (b.tv_sec - a.tv_sec) * 1e3 + (b.tv_usec - a.tv_usec) / 1e3;
                    };
                    std::fprintf(stderr,
                                 "reader %d of %d: processor %d, %.1f ms, user %.1f ms, system %.1f ms, "
                                 "%ld minor faults, %ld waits, %ld preemptions\n",
                                 r + 1, k, ::sched_getcpu(), (end - begun) / 1e6, ms(ru0.ru_utime, ru1.ru_utime),
                                 ms(ru0.ru_stime, ru1.ru_stime), ru1.ru_minflt - ru0.ru_minflt,
                                 ru1.ru_nvcsw - ru0.ru_nvcsw, ru1.ru_nivcsw - ru0.ru_nivcsw);
                }
                if (::write(done[1], &end, sizeof end) != static_cast<ssize_t>(sizeof end)) rc = 4;
                e.child_close();
                std::fflush(nullptr);
                ::_exit(rc);
            }
            kids.push_back(pid);
        }
        ::close(ready[1]);
        ::close(go[0]);
        ::close(done[1]);
        char c;
        int seen = 0;
        while (seen < static_cast<int>(kids.size()) && ::read(ready[0], &c, 1) == 1) ++seen;
        t0 = Clock::now();
        ::close(go[1]);  // every reader sees the end of the pipe at once
        ::close(ready[0]);
        // The reads end with the last reader's; a reader that sent nothing failed.
        int64_t last = 0, end;
        int ended = 0;
        while (::read(done[0], &end, sizeof end) == static_cast<ssize_t>(sizeof end)) {
            last = std::max(last, end);
            ++ended;
        }
        ::close(done[0]);
        bool ok = static_cast<int>(kids.size()) == k && ended == k;
        for (pid_t pid : kids) {
            int st = 0;
            if (::waitpid(pid, &st, 0) != pid || !WIFEXITED(st) || WEXITSTATUS(st) != 0) ok = false;
        }
        if (ok) t1 = Clock::time_point(Clock::duration(last));
        return ok;
    };
    // A reader makes one untimed pass, then timed_passes.
    const long per_reader = n * timed_passes;
    if (!phase("1 reader process, random by key 0", per_reader, [&] { return readers(1); }, per_reader + n))
        return false;
    const std::string readname = std::to_string(procs) + " reader processes, random by key 0";
    if (procs > 1 && !phase(readname.c_str(), per_reader * procs, [&] { return readers(procs); },
                            (per_reader + n) * procs))
        return false;
    if (!phase("scan along key 1", n, [&] { return e.scan_key1() == n; })) return false;
    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("update changing key 1", n, [&] {
            for (unsigned id : order) {
                make_record(rec, id, 1);
                if (!e.update(rec)) return false;
            }
            return true;
        }))
        return false;

    // The mixes: process k works on the records with id % procs == k, in random order.  In
    // the second, a tenth of the calls insert fresh records (ids from n on, process k's
    // those with id % procs == k) and a tenth delete them again, oldest first.
    auto mix = [&](bool fresh) {
        std::vector<pid_t> kids;
        std::fflush(nullptr);  // a child must not write the parent's buffered output again
        for (int k = 0; k < procs; ++k) {
            pid_t pid = ::fork();
            if (pid < 0) break;
            if (pid == 0) {
                int rc = e.child_open() ? 0 : 1;
                char r[kRecLen], b[kRecLen + 16], k0[kKey0];
                std::mt19937 mr(static_cast<unsigned>(k) + (fresh ? 17 : 7));
                std::vector<unsigned> added;  // fresh records not yet deleted, oldest first
                size_t oldest = 0;
                unsigned next_fresh = static_cast<unsigned>(n) + static_cast<unsigned>(k);
                bool insert_next = true;
                for (size_t i = 0; rc == 0 && i < order.size(); ++i) {
                    const unsigned id = order[i];
                    if (static_cast<int>(id % static_cast<unsigned>(procs)) != k) continue;
                    const unsigned pick = fresh ? mr() % 10 : (mr() % 4 == 0 ? 5 : 0);
                    if (pick >= 8) {
                        if (insert_next || oldest == added.size()) {
                            make_record(r, next_fresh, 0);
                            if (!e.insert(r)) rc = 4;
                            added.push_back(next_fresh);
                            next_fresh += static_cast<unsigned>(procs);
                        } else {
                            make_key0(k0, added[oldest++]);
                            if (!e.remove(k0)) rc = 5;
                        }
                        insert_next = !insert_next;
                    } else if (pick >= 5) {
                        make_record(r, id, fresh ? 3 : 2);
                        if (!e.update(r)) rc = 2;
                    } else {
                        make_key0(k0, id);
                        if (!e.find(k0, b) || std::memcmp(b, k0, kKey0) != 0) rc = 3;
                    }
                }
                e.child_close();
                std::fflush(nullptr);
                ::_exit(rc);
            }
            kids.push_back(pid);
        }
        bool ok = static_cast<int>(kids.size()) == procs;
        for (pid_t pid : kids) {
            int st = 0;
            if (::waitpid(pid, &st, 0) != pid || !WIFEXITED(st) || WEXITSTATUS(st) != 0) ok = false;
        }
        return ok;
    };
    std::shuffle(order.begin(), order.end(), rng);
    const std::string mixname = std::to_string(procs) + "-process mix (3 reads : 1 update)";
    if (!phase(mixname.c_str(), n, [&] { return mix(false); })) return false;
    std::shuffle(order.begin(), order.end(), rng);
    const std::string mix2name = std::to_string(procs) + "-process mix (5 reads : 3 updates : 2 ins/del)";
    if (!phase(mix2name.c_str(), n, [&] { return mix(true); })) return false;

    std::shuffle(order.begin(), order.end(), rng);
    if (!phase("delete, random order", n, [&] {
            for (unsigned id : order) {
                make_key0(key, id);
                if (!e.remove(key)) return false;
            }
            return true;
        }))
        return false;
    return true;
}

// Runs body(j) for j = 0..k-1, each in a forked process with handles of its own; the
// clock (`t0`) starts once every process has opened its handles, when all are let go at
// once.  True when every process ran and its body succeeded.
inline bool forked(Engine& e, int k, Clock::time_point& t0, const std::function<bool(int)>& body) {
    int ready[2], go[2];
    if (::pipe(ready) != 0) return false;
    if (::pipe(go) != 0) {
        ::close(ready[0]);
        ::close(ready[1]);
        return false;
    }
    std::vector<pid_t> kids;
    std::fflush(nullptr);
    for (int j = 0; j < k; ++j) {
        pid_t pid = ::fork();
        if (pid < 0) break;
        if (pid == 0) {
            ::close(ready[0]);
            ::close(go[1]);
            int rc = e.child_open() ? 0 : 1;
            char c = 'r';
            if (::write(ready[1], &c, 1) != 1) rc = 4;
            while (::read(go[0], &c, 1) > 0) {
            }
            if (rc == 0 && !body(j)) rc = 2;
            e.child_close();
            std::fflush(nullptr);
            ::_exit(rc);
        }
        kids.push_back(pid);
    }
    ::close(ready[1]);
    ::close(go[0]);
    char c;
    int seen = 0;
    while (seen < static_cast<int>(kids.size()) && ::read(ready[0], &c, 1) == 1) ++seen;
    t0 = Clock::now();
    ::close(go[1]);
    ::close(ready[0]);
    bool ok = static_cast<int>(kids.size()) == k;
    for (pid_t pid : kids) {
        int st = 0;
        if (::waitpid(pid, &st, 0) != pid || !WIFEXITED(st) || WEXITSTATUS(st) != 0) ok = false;
    }
    return ok;
}

// The durable set on `e` (opened in its durable mode): `per_writer` inserts by one writer
// process, then by `writers` processes at once, then updates of the same records the same
// way; each writer works on a range of ids of its own (the one writer's range, then one
// range per writer after it), in random order.  Operations per second are those of all
// the phase's writers together.
inline bool run_durable(Engine& e, long per_writer, int writers, std::vector<Phase>& out,
                        const PhaseHook& after = {}, const PhaseHook& before = {}) {
    Clock::time_point t0;
    auto phase = [&](const std::string& name, int k, bool update, unsigned first) {
        if (before) before(name.c_str());
        const double c0 = cpu_seconds();
        t0 = Clock::now();
        bool ok = forked(e, k, t0, [&](int j) {
            std::vector<unsigned> ids(static_cast<size_t>(per_writer));
            std::iota(ids.begin(), ids.end(), first + static_cast<unsigned>(j * per_writer));
            std::shuffle(ids.begin(), ids.end(), std::mt19937(first + static_cast<unsigned>(j) + (update ? 1000 : 0)));
            char rec[kRecLen];
            for (unsigned id : ids) {
                make_record(rec, id, update ? 1 : 0);
                if (!(update ? e.update(rec) : e.insert(rec))) return false;
            }
            return true;
        });
        const double s = std::chrono::duration<double>(Clock::now() - t0).count();
        const long ops = per_writer * k;
        if (!ok) {
            std::fprintf(stderr, "%s: phase \"%s\" failed\n", e.name(), name.c_str());
            return false;
        }
        out.push_back({name, static_cast<double>(ops) / s, (cpu_seconds() - c0) * 1e6 / static_cast<double>(ops), ops, ops});
        if (after) after(name.c_str());
        return true;
    };
    const unsigned many = static_cast<unsigned>(per_writer);  // the writers' ranges start here
    const std::string w = std::to_string(writers) + " writers";
    return phase("durable insert, 1 writer", 1, false, 0) && phase("durable insert, " + w, writers, false, many) &&
           phase("durable update, 1 writer", 1, true, 0) && phase("durable update, " + w, writers, true, many);
}

}  // namespace wl
