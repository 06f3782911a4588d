// The redo log as a program sees it: kisam_sync, durable mode, group commit, the replay
// by a segment made anew, and logs cut short under their writers.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "isx_area.h"
#include "kcheck.h"
#include "os.h"
#include "test_hook.h"

#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

namespace ko = kt::oracle;
const ko::Layout kL{8, 2, 0};   // key 0 the id; then the generation (no key of the files)

std::string rec(int id, int gen = 0) { return ko::record(kL, id, gen, 48); }
int put(int fd, int id, int gen = 0) { return niswrite(fd, rec(id, gen).data(), 48); }
// 0: there as put; 1: absent; 2: something else.
int look(int fd, int id, int gen = 0) {
    const ko::Rec r = ko::find(fd, kL, id);
    return r == ko::Rec{gen, 48} ? 0 : r.gen == -1 ? 1 : 2;
}

// How many of the n records from id `from` on the file holds; they must be a prefix.
int held_prefix(int fd, int from, int n) {
    int k = 0;
    while (k < n && look(fd, from + k) == 0) ++k;
    for (int j = k; j < n; ++j) EXPECT_EQ(look(fd, from + j), 1) << "not a prefix at " << j;
    return k;
}
// look() of the n records from `from` on (each there or absent); *last: the last there.
std::vector<int> looked(int fd, int from, int n, int* last) {
    std::vector<int> at(n);
    for (int j = 0; j < n; ++j) {
        at[j] = look(fd, from + j);
        EXPECT_NE(at[j], 2) << j;
        if (at[j] == 0) *last = j;
    }
    return at;
}
int syncs() { return kt::Faults::calls(kt::Faults::kSync); }
void close_sound(int fd, const std::string& file) {
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_TRUE(kt::sound(file));
}

using kt::Durable;

class LogEnv : public ot::Env {
protected:
    // Attached again (the segment made anew when `killed`, so the attach replays the
    // logs), the file open for writing; -1 with a failure.
    int replayed(const std::string& file, bool killed = true) {
        if (killed) inst_->remove_segment();
        if (is_init() != 0) {
            ADD_FAILURE() << "attach: " << is_errno;
            return -1;
        }
        const int fd = nisopen(file.c_str(), ISO_RDWR);
        if (fd < 0) ADD_FAILURE() << "open: " << is_errno;
        return fd;
    }
};

class Log : public LogEnv {};

// Fails the next sync: `call` must fail by it.
void sync_fails(kt::Faults& f, const std::function<int()>& call) {
    f.arm(kt::Faults::kSync, 1, kt::Faults::kOnce);
    EXPECT_EQ(call(), -1);
    EXPECT_TRUE(kt::Faults::hit());
    f.disarm();
}

// KISAM_DURABLE=1: one sync per changing call, none per read.  The default mode (=0)
// syncs only at kisam_sync, once and only for what is new; a failed sync is not taken
// for done.
TEST_F(Log, SyncsComeAtEveryDurableChangeOrAtKisamSync) {
    {
        Durable d("1");
        const int fd = create("f", {8});
        ASSERT_GE(fd, 0) << is_errno;
        kt::Faults f;
        for (int i = 0; i < 5; ++i) ASSERT_EQ(put(fd, i), 0);
        EXPECT_EQ(syncs(), 5);
        ASSERT_EQ(nisupdate(fd, rec(2, 1).data(), 48), 0);
        ASSERT_EQ(nisdelete(fd, rec(3).data()), 0);
        EXPECT_EQ(syncs(), 7);
        EXPECT_TRUE(look(fd, 1) == 0 && look(fd, 2, 1) == 0);
        EXPECT_EQ(syncs(), 7) << "a read synced";
        // The sync after the commit fails: the call says so, though its change stands.
        sync_fails(f, [&] { return put(fd, 9); });
        EXPECT_EQ(look(fd, 9), 0);
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
    }
    Durable d("0");
    const int fd = nisopen(path("f").c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0) << is_errno;
    kt::Faults f;
    for (int i = 10; i < 15; ++i) ASSERT_EQ(put(fd, i), 0);
    EXPECT_EQ(syncs(), 0) << "a call of the default mode waited for the disk";
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(kisam_sync(), 0);
        EXPECT_EQ(syncs(), 1) << "nothing new since the last sync";
    }
    ASSERT_EQ(put(fd, 15), 0);
    sync_fails(f, kisam_sync);
    ASSERT_EQ(kisam_sync(), 0);
    EXPECT_EQ(syncs(), 1) << "the failed sync counted as done";
    EXPECT_EQ(look(fd, 15), 0);
    EXPECT_EQ(nisclose(fd), 0);
}

// After a failed sync (a durable call's, or a checkpoint's new log header) the kernel may
// drop the pages it failed to write: the next syncs must write them again.  With the
// cache keeping or losing them, every call that returned survives a kill.
// The next write of the log's header (1) or of one of its records (2) fails.
int g_rewrite = 0;
ssize_t failing_rewrite(int fd, const void* b, size_t n, off_t off) {
    if (g_rewrite && kt::is_log_fd(fd) && n < 65536 && (g_rewrite == 1) == (off < 1024)) {
        g_rewrite = 0;
        errno = EIO;
        return -1;
    }
    return kisam::os_real.pwrite(fd, b, n, off);
}

// ... and when the next sync cannot write the log again (rewrite), its call fails alone.
TEST_F(Log, AFailedSyncOfTheLogIsNeverTakenForDoneByTheNext) {
    bound(120);
    const std::string file = made("f", {8});
    const std::string log = lock() + ".w0";
    constexpr int kBefore = 10, kAfter = 20;
    struct Out {
        int failed, code;      // the call whose sync failed: its result and error
        int ok[kAfter];        // the calls after it: 1 when one returned 0
    };
    Out* out = &shared<Out>();
    int base = 0;
    struct Case {
        bool header, lost;
        int rewrite;  // g_rewrite for the sync after the failed one
    };
    for (const Case c : {Case{false, false, 0}, Case{false, true, 0}, Case{true, false, 0}, Case{true, true, 0},
                         Case{false, false, 1}, Case{false, false, 2}, Case{true, true, 1}}) {
        const bool header = c.header, lost = c.lost;
        SCOPED_TRACE(std::string(header ? "the header's sync failed" : "a call's sync failed") +
                     (lost ? ", the cache lost what it carried" : ", the cache kept it") +
                     (c.rewrite == 1 ? ", its header not written again at once" :
                      c.rewrite == 2 ? ", a record not written again at once" : ""));
        base += 1000;
        *out = Out{};
        Durable d("1");
        const int st = kt::run_child([&] {
            const int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            for (int i = 0; i < kBefore; ++i)
                if (put(fd, base + i) != 0) return 2;
            std::string was = kt::slurp(log);
            if (was.size() < 4096) return 3;
            if (header) was.resize(1024);
            {
                // A checkpoint syncs the file, then the new header.
                kt::Faults f;
                f.arm(kt::Faults::kSync, header ? 2 : 1, kt::Faults::kOnce);
                if (header) {
                    if (kt::write_back(fd) != -1) return 4;
                } else {
                    out->failed = put(fd, base + kBefore);
                    out->code = is_errno;
                }
                if (!kt::Faults::hit()) return 5;
            }
            if (header && kt::slurp(log).substr(0, 1024) == was) return 6;  // the header was written
            if (lost) {
                const int l = ::open(log.c_str(), O_WRONLY);
                if (l < 0 || ::pwrite(l, was.data(), was.size(), 0) != static_cast<ssize_t>(was.size())) return 7;
                ::close(l);
            }
            const int first = base + kBefore + (header ? 0 : 1);
            g_rewrite = c.rewrite;
            kisam::os.pwrite = failing_rewrite;
            for (int k = 0; k < kAfter; ++k) out->ok[k] = put(fd, first + k) == 0;
            if (g_rewrite != 0) return 9;  // the log was not written again
            ::raise(SIGKILL);  // nothing reaches the file but through the log's replay
            return 8;
        });
        ASSERT_EQ(st, 128 + SIGKILL);
        if (!header) {
            EXPECT_EQ(out->failed, -1) << "a durable call whose sync failed returned";
            EXPECT_EQ(out->code, ISE_FLWT);
        }
        const int fd = replayed(file);
        ASSERT_GE(fd, 0);
        // Every call is there: those that said they were on disk, and what the failed
        // sync carried (the failed call, when it was one).
        const int all = kBefore + (header ? 0 : 1) + kAfter;
        EXPECT_EQ(held_prefix(fd, base, all), all) << "a call was lost after the failed sync";
        EXPECT_GE(std::count(out->ok, out->ok + kAfter, 1), kAfter - 1) << "calls still fail after the loss";
        close_sound(fd, file);
    }
}

// ---- the log written through a mapping, and without one ----------------------------------

struct Paths {
    std::atomic<int> written;   // records of the unmapped process that went by pwrite
    std::atomic<int> stored;    // stores of the mapped process through its mapping
};
Paths* g_paths = nullptr;
void* no_map(int, size_t) {
    errno = ENOMEM;
    return MAP_FAILED;
}
ssize_t counted_pwrite(int fd, const void* b, size_t n, off_t off) {
    // Records only: not the zeros written ahead nor the header.
    if (off >= 1024 && n < 65536 && kt::is_log_fd(fd)) g_paths->written.fetch_add(1);
    return kisam::os_real.pwrite(fd, b, n, off);
}
int counted_mstore(int fd, char* map, off_t off, const void* src, size_t n) {
    g_paths->stored.fetch_add(1);
    return kisam::os_real.mstore(fd, map, off, src, n);
}

// The replay's writes and syncs, of the data file ('d') and the logs ('l'), in order.
std::vector<std::string>* g_calls = nullptr;
std::string g_data;
char kind_of(int fd) { return kt::fd_path(fd) == g_data ? 'd' : kt::is_log_fd(fd) ? 'l' : '?'; }
ssize_t noted_pwrite(int fd, const void* b, size_t n, off_t off) {
    const char k = kind_of(fd);
    if (k != '?') g_calls->push_back(std::string(1, k) + (k == 'l' && off < 1024 ? "-head" : "-write"));
    return kisam::os_real.pwrite(fd, b, n, off);
}
int noted_sync(int fd) {
    const char k = kind_of(fd);
    if (k != '?') g_calls->push_back(std::string(1, k) + "-sync");
    return kisam::os_real.fdatasync(fd);
}

// A mapped and an unmapped writer killed, the segment removed: the next attach replays
// both kinds of record as one log, once, and syncs the file before it starts the log anew
// (else a power cut between the two loses the calls).
TEST_F(Log, RecordsStoredThroughTheMappingAndWrittenWithPwriteReplayAsOneLog) {
    constexpr int kEach = 120;
    const std::string file = made("f", {8});
    const std::string real = kt::real_path(file);
    ASSERT_NE(real, "");
    g_paths = &shared<Paths>();
    auto size_of = [](int k, int i) { return 48 + (k * 7 + i * 131) % 1900; };
    pid_t kids[2];
    for (int k = 0; k < 2; ++k)
        kids[k] = hold([&, k] {
            if (k == 0) {
                kisam::os.mmap = no_map;
                kisam::os.pwrite = counted_pwrite;
            } else {
                kisam::os.mstore = counted_mstore;
            }
            int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            for (int i = 0; i < kEach; ++i) {
                const int id = k * 1000 + i % 80, gen = i / 80, n = size_of(k, i);
                const std::string r = ko::record(kL, id, gen, n);
                if ((gen == 0 ? niswrite(fd, r.data(), n) : nisupdate(fd, r.data(), n)) != 0) return 2;
            }
            return 0;
        });
    for (pid_t k : kids) kill(k);
    inst_->remove_segment();
    EXPECT_GE(g_paths->written.load(), kEach) << "the unmapped process wrote no records with pwrite";
    EXPECT_GE(g_paths->stored.load(), kEach) << "the mapped process stored no records through its mapping";
    std::vector<std::string> calls;
    g_calls = &calls;
    g_data = real;
    kisam::os.pwrite = noted_pwrite;
    kisam::os.fdatasync = noted_sync;
    const int rc = is_init();
    kisam::os = kisam::os_real;
    ASSERT_EQ(rc, 0) << is_errno;
    struct kisam_recovery r;
    ASSERT_EQ(kisam_last_recovery(&r), 0);
    EXPECT_EQ(r.self, 1);
    EXPECT_EQ(r.logs, 1);
    EXPECT_EQ(r.calls, static_cast<uint32_t>(2 * kEach)) << "the replay stopped early";
    EXPECT_GT(r.pages, 0);
    std::string seq;
    for (const std::string& c : calls) seq += c + " ";
    const auto last_write = std::find(calls.rbegin(), calls.rend(), "d-write");
    const auto head = std::find(calls.begin(), calls.end(), "l-head");
    ASSERT_NE(last_write, calls.rend()) << seq;
    ASSERT_NE(head, calls.end()) << "the log was not started anew: " << seq;
    const auto synced = std::find(last_write.base(), calls.end(), "d-sync");
    EXPECT_TRUE(synced != calls.end() && synced < head) << "the log started anew before the file was on disk: " << seq;
    EXPECT_TRUE(std::find(head, calls.end(), "l-sync") != calls.end()) << seq;
    EXPECT_TRUE(kt::sound(file));
    EXPECT_EQ(kisam::check::check_file(file).records, 2 * 80);
    int fd = nisopen(file.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    for (int k = 0; k < 2; ++k)
        for (int i = kEach - 80; i < kEach; ++i)
            EXPECT_EQ(ko::find(fd, kL, k * 1000 + i % 80), (ko::Rec{i / 80, size_of(k, i)})) << k << " " << i;
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    ASSERT_EQ(is_init(), 0);
    ASSERT_EQ(kisam_last_recovery(&r), 0);
    EXPECT_EQ(r.self, 0);
    EXPECT_EQ(r.logs, 0) << "replayed twice";
}

// ---- group commit when the process that syncs for the others goes away -----------------

class GroupCommit : public LogEnv {};

// Sync slots taken, over every file.
int sync_leads() {
    int n = 0;
    for (int u = 0; isx_area && u < isam_com->maxopen; ++u)
        for (int i = 0; i < ISX_SYNC_SLOTS; ++i) n += kisam::isx_sync_of(u)->xs_lead[i] != 0;
    return n;
}

// Durable writers share syncs (2 ms each); every 20th sync kills its maker, which stays
// a zombie until the round ends: the others go on, and every call that returned is there.
constexpr int kWriters = 3, kCalls = 100;
struct Shared {
    std::atomic<int> returned[kWriters];
    std::atomic<int> syncs;
};
Shared* g_shared = nullptr;
int dying_sync(int fd) {
    if (g_shared->syncs.fetch_add(1) % 20 == 19) ::kill(::getpid(), SIGKILL);
    ::usleep(2000);
    return kisam::os_real.fdatasync(fd);
}

TEST_F(GroupCommit, LeaderKilledInsideItsSync) {
    const std::string file = made("g", {8});
    g_shared = &shared<Shared>();
    Durable d;
    // Writer w writes ids w * 10000 + i; a dead one's successor goes on where it left.
    int next[kWriters] = {};
    int killed = 0;
    auto unfinished = [&](int n) { return n < kCalls; };
    for (int rounds = 0; rounds < 80 && std::any_of(next, next + kWriters, unfinished); ++rounds) {
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
                    // A killed writer's last call may have committed unreturned.
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
        // None reaped before all ended: a killed one stays a zombie meanwhile.
        for (int w = 0; w < kWriters; ++w) {
            siginfo_t si{};
            ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(kids[w]), &si, WEXITED | WNOWAIT), 0);
        }
        for (int w = 0; w < kWriters; ++w) {
            const int status = kt::wait_child(kids[w]);
            ASSERT_TRUE(status == 0 || status == 128 + SIGKILL) << "writer " << w << " status " << status;
            killed += status != 0;
            next[w] = g_shared->returned[w].load();
        }
    }
    EXPECT_GT(killed, 0) << "no sync was cut short by a kill";
    std::printf("%d durable calls, %d syncs\n", kWriters * kCalls, g_shared->syncs.load());
    EXPECT_LT(g_shared->syncs.load(), kWriters * kCalls) << "no sync was shared";
    for (int w = 0; w < kWriters; ++w) EXPECT_EQ(next[w], kCalls) << "writer " << w << " never finished";
    int fd = nisopen(file.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    for (int w = 0; w < kWriters; ++w) EXPECT_EQ(held_prefix(fd, w * 10000, next[w]), next[w]) << "writer " << w;
    EXPECT_EQ(nisclose(fd), 0);
    EXPECT_EQ(sync_leads(), 0);
}

// A jump out of a durable call's group sync: the next call gives the slot up.
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
    const std::string file = made("g", {8});
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
    ASSERT_EQ(sync_leads(), 1) << "the jump left the sync slot taken by this process";
    EXPECT_EQ(look(fd, 1), 0);
    EXPECT_EQ(sync_leads(), 0);
    EXPECT_EQ(look(fd, 2), 0);
    ASSERT_EQ(put(fd, 4), 0) << is_errno;
    EXPECT_EQ(kisam_sync(), 0);
    EXPECT_EQ(look(fd, 4), 0);
    EXPECT_EQ(nisclose(fd), 0);
}


// ---- a log cut short under its writer ----------------------------------------------------

// Each test: file "f" made, and the path of its log, which the tests cut.
class LogCut : public LogEnv {
protected:
    void SetUp() override {
        LogEnv::SetUp();
        bound(120);
        file = made("f", {8});
        log = lock() + ".w0";
    }
    std::string file, log;
};

// Where the next record of slot 0's log goes, as a byte of the log file.
uint64_t log_tail() {
    const isx_file* x = kisam::isx_file_of(0);
    return 1024 + x->xf_log_end - x->xf_log_start;
}

// Puts records from `base` on (*made counts them) until the log can be cut: at `at` once
// the tail is three pages past it; at -1 where a cut at the last record's start is one no
// store meets (`mapped`: the next store lands in the cut's page; else past two pages).
// The cut, or -1.
off_t put_to_cut(int fd, int base, int* made, off_t at = -1, bool mapped = true) {
    for (int i = 0; i <= 400; ++i) {
        const uint64_t t0 = log_tail();
        if (at >= 0 && i >= 5 && t0 >= static_cast<uint64_t>(at) + 3 * 4096) return at;
        if (put(fd, base + i) != 0) return -1;
        *made = i + 1;
        const uint64_t t1 = log_tail();
        if (at < 0 && (mapped ? i >= 3 && t0 / 4096 == t1 / 4096 && t1 % 4096 < 2048 : t0 > 2 * 4096))
            return static_cast<off_t>(t0);
    }
    return -1;
}

// A cut, then the healing checkpoint's file sync fails on a disk that drops what it had
// not written; with g_relog, the log begun anew to hold the pool fails next: 1 the sync
// of its header (the header stays in the cache), 2 the same (the cache drops it), 3 the
// store of its first record of pages.
const char* g_data_file = nullptr;
std::string* g_data_was = nullptr;
int g_data_syncs = 0;
int g_relog = 0;
const char* g_log = nullptr;
std::string g_log_heads;  // the log's headers when the file's sync failed
int dropping_data_sync(int fd) {
    if (g_relog && g_relog < 3 && g_data_syncs == 1 && kt::is_log_fd(fd)) {
        if (g_relog == 2) (void)!::pwrite(fd, g_log_heads.data(), g_log_heads.size(), 0);
        g_relog = 0;
        errno = EIO;
        return -1;
    }
    if (kt::fd_path(fd) != g_data_file || g_data_syncs++ != 0) return kisam::os_real.fdatasync(fd);
    if (g_relog) g_log_heads = kt::slurp(g_log).substr(0, 1024);
    kt::drop_unwritten(fd, *g_data_was);
    errno = EIO;
    return -1;
}
int failing_relog_store(int fd, char* map, off_t off, const void* src, size_t n) {
    if (g_relog != 3 || g_data_syncs != 1) return kisam::os_real.mstore(fd, map, off, src, n);
    g_relog = 0;
    errno = EIO;
    return -1;
}

// The log cut under its writer, calls after the cut, then a close or a kill: the replay
// gives back every call that returned, and what it gives back is a prefix of the calls
// that did not fail.  Rows of the same name were one test each.
enum End { kClosed, kKilled, kKilledAtOnce };  // kKilledAtOnce: after the first call after the cut
struct CutRow {
    const char* name;
    off_t at;        // the cut, a byte of the log; -1: the last record's start, met by no store
    bool mapped;     // records stored through the mapping (else by pwrite)
    bool durable;
    bool drops;      // the healing checkpoint's sync of the file fails and drops pages
    End end;
    int after;       // calls after the cut
    int may_fail;    // of those, how many may fail (ISE_FLWT); with `at` >= 0 the first must
    int relog = 0;   // g_relog: the sync of the log after the file's failed one fails too
};
const CutRow kCutRows[] = {
    // The store that meets a cut fails its call (never SIGBUS); the next call heals the log.
    {"TheCallThatMeetsTheCutFailsAndTheFileStaysSound", 0, true, false, false, kClosed, 21, 1},
    {"TheCallThatMeetsTheCutFailsAndTheFileStaysSound", 4096, true, false, false, kClosed, 21, 1},
    {"TheCallThatMeetsTheCutFailsAndTheFileStaysSound", 8192, true, false, false, kKilled, 21, 1},
    {"TheCallThatMeetsTheCutFailsAndTheFileStaysSound", 0, true, false, false, kKilled, 21, 1},
    {"TheCallThatMeetsTheCutFailsAndTheFileStaysSound", 4096, true, false, false, kKilledAtOnce, 21, 1},
    {"TheCallThatMeetsTheCutFailsAndTheFileStaysSound", 0, true, false, false, kKilledAtOnce, 21, 1},
    // A cut no store meets is found by the durable call's sync at the latest; only the
    // call whose record the cut took may be gone.
    {"ACutThatNoStoreMeetsIsFoundBeforeADurableCallReturns", -1, false, true, false, kKilled, 1, 1},
    {"ACutThatNoStoreMeetsIsFoundBeforeADurableCallReturns", -1, false, true, false, kKilled, 20, 1},
    {"ACutThatNoStoreMeetsIsFoundBeforeADurableCallReturns", -1, true, true, false, kKilled, 1, 1},
    {"ACutThatNoStoreMeetsIsFoundBeforeADurableCallReturns", -1, true, true, false, kKilled, 20, 1},
    // The log must be made to hold the pool again: no call that returned is lost.
    {"ACutAndAFailedSyncOfTheFileLoseNoCallThatReturned", -1, true, true, true, kClosed, 20, 2},
    {"ACutAndAFailedSyncOfTheFileLoseNoCallThatReturned", -1, true, true, true, kKilled, 20, 2},
    // ... and the log begun anew for the pool cannot sync its header, or store its pages.
    {"ACutAndFailedSyncsOfTheFileAndTheLogLoseNoCallThatReturned", 8192, true, true, true, kClosed, 20, 3, 1},
    {"ACutAndFailedSyncsOfTheFileAndTheLogLoseNoCallThatReturned", 8192, true, true, true, kKilled, 20, 3, 1},
    {"ACutAndFailedSyncsOfTheFileAndTheLogLoseNoCallThatReturned", 8192, true, true, true, kClosed, 20, 3, 2},
    {"ACutAndFailedSyncsOfTheFileAndTheLogLoseNoCallThatReturned", 8192, true, true, true, kKilled, 20, 3, 2},
    {"ACutAndFailedSyncsOfTheFileAndTheLogLoseNoCallThatReturned", 8192, true, true, true, kClosed, 20, 3, 3},
    {"ACutAndFailedSyncsOfTheFileAndTheLogLoseNoCallThatReturned", 8192, true, true, true, kKilled, 20, 3, 3},
};

TEST_F(LogCut, CutsUnderOneWriterLoseNoCallThatReturned) {
    const std::string data_file = kt::real_path(file);
    ASSERT_NE(data_file, "");
    constexpr int kAfter = 21;
    struct Out {
        int before, syncs;    // calls made before the cut (all returned 0); the file's syncs
        int relog;            // g_relog when the calls ended: 0 once its failure was met
        int rc[kAfter], code[kAfter];
    };
    Out* out = &shared<Out>();
    int r = 0;
    for (const CutRow& row : kCutRows) {
        SCOPED_TRACE(std::string(row.name) + ", row " + std::to_string(r));
        const int base = ++r * 1000;
        *out = Out{};
        std::fill_n(out->rc, kAfter, 1);  // not made
        Durable d(row.durable ? "1" : "0");
        const int st = kt::run_child([&] {
            if (!row.mapped) kisam::os.mmap = no_map;
            std::string was = kt::slurp(file);
            g_data_file = data_file.c_str();
            g_data_was = &was;
            g_log = log.c_str();
            g_relog = row.relog;
            const int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            const off_t cut = put_to_cut(fd, base, &out->before, row.at, row.mapped);
            if (cut < 0 || ::truncate(log.c_str(), cut) != 0) return 2;
            if (row.drops) kisam::os.fdatasync = dropping_data_sync;
            if (row.relog == 3) kisam::os.mstore = failing_relog_store;
            for (int k = 0; k < row.after; ++k) {
                out->rc[k] = put(fd, base + out->before + k);
                out->code[k] = is_errno;
                if (row.end == kKilledAtOnce) ::raise(SIGKILL);
            }
            out->syncs = g_data_syncs;
            out->relog = g_relog;
            if (row.end != kClosed) ::raise(SIGKILL);
            if (nisclose(fd) != 0) return 3;
            nisunisam();
            return 0;
        });
        ASSERT_EQ(st, row.end == kClosed ? 0 : 128 + SIGKILL) << "the cut cost the process, not the call";
        int failed = 0;
        for (int k = 0; k < row.after; ++k) {
            if (out->rc[k] == 1 || out->rc[k] == 0) continue;
            ++failed;
            EXPECT_EQ(out->code[k], ISE_FLWT) << k;
        }
        if (row.at >= 0) { EXPECT_EQ(out->rc[0], -1) << "a store past the cut went unnoticed"; }
        EXPECT_LE(failed, row.may_fail) << "calls still fail once the cut is healed";
        if (row.drops) { EXPECT_GE(out->syncs, 2) << "the failed sync of the file was not reached"; }
        EXPECT_EQ(out->relog, 0) << "the failed sync of the log begun anew was not reached";
        if (row.end != kClosed) inst_->remove_segment();  // the next attach replays the log
        if (row.at >= 0) { ASSERT_TRUE(kt::sound(file)); }
        const int fd = replayed(file, false);
        ASSERT_GE(fd, 0);
        const int n = out->before;
        int last = -1;
        const std::vector<int> at = looked(fd, base, n + row.after, &last);
        for (int j = 0; j < n + row.after; ++j) {
            if (j >= n && out->rc[j - n] != 0) {  // failed, or not made
                if (row.at >= 0) { EXPECT_EQ(at[j], 1) << "the failed call left its record: " << j; }
                continue;
            }
            if (at[j] == 0) continue;
            // Lost though it returned: only before the cut, as a prefix, when the replay
            // stops at the cut (nothing healed the log) or the cut took its record.
            const bool may = row.end == kKilledAtOnce || (row.at < 0 && !row.drops && j == n - 1);
            EXPECT_TRUE(may && j < n && j > last) << "call " << j << " (" << n << " before the cut) returned, then was lost; last there " << last;
        }
        close_sound(fd, file);
    }
}

// Random cuts under two writers (seeded): each call is there and returned 0, or failed
// with ISE_FLWT and is absent; nobody dies.
TEST_F(LogCut, CutsUnderTwoWritersCostOnlyTheCallsThatMeetThem) {
    constexpr int kWriters = 2, kCalls = 400;
    struct Calls {
        std::atomic<int> done[kWriters];
        int rc[kWriters][kCalls];
        int code[kWriters][kCalls];
    };
    Calls* c = &shared<Calls>();
    const uint64_t seed = kt::test_seed(20261126);
    std::mt19937_64 rng(seed);
    const std::vector<pid_t> kids = spawn(kWriters, [&](int w) {
        int fd = nisopen(file.c_str(), ISO_RDWR);
        if (fd < 0) return 1;
        for (int i = 0; i < kCalls; ++i) {
            const std::string r = ko::record(kL, w * 10000 + i, 0, 48 + (i * 37) % 700);
            c->rc[w][i] = niswrite(fd, r.data(), static_cast<int>(r.size()));
            c->code[w][i] = is_errno;
            c->done[w].store(i + 1);
        }
        if (nisclose(fd) != 0) return 2;
        nisunisam();
        return 0;
    });
    int cuts = 0;
    for (bool running = true; running;) {
        ::usleep(static_cast<useconds_t>(1000 + rng() % 4000));
        running = false;
        for (int w = 0; w < kWriters; ++w) running = running || c->done[w].load() < kCalls;
        if (running && ::truncate(log.c_str(), static_cast<off_t>(rng() % 5) * 4096) == 0) ++cuts;
    }
    for (pid_t k : kids) EXPECT_EQ(kt::wait_child(k), 0) << "seed " << seed << ": a writer died of a cut";
    EXPECT_GT(cuts, 0);
    int failed = 0;
    ASSERT_TRUE(kt::sound(file)) << "seed " << seed;
    int fd = nisopen(file.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0) << is_errno;
    for (int w = 0; w < kWriters; ++w)
        for (int i = 0; i < kCalls; ++i) {
            const int rc = c->rc[w][i];
            ASSERT_TRUE(rc == 0 || (rc == -1 && c->code[w][i] == ISE_FLWT))
                << "seed " << seed << ": call " << w << "/" << i << " " << rc << " " << c->code[w][i];
            failed += rc != 0;
            const ko::Rec want = rc == 0 ? ko::Rec{0, 48 + (i * 37) % 700} : ko::Rec{};
            EXPECT_EQ(ko::find(fd, kL, w * 10000 + i), want) << "seed " << seed << ": call " << w << "/" << i;
        }
    std::printf("%d cuts, %d of %d calls failed\n", cuts, failed, kWriters * kCalls);
    EXPECT_LT(failed, kWriters * kCalls / 2) << "calls that met no cut failed";
    EXPECT_EQ(nisclose(fd), 0);
}

// A checkpoint that is the first to meet a cut goes through and starts the log anew.
TEST_F(LogCut, ACheckpointThatMeetsACutNoStoreMetGoesThrough) {
    const int st = kt::run_child([&] {
        const int fd = nisopen(file.c_str(), ISO_RDWR);
        if (fd < 0) return 1;
        int made = 0;
        const off_t cut = put_to_cut(fd, 0, &made);
        if (cut < 0 || ::truncate(log.c_str(), cut) != 0) return 3;
        if (put(fd, made) != 0) return 4;  // stored into the cut's page: no fault
        if (kt::write_back(fd) != 0) return 5;
        const isx_file* x = kisam::isx_file_of(0);
        if (x->xf_log_start != x->xf_log_end || x->xf_log_cut != 0) return 6;
        if (put(fd, made + 1) != 0) return 7;
        return nisclose(fd) == 0 ? 0 : 8;
    });
    ASSERT_EQ(st, 0);
    // Closed cleanly, nobody attached: nothing pending, nothing to settle.
    EXPECT_EQ(kisam_pending(file.c_str()), 0);
    EXPECT_EQ(kisam_settle(file.c_str()), 0);
    EXPECT_EQ(kisam_pending(path("missing").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_TRUE(kt::sound(file));
    ASSERT_EQ(is_init(), 0) << is_errno;
    const int fd = nisopen(file.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0) << is_errno;
    int n = 0;
    while (look(fd, n) == 0) ++n;
    EXPECT_GE(n, 6);
    EXPECT_EQ(look(fd, n + 1), 1);
    EXPECT_EQ(nisclose(fd), 0);
}

// A cut found by one process's kisam_sync while another's call is under way: that
// call's durable sync must not count (its record lies behind a gap the replay stops at).
kt::Pipe* g_paused = nullptr;
kt::Pipe* g_resume = nullptr;

TEST_F(LogCut, NoSyncCountsWhileACutIsKnown) {
    struct Out {
        int before, synced, other;
        std::atomic<int> other_done;
    };
    Out* out = &shared<Out>();
    Durable d("1");
    kt::Pipe cut_done, do_sync, synced, paused, resume;
    const pid_t a = kt::start_child([&] {
        ::setenv("KISAM_DURABLE", "0", 1);
        const int fd = nisopen(file.c_str(), ISO_RDWR);
        if (fd < 0) return 1;
        const off_t cut = put_to_cut(fd, 0, &out->before);
        if (cut < 0 || ::truncate(log.c_str(), cut) != 0) return 3;
        cut_done.signal();
        if (do_sync.wait() != 'x') return 5;
        out->synced = kisam_sync();
        synced.signal();
        for (;;) ::pause();
    });
    ASSERT_EQ(cut_done.wait(), 'x');
    const pid_t b = kt::start_child([&] {
        const int fd = nisopen(file.c_str(), ISO_RDWR);
        if (fd < 0) return 1;
        g_paused = &paused;
        g_resume = &resume;
        kisam::test_hook = [](int where, int) {
            if (where != kisam::kHookTouch || !g_paused) return;
            g_paused->signal();
            g_paused = nullptr;
            g_resume->wait();
        };
        out->other = put(fd, 5000);
        out->other_done.store(1);
        for (;;) ::pause();
    });
    ASSERT_EQ(paused.wait(), 'x');
    do_sync.signal();
    ASSERT_EQ(synced.wait(), 'x');
    EXPECT_EQ(out->synced, -1) << "the sync went through over the cut";
    resume.signal();
    ASSERT_TRUE(kt::await([&] { return out->other_done.load() != 0; }, 10000));
    kill(a);
    kill(b);
    const int fd = replayed(file);
    ASSERT_GE(fd, 0);
    if (out->other == 0) {
        EXPECT_EQ(look(fd, 5000), 0) << "the durable call made during the cut returned, then was lost";
    }
    close_sound(fd, file);
}

}  // namespace
