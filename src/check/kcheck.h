// Structural checker of ISAM files.
//
// Reads a file directly from disk with pread -- no engine calls, no shared segment -- and
// reports the first structural violation it finds.  It never asserts and never changes
// the file.  What it sees is the file as last flushed: the engine writes every changed
// page at once and the control page at every release of the control lock, so a file
// that nobody is changing at the moment is complete on disk.
//
// Checked: the control page (magic, key descriptors, end of file); per key the B-tree
// (page kind and key number, item counts against k_order, items rising over k_ncomp
// bytes with the pad byte taken as 0, every item of a subtree strictly between its
// separators, child pointers, all leaves at one depth, no page reached twice); the free
// chain (marks, no cycle, no page both free and in a tree); and an accounting map that
// gives every page 1024 .. is_lastpage - 1 one use.  The data pages are checked by
// check_data (kcheck_data.cpp), which marks them in the map.
#pragma once

#include <kisam/isamdb.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kisam::check {

inline constexpr int kPageSize = KISAM_PAGESIZE;

// The control page of a file, in the new layout whatever the file holds, and the means
// to read its pages.
struct FileImage {
    std::string path;
    int fd = -1;
    uint16_t disk_magic = 0;     // magic as found on disk (old layouts: 0xAB52 / 0xAB53)
    uint16_t magic = 0;          // 0xAB54 or 0xAB55 after conversion of an old layout
    bool compact = false;        // 512-byte control page: page p lies at offset p - 512
    int nkeys = 0;
    PAGE nextfree = 0;
    PAGE lastpage = 0;
    int16_t minrec = 0;
    uint8_t optbits = 0;
    int16_t mincdpi = -1;
    PAGE cdp[16] = {};
    std::vector<IS_KEY> keys;
    long long file_size = 0;

    FileImage() = default;
    FileImage(const FileImage&) = delete;
    FileImage& operator=(const FileImage&) = delete;
    ~FileImage();

    // File offset of page p.
    long long offset(PAGE p) const { return compact ? static_cast<long long>(p) - 512 : p; }
    // True when p names a page of the file: a multiple of 1024, at least 1024, below
    // is_lastpage.
    bool valid_page(PAGE p) const { return p >= 1024 && p % 1024 == 0 && p < lastpage; }
    // Reads page p (1024 bytes).  False, with a message in *error, when p is not a valid
    // page or the file is too short.
    bool read_page(PAGE p, IS_DATA* out, std::string* error) const;
};

// Opens path read-only and reads its control page (either size, either layout).  False,
// with a message in *error, when the file cannot be read or is not an ISAM file.
bool open_image(const std::string& path, FileImage* img, std::string* error);

// What each page of the file is used for, as far as the checks have found out.
enum class PageUse : uint8_t { unknown = 0, tree, free, data };
const char* page_use_name(PageUse u);

struct PageMap {
    PAGE lastpage = 1024;
    std::vector<PageUse> use;      // index p / 1024 - 1 for p in 1024 .. lastpage - 1
    std::vector<int16_t> owner;    // key number of a tree page, -1 otherwise

    void reset(PAGE last);
    PageUse get(PAGE p) const { return use[p / 1024 - 1]; }
    // Gives page p the use u.  False, with the previous use in *prev, when the page is
    // already accounted for.
    bool claim(PAGE p, PageUse u, int key, PageUse* prev);
};

struct KeyStats {
    int depth = 0;     // levels; 0 for an empty tree
    long items = 0;
    long pages = 0;
    long leaves = 0;
};

struct Report {
    bool ok = true;
    std::string error;             // the first violation: what, key, page, item
    std::vector<KeyStats> keys;
    std::vector<PAGE> free_chain;  // pages of the free chain in order of reuse
    long free_pages = 0;
    long data_pages = 0;
    long records = 0;
    long unknown_pages = 0;        // pages nobody accounted for
    // Set by check_data when it has marked every data page in the map: then a page that
    // no check claimed is a violation.
    bool data_accounted = false;
    PageMap map;

    // Records the first violation only; later ones are dropped.  Returns false.
    bool fail(const std::string& what);
};

enum Flags { CHECK_TREES = 1, CHECK_FREE = 2, CHECK_DATA = 4, CHECK_ALL = 7 };

Report check_file(const std::string& path, int flags = CHECK_ALL);

// Items of one key in order (k_itemlen bytes each).  Returns their number, or -1 with a
// message in *error when the file or the tree cannot be read.
int list_items(const std::string& path, int keyno, std::vector<std::string>* items,
               std::string* error);

// Data-page check, run by check_file when CHECK_DATA is set, after the trees and the
// free chain.  It marks the data pages it finds in report.map, counts data_pages and
// records, and records its first violation with report.fail.  Returns report.ok.
bool check_data(const FileImage& img, PageMap& map, Report& report);

// printf-style formatting into a string, for the reports (texts are cut at 511 bytes).
std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kisam::check
