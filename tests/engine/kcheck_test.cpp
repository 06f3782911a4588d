// Structural checker: clean files pass with the right statistics; each kind of damage,
// patched into a file on disk, is reported as the first violation, with its place.
#include "bt_fixture.h"

#include "kcheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace kc = kisam::check;

namespace {

constexpr int kTreesAndFree = kc::CHECK_TREES | kc::CHECK_FREE;
constexpr int kLen = 244;   // item of a key 0 of 240 bytes: order 4

std::string item(int v) {
    std::string s(kLen, 'k');
    s[0] = static_cast<char>(v >> 8);
    s[1] = static_cast<char>(v);
    kisam::store_at<uint32_t>(s.data() + 240, static_cast<uint32_t>(v));
    return s;
}

// Raw page access through the checker's own image of the file.
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
    void write(long long off, const void* b, size_t n) {
        int fd = ::open(path.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, b, n, static_cast<off_t>(off)), static_cast<ssize_t>(n));
        ::close(fd);
    }
    void put_page(PAGE p, const IS_DATA& d) { write(img.offset(p), d.c, sizeof d.c); }
    template <class T>
    void put(PAGE p, int off, T v) { write(img.offset(p) + off, &v, sizeof v); }
    std::string path;
    kc::FileImage img;
};

PAGE ptr(const IS_DATA& d, int i) { return btt::ptr_at(d, i, kLen); }
void set_ptr(IS_DATA& d, int i, PAGE p) { kisam::store_at<PAGE>(d.c + 4 + i * (kLen + 4), p); }
char* item_of(IS_DATA& d, int i) { return d.c + 8 + i * (kLen + 4); }

// Applies `damage` to a copy of the pages it names, checks, and restores them.
void expect_violation(Disk& disk, std::vector<PAGE> pages,
                      const std::function<void(std::vector<IS_DATA>&)>& damage,
                      const std::string& expected, int flags = kTreesAndFree) {
    std::vector<IS_DATA> orig;
    for (PAGE p : pages) orig.push_back(disk.page(p));
    std::vector<IS_DATA> bad = orig;
    damage(bad);
    for (size_t i = 0; i < pages.size(); ++i) disk.put_page(pages[i], bad[i]);
    kc::Report rep = kc::check_file(disk.path, flags);
    EXPECT_FALSE(rep.ok) << "expected: " << expected;
    EXPECT_NE(rep.error.find(expected), std::string::npos) << rep.error;
    for (size_t i = 0; i < pages.size(); ++i) disk.put_page(pages[i], orig[i]);
    kc::Report again = kc::check_file(disk.path, flags);
    EXPECT_TRUE(again.ok) << again.error;
}

// A three-level tree of order 4 with items 1 .. n.
void build(btt::BtFile& f, int n) {
    f.begin();
    for (int v = 1; v <= n; ++v) {
        std::string it = item(v);
        ASSERT_EQ(f.insert(0, it), 0);
    }
    f.end();
}

}  // namespace

TEST(Kcheck, CleanTreeStatisticsAndListing) {
    btt::BtFile f(512, {240});
    ASSERT_TRUE(f.ok());
    build(f, 40);
    kc::Report rep = kc::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    ASSERT_EQ(rep.keys.size(), 1u);
    EXPECT_EQ(rep.keys[0].items, 40);
    EXPECT_GE(rep.keys[0].depth, 3);
    EXPECT_EQ(rep.free_pages, 0);
    EXPECT_EQ(rep.unknown_pages, 0);
    EXPECT_EQ(rep.keys[0].pages, static_cast<long>(rep.map.use.size()));

    std::vector<std::string> items;
    std::string err;
    ASSERT_EQ(kc::list_items(f.path(), 0, &items, &err), 40) << err;
    for (int v = 1; v <= 40; ++v) EXPECT_EQ(items[static_cast<size_t>(v - 1)], item(v)) << v;
    EXPECT_EQ(kc::list_items(f.path(), 1, &items, &err), -1);
    EXPECT_NE(err.find("no key 1"), std::string::npos) << err;
}

TEST(Kcheck, TreeDamage) {
    btt::BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    build(f, 40);
    Disk disk(f.path());
    const PAGE R = disk.img.keys[0].k_root;
    IS_DATA root = disk.page(R);
    const PAGE A = ptr(root, 0), B = ptr(root, 1);
    IS_DATA a = disk.page(A), b = disk.page(B);
    const PAGE L1 = ptr(a, 0), L2 = ptr(a, 1), LB = ptr(b, 0);
    ASSERT_EQ(ptr(disk.page(L1), 0), KISAM_NOPAGE) << "expected three levels";

    expect_violation(disk, {L1}, [](auto& p) {
        std::string t(item_of(p[0], 0), kLen);
        std::memcpy(item_of(p[0], 0), item_of(p[0], 1), kLen);
        std::memcpy(item_of(p[0], 1), t.data(), kLen);
    }, "item 1: not above item 0");
    expect_violation(disk, {L1, L2}, [](auto& p) {
        std::memcpy(item_of(p[1], 0), item_of(p[0], 0), kLen);
    }, "not above the separator left of the page");
    expect_violation(disk, {L1}, [](auto& p) { p[0].bt.bt_keyno = 1; }, "bt_keyno 1, expected 0");
    expect_violation(disk, {L1}, [](auto& p) { p[0].bt.bt_nitems = 5; }, "5 items (order 4)");
    expect_violation(disk, {L1}, [](auto& p) { p[0].bt.bt_nitems = 0; }, "0 items (order 4)");
    expect_violation(disk, {L1}, [](auto& p) { p[0].fp.fp_ident = -2; }, "a free page is linked");
    expect_violation(disk, {L1}, [](auto& p) { set_ptr(p[0], 1, 1024); },
                     "pointer 1 is a page in a page whose pointer 0 is none");
    for (PAGE badp : {PAGE{1500}, PAGE{0}, disk.img.lastpage})
        expect_violation(disk, {A}, [badp](auto& p) { set_ptr(p[0], 1, badp); },
                         "child " + std::to_string(badp) + " is not a page of the file");
    expect_violation(disk, {A}, [L1](auto& p) { set_ptr(p[0], 1, L1); }, "reached twice");
    expect_violation(disk, {R}, [LB](auto& p) { set_ptr(p[0], 1, LB); }, "leaf at depth 1");
}

TEST(Kcheck, FreeChainDamage) {
    btt::BtFile f(512, {240});
    ASSERT_TRUE(f.ok());
    build(f, 40);
    f.begin();
    for (int v = 1; v <= 30; ++v) ASSERT_EQ(f.remove(0, item(v)), 0) << v;
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
    // Any value that is not a page of the file ends the chain; what followed is then
    // unaccounted for, which only the full check (with the data pages known) reports.
    IS_DATA save = disk.page(second);
    disk.put<PAGE>(second, 4, 12345);
    kc::Report cut = kc::check_file(f.path(), kTreesAndFree);
    EXPECT_TRUE(cut.ok) << cut.error;
    EXPECT_EQ(cut.free_chain, (std::vector<PAGE>{head, second}));
    EXPECT_EQ(cut.unknown_pages, static_cast<long>(rep.free_chain.size()) - 2);
    disk.put_page(second, save);
}

TEST(Kcheck, ControlPageDamage) {
    btt::BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    build(f, 10);
    Disk disk(f.path());
    auto expect_bad = [&](int off, const void* b, size_t n, const std::string& what) {
        unsigned char save[16];
        int fd = ::open(f.path().c_str(), O_RDWR);
        ASSERT_EQ(::pread(fd, save, n, off), static_cast<ssize_t>(n));
        ASSERT_EQ(::pwrite(fd, b, n, off), static_cast<ssize_t>(n));
        kc::Report rep = kc::check_file(f.path());
        EXPECT_FALSE(rep.ok) << what;
        EXPECT_NE(rep.error.find(what), std::string::npos) << rep.error;
        ASSERT_EQ(::pwrite(fd, save, n, off), static_cast<ssize_t>(n));
        ::close(fd);
    };
    uint16_t magic = 0x1234;
    expect_bad(0, &magic, 2, "not an ISAM file (magic 0x1234)");
    PAGE beyond = disk.img.lastpage + 4096;
    expect_bad(8, &beyond, 4, "lies beyond the end of the file");
    int16_t order = 5;
    expect_bad(100 + 4, &order, 2, "key 0: k_order 5 for k_itemlen 244");
    PAGE root = 999;
    expect_bad(100, &root, 4, "k_root 999 is not a page of the file");
    int16_t nkeys = 40;
    expect_bad(2, &nkeys, 2, "is_nkeys 40 out of range");

    kc::Report rep = kc::check_file(f.path() + ".missing");
    EXPECT_FALSE(rep.ok);
    ASSERT_EQ(::truncate(f.path().c_str(), 300), 0);
    rep = kc::check_file(f.path());
    EXPECT_NE(rep.error.find("too short for a control page"), std::string::npos) << rep.error;
}

TEST(Kcheck, OldControlPageLayout) {
    btt::BtFile f(512, {240});
    ASSERT_TRUE(f.ok());
    build(f, 12);
    Disk disk(f.path());
    // Rewrite the control page in the old layout (compact header: magic 0xAB52).
    unsigned char old[512] = {};
    kisam::store_at<uint16_t>(old + 0, ISMAGIC_OLD512);
    kisam::store_at<int16_t>(old + 2, 1);
    kisam::store_at<int16_t>(old + 4, 240);
    kisam::store_at<PAGE>(old + 6, disk.img.nextfree);
    kisam::store_at<PAGE>(old + 10, disk.img.lastpage);
    kisam::store_at<int16_t>(old + 28, -1);
    std::memcpy(old + 34, &disk.img.keys[0], 16);
    disk.write(0, old, sizeof old);

    kc::Report rep = kc::check_file(f.path(), kTreesAndFree);
    ASSERT_TRUE(rep.ok) << rep.error;
    EXPECT_EQ(rep.keys.at(0).items, 12);
    std::vector<std::string> items;
    std::string err;
    EXPECT_EQ(kc::list_items(f.path(), 0, &items, &err), 12) << err;
}

TEST(Kcheck, RecordsFileAndUnaccountedPages) {
    kt::Installation inst;
    const std::string path = inst.path("rec.isam");
    int lens[2] = {8, 6};
    int fd = niscreate(path.c_str(), 2, lens);
    ASSERT_GE(fd, 0);
    std::string rec;
    for (int i = 0; i < 300; ++i) {
        char k0[9], k1[7];
        std::snprintf(k0, sizeof k0, "%08d", i * 7919 % 100000);
        std::snprintf(k1, sizeof k1, "%06d", i % 50);
        rec.assign(k0, 8);
        rec.append(k1, 6);
        rec.append(static_cast<size_t>(i % 7 == 0 ? 1500 + i : 20 + i % 90), static_cast<char>('a' + i % 26));
        ASSERT_GE(niswrite(fd, rec.data(), static_cast<int>(rec.size())), 0) << i << " errno " << is_errno;
    }
    for (int i = 0; i < 300; i += 3) {
        char k0[9];
        std::snprintf(k0, sizeof k0, "%08d", i * 7919 % 100000);
        ASSERT_GE(nisdelete(fd, k0), 0) << i << " errno " << is_errno;
    }
    ASSERT_EQ(nisclose(fd), 0);

    kc::Report rep = kc::check_file(path);
    ASSERT_TRUE(rep.ok) << rep.error;
    EXPECT_EQ(rep.keys.at(0).items, 200);
    EXPECT_EQ(rep.keys.at(1).items, 200);
    EXPECT_GT(rep.data_pages, 0);
    EXPECT_EQ(rep.unknown_pages, 0);

    // A page that nobody claims: take the head off the free chain.
    ASSERT_FALSE(rep.free_chain.empty()) << "deleting records gave no page back";
    Disk disk(path);
    const PAGE lost = rep.free_chain[0];
    const PAGE rest = disk.page(lost).fp.fp_nextpage;
    disk.write(4, &rest, 4);
    rep = kc::check_file(path);
    EXPECT_FALSE(rep.ok);
    EXPECT_NE(rep.error.find("page " + std::to_string(lost) + " is in no tree"), std::string::npos)
        << rep.error;
    EXPECT_EQ(kc::check_file(path, kTreesAndFree).unknown_pages, 1 + rep.data_pages);
    nisunisam();
}
