// Processes killed under load: 2 to 6 workers make random calls (writes, forced writes,
// updates, deletes, reads along every key, record locks, brackets) on one 3-key file
// with records of 10 to 3,000 bytes; a supervisor kills a random worker every 0 to 50
// ms and starts another in its place, and every 50 kills it kills them all, attaches
// itself, and checks the file: the structural checker finds it sound, every call a
// worker saw complete is there, and every call that was killed is whole or absent.
//
// Each worker slot owns a range of key 0 values and logs, before and after each call,
// what it does ("B seq op id gen size", "E seq rc errno"); the worker that replaces a
// killed one first reads how the killed call ended ("R id gen size", gen -1 absent), and
// so does the supervisor for the calls it cut short.  Records carry their key 0, a
// generation and their length in their bytes, so every read verifies what it got.
//
// KISAM_KILLS sets the number of kills of each test (the soak target runs thousands);
// KISAM_SEED replays a run.
#include "../engine/open_fixture.h"

#include "is_lock.h"
#include "kcheck.h"
#include "os.h"
#include "v_pool.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <random>

namespace {

using ot::Env;

constexpr int kL0 = 4, kL1 = 4, kL2 = 2;
constexpr int kMinRec = kL0 + kL1 + kL2;
constexpr int kIdsPerSlot = 150;
constexpr int kMaxWorkers = 6;

// ---- records -------------------------------------------------------------------------

struct Rec {
    int gen = -1;   // -1: absent
    int size = 0;
    bool operator==(const Rec& o) const { return gen == o.gen && (gen < 0 || size == o.size); }
};

char payload(int id, int gen, size_t i) { return static_cast<char>('a' + (id * 13 + gen * 7 + static_cast<int>(i)) % 26); }

std::string record(int id, int gen, int size) {
    std::string r(static_cast<size_t>(size), ' ');
    char k[16];
    std::snprintf(k, sizeof k, "%04d%04x", id, gen & 0xFFFF);
    std::memcpy(&r[0], k, kL0 + kL1);
    r[8] = static_cast<char>('A' + (gen * 31 + id) % 26);
    r[9] = static_cast<char>('A' + (gen + id) % 26);
    for (size_t i = kMinRec; i < r.size(); ++i) r[i] = payload(id, gen, i);
    return r;
}

// Parses and verifies a record read back; false when it is not one record() could make.
bool parse(const char* p, int n, int* id, Rec* rec) {
    if (n < kMinRec) return false;
    char k0[5] = {}, k1[5] = {};
    std::memcpy(k0, p, 4);
    std::memcpy(k1, p + 4, 4);
    char* end;
    long i = std::strtol(k0, &end, 10);
    if (end != k0 + 4) return false;
    long g = std::strtol(k1, &end, 16);
    if (end != k1 + 4) return false;
    std::string want = record(static_cast<int>(i), static_cast<int>(g), n);
    if (std::memcmp(want.data(), p, static_cast<size_t>(n)) != 0) return false;
    *id = static_cast<int>(i);
    rec->gen = static_cast<int>(g);
    rec->size = n;
    return true;
}

int slot_base(int slot) { return slot * 1000; }

// ---- the calls -------------------------------------------------------------------------

enum Op { kWrite = 'w', kForce = 'f', kUpdate = 'u', kDelete = 'd', kLocked = 'l', kBracket = 'b' };

// The record that op leaves for id when it succeeds, given what was there.
Rec after(int op, const Rec& before, int gen, int size) {
    switch (op) {
        case kWrite: return before.gen >= 0 ? before : Rec{gen, size};
        case kForce: return Rec{gen, size};
        case kUpdate:
        case kLocked:
        case kBracket: return before.gen >= 0 ? Rec{gen, size} : before;
        case kDelete: return Rec{};
    }
    return before;
}

// ---- a worker --------------------------------------------------------------------------

class Log {
public:
    explicit Log(const std::string& path) : fd_(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {}
    ~Log() { ::close(fd_); }
    void line(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        char b[128];
        va_list ap;
        va_start(ap, fmt);
        int n = std::vsnprintf(b, sizeof b, fmt, ap);
        va_end(ap);
        if (::write(fd_, b, static_cast<size_t>(n)) != n) std::_Exit(60);
    }
private:
    int fd_;
};

// What is stored for id now (read under the file's control lock).
Rec stored(int fd, int id) {
    char key[8], buf[4000];
    std::snprintf(key, sizeof key, "%04d", id);
    int n = nisfind(fd, 0, key, buf, sizeof buf);
    int got;
    Rec r;
    if (n > 0 && parse(buf, n, &got, &r) && got == id) return r;
    if (n == 0) return Rec{};
    std::fprintf(stderr, "worker: record %d reads back wrong (%d bytes, errno %d)\n", id, n, is_errno);
    std::_Exit(52);
}

// A worker killed while it wrote a line may leave part of it (a write to a file can be
// cut short by SIGKILL): the part goes, as if the line had not been written.  (A cut
// "E" line then reads as a call cut short, which it was as far as the log knows.)
void heal(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    off_t end = ::lseek(fd, 0, SEEK_END);
    char c = '\n';
    while (end > 0 && ::pread(fd, &c, 1, end - 1) == 1 && c != '\n') --end;
    if (::ftruncate(fd, end) != 0) std::_Exit(62);
    ::close(fd);
}

// The last line of a log, or "".
std::string last_line(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    char b[512];
    off_t end = ::lseek(fd, 0, SEEK_END);
    off_t from = end > static_cast<off_t>(sizeof b) ? end - static_cast<off_t>(sizeof b) : 0;
    ssize_t n = ::pread(fd, b, sizeof b, from);
    ::close(fd);
    if (n <= 0) return "";
    std::string s(b, static_cast<size_t>(n));
    if (!s.empty() && s.back() == '\n') s.pop_back();
    size_t nl = s.rfind('\n');
    return nl == std::string::npos ? s : s.substr(nl + 1);
}

volatile sig_atomic_t g_stop = 0;
void on_stop(int) { g_stop = 1; }

// Opens and closes a second file, locks records of it and writes to it: opens and
// closes anywhere (the first open enters the file in the shared table, the last close
// frees its control page and buffers), heap blocks for record locks, buffers moving
// between files -- so that kills land in those too.
void churn(const std::string& file, std::mt19937_64& rng) {
    int fd = nisopen(file.c_str(), ISO_RDWR);
    if (fd < 0) {
        char msg[512];
        niserrmsgget(msg, sizeof msg);
        std::fprintf(stderr, "churn: open fails, errno %d: %s\n", is_errno, msg);
        std::_Exit(58);
    }
    const int id = 5000 + static_cast<int>(rng() % 300);
    std::string r = record(id, static_cast<int>(rng() % 100), kMinRec + static_cast<int>(rng() % 1500));
    if (nislock(fd, r.data(), kL0, 1) == 0) {
        if (niswrite(fd, r.data(), static_cast<int>(r.size())) < 0 ||
            nisunlock(fd, r.data(), kL0, 0) != 0) {
            std::fprintf(stderr, "churn: write or unlock fails, errno %d\n", is_errno);
            std::_Exit(59);
        }
    }
    char buf[4000];
    if (nisread(fd, 1, buf, sizeof buf) < 0) std::_Exit(61);
    if (rng() % 4 == 0) nisdelete(fd, r.data());
    nisclose(fd);
}

[[noreturn]] void worker(int slot, const std::string& file, const std::string& logpath, uint64_t seed) {
    ot::become_unattached();
    ::signal(SIGUSR1, on_stop);
    int fd = nisopen(file.c_str(), ISO_RDWR);
    if (fd < 0) {
        char msg[512];
        niserrmsgget(msg, sizeof msg);
        std::fprintf(stderr, "worker %d: open fails, errno %d: %s\n", slot, is_errno, msg);
        std::_Exit(50);
    }
    heal(logpath);
    Log log(logpath);
    // How did the call of the worker before me end?
    std::string last = last_line(logpath);
    int seq = 0, id = 0;
    char op = 0;
    if (std::sscanf(last.c_str(), "B %d %c %d", &seq, &op, &id) == 3) {
        Rec r = stored(fd, id);
        log.line("R %d %d %d\n", id, r.gen, r.size);
    }
    std::mt19937_64 rng(seed);
    const int base = slot_base(slot);
    char buf[4000];
    for (seq = 0;; ++seq) {
        if (g_stop) {
            nisclose(fd);
            nisunisam();
            std::_Exit(0);
        }
        const int roll = static_cast<int>(rng() % 100);
        id = base + static_cast<int>(rng() % kIdsPerSlot);
        const int gen = static_cast<int>(rng() % 0xFFFF);
        const int size = rng() % 4 == 0 ? kMinRec + static_cast<int>(rng() % (3000 - kMinRec))
                                        : kMinRec + static_cast<int>(rng() % 200);
        if (roll < 8) {
            churn(file + ".churn", rng);
            continue;
        }
        if (roll < 35) {
            // Reads along every key, from anywhere: whatever comes back must be whole.
            const int key = static_cast<int>(rng() % 3);
            std::string from = record(slot_base(static_cast<int>(rng() % kMaxWorkers)) + static_cast<int>(rng() % kIdsPerSlot),
                                      gen, kMinRec);
            int n = key == 0 ? nisfind(fd, 0, from.data(), buf, sizeof buf) : 0;
            if (n == 0) {
                nisseek(fd, key, from.data() + (key == 0 ? 0 : key == 1 ? kL0 : kL0 + kL1));
                for (int k = 0; k < 5 && n >= 0; ++k) {
                    n = rng() % 2 ? nisread(fd, key, buf, sizeof buf) : nispread(fd, key, buf, sizeof buf);
                    int got;
                    Rec r;
                    if (n > 0 && !parse(buf, n, &got, &r)) {
                        std::fprintf(stderr, "worker %d: a read along key %d returned a wrong record of %d bytes: %.*s\n",
                                     slot, key, n, n < 40 ? n : 40, buf);
                        std::_Exit(53);
                    }
                }
            }
            if (n < 0) {
                std::fprintf(stderr, "worker %d: read fails, is_errno %d\n", slot, is_errno);
                std::_Exit(54);
            }
            continue;
        }
        const char ops[] = {kWrite, kWrite, kWrite, kForce, kUpdate, kUpdate, kDelete, kDelete, kLocked, kBracket};
        op = ops[roll % 10];
        std::string r = record(id, gen, size);
        log.line("B %d %c %d %d %d\n", seq, op, id, gen, size);
        int rc = 0;
        switch (op) {
            case kWrite: rc = niswrite(fd, r.data(), size); break;
            case kForce: rc = nisfwrite(fd, r.data(), size); break;
            case kUpdate: rc = nisupdate(fd, r.data(), size); break;
            case kDelete: rc = nisdelete(fd, r.data()); break;
            case kLocked:
                if (nislock(fd, r.data(), kL0, 0) != 0) std::_Exit(55);
                rc = nisupdate(fd, r.data(), size);
                if (nisunlock(fd, r.data(), kL0, 0) != 0) std::_Exit(56);
                break;
            case kBracket:
                // A read and an update as one unit for the others.
                nisgetctl(fd);
                rc = nisfind(fd, 0, r.data(), buf, sizeof buf);
                rc = rc > 0 ? nisupdate(fd, r.data(), size) : -1;
                if (rc < 0 && is_errno == 0) is_errno = ISE_NOKEY;
                nisrelctl(fd);
                break;
        }
        const int err = rc < 0 ? is_errno : 0;
        log.line("E %d %d %d\n", seq, rc, err);
        // Only a missing record may make a call fail; any other failure is a fault.
        if (rc < 0 && err != ISE_NOKEY) {
            std::fprintf(stderr, "worker %d: call %c on %d fails with is_errno %d\n", slot, op, id, err);
            niserrmsg();
            std::_Exit(57);
        }
    }
}

// ---- the supervisor's oracle -------------------------------------------------------------

struct SlotModel {
    std::map<int, Rec> recs;
    long offset = 0;                  // of the log, replayed up to here
    bool pending = false;             // a B line without its E
    int op = 0, id = 0, gen = 0, size = 0;
    long calls = 0, killed = 0;
};

class KillTest : public Env {
protected:
    void SetUp() override {}   // the configuration depends on the test
    void TearDown() override {
        for (pid_t p : live_)
            if (p > 0) held_.push_back(p);   // killed and reaped by the fixture
        Env::TearDown();
    }

    // Replays slot s's log from where it was left; checks each resolution line.
    void replay(int s) {
        SlotModel& m = model_[s];
        heal(logs_[s]);
        FILE* f = std::fopen(logs_[s].c_str(), "r");
        if (!f) return;  // the slot had no worker yet
        std::fseek(f, m.offset, SEEK_SET);
        char line[256];
        while (std::fgets(line, sizeof line, f)) {
            int seq, rc, err, id, gen, size;
            char op;
            if (std::sscanf(line, "B %d %c %d %d %d", &seq, &op, &id, &gen, &size) == 5) {
                m.pending = true;
                m.op = op, m.id = id, m.gen = gen, m.size = size;
                ++m.calls;
            } else if (std::sscanf(line, "E %d %d %d", &seq, &rc, &err) == 3) {
                ASSERT_TRUE(m.pending) << "slot " << s << ": an end without a start at offset " << m.offset
                                       << ": " << line;
                if (rc >= 0) m.recs[m.id] = after(m.op, m.recs[m.id], m.gen, m.size);
                m.pending = false;
            } else if (std::sscanf(line, "R %d %d %d", &id, &gen, &size) == 3) {
                ASSERT_TRUE(m.pending && id == m.id) << "slot " << s << ": a resolution of nothing";
                resolve(s, Rec{gen, gen < 0 ? 0 : size});
            }
            m.offset = std::ftell(f);
        }
        std::fclose(f);
    }

    // A call cut short by a kill left `now` for its record: the record before the call,
    // or after it, and nothing else.
    void resolve(int s, const Rec& now) {
        SlotModel& m = model_[s];
        const Rec before = m.recs[m.id];
        const Rec done = after(m.op, before, m.gen, m.size);
        EXPECT_TRUE(now == before || now == done)
            << "slot " << s << ": killed call " << static_cast<char>(m.op) << " on " << m.id << " left gen "
            << now.gen << " size " << now.size << "; before: gen " << before.gen << " size " << before.size
            << ", after: gen " << done.gen << " size " << done.size;
        m.recs[m.id] = now;
        m.pending = false;
        ++m.killed;
    }

    // The shared structures as the dead left them, with this process attached all along:
    // the heap's free list and the buffer lists are whole (slots that a killed mover left
    // on no list are put back by the first taker of buf_lock, as a miss would).
    void check_shared() {
        ASSERT_EQ(is_lock(&isam_com->free_lock), 0);
        const RELt limit = static_cast<RELt>(isam_com->comsize - isam_com->heap_base);
        RELt p = 0;
        int wraps = 0, blocks = 0;
        do {
            const Cheader* b = kisam::rel_ptr<Cheader>(p);
            const RELt next = b->Cnext;
            const uint64_t size = kisam::load_at<uint64_t>(&b->Csize);  // 4-aligned in the heap
            ASSERT_LT(next, limit) << "heap: a link out of the heap";
            ASSERT_EQ(next % 16, 0u);
            if (next <= p) {
                ++wraps;
            } else {
                ASSERT_LE(p + size * 16, next) << "heap: free blocks overlap at " << p;
            }
            if (p != 0) {
                ASSERT_GT(size, 0u);
            }
            p = next;
            ASSERT_LT(++blocks, 100000) << "heap: the free list runs in a circle";
        } while (p != 0);
        EXPECT_LE(wraps, 1) << "heap: the free list is not in order";
        is_unlock(&isam_com->free_lock);

        ASSERT_EQ(is_lock(&isam_com->buf_lock), 0);
        if (is_lock_stale) v_repair_lists();
        const int nb = isam_com->maxbufs;
        std::vector<int> seen(static_cast<size_t>(nb), 0);
        auto walk = [&](int head) {
            for (int sl = head, n = 0; sl >= 0 && n <= nb; sl = is_env.buf_[sl].bu_next, ++n) {
                ASSERT_LT(sl, nb);
                ++seen[static_cast<size_t>(sl)];
            }
        };
        walk(isam_com->buf_free);
        for (int u = 0; u < isam_com->maxopen; ++u)
            if (const IS_FCP* f = kisam::pfo_fcp(u)) walk(f->jd_buf_hd);
        for (int sl = 0; sl < nb; ++sl)
            EXPECT_EQ(seen[static_cast<size_t>(sl)], 1) << "buffer " << sl << " is on " << seen[static_cast<size_t>(sl)] << " lists";
        is_unlock(&isam_com->buf_lock);
    }

    // Every worker is dead: attach, settle the calls they were making, compare the file
    // with the model, detach, and run the structural checker on the file.
    void check_round(const std::string& file, int workers) {
        if (isam_com) check_shared();
        int fd = nisopen(file.c_str(), ISO_RDWR);
        char msg[256];
        niserrmsgget(msg, sizeof msg);
        ASSERT_GE(fd, 0) << msg;
        for (int s = 0; s < workers; ++s) {
            replay(s);
            SlotModel& m = model_[s];
            if (m.pending) {
                Rec now = stored(fd, m.id);
                Log(logs_[s]).line("R %d %d %d supervisor\n", m.id, now.gen, now.size);
                resolve(s, now);
                FILE* f = std::fopen(logs_[s].c_str(), "r");
                std::fseek(f, 0, SEEK_END);
                m.offset = std::ftell(f);
                std::fclose(f);
            }
        }
        // The whole file against the model.
        std::map<int, Rec> seen;
        char buf[4000];
        nisseek(fd, 0, "    ");
        int n;
        while ((n = nisread(fd, 0, buf, sizeof buf)) > 0) {
            int id;
            Rec r;
            ASSERT_TRUE(parse(buf, n, &id, &r)) << "a wrong record in the file";
            seen[id] = r;
        }
        ASSERT_EQ(n, 0) << is_errno;
        for (int s = 0; s < workers; ++s) {
            for (int id = slot_base(s); id < slot_base(s) + kIdsPerSlot; ++id) {
                auto w = model_[s].recs.find(id);
                Rec want = w == model_[s].recs.end() ? Rec{} : w->second;
                auto g = seen.find(id);
                Rec got = g == seen.end() ? Rec{} : g->second;
                EXPECT_TRUE(want == got) << "record " << id << ": gen " << got.gen << " size " << got.size
                                         << ", but the calls made give gen " << want.gen << " size " << want.size;
            }
        }
        ASSERT_EQ(nisclose(fd), 0);
        nisunisam();
        const ::testing::AssertionResult sound = kt::sound(file), churned = kt::sound(file + ".churn");
        if (!sound || !churned || HasFailure()) keep();
        ASSERT_TRUE(churned);
        ASSERT_TRUE(sound);
        records_ = static_cast<long>(seen.size());
    }

    void run(const kt::Config& c, int kills_default) {
        start(c);
        bound(600);
        int kills = kills_default;
        if (const char* k = std::getenv("KISAM_KILLS")) kills = std::atoi(k);
        std::mt19937_64 rng(kt::test_seed(20261124));
        const std::string file = path("load");
        made("load", {kL0, kL1, kL2});
        made("load.churn", {kL0, kL1, kL2});
        for (int s = 0; s < kMaxWorkers; ++s) logs_.push_back(path("log" + std::to_string(s)));
        model_.assign(kMaxWorkers, SlotModel());
        live_.assign(kMaxWorkers, 0);

        // KISAM_GRACEFUL: workers are asked to stop between calls instead of being killed
        // (to tell faults of the engine from faults of its recovery).
        const bool graceful = std::getenv("KISAM_GRACEFUL") != nullptr;
        auto stop = [&](pid_t p) {
            ::kill(p, graceful ? SIGUSR1 : SIGKILL);
            int st = 0;
            ::waitpid(p, &st, 0);
            // (A worker asked to stop before it set its handler up ends by the signal.)
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
            // Every other round this process stays attached, so that the segment (and
            // whatever the killed left in it) outlives the workers.
            if (rounds % 2 == 1) {
                ASSERT_GE(nisopen(file.c_str(), ISO_RDONLY), 0);
            }
            for (int s = 0; s < workers; ++s) spawn(s);
            for (int k = 0; k < 50 && done < kills; ++k, ++done) {
                ::usleep(static_cast<useconds_t>(rng() % 50000));
                const int s = static_cast<int>(rng() % workers);
                if (!stop(live_[s])) keep();
                ASSERT_FALSE(HasFailure() || kept_) << "worker " << s << " ended by itself";
                live_[s] = 0;
                spawn(s);
            }
            for (int s = 0; s < workers; ++s) {
                ASSERT_TRUE(stop(live_[s])) << "worker " << s << " ended by itself";
                live_[s] = 0;
            }
            check_round(file, kMaxWorkers);
            if (HasFatalFailure()) return;
            ++rounds;
        }
        long calls = 0, killed = 0;
        for (const SlotModel& m : model_) calls += m.calls, killed += m.killed;
        std::printf("[ figures  ] %d kills, %d checks, %ld changing calls logged, %ld cut short and found "
                    "whole or absent, %ld records at the end\n",
                    done, rounds, calls, killed, records_);
        EXPECT_LT(::shmget(inst_->key(), 0, 0), 0) << "a segment was left behind";
    }

    // Keeps the evidence (the files, the journals and the workers' logs) where
    // KISAM_KEEP says.
    void keep() {
        kept_ = true;
        if (!std::getenv("KISAM_KEEP")) return;
        std::string cmd = "cp -r '" + inst_->dir() + "' '" + std::getenv("KISAM_KEEP") + "'";
        if (std::system(cmd.c_str()) != 0) std::printf("could not keep %s\n", inst_->dir().c_str());
    }

    bool kept_ = false;
    std::vector<std::string> logs_;
    std::vector<SlotModel> model_;
    std::vector<pid_t> live_;
    long records_ = 0;
};

// A kill at the k-th write, sync or lock of a process that opens a file nobody else has
// open, writes to it and closes it: whatever the kill cut (the open, a call, the last
// close and its checkpoint), the file holds every call that returned, and at most the one
// cut short besides -- on disk, checking sound without its log, once the last process
// has left (cleaning the dead one up as the close would have); and, when a process that
// opened the file after the kill made a call and died too, the last one attached, once
// recovery has replayed the log.
int kill_at = 0, calls_made = 0;
void tick() {
    if (++calls_made == kill_at) ::raise(SIGKILL);
}
ssize_t ticking_pwrite(int fd, const void* b, size_t n, off_t off) {
    tick();
    return kisam::os_real.pwrite(fd, b, n, off);
}
int ticking_fdatasync(int fd) {
    tick();
    return kisam::os_real.fdatasync(fd);
}
int ticking_lock(int fd, int cmd, struct flock* fl) {
    tick();
    return kisam::os_real.fcntl_lock(fd, cmd, fl);
}

TEST_F(KillTest, KilledAnywhereInAnOpenCallsAndTheLastClose) {
    kt::Config c;
    c.maxbuf = 64;
    start(c);
    bound(300);
    const std::string file = made("f", {kL0, kL1, kL2});
    const std::string keep = made("keep", {kL0, kL1, kL2});
    constexpr int kCalls = 3;
    long have = 0;
    int id = 0;
    // Opens the file, makes kCalls writes (one byte down `done` for each that returned)
    // and closes it; the k-th system call from the open on kills the process.
    auto child = [&](int k, kt::Pipe& done) {
        const int first = id;
        id += kCalls;
        return kt::start_child([&, k, first]() -> int {
            done.close_read();
            ot::become_unattached();
            kill_at = k;
            kisam::os.pwrite = ticking_pwrite;
            kisam::os.fdatasync = ticking_fdatasync;
            kisam::os.fcntl_lock = ticking_lock;
            const int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            for (int i = 0; i < kCalls; ++i) {
                const std::string r = record(first + i, 1, 700 + 300 * i);
                if (niswrite(fd, r.data(), static_cast<int>(r.size())) < 0) return 2;
                done.signal();
            }
            if (nisclose(fd) != 0) return 3;
            nisunisam();
            return 0;
        });
    };
    // How the child ended, and how many of its calls returned.
    auto ended = [](pid_t pid, kt::Pipe& done, int* returned) {
        done.close_write();
        *returned = 0;
        while (done.wait()) ++*returned;
        return kt::wait_child(pid);
    };
    auto check = [&](int k, const char* how, int returned) {
        const kisam::check::Report r = kisam::check::check_file(file);
        EXPECT_TRUE(r.ok) << how << ", killed at system call " << k << ": " << r.error;
        EXPECT_GE(r.records, have + returned) << how << ", killed at system call " << k << ": calls that returned are missing";
        EXPECT_LE(r.records, have + returned + 1) << how << ", killed at system call " << k;
        have = r.records;
    };
    bool whole = false;
    int points = 0;
    for (int k = 1; !whole && k < 1000 && !HasFailure(); ++k, ++points) {
        // This process keeps the segment; the dead child is cleaned up by it, the last
        // one to leave, rather than forgotten with the segment.
        ASSERT_GE(nisopen(keep.c_str(), ISO_RDONLY), 0);
        kt::Pipe done;
        int returned;
        const int rc = ended(child(k, done), done, &returned);
        ASSERT_TRUE(rc == 0 || rc == 128 + SIGKILL) << "the child ended with " << rc;
        whole = rc == 0;
        nisunisam();
        check(k, "left by the last process", returned);

        // Another process, attached all along, opens the file after the kill, makes a
        // call and dies, the last one attached: nobody is left to write anything back,
        // and recovery replays the log.
        kt::Pipe up, go;
        const int next_id = id++;
        const pid_t keeper = kt::start_child([&, next_id]() -> int {
            up.close_read();
            go.close_write();
            ot::become_unattached();
            if (nisopen(keep.c_str(), ISO_RDONLY) < 0) return 1;
            up.signal();
            go.wait();
            const int fd = nisopen(file.c_str(), ISO_RDWR);
            const std::string r = record(next_id, 1, 900);
            if (fd < 0 || niswrite(fd, r.data(), static_cast<int>(r.size())) < 0) return 2;
            up.signal();
            for (;;) ::pause();
        });
        held_.push_back(keeper);
        up.close_write();
        go.close_read();
        ASSERT_EQ(up.wait(), 'x');
        {
            kt::Pipe done1;
            const int rc1 = ended(child(k, done1), done1, &returned);
            ASSERT_TRUE(rc1 == 0 || rc1 == 128 + SIGKILL) << "the child ended with " << rc1;
        }
        go.signal();
        ASSERT_EQ(up.wait(), 'x') << "the call after the kill fails";
        kill(keeper);
        ASSERT_GE(nisopen(file.c_str(), ISO_RDONLY), 0);  // the segment made anew
        nisunisam();
        check(k, "recovered", returned + 1);
    }
    if (!HasFailure()) {
        EXPECT_TRUE(whole) << "the child never got through";
    }
    std::printf("[ figures  ] %d kill points\n", points);
}

// A process dies with a file open, its last user; the next process to attach cleans it
// up and so finishes its last close (the checkpoint that brings the file up to date) --
// and is killed at the k-th write, sync or lock of that.  Whatever the kill cut, the
// last process to leave finishes the close: the file on disk, without its log, holds
// every call that returned and checks sound.
TEST_F(KillTest, ACleanerKilledAnywhereInTheLastCloseItFinishesLeavesItToTheNext) {
    kt::Config c;
    c.maxbuf = 64;
    start(c);
    bound(300);
    const std::string file = made("f", {kL0, kL1, kL2});
    const std::string keep = made("keep", {kL0, kL1, kL2});
    constexpr int kCalls = 3;
    long have = 0;
    int id = 0;
    bool whole = false;
    int points = 0;
    for (int k = 1; !whole && k < 1000 && !HasFailure(); ++k, ++points) {
        ASSERT_GE(nisopen(keep.c_str(), ISO_RDONLY), 0);  // the segment stays
        const int first = id;
        id += kCalls;
        ASSERT_EQ(kt::run_child([&] {
                      ot::become_unattached();
                      const int fd = nisopen(file.c_str(), ISO_RDWR);
                      if (fd < 0) return 1;
                      for (int i = 0; i < kCalls; ++i) {
                          const std::string r = record(first + i, 1, 700 + 300 * i);
                          if (niswrite(fd, r.data(), static_cast<int>(r.size())) < 0) return 2;
                      }
                      ::raise(SIGKILL);
                      return 3;
                  }),
                  128 + SIGKILL);
        const int rc = kt::run_child([&] {
            ot::become_unattached();
            kill_at = k;
            kisam::os.pwrite = ticking_pwrite;
            kisam::os.fdatasync = ticking_fdatasync;
            kisam::os.fcntl_lock = ticking_lock;
            if (is_init() != 0) return 1;  // cleans the dead writer up
            kisam::os = kisam::os_real;
            nisunisam();
            return 0;
        });
        ASSERT_TRUE(rc == 0 || rc == 128 + SIGKILL) << "the cleaner ended with " << rc;
        whole = rc == 0;
        nisunisam();
        const kisam::check::Report r = kisam::check::check_file(file);
        EXPECT_TRUE(r.ok) << "cleaner killed at system call " << k << ": " << r.error;
        EXPECT_EQ(r.records, have + kCalls) << "cleaner killed at system call " << k;
        have = r.records;
    }
    if (!HasFailure()) {
        EXPECT_TRUE(whole) << "the cleaner never got through";
    }
    std::printf("[ figures  ] %d kill points\n", points);
}

TEST_F(KillTest, SmallPool) {
    kt::Config c;
    c.maxbuf = 64;
    run(c, 150);
}

TEST_F(KillTest, LargePoolWithTheDataChangedMark) {
    kt::Config c;
    c.maxbuf = 4000;
    c.bits = 0x1;
    run(c, 150);
}

}  // namespace
