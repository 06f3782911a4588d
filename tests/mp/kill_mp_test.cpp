// Processes killed under load: 2 to 6 workers make random calls on a 3-key file (and
// open, lock, change and close a second, shared file) while a supervisor kills one every
// 0 to 50 ms; every 50 kills it checks, from the workers' operation logs, that every
// call that returned is there, the killed ones whole or absent, and the files sound.
// KISAM_KILLS: kills per test; KISAM_SEED replays a run.
#include "../engine/open_fixture.h"

#include "kcheck.h"
#include "oracle.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <random>

namespace {

using ot::Env;
namespace ko = kt::oracle;

constexpr ko::Layout kShort{4, 4, 2};
ko::Layout kL = kShort;   // a test of other keys sets it before its workers fork
constexpr int kIdsPerSlot = 150;
constexpr int kMaxWorkers = 6;

std::string record(int id, int gen, int size) { return ko::record(kL, id, gen, size); }
int slot_base(int slot) { return slot * 1000; }

// A worker's way to fail: the status tells the supervisor which check it was.
[[noreturn]] __attribute__((format(printf, 2, 3))) void die(int code, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::_Exit(code);
}

// What id holds now; a wrong record ends the worker.
ko::Rec stored(int fd, int id) {
    const ko::Rec r = ko::find(fd, kL, id);
    if (r.gen < -1) die(52, "worker: record %d reads back wrong (gen %d, %d bytes, is_errno %d)\n", id, r.gen, r.size, is_errno);
    return r;
}

// A record read back must be one the workers wrote.
void parse_or_die(const char* buf, int n, int code, const char* who, int key) {
    int got;
    if (ko::Rec r; n > 0 && !ko::parse(kL, buf, n, &got, &r))
        die(code, "%s: a read along key %d returned a wrong record of %d bytes: %.*s\n", who, key, n, n < 40 ? n : 40, buf);
}

volatile sig_atomic_t g_stop = 0;
void on_stop(int) { g_stop = 1; }

// Kills land in opens, closes, record locks and buffers moving between files too.
int open_or_die(const std::string& file, const char* who, int code) {
    if (const int fd = nisopen(file.c_str(), ISO_RDWR); fd >= 0) return fd;
    char msg[512];
    niserrmsgget(msg, sizeof msg);
    die(code, "%s: open fails, errno %d: %s\n", who, is_errno, msg);
}

void churn(const std::string& file, std::mt19937_64& rng) {
    const int fd = open_or_die(file, "churn", 58);
    auto shared_rec = [&](int spread) {
        const int id = 5000 + static_cast<int>(rng() % 300), gen = static_cast<int>(rng() % 100);
        return record(id, gen, kL.min() + static_cast<int>(rng() % spread));
    };
    const std::string r = shared_rec(1500);
    if (nislock(fd, r.data(), kL.l0, 1) == 0 &&
        (niswrite(fd, r.data(), static_cast<int>(r.size())) < 0 || nisunlock(fd, r.data(), kL.l0, 0) != 0))
        die(59, "churn: write or unlock fails, errno %d\n", is_errno);
    // Shared records fought over: a failed update's rollback must not undo a concurrent open.
    const std::string u = shared_rec(300), f = shared_rec(300);
    if (nisfwrite(fd, f.data(), static_cast<int>(f.size())) < 0 ||
        (nisupdate(fd, u.data(), static_cast<int>(u.size())) < 0 && is_errno != ISE_NOKEY))
        die(63, "churn: forced write or update fails, errno %d\n", is_errno);
    char buf[4000];
    nisseek(fd, 1, u.data() + kL.l0);
    for (int k = 0, n = 1; k < 3 && n > 0; ++k) {
        if ((n = nisread(fd, 1, buf, sizeof buf)) < 0) std::_Exit(61);
        parse_or_die(buf, n, 64, "churn", 1);
    }
    if (rng() % 4 == 0) nisdelete(fd, r.data());
    nisclose(fd);
}

// Calls: w write, f forced write, u update, d delete, l update under a record lock, b a
// read and an update in a bracket; a third of the rolls read, KISAM_CHURN_PCT (8 by
// default) go to the second file.
[[noreturn]] void worker(int slot, const std::string& file, const std::string& logpath, uint64_t seed) {
    ot::become_unattached();
    ::signal(SIGUSR1, on_stop);
    const int fd = open_or_die(file, "worker", 50);
    ko::Log::heal(logpath);
    ko::Log log(logpath);
    if (const int cut = ko::Log::open_call(logpath); cut >= 0) log.resolved(cut, stored(fd, cut));
    std::mt19937_64 rng(seed);
    const int base = slot_base(slot);
    const char* pct = std::getenv("KISAM_CHURN_PCT");
    const int churn_share = pct ? std::atoi(pct) : 8;
    char buf[4000];
    for (int seq = 0;; ++seq) {
        if (g_stop) {
            nisclose(fd);
            nisunisam();
            std::_Exit(0);
        }
        const int roll = static_cast<int>(rng() % 100);
        const int id = base + static_cast<int>(rng() % kIdsPerSlot);
        const int gen = static_cast<int>(rng() % 0xFFFF);
        const int size = rng() % 4 == 0 ? kL.min() + static_cast<int>(rng() % (3000 - kL.min()))
                                        : kL.min() + static_cast<int>(rng() % 200);
        if (roll < churn_share) {
            churn(file + ".churn", rng);
            continue;
        }
        if (roll < 35) {
            const int key = static_cast<int>(rng() % 3);
            std::string from = record(slot_base(static_cast<int>(rng() % kMaxWorkers)) + static_cast<int>(rng() % kIdsPerSlot),
                                      gen, kL.min());
            int n = key == 0 ? nisfind(fd, 0, from.data(), buf, sizeof buf) : 0;
            if (n == 0) {
                nisseek(fd, key, from.data() + (key == 0 ? 0 : key == 1 ? kL.l0 : kL.l0 + kL.l1));
                for (int k = 0; k < 5 && n >= 0; ++k) {
                    n = rng() % 2 ? nisread(fd, key, buf, sizeof buf) : nispread(fd, key, buf, sizeof buf);
                    parse_or_die(buf, n, 53, "worker", key);
                }
            }
            if (n < 0) die(54, "worker %d: read fails, is_errno %d\n", slot, is_errno);
            continue;
        }
        const char op = "wwwfuuddlb"[roll % 10];
        std::string r = record(id, gen, size);
        log.begin(seq, op, id, gen, size);
        int rc = 0;
        switch (op) {
            case 'w': rc = niswrite(fd, r.data(), size); break;
            case 'f': rc = nisfwrite(fd, r.data(), size); break;
            case 'u': rc = nisupdate(fd, r.data(), size); break;
            case 'd': rc = nisdelete(fd, r.data()); break;
            case 'l':
                if (nislock(fd, r.data(), kL.l0, 0) != 0) std::_Exit(55);
                rc = nisupdate(fd, r.data(), size);
                if (nisunlock(fd, r.data(), kL.l0, 0) != 0) std::_Exit(56);
                break;
            case 'b':
                nisgetctl(fd);
                rc = nisfind(fd, 0, r.data(), buf, sizeof buf) > 0 ? nisupdate(fd, r.data(), size) : -1;
                if (rc < 0 && is_errno == 0) is_errno = ISE_NOKEY;
                nisrelctl(fd);
                break;
        }
        const int err = rc < 0 ? is_errno : 0;
        log.end(seq, rc, err);
        if (rc < 0 && err != ISE_NOKEY) {
            niserrmsg();
            die(57, "worker %d: call %c on %d fails with is_errno %d\n", slot, op, id, err);
        }
    }
}

// ---- the supervisor ------------------------------------------------------------------------

class KillTest : public Env {
protected:
    void SetUp() override {}   // the configuration depends on the test
    void TearDown() override {
        kL = kShort;
        for (pid_t p : live_)
            if (p > 0) held_.push_back(p);   // killed and reaped by the fixture
        Env::TearDown();
    }

    // round(k) on a new file `file_` for k = 1, 2, ... (this process attached through
    // keep_) until a round's process was not killed, which round returns.
    void every_kill_point(const char* who, const std::function<bool(int k)>& round) {
        file_ = made(who, kL.lens());
        bool whole = false;
        int points = 0;
        for (int k = 1; !whole && k < 1000 && !HasFailure(); ++k, ++points) {
            ASSERT_GE(nisopen(keep_.c_str(), ISO_RDONLY), 0);
            whole = round(k);
        }
        EXPECT_TRUE(whole || HasFailure()) << "the " << who << " never got through";
        std::printf("[ figures  ] %d kill points\n", points);
    }
    // The file is sound and holds `have` (the records before the round) plus between
    // `returned` and `returned + cut` records; `have` moves on.
    void check_counts(long* have, long returned, long cut, int k, const char* how) {
        const kisam::check::Report r = kisam::check::check_file(file_);
        EXPECT_TRUE(r.ok) << how << ", killed at system call " << k << ": " << r.error;
        EXPECT_GE(r.records, *have + returned) << how << ", killed at system call " << k << ": calls that returned are missing";
        EXPECT_LE(r.records, *have + returned + cut) << how << ", killed at system call " << k;
        *have = r.records;
    }

    // Every worker dead: settle their cut calls from the logs, check the shared area (when
    // attached), the file against the oracles along every key, and both files' structure.
    void check_round(const std::string& file) {
        if (isam_com) { ASSERT_TRUE(ko::shared_sound()); }
        int fd = nisopen(file.c_str(), ISO_RDWR);
        char msg[256];
        niserrmsgget(msg, sizeof msg);
        ASSERT_GE(fd, 0) << msg;
        ko::Model want;
        for (int s = 0; s < kMaxWorkers; ++s) {
            ko::Oracle& o = oracle_[s];
            EXPECT_TRUE(ko::replay(logs_[s], &offset_[s], o)) << "slot " << s;
            if (o.pending()) {
                ko::Log(logs_[s]).resolved(o.pending_id(), stored(fd, o.pending_id()));
                EXPECT_TRUE(ko::replay(logs_[s], &offset_[s], o)) << "slot " << s;
            }
            want.insert(o.model().begin(), o.model().end());
        }
        const ko::Scan got = ko::scan(fd, kL);
        EXPECT_TRUE(got.ok()) << got.why;
        EXPECT_TRUE(ko::same(want, got.recs));
        ASSERT_EQ(nisclose(fd), 0);
        nisunisam();
        const ::testing::AssertionResult sound = kt::sound(file), churned = kt::sound(file + ".churn");
        if (!sound || !churned || HasFailure()) keep();
        ASSERT_TRUE(churned);
        ASSERT_TRUE(sound);
        records_ = static_cast<long>(got.recs.size());
    }

    void run(const kt::Config& c, int kills_default, const ko::Layout& layout = kShort) {
        kL = layout;
        start(c);
        bound(600);
        const char* env_kills = std::getenv("KISAM_KILLS");
        const int kills = env_kills ? std::atoi(env_kills) : kills_default;
        std::mt19937_64 rng(kt::test_seed(20261124));
        const std::string file = made("load", kL.lens());
        made("load.churn", kL.lens());
        for (int s = 0; s < kMaxWorkers; ++s) logs_.push_back(path("log" + std::to_string(s)));
        oracle_.assign(kMaxWorkers, ko::Oracle());
        offset_.assign(kMaxWorkers, 0);
        live_.assign(kMaxWorkers, 0);
        // KISAM_GRACEFUL: stop workers between calls (engine faults vs recovery faults).
        const bool graceful = std::getenv("KISAM_GRACEFUL") != nullptr;
        auto stop = [&](int s) {
            ::kill(live_[s], graceful ? SIGUSR1 : SIGKILL);
            int st = 0;
            ::waitpid(live_[s], &st, 0);
            live_[s] = 0;
            return graceful ? (WIFEXITED(st) && WEXITSTATUS(st) == 0) || (WIFSIGNALED(st) && WTERMSIG(st) == SIGUSR1)
                            : WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL;
        };
        auto spawn = [&](int s) {
            const uint64_t seed = rng();
            live_[s] = kt::start_child([&, s, seed]() -> int { worker(s, file, logs_[s], seed); });
        };
        int done = 0, rounds = 0;
        while (done < kills) {
            int workers = 2 + static_cast<int>(rng() % (kMaxWorkers - 1));
            if (const char* w = std::getenv("KISAM_WORKERS")) workers = std::atoi(w);
            // Every other round the segment outlives the workers.
            if (rounds % 2 == 1) { ASSERT_GE(nisopen(file.c_str(), ISO_RDONLY), 0); }
            for (int s = 0; s < workers; ++s) spawn(s);
            for (int k = 0; k < 50 && done < kills; ++k, ++done) {
                ::usleep(static_cast<useconds_t>(rng() % 50000));
                const int s = static_cast<int>(rng() % workers);
                if (!stop(s)) keep();
                ASSERT_FALSE(HasFailure() || kept_) << "worker " << s << " ended by itself";
                spawn(s);
            }
            for (int s = 0; s < workers; ++s) ASSERT_TRUE(stop(s)) << "worker " << s << " ended by itself";
            check_round(file);
            if (HasFatalFailure()) return;
            ++rounds;
        }
        long calls = 0, killed = 0;
        for (const ko::Oracle& o : oracle_) calls += o.calls, killed += o.cut_short;
        std::printf("[ figures  ] %d kills, %d checks, %ld changing calls logged, %ld cut short and found "
                    "whole or absent, %ld records at the end\n", done, rounds, calls, killed, records_);
        EXPECT_LT(::shmget(inst_->key(), 0, 0), 0) << "a segment was left behind";
    }

    // The evidence, where KISAM_KEEP says.
    void keep() {
        kept_ = true;
        if (!std::getenv("KISAM_KEEP")) return;
        std::string cmd = "cp -r '" + inst_->dir() + "' '" + std::getenv("KISAM_KEEP") + "'";
        if (std::system(cmd.c_str()) != 0) std::printf("could not keep %s\n", inst_->dir().c_str());
    }

    std::string file_, keep_;
    bool kept_ = false;
    std::vector<std::string> logs_;
    std::vector<ko::Oracle> oracle_;
    std::vector<long> offset_;
    std::vector<pid_t> live_;
    long records_ = 0;
};

// Writes records first .. first + kCalls - 1 (a byte to `done` for each), then closes and
// detaches with `close`; 0, or where it failed.
constexpr int kCalls = 3;
int write_calls(const std::string& file, int first, bool close, kt::Pipe* done = nullptr) {
    const int fd = nisopen(file.c_str(), ISO_RDWR);
    if (fd < 0) return 1;
    for (int i = 0; i < kCalls; ++i) {
        if (const std::string r = record(first + i, 1, 700 + 300 * i); niswrite(fd, r.data(), static_cast<int>(r.size())) < 0)
            return 2;
        if (done) done->signal();
    }
    if (close && nisclose(fd) != 0) return 3;
    if (close) nisunisam();
    return 0;
}

// In a child, fn with the k-th write, sync or lock call from now on killing the process.
int killed_at(int k, const std::function<int()>& fn) {
    ot::become_unattached();
    kt::Faults kill;
    kill.arm(kt::Faults::kChanges, k, kt::Faults::kKill);
    return fn();
}

// A kill at every write, sync or lock of an open, kCalls writes and the last close: the
// file holds every call that returned and at most the cut one, both when the last process
// left and after another process's call and death made recovery replay the log.  Then a
// cleaner that finishes a dead process's last close, killed at every write, sync or lock
// of it, leaves the close to the next: the file holds every call that returned.
TEST_F(KillTest, KilledAnywhereInAnOpenCallsAndTheLastClose) {
    start(kt::Config{.maxbuf = 64});
    bound(300);
    keep_ = made("keep", kL.lens());
    long have = 0;
    int id = 0;
    // kCalls writes and the close, killed at the k-th system call from the open on; its
    // status, and how many of its calls returned.
    auto child = [&](int k, int* returned) {
        kt::Pipe done;
        const int first = id;
        id += kCalls;
        const pid_t pid = kt::start_child([&, k, first] {
            done.close_read();
            return killed_at(k, [&] { return write_calls(file_, first, true, &done); });
        });
        done.close_write();
        for (*returned = 0; done.wait();) ++*returned;
        const int rc = kt::wait_child(pid);
        EXPECT_TRUE(rc == 0 || rc == 128 + SIGKILL) << "the child ended with " << rc;
        return rc;
    };
    every_kill_point("child", [&](int k) {
        int returned;
        const int rc = child(k, &returned);
        nisunisam();
        check_counts(&have, returned, 1, k, "left by the last process");
        // Another process opens the file after the kill, makes a call and dies last.
        kt::Pipe up, go;
        const int next_id = id++;
        const pid_t keeper = kt::start_child([&, next_id]() -> int {
            up.close_read();
            go.close_write();
            ot::become_unattached();
            if (nisopen(keep_.c_str(), ISO_RDONLY) < 0) return 1;
            up.signal();
            go.wait();
            const int fd = nisopen(file_.c_str(), ISO_RDWR);
            const std::string r = record(next_id, 1, 900);
            if (fd < 0 || niswrite(fd, r.data(), static_cast<int>(r.size())) < 0) return 2;
            up.signal();
            for (;;) ::pause();
        });
        held_.push_back(keeper);
        up.close_write();
        go.close_read();
        EXPECT_EQ(up.wait(), 'x');
        child(k, &returned);
        go.signal();
        EXPECT_EQ(up.wait(), 'x') << "the call after the kill fails";
        kill(keeper);
        EXPECT_GE(nisopen(file_.c_str(), ISO_RDONLY), 0);  // the segment made anew
        nisunisam();
        check_counts(&have, returned + 1, 1, k, "recovered");
        return rc == 0;
    });
    have = 0;
    every_kill_point("cleaner", [&](int k) {
        const int first = id;
        id += kCalls;
        EXPECT_EQ(kt::run_child([&] {
                      ot::become_unattached();
                      if (write_calls(file_, first, false) == 0) ::raise(SIGKILL);
                      return 4;
                  }),
                  128 + SIGKILL);
        const int rc = kt::run_child([&] {
            if (killed_at(k, [] { return is_init(); }) != 0) return 1;  // cleans the dead writer up
            nisunisam();
            return 0;
        });
        EXPECT_TRUE(rc == 0 || rc == 128 + SIGKILL) << "the cleaner ended with " << rc;
        nisunisam();
        check_counts(&have, kCalls, 0, k, "cleaner");
        return rc == 0;
    });
}

TEST_F(KillTest, SmallPool) { run(kt::Config{.maxbuf = 64}, 150); }
TEST_F(KillTest, LargePoolWithTheDataChangedMark) { run(kt::Config{.maxbuf = 4000, .bits = 0x1}, 150); }
// Key 0 of 248 bytes: three items a page on keys 0 and 1, four on key 2, trees six deep;
// kills land in splits and merges that run through every level.
TEST_F(KillTest, LongKeys) { run(kt::Config{.maxbuf = 4000}, 50, {248, 4, 2}); }

}  // namespace
