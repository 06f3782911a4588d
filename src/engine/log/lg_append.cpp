// The log's records: what a commit, a steal and a rollback's compensation append, each
// page whole or as the bytes that changed, and the header a file's first open writes.
#include "lg_internal.h"

#include "fcp.h"
#include "jn.h"
#include "os.h"
#include "v_pool.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fcntl.h>
#include <setjmp.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kisam::lg;

namespace {
Buf rec_buf;  // the record being built
}  // namespace

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
    at32(x->xf_log_cut).store(0);  // what a cut took was the slot's previous file's
    at32(x->xf_sync_failed).store(0);  // so were the syncs that failed (its log was replayed)
    // What is known of the log file itself stays: it is the same file.
    const uint64_t z = zeros(u).load();
    std::memset(kisam::isx_sync_of(u), 0, sizeof(isx_sync));
    zeros(u).store(z);
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
    jn_change chg;  // what the unit noted of its changes since `before`
};

// The pages of a record: an array, or (for a rollback's compensation, which must not
// allocate) the journal's images read one by one.
struct Pages {
    const PageArg* arr = nullptr;
    lg_page_at at = nullptr;
    const void* ctx = nullptr;
    PageArg operator[](int i) const noexcept {
        if (arr) return arr[i];
        PageArg a{0, nullptr, nullptr, -1, kJnAnywhere};
        at(ctx, i, &a.pno, &a.data);
        return a;
    }
};

// Whether log u (fd) ends before `at_off`, where a record written with pwrite is to go:
// another program cut it short.  Such a write would succeed and leave a hole that every
// replay stops at, so the call fails as one whose store met the cut (cut_short).  A store
// through the mapping needs no such look: past the cut's page it faults.
bool cut_below(int u, int fd, off_t at_off) noexcept {
    struct stat st;
    if (kisam::os.fstat(fd, &st) != 0 || st.st_size >= at_off) return false;
    cut_short(u, fd);
    return true;
}

// Builds and appends one record of file u: the pages (whole, or the bytes that changed
// when rule 3 allows), with `befores` also the before-images, and with `fcp_too` the
// control page.  0 with *end_lsn set, or -1 with the error raised (nothing appended).
//
// The record is built where it will lie in the log, through the log's mapping, when the
// largest record these pages can make fits below the log's known zeros (mapped_room):
// no copy, no system call.  Otherwise it is built in rec_buf and stored once the zeros
// reach its end -- through the mapping if it fits there then, else with pwrite.  Either
// way the record is invalid (its checksum field 0) until it is complete, and the unit
// knows where it ends (jn_committing) before it can become valid, so that whoever rolls
// the call back finds it (lg_undo_tail).
int build(IS_FCP* fcp, int u, int fd, const Pages& pages, int n, uint16_t flags, bool befores, bool fcp_too,
          uint64_t* end_lsn) noexcept {
    isx_file* x = xfile(u);
    const uint64_t start = at(x->xf_log_start).load(std::memory_order_relaxed);
    const uint64_t lsn = at(x->xf_log_end).load(std::memory_order_relaxed);
    const off_t at_off = kFirst + static_cast<off_t>(lsn - start);
    const size_t most = sizeof(lg_rec) + static_cast<size_t>(n) * (befores ? 2 : 1) * (sizeof(lg_ent) + kisam::kPage) +
                        sizeof(lg_ent) + round8(kisam::kFcpImage);
    const bool in_place = static_cast<uint64_t>(at_off) + most <= mapped_room(u);
    char* const base = in_place ? fds.map[u] + at_off : rec_buf.fit(most) ? rec_buf.p : nullptr;
    if (!base) return fail(ISE_FLWT, 0x28);
    char* p = base + sizeof(lg_rec);
    uint32_t nent = 0;
    for (int i = 0; i < n; ++i) {
        const PageArg a = pages[i];
        const uint64_t off = static_cast<uint64_t>(v_fileoffset(fcp, a.pno));
        const auto* now = reinterpret_cast<const unsigned char*>(a.data->c);
        const uint64_t mark = a.slot >= 0 ? *kisam::isx_lsn(a.slot) : ISX_LSN_FULL;
        // A page logged whole in this generation, and held by this slot since, needs only
        // what the call changed (rule 3).
        if (!befores && a.before && !(mark & ISX_LSN_FULL) && mark > start) {
            const auto* was = reinterpret_cast<const unsigned char*>(a.before->c);
            p = put_delta(p, &nent, off, was, now, fcp, a.chg);
            continue;
        }
        p = befores ? put_whole(p, &nent, off, kPageEntry, now, kisam::kPage) : put_fresh(p, &nent, off, now);
        if (befores && a.before)
            p = put_whole(p, &nent, off, kBeforeEntry, reinterpret_cast<const unsigned char*>(a.before->c),
                          kisam::kPage);
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
        unsigned char was[kisam::kFcpImage];
        if (x->xf_log_fcpgen == x->xf_log_gen && jn_unit_fcp(fcp, was)) {
            was[ob] = static_cast<unsigned char>(was[ob] & ~ISO_CHANGED);
            p = put_part(p, &nent, 0, kControlEntry, was, img, kisam::kFcpImage);
        } else {
            p = put_whole(p, &nent, 0, kControlEntry, img, kisam::kFcpImage);
        }
    }
    lg_rec* r = reinterpret_cast<lg_rec*>(base);
    const uint32_t len = static_cast<uint32_t>(p - base);
    r->lr_magic = kRecMagic;
    r->lr_len = len;
    r->lr_lsn = lsn;
    r->lr_sum = 0;
    r->lr_gen = x->xf_log_gen;
    r->lr_nent = static_cast<uint16_t>(nent);
    r->lr_flags = flags;
    const uint64_t sum = checksum(base, len);
    const uint64_t end = lsn + len;
    // Whoever finds this call's unit after a death must know whether it committed, and
    // where a record that may be valid ends: noted before the record can be valid.
    if (!(flags & kUnitOpen)) jn_committing(end);
    int rc;
    if (in_place) {
        // The entries are in place; the header, stored last with its checksum, makes the
        // record valid.  A process that dies before that store leaves no record.
        lg_rec h = *r;
        h.lr_sum = sum;
        rc = kisam::os.mstore(fd, fds.map[u], at_off + static_cast<off_t>(sizeof h), base + sizeof h, len - sizeof h);
        if (rc == 0) rc = kisam::os.mstore(fd, fds.map[u], at_off, &h, sizeof h);
    } else {
        // Built aside: stored whole, once the zeros reach its end.
        r->lr_sum = sum;
        if (extend(u, fd, at_off + len) != 0)
            rc = -1;
        else if (static_cast<uint64_t>(at_off) + len <= mapped_room(u))
            rc = kisam::os.mstore(fd, fds.map[u], at_off, base, len);
        else if (cut_below(u, fd, at_off))
            return fail(ISE_FLWT, 0x2B);
        else
            rc = kisam::os_pwrite_full(fd, base, len, at_off);
    }
    if (rc != 0) return fail(ISE_FLWT, 0x28);
    if (pages.arr)
        for (int i = 0; i < n; ++i)
            if (pages.arr[i].slot >= 0) *kisam::isx_lsn(pages.arr[i].slot) = end;
    if (fcp_too) x->xf_log_fcpgen = x->xf_log_gen;  // the control page is in this generation
    at(x->xf_log_end).store(end, std::memory_order_release);
    static const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    const uint64_t tail_page = static_cast<uint64_t>(at_off + len) / page * page;
    uint64_t& kept = fds.mapped_lo[u];
    if (tail_page < kept) kept = tail_page;  // a new generation: the log's start again
    // The disk starts on the log now, a megabyte at a time, so that a sync (a checkpoint,
    // a durable call, a page written back) finds little left to do.  What this process
    // maps of it behind the tail's page is dropped first: a page written out while a
    // process maps it writable is write-protected in every processor's TLB and faults at
    // its next store (ten times the cost of the store itself here), one nobody maps is not.
    // Both are taken a megabyte of the file at a time, at the megabyte boundaries of its
    // offsets, where the zeros written ahead put the page cache's folios: a folio the
    // disk is started on while the tail still lies in it would be write-protected whole,
    // and every 4 KiB page of it would fault again at its next store.
    const uint64_t rec_lo = static_cast<uint64_t>(at_off), rec_hi = rec_lo + len;
    if ((rec_lo >> 20) != (rec_hi >> 20)) {
        const uint64_t to = rec_hi >> 20 << 20;   // the tail's megabyte begins here
        const uint64_t lo = std::max<uint64_t>(to - (uint64_t{1} << 20), kFirst);
        if (fds.map[u] && tail_page > kept) {
            const uint64_t drop_to = std::min(to, static_cast<uint64_t>(fds.window));
            if (drop_to > kept) kisam::os_map_drop(fds.map[u], kept, drop_to - kept);
            kept = std::max(kept, drop_to);
        }
        if (to > lo) ::sync_file_range(fd, static_cast<off_t>(lo), static_cast<off_t>(to - lo), SYNC_FILE_RANGE_WRITE);
    } else if (fds.map[u] && tail_page > kept + (uint64_t{2} << 20)) {
        // Another process had the disk start on what this one stored earlier: dropped
        // now, so that the next generation finds it unmapped.  Never past the window:
        // what lies beyond it is another mapping of this process.
        const uint64_t drop_to = std::min(tail_page, static_cast<uint64_t>(fds.window));
        if (drop_to > kept) kisam::os_map_drop(fds.map[u], kept, drop_to - kept);
        kept = tail_page;
    }
    if (end_lsn) *end_lsn = end;
    return 0;
}

// A store into the log's mapping faults (SIGBUS) where the log has no page any more: the
// log cut short by another program, or a page of it the disk cannot read back.  The
// stores are armed (a few stores of this thread, no system call) so that such a fault
// fails the call: its record never became valid (the header, stored last, is what makes
// it so, and a fault stops the stores before it), and the rollback that follows makes
// sure of it (lg_undo_tail, by pwrite then).  The file is checkpointed by its next
// changing call (cut_short): the records past the cut are gone.
int append(IS_FCP* fcp, int u, const Pages& pages, int n, uint16_t flags, bool befores, bool fcp_too,
           uint64_t* end_lsn) noexcept {
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    if (!armable(u)) return build(fcp, u, fd, pages, n, flags, befores, fcp_too, end_lsn);
    char* const map = fds.map[u];
    MappedRead armed;
    if (sigsetjmp(armed.env, 0) != 0) {
        cut_short(u, fd);
        return fail(ISE_FLWT, 0x2B);
    }
    v_mapped_arm_range(&armed, map, fds.window);
    const int rc = build(fcp, u, fd, pages, n, flags, befores, fcp_too, end_lsn);
    v_mapped_disarm();
    return rc;
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

// Room for a record of 512 pages (a unit's journal table holds as many before it grows),
// with their before-images, and the control page: calls that change more grow the
// buffers (rarely).  About 1 MiB, which the allocator maps and the system backs only as
// far as records reach.
bool call_buffers_ready() noexcept {
    constexpr int kPages = 512;
    return page_args(kPages) != nullptr &&
           rec_buf.fit(sizeof(lg_rec) + kPages * 2 * (sizeof(lg_ent) + kisam::kPage) + sizeof(lg_ent) + kisam::kFcpImage);
}

}  // namespace

int lg_commit(IS_FCP* fcp, int u, const int16_t* slots, int n, uint64_t* end_lsn) noexcept {
    PageArg* a = page_args(n);
    if (!a && n > 0) return fail(ISE_FLWT, 0x28);
    for (int i = 0; i < n; ++i) {
        const IS_BUF* b = is_env.buf_ + slots[i];
        // The slots' log marks lie apart from the slots, in a table of every slot: asked
        // for now, they are there by the time the pages have been compared.
        __builtin_prefetch(kisam::isx_lsn(slots[i]), 1);
        a[i].pno = b->bu_pno;
        a[i].data = &b->bu_data;
        a[i].before = jn_before(b->bu_pno, &a[i].chg);
        a[i].slot = slots[i];
    }
    return append(fcp, u, Pages{a}, n, 0, false, true, end_lsn);
}

int lg_steal(IS_FCP* fcp, int u, int s) noexcept {
    const IS_BUF* b = is_env.buf_ + s;
    const PageArg a{b->bu_pno, &b->bu_data, jn_before(b->bu_pno), -1, kJnAnywhere};
    uint64_t end = 0;
    // Outside a unit nothing can be undone: the page is simply committed alone.
    const bool open = jn_active();
    if (append(fcp, u, Pages{&a}, 1, open ? kUnitOpen : 0, open, !open, &end) != 0) return -1;
    if (open) jn_stole();
    *kisam::isx_lsn(s) = end | ISX_LSN_FULL;
    return lg_sync_to(u, end);
}

int lg_compensate(IS_FCP* fcp, int u, int n, lg_page_at at, const void* ctx) noexcept {
    Pages p;
    p.at = at;
    p.ctx = ctx;
    return append(fcp, u, p, n, 0, false, true, nullptr);
}

int lg_relog(IS_FCP* fcp, int u) noexcept {
    isx_file* x = xfile(u);
    if (at32(x->xf_log_cut).load(std::memory_order_acquire) == 0) return 0;
    const int fd = log_fd(u);
    if (fd < 0) return fail(ISE_OPENF, 0x26);
    // The next generation, from the log's end: what the cut left of the records before
    // it never counts again.  Its header first, on disk, then the pages.
    lg_head h;
    std::memset(&h, 0, sizeof h);
    h.lh_gen = x->xf_log_gen + 1;
    h.lh_start = at(x->xf_log_end).load(std::memory_order_relaxed);
    h.lh_dev = fcp->jd_dev;
    h.lh_ino = fcp->jd_ino;
    std::snprintf(h.lh_path, sizeof h.lh_path, "%s", kisam::isx_path(u));
    if (write_head(fd, &h, true) != 0) {
        // As for a checkpoint's header: it may be in the log all the same, and then the
        // records that follow must carry its generation.  The cut stays known.
        lg_head now;
        if (read_head(fd, &now) && now.lh_gen == h.lh_gen) {
            x->xf_log_gen = h.lh_gen;
            at(x->xf_log_start).store(h.lh_start);
        }
        log_sync_failed(u);  // the header may be in the cache only
        return fail(ISE_FLWT, 0x2A);
    }
    x->xf_log_gen = h.lh_gen;
    at(x->xf_log_start).store(h.lh_start);
    // Every page of the file in the pool, whole (no before-image given), a batch a
    // record; the control page with each.  Their slots' log marks follow the records, so
    // that none is written back before its record is on disk.  The cut stays known
    // until every batch is in: a log that holds part of the pool must not pass for one
    // that holds what the file lacks.
    struct Batch {
        IS_FCP* fcp;
        int u, n, rc;
        PageArg a[256];
        int flush() noexcept {
            if (rc == 0 && append(fcp, u, Pages{a}, n, 0, false, true, nullptr) != 0) rc = -1;
            n = 0;
            return rc;
        }
    };
    Batch b;
    b.fcp = fcp;
    b.u = u;
    b.n = 0;
    b.rc = 0;
    v_file_slots(fcp, u, [](void* arg, int s) noexcept {
        Batch* bt = static_cast<Batch*>(arg);
        const IS_BUF* buf = is_env.buf_ + s;
        bt->a[bt->n++] = PageArg{buf->bu_pno, &buf->bu_data, nullptr, s, kJnAnywhere};
        return bt->n == 256 ? bt->flush() : 0;
    }, &b);
    if (b.rc != 0 || b.flush() != 0) return -1;
    at32(x->xf_log_cut).store(0, std::memory_order_release);
    return lg_sync_to(u, at(x->xf_log_end).load(std::memory_order_acquire));
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
    // The same way the record went: a header the mapping holds is zeroed through it --
    // armed, as the record was stored (append): where the mapping faults, by pwrite.
    int rc;
    if (static_cast<uint64_t>(off) + sizeof zero <= mapped_room(u) && armable(u)) {
        MappedRead armed;
        if (sigsetjmp(armed.env, 0) != 0) {
            cut_short(u, fd);
            rc = kisam::os_pwrite_full(fd, &zero, sizeof zero, off);
        } else {
            v_mapped_arm_range(&armed, fds.map[u], fds.window);
            rc = kisam::os.mstore(fd, fds.map[u], off, &zero, sizeof zero);
            v_mapped_disarm();
        }
    } else {
        rc = kisam::os_pwrite_full(fd, &zero, sizeof zero, off);
    }
    if (rc != 0) return fail(ISE_FLWT, 0x28);
    return 0;
}

bool lg_ready(void) noexcept { return call_buffers_ready(); }
