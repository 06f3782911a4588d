// kisam backup and kisam compact: a copy of a file in use, and a file rewritten densely;
// and the settling of a rollback that an interrupted call left pending, which the
// commands that read a file directly do first.
#include "tool.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef KISAM_TOOL_HAVE_CHECK
#include "kcheck.h"
#endif

namespace kisam_tool {

// ---- a pending rollback ----------------------------------------------------------------------

int settle_first(const std::string& cmd, const std::string& file, bool* newer_log) {
    if (newer_log) *newer_log = false;
    struct stat st;
    if (::stat(file.c_str(), &st) != 0) return EXIT_OK;   // the command reports a missing file
    apply_config_choice();
    // Without a configuration there is no journal to ask: nothing can be pending.
    // 2: calls still only in the file's redo log (normal while programs use the file); they
    // are written into it first, without a word -- a replay after a crash says so itself.
    const int pending = kisam_pending(file.c_str());
    if (pending == 3) {
        if (newer_log) *newer_log = true;
        progress_clear();
        std::fprintf(stderr,
                     "kisam %s: %s: a redo log written by a newer version of the library names this file; this "
                     "version cannot replay it, so the file on disk may lack calls made on it, and this version "
                     "refuses to open it.  Open the file with the newer version first (its open writes the calls "
                     "in)\n",
                     cmd.c_str(), file.c_str());
        return EXIT_PENDING;
    }
    if (pending != 1 && pending != 2) return EXIT_OK;
    clear_lib_error();
    const int rc = kisam_settle(file.c_str());
    if (rc >= 0) {
        if (rc == 1 && pending == 1) {
            progress_clear();
            std::fprintf(stderr,
                         "kisam %s: %s: a rollback left by an interrupted call (a killed process, or a write the "
                         "disk refused) was applied first\n",
                         cmd.c_str(), file.c_str());
        }
        return EXIT_OK;
    }
    char buf[1100];
    niserrmsgget(buf, sizeof buf);
    progress_clear();
    std::fprintf(stderr,
                 "kisam %s: %s: a rollback left by an interrupted call is pending and could not be applied now "
                 "(%s); it will be applied at the next open of the file.  Until then the file on disk holds that "
                 "call half done, which is not damage: free the disk space, then run 'kisam %s' again\n",
                 cmd.c_str(), file.c_str(), buf[0] ? buf : "failed", cmd.c_str());
    return EXIT_PENDING;
}

namespace {

long long file_size(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? (long long)st.st_size : -1;
}

std::string dir_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string base_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void sync_dir(const std::string& path) {
    int fd = ::open(dir_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

std::string bytes_text(long long n) {
    char b[64];
    if (n >= 10 * 1024 * 1024) std::snprintf(b, sizeof b, "%lld bytes (%.1f MiB)", n, double(n) / (1024.0 * 1024.0));
    else if (n >= 10 * 1024) std::snprintf(b, sizeof b, "%lld bytes (%.1f KiB)", n, double(n) / 1024.0);
    else std::snprintf(b, sizeof b, "%lld bytes", n);
    return b;
}

// What the verification of a backup found, for the message when it refuses the copy.
struct VerifyState {
    std::string problem;
};

extern "C" int verify_copy(const char* copy, void* arg) {
    auto* v = static_cast<VerifyState*>(arg);
    // An interrupt during the copy: refuse it, so that nothing is left under DEST.
    if (g_interrupted) {
        v->problem = "interrupted";
        return 1;
    }
#ifdef KISAM_TOOL_HAVE_CHECK
    kisam::check::Report rep = kisam::check::check_file(copy);
    if (!rep.ok) {
        v->problem = rep.error.empty() ? "the copy is not sound" : rep.error;
        return 1;
    }
#else
    (void)copy;
#endif
    if (g_interrupted) {
        v->problem = "interrupted";
        return 1;
    }
    return 0;
}

// Processes that have the file of `st` open in the shared area, this one included: the
// sum of the use counts of its slots (a file opened sequentially has a slot of its own).
int users_of(const struct stat& st) {
    const auto* com = static_cast<const struct isam_com*>(ZTKISAMGetComAddr());
    if (!com) return -1;
    const char* base = reinterpret_cast<const char*>(com);
    const int32_t* pfo = reinterpret_cast<const int32_t*>(base + com->pfo_base);
    int n = 0;
    for (int i = 0; i < com->maxopen; ++i) {
        if (pfo[i] < 0) continue;
        const auto* fcp = reinterpret_cast<const IS_FCP*>(base + com->heap_base + pfo[i]);
        if (fcp->jd_ino == uint64_t(st.st_ino) && fcp->jd_dev == uint64_t(st.st_dev)) n += fcp->is_usecnt;
    }
    return n;
}

}  // namespace

// ---- kisam backup ------------------------------------------------------------------------------

int cmd_backup(std::vector<std::string> words) {
    Args a("backup", std::move(words));
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 2) return usage_error("backup", "expected FILE and DEST");
    const std::string& file = a.pos()[0];
    std::string dest = a.pos()[1];
    struct stat st;
    if (::stat(file.c_str(), &st) != 0) return fail("backup", file + ": " + std::strerror(errno));
    // A directory as DEST receives the copy under the file's own name.
    if (::stat(dest.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) dest += "/" + base_of(file);
    {
        struct stat a1, a2;
        if (::stat(file.c_str(), &a1) == 0 && ::stat(dest.c_str(), &a2) == 0 && a1.st_dev == a2.st_dev &&
            a1.st_ino == a2.st_ino)
            return fail("backup", dest + " is " + file + " itself");
    }
    Session s("backup");
    if (!s.attach()) return EXIT_FAIL;
    VerifyState v;
    long held = 0;
    clear_lib_error();
    const auto t0 = std::chrono::steady_clock::now();
    const int rc = kisam_backup(file.c_str(), dest.c_str(), verify_copy, &v, &held);
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc != 0) {
        if (g_interrupted) return interrupted("backup", "; nothing was written under " + dest);
        if (is_errno == ISE_BTS && !v.problem.empty()) {
            fail("backup", file + ": the copy did not check sound (" + v.problem + "); nothing was written under " + dest);
            return EXIT_FAIL;
        }
        lib_error("backup", file + " to " + dest);
        return fail("backup", "nothing was written under " + dest);
    }
    char held_text[64];
    if (held >= 1000) std::snprintf(held_text, sizeof held_text, "%.1f ms", double(held) / 1000.0);
    else std::snprintf(held_text, sizeof held_text, "%ld us", held);
    std::printf("backed up %s to %s: %s, checked sound; writers were held for %s (the whole backup took %.2f s)\n",
                file.c_str(), dest.c_str(), bytes_text(file_size(dest)).c_str(), held_text, secs);
    return EXIT_OK;
}

// ---- kisam compact ------------------------------------------------------------------------------

int cmd_compact(std::vector<std::string> words) {
    Args a("compact", std::move(words));
    if (!a.parse()) return EXIT_USAGE;
    if (a.pos().size() != 1) return usage_error("compact", "expected one FILE");
    const std::string& file = a.pos()[0];
    struct stat orig;
    if (::stat(file.c_str(), &orig) != 0) return fail("compact", file + ": " + std::strerror(errno));
    if (!S_ISREG(orig.st_mode)) return fail("compact", file + ": not a regular file");
    ControlPage cp;
    {
        int fd = ::open(file.c_str(), O_RDONLY);
        if (fd < 0) return fail("compact", file + ": " + std::strerror(errno));
        std::string err;
        const bool ok = read_control_page(fd, cp, err);
        ::close(fd);
        if (!ok) return fail("compact", file + ": " + err);
    }
    if (cp.nkeys < 1) return fail("compact", file + ": the file has no keys, so it holds no records");
    const std::string tmp = dir_of(file) + "/." + base_of(file) + ".compact" + std::to_string(::getpid());
    const std::string old = dir_of(file) + "/." + base_of(file) + ".precompact" + std::to_string(::getpid());
    if (tmp.size() > 127 || old.size() > 127)
        return fail("compact", file + ": the name is too long for the temporary file beside it (127 characters at most)");
    const long long before = (long long)orig.st_size;

    Session s("compact");
    if (!s.attach()) return EXIT_FAIL;
    const int fd = s.open(file, ISO_RDWR);
    if (fd < 0) return EXIT_FAIL;
    auto refuse_open = [&](int users) {
        s.close(fd);
        return fail("compact", file + ": the file is open in " + std::to_string(users - 1) + " other process" +
                                   (users == 2 ? "" : "es") +
                                   "; compact rewrites it and needs it closed everywhere (see 'kisam stat')");
    };
    // Refused while any other process has the file open: it would go on using the old
    // file, and its changes would be lost with it.
    if (int u = users_of(orig); u != 1) return refuse_open(u);

    // The new file is made before the control lock is taken: creating takes the lock of
    // the shared-file table, which is always taken before a control lock.
    std::vector<int> lens;
    for (const auto& k : cp.keys) lens.push_back(k.keylen);
    const bool keyopt = cp.optbits & ISO_KEYOPT;
    niscr_ctl(keyopt ? 1 : 0, cp.small_header() ? 512 : 1024);
    const int nkeys = int(lens.size());
    const int tfd = niscreate(tmp.c_str(), keyopt ? -nkeys : nkeys, lens.data());
    if (tfd < 0) {
        lib_error("compact", tmp);
        s.close(fd);
        return EXIT_FAIL;
    }
    bool tmp_open = true;
    auto give_up = [&](int status) {
        if (tmp_open) nisclose(tfd);
        tmp_open = false;
        ::unlink(tmp.c_str());
        return status;
    };
    // From here to the rename the control lock is held: a process that opens the file
    // meanwhile can make no call on it, and is seen by the count of users.
    if (nisgetctl(fd) != 0) {
        lib_error("compact", file);
        give_up(0);
        s.close(fd);
        return EXIT_FAIL;
    }
    bool held = true;
    auto finish = [&](int status) {
        if (held) release_ctl(fd);
        held = false;
        if (status != EXIT_OK) give_up(status);
        s.close(fd);
        return status;
    };
    if (int u = users_of(orig); u != 1) {
        release_ctl(fd);
        held = false;
        give_up(0);
        return refuse_open(u);
    }
    // Records come in key 0 order: splitting an index page at the insertion point leaves
    // key 0's pages full instead of half full.
    const short split_rule = Sp_half;
    Sp_half = 0;
    std::vector<char> rec(KISAM_MAXREC + 1);
    uint64_t n = 0;
    {
        Progress prog("compact " + file, 0);
        while (true) {
            if (g_interrupted) return finish(interrupted("compact", "; " + file + " is unchanged"));
            const int len = nisread(fd, 0, rec.data(), int(rec.size()));
            if (len < 0) {
                lib_error("compact", file);
                return finish(fail("compact", file + " is unchanged"));
            }
            if (len == 0) break;
            const int w = niswrite(tfd, rec.data(), len);
            if (w != 0) {
                if (w < 0) lib_error("compact", tmp);
                else fail("compact", tmp + ": a key 0 value came twice");
                return finish(fail("compact", file + " is unchanged"));
            }
            prog.update(++n);
        }
    }
    Sp_half = split_rule;
    // The new file complete on disk: its control page written, its blocks synced, its
    // owner and mode those of the file it replaces.
    clear_lib_error();
    if (nisflush(tfd) != 0 || is_etop) {
        lib_error("compact", tmp);
        return finish(fail("compact", file + " is unchanged"));
    }
    {
        int sfd = ::open(tmp.c_str(), O_RDONLY | O_CLOEXEC);
        bool ok = sfd >= 0 && ::fsync(sfd) == 0;
        if (ok && (orig.st_uid != ::geteuid() || orig.st_gid != ::getegid()))
            ok = ::fchown(sfd, orig.st_uid, orig.st_gid) == 0 || (errno == EPERM && orig.st_uid == ::geteuid());
        if (ok) ok = ::fchmod(sfd, orig.st_mode & 07777) == 0;
        const int e = errno;
        if (sfd >= 0) ::close(sfd);
        if (!ok) return finish(fail("compact", tmp + ": " + std::strerror(e) + "; " + file + " is unchanged"));
    }
#ifdef KISAM_TOOL_HAVE_CHECK
    {
        kisam::check::Report rep = kisam::check::check_file(tmp);
        if (!rep.ok || rep.keys.empty() || uint64_t(rep.keys[0].items) != n)
            return finish(fail("compact", "the rewritten file did not check sound (" +
                                              (rep.ok ? std::string("its record count differs") : rep.error) + "); " +
                                              file + " is unchanged"));
    }
#endif
    if (g_interrupted) return finish(interrupted("compact", "; " + file + " is unchanged"));
    if (int u = users_of(orig); u != 1) {
        finish(EXIT_FAIL);
        return fail("compact", file + ": another process opened the file meanwhile; " + file + " is unchanged");
    }
    // A second name for the old file while the new one takes its name: should a process
    // have joined the old file between the count above and the rename, the old file is
    // put back and that process keeps working on the file it opened.
    const bool kept_old = ::link(file.c_str(), old.c_str()) == 0;
    if (::rename(tmp.c_str(), file.c_str()) != 0) {
        const int e = errno;
        if (kept_old) ::unlink(old.c_str());
        return finish(fail("compact", "cannot rename " + tmp + " to " + file + ": " + std::strerror(e) + "; " + file +
                                          " is unchanged"));
    }
    if (int u = users_of(orig); u != 1 && !kept_old) {
        progress_clear();
        std::fprintf(stderr, "kisam compact: warning: a process opened %s while it was being replaced and goes on "
                             "using the old file: what it changes there is lost\n", file.c_str());
    } else if (u != 1) {
        ::rename(old.c_str(), file.c_str());
        sync_dir(file);
        finish(EXIT_FAIL);
        return fail("compact", file + ": another process opened the file meanwhile; " + file + " is unchanged");
    }
    if (kept_old) ::unlink(old.c_str());
    sync_dir(file);
    release_ctl(fd);
    held = false;
    // The new file's descriptor goes last: a process that opens the file now shares it.
    s.close(fd);
    nisclose(tfd);
    tmp_open = false;
    const long long after = file_size(file);
    std::printf("compacted %s: %llu records; %s before, %s after", file.c_str(), static_cast<unsigned long long>(n),
                bytes_text(before).c_str(), bytes_text(after).c_str());
    if (after >= 0 && after < before) std::printf(" (%s given back)", bytes_text(before - after).c_str());
    std::printf("\n");
    return EXIT_OK;
}

}  // namespace kisam_tool
