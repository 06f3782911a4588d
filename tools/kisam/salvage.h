// Salvage: the records of a damaged or truncated ISAM file, read from its data pages
// without the engine, the shared segment or any lock.
//
// Pages are told apart by their own format -- shared data pages (page word 0x8000 plus
// the first free chunk), overflow pages (0x8001 with their place in the chain and a
// link), B-tree pages of key 0, free pages -- never by following an index.  Records are
// rebuilt from the segments that nothing else points to (the heads), through their
// continued segments and overflow chains; a record is given back only when every piece
// of it is present and the pieces agree.  The key-0 tree is used where it can be read:
// it gives key-in-index files their key values, and a plain file's head that the tree
// would hold if it were live but does not (a released or orphaned piece) is left out.
//
// Every byte read is untrusted: offsets, lengths, links and chains are checked before
// use, and the work is bounded by the file's size.  The caller owns the descriptor.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kisam_tool {

struct SalvageOptions {
    // Key lengths to use when the control page cannot be read (or to override it);
    // empty: take them from the control page.
    std::vector<int> keylens;
    bool key_in_index = false;   // with keylens: key 0 lives in the index only
};

// One record that was found in part and left out, or a fact about the file.
struct SalvageSkip {
    uint32_t page;        // page where the piece lies (0: the file as a whole)
    std::string reason;
};

struct SalvageReport {
    std::string control_error;        // empty when the control page was read
    std::string free_list_error;      // empty when the free page list was walked whole
    bool truncated = false;           // the file is shorter than its control page says
    bool index_whole = false;         // the key-0 tree was read whole
    bool keys_given = false;          // key lengths came from the options
    std::vector<int> keylens;
    bool key_in_index = false;
    long pages_read = 0;              // pages read from the file
    long data_pages = 0;              // shared data pages
    long overflow_pages = 0;
    long index_pages = 0;             // key-0 tree pages
    long free_pages = 0;              // on the free page list or marked free
    long other_pages = 0;             // other keys' tree pages and unrecognised pages
    long damaged_pages = 0;           // data-page word but an impossible free list
    long beyond_last = 0;             // whole pages past is_lastpage, not read
    bool partial_page = false;        // the file ends inside a page
    long records = 0;                 // records given back whole
    long unconfirmed = 0;             // of them: found in the pages, out of the tree's reach
    std::vector<SalvageSkip> skipped; // records left out, with where and why
};

// Reads the file open on fd.  On success fills *records with the records (whole
// images, key 0 first) in key 0 order and returns true; *report says what was seen and
// what was left out.  Returns false, with a message in *error, when nothing can be
// done: the key lengths are unknown (the control page cannot be read and none were
// given), or the file cannot be read at all.
bool salvage_file(int fd, const SalvageOptions& opt, std::vector<std::string>* records, SalvageReport* report,
                  std::string* error);

// kisam dump --salvage FILE [OUTPUT]: the words after "dump", already parsed.
int salvage_dump(const std::string& file, const std::string& output, const SalvageOptions& opt);

}  // namespace kisam_tool
