// JSON output of the kisam tool.
//
// Every document is valid UTF-8 that any JSON parser reads.  Bytes that form valid UTF-8
// stand for themselves (the characters JSON requires escaped, and the other control
// characters, as \" \\ \n \r \t or \u00XX); a byte that is not part of valid UTF-8
// is written U+FFFD, the replacement character.  Bytes are never lost for that: a string
// member (JsonObject::str) whose bytes are not valid UTF-8 is followed by a member of the
// same name with "_base64" appended that holds them exactly (RFC 4648 base64), e.g.
//   {"record":"ab\ufffd","record_base64":"YWL/"}
// A reader takes NAME_base64 when it is there, else NAME.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kisam_tool {

// `bytes` as a quoted JSON string (with the quotes); see above for bytes not UTF-8.
std::string json_str(std::string_view bytes);
// `bytes` in base64 (RFC 4648, with padding), no quotes.
std::string base64(std::string_view bytes);
// Length of the valid UTF-8 sequence at the start of s, or 0 when s does not start
// with one (a stray continuation byte, an overlong form, a surrogate, a cut sequence).
size_t utf8_seq(std::string_view s);
// Offset of the first byte of s that is not part of valid UTF-8, or npos.
size_t utf8_invalid_at(std::string_view s);

// A JSON object written member by member: {"a":1,"b":"x"}.
class JsonObject {
public:
    // The string, and NAME_base64 when its bytes are not valid UTF-8.
    JsonObject& str(const std::string& name, std::string_view bytes) {
        raw(name, json_str(bytes));
        if (utf8_invalid_at(bytes) != std::string_view::npos) raw(name + "_base64", '"' + base64(bytes) + '"');
        return *this;
    }
    JsonObject& num(const char* name, long long v) { return raw(name, std::to_string(v)); }
    JsonObject& unum(const char* name, unsigned long long v) { return raw(name, std::to_string(v)); }
    JsonObject& boolean(const char* name, bool v) { return raw(name, v ? "true" : "false"); }
    // A member whose value is JSON text already (an object, an array, null).
    JsonObject& raw(const std::string& name, const std::string& json) {
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
