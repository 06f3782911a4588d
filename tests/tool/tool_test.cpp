// The kisam tool, run as a separate process in a private installation: a temporary
// directory with its own configuration file, HOME, HOME_Q9 and PROFILEQ9ENV, checked by
// output and exit status.  Every test leaves no shared segment behind.
#include <gtest/gtest.h>

#include <fcntl.h>
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
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Result {
    int rc = -1;
    std::string out, err;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void spit(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

class Tool : public ::testing::Test {
protected:
    std::string dir, cfg;

    void SetUp() override {
        char tmpl[] = "/tmp/kisam-tool-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir = tmpl;
        cfg = dir + "/kisamconfig";
        ::mkdir((dir + "/home").c_str(), 0777);
        ::mkdir((dir + "/q9").c_str(), 0777);
    }

    void TearDown() override {
        EXPECT_FALSE(segment_exists()) << "a command left the shared segment behind";
        remove_segment();
        std::string cmd = "rm -rf '" + dir + "'";
        if (std::system(cmd.c_str()) != 0) { /* best effort */ }
    }

    key_t key() const {
        std::string lk = cfg + ".lk";
        return ::ftok((::access(lk.c_str(), F_OK) == 0 ? lk : cfg).c_str(), 1);
    }
    bool segment_exists() const {
        key_t k = key();
        return k != -1 && ::shmget(k, 0, 0) >= 0;
    }
    void remove_segment() const {
        key_t k = key();
        if (k == -1) return;
        int id = ::shmget(k, 0, 0);
        if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
    }

    std::string path(const std::string& name) const { return dir + "/" + name; }

    // Starts the tool with `args`; standard input from `input`, output into files.
    pid_t start(const std::vector<std::string>& args, const std::string& input_file = "/dev/null",
                bool with_config = true) {
        std::vector<std::string> argv{KISAM_TOOL_PATH};
        if (with_config) {
            argv.push_back("--config");
            argv.push_back(cfg);
        }
        argv.insert(argv.end(), args.begin(), args.end());
        std::fflush(nullptr);
        pid_t pid = ::fork();
        if (pid == 0) {
            ::setenv("HOME", (dir + "/home").c_str(), 1);
            ::setenv("HOME_Q9", (dir + "/q9").c_str(), 1);
            ::setenv("PROFILEQ9ENV", (dir + "/home/.Q9.profile").c_str(), 1);
            ::unsetenv("KISCONFIG");
            int in = ::open(input_file.c_str(), O_RDONLY);
            int out = ::open((dir + "/.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            int err = ::open((dir + "/.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (in < 0 || out < 0 || err < 0) ::_exit(126);
            ::dup2(in, 0);
            ::dup2(out, 1);
            ::dup2(err, 2);
            std::vector<char*> av;
            for (auto& a : argv) av.push_back(a.data());
            av.push_back(nullptr);
            ::execv(av[0], av.data());
            ::_exit(127);
        }
        return pid;
    }

    Result finish(pid_t pid) {
        Result r;
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = slurp(dir + "/.out");
        r.err = slurp(dir + "/.err");
        return r;
    }

    Result run(const std::vector<std::string>& args, const std::string& input = "", bool with_config = true) {
        std::string in = "/dev/null";
        if (!input.empty()) {
            in = dir + "/.in";
            spit(in, input);
        }
        return finish(start(args, in, with_config));
    }

    void init_config(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> a{"config", "init", cfg, "--buffers", "32", "--files", "8", "--users", "8"};
    // Later options win, so extra settings override these.
        a.insert(a.end(), extra.begin(), extra.end());
        Result r = run(a);
        ASSERT_EQ(r.rc, 0) << r.err;
    }
};

int16_t at16(const std::string& b, size_t off) { int16_t v; std::memcpy(&v, b.data() + off, 2); return v; }
int32_t at32(const std::string& b, size_t off) { int32_t v; std::memcpy(&v, b.data() + off, 4); return v; }

// ---- configuration -------------------------------------------------------------------------

TEST_F(Tool, ConfigInitWritesTheRecordAndLockFile) {
    Result r = run({"config", "init", cfg, "--files", "10", "--buffers", "4", "--users", "5", "--avg-alt-keys", "2",
                    "--lock-key-len", "10", "--locks-per-file", "4", "--track-changes", "--clear-on-release"});
    ASSERT_EQ(r.rc, 0) << r.err;
    std::string b = slurp(cfg);
    ASSERT_EQ(b.size(), 52u);
    EXPECT_EQ(at16(b, 0), 10);    // files open at once
    EXPECT_EQ(at16(b, 2), 4);     // buffers
    EXPECT_EQ(at16(b, 4), 5);     // processes
    EXPECT_EQ(at16(b, 6), 25);    // keys per file
    EXPECT_EQ(at16(b, 16), 4);    // buffers per file defaults to all buffers
    EXPECT_EQ(at32(b, 20), 8192); // segment size, as start-up computes it
    EXPECT_EQ(at32(b, 28), 4316);
    EXPECT_EQ(at32(b, 32), 4396);
    EXPECT_EQ(at32(b, 36), 4356);
    EXPECT_EQ(at32(b, 40), 4376);
    EXPECT_EQ(at16(b, 44), 0);
    EXPECT_EQ(at32(b, 48), 0x5);
    EXPECT_EQ(::access((cfg + ".lk").c_str(), F_OK), 0);

    r = run({"config", "show", cfg});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("8192 bytes"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("cleared after every change"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("not in use"), std::string::npos) << r.out;

    // An existing configuration is kept unless asked.
    r = run({"config", "init", cfg, "--buffers", "8"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("--force"), std::string::npos) << r.err;
    EXPECT_EQ(slurp(cfg), b);
    r = run({"config", "init", cfg, "--buffers", "8", "--force"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(at16(slurp(cfg), 2), 8);
}

TEST_F(Tool, ConfigRefusesWhatCannotWork) {
    EXPECT_EQ(run({"config", "init", cfg, "--keys", "26"}).rc, 2);
    EXPECT_EQ(run({"config", "init", cfg, "--buffers", "0"}).rc, 2);
    EXPECT_EQ(run({"config", "init", cfg, "--buffers", "12x"}).rc, 2);
    EXPECT_EQ(run({"config", "init", cfg, "--sync-on-mark"}).rc, 2);
    EXPECT_EQ(run({"config", "init"}).rc, 2);
    Result r = run({"config", "init", cfg, "--files", "16383", "--lock-key-len", "32767", "--locks-per-file", "32767"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("heap"), std::string::npos) << r.err;
    EXPECT_NE(::access(cfg.c_str(), F_OK), 0) << "a refused configuration was written";

    spit(cfg, std::string(20, '\1'));
    r = run({"config", "show", cfg});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("not a configuration file"), std::string::npos) << r.err;
}

TEST_F(Tool, MissingConfigurationSaysHowToCreateOne) {
    Result r = run({"get", path("f"), "x"}, "", /*with_config=*/false);
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("kisam config init"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("/q9/kisamconfig"), std::string::npos) << r.err;
    r = run({"stat"}, "", false);
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("kisam config init"), std::string::npos) << r.err;
}

// ---- command line --------------------------------------------------------------------------------

TEST_F(Tool, HelpVersionAndUsageErrors) {
    Result r = run({"--version"}, "", false);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out.rfind("kisam ", 0), 0u) << r.out;
    r = run({"help"}, "", false);
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.out.find("Exit status"), std::string::npos);
    for (const char* c : {"config", "create", "info", "check", "get", "scan", "put", "del", "dump", "load", "stat"}) {
        r = run({"help", c}, "", false);
        EXPECT_EQ(r.rc, 0) << c;
        EXPECT_NE(r.out.find(std::string("kisam ") + c), std::string::npos) << c;
    }
    EXPECT_EQ(run({"help", "frobnicate"}, "", false).rc, 2);
    EXPECT_EQ(run({}, "", false).rc, 2);
    EXPECT_EQ(run({"frobnicate"}, "", false).rc, 2);
    EXPECT_EQ(run({"create", path("f")}).rc, 2);
    EXPECT_EQ(run({"create", path("f"), "4,x"}).rc, 2);
    EXPECT_EQ(run({"create", path("f"), "4", "--bogus"}).rc, 2);
    EXPECT_EQ(run({"scan", path("f"), "--limit"}).rc, 2);
}

// ---- records -------------------------------------------------------------------------------------

TEST_F(Tool, RecordsByEveryKey) {
    init_config();
    const std::string f = path("cust");
    ASSERT_EQ(run({"create", f, "4,6,3"}).rc, 0);
    EXPECT_EQ(run({"create", f, "4"}).rc, 1) << "an existing file is kept";
    // key 0 (4 bytes), key 1 (6), key 2 (3), then free text.
    std::string recs = "C001smith_NYCfirst\n"
                       "C002jones_LAXsecond\n"
                       "C003smith_SFOthird\\x00\\xff\n"
                       "C004brown_NYCfourth\n";
    Result r = run({"put", f, "-"}, recs);
    ASSERT_EQ(r.rc, 0) << r.err;
    r = run({"put", f, "C002other_BOSdup"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("exists already"), std::string::npos) << r.err;

    r = run({"get", f, "C003"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "C003smith_SFOthird\\x00\\xff\n");
    r = run({"get", f, "LAX", "--key", "2"});
    EXPECT_EQ(r.out, "C002jones_LAXsecond\n");
    // A shorter value is a prefix; among equal alternate values the smallest key 0 wins.
    EXPECT_EQ(run({"get", f, "smi", "--key", "1"}).out, "C001smith_NYCfirst\n");
    EXPECT_EQ(run({"get", f, "smi\\x00", "--key", "1"}).rc, 1);
    r = run({"get", f, "C009"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_TRUE(r.out.empty());
    EXPECT_EQ(run({"get", f, "C0001"}).rc, 2) << "a value longer than its key";
    EXPECT_EQ(run({"get", f, "x", "--key", "3"}).rc, 2) << "a key the file does not have";

    // Equal key 1 values come in key 0 order; a short value is a prefix.
    r = run({"scan", f, "--key", "1", "--from", "smith", "--to", "smith"});
    EXPECT_EQ(r.out, "C001smith_NYCfirst\nC003smith_SFOthird\\x00\\xff\n");
    r = run({"scan", f, "--key", "2", "--from", "NYC", "--backward"});
    EXPECT_EQ(r.out, "C004brown_NYCfourth\nC001smith_NYCfirst\nC002jones_LAXsecond\n");
    r = run({"scan", f, "--backward", "--from", "C003", "--to", "C002"});
    EXPECT_EQ(r.out, "C003smith_SFOthird\\x00\\xff\nC002jones_LAXsecond\n");
    r = run({"scan", f, "--from", "C002", "--limit", "2"});
    EXPECT_EQ(r.out, "C002jones_LAXsecond\nC003smith_SFOthird\\x00\\xff\n");
    EXPECT_EQ(run({"scan", f, "--count"}).out, "4\n");

    // Replace, update, delete.
    EXPECT_EQ(run({"put", f, "C002jones_BOSmoved", "--replace"}).rc, 0);
    EXPECT_EQ(run({"get", f, "BOS", "--key", "2"}).out, "C002jones_BOSmoved\n");
    EXPECT_EQ(run({"get", f, "LAX", "--key", "2"}).rc, 1) << "the old alternate value is gone";
    r = run({"put", f, "C999nobodyXXXx", "--update"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("to update"), std::string::npos) << r.err;
    EXPECT_EQ(run({"put", f, "C001smith_NYCrenewed", "--update"}).rc, 0);
    EXPECT_EQ(run({"get", f, "C001"}).out, "C001smith_NYCrenewed\n");
    r = run({"put", f, "C00"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("13 (its keys)"), std::string::npos) << r.err;
    r = run({"del", f, "C003", "C777"});
    EXPECT_EQ(r.rc, 1) << "one key did not exist";
    EXPECT_EQ(run({"scan", f, "--count"}).out, "3\n");
    r = run({"check", f});
    EXPECT_EQ(r.rc, 0) << r.out << r.err;
}

TEST_F(Tool, LibraryFailuresAreReportedWithTheLibraryMessage) {
    init_config({"--keys", "3"});
    Result r = run({"create", path("k4"), "2,2,2,2"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("ISE_NKEYERR"), std::string::npos) << r.err;
    r = run({"create", path("big"), "400,200"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("ISE_INVKL"), std::string::npos) << r.err;
    spit(path("junk"), std::string(2048, 'z'));
    r = run({"get", path("junk"), "a"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("ISE_NOTISAM"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("unknown magic 0x7a7a"), std::string::npos) << r.err;
    r = run({"info", path("junk")});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("unknown magic 0x7a7a"), std::string::npos) << r.err;
    r = run({"get", path("absent"), "a"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("ISE_OPENF"), std::string::npos) << r.err;
}

TEST_F(Tool, FileAtTheFourGigabyteCeiling) {
    init_config();
    const std::string f = path("full");
    ASSERT_EQ(run({"create", f, "4"}).rc, 0);
    // A sparse file whose end lies where no further page can be numbered.
    ASSERT_EQ(::truncate(f.c_str(), 0xFFFFFC00LL), 0);
    Result r = run({"put", f, "abcd"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("4 GiB"), std::string::npos) << r.err;
}

// A writer that stays attached, with the file open, until its input is closed.
struct Holder {
    pid_t pid = -1;
    int fd = -1;
};

TEST_F(Tool, FullTablesAreNamed) {
    init_config({"--files", "1", "--users", "2"});
    ASSERT_EQ(run({"create", path("a"), "4"}).rc, 0);
    ASSERT_EQ(run({"create", path("b"), "4"}).rc, 0);
    auto hold = [&](const std::string& file, const std::string& fifo) {
        Holder h;
        EXPECT_EQ(::mkfifo(path(fifo).c_str(), 0666), 0);
        h.pid = start({"put", file, "-"}, path(fifo));
        h.fd = ::open(path(fifo).c_str(), O_WRONLY | O_CLOEXEC);
        // Once its record is on disk, the writer is attached and has the file open.
        std::string rec = "w" + fifo.substr(fifo.size() - 3);
        EXPECT_EQ(::write(h.fd, (rec + "\n").data(), rec.size() + 1), ssize_t(rec.size() + 1));
        for (int i = 0; i < 500 && slurp(file).find(rec) == std::string::npos; ++i) ::usleep(10000);
        return h;
    };
    Holder h1 = hold(path("a"), "ff1");
    // The only shared-file slot is taken by a.
    Result r = run({"get", path("b"), "x"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("shared-file table is full"), std::string::npos) << r.err;
    // The second process slot is taken by a second holder: nobody else can attach.
    Holder h2 = hold(path("a"), "ff2");
    r = run({"get", path("a"), "x"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("process table is full"), std::string::npos) << r.err;
    // A monitor still sees the area, without a slot of its own.
    r = run({"stat"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("read without taking a slot"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("processes 2 attached of 2"), std::string::npos) << r.out;
    for (Holder* h : {&h1, &h2}) {
        ::close(h->fd);
        EXPECT_EQ(finish(h->pid).rc, 0);
    }
}

TEST_F(Tool, InterruptsAndClosedPipesStillDetach) {
    init_config();
    const std::string f = path("p");
    ASSERT_EQ(run({"create", f, "6"}).rc, 0);
    std::string in;
    for (int i = 0; i < 5000; ++i) in += "r" + std::to_string(100000 + i).substr(1) + "\n";
    ASSERT_EQ(run({"put", f, "-"}, in).rc, 0);

    // A reader that goes away after one line.
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(p[1], 1);
        ::close(p[0]);
        ::close(p[1]);
        ::setenv("HOME", (dir + "/home").c_str(), 1);
        ::setenv("HOME_Q9", (dir + "/q9").c_str(), 1);
        ::setenv("PROFILEQ9ENV", (dir + "/home/.Q9.profile").c_str(), 1);
        ::execl(KISAM_TOOL_PATH, KISAM_TOOL_PATH, "--config", cfg.c_str(), "scan", f.c_str(), (char*)nullptr);
        ::_exit(127);
    }
    ::close(p[1]);
    char c;
    ASSERT_EQ(::read(p[0], &c, 1), 1);
    ::close(p[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    EXPECT_FALSE(segment_exists());

    // An interrupted writer stops, says so, and detaches.
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0666), 0);
    pid = start({"put", f, "-"}, path("fifo"));
    int wfd = ::open(path("fifo").c_str(), O_WRONLY);
    ASSERT_GE(wfd, 0);
    ASSERT_EQ(::write(wfd, "zzzzzz\n", 7), 7);
    for (int i = 0; i < 500 && run({"get", f, "zzzzzz"}).rc != 0; ++i) ::usleep(10000);
    ::kill(pid, SIGINT);
    Result r = finish(pid);
    ::close(wfd);
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
    EXPECT_FALSE(segment_exists());
}

// ---- dump and load ---------------------------------------------------------------------------------

std::string random_bytes(std::mt19937_64& rng, size_t n) {
    // Mostly the bytes that stress the text form.
    static const unsigned char special[] = {0, '\\', '\n', '\r', 'x', ' ', 0x7f, 0x80, 0xff, '#'};
    std::string s(n, '\0');
    for (auto& c : s)
        c = static_cast<char>(rng() % 3 == 0 ? special[rng() % sizeof special] : rng() % 256);
    return s;
}

std::string escape_model(const std::string& b) {
    std::string out;
    char h[8];
    for (unsigned char c : b) {
        if (c == '\\') out += "\\\\";
        else if (c >= 0x20 && c < 0x7f) out += char(c);
        else { std::snprintf(h, sizeof h, "\\x%02x", c); out += h; }
    }
    return out;
}

TEST_F(Tool, DumpAndLoadAreExactForAnyBytes) {
    init_config();
    std::mt19937_64 rng(0x6b6973616d);
    const char* seed_env = std::getenv("KISAM_SEED");
    uint64_t seed = seed_env ? std::strtoull(seed_env, nullptr, 0) : 20261122;
    rng.seed(seed);
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
        r = run({"load", b}, expect);
        EXPECT_EQ(r.rc, 1);
        EXPECT_NE(r.err.find("exists already"), std::string::npos) << r.err;
        EXPECT_EQ(run({"dump", b}).out, expect);
    }
}

TEST_F(Tool, ProgressOnlyOnATerminal) {
    init_config();
    std::string dump = "# kisam dump 1\n# keys 6\n";
    for (int i = 0; i < 5000; ++i) dump += "10 " + std::to_string(100000 + i) + "data\n";
    dump += "# end 5000 records\n";
    spit(path("d"), dump);

    // Standard error on a pseudo-terminal: the count is redrawn in place.
    int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(::grantpt(master), 0);
    ASSERT_EQ(::unlockpt(master), 0);
    std::string slave = ::ptsname(master);
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        int fd = ::open(slave.c_str(), O_RDWR);
        if (fd < 0) ::_exit(126);
        ::dup2(fd, 2);
        ::setenv("HOME", (dir + "/home").c_str(), 1);
        ::setenv("HOME_Q9", (dir + "/q9").c_str(), 1);
        ::setenv("PROFILEQ9ENV", (dir + "/home/.Q9.profile").c_str(), 1);
        ::execl(KISAM_TOOL_PATH, KISAM_TOOL_PATH, "--config", cfg.c_str(), "load", path("a").c_str(),
                path("d").c_str(), (char*)nullptr);
        ::_exit(127);
    }
    std::string seen;
    char buf[4096];
    ssize_t n;
    // The terminal reports EIO once the child has closed its side.
    while ((n = ::read(master, buf, sizeof buf)) > 0) seen.append(buf, size_t(n));
    ::close(master);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0) << seen;
    EXPECT_NE(seen.find("\rload " + path("a") + ": 4096 records"), std::string::npos) << seen;

    // Into a file: no progress, only the summary.
    Result r = run({"load", path("b"), path("d")});
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.err.find('\r'), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("loaded 5000 records"), std::string::npos) << r.err;
}

TEST_F(Tool, LoadRefusesBrokenDumps) {
    init_config();
    const std::string f = path("f");
    Result r = run({"load", f}, "hello\n");
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("not a kisam dump"), std::string::npos);
    EXPECT_NE(::access(f.c_str(), F_OK), 0) << "nothing is created from a non-dump";

    // Cut short: what is there is loaded, and the status says it was incomplete.
    r = run({"load", f}, "# kisam dump 1\n# keys 2\n3 abc\n3 xyz\n");
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("cut short"), std::string::npos) << r.err;
    EXPECT_EQ(run({"scan", f, "--count"}).out, "2\n");

    // A length that does not match the bytes is a damaged line.
    r = run({"load", f}, "# kisam dump 1\n# keys 2\n4 abc\n2 q\\x\n3 pqr\n# end 3 records\n");
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("line 3"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("line 4"), std::string::npos) << r.err;
    EXPECT_EQ(run({"scan", f, "--count"}).out, "3\n");

    r = run({"load", f}, "# kisam dump 1\n# keys 3,1\n# end 0 records\n");
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("other keys"), std::string::npos) << r.err;
}

// ---- info and check ----------------------------------------------------------------------------------

TEST_F(Tool, InfoDescribesTheFile) {
    init_config();
    const std::string f = path("info");
    ASSERT_EQ(run({"create", f, "6,4", "--small-header"}).rc, 0);
    std::string in;
    for (int i = 0; i < 3000; ++i) {
        char b[64];
        std::snprintf(b, sizeof b, "K%05dv%03d payload %d", i, i % 7, i);
        in += b;
        in += "\n";
    }
    ASSERT_EQ(run({"put", f, "-"}, in).rc, 0);
    ASSERT_EQ(run({"del", f, "K00010", "K00011"}).rc, 0);
    Result r = run({"info", f});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("512-byte control page (magic 0xab54)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("records              2998"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("minimum record       10 bytes"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("problem"), std::string::npos) << r.out;
}

class DamagedFile : public Tool {
protected:
    std::string f;
    void SetUp() override {
        Tool::SetUp();
        init_config();
        f = path("dmg");
        ASSERT_EQ(run({"create", f, "6,8"}).rc, 0);
        std::string in;
        for (int i = 0; i < 2000; ++i) {
            char b[64];
            std::snprintf(b, sizeof b, "R%05dALT%05d some data %d", i, (i * 7919) % 100000, i);
            in += b;
            in += "\n";
        }
        ASSERT_EQ(run({"put", f, "-"}, in).rc, 0);
        ASSERT_EQ(run({"del", f, "R00100", "R00101", "R00102"}).rc, 0);
        Result r = run({"check", f});
        ASSERT_EQ(r.rc, 0) << r.out << r.err;
    }
    // Overwrites bytes at a file offset.
    void poke(off_t off, const std::string& bytes) {
        int fd = ::open(f.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), off), ssize_t(bytes.size()));
        ::close(fd);
    }
    // Offset of the first occurrence of text in the file.
    off_t find(const std::string& text) {
        std::string all = slurp(f);
        size_t at = all.find(text);
        EXPECT_NE(at, std::string::npos) << text;
        return off_t(at);
    }
    void expect_damage(const std::string& what) {
        Result r = run({"check", f});
        EXPECT_EQ(r.rc, 1) << what << "\n" << r.out;
        EXPECT_NE(r.out.find("DAMAGED"), std::string::npos) << what << "\n" << r.out;
    }
};

TEST_F(DamagedFile, RecordKeyChangedBehindTheIndex) {
    // The stored key 1 value of one record no longer matches its index item.
    poke(find("ALT") + 3, "X");
    expect_damage("record's alternate value changed");
}

TEST_F(DamagedFile, IndexPageOverwritten) {
    // The root of key 0: read it from the control page (key descriptor 0 at 100).
    std::string cp = slurp(f).substr(0, 512);
    uint32_t root;
    std::memcpy(&root, cp.data() + 100, 4);
    poke(off_t(root) + 8, std::string(40, '\x01'));
    expect_damage("index items overwritten");
}

TEST_F(DamagedFile, FreeChainLoops) {
    std::string cp = slurp(f).substr(0, 512);
    uint32_t head;
    std::memcpy(&head, cp.data() + 4, 4);
    ASSERT_NE(head, *reinterpret_cast<const uint32_t*>(cp.data() + 8)) << "deleting should have freed a page";
    // The first free page points to itself.
    poke(off_t(head) + 4, std::string(reinterpret_cast<const char*>(&head), 4));
    expect_damage("free chain loop");
}

TEST_F(DamagedFile, TruncatedFile) {
    struct stat st;
    ASSERT_EQ(::stat(f.c_str(), &st), 0);
    ASSERT_EQ(::truncate(f.c_str(), st.st_size / 2), 0);
    expect_damage("file cut in half");
}

TEST_F(DamagedFile, DataChangedMarkBlocksOpeningUntilCleared) {
    std::string cp = slurp(f).substr(0, 512);
    poke(88, std::string(1, char(cp[88] | 0x10)));
    Result r = run({"get", f, "R00001"});
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.err.find("ISE_INCONSISTENT"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("kisam check"), std::string::npos) << r.err;
    EXPECT_EQ(run({"get", f, "R00001", "--ignore-mark"}).rc, 0);
    r = run({"dump", f, path("saved"), "--ignore-mark"});
    EXPECT_EQ(r.rc, 0) << r.err;
    r = run({"check", f});
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.out.find("mark is set"), std::string::npos) << r.out;
    r = run({"check", f, "--clear-mark"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(run({"get", f, "R00001"}).rc, 0);
}

// ---- stat ----------------------------------------------------------------------------------------------

TEST_F(Tool, StatSeesProcessesFilesAndTheDead) {
    init_config();
    // No program attached: nothing to show, and nothing is created.
    Result r = run({"stat"});
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.out.find("no shared area"), std::string::npos) << r.out;
    EXPECT_FALSE(segment_exists());

    const std::string f = path("s");
    ASSERT_EQ(run({"create", f, "4"}).rc, 0);
    // Writers that stay attached while they wait for their input.
    auto writer = [&](const std::string& name, int* wfd) {
        std::string fifo = path(name);
        EXPECT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
        pid_t pid = start({"put", f, "-"}, fifo);
        *wfd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
        return pid;
    };
    int fd1 = -1, fd2 = -1;
    pid_t w1 = writer("fifo1", &fd1);
    pid_t w2 = writer("fifo2", &fd2);
    ASSERT_GE(fd1, 0);
    ASSERT_GE(fd2, 0);
    ASSERT_EQ(::write(fd1, "abcdEFGH\n", 9), 9);
    ASSERT_EQ(::write(fd2, "wxyz1234\n", 9), 9);
    // Once their records are on disk, both writers are attached with the file open.
    for (int i = 0; i < 500; ++i) {
        std::string all = slurp(f);
        if (all.find("EFGH") != std::string::npos && all.find("1234") != std::string::npos) break;
        ::usleep(10000);
    }

    r = run({"stat"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("processes 3 attached"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("files     1 open"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("used by 2 processes"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("pid " + std::to_string(w1)), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("hits"), std::string::npos) << r.out;

    // Repeated figures, with the file named.
    r = run({"stat", f, "--every", "1", "--count", "2"});
    EXPECT_EQ(r.rc, 0) << r.err;
    size_t first = r.out.find("shared area at"), second = r.out.find("shared area at", first + 1);
    EXPECT_NE(second, std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("shared area at", second + 1), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("slot 0   " + f + ", device"), std::string::npos) << r.out;

    // One writer dies without detaching: stat flags it while the other keeps the area.
    ::kill(w2, SIGKILL);
    finish(w2);
    ::close(fd2);
    r = run({"stat"});
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find("pid " + std::to_string(w2) + " NO LONGER EXISTS"), std::string::npos) << r.out;
    ::close(fd1);
    EXPECT_EQ(finish(w1).rc, 0);
    EXPECT_EQ(run({"get", f, "abcd"}).out, "abcdEFGH\n");
}

}  // namespace
