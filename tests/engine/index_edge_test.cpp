// Data pages and B-tree shapes against independent references of their layout rules.
//
// A wrong split count, borrow count or sibling choice still leaves a valid tree that holds
// the right items; only a comparison of the shape, page by page, catches it.
//
// The reference keeps its own image of every shared data page and its own free-space
// table, and applies the placement, piece, merge and table rules to them.  After every
// store and release the engine's pages, read from disk, must equal the reference images
// byte for byte, and its table and least-room index must equal the reference's; every
// record must read back whole and cut to any length.  KISAM_SEED replays a run.
#include "bt_fixture.h"
#include "kisam_test.h"

#include "dr.h"
#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using Page = std::array<unsigned char, 1024>;
constexpr PAGE kNone = 0xFFFFFFFFu;
constexpr PAGE kLow = 0x3FF;

int rd16(const Page& p, int off) { return static_cast<int16_t>(p[off] | (p[off + 1] << 8)); }
unsigned urd16(const Page& p, int off) { return static_cast<uint16_t>(p[off] | (p[off + 1] << 8)); }
void wr16(Page& p, int off, unsigned v) {
    p[off] = static_cast<unsigned char>(v & 0xFF);
    p[off + 1] = static_cast<unsigned char>((v >> 8) & 0xFF);
}
int need(int len) { return std::max(4, len + (len % 2) + 2); }

// Reference shared pages and free-space table.
struct Reference {
    std::map<PAGE, Page> pages;
    PAGE cdp[16] = {};
    int mincdpi = -1;
    int pieces = 0, displaced = 0;   // how often the rarer rules ran

    static int head(const Page& p) { return static_cast<int>(urd16(p, 0) - 0x8000); }
    static int free_sum(const Page& p) {
        int f = 0;
        for (int c = head(p); c != 0; c = rd16(p, c)) f += rd16(p, c + 2);
        return f;
    }

    // 0: does not fit; otherwise the record address.
    PAGE putrec(Page& p, PAGE pos, const unsigned char* rec, int len) {
        const int n = need(len);
        int r = len, prev = 0;
        for (int c = head(p); c != 0; prev = c, c = rd16(p, c)) {
            int a = rd16(p, c + 2);
            if (a >= n) {
                int seg = c;
                if (a - n <= 3) {
                    if (prev == 0) wr16(p, 0, 0x8000u + static_cast<unsigned>(rd16(p, c)));
                    else wr16(p, prev, static_cast<unsigned>(rd16(p, c)));
                } else {
                    wr16(p, c + 2, static_cast<unsigned>(a - n));
                    seg = c + a - n;
                }
                wr16(p, seg, 0x8000u + static_cast<unsigned>(len));
                std::memcpy(p.data() + seg + 2, rec, static_cast<size_t>(len));
                return pos + static_cast<PAGE>(seg);
            }
            if (r > 0) r = need(r) <= a ? 0 : r - (a - 3);
        }
        if (r > 0) return 0;
        const int first = head(p);
        int rem = len;
        for (int c = first;;) {
            int a = rd16(p, c + 2), nx = rd16(p, c);
            if (need(rem) > a) {
                ++pieces;
                wr16(p, c, 0xC000u + ((static_cast<unsigned>(nx) << 2) & 0xC00) +
                               static_cast<unsigned>(a - 3));
                p[static_cast<size_t>(c + 2)] = static_cast<unsigned char>(nx & 0xFF);
                std::memcpy(p.data() + c + 3, rec, static_cast<size_t>(a - 3));
                rec += a - 3;
                rem -= a - 3;
                c = nx;
                continue;
            }
            int nd = need(rem);
            if (a - nd > 3) {
                wr16(p, c + nd, static_cast<unsigned>(nx));
                wr16(p, c + nd + 2, static_cast<unsigned>(a - nd));
                wr16(p, 0, 0x8000u + static_cast<unsigned>(c + nd));
            } else {
                wr16(p, 0, 0x8000u + static_cast<unsigned>(nx));
            }
            wr16(p, c, 0x8000u + static_cast<unsigned>(rem));
            std::memcpy(p.data() + c + 2, rec, static_cast<size_t>(rem));
            return pos + static_cast<PAGE>(first);
        }
    }

    void release(Page& p, int s) {
        while (s != 0) {
            unsigned w = urd16(p, s);
            int len = static_cast<int>(w & 0x3FF), next = 0;
            if (w & 0x4000) next = static_cast<int>(((w >> 2) & 0x300) + p[static_cast<size_t>(s + 2)]);
            int size = len + (next != 0 ? 3 : 2);
            size = std::max(4, size + size % 2);
            const int e = s + size;
            int b = 0, nn = head(p);
            while (nn != 0 && nn < s) {
                b = nn;
                nn = rd16(p, nn);
            }
            int merged;
            if (b != 0 && s - (b + rd16(p, b + 2)) <= 3) {
                wr16(p, b + 2, static_cast<unsigned>(e - b));
                merged = b;
            } else {
                wr16(p, s, static_cast<unsigned>(nn));
                wr16(p, s + 2, static_cast<unsigned>(e - s));
                if (b != 0) wr16(p, b, static_cast<unsigned>(s));
                else wr16(p, 0, 0x8000u + static_cast<unsigned>(s));
                merged = s;
            }
            if (nn != 0 && nn - e <= 3) {
                int end = nn + rd16(p, nn + 2);
                wr16(p, merged, static_cast<unsigned>(rd16(p, nn)));
                wr16(p, merged + 2, static_cast<unsigned>(end - merged));
            }
            s = next;
        }
    }

    void recompute_min() {
        mincdpi = -1;
        for (int i = 0; i < 16 && cdp[i] != 0; ++i)
            if (mincdpi < 0 || (cdp[i] & kLow) < (cdp[mincdpi] & kLow)) mincdpi = i;
    }

    void sync(PAGE pos) {
        const int f = free_sum(pages.at(pos));
        int at = -1, used = 0;
        for (; used < 16 && cdp[used] != 0; ++used)
            if ((cdp[used] & ~kLow) == pos && at < 0) at = used;
        if (f >= 1 && f <= 1019) {
            PAGE e = pos + static_cast<PAGE>(f);
            if (at >= 0) cdp[at] = e;
            else if (used < 16) cdp[used] = e;
            else if (static_cast<int>(cdp[mincdpi] & kLow) < f) cdp[mincdpi] = e, ++displaced;
        } else if (at >= 0) {
            for (int i = at; i < 15; ++i) cdp[i] = cdp[i + 1];
            cdp[15] = 0;
        }
        recompute_min();
        if (f > 1019) pages.erase(pos);
    }
};

struct Live {
    PAGE addr;
    PAGE tail;   // address of the part in a shared page
    std::vector<unsigned char> data;
};

class DataReference : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(is_init(), 0);
        path_ = inst_.path("ref.ism");
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
    void begin() {
        ASSERT_EQ(is_isin(PROC(P_ISWRITE), fd_, 0), 0);
        ASSERT_EQ(is_getctl(), 0);
    }
    void end() {
        EXPECT_EQ(is_relctl(), 0);
        is_isout();
    }
    Page disk(PAGE p) {
        Page pg{};
        EXPECT_EQ(::pread(osfd_, pg.data(), pg.size(), static_cast<off_t>(p)), 1024) << p;
        return pg;
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

TEST_F(DataReference, PagesAndTableFollowTheLayoutRules) {
    const uint64_t seed = kt::test_seed(20261122);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    std::mt19937_64 rng(seed);
    Reference ref;
    std::vector<Live> live;

    auto rnd = [&](int lo, int hi) {
        return std::uniform_int_distribution<int>(lo, hi)(rng);
    };
    for (int step = 0; step < 1500 && !HasFailure(); ++step) {
        const bool store = live.empty() || (live.size() < 120 && rnd(0, 99) < 58);
        if (store) {
            int len;
            int kind = rnd(0, 99);
            if (kind < 70) len = rnd(1, 160);
            else if (kind < 90) len = rnd(161, 1020);
            else if (kind < 99) len = rnd(1021, 4100);
            else len = 1016 * rnd(1, 4);
            std::vector<unsigned char> data(static_cast<size_t>(len));
            for (auto& c : data) c = static_cast<unsigned char>(rng());

            begin();
            PAGE addr = dr_put(reinterpret_cast<const char*>(data.data()), len);
            end();
            ASSERT_NE(addr, kNone) << "step " << step << " len " << len;

            int k = 0, t = len;
            if (len > 1020) {
                k = len / 1016;
                t = len - 1016 * k;
                if (t == 0) { --k; t = 1016; }
            }
            // Overflow pages: numbered from 1, full blocks in order, linked to the tail.
            PAGE a = addr;
            for (int b = 1; b <= k; ++b) {
                ASSERT_EQ(a & kLow, 1u) << "step " << step;
                Page o = disk(a - 1);
                EXPECT_EQ(urd16(o, 0), 0x8001u);
                EXPECT_EQ(urd16(o, 2), static_cast<unsigned>(b));
                EXPECT_EQ(std::memcmp(o.data() + 8, data.data() + 1016 * (b - 1), 1016), 0);
                a = static_cast<PAGE>(urd16(o, 4) | (urd16(o, 6) << 16));
            }
            const unsigned char* tail = data.data() + 1016 * k;
            PAGE want = 0;
            for (int i = 0; i < 16 && ref.cdp[i] != 0 && want == 0; ++i) {
                if (need(t) > static_cast<int>(ref.cdp[i] & kLow)) continue;
                PAGE pos = ref.cdp[i] & ~kLow;
                want = ref.putrec(ref.pages.at(pos), pos, tail, t);
            }
            if (want == 0) {
                // A new page: whichever page the allocator hands out, it starts empty.
                PAGE pos = a & ~kLow;
                ASSERT_EQ(ref.pages.count(pos), 0u) << "step " << step << ": reused live page";
                Page fresh{};
                wr16(fresh, 0, 0x8002);
                wr16(fresh, 4, 1022);
                ref.pages[pos] = fresh;
                want = ref.putrec(ref.pages[pos], pos, tail, t);
            }
            ASSERT_EQ(a, want) << "step " << step << " len " << len;
            ref.sync(want & ~kLow);
            live.push_back({addr, a, std::move(data)});
        } else {
            size_t i = static_cast<size_t>(rnd(0, static_cast<int>(live.size()) - 1));
            Live rec = std::move(live[i]);
            live[i] = std::move(live.back());
            live.pop_back();
            begin();
            int r = dr_rel(rec.addr);
            end();
            ASSERT_EQ(r, 0) << "step " << step;
            PAGE pos = rec.tail & ~kLow;
            ref.release(ref.pages.at(pos), static_cast<int>(rec.tail & kLow));
            ref.sync(pos);
        }

        IS_FCP* f = fcp();
        for (int i = 0; i < 16; ++i) EXPECT_EQ(f->is_cdp[i], ref.cdp[i]) << "step " << step << " entry " << i;
        EXPECT_EQ(f->is_mincdpi, ref.mincdpi) << "step " << step;
        for (const auto& [pos, img] : ref.pages)
            ASSERT_EQ(disk(pos), img) << "step " << step << " page " << pos;

        if (!live.empty()) {
            const Live& rec = live[static_cast<size_t>(rnd(0, static_cast<int>(live.size()) - 1))];
            const int len = static_cast<int>(rec.data.size());
            const int maxlen = rnd(0, 3) == 0 ? rnd(1, len) : len + rnd(0, 8);
            std::vector<char> out(static_cast<size_t>(maxlen) + 1, 0);
            begin();
            int n = dr_get(rec.addr, out.data(), maxlen);
            end();
            ASSERT_EQ(n, std::min(len, maxlen)) << "step " << step;
            EXPECT_EQ(std::memcmp(out.data(), rec.data.data(), static_cast<size_t>(n)), 0)
                << "step " << step;
        }
    }
    // The run must have reached the rare rules, or it proves little about them.
    EXPECT_GT(ref.pieces, 0);
    EXPECT_GT(ref.displaced, 0);
}

// Segments as another writer may have left them: the one-byte-length form, a record in
// continued pieces, a continued piece whose link is 0, and a link to an odd offset.
TEST_F(DataReference, EveryStoredSegmentFormReadsBack) {
    begin();
    const PAGE a = dr_put("0123456789", 10);
    end();
    ASSERT_NE(a, kNone);
    const PAGE p = a & ~kLow;
    Page img{};
    wr16(img, 0, 0x8000);                 // no free chunk
    img[100] = 5;                         // one-byte length; the next byte is below 0x80
    std::memcpy(img.data() + 101, "ABCDE", 5);
    wr16(img, 200, 0xC000 | ((300 << 2) & 0xC00) | 4);
    img[202] = 300 & 0xFF;
    std::memcpy(img.data() + 203, "wxyz", 4);
    wr16(img, 300, 0x8000 | 3);
    std::memcpy(img.data() + 302, "123", 3);
    wr16(img, 400, 0xC000 | 2);           // continued, link 0: the record ends here
    img[402] = 0;
    std::memcpy(img.data() + 403, "qq", 2);
    wr16(img, 500, 0xC000 | 2);
    img[502] = 0x31;                      // odd next offset
    ASSERT_EQ(nisclose(fd_), 0);          // so that the page is read again from disk
    int w = ::open(path_.c_str(), O_WRONLY);
    ASSERT_GE(w, 0);
    ASSERT_EQ(::pwrite(w, img.data(), img.size(), static_cast<off_t>(p)), 1024);
    ::close(w);
    fd_ = nisopen(path_.c_str(), ISO_RDWR);
    ASSERT_GE(fd_, 0);

    auto get = [&](PAGE addr, int maxlen) {
        std::string out(static_cast<size_t>(maxlen) + 4, '.');
        begin();
        int n = dr_get(addr, out.data(), maxlen);
        end();
        return n < 0 ? std::string("-1") : out.substr(0, static_cast<size_t>(n));
    };
    EXPECT_EQ(get(p + 100, 20), "ABCDE");
    EXPECT_EQ(get(p + 100, 3), "ABC");
    EXPECT_EQ(get(p + 200, 20), "wxyz123");
    EXPECT_EQ(get(p + 200, 6), "wxyz12");
    EXPECT_EQ(get(p + 400, 20), "qq");
    EXPECT_EQ(get(p + 500, 20), "-1");
    std::vector<int> st = kt::error_stack();
    ASSERT_FALSE(st.empty());
    EXPECT_EQ(st.back(), PROC(P_DR_GET, 3));
}

// A 3000-byte record on an empty file costs six page writes: the tail page grows the
// file, the second overflow page grows it and is written, so is the first, and the tail
// page is written last.  Each one fails in turn.  A failed allocation of an overflow
// page gives back everything already stored; the other failures return at once.
TEST(DataFaults, StoreOfALongRecordFailingAtEachWrite) {
    kt::Installation inst;
    ASSERT_EQ(is_init(), 0);
    std::vector<char> rec(3000);
    for (size_t i = 0; i < rec.size(); ++i) rec[i] = static_cast<char>(i * 13 + i / 7);
    struct Case {
        int nth;
        int top;         // procedure code on top of the stack (detail ignored for v_new)
        bool cleaned;    // the pages written so far went back to the free chain
    };
    const Case cases[] = {
        {1, PROC(P_DR_PUT, 3), false},   {2, PROC(P_V_NEW), true},
        {3, PROC(P_DR_PUT, 7), false},   {4, PROC(P_V_NEW), true},
        {5, PROC(P_DR_PUT, 7), false},   {6, PROC(P_DR_PUT, 9), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("write " + std::to_string(c.nth));
        std::string path = inst.path("f" + std::to_string(c.nth) + ".ism");
        int lens[1] = {8};
        int fd = niscreate(path.c_str(), 1, lens);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(is_isin(PROC(P_ISWRITE), fd, 0), 0);
        ASSERT_EQ(is_getctl(), 0);
        PAGE a;
        {
            kt::FailIo fail(kt::FailIo::kWrite, c.nth);
            a = dr_put(rec.data(), static_cast<int>(rec.size()));
        }
        EXPECT_EQ(a, kNone);
        std::vector<int> st = kt::error_stack();
        ASSERT_FALSE(st.empty());
        if (c.top == PROC(P_V_NEW)) {
            EXPECT_EQ(st.back() >> 8, P_V_NEW);
        } else {
            EXPECT_EQ(st.back(), c.top);
        }
        if (c.nth == 6) {
            ASSERT_GE(st.size(), 2u);
            EXPECT_EQ(st[st.size() - 2], PROC(P_DR_SYNC, 2));
        }
        if (c.cleaned) {
            EXPECT_EQ(is_curfcp->is_cdp[0], 0u);
            EXPECT_EQ(is_curfcp->is_mincdpi, -1);
        }
        // The record goes in on a second try and reads back; after a clean-up the file
        // needs no page beyond the three the record takes.
        a = dr_put(rec.data(), static_cast<int>(rec.size()));
        ASSERT_NE(a, kNone);
        std::vector<char> back(rec.size());
        EXPECT_EQ(dr_get(a, back.data(), static_cast<int>(back.size())), 3000);
        EXPECT_EQ(back, rec);
        if (c.cleaned) {
            EXPECT_EQ(is_curfcp->is_lastpage, 4096u);
        }
        EXPECT_EQ(is_relctl(), 0);
        is_isout();
        EXPECT_EQ(nisclose(fd), 0);
    }
    nisunisam();
}

// Reference B-tree: nodes in memory, no page numbers.  Items compare over their key bytes.
class ShapeReference {
public:
    ShapeReference(int order, int keylen) : k_(order), half_(order / 2), kl_(keylen) {}

    int root = -1;
    int cursor = -1;   // node the cursor's page names after an insert, -1 none

    // 0 stored, 1 present.
    int insert(const std::string& item) {
        if (root < 0) {   // the cursor is left as it was
            root = make({item}, {});
            return 0;
        }
        return ins(root, item, 0);
    }
    // 0 removed, -1 absent.
    int remove(const std::string& item) { return root < 0 ? -1 : del(root, item, -1) < 0 ? -1 : 0; }

    // "[a b]" for a leaf, "[<c0> a <c1> b <c2>]" for an internal node; items by key value.
    std::string dump(int nd) const {
        if (nd < 0) return "-";
        const Node& n = nodes_[static_cast<size_t>(nd)];
        std::string r = "[";
        for (size_t i = 0; i < n.items.size(); ++i) {
            if (!n.kids.empty()) r += dump(n.kids[i]) + " ";
            r += std::to_string(value(n.items[i])) + (i + 1 < n.items.size() || !n.kids.empty() ? " " : "");
        }
        if (!n.kids.empty()) r += dump(n.kids.back());
        return r + "]";
    }
    void preorder(int nd, std::vector<int>* out) const {
        if (nd < 0) return;
        out->push_back(nd);
        for (int c : nodes_[static_cast<size_t>(nd)].kids) preorder(c, out);
    }

    // Search from the root: 1 / 0 as the engine answers, *item as it leaves it, *at the
    // node remembered as the cursor's page (left alone when no item stopped a scan).
    int search(int nd, int mode, std::string* item, int* at) const {
        if (nd < 0) return 0;
        const bool back = (mode & 2) != 0, eq = (mode & 1) != 0;
        const int nothing = mode == 5 ? 0 : 1;
        const Node& n = nodes_[static_cast<size_t>(nd)];
        const int cnt = static_cast<int>(n.items.size());
        auto more = [&](const std::string& x) {
            int c = back ? cmp(x, *item) : cmp(*item, x);
            return c != 0 ? c > 0 : !eq;
        };
        int x = -1;
        for (int i = back ? cnt - 1 : 0; back ? i >= 0 : i < cnt; i += back ? -1 : 1)
            if (!more(n.items[static_cast<size_t>(i)])) {
                x = i;
                break;
            }
        if (x < 0) {
            if (n.kids.empty()) return 0;
            return search(n.kids[back ? 0 : static_cast<size_t>(cnt)], mode, item, at);
        }
        const std::string& xi = n.items[static_cast<size_t>(x)];
        if (eq && cmp(xi, *item) == 0) {
            *item = xi;
            *at = nd;
            return 1;
        }
        if (!n.kids.empty() && search(n.kids[static_cast<size_t>(back ? x + 1 : x)], mode, item, at) == 1)
            return 1;
        *item = xi;
        *at = nd;
        return nothing;
    }

    static int value(const std::string& item) {
        return (static_cast<unsigned char>(item[0]) << 8) | static_cast<unsigned char>(item[1]);
    }

private:
    struct Node {
        std::vector<std::string> items;
        std::vector<int> kids;   // empty in a leaf
    };
    int make(std::vector<std::string> items, std::vector<int> kids) {
        nodes_.push_back({std::move(items), std::move(kids)});
        return static_cast<int>(nodes_.size()) - 1;
    }
    Node& at(int nd) { return nodes_[static_cast<size_t>(nd)]; }
    int cmp(const std::string& a, const std::string& b) const {
        return std::memcmp(a.data(), b.data(), static_cast<size_t>(kl_));
    }
    size_t first_not_below(const Node& n, const std::string& item) const {
        size_t j = 0;
        while (j < n.items.size() && cmp(n.items[j], item) < 0) ++j;
        return j;
    }

    int ins(int nd, const std::string& item, int depth) {
        size_t j = first_not_below(at(nd), item);
        if (j < at(nd).items.size() && cmp(at(nd).items[j], item) == 0) {
            cursor = nd;
            return 1;
        }
        if (at(nd).kids.empty()) {
            carried_ = item;
            right_ = -1;
        } else {
            int r = ins(at(nd).kids[j], item, depth + 1);
            if (r != 2) return r;
        }
        Node& n = at(nd);
        std::vector<std::string> items = n.items;
        std::vector<int> kids = n.kids;
        items.insert(items.begin() + static_cast<long>(j), carried_);
        if (!kids.empty()) kids.insert(kids.begin() + static_cast<long>(j) + 1, right_);
        if (static_cast<int>(n.items.size()) < k_) {
            n.items = std::move(items);
            n.kids = std::move(kids);
            cursor = static_cast<int>(n.items.size()) < k_ ? nd : -1;
            return 0;
        }
        const int jj = static_cast<int>(j);
        const size_t nl = static_cast<size_t>(
            Sp_half != 0 ? (k_ + 1) / 2 : jj == 0 ? 1 : jj == k_ ? k_ - 1 : jj);
        n.items.assign(items.begin(), items.begin() + static_cast<long>(nl));
        carried_ = items[nl];
        std::vector<std::string> ritems(items.begin() + static_cast<long>(nl) + 1, items.end());
        std::vector<int> rkids;
        if (!kids.empty()) {
            n.kids.assign(kids.begin(), kids.begin() + static_cast<long>(nl) + 1);
            rkids.assign(kids.begin() + static_cast<long>(nl) + 1, kids.end());
        }
        right_ = make(std::move(ritems), std::move(rkids));
        if (depth > 0) return 2;
        root = make({carried_}, {nd, right_});
        cursor = -1;
        return 0;
    }

    int del(int nd, const std::string& item, int parent) {
        size_t j = first_not_below(at(nd), item);
        const bool leaf = at(nd).kids.empty();
        if (j < at(nd).items.size() && cmp(at(nd).items[j], item) == 0) {
            if (leaf) {
                at(nd).items.erase(at(nd).items.begin() + static_cast<long>(j));
                return static_cast<int>(at(nd).items.size()) < half_ ? unflow(parent, nd) : 0;
            }
            return getnxt(nd, j, nd, at(nd).kids[j]) == 1 ? unflow(parent, nd) : 0;
        }
        if (leaf) return -1;
        int r = del(at(nd).kids[j], item, nd);
        if (r < 0) return r;
        return r == 1 ? unflow(parent, nd) : 0;
    }
    int getnxt(int ins_nd, size_t idx, int parent, int nd) {
        if (!at(nd).kids.empty())
            return getnxt(ins_nd, idx, nd, at(nd).kids.back()) == 1 ? unflow(parent, nd) : 0;
        at(ins_nd).items[idx] = at(nd).items.back();
        at(nd).items.pop_back();
        return static_cast<int>(at(nd).items.size()) < half_ ? unflow(parent, nd) : 0;
    }
    int unflow(int parent, int nd) {
        if (parent < 0) {
            if (at(nd).items.empty()) root = at(nd).kids.empty() ? -1 : at(nd).kids[0];
            return 0;
        }
        Node& p = at(parent);
        const size_t np = p.items.size();
        size_t k = 0;
        while (k < np && p.kids[k] != nd) ++k;
        if (k < np) {
            Node& pg = at(nd);
            Node& r = at(p.kids[k + 1]);
            const int nu = static_cast<int>(pg.items.size()), nb = static_cast<int>(r.items.size());
            pg.items.push_back(p.items[k]);
            if (nb - nu < 2) {
                pg.items.insert(pg.items.end(), r.items.begin(), r.items.end());
                pg.kids.insert(pg.kids.end(), r.kids.begin(), r.kids.end());
                p.items.erase(p.items.begin() + static_cast<long>(k));
                p.kids.erase(p.kids.begin() + static_cast<long>(k) + 1);
                return static_cast<int>(p.items.size()) < half_ ? 1 : 0;
            }
            const long m = (nb - nu) / 2;
            pg.items.insert(pg.items.end(), r.items.begin(), r.items.begin() + m - 1);
            p.items[k] = r.items[static_cast<size_t>(m - 1)];
            r.items.erase(r.items.begin(), r.items.begin() + m);
            if (!r.kids.empty()) {
                pg.kids.insert(pg.kids.end(), r.kids.begin(), r.kids.begin() + m);
                r.kids.erase(r.kids.begin(), r.kids.begin() + m);
            }
            return 0;
        }
        Node& pg = at(nd);
        Node& l = at(p.kids[np - 1]);
        const int nu = static_cast<int>(pg.items.size()), nl = static_cast<int>(l.items.size());
        if (nl - nu < 2) {
            l.items.push_back(p.items[np - 1]);
            l.items.insert(l.items.end(), pg.items.begin(), pg.items.end());
            l.kids.insert(l.kids.end(), pg.kids.begin(), pg.kids.end());
            p.items.pop_back();
            p.kids.pop_back();
            return static_cast<int>(p.items.size()) < half_ ? 1 : 0;
        }
        const long m = (nl - nu) / 2;
        std::vector<std::string> items(l.items.end() - (m - 1), l.items.end());
        items.push_back(p.items[np - 1]);
        items.insert(items.end(), pg.items.begin(), pg.items.end());
        pg.items = std::move(items);
        p.items[np - 1] = l.items[static_cast<size_t>(nl - m)];
        l.items.resize(static_cast<size_t>(nl - m));
        if (!l.kids.empty()) {
            std::vector<int> kids(l.kids.end() - m, l.kids.end());
            kids.insert(kids.end(), pg.kids.begin(), pg.kids.end());
            pg.kids = std::move(kids);
            l.kids.resize(static_cast<size_t>(nl - m + 1));
        }
        return 0;
    }

    int k_, half_, kl_;
    std::vector<Node> nodes_;
    std::string carried_;
    int right_ = -1;
};

// Orders 3 to 7 under both split rules: every split count, borrow count and merge
// direction occurs, at several depths.
class Shapes : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(Shapes, TreeImagesFollowTheReference) {
    auto [keylen, sp] = GetParam();
    const short old_sp = Sp_half;
    Sp_half = static_cast<short>(sp);
    const uint64_t seed = kt::test_seed(0xB7EE0000u + static_cast<uint64_t>(keylen * 2 + sp));
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    std::mt19937_64 rng(seed);
    btt::BtFile f(1024, {keylen});
    ASSERT_TRUE(f.ok());
    f.begin();
    const int itemlen = f.key(0)->k_itemlen;
    ShapeReference ref(f.key(0)->k_order, keylen);

    auto make = [&](int v) {
        std::string s(static_cast<size_t>(itemlen), 'f');
        s[0] = static_cast<char>(v >> 8);
        s[1] = static_cast<char>(v & 0xFF);
        kisam::store_at<uint32_t>(s.data() + keylen, 0x40000u + static_cast<uint32_t>(v) * 2);
        return s;
    };
    // The engine's tree from disk, in the reference's notation; a page that is not a page
    // of this key, or an item that is not what was stored, shows as "!".
    std::vector<PAGE> pages;   // the engine's pages in the order the dump visits them
    std::function<std::string(PAGE, int)> disk_dump = [&](PAGE p, int depth) -> std::string {
        if (p == kNone) return "-";
        if (depth > 20) return "!";
        pages.push_back(p);
        IS_DATA d = f.disk_page(p);
        if (d.bt.bt_keyno != 0 || d.bt.bt_nitems < 0) return "!";
        const int n = d.bt.bt_nitems;
        const bool leaf = btt::ptr_at(d, 0, itemlen) == kNone;
        std::string r = "[";
        for (int i = 0; i < n; ++i) {
            if (!leaf) r += disk_dump(btt::ptr_at(d, i, itemlen), depth + 1) + " ";
            std::string it = btt::item_at(d, i, itemlen);
            int v = ShapeReference::value(it);
            r += it == make(v) ? std::to_string(v) : "!";
            if (i + 1 < n || !leaf) r += " ";
        }
        if (!leaf) r += disk_dump(btt::ptr_at(d, n, itemlen), depth + 1);
        return r + "]";
    };

    int deepest = 0;
    for (int step = 0; step < 2500 && !HasFailure(); ++step) {
        // Grow first, then mix, then shrink.
        const int grow = step < 900 ? 75 : step < 1600 ? 50 : 20;
        const int v = static_cast<int>(rng() % 400);
        std::string it = make(v);
        bool check_cursor = false;
        if (static_cast<int>(rng() % 100) < grow) {
            check_cursor = ref.root >= 0;
            int want = ref.insert(it);
            ASSERT_EQ(f.insert(0, it), want) << "step " << step << " insert " << v;
        } else {
            int want = ref.remove(it);
            ASSERT_EQ(f.remove(0, it), want) << "step " << step << " delete " << v;
        }
        const PAGE root = f.root(0);
        const PAGE cursor = f.currpage(0);
        f.end();
        pages.clear();
        std::string got = disk_dump(root, 0);
        ASSERT_EQ(got, ref.dump(ref.root)) << "step " << step << " value " << v;
        deepest = std::max(deepest, static_cast<int>(std::count(got.begin(), got.begin() + static_cast<long>(got.find_first_not_of('[')), '[')));
        f.begin();

        // A search without a hint: answer, item and cursor page as the reference has them.
        std::vector<int> nodes;
        ref.preorder(ref.root, &nodes);
        ASSERT_EQ(nodes.size(), pages.size());
        auto page_of = [&](int nd) {
            const auto pos = std::find(nodes.begin(), nodes.end(), nd);
            return nd < 0 || pos == nodes.end() ? kNone : pages[static_cast<size_t>(pos - nodes.begin())];
        };
        // An insert leaves the cursor on the page that took or holds the item while it
        // has room, and on no page after a split of the root.
        if (check_cursor) {
            EXPECT_EQ(cursor, page_of(ref.cursor)) << "step " << step << " insert " << v;
        }
        static const int kModes[] = {0, 1, 2, 3, 5};
        const int mode = kModes[rng() % 5];
        std::string probe = make(static_cast<int>(rng() % 400));
        std::string want = probe;
        int at = -1;
        const int wr = ref.search(ref.root, mode, &want, &at);
        f.currpage(0) = kNone;
        std::string item = probe;
        ASSERT_EQ(bt_search(0, f.root(0), mode, item.data(), 0), wr)
            << "step " << step << " mode " << mode << " probe " << ShapeReference::value(probe);
        EXPECT_EQ(item, want) << "step " << step << " mode " << mode;
        EXPECT_EQ(f.currpage(0), page_of(at)) << "step " << step << " mode " << mode;
        ref.cursor = at;
    }
    EXPECT_GE(deepest, 3) << "the trees never grew deep";
    f.end();
    Sp_half = old_sp;
}

INSTANTIATE_TEST_SUITE_P(Bt, Shapes,
                         ::testing::Combine(::testing::Values(330, 240, 190, 160, 136),
                                            ::testing::Values(0, 1)));

}  // namespace
