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
#include <iterator>
#include <string>
#include <vector>

namespace {

struct Result { int rc = -1; std::string out, err; };

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void spit(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

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
        int id = segment();
        EXPECT_LT(id, 0) << "a command left the shared segment behind";
        if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
        if (std::system(("rm -rf '" + dir + "'").c_str()) != 0) { /* best effort */ }
    }

    int segment() const {
        std::string lk = cfg + ".lk";
        key_t k = ::ftok((::access(lk.c_str(), F_OK) == 0 ? lk : cfg).c_str(), 1);
        return k == -1 ? -1 : ::shmget(k, 0, 0);
    }

    std::string path(const std::string& name) const { return dir + "/" + name; }

    // Starts the tool with `args`; standard input from `input_file`, output into files.
    pid_t start(const std::vector<std::string>& args, const std::string& input_file = "/dev/null",
                bool with_config = true) {
        std::vector<std::string> argv{KISAM_TOOL_PATH};
        if (with_config) argv.insert(argv.end(), {"--config", cfg});
        argv.insert(argv.end(), args.begin(), args.end());
        std::fflush(nullptr);
        pid_t pid = ::fork();
        if (pid == 0) {
            for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
                ::setenv(var, (dir + sub).c_str(), 1);
            ::unsetenv("KISCONFIG");
            int fds[3] = {::open(input_file.c_str(), O_RDONLY),
                          ::open((dir + "/.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666),
                          ::open((dir + "/.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666)};
            for (int i = 0; i < 3; ++i)
                if (fds[i] < 0 || ::dup2(fds[i], i) < 0) ::_exit(126);
            std::vector<char*> av;
            for (auto& a : argv) av.push_back(a.data());
            av.push_back(nullptr);
            ::execv(av[0], av.data());
            ::_exit(127);
        }
        return pid;
    }

    Result finish(pid_t pid) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(dir + "/.out"),
                slurp(dir + "/.err")};
    }

    Result run(const std::vector<std::string>& args, const std::string& input = "", bool with_config = true) {
        std::string in = "/dev/null";
        if (!input.empty()) spit(in = dir + "/.in", input);
        return finish(start(args, in, with_config));
    }

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
    EXPECT_TRUE(has(r.out, "8192 bytes") && has(r.out, "cleared after every change")) << r.out;
    EXPECT_EQ(run({"config", "init", cfg}).rc, 1) << "an existing configuration is kept";
    EXPECT_EQ(slurp(cfg), b);

    EXPECT_EQ(run({"config", "init", cfg, "--buffers", "12x", "--force"}).rc, 2);
    EXPECT_EQ(run({"create", path("f")}).rc, 2);
    EXPECT_EQ(run({"scan", path("f"), "--limit"}).rc, 2);
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

    // A file whose end lies where no further page can be numbered: the ceiling is named.
    const std::string full = path("full");
    ASSERT_EQ(run({"create", full, "4"}).rc, 0);
    ASSERT_EQ(::truncate(full.c_str(), 0xFFFFFC00LL), 0);
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

}  // namespace
