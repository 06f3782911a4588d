// Journals after a restart (jn.h rule 5): when the shared area is made anew, a journal
// still ACTIVE or UNDO holds a unit that never reached its file; it is made IDLE, and a
// file that nobody has left anything to undo in gets its data-changed mark cleared.
#include "jn.h"
#include "jn_internal.h"

#include "is_access.h"
#include "os.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace kisam::journal {

namespace {

// Whether a journal found in a state other than IDLE may be rolled back.
bool trustworthy(const jn_head* h) {
    char b[kBootBytes];
    std::memcpy(b, h->jh_boot, sizeof b);
    b[sizeof b - 1] = '\0';
    return b[0] == '\0' || boot_id()[0] == '\0' || std::strcmp(b, boot_id()) == 0;
}

// Calls fn(map) for every journal file of this installation.
template <class Fn>
void each_journal(Fn fn) noexcept {
    is_each_beside(jbase, ".u", 0x7FFF, [](int slot, void* arg) {
        Map m;
        if (!open_other(slot, m)) return;
        (*static_cast<Fn*>(arg))(m);
        unmap(m);
    }, &fn);
}

}  // namespace
}  // namespace kisam::journal

using namespace kisam::journal;

void jn_recover_all(void) noexcept {
    // Nobody is attached: the pool that held the units' changes is gone, and none of them
    // reached a file (lg.h rule 2).  What the calls committed is in the logs.
    each_journal([](Map& m) {
        if (state_of(m.h).load(std::memory_order_acquire) != JN_IDLE)
            state_of(m.h).store(JN_IDLE, std::memory_order_release);
    });
}

bool jn_recover_file(uint64_t dev, uint64_t ino) noexcept {
    bool done = false;
    each_journal([&](Map& m) {
        jn_head* h = m.h;
        if (state_of(h).load(std::memory_order_acquire) == JN_IDLE || h->jh_dev != dev || h->jh_ino != ino)
            return;
        state_of(h).store(JN_IDLE, std::memory_order_release);
        done = true;
    });
    return done;
}

bool jn_pending(uint64_t dev, uint64_t ino) noexcept {
    bool found = false;
    each_journal([&](Map& m) {
        const jn_head* h = m.h;
        found |= state_of(m.h).load(std::memory_order_acquire) != JN_IDLE && h->jh_dev == dev &&
                 h->jh_ino == ino && trustworthy(h);
    });
    return found;
}

void jn_leftover(char* base, size_t segsize) noexcept {
    if (jbase[0] == '\0') return;
    kisam::ErrorKeep keep;
    jn_recover_all();
    const struct isam_com* com = reinterpret_cast<const struct isam_com*>(base);
    if (com->iscom_magicval != ISCOM_MAGIC || com->iscom_version != ISCOM_VERSION) return;
    isx_head* x = isx_find(base, segsize);
    if (!x || com->pfo_base <= 0 || com->heap_base <= 0 || com->buf_base <= 0) return;

    // Files that some journal still holds a unit of (it could not be rolled back) keep
    // their mark.
    struct Id {
        uint64_t dev, ino;
    } held[64];
    int nheld = 0;
    bool overflow = false;
    each_journal([&](Map& m) {
        if (state_of(m.h).load(std::memory_order_acquire) == JN_IDLE) return;
        if (nheld < 64)
            held[nheld++] = {m.h->jh_dev, m.h->jh_ino};
        else
            overflow = true;
    });
    if (overflow) return;

    const size_t heap_end = static_cast<size_t>(com->comsize);
    const int32_t* pfo = reinterpret_cast<const int32_t*>(base + com->pfo_base);
    const IS_BUF* bufs = reinterpret_cast<const IS_BUF*>(base + com->buf_base);
    for (int u = 0; u < com->maxopen; ++u) {
        const int32_t rel = pfo[u];
        if (rel < 0 || static_cast<size_t>(com->heap_base) + static_cast<size_t>(rel) + sizeof(IS_FCP) > heap_end)
            continue;
        const IS_FCP* f = reinterpret_cast<const IS_FCP*>(base + com->heap_base + rel);
        // Only a file with nothing left to undo.  (Its control page in the segment may
        // show the state of a call that a journal has just undone on disk: the disk
        // copy is the one that counts.)
        if (f->is_optbits & ISO_SEQ) continue;
        // (A rollback it names is settled by now, or its journal is among the busy ones.)
        bool dirty = false;
        int n = 0;
        for (int sl = f->jd_buf_hd; sl >= 0 && sl < com->maxbufs && n < com->maxbufs; sl = bufs[sl].bu_next, ++n)
            dirty |= (bufs[sl].bu_id & BU_DIRTY) != 0;
        if (dirty) continue;
        bool busy = false;
        for (int k = 0; k < nheld; ++k) busy |= held[k].dev == f->jd_dev && held[k].ino == f->jd_ino;
        if (busy) continue;

        char path[ISX_PATHLEN];
        std::memcpy(path, reinterpret_cast<char*>(x) + x->xh_path_base + static_cast<size_t>(u) * ISX_PATHLEN, sizeof path);
        path[sizeof path - 1] = '\0';
        jn_clear_mark(path, f);
    }
}

void jn_clear_mark(const char* path, const IS_FCP* f) noexcept {
    if (!path || path[0] == '\0') return;
    int fd = kisam::os_open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st;
    unsigned char img[kisam::kFcpImage];
    const size_t at = offsetof(IS_FCP, is_optbits) - IS_FCP_JDSIZE;
    const bool sync = (f->is_optbits & (ISO_SYNC | ISO_CLEARREL)) != 0;
    if (kisam::os.fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_dev) == f->jd_dev &&
        static_cast<uint64_t>(st.st_ino) == f->jd_ino &&
        kisam::os_pread_full(fd, img, sizeof img, 0) == static_cast<ssize_t>(sizeof img) &&
        (img[at] & ISO_DIRTYMARK) && kisam::load_at<uint16_t>(img) == f->is_magic) {
        img[at] = static_cast<uint8_t>(img[at] & ~ISO_DIRTYMARK);
        if (sync) kisam::os_fdatasync(fd);
        if (kisam::os_pwrite_full(fd, img, sizeof img, 0) == 0 && sync) kisam::os_fdatasync(fd);
    }
    kisam::os_close(fd);
}
