// kisam check: the structural checker, and the cross-check of every index against the
// records of key 0.
//
// The structural checker (kcheck.h) proves each tree, the free chain and the data pages
// sound on their own.  What it cannot see is whether the indexes agree with the records:
// every record reached through key 0 must have exactly one item in every other index,
// made of its own key value and its key 0 value, and no index may hold any other item.
// This file reads the records directly (no engine) to rebuild the items each index must
// hold and compares them with the items it does hold.
#include "json.h"
#include "tool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef KISAM_TOOL_HAVE_CHECK
#include "kcheck.h"
#endif

namespace kisam_tool {

namespace {

// 1 when the file is open in the installation's shared area, 0 when not, -1 when that
// cannot be told (no configuration, no area).  Looks without attaching.
int open_in_area(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return -1;
    std::string conf = find_config();
    if (conf.empty()) return -1;
    long key = installation_key(conf);
    if (key == -1) return -1;
    int id = ::shmget(key_t(key), 0, 0);
    if (id < 0) return errno == ENOENT ? 0 : -1;
    void* p = ::shmat(id, nullptr, SHM_RDONLY);
    if (p == reinterpret_cast<void*>(-1)) return -1;
    const auto* com = static_cast<const struct isam_com*>(p);
    const char* base = static_cast<const char*>(p);
    int found = 0;
    if (com->iscom_magicval == ISCOM_MAGIC && com->iscom_version == ISCOM_VERSION) {
        const int32_t* pfo = reinterpret_cast<const int32_t*>(base + com->pfo_base);
        const int64_t heapsize = int64_t(com->comsize) - com->heap_base;
        for (int i = 0; i < com->maxopen && !found; ++i) {
            if (pfo[i] < 0 || pfo[i] + int64_t(IS_FCP_SIZE(0)) > heapsize) continue;
            const auto* fcp = reinterpret_cast<const IS_FCP*>(base + com->heap_base + pfo[i]);
            if (fcp->jd_ino == uint64_t(st.st_ino) && fcp->jd_dev == uint64_t(st.st_dev)) found = 1;
        }
    }
    ::shmdt(p);
    return found;
}

// Reads the whole file once; "" when every byte could be read, else what failed.
std::string unreadable(const std::string& file) {
    int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) return std::strerror(errno);
    std::vector<char> buf(1 << 16);
    std::string why;
    for (off_t at = 0;;) {
        if (g_interrupted) break;
        ssize_t n = ::pread(fd, buf.data(), buf.size(), at);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            why = "read error: " + std::string(std::strerror(errno)) + " (at byte " + std::to_string(at) + ")";
            break;
        }
        if (n == 0) break;
        at += n;
    }
    ::close(fd);
    return why;
}

}  // namespace

#ifdef KISAM_TOOL_HAVE_CHECK

namespace {

namespace kc = kisam::check;

uint16_t w16(const char* p) { return uint16_t(uint8_t(p[0]) | uint8_t(p[1]) << 8); }
uint32_t w32(const char* p) { uint32_t v; std::memcpy(&v, p, 4); return v; }

// Reads the first `want` bytes of the data record at `addr` straight from the pages, the
// way the engine fetches them, refusing anything that leaves the formats.
bool fetch_record(const kc::FileImage& img, uint32_t addr, size_t want, std::string& out, std::string& err) {
    out.clear();
    IS_DATA page;
    int hops = 0;
    while (out.size() < want && addr != KISAM_NOPAGE && (addr & 1023) == 1) {
        if (++hops > 70) { err = "overflow chain longer than any record"; return false; }
        if (!img.read_page(addr - 1, &page, &err)) return false;
        if (w16(page.c) != 0x8001) { err = "page " + std::to_string(addr - 1) + " is not an overflow page"; return false; }
        size_t n = std::min<size_t>(1016, want - out.size());
        out.append(page.c + 8, n);
        addr = w32(page.c + 4);
    }
    if (out.size() >= want) return true;
    if (addr == KISAM_NOPAGE || (addr & 1)) { err = "record address " + std::to_string(addr) + " is not valid"; return false; }
    if (!img.read_page(addr & ~1023u, &page, &err)) return false;
    if ((w16(page.c) & 0xFC00) != 0x8000 || w16(page.c) == 0x8001) {
        err = "page " + std::to_string(addr & ~1023u) + " is not a shared data page";
        return false;
    }
    unsigned s = addr & 1023;
    for (int seg = 0; seg < 512; ++seg) {
        if (s < 2 || s + 2 > 1024) { err = "segment offset " + std::to_string(s) + " is outside the page"; return false; }
        uint16_t ctl = w16(page.c + s);
        unsigned len, data, next = 0;
        if (!(ctl & 0x8000)) {
            len = uint8_t(page.c[s]);
            data = s + 1;
        } else if (!(ctl & 0x4000)) {
            len = ctl & 0x3FF;
            data = s + 2;
        } else {
            if (s + 3 > 1024) { err = "segment header outside the page"; return false; }
            len = ctl & 0x3FF;
            data = s + 3;
            next = ((ctl >> 2) & 0x300) + uint8_t(page.c[s + 2]);
            if (next & 1) { err = "continued segment points to an odd offset"; return false; }
        }
        if (data + len > 1024) { err = "segment at offset " + std::to_string(s) + " runs past the page"; return false; }
        out.append(page.c + data, std::min<size_t>(len, want - out.size()));
        if (out.size() >= want || next == 0) return true;
        s = next;
    }
    err = "segment chain loops";
    return false;
}

// The bytes of an item that the index compares, with the pad byte as the search sees it.
std::string compared(const std::string& item, const IS_KEY& k) {
    std::string c = item.substr(0, size_t(k.k_ncomp));
    if (k.k_offset > k.k_keylen && size_t(k.k_keylen) < c.size()) c[size_t(k.k_keylen)] = 0;
    return c;
}

}  // namespace

int cmd_check(std::vector<std::string> words) {
    Args a("check", std::move(words));
    a.flag("clear-mark");
    a.flag("json");
    if (!a.parse()) return EXIT_USAGE;
    const bool json = a.has("json");
    // Under --json the same findings make one document, written by verdict().
    JsonObject doc;
    JsonArray jproblems;
    auto line = [&](const std::string& text) {
        if (!json) std::printf("%s\n", text.c_str());
    };
    auto verdict = [&](int rc, const char* status, const std::string& text) {
        if (json) {
            doc.str("file", a.pos()[0]).str("status", status).str("message", text).raw("problems", jproblems.done());
            std::printf("%s\n", doc.done().c_str());
        } else {
            std::printf("%s: %s\n", a.pos()[0].c_str(), text.c_str());
        }
        return rc;
    };
    if (a.pos().size() != 1) return usage_error("check", "expected one FILE");
    const std::string& file = a.pos()[0];
    // A file that cannot be read is not a damaged file: read it all once first, so that
    // a missing file or an I/O error gets its own message and status instead of a verdict
    // on the structure.
    if (std::string why = unreadable(file); !why.empty()) {
        verdict(EXIT_IO, "unreadable", "CANNOT BE READ: " + why);
        fail("check", file + ": " + why);
        return EXIT_IO;
    }
    if (g_interrupted) return interrupted("check");
    // A rollback still waiting in a journal would show as damage: apply it first.
    if (bool newer = false; settle_first("check", file, &newer) != EXIT_OK) {
        if (newer)
            return verdict(EXIT_PENDING, "log_pending",
                           "LOG PENDING: calls may wait in a redo log of a newer version, which this version "
                           "cannot replay; not checked");
        return verdict(EXIT_PENDING, "rollback_pending",
                       "ROLLBACK PENDING: a call cut short is undone at the next open; not damage");
    }
    // Nor is a file that does not begin with an ISAM magic (a CSV file, a dump): it is no
    // ISAM file at all, and "damaged" would send its user looking for a repair.
    {
        int fd = ::open(file.c_str(), O_RDONLY);
        ControlPage cp;
        std::string err;
        const bool ok = fd >= 0 && read_control_page(fd, cp, err);
        if (fd >= 0) ::close(fd);
        if (!ok && (cp.magic < ISMAGIC_OLD512 || cp.magic > ISMAGIC_1024)) {
            const std::string what = err.rfind("not an ISAM file: ", 0) == 0 ? err.substr(18) : err;
            return verdict(EXIT_FAIL, "not_isam", "NOT AN ISAM FILE: " + what);
        }
    }
    int in_use = open_in_area(file);
    if (in_use == 1)
        line("note: " + file + " is open in the shared area; changes not yet flushed are not seen");
    doc.boolean("open_in_shared_area", in_use == 1);

    kc::Report rep = kc::check_file(file);
    kc::FileImage img;
    std::string err;
    if (!kc::open_image(file, &img, &err)) return verdict(EXIT_FAIL, "damaged", "DAMAGED: " + err);
    JsonArray jkeys;
    for (size_t k = 0; k < rep.keys.size(); ++k) {
        line("key " + std::to_string(k) + ": " + std::to_string(rep.keys[k].items) + " items in " +
             std::to_string(rep.keys[k].pages) + " pages, depth " + std::to_string(rep.keys[k].depth));
        jkeys.add(JsonObject()
                      .num("key", long(k))
                      .num("items", rep.keys[k].items)
                      .num("pages", rep.keys[k].pages)
                      .num("depth", rep.keys[k].depth)
                      .done());
    }
    doc.raw("keys", jkeys.done()).num("free_pages", long(rep.free_chain.size()));
    line("free chain: " + std::to_string(rep.free_chain.size()) + " pages");
    if (rep.data_accounted) {
        line("data: " + std::to_string(rep.data_pages) + " pages, " + std::to_string(rep.records) + " records");
        doc.num("data_pages", rep.data_pages).num("records", rep.records);
    }
    if (!rep.ok) {
        jproblems.add(json_str(rep.error));
        return verdict(EXIT_FAIL, "damaged", "DAMAGED: " + rep.error);
    }

    if (img.nkeys < 1) return verdict(EXIT_OK, "sound", "sound (a file without keys holds no records)");
    // Cross-check: rebuild every alternate index from the records of key 0.
    std::vector<std::string> items0;
    if (kc::list_items(file, 0, &items0, &err) < 0) {
        jproblems.add(json_str(err));
        return verdict(EXIT_FAIL, "damaged", "DAMAGED: " + err);
    }
    const IS_KEY& k0 = img.keys[0];
    const bool keyopt = img.optbits & ISO_KEYOPT;
    std::vector<int> off(size_t(img.nkeys), 0);
    for (int i = 1; i < img.nkeys; ++i) off[size_t(i)] = off[size_t(i - 1)] + img.keys[size_t(i - 1)].k_keylen;
    const size_t front = size_t(img.minrec);   // the key fields of a record
    std::vector<std::vector<std::string>> expect(size_t(img.nkeys));
    std::vector<std::string> problems;
    auto problem = [&](const std::string& p) {
        if (problems.size() < 20) problems.push_back(p);
        else if (problems.size() == 20) problems.push_back("... further problems not shown");
    };
    Progress prog("check " + file, items0.size());
    uint64_t done = 0;
    std::string rec, data;
    for (const std::string& it : items0) {
        if (g_interrupted) return interrupted("check");
        ++done;
        prog.update(done, done);
        std::string key0 = it.substr(0, size_t(k0.k_keylen));
        uint32_t addr = w32(it.data() + k0.k_offset);
        std::string where = "record with key 0 = \"" + show(key0) + "\"";
        if (keyopt) {
            rec = key0;
            size_t rest = front - size_t(k0.k_keylen);
            if (rest > 0) {
                if (addr == KISAM_NOPAGE) { problem(where + ": no data, but the keys need " + std::to_string(rest) + " bytes"); continue; }
                if (!fetch_record(img, addr, rest, data, err)) { problem(where + ": " + err); continue; }
                rec += data;
            }
        } else {
            if (!fetch_record(img, addr, front, rec, err)) { problem(where + ": " + err); continue; }
            if (rec.compare(0, size_t(k0.k_keylen), key0) != 0) problem(where + ": the stored record begins with another key 0 value");
        }
        if (rec.size() < front) { problem(where + ": the record is shorter than its keys"); continue; }
        for (int i = 1; i < img.nkeys; ++i) {
            const IS_KEY& k = img.keys[size_t(i)];
            std::string item(size_t(k.k_itemlen), '\0');
            std::memcpy(item.data(), rec.data() + off[size_t(i)], size_t(k.k_keylen));
            std::memcpy(item.data() + k.k_offset, key0.data(), key0.size());
            expect[size_t(i)].push_back(compared(item, k));
        }
    }
    for (int i = 1; i < img.nkeys; ++i) {
        const IS_KEY& k = img.keys[size_t(i)];
        std::vector<std::string> have;
        if (kc::list_items(file, i, &have, &err) < 0) { problem("key " + std::to_string(i) + ": " + err); continue; }
        for (auto& h : have) h = compared(h, k);
        auto& want = expect[size_t(i)];
        std::sort(want.begin(), want.end());
        std::sort(have.begin(), have.end());
        auto describe = [&](const std::string& item) {
            // Appended piece by piece: g++ 12 at -O3 warns (wrongly, -Wrestrict) about a
            // literal + std::string here.
            std::string d(1, '"');
            d += show(item.substr(0, size_t(k.k_keylen)));
            d += "\" of key 0 = \"";
            d += show(item.substr(size_t(k.k_offset), size_t(k0.k_keylen)));
            d += '"';
            return d;
        };
        size_t x = 0, y = 0;
        while (x < want.size() || y < have.size()) {
            if (y == have.size() || (x < want.size() && want[x] < have[y])) {
                problem("key " + std::to_string(i) + ": no item for value " + describe(want[x++]));
            } else if (x == want.size() || have[y] < want[x]) {
                problem("key " + std::to_string(i) + ": item for value " + describe(have[y++]) + " matches no record");
            } else {
                ++x, ++y;
            }
        }
    }
    if (!problems.empty()) {
        for (const auto& p : problems) {
            line("problem: " + p);
            jproblems.add(json_str(p));
        }
        return verdict(EXIT_FAIL, "damaged", "DAMAGED: the indexes do not agree with the records of key 0");
    }
    line("cross-check: every index reaches exactly the " + std::to_string(items0.size()) + " records of key 0");
    doc.boolean("data_changed_mark", img.optbits & ISO_DIRTYMARK);
    if (img.optbits & ISO_DIRTYMARK) {
        if (!a.has("clear-mark"))
            return verdict(EXIT_OK, "sound", "sound, but its data-changed mark is set (clear it with --clear-mark)");
        if (in_use != 0)
            return fail("check", file + ": the mark is left set: the file is open in the shared area, or that cannot be told");
        int fd = ::open(file.c_str(), O_RDWR);
        const off_t at = img.disk_magic == ISMAGIC_OLD512 || img.disk_magic == ISMAGIC_OLD1024 ? 14 : 88;
        uint8_t bits = 0;
        bool ok = fd >= 0 && ::pread(fd, &bits, 1, at) == 1;
        if (ok) {
            bits = uint8_t(bits & ~ISO_DIRTYMARK);
            ok = ::pwrite(fd, &bits, 1, at) == 1 && ::fdatasync(fd) == 0;
        }
        int saved = errno;
        if (fd >= 0) ::close(fd);
        if (!ok) return fail("check", file + ": cannot clear the mark: " + std::strerror(saved));
        return verdict(EXIT_OK, "sound", "sound; data-changed mark cleared");
    }
    return verdict(EXIT_OK, "sound", "sound");
}

#else

int cmd_check(std::vector<std::string> words) {
    (void)words;
    (void)open_in_area;
    (void)unreadable;
    return fail("check", "this build of kisam has no structural checker");
}

#endif

}  // namespace kisam_tool
