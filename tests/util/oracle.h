// The oracle of the reliability tests: what a file must hold after calls cut short
// (killed, abandoned, failed, lost to a power cut).  Records carry their id, generation
// and size in their own bytes (key 0 the id, key 1 the generation in hex, key 2 few
// values), so each one read back is verified whole; a call cut short must leave its
// record exactly as before or exactly as after it.  Killed workers keep an operation
// log: "B seq op id gen size" before a call, "E seq rc errno" after, "R id gen size" for
// how a cut call's record was found.
#pragma once

#include <gtest/gtest.h>
#include <kisam/kisam.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace kt::oracle {

// Key lengths of record() and its files (0: no such key; no generation without key 1).
struct Layout {
    int l0, l1, l2;
    int min() const { return l0 + l1 + l2; }
    std::vector<int> lens() const {   // of the keys there are
        std::vector<int> v{l0};
        if (l1) v.push_back(l1);
        if (l1 && l2) v.push_back(l2);
        return v;
    }
    int keys() const { return static_cast<int>(lens().size()); }
};

// gen -1: nothing under the id.
struct Rec {
    int gen = -1;
    int size = 0;
    bool present() const { return gen >= 0; }
    bool operator==(const Rec& o) const { return gen == o.gen && (gen < 0 || size == o.size); }
};
std::ostream& operator<<(std::ostream& os, const Rec& r);

using Model = std::map<int, Rec>;   // ids absent from the map hold nothing

// size >= L.min(); gen is kept to the hex digits key 1 has room for.
std::string record(const Layout& L, int id, int gen, int size);
std::string key(const Layout& L, int id);
// False when record() could not have made these bytes.
bool parse(const Layout& L, const char* p, int n, int* id, Rec* r);

// What an open file holds under id: gen -2 for bytes that are no record of id, -3 a failed read.
Rec find(int fd, const Layout& L, int id);

// What op leaves where `before` was: w write (only into nothing), f forced write, d
// delete, anything else an update (only of a record there).
Rec after(char op, const Rec& before, int gen, int size);

::testing::AssertionResult same(const Model& want, const Model& got);

class Oracle {
public:
    void begin(char op, int id, int gen, int size);
    void end(int rc);   // the model moves on when rc >= 0
    // The call was cut short and its record reads `now`: before or after, nothing else.
    ::testing::AssertionResult cut(const Rec& now);
    bool pending() const { return pending_; }
    int pending_id() const { return id_; }
    Rec get(int id) const;
    const Model& model() const { return model_; }
    Model with_pending() const;
    long calls = 0, cut_short = 0;

private:
    Model model_;
    bool pending_ = false;
    char op_ = 0;
    int id_ = 0, gen_ = 0, size_ = 0;
};

class Log {
public:
    explicit Log(const std::string& path);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    void begin(int seq, char op, int id, int gen, int size);
    void end(int seq, int rc, int err);
    void resolved(int id, const Rec& now);
    // Drops a line a killed worker left half written.
    static void heal(const std::string& path);
    // The id of the call the log ends inside of, or -1.
    static int open_call(const std::string& path);

private:
    void line(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    int fd_;
};

// Feeds the log from *offset on into o; fails on a malformed log or a bad resolution.
::testing::AssertionResult replay(const std::string& path, long* offset, Oracle& o);

// An open file read along its first `keys` keys: why is empty when every record is one
// record() makes, each key is in order and gives the records of key 0.
struct Scan {
    Model recs;
    std::string why;
    bool read_failed = false;
    bool ok() const { return why.empty(); }
};
Scan scan(int fd, const Layout& L, int keys = 0);   // 0: every key of L

// The file as the next process finds it (attached to nothing, so recovery runs): it
// scans to `want` along every key, and is sound by the checker once closed and detached.
::testing::AssertionResult holds(const std::string& file, const Layout& L, const Model& want, int mode = ISO_RDONLY);

// With this process attached: the heap's free list ordered without overlaps, every
// buffer on exactly one list (a list a killed mover broke is repaired first, as the next
// taker of the lock would).
::testing::AssertionResult shared_sound();

}  // namespace kt::oracle
