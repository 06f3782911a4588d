// kisam stat: the figures of an installation's shared area, for monitoring.
//
// The area is read without taking any of its locks: the figures are counters that the
// engine itself keeps without strict exclusion, and a monitor must never make the
// programs it watches wait.  Chains are walked with a bound so that a torn read can
// only give a wrong figure, never a loop.
#include "json.h"
#include "tool.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace kisam_tool {
namespace {

const char* plural(long n, const char* one, const char* many) { return n == 1 ? one : many; }

std::string pct(uint64_t part, uint64_t whole) {
    if (whole == 0) return "-";
    char b[32];
    std::snprintf(b, sizeof b, "%.1f%%", 100.0 * double(part) / double(whole));
    return b;
}

// What both printers read of the area: its header, the segment's figures, and the
// buffers counted by state.
struct View {
    const struct isam_com* com;
    const char* base;
    struct shmid_ds ds;
    const IS_BUF* bufs;
    int nfree = 0, dirty = 0, fixed = 0;
};

View view_of(const void* area, int shmid) {
    View v;
    v.com = static_cast<const struct isam_com*>(area);
    v.base = reinterpret_cast<const char*>(v.com);
    std::memset(&v.ds, 0, sizeof v.ds);
    ::shmctl(shmid, IPC_STAT, &v.ds);
    const auto* com = v.com;
    v.bufs = reinterpret_cast<const IS_BUF*>(v.base + com->buf_base);
    for (int i = com->buf_free, guard = 0; i >= 0 && i < com->maxbufs && guard < com->maxbufs;
         i = v.bufs[i].bu_next, ++guard)
        ++v.nfree;
    for (int i = 0; i < com->maxbufs; ++i) {
        if (v.bufs[i].bu_id & BU_DIRTY) ++v.dirty;
        if (v.bufs[i].bu_id & BU_INUSE) ++v.fixed;
    }
    return v;
}

// The control page of file slot i; null when the slot is free or (damaged set) when its
// offset leads outside the heap.
const IS_FCP* file_at(const View& v, int i, bool& damaged) {
    const int32_t* pfo = reinterpret_cast<const int32_t*>(v.base + v.com->pfo_base);
    const int64_t heapsize = int64_t(v.com->comsize) - v.com->heap_base;
    damaged = false;
    if (pfo[i] == -1) return nullptr;
    if (pfo[i] < 0 || pfo[i] + int64_t(IS_FCP_SIZE(0)) > heapsize) {
        damaged = true;
        return nullptr;
    }
    return reinterpret_cast<const IS_FCP*>(v.base + v.com->heap_base + pfo[i]);
}

// The name given on the command line for the file of fcp, or "".
std::string name_of(const std::vector<std::pair<std::string, struct stat>>& named, const IS_FCP* fcp) {
    for (const auto& [path, st] : named)
        if (uint64_t(st.st_ino) == fcp->jd_ino && uint64_t(st.st_dev) == fcp->jd_dev) return path;
    return "";
}

// True when pid, attached, is another process that no longer exists.
bool exited(int32_t pid) { return pid != ::getpid() && ::kill(pid, 0) != 0 && errno == ESRCH; }

void print_once(const void* area, int shmid, const std::vector<std::pair<std::string, struct stat>>& named) {
    const View v = view_of(area, shmid);
    const auto* com = v.com;
    const struct shmid_ds& ds = v.ds;

    char when[64];
    std::time_t now = std::time(nullptr);
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
    std::printf("shared area at %s: id %d, %lld bytes, %lu %s attached\n", when, shmid,
                static_cast<long long>(com->comsize), static_cast<unsigned long>(ds.shm_nattch),
                plural(long(ds.shm_nattch), "process", "processes"));

    // Buffers.
    uint64_t hit = com->hit, mfree = com->missfree, mwrite = com->misswrite, mread = com->missread;
    uint64_t req = hit + mfree + mwrite + mread;
    std::printf("buffers   %d pages of 1024 bytes: %d free, %d in use now, %d dirty\n", com->maxbufs, v.nfree, v.fixed, v.dirty);
    std::printf("          requests %llu: hits %llu (%s), misses %llu\n", static_cast<unsigned long long>(req),
                static_cast<unsigned long long>(hit), pct(hit, req).c_str(),
                static_cast<unsigned long long>(mfree + mwrite + mread));
    std::printf("          misses by kind: %llu from a free or own buffer, %llu took another file's clean buffer, "
                "%llu had to write another file's dirty buffer first\n",
                static_cast<unsigned long long>(mfree), static_cast<unsigned long long>(mread),
                static_cast<unsigned long long>(mwrite));
    std::printf("          disk: %u pages read, %u pages written; %u one-second waits for a free buffer\n",
                com->sysread, com->syswrite, com->vr_nsleep);
    // Locks.
    std::printf("locks     internal: %u held now, highest %u, %u taken in all, %u found busy\n", com->cursyslocks,
                com->maxsyslocks, com->totsyslocks, com->syswaits);
    std::printf("          record: %u held now, highest %u, %u taken in all, %u waits\n", com->curusrlocks,
                com->maxusrlocks, com->totusrlocks, com->usrwaits);
    auto holder = [](uint32_t w) { return w == 0 ? std::string("free") : "held by pid " + std::to_string(w & 0x7fffffff); };
    std::printf("          area locks: open/close %s, heap %s, buffers %s\n", holder(com->opcl_lock).c_str(),
                holder(com->free_lock).c_str(), holder(com->buf_lock).c_str());

    // Files.
    const int32_t* pfo = reinterpret_cast<const int32_t*>(v.base + com->pfo_base);
    int nopen = 0;
    for (int i = 0; i < com->maxopen; ++i) nopen += pfo[i] != -1;
    std::printf("files     %d open of %d\n", nopen, com->maxopen);
    for (int i = 0; i < com->maxopen; ++i) {
        bool damaged;
        const IS_FCP* fcp = file_at(v, i, damaged);
        if (damaged) std::printf("  slot %-3d damaged entry %d\n", i, pfo[i]);
        if (!fcp) continue;
        int nb = 0;
        for (int b = fcp->jd_buf_hd, guard = 0; b >= 0 && b < com->maxbufs && guard < com->maxbufs;
             b = v.bufs[b].bu_next, ++guard)
            ++nb;
        dev_t dev = dev_t(fcp->jd_dev);
        std::string name = name_of(named, fcp);
        if (!name.empty()) name += ", ";
        std::printf("  slot %-3d %sdevice %u:%u inode %llu: %d keys, used by %d %s, %d buffers, control lock %s%s%s\n",
                    i, name.c_str(), major(dev), minor(dev), static_cast<unsigned long long>(fcp->jd_ino), fcp->is_nkeys,
                    fcp->is_usecnt, plural(fcp->is_usecnt, "process", "processes"), nb, holder(fcp->jd_fcplock).c_str(),
                    (fcp->is_optbits & ISO_DIRTYMARK) ? ", data-changed mark set" : "",
                    (fcp->is_optbits & ISO_SEQ) ? ", sequential" : "");
    }

    // What compacting the files named would give back, read from the files themselves.
    for (const auto& [path, st] : named)
        std::printf("  %s: compaction would give back %s\n", path.c_str(),
                    describe_compaction(estimate_compaction(path)).c_str());

    // Processes.
    const int32_t* pids = reinterpret_cast<const int32_t*>(v.base + com->pid_base);
    const uint32_t* needs = reinterpret_cast<const uint32_t*>(v.base + com->need_base);
    int nproc = 0, gone = 0;
    for (int i = 0; i < com->maxusers; ++i) nproc += pids[i] != 0;
    std::printf("processes %d attached of %d\n", nproc, com->maxusers);
    for (int i = 0; i < com->maxusers; ++i) {
        int32_t pid = pids[i];
        if (pid == 0) continue;
        std::string state;
        if (pid == ::getpid())
            state = " (this kisam stat)";
        else if (exited(pid)) {
            state = " NO LONGER EXISTS: it ended without giving its slot back (killed, or its files could not be closed)";
            ++gone;
        }
        if (needs[i] != 0) state += ", waiting for the lock at offset " + std::to_string(needs[i]);
        std::printf("  slot %-3d pid %d%s\n", i, pid, state.c_str());
    }
    if (gone)
        std::printf("          %d slot(s) held by processes that no longer exist; they are cleaned up as soon as "
                    "the locks they need are free\n",
                    gone);
    unsigned cleaned = 0, rolledback = 0;
    int recent[8];
    const int nrecent = kisam_recovery_stats(&cleaned, &rolledback, recent, 8);
    if (nrecent >= 0) {
        std::printf("recovery  %u dead %s cleaned up, %u %s rolled back", cleaned,
                    plural(long(cleaned), "process", "processes"), rolledback,
                    plural(long(rolledback), "call", "calls"));
        if (nrecent > 0) {
            std::printf("; last cleaned up:");
            for (int k = 0; k < nrecent; ++k) std::printf(" pid %d", recent[k]);
        }
        std::printf("\n");
    }
    struct kisam_recovery rec;
    if (kisam_last_recovery(&rec) == 0) {
        if (rec.logs > 0)
            std::printf("crash     at the start of this shared area %ld %s replayed: %ld %s redone, %ld %s "
                        "written, in %.1f ms\n",
                        rec.logs, plural(rec.logs, "log", "logs"), rec.calls, plural(rec.calls, "call", "calls"),
                        rec.pages, plural(rec.pages, "page", "pages"), double(rec.usec) / 1000.0);
        else
            std::printf("crash     nothing to replay at the start of this shared area\n");
    }
    std::fflush(stdout);
}

// The same figures as one JSON document (one line) per sample.
void print_json(const void* area, int shmid, const std::vector<std::pair<std::string, struct stat>>& named) {
    const View v = view_of(area, shmid);
    const auto* com = v.com;
    const struct shmid_ds& ds = v.ds;
    JsonObject doc;
    doc.num("time", static_cast<long long>(std::time(nullptr)))
        .num("shmid", shmid)
        .unum("segment_bytes", static_cast<unsigned long long>(ds.shm_segsz))
        .unum("attached", static_cast<unsigned long long>(ds.shm_nattch));
    doc.raw("buffers", JsonObject()
                           .num("total", com->maxbufs)
                           .num("free", v.nfree)
                           .num("in_use", v.fixed)
                           .num("dirty", v.dirty)
                           .unum("hits", com->hit)
                           .unum("misses_free", com->missfree)
                           .unum("misses_clean", com->missread)
                           .unum("misses_dirty", com->misswrite)
                           .unum("disk_reads", com->sysread)
                           .unum("disk_writes", com->syswrite)
                           .unum("waits", com->vr_nsleep)
                           .done());
    doc.raw("locks", JsonObject()
                         .unum("internal_held", com->cursyslocks)
                         .unum("internal_highest", com->maxsyslocks)
                         .unum("internal_taken", com->totsyslocks)
                         .unum("internal_busy", com->syswaits)
                         .unum("record_held", com->curusrlocks)
                         .unum("record_highest", com->maxusrlocks)
                         .unum("record_taken", com->totusrlocks)
                         .unum("record_waits", com->usrwaits)
                         .done());
    JsonArray files;
    for (int i = 0; i < com->maxopen; ++i) {
        bool damaged;
        const IS_FCP* fcp = file_at(v, i, damaged);
        if (!fcp) continue;
        JsonObject f;
        f.num("slot", i).unum("device", fcp->jd_dev).unum("inode", fcp->jd_ino);
        if (std::string name = name_of(named, fcp); !name.empty()) f.str("name", name);
        f.num("keys", fcp->is_nkeys)
            .num("users", fcp->is_usecnt)
            .boolean("data_changed_mark", fcp->is_optbits & ISO_DIRTYMARK);
        files.add(f.done());
    }
    doc.num("files_max", com->maxopen).raw("files", files.done());
    JsonArray compaction;
    for (const auto& [path, st] : named) {
        const CompactionEstimate e = estimate_compaction(path);
        JsonObject o;
        o.str("name", path);
        if (e.known) o.unum("compaction_estimate_bytes", e.bytes);
        else o.raw("compaction_estimate_bytes", "null");
        compaction.add(o.done());
    }
    doc.raw("named_files", compaction.done());
    const int32_t* pids = reinterpret_cast<const int32_t*>(v.base + com->pid_base);
    JsonArray procs;
    for (int i = 0; i < com->maxusers; ++i) {
        if (pids[i] == 0) continue;
        procs.add(JsonObject().num("slot", i).num("pid", pids[i]).boolean("exists", !exited(pids[i])).done());
    }
    doc.num("processes_max", com->maxusers).raw("processes", procs.done());
    unsigned cleaned = 0, rolledback = 0;
    if (kisam_recovery_stats(&cleaned, &rolledback, nullptr, 0) >= 0)
        doc.raw("recovery", JsonObject().unum("cleaned_up", cleaned).unum("rolled_back", rolledback).done());
    struct kisam_recovery rec;
    if (kisam_last_recovery(&rec) == 0)
        doc.raw("replay", JsonObject()
                              .num("logs", rec.logs)
                              .num("calls", rec.calls)
                              .num("pages", rec.pages)
                              .num("usec", rec.usec)
                              .num("when", rec.when)
                              .done());
    std::printf("%s\n", doc.done().c_str());
    std::fflush(stdout);
}

}  // namespace

int cmd_stat(std::vector<std::string> words) {
    Args a("stat", std::move(words));
    a.option("every");
    a.option("count");
    a.flag("json");
    if (!a.parse()) return EXIT_USAGE;
    const bool json = a.has("json");
    // Files named on the command line are recognised in the table by device and inode.
    std::vector<std::pair<std::string, struct stat>> named;
    for (const auto& p : a.pos()) {
        struct stat st;
        if (::stat(p.c_str(), &st) != 0) return fail("stat", p + ": " + std::strerror(errno));
        named.emplace_back(p, st);
    }
    long every = 0, count = a.has("every") ? -1 : 1;
    if (!a.get_int("every", 1, 86400, every) || !a.get_int("count", 1, INT32_MAX, count)) return EXIT_USAGE;

    std::vector<std::string> tried;
    std::string conf = find_config(&tried);
    if (conf.empty()) {
        std::fprintf(stderr, "kisam stat: no configuration file found; looked at:\n");
        for (const auto& t : tried) std::fprintf(stderr, "  %s\n", t.c_str());
        std::fprintf(stderr, "Create one with 'kisam config init PATH', then pass '--config PATH' or set KISCONFIG=PATH.\n");
        return EXIT_FAIL;
    }
    // Attaching would create the area; look first so that a monitor never does.
    long key = installation_key(conf);
    if (key == -1) return fail("stat", conf + ": " + std::strerror(errno));
    int id = ::shmget(key_t(key), 0, 0);
    if (id < 0 && errno == ENOENT && every > 0) {
        // A monitor started before the programs it watches waits for the area to appear.
        if (!json) std::printf("no shared area yet: waiting for a program to attach to the installation of %s\n", conf.c_str());
        // Nobody to wait for when the output takes no more ('| head -1'); main says why.
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            if (!g_write_errno) g_write_errno = errno ? errno : EIO;
            return EXIT_OK;
        }
        while (id < 0 && errno == ENOENT && !g_interrupted) {
            for (unsigned left = unsigned(every); left > 0 && !g_interrupted;) left = ::sleep(left);
            if (!g_interrupted) id = ::shmget(key_t(key), 0, 0);
        }
        if (g_interrupted) return interrupted("stat");
    }
    if (id < 0) {
        if (errno != ENOENT) return fail("stat", std::string("cannot look at the shared area: ") + std::strerror(errno));
        if (json)
            std::printf("%s\n", JsonObject().raw("shmid", "null").str("configuration", conf).done().c_str());
        else
            std::printf("no shared area: no program is attached to the installation of %s\n", conf.c_str());
        if (!json)
            for (const auto& [path, st] : named)
                std::printf("%s: compaction would give back %s\n", path.c_str(),
                            describe_compaction(estimate_compaction(path)).c_str());
        return EXIT_OK;
    }
    Session s("stat");
    const void* area = nullptr;
    void* ro = nullptr;
    if (s.attach(/*quiet=*/true)) {
        area = ZTKISAMGetComAddr();
    } else if (is_errno == ISE_INITERR && is_etop && is_estk[0].is_eproc == 0x22 && is_estk[0].is_euid == 5) {
        // The process table is full -- often of processes that died, which is just what
        // a monitor must be able to show.  Read the area without a slot.
        ro = ::shmat(id, nullptr, SHM_RDONLY);
        if (ro == reinterpret_cast<void*>(-1)) return fail("stat", std::string("cannot read the shared area: ") + std::strerror(errno));
        const auto* com = static_cast<const struct isam_com*>(ro);
        if (com->iscom_magicval != ISCOM_MAGIC || com->iscom_version != ISCOM_VERSION) {
            ::shmdt(ro);
            return fail("stat", "the shared area was made by another release of the library");
        }
        if (!json) std::printf("note: the process table is full; the area is read without taking a slot\n");
        area = ro;
    } else {
        s.report_attach_failure();
        return EXIT_FAIL;
    }
    for (long i = 0; count < 0 || i < count; ++i) {
        if (i > 0) {
            if (!json) std::printf("\n");
            // sleep() returns early when a signal arrives.
            for (unsigned left = unsigned(every); left > 0 && !g_interrupted;) left = ::sleep(left);
        }
        if (g_interrupted) break;
        if (!ro) {
            // Processes that died attached are cleaned up by whoever notices them.
            int pids[64];
            const int n = kisam_reap(pids, 64);
            for (int k = 0; k < n && k < 64 && !json; ++k)
                std::printf("cleaned up after pid %d, which died attached: its unfinished call rolled back, "
                            "its locks and slot released\n", pids[k]);
        }
        if (json)
            print_json(area, id, named);
        else
            print_once(area, id, named);
        // An output that takes no more (a closed pipe, a full disk) ends the watch; main
        // reports it unless the reader just went away.
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            if (!g_write_errno) g_write_errno = errno ? errno : EIO;
            break;
        }
    }
    if (ro) ::shmdt(ro);
    return g_interrupted ? EXIT_INTERRUPTED : EXIT_OK;
}

}  // namespace kisam_tool
