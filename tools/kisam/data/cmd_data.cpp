// kisam import / export: records to and from CSV (RFC 4180, through libcsv) and JSON
// lines, by a field layout (fields.h).
//
// Import never loads a line it had to guess at: a line with the wrong number of
// fields, broken quoting or bytes that are not UTF-8 is rejected and named by its line
// number, and the summary says exactly which lines were loaded, which were duplicates
// and which were rejected.  Values longer than their field are cut at a character
// boundary, with a warning naming the line.
#include "fields.h"
#include "json.h"
#include "tool.h"

#include <csv.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool {

bool parse_layout(const std::string& text, const std::vector<int>& keylens, Layout& out, std::string& err) {
    out = Layout();
    std::set<std::string> names;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string pair = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        size_t colon = pair.rfind(':');
        if (colon == std::string::npos || colon == 0) {
            err = "\"" + pair + "\" is not NAME:WIDTH";
            return false;
        }
        Field f{pair.substr(0, colon), 0};
        std::string w = pair.substr(colon + 1);
        if (out.has_rest) {
            err = "the field \"" + out.fields.back().name + "\" of any length (*) must be the last";
            return false;
        }
        if (w == "*") {
            f.width = -1;
            out.has_rest = true;
        } else {
            long v;
            if (!parse_long(w, 1, KISAM_MAXREC, v)) {
                err = "the width of \"" + f.name + "\" must be a number from 1 to 65534, or *";
                return false;
            }
            f.width = int(v);
            out.fixed += f.width;
        }
        if (!names.insert(f.name).second) {
            err = "the field name \"" + f.name + "\" is given twice";
            return false;
        }
        out.fields.push_back(f);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    // A record begins with its key values: the first fields must be exactly the keys, or
    // every record would be stored (import) or read (export) with its keys shifted.
    for (size_t k = 0; k < keylens.size(); ++k) {
        const std::string key = "key " + std::to_string(k) + " is " + std::to_string(keylens[k]) + " bytes";
        const std::string rule = ": the first fields are the keys, one per key, each as wide as its key";
        if (k >= out.fields.size()) {
            err = "no field for key " + std::to_string(k) + " (" + std::to_string(keylens[k]) + " bytes)" + rule;
            return false;
        }
        const Field& f = out.fields[k];
        if (f.width != keylens[k]) {
            err = "the field \"" + f.name + "\" is " + (f.width < 0 ? "of any length (*)" : std::to_string(f.width) + " bytes") +
                  ", " + key + rule;
            return false;
        }
    }
    if (out.fixed > KISAM_MAXREC) {
        err = "the fields take " + std::to_string(out.fixed) + " bytes, more than the longest record (65534)";
        return false;
    }
    return true;
}

Layout default_layout(const std::vector<int>& keylens) {
    Layout l;
    for (size_t i = 0; i < keylens.size(); ++i) {
        l.fields.push_back({"key" + std::to_string(i), keylens[i]});
        l.fixed += keylens[i];
    }
    l.fields.push_back({"rest", -1});
    l.has_rest = true;
    return l;
}

namespace {

// "3, 7, 9, ... (12 in all)": at most the first 20 line numbers.
std::string line_list(const std::vector<uint64_t>& lines) {
    std::string s;
    for (size_t i = 0; i < lines.size() && i < 20; ++i) s += (i ? ", " : "") + std::to_string(lines[i]);
    if (lines.size() > 20) s += ", ... (" + std::to_string(lines.size()) + " in all)";
    return s;
}

int no_space(unsigned char) { return 0; }   // blanks around a value are part of it

// Collects the fields of records from libcsv's callbacks.
struct Collector {
    std::vector<std::string> cells;
    bool complete = false;
    static void field(void* s, size_t len, void* self) {
        static_cast<Collector*>(self)->cells.emplace_back(static_cast<const char*>(s), len);
    }
    static void record(int, void* self) { static_cast<Collector*>(self)->complete = true; }
};

// The file's keys, read through an open descriptor.
bool key_lengths(int fd, std::vector<int>& lens) {
    int l[KISAM_MAXKEYS];
    clear_lib_error();
    int n = nisstat(fd, KISAM_MAXKEYS, l);
    if (n < 1) return false;
    lens.assign(l, l + std::min(n, KISAM_MAXKEYS));
    return true;
}

// Closes a file of the session when the command returns.
struct FdCloser {
    Session& s;
    int fd;
    ~FdCloser() { s.close(fd); }
};

// The key lengths of the file open as fd, and the field layout the command was given
// (--fields) or the default one: EXIT_OK, or the exit status of the message given.
int file_layout(const char* cmd, int fd, const std::string& file, const Args& a, std::vector<int>& keylens,
                Layout& lay) {
    if (!key_lengths(fd, keylens)) {
        if (is_etop) return lib_error(cmd, file);
        return fail(cmd, file + ": the file has no keys, so it holds no records");
    }
    if (auto f = a.get("fields")) {
        std::string err;
        if (!parse_layout(*f, keylens, lay, err)) return usage_error(cmd, "--fields: " + err);
    } else {
        lay = default_layout(keylens);
    }
    return EXIT_OK;
}

}  // namespace

int cmd_import(std::vector<std::string> words) {
    Args a("import", std::move(words));
    a.option("fields");
    a.flag("no-header");
    a.flag("replace");
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 2) return usage_error("import", "expected FILE and a CSV file (or - for standard input)");
    const std::string& file = a.pos()[0];
    const std::string inname = a.pos()[1] == "-" ? "standard input" : a.pos()[1];
    FILE* in = a.pos()[1] == "-" ? stdin : std::fopen(a.pos()[1].c_str(), "rb");
    if (!in) return fail("import", inname + ": " + std::strerror(errno));
    struct Closer {
        FILE* f;
        ~Closer() { if (f != stdin) std::fclose(f); }
    } closer{in};
    uint64_t insize = 0;
    {
        struct stat st;
        if (::fstat(fileno(in), &st) == 0 && S_ISREG(st.st_mode)) insize = uint64_t(st.st_size);
    }

    Session s("import");
    int fd = s.open(file, ISO_RDWR);
    if (fd < 0) return EXIT_FAIL;
    FdCloser fdcloser{s, fd};
    std::vector<int> keylens;
    Layout lay;
    if (int rc = file_layout("import", fd, file, a, keylens, lay); rc != EXIT_OK) return rc;
    const bool header = !a.has("no-header");
    // Column of each field; from the header when there is one.
    std::vector<size_t> col(lay.fields.size());
    for (size_t i = 0; i < col.size(); ++i) col[i] = i;
    size_t ncols = lay.fields.size();
    bool header_seen = !header;

    struct csv_parser p;
    auto start_parser = [&]() {
        csv_init(&p, CSV_STRICT | CSV_STRICT_FINI);
        csv_set_space_func(&p, no_space);
    };
    start_parser();
    Collector c;
    Progress prog("import " + file, insize, "records");
    uint64_t loaded = 0, consumed = 0, lineno = 0, record_line = 0, cut = 0;
    std::vector<uint64_t> rejected, duplicates;
    bool at_record_start = true, failed = false;
    int rc = EXIT_OK;
    std::string rec;
    constexpr int kBatch = 256;
    int in_batch = 0;

    auto reject = [&](uint64_t line, const std::string& why) {
        rejected.push_back(line);
        if (rejected.size() <= 20) {
            progress_clear();
            std::fprintf(stderr, "kisam import: %s: line %llu: %s; line not loaded\n", inname.c_str(),
                         static_cast<unsigned long long>(line), why.c_str());
        }
    };
    // One complete record of cells, which began on line `line`.  False on a failure of
    // the library (the import stops there).
    auto take = [&](std::vector<std::string>& cells, uint64_t line) {
        if (!header_seen) {
            header_seen = true;
            std::map<std::string, size_t> at;
            for (size_t i = 0; i < cells.size(); ++i) at.emplace(cells[i], i);
            for (size_t i = 0; i < lay.fields.size(); ++i) {
                auto it = at.find(lay.fields[i].name);
                if (it == at.end()) {
                    rc = fail("import", inname + ": line " + std::to_string(line) + ": the header has no column \"" +
                                            lay.fields[i].name + "\" (the header names the columns; see --fields, --no-header)");
                    return false;
                }
                col[i] = it->second;
                at.erase(it);
            }
            if (!at.empty()) {
                rc = fail("import", inname + ": line " + std::to_string(line) + ": the column \"" + at.begin()->first +
                                        "\" of the header is not one of --fields");
                return false;
            }
            ncols = cells.size();
            return true;
        }
        if (cells.size() != ncols) {
            reject(line, std::to_string(cells.size()) + " fields, expected " + std::to_string(ncols));
            return true;
        }
        rec.clear();
        std::string warn;
        for (size_t i = 0; i < lay.fields.size(); ++i) {
            const Field& f = lay.fields[i];
            const std::string& v = cells[col[i]];
            if (size_t bad = utf8_invalid_at(v); bad != std::string::npos) {
                reject(line, "field \"" + f.name + "\": byte " + std::to_string(bad + 1) + " is not valid UTF-8");
                return true;
            }
            if (f.width < 0) {
                rec += v;
                continue;
            }
            size_t take = v.size();
            if (take > size_t(f.width)) {
                // Cut at the last character boundary within the width.
                take = 0;
                for (size_t n; take < v.size() && (n = utf8_seq(std::string_view(v).substr(take))) && take + n <= size_t(f.width);)
                    take += n;
                warn += (warn.empty() ? "" : "; ") + std::string("field \"") + f.name + "\" cut from " +
                        std::to_string(v.size()) + " to " + std::to_string(take) + " bytes";
            }
            rec.append(v, 0, take);
            rec.append(size_t(f.width) - take, ' ');
        }
        if (rec.size() > KISAM_MAXREC) {
            reject(line, "the record would be " + std::to_string(rec.size()) + " bytes, more than 65534");
            return true;
        }
        if (!warn.empty()) {
            ++cut;
            if (cut <= 20) {
                progress_clear();
                std::fprintf(stderr, "kisam import: %s: line %llu: warning: %s\n", inname.c_str(),
                             static_cast<unsigned long long>(line), warn.c_str());
            }
        }
        auto lib_failed = [&]() {
            rc = lib_error("import", file + " (line " + std::to_string(line) + ")");
            failed = true;
            return false;
        };
        if (in_batch == 0 && nisgetctl(fd) != 0) return lib_failed();
        ++in_batch;
        int r = a.has("replace") ? nisfwrite(fd, rec.data(), int(rec.size())) : niswrite(fd, rec.data(), int(rec.size()));
        if (r < 0) return lib_failed();
        if (r == 1) {
            duplicates.push_back(line);
            if (duplicates.size() <= 20) {
                progress_clear();
                std::fprintf(stderr, "kisam import: %s: line %llu: key 0 = \"%s\" exists already (use --replace); line not loaded\n",
                             inname.c_str(), static_cast<unsigned long long>(line),
                             show(std::string_view(rec).substr(0, size_t(keylens[0]))).c_str());
            }
        } else {
            prog.update(++loaded, consumed);
        }
        if (in_batch == kBatch) {
            in_batch = 0;
            if (!release_ctl(fd)) return lib_failed();
        }
        return true;
    };

    char* buf = nullptr;
    size_t cap = 0;
    int read_errno = 0;
    bool stopped = false;
    while (!g_interrupted) {
        errno = 0;
        ssize_t n = ::getline(&buf, &cap, in);
        if (n < 0) {
            if (std::ferror(in)) read_errno = errno ? errno : EIO;
            break;
        }
        ++lineno;
        consumed += uint64_t(n);
        if (at_record_start) {
            // Blank lines between records hold no record.
            if ((n == 1 && buf[0] == '\n') || (n == 2 && buf[0] == '\r' && buf[1] == '\n')) continue;
            record_line = lineno;
            at_record_start = false;
        }
        size_t done = csv_parse(&p, buf, size_t(n), Collector::field, Collector::record, &c);
        if (done < size_t(n) || csv_error(&p) != CSV_SUCCESS) {
            reject(record_line, record_line == lineno ? "bad quoting (a quote inside an unquoted value, or text after a closing quote)"
                                                      : "bad quoting, in the record that ends on line " + std::to_string(lineno));
            csv_free(&p);
            start_parser();
            c.cells.clear();
            c.complete = false;
            at_record_start = true;
            continue;
        }
        if (c.complete) {
            c.complete = false;
            at_record_start = true;
            bool ok = take(c.cells, record_line);
            c.cells.clear();
            if (!ok) {
                stopped = true;
                break;
            }
        }
    }
    std::free(buf);
    if (!stopped && !g_interrupted && !read_errno && !at_record_start) {
        // The input ends inside a record: a last line without its newline is complete,
        // an open quote is not.
        if (csv_fini(&p, Collector::field, Collector::record, &c) != 0) {
            reject(record_line, "a quoted value is not closed before the end of the input (lines " +
                                    std::to_string(record_line) + " to " + std::to_string(lineno) + ")");
        } else if (c.complete) {
            if (!take(c.cells, record_line)) stopped = true;
        }
    }
    csv_free(&p);
    // The last batch's release (after a failure the hold is only given back: the first
    // failure is the one reported).
    bool release_failed = false;
    if (in_batch && !release_ctl(fd) && !failed) {
        rc = lib_error("import", file);
        release_failed = true;
    }
    progress_clear();

    // What was and was not loaded, in every case.
    std::fprintf(stderr, "imported %llu records into %s from %s", static_cast<unsigned long long>(loaded), file.c_str(),
                 inname.c_str());
    if (!duplicates.empty())
        std::fprintf(stderr, "; %zu duplicates not loaded (lines %s)", duplicates.size(), line_list(duplicates).c_str());
    if (!rejected.empty())
        std::fprintf(stderr, "; %zu lines rejected (lines %s)", rejected.size(), line_list(rejected).c_str());
    if (cut) std::fprintf(stderr, "; %llu records with values cut to their width", static_cast<unsigned long long>(cut));
    std::fprintf(stderr, "\n");
    if (g_interrupted) return interrupted("import", " after line " + std::to_string(lineno) + "; the lines after it were not read");
    if (read_errno)
        return fail("import", inname + ": read error after line " + std::to_string(lineno) + ": " + std::strerror(read_errno) +
                                  "; the lines after it were not read");
    if (stopped) {
        if (failed) fail("import", "stopped at line " + std::to_string(record_line) + "; the lines after it were not read");
        return rc == EXIT_OK ? EXIT_FAIL : rc;
    }
    if (release_failed) return rc;
    if (!header_seen) return fail("import", inname + ": empty input: no header line");
    return (rejected.empty() && duplicates.empty()) ? EXIT_OK : EXIT_FAIL;
}

namespace {

// A CSV value: quoted (by libcsv) only when it holds a separator, a quote, a line end
// or blanks at its ends, so that plain values read plainly.
bool put_csv(FILE* out, std::string_view v) {
    bool quote = !v.empty() && (v.front() == ' ' || v.back() == ' ');
    for (char ch : v)
        if (ch == ',' || ch == '"' || ch == '\n' || ch == '\r') quote = true;
    if (quote) return csv_fwrite(out, v.data(), v.size()) == 0;
    return std::fwrite(v.data(), 1, v.size(), out) == v.size();
}

}  // namespace

int cmd_export(std::vector<std::string> words) {
    Args a("export", std::move(words));
    a.option("fields");
    a.flag("csv");
    a.flag("json");
    a.flag("json-array");
    a.flag("ignore-mark");
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().empty() || a.pos().size() > 2) return usage_error("export", "expected FILE [OUTPUT]");
    if (int(a.has("csv")) + int(a.has("json")) + int(a.has("json-array")) > 1)
        return usage_error("export", "--csv, --json and --json-array exclude each other");
    const bool array = a.has("json-array"), json = a.has("json") || array;
    const std::string& file = a.pos()[0];
    Session s("export");
    int fd = s.open(file, ISO_RDONLY | (a.has("ignore-mark") ? ISF_NOVERIFY : 0));
    if (fd < 0) return EXIT_FAIL;
    FdCloser fdcloser{s, fd};
    std::vector<int> keylens;
    Layout lay;
    if (int rc = file_layout("export", fd, file, a, keylens, lay); rc != EXIT_OK) return rc;
    if (json) {
        // A value that is not UTF-8 comes with a member NAME_base64: no field may be named so.
        for (const Field& f : lay.fields)
            for (const Field& g2 : lay.fields)
                if (g2.name == f.name + "_base64")
                    return usage_error("export", "--fields: the field \"" + g2.name + "\" would be taken for the base64 form of \"" +
                                                     f.name + "\" in JSON; rename it");
    }
    OutputFile outf;
    if (!outf.open(a.pos().size() == 2 ? a.pos()[1] : "-"))
        return fail("export", a.pos()[1] + ": " + std::strerror(errno));
    FILE* out = outf.file();
    int werr = 0;   // errno of the first failed write
    auto wrote = [&](bool ok) {
        if (!ok && !werr) werr = errno ? errno : EIO;
        return ok;
    };
    bool ok = true;
    if (!json) {
        for (size_t i = 0; i < lay.fields.size() && ok; ++i)
            ok = wrote((i == 0 || std::fputc(',', out) != EOF) && put_csv(out, lay.fields[i].name));
        ok = ok && wrote(std::fputs("\r\n", out) != EOF);
    }
    Progress prog("export " + file, 0);
    std::vector<char> rec(KISAM_MAXREC + 1);
    uint64_t count = 0, longer = 0;
    int rc = EXIT_OK;
    bool complete = false;
    while (ok) {
        if (g_interrupted) {
            rc = interrupted("export", "; the output is incomplete");
            break;
        }
        int n = nisread(fd, 0, rec.data(), int(rec.size()));
        if (n < 0) {
            rc = lib_error("export", file);
            break;
        }
        if (n == 0) {
            complete = true;
            break;
        }
        const std::string_view r(rec.data(), size_t(n));
        JsonObject obj;
        size_t off = 0;
        for (size_t i = 0; i < lay.fields.size() && ok; ++i) {
            const Field& f = lay.fields[i];
            std::string_view v = off < r.size() ? r.substr(off, f.width < 0 ? std::string_view::npos : size_t(f.width))
                                                 : std::string_view();
            if (f.width >= 0) {
                off += size_t(f.width);
                while (!v.empty() && v.back() == ' ') v.remove_suffix(1);   // the padding import adds
            } else {
                off = r.size();
            }
            if (json)
                obj.str(f.name, v);
            else
                ok = wrote((i == 0 || std::fputc(',', out) != EOF) && put_csv(out, v));
        }
        if (json) {
            std::string line = array ? (count == 0 ? "[" : ",\n") + obj.done() : obj.done() + "\n";
            ok = ok && wrote(std::fwrite(line.data(), 1, line.size(), out) == line.size());
        } else {
            ok = ok && wrote(std::fputs("\r\n", out) != EOF);
        }
        if (off < r.size() && ++longer <= 10)
            fail("export", "record with key 0 = \"" + show(r.substr(0, size_t(keylens[0]))) + "\" has " +
                               std::to_string(r.size() - off) + " bytes beyond the fields; they are not exported (add a field NAME:*)");
        prog.update(++count);
    }
    if (ok && complete && array) ok = wrote(std::fputs(count == 0 ? "[]\n" : "]\n", out) != EOF);
    progress_clear();
    const bool to_stdout = out == stdout;
    // What was written goes in place unless writing failed; a file whose writing failed
    // is not left under its name.
    if (werr)
        outf.abandon();
    else
        werr = outf.commit();
    if (werr) {
        if (to_stdout && !g_write_errno) g_write_errno = werr;
        if (to_stdout && werr == EPIPE) return rc;   // the reader went away ('| head'): a normal end
        return fail("export", outf.name() + ": cannot write: " + std::strerror(werr) +
                                  (outf.whole_or_nothing() ? "; the file was not written" : "; the output is incomplete"));
    }
    if (longer) return fail("export", std::to_string(longer) + " records longer than the fields were cut short");
    return rc;
}

}  // namespace kisam_tool
