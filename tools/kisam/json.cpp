// JSON strings of arbitrary bytes; see json.h for bytes that are not UTF-8.
#include "json.h"

namespace kisam_tool {

size_t utf8_seq(std::string_view s) {
    if (s.empty()) return 0;
    const auto b = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned c = b(0);
    if (c < 0x80) return 1;
    size_t n;
    unsigned lo = 0x80, hi = 0xBF;   // the range of the second byte
    if (c >= 0xC2 && c <= 0xDF) n = 2;
    else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0) lo = 0xA0;         // no overlong forms
        if (c == 0xED) hi = 0x9F;         // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;         // nothing above U+10FFFF
    } else
        return 0;
    if (s.size() < n || b(1) < lo || b(1) > hi) return 0;
    for (size_t i = 2; i < n; ++i)
        if (b(i) < 0x80 || b(i) > 0xBF) return 0;
    return n;
}

size_t utf8_invalid_at(std::string_view s) {
    for (size_t i = 0; i < s.size();) {
        size_t n = utf8_seq(s.substr(i));
        if (n == 0) return i;
        i += n;
    }
    return std::string_view::npos;
}

std::string json_str(std::string_view bytes) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() + 2);
    out += '"';
    for (size_t i = 0; i < bytes.size();) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        size_t n = utf8_seq(bytes.substr(i));
        if (n == 0) {
            out += "\xef\xbf\xbd";   // U+FFFD; the bytes themselves go in NAME_base64
            ++i;
            continue;
        }
        if (n > 1) {
            out.append(bytes.data() + i, n);
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
        i += n;
    }
    out += '"';
    return out;
}

std::string base64(std::string_view bytes) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    const auto b = [&](size_t i) { return i < bytes.size() ? unsigned(static_cast<unsigned char>(bytes[i])) : 0u; };
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const unsigned v = b(i) << 16 | b(i + 1) << 8 | b(i + 2);
        out += digits[v >> 18 & 63];
        out += digits[v >> 12 & 63];
        out += i + 1 < bytes.size() ? digits[v >> 6 & 63] : '=';
        out += i + 2 < bytes.size() ? digits[v & 63] : '=';
    }
    return out;
}

}  // namespace kisam_tool
