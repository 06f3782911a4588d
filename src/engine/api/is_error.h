// Error model: is_errno, the procedure-code stack, and the two ways a failure is recorded.
//
// Raising (at the point where a failure arises) sets is_errno and restarts the stack with
// one entry; pushing (every caller on the way out) appends its own code.  Codes are
// procedure character * 256 + detail.  Pushes beyond the 20th entry are dropped.
//
// Every failure ends with a code: a routine that finds damage in the contents of a file
// (a link to no page, a page of the wrong kind, a chain that loops or leaves its page)
// raises ISE_BTS, the code that says "the file is damaged", even where it would only
// push its own entry over the failure of a routine it called.
//
// Requires: nothing; the state is this process's own.
#pragma once

#include "layout.h"

// Procedure characters (the first character of each row of the procedure table).
enum : int {
    P_BT_DELETE = 0x01, P_BT_GETNXT = 0x02, P_BT_INSERT = 0x03, P_BT_ORDER = 0x04,
    P_BT_SEARCH = 0x05, P_BT_UNFLOW = 0x06,
    P_DR_GET = 0x11, P_DR_PUTREC = 0x12, P_DR_PUT = 0x13, P_DR_SYNC = 0x14, P_DR_REL = 0x15,
    P_IS_DELETE = 0x21, P_IS_INIT = 0x22, P_IS_READ = 0x23, P_IS_RELCTL = 0x24,
    P_IS_SAME = 0x25, P_IS_WRITE = 0x26,
    P_ISCLOSE = 0x31, P_ISCREATE = 0x32, P_ISDELETE = 0x33, P_ISFIND = 0x34,
    P_ISFLUSH = 0x35, P_ISFWRITE = 0x3C, P_ISGETCTL = 0x36, P_ISLOCK = 0x37,
    P_ISOPEN = 0x38, P_ISPREAD = 0x3F, P_ISREAD = 0x40, P_ISRELCTL = 0x39,
    P_ISSEEK = 0x3A, P_ISSTAT = 0x45, P_ISFSIZE = 0x46, P_ISUNLOCK = 0x3E,
    P_ISUPDATE = 0x3B, P_ISWRITE = 0x3D,
    P_V_DISPOSE = 0x41, P_V_NEW = 0x42, P_V_READ = 0x43, P_V_WRITE = 0x44,
    P_SEQCREATE = 0x50, P_SEQREAD = 0x51, P_SEQWRITE = 0x52,
};

// Procedure code of procedure character p with detail d.
constexpr int PROC(int p, int d = 0) { return (p << 8) | (d & 0xFF); }

// Raise: is_errno = code, the stack restarts with proccode.  Returns -1 for one-line use.
int is_raise(int code, int proccode) noexcept;
// Push: append proccode to the stack (is_errno unchanged).  Returns -1 for one-line use.
int is_push(int proccode) noexcept;

namespace kisam {

// Keeps the error state (is_errno, the stack, errno) of a failure while clean-up work
// that may raise errors of its own runs; restores it when it goes out of scope.
class ErrorKeep {
public:
    ErrorKeep() noexcept;
    ~ErrorKeep();
    ErrorKeep(const ErrorKeep&) = delete;
    ErrorKeep& operator=(const ErrorKeep&) = delete;

private:
    short err_;
    struct is_etrace stk_[20];
    struct is_etrace* top_;
    int64_t all_;
    int sys_;
};

// The message table (31 entries, entry 0 empty) and the procedure table (42 rows + null).
extern const char* const msg_tbl[31];
extern const char* const proc_tbl[43];
}  // namespace kisam
