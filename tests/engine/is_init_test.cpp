// Start-up refusals: unusable or missing configuration, and a segment of another version.
#include "open_fixture.h"

#include <kisam/ztsupport.h>

#include <sys/shm.h>

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
        void (*edit)(kt::Config&);
        int detail;
    } cases[] = {
        {"47 bytes", [](kt::Config& c) { c.length = 47; }, 3},
        {"empty", [](kt::Config& c) { c.length = 0; }, 2},
        {"heap too large", [](kt::Config& c) { c.maxopen = c.alenlock = c.anumlock = 32000; }, 7},
        {"no buffers", [](kt::Config& c) { c.maxbuf = 0; }, 10},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        kt::Config c;
        k.edit(c);
        start(c);
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

}  // namespace
