// The settings store: the system store (installation information file and site
// configuration file) and the user store (profile, run-time puts, cached process
// variables), the installation's directories, and their export to child programs.
//
// Process-wide and unlocked: loading and lookups belong to one thread at start-up.
#include "zt_internal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

ValList *SysEnvHdp = nullptr;
ValList *UsrEnvHdp = nullptr;
// Set at the start of loading and never cleared: each store loads once per process.
int SysEnvLoaded = 0;
int UsrEnvLoaded = 0;
int _zt_noexportf = 0;

// The base directory: kBaseUnknown until worked out, null when there is none.  It is
// a private copy, so it survives replacement of the setting it came from.
char *const kBaseUnknown = reinterpret_cast<char *>(~static_cast<std::uintptr_t>(0));
char *BaseDir = kBaseUnknown;

constexpr int kExpandBuf = 1024;

inline const char *vl_keyp(const ValList *v) { return reinterpret_cast<const char *>(v) + offsetof(ValList, key); }

inline bool ends_with_sep(const char *s) {
    std::size_t n = std::strlen(s);
    return n > 0 && s[n - 1] == '/';
}

void set_text(char **gp, const char *v) {
    char *old = *gp;
    *gp = ZTStrAlloc(v);
    ZTFree(old);
}

// addvl may rewrite a quoted value in place, so it always gets a private copy.
void add_copy(ValList **headp, const char *key, const char *value) {
    if (value == nullptr) value = "";
    std::size_t n = std::strlen(value);
    char small[ZT_SCRATCH];
    char *buf = n < sizeof small ? small : static_cast<char *>(std::malloc(n + 1));
    if (buf == nullptr) return;
    std::memcpy(buf, value, n + 1);
    addvl(headp, key, buf);
    if (buf != small) std::free(buf);
}

void LoadUsrEnv();
void LoadSysEnv();

inline void need_usr() {
    if (!UsrEnvLoaded) LoadUsrEnv();
}

void LoadUsrEnv() {
    UsrEnvLoaded = 1;
    nullvl(&UsrEnvHdp);
    char path[ZT_SCRATCH];
    const char *pe = std::getenv("PROFILEQ9ENV");
    const char *home = std::getenv("HOME");
    bool fits;
    if (pe != nullptr && *pe != '\0')
        fits = kisam::zt_fits(path, sizeof path, "%s", pe);
    else if (home != nullptr)
        fits = kisam::zt_fits(path, sizeof path, "%s%s.Q9.profile", home, ends_with_sep(home) ? "" : "/");
    else
        fits = kisam::zt_fits(path, sizeof path, ".Q9.profile");
    if (!fits) return;   // a cut name would read some other file
    ParmState saved = parm_detach();
    if (ParmOpen(path) == 0)
        while (ParmRead() == 1) addvl(&UsrEnvHdp, ParmID(), ParmValue());
    parm_attach(saved);
}

// Reads one settings file into the system store, handling its directives.
// Returns 0 when the file cannot be opened, else 1.
int doload(const char *dir, const char *file) {
    char path[ZT_SCRATCH];
    bool fits = (dir == nullptr || *dir == '\0')
                    ? kisam::zt_fits(path, sizeof path, "%s", file)
                    : kisam::zt_fits(path, sizeof path, "%s%s%s", dir, ends_with_sep(dir) ? "" : "/", file);
    if (!fits) return 0;
    ParmState saved = parm_detach();
    if (ParmOpen(path) != 0) {
        parm_attach(saved);
        return 0;
    }
    while (ParmRead() == 1) {
        const char *id = ParmID();
        const char *value = ParmValue();
        char words[kExpandBuf];
        char *argv[5];
        ZTStrNCopy(words, value ? value : "", sizeof words);
        if (ICStrcmp(id, "LocalEnv") == 0) {
            if (SplitArgs(words, argv, 4, " \t") == 2) ZTPutEnv(argv[0], argv[1]);
        } else if (ICStrcmp(id, "Env") == 0) {
            if (SplitArgs(words, argv, 4, " \t") == 2 && std::getenv(argv[0]) == nullptr) {
                char exp[kExpandBuf];
                ZTExpand(argv[1], exp, sizeof exp);
                ZTPutEnv(argv[0], exp);
                ZTPutRealEnv(argv[0], exp);
            }
        } else if (ICStrcmp(id, "UserEnv") == 0) {
            if (SplitArgs(words, argv, 5, " \t") == 3) {
                const char *user = ZTGetUserName();
                if (user != nullptr && std::strcmp(user, argv[0]) == 0) {
                    char exp[kExpandBuf];
                    ZTExpand(argv[2], exp, sizeof exp);
                    ZTPutEnv(argv[1], exp);
                    ZTPutRealEnv(argv[1], exp);
                }
            }
        } else {
            const char *over = __GetUsrEnvX(id);
            if (over != nullptr)
                add_copy(&SysEnvHdp, id, over);
            else
                addvl(&SysEnvHdp, id, ParmValue());
        }
    }
    parm_attach(saved);
    return 1;
}

char *GetBaseDir() {
    if (BaseDir != kBaseUnknown) return BaseDir;
    char *v = __GetUsrEnv("base_dir");
    if (v == nullptr) v = __GetSysEnv("base_dir");
    if (v == nullptr) v = ZTGetEnv("HOME_Q9");
    if (v == nullptr) {
        BaseDir = nullptr;
        return BaseDir;
    }
    std::size_t n = std::strlen(v);
    if (n > 1 && (v[n - 1] == '/' || v[n - 1] == '\\')) v[n - 1] = '\0';
    BaseDir = is_a_dir(v) ? ZTStrAlloc(v) : nullptr;
    return BaseDir;
}

// "Export": into the process environment and the user store, or with no-export set
// out of the process environment and into the user store only.
void zt_export(const char *name, const char *value) {
    if (!_zt_noexportf) {
        ZTPutRealEnv(name, value);
    } else {
        ZTPutRealEnv(name, nullptr);
        ZTPutEnv(name, value);
    }
}

// A ZT_ variable set in the environment overrides the directory; the result, or the
// scratch path when there is none, is exported back under the same name.
void dir_override(const char *name, char **gp, const char *scratch) {
    const char *e = std::getenv(name);
    if (e != nullptr) {
        char buf[ZT_PATHMAX];
        ZTExpand(e, buf, sizeof buf);
        set_text(gp, buf);
    }
    if (*gp == nullptr) set_text(gp, scratch);
    zt_export(name, *gp);
}

void make_dirs_under(const char *dir) {
    if (dir == nullptr) return;
    char buf[ZT_PATHMAX + 8];
    kisam::zt_fmt(buf, sizeof buf, "%s/tmp.txt", dir);
    ZTMakeDirs(buf);
}

void LoadSysEnv() {
    SysEnvLoaded = 1;
    nullvl(&SysEnvHdp);
    // The user store is loaded first: what this load puts there must not be dropped
    // by a later user load, and the directives below need the parameter reader to
    // themselves.
    need_usr();

    char home[ZT_PATHMAX];
    const char *h = std::getenv("HOME_Q9");
    if (h == nullptr) h = getvlp(SysEnvHdp, "HOME_Q9");
    if (h == nullptr) h = "/usr/q9";
    ZTStrNCopy(home, h, sizeof home);
    ZTFileNameFix(home);
    doload(home, "Q9.info");
    ZTPutEnv("HOME_Q9", home);

    char buf[ZT_PATHMAX];
    if (const char *uh = std::getenv("HOME")) {
        kisam::zt_fmt(buf, sizeof buf, "%s/%s", uh, "Documents");
        set_text(&zt_docp, ZTFileIsDir(buf) == 0 ? uh : buf);
        kisam::zt_fmt(buf, sizeof buf, "%s/%s", uh, ".Q9");
        set_text(&zt_appdatap, buf);
    }
    if (const char *q = ZTGetEnvX("HOME_Q9")) {
        kisam::zt_fmt(buf, sizeof buf, "%s/share", q);
        set_text(&zt_comappdatap, buf);
    }

    const char *base = GetBaseDir();
    if (base != nullptr) {
        static const char *const keys[][2] = {{"bin_dir", "bin"},       {"etc_dir", "etc"},
                                              {"lib_dir", "lib"},       {"system_dir", "system"},
                                              {"image_dir", "images"},  {"tmp_dir", "tmp"}};
        for (const auto &k : keys) {
            if (ZTGetEnvX(k[0]) != nullptr) continue;
            kisam::zt_fmt(buf, sizeof buf, "%s/%s", base, k[1]);
            add_copy(&UsrEnvHdp, k[0], buf);
            if (std::strcmp(k[0], "image_dir") == 0) set_text(&zt_imagep, buf);
            if (std::strcmp(k[0], "tmp_dir") == 0) {
                ZTFileNameFix(buf);
                set_text(&zt_tempp, buf);
            }
        }
    }

    // The site configuration file: the first rule that applies.
    char cfg[ZT_SCRATCH];
    if (const char *v = __GetUsrEnv("config_fn")) {
        ZTStrNCopy(cfg, v, sizeof cfg);
        doload(nullptr, cfg);
    } else if (const char *s = __GetSysEnv("config_fn")) {
        ZTStrNCopy(cfg, s, sizeof cfg);
        doload(nullptr, cfg);
    } else if (const char *o = __GetUsrEnvX("config_fn")) {
        ZTStrNCopy(cfg, o, sizeof cfg);
        if (doload(nullptr, cfg)) add_copy(&UsrEnvHdp, "config_fn", cfg);
    } else if (base != nullptr) {
        // Without a base directory there is no default: a file of that name in the
        // current directory is not the installation's.
        if (doload(base, "Q9Config")) {
            kisam::zt_fmt(cfg, sizeof cfg, "%s/%s", base, "Q9Config");
            add_copy(&UsrEnvHdp, "config_fn", cfg);
        }
    }

    if (const char *dt = ZTGetEnvX("datetype")) {
        if (std::strcmp(dt, "AMERICAN") == 0) zt_datetype = 0;
        if (std::strcmp(dt, "EUROPEAN") == 0) zt_datetype = 1;
    }

    if (const char *e = std::getenv("ZT_COMMONAPPDATA")) {
        ZTExpand(e, buf, sizeof buf);
        set_text(&zt_comappdatap, buf);
    }
    if (zt_comappdatap != nullptr) {
        kisam::zt_fmt(buf, sizeof buf, "%s/images", zt_comappdatap);
        ZTFileNameFix(buf);
        set_text(&zt_climagep, buf);
    }

    char scratch[ZT_PATHMAX];
    if (base != nullptr) {
        if (zt_homep == nullptr) {
            ZTStrNCopy(buf, base, sizeof buf);
            ZTFileNameFix(buf);
            set_text(&zt_homep, buf);
        }
        if (zt_imagep == nullptr) {
            kisam::zt_fmt(buf, sizeof buf, "%s/images", base);
            set_text(&zt_imagep, buf);
        }
        kisam::zt_fmt(scratch, sizeof scratch, "%s/tmp", base);
        ZTFileNameFix(scratch);
    } else {
        ZTStrNCopy(scratch, ".", sizeof scratch);
        if (zt_homep == nullptr) set_text(&zt_homep, ".");
        if (zt_imagep == nullptr) set_text(&zt_imagep, ".");
    }
    if (zt_comappdatap == nullptr) {
        set_text(&zt_comappdatap, scratch);
        set_text(&zt_climagep, scratch);
    }
    zt_export("ZT_COMMONAPPDATA", zt_comappdatap);
    dir_override("ZT_APPDATA", &zt_appdatap, scratch);
    dir_override("ZT_DOCUMENTS", &zt_docp, scratch);
    dir_override("ZT_TEMP", &zt_tempp, scratch);

    kisam::zt_fmt(buf, sizeof buf, "%s/s_%08lx", zt_appdatap, static_cast<unsigned long>(::getpid()));
    set_text(&zt_sessionp, buf);

    zt_export("ZT_HOME", zt_homep);
    zt_export("ZT_IMAGES", zt_imagep);
    zt_export("ZT_CLIMAGES", zt_climagep);
    if (!_zt_noexportf) {
        ZTUpdatePath();
        make_dirs_under(zt_appdatap);
        make_dirs_under(zt_docp);
    }
    // The shared directories are for every user of the installation.
    mode_t oldmask = ::umask(0);
    make_dirs_under(zt_comappdatap);
    make_dirs_under(zt_tempp);
    ::umask(oldmask);

    ZTSysMutexAlloc();
}

int q9dir(const char *word, char *out, bool override) {
    if (out == nullptr) return -1;
    out[0] = '\0';
    if (word == nullptr || std::strlen(word) > 59) return -1;
    char key[64];
    kisam::zt_fmt(key, sizeof key, "%s_dir", word);
    const char *v = __GetUsrEnv(key);
    if (v == nullptr) v = __GetSysEnv(key);
    if (v == nullptr && override) v = __GetUsrEnvX(key);
    if (v != nullptr && is_a_dir(v)) {
        kisam::zt_fmt(out, ZT_PATHBUF, "%s%s", v, ends_with_sep(v) ? "" : "/");
        return 0;
    }
    const char *base = GetBaseDir();
    if (base == nullptr) return -1;
    kisam::zt_fmt(out, ZT_PATHBUF, "%s/%s", base, word);
    if (!is_a_dir(out)) return -1;
    std::size_t n = std::strlen(out);
    if (n + 1 < ZT_PATHBUF) {
        out[n] = '/';
        out[n + 1] = '\0';
    }
    return 0;
}

}  // namespace

void zt_reload_usr_env() {
    emptyvl(&UsrEnvHdp);
    LoadUsrEnv();
}

int zt_load_settings_file(const char *path) { return doload(nullptr, path); }

bool is_a_dir(const char *path) {
    if (path == nullptr || *path == '\0') return false;
    char buf[ZT_SCRATCH];
    ZTStrNCopy(buf, path, sizeof buf);
    std::size_t n = std::strlen(buf);
    if (n > 1 && (buf[n - 1] == '/' || buf[n - 1] == '\\')) buf[n - 1] = '\0';
    struct stat st;
    return ::stat(buf, &st) == 0 && S_ISDIR(st.st_mode);
}

char *__GetUsrEnv(const char *name) {
    if (name == nullptr) return nullptr;
    need_usr();
    if (char *v = getvlp(UsrEnvHdp, name)) return v;
    const char *e = std::getenv(name);
    if (e == nullptr) return nullptr;
    // Cached: later changes of the process environment are not seen.
    add_copy(&UsrEnvHdp, name, e);
    return getvlp(UsrEnvHdp, name);
}

char *__GetSysEnv(const char *name) {
    if (name == nullptr) return nullptr;
    if (!SysEnvLoaded) LoadSysEnv();
    return getvlp(SysEnvHdp, name);
}

// The override variable of a lower-case key: tmp_dir -> WQTMP, config_fn -> WQCONFIG,
// alt_tmp_dir -> WQALTTMP.  A key with any upper-case letter has none.
char *__GetUsrEnvX(const char *name) {
    if (name == nullptr || *name == '\0') return nullptr;
    for (const char *p = name; *p; ++p)
        if (*p >= 'A' && *p <= 'Z') return nullptr;
    char up[ZT_SCRATCH];
    std::size_t n = std::strlen(name);
    if (n >= sizeof up - 3) return nullptr;
    lctouc(up, name);
    if (n > 4 && (std::strcmp(up + n - 4, "_LST") == 0 || std::strcmp(up + n - 4, "_DIR") == 0))
        n -= 4;
    else if (n > 3 && std::strcmp(up + n - 3, "_FN") == 0)
        n -= 3;
    up[n] = '\0';
    char var[ZT_SCRATCH];
    if (std::strncmp(up, "ALT_", 4) == 0)
        kisam::zt_fmt(var, sizeof var, "WQALT%s", up + 4);
    else
        kisam::zt_fmt(var, sizeof var, "WQ%s", up);
    const char *e = std::getenv(var);
    if (e == nullptr) return nullptr;
    need_usr();
    add_copy(&UsrEnvHdp, name, e);
    return getvlp(UsrEnvHdp, name);
}

extern "C" {

KISAM_API char *zt_homep = nullptr;
KISAM_API char *zt_appdatap = nullptr;
KISAM_API char *zt_comappdatap = nullptr;
KISAM_API char *zt_docp = nullptr;
KISAM_API char *zt_imagep = nullptr;
KISAM_API char *zt_climagep = nullptr;
KISAM_API char *zt_tempp = nullptr;
KISAM_API char *zt_sessionp = nullptr;
KISAM_API int zt_datetype = 0;
KISAM_API ZTMutex *zt_mtxp = nullptr;
KISAM_API ZTMutex *zt_glblmtxp = nullptr;
KISAM_API uint32_t zt_bits = 0;

KISAM_API void LoadEnv(void) {
    if (!UsrEnvLoaded) LoadUsrEnv();
    if (!SysEnvLoaded) LoadSysEnv();
}

KISAM_API char *GetUsrEnv(const char *name) { return __GetUsrEnv(name); }
KISAM_API char *GetSysEnv(const char *name) { return __GetSysEnv(name); }

// The full lookups load both stores first: loading the system store also fills the
// user store (directory defaults, directives), and the very first lookup must see it.
KISAM_API char *ZTGetEnv(const char *name) {
    if (name == nullptr) return nullptr;
    LoadEnv();
    char *v = __GetUsrEnv(name);
    if (v == nullptr) v = __GetSysEnv(name);
    if (v == nullptr && std::strcmp(name, "WQSYSTEM") == 0) {
        v = __GetUsrEnv("system_dir");
        if (v == nullptr) v = __GetSysEnv("system_dir");
    }
    return v;
}

KISAM_API char *ZTGetEnvX(const char *name) {
    if (name == nullptr) return nullptr;
    LoadEnv();
    char *v = __GetUsrEnv(name);
    if (v == nullptr) v = __GetSysEnv(name);
    if (v == nullptr) v = __GetUsrEnvX(name);
    return v;
}

KISAM_API void ZTPutEnv(const char *name, const char *value) {
    if (name == nullptr || *name == '\0') return;
    need_usr();
    char buf[kExpandBuf];
    ZTExpand(value ? value : "", buf, sizeof buf);
    addvl(&UsrEnvHdp, name, buf);
}

}  // extern "C"

int zt_expand(const char *text, char *out, int size, bool *cut) {
    *cut = false;
    if (out == nullptr || size < 1) return 0;
    out[0] = '\0';
    if (text == nullptr) return 0;
    if (size < 2) {
        *cut = *text != '\0';
        return 0;
    }
    int n = 0;
    const char *p = text;
    while (*p && n < size - 1) {
        if (p[0] == '$' && p[1] == '{') {
            const char *close = std::strchr(p + 2, '}');
            std::size_t nlen = close ? static_cast<std::size_t>(close - (p + 2)) : 0;
            if (close != nullptr && nlen > 0 && nlen <= 511) {
                char name[512];
                std::memcpy(name, p + 2, nlen);
                name[nlen] = '\0';
                // Not rescanned: a value holding ${...} is copied as it stands.
                if (const char *v = ZTGetEnvX(name)) {
                    while (*v && n < size - 1) out[n++] = *v++;
                    if (*v) *cut = true;
                }
                p = close + 1;
                continue;
            }
        }
        out[n++] = *p++;
    }
    if (*p) *cut = true;
    out[n] = '\0';
    return n;
}

extern "C" {

KISAM_API int ZTExpand(const char *text, char *out, int size) {
    bool cut;
    return zt_expand(text, out, size, &cut);
}

KISAM_API int ZTPutRealEnv(const char *name, const char *value) {
    if (name == nullptr || *name == '\0' || std::strchr(name, '=') != nullptr) return -1;
    int rc = 0;
    char small[4096];
    char *exp = small;
    if (value != nullptr) {
        // Room for long values such as PATH as well as for substitutions.
        std::size_t size = std::strlen(value) + sizeof small;
        if (size > sizeof small) exp = static_cast<char *>(std::malloc(size));
        if (exp == nullptr) return -1;
        ZTExpand(value, exp, static_cast<int>(size));
        const char *cur = std::getenv(name);
        if (cur == nullptr || std::strcmp(cur, exp) != 0) {
            std::size_t len = std::strlen(name) + 1 + std::strlen(exp) + 1;
            // putenv keeps the string itself: it is never freed.
            char *s = static_cast<char *>(std::malloc(len));
            if (s != nullptr) {
                std::snprintf(s, len, "%s=%s", name, exp);
                if (::putenv(s) != 0) {
                    std::free(s);
                    rc = -1;
                }
            } else {
                rc = -1;
            }
        }
        if (*value == '\0') ::unsetenv(name);
        need_usr();
        add_copy(&UsrEnvHdp, name, exp);
    } else {
        small[0] = '\0';
        bool had = std::getenv(name) != nullptr;
        ::unsetenv(name);
        if (had) {
            need_usr();
            add_copy(&UsrEnvHdp, name, "");
        }
    }
    if (std::strcmp(name, "ZT_UMASK") == 0) ::umask(static_cast<mode_t>(std::strtol(exp, nullptr, 0)));
    if (exp != small) std::free(exp);
    return rc;
}

KISAM_API void ZTUpdatePath(void) {
    if (zt_homep == nullptr) return;
    constexpr std::size_t kPathMax = 32768;
    char want[ZT_PATHMAX + 8];
    kisam::zt_fmt(want, sizeof want, "%s/bin", zt_homep);
    ZTFileNameFix(want);
    // Without an installation the home is "."; a relative element would let whatever
    // the current directory holds run in place of a command.
    if (want[0] != '/') return;
    const char *old = std::getenv("PATH");
    std::size_t olen = old != nullptr ? std::strlen(old) : 0;
    std::size_t wlen = std::strlen(want);
    // Large enough for the whole old value: it is never cut, only left without the
    // addition when the result would grow too long.
    char *buf = static_cast<char *>(std::malloc((olen > kPathMax ? olen : kPathMax) + wlen + 4));
    if (buf == nullptr) return;
    if (old != nullptr) {
        ZTStrNCopy(buf, old, kPathMax);
        char *elems[201];
        int n = ZTSplitArgs(buf, elems, 201, ":", 2 | 1);
        for (int i = 0; i < n; ++i) {
            std::size_t l = std::strlen(elems[i]);
            if (l > 1 && elems[i][l - 1] == '/') elems[i][l - 1] = '\0';
            if (std::strcmp(elems[i], want) == 0) {
                std::free(buf);
                return;
            }
        }
        std::memcpy(buf, old, olen + 1);
        std::size_t len = olen;
        if (len == 0 || buf[len - 1] != ':') buf[len++] = ':';
        if (len + wlen + 1 <= kPathMax - 1) {
            std::memcpy(buf + len, want, wlen);
            len += wlen;
            buf[len++] = ':';
        }
        buf[len] = '\0';
    } else {
        std::snprintf(buf, wlen + 2, "%s:", want);
    }
    ZTPutRealEnv("PATH", buf);
    std::free(buf);
}

KISAM_API int getQ9dir(const char *word, char *out) { return q9dir(word, out, false); }
KISAM_API int getQ9dirX(const char *word, char *out) { return q9dir(word, out, true); }

KISAM_API void ZTFileNameFix(char *path) {
    if (path == nullptr) return;
    char *r = path;
    char *keep = path;   // nothing before this point is changed or compared
    if (ZTPathIsURL(path)) {
        char *s = std::strstr(path, "//");
        if (s != nullptr) keep = r = s + 2;
    }
    char *w = r;
    for (; *r; ++r) {
        if (*r == '/' && w > keep && w[-1] == '/') continue;
        *w++ = *r;
    }
    *w = '\0';
}

KISAM_API void ZTSetNoExport(void) { _zt_noexportf = 1; }

KISAM_API int ZTSysMutexAlloc(void) {
    LoadEnv();
    int rc = 0;
    if (zt_mtxp == nullptr) {
        zt_mtxp = ZTMutexAlloc(nullptr);
        if (zt_mtxp == nullptr) {
            VError("Error Allocating ZT Local Mutex");
            rc = -1;
        }
    }
    if (zt_glblmtxp == nullptr) {
        zt_glblmtxp = ZTGlobalMutexAlloc("_Q9_Glbl_Mtx_");
        if (zt_glblmtxp == nullptr) {
            VError("Error Allocating ZT Global Mutex");
            return -1;
        }
    }
    return rc;
}

KISAM_API void ZTSysMutexFree(void) {
    ZTMutexFree(zt_mtxp);
    zt_mtxp = nullptr;
    ZTMutexFree(zt_glblmtxp);
    zt_glblmtxp = nullptr;
}

KISAM_API void FreeUsrEnv(void) { emptyvl(&UsrEnvHdp); }

KISAM_API void FreeSysEnv(void) {
    emptyvl(&SysEnvHdp);
    ZTSysMutexFree();
}

KISAM_API void printvllist(void) {
    VMsg("SysEnv\n");
    for (const ValList *v = SysEnvHdp; v != nullptr; v = v->next) VMsg("%s: %s\n", vl_keyp(v), v->valp ? v->valp : "NULL");
    VMsg("UsrEnv\n");
    for (const ValList *v = UsrEnvHdp; v != nullptr; v = v->next) VMsg("%s: %s\n", vl_keyp(v), v->valp ? v->valp : "NULL");
}

KISAM_API void printusrenv(void) { printvlp(UsrEnvHdp); }

KISAM_API int strendsin(const char *s, const char *t) {
    if (s == nullptr || t == nullptr) return 0;
    std::size_t ls = std::strlen(s), lt = std::strlen(t);
    return ls > lt && std::strcmp(s + ls - lt, t) == 0;
}

KISAM_API int strbeginsin(const char *s, const char *t) {
    if (s == nullptr || t == nullptr) return 0;
    return std::strncmp(s, t, std::strlen(t)) == 0;
}

KISAM_API int IsFileSepChar(int c) { return c == '/'; }

}  // extern "C"
