// kisam_config_path: the configuration file the last search tried, so that a failed
// start-up can name it.  One test, so that its process starts with no search made.
#include "kisam_test.h"

#include <kisam/ztsupport.h>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

std::string tried() {
    const char* p = kisam_config_path();
    return p ? p : "(null)";
}

TEST(ConfigPath, NamesTheFileEachSearchTried) {
    kt::Installation inst;   // sets KISCONFIG to a configuration that works
    EXPECT_EQ(kisam_config_path(), nullptr) << "no search made yet";

    // KISCONFIG names a missing file: that name, with its slashes folded.
    const std::string missing = inst.dir() + "/nowhere/kisamconfig";
    ZTPutEnv("KISCONFIG", (inst.dir() + "//nowhere///kisamconfig").c_str());
    errno = 0;
    EXPECT_EQ(is_init(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(is_errno, ISE_INITERR);
    EXPECT_EQ(kt::stack_code(), 0x2201);
    EXPECT_EQ(tried(), missing);

    // nisopen's own start-up reports it the same way.
    const std::string file = inst.path("f.isam");
    ASSERT_EQ(::close(::open(file.c_str(), O_CREAT | O_WRONLY, 0666)), 0);
    EXPECT_EQ(nisopen(file.c_str(), ISO_RDWR), -1);
    EXPECT_EQ(kt::error_stack(), (std::vector<int>{0x2201, 0x3802}));
    EXPECT_EQ(tried(), missing);

    // Without KISCONFIG: etc_dir/kisamconfig, and as it does not exist, the one under
    // HOME_Q9, which is the last name tried.
    const std::string etc = inst.dir() + "/etc";
    ASSERT_EQ(::mkdir(etc.c_str(), 0777), 0);
    ZTPutEnv("KISCONFIG", "");
    ZTPutEnv("etc_dir", etc.c_str());
    EXPECT_EQ(is_init(), -1);
    EXPECT_EQ(tried(), inst.dir() + "/q9/kisamconfig");

    // An etc_dir file that exists but cannot be opened stops the search there.
    ASSERT_EQ(::symlink("kisamconfig", (etc + "/kisamconfig").c_str()), 0);  // a loop
    EXPECT_EQ(is_init(), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(tried(), etc + "/kisamconfig");

    // A configuration that works: its name stays after the start-up succeeded.
    ZTPutEnv("KISCONFIG", inst.config_path().c_str());
    ASSERT_EQ(is_init(), 0);
    EXPECT_EQ(tried(), inst.config_path());
    EXPECT_EQ(nisunisam(), 0);
}

}  // namespace
