// kisam: inspect, check, fill and monitor ISAM files and the shared area of an
// installation.  One command with subcommands; see 'kisam help'.
#include "tool.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#ifndef KISAM_TOOL_VERSION
#define KISAM_TOOL_VERSION "unknown"
#endif

namespace kisam_tool {
namespace {

const char* const kOverview =
    "Usage: kisam [--config PATH] [--quiet] COMMAND [ARGS...]\n"
    "\n"
    "Commands:\n"
    "  config init PATH [options]   write a configuration file and its lock file\n"
    "  config show [PATH]           print a configuration in words\n"
    "  create FILE KEYLEN[,KEYLEN...] [--key-in-index] [--small-header]\n"
    "                               create an ISAM file\n"
    "  info FILE                    the file's control page, indexes and pages in words\n"
    "  check FILE [--clear-mark]    check the structure of every index, the data pages\n"
    "                               and the free chain\n"
    "  get FILE VALUE [--key N]     read the first record whose key begins with VALUE\n"
    "  scan FILE [--key N] [--from V] [--to V] [--backward] [--limit N]\n"
    "                               read records in key order\n"
    "  put FILE [RECORD|-] [--replace|--update]\n"
    "                               add, replace or update records\n"
    "  del FILE KEY0 [KEY0...|-]    delete records by their key 0 value\n"
    "  dump FILE [OUTPUT]           all records, in key 0 order, as portable text\n"
    "  dump --salvage FILE [OUTPUT] the records a damaged or cut file still holds\n"
    "  load FILE [INPUT]            add the records of a dump (creates FILE if needed)\n"
    "  import FILE CSV [--fields F] add the records of a CSV file, by a field layout\n"
    "  export FILE [OUTPUT] [--csv|--json|--json-array] [--fields F]\n"
    "                               every record as CSV or JSON, by a field layout\n"
    "  backup FILE DEST             a copy of FILE as it stood at one moment, taken while\n"
    "                               programs go on using it, checked sound\n"
    "  compact FILE                 rewrite FILE densely to give back its free space\n"
    "                               (FILE must be closed everywhere)\n"
    "  stat [FILE...] [--every SECONDS]\n"
    "                               figures of the shared area for monitoring\n"
    "  help [COMMAND]               this text, or the details of one command\n"
    "  --version                    the version of kisam\n"
    "\n"
    "Every command takes --config PATH: the configuration file to use.  Without it the\n"
    "library's own search applies: $KISCONFIG, then etc_dir/kisamconfig, then\n"
    "$HOME_Q9/kisamconfig.\n"
    "\n"
    "Records and key values are given and shown as text: printable characters stand\n"
    "for themselves, a backslash is written \\\\ and any other byte \\xHH (\\n, \\t, \\r\n"
    "and \\0 are accepted too).  Where the locale is UTF-8 (LC_ALL, LC_CTYPE,\n"
    "LANG), valid UTF-8 characters are shown as they are (control characters and\n"
    "bytes that are not UTF-8 still \\xHH); both forms read back alike.  The dump\n"
    "form is the same in every locale.  Key values are matched byte for byte; to get\n"
    "and scan a value shorter than its key is a prefix (to del, of exactly one\n"
    "record).\n"
    "get, scan, info, check and stat take --json: one JSON object per record, one\n"
    "per line (JSON Lines), or one document; scan and export take --json-array: one\n"
    "JSON array of those objects.  A byte that is not UTF-8 is written U+FFFD, and a\n"
    "member NAME whose bytes are not UTF-8 is followed by NAME_base64 holding them\n"
    "exactly (for keys: keys_base64).  get and scan take --raw: the records' bytes\n"
    "as they are, nothing added.\n"
    "\n"
    "Exit status: 0 success (also when the reader of the output went away, as with\n"
    "'| head'); 1 the operation failed, damage was found (also problems listed by\n"
    "info; for check also a file that is not an ISAM file), or no record matched\n"
    "(get, scan, del); 2 the command line is wrong; 3 check could not read the file\n"
    "(missing, unreadable, an I/O error: not damage); 130 interrupted.\n";

const std::map<std::string, const char*>& details() {
    static const std::map<std::string, const char*> m = {
        {"config",
         "Usage: kisam config init PATH [options]\n"
         "       kisam config show [PATH]\n"
         "\n"
         "'init' writes the binary configuration record to PATH and creates the lock file\n"
         "PATH.lk beside it.  An existing file is kept unless --force is given.  Options\n"
         "(defaults in brackets):\n"
         "  --files N              files open at once in the installation [64]\n"
         "  --buffers N            shared page buffers of 1 KiB [256]\n"
         "  --users N              processes attached at once [32]\n"
         "  --keys N               most keys a file may have, up to 25 [25]\n"
         "  --files-per-process N  ISAM descriptors one process may hold [as --files]\n"
         "  --file-buffers N       buffers one file fills before reusing its own [as --buffers]\n"
         "  --avg-alt-keys N       average alternate keys per file, sizes the heap [2]\n"
         "  --lock-key-len N       average record-lock key length, sizes the heap [16]\n"
         "  --locks-per-file N     average record locks per open file, sizes the heap [8]\n"
         "  --track-changes        keep each file's data-changed mark on disk\n"
         "  --sync-on-mark         with --track-changes: sync the file when the mark changes\n"
         "  --clear-on-release     with --track-changes: clear the mark after every change\n"
         "  --durable              every changing call returns only once it would survive a\n"
         "                         crash of the machine (KISAM_DURABLE=0/1 overrides it)\n"
         "  --force                overwrite an existing configuration file\n"
         "  --access WHO           who may use the installation: user (you alone: lock file\n"
         "                         0600), group:NAME (that group: 0660) or all (every user\n"
         "                         of the host: 0666) [as the umask gives]; the shared area\n"
         "                         and the journals get the lock file's owner, group and mode\n"
         "The size of the shared segment follows from these values; a configuration that\n"
         "the kernel's shared-memory limits would refuse is reported and not written.\n"
         "\n"
         "'show' prints the configuration (PATH, or the one --config or the normal search\n"
         "finds) in words, with the segment layout it leads to, and compares it with the\n"
         "shared area in use, if any.\n"},
        {"create",
         "Usage: kisam create FILE KEYLEN[,KEYLEN...] [--key-in-index] [--small-header]\n"
         "                    [--force]\n"
         "\n"
         "Creates FILE with one key per length given; key 0 is the primary key.  Records\n"
         "start with the key values in key order, so each record is at least the sum of\n"
         "the key lengths long.  An existing FILE is kept unless --force is given; a file\n"
         "that some program has open is never replaced.\n"
         "  --key-in-index   keep key 0 only in its index, not in the stored record\n"
         "  --small-header   use a 512-byte control page instead of a 1024-byte one\n"},
        {"info",
         "Usage: kisam info FILE\n"
         "\n"
         "Reads FILE directly (no shared area is needed) and prints its control page in\n"
         "words: format, keys with their roots, tree depths and item counts, the free-page\n"
         "chain, the data pages with free space, the page counts by kind, and the marks.\n"
         "Says how much a compaction would give back (an estimate: free and never used\n"
         "pages, free space in data pages, index pages beyond half fill).\n"
         "Exit status 1 when it lists a problem (then run 'kisam check').\n"},
        {"check",
         "Usage: kisam check FILE [--clear-mark]\n"
         "\n"
         "Reads FILE directly and checks every index (order, fill, links, depth), the data\n"
         "pages and the free chain, and that every index reaches exactly the records of\n"
         "key 0.  Prints one line per problem found and exits with status 1 when the file\n"
         "is damaged or is not an ISAM file at all (it does not begin with an ISAM magic:\n"
         "'NOT AN ISAM FILE'), 3 when it is missing or cannot be read (an I/O error says\n"
         "nothing about the structure).  Run it on a file no program is changing.\n"
         "A rollback that a call cut short (a killed process, a full disk) left waiting in\n"
         "the journal is applied first, and said so: it is not damage (also by info and\n"
         "dump).  When it cannot be applied yet, the status is 4: pending, applied at the\n"
         "next open of the file.  Status 4 also when a redo log written by a newer version\n"
         "of the library names the file ('LOG PENDING'): this version cannot replay it.\n"
         "  --clear-mark   when the file is sound, clear its data-changed mark so that it\n"
         "                 opens again (the file must not be open anywhere)\n"},
        {"get",
         "Usage: kisam get FILE VALUE [--key N] [--ignore-mark] [--json | --raw]\n"
         "\n"
         "Prints the first record, in the order of key N (default 0), whose key begins\n"
         "with VALUE: a value as long as the key must match it exactly, a shorter one is a\n"
         "prefix.  Among records with equal values of an alternate key, the one with the\n"
         "smallest key 0 comes first.  Exit status 1 when there is none.  All records of\n"
         "a value: 'scan --key N --from VALUE --to VALUE'.\n"},
        {"scan",
         "Usage: kisam scan FILE [--key N] [--from V] [--to V] [--backward] [--limit N]\n"
         "                  [--count] [--ignore-mark] [--json | --json-array | --raw]\n"
         "\n"
         "Prints records in the order of key N (default 0), one per line.  Forwards, it\n"
         "starts at the first key at or after --from and stops after the last key that\n"
         "begins with or precedes --to; with --backward, it starts at the last key that\n"
         "begins with or precedes --from and stops before keys below --to.  A shorter\n"
         "value is a prefix.  --count prints only the number of records.  A range whose\n"
         "ends are the wrong way round for the direction is refused.  Exit status 1 when\n"
         "no record is found.\n"
         "  --json        JSON Lines: one object per record, one per line\n"
         "  --json-array  one JSON array of those objects (what json.load reads)\n"
         "Objects: {\"length\":N,\"keys\":[...],\"record\":\"...\"}, with keys_base64 and\n"
         "record_base64 (the bytes exactly) when they are not UTF-8.\n"},
        {"put",
         "Usage: kisam put FILE RECORD [--replace | --update]\n"
         "       kisam put FILE - [--replace | --update]    (records from standard input,\n"
         "                                                   one per line)\n"
         "\n"
         "Adds records.  A record whose key 0 value exists already is refused (status 1)\n"
         "unless --replace (add or replace) or --update (replace; the record must exist)\n"
         "is given.\n"},
        {"del",
         "Usage: kisam del FILE KEY0 [KEY0...]\n"
         "       kisam del FILE -          (key 0 values from standard input, one per line)\n"
         "\n"
         "Deletes the records with these key 0 values.  A value as long as key 0 names a\n"
         "record exactly; a shorter one is a prefix that must match exactly one record\n"
         "(when it matches several, nothing is deleted and the first two are named).\n"
         "Exit status 1 when one of them names no record or several (the others are\n"
         "still deleted).\n"},
        {"dump",
         "Usage: kisam dump FILE [OUTPUT] [--ignore-mark]\n"
         "\n"
         "Writes every record in key 0 order as text to OUTPUT (default: standard output).\n"
         "The form is exact for any bytes: a header line '# kisam dump 1', a line\n"
         "'# keys L0,L1,...' (with ' key-in-index' when set), then one line per record:\n"
         "its length, a blank, and its bytes escaped (\\xHH in every locale), then a\n"
         "closing line '# end N records'.  --ignore-mark reads a file whose data-changed\n"
         "mark is set, to save what it still holds.  OUTPUT is written under a temporary\n"
         "name and renamed when done: a failed write (a full disk) leaves no partial file\n"
         "under its name; a dump stopped by damage keeps what it wrote, without the\n"
         "closing line.\n"
         "\n"
         "       kisam dump --salvage FILE [OUTPUT] [--keys L0,L1,... [--key-in-index]]\n"
         "\n"
         "Reads a damaged or truncated FILE directly, without the library, the shared\n"
         "area or its indexes, and writes in the same form every record it can rebuild\n"
         "whole from the data pages: pages are recognised by their format, records are\n"
         "followed through their segments and overflow pages, and a record is written\n"
         "only when every piece of it is present and the pieces agree.  Pages on the\n"
         "free list, released space and pages past the file's end are never read as\n"
         "records.  The key-0 index is used where it can still be read: it gives a\n"
         "key-in-index file its key values, and it leaves out pieces it proves dead.  A\n"
         "piece the index cannot vouch for is written when the file is whole; when the\n"
         "file is cut short, only if it begins with its overflow pages or the other\n"
         "keys' indexes hold it (else it may be the tail of a record whose front is lost).\n"
         "The key lengths come from the control page; when it is damaged, give them\n"
         "with --keys (and --key-in-index when the file keeps key 0 in its index only;\n"
         "then only records whose index item survives have a key).  A report on\n"
         "standard error counts the pages read by kind and names every record left out,\n"
         "with its page and the reason.  Exit status 0 when every record found was\n"
         "written whole, 1 when anything was left out or the keys are unknown.\n"
         "Load the output into a new file:  kisam load NEW rescued.dump\n"},
        {"load",
         "Usage: kisam load FILE [INPUT]\n"
         "\n"
         "Adds the records of a dump (default: standard input) to FILE, creating FILE\n"
         "with the dump's keys when it does not exist.  Records whose key 0 value is\n"
         "already present are reported and skipped; the exit status is then 1.  A dump\n"
         "without its closing line, or whose closing line counts other records than it\n"
         "holds, is reported (status 1) after the records it holds were added.  A failure\n"
         "of the library (a full disk, a failed sync) stops the load at its line; the\n"
         "summary 'loaded N records' still says how many it stored.\n"},
        {"stat",
         "Usage: kisam stat [FILE...] [--every SECONDS] [--count N]\n"
         "\n"
         "Prints the figures of the installation's shared area: buffers (hits, misses by\n"
         "kind, disk reads and writes, waits for a free buffer), locks (held now, highest,\n"
         "waits), the files open with their use counts, and the processes attached,\n"
         "flagging those that no longer exist.  With --every it repeats until interrupted\n"
         "(or N times with --count).  Files named are shown by name in the table of open\n"
         "files.  When no program is attached it says so and creates nothing (with\n"
         "--every it waits for the area to appear); when the process table is full it\n"
         "reads the area without taking a slot.\n"},
        {"import",
         "Usage: kisam import FILE CSV [--fields NAME:WIDTH,...] [--no-header] [--replace]\n"
         "\n"
         "Adds the records of a CSV file (RFC 4180; - for standard input) to FILE, which\n"
         "must exist.  --fields gives the layout of a record: name:width pairs, the key\n"
         "fields first, one per key and each exactly as wide as its key (a layout that is\n"
         "not is refused, status 2, naming the field and the key), the last may be NAME:*\n"
         "(any length), e.g. id:8,name:20,rest:*.  Without it: key0:L0,key1:L1,...,rest:*.\n"
         "The header line names the columns (in any order; exactly the fields); with\n"
         "--no-header the columns are the fields in order.  Values are padded with\n"
         "blanks to their width, or cut to it with a warning, never inside a UTF-8\n"
         "character.  A line with bad quoting, another number of fields or bytes that\n"
         "are not UTF-8 is rejected and named; a record whose key 0 exists is not loaded\n"
         "unless --replace.  The summary says how many records were loaded and which\n"
         "lines were not; exit status 1 when any was not.\n"},
        {"export",
         "Usage: kisam export FILE [OUTPUT] [--csv | --json | --json-array]\n"
         "                    [--fields NAME:WIDTH,...] [--ignore-mark]\n"
         "\n"
         "Writes every record in key 0 order, split by the field layout (as for import),\n"
         "as CSV with a header line (the default), as JSON Lines (one object per record,\n"
         "one per line) or as one JSON array of those objects.  A value that is not UTF-8\n"
         "comes with NAME_base64 too.  Blanks at the end of a fixed-width field are\n"
         "dropped.  Records with bytes beyond the fields are reported (status 1): add a\n"
         "field NAME:*.  OUTPUT is written under a temporary name and renamed when done:\n"
         "a failed write leaves no partial file under its name.\n"},
        {"backup",
         "Usage: kisam backup FILE DEST\n"
         "\n"
         "Copies FILE to DEST exactly as it stood at one moment between calls, while other\n"
         "programs go on reading and writing it: the copy holds every call that had\n"
         "completed at that moment and none that had not.  Writers of FILE wait only while\n"
         "its image is taken (the time is printed); the copy is then written under a\n"
         "temporary name beside DEST, synced, checked by the structural checker and only\n"
         "then renamed to DEST, so that a backup that fails leaves nothing under DEST (an\n"
         "existing DEST stays as it was).  A directory as DEST receives the copy under\n"
         "FILE's name.  The copy opens as a file of its own.  Exit status 1 when the\n"
         "backup failed, 130 when interrupted (nothing written).\n"},
        {"compact",
         "Usage: kisam compact FILE\n"
         "\n"
         "Rewrites FILE densely with the same records and keys (the same key lengths, the\n"
         "same key-in-index choice and control-page size), records in key 0 order, under a\n"
         "temporary name beside it; the new file is synced and checked, then renamed over\n"
         "FILE.  Prints the size before and after.  A file only grows in use: the pages\n"
         "that deletes free are kept for later writes; 'kisam info' and 'kisam stat FILE'\n"
         "say how much a compaction would give back.  Offline: refused while any other\n"
         "process has FILE open (in this installation); while it runs, FILE's control\n"
         "lock is held, so a program that opens FILE meanwhile waits, and compact then\n"
         "gives up and leaves FILE as it was.  A file whose data-changed mark is set is\n"
         "refused (check it first).  Exit status 1 when it failed (FILE unchanged).\n"},
        {"help", "Usage: kisam help [COMMAND]\n"},
    };
    return m;
}

int cmd_help(const std::vector<std::string>& args) {
    if (args.empty()) {
        std::fputs(kOverview, stdout);
        return EXIT_OK;
    }
    if (args.size() > 1) return usage_error("help", "too many arguments");
    auto it = details().find(args[0]);
    if (it == details().end()) return usage_error("help", "unknown command \"" + args[0] + "\"");
    std::fputs(it->second, stdout);
    return EXIT_OK;
}

}  // namespace

int run(int argc, char** argv) {
    std::vector<std::string> words;
    // --config and --quiet are accepted anywhere on the line.
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--config") {
            if (i + 1 >= argc) return usage_error("", "option --config needs a value");
            g.config = argv[++i];
        } else if (a.rfind("--config=", 0) == 0) {
            g.config = a.substr(9);
        } else if (a == "--quiet") {
            g.quiet = true;
        } else {
            words.push_back(std::move(a));
        }
    }
    if (!g.config.empty() && g.config.size() > 500) return usage_error("", "configuration path too long");
    if (words.empty()) {
        std::fputs(kOverview, stderr);
        return EXIT_USAGE;
    }
    std::string cmd = words.front();
    words.erase(words.begin());
    if (cmd == "--version" || cmd == "version") {
        std::printf("kisam %s\n", KISAM_TOOL_VERSION);
        return EXIT_OK;
    }
    if (cmd == "help" || cmd == "--help" || cmd == "-h") return cmd_help(words);
    for (const auto& w : words)
        if (w == "--help" || w == "-h") return cmd_help({cmd});
    static const std::map<std::string, int (*)(std::vector<std::string>)> table = {
        {"config", cmd_config}, {"create", cmd_create}, {"info", cmd_info}, {"check", cmd_check},
        {"get", cmd_get},       {"scan", cmd_scan},     {"put", cmd_put},   {"del", cmd_del},
        {"dump", cmd_dump},     {"load", cmd_load},     {"stat", cmd_stat},
        {"import", cmd_import}, {"export", cmd_export}, {"backup", cmd_backup}, {"compact", cmd_compact},
    };
    catch_interrupts();
    auto it = table.find(cmd);
    if (it == table.end()) {
        std::fprintf(stderr, "kisam: unknown command \"%s\"\nTry 'kisam help'.\n", cmd.c_str());
        return EXIT_USAGE;
    }
    watch_lock_waits(cmd);
    const int rc = it->second(std::move(words));
    // A call that gave its wait up at an interrupt failed with nothing changed: the
    // command stopped because of the interrupt.
    return rc == EXIT_FAIL && g_interrupted ? EXIT_INTERRUPTED : rc;
}

}  // namespace kisam_tool

// Whether fd is a pipe or a socket: where a failed write means the reader went away.
static bool is_pipe(int fd) {
    struct stat st;
    return ::fstat(fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode));
}

int main(int argc, char** argv) {
    // A closed output pipe ends every command through its normal path (help included).
    ::signal(SIGPIPE, SIG_IGN);
    kisam_tool::g.utf8 = kisam_tool::locale_is_utf8();
    int rc = kisam_tool::run(argc, argv);
    kisam_tool::report_replay();  // a replay run by a library call that attached itself
    if (rc == 0 && kisam_tool::g_late_failure) rc = kisam_tool::EXIT_FAIL;
    if (std::fflush(stdout) != 0 && !kisam_tool::g_write_errno) kisam_tool::g_write_errno = errno;
    // A reader that went away ('kisam scan FILE | head -1') is a normal end of the output:
    // no message, and the status the command chose.
    const int werr = kisam_tool::g_write_errno;
    if (std::ferror(stdout) && rc == 0 && !(werr == EPIPE || (werr == 0 && is_pipe(STDOUT_FILENO)))) {
        int e = werr ? werr : EIO;
        std::fprintf(stderr, "kisam: cannot write the output: %s\n", std::strerror(e));
        rc = kisam_tool::EXIT_FAIL;
    }
    // Messages that could not be written (stderr on a full disk) make a success doubtful too.
    if (rc == 0 && (std::fflush(stderr) != 0 || std::ferror(stderr)) && !is_pipe(STDERR_FILENO))
        rc = kisam_tool::EXIT_FAIL;
    return rc;
}
