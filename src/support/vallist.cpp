// Settings lists: case-insensitive key/value chains that keep insertion order, and
// the escape conversion applied to quoted values.
#include "zt_internal.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Every record with an empty value points here; it is never freed or written.
char vl_empty[1] = "";

// ty of the record found by the last getvlp, -1 when it found nothing.
int got_ty = -1;

inline char *vl_key(ValList *v) { return reinterpret_cast<char *>(v) + offsetof(ValList, key); }

void vl_free(ValList *v) {
    if ((v->ty & 1) != 0) ZTFree(v->valp);
    std::free(v);
}

// Converts backslash and caret escapes from src into dst (dst may equal src: the
// output never runs ahead of the input).  Returns the length; counts the warnings.
int conv_line(char *dst, const char *src, int *warnings) {
    if (dst == nullptr) return 0;
    int n = 0;
    if (src == nullptr) {
        dst[0] = '\0';
        return 0;
    }
    const char *s = src;
    while (*s) {
        char c = *s++;
        if (c == '\\') {
            if (*s == '\0') {
                ZTVDebug("Warning: Unescaped '\\' in conv_line()");
                ++*warnings;
                dst[n++] = c;
                break;
            }
            char e = *s++;
            switch (e) {
            case 'a': case 'A': c = 7; break;
            case 'b': case 'B': c = 8; break;
            case 'e': case 'E': c = 27; break;
            case 'f': case 'F': c = 12; break;
            case 'n': case 'N': c = 10; break;
            case 'r': case 'R': c = 13; break;
            case 't': case 'T': c = 9; break;
            case 'v': case 'V': c = 11; break;
            default: c = e; break;
            }
            dst[n++] = c;
        } else if (c == '^') {
            char e = *s;
            if (e == '\0') {
                ZTVDebug("Warning: Unescaped '^' in conv_line()");
                ++*warnings;
                dst[n++] = c;
            } else if ((e >= 'a' && e <= 'z') || (e >= 64 && e <= 90)) {
                dst[n++] = static_cast<char>(e & 31);
                ++s;
            } else {
                ZTVDebug("Warning: Invalid <ctrl> char ^%c in conv_line()", e);
                ZTVDebug("Try escaping the '^' with a '\\'");
                ++*warnings;
                dst[n++] = c;
            }
        } else {
            dst[n++] = c;
        }
    }
    dst[n] = '\0';
    return n;
}

}  // namespace

extern "C" {

KISAM_API int convline(char *dst, const char *src) {
    int w = 0;
    return conv_line(dst, src, &w);
}

KISAM_API int convlineverify(char *dst, const char *src) {
    int w = 0;
    conv_line(dst, src, &w);
    return w;
}

KISAM_API void nullvl(ValList **headp) {
    if (headp) *headp = nullptr;
}

KISAM_API void emptyvl(ValList **headp) {
    if (headp == nullptr) return;
    ValList *v = *headp;
    while (v != nullptr) {
        ValList *next = v->next;
        vl_free(v);
        v = next;
    }
    *headp = nullptr;
}

KISAM_API int ICStrcmp(const char *a, const char *b) {
    while (*a && *b &&
           (*a == *b || std::toupper(static_cast<unsigned char>(*a)) == std::toupper(static_cast<unsigned char>(*b)))) {
        ++a;
        ++b;
    }
    return std::toupper(static_cast<unsigned char>(*a)) - std::toupper(static_cast<unsigned char>(*b));
}

KISAM_API int addvl(ValList **headp, const char *key, char *value) {
    if (headp == nullptr || key == nullptr) return -1;
    const char *val = value;
    if (value != nullptr && (value[0] == '"' || value[0] == '\'')) {
        std::size_t len = std::strlen(value);
        if (len >= 2 && value[len - 1] == value[0]) {
            value[len - 1] = '\0';
            convline(value + 1, value + 1);
            val = value + 1;
        }
    }
    std::size_t klen = std::strlen(key);
    std::size_t vlen = val != nullptr ? std::strlen(val) : 0;
    std::size_t size = offsetof(ValList, key) + klen + 1 + (vlen ? vlen + 1 : 0);
    if (size < sizeof(ValList)) size = sizeof(ValList);
    ValList *rec = static_cast<ValList *>(std::malloc(size));
    if (rec == nullptr) return -1;
    rec->next = nullptr;
    rec->ty = 0;
    char *k = vl_key(rec);
    std::memcpy(k, key, klen + 1);
    if (vlen) {
        rec->valp = k + klen + 1;
        std::memcpy(rec->valp, val, vlen + 1);
    } else {
        rec->valp = vl_empty;
    }

    ValList **linkp = headp;
    for (ValList *v = *headp; v != nullptr; linkp = &v->next, v = v->next) {
        if (ICStrcmp(vl_key(v), key) == 0) {
            rec->next = v->next;
            *linkp = rec;
            vl_free(v);
            return 0;
        }
    }
    *linkp = rec;
    return 0;
}

KISAM_API int repvl(ValList **headp, const char *key, char *value, int type) {
    if (headp == nullptr || *headp == nullptr || key == nullptr) return -1;
    for (ValList *v = *headp; v != nullptr; v = v->next) {
        if (ICStrcmp(vl_key(v), key) == 0) {
            if ((v->ty & 1) != 0 && v->valp != value) ZTFree(v->valp);
            v->valp = value;
            v->ty = static_cast<signed char>(type | 1);
            return 0;
        }
    }
    return -1;
}

KISAM_API char *getvlp(ValList *head, const char *key) {
    got_ty = -1;
    if (key == nullptr) return nullptr;
    for (ValList *v = head; v != nullptr; v = v->next) {
        if (ICStrcmp(vl_key(v), key) == 0) {
            got_ty = v->ty;
            return v->valp;
        }
    }
    return nullptr;
}

KISAM_API int getvlty(void) { return got_ty; }

KISAM_API void printvlp(ValList *head) {
    for (ValList *v = head; v != nullptr; v = v->next) {
        const char *val = v->valp ? v->valp : "";
        VMsg("vlp: kp %s, valp 0x%.8X, len(*valp) %d, *valp %s\n", vl_key(v),
             static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(v->valp)), static_cast<int>(std::strlen(val)), val);
    }
}

}  // extern "C"
