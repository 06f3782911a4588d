// B-tree page images, the search against a scan, the checker on each kind of damage.
#include "bt_fixture.h"

#include "bt.h"
#include "bt_key.h"
#include "kcheck.h"
#include "v_pool.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>

using btt::BtFile;
using btt::item_at;
using btt::nitems;
using btt::ptr_at;
namespace kc = kisam::check;

namespace {

constexpr PAGE kNone = KISAM_NOPAGE;
constexpr int kTreesAndFree = kc::CHECK_TREES | kc::CHECK_FREE;

// Item of a 240-byte key 0 (order 4): v in the first two bytes.
constexpr int kLen4 = 244;
std::string item4(int v) {
    std::string s(kLen4, 'k');
    s[0] = static_cast<char>(v >> 8);
    s[1] = static_cast<char>(v);
    kisam::store_at<uint32_t>(s.data() + 240, 0x1000u + static_cast<uint32_t>(v));
    return s;
}

std::string keys_of(const IS_DATA& d) {
    std::string r;
    for (int i = 0; i < nitems(d); ++i) r += static_cast<char>('0' + item_at(d, i, kLen4)[1]);
    return r;
}

void insert_all(BtFile& f, int lo, int hi) {
    for (int v = lo; v <= hi; ++v) {
        std::string it = item4(v);
        ASSERT_EQ(f.insert(0, it), 0) << v;
    }
}

}  // namespace

// A root split keeps half on each side; its collapse gives the pages back to the free
// chain, last freed first, and they are taken again in that order before the file grows.
TEST(BtPages, SplitMergeAndTheFreeChain) {
    BtFile f(512, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    ASSERT_EQ(f.key(0)->k_order, 4);
    insert_all(f, 1, 5);
    EXPECT_EQ(f.root(0), 3072u);
    f.end();
    const IS_DATA r = f.disk_page(3072);
    EXPECT_EQ((std::vector<PAGE>{ptr_at(r, 0, kLen4), ptr_at(r, 1, kLen4)}), (std::vector<PAGE>{1024, 2048}));
    EXPECT_EQ(item_at(r, 0, kLen4), item4(3));
    EXPECT_EQ((std::vector<std::string>{keys_of(f.disk_page(1024)), keys_of(f.disk_page(2048))}),
              (std::vector<std::string>{"12", "45"}));

    f.begin();
    ASSERT_EQ(f.remove(0, item4(5)), 0);
    EXPECT_EQ(f.root(0), 1024u);
    f.end();
    EXPECT_EQ(keys_of(f.disk_page(1024)), "1234");
    EXPECT_EQ(kisam::load_at<PAGE>(f.disk_page(512).c + 4), 3072u);   // is_nextfree: the root, freed last
    f.begin();
    insert_all(f, 6, 6);
    EXPECT_EQ(f.root(0), 2048u) << "the split took 3072 for its right half, 2048 for the root";
    f.end();
    const kc::Report rep = kc::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    EXPECT_TRUE(rep.free_chain.empty());
}

// A warm leaves each cursor on the item's leaf; the insert takes that hint only when the
// item lies strictly inside the page, and the warm changes no page.
TEST(BtWarm, TheLeafBecomesTheHintAndAWrongOneIsNotTaken) {
    BtFile f(512, {120, 120});
    ASSERT_TRUE(f.ok());
    f.begin();
    // Orders 7 and 4: three levels from some 30 items.
    auto item = [&](int k, int v) {
        std::string s(static_cast<size_t>(f.key(k)->k_itemlen), 'k');
        for (size_t at : {size_t{0}, size_t{120}}) {
            if (at + 2 > s.size()) continue;
            s[at] = static_cast<char>(v >> 8);
            s[at + 1] = static_cast<char>(v);
        }
        if (k == 0) kisam::store_at<uint32_t>(s.data() + 120, 0x1000u + static_cast<uint32_t>(v));
        return s;
    };
    ASSERT_EQ(f.key(1)->k_order, 4);
    for (int v = 1; v <= 61; v += 2)
        for (int k = 0; k < 2; ++k) {
            std::string it = item(k, v);
            ASSERT_EQ(f.insert(k, it), 0) << v;
        }
    f.end();
    f.begin();
    const int keys[2] = {0, 1};
    std::mt19937 rng(static_cast<uint32_t>(kt::test_seed(7)));
    std::set<int> in;
    for (int v = 1; v <= 61; v += 2) in.insert(v);
    for (int round = 0; round < 30 && in.size() < 60; ++round) {
        int v = 2 + 2 * static_cast<int>(rng() % 30);
        while (in.count(v)) v = v % 60 + 2;
        const std::string w0 = item(0, v), w1 = item(1, v);
        const char* items[2] = {w0.data(), w1.data()};
        const IS_DATA before = f.disk_page(f.root(1));
        f.currpage(0) = f.currpage(1) = kNone;
        bt_warm(2, keys, items);
        for (int k = 0; k < 2; ++k) {
            const PAGE leaf = f.currpage(k);
            ASSERT_NE(leaf, kNone) << "round " << round << " key " << k;
            IS_DATA* d = v_read(leaf);
            ASSERT_NE(d, nullptr);
            EXPECT_EQ(ptr_at(*d, 0, 0), kNone) << "not a leaf";
            v_unsafe(leaf, d->c);
        }
        EXPECT_EQ(std::memcmp(before.c, f.disk_page(f.root(1)).c, sizeof before.c), 0);
        // Key 0 gets an item far from the one it was warmed for.
        int w = v <= 30 ? v + 30 : v - 30;
        while (in.count(w) || w == v) w = w % 60 + 2;
        std::string a = item(0, w), b = item(1, v);
        ASSERT_EQ(f.insert(0, a), 0) << w;
        ASSERT_EQ(f.insert(1, b), 0) << v;
        in.insert(v);
        in.insert(w);
        std::string c = item(0, v), e = item(1, w);
        ASSERT_EQ(f.insert(0, c), 0) << v;
        ASSERT_EQ(f.insert(1, e), 0) << w;
    }
    f.end();
    kc::Report rep = kc::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    f.begin();
    for (int k = 0; k < 2; ++k)
        for (int v : in) {
            std::string it = item(k, v);
            EXPECT_EQ(bt_search(k, f.root(k), 5, it.data(), 0), 1) << "key " << k << " item " << v;
        }
    f.end();
}

// Bisection stops where a scan stops, for every mode, with duplicate key parts; a pad
// byte another writer left non-zero compares as zero.  KISAM_SEED replays a run.
TEST(BtScan, BisectionStopsWhereTheScanStops) {
    const uint64_t seed = kt::test_seed(0xB15EC7);
    std::mt19937_64 rng(seed);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    for (int keylen : {1, 3, 4, 7}) {
        IS_KEY k{};
        k.k_keylen = static_cast<int16_t>(keylen);
        k.k_offset = static_cast<int16_t>((keylen + 1) & ~1);
        k.k_itemlen = static_cast<int16_t>(k.k_offset + 2);
        k.k_ncomp = static_cast<int16_t>(k.k_offset + 2);
        k.k_order = static_cast<int16_t>(bt_order(k.k_itemlen, 1024));
        const int len = k.k_itemlen, inc = len + 4;
        for (int round = 0; round < 300; ++round) {
            std::set<std::string> items;
            const int n = static_cast<int>(rng() % (k.k_order + 1));
            while (static_cast<int>(items.size()) < n) {
                std::string it(static_cast<size_t>(len), '\0');
                for (char& c : it) c = static_cast<char>("\x01\x02\x7E\x7F\x80\x81\xFE\xFF"[rng() % 8]);
                if (k.k_offset > keylen) it[keylen] = 0;
                items.insert(it);
            }
            IS_DATA page{};
            page.bt.bt_nitems = static_cast<int16_t>(n);
            int i = 0;
            for (const std::string& it : items) {
                char* x = page.c + kisam::bt_item_off(i++, inc);
                std::memcpy(x, it.data(), it.size());
                if (k.k_offset > keylen && rng() % 2) x[keylen] = static_cast<char>(0x5A);
            }
            std::string key(static_cast<size_t>(len), '\0');
            if (n > 0 && rng() % 2) {
                key = *std::next(items.begin(), static_cast<long>(rng() % n));
            } else {
                for (char& c : key) c = static_cast<char>("\x00\x01\x7F\x80\xFF"[rng() % 5]);
            }
            if (k.k_offset > keylen) key[keylen] = 0;
            for (int flag : {0, 1, 2, 3, 5}) {
                const int ncomp = flag == 5 ? keylen : k.k_ncomp;
                IS_DATA ref = page;
                int want = -1;
                for (int j = 0; j < n; ++j) {
                    const int at = flag & 2 ? n - 1 - j : j;
                    char* x = ref.c + kisam::bt_item_off(at, inc);
                    kisam::bt_zero_pad(x, &k);
                    if (!is_more(reinterpret_cast<const CmpType*>(key.data()),
                                 reinterpret_cast<const CmpType*>(x), ncomp, flag)) {
                        want = at;
                        break;
                    }
                }
                IS_DATA d = page;
                const int got = kisam::bt_scan(&d, &k, key.data(), ncomp, flag);
                ASSERT_EQ(got, want) << "keylen " << keylen << " n " << n << " flag " << flag;
                if (got >= 0) {
                    EXPECT_EQ(std::memcmp(d.c + kisam::bt_item_off(got, inc),
                                          ref.c + kisam::bt_item_off(got, inc), static_cast<size_t>(len)), 0)
                        << "the item found carries a zero pad byte";
                }
            }
        }
    }
}

// The checker: each damage patched on disk is the first violation reported.

namespace {

struct Disk {
    explicit Disk(const std::string& p) : path(p) {
        std::string err;
        EXPECT_TRUE(kc::open_image(path, &img, &err)) << err;
    }
    IS_DATA page(PAGE p) {
        IS_DATA d;
        std::string err;
        EXPECT_TRUE(img.read_page(p, &d, &err)) << err;
        return d;
    }
    void put_page(PAGE p, const IS_DATA& d) {
        int fd = ::open(path.c_str(), O_RDWR);
        EXPECT_EQ(::pwrite(fd, d.c, sizeof d.c, static_cast<off_t>(img.offset(p))), 1024);
        ::close(fd);
    }
    std::string path;
    kc::FileImage img;
};

PAGE ptr(const IS_DATA& d, int i) { return ptr_at(d, i, kLen4); }
void set_ptr(IS_DATA& d, int i, PAGE p) { kisam::store_at<PAGE>(d.c + 4 + i * (kLen4 + 4), p); }
char* item_of(IS_DATA& d, int i) { return d.c + 8 + i * (kLen4 + 4); }

void expect_violation(Disk& disk, std::vector<PAGE> pages,
                      const std::function<void(std::vector<IS_DATA>&)>& damage,
                      const std::string& expected) {
    std::vector<IS_DATA> orig;
    for (PAGE p : pages) orig.push_back(disk.page(p));
    std::vector<IS_DATA> bad = orig;
    damage(bad);
    for (size_t i = 0; i < pages.size(); ++i) disk.put_page(pages[i], bad[i]);
    kc::Report rep = kc::check_file(disk.path, kTreesAndFree);
    EXPECT_FALSE(rep.ok) << "expected: " << expected;
    EXPECT_NE(rep.error.find(expected), std::string::npos) << rep.error;
    for (size_t i = 0; i < pages.size(); ++i) disk.put_page(pages[i], orig[i]);
    EXPECT_TRUE(kc::check_file(disk.path, kTreesAndFree).ok);
}

void build(BtFile& f, int n) {
    f.begin();
    insert_all(f, 1, n);
    f.end();
}

}  // namespace

TEST(Kcheck, TreeDamage) {
    BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    build(f, 40);
    Disk disk(f.path());
    const PAGE R = disk.img.keys[0].k_root;
    IS_DATA root = disk.page(R);
    const PAGE A = ptr(root, 0), B = ptr(root, 1);
    const PAGE L1 = ptr(disk.page(A), 0), L2 = ptr(disk.page(A), 1), LB = ptr(disk.page(B), 0);
    ASSERT_EQ(ptr(disk.page(L1), 0), KISAM_NOPAGE) << "expected three levels";

    expect_violation(disk, {L1}, [](auto& p) {
        std::string t(item_of(p[0], 0), kLen4);
        std::memcpy(item_of(p[0], 0), item_of(p[0], 1), kLen4);
        std::memcpy(item_of(p[0], 1), t.data(), kLen4);
    }, "item 1: not above item 0");
    expect_violation(disk, {L1, L2}, [](auto& p) {
        std::memcpy(item_of(p[1], 0), item_of(p[0], 0), kLen4);
    }, "not above the separator left of the page");
    expect_violation(disk, {L1}, [](auto& p) { p[0].bt.bt_nitems = 5; }, "5 items (order 4)");
    expect_violation(disk, {L1}, [](auto& p) { p[0].fp.fp_ident = -2; }, "a free page is linked");
    expect_violation(disk, {A}, [](auto& p) { set_ptr(p[0], 1, 1500); },
                     "child 1500 is not a page of the file");
    expect_violation(disk, {A}, [L1](auto& p) { set_ptr(p[0], 1, L1); }, "reached twice");
    expect_violation(disk, {R}, [LB](auto& p) { set_ptr(p[0], 1, LB); }, "leaf at depth 1");
}

TEST(Kcheck, FreeChainDamage) {
    BtFile f(512, {240});
    ASSERT_TRUE(f.ok());
    build(f, 40);
    f.begin();
    for (int v = 1; v <= 30; ++v) ASSERT_EQ(f.remove(0, item4(v)), 0) << v;
    f.end();
    kc::Report rep = kc::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    ASSERT_GE(rep.free_chain.size(), 3u);
    EXPECT_EQ(rep.free_pages, static_cast<long>(rep.free_chain.size()));
    EXPECT_EQ(rep.unknown_pages, 0);

    Disk disk(f.path());
    const PAGE head = rep.free_chain[0], second = rep.free_chain[1], last = rep.free_chain.back();
    const PAGE tree = disk.img.keys[0].k_root;
    expect_violation(disk, {last}, [head](auto& p) { p[0].fp.fp_nextpage = head; }, "cycle");
    expect_violation(disk, {head}, [tree](auto& p) { p[0].fp.fp_nextpage = tree; },
                     "is also in the tree of key 0");
    expect_violation(disk, {second}, [](auto& p) { p[0].fp.fp_ident = 5; }, "is not marked free");
    expect_violation(disk, {second}, [](auto& p) { p[0].c[10] = 0; }, "filler bytes");
}

// Key-table fields that disagree are damage naming the field, never a copy past an item.
TEST(Kcheck, ControlPageFieldsThatDisagreeAreNamed) {
    BtFile f(1024, {8, 12, 4});
    ASSERT_TRUE(f.ok());
    std::string r(60, 'r');
    for (int i = 0; i < 40; ++i) {
        char k[32];
        std::snprintf(k, sizeof k, "%08d%012d%04d", i, 1000 - i, i % 7);
        std::memcpy(&r[0], k, 24);
        ASSERT_EQ(niswrite(f.fd(), r.data(), static_cast<int>(r.size())), 0);
    }
    ASSERT_EQ(nisflush(f.fd()), 0);
    ASSERT_TRUE(kc::check_file(f.path()).ok);

    // (byte of the control page, 16-bit value, what the report names)
    const int key1 = 100 + 16;
    struct Case {
        int at;
        int16_t value;
        const char* named;
    } cases[] = {
        {key1 + 12, 7, "key 1: k_ncomp 7"},         // the reported image: 20 -> 7
        {key1 + 12, 40, "key 1: k_ncomp 40"},
        {key1 + 10, 16, "key 1: k_itemlen 16"},
        {key1 + 8, 14, "key 1: k_offset 14"},
        {key1 + 6, 13, "key 1: k_offset 12 for k_keylen 13"},
        {100 + 6, 9, "key 0: k_offset 8 for k_keylen 9"},
        {100 + 6, 6, "key 0: k_offset 8 for k_keylen 6"},
        {100 + 12, 9, "key 0: k_ncomp 9"},
        {100 + 4, 3, "key 0: k_order 3"},
        {86, 23, "is_minrec 23"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.named);
        int fd = ::open(f.path().c_str(), O_RDWR);
        int16_t old;
        ASSERT_EQ(::pread(fd, &old, 2, c.at), 2);
        ASSERT_EQ(::pwrite(fd, &c.value, 2, c.at), 2);
        kc::Report rep = kc::check_file(f.path());
        EXPECT_FALSE(rep.ok);
        EXPECT_NE(rep.error.find(c.named), std::string::npos) << rep.error;
        std::vector<std::string> items;
        std::string err;
        EXPECT_EQ(kc::list_items(f.path(), 1, &items, &err), -1);
        ASSERT_EQ(::pwrite(fd, &old, 2, c.at), 2);
        ::close(fd);
    }
    EXPECT_TRUE(kc::check_file(f.path()).ok);
}
