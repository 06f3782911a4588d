// Parameter files (identifier, blanks, value per line, with argument cracking) and
// configuration-entry files (a first-column line plus its indented continuations).
#include "zt_internal.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct ZTConfigInfo {
    FILE *ci_fp;
    uint16_t ci_bits;
    char ci_buf[1024];
    char ci_entry[8192];
};

namespace {

constexpr int kMaxArgs = 50;
constexpr int32_t kNotNumber = INT32_MIN;

constexpr uint16_t CI_OPEN = 1, CI_EOF = 2, CI_PUSHED = 4, CI_HAVELINE = 8, CI_SPLIT = 16;

// The one parameter reader of the process (one thread at a time).
FILE *parmfp = nullptr;
ParmData *parmdatap = nullptr;
char *parmid = nullptr;
char *parmvalue = nullptr;
int parmnargs = -1;
char *parmargp = nullptr;

inline bool is_alpha(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
inline bool is_digit(int c) { return c >= '0' && c <= '9'; }
inline bool is_word(int c) { return is_alpha(c) || is_digit(c) || c == '_'; }
inline bool is_octal(int c) { return c >= '0' && c <= '7'; }
inline int hex_value(int c) {
    if (is_digit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Reads one physical line into buf (room bytes).  A line longer than the room is cut
// and the rest of it is discarded, so that its tail is never taken for a record of
// its own.  Returns the length, or -1 at the end of the file; *cut tells a cut line.
int read_line(FILE *fp, char *buf, int room, bool *cut) {
    *cut = false;
    if (room < 2 || std::fgets(buf, room, fp) == nullptr) return -1;
    int len = static_cast<int>(std::strlen(buf));
    // A line ending in CR LF (a file written on another system) ends like any other.
    if (len >= 2 && buf[len - 1] == '\n' && buf[len - 2] == '\r') {
        buf[len - 2] = '\n';
        buf[--len] = '\0';
    }
    if (len == room - 1 && buf[len - 1] != '\n') {
        // The line filled the room.  If only its end did not fit, the line is whole
        // and its newline is left to be read as the next (empty) line; otherwise it
        // is too long and the rest of it is skipped.
        int c = std::fgetc(fp);
        if (c == '\n' && buf[len - 1] == '\r') {
            buf[len - 1] = '\n';   // a CR LF end split by the room ends like any other
        } else if (c == '\n' || (c == '\r' && (c = std::fgetc(fp)) == '\n')) {
            std::ungetc('\n', fp);
        } else if (c != EOF) {
            while (c != '\n' && c != EOF) c = std::fgetc(fp);
            if (c == '\n') {
                *cut = true;
                buf[len - 1] = '\n';   // keep the line's end so the record stays complete
            }
        }
    }
    return len;
}

void add_arg(char *start, int len) {
    ParmData *d = parmdatap;
    d->parmargv[parmnargs] = start;
    d->parmargl[parmnargs] = len;
    d->parmargn[parmnargs] = kNotNumber;
    ++parmnargs;
    d->parmargv[parmnargs] = nullptr;
}

// Splits the current value into words, numbers, quoted strings and punctuation.
// Every token's text is no longer than its source and the value is at most 1023
// characters, so the 1074-byte area (1024 + one NUL per argument) always suffices.
// Tokens past the 50th are ignored; control characters and bytes from 128 up
// separate tokens like blanks.
void crack() {
    ParmData *d = parmdatap;
    parmnargs = 0;
    d->parmargv[0] = nullptr;
    parmargp = d->parmargs;
    const char *p = parmvalue;
    if (p == nullptr) return;
    while (*p && parmnargs < kMaxArgs) {
        unsigned char c = static_cast<unsigned char>(*p);
        char *start = parmargp;
        if (is_word(c)) {
            while (is_word(static_cast<unsigned char>(*p))) *parmargp++ = *p++;
            *parmargp++ = '\0';
            int idx = parmnargs;
            add_arg(start, static_cast<int>(parmargp - start - 1));
            errno = 0;
            char *end = nullptr;
            long v = std::strtol(start, &end, 0);
            if (end != start && *end == '\0' && errno == 0 && v >= INT32_MIN && v <= INT32_MAX)
                d->parmargn[idx] = static_cast<int32_t>(v);
        } else if (c == '"' || c == '\'') {
            char q = *p++;
            while (*p && *p != q) {
                if (*p != '\\') {
                    *parmargp++ = *p++;
                    continue;
                }
                ++p;
                char e = *p;
                if (e == '\0') break;   // a backslash at the very end is dropped
                ++p;
                switch (e) {
                case 'b': case 'B': *parmargp++ = 8; break;
                case 'e': case 'E': *parmargp++ = 27; break;
                case 'f': case 'F': *parmargp++ = 12; break;
                case 'n': case 'N': *parmargp++ = 10; break;
                case 'r': case 'R': *parmargp++ = 13; break;
                case 'x': case 'X': {
                    int h = hex_value(static_cast<unsigned char>(*p));
                    if (h < 0) {
                        *parmargp++ = e;
                        break;
                    }
                    int v = h;
                    ++p;
                    h = hex_value(static_cast<unsigned char>(*p));
                    if (h >= 0) {
                        v = v * 16 + h;
                        ++p;
                    }
                    *parmargp++ = static_cast<char>(v);
                    break;
                }
                default:
                    if (is_octal(e)) {
                        int v = e - '0';
                        for (int i = 0; i < 2 && is_octal(*p); ++i) v = v * 8 + (*p++ - '0');
                        *parmargp++ = static_cast<char>(v & 0xFF);
                    } else {
                        *parmargp++ = e;
                    }
                    break;
                }
            }
            if (*p == q) ++p;
            *parmargp++ = '\0';
            add_arg(start, static_cast<int>(parmargp - start - 1));
        } else if (c > ' ' && c < 127) {
            while (*p) {
                unsigned char k = static_cast<unsigned char>(*p);
                if (is_word(k) || k == '"' || k == '\'' || k <= ' ' || k >= 127) break;
                *parmargp++ = *p++;
            }
            *parmargp++ = '\0';
            add_arg(start, static_cast<int>(parmargp - start - 1));
        } else {
            ++p;   // blank, tab, control character or high byte: a separator
        }
    }
}

inline void ensure_cracked() {
    if (parmnargs == -1 && parmdatap != nullptr) crack();
}

}  // namespace

ParmState parm_detach() {
    ParmState s{parmfp, parmdatap, parmid, parmvalue, parmnargs, parmargp};
    parmfp = nullptr;
    parmdatap = nullptr;
    parmid = parmvalue = parmargp = nullptr;
    parmnargs = -1;
    return s;
}

void parm_attach(const ParmState &saved) {
    ParmOpen(nullptr);   // whatever the load left open goes first
    parmfp = saved.fp;
    parmdatap = saved.data;
    parmid = saved.id;
    parmvalue = saved.value;
    parmnargs = saved.nargs;
    parmargp = saved.argp;
}

extern "C" {

KISAM_API int ParmOpen(const char *path) {
    if (parmfp != nullptr) {
        std::fclose(parmfp);
        parmfp = nullptr;
    }
    parmid = nullptr;
    parmvalue = nullptr;
    parmnargs = -1;
    if (path == nullptr || *path == '\0') {
        std::free(parmdatap);
        parmdatap = nullptr;
        return 0;
    }
    if (parmdatap == nullptr) {
        parmdatap = static_cast<ParmData *>(std::calloc(1, sizeof(ParmData)));
        if (parmdatap == nullptr) return ENOMEM;
    }
    parmfp = std::fopen(path, "r");
    if (parmfp == nullptr) return errno != 0 ? errno : ENOENT;
    return 0;
}

KISAM_API int ParmRead(void) {
    if (parmfp == nullptr || parmdatap == nullptr) return -2;
    parmid = nullptr;
    parmvalue = nullptr;
    parmnargs = -1;
    char *buf = parmdatap->parmbuf;
    for (;;) {
        bool cut = false;
        int len = read_line(parmfp, buf, sizeof parmdatap->parmbuf, &cut);
        if (len < 0) return std::ferror(parmfp) ? -1 : 0;
        // Continuation: a backslash before the line's last character joins the next
        // physical line in its place, in what is left of the buffer.
        while (!cut && len >= 2 && buf[len - 2] == '\\') {
            len -= 2;
            buf[len] = '\0';
            int more = read_line(parmfp, buf + len, static_cast<int>(sizeof parmdatap->parmbuf) - len, &cut);
            if (more < 0) break;
            len += more;
        }
        unsigned char c0 = static_cast<unsigned char>(buf[0]);
        if (!is_alpha(c0) && c0 != '_') continue;
        char *p = buf;
        while (is_word(static_cast<unsigned char>(*p))) ++p;
        if (*p == '\n') {
            *p = '\0';
            parmid = buf;
            return 1;
        }
        if (*p != ' ' && *p != '\t') continue;
        *p++ = '\0';
        while (*p == ' ' || *p == '\t') ++p;
        parmid = buf;
        if (*p == '\n') {
            *p = '\0';
            return 1;
        }
        // Blanks running into the end of a last line without a newline leave an
        // empty value, not none: only a newline says there is no value.
        parmvalue = p;
        char *nl = std::strchr(p, '\n');
        if (nl != nullptr) *nl = '\0';
        return 1;
    }
}

KISAM_API char *ParmID(void) { return parmid; }
KISAM_API char *ParmValue(void) { return parmvalue; }

KISAM_API int ParmArgc(void) {
    ensure_cracked();
    return parmnargs < 0 ? 0 : parmnargs;
}

KISAM_API char *ParmArgvS(int i) {
    ensure_cracked();
    if (i < 0 || i >= parmnargs) return nullptr;
    return parmdatap->parmargv[i];
}

KISAM_API int ParmArgvSl(int i) {
    ensure_cracked();
    if (i < 0 || i >= parmnargs) return -1;
    return parmdatap->parmargl[i];
}

KISAM_API int32_t ParmArgvN(int i) {
    ensure_cracked();
    if (i < 0 || i >= parmnargs) return kNotNumber;
    return parmdatap->parmargn[i];
}

// ---- configuration entries ----

KISAM_API ZTConfigInfo *ZTCFOpen(const char *path) {
    if (path == nullptr || *path == '\0') return nullptr;
    FILE *fp = std::fopen(path, "r");
    if (fp == nullptr) return nullptr;
    auto cip = static_cast<ZTConfigInfo *>(std::calloc(1, sizeof(ZTConfigInfo)));
    if (cip == nullptr) {
        std::fclose(fp);
        return nullptr;
    }
    cip->ci_fp = fp;
    cip->ci_bits = CI_OPEN;
    return cip;
}

KISAM_API void ZTCFClose(ZTConfigInfo *cip) {
    if (cip == nullptr) return;
    if (cip->ci_fp != nullptr) std::fclose(cip->ci_fp);
    std::free(cip);
}

KISAM_API char *ZTCFGetLine(ZTConfigInfo *cip) {
    if (cip == nullptr || !(cip->ci_bits & CI_OPEN) || (cip->ci_bits & CI_EOF)) return nullptr;
    cip->ci_bits &= static_cast<uint16_t>(~CI_HAVELINE);
    if (cip->ci_bits & CI_PUSHED) {
        cip->ci_bits &= static_cast<uint16_t>(~CI_PUSHED);
        cip->ci_bits |= CI_HAVELINE;
        return cip->ci_buf;
    }
    bool cut = false;
    if (read_line(cip->ci_fp, cip->ci_buf, sizeof cip->ci_buf, &cut) < 0) {
        cip->ci_bits |= CI_EOF;
        return nullptr;
    }
    cip->ci_bits |= CI_HAVELINE;
    return cip->ci_buf;
}

KISAM_API void ZTCFUngetLine(ZTConfigInfo *cip) {
    if (cip == nullptr || !(cip->ci_bits & CI_HAVELINE)) return;
    cip->ci_bits &= static_cast<uint16_t>(~(CI_HAVELINE | CI_EOF));
    cip->ci_bits |= CI_PUSHED;
}

KISAM_API char *ZTCFGetEntry(ZTConfigInfo *cip) {
    if (cip == nullptr || !(cip->ci_bits & CI_OPEN) || (cip->ci_bits & CI_EOF)) return nullptr;
    cip->ci_entry[0] = '\0';
    cip->ci_bits &= static_cast<uint16_t>(~CI_SPLIT);
    std::size_t elen = 0;
    char *line;
    while ((line = ZTCFGetLine(cip)) != nullptr) {
        if (line[0] == '\0') continue;
        char *hash = std::strchr(line, '#');
        if (hash != nullptr) {
            while (hash > line && std::strchr(" \t\r\n", hash[-1]) != nullptr) --hash;
            hash[0] = '\n';
            hash[1] = '\0';
        }
        if (line[0] == '\n') continue;
        if (line[0] != ' ' && line[0] != '\t' && elen > 0) {
            ZTCFUngetLine(cip);
            return cip->ci_entry;
        }
        const char *p = line;
        while (*p == ' ' || *p == '\t' || *p == '\n') ++p;
        // An entry longer than the buffer is cut; its remaining lines are dropped.
        std::size_t room = sizeof cip->ci_entry - 1 - elen;
        std::size_t n = std::strlen(p);
        if (n > room) n = room;
        std::memcpy(cip->ci_entry + elen, p, n);
        elen += n;
        cip->ci_entry[elen] = '\0';
    }
    return elen > 0 ? cip->ci_entry : nullptr;
}

KISAM_API int ZTCFParseEntry(ZTConfigInfo *cip, char **argv, int maxargs, const char *delims) {
    if (cip == nullptr) return -1;
    if (cip->ci_bits & CI_SPLIT) return -1;
    if (cip->ci_entry[0] == '\0') return 0;
    int n = SplitArgs(cip->ci_entry, argv, maxargs, delims);
    cip->ci_bits |= CI_SPLIT;
    return n;
}

KISAM_API int ZTCFGetParsedEntry(ZTConfigInfo *cip, char **argv, int maxargs, const char *delims) {
    if (ZTCFGetEntry(cip) == nullptr) return -1;
    return ZTCFParseEntry(cip, argv, maxargs, delims);
}

}  // extern "C"
