// Change counts and reads without the lock (README.reads.md): a file's holder makes its
// change count odd before it changes anything a reader without the lock may see, and the
// release makes it even; such a reader finds pages through this process's page index and
// checks what it read against the count.
#include "v_pool.h"
#include "v_internal.h"

#include "is_lock.h"
#include "os.h"
#include "test_hook.h"

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace kisam::pool {

namespace {

// Pages found by reads without the lock, not yet added to the shared hit count: added in
// batches, so that readers of one file do not all write one cache line per page.
uint32_t peek_hits = 0;
constexpr uint32_t kPeekFold = 4096;

}  // namespace

void peek_forget() noexcept { peek_hits = 0; }

void map_drop(int u) noexcept {
    if (!bk.map_base) return;
    const int from = u < 0 ? 0 : u, to = u < 0 ? bk.nopen : u + 1;
    for (int w = from; w < to && w < bk.nopen; ++w) {
        if (bk.map_base[w]) ::munmap(const_cast<char*>(bk.map_base[w]), bk.map_cap[w]);
        bk.map_base[w] = nullptr;
        bk.map_len[w] = 0;
        bk.map_cap[w] = 0;
        bk.map_last[w] = 0;
        bk.map_past[w] = 0;
        bk.map_rw[w] = 0;
    }
}

namespace {

// SIGBUS in a mapping.  A page past the file's end, or one the disk cannot read back,
// faults when touched through a mapping.  The library never maps past the end it
// measured and never shrinks an open data file, so such a fault comes from outside (a
// program that cut the file short, a failing disk) and must cost the read that met it,
// not the process: the reader's thread is armed (bus_target) over its accesses, and the
// handler sends it back to its sigsetjmp.  Every other SIGBUS belongs to the program.
//
// The handler runs with SA_NODEFER and an empty sa_mask, so entering it changes no
// signal mask: the jump (sigsetjmp(env, 0), no mask saved) leaves the thread's mask as it
// was when it armed, SIGBUS not blocked by the handler's entry.
struct ErrnoKeep {
    int e = errno;
    ~ErrnoKeep() { errno = e; }
};

struct sigaction bus_prev;                 // the disposition the library's handler replaced
std::atomic<bool> bus_installed{false};    // once per process (inherited across fork)
thread_local MappedRead* bus_target = nullptr;
thread_local int bus_file = -1;            // the mapping that faulted, for v_mapped_fault
// A store armed over another mapping of this process (v_mapped_arm_range, the redo
// log's): a fault in [bus_lo, bus_hi) is the armed thread's too.  Counts only while armed.
thread_local const char* bus_lo = nullptr;
thread_local const char* bus_hi = nullptr;

// The file slot whose mapping holds address a, or -1.  Reads only this process's tables,
// which change only between accesses, in the thread that reads (no allocation, no lock:
// safe in a signal handler).
int mapping_of(const void* a) noexcept {
    if (!bk.map_base) return -1;
    const char* p = static_cast<const char*>(a);
    for (int w = 0; w < bk.nopen; ++w) {
        const char* base = bk.map_base[w];
        if (base && p >= base && p < base + bk.map_cap[w]) return w;
    }
    return -1;
}

// A SIGBUS that is not the library's, handed on as the kernel would have delivered it
// to the disposition the library replaced: its handler with its mask and flags, or the
// default action (the process ends with the signal), or nothing for an ignored signal
// that a program sent (a fault cannot be ignored).
void bus_pass_on(int sig, siginfo_t* si, void* ctx) noexcept {
    const ErrnoKeep keep;  // the interrupted code's errno, whatever the calls below set
    const struct sigaction prev = bus_prev;
    const bool fault = si && si->si_code > 0 && si->si_code != SI_KERNEL;
    const bool handler = (prev.sa_flags & SA_SIGINFO)
                             ? prev.sa_sigaction != nullptr
                             : prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN;
    if (!handler) {
        if (prev.sa_handler == SIG_IGN && !(prev.sa_flags & SA_SIGINFO) && !fault) return;
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        sigemptyset(&dfl.sa_mask);
        ::sigaction(sig, &dfl, nullptr);
        ::raise(sig);  // not blocked (SA_NODEFER): the default action happens here
        return;        // a fault returns to the access, which faults again, fatally
    }
    if (prev.sa_flags & SA_RESETHAND) {
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        sigemptyset(&dfl.sa_mask);
        ::sigaction(sig, &dfl, nullptr);
    }
    sigset_t mask = prev.sa_mask, old;
    if (!(prev.sa_flags & SA_NODEFER)) sigaddset(&mask, sig);
    ::pthread_sigmask(SIG_BLOCK, &mask, &old);
    if (prev.sa_flags & SA_SIGINFO) prev.sa_sigaction(sig, si, ctx);
    else prev.sa_handler(sig);
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void on_bus(int sig, siginfo_t* si, void* ctx) noexcept {
    // A fault at an address in a mapping of ours (a signal sent by a program carries no
    // address), in a thread armed for it: only a read of a mapping, a write-back's store
    // into it, or a store armed over a range (the redo log's), touches one.
    if (si && (si->si_code == BUS_ADRERR || si->si_code == BUS_OBJERR || si->si_code == BUS_MCEERR_AR)) {
        const int w = mapping_of(si->si_addr);
        const char* a = static_cast<const char*>(si->si_addr);
        if (w >= 0 || (a >= bus_lo && a < bus_hi)) {
            if (MappedRead* r = bus_target) {
                bus_target = nullptr;
                bus_file = w;
                siglongjmp(r->env, 1);
            }
        }
    }
    bus_pass_on(sig, si, ctx);
}

// Installs the library's SIGBUS handler, once per process, before the first mapping.
// False when it cannot be installed: the file is then not mapped.
bool bus_install() noexcept {
    if (bus_installed.load(std::memory_order_acquire)) return true;
    struct sigaction sa {};
    sa.sa_sigaction = on_bus;
    sa.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    if (::sigaction(SIGBUS, &sa, &bus_prev) != 0) return false;
    bus_installed.store(true, std::memory_order_release);
    return true;
}

// A library unloaded (dlclose) must not leave SIGBUS to a handler whose code is gone: the
// disposition it replaced goes back, if the library's is still the one in place.
__attribute__((destructor)) void bus_uninstall() {
    if (!bus_installed.load(std::memory_order_acquire)) return;
    struct sigaction now {};
    if (::sigaction(SIGBUS, nullptr, &now) == 0 && (now.sa_flags & SA_SIGINFO) && now.sa_sigaction == on_bus)
        ::sigaction(SIGBUS, &bus_prev, nullptr);
}

// Misses past the mapping after which the file's size is measured again although its end
// did not move (the pages below the end reach the file by write-backs, later).
constexpr uint32_t kRemeasure = 256;

// Address space a mapping reserves past the file's size, so that a growing file is
// mostly measured again, not mapped again: a new mapping loses the page-table entries of
// the old one, and every page touched through it faults once more.
size_t map_reserve(size_t size) noexcept {
    constexpr size_t kMin = size_t{64} << 20, kAlign = size_t{2} << 20;
    const size_t want = size < kMin ? kMin : 2 * size;
    return (want + kAlign - 1) & ~(kAlign - 1);
}

// The bytes at [off, off + kPage) of file u (descriptor fd) through this process's
// mapping of the file, or null when the file does not hold them (or cannot be mapped).
// The mapping is writable when fd is this process's descriptor of a file it opened for
// writing (write-backs store through it: v_write.cpp), read-only otherwise; readers only
// read through it.  The mapping covers the file's size when it was made, and a file never
// shrinks while it is open (nothing cuts a data file back: a rollback only moves its end
// in the control page), so no access through it can fall past the end of the file.  It
// is made again, larger, when a page past it is asked for and the file's end moved (or
// after kRemeasure such pages).  Only [0, map_len) is ever read: the rest of the reserve
// (map_cap) lies past the file's end as measured, where an access would fault; a larger
// size within the reserve only moves map_len.
const char* map_page(int u, int fd, off_t off, PAGE last) noexcept {
    const size_t end = static_cast<size_t>(off) + kisam::kPage;
    if (end <= bk.map_len[u]) return bk.map_base[u] + off;
    if (bk.map_base[u] && bk.map_last[u] == last && ++bk.map_past[u] < kRemeasure) return nullptr;
    bk.map_last[u] = last;
    bk.map_past[u] = 0;
    struct stat st;
    if (fd < 0 || kisam::os.fstat(fd, &st) != 0 || st.st_size <= 0) return nullptr;
    const size_t size = static_cast<size_t>(st.st_size);
    if (size <= bk.map_len[u]) return nullptr;
    if (bk.map_base[u] && size <= bk.map_cap[u]) {
        bk.map_len[u] = size;
        return end <= size ? bk.map_base[u] + off : nullptr;
    }
    if (!bus_install()) return nullptr;
    const size_t cap = map_reserve(size);
    // One mapping for reads and write-backs, so that a page read in and later written
    // back costs one fault, not one in each of two mappings.
    const bool rw = is_pfi && fd == is_pfi[u].pfi_osfd && !(is_pfi[u].pfi_bits & PFI_RDONLY);
    void* p = rw ? ::mmap(nullptr, cap, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    const bool writable = p != MAP_FAILED;
    if (!writable) p = ::mmap(nullptr, cap, PROT_READ, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) return nullptr;
    if (bk.map_base[u]) ::munmap(const_cast<char*>(bk.map_base[u]), bk.map_cap[u]);
    bk.map_base[u] = static_cast<const char*>(p);
    bk.map_len[u] = size;
    bk.map_cap[u] = cap;
    bk.map_rw[u] = writable;
    return end <= size ? bk.map_base[u] + off : nullptr;
}

}  // namespace

char* map_for_store(int u, int fd, off_t off, PAGE last) noexcept {
    if (!bk.ok || !bk.map_base || u < 0 || u >= bk.nopen || off < 0) return nullptr;
    const size_t end = static_cast<size_t>(off) + kisam::kPage;
    // Past the size as measured but within the reserve: the write call that puts the
    // page there moves the size (map_reached), with no fstat per page of a growing file.
    if (bk.map_base[u] && end > bk.map_len[u] && end <= bk.map_cap[u]) return nullptr;
    const char* p = map_page(u, fd, off, last);
    return p && bk.map_rw[u] ? const_cast<char*>(p) : nullptr;
}

void map_reached(int u, size_t end) noexcept {
    if (!bk.ok || !bk.map_base || u < 0 || u >= bk.nopen || !bk.map_base[u]) return;
    if (end > bk.map_len[u] && end <= bk.map_cap[u]) bk.map_len[u] = end;
}

bool map_load(int u, int fd, off_t off, char* dst) noexcept {
    // Through the operating system's hooks when a test replaced them (as v_peek_file).
    if (kisam::os.pread != kisam::os_real.pread) return false;
    if (!bk.ok || !bk.map_base || u < 0 || u >= bk.nopen || !is_curfcp) return false;
    const PAGE last = std::atomic_ref<uint32_t>(is_curfcp->is_lastpage).load(std::memory_order_relaxed);
    const char* p = map_page(u, fd, off, last);
    if (!p) return false;
    // A fault (the file cut short from outside, a block the disk cannot read back)
    // drops the mapping and leaves the page to a read, which reports what is wrong.
    MappedRead armed;
    if (sigsetjmp(armed.env, 0) != 0) {
        v_mapped_fault();
        return false;
    }
    MappedRead** target = v_mapped_arm(&armed);
    std::memcpy(dst, p, kisam::kPage);
    v_mapped_disarm(target);
    ++v_map_loads;
    return true;
}

}  // namespace kisam::pool

using namespace kisam::pool;

void v_changing(IS_FCP* fcp, int u) noexcept {
    if (!isx_area || !fcp || u < 0 || u >= isam_com->maxopen) return;
    if (is_lock_has_seq(&fcp->jd_fcplock)) return;  // odd already, by this hold
    uint32_t* seq = &xfile(u)->xf_seq;
    std::atomic_ref<uint32_t> q(*seq);
    const uint32_t v = q.load(std::memory_order_relaxed);
    if (!(v & 1)) q.store(v + 1, std::memory_order_relaxed);
    // Nothing that follows may become visible before the odd count.
    std::atomic_thread_fence(std::memory_order_release);
    is_lock_set_seq(&fcp->jd_fcplock, seq);
}

void v_seq_adopt(IS_FCP* fcp, int u) noexcept {
    if (!isx_area || !fcp || u < 0 || u >= isam_com->maxopen) return;
    uint32_t* seq = &xfile(u)->xf_seq;
    if (std::atomic_ref<uint32_t>(*seq).load(std::memory_order_acquire) & 1)
        is_lock_set_seq(&fcp->jd_fcplock, seq);
}

bool v_peek_ready(int u) noexcept {
    return bk.com == isam_com && bk.shmid == is_shmid && bk.ok && u >= 0 && u < bk.nopen;
}

namespace {

// Whether near is looked at: only while it names the slot of at least half of the pages
// asked for.  A reader whose pages mostly lie past the pool would pay a look at a large
// array per page for nothing; while off, one call in 16 looks, so that it comes back
// when the pages come into the pool.
bool near_off = false;
uint32_t near_calls = 0, near_looks = 0, near_hits = 0;
constexpr uint32_t kNearJudge = 1024;

inline void near_judge() noexcept {
    if (++near_looks < kNearJudge) return;
    near_off = near_hits * 2 < near_looks;
    near_looks = near_hits = 0;
}

// Notes that slot s held page pno of u (near).
__attribute__((noinline)) void near_note(int u, PAGE pno, int s) noexcept {
    const uint32_t pi = pno / kisam::kPage;
    if (pi >= kNearMax) return;
    if (pi >= bk.near_len[u]) {
        uint32_t len = bk.near_len[u] ? 2 * bk.near_len[u] : 1024;
        while (len <= pi) len *= 2;
        if (len > kNearMax) len = kNearMax;
        auto* n = static_cast<uint16_t*>(std::realloc(bk.near[u], len * sizeof(uint16_t)));
        if (!n) return;
        std::memset(n + bk.near_len[u], 0, (len - bk.near_len[u]) * sizeof(uint16_t));
        bk.near[u] = n;
        bk.near_len[u] = len;
    }
    bk.near[u][pi] = static_cast<uint16_t>(s + 1);
}

}  // namespace

const IS_DATA* v_peek(int u, PAGE pno, PeekMark* m, int ask) noexcept {
    // The slot this process last found the page in, when it still carries the page's tag
    // (the stamp, as below, before the tag).
    const uint32_t pi = pno / kisam::kPage;
    const bool look = !near_off || (++near_calls & 15) == 0;
    if (look && pi < bk.near_len[u]) {
        const int s = static_cast<int>(bk.near[u][pi]) - 1;
        if (s >= 0) {
            IS_BUF* b = slot(s);
            v_peek_ask(b->bu_data.c, ask);
            const uint32_t stamp = std::atomic_ref<uint32_t>(b->bu_wcnt).load(std::memory_order_acquire);
            const PAGE p = std::atomic_ref<uint32_t>(b->bu_pno).load(std::memory_order_acquire);
            const uint16_t id = std::atomic_ref<uint16_t>(b->bu_id).load(std::memory_order_relaxed);
            if (p == pno && (id & BU_FILEMASK) == u) {
                *m = PeekMark{s, stamp, pno};
                ++near_hits;
                near_judge();
                ref_set(s);
                if (++peek_hits == kPeekFold) v_peek_fold();
                return &b->bu_data;
            }
            // The slot has another page now: not looked at again for this one (a page
            // past the pool would cost that slot's line at every read).
            bk.near[u][pi] = 0;
        }
    }
    if (look) near_judge();
    // The index names at most one slot for (u, pno); that slot is the page when its tag
    // says so (rule 1).  A stale entry sends the reader to the locked path, which mends
    // the index; this path leaves the index as it is.
    const uint64_t key = page_key(u, pno);
    for (uint32_t i = home_of(key);; i = (i + 1) & bk.mask) {
        const uint64_t e = bk.tab[i];
        if (e == kEmpty) return nullptr;
        if (entry_key(e) != key) continue;
        const int s = entry_slot(e);
        IS_BUF* b = slot(s);
        // The page's lines are on their way while the tag is checked: nearly always the
        // page is the one asked for.
        v_peek_ask(b->bu_data.c, ask);
        // The stamp before the tag: a load that begins after the tag was read changes the
        // stamp from the value taken here (v_peek_still_all).
        const uint32_t stamp = std::atomic_ref<uint32_t>(b->bu_wcnt).load(std::memory_order_acquire);
        const PAGE p = std::atomic_ref<uint32_t>(b->bu_pno).load(std::memory_order_acquire);
        const uint16_t id = std::atomic_ref<uint16_t>(b->bu_id).load(std::memory_order_relaxed);
        if (p != pno || (id & BU_FILEMASK) != u) return nullptr;
        *m = PeekMark{s, stamp, pno};
        near_note(u, pno, s);
        // The reference byte keeps the clock's meaning (a page in use is passed over);
        // it is written only when a hand has cleared it, not at every read.
        ref_set(s);
        if (++peek_hits == kPeekFold) v_peek_fold();
        return &b->bu_data;
    }
}

const IS_DATA* v_peek_again(int u, const PeekMark& m, int ask) noexcept {
    if (!valid_slot(m.slot)) return nullptr;
    IS_BUF* b = slot(m.slot);
    v_peek_ask(b->bu_data.c, ask);
    // As v_peek: the stamp before the tag.
    const uint32_t stamp = std::atomic_ref<uint32_t>(b->bu_wcnt).load(std::memory_order_acquire);
    const PAGE p = std::atomic_ref<uint32_t>(b->bu_pno).load(std::memory_order_acquire);
    const uint16_t id = std::atomic_ref<uint16_t>(b->bu_id).load(std::memory_order_relaxed);
    if (p != m.pno || (id & BU_FILEMASK) != u || stamp != m.stamp) return nullptr;
    ref_set(m.slot);
    if (++peek_hits == kPeekFold) v_peek_fold();
    return &b->bu_data;
}

const char* v_peek_guess(int u, PAGE pno, int in) noexcept {
    if (bk.com != isam_com || !bk.ok || u < 0 || u >= bk.nopen) return nullptr;
    if (in < 0) {
        const int pos = index_pos(page_key(u, pno));
        if (pos >= 0) in = entry_slot(bk.tab[pos]);
    }
    if (valid_slot(in)) return slot(in)->bu_data.c;
    const char* base = bk.map_base[u];
    const IS_FCP* fcp = is_curfcp;
    if (!base || !fcp || pno == 0 || pno % kisam::kPage != 0) return nullptr;
    const off_t off = v_fileoffset(fcp, pno);
    if (off < 0 || static_cast<size_t>(off) + kisam::kPage > bk.map_len[u]) return nullptr;
    return base + off;
}

void v_peek_prefetch(int u, PAGE pno, int ask) noexcept {
    if (const char* p = v_peek_guess(u, pno)) v_peek_ask(p, ask);
}

namespace {
inline bool still_one(IS_BUF* bufs, int u, const PeekMark& m) noexcept {
    IS_BUF* b = bufs + m.slot;
    const PAGE p = std::atomic_ref<uint32_t>(b->bu_pno).load(std::memory_order_acquire);
    const uint16_t id = std::atomic_ref<uint16_t>(b->bu_id).load(std::memory_order_relaxed);
    const uint32_t stamp = std::atomic_ref<uint32_t>(b->bu_wcnt).load(std::memory_order_relaxed);
    return p == m.pno && (id & BU_FILEMASK) == u && stamp == m.stamp;
}
}  // namespace

bool v_peek_still_all(int u, const PeekMark* m, int n) noexcept {
    IS_BUF* bufs = slot(0);
    // Every mark is checked, with no branch between them: nearly always all hold.
    bool ok = true;
    for (int i = 0; i < n; ++i) ok &= still_one(bufs, u, m[i]);
    return ok;
}

int v_peek_learn(int u) noexcept {
    if (bk.com != isam_com || bk.shmid != is_shmid || !bk.ok || u < 0 || u >= bk.nopen) return 0;
    return learn_unlocked(u);
}

unsigned long v_file_reads = 0;
unsigned long v_map_loads = 0;

const IS_DATA* v_peek_file(int u, PAGE pno) noexcept {
    // Pages read through the operating system's hooks when a test replaced them, so that
    // its injected failures reach every page read.
    if (kisam::os.pread != kisam::os_real.pread) return nullptr;
    if (bk.com != isam_com || !bk.ok || u < 0 || u >= bk.nopen || !is_curfcp || current_file() != u) return nullptr;
    const IS_FCP* fcp = is_curfcp;
    const PAGE last = std::atomic_ref<uint32_t>(const_cast<IS_FCP*>(fcp)->is_lastpage).load(std::memory_order_relaxed);
    if (pno == 0 || pno % kisam::kPage != 0 || pno >= last || pno > KISAM_NOPAGE - kisam::kPage) return nullptr;
    const off_t off = v_fileoffset(fcp, pno);
    if (off < 0) return nullptr;
    const char* p = map_page(u, is_curpfi->pfi_osfd, off, last);
    if (!p) return nullptr;
    ++v_file_reads;
    return reinterpret_cast<const IS_DATA*>(p);
}

unsigned long v_map_faults = 0;

MappedRead** v_mapped_arm(MappedRead* r) noexcept {
    MappedRead** t = &bus_target;
    *t = r;
    // The handler must see the target before any access it covers.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return t;
}

void v_mapped_arm_range(MappedRead* r, const void* lo, size_t len) noexcept {
    bus_lo = static_cast<const char*>(lo);
    bus_hi = bus_lo + len;
    v_mapped_arm(r);
}

bool v_mapped_install() noexcept { return bus_install(); }

void v_mapped_disarm() noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    bus_target = nullptr;
}

void v_mapped_fault() noexcept {
    ++v_map_faults;
    const int w = bus_file;
    bus_file = -1;
    if (w >= 0) map_drop(w);
}

bool v_peek_maybe_cached(int u, PAGE pno) noexcept {
    if (bk.com != isam_com || bk.shmid != is_shmid || !bk.ok || u < 0 || u >= bk.nopen || !knows(u)) return true;
    const uint32_t now = chaingen(u);
    const uint32_t behind = now - bk.known_gen[u];
    if (behind > isx_area->xh_log_len) return true;
    int16_t* log = kisam::isx_log(u);
    for (uint32_t g = bk.known_gen[u] + 1; g != now + 1; ++g) {
        const int s = std::atomic_ref<int16_t>(log[g & log_mask()]).load(std::memory_order_relaxed);
        if (!valid_slot(s)) continue;
        IS_BUF* b = slot(s);
        if (std::atomic_ref<uint32_t>(b->bu_pno).load(std::memory_order_relaxed) == pno &&
            (std::atomic_ref<uint16_t>(b->bu_id).load(std::memory_order_relaxed) & BU_FILEMASK) == u)
            return true;
    }
    return false;
}

int v_fetch_unlocked(PAGE pno, IS_DATA* img, uint32_t* seq) noexcept {
    IS_FCP* fcp = is_curfcp;
    const IS_PFI* pfi = is_curpfi;
    const int u = current_file();
    if (!isx_area || u < 0 || u >= isam_com->maxopen) return -1;
    const uint32_t q = std::atomic_ref<uint32_t>(xfile(u)->xf_seq).load(std::memory_order_acquire);
    if (q & 1) return -1;
    const PAGE last = std::atomic_ref<uint32_t>(fcp->is_lastpage).load(std::memory_order_relaxed);
    if (pno == 0 || pno % kisam::kPage != 0 || pno >= last || pno > KISAM_NOPAGE - kisam::kPage) return -1;
    const off_t off = v_fileoffset(fcp, pno);
    if (off < 0 || pfi->pfi_osfd < 0) return -1;
    if (!map_load(u, pfi->pfi_osfd, off, img->c) &&
        kisam::os_pread_full(pfi->pfi_osfd, img->c, kisam::kPage, off) != kisam::kPage)
        return -1;
    if (kisam::test_hook) kisam::test_hook(kisam::kHookFetch, u);
    *seq = q;
    return 0;
}

void v_peek_fold(void) noexcept {
    if (peek_hits == 0 || !isam_com || bk.com != isam_com) {
        peek_hits = 0;
        return;
    }
    std::atomic_ref<uint32_t>(isam_com->hit).fetch_add(peek_hits, std::memory_order_relaxed);
    peek_hits = 0;
}
