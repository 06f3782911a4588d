// Who may use an installation: the mode, owner and group of what it shares, and the
// checks of what is found in its place (rules in is_access.h).
#include "is_access.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>

#include "os.h"

#include <kisam/ztsupport.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

bool is_shm_refused = false;

namespace {

constexpr mode_t kPerm = 0777;

// Bits the lock file gives away, less execute: nothing found may have more.
inline mode_t lock_bits(const is_access& a) { return a.lkmode & 0666; }

// Whether the group database makes uid a member of gid (its primary group or a
// supplementary one).  Asked only about a user other than the owner, root and this
// process's user, so only when a group installation meets a second member.
bool lookup_member(uid_t uid, gid_t gid) noexcept {
    long want = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    size_t len = want > 0 ? static_cast<size_t>(want) : 4096;
    struct passwd pw, *res = nullptr;
    char* buf = nullptr;
    for (int tries = 0; tries < 6; ++tries, len *= 4) {
        std::free(buf);
        buf = static_cast<char*>(std::malloc(len));
        if (!buf) return false;
        int e = ::getpwuid_r(uid, &pw, buf, len, &res);
        if (e != ERANGE) break;
    }
    bool yes = false;
    if (res) {
        yes = pw.pw_gid == gid;
        int n = 64;
        for (int tries = 0; !yes && tries < 6; ++tries) {
            gid_t* groups = static_cast<gid_t*>(std::malloc(static_cast<size_t>(n) * sizeof(gid_t)));
            if (!groups) break;
            int got = n;
            const int r = ::getgrouplist(pw.pw_name, pw.pw_gid, groups, &got);
            for (int i = 0; r >= 0 && i < got; ++i) yes |= groups[i] == gid;
            std::free(groups);
            if (r >= 0) break;
            n = got > n ? got : n * 4;
        }
    }
    std::free(buf);
    return yes;
}

// lookup_member, remembered: after a death every slot's journal is looked at, and the
// group database need not be asked about the same user each time.
bool member_of(uid_t uid, gid_t gid) noexcept {
    struct Known {
        uid_t uid;
        gid_t gid;
        bool yes;
    };
    static Known known[16];
    static unsigned n = 0;
    for (unsigned i = 0; i < n && i < 16; ++i)
        if (known[i].uid == uid && known[i].gid == gid) return known[i].yes;
    const bool yes = lookup_member(uid, gid);
    known[n++ % 16] = {uid, gid, yes};
    return yes;
}

// A segment or file that grants no class more than the installation shares with it: no
// bit the lock file does not have (execute aside), no write for a class that may not
// open the lock file read-write, and group bits only for the lock file's group.
bool mode_fits(const is_access& a, mode_t mode, gid_t gid) {
    mode &= kPerm;
    if (mode & ~lock_bits(a)) return false;
    if (mode & 0222 & ~a.shared) return false;
    return a.everyone || !(mode & 0070) || gid == a.group;
}

// Gives a segment this process has just created the installation's owner, group and
// mode.  It was created 0600: until now only this process's user could reach it.
int adopt_segment(int id, const is_access& a) noexcept {
    struct shmid_ds ds;
    if (::shmctl(id, IPC_STAT, &ds) != 0) return -1;
    ds.shm_perm.uid = a.owner;
    ds.shm_perm.gid = a.group;
    ds.shm_perm.mode = static_cast<unsigned short>(a.shared);
    return ::shmctl(id, IPC_SET, &ds);
}

void say_segment(key_t key, int id, const struct shmid_ds* ds, const is_access& a) {
    if (ds) {
        VError("kisam: the shared area at key 0x%08x (shmid %d) is not this installation's: created by uid "
               "%u, owned by uid %u gid %u with mode %04o, while the lock file is owned by uid %u gid %u "
               "with mode %04o. If no program of the installation is running, remove it with: ipcrm -m %d\n",
               static_cast<unsigned>(key), id, static_cast<unsigned>(ds->shm_perm.cuid),
               static_cast<unsigned>(ds->shm_perm.uid), static_cast<unsigned>(ds->shm_perm.gid),
               static_cast<unsigned>(ds->shm_perm.mode & kPerm), static_cast<unsigned>(a.owner),
               static_cast<unsigned>(a.group), static_cast<unsigned>(a.lkmode), id);
    } else {
        VError("kisam: the shared area at key 0x%08x (shmid %d) is not this installation's: this user may "
               "not even look at it. Its owner or root can remove it with: ipcrm -m %d\n",
               static_cast<unsigned>(key), id, id);
    }
}

void access_from(const struct stat& st, is_access* a) {
    a->owner = st.st_uid;
    a->group = st.st_gid;
    a->lkmode = st.st_mode & kPerm;
    a->shared = is_shared_mode(st.st_mode);
    a->everyone = (a->shared & 0006) == 0006;
}

}  // namespace

mode_t is_shared_mode(mode_t lockmode) noexcept {
    constexpr mode_t kClasses[] = {0600, 0060, 0006};
    mode_t m = 0;
    for (mode_t cls : kClasses)
        if ((lockmode & cls) == cls) m |= cls;
    return m;
}

bool is_access_of(int fd, is_access* a) noexcept {
    struct stat st;
    if (kisam::os.fstat(fd, &st) != 0) return false;
    access_from(st, a);
    return true;
}

bool is_access_user(const is_access& a, uid_t uid) noexcept {
    if (a.everyone || uid == a.owner || uid == 0 || uid == ::geteuid()) return true;
    return (a.shared & 0060) == 0060 && member_of(uid, a.group);
}

int is_shm_open(key_t key, size_t size, const is_access& a, bool* created) noexcept {
    is_shm_refused = false;
    *created = false;
    int id = kisam::os.shmget(key, size, IPC_CREAT | IPC_EXCL | 0600);
    if (id >= 0) {
        if (adopt_segment(id, a) != 0) {
            const int e = errno;
            ::shmctl(id, IPC_RMID, nullptr);
            errno = e;
            return -1;
        }
        *created = true;
        return id;
    }
    if (errno != EEXIST) return -1;
    // Someone made it first.  Whoever did keeps the rights of its creator for as long as
    // it exists, whatever its owner and mode say now: only one of the installation's
    // users may have.
    id = ::shmget(key, 0, 0);
    if (id < 0) return -1;
    struct shmid_ds ds;
    if (::shmctl(id, IPC_STAT, &ds) != 0) {
        if (errno == EACCES) {
            say_segment(key, id, nullptr, a);
            is_shm_refused = true;
            errno = EPERM;
        }
        return -1;
    }
    if (!is_access_user(a, ds.shm_perm.cuid) || !is_access_user(a, ds.shm_perm.uid) ||
        !mode_fits(a, ds.shm_perm.mode, ds.shm_perm.gid)) {
        say_segment(key, id, &ds, a);
        is_shm_refused = true;
        errno = EPERM;
        return -1;
    }
    if (ds.shm_segsz < size) {
        errno = EINVAL;
        return -1;
    }
    return id;
}

int is_open_beside(const char* lockname, const char* path, int flags) noexcept {
    // By name: a program may look at an installation's journals without attaching it.
    is_access a;
    struct stat lk;
    if (::stat(lockname, &lk) != 0) return -1;
    access_from(lk, &a);
    flags |= O_NOFOLLOW | O_CLOEXEC;
    int fd = -1;
    bool made = false;
    if (flags & O_CREAT) {
        // Made 0600: nobody else reaches it before it carries its final owner and mode.
        fd = kisam::os_open(path, flags | O_EXCL, 0600);
        made = fd >= 0;
        if (fd < 0 && errno != EEXIST) {
            if (errno == ELOOP) VError("kisam: %s is a symbolic link; the library follows none beside the lock file\n", path);
            return -1;
        }
    }
    if (fd < 0) fd = kisam::os_open(path, flags & ~(O_CREAT | O_EXCL));
    if (fd < 0) {
        if (errno == ELOOP) VError("kisam: %s is a symbolic link; the library follows none beside the lock file\n", path);
        return -1;
    }
    struct stat st;
    if (kisam::os.fstat(fd, &st) != 0) {
        const int e = errno;
        kisam::os_close(fd);
        errno = e;
        return -1;
    }
    const uid_t me = ::geteuid();
    if (made && !a.everyone) {
        // Root makes it the owner's; a member of the group gives it the group.  A change
        // refused leaves a file the checks below refuse.
        if (me == 0 && (st.st_uid != a.owner || st.st_gid != a.group)) {
            if (::fchown(fd, a.owner, a.group) == 0) st.st_uid = a.owner, st.st_gid = a.group;
        } else if (st.st_gid != a.group && ::fchown(fd, static_cast<uid_t>(-1), a.group) == 0) {
            st.st_gid = a.group;
        }
    }
    if (made && (st.st_mode & kPerm) != a.shared && ::fchmod(fd, a.shared) == 0)
        st.st_mode = (st.st_mode & ~kPerm) | a.shared;
    if (!S_ISREG(st.st_mode) || st.st_nlink != 1 || !is_access_user(a, st.st_uid) ||
        !mode_fits(a, st.st_mode, st.st_gid)) {
        VError("kisam: %s is not this installation's: %s owned by uid %u gid %u with mode %04o, links %lu, "
               "while the lock file is owned by uid %u gid %u with mode %04o. Remove it if no program of the "
               "installation is running\n",
               path, S_ISREG(st.st_mode) ? "a file" : "not a plain file,", static_cast<unsigned>(st.st_uid),
               static_cast<unsigned>(st.st_gid), static_cast<unsigned>(st.st_mode & kPerm),
               static_cast<unsigned long>(st.st_nlink), static_cast<unsigned>(a.owner),
               static_cast<unsigned>(a.group), static_cast<unsigned>(a.lkmode));
        kisam::os_close(fd);
        errno = EACCES;
        return -1;
    }
    // Ours and sound, but granting more than the installation shares (the mode of the
    // lock file, as earlier releases gave it): narrowed, so that it says no more than the
    // segment does.
    if (!made && st.st_uid == me && (st.st_mode & kPerm & ~a.shared)) ::fchmod(fd, st.st_mode & kPerm & a.shared);
    return fd;
}

void is_each_beside(const char* lockname, const char* tag, long maxslot, void (*fn)(int slot, void* arg),
                    void* arg) noexcept {
    char dir[PATH_MAX];
    std::snprintf(dir, sizeof dir, "%s", lockname);
    char* slash = std::strrchr(dir, '/');
    const char* prefix;
    if (slash) {
        *slash = '\0';
        prefix = slash + 1;
        if (dir[0] == '\0') std::strcpy(dir, "/");
    } else {
        std::strcpy(dir, ".");
        prefix = lockname;
    }
    const size_t plen = std::strlen(prefix), tlen = std::strlen(tag);
    DIR* d = ::opendir(dir);
    if (!d) return;
    while (struct dirent* e = ::readdir(d)) {
        const char* n = e->d_name;
        if (std::strncmp(n, prefix, plen) != 0 || std::strncmp(n + plen, tag, tlen) != 0) continue;
        char* end = nullptr;
        const long slot = std::strtol(n + plen + tlen, &end, 10);
        if (end == n + plen + tlen || *end != '\0' || slot < 0 || slot > maxslot) continue;
        fn(static_cast<int>(slot), arg);
    }
    ::closedir(d);
}
