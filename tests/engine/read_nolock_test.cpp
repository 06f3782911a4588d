// Reads without the control lock, in one process: they must give what the locked reads
// give -- results, bytes, errors and the cursor positions they leave -- in every mode,
// and must take no lock and leave the change count alone.
#include "open_fixture.h"

#include "is_error.h"
#include "is_file.h"
#include "is_rec.h"
#include "isx_area.h"
#include "test_hook.h"

#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr int kK0 = 7, kK1 = 5, kK2 = 4;  // odd lengths: items carry pad bytes

std::string key0_of(unsigned id) {
    char t[16];
    std::snprintf(t, sizeof t, "%07u", id);
    return std::string(t, kK0);
}

std::string random_record(unsigned id, std::mt19937& rng) {
    std::string r = key0_of(id);
    static const char* k1[] = {"aaaaa", "abcde", "zzzzz", "\x00\x00\x00\x00\x01", "\xff\xff\xff\xff\xff"};
    r.append(k1[rng() % 5], kK1);
    for (int i = 0; i < kK2; ++i) r += static_cast<char>(rng() % 3 == 0 ? 0xFF : rng() % 3);
    const size_t len = rng() % 12 == 0 ? rng() % 3000 : rng() % 60;
    for (size_t i = 0; i < len; ++i) r += static_cast<char>(rng());
    return r;
}

uint32_t seq_of(int isfd) { return kisam::isx_file_of(is_db[isfd]->uniqueid)->xf_seq; }

// (key 0 kept only in the index, control page size, buffers)
class ReadNoLock : public ot::Env, public ::testing::WithParamInterface<std::tuple<int, int, int>> {
protected:
    void SetUp() override {
        kt::Config c;
        c.maxbuf = static_cast<int16_t>(std::get<2>(GetParam()));
        start(c);
    }
    void TearDown() override {
        kisam::test_locked_reads = false;
        ot::Env::TearDown();
    }
};

// The same calls on two handles of one file, one read without the lock where it can and
// one always locked, give the same results, the same bytes and the same errors; their
// cursors stay together, which every later read compares again.
TEST_P(ReadNoLock, AgreesWithLockedReads) {
    const uint64_t seed = kt::test_seed(0x5EED12);
    std::mt19937 rng(static_cast<unsigned>(seed));
    niscr_ctl(std::get<0>(GetParam()), std::get<1>(GetParam()));
    int a = create("f", {kK0, kK1, kK2});
    ASSERT_GE(a, 0);
    int b = nisopen(path("f").c_str(), ISO_RDWR);
    ASSERT_GE(b, 0);
    std::map<std::string, std::string> model;
    std::vector<char> ba(4000), bb(4000);
    const unsigned long before = is_nolock_reads;
    int reads = 0;
    for (int step = 0; step < 6000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const unsigned op = rng() % 100;
        const unsigned id = rng() % 300;
        if (op < 25) {
            std::string r = random_record(id, rng);
            const int n = static_cast<int>(r.size());
            switch (rng() % 4) {
                case 0: ASSERT_GE(niswrite(a, r.data(), n), 0); if (!model.count(r.substr(0, kK0))) model[r.substr(0, kK0)] = r; break;
                case 1: ASSERT_EQ(nisfwrite(a, r.data(), n), 0); model[r.substr(0, kK0)] = r; break;
                case 2: if (nisupdate(a, r.data(), n) == 0) model[r.substr(0, kK0)] = r; break;
                default: nisdelete(a, r.data()); model.erase(r.substr(0, kK0)); break;
            }
            continue;
        }
        const int keyno = static_cast<int>(rng() % 3);
        const int lens[3] = {kK0, kK1, kK2};
        std::string key;
        if (!model.empty() && rng() % 2) {
            auto it = model.begin();
            std::advance(it, rng() % model.size());
            const int off = keyno == 0 ? 0 : keyno == 1 ? kK0 : kK0 + kK1;
            key = it->second.substr(static_cast<size_t>(off), static_cast<size_t>(lens[keyno]));
        } else {
            for (int i = 0; i < lens[keyno]; ++i) key += static_cast<char>(rng() % 4 == 0 ? 0xFF : rng() % 256);
        }
        // Sizes: whole, cut inside the record, below key 0 (an error), or no buffer.
        int size = 4000;
        const unsigned z = rng() % 20;
        if (z < 3) size = static_cast<int>(rng() % 40);
        char* pa = ba.data();
        char* pb = bb.data();
        if (z == 3) pa = pb = nullptr;
        const unsigned how = rng() % 10;
        int ra, rb;
        std::fill(ba.begin(), ba.end(), 0);
        std::fill(bb.begin(), bb.end(), 0);
        auto both = [&](auto call) {
            kisam::test_locked_reads = false;
            ra = call(a, pa);
            const int ea = is_errno;
            kisam::test_locked_reads = true;
            rb = call(b, pb);
            kisam::test_locked_reads = false;
            ASSERT_EQ(ra, rb) << "keyno " << keyno << " how " << how;
            if (ra < 0) {
                EXPECT_EQ(ea, is_errno);
            } else if (pa && ra > 0) {
                ASSERT_EQ(std::memcmp(ba.data(), bb.data(), static_cast<size_t>(ra)), 0) << "keyno " << keyno;
            }
        };
        ++reads;
        // The writes went through a, and moved its page hints; a search may land on
        // another of several equal alternate keys from another hint, so b starts from a's.
        for (int k = 0; k < 3; ++k) kisam::db_cursor(is_db[b], k)->currpage = kisam::db_cursor(is_db[a], k)->currpage;
        if (how < 3) {
            ASSERT_EQ(nisseek(a, keyno, key.data()), 0);
            ASSERT_EQ(nisseek(b, keyno, key.data()), 0);
        } else if (how < 5) {
            both([&](int fd, char* p) { return nisfind(fd, keyno, key.data(), p, size); });
        } else if (how < 8) {
            both([&](int fd, char* p) { return nisread(fd, keyno, p, size); });
        } else {
            both([&](int fd, char* p) { return nispread(fd, keyno, p, size); });
        }
        if (HasFatalFailure()) return;
        for (int k = 0; k < 3; ++k) {
            const IS_DBKEY* ca = kisam::db_cursor(is_db[a], k);
            const IS_DBKEY* cb = kisam::db_cursor(is_db[b], k);
            const int il = kisam::fcp_key(ot::shared_fcp(a), k)->k_itemlen;
            ASSERT_EQ(ca->curr_kstate, cb->curr_kstate) << "cursor " << k;
            ASSERT_EQ(ca->currpage, cb->currpage) << "cursor " << k;
            if (ca->curr_kstate != 0) {
                ASSERT_EQ(std::memcmp(ca->currkey, cb->currkey, static_cast<size_t>(il)), 0) << "cursor " << k;
            }
        }
    }
    // The path was taken, and mostly so when the pool holds the file.
    const unsigned long nolock = is_nolock_reads - before;
    EXPECT_GT(nolock, 0u);
    if (std::get<2>(GetParam()) >= 1000) {
        EXPECT_GT(nolock, static_cast<unsigned long>(reads) / 4);
    }
    EXPECT_EQ(seq_of(a) % 2, 0u);
    EXPECT_EQ(nisclose(b), 0);
    EXPECT_EQ(nisclose(a), 0);
}

INSTANTIATE_TEST_SUITE_P(Layouts, ReadNoLock,
                         ::testing::Values(std::make_tuple(1, 1024, 2000), std::make_tuple(0, 512, 2000),
                                           std::make_tuple(1, 1024, 40), std::make_tuple(0, 1024, 40)));

class ReadNoLockCost : public ot::Env {
protected:
    void SetUp() override {
        kt::Config c;
        c.maxbuf = 500;
        start(c);
    }
};

// A read of pages in the pool takes no lock, advances no clock and changes no count; a
// locked read that only hits leaves the change count as it was, a change moves it by two
// (odd while it lasts), and so does a read that loads a page.
TEST_F(ReadNoLockCost, ReadsTakeNoLockAndLeaveTheCountAlone) {
    int fd = create("f", {8});
    ASSERT_GE(fd, 0);
    char rec[40] = {};
    for (int i = 0; i < 300; ++i) {
        std::snprintf(rec, sizeof rec, "%08d and the rest", i);
        ASSERT_EQ(niswrite(fd, rec, sizeof rec), 0);
    }
    char out[40];
    ASSERT_EQ(nisfind(fd, 0, "00000001", out, sizeof out), 40);  // this process knows the chain
    const uint32_t locks = isam_com->totsyslocks;
    const uint32_t clock = isam_com->lru_cnt;
    const uint32_t seq = seq_of(fd);
    EXPECT_EQ(seq % 2, 0u);
    const unsigned long before = is_nolock_reads;
    for (int i = 0; i < 300; ++i) {
        char k[9];
        std::snprintf(k, sizeof k, "%08d", (i * 7) % 300);
        ASSERT_EQ(nisfind(fd, 0, k, out, sizeof out), 40);
        ASSERT_EQ(std::memcmp(out, k, 8), 0);
    }
    while (nisread(fd, 0, out, sizeof out) > 0) {
    }
    EXPECT_EQ(isam_com->totsyslocks, locks);
    EXPECT_EQ(isam_com->lru_cnt, clock);
    EXPECT_EQ(seq_of(fd), seq);
    EXPECT_GE(is_nolock_reads - before, 300u);

    // Locked reads that hit change nothing either.
    ASSERT_EQ(nisgetctl(fd), 0);
    ASSERT_EQ(nisfind(fd, 0, "00000005", out, sizeof out), 40);
    ASSERT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(seq_of(fd), seq);

    // A change is odd while it lasts and even after it.
    static uint32_t seen;
    static int fdx;
    fdx = fd;
    seen = 0;
    kisam::test_hook = [](int where, int) {
        if (where == kisam::kHookTouch) seen = seq_of(fdx);
    };
    std::snprintf(rec, sizeof rec, "%08d changed", 5);
    ASSERT_EQ(nisupdate(fd, rec, sizeof rec), 0);
    kisam::test_hook = nullptr;
    EXPECT_EQ(seen, seq + 1);
    EXPECT_EQ(seq_of(fd), seq + 2);
    ASSERT_EQ(nisfind(fd, 0, "00000005", out, sizeof out), 40);
    EXPECT_EQ(std::string(out + 8, 8), " changed");

    // A bracket that changes keeps the count odd until its end: the process's own reads
    // inside it take the lock and see its changes.
    ASSERT_EQ(nisgetctl(fd), 0);
    std::snprintf(rec, sizeof rec, "%08d again", 6);
    ASSERT_EQ(nisupdate(fd, rec, sizeof rec), 0);
    EXPECT_EQ(seq_of(fd) % 2, 1u);
    ASSERT_EQ(nisfind(fd, 0, "00000006", out, sizeof out), 40);
    EXPECT_EQ(std::string(out + 8, 6), " again");
    ASSERT_EQ(nisrelctl(fd), 0);
    EXPECT_EQ(seq_of(fd), seq + 4);
    EXPECT_EQ(nisclose(fd), 0);
}

// An attempt that finds the count odd or moved leaves the cursors where they were and
// says to look again; the locked read then does the work.
TEST_F(ReadNoLockCost, AnOddCountSendsTheReadToTheLock) {
    int fd = create("f", {8});
    ASSERT_GE(fd, 0);
    char rec[20] = "00000001 first";
    ASSERT_EQ(niswrite(fd, rec, sizeof rec), 0);
    std::memcpy(rec, "00000002 second", 16);
    ASSERT_EQ(niswrite(fd, rec, sizeof rec), 0);
    char out[20];
    ASSERT_EQ(nisread(fd, 0, out, sizeof out), 20);  // positioned on the first
    uint32_t& seq = kisam::isx_file_of(is_db[fd]->uniqueid)->xf_seq;
    seq += 1;  // as a changer under way would leave it
    ASSERT_EQ(is_isin(PROC(P_ISREAD), fd, 0), 0);
    EXPECT_EQ(is_read_nolock(0, out, sizeof out, 0), kReadAgain);
    is_isout();
    // The locked read goes on from the cursor left by the first.
    const unsigned long before = is_nolock_reads;
    ASSERT_EQ(nisread(fd, 0, out, sizeof out), 20);
    EXPECT_EQ(std::memcmp(out, "00000002", 8), 0);
    EXPECT_EQ(is_nolock_reads, before);
    // The locked read took the odd count as left by a changer that died, and made it even.
    EXPECT_EQ(seq % 2, 0u);
    ASSERT_EQ(nispread(fd, 0, out, sizeof out), 20);
    EXPECT_EQ(std::memcmp(out, "00000001", 8), 0);
    EXPECT_EQ(is_nolock_reads, before + 1);
    EXPECT_EQ(nisclose(fd), 0);
}

}  // namespace
