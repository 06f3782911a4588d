// Mutexes: recursive in-process mutexes that remember their owner, and named
// cross-process mutexes made of a lock file plus a local mutex, with fork handlers.
#include "zt_internal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Bytes of a global mutex's lock file: every process that has the mutex open holds a
// shared lock on the presence range; the holder of the mutex an exclusive lock on the
// mutex range.
constexpr off_t kPresenceAt = 0, kMutexAt = 4, kRangeLen = 4;
constexpr int kOpenAttempts = 11;

// Protects the list of local mutexes and their lock-on-fork bits.
pthread_mutex_t mtx_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
pthread_once_t mtx_once = PTHREAD_ONCE_INIT;
int mtx_initdonef = 0;

void init_recursive(pthread_mutex_t *m) {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(m, &a);
    pthread_mutexattr_destroy(&a);
}

void mtx_list_init() {
    pthread_atfork(ZT_PrepareForkCB, ZT_ParentForkCB, ZT_ChildForkCB);
    mtx_initdonef = 1;
}

int range_lock(int fd, off_t start, off_t len, short type, bool wait) {
    struct flock fl;
    std::memset(&fl, 0, sizeof fl);
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    int rc;
    do {
        rc = ::fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl);
    } while (rc != 0 && wait && errno == EINTR);
    return rc == 0 ? 0 : -1;
}

int range_unlock(int fd, off_t start, off_t len) {
    struct flock fl;
    std::memset(&fl, 0, sizeof fl);
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    return ::fcntl(fd, F_SETLK, &fl) == 0 ? 0 : -1;
}

void took_lock(ZTMutex *mp) {
    pthread_t self = pthread_self();
    if (mp->m_owner != 0 && pthread_equal(mp->m_owner, self)) {
        ++mp->m_count;
    } else {
        mp->m_count = 1;
        mp->m_owner = self;
    }
}

}  // namespace

extern "C" {

KISAM_API ZTMutex *mtx_headp = nullptr;
KISAM_API ZTMutex *mtx_tailp = nullptr;

KISAM_API int ZTMutexInit(ZTMutex *mp, const char *) {
    if (mp == nullptr) return -1;
    if (mp->m_bits & ZTMTX_INIT) return 0;   // entering it twice would loop the list
    pthread_once(&mtx_once, mtx_list_init);
    int rc = pthread_mutex_lock(&mtx_mutex);
    if (rc != 0) VError("ZTMutexInit() - pthread_mutex_lock() failed, rc: %d", rc);
    init_recursive(&mp->m_mtx);
    mp->m_bits |= ZTMTX_INIT;
    mp->m_nextp = nullptr;
    mp->m_prevp = mtx_tailp;
    if (mtx_tailp != nullptr)
        mtx_tailp->m_nextp = mp;
    else
        mtx_headp = mp;
    mtx_tailp = mp;
    if (rc == 0) {
        rc = pthread_mutex_unlock(&mtx_mutex);
        if (rc != 0) VError("ZTMutexInit() - pthread_mutex_unlock() failed, rc: %d", rc);
    }
    return 0;
}

KISAM_API ZTMutex *ZTMutexAlloc(const char *name) {
    auto mp = static_cast<ZTMutex *>(ZTAlloc(sizeof(ZTMutex)));
    mp->m_lockfd = -1;
    if (ZTMutexInit(mp, name) != 0) {
        ZTFree(mp);
        return nullptr;
    }
    return mp;
}

KISAM_API int ZTGlobalMutexInit(ZTMutex *mp, const char *name) {
    if (mp == nullptr || name == nullptr || *name == '\0') return -1;
    ZTMutex *local = ZTMutexAlloc(name);
    if (local == nullptr) return -1;

    char path[ZT_PATHMAX];
    int n;
    if (name[0] == '/') {
        n = std::snprintf(path, sizeof path, "%s.lck", name);
    } else {
        LoadEnv();
        n = std::snprintf(path, sizeof path, "%s/%s.lck", zt_comappdatap ? zt_comappdatap : ".", name);
    }
    if (n < 0 || n >= static_cast<int>(sizeof path)) {   // a cut name would be another mutex
        ZTMutexFree(local);
        return -1;
    }

    mode_t oldmask = ::umask(0);
    int fd = -1;
    for (int attempt = 1; attempt <= kOpenAttempts; ++attempt) {
        fd = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0) break;
        // The lock file may have been removed by its last user between our open and
        // our lock; only a descriptor that still names the file at the path counts.
        bool locked = range_lock(fd, kPresenceAt, kRangeLen, F_RDLCK, false) == 0;
        struct stat fst, pst;
        if (locked && ::fstat(fd, &fst) == 0 && ::stat(path, &pst) == 0 && fst.st_dev == pst.st_dev &&
            fst.st_ino == pst.st_ino)
            break;
        ::close(fd);
        fd = -1;
        if (attempt < kOpenAttempts) ZTSleep(1);
    }
    ::umask(oldmask);
    if (fd < 0) {
        ZTMutexFree(local);
        return -1;
    }
    mp->m_lockfd = fd;
    mp->m_lockfnp = ZTStrAlloc(path);
    mp->m_localmp = local;
    mp->m_bits |= ZTMTX_INIT | ZTMTX_GLOBAL;
    return 0;
}

KISAM_API ZTMutex *ZTGlobalMutexAlloc(const char *name) {
    if (name == nullptr) return nullptr;
    auto mp = static_cast<ZTMutex *>(ZTAlloc(sizeof(ZTMutex)));
    mp->m_lockfd = -1;
    if (ZTGlobalMutexInit(mp, name) != 0) {
        ZTFree(mp);
        return nullptr;
    }
    return mp;
}

KISAM_API int ZTMutexLock(ZTMutex *mp) {
    if (mp == nullptr) {
        VError("ZTMutexLock() - Null Mutex");
        return -1;
    }
    if (!(mp->m_bits & ZTMTX_INIT)) return -1;
    if (mp->m_bits & ZTMTX_GLOBAL) {
        int rc = ZTMutexLock(mp->m_localmp);
        if (rc != 0) return rc;
        rc = range_lock(mp->m_lockfd, kMutexAt, kRangeLen, F_WRLCK, true);
        if (rc != 0) ZTMutexUnlock(mp->m_localmp);
        return rc;
    }
    int rc = pthread_mutex_lock(&mp->m_mtx);
    if (rc != 0) {
        VError("ZTMutexLock() - pthread_mutex_lock() failed, rc: %d", rc);
        return rc;
    }
    took_lock(mp);
    return 0;
}

KISAM_API int ZTMutexLockWTO(ZTMutex *mp, int seconds) {
    if (mp == nullptr) {
        VError("ZTMutexLockWTO() - Null Mutex");
        return -1;
    }
    if (mp->m_bits & ZTMTX_GLOBAL) {
        VError("ZTMutexLockWTO() - Not Implemented For Global Mutexes");
        return -1;
    }
    if (!(mp->m_bits & ZTMTX_INIT)) return -1;
    int attempts = 0;
    for (;;) {
        int rc = pthread_mutex_trylock(&mp->m_mtx);
        if (rc == 0) {
            took_lock(mp);
            return 0;
        }
        if (rc != EBUSY) {
            VError("ZTMutexLockWTO() - pthread_mutex_trylock() failed, rc: %d", rc);
            return -1;
        }
        if (++attempts >= seconds) return 1;
        ZTSleep(1);
    }
}

KISAM_API int ZTMutexUnlock(ZTMutex *mp) {
    if (mp == nullptr) {
        VError("ZTMutexUnlock() - Null Mutex");
        return -1;
    }
    if (!(mp->m_bits & ZTMTX_INIT)) return -1;
    if (mp->m_bits & ZTMTX_GLOBAL) {
        int rc = range_unlock(mp->m_lockfd, kMutexAt, kRangeLen);
        ZTMutexUnlock(mp->m_localmp);
        return rc;
    }
    if (mp->m_owner != 0 && pthread_equal(mp->m_owner, pthread_self())) {
        if (mp->m_count <= 1) {
            mp->m_count = 0;
            mp->m_owner = 0;
        } else {
            --mp->m_count;
        }
    }
    int rc = pthread_mutex_unlock(&mp->m_mtx);
    if (rc != 0) VError("ZTMutexUnlock() - pthread_mutex_unlock() failed, rc: %d", rc);
    return rc;
}

KISAM_API void ZTMutexDestroy(ZTMutex *mp) {
    if (mp == nullptr || !(mp->m_bits & ZTMTX_INIT)) return;
    if (mp->m_bits & ZTMTX_GLOBAL) {
        if (mp->m_lockfd >= 0) {
            range_unlock(mp->m_lockfd, kPresenceAt, kRangeLen);
            // Granted only when no other process holds its presence lock: the last
            // user removes the file.
            if (range_lock(mp->m_lockfd, kPresenceAt, kRangeLen, F_WRLCK, false) == 0 && mp->m_lockfnp != nullptr)
                ::unlink(mp->m_lockfnp);
            ::close(mp->m_lockfd);   // drops every lock of this process on the file
        }
        ZTFree(mp->m_lockfnp);
        mp->m_lockfnp = nullptr;
        mp->m_lockfd = -1;
        ZTMutexFree(mp->m_localmp);
        mp->m_localmp = nullptr;
        mp->m_bits &= ~(ZTMTX_INIT | ZTMTX_GLOBAL);
        return;
    }
    int rc = pthread_mutex_lock(&mtx_mutex);
    if (rc != 0) VError("ZTMutexDestroy() - pthread_mutex_lock() failed, rc: %d", rc);
    if (mp->m_prevp != nullptr)
        mp->m_prevp->m_nextp = mp->m_nextp;
    else if (mtx_headp == mp)
        mtx_headp = mp->m_nextp;
    if (mp->m_nextp != nullptr)
        mp->m_nextp->m_prevp = mp->m_prevp;
    else if (mtx_tailp == mp)
        mtx_tailp = mp->m_prevp;
    mp->m_nextp = mp->m_prevp = nullptr;
    pthread_mutex_destroy(&mp->m_mtx);
    mp->m_bits &= ~ZTMTX_INIT;
    if (rc == 0) {
        rc = pthread_mutex_unlock(&mtx_mutex);
        if (rc != 0) VError("ZTMutexDestroy() - pthread_mutex_unlock() failed, rc: %d", rc);
    }
}

KISAM_API void ZTMutexFree(ZTMutex *mp) {
    if (mp == nullptr) return;
    ZTMutexDestroy(mp);
    ZTFree(mp);
}

KISAM_API void ZTMutexLockOnFork(ZTMutex *mp) {
    if (mp == nullptr) return;
    pthread_once(&mtx_once, mtx_list_init);
    pthread_mutex_lock(&mtx_mutex);
    mp->m_bits |= ZTMTX_ONFORK;
    // The handlers walk local mutexes only: for a global one, its companion is what
    // keeps other threads of this process out across the fork.
    if ((mp->m_bits & ZTMTX_GLOBAL) && mp->m_localmp != nullptr) mp->m_localmp->m_bits |= ZTMTX_ONFORK;
    pthread_mutex_unlock(&mtx_mutex);
}

KISAM_API void ZT_PrepareForkCB(void) {
    int rc = pthread_mutex_lock(&mtx_mutex);
    if (rc != 0) VError("ZT_PrepareForkCB() - pthread_mutex_lock() failed, rc: %d", rc);
    for (ZTMutex *mp = mtx_headp; mp != nullptr; mp = mp->m_nextp) {
        if (!(mp->m_bits & ZTMTX_ONFORK)) continue;
        rc = pthread_mutex_lock(&mp->m_mtx);
        if (rc != 0) VError("ZT_PrepareForkCB() - pthread_mutex_lock() failed, rc: %d", rc);
    }
}

KISAM_API void ZT_ParentForkCB(void) {
    for (ZTMutex *mp = mtx_tailp; mp != nullptr; mp = mp->m_prevp) {
        if (!(mp->m_bits & ZTMTX_ONFORK)) continue;
        int rc = pthread_mutex_unlock(&mp->m_mtx);
        if (rc != 0) VError("ZT_ParentForkCB() - pthread_mutex_unlock() failed, rc: %d", rc);
    }
    int rc = pthread_mutex_unlock(&mtx_mutex);
    if (rc != 0) VError("ZT_ParentForkCB() - pthread_mutex_unlock() failed, rc: %d", rc);
}

// Only the forking thread exists in the child: every mutex starts again unlocked,
// and its owner and count are cleared to match, so that an unlock in the child can
// never reach a thread mutex that is not locked.
KISAM_API void ZT_ChildForkCB(void) {
    init_recursive(&mtx_mutex);
    for (ZTMutex *mp = mtx_headp; mp != nullptr; mp = mp->m_nextp) {
        init_recursive(&mp->m_mtx);
        mp->m_owner = 0;
        mp->m_count = 0;
    }
}

}  // extern "C"
