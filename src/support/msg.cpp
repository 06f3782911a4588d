// Message output: the two writers, the three hooks a host program may replace, sleeps.
//
// VMsg and VError format into a 1024-byte buffer, add a newline unless the text ends in
// one, and write it with a single fputs.  The hooks do nothing here; they are exported
// and every call reaches them through the dynamic symbol table, so a host program that
// defines functions of the same names receives the messages.
#include <kisam/ztsupport.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#define KISAM_API __attribute__((visibility("default")))

namespace {

constexpr int kMsgBuf = 1024;

void vo_output(bool error, const char* fmt, va_list ap) {
    if (fmt == nullptr || *fmt == '\0') return;
    char buf[kMsgBuf];
    int n = std::vsnprintf(buf, sizeof buf - 1, fmt, ap);  // leave room for the newline
    if (n < 0) return;
    size_t len = std::strlen(buf);
    if (len == 0 || buf[len - 1] != '\n') {  // an empty text still makes one line
        buf[len] = '\n';
        buf[len + 1] = '\0';
    }
    std::fputs(buf, error ? stderr : stdout);
}

}  // namespace

extern "C" {

KISAM_API void VMsg(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vo_output(false, fmt, ap);
    va_end(ap);
}

KISAM_API void VError(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vo_output(true, fmt, ap);
    va_end(ap);
}

KISAM_API int StdFlush(FILE* fp) { return std::fflush(fp); }

// The hooks: replaceable by the host program.  They must stay out of line and
// interposable; nothing in the library may call them except by name.
KISAM_API __attribute__((noinline)) void ZTVDebug(const char*, ...) {}
KISAM_API __attribute__((noinline)) void ZTVErrorW(const char*, ...) {}
KISAM_API __attribute__((noinline)) void ZTVError(const char*, ...) {}

KISAM_API int ZTGetErrno(void) { return errno; }

KISAM_API void ZTSleep(int seconds) {
    if (seconds > 0) ::sleep(static_cast<unsigned>(seconds));
}

KISAM_API void ZTSleepMS(int ms) {
    if (ms <= 0) return;
    struct timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

}  // extern "C"
