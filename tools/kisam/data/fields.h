// Field layouts of records for kisam import and export: name:width pairs, the key
// fields first, e.g. "id:8,name:20,city:12,rest:*".  A record is its fixed-width fields
// one after the other, each padded with blanks to its width, then the bytes of the
// "*" field (the last one, of any length) as they are.
#pragma once

#include <string>
#include <vector>

namespace kisam_tool {

struct Field {
    std::string name;
    int width;   // bytes; -1 for the "*" field
};

struct Layout {
    std::vector<Field> fields;
    int fixed = 0;          // bytes of the fixed-width fields together
    bool has_rest = false;  // the last field is "*"
};

// Parses `text` against a file with keys of the lengths `keylens`.  False with a message
// in err when a pair is malformed, a name repeats, "*" is not last, the first fields are
// not the keys (one field per key, in key order, each exactly as wide as its key: the
// message names the field and the key), or the fixed fields exceed the longest record.
bool parse_layout(const std::string& text, const std::vector<int>& keylens, Layout& out, std::string& err);
// The layout used without --fields: one field per key (key0:L0,key1:L1,...) and rest:*.
Layout default_layout(const std::vector<int>& keylens);

}  // namespace kisam_tool
