// Locks between real processes: refused cycles of waits, holders of control-lock words
// that left the library, a randomized model of record locks, and the wait hook.  (A
// refused wait for a range: OpenMp.RefusedWaitForOpclLockFailsCleanly; sleepers on the
// word of a holder killed in its bracket: KillTest.)
#include "../engine/open_fixture.h"

#include "is_common.h"
#include "is_heap.h"
#include "is_lock.h"
#include "isx_area.h"
#include "os.h"
#include "test_hook.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

// A file created in the test's installation; a failed create fails the test.
class LockEnv : public ot::Env {
protected:
    int file(const std::string& name) {
        const int fd = create(name, {4});
        EXPECT_GE(fd, 0) << name << ": " << is_errno;
        return fd;
    }
};

class Fwait : public LockEnv {};

// A record-lock wait whose control lock cannot be taken back ends in ISE_DEADLOCK after
// its bound, keeping no hold on that file and the other file's untouched.
TEST_F(Fwait, RetakeRefusedUntilTheBoundEndsInDeadlock) {
    const int f1 = file("f1"), f2 = file("f2");
    ASSERT_FALSE(HasFailure());
    IS_FCP *c1 = ot::shared_fcp(f1), *c2 = ot::shared_fcp(f2);
    const int me = is_env.useridx;

    // H holds the record lock and dies once B waits for f2: the parent wakes, and its
    // retake of f1's control lock (held by B) closes the cycle.
    kt::Pipe held;
    pid_t h = kt::start_child([&] {
        if (is_chinit() != 0 || nislock(f1, "k", 1, 1) != 0) return 1;
        held.signal();
        kt::await([&] { return kt::waiting_for(&c2->jd_fcplock) > 0; }, 1 << 30);
        ::usleep(100000);   // B is inside its wait by now
        ::_exit(0);         // dies holding the lock
    });
    ASSERT_EQ(held.wait(), 'x');

    ASSERT_EQ(nisgetctl(f2), 0);
    ASSERT_EQ(nisgetctl(f1), 0);   // an application hold of the file being locked
    pid_t b = kt::start_child([&] {
        if (is_chinit() != 0) return 1;
        kt::await([&] { return is_env.needs_[me] != 0; }, 1 << 30);
        if (nisgetctl(f1) != 0) return 2;
        if (nisgetctl(f2) != 0) return 3;
        nisrelctl(f2);
        nisrelctl(f1);
        return 0;
    });

    const auto t0 = std::chrono::steady_clock::now();
    is_errno = 0;
    EXPECT_EQ(nislock(f1, "k", 1, 0), -1);
    const auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(is_errno, ISE_DEADLOCK);
    EXPECT_EQ(kt::error_stack(), std::vector<int>{0x3704});
    EXPECT_GE(waited, std::chrono::milliseconds(kFwaitRetakeTries * kFwaitRetakePauseNs / 1000000));
    EXPECT_EQ(ot::pfi_of(f1)->pfi_ctlcnt, 0) << "every hold on f1 is gone";
    EXPECT_NE(c1->jd_fcplock, static_cast<uint32_t>(is_pid));
    EXPECT_EQ(ot::pfi_of(f2)->pfi_ctlcnt, 1) << "the other file's hold is untouched";

    EXPECT_EQ(nisrelctl(f1), 0) << "the application's release finds nothing to release";
    EXPECT_EQ(nisrelctl(f2), 0);   // lets B go on
    EXPECT_EQ(kt::wait_child(b), 0);
    EXPECT_EQ(kt::wait_child(h), 0);

    EXPECT_EQ(nislock(f1, "k", 1, 1), 0);
    EXPECT_EQ(nisunlock(f1, "k", 1, 0), 0);
    EXPECT_EQ(c1->jd_lock_hd, KISAM_NOREL);
}

class CtlWords : public LockEnv {
protected:
    static uint32_t ctl_word(int fd) {
        return std::atomic_ref<uint32_t>(kisam::isx_file_of(is_db[fd]->uniqueid)->xf_ctl_word).load();
    }
};

// A word left held by an exec'd image (same pid, still running) or by a child forked
// without is_chinit (a zombie) is taken over.
TEST_F(CtlWords, AHolderThatLeavesTheLibraryHoldingItsWordIsTakenOver) {
    const int f = file("f");
    unsigned* word = &ot::shared_fcp(f)->jd_fcplock;
    for (const bool execs : {true, false}) {
        SCOPED_TRACE(execs ? "exec" : "a child without is_chinit");
        const pid_t c = ::fork();
        ASSERT_GE(c, 0);
        if (c == 0) {
            if (execs ? is_chinit() != 0 || nisgetctl(f) != 0 : is_lock_mine(word) || is_lock(word) != 0) ::_exit(1);
            if (execs) ::execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
            ::_exit(execs ? 2 : 0);
        }
        ASSERT_TRUE(kt::await([&] { return ctl_word(f) != 0; }));
        ::usleep(20000);
        ASSERT_EQ(nisgetctl(f), 0);
        if (execs) {
            EXPECT_EQ(::kill(c, 0), 0) << "the new image still runs";
            ::kill(c, SIGKILL);
        }
        EXPECT_EQ(nisrelctl(f), 0);
        EXPECT_EQ(kt::wait_child(c), execs ? 128 + SIGKILL : 0);
        EXPECT_EQ(ctl_word(f), 0u);
    }
}

// A bracket opened by one thread is used and closed by another; other processes wait.
TEST_F(CtlWords, ThreadsOfOneProcessShareItsHold) {
    const int f = file("f");
    unsigned* word = &ot::shared_fcp(f)->jd_fcplock;
    int r[3] = {-1, -1, -1};
    std::thread([&] { r[0] = nisgetctl(f); }).join();
    ASSERT_EQ(r[0], 0);
    EXPECT_TRUE(is_lock_mine(word));
    EXPECT_EQ(kt::run_child([&] {
                  uint32_t dead = 0;
                  return is_chinit() == 0 && is_lock_try(word, &dead) == -1 ? 0 : 1;
              }),
              0)
        << "another process is kept out while a thread holds the bracket";
    std::thread([&] {
        r[1] = niswrite(f, "abcd-thread", 11);
        r[2] = nisrelctl(f);
    }).join();
    EXPECT_EQ(r[1], 0);
    EXPECT_EQ(r[2], 0);
    EXPECT_FALSE(is_lock_mine(word));
    EXPECT_EQ(ctl_word(f), 0u);
    char buf[64];
    EXPECT_GT(nisfind(f, 0, "abcd", buf, sizeof buf), 0);
}

// Three processes take three files' control locks (and record locks) in random orders:
// every request is taken or refused with ISE_DEADLOCK (the one that would close a cycle,
// holding nothing new), nobody hangs, no word stays held; in one order nothing is refused.  Process 0 has a wait hook, so its record-lock waits
// ask again after each sleep and the kernel does not see them wait.  Seed printed.
TEST_F(CtlWords, RandomOrdersOfControlAndRecordLocksNeverHang) {
    const int nfiles = 3, nprocs = 3, rounds = 150;
    std::vector<int> fds;
    for (int k = 0; k < nfiles; ++k) fds.push_back(file("r" + std::to_string(k)));
    const unsigned seed = static_cast<unsigned>(kt::test_seed(std::random_device{}()));  // KISAM_SEED replays
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (const bool ordered : {false, true}) {
    SCOPED_TRACE(ordered ? "one order" : "random orders");
    std::vector<pid_t> kids;
    for (int p = 0; p < nprocs; ++p)
        kids.push_back(kt::start_child([&, p] {
            ::alarm(30);
            if (is_chinit() != 0) return 1;
            if (p == 0) kisam_set_wait_hook([](const struct kisam_wait*, void*) { return 0; }, nullptr, 0);
            std::mt19937 rng(seed + static_cast<unsigned>(p));
            int refused = 0;
            for (int r = 0; r < rounds; ++r) {
                std::vector<int> order(fds);
                std::shuffle(order.begin(), order.end(), rng);
                order.resize(1 + rng() % nfiles);
                if (ordered) std::sort(order.begin(), order.end());
                std::vector<int> held;
                bool ok = true;
                for (int fd : order) {
                    if (nisgetctl(fd) != 0) {
                        // Refused holding nothing new, with the control lock's codes.
                        if (is_errno != ISE_DEADLOCK || kt::error_stack() != std::vector<int>({0x3601, 0x3600}))
                            return 2;
                        if (ot::pfi_of(fd)->pfi_ctlcnt != 0 || is_lock_mine(&ot::shared_fcp(fd)->jd_fcplock)) return 8;
                        ok = false;
                        ++refused;
                        break;
                    }
                    held.push_back(fd);
                    ::usleep(rng() % 400);  // the others come meanwhile
                    if (rng() % 4 == 0) {
                        const char key[4] = {'k', static_cast<char>('0' + rng() % 2), 0, 0};
                        const int rc = nislock(fd, key, 2, 0);
                        if (rc != 0 && is_errno != ISE_DEADLOCK) return 3;
                        if (rc != 0 && ot::pfi_of(fd)->pfi_ctlcnt == 0) held.pop_back();  // detail 4
                        if (rc == 0 && nisunlock(fd, key, 2, 0) != 0) return 4;
                        if (rc != 0) {
                            ok = false;
                            ++refused;
                            break;
                        }
                    }
                }
                if (ok && !held.empty()) {
                    char rec[12];
                    std::snprintf(rec, sizeof rec, "%c%03d-%05d", 'a' + p + (ordered ? nprocs : 0), r % 1000, r);
                    if (niswrite(held.back(), rec, 11) != 0) return 5;
                }
                for (auto it = held.rbegin(); it != held.rend(); ++it)
                    if (nisrelctl(*it) != 0) return 6;
            }
            std::printf("[ process  ] %d refused %d of %d rounds%s\n", p, refused, rounds, ordered ? " (one order)" : "");
            return ordered && refused > 0 ? 7 : 0;
        }));
    for (pid_t k : kids) EXPECT_EQ(kt::wait_child(k), 0);
    for (int fd : fds) {
        EXPECT_EQ(ctl_word(fd), 0u);
        EXPECT_EQ(ot::shared_fcp(fd)->jd_fcplock, 0u);
    }
    }
}

// ---- record locks: three processes, two handles each, against a model ----------------------
//
// Locks on keys of up to three letters (a prefix overlaps), unlocks, reopens, waits until
// every holder let go or died, kills.  After every step the lock chain is the model's.
// Seeded (KISAM_SEED).

class RecLock : public LockEnv {};

struct Lock {
    int pid, isfd;
    std::string key;
    bool operator==(const Lock& o) const { return pid == o.pid && isfd == o.isfd && key == o.key; }
};

bool overlap(const std::string& a, const std::string& b) {
    size_t n = std::min(a.size(), b.size());
    return a.compare(0, n, b, 0, n) == 0;
}

std::vector<Lock> chain(IS_FCP* f) {
    std::vector<Lock> out;
    for (RELt r = f->jd_lock_hd; r != KISAM_NOREL;) {
        IS_RC* e = kisam::rel_ptr<IS_RC>(r);
        if (e->rc_lock != 0)
            out.push_back({static_cast<int>(e->rc_lock), e->rc_isfd, std::string(e->rc_key, static_cast<size_t>(e->rc_len))});
        r = e->rc_next;
    }
    return out;
}

// nislock (a), nisunlock (u) or close-and-reopen (r), and its result.
struct Call {
    char op;
    int h, opt, len;
    char key[4];
    int rc, err;
    int fd[2];   // the maker's handles
};

struct Peer {
    pid_t pid = 0;
    Call* call = nullptr;
    std::unique_ptr<kt::Pipe> go, done;
};

int make(Call* c, const std::string& f) {
    is_errno = 0;
    int& fd = c->fd[c->h];
    if (c->op == 'a') c->rc = nislock(fd, c->key, c->len, c->opt);
    else if (c->op == 'u') c->rc = nisunlock(fd, c->key, c->len, c->opt);
    else c->rc = nisclose(fd) == 0 && (fd = nisopen(f.c_str(), ISO_RDWR)) >= 0 ? 0 : -1;
    c->err = is_errno;
    return c->rc;
}

TEST_F(RecLock, ProcessesTakingAndGivingBackLocksMatchTheModel) {
    const uint64_t seed = kt::test_seed(20261122);
    std::mt19937_64 rng(seed);
    auto rnd = [&](int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); };
    bound(200);
    const std::string f = path("f");
    Call& self = shared<Call>();   // actor 0: this process
    self.fd[0] = file("f");
    ASSERT_GE(self.fd[1] = nisopen(f.c_str(), ISO_RDWR), 0);
    Peer peers[2];   // actors 1 and 2
    auto launch = [&](Peer& p) {
        Call* c = p.call = &shared<Call>();
        kt::Pipe* go = (p.go = std::make_unique<kt::Pipe>()).get();
        kt::Pipe* done = (p.done = std::make_unique<kt::Pipe>()).get();
        p.pid = kt::start_child([c, go, done, f] {
            ot::become_unattached();
            for (int& fd : c->fd)
                if ((fd = nisopen(f.c_str(), ISO_RDWR)) < 0) return 1;
            for (done->signal(); go->wait() == 'x'; done->signal()) make(c, f);
            return 0;
        });
        held_.push_back(p.pid);
        ASSERT_EQ(p.done->wait(), 'x') << "a peer cannot open the file";
    };
    for (Peer& p : peers) launch(p);
    auto call_of = [&](int a) { return a == 0 ? &self : peers[a - 1].call; };
    auto pid_of = [&](int a) { return a == 0 ? static_cast<int>(::getpid()) : peers[a - 1].pid; };
    auto send = [&](int a, char op, int h, const std::string& key, int opt) {
        Call* c = call_of(a);
        c->op = op, c->h = h, c->opt = opt, c->len = static_cast<int>(key.size());
        std::memcpy(c->key, key.data(), key.size());
        if (a == 0) make(c, f);
        else peers[a - 1].go->signal();
    };
    auto result = [&](int a) {
        EXPECT_TRUE(a == 0 || peers[a - 1].done->wait() == 'x') << "peer " << a << " died";
        return call_of(a)->rc;
    };

    std::vector<Lock> model;   // front first, like the chain
    auto others_hold = [&](int a, const std::string& key) {
        return std::find_if(model.begin(), model.end(),
                            [&](const Lock& l) { return l.pid != pid_of(a) && overlap(l.key, key); });
    };
    // Drops pid's locks (of isfd unless -1) that pred picks; how many.
    auto drop = [&](int pid, int isfd, const std::function<bool(const Lock&)>& pred) {
        return static_cast<int>(std::erase_if(model, [&](const Lock& l) {
            return l.pid == pid && (isfd < 0 || l.isfd == isfd) && pred(l);
        }));
    };
    auto all = [](const Lock&) { return true; };
    // Kills and reaps peer a (its locks go, only its) and starts another.
    auto replace = [&](int a) {
        const int pid = pid_of(a);
        kill(pid);
        const bool gone = kt::await([&] {
            int pids[4] = {};
            const int n = kisam_reap(pids, 4);
            for (int k = 0; k < n && k < 4; ++k) EXPECT_EQ(pids[k], pid) << "a live process was reaped";
            for (int i = 0; i < isam_com->maxusers; ++i)
                if (is_env.pid_[i] == pid) return false;
            return true;
        });
        EXPECT_TRUE(gone) << "the dead process keeps its slot";
        drop(pid, -1, all);
        launch(peers[a - 1]);
    };
    bool counted = true;   // a waiter that meets a dead holder's entry drops it uncounted
    int waits = 0, kills = 0;
    for (int step = 0; step < 1500; ++step) {
        const int a = rnd(3), h = rnd(2), roll = rnd(100);
        const int pid = pid_of(a), fd = call_of(a)->fd[h];
        std::string key;
        for (int n = rnd(4); n > 0; --n) key.push_back("ab"[rnd(2)]);
        std::string what;
        int want = 0;
        if (roll < 50) {
            int opt = rnd(3);
            if (opt == 0 && a > 0 && others_hold(a, key) != model.end()) {
                what = "wait for '" + key + "'";
                const uint32_t before = isam_com->usrwaits;
                send(a, 'a', h, key, 0);
                ASSERT_TRUE(kt::await([&] { return kt::waiting(pid); })) << "seed " << seed << " step " << step;
                for (auto l = others_hold(a, key); l != model.end(); l = others_hold(a, key)) {
                    const int b = l->pid == pid_of(0) ? 0 : l->pid == pid_of(1) ? 1 : 2;
                    if (b > 0 && rnd(3) == 0) {
                        replace(b);
                        counted = false;
                        ++kills;
                        continue;
                    }
                    const Lock held = *l;
                    send(b, 'u', call_of(b)->fd[0] == held.isfd ? 0 : 1, held.key, 1);
                    EXPECT_EQ(result(b), drop(held.pid, held.isfd, [&](const Lock& m) { return overlap(m.key, held.key); }));
                }
                ++waits;
                EXPECT_GT(isam_com->usrwaits, before) << "the wait was not counted";
            } else {
                if (opt == 0 && others_hold(a, key) != model.end()) opt = 1;
                what = "lock " + std::to_string(opt) + " '" + key + "'";
                send(a, 'a', h, key, opt);
                const bool mine = std::any_of(model.begin(), model.end(),
                                              [&](const Lock& l) { return l.pid == pid && overlap(l.key, key); });
                want = others_hold(a, key) != model.end() ? -1 : opt == 2 && mine ? 1 : 0;
            }
            if (want == 0) model.insert(model.begin(), {pid, fd, key});
        } else if (roll < 70) {
            what = "unlock '" + key + "'";
            send(a, 'u', h, key, 0);
            auto it = std::find(model.begin(), model.end(), Lock{pid, fd, key});
            want = it == model.end() ? -1 : 0;
            if (it != model.end()) model.erase(it);
        } else if (roll < 88) {
            what = "unlock overlapping '" + key + "'";
            send(a, 'u', h, key, 1);
            want = drop(pid, fd, [&](const Lock& l) { return overlap(l.key, key); });
        } else if (roll < 97 || a == 0) {
            what = "close and reopen";
            send(a, 'r', h, key, 0);
            drop(pid, fd, all);
        } else {
            what = "killed";
            replace(a);
            ++kills;
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + ": process " +
                     std::to_string(a) + " handle " + std::to_string(h) + " " + what);
        ASSERT_TRUE(what == "killed" || result(a) == want) << "returned " << call_of(a)->rc << ", not " << want;
        EXPECT_TRUE(what == "killed" || call_of(a)->err == 0) << "a conflict or a missing lock sets no error code";
        ASSERT_TRUE(what == "killed" || call_of(a)->fd[h] == fd) << "the freed number is reused";
        ASSERT_TRUE(chain(ot::shared_fcp(self.fd[0])) == model) << "the lock chain differs from the model";
        ASSERT_TRUE(!counted || isam_com->curusrlocks == model.size()) << isam_com->curusrlocks << " locks counted";
    }
    std::printf("[ figures  ] %d waits, %d processes killed, %zu locks at the end\n", waits, kills, model.size());
}

// ---- the wait hook ----------------------------------------------------------------------------
class WaitHook : public LockEnv {};

struct Seen {
    int begins = 0, signals = 0, ends = 0;
    int holder = 0, what = 0, can_give_up = -1, given_up = -1;
    char file[256] = {};
    double seconds = -1;
};
Seen seen;
int hook_answer = 0;
kt::Pipe* begin_pipe = nullptr;   // told of each wait that begins

int hook(const struct kisam_wait* w, void*) {
    if (w->event == KISAM_WAIT_BEGIN) {
        ++seen.begins;
        seen.holder = w->holder;
        seen.what = w->what;
        std::snprintf(seen.file, sizeof seen.file, "%s", w->file ? w->file : "");
        if (begin_pipe) begin_pipe->signal('b');
    } else if (w->event == KISAM_WAIT_SIGNAL) {
        ++seen.signals;
        seen.can_give_up = w->can_give_up;
        seen.seconds = w->seconds;
        return hook_answer;
    } else {
        ++seen.ends;
        seen.given_up = w->given_up;
    }
    return 0;
}

// Runs wait in a child whose hook gives up at a signal, interrupted once the wait began.
int given_up(const std::function<int()>& wait) {
    kt::Pipe began;
    const pid_t child = kt::start_child([&] {
        began.close_read();
        kt::interrupting_usr1();
        if (is_chinit() != 0) return 1;
        begin_pipe = &began;
        hook_answer = 1;
        kisam_set_wait_hook(hook, nullptr, 0);
        return wait();
    });
    began.close_write();
    const bool waited = began.wait() != 0;   // else the child ended without a wait
    const int st = kt::interrupt_until_done(child, 5);
    return waited ? st : 1000 + st;
}

// Given up (control lock, then record lock): the hook knew holder, kind and file; the
// call fails with KISAM_ISE_INTERRUPTED keeping nothing of the wait.  A detach whose close
// is given up leaves its slot to a clean-up, which counts the file open once again.
TEST_F(WaitHook, AWaitGivenUpAtASignalKeepsNothingOfIt) {
    const int fd = file("f");
    const pid_t parent = ::getpid();
    ASSERT_EQ(nisgetctl(fd), 0);
    EXPECT_EQ(given_up([&] {
                  if (niswrite(fd, "abcd-record", 11) != -1) return 2;
                  if (is_errno != KISAM_ISE_INTERRUPTED || errno != EINTR) return 3;
                  if (seen.begins != 1 || seen.ends != 1 || seen.signals < 1) return 4;
                  if (seen.holder != parent || seen.what != KISAM_WAIT_CONTROL) return 5;
                  if (!std::string(seen.file).ends_with("/f")) return 6;
                  if (seen.can_give_up != 1 || seen.given_up != 1) return 7;
                  if (is_pfi[is_db[fd]->uniqueid].pfi_ctlcnt != 0) return 8;
                  if (is_lock_mine(&ot::shared_fcp(fd)->jd_fcplock)) return 9;
                  if (is_env.needs_[is_env.useridx] != 0) return 10;
                  char msg[200];
                  niserrmsgget(msg, sizeof msg);
                  if (!std::strstr(msg, "KISAM_ISE_INTERRUPTED wait for a lock given up at a signal")) return 11;
                  return nisunisam() == 0 && isam_com == nullptr ? 0 : 12;
              }),
              0);
    EXPECT_EQ(ot::shared_fcp(fd)->is_usecnt, 2);
    int pids[4];
    EXPECT_EQ(kisam_reap(pids, 4), 1) << "the slot of the detach that left its file open";
    EXPECT_EQ(ot::shared_fcp(fd)->is_usecnt, 1);
    char buf[64];
    EXPECT_EQ(nisfind(fd, 0, "abcd", buf, sizeof buf), 0) << "the record was written";
    EXPECT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(kt::run_child([&] {
        if (is_chinit() != 0) return 1;
        return niswrite(fd, "abcd-record", 11) == 0 ? 0 : 2;
    }), 0);
    EXPECT_GT(nisfind(fd, 0, "abcd", buf, sizeof buf), 0);

    ASSERT_EQ(nislock(fd, "ab", 2, 1), 0);
    EXPECT_EQ(given_up([&] {
                  if (nisgetctl(fd) != 0) return 2;
                  if (nislock(fd, "abc", 3, 0) != -1 || is_errno != KISAM_ISE_INTERRUPTED) return 3;
                  if (seen.what != KISAM_WAIT_RECORD || seen.holder != parent || !std::string(seen.file).ends_with("/f")) return 4;
                  IS_FCP* f = ot::shared_fcp(fd);
                  if (!is_lock_mine(&f->jd_fcplock) || is_pfi[is_db[fd]->uniqueid].pfi_ctlcnt != 1) return 5;
                  IS_RC* e = kisam::rel_ptr<IS_RC>(f->jd_lock_hd);
                  if (e->rc_waitcount != 0 || e->rc_next != KISAM_NOREL) return 6;
                  return nisrelctl(fd) == 0 ? 0 : 7;
              }),
              0);
    EXPECT_EQ(nisunlock(fd, "ab", 2, 0), 0);
    EXPECT_EQ(ot::shared_fcp(fd)->jd_lock_hd, KISAM_NOREL) << "a lock was added";
}

// A signal the hook lets pass, or with neither hook nor flag, keeps the wait, for a
// control lock (a word) and for a record lock (a range), until the holder lets go.
TEST_F(WaitHook, ASignalNotGivenUpKeepsTheWaitUntilTheHolderLetsGo) {
    const int fd = file("f");
    for (int way : {0, 1, 2, 3}) {
        const bool with_hook = way % 2 == 0, record = way >= 2;
        SCOPED_TRACE(std::string(record ? "record lock, " : "control lock, ") +
                     (with_hook ? "the hook lets it pass" : "no hook, no flag"));
        const std::string rec = std::string(1, static_cast<char>('a' + way)) + "bcd-record";
        ASSERT_EQ(record ? nislock(fd, "ab", 2, 1) : nisgetctl(fd), 0);
        kt::Pipe ready;
        pid_t child = kt::start_child([&] {
            ready.close_read();
            kt::interrupting_usr1();
            if (is_chinit() != 0) return 1;
            if (with_hook) {
                begin_pipe = &ready;
                hook_answer = 0;
                kisam_set_wait_hook(hook, nullptr, 0);
            } else {
                ready.signal('r');
            }
            if (record && (nisgetctl(fd) != 0 || nislock(fd, "abc", 3, 0) != 0 || nisunlock(fd, "abc", 3, 0) != 0))
                return 5;
            if (niswrite(fd, rec.data(), 11) != 0 || (record && nisrelctl(fd) != 0)) return 2;
            if (with_hook && (seen.begins != 1 || seen.ends != 1 || seen.signals < 1 || seen.given_up != 0)) return 3;
            if (with_hook && seen.seconds <= 0) return 4;
            return 0;
        });
        ready.close_write();
        ASSERT_NE(ready.wait(), 0);
        for (int i = 0; i < 5; ++i) {
            ::kill(child, SIGUSR1);
            ::usleep(20000);
        }
        char buf[64];
        EXPECT_EQ(nisfind(fd, 0, rec.data(), buf, sizeof buf), 0);
        EXPECT_EQ(record ? nisunlock(fd, "ab", 2, 0) : nisrelctl(fd), 0);
        EXPECT_EQ(kt::wait_child(child), 0);
        EXPECT_GT(nisfind(fd, 0, rec.data(), buf, sizeof buf), 0) << "the wait ended without the write";
    }
}

TEST_F(WaitHook, TheFlagGivesUpAnOpenWaitingForTheOpenLockWithoutAHook) {
    const int fd = file("f");
    ASSERT_EQ(nisclose(fd), 0);
    kt::Pipe ready, go;
    pid_t child = kt::start_child([&] {
        kt::interrupting_usr1();
        if (is_chinit() != 0) return 1;
        kisam_set_wait_hook(nullptr, nullptr, KISAM_WAIT_GIVE_UP);
        ready.signal();
        go.wait();
        if (nisopen(path("f").c_str(), ISO_RDWR) != -1 || is_errno != KISAM_ISE_INTERRUPTED) return 2;
        if (is_lock_mine(&isam_com->opcl_lock)) return 3;
        return 0;
    });
    ASSERT_EQ(ready.wait(), 'x');
    ASSERT_EQ(is_lock(&isam_com->opcl_lock), 0);
    go.signal();
    EXPECT_TRUE(kt::await([] { return kt::waiting_for(&isam_com->opcl_lock) > 0; }, 2000));
    EXPECT_EQ(kt::interrupt_until_done(child, 5), 0);
    is_unlock(&isam_com->opcl_lock);
}

// A free control lock costs no lock request (a range costs one); a failed request
// refuses the call with KISAM_ISE_LOCKFAIL.
TEST_F(WaitHook, AFreeLockCostsNoRequestAndAFailedOneRefusesTheCall) {
    const int fd = file("f");
    for (bool with_hook : {false, true}) {
        SCOPED_TRACE(with_hook ? "with a hook" : "without a hook");
        kisam_set_wait_hook(with_hook ? hook : nullptr, nullptr, with_hook ? KISAM_WAIT_GIVE_UP : 0);
        kt::Faults count;
        const auto requests = [] { return kt::Faults::calls(kt::Faults::kLock); };
        EXPECT_EQ((std::vector<int>{nisgetctl(fd), requests(), nisrelctl(fd), requests(),
                                    is_lock(&isam_com->opcl_lock), requests()}),
                  (std::vector<int>{0, 0, 0, 0, 0, 1}));   // each call's result, then the requests so far
        is_unlock(&isam_com->opcl_lock);
    }
    kisam_set_wait_hook(nullptr, nullptr, 0);
    EXPECT_EQ(seen.begins, 0);
    for (int err : {ENOLCK, EIO}) {
        kt::Faults fail;
        fail.arm(kt::Faults::kLock, 1, kt::Faults::kOnce, err);
        EXPECT_EQ(nisopen(path("f").c_str(), ISO_RDWR), -1);
        EXPECT_EQ(is_errno, KISAM_ISE_LOCKFAIL);
        EXPECT_EQ(errno, err);
        EXPECT_FALSE(is_lock_mine(&isam_com->opcl_lock));
        EXPECT_FALSE(is_lock_mine(&ot::shared_fcp(fd)->jd_fcplock));
    }
    const int fd2 = nisopen(path("f").c_str(), ISO_RDWR);
    EXPECT_GE(fd2, 0) << "the file opens once the lock calls work";
    EXPECT_EQ(niswrite(fd, "abcd-record", 11), 0);
    EXPECT_EQ(nisclose(fd2), 0);
}


// A signal raised before the first sleep (by the hook at the wait's begin) still gives
// the wait up, for a word and for a range; so does one raised on the very edge of a
// sleep (its handler must not run unheard before the sleep), and one raised after a sleep
// between the look at the held-back signals and their letting through.
bool raise_at_sleep = false;
int raise_where = 0;
int raise_at_begin(const struct kisam_wait* w, void*) {
    if (w->event == KISAM_WAIT_BEGIN && !raise_at_sleep) ::raise(SIGUSR1);
    if (w->event == KISAM_WAIT_SIGNAL) ++seen.signals;
    return w->event == KISAM_WAIT_SIGNAL ? 1 : 0;
}

TEST_F(WaitHook, ASignalBetweenSleepsIsNotLost) {
    const int fd = file("f");
    ASSERT_EQ(nislock(fd, "ab", 2, 1), 0);
    for (int way : {0, 1, 2, 3, 4, 5}) {
        const bool record = way % 2 == 1;
        raise_where = way >= 4 ? kisam::kHookGate : kisam::kHookSleep;
        SCOPED_TRACE(std::string(record ? "record lock" : "control lock") +
                     (way >= 4 ? ", between the look and the letting through" : way >= 2 ? ", at its sleep" : ""));
        if (!record) {
            ASSERT_EQ(nisgetctl(fd), 0);
        }
        const int st = kt::run_child([&] {
            kt::interrupting_usr1();
            if (is_chinit() != 0) return 1;
            raise_at_sleep = way >= 2;
            if (raise_at_sleep)
                kisam::test_hook = [](int where, int) {
                    if (where == raise_where && std::exchange(raise_at_sleep, false)) ::raise(SIGUSR1);
                };
            kisam_set_wait_hook(raise_at_begin, nullptr, 0);
            ::alarm(5);  // a lost signal would wait for as long as the parent holds
            const int r = record ? nislock(fd, "abc", 3, 0) : niswrite(fd, "abcd-record", 11);
            if (r != -1 || is_errno != KISAM_ISE_INTERRUPTED) return 2;
            return seen.signals == 1 ? 0 : 3;
        });
        EXPECT_EQ(st, 0) << "128 + 14: the wait went on after the signal";
        if (!record) {
            ASSERT_EQ(nisrelctl(fd), 0);
        }
    }
    EXPECT_EQ(nisunlock(fd, "ab", 2, 0), 0);
}

}  // namespace
