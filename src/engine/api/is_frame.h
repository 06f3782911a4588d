// The call frame: the entry and exit of every exported operation on a descriptor, in
// whatever folder the operation lives (records, files, record locks).
//
// is_isin records the procedure code, repairs what an earlier call of this process left
// when it never reached its exit (abandoned by a signal handler), selects the current
// handle, file entry and control page (is_curdb, is_curpfi, is_curfcp) that every lower
// layer reads as implicit arguments, and checks the descriptor and the key number;
// is_isout ends the call.
//
// Requires: a call of this process between its entry and exit holds no free_lock or
// buf_lock (control locks it holds through nisgetctl stay held); every is_isin is matched
// by one is_isout on every path out.
#pragma once

// 0, or -1 with the error raised (a bad descriptor or key, a rollback that failed).
int is_isin(int procid, int isfd, int keyno) noexcept;
void is_isout(void) noexcept;
