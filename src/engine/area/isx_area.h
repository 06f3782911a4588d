// The extension area: shared state of our own, laid out after the documented regions of
// the common segment (at offset comsize, past the heap).
//
// The documented regions stay byte for byte as every release lays them out; whatever
// this library adds to the shared state lives here: per-file change counts (the pool's
// knowledge of a file's chain, the readers that take no lock), clock hands, reference
// bits and chain logs of the pool, pending rollbacks of the undo journal, and which files
// each attached process has open (so that the process can be cleaned up after it dies).
//
// Layout (offsets from the area's start; each table's base is in the head):
//   isx_head                 128 bytes
//   isx_file[maxopen]        64 bytes each, one per shared-file slot (a cache line each,
//                            so that counts of different files do not share a line)
//   isx_proc[maxusers]       16 bytes each, one per process-table slot
//   open sets[maxusers]      maxopen bits each, rounded up to 8 bytes: bit u set while
//                            the process holds shared-file slot u open (is_usecnt share)
//   reference bytes[maxbufs] one per buffer slot, for the pool's clock
//   isx_reaped[ISX_NREAPED]  the processes cleaned up most recently (a ring)
//   paths[maxopen]           ISX_PATHLEN bytes each: the absolute path by which the file
//                            in each shared-file slot was first opened ("" when unknown),
//                            so that another process can reopen it to roll a call back
//   back links[maxbufs]      int16 per buffer slot: the slot before it on its chain (-1
//                            at the head), so that a slot leaves a chain without a walk;
//                            a hint, checked against bu_next before use
//   chain logs[maxopen]      xh_log_len int16 slot numbers each: the slots of the file's
//                            latest chain changes, entry g % xh_log_len for change g
//   page log marks[maxbufs]  uint64 per buffer slot: the redo-log position (LSN) that
//                            must be on disk before the slot's page may be written to its
//                            file, with ISX_LSN_FULL set while the page's next log entry
//                            must be its whole image (lg.h)
//   whole-page table[n]      uint64 each, n a power of two of at least 16 * maxbufs:
//                            (file slot, log generation, page) of pages whose whole image
//                            is in their file's log of that generation, for pages that
//                            leave the pool (a lossy hint: an entry lost costs a whole
//                            image in the log again, never a wrong one)
//   isx_sync[maxopen]        64 bytes each, one per shared-file slot: who syncs the
//                            file's redo log now, and the group of durable calls that
//                            share that sync (group commit, lg.h)
//
// The area is zeroed with the segment and laid out by the first attacher under the
// start-up lock.  A segment made without it (by a library that does not know it), or
// with an area of another version, is refused at attach: every attached program must keep
// these counts, or the others would trust counts that nobody advanced -- above all the
// change counts that readers without the lock rely on (README.reads.md).
#pragma once

#include "layout.h"

struct isx_head {
    uint32_t xh_magic;       //  0-3   ISX_MAGIC once laid out
    uint16_t xh_version;     //  4-5   ISX_VERSION
    uint16_t xh_pad0;        //  6-7
    uint32_t xh_size;        //  8-11  bytes of the whole area
    int16_t xh_maxopen;      // 12-13  the tables are sized for these
    int16_t xh_maxusers;     // 14-15
    int16_t xh_maxbufs;      // 16-17
    uint16_t xh_log_len;     // 18-19  entries of one chain log (a power of two)
    uint32_t xh_file_base;   // 20-23  offsets from the area's start
    uint32_t xh_proc_base;   // 24-27
    uint32_t xh_open_base;   // 28-31
    uint32_t xh_open_bytes;  // 32-35  bytes of one open set
    uint32_t xh_ref_base;    // 36-39
    uint32_t xh_steal_hand;  // 40-43  the pool's clock hand over all slots
    uint32_t xh_cleaned;     // 44-47  statistics: dead processes cleaned up
    uint32_t xh_rolledback;  // 48-51  statistics: calls rolled back
    uint32_t xh_reaped_base; // 52-55  the ring of cleaned processes; entry xh_cleaned %
                             //        ISX_NREAPED is the next to be written
    uint32_t xh_path_base;   // 56-59  the path table
    uint32_t xh_link_base;   // 60-63  the chain back links
    uint32_t xh_log_base;    // 64-67  the chain logs
    uint32_t xh_lsn_base;    // 68-71  the page log marks
    uint32_t xh_rec_logs;    // 72-75  recovery at the start of this segment: logs replayed,
    uint32_t xh_rec_units;   // 76-79  calls redone,
    uint32_t xh_rec_pages;   // 80-83  pages written,
    uint32_t xh_rec_time;    // 84-87  when (seconds since 1970, low 32 bits; 0: none yet)
    uint32_t xh_rec_usec;    // 88-91  and how long it took
    uint32_t xh_leftover;    // 92-95  nonzero: some log may hold calls of a file not in the
                             //        table (a last close could not write them out)
    uint32_t xh_whole_base;  // 96-99  the whole-page table
    uint32_t xh_whole_mask;  // 100-103 its entries - 1
    uint32_t xh_sync_base;   // 104-107 the group-commit table
    uint32_t xh_buf_word;    // 108-111 buf_lock's lock word (is_lock.h: holder's tag, the
                             //         waiters bit; a futex word)
    uint32_t xh_spare[4];    // 112-127
};
KISAM_RECORD(isx_head, 128);
KISAM_AT(isx_head, xh_magic, 0);       KISAM_AT(isx_head, xh_version, 4);
KISAM_AT(isx_head, xh_size, 8);        KISAM_AT(isx_head, xh_maxopen, 12);
KISAM_AT(isx_head, xh_maxusers, 14);   KISAM_AT(isx_head, xh_maxbufs, 16);
KISAM_AT(isx_head, xh_file_base, 20);  KISAM_AT(isx_head, xh_proc_base, 24);
KISAM_AT(isx_head, xh_open_base, 28);  KISAM_AT(isx_head, xh_open_bytes, 32);
KISAM_AT(isx_head, xh_ref_base, 36);   KISAM_AT(isx_head, xh_steal_hand, 40);
KISAM_AT(isx_head, xh_cleaned, 44);    KISAM_AT(isx_head, xh_rolledback, 48);
KISAM_AT(isx_head, xh_log_len, 18);
KISAM_AT(isx_head, xh_reaped_base, 52); KISAM_AT(isx_head, xh_path_base, 56);
KISAM_AT(isx_head, xh_link_base, 60);   KISAM_AT(isx_head, xh_log_base, 64);
KISAM_AT(isx_head, xh_lsn_base, 68);  KISAM_AT(isx_head, xh_rec_logs, 72);
KISAM_AT(isx_head, xh_rec_units, 76); KISAM_AT(isx_head, xh_rec_pages, 80);
KISAM_AT(isx_head, xh_rec_time, 84);  KISAM_AT(isx_head, xh_rec_usec, 88);
KISAM_AT(isx_head, xh_leftover, 92);  KISAM_AT(isx_head, xh_whole_base, 96);
KISAM_AT(isx_head, xh_whole_mask, 100); KISAM_AT(isx_head, xh_sync_base, 104);
KISAM_AT(isx_head, xh_buf_word, 108); KISAM_AT(isx_head, xh_spare, 112);

// One per shared-file slot.  Reset when the slot is taken by a new file (open) so that
// nothing learnt about the slot's previous file carries over.
struct isx_file {
    uint32_t xf_seq;         //  0-3   change count: odd while the holder of the file's
                             //        control lock changes its pages, slots or control
                             //        page; readers without the lock compare it
    uint32_t xf_chaingen;    //  4-7   advanced whenever a slot of the file is attached
                             //        to its chain, re-tagged or taken away; the file's
                             //        chain log names the slot of each change
    int16_t xf_hand;         //  8-9   the file's own clock hand (a slot on its chain), -1
    int16_t xf_pad;          // 10-11
    uint32_t xf_undo;        // 12-15  1 + process slot whose rolled-back call has not yet
                             //        fully reached the disk; 0 none
    uint32_t xf_chainlen;    // 16-19  slots on the file's chain
    uint32_t xf_log_gen;     // 20-23  generation of the file's redo log (lg.h): a
                             //        checkpoint starts the next one
    uint64_t xf_log_end;     // 24-31  LSN after the last record appended (the commit
                             //        point of a call is the store that advances it)
    uint64_t xf_log_synced;  // 32-39  LSN up to which the log is known on disk
    uint64_t xf_log_start;   // 40-47  LSN of the generation's first record: the file on
                             //        disk holds everything logged before it
    uint32_t xf_log_fcpgen;  // 48-51  the generation in which the log last took the whole
                             //        control page (later records may hold only changes)
    uint32_t xf_ctl_word;    // 52-55  the file's control lock word (is_lock.h: holder's tag,
                             //        the waiters bit; a futex word).  Kept when a new file
                             //        takes the slot: it is a lock, not knowledge of a file
    uint32_t xf_log_cut;     // 56-59  nonzero: a store into the log faulted (the log cut
                             //        short from outside, or a page of it unreadable):
                             //        records may be missing, and the next changing call
                             //        checkpoints the file before anything else
    uint32_t xf_sync_failed; // 60-63  ISX_FAILED_* bits: a sync that failed since the log's
                             //        generation began.  The kernel reports a failed
                             //        write-back once, then takes the pages for clean (and
                             //        may drop them), so the next sync's success says
                             //        nothing of them: the file (or the log) is written
                             //        again from what the log holds before a sync counts
};
// xf_sync_failed: ISX_FAILED_FILE, a sync of the data file failed (the pages written since
// the log's generation began may be missing from the file: the next checkpoint writes
// every page the log holds); ISX_FAILED_LOG, the syncs of the log that failed, counted
// (never 0 once one has: its records past xf_log_synced may be missing from it, and are
// written again before a sync of the log counts; a sync that then succeeds clears the
// count it started with, not one that a failure of another sync has moved meanwhile).
enum : uint32_t { ISX_FAILED_FILE = 1, ISX_FAILED_LOG = 0xFFFFFF00u, ISX_FAILED_LOG_ONE = 0x100u };
KISAM_RECORD(isx_file, 64);
KISAM_AT(isx_file, xf_seq, 0);   KISAM_AT(isx_file, xf_chaingen, 4);
KISAM_AT(isx_file, xf_hand, 8);  KISAM_AT(isx_file, xf_undo, 12);
KISAM_AT(isx_file, xf_chainlen, 16); KISAM_AT(isx_file, xf_log_gen, 20);
KISAM_AT(isx_file, xf_log_end, 24); KISAM_AT(isx_file, xf_log_synced, 32);
KISAM_AT(isx_file, xf_log_start, 40); KISAM_AT(isx_file, xf_log_fcpgen, 48);
KISAM_AT(isx_file, xf_ctl_word, 52); KISAM_AT(isx_file, xf_log_cut, 56); KISAM_AT(isx_file, xf_sync_failed, 60);

// One per shared-file slot: the group commit of the file's redo log (lg.h rule 7).
// Reset with the slot's log when a file enters the slot.
struct isx_sync {
    uint64_t xs_lead[2];     //  0-15  the processes syncing the log now, two at most at
                             //        once: pid << 16 | (process-table slot + 1); 0 free
    uint64_t xs_target[2];   // 16-31  the LSN each running sync covers (0 until known)
    uint32_t xs_gen;         // 32-35  advanced when a sync ends (a futex word: those
                             //        waiting for a sync sleep on it); ISX_SYNC_SLEEPERS
                             //        set while someone sleeps on it
    uint32_t xs_calls;       // 36-39  durable calls committed on the file (wraps)
    uint32_t xs_base;        // 40-43  xs_calls when the latest sync took the log's end
    uint32_t xs_group;       // 44-47  durable calls committed between the two latest
                             //        syncs' starts: the group the next one gathers
    uint32_t xs_usec;        // 48-51  how long the latest sync took, microseconds
    uint32_t xs_syncs;       // 52-55  statistics: syncs of the log (wraps)
    uint64_t xs_zeros;       // 56-63  bytes of the log file known written (zeros or
                             //        records) and synced: stores through a mapping of
                             //        the log land only below it.  Only grows (the log is
                             //        never cut back), but for a log found cut short from
                             //        outside (lowered to its size then, under the log's
                             //        size lock); kept when a new file takes the slot
};
KISAM_RECORD(isx_sync, 64);
KISAM_AT(isx_sync, xs_lead, 0);   KISAM_AT(isx_sync, xs_target, 16); KISAM_AT(isx_sync, xs_gen, 32);
KISAM_AT(isx_sync, xs_calls, 36); KISAM_AT(isx_sync, xs_base, 40);   KISAM_AT(isx_sync, xs_group, 44);
KISAM_AT(isx_sync, xs_usec, 48);  KISAM_AT(isx_sync, xs_syncs, 52);  KISAM_AT(isx_sync, xs_zeros, 56);
inline constexpr int ISX_SYNC_SLOTS = 2;
inline constexpr uint32_t ISX_SYNC_SLEEPERS = 0x80000000u;

// One per process-table slot.
struct isx_proc {
    int32_t xp_pid;          //  0-3   the process that claimed the slot (0 when free)
    uint32_t xp_flags;       //  4-7
    uint32_t xp_wait;        //  8-11  what the process sleeps for now: the segment offset of
                             //        a lock word or lock-file range (is_lock.h), 0 none
    uint32_t xp_gen;         // 12-15  claims of this slot: advanced whenever a process claims
                             //        it, so that a lock word naming an earlier claimer is
                             //        known to be left by a process that is gone
};
KISAM_RECORD(isx_proc, 16);
KISAM_AT(isx_proc, xp_pid, 0); KISAM_AT(isx_proc, xp_flags, 4); KISAM_AT(isx_proc, xp_wait, 8); KISAM_AT(isx_proc, xp_gen, 12);

// A process cleaned up after it died attached.
struct isx_reaped {
    int32_t xr_pid;          //  0-3
    uint32_t xr_time;        //  4-7   when, in seconds since 1970 (low 32 bits)
};
KISAM_RECORD(isx_reaped, 8);
KISAM_AT(isx_reaped, xr_pid, 0); KISAM_AT(isx_reaped, xr_time, 4);
inline constexpr int ISX_NREAPED = 8;
inline constexpr int ISX_PATHLEN = 256;

inline constexpr uint32_t ISX_MAGIC = 0x3158414Bu;  // "KAX1"
// 3: readers without the lock trust xf_seq, so every library attached to the area must
// keep it; an area of version 2 (kept by a library that does not) is refused, and such
// a library refuses this one.
// 4: pages reach their files only after the redo log that covers them (lg.h): a library
// that wrote pages at every call would break that order, so versions do not mix.
// 5: durable calls share a sync through the group-commit table (isx_sync) instead of a
// lock on the log: a library that waited on the lock would not see who syncs.
// 6: control locks and buf_lock are words of this area (futex words) instead of lock-file
// ranges: a library that took the ranges would not exclude one that takes the words.
// 7: a redo log grows (zeros written past its size) only under a lock of the log's first
// byte, outside the control lock: a library that grew it under the control lock alone
// could write zeros over a record another process appended meanwhile.
// 8: loads and clean victims leave xf_seq alone, and readers without the lock check the
// tag and stamp of each slot they used instead: a library whose readers trusted xf_seq
// alone would read slots that another library's misses give other pages.
inline constexpr uint16_t ISX_VERSION = 8;
// In a page log mark: the page's next log entry must be its whole image.
inline constexpr uint64_t ISX_LSN_FULL = uint64_t{1} << 63;

// This process's view of the attached area; null when not attached.
extern isx_head* isx_area;

// Bytes the area needs for a configuration (a multiple of 64).
uint32_t isx_size(int maxopen, int maxusers, int maxbufs) noexcept;
// Lays the area out at isam_com + comsize for the header's table sizes.  Requires the
// start-up lock (first attacher), the area zeroed.
void isx_layout(void) noexcept;
// Sets isx_area for the attached segment of `segsize` bytes; false when the segment holds
// no area laid out for its header (made by a library without it, or too small).
bool isx_attach(size_t segsize) noexcept;
// The area of a segment at `base` of `segsize` bytes that nobody is attached to, or null
// when it holds none that is complete.  For looking at what its last users left.
isx_head* isx_find(char* base, size_t segsize) noexcept;

namespace kisam {

inline isx_file* isx_file_of(int u) {
    return reinterpret_cast<isx_file*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_file_base) + u;
}
inline isx_proc* isx_proc_of(int i) {
    return reinterpret_cast<isx_proc*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_proc_base) + i;
}
// Open set of process slot i: maxopen bits.
inline uint8_t* isx_open_set(int i) {
    return reinterpret_cast<uint8_t*>(isx_area) + isx_area->xh_open_base +
           static_cast<size_t>(i) * isx_area->xh_open_bytes;
}
// Reference byte of buffer slot s (the pool's clock).
inline uint8_t* isx_ref(int s) {
    return reinterpret_cast<uint8_t*>(isx_area) + isx_area->xh_ref_base + s;
}
inline char* isx_path(int u) {
    return reinterpret_cast<char*>(isx_area) + isx_area->xh_path_base + static_cast<size_t>(u) * ISX_PATHLEN;
}
inline isx_reaped* isx_reaped_at(int k) {
    return reinterpret_cast<isx_reaped*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_reaped_base) + k;
}
// Back link of buffer slot s (the slot before it on its chain).
inline int16_t* isx_link(int s) {
    return reinterpret_cast<int16_t*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_link_base) + s;
}
// Page log mark of buffer slot s.
inline uint64_t* isx_lsn(int s) {
    return reinterpret_cast<uint64_t*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_lsn_base) + s;
}
// The whole-page table: an entry says that page pno of the file in slot u was logged
// whole in generation gen of its log (README.log.md rule 5).
inline uint64_t whole_entry(int u, uint32_t gen, uint32_t pno) {
    return (uint64_t(u) & 0x3FFF) << 50 | (uint64_t(pno >> 10) & 0x3FFFFF) << 28 | (gen & 0xFFFFFFF);
}
inline uint64_t* isx_whole_at(uint64_t entry) {
    uint64_t* t = reinterpret_cast<uint64_t*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_whole_base);
    return t + ((entry * 0x9E3779B97F4A7C15ull) >> 32 & isx_area->xh_whole_mask);
}
// Group commit of the log of shared-file slot u.
inline isx_sync* isx_sync_of(int u) {
    return reinterpret_cast<isx_sync*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_sync_base) + u;
}
// Chain log of shared-file slot u: xh_log_len entries.
inline int16_t* isx_log(int u) {
    return reinterpret_cast<int16_t*>(reinterpret_cast<char*>(isx_area) + isx_area->xh_log_base) +
           static_cast<size_t>(u) * isx_area->xh_log_len;
}

}  // namespace kisam
