// The undo journal: this process's journal file, and the unit it runs (rules in jn.h
// and README.journal.md; the file's layout in jn_internal.h).  A unit saves the shared
// control page when it begins and each page's before-image before the page is first
// changed; it ends at its commit.
#include "jn.h"
#include "jn_internal.h"

#include "lg.h"

#include "is_access.h"
#include "is_error.h"
#include "os.h"
#include "test_hook.h"
#include "v_pool.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam::journal {

void unmap(Map& m) noexcept {
    if (m.h) ::munmap(m.h, m.len);
    if (m.fd >= 0) kisam::os_close(m.fd);
    m = Map();
}

char jbase[PATH_MAX];

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

namespace {

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


}  // namespace

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

uint32_t valid_images(const Map& m) {
    const uint32_t n = std::atomic_ref<uint32_t>(m.h->jh_npages).load(std::memory_order_acquire);
    const size_t room = (m.len - kHeadBytes) / sizeof(jn_image);
    return n < room ? n : static_cast<uint32_t>(room);
}

Own own;

int fail(int detail, int code) noexcept { return is_raise(code, PROC(P_V_WRITE, detail)); }

namespace {

bool seen_grow() noexcept {
    const uint32_t ncap = own.cap ? own.cap * 2 : 1024;
    uint32_t* np = static_cast<uint32_t*>(std::calloc(ncap, sizeof(uint32_t)));
    uint32_t* ns = static_cast<uint32_t*>(std::calloc(ncap, sizeof(uint32_t)));
    uint32_t* ni = static_cast<uint32_t*>(std::calloc(ncap, sizeof(uint32_t)));
    jn_change* nc = static_cast<jn_change*>(std::calloc(ncap, sizeof(jn_change)));
    if (!np || !ns || !ni || !nc) {
        std::free(np);
        std::free(ns);
        std::free(ni);
        std::free(nc);
        return false;
    }
    if (own.cap) std::memcpy(nc, own.chg, own.cap * sizeof(jn_change));
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
    std::free(own.chg);
    own.pno = np;
    own.stamp = ns;
    own.idx = ni;
    own.chg = nc;
    own.cap = ncap;
    return true;
}

// 1 when pno was saved in this unit (*at: the number of its image); otherwise records it
// (0, *at: the number its image gets).  A table that cannot grow still takes the page
// while it has a free slot left (its probes only get longer); -1 when it has none: the
// page must not be saved twice, since a rollback puts the images back in their order and
// the second one is not the page as the unit found it.
int seen(PAGE pno, uint32_t count, int64_t* at) noexcept {
    *at = -1;
    if (2 * (count + 1) > own.cap && !seen_grow() && count + 1 >= own.cap) return -1;
    uint32_t k = (pno >> 10) * 0x9E3779B1u & (own.cap - 1);
    while (own.stamp[k] == own.gen) {
        if (own.pno[k] == pno) {
            *at = own.idx[k];
            return 1;
        }
        k = (k + 1) & (own.cap - 1);
    }
    *at = count;
    own.pno[k] = pno;
    own.stamp[k] = own.gen;
    own.idx[k] = count;
    return 0;
}

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

}  // namespace
}  // namespace kisam::journal

using namespace kisam::journal;

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

int jn_ready(void) noexcept { return own.cap != 0 || seen_grow() ? 0 : -1; }

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

int jn_touch(PAGE pno, const IS_DATA* d) noexcept { return jn_touch_part(pno, d, kJnAnywhere); }

int jn_touch_part(PAGE pno, const IS_DATA* d, const jn_change& c) noexcept {
    // A unit made the count odd when it began; a change outside one makes sure here.
    if (!own.active) v_changing(is_curfcp, current_file());
    if (kisam::test_hook) kisam::test_hook(kisam::kHookTouch, current_file());
    if (!own.active || pno >= own.oldlast || pno == 0) return 0;
    jn_head* h = own.m.h;
    const uint32_t n = h->jh_npages;
    int64_t at;
    const int was = seen(pno, n, &at);
    if (was > 0) {
        // A later change: its move, if any, is only bytes that changed.
        jn_change& e = own.chg[at];
        e.blocks |= c.blocks;
        if (c.mv_by != 0) {
            const int lo = c.mv_by < 0 ? c.mv_from + c.mv_by : c.mv_from;
            const int hi = c.mv_from + c.mv_len + (c.mv_by > 0 ? c.mv_by : 0);
            for (int b = lo < 0 ? 0 : lo / 32; b * 32 < hi && b < 32; ++b) e.blocks |= 1u << b;
        }
        return 0;
    }
    if (was < 0) return fail(1);
    if (n >= h->jh_capacity) {
        if (grow_own() != 0) {
            // Forget the page again: it was not saved.  Clearing its slot cannot cut
            // another page's probe chain: it was recorded just now, the last entry of the
            // table, and entries are never removed otherwise, so the slot was empty when
            // every other page was placed -- no page's chain runs through it.  The table
            // is as it was before this touch.
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
    if (at >= 0) own.chg[at] = c;
    std::atomic_ref<uint32_t>(h->jh_npages).store(n + 1, std::memory_order_release);
    return 0;
}

bool jn_active(void) noexcept { return own.active; }

const IS_DATA* jn_before(PAGE pno, jn_change* chg) noexcept {
    if (chg) *chg = kJnAnywhere;
    if (!own.active || !own.stamp || pno >= own.oldlast || pno == 0 || !is_curfcp || own.fcp != is_curfcp)
        return nullptr;
    uint32_t k = (pno >> 10) * 0x9E3779B1u & (own.cap - 1);
    while (own.stamp[k] == own.gen) {
        if (own.pno[k] == pno) {
            const uint32_t i = own.idx[k];
            if (i >= own.m.h->jh_npages) return nullptr;
            if (chg) *chg = own.chg[i];
            return &images(own.m.h)[i].ji_data;
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
