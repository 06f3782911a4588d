// kisam get / scan / put / del / dump / load: records through the engine.
//
// Records are shown one per line in the escaped text form (tool.h); a record image
// begins with the key values in key order, so the value of key i sits at the sum of the
// lengths of keys 0 .. i-1.
#include "json.h"
#include "salvage.h"
#include "tool.h"

#include <algorithm>
#include <climits>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool {
namespace {

constexpr int kRecBuf = KISAM_MAXREC + 1;

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

// A key value from the command line, filled to the key's length with `fill`.
bool key_value(const std::string& cmd, const std::string& text, int keylen, char fill, std::string& out) {
    auto v = unescape(text);
    if (!v) {
        usage_error(cmd, "malformed escape in \"" + text + "\"");
        return false;
    }
    if (int(v->size()) > keylen) {
        usage_error(cmd, "the value \"" + text + "\" is " + std::to_string(v->size()) + " bytes, the key only " +
                             std::to_string(keylen));
        return false;
    }
    out = *v;
    out.append(size_t(keylen) - v->size(), fill);
    return true;
}

bool key_number(const Args& a, const OpenFile& f, int& keyno) {
    long k = 0;
    if (!a.get_int("key", 0, KISAM_MAXKEYS - 1, k)) return false;
    if (k >= long(f.keylens.size())) {
        usage_error(a.cmd(), "the file has " + std::to_string(f.keylens.size()) + " keys (0 to " +
                                 std::to_string(f.keylens.size() - 1) + ")");
        return false;
    }
    keyno = int(k);
    return true;
}

// How get and scan write records: the text form for people, one line each; one JSON
// object per line (--json, JSON Lines); one JSON array of those objects (--json-array,
// scan only); or the bytes as they are, nothing added (--raw).
enum class Form { text, json, json_array, raw };

bool output_form(const Args& a, Form& form) {
    const int n = int(a.has("json")) + int(a.has("json-array")) + int(a.has("raw"));
    if (n > 1) {
        usage_error(a.cmd(), a.cmd() == "scan" ? "--json, --json-array and --raw exclude each other"
                                               : "--json and --raw exclude each other");
        return false;
    }
    form = a.has("json") ? Form::json : a.has("json-array") ? Form::json_array : a.has("raw") ? Form::raw : Form::text;
    return true;
}

// Writes text to standard output; false when the output cannot take more (a closed pipe,
// a full disk), with the error kept for main.
bool out_text(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size()) return true;
    if (!g_write_errno) g_write_errno = errno;
    return false;
}

// A record as a JSON object: its length, its keys' values and its bytes.  Keys and record
// that are not valid UTF-8 come exactly in keys_base64 and record_base64 as well.
std::string record_json(const OpenFile& f, std::string_view r) {
    const auto key = [&](size_t k) {
        const size_t off = size_t(f.key_offset(int(k)));
        return off < r.size() ? r.substr(off, size_t(f.keylens[k])) : std::string_view();
    };
    JsonArray keys;
    bool exact = true;
    for (size_t k = 0; k < f.keylens.size(); ++k) {
        keys.add(json_str(key(k)));
        if (utf8_invalid_at(key(k)) != std::string_view::npos) exact = false;
    }
    JsonObject o;
    o.num("length", long(r.size())).raw("keys", keys.done());
    if (!exact) {
        JsonArray keys64;
        for (size_t k = 0; k < f.keylens.size(); ++k) keys64.add('"' + base64(key(k)) + '"');
        o.raw("keys_base64", keys64.done());
    }
    return o.str("record", r).done();
}

// The records written so far by print_record, for the brackets of --json-array.
uint64_t g_printed = 0;

// False when the output cannot take more (a closed pipe, a full disk).
bool print_record(const OpenFile& f, Form form, const char* rec, int n) {
    const std::string_view r(rec, size_t(n));
    std::string line;
    if (form == Form::raw)
        line.assign(r);
    else if (form == Form::json)
        line = record_json(f, r) + "\n";
    else if (form == Form::json_array)
        line = (g_printed == 0 ? "[" : ",\n") + record_json(f, r);
    else
        line = show(r) + "\n";
    ++g_printed;
    return out_text(line);
}

int read_access(const Args& a) { return ISO_RDONLY | (a.has("ignore-mark") ? ISF_NOVERIFY : 0); }

}  // namespace

int cmd_get(std::vector<std::string> words) {
    Args a("get", std::move(words));
    a.option("key");
    a.flag("ignore-mark");
    a.flag("json");
    a.flag("raw");
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 2) return usage_error("get", "expected FILE and VALUE");
    Form form;
    if (!output_form(a, form)) return EXIT_USAGE;
    Session s("get");
    OpenFile f(s);
    if (!f.open(a.pos()[0], read_access(a))) return EXIT_FAIL;
    int keyno;
    if (!key_number(a, f, keyno)) return EXIT_USAGE;
    // The first record whose key begins with the value: a value as long as the key is
    // an exact match, a shorter one a prefix.  Seeking and reading forwards returns the
    // smallest key 0 among equal values, so the answer does not depend on the tree's shape.
    auto v = unescape(a.pos()[1]);
    const int klen = f.keylens[size_t(keyno)], koff = f.key_offset(keyno);
    if (!v) return usage_error("get", "malformed escape in \"" + a.pos()[1] + "\"");
    if (int(v->size()) > klen)
        return usage_error("get", "the value \"" + a.pos()[1] + "\" is " + std::to_string(v->size()) +
                                      " bytes, the key only " + std::to_string(klen));
    std::string key = *v;
    key.append(size_t(klen) - v->size(), '\0');
    std::vector<char> rec(kRecBuf);
    if (nisseek(f.fd, keyno, key.data()) != 0) return lib_error("get", a.pos()[0]);
    int n = nisread(f.fd, keyno, rec.data(), kRecBuf);
    if (n < 0) return lib_error("get", a.pos()[0]);
    if (n == 0 || n < koff + klen || std::memcmp(rec.data() + koff, v->data(), v->size()) != 0)
        return fail("get", "no record with key " + std::to_string(keyno) + (int(v->size()) < klen ? " beginning with \"" : " = \"") +
                               show(*v) + "\"");
    print_record(f, form, rec.data(), n);
    return EXIT_OK;
}

int cmd_scan(std::vector<std::string> words) {
    Args a("scan", std::move(words));
    a.option("key");
    a.option("from");
    a.option("to");
    a.option("limit");
    a.flag("backward");
    a.flag("count");
    a.flag("ignore-mark");
    a.flag("json");
    a.flag("json-array");
    a.flag("raw");
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 1) return usage_error("scan", "expected one FILE");
    Form form;
    if (!output_form(a, form)) return EXIT_USAGE;
    long limit = -1;
    if (!a.get_int("limit", 0, INT32_MAX, limit)) return EXIT_USAGE;
    Session s("scan");
    OpenFile f(s);
    if (!f.open(a.pos()[0], read_access(a))) return EXIT_FAIL;
    int keyno;
    if (!key_number(a, f, keyno)) return EXIT_USAGE;
    const int klen = f.keylens[size_t(keyno)], koff = f.key_offset(keyno);
    const bool back = a.has("backward");
    // A shorter start value is a prefix: forwards it starts before every key with that
    // prefix, backwards after every one.
    std::string to;
    if (auto t = a.get("to")) {
        auto v = unescape(*t);
        if (!v) return usage_error("scan", "malformed escape in \"" + *t + "\"");
        if (int(v->size()) > klen) return usage_error("scan", "the --to value is longer than the key");
        to = *v;
    }
    if (auto from = a.get("from")) {
        std::string key;
        if (!key_value("scan", *from, klen, back ? '\xff' : '\0', key)) return EXIT_USAGE;
        // A range whose ends are the wrong way round selects nothing; that is a slip,
        // not an empty answer.  Values compare over the bytes both give (a prefix
        // reaches every value it begins).
        if (a.get("to")) {
            const std::string fv = *unescape(*from);
            const size_t common = std::min(fv.size(), to.size());
            const int c = std::memcmp(fv.data(), to.data(), common);
            if (back ? c < 0 : c > 0)
                return usage_error("scan", "the range is reversed: --from \"" + *from + "\" comes " +
                                               (back ? "before" : "after") + " --to \"" + *a.get("to") + "\"" +
                                               (back ? " (with --backward, --from is the high end)"
                                                     : " (use --backward to read downwards)"));
        }
        if (nisseek(f.fd, keyno, key.data()) != 0) return lib_error("scan", a.pos()[0]);
    }
    const bool bounded = a.get("to").has_value();
    std::vector<char> rec(kRecBuf);
    uint64_t count = 0;
    while (limit < 0 || count < uint64_t(limit)) {
        if (g_interrupted) return interrupted("scan");
        int n = back ? nispread(f.fd, keyno, rec.data(), kRecBuf) : nisread(f.fd, keyno, rec.data(), kRecBuf);
        if (n < 0) return lib_error("scan", a.pos()[0]);
        if (n == 0) break;
        if (bounded && n >= koff + klen) {
            int c = std::memcmp(rec.data() + koff, to.data(), to.size());
            if (back ? c < 0 : c > 0) break;
        }
        ++count;
        if (!a.has("count") && !print_record(f, form, rec.data(), n)) return EXIT_OK;   // main reports it
    }
    if (a.has("count")) {
        if (form == Form::json || form == Form::json_array)
            std::printf("%s\n", JsonObject().unum("count", count).done().c_str());
        else
            std::printf("%llu\n", static_cast<unsigned long long>(count));
    } else if (form == Form::json_array) {
        out_text(count == 0 ? "[]\n" : "]\n");
    }
    // As get: nothing found is status 1 (with --count the 0 printed says it too).
    return count == 0 ? EXIT_FAIL : EXIT_OK;
}

int cmd_put(std::vector<std::string> words) {
    Args a("put", std::move(words));
    a.flag("replace");
    a.flag("update");
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 2) return usage_error("put", "expected FILE and RECORD (or - to read records from standard input)");
    if (a.has("replace") && a.has("update")) return usage_error("put", "--replace and --update exclude each other");
    const std::string& file = a.pos()[0];
    Session s("put");
    OpenFile f(s);
    if (!f.open(file, ISO_RDWR)) return EXIT_FAIL;
    const int k0 = f.keylens[0];

    int rc = EXIT_OK;
    uint64_t refused = 0;
    // Reports a refused record; from standard input only the first few, then a total.
    auto refuse = [&](const std::string& where, const std::string& msg) {
        rc = EXIT_FAIL;
        if (++refused <= 10) fail("put", where + msg);
    };
    // Returns false when the remaining input should not be tried.
    auto put_one = [&](const std::string& text, const std::string& where) {
        auto rec = unescape(text);
        if (!rec) {
            refuse(where, "malformed escape in the record");
            return true;
        }
        if (int(rec->size()) < f.minrec || rec->size() > KISAM_MAXREC) {
            refuse(where, "a record of " + std::to_string(rec->size()) + " bytes; records of this file are " +
                              std::to_string(f.minrec) + " (its keys) to 65534 bytes");
            return true;
        }
        std::string key = show(std::string_view(*rec).substr(0, size_t(k0)));
        int r;
        if (a.has("update"))
            r = nisupdate(f.fd, rec->data(), int(rec->size()));
        else if (a.has("replace"))
            r = nisfwrite(f.fd, rec->data(), int(rec->size()));
        else
            r = niswrite(f.fd, rec->data(), int(rec->size()));
        if (r == 1) {
            refuse(where, "a record with key 0 = \"" + key + "\" exists already (use --replace)");
            return true;
        }
        if (r < 0) {
            if (is_errno == ISE_NOKEY) {
                refuse(where, "no record with key 0 = \"" + key + "\" to update");
                return true;
            }
            rc = lib_error("put", file);
            return false;
        }
        return true;
    };
    if (a.pos()[1] != "-") {
        put_one(a.pos()[1], "");
        return rc;
    }
    LineReader in;
    in.open("-");
    std::string line;
    while (!g_interrupted && in.next(line)) {
        if (line.empty()) continue;
        if (!put_one(line, "line " + std::to_string(in.lineno()) + ": ")) return rc;
    }
    if (refused > 10) fail("put", std::to_string(refused) + " records refused in all");
    if (g_interrupted) return interrupted("put");
    if (in.error()) return fail("put", "standard input: read error after line " + std::to_string(in.lineno()) + ": " +
                                           std::strerror(in.error()));
    return rc;
}

int cmd_del(std::vector<std::string> words) {
    Args a("del", std::move(words));
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() < 2) return usage_error("del", "expected FILE and at least one KEY0 value (or - to read them from standard input)");
    const bool from_stdin = a.pos().size() == 2 && a.pos()[1] == "-";
    const std::string& file = a.pos()[0];
    Session s("del");
    OpenFile f(s);
    if (!f.open(file, ISO_RDWR)) return EXIT_FAIL;
    const int k0 = f.keylens[0];
    int rc = EXIT_OK;
    std::vector<char> rec(kRecBuf);
    // Deletes the record named by `text`: a value as long as key 0 names it exactly, a
    // shorter one is a prefix that must match exactly one record.  False on a library
    // failure (then rc holds its status).
    auto del_one = [&](const std::string& text, const std::string& where) {
        auto v = unescape(text);
        if (!v) {
            rc = fail("del", where + "malformed escape in \"" + text + "\"");
            return true;
        }
        if (v->empty() || int(v->size()) > k0) {
            rc = fail("del", where + "the value \"" + text + "\" is " + std::to_string(v->size()) +
                                 " bytes; key 0 is " + std::to_string(k0));
            return true;
        }
        std::string key = *v;
        key.append(size_t(k0) - v->size(), '\0');
        if (int(v->size()) < k0) {
            int n = nisseek(f.fd, 0, key.data()) == 0 ? nisread(f.fd, 0, rec.data(), kRecBuf) : -1;
            if (n < 0) {
                rc = lib_error("del", file);
                return false;
            }
            auto begins = [&](int len) { return len >= k0 && std::memcmp(rec.data(), v->data(), v->size()) == 0; };
            if (n == 0 || !begins(n)) {
                rc = fail("del", where + "no record with key 0 beginning with \"" + show(*v) + "\"");
                return true;
            }
            key.assign(rec.data(), size_t(k0));
            n = nisread(f.fd, 0, rec.data(), kRecBuf);
            if (n < 0) {
                rc = lib_error("del", file);
                return false;
            }
            if (n > 0 && begins(n)) {
                rc = fail("del", where + "more than one record has key 0 beginning with \"" + show(*v) + "\" (\"" +
                                     show(key) + "\", \"" + show(std::string_view(rec.data(), size_t(k0))) +
                                     "\", ...); give the whole value");
                return true;
            }
        }
        if (nisdelete(f.fd, key.data()) < 0) {
            if (is_errno != ISE_NOKEY) {
                rc = lib_error("del", file);
                return false;
            }
            rc = fail("del", where + "no record with key 0 = \"" + show(key) + "\"");
        }
        return true;
    };
    if (!from_stdin) {
        for (size_t i = 1; i < a.pos().size(); ++i) {
            if (g_interrupted) return interrupted("del");
            if (!del_one(a.pos()[i], "")) break;
        }
        return rc;
    }
    LineReader in;
    in.open("-");
    std::string line;
    while (!g_interrupted && in.next(line)) {
        if (line.empty()) continue;
        if (!del_one(line, "line " + std::to_string(in.lineno()) + ": ")) return rc;
    }
    if (g_interrupted) return interrupted("del");
    if (in.error()) return fail("del", "standard input: read error after line " + std::to_string(in.lineno()) + ": " +
                                           std::strerror(in.error()));
    return rc;
}

// ---- dump and load -----------------------------------------------------------------------------
//
// The dump form, one line each:
//   # kisam dump 1
//   # keys L0,L1,... [key-in-index]
//   LENGTH SP ESCAPED-BYTES            (one per record, in key 0 order)
//   # end N records
// The closing line lets load tell a complete dump from one that was cut short.

namespace {
constexpr const char* kDumpMagic = "# kisam dump 1";
}

int cmd_dump(std::vector<std::string> words) {
    Args a("dump", std::move(words));
    a.flag("ignore-mark");
    a.flag("salvage");
    a.option("keys");
    a.flag("key-in-index");
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().empty() || a.pos().size() > 2) return usage_error("dump", "expected FILE [OUTPUT]");
    const std::string& file = a.pos()[0];
    if (int rc = settle_first("dump", file); rc != EXIT_OK) return rc;
    if (a.has("salvage")) {
        SalvageOptions opt;
        if (auto k = a.get("keys"); k && !parse_key_lengths(*k, opt.keylens))
            return usage_error("dump", "--keys wants key lengths of 1 to 500 bytes, e.g. 8,20");
        if (a.has("key-in-index") && opt.keylens.empty())
            return usage_error("dump", "--key-in-index goes with --keys");
        opt.key_in_index = a.has("key-in-index");
        return salvage_dump(file, a.pos().size() == 2 ? a.pos()[1] : "", opt);
    }
    if (a.has("keys") || a.has("key-in-index"))
        return usage_error("dump", "--keys and --key-in-index go with --salvage");
    int rawfd = ::open(file.c_str(), O_RDONLY);
    if (rawfd < 0) return fail("dump", file + ": " + std::strerror(errno));
    ControlPage cp;
    std::string err;
    bool ok = read_control_page(rawfd, cp, err);
    ::close(rawfd);
    if (!ok) return fail("dump", file + ": " + err);

    Session s("dump");
    OpenFile f(s);
    if (!f.open(file, read_access(a))) return EXIT_FAIL;
    DumpWriter out;
    if (!out.open(a.pos().size() == 2 ? a.pos()[1] : "", f.keylens, cp.optbits & ISO_KEYOPT)) return EXIT_FAIL;
    Progress prog("dump " + file, 0);
    std::vector<char> rec(kRecBuf);
    int rc = EXIT_OK;
    while (true) {
        if (g_interrupted) {
            rc = interrupted("dump", "; the output is incomplete");
            break;
        }
        int n = nisread(f.fd, 0, rec.data(), kRecBuf);
        if (n < 0) {
            rc = lib_error("dump", file);
            break;
        }
        if (n == 0 || !out.record(std::string_view(rec.data(), size_t(n)))) break;
        prog.update(out.count());
    }
    const int wrc = out.finish(rc == EXIT_OK);
    return wrc != EXIT_OK ? wrc : rc;
}

DumpWriter::~DumpWriter() = default;

bool DumpWriter::open(const std::string& output, const std::vector<int>& keylens, bool key_in_index) {
    if (!file_.open(output)) {
        fail("dump", output + ": " + std::strerror(errno));
        return false;
    }
    out_ = file_.file();
    std::string keys;
    for (size_t i = 0; i < keylens.size(); ++i) keys += (i ? "," : "") + std::to_string(keylens[i]);
    if (std::fprintf(out_, "%s\n# keys %s%s\n", kDumpMagic, keys.c_str(), key_in_index ? " key-in-index" : "") < 0)
        failed();
    return true;
}

bool DumpWriter::failed() {
    if (!errno_) errno_ = errno ? errno : EIO;
    return false;
}

bool DumpWriter::record(std::string_view bytes) {
    if (errno_) return false;
    line_ = std::to_string(bytes.size());
    line_ += ' ';
    line_ += escape(bytes);
    line_ += '\n';
    if (std::fwrite(line_.data(), 1, line_.size(), out_) != line_.size()) return failed();
    ++count_;
    return true;
}

int DumpWriter::finish(bool complete) {
    if (!out_) return EXIT_FAIL;
    if (complete && !errno_ &&
        std::fprintf(out_, "# end %llu records\n", static_cast<unsigned long long>(count_)) < 0)
        failed();
    const bool to_stdout = out_ == stdout;
    out_ = nullptr;
    if (errno_) {
        file_.abandon();
    } else if (int e = file_.commit(); e != 0) {
        errno_ = e;
    }
    if (!errno_) return EXIT_OK;
    if (to_stdout) {
        if (!g_write_errno) g_write_errno = errno_;
        if (errno_ == EPIPE) return EXIT_OK;  // the reader went away ('| head'): a normal end
    }
    return fail("dump", file_.name() + ": cannot write: " + std::strerror(errno_) +
                            (file_.whole_or_nothing() ? "; the file was not written" : "; the output is incomplete"));
}

int cmd_load(std::vector<std::string> words) {
    Args a("load", std::move(words));
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().empty() || a.pos().size() > 2) return usage_error("load", "expected FILE [INPUT]");
    const std::string& file = a.pos()[0];
    LineReader in;
    if (!in.open(a.pos().size() == 2 ? a.pos()[1] : "-")) return fail("load", a.pos()[1] + ": " + std::strerror(errno));
    const std::string& inname = in.name();
    auto read_error = [&]() {
        return fail("load", inname + ": read error after line " + std::to_string(in.lineno()) + ": " +
                                std::strerror(in.error()));
    };
    std::string line;
    if (!in.next(line) || line != kDumpMagic) {
        if (in.error()) return read_error();
        return fail("load", inname + ": not a kisam dump (its first line is not \"" + std::string(kDumpMagic) + "\")");
    }
    if (!in.next(line) || line.rfind("# keys ", 0) != 0) {
        if (in.error()) return read_error();
        return fail("load", inname + ": line 2: expected \"# keys L0,L1,...\"");
    }
    std::vector<int> lens;
    bool keyopt = false;
    {
        std::string text = line.substr(7);
        if (auto sp = text.find(' '); sp != std::string::npos) {
            if (text.substr(sp + 1) != "key-in-index")
                return fail("load", inname + ": line 2: unknown option \"" + text.substr(sp + 1) + "\"");
            keyopt = true;
            text.resize(sp);
        }
        if (!parse_key_lengths(text, lens)) return fail("load", inname + ": line 2: malformed key lengths");
        if (lens.size() > KISAM_MAXKEYS) return fail("load", inname + ": line 2: more than 25 keys");
    }

    Session s("load");
    if (!s.attach()) return EXIT_FAIL;
    if (::access(file.c_str(), F_OK) != 0) {
        int fd = s.create(file, lens, keyopt ? 1 : 0, 1024);
        if (fd < 0 || !s.close(fd)) return EXIT_FAIL;
    }
    OpenFile f(s);
    if (!f.open(file, ISO_RDWR)) return EXIT_FAIL;
    if (f.keylens != lens) {
        std::string have;
        for (size_t i = 0; i < f.keylens.size(); ++i) have += (i ? "," : "") + std::to_string(f.keylens[i]);
        return fail("load", file + " has keys of lengths " + have + ", the dump was made from other keys");
    }

    Progress prog("load " + file, in.size());
    uint64_t loaded = 0, duplicates = 0, bad = 0, lines = 0, stopped_at = 0;
    bool ended = false, failed = false;
    long long declared = -1;   // the count on the closing line
    // Batches under one hold of the control lock spare a lock round trip per record;
    // other processes get the file between batches.
    constexpr int kBatch = 256;
    int in_batch = 0;
    int rc = EXIT_OK;
    while (!g_interrupted && in.next(line)) {
        const uint64_t lineno = in.lineno();
        if (ended) {
            rc = fail("load", inname + ": line " + std::to_string(lineno) + ": text after the closing line");
            break;
        }
        if (line.rfind("# end ", 0) == 0) {
            ended = true;
            long n = -1;
            const std::string rest = line.substr(6);
            const size_t sp = rest.find(' ');
            if (sp == std::string::npos || rest.substr(sp) != " records" || !parse_long(rest.substr(0, sp), 0, LONG_MAX, n)) {
                rc = fail("load", inname + ": line " + std::to_string(lineno) + ": malformed closing line (expected \"# end N records\")");
                break;
            }
            declared = n;
            continue;
        }
        if (line.empty() || line[0] == '#') continue;
        ++lines;
        size_t sp = line.find(' ');
        long len = -1;
        std::optional<std::string> rec;
        if (sp != std::string::npos && parse_long(line.substr(0, sp), 1, KISAM_MAXREC, len))
            rec = unescape(std::string_view(line).substr(sp + 1));
        if (!rec || long(rec->size()) != len) {
            if (++bad <= 10) {
                progress_clear();
                std::fprintf(stderr, "kisam load: %s: line %llu: malformed record line%s\n", inname.c_str(),
                             static_cast<unsigned long long>(lineno),
                             rec ? " (its length does not match its bytes)" : "");
            }
            continue;
        }
        // A failure of the library stops the load at this line.
        auto stop = [&]() {
            rc = lib_error("load", file + " (line " + std::to_string(lineno) + ")");
            failed = true;
            stopped_at = lineno;
        };
        if (in_batch == 0 && nisgetctl(f.fd) != 0) {
            stop();
            break;
        }
        ++in_batch;
        int r = niswrite(f.fd, rec->data(), int(rec->size()));
        if (r < 0) {
            stop();
            break;
        }
        if (r == 1) {
            if (++duplicates <= 10) {
                progress_clear();
                std::fprintf(stderr, "kisam load: line %llu: key 0 = \"%s\" exists already; record skipped\n",
                             static_cast<unsigned long long>(lineno),
                             show(std::string_view(*rec).substr(0, size_t(f.keylens[0]))).c_str());
            }
        } else {
            prog.update(++loaded, in.consumed());
        }
        if (in_batch == kBatch) {
            in_batch = 0;
            if (!release_ctl(f.fd)) {
                stop();
                break;
            }
        }
    }
    // The last batch's release (after a failure the hold is only given back: the first
    // failure is the one reported).
    if (in_batch && !release_ctl(f.fd) && !failed) {
        rc = lib_error("load", file);
        failed = true;
    }
    progress_clear();
    if (g_interrupted) return interrupted("load", " after " + std::to_string(loaded) + " records");
    if (stopped_at)
        fail("load", "stopped at line " + std::to_string(stopped_at) + "; the lines after it were not read");
    if (duplicates > 10) std::fprintf(stderr, "kisam load: ... %llu duplicates in all\n", static_cast<unsigned long long>(duplicates));
    if (bad > 10) std::fprintf(stderr, "kisam load: ... %llu malformed lines in all\n", static_cast<unsigned long long>(bad));
    // After a failure of the library (reported above) the rest of the input is unread.
    if (failed) {
        // the summary follows
    } else if (in.error()) {
        rc = read_error();
    } else if (!ended) {
        rc = fail("load", inname + ": the dump has no closing line: it may have been cut short");
    } else if (declared >= 0 && uint64_t(declared) != lines) {
        rc = fail("load", inname + ": the closing line counts " + std::to_string(declared) + " records, the dump holds " +
                              std::to_string(lines) + ": records were lost or added");
    }
    std::fprintf(stderr, "loaded %llu records into %s", static_cast<unsigned long long>(loaded), file.c_str());
    if (duplicates) std::fprintf(stderr, ", %llu duplicates skipped", static_cast<unsigned long long>(duplicates));
    if (bad) std::fprintf(stderr, ", %llu malformed lines skipped", static_cast<unsigned long long>(bad));
    std::fprintf(stderr, "%s\n", failed ? " before the failure" : "");
    return (duplicates || bad) ? EXIT_FAIL : rc;
}

}  // namespace kisam_tool
