// JSON output of the kisam tool.
//
// Every string the tool writes is a JSON string.  Bytes that form valid UTF-8 stand for
// themselves (the characters JSON requires escaped, and the other control characters,
// as \" \\ \n \r \t or \u00XX); a byte that is not part of valid UTF-8 is written as
// \udcXX, XX its value (U+DC80 .. U+DCFF, a lone low surrogate), the way Python's
// "surrogateescape" error handler reads and writes them.  So any bytes come back
// exactly:  json.loads(line)["record"].encode("utf-8", "surrogateescape").
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kisam_tool {

// `bytes` as a quoted JSON string (with the quotes).
std::string json_str(std::string_view bytes);
// Length of the valid UTF-8 sequence at the start of s, or 0 when s does not start
// with one (a stray continuation byte, an overlong form, a surrogate, a cut sequence).
size_t utf8_seq(std::string_view s);
// Offset of the first byte of s that is not part of valid UTF-8, or npos.
size_t utf8_invalid_at(std::string_view s);

// A JSON object written member by member: {"a":1,"b":"x"}.
class JsonObject {
public:
    JsonObject& str(const char* name, std::string_view bytes) { return raw(name, json_str(bytes)); }
    JsonObject& num(const char* name, long long v) { return raw(name, std::to_string(v)); }
    JsonObject& unum(const char* name, unsigned long long v) { return raw(name, std::to_string(v)); }
    JsonObject& boolean(const char* name, bool v) { return raw(name, v ? "true" : "false"); }
    // A member whose value is JSON text already (an object, an array, null).
    JsonObject& raw(const char* name, const std::string& json) {
        s_ += s_.empty() ? "{" : ",";
        s_ += json_str(name);
        s_ += ':';
        s_ += json;
        return *this;
    }
    std::string done() const { return s_.empty() ? "{}" : s_ + "}"; }

private:
    std::string s_;
};

// A JSON array of values given as JSON text.
class JsonArray {
public:
    JsonArray& add(const std::string& json) {
        s_ += s_.empty() ? "[" : ",";
        s_ += json;
        return *this;
    }
    std::string done() const { return s_.empty() ? "[]" : s_ + "]"; }

private:
    std::string s_;
};

}  // namespace kisam_tool
