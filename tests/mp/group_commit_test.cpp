// Group commit of durable calls when a process that syncs for the others goes away part
// way: killed inside its sync (the others must not wait for it forever, nor take a
// sync it never finished for done), or leaving the call by a signal handler's jump
// (its next call gives the sync up).  Real processes, real shared memory.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "isx_area.h"
#include "kcheck.h"
#include "os.h"

#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

namespace ko = kt::oracle;
const ko::Layout kL{8, 0, 0};   // one key: the id

int put(int fd, int id) { return niswrite(fd, ko::record(kL, id, 0, 40).data(), 40); }
bool present(int fd, int id) { return ko::find(fd, kL, id) == ko::Rec{0, 40}; }
using kt::Durable;

class GroupCommit : public ot::Env {
protected:
    std::string make_file() {
        int fd = create("g", {8});
        EXPECT_GE(fd, 0);
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
        return path("g");
    }
};

// The process that syncs for the group is killed inside its sync, again and again: the
// others find its slot given up by a dead process and sync themselves; every call that
// returned is in the file.  The killed writers are reaped only after the others ended,
// so that a dead one is still a process (a zombie) while they wait.
constexpr int kWriters = 3, kCalls = 100;
struct Shared {
    std::atomic<int> returned[kWriters];
    std::atomic<int> syncs;
};
Shared* g_shared = nullptr;
int dying_sync(int fd) {
    // Every 20th sync of the installation kills its maker before it reaches the disk.
    if (g_shared->syncs.fetch_add(1) % 20 == 19) ::kill(::getpid(), SIGKILL);
    return kisam::os_real.fdatasync(fd);
}

TEST_F(GroupCommit, LeaderKilledInsideItsSync) {
    const std::string file = make_file();
    g_shared = &shared<Shared>();
    Durable d;
    // Writer w writes ids w * 10000 + i in rounds; a round's writers that die are
    // replaced by new ones that go on from where the dead one's returned calls ended.
    int next[kWriters] = {};
    int rounds = 0, killed = 0;
    while (rounds < 80) {
        bool all_done = true;
        for (int w = 0; w < kWriters; ++w) all_done = all_done && next[w] >= kCalls;
        if (all_done) break;
        ++rounds;
        kt::Pipe go;
        pid_t kids[kWriters];
        for (int w = 0; w < kWriters; ++w) {
            const int from = next[w];
            kids[w] = kt::start_child([&, w, from] {
                go.close_write();
                ::alarm(60);  // a writer that waits forever for a dead one fails, not hangs
                int fd = nisopen(file.c_str(), ISO_RDWR);
                if (fd < 0) return 1;
                if (go.wait() != 'x') return 2;
                kisam::os.fdatasync = dying_sync;
                for (int i = from; i < kCalls; ++i) {
                    // A killed writer's last call may have committed without returning: the
                    // record is there already.
                    const int r = put(fd, w * 10000 + i);
                    if (r != 0 && !(r == 1 && i == from)) return 3;
                    g_shared->returned[w].store(i + 1);
                }
                kisam::os.fdatasync = kisam::os_real.fdatasync;
                nisclose(fd);
                nisunisam();
                return 0;
            });
        }
        go.close_read();
        for (int w = 0; w < kWriters; ++w) go.signal();
        // Every writer ends, by itself or killed, before any is reaped: a killed one
        // stays a process (a zombie) while the others wait.
        for (int w = 0; w < kWriters; ++w) {
            siginfo_t si{};
            ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(kids[w]), &si, WEXITED | WNOWAIT), 0);
        }
        int status[kWriters];
        for (int w = 0; w < kWriters; ++w) status[w] = kt::wait_child(kids[w]);
        for (int w = 0; w < kWriters; ++w) {
            ASSERT_TRUE(status[w] == 0 || status[w] == 128 + SIGKILL) << "writer " << w << " status " << status[w];
            if (status[w] != 0) ++killed;
            next[w] = g_shared->returned[w].load();
        }
    }
    EXPECT_GT(killed, 0) << "no sync was cut short by a kill";
    for (int w = 0; w < kWriters; ++w) EXPECT_EQ(next[w], kCalls) << "writer " << w << " never finished";
    int fd = nisopen(file.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    for (int w = 0; w < kWriters; ++w)
        for (int i = 0; i < next[w]; ++i) EXPECT_TRUE(present(fd, w * 10000 + i)) << w << " " << i;
    EXPECT_EQ(nisclose(fd), 0);
    for (int u = 0; isx_area && u < isam_com->maxopen; ++u)
        for (int i = 0; i < ISX_SYNC_SLOTS; ++i) EXPECT_EQ(kisam::isx_sync_of(u)->xs_lead[i], 0u);
}

// A signal handler jumps out of a durable call while the call syncs for the group: the
// sync it took is given up when the process's next call begins.
sigjmp_buf g_jump;
bool g_jump_now = false;
void on_usr1(int) { siglongjmp(g_jump, 1); }
int jumping_sync(int fd) {
    if (g_jump_now) {
        g_jump_now = false;
        ::raise(SIGUSR1);
    }
    return kisam::os_real.fdatasync(fd);
}

TEST_F(GroupCommit, SyncLeftByAJumpIsGivenUp) {
    const std::string file = make_file();
    Durable d;
    int fd = nisopen(file.c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(put(fd, 1), 0);
    struct sigaction sa {};
    sa.sa_handler = on_usr1;
    ASSERT_EQ(::sigaction(SIGUSR1, &sa, nullptr), 0);
    kisam::os.fdatasync = jumping_sync;
    g_jump_now = true;
    if (sigsetjmp(g_jump, 1) == 0) {
        put(fd, 2);
        ADD_FAILURE() << "the call was not left";
    }
    kisam::os.fdatasync = kisam::os_real.fdatasync;
    signal(SIGUSR1, SIG_DFL);
    // The jump left the sync slot taken by this process.
    int taken = 0;
    for (int u = 0; u < isam_com->maxopen; ++u)
        for (int i = 0; i < ISX_SYNC_SLOTS; ++i) taken += kisam::isx_sync_of(u)->xs_lead[i] != 0;
    ASSERT_EQ(taken, 1);
    // Its next call gives it up.
    EXPECT_TRUE(present(fd, 1));
    for (int u = 0; u < isam_com->maxopen; ++u)
        for (int i = 0; i < ISX_SYNC_SLOTS; ++i) EXPECT_EQ(kisam::isx_sync_of(u)->xs_lead[i], 0u);
    // The call that was left had committed: it is in the file, and durable calls go on.
    EXPECT_TRUE(present(fd, 2));
    ASSERT_EQ(put(fd, 4), 0) << is_errno;
    EXPECT_EQ(kisam_sync(), 0);
    EXPECT_TRUE(present(fd, 4));
    EXPECT_EQ(nisclose(fd), 0);
}

}  // namespace
