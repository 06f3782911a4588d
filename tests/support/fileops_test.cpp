// File operations: status codes, creation and tests, and shell commands given hostile
// names, which must act on exactly the named files and never run anything else.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
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
    st::Sandbox box;
    int status = 0;
};

TEST_F(FileOps, StatusCodes) {
    EXPECT_EQ(op(15, 0, {box.dir()}), -1);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(op(ZTFO_RENAME, 0, {"a", "b", "c"}), -1);
    EXPECT_EQ(status, 2);
    for (auto [err, code] : {std::pair{ENOENT, 3}, {EACCES, 4}, {ENOTEMPTY, 7}, {EIO, 9999}})
        EXPECT_EQ(ZTFileOpErrStatus("X", ZTFO_QUIET, err), code) << err;

    const std::string d = box.path("a/b"), f = box.path("n/m/c.txt");
    EXPECT_EQ(op(ZTFO_CREATEDIR, 0, {d}), 0);
    EXPECT_EQ(op(ZTFO_CREATEDIR, 0, {d}), -1);
    EXPECT_EQ(status, 9);
    EXPECT_EQ(op(ZTFO_CREATEFILE, 0, {f}), 0);   // parents made
    EXPECT_EQ(op(ZTFO_CREATEFILE, 0, {f}), -1);  // an existing file only with force
    EXPECT_EQ(status, 9);
    EXPECT_EQ(op(ZTFO_CREATEFILE, ZTFO_FORCE, {f}), 0);
    EXPECT_EQ(op(ZTFO_TESTDIR, 0, {f}), 0);
    EXPECT_EQ(op(ZTFO_TESTDIR, 0, {f + "x"}), -1);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(op(ZTFO_TRUNCATE, 0, {d}), -1);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(op(ZTFO_DELETEFILE, 0, {f}), 0);

    // Cut to fit, this path would name the existing file "victim": it is refused.
    st::write_file(box.path("victim"), "x");
    EXPECT_EQ(op(ZTFO_DELETE, 0, {box.path("victim") + std::string(1100, '/') + "x"}), -1);
    EXPECT_EQ(status, 2);
    EXPECT_TRUE(st::exists(box.path("victim")));
}

TEST_F(FileOps, ShellCommandsActOnExactlyTheNamedFiles) {
    const char *const hostile[] = {"a'; touch pwned; '", "$(touch pwned)", "`touch pwned`", "x\ny; touch pwned",
                                   "q\"uo'te\\back", "-rf", "semi;amp&pipe|<>()", "$HOME", "star*"};
    const std::string src = box.path("src"), dst = box.path("dst");
    std::filesystem::create_directories(src);
    std::vector<std::string> want = {"/dst", "/dst/sub", "/home", "/q9", "/src"};
    for (const char *name : hostile) {
        SCOPED_TRACE(name);
        const std::string a = src + "/" + name, b = dst + "/sub/" + name;
        const std::string c = b + ".moved", r = b + ".renamed";
        st::write_file(a, name);
        want.push_back(std::string("/src/") + name);
        ASSERT_EQ(op(ZTFO_COPY, 0, {a, b}), 0) << status;
        EXPECT_EQ(st::read_file(b), name);
        ASSERT_EQ(op(ZTFO_MOVE, 0, {b, c}), 0) << status;
        ASSERT_EQ(op(ZTFO_RENAME, 0, {c, r}), 0) << status;
        ASSERT_EQ(op(ZTFO_DELETE, 0, {r}), 0) << status;
    }
    std::vector<std::string> got;
    for (auto &e : std::filesystem::recursive_directory_iterator(box.dir()))
        got.push_back(e.path().string().substr(box.dir().size()));
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(got, want);
    EXPECT_FALSE(st::exists("pwned"));

    EXPECT_EQ(op(ZTFO_DELETE, 0, {box.path("none")}), -1);   // a failing command: 9999
    EXPECT_EQ(status, 9999);

    const std::string d = box.path("it's $(touch pwned)");
    std::filesystem::create_directories(d + "/deep");
    ZTRMDashRF(d.c_str());
    EXPECT_FALSE(st::exists(d));
    EXPECT_FALSE(st::exists(box.path("pwned")));
}

}  // namespace
