// Calls abandoned part way by a signal handler's siglongjmp (a timer every 250 us during
// writes, updates and deletes): the next call finds the abandoned one whole or absent,
// every other record as the model says, the file sound.  KISAM_ABANDON_CALLS: calls.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include <setjmp.h>
#include <signal.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <random>

namespace {

namespace ko = kt::oracle;

const ko::Layout kL{8, 8, 4};
constexpr int kIds = 600;

sigjmp_buf jump;
volatile sig_atomic_t in_call = 0;

void on_timer(int) {
    if (in_call) {
        in_call = 0;
        siglongjmp(jump, 1);
    }
}

constexpr int kAbandoned = -1000;

// kAbandoned when the timer's handler jumped out of the call.
int attempt(int fd, char op, const std::string& rec) {
    if (sigsetjmp(jump, 1) != 0) return kAbandoned;
    in_call = 1;
    const int size = static_cast<int>(rec.size());
    const int rc = op == 'w' ? niswrite(fd, rec.data(), size) : op == 'u' ? nisupdate(fd, rec.data(), size) : nisdelete(fd, rec.data());
    in_call = 0;
    return rc;
}

// The child's failure: its message on stderr, after the seed that replays it.
__attribute__((format(printf, 3, 4))) int failed(int code, uint64_t seed, const char* fmt, ...) {
    std::fprintf(stderr, "seed %llu ", static_cast<unsigned long long>(seed));
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    return code;
}

void timer(const struct itimerval& it) { ::setitimer(ITIMER_REAL, &it, nullptr); }

using Abandon = ot::Env;

TEST_F(Abandon, AnAbandonedCallIsWholeOrAbsent) {
    long calls = 40000;
    if (const char* c = std::getenv("KISAM_ABANDON_CALLS")) calls = std::atol(c);
    const uint64_t seed = kt::test_seed(20261125);
    const std::string file = path("abandon");
    const int st = kt::run_child([&]() -> int {
        ::alarm(300);
        std::mt19937_64 rng(seed);
        const int fd = create("abandon", kL.lens());
        if (fd < 0) return 10;
        ko::Oracle o;
        struct sigaction sa {};
        sa.sa_handler = on_timer;
        sigemptyset(&sa.sa_mask);
        ::sigaction(SIGALRM, &sa, nullptr);
        const struct itimerval it {{0, 250}, {0, 250}}, off{};
        long checks = 0;
        // A jump out of a call that grows the library's buffers would leave the allocator half
        // changed: one write and delete without the timer grow them first.
        const std::string warm = ko::record(kL, kIds, 0, 530);
        if (niswrite(fd, warm.data(), 530) != 0 || nisdelete(fd, warm.data()) != 0) return 18;
        for (long i = 0; i < calls; ++i) {
            const int id = static_cast<int>(rng() % kIds);
            const ko::Rec before = o.get(id);
            const char op = !before.present() ? 'w' : rng() % 3 == 0 ? 'd' : 'u';
            const int gen = before.gen + 1 + static_cast<int>(rng() % 3);
            const int size = 30 + static_cast<int>(rng() % 501);
            const std::string rec = ko::record(kL, id, gen, size);
            if (i == 0) timer(it);
            o.begin(op, id, gen, size);
            const int rc = attempt(fd, op, rec);
            if (rc == kAbandoned) {
                if (const ::testing::AssertionResult r = o.cut(ko::find(fd, kL, id)); !r) return failed(11, seed, "call %ld: %s\n", i, r.message());
            } else if (rc != 0) {
                return failed(12, seed, "call %ld: op %c on record %d failed: is_errno %d\n", i, op, id, is_errno);
            } else {
                o.end(rc);
            }
            if (i % 5000 == 4999 || i == calls - 1) {
                timer(off);
                ++checks;
                // A call settles the last abandoned one; the checker reads the disk, so write back first.
                ko::find(fd, kL, 0);
                const ko::Scan got = ko::scan(fd, kL);
                const ::testing::AssertionResult same = ko::same(o.model(), got.recs);
                if (!got.ok() || !same) return failed(13, seed, "after %ld calls: %s%s\n", i + 1, got.why.c_str(), same.message());
                if (kt::write_back(fd) != 0) return failed(17, seed, "after %ld calls: write-back failed: is_errno %d\n", i + 1, is_errno);
                if (const ::testing::AssertionResult ok = kt::sound(file); !ok) return failed(14, seed, "after %ld calls: %s\n", i + 1, ok.message());
                timer(it);
            }
        }
        timer(off);
        std::printf("%ld calls, %ld abandoned part way, %ld checks sound\n", calls, o.cut_short, checks);
        if (nisclose(fd) != 0) return 15;
        nisunisam();
        return o.cut_short >= calls / 1000 ? 0 : 16;
    });
    EXPECT_EQ(st, 0) << "seed " << seed;
    EXPECT_TRUE(kt::sound(file));
}

}  // namespace
