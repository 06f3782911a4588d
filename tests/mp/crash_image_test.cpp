// Power cuts, simulated.  Workers record every write, sync, truncation, creation and
// rename they make through the engine's OS table (and the log's stores through its
// mapping) into one shared, totally ordered event stream; each call takes a ticket under
// the control lock, so tickets order the calls.  Images of the disk at crash points (sync
// boundaries, then random) keep synced writes and unsynced ones in order, at random, all
// but the last calls', or with one write torn at a 512-byte boundary.  Each image is
// restarted in a fresh process: it must open, be sound, read whole along every key, and
// hold the records of a prefix of the calls -- in durable mode one holding every call
// that had returned.  Undo journals (written through their mappings, never synced) are
// rebuilt from their writes alone: losing their stores is one legal outcome.
//
// KISAM_CRASH_IMAGES: images per test; KISAM_SEED replays a workload (a failure prints
// seed, image, kind and cut); KISAM_CRASH_REPORT_ONLY=1 only prints the figures;
// KISAM_CRASH_BITS sets co_bits (the data-changed mark options).
#include <gtest/gtest.h>
#include <kisam/kisam.h>
#include <kisam/ztsupport.h>

#include "kcheck.h"
#include "kisam_test.h"
#include "oracle.h"
#include "os.h"
#include "test_hook.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

namespace ko = kt::oracle;

// ---- the shared record -----------------------------------------------------------------

enum Kind : uint8_t {
    kWrite = 1,    // bytes [off, off + len) of the file, data in the arena
    kTrunc,        // size set to off (ftruncate, or open with O_TRUNC)
    kAlloc,        // size at least off + len (posix_fallocate)
    kCreate,       // the file came into being under the name in the arena
    kRename,       // "from\0to" in the arena
    kSync,         // the file's writes with a sequence number below `cover` are on disk
    kReturned,     // call `file` (its ticket) returned to its caller
};

struct Event {
    uint64_t off, len;
    uint64_t data;    // arena offset of the bytes (writes, names)
    uint64_t cover;   // syncs
    uint32_t file;    // file index, or the ticket of kReturned
    uint8_t kind, proc, pad[2];
};

struct FileEnt {
    uint64_t dev, ino;
    char name[96];    // current name relative to the directory
};

struct Op {
    int32_t proc, op, id, gen, size;   // op 'w' write, 'u' update, 'd' delete
};

constexpr size_t kMaxEvents = size_t(1) << 21;
constexpr size_t kArenaBytes = size_t(1) << 30;   // reserved, touched only as used
constexpr int kMaxFiles = 64;
constexpr int kMaxOps = 1 << 16;

struct Shared {
    pthread_mutex_t mu;
    uint64_t nev, narena;
    std::atomic<uint32_t> nticket;
    std::atomic<uint32_t> plain;   // calls made without a bracket
    uint32_t nfiles;
    int overflow;   // an event, its bytes or a file found no room
    char dir[256];
    FileEnt files[kMaxFiles];
    Op ops[kMaxOps];
    Event ev[kMaxEvents];
};

Shared* sh = nullptr;
char* arena = nullptr;

// A name or message into a fixed field of a shared record.
template <size_t N>
void put(char (&field)[N], std::string_view text) { std::snprintf(field, N, "%.*s", static_cast<int>(text.size()), text.data()); }

// ---- the recorder (in each worker) -------------------------------------------------------

int proc_no = 0;
constexpr int kMaxFd = 4096;
int fd_file[kMaxFd];   // file index of a descriptor, -1 when untracked
bool fd_dsync[kMaxFd]; // opened with O_DSYNC or O_SYNC: each write is on disk when it returns

struct MuGuard {
    MuGuard() { pthread_mutex_lock(&sh->mu); }
    ~MuGuard() { pthread_mutex_unlock(&sh->mu); }
};

// Mutex held; false when the buffers are full.
bool append(Kind k, int file, uint64_t off, uint64_t len, const void* data, size_t n, uint64_t cover = 0) {
    if (sh->nev >= kMaxEvents || sh->narena + n > kArenaBytes) return sh->overflow = 1, false;
    sh->ev[sh->nev++] = Event{off, len, sh->narena, cover, static_cast<uint32_t>(file), k, static_cast<uint8_t>(proc_no), {}};
    if (n) std::memcpy(arena + sh->narena, data, n);
    sh->narena += n;
    return true;
}

// path's name inside the installation directory, or null.
const char* name_in_dir(const char* path) {
    const size_t n = std::strlen(sh->dir);
    if (std::strncmp(path, sh->dir, n) != 0 || path[n] != '/') return nullptr;
    const char* name = path + n + 1;
    return *name && !std::strchr(name, '/') && std::strlen(name) < sizeof(FileEnt::name) ? name : nullptr;
}

int find_file(uint64_t dev, uint64_t ino) {
    for (uint32_t i = 0; i < sh->nfiles; ++i)
        if (sh->files[i].dev == dev && sh->files[i].ino == ino) return static_cast<int>(i);
    return -1;
}

// A file entry for a new file (an earlier file's inode number may have been reused).
int new_file(uint64_t dev, uint64_t ino, const char* name) {
    for (int old; (old = find_file(dev, ino)) >= 0;) sh->files[old].ino = 0;
    if (sh->nfiles >= kMaxFiles) return sh->overflow = 1, -1;
    sh->files[sh->nfiles] = FileEnt{dev, ino, {}};
    put(sh->files[sh->nfiles].name, name);
    return static_cast<int>(sh->nfiles++);
}

int tracked(int fd) { return fd >= 0 && fd < kMaxFd ? fd_file[fd] : -1; }

int rec_open(const char* path, int flags, mode_t mode) {
    MuGuard g;
    const char* name = name_in_dir(path);
    struct stat st;
    const bool existed = !(flags & O_CREAT) || ::stat(path, &st) == 0;
    const int fd = kisam::os_real.open(path, flags, mode);
    if (fd < 0 || fd >= kMaxFd) return fd;
    fd_file[fd] = -1;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return fd;
    int idx = existed ? find_file(st.st_dev, st.st_ino) : -1;
    if (idx < 0 && name) {
        idx = new_file(st.st_dev, st.st_ino, name);
        if (idx >= 0) append(kCreate, idx, 0, 0, name, std::strlen(name) + 1);
    }
    fd_file[fd] = idx;
    fd_dsync[fd] = (flags & O_DSYNC) != 0;   // O_SYNC includes it
    if (idx >= 0 && (flags & O_TRUNC)) append(kTrunc, idx, 0, 0, nullptr, 0);
    return fd;
}

ssize_t rec_pwrite(int fd, const void* b, size_t n, off_t off) {
    MuGuard g;
    const ssize_t r = kisam::os_real.pwrite(fd, b, n, off);
    if (r > 0 && tracked(fd) >= 0) {
        append(kWrite, tracked(fd), static_cast<uint64_t>(off), static_cast<uint64_t>(r), b, static_cast<size_t>(r));
        if (fd_dsync[fd]) append(kSync, tracked(fd), 0, 0, nullptr, 0, sh->nev);
    }
    return r;
}

// A store through a mapping, recorded as a write of the bytes it leaves.
int rec_mstore(int fd, char* map, off_t off, const void* src, size_t n) {
    MuGuard g;
    const int r = kisam::os_real.mstore(fd, map, off, src, n);
    if (r == 0 && tracked(fd) >= 0) append(kWrite, tracked(fd), static_cast<uint64_t>(off), n, map + off, n);
    return r;
}

int rec_ftruncate(int fd, off_t len) {
    MuGuard g;
    const int r = kisam::os_real.ftruncate(fd, len);
    if (r == 0 && tracked(fd) >= 0) append(kTrunc, tracked(fd), static_cast<uint64_t>(len), 0, nullptr, 0);
    return r;
}

int rec_fallocate(int fd, off_t off, off_t len) {
    MuGuard g;
    const int r = kisam::os_real.fallocate(fd, off, len);
    if (r == 0 && tracked(fd) >= 0) append(kAlloc, tracked(fd), static_cast<uint64_t>(off), static_cast<uint64_t>(len), nullptr, 0);
    return r;
}

int rec_fdatasync(int fd) {
    const uint64_t began = [] { MuGuard g; return sh->nev; }();
    const int r = kisam::os_real.fdatasync(fd);
    MuGuard g;
    if (r == 0 && tracked(fd) >= 0) append(kSync, tracked(fd), 0, 0, nullptr, 0, began);
    return r;
}

int rec_rename(const char* from, const char* to) {
    MuGuard g;
    const int r = kisam::os_real.rename(from, to);
    const char *a = name_in_dir(from), *b = name_in_dir(to);
    if (r != 0 || !a || !b) return r;
    char names[2 * sizeof(FileEnt::name)];
    const size_t la = std::strlen(a) + 1, lb = std::strlen(b) + 1;
    std::memcpy(names, a, la);
    std::memcpy(names + la, b, lb);
    for (uint32_t i = 0; i < sh->nfiles; ++i)
        if (sh->files[i].ino && std::strcmp(sh->files[i].name, a) == 0) {
            put(sh->files[i].name, b);
            append(kRename, i, 0, 0, names, la + lb);
            break;
        }
    return r;
}

void install_recorder(int proc) {
    proc_no = proc;
    std::fill(std::begin(fd_file), std::end(fd_file), -1);
    std::fill(std::begin(fd_dsync), std::end(fd_dsync), false);
    kisam::os.open = rec_open, kisam::os.pwrite = rec_pwrite, kisam::os.mstore = rec_mstore;
    kisam::os.ftruncate = rec_ftruncate, kisam::os.fallocate = rec_fallocate;
    kisam::os.fdatasync = rec_fdatasync, kisam::os.rename = rec_rename;
}

// ---- records -------------------------------------------------------------------------

const ko::Layout kL{6, 4, 2};
constexpr int kIdsPerProc = 60;
constexpr int kMaxRecs = 8 * kIdsPerProc;

struct Rec {
    int32_t id, gen, size;
    auto operator<=>(const Rec&) const = default;
};

// Half small, a third middling, a fifth over several pages.
int record_size(std::mt19937_64& rng) {
    const int r = static_cast<int>(rng() % 10);
    return r < 5 ? 30 + static_cast<int>(rng() % 170) : r < 8 ? 200 + static_cast<int>(rng() % 800) : 1000 + static_cast<int>(rng() % 2001);
}

// ---- the installation ------------------------------------------------------------------

constexpr const char* kData = "data";

using Site = kt::Installation;

std::vector<std::string> list_dir(const std::string& dir) {
    std::vector<std::string> v;
    DIR* d = ::opendir(dir.c_str());
    if (!d) return v;
    while (struct dirent* e = ::readdir(d)) {
        struct stat st;
        if (::lstat((dir + "/" + e->d_name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) v.push_back(e->d_name);
    }
    ::closedir(d);
    std::sort(v.begin(), v.end());
    return v;
}

// An undo journal: written through a mapping the recorder cannot see.
bool mapped_file(const std::string& name) {
    const size_t u = name.rfind(".u");
    return u != std::string::npos && u + 2 < name.size() &&
           name.find_first_not_of("0123456789", u + 2) == std::string::npos;
}

// ---- the trace of one workload run ------------------------------------------------------

struct Trace {
    uint64_t seed = 0;
    int procs = 0, durable = 0;
    std::vector<std::string> snap_names, snap_data;   // file i < snapshot size: the directory before
    std::vector<Event> ev;
    std::string arena;
    std::vector<Op> ops;

    // Derived.
    std::vector<uint64_t> synced_at;    // per event: the first sync covering it (or ~0)
    std::vector<uint32_t> required;     // per point P: highest ticket returned before P (index P)
    std::vector<uint64_t> returned;     // positions of kReturned events, in order
    std::vector<uint64_t> boundaries;   // points just after each sync
    std::unordered_multimap<uint64_t, uint32_t> by_hash;

    void derive();
};

uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}
uint64_t rec_hash(const Rec& r) {
    return mix((static_cast<uint64_t>(r.id) << 40) ^ (static_cast<uint64_t>(r.gen) << 20) ^ static_cast<uint64_t>(r.size));
}

// The records the first k calls leave, in order.
std::vector<Rec> records_after(const Trace& t, size_t k) {
    std::map<int, Rec> s;
    for (size_t i = 0; i < k; ++i) {
        const Op& o = t.ops[i];
        if (o.op == 'd') s.erase(o.id);
        else s[o.id] = Rec{o.id, o.gen, o.size};
    }
    std::vector<Rec> v;
    for (const auto& [id, r] : s) v.push_back(r);
    return v;
}

void Trace::derive() {
    const size_t n = ev.size();
    synced_at.assign(n, ~uint64_t(0));
    required.assign(n + 1, 0);
    returned.clear();
    boundaries.clear();
    std::unordered_map<uint32_t, std::vector<uint64_t>> pending;   // per file: unsynced events
    uint32_t hi = 0;
    for (uint64_t i = 0; i < n; ++i) {
        const Event& e = ev[i];
        switch (e.kind) {
            case kWrite:
            case kTrunc:
            case kAlloc: pending[e.file].push_back(i); break;
            case kSync: {
                auto& p = pending[e.file];
                size_t kept = 0;
                for (uint64_t j : p) {
                    if (j < e.cover) synced_at[j] = i;
                    else p[kept++] = j;
                }
                p.resize(kept);
                boundaries.push_back(i + 1);
                break;
            }
            case kReturned:
                returned.push_back(i);
                hi = std::max(hi, e.file);
                break;
            default: break;
        }
        required[i + 1] = hi;
    }
    by_hash.clear();
    std::map<int, Rec> s;
    uint64_t h = 0;
    by_hash.emplace(0, 0);
    for (size_t k = 0; k < ops.size(); ++k) {
        const Op& o = ops[k];
        auto it = s.find(o.id);
        if (it != s.end()) {
            h -= rec_hash(it->second);
            s.erase(it);
        }
        if (o.op != 'd') {
            s[o.id] = Rec{o.id, o.gen, o.size};
            h += rec_hash(s[o.id]);
        }
        by_hash.emplace(h, static_cast<uint32_t>(k + 1));
    }
}

// ---- the workload ----------------------------------------------------------------------

// A call without a bracket takes its ticket at its first page change (control lock held,
// through the test hook), once the hook has been seen to fire in a bracketed call.
bool want_ticket = false, probing = false, probe_fired = false;
uint32_t hook_ticket = 0;
void ticket_at_first_change(int where, int) {
    if (where != kisam::kHookTouch) return;
    probe_fired |= probing;
    if (!want_ticket) return;
    want_ticket = false;
    hook_ticket = sh->nticket.fetch_add(1) + 1;
}

int worker(const std::string& file, int w, uint64_t seed, int calls, bool durable) {
    ::alarm(120);   // a hang ends the worker, and the test says so
    install_recorder(w + 1);
    if (durable) {   // for the process environment and for the settings store alike
        ::setenv("KISAM_DURABLE", "1", 1);
        ZTPutEnv("KISAM_DURABLE", "1");
    } else {
        ::unsetenv("KISAM_DURABLE");
    }
    std::mt19937_64 rng(seed * 1000003 + static_cast<uint64_t>(w));
    const int fd = nisopen(file.c_str(), ISO_RDWR);
    if (fd < 0) return 10;
    kisam::test_hook = ticket_at_first_change;
    bool plain_ok = false;
    std::vector<int> gen(kIdsPerProc, 0);
    std::vector<bool> present(kIdsPerProc, false);
    for (int c = 0; c < calls; ++c) {
        const int local = static_cast<int>(rng() % kIdsPerProc);
        const int id = (w + 1) * 1000 + local;
        int op = 'w';
        if (present[static_cast<size_t>(local)]) op = rng() % 10 < 6 ? 'u' : 'd';
        const int size = record_size(rng);
        const int g = op == 'd' ? 0 : ++gen[static_cast<size_t>(local)];
        const bool bracket = !plain_ok || rng() % 2 == 0;
        uint32_t ticket = 0;
        if (bracket) {
            if (nisgetctl(fd) != 0) return 11;
            ticket = sh->nticket.fetch_add(1) + 1;
            probing = !plain_ok;
        } else {
            hook_ticket = 0;
            want_ticket = true;
        }
        int rc;
        if (op == 'd') {
            char key[8];
            std::snprintf(key, sizeof key, "%06d", id);
            rc = nisdelete(fd, key);
        } else {
            const std::string r = ko::record(kL, id, g, size);
            rc = op == 'w' ? niswrite(fd, r.data(), size) : nisupdate(fd, r.data(), size);
        }
        if (rc != 0) {
            std::fprintf(stderr, "worker %d: call %c on %d failed: is_errno %d\n", w, op, id, is_errno);
            return 13;
        }
        plain_ok |= probe_fired;
        probing = want_ticket = false;
        if (!bracket) {
            if (!hook_ticket) return 16;   // a call that changed no page
            ticket = hook_ticket;
            sh->plain++;
        }
        if (ticket > static_cast<uint32_t>(kMaxOps)) return 12;
        sh->ops[ticket - 1] = Op{w, op, id, g, size};
        present[static_cast<size_t>(local)] = op != 'd';
        if (bracket && nisrelctl(fd) != 0) return 14;
        MuGuard lock;
        append(kReturned, ticket, 0, 0, nullptr, 0);
    }
    kisam::test_hook = nullptr;
    if (nisclose(fd) != 0) return 15;
    nisunisam();
    return 0;
}

// ---- building an image ---------------------------------------------------------------------

enum Mode { kInOrder, kSubset, kRecent, kTorn, kModes };
const char* const kModeNames[kModes] = {"in order", "subset", "recent", "torn"};

struct Image {
    uint64_t point = 0;       // events [0, point) happened
    Mode mode = kInOrder;
    uint64_t kept = 0, lost = 0;
    int64_t torn = -1;        // the torn write's event: only the part before (or from)
    uint64_t torn_at = 0;     // this 512-byte boundary of the file reached the disk
    int torn_half = 0;        // 0: the part before it, 1: the part from it
    uint32_t required = 0;    // calls that had returned before the point
};

class Builder {
public:
    explicit Builder(const Trace& t) : t_(t) {}

    // Image n of the trace, always the same; `between`: every write kept, cut just after a
    // call returned.
    Image plan(uint64_t n, uint64_t budget, bool between = false) {
        Image im;
        std::mt19937_64 rng(mix(t_.seed ^ mix(n)));
        im.mode = between ? kInOrder : static_cast<Mode>(n % kModes);
        const uint64_t nb = t_.boundaries.size();
        const uint64_t bslots = budget / 2;   // at most half the images at sync boundaries
        if (between) {
            im.point = t_.returned.empty() ? t_.ev.size() : t_.returned[rng() % t_.returned.size()] + 1;
        } else if (n < std::min(nb, bslots)) {
            // spread over all boundaries when there are more than slots
            im.point = t_.boundaries[nb <= bslots ? n : n * nb / bslots];
        } else {
            im.point = 1 + rng() % t_.ev.size();
        }
        im.required = t_.required[im.point];
        keep_.assign(im.point, 1);
        uint64_t floor = 0;   // events before it were flushed by the OS
        const bool random_loss = im.mode == kSubset || im.mode == kRecent || (im.mode == kTorn && rng() % 2);
        if (im.mode == kRecent) {
            const uint64_t back = 1 + rng() % 8;
            const auto ret = std::lower_bound(t_.returned.begin(), t_.returned.end(), im.point) - t_.returned.begin();
            floor = static_cast<uint64_t>(ret) > back ? t_.returned[static_cast<size_t>(ret) - back - 1] : 0;
        }
        const uint32_t keep_pct = 20 + static_cast<uint32_t>(rng() % 61);
        for (uint64_t i = 0; i < im.point; ++i) {
            const Event& e = t_.ev[i];
            if (e.kind != kWrite && e.kind != kTrunc && e.kind != kAlloc) continue;
            if (t_.synced_at[i] < im.point) continue;   // on disk for sure
            if (random_loss && i >= floor && rng() % 100 >= keep_pct) {
                keep_[i] = 0;
                ++im.lost;
            } else {
                ++im.kept;
            }
        }
        if (im.mode == kTorn) {
            // One of the latest unsynced kept writes that spans a 512-byte boundary reached the disk
            // only in part.
            std::vector<uint64_t> cand;
            for (uint64_t i = im.point; i-- > 0 && cand.size() < 32;) {
                const Event& e = t_.ev[i];
                if (e.kind == kWrite && keep_[i] && t_.synced_at[i] >= im.point && (e.off / 512 + 1) * 512 < e.off + e.len)
                    cand.push_back(i);
            }
            if (!cand.empty()) {
                im.torn = static_cast<int64_t>(cand[rng() % cand.size()]);
                const Event& e = t_.ev[static_cast<size_t>(im.torn)];
                const uint64_t first = (e.off / 512 + 1) * 512, last = (e.off + e.len - 1) / 512 * 512;
                im.torn_at = first + (rng() % ((last - first) / 512 + 1)) * 512;
                im.torn_half = static_cast<int>(rng() % 2);
            }
        }
        return im;
    }

    // Every write up to point kept.
    Image plan_at(uint64_t point) {
        keep_.assign(point, 1);
        Image im;
        im.point = point, im.required = t_.required[point];
        return im;
    }

    // Applies the image to the in-memory files.
    void build(const Image& im) {
        const size_t nsnap = t_.snap_names.size();
        content_.resize(std::max(content_.size(), nsnap));
        for (auto& c : content_) c.clear();
        names_.clear();
        for (size_t i = 0; i < nsnap; ++i) {
            content_[i].assign(t_.snap_data[i]);
            names_[t_.snap_names[i]] = static_cast<uint32_t>(i);
        }
        for (uint64_t i = 0; i < im.point; ++i) {
            const Event& e = t_.ev[i];
            if (e.kind == kCreate) {
                if (content_.size() <= e.file) content_.resize(e.file + 1);
                content_[e.file].clear();
                names_[t_.arena.data() + e.data] = e.file;
                continue;
            }
            if (e.kind == kRename) {
                const char* from = t_.arena.data() + e.data;
                if (auto it = names_.find(from); it != names_.end()) {
                    const uint32_t f = it->second;
                    names_.erase(it);
                    names_[from + std::strlen(from) + 1] = f;
                }
                continue;
            }
            if ((e.kind != kWrite && e.kind != kTrunc && e.kind != kAlloc) || !keep_[i]) continue;
            if (content_.size() <= e.file) content_.resize(e.file + 1);
            std::string& c = content_[e.file];
            uint64_t off = e.off, len = e.len, src = e.data;
            if (static_cast<int64_t>(i) == im.torn) {   // only the part before, or from, torn_at
                const uint64_t cut = im.torn_at - e.off;
                if (im.torn_half) off += cut, src += cut, len -= cut;
                else len = cut;
            }
            if (e.kind == kTrunc) c.resize(e.off);
            else if (c.size() < off + len) c.resize(off + len);
            if (e.kind == kWrite) std::memcpy(&c[off], t_.arena.data() + src, len);
        }
    }


    // Files the image holds written in place (the lock file keeps its inode, and the segment
    // key), files it lacks removed.
    bool write(const std::string& dir, std::string* why) {
        struct stat lst;
        const mode_t mode = ::stat((dir + "/kisamconfig.lk").c_str(), &lst) == 0 ? (lst.st_mode & 0777) : 0644;
        for (const std::string& name : list_dir(dir))
            if (!names_.count(name) && ::unlink((dir + "/" + name).c_str()) != 0) return *why = "cannot remove " + name, false;
        for (const auto& [name, f] : names_) {
            const std::string p = dir + "/" + name;
            const int fd = ::open(p.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode);
            const std::string& c = content_[f];
            // Only non-zero blocks are written: journals and logs are mostly reserved space.
            bool ok = fd >= 0 && ::fchmod(fd, mode) == 0 && ::ftruncate(fd, 0) == 0 &&
                      ::ftruncate(fd, static_cast<off_t>(c.size())) == 0;
            constexpr size_t kBlock = 4096;
            static const char zeros[kBlock] = {};
            auto zero = [&](size_t b) { return std::memcmp(c.data() + b, zeros, std::min(kBlock, c.size() - b)) == 0; };
            for (size_t at = 0, end; ok && at < c.size(); at = end) {   // runs of zero, or non-zero, blocks
                const bool z = zero(at);
                for (end = at + kBlock; end < c.size() && zero(end) == z;) end += kBlock;
                end = std::min(end, c.size());
                ok = z || ::pwrite(fd, c.data() + at, end - at, static_cast<off_t>(at)) == static_cast<ssize_t>(end - at);
            }
            if (fd >= 0) ::close(fd);
            if (!ok) return *why = "cannot write " + p + ": " + std::strerror(errno), false;
        }
        return true;
    }

    const std::map<std::string, uint32_t>& names() const { return names_; }
    const std::string& content(uint32_t f) const { return content_[f]; }

private:
    const Trace& t_;
    std::vector<uint8_t> keep_;
    std::vector<std::string> content_;
    std::map<std::string, uint32_t> names_;
};

// ---- restarting an image -------------------------------------------------------------------

struct Outcome {
    int exited;           // the restart process's status (0: it ran to the end)
    int opened, sound;    // sound: the checker, once the restarted program has detached
    int reads_ok, nrec;
    int read_failed;      // a read returned an error
    char why_check[256], why_read[256], open_why[160];
    Rec recs[kMaxRecs];
};

Outcome* out = nullptr;

// In a fresh process, as a program started after the reboot: open, check, read.
int restart(const std::string& file) {
    ::alarm(30);
    const int fd = nisopen(file.c_str(), ISO_RDWR);
    if (fd < 0) {
        niserrmsgget(out->open_why, sizeof out->open_why);
        nisunisam();
        return 0;
    }
    out->opened = 1;
    const ko::Scan got = ko::scan(fd, kL);
    out->read_failed = got.read_failed;
    out->reads_ok = got.ok() && got.recs.size() <= static_cast<size_t>(kMaxRecs);
    put(out->why_read, got.ok() ? "more records than the calls wrote" : got.why);
    for (const auto& [id, r] : got.recs)
        if (out->nrec < kMaxRecs) out->recs[out->nrec++] = Rec{id, r.gen, r.size};
    nisclose(fd);
    nisunisam();
    const kisam::check::Report rest = kisam::check::check_file(file);
    out->sound = rest.ok;
    put(out->why_check, rest.error);
    return 0;
}

// ---- figures -------------------------------------------------------------------------------

// Per mode: images, and how many of them passed each stage (the first eight are printed).
enum Count { nImages, nOpened, nSound, nReads, nPrefix, nDurable, nPassed, nSilent, nCrashed, nSegmentsLeft, nCounts };
using Tally = std::array<long, nCounts>;

struct Verdict {
    bool opened, sound, reads, prefix, durable, pass, silent;
    bool exact;            // the records are those of the calls that had returned, exactly
    uint32_t prefix_len;   // the longest prefix of calls whose records these are
    std::string why;
};

Verdict judge(const Trace& t, const Image& im) {
    Verdict v{};
    v.opened = out->exited == 0 && out->opened;
    v.sound = v.opened && out->sound;
    v.reads = v.opened && out->reads_ok;
    if (out->exited != 0) v.why = "the restarted program died (status " + std::to_string(out->exited) + ")";
    else if (!out->opened) v.why = "the file does not open: " + std::string(out->open_why);
    else if (!v.sound) v.why = "checker: " + std::string(out->why_check);
    else if (!v.reads) v.why = out->why_read;
    if (v.reads) {
        uint64_t h = 0;
        for (int i = 0; i < out->nrec; ++i) h += rec_hash(out->recs[i]);
        std::vector<uint32_t> cands;
        for (auto [it, end] = t.by_hash.equal_range(h); it != end; ++it) cands.push_back(it->second);
        std::sort(cands.rbegin(), cands.rend());
        std::vector<Rec> got(out->recs, out->recs + out->nrec);
        std::sort(got.begin(), got.end());
        for (auto k = cands.begin(); k != cands.end() && !v.prefix; ++k)
            if (records_after(t, *k) == got) v.prefix = true, v.prefix_len = *k;
        v.exact = v.prefix && records_after(t, im.required) == got;
        if (!v.prefix && v.why.empty()) v.why = std::to_string(out->nrec) + " records that no prefix of the calls leaves";
    }
    v.durable = v.prefix && v.prefix_len >= im.required;
    if (v.prefix && !v.durable && t.durable && v.why.empty())
        v.why = "holds the first " + std::to_string(v.prefix_len) + " calls, but " + std::to_string(im.required) +
                " had returned";
    v.pass = v.sound && v.reads && v.prefix && (v.durable || !t.durable);
    // Damage a program would not notice: it opened and every read went without an error.
    v.silent = v.opened && !out->read_failed && !(v.sound && v.reads && v.prefix);
    return v;
}

Verdict run_image(const Trace& t, Builder& b, const Site& site, const Image& im, Tally* tally) {
    Tally& y = tally[im.mode];
    b.build(im);
    std::string why;
    y[nSegmentsLeft] += site.remove_segment();
    if (!b.write(site.dir(), &why)) {
        ADD_FAILURE() << why;
        return Verdict{};
    }
    std::memset(static_cast<void*>(out), 0, offsetof(Outcome, recs));
    const std::string file = site.path(kData);
    out->exited = kt::run_child([&] { return restart(file); });
    y[nSegmentsLeft] += site.remove_segment();
    const Verdict v = judge(t, im);
    const bool counts[nCounts] = {true, v.opened, v.sound, v.reads, v.prefix, v.durable, v.pass, v.silent,
                                  out->exited != 0, false};
    for (int c = 0; c < nCounts; ++c) y[c] += counts[c];
    return v;
}

void print_figures(const char* what, const Tally* tally) {
    std::printf("crash images (%s):\n", what);
    std::printf("  %-9s %7s %7s %7s %7s %7s %9s %7s %7s\n", "mode", "images", "opened", "sound", "reads", "prefix",
                "returned", "passed", "silent");
    Tally all{};
    for (int m = 0; m <= kModes; ++m) {
        const Tally& y = m < kModes ? tally[m] : all;
        for (int c = 0; c < nCounts && m < kModes; ++c) all[c] += y[c];
        if (y[nImages] == 0) continue;
        std::printf("  %-9s %7ld %7ld %7ld %7ld %7ld %9ld %7ld %7ld\n", m < kModes ? kModeNames[m] : "all", y[nImages],
                    y[nOpened], y[nSound], y[nReads], y[nPrefix], y[nDurable], y[nPassed], y[nSilent]);
    }
    std::printf("  (opened: the file opens; sound: the checker finds no fault once the program detached;\n"
                "   reads: every record along every key reads back intact and the keys agree; prefix: the\n"
                "   records are those after some prefix of the completed calls; returned: that prefix holds\n"
                "   every call that had returned; silent: opened, and no read returned an error, yet not\n"
                "   sound, not read back intact, or no prefix)\n");
    if (all[nCrashed]) std::printf("  %ld restarts died\n", all[nCrashed]);
    if (all[nSegmentsLeft]) std::printf("  %ld segments were left behind and removed\n", all[nSegmentsLeft]);
    std::fflush(stdout);
}

// A failure of the set-up, not of an image: reported, and the run given up.
bool setup_failed(const std::string& why) {
    ADD_FAILURE() << why;
    return false;
}

uint64_t env_u64(const char* name, uint64_t fallback) {
    const char* s = std::getenv(name);
    return s && *s ? std::strtoull(s, nullptr, 0) : fallback;
}

// ---- the test ------------------------------------------------------------------------------

class CrashImage : public ::testing::Test {
protected:
    void SetUp() override {
        sh = static_cast<Shared*>(kt::shared_memory(sizeof(Shared)));
        arena = static_cast<char*>(kt::shared_memory(kArenaBytes));
        out = static_cast<Outcome*>(kt::shared_memory(sizeof(Outcome)));
    }
    void TearDown() override {
        ::munmap(sh, sizeof(Shared));
        ::munmap(arena, kArenaBytes);
        ::munmap(out, sizeof(Outcome));
    }

    bool record_run(Site& site, uint64_t seed, int procs, int calls, bool durable, Trace* t) {
        std::memset(static_cast<void*>(sh), 0, offsetof(Shared, ops));
        pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(&sh->mu, &a);
        pthread_mutexattr_destroy(&a);
        put(sh->dir, site.dir());
        // The empty file, made by a process that then detaches: the disk as the workload finds it.
        const std::string file = site.path(kData);
        std::vector<int> lens = kL.lens();
        const int rc = kt::run_child([&] {
            const int fd = niscreate(file.c_str(), 3, lens.data());
            if (fd < 0 || nisclose(fd) != 0) return 1;
            nisunisam();
            return 0;
        });
        if (rc != 0) return setup_failed("cannot create " + file);
        site.remove_segment();
        t->seed = seed, t->procs = procs, t->durable = durable;
        t->snap_names = list_dir(site.dir());
        t->snap_data.clear();
        for (const std::string& name : t->snap_names) {
            t->snap_data.push_back(kt::slurp(site.path(name)));
            struct stat st;
            if (::stat(site.path(name).c_str(), &st) != 0) return false;
            sh->files[sh->nfiles] = FileEnt{st.st_dev, st.st_ino, {}};
            put(sh->files[sh->nfiles++].name, name);
        }
        std::vector<pid_t> pids;
        for (int w = 0; w < procs; ++w)
            pids.push_back(kt::start_child([&, w] { return worker(file, w, seed, calls, durable); }));
        bool ok = true;
        for (pid_t p : pids)
            if (const int st = kt::wait_child(p); st != 0)
                ok = setup_failed("a worker ended with status " + std::to_string(st) + " (seed " + std::to_string(seed) + ")");
        if (site.remove_segment()) ADD_FAILURE() << "the workload left its shared segment behind";
        if (sh->overflow) ok = setup_failed("the event buffers overflowed: raise kMaxEvents, kArenaBytes or kMaxFiles");
        const uint32_t nops = sh->nticket.load();
        t->ev.assign(sh->ev, sh->ev + sh->nev);
        t->arena.assign(arena, sh->narena);
        t->ops.assign(sh->ops, sh->ops + std::min<uint32_t>(nops, kMaxOps));
        t->derive();
        for (size_t k = 0; k < t->ops.size() && ok; ++k)
            if (t->ops[k].op == 0) ok = setup_failed("ticket " + std::to_string(k + 1) + " was taken by no call");
        if (!ok) return false;
        // The whole trace replayed is the directory as the workload left it (journals aside).
        Builder b(*t);
        b.build(b.plan_at(t->ev.size()));
        std::vector<std::string> missed;
        for (const std::string& name : list_dir(site.dir())) {
            auto it = b.names().find(name);
            if (it == b.names().end()) missed.push_back(name + " (not created through the OS table)");
            else if (!mapped_file(name) && kt::slurp(site.path(name)) != b.content(it->second))
                missed.push_back(name + " (written outside the OS table)");
        }
        for (const auto& [name, f] : b.names())
            if (::access(site.path(name).c_str(), F_OK) != 0) missed.push_back(name + " (removed outside the OS table)");
        for (const std::string& m : missed) ADD_FAILURE() << "the recorder missed a change of " << m;
        if (!missed.empty()) return false;
        for (uint64_t point : {uint64_t(0), uint64_t(t->ev.size())}) {
            Tally tally[kModes]{};
            const Verdict v = run_image(*t, b, site, b.plan_at(point), tally);
            if (!v.pass || !v.exact)
                return setup_failed(std::string("the directory ") + (point ? "after" : "before") + " the workload fails: " + v.why +
                                    (v.exact ? "" : " (not the records of the calls made)"));
        }
        return true;
    }

    long images(const Trace& t, Site& site, uint64_t count, Tally* tally, bool assert_pass, bool between) {
        Builder b(t);
        long failures = 0;
        for (uint64_t n = 0; n < count; ++n) {
            const Image im = b.plan(n, count, between);
            const Verdict v = run_image(t, b, site, im, tally);
            if (between && v.pass && !v.exact) {
                ++failures;
                ADD_FAILURE() << "seed " << t.seed << " image " << n << ": every write kept up to a point between "
                              << "calls, yet " << v.prefix_len << " calls there where " << im.required << " had returned";
                continue;
            }
            if (v.pass) continue;
            if (++failures <= 5)
                std::printf("seed %" PRIu64 " image %" PRIu64 " (%s, cut after %" PRIu64 " of %zu events, %" PRIu64
                            " unsynced writes kept, %" PRIu64 " lost, torn %" PRId64 " at %" PRIu64 " (half %d), %u calls "
                            "returned): %s\n",
                            t.seed, n, kModeNames[im.mode], im.point, t.ev.size(), im.kept, im.lost, im.torn, im.torn_at,
                            im.torn_half, im.required, v.why.c_str());
            if (assert_pass && failures == 1)
                ADD_FAILURE() << "seed " << t.seed << " image " << n << " (" << kModeNames[im.mode] << "): " << v.why;
        }
        return failures;
    }

    // procs0: processes of the first run (later ones take 1 to 3); between: every image cut
    // just after a call returned, every write kept.
    void run(int procs0, int calls, bool durable, uint64_t images_default, bool between = false) {
        const bool report_only = env_u64("KISAM_CRASH_REPORT_ONLY", 0) != 0;
        const uint64_t total = env_u64("KISAM_CRASH_IMAGES", images_default);
        const uint64_t per_run = 5000;   // images from one workload run
        const uint64_t seed0 = kt::test_seed(durable ? 2410 : 2310);
        Tally tally[kModes]{};
        long failures = 0;
        const auto t0 = std::chrono::steady_clock::now();
        uint64_t done = 0;
        for (uint64_t r = 0; done < total; ++r) {
            const uint64_t count = std::min(per_run, total - done);
            kt::Config c;
            c.bits = static_cast<uint32_t>(env_u64("KISAM_CRASH_BITS", c.bits));
            Site site(c);
            Trace t;
            const uint64_t seed = seed0 + r;
            const int procs = r == 0 || between ? procs0 : 1 + static_cast<int>(r % 3);
            if (!record_run(site, seed, procs, calls, durable, &t)) return;
            std::printf("workload (seed %" PRIu64 "): %d processes, %zu calls (%u without a bracket), %zu events (%zu syncs), "
                            "%.1f MB written\n", seed, procs, t.ops.size(), sh->plain.load(), t.ev.size(), t.boundaries.size(),
                            t.arena.size() / 1e6);
            failures += images(t, site, count, tally, !report_only && failures == 0, between);
            done += count;
        }
        const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        print_figures(between ? "cut between calls, every write kept" : durable ? "durable mode" : "default mode", tally);
        std::printf("  %" PRIu64 " images in %.1f s; %ld failed\n", done, secs, failures);
        if (failures && report_only) std::printf("  (KISAM_CRASH_REPORT_ONLY: not counted as a test failure)\n");
    }
};

#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t kImages = 1000;
#else
constexpr uint64_t kImages = 2000;
#endif

TEST_F(CrashImage, DefaultMode) { run(3, 150, false, kImages); }

TEST_F(CrashImage, DurableMode) { run(2, 120, true, kImages); }

// A control of the simulation: one process, cut just after a call, every write kept,
// holds exactly the calls that returned.
TEST_F(CrashImage, ACutBetweenCallsWithEveryWriteKeptHoldsTheCallsThatReturned) {
    run(1, 150, false, 150, true);
}

}  // namespace
