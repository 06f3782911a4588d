// The redo log: files that survive a crash of the machine, and calls that are durable.
//
// Every shared file has a log beside the lock file, named after its shared-file slot
// ("<lock file>.w<u>"), that holds what its calls changed since the file was last
// brought up to date on disk (a checkpoint).  Pages are no longer written to the file by
// the call that changed them: a call ends by appending one record to the log (its
// changed pages, as whole images or as the runs of bytes that changed and the items that
// moved, and the control page) and leaves the pages dirty in the pool.  The record is stored through a shared
// mapping of the log, below the size the log is known to have been written and synced
// to (no system call; the library never cuts a log back, and a store that faults all the
// same -- the log cut short from outside, a page the disk cannot read back -- fails its
// call, after which the file is checkpointed by its next one), or with
// pwrite where the mapping has no room for it.  The rules (README.log.md says them with
// the tests that check them):
//
//  1. The commit point of a call is the store that advances xf_log_end past its record,
//     made under the file's control lock after the record was written.  A call that
//     fails or dies before it is rolled back in the pool; one that died after it is
//     whole.
//  2. A page reaches its file only after the log is on disk up to the record that last
//     changed it (the slot's log mark, isx_lsn).  A page changed by a call that has not
//     committed never reaches the file (its slot stays fixed until the commit).  So the
//     file on disk never holds a change the log on disk does not, and never a change of
//     a call that did not commit.
//  3. After a checkpoint the first record of a page holds its whole image; later ones
//     may hold only the bytes that changed.  Replaying the records after the checkpoint
//     in order therefore gives every page its last committed content whatever the disk
//     made of the writes since (lost, reordered, torn at a sector).
//  4. A record is valid when its magic, generation, position (LSN) and checksum agree;
//     replay stops at the first one that is not.  The log on disk is thus always a
//     prefix of the calls committed, and so is the file after recovery.
//  5. A checkpoint (the log grown past its limit, a last close, a clearing of the
//     data-changed mark) syncs the log, writes every dirty page and the control page,
//     syncs the file, then starts the log's next generation (its header, synced).  After
//     a sync of the file failed (xf_sync_failed), it first writes every page the
//     generation's records hold: the kernel may have dropped what the failed sync lost.
//  6. Recovery: when the shared segment is made anew (every process gone, or the
//     machine restarted), every log is replayed into the file its header names (the
//     same device and inode) before anything else happens; so is a log left over in a
//     slot when a file enters it.
//  7. Durable mode (configuration or KISAM_DURABLE=1): a changing call returns only once
//     the log holds it on disk.  Calls of several processes ending together share one
//     sync (group commit, the file's isx_sync): a call whose record is neither on disk
//     nor covered by a running sync takes one of two sync slots and syncs everything
//     appended so far; the others sleep (a futex on xs_gen) until a sync ends and look
//     again.  Before it syncs, a durable call waits a little (at most about a sync's
//     time) for as many durable calls as the latest sync covered, so that a group stays
//     together.  A slot whose process died, or that a call abandoned by a signal
//     handler's jump left taken, is freed by whoever finds it so.
//
// Requires: lg_commit, lg_checkpoint and lg_undo_tail run with the file's control lock
// held; lg_sync_to holds nothing; lg_enter holds opcl_lock; lg_recover_all the start-up
// lock with nobody attached.
#pragma once

#include "layout.h"

// Sets where the logs live (the lock file's name); called by jn_setbase.
void lg_setbase(const char* lockname) noexcept;
// Closes this process's descriptors of logs and of files opened to write pages back.
void lg_close(void) noexcept;

// Whether this process's changing calls wait for the log to reach the disk.
extern bool lg_durable;
// Reads the durable setting: the configuration's extension bytes (cfg, n bytes after the
// record), then the environment, which overrides it.
void lg_settings(const unsigned char* ext, size_t n) noexcept;

// Before the file of device dev and inode ino enters the free shared-file slot u (its
// control page not read yet): records left in u's log for any file, and elsewhere for
// this file, are replayed into their files.  0, or -1 with the error raised.
int lg_prepare(int u, uint64_t dev, uint64_t ino) noexcept;
// Makes the log of slot u the log of the file fcp, which has just entered the slot (its
// path recorded).  0, or -1 with the error raised.
int lg_enter(int u, IS_FCP* fcp) noexcept;
// Makes this process's buffers for the records of its commits (room for a call that
// changes up to 512 pages) before its first call, so that no call allocates.  False when
// out of memory (a call then grows them itself).
bool lg_ready(void) noexcept;

// Appends the record of a call on file u: the pages of slots[0..n) and the control page.
// On success the call is committed; *end_lsn is the LSN after its record.  -1 with the
// error raised when the record could not be written: nothing was committed.
int lg_commit(IS_FCP* fcp, int u, const int16_t* slots, int n, uint64_t* end_lsn) noexcept;

// Notes that this process's last commit on file u ended at `end`: a durable call waits
// for it (lg_pay) once its hold is given up.
void lg_owe(int u, uint64_t end) noexcept;
// In durable mode, the log on disk up to this process's last commit.  0, or -1 (error
// raised: the call is in the file but may not survive a crash).
int lg_pay(void) noexcept;

// A running call on file u must let go of slot s, which holds a page it changed, before
// its end (the pool has no other slot to give): the page and its before-image go into
// the log as a record that leaves the call open, synced, so that the page may be
// written to the file.  Recovery undoes such pages when the call's final record never
// came.  0, or -1 with the error raised.
int lg_steal(IS_FCP* fcp, int u, int s) noexcept;
// Appends the record that closes a call rolled back after it let pages go (lg_steal):
// the pages as they are again (page i's number and content from at(ctx, i, ...)), and
// the control page.  It runs inside the rolled-back call and allocates nothing for up to
// 512 pages (the room lg_ready makes).  0, or -1 with the error raised.
using lg_page_at = void (*)(const void* ctx, int i, PAGE* pno, const IS_DATA** data);
int lg_compensate(IS_FCP* fcp, int u, int n, lg_page_at at, const void* ctx) noexcept;

// The log of file u on disk up to at least `lsn`.  0, or -1 with the error raised.
int lg_sync_to(int u, uint64_t lsn) noexcept;
// A call of this process was abandoned part way: a sync it was making for the others
// is given up (they sync themselves).
void lg_abandoned(void) noexcept;
// The rule before writing slot s's page (of file u) to the file: its log on disk.
int lg_wal(int u, int s) noexcept;

// Brings file u up to date on disk through descriptor fd and starts its log's next
// generation.  0, or -1 with the error raised (the log keeps everything then).
int lg_checkpoint(IS_FCP* fcp, int u, int fd) noexcept;
// The log of file u was cut short (xf_log_cut) and a checkpoint could not bring the
// file up to date: the log begins its next generation with every page the pool holds of
// the file, whole, and the control page, synced, so that it holds again what the file
// may lack (but for pages written back earlier and no longer in the pool).  Requires the
// control lock, and no unit running in this process (its end is noted by its own
// record).  0, or -1 with the error raised (the cut stays known).
int lg_relog(IS_FCP* fcp, int u) noexcept;
// Checkpoints file u when its log has outgrown its limit, was cut short, or a sync of
// the file failed since the last checkpoint.  0, or -1 (error raised).
int lg_maybe_checkpoint(IS_FCP* fcp, int u) noexcept;
// A sync of file u failed outside a checkpoint: what was written to it since the last
// checkpoint may be missing although the next sync succeeds, so the next checkpoint
// writes every page the log holds.
void lg_file_sync_failed(int u) noexcept;
// A descriptor through which this process can write file u's pages: its own when the
// file is open read-write here, else the file reopened by its recorded path (kept).
// -1 when there is none.
int lg_wfd(int u) noexcept;

// The holder of file u's control lock died: a checkpoint it was making may have put the
// log's next generation on disk without noting it in the shared state, which then takes
// it (records appended under the old one would never count).  Requires u's control
// lock (taken over from the dead holder).
void lg_stale(int u) noexcept;

// A call whose record may lie in the log past xf_log_end (written, never committed) is
// being rolled back: that record is made invalid.  0, or -1 with the error raised.
int lg_undo_tail(int u, uint64_t record_end) noexcept;

// Replays every log of the installation into its file.  Start-up, segment made anew.
void lg_recover_all(void) noexcept;
// Whether some log holds calls of the file of device dev and inode ino not yet in the
// file: 1 a log of this version with records; 2 a log of a newer version names the file
// (not readable here, so it may hold calls, and the open of the file in its slot is
// refused); 0 neither.  Holds nothing; for programs that read files directly.
int lg_pending(uint64_t dev, uint64_t ino) noexcept;

// For tests: with `on`, each page's entries in a record are applied as they are made --
// a page's changes to its before-image, a page taken whole to a page of other bytes --
// and a result that is not the page ends the process with a message (a change made
// without its note, jn_touch_part, would otherwise show only at a replay).
void lg_check_noted(bool on) noexcept;
