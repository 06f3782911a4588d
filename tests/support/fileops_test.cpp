// File operations: status codes, creation and tests, shell commands with hostile
// names, directory creation, system queries.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support_util.h"

namespace {

class FileOps : public ::testing::Test {
protected:
    int op(int cmd, int flags, std::vector<std::string> paths) {
        std::vector<char *> argv;
        for (auto &p : paths) argv.push_back(p.data());
        status = 0;
        return ZTFileOp(cmd, flags | ZTFO_QUIET, &status, static_cast<int>(argv.size()), argv.data());
    }
    // Every entry of the sandbox other than those named: nothing else may appear.
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        for (auto &e : std::filesystem::recursive_directory_iterator(box.dir()))
            out.push_back(e.path().string().substr(box.dir().size()));
        std::sort(out.begin(), out.end());
        return out;
    }
    st::Sandbox box;
    int status = 0;
};

TEST_F(FileOps, DispatcherStatusCodes) {
    const struct {
        int cmd;
        std::vector<std::string> paths;
        int status;
    } refused[] = {{0, {box.dir()}, 1},          {15, {box.dir()}, 1},        {ZTFO_TESTDIR, {}, 2},
                   {ZTFO_TESTDIR, {""}, 2},      {ZTFO_TESTDIR, {box.dir(), box.dir()}, 2},
                   {ZTFO_COPY, {box.dir()}, 2},  {ZTFO_RENAME, {"a", "b", "c"}, 2}};
    for (const auto &c : refused) {
        EXPECT_EQ(op(c.cmd, 0, c.paths), -1) << c.cmd;
        EXPECT_EQ(status, c.status) << c.cmd;
    }
    EXPECT_EQ(ZTFileOp(ZTFO_TESTDIR, ZTFO_QUIET, nullptr, 0, nullptr), -1);   // no status word: no crash
    for (auto [err, code] : {std::pair{ENOENT, 3}, {EACCES, 4}, {ENOTEMPTY, 7}, {EMFILE, 8}, {EIO, 9999}})
        EXPECT_EQ(ZTFileOpErrStatus("X", ZTFO_QUIET, err), code) << err;
}

TEST_F(FileOps, CreateTestTruncateSize) {
    const std::string d = box.path("a/b");
    EXPECT_EQ(op(ZTFO_CREATEDIR, 0, {d}), 0);
    EXPECT_TRUE(st::is_dir(d));
    EXPECT_EQ(op(ZTFO_CREATEDIR, 0, {d}), -1);
    EXPECT_EQ(status, 9);
    st::write_file(d + "/keep", "x");
    EXPECT_EQ(op(ZTFO_CREATEDIR, ZTFO_FORCE, {d}), 0);   // removed and made again, empty
    EXPECT_EQ(op(ZTFO_TESTDIREMPTY, 0, {d}), 1);
    st::write_file(d + "/.x", "");
    EXPECT_EQ(op(ZTFO_TESTDIREMPTY, 0, {d}), 0);

    const std::string f = box.path("n/m/c.txt");
    EXPECT_EQ(op(ZTFO_CREATEFILE, 0, {f}), 0);
    EXPECT_TRUE(st::exists(f));
    EXPECT_EQ(op(ZTFO_CREATEFILE, 0, {f}), -1);
    EXPECT_EQ(status, 9);
    EXPECT_EQ(op(ZTFO_TESTDIREMPTY, 0, {f}), -1);
    EXPECT_EQ(status, 6);
    EXPECT_EQ(op(ZTFO_TESTEXIST, 0, {f}), 1);
    EXPECT_EQ(op(ZTFO_TESTEXIST, 0, {f + "x"}), 0);
    EXPECT_EQ(op(ZTFO_TESTFILE, 0, {f}), 1);
    EXPECT_EQ(op(ZTFO_TESTDIR, 0, {f}), 0);
    EXPECT_EQ(op(ZTFO_TESTDIR, 0, {f + "x"}), -1);
    EXPECT_EQ(status, 3);

    st::write_file(f, "12345");
    EXPECT_EQ(op(ZTFO_SIZE32, 0, {f}), 5);
    EXPECT_EQ(op(ZTFO_TRUNCATE, 0, {f}), 0);
    EXPECT_EQ(op(ZTFO_SIZE32, 0, {f}), 0);
    EXPECT_EQ(op(ZTFO_TRUNCATE, 0, {f + "x"}), -1);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(op(ZTFO_TRUNCATE, 0, {d}), -1);
    EXPECT_EQ(status, 5);

    const std::string big = box.path("big");
    int fd = ::open(big.c_str(), O_WRONLY | O_CREAT, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 3LL << 30), 0);   // sparse: no space used
    ::close(fd);
    EXPECT_EQ(op(ZTFO_SIZE32, 0, {big}), INT32_MIN);

    EXPECT_EQ(op(ZTFO_DELETEFILE, 0, {f}), 0);
    EXPECT_EQ(op(ZTFO_DELETEFILE, 0, {f}), -1);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(op(ZTFO_DELETEDIR, 0, {box.path("n")}), -1);
    EXPECT_EQ(status, 7);
    EXPECT_EQ(op(ZTFO_DELETEDIR, 0, {box.path("n/m")}), 0);
}

// Names that a shell would read as commands, quotes, variables or options.
const char *const kHostile[] = {
    "a'; touch pwned; '", "$(touch pwned)", "`touch pwned`", "x\ny; touch pwned", "sp ace\ttab",
    "q\"uo'te\\back", "-rf", "semi;amp&pipe|<>()", "$HOME", "star*",
};

TEST_F(FileOps, ShellCommandsActOnExactlyTheNamedFiles) {
    const std::string src = box.path("src");
    const std::string dst = box.path("dst");
    std::filesystem::create_directories(src);
    for (const char *name : kHostile) {
        SCOPED_TRACE(name);
        const std::string a = src + "/" + name;
        st::write_file(a, name);
        const std::string b = dst + "/sub/" + name;   // parents made by Copy
        ASSERT_EQ(op(ZTFO_COPY, 0, {a, b}), 0) << status;
        EXPECT_EQ(st::read_file(b), name);
        const std::string c = dst + "/sub/" + name + ".moved";
        ASSERT_EQ(op(ZTFO_MOVE, 0, {b, c}), 0) << status;
        EXPECT_FALSE(st::exists(b));
        const std::string r = dst + "/sub/" + name + ".renamed";
        ASSERT_EQ(op(ZTFO_RENAME, 0, {c, r}), 0) << status;
        ASSERT_EQ(op(ZTFO_DELETE, 0, {r}), 0) << status;
        EXPECT_FALSE(st::exists(r));
        EXPECT_TRUE(st::exists(a));
    }
    EXPECT_FALSE(st::exists("pwned"));
    std::vector<std::string> want = {"/dst", "/dst/sub", "/home", "/q9", "/src"};
    for (const char *name : kHostile) want.push_back(std::string("/src/") + name);
    std::sort(want.begin(), want.end());
    EXPECT_EQ(entries(), want);

    // A failing command gives 9999; recursive and force options reach rm.
    EXPECT_EQ(op(ZTFO_DELETE, 0, {box.path("none")}), -1);
    EXPECT_EQ(status, 9999);
    EXPECT_EQ(op(ZTFO_DELETE, ZTFO_RECURSIVE | ZTFO_FORCE, {src}), 0);
    EXPECT_FALSE(st::exists(src));
}

TEST_F(FileOps, RemoveHelpersWithHostileDirectories) {
    const std::string d = box.path("it's $(touch pwned)");
    std::filesystem::create_directories(d + "/deep");
    st::write_file(d + "/WQ1", "");
    st::write_file(d + "/WQ2", "");
    st::write_file(d + "/other", "");
    ::setenv("WQTMP", d.c_str(), 1);
    ZTRMTmpWQStar();
    EXPECT_FALSE(st::exists(d + "/WQ1"));
    EXPECT_FALSE(st::exists(d + "/WQ2"));
    EXPECT_TRUE(st::exists(d + "/other"));
    ::unsetenv("WQTMP");
    ZTRMDashRF(d.c_str());
    EXPECT_FALSE(st::exists(d));
    EXPECT_FALSE(st::exists("pwned"));
    EXPECT_FALSE(st::exists(box.path("pwned")));
}

TEST_F(FileOps, OverlongPathsAreRefusedNotCut) {
    // Cut to fit, this path would name the sandbox's existing file "victim".
    st::write_file(box.path("victim"), "x");
    std::string longp = box.path("victim") + std::string(1100, '/') + "x";
    EXPECT_EQ(op(ZTFO_DELETEFILE, 0, {longp}), -1);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(op(ZTFO_DELETE, 0, {longp}), -1);
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(st::exists(box.path("victim")));
    std::string deep = box.dir() + "/" + std::string(600, 'd') + "/x";
    EXPECT_EQ(ZTMakeDirs(deep.c_str()), -1);
}

TEST_F(FileOps, MakeDirsAndExistence) {
    EXPECT_EQ(ZTMakeDirs((box.dir() + "/x/y/z").c_str()), 0);
    EXPECT_TRUE(st::is_dir(box.path("x/y")));
    EXPECT_FALSE(st::exists(box.path("x/y/z")));
    st::write_file(box.path("file"), "");
    EXPECT_EQ(ZTMakeDirs((box.dir() + "/file/a/b").c_str()), -1);
    EXPECT_EQ(ZTMakeDirs((box.dir() + "/bang!/a").c_str()), 0);   // "!" outside the known roots: ignored
    EXPECT_FALSE(st::exists(box.path("bang!")));

    std::string p = box.dir() + "//x//y";
    EXPECT_EQ(ZTFileExists(p.data()), 1);
    EXPECT_STREQ(p.c_str(), (box.dir() + "/x/y").c_str());
    std::string q = box.dir() + "/nope";
    EXPECT_EQ(ZTFileExists(q.data()), 0);
    std::string r = box.dir() + "/file/sub";
    EXPECT_EQ(ZTFileExists(r.data()), -1);
    EXPECT_EQ(ZTFileIsDir(box.dir().c_str()), 1);
    EXPECT_EQ(ZTFileIsDir(box.path("file").c_str()), 0);
    EXPECT_EQ(ZTFileIsFile(box.path("file").c_str()), 1);
    EXPECT_EQ(ZTFileIsFile(box.path("nope").c_str()), -1);
    char dn[] = "/a/b/c";
    EXPECT_STREQ(ZTDirname(dn), "/a/b");
    char bn[] = "/a/b/c";
    EXPECT_STREQ(ZTBasename(bn), "c");
}

TEST(SystemQueries, UserHostOsAndLibraries) {
    st::Sandbox box;
    const char *me = ZTGetUserName();
    ASSERT_NE(me, nullptr);
    EXPECT_EQ(ZTGetUIDFromName(me), static_cast<int>(::getuid()));
    EXPECT_EQ(ZTGetUIDFromName("no-such-user-kisam"), -1);
    EXPECT_NE(ZTGetComputerName(), nullptr);
    EXPECT_STREQ(ZTGetOsType(), "UNIX");
    EXPECT_STREQ(ZTGetOsName(), "LINUX");
    EXPECT_STREQ(ZTGetClType(), "None");
    ZTSetClType("a-very-long-client-type-name");
    EXPECT_STREQ(ZTGetClType(), "a-very-long-client-t");
    EXPECT_EQ(ZTIsAdmin(), ::geteuid() == 0 ? 1 : 0);

    ZTSigHandler old = ZTSignal(SIGUSR1, SIG_IGN);
    EXPECT_NE(old, SIG_ERR);
    EXPECT_EQ(ZTSignal_intr(SIGUSR1, old), SIG_IGN);

    // Libraries: an absolute name as it stands, a relative one under lib_dir.
    Dl_info info;
    double (*cosp)(double) = std::cos;
    ASSERT_NE(::dladdr(reinterpret_cast<void *>(cosp), &info), 0);
    const std::string libm = info.dli_fname;
    EXPECT_EQ(ZTLibLoad("/no/such/lib.so"), nullptr);
    void *h = ZTLibLoad(libm.c_str());
    ASSERT_NE(h, nullptr);
    EXPECT_NE(ZTLibGetProcAddr(h, "cos"), nullptr);
    EXPECT_EQ(ZTLibGetProcAddr(h, "no_such_symbol_here"), nullptr);
    ZTLibUnload(h);
    std::filesystem::create_directories(box.q9() + "/lib");
    std::filesystem::create_symlink(libm, box.q9() + "/lib/mylib.so");
    EXPECT_EQ(st::in_child([] {
        void *lh = ZTLibLoad("mylib.so");
        CHILD_CHECK(lh != nullptr);
        ZTLibUnload(lh);
        return 0;
    }), 0);
}

}  // namespace
