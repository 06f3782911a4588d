// File operations with status codes, directory creation, and small queries about
// the process, the user and the machine.
#include "zt_internal.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <libgen.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kExpandBuf = 1024;
constexpr int kCmdBuf = 4096;

// A loaded library resolves its own symbols first.  The address sanitizer's runtime
// refuses deep binding, so sanitizer builds load without it.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kDeepBind = 0;
#else
constexpr int kDeepBind = RTLD_DEEPBIND;
#endif

char _cl_type[21] = "";
char _os_type[12] = "";
char _os_name[32] = "";
char _zt_usrnamebuf[128];
char *_zt_usrnamep = nullptr;
char _zt_compnamebuf[128];
char *_zt_compnamep = nullptr;

const char *const fo_words[] = {"",          "Copy",       "Move",     "Rename",   "Delete",
                                "CreateDir", "CreateFile", "DeleteDir", "DeleteFile", "TestExist",
                                "TestDir",   "TestFile",   "TestDirEmpty", "Truncate", "Size32"};

// File-operation messages: errors unless quiet, progress only when verbose too.
void fo_msg(int flags, bool error, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void fo_msg(int flags, bool error, const char *fmt, ...) {
    if (flags & ZTFO_QUIET) return;
    if (!error && !(flags & ZTFO_VERBOSE)) return;
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    ZTVError("%s", buf);
}

// Expands and fixes a path; false when it had to be cut to fit.
bool expand_fix(const char *in, char *out, int size) {
    bool cut = false;
    zt_expand(in, out, size, &cut);
    ZTFileNameFix(out);
    return !cut;
}

// Runs cp, mv or rm on the given paths.  Every path is passed as one single-quoted
// shell word after "--", so no character of a name (quotes, "$", ";", backquotes,
// newlines, a leading "-") can run a command or turn into an option.
int fo_external(const char *word, const char *cmdword, const char *opts, int flags, int *statusp, int count,
                char **paths) {
    std::string line;
    line.reserve(256);
    line += cmdword;
    line += opts;
    line += " --";
    char buf[kExpandBuf];
    for (int i = 0; i < count; ++i) {
        if (paths[i] == nullptr || paths[i][0] == '\0') {
            fo_msg(flags, true, "Missing/Invalid Path for ZTFileOp()");
            *statusp = 2;
            return -1;
        }
        if (!expand_fix(paths[i], buf, sizeof buf)) {
            fo_msg(flags, true, "Missing/Invalid Path for ZTFileOp()");
            *statusp = 2;
            return -1;
        }
        line += ' ';
        kisam::zt_shell_quote(line, buf);
    }
    // A cut path could name a different file; refuse rather than act on it.
    if (line.size() >= kCmdBuf) {
        fo_msg(flags, true, "Unix %s Command Too Long", word);
        *statusp = 2;
        return -1;
    }
    fo_msg(flags, false, "Unix %s Command: %s", cmdword, line.c_str());
    int rc = std::system(line.c_str());
    if (rc != 0) {
        fo_msg(flags, false, "Unix Cmd: %s returns: %d", line.c_str(), rc);
        *statusp = 9999;
        return -1;
    }
    return 0;
}

// Creates the parent directories of the destination of a Copy or Move.
void make_parent(const char *path) {
    char buf[kExpandBuf];
    if (expand_fix(path, buf, sizeof buf)) ZTMakeDirs(buf);
}

int fo_copy_move(int cmd, int flags, int *statusp, int count, char **paths) {
    const char *word = fo_words[cmd];
    if ((cmd == ZTFO_RENAME && count != 2) || count < 2) {
        if (cmd == ZTFO_RENAME)
            fo_msg(flags, true, "Invalid Argc for ZTFileOp() Rename");
        else
            fo_msg(flags, true, "Missing Arg for ZTFileOp() %s", word);
        *statusp = 2;
        return -1;
    }
    std::string opts;
    if (cmd == ZTFO_COPY) {
        if (flags & (ZTFO_RECURSIVE | ZTFO_FORCE)) {
            opts = " -";
            if (flags & ZTFO_RECURSIVE) opts += 'r';
            if (flags & ZTFO_FORCE) opts += 'f';
        }
    } else if (flags & ZTFO_FORCE) {
        opts = " -f";
    }
    if (cmd != ZTFO_RENAME && paths[count - 1] != nullptr) make_parent(paths[count - 1]);
    return fo_external(word, cmd == ZTFO_COPY ? "cp" : "mv", opts.c_str(), flags, statusp, count, paths);
}

int fo_delete(int flags, int *statusp, int count, char **paths) {
    std::string opts;
    if (flags & (ZTFO_RECURSIVE | ZTFO_FORCE)) {
        opts = " -";
        if (flags & ZTFO_RECURSIVE) opts += 'r';
        if (flags & ZTFO_FORCE) opts += 'f';
    }
    return fo_external("Delete", "rm", opts.c_str(), flags, statusp, count, paths);
}

int fo_stat_status(const char *word, int flags, int *statusp) {
    *statusp = ZTFileOpErrStatus(word, flags, errno);
    return -1;
}

// Force: remove an existing path first.  Takes the caller's path as given, since
// the delete expands it itself (expanding twice could change it).  Returns 0 to go
// on, -1 on failure.
int fo_force_delete(int flags, int *statusp, const char *rawpath) {
    char *one[1] = {const_cast<char *>(rawpath)};
    if (fo_delete(flags | ZTFO_RECURSIVE, statusp, 1, one) != 0) {
        if (*statusp != 3) return -1;
    }
    *statusp = 0;
    return 0;
}

int fo_single(int cmd, int flags, int *statusp, const char *rawpath) {
    const char *word = fo_words[cmd];
    char path[kExpandBuf];
    if (!expand_fix(rawpath, path, sizeof path)) {
        fo_msg(flags, true, "Missing/Invalid Path for ZTFileOp()");
        *statusp = 2;
        return -1;
    }
    fo_msg(flags, false, "%s: %s", word, path);
    struct stat st;
    switch (cmd) {
    case ZTFO_CREATEDIR:
    case ZTFO_CREATEFILE: {
        bool exists = ::lstat(path, &st) == 0;
        if (exists && (flags & ZTFO_FORCE)) {
            if (fo_force_delete(flags, statusp, rawpath) != 0) return -1;
            exists = ::lstat(path, &st) == 0;
        }
        if (exists) {
            *statusp = 9;
            return -1;
        }
        if (cmd == ZTFO_CREATEDIR) {
            char dummy[kExpandBuf + 8];
            std::size_t len = std::strlen(path);
            bool sep = len > 0 && (path[len - 1] == '/' || path[len - 1] == '\\');
            kisam::zt_fmt(dummy, sizeof dummy, "%s%sxx.txt", path, sep ? "" : "/");
            if (ZTMakeDirs(dummy) != 0) return fo_stat_status("CreateDir", flags, statusp);
            return 0;
        }
        if (ZTMakeDirs(path) != 0) return fo_stat_status("CreateDir", flags, statusp);
        int oflags = O_WRONLY | O_CREAT | O_CLOEXEC | ((flags & ZTFO_FORCE) ? 0 : O_EXCL);
        int fd = ::open(path, oflags, 0666);
        if (fd < 0) return fo_stat_status("CreateFile", flags, statusp);
        ::close(fd);
        return 0;
    }
    case ZTFO_DELETEDIR:
        if (::rmdir(path) != 0) return fo_stat_status(word, flags, statusp);
        return 0;
    case ZTFO_DELETEFILE:
        if (::unlink(path) != 0) return fo_stat_status(word, flags, statusp);
        return 0;
    case ZTFO_TESTEXIST:
        if (::stat(path, &st) == 0) return 1;
        if (errno == ENOENT) return 0;
        return fo_stat_status(word, flags, statusp);
    case ZTFO_TESTDIR:
        if (::stat(path, &st) != 0) return fo_stat_status(word, flags, statusp);
        return S_ISDIR(st.st_mode) ? 1 : 0;
    case ZTFO_TESTFILE:
        if (::stat(path, &st) != 0) return fo_stat_status(word, flags, statusp);
        return S_ISREG(st.st_mode) ? 1 : 0;
    case ZTFO_TESTDIREMPTY: {
        if (::stat(path, &st) != 0) return fo_stat_status(word, flags, statusp);
        if (!S_ISDIR(st.st_mode)) {
            *statusp = 6;
            return -1;
        }
        DIR *d = ::opendir(path);
        if (d == nullptr) return fo_stat_status(word, flags, statusp);
        int empty = 1;
        while (struct dirent *e = ::readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
                empty = 0;
                break;
            }
        }
        ::closedir(d);
        return empty;
    }
    case ZTFO_TRUNCATE: {
        if (::stat(path, &st) != 0) {
            if (errno == ENOENT) {
                *statusp = 3;
                return -1;
            }
            return fo_stat_status(word, flags, statusp);
        }
        if (S_ISDIR(st.st_mode)) {
            *statusp = 5;
            return -1;
        }
        int fd = ::open(path, O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (fd < 0) return fo_stat_status(word, flags, statusp);
        ::close(fd);
        return 0;
    }
    case ZTFO_SIZE32:
        if (::stat(path, &st) != 0) return fo_stat_status(word, flags, statusp);
        if (st.st_size < 0x80000000LL) return static_cast<int>(st.st_size);
        return INT32_MIN;
    default:
        break;
    }
    *statusp = 1;
    return -1;
}

int stat_mode(const char *path, bool want_dir) {
    char buf[ZT_PATHMAX];
    if (!expand_fix(path, buf, sizeof buf)) return -1;
    struct stat st;
    if (::stat(buf, &st) != 0) return -1;
    return want_dir ? (S_ISDIR(st.st_mode) ? 1 : 0) : (S_ISREG(st.st_mode) ? 1 : 0);
}

ZTSigHandler set_signal(int sig, ZTSigHandler handler, bool restart) {
    struct sigaction sa, old;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    // Without SA_RESTART, interrupted system calls fail with EINTR.
    sa.sa_flags = restart ? SA_RESTART : 0;
    if (::sigaction(sig, &sa, &old) != 0) return SIG_ERR;
    return old.sa_handler;
}

}  // namespace

extern "C" {

KISAM_API int ZTFileOpErrStatus(const char *opword, int flags, int err) {
    switch (err) {
    case ENOENT: return 3;
    case EPERM:
    case EACCES: return 4;
    case EISDIR: return 5;
    case ENOTDIR: return 6;
    case ENOTEMPTY: return 7;
    case ENFILE:
    case EMFILE: return 8;
    case EEXIST: return 9;
    default:
        fo_msg(flags, true, "Unix %s errno: %d", opword != nullptr ? opword : "", err);
        return 9999;
    }
}

KISAM_API int ZTFileOp(int cmd, int flags, int *statusp, int count, char **paths) {
    int local = 0;
    if (statusp == nullptr) statusp = &local;
    if (count < 1 || paths == nullptr || paths[0] == nullptr || paths[0][0] == '\0') {
        fo_msg(flags, true, "Missing/Invalid Path for ZTFileOp()");
        *statusp = 2;
        return -1;
    }
    if (cmd < 1 || cmd > 14) {
        fo_msg(flags, true, "Invalid ZTFileOp() Command: %d", cmd);
        *statusp = 1;
        return -1;
    }
    try {   // command lines are built in strings; running out of memory fails the call
        switch (cmd) {
        case ZTFO_COPY:
        case ZTFO_MOVE:
        case ZTFO_RENAME:
            return fo_copy_move(cmd, flags, statusp, count, paths);
        case ZTFO_DELETE:
            return fo_delete(flags, statusp, count, paths);
        default:
            if (count != 1) {
                fo_msg(flags, true, "Invalid Argc for ZTFileOp() %s", fo_words[cmd]);
                *statusp = 2;
                return -1;
            }
            return fo_single(cmd, flags, statusp, paths[0]);
        }
    } catch (...) {
        *statusp = 9999;
        return -1;
    }
}

KISAM_API int ZTMakeDirs(const char *rawpath) {
    if (rawpath == nullptr || *rawpath == '\0') return 0;
    if (std::strchr(rawpath, '!') != nullptr) {
        const char *roots[] = {zt_appdatap, zt_docp, zt_homep, zt_comappdatap};
        bool ok = false;
        for (const char *r : roots)
            if (r != nullptr && equsub(r, rawpath)) ok = true;
        if (!ok) return 0;
    }
    char path[512];
    if (!expand_fix(rawpath, path, sizeof path)) {
        errno = ENAMETOOLONG;
        return -1;
    }

    // Walk back to the deepest existing prefix.
    int len = static_cast<int>(std::strlen(path));
    int start = -1;   // index of the "/" that ends the deepest existing prefix
    for (int i = len - 1; i >= 0; --i) {
        if (path[i] != '/') continue;
        if (i == 0) {
            start = 0;
            break;
        }
        path[i] = '\0';
        struct stat st;
        int rc = ::stat(path, &st);
        int err = errno;
        path[i] = '/';
        if (rc == 0) {
            if (!S_ISDIR(st.st_mode)) {
                errno = ENOTDIR;
                return -1;
            }
            start = i;
            break;
        }
        if (err != ENOENT) {
            errno = err;
            return -1;
        }
    }
    // Create each missing prefix from the shallowest on; the last element never.
    for (int i = start + 1; i < len; ++i) {
        if (path[i] != '/' || i == 0) continue;
        path[i] = '\0';
        if (::mkdir(path, 0777) != 0 && errno != EEXIST) {
            int err = errno;
            VError("Cannot Create Directory: %s - errno: %d", path, err);
            path[i] = '/';
            errno = err;
            return -1;
        }
        path[i] = '/';
    }
    return 0;
}

KISAM_API void ZTRMDashRF(const char *dir) {
    if (dir == nullptr || *dir == '\0') return;
    try {
        std::string line = "rm -rf -- ";
        kisam::zt_shell_quote(line, dir);
        if (line.size() >= 512) return;
        if (std::system(line.c_str()) != 0) { /* nothing to report: like rm -rf, best effort */ }
    } catch (...) {
    }
}

KISAM_API void ZTRMTmpWQStar(void) {
    const char *dir = std::getenv("WQTMP");
    if (dir == nullptr || *dir == '\0') dir = ZTGetEnvX("tmp_dir");
    if (dir == nullptr || *dir == '\0') return;
    // The directory is one quoted word; only the WQ* after it is left to the glob.
    try {
        std::string line = "rm -f -- ";
        kisam::zt_shell_quote(line, dir);
        line += "/WQ*";
        if (line.size() >= kCmdBuf) return;
        if (std::system(line.c_str()) != 0) { /* no match is not an error */ }
    } catch (...) {
    }
}

KISAM_API int ZTFileExists(char *path) {
    if (path == nullptr) return -1;
    ZTFileNameFix(path);
    struct stat st;
    if (::stat(path, &st) == 0) return 1;
    return errno == ENOENT ? 0 : -1;
}

KISAM_API int ZTFileIsDir(const char *path) { return path ? stat_mode(path, true) : -1; }
KISAM_API int ZTFileIsFile(const char *path) { return path ? stat_mode(path, false) : -1; }

KISAM_API char *ZTDirname(char *path) { return ::dirname(path); }
KISAM_API char *ZTBasename(char *path) { return ::__xpg_basename(path); }

KISAM_API ZTSigHandler ZTSignal(int sig, ZTSigHandler handler) { return set_signal(sig, handler, sig != SIGALRM); }
KISAM_API ZTSigHandler ZTSignal_intr(int sig, ZTSigHandler handler) { return set_signal(sig, handler, false); }

KISAM_API int ZTIsAdmin(void) { return ::geteuid() == 0 ? 1 : 0; }

KISAM_API char *ZTGetUserName(void) {
    if (_zt_usrnamep != nullptr) return _zt_usrnamep;
    struct passwd pw, *res = nullptr;
    char buf[1024];
    int rc = ::getpwuid_r(::getuid(), &pw, buf, sizeof buf, &res);
    char *out = nullptr;
    if (rc == 0 && res != nullptr && res->pw_name != nullptr) {
        ZTStrNCopy(_zt_usrnamebuf, res->pw_name, sizeof _zt_usrnamebuf);
        _zt_usrnamep = out = _zt_usrnamebuf;
    }
    ::endpwent();
    return out;
}

KISAM_API int ZTGetUIDFromName(const char *name) {
    if (name == nullptr || *name == '\0') return -1;
    struct passwd pw, *res = nullptr;
    char buf[1024];
    int rc = ::getpwnam_r(name, &pw, buf, sizeof buf, &res);
    int uid = (rc == 0 && res != nullptr) ? static_cast<int>(res->pw_uid) : -1;
    ::endpwent();
    return uid;
}

KISAM_API char *ZTGetComputerName(void) {
    if (_zt_compnamep != nullptr) return _zt_compnamep;
    char buf[128];
    if (::gethostname(buf, sizeof buf) != 0) return nullptr;
    buf[sizeof buf - 1] = '\0';
    ZTStrNCopy(_zt_compnamebuf, buf, sizeof _zt_compnamebuf);
    _zt_compnamep = _zt_compnamebuf;
    return _zt_compnamep;
}

KISAM_API char *ZTGetOsType(void) {
    if (_os_type[0] == '\0') ZTStrNCopy(_os_type, "UNIX", sizeof _os_type);
    return _os_type;
}

KISAM_API char *ZTGetOsName(void) {
    if (_os_name[0] == '\0') ZTStrNCopy(_os_name, "LINUX", sizeof _os_name);
    return _os_name;
}

KISAM_API int ZTGetOsVer(void) { return 0; }
KISAM_API int ZTGetOsPlatform(void) { return 0; }

KISAM_API void ZTSetClType(const char *type) { ZTStrNCopy(_cl_type, type ? type : "", sizeof _cl_type); }

KISAM_API char *ZTGetClType(void) {
    if (_cl_type[0] == '\0') ZTStrNCopy(_cl_type, "None", sizeof _cl_type);
    return _cl_type;
}

// A relative name without a lib_dir setting is handed to dlopen as it stands, so the
// loader's own search rules apply.
KISAM_API void *ZTLibLoad(const char *name) {
    if (name == nullptr || *name == '\0') return nullptr;
    char path[1024];
    const char *libdir = name[0] == '/' ? nullptr : ZTGetEnvX("lib_dir");
    bool fits = (libdir != nullptr && *libdir != '\0') ? kisam::zt_fits(path, sizeof path, "%s/%s", libdir, name)
                                                        : kisam::zt_fits(path, sizeof path, "%s", name);
    if (!fits) {
        ZTVError("%s: name too long\n", name);
        return nullptr;
    }
    ZTFileNameFix(path);
    void *h = ::dlopen(path, RTLD_NOW | kDeepBind);
    if (h == nullptr) {
        const char *e = ::dlerror();
        ZTVError("%s\n", e != nullptr ? e : path);
    }
    return h;
}

KISAM_API void ZTLibUnload(void *handle) {
    if (handle != nullptr) ::dlclose(handle);
}

KISAM_API void *ZTLibGetProcAddr(void *handle, const char *symbol) {
    if (handle == nullptr || symbol == nullptr) return nullptr;
    return ::dlsym(handle, symbol);
}

}  // extern "C"
