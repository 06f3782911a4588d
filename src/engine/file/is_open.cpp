// Creating and opening files.
//
// Opening is where processes meet: the first opener of a file reads its control page into
// the common heap and enters it in the shared-file table; every later opener, in any
// process, finds it there by device and inode.  Everything that touches the shared-file
// table, is_usecnt or this process's IS_PFI entries runs under opcl_lock.
//
// Details raised here besides the documented ones:
//   isopen (0x38)    6  ISE_NOTISAM also for a key table that creation could not
//                       have written (key count, lengths, item sizes, page order)
//                   15  ISE_OPENF: null name, or a name longer than 127 characters
//                   16  ISE_DEADLOCK: the wait for opcl_lock was refused
//   iscreate (0x32)  8  ISE_CREATF: null name, or a name longer than 127 characters
//                    9  ISE_DEADLOCK: the wait for opcl_lock was refused
//                    3, 4 ISE_INVKL also for a key length below 1 or no length table
//                    7  ISE_CREATF also when the new file cannot be renamed into place
#include "bt_key.h"
#include "fcp.h"
#include "is_common.h"
#include "is_error.h"
#include "is_file.h"
#include "is_heap.h"
#include "is_lock.h"
#include "isx_area.h"
#include "jn.h"
#include "lg.h"
#include "os.h"
#include "v_pool.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

short n_ufiles = 0;
short IsKeyopt = 1;
short IsMagicVal = static_cast<short>(ISMAGIC_1024);

namespace {

// Scratch control page, identity area included, in which create builds and open reads
// and converts a control page before it goes to disk or into the common heap.
alignas(8) char fcp_scratch[IS_FCP_JDSIZE + kisam::kFcpImage];

constexpr int kCreate = 0x3200;
constexpr int kOpen = 0x3800;
constexpr size_t kMaxName = 127;  // names are kept in 128-byte buffers

constexpr int kModeMask = 0x1FFF;
constexpr int kSeqF = 0x8000;
constexpr int kDeferF = 0x4000;
constexpr int kNoVerifyF = 0x2000;

bool name_ok(const char* fn) { return fn && std::strlen(fn) <= kMaxName; }

inline int even(int x) { return (x + 1) & ~1; }

// Makes a handle for shared slot uid in the first free entry of is_db.  Its block holds
// the fixed fields, one cursor per key, the key buffers and the scratch item, in that
// order, zero-filled.
int db_alloc(int uid, IS_FCP* fcp) noexcept {
    is_curdb = nullptr;
    int maxopen = isam_com->maxopen;
    if (maxopen <= 0) return -1;
    int isfd = 0;
    while (isfd < maxopen && is_db[isfd]) ++isfd;
    if (isfd == maxopen) return -1;

    int nkeys = fcp->is_nkeys;
    size_t keybytes = 0;
    int maxitem = 0;
    for (int k = 0; k < nkeys; ++k) {
        int il = kisam::fcp_key(fcp, k)->k_itemlen;
        if (il < 0) il = 0;
        keybytes += static_cast<size_t>(il);
        if (il > maxitem) maxitem = il;
    }
    size_t cursors = kisam::kHandleBytesFixed + kisam::kHandleBytesPerKey * static_cast<size_t>(nkeys);
    size_t size = cursors + keybytes + static_cast<size_t>(maxitem);
    if (size < sizeof(IS_DB)) size = sizeof(IS_DB);
    char* block = static_cast<char*>(std::calloc(1, size));
    if (!block) return -1;

    IS_DB* db = reinterpret_cast<IS_DB*>(block);
    is_db[isfd] = db;
    is_curdb = db;
    db->uniqueid = static_cast<int16_t>(uid);
    char* keyarea = block + cursors;
    for (int k = 0; k < nkeys; ++k) {
        IS_DBKEY* c = kisam::db_cursor(db, k);
        c->curr_kstate = 0;
        c->currpage = KISAM_NOPAGE;
        c->currkey = keyarea;
        int il = kisam::fcp_key(fcp, k)->k_itemlen;
        keyarea += il > 0 ? il : 0;
    }
    db->temp = keyarea;
    ++n_ufiles;
    return isfd;
}

// The key fields that size the handle's key buffers, the B-tree items and the saved key
// fields of a record must be the ones creation derives from the key lengths; a page
// order above what fits would overrun index pages.  A control page that breaks this was
// not written by this library and is refused like a foreign one.
bool key_table_ok(const IS_FCP* fcp) {
    const int nkeys = fcp->is_nkeys;
    if (nkeys == 0) return true;
    const int l0 = kisam::fcp_key(fcp, 0)->k_keylen;
    int sum = 0;
    for (int k = 0; k < nkeys; ++k) {
        const IS_KEY* key = kisam::fcp_key(fcp, k);
        const int len = key->k_keylen;
        if (len < 1 || len > KISAM_PAGESIZE) return false;
        const int itemlen = k == 0 ? even(len) + 4 : even(len) + even(l0);
        const int ncomp = k == 0 ? len : even(len) + l0;
        if (key->k_offset != even(len) || key->k_itemlen != itemlen || key->k_ncomp != ncomp)
            return false;
        const int order = bt_order(itemlen, KISAM_PAGESIZE);
        if (order < 0 || key->k_order < 2 || key->k_order > order) return false;
        sum += len;
    }
    return fcp->is_minrec >= sum;
}

// Puts a new file's control page at a name.  The page is written into a file made
// beside the target and renamed over it once complete, so that a create that fails
// leaves nothing new behind and the file it would have replaced stays as it was; the
// replaced file is kept under a second link until the new one has been opened, so that
// a failed open gives it back too.  A name that a rename cannot replace as a truncation
// would -- not a regular file, a file with other links, a link to nowhere, or a file in
// a directory where no new name can be made -- is truncated and written in place, and
// then only a file that the create itself made is removed again.
class NewFile {
public:
    NewFile() = default;
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Writes the n bytes of image as the file `name`: 0, or the iscreate detail of the
    // step that failed (5 making the file, 6 writing it, 7 completing it).
    int make(const char* name, const char* image, size_t n) noexcept {
        name_ = name;
        const int saved = errno;  // a name that does not exist yet is no failure
        struct stat st, lst;
        existed_ = ::stat(name, &st) == 0;
        is_link_ = ::lstat(name, &lst) == 0 && S_ISLNK(lst.st_mode);
        errno = saved;
        bool replace = existed_ ? S_ISREG(st.st_mode) && st.st_nlink == 1 : !is_link_;
        if (replace && is_link_) replace = ::realpath(name, target_) != nullptr;
        else if (replace) replace = fits(target_, "%s", name);
        if (replace) {
            const char* slash = std::strrchr(target_, '/');
            const int dirlen = slash ? static_cast<int>(slash - target_ + 1) : 0;
            const char* base = target_ + dirlen;
            const int pid = static_cast<int>(::getpid());
            replace = fits(temp_, "%.*s.%s.new-%d", dirlen, target_, base, pid) &&
                      fits(backup_, "%.*s.%s.old-%d", dirlen, target_, base, pid);
        }
        errno = saved;
        if (replace) {
            // Creating must be allowed to write the file it replaces, as when it truncates.
            if (existed_) {
                const int fd = kisam::os_open(target_, O_WRONLY | O_CLOEXEC);
                if (fd < 0) return 5;
                kisam::os_close(fd);
            }
            int fd = kisam::os_open(temp_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd < 0 && errno == EEXIST) {  // left by a process of this id that died
                ::unlink(temp_);
                fd = kisam::os_open(temp_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            }
            if (fd >= 0) return replace_with(fd, st, image, n);
            if (!existed_) return 5;
        }
        return in_place(image, n);
    }

    // The create is complete: the replaced file is let go.
    void keep() noexcept {
        if (backup_made_) ::unlink(backup_);
        backup_made_ = false;
    }

    // The new file could not be opened: the name goes back to what it was.
    void undo() noexcept {
        const int saved = errno;
        if (backup_made_) {
            kisam::os.rename(backup_, target_);
            backup_made_ = false;
        } else if (!existed_) {
            // Only the file this create made: another process may have put its own there.
            // Through a link to nowhere the file made is the one the link names.
            struct stat st;
            const char* made = name_;
            if (is_link_ && ::realpath(name_, target_) != nullptr) made = target_;
            if (::stat(made, &st) == 0 && st.st_dev == made_dev_ && st.st_ino == made_ino_)
                ::unlink(made);
        }
        errno = saved;
    }

private:
    template <class... A>
    static bool fits(char (&buf)[PATH_MAX], const char* f, A... a) noexcept {
        const int n = std::snprintf(buf, sizeof buf, f, a...);
        return n > 0 && static_cast<size_t>(n) < sizeof buf;
    }

    bool write_image(int fd, const char* image, size_t n, int* detail) noexcept {
        struct stat st;
        if (::fstat(fd, &st) == 0) {
            made_dev_ = st.st_dev;
            made_ino_ = st.st_ino;
        }
        if (kisam::os_pwrite_full(fd, image, n, 0) != 0) {
            const int e = errno;
            kisam::os_close(fd);
            errno = e;
            *detail = 6;
            return false;
        }
        if (kisam::os_close(fd) != 0) {
            *detail = 7;
            return false;
        }
        return true;
    }

    int replace_with(int fd, const struct stat& old, const char* image, size_t n) noexcept {
        if (existed_) {
            // The replacement keeps the permissions (and, where allowed, the owner) that
            // a truncation would have kept.
            if (::fchmod(fd, old.st_mode & 07777) != 0) { /* the creation mode stays */ }
            if (::geteuid() == 0 && ::fchown(fd, old.st_uid, old.st_gid) != 0) { /* ours */ }
        }
        int detail = 0;
        if (!write_image(fd, image, n, &detail)) {
            remove_temp();
            return detail;
        }
        if (existed_) {
            ::unlink(backup_);
            backup_made_ = ::link(target_, backup_) == 0;
        }
        if (kisam::os.rename(temp_, target_) != 0) {
            remove_temp();
            keep();
            return 7;
        }
        return 0;
    }

    int in_place(const char* image, size_t n) noexcept {
        const int fd = kisam::os_open(name_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0) return 5;
        int detail = 0;
        if (!write_image(fd, image, n, &detail)) {
            undo();
            return detail;
        }
        return 0;
    }

    void remove_temp() noexcept {
        const int saved = errno;
        ::unlink(temp_);
        errno = saved;
    }

    const char* name_ = nullptr;
    bool existed_ = false;
    bool is_link_ = false;
    bool backup_made_ = false;
    dev_t made_dev_ = 0;
    ino_t made_ino_ = 0;
    char target_[PATH_MAX] = {};
    char temp_[PATH_MAX] = {};
    char backup_[PATH_MAX] = {};
};

bool same_file(const IS_FCP* fcp, const file_info& fi) {
    return fcp->jd_ino == static_cast<uint64_t>(fi.f_inode) &&
           fcp->jd_dev == static_cast<uint64_t>(fi.f_dev);
}

// Before a writer's first call: what its units and commits need is made now, so that no
// call allocates (a call left part way by a signal handler's jump must not be inside the
// allocator).  Best effort: a call makes what is still missing, and reports its failure.
void ready_for_calls() noexcept {
    jn_ready();
    lg_ready();
}

int open_fail(int code, int detail) noexcept {
    is_raise(code, PROC(P_ISOPEN, detail));
    is_isout();
    return -1;
}

}  // namespace

extern "C" {

KISAM_API void niscr_ctl(int keyopt, int magicv) {
    if (keyopt == 0 || keyopt == 1) IsKeyopt = static_cast<short>(keyopt);
    if (magicv == 512)
        IsMagicVal = static_cast<short>(ISMAGIC_512);
    else if (magicv == 1024)
        IsMagicVal = static_cast<short>(ISMAGIC_1024);
}

KISAM_API int niscreate(const char* filename, int nkeys, const int* key_lens) {
    if (!isam_com && is_init() != 0) return is_push(PROC(P_ISCREATE, 1));
    is_isin(kCreate, -1, 0);
    auto fail = [](int code, int detail) noexcept {
        is_raise(code, PROC(P_ISCREATE, detail));
        is_isout();
        return -1;
    };
    if (!name_ok(filename)) return fail(ISE_CREATF, 8);

    bool keyopt = IsKeyopt != 0;
    long nk = nkeys;
    if (nk < 0) {
        nk = -nk;
        keyopt = true;
    }
    if (nk > isam_com->maxnkeys || nk > KISAM_MAXKEYS) return fail(ISE_NKEYERR, 2);

    // Refuse to truncate a file that some process has open.  Nothing holds the table
    // between this check and the creat below, so between processes it is advisory.
    if (is_lock(&isam_com->opcl_lock) != 0) return fail(is_lock_code(errno), 9);
    file_info fi;
    const int saved_errno = errno;  // a file that does not exist yet is no failure
    if (osstat(filename, &fi) != 0) {
        errno = saved_errno;
    } else {
        for (int u = 0; u < isam_com->maxopen; ++u) {
            IS_FCP* f = kisam::pfo_fcp(u);
            if (f && same_file(f, fi)) {
                is_unlock(&isam_com->opcl_lock);
                // Processes that died with the file open do not keep it open: clean them
                // up, and look again.
                if (is_reap_holders(u) == 0) return fail(ISE_CREATEISOPEN, 1);
                if (is_lock(&isam_com->opcl_lock) != 0) return fail(is_lock_code(errno), 9);
                f = kisam::pfo_fcp(u);
                if (f && same_file(f, fi)) {
                    is_unlock(&isam_com->opcl_lock);
                    return fail(ISE_CREATEISOPEN, 1);
                }
            }
        }
    }
    is_unlock(&isam_com->opcl_lock);

    IS_FCP* fcp = reinterpret_cast<IS_FCP*>(fcp_scratch);
    std::memset(fcp_scratch, 0, IS_FCP_JDSIZE + kisam::kFcpImage);
    fcp->is_magic = static_cast<MAGICt>(IsMagicVal);
    fcp->is_nkeys = static_cast<int16_t>(nk);
    fcp->is_nextfree = fcp->is_lastpage = KISAM_PAGESIZE;
    if (keyopt) fcp->is_optbits = ISO_KEYOPT;
    if (nk > 0 && !key_lens) return fail(ISE_INVKL, 3);
    int l0 = nk > 0 ? key_lens[0] : 0;
    int minrec = 0;
    for (int k = 0; k < nk; ++k) {
        int len = key_lens[k];
        int detail = k == 0 ? 3 : 4;
        if (len < 1 || len > KISAM_PAGESIZE) return fail(ISE_INVKL, detail);
        IS_KEY* key = kisam::fcp_key(fcp, k);
        key->k_root = KISAM_NOPAGE;
        key->k_keylen = static_cast<int16_t>(len);
        key->k_offset = static_cast<int16_t>(even(len));
        if (k == 0) {
            key->k_itemlen = static_cast<int16_t>(even(l0) + 4);
            key->k_ncomp = static_cast<int16_t>(l0);
        } else {
            key->k_itemlen = static_cast<int16_t>(even(l0) + even(len));
            key->k_ncomp = static_cast<int16_t>(even(len) + l0);
        }
        int order = bt_order(key->k_itemlen, KISAM_PAGESIZE);
        if (order < 0) return fail(ISE_INVKL, detail);
        key->k_order = static_cast<int16_t>(order);
        minrec += len;
    }
    fcp->is_minrec = static_cast<int16_t>(minrec);

    NewFile made;
    if (int detail = made.make(filename, fcp_scratch + IS_FCP_JDSIZE, kisam::kFcpImage))
        return fail(ISE_CREATF, detail);

    is_isout();
    const int isfd = nisopen(filename, ISO_RDWR);
    if (isfd < 0)
        made.undo();
    else
        made.keep();
    return isfd;
}

KISAM_API int nisopen(const char* filename, int access) {
    is_isin(kOpen, -1, 0);
    if (!name_ok(filename)) return open_fail(ISE_OPENF, 15);

    const bool rdonly = (access & kModeMask) == 0;
    const bool seqf = (access & kSeqF) != 0;
    const bool deferf = (access & kDeferF) != 0;
    const bool noverify = (access & kNoVerifyF) != 0;
    const int oflags = rdonly ? O_RDONLY : O_RDWR;

    file_info fi;
    if (osstat(filename, &fi) != 0) return open_fail(ISE_OPENF, 1);
    if (!isam_com && is_init() != 0) {
        is_push(PROC(P_ISOPEN, 2));
        is_isout();
        return -1;
    }
    if (n_ufiles >= isam_com->maxufile) return open_fail(ISE_TMFILES, 13);

    if (is_lock(&isam_com->opcl_lock) != 0) return open_fail(is_lock_code(errno), 16);
    is_curfcp = nullptr;
    auto fail = [](int code, int detail) noexcept {
        is_unlock(&isam_com->opcl_lock);
        return open_fail(code, detail);
    };

    const int maxopen = isam_com->maxopen;
    int u = 0, freeslot = -1;
    for (; u < maxopen; ++u) {
        IS_FCP* f = kisam::pfo_fcp(u);
        if (!f) {
            if (freeslot < 0) freeslot = u;
            continue;
        }
        if (same_file(f, fi) && ((f->is_optbits & ISO_SEQ) != 0) == seqf) break;
    }

    if (u < maxopen) {
        // The file is open somewhere: share its slot.
        IS_FCP* fcp = kisam::pfo_fcp(u);
        is_curfcp = fcp;
        IS_PFI* pfi = &is_pfi[u];
        int isfd = db_alloc(u, fcp);
        if (isfd < 0) return fail(ISE_NOIDB, 10);
        if (pfi->pfi_osfd < 0) {
            int fd = kisam::os_open(filename, oflags);
            if (fd < 0) {
                is_dbfree(isfd);
                return fail(ISE_OPENF, 11);
            }
            v_forget_file(u);
            // In the open set before the count goes up: a process killed in between is
            // recounted by the clean-up of dead processes, never left counted for ever.
            is_open_note(u, true);
            ++fcp->is_usecnt;
            if (kisam::isx_path(u)[0] == '\0') jn_setpath(u, filename);
            pfi->pfi_osfd = fd;
            pfi->pfi_nkeys = static_cast<int8_t>(fcp->is_nkeys);
            pfi->pfi_bits = static_cast<uint8_t>((seqf ? PFI_SEQ : 0) | (rdonly ? PFI_RDONLY : 0) |
                                                 (fcp->is_magic == ISMAGIC_1024 ? PFI_BIGFCP : 0));
            pfi->pfi_refcnt = 1;
            pfi->pfi_ctlcnt = 0;
        } else {
            if ((pfi->pfi_bits & PFI_RDONLY) && !rdonly) {
                int fd = kisam::os_open(filename, O_RDWR);
                if (fd < 0) {
                    is_dbfree(isfd);
                    return fail(ISE_OPENF, 12);
                }
                kisam::os_close(pfi->pfi_osfd);
                pfi->pfi_osfd = fd;
                pfi->pfi_bits = static_cast<uint8_t>(pfi->pfi_bits & ~PFI_RDONLY);
            }
            ++pfi->pfi_refcnt;
        }
        is_unlock(&isam_com->opcl_lock);
        // Processes that died with the file open still count as its users.
        is_reap_holders(u);
        if (!rdonly) ready_for_calls();
        is_isout();
        return isfd;
    }

    if (freeslot < 0) return fail(ISE_NOFCP, 3);
    u = freeslot;

    // First open anywhere.  Calls of the file (or of the slot's previous file) still in a
    // log go into the file before its control page is read.
    if (lg_prepare(u, static_cast<uint64_t>(fi.f_dev), static_cast<uint64_t>(fi.f_inode)) != 0)
        return fail(ISE_OPENF, 15);
    // Read the control page into the scratch copy, then into the common heap.
    IS_FCP* scratch = reinterpret_cast<IS_FCP*>(fcp_scratch);
    std::memset(fcp_scratch, 0, IS_FCP_JDSIZE);
    int fd = kisam::os_open(filename, oflags | O_CLOEXEC, 0666);
    if (fd < 0) return fail(ISE_OPENF, 4);
    auto fail_fd = [&](int code, int detail) noexcept {
        kisam::os_close(fd);
        return fail(code, detail);
    };

    if (seqf) {
        std::memset(fcp_scratch + IS_FCP_JDSIZE, 0, kisam::kFcpImage);
        scratch->is_magic = ISMAGIC_1024;
        PAGE end = (fi.f_size + KISAM_PAGESIZE - 1) & ~static_cast<PAGE>(KISAM_PAGESIZE - 1);
        scratch->is_nextfree = scratch->is_lastpage = end;
        scratch->is_optbits = ISO_SEQ;
    } else {
        ssize_t n = kisam::os_pread_full(fd, fcp_scratch + IS_FCP_JDSIZE, kisam::kFcpImage, 0);
        if (n < kisam::kFcpImage) return fail_fd(ISE_NOTISAM, 5);
        MAGICt magic = scratch->is_magic;
        // A key table that cannot fit in the page is as foreign as a wrong magic.
        if (magic < ISMAGIC_OLD512 || magic > ISMAGIC_1024 || scratch->is_nkeys < 0 ||
            scratch->is_nkeys > KISAM_MAXKEYS)
            return fail_fd(ISE_NOTISAM, 6);
        if (magic == ISMAGIC_OLD512 || magic == ISMAGIC_OLD1024) kisam::fcp_convert_old(fcp_scratch);
        if (!key_table_ok(scratch)) return fail_fd(ISE_NOTISAM, 6);
        // A file left marked with a unit of a killed process still in its journal:
        if ((scratch->is_optbits & ISO_DIRTYMARK) &&
            jn_recover_file(static_cast<uint64_t>(fi.f_dev), static_cast<uint64_t>(fi.f_inode))) {
            // That unit never reached the file, and what the log held went in before
            // (lg_prepare): the file is as its last call left it, and its mark can go (on
            // disk with the control page's next write).
            scratch->is_optbits = static_cast<uint8_t>(scratch->is_optbits & ~ISO_DIRTYMARK);
        }
        if (!noverify && (scratch->is_optbits & ISO_DIRTYMARK)) return fail_fd(ISE_INCONSISTENT, 14);
    }

    const int nkeys = scratch->is_nkeys;
    const unsigned size = IS_FCP_SIZE(nkeys);
    IS_FCP* fcp = reinterpret_cast<IS_FCP*>(allocncom(size));
    if (!fcp) return fail_fd(ISE_NOFCP, 7);
    std::memcpy(fcp, scratch, size);
    auto fail_fcp = [&](int code, int detail) noexcept {
        is_env.pfo_tbl[u] = -1;
        is_open_note(u, false);
        freencom(reinterpret_cast<char*>(fcp), size);
        return fail_fd(code, detail);
    };

    int isfd = db_alloc(u, fcp);
    if (isfd < 0) return fail_fcp(ISE_NOIDB, 8);

    fcp->jd_buf_hd = -1;
    fcp->jd_fcplock = 0;
    uint8_t ob = fcp->is_optbits & static_cast<uint8_t>(~(ISO_TRACK | ISO_SYNC | ISO_CLEARREL));
    if (!noverify && (isam_com->isc_bits & 0x2)) {
        ob |= ISO_TRACK;
        if (isam_com->isc_bits & 0x8)
            ob |= ISO_CLEARREL;
        else if (isam_com->isc_bits & 0x4)
            ob |= ISO_SYNC;
    }
    ob &= static_cast<uint8_t>(~ISO_CHANGED);
    fcp->is_optbits = ob;
    fcp->is_usecnt = 1;
    fcp->jd_dev = static_cast<uint64_t>(fi.f_dev);
    fcp->jd_ino = static_cast<uint64_t>(fi.f_inode);
    fcp->jd_lock_hd = KISAM_NOREL;
    fcp->jd_bits = 0;
    // Nothing learnt about the slot's previous file carries over; this process counts
    // among the file's users before the file can be found.
    isx_file* xf = kisam::isx_file_of(u);
    const uint32_t ctl_word = xf->xf_ctl_word;  // a lock word, not knowledge of a file
    std::memset(xf, 0, sizeof *xf);
    xf->xf_ctl_word = ctl_word;
    xf->xf_hand = -1;
    jn_setpath(u, filename);
    if (lg_enter(u, fcp) != 0) {
        is_dbfree(isfd);
        return fail_fcp(ISE_OPENF, 15);
    }
    is_open_note(u, true);
    is_env.pfo_tbl[u] = static_cast<int32_t>(kisam::rel_of(fcp));
    v_enter_file(u);

    IS_PFI* pfi = &is_pfi[u];
    if (pfi->pfi_osfd >= 0) {
        is_dbfree(isfd);
        return fail_fcp(ISE_OPENF, 9);
    }
    v_forget_file(u);
    pfi->pfi_osfd = fd;
    pfi->pfi_nkeys = static_cast<int8_t>(nkeys);
    pfi->pfi_bits = static_cast<uint8_t>((deferf ? PFI_DEFER : 0) | (seqf ? PFI_SEQ : 0) |
                                         (rdonly ? PFI_RDONLY : 0) |
                                         (fcp->is_magic == ISMAGIC_1024 ? PFI_BIGFCP : 0));
    pfi->pfi_refcnt = 1;
    pfi->pfi_ctlcnt = 0;
    is_curfcp = fcp;
    is_curpfi = pfi;

    is_unlock(&isam_com->opcl_lock);
    if (!rdonly) ready_for_calls();
    is_isout();
    return isfd;
}

}  // extern "C"
