// Every changing call is whole or absent when killed at any page write or sync of the
// call or of its close, or when its writes fail.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "os.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <algorithm>
#include <random>

namespace {

using ot::Env;
namespace ko = kt::oracle;
using kt::Faults;
using kt::slurp;
using kt::spit;

// Long keys: key 1 has order 6, a few hundred writes make four levels.
const ko::Layout kL{60, 90, 40};
constexpr int16_t kTightPool = 8;

enum Op { kWrite, kUpdate, kDelete, kReplace };
struct Call {
    const char* what;
    Op op;
    int id, gen, size;
};

int apply(int fd, const Call& c) {
    std::string r = ko::record(kL, c.id, c.gen, c.size);
    switch (c.op) {
        case kWrite: return niswrite(fd, r.data(), static_cast<int>(r.size()));
        case kUpdate: return nisupdate(fd, r.data(), static_cast<int>(r.size()));
        case kReplace: return nisfwrite(fd, r.data(), static_cast<int>(r.size()));
        case kDelete: return nisdelete(fd, r.data());
    }
    return -1;
}

ko::Model records_of(int fd) {
    const ko::Scan s = ko::scan(fd, kL);
    EXPECT_TRUE(s.ok()) << s.why;
    return s.recs;
}

::testing::AssertionResult holds(const std::string& f, const ko::Model& want) { return ko::holds(f, kL, want); }

class Undo : public Env {
protected:
    void SetUp() override {
        Env::SetUp();
        bound(400);
    }

    struct Target {
        Call call;
        std::string bytes;    // the file before the call, written back
        ko::Model before;     // its records before the call
        ko::Model after;      // and after it
    };

    // Call c on file "c" with the disk refusing every write from its last on (the commit's
    // log record), counted on a copy of the file.
    int failing_from_commit(int fd, const Call& c) {
        EXPECT_EQ(kt::write_back(fd), 0);
        const std::string g = path("c2");
        spit(g, slurp(path("c")));
        const int gd = nisopen(g.c_str(), ISO_RDWR);
        int writes;
        {
            Faults count;
            EXPECT_EQ(apply(gd, c), 0);
            writes = Faults::calls(Faults::kWrite);
        }
        nisclose(gd);
        EXPECT_GE(writes, 1);
        Faults fail;
        fail.arm(Faults::kWrite, writes, Faults::kFromThenOn, ENOSPC);
        const int rc = apply(fd, c);
        EXPECT_TRUE(Faults::hit());
        return rc;
    }

    // A 3-key file and, for each call worth testing, the file before it (written back) and its
    // records before and after; detached at the end.
    std::vector<Target> build(const std::string& name) {
        const std::string f = path(name);
        std::vector<Target> t;
        const int fd = create(name, kL.lens());
        EXPECT_GE(fd, 0);
        std::mt19937 rng(7);
        auto size = [&] { return kL.min() + static_cast<int>(rng() % 2800); };
        auto root = [&](int k) { return kisam::fcp_key(ot::shared_fcp(fd), k)->k_root; };
        auto snap = [&](const Call& c) {
            EXPECT_EQ(kt::write_back(fd), 0) << is_errno;
            return Target{c, slurp(f), records_of(fd), {}};
        };
        auto run = [&](const Call& c, bool keep) {
            Target x = keep ? snap(c) : Target{};
            EXPECT_EQ(apply(fd, c), 0) << c.what << ": " << is_errno;
            if (keep) {
                x.after = records_of(fd);
                t.push_back(x);
            }
        };
        // Writes until key 1's tree has four levels; the write splitting a full root then splits
        // every level.
        auto root_full = [&](int k) {
            IS_KEY* kd = kisam::fcp_key(ot::shared_fcp(fd), k);
            int16_t n = 0;
            EXPECT_EQ(kt::write_back(fd), 0);
            const int fh = ::open(f.c_str(), O_RDONLY);
            if (fh >= 0 && kd->k_root != KISAM_NOPAGE) ::pread(fh, &n, 2, kd->k_root + 2);
            if (fh >= 0) ::close(fh);
            return n == kd->k_order;
        };
        int grown = 0;
        for (int id = 0; grown < 3 && id < 3000; ++id) {
            const PAGE r = root(1);
            Call c{"write splitting every level up to the root", kWrite, id * 2, 0, size()};
            const bool last = grown == 2 && root_full(1);
            Target x = last ? snap(c) : Target{};
            EXPECT_EQ(apply(fd, c), 0);
            if (last && root(1) != r) t.push_back({c, x.bytes, x.before, records_of(fd)});
            if (root(1) != r && r != KISAM_NOPAGE) ++grown;
        }
        EXPECT_EQ(t.size(), 1u) << "no root split reached";
        run({"write of a record with overflow pages", kWrite, 1, 0, 3000}, true);
        run({"update changing keys 1 and 2", kUpdate, 4, 1, 2500}, true);
        run({"delete of a record with overflow pages", kDelete, 1, 0, 0}, true);
        run({"replace", kReplace, 6, 2, 40 + kL.min()}, true);
        for (int k = 0; k < 12; ++k) run({"delete", kDelete, k * 2 + 10, 0, 0}, false);
        run({"delete that merges pages", kDelete, 40, 0, 0}, true);
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
        return t;
    }

    // A child that opens f (or, without `opens`, only attaches) and, on `go`, reads along key
    // 0 and leaves: either way it rolls a dead holder's unit back.
    pid_t peer(const std::string& f, kt::Pipe& ready, kt::Pipe& go, bool opens = true) {
        return kt::start_child([&, f, opens] {
            ot::become_unattached();
            if (!opens) {
                if (is_init() != 0) return 12;
                ready.signal();
                go.wait();
                return nisunisam() == 0 ? 0 : 13;
            }
            int fd = nisopen(f.c_str(), ISO_RDWR);
            if (fd < 0) return 10;
            ready.signal();
            go.wait();
            char buf[4096];
            int r;
            while ((r = nisread(fd, 0, buf, sizeof buf)) > 0) {}
            if (r < 0) return 11;
            nisclose(fd);
            nisunisam();
            return 0;
        });
    }

    // A process making the call and closing the file is killed before its nth write or sync,
    // for every n, with the file open elsewhere, another process attached, or nobody: the
    // file then holds the records of before the call, or of after it once it had returned.
    void kill_sweep() {
        const std::string f = path("k"), returned = path("returned");
        const std::vector<Target> targets = build("k");
        ASSERT_FALSE(targets.empty());
        int kills = 0, inside = 0;
        for (const Target& t : targets) {
            SCOPED_TRACE(t.call.what);
            ASSERT_NE(t.before, t.after);
            for (Faults::Kind kind : {Faults::kWrite, Faults::kSync}) {
                int in_call = 0;
                for (int others = 0; others < 3; ++others) {
                    for (int n = 1;; ++n) {
                        SCOPED_TRACE(std::string("killed before ") + (kind == Faults::kWrite ? "write " : "sync ") + std::to_string(n) +
                                     (others == 0 ? ", file open elsewhere" : others == 1 ? ", one attached" : ", alone"));
                        ASSERT_LT(n, 500) << "the call and its close never end";
                        spit(f, t.bytes);
                        ::unlink(returned.c_str());
                        kt::Pipe ready, go;
                        const pid_t p = others < 2 ? peer(f, ready, go, others == 0) : 0;
                        if (p) { ASSERT_EQ(ready.wait(), 'x'); }
                        const int rc = kt::run_child([&] {
                            ot::become_unattached();
                            int fd = nisopen(f.c_str(), ISO_RDWR);
                            if (fd < 0) return 20;
                            Faults kill;
                            kill.arm(kind, n, Faults::kKill);
                            if (apply(fd, t.call) != 0) return 22;
                            if (FILE* m = std::fopen(returned.c_str(), "w")) std::fclose(m);
                            if (nisclose(fd) != 0) return 23;
                            nisunisam();
                            return 21;  // not killed: every point of the call and its close is swept
                        });
                        if (p) {
                            go.signal();
                            ASSERT_EQ(kt::wait_child(p), 0);
                        }
                        if (rc == 21) {
                            ASSERT_TRUE(holds(f, t.after));
                            break;
                        }
                        ASSERT_EQ(rc, 128 + SIGKILL);
                        ++kills;
                        const bool done = ::access(returned.c_str(), F_OK) == 0;
                        in_call += !done;
                        ASSERT_TRUE(holds(f, done ? t.after : t.before))
                            << (done ? "killed in the close of a call that had returned" : "killed inside the call");
                        ASSERT_LT(::shmget(inst_->key(), 0, 0), 0) << "a segment was left behind";
                    }
                }
                if (kind == Faults::kWrite) { EXPECT_GT(in_call, 0); }
                inside += in_call;
            }
        }
        std::printf("[ kills    ] %d (%d inside the calls, the others in their closes)\n", kills, inside);
    }

    // Detached: the next process finds `want` in file "c".
    void closed_holds(int fd, const ko::Model& want, const char* why = "") {
        ASSERT_EQ(nisclose(fd), 0);
        nisunisam();
        EXPECT_TRUE(holds(path("c"), want)) << why;
    }
    // File "c" with records 0 .. n-1 of size(id).
    int filled(int n, int (*size)(int)) {
        const int fd = create("c", kL.lens());
        EXPECT_GE(fd, 0);
        for (int id = 0; id < n; ++id) EXPECT_EQ(apply(fd, {"", kWrite, id, 0, size(id)}), 0);
        return fd;
    }
};

// With the default pool, then with one of few slots, where calls let changed pages go and
// evict earlier calls' pages.
TEST_F(Undo, KillAtEveryPageWriteLeavesTheFileAsBefore) {
    for (int16_t slots : {kt::Config().maxbuf, kTightPool}) {
        SCOPED_TRACE("a pool of " + std::to_string(slots));
        kt::Config c;
        c.maxbuf = slots;
        start(c);
        kill_sweep();
    }
}

// Fails every pwrite of the control page of `fail_path` while set.
std::string fail_path;
int control_writes_failed = 0;
ssize_t failing_control_pwrite(int fd, const void* b, size_t n, off_t off) {
    if (off == 0 && !fail_path.empty() && kt::fd_path(fd) == fail_path) {
        ++control_writes_failed;
        errno = ENOSPC;
        return -1;
    }
    return kisam::os_real.pwrite(fd, b, n, off);
}
void fail_control_writes(const std::string& f) {
    fail_path = kt::real_path(f);
    control_writes_failed = 0;
    kisam::os.pwrite = failing_control_pwrite;
}

// A write whose commit cannot be written fails with ISE_FLWT, and nothing of it stays.
TEST_F(Undo, AFailedControlPageWriteFailsTheCallAndUndoesIt) {
    const int fd = filled(1, [](int) { return 500; });
    const ko::Model before = records_of(fd);
    EXPECT_EQ(failing_from_commit(fd, {"", kWrite, 2, 0, 500}), -1);
    EXPECT_EQ(is_errno, ISE_FLWT);
    const std::vector<int> stack = kt::error_stack();
    EXPECT_NE(std::find(stack.begin(), stack.end(), 0x2402), stack.end());
    EXPECT_EQ(records_of(fd), before);
    closed_holds(fd, before);
}

// A failed commit whose rollback fails too (a call that grew the file) is rolled back,
// control page included, by the file's next call.
TEST_F(Undo, ARollbackThatFailsIsCompletedByTheNextCall) {
    const int fd = filled(12, [](int) { return 300; });
    ko::Model want = records_of(fd);
    EXPECT_EQ(failing_from_commit(fd, {"", kWrite, 50, 0, 9000}), -1);
    EXPECT_EQ(records_of(fd), want);
    ASSERT_EQ(apply(fd, {"", kWrite, 60, 0, 400}), 0);
    want[60] = ko::Rec{0, 400};
    closed_holds(fd, want);
}

// A checkpoint whose control page write fails keeps the log; killed at the next log sync,
// the process leaves a file the replay makes whole and that takes further calls.
int dying_log_sync(int fd) {
    if (control_writes_failed > 0 && kt::is_log_fd(fd)) ::raise(SIGKILL);
    return kisam::os_real.fdatasync(fd);
}

TEST_F(Undo, AFailedCheckpointKeepsTheLogForTheReplayAfterACrash) {
    const std::string f = made("c", kL.lens());
    ko::Model want;
    for (int id = 0; id < 40; ++id) want[id] = ko::Rec{0, 200 + 61 * id};
    const int st = kt::run_child([&] {
        const int fd = nisopen(f.c_str(), ISO_RDWR);
        if (fd < 0) return 1;
        for (const auto& [id, r] : want)
            if (apply(fd, {"", kWrite, id, r.gen, r.size}) != 0) return 2;
        fail_control_writes(f);
        kisam::os.fdatasync = dying_log_sync;
        nisflush(fd);
        if (fail_path.empty() || control_writes_failed != 1) return 3;
        ::raise(SIGKILL);
        return 4;
    });
    ASSERT_EQ(st, 128 + SIGKILL);
    inst_->remove_segment();
    const int fd = nisopen(f.c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0) << is_errno;
    for (int id = 100; id < 140; ++id) {
        want[id] = ko::Rec{0, 300 + 53 * (id - 100)};
        ASSERT_EQ(apply(fd, {"", kWrite, id, 0, want[id].size}), 0) << id;
    }
    closed_holds(fd, want, "the replay after the failed checkpoint lost calls");
}

}  // namespace
