// Start-up: finding the configuration, attaching the common area, claiming a process
// slot and allocating the per-process handle tables; and the same per-process part for
// a child after fork.
//
// Details of procedure is_init (0x22) raised here besides the documented ones:
//   10  the configuration record is unusable (co_maxopen, co_maxbuf or co_maxusers below
//       1, co_maxnkeys above 25, or co_maxufile negative; after sizing: co_maxopen
//       beyond what a buffer's owner bits can name, or negative averages that shrink the
//       heap estimate below the end of the tables): the segment would be laid out
//       wrongly or be useless, so it is never created from such a record;
//   11  the start-up lock on the lock file could not be taken;
//   12  is_chinit: the wait for opcl_lock was refused as a deadlock (ISE_DEADLOCK).
//   14  the segment under the key holds no extension area laid out for its header: it
//       was made by a library that does not keep the shared state this one relies on,
//       and can only be used once every program attached to it has detached.
//   15  the process table is full and the slot of a process that died cannot be taken
//       over yet: the call it was making could not be rolled back (a message names it
//       and says why).  From is_chinit too.
//   16  the segment under the key is not the installation's: a user who may not use
//       the installation created or owns it, or it grants more than the lock file does
//       (is_access.h); the message names it and how to remove it.
#include "is_access.h"
#include "is_common.h"
#include "is_error.h"
#include "is_file.h"
#include "is_heap.h"
#include "is_init.h"
#include "is_lock.h"
#include "isx_area.h"
#include "jn.h"
#include "lg.h"
#include "v_pool.h"

#include <kisam/ztsupport.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os.h"

namespace {

constexpr int kNameBuf = 512;
constexpr int kConfigMin = 48;
constexpr int kConfigRead = 512;

// Copies prefix + suffix into fnbuf (bounded) and folds runs of '/'.
void make_name(char* fnbuf, const char* prefix, const char* suffix) {
    std::snprintf(fnbuf, kNameBuf, "%s%s", prefix ? prefix : "", suffix);
    ZTFileNameFix(fnbuf);
}

// Claims a slot of the process table for this process: the first free one, else the
// first one whose process died (a process killed while attached never frees its slot,
// and the table would fill up with the dead); a dead process's slot is cleaned up --
// its unit rolled back, its locks and counts released -- before it is taken.  The claim
// is a compare-and-swap, so two processes never take the same slot, also from
// is_chinit, which runs without the start-up lock.
bool claim_slot(int i, int32_t expect) noexcept {
    std::atomic_ref<int32_t> e(is_env.pid_[i]);
    if (!e.compare_exchange_strong(expect, is_pid)) return false;
    is_env.useridx = static_cast<int16_t>(i);
    is_env.needs_[i] = 0;
    return true;
}

// Takes free slot i once its journal holds no unit (its owner detached with a rollback
// pending: the unit is settled first).
bool take_free(int i) noexcept {
    return is_env.pid_[i] == 0 && jn_clear_slot(i, true) == 0 && claim_slot(i, 0);
}

// The slot of a dead process that could not be cleaned up (its unit could not be rolled
// back), and why, for the report of a table that stays full; -1 when there was none.
int stuck_slot = -1;
int32_t stuck_pid = 0;
char stuck_why[200];

// Cleans dead slot i up (0 or 1), or notes why it could not be (-1).
int reap_or_note(int i) noexcept {
    const int32_t pid = is_env.pid_[i];
    is_errno = 0;
    errno = 0;
    const int r = is_reap_slot(i, true);
    if (r >= 0) return r;
    stuck_slot = i;
    stuck_pid = pid;
    if (is_errno != 0)
        niserrmsgget(stuck_why, sizeof stuck_why);
    else
        std::snprintf(stuck_why, sizeof stuck_why, "%s",
                      errno != 0 ? std::strerror(errno) : "a lock it needs could not be taken");
    return -1;
}

int _is_mkpid(void) noexcept {
    is_pid = static_cast<int>(::getpid());
    const int n = isam_com->maxusers;
    // Slots come free while this runs: the clean-up of dead processes also runs in open
    // and close, without the start-up lock, so a dead slot this process waits to clean may
    // be cleaned by another process meanwhile -- possibly every one of them while this
    // process waits for the first.  A slot found free after a clean-up, whoever did it, is
    // taken; and the table is looked at again as long as the last look saw a slot come
    // free (bounded: slots taken by others in between are taken for good).
    // A slot noted stuck in an earlier pass may have been cleaned up and taken since:
    // only the last pass's look says why the table is full.
    for (int pass = 0; pass <= n; ++pass) {
        stuck_slot = -1;
        for (int i = 0; i < n; ++i)
            if (take_free(i)) return 0;
        bool freed = false;
        for (int i = 0; i < n; ++i) {
            if (!is_slot_dead(i) || reap_or_note(i) < 0) continue;
            if (take_free(i)) return 0;
            freed = true;
        }
        if (!freed) break;
    }
    isam_com = nullptr;  // the segment stays attached; the caller detaches it
    return -1;
}

// The detail of a full table: 5 (or `full` from is_chinit) when every slot is a live
// process's; 15, with a message naming the dead process, when a dead process's slot
// could not be cleaned up because its unit could not be rolled back -- the slot comes
// free once a process that has the file open settles it.
int full_table(int full) noexcept {
    if (stuck_slot < 0) return full;
    VError("kisam: the process table is full; the slot of process %d, which died, cannot be "
           "taken over until its last call is rolled back: %s\n", static_cast<int>(stuck_pid), stuck_why);
    return 15;
}

// Refuses a segment without the extension area, saying why.
template <class Fail>
int foreign_segment(Fail& fail) noexcept {
    VError("kisam: the shared area (shmid %d) was made by a library without the state this "
           "library keeps in it; it can be used once every program attached to it has "
           "detached\n", is_shmid);
    return fail(ISE_INITERR, 14);
}

// Whether the segment shmid of `size` bytes holds the documented header of this version
// and the extension area laid out for it: looked at through a read-only attachment.
bool segment_has_area(int shmid, size_t size) noexcept {
    void* p = ::shmat(shmid, nullptr, SHM_RDONLY);
    if (p == reinterpret_cast<void*>(-1)) return false;
    const auto* com = static_cast<const struct isam_com*>(p);
    const bool ours = com->iscom_magicval == ISCOM_MAGIC && com->iscom_version == ISCOM_VERSION &&
                      isx_find(static_cast<char*>(p), size) != nullptr;
    ::shmdt(p);
    return ours;
}

// The last configuration file name kiopenconfigfile tried, for kisam_config_path; empty
// until the first search.
char last_config[kNameBuf];

// Opens fnbuf read-only and remembers it as the last name tried.
int open_config(const char* fnbuf) noexcept {
    std::snprintf(last_config, sizeof last_config, "%s", fnbuf);
    return kisam::os_open(fnbuf, O_RDONLY | O_CLOEXEC);
}

bool config_usable(const is_config& c) {
    return c.co_maxopen >= 1 && c.co_maxbuf >= 1 && c.co_maxusers >= 1 &&
           c.co_maxnkeys <= KISAM_MAXKEYS && c.co_maxufile >= 0;
}

// A sized record the first attacher can lay out: buffer owner bits name shared files
// 0 .. BU_FILEMASK - 1 (BU_FILEMASK tags a slot of no file), and the heap holds at least
// its anchor, the unused unit and one block -- a heap that ends before it starts would
// be laid out outside the segment.
bool layout_usable(const is_config& c) {
    constexpr int64_t kMinHeap = 3 * static_cast<int64_t>(sizeof(Cheader));
    return c.co_maxopen <= BU_FILEMASK &&
           static_cast<int64_t>(c.co_comsize) - c.co_heapbase >= kMinHeap;
}

}  // namespace

int kiopenconfigfile(char* fnbuf, int /*util*/) noexcept {
    LoadEnv();
    const char* conf = ZTGetEnvX("KISCONFIG");
    if (conf && *conf) {
        make_name(fnbuf, conf, "");
        return open_config(fnbuf);
    }
    make_name(fnbuf, ZTGetEnvX("etc_dir"), "/kisamconfig");
    int fd = open_config(fnbuf);
    if (fd >= 0 || errno != ENOENT) return fd;
    make_name(fnbuf, ZTGetEnvX("HOME_Q9"), "/kisamconfig");
    return open_config(fnbuf);
}

extern "C" KISAM_API const char* kisam_config_path(void) {
    return last_config[0] ? last_config : nullptr;
}

extern "C" KISAM_API int is_init(void) {
    char name[kNameBuf];
    std::memset(name, 0, sizeof name);
    LoadEnv();
    int conffd = kiopenconfigfile(name, 0);
    if (conffd < 0) {
        is_raise(ISE_INITERR, PROC(P_IS_INIT, 1));
        if (isam_com) {
            freecom();
            isam_com = nullptr;
        }
        return -1;
    }

    bool locked = false;
    auto fail = [&](int code, int detail) noexcept {
        is_raise(code, PROC(P_IS_INIT, detail));
        if (isam_com) {
            freecom();
            isam_com = nullptr;
        }
        kisam::os_close(conffd);
        if (locked) ISUnlockFile(is_lockfd, 0, 2);
        return -1;
    };

    // The lock file carries every lock word of the installation; without one, the
    // configuration file itself serves.  A lock file left from an earlier attachment
    // (perhaps of another installation) is replaced only once the new one is open.
    char lkname[kNameBuf + 4];
    std::snprintf(lkname, sizeof lkname, "%s.lk", name);
    bool have_lk = true;
    int lfd = kisam::os_open(lkname, O_RDWR | O_CLOEXEC);
    if (lfd < 0) {
        if (errno != ENOENT) return fail(ISE_INITERR, 13);
        have_lk = false;
        lfd = kisam::os_open(name, O_RDWR | O_CLOEXEC);
        if (lfd < 0) return fail(ISE_INITERR, 9);
    }
    // The journals of the installation's processes live beside its lock file.
    jn_setbase(have_lk ? lkname : name);
    if (is_lockfd >= 0 && is_lockfd != lfd && !isam_com) kisam::os_close(is_lockfd);
    is_lockfd = lfd;

    key_t key = ::ftok(have_lk ? lkname : name, 1);

    if (ISLockFile(is_lockfd, 0, 2) != 0) return fail(ISE_INITERR, 11);
    is_lock_forget();  // no word of the segment about to be attached is this process's
    locked = true;

    alignas(8) unsigned char buf[kConfigRead];
    std::memset(buf, 0, sizeof buf);
    ssize_t n = kisam::os_pread_full(conffd, buf, sizeof buf, 0);
    if (n <= 0) return fail(ISE_INITERR, 2);
    if (n < kConfigMin) return fail(ISE_INITERR, 3);
    is_config conf;
    std::memcpy(&conf, buf, sizeof conf);
    // Bytes after the record are the installation's own settings of this library.
    lg_settings(n > static_cast<ssize_t>(sizeof conf) ? buf + sizeof conf : nullptr,
                n > static_cast<ssize_t>(sizeof conf) ? static_cast<size_t>(n) - sizeof conf : 0);
    if (conf.co_maxufile == 0) conf.co_maxufile = conf.co_maxopen;
    if (!config_usable(conf)) return fail(ISE_INITERR, 10);
    if (sizecomm(&conf) != 0) return fail(ISE_INITERR, 7);
    if (!layout_usable(conf)) return fail(ISE_INITERR, 10);

    // The documented area and ours after it make one segment, whose size is an int: a
    // configuration whose area fits alone but not with ours is as unusable as one whose
    // area does not fit.
    const int64_t whole = int64_t(conf.co_comsize) + isx_size(conf.co_maxopen, conf.co_maxusers, conf.co_maxbuf);
    if (whole > INT32_MAX) return fail(ISE_INITERR, 7);
    const int xsize = static_cast<int>(whole - conf.co_comsize);
    // The segment follows the lock file: who may lock may attach, and nobody else.
    struct is_access acc;
    if (!is_access_of(is_lockfd, &acc)) return fail(ISE_INITERR, 4);
    char* base = getcomm(key, static_cast<int>(whole), jn_leftover, &acc);
    if (base == reinterpret_cast<char*>(-1)) {
        if (is_shm_refused) return fail(ISE_INITERR, 16);
        // A segment too small for this configuration that is still in use (getcomm
        // removes an abandoned one and makes it anew): one that this library made for a
        // smaller configuration (the system's own refusal stands, with how to get rid of
        // the old segment once its programs have left), or one that a library without
        // the area made.
        if (is_shmsize > 0 && is_shmsize < static_cast<size_t>(conf.co_comsize) + xsize) {
            if (!segment_has_area(is_shmid, is_shmsize)) return foreign_segment(fail);
            VError("kisam: a shared area of the old size (%zu bytes, shmid %d) is still there; "
                   "once no program uses it, remove it with `ipcrm -m %d`\n",
                   is_shmsize, is_shmid, is_shmid);
        }
        return fail(ISE_INITERR, 4);
    }
    if (::setuid(::getuid()) != 0) { /* already the real user */ }
    isam_com = reinterpret_cast<struct isam_com*>(base);

    if (is_firstcomf || isam_com->maxopen == 0) {
        is_comlayout(&conf);
        is_heaplayout(&conf);
        isx_layout();
    }
    if (isam_com->iscom_magicval != ISCOM_MAGIC) return fail(ISE_MAGICVALERR, 1);
    if (isam_com->iscom_version != ISCOM_VERSION) return fail(ISE_VERSIONERR, 1);
    if (!isx_attach(is_shmsize)) return foreign_segment(fail);
    is_setenv();
    // A segment made anew means nobody else is attached (or the machine restarted): the
    // calls its last users committed are in the logs, and go into their files now,
    // before any file is opened (the start-up lock is still held).
    if (is_firstcomf) lg_recover_all();

    if (_is_mkpid() != 0) {
        // _is_mkpid leaves the segment attached but forgets it; detach it here.
        isam_com = reinterpret_cast<struct isam_com*>(base);
        return fail(ISE_INITERR, full_table(5));
    }
    if (is_live_claim() != 0) {
        is_env.pid_[is_env.useridx] = 0;
        return fail(ISE_INITERR, 11);
    }

    int maxopen = isam_com->maxopen;
    size_t bytes = static_cast<size_t>(maxopen) * kisam::kTableBytesPerOpen;
    char* block = static_cast<char*>(std::calloc(1, bytes ? bytes : 1));
    if (!block) {
        is_env.pid_[is_env.useridx] = 0;
        return fail(ISE_INITERR, 6);
    }
    is_db = reinterpret_cast<IS_DB**>(block);
    is_pfi = reinterpret_cast<IS_PFI*>(block + static_cast<size_t>(maxopen) * sizeof(IS_DB*));
    for (int i = 0; i < maxopen; ++i) is_pfi[i].pfi_osfd = -1;
    n_ufiles = 0;
    is_curdb = nullptr;
    is_curpfi = nullptr;
    is_curfcp = nullptr;

    if (conf.co_bits & 0x1) {
        if (conf.co_bits & 0x4)
            isam_com->isc_bits |= 0xA;
        else if (conf.co_bits & 0x2)
            isam_com->isc_bits |= 0x6;
        else
            isam_com->isc_bits |= 0x2;
    }

    kisam::os_close(conffd);
    v_reset_process();
    jn_close();
    // Whoever attaches cleans up after the processes that died attached.
    is_reap_dead(nullptr, 0);
    ISUnlockFile(is_lockfd, 0, 2);
    return 0;
}

namespace {

// Until the child counts among a file's users (under opcl_lock, below), the parent may
// close its last handle of the file: the shared slot is freed, and may hold another file
// by now.  The child's handles of it lead nowhere then (later calls on them fail as on a
// closed handle), rather than to whatever file took the slot.
void drop_inherited(int u) noexcept {
    for (int isfd = 0; is_db && isfd < isam_com->maxopen; ++isfd)
        if (is_db[isfd] && is_db[isfd]->uniqueid == u) is_dbfree(isfd);
    kisam::os_close(is_pfi[u].pfi_osfd);
    is_pfi[u].pfi_osfd = -1;
    is_pfi[u].pfi_refcnt = 0;
}

}  // namespace

extern "C" KISAM_API int is_chinit(void) {
    if (!isam_com) return 0;
    // A child that finds the process table full is left unattached (_is_mkpid forgets
    // the area); its inherited mapping goes away when it exits.
    if (_is_mkpid() != 0) return is_raise(ISE_INITERR, PROC(P_IS_INIT, full_table(8)));
    // What the parent knew of the pool is as good for the child: it need not learn every
    // page again through the locked reads.
    v_fork_process();
    jn_close();  // the parent's journal is the parent's
    is_lock_forget();  // and so are its locks
    if (is_live_claim() != 0) {
        is_env.pid_[is_env.useridx] = 0;
        return is_raise(ISE_INITERR, PROC(P_IS_INIT, 8));
    }
    // The parent's holds are the parent's: the kernel gave this process none of its
    // locks, so no control-lock hold may be believed in.
    int maxopen = isam_com->maxopen;
    if (is_pfi)
        for (int i = 0; i < maxopen; ++i) is_pfi[i].pfi_ctlcnt = 0;
    if (is_lock(&isam_com->opcl_lock) != 0) {
        const int code = is_lock_code(errno);
        is_env.pid_[is_env.useridx] = 0;
        return is_raise(code, PROC(P_IS_INIT, 12));
    }
    for (int i = 0; is_pfi && i < maxopen; ++i) {
        if (is_pfi[i].pfi_osfd < 0) continue;
        IS_FCP* fcp = kisam::pfo_fcp(i);
        struct stat st;
        if (fcp && kisam::os.fstat(is_pfi[i].pfi_osfd, &st) == 0 &&
            static_cast<uint64_t>(st.st_dev) == fcp->jd_dev && static_cast<uint64_t>(st.st_ino) == fcp->jd_ino) {
            is_open_note(i, true);  // before the count (is_open.cpp says why)
            ++fcp->is_usecnt;
        } else {
            drop_inherited(i);
        }
    }
    is_unlock(&isam_com->opcl_lock);
    return 0;
}
