// kisam check: the structural checker's verdict on a file, and its data-changed mark.
//
// The structural checker (kcheck.h) proves each tree, the free chain and the data pages
// sound, and that the indexes agree with the records: every record reached through key 0
// has exactly one item in every other index, made of its own key value and its key 0
// value, and no index holds any other item.  So a sound verdict covers the indexes too;
// this command adds what a user needs around it: unreadable and foreign files told apart
// from damaged ones, a pending rollback applied first, and the mark cleared on request.
#include "json.h"
#include "tool.h"

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
    // A sound verdict on a file with keys has accounted for every record, and found every
    // index holding exactly the items of those records.
    line("cross-check: every index reaches exactly the " + std::to_string(rep.records) + " records of key 0");
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
