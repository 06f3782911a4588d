// Records: data pages byte for byte and against a model, the record calls against a model
// of the file, and the cost of reads without the lock.
#include "open_fixture.h"
#include "dr.h"
#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "isx_area.h"
#include "kcheck.h"
#include "kisam_test.h"
#include "test_hook.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

using Page = std::array<unsigned char, 1024>;

uint16_t w16(const Page& p, int off) { return static_cast<uint16_t>(p[off] | (p[off + 1] << 8)); }
uint32_t w32(const Page& p, int off) {
    return static_cast<uint32_t>(w16(p, off)) | (static_cast<uint32_t>(w16(p, off + 2)) << 16);
}

std::vector<char> pattern(int n, int seed) {
    std::vector<char> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[static_cast<size_t>(i)] = static_cast<char>((i * 7 + seed * 31 + i / 251) & 0xFF);
    return v;
}

class DataPages : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(is_init(), 0);
        path_ = inst_.path("data.ism");
        int lens[1] = {8};
        fd_ = niscreate(path_.c_str(), 1, lens);
        ASSERT_GE(fd_, 0);
        osfd_ = ::open(path_.c_str(), O_RDONLY);
        ASSERT_GE(osfd_, 0);
    }
    void TearDown() override {
        if (osfd_ >= 0) ::close(osfd_);
        nisclose(fd_);
        nisunisam();
    }

    template <class F>
    auto locked(F f) {
        EXPECT_EQ(is_isin(PROC(P_ISWRITE), fd_, 0), 0);
        EXPECT_EQ(is_getctl(), 0);
        auto r = f();
        EXPECT_EQ(is_relctl(), 0);
        is_isout();
        return r;
    }
    PAGE put(const std::vector<char>& rec) {
        return locked([&] { return dr_put(rec.data(), static_cast<int>(rec.size())); });
    }
    int rel(PAGE a) { return locked([&] { return dr_rel(a); }); }
    std::vector<char> get(PAGE a, int maxlen, int* n) {
        std::vector<char> out(static_cast<size_t>(maxlen) + 16, 0);
        *n = locked([&] { return dr_get(a, out.data(), maxlen); });
        if (*n > 0) out.resize(static_cast<size_t>(*n));
        return out;
    }
    Page disk(PAGE p) {
        EXPECT_EQ(kt::write_back(fd_), 0);
        Page pg{};
        EXPECT_EQ(::pread(osfd_, pg.data(), pg.size(), static_cast<off_t>(p)), 1024) << p;
        return pg;
    }
    std::vector<char> whole_file() {
        EXPECT_EQ(kt::write_back(fd_), 0);
        off_t end = ::lseek(osfd_, 0, SEEK_END);
        std::vector<char> v(static_cast<size_t>(end));
        EXPECT_EQ(::pread(osfd_, v.data(), v.size(), 0), end);
        return v;
    }
    IS_FCP* fcp() {
        EXPECT_EQ(is_isin(PROC(P_ISREAD), fd_, 0), 0);
        is_isout();
        return is_curfcp;
    }

    kt::Installation inst_;
    std::string path_;
    int fd_ = -1;
    int osfd_ = -1;
};

// The words (offset, value) of a page, and the free-space table's first entries.
#define WORDS(p, ...) expect_words(p, {__VA_ARGS__}, #p)
void expect_words(const Page& p, std::initializer_list<std::pair<int, unsigned>> want, const char* what) {
    for (auto [off, v] : want) EXPECT_EQ(w16(p, off), v) << what << " word at " << off;
}
bool same(const Page& p, int off, const std::vector<char>& rec, int from, int n) {
    return std::memcmp(p.data() + off, rec.data() + from, static_cast<size_t>(n)) == 0;
}

TEST_F(DataPages, RecordShapesByLength) {
    ASSERT_EQ(fcp()->is_magic, ISMAGIC_1024);   // page P lies at file offset P
    auto cdp = [&](std::vector<PAGE> want, int mincdpi) {
        for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(fcp()->is_cdp[i], want[i]) << "is_cdp " << i;
        EXPECT_EQ(fcp()->is_mincdpi, mincdpi);
    };
    // 1020 bytes fill a fresh shared page exactly: page word without free chunk.
    auto r1020 = pattern(1020, 1);
    const PAGE a = put(r1020);
    EXPECT_EQ(a, 1024u + 2);
    const Page p = disk(1024);
    WORDS(p, {0, 0x8000}, {2, 0x8000 + 1020});
    EXPECT_TRUE(same(p, 4, r1020, 0, 1020));
    cdp({0}, -1);

    // 1021 bytes: one overflow page and a 5-byte tail at the end of a new shared page.
    auto r1021 = pattern(1021, 2);
    const PAGE b = put(r1021);
    EXPECT_EQ(b, 3072u + 1);
    const Page ov = disk(3072), tail = disk(2048);
    WORDS(ov, {0, 0x8001}, {2, 1}, {4, 2048 + 1016}, {6, 0});
    EXPECT_TRUE(same(ov, 8, r1021, 0, 1016));
    WORDS(tail, {0, 0x8002}, {2, 0} /* dr_next */, {4, 1014} /* dr_avail */, {1016, 0x8000 + 5});
    EXPECT_TRUE(same(tail, 1018, r1021, 1016, 5));
    cdp({2048 + 1014}, 0);

    // 2032 bytes: a full 1016-byte tail no longer fits in 1014: a new page, 4 bytes free.
    auto r2032 = pattern(2032, 3);
    const PAGE c = put(r2032);
    EXPECT_EQ(c, 5120u + 1);
    EXPECT_EQ(w32(disk(5120), 4), 4096u + 6);
    const Page t2 = disk(4096);
    WORDS(t2, {0, 0x8002}, {4, 4}, {6, 0x8000 + 1016});
    cdp({2048 + 1014, 4096 + 4}, 1);

    // 3000 bytes: overflow pages 1 and 2, the tail in the first page of the table with room.
    auto r3000 = pattern(3000, 4);
    const PAGE d = put(r3000);
    EXPECT_EQ(d, 7168u + 1);
    const Page first = disk(7168), last = disk(6144), t3 = disk(2048);
    WORDS(first, {0, 0x8001}, {2, 1});
    EXPECT_EQ(w32(first, 4), 6144u + 1);
    WORDS(last, {2, 2});
    EXPECT_EQ(w32(last, 4), 2048u + 46);
    EXPECT_TRUE(same(first, 8, r3000, 0, 1016));
    EXPECT_TRUE(same(last, 8, r3000, 1016, 1016));
    WORDS(t3, {4, 44}, {46, 0x8000 + 968});
    cdp({2048 + 44}, 1);

    for (auto [addr, rec] : {std::pair{a, &r1020}, {b, &r1021}, {c, &r2032}, {d, &r3000}}) {
        int n = 0;
        EXPECT_EQ(get(addr, 65534, &n), *rec);
        auto back = get(addr, 100, &n);   // cut to the caller's length
        EXPECT_EQ(n, 100);
        EXPECT_EQ(std::memcmp(back.data(), rec->data(), 100), 0);
    }
}

TEST_F(DataPages, RecordInPiecesFollowsTheFreeList) {
    PAGE at[6];
    for (int i = 0; i < 6; ++i) at[i] = put(pattern(i == 5 ? 680 : i % 2 ? 18 : 98, i + 1));
    ASSERT_EQ((std::vector<PAGE>{at[0], at[2], at[4]}), (std::vector<PAGE>{1024 + 924, 1024 + 804, 1024 + 684}));
    ASSERT_EQ(w16(disk(1024), 0), 0x8000);
    for (int i : {0, 2, 4}) ASSERT_EQ(rel(at[i]), 0);
    const auto freed = whole_file();
    EXPECT_EQ(rel(at[2]), -1) << "released twice";
    EXPECT_EQ(whole_file(), freed) << "a refused release wrote";
    Page p = disk(1024);
    WORDS(p, {0, 0x8000 + 684}, {684, 804}, {686, 100}, {804, 924}, {924, 0});
    EXPECT_EQ(fcp()->is_cdp[0], 1024u + 300);

    // 250 bytes: no chunk holds them whole, so they go as 97 + 97 + 56.
    auto rec = pattern(250, 7);
    const PAGE r = put(rec);
    EXPECT_EQ(r, 1024u + 684);
    p = disk(1024);
    // Continued segments: the high bits of the next offset (804 = 0x324, 924 = 0x39C) in
    // the control word, the low byte after it; then the rest of the last chunk.
    WORDS(p, {684, 0xC000 + 0xC00 + 97}, {804, 0xC000 + 0xC00 + 97}, {924, 0x8000 + 56},
          {0, 0x8000 + 982}, {982, 0}, {984, 42});
    EXPECT_EQ(p[686], 0x24);
    EXPECT_EQ(p[806], 0x9C);
    EXPECT_TRUE(same(p, 687, rec, 0, 97) && same(p, 807, rec, 97, 97) && same(p, 926, rec, 194, 56));
    EXPECT_EQ(fcp()->is_cdp[0], 1024u + 42);
    int n = 0;
    EXPECT_EQ(get(r, 300, &n), rec);

    // Freeing it all gives the page back to the free chain.
    ASSERT_EQ(rel(r), 0);
    for (int i : {1, 3, 5}) ASSERT_EQ(rel(at[i]), 0);
    EXPECT_EQ(w16(disk(1024), 0), 0xFFFE);   // free-page mark
    EXPECT_EQ(fcp()->is_cdp[0], 0u);
    EXPECT_EQ(fcp()->is_mincdpi, -1);
    EXPECT_EQ(fcp()->is_nextfree, 1024u);
}

// A random mix of every record call along every key against a model, then the checker;
// each read goes at random without or with the lock.  KISAM_SEED replays a run.

struct Shape {
    std::vector<int> keylens;
    bool keyopt;
    short split_half;
    int magic;      // 512 or 1024
    int ops;
    bool deep = false;   // long keys: index pages of 2 to 5 items, trees of 3 levels or more
    int16_t maxbuf = 64; // pool slots: 2000 hold the whole file, so reads go without the lock
};

void PrintTo(const Shape& s, std::ostream* os) {
    *os << "keys";
    for (size_t i = 0; i < s.keylens.size(); ++i) *os << (i ? "," : " ") << s.keylens[i];
    *os << (s.keyopt ? " key-in-index" : "") << (s.split_half ? ", split half, " : ", split at point, ")
        << s.magic << "-byte header, " << s.ops << " ops, " << s.maxbuf << " buffers";
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
        kisam::test_locked_reads = false;
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
    std::string make_record(const std::string& k0, const std::string* old, bool keep_alternates, int len = -1) {
        std::string rec = k0;
        for (int k = 1; k < model_->nkeys(); ++k) {
            if (keep_alternates && old)
                rec += model_->key(*old, k);
            else
                rec += values_[static_cast<size_t>(k)][rng_() % values_[static_cast<size_t>(k)].size()];
        }
        if (len < 0) len = record_length();
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

    void pick_path() {
        kisam::test_locked_reads = rng_() % 2 == 0;
        unlocked_ += !kisam::test_locked_reads;
    }

    void expect_record(int got, int recsize, const std::string* want, const char* what) {
        ASSERT_EQ(got == 0, want == nullptr) << what << " gave " << got;
        if (want == nullptr) return;
        const int n = std::min(recsize, static_cast<int>(want->size()));
        ASSERT_EQ(got, n) << what << " key0 " << ::testing::PrintToString(model_->key(*want, 0));
        ASSERT_EQ(std::memcmp(buf_.data(), want->data(), static_cast<size_t>(n)), 0)
            << what << ": record " << ::testing::PrintToString(model_->key(*want, 0)) << " differs";
    }

    void read_step(int k, int dir) {
        Cursor& c = cur_[static_cast<size_t>(k)];
        const auto& items = model_->items(k);
        const char pad = dir == 2 ? '\xFF' : '\0';
        const std::string probe =
            c.state == 2 ? c.item
                         : model_->make_item(k, c.state == 1 ? c.item.substr(0, model_->kl(k)) : std::string(model_->kl(k), pad),
                                             std::string(model_->kl(0), pad));
        // Forward: the first item past the cursor (or at the probe); backward: the last before.
        std::string found;
        const bool past = (c.state == 2) == (dir == 0);
        auto it = past ? items.upper_bound(probe) : items.lower_bound(probe);
        if (dir == 0 && it != items.end()) found = *it;
        if (dir != 0 && it != items.begin()) found = *std::prev(it);
        const std::string* want = found.empty() ? nullptr : model_->find(model_->key0_of_item(k, found));
        int recsize = rng_() % 8 == 0 ? model_->kl(0) + static_cast<int>(rng_() % 40) : 70000;
        if (rng_() % 40 == 0) {
            // No room for key 0, or no buffer: refused, and the cursor stays.
            char* to = rng_() % 2 ? nullptr : buf_.data();
            const int n = to ? model_->kl(0) - 1 : 70000;
            pick_path();
            ASSERT_EQ(dir == 0 ? nisread(fd_, k, to, n) : nispread(fd_, k, to, n), -1);
            ASSERT_EQ(is_errno, ISE_RSIZE);
            return;
        }
        pick_path();
        int got = dir == 0 ? nisread(fd_, k, buf_.data(), recsize) : nispread(fd_, k, buf_.data(), recsize);
        expect_record(got, recsize, want, dir == 0 ? "nisread" : "nispread");
        if (HasFatalFailure()) return;
        c.state = 2;
        c.item = want ? found : probe;
    }

    void find_step(int k) {
        std::string v = pick_value(k);
        Cursor& c = cur_[static_cast<size_t>(k)];
        std::string lo = model_->make_item(k, v, std::string(static_cast<size_t>(model_->kl(0)), '\0'));
        auto it = model_->items(k).lower_bound(lo);
        bool exists = it != model_->items(k).end() && it->compare(0, v.size(), v) == 0;
        pick_path();
        int got = nisfind(fd_, k, v.data(), buf_.data(), 70000);
        c.state = 2;
        if (!exists) {
            ASSERT_EQ(got, 0) << "nisfind";
            c.item = lo;
            return;
        }
        ASSERT_GE(got, model_->kl(0)) << "nisfind";
        const std::string* rec = model_->find(std::string(buf_.data(), static_cast<size_t>(model_->kl(0))));
        ASSERT_NE(rec, nullptr) << "nisfind returned a record the model lacks";
        ASSERT_EQ(model_->key(*rec, k), v);
        expect_record(got, 70000, rec, "nisfind");
        c.item = model_->item(*rec, k);
    }

    void seek_step(int k) {
        const std::string v = rng_() % 3 == 0 ? std::string() : pick_value(k);   // empty: a rewind
        ASSERT_EQ(v.empty() ? kisam_rewind(fd_, k) : nisseek(fd_, k, v.data()), 0);
        cur_[k] = Cursor{v.empty() ? 0 : 1, v};
    }

    void write_step(int how) {
        const std::string k0 = key0(static_cast<unsigned>(rng_() % kIds));
        const std::string* old = model_->find(k0);
        // Often the same length (rewritten in place) or one byte off.
        int len = -1;
        if (how == 2 && old && rng_() % 2 == 0) {
            len = static_cast<int>(old->size());
            if (rng_() % 3 == 0 && len > model_->minrec() && len < 65534) len += rng_() % 2 ? 1 : -1;
        }
        std::string rec = make_record(k0, old, rng_() % 2 == 0, len);
        const int n = static_cast<int>(rec.size());
        // niswrite leaves an existing key's record (1); nisupdate refuses a missing one.
        const int r = how == 0 ? niswrite(fd_, rec.data(), n) : how == 1 ? nisfwrite(fd_, rec.data(), n)
                                                                         : nisupdate(fd_, rec.data(), n);
        ASSERT_EQ(r, how == 0 ? (old ? 1 : 0) : how == 1 || old ? 0 : -1)
            << "call " << how << ", is_errno " << is_errno << ", stack " << std::hex << kt::stack_code(0) << " "
            << kt::stack_code(1) << " " << kt::stack_code(2);
        ASSERT_TRUE(r != -1 || is_errno == ISE_NOKEY) << "is_errno " << is_errno;
        if (r == 0) model_->put(rec);
    }

    void delete_step() {
        const std::string k0 = pick_value(0);
        const bool had = model_->find(k0) != nullptr;
        ASSERT_EQ(nisdelete(fd_, k0.data()), had ? 0 : -1) << "nisdelete";
        ASSERT_TRUE(had || is_errno == ISE_NOKEY) << "is_errno " << is_errno;
        model_->erase(k0);
    }

    void bad_size_step() {
        std::string rec = make_record(key0(static_cast<unsigned>(rng_() % kIds)), nullptr, false);
        int n = rng_() % 2 ? model_->minrec() - 1 : 65535;
        rec.resize(std::max(rec.size(), static_cast<size_t>(n)));
        ASSERT_EQ(rng_() % 2 ? niswrite(fd_, rec.data(), n) : nisupdate(fd_, rec.data(), n), -1);
        ASSERT_EQ(is_errno, ISE_RSIZE);
    }

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

    void check_now(const char* when) {
        ASSERT_EQ(nisflush(fd_), 0);
        kisam::check::Report rep = kisam::check::check_file(path_);
        ASSERT_TRUE(rep.ok) << when << ": " << rep.error << " (seed " << seed_ << ")";
        ASSERT_EQ(rep.records, static_cast<long>(model_->size())) << when;
        for (const auto& ks : rep.keys) max_depth_ = std::max(max_depth_, ks.depth);
        last_ = rep;
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
            if (step % (sh.ops / 16) == sh.ops / 16 - 1) check_now("writing");
            if (HasFatalFailure()) return;
        }
        for (int k = 0; k < nk && !HasFatalFailure(); ++k) full_scan(k, 0);
        check_now("written");
        if (HasFatalFailure()) return;
        EXPECT_TRUE(last_.data_accounted);
        EXPECT_EQ(last_.unknown_pages, 0);

        // Emptied in random order: at the end every page is on the free chain.
        std::vector<std::string> keys;
        for (const auto& kv : model_->all()) keys.push_back(model_->key(kv.second, 0));
        std::shuffle(keys.begin(), keys.end(), rng_);
        for (size_t i = 0; i < keys.size(); ++i) {
            ASSERT_EQ(nisdelete(fd_, keys[i].data()), 0) << "nisdelete";
            model_->erase(keys[i]);
            find_step(static_cast<int>(rng_() % static_cast<unsigned>(nk)));
            if (i % 64 == 63) check_now("emptying");
            if (HasFatalFailure()) return;
        }
        check_now("empty");
        if (HasFatalFailure()) return;
        EXPECT_EQ(last_.data_pages, 0) << "seed " << seed_;
        EXPECT_EQ(last_.unknown_pages, 0);
        EXPECT_EQ(static_cast<long>(last_.free_chain.size()), static_cast<long>(last_.map.use.size()));
        EXPECT_TRUE(!sh.deep || max_depth_ >= 3) << "the trees never grew deep";
        // Reads went without the lock, and mostly so where the pool holds the file.
        const unsigned long nolock = is_nolock_reads - nolock_before_;
        EXPECT_GT(nolock, sh.maxbuf >= 1000 ? unlocked_ / 4 : 0u);
    }

    static kt::Config pool_of(const Shape& sh) {
        kt::Config c;
        c.maxbuf = sh.maxbuf;
        return c;
    }

    static constexpr unsigned kIds = 900;
    kt::Installation inst_{pool_of(GetParam())};
    unsigned long unlocked_ = 0, nolock_before_ = is_nolock_reads;
    std::string path_;
    int fd_ = -1;
    uint64_t seed_ = 0;
    std::mt19937_64 rng_;
    std::unique_ptr<Model> model_;
    std::vector<Cursor> cur_;
    std::vector<std::vector<std::string>> values_;
    std::vector<char> buf_;
    int max_depth_ = 0;
    kisam::check::Report last_;
};

TEST_P(RecordModel, MatchesTheModel) { run(); }

INSTANTIATE_TEST_SUITE_P(
    Shapes, RecordModel,
    ::testing::Values(Shape{{8, 5, 3, 6}, true, 1, 1024, 12000}, Shape{{7, 4, 9}, false, 0, 1024, 12000, false, 2000},
                      Shape{{5}, true, 1, 512, 8000}, Shape{{2, 1}, false, 1, 512, 8000, false, 2000},
                      Shape{{6, 12}, true, 0, 1024, 8000},
                      // Index pages of 2 to 5 items, both split rules and control pages.
                      Shape{{400}, false, 0, 512, 4000, true}, Shape{{300}, true, 1, 1024, 4001, true},
                      Shape{{240, 7}, false, 1, 512, 4002, true}, Shape{{190, 33}, true, 0, 1024, 4003, true},
                      Shape{{7, 233}, false, 0, 1024, 4004, true}, Shape{{400, 3}, true, 1, 512, 4005, true}),
    [](const ::testing::TestParamInfo<Shape>& info) { return "shape" + std::to_string(info.index); });


uint32_t seq_of(int isfd) { return kisam::isx_file_of(is_db[isfd]->uniqueid)->xf_seq; }

class ReadNoLockCost : public ot::Env {
protected:
    void SetUp() override {
        kt::Config c;
        c.maxbuf = 500;
        start(c);
    }
};

// A pool hit takes no lock and changes no count; a change or a load moves it by two;
// an odd count sends the read to the lock.
TEST_F(ReadNoLockCost, ReadsTakeNoLockAndLeaveTheCountAlone) {
    int fd = create("f", {8});
    ASSERT_GE(fd, 0);
    char rec[40] = {};
    for (int i = 0; i < 300; ++i) {
        std::snprintf(rec, sizeof rec, "%08d and the rest", i);
        ASSERT_EQ(niswrite(fd, rec, sizeof rec), 0);
    }
    char out[40];
    ASSERT_EQ(nisfind(fd, 0, "00000001", out, sizeof out), 40);  // this process knows the chain
    // The locks taken, the pool's clock, the file's change count.
    auto counts = [&] { return std::vector<uint32_t>{isam_com->totsyslocks, isam_com->lru_cnt, seq_of(fd)}; };
    const std::vector<uint32_t> at_start = counts();
    const uint32_t seq = at_start[2];
    EXPECT_EQ(seq % 2, 0u);
    const unsigned long before = is_nolock_reads;
    for (int i = 0; i < 300; ++i) {
        char k[9];
        std::snprintf(k, sizeof k, "%08d", (i * 7) % 300);
        ASSERT_EQ(nisfind(fd, 0, k, out, sizeof out), 40);
        ASSERT_EQ(std::memcmp(out, k, 8), 0);
    }
    int steps = 0;  // a next that never moves on must fail here, not spin to the timeout
    while (nisread(fd, 0, out, sizeof out) > 0 && ++steps <= 300) {
    }
    EXPECT_LE(steps, 300);
    EXPECT_EQ(counts(), at_start);
    EXPECT_GE(is_nolock_reads - before, 300u);

    // Locked reads that hit change nothing either.
    ASSERT_EQ(nisgetctl(fd), 0);
    ASSERT_EQ(nisfind(fd, 0, "00000005", out, sizeof out), 40);
    ASSERT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(seq_of(fd), seq);

    // A change is odd while it lasts and even after it.
    static uint32_t seen;
    static int fdx;
    fdx = fd;
    seen = 0;
    kisam::test_hook = [](int where, int) {
        if (where == kisam::kHookTouch) seen = seq_of(fdx);
    };
    std::snprintf(rec, sizeof rec, "%08d changed", 5);
    ASSERT_EQ(nisupdate(fd, rec, sizeof rec), 0);
    kisam::test_hook = nullptr;
    EXPECT_EQ(seen, seq + 1);
    EXPECT_EQ(seq_of(fd), seq + 2);
    ASSERT_EQ(nisfind(fd, 0, "00000005", out, sizeof out), 40);
    EXPECT_EQ(std::string(out + 8, 8), " changed");

    // A changing bracket keeps the count odd; its own reads take the lock.
    ASSERT_EQ(nisgetctl(fd), 0);
    std::snprintf(rec, sizeof rec, "%08d again", 6);
    ASSERT_EQ(nisupdate(fd, rec, sizeof rec), 0);
    EXPECT_EQ(seq_of(fd) % 2, 1u);
    ASSERT_EQ(nisfind(fd, 0, "00000006", out, sizeof out), 40);
    EXPECT_EQ(std::string(out + 8, 6), " again");
    ASSERT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(seq_of(fd), seq + 4);

    // An odd count, as a changer under way (or a dead one) leaves it, leaves the cursor
    // alone: the locked read goes on from it, and makes a dead changer's count even.
    ASSERT_EQ(nisfind(fd, 0, "00000007", out, sizeof out), 40);
    kisam::isx_file_of(is_db[fd]->uniqueid)->xf_seq += 1;
    ASSERT_EQ(is_isin(PROC(P_ISREAD), fd, 0), 0);
    EXPECT_EQ(is_read_nolock(0, out, sizeof out, 0), kReadAgain);
    is_isout();
    const unsigned long locked = is_nolock_reads;
    ASSERT_EQ(nisread(fd, 0, out, sizeof out), 40);
    EXPECT_EQ(std::memcmp(out, "00000008", 8), 0);
    EXPECT_EQ(is_nolock_reads, locked);
    EXPECT_EQ(seq_of(fd) % 2, 0u);
    ASSERT_EQ(nispread(fd, 0, out, sizeof out), 40);
    EXPECT_EQ(std::memcmp(out, "00000007", 8), 0);
    EXPECT_EQ(is_nolock_reads, locked + 1);
    EXPECT_EQ(nisclose(fd), 0);
}

// An update rewritten in place, killed at each page it changes: the next opener rolls
// back to the old record (bytes and index items); left alone it gives the new one.
class InPlaceUpdate : public kt::Env {
protected:
    static std::string rec(int id, int gen, int len) {
        char t[16];
        std::snprintf(t, sizeof t, "%08d", id);
        std::string r(t, 8);
        std::snprintf(t, sizeof t, "%02d%04d", gen, id);  // key 1: unique per record
        r.append(t, 6);
        r.resize(static_cast<size_t>(len), static_cast<char>('a' + gen));
        return r;
    }
    // Whether the file holds r as its record of r's key 0, found by key 0 and key 1.
    static ::testing::AssertionResult holds(int fd, const std::string& r) {
        char buf[256];
        for (int k : {0, 1}) {   // key 1 lies at byte 8
            const int n = nisfind(fd, k, r.data() + 8 * k, buf, sizeof buf);
            if (n != static_cast<int>(r.size()) || std::memcmp(buf, r.data(), r.size()) != 0)
                return ::testing::AssertionFailure() << "by key " << k << ": " << n << " bytes, " << std::string(buf, 20);
        }
        return ::testing::AssertionSuccess();
    }
};

TEST_F(InPlaceUpdate, KilledAtEveryPageItChangesLeavesTheOldRecord) {
    bound(300);
    const std::string f = made("u.ism", {8, 6});
    ASSERT_EQ(is_init(), 0);
    int fd = nisopen(f.c_str(), ISO_RDWR);
    ASSERT_GE(fd, 0);
    for (int id = 0; id < 300; ++id) ASSERT_EQ(niswrite(fd, rec(id, 0, 100).data(), 100), 0);
    std::string old = rec(150, 0, 100);
    int gen = 0;
    for (int len : {100, 100, 99}) {
        for (bool change_key1 : {false, true}) {
            const std::string now = change_key1 ? rec(150, gen + 1, len) : old.substr(0, 14) + std::string(static_cast<size_t>(len - 14), 'z');
            SCOPED_TRACE("length " + std::to_string(len) + (change_key1 ? ", key 1 changed" : ", key 1 kept"));
            for (int n = 1;; ++n) {
                ASSERT_LT(n, 50) << "the update never ends";
                ASSERT_EQ(nisclose(fd), 0);
                const int rc = kt::run_child([&] {
                    kt::become_unattached();
                    const int cfd = nisopen(f.c_str(), ISO_RDWR);
                    if (cfd < 0) return 1;
                    static int left;
                    left = n;
                    kisam::test_hook = [](int where, int) {
                        if (where == kisam::kHookTouch && --left == 0) ::raise(SIGKILL);
                    };
                    if (nisupdate(cfd, now.data(), static_cast<int>(now.size())) != 0) return 2;
                    kisam::test_hook = nullptr;
                    nisclose(cfd);
                    nisunisam();
                    return 0;
                });
                fd = nisopen(f.c_str(), ISO_RDWR);
                ASSERT_GE(fd, 0);
                if (rc == 0) {
                    ASSERT_TRUE(holds(fd, now));
                    break;
                }
                ASSERT_EQ(rc, 128 + SIGKILL) << "killed before touch " << n;
                ASSERT_TRUE(holds(fd, old)) << "killed before touch " << n;
                if (change_key1) {
                    char buf[256];
                    EXPECT_EQ(nisfind(fd, 1, now.data() + 8, buf, sizeof buf), 0) << "killed before touch " << n;
                }
            }
            old = now;
            if (change_key1) ++gen;
        }
    }
    ASSERT_EQ(nisclose(fd), 0);
    EXPECT_TRUE(kt::sound(f));
}

}  // namespace
