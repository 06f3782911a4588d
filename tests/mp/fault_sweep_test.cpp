// Failing system calls at every point of a workload and its close: the nth page read,
// page write, sync, journal reservation or lock call fails once or from then on.  Every
// call succeeds or fails with a code of its own, a fault met once fails one call at most,
// and once the fault is gone the next process finds exactly what the calls that
// succeeded made, in a sound file.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "isx_area.h"
#include "jn_internal.h"
#include "os.h"
#include "test_hook.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <map>
#include <ostream>
#include <random>

namespace {

using ot::Env;
using kt::Faults;
namespace ko = kt::oracle;

const ko::Layout kL{6, 8, 4};
constexpr int kMin = 18;
constexpr int kTightPool = 6;

struct Step {
    char op;   // w write, f forced write, u update, d delete, r read along key 1,
               // s nisflush, l a record lock taken and given back
    int id, gen, size;
};

bool changes(const Step& s) { return std::strchr("wfud", s.op) != nullptr; }
std::string record_of(const Step& s) { return s.op == 's' ? std::string() : ko::record(kL, s.id, s.gen, s.size); }

// A read along key 1 goes to the end; its result is the last read's.
int perform(int fd, const Step& s, const std::string& r) {
    char buf[4000];
    int rc = 0;
    switch (s.op) {
        case 'w': rc = niswrite(fd, r.data(), s.size); break;
        case 'f': rc = nisfwrite(fd, r.data(), s.size); break;
        case 'u': rc = nisupdate(fd, r.data(), s.size); break;
        case 'd': rc = nisdelete(fd, r.data()); break;
        case 'r':
            nisseek(fd, 1, "\0\0\0\0\0\0\0\0");
            while ((rc = nisread(fd, 1, buf, sizeof buf)) > 0) {}
            break;
        case 's': rc = nisflush(fd); break;
        case 'l':
            rc = nislock(fd, r.data(), 6, 1);
            if (rc == 0) rc = nisunlock(fd, r.data(), 6, 0);
            break;
        default: break;
    }
    return rc;
}

std::vector<Step> workload() {
    std::mt19937 rng(11);
    auto size = [&] { return rng() % 3 == 0 ? kMin + static_cast<int>(rng() % 2980) : kMin + static_cast<int>(rng() % 120); };
    std::vector<Step> w;
    // Key 1 (the generation) nearly unique.
    for (int i = 0; i < 24; ++i) {
        const int id = static_cast<int>(rng() % 40);
        w.push_back({'w', id, id * 31, size()});
    }
    const char ops[] = {'w', 'f', 'u', 'u', 'd', 'r'};
    for (int i = 0; i < 26; ++i) {
        const int id = static_cast<int>(rng() % 40);
        w.push_back({ops[rng() % 6], id, id * 31 + (i + 1) * 7, size()});
        if (i == 5 || i == 17) w.push_back({'s', 0, 0, 0});
        if (i == 9 || i == 21) w.push_back({'l', i, 0, kMin});
    }
    return w;
}

// The workload, told to the oracle (and the log); `coded` falls when a call fails without
// a code of its own, `failed` counts failures other than a missing record.  Whether the
// last call succeeded.
bool run(int fd, const std::vector<Step>& w, ko::Oracle& o, bool* coded, ko::Log* log = nullptr, int* failed = nullptr) {
    bool ok = true;
    for (const Step& s : w) {
        const bool had = o.get(s.id).present(), changing = changes(s);
        if (changing) o.begin(s.op, s.id, s.gen, s.size);
        if (changing && log) log->begin(0, s.op, s.id, s.gen, s.size);
        const int rc = perform(fd, s, record_of(s));
        if (changing) o.end(rc);
        if (changing && log) log->end(0, rc, rc < 0 ? is_errno : 0);
        // A failed read of the search must not pass for an absent record.
        if (rc < 0 && is_errno <= 0) *coded = false;
        if (rc < 0 && is_errno != ISE_NOKEY && failed) ++*failed;
        if (rc < 0 && is_errno == ISE_NOKEY && had) {
            std::printf("step %c %d: ISE_NOKEY for a record that is there\n", s.op, s.id);
            *coded = false;
        }
        ok = rc >= 0;
    }
    return ok;
}

// Says on stderr (once each) whether an injected lock failure hit a take or a release.
int (*armed_fcntl)(int, int, struct flock*) = nullptr;
bool told[2] = {false, false};
int telling_fcntl(int fd, int cmd, struct flock* fl) {
    const short type = fl->l_type;
    const int calls = Faults::calls(Faults::kLock);
    int r = armed_fcntl(fd, cmd, fl);
    if (r != 0 && Faults::hit() && (errno == EIO || errno == ENOLCK) && Faults::calls(Faults::kLock) > calls) {
        const int k = type == F_UNLCK ? 1 : 0;
        if (!told[k]) std::fprintf(stderr, "[injected into a %s]\n", k ? "release" : "take");
        told[k] = true;
    }
    return r;
}

class Sweep : public Env {
protected:
    void SetUp() override { bound(600); }   // each test starts its own installation

    // File "s" made anew; its descriptor.
    int fresh() {
        ::unlink(path("s").c_str());
        const int fd = create("s", kL.lens());
        EXPECT_GE(fd, 0);
        return fd;
    }
    void fresh_closed() {
        nisclose(fresh());
        nisunisam();
    }
    static ::testing::AssertionResult matches(const std::string& f, const ko::Model& model) {
        return ko::holds(f, kL, model, ISO_RDONLY | ISF_NOVERIFY);
    }
    void drop_journals() {
        for (int i = 0; i < 64; ++i) ::unlink((inst_->config_path() + ".lk.u" + std::to_string(i)).c_str());
    }

    // Calls of kind the workload makes with no fault, through its close when `whole` (and
    // the file must then match).
    int calls_of(const std::vector<Step>& w, Faults::Kind kind, bool whole = true) {
        const int fd = fresh();
        ko::Oracle o;
        bool coded = true;
        int total;
        {
            Faults count;
            run(fd, w, o, &coded);
            total = Faults::calls(kind);
            EXPECT_EQ(nisclose(fd), 0);
            if (whole) total = Faults::calls(kind);
        }
        nisunisam();
        if (whole) {
            EXPECT_TRUE(coded);
            EXPECT_TRUE(matches(path("s"), o.model()));
        }
        return total;
    }

    // Every nth call of kind, once and from then on, through the run and its close.
    void sweep(Faults::Kind kind, const char* what) {
        const std::vector<Step> w = workload();
        if (kind == Faults::kAlloc) drop_journals();
        const int total = calls_of(w, kind);
        if (HasFailure()) return;
        ASSERT_GT(total, 0) << what;
        for (Faults::Mode mode : {Faults::kOnce, Faults::kFromThenOn}) {
            for (int n = 1; n <= total; ++n) {
                SCOPED_TRACE(std::string(what) + (mode == Faults::kOnce ? " failing once" : " failing from then on") +
                             " at call " + std::to_string(n) + " of " + std::to_string(total));
                // Journals are reserved when first made: each run needs its own.
                if (kind == Faults::kAlloc) drop_journals();
                const int fd = fresh();
                ko::Oracle o;
                bool coded = true;
                int failed = 0;
                {
                    Faults fail;
                    fail.arm(kind, n, mode, kind == Faults::kWrite && mode == Faults::kFromThenOn ? ENOSPC : EIO);
                    run(fd, w, o, &coded, nullptr, &failed);
                    const bool met = Faults::hit();
                    const int closed = nisclose(fd);
                    if (closed != 0 && is_errno <= 0) coded = false;
                    if (mode == Faults::kOnce && met) { EXPECT_EQ(closed, 0) << "the close failed after a fault that had passed: " << is_errno; }
                    ASSERT_TRUE(Faults::hit()) << "the run no longer reaches the point";
                }
                ASSERT_TRUE(coded) << "a call failed without an error code of its own";
                if (mode == Faults::kOnce) { ASSERT_LE(failed, 1) << "calls still fail once the fault has passed"; }
                nisunisam();
                ASSERT_TRUE(matches(path("s"), o.model()));
                ASSERT_LT(::shmget(inst_->key(), 0, 0), 0) << "a segment was left behind";
            }
        }
        std::printf("[ sweep    ] %s: %d points, each once and from then on\n", what, total);
    }
};

// One sweep per kind of call, each in a pool (tight: evictions, pages let go inside a
// call, reads from disk) and with mark options (0x1 mark, 0x2 synced when set, 0x4
// cleared at every release) that reach its points.
struct Kind {
    const char* name;
    Faults::Kind kind;
    int16_t maxbuf;   // 0: the default pool
    uint32_t bits;
};
void PrintTo(const Kind& k, std::ostream* os) { *os << k.name; }

class Sweeps : public Sweep, public ::testing::WithParamInterface<Kind> {};

TEST_P(Sweeps, EveryPointOnceAndFromThenOn) {
    const Kind& k = GetParam();
    start(kt::Config{.maxbuf = k.maxbuf ? k.maxbuf : kt::Config().maxbuf, .bits = k.bits});
    sweep(k.kind, k.name);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, Sweeps,
    ::testing::Values(Kind{"PageWrites", Faults::kWrite, 0, 0}, Kind{"PageWritesInATightPool", Faults::kWrite, kTightPool, 0},
                      Kind{"SynchronisationsInATightPool", Faults::kSync, kTightPool, 0},
                      Kind{"PageReads", Faults::kRead, 10, 0}, Kind{"SynchronisationsWithTheMark", Faults::kSync, 0, 0x1 | 0x2},
                      Kind{"SynchronisationsAtRelease", Faults::kSync, 0, 0x1 | 0x4},
                      Kind{"JournalReservations", Faults::kAlloc, 0, 0}),
    [](const ::testing::TestParamInfo<Kind>& i) { return std::string(i.param.name); });

// A disk that drops what it had not written when the at-th sync of one file fails (the
// kernel reports it once): the data file named, or, with no name, the log.
struct Forget {
    char file[PATH_MAX];
    int at, seen;
    bool hit;
    std::string good;  // the file (the log: up to its records' end) as its last good sync left it
};
Forget* g_forget = nullptr;

// The end of slot 0's log records in the file, rounded up to a page.
size_t log_used() {
    const isx_file* x = kisam::isx_file_of(0);
    return (1024 + (x->xf_log_end - x->xf_log_start) + 4095) / 4096 * 4096;
}

int forgetful_sync(int fd) {
    Forget& f = *g_forget;
    const bool log = !*f.file;
    if (log ? !kt::is_log_fd(fd) : kt::fd_path(fd) != f.file) return kisam::os_real.fdatasync(fd);
    if (++f.seen == f.at) {
        f.hit = true;
        if (log) {   // the log back to its good bytes, zeros up to its records' end
            const std::string zeros(std::max(log_used(), f.good.size()) - f.good.size(), '\0');
            (void)!::pwrite(fd, zeros.data(), zeros.size(), static_cast<off_t>(f.good.size()));
            (void)!::pwrite(fd, f.good.data(), f.good.size(), 0);
        } else {
            kt::drop_unwritten(fd, f.good);
        }
        errno = EIO;
        return -1;
    }
    const int r = kisam::os_real.fdatasync(fd);
    if (r == 0 && !log) f.good = kt::slurp(f.file);
    if (r == 0 && log) {
        f.good.resize(log_used());
        const ssize_t n = ::pread(fd, f.good.data(), f.good.size(), 0);
        f.good.resize(n > 0 ? static_cast<size_t>(n) : 0);
    }
    return r;
}

// Every data-file sync fails in turn on that disk: no returned call is lost, a failed one
// is whole or absent, and the next process finds a sound file that is not marked as changed.
class DataSyncs : public Sweep, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(DataSyncs, EachFailingOnADiskThatDropsWhatItHadNotWritten) {
    start(kt::Config{.maxbuf = kTightPool, .bits = GetParam()});
    const std::string f = path("s");
    const std::vector<Step> w = workload();
    Forget forget{};
    g_forget = &forget;
    fresh_closed();
    const std::string real = kt::real_path(f);
    ASSERT_NE(real, "");
    std::snprintf(forget.file, sizeof forget.file, "%s", real.c_str());
    int total = 0;   // n = 0: the run with no fault counts the data-file syncs
    for (int n = 0; n <= total; ++n) {
        SCOPED_TRACE("data-file sync " + std::to_string(n) + " of " + std::to_string(total));
        fresh_closed();
        forget.at = n, forget.seen = 0, forget.hit = false, forget.good = kt::slurp(f);
        kisam::os.fdatasync = forgetful_sync;
        int fd = nisopen(f.c_str(), ISO_RDWR);
        ASSERT_GE(fd, 0) << is_errno;
        ko::Oracle o;
        bool coded = true;
        for (const Step& s : w) {
            if (changes(s)) o.begin(s.op, s.id, s.gen, s.size);
            const int rc = s.op == 'l' ? 0 : perform(fd, s, record_of(s));  // no lock calls here
            if (rc < 0 && is_errno <= 0) coded = false;
            if (!changes(s)) {
                EXPECT_GE(rc, 0) << "step " << s.op << " " << s.id << ": is_errno " << is_errno;
                continue;
            }
            if (rc >= 0) o.end(rc);
            else EXPECT_TRUE(o.cut(ko::find(fd, kL, s.id))) << "step " << s.op << " " << s.id;
        }
        const int closed = nisclose(fd);
        nisunisam();
        kisam::os.fdatasync = kisam::os_real.fdatasync;
        if (n == 0) {
            EXPECT_EQ(closed, 0);
            total = forget.seen;
            ASSERT_GT(total, 2);
        } else {
            ASSERT_TRUE(forget.hit) << "the run no longer reaches the point";
        }
        EXPECT_TRUE(coded) << "a call failed without an error code";
        ASSERT_TRUE(ko::holds(f, kL, o.model(), ISO_RDONLY));
    }
    std::printf("[ sweep    ] data-file syncs, bits 0x%x: %d points\n", GetParam(), total);
}

INSTANTIATE_TEST_SUITE_P(Marks, DataSyncs, ::testing::Values(0u, 0x1u | 0x2u, 0x1u | 0x4u),
                         [](const ::testing::TestParamInfo<uint32_t>& i) {
                             return std::string(i.param == 0 ? "NoMark" : i.param & 0x2 ? "MarkSynced" : "MarkClearedAtRelease");
                         });

// The same disk under the log, in durable mode, killed at the end and replayed: no call
// that returned is lost, and calls go on after the failure.
TEST_F(Sweep, LogSyncsEachFailingOnADiskThatDropsWhatItHadNotWritten) {
    start(kt::Config{.maxbuf = kTightPool});
    const std::string f = path("s");
    const std::vector<Step> w = workload();
    struct Out {
        int seen, hit, failed;
        int rc[64];
        ko::Rec now[64];  // what a failed call left, read back at once
    };
    Out* out = &shared<Out>();
    Forget forget{};
    g_forget = &forget;
    auto run_child = [&](int at) {
        fresh_closed();
        *out = Out{};
        return kt::run_child([&] {
            ::setenv("KISAM_DURABLE", "1", 1);
            forget = Forget{{}, at, 0, false, {}};
            kisam::os.fdatasync = forgetful_sync;
            const int fd = nisopen(f.c_str(), ISO_RDWR);
            if (fd < 0) return forget.hit && is_errno > 0 ? 10 : 1;  // the open's own sync
            int i = 0;
            for (const Step& s : w) {
                const int rc = out->rc[i] = s.op == 'l' ? 0 : perform(fd, s, record_of(s));  // no lock calls here
                if (rc < 0 && changes(s)) {
                    const int err = is_errno;
                    if (err <= 0) return 2;
                    if (err != ISE_NOKEY) ++out->failed;
                    out->now[i] = ko::find(fd, kL, s.id);
                }
                if (rc < 0 && !changes(s)) return 3;
                ++i;
            }
            out->seen = forget.seen, out->hit = forget.hit;
            ::raise(SIGKILL);
            return 4;
        });
    };
    ASSERT_EQ(run_child(0), 128 + SIGKILL);
    const int total = out->seen, failing = out->failed;  // calls that fail on a sound disk
    ASSERT_GT(total, 10);
    for (int n = 1; n <= total; ++n) {
        SCOPED_TRACE("log sync " + std::to_string(n) + " of " + std::to_string(total));
        const int st = run_child(n);
        if (st == 10) {
            inst_->remove_segment();
            ASSERT_TRUE(ko::holds(f, kL, ko::Model{}));
            continue;
        }
        ASSERT_EQ(st, 128 + SIGKILL);
        ASSERT_TRUE(out->hit) << "the run no longer reaches the point";
        EXPECT_LE(out->failed, failing + 3) << "calls still fail after the failed sync";
        inst_->remove_segment();
        // An id a failed call touched may hold either state, and so may every later call on it.
        ko::Oracle o;
        std::map<int, bool> doubtful;
        for (size_t i = 0; i < w.size(); ++i) {
            const Step& s = w[i];
            if (!changes(s)) continue;
            if (out->rc[i] >= 0) o.begin(s.op, s.id, s.gen, s.size), o.end(out->rc[i]);
            else if (!(out->now[i] == o.get(s.id))) doubtful[s.id] = true;
        }
        const int fd = nisopen(f.c_str(), ISO_RDONLY);
        ASSERT_GE(fd, 0) << is_errno;
        const ko::Scan got = ko::scan(fd, kL);
        EXPECT_TRUE(got.ok()) << got.why;
        ko::Model want = o.model(), have = got.recs;
        for (const auto& [id, d] : doubtful) {
            want.erase(id);
            have.erase(id);
        }
        EXPECT_TRUE(ko::same(want, have)) << "a call that returned is lost";
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
        ASSERT_TRUE(kt::sound(f));
    }
    std::printf("[ sweep    ] log syncs in durable mode: %d points\n", total);
}

// ---- a call that outgrows its journal -----------------------------------------------------

// 25 keys of 450 bytes: index pages of two items, trees a dozen levels deep, so that an
// update that moves every key changes more pages than a journal first has room for.
constexpr int kWideKeys = 25, kWideLen = 450, kWideRecords = 400;
constexpr int kWideSize = 8 + (kWideKeys - 1) * kWideLen;
std::string wide(int id, int gen) {
    std::string r(kWideSize, 'w');
    char b[16];
    std::snprintf(b, sizeof b, "%08d", id);
    std::memcpy(&r[0], b, 8);
    for (int k = 1; k < kWideKeys; ++k) {
        std::snprintf(b, sizeof b, "%05d", (id * 7919 + k * 31 + gen * 104729) % 100000);
        std::memcpy(&r[8 + (k - 1) * kWideLen], b, 5);
    }
    return r;
}
// The generation id's record holds (0 or 1), else -1.
int wide_gen(int fd, int id) {
    std::string got(kWideSize, '\0');
    if (nisfind(fd, 0, wide(id, 0).data(), got.data(), kWideSize) != kWideSize) return -1;
    return got == wide(id, 0) ? 0 : got == wide(id, 1) ? 1 : -1;
}
// Records 0 .. n-1 of generation 1, the rest of 0, along every key, in a sound file.
::testing::AssertionResult wide_holds(const std::string& f, int n) {
    const int fd = nisopen(f.c_str(), ISO_RDONLY);
    if (fd < 0) return ::testing::AssertionFailure() << "open: " << is_errno;
    for (int id = 0; id < kWideRecords; ++id)
        if (wide_gen(fd, id) != (id < n ? 1 : 0)) {
            nisclose(fd);
            return ::testing::AssertionFailure() << "record " << id << " is not of generation " << (id < n);
        }
    nisclose(fd);
    nisunisam();
    return kt::sound(f);
}
int update_wide(int fd, int id) { return nisupdate(fd, wide(id, 1).data(), kWideSize); }

// Fails the g_journal_looks-th fstat of a journal.
int g_journal_looks = 0;
int failing_journal_fstat(int fd, struct stat* st) {
    const std::string p = kt::fd_path(fd);
    const size_t dot = p.rfind(".u");
    if (dot != std::string::npos && p.find_first_not_of("0123456789", dot + 2) == std::string::npos && g_journal_looks > 0 &&
        --g_journal_looks == 0) {
        errno = EIO;
        return -1;
    }
    return kisam::os_real.fstat(fd, st);
}

// Whether this process's journal (the lock file's path and ".u") has outgrown its first room.
std::string g_journal;
bool grown() {
    struct stat st;
    const std::string j = g_journal + std::to_string(is_env.useridx);
    return ::stat(j.c_str(), &st) == 0 &&
           static_cast<size_t>(st.st_size) > kisam::journal::bytes_for(kisam::journal::kFirstCapacity);
}
// Killed once the journal has grown and the call changed a few pages more.
int g_touches_past = -1;
void kill_past_growth(int where, int) {
    if (where == kisam::kHookTouch && grown() && ++g_touches_past == 30) ::kill(::getpid(), SIGKILL);
}

// The update that first outgrows its journal (found by a run without a fault) fails
// whole when the journal cannot grow, is rolled back whole by a survivor when its
// process dies after the growth, and is there after a crash in durable mode once it
// returned.  A journal that cannot be opened or mapped fails its call, nothing changed.
TEST_F(Sweep, ACallThatOutgrowsItsJournalIsWholeOrAbsent) {
    start(kt::Config{.maxbuf = 1024});
    const std::string f = path("wide");
    std::vector<int> lens(kWideKeys, kWideLen);
    lens[0] = 8;
    {
        const int fd = create("wide", lens);
        ASSERT_GE(fd, 0) << is_errno;
        for (int id = 0; id < kWideRecords; ++id) ASSERT_EQ(niswrite(fd, wide(id, 0).data(), kWideSize), 0) << is_errno;
        ASSERT_EQ(nisclose(fd), 0);
        nisunisam();
    }
    const std::string made = kt::slurp(f);
    drop_journals();
    g_journal = lock() + ".u";
    // Updates from 0 on until one grows the journal (or up to stop_before); how many were made.
    auto update_until_grown = [&](int fd, int stop_before) {
        for (int id = 0; id < kWideRecords; ++id) {
            if (id == stop_before) return id;
            if (update_wide(fd, id) != 0) return -1;
            if (grown()) return id + 1;
        }
        return -1;
    };
    int fd = nisopen(f.c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0);
    const int grows = update_until_grown(fd, -1) - 1;  // the id whose update grows it
    ASSERT_GE(grows, 0) << "no update outgrew the journal";
    nisclose(fd);
    nisunisam();

    // Its reservation fails: the call fails and is undone; made again, it goes through.
    drop_journals();
    kt::spit(f, made);
    fd = nisopen(f.c_str(), ISO_RDWR);
    ASSERT_EQ(update_until_grown(fd, grows), grows);
    {
        Faults fail;
        fail.arm(Faults::kAlloc, 1, Faults::kOnce, ENOSPC);
        EXPECT_EQ(update_wide(fd, grows), -1);
        EXPECT_GT(is_errno, 0);
        EXPECT_TRUE(Faults::hit());
    }
    EXPECT_EQ(wide_gen(fd, grows), 0);
    EXPECT_EQ(update_wide(fd, grows), 0) << is_errno;
    nisclose(fd);
    nisunisam();
    EXPECT_TRUE(wide_holds(f, grows + 1));

    // Killed past the growth, rolled back by the process that stays attached.
    drop_journals();
    kt::spit(f, made);
    ASSERT_EQ(is_init(), 0);
    const int st = kt::run_child([&] {
        kt::become_unattached();
        const int cfd = nisopen(f.c_str(), ISO_RDWR);
        if (cfd < 0 || update_until_grown(cfd, grows) != grows) return 1;
        kisam::test_hook = kill_past_growth;
        update_wide(cfd, grows);
        return 2;
    });
    ASSERT_EQ(st, 128 + SIGKILL);
    int pids[4];
    EXPECT_EQ(kisam_reap(pids, 4), 1);
    EXPECT_TRUE(wide_holds(f, grows));

    // Returned in durable mode, then killed: the replay has it.
    drop_journals();
    kt::spit(f, made);
    ASSERT_EQ(kt::run_child([&] {
                  ::setenv("KISAM_DURABLE", "1", 1);
                  const int cfd = nisopen(f.c_str(), ISO_RDWR);
                  if (cfd < 0 || update_until_grown(cfd, -1) != grows + 1) return 1;
                  ::raise(SIGKILL);
                  return 2;
              }),
              128 + SIGKILL);
    inst_->remove_segment();
    EXPECT_TRUE(wide_holds(f, grows + 1));

    // Each look at the journal's file as it is opened fails in turn: the call fails with
    // nothing changed, until the looks run out and it goes through.
    for (int n = 1;; ++n) {
        SCOPED_TRACE("journal look " + std::to_string(n));
        ASSERT_LT(n, 10);
        g_journal_looks = n;
        fd = nisopen(f.c_str(), ISO_RDWR);
        ASSERT_GE(fd, 0);
        kisam::os.fstat = failing_journal_fstat;
        const int rc = nisupdate(fd, wide(grows + 1, 1).data(), kWideSize);
        kisam::os.fstat = kisam::os_real.fstat;
        const bool met = g_journal_looks == 0;
        if (met) {
            EXPECT_EQ(rc, -1);
            EXPECT_GT(is_errno, 0);
            EXPECT_EQ(wide_gen(fd, grows + 1), 0);
        }
        nisclose(fd);
        nisunisam();
        if (!met) {
            EXPECT_EQ(rc, 0) << is_errno;
            // Its owner and mode, its size, its size again to map it.
            EXPECT_GE(n, 4) << "the journal's file is looked at less than expected";
            break;
        }
    }
    EXPECT_TRUE(wide_holds(f, grows + 2));
}

// A failing lock call refuses its call with a code, changing nothing; a failing release
// of a held range ends the process with the lock layer's message.  The calls that
// completed are there for the next process.
TEST_F(Sweep, LockCalls) {
    start();
    const std::string f = path("s"), log = path("log");
    const std::vector<Step> w = workload();
    const int total = calls_of(w, Faults::kLock, false);
    int aborted = 0, refused = 0;
    for (Faults::Mode mode : {Faults::kOnce, Faults::kFromThenOn}) {
        for (int n = 1; n <= total; n += mode == Faults::kOnce ? 1 : 3) {
            SCOPED_TRACE("lock call " + std::to_string(n) + " of " + std::to_string(total) +
                         (mode == Faults::kOnce ? " failing once" : " failing from then on"));
            fresh_closed();
            ::unlink(log.c_str());
            int st = 0;
            const std::string err = kt::capture_output(2, [&] {
                st = kt::run_child([&] {
                    const int fd = nisopen(f.c_str(), ISO_RDWR);
                    if (fd < 0) return 3;
                    ko::Log lg(log);
                    ko::Oracle o;
                    bool coded = true;
                    Faults fail;
                    fail.arm(Faults::kLock, n, mode, mode == Faults::kOnce ? EIO : ENOLCK);
                    armed_fcntl = kisam::os.fcntl_lock;
                    kisam::os.fcntl_lock = telling_fcntl;
                    run(fd, w, o, &coded, &lg);
                    // Not the close: its hand-over of slots ends the process when it cannot lock.
                    fail.disarm();
                    nisclose(fd);
                    nisunisam();
                    return coded ? 0 : 4;
                });
            });
            const bool into_release = err.find("[injected into a release]") != std::string::npos;
            if (st == 128 + SIGABRT) {
                ++aborted;
                EXPECT_TRUE(into_release) << "a failed take ended the process: " << err;
                EXPECT_NE(err.find("is unlockit fail - errno = "), std::string::npos) << "no message: " << err;
            } else {
                ASSERT_EQ(st, 0) << "a call failed without a code, or the child failed: " << err;
                EXPECT_FALSE(into_release) << "a failed release did not end the process";
                refused += err.find("[injected into a take]") != std::string::npos;
            }
            ko::Oracle o;
            long offset = 0;
            ASSERT_TRUE(ko::replay(log, &offset, o));
            const ::testing::AssertionResult a = matches(f, o.model());
            if (!a && o.pending()) EXPECT_TRUE(matches(f, o.with_pending())) << a.message();
            else EXPECT_TRUE(a);
            ASSERT_LT(::shmget(inst_->key(), 0, 0), 0) << "a segment was left behind";
        }
    }
    EXPECT_GT(refused, 0);
    std::printf("[ sweep    ] lock calls: %d points, once and from then on: %d takes refused their call, "
                "%d failed releases ended the process\n", total, refused, aborted);
}

}  // namespace
