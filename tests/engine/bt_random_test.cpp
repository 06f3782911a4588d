// B-tree against an ordered in-memory model, with orders 2 to 5 so that every split,
// borrow, merge and root change happens often, under both split rules and both control-page
// sizes.  The checker reads the file after every batch; the trees end empty and every page
// free.  KISAM_SEED replays a run.
#include "bt_fixture.h"

#include "kcheck.h"
#include "v_pool.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <tuple>

namespace {

using Model = std::map<std::string, std::string>;   // compared bytes -> whole item

struct Shape {
    const char* name;
    std::vector<int> lens;
};

// Orders 2, 3, 4 and 5; then odd keys (pad bytes) of order 63 and 4.
const Shape kShapes[] = {
    {"order2", {400}}, {"order3", {300}}, {"order4", {240}}, {"order5", {190}},
    {"twokeys", {7, 233}},
};

uint32_t mix(uint32_t x) {
    x = (x ^ (x >> 16)) * 0x7feb352dU;
    x = (x ^ (x >> 15)) * 0x846ca68bU;
    return x ^ (x >> 16);
}

// Key bytes of value v: a scrambled first byte (so that bytes above 0x7F lead often),
// v itself, then filler.  Distinct v give distinct keys.
void put_key(char* at, uint32_t v, int len) {
    at[0] = static_cast<char>(mix(v) & 0xFF);
    for (int i = 1; i < 4; ++i) at[i] = static_cast<char>(v >> (24 - 8 * i));
    for (int i = 4; i < len; ++i) at[i] = static_cast<char>(mix(v * 131u + static_cast<uint32_t>(i)) >> 7);
}


class Differential : public ::testing::TestWithParam<std::tuple<int, int, int>> {
protected:
    void SetUp() override {
        auto [shape, sp, magic] = GetParam();
        old_sp_ = Sp_half;
        Sp_half = static_cast<short>(sp);
        seed_ = kt::test_seed(0x5EED0000u + static_cast<uint64_t>(shape * 4 + sp * 2 + (magic == 512)));
        rng_.seed(seed_);
        kt::Config cfg;
        cfg.maxbuf = 256;
        file_ = std::make_unique<btt::BtFile>(magic, kShapes[shape].lens, cfg);
        ASSERT_TRUE(file_->ok());
        nkeys_ = static_cast<int>(kShapes[shape].lens.size());
        models_.assign(static_cast<size_t>(nkeys_), Model());
    }
    void TearDown() override {
        file_.reset();
        Sp_half = old_sp_;
    }

    const IS_KEY& kd(int k) const { return *file_->key(k); }

    // Comparable form: the first k_ncomp bytes, pad byte zeroed.
    std::string form(int k, const std::string& item) const {
        const IS_KEY& d = kd(k);
        std::string f = item.substr(0, static_cast<size_t>(d.k_ncomp));
        if (d.k_offset > d.k_keylen && d.k_keylen < d.k_ncomp) f[static_cast<size_t>(d.k_keylen)] = 0;
        return f;
    }

    // An item of key k for value v (key 0: v and a record address; key 1: the value w of
    // a small range, so that it repeats, and v as the key 0 part).
    std::string make_item(int k, uint32_t v) {
        const IS_KEY& d = kd(k);
        std::string s(static_cast<size_t>(d.k_itemlen), '\0');
        if (k == 0) {
            put_key(s.data(), v, d.k_keylen);
            kisam::store_at<uint32_t>(s.data() + d.k_offset, static_cast<uint32_t>(rng_()));
        } else {
            put_key(s.data(), 1000000u + v % 37u, d.k_keylen);
            put_key(s.data() + d.k_offset, v, kd(0).k_keylen);
        }
        return s;
    }
    uint32_t any_value() { return static_cast<uint32_t>(rng_() % 700); }
    const std::string* any_present(int k) {
        Model& m = models_[static_cast<size_t>(k)];
        if (m.empty()) return nullptr;
        auto it = m.lower_bound(form(k, make_item(k, any_value())));
        if (it == m.end()) it = m.begin();
        return &it->second;
    }

    // The cursor hint: left as it is, dropped, or set to any page of the file.
    void shake_hint(int k) {
        unsigned r = static_cast<unsigned>(rng_() % 8);
        if (r == 0) file_->currpage(k) = KISAM_NOPAGE;
        if (r == 1) {
            PAGE last = is_curfcp->is_lastpage;
            if (last > 1024) file_->currpage(k) = 1024u * (1u + static_cast<PAGE>(rng_() % (last / 1024 - 1)));
        }
    }

    void op_insert(int k) {
        Model& m = models_[static_cast<size_t>(k)];
        std::string it = make_item(k, any_value());
        const std::string f = form(k, it);
        auto old = m.find(f);
        const bool force = k == 0 && rng_() % 3 == 0;
        std::string sent = it;
        shake_hint(k);
        const bool was_empty = file_->root(k) == KISAM_NOPAGE;
        int r = file_->insert(k, it, force);
        if (old == m.end()) {
            ASSERT_EQ(r, 0) << "insert, " << errinfo();
            // A hint left by an insert (not the first) names a page of this key with room.
            if (PAGE cp = file_->currpage(k); cp != KISAM_NOPAGE && !was_empty) {
                IS_DATA* d = v_read(cp);
                ASSERT_NE(d, nullptr);
                EXPECT_EQ(d->bt.bt_keyno, k);
                EXPECT_LT(d->bt.bt_nitems, kd(k).k_order);
                v_unsafe(cp, d->c);
            }
            if (kd(k).k_offset > kd(k).k_keylen) sent[static_cast<size_t>(kd(k).k_keylen)] = 0;
            m[f] = sent;
        } else {
            ASSERT_EQ(r, 1) << "insert of a present item, " << errinfo();
            if (!force) {
                EXPECT_TRUE(it == sent) << "a refused insert changed the caller's item";
            } else {
                // The tree takes the new record address, the caller's item the old one.
                const int off = kd(k).k_offset;
                EXPECT_EQ(it.compare(static_cast<size_t>(off), 4, old->second, static_cast<size_t>(off), 4), 0);
                old->second.replace(static_cast<size_t>(off), 4, sent, static_cast<size_t>(off), 4);
            }
        }
    }

    void op_delete(int k) {
        Model& m = models_[static_cast<size_t>(k)];
        const std::string* p = rng_() % 5 ? any_present(k) : nullptr;
        std::string it = p ? *p : make_item(k, any_value());
        if (k == 0 && p) kisam::store_at<uint32_t>(it.data() + kd(0).k_offset, 0xA5A5A5A5u);
        const bool present = m.count(form(k, it)) != 0;
        int r = file_->remove(k, it);
        if (present) {
            ASSERT_EQ(r, 0) << "delete, " << errinfo();
            m.erase(form(k, it));
        } else {
            ASSERT_EQ(r, -1);
            ASSERT_EQ(is_errno, ISE_BTNP);
            EXPECT_EQ(btt::error_stack().at(0), 0x0101);
        }
    }

    void op_search(int k) {
        const Model& m = models_[static_cast<size_t>(k)];
        static const int kModes[] = {0, 1, 2, 3, 5};
        const int mode = kModes[rng_() % 5];
        const std::string* p = rng_() % 3 == 0 ? any_present(k) : nullptr;
        std::string probe = p ? *p : make_item(k, any_value());
        const std::string f = form(k, probe);
        shake_hint(k);

        const std::string* want = nullptr;
        if (mode == 0 || mode == 1) {
            auto it = mode == 1 ? m.lower_bound(f) : m.upper_bound(f);
            if (it != m.end()) want = &it->second;
        } else if (mode == 2 || mode == 3) {
            auto it = mode == 3 ? m.upper_bound(f) : m.lower_bound(f);
            if (it != m.begin()) want = &std::prev(it)->second;
        }
        const size_t kl = static_cast<size_t>(kd(k).k_keylen);
        bool any5 = false;
        if (mode == 5) {
            auto it = m.lower_bound(f.substr(0, kl));
            any5 = it != m.end() && it->first.compare(0, kl, f, 0, kl) == 0;
        }

        std::string got = probe;
        int r = bt_search(k, file_->root(k), mode, got.data(), 0);
        ASSERT_GE(r, 0) << "search mode " << mode << ", " << errinfo();
        if (mode == 5) {
            ASSERT_EQ(r, any5 ? 1 : 0) << "mode 5";
            if (r == 1) {
                EXPECT_EQ(got.compare(0, kl, probe, 0, kl), 0);
                auto it = m.find(form(k, got));
                ASSERT_NE(it, m.end());
                EXPECT_EQ(it->second, got);
            }
        } else {
            ASSERT_EQ(r, want ? 1 : 0) << "mode " << mode;
            if (want) { EXPECT_EQ(got, *want) << "mode " << mode; }
        }
        if (r == 1) {
            // currpage names the page that holds the item.
            PAGE cp = file_->currpage(k);
            ASSERT_NE(cp, KISAM_NOPAGE);
            IS_DATA* d = v_read(cp);
            ASSERT_NE(d, nullptr);
            bool found = false;
            const int inc = kd(k).k_itemlen + 4;
            for (int i = 0; i < d->bt.bt_nitems && !found; ++i)
                found = std::memcmp(d->c + 8 + i * inc, got.data(), static_cast<size_t>(kd(k).k_itemlen)) == 0;
            EXPECT_TRUE(found) << "currpage " << cp;
        }
    }

    std::string errinfo() const {
        std::string s = "is_errno " + std::to_string(is_errno) + ", stack";
        for (int c : btt::error_stack()) s += " " + std::to_string(c);
        return s;
    }

    // Flush, check the file from disk, compare every tree with its model, lock again.
    void verify(const char* when) {
        ASSERT_EQ(kt::write_back(), 0);
        file_->end();
        kisam::check::Report rep = kisam::check::check_file(
            file_->path(), kisam::check::CHECK_TREES | kisam::check::CHECK_FREE);
        ASSERT_TRUE(rep.ok) << when << ": " << rep.error;
        for (int k = 0; k < nkeys_; ++k) {
            std::vector<std::string> items;
            std::string err;
            ASSERT_GE(kisam::check::list_items(file_->path(), k, &items, &err), 0) << err;
            std::vector<std::string> want;
            for (const auto& [f, item] : models_[static_cast<size_t>(k)]) want.push_back(item);
            ASSERT_TRUE(items == want) << when << ", key " << k;
            max_depth_ = std::max(max_depth_, rep.keys[static_cast<size_t>(k)].depth);
        }
        last_report_ = rep;
        file_->begin();
    }

    void run_phase(const char* name, int ops, int p_insert, int p_delete) {
        for (int i = 0; i < ops; ++i) {
            const int k = static_cast<int>(rng_() % static_cast<unsigned>(nkeys_));
            const int r = static_cast<int>(rng_() % 100);
            if (r < p_insert) op_insert(k);
            else if (r < p_insert + p_delete) op_delete(k);
            else op_search(k);
            if (HasFatalFailure()) return;
            if (i % 64 == 63) verify(name);
            if (HasFatalFailure()) return;
        }
        verify(name);
    }

    short old_sp_ = 1;
    uint64_t seed_ = 0;
    std::mt19937_64 rng_;
    std::unique_ptr<btt::BtFile> file_;
    int nkeys_ = 0;
    std::vector<Model> models_;
    int max_depth_ = 0;
    kisam::check::Report last_report_;
};

TEST_P(Differential, AgainstOrderedModel) {
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed_));
    file_->begin();
    for (auto [name, ops, p_insert, p_delete] :
         {std::tuple{"growing", 1500, 65, 15}, {"mixed", 1000, 40, 40}, {"shrinking", 1000, 15, 65}}) {
        run_phase(name, ops, p_insert, p_delete);
        if (HasFatalFailure()) return;
    }

    // Empty every tree, searching between deletes.
    for (int k = 0; k < nkeys_; ++k) {
        Model& m = models_[static_cast<size_t>(k)];
        std::vector<std::string> left;
        for (const auto& [f, item] : m) left.push_back(item);
        std::shuffle(left.begin(), left.end(), rng_);
        int n = 0;
        for (const std::string& it : left) {
            ASSERT_EQ(file_->remove(k, it), 0) << errinfo();
            m.erase(form(k, it));
            op_search(k);
            if (HasFatalFailure()) return;
            if (++n % 32 == 0) verify("emptying");
            if (HasFatalFailure()) return;
        }
        EXPECT_EQ(file_->root(k), KISAM_NOPAGE);
    }
    verify("empty");
    if (HasFatalFailure()) return;
    EXPECT_GE(max_depth_, 3) << "the trees never grew deep";
    // Nothing but trees ever lived in the file: every page is free again.
    const kisam::check::Report& rep = last_report_;
    EXPECT_EQ(rep.unknown_pages, 0);
    EXPECT_EQ(static_cast<long>(rep.free_chain.size()), static_cast<long>(rep.map.use.size()));
    file_->end();
}

std::string param_name(const ::testing::TestParamInfo<std::tuple<int, int, int>>& info) {
    auto [shape, sp, magic] = info.param;
    return std::string(kShapes[shape].name) + (sp ? "_half" : "_atpoint") + "_" + std::to_string(magic);
}

INSTANTIATE_TEST_SUITE_P(Bt, Differential,
                         ::testing::Combine(::testing::Range(0, 5), ::testing::Values(0, 1),
                                            ::testing::Values(512, 1024)),
                         param_name);

}  // namespace
