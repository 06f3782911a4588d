// The kisam command-line tool: shared declarations of its subcommands.
//
// Every subcommand is a function taking its own arguments (the subcommand name and the
// global options already removed) and returning the process exit status:
//   0 success, 1 the operation failed / damage found / nothing found, 2 usage error,
//   3 a file could not be read (check: an I/O error, not damage), 4 a rollback left by an
//   interrupted call is pending and could not be applied (check, info, dump: not damage),
//   130 interrupted.
// Subcommands that need the engine attach through a Session, which detaches on every
// path so that the last user of an installation removes the shared segment.
#pragma once

#include <kisam/kisam.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kisam_tool {

enum Exit : int { EXIT_OK = 0, EXIT_FAIL = 1, EXIT_USAGE = 2, EXIT_IO = 3, EXIT_PENDING = 4, EXIT_INTERRUPTED = 130 };

// ---- options ---------------------------------------------------------------------

// Global settings taken from the command line before the subcommand runs.
struct Globals {
    std::string config;   // --config PATH, empty when the normal search applies
    bool quiet = false;   // --quiet: no progress display
    bool utf8 = false;    // the user's locale is UTF-8: show() leaves valid characters as they are
};
extern Globals g;

// A small option parser: positional words and --name / --name VALUE / --name=VALUE.
class Args {
public:
    Args(std::string cmd, std::vector<std::string> words) : cmd_(std::move(cmd)), w_(std::move(words)) {}
    // Declares a flag (no value) or an option with a value; call before parse().
    void flag(const char* name) { flags_.push_back(name); }
    void option(const char* name) { opts_.push_back(name); }
    // Splits the words; false (after a message) on an unknown option or missing value.
    bool parse();
    bool has(const char* name) const;
    std::optional<std::string> get(const char* name) const;
    // Integer option within [lo, hi]; false (after a message) when malformed.
    bool get_int(const char* name, long lo, long hi, long& out) const;
    const std::vector<std::string>& pos() const { return pos_; }
    const std::string& cmd() const { return cmd_; }

private:
    std::string cmd_;
    std::vector<std::string> w_;
    std::vector<std::string> flags_, opts_;
    std::vector<std::pair<std::string, std::string>> seen_;
    std::vector<std::string> pos_;
};

// Prints "kisam CMD: message" and a pointer to the help text; returns EXIT_USAGE.
int usage_error(const std::string& cmd, const std::string& msg);
// Prints "kisam CMD: message"; returns EXIT_FAIL.
int fail(const std::string& cmd, const std::string& msg);
// Prints "kisam CMD: interrupted..." (with `what` appended); returns EXIT_INTERRUPTED.
int interrupted(const std::string& cmd, const std::string& what = "");
bool parse_long(const std::string& s, long lo, long hi, long& out);
// "L0,L1,..." into key lengths of 1 to 500 bytes; false on anything else.
bool parse_key_lengths(const std::string& text, std::vector<int>& lens);

// ---- text form of records ------------------------------------------------------------

// Printable ASCII other than the backslash stands for itself; a backslash is "\\";
// every other byte is "\xHH".  The result never contains a blank line, a newline or a
// control character, so one record fits on one line whatever its bytes.
std::string escape(std::string_view bytes);
// The text form for people (records printed by get and scan, values in messages): as
// escape(), except that where the locale is UTF-8 (g.utf8) a valid UTF-8 character that
// is not a control character stands for itself.  unescape() reads it back all the same.
// The dump form is escape() whatever the locale: it is a file format.
std::string show(std::string_view bytes);
// Whether the user's locale (LC_ALL, LC_CTYPE, LANG) uses UTF-8.  The process's own
// locale is left as it was ("C"), so that nothing else changes with it.
bool locale_is_utf8();
// Inverse of escape() and show(); also accepts \n \r \t \0 \\ and \xHH with either case of hex.
// nullopt when the text holds a malformed escape.
std::optional<std::string> unescape(std::string_view text);

// Lines of a text input (a file, or standard input for "-"), read with the C library
// so that a read error is told from the end of the input.
class LineReader {
public:
    LineReader() = default;
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;
    // Opens `path` ("-" or empty: standard input); false with errno set when it cannot.
    bool open(const std::string& path);
    // The next line without its newline; false at the end of the input or on an error.
    bool next(std::string& line);
    // errno of the read error that ended the input, 0 when it ended normally.
    int error() const { return err_; }
    // Bytes consumed so far, and the input's size when it is a regular file (else 0).
    uint64_t consumed() const { return consumed_; }
    uint64_t size() const { return size_; }
    uint64_t lineno() const { return lineno_; }
    const std::string& name() const { return name_; }

private:
    FILE* f_ = nullptr;
    bool owned_ = false;
    char* buf_ = nullptr;
    size_t cap_ = 0;
    int err_ = 0;
    uint64_t consumed_ = 0, size_ = 0, lineno_ = 0;
    std::string name_ = "standard input";
};

// ---- the engine ----------------------------------------------------------------------------

// Points the engine at the configuration chosen on the command line (or leaves the
// normal search), then attaches on demand.  The destructor closes every handle and
// detaches, so that a failing subcommand never leaves its process slot behind.
// Says on standard error, once, when attaching made this process replay the logs of a
// crash (the library did it; this only tells the user).
void report_replay();

class Session {
public:
    explicit Session(std::string cmd) : cmd_(std::move(cmd)) {}
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Attaches; on failure prints the reason (unless quiet) and returns false.
    bool attach(bool quiet = false);
    // Prints the reason of the last failed attach().
    void report_attach_failure();
    // Opens FILE (ISO_RDONLY or ISO_RDWR, plus flags); -1 after printing the reason.
    int open(const std::string& file, int access);
    // Creates FILE (niscr_ctl(keyopt, header), then niscreate) and returns its descriptor,
    // or -1 after printing the reason.
    int create(const std::string& file, const std::vector<int>& keylens, int keyopt, int header);
    // Closes isfd (nothing for -1).  nisclose completes whatever writing the file still
    // needs and returns 0 even when that failed; such a failure shows only in the error
    // state, so it is read here: reported, and g_late_failure set.  False then.
    bool close(int isfd);
    const std::string& cmd() const { return cmd_; }

private:
    std::string cmd_;
    bool attached_ = false;
    std::vector<std::pair<int, std::string>> names_;   // open descriptors and their files
};

// Gives back one nisgetctl hold of isfd.  nisrelctl returns 0 whatever writing the file
// did: a failed release (a page, the control page or a sync not written) shows only in
// the error state, which a successful call leaves alone; so the state is cleared before
// the call and read after.  False when the release failed; the library's report is then
// in the error state for lib_error.
bool release_ctl(int isfd);
// Clears the library's error state (is_errno and its stack), so that a call that returns
// success while recording a failure can be told apart.
void clear_lib_error();

// Set when a failure is reported after the command chose its exit status (closing a
// file whose writing failed): main then turns a success into status 1.
extern bool g_late_failure;

// Applies --config: puts KISCONFIG into the environment and the settings store.
void apply_config_choice();
// The configuration file the library would use, found the way it looks for it.
// Empty when none exists; `tried` receives the places looked at.
std::string find_config(std::vector<std::string>* tried = nullptr);
// "ftok" key of the installation whose configuration file is conf (lock file when
// present), or -1.
long installation_key(const std::string& conf);

// Prints the library's report of the last failure ("kisam CMD: WHAT: <message>") and a
// plain-words hint where the failure is a known limit; returns EXIT_FAIL.
int lib_error(const std::string& cmd, const std::string& what, const std::string& file = "");

// ---- files read directly (no engine) -----------------------------------------------------

// The fields of an on-disk control page that the tool shows, decoded.
struct KeyDesc {
    uint32_t root;
    int order, keylen, offset, itemlen, ncomp;
};
struct ControlPage {
    uint16_t magic = 0;
    int nkeys = 0;
    uint32_t nextfree = 0, lastpage = 0;
    uint32_t cdp[16] = {};
    int usecnt = 0, minrec = 0;
    uint8_t optbits = 0;
    int mincdpi = -1;
    std::vector<KeyDesc> keys;
    bool small_header() const { return magic == ISMAGIC_512 || magic == ISMAGIC_OLD512; }
    bool old_layout() const { return magic == ISMAGIC_OLD512 || magic == ISMAGIC_OLD1024; }
};

// Reads and decodes the control page of FILE (either layout).  On failure returns false
// with a message in err ("not an ISAM file: unknown magic 0x1234", ...).
bool read_control_page(int fd, ControlPage& cp, std::string& err);
// File offset of logical page P.
inline uint64_t page_offset(const ControlPage& cp, uint32_t p) { return cp.small_header() ? p - 512u : p; }

// What a compaction of FILE would give back, estimated from its pages: free and never
// used pages whole, the free bytes of the shared data pages, and index pages beyond what
// their items need at half fill.  known false when the file cannot be read.
struct CompactionEstimate {
    bool known = false;
    uint64_t bytes = 0, unused_pages = 0, data_free_bytes = 0, index_pages = 0;
};
CompactionEstimate estimate_compaction(const std::string& file);
// "about N bytes (estimate: ...)" for people.
std::string describe_compaction(const CompactionEstimate& e);

// ---- progress on a terminal ------------------------------------------------------------------

// Erases the progress line, if one is shown, so that the next message starts at the
// margin.  Every message on standard error goes through it (usage_error, fail, lib_error).
void progress_clear();

class Progress {
public:
    // Shows "WHAT: N records" on standard error when it is a terminal, with a percentage
    // when total (in any unit, e.g. input bytes) is known (non-zero).
    Progress(std::string what, uint64_t total, const char* unit = "records");
    ~Progress();
    void update(uint64_t records, uint64_t done = 0) {
        if (on_ && (records % 1024) == 0) show(records, done);
    }

private:
    void show(uint64_t records, uint64_t done);
    std::string what_;
    const char* unit_;
    uint64_t total_;
    bool on_;
};

// An output file (dump, export) written under a temporary name in its directory and
// renamed to its own name only when done, so that a full disk or a failed write never
// leaves a partial file under that name, nor spoils the file that was there.  Standard
// output ("" or "-") and outputs that are not regular files (a device, a pipe, a
// symbolic link) are written in place.
class OutputFile {
public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { abandon(); }
    // False with errno set when the output cannot be opened.
    bool open(const std::string& name);
    FILE* file() const { return f_; }
    // The name for messages: the file's, or "standard output".
    const std::string& name() const { return name_; }
    // Flushes and closes the output and renames it into place: 0, or the errno of the
    // failure (the temporary is then removed).
    int commit();
    // Closes the output and removes the temporary; what was written in place stays.
    void abandon();
    // True when the output goes through a temporary: a failure leaves the name alone.
    bool whole_or_nothing() const { return temp_; }

private:
    FILE* f_ = nullptr;
    std::string name_, tmp_;
    bool temp_ = false;
};

// Writes the dump form to OUTPUT ("" or "-": standard output): the header, a line per
// record, and the closing line that vouches for a complete dump.  The errno of the first
// failed write is the one reported.
class DumpWriter {
public:
    DumpWriter() = default;
    DumpWriter(const DumpWriter&) = delete;
    DumpWriter& operator=(const DumpWriter&) = delete;
    ~DumpWriter();
    // Opens the output and writes the header; false when the output cannot be opened
    // (reported).
    bool open(const std::string& output, const std::vector<int>& keylens, bool key_in_index);
    // False once a write has failed: stop writing then.
    bool record(std::string_view bytes);
    uint64_t count() const { return count_; }
    // Writes the closing line when `complete` and nothing failed, then puts the output in
    // place: a dump stopped early (damage, an interrupt) is kept without its closing line;
    // one whose writing failed is removed.  EXIT_OK, or EXIT_FAIL with "cannot write"
    // reported.  A reader that went away ('| head') is a normal end: EXIT_OK.
    int finish(bool complete);

private:
    bool failed();
    OutputFile file_;
    FILE* out_ = nullptr;
    std::string line_;
    uint64_t count_ = 0;
    int errno_ = 0;
};

// Set by SIGINT/SIGTERM/SIGHUP while a long subcommand runs; it then stops cleanly and
// detaches.
extern volatile int g_interrupted;
// errno of the first failed write of the output, 0 when none.
extern int g_write_errno;
// Catches SIGINT, SIGTERM and SIGHUP (each one that was not ignored when the tool
// started: 'nohup kisam load' goes on after a hangup) and sets g_interrupted.
void catch_interrupts();
// While a call of command cmd waits for a lock that another process holds: says after
// a second whom it waits for, and gives the wait up at an interrupt (the call then fails
// with KISAM_ISE_INTERRUPTED, nothing changed).
void watch_lock_waits(const std::string& cmd);

// ---- subcommands -------------------------------------------------------------------------------

int cmd_config(std::vector<std::string> args);
int cmd_create(std::vector<std::string> args);
int cmd_info(std::vector<std::string> args);
int cmd_check(std::vector<std::string> args);
int cmd_get(std::vector<std::string> args);
int cmd_scan(std::vector<std::string> args);
int cmd_put(std::vector<std::string> args);
int cmd_del(std::vector<std::string> args);
int cmd_dump(std::vector<std::string> args);
int cmd_load(std::vector<std::string> args);
int cmd_stat(std::vector<std::string> args);
int cmd_backup(std::vector<std::string> args);
int cmd_compact(std::vector<std::string> args);

// For the commands that read FILE's bytes themselves (check, info, dump): when a rollback
// left by an interrupted call still waits in the journal for FILE, applies it, saying so
// on standard error, and returns EXIT_OK; when it cannot be applied (the disk still
// refuses it), says that it is pending and will be applied at the next open, and returns
// EXIT_PENDING.  EXIT_OK also when nothing is pending or no configuration is found.  A
// redo log of a newer version that names FILE cannot be applied by this version: said
// so, EXIT_PENDING, and *newer_log set.
int settle_first(const std::string& cmd, const std::string& file, bool* newer_log = nullptr);
// In data/ (they need libcsv): CSV and JSON lines in and out.
int cmd_import(std::vector<std::string> args);
int cmd_export(std::vector<std::string> args);

}  // namespace kisam_tool
