// The settings store: precedence, files and directives, directory defaults, exports,
// override variables, expansion and path helpers.  Every check that loads the store
// runs in a forked child, because the store loads once per process.
#include <kisam/ztsupport.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
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
    std::string profile() const { return box.home() + "/.Q9.profile"; }
    st::Sandbox box;
};

TEST_F(EnvStore, PrecedenceAndCaching) {
    st::write_file(profile(), "both from_profile\nquoted 'a\\nb'\nuser_only u\n");
    st::write_file(box.q9() + "/Q9.info", "both from_info\nsys_only s\nKEYX from_info\n");
    ::setenv("KEYX", "from_process", 1);
    EXPECT_EQ(st::in_child([&] {
        CHILD_CHECK(eq(ZTGetEnvX("both"), "from_profile"));
        CHILD_CHECK(eq(ZTGetEnv("BOTH"), "from_profile"));
        CHILD_CHECK(eq(GetSysEnv("both"), "from_info"));
        CHILD_CHECK(eq(ZTGetEnvX("sys_only"), "s"));
        CHILD_CHECK(GetUsrEnv("sys_only") == nullptr);
        CHILD_CHECK(eq(ZTGetEnvX("quoted"), "a\nb"));
        // The process environment beats the system store and is cached at first sight.
        CHILD_CHECK(eq(ZTGetEnvX("KEYX"), "from_process"));
        ::setenv("KEYX", "changed", 1);
        CHILD_CHECK(eq(ZTGetEnvX("KEYX"), "from_process"));
        CHILD_CHECK(ZTGetEnvX("no_such_key") == nullptr);
        ZTPutEnv("put", "x${user_only}y${NOPE}z");
        CHILD_CHECK(eq(ZTGetEnvX("put"), "xuyz"));
        CHILD_CHECK(std::getenv("put") == nullptr);
        return 0;
    }), 0);
}

TEST_F(EnvStore, DirectoriesDefaultsAndExports) {
    ::setenv("ZT_TEMP", "${HOME}/mytmp", 1);
    EXPECT_EQ(st::in_child([&] {
        LoadEnv();
        const std::string q9 = box.q9(), home = box.home();
        CHILD_CHECK(eq(zt_homep, q9));
        CHILD_CHECK(eq(zt_appdatap, home + "/.Q9"));
        CHILD_CHECK(eq(zt_docp, home + "/Documents"));
        CHILD_CHECK(eq(zt_comappdatap, q9 + "/share"));
        CHILD_CHECK(eq(zt_climagep, q9 + "/share/images"));
        CHILD_CHECK(eq(zt_imagep, q9 + "/images"));
        CHILD_CHECK(eq(zt_tempp, home + "/mytmp"));
        char sess[64];
        std::snprintf(sess, sizeof sess, "/s_%08lx", static_cast<unsigned long>(::getpid()));
        CHILD_CHECK(eq(zt_sessionp, home + "/.Q9" + sess));
        CHILD_CHECK(eq(ZTGetEnvX("bin_dir"), q9 + "/bin"));
        CHILD_CHECK(eq(ZTGetEnvX("tmp_dir"), q9 + "/tmp"));
        CHILD_CHECK(eq(ZTGetEnv("WQSYSTEM"), q9 + "/system"));
        CHILD_CHECK(eq(std::getenv("ZT_HOME"), q9));
        CHILD_CHECK(eq(std::getenv("ZT_TEMP"), home + "/mytmp"));
        CHILD_CHECK(eq(std::getenv("ZT_APPDATA"), home + "/.Q9"));
        CHILD_CHECK(std::strstr(std::getenv("PATH"), (q9 + "/bin:").c_str()) != nullptr);
        CHILD_CHECK(st::is_dir(home + "/.Q9"));
        CHILD_CHECK(st::is_dir(home + "/Documents"));
        CHILD_CHECK(st::is_dir(home + "/mytmp"));
        CHILD_CHECK(st::is_dir(q9 + "/share"));
        CHILD_CHECK(zt_mtxp != nullptr && zt_glblmtxp != nullptr);
        CHILD_CHECK(st::exists(q9 + "/share/_Q9_Glbl_Mtx_.lck"));
        char out[ZT_PATHBUF];
        ::mkdir((q9 + "/bin").c_str(), 0777);
        CHILD_CHECK(getQ9dir("bin", out) == 0 && eq(out, q9 + "/bin/"));
        CHILD_CHECK(getQ9dir("nosuch", out) == -1);
        FreeSysEnv();
        CHILD_CHECK(zt_mtxp == nullptr && zt_glblmtxp == nullptr);
        CHILD_CHECK(!st::exists(q9 + "/share/_Q9_Glbl_Mtx_.lck"));
        return 0;
    }), 0);
}

TEST_F(EnvStore, NoInstallationDirectory) {
    ::setenv("HOME_Q9", box.path("absent").c_str(), 1);
    EXPECT_EQ(st::in_child([&] {
        ZTSetNoExport();
        LoadEnv();
        CHILD_CHECK(eq(zt_homep, "."));
        CHILD_CHECK(eq(zt_imagep, "."));
        CHILD_CHECK(ZTGetEnvX("bin_dir") == nullptr);
        CHILD_CHECK(ZTGetEnvX("config_fn") == nullptr);
        CHILD_CHECK(eq(zt_comappdatap, box.path("absent") + "/share"));
        // No-export: the variables stay out of the environment, into the user store.
        CHILD_CHECK(std::getenv("ZT_HOME") == nullptr);
        CHILD_CHECK(eq(GetUsrEnv("ZT_HOME"), "."));
        CHILD_CHECK(!st::exists(box.home() + "/.Q9"));
        return 0;
    }), 0);
    EXPECT_EQ(st::in_child([&] {
        ::setenv("PATH", "/usr/bin:/bin", 1);
        ::setenv("HOME_Q9", box.path("absent-too").c_str(), 1);
        LoadEnv();
        CHILD_CHECK(eq(zt_homep, "."));
        CHILD_CHECK(eq(std::getenv("PATH"), "/usr/bin:/bin"));   // no relative element
        return 0;
    }), 0);
}

TEST_F(EnvStore, FileDirectivesAndConfigFile) {
    st::write_file(box.q9() + "/Q9.info",
                   "LocalEnv LOCALV lv\n"
                   "LocalEnv TOO many words here\n"
                   "Env EXPV ${HOME}/e\n"
                   "Env PRESET nope\n"
                   "UserEnv nobody_at_all UV x\n"
                   "datetype EUROPEAN\n"
                   "setting 1\n"
                   "setting 2\n");
    st::write_file(box.q9() + "/Q9Config", "from_config yes\n");
    ::setenv("PRESET", "kept", 1);
    EXPECT_EQ(st::in_child([&] {
        LoadEnv();
        CHILD_CHECK(eq(ZTGetEnvX("LOCALV"), "lv"));
        CHILD_CHECK(std::getenv("LOCALV") == nullptr);
        CHILD_CHECK(ZTGetEnvX("TOO") == nullptr);
        CHILD_CHECK(eq(std::getenv("EXPV"), box.home() + "/e"));
        CHILD_CHECK(eq(ZTGetEnvX("EXPV"), box.home() + "/e"));
        CHILD_CHECK(eq(ZTGetEnvX("PRESET"), "kept"));
        CHILD_CHECK(ZTGetEnvX("UV") == nullptr);
        CHILD_CHECK(zt_datetype == 1);
        CHILD_CHECK(eq(GetSysEnv("setting"), "2"));
        CHILD_CHECK(eq(GetSysEnv("from_config"), "yes"));
        CHILD_CHECK(eq(ZTGetEnvX("config_fn"), box.q9() + "/Q9Config"));
        return 0;
    }), 0);

    // The user's own name selects a UserEnv line.
    const char *me = ZTGetUserName();
    ASSERT_NE(me, nullptr);
    st::write_file(box.q9() + "/Q9.info", std::string("UserEnv ") + me + " UV mine\n");
    EXPECT_EQ(st::in_child([&] {
        CHILD_CHECK(eq(ZTGetEnvX("UV"), "mine"));
        CHILD_CHECK(eq(std::getenv("UV"), "mine"));
        return 0;
    }), 0);
}

TEST_F(EnvStore, OverrideVariables) {
    const std::string cfg = box.path("other.cfg");
    st::write_file(cfg, "via_wqconfig 1\n");
    st::write_file(box.q9() + "/Q9.info", "alt_tmp_dir from_info\n");
    ::setenv("WQCONFIG", cfg.c_str(), 1);
    ::setenv("WQALTTMP", "from_env", 1);
    ::setenv("WQTMP", "/wq/tmp", 1);
    EXPECT_EQ(st::in_child([&] {
        LoadEnv();
        CHILD_CHECK(eq(GetSysEnv("via_wqconfig"), "1"));
        CHILD_CHECK(eq(ZTGetEnvX("config_fn"), cfg));
        CHILD_CHECK(eq(GetSysEnv("alt_tmp_dir"), "from_env"));   // the override wins in files
        CHILD_CHECK(eq(ZTGetEnvX("tmp_dir"), "/wq/tmp"));         // so no default is made
        CHILD_CHECK(ZTGetEnvX("TMP_DIR") == nullptr || eq(ZTGetEnvX("TMP_DIR"), "/wq/tmp"));
        CHILD_CHECK(ZTGetEnvX("ZZ_DIR") == nullptr);
        return 0;
    }), 0);
}

TEST_F(EnvStore, UpperCaseKeyHasNoOverride) {
    ::setenv("WQFOO", "over", 1);
    EXPECT_EQ(st::in_child([&] {
        CHILD_CHECK(ZTGetEnvX("FOO_DIR") == nullptr);
        CHILD_CHECK(eq(ZTGetEnvX("foo_lst"), "over"));
        CHILD_CHECK(eq(GetUsrEnv("foo_lst"), "over"));   // cached in the user store
        return 0;
    }), 0);
}

TEST_F(EnvStore, ExpandPutRealEnvAndPath) {
    EXPECT_EQ(st::in_child([&] {
        char out[64];
        ZTPutEnv("V", "val");
        ZTExpand("x${NOPE}y", out, sizeof out);
        CHILD_CHECK(eq(out, "xy"));
        ZTExpand("${HOME", out, sizeof out);
        CHILD_CHECK(eq(out, "${HOME"));
        ZTExpand("a${}b", out, sizeof out);
        CHILD_CHECK(eq(out, "a${}b"));
        ZTExpand("abcdef", out, 4);
        CHILD_CHECK(eq(out, "abc"));
        ZTExpand("[${V}]", out, 4);
        CHILD_CHECK(eq(out, "[va"));
        ZTExpand("abc", out, 1);
        CHILD_CHECK(out[0] == '\0');
        ZTPutEnv("R", "${V}");                      // expanded when put
        ZTPutEnv("S", "$${R}");
        CHILD_CHECK(eq(ZTGetEnvX("S"), "$val"));
        ::setenv("RAW", "${V}", 1);
        ZTExpand("<${RAW}>", out, sizeof out);
        CHILD_CHECK(eq(out, "<${V}>"));              // a substituted value is not rescanned

        CHILD_CHECK(ZTPutRealEnv("REALV", "${V}2") == 0);
        CHILD_CHECK(eq(std::getenv("REALV"), "val2"));
        CHILD_CHECK(eq(GetUsrEnv("REALV"), "val2"));
        ZTPutRealEnv("REALV", nullptr);
        CHILD_CHECK(std::getenv("REALV") == nullptr);
        CHILD_CHECK(eq(GetUsrEnv("REALV"), ""));
        ZTPutRealEnv("ZT_UMASK", "027");
        mode_t m = ::umask(022);
        CHILD_CHECK(m == 027);

        LoadEnv();
        ::setenv("PATH", (std::string("/usr/bin:") + zt_homep + "/bin/").c_str(), 1);
        ZTUpdatePath();
        CHILD_CHECK(eq(std::getenv("PATH"), std::string("/usr/bin:") + zt_homep + "/bin/"));
        ::setenv("PATH", "/usr/bin", 1);
        ZTUpdatePath();
        ZTUpdatePath();
        CHILD_CHECK(eq(std::getenv("PATH"), std::string("/usr/bin:") + zt_homep + "/bin:"));
        std::string huge(40000, 'p');
        ::setenv("PATH", huge.c_str(), 1);
        ZTUpdatePath();
        CHILD_CHECK(eq(std::getenv("PATH"), huge + ":"));   // never cut, addition left off
        return 0;
    }), 0);
}

TEST_F(EnvStore, LoadingLeavesCallersParameterFileAlone) {
    st::write_file(profile(), "p1 v1\n");
    st::write_file(box.q9() + "/Q9.info", "i1 v2\n");
    const std::string mine = box.path("mine");
    st::write_file(mine, "first 1\nsecond 2\n");
    EXPECT_EQ(st::in_child([&] {
        CHILD_CHECK(ParmOpen(mine.c_str()) == 0);
        CHILD_CHECK(ParmRead() == 1);
        CHILD_CHECK(eq(ZTGetEnvX("i1"), "v2"));      // the first lookup loads both files
        CHILD_CHECK(eq(ParmID(), "first"));
        CHILD_CHECK(ParmRead() == 1 && eq(ParmID(), "second") && ParmArgvN(0) == 2);
        CHILD_CHECK(ParmRead() == 0);
        ParmOpen(nullptr);
        return 0;
    }), 0);
}

TEST(EnvHelpers, FileNameFixAndTextTests) {
    char p1[] = "a//b///c";
    ZTFileNameFix(p1);
    EXPECT_STREQ(p1, "a/b/c");
    char p2[] = "http://host//x///y";
    ZTFileNameFix(p2);
    EXPECT_STREQ(p2, "http://host/x/y");
    char p3[] = "//";
    ZTFileNameFix(p3);
    EXPECT_STREQ(p3, "/");
    EXPECT_EQ(strendsin("abc", "bc"), 1);
    EXPECT_EQ(strendsin("bc", "bc"), 0);
    EXPECT_EQ(strbeginsin("abc", "ab"), 1);
    EXPECT_EQ(strbeginsin("abc", "AB"), 0);
    EXPECT_EQ(IsFileSepChar('/'), 1);
    EXPECT_EQ(IsFileSepChar('\\'), 0);
}

}  // namespace
