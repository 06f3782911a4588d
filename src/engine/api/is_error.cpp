// Error state: is_errno, the procedure-code stack, the message and procedure tables, and
// the two reports built from them.
//
// Invariants: is_etop is null until the first failure; afterwards it points one past
// the last entry written, never beyond is_estk + 20.  is_estk[0] names the innermost
// point of the failure, the entry before is_etop the outermost.  is_errno and the stack
// survive successful calls, so a report always describes the last failure.
#include "is_error.h"

#include <kisam/ztsupport.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {
KISAM_API short is_errno = 0;
KISAM_API struct is_etrace is_estk[20];
KISAM_API struct is_etrace* is_etop = nullptr;
KISAM_API int64_t is_eall = 0;  // reserved: nothing reads or writes it
}

namespace kisam {

const char* const msg_tbl[31] = {
    "",
    "ISE_BTNP    btree page parameter is null",
    "ISE_CREATF  cannot creat file",
    "ISE_INITERR isam initialization error",
    "ISE_NKEYERR illegal number of keys",
    "ISE_NOIDB   cannot allocate isam data block",
    "ISE_NOKEY   cannot find key to delete",
    "ISE_OPENF   cannot open file",
    "ISE_INVKL   invalid key length",
    "ISE_RONLY   read only file / can't nisdelete or niswrite",
    "ISE_RSIZE   invalid record size",
    "ISE_BADFD   bad isam file descriptor",
    "ISE_BADKN   bad key number",
    "ISE_NOFCP   cannot allocate fcp block           ",
    "ISE_NOTISAM file is not an isam file",
    "ISE_RDSK    seek failed in \"v_read\"",
    "ISE_RDWT    write failed in \"v_read\"",
    "ISE_BUFLINK buffer link failure in \"v_read\"",
    "ISE_RDRD    read failed in \"v_read\"",
    "ISE_FLSK    seek failed in \"v_flush\"",
    "ISE_FLWT    write failed in \"v_flush\"",
    "ISE_NWSK    seek failed in \"v_new\"",
    "ISE_NWWT    write failed in \"v_new\"",
    "ISE_FLFCP   fcp could not be updated in \"v_flush\"",
    "ISE_BTS     B-tree structure failure",
    "ISE_KEYSAVE Can't allocate key save area",
    "ISE_TMFILES Too many files open for this user",
    "ISE_MAGICVALERR Non matching magic vals in Isam Common - OLD ISam",
    "ISE_VERSIONERR\t Incompatible Versions of Isam Common",
    "ISE_CREATEISOPEN\tFile Is Open - Cannot Create",
    "ISE_INCONSISTENT\tFile was not closed properly and is in an inconsistent state",
};

// Each row: the procedure character, then the procedure's name.
const char* const proc_tbl[43] = {
    "\x01" "bt_delete",
    "\x02" "bt_getnxt",
    "\x03" "bt_insert",
    "\x04" "bt_order",
    "\x05" "bt_search",
    "\x06" "bt_unflow",
    "\x11" "dr_get",
    "\x12" "dr_putrec",
    "\x13" "dr_put",
    "\x14" "dr_sync",
    "\x15" "dr_rel",
    "\x21" "is_delete",
    "\x22" "is_init",
    "\x23" "is_read",
    "\x24" "is_relctl",
    "\x25" "is_same",
    "\x26" "is_write",
    "\x31" "isclose",
    "\x32" "iscreate",
    "\x33" "isdelete",
    "\x34" "isfind",
    "\x35" "isflush",
    "\x3C" "isfwrite",
    "\x36" "isgetctl",
    "\x37" "islock",
    "\x38" "isopen",
    "\x3F" "ispread",
    "\x40" "isread",
    "\x39" "isrelctl",
    "\x3A" "isseek",
    "\x45" "isstat",
    "\x46" "isfsize",
    "\x3E" "isunlock",
    "\x3B" "isupdate",
    "\x3D" "iswrite",
    "\x41" "v_dispose",
    "\x42" "v_new",
    "\x43" "v_read",
    "\x44" "v_write",
    "\x50" "seqcreate",
    "\x51" "seqread",
    "\x52" "seqwrite",
    nullptr,
};

}  // namespace kisam

namespace {

constexpr int kStackDepth = sizeof is_estk / sizeof is_estk[0];
constexpr int kReportBuf = 1024;

inline is_etrace entry_of(int proccode) {
    is_etrace e;
    e.is_euid = static_cast<int8_t>(proccode & 0xFF);
    e.is_eproc = static_cast<int8_t>((proccode >> 8) & 0xFF);
    return e;
}

// The texts of our own codes, beyond the table's (the Extensions section of kisam.h).
const char* ext_msg(int code) {
    switch (code) {
        case KISAM_ISE_INTERRUPTED: return "KISAM_ISE_INTERRUPTED wait for a lock given up at a signal";
        case KISAM_ISE_LOCKFAIL: return "KISAM_ISE_LOCKFAIL lock call on the lock file failed";
        default: return nullptr;
    }
}

// Message of the first stack entry, in both report forms.
int format_head(char* buf, size_t size) {
    const char* p = KIprocname(is_estk[0].is_eproc);
    int d = is_estk[0].is_euid;
    if (is_errno >= 1 && is_errno <= 30)
        return std::snprintf(buf, size, "%s in proc. %s - %d", kisam::msg_tbl[is_errno], p, d);
    if (const char* m = ext_msg(is_errno)) return std::snprintf(buf, size, "%s in proc. %s - %d", m, p, d);
    return std::snprintf(buf, size, "isam error #%d in proc. %s - %d", is_errno, p, d);
}

}  // namespace

int is_raise(int code, int proccode) noexcept {
    is_errno = static_cast<short>(code);
    is_estk[0] = entry_of(proccode);
    is_etop = &is_estk[1];
    return -1;
}

int is_push(int proccode) noexcept {
    if (is_etop == nullptr) is_etop = &is_estk[0];
    // note: a push beyond the last entry is dropped; the innermost entries matter most.
    if (is_etop < is_estk + kStackDepth) *is_etop++ = entry_of(proccode);
    return -1;
}

extern "C" {

KISAM_API char* KIprocname(short pnum) {
    for (const char* const* row = kisam::proc_tbl; *row != nullptr; ++row) {
        if (static_cast<signed char>((*row)[0]) == pnum) return const_cast<char*>(*row + 1);
    }
    static char unknown[20];
    std::snprintf(unknown, sizeof unknown, "#%d", pnum);
    return unknown;
}

KISAM_API void niserrmsg(void) {
    if (is_etop == nullptr) return;
    int sys = errno;  // the writes below must not change what is reported
    const char* p = KIprocname(is_estk[0].is_eproc);
    int d = is_estk[0].is_euid;
    if (is_errno >= 1 && is_errno <= 30)
        VError("%s in proc. %s - %d\r\n", kisam::msg_tbl[is_errno], p, d);
    else if (const char* m = ext_msg(is_errno))
        VError("%s in proc. %s - %d\r\n", m, p, d);
    else
        VError("isam error #%d in proc. %s - %d\r\n", is_errno, p, d);
    for (const is_etrace* e = &is_estk[1]; e < is_etop; ++e)
        VError("    called from proc. %s - %d\r\n", KIprocname(e->is_eproc), e->is_euid);
    if (sys > 0) VError("Sys errno #%d %s\n", sys, std::strerror(sys));
    StdFlush(stderr);
    errno = sys;
}

KISAM_API int niserrmsgget(char* buf, int buflen) {
    if (buf == nullptr) return 0;
    if (is_etop == nullptr) {
        buf[0] = '\0';
        return 0;
    }
    int sys = errno;
    char text[kReportBuf];
    int n = format_head(text, sizeof text);
    if (n < 0) n = 0;
    if (n >= kReportBuf) n = kReportBuf - 1;
    if (sys > 0) {
        int m = std::snprintf(text + n, sizeof text - static_cast<size_t>(n), ", Sys errno #%d %s",
                              sys, std::strerror(sys));
        if (m > 0) n += m;
        if (n >= kReportBuf) n = kReportBuf - 1;
    }
    if (buflen > 0 && n >= buflen) n = buflen - 1;
    std::memcpy(buf, text, static_cast<size_t>(n));
    buf[n] = '\0';
    errno = sys;
    return n;
}

KISAM_API void is_msg(short proc, short detail) { VError("proc: %d, det: %d\n", proc, detail); }

}  // extern "C"

namespace kisam {

ErrorKeep::ErrorKeep() noexcept
    : err_(is_errno), top_(is_etop), all_(is_eall), sys_(errno) {
    std::memcpy(stk_, is_estk, sizeof stk_);
}

ErrorKeep::~ErrorKeep() {
    is_errno = err_;
    std::memcpy(is_estk, stk_, sizeof stk_);
    is_etop = top_;
    is_eall = all_;
    errno = sys_;
}

}  // namespace kisam
