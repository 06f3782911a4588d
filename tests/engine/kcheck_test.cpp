// Structural checker: each kind of damage, patched into a file on disk, is reported as
// the first violation, with its place.
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
    void put_page(PAGE p, const IS_DATA& d) {
        int fd = ::open(path.c_str(), O_RDWR);
        EXPECT_EQ(::pwrite(fd, d.c, sizeof d.c, static_cast<off_t>(img.offset(p))), 1024);
        ::close(fd);
    }
    std::string path;
    kc::FileImage img;
};

PAGE ptr(const IS_DATA& d, int i) { return btt::ptr_at(d, i, kLen); }
void set_ptr(IS_DATA& d, int i, PAGE p) { kisam::store_at<PAGE>(d.c + 4 + i * (kLen + 4), p); }
char* item_of(IS_DATA& d, int i) { return d.c + 8 + i * (kLen + 4); }

// Applies `damage` to a copy of the pages it names, checks, and restores them.
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

TEST(Kcheck, TreeDamage) {
    btt::BtFile f(1024, {240});
    ASSERT_TRUE(f.ok());
    build(f, 40);
    Disk disk(f.path());
    const PAGE R = disk.img.keys[0].k_root;
    IS_DATA root = disk.page(R);
    const PAGE A = ptr(root, 0), B = ptr(root, 1);
    const PAGE L1 = ptr(disk.page(A), 0), L2 = ptr(disk.page(A), 1), LB = ptr(disk.page(B), 0);
    ASSERT_EQ(ptr(disk.page(L1), 0), KISAM_NOPAGE) << "expected three levels";

    expect_violation(disk, {L1}, [](auto& p) {
        std::string t(item_of(p[0], 0), kLen);
        std::memcpy(item_of(p[0], 0), item_of(p[0], 1), kLen);
        std::memcpy(item_of(p[0], 1), t.data(), kLen);
    }, "item 1: not above item 0");
    expect_violation(disk, {L1, L2}, [](auto& p) {
        std::memcpy(item_of(p[1], 0), item_of(p[0], 0), kLen);
    }, "not above the separator left of the page");
    expect_violation(disk, {L1}, [](auto& p) { p[0].bt.bt_nitems = 5; }, "5 items (order 4)");
    expect_violation(disk, {L1}, [](auto& p) { p[0].fp.fp_ident = -2; }, "a free page is linked");
    expect_violation(disk, {A}, [](auto& p) { set_ptr(p[0], 1, 1500); },
                     "child 1500 is not a page of the file");
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
}

// Every control-page field that sizes a copy is checked against the others before any
// page is read: a key table whose fields disagree is damage, with the field named --
// never a copy past an item, and never "sound".  The file: keys of 8, 12 and 4 bytes,
// with records, so that the data check pairs every alternate item with its record.
TEST(Kcheck, ControlPageFieldsThatDisagreeAreNamed) {
    btt::BtFile f(1024, {8, 12, 4});
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
