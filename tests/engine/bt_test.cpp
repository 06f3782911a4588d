// B-tree: exact page images of inserts, splits, merges and given-back pages (even split).
#include "bt_fixture.h"

#include "bt.h"
#include "bt_key.h"
#include "kcheck.h"

#include <iterator>
#include <random>
#include <set>
#include <string>

using btt::BtFile;
using btt::item_at;
using btt::nitems;
using btt::ptr_at;

namespace {

constexpr PAGE kNone = KISAM_NOPAGE;
constexpr int kTreesAndFree = kisam::check::CHECK_TREES | kisam::check::CHECK_FREE;

// Item of a key 0 of length 7 with a pad byte that the tree must store as zero.
std::string item7(char c, uint32_t addr) {
    std::string s(12, '\0');
    std::memset(s.data(), c, 7);
    s[7] = 0x77;
    kisam::store_at<uint32_t>(s.data() + 8, addr);
    return s;
}

// Item of a key 0 of length 240 (item 244 bytes, order 4): first byte v, then filler.
constexpr int kLen4 = 244;
std::string item4(int v) {
    std::string s(kLen4, 'k');
    s[0] = static_cast<char>(v);
    kisam::store_at<uint32_t>(s.data() + 240, 0x1000u + static_cast<uint32_t>(v));
    return s;
}

std::string keys_of(const IS_DATA& d) {
    std::string r;
    for (int i = 0; i < nitems(d); ++i) r += static_cast<char>('0' + item_at(d, i, kLen4)[0]);
    return r;
}

void insert_all(BtFile& f, std::initializer_list<int> vs) {
    for (int v : vs) {
        std::string it = item4(v);
        ASSERT_EQ(f.insert(0, it), 0) << v;
    }
}

}  // namespace

TEST(BtPages, LeafImageInCompactHeaderFile) {
    BtFile f(512, {7});
    ASSERT_TRUE(f.ok());
    f.begin();
    EXPECT_EQ(f.key(0)->k_order, 63);
    for (char c : {'c', 'a', 'b'}) {
        std::string it = item7(c, 0x11223300u + static_cast<uint32_t>(c));
        ASSERT_EQ(f.insert(0, it), 0);
    }
    EXPECT_EQ(f.root(0), 1024u);
    EXPECT_EQ(f.currpage(0), 1024u);   // room left in the page
    f.end();

    IS_DATA d = f.disk_page(1024);
    EXPECT_EQ(d.bt.bt_keyno, 0);
    EXPECT_EQ(nitems(d), 3);
    EXPECT_EQ(ptr_at(d, 0, 12), kNone);
    for (int i = 0; i < 3; ++i) {
        std::string want = item7(static_cast<char>('a' + i), 0x11223300u + static_cast<uint32_t>('a' + i));
        want[7] = 0;
        EXPECT_EQ(item_at(d, i, 12), want) << i;
        EXPECT_EQ(ptr_at(d, i + 1, 12), kNone) << i;
    }
}

// An even split and a new root, then a merge that collapses the root: the pages it
// gives back form the free chain on disk, last freed first, and are taken again in
// that order before the file grows.
TEST(BtPages, SplitMergeAndTheFreeChain) {
    BtFile f(512, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    ASSERT_EQ(f.key(0)->k_order, 4);
    insert_all(f, {1, 2, 3});
    EXPECT_EQ(f.currpage(0), 1024u);
    insert_all(f, {4});
    EXPECT_EQ(f.currpage(0), kNone);   // the insert filled the page
    insert_all(f, {5});
    EXPECT_EQ(f.currpage(0), kNone);   // the root split
    EXPECT_EQ(f.root(0), 3072u);
    f.end();

    IS_DATA r = f.disk_page(3072), l = f.disk_page(1024), g = f.disk_page(2048);
    EXPECT_EQ(nitems(r), 1);
    EXPECT_EQ(ptr_at(r, 0, kLen4), 1024u);
    EXPECT_EQ(item_at(r, 0, kLen4), item4(3));
    EXPECT_EQ(ptr_at(r, 1, kLen4), 2048u);
    EXPECT_EQ(keys_of(l), "12");
    EXPECT_EQ(keys_of(g), "45");
    EXPECT_EQ(ptr_at(g, 0, kLen4), kNone);
    EXPECT_EQ(ptr_at(g, 2, kLen4), kNone);

    f.begin();
    ASSERT_EQ(f.remove(0, item4(5)), 0);
    EXPECT_EQ(f.root(0), 1024u);
    f.end();
    EXPECT_EQ(keys_of(f.disk_page(1024)), "1234");
    const IS_DATA head = f.disk_page(512);   // file offset 0: the control page
    EXPECT_EQ(kisam::load_at<PAGE>(head.c + 4), 3072u);   // is_nextfree: the root, freed last
    EXPECT_EQ(kisam::load_at<PAGE>(head.c + 8), 4096u);   // is_lastpage
    for (auto [page, next] : {std::pair<PAGE, PAGE>{3072, 2048}, {2048, 4096}}) {
        IS_DATA d = f.disk_page(page);
        const unsigned char* b = reinterpret_cast<const unsigned char*>(d.c);
        EXPECT_EQ(kisam::load_at<uint32_t>(b), 0xFFFFFFFEu) << page;   // free-page mark
        EXPECT_EQ(kisam::load_at<PAGE>(b + 4), next) << page;
        for (int i = 8; i < 32; ++i) EXPECT_EQ(b[i], 0xFF) << page << " byte " << i;
    }

    // The next split takes 3072 for the right half, then 2048 for the new root.
    f.begin();
    insert_all(f, {6});
    EXPECT_EQ(f.root(0), 2048u);
    f.end();
    r = f.disk_page(2048);
    EXPECT_EQ(ptr_at(r, 0, kLen4), 1024u);
    EXPECT_EQ(ptr_at(r, 1, kLen4), 3072u);
    kisam::check::Report rep = kisam::check::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    EXPECT_TRUE(rep.free_chain.empty());
}

// The item where a search stops, found by bisection, is the one that a scan from the
// first item in the search direction stops at, for every mode, with duplicates over the
// key part (mode 5), odd keys whose pad byte the page holds as non-zero, and keys below,
// among, between and above the items.  KISAM_SEED replays a run.
TEST(BtScan, BisectionStopsWhereTheScanStops) {
    const uint64_t seed = kt::test_seed(0xB15EC7);
    std::mt19937_64 rng(seed);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    for (int keylen : {1, 3, 4, 7}) {
        // A key other than 0 with a 2-byte key 0: the compared bytes cover the pad.
        IS_KEY k{};
        k.k_keylen = static_cast<int16_t>(keylen);
        k.k_offset = static_cast<int16_t>((keylen + 1) & ~1);
        k.k_itemlen = static_cast<int16_t>(k.k_offset + 2);
        k.k_ncomp = static_cast<int16_t>(k.k_offset + 2);
        k.k_order = static_cast<int16_t>(bt_order(k.k_itemlen, 1024));
        const int len = k.k_itemlen, inc = len + 4;
        for (int round = 0; round < 300; ++round) {
            // Distinct items in order over k_ncomp bytes from a small alphabet, so that the
            // key part repeats; the pad byte counts as zero in the order.
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
                // The scan as the pages' order defines it, on a copy with the pads zeroed.
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
