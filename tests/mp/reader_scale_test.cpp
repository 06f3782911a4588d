// Reads without the lock store nothing into the shared segment, pages in the pool or
// past it, so readers never take a cache line from each other: two readers each run
// with the segment read-only, a fault handler noting every store.
#include "kisam_test.h"

#include "is_common.h"
#include "is_rec.h"
#include "v_pool.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kK0 = 8, kK1 = 6;
constexpr unsigned kIds = 1500;
constexpr int kLen = 60;

std::string record(unsigned id) {
    char r[kLen + 1];
    std::snprintf(r, sizeof r, "%08u%06u", id, kt::mix(id, 1) % 100000);
    std::memset(r + kK0 + kK1, 'a' + static_cast<int>(id % 26), kLen - kK0 - kK1);
    return std::string(r, kLen);
}

// A reader's stores into the read-only segment: pages hit, first offsets.
struct Stores {
    static constexpr int kNoted = 8;
    int pages = 0;
    long offset[kNoted] = {};
    unsigned long file_reads = 0;  // pages of the watched pass read in the file's mapping
};

uintptr_t seg_lo = 0, seg_hi = 0;
Stores* noted = nullptr;

void on_store(int, siginfo_t* si, void*) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(si->si_addr);
    if (a < seg_lo || a >= seg_hi) ::_exit(90);  // a fault of anything else
    if (noted->pages < Stores::kNoted) noted->offset[noted->pages] = static_cast<long>(a - seg_lo);
    ++noted->pages;
    const long pg = ::sysconf(_SC_PAGESIZE);
    ::mprotect(reinterpret_cast<void*>(a & ~static_cast<uintptr_t>(pg - 1)), static_cast<size_t>(pg),
               PROT_READ | PROT_WRITE);
}

class ReaderScale : public kt::Env {
protected:
    void SetUp() override {}  // each test starts the installation it needs

    // A first pass loads its own state (page index, leaf directory); after `go`, the
    // watched pass.
    int reader(int r, kt::Pipe& ready, kt::Pipe& go, Stores* st) {
        go.close_write();
        kt::become_unattached();
        if (is_init() != 0) return 10;
        const int fd = nisopen(path("s.ism").c_str(), ISO_RDWR);
        if (fd < 0) return 11;
        char buf[kLen + 8];
        auto find = [&](unsigned id) {
            const std::string want = record(id);
            return nisfind(fd, 0, want.data(), buf, kLen) == kLen && std::memcmp(buf, want.data(), kLen) == 0;
        };
        for (unsigned id = 0; id < kIds; ++id)
            if (!find(id)) return 12;
        long steps = 0;
        while (nisread(fd, 1, buf, kLen) == kLen) ++steps;
        if (steps != kIds) return 13;

        struct shmid_ds ds;
        if (::shmctl(is_shmid, IPC_STAT, &ds) != 0) return 14;
        const long pg = ::sysconf(_SC_PAGESIZE);
        seg_lo = reinterpret_cast<uintptr_t>(isam_com);
        seg_hi = seg_lo + (ds.shm_segsz + static_cast<size_t>(pg) - 1) / static_cast<size_t>(pg) * static_cast<size_t>(pg);
        noted = st;
        struct sigaction sa {};
        sa.sa_sigaction = on_store;
        sa.sa_flags = SA_SIGINFO;
        sigemptyset(&sa.sa_mask);
        if (::sigaction(SIGSEGV, &sa, nullptr) != 0) return 15;
        // Flush the batched hit count now, so the watched pass adds none.
        v_peek_fold();
        ready.signal();
        go.wait();

        const unsigned long before = is_nolock_reads, file_before = v_file_reads;
        if (::mprotect(reinterpret_cast<void*>(seg_lo), seg_hi - seg_lo, PROT_READ) != 0) return 16;
        std::mt19937 rng(static_cast<unsigned>(r) + 5);
        int rc = 0, calls = 0;
        for (; calls < 500 && rc == 0; ++calls)
            if (!find(rng() % kIds)) rc = 17;
        if (kisam_rewind(fd, 1) != 0) rc = 18;
        for (int i = 0; i < 150 && rc == 0; ++i, ++calls)
            if (nisread(fd, 1, buf, kLen) != kLen) rc = 19;
        const std::string k1 = record(700).substr(kK0, kK1);
        if (rc == 0 && nisfind(fd, 1, k1.data(), buf, kLen) != kLen) rc = 20;
        ++calls;
        for (int i = 0; i < 50 && rc == 0; ++i, ++calls)
            if (nisread(fd, 1, buf, kLen) < 0) rc = 21;
        ::mprotect(reinterpret_cast<void*>(seg_lo), seg_hi - seg_lo, PROT_READ | PROT_WRITE);
        st->file_reads = v_file_reads - file_before;
        if (rc == 0 && is_nolock_reads - before != static_cast<unsigned long>(calls)) rc = 22;
        nisclose(fd);
        nisunisam();
        return rc;
    }

    // kIds records kept open here, in a pool of maxbuf slots; two watched readers.
    void two_readers(int16_t maxbuf, bool past_the_pool) {
        kt::Config c;
        c.maxbuf = maxbuf;
        start(c);
        bound(120);
        ASSERT_EQ(is_init(), 0);
        const int fd = create("s.ism", {kK0, kK1});
        ASSERT_GE(fd, 0);
        std::vector<unsigned> ids(kIds);
        for (unsigned i = 0; i < kIds; ++i) ids[i] = i;
        std::shuffle(ids.begin(), ids.end(), std::mt19937(3));
        for (unsigned id : ids) ASSERT_EQ(niswrite(fd, record(id).data(), kLen), 0);

        struct Shared {
            Stores st[2];
        };
        Shared& sh = shared<Shared>();
        kt::Pipe ready, go;
        const std::vector<pid_t> pids = spawn(2, [&](int r) { return reader(r, ready, go, &sh.st[r]); });
        for (int r = 0; r < 2; ++r) ready.wait();
        go.close_write();  // both see the end of the pipe at once
        for (int r = 0; r < 2; ++r) {
            EXPECT_EQ(kt::wait_child(pids[static_cast<size_t>(r)]), 0) << "reader " << r;
            std::string at;
            for (int i = 0; i < sh.st[r].pages && i < Stores::kNoted; ++i)
                at += " " + std::to_string(sh.st[r].offset[i]);
            EXPECT_EQ(sh.st[r].pages, 0) << "reader " << r << " stored into the segment at offsets" << at;
            if (past_the_pool) EXPECT_GT(sh.st[r].file_reads, 500u) << "reader " << r;
            else EXPECT_EQ(sh.st[r].file_reads, 0u) << "reader " << r;
        }
        EXPECT_EQ(nisclose(fd), 0);
    }
};

// Every page of the file in the pool.
TEST_F(ReaderScale, TwoReadersOfThePoolStoreNothingShared) { two_readers(1200, false); }

// Most pages past the pool, read in the file's mapping: no load, no lock, nothing shared.
TEST_F(ReaderScale, TwoReadersPastThePoolStoreNothingShared) { two_readers(40, true); }

}  // namespace
