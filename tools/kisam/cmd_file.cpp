// kisam create / info: making a file, and describing one by reading it directly.
//
// info never attaches to the shared area: it reads the control page and walks the pages
// with pread, bounded by the file's size, so that it works on damaged files and on files
// of an installation that is not running.  Pages that other processes have changed in
// the shared pool but not yet written are not seen; every changed page is written at
// once, only the control page lags until the next flush.
#include "json.h"
#include "tool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool {
namespace {

uint16_t u16(const unsigned char* p) { return uint16_t(p[0] | (p[1] << 8)); }
int16_t i16(const unsigned char* p) { return int16_t(u16(p)); }
uint32_t u32(const unsigned char* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

// printf when `on`: the text form of info, left out under --json.
template <typename... A>
void say(bool on, const char* fmt, A... args) {
    if (on) std::printf(fmt, args...);
}

std::string page_name(uint32_t p) { return p == KISAM_NOPAGE ? std::string("none") : std::to_string(p); }

}  // namespace

bool read_control_page(int fd, ControlPage& cp, std::string& err) {
    unsigned char b[512];
    ssize_t n = ::pread(fd, b, sizeof b, 0);
    if (n < 0) {
        err = std::strerror(errno);
        return false;
    }
    if (n < 2) {
        err = "not an ISAM file: shorter than a control page";
        return false;
    }
    cp = ControlPage();
    cp.magic = u16(b);
    if (cp.magic < ISMAGIC_OLD512 || cp.magic > ISMAGIC_1024) {
        char m[80];
        std::snprintf(m, sizeof m, "not an ISAM file: unknown magic 0x%04x", cp.magic);
        err = m;
        return false;
    }
    if (n < 512) {
        err = "not an ISAM file: the control page is cut short (" + std::to_string(n) + " of 512 bytes)";
        return false;
    }
    cp.nkeys = i16(b + 2);
    int keys_at;
    if (!cp.old_layout()) {
        cp.nextfree = u32(b + 4);
        cp.lastpage = u32(b + 8);
        for (int i = 0; i < 16; ++i) cp.cdp[i] = u32(b + 16 + 4 * i);
        cp.usecnt = i16(b + 84);
        cp.minrec = i16(b + 86);
        cp.optbits = b[88];
        cp.mincdpi = i16(b + 96);
        keys_at = 100;
    } else {
        cp.minrec = i16(b + 4);
        cp.nextfree = u32(b + 6);
        cp.lastpage = u32(b + 10);
        cp.optbits = b[14];
        cp.usecnt = int8_t(b[15]);
        cp.mincdpi = i16(b + 28);
        keys_at = 34;
    }
    if (cp.nkeys < 0 || cp.nkeys > KISAM_MAXKEYS || keys_at + 16 * cp.nkeys > 512) {
        err = "damaged control page: " + std::to_string(cp.nkeys) + " keys (at most 25)";
        return false;
    }
    for (int i = 0; i < cp.nkeys; ++i) {
        const unsigned char* k = b + keys_at + 16 * i;
        cp.keys.push_back(KeyDesc{u32(k), i16(k + 4), i16(k + 6), i16(k + 8), i16(k + 10), i16(k + 12)});
    }
    if (cp.old_layout()) {
        const unsigned char* h = b + keys_at + 16 * cp.nkeys;
        if (keys_at + 16 * cp.nkeys + 40 <= 512)
            for (int i = 0; i < 10; ++i) cp.cdp[i] = u32(h + 4 * i);
    }
    return true;
}

int cmd_create(std::vector<std::string> words) {
    Args a("create", std::move(words));
    a.flag("key-in-index");
    a.flag("small-header");
    a.flag("force");
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 2) return usage_error("create", "expected FILE and KEYLEN[,KEYLEN...]");
    const std::string& file = a.pos()[0];
    std::vector<int> lens;
    if (!parse_key_lengths(a.pos()[1], lens))
        return usage_error("create", "key lengths \"" + a.pos()[1] + "\" are not numbers from 1 to 500 separated by commas");
    if (lens.size() > KISAM_MAXKEYS) return usage_error("create", "at most 25 keys");
    long total = 0;
    for (int l : lens) total += l;
    if (total > KISAM_MAXREC) return usage_error("create", "the keys together are longer than the longest record (65534 bytes)");
    if (file.size() > 127) return fail("create", file + ": file name longer than 127 characters");
    // The library replaces an existing file; a slip of the keyboard must not cost data.
    if (!a.has("force") && ::access(file.c_str(), F_OK) == 0)
        return fail("create", file + ": exists already (use --force to replace it)");

    Session s("create");
    int fd = s.create(file, lens, a.has("key-in-index") ? 1 : 0, a.has("small-header") ? 512 : 1024);
    if (fd < 0) return EXIT_FAIL;
    return s.close(fd) ? EXIT_OK : EXIT_FAIL;
}

namespace {

// Reads pages of a file for info: bounds every position by the file's end.
struct PageReader {
    int fd;
    const ControlPage& cp;
    uint64_t fsize;
    bool read(uint32_t p, unsigned char* buf) const {
        if (p == 0 || p % 1024 != 0 || p == KISAM_NOPAGE) return false;
        uint64_t off = page_offset(cp, p);
        if (off + 1024 > fsize) return false;
        return ::pread(fd, buf, 1024, off_t(off)) == 1024;
    }
};

struct TreeFigures {
    int depth = 0;
    uint64_t pages = 0, items = 0;
    std::string trouble;   // first problem met, empty when the walk went through
};

TreeFigures walk_tree(const PageReader& r, int keyno, const KeyDesc& k, uint64_t npages) {
    TreeFigures t;
    if (k.root == KISAM_NOPAGE) return t;
    if (k.itemlen <= 0 || k.itemlen > 1016) {
        t.trouble = "item length " + std::to_string(k.itemlen) + " is impossible";
        return t;
    }
    std::vector<bool> seen(npages + 1, false);
    std::vector<std::pair<uint32_t, int>> stack{{k.root, 1}};
    unsigned char b[1024];
    int inc = k.itemlen + 4;
    while (!stack.empty()) {
        auto [p, d] = stack.back();
        stack.pop_back();
        uint64_t idx = p / 1024;
        if (!r.read(p, b) || idx > npages) {
            if (t.trouble.empty()) t.trouble = "page " + std::to_string(p) + " cannot be read";
            continue;
        }
        if (seen[idx]) {
            if (t.trouble.empty()) t.trouble = "page " + std::to_string(p) + " is reached twice";
            continue;
        }
        seen[idx] = true;
        int n = i16(b + 2);
        if (i16(b) != keyno || n < 0 || 8 + int64_t(n) * inc > 1024) {
            if (t.trouble.empty()) t.trouble = "page " + std::to_string(p) + " is not a page of this index";
            continue;
        }
        ++t.pages;
        t.items += n;
        if (d > t.depth) t.depth = d;
        uint32_t p0 = u32(b + 4);
        if (p0 != KISAM_NOPAGE) stack.push_back({p0, d + 1});
        for (int i = 0; i < n; ++i) {
            uint32_t c = u32(b + 8 + i * inc + k.itemlen);
            if (c != KISAM_NOPAGE) stack.push_back({c, d + 1});
        }
    }
    return t;
}

}  // namespace

CompactionEstimate estimate_compaction(const std::string& file) {
    CompactionEstimate e;
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return e;
    ControlPage cp;
    std::string err;
    struct stat st;
    if (::fstat(fd, &st) != 0 || !read_control_page(fd, cp, err)) {
        ::close(fd);
        return e;
    }
    const uint64_t fsize = uint64_t(st.st_size);
    const uint64_t npages = (cp.small_header() ? fsize + 512 : fsize) / 1024;
    PageReader r{fd, cp, fsize};
    unsigned char b[1024];
    uint64_t index_pages = 0, index_used = 0;
    for (uint64_t i = 1; i < npages; ++i) {
        if (!r.read(uint32_t(i * 1024), b)) break;
        const uint16_t w = u16(b);
        if (w == 0xFFFE || w == 0xFFFF) {
            ++e.unused_pages;
        } else if (w < 0x8000) {
            const int k = w, n = i16(b + 2);
            if (k < cp.nkeys && n >= 0) {
                ++index_pages;
                index_used += 8 + uint64_t(n) * uint64_t(cp.keys[size_t(k)].itemlen + 4);
            }
        } else if (w != 0x8001 && w < 0x8400) {
            // Free chunks of a shared data page: next (16 bits), size (16 bits), in
            // ascending order; a damaged list is counted no further.
            int prev = 0;
            for (int c = w & 0x3FF, guard = 0; c != 0 && guard < 512; ++guard) {
                if (c <= prev || c + 4 > 1024 || (c & 1)) break;
                const int avail = i16(b + c + 2);
                if (avail < 4 || c + avail > 1024) break;
                e.data_free_bytes += uint64_t(avail);
                prev = c;
                c = i16(b + c);
            }
        }
    }
    ::close(fd);
    // A rewritten index is about half full at worst (items inserted in key order split
    // pages in halves): the pages beyond what its items need at that fill come back.
    const uint64_t needed = (index_used * 2 + 1015) / 1016;
    e.index_pages = index_pages > needed ? index_pages - needed : 0;
    e.bytes = (e.unused_pages + e.data_free_bytes / 1022 + e.index_pages) * 1024;
    e.known = true;
    return e;
}

std::string describe_compaction(const CompactionEstimate& e) {
    if (!e.known) return "unknown";
    char b[300];
    std::snprintf(b, sizeof b,
                  "about %llu bytes (estimate: %llu free or unused pages, %llu bytes free in data pages, "
                  "%llu index pages)",
                  static_cast<unsigned long long>(e.bytes), static_cast<unsigned long long>(e.unused_pages),
                  static_cast<unsigned long long>(e.data_free_bytes), static_cast<unsigned long long>(e.index_pages));
    return b;
}

int cmd_info(std::vector<std::string> words) {
    Args a("info", std::move(words));
    a.flag("json");
    if (!a.parse()) return EXIT_USAGE;
    const bool json = a.has("json");
    JsonObject doc;
    JsonArray jkeys, jroom, jproblems;
    if (a.pos().size() != 1) return usage_error("info", "expected one FILE");
    const std::string& file = a.pos()[0];
    if (int rc = settle_first("info", file); rc != EXIT_OK) return rc;
    int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) return fail("info", file + ": " + std::strerror(errno));
    struct stat st;
    ::fstat(fd, &st);
    ControlPage cp;
    std::string err;
    if (!read_control_page(fd, cp, err)) {
        ::close(fd);
        return fail("info", file + ": " + err);
    }
    uint64_t fsize = uint64_t(st.st_size);
    // Pages in the 1024-byte numbering that the file holds.
    uint64_t logical_end = cp.small_header() ? fsize + 512 : fsize;
    uint64_t npages = logical_end / 1024;
    PageReader r{fd, cp, fsize};

    const char* format = cp.magic == ISMAGIC_1024  ? "1024-byte control page"
                         : cp.magic == ISMAGIC_512 ? "512-byte control page"
                         : cp.magic == ISMAGIC_OLD1024 ? "old layout, 1024-byte control page (converted at open)"
                                                       : "old layout, 512-byte control page (converted at open)";
    say(!json, "file                 %s\n", file.c_str());
    say(!json, "format               %s (magic 0x%04x)\n", format, cp.magic);
    say(!json, "size                 %llu bytes, %llu pages of 1024 bytes\n", static_cast<unsigned long long>(fsize),
                static_cast<unsigned long long>(npages > 0 ? npages - 1 : 0));
    say(!json, "minimum record       %d bytes (the keys together)\n", cp.minrec);
    say(!json, "key 0 stored         %s\n", (cp.optbits & ISO_KEYOPT) ? "only in its index" : "in the records");
    say(!json, "data-changed mark    %s\n", (cp.optbits & ISO_DIRTYMARK)
                                                 ? "SET: the file was being changed when last used; run 'kisam check'"
                                                 : "clear");
    say(!json, "end of file          page %u\n", cp.lastpage);
    say(!json, "keys                 %d\n", cp.nkeys);
    say(!json, "  key  length  item  order  root        depth  pages     items\n");
    uint64_t records = 0;
    std::vector<std::string> troubles;
    for (int i = 0; i < cp.nkeys; ++i) {
        const KeyDesc& k = cp.keys[size_t(i)];
        TreeFigures t = walk_tree(r, i, k, npages);
        if (i == 0) records = t.items;
        say(!json, "  %-4d %-7d %-5d %-6d %-11s %-6d %-9llu %llu\n", i, k.keylen, k.itemlen, k.order,
                    page_name(k.root).c_str(), t.depth, static_cast<unsigned long long>(t.pages),
                    static_cast<unsigned long long>(t.items));
        jkeys.add(JsonObject()
                      .num("key", i)
                      .num("length", k.keylen)
                      .num("item", k.itemlen)
                      .num("order", k.order)
                      .raw("root", k.root == KISAM_NOPAGE ? "null" : std::to_string(k.root))
                      .num("depth", t.depth)
                      .unum("pages", t.pages)
                      .unum("items", t.items)
                      .done());
        if (!t.trouble.empty()) troubles.push_back("index of key " + std::to_string(i) + ": " + t.trouble);
    }
    say(!json, "records              %llu\n", static_cast<unsigned long long>(records));

    // Free chain: ends at the end of the file; every link is a free page.
    uint64_t chain = 0;
    std::string chain_trouble;
    {
        std::vector<bool> seen(npages + 1, false);
        uint32_t p = cp.nextfree;
        unsigned char b[1024];
        while (p != cp.lastpage) {
            if (!r.read(p, b) || p / 1024 > npages) {
                chain_trouble = "link to page " + page_name(p) + " leads outside the file";
                break;
            }
            if (seen[p / 1024]) {
                chain_trouble = "page " + std::to_string(p) + " is linked twice (a loop)";
                break;
            }
            seen[p / 1024] = true;
            if (i16(b) != -2) {
                chain_trouble = "page " + std::to_string(p) + " is linked but not marked free";
                break;
            }
            ++chain;
            p = u32(b + 4);
        }
    }
    say(!json, "free chain           %llu pages%s%s\n", static_cast<unsigned long long>(chain),
                chain ? ", first " : "", chain ? std::to_string(cp.nextfree).c_str() : "");
    if (!chain_trouble.empty()) troubles.push_back("free chain: " + chain_trouble);

    int used = 0;
    while (used < 16 && cp.cdp[used] != 0) ++used;
    say(!json, "data pages with room %d", used);
    for (int i = 0; i < used; ++i)
        jroom.add(JsonObject().unum("page", cp.cdp[i] & ~1023u).unum("free", cp.cdp[i] & 1023u).done());
    for (int i = 0; i < used; ++i)
        say(!json, "%s%u (%u free)", i == 0 ? "\n                     " : i % 4 == 0 ? ",\n                     " : ", ",
                    cp.cdp[i] & ~1023u, cp.cdp[i] & 1023u);
    say(!json, "\n");

    // Pages by kind, from the first word of each page, up to the recorded end of file
    // (a file extended behind the engine's back is not read to its end).
    uint64_t btree = 0, shared = 0, overflow = 0, freep = 0, fresh = 0, other = 0;
    {
        unsigned char b[1024];
        const uint64_t end = std::min<uint64_t>(npages, cp.lastpage / 1024);
        Progress prog("info " + file, end, "pages");
        for (uint64_t i = 1; i < end; ++i) {
            if (g_interrupted) {
                ::close(fd);
                return interrupted("info");
            }
            prog.update(i, i);
            if (!r.read(uint32_t(i * 1024), b)) break;
            uint16_t w = u16(b);
            if (w == 0xFFFE)
                ++freep;
            else if (w == 0xFFFF)
                ++fresh;
            else if (w < 0x8000)
                ++btree;
            else if (w == 0x8001)
                ++overflow;
            else if (w < 0x8400)
                ++shared;
            else
                ++other;
        }
    }
    say(!json, "pages by kind        %llu index, %llu shared data, %llu overflow, %llu free, %llu never used",
                static_cast<unsigned long long>(btree), static_cast<unsigned long long>(shared),
                static_cast<unsigned long long>(overflow), static_cast<unsigned long long>(freep),
                static_cast<unsigned long long>(fresh));
    if (other) say(!json, ", %llu unknown", static_cast<unsigned long long>(other));
    say(!json, "\n");
    if (uint64_t(cp.lastpage) != (logical_end + 1023) / 1024 * 1024)
        say(!json, "note                 the stored end of file (%u) differs from the file's size; it is\n"
                    "                     brought up to date at the next page allocation\n",
                    cp.lastpage);
    const CompactionEstimate est = estimate_compaction(file);
    say(!json, "compaction would give back %s\n", describe_compaction(est).c_str());
    for (const auto& t : troubles) say(!json, "problem              %s (run 'kisam check')\n", t.c_str());
    ::close(fd);
    if (json) {
        for (const auto& t : troubles) jproblems.add(json_str(t));
        doc.str("file", file)
            .num("magic", cp.magic)
            .boolean("small_header", cp.small_header())
            .boolean("old_layout", cp.old_layout())
            .unum("size", fsize)
            .unum("pages", npages > 0 ? npages - 1 : 0)
            .num("minimum_record", cp.minrec)
            .boolean("key_in_index", cp.optbits & ISO_KEYOPT)
            .boolean("data_changed_mark", cp.optbits & ISO_DIRTYMARK)
            .unum("end_of_file", cp.lastpage)
            .raw("keys", jkeys.done())
            .unum("records", records)
            .unum("free_chain", chain)
            .raw("data_pages_with_room", jroom.done())
            .raw("pages_by_kind", JsonObject()
                                      .unum("index", btree)
                                      .unum("shared_data", shared)
                                      .unum("overflow", overflow)
                                      .unum("free", freep)
                                      .unum("never_used", fresh)
                                      .unum("unknown", other)
                                      .done())
            .raw("compaction_estimate", JsonObject()
                                            .unum("bytes", est.bytes)
                                            .unum("unused_pages", est.unused_pages)
                                            .unum("data_free_bytes", est.data_free_bytes)
                                            .unum("index_pages", est.index_pages)
                                            .done())
            .raw("problems", jproblems.done());
        std::printf("%s\n", doc.done().c_str());
    }
    // Problems listed are damage found: the status says so, as check's does.
    return troubles.empty() ? EXIT_OK : EXIT_FAIL;
}

}  // namespace kisam_tool
