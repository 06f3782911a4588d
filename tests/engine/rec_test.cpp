// Record operations against an in-memory model: a long random mix of writes, forced
// writes, updates, deletes, seeks, rewinds and reads in every mode along every key,
// checked after every step, then the whole file by the structural checker.  KISAM_SEED replays a run.
#include "kisam_test.h"

#include "kcheck.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
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

// How GoogleTest shows a shape (in test listings too): in words, not as a byte dump.
void PrintTo(const Shape& s, std::ostream* os) {
    *os << "keys";
    for (size_t i = 0; i < s.keylens.size(); ++i) *os << (i ? "," : " ") << s.keylens[i];
    *os << (s.keyopt ? " key-in-index" : "") << (s.split_half ? ", split half, " : ", split at point, ")
        << s.magic << "-byte header, " << s.ops << " ops";
}

class Model {
public:
    explicit Model(const std::vector<int>& kl) : kl_(kl), items_(kl.size()) {
        for (int l : kl) pos_.push_back(minrec_), minrec_ += l;
    }
    int nkeys() const { return static_cast<int>(kl_.size()); }
    int kl(int k) const { return kl_[static_cast<size_t>(k)]; }
    int minrec() const { return minrec_; }
    int offset(int k) const { return (kl(k) + 1) & ~1; }
    std::string key(const std::string& rec, int k) const {
        return rec.substr(static_cast<size_t>(pos_[static_cast<size_t>(k)]), static_cast<size_t>(kl(k)));
    }
    // The compared part of the index item of rec under key k.
    std::string item(const std::string& rec, int k) const { return make_item(k, key(rec, k), key(rec, 0)); }
    std::string make_item(int k, const std::string& value, const std::string& key0) const {
        return k == 0 ? value : value + std::string(static_cast<size_t>(kl(k) & 1), '\0') + key0;
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
        niscr_ctl(0, sh.magic);  // the key option, if any, comes from a negative key count
        Sp_half = sh.split_half;
        int n = static_cast<int>(sh.keylens.size());
        fd_ = niscreate(path_.c_str(), sh.keyopt ? -n : n, sh.keylens.data());
        ASSERT_GE(fd_, 0);
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
        niscr_ctl(1, 1024);
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
        ASSERT_EQ(std::memcmp(buf_.data(), want->data(), static_cast<size_t>(n)), 0)
            << what << ": record " << ::testing::PrintToString(model_->key(*want, 0)) << " differs";
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

    // A seek to a value, or a rewind: the next read starts from either end.
    void seek_step(int k) {
        if (rng_() % 3 == 0) {
            ASSERT_EQ(kisam_rewind(fd_, k), 0);
            cur_[static_cast<size_t>(k)] = Cursor{};
            return;
        }
        std::string v = pick_value(k);
        ASSERT_EQ(nisseek(fd_, k, v.data()), 0);
        cur_[static_cast<size_t>(k)] = Cursor{1, v};
    }

    void write_step(int how) {
        const std::string k0 = key0(static_cast<unsigned>(rng_() % kIds));
        const std::string* old = model_->find(k0);
        std::string rec = make_record(k0, old, rng_() % 2 == 0);
        const int n = static_cast<int>(rec.size());
        if (how == 0) {
            int r = niswrite(fd_, rec.data(), n);
            ASSERT_EQ(r, old ? 1 : 0) << "niswrite " << is_errno << " " << kt::stack_code(0) << " " << kt::stack_code(1) << " " << kt::stack_code(2);
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
        rec.resize(std::max(rec.size(), static_cast<size_t>(n)));
        ASSERT_EQ(rng_() % 2 ? niswrite(fd_, rec.data(), n) : nisupdate(fd_, rec.data(), n), -1);
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


}  // namespace
