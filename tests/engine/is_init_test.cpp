// Start-up: the configuration record and its refusals, the first attacher's layout,
// the option bits, where the configuration is looked for, and the process table.
#include "open_fixture.h"

#include <kisam/ztsupport.h>

#include <sys/shm.h>
#include <sys/stat.h>

#include "is_common.h"

namespace {

using ot::Env;
using ot::stack_code;

class IsInit : public Env {
protected:
    void SetUp() override {}
};

TEST_F(IsInit, RefusesUnusableConfigurations) {
    struct Case {
        const char* what;
        kt::Config cfg;
        int detail;
    };
    std::vector<Case> cases;
    auto add = [&](const char* what, auto edit, int detail) {
        kt::Config c;
        edit(c);
        cases.push_back({what, c, detail});
    };
    add("47 bytes", [](kt::Config& c) { c.length = 47; }, 3);
    add("empty", [](kt::Config& c) { c.length = 0; }, 2);
    add("heap too large", [](kt::Config& c) { c.maxopen = 32000; c.alenlock = 32000; c.anumlock = 32000; }, 7);
    add("no buffers", [](kt::Config& c) { c.maxbuf = 0; }, 10);
    add("negative buffers", [](kt::Config& c) { c.maxbuf = -3; }, 10);
    add("no files", [](kt::Config& c) { c.maxopen = 0; }, 10);
    add("no users", [](kt::Config& c) { c.maxusers = 0; }, 10);
    add("26 keys", [](kt::Config& c) { c.maxnkeys = 26; }, 10);
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        start(k.cfg);
        EXPECT_EQ(is_init(), -1);
        EXPECT_EQ(is_errno, ISE_INITERR);
        EXPECT_EQ(stack_code(), 0x2200 + k.detail);
        EXPECT_EQ(isam_com, nullptr);
        EXPECT_LT(::shmget(inst_->key(), 0, 0), 0) << "a refused start-up leaves no segment";
        inst_.reset();
    }
}

TEST_F(IsInit, MissingConfigurationFailsWithDetail1) {
    start();
    ASSERT_EQ(::unlink(inst_->config_path().c_str()), 0);
    EXPECT_EQ(is_init(), -1);
    EXPECT_EQ(is_errno, ISE_INITERR);
    EXPECT_EQ(stack_code(), 0x2201);
    EXPECT_EQ(ZTKISAMGetComAddr(), nullptr);
}

TEST_F(IsInit, FortyEightBytesAttachWithoutOptionBits) {
    kt::Config c;
    c.length = 48;
    c.bits = 0x1;  // lies beyond the 48 bytes: must not be seen
    c.maxopen = 7;
    c.maxbuf = 5;
    start(c);
    ASSERT_EQ(is_init(), 0) << is_errno;
    EXPECT_EQ(ZTKISAMGetComAddr(), static_cast<void*>(isam_com));
    EXPECT_EQ(isam_com->maxopen, 7);
    EXPECT_EQ(isam_com->maxbufs, 5);
    EXPECT_EQ(isam_com->maxufile, 7) << "maxufile 0 means maxopen";
    EXPECT_EQ(isam_com->isc_bits, 0u);
    EXPECT_EQ(is_env.pid_[is_env.useridx], ::getpid());
}

TEST_F(IsInit, OptionBitsTranslate) {
    const std::pair<uint32_t, uint32_t> table[] = {{0x0, 0x0}, {0x2, 0x0}, {0x4, 0x0}, {0x1, 0x2},
                                                   {0x3, 0x6}, {0x5, 0xA}, {0x7, 0xA}};
    for (auto [bits, want] : table) {
        SCOPED_TRACE(bits);
        kt::Config c;
        c.bits = bits;
        start(c);
        ASSERT_EQ(is_init(), 0);
        EXPECT_EQ(isam_com->isc_bits, want);
        nisunisam();
        inst_.reset();
    }
}

TEST_F(IsInit, FallsBackToHomeQ9OnlyWhenTheFirstPlaceIsMissing) {
    start();
    kt::Config c;
    c.maxopen = 9;
    ::unsetenv("KISCONFIG");
    ZTPutEnv("KISCONFIG", "");
    std::string etc = inst_->path("etc");
    ZTPutEnv("etc_dir", etc.c_str());
    ZTPutEnv("HOME_Q9", inst_->path("q9").c_str());  // the store may hold an earlier test's
    kt::write_config(inst_->path("q9/kisamconfig"), c);

    // etc_dir does not exist at all: the file under HOME_Q9 is used.
    ASSERT_EQ(is_init(), 0) << is_errno;
    EXPECT_EQ(isam_com->maxopen, 9);
    nisunisam();

    // etc_dir names a plain file: the first open fails with ENOTDIR, and no second
    // place is tried.
    ot::write_bytes(etc, "x", 1, 0);
    EXPECT_EQ(is_init(), -1);
    EXPECT_EQ(stack_code(), 0x2201);
}

TEST_F(IsInit, ConfigurationFileServesAsLockFileWhenThereIsNone) {
    start(kt::Config(), /*lock_file=*/false);
    ASSERT_EQ(is_init(), 0) << is_errno;
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    EXPECT_EQ(nisgetctl(fd), 0);
    EXPECT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(nisclose(fd), 0);
}

TEST_F(IsInit, ForeignSegmentsAreRefused) {
    start();
    ASSERT_EQ(is_init(), 0);
    auto attach_again = [] {
        isam_com = nullptr;  // as a process that has not attached yet
        if (is_init() != -1) return 10;
        if (isam_com != nullptr) return 11;
        return is_errno == ISE_VERSIONERR ? 1 : is_errno == ISE_MAGICVALERR ? 2 : 12;
    };
    isam_com->iscom_version = 6;
    EXPECT_EQ(kt::run_child(attach_again), 1);
    isam_com->iscom_version = ISCOM_VERSION;
    isam_com->iscom_magicval = 0x1411;
    EXPECT_EQ(kt::run_child(attach_again), 2);
    isam_com->iscom_magicval = ISCOM_MAGIC;
}

TEST_F(IsInit, SecondAttacherKeepsTheSegmentAndFullTablesAreRefused) {
    kt::Config c;
    c.maxusers = 2;
    start(c);
    ASSERT_EQ(is_init(), 0);
    int fd = create("f", {4});
    ASSERT_GE(fd, 0);
    int32_t entry = is_env.pfo_tbl[0];
    int rc = kt::run_child([&] {
        isam_com = nullptr;
        if (is_init() != 0) return 1;
        if (is_firstcomf) return 2;
        if (is_env.pfo_tbl[0] != entry) return 3;  // not re-initialised
        if (ot::attached_processes() != 2) return 4;
        // The table is full now: a third process is refused, before and after fork.
        int r = kt::run_child([] {
            isam_com = nullptr;
            if (is_init() != -1 || is_errno != ISE_INITERR || ot::stack_code() != 0x2205) return 1;
            return 0;
        });
        if (r != 0) return 10 + r;
        r = kt::run_child([] {
            if (is_chinit() != -1 || is_errno != ISE_INITERR || ot::stack_code() != 0x2208) return 1;
            return 0;
        });
        if (r != 0) return 20 + r;
        nisunisam();
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(ot::attached_processes(), 1);
    EXPECT_EQ(nisclose(fd), 0);
}

}  // namespace
