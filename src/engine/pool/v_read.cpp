// Fixing pages (v_internal.h rule 4): v_read and v_fresh find a page by the page index
// (a hit) or take a slot for it (a miss), fix it and put it on this process's fix list;
// v_unsafe and v_flush release the fixes.  readbuf is the page read of a miss.
#include "v_pool.h"
#include "v_internal.h"

#include "is_error.h"
#include "lg.h"
#include "os.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kisam::pool {

void walk_unfix(IS_FCP* fcp, int u) noexcept {
    (void)u;
    int n = 0;
    for (int s = fcp->jd_buf_hd; valid_slot(s) && n < isam_com->maxbufs; s = slot(s)->bu_next, ++n)
        slot(s)->bu_id &= static_cast<uint16_t>(~BU_INUSE);
}

namespace {

// The slot holding page pno of file u, or -1: through this process's page index when it
// keeps one (hb), learning u's chain again when the index may be behind it, else along
// the chain.
inline int find_cached(IS_FCP* fcp, int u, PAGE pno, bool hb) noexcept {
    if (!hb) return chain_find(fcp, pno);
    int s = index_find(u, pno);
    if (s < 0 && !(knows(u) && bk.known_gen[u] == chaingen(u))) {
        learn(fcp, u);
        s = index_find(u, pno);
    }
    return s;
}

// Page pno of the current file fixed in a slot: as cached or read, or (fresh) a page
// past the file's end, zeroed without a read, or (src) a miss loaded from an image read
// without the lock.
IS_DATA* get(PAGE pno, bool fresh, const IS_DATA* src = nullptr) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    const bool hb = book();
    const LRUt C = clock_advance(isam_com->lru_cnt);

    int s = find_cached(fcp, u, pno, hb);
    if (s >= 0) {
        IS_BUF* b = slot(s);
        count(isam_com->hit);
        b->bu_cnt = C;
        b->bu_id |= BU_INUSE;
        ref_set(s);
        if (hb) fix_note(s);
        if (fresh) std::memset(b->bu_data.c, 0, kisam::kPage);
        return &b->bu_data;
    }

    // A miss.  At its quota the file reuses one of its own slots in place: no buf_lock.
    if (static_cast<int64_t>(xfile(u)->xf_chainlen) >= isam_com->maxfbuf) {
        const bool rdonly = (is_curpfi->pfi_bits & PFI_RDONLY) && lg_wfd(u) < 0;
        const int v = own_victim(fcp, u, rdonly);
        if (v >= 0) {
            IS_BUF* b = slot(v);
            if ((b->bu_id & BU_DIRTY) && writebuf(b) != 0) return nullptr;
            if (load_slot(fcp, u, v, pno, false, fresh, src) != 0) return nullptr;
            count(isam_com->missfree);
            b->bu_id |= BU_INUSE;
            if (hb) fix_note(v);
            return &b->bu_data;
        }
    }

    s = take_slot(fcp, u, pno, hb, fresh, src);
    return s < 0 ? nullptr : &slot(s)->bu_data;
}

}  // namespace
}  // namespace kisam::pool

using namespace kisam::pool;

int v_slot_of(const void* addr) noexcept { return slot_of_data(addr); }

IS_DATA* v_read(PAGE pno) noexcept { return get(pno, false); }
IS_DATA* v_fresh(PAGE pno) noexcept { return get(pno, true); }

int v_install(PAGE pno, const IS_DATA* img, uint32_t seq, bool load) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    if (find_cached(fcp, u, pno, book()) >= 0 || !load) return 0;  // loaded meanwhile, or only learnt
    if (!img) return v_read(pno) ? 0 : -1;
    // The image is the page as on disk when no page of the file was written or changed
    // since it was read: every such write happens with the count odd (writebuf,
    // v_write_back, the rollback), and the count was even then and is the same now.
    const uint32_t now = isx_area ? std::atomic_ref<uint32_t>(xfile(u)->xf_seq).load(std::memory_order_acquire) : 1;
    return get(pno, false, (now & 1) == 0 && now == seq ? img : nullptr) ? 0 : -1;
}

int readbuf(IS_BUF* b, PAGE pno) noexcept {
    IS_FCP* fcp = is_curfcp;
    const off_t off = v_fileoffset(fcp, pno);
    // A page must start at a valid offset and end within the 32-bit numbering.
    if (off < 0 || pno > KISAM_NOPAGE - kisam::kPage) return is_raise(ISE_RDSK, PROC(P_V_READ, 4));
    // A page the file's mapping covers is copied from it: the same bytes as a read (the
    // mapping is shared, and the file never shrinks under it), without the system call.
    const int fd = is_curpfi->pfi_osfd;
    ssize_t n = map_load(current_file(), fd, off, b->bu_data.c) ? kisam::kPage
                                                                     : kisam::os_pread_full(fd, b->bu_data.c, kisam::kPage, off);
    if (n < 0) {
        // An outright failure is never taken for an empty read, not even in a sequential
        // file: zeros would hide an I/O error as data.
        return seek_errno(errno) ? is_raise(ISE_RDSK, PROC(P_V_READ, 4))
                                 : is_raise(ISE_RDRD, PROC(P_V_READ, 5));
    }
    if (n < kisam::kPage) {
        if (!(fcp->is_optbits & ISO_SEQ)) return is_raise(ISE_RDRD, PROC(P_V_READ, 5));
        std::memset(b->bu_data.c + n, 0, static_cast<size_t>(kisam::kPage - n));
        if (fcp->is_lastpage < pno + kisam::kPage) {
            v_changing(fcp, current_file());  // the shared control page changes
            fcp->is_nextfree = fcp->is_lastpage = pno + kisam::kPage;
        }
    }
    count(isam_com->sysread);
    // Only a complete page gets a name: a process killed during the read leaves the
    // slot holding no page, never a page made of another page's bytes.
    std::atomic_ref<uint32_t>(b->bu_pno).store(pno, std::memory_order_release);
    return 0;
}

int v_unsafe(PAGE pno, char* addr) noexcept {
    int s = slot_of_data(addr);
    if (s < 0 || slot(s)->bu_pno != pno) return -1;
    slot(s)->bu_id &= static_cast<uint16_t>(~BU_INUSE);
    return 0;
}

int v_hit(PAGE pno, int keyno) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    int s = find_cached(fcp, u, pno, book());
    return s >= 0 && slot(s)->bu_data.bt.bt_keyno == keyno ? 1 : 0;
}

void v_ask(PAGE pno) noexcept {
    if (book()) v_prefetch(reinterpret_cast<const char*>(bk.tab + home_of(page_key(current_file(), pno))));
}

const IS_DATA* v_glance(PAGE pno) noexcept {
    if (!book()) return nullptr;
    const int u = current_file();
    const int pos = index_pos(page_key(u, pno));
    if (pos < 0) return nullptr;
    const IS_BUF* b = slot(entry_slot(bk.tab[pos]));
    v_peek_ask(b->bu_data.c, kPeekWhole);
    return file_of(b) == u && b->bu_pno == pno ? &b->bu_data : nullptr;
}

int v_flush(void) noexcept {
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    IS_PFI* pfi = &is_pfi[u];
    if (!(pfi->pfi_bits & PFI_SEQ)) {
        const bool big = pfi->pfi_bits & PFI_BIGFCP;
        if (fcp->is_magic != (big ? ISMAGIC_1024 : ISMAGIC_512))
            return is_raise(ISE_FLFCP, PROC(P_V_READ, big ? 1 : 2));
    }
    // The commit (v_write.cpp); the fixes are released only when it succeeded.  With no
    // page listed and the control page unchanged it has nothing to do.
    if ((chg_n > 0 || (fcp->is_optbits & ISO_CHANGED)) && commit_changes(fcp, u, pfi) != 0) return -1;

    if (!book()) {
        walk_unfix(fcp, u);
        return 0;
    }
    // A holder that waited for a record lock gave the control lock up with its fixes in
    // place; the first flush after such a wait walks the chain once.
    const uint32_t waits = std::atomic_ref<uint32_t>(isam_com->usrwaits).load(std::memory_order_relaxed);
    if (!bk.walked[u] || bk.walk_waits[u] != waits) {
        walk_unfix(fcp, u);
        bk.walked[u] = 1;
        bk.walk_waits[u] = waits;
    }

    int keep = 0;
    for (int i = 0; i < bk.nfixed; ++i) {
        const int s = bk.fixed[i];
        IS_BUF* b = slot(s);
        const int f = file_of(b);
        if (f != u && f < bk.nopen) {
            bk.fixed[keep++] = static_cast<int16_t>(s);  // another file's
            continue;
        }
        if (f == u) b->bu_id &= static_cast<uint16_t>(~BU_INUSE);
        bk.listed[s] = 0;
    }
    bk.nfixed = keep;
    return 0;
}

void v_stale_fcplock(IS_FCP* fcp) noexcept {
    if (!isam_com || !fcp) return;
    const int32_t rel = static_cast<int32_t>(kisam::rel_of(fcp));
    for (int u = 0; u < isam_com->maxopen; ++u) {
        if (is_env.pfo_tbl[u] != rel) continue;
        // The holder may have died in the middle of a chain change, before recording it:
        // whatever anyone knew of the chain is suspect, and the next miss walks it.
        if (isx_area) chain_forget(u);
        // A change count it left odd is now this hold's to make even at its release,
        // after the repairs (readers meanwhile take the lock and wait for them).
        v_seq_adopt(fcp, u);
        walk_unfix(fcp, u);
        return;
    }
}
