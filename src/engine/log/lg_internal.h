// What the files of the redo log share (lg.h is the log's contract with its callers; the
// rules are in README.log.md).  Only lg_*.cpp (and the log's own tests) include this.
//
// File layout ("<lock file>.w<u>", machine byte order):
//   0     lg_head, the header of the generation in use, in one of two 512-byte copies
//         (generation g at (g % 2) * 512): a header torn by a crash leaves the other
//   1024  records, back to back: lg_rec, then lr_nent entries (lg_ent and its bytes,
//         rounded up to 8); the record at LSN l lies at 1024 + (l - lh_start)
// A checkpoint starts a new generation at the LSN where the old one ended; records of
// an older generation that remain past the new ones are never valid again (their
// generation and their LSN both disagree).
#pragma once

#include "lg.h"

#include "is_error.h"
#include "isx_area.h"
#include "jn.h"
#include "layout.h"

#include <atomic>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/types.h>

namespace kisam::lg {

constexpr uint32_t kHeadMagic = 0x3148574Bu;  // "KWH1"
constexpr uint32_t kRecMagic = 0x3152574Bu;   // "KWR1"
// Version 2 added move entries (kMoveEntry); a log of version 1 holds none and is
// replayed as it is.
constexpr uint32_t kVersion = 2;
constexpr uint32_t kOldestVersion = 1;
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

enum : uint32_t { kPageEntry = 0, kControlEntry = 1, kBeforeEntry = 2, kMoveEntry = 3 };
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

// A move entry (kMoveEntry, le_len 8): lm_len bytes of the page at le_off, from byte
// lm_from on, copied to byte le_at on, as the page is when the entry is applied (the
// two ranges may overlap).  The entries after it in the record apply to the page moved.
struct lg_move {
    uint16_t lm_from;             //  0-1
    uint16_t lm_len;              //  2-3
    uint32_t lm_pad;              //  4-7   0
};
KISAM_RECORD(lg_move, 8);

inline size_t round8(size_t n) { return (n + 7) & ~size_t{7}; }

// The first byte in [lo, hi) at which a and b differ (hi when none does), and one past
// the last (lo when none does): eight bytes at a time, then the rest one by one.
inline int first_diff(const unsigned char* a, const unsigned char* b, int lo, int hi) noexcept {
    if constexpr (std::endian::native == std::endian::little) {
        for (; lo + 8 <= hi; lo += 8) {
            const uint64_t d = kisam::load_at<uint64_t>(a + lo) ^ kisam::load_at<uint64_t>(b + lo);
            if (d) return lo + (std::countr_zero(d) >> 3);
        }
    }
    while (lo < hi && a[lo] == b[lo]) ++lo;
    return lo;
}
inline int last_diff(const unsigned char* a, const unsigned char* b, int lo, int hi) noexcept {
    if constexpr (std::endian::native == std::endian::little) {
        for (; hi - 8 >= lo; hi -= 8) {
            const uint64_t d = kisam::load_at<uint64_t>(a + hi - 8) ^ kisam::load_at<uint64_t>(b + hi - 8);
            if (d) return hi - (std::countl_zero(d) >> 3);
        }
    }
    while (hi > lo && a[hi - 1] == b[hi - 1]) --hi;
    return hi;
}

// The entries of a record that say what changed in a page (lg_delta.cpp).  Each writes
// its entries at p, adds their number to *nent and returns the end; none writes more than
// one entry of the whole page (16 + kPage bytes) would take.
//
// Page `now` of file offset off against `was`, the page the entries apply to: the runs of
// bytes that differ, and, with `shift`, the items that moved `shift` bytes as one move.
char* put_delta(char* p, uint32_t* nent, uint64_t off, const unsigned char* was, const unsigned char* now,
                int shift) noexcept;
// The same for a page whose changes since `was` the unit noted (jn_change): only the
// noted blocks are compared, and a noted move is taken as it is; with nothing noted
// (kJnAnywhere), put_delta with the move guessed by item_shift.
char* put_delta(char* p, uint32_t* nent, uint64_t off, const unsigned char* was, const unsigned char* now,
                const IS_FCP* fcp, const jn_change& chg) noexcept;
// The first len bytes of now against was, as entries of `kind` (the control page).
char* put_part(char* p, uint32_t* nent, uint64_t off, uint32_t kind, const unsigned char* was,
               const unsigned char* now, int len) noexcept;
// Page `page` whole in effect: entries that give every byte whatever the page held --
// where it has a long run of zeros, its bytes around them and the zeros copied onward
// from a few of them, else the page whole.  For a commit's record only: a record that
// leaves its call open holds each page as one entry (replay pairs it with the
// before-image that follows).
char* put_fresh(char* p, uint32_t* nent, uint64_t off, const unsigned char* page) noexcept;
// The first len bytes of `bytes`, whole.
char* put_whole(char* p, uint32_t* nent, uint64_t off, uint32_t kind, const unsigned char* bytes, int len) noexcept;
// Pages are compared with the widest vectors the processor has; with `plain`, without
// them (so that tests check both ways on any processor).
void use_plain_compare(bool plain) noexcept;
// How far the items of an index page of file fcp moved when it gained or lost one: the
// width of an item, up or down; 0 when was and now are not one index page with one item
// more or less.  A guess that put_delta checks byte by byte.
int item_shift(const IS_FCP* fcp, const unsigned char* was, const unsigned char* now) noexcept;
// Applies page entry e (kPageEntry or kMoveEntry; its bytes at payload) to page; false
// when it is neither or does not fit the page.
bool apply_entry(unsigned char* page, const lg_ent& e, const void* payload) noexcept;

// The checksum of a log header or record (lg_file.cpp).
uint64_t checksum(const void* data, size_t len) noexcept;

// The lock file's name, which the logs' names extend, and the log size past which the
// next call checkpoints when KISAM_LOG_LIMIT sets it (limit_set); else limit_of decides.
extern char lbase[PATH_MAX];
extern uint64_t limit_bytes;
extern bool limit_set;
inline void log_name(char* out, size_t n, int u) { std::snprintf(out, n, "%s.w%d", lbase, u); }

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
    // Each log mapped shared from its first byte, `window` bytes (null: not mapped, its
    // records are written with pwrite).  Made when the log's descriptor is opened, given
    // back when it is closed.
    char** map = nullptr;
    size_t window = 0;
    // Per log, the first byte of the mapping whose pages this process may still have
    // mapped (it drops those behind the log's tail, lg_append.cpp).
    uint64_t* mapped_lo = nullptr;
    WriteFd* w = nullptr;
};
extern Fds fds;

// Frees this process's descriptors and tables; makes them for the attached segment
// (false when out of memory).
void close_fds() noexcept;
bool fds_ready() noexcept;

inline int fail(int code, int detail) noexcept { return is_raise(code, PROC(P_ISFLUSH, detail)); }

// The log is written ahead of its records in zeros, in stretches of whole kExtend, synced
// on their own: a record then overwrites blocks the file already has, and the sync of a
// durable call carries no change of the file's size or block map (an append that grows
// the file costs the file system a journal commit of its own at every sync).
constexpr off_t kExtend = off_t{1} << 20;
// A stretch is a quarter of the zeros already written, from kExtend up to kMaxStretch
// (grow_locked): each sync of a stretch waits for the disk's cache flush, which costs
// more than a MiB of zeros, so a log that has grown large grows by fewer, larger
// stretches, while a small one takes little disk ahead of its records.
constexpr off_t kMaxStretch = 8 * kExtend;
// The zeros go out in writes of this size (lg_file.cpp, grow_locked).
constexpr off_t kZeroChunk = off_t{64} << 10;
// A call that ends with its log's tail closer than this to the end of the zeros writes
// the next stretch of them after it has given the control lock up (extend_ahead), so
// that no call extends the log while it holds the lock.
constexpr off_t kAhead = kExtend / 2;
// The most address space a log's mapping takes in a process.
constexpr uint64_t kMaxWindow = uint64_t{1} << 30;
// The largest checkpoint limit that limit_of gives: a log that large, and the stretches
// of zeros ahead of its tail, still lie inside the largest window.
constexpr uint64_t kMaxLimit = kMaxWindow - 8 * kExtend;
// The log size past which the next changing call of a file checkpoints it.  Set by
// KISAM_LOG_LIMIT, that size.  Else the file's own size, at least kDefaultLimit and at
// most kMaxLimit: a checkpoint costs in proportion to the file (after its sync every 4 KiB
// page of the file that a write-back stores into faults again, and every page a call
// changes is logged whole again once), so a log as large as the file spreads that cost
// over as many calls whatever the file's size, and recovery reads at most about as many
// bytes of log as there are of file.
inline uint64_t limit_of(const IS_FCP* fcp) noexcept {
    if (limit_set || !fcp) return limit_bytes;
    const uint64_t size = fcp->is_lastpage;
    return size < kDefaultLimit ? kDefaultLimit : size > kMaxLimit ? kMaxLimit : size;
}
// The log's zeros reach at least `need` bytes, on disk (0; -1 with errno).  Waits for
// an extension another process is making.
int extend(int u, int fd, off_t need) noexcept;
// Outside the control lock: the zeros of log u taken a stretch further when its tail has
// come within kAhead of their end, unless another process is doing it.  Failures are
// left to the append that would need the zeros (extend).
void extend_ahead(int u) noexcept;

// A store into log u (descriptor fd) through the mapping faulted: the log was cut short
// from outside, or the disk cannot read a page of it back.  Records the log no longer
// holds can no longer be replayed, so the file is to be checkpointed by its next changing
// call (xf_log_cut); a log shorter than its known zeros gets its zeros written again from
// its end (the known size goes back to it, under the size lock).
void cut_short(int u, int fd) noexcept;

// Whether log u (fd) is shorter than the records of generation gen, from start to end,
// need: another program cut it short where no store met the cut (in the page of the log
// the cut ends in, which a store through the mapping reaches without a fault although the
// file no longer holds it).  A log found short is handled as a store that met the cut
// (cut_short).  False when the generation moved on meanwhile (a checkpoint put every
// record before it into the file) or the size cannot be had.
bool log_short(int u, int fd, uint32_t gen, uint64_t start, uint64_t end) noexcept;

// Whether this process's stores into log u's mapping can be armed against SIGBUS: the
// pool's handler is installed at the first store rather than when the log is mapped, so
// that a program's own SIGBUS handler, set up after it opened its files but before its
// first changing call, is the one the library's hands foreign faults on to.  A process
// where the handler cannot be installed gives the mapping up (its records go by pwrite).
bool armable(int u) noexcept;

// The log of slot u, opened (and created) on first use, and mapped.
int log_fd(int u) noexcept;

// How far log u is known, by every process, to have been written (zeros or records) and
// synced: the blocks below it exist, and the log is never cut back, so a store through
// the mapping below it can fault neither past the end of the file nor for want of a
// block (xs_zeros, raised only under the log's size lock).
inline std::atomic_ref<uint64_t> zeros(int u) { return std::atomic_ref<uint64_t>(kisam::isx_sync_of(u)->xs_zeros); }
// The bytes of log u that this process may store into through its mapping: below the
// known zeros and inside its window (0 when the log is not mapped).
inline uint64_t mapped_room(int u) {
    if (!fds.map[u]) return 0;
    const uint64_t z = zeros(u).load(std::memory_order_acquire);
    return z < fds.window ? z : fds.window;
}

inline isx_file* xfile(int u) { return kisam::isx_file_of(u); }
inline std::atomic_ref<uint64_t> at(uint64_t& v) { return std::atomic_ref<uint64_t>(v); }

// The valid header of the log open on fd with the higher generation, of a version this
// library reads; false when neither copy is one (a new or foreign file).  *newer (when
// given) tells whether a copy is whole but of a newer version: such a log is left alone.
bool read_head(int fd, lg_head* out, bool* newer = nullptr) noexcept;
// Writes the header of generation h->lh_gen into its copy; with `sync`, to disk.
int write_head(int fd, lg_head* h, bool sync) noexcept;

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

// Reads the record at lsn of the log on fd (generation gen, first record at start) into
// b; its length, or 0 when there is no valid record there.
uint32_t read_record(int fd, uint32_t gen, uint64_t start, uint64_t lsn, Buf& b) noexcept;

inline std::atomic_ref<uint32_t> at32(uint32_t& v) { return std::atomic_ref<uint32_t>(v); }

// Writes to the file on dfd every page that the records of generation gen, from `start`
// to `end`, hold: the last committed content of each, as a replay would give it (the
// control page aside), each page once.  For a checkpoint after a sync of the file failed:
// the pages written since the generation began may be missing from the file, and the
// pool no longer knows which.  *pages (when given) the pages written.  0; -1 (errno) when
// a record up to `end` cannot be read (EIO), a page not written, or no memory.
int write_logged(int lfd, uint32_t gen, uint64_t start, uint64_t end, int dfd, uint32_t* pages) noexcept;

// The failure marks of file u's syncs (ISX_FAILED_*, isx_file).
inline std::atomic_ref<uint32_t> sync_failed(int u) { return at32(xfile(u)->xf_sync_failed); }
// A sync of log u failed (or may have): counted in ISX_FAILED_LOG, never back to 0 by it,
// so that the log's next sync writes its header and records again first (lg_sync.cpp).
void log_sync_failed(int u) noexcept;

}  // namespace kisam::lg
