// Calls abandoned part way: a program whose signal handler leaves a library call with
// siglongjmp.  An interval timer fires every 250 us while one process writes, updates and
// deletes records of 30 to 530 bytes on a 3-key file; whenever it fires inside a
// changing call the handler jumps out of it.  The next call of the process must find
// the abandoned one whole or absent: the record it touched reads back exactly as before
// the call or exactly as the call would have left it, every other record as the model
// says, and the structural checker finds the file sound, at intervals and at the end.
//
// KISAM_ABANDON_CALLS sets the number of calls (make soak runs many more); KISAM_SEED
// replays a run.
#include "../engine/open_fixture.h"


#include <setjmp.h>
#include <signal.h>
#include <sys/time.h>

#include <cstdio>
#include <map>
#include <random>

namespace {

constexpr int kL0 = 8, kL1 = 8, kL2 = 4;
constexpr int kIds = 600;

struct Rec {
    int gen = -1;  // -1: absent
    int size = 0;
    bool operator==(const Rec& o) const { return gen == o.gen && (gen < 0 || size == o.size); }
};

std::string record(int id, int gen, int size) {
    std::string r(static_cast<size_t>(size), ' ');
    char k[32];
    std::snprintf(k, sizeof k, "%08d%08x%04d", id, static_cast<unsigned>(gen), (id * 7 + gen) % 10000);
    std::memcpy(&r[0], k, kL0 + kL1 + kL2);
    for (size_t i = kL0 + kL1 + kL2; i < r.size(); ++i) r[i] = static_cast<char>('a' + (id + gen * 3 + static_cast<int>(i)) % 26);
    return r;
}

// What the file holds under id; gen -2 when the bytes are no record record() makes.
Rec stored(int fd, int id) {
    char key[16];
    std::snprintf(key, sizeof key, "%08d", id);
    char buf[1024];
    const int n = nisfind(fd, 0, key, buf, sizeof buf);
    if (n <= 0) return Rec{n == 0 ? -1 : -3, 0};
    unsigned g = 0;
    if (n < kL0 + kL1 + kL2 || std::sscanf(buf + kL0, "%8x", &g) != 1) return Rec{-2, n};
    const std::string want = record(id, static_cast<int>(g), n);
    if (std::memcmp(want.data(), buf, static_cast<size_t>(n)) != 0) return Rec{-2, n};
    return Rec{static_cast<int>(g), n};
}

sigjmp_buf jump;
volatile sig_atomic_t in_call = 0;

void on_timer(int) {
    if (in_call) {
        in_call = 0;
        siglongjmp(jump, 1);
    }
}

constexpr int kAbandoned = -1000;

// One changing call, left by the timer's handler when it fires inside: kAbandoned then.
int attempt(int fd, int op, const char* rec, int size, const char* key) {
    if (sigsetjmp(jump, 1) != 0) return kAbandoned;
    in_call = 1;
    const int rc = op == 0 ? niswrite(fd, rec, size) : op == 1 ? nisupdate(fd, rec, size) : nisdelete(fd, key);
    in_call = 0;
    return rc;
}

class Abandon : public ot::Env {};

TEST_F(Abandon, AnAbandonedCallIsWholeOrAbsent) {
    long calls = 40000;
    if (const char* c = std::getenv("KISAM_ABANDON_CALLS")) calls = std::atol(c);
    const uint64_t seed = kt::test_seed(20261125);
    const std::string file = path("abandon");
    // The work runs in a child, so that a hang or a crash is a failure of this test
    // rather than of the test runner.
    const int st = kt::run_child([&]() -> int {
        ::alarm(300);
        std::mt19937_64 rng(seed);
        const int lens[3] = {kL0, kL1, kL2};
        int fd = niscreate(file.c_str(), 3, const_cast<int*>(lens));
        if (fd < 0) return 10;
        std::map<int, Rec> model;
        struct sigaction sa {};
        sa.sa_handler = on_timer;
        sigemptyset(&sa.sa_mask);
        ::sigaction(SIGALRM, &sa, nullptr);
        struct itimerval it {{0, 250}, {0, 250}};
        long abandoned = 0, checks = 0;
        for (long i = 0; i < calls; ++i) {
            const int id = static_cast<int>(rng() % kIds);
            const Rec before = model.count(id) ? model[id] : Rec{};
            Rec after;
            std::string rec;
            int op;  // 0 write, 1 update, 2 delete
            if (before.gen < 0) {
                op = 0;
            } else {
                op = rng() % 3 == 0 ? 2 : 1;
            }
            if (op != 2) {
                after = Rec{before.gen + 1 + static_cast<int>(rng() % 3), 30 + static_cast<int>(rng() % 501)};
                rec = record(id, after.gen, after.size);
            }
            char key[16];
            std::snprintf(key, sizeof key, "%08d", id);
            if (i == 0) ::setitimer(ITIMER_REAL, &it, nullptr);
            const int rc = attempt(fd, op, rec.data(), static_cast<int>(rec.size()), key);
            if (rc == kAbandoned) {
                ++abandoned;
                // The next call repairs the abandoned one first; what it finds is one of
                // the two states and nothing else.
                Rec now = stored(fd, id);
                if (!(now == before) && !(now == after)) {
                    std::fprintf(stderr, "seed %llu call %ld: record %d (op %d) reads gen %d size %d after the "
                                 "abandoned call; before gen %d size %d, after gen %d size %d\n",
                                 static_cast<unsigned long long>(seed), i, id, op, now.gen, now.size, before.gen,
                                 before.size, after.gen, after.size);
                    return 11;
                }
                model[id] = now;
            } else if (rc != 0) {
                std::fprintf(stderr, "seed %llu call %ld: op %d on record %d failed: is_errno %d\n",
                             static_cast<unsigned long long>(seed), i, op, id, is_errno);
                return 12;
            } else {
                model[id] = after;
            }
            if (i % 5000 == 4999 || i == calls - 1) {
                struct itimerval off {};
                ::setitimer(ITIMER_REAL, &off, nullptr);
                ++checks;
                // A call settles what the last abandoned one left before the disk is read.
                stored(fd, 0);
                for (int k = 0; k < kIds; ++k) {
                    const Rec want = model.count(k) ? model[k] : Rec{};
                    const Rec got = stored(fd, k);
                    if (!(want == got)) {
                        std::fprintf(stderr, "seed %llu after %ld calls: record %d is gen %d size %d, the model "
                                     "says gen %d size %d\n", static_cast<unsigned long long>(seed), i + 1, k,
                                     got.gen, got.size, want.gen, want.size);
                        return 13;
                    }
                }
                // The checker reads the disk: what the calls committed goes there first.
                if (kt::write_back(fd) != 0) {
                    std::fprintf(stderr, "seed %llu after %ld calls: write-back failed: is_errno %d\n",
                                 static_cast<unsigned long long>(seed), i + 1, is_errno);
                    return 17;
                }
                if (const ::testing::AssertionResult ok = kt::sound(file); !ok) {
                    std::fprintf(stderr, "seed %llu after %ld calls: %s\n", static_cast<unsigned long long>(seed),
                                 i + 1, ok.message());
                    return 14;
                }
                ::setitimer(ITIMER_REAL, &it, nullptr);
            }
        }
        struct itimerval off {};
        ::setitimer(ITIMER_REAL, &off, nullptr);
        std::printf("%ld calls, %ld abandoned part way, %ld checks sound\n", calls, abandoned, checks);
        if (nisclose(fd) != 0) return 15;
        nisunisam();
        // Too few abandoned calls would prove nothing.
        return abandoned >= calls / 1000 ? 0 : 16;
    });
    EXPECT_EQ(st, 0) << "seed " << seed;
    EXPECT_TRUE(kt::sound(file));
}

}  // namespace
