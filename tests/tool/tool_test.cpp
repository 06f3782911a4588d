// The kisam tool, run as a separate process in a private installation: a temporary
// directory with its own configuration file, HOME, HOME_Q9 and PROFILEQ9ENV, checked by
// output and exit status.  Every test leaves no shared segment behind.
#include "tool_fixture.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <iterator>
#include <string>
#include <vector>

namespace {

class Tool : public ToolInstallation {
protected:
    void init_config() {
        Result r = run({"config", "init", cfg, "--buffers", "32", "--files", "8", "--users", "8"});
        ASSERT_EQ(r.rc, 0) << r.err;
    }
};

TEST_F(Tool, ConfigurationAndUsage) {
    // None found: the message says how to create one.
    Result r = run({"get", path("f"), "x"}, "", /*with_config=*/false);
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "kisam config init") && has(r.err, "/q9/kisamconfig")) << r.err;

    r = run({"config", "init", cfg, "--files", "10", "--buffers", "4", "--users", "5", "--avg-alt-keys", "2",
                    "--lock-key-len", "10", "--locks-per-file", "4", "--track-changes", "--clear-on-release"});
    ASSERT_EQ(r.rc, 0) << r.err;
    std::string b = slurp(cfg);
    r = run({"config", "show", cfg});
    EXPECT_EQ(r.rc, 0) << r.err;
    // The documented regions end at 8192; the library's own state follows them.
    EXPECT_TRUE(has(r.out, "library state         at 8192") && has(r.out, "cleared after every change")) << r.out;
    EXPECT_EQ(run({"config", "init", cfg}).rc, 1) << "an existing configuration is kept";
    EXPECT_EQ(slurp(cfg), b);

    EXPECT_EQ(run({"config", "init", cfg, "--buffers", "12x", "--force"}).rc, 2);
    EXPECT_EQ(run({"create", path("f")}).rc, 2);
    EXPECT_EQ(run({"scan", path("f"), "--limit"}).rc, 2);
}

// config init --access: who may use the installation is the lock file's mode, and the
// library gives the journals the same.
TEST_F(Tool, ConfigurationForOneUserOneGroupOrEveryone) {
    auto mode = [](const std::string& p) {
        struct stat st;
        return ::stat(p.c_str(), &st) == 0 ? st.st_mode & 07777 : 01;
    };
    struct Case {
        std::string access;
        mode_t conf, lock;
        const char* said;
    } cases[] = {{"user", 0600, 0600, "alone (lock file mode 0600"},
                 {"group:65534", 0640, 0660, "(lock file mode 0660"},
                 {"all", 0644, 0666, "every user of this host (lock file mode 0666)"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.access);
        if (c.access == "group:65534" && ::geteuid() != 0) continue;  // only members and root may
        ::unlink((cfg + ".lk").c_str());
        ::unlink((cfg + ".lk.u0").c_str());
        Result r = run({"config", "init", cfg, "--buffers", "32", "--files", "8", "--users", "8", "--force",
                        "--access", c.access});
        ASSERT_EQ(r.rc, 0) << r.err;
        EXPECT_TRUE(has(r.out, c.said)) << r.out;
        EXPECT_EQ(mode(cfg), c.conf);
        EXPECT_EQ(mode(cfg + ".lk"), c.lock);
        ASSERT_EQ(run({"create", path("f"), "8", "--force"}).rc, 0);
        ASSERT_EQ(run({"put", path("f"), "00000001rest"}).rc, 0);
        EXPECT_EQ(mode(cfg + ".lk.u0"), c.lock & 0666) << "the journal follows the lock file";
        if (c.access == "group:65534") {
            struct stat st;
            ASSERT_EQ(::stat((cfg + ".lk").c_str(), &st), 0);
            EXPECT_EQ(st.st_gid, 65534u);
        }
    }
    EXPECT_EQ(run({"config", "init", cfg, "--force", "--access", "nobody"}).rc, 2);
    EXPECT_EQ(run({"config", "init", cfg, "--force", "--access", "group:no-such-group-here"}).rc, 2);
}

TEST_F(Tool, RecordsByEveryKey) {
    init_config();
    const std::string f = path("cust");
    ASSERT_EQ(run({"create", f, "4,6,3"}).rc, 0);
    EXPECT_EQ(run({"create", f, "4"}).rc, 1) << "an existing file is kept";
    // key 0 (4 bytes), key 1 (6), key 2 (3), then free text.
    const std::string r1 = "C001smith_NYCfirst\n", r2 = "C002jones_LAXsecond\n", r3 = "C003smith_SFOthird\\x00\\xff\n",
                      r4 = "C004brown_NYCfourth\n";
    Result r = run({"put", f, "-"}, r1 + r2 + r3 + r4);
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(run({"put", f, "C002other_BOSdup"}).rc, 1) << "a key 0 value already there";

    EXPECT_EQ(run({"get", f, "C003"}).out, r3);
    EXPECT_EQ(run({"get", f, "LAX", "--key", "2"}).out, r2);
    // A shorter value is a prefix; among equal alternate values the smallest key 0 wins.
    EXPECT_EQ(run({"get", f, "smi", "--key", "1"}).out, r1);
    EXPECT_EQ(run({"get", f, "C009"}).rc, 1);

    EXPECT_EQ(run({"scan", f, "--key", "1", "--from", "smith", "--to", "smith"}).out, r1 + r3);
    EXPECT_EQ(run({"scan", f, "--key", "2", "--from", "NYC", "--backward"}).out, r4 + r1 + r2);
    EXPECT_EQ(run({"scan", f, "--backward", "--from", "C003", "--to", "C002"}).out, r3 + r2);
    EXPECT_EQ(run({"scan", f, "--from", "C002", "--limit", "2"}).out, r2 + r3);

    EXPECT_EQ(run({"put", f, "C002jones_BOSmoved", "--replace"}).rc, 0);
    EXPECT_EQ(run({"get", f, "BOS", "--key", "2"}).out, "C002jones_BOSmoved\n");
    EXPECT_EQ(run({"get", f, "LAX", "--key", "2"}).rc, 1) << "the old alternate value is gone";
    EXPECT_EQ(run({"del", f, "C003", "C777"}).rc, 1) << "one key did not exist";
    EXPECT_EQ(run({"scan", f, "--count"}).out, "3\n");
    r = run({"get", path("absent"), "a"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "ISE_OPENF")) << r.err;

    // A file whose end lies where no further page can be numbered (its control page says
    // so: free chain and end at 4 GiB - 1 KiB): the ceiling is named.
    const std::string full = path("full");
    ASSERT_EQ(run({"create", full, "4"}).rc, 0);
    {
        const uint32_t end[2] = {0xFFFFFC00u, 0xFFFFFC00u};  // is_nextfree, is_lastpage
        const int os = ::open(full.c_str(), O_WRONLY);
        ASSERT_EQ(::pwrite(os, end, sizeof end, 4), static_cast<ssize_t>(sizeof end));
        ::close(os);
    }
    r = run({"put", full, "abcd"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "4 GiB")) << r.err;
}

std::string random_bytes(std::mt19937_64& rng, size_t n) {
    // Mostly the bytes that stress the text form.
    static const unsigned char special[] = {0, '\\', '\n', '\r', 'x', ' ', 0x7f, 0x80, 0xff, '#'};
    std::string s;
    while (s.size() < n) s += char(rng() % 3 == 0 ? special[rng() % sizeof special] : rng() % 256);
    return s;
}

std::string escape_model(const std::string& b) {
    std::string out;
    char h[8];
    for (unsigned char c : b) {
        std::snprintf(h, sizeof h, c == '\\' ? "\\\\" : c >= 0x20 && c < 0x7f ? "%c" : "\\x%02x", c);
        out += h;
    }
    return out;
}

TEST_F(Tool, DumpAndLoadAreExactForAnyBytes) {
    init_config();
    const char* env = std::getenv("KISAM_SEED");
    uint64_t seed = env ? std::strtoull(env, nullptr, 0) : 20261122;
    std::mt19937_64 rng(seed);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));

    for (bool keyopt : {false, true}) {
        const std::string a = path(keyopt ? "a_opt" : "a"), b = path(keyopt ? "b_opt" : "b");
        std::vector<std::string> cargs{"create", a, "5,3"};
        if (keyopt) cargs.push_back("--key-in-index");
        ASSERT_EQ(run(cargs).rc, 0);
        std::map<std::string, std::string> model;
        std::string input;
        for (int i = 0; i < 400; ++i) {
            size_t len = 8 + (i % 50 == 0 ? rng() % 3000 : rng() % 120);   // some need overflow pages
            std::string rec = random_bytes(rng, len);
            if (keyopt && i % 97 == 0) rec.resize(5 + 3);                  // only the keys
            if (model.emplace(rec.substr(0, 5), rec).second) input += escape_model(rec) + "\n";
        }
        Result r = run({"put", a, "-"}, input);
        ASSERT_EQ(r.rc, 0) << r.err;

        std::string expect = "# kisam dump 1\n# keys 5,3" + std::string(keyopt ? " key-in-index" : "") + "\n";
        for (const auto& [k, rec] : model) expect += std::to_string(rec.size()) + " " + escape_model(rec) + "\n";
        expect += "# end " + std::to_string(model.size()) + " records\n";
        r = run({"dump", a});
        ASSERT_EQ(r.rc, 0) << r.err;
        ASSERT_EQ(r.out, expect);

        // Into a new file and back: the same text.
        spit(path("d.txt"), r.out);
        r = run({"load", b, path("d.txt")});
        ASSERT_EQ(r.rc, 0) << r.err;
        EXPECT_EQ(run({"dump", b}).out, expect);
        EXPECT_EQ(run({"check", b}).rc, 0);
        // Loading again finds every record present: reported, nothing changes.
        EXPECT_EQ(run({"load", b}, expect).rc, 1);
        EXPECT_EQ(run({"dump", b}).out, expect);
    }
}

// A sound file, checked clean, then damaged in one way per test.
class DamagedFile : public Tool {
protected:
    std::string f;
    void SetUp() override {
        Tool::SetUp();
        init_config();
        f = path("dmg");
        ASSERT_EQ(run({"create", f, "6,8"}).rc, 0);
        std::string in;
        char b[64];
        for (int i = 0; i < 2000; ++i)
            in += std::string(b, std::snprintf(b, sizeof b, "R%05dALT%05d some data %d\n", i, i * 7919 % 100000, i));
        ASSERT_EQ(run({"put", f, "-"}, in).rc, 0);
        ASSERT_EQ(run({"del", f, "R00100", "R00101", "R00102"}).rc, 0);
        ASSERT_EQ(run({"check", f}).rc, 0) << "a sound file";
    }
    void poke(off_t off, const std::string& bytes) {
        int fd = ::open(f.c_str(), O_RDWR);
        EXPECT_EQ(::pwrite(fd, bytes.data(), bytes.size(), off), ssize_t(bytes.size()));
        ::close(fd);
    }
    void TearDown() override {
        Result r = run({"check", f});
        EXPECT_EQ(r.rc, 1) << r.out;
        EXPECT_TRUE(has(r.out, "DAMAGED")) << r.out;
        Tool::TearDown();
    }
};

TEST_F(DamagedFile, RecordKeyChangedBehindTheIndex) {
    size_t at = slurp(f).find("ALT");
    ASSERT_NE(at, std::string::npos);
    poke(off_t(at) + 3, "X");
}

TEST_F(DamagedFile, FreeChainLoops) {
    std::string cp = slurp(f).substr(0, 512);
    uint32_t head, end;
    std::memcpy(&head, cp.data() + 4, 4);
    std::memcpy(&end, cp.data() + 8, 4);
    ASSERT_NE(head, end) << "deleting should have freed a page";
    poke(off_t(head) + 4, std::string(reinterpret_cast<const char*>(&head), 4));   // points to itself
    Result r = run({"info", f});
    EXPECT_EQ(r.rc, 1) << "info that lists a problem says so in its status";
    EXPECT_TRUE(has(r.out, "problem") && has(r.out, "loop")) << r.out;
}

TEST_F(DamagedFile, DumpStopsAtADamagedDataPage) {
    // The segment header in front of a record's bytes: its length now runs off the page.
    size_t at = slurp(f).find("R00005ALT");
    ASSERT_NE(at, std::string::npos);
    const char runs_off[2] = {char(0xFF), char(0x83)};
    poke(off_t(at) - 2, std::string(runs_off, 2));
    Result r = run({"dump", f});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "ISE_BTS") && has(r.err, "dr_get")) << r.err;
    EXPECT_TRUE(has(r.out, "R00004ALT")) << "the records before it are written";
    EXPECT_FALSE(has(r.out, "# end")) << "a dump cut short has no closing line";
}

// Exit statuses as documented: 1 nothing found or damage, 2 usage, 3 unreadable, 130 interrupted.
TEST_F(Tool, ExitStatusesAndRanges) {
    init_config();
    const std::string f = path("e");
    ASSERT_EQ(run({"create", f, "4,3"}).rc, 0);
    ASSERT_EQ(run({"put", f, "-"}, "aaaaXYZone\naabbXYZtwo\nbbbbQQQthree\n").rc, 0);
    Result r = run({"scan", f, "--from", "c"});
    EXPECT_EQ(r.rc, 1) << "no record matched, as get";
    EXPECT_EQ(r.out, "");
    r = run({"scan", f, "--from", "zz", "--count"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "0\n");
    // A reversed range is a slip, reported as such; one value a prefix of the other is not.
    r = run({"scan", f, "--from", "bbbb", "--to", "aaaa"});
    EXPECT_EQ(r.rc, 2);
    EXPECT_TRUE(has(r.err, "reversed") && has(r.err, "--backward")) << r.err;
    EXPECT_EQ(run({"scan", f, "--from", "aaaa", "--to", "bbbb", "--backward"}).rc, 2);
    EXPECT_EQ(run({"scan", f, "--from", "aa", "--to", "a"}).out, "aaaaXYZone\naabbXYZtwo\n");
    EXPECT_EQ(run({"scan", f, "--from", "bbbb", "--to", "aab", "--backward"}).out, "bbbbQQQthree\naabbXYZtwo\n");

    // A file that cannot be read is not called damaged.
    r = run({"check", dir});
    EXPECT_EQ(r.rc, 3) << r.out << r.err;
    EXPECT_TRUE(has(r.err, "read error")) << r.err;
    EXPECT_FALSE(has(r.out, "DAMAGED")) << r.out;
    // A missing file cannot be read either (3); a file that is no ISAM file at all is said
    // to be so (1), not "damaged".
    EXPECT_EQ(run({"check", path("missing")}).rc, 3);
    spit(path("data.csv"), "id,name\n1,x\n");
    r = run({"check", path("data.csv")});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.out, "NOT AN ISAM FILE: unknown magic 0x6469")) << r.out;
    EXPECT_FALSE(has(r.out, "DAMAGED")) << r.out;
    r = run({"check", path("data.csv"), "--json"});
    EXPECT_EQ(nlohmann::json::parse(r.out)["status"], "not_isam");
    // A read error of load's input is one, not a dump cut short.
    r = run({"load", f, dir});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "read error") && has(r.err, "Is a directory")) << r.err;
    EXPECT_FALSE(has(r.err, "closing line")) << r.err;

    // Output that cannot be written fails the command, and a dump then has no closing line.
    // (.out made a link to /dev/full: the command writes there, and it is never read back.)
    auto to_full = [&](const std::vector<std::string>& args) {
        ::unlink((dir + "/.out").c_str());
        EXPECT_EQ(::symlink("/dev/full", (dir + "/.out").c_str()), 0);
        pid_t pid = start(args);
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        ::unlink((dir + "/.out").c_str());
        return Result{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), "", slurp(dir + "/.err")};
    };
    EXPECT_EQ(to_full({"scan", f}).rc, 1);
    r = to_full({"dump", f});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "No space left")) << r.err;
    r = run({"dump", f, "/dev/full"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "incomplete")) << r.err;

    // An interrupt ends a command with 130 after it detached.
    const std::string fifo = path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    pid_t pid = start({"put", f, "-"}, fifo);
    int fd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::write(fd, "ccccRRRfour\n", 12), 12);
    for (int i = 0; i < 500 && !has(slurp(f), "RRRfour"); ++i) ::usleep(10000);
    ::kill(pid, SIGINT);
    r = finish(pid);
    ::close(fd);
    EXPECT_EQ(r.rc, 130) << r.err;
    EXPECT_TRUE(has(r.err, "interrupted")) << r.err;
    EXPECT_EQ(run({"get", f, "cccc"}).out, "ccccRRRfour\n");
}

TEST_F(Tool, DeleteByPrefixAndFromStandardInput) {
    init_config();
    const std::string f = path("d");
    ASSERT_EQ(run({"create", f, "4"}).rc, 0);
    ASSERT_EQ(run({"put", f, "-"}, "ab01x\nab02x\nac01x\nb\\x00\\x00\\x00x\nzz99x\n").rc, 0);
    // A short value is a prefix that must match exactly one record.
    Result r = run({"del", f, "ab"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "more than one record") && has(r.err, "ab01") && has(r.err, "ab02")) << r.err;
    EXPECT_EQ(run({"del", f, "ac"}).rc, 0);
    EXPECT_EQ(run({"get", f, "ac01"}).rc, 1);
    EXPECT_EQ(run({"del", f, "b"}).rc, 0) << "a value filled with zero bytes is still found";
    r = run({"del", f, "q"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "no record with key 0 beginning with \"q\"")) << r.err;
    // Keys from standard input, one per line; a bad line is reported by number, the others done.
    r = run({"del", f, "-"}, "ab01\nnone\nzz\n");
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "line 2: no record")) << r.err;
    EXPECT_EQ(run({"scan", f}).out, "ab02x\n");
}

TEST_F(Tool, LoadChecksTheClosingCount) {
    init_config();
    const std::string text = "# kisam dump 1\n# keys 3\n3 abc\n3 abd\n";
    Result r = run({"load", path("l1")}, text + "# end 3 records\n");
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "counts 3 records, the dump holds 2")) << r.err;
    EXPECT_EQ(run({"load", path("l2")}, text + "# end 2 records\n").rc, 0);
    r = run({"load", path("l3")}, text + "# end two records\n");
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "malformed closing line")) << r.err;
}

TEST_F(Tool, ConfigurationRefusedAndNamed) {
    spit(path("text"), "This is a text file, long enough to be read as a configuration record.\n");
    Result r = run({"config", "show", path("text")});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "not a kisam configuration: " + path("text"))) << r.err;
    // A --config path that does not exist is named as given.
    r = run({"get", path("f"), "x"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, cfg + " (--config)")) << r.err;
    EXPECT_FALSE(has(r.err, "KISCONFIG)")) << r.err;
}

TEST_F(Tool, StatEveryWaitsForTheArea) {
    init_config();
    const std::string f = path("w");
    ASSERT_EQ(run({"create", f, "4"}).rc, 0);
    pid_t st = start({"stat", "--every", "1", "--count", "1"});
    ::usleep(300000);
    const std::string fifo = path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    std::fflush(nullptr);
    pid_t writer = ::fork();
    if (writer == 0) {
        // A program that stays attached: an engine user the area appears for.
        for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
            ::setenv(var, (dir + sub).c_str(), 1);
        int in = ::open(fifo.c_str(), O_RDONLY), nul = ::open("/dev/null", O_WRONLY);
        ::dup2(in, 0), ::dup2(nul, 1), ::dup2(nul, 2);
        ::execl(KISAM_TOOL_PATH, KISAM_TOOL_PATH, "--config", cfg.c_str(), "put", f.c_str(), "-", (char*)nullptr);
        ::_exit(127);
    }
    int fd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::write(fd, "abcdE\n", 6), 6);
    Result r = finish(st);
    ::close(fd);
    int status = 0;
    ::waitpid(writer, &status, 0);
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_TRUE(has(r.out, "waiting for a program to attach") && has(r.out, "shared area at")) << r.out;
}

// On a terminal the progress line is erased before the closing message.
TEST_F(Tool, ProgressLineIsErased) {
    init_config();
    std::string dump = "# kisam dump 1\n# keys 6\n";
    char b[64];
    for (int i = 0; i < 3000; ++i) dump += std::string(b, std::snprintf(b, sizeof b, "10 K%05dxxxx\n", i));
    dump += "# end 3000 records\n";
    spit(path("big.dump"), dump);
    std::fflush(nullptr);
    int master = -1;
    pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
            ::setenv(var, (dir + sub).c_str(), 1);
        ::execl(KISAM_TOOL_PATH, KISAM_TOOL_PATH, "--config", cfg.c_str(), "load", path("big").c_str(),
                path("big.dump").c_str(), (char*)nullptr);
        ::_exit(127);
    }
    std::string seen;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(master, buf, sizeof buf);
        if (n <= 0) break;   // EIO once the child has gone
        seen.append(buf, size_t(n));
    }
    ::close(master);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << seen;
    size_t at = seen.find("loaded 3000 records");
    ASSERT_NE(at, std::string::npos) << seen;
    EXPECT_TRUE(has(seen, "records (")) << "a progress line was shown: " << seen;
    EXPECT_EQ(seen.substr(at - 4, 4), "\r\033[K") << seen;
}

TEST_F(Tool, ImportAndExportCsv) {
    init_config();
    const std::string f = path("cust");
    ASSERT_EQ(run({"create", f, "4,6"}).rc, 0);
    const std::string fields = "id:4,name:6,city:5,rest:*";
    // Columns in another order than the fields: the header says which is which.
    const std::string csv =
        "name,id,rest,city\r\n"                      // 1
        "smith,C001,plain,NYC\r\n"                   // 2
        "\"jo,nes\",C002,\"says \"\"hi\"\"\nand more\",LA\r\n"   // 3-4: quoted, a line end inside
        "Mmmmm\xc3\xbc,C003,x,Z\xc3\xbcrich\n"      // 5: both cut, never inside the two-byte u
        "bad\"quote,C004,x,Y\n"                      // 6: a quote inside an unquoted value
        "short,C005,x\n"                             // 7: three fields of four
        "bin\xff,C006,x,Y\n"                         // 8: not UTF-8
        "again,C001,dup,NYC\n"                       // 9: key 0 present already
        "\n"                                         // 10: blank, skipped
        "last,C007,no newline at the end,SF";        // 11
    spit(path("in.csv"), csv);
    Result r = run({"import", f, path("in.csv"), "--fields", fields});
    EXPECT_EQ(r.rc, 1) << r.err;
    EXPECT_TRUE(has(r.err, "line 5: warning: field \"name\" cut from 7 to 5 bytes; field \"city\" cut from 7 to 5 bytes")) << r.err;
    EXPECT_TRUE(has(r.err, "line 6: bad quoting")) << r.err;
    EXPECT_TRUE(has(r.err, "line 7: 3 fields, expected 4")) << r.err;
    EXPECT_TRUE(has(r.err, "line 8: field \"name\": byte 4 is not valid UTF-8")) << r.err;
    EXPECT_TRUE(has(r.err, "imported 4 records into " + f + " from " + path("in.csv") +
                           "; 1 duplicates not loaded (lines 9); 3 lines rejected (lines 6, 7, 8)")) << r.err;
    EXPECT_EQ(run({"scan", f}).out,
              "C001smith NYC  plain\nC002jo,nesLA   says \"hi\"\\x0aand more\nC003Mmmmm Z\\xc3\\xbcrix\n"
              "C007last  SF   no newline at the end\n");

    // Out again: trailing blanks of the fixed fields dropped, quotes only where needed.
    r = run({"export", f, "--fields", "id:4,name:6,city:5,rest:*"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "id,name,city,rest\r\nC001,smith,NYC,plain\r\nC002,\"jo,nes\",LA,\"says \"\"hi\"\"\nand more\"\r\n"
                     "C003,Mmmmm,Z\xc3\xbcri,x\r\nC007,last,SF,no newline at the end\r\n");
    // ... which imports into an empty file as the same records.
    spit(path("out.csv"), r.out);
    ASSERT_EQ(run({"create", path("copy"), "4,6"}).rc, 0);
    r = run({"import", path("copy"), path("out.csv"), "--fields", fields});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(run({"dump", path("copy")}).out.substr(20), run({"dump", f}).out.substr(20));

    // JSON lines, one object per record, that a JSON parser reads back.
    r = run({"export", f, "--json", "--fields", fields});
    EXPECT_EQ(r.rc, 0) << r.err;
    std::vector<nlohmann::json> docs;
    size_t at = 0;
    for (size_t nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1)
        docs.push_back(nlohmann::json::parse(r.out.substr(at, nl - at)));
    ASSERT_EQ(docs.size(), 4u) << r.out;
    EXPECT_EQ(docs[1]["name"], "jo,nes");
    EXPECT_EQ(docs[1]["rest"], "says \"hi\"\nand more");
    EXPECT_EQ(docs[2]["city"], "Z\xc3\xbcri");

    // Layouts that cannot be: the first fields must be the keys, each as wide as its key.
    // Refused (2) before anything is read or written, naming the field and the key.
    const std::string before = run({"dump", f}).out;
    const struct { const char *cmd, *fields, *says; } refused[] = {
        {"import", "id:4,name:10,city:5,rest:*", "the field \"name\" is 10 bytes, key 1 is 6 bytes"},
        {"import", "id:3,name:6,city:5,rest:*", "the field \"id\" is 3 bytes, key 0 is 4 bytes"},
        {"import", "whole:10,rest:*", "the field \"whole\" is 10 bytes, key 0 is 4 bytes"},
        {"import", "id:4,rest:*", "the field \"rest\" is of any length (*), key 1 is 6 bytes"},
        {"import", "id:4", "no field for key 1 (6 bytes)"},
        {"import", "id:4,rest:*,name:6", "must be the last"},
        {"import", "id:4,id:6", "given twice"},
        {"export", "id:4,name:16,rest:*", "the field \"name\" is 16 bytes, key 1 is 6 bytes"},
        {"export", "id:2,name:6", "the field \"id\" is 2 bytes, key 0 is 4 bytes"},
    };
    for (const auto& c : refused) {
        const std::string out = path("refused.out");
        r = run({c.cmd, f, std::string(c.cmd) == "import" ? path("in.csv") : out, "--fields", c.fields});
        EXPECT_EQ(r.rc, 2) << c.fields;
        EXPECT_TRUE(has(r.err, c.says)) << r.err;
        EXPECT_NE(::access(out.c_str(), F_OK), 0) << c.fields << ": nothing written";
    }
    EXPECT_EQ(run({"dump", f}).out, before) << "nothing stored";
    // A header without a field of the layout: nothing loaded, said so.
    spit(path("h.csv"), "id,nom,city,rest\nC100,x,y,z\n");
    r = run({"import", f, path("h.csv"), "--fields", fields});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "no column \"name\"") && has(r.err, "imported 0 records")) << r.err;
    // A quote never closed swallows the rest: every line of it is named.
    spit(path("q.csv"), "id,name,city,rest\nC200,ok,x,y\nC201,\"open,x,y\nC202,z,x,y\n");
    r = run({"import", f, path("q.csv"), "--fields", fields});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "line 3: a quoted value is not closed before the end of the input (lines 3 to 4)")) << r.err;
    EXPECT_TRUE(has(r.err, "imported 1 records")) << r.err;
    // Without --fields: a field per key, then the rest.
    r = run({"export", f});
    EXPECT_TRUE(has(r.out, "key0,key1,rest\r\nC001,smith,NYC  plain\r\n")) << r.out;
}

TEST_F(Tool, JsonAndRawOutput) {
    init_config();
    const std::string f = path("j");
    ASSERT_EQ(run({"create", f, "3"}).rc, 0);
    ASSERT_EQ(run({"put", f, "-"}, "abcM\\xc3\\xbcller \"q\" \\\\ \\x01\nbinraw\\xff\\x00end\n").rc, 0);
    Result r = run({"get", f, "abc", "--json"});
    ASSERT_EQ(r.rc, 0) << r.err;
    auto j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["record"], "abcM\xc3\xbcller \"q\" \\ \x01");
    EXPECT_EQ(j["keys"][0], "abc");
    EXPECT_EQ(j["length"], 18);
    // Bytes that are not UTF-8: U+FFFD in the string, which any parser reads, and the bytes
    // exactly in NAME_base64 (for a key: keys_base64, every key).
    r = run({"get", f, "bin", "--json"});
    EXPECT_EQ(r.out, "{\"length\":11,\"keys\":[\"bin\"],\"record\":\"binraw\xef\xbf\xbd\\u0000end\","
                     "\"record_base64\":\"YmlucmF3/wBlbmQ=\"}\n");
    ASSERT_EQ(run({"put", f, "\\xffzzkey\\xfe"}).rc, 0);
    j = nlohmann::json::parse(run({"get", f, "\\xffzz", "--json"}).out);
    EXPECT_EQ(j["keys_base64"], nlohmann::json::array({"/3p6"}));
    EXPECT_EQ(j["record_base64"], "/3p6a2V5/g==");
    // scan --json is JSON Lines; --json-array one document (what json.load reads).
    r = run({"scan", f, "--json"});
    size_t lines = 0;
    for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1, ++lines)
        EXPECT_TRUE(nlohmann::json::parse(r.out.substr(at, nl - at)).is_object());
    EXPECT_EQ(lines, 3u);
    j = nlohmann::json::parse(run({"scan", f, "--json-array"}).out);
    ASSERT_TRUE(j.is_array() && j.size() == 3) << j.dump();
    EXPECT_EQ(j[1]["record_base64"], "YmlucmF3/wBlbmQ=");
    r = run({"scan", f, "--from", "\\xff\\xff", "--json-array"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.out, "[]\n");
    j = nlohmann::json::parse(run({"export", f, "--json-array"}).out);
    ASSERT_EQ(j.size(), 3u) << j.dump();
    EXPECT_EQ(j[1]["rest_base64"], "cmF3/wBlbmQ=");
    EXPECT_EQ(j[2]["key0_base64"], "/3p6");
    EXPECT_EQ(run({"scan", f, "--json", "--json-array"}).rc, 2);
    ASSERT_EQ(run({"del", f, "\\xffzz"}).rc, 0);
    r = run({"get", f, "bin", "--raw"});
    EXPECT_EQ(r.out, std::string("binraw\xff\0end", 11));
    r = run({"scan", f, "--json", "--count"});
    EXPECT_EQ(nlohmann::json::parse(r.out)["count"], 2);
    EXPECT_EQ(run({"scan", f, "--json", "--raw"}).rc, 2);

    r = run({"info", f, "--json"});
    EXPECT_EQ(r.rc, 0) << r.err;
    j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["records"], 2);
    EXPECT_EQ(j["keys"][0]["length"], 3);
    EXPECT_TRUE(j["problems"].empty());
    r = run({"check", f, "--json"});
    EXPECT_EQ(r.rc, 0) << r.err;
    j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["status"], "sound");
    EXPECT_EQ(j["records"], 2);
    r = run({"check", dir, "--json"});
    EXPECT_EQ(r.rc, 3);
    EXPECT_EQ(nlohmann::json::parse(r.out)["status"], "unreadable");

    // stat --json while a program holds the file open.
    const std::string fifo = path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    std::fflush(nullptr);
    pid_t pid = start({"put", f, "-"}, fifo);
    int fd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::write(fd, "xyz1\n", 5), 5);
    for (int i = 0; i < 500 && !has(slurp(f), "xyz1"); ++i) ::usleep(10000);
    // The writer's own output files are .out/.err: stat goes to others.
    std::vector<std::string> argv{KISAM_TOOL_PATH, "--config", cfg, "stat", f, "--json"};
    std::string cmd;
    for (auto& a : argv) cmd += "'" + a + "' ";
    cmd = "HOME=" + dir + "/home HOME_Q9=" + dir + "/q9 PROFILEQ9ENV=" + dir + "/home/.Q9.profile " + cmd + " > " + dir + "/stat.json";
    EXPECT_EQ(std::system(cmd.c_str()), 0);
    ::close(fd);
    finish(pid);
    j = nlohmann::json::parse(slurp(dir + "/stat.json"));
    ASSERT_EQ(j["files"].size(), 1u) << j.dump();
    EXPECT_EQ(j["files"][0]["name"], f);
    EXPECT_EQ(j["files"][0]["users"], 1) << "the writer; stat opens nothing";
}

TEST_F(Tool, StatSeesProcessesAndTheDead) {
    init_config();
    const std::string f = path("s");
    ASSERT_EQ(run({"create", f, "4"}).rc, 0);
    // Writers that stay attached while they wait for more input.
    pid_t pid[2];
    int fd[2];
    const char* rec[2] = {"abcdEFGH\n", "wxyz1234\n"};
    for (int i = 0; i < 2; ++i) {
        std::string fifo = path("fifo" + std::to_string(i));
        ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
        pid[i] = start({"put", f, "-"}, fifo);
        fd[i] = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd[i], 0);
        ASSERT_EQ(::write(fd[i], rec[i], 9), 9);
    }
    // Once their records are on disk, both writers are attached with the file open.
    for (int i = 0; i < 500 && !(has(slurp(f), "EFGH") && has(slurp(f), "1234")); ++i) ::usleep(10000);

    Result r = run({"stat"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_TRUE(has(r.out, "processes 3 attached")) << r.out;
    EXPECT_TRUE(has(r.out, "used by 2 processes")) << r.out;
    EXPECT_TRUE(has(r.out, "pid " + std::to_string(pid[0]))) << r.out;

    // One writer dies without detaching: stat flags it while the other keeps the area.
    ::kill(pid[1], SIGKILL);
    finish(pid[1]);
    ::close(fd[1]);
    // The next attach (this stat's own) cleans it up, and stat says so.
    r = run({"stat"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_TRUE(has(r.out, "1 dead process cleaned up")) << r.out;
    EXPECT_TRUE(has(r.out, "last cleaned up: pid " + std::to_string(pid[1]))) << r.out;
    EXPECT_TRUE(has(r.out, "used by 1 process,")) << r.out;
    EXPECT_FALSE(has(r.out, "pid " + std::to_string(pid[1]) + " NO LONGER EXISTS")) << r.out;
    ::close(fd[0]);
    EXPECT_EQ(finish(pid[0]).rc, 0);
    EXPECT_EQ(run({"get", f, "abcd"}).out, "abcdEFGH\n");
}

// Records for people: where the locale is UTF-8, valid characters other than controls
// are shown as they are, and what is shown reads back as the same bytes; the dump form
// is the same in every locale.
TEST_F(Tool, TextFormFollowsTheLocale) {
    init_config();
    const std::string f = path("u");
    ASSERT_EQ(run({"create", f, "3"}).rc, 0);
    // "Müller", a C0 and a C1 control character, and a byte that is not UTF-8.
    ASSERT_EQ(run({"put", f, "abcM\\xc3\\xbcller\\x01\\xc2\\x85\\xff"}).rc, 0);
    const std::string dump = run({"dump", f}).out;
    EXPECT_EQ(run({"scan", f}).out, "abcM\\xc3\\xbcller\\x01\\xc2\\x85\\xff\n");
    env = {{"LC_ALL", "C.UTF-8"}};
    Result r = run({"scan", f});
    EXPECT_EQ(r.out, "abcM\xc3\xbcller\\x01\\xc2\\x85\\xff\n");
    EXPECT_EQ(run({"dump", f}).out, dump);
    ASSERT_EQ(run({"put", f, "-", "--update"}, r.out).rc, 0);
    EXPECT_EQ(run({"dump", f}).out, dump) << "the shown form reads back as the same bytes";
    r = run({"get", f, "\xc3\xbc"});
    EXPECT_TRUE(has(r.err, "beginning with \"\xc3\xbc\"")) << r.err;
    env = {{"LANG", "C.UTF-8"}, {"LC_ALL", ""}};
    EXPECT_EQ(run({"get", f, "abc"}).out, "abcM\xc3\xbcller\\x01\\xc2\\x85\\xff\n");
}

// A reader that goes away ('kisam scan FILE | head -1') is a normal end for every command
// that writes: status 0, no message, and nothing left behind.
TEST_F(Tool, ClosedOutputPipeIsANormalEnd) {
    init_config();
    const std::string f = path("p");
    ASSERT_EQ(run({"create", f, "4"}).rc, 0);
    std::string in;
    char b[64];
    for (int i = 0; i < 2000; ++i) in += std::string(b, std::snprintf(b, sizeof b, "%04d some data of record %d\n", i, i));
    ASSERT_EQ(run({"put", f, "-"}, in).rc, 0);
    stdout_gone = true;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"scan", f}, {"scan", f, "--json"}, {"scan", f, "--json-array"},
                                               {"get", f, "0001"}, {"dump", f}, {"export", f},
                                               {"export", f, "--json-array"}, {"info", f}, {"check", f},
                                               {"check", f, "--json"}, {"stat"}, {"stat", "--every", "1"}, {"config", "show"}, {"help"},
                                               {"help", "scan"}, {"--version"}}) {
        Result r = run(args);
        EXPECT_EQ(r.rc, 0) << args[0] << " " << (args.size() > 2 ? args[2] : "") << ": " << r.err;
        EXPECT_EQ(r.err, "") << args[0];
    }
}

// Writing fails: a disk that fills (a file-size limit stands for it) and a sync that fails
// at a release.  Every failure reaches the exit status with the library's report; a load
// says how many records it stored; a dump leaves nothing under its output name.
TEST_F(Tool, FullDiskAndFailedSync) {
    init_config();
    std::string dump = "# kisam dump 1\n# keys 6\n";
    char b[64];
    for (int i = 0; i < 2000; ++i)
        dump += std::string(b, std::snprintf(b, sizeof b, "300 K%05d", i)) + std::string(294, 'x') + "\n";
    dump += "# end 2000 records\n";
    spit(path("big.dump"), dump);
    const auto loaded = [](const std::string& err) {
        const size_t at = err.find("loaded ");
        return at == std::string::npos ? -1L : std::strtol(err.c_str() + at + 7, nullptr, 10);
    };

    // Above the undo journal's first size and the redo log's first 1 MiB, below what the
    // log of the whole load needs.
    fsize_limit = 1024 * 1024 + 64 * 1024;
    Result r = run({"load", path("big"), path("big.dump")});
    fsize_limit = -1;
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "ISE_") && has(r.err, "stopped at line") && has(r.err, "before the failure")) << r.err;
    const long n = loaded(r.err);
    EXPECT_GT(n, 0) << r.err;
    EXPECT_LT(n, 2000) << r.err;
    EXPECT_EQ(run({"scan", path("big"), "--count"}).out, std::to_string(n) + "\n") << "the summary is what the file holds";

    // A dump to a full disk: the file that was under the name stays as it was, a new name
    // does not appear, and no temporary is left.
    spit(path("old.dump"), "an older dump\n");
    fsize_limit = 4096;
    for (const char* name : {"old.dump", "new.dump"}) {
        r = run({"dump", path("big"), path(name)});
        EXPECT_EQ(r.rc, 1);
        EXPECT_TRUE(has(r.err, "cannot write") && has(r.err, "was not written")) << r.err;
    }
    fsize_limit = -1;
    EXPECT_EQ(slurp(path("old.dump")), "an older dump\n");
    EXPECT_NE(::access(path("new.dump").c_str(), F_OK), 0);
    EXPECT_EQ(std::system(("test -z \"$(ls -A '" + dir + "' | grep '^\\..*dump\\.')\"").c_str()), 0) << "a temporary left";
    r = run({"dump", path("big"), path("old.dump")});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(slurp(path("old.dump")), run({"dump", path("big")}).out);

    // With the data-changed mark cleared at every release, the third sync and all after
    // it fail: the mark's before the first page a load must write back, or the
    // checkpoint's when the last close brings the file up to date.  Each fails the
    // command with the library's report; what the tool says it stored is what the file
    // holds afterwards (the log keeps what the file could not take), and it checks sound.
    ASSERT_EQ(run({"config", "init", cfg, "--force", "--buffers", "32", "--files", "8", "--users", "8",
                   "--track-changes", "--clear-on-release"}).rc, 0);
    std::string csv = "key0,rest\n";
    for (int i = 0; i < 300; ++i) csv += std::string(b, std::snprintf(b, sizeof b, "C%05d,row %d\n", i, i));
    spit(path("in.csv"), csv);
    spit(path("small.dump"), dump.substr(0, dump.find("\n300 K00040")) + "\n# end 40 records\n");
    const char* asan = std::getenv("ASAN_OPTIONS");
    const struct { const char *cmd, *input, *says, *stored; } failing[] = {
        {"load", "big.dump", "stopped at line", "loaded "},
        {"import", "in.csv", "closing the file: ISE_FLWT", "imported "},
        {"load", "small.dump", "closing the file: ISE_FLWT", "loaded "},
    };
    for (const auto& c : failing) {
        const std::string file = path(std::string("synced.") + c.input);
        ASSERT_EQ(run({"create", file, "6"}).rc, 0);
        env = {{"LD_PRELOAD", KISAM_FAULT_SHIM}, {"KISAM_TEST_FAIL_FDATASYNC", "3"},
               {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0"}};
        r = run({c.cmd, file, path(c.input)});
        env.clear();
        EXPECT_EQ(r.rc, 1) << c.input << ": " << r.err;
        EXPECT_TRUE(has(r.err, c.says) && has(r.err, "ISE_") && has(r.err, "Sys errno #5")) << c.input << ": " << r.err;
        const size_t at = r.err.find(c.stored);
        ASSERT_NE(at, std::string::npos) << r.err;
        const long stored = std::strtol(r.err.c_str() + at + std::strlen(c.stored), nullptr, 10);
        EXPECT_EQ(run({"scan", file, "--count"}).out, std::to_string(stored) + "\n") << c.input << ": " << r.err;
        EXPECT_EQ(run({"check", file}).rc, 0) << c.input;
    }
    // With the mark synced when it changes, a close whose sync fails (the third: the log's,
    // the file's, then the log's new header) fails the tool, and loses nothing.
    ASSERT_EQ(run({"config", "init", cfg, "--force", "--buffers", "32", "--files", "8", "--users", "8",
                   "--track-changes", "--sync-on-mark"}).rc, 0);
    ASSERT_EQ(run({"create", path("closed"), "6"}).rc, 0);
    env = {{"LD_PRELOAD", KISAM_FAULT_SHIM}, {"KISAM_TEST_FAIL_FDATASYNC", "3"},
           {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0"}};
    r = run({"put", path("closed"), "K00001abc"});
    env.clear();
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(has(r.err, "closing the file: ISE_FLWT") && has(r.err, "Sys errno #5")) << r.err;
    EXPECT_EQ(run({"get", path("closed"), "K00001"}).rc, 0);
}

}  // namespace
