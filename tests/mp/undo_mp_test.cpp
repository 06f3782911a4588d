// Every changing call is whole or absent: killed at any of its page writes, or failing
// at any of them, a write with splits up to the root, an update that changes two keys,
// a delete of a record with overflow pages and a replace leave the file byte for byte
// as it was before the call, once another process has used the file (or, with nobody
// attached, once the next process attaches).
#include "../engine/open_fixture.h"

#include "kcheck.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <algorithm>
#include <random>

namespace {

using ot::Env;
using kt::Faults;

constexpr int kL0 = 60, kL1 = 90, kL2 = 40;
constexpr int kMinRec = kL0 + kL1 + kL2;

// Record `id` of generation `gen`: key 0 from the id; keys 1 and 2 from the generation
// (so that an update changes both); `size` bytes in all.
std::string record(int id, int gen, int size) {
    std::string r(static_cast<size_t>(size < kMinRec ? kMinRec : size), '.');
    char k0[kL0 + 1];
    std::snprintf(k0, sizeof k0, "%060d", id);
    std::memcpy(&r[0], k0, kL0);
    std::memset(&r[kL0], 'a' + (id * 7 + gen) % 26, kL1);
    std::memset(&r[kL0 + kL1], 'A' + (id + gen * 3) % 26, kL2);
    for (size_t i = kMinRec; i < r.size(); ++i) r[i] = static_cast<char>('0' + (id + gen + i) % 10);
    return r;
}

enum Op { kWrite, kUpdate, kDelete, kReplace };
struct Call {
    const char* what;
    Op op;
    int id, gen, size;
};

int apply(int fd, const Call& c) {
    std::string r = record(c.id, c.gen, c.size);
    switch (c.op) {
        case kWrite: return niswrite(fd, r.data(), static_cast<int>(r.size()));
        case kUpdate: return nisupdate(fd, r.data(), static_cast<int>(r.size()));
        case kReplace: return nisfwrite(fd, r.data(), static_cast<int>(r.size()));
        case kDelete: return nisdelete(fd, r.data());
    }
    return -1;
}

std::string slurp(const std::string& path) {
    std::string s;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return s;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    std::fclose(f);
    return s;
}
void spit(const std::string& path, const std::string& bytes) {
    ::unlink(path.c_str());
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
    std::fclose(f);
}

// Byte for byte, but for the control page's count of processes (is_usecnt, bytes 84-85),
// which says how many processes had the file open when it was last written.
::testing::AssertionResult same_file(const std::string& a, const std::string& b) {
    if (a.size() != b.size())
        return ::testing::AssertionFailure() << "sizes " << a.size() << " and " << b.size();
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] == b[i] || i == 84 || i == 85) continue;
        return ::testing::AssertionFailure() << "first difference at byte " << i << " (page "
                                             << i / 1024 << ")";
    }
    return ::testing::AssertionSuccess();
}

class Undo : public Env {
protected:
    void SetUp() override {
        Env::SetUp();
        ::alarm(240);
    }
    void TearDown() override {
        ::alarm(0);
        Env::TearDown();
    }

    struct Target {
        Call call;
        std::string before;   // the file before the call
        std::string after;    // and after it
        int writes;           // page writes the call makes
    };

    // Builds a 3-key file in this process and records, for each call worth testing, the
    // file before and after it and the number of its page writes; then detaches.
    std::vector<Target> build(const std::string& f) {
        std::vector<Target> t;
        const int lens[3] = {kL0, kL1, kL2};
        int fd = niscreate(f.c_str(), 3, const_cast<int*>(lens));
        EXPECT_GE(fd, 0);
        std::mt19937 rng(7);
        auto size = [&] { return kMinRec + static_cast<int>(rng() % 2800); };
        auto root = [&](int k) { return kisam::fcp_key(ot::shared_fcp(fd), k)->k_root; };
        auto run = [&](const Call& c, bool keep) {
            std::string before = slurp(f);
            Faults count;
            int r = apply(fd, c);
            EXPECT_EQ(r, 0) << c.what << ": " << is_errno;
            if (keep) t.push_back({c, before, slurp(f), Faults::calls(Faults::kWrite)});
        };
        // Writes until the tree of key 1 (order 6) grows to four levels: the write that
        // splits its root then splits every level below it too.  Only a write into a
        // tree whose root is full can split the root.
        auto root_full = [&](int k) {
            IS_KEY* kd = kisam::fcp_key(ot::shared_fcp(fd), k);
            int16_t n = 0;
            int fh = ::open(f.c_str(), O_RDONLY);
            if (fh >= 0 && kd->k_root != KISAM_NOPAGE) ::pread(fh, &n, 2, kd->k_root + 2);
            if (fh >= 0) ::close(fh);
            return n == kd->k_order;
        };
        int grown = 0;
        for (int id = 0; grown < 3 && id < 3000; ++id) {
            const PAGE r = root(1);
            Call c{"write splitting every level up to the root", kWrite, id * 2, 0, size()};
            if (grown == 2 && root_full(1)) {
                std::string before = slurp(f);
                Faults count;
                EXPECT_EQ(apply(fd, c), 0);
                if (root(1) != r) t.push_back({c, before, slurp(f), Faults::calls(Faults::kWrite)});
            } else {
                EXPECT_EQ(apply(fd, c), 0);
            }
            if (root(1) != r && r != KISAM_NOPAGE) ++grown;
        }
        EXPECT_EQ(t.size(), 1u) << "no root split reached";
        run({"write of a record with overflow pages", kWrite, 1, 0, 3000}, true);
        run({"update changing keys 1 and 2", kUpdate, 4, 1, 2500}, true);
        run({"delete of a record with overflow pages", kDelete, 1, 0, 0}, true);
        run({"replace", kReplace, 6, 2, 40 + kMinRec}, true);
        for (int k = 0; k < 12; ++k) run({"delete", kDelete, k * 2 + 10, 0, 0}, false);
        run({"delete that merges pages", kDelete, 40, 0, 0}, true);
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
        return t;
    }

    // A child that opens f and waits; on a signal it reads the whole file along key 0
    // (taking the control lock: a dead holder's unit is rolled back then), closes and
    // detaches.  Without `opens` it only attaches, and on the signal leaves as the last
    // process, which rolls the dead holder's unit back on its way out.
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
            int n = 0, r;
            while ((r = nisread(fd, 0, buf, sizeof buf)) > 0) ++n;
            if (r < 0) return 11;
            nisclose(fd);
            nisunisam();
            return 0;
        });
    }
};

// The killed call's process dies before its nth page write, for every n; whether
// another process had the file open all along (and rolls the call back when it next
// takes the file's control lock), was attached without the file (and rolls it back as
// the last to leave) or nobody was (the next process to attach rolls it back), the file
// is afterwards exactly as it was before the call.
TEST_F(Undo, KillAtEveryPageWriteLeavesTheFileAsBefore) {
    const std::string f = path("k");
    std::vector<Target> targets = build(f);
    ASSERT_FALSE(targets.empty());
    int kills = 0;
    for (const Target& t : targets) {
        SCOPED_TRACE(t.call.what);
        ASSERT_GT(t.writes, 1);
        ASSERT_FALSE(same_file(t.before, t.after));
        for (int n = 1; n <= t.writes; ++n) {
            SCOPED_TRACE("killed before page write " + std::to_string(n) + " of " + std::to_string(t.writes));
            spit(f, t.before);
            const bool with_peer = n % 3 != 0;
            kt::Pipe ready, go;
            pid_t p = with_peer ? peer(f, ready, go, n % 3 == 1) : 0;
            if (with_peer) {
                ASSERT_EQ(ready.wait(), 'x');
            }
            const int rc = kt::run_child([&] {
                ot::become_unattached();
                int fd = nisopen(f.c_str(), ISO_RDWR);
                if (fd < 0) return 20;
                Faults kill;
                kill.arm(Faults::kWrite, n, Faults::kKill);
                apply(fd, t.call);
                return 21;  // not killed: the call wrote fewer pages than counted
            });
            ASSERT_EQ(rc, 128 + SIGKILL);
            ++kills;
            if (with_peer) {
                go.signal();
                ASSERT_EQ(kt::wait_child(p), 0);
            } else {
                ASSERT_EQ(kt::run_child([&] {
                    ot::become_unattached();
                    int fd = nisopen(f.c_str(), ISO_RDONLY);
                    if (fd < 0) return 30;
                    nisclose(fd);
                    nisunisam();
                    return 0;
                }), 0);
            }
            ASSERT_TRUE(same_file(slurp(f), t.before));
            ASSERT_LT(::shmget(inst_->key(), 0, 0), 0) << "a segment was left behind";
        }
    }
    std::printf("[ kills    ] %d\n", kills);
    kisam::check::Report rep = kisam::check::check_file(f);
    EXPECT_TRUE(rep.ok) << rep.error;
}

// A call whose nth page write fails -- once, or from then on (a disk that stays full) --
// returns -1 with an error code and leaves the file as before, for every n; once writes
// succeed again the same call goes through and gives the file as it is after the call.
TEST_F(Undo, FailureAtEveryPageWriteIsUndone) {
    const std::string f = path("w");
    std::vector<Target> targets = build(f);
    for (const Target& t : targets) {
        SCOPED_TRACE(t.call.what);
        for (Faults::Mode mode : {Faults::kOnce, Faults::kFromThenOn}) {
            for (int n = 1; n <= t.writes; ++n) {
                SCOPED_TRACE(std::string(mode == Faults::kOnce ? "once" : "from then on") +
                             " at page write " + std::to_string(n));
                spit(f, t.before);
                int fd = nisopen(f.c_str(), ISO_RDWR);
                ASSERT_GE(fd, 0);
                int r;
                {
                    Faults fail;
                    fail.arm(Faults::kWrite, n, mode, mode == Faults::kOnce ? EIO : ENOSPC);
                    r = apply(fd, t.call);
                    EXPECT_TRUE(Faults::hit());
                }
                // A write that failed once may have been made again within the call (the
                // control page is written at every release): then the call stands.
                if (mode == Faults::kOnce && r == 0) {
                    ASSERT_EQ(nisclose(fd), 0);
                    nisunisam();
                    ASSERT_TRUE(same_file(slurp(f), t.after));
                    continue;
                }
                EXPECT_EQ(r, -1);
                EXPECT_GT(is_errno, 0);
                // The disk works again: nothing of the failed call is left, and it can
                // be made again.
                ASSERT_EQ(nisclose(fd), 0);
                nisunisam();
                ASSERT_TRUE(same_file(slurp(f), t.before));
                fd = nisopen(f.c_str(), ISO_RDWR);
                ASSERT_GE(fd, 0);
                ASSERT_EQ(apply(fd, t.call), 0) << is_errno;
                ASSERT_EQ(nisclose(fd), 0);
                nisunisam();
                ASSERT_TRUE(same_file(slurp(f), t.after));
            }
        }
    }
}

}  // namespace

namespace {

// A write whose closing flush cannot write the control page learns it: -1 with the
// release's 0x2402 over the flush's ISE_FLFCP, and the record is not there once writes
// succeed again -- nor is anything else of the call.
TEST_F(Undo, AFailedControlPageWriteFailsTheCallAndUndoesIt) {
    const std::string f = path("c");
    const int lens[3] = {kL0, kL1, kL2};
    int fd = niscreate(f.c_str(), 3, const_cast<int*>(lens));
    ASSERT_GE(fd, 0);
    ASSERT_EQ(apply(fd, {"", kWrite, 1, 0, 500}), 0);
    const std::string before = slurp(f);
    int writes;
    {
        // The same call on a copy, to count its page writes: the last one is the control
        // page at the closing release.
        const std::string g = path("c2");
        spit(g, before);
        int gd = nisopen(g.c_str(), ISO_RDWR);
        ASSERT_GE(gd, 0);
        Faults count;
        ASSERT_EQ(apply(gd, {"", kWrite, 2, 0, 500}), 0);
        writes = Faults::calls(Faults::kWrite);
        nisclose(gd);
    }
    {
        Faults fail;
        fail.arm(Faults::kWrite, writes, Faults::kFromThenOn, ENOSPC);
        EXPECT_EQ(apply(fd, {"", kWrite, 2, 0, 500}), -1);
        EXPECT_EQ(is_errno, ISE_FLFCP);
        const std::vector<int> stack = kt::error_stack();
        EXPECT_NE(std::find(stack.begin(), stack.end(), 0x2402), stack.end());
    }
    char buf[600];
    std::string k2 = record(2, 0, 500);
    EXPECT_EQ(nisfind(fd, 0, k2.data(), buf, sizeof buf), 0);
    std::string k1 = record(1, 0, 500);
    EXPECT_EQ(nisfind(fd, 0, k1.data(), buf, sizeof buf), 500);
    ASSERT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_TRUE(same_file(slurp(f), before));
}

}  // namespace
