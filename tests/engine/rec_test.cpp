// Record operations against an in-memory model: a long random mix of writes, forced
// writes, updates, deletes and reads in every mode along every key, checked after every
// step, then the whole file by the structural checker.  KISAM_SEED replays a run.
#include "kisam_test.h"

#include "kcheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

struct Shape {
    std::vector<int> keylens;
    bool keyopt;
    short split_half;
    int magic;      // 512 or 1024
    int ops;
};

void PrintTo(const Shape& s, std::ostream* os) {
    *os << "keys";
    for (int l : s.keylens) *os << ' ' << l;
    *os << (s.keyopt ? ", key option" : "") << ", Sp_half " << s.split_half << ", " << s.magic
        << "-byte control page, " << s.ops << " steps";
}

class Model {
public:
    explicit Model(const std::vector<int>& kl) : kl_(kl), items_(kl.size()) {
        for (int l : kl) minrec_ += l;
        int pos = 0;
        for (int l : kl) {
            pos_.push_back(pos);
            pos += l;
        }
    }
    int nkeys() const { return static_cast<int>(kl_.size()); }
    int kl(int k) const { return kl_[static_cast<size_t>(k)]; }
    int minrec() const { return minrec_; }
    int offset(int k) const { return (kl(k) + 1) & ~1; }
    int ncomp(int k) const { return k == 0 ? kl(0) : offset(k) + kl(0); }
    std::string key(const std::string& rec, int k) const {
        return rec.substr(static_cast<size_t>(pos_[static_cast<size_t>(k)]), static_cast<size_t>(kl(k)));
    }
    // The compared part of the index item of rec under key k.
    std::string item(const std::string& rec, int k) const {
        if (k == 0) return key(rec, 0);
        return make_item(k, key(rec, k), key(rec, 0));
    }
    std::string make_item(int k, const std::string& value, const std::string& key0) const {
        std::string it = value;
        if (kl(k) & 1) it += '\0';
        return k == 0 ? value : it + key0;
    }
    const std::set<std::string>& items(int k) const { return items_[static_cast<size_t>(k)]; }
    std::string key0_of_item(int k, const std::string& it) const {
        return k == 0 ? it : it.substr(static_cast<size_t>(offset(k)), static_cast<size_t>(kl(0)));
    }

    const std::string* find(const std::string& key0) const {
        auto it = recs_.find(key0);
        return it == recs_.end() ? nullptr : &it->second;
    }
    void put(const std::string& rec) {
        erase(key(rec, 0));
        recs_[key(rec, 0)] = rec;
        for (int k = 0; k < nkeys(); ++k) items_[static_cast<size_t>(k)].insert(item(rec, k));
    }
    void erase(const std::string& key0) {
        auto it = recs_.find(key0);
        if (it == recs_.end()) return;
        for (int k = 0; k < nkeys(); ++k) items_[static_cast<size_t>(k)].erase(item(it->second, k));
        recs_.erase(it);
    }
    size_t size() const { return recs_.size(); }
    const std::map<std::string, std::string>& all() const { return recs_; }

private:
    std::vector<int> kl_;
    std::vector<int> pos_;
    int minrec_ = 0;
    std::map<std::string, std::string> recs_;
    std::vector<std::set<std::string>> items_;
};

// Cursor of one key as the model sees it: state and compared item bytes.
struct Cursor {
    int state = 0;
    std::string item;
};

class RecordModel : public ::testing::TestWithParam<Shape> {
protected:
    void SetUp() override {
        const Shape& sh = GetParam();
        seed_ = kt::test_seed(0x5eed0000u + static_cast<uint64_t>(sh.ops) + sh.keylens.size() * 7);
        rng_.seed(seed_);
        ASSERT_EQ(is_init(), 0);
        path_ = inst_.path("model.ism");
        niscr_ctl(1, sh.magic);
        Sp_half = sh.split_half;
        int n = static_cast<int>(sh.keylens.size());
        fd_ = niscreate(path_.c_str(), sh.keyopt ? -n : n, sh.keylens.data());
        ASSERT_GE(fd_, 0);
        if (!sh.keyopt) {
            // The key option comes from the create options when the count is positive.
            ASSERT_EQ(nisclose(fd_), 0);
            ::unlink(path_.c_str());
            niscr_ctl(0, sh.magic);
            fd_ = niscreate(path_.c_str(), n, sh.keylens.data());
            ASSERT_GE(fd_, 0);
        }
        model_ = std::make_unique<Model>(sh.keylens);
        cur_.assign(sh.keylens.size(), Cursor());
        for (int k = 0; k < n; ++k) {
            std::vector<std::string> vals;
            for (int v = 0; v < 6 + 2 * k; ++v) vals.push_back(random_bytes(model_->kl(k)));
            values_.push_back(vals);
        }
        buf_.assign(70000, 0);
    }
    void TearDown() override {
        if (fd_ >= 0) nisclose(fd_);
        nisunisam();
        Sp_half = 1;
    }

    std::string random_bytes(int n) {
        static const unsigned char alphabet[] = {0x00, 0x01, 0x41, 0x7F, 0x80, 0xC3, 0xFE, 0xFF};
        std::string s(static_cast<size_t>(n), '\0');
        for (auto& c : s) c = static_cast<char>(alphabet[rng_() % sizeof alphabet]);
        return s;
    }
    // Key 0 value of id: a bijection of 16 bits spreads the values over the byte range.
    std::string key0(unsigned id) const {
        const int kl = model_->kl(0);
        std::string s(static_cast<size_t>(kl), '\0');
        unsigned v = (id * 40503u) & 0xFFFF;
        s[0] = static_cast<char>(v >> 8);
        if (kl > 1) s[1] = static_cast<char>(v & 0xFF);
        for (int i = 2; i < kl; ++i) s[static_cast<size_t>(i)] = static_cast<char>((v * (i + 3)) >> 3);
        return s;
    }
    int record_length() {
        const int minrec = model_->minrec();
        unsigned r = rng_() % 1000;
        if (r < 2) return 65534;
        if (r < 80) return minrec + static_cast<int>(rng_() % 5000);
        if (r < 150) return minrec;
        return minrec + static_cast<int>(rng_() % 300);
    }
    std::string make_record(const std::string& k0, const std::string* old, bool keep_alternates) {
        std::string rec = k0;
        for (int k = 1; k < model_->nkeys(); ++k) {
            if (keep_alternates && old)
                rec += model_->key(*old, k);
            else
                rec += values_[static_cast<size_t>(k)][rng_() % values_[static_cast<size_t>(k)].size()];
        }
        int len = record_length();
        while (static_cast<int>(rec.size()) < len) rec += static_cast<char>(rng_() & 0xFF);
        return rec;
    }
    std::string pick_value(int k) {
        if (rng_() % 3 == 0 || model_->size() == 0) {
            if (k == 0) return key0(static_cast<unsigned>(rng_() % kIds));
            return values_[static_cast<size_t>(k)][rng_() % values_[static_cast<size_t>(k)].size()];
        }
        auto it = model_->all().begin();
        std::advance(it, static_cast<long>(rng_() % model_->size()));
        return model_->key(it->second, k);
    }

    // Checks one read result against the record the model expects (null: none).
    void expect_record(int got, int recsize, const std::string* want, const char* what) {
        if (want == nullptr) {
            ASSERT_EQ(got, 0) << what;
            return;
        }
        int n = std::min(recsize, static_cast<int>(want->size()));
        ASSERT_EQ(got, n) << what << " key0 " << ::testing::PrintToString(model_->key(*want, 0));
        if (std::memcmp(buf_.data(), want->data(), static_cast<size_t>(n)) != 0) {
            size_t diff = 0;
            while (buf_[diff] == (*want)[diff]) ++diff;
            FAIL() << what << ": record " << ::testing::PrintToString(model_->key(*want, 0)) << " of "
                   << want->size() << " bytes differs at byte " << diff << "; got key0 "
                   << ::testing::PrintToString(std::string(buf_.data(), static_cast<size_t>(model_->kl(0))));
        }
    }

    // nisread (dir 0) or nispread (dir 2) on key k, against the model cursor.
    void read_step(int k, int dir) {
        Cursor& c = cur_[static_cast<size_t>(k)];
        const auto& items = model_->items(k);
        const char pad = dir == 2 ? '\xFF' : '\0';
        std::string probe;
        if (c.state == 2) {
            probe = c.item;
        } else {
            std::string v = c.state == 1 ? c.item.substr(0, static_cast<size_t>(model_->kl(k)))
                                         : std::string(static_cast<size_t>(model_->kl(k)), pad);
            probe = model_->make_item(k, v, std::string(static_cast<size_t>(model_->kl(0)), pad));
        }
        const std::string* want = nullptr;
        std::string found;
        if (dir == 0) {
            auto it = c.state == 2 ? items.upper_bound(probe) : items.lower_bound(probe);
            if (it != items.end()) found = *it;
        } else {
            auto it = c.state == 2 ? items.lower_bound(probe) : items.upper_bound(probe);
            if (it != items.begin()) found = *std::prev(it);
        }
        if (!found.empty()) want = model_->find(model_->key0_of_item(k, found));
        int recsize = rng_() % 8 == 0 ? model_->kl(0) + static_cast<int>(rng_() % 40) : 70000;
        int got = dir == 0 ? nisread(fd_, k, buf_.data(), recsize) : nispread(fd_, k, buf_.data(), recsize);
        expect_record(got, recsize, want, dir == 0 ? "nisread" : "nispread");
        c.state = 2;
        c.item = want ? found : probe;
    }

    void find_step(int k) {
        std::string v = pick_value(k);
        Cursor& c = cur_[static_cast<size_t>(k)];
        std::string lo = model_->make_item(k, v, std::string(static_cast<size_t>(model_->kl(0)), '\0'));
        auto it = model_->items(k).lower_bound(lo);
        bool exists = it != model_->items(k).end() && it->compare(0, v.size(), v) == 0;
        int got = nisfind(fd_, k, v.data(), buf_.data(), 70000);
        c.state = 2;
        if (!exists) {
            ASSERT_EQ(got, 0) << "nisfind";
            c.item = lo;
            return;
        }
        // Any record with that value may come back.
        ASSERT_GE(got, model_->kl(0)) << "nisfind";
        const std::string* rec = model_->find(std::string(buf_.data(), static_cast<size_t>(model_->kl(0))));
        ASSERT_NE(rec, nullptr) << "nisfind returned a record the model lacks";
        ASSERT_EQ(model_->key(*rec, k), v);
        expect_record(got, 70000, rec, "nisfind");
        c.item = model_->item(*rec, k);
    }

    void seek_step(int k) {
        std::string v = pick_value(k);
        ASSERT_EQ(nisseek(fd_, k, v.data()), 0);
        Cursor& c = cur_[static_cast<size_t>(k)];
        c.state = 1;
        c.item = v;
    }

    void write_step(int how) {
        const std::string k0 = key0(static_cast<unsigned>(rng_() % kIds));
        const std::string* old = model_->find(k0);
        std::string rec = make_record(k0, old, rng_() % 2 == 0);
        const int n = static_cast<int>(rec.size());
        if (how == 0) {
            int r = niswrite(fd_, rec.data(), n);
            ASSERT_EQ(r, old ? 1 : 0) << "niswrite";
            if (!old) model_->put(rec);
        } else if (how == 1) {
            ASSERT_EQ(nisfwrite(fd_, rec.data(), n), 0) << "nisfwrite";
            model_->put(rec);
        } else {
            int r = nisupdate(fd_, rec.data(), n);
            if (old) {
                ASSERT_EQ(r, 0) << "nisupdate";
                model_->put(rec);
            } else {
                ASSERT_EQ(r, -1) << "nisupdate";
                ASSERT_EQ(is_errno, ISE_NOKEY);
            }
        }
    }

    void delete_step() {
        const std::string k0 = pick_value(0);
        const bool had = model_->find(k0) != nullptr;
        int r = nisdelete(fd_, k0.data());
        if (had) {
            ASSERT_EQ(r, 0) << "nisdelete";
            model_->erase(k0);
        } else {
            ASSERT_EQ(r, -1);
            ASSERT_EQ(is_errno, ISE_NOKEY);
        }
    }

    void bad_size_step() {
        std::string rec = make_record(key0(static_cast<unsigned>(rng_() % kIds)), nullptr, false);
        int n = rng_() % 2 ? model_->minrec() - 1 : 65535;
        if (n > static_cast<int>(rec.size())) rec.resize(static_cast<size_t>(n));
        int r = rng_() % 2 ? niswrite(fd_, rec.data(), n) : nisupdate(fd_, rec.data(), n);
        ASSERT_EQ(r, -1);
        ASSERT_EQ(is_errno, ISE_RSIZE);
    }

    // A second handle scans key k from end to end: the whole model, in order.
    void full_scan(int k, int dir) {
        int h = nisopen(path_.c_str(), ISO_RDONLY);
        ASSERT_GE(h, 0);
        std::vector<std::string> want(model_->items(k).begin(), model_->items(k).end());
        if (dir == 2) std::reverse(want.begin(), want.end());
        for (const std::string& it : want) {
            int got = dir == 0 ? nisread(h, k, buf_.data(), 70000) : nispread(h, k, buf_.data(), 70000);
            expect_record(got, 70000, model_->find(model_->key0_of_item(k, it)), "scan");
        }
        EXPECT_EQ(dir == 0 ? nisread(h, k, buf_.data(), 70000) : nispread(h, k, buf_.data(), 70000), 0);
        ASSERT_EQ(nisclose(h), 0);
    }

    void run() {
        const Shape& sh = GetParam();
        const int nk = model_->nkeys();
        for (int step = 0; step < sh.ops; ++step) {
            SCOPED_TRACE("step " + std::to_string(step) + ", seed " + std::to_string(seed_));
            unsigned op = rng_() % 100;
            int k = static_cast<int>(rng_() % static_cast<unsigned>(nk));
            if (op < 22) write_step(0);
            else if (op < 32) write_step(1);
            else if (op < 42) write_step(2);
            else if (op < 52) delete_step();
            else if (op < 70) read_step(k, 0);
            else if (op < 82) read_step(k, 2);
            else if (op < 90) find_step(k);
            else if (op < 96) seek_step(k);
            else if (op < 97) bad_size_step();
            else if (op < 98 && step % 7 == 0) full_scan(k, static_cast<int>(rng_() % 2) * 2);
            if (HasFatalFailure()) return;
            if (check_each_) {
                kisam::check::Report rep = kisam::check::check_file(path_);
                ASSERT_TRUE(rep.ok) << rep.error;
                ASSERT_EQ(rep.records, static_cast<long>(model_->size()));
            }
        }
        for (int k = 0; k < nk; ++k) {
            full_scan(k, 0);
            if (HasFatalFailure()) return;
        }
        ASSERT_EQ(nisflush(fd_), 0);
        kisam::check::Report rep = kisam::check::check_file(path_);
        EXPECT_TRUE(rep.ok) << rep.error << " (seed " << seed_ << ")";
        EXPECT_EQ(rep.records, static_cast<long>(model_->size()));
        EXPECT_TRUE(rep.data_accounted);
        EXPECT_EQ(rep.unknown_pages, 0);
    }

    static constexpr unsigned kIds = 900;
    // KISAM_CHECK_EACH runs the structural checker after every step, to find the first
    // one that goes wrong.
    bool check_each_ = std::getenv("KISAM_CHECK_EACH") != nullptr;
    kt::Installation inst_;
    std::string path_;
    int fd_ = -1;
    uint64_t seed_ = 0;
    std::mt19937_64 rng_;
    std::unique_ptr<Model> model_;
    std::vector<Cursor> cur_;
    std::vector<std::vector<std::string>> values_;
    std::vector<char> buf_;
};

TEST_P(RecordModel, MatchesTheModel) { run(); }

INSTANTIATE_TEST_SUITE_P(
    Shapes, RecordModel,
    ::testing::Values(Shape{{8, 5, 3, 6}, true, 1, 1024, 12000},
                      Shape{{7, 4, 9}, false, 0, 1024, 12000},
                      Shape{{5}, true, 1, 512, 8000},
                      Shape{{2, 1}, false, 1, 512, 8000},
                      Shape{{6, 12}, true, 0, 1024, 8000}),
    [](const ::testing::TestParamInfo<Shape>& info) { return "shape" + std::to_string(info.index); });


// Hand-picked cases of the record operations that a random mix reaches rarely.
class RecordEdges : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(is_init(), 0); }
    void TearDown() override {
        for (int fd : fds_) nisclose(fd);
        nisunisam();
    }
    // Creates a file; nkeys negative switches the key option on.
    int create(const char* name, int nkeys, std::vector<int> lens, bool keyopt) {
        niscr_ctl(keyopt ? 1 : 0, 1024);
        int fd = niscreate(inst_.path(name).c_str(), nkeys, lens.data());
        EXPECT_GE(fd, 0);
        fds_.push_back(fd);
        return fd;
    }
    static std::string rec(const std::string& k0, const std::string& k1, size_t len, char fill) {
        std::string r = k0 + k1;
        r.resize(std::max(len, r.size()), fill);
        return r;
    }
    int write(int fd, const std::string& r) { return niswrite(fd, r.data(), static_cast<int>(r.size())); }
    std::string read(int fd, int key, int dir = 0, int recsize = 70000) {
        std::vector<char> b(70000);
        int n = dir == 0 ? nisread(fd, key, b.data(), recsize) : nispread(fd, key, b.data(), recsize);
        return n <= 0 ? std::to_string(n) : std::string(b.data(), static_cast<size_t>(n));
    }
    std::string find(int fd, int key, const std::string& v, int recsize = 70000) {
        std::vector<char> b(70000);
        int n = nisfind(fd, key, v.data(), b.data(), recsize);
        return n <= 0 ? std::to_string(n) : std::string(b.data(), static_cast<size_t>(n));
    }
    std::string check(const char* name) {
        auto rep = kisam::check::check_file(inst_.path(name));
        return rep.ok ? std::string() : rep.error;
    }

    kt::Installation inst_;
    std::vector<int> fds_;
};

// The random mix covers sizes, missing keys and cursors; these are what it cannot see.
TEST_F(RecordEdges, DuplicateSpaceShortBufferAndReadOnly) {
    int fd = create("dup.ism", 2, {4, 2}, false);
    const std::string a = rec("aaaa", "zz", 3000, 'a');
    ASSERT_EQ(write(fd, a), 0);
    ASSERT_EQ(nisgetctl(fd), 0);
    IS_FCP* fcp = is_curfcp;
    ASSERT_EQ(nisrelctl(fd), 0);
    const PAGE last = fcp->is_lastpage;

    // A duplicate key 0 is not stored, sets no error and gives its space back.
    is_errno = 0;
    EXPECT_EQ(write(fd, rec("aaaa", "yy", 5000, 'b')), 1);
    EXPECT_EQ(is_errno, 0);
    EXPECT_EQ(find(fd, 0, "aaaa"), a);
    EXPECT_EQ(find(fd, 1, "yy"), "0");
    EXPECT_EQ(fcp->is_lastpage, last + 5 * 1024);   // pages were used, then freed...
    EXPECT_EQ(write(fd, rec("gggg", "yy", 5000, 'g')), 0);
    EXPECT_EQ(fcp->is_lastpage, last + 5 * 1024);   // ...and are used again
    EXPECT_EQ(nisdelete(fd, "gggg"), 0);
    ASSERT_EQ(write(fd, rec("bbbb", "zz", 6, 'c')), 0);

    // A buffer that cannot hold key 0 is refused and leaves the cursor alone.
    ASSERT_EQ(nisseek(fd, 0, "aaaa"), 0);
    EXPECT_EQ(read(fd, 0, 0, 3), "-1");
    EXPECT_EQ(is_errno, ISE_RSIZE);
    EXPECT_EQ(read(fd, 0).substr(0, 4), "aaaa");
    EXPECT_EQ(check("dup.ism"), "");

    // A file open only read-only in this process reads but neither writes, updates nor
    // deletes.  (Read-only is a property of the process's open file, not of a handle.)
    ASSERT_EQ(nisclose(fd), 0);
    fds_.clear();
    int ro = nisopen(inst_.path("dup.ism").c_str(), ISO_RDONLY);
    fds_.push_back(ro);
    EXPECT_EQ(write(ro, rec("ffff", "zz", 6, 'f')), -1);
    EXPECT_EQ(is_errno, ISE_RONLY);
    EXPECT_EQ(nisupdate(ro, rec("bbbb", "zz", 6, 'f').data(), 6), -1);
    EXPECT_EQ(is_errno, ISE_RONLY);
    EXPECT_EQ(nisdelete(ro, "bbbb"), -1);
    EXPECT_EQ(is_errno, ISE_RONLY);
    EXPECT_EQ(find(ro, 0, "bbbb"), rec("bbbb", "zz", 6, 'c'));
    EXPECT_EQ(find(ro, 0, "ffff"), "0");
}

TEST_F(RecordEdges, KeyZeroHeldOnlyInTheIndex) {
    // Key 0 alone: a record of just the key uses no data page.
    int fd = create("opt.ism", -1, {6}, true);
    ASSERT_EQ(write(fd, "k00001"), 0);
    ASSERT_EQ(write(fd, rec("k00002", "", 3000, 'x')), 0);
    EXPECT_EQ(find(fd, 0, "k00001"), "k00001");
    EXPECT_EQ(find(fd, 0, "k00002", 6), "k00002");       // only the key fits
    EXPECT_EQ(find(fd, 0, "k00002", 100), rec("k00002", "", 100, 'x'));
    EXPECT_EQ(find(fd, 0, "k00002"), rec("k00002", "", 3000, 'x'));
    // The key is not stored in the data: 2994 data bytes, two overflow pages + tail.
    ASSERT_EQ(nisfwrite(fd, "k00002", 6), 0);             // frees the old data unread
    EXPECT_EQ(find(fd, 0, "k00002"), "k00002");
    ASSERT_EQ(nisdelete(fd, "k00001"), 0);
    ASSERT_EQ(nisdelete(fd, "k00002"), 0);
    EXPECT_EQ(read(fd, 0), "0");
    EXPECT_EQ(check("opt.ism"), "");
    IS_FCP* fcp = is_curfcp;
    EXPECT_EQ(fcp->is_cdp[0], 0u);

    // With alternate keys the old key fields come from the data part.
    int f2 = create("opt2.ism", -2, {3, 2}, true);
    ASSERT_EQ(write(f2, rec("abc", "10", 50, 'p')), 0);
    ASSERT_EQ(nisfwrite(f2, rec("abc", "20", 60, 'q').data(), 60), 0);
    EXPECT_EQ(find(f2, 1, "10"), "0");
    EXPECT_EQ(find(f2, 1, "20"), rec("abc", "20", 60, 'q'));
    ASSERT_EQ(nisdelete(f2, "abc"), 0);
    EXPECT_EQ(find(f2, 1, "20"), "0");
    EXPECT_EQ(check("opt2.ism"), "");
}


// Copies `from` to `to` and overwrites `bytes` at `off` in the copy.
void damaged_copy(const std::string& from, const std::string& to, off_t off, const std::string& bytes) {
    std::string cmd = "cp '" + from + "' '" + to + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    int fd = ::open(to.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), off), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
}

TEST_F(RecordEdges, CheckerSeesDamagedDataPages) {
    int fd = create("good.ism", 1, {4}, false);
    // Tail of 968 bytes at offset 54 of page 1024 (52 free bytes in front), overflow
    // pages 2048 (second block) and 3072 (first block), then the index root.
    ASSERT_EQ(write(fd, rec("aaaa", "", 3000, 'a')), 0);
    ASSERT_EQ(nisclose(fd), 0);
    fds_.clear();
    const std::string good = inst_.path("good.ism");
    ASSERT_EQ(check("good.ism"), "");

    auto error_of = [&](const char* name) { return kisam::check::check_file(inst_.path(name)).error; };
    damaged_copy(good, inst_.path("segx.ism"), 3072 + 2, std::string("\x07\x00", 2));
    EXPECT_NE(error_of("segx.ism").find("segx"), std::string::npos) << error_of("segx.ism");
    damaged_copy(good, inst_.path("chunk.ism"), 1024 + 4, std::string("\x3c\x00", 2));   // 60 bytes
    EXPECT_NE(error_of("chunk.ism").find("overlaps"), std::string::npos) << error_of("chunk.ism");
    damaged_copy(good, inst_.path("cdp.ism"), 16, std::string("\x32\x04\x00\x00", 4));   // 50 free
    EXPECT_NE(error_of("cdp.ism").find("is_cdp[0]"), std::string::npos) << error_of("cdp.ism");
    damaged_copy(good, inst_.path("min.ism"), 96, std::string("\xff\xff", 2));
    EXPECT_NE(error_of("min.ism").find("is_mincdpi"), std::string::npos) << error_of("min.ism");
}

}  // namespace
