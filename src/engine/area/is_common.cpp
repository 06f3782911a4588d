// The common segment: attachment state, attaching and removing the System V segment,
// sizing it from the configuration, laying out a new one, and the small helpers of the
// same module (whole-range file locks, file identity, text helpers).
//
// Nothing inside the segment holds an address: every process maps it wherever it can,
// so regions are reached through the header's bases and heap objects through offsets.
// getcomm zeroes a segment that no process had attached; is_comlayout and the heap's
// is_heaplayout then initialise it under the start-up lock, before any other process can
// look at it.
#include "is_common.h"

#include "is_access.h"
#include "isx_area.h"
#include "os.h"

#include <kisam/ztsupport.h>

#include <cerrno>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
KISAM_API struct isam_com* isam_com = nullptr;
KISAM_API int is_pid = 0;
KISAM_API int is_lockfd = -1;
KISAM_API struct is_envinfo is_env = {};
KISAM_API long maxheapsize = 2147483647L;
KISAM_API const char* hexchars = "0123456789abcdef";
}

int is_shmid = -1;
int is_firstcomf = 0;
size_t is_shmsize = 0;

namespace {

constexpr int64_t kSegmentRound = 8192;
constexpr int kMegabyteShift = 20;

// Attach address asked for by "ISAMADDR" (megabytes), or null to let the system choose.
void* attach_hint() {
    const char* s = std::getenv("ISAMADDR");
    if (s == nullptr || *s == '\0') return nullptr;
    unsigned long mb = std::strtoul(s, nullptr, 10);
    return reinterpret_cast<void*>(static_cast<uintptr_t>(mb) << kMegabyteShift);
}

void fill_info(const struct stat& st, struct file_info* fi) {
    fi->f_inode = st.st_ino;
    fi->f_dev = st.st_dev;
    fi->f_size = static_cast<PAGE>(st.st_size);
}

}  // namespace

char* getcomm(key_t key, int size, void (*leftover)(char*, size_t), const struct is_access* acc) noexcept {
    is_firstcomf = 0;
    is_shmsize = 0;
    is_shm_refused = false;
    bool created = false;
    if (acc && !acc->everyone)
        is_shmid = is_shm_open(key, static_cast<size_t>(size), *acc, &created);
    else
        is_shmid = kisam::os.shmget(key, static_cast<size_t>(size), IPC_CREAT | 0666);
    struct shmid_ds ds;
    if (is_shmid < 0) {
        if (is_shm_refused) return reinterpret_cast<char*>(-1);  // is_shm_open said why
        const int e = errno;
        // Too small a segment under the key: learn its size, so that the caller can say
        // what kind of segment it is.
        int old = e == EINVAL ? ::shmget(key, 0, 0) : -1;
        if (old >= 0 && ::shmctl(old, IPC_STAT, &ds) == 0) {
            is_shmid = old;
            is_shmsize = ds.shm_segsz;
        }
        errno = e;
        VError("shmget fail. errno = %d\n", e);
        errno = e;
        return reinterpret_cast<char*>(-1);
    }
    if (::shmctl(is_shmid, IPC_STAT, &ds) == 0) {
        is_shmsize = ds.shm_segsz;
        if (ds.shm_nattch == 0) is_firstcomf = 1;
    }
    void* p = ::shmat(is_shmid, attach_hint(), SHM_RND);
    if (p == reinterpret_cast<void*>(-1)) {
        const int e = errno;
        // A segment nobody is attached to is of no use to anyone: do not leave it behind.
        if (is_firstcomf) ::shmctl(is_shmid, IPC_RMID, nullptr);
        VError("shmget fail. errno = %d\n", e);
        errno = e;
        return reinterpret_cast<char*>(-1);
    }
    // A segment nobody had attached may hold what its last users left: start clean.
    if (is_firstcomf) {
        if (leftover) leftover(static_cast<char*>(p), is_shmsize);
        std::memset(p, 0, static_cast<size_t>(size));
    }
    return static_cast<char*>(p);
}

void freecom(void) noexcept {
    if (isam_com == nullptr) return;
    isx_area = nullptr;
    ::shmdt(isam_com);
    struct shmid_ds ds;
    if (::shmctl(is_shmid, IPC_STAT, &ds) == 0 && ds.shm_nattch == 0)
        ::shmctl(is_shmid, IPC_RMID, nullptr);
}

static int lock_range(int fd, int cmd, long sofst, long eofst) {
    if (::lseek(fd, sofst, SEEK_SET) < 0) return -1;
    int r;
    do {
        r = ::lockf(fd, cmd, eofst - sofst);
    } while (r != 0 && errno == EINTR);
    return r;
}

int ISLockFile(int fd, long sofst, long eofst) noexcept { return lock_range(fd, F_LOCK, sofst, eofst); }

int ISUnlockFile(int fd, long sofst, long eofst) noexcept {
    return lock_range(fd, F_ULOCK, sofst, eofst);
}

int osstat(const char* fn, struct file_info* fi) noexcept {
    struct stat st;
    if (fn == nullptr || ::stat(fn, &st) != 0) return -1;
    fill_info(st, fi);
    return 0;
}

int osfstat(int fd, struct file_info* fi) noexcept {
    struct stat st;
    if (kisam::os.fstat(fd, &st) != 0) return -1;
    fill_info(st, fi);
    return 0;
}

int sizecomm(struct is_config* confp) noexcept {
    int64_t heap = 0;
    if (size_layout(confp, &heap) == 0) return 0;
    VError("common heap size of %ldK bytes exceeds maximum of %dK bytes.\n",
           static_cast<long>(heap / 1024), static_cast<int>(maxheapsize / 1024));
    return -1;
}

int size_layout(struct is_config* confp, int64_t* heapp) noexcept {
    // 64-bit throughout: the products of 16-bit settings overflow 32 bits long before
    // the limit on the heap is reached.
    const int64_t maxbuf = confp->co_maxbuf, maxopen = confp->co_maxopen;
    const int64_t maxusers = confp->co_maxusers, avgalts = confp->co_avgalts;
    const int64_t alenlock = confp->co_alenlock, anumlock = confp->co_anumlock;

    const int64_t bufbase = kisam::kComHeader;
    const int64_t pfobase = bufbase + maxbuf * kisam::kBufSlot;
    const int64_t pidbase = pfobase + maxopen * 4;
    const int64_t needbase = pidbase + maxusers * 4;
    const int64_t end = pidbase + maxusers * 8;  // end of the waiting table
    const int64_t heapbase = (end + 3) / 4 * 4;

    int64_t s = end + ((avgalts * 16 + 1568) * maxopen) / 10 +
                (((alenlock + 16) * anumlock + 4) / 4) * maxopen * 4;
    s = (s + kSegmentRound - 1) / kSegmentRound * kSegmentRound;
    int64_t heap = (s - heapbase) / 4 * 4;
    // The segment size is a signed 32-bit field; a heap that fits the limit but pushes
    // the whole segment past it is just as impossible.
    *heapp = heap;
    if (heap > maxheapsize || heapbase + heap > INT32_MAX) return -1;
    confp->co_bufbase = static_cast<int32_t>(bufbase);
    confp->co_pfobase = static_cast<int32_t>(pfobase);
    confp->co_pidbase = static_cast<int32_t>(pidbase);
    confp->co_needbase = static_cast<int32_t>(needbase);
    confp->co_heapbase = static_cast<int32_t>(heapbase);
    confp->co_comsize = static_cast<int32_t>(heapbase + heap);
    return 0;
}

void is_comlayout(const struct is_config* conf) noexcept {
    char* base = reinterpret_cast<char*>(isam_com);
    std::memset(base, 0, kisam::kComHeader);
    // The header's first 52 bytes have the configuration record's shape, so each setting
    // lands in its field; buf_lock receives co_bits, as every release has done.
    std::memcpy(base, conf, sizeof(struct is_config));
    isam_com->iscom_magicval = ISCOM_MAGIC;
    isam_com->iscom_version = ISCOM_VERSION;
    isam_com->lru_cnt = 0;
    isam_com->vr_nsleep = 0;

    // Free buffer chain 0, 1, ..., maxbuf - 1; buf_free stays 0.
    const int nbuf = conf->co_maxbuf;
    IS_BUF* bufs = reinterpret_cast<IS_BUF*>(base + conf->co_bufbase);
    for (int i = 0; i < nbuf; ++i) bufs[i].bu_next = static_cast<int16_t>(i + 1);
    if (nbuf > 0) bufs[nbuf - 1].bu_next = -1;
    isam_com->buf_free = 0;

    int32_t* pfo = reinterpret_cast<int32_t*>(base + conf->co_pfobase);
    for (int i = 0; i < conf->co_maxopen; ++i) pfo[i] = -1;
}

void is_setenv(void) noexcept {
    char* base = reinterpret_cast<char*>(isam_com);
    is_env.buf_ = reinterpret_cast<IS_BUF*>(base + isam_com->buf_base);
    is_env.heap_ = base + isam_com->heap_base;
    is_env.pfo_tbl = reinterpret_cast<int32_t*>(base + isam_com->pfo_base);
    is_env.pid_ = reinterpret_cast<int32_t*>(base + isam_com->pid_base);
    is_env.needs_ = reinterpret_cast<uint32_t*>(base + isam_com->need_base);
}

extern "C" {

KISAM_API void wqltoa(long n, char* str, int w) { std::sprintf(str, "%*ld", w, n); }

KISAM_API void wqitoa(int n, char* str, int wid) { wqltoa(n, str, wid); }

KISAM_API int wqindex(const char* str, char ch) {
    if (str == nullptr) return -1;
    for (int i = 0; str[i] != '\0'; ++i)
        if (str[i] == ch) return i;
    return -1;
}

}  // extern "C"
