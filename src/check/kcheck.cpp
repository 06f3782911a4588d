// Structural checker: control page, B-trees, free chain and page accounting.
#include "kcheck.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kisam::check {

std::string fmt(const char* f, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

namespace {

// Deepest tree accepted.  A tree of order 2 over the largest possible file (2^22 pages)
// stays far below it; a deeper descent can only come from a damaged file.
constexpr int kMaxDepth = 64;


template <class T>
T at(const void* base, size_t off) {
    T v;
    std::memcpy(&v, static_cast<const char*>(base) + off, sizeof v);
    return v;
}

ssize_t pread_full(int fd, void* buf, size_t n, off_t off) {
    size_t done = 0;
    while (done < n) {
        ssize_t r = ::pread(fd, static_cast<char*>(buf) + done, n - done, off + static_cast<off_t>(done));
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (r == 0) break;
        done += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(done);
}

int bt_order_of(int itemlen) {
    if (itemlen < 1 || (itemlen & 1)) return -1;
    int order = (kPageSize - 8) / (itemlen + 4);
    return order < 2 ? -1 : order;
}

// Problems of a key descriptor that make its pages unreadable, or empty.  Every field
// that sizes a copy (an item, its compared part, the key 0 value it carries) must be
// the one creation derives from the key lengths: a field that disagrees with the others
// would have the checks copy past an item, so the file is damaged and the field named.
std::string key_problem(const IS_KEY& k, int keyno, const IS_KEY& k0) {
    auto even = [](int n) { return (n + 1) & ~1; };
    if (k.k_keylen < 1 || k.k_keylen > kPageSize) return fmt("k_keylen %d", k.k_keylen);
    if (keyno > 0 && (k0.k_keylen < 1 || k0.k_keylen > kPageSize))
        return fmt("k_keylen %d of key 0", k0.k_keylen);
    const int l0 = k0.k_keylen;
    if (k.k_offset != even(k.k_keylen)) return fmt("k_offset %d for k_keylen %d", k.k_offset, k.k_keylen);
    const int itemlen = keyno == 0 ? even(l0) + 4 : even(k.k_keylen) + even(l0);
    if (k.k_itemlen != itemlen)
        return fmt("k_itemlen %d, not %d for k_keylen %d and key 0's %d", k.k_itemlen, itemlen,
                   k.k_keylen, l0);
    if (k.k_order != bt_order_of(k.k_itemlen))
        return fmt("k_order %d for k_itemlen %d", k.k_order, k.k_itemlen);
    const int ncomp = keyno == 0 ? l0 : even(k.k_keylen) + l0;
    if (k.k_ncomp != ncomp)
        return fmt("k_ncomp %d, not %d for k_offset %d and key 0's k_keylen %d", k.k_ncomp, ncomp,
                   k.k_offset, l0);
    return {};
}

// One key's tree, walked depth first in item order.
class TreeWalk {
public:
    TreeWalk(const FileImage& img, Report& rep, PageMap* map, int key,
             std::vector<std::string>* items)
        : img_(img), rep_(rep), map_(map), key_(key), kd_(img.keys[static_cast<size_t>(key)]),
          inc_(kd_.k_itemlen + 4), items_(items) {}

    bool run(KeyStats* st) {
        st_ = KeyStats();
        if (kd_.k_root == KISAM_NOPAGE) {
            *st = st_;
            return true;
        }
        bool ok = walk(kd_.k_root, 0, KISAM_NOPAGE, -1, nullptr, nullptr);
        st_.depth = leaf_depth_ + 1;
        *st = st_;
        return ok;
    }

private:
    // Comparable form of an item: its first k_ncomp bytes, pad byte as 0.
    std::string cmp_form(const char* item) const {
        std::string s(item, static_cast<size_t>(kd_.k_ncomp));
        if (kd_.k_offset > kd_.k_keylen && kd_.k_keylen < kd_.k_ncomp)
            s[static_cast<size_t>(kd_.k_keylen)] = 0;
        return s;
    }

    std::string where(PAGE p) const { return fmt("key %d, page %u", key_, p); }

    bool walk(PAGE p, int depth, PAGE from, int from_ptr, const std::string* lo,
              const std::string* hi) {
        const char* whose = from == KISAM_NOPAGE ? "root" : "child";
        if (depth >= kMaxDepth)
            return rep_.fail(fmt("key %d: tree deeper than %d levels at page %u", key_, kMaxDepth, p));
        if (!img_.valid_page(p)) {
            if (from == KISAM_NOPAGE)
                return rep_.fail(fmt("key %d: k_root %u is not a page of the file (is_lastpage %u)",
                                     key_, p, img_.lastpage));
            return rep_.fail(fmt("key %d, page %u, pointer %d: child %u is not a page of the file "
                                 "(is_lastpage %u)", key_, from, from_ptr, p, img_.lastpage));
        }
        if (map_) {
            PageUse prev;
            if (!map_->claim(p, PageUse::tree, key_, &prev)) {
                int owner = map_->owner[p / 1024 - 1];
                return rep_.fail(fmt("%s: %s page reached twice (already in the tree of key %d)",
                                     where(p).c_str(), whose, owner));
            }
        }
        IS_DATA d;
        std::string err;
        if (!img_.read_page(p, &d, &err)) return rep_.fail(where(p) + ": " + err);
        if (d.fp.fp_ident == -2)
            return rep_.fail(where(p) + ": a free page is linked into the tree");
        if (d.bt.bt_keyno != key_)
            return rep_.fail(fmt("%s: bt_keyno %d, expected %d", where(p).c_str(), d.bt.bt_keyno, key_));
        const int n = d.bt.bt_nitems;
        if (n < 1 || n > kd_.k_order)
            return rep_.fail(fmt("%s: %d items (order %d)", where(p).c_str(), n, kd_.k_order));
        ++st_.pages;
        st_.items += n;

        const PAGE p0 = at<PAGE>(d.c, 4);
        const bool leaf = p0 == KISAM_NOPAGE;
        for (int i = 1; i <= n; ++i) {
            PAGE c = at<PAGE>(d.c, static_cast<size_t>(4 + i * inc_));
            if ((c == KISAM_NOPAGE) != leaf)
                return rep_.fail(fmt("%s: pointer %d is %s in a page whose pointer 0 is %s",
                                     where(p).c_str(), i, c == KISAM_NOPAGE ? "none" : "a page",
                                     leaf ? "none" : "a page"));
        }
        if (leaf) {
            ++st_.leaves;
            if (leaf_depth_ < 0) {
                leaf_depth_ = depth;
            } else if (leaf_depth_ != depth) {
                return rep_.fail(fmt("%s: leaf at depth %d, other leaves at depth %d",
                                     where(p).c_str(), depth, leaf_depth_));
            }
        }

        std::vector<std::string> forms;
        forms.reserve(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
            const char* item = d.c + 8 + i * inc_;
            forms.push_back(cmp_form(item));
            const std::string& f = forms.back();
            if (i > 0 && !(forms[static_cast<size_t>(i - 1)] < f))
                return rep_.fail(fmt("%s, item %d: not above item %d", where(p).c_str(), i, i - 1));
            if (lo && !(*lo < f))
                return rep_.fail(fmt("%s, item %d: not above the separator left of the page",
                                     where(p).c_str(), i));
            if (hi && !(f < *hi))
                return rep_.fail(fmt("%s, item %d: not below the separator right of the page",
                                     where(p).c_str(), i));
        }

        // In order: child 0, item 0, child 1, ..., item n-1, child n.
        for (int i = 0; i <= n; ++i) {
            if (!leaf) {
                PAGE c = at<PAGE>(d.c, static_cast<size_t>(4 + i * inc_));
                const std::string* clo = i == 0 ? lo : &forms[static_cast<size_t>(i - 1)];
                const std::string* chi = i == n ? hi : &forms[static_cast<size_t>(i)];
                if (!walk(c, depth + 1, p, i, clo, chi)) return false;
            }
            if (i < n && items_)
                items_->emplace_back(d.c + 8 + i * inc_, static_cast<size_t>(kd_.k_itemlen));
        }
        return true;
    }

    const FileImage& img_;
    Report& rep_;
    PageMap* map_;
    int key_;
    const IS_KEY& kd_;
    int inc_;
    std::vector<std::string>* items_;
    KeyStats st_;
    int leaf_depth_ = -1;
};

bool check_control(const FileImage& img, Report& rep) {
    if (img.lastpage < 1024 || img.lastpage % 1024 != 0)
        return rep.fail(fmt("control page: is_lastpage %u is not a page boundary", img.lastpage));
    // The end of the file in the 1024-byte numbering, rounded up to a page.
    long long end = img.file_size + (img.compact ? 512 : 0);
    end = (end + 1023) / 1024 * 1024;
    if (static_cast<long long>(img.lastpage) > end)
        return rep.fail(fmt("control page: is_lastpage %u lies beyond the end of the file (%lld)",
                            img.lastpage, end));
    int sum = 0;
    for (int k = 0; k < img.nkeys; ++k) {
        std::string why = key_problem(img.keys[static_cast<size_t>(k)], k, img.keys[0]);
        if (!why.empty()) return rep.fail(fmt("control page: key %d: %s", k, why.c_str()));
        sum += img.keys[static_cast<size_t>(k)].k_keylen;
    }
    // Every record holds all key values: the data check reads them from its first
    // is_minrec bytes.
    if (img.nkeys > 0 && img.minrec < sum)
        return rep.fail(fmt("control page: is_minrec %d is less than the key lengths' sum %d",
                            img.minrec, sum));
    return true;
}

bool check_free(const FileImage& img, Report& rep) {
    PageMap& map = rep.map;
    PAGE p = img.nextfree;
    PAGE from = KISAM_NOPAGE;
    // Any value that is not a page below is_lastpage ends the chain (normally
    // is_lastpage itself; the allocator abandons a head that is not a page).
    while (img.valid_page(p)) {
        PageUse prev;
        if (!map.claim(p, PageUse::free, -1, &prev)) {
            if (prev == PageUse::free)
                return rep.fail(fmt("free chain: cycle, page %u follows page %u again", p, from));
            return rep.fail(fmt("free chain: page %u is also in the tree of key %d", p,
                                map.owner[p / 1024 - 1]));
        }
        IS_DATA d;
        std::string err;
        if (!img.read_page(p, &d, &err)) return rep.fail("free chain: " + err);
        if (d.fp.fp_ident != -2)
            return rep.fail(fmt("free chain: page %u (after page %u) is not marked free "
                                "(first word %d)", p, from, d.fp.fp_ident));
        bool filler = static_cast<uint16_t>(d.fp.fp_fill) == 0xFFFF;
        for (int i = 8; i < 32 && filler; ++i) filler = static_cast<unsigned char>(d.c[i]) == 0xFF;
        if (!filler) return rep.fail(fmt("free chain: page %u: filler bytes are not 0xFF", p));
        rep.free_chain.push_back(p);
        ++rep.free_pages;
        from = p;
        p = d.fp.fp_nextpage;
    }
    return true;
}

}  // namespace

FileImage::~FileImage() {
    if (fd >= 0) ::close(fd);
}

bool FileImage::read_page(PAGE p, IS_DATA* out, std::string* error) const {
    if (!valid_page(p)) {
        *error = fmt("page %u is not a page of the file (is_lastpage %u)", p, lastpage);
        return false;
    }
    ssize_t r = pread_full(fd, out->c, kPageSize, static_cast<off_t>(offset(p)));
    if (r != kPageSize) {
        *error = r < 0 ? fmt("page %u: read failed: %s", p, std::strerror(errno))
                       : fmt("page %u: the file ends inside the page", p);
        return false;
    }
    return true;
}

bool open_image(const std::string& path, FileImage* img, std::string* error) {
    img->path = path;
    img->fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (img->fd < 0) {
        *error = fmt("%s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    struct stat st;
    if (::fstat(img->fd, &st) != 0) {
        *error = fmt("%s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    img->file_size = st.st_size;
    unsigned char fcp[512];
    if (pread_full(img->fd, fcp, sizeof fcp, 0) != static_cast<ssize_t>(sizeof fcp)) {
        *error = fmt("%s: too short for a control page", path.c_str());
        return false;
    }
    img->disk_magic = at<uint16_t>(fcp, 0);
    size_t keys_at;
    int nkeys = at<int16_t>(fcp, 2);
    switch (img->disk_magic) {
    case ISMAGIC_1024:
    case ISMAGIC_512:
        img->magic = img->disk_magic;
        img->nextfree = at<PAGE>(fcp, 4);
        img->lastpage = at<PAGE>(fcp, 8);
        for (int i = 0; i < 16; ++i) img->cdp[i] = at<PAGE>(fcp, static_cast<size_t>(16 + 4 * i));
        img->minrec = at<int16_t>(fcp, 86);
        img->optbits = at<uint8_t>(fcp, 88);
        img->mincdpi = at<int16_t>(fcp, 96);
        keys_at = 100;
        break;
    case ISMAGIC_OLD1024:
    case ISMAGIC_OLD512:
        img->magic = static_cast<uint16_t>(img->disk_magic + 2);
        img->minrec = at<int16_t>(fcp, 4);
        img->nextfree = at<PAGE>(fcp, 6);
        img->lastpage = at<PAGE>(fcp, 10);
        img->optbits = at<uint8_t>(fcp, 14);
        img->mincdpi = at<int16_t>(fcp, 28);
        keys_at = 34;
        break;
    default:
        *error = fmt("%s: not an ISAM file (magic 0x%04X)", path.c_str(), img->disk_magic);
        return false;
    }
    if (nkeys < 0 || nkeys > KISAM_MAXKEYS) {
        *error = fmt("%s: is_nkeys %d out of range", path.c_str(), nkeys);
        return false;
    }
    img->nkeys = nkeys;
    img->keys.resize(static_cast<size_t>(nkeys));
    for (int k = 0; k < nkeys; ++k)
        std::memcpy(&img->keys[static_cast<size_t>(k)], fcp + keys_at + 16 * static_cast<size_t>(k), 16);
    if (keys_at == 34) {
        const size_t hints = keys_at + 16 * static_cast<size_t>(nkeys);
        for (int i = 0; i < 10 && hints + 4 * static_cast<size_t>(i) + 4 <= sizeof fcp; ++i)
            img->cdp[i] = at<PAGE>(fcp, hints + 4 * static_cast<size_t>(i));
    }
    img->compact = img->magic == ISMAGIC_512;
    return true;
}

const char* page_use_name(PageUse u) {
    switch (u) {
    case PageUse::tree: return "tree";
    case PageUse::free: return "free";
    case PageUse::data: return "data";
    default: return "unknown";
    }
}

void PageMap::reset(PAGE last) {
    lastpage = last;
    size_t n = last >= 1024 ? last / 1024 - 1 : 0;
    use.assign(n, PageUse::unknown);
    owner.assign(n, -1);
}

bool PageMap::claim(PAGE p, PageUse u, int key, PageUse* prev) {
    const size_t i = p / 1024 - 1;
    if (i >= use.size()) {
        *prev = PageUse::unknown;
        return false;
    }
    *prev = use[i];
    if (use[i] != PageUse::unknown) return false;
    use[i] = u;
    owner[i] = static_cast<int16_t>(key);
    return true;
}

bool Report::fail(const std::string& what) {
    if (ok) {
        ok = false;
        error = what;
    }
    return false;
}

Report check_file(const std::string& path, int flags) {
    Report rep;
    FileImage img;
    std::string err;
    if (!open_image(path, &img, &err)) {
        rep.fail(err);
        return rep;
    }
    if (!check_control(img, rep)) return rep;
    rep.map.reset(img.lastpage);
    rep.keys.resize(static_cast<size_t>(img.nkeys));

    if (flags & CHECK_TREES) {
        for (int k = 0; k < img.nkeys; ++k) {
            TreeWalk w(img, rep, &rep.map, k, nullptr);
            if (!w.run(&rep.keys[static_cast<size_t>(k)])) return rep;
        }
    }
    if ((flags & CHECK_FREE) && !check_free(img, rep)) return rep;
    if ((flags & CHECK_DATA) && !check_data(img, rep.map, rep)) return rep;

    for (size_t i = 0; i < rep.map.use.size(); ++i)
        if (rep.map.use[i] == PageUse::unknown) ++rep.unknown_pages;
    if ((flags & CHECK_ALL) == CHECK_ALL && rep.data_accounted) {
        for (size_t i = 0; i < rep.map.use.size(); ++i) {
            if (rep.map.use[i] == PageUse::unknown) {
                rep.fail(fmt("page %zu is in no tree, not on the free chain and not a data page",
                             (i + 1) * 1024));
                break;
            }
        }
    }
    return rep;
}

int list_items(const std::string& path, int keyno, std::vector<std::string>* items,
               std::string* error) {
    FileImage img;
    if (!open_image(path, &img, error)) return -1;
    Report rep;
    if (!check_control(img, rep)) {
        *error = rep.error;
        return -1;
    }
    if (keyno < 0 || keyno >= img.nkeys) {
        *error = fmt("%s: no key %d (the file has %d)", path.c_str(), keyno, img.nkeys);
        return -1;
    }
    items->clear();
    rep.map.reset(img.lastpage);
    TreeWalk w(img, rep, &rep.map, keyno, items);
    KeyStats st;
    if (!w.run(&st)) {
        *error = rep.error;
        return -1;
    }
    return static_cast<int>(items->size());
}

}  // namespace kisam::check
