// Readers without the lock beside writers in other processes.  Every record's bytes
// follow from its key 0 and generation, so readers check each record whole and that the
// generations of one record never go back.
#include "genrec.h"
#include "is_rec.h"
#include "isx_area.h"
#include "kisam_test.h"
#include "os.h"
#include "test_hook.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

namespace kg = kt::gen;
// Key 1 has few values, key 2 an odd length; one record in eight spans overflow pages.
const kg::Layout kL{.k1 = 50, .k2 = true, .big = 8, .big_len = 1017, .small_span = 120};
// The same with key 0 of 248 bytes: three items a page on every key, trees six deep.
const kg::Layout kLong{.k1 = 50, .k2 = true, .big = 8, .big_len = 1017, .small_span = 120, .k0_pad = 240};
constexpr int kBuf = 4000;

// The real pread behind a replaced entry of the table: with the table replaced, every
// miss loads its page into the pool (no read in the file's mapping).
ssize_t plain_pread(int fd, void* buf, size_t n, off_t off) { return ::pread(fd, buf, n, off); }

int count_record_waits(const kisam_wait* w, void* waits) {
    if (w->event == KISAM_WAIT_BEGIN && w->what == KISAM_WAIT_RECORD) ++*static_cast<std::atomic<long>*>(waits);
    return 0;
}

std::string order_key(const kg::Layout& L, const char* p, int k) {
    const int k0 = L.k0(), off[3] = {0, k0, k0 + kg::kK1}, len[3] = {k0, kg::kK1, kg::kK2};
    return std::string(p + off[k], static_cast<size_t>(len[k])) + (k ? std::string(p, static_cast<size_t>(k0)) : "");
}

class ReadNoLockMp : public kt::Env {
protected:
    void SetUp() override {}   // the pool's size depends on the test
    // The read file with ids 0 .. ids - 1 at generation 1, and another file.  `fight`:
    // writers change any record, under its record lock, and long keys.
    void start(int buffers, unsigned ids = 400, bool fight = false) {
        kt::Config c;
        c.maxbuf = static_cast<int16_t>(buffers);
        Env::start(c);
        *stop_ = false;
        gens_->fill(1);
        ids_ = ids;
        fight_ = fight;
        L_ = fight ? &kLong : &kL;
        *refused_ = *waited_ = 0;
        path_ = path("r.ism");
        other_ = made("other.ism", {kg::kK0});
        seed_ = kt::test_seed(0xC0FFEE);
        const int fd = create("r.ism", L_->lens());
        ASSERT_GE(fd, 0);
        for (unsigned id = 0; id < ids; ++id) {
            const std::string r = record(id, 1);
            ASSERT_EQ(niswrite(fd, r.data(), static_cast<int>(r.size())), 0);
        }
        nisclose(fd);
        ASSERT_EQ(nisunisam(), 0);
    }

    std::string record(unsigned id, uint32_t gen) const { return kg::record(*L_, id, gen); }

    // Writer of the ids = w mod `of`: update, delete+write, forced write, each noted in
    // gens_; with `other`, a record of the other file after each change (its misses take
    // the read file's slots).  `inherit`: on the attachment of the process that forked it.
    // When writers fight, each picks any id (half the time one of the first 24) and
    // locks it first, alone or with its nine neighbours (a key of 7 digits), waiting or
    // not; one change in four inside a hold of the control lock, which the wait for
    // the record lock gives up and takes back.
    int writer(int w, int of, int changes, bool other, bool inherit = false) {
        if ((inherit ? is_chinit() : is_init()) != 0) return 50;
        int fd = nisopen(path_.c_str(), ISO_RDWR);
        int fo = other ? nisopen(other_.c_str(), ISO_RDWR) : -1;
        if (fd < 0 || (other && fo < 0)) return 51;
        std::mt19937 rng(static_cast<unsigned>(seed_) * 7 + static_cast<unsigned>(w));
        if (fight_) kisam_set_wait_hook(count_record_waits, waited_, 0);
        for (int i = 0; i < changes && !*stop_; ++i) {
            unsigned id = static_cast<unsigned>(w) + of * (rng() % (ids_ / of));
            if (fight_) id = static_cast<unsigned>(rng() % 2 ? rng() % 24 : rng() % ids_);
            const std::string k0 = kg::key0(*L_, id);
            int locklen = 0, hold = 0;
            if (fight_) {
                locklen = rng() % 4 == 0 ? 7 : L_->k0();
                const int wait = rng() % 3 ? 0 : 1;
                hold = rng() % 4 == 0;
                if (hold && nisgetctl(fd) != 0) return 58;
                is_errno = 0;
                if (nislock(fd, k0.data(), locklen, wait) != 0) {
                    // Refused: held by another (no wait), or a wait the kernel took for a cycle.
                    if (wait == 0 && is_errno != 0 && is_errno != ISE_DEADLOCK) return 58;
                    if (hold) nisrelctl(fd);
                    ++*refused_;
                    continue;
                }
            }
            // The generation is what the file holds (an earlier writer may have died).
            uint32_t gen = 1;
            const int n = kg::find(fd, *L_, id, &gen);
            if (n == -2) return 52;
            const std::string r = record(id, gen + 1);
            const int len = static_cast<int>(r.size());
            const unsigned op = rng() % 10;
            if (n <= 0) {
                if (niswrite(fd, r.data(), len) != 0) return 53;
            } else if (op < 7) {
                if (nisupdate(fd, r.data(), len) != 0) return 54;
            } else if (op < 9) {
                // Missing until written again: a second delete says so.
                if (nisdelete(fd, k0.data()) != 0 || nisdelete(fd, k0.data()) != -1 || is_errno != ISE_NOKEY) return 55;
                if (niswrite(fd, r.data(), len) != 0) return 55;
            } else if (nisfwrite(fd, r.data(), len) != 0) {
                return 56;
            }
            (*gens_)[id] = gen + 1;
            if (fight_ && (nisunlock(fd, k0.data(), locklen, 0) != 0 || (hold && nisrelctl(fd) != 0))) return 59;
            if (other) {
                const std::string o = record(static_cast<unsigned>(rng()), static_cast<uint32_t>(i));
                if (nisfwrite(fo, o.data(), static_cast<int>(o.size())) != 0) return 57;
            }
        }
        if (fo >= 0) nisclose(fo);
        nisclose(fd);
        nisunisam();
        return 0;
    }

    // Whether n bytes (cut at size) are exactly some id's record at some generation.
    bool genuine(const char* p, int n, int size, unsigned* id, uint32_t* gen) const {
        return kg::genuine(*L_, p, n, size, id, gen) && *id < ids_;
    }

    // Random finds and scans by every key both ways, whole and cut, until stopped and
    // past `least` reads; `finds`: whole finds only, every miss loaded into the pool, and
    // stopped at `least`.  figures_[r]: reads made, and those without the lock.
    int reader(int r, long least = 0, bool finds = false) {
        if (finds) kisam::os.pread = plain_pread;
        if (is_init() != 0) return 60;
        int fd = nisopen(path_.c_str(), ISO_RDWR);
        if (fd < 0) return 61;
        std::mt19937 rng(static_cast<unsigned>(seed_) * 13 + static_cast<unsigned>(r));
        std::vector<char> buf(kBuf);
        std::vector<uint32_t> last(ids_, 0);
        long reads = 0;
        const unsigned long nolock0 = is_nolock_reads;
        int rc = 0;
        auto check = [&](int n, int size) {
            unsigned id;
            uint32_t gen;
            if (!genuine(buf.data(), n, size, &id, &gen)) return 70;
            if (gen < last[id]) return 71;  // a later read saw an older generation
            last[id] = gen;
            return 0;
        };
        for (long i = 0; rc == 0 && (finds ? reads < least : i % 64 != 0 || reads < least || !*stop_); ++i) {
            const int size = !finds && rng() % 4 == 0 ? L_->min() + static_cast<int>(rng() % 200) : kBuf;
            const unsigned mode = finds ? 0 : rng() % 3;
            if (mode == 0) {
                const std::string k0 = kg::key0(*L_, rng() % ids_);
                const int n = nisfind(fd, 0, k0.data(), buf.data(), size);
                ++reads;
                if (n < 0) rc = 72;
                else if (n > 0 && (rc = check(n, size)) == 0 && k0.compare(0, k0.size(), buf.data(), k0.size()) != 0) rc = 73;
                continue;
            }
            const int k = static_cast<int>(rng() % 3);
            const bool back = mode == 2;
            const std::string from = record(rng() % ids_, 1 + rng() % 3);
            if (nisseek(fd, k, from.data() + (k ? L_->k0() + (k - 1) * kg::kK1 : 0)) != 0) rc = 74;
            std::string prev;
            for (int step = 0; rc == 0 && step < 20; ++step) {
                const int n = back ? nispread(fd, k, buf.data(), size) : nisread(fd, k, buf.data(), size);
                ++reads;
                if (n < 0) rc = 75;
                if (n <= 0 || (rc = check(n, size)) != 0) break;
                const std::string o = order_key(*L_, buf.data(), k);
                if (!prev.empty() && (back ? !(o < prev) : !(prev < o))) rc = 76;
                prev = o;
            }
        }
        (*figures_)[static_cast<size_t>(r)] = {reads, static_cast<long>(is_nolock_reads - nolock0)};
        nisclose(fd);
        nisunisam();
        return rc;
    }

    // The change count even, no rollback pending, every record its writer's last change
    // (`gaps`: or missing, when a writer was killed between a delete and its write), the
    // file sound.
    void final_check(int gaps = 0) {
        ASSERT_EQ(kt::run_child([&] {
                      if (is_init() != 0) return 1;
                      int fd = nisopen(path_.c_str(), ISO_RDWR);
                      if (fd < 0) return 2;
                      uint32_t gen;
                      for (unsigned id = 0; id < ids_; ++id) {
                          const int n = kg::find(fd, *L_, id, &gen);
                          if (n < 0 || (n > 0 && gen != (*gens_)[id]) || (n == 0 && --gaps < 0)) {
                              std::fprintf(stderr, "id %u: %d at generation %u, %u written\n", id, n, gen, (*gens_)[id]);
                              return 3;
                          }
                      }
                      const isx_file* xf = kisam::isx_file_of(is_db[fd]->uniqueid);
                      if (xf->xf_seq % 2 != 0) return 4;
                      if (xf->xf_undo != 0) return 5;
                      nisclose(fd);
                      nisunisam();
                      return 0;
                  }),
                  0);
        EXPECT_TRUE(kt::sound(path_));
    }

    std::string path_, other_;
    uint64_t seed_ = 0;
    unsigned ids_ = 0;
    bool fight_ = false;
    const kg::Layout* L_ = &kL;
    // Of all writers: record locks refused, and waits for record locks.
    std::atomic<long>* refused_ = &shared<std::atomic<long>>();
    std::atomic<long>* waited_ = &shared<std::atomic<long>>();
    std::array<std::pair<long, long>, 3>* figures_ = &shared<std::array<std::pair<long, long>, 3>>();
    std::atomic<bool>* stop_ = &shared<std::atomic<bool>>();
    std::array<uint32_t, 1000>* gens_ = &shared<std::array<uint32_t, 1000>>();  // by id: the last generation written
};

// Readers beside writers: two of each with the file in the pool (most reads take no
// lock) and in a small pool (misses and steals of the read file's slots all the time);
// then three readers and a writer in a pool of 24 slots, where readers take slots from
// each other (a load leaves the change count alone) and where a reader last found a page
// is mostly some other page's slot.  There the readers first run alone, every miss loaded
// into the pool: a slot noted for a page that now holds another is passed over for the
// page index, so that nearly every read still goes without the lock (one whose slot
// changed under it while it read takes the lock after two tries).  Last, four writers in
// a pool of 24, two on attachments of their own and two on the one of the process that
// forked them.  And three writers that fight over the same records under record locks,
// on trees of three items a page, where nearly every change splits or merges and the
// hints of every call go stale.  Each record ends as its last change left it.
TEST_F(ReadNoLockMp, ReadersCheckEveryRecordWhileWritersChangeThem) {
    struct Row {
        const char* name;
        int buffers, readers, writers, changes;
        long made;         // reads each reader makes beside the writers (they start first), however slowly it runs
        long least = 0;    // reads each reader makes whatever the writers do
        unsigned ids = 400;
        bool fight = false;
    };
    for (const Row& row : {Row{"the file in the pool", 2000, 2, 2, 1500, 1000}, Row{"a small pool", 96, 2, 2, 250, 100},
                           Row{"readers take slots from each other", 24, 3, 1, 600, 1000, 5000, 900},
                           Row{"four writers in a small pool", 24, 2, 4, 1000, 100},
                           Row{"writers fight over records of long keys", 2000, 2, 3, 300, 100, 0, 200, true}}) {
        SCOPED_TRACE(row.name);
        start(row.buffers, row.ids, row.fight);
        figures_->fill({});
        if (row.readers == 3) {
            for (int st : workers(3, [&](int r) { return reader(r, 3000, true); })) EXPECT_EQ(st, 0);
            for (auto [reads, nolock] : *figures_) EXPECT_GE(nolock, reads * 9 / 10);
        }
        const std::vector<pid_t> readers = spawn(row.readers, [&](int r) { return reader(r, std::max(row.least, row.made + 1)); });
        const bool inherit = row.writers == 4;
        if (inherit) { ASSERT_EQ(is_init(), 0); }
        for (int st : workers(row.writers, [&](int w) {
                 if (inherit && w % 2 == 0) kt::become_unattached();
                 return writer(w, row.writers, row.changes, row.buffers == 96 && w == 0, inherit && w % 2 == 1);
             }))
            EXPECT_EQ(st, 0);
        if (inherit) { EXPECT_EQ(nisunisam(), 0); }
        *stop_ = true;
        for (pid_t p : readers) EXPECT_EQ(kt::wait_child(p), 0);
        if (row.fight) std::printf("record locks refused %ld, waited for %ld\n", refused_->load(), waited_->load());
        for (int r = 0; r < row.readers; ++r) {
            auto [reads, nolock] = (*figures_)[static_cast<size_t>(r)];
            if (row.buffers == 2000) { EXPECT_GT(nolock, reads / 10) << "reader " << r; }
        }
        final_check();
    }
}

struct Stop {
    const char* name;
    int where;      // kisam::kHook*
    bool kill;      // killed there, else paused for a while
    int buffers;
    bool fight = false;   // long keys, changes under record locks (the writer dies holding one)
};
void PrintTo(const Stop& s, std::ostream* os) { *os << s.name << ", " << s.buffers << " buffers" << (s.fight ? ", long keys" : ""); }

class ReadNoLockStop : public ReadNoLockMp, public ::testing::WithParamInterface<Stop> {};

// The stopping writer's hook state (a forked child's own copy).
Stop hook_stop;
int hook_count = 0, hook_at = 0, hook_file = -1;
kt::Pipe* hook_pipe = nullptr;  // to the parent: 'p' stopped with the count odd, 'e' even, 'r' going on

void stop_hook(int where, int u) {
    if (where != hook_stop.where || u != hook_file || ++hook_count != hook_at) return;
    hook_pipe->signal(kisam::isx_file_of(u)->xf_seq % 2 ? 'p' : 'e');  // odd: a change under way
    if (hook_stop.kill) ::kill(::getpid(), SIGKILL);
    ::usleep(400000);
    hook_pipe->signal('r');
}

// A writer paused or killed in a change (a page touched, a slot loading, a victim taken)
// while two readers read on: every record read is right, nobody hangs, and the next
// writer repairs and goes on.  With long keys, the killed change may be a split or a
// merge running through the tree's six levels, made under a record lock that dies with
// the writer.
TEST_P(ReadNoLockStop, ReadersStayRight) {
    const Stop st = GetParam();
    start(st.buffers, 400, st.fight);
    // Each reader goes on to 51 reads at least, however slowly the machine lets it run.
    const std::vector<pid_t> readers = spawn(2, [&](int r) { return reader(r, 51); });
    kt::Pipe hook;   // after the readers: a writer that fails before its hook leaves an end of file
    const int at = 3 + static_cast<int>(std::mt19937(static_cast<unsigned>(seed_))() % 20);
    pid_t w = kt::start_child([&] {
        hook_stop = st;
        hook_at = at;
        hook_pipe = &hook;
        hook.close_read();
        if (is_init() != 0) return 80;
        int fd = nisopen(path_.c_str(), ISO_RDWR);
        if (fd < 0) return 81;
        hook_file = is_db[fd]->uniqueid;
        kisam::test_hook = stop_hook;
        return writer(0, 1, 400, st.where == kisam::kHookTakeAway);
    });
    hook.close_write();
    const char first = hook.wait();
    // Loads and take-aways may come outside a change (count even): readers check the slot.
    const bool stopped = first == 'p' || (first == 'e' && st.where != kisam::kHookTouch);
    EXPECT_TRUE(stopped) << "the writer did not stop where it should (seed " << seed_ << ")";
    if (!st.kill && stopped) { EXPECT_EQ(hook.wait(), 'r'); }
    EXPECT_EQ(kt::wait_child(w), st.kill ? 128 + SIGKILL : 0);
    EXPECT_EQ(kt::run_child([&] { return writer(0, 1, 300, false); }), 0);
    *stop_ = true;
    for (pid_t p : readers) EXPECT_EQ(kt::wait_child(p), 0);
    final_check(st.kill ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Hooks, ReadNoLockStop,
                         ::testing::Values(Stop{"PauseTouch", kisam::kHookTouch, false, 2000},
                                           Stop{"KillTouch", kisam::kHookTouch, true, 2000},
                                           Stop{"KillLoad", kisam::kHookLoad, true, 96},
                                           Stop{"PauseTakeAway", kisam::kHookTakeAway, false, 96},
                                           Stop{"KillTakeAway", kisam::kHookTakeAway, true, 96},
                                           Stop{"KillTouchLongKeys", kisam::kHookTouch, true, 2000, true}),
                         [](const ::testing::TestParamInfo<Stop>& i) { return std::string(i.param.name); });

// ---- key 0's leaf directory against a tree that other processes reshape ----------------
//
// Between rounds of another process's splits and merges, the reader's finds, steps and
// scans agree with a model; most searches go through the directory, stale entries drop.
const kg::Layout kD{.k1 = 1000000, .small_span = 40};
constexpr unsigned kDirIds = 6000;
using DirModel = std::map<unsigned, uint32_t>;  // id -> generation

class LeafDirMp : public kt::Env, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        kt::Config c;
        c.maxbuf = static_cast<int16_t>(GetParam());
        start(c);
        path_ = made("d.ism", kD.lens());
        seed_ = kt::test_seed(0x1EAF00 + static_cast<uint64_t>(GetParam()));
    }

    // Round r's changes to the model and (fd >= 0) the file; 0 or a code.
    int round(int r, DirModel& m, int fd) {
        std::mt19937 rng(static_cast<unsigned>(seed_) * 31 + static_cast<unsigned>(r));
        auto put = [&](unsigned id) {
            const bool had = m.count(id) != 0;
            const uint32_t gen = m[id] += 1;
            if (fd < 0) return 0;
            const std::string rec = kg::record(kD, id, gen);
            const int len = static_cast<int>(rec.size());
            return (had ? nisupdate(fd, rec.data(), len) : niswrite(fd, rec.data(), len)) == 0 ? 0 : 80;
        };
        auto del = [&](unsigned id) { return !m.erase(id) || fd < 0 || nisdelete(fd, kg::key0(id).data()) == 0 ? 0 : 81; };
        int rc = 0;
        const unsigned from = static_cast<unsigned>(rng() % kDirIds);
        const unsigned len = 200 + static_cast<unsigned>(rng() % 1200);
        const bool grow = rng() % 3 != 0;
        for (unsigned id = from; rc == 0 && id < from + len && id < kDirIds; ++id) rc = grow ? put(id) : del(id);
        for (int i = 0; rc == 0 && i < 300; ++i) {
            const unsigned id = static_cast<unsigned>(rng() % kDirIds);
            rc = rng() % 3 == 0 ? del(id) : put(id);
        }
        return rc;
    }

    void check(int fd, const DirModel& m, std::mt19937& rng) {
        char buf[256];
        auto same = [&](int n, unsigned id) { return kg::is(kD, buf, n, id, m.at(id)); };
        for (int i = 0; i < 400; ++i) {
            const unsigned id = static_cast<unsigned>(rng() % kDirIds);
            const int n = nisfind(fd, 0, kg::key0(id).data(), buf, sizeof buf);
            if (m.count(id)) ASSERT_TRUE(same(n, id)) << "find " << id << " gave " << n;
            else ASSERT_EQ(n, 0) << "find of absent " << id;
        }
        for (int i = 0; i < 40; ++i) {
            const unsigned id = static_cast<unsigned>(rng() % kDirIds);
            ASSERT_EQ(nisseek(fd, 0, kg::key0(id).data()), 0);
            const bool back = rng() % 2;
            auto it = back ? m.upper_bound(id) : m.lower_bound(id);
            for (int step = 0; step < 12; ++step) {
                const int n = back ? nispread(fd, 0, buf, sizeof buf) : nisread(fd, 0, buf, sizeof buf);
                if (back ? it == m.begin() : it == m.end()) {
                    ASSERT_EQ(n, 0) << "past the end from " << id;
                    break;
                }
                if (back) --it;
                ASSERT_TRUE(same(n, it->first)) << "step from " << id << " to " << it->first << " gave " << n;
                if (!back) ++it;
            }
        }
        // Along key 1: its bytes, then the id among equal ones.
        std::vector<std::pair<std::string, unsigned>> want;
        for (const auto& [id, gen] : m) want.emplace_back(kg::record(kD, id, gen).substr(kg::kK0, kg::kK1), id);
        std::sort(want.begin(), want.end());
        ASSERT_EQ(kisam_rewind(fd, 1), 0);
        for (const auto& w : want) ASSERT_TRUE(same(nisread(fd, 1, buf, sizeof buf), w.second)) << "scan along key 1 at " << w.second;
        ASSERT_EQ(nisread(fd, 1, buf, sizeof buf), 0);
    }

    std::string path_;
    uint64_t seed_ = 0;
};

TEST_P(LeafDirMp, AReaderKeepsRightWhileAnotherProcessReshapesTheTree) {
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed_));
    ASSERT_EQ(is_init(), 0);
    const int fd = nisopen(path_.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    DirModel m;
    std::mt19937 rng(static_cast<unsigned>(seed_));
    const unsigned long hits0 = is_leafdir_hits, drops0 = is_leafdir_drops, nolock0 = is_nolock_reads;
    for (int r = 0; r < 24 && !HasFailure(); ++r) {
        SCOPED_TRACE("round " + std::to_string(r));
        ASSERT_EQ(kt::run_child([&] {
                      kt::become_unattached();
                      if (is_init() != 0) return 90;
                      const int w = nisopen(path_.c_str(), ISO_RDWR);
                      if (w < 0) return 91;
                      DirModel mine = m;
                      const int rc = round(r, mine, w);
                      nisclose(w);
                      nisunisam();
                      return rc;
                  }),
                  0);
        ASSERT_EQ(round(r, m, -1), 0);
        check(fd, m, rng);
    }
    const unsigned long hits = is_leafdir_hits - hits0, drops = is_leafdir_drops - drops0;
    const unsigned long nolock = is_nolock_reads - nolock0;
    std::printf("reads without the lock %lu, through the leaf directory %lu, entries dropped %lu\n", nolock, hits, drops);
    EXPECT_GT(hits, nolock / 4);
    EXPECT_GT(drops, 0u);
    ASSERT_EQ(nisclose(fd), 0);
    ASSERT_EQ(nisunisam(), 0);
    EXPECT_TRUE(kt::sound(path_));
}

INSTANTIATE_TEST_SUITE_P(Pools, LeafDirMp, ::testing::Values(2000, 40));

}  // namespace
