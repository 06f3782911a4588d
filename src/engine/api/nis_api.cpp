// Exported operations that only frame a control-lock step, and the service entries.
#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "lg.h"
#include "v_pool.h"

#include <cstdio>

namespace {
constexpr int kFlush = 0x3500;
constexpr int kGetctl = 0x3600;
constexpr int kRelctl = 0x3900;
constexpr int kStat = 0x4500;
}  // namespace

extern "C" {

KISAM_API int nisflush(int isfd) {
    if (is_isin(kFlush, isfd, 0) != 0) return -1;
    if (is_getctl() != 0) {
        is_push(PROC(P_ISFLUSH, 0));
        is_isout();
        return -1;
    }
    // Everything committed so far goes into the file, on disk: its log starts anew.
    if (v_flush() == 0) {
        kisam::ErrorKeep keep;
        const int u = is_curdb->uniqueid;
        lg_checkpoint(is_curfcp, u, lg_wfd(u));
    }
    is_relctl();
    is_isout();
    return 0;
}

// Takes the control lock for the caller, to be given back by nisrelctl.  Fails only when
// the frame refuses isfd or the wait is refused as a deadlock.
KISAM_API int nisgetctl(int isfd) {
    if (is_isin(kGetctl, isfd, 0) != 0) return -1;
    int r = is_getctl();
    if (r != 0) is_push(PROC(P_ISGETCTL, 0));
    is_isout();
    return r;
}

KISAM_API int nisrelctl(int isfd) {
    if (is_isin(kRelctl, isfd, 0) != 0) return -1;
    is_relctl();
    is_isout();
    return 0;
}

KISAM_API int nisstat(int isfd, int maxkeys, int* keylens) {
    if (is_isin(kStat, isfd, 0) != 0) return -1;
    int nkeys = is_curfcp->is_nkeys;
    int n = static_cast<short>(maxkeys);
    if (n > nkeys) n = nkeys;
    for (int i = 0; keylens && i < n; ++i) keylens[i] = kisam::fcp_key(is_curfcp, i)->k_keylen;
    is_isout();
    return nkeys;
}

KISAM_API int ZTKISAMTest(const char* s) {
    std::printf("ZTKISAMTest(): %s\n", s ? s : "(null)");
    test2();
    return 0;
}

KISAM_API void test2(void) {
    std::fwrite("LIBKisam: test2\n", 1, 16, stdout);
    std::fflush(stdout);
}

KISAM_API int ZTKISAMGetLastError(void) { return is_errno; }

KISAM_API int ZTKISAMGetLastErrorMsg(char* buf, int buflen) {
    return niserrmsgget(buf, buflen);
}

KISAM_API void* ZTKISAMGetComAddr(void) { return isam_com; }

}  // extern "C"
