// kisam get / scan / put / del: records through the engine.
//
// Records are shown one per line in the escaped text form (tool.h); a record image
// begins with the key values in key order, so the value of key i sits at the sum of the
// lengths of keys 0 .. i-1.
#include "json.h"
#include "tool.h"
#include "open_file.h"

#include <algorithm>
#include <climits>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool {
namespace {

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

}  // namespace kisam_tool
