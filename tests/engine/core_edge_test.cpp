// Start-up at its edges: configurations that would lay the segment out wrongly are
// refused before any segment exists.
#include "open_fixture.h"

#include <sys/shm.h>

#include "is_common.h"

namespace {

class CoreInit : public ot::Env {
protected:
    void SetUp() override {}
};

TEST_F(CoreInit, ConfigurationsThatCannotBeLaidOutAreRefused) {
    // A heap estimate below the tables (8 buffers, one file, one user end at 8488), one
    // below zero, and more shared files than a buffer tag names.
    std::vector<kt::Config> bad(3);
    bad[0].maxbuf = 8; bad[0].maxopen = 1; bad[0].maxusers = 1;
    bad[0].avgalts = -100; bad[0].alenlock = 0; bad[0].anumlock = -100;
    bad[1].avgalts = -32768;
    kt::Config edge;
    edge.maxopen = 16383; edge.maxbuf = 4; edge.maxusers = 2;
    edge.avgalts = 0; edge.alenlock = 0; edge.anumlock = 0;
    bad[2] = edge;
    bad[2].maxopen = 16384;
    for (size_t i = 0; i < bad.size(); ++i) {
        SCOPED_TRACE(i);
        start(bad[i]);
        if (is_init() == 0) {
            ADD_FAILURE() << "attached";
            nisunisam();
        }
        EXPECT_EQ(is_errno, ISE_INITERR);
        EXPECT_EQ(ot::stack_code(), 0x220A);
        EXPECT_LT(::shmget(inst_->key(), 0, 0), 0);
        inst_.reset();
    }
    start(edge);  // the largest usable table still starts
    EXPECT_EQ(is_init(), 0) << is_errno;
}

}  // namespace
