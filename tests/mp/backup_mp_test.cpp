// Backups of a file two writers keep changing (single calls and bracketed pairs, each
// logged once it returned): every copy holds, per writer, a prefix of its units that
// includes every unit logged before the backup began.  A failed backup leaves nothing
// under the destination.  KISAM_BACKUPS: backups under load.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

namespace {

constexpr size_t kWriters = 2;
constexpr int kIdsPerWriter = 300;

namespace ko = kt::oracle;
const ko::Layout kL{8, 8, 0};   // key 0 the id, key 1 the generation

std::string record(int id, int gen, int size) { return ko::record(kL, id, gen, size); }
using Rec = ko::Rec;
using State = ko::Model;

volatile sig_atomic_t stop = 0;
void on_term(int) { stop = 1; }

// Units on its own ids, each logged once it returned: "id gen size" lines (gen -1:
// deleted) closed by ".".
int writer(const std::string& file, const std::string& log, int w, uint64_t seed) {
    std::mt19937_64 rng(seed + static_cast<uint64_t>(w));
    const int fd = nisopen(file.c_str(), ISO_RDWR);
    if (fd < 0) return 10;
    FILE* out = std::fopen(log.c_str(), "w");
    if (!out) return 11;
    State st;
    const int base = w * kIdsPerWriter;
    ::signal(SIGTERM, on_term);   // ends it after logging the unit under way
    for (int unit = 0; !stop; ++unit) {
        const bool pair = rng() % 4 == 0;
        if (pair && nisgetctl(fd) != 0) return 12;
        std::string lines;
        for (int k = 0; k < (pair ? 2 : 1); ++k) {
            const int id = base + static_cast<int>(rng() % kIdsPerWriter);
            Rec& r = st[id];
            int rc;
            if (r.gen >= 0 && rng() % 3 == 0) {
                rc = nisdelete(fd, ko::key(kL, id).c_str());
                r = Rec{};
            } else {
                const bool had = r.gen >= 0;
                r = Rec{r.gen + 1, 20 + static_cast<int>(rng() % 280)};
                const std::string rec = record(id, r.gen, r.size);
                rc = had ? nisupdate(fd, rec.data(), r.size) : niswrite(fd, rec.data(), r.size);
            }
            if (rc != 0) return 13;
            lines += std::to_string(id) + " " + std::to_string(r.gen) + " " + std::to_string(r.size) + "\n";
        }
        if (pair && nisrelctl(fd) != 0) return 14;
        std::fprintf(out, "%s.\n", lines.c_str());
        std::fflush(out);
    }
    std::fclose(out);
    nisclose(fd);
    nisunisam();
    return 0;
}

struct Change {
    int id;
    Rec rec;   // gen -1: deleted
};
using Unit = std::vector<Change>;

std::vector<Unit> units_of(const std::string& log) {
    std::vector<Unit> units;
    std::ifstream in(log);
    std::string line;
    Unit cur;
    while (std::getline(in, line)) {
        if (line == ".") {
            units.push_back(std::move(cur));
            cur.clear();
            continue;
        }
        std::istringstream ls(line);
        int id, gen, size;
        if (!(ls >> id >> gen >> size)) break;  // a unit whose line was cut
        cur.push_back(Change{id, gen < 0 ? Rec{} : Rec{gen, size}});
    }
    return units;
}

// Per copy: whether it is the state after a prefix of at least lo units.  One replay of
// the log, counting per copy the ids whose state differs (a soak logs too many to keep).
std::vector<bool> prefix_states(const std::vector<Unit>& units, int base, const std::vector<State>& copies,
                                const std::vector<int>& lo) {
    const size_t n = copies.size();
    std::vector<std::vector<Rec>> want(n, std::vector<Rec>(kIdsPerWriter));
    std::vector<int> differ(n, 0);
    std::vector<bool> found(n, false);
    for (size_t b = 0; b < n; ++b) {
        for (auto& [id, r] : copies[b]) want[b][static_cast<size_t>(id - base)] = r;
        differ[b] = static_cast<int>(copies[b].size());   // the state starts empty
        found[b] = lo[b] == 0 && differ[b] == 0;
    }
    std::vector<Rec> cur(kIdsPerWriter);
    for (size_t k = 0; k < units.size(); ++k) {
        for (const Change& c : units[k]) {
            const size_t i = static_cast<size_t>(c.id - base);
            for (size_t b = 0; b < n; ++b) {
                if (found[b]) continue;
                differ[b] += (cur[i] == want[b][i]) - (c.rec == want[b][i]);
            }
            cur[i] = c.rec;
        }
        for (size_t b = 0; b < n; ++b)
            if (!found[b] && static_cast<int>(k + 1) >= lo[b] && differ[b] == 0) found[b] = true;
    }
    return found;
}

int verify(const char* copy, void*) { return kt::sound(copy) ? 0 : 1; }

class Backup : public ot::Env {};

TEST_F(Backup, EveryBackupUnderLoadIsTheFileAtOneMomentBetweenCalls) {
    const char* b_env = std::getenv("KISAM_BACKUPS");
    const size_t backups = b_env ? static_cast<size_t>(std::atoi(b_env)) : 8;
    const uint64_t seed = kt::test_seed(1126);
    const std::string file = path("live");
    const int fd = create("live", kL.lens());
    ASSERT_GE(fd, 0);
    ASSERT_EQ(nisclose(fd), 0);
    auto log = [&](size_t w) { return path("log" + std::to_string(w)); };
    auto copy = [&](size_t b) { return path("copy" + std::to_string(b)); };
    for (size_t w = 0; w < kWriters; ++w)
        held_.push_back(kt::start_child([&, w] { return writer(file, log(w), static_cast<int>(w), seed); }));
    // lo[w][b]: the units writer w had logged when backup b began.
    std::vector<std::vector<int>> lo(kWriters);
    long longest = 0;
    for (size_t b = 0; b < backups; ++b) {
        ::usleep(20000 + static_cast<useconds_t>(b % 5) * 10000);
        for (size_t w = 0; w < kWriters; ++w) lo[w].push_back(static_cast<int>(units_of(log(w)).size()));
        long held = 0;
        ASSERT_EQ(kisam_backup(file.c_str(), copy(b).c_str(), verify, nullptr, &held), 0)
            << "backup " << b << " is_errno " << is_errno;
        longest = std::max(longest, held);
    }
    for (pid_t p : held_) ::kill(p, SIGTERM);
    for (pid_t p : held_) EXPECT_EQ(kt::wait_child(p), 0);
    held_.clear();
    // copies[w][b]: writer w's ids in backup b.
    std::vector<std::vector<State>> copies(kWriters, std::vector<State>(backups));
    for (size_t b = 0; b < backups; ++b) {
        const int cfd = nisopen(copy(b).c_str(), ISO_RDONLY);
        ASSERT_GE(cfd, 0) << "backup " << b << " does not open: is_errno " << is_errno;
        const ko::Scan scan = ko::scan(cfd, kL);
        ASSERT_TRUE(scan.ok()) << "backup " << b << ": " << scan.why;
        for (const auto& [id, r] : scan.recs) copies[static_cast<size_t>(id / kIdsPerWriter)][b][id] = r;
        ASSERT_EQ(nisclose(cfd), 0);
    }
    for (size_t w = 0; w < kWriters; ++w) {
        const std::vector<Unit> units = units_of(log(w));
        const std::vector<bool> found = prefix_states(units, static_cast<int>(w) * kIdsPerWriter, copies[w], lo[w]);
        for (size_t b = 0; b < backups; ++b)
            EXPECT_TRUE(found[b]) << "seed " << seed << ": backup " << b << " holds no prefix of writer " << w
                                  << "'s units from unit " << lo[w][b] << " on (" << units.size() << " logged)";
    }
    std::printf("%zu backups under load, writers held for %ld us at the longest\n", backups, longest);
}

// The first offset where files a and b differ, or -1 when they are the same bytes.
off_t first_difference(const std::string& a, const std::string& b) {
    const int fa = ::open(a.c_str(), O_RDONLY), fb = ::open(b.c_str(), O_RDONLY);
    std::vector<char> x(1 << 20), y(1 << 20);
    off_t at = 0;
    for (;;) {
        const ssize_t n = ::pread(fa, x.data(), x.size(), at), m = ::pread(fb, y.data(), y.size(), at);
        if (n != m || n < 0 || std::memcmp(x.data(), y.data(), static_cast<size_t>(n)) != 0) break;
        if (n == 0) {
            at = -1;
            break;
        }
        at += n;
    }
    ::close(fa);
    ::close(fb);
    return at;
}

// A directory on another file system (tmpfs), removed with what it holds; "" when there
// is none.
struct OtherFs {
    std::string dir;
    OtherFs() {
        char d[] = "/dev/shm/kisam-test-XXXXXX";
        if (::mkdtemp(d)) dir = d;
    }
    ~OtherFs() {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
};

// A file over 1 GiB on disk (its end a hole past the pages in use, as a call rolled back
// after it grew the file leaves it) is copied file to file rather than through memory --
// in the kernel beside it, by reads and writes onto another file system: byte for byte,
// with the pages its calls have not written back yet.
TEST_F(Backup, AFileOverAGibibyteIsCopiedWholeWithThePagesNotWrittenBack) {
    bound(300);
    const std::string file = path("big");
    const int fd = create("big", kL.lens());
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 400; ++i) {
        if (i == 200) {
            ASSERT_EQ(kt::write_back(fd), 0);
            ASSERT_EQ(::truncate(file.c_str(), (off_t{1} << 30) + 5 * 1024), 0);
        }
        ASSERT_EQ(niswrite(fd, record(i, 1, 100).data(), 100), 0);
    }
    const OtherFs other;
    std::vector<std::string> dests{path("copy")};
    if (!other.dir.empty()) dests.push_back(other.dir + "/copy");
    for (const std::string& dest : dests) {
        int verified = 0;
        const auto count = [](const char* copy, void* n) { return ++*static_cast<int*>(n), verify(copy, nullptr); };
        ASSERT_EQ(kisam_backup(file.c_str(), dest.c_str(), count, &verified, nullptr), 0) << dest << ": " << is_errno;
        EXPECT_EQ(verified, 1);
        EXPECT_NE(first_difference(file, dest), -1) << dest << ": the last records' pages are not on the disk yet";
    }
    ASSERT_EQ(kt::write_back(fd), 0);
    for (const std::string& dest : dests) EXPECT_EQ(first_difference(file, dest), -1) << dest;
    ASSERT_EQ(nisclose(fd), 0);
    for (const std::string& dest : dests) {
        const int cfd = nisopen(dest.c_str(), ISO_RDONLY);
        ASSERT_GE(cfd, 0) << dest << ": " << is_errno;
        const ko::Scan scan = ko::scan(cfd, kL);
        EXPECT_TRUE(scan.ok()) << dest << ": " << scan.why;
        EXPECT_EQ(scan.recs.size(), 400u) << dest;
        ASSERT_EQ(nisclose(cfd), 0);
    }
}

TEST_F(Backup, AFailedBackupLeavesNothingUnderTheDestination) {
    const std::string file = path("f");
    const int fd = create("f", {8});
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(niswrite(fd, record(i, 1, 100).data(), 100), 0);
    const std::string dest = path("backup");
    EXPECT_EQ(kisam_backup(path("none").c_str(), dest.c_str(), nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(is_errno, ISE_OPENF);
    EXPECT_EQ(kisam_backup(file.c_str(), dest.c_str(), [](const char*, void*) { return 1; }, nullptr, nullptr), -1);
    EXPECT_EQ(is_errno, ISE_BTS);
    struct stat st;
    EXPECT_NE(::stat(dest.c_str(), &st), 0);
    // A good one, then every write and sync of the next failing in turn: the good one stays.
    ASSERT_EQ(kisam_backup(file.c_str(), dest.c_str(), verify, nullptr, nullptr), 0);
    ASSERT_EQ(::stat(dest.c_str(), &st), 0);
    ASSERT_EQ(niswrite(fd, record(1000, 1, 100).data(), 100), 0);
    int failed = 0;
    for (kt::Faults::Kind kind : {kt::Faults::kWrite, kt::Faults::kSync}) {
        for (int n = 1;; ++n) {
            const auto was = ot::read_head(dest, 1 << 20);
            kt::Faults f;
            f.arm(kind, n, kt::Faults::kFromThenOn, ENOSPC);
            const int rc = kisam_backup(file.c_str(), dest.c_str(), verify, nullptr, nullptr);
            if (!kt::Faults::hit()) break;
            ++failed;
            EXPECT_EQ(rc, -1) << kind << " " << n;
            EXPECT_EQ(is_errno, ISE_FLWT) << kind << " " << n;
            EXPECT_EQ(ot::read_head(dest, 1 << 20), was) << kind << " " << n;
        }
    }
    EXPECT_GE(failed, 2);
    for (const auto& e : std::filesystem::directory_iterator(inst_->dir()))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
    ASSERT_EQ(nisclose(fd), 0);
}

}  // namespace
