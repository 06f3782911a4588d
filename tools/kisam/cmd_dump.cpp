// kisam dump / load: a file's records to and from the dump form, through the engine.
#include "open_file.h"
#include "salvage.h"
#include "tool.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool {

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
