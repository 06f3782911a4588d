// Start-up refusals: unusable or missing configuration, and a segment of another version.
#include "open_fixture.h"

#include <kisam/ztsupport.h>

#include <sys/shm.h>

#include "is_common.h"
#include "is_heap.h"
#include "isx_area.h"

namespace {

using ot::Env;
using ot::stack_code;

class IsInit : public Env {
protected:
    void SetUp() override {}
};

// The largest tables that still lay out: as many files as a buffer tag can name.
void largest(kt::Config& c) {
    c.maxopen = 16383; c.maxbuf = 4; c.maxusers = 2;
    c.avgalts = 0; c.alenlock = 0; c.anumlock = 0;
}

// Configurations that are missing, cut short or would lay the segment out wrongly are
// refused before any segment exists, each with its own detail.
TEST_F(IsInit, RefusesUnusableConfigurations) {
    struct Case {
        const char* what;
        void (*edit)(kt::Config&);   // null: no configuration file at all
        int detail;
    } cases[] = {
        {"missing", nullptr, 1},
        {"47 bytes", [](kt::Config& c) { c.length = 47; }, 3},
        {"empty", [](kt::Config& c) { c.length = 0; }, 2},
        {"heap too large", [](kt::Config& c) { c.maxopen = c.alenlock = c.anumlock = 32000; }, 7},
        {"no buffers", [](kt::Config& c) { c.maxbuf = 0; }, 10},
        // A heap estimate below the tables (8 buffers, one file, one user end at 8488).
        {"heap below the tables", [](kt::Config& c) {
             c.maxbuf = 8; c.maxopen = 1; c.maxusers = 1;
             c.avgalts = -100; c.alenlock = 0; c.anumlock = -100;
         }, 10},
        {"heap estimate below zero", [](kt::Config& c) { c.avgalts = -32768; }, 10},
        // The segment rounded up to 8192 bytes leaves a heap of 40 bytes: no room for
        // its anchor, the unused unit and one block.
        {"heap of 40 bytes", [](kt::Config& c) {
             c.maxbuf = 7; c.maxopen = 1; c.maxusers = 89;
             c.avgalts = -98; c.alenlock = 0; c.anumlock = 0;
         }, 10},
        {"more files than a buffer tag names", [](kt::Config& c) { largest(c); c.maxopen = 16384; }, 10},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        kt::Config c;
        if (k.edit) k.edit(c);
        start(c);
        if (!k.edit) {
            ASSERT_EQ(::unlink(inst_->config_path().c_str()), 0);
        }
        EXPECT_EQ(is_init(), -1);
        EXPECT_EQ(is_errno, ISE_INITERR);
        EXPECT_EQ(stack_code(), 0x2200 + k.detail);
        EXPECT_EQ(ZTKISAMGetComAddr(), nullptr);
        EXPECT_LT(::shmget(inst_->key(), 0, 0), 0) << "a refused start-up leaves no segment";
        nisunisam();   // should it have attached after all
        inst_.reset();
    }
    kt::Config c;
    largest(c);
    start(c);
    EXPECT_EQ(is_init(), 0) << is_errno;
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

// A segment made by a library that keeps no extension area is refused with detail 14,
// whether it is just large enough for the documented regions or large enough for the
// area but without one laid out; nothing of it is changed.
TEST_F(IsInit, SegmentsWithoutTheExtensionAreaAreRefused) {
    kt::Config c;
    start(c);
    struct is_config conf = kt::to_record(c);
    conf.co_maxufile = conf.co_maxopen;
    ASSERT_EQ(sizecomm(&conf), 0);
    const size_t xsize = isx_size(conf.co_maxopen, conf.co_maxusers, conf.co_maxbuf);
    for (size_t size : {static_cast<size_t>(conf.co_comsize), conf.co_comsize + xsize}) {
        SCOPED_TRACE(size);
        int id = ::shmget(inst_->key(), size, IPC_CREAT | 0600);
        ASSERT_GE(id, 0);
        char* p = static_cast<char*>(::shmat(id, nullptr, 0));
        ASSERT_NE(p, reinterpret_cast<char*>(-1));
        // The documented regions as another library lays them out; the area left zero.
        isam_com = reinterpret_cast<struct isam_com*>(p);
        is_comlayout(&conf);
        is_heaplayout(&conf);
        isam_com = nullptr;
        std::string err = kt::capture_output(2, [] { EXPECT_EQ(is_init(), -1); });
        EXPECT_EQ(is_errno, ISE_INITERR);
        EXPECT_EQ(stack_code(), 0x220E);
        EXPECT_NE(err.find("made by a library without"), std::string::npos) << err;
        EXPECT_EQ(isam_com, nullptr);
        EXPECT_EQ(reinterpret_cast<struct isam_com*>(p)->iscom_magicval, ISCOM_MAGIC);
        ::shmdt(p);
        ::shmctl(id, IPC_RMID, nullptr);
    }
}

// A configuration enlarged while a program still holds the segment of the old size: the
// system's own refusal (shmget's EINVAL, detail 4), and a line that names the old
// segment and how to remove it -- not the refusal of a foreign segment, which this
// library made.  Once the old segment is gone the larger configuration starts.
TEST_F(IsInit, AnEnlargedConfigurationNamesTheOldSegment) {
    kt::Config c;
    start(c);
    ASSERT_EQ(is_init(), 0);
    const int old = ::shmget(inst_->key(), 0, 0);
    ASSERT_GE(old, 0);
    kt::Config bigger = c;
    bigger.maxbuf = static_cast<int16_t>(c.maxbuf * 4);
    kt::write_config(inst_->config_path(), bigger);
    // In a process that has not attached: its message goes to the parent on stdout.
    int st = -1;
    const std::string out = kt::capture_output(1, [&] {
        st = kt::run_child([] {
            ot::become_unattached();
            int r = 0;
            const std::string err = kt::capture_output(2, [&] { r = is_init(); });
            if (::write(1, err.data(), err.size()) < 0) return 13;
            if (r != -1 || isam_com != nullptr) return 10;
            if (is_errno != ISE_INITERR) return 11;
            return stack_code() == 0x2204 ? 0 : 12;
        });
    });
    EXPECT_EQ(st, 0) << out;
    EXPECT_NE(out.find("shmget fail. errno = 22"), std::string::npos) << out;
    EXPECT_EQ(out.find("made by a library without"), std::string::npos) << out;
    EXPECT_NE(out.find("old size"), std::string::npos) << out;
    EXPECT_NE(out.find("ipcrm -m " + std::to_string(old)), std::string::npos) << out;
    nisunisam();
    ASSERT_LT(::shmget(inst_->key(), 0, 0), 0);
    ASSERT_EQ(is_init(), 0);
    EXPECT_EQ(isam_com->maxbufs, bigger.maxbuf);
}

}  // namespace
