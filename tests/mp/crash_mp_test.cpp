// A process that dies holding a lock never blocks the others: opcl_lock, free_lock and
// buf_lock are each taken by a child that is then killed, and the survivors get through
// promptly (a dead holder's control lock: lock_mp_test's CtlWords, and its record locks:
// its RecLock model; the start-up lock: a process killed at every lock call of its
// attach, which it makes holding it, below).
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "is_common.h"
#include "is_lock.h"
#include "isx_area.h"
#include "jn.h"
#include "test_hook.h"
#include "v_pool.h"

#include <functional>
#include <signal.h>
#include <sys/wait.h>

namespace {

using ot::Env;

// A hang is a failure: the alarm ends the test process instead of the suite timeout.
class Crash : public Env {
protected:
    void SetUp() override {
        Env::SetUp();
        bound(60);
    }
};

const char kRec[] = "abcd-record";

TEST_F(Crash, CommonLockWords) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisclose(fd), 0);
    struct Word {
        const char* name;
        uint32_t* word;
    } words[] = {{"opcl_lock", &isam_com->opcl_lock},
                 {"free_lock", &isam_com->free_lock},
                 {"buf_lock", &isam_com->buf_lock}};
    int round = 0;
    for (const Word& w : words) {
        for (bool direct : {true, false}) {
            SCOPED_TRACE(std::string(w.name) + (direct ? ", taken over by a take of it" : ", taken over by the calls"));
            const pid_t pid = hold([&] { return is_chinit() == 0 && is_lock(w.word) == 0 ? 0 : 1; });
            if (w.word != &isam_com->buf_lock) {   // (a word taken in memory: no range)
                EXPECT_EQ(is_lockitnw(kisam::com_offset(w.word)), -1) << "held elsewhere: refused at once";
            }
            kill(pid);
            EXPECT_EQ(*w.word, static_cast<uint32_t>(pid)) << "the word still names the dead holder";
            if (!direct) {
                // Open and close (opcl_lock), a record lock (the heap's free_lock) and a
                // write that needs a fresh buffer (buf_lock) all get through.
                fd = nisopen(path("f").c_str(), ISO_RDWR);
                ASSERT_GE(fd, 0) << is_errno;
                EXPECT_EQ(nislock(fd, "k", 1, 1), 0);
                char rec[sizeof kRec];
                std::memcpy(rec, kRec, sizeof rec);
                rec[0] = static_cast<char>('a' + round++);
                EXPECT_EQ(niswrite(fd, rec, sizeof rec), 0) << is_errno;
                EXPECT_EQ(nisclose(fd), 0);
                EXPECT_NE(*w.word, static_cast<uint32_t>(pid));
            }
            // Taken over once (and said so to the taker, who repairs): the next take finds
            // it free.
            for (int stale : {direct ? 1 : 0, 0}) {
                ASSERT_EQ(is_lock(w.word), 0);
                EXPECT_EQ(is_lock_stale, stale);
                EXPECT_EQ(*w.word, static_cast<uint32_t>(is_pid));
                is_unlock(w.word);
            }
        }
    }
}

// A call that fails and is rolled back while another process opened the file: the
// rollback puts the shared control page back as the call found it, but never its count
// of processes, which opens and closes change under opcl_lock alone.  Put back, the count
// would lose the open, and the last close would free the shared copy under a process
// that still has the file open.
kt::Pipe *g_inside = nullptr, *g_resume = nullptr;
kt::Faults* g_faults = nullptr;
TEST_F(Crash, ARollbackKeepsAnOpenMadeDuringTheCall) {
    const int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(niswrite(fd, kRec, sizeof kRec), 0);
    kt::Pipe inside, resume, opened, go;
    g_inside = &inside;
    g_resume = &resume;
    const pid_t writer = kt::start_child([&] {
        if (is_chinit() != 0) return 1;
        {
            kt::Faults faults;
            g_faults = &faults;
            // Inside the call: wait for the other's open, then fail the call's next write.
            kisam::test_hook = [](int where, int) {
                if (where != kisam::kHookTouch || !g_inside) return;
                g_inside->signal();
                g_inside = nullptr;
                g_resume->wait();
                g_faults->arm(kt::Faults::kWrite, 1, kt::Faults::kOnce, ENOSPC);
            };
            if (niswrite(fd, "abcf-other", 10) != -1) return 2;
        }
        return nisclose(fd) == 0 ? 0 : 3;
    });
    inside.close_write();
    ASSERT_EQ(inside.wait(), 'x');
    const pid_t other = kt::start_child([&] {
        ot::become_unattached();
        const int ofd = nisopen(path("f").c_str(), ISO_RDWR);
        if (ofd < 0) return 1;
        opened.signal();
        go.wait();
        char buf[64];
        return nisfind(ofd, 0, kRec, buf, sizeof buf) == int(sizeof kRec) && nisclose(ofd) == 0 ? 0 : 2;
    });
    opened.close_write();
    ASSERT_EQ(opened.wait(), 'x');
    IS_FCP* fcp = ot::shared_fcp(fd);
    EXPECT_EQ(fcp->is_usecnt, 3);
    resume.signal();
    EXPECT_EQ(kt::wait_child(writer), 0) << "the writer's call failed, and it closed the file";
    char buf[64];
    EXPECT_EQ(nisfind(fd, 0, "abcf", buf, sizeof buf), 0) << "the failed call was rolled back";
    EXPECT_EQ(fcp->is_usecnt, 2) << "this process and the other";
    EXPECT_EQ(nisclose(fd), 0);
    go.signal();
    EXPECT_EQ(kt::wait_child(other), 0) << "the other's handle outlived the shared copy";
}

// A table with room for two processes.
class CrashTable : public Env {
protected:
    void SetUp() override {
        kt::Config c;
        c.maxusers = 2;
        start(c);
        bound(60);
    }
};

// A process killed while attached never frees its process-table slot; a later attacher
// takes the slot over instead of finding the table full for ever.
TEST_F(CrashTable, SlotOfAKilledProcessIsReused) {
    ASSERT_EQ(is_init(), 0);
    const pid_t pid = hold([] { return is_init(); });   // the second slot
    // Full while the holder lives: a third process is refused.
    EXPECT_EQ(kt::run_child([] { return is_init() == -1 && is_errno == ISE_INITERR ? 0 : 1; }), 0);
    kill(pid);
    EXPECT_EQ(kt::run_child([&] {
                  if (is_init() != 0) return 1;
                  return is_env.pid_[is_env.useridx] == is_pid && is_env.useridx == 1 ? 0 : 2;
              }),
              0);
}

// A clean-up cleans up the process it found dead, and nothing else: when another clean-up
// frees the slot meanwhile and a new process takes it, the slot stays the new process's
// (taken for the dead one, a live process lost its slot and, with it, the files it had
// open).
TEST_F(CrashTable, ACleanUpLeavesAloneASlotThatANewProcessTookMeanwhile) {
    ASSERT_EQ(is_init(), 0);
    kill(hold([] {
        ot::become_unattached();
        return is_init();  // the second slot, left dead
    }));
    static pid_t parent, newcomer;
    static std::function<void()> attach_newcomer;
    parent = ::getpid();
    newcomer = 0;
    attach_newcomer = [this] {
        newcomer = hold([] {
            ot::become_unattached();
            return is_init();
        });
    };
    // Between this clean-up's judgement and its work, a new process attaches: its own
    // clean-up frees the dead slot, and it takes it.
    kisam::test_hook = [](int where, int) {
        if (where == kisam::kHookReap && ::getpid() == parent && newcomer == 0) attach_newcomer();
    };
    EXPECT_EQ(kisam_reap(nullptr, 0), 0);
    kisam::test_hook = nullptr;
    ASSERT_GT(newcomer, 0);
    EXPECT_EQ(is_env.pid_[1], newcomer);
    EXPECT_EQ(kisam::isx_proc_of(1)->xp_pid, newcomer);
}

// A new process that finds the table full waits to clean up the first dead slot: here a
// process killed in the middle of a call, whose unit needs the file's control lock to be
// rolled back, while another process holds that lock.
class CrashFullTable : public CrashTable {
protected:
    void SetUp() override {
        CrashTable::SetUp();
        fd_ = create("f", {4});
        ASSERT_GE(fd_, 0);
        ASSERT_EQ(niswrite(fd_, kRec, sizeof kRec), 0);
        // Slot 1: killed in the middle of a call on f, holding f's control lock.
        ASSERT_EQ(kt::run_child([&] {
                      ot::become_unattached();
                      const int cfd = nisopen(f().c_str(), ISO_RDWR);
                      if (cfd < 0) return 1;
                      kisam::test_hook = [](int where, int) {
                          if (where == kisam::kHookTouch) ::raise(SIGKILL);
                      };
                      char rec[sizeof kRec];
                      std::memcpy(rec, kRec, sizeof rec);
                      rec[0] = 'z';
                      niswrite(cfd, rec, sizeof rec);
                      return 2;
                  }),
                  128 + SIGKILL);
        ASSERT_EQ(ot::attached_processes(), 2);
        // This process takes the dead holder's word over as the clean-up does before it
        // rolls back, and keeps it: the unit stays to be rolled back.
        fcp_ = ot::shared_fcp(fd_);
        ASSERT_EQ(is_lock(&fcp_->jd_fcplock), 0);
        ASSERT_TRUE(is_lock_stale);
        jn_note_stale(fcp_, is_lock_stale_pid);
        v_stale_fcplock(fcp_);
    }
    std::string f() const { return path("f"); }

    // Starts a process that attaches, and returns once it waits for a lock.  Its exit
    // status: 0 with a slot of the table, else 10 + the detail of is_init's failure
    // (+ 100 when it printed no message about the table).
    static pid_t attacher(bool give_up) {
        kt::Pipe ready;
        const pid_t pid = kt::start_child([&ready, give_up] {
            ot::become_unattached();
            ready.close_read();
            kt::interrupting_usr1();
            kisam_set_wait_hook(
                [](const struct kisam_wait* w, void* p) {
                    if (w->event == KISAM_WAIT_BEGIN) static_cast<kt::Pipe*>(p)->signal();
                    return 0;
                },
                &ready, give_up ? KISAM_WAIT_GIVE_UP : 0);
            int r = 0;
            const std::string err = kt::capture_output(2, [&] { r = is_init(); });
            if (r == 0) return is_env.useridx == 1 ? 0 : 3;
            const bool said = err.find("cannot be taken over") != std::string::npos;
            return 10 + (kt::stack_code() & 0xFF) + (said ? 0 : 100);
        });
        ready.close_write();
        EXPECT_EQ(ready.wait(), 'x') << "the attacher does not wait";
        return pid;
    }

    int fd_ = -1;
    IS_FCP* fcp_ = nullptr;
};

// The dead slot cannot be cleaned up (the wait for the lock is given up): the table stays
// full, and the failure says so with its own detail and a message, not as a table full
// of live processes.
TEST_F(CrashFullTable, ADeadSlotThatCannotBeCleanedUpIsReported) {
    EXPECT_EQ(kt::interrupt_until_done(attacher(true)), 10 + 15);
    is_unlock(&fcp_->jd_fcplock);
}

// While the new process waits, the holder cleans the dead slot up, as an open or a close
// does: the slot is free when the wait ends, and the new process takes it instead of
// failing with the table full.
TEST_F(CrashFullTable, ASlotCleanedUpByAnotherWhileWaitingIsTaken) {
    const pid_t late = attacher(false);
    int pids[2];
    EXPECT_EQ(kisam_reap(pids, 2), 1);
    is_unlock(&fcp_->jd_fcplock);
    EXPECT_EQ(kt::wait_child(late), 0) << "10 + the detail of is_init's failure";
    // The killed call was rolled back.
    char rec[sizeof kRec] = {};
    EXPECT_EQ(nisfind(fd_, 0, "abcd", rec, sizeof rec), static_cast<int>(sizeof kRec));
    EXPECT_EQ(std::memcmp(rec, kRec, sizeof kRec), 0);
    EXPECT_EQ(nisclose(fd_), 0);
    nisunisam();
    EXPECT_TRUE(kt::sound(f()));
}

// A process killed at any lock call of its attach -- also after it took its slot in the
// process table but before it holds the lock that says it lives -- leaves a slot that
// the next process to attach takes over: with room for two, this one and one more.
TEST_F(CrashTable, KilledAnywhereInItsAttachItLeavesNoSlotBehind) {
    ASSERT_EQ(is_init(), 0);
    int kills = 0;
    for (int n = 1;; ++n) {
        ASSERT_LT(n, 100) << "the attach never gets through";
        const int rc = kt::run_child([n] {
            kt::become_unattached();
            kt::Faults kill;
            kill.arm(kt::Faults::kLock, n, kt::Faults::kKill);
            return is_init() == 0 ? 0 : 1;
        });
        if (rc == 0) break;
        ASSERT_EQ(rc, 128 + SIGKILL) << "lock call " << n;
        ++kills;
        EXPECT_EQ(kt::run_child([] {
                      kt::become_unattached();
                      return is_init() == 0 ? 0 : 1;
                  }),
                  0)
            << "killed at lock call " << n << " of its attach, a process kept its slot";
    }
    EXPECT_GT(kills, 1);
}

}  // namespace

namespace {

// A process that changed a file with the data-changed mark configured and died with it
// open leaves the mark on the disk.  When the last living process leaves, the shared
// area goes with whatever the dead left in it: the file must not then be refused as
// unsound at its next first open.  Pages reach the file only when they are written back
// (here: evicted from a pool smaller than the file), and the mark with the first of
// them; the writers below write until the mark is on the disk.
namespace ko = kt::oracle;
const ko::Layout kL{4, 0, 0};   // one key: the record number

class CrashMarked : public Crash {
protected:
    void SetUp() override {
        kt::Config c;
        c.bits = 0x1;
        c.maxbuf = 6;
        start(c);
        bound(120);
    }
    static bool marked_on_disk(const std::string& f) {
        const std::vector<unsigned char> h = ot::read_head(f);
        return h.size() > 88 && (h[88] & ISO_DIRTYMARK) != 0;
    }
    // Record i: a 4-byte key and enough bytes that a few records fill a page.
    static std::string rec(int i) { return ko::record(kL, i, 0, 600); }
    // Writes records 0, 1, ... on fd until the mark is on the disk of f; their number,
    // or -1.
    static int write_until_marked(int fd, const std::string& f) {
        for (int i = 0; i < 400; ++i) {
            std::string r = rec(i);
            if (niswrite(fd, r.data(), static_cast<int>(r.size())) != 0) return -1;
            if (marked_on_disk(f)) return i + 1;
        }
        return -1;
    }
    // Whether the file holds records 0 .. n-1 as written, and `also` (and the checker
    // finds it sound once it is closed by the caller).
    static ::testing::AssertionResult holds(int fd, int n, ko::Model also = {}) {
        for (int i = 0; i < n; ++i) also[i] = ko::Rec{0, 600};
        const ko::Scan s = ko::scan(fd, kL, 1);
        if (!s.ok()) return ::testing::AssertionFailure() << s.why;
        return ko::same(also, s.recs);
    }
};

TEST_F(CrashMarked, MarkOfADeadWriterIsClearedByTheLastToLeave) {
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisclose(fd), 0);
    int other = create("g", {4});
    ASSERT_GE(other, 0);
    const std::string f = path("f");
    int& n = shared<int>();
    pid_t pid = hold([&] {
        ot::become_unattached();
        int d = nisopen(f.c_str(), ISO_RDWR);
        n = d >= 0 ? write_until_marked(d, f) : -1;
        return n < 0 ? 1 : 0;
    });
    const bool marked = marked_on_disk(f);
    kill(pid);  // before any assertion can end the test: a live holder would outlast it
    ASSERT_TRUE(marked) << "the mark is on the disk";
    ASSERT_EQ(nisclose(other), 0);
    nisunisam();  // the last to leave: the area goes
    EXPECT_FALSE(marked_on_disk(f)) << "the last to leave clears the mark";
    fd = nisopen(f.c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0) << "is_errno " << is_errno;
    EXPECT_TRUE(holds(fd, n)) << "the dead writer's calls are all there";
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_TRUE(kt::sound(f));
}

// A writer killed in its close, at any of the writes and syncs by which the close brings
// the file up to date and clears the mark: the shared copy must go on saying "marked"
// as long as the disk may be, so that the last close clears the disk; and nothing the
// writer's calls made is lost.
TEST_F(CrashMarked, WriterKilledWhileItsCloseClearsTheMark) {
    int kills = 0;
    int& n = shared<int>();
    for (kt::Faults::Kind kind : {kt::Faults::kWrite, kt::Faults::kSync}) {
        for (int at = 1;; ++at) {
            SCOPED_TRACE(std::string(kind == kt::Faults::kWrite ? "write " : "sync ") + std::to_string(at));
            ASSERT_LT(at, 200) << "the close never ends";
            const std::string name = "f" + std::to_string(kind) + "-" + std::to_string(at);
            const std::string f = path(name);
            int fd = create(name, {4});
            ASSERT_GE(fd, 0);
            const std::string r0 = ko::record(kL, 9999, 0, 20);
            ASSERT_EQ(niswrite(fd, r0.data(), 20), 0);
            n = -1;
            const int rc = kt::run_child([&] {
                ot::become_unattached();
                int d = nisopen(f.c_str(), ISO_RDWR);
                if (d < 0) return 20;
                if ((n = write_until_marked(d, f)) < 0) return 21;
                kt::Faults kill;
                kill.arm(kind, at, kt::Faults::kKill);
                nisclose(d);
                return 22;
            });
            ASSERT_GE(n, 0) << "child ended " << rc;
            if (rc != 22) {
                ASSERT_EQ(rc, 128 + SIGKILL);
                ++kills;
                // The copy says "marked" whenever the disk does.
                if (marked_on_disk(f)) {
                    EXPECT_NE(ot::shared_fcp(fd)->is_optbits & ISO_DIRTYMARK, 0) << "the copy forgot the mark";
                }
            }
            EXPECT_TRUE(holds(fd, n, {{9999, ko::Rec{0, 20}}}));
            ASSERT_EQ(nisclose(fd), 0);
            EXPECT_FALSE(marked_on_disk(f)) << "the last close leaves the file clean";
            fd = nisopen(f.c_str(), ISO_RDWR);
            ASSERT_GE(fd, 0) << "is_errno " << is_errno;
            EXPECT_TRUE(holds(fd, n, {{9999, ko::Rec{0, 20}}}));
            ASSERT_EQ(nisclose(fd), 0);
            EXPECT_TRUE(kt::sound(f));
            if (rc == 22) break;
        }
    }
    EXPECT_GT(kills, 0);
    std::printf("[ kills    ] %d in the close\n", kills);
}

}  // namespace
