// The log on disk: group commit of durable calls (isx_sync, README.log.md rule 10), the
// sync before a page is written back, and kisam_sync.
#include "lg_internal.h"

#include "is_live.h"
#include "os.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace kisam::lg;

namespace {

// The durable call this process owes a sync: the log and the LSN after its record.
int owed_u = -1;
uint64_t owed_end = 0;

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

// After a sync of the log failed, the kernel took the log's pages for clean and may have
// dropped them: the next sync would succeed without them.  So the header of the log's
// generation, and its records that end past `from`, up to `end`, are written again, as
// the log holds them now, before a sync counts.  A record no longer whole in the log means the disk and the cache both
// lost it: nothing can write it again, and no sync may say the log holds what follows
// it (-1, errno EIO, *gone set).  The file then never receives a page that the log lost
// (lg_wal refuses), and a replay stops where the log does: the file keeps a prefix of its
// calls -- unless the pool, which still holds them, reaches the file first (the caller
// takes the log for cut short).
int rewrite_records(int u, int fd, uint64_t from, uint64_t end, bool* gone) noexcept {
    isx_file* x = xfile(u);
    Buf b;
    int rc = -1;
    for (int tries = 0; tries < 3 && rc < 0; ++tries) {
        const uint32_t gen = at32(x->xf_log_gen).load(std::memory_order_acquire);
        const uint64_t start = at(x->xf_log_start).load(std::memory_order_acquire);
        uint64_t lsn = start;
        rc = 0;
        // The header first: a sync of it may have failed too (a checkpoint's, or the
        // first sync after a file entered the slot), and without it no record counts.
        // One the cache dropped leaves an older generation's (or none) in the log: the
        // generation's own is made again from the shared state, which is what it held.
        lg_head h;
        const bool have = read_head(fd, &h);
        const IS_FCP* fcp = kisam::pfo_fcp(u);
        if (have && h.lh_gen == gen && h.lh_start == start) {
            // as it is
        } else if ((!have || h.lh_gen < gen) && fcp) {
            std::memset(&h, 0, sizeof h);
            h.lh_gen = gen;
            h.lh_start = start;
            h.lh_dev = fcp->jd_dev;
            h.lh_ino = fcp->jd_ino;
            std::snprintf(h.lh_path, sizeof h.lh_path, "%s", kisam::isx_path(u));
        } else {
            rc = -1;
            lsn = end;
        }
        if (rc == 0 && write_head(fd, &h, false) != 0) {
            std::free(b.p);
            return -1;
        }
        while (lsn < end) {
            const uint32_t len = read_record(fd, gen, start, lsn, b);
            if (len == 0) {
                rc = -1;
                break;
            }
            if (lsn + len > from && kisam::os_pwrite_full(fd, b.p, len, kFirst + static_cast<off_t>(lsn - start)) != 0) {
                std::free(b.p);
                return -1;
            }
            lsn += len;
        }
        // A checkpoint that began the log's next generation meanwhile put every record
        // before it into the file: the walk starts again from the new start.
        if (rc < 0 && (at32(x->xf_log_gen).load(std::memory_order_acquire) == gen &&
                       at(x->xf_log_start).load(std::memory_order_acquire) == start))
            break;
    }
    std::free(b.p);
    if (rc < 0) {
        *gone = true;
        errno = EIO;
    }
    return rc;
}

// After a sync of log u (fd) that covered the records of generation gen, from start to
// end: whether the log still holds them.  A cut known already (xf_log_cut) counts: until
// the checkpoint it calls for has begun the log anew, zeros written again over the cut
// may make the log look whole while its records end at the cut.  Else the log's size
// tells (log_short): a cut that no store met leaves the log shorter than its records.
bool tail_lost(int u, int fd, uint32_t gen, uint64_t start, uint64_t end) noexcept {
    if (at32(xfile(u)->xf_log_cut).load(std::memory_order_acquire) != 0) return true;
    return log_short(u, fd, gen, start, end);
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
    const uint32_t gen = at32(x->xf_log_gen).load(std::memory_order_acquire);
    const uint64_t start = at(x->xf_log_start).load(std::memory_order_acquire);
    const uint64_t end = at(x->xf_log_end).load(std::memory_order_acquire);
    at(s->xs_target[i]).store(end, std::memory_order_release);
    struct timespec t0;
    ::clock_gettime(CLOCK_MONOTONIC, &t0);
    int rc = 0;
    const uint32_t failed = sync_failed(u).load(std::memory_order_acquire) & ISX_FAILED_LOG;
    bool gone = false;
    if (failed != 0 && rewrite_records(u, fd, at(x->xf_log_synced).load(std::memory_order_acquire), end, &gone) != 0) {
        // A record the cache dropped leaves the log as a cut would: the calls from it on
        // are in the pool alone, and the file's next changing call brings the pool into
        // the file (a checkpoint that does not trust the log) instead of every later sync
        // failing until the last close.
        if (gone) cut_short(u, fd);
        rc = fail(ISE_FLWT, 0x29);
    } else if (kisam::os_fdatasync(fd) != 0) {
        log_sync_failed(u);
        rc = fail(ISE_FLWT, 0x29);
    } else if (tail_lost(u, fd, gen, start, end)) {
        rc = fail(ISE_FLWT, 0x29);
    } else {
        if (failed != 0) {
            // Written again and synced: the log holds every record up to `end` -- unless
            // another sync failed meanwhile, which keeps its count.
            uint32_t v = sync_failed(u).load(std::memory_order_relaxed);
            while ((v & ISX_FAILED_LOG) == failed &&
                   !sync_failed(u).compare_exchange_weak(v, v & ~ISX_FAILED_LOG, std::memory_order_acq_rel)) {
            }
        }
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

void kisam::lg::log_sync_failed(int u) noexcept {
    auto f = sync_failed(u);
    uint32_t v = f.load(std::memory_order_relaxed);
    for (;;) {
        uint32_t n = v + ISX_FAILED_LOG_ONE;
        if ((n & ISX_FAILED_LOG) == 0) n += ISX_FAILED_LOG_ONE;
        if (f.compare_exchange_weak(v, n, std::memory_order_acq_rel)) return;
    }
}

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
    const int rc = lg_durable ? sync_to(u, owed_end, true) : 0;
    // The control lock given up and the call's record on disk (when it waits for it):
    // the right moment to keep the log's zeros ahead of its tail.
    extend_ahead(u);
    return rc;
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

extern "C" KISAM_API int kisam_sync(void) {
    if (!isam_com || !isx_area || !is_pfi) return 0;
    int rc = 0;
    for (int u = 0; u < isam_com->maxopen; ++u) {
        if (is_pfi[u].pfi_osfd < 0 || !kisam::pfo_fcp(u)) continue;
        if (lg_sync_to(u, at(xfile(u)->xf_log_end).load(std::memory_order_acquire)) != 0) rc = -1;
    }
    return rc;
}
