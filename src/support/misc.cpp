// String and buffer helpers: splitting, allocation, blanks and fills, case, number
// buffers, byte moves, bit sets, path tests, hashes and the checksum.
#include "zt_internal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Default field separators of the splitter; the blank is deliberately not one.
const char def_delimstr[] = ":\t\r\n";

// Heap statistics of ZTAlloc: unlocked; a race only skews the reported figure.
char *alloc_startbrk = nullptr;
bool alloc_brk_known = false;
int alloc_count = 0;

inline bool is_delim(const char *delims, char c) { return c != '\0' && std::strchr(delims, c) != nullptr; }
inline bool is_quote(char c) { return c == '"' || c == '\''; }

uint32_t file_time(const char *dir, const char *name, bool ctime) {
    if (name == nullptr || *name == '\0') return 0;
    char path[ZT_PATHMAX];
    bool fits = (dir == nullptr || name[0] == '/') ? kisam::zt_fits(path, sizeof path, "%s", name)
                                                   : kisam::zt_fits(path, sizeof path, "%s/%s", dir, name);
    if (!fits) return 0;
    ZTFileNameFix(path);
    struct stat st;
    if (::stat(path, &st) != 0) return 0;
    return static_cast<uint32_t>(ctime ? st.st_ctime : st.st_mtime);
}

}  // namespace

namespace kisam {

int zt_fmt(char *buf, std::size_t size, const char *fmt, ...) {
    if (size == 0) return 0;
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    return n < static_cast<int>(size) ? n : static_cast<int>(size) - 1;
}

// Like zt_fmt, but reports whether the whole text fitted.
bool zt_fits(char *buf, std::size_t size, const char *fmt, ...) {
    if (size == 0) return false;
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) {
        buf[0] = '\0';
        return false;
    }
    return n < static_cast<int>(size);
}

void zt_shell_quote(std::string &out, const char *text) {
    out += '\'';
    for (const char *p = text; *p; ++p) {
        if (*p == '\'')
            out += "'\\''";
        else
            out += *p;
    }
    out += '\'';
}

}  // namespace kisam

namespace {

// Most significant byte first, n bytes.
void put_be(void *buf, uint64_t u, int n) {
    auto b = static_cast<unsigned char *>(buf);
    for (int i = n - 1; i >= 0; --i, u >>= 8) b[i] = static_cast<unsigned char>(u & 0xFF);
}

uint64_t get_be(const void *buf, int n) {
    auto b = static_cast<const unsigned char *>(buf);
    uint64_t u = 0;
    for (int i = 0; i < n; ++i) u = (u << 8) | b[i];
    return u;
}

}  // namespace

extern "C" {

KISAM_API uint32_t *zt_uimaxumemp = nullptr;

// ---- splitting ----

KISAM_API int ZTSplitArgs(char *line, char **argv, int maxargs, const char *delims, int flags) {
    if (argv == nullptr || maxargs < 1) return 0;
    argv[0] = nullptr;
    if (maxargs < 2 || line == nullptr || *line == '\0') return 0;
    if (delims == nullptr) delims = def_delimstr;
    const bool noquote = (flags & 1) != 0;
    const bool every = (flags & 2) != 0;
    const bool keepquote = (flags & 4) != 0;

    char *p = line;
    int n = 0;
    if (!every)
        while (is_delim(delims, *p)) ++p;
    while (*p != '\0' && n < maxargs - 1) {
        if (every && is_delim(delims, *p)) {
            argv[n++] = p;
            *p++ = '\0';
            continue;
        }
        if (!noquote && !keepquote && is_quote(*p)) {
            char q = *p++;
            argv[n++] = p;
            char *e = std::strchr(p, q);
            if (e == nullptr) {          // unclosed: the field runs to the end
                p += std::strlen(p);
                break;
            }
            *e = '\0';
            p = e + 1;
            if (is_delim(delims, *p)) ++p;
        } else {
            argv[n++] = p;
            char q = 0;                  // the quote that opened a protected stretch
            for (; *p != '\0'; ++p) {
                if (q != 0) {
                    if (*p == q)
                        q = 0;
                    else if (is_quote(*p))
                        q = *p;
                    continue;
                }
                if (!noquote && is_quote(*p)) {
                    q = *p;
                    continue;
                }
                if (is_delim(delims, *p)) break;
            }
            if (*p == '\0') break;
            *p++ = '\0';
        }
        if (!every) {
            while (is_delim(delims, *p)) ++p;
            if (*p == '\0') break;
        }
    }
    argv[n] = nullptr;
    return n;
}

KISAM_API int SplitArgs(char *line, char **argv, int maxargs, const char *delims) {
    return ZTSplitArgs(line, argv, maxargs, delims, 0);
}

KISAM_API int SplitArgsNoQuote(char *line, char **argv, int maxargs, const char *delims) {
    return ZTSplitArgs(line, argv, maxargs, delims, 1);
}

// ---- allocation ----

KISAM_API void *ZTAlloc(uint32_t n) {
    if (!alloc_brk_known) {
        alloc_startbrk = static_cast<char *>(::sbrk(0));
        alloc_brk_known = true;
    }
    if (n == 0) return nullptr;
    std::size_t size = static_cast<std::size_t>(n) + (n & 1u);
    void *p = std::calloc(1, size);
    if (p == nullptr) {
        ZTVError("ZTAlloc()/calloc() error, nelem: %d size: %d", 1, static_cast<int>(size));
        std::abort();   // callers rely on a non-null result; there is no way to go on
    }
    if (++alloc_count >= 100) {
        if (zt_uimaxumemp != nullptr)
            *zt_uimaxumemp = static_cast<uint32_t>(static_cast<char *>(::sbrk(0)) - alloc_startbrk);
        alloc_count = 0;
    }
    return p;
}

KISAM_API void ZTFree(void *p) { std::free(p); }

KISAM_API char *ZTStrAlloc(const char *s) {
    if (s == nullptr || *s == '\0') return nullptr;
    std::size_t len = std::strlen(s);
    if (len >= 0xFFFFFFFEu) return nullptr;
    char *d = static_cast<char *>(ZTAlloc(static_cast<uint32_t>(len + 1)));
    std::memcpy(d, s, len + 1);
    return d;
}

KISAM_API void ZTAllocDbgStart(void) {}
KISAM_API void ZTAllocDbgEnd(void) {}

// ---- blanks, fills, case ----

KISAM_API void StripBl(char *s) {
    if (s == nullptr) return;
    std::size_t n = std::strlen(s);
    while (n > 0 && s[n - 1] == ' ') --n;
    s[n] = '\0';
}

KISAM_API void LStripBl(char *s) {
    if (s == nullptr) return;
    std::size_t i = 0;
    while (s[i] == ' ') ++i;
    if (i > 0) std::memmove(s, s + i, std::strlen(s + i) + 1);
}

KISAM_API void RightFill(char *s, int ch, int n) {
    if (s == nullptr || n < 1) return;
    int len = static_cast<int>(std::strlen(s));
    if (len >= n) return;
    std::memset(s + len, ch, static_cast<std::size_t>(n - len));
    s[n] = '\0';
}

KISAM_API void BlFill(char *s, int n) { RightFill(s, ' ', n); }

KISAM_API void chlfillmem(char *s, int maxlen, int ch) {
    if (s == nullptr || maxlen < 0) return;
    int len = static_cast<int>(std::strlen(s));
    if (len < maxlen) {
        std::memmove(s + (maxlen - len), s, static_cast<std::size_t>(len));
        std::memset(s, ch, static_cast<std::size_t>(maxlen - len));
    }
    s[maxlen] = '\0';
}

KISAM_API void uctolc(char *dst, const char *src) {
    if (dst == nullptr || src == nullptr) return;
    for (; *src; ++src, ++dst) *dst = (*src >= 'A' && *src <= 'Z') ? static_cast<char>(*src + 32) : *src;
    *dst = '\0';
}

KISAM_API void lctouc(char *dst, const char *src) {
    if (dst == nullptr || src == nullptr) return;
    for (; *src; ++src, ++dst) *dst = (*src >= 'a' && *src <= 'z') ? static_cast<char>(*src - 32) : *src;
    *dst = '\0';
}

KISAM_API int ZTStringReplaceChar(char *s, int from, int to) {
    if (s == nullptr) return -1;
    int n = 0;
    for (; *s; ++s)
        if (*s == static_cast<char>(from)) {
            *s = static_cast<char>(to);
            ++n;
        }
    return n;
}

KISAM_API void chconv(char *s, int from, int to) { ZTStringReplaceChar(s, from, to); }

KISAM_API int ZTStringStripChars(const char *fromvalp, const char *stripcharp, char *tobufp, int buflen) {
    if (fromvalp == nullptr) return -1;
    if (tobufp == nullptr || buflen < 1) return 0;
    int n = 0;
    for (const char *p = fromvalp; *p && n < buflen - 1; ++p) {
        if (stripcharp != nullptr && std::strchr(stripcharp, *p) != nullptr) continue;
        tobufp[n++] = *p;
    }
    tobufp[n] = '\0';
    return n;
}

KISAM_API char *ZTStrNCopy(char *dst, const char *src, int n) {
    if (dst == nullptr || n < 1) return dst;
    int i = 0;
    if (src != nullptr)
        for (; i < n - 1 && src[i]; ++i) dst[i] = src[i];
    dst[i] = '\0';
    return dst;
}

KISAM_API int ZTIndex(const char *s, int ch) {
    if (s == nullptr) return -1;
    for (int i = 0; s[i]; ++i)
        if (s[i] == static_cast<char>(ch)) return i;
    return -1;
}

// ---- comparisons ----

KISAM_API int equsub(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return 0;
    std::size_t la = std::strlen(a);
    return std::strlen(b) >= la && std::memcmp(a, b, la) == 0;
}

KISAM_API int ICEqusub(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return 0;
    for (; *a; ++a, ++b) {
        if (*b == '\0') return 0;
        if (std::toupper(static_cast<unsigned char>(*a)) != std::toupper(static_cast<unsigned char>(*b))) return 0;
    }
    return 1;
}

KISAM_API int issubstr(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return 0;
    for (; *a; ++a, ++b)
        if (*a != *b) return 0;
    return 1;
}

KISAM_API int icissubstr(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return 0;
    auto low = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; };
    for (; *a; ++a, ++b)
        if (*b == '\0' || low(*a) != low(*b)) return 0;
    return 1;
}

KISAM_API int cmpbuf(const void *p, const void *q, int n) {
    if (p == nullptr || q == nullptr) return 0;
    auto a = static_cast<const unsigned char *>(p);
    auto b = static_cast<const unsigned char *>(q);
    for (int i = 0; i < n; ++i)
        if (a[i] != b[i]) return a[i] - b[i];
    return 0;
}

// ---- numbers: most significant byte first whatever the processor ----

KISAM_API void ToWBuf(void *buf, int v) {
    auto b = static_cast<unsigned char *>(buf);
    b[0] = static_cast<unsigned char>((v >> 8) & 0xFF);
    b[1] = static_cast<unsigned char>(v & 0xFF);
}

KISAM_API int16_t FromWBuf(const void *buf) {
    auto b = static_cast<const unsigned char *>(buf);
    return static_cast<int16_t>(static_cast<uint16_t>((b[0] << 8) | b[1]));
}

KISAM_API void ToLBuf(void *buf, int32_t v) { put_be(buf, static_cast<uint32_t>(v), 4); }

KISAM_API int32_t FromLBuf(const void *buf) { return static_cast<int32_t>(get_be(buf, 4)); }

KISAM_API void ToL64Buf(void *buf, int64_t v) { put_be(buf, static_cast<uint64_t>(v), 8); }

KISAM_API int64_t FromL64Buf(const void *buf) { return static_cast<int64_t>(get_be(buf, 8)); }

KISAM_API char *ZTLtoA(int32_t n, char *s, int w) {
    std::sprintf(s, "%*d", w, static_cast<int>(n));
    return s;
}

KISAM_API char *ZTItoA(int n, char *s, int w) {
    std::sprintf(s, "%*d", w, n);
    return s;
}

KISAM_API char *ZTLongtoA(int64_t n, char *s, int w) {
    std::sprintf(s, "%*ld", w, static_cast<long>(n));
    return s;
}

KISAM_API char *ZTL64toA(int64_t n, char *s, int w) { return ZTLongtoA(n, s, w); }

// ---- bytes ----

// A plain forward copy, byte by byte: with overlapping areas the result is what
// such a copy gives (mvbytes(p, p + 1, n) spreads p[0]); mvovbytes is the safe move.
KISAM_API void mvbytes(const void *from, void *to, int n) {
    if (from == to || n < 1) return;
    auto s = static_cast<const unsigned char *>(from);
    auto d = static_cast<unsigned char *>(to);
    for (int i = 0; i < n; ++i) d[i] = s[i];
}

// Overlap-safe for any length: memmove needs no bounded temporary.
KISAM_API void mvovbytes(const void *from, void *to, int n) {
    if (from == to || n < 1) return;
    std::memmove(to, from, static_cast<std::size_t>(n));
}

KISAM_API void notbytes(void *buf, int n) {
    auto b = static_cast<unsigned char *>(buf);
    for (int i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(~b[i]);
}

KISAM_API void nullmem(void *p, int n) {
    if (n > 0) std::memset(p, 0, static_cast<std::size_t>(n));
}

KISAM_API void chfillmem(void *p, int n, int ch) {
    if (n > 0) std::memset(p, ch, static_cast<std::size_t>(n));
}

KISAM_API void mvf_sstr(const char *from, char *to, int first, int last) {
    if (from == nullptr || to == nullptr) return;
    int len = static_cast<int>(std::strlen(from));
    if (first < 0) {
        std::memmove(to, from, static_cast<std::size_t>(len) + 1);
        return;
    }
    if (first > last || first >= len) {
        to[0] = '\0';
        return;
    }
    int end = last < len - 1 ? last : len - 1;
    int n = end - first + 1;
    std::memmove(to, from + first, static_cast<std::size_t>(n));
    to[n] = '\0';
}

// The result is built in a temporary sized to fit, so texts of any length work.
KISAM_API void mvt_sstr(const char *from, char *to, int first, int last) {
    if (from == nullptr || to == nullptr) return;
    std::size_t flen = std::strlen(from);
    if (first < 0) {
        std::memmove(to, from, flen + 1);
        return;
    }
    if (first > last) return;
    std::size_t tlen = std::strlen(to);
    std::size_t ufirst = static_cast<std::size_t>(first);
    std::size_t tail = static_cast<std::size_t>(last) + 1;
    std::size_t keep_tail = tail < tlen ? tlen - tail : 0;
    std::size_t total = ufirst + flen + keep_tail;
    char *tmp = static_cast<char *>(std::malloc(total + 1));
    if (tmp == nullptr) return;
    std::size_t head = ufirst < tlen ? ufirst : tlen;
    std::memcpy(tmp, to, head);
    std::memset(tmp + head, ' ', ufirst - head);
    std::memcpy(tmp + ufirst, from, flen);
    if (keep_tail) std::memcpy(tmp + ufirst + flen, to + tail, keep_tail);
    tmp[total] = '\0';
    std::memcpy(to, tmp, total + 1);
    std::free(tmp);
}

// ---- bits: bit n is in byte n / 8, least significant bit first ----

KISAM_API void SetLBit(uint32_t *word, int n) {
    if (n < 0) return;
    *word |= 1u << (n % 32);
}

KISAM_API int ZTGetBit(const void *set, int n) {
    if (n < 0) return 0;
    return (static_cast<const unsigned char *>(set)[n / 8] >> (n % 8)) & 1;
}

KISAM_API void ZTSetBit(void *set, int n) {
    if (n < 0) return;
    static_cast<unsigned char *>(set)[n / 8] |= static_cast<unsigned char>(1u << (n % 8));
}

KISAM_API void ZTClearBit(void *set, int n) {
    if (n < 0) return;
    static_cast<unsigned char *>(set)[n / 8] &= static_cast<unsigned char>(~(1u << (n % 8)));
}

KISAM_API int ZTGet128Bit(const void *set, int n) { return (n < 0 || n > 127) ? 0 : ZTGetBit(set, n); }

KISAM_API void ZTSet128Bit(void *set, int n) {
    if (n >= 0 && n <= 127) ZTSetBit(set, n);
}

// ---- paths and files ----

KISAM_API int ZTPathIsAbsolute(const char *p) { return p != nullptr && p[0] == '/'; }

KISAM_API int ZTPathIsURL(const char *p) {
    static const char *const schemes[] = {"http://", "https://", "file://",   "ftp://",
                                          "gopher://", "telnet://", "news://", "wais://"};
    if (p == nullptr) return 0;
    for (const char *s : schemes)
        if (ICEqusub(s, p)) return 1;
    return 0;
}

KISAM_API uint32_t ZTFileGetCTime(const char *dir, const char *name) { return file_time(dir, name, true); }
KISAM_API uint32_t ZTFileGetMTime(const char *dir, const char *name) { return file_time(dir, name, false); }

// ---- hashes, checksum, dump ----

KISAM_API uint32_t ZTStringHash(const char *s) {
    uint32_t h = 0;
    if (s == nullptr) return 0;
    for (; *s; ++s) h = h * 31u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*s)));
    return h;
}

KISAM_API uint32_t ZTICStringHash(const char *s) {
    uint32_t h = 0;
    if (s == nullptr) return 0;
    // Every byte goes through the C library as the signed character it is, also from
    // 0x80 up: glibc's tables cover -128..255 (in the C locale toupper(-3) is 253), so
    // the value follows the library and the locale rather than a rule of our own.
    for (; *s; ++s) {
        int c = std::toupper(static_cast<signed char>(*s));
        h = h * 31u + static_cast<uint32_t>(static_cast<int32_t>(c));
    }
    return h;
}

KISAM_API uint32_t ZTBufHash(const void *p, int n) {
    uint32_t h = 0;
    if (p == nullptr) return 0;
    auto b = static_cast<const unsigned char *>(p);
    for (int i = 0; i < n; ++i) h = h * 31u + b[i];
    return h;
}

KISAM_API uint16_t Fletcher16CSum(const void *p, int n) {
    if (p == nullptr || n < 1) return 0xFFFF;
    auto b = static_cast<const unsigned char *>(p);
    unsigned sum1 = 0, sum2 = 0;
    for (int i = 0; i < n; ++i) {
        sum1 = (sum1 + b[i]) % 255;
        sum2 = (sum2 + sum1) % 255;
    }
    if (sum1 == 0) sum1 = 255;
    if (sum2 == 0) sum2 = 255;
    return static_cast<uint16_t>(sum2 * 256 + sum1);
}

KISAM_API void printhexbytearray(const char *header, const void *p, int n) {
    if (header != nullptr) std::printf("%s\n", header);
    auto b = static_cast<const unsigned char *>(p);
    if (b == nullptr) n = 0;
    for (int i = 0; i < n; ++i) {
        if (i > 0 && i % 20 == 0) std::fputc('\n', stdout);
        std::printf("%02x ", b[i]);
    }
    std::fputc('\n', stdout);
}

KISAM_API void ZT_stripfill(const char *value, const char *format, char *out) {
    if (out == nullptr) return;
    out[0] = '\0';
    if (value == nullptr) return;
    char fill[512];
    int nfill = 0;
    bool quoted = false;
    const char *f = format != nullptr ? format : "";
    while (*f) {
        if (*f == '"') {
            quoted = !quoted;
            ++f;
            continue;
        }
        char c;
        bool literal;
        if (*f == '\\' && f[1] != '\0') {
            c = f[1];
            literal = true;
            f += 2;
        } else {
            c = *f++;
            literal = std::strchr("9*ANXanx", c) == nullptr;
        }
        int count = 1;
        if (*f == '(') {
            const char *q = f + 1;
            long v = 0;
            while (*q >= '0' && *q <= '9') {
                if (v < 100000) v = v * 10 + (*q - '0');
                ++q;
            }
            if (*q == ')' && q > f + 1) {
                count = v < 1 ? 1 : static_cast<int>(v);
                f = q + 1;
            }
        }
        if (literal && !quoted)
            for (int i = 0; i < count && nfill < 511; ++i) fill[nfill++] = c;
    }
    int used = 0;
    char *o = out;
    for (const char *v = value; *v; ++v) {
        if (used < nfill && *v == fill[used]) {
            ++used;
            continue;
        }
        *o++ = *v;
    }
    *o = '\0';
}

}  // extern "C"
