// The log's files: their names and descriptors, headers, records read back, the zeros
// written ahead, and the settings read at attach.
#include "lg_internal.h"

#include "is_access.h"
#include "os.h"
#include "v_pool.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool lg_durable = false;

namespace kisam::lg {

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
bool limit_set = false;

Fds fds;

void close_fds() noexcept {
    for (int u = 0; u < fds.n; ++u) {
        if (fds.log && fds.log[u] >= 0 && fds.pid == is_pid) kisam::os_close(fds.log[u]);
        if (fds.w && fds.w[u].fd >= 0 && fds.pid == is_pid) kisam::os_close(fds.w[u].fd);
        // A forked child's copy of a mapping is its own: given back whoever made it.
        if (fds.map) kisam::os_unmap(fds.map[u], fds.window);
    }
    std::free(fds.log);
    std::free(fds.map);
    std::free(fds.mapped_lo);
    std::free(fds.w);
    fds = Fds();
}

bool fds_ready() noexcept {
    if (fds.com == isam_com && fds.n == isam_com->maxopen) return true;
    close_fds();
    const int n = isam_com->maxopen;
    fds.log = static_cast<int*>(std::malloc(sizeof(int) * static_cast<size_t>(n)));
    fds.w = static_cast<WriteFd*>(std::malloc(sizeof(WriteFd) * static_cast<size_t>(n)));
    fds.map = static_cast<char**>(std::calloc(static_cast<size_t>(n), sizeof(char*)));
    fds.mapped_lo = static_cast<uint64_t*>(std::calloc(static_cast<size_t>(n), sizeof(uint64_t)));
    if (!fds.log || !fds.w || !fds.map || !fds.mapped_lo) {
        close_fds();
        return false;
    }
    for (int u = 0; u < n; ++u) {
        fds.log[u] = -1;
        fds.w[u] = {-1, 0, 0};
    }
    fds.n = n;
    // Room for a log grown to its checkpoint limit and a few stretches past it: records
    // that land further (a limit raised past the window, a huge call) are written with
    // pwrite.  Address space only; the system backs what the records touch.  A limit that
    // follows the file's size (limit_of) may reach kMaxLimit.
    const uint64_t limit = limit_set ? limit_bytes : kMaxLimit;
    const uint64_t want = (static_cast<uint64_t>(kFirst) + limit + 4 * kExtend + kExtend - 1) / kExtend * kExtend;
    fds.window = static_cast<size_t>(std::min<uint64_t>(want, kMaxWindow));
    fds.com = isam_com;
    fds.pid = is_pid;
    return true;
}

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
    const int fd = is_open_beside(lbase, name, O_RDWR | O_CREAT);
    fds.log[u] = fd;
    if (fd < 0) return fd;
    // Mapped once for the descriptor's life.  A log shorter than the size known to be
    // written was replaced behind the installation's back (never by the library, which
    // never cuts a log back): stores through a mapping of it could fall past its end, so
    // its records go by pwrite.
    struct stat st;
    if (kisam::os.fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) >= zeros(u).load()) {
        const int e = errno;
        fds.map[u] = kisam::os_map(fd, fds.window);
        errno = e;
    }
    return fd;
}

namespace {

// The log's size changes only under a write lock on its first byte (a record lock of
// the log file, which the kernel gives back if its holder dies), held from the reading
// of the known size to the sync of the zeros written past it and the raising of the
// known size.  So the zeros are only ever written past every record (no record is
// written past the known size), and the known size is on disk with its blocks: the sync
// of a record carries no change of the log's size, and a store through the mapping below
// it never faults.
int size_lock(int fd, bool wait) noexcept {
    return kisam::os_lock(fd, wait ? F_SETLKW : F_SETLK, F_WRLCK, 0, 1);
}
void size_unlock(int fd) noexcept {
    const int e = errno;
    kisam::os_lock(fd, F_SETLK, F_UNLCK, 0, 1);
    errno = e;
}

// Where zeros written from `size` on end: past `need`, and a stretch past `size` (a
// quarter of it, kExtend to kMaxStretch) as far as the mapping's window reaches, all in
// whole kExtend.  A log grows to its checkpoint limit once and is then used again from
// its start, so the stretches only shape how many syncs that growth costs.
off_t stretch_end(off_t size, off_t need, off_t window) noexcept {
    const off_t at_least = (need + kExtend - 1) / kExtend * kExtend;
    const off_t step = std::clamp(size / 4 / kExtend * kExtend, kExtend, kMaxStretch);
    const off_t ahead = std::min((size + step + kExtend - 1) / kExtend * kExtend, window);
    return std::max(at_least, ahead);
}

// Under the size lock: the zeros of log u reach at least `need` bytes, rounded up to
// kExtend (stretch_end), and are on disk.  0; -1 with errno.
//
// The size is the one known in the shared state (zeros(u)): every record lies below it
// (appends store only there), so zeros written from it on never cover one, and a grower
// that died between its zeros and its sync left only zeros past it, written again now.
// Only a log that nothing is known of yet in this segment is asked its size, which its
// earlier processes' records and zeros make; that size is synced once so that it counts.
int grow_locked(int u, int fd, off_t need) noexcept {
    const uint64_t known = zeros(u).load(std::memory_order_acquire);
    if (static_cast<uint64_t>(need) <= known) return 0;  // grown meanwhile
    off_t size = static_cast<off_t>(known);
    if (known == 0) {
        struct stat st;
        if (kisam::os.fstat(fd, &st) != 0) return -1;
        size = st.st_size;
        if (size > 0) {
            if (kisam::os_fdatasync(fd) != 0) return -1;
            zeros(u).store(static_cast<uint64_t>(size), std::memory_order_release);
        }
        if (need <= size) return 0;
    }
    // One write per kZeroChunk of the file, at its multiples: the page cache makes a
    // folio of each such write, and a folio is what a sync write-protects whole when the
    // log's tail lies in it -- each of its 4 KiB pages then faults again at its next
    // store, so the smaller the folio, the fewer.  Never touched, the buffer costs no memory.
    static char blank[kZeroChunk];
    const auto write_zeros = [&](off_t to) {
        for (off_t o = size; o < to;) {
            const off_t room = kZeroChunk - o % kZeroChunk;
            const size_t n = static_cast<size_t>(to - o < room ? to - o : room);
            if (kisam::os_pwrite_full(fd, blank, n, o) != 0) return -1;
            o += static_cast<off_t>(n);
        }
        return 0;
    };
    off_t to = stretch_end(size, need, static_cast<off_t>(fds.window));
    if (write_zeros(to) != 0) {
        // A disk too full for the whole stretch may still hold what was asked for.  (Not
        // after a failed sync: the next one could pass over what the first lost.)
        const off_t at_least = (need + kExtend - 1) / kExtend * kExtend;
        if (to <= at_least || write_zeros(at_least) != 0) return -1;
        to = at_least;
    }
    if (kisam::os_fdatasync(fd) != 0) return -1;
    zeros(u).store(static_cast<uint64_t>(to), std::memory_order_release);
    return 0;
}

// No signal is taken while the size lock is held: a call left part way by a signal
// handler's jump would leave the lock this process's, and every other process's next
// append past the zeros would wait for it.
struct NoSignals {
    sigset_t was;
    NoSignals() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &was);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &was, nullptr); }
};

}  // namespace

int extend(int u, int fd, off_t need) noexcept {
    if (static_cast<uint64_t>(need) <= zeros(u).load(std::memory_order_acquire)) return 0;
    NoSignals quiet;
    if (size_lock(fd, true) != 0) return -1;
    const int rc = grow_locked(u, fd, need);
    size_unlock(fd);
    return rc;
}

bool armable(int u) noexcept {
    if (!fds.map[u]) return false;
    if (v_mapped_install()) return true;
    kisam::os_unmap(fds.map[u], fds.window);
    fds.map[u] = nullptr;
    return false;
}

void cut_short(int u, int fd) noexcept {
    const int e = errno;
    {
        NoSignals quiet;
        if (size_lock(fd, true) == 0) {
            // What lies past the log's end is gone: the zeros are written again from
            // there before a record may land on it.
            struct stat st;
            if (kisam::os.fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) < zeros(u).load())
                zeros(u).store(static_cast<uint64_t>(st.st_size), std::memory_order_release);
            size_unlock(fd);
        }
    }
    at32(xfile(u)->xf_log_cut).store(1, std::memory_order_release);
    errno = e;
}

bool log_short(int u, int fd, uint32_t gen, uint64_t start, uint64_t end) noexcept {
    isx_file* x = xfile(u);
    struct stat st;
    if (kisam::os.fstat(fd, &st) != 0) return false;
    if (at32(x->xf_log_gen).load(std::memory_order_acquire) != gen ||
        at(x->xf_log_start).load(std::memory_order_acquire) != start || end < start)
        return false;
    if (static_cast<uint64_t>(st.st_size) >= static_cast<uint64_t>(kFirst) + (end - start)) return false;
    cut_short(u, fd);
    return true;
}

void extend_ahead(int u) noexcept {
    if (!fds_ready() || fds.log[u] < 0) return;
    isx_file* x = xfile(u);
    const off_t tail = kFirst + static_cast<off_t>(at(x->xf_log_end).load(std::memory_order_relaxed) -
                                                   at(x->xf_log_start).load(std::memory_order_relaxed));
    if (static_cast<uint64_t>(tail + kAhead) <= zeros(u).load(std::memory_order_acquire)) return;
    const int fd = fds.log[u];
    const int e = errno;
    {
        NoSignals quiet;
        // One process extends at a time; the others go on (the zeros reach far enough).
        if (size_lock(fd, false) == 0) {
            grow_locked(u, fd, tail + kAhead + 1);
            size_unlock(fd);
        }
    }
    errno = e;
}

// The valid header of the log open on fd with the higher generation; false when neither
// copy is valid (a new or foreign file).  A copy whole by its checksum but of a version
// newer than this library's sets *newer: its records are not this library's to read.
bool read_head(int fd, lg_head* out, bool* newer) noexcept {
    if (newer) *newer = false;
    lg_head h[2];
    const ssize_t n = kisam::os_pread_full(fd, h, sizeof h, 0);
    if (n < 0) return false;
    bool found = false;
    for (int i = 0; i < 2; ++i) {
        if (static_cast<size_t>(n) < (i + 1) * sizeof(lg_head)) break;
        if (h[i].lh_magic != kHeadMagic || h[i].lh_sum != checksum(&h[i], offsetof(lg_head, lh_sum)) ||
            (h[i].lh_gen & 1) != static_cast<uint32_t>(i))
            continue;
        if (h[i].lh_version < kOldestVersion || h[i].lh_version > kVersion) {
            if (newer && h[i].lh_version > kVersion) *newer = true;
            continue;
        }
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

}  // namespace kisam::lg

using namespace kisam::lg;

void lg_setbase(const char* lockname) noexcept {
    std::snprintf(lbase, sizeof lbase, "%s", lockname ? lockname : "");
    limit_bytes = kDefaultLimit;
    limit_set = false;
    if (const char* v = std::getenv("KISAM_LOG_LIMIT")) {
        char* end = nullptr;
        const unsigned long long n = std::strtoull(v, &end, 10);
        if (end != v && *end == '\0' && n >= 4096) limit_bytes = n, limit_set = true;
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
