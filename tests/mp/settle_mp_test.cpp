// A rollback that could not reach the disk waits in its journal; a program that reads the
// file itself asks kisam_pending first and settles it with kisam_settle.
//
// A process loads records while every page write from the n-th on fails (a full disk):
// the call that meets the failure is rolled back, but the rollback's own writes fail too,
// so the call stays half done on disk when the process leaves.  For every n: the file is
// reported pending; kisam_settle rolls it back (attaching, since nobody is); after that
// nothing is pending, the structural checker finds the file sound, and every record the
// process stored before the failure is there.
#include "../engine/open_fixture.h"

#include "kcheck.h"

#include <cstdio>

namespace {

class Settle : public ot::Env {};

std::string rec(int i) {
    char b[200];
    std::snprintf(b, sizeof b, "%08d%08d", i * 7919 % 100000, i);
    std::string r(b);
    r.resize(60 + i % 120, static_cast<char>('a' + i % 26));
    return r;
}

TEST_F(Settle, ARollbackLeftInAJournalIsFoundAndApplied) {
    const std::string file = path("load");
    int pendings = 0;
    for (int n = 1; n <= 40; n += 3) {
        ::unlink(file.c_str());
        // The child reports how many records it stored before the failure.
        kt::Pipe done;
        const int st = kt::run_child([&]() -> int {
            const int lens[2] = {8, 8};
            int fd = niscreate(file.c_str(), 2, const_cast<int*>(lens));
            if (fd < 0) return 10;
            int stored = 0;
            {
                kt::Faults f;
                f.arm(kt::Faults::kWrite, n, kt::Faults::kFromThenOn, ENOSPC);
                for (int i = 0; i < 400; ++i) {
                    const std::string r = rec(i);
                    if (niswrite(fd, r.data(), static_cast<int>(r.size())) != 0) break;
                    ++stored;
                }
                done.signal(static_cast<char>(stored));
                // Leaves while the disk still refuses writes: the rollback stays in the
                // journal.
                nisunisam();
            }
            return 0;
        });
        ASSERT_EQ(st, 0) << "n " << n;
        const int stored = static_cast<unsigned char>(done.wait());
        const int p = kisam_pending(file.c_str());
        ASSERT_GE(p, 0) << "n " << n;
        pendings += p;
        if (p == 1) {
            ASSERT_EQ(kisam_settle(file.c_str()), 1) << "n " << n << " is_errno " << is_errno;
            EXPECT_EQ(kisam_pending(file.c_str()), 0) << "n " << n;
        } else {
            EXPECT_EQ(kisam_settle(file.c_str()), 0) << "n " << n;
        }
        kisam::check::Report rep = kisam::check::check_file(file);
        ASSERT_TRUE(rep.ok) << "n " << n << ": " << rep.error;
        int fd = nisopen(file.c_str(), ISO_RDONLY);
        ASSERT_GE(fd, 0) << "n " << n;
        char out[256];
        for (int i = 0; i < stored; ++i) {
            const std::string r = rec(i);
            ASSERT_EQ(nisfind(fd, 0, r.substr(0, 8).c_str(), out, sizeof out), static_cast<int>(r.size()))
                << "n " << n << " record " << i;
            ASSERT_EQ(std::string(out, r.size()), r);
        }
        ASSERT_EQ(nisclose(fd), 0);
        nisunisam();
    }
    // The sweep must have met the case it is about.
    EXPECT_GT(pendings, 3);
}

TEST_F(Settle, NothingPendingAndNoInstallation) {
    const std::string file = path("plain");
    const int lens[1] = {8};
    int fd = niscreate(file.c_str(), 1, const_cast<int*>(lens));
    ASSERT_GE(fd, 0);
    ASSERT_EQ(niswrite(fd, "00000001xyz", 11), 0);
    ASSERT_EQ(nisclose(fd), 0);
    nisunisam();
    EXPECT_EQ(kisam_pending(file.c_str()), 0);
    EXPECT_EQ(kisam_settle(file.c_str()), 0);
    EXPECT_EQ(kisam_pending(path("missing").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
