// The undo journal: every changing call is whole or absent, also when its process dies.
//
// Each attached process owns one journal, a file beside the lock file named after its
// process-table slot ("<lock file>.u<slot>"), mapped shared: saving a page's
// before-image is a memory copy, and the kernel keeps the copy when the process dies.
// Rules (README.journal.md states them with the tests that check them):
//
//  1. A unit is one public changing call (niswrite, nisfwrite, nisupdate, nisdelete).
//     jn_begin, under the file's control lock, saves the shared control page and marks
//     the journal ACTIVE; before a page of the file is first changed in the unit,
//     jn_touch saves its before-image; pages the unit adds past the file's old end need
//     none (the rollback drops them).  The unit ends (jn_release: IDLE, one store) after
//     its commit (its record in the redo log, lg.h) and before the control word is
//     given up; jn_committing records where that record ends, so that a unit found
//     ACTIVE whose record the log's end has reached counts as whole.
//  2. A journal that is ACTIVE or UNDO while its owner no longer holds the file's control
//     lock describes a unit that must be rolled back before anybody changes the file
//     again: none of its pages reached the file (lg.h rule 2), so its before-images go
//     back into the pool's slots, the pages past the old end are dropped, and the shared
//     control page is restored.  Rolling back is idempotent, so a rollback cut short by
//     another death is simply done again.
//  3. xf_undo of the file (extension area) names such a journal once somebody has
//     noticed it: the owner itself when its call failed, or whoever took over the
//     control word its dead owner left.  Every taker of the control lock (is_getctl)
//     settles a named journal first; while that fails (the disk still refuses writes),
//     every call on the file fails with the I/O error, so nothing wrong is ever read and
//     nothing is built on a half-undone call.
//  4. A journal slot is reused only when its journal is IDLE (process slots are claimed
//     again only after the dead owner's journal is settled).
//  5. When the common segment is rebuilt (no process attached), a journal still ACTIVE
//     or UNDO holds a unit that never reached its file: it is made IDLE, and the redo logs
//     bring the files up to their last commits (lg.h rule 6).
//
// Requires: jn_begin, jn_touch, jn_commit, jn_abort and jn_settle run with the current
// file's control lock held; the others hold nothing in particular (stated per function).
#pragma once

#include "layout.h"

// States of a journal.
enum : uint32_t { JN_IDLE = 0, JN_ACTIVE = 1, JN_UNDO = 2 };

// Sets where journals live: the lock file's name ("<name>.u<slot>").  Called by is_init.
void jn_setbase(const char* lockname) noexcept;
// Forgets this process's journal mapping (detach, or a forked child before it claims a
// slot of its own).  The file stays; it is IDLE unless a rollback is still pending.
void jn_close(void) noexcept;

// Starts a unit on the current file.  0, or -1 (error raised, nothing changed) when the
// journal cannot be opened or grown.
// Made ready before the first unit of this process (its table of the pages a unit saved),
// so that no unit allocates: a unit left part way by a signal handler's jump must not be
// inside the allocator.  0, or -1 when out of memory (the first unit tries again).
int jn_ready(void) noexcept;
int jn_begin(void) noexcept;
// Saves the before-image of page pno of the current file (d: its content now) unless
// the unit saved it already.  0, or -1 (error raised: ISE_RDWT, v_write detail 1) when
// the journal cannot take it; the caller then fails before changing the page.  The page
// counts as changed anywhere (jn_change).
int jn_touch(PAGE pno, const IS_DATA* d) noexcept;
// What a unit may have changed in a page since its before-image, as the places that
// change it said before each change: the 32-byte blocks (bit i: bytes [32 i, 32 i + 32)),
// and, when the page's first change was items moving as one, that move (mv_len bytes
// from mv_from to mv_from + mv_by; mv_by 0: none).  Every byte outside the moved bytes'
// new place and outside the blocks is as in the before-image; within the new place the
// bytes are those moved, but where a block says otherwise.  The commit then compares
// only those blocks (lg.h).
struct jn_change {
    uint32_t blocks;
    uint16_t mv_from, mv_len;
    int16_t mv_by;
};
inline constexpr jn_change kJnAnywhere = {~0u, 0, 0, 0};
// jn_touch for a change confined to c: the caller changes nothing else of the page
// until its next jn_touch or jn_touch_part.  A move counts as such only as the page's
// first change in the unit; after another change its bytes count as blocks.
int jn_touch_part(PAGE pno, const IS_DATA* d, const jn_change& c) noexcept;
// True while a unit is running in this process.
bool jn_active(void) noexcept;
// The before-image of page pno of the current file saved by the running unit, or null;
// with `chg`, also what the unit noted of its changes (kJnAnywhere when nothing narrower
// is known).
const IS_DATA* jn_before(PAGE pno, jn_change* chg = nullptr) noexcept;
// The control page image of fcp as the running unit of this process found it; false when
// no unit of fcp's file is running here.
bool jn_unit_fcp(const IS_FCP* fcp, unsigned char out[kisam::kFcpImage]) noexcept;
// The running unit let a changed page go before its end (lg_steal).
void jn_stole(void) noexcept;
// The running unit's log record is about to be appended, ending at LSN end (lg.h): a
// unit found ACTIVE after its owner died committed when the log's end has reached it.
void jn_committing(uint64_t end) noexcept;
// The release that ends the unit's hold: called by is_relctl after a successful flush
// with the hold count it left.
void jn_release(IS_FCP* fcp, int ctlcnt) noexcept;
// Whether a unit of fcp's file runs here and goes on past a release that leaves the
// hold count at ctlcnt (a nested hold's release inside the call): such a release
// commits nothing, so that the call can still be rolled back whole.
bool jn_continues(const IS_FCP* fcp, int ctlcnt) noexcept;
// Rolls the running unit back now (its call failed).  The error state of the failure
// is kept.  When its pages could not all be written back, the rollback stays pending
// (xf_undo) and every later call on the file retries it first.
void jn_abort(void) noexcept;

// After this process took over the control word of fcp from dead holder `pid`: names
// the dead holder's journal in xf_undo when it holds a unit of this file.
void jn_note_stale(IS_FCP* fcp, uint32_t pid) noexcept;
// Settles a rollback named in xf_undo of the file of fcp (slot u).  Requires its
// control lock.  0 when nothing is pending (any more); -1 with the error raised when
// the rollback could not be completed.
int jn_settle(IS_FCP* fcp, int u) noexcept;
// Makes the journal of process slot i IDLE (rolling its unit back when needed) so that
// the slot can be given to another process.  Takes the file's control lock itself:
// waiting for it with `wait` (the caller then holds no control lock), else only trying.
// 0, or -1 when it could not.
int jn_clear_slot(int i, bool wait) noexcept;
// Makes every journal found ACTIVE or UNDO IDLE (its unit never reached the file): for
// start-up when the segment is new and nobody can hold a file.  Requires the start-up
// lock.
void jn_recover_all(void) noexcept;
// Makes a journal found ACTIVE or UNDO for the file of device dev and inode ino IDLE
// (its unit never reached the file).  For the first open of a file that carries the
// mark.  True when there was one.  Requires opcl_lock.
bool jn_recover_file(uint64_t dev, uint64_t ino) noexcept;

// Whether a journal of the installation (its lock file named by jn_setbase) holds a unit
// of the file of device dev and inode ino that is not rolled back yet and that a start
// or an open would roll back (written since the machine last started).  Holds nothing.
bool jn_pending(uint64_t dev, uint64_t ino) noexcept;

// Records in the extension area the absolute path of the file in shared-file slot u,
// by which a process that does not have the file open can reopen it to roll a call
// back.  Requires opcl_lock.
void jn_setpath(int u, const char* filename) noexcept;
// Called when a segment that nobody is attached to is about to be zeroed (base, segsize:
// what its last users left): rolls back every journal still holding a unit, then clears
// the data-changed mark of every file that was open in it and is now sound -- the
// processes that had it open died, but none of them left it half changed.  Requires
// the start-up lock.
void jn_leftover(char* base, size_t segsize) noexcept;
// Clears the data-changed mark on disk of the file at path, which must be the file of
// the shared copy f (device and inode are checked), with f's synchronisation options.
// For files nobody has open any more that are known to be sound.
void jn_clear_mark(const char* path, const IS_FCP* f) noexcept;
