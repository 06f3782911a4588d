// Rollbacks still waiting in a journal, for programs that read files directly.
//
// A call cut short (its process killed, or its closing write refused by a full disk)
// is rolled back at once when it can be; when the rollback itself cannot reach the disk
// it stays in the process's journal and is applied by the next process that starts the
// shared area or takes the file's control lock.  Until then the file on disk holds the
// call half done, and a program that reads the file itself -- the structural checker, a
// dump, a salvage, a copy -- would take it for damage.  These calls let it ask first and
// settle the rollback, without changing anything for the programs using the file.
#include "is_error.h"
#include "is_init.h"
#include "jn.h"
#include "lg.h"

#include <kisam/kisam.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os.h"

namespace {

constexpr int kNameBuf = 512;

// Points the journal layer at the installation's lock file (the configuration file when
// it has none), as start-up does.  False when no configuration file is found.
bool find_installation() noexcept {
    if (isam_com) return true;  // attached: start-up has done it
    char name[kNameBuf] = {};
    const int fd = kiopenconfigfile(name, 0);
    if (fd < 0) return false;
    kisam::os_close(fd);
    char lk[kNameBuf + 4];
    std::snprintf(lk, sizeof lk, "%s.lk", name);
    jn_setbase(::access(lk, F_OK) == 0 ? lk : name);
    return true;
}

}  // namespace

extern "C" {

KISAM_API int kisam_pending(const char* path) {
    struct stat st;
    if (!path || ::stat(path, &st) != 0) {
        if (!path) errno = EINVAL;
        return -1;
    }
    if (!find_installation()) return -1;
    const uint64_t dev = static_cast<uint64_t>(st.st_dev), ino = static_cast<uint64_t>(st.st_ino);
    if (jn_pending(dev, ino)) return 1;
    const int logged = lg_pending(dev, ino);
    return logged == 1 ? 2 : logged == 2 ? 3 : 0;
}

KISAM_API int kisam_settle(const char* path) {
    const int pending = kisam_pending(path);
    if (pending <= 0) return pending;
    // A log of a newer version is not this library's to replay: the newer one must.
    if (pending == 3) return is_raise(ISE_OPENF, PROC(P_ISGETCTL, 3));
    // Attaching rolls back every unit left when nobody is attached; otherwise the open
    // (for a file that carries the data-changed mark) or the control lock's first taker
    // settles it.
    const bool attached = isam_com != nullptr;
    if (!attached && is_init() != 0) return -1;
    int rc = 1;
    struct stat st;
    const auto pending_here = [&] {
        const uint64_t dev = static_cast<uint64_t>(st.st_dev), ino = static_cast<uint64_t>(st.st_ino);
        return jn_pending(dev, ino) || lg_pending(dev, ino) == 1;
    };
    if (::stat(path, &st) == 0 && pending_here()) {
        // Taking the control lock settles a rollback; the checkpoint then puts what the
        // log holds into the file (the file's next calls go on into the log).
        const int fd = nisopen(path, ISO_RDWR);
        if (fd < 0) {
            rc = -1;
        } else {
            if (nisgetctl(fd) != 0) {
                rc = -1;
            } else {
                const int u = is_db[fd]->uniqueid;
                if (lg_checkpoint(kisam::pfo_fcp(u), u, lg_wfd(u)) != 0) rc = -1;
                kisam::ErrorKeep keep;
                if (nisrelctl(fd) != 0 && rc == 1) rc = -1;
            }
            kisam::ErrorKeep keep;
            nisclose(fd);
        }
        if (rc == 1 && jn_pending(static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)))
            rc = is_raise(ISE_RDWT, PROC(P_ISGETCTL, 2));
    }
    if (!attached) {
        kisam::ErrorKeep keep;
        nisunisam();
    }
    return rc;
}

}  // extern "C"
