// An ISAM file opened through the engine for the record commands (cmd_records.cpp,
// cmd_dump.cpp), with its key lengths: a record image begins with the key values in key
// order, so the value of key i sits at the sum of the lengths of keys 0 .. i-1.
#pragma once

#include "tool.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kisam_tool {

inline constexpr int kRecBuf = KISAM_MAXREC + 1;

// An open file with its key lengths.
struct OpenFile {
    Session& s;
    int fd = -1;
    std::vector<int> keylens;
    int minrec = 0;
    OpenFile(Session& sess) : s(sess) {}
    ~OpenFile() { s.close(fd); }
    bool open(const std::string& file, int access) {
        fd = s.open(file, access);
        if (fd < 0) return false;
        int lens[KISAM_MAXKEYS];
        int n = nisstat(fd, KISAM_MAXKEYS, lens);
        if (n < 0) {
            lib_error(s.cmd(), file);
            return false;
        }
        if (n < 1) {
            fail(s.cmd(), file + ": the file has no keys, so it holds no records");
            return false;
        }
        keylens.assign(lens, lens + std::min(n, KISAM_MAXKEYS));
        minrec = 0;
        for (int l : keylens) minrec += l;
        return true;
    }
    int key_offset(int k) const {
        int off = 0;
        for (int i = 0; i < k; ++i) off += keylens[size_t(i)];
        return off;
    }
};

// The access of a reading command: read-only, and past the data-changed mark with
// --ignore-mark.
inline int read_access(const Args& a) { return ISO_RDONLY | (a.has("ignore-mark") ? ISF_NOVERIFY : 0); }

}  // namespace kisam_tool
