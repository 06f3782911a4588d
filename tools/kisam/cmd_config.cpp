// kisam config init / show: the binary configuration record of an installation.
#include "tool.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace kisam_tool {
namespace {

constexpr int kRecordSize = 52;   // bytes of the record written; readers accept 48 and up
constexpr int kMinRecord = 48;
constexpr int64_t kMaxHeap = 2147483647;

// The layout of the common area that a configuration leads to: the same arithmetic the
// library runs at start-up, so that a configuration can be judged before it is used.
struct Layout {
    int64_t bufbase, pfobase, pidbase, needbase, heapbase, heap, comsize;
    int64_t own;       // the library's own state, after comsize; -1 when the counts are not usable
    int64_t segment;   // the whole segment: comsize plus own
};

Layout layout_of(const struct is_config& c) {
    Layout l;
    l.bufbase = 156;
    l.pfobase = 156 + int64_t(c.co_maxbuf) * 1040;
    l.pidbase = l.pfobase + int64_t(c.co_maxopen) * 4;
    l.needbase = l.pidbase + int64_t(c.co_maxusers) * 4;
    int64_t end = l.pidbase + int64_t(c.co_maxusers) * 8;
    l.heapbase = (end + 3) / 4 * 4;
    int64_t s = end + ((int64_t(c.co_avgalts) * 16 + 1568) * c.co_maxopen) / 10 +
                (((int64_t(c.co_alenlock) + 16) * c.co_anumlock + 4) / 4) * c.co_maxopen * 4;
    s = (s + 8191) / 8192 * 8192;
    l.heap = (s - l.heapbase) / 4 * 4;
    l.comsize = l.heapbase + l.heap;
    l.own = kisam_area_bytes(c.co_maxopen, c.co_maxusers, c.co_maxbuf);
    l.segment = l.comsize + (l.own > 0 ? l.own : 0);
    return l;
}

// A kernel limit from /proc/sys/kernel, or -1 when it cannot be read.
int64_t kernel_limit(const char* name) {
    std::ifstream in(std::string("/proc/sys/kernel/") + name);
    unsigned long long v = 0;
    if (!(in >> v)) return -1;
    return v > 0x7fffffffffffffffULL ? INT64_MAX : int64_t(v);
}

// Why the kernel would refuse a segment of `size` bytes, or "".
std::string kernel_refusal(int64_t size) {
    int64_t shmmax = kernel_limit("shmmax");
    if (shmmax >= 0 && size > shmmax)
        return "the shared segment needs " + std::to_string(size) + " bytes, above the kernel's limit kernel.shmmax = " +
               std::to_string(shmmax) + " bytes";
    int64_t shmall = kernel_limit("shmall");
    long page = ::sysconf(_SC_PAGESIZE);
    if (shmall >= 0 && page > 0 && (size + page - 1) / page > shmall)
        return "the shared segment needs " + std::to_string((size + page - 1) / page) +
               " memory pages, above the kernel's limit kernel.shmall = " + std::to_string(shmall) + " pages";
    return "";
}

std::string kib(int64_t bytes) {
    char b[64];
    if (bytes >= 10 * 1024 * 1024)
        std::snprintf(b, sizeof b, "%.1f MiB", bytes / 1048576.0);
    else
        std::snprintf(b, sizeof b, "%.1f KiB", bytes / 1024.0);
    return b;
}

// Why the record read from a file of `n` bytes cannot be a configuration, or "".
std::string not_a_configuration(const struct is_config& c, ssize_t n) {
    if (n > 512) return std::to_string(n) + " bytes or more; a configuration record has 52";
    const std::pair<const char*, int> counts[] = {
        {"files", c.co_maxopen},         {"buffers", c.co_maxbuf},      {"users", c.co_maxusers},
        {"keys", c.co_maxnkeys},         {"avg-alt-keys", c.co_avgalts}, {"lock-key-len", c.co_alenlock},
        {"locks-per-file", c.co_anumlock}, {"file-buffers", c.co_maxfbuf}, {"files-per-process", c.co_maxufile}};
    for (const auto& [name, v] : counts)
        if (v < 0) return std::string("a negative count of ") + name + " (" + std::to_string(v) + ")";
    if (c.co_maxnkeys > 255) return "a count of keys of " + std::to_string(c.co_maxnkeys);
    if (c.co_bits & ~0x7u) {
        char b[64];
        std::snprintf(b, sizeof b, "unknown option bits 0x%x", c.co_bits);
        return b;
    }
    return "";
}

// Who may use an installation: the lock file's owner alone, one group, or every user of
// the host.  The library gives the shared segment and the journals the lock file's owner,
// group and mode, so this choice is the whole of it.
struct Access {
    enum Kind { kAsUmask, kUser, kGroup, kAll } kind = kAsUmask;
    gid_t gid = gid_t(-1);
    std::string group;  // as given
};

// Parses --access user|group:NAME|all; "" or why not.
std::string parse_access(const std::string& v, Access& acc) {
    if (v == "user") {
        acc.kind = Access::kUser;
    } else if (v == "all") {
        acc.kind = Access::kAll;
    } else if (v.rfind("group:", 0) == 0 && v.size() > 6) {
        acc.kind = Access::kGroup;
        acc.group = v.substr(6);
        if (struct group* g = ::getgrnam(acc.group.c_str())) {
            acc.gid = g->gr_gid;
        } else {
            long n = 0;
            if (!parse_long(acc.group, 0, 0x7fffffff, n)) return "no group \"" + acc.group + "\"";
            acc.gid = gid_t(n);
        }
    } else {
        return "--access takes user, group:NAME or all, not \"" + v + "\"";
    }
    return "";
}

// Gives the configuration file (readable by the installation's users) and the lock file
// (read-write for them) the chosen owner group and modes; "" or what failed.
std::string apply_access(const Access& acc, int conffd, int lockfd) {
    if (acc.kind == Access::kAsUmask) return "";
    if (acc.kind == Access::kGroup) {
        for (int fd : {conffd, lockfd})
            if (::fchown(fd, uid_t(-1), acc.gid) != 0)
                return "cannot give the files to group " + acc.group + ": " + std::strerror(errno) +
                       (errno == EPERM ? " (only its members and root may)" : "");
    }
    const mode_t conf = acc.kind == Access::kUser ? 0600 : acc.kind == Access::kGroup ? 0640 : 0644;
    const mode_t lock = acc.kind == Access::kUser ? 0600 : acc.kind == Access::kGroup ? 0660 : 0666;
    if (::fchmod(conffd, conf) != 0 || ::fchmod(lockfd, lock) != 0)
        return std::string("cannot set the files' modes: ") + std::strerror(errno);
    return "";
}

// What the lock file open as fd lets through: who may use the installation.
std::string describe_access(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return "unknown";
    char mode[16];
    std::snprintf(mode, sizeof mode, "%04o", unsigned(st.st_mode & 0777));
    if ((st.st_mode & 0006) == 0006) return std::string("every user of this host (lock file mode ") + mode + ")";
    std::string who;
    if ((st.st_mode & 0060) == 0060) {
        struct group* g = ::getgrgid(st.st_gid);
        who = "the group " + (g ? std::string(g->gr_name) : std::to_string(st.st_gid));
    } else {
        struct passwd* p = ::getpwuid(st.st_uid);
        who = "the user " + (p ? std::string(p->pw_name) : std::to_string(st.st_uid)) + " alone";
    }
    return who + " (lock file mode " + mode + ": the shared area and the journals follow it)";
}

int config_init(std::vector<std::string> words) {
    Args a("config init", std::move(words));
    for (auto o : {"files", "buffers", "users", "keys", "files-per-process", "file-buffers", "avg-alt-keys",
                   "lock-key-len", "locks-per-file", "access"})
        a.option(o);
    for (auto f : {"track-changes", "sync-on-mark", "clear-on-release", "durable", "force"}) a.flag(f);
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 1) return usage_error("config", "config init takes one PATH");
    const std::string path = a.pos()[0];

    long files = 64, buffers = 256, users = 32, keys = 25, perproc = 0, filebufs = -1, alts = 2, lklen = 16,
         nlocks = 8;
    if (!a.get_int("files", 1, 16383, files) || !a.get_int("buffers", 1, 32767, buffers) ||
        !a.get_int("users", 1, 32767, users) || !a.get_int("keys", 1, KISAM_MAXKEYS, keys) ||
        !a.get_int("files-per-process", 1, 32767, perproc) || !a.get_int("file-buffers", 1, 32767, filebufs) ||
        !a.get_int("avg-alt-keys", 0, KISAM_MAXKEYS - 1, alts) || !a.get_int("lock-key-len", 0, 32767, lklen) ||
        !a.get_int("locks-per-file", 0, 32767, nlocks))
        return EXIT_USAGE;
    if (perproc > files) return usage_error("config", "--files-per-process cannot exceed --files");
    if (filebufs < 0) filebufs = buffers;
    bool track = a.has("track-changes");
    if ((a.has("sync-on-mark") || a.has("clear-on-release")) && !track)
        return usage_error("config", "--sync-on-mark and --clear-on-release need --track-changes");

    Access acc;
    if (auto v = a.get("access"))
        if (std::string why = parse_access(*v, acc); !why.empty()) return usage_error("config", why);

    struct kisam_settings settings = KISAM_SETTINGS_DEFAULT;
    settings.files = int(files);
    settings.buffers = int(buffers);
    settings.users = int(users);
    settings.keys = int(keys);
    settings.files_per_process = int(perproc);
    settings.file_buffers = int(filebufs);
    settings.avg_alt_keys = int(alts);
    settings.lock_key_len = int(lklen);
    settings.locks_per_file = int(nlocks);
    if (track)
        settings.options = KISAM_TRACK_CHANGES | (a.has("sync-on-mark") ? KISAM_SYNC_ON_MARK : 0) |
                           (a.has("clear-on-release") ? KISAM_CLEAR_ON_RELEASE : 0);
    if (a.has("durable")) settings.options |= KISAM_DURABLE;

    // The record as the library will write it, judged first against the limits.
    struct is_config c;
    std::memset(&c, 0, sizeof c);
    c.co_maxopen = int16_t(files);
    c.co_maxbuf = int16_t(buffers);
    c.co_maxusers = int16_t(users);
    c.co_avgalts = int16_t(alts);
    c.co_alenlock = int16_t(lklen);
    c.co_anumlock = int16_t(nlocks);

    Layout l = layout_of(c);
    if (l.heap > kMaxHeap)
        return fail("config", "the common heap would be " + std::to_string(l.heap / 1024) +
                                  "K bytes, above the maximum of " + std::to_string(kMaxHeap / 1024) +
                                  "K bytes; lower --files or the heap sizing options");
    if (l.segment > INT32_MAX) return fail("config", "the shared segment would exceed 2 GiB");
    if (std::string why = kernel_refusal(l.segment); !why.empty())
        return fail("config", why + "; lower --buffers or --files, or raise the limit with sysctl");

    if (kisam_config_write(path.c_str(), &settings, a.has("force") ? KISAM_CONFIG_REPLACE : 0, 0) != 0) {
        if (errno == EEXIST) return fail("config", path + ": exists already (use --force to overwrite it)");
        return fail("config", "cannot write " + path + " and its lock file " + path + ".lk: " + std::strerror(errno));
    }
    std::string lk = path + ".lk";
    // The installation's access: never through a link, since the library gives what it
    // shares the lock file's owner and mode.
    int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    int lfd = ::open(lk.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 || lfd < 0) {
        const int e = errno;
        if (fd >= 0) ::close(fd);
        if (lfd >= 0) ::close(lfd);
        return fail("config", (fd < 0 ? path : lk) + ": " + std::strerror(e));
    }
    std::string why = apply_access(acc, fd, lfd);
    std::string who = describe_access(lfd);
    ::close(fd);
    ::close(lfd);
    if (!why.empty()) return fail("config", why);
    std::printf("wrote %s and its lock file %s (shared segment of %lld bytes)\n", path.c_str(), lk.c_str(),
                static_cast<long long>(l.segment));
    std::printf("for use by %s\n", who.c_str());
    // A running installation keeps the area it was started with.
    long key = installation_key(path);
    if (key != -1 && ::shmget(key_t(key), 0, 0) >= 0)
        std::printf("note: the shared area of this installation is in use; the new values take effect once "
                    "every program has detached\n");
    return EXIT_OK;
}

int config_show(std::vector<std::string> words) {
    Args a("config show", std::move(words));
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() > 1) return usage_error("config", "config show takes at most one PATH");
    std::string path;
    if (!a.pos().empty()) {
        path = a.pos()[0];
    } else {
        std::vector<std::string> tried;
        path = find_config(&tried);
        if (path.empty()) {
            std::fprintf(stderr, "kisam config: no configuration file found; looked at:\n");
            for (const auto& t : tried) std::fprintf(stderr, "  %s\n", t.c_str());
            std::fprintf(stderr, "Create one with 'kisam config init PATH'.\n");
            return EXIT_FAIL;
        }
    }
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return fail("config", path + ": " + std::strerror(errno));
    unsigned char buf[512] = {};
    ssize_t n = ::read(fd, buf, sizeof buf);
    ::close(fd);
    if (n < 0) return fail("config", path + ": " + std::strerror(errno));
    if (n < kMinRecord)
        return fail("config", "not a kisam configuration: " + path + " (" + std::to_string(n) +
                                  " bytes; a configuration record has at least 48)");
    struct is_config c;
    std::memcpy(&c, buf, sizeof c);
    if (n < kRecordSize) c.co_bits = 0;
    // A record that no writer of configurations produces -- text, another program's
    // binary file -- is refused rather than shown as figures that mean nothing.
    if (std::string why = not_a_configuration(c, n); !why.empty())
        return fail("config", "not a kisam configuration: " + path + " (" + why + ")");
    Layout l = layout_of(c);
    int ufile = c.co_maxufile ? c.co_maxufile : c.co_maxopen;

    std::string lk = path + ".lk";
    bool has_lk = ::access(lk.c_str(), F_OK) == 0;
    std::printf("configuration file      %s (%zd bytes)\n", path.c_str(), n);
    std::printf("lock file               %s\n",
                has_lk ? lk.c_str() : "none: the configuration file itself serves as lock file");
    std::printf("files open at once      %d\n", c.co_maxopen);
    std::printf("files per process       %d%s\n", ufile, c.co_maxufile ? "" : " (as files open at once)");
    std::printf("page buffers            %d (%s of pages)\n", c.co_maxbuf, kib(int64_t(c.co_maxbuf) * 1024).c_str());
    std::printf("buffers per file        %d before a file reuses its own\n", c.co_maxfbuf);
    std::printf("processes attached      %d at most\n", c.co_maxusers);
    std::printf("keys per file           %d at most\n", c.co_maxnkeys);
    std::printf("heap sizing             %d alternate keys per file, record locks: %d per file, keys of %d bytes\n",
                c.co_avgalts, c.co_anumlock, c.co_alenlock);
    std::string opts;
    if (c.co_bits & 0x1) {
        opts = "data-changed mark kept on disk";
        if (c.co_bits & 0x4)
            opts += ", cleared after every change";
        else if (c.co_bits & 0x2)
            opts += ", file synchronised when it changes";
    } else {
        opts = "none";
    }
    std::printf("options                 %s (bits 0x%x)\n", opts.c_str(), c.co_bits);
    // This library's own settings follow the record ("KXC1", then bits).
    uint32_t ext[2] = {0, 0};
    if (n >= kRecordSize + 8) std::memcpy(ext, buf + kRecordSize, sizeof ext);
    const bool durable = ext[0] == 0x3143584Bu && (ext[1] & 1);
    std::printf("changing calls          %s\n",
                durable ? "durable: each returns once its log record is on disk (KISAM_DURABLE=0 overrides)"
                        : "return before the disk has them: a machine crash may lose the last ones, never "
                          "half of one (KISAM_DURABLE=1 overrides)");
    std::printf("shared segment          %lld bytes (%s)\n", static_cast<long long>(l.segment), kib(l.segment).c_str());
    std::printf("  buffers               at %lld\n", static_cast<long long>(l.bufbase));
    std::printf("  shared-file table     at %lld\n", static_cast<long long>(l.pfobase));
    std::printf("  process table         at %lld\n", static_cast<long long>(l.pidbase));
    std::printf("  waiting table         at %lld\n", static_cast<long long>(l.needbase));
    std::printf("  heap                  at %lld, %lld bytes\n", static_cast<long long>(l.heapbase),
                static_cast<long long>(l.heap));
    if (l.own > 0)
        std::printf("  library state         at %lld, %lld bytes\n", static_cast<long long>(l.comsize),
                    static_cast<long long>(l.own));
    int rc = EXIT_OK;
    std::vector<std::string> problems;
    if (c.co_maxbuf < 1) problems.push_back("no page buffers: the library refuses it");
    if (c.co_maxopen < 1) problems.push_back("no files may be open");
    if (c.co_maxusers < 1) problems.push_back("no process may attach");
    if (c.co_maxnkeys > KISAM_MAXKEYS) problems.push_back("more than 25 keys per file cannot be stored");
    if (l.heap > kMaxHeap) problems.push_back("the common heap exceeds 2 GiB: the library refuses it");
    if (std::string why = kernel_refusal(l.segment); !why.empty()) problems.push_back(why);
    for (const auto& p : problems) {
        std::printf("problem                 %s\n", p.c_str());
        rc = EXIT_FAIL;
    }

    // The shared area in use, if any: it keeps the values it was made with.
    long key = installation_key(path);
    int id = key == -1 ? -1 : ::shmget(key_t(key), 0, 0);
    if (id < 0) {
        std::printf("shared area             not in use\n");
    } else {
        struct shmid_ds ds;
        std::memset(&ds, 0, sizeof ds);
        ::shmctl(id, IPC_STAT, &ds);
        std::printf("shared area             in use: id %d, %zu bytes, %lu attached\n", id,
                    static_cast<size_t>(ds.shm_segsz), static_cast<unsigned long>(ds.shm_nattch));
        if (int64_t(ds.shm_segsz) != l.segment)
            std::printf("                        it was made with another configuration; changes take effect "
                        "once every program has detached\n");
    }
    return rc;
}

}  // namespace

int cmd_config(std::vector<std::string> args) {
    if (args.empty()) return usage_error("config", "missing 'init' or 'show'");
    std::string sub = args.front();
    args.erase(args.begin());
    if (sub == "init") return config_init(std::move(args));
    if (sub == "show") return config_show(std::move(args));
    return usage_error("config", "unknown subcommand \"" + sub + "\" (init or show)");
}

}  // namespace kisam_tool
