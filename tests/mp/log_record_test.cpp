// The redo log's records: page deltas that replay exactly, and real processes whose
// records are killed, torn, or of another version.
#include "../engine/open_fixture.h"
#include "oracle.h"

#include "bt.h"
#include "lg_internal.h"
#include "os.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

namespace lg = kisam::lg;
constexpr int kP = kisam::kPage;

// ---- the entries of one page ------------------------------------------------------------

struct Page {
    unsigned char c[kP];
};

// Applies the entries at [p, end) to page; false where replay would refuse.
bool replay_entries(const char* p, const char* end, uint32_t n, uint64_t off, unsigned char* page) {
    for (uint32_t i = 0; i < n; ++i) {
        if (end - p < static_cast<long>(sizeof(lg::lg_ent))) return false;
        lg::lg_ent e;
        std::memcpy(&e, p, sizeof e);
        p += sizeof e;
        if (e.le_off != off || !lg::apply_entry(page, e, p)) return false;
        p += lg::round8(e.le_len);
    }
    return p == end;
}

// An index page of n items of inc bytes after a header of key k; garbage past them.
void index_page(Page& pg, std::mt19937_64& rng, int k, int n, int inc) {
    for (auto& b : pg.c) b = static_cast<unsigned char>(rng() % 4 == 0 ? rng() : 0);
    kisam::store_at<int16_t>(pg.c, static_cast<int16_t>(k));
    kisam::store_at<int16_t>(pg.c + 2, static_cast<int16_t>(n));
    for (int i = 8; i < 8 + n * inc; ++i) pg.c[i] = static_cast<unsigned char>('0' + rng() % 10);
}

class LogDelta : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { lg::use_plain_compare(GetParam()); }
    void TearDown() override { lg::use_plain_compare(false); }
};
INSTANTIATE_TEST_SUITE_P(Compare, LogDelta, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Plain" : "Vector"; });

// A call's notes as the journal keeps them: the first move as is, later ones as blocks.
void note(jn_change& kept, bool first, const jn_change& c) {
    if (first) {
        kept = c;
        return;
    }
    kept.blocks |= c.blocks;
    if (c.mv_by != 0) {
        const int lo = c.mv_by < 0 ? c.mv_from + c.mv_by : c.mv_from;
        const int hi = c.mv_from + c.mv_len + (c.mv_by > 0 ? c.mv_by : 0);
        kept.blocks |= kisam::bt_blocks(lo, hi);
    }
}

// Items put in, taken out, addresses exchanged and bytes overwritten, noted as a call
// notes them.  The entries made from the notes, from a guess of the move (sometimes
// wrong) and of the page whole give the page back exactly, never longer than the whole
// page; an item put in costs a few dozen bytes, not the bytes it moved.
TEST_P(LogDelta, PageChangesComeBackExactlyAndNoLongerThanTheWholePage) {
    std::mt19937_64 rng(kt::test_seed(20261127));
    std::vector<char> buf(4 * kP);
    IS_FCP fcp{};  // no keys: a page noted anywhere falls back to the compare of it all
    // Whether the entries [buf, end) are no longer than the whole page and give `now` back.
    const auto gives = [&](const char* end, uint32_t nent, Page got, const Page& now) {
        return end - buf.data() <= static_cast<long>(sizeof(lg::lg_ent) + kP) &&
               replay_entries(buf.data(), end, nent, 4096, got.c) && std::memcmp(got.c, now.c, kP) == 0;
    };
    const auto small = [&](const char* end, int inc) {
        return end - buf.data() <= 3 * 16 + 8 + 8 + static_cast<long>(lg::round8(inc)) + 8;
    };
    long moves = 0, inserts = 0, guessed = 0, small_noted = 0, small_guessed = 0;
    for (int round = 0; round < 20000; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        Page was, now;
        const int inc = 8 + 2 * static_cast<int>(rng() % 20);
        const int order = (kP - 8) / inc;
        int n = 2 + static_cast<int>(rng() % (order - 2));
        index_page(was, rng, static_cast<int>(rng() % 3), n, inc);
        now = was;
        jn_change kept{0, 0, 0, 0};
        const int ops = 1 + static_cast<int>(rng() % 3);
        for (int k = 0; k < ops; ++k) {
            const int op = static_cast<int>(rng() % (k == 0 ? 3 : 5));
            const int j = static_cast<int>(rng() % n);
            jn_change c{};
            if (op == 0 && n < order) {  // put in at j (the split never comes here)
                c = kisam::bt_put_change(j, n, inc);
                unsigned char* at = now.c + 8 + j * inc;
                std::memmove(at + inc, at, static_cast<size_t>((n - j) * inc));
                for (int i = 0; i < inc; ++i) at[i] = static_cast<unsigned char>('a' + rng() % 26);
                kisam::store_at<int16_t>(now.c + 2, static_cast<int16_t>(++n));
            } else if (op == 1 && n > 1) {  // take out j
                c = kisam::bt_take_change(j, n, inc);
                unsigned char* at = now.c + 8 + j * inc;
                std::memmove(at, at + inc, static_cast<size_t>((n - 1 - j) * inc));
                kisam::store_at<int16_t>(now.c + 2, static_cast<int16_t>(--n));
            } else if (op == 2) {  // an address exchanged in item j
                const int at = 8 + j * inc + inc - 8;
                c = kisam::bt_swap_change(at);
                for (int i = 0; i < 4; ++i) now.c[at + i] = static_cast<unsigned char>(rng());
            } else {  // bytes overwritten, noted as the blocks they lie in
                const int at = static_cast<int>(rng() % kP);
                const int len = std::min(kP - at, 1 + static_cast<int>(rng() % 100));
                for (int i = 0; i < len; ++i) now.c[at + i] = static_cast<unsigned char>(rng());
                c = {kisam::bt_blocks(at, at + len), 0, 0, 0};
            }
            note(kept, k == 0, c);
        }
        const bool insert = ops == 1 && kept.mv_by > 0;
        uint32_t nent = 0;
        const char* end = lg::put_delta(buf.data(), &nent, 4096, was.c, now.c, &fcp, kept);
        ASSERT_TRUE(gives(end, nent, was, now)) << "from the notes: blocks " << std::hex << kept.blocks << std::dec
                                                << " move " << kept.mv_from << "+" << kept.mv_len << " by " << kept.mv_by;
        inserts += insert;
        small_noted += insert && small(end, inc);
        // The first move guessed, or a wrong guess.
        const int shift = rng() % 4 == 0 ? static_cast<int>(rng() % 81) - 40 : kept.mv_by;
        nent = 0;
        end = lg::put_delta(buf.data(), &nent, 4096, was.c, now.c, shift);
        ASSERT_TRUE(gives(end, nent, was, now)) << "from a guess of the move by " << shift << " (" << kept.mv_by << ")";
        if (insert && shift == kept.mv_by) {
            ++guessed;
            small_guessed += small(end, inc);
        }
        for (const char* p = buf.data(); p < end;) {
            lg::lg_ent e;
            std::memcpy(&e, p, sizeof e);
            moves += e.le_kind == lg::kMoveEntry;
            p += sizeof e + lg::round8(e.le_len);
        }
        // The page logged whole, with runs of zeros as new pages have, sets every byte.
        Page whole = now, other;
        for (int k = static_cast<int>(rng() % 3); k > 0; --k) {
            const int at = static_cast<int>(rng() % kP);
            std::memset(whole.c + at, 0, rng() % (kP - at));
        }
        for (int i = 0; i < kP; ++i) other.c[i] = static_cast<unsigned char>(~whole.c[i]);
        nent = 0;
        end = lg::put_fresh(buf.data(), &nent, 4096, whole.c);
        ASSERT_TRUE(gives(end, nent, other, whole)) << "logged whole";
    }
    EXPECT_GT(moves, 5000);
    EXPECT_GT(inserts, 2000);
    EXPECT_GE(small_noted, inserts * 9 / 10) << "items put in were logged from the notes as the bytes they moved";
    EXPECT_GE(small_guessed, guessed * 9 / 10) << "items put in were logged from the guess as the bytes they moved";
}

// A new page of one record logged whole is short (its zeros are not logged byte by byte).
TEST(LogEntry, ANewPageOfOneRecordIsLoggedShort) {
    std::vector<char> buf(2 * kP);
    Page data{};
    kisam::store_at<uint16_t>(data.c, 0x8002);
    kisam::store_at<int16_t>(data.c + 4, static_cast<int16_t>(kP - 2 - 102));
    for (int i = kP - 102; i < kP; ++i) data.c[i] = 'r';
    uint32_t nent = 0;
    EXPECT_LT(lg::put_fresh(buf.data(), &nent, 8192, data.c) - buf.data(), kP / 3);
}

// A change its note does not cover is caught as the record is made.
TEST(LogEntryDeath, AChangeOutsideItsNoteEndsTheProcess) {
    Page was{}, now{};
    now.c[700] = 1;  // block 21, noted: block 0
    IS_FCP fcp{};
    std::vector<char> buf(2 * kP);
    uint32_t nent = 0;
    EXPECT_DEATH(lg::put_delta(buf.data(), &nent, 4096, was.c, now.c, &fcp, jn_change{1, 0, 0, 0}),
                 "miss a change");
}

// The control page: runs of what changed, nothing when nothing did.
TEST_P(LogDelta, ControlPageRunsComeBackExactly) {
    std::mt19937_64 rng(kt::test_seed(7));
    std::vector<char> buf(2 * kP);
    for (int round = 0; round < 5000; ++round) {
        unsigned char was[kisam::kFcpImage], now[kisam::kFcpImage];
        for (auto& b : was) b = static_cast<unsigned char>(rng() % 3 ? 0 : rng());
        std::memcpy(now, was, sizeof now);
        for (int k = static_cast<int>(rng() % 5); k > 0; --k) now[rng() % sizeof now] ^= 1 + rng() % 255;
        uint32_t nent = 0;
        char* const end = lg::put_part(buf.data(), &nent, 0, lg::kControlEntry, was, now, kisam::kFcpImage);
        if (std::memcmp(was, now, sizeof was) == 0) {
            EXPECT_EQ(end, buf.data());
            continue;
        }
        ASSERT_LE(end - buf.data(), static_cast<long>(sizeof(lg::lg_ent) + kisam::kFcpImage));
        unsigned char got[kisam::kFcpImage];
        std::memcpy(got, was, sizeof got);
        const char* p = buf.data();
        for (uint32_t i = 0; i < nent; ++i) {
            lg::lg_ent e;
            std::memcpy(&e, p, sizeof e);
            ASSERT_EQ(e.le_kind, static_cast<uint32_t>(lg::kControlEntry));
            ASSERT_LE(e.le_at + e.le_len, sizeof got);
            std::memcpy(got + e.le_at, p + sizeof e, e.le_len);
            p += sizeof e + lg::round8(e.le_len);
        }
        ASSERT_EQ(p, end);
        ASSERT_EQ(std::memcmp(got, now, sizeof got), 0) << "round " << round;
    }
}

// A move that reaches past the page, or of a kind replay does not know, is refused.
TEST(LogEntry, EntriesThatDoNotFitThePageAreRefused) {
    struct Row {
        const char* name;
        lg::lg_ent e;
        lg::lg_move m;
        bool applies;
    } const rows[] = {
        {"moved to past the page", {0, 1000, 8, lg::kMoveEntry}, {0, 100, 0}, false},
        {"moved from past the page", {0, 100, 8, lg::kMoveEntry}, {1000, 100, 0}, false},
        {"padding not zero", {0, 100, 8, lg::kMoveEntry}, {0, 10, 1}, false},
        {"a kind replay does not know", {0, 0, 8, 9}, {0, 10, 0}, false},
        {"a move that fits", {0, 100, 8, lg::kMoveEntry}, {0, 10, 0}, true},
    };
    Page pg{};
    for (const Row& r : rows) EXPECT_EQ(lg::apply_entry(pg.c, r.e, &r.m), r.applies) << r.name;
}

// ---- records of real processes -----------------------------------------------------------

namespace ko = kt::oracle;
const ko::Layout kL{8, 6, 4};
constexpr int kSize = 60;

class LogRecord : public ot::Env {
protected:
    // A damaged replay may leave an index that loops: fail by the bound, not hang.
    void SetUp() override {
        ot::Env::SetUp();
        bound(280);
    }
    // Ids put in in random order, then some taken out among more put in.
    struct Call {
        bool del;
        int id;
    };
    std::vector<Call> calls(int warm, int more) {
        std::mt19937 rng(12345);
        std::vector<int> ids(static_cast<size_t>(warm + more));
        for (size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<int>(i) * 7;
        std::shuffle(ids.begin(), ids.end(), rng);
        std::vector<Call> c;
        for (int i = 0; i < warm; ++i) c.push_back({false, ids[static_cast<size_t>(i)]});
        std::vector<int> gone(ids.begin(), ids.begin() + warm);
        std::shuffle(gone.begin(), gone.end(), rng);
        for (int i = 0; i < more; ++i) {
            if (i % 3 == 2) c.push_back({true, gone[static_cast<size_t>(i / 3)]});
            else c.push_back({false, ids[static_cast<size_t>(warm + i)]});
        }
        return c;
    }
    static int apply(int fd, const Call& c) {
        const std::string r = ko::record(kL, c.id, 0, kSize);
        return c.del ? nisdelete(fd, const_cast<char*>(r.data())) : niswrite(fd, r.data(), kSize);
    }
    static ko::Model model(const std::vector<Call>& c, size_t n) {
        ko::Model m;
        for (size_t i = 0; i < n; ++i) {
            if (c[i].del) m.erase(c[i].id);
            else m[c[i].id] = ko::Rec{0, kSize};
        }
        return m;
    }
    std::string log_path() const { return lock() + ".w0"; }

    // A child makes the calls and is killed before any page reached the file; the
    // segment goes.  The log holds every call.
    void leave_in_log(const std::string& file, const std::vector<Call>& c) {
        const pid_t kid = hold([&] {
            int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            for (const Call& x : c)
                if (apply(fd, x) != 0) return 2;
            return 0;
        });
        kill(kid);
        ASSERT_TRUE(inst_->remove_segment());
    }
};

// The log's header and the offsets of its current generation's records.
struct LogImage {
    std::string bytes;
    lg::lg_head head{};
    std::vector<size_t> recs;
    explicit LogImage(const std::string& path) : bytes(kt::slurp(path)) {
        for (int i = 0; i < 2 && bytes.size() >= 1024; ++i) {
            lg::lg_head h;
            std::memcpy(&h, bytes.data() + i * 512, sizeof h);
            if (h.lh_magic == lg::kHeadMagic && h.lh_gen >= head.lh_gen) head = h;
        }
        uint64_t lsn = head.lh_start;
        for (size_t at = 1024; at + sizeof(lg::lg_rec) <= bytes.size();) {
            lg::lg_rec r;
            std::memcpy(&r, bytes.data() + at, sizeof r);
            if (r.lr_magic != lg::kRecMagic || r.lr_gen != head.lh_gen || r.lr_lsn != lsn || r.lr_len < sizeof r)
                break;
            recs.push_back(at);
            at += r.lr_len;
            lsn += r.lr_len;
        }
    }
    lg::lg_rec rec(size_t i) const {
        lg::lg_rec r;
        std::memcpy(&r, bytes.data() + recs[i], sizeof r);
        return r;
    }
    void seal(size_t i) {
        lg::lg_rec r = rec(i);
        r.lr_sum = 0;
        std::memcpy(bytes.data() + recs[i], &r, sizeof r);
        r.lr_sum = lg::checksum(bytes.data() + recs[i], r.lr_len);
        std::memcpy(bytes.data() + recs[i], &r, sizeof r);
    }
    void set_version(uint32_t v) {
        lg::lg_head h = head;
        h.lh_version = v;
        h.lh_sum = lg::checksum(&h, offsetof(lg::lg_head, lh_sum));
        std::memcpy(bytes.data() + (h.lh_gen & 1) * 512, &h, sizeof h);
    }
    void save(const std::string& path) const { kt::spit(path, bytes); }
};

// Killed at every store of the records of calls that change logged pages again (runs and
// moves): the file holds exactly the calls that returned.
std::atomic<int>* g_returned = nullptr;
int g_stores_left = 0;
int killing_mstore(int fd, char* map, off_t off, const void* src, size_t n) {
    if (g_stores_left > 0 && --g_stores_left == 0) ::kill(::getpid(), SIGKILL);
    return kisam::os_real.mstore(fd, map, off, src, n);
}

TEST_F(LogRecord, KilledAtEveryStoreOfItsRecordsTheFileHoldsTheCallsThatReturned) {
    constexpr int kWarm = 120, kMore = 30;
    const std::vector<Call> c = calls(kWarm, kMore);
    const std::string file = made("f", kL.lens());
    const std::string fresh = kt::slurp(file);
    std::atomic<int>& returned = shared<std::atomic<int>>();
    g_returned = &returned;
    int killed = 0;
    for (int k = 1;; ++k) {
        SCOPED_TRACE("killed at store " + std::to_string(k));
        kt::spit(file, fresh);
        returned.store(0);
        const pid_t kid = spawn(1, [&](int) {
            int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 1;
            for (size_t i = 0; i < c.size(); ++i) {
                if (i == kWarm) {
                    kisam::os.mstore = killing_mstore;
                    g_stores_left = k;
                }
                if (apply(fd, c[i]) != 0) return 2;
                g_returned->store(static_cast<int>(i + 1));
            }
            return 0;
        })[0];
        const int st = kt::wait_child(kid);
        ASSERT_TRUE(st == 0 || st == 128 + SIGKILL) << st;
        ASSERT_TRUE(inst_->remove_segment() || st == 0);
        const int n = returned.load();
        ASSERT_GE(n, kWarm);
        ASSERT_TRUE(ko::holds(file, kL, model(c, static_cast<size_t>(n))));
        if (st == 0) break;
        ++killed;
    }
    EXPECT_GE(killed, kMore) << "fewer stores than calls: the records were not stored through the mapping";
}

// A log changed after its writer was killed: a record torn at its end is not replayed (the
// calls before it are); an unknown entry kind or a newer header is refused, file and log
// left as they were; a first-version log is replayed.
TEST_F(LogRecord, ALogOfAnotherVersionIsReplayedOrRefusedNeverMisread) {
    const std::vector<Call> c = calls(60, 20);
    const int all = static_cast<int>(c.size());
    const std::string file = made("f", kL.lens());
    const std::string fresh = kt::slurp(file);
    struct Row {
        const char* name;
        std::function<void(LogImage&)> change;
        int replayed;  // calls the file then holds; -1: refused
    } const rows[] = {
        {"ARecordTornAtItsEndIsNotReplayed", [](LogImage& img) {
             std::memset(img.bytes.data() + img.recs.back() + img.rec(img.recs.size() - 1).lr_len - 8, 0, 8);
         }, all - 1},
        {"an entry of an unknown kind", [](LogImage& img) {
             const size_t i = img.recs.size() / 2;
             lg::lg_ent e;
             std::memcpy(&e, img.bytes.data() + img.recs[i] + sizeof(lg::lg_rec), sizeof e);
             e.le_kind = 9;
             std::memcpy(img.bytes.data() + img.recs[i] + sizeof(lg::lg_rec), &e, sizeof e);
             img.seal(i);
         }, -1},
        {"a header of a newer version", [](LogImage& img) { img.set_version(lg::kVersion + 1); }, -1},
        {"a header of the first version", [](LogImage& img) { img.set_version(1); }, all},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ::unlink(log_path().c_str());
        kt::spit(file, fresh);
        leave_in_log(file, c);
        LogImage img(log_path());
        ASSERT_EQ(img.recs.size(), c.size());
        row.change(img);
        img.save(log_path());
        if (row.replayed >= 0) {
            EXPECT_TRUE(ko::holds(file, kL, model(c, static_cast<size_t>(row.replayed))));
            continue;
        }
        const std::string log = kt::slurp(log_path());
        EXPECT_EQ(nisopen(file.c_str(), ISO_RDWR), -1) << "opened over a log it cannot read";
        EXPECT_EQ(is_errno, ISE_OPENF);
        nisunisam();
        EXPECT_EQ(kt::slurp(file), fresh) << "the file changed";
        EXPECT_EQ(kt::slurp(log_path()), log) << "the log changed";
    }
}

}  // namespace
