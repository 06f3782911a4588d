// Changed pages and the log's side of the pool (lg.h): v_write lists the pages this
// process changes, the commit (v_flush) hands them to the file's log as one record, and
// writebuf and v_write_back write pages back to the file once the log covers them.  The
// data-changed mark of the control page is written here too (fcp_setdatachanged).
#include "v_pool.h"
#include "v_internal.h"

#include "is_error.h"
#include "is_lock.h"
#include "jn.h"
#include "lg.h"
#include "os.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace kisam::pool {

// The pages this process changed (v_write) since its last commit, each slot once: the
// content of the next log record of their file (lg.h).  Slots of several files may be
// listed when a process holds several control locks.
int16_t chg_slot[kSlots];
uint8_t chg_in[kSlots];
int chg_n = 0;
// The marks are the truth and the list follows them.  A call that a signal handler left
// with siglongjmp may have left the two disagreeing at any instruction -- the compiler
// orders a mark's store and the list's freely (only a call or a fence orders them) -- so
// the process's next call rebuilds the list from the marks (v_abandoned).
// Whether this process's victims may be slots listed above (pages of its running call):
// only when nothing else is left.
bool take_own = false;

namespace {

// Page `src` of file u written at offset off, through descriptor fd: 0, or -1 with errno
// (as os_pwrite_full).  Where this process's writable mapping of the file covers the page,
// the page is stored into it -- a copy into the file's cache, no system call -- through
// the OS layer's mstore, so that tests see the store as the write of that page and may
// fail it.  The file's cache is what a write call fills too, and a sync writes what a
// store dirtied as it writes what a write call did, so the log rule (nothing reaches the
// file before its log) and every sync keep their meaning; an error of the disk shows at
// the next sync instead of here.
//
// A store can fault where a write call would not: the file cut short by another program
// (the page now past its end), or a hole whose block the disk cannot give (a full disk).
// The store is armed like the mapped reads; on a fault the mapping is dropped and the page
// goes out by a write call after all, which gives that case's result and error code as a
// store-less write-back would.  A page past the mapping goes out by a write call, which
// moves the size the mapping knows.
//
// store_mapped: 1 stored, 0 not stored (the caller writes the page), -1 the store failed
// (errno set).
int store_mapped(int u, int fd, const char* src, off_t off, PAGE last) noexcept {
    if (!is_pfi || u < 0 || u >= isam_com->maxopen || fd != is_pfi[u].pfi_osfd) return 0;
    char* const to = map_for_store(u, fd, off, last);
    if (!to) return 0;
    char* const base = to - off;
    MappedRead armed;
    if (sigsetjmp(armed.env, 0) != 0) {
        v_mapped_fault();
        ++v_store_faults;
        return 0;
    }
    v_mapped_arm(&armed);
    const int r = kisam::os.mstore(fd, base, off, src, kisam::kPage);
    v_mapped_disarm();
    if (r != 0) return -1;
    ++v_map_stores;
    return 1;
}

int write_pages(int u, int fd, const char* src, size_t n, off_t off) noexcept {
    if (kisam::os_pwrite_full(fd, src, n, off) != 0) return -1;
    map_reached(u, static_cast<size_t>(off) + n);
    return 0;
}

// A growing file gets its new pages one by one, as they leave the pool: each write-back
// past the file's end moves the file's size (which the file system journals) and leaves
// the next new page past the end again, a write call each.  So the write-back that finds
// its page past the end first takes the file up to kGrow further in zeros -- never past
// the end of the file's allocated pages (`alloc_end`), so that a read past that end still
// finds nothing -- and the pages after it are then stored into the mapping.  The zeros
// land only on bytes the file did not hold: the size is measured first, under u's control
// lock, which every write-back of u holds, so no other process writes a page of u
// meanwhile.  Each page they cover is allocated and stays in the pool until its own
// write-back, after its log; a crash leaves zeros where it would have left nothing.  A
// failure here only leaves the file shorter: the page's own write follows and reports.
constexpr off_t kGrow = off_t{256} << 10;
char grow_zeros[kGrow];

void grow_ahead(int u, int fd, off_t off, off_t alloc_end) noexcept {
    if (!bk.ok || !bk.map_base || u < 0 || u >= bk.nopen || !bk.map_base[u] || !bk.map_rw[u]) return;
    const off_t end = off + kisam::kPage;
    const off_t cap = static_cast<off_t>(bk.map_cap[u]);
    if (end <= static_cast<off_t>(bk.map_len[u]) || end > cap) return;
    const off_t to = std::min({alloc_end, off + kGrow, cap});
    if (to <= end) return;
    const int keep = errno;
    struct stat st;
    if (kisam::os.fstat(fd, &st) == 0) {
        const off_t from = std::max(st.st_size, end);
        if (from < to && kisam::os_pwrite_full(fd, grow_zeros, static_cast<size_t>(to - from), from) == 0)
            map_reached(u, static_cast<size_t>(to));
        else if (st.st_size > end)
            map_reached(u, static_cast<size_t>(st.st_size));
    }
    errno = keep;
}

int store_page(int u, int fd, const char* src, off_t off, PAGE last, off_t alloc_end) noexcept {
    const int r = store_mapped(u, fd, src, off, last);
    if (r != 0) return r > 0 ? 0 : -1;
    if (alloc_end > 0) grow_ahead(u, fd, off, alloc_end);
    return write_pages(u, fd, src, kisam::kPage, off);
}

}  // namespace

int commit_changes(IS_FCP* fcp, int u, IS_PFI* pfi) noexcept {
    // The commit: the pages this process changed in u, and u's control page, go into
    // u's log as one record.  They stay in the pool, dirty, for write-back.  A release
    // inside a call's unit that goes on (is_write's own hold inside niswrite, say)
    // commits nothing: the call may still fail, and a committed record could no longer
    // be rolled back.  Its pages stay listed for the release that ends the unit.
    const bool unit_goes_on = jn_continues(fcp, pfi->pfi_ctlcnt);
    int n = 0;
    int keep = 0;
    for (int i = 0; i < chg_n; ++i) {
        const int s = chg_slot[i];
        if (file_of(slot(s)) == u && !unit_goes_on)
            chg_slot[kSlots - 1 - n++] = static_cast<int16_t>(s);  // collected at the top
        else
            chg_slot[keep++] = static_cast<int16_t>(s);
    }
    if (!unit_goes_on && (n > 0 || (fcp->is_optbits & ISO_CHANGED))) {
        if (writable(pfi)) {
            // In the order they were changed.
            int16_t* list = chg_slot + kSlots - n;
            std::reverse(list, list + n);
            uint64_t end = 0;
            if (lg_commit(fcp, u, list, n, &end) != 0) {
                // Listed again: the rollback that follows forgets them.
                for (int i = 0; i < n; ++i) chg_slot[keep++] = list[i];
                chg_n = keep;
                return is_push(PROC(P_V_READ, 3));
            }
            for (int i = 0; i < n; ++i) chg_in[list[i]] = 0;
            fcp->is_optbits &= static_cast<uint8_t>(~ISO_CHANGED);
            lg_owe(u, end);
        } else {
            for (int i = 0; i < n; ++i) chg_in[chg_slot[kSlots - 1 - i]] = 0;
        }
    }
    chg_n = keep;
    return 0;
}

}  // namespace kisam::pool

using namespace kisam::pool;

unsigned long v_map_stores = 0;
unsigned long v_store_faults = 0;

int writebuf(IS_BUF* b) noexcept {
    const int w = file_of(b);
    IS_FCP* ofcp = w < isam_com->maxopen ? pfo_fcp(w) : nullptr;
    if (!ofcp) return is_raise(ISE_RDWT, PROC(P_V_READ, 1));
    IS_PFI* pfi = &is_pfi[w];
    const int fd = lg_wfd(w);
    if (fd < 0) return is_raise(ISE_RDWT, PROC(P_V_READ, 1));
    const int s = static_cast<int>(b - is_env.buf_);
    // The log first (lg.h rule 2); a page of this process's running call goes in with
    // its before-image.
    if (chg_in[s]) {
        if (lg_steal(ofcp, w, s) != 0) return -1;
        chg_in[s] = 0;
        for (int i = 0; i < chg_n; ++i)
            if (chg_slot[i] == s) {
                chg_slot[i] = chg_slot[--chg_n];
                break;
            }
    } else if (lg_wal(w, s) != 0) {
        return -1;
    } else {
        // A page logged whole in this generation (its mark says so) may come back later:
        // the table remembers it, so that its next entry need not be whole again.
        const uint64_t mark = *kisam::isx_lsn(s);
        isx_file* xf = xfile(w);
        if (!(mark & ISX_LSN_FULL) && mark > std::atomic_ref<uint64_t>(xf->xf_log_start).load(std::memory_order_relaxed)) {
            const uint64_t e = kisam::whole_entry(w, xf->xf_log_gen, b->bu_pno);
            std::atomic_ref<uint64_t>(*kisam::isx_whole_at(e)).store(e, std::memory_order_relaxed);
        }
    }
    const off_t off = v_fileoffset(ofcp, b->bu_pno);
    // Every page write to the file happens while the file's change count is odd: a
    // reader that read a page from the file without the lock (v_fetch_unlocked) can tell
    // that the file may have changed under it.
    v_changing(ofcp, w);
    b->bu_wcnt = clock_advance(isam_com->lru_wcnt);
    // The data-changed mark reaches the disk before the first page write after a clean
    // state; a page is not written when its mark could not be.
    if ((ofcp->is_optbits & (ISO_TRACK | ISO_DIRTYMARK)) == ISO_TRACK &&
        fcp_setdatachanged(ofcp, pfi, 1, ofcp->is_optbits & (ISO_SYNC | ISO_CLEARREL)) < 0)
        return is_raise(ISE_RDWT, PROC(P_V_READ, 3));
    if (off < 0) return is_raise(ISE_RDSK, PROC(P_V_READ, 2));
    // A file without stored ends (ISO_SEQ) is never grown ahead: its reads past the end
    // are what move that end.
    const off_t alloc_end = (ofcp->is_optbits & ISO_SEQ) ? 0 : v_fileoffset(ofcp, ofcp->is_lastpage);
    if (store_page(w, fd, b->bu_data.c, off, ofcp->is_lastpage, alloc_end) != 0)
        return seek_errno(errno) ? is_raise(ISE_RDSK, PROC(P_V_READ, 2))
                                 : is_raise(ISE_RDWT, PROC(P_V_READ, 3));
    count(isam_com->syswrite);
    b->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
    return 0;
}

int v_write(PAGE pno, IS_DATA* datap) noexcept {
    int s = slot_of_data(datap);
    // A buffer that does not hold the page it is said to hold: only a damaged file (a
    // page reached twice along its links) leads here.
    if (s < 0 || slot(s)->bu_pno != pno) return is_raise(ISE_BTS, PROC(P_V_WRITE, 6));
    // Dirty, and listed for the commit.  Until then only this process (which holds the
    // control lock) could make the slot a victim, and it does so only when the pool has
    // no other (lg_steal).
    IS_BUF* b = slot(s);
    b->bu_id |= BU_DIRTY;
    if (!chg_in[s]) {
        chg_in[s] = 1;
        chg_slot[chg_n++] = static_cast<int16_t>(s);
    }
    return 0;
}

void v_abandoned(void) noexcept {
    take_own = false;
    if (!isam_com) return;
    // The page index may have been left half changed (an entry moved, another not yet):
    // a page of the pool it failed to find would be read from the file, which holds an
    // older copy of every page not yet written back.  It is built again from the chains.
    // (Fixes of the abandoned call are cleared by the first flush of each file, which
    // then walks the file's chain.)
    bk.com = nullptr;
    // A load cut short after it named its slot, before the change was recorded, would
    // let another process catching up load the page into a second slot: every file whose
    // lock this process still holds is learnt afresh by everyone, from its chain as it
    // stands.
    for (int u = 0; isx_area && u < isam_com->maxopen; ++u) {
        IS_FCP* f = pfo_fcp(u);
        if (!f || !is_lock_mine(&f->jd_fcplock)) continue;
        isx_file* x = xfile(u);
        std::atomic_ref<uint32_t>(x->xf_chaingen)
            .store(x->xf_chaingen + isx_area->xh_log_len + 1, std::memory_order_release);
        v_forget_file(u);
    }
    // Rebuilt from the marks: every slot marked is listed once.  Not only when the list
    // was known to be moving: the jump may land between a mark and its entry wherever
    // the compiler put them.
    chg_n = 0;
    for (int s = 0; s < isam_com->maxbufs && s < kSlots; ++s)
        if (chg_in[s]) chg_slot[chg_n++] = static_cast<int16_t>(s);
}

void v_unit_forget(int u) noexcept {
    int keep = 0;
    for (int i = 0; i < chg_n; ++i) {
        const int s = chg_slot[i];
        if (file_of(slot(s)) == u || (slot(s)->bu_id & BU_FILEMASK) == BU_FILEMASK)
            chg_in[s] = 0;
        else
            chg_slot[keep++] = static_cast<int16_t>(s);
    }
    chg_n = keep;
}

bool v_restore(IS_FCP* fcp, int u, PAGE pno, const IS_DATA* d) noexcept {
    // Every slot of the chain that names the page gets it back: a load abandoned after
    // the slot was named, but before the change was recorded, can leave a second one.
    bool found = false;
    const int nb = isam_com->maxbufs;
    const uint64_t mark = std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load() | ISX_LSN_FULL;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        IS_BUF* b = slot(s);
        if (b->bu_pno != pno || file_of(b) != u) continue;
        std::memcpy(b->bu_data.c, d->c, kisam::kPage);
        b->bu_id |= BU_DIRTY;
        // What the page holds now was committed by a record before the log's end; its
        // next entry is whole, since the entries since its last whole one were not all
        // kept.
        *kisam::isx_lsn(s) = mark;
        found = true;
    }
    return found;
}

namespace {
// A checkpoint's write-back: the dirty pages of a file in the order of their offsets, so
// that pages that follow each other in the file go out in one write (a run, copied into
// `run_buf`), not one write a page.  Process memory, no allocation: the checkpoint may
// run inside a call.
int16_t wb_order[kSlots];
constexpr int kRunPages = 64;
IS_DATA run_buf[kRunPages];
}  // namespace

int v_write_back(IS_FCP* fcp, int u, int fd) noexcept {
    const int nb = isam_com->maxbufs;
    int n = 0, m = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        IS_BUF* b = slot(s);
        if (!(b->bu_id & BU_DIRTY) || file_of(b) != u || b->bu_pno == KISAM_NOPAGE) continue;
        // A fixed page goes too (a fix left by a call that failed, or by a holder that
        // died): under the file's control lock nobody changes it, and with no rollback
        // due (lg_checkpoint) it holds what was committed.  Leaving it out would start the
        // log's next generation over a file that lacks it.  Only a page of this process's
        // running call is not committed: then the file cannot be brought up to date.
        if (chg_in[s]) return is_raise(ISE_FLWT, PROC(P_V_READ, 3));
        if (v_fileoffset(fcp, b->bu_pno) < 0) return is_raise(ISE_FLSK, PROC(P_V_READ, 2));
        wb_order[m++] = static_cast<int16_t>(s);
    }
    if (m == 0) return 0;
    std::sort(wb_order, wb_order + m, [](int16_t a, int16_t b) { return slot(a)->bu_pno < slot(b)->bu_pno; });
    v_changing(fcp, u);  // as writebuf
    const PAGE last = fcp->is_lastpage;
    for (int i = 0; i < m;) {
        const off_t off = v_fileoffset(fcp, slot(wb_order[i])->bu_pno);
        // Through the mapping where it covers the page (store_page).
        const int st = store_mapped(u, fd, slot(wb_order[i])->bu_data.c, off, last);
        if (st < 0) return is_raise(seek_errno(errno) ? ISE_FLSK : ISE_FLWT, PROC(P_V_READ, seek_errno(errno) ? 2 : 3));
        if (st > 0) {
            count(isam_com->syswrite);
            slot(wb_order[i])->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
            ++i;
            continue;
        }
        // Else the run from i, pages whose offsets follow each other, in one write call.
        int k = 1;
        while (i + k < m && k < kRunPages &&
               v_fileoffset(fcp, slot(wb_order[i + k])->bu_pno) == off + static_cast<off_t>(k) * kisam::kPage)
            ++k;
        const char* src = slot(wb_order[i])->bu_data.c;
        if (k > 1) {
            for (int j = 0; j < k; ++j) std::memcpy(run_buf[j].c, slot(wb_order[i + j])->bu_data.c, kisam::kPage);
            src = run_buf[0].c;
        }
        if (write_pages(u, fd, src, static_cast<size_t>(k) * kisam::kPage, off) != 0)
            return is_raise(seek_errno(errno) ? ISE_FLSK : ISE_FLWT, PROC(P_V_READ, seek_errno(errno) ? 2 : 3));
        for (int j = 0; j < k; ++j) {
            count(isam_com->syswrite);
            slot(wb_order[i + j])->bu_id &= static_cast<uint16_t>(~BU_DIRTY);
        }
        i += k;
    }
    return 0;
}

int v_dirty_pages(IS_FCP* fcp, int u, int (*fn)(void*, off_t, const IS_DATA*), void* arg) noexcept {
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        IS_BUF* b = slot(s);
        if (!(b->bu_id & BU_DIRTY) || file_of(b) != u || b->bu_pno == KISAM_NOPAGE) continue;
        if (fn(arg, v_fileoffset(fcp, b->bu_pno), &b->bu_data) != 0) return -1;
    }
    return 0;
}

int v_file_slots(IS_FCP* fcp, int u, int (*fn)(void*, int), void* arg) noexcept {
    const int nb = isam_com->maxbufs;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < nb; s = slot(s)->bu_next, ++n) {
        const IS_BUF* b = slot(s);
        if (file_of(b) != u || b->bu_pno == KISAM_NOPAGE) continue;
        if (fn(arg, s) != 0) return -1;
    }
    return 0;
}

int fcp_setdatachanged(IS_FCP* fcp, IS_PFI* pfi, int datachangedf, int syncf) noexcept {
    if ((fcp->is_optbits & ISO_SEQ) || (pfi->pfi_bits & PFI_RDONLY)) return 0;
    const bool marked = fcp->is_optbits & ISO_DIRTYMARK;
    if ((datachangedf != 0) == marked) return 0;
    const int u = pfi >= is_pfi && pfi < is_pfi + isam_com->maxopen ? static_cast<int>(pfi - is_pfi) : -1;
    if (u >= 0) {
        v_changing(fcp, u);
        // A mark that says clean needs every committed page in the file (a checkpoint);
        // the control page that carries a mark is a committed one, whose log must be on
        // disk first (lg.h rule 2).
        if (!datachangedf ? lg_checkpoint(fcp, u, pfi->pfi_osfd) != 0
                          : lg_sync_to(u, std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load()) != 0) {
            is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
            return -1;
        }
    }
    // The data must be on disk before a mark that says it is clean, and a mark that says
    // it is being changed before the data: a synchronisation that fails leaves the mark
    // as it was, and says so.
    if (syncf && kisam::os_fdatasync(pfi->pfi_osfd) != 0) {
        if (u >= 0) lg_file_sync_failed(u);  // what it lost, only the log still has
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
    // The shared copy says "marked" whenever the disk may be: a mark is set in the copy
    // before it is written, and cleared in the copy only once the disk has it cleared.  A
    // process killed in between leaves at worst a copy marked over a clean disk, which a
    // later clear writes again -- never a mark on the disk that the copy has forgotten,
    // which a last close would leave behind on a sound file.
    if (datachangedf) fcp->is_optbits |= ISO_DIRTYMARK;
    // The control page as committed: a call under way in this process has it as it was
    // when the call began (lg.h rule 2).  ISO_CHANGED stays as it is in the shared copy.
    unsigned char img[kisam::kFcpImage];
    // (A mark cleared is written after the checkpoint, the call committed: as it is now.)
    if (!(datachangedf && u >= 0 && jn_unit_fcp(fcp, img))) {
        const size_t len = static_cast<size_t>(IS_FCP_SIZE(fcp->is_nkeys) - IS_FCP_JDSIZE);
        const size_t take = len < sizeof img ? len : sizeof img;
        std::memcpy(img, &fcp->is_magic, take);
        std::memset(img + take, 0, sizeof img - take);
    }
    constexpr size_t kBitsAt = offsetof(IS_FCP, is_optbits) - offsetof(IS_FCP, is_magic);
    img[kBitsAt] = static_cast<unsigned char>((img[kBitsAt] & ~ISO_CHANGED) | ISO_DIRTYMARK);
    constexpr size_t kOptbitsAt = offsetof(IS_FCP, is_optbits) - offsetof(IS_FCP, is_magic);
    if (!datachangedf) img[kOptbitsAt] = static_cast<unsigned char>(img[kOptbitsAt] & ~ISO_DIRTYMARK);
    if (kisam::os_pwrite_full(pfi->pfi_osfd, img, sizeof img, 0) != 0) {
        fcp->is_optbits |= ISO_CHANGED;  // still due: the next flush tries again
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
    count(isam_com->syswrite);
    if (!datachangedf) fcp->is_optbits &= static_cast<uint8_t>(~ISO_DIRTYMARK);
    if (syncf && kisam::os_fdatasync(pfi->pfi_osfd) != 0) {
        if (u >= 0) lg_file_sync_failed(u);  // what it lost, only the log still has
        is_raise(ISE_FLFCP, PROC(P_V_READ, 1));
        return -1;
    }
    return 1;
}
