// The oracle of the reliability tests: what a file must hold after calls that were cut
// short (killed, abandoned by a jump, failed, lost to a power cut).
//
//   records  Every record says in its own bytes which id and generation it is, and how
//            long: key 0 is the id in decimal, key 1 starts with the generation in hex,
//            key 2 takes few values (long runs of duplicates), the rest is a pattern of
//            both.  A record read back is verified byte for byte.
//   model    What the file holds per id, moved on by each call that returned.
//   oracle   The calls one worker intended and those that returned: a call cut short
//            must have left its record exactly as before it or exactly as after it.
//   log      An operation log on disk for workers that are killed: a line before each
//            call ("B seq op id gen size"), one after it ("E seq rc errno"), and, for a
//            call that was cut short, how its record was found ("R id gen size");
//            replayed into an oracle by whoever checks the file.
//   scan     The whole file read along every key: each record verified, every key in
//            order, every key holding the same records.
//   checks   The file on disk sound by the structural checker; the shared area's heap and
//            buffer lists whole.
#pragma once

#include <gtest/gtest.h>
#include <kisam/kisam.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace kt::oracle {

// Key lengths of the records record() makes (a length 0: no such key, and no generation
// in the bytes when key 1 has none), and of the files that hold them.
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

// What the file holds for an id: a generation and a size, or nothing (gen -1).
struct Rec {
    int gen = -1;
    int size = 0;
    bool present() const { return gen >= 0; }
    bool operator==(const Rec& o) const { return gen == o.gen && (gen < 0 || size == o.size); }
};
std::ostream& operator<<(std::ostream& os, const Rec& r);

using Model = std::map<int, Rec>;   // ids absent from the map hold nothing

// Record `id` of generation `gen` (kept to the hex digits key 1 has room for), `size`
// bytes (at least L.min()).
std::string record(const Layout& L, int id, int gen, int size);
// Key 0 of id.
std::string key(const Layout& L, int id);
// The id and record of bytes read back; false when record() could not have made them.
bool parse(const Layout& L, const char* p, int n, int* id, Rec* r);

// What an open file holds under id (read by key 0): gen -2 when the bytes read are no
// record of id, -3 when the read fails.
Rec find(int fd, const Layout& L, int id);

// What op leaves for a record that was `before` when it returns: w (write: only where
// there was none), f (forced write), d (delete); any other op is an update (changes a
// record that is there).
Rec after(char op, const Rec& before, int gen, int size);

// ::testing::AssertionSuccess when `got` holds exactly the records of `want`.
::testing::AssertionResult same(const Model& want, const Model& got);

class Oracle {
public:
    // A call is intended ...
    void begin(char op, int id, int gen, int size);
    // ... and returned rc: the model moves on when rc >= 0.
    void end(int rc);
    // ... or was cut short, and its record reads `now`: the record before the call or
    // after it, and nothing else.  The model takes `now`.
    ::testing::AssertionResult cut(const Rec& now);
    bool pending() const { return pending_; }
    int pending_id() const { return id_; }
    Rec get(int id) const;
    const Model& model() const { return model_; }
    // The model with the pending call done.
    Model with_pending() const;
    long calls = 0, cut_short = 0;

private:
    Model model_;
    bool pending_ = false;
    char op_ = 0;
    int id_ = 0, gen_ = 0, size_ = 0;
};

// A worker's operation log (appended, so that a killed worker's lines stay).
class Log {
public:
    explicit Log(const std::string& path);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    void begin(int seq, char op, int id, int gen, int size);
    void end(int seq, int rc, int err);
    void resolved(int id, const Rec& now);
    // A worker killed while it wrote a line may leave part of it: the part goes, as if
    // the line had not been written (a cut "E" line reads as a call cut short, which it
    // was as far as the log knows).
    static void heal(const std::string& path);
    // The id of the call the log ends inside of (its last line a "B"), or -1.
    static int open_call(const std::string& path);

private:
    void line(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    int fd_;
};

// Feeds the lines of the log at path from *offset on into o (*offset moves to the end);
// fails on a malformed log or a resolution that is neither before nor after its call.
::testing::AssertionResult replay(const std::string& path, long* offset, Oracle& o);

// The records of an open file read along its first `keys` keys from the start.  why is
// empty when every record read back is one record() makes, each key is in order and
// every key gives the records of key 0; read_failed when a read returned an error.
struct Scan {
    Model recs;
    std::string why;
    bool read_failed = false;
    bool ok() const { return why.empty(); }
};
Scan scan(int fd, const Layout& L, int keys = 0);   // 0: every key of L

// The file as the next process finds it: opened by this process (attached to nothing:
// with nobody attached, recovery runs first), scanned along every key, closed (the last
// close writes it back) and detached; then sound by the checker.
::testing::AssertionResult holds(const std::string& file, const Layout& L, const Model& want, int mode = ISO_RDONLY);

// The shared area as dead processes left it, with this process attached: the heap's
// free list in order without overlaps, every buffer on exactly one list (a list a killed
// mover left broken is repaired first, as the next taker of the lock would).
::testing::AssertionResult shared_sound();

}  // namespace kt::oracle
