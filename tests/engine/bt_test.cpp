// B-tree: exact page images of inserts, splits, repairs and given-back pages, and the
// error stacks of the failure paths.
#include "bt_fixture.h"

#include "kcheck.h"

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>

#include <string>

using btt::BtFile;
using btt::item_at;
using btt::nitems;
using btt::ptr_at;

namespace {

constexpr PAGE kNone = KISAM_NOPAGE;
// The items here carry made-up record addresses: the data check has nothing to follow.
constexpr int kTreesAndFree = kisam::check::CHECK_TREES | kisam::check::CHECK_FREE;

// Item of a key 0 of length 7: the key bytes, a pad byte, the record address.  The pad
// byte is deliberately not zero: the tree must store it as zero.
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

// Key byte of each item of page d.
std::string keys_of(const IS_DATA& d) {
    std::string r;
    for (int i = 0; i < nitems(d); ++i) r += static_cast<char>('0' + item_at(d, i, kLen4)[0]);
    return r;
}

class SpHalf {
public:
    explicit SpHalf(short v) : old_(Sp_half) { Sp_half = v; }
    ~SpHalf() { Sp_half = old_; }
private:
    short old_;
};

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

    // Page 1024 of a compact-header file lies at offset 512.
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
    kisam::check::Report rep = kisam::check::check_file(f.path(), kTreesAndFree);
    EXPECT_TRUE(rep.ok) << rep.error;
    EXPECT_EQ(rep.keys.at(0).items, 3);
}

TEST(BtPages, EvenSplitAndNewRoot) {
    SpHalf sp(1);
    BtFile f(1024, {240});
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
}

TEST(BtPages, SplitAtInsertionPoint) {
    SpHalf sp(0);
    struct Case {
        std::initializer_list<int> order;
        int up;
        const char *left, *right;
    };
    // At the end the page splits there; in the middle the new item itself goes up.
    for (const Case& c : {Case{{1, 2, 3, 4, 5}, 4, "123", "5"}, Case{{5, 4, 3, 2, 1}, 2, "1", "345"},
                          Case{{1, 2, 4, 5, 3}, 3, "12", "45"}}) {
        BtFile f(1024, {240});
        f.begin();
        insert_all(f, c.order);
        PAGE root = f.root(0);
        f.end();
        IS_DATA r = f.disk_page(root);
        EXPECT_EQ(item_at(r, 0, kLen4), item4(c.up));
        EXPECT_EQ(keys_of(f.disk_page(ptr_at(r, 0, kLen4))), c.left);
        EXPECT_EQ(keys_of(f.disk_page(ptr_at(r, 1, kLen4))), c.right);
    }
}

TEST(BtPages, MergeCollapsesRootAndFreePagesAreReusedLastFirst) {
    SpHalf sp(1);
    BtFile f(512, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    insert_all(f, {1, 2, 3, 4, 5});   // root 3072: [1,2] 3 [4,5]
    ASSERT_EQ(f.remove(0, item4(5)), 0);
    EXPECT_EQ(f.root(0), 1024u);
    f.end();

    EXPECT_EQ(keys_of(f.disk_page(1024)), "1234");
    unsigned char head[12];
    {
        int fd = ::open(f.path().c_str(), O_RDONLY);
        ASSERT_EQ(::pread(fd, head, sizeof head, 0), static_cast<ssize_t>(sizeof head));
        ::close(fd);
    }
    EXPECT_EQ(kisam::load_at<PAGE>(head + 4), 3072u);   // is_nextfree: the root, freed last
    EXPECT_EQ(kisam::load_at<PAGE>(head + 8), 4096u);   // is_lastpage
    for (auto [page, next] : {std::pair<PAGE, PAGE>{3072, 2048}, {2048, 4096}}) {
        IS_DATA d = f.disk_page(page);
        const unsigned char* b = reinterpret_cast<const unsigned char*>(d.c);
        EXPECT_EQ(b[0], 0xFE);
        EXPECT_EQ(b[1], 0xFF);
        EXPECT_EQ(b[2], 0xFF);
        EXPECT_EQ(b[3], 0xFF);
        EXPECT_EQ(kisam::load_at<PAGE>(b + 4), next) << page;
        for (int i = 8; i < 32; ++i) EXPECT_EQ(b[i], 0xFF) << page << " byte " << i;
    }
    kisam::check::Report rep = kisam::check::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    EXPECT_EQ(rep.free_chain, (std::vector<PAGE>{3072, 2048}));
    EXPECT_EQ(rep.unknown_pages, 0);

    // The next split takes 3072 for the right half, then 2048 for the new root.
    f.begin();
    insert_all(f, {6});
    EXPECT_EQ(f.root(0), 2048u);
    f.end();
    IS_DATA r = f.disk_page(2048);
    EXPECT_EQ(ptr_at(r, 0, kLen4), 1024u);
    EXPECT_EQ(ptr_at(r, 1, kLen4), 3072u);
    rep = kisam::check::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    EXPECT_TRUE(rep.free_chain.empty());
}

TEST(BtPages, BorrowRightBorrowLeftAndPredecessor) {
    SpHalf sp(1);
    BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    insert_all(f, {1, 2, 3, 4, 5, 6, 7});   // [1,2] 3 [4,5,6,7]
    PAGE root = f.root(0);
    ASSERT_EQ(f.remove(0, item4(1)), 0);     // [2] borrows one from the right
    f.end();
    IS_DATA r = f.disk_page(root);
    PAGE left = ptr_at(r, 0, kLen4), right = ptr_at(r, 1, kLen4);
    EXPECT_EQ(item_at(r, 0, kLen4), item4(4));
    EXPECT_EQ(keys_of(f.disk_page(left)), "23");
    EXPECT_EQ(keys_of(f.disk_page(right)), "567");

    f.begin();
    insert_all(f, {0, 1});                   // [0,1,2,3] 4 [5,6,7]
    ASSERT_EQ(f.remove(0, item4(6)), 0);
    ASSERT_EQ(f.remove(0, item4(7)), 0);     // [5] is the rightmost: borrows from the left
    f.end();
    r = f.disk_page(root);
    EXPECT_EQ(item_at(r, 0, kLen4), item4(3));
    EXPECT_EQ(keys_of(f.disk_page(left)), "012");
    EXPECT_EQ(keys_of(f.disk_page(right)), "45");

    f.begin();
    ASSERT_EQ(f.remove(0, item4(3)), 0);     // the separator gives way to its predecessor
    f.end();
    r = f.disk_page(root);
    EXPECT_EQ(item_at(r, 0, kLen4), item4(2));
    EXPECT_EQ(keys_of(f.disk_page(left)), "01");
    kisam::check::Report rep = kisam::check::check_file(f.path(), kTreesAndFree);
    EXPECT_TRUE(rep.ok) << rep.error;
}

// Absent items and their error stacks are the random test's; here a failed delete must
// leave every page as it was, and a repair of a page that is no child is refused.
TEST(BtErrors, FailedDeleteWritesNothingAndBadRepairIsRefused) {
    BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    insert_all(f, {1, 2, 3, 4, 5});           // two levels
    f.end();
    std::vector<IS_DATA> before;
    for (PAGE p : {1024u, 2048u, 3072u}) before.push_back(f.disk_page(p));
    f.begin();
    EXPECT_EQ(f.remove(0, item4(9)), -1);
    EXPECT_EQ(is_errno, ISE_BTNP);
    EXPECT_EQ(bt_unflow(0, 1024, 2048), -1);
    EXPECT_EQ(is_errno, ISE_BTS);
    EXPECT_EQ(btt::error_stack(), (std::vector<int>{0x0605}));
    f.end();
    int i = 0;
    for (PAGE p : {1024u, 2048u, 3072u})
        EXPECT_EQ(std::memcmp(f.disk_page(p).c, before[static_cast<size_t>(i++)].c, 1024), 0) << p;
}

namespace {

int last_code() {
    std::vector<int> st = btt::error_stack();
    return st.empty() ? 0 : st.back();
}

}  // namespace

// Failures of the layers below: every level adds its own code.
TEST(BtFaults, InsertAddsTheDetailOfTheFailingStep) {
    SpHalf sp(1);
    // A full root leaf [1,2,3,4]; the fifth insert allocates the right half (one write to
    // grow the file), writes both halves, allocates the new root (one write) and writes it.
    const int want[] = {0x0308, 0x0309, 0x030A, 0x030D, 0x030D};
    for (int n = 1; n <= 5; ++n) {
        BtFile f(1024, {240});
        ASSERT_TRUE(f.ok());
        f.begin();
        insert_all(f, {1, 2, 3, 4});
        std::string it = item4(5);
        {
            kt::FailIo fail(kt::FailIo::kWrite, n);
            EXPECT_EQ(f.insert(0, it), -1) << n;
        }
        EXPECT_EQ(last_code(), want[n - 1]) << "write " << n;
        EXPECT_GE(btt::error_stack().size(), 2u);
        f.end();
    }
    {
        // A plain insert one level down: the leaf's write fails, the root adds 0x0305.
        BtFile f(1024, {240});
        f.begin();
        insert_all(f, {1, 2, 3, 4, 5});
        std::string it = item4(6);
        {
            kt::FailIo fail(kt::FailIo::kWrite, 1);
            EXPECT_EQ(f.insert(0, it), -1);
        }
        std::vector<int> st = btt::error_stack();
        ASSERT_GE(st.size(), 3u);
        EXPECT_EQ(st[st.size() - 2], 0x0307);
        EXPECT_EQ(st.back(), 0x0305);
        f.end();
    }
}

TEST(BtFaults, SearchBelowTheRootReportsTreeError) {
    SpHalf sp(1);
    BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    insert_all(f, {1, 2, 3, 4, 5});
    f.end();
    // Reopen so that no page of the file is in this process's view of the pool.
    ASSERT_EQ(nisclose(f.fd()), 0);
    int fd = nisopen(f.path().c_str(), ISO_RDWR);
    ASSERT_EQ(fd, f.fd());
    f.begin();
    f.currpage(0) = KISAM_NOPAGE;
    std::string it = item4(5);
    {
        kt::FailIo fail(kt::FailIo::kRead, 2);   // the root reads, its child does not
        EXPECT_EQ(f.search(0, 1, &it), -1);
    }
    EXPECT_EQ(is_errno, ISE_BTS);
    EXPECT_EQ(btt::error_stack(), (std::vector<int>{0x0503}));
    // The tree itself is intact.
    it = item4(5);
    EXPECT_EQ(f.search(0, 1, &it), 1);
    EXPECT_EQ(it, item4(5));
    f.end();
}

TEST(BtFaults, DeleteWriteFailures) {
    SpHalf sp(1);
    BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    insert_all(f, {1, 2, 3, 4, 5, 6, 7});   // [1,2] 3 [4,5,6,7]
    {
        kt::FailIo fail(kt::FailIo::kWrite, 1);
        EXPECT_EQ(f.remove(0, item4(7)), -1);   // the leaf keeps enough items
    }
    std::vector<int> st = btt::error_stack();
    ASSERT_GE(st.size(), 3u);
    EXPECT_EQ(st[st.size() - 2], 0x0103);
    EXPECT_EQ(st.back(), 0x0105);
    f.end();
}

#if !defined(__SANITIZE_ADDRESS__)
// The carried item area is allocated on first use of a long item; when memory is gone the
// insert fails cleanly with ISE_KEYSAVE and works again once memory is back.  Runs in a
// child whose address space is capped (the sanitizers need a large one).
TEST(BtInsert, CarriedAreaAllocationFailure) {
    BtFile f(1024, {500});   // item 504 bytes: longer than any other test's here
    ASSERT_TRUE(f.ok());
    const int fd = f.fd();
    int rc = kt::run_child([fd] {
        if (is_chinit() != 0) return 1;
        if (is_isin(PROC(P_ISWRITE), fd, 0) != 0 || is_getctl() != 0) return 2;
        static void* blocks[1 << 16];
        long pages = 0;
        if (FILE* s = std::fopen("/proc/self/statm", "r")) {
            if (std::fscanf(s, "%ld", &pages) != 1) pages = 0;
            std::fclose(s);
        }
        if (pages <= 0) return 3;
        std::string it(504, 'a');   // everything the child needs exists before the cap
        struct rlimit lim;
        lim.rlim_cur = lim.rlim_max = static_cast<rlim_t>(pages) * static_cast<rlim_t>(::getpagesize()) + (4u << 20);
        if (::setrlimit(RLIMIT_AS, &lim) != 0) return 4;
        size_t n = 0;
        while (n < std::size(blocks) && (blocks[n] = std::malloc(256)) != nullptr) ++n;
        if (n == std::size(blocks)) return 5;
        const int r = bt_insert(0, kisam::fcp_key(is_curfcp, 0)->k_root, it.data(), 0, 0);
        uint16_t top = 0;
        std::memcpy(&top, &is_estk[0], sizeof top);
        const bool refused = r == -1 && is_errno == ISE_KEYSAVE && is_etop == is_estk + 1 &&
                             top == 0x030E && kisam::fcp_key(is_curfcp, 0)->k_root == KISAM_NOPAGE;
        for (size_t i = 0; i < n; ++i) std::free(blocks[i]);
        if (!refused) return 6;
        if (bt_insert(0, kisam::fcp_key(is_curfcp, 0)->k_root, it.data(), 0, 0) != 0) return 7;
        is_relctl();
        is_isout();
        nisunisam();
        return 0;
    });
    EXPECT_EQ(rc, 0);
}
#endif

// Ascending loads: splitting at the insertion point leaves every leaf behind the load
// point full to K - 1 items; the even split leaves (K + 1) / 2.
TEST(BtInsert, AscendingLoadFillOfLeftPages) {
    for (short sp : {short{0}, short{1}}) {
        SpHalf guard(sp);
        BtFile f(1024, {240});
        ASSERT_TRUE(f.ok());
        f.begin();
        for (int v = 1; v <= 60; ++v) {
            std::string it = item4(v);
            ASSERT_EQ(f.insert(0, it), 0);
        }
        PAGE root = f.root(0);
        f.end();
        // Leaves in key order.
        std::vector<int> sizes;
        std::function<void(PAGE)> walk = [&](PAGE p) {
            IS_DATA d = f.disk_page(p);
            if (ptr_at(d, 0, kLen4) == kNone) {
                sizes.push_back(nitems(d));
                return;
            }
            for (int i = 0; i <= nitems(d); ++i) walk(ptr_at(d, i, kLen4));
        };
        walk(root);
        ASSERT_GE(sizes.size(), 4u);
        for (size_t i = 0; i + 1 < sizes.size(); ++i)
            EXPECT_EQ(sizes[i], sp ? 2 : 3) << "Sp_half " << sp << ", leaf " << i;
    }
}

// A damaged tree (here a leaf turned into a page whose children lead back to the root)
// is refused with ISE_BTS by every operation, never walked for ever.
TEST(BtErrors, CycleOfChildPointersIsRefused) {
    SpHalf sp(1);
    BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    f.begin();
    insert_all(f, {1, 2, 3, 4, 5});   // root 3072: [1,2] 3 [4,5]
    f.end();
    ASSERT_EQ(nisclose(f.fd()), 0);   // so that the pages are read again from disk
    IS_DATA leaf = f.disk_page(1024);
    for (int i = 0; i <= 2; ++i) kisam::store_at<PAGE>(leaf.c + 4 + i * (kLen4 + 4), 3072u);
    {
        int fd = ::open(f.path().c_str(), O_RDWR);
        ASSERT_EQ(::pwrite(fd, leaf.c, sizeof leaf.c, 1024), static_cast<ssize_t>(sizeof leaf.c));
        ::close(fd);
    }
    kisam::check::Report rep = kisam::check::check_file(f.path(), kTreesAndFree);
    EXPECT_FALSE(rep.ok);
    EXPECT_NE(rep.error.find("reached twice"), std::string::npos) << rep.error;

    ASSERT_EQ(nisopen(f.path().c_str(), ISO_RDWR), f.fd());
    f.begin();
    // Item 0 lies below every item of the leaf: its search goes on through pointer 0.
    std::string it = item4(0);
    f.currpage(0) = KISAM_NOPAGE;
    EXPECT_EQ(f.search(0, 1, &it), -1);
    EXPECT_EQ(is_errno, ISE_BTS);
    it = item4(0);
    f.currpage(0) = KISAM_NOPAGE;
    EXPECT_EQ(f.insert(0, it), -1);
    EXPECT_EQ(is_errno, ISE_BTS);
    EXPECT_EQ(f.remove(0, item4(0)), -1);
    EXPECT_EQ(is_errno, ISE_BTS);
    // The undamaged half still works.
    it = item4(5);
    EXPECT_EQ(f.search(0, 1, &it), 1);
    f.end();
}
