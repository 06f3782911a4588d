// A process that dies holding a lock (opcl_lock, free_lock, buf_lock, a file's control
// lock, a slot of the process table) never blocks the others for good.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "is_common.h"
#include "is_lock.h"
#include "isx_area.h"
#include "jn.h"
#include "os.h"
#include "test_hook.h"
#include "v_pool.h"

#include <array>
#include <functional>
#include <signal.h>
#include <sys/wait.h>

namespace {

using ot::Env;

class Crash : public Env {
protected:
    void SetUp() override {
        Env::SetUp();
        bound(60);
    }
};

const char kRec[] = "abcd-record";
// kRec under another key.
std::string rec_keyed(char first) { return first + std::string(kRec + 1, sizeof kRec - 1); }

TEST_F(Crash, CommonLockWords) {
    ASSERT_EQ(nisclose(create("f", {4})), 0);
    const std::string f = path("f");
    int round = 0;
    for (auto [name, word] : {std::pair{"opcl_lock", &isam_com->opcl_lock}, std::pair{"free_lock", &isam_com->free_lock},
                              std::pair{"buf_lock", &isam_com->buf_lock}}) {
        for (bool direct : {true, false}) {
            SCOPED_TRACE(std::string(name) + (direct ? ", taken over by a take of it" : ", taken over by the calls"));
            const pid_t pid = hold([&] { return is_chinit() == 0 && is_lock(word) == 0 ? 0 : 1; });
            if (word != &isam_com->buf_lock) {   // (a word taken in memory: no range)
                EXPECT_EQ(is_lockitnw(kisam::com_offset(word)), -1) << "held elsewhere: refused at once";
            }
            kill(pid);
            EXPECT_EQ(*word, static_cast<uint32_t>(pid)) << "the word still names the dead holder";
            if (!direct) {
                // Open and close, a record lock and a write needing a fresh buffer get through.
                const int fd = nisopen(f.c_str(), ISO_RDWR);
                ASSERT_GE(fd, 0) << is_errno;
                EXPECT_EQ(nislock(fd, "k", 1, 1), 0);
                const std::string rec = rec_keyed(static_cast<char>('a' + round++));
                EXPECT_EQ(niswrite(fd, rec.data(), sizeof kRec), 0) << is_errno;
                EXPECT_EQ(nisclose(fd), 0);
                EXPECT_NE(*word, static_cast<uint32_t>(pid));
            }
            // Taken over once (said so to the taker): the next take finds it free.
            for (int stale : {direct ? 1 : 0, 0}) {
                ASSERT_EQ(is_lock(word), 0);
                EXPECT_EQ(is_lock_stale, stale);
                EXPECT_EQ(*word, static_cast<uint32_t>(is_pid));
                is_unlock(word);
            }
        }
    }
}

// A rollback puts the shared control page back, but never its count of processes: an
// open made during the call must survive it.
kt::Pipe *g_inside = nullptr, *g_resume = nullptr;
kt::Faults* g_faults = nullptr;
TEST_F(Crash, ARollbackKeepsAnOpenMadeDuringTheCall) {
    const int fd = create("f", {4});
    ASSERT_EQ(niswrite(fd, kRec, sizeof kRec), 0);
    kt::Pipe inside, resume, opened, go;
    g_inside = &inside;
    g_resume = &resume;
    const pid_t writer = kt::start_child([&] {
        if (is_chinit() != 0) return 1;
        {
            kt::Faults faults;
            g_faults = &faults;
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

class CrashTable : public Env {
protected:
    void SetUp() override {
        kt::Config c;
        c.maxusers = 2;
        start(c);
        bound(60);
    }
};

// A clean-up must not free a slot a new process took after its judgement.
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
    kisam::test_hook = [](int where, int) {
        if (where == kisam::kHookReap && ::getpid() == parent && newcomer == 0) attach_newcomer();
    };
    EXPECT_EQ(kisam_reap(nullptr, 0), 0);
    kisam::test_hook = nullptr;
    ASSERT_GT(newcomer, 0);
    EXPECT_EQ(is_env.pid_[1], newcomer);
    EXPECT_EQ(kisam::isx_proc_of(1)->xp_pid, newcomer);
}

// An attacher, once waiting for a lock.  Exit 0 with the second slot, else 10 + is_init's
// detail (+ 100 when it printed nothing about the table).
pid_t attacher(bool give_up) {
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

// A newcomer finding the table full waits to clean up the dead slot, whose unit needs the
// control lock this process took over and keeps: one that gives up the wait is told why
// (detail 15 and a message); one that waits takes the slot once another cleaned it up.
using CrashFullTable = CrashTable;
TEST_F(CrashFullTable, ADeadSlotWhoseCleanUpWaitsIsReportedOrTakenOnceAnotherCleansItUp) {
    const int fd = create("f", {4});
    ASSERT_EQ(niswrite(fd, kRec, sizeof kRec), 0);
    ASSERT_EQ(kt::run_child([&] {
                  ot::become_unattached();
                  const int cfd = nisopen(path("f").c_str(), ISO_RDWR);
                  if (cfd < 0) return 1;
                  kisam::test_hook = [](int where, int) {
                      if (where == kisam::kHookTouch) ::raise(SIGKILL);
                  };
                  niswrite(cfd, rec_keyed('z').data(), sizeof kRec);
                  return 2;
              }),
              128 + SIGKILL);
    ASSERT_EQ(ot::attached_processes(), 2);
    // Taken over as the clean-up does before it rolls back, and kept.
    IS_FCP* fcp = ot::shared_fcp(fd);
    ASSERT_EQ(is_lock(&fcp->jd_fcplock), 0);
    ASSERT_TRUE(is_lock_stale);
    jn_note_stale(fcp, is_lock_stale_pid);
    v_stale_fcplock(fcp);

    EXPECT_EQ(kt::interrupt_until_done(attacher(true)), 10 + 15);
    const pid_t late = attacher(false);
    int pids[2];
    EXPECT_EQ(kisam_reap(pids, 2), 1);
    is_unlock(&fcp->jd_fcplock);
    EXPECT_EQ(kt::wait_child(late), 0) << "10 + the detail of is_init's failure";
    char rec[sizeof kRec] = {};
    EXPECT_EQ(nisfind(fd, 0, "abcd", rec, sizeof rec), static_cast<int>(sizeof kRec));
    EXPECT_EQ(std::memcmp(rec, kRec, sizeof kRec), 0);
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_TRUE(kt::sound(path("f")));
}

// In a child: a write of kRec keyed 'z' to file f, killed at the store of its log record
// (its commit), so that a rollback must void the record.  Ends by SIGKILL, else 1 + slot.
int die_at_log_store(const std::string& f) {
    ot::become_unattached();
    const int fd = nisopen(f.c_str(), ISO_RDWR);
    kisam::os.mstore = [](int d, char* m, off_t o, const void* b, size_t n) {
        if (kt::is_log_fd(d)) ::raise(SIGKILL);
        return kisam::os_real.mstore(d, m, o, b, n);
    };
    kisam::os.pwrite = [](int d, const void* b, size_t n, off_t o) {
        if (kt::is_log_fd(d)) ::raise(SIGKILL);
        return kisam::os_real.pwrite(d, b, n, o);
    };
    if (fd >= 0) niswrite(fd, rec_keyed('z').data(), sizeof kRec);
    return 1 + is_env.useridx;
}

// A process killed at the store of its call's log record, whose rollback then fails (the
// disk refuses the write that voids the record): a newcomer finding the table full, or a
// forked child, is told which process holds the slot and why; the file's next call
// settles the rollback, and the slot is then taken.
TEST_F(CrashFullTable, ADeadSlotWhoseRollbackFailsIsNamedUntilTheFilesNextCallSettlesIt) {
    const int fd = create("f", {4});
    ASSERT_EQ(niswrite(fd, kRec, sizeof kRec), 0);
    const pid_t dead = kt::start_child([&] { return die_at_log_store(path("f")); });
    ASSERT_EQ(kt::wait_child(dead), 128 + SIGKILL);
    const std::string head = "kisam: the process table is full; the slot of process " + std::to_string(dead) +
                             ", which died, cannot be taken over until its last call is rolled back: ";
    char* said = &shared<std::array<char, 600>>()[0];
    for (bool fork_child : {false, true}) {   // a new process, and a forked child (is_chinit)
        const int rc = kt::run_child([said, fork_child] {
            if (!fork_child) ot::become_unattached();
            kt::Faults disk;
            disk.arm(kt::Faults::kWrite, 1, kt::Faults::kFromThenOn, EIO);
            int r = 0;
            std::snprintf(said, 600, "%s", kt::capture_output(2, [&] { r = fork_child ? is_chinit() : is_init(); }).c_str());
            return r == 0 ? 1 : kt::stack_code() & 0xFF;
        });
        EXPECT_EQ(rc, 15) << fork_child;
        EXPECT_EQ(std::string(said).substr(0, head.size()), head) << said;
        const std::string why = std::string(said).substr(std::min(head.size(), std::strlen(said)));
        EXPECT_TRUE(why.find("ISE_FLWT") == 0 && why.find("Input/output error") != std::string::npos) << "why: " << why;
    }
    const uint32_t& undo = kisam::isx_file_of(is_db[fd]->uniqueid)->xf_undo;
    EXPECT_EQ(undo, 2u) << "the rollback of slot 1 is pending";
    char rec[sizeof kRec] = {};
    EXPECT_EQ(nisfind(fd, 0, "zbcd", rec, sizeof rec), 0) << "the dead call is rolled back";
    EXPECT_EQ(undo, 0u) << "by this process's call";
    EXPECT_EQ(nisfind(fd, 0, "abcd", rec, sizeof rec), static_cast<int>(sizeof kRec));
    EXPECT_EQ(kt::run_child([] { return ot::become_unattached(), is_init() == 0 && is_env.useridx == 1 ? 0 : 1; }), 0);
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_TRUE(kt::sound(path("f")));
}

// A dead slot whose rollback fails, then cleaned up and taken by another process while
// the newcomer cleans up the next: the table, now full of live processes, is reported
// full (detail 5), not stuck on a process whose slot is no longer there.
kt::Pipe *g_at_reap = nullptr, *g_go = nullptr;
TEST_F(CrashFullTable, ASlotTakenOverWhileTheNewcomerLooksIsNoLongerReportedStuck) {
    kt::Config three;
    three.maxusers = 3;
    start(three);
    const int fd = create("f", {4});
    ASSERT_EQ(niswrite(fd, kRec, sizeof kRec), 0);
    // Every attach cleans the dead up: slot 2's process stays alive until slot 1's died.
    auto attach = [] { return ot::become_unattached(), is_init(); };
    const pid_t first = hold(attach), second = hold(attach);
    kill(first);
    ASSERT_EQ(kt::run_child([&] { return die_at_log_store(path("f")); }), 128 + SIGKILL);   // in slot 1
    kill(second);   // slot 2: dead, nothing to roll back
    kt::Pipe at_reap, go;
    g_at_reap = &at_reap;
    g_go = &go;
    const pid_t newcomer = kt::start_child([] {
        ot::become_unattached();
        kisam::test_hook = [](int where, int u) {
            if (where != kisam::kHookReap || u != 2) return;
            g_at_reap->signal();
            g_go->wait();
        };
        kt::Faults disk;   // slot 1's rollback fails here
        disk.arm(kt::Faults::kWrite, 1, kt::Faults::kFromThenOn, EIO);
        int r = 0;
        const std::string err = kt::capture_output(2, [&] { r = is_init(); });
        return r == 0 ? 1 : (kt::stack_code() & 0xFF) + (err.empty() ? 0 : 100);
    });
    at_reap.close_write();
    ASSERT_EQ(at_reap.wait(), 'x');
    hold([] { return is_chinit(); });   // rolls slot 1's call back, and takes the slot
    hold([] { return is_chinit(); });   // cleans slot 2 and takes it
    go.signal();
    EXPECT_EQ(kt::wait_child(newcomer), 5) << "5: full; 15 or more: reported stuck";
}

// A full table refuses a newcomer until a slot's process dies; killed at any lock call of
// its attach, a process leaves no slot behind either: the next takes the last slot.
TEST_F(CrashTable, KilledAnywhereInItsAttachItLeavesNoSlotBehind) {
    ASSERT_EQ(is_init(), 0);
    const pid_t holder = hold([] { return is_init(); });   // the second and last slot
    EXPECT_EQ(kt::run_child([] { return is_init() == -1 && is_errno == ISE_INITERR ? 0 : 1; }), 0) << "the table is full";
    kill(holder);
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
        EXPECT_EQ(kt::run_child([] { return kt::become_unattached(), is_init() == 0 && is_env.pid_[1] == is_pid ? 0 : 1; }), 0)
            << "killed at lock call " << n << " of its attach, a process kept its slot";
    }
    EXPECT_GT(kills, 1);
}

// A writer that died with the data-changed mark on disk: the last to leave clears it, and
// the file is not refused at its next first open.  The pool is smaller than the file, so
// pages (and with the first the mark) reach the disk.
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
    // Records 0, 1, ... until the mark is on disk; their number, or -1.
    static int write_until_marked(int fd, const std::string& f) {
        for (int i = 0; i < 400; ++i) {
            if (niswrite(fd, ko::record(kL, i, 0, 600).data(), 600) != 0) return -1;
            if (marked_on_disk(f)) return i + 1;
        }
        return -1;
    }
    // Records 0 .. n-1 as written, and `also`.
    static ::testing::AssertionResult holds(int fd, int n, ko::Model also = {}) {
        for (int i = 0; i < n; ++i) also[i] = ko::Rec{0, 600};
        const ko::Scan s = ko::scan(fd, kL, 1);
        return s.ok() ? ko::same(also, s.recs) : ::testing::AssertionFailure() << s.why;
    }
    // Left by its last user: the disk is clean and, opened again, the file holds records
    // 0 .. n-1 and `also`, and is sound.
    static void left_clean(const std::string& f, int n, const ko::Model& also = {}) {
        EXPECT_FALSE(marked_on_disk(f)) << "the last to leave clears the mark";
        const int fd = nisopen(f.c_str(), ISO_RDWR);
        ASSERT_GE(fd, 0) << "is_errno " << is_errno;
        EXPECT_TRUE(holds(fd, n, also)) << "the dead writer's calls are all there";
        ASSERT_EQ(nisclose(fd), 0);
        EXPECT_TRUE(kt::sound(f));
    }
};

TEST_F(CrashMarked, MarkOfADeadWriterIsClearedByTheLastToLeave) {
    const std::string f = made("f", {4});
    const int other = create("g", {4});
    ASSERT_GE(other, 0);
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
    left_clean(f, n);
}

// A writer killed at any write or sync of its close: the shared copy says "marked" while
// the disk may be, the last close clears the disk, and nothing is lost.
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
            ASSERT_EQ(niswrite(fd, ko::record(kL, 9999, 0, 20).data(), 20), 0);
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
                if (marked_on_disk(f)) { EXPECT_NE(ot::shared_fcp(fd)->is_optbits & ISO_DIRTYMARK, 0) << "the copy forgot the mark"; }
            }
            const ko::Model also{{9999, ko::Rec{0, 20}}};
            EXPECT_TRUE(holds(fd, n, also));
            ASSERT_EQ(nisclose(fd), 0);
            left_clean(f, n, also);
            if (rc == 22) break;
        }
    }
    EXPECT_GT(kills, 0);
    std::printf("[ kills    ] %d in the close\n", kills);
}

}  // namespace
