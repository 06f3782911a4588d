// kisam backup, kisam compact, and the settling of a pending rollback by the commands
// that read a file directly (check, info, dump).
#include "tool_fixture.h"

#include <algorithm>

namespace {

class Backup : public ToolInstallation {
protected:
    void SetUp() override {
        ToolInstallation::SetUp();
        quiet = true;
        init_config({"--buffers", "64"});
    }

    // A dump of n records K<7 digits> with a second key and a payload of varying length.
    static std::string dump_of(int n) {
        std::string d = "# kisam dump 1\n# keys 8,6\n";
        char b[200];
        for (int i = 0; i < n; ++i) {
            std::string rec(b, size_t(std::snprintf(b, sizeof b, "K%07dA%05d", i, (i * 7919) % 100000)));
            rec += std::string(size_t(20 + (i * 37) % 90), char('a' + i % 26));
            d += std::to_string(rec.size()) + " " + rec + "\n";
        }
        return d + "# end " + std::to_string(n) + " records\n";
    }
};

// Backups taken while another process loads records: each opens as a sound file whose
// records are the load's first m records, m at a boundary of the loader's batches (it
// writes 256 records under one hold of the control lock): a state between calls.
TEST_F(Backup, BackupsOfAFileBeingWrittenAreSoundPrefixes) {
    const std::string src = dump_of(100000);
    spit(path("in.dump"), src);
    const std::vector<std::string> want = records_of(src);
    const std::string f = path("live");
    ASSERT_EQ(run({"create", f, "8,6", "--key-in-index"}).rc, 0);
    const long long empty = size_of(f);
    const pid_t writer = start({"load", f, path("in.dump")}, "/dev/null", "writer");
    // Backups from the moment the load has begun to write.
    for (int i = 0; i < 2000 && size_of(f) == empty; ++i) ::usleep(1000);
    std::string sizes;
    bool during = false;
    for (int i = 0; i < 40; ++i) {
        const std::string dest = path("copy" + std::to_string(i));
        table({{{"backup", f, dest}, 0, {"writers were held for", "checked sound"}}, {{"check", dest}, 0}});
        Result r = run({"dump", dest});
        ASSERT_EQ(r.rc, 0) << r.err;
        const std::vector<std::string> got = records_of(r.out);
        ASSERT_LE(got.size(), want.size());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), want.begin())) << "backup " << i << " is no prefix of the load";
        EXPECT_TRUE(got.size() % 256 == 0 || got.size() == want.size()) << got.size() << " records: inside a batch";
        sizes += " " + std::to_string(got.size());
        during |= !got.empty() && got.size() < want.size();
        ::unlink(dest.c_str());
        int status;
        if (::waitpid(writer, &status, WNOHANG) == writer) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << slurp(path("writer.err"));
            break;
        }
        if (i == 39) {
            EXPECT_EQ(wait_for(writer), 0);
        }
    }
    // Whether a backup lands inside the load depends on the scheduler: the loader gives
    // the control lock up between batches and may take it again before the waiting
    // backup runs.  The copies' soundness and prefixes above hold either way.
    if (!during) std::printf("note: no backup was taken while the load was running:%s\n", sizes.c_str());
    EXPECT_EQ(temporaries(), "") << "a temporary was left";
}

// A backup that fails (DEST in a directory that does not exist, a disk that fills while
// the copy is written, a source that does not check sound) leaves nothing under DEST,
// and an existing DEST as it was.
TEST_F(Backup, AFailedBackupLeavesNothing) {
    const std::string f = path("src");
    spit(path("in.dump"), dump_of(3000));
    spit(path("old"), "an older backup\n");
    table({{{"load", f, path("in.dump")}, 0},
           {{"backup", f, path("nowhere/copy")}, 1, {}, {"nothing was written"}},
           {{"backup", f}, 2}});
    fsize_limit = 100000;
    table({{{"backup", f, path("old")}, 1, {}, {"ISE_FLWT"}}});
    fsize_limit = -1;
    EXPECT_EQ(slurp(path("old")), "an older backup\n");
    const size_t at = slurp(f).find("K0000005A");
    ASSERT_NE(at, std::string::npos);
    poke(f, off_t(at) - 2, "\xff\x83");   // a record's length now runs off its page
    table({{{"check", f}, 1}, {{"backup", f, path("old")}, 1, {}, {"did not check sound"}}});
    EXPECT_EQ(slurp(path("old")), "an older backup\n");
    EXPECT_NE(::access(path("nowhere").c_str(), F_OK), 0);
    EXPECT_EQ(temporaries(), "") << "a temporary was left";
}

// Half the records deleted: compact halves the file (or better, within a page per key), keeps every
// record and every key's order, and the result checks sound; in both control-page sizes
// and with key 0 kept in the records or in its index only.
TEST_F(Backup, CompactGivesBackWhatDeletesFreed) {
    spit(path("in.dump"), dump_of(4000));
    std::string del;
    char b[32];
    for (int i = 0; i < 4000; i += 2) del += std::string(b, size_t(std::snprintf(b, sizeof b, "K%07d\n", i)));
    // What info or stat estimates compact would give back.
    auto estimate = [&](const char* cmd, const std::string& f) {
        const std::string out = run({cmd, f}).out;
        const size_t at = out.find("compaction would give back about ");
        EXPECT_NE(at, std::string::npos) << out;
        return at == std::string::npos ? -1LL : std::atoll(out.c_str() + at + 33);
    };
    // A line of info's output, from its first word on.
    auto line = [](const std::string& out, const char* start) {
        const size_t a = out.find(start);
        return a == std::string::npos ? "(none)" : out.substr(a, out.find('\n', a) + 1 - a);
    };
    for (const char* opt : {"", "--key-in-index", "--small-header"}) {
        SCOPED_TRACE(opt);
        const std::string f = path(std::string("c") + opt);
        std::vector<std::string> create{"create", f, "8,6"};
        if (*opt) create.push_back(opt);
        table({{create, 0}, {{"load", f, path("in.dump")}, 0}});
        const long long full = size_of(f);
        EXPECT_LE(estimate("info", f), full / 8) << "a file just loaded has little to give back";
        table({{{"del", f, "-"}, 0, {}, {}, del}});
        EXPECT_EQ(size_of(f), full) << "deletes give nothing back by themselves";
        // info and stat estimate what compact gives back: here about half the file.
        for (const char* cmd : {"info", "stat"}) {
            const long long est = estimate(cmd, f);
            EXPECT_GE(est, full / 3) << cmd;
            EXPECT_LE(est, full * 2 / 3) << cmd;
        }
        const std::string keys0 = run({"dump", f}).out, keys1 = run({"scan", f, "--key", "1"}).out;
        const std::string info = run({"info", f}).out;
        table({{{"compact", f}, 0, {"2000 records", "given back"}}, {{"check", f}, 0},
               {{"dump", f}, 0, {"=" + keys0}}, {{"scan", f, "--key", "1"}, 0, {"=" + keys1}},
               // Same format: the control page's kind and where key 0 is kept.
               {{"info", f}, 0, {line(info, "format "), line(info, "key 0 stored")}}});
        // Denser than half is fine: the rewrite fills key 0's index pages, which records
        // written one by one leave half full.
        EXPECT_LE(size_of(f), full / 2 + 2 * 1024) << full;
        EXPECT_GE(size_of(f), full * 2 / 5) << full;
    }
    EXPECT_EQ(temporaries(), "") << "a temporary was left";
}

// Compact is refused while another process has the file open, and the file is left as it
// was; once that process is gone it goes through.
TEST_F(Backup, CompactRefusedWhileTheFileIsOpenElsewhere) {
    const std::string f = path("busy");
    spit(path("in.dump"), dump_of(500));
    ASSERT_EQ(run({"load", f, path("in.dump")}).rc, 0);
    Writer w = writer(f, "K9999999A00000held open", "holder");
    const std::string before = slurp(f);
    table({{{"compact", f}, 1, {}, {"open in 1 other process"}}});
    EXPECT_EQ(slurp(f), before);
    EXPECT_EQ(end(w).rc, 0) << slurp(path("holder.err"));
    table({{{"compact", f}, 0}, {{"check", f}, 0}, {{"get", f, "K9999999"}, 0}});
    EXPECT_EQ(temporaries(), "") << "a temporary was left";
}

// A load stopped by a full disk from its n-th page write on may leave its last call's
// rollback waiting in the journal; check (and info, dump) run straight after must apply
// it first and find the file sound, never call it damaged.  When the rollback cannot be
// applied either, they say that it is pending (status 4), still not damage.
TEST_F(Backup, CheckSettlesARollbackLeftByAFullDisk) {
    spit(path("in.dump"), dump_of(1000));
    const char* asan = std::getenv("ASAN_OPTIONS");
    auto failing_write = [&](int n) {
        env = {{"LD_PRELOAD", KISAM_FAULT_SHIM}, {"KISAM_TEST_FAIL_PWRITE", std::to_string(n)},
               {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0"}};
    };
    int failed_loads = 0, settled = 0;
    for (int n : {3, 9, 17, 40, 77, 130, 211, 333}) {
        SCOPED_TRACE("n=" + std::to_string(n));
        const std::string f = path("full" + std::to_string(n));
        ASSERT_EQ(run({"create", f, "8,6"}).rc, 0);
        failing_write(n);
        Result r = run({"load", f, path("in.dump")});
        env.clear();
        if (r.rc == 0) continue;
        ++failed_loads;
        EXPECT_EQ(r.rc, 1) << r.err;
        const std::string cmd = n % 3 == 0 ? "info" : n % 3 == 1 ? "dump" : "check";
        r = run({cmd, f});
        settled += has(r.err, "was applied first");
        EXPECT_EQ(r.rc, 0) << cmd << ": " << r.out << r.err;
        EXPECT_FALSE(has(r.out, "DAMAGED") || has(r.out, "problem")) << r.out;
        table({{{"check", f}, 0, {}, {"!was applied first"}}});   // applied once only
    }
    EXPECT_GT(failed_loads, 4) << "the full disk stopped too few loads";
    EXPECT_GT(settled, 0) << "no load left a rollback pending";

    // The disk still full when check runs: the rollback stays pending, and check says so.
    int pending = 0;
    for (int n : {17, 40, 77}) {
        const std::string f = path("still" + std::to_string(n));
        ASSERT_EQ(run({"create", f, "8,6"}).rc, 0);
        failing_write(n);
        run({"load", f, path("in.dump")});
        failing_write(1);
        Result c = run({"check", f});
        env.clear();
        if (c.rc == 0) continue;   // nothing was pending after this load
        ++pending;
        EXPECT_EQ(c.rc, 4) << c.out << c.err;
        EXPECT_TRUE(has(c.err, "is pending") && has(c.err, "next open")) << c.err;
        EXPECT_FALSE(has(c.out, "DAMAGED")) << c.out;
        EXPECT_EQ(run({"check", f}).rc, 0) << "settled once the disk takes writes again";
    }
    EXPECT_GT(pending, 0) << "no load left a rollback that a full disk kept pending";
}

}  // namespace
