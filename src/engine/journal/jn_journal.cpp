// The undo journal (rules in jn.h and README.journal.md).
//
// File layout ("<lock file>.u<slot>", machine byte order):
//   0     jn_head, 4096 bytes: state, owner, the file of the unit (slot, device, inode,
//         path) and its control page as it was when the unit began
//   4096  jn_image[capacity]: page number and before-image of each page the unit
//         changed, in the order they were first changed; jh_npages of them are valid
// The owner writes the images before it raises jh_npages, and everything before it
// sets jh_state ACTIVE, so another process reading the file after the owner died sees
// only complete images.  The file's blocks are reserved (posix_fallocate) before they
// are used, so that a full disk stops a call before its first change, never a journal
// half way through one.
//
// Reads and writes: isam_com (tables), isx_area (xf_undo, statistics), is_pfi (the
// descriptors of open files), is_env.useridx (this process's slot).
#include "jn.h"

#include "lg.h"

#include "fcp.h"
#include "is_access.h"
#include "is_error.h"
#include "is_lock.h"
#include "isx_area.h"
#include "os.h"
#include "test_hook.h"
#include "v_pool.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint32_t kMagic = 0x324E4A4Bu;  // "KJN2"
constexpr size_t kHeadBytes = 4096;
constexpr uint32_t kFirstCapacity = 256;   // before-images reserved at first use
constexpr size_t kBootBytes = 48;
constexpr size_t kPathBytes = 3472;

struct jn_head {
    uint32_t jh_magic;          //    0-3
    uint32_t jh_state;          //    4-7    JN_IDLE, JN_ACTIVE, JN_UNDO
    int32_t jh_pid;             //    8-11   owner
    int16_t jh_slot;            //   12-13   owner's process slot
    int16_t jh_file;            //   14-15   shared-file slot of the unit's file
    uint64_t jh_dev;            //   16-23   the file's identity
    uint64_t jh_ino;            //   24-31
    uint32_t jh_npages;         //   32-35   valid images
    uint32_t jh_capacity;       //   36-39   images the file has room for
    uint32_t jh_units;          //   40-43   units begun (statistics)
    uint32_t jh_fcplen;         //   44-47   bytes of jh_fcp in use
    uint8_t jh_fcp[kisam::kFcpImage];  // 48-559  control page from is_magic on
    char jh_boot[kBootBytes];   //  560-607  the kernel's boot id when the journal was opened
    char jh_path[kPathBytes];   //  608-4079 the file's path (absolute when it could be made so)
    uint32_t jh_stole;          // 4080-4083 nonzero: the unit let pages go before its end (lg_steal),
                                //           so a rollback must close it in the log
    uint32_t jh_pad;            // 4084-4087
    uint64_t jh_commit;         // 4088-4095 LSN after the unit's log record once it is being
                                //           appended (0 before): the unit committed when the
                                //           file's log end (xf_log_end) has reached it
};
KISAM_RECORD(jn_head, kHeadBytes);
KISAM_AT(jn_head, jh_state, 4); KISAM_AT(jn_head, jh_npages, 32); KISAM_AT(jn_head, jh_fcp, 48);
KISAM_AT(jn_head, jh_boot, 560); KISAM_AT(jn_head, jh_path, 608); KISAM_AT(jn_head, jh_commit, 4088);

struct jn_image {
    uint32_t ji_pno;            // 0-3
    uint32_t ji_pad;            // 4-7
    IS_DATA ji_data;            // 8-1031
};
KISAM_RECORD(jn_image, 1032);

inline size_t bytes_for(uint32_t capacity) { return kHeadBytes + capacity * sizeof(jn_image); }

inline std::atomic_ref<uint32_t> state_of(jn_head* h) { return std::atomic_ref<uint32_t>(h->jh_state); }
inline jn_image* images(jn_head* h) {
    return reinterpret_cast<jn_image*>(reinterpret_cast<char*>(h) + kHeadBytes);
}

// A journal mapped into this process: its own, or another slot's for a rollback.
struct Map {
    int fd = -1;
    jn_head* h = nullptr;
    size_t len = 0;
};

void unmap(Map& m) noexcept {
    if (m.h) ::munmap(m.h, m.len);
    if (m.fd >= 0) kisam::os_close(m.fd);
    m = Map();
}

char jbase[PATH_MAX];  // the lock file's name

// The running kernel's boot id, "" when it cannot be read.  A journal written before the
// machine last started is not rolled back: its pages were kept by no kernel, and what
// reached the disk of it is anybody's guess.
const char* boot_id() noexcept {
    static char id[kBootBytes];
    static bool read = false;
    if (!read) {
        read = true;
        int fd = ::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            ssize_t n = ::read(fd, id, sizeof id - 1);
            ::close(fd);
            id[n > 0 ? n : 0] = '\0';
            if (char* nl = std::strchr(id, '\n')) *nl = '\0';
        }
    }
    return id;
}

// Whether a journal found in a state other than IDLE may be rolled back.
bool trustworthy(const jn_head* h) {
    char b[kBootBytes];
    std::memcpy(b, h->jh_boot, sizeof b);
    b[sizeof b - 1] = '\0';
    return b[0] == '\0' || boot_id()[0] == '\0' || std::strcmp(b, boot_id()) == 0;
}

void journal_name(char* out, size_t n, int slot) {
    std::snprintf(out, n, "%s.u%d", jbase, slot);
}

// Maps journal file fd whole; false when it holds no complete head.
bool map_fd(Map& m) noexcept {
    struct stat st;
    if (kisam::os.fstat(m.fd, &st) != 0 || st.st_size < static_cast<off_t>(kHeadBytes)) return false;
    void* p = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, m.fd, 0);
    if (p == MAP_FAILED) return false;
    m.h = static_cast<jn_head*>(p);
    m.len = static_cast<size_t>(st.st_size);
    return true;
}

// Opens another slot's journal; false when there is none (or it cannot be read).
bool open_other(int slot, Map& m) noexcept {
    char name[PATH_MAX + 16];
    journal_name(name, sizeof name, slot);
    // One that is not the installation's is never read: its page images and the path
    // it names would be written wherever its maker chose.
    m.fd = is_open_beside(jbase, name, O_RDWR);
    if (m.fd < 0) return false;
    if (!map_fd(m) || m.h->jh_magic != kMagic) {
        unmap(m);
        return false;
    }
    return true;
}

// The images of m that lie inside the mapping (a damaged count never reads past it).
uint32_t valid_images(const Map& m) {
    const uint32_t n = std::atomic_ref<uint32_t>(m.h->jh_npages).load(std::memory_order_acquire);
    const size_t room = (m.len - kHeadBytes) / sizeof(jn_image);
    return n < room ? n : static_cast<uint32_t>(room);
}

// This process's journal and the unit it runs.
struct Own {
    Map m;
    int slot = -1;
    int pid = 0;
    bool active = false;
    IS_FCP* fcp = nullptr;
    int u = -1;
    int depth = 0;
    PAGE oldlast = 0;
    // Pages saved in this unit: open addressing, a slot is valid when its stamp is gen;
    // idx is the number of the page's before-image.
    uint32_t* pno = nullptr;
    uint32_t* stamp = nullptr;
    uint32_t* idx = nullptr;
    uint32_t cap = 0;
    uint32_t gen = 0;
    // The file whose path jh_path holds.
    int path_u = -1;
    uint64_t path_dev = 0, path_ino = 0;
};
Own own;

inline int current_file() { return is_curdb ? is_curdb->uniqueid : static_cast<int>(is_curpfi - is_pfi); }

bool seen_grow() noexcept {
    const uint32_t ncap = own.cap ? own.cap * 2 : 1024;
    uint32_t* np = static_cast<uint32_t*>(std::calloc(ncap, sizeof(uint32_t)));
    uint32_t* ns = static_cast<uint32_t*>(std::calloc(ncap, sizeof(uint32_t)));
    uint32_t* ni = static_cast<uint32_t*>(std::calloc(ncap, sizeof(uint32_t)));
    if (!np || !ns || !ni) {
        std::free(np);
        std::free(ns);
        std::free(ni);
        return false;
    }
    for (uint32_t i = 0; i < own.cap; ++i) {
        if (own.stamp[i] != own.gen) continue;
        uint32_t k = (own.pno[i] >> 10) * 0x9E3779B1u & (ncap - 1);
        while (ns[k] == own.gen) k = (k + 1) & (ncap - 1);
        np[k] = own.pno[i];
        ns[k] = own.gen;
        ni[k] = own.idx[i];
    }
    std::free(own.pno);
    std::free(own.stamp);
    std::free(own.idx);
    own.pno = np;
    own.stamp = ns;
    own.idx = ni;
    own.cap = ncap;
    return true;
}

// True when pno was saved in this unit; otherwise records it (false).  A table that
// cannot grow answers false, and the page is saved again: harmless, only slower.
bool seen(PAGE pno, uint32_t count) noexcept {
    if (2 * (count + 1) > own.cap && !seen_grow()) return false;
    uint32_t k = (pno >> 10) * 0x9E3779B1u & (own.cap - 1);
    while (own.stamp[k] == own.gen) {
        if (own.pno[k] == pno) return true;
        k = (k + 1) & (own.cap - 1);
    }
    own.pno[k] = pno;
    own.stamp[k] = own.gen;
    own.idx[k] = count;
    return false;
}

int fail(int detail, int code = ISE_RDWT) noexcept { return is_raise(code, PROC(P_V_WRITE, detail)); }

// Lets go of the journal mapped now.  One inherited through fork is the parent's journal,
// never ours: it is unmapped without touching the file.
void drop_own() noexcept {
    if (own.m.h && own.pid != is_pid) {
        ::munmap(own.m.h, own.m.len);
        kisam::os_close(own.m.fd);
        own.m = Map();
    } else {
        unmap(own.m);
    }
}

// Opens (creating when needed) and maps this process's journal for its slot.
int open_own() noexcept {
    if (own.m.h && own.pid == is_pid && own.slot == is_env.useridx) return 0;
    drop_own();
    own.path_u = -1;
    char name[PATH_MAX + 16];
    journal_name(name, sizeof name, is_env.useridx);
    Map m;
    // Every user of the installation may have to roll this journal back, and nobody else
    // may read it: it gets the lock file's owner, group and shared mode.
    m.fd = is_open_beside(jbase, name, O_RDWR | O_CREAT);
    if (m.fd < 0) return fail(3, ISE_OPENF);
    struct stat st;
    if (kisam::os.fstat(m.fd, &st) != 0) {
        unmap(m);
        return fail(3, ISE_OPENF);
    }
    if (st.st_size < static_cast<off_t>(bytes_for(kFirstCapacity)) &&
        kisam::os_fallocate(m.fd, 0, static_cast<off_t>(bytes_for(kFirstCapacity))) != 0) {
        unmap(m);
        return fail(4);
    }
    if (!map_fd(m)) {
        unmap(m);
        return fail(4);
    }
    jn_head* h = m.h;
    if (h->jh_magic == kMagic && state_of(h).load() != JN_IDLE) {
        // A unit of the slot's previous owner that nobody rolled back yet: never
        // overwrite it (slots are handed out only once it is settled).
        unmap(m);
        return fail(2);
    }
    h->jh_magic = kMagic;
    std::snprintf(h->jh_boot, sizeof h->jh_boot, "%s", boot_id());
    h->jh_pid = is_pid;
    h->jh_slot = is_env.useridx;
    h->jh_capacity = static_cast<uint32_t>((m.len - kHeadBytes) / sizeof(jn_image));
    own.m = m;
    own.pid = is_pid;
    own.slot = is_env.useridx;
    return 0;
}

int grow_own() noexcept {
    jn_head* h = own.m.h;
    const uint32_t cap = h->jh_capacity * 2;
    const size_t len = bytes_for(cap);
    if (kisam::os_fallocate(own.m.fd, 0, static_cast<off_t>(len)) != 0) return -1;
    void* p = ::mremap(own.m.h, own.m.len, len, MREMAP_MAYMOVE);
    if (p == MAP_FAILED) return -1;
    own.m.h = static_cast<jn_head*>(p);
    own.m.len = len;
    own.m.h->jh_capacity = cap;
    return 0;
}

inline isx_file* xfile(int u) { return kisam::isx_file_of(u); }

// Whether m's unit reached its commit point: its log record is in and the file's log
// end has moved past it (no other call can have appended since: the unit's owner held
// the control lock until it died, and whoever looks now holds it).
bool committed(const jn_head* h, int u) noexcept {
    return h->jh_commit != 0 && isx_area &&
           std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load(std::memory_order_acquire) == h->jh_commit;
}

// Full rollback of m's unit on the shared file fcp (slot u), whose control lock the
// caller holds.  None of the unit's pages reached the file (lg.h rule 2): their copies in
// the pool get their before-images back, the pages past the old end are dropped, and the
// shared control page is restored.  A record the unit may have left in the log past the
// log's end is made invalid first.  0, or -1 (error raised).
int undo_shared(const Map& m, IS_FCP* fcp, int u) noexcept {
    jn_head* h = m.h;
    // First of all: nothing of the unit may be committed by a release that follows a
    // rollback cut short.
    v_unit_forget(u);
    if (h->jh_commit != 0 && lg_undo_tail(u, h->jh_commit) != 0) return -1;
    v_changing(fcp, u);

    // The shared control page as it was, but for the count of processes, which no unit
    // changes and which others may have changed since.
    const int16_t usecnt = fcp->is_usecnt;
    const uint32_t len = h->jh_fcplen <= kisam::kFcpImage ? h->jh_fcplen : 0;
    if (len == static_cast<uint32_t>(IS_FCP_SIZE(fcp->is_nkeys) - IS_FCP_JDSIZE))
        std::memcpy(&fcp->is_magic, h->jh_fcp, len);
    fcp->is_usecnt = usecnt;

    int bad = 0;
    const uint32_t n = valid_images(m);
    for (uint32_t i = 0; i < n; ++i) {
        const jn_image& im = images(h)[i];
        if (v_restore(fcp, u, im.ji_pno, &im.ji_data)) continue;
        // Not in the pool (a slot fixed by the unit is never a victim, so this is only
        // ever a page the unit saved but did not change): the file gets the before-image,
        // once the log that covers it is on disk.
        const int fd = lg_wfd(u);
        const off_t off = v_fileoffset(fcp, im.ji_pno);
        if (fd < 0 || off < 0 ||
            lg_sync_to(u, std::atomic_ref<uint64_t>(xfile(u)->xf_log_end).load()) != 0 ||
            kisam::os_pwrite_full(fd, im.ji_data.c, kisam::kPage, off) != 0) {
            if (bad++ == 0) fail(5);
        }
    }
    // Pages the unit added lie past the old end: nothing refers to them any more.
    v_discard(fcp, u, nullptr, 0, fcp->is_lastpage);
    // Pages the unit let go of are in the log as it left them, in a record that leaves
    // it open: a record with the pages as they are again closes it.
    if (h->jh_stole && bad == 0) {
        PAGE* pnos = static_cast<PAGE*>(std::malloc((n ? n : 1) * sizeof(PAGE)));
        const IS_DATA** datas = static_cast<const IS_DATA**>(std::malloc((n ? n : 1) * sizeof(IS_DATA*)));
        if (!pnos || !datas) {
            bad = 1;
            fail(5);
        } else {
            for (uint32_t i = 0; i < n; ++i) {
                pnos[i] = images(h)[i].ji_pno;
                datas[i] = &images(h)[i].ji_data;
            }
            if (lg_compensate(fcp, u, pnos, datas, static_cast<int>(n)) != 0) bad = 1;
            else h->jh_stole = 0;
        }
        std::free(pnos);
        std::free(datas);
    }
    if (isx_area) std::atomic_ref<uint32_t>(isx_area->xh_rolledback).fetch_add(1);
    return bad ? -1 : 0;
}


// Shared-file slot of fcp, or -1.
int slot_of(const IS_FCP* fcp) {
    const int32_t rel = static_cast<int32_t>(kisam::rel_of(fcp));
    for (int u = 0; u < isam_com->maxopen; ++u)
        if (is_env.pfo_tbl[u] == rel) return u;
    return -1;
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

void jn_setbase(const char* lockname) noexcept {
    std::snprintf(jbase, sizeof jbase, "%s", lockname ? lockname : "");
    lg_setbase(lockname);
}

void jn_close(void) noexcept {
    lg_close();
    drop_own();
    own.active = false;
    own.slot = -1;
    own.path_u = -1;
}

void jn_setpath(int u, const char* filename) noexcept {
    if (!isx_area || u < 0 || u >= isam_com->maxopen) return;
    char* slot = kisam::isx_path(u);
    slot[0] = '\0';
    if (char* p = filename ? ::realpath(filename, nullptr) : nullptr) {
        // A path too long for the table is left out: a rollback by another process then
        // needs a descriptor of its own to write with.
        if (std::strlen(p) < static_cast<size_t>(ISX_PATHLEN)) std::strcpy(slot, p);
        std::free(p);
    }
    if (own.path_u == u) own.path_u = -1;
}

int jn_begin(void) noexcept {
    if (open_own() != 0) return -1;
    IS_FCP* fcp = is_curfcp;
    const int u = current_file();
    // The unit is about to change the file (the control page first, often): readers
    // without the lock wait for its end from here on.
    v_changing(fcp, u);
    jn_head* h = own.m.h;
    if (++own.gen == 0) {
        if (own.stamp) std::memset(own.stamp, 0, own.cap * sizeof(uint32_t));
        own.gen = 1;
    }
    h->jh_file = static_cast<int16_t>(u);
    h->jh_dev = fcp->jd_dev;
    h->jh_ino = fcp->jd_ino;
    if (own.path_u != u || own.path_dev != fcp->jd_dev || own.path_ino != fcp->jd_ino) {
        std::snprintf(h->jh_path, sizeof h->jh_path, "%.*s", ISX_PATHLEN - 1, kisam::isx_path(u));
        own.path_u = u;
        own.path_dev = fcp->jd_dev;
        own.path_ino = fcp->jd_ino;
    }
    const uint32_t len = static_cast<uint32_t>(IS_FCP_SIZE(fcp->is_nkeys) - IS_FCP_JDSIZE);
    h->jh_fcplen = len;
    std::memcpy(h->jh_fcp, &fcp->is_magic, len);
    std::atomic_ref<uint32_t>(h->jh_npages).store(0, std::memory_order_relaxed);
    h->jh_commit = 0;
    h->jh_stole = 0;
    h->jh_units++;
    state_of(h).store(JN_ACTIVE, std::memory_order_release);
    own.active = true;
    own.fcp = fcp;
    own.u = u;
    own.depth = is_curpfi->pfi_ctlcnt;
    own.oldlast = fcp->is_lastpage;
    return 0;
}

int jn_touch(PAGE pno, const IS_DATA* d) noexcept {
    // A unit made the count odd when it began; a change outside one makes sure here.
    if (!own.active) v_changing(is_curfcp, current_file());
    if (kisam::test_hook) kisam::test_hook(kisam::kHookTouch, current_file());
    if (!own.active || pno >= own.oldlast || pno == 0) return 0;
    jn_head* h = own.m.h;
    const uint32_t n = h->jh_npages;
    if (seen(pno, n)) return 0;
    if (n >= h->jh_capacity) {
        if (grow_own() != 0) {
            // Forget the page again: it was not saved.
            uint32_t k = (pno >> 10) * 0x9E3779B1u & (own.cap - 1);
            while (own.stamp[k] == own.gen && own.pno[k] != pno) k = (k + 1) & (own.cap - 1);
            own.stamp[k] = 0;
            return fail(1);
        }
        h = own.m.h;
    }
    jn_image* e = images(h) + n;
    e->ji_pno = pno;
    std::memcpy(&e->ji_data, d, sizeof e->ji_data);
    std::atomic_ref<uint32_t>(h->jh_npages).store(n + 1, std::memory_order_release);
    return 0;
}

bool jn_active(void) noexcept { return own.active; }

const IS_DATA* jn_before(PAGE pno) noexcept {
    if (!own.active || !own.stamp || pno >= own.oldlast || pno == 0 || !is_curfcp || own.fcp != is_curfcp)
        return nullptr;
    uint32_t k = (pno >> 10) * 0x9E3779B1u & (own.cap - 1);
    while (own.stamp[k] == own.gen) {
        if (own.pno[k] == pno) {
            const uint32_t i = own.idx[k];
            return i < own.m.h->jh_npages ? &images(own.m.h)[i].ji_data : nullptr;
        }
        k = (k + 1) & (own.cap - 1);
    }
    return nullptr;
}

bool jn_unit_fcp(const IS_FCP* fcp, unsigned char out[kisam::kFcpImage]) noexcept {
    if (!own.active || own.fcp != fcp || !own.m.h) return false;
    const uint32_t len = own.m.h->jh_fcplen <= kisam::kFcpImage ? own.m.h->jh_fcplen : kisam::kFcpImage;
    std::memcpy(out, own.m.h->jh_fcp, len);
    std::memset(out + len, 0, kisam::kFcpImage - len);
    return true;
}

void jn_stole(void) noexcept {
    if (own.active && own.m.h) own.m.h->jh_stole = 1;
}

void jn_committing(uint64_t end) noexcept {
    if (own.active && own.m.h) own.m.h->jh_commit = end;
}

void jn_release(IS_FCP* fcp, int ctlcnt) noexcept {
    if (!own.active || own.fcp != fcp || ctlcnt >= own.depth) return;
    state_of(own.m.h).store(JN_IDLE, std::memory_order_release);
    own.active = false;
}

bool jn_continues(const IS_FCP* fcp, int ctlcnt) noexcept {
    return own.active && own.fcp == fcp && ctlcnt >= own.depth;
}

void jn_abort(void) noexcept {
    if (!own.active) return;
    kisam::ErrorKeep keep;
    jn_head* h = own.m.h;
    const int u = own.u;
    // A call that failed after its commit point (the sync that clears the data-changed
    // mark, say) is whole: there is nothing to undo.
    if (committed(h, u)) {
        state_of(h).store(JN_IDLE, std::memory_order_release);
        own.active = false;
        return;
    }
    // The rollback is named before the unit stops being this process's running one: a
    // signal handler that leaves this very rollback part way (the next call runs it
    // again first) must not lose it in between.
    if (isx_area) xfile(u)->xf_undo = static_cast<uint32_t>(own.slot + 1);
    state_of(h).store(JN_UNDO, std::memory_order_release);
    own.active = false;
    if (undo_shared(own.m, own.fcp, u) == 0) {
        state_of(h).store(JN_IDLE, std::memory_order_release);
        if (isx_area) xfile(u)->xf_undo = 0;
    }
}

void jn_note_stale(IS_FCP* fcp, uint32_t pid) noexcept {
    if (!isam_com || !isx_area || !fcp || pid == 0) return;
    const int u = slot_of(fcp);
    if (u < 0 || xfile(u)->xf_undo != 0) return;
    // A journal that holds a unit of this file belongs to a process that died: a live
    // one would hold the word now being taken over.  It need not be the dead holder's
    // own: a process that took the word over from it may have died before noting it.
    // So every slot's journal is looked at (this happens only after a death).
    for (int i = 0; i < isam_com->maxusers; ++i) {
        if (i == own.slot && own.pid == is_pid) continue;
        Map m;
        if (!open_other(i, m)) continue;
        const jn_head* h = m.h;
        const bool holds = state_of(m.h).load(std::memory_order_acquire) != JN_IDLE && h->jh_file == u &&
                           h->jh_dev == fcp->jd_dev && h->jh_ino == fcp->jd_ino;
        unmap(m);
        if (holds) {
            xfile(u)->xf_undo = static_cast<uint32_t>(i + 1);
            return;
        }
    }
}

int jn_settle(IS_FCP* fcp, int u) noexcept {
    if (!isx_area || u < 0) return 0;
    const uint32_t x = xfile(u)->xf_undo;
    if (x == 0) return 0;
    const int i = static_cast<int>(x) - 1;
    Map other;
    const bool mine = i == own.slot && own.pid == is_pid && own.m.h;
    if (!mine && !open_other(i, other)) {
        xfile(u)->xf_undo = 0;  // no journal there: nothing can be rolled back
        return 0;
    }
    const Map& m = mine ? own.m : other;
    jn_head* h = m.h;
    if (state_of(h).load(std::memory_order_acquire) == JN_IDLE || h->jh_file != u ||
        h->jh_dev != fcp->jd_dev || h->jh_ino != fcp->jd_ino) {
        xfile(u)->xf_undo = 0;
        unmap(other);
        return 0;
    }
    // A unit that died after its commit point is whole.
    const int rc = committed(h, u) ? 0 : (state_of(h).store(JN_UNDO, std::memory_order_release), undo_shared(m, fcp, u));
    if (rc == 0) {
        state_of(h).store(JN_IDLE, std::memory_order_release);
        xfile(u)->xf_undo = 0;
    }
    unmap(other);
    return rc;
}

int jn_clear_slot(int i, bool wait) noexcept {
    if (!isam_com) return 0;
    Map m;
    if (!open_other(i, m)) return 0;
    jn_head* h = m.h;
    int rc = 0;
    if (state_of(h).load(std::memory_order_acquire) != JN_IDLE) {
        const int u = h->jh_file;
        IS_FCP* fcp = u >= 0 && u < isam_com->maxopen ? kisam::pfo_fcp(u) : nullptr;
        if (fcp && (fcp->jd_dev != h->jh_dev || fcp->jd_ino != h->jh_ino)) fcp = nullptr;
        if (fcp) {
            // The unit's file is shared: roll back under its control lock, which is only
            // tried -- a live holder has taken the dead one's word over and settles the
            // unit itself.
            unsigned* w = &fcp->jd_fcplock;
            const bool mine = is_lock_mine(w);
            if (!mine) {
                unsigned prev = 0;
                if (wait) {
                    if (is_lock(w) != 0) {
                        unmap(m);
                        return -1;
                    }
                    prev = is_lock_stale ? is_lock_stale_pid : 0;
                } else {
                    if (is_lockitnw(kisam::com_offset(w)) != 0) {
                        unmap(m);
                        return -1;
                    }
                    prev = is_lock_claim(w);
                }
                if (prev != 0) {
                    jn_note_stale(fcp, prev);
                    if (state_of(h).load(std::memory_order_acquire) != JN_IDLE && isx_area &&
                        xfile(u)->xf_undo == 0)
                        xfile(u)->xf_undo = static_cast<uint32_t>(i + 1);
                    v_stale_fcplock(fcp);
                }
            }
            if (state_of(h).load(std::memory_order_acquire) != JN_IDLE && isx_area &&
                xfile(u)->xf_undo == 0)
                xfile(u)->xf_undo = static_cast<uint32_t>(i + 1);
            rc = jn_settle(fcp, u);
            if (!mine) is_unlock(w);
        } else {
            // Open nowhere: none of the unit reached the file (lg.h rule 2), and the pool
            // that held it is gone.
            state_of(h).store(JN_IDLE, std::memory_order_release);
        }
    }
    if (state_of(h).load(std::memory_order_acquire) != JN_IDLE) rc = -1;
    unmap(m);
    return rc;
}

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
