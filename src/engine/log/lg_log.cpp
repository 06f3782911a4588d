// The redo log (rules in lg.h and README.log.md).
//
// File layout ("<lock file>.w<u>", machine byte order):
//   0     lg_head, the header of the generation in use, in one of two 512-byte copies
//         (generation g at (g % 2) * 512): a header torn by a crash leaves the other
//   1024  records, back to back: lg_rec, then lr_nent entries (lg_ent and its bytes,
//         rounded up to 8); the record at LSN l lies at 1024 + (l - lh_start)
// A checkpoint starts a new generation at the LSN where the old one ended; records of
// an older generation that remain past the new ones are never valid again (their
// generation and their LSN both disagree).
#include "lg.h"

#include "fcp.h"
#include "is_access.h"
#include "is_error.h"
#include "is_live.h"
#include "is_lock.h"
#include "isx_area.h"
#include "jn.h"
#include "os.h"
#include "v_pool.h"

#include <kisam/kisam.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <new>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

bool lg_durable = false;

namespace {

constexpr uint32_t kHeadMagic = 0x3148574Bu;  // "KWH1"
constexpr uint32_t kRecMagic = 0x3152574Bu;   // "KWR1"
constexpr uint32_t kVersion = 1;
constexpr off_t kFirst = 1024;
constexpr uint32_t kMaxRecord = 64u << 20;
constexpr uint32_t kConfMagic = 0x3143584Bu;  // "KXC1": the configuration's extension
// A log past this many bytes is checkpointed by the next call that begins.
constexpr uint64_t kDefaultLimit = uint64_t{64} << 20;

struct lg_head {
    uint32_t lh_magic;            //   0-3
    uint32_t lh_version;          //   4-7
    uint32_t lh_gen;              //   8-11  generation; the valid copy with the higher wins
    uint32_t lh_pad;              //  12-15
    uint64_t lh_start;            //  16-23  LSN of the first record
    uint64_t lh_dev;              //  24-31  the file the records belong to
    uint64_t lh_ino;              //  32-39
    char lh_path[ISX_PATHLEN];    //  40-295 its absolute path
    uint8_t lh_spare[208];        // 296-503
    uint64_t lh_sum;              // 504-511 checksum of bytes 0-503
};
KISAM_RECORD(lg_head, 512);
KISAM_AT(lg_head, lh_gen, 8); KISAM_AT(lg_head, lh_start, 16); KISAM_AT(lg_head, lh_path, 40);
KISAM_AT(lg_head, lh_sum, 504);

struct lg_rec {
    uint32_t lr_magic;            //  0-3
    uint32_t lr_len;              //  4-7   bytes of the whole record (a multiple of 8)
    uint64_t lr_lsn;              //  8-15  its position
    uint64_t lr_sum;              // 16-23  checksum of the record with this field 0
    uint32_t lr_gen;              // 24-27  generation of the log it was written in
    uint16_t lr_nent;             // 28-29  entries
    uint16_t lr_flags;            // 30-31
};
KISAM_RECORD(lg_rec, 32);
KISAM_AT(lg_rec, lr_len, 4); KISAM_AT(lg_rec, lr_lsn, 8); KISAM_AT(lg_rec, lr_sum, 16);
KISAM_AT(lg_rec, lr_gen, 24); KISAM_AT(lg_rec, lr_nent, 28);

enum : uint32_t { kPageEntry = 0, kControlEntry = 1, kBeforeEntry = 2 };
// lr_flags: the record holds pages a running call had to let go of before its end
// (pages whose before-images it carries too); the call's final record follows it.
enum : uint16_t { kUnitOpen = 1 };

struct lg_ent {
    uint64_t le_off;              //  0-7   file offset of the page (control page: 0)
    uint16_t le_at;               //  8-9   first byte of the page the entry holds
    uint16_t le_len;              // 10-11  bytes it holds (a whole page: 0 and 1024)
    uint32_t le_kind;             // 12-15  kPageEntry, kControlEntry
};
KISAM_RECORD(lg_ent, 16);

inline size_t round8(size_t n) { return (n + 7) & ~size_t{7}; }

// A 64-bit checksum in the manner of xxHash64: four lanes over 32-byte blocks.  It only
// has to tell a record that was written whole from one that was torn, lost in part or
// left over from an older generation; it is not a defence against forgery (the log is
// the installation's own file, like the lock file).
constexpr uint64_t P1 = 11400714785074694791ull, P2 = 14029467366897019727ull, P3 = 1609587929392839161ull,
                   P4 = 9650029242287828579ull, P5 = 2870177450012600261ull;
inline uint64_t rotl(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }
inline uint64_t round1(uint64_t acc, uint64_t in) { return rotl(acc + in * P2, 31) * P1; }
inline uint64_t merge(uint64_t acc, uint64_t v) { return (acc ^ round1(0, v)) * P1 + P4; }
uint64_t checksum(const void* data, size_t len) noexcept {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    const unsigned char* end = p + len;
    uint64_t h;
    if (len >= 32) {
        uint64_t v1 = P1 + P2, v2 = P2, v3 = 0, v4 = 0 - P1;
        const unsigned char* limit = end - 32;
        do {
            v1 = round1(v1, kisam::load_at<uint64_t>(p));
            v2 = round1(v2, kisam::load_at<uint64_t>(p + 8));
            v3 = round1(v3, kisam::load_at<uint64_t>(p + 16));
            v4 = round1(v4, kisam::load_at<uint64_t>(p + 24));
            p += 32;
        } while (p <= limit);
        h = rotl(v1, 1) + rotl(v2, 7) + rotl(v3, 12) + rotl(v4, 18);
        h = merge(merge(merge(merge(h, v1), v2), v3), v4);
    } else {
        h = P5;
    }
    h += len;
    for (; p + 8 <= end; p += 8) h = rotl(h ^ round1(0, kisam::load_at<uint64_t>(p)), 27) * P1 + P4;
    for (; p < end; ++p) h = rotl(h ^ (*p * P5), 11) * P1;
    h ^= h >> 33;
    h *= P2;
    h ^= h >> 29;
    h *= P3;
    h ^= h >> 32;
    return h;
}

char lbase[PATH_MAX];
uint64_t limit_bytes = kDefaultLimit;

void log_name(char* out, size_t n, int u) { std::snprintf(out, n, "%s.w%d", lbase, u); }

// This process's descriptors: of each slot's log, and of files it reopened to write
// pages back (with the identity they were opened for).
struct WriteFd {
    int fd;
    uint64_t dev, ino;
};
struct Fds {
    const void* com = nullptr;  // the segment they were opened for
    int pid = 0;
    int n = 0;
    int* log = nullptr;
    off_t* log_size = nullptr;  // how far each log is known to be written (zeros or records)
    WriteFd* w = nullptr;
};
Fds fds;

void close_fds() noexcept {
    for (int u = 0; u < fds.n; ++u) {
        if (fds.log && fds.log[u] >= 0 && fds.pid == is_pid) kisam::os_close(fds.log[u]);
        if (fds.w && fds.w[u].fd >= 0 && fds.pid == is_pid) kisam::os_close(fds.w[u].fd);
    }
    std::free(fds.log);
    std::free(fds.log_size);
    std::free(fds.w);
    fds = Fds();
}

bool fds_ready() noexcept {
    if (fds.com == isam_com && fds.n == isam_com->maxopen) return true;
    close_fds();
    const int n = isam_com->maxopen;
    fds.log = static_cast<int*>(std::malloc(sizeof(int) * static_cast<size_t>(n)));
    fds.w = static_cast<WriteFd*>(std::malloc(sizeof(WriteFd) * static_cast<size_t>(n)));
    fds.log_size = static_cast<off_t*>(std::calloc(static_cast<size_t>(n), sizeof(off_t)));
    if (!fds.log || !fds.w || !fds.log_size) {
        close_fds();
        return false;
    }
    for (int u = 0; u < n; ++u) {
        fds.log[u] = -1;
        fds.w[u] = {-1, 0, 0};
    }
    fds.n = n;
    fds.com = isam_com;
    fds.pid = is_pid;
    return true;
}

int fail(int code, int detail) noexcept { return is_raise(code, PROC(P_ISFLUSH, detail)); }

// The log is written ahead of its records in zeros, kExtend at a time: a record then
// overwrites blocks the file already has, and the sync of a durable call carries no
// change of the file's size or block map (an append that grows the file costs the file
// system a journal commit of its own at every sync).
constexpr off_t kExtend = off_t{1} << 20;
int extend(int u, int fd, off_t need) noexcept;

// The log of slot u, opened (and created) on first use.
int log_fd(int u) noexcept {
    if (!fds_ready()) {
        errno = ENOMEM;
        return -1;
    }
    if (fds.log[u] >= 0) return fds.log[u];
    char name[PATH_MAX + 16];
    log_name(name, sizeof name, u);
    // The log carries page images of every file of the installation: it gets the lock
    // file's owner, group and mode, and one planted by someone else is refused.
    fds.log[u] = is_open_beside(lbase, name, O_RDWR | O_CREAT);
    return fds.log[u];
}

inline isx_file* xfile(int u) { return kisam::isx_file_of(u); }
inline std::atomic_ref<uint64_t> at(uint64_t& v) { return std::atomic_ref<uint64_t>(v); }

int extend(int u, int fd, off_t need) noexcept {
    if (need <= fds.log_size[u]) return 0;
    struct stat st;
    if (kisam::os.fstat(fd, &st) != 0) return -1;
    off_t size = st.st_size;
    if (need <= size) {
        fds.log_size[u] = size;
        return 0;
    }
    static const char zeros[65536] = {};
    const off_t to = (need + kExtend - 1) / kExtend * kExtend;
    for (off_t o = size; o < to;) {
        const size_t n = static_cast<size_t>(to - o < off_t(sizeof zeros) ? to - o : off_t(sizeof zeros));
        if (kisam::os_pwrite_full(fd, zeros, n, o) != 0) return -1;
        o += static_cast<off_t>(n);
    }
    fds.log_size[u] = to;
    return 0;
}

// The valid header of the log open on fd with the higher generation; false when neither
// copy is valid (a new or foreign file).
bool read_head(int fd, lg_head* out) noexcept {
    lg_head h[2];
    const ssize_t n = kisam::os_pread_full(fd, h, sizeof h, 0);
    if (n < 0) return false;
    bool found = false;
    for (int i = 0; i < 2; ++i) {
        if (static_cast<size_t>(n) < (i + 1) * sizeof(lg_head)) break;
        if (h[i].lh_magic != kHeadMagic || h[i].lh_version != kVersion ||
            h[i].lh_sum != checksum(&h[i], offsetof(lg_head, lh_sum)) || (h[i].lh_gen & 1) != static_cast<uint32_t>(i))
            continue;
        if (!found || h[i].lh_gen > out->lh_gen) *out = h[i];
        found = true;
    }
    if (found) out->lh_path[ISX_PATHLEN - 1] = '\0';
    return found;
}

// Writes the header of generation h->lh_gen into its copy; with `sync`, to disk.
int write_head(int fd, lg_head* h, bool sync) noexcept {
    h->lh_magic = kHeadMagic;
    h->lh_version = kVersion;
    h->lh_sum = checksum(h, offsetof(lg_head, lh_sum));
    if (kisam::os_pwrite_full(fd, h, sizeof *h, static_cast<off_t>(h->lh_gen & 1) * 512) != 0) return -1;
    return sync ? kisam::os_fdatasync(fd) : 0;
}

// A growable buffer of this process.
struct Buf {
    char* p = nullptr;
    size_t cap = 0;
    bool fit(size_t n) noexcept {
        if (n <= cap) return true;
        size_t c = cap ? cap : 16384;
        while (c < n) c *= 2;
        char* q = static_cast<char*>(std::realloc(p, c));
        if (!q) return false;
        p = q;
        cap = c;
        return true;
    }
};
Buf rec_buf;

// Reads the record at lsn of the log on fd (generation gen, first record at start) into
// b; its length, or 0 when there is no valid record there.
uint32_t read_record(int fd, uint32_t gen, uint64_t start, uint64_t lsn, Buf& b) noexcept {
    lg_rec r;
    const off_t off = kFirst + static_cast<off_t>(lsn - start);
    if (kisam::os_pread_full(fd, &r, sizeof r, off) != static_cast<ssize_t>(sizeof r)) return 0;
    if (r.lr_magic != kRecMagic || r.lr_gen != gen || r.lr_lsn != lsn || r.lr_len < sizeof r ||
        r.lr_len > kMaxRecord || (r.lr_len & 7) != 0)
        return 0;
    if (!b.fit(r.lr_len)) return 0;
    if (kisam::os_pread_full(fd, b.p, r.lr_len, off) != static_cast<ssize_t>(r.lr_len)) return 0;
    lg_rec* h = reinterpret_cast<lg_rec*>(b.p);
    const uint64_t sum = h->lr_sum;
    h->lr_sum = 0;
    const bool ok = checksum(b.p, r.lr_len) == sum;
    h->lr_sum = sum;
    return ok ? r.lr_len : 0;
}

struct Replayed {
    uint32_t units = 0, pages = 0;
};

// Replays the records of the log on lfd (header h) into its file, then starts the log's
// next generation.  The file must not be in use.  0; -1 (errno) when the file could not
// be brought up to date (the log keeps its records).  A file that is gone, or is another
// file now, cannot take them: they are dropped.
int replay(int lfd, lg_head h, Replayed* out) noexcept {
    Buf b;
    uint64_t lsn = h.lh_start;
    uint32_t units = 0;
    uint32_t len = read_record(lfd, h.lh_gen, h.lh_start, lsn, b);
    if (len == 0) {
        std::free(b.p);
        return 0;  // nothing to replay
    }
    int dfd = kisam::os_open(h.lh_path, O_RDWR | O_CLOEXEC);
    struct stat st;
    bool same = dfd >= 0 && kisam::os.fstat(dfd, &st) == 0 && static_cast<uint64_t>(st.st_dev) == h.lh_dev &&
                static_cast<uint64_t>(st.st_ino) == h.lh_ino;
    if (!same) {
        const int e = dfd >= 0 ? ESTALE : errno;
        if (dfd >= 0) kisam::os_close(dfd);
        std::free(b.p);
        if (e != ENOENT && e != ESTALE) {
            errno = e;
            return -1;
        }
        // Gone: the records can go too.
        h.lh_gen++;
        h.lh_start = lsn;
        return write_head(lfd, &h, true);
    }
    int rc = 0;
    try {
        // Each page's content as the records leave it: entries that hold part of a page
        // apply to what the earlier records (or, failing those, the file) gave it.
        std::unordered_map<uint64_t, IS_DATA> pages;
        unsigned char fcp[kisam::kFcpImage];
        bool have_fcp = false;
        // Pages a call let go of before its end, in order: undone when the log ends
        // before the call's final record (their before-images; none for a page the call
        // added past the file's old end, which is then no page of the file).
        std::vector<std::pair<uint64_t, IS_DATA>> undo;
        std::vector<uint64_t> added;
        while (len != 0) {
            const lg_rec* r = reinterpret_cast<const lg_rec*>(b.p);
            const bool open = r->lr_flags & kUnitOpen;
            if (!open) {
                undo.clear();
                added.clear();
            }
            size_t at = sizeof(lg_rec);
            for (uint32_t i = 0; i < r->lr_nent && rc == 0; ++i) {
                if (at + sizeof(lg_ent) > len) {
                    rc = -1;
                    break;
                }
                lg_ent e;
                std::memcpy(&e, b.p + at, sizeof e);
                at += sizeof e;
                if (at + e.le_len > len) {
                    rc = -1;
                    break;
                }
                if (e.le_kind == kBeforeEntry && e.le_len == kisam::kPage) {
                    IS_DATA d;
                    std::memcpy(d.c, b.p + at, kisam::kPage);
                    undo.emplace_back(e.le_off, d);
                    if (!added.empty() && added.back() == e.le_off) added.pop_back();
                } else if (e.le_kind == kControlEntry && e.le_at + e.le_len <= kisam::kFcpImage) {
                    // A part applies to the whole image an earlier record (or the file)
                    // gave.
                    if (!have_fcp && e.le_len != kisam::kFcpImage &&
                        kisam::os_pread_full(dfd, fcp, sizeof fcp, 0) != static_cast<ssize_t>(sizeof fcp)) {
                        rc = -1;
                        break;
                    }
                    std::memcpy(fcp + e.le_at, b.p + at, e.le_len);
                    have_fcp = true;
                } else if (e.le_kind == kPageEntry && e.le_at + e.le_len <= kisam::kPage) {
                    auto it = pages.find(e.le_off);
                    if (it == pages.end()) {
                        IS_DATA d;
                        std::memset(&d, 0, sizeof d);
                        if (e.le_len != kisam::kPage &&
                            kisam::os_pread_full(dfd, d.c, kisam::kPage, static_cast<off_t>(e.le_off)) < 0) {
                            rc = -1;
                            break;
                        }
                        it = pages.emplace(e.le_off, d).first;
                    }
                    std::memcpy(it->second.c + e.le_at, b.p + at, e.le_len);
                    if (open) added.push_back(e.le_off);  // dropped again if a before-image follows
                }
                at += round8(e.le_len);
            }
            if (rc != 0) break;
            ++units;
            lsn += len;
            len = read_record(lfd, h.lh_gen, h.lh_start, lsn, b);
        }
        // The log ended inside a call: what it let go of goes back as it was.
        for (auto it = undo.rbegin(); it != undo.rend(); ++it) pages[it->first] = it->second;
        for (uint64_t off : added) pages.erase(off);
        if (rc == 0) {
            for (const auto& [off, d] : pages)
                if (kisam::os_pwrite_full(dfd, d.c, kisam::kPage, static_cast<off_t>(off)) != 0) rc = -1;
            if (have_fcp && rc == 0) {
                // Everything the file went through is in it now: its data-changed mark
                // (if kept) can go.
                const size_t ob = offsetof(IS_FCP, is_optbits) - IS_FCP_JDSIZE;
                fcp[ob] = static_cast<unsigned char>(fcp[ob] & ~(ISO_DIRTYMARK | ISO_CHANGED));
                if (kisam::os_pwrite_full(dfd, fcp, sizeof fcp, 0) != 0) rc = -1;
            }
            if (rc == 0) rc = kisam::os_fdatasync(dfd);
            if (out) {
                out->units += units;
                out->pages += static_cast<uint32_t>(pages.size());
            }
        }
    } catch (...) {
        errno = ENOMEM;
        rc = -1;
    }
    const int e = errno;
    kisam::os_close(dfd);
    std::free(b.p);
    if (rc != 0) {
        errno = e;
        return -1;
    }
    h.lh_gen++;
    h.lh_start = lsn;
    return write_head(lfd, &h, true);
}

// Whether the log on fd (header h) holds at least one valid record.
bool has_records(int fd, const lg_head& h) noexcept {
    lg_rec r;
    const off_t off = kFirst;
    if (kisam::os_pread_full(fd, &r, sizeof r, off) != static_cast<ssize_t>(sizeof r)) return false;
    if (r.lr_magic != kRecMagic || r.lr_gen != h.lh_gen || r.lr_lsn != h.lh_start) return false;
    Buf b;
    const bool ok = read_record(fd, h.lh_gen, h.lh_start, h.lh_start, b) != 0;
    std::free(b.p);
    return ok;
}

// Calls fn(slot, fd) for every log file of the installation (fd closed afterwards).
template <class Fn>
void each_log(Fn fn) noexcept {
    is_each_beside(lbase, ".w", BU_FILEMASK, [](int slot, void* arg) {
        char name[PATH_MAX + 16];
        log_name(name, sizeof name, slot);
        const int fd = is_open_beside(lbase, name, O_RDWR);
        if (fd < 0) return;
        (*static_cast<Fn*>(arg))(slot, fd);
        kisam::os_close(fd);
    }, &fn);
}

}  // namespace

void lg_setbase(const char* lockname) noexcept {
    std::snprintf(lbase, sizeof lbase, "%s", lockname ? lockname : "");
    limit_bytes = kDefaultLimit;
    if (const char* v = std::getenv("KISAM_LOG_LIMIT")) {
        char* end = nullptr;
        const unsigned long long n = std::strtoull(v, &end, 10);
        if (end != v && *end == '\0' && n >= 4096) limit_bytes = n;
    }
}

void lg_close(void) noexcept { close_fds(); }

void lg_settings(const unsigned char* ext, size_t n) noexcept {
    lg_durable = false;
    if (ext && n >= 8 && kisam::load_at<uint32_t>(ext) == kConfMagic)
        lg_durable = (kisam::load_at<uint32_t>(ext + 4) & 1) != 0;
    if (const char* v = std::getenv("KISAM_DURABLE")) {
        if (std::strcmp(v, "1") == 0 || std::strcmp(v, "yes") == 0) lg_durable = true;
        if (std::strcmp(v, "0") == 0 || std::strcmp(v, "no") == 0) lg_durable = false;
    }
}

int lg_prepare(int u, uint64_t dev, uint64_t ino) noexcept {
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    lg_head h;
    // What the slot's previous file left in its log goes into that file first.
    if (read_head(fd, &h) && replay(fd, h, nullptr) != 0) return fail(ISE_FLWT, 0x27);
    // A log that a last close could not bring into its file may hold calls of this one.
    if (isx_area->xh_leftover) {
        bool any = false, failed = false;
        each_log([&](int k, int lfd) {
            lg_head o;
            if (k == u || !read_head(lfd, &o) || !has_records(lfd, o)) return;
            any = true;
            if (o.lh_dev != dev || o.lh_ino != ino) return;
            if (replay(lfd, o, nullptr) != 0) failed = true;
        });
        if (failed) return fail(ISE_FLWT, 0x27);
        if (!any) isx_area->xh_leftover = 0;
    }
    return 0;
}

namespace {
// The buffers a commit builds its record in, made before any call needs them.
bool call_buffers_ready() noexcept;
}  // namespace

int lg_enter(int u, IS_FCP* fcp) noexcept {
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    // A call may be left part way (a signal handler that jumps out of it): it must not be
    // inside the allocator then, so a commit finds its buffers made.
    if (!call_buffers_ready()) return fail(ISE_FLWT, 0x28);
    // The log's first stretch of zeros is written now rather than by the first call.
    if (extend(u, fd, kExtend) != 0) return fail(ISE_FLWT, 0x27);
    lg_head h;
    std::memset(&h, 0, sizeof h);
    const bool valid = read_head(fd, &h);
    lg_head n;
    std::memset(&n, 0, sizeof n);
    n.lh_gen = valid ? h.lh_gen + 1 : 2;
    n.lh_start = valid ? h.lh_start : 0;
    n.lh_dev = fcp->jd_dev;
    n.lh_ino = fcp->jd_ino;
    std::snprintf(n.lh_path, sizeof n.lh_path, "%s", kisam::isx_path(u));
    // Not synced here: records carry their generation, so those of this file never count
    // under the header of the slot's previous file, and the first sync of the log (before
    // any page of the file is written) takes the header along.
    if (write_head(fd, &n, false) != 0) return fail(ISE_FLWT, 0x27);
    isx_file* x = xfile(u);
    x->xf_log_gen = n.lh_gen;
    at(x->xf_log_start).store(n.lh_start);
    at(x->xf_log_end).store(n.lh_start);
    at(x->xf_log_synced).store(n.lh_start);
    std::memset(kisam::isx_sync_of(u), 0, sizeof(isx_sync));
    if (fds.w[u].fd >= 0) {
        kisam::os_close(fds.w[u].fd);
        fds.w[u].fd = -1;
    }
    return 0;
}

namespace {

// One page of a record being built: its number, its content, and the content the page
// had when the running unit began (null when there is none to compare with or to keep).
struct PageArg {
    PAGE pno;
    const IS_DATA* data;
    const IS_DATA* before;
    int slot;  // -1: not a slot of the pool (no delta: its log mark is unknown)
};

// Builds and appends one record of file u: the pages (whole, or the bytes that changed
// when rule 3 allows), with `befores` also the before-images, and with `fcp_too` the
// control page.  0 with *end_lsn set, or -1 with the error raised (nothing appended).
int append(IS_FCP* fcp, int u, const PageArg* pages, int n, uint16_t flags, bool befores, bool fcp_too,
           uint64_t* end_lsn) noexcept {
    isx_file* x = xfile(u);
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    const size_t most = sizeof(lg_rec) + static_cast<size_t>(n) * 2 * (sizeof(lg_ent) + kisam::kPage) +
                        sizeof(lg_ent) + kisam::kFcpImage;
    if (!rec_buf.fit(most)) return fail(ISE_FLWT, 0x28);
    char* p = rec_buf.p + sizeof(lg_rec);
    uint32_t nent = 0;
    const uint64_t start = at(x->xf_log_start).load(std::memory_order_relaxed);
    auto put = [&](uint64_t off, uint32_t kind, int lo, int hi, const char* bytes) {
        lg_ent e{off, static_cast<uint16_t>(lo), static_cast<uint16_t>(hi - lo), kind};
        std::memcpy(p, &e, sizeof e);
        p += sizeof e;
        std::memcpy(p, bytes + lo, e.le_len);
        const size_t r = round8(e.le_len);
        if (r != e.le_len) std::memset(p + e.le_len, 0, r - e.le_len);
        p += r;
        ++nent;
    };
    for (int i = 0; i < n; ++i) {
        const PageArg& a = pages[i];
        const uint64_t off = static_cast<uint64_t>(v_fileoffset(fcp, a.pno));
        int lo = 0, hi = kisam::kPage;
        const uint64_t mark = a.slot >= 0 ? *kisam::isx_lsn(a.slot) : ISX_LSN_FULL;
        // A page logged whole in this generation, and held by this slot since, needs only
        // the bytes the call changed (rule 3).
        if (!befores && a.before && !(mark & ISX_LSN_FULL) && mark > start) {
            while (lo < hi && a.before->c[lo] == a.data->c[lo]) ++lo;
            while (hi > lo && a.before->c[hi - 1] == a.data->c[hi - 1]) --hi;
            if (lo == hi) continue;  // changed back as it was
        }
        put(off, kPageEntry, lo, hi, a.data->c);
        if (befores && a.before) put(off, kBeforeEntry, 0, kisam::kPage, a.before->c);
    }
    if (fcp_too && !(fcp->is_optbits & ISO_SEQ)) {
        unsigned char img[kisam::kFcpImage];
        const size_t len = static_cast<size_t>(IS_FCP_SIZE(fcp->is_nkeys) - IS_FCP_JDSIZE);
        const size_t take = len < sizeof img ? len : sizeof img;
        std::memcpy(img, &fcp->is_magic, take);
        std::memset(img + take, 0, sizeof img - take);
        const size_t ob = offsetof(IS_FCP, is_optbits) - IS_FCP_JDSIZE;
        img[ob] = static_cast<unsigned char>(img[ob] & ~ISO_CHANGED);
        // Whole once per generation; after that the bytes that changed since the unit
        // began (the control page of a unit's start is the one the log last left).
        int lo = 0, hi = kisam::kFcpImage;
        unsigned char was[kisam::kFcpImage];
        if (x->xf_log_fcpgen == x->xf_log_gen && jn_unit_fcp(fcp, was)) {
            was[ob] = static_cast<unsigned char>(was[ob] & ~ISO_CHANGED);
            while (lo < hi && was[lo] == img[lo]) ++lo;
            while (hi > lo && was[hi - 1] == img[hi - 1]) --hi;
        }
        if (lo < hi) put(0, kControlEntry, lo, hi, reinterpret_cast<const char*>(img));
    }
    lg_rec* r = reinterpret_cast<lg_rec*>(rec_buf.p);
    const uint64_t lsn = at(x->xf_log_end).load(std::memory_order_relaxed);
    r->lr_magic = kRecMagic;
    r->lr_len = static_cast<uint32_t>(p - rec_buf.p);
    r->lr_lsn = lsn;
    r->lr_sum = 0;
    r->lr_gen = x->xf_log_gen;
    r->lr_nent = static_cast<uint16_t>(nent);
    r->lr_flags = flags;
    r->lr_sum = checksum(rec_buf.p, r->lr_len);
    const uint64_t end = lsn + r->lr_len;
    // Whoever finds this call's unit after a death must know whether it committed.
    if (!(flags & kUnitOpen)) jn_committing(end);
    const off_t at_off = kFirst + static_cast<off_t>(lsn - start);
    if (extend(u, fd, at_off + r->lr_len) != 0 ||
        kisam::os_pwrite_full(fd, rec_buf.p, r->lr_len, at_off) != 0)
        return fail(ISE_FLWT, 0x28);
    for (int i = 0; i < n; ++i)
        if (pages[i].slot >= 0) *kisam::isx_lsn(pages[i].slot) = end;
    if (fcp_too) x->xf_log_fcpgen = x->xf_log_gen;  // the control page is in this generation
    at(x->xf_log_end).store(end, std::memory_order_release);
    // The disk starts on the log now, a megabyte at a time, so that a sync (a checkpoint,
    // a durable call, a page written back) finds little left to do.
    if ((lsn >> 20) != (end >> 20)) {
        const uint64_t from = ((end >> 20) << 20) - (uint64_t{1} << 20);
        const uint64_t lo = from > start ? from : start;
        ::sync_file_range(fd, kFirst + static_cast<off_t>(lo - start), static_cast<off_t>((end >> 20 << 20) - lo),
                          SYNC_FILE_RANGE_WRITE);
    }
    if (end_lsn) *end_lsn = end;
    return 0;
}

// The page arguments of a record; grown as needed.
PageArg* page_args(int n) noexcept {
    static PageArg* args = nullptr;
    static int cap = 0;
    if (n <= cap) return args;
    int c = cap ? cap : 64;
    while (c < n) c *= 2;
    PageArg* q = static_cast<PageArg*>(std::realloc(args, sizeof(PageArg) * static_cast<size_t>(c)));
    if (!q) return nullptr;
    args = q;
    cap = c;
    return args;
}

// Room for a record of 64 pages, with their before-images, and the control page: calls
// that change more grow the buffers (rarely).
bool call_buffers_ready() noexcept {
    constexpr int kPages = 64;
    return page_args(kPages) != nullptr &&
           rec_buf.fit(sizeof(lg_rec) + kPages * 2 * (sizeof(lg_ent) + kisam::kPage) + sizeof(lg_ent) + kisam::kFcpImage);
}

}  // namespace

int lg_commit(IS_FCP* fcp, int u, const int16_t* slots, int n, uint64_t* end_lsn) noexcept {
    PageArg* a = page_args(n);
    if (!a && n > 0) return fail(ISE_FLWT, 0x28);
    for (int i = 0; i < n; ++i) {
        const IS_BUF* b = is_env.buf_ + slots[i];
        a[i] = {b->bu_pno, &b->bu_data, jn_before(b->bu_pno), slots[i]};
    }
    return append(fcp, u, a, n, 0, false, true, end_lsn);
}

int lg_steal(IS_FCP* fcp, int u, int s) noexcept {
    const IS_BUF* b = is_env.buf_ + s;
    const PageArg a{b->bu_pno, &b->bu_data, jn_before(b->bu_pno), -1};
    uint64_t end = 0;
    // Outside a unit nothing can be undone: the page is simply committed alone.
    const bool open = jn_active();
    if (append(fcp, u, &a, 1, open ? kUnitOpen : 0, open, !open, &end) != 0) return -1;
    if (open) jn_stole();
    *kisam::isx_lsn(s) = end | ISX_LSN_FULL;
    return lg_sync_to(u, end);
}

int lg_compensate(IS_FCP* fcp, int u, const PAGE* pnos, const IS_DATA* const* datas, int n) noexcept {
    PageArg* a = page_args(n);
    if (!a && n > 0) return fail(ISE_FLWT, 0x28);
    for (int i = 0; i < n; ++i) a[i] = {pnos[i], datas[i], nullptr, -1};
    return append(fcp, u, a, n, 0, false, true, nullptr);
}

namespace {

// The durable call this process owes a sync: the log and the LSN after its record.
int owed_u = -1;
uint64_t owed_end = 0;

inline std::atomic_ref<uint32_t> at32(uint32_t& v) { return std::atomic_ref<uint32_t>(v); }

// How long one waiting for a sync sleeps before it looks whether the processes syncing
// are still alive, and the longest a durable call waits for the rest of its group.
constexpr long kLeadCheckUs = 20000;
constexpr long kGatherMaxUs = 1000;

long usec_since(const struct timespec& t0) noexcept {
    struct timespec t1;
    ::clock_gettime(CLOCK_MONOTONIC, &t1);
    return (t1.tv_sec - t0.tv_sec) * 1000000 + (t1.tv_nsec - t0.tv_nsec) / 1000;
}

// Sleeps until the sync generation of s moves on from g, at most usec microseconds.
// True when the sleep ran out.
bool sleep_on(isx_sync* s, uint32_t g, long usec) noexcept {
    // Those who sleep say so, so that a sync that ends with nobody asleep wakes nobody
    // (no system call).
    const uint32_t want = g | ISX_SYNC_SLEEPERS;
    if (g != want && !at32(s->xs_gen).compare_exchange_strong(g, want)) return false;
    struct timespec ts{usec / 1000000, (usec % 1000000) * 1000};
    const int e = errno;  // a call that succeeds leaves errno as the program set it
    // The segment is shared between processes: no private futex.
    const bool ran_out = ::syscall(SYS_futex, &s->xs_gen, FUTEX_WAIT, want, &ts, nullptr, 0) != 0 && errno == ETIMEDOUT;
    errno = e;
    return ran_out;
}

// The generation moves on; whoever sleeps on it wakes.
void next_gen(isx_sync* s) noexcept {
    uint32_t g = at32(s->xs_gen).load(std::memory_order_relaxed);
    while (!at32(s->xs_gen).compare_exchange_weak(g, (g + 1) & ~ISX_SYNC_SLEEPERS, std::memory_order_acq_rel)) {
    }
    if (g & ISX_SYNC_SLEEPERS) {
        const int e = errno;
        ::syscall(SYS_futex, &s->xs_gen, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
        errno = e;
    }
}

// This process as a sync's leader: its pid and its process-table slot.
uint64_t me_as_lead() noexcept {
    return uint64_t(static_cast<uint32_t>(is_pid)) << 16 | static_cast<uint64_t>(is_env.useridx + 1);
}

// Whether the process that took a sync slot as `lead` can no longer end its sync: it
// died (its liveness lock is gone, or its process-table slot holds another process), or
// it is this process (a call abandoned while it synced; lg_abandoned gives such a slot
// up, this is the net under it).
bool lead_gone(uint64_t lead) noexcept {
    if (lead == me_as_lead()) return true;
    const int i = static_cast<int>(lead & 0xFFFF) - 1;
    const int32_t pid = static_cast<int32_t>(lead >> 16);
    if (i < 0 || i >= isam_com->maxusers) return true;
    if (std::atomic_ref<int32_t>(is_env.pid_[i]).load() != pid) return true;
    return is_slot_dead(i);
}

// This process syncs log u (fd) in slot i for everyone: what was appended up to now
// goes to the disk, xf_log_synced follows, and those waiting are woken.
int lead_sync(int u, int fd, int i) noexcept {
    isx_file* x = xfile(u);
    isx_sync* s = kisam::isx_sync_of(u);
    // The durable calls this sync covers (those committed since the previous one took
    // the log's end) are the group the next one gathers.
    const uint32_t calls = at32(s->xs_calls).load(std::memory_order_acquire);
    at32(s->xs_group).store(calls - at32(s->xs_base).load(std::memory_order_relaxed), std::memory_order_relaxed);
    at32(s->xs_base).store(calls, std::memory_order_relaxed);
    // Every record below xf_log_end was written before the end was advanced past it:
    // the sync that starts now covers them all.
    const uint64_t end = at(x->xf_log_end).load(std::memory_order_acquire);
    at(s->xs_target[i]).store(end, std::memory_order_release);
    struct timespec t0;
    ::clock_gettime(CLOCK_MONOTONIC, &t0);
    int rc = 0;
    if (kisam::os_fdatasync(fd) != 0) {
        rc = fail(ISE_FLWT, 0x29);
    } else {
        uint64_t cur = at(x->xf_log_synced).load();
        while (cur < end && !at(x->xf_log_synced).compare_exchange_weak(cur, end)) {
        }
    }
    const long us = usec_since(t0);
    at32(s->xs_usec).store(static_cast<uint32_t>(us > 0 ? us : 0), std::memory_order_relaxed);
    at32(s->xs_syncs).fetch_add(1, std::memory_order_relaxed);
    at(s->xs_target[i]).store(0, std::memory_order_relaxed);
    at(s->xs_lead[i]).store(0, std::memory_order_release);
    // A sync that failed wakes the others too: each then syncs and reports for itself.
    next_gen(s);
    return rc;
}

// The log of file u on disk up to lsn.
//
// Whoever finds its record neither on disk nor covered by a running sync starts a sync
// of everything appended so far, unless two run already; the others sleep until a sync
// ends and look again.  Two at once, so that the disk never idles between syncs while
// the next one's leader wakes and gathers (a second sync on a disk that does one at a
// time starts as soon as the first ends; one that does several at once runs both).
// With `gather` (a durable call's own record), a call that could start a sync waits
// first, at most about as long as the latest sync took, until as many durable calls have
// committed since the latest sync began as that one covered: calls that end close
// together then share one sync, instead of the first of them syncing alone and the rest
// syncing after it.
int sync_to(int u, uint64_t lsn, bool gather) noexcept {
    isx_file* x = xfile(u);
    if (at(x->xf_log_synced).load(std::memory_order_acquire) >= lsn) return 0;
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    isx_sync* s = kisam::isx_sync_of(u);
    bool gathered = !gather;
    struct timespec t0;
    if (gather) ::clock_gettime(CLOCK_MONOTONIC, &t0);
    for (;;) {
        const uint32_t g = at32(s->xs_gen).load(std::memory_order_acquire);
        if (at(x->xf_log_synced).load(std::memory_order_acquire) >= lsn) return 0;
        int free_slot = -1;
        bool covered = false;
        for (int i = 0; i < ISX_SYNC_SLOTS; ++i) {
            if (at(s->xs_lead[i]).load(std::memory_order_acquire) == 0) {
                if (free_slot < 0) free_slot = i;
            } else if (at(s->xs_target[i]).load(std::memory_order_acquire) >= lsn) {
                covered = true;
            }
        }
        if (covered || free_slot < 0) {
            // Wait for a sync to end.  One that seems to take too long may have lost its
            // process: its slot is freed.
            if (sleep_on(s, g, kLeadCheckUs)) {
                for (int i = 0; i < ISX_SYNC_SLOTS; ++i) {
                    uint64_t lead = at(s->xs_lead[i]).load();
                    if (lead != 0 && lead_gone(lead) && at(s->xs_lead[i]).compare_exchange_strong(lead, 0)) {
                        at(s->xs_target[i]).store(0);
                        next_gen(s);
                    }
                }
            }
            continue;
        }
        if (!gathered) {
            const long waited = usec_since(t0);
            const long most = std::min<long>(at32(s->xs_usec).load(std::memory_order_relaxed), kGatherMaxUs);
            const uint32_t have = at32(s->xs_calls).load(std::memory_order_acquire) -
                                  at32(s->xs_base).load(std::memory_order_relaxed);
            if (have < at32(s->xs_group).load(std::memory_order_relaxed) && waited < most) {
                sleep_on(s, g, most - waited);
                continue;
            }
            gathered = true;
        }
        uint64_t none = 0;
        if (at(s->xs_lead[free_slot]).compare_exchange_strong(none, me_as_lead(), std::memory_order_acq_rel))
            return lead_sync(u, fd, free_slot);
    }
}

}  // namespace

void lg_owe(int u, uint64_t end) noexcept {
    owed_u = u;
    owed_end = end;
    // Under the control lock: the file's durable calls, counted for the group that the
    // next sync gathers.
    if (lg_durable) at32(kisam::isx_sync_of(u)->xs_calls).fetch_add(1, std::memory_order_release);
}

int lg_pay(void) noexcept {
    if (owed_u < 0) return 0;
    const int u = owed_u;
    owed_u = -1;
    return lg_durable ? sync_to(u, owed_end, true) : 0;
}

int lg_sync_to(int u, uint64_t lsn) noexcept { return sync_to(u, lsn, false); }

void lg_abandoned(void) noexcept {
    if (!isam_com || !isx_area) return;
    const uint64_t me = me_as_lead();
    for (int u = 0; u < isam_com->maxopen; ++u) {
        isx_sync* s = kisam::isx_sync_of(u);
        for (int i = 0; i < ISX_SYNC_SLOTS; ++i) {
            uint64_t lead = me;
            if (at(s->xs_lead[i]).load() == me && at(s->xs_lead[i]).compare_exchange_strong(lead, 0)) {
                at(s->xs_target[i]).store(0);
                next_gen(s);
            }
        }
    }
}

int lg_wal(int u, int s) noexcept {
    const uint64_t need = *kisam::isx_lsn(s) & ~ISX_LSN_FULL;
    if (need <= at(xfile(u)->xf_log_synced).load(std::memory_order_acquire)) return 0;
    return lg_sync_to(u, need);
}

int lg_wfd(int u) noexcept {
    if (is_pfi && is_pfi[u].pfi_osfd >= 0 && !(is_pfi[u].pfi_bits & PFI_RDONLY)) return is_pfi[u].pfi_osfd;
    const IS_FCP* fcp = kisam::pfo_fcp(u);
    if (!fcp || !fds_ready()) return -1;
    WriteFd& w = fds.w[u];
    if (w.fd >= 0 && w.dev == fcp->jd_dev && w.ino == fcp->jd_ino) return w.fd;
    if (w.fd >= 0) kisam::os_close(w.fd);
    w.fd = -1;
    const char* path = kisam::isx_path(u);
    if (path[0] == '\0') return -1;
    const int fd = kisam::os_open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (kisam::os.fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_dev) != fcp->jd_dev ||
        static_cast<uint64_t>(st.st_ino) != fcp->jd_ino) {
        kisam::os_close(fd);
        return -1;
    }
    w = {fd, fcp->jd_dev, fcp->jd_ino};
    return fd;
}

int lg_checkpoint(IS_FCP* fcp, int u, int fd) noexcept {
    isx_file* x = xfile(u);
    const uint64_t end = at(x->xf_log_end).load(std::memory_order_relaxed);
    const uint64_t start = at(x->xf_log_start).load(std::memory_order_relaxed);
    if (end == start && !(fcp->is_optbits & ISO_CHANGED)) return 0;  // nothing since the last one
    if (fd < 0) return fail(ISE_FLWT, 0x2A);
    // A call whose rollback is still due left pages in the pool that it never committed:
    // none may reach the file (rule 2), so the file waits for the rollback (or for the
    // replay of its log) to be brought up to date.
    if (x->xf_undo != 0) return fail(ISE_FLWT, 0x2A);
    if (lg_sync_to(u, end) != 0) return -1;
    if (v_write_back(fcp, u, fd) != 0) return -1;
    if (!(fcp->is_optbits & ISO_SEQ)) {
        unsigned char img[kisam::kFcpImage];
        kisam::fcp_image(fcp, img);
        if (kisam::os_pwrite_full(fd, img, sizeof img, 0) != 0) {
            fcp->is_optbits |= ISO_CHANGED;
            return fail(ISE_FLFCP, 0x2A);
        }
    }
    if (kisam::os_fdatasync(fd) != 0) return fail(ISE_FLWT, 0x2A);
    const int lfd = log_fd(u);
    if (lfd < 0) return fail(ISE_OPENF, 0x26);
    lg_head h;
    std::memset(&h, 0, sizeof h);
    h.lh_gen = x->xf_log_gen + 1;
    h.lh_start = end;
    h.lh_dev = fcp->jd_dev;
    h.lh_ino = fcp->jd_ino;
    std::snprintf(h.lh_path, sizeof h.lh_path, "%s", kisam::isx_path(u));
    if (write_head(lfd, &h, true) != 0) {
        // The header may be in the log all the same (its sync failed, not its write):
        // the records that follow must then carry its generation, or a replay would stop
        // before them.  The file holds everything up to `end`, so either is right for it.
        lg_head now;
        if (read_head(lfd, &now) && now.lh_gen == h.lh_gen) {
            x->xf_log_gen = h.lh_gen;
            at(x->xf_log_start).store(end);
        }
        return fail(ISE_FLWT, 0x2A);
    }
    x->xf_log_gen = h.lh_gen;
    at(x->xf_log_start).store(end);
    return 0;
}

int lg_maybe_checkpoint(IS_FCP* fcp, int u) noexcept {
    isx_file* x = xfile(u);
    if (at(x->xf_log_end).load(std::memory_order_relaxed) - at(x->xf_log_start).load(std::memory_order_relaxed) <
        limit_bytes)
        return 0;
    return lg_checkpoint(fcp, u, lg_wfd(u));
}

int lg_undo_tail(int u, uint64_t record_end) noexcept {
    isx_file* x = xfile(u);
    const uint64_t end = at(x->xf_log_end).load(std::memory_order_relaxed);
    if (record_end <= end) return 0;
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    lg_rec zero;
    std::memset(&zero, 0, sizeof zero);
    const off_t off = kFirst + static_cast<off_t>(end - at(x->xf_log_start).load(std::memory_order_relaxed));
    if (kisam::os_pwrite_full(fd, &zero, sizeof zero, off) != 0) return fail(ISE_FLWT, 0x28);
    return 0;
}

void lg_stale(int u) noexcept {
    if (!isx_area || u < 0 || u >= isam_com->maxopen) return;
    kisam::ErrorKeep keep;
    isx_file* x = xfile(u);
    const int fd = log_fd(u);
    lg_head h;
    if (fd < 0 || !read_head(fd, &h)) return;
    // The file holds every call up to the new generation's start (it was synced before
    // the header was written), so the log may as well begin there.
    const uint64_t end = at(x->xf_log_end).load(std::memory_order_relaxed);
    if (h.lh_gen == x->xf_log_gen + 1 && h.lh_start == end) {
        x->xf_log_gen = h.lh_gen;
        at(x->xf_log_start).store(end);
    }
}

namespace {
bool recovered_here = false;
kisam_recovery recovered{};  // what this process replayed, kept past its detach
}  // namespace

void lg_recover_all(void) noexcept {
    recovered_here = false;  // of this segment only: an earlier one may have been ours
    if (lbase[0] == '\0') return;
    kisam::ErrorKeep keep;
    struct timespec t0, t1;
    ::clock_gettime(CLOCK_MONOTONIC, &t0);
    Replayed r;
    uint32_t logs = 0;
    bool left = false;
    each_log([&](int, int fd) {
        lg_head h;
        if (!read_head(fd, &h) || !has_records(fd, h)) return;
        if (replay(fd, h, &r) == 0)
            ++logs;
        else
            left = true;
    });
    if (!isx_area) return;
    if (left) isx_area->xh_leftover = 1;
    if (logs == 0) return;
    ::clock_gettime(CLOCK_MONOTONIC, &t1);
    recovered_here = true;
    recovered.logs = logs;
    recovered.calls = r.units;
    recovered.pages = r.pages;
    recovered.usec = (t1.tv_sec - t0.tv_sec) * 1000000 + (t1.tv_nsec - t0.tv_nsec) / 1000;
    recovered.when = static_cast<long>(::time(nullptr));
    recovered.self = 1;
    isx_area->xh_rec_logs = logs;
    isx_area->xh_rec_units = r.units;
    isx_area->xh_rec_pages = r.pages;
    isx_area->xh_rec_time = static_cast<uint32_t>(::time(nullptr));
    isx_area->xh_rec_usec = static_cast<uint32_t>((t1.tv_sec - t0.tv_sec) * 1000000 + (t1.tv_nsec - t0.tv_nsec) / 1000);
}

bool lg_pending(uint64_t dev, uint64_t ino) noexcept {
    if (lbase[0] == '\0') return false;
    bool found = false;
    each_log([&](int, int fd) {
        lg_head h;
        if (found || !read_head(fd, &h) || h.lh_dev != dev || h.lh_ino != ino) return;
        found = has_records(fd, h);
    });
    return found;
}

extern "C" KISAM_API int kisam_sync(void) {
    if (!isam_com || !isx_area || !is_pfi) return 0;
    int rc = 0;
    for (int u = 0; u < isam_com->maxopen; ++u) {
        if (is_pfi[u].pfi_osfd < 0 || !kisam::pfo_fcp(u)) continue;
        if (lg_sync_to(u, at(xfile(u)->xf_log_end).load(std::memory_order_acquire)) != 0) rc = -1;
    }
    return rc;
}

extern "C" KISAM_API int kisam_last_recovery(struct kisam_recovery* out) {
    if (!out) return -1;
    std::memset(out, 0, sizeof *out);
    if (!isam_com || !isx_area) {
        // Detached: what this process replayed itself, if anything.
        if (!recovered_here) return -1;
        *out = recovered;
        return 0;
    }
    out->logs = isx_area->xh_rec_logs;
    out->calls = isx_area->xh_rec_units;
    out->pages = isx_area->xh_rec_pages;
    out->usec = isx_area->xh_rec_usec;
    out->when = isx_area->xh_rec_time;
    out->self = recovered_here ? 1 : 0;
    return 0;
}
