// Start-up, common area, heap, lock words, pool and page allocation at their edges:
// configurations that would lay the segment out wrongly, and the exact accounting of
// the pool and the allocator.
#include "open_fixture.h"
#include "pool_fixture.h"

#include <sys/shm.h>

#include "is_common.h"

namespace {

using ot::Env;
using ot::stack_code;

class CoreInit : public Env {
protected:
    void SetUp() override {}
};

// Settings that size the heap from negative averages, or that give more shared files
// than a buffer tag can name, would make the first attacher write outside the segment
// or mix up the owners of buffers; they are refused before any segment exists.
TEST_F(CoreInit, ConfigurationsThatCannotBeLaidOutAreRefused) {
    struct Case {
        const char* what;
        kt::Config cfg;
    };
    std::vector<Case> cases;
    auto add = [&](const char* what, auto edit) {
        kt::Config c;
        edit(c);
        cases.push_back({what, c});
    };
    // 8 buffers, one file, one user: the tables end at 8488; these averages shrink the
    // estimate to one 8192-byte segment that would end before the heap begins.
    add("heap estimate below the tables", [](kt::Config& c) {
        c.maxbuf = 8; c.maxopen = 1; c.maxusers = 1; c.avgalts = -100; c.alenlock = 0;
        c.anumlock = -100;
    });
    add("heap estimate below zero", [](kt::Config& c) { c.avgalts = -32768; });
    add("more files than a buffer tag names", [](kt::Config& c) {
        c.maxopen = 16384; c.maxbuf = 4; c.maxusers = 2; c.avgalts = 0; c.alenlock = 0;
        c.anumlock = 0;
    });
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        start(k.cfg);
        if (is_init() == 0) {
            ADD_FAILURE() << "attached";
            nisunisam();
        }
        EXPECT_EQ(is_errno, ISE_INITERR);
        EXPECT_EQ(stack_code(), 0x220A);
        EXPECT_EQ(isam_com, nullptr);
        EXPECT_LT(::shmget(inst_->key(), 0, 0), 0);
        inst_.reset();
    }
    // The largest usable table still starts.
    kt::Config c;
    c.maxopen = 16383; c.maxbuf = 4; c.maxusers = 2; c.avgalts = 0; c.alenlock = 0;
    c.anumlock = 0;
    start(c);
    EXPECT_EQ(is_init(), 0) << is_errno;
}

}  // namespace
