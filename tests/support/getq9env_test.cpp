// The settings store: precedence, directives, directory defaults, exports, override
// variables, expansion.  The store loads once per process, so each check runs in a child.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <string>

#include "support_util.h"

namespace {

bool eq(const char *a, const std::string &b) { return a != nullptr && b == a; }

class EnvStore : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char *v : {"ZT_APPDATA", "ZT_DOCUMENTS", "ZT_TEMP", "ZT_COMMONAPPDATA", "WQTMP", "WQCONFIG",
                              "WQSYSTEM", "config_fn", "base_dir", "KEYX", "WQALTTMP"})
            ::unsetenv(v);
    }
    st::Sandbox box;
    std::string info = box.q9() + "/Q9.info";
};

TEST_F(EnvStore, PrecedenceDirectivesAndCaching) {
    st::write_file(box.home() + "/.Q9.profile", "both from_profile\nquoted 'a\\nb'\nuser_only u\n");
    st::write_file(info, "both from_info\nsys_only s\nKEYX from_info\nLocalEnv LOCALV lv\n"
                         "Env EXPV ${HOME}/e\nEnv PRESET nope\nsetting 1\nsetting 2\n");
    st::write_file(box.q9() + "/Q9Config", "from_config yes\n");
    ::setenv("KEYX", "from_process", 1);
    ::setenv("PRESET", "kept", 1);
    EXPECT_EQ(st::in_child([&] {
        CHILD_CHECK(eq(ZTGetEnv("BOTH"), "from_profile"));
        CHILD_CHECK(eq(GetSysEnv("both"), "from_info"));
        CHILD_CHECK(eq(ZTGetEnvX("sys_only"), "s") && GetUsrEnv("sys_only") == nullptr);
        CHILD_CHECK(eq(ZTGetEnvX("quoted"), "a\nb"));
        CHILD_CHECK(eq(ZTGetEnvX("KEYX"), "from_process"));   // the process beats the files, cached
        ::setenv("KEYX", "changed", 1);
        CHILD_CHECK(eq(ZTGetEnvX("KEYX"), "from_process"));
        CHILD_CHECK(eq(ZTGetEnvX("LOCALV"), "lv") && std::getenv("LOCALV") == nullptr);
        CHILD_CHECK(eq(std::getenv("EXPV"), box.home() + "/e"));
        CHILD_CHECK(eq(ZTGetEnvX("PRESET"), "kept") && eq(GetSysEnv("setting"), "2"));
        CHILD_CHECK(eq(GetSysEnv("from_config"), "yes"));
        ZTPutEnv("put", "x${user_only}y${NOPE}z");
        CHILD_CHECK(eq(ZTGetEnvX("put"), "xuyz") && std::getenv("put") == nullptr);
        ::setenv("RAW", "${put}", 1);
        char out[8];
        ZTExpand("<${RAW}${HOME", out, sizeof out);
        CHILD_CHECK(eq(out, "<${put}"));   // a substituted value is not rescanned; cut to fit
        return 0;
    }), 0);
}

TEST_F(EnvStore, DirectoryDefaultsAndExports) {
    ::setenv("ZT_TEMP", "${HOME}/mytmp", 1);
    EXPECT_EQ(st::in_child([&] {
        LoadEnv();
        const std::string q9 = box.q9(), home = box.home();
        CHILD_CHECK(eq(zt_homep, q9) && eq(zt_appdatap, home + "/.Q9") && eq(zt_docp, home + "/Documents"));
        CHILD_CHECK(eq(zt_comappdatap, q9 + "/share") && eq(zt_imagep, q9 + "/images"));
        CHILD_CHECK(eq(zt_tempp, home + "/mytmp") && st::is_dir(home + "/mytmp"));
        CHILD_CHECK(eq(ZTGetEnvX("bin_dir"), q9 + "/bin") && eq(ZTGetEnv("WQSYSTEM"), q9 + "/system"));
        CHILD_CHECK(eq(std::getenv("ZT_HOME"), q9) && eq(std::getenv("ZT_APPDATA"), home + "/.Q9"));
        CHILD_CHECK(std::strstr(std::getenv("PATH"), (q9 + "/bin:").c_str()) != nullptr);
        CHILD_CHECK(st::exists(q9 + "/share/_Q9_Glbl_Mtx_.lck"));
        FreeSysEnv();
        CHILD_CHECK(zt_glblmtxp == nullptr && !st::exists(q9 + "/share/_Q9_Glbl_Mtx_.lck"));
        return 0;
    }), 0);
    ::setenv("HOME_Q9", box.path("absent").c_str(), 1);
    EXPECT_EQ(st::in_child([&] {
        ZTSetNoExport();
        LoadEnv();
        CHILD_CHECK(eq(zt_homep, ".") && ZTGetEnvX("bin_dir") == nullptr);
        CHILD_CHECK(std::getenv("ZT_HOME") == nullptr && eq(GetUsrEnv("ZT_HOME"), "."));
        return 0;
    }), 0);
}

// What kisam(3), the README and python/README tell a user that attaching does outside
// the library: the directories, their modes, the mutex's lock file and PATH.
TEST_F(EnvStore, SideEffectsAreThoseTheDocumentsList) {
    auto mode = [](const std::string &p) {
        struct stat st{};
        return ::stat(p.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
    };
    ::setenv("PATH", "/usr/bin:/bin", 1);
    EXPECT_EQ(st::in_child([&] {
        ::umask(022);
        LoadEnv();
        const std::string q9 = box.q9(), home = box.home();
        CHILD_CHECK(st::is_dir(home + "/.Q9") && st::is_dir(home + "/Documents"));
        CHILD_CHECK(mode(q9 + "/share") == 0777 && mode(q9 + "/tmp") == 0777);   // whatever the umask
        CHILD_CHECK(mode(q9 + "/share/_Q9_Glbl_Mtx_.lck") == 0666);
        CHILD_CHECK(eq(std::getenv("PATH"), "/usr/bin:/bin:" + q9 + "/bin:"));  // the trailing colon
        return 0;
    }), 0);
    // ZTSetNoExport: PATH and the home directory alone; the shared directories all the same.
    std::filesystem::remove_all(box.home() + "/.Q9");
    std::filesystem::remove_all(box.home() + "/Documents");
    EXPECT_EQ(st::in_child([&] {
        ZTSetNoExport();
        LoadEnv();
        CHILD_CHECK(eq(std::getenv("PATH"), "/usr/bin:/bin"));
        CHILD_CHECK(!st::exists(box.home() + "/.Q9") && !st::exists(box.home() + "/Documents"));
        CHILD_CHECK(st::exists(box.q9() + "/share/_Q9_Glbl_Mtx_.lck") && st::is_dir(box.q9() + "/tmp"));
        return 0;
    }), 0);
    // A HOME_Q9 that does not exist is made, with its share directory.
    ::setenv("HOME_Q9", box.path("absent").c_str(), 1);
    EXPECT_EQ(st::in_child([&] {
        LoadEnv();
        CHILD_CHECK(mode(box.path("absent/share")) == 0777 && !st::exists(box.path("absent/tmp")));
        CHILD_CHECK(eq(std::getenv("PATH"), "/usr/bin:/bin"));   // no home: nothing added
        return 0;
    }), 0);
}

TEST_F(EnvStore, OverrideVariables) {
    const std::string cfg = box.path("other.cfg");
    st::write_file(cfg, "via_wqconfig 1\n");
    st::write_file(info, "alt_tmp_dir from_info\n");
    ::setenv("WQCONFIG", cfg.c_str(), 1);
    ::setenv("WQALTTMP", "from_env", 1);
    ::setenv("WQTMP", "/wq/tmp", 1);
    ::setenv("WQFOO", "over", 1);
    EXPECT_EQ(st::in_child([&] {
        LoadEnv();
        CHILD_CHECK(eq(GetSysEnv("via_wqconfig"), "1") && eq(ZTGetEnvX("config_fn"), cfg));
        CHILD_CHECK(eq(GetSysEnv("alt_tmp_dir"), "from_env") && eq(ZTGetEnvX("tmp_dir"), "/wq/tmp"));
        CHILD_CHECK(ZTGetEnvX("FOO_DIR") == nullptr);            // upper-case keys have none
        CHILD_CHECK(eq(ZTGetEnvX("foo_lst"), "over") && eq(GetUsrEnv("foo_lst"), "over"));
        return 0;
    }), 0);
}

}  // namespace
