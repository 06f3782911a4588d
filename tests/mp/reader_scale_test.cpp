// Reads without the lock store nothing into the shared segment, pages in the pool or
// past it, so readers never take a cache line from each other: two readers each run
// with the segment read-only, a fault handler noting every store.
#include "genrec.h"
#include "is_common.h"
#include "is_rec.h"
#include "kisam_test.h"
#include "v_pool.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

namespace kg = kt::gen;
const kg::Layout kL{.k1 = 100000, .small_len = 42};   // 60 bytes each, at generation 1
constexpr int kLen = 60;
constexpr unsigned kIds = 1500;

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
    ::mprotect(reinterpret_cast<void*>(a & ~static_cast<uintptr_t>(pg - 1)), static_cast<size_t>(pg), PROT_READ | PROT_WRITE);
}

// A first pass loads the reader's own state (page index, leaf directory); after `go`,
// the watched pass, every call of which must go without the lock.
int reader(const std::string& file, int r, kt::Pipe& ready, kt::Pipe& go, Stores* st) {
    go.close_write();
    kt::become_unattached();
    if (is_init() != 0) return 10;
    const int fd = nisopen(file.c_str(), ISO_RDWR);
    if (fd < 0) return 11;
    char buf[kLen + 8];
    auto find = [&](unsigned id) { return kg::is(kL, buf, nisfind(fd, 0, kg::key0(id).data(), buf, kLen), id, 1); };
    for (unsigned id = 0; id < kIds; ++id)
        if (!find(id)) return 12;
    long steps = 0;
    while (nisread(fd, 1, buf, kLen) == kLen) ++steps;
    if (steps != kIds) return 13;

    struct shmid_ds ds;
    if (::shmctl(is_shmid, IPC_STAT, &ds) != 0) return 14;
    const size_t pg = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    seg_lo = reinterpret_cast<uintptr_t>(isam_com);
    seg_hi = seg_lo + (ds.shm_segsz + pg - 1) / pg * pg;
    noted = st;
    struct sigaction sa {};
    sa.sa_sigaction = on_store;
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    if (::sigaction(SIGSEGV, &sa, nullptr) != 0) return 15;
    v_peek_fold();   // the batched hit count flushed now, so the watched pass adds none
    ready.signal();
    ready.close_write();   // a reader that failed before here leaves the parent an end of file
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
    const std::string k1 = kg::record(kL, 700, 1).substr(kg::kK0, kg::kK1);
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

class ReaderScale : public kt::Env {
protected:
    void SetUp() override {}  // each test starts the installation it needs

    // kIds records kept open here, in a pool of maxbuf slots; two watched readers.
    void two_readers(int16_t maxbuf, bool past_the_pool) {
        kt::Config c;
        c.maxbuf = maxbuf;
        start(c);
        bound(120);
        ASSERT_EQ(is_init(), 0);
        const int fd = create("s.ism", kL.lens());
        ASSERT_GE(fd, 0);
        std::vector<unsigned> ids(kIds);
        for (unsigned i = 0; i < kIds; ++i) ids[i] = i;
        std::shuffle(ids.begin(), ids.end(), std::mt19937(3));
        for (unsigned id : ids) ASSERT_EQ(niswrite(fd, kg::record(kL, id, 1).data(), kLen), 0);
        Stores* st = &shared<std::array<Stores, 2>>()[0];
        kt::Pipe ready, go;
        const std::vector<pid_t> pids = spawn(2, [&](int r) { return reader(path("s.ism"), r, ready, go, &st[r]); });
        ready.close_write();
        for (int r = 0; r < 2; ++r) ready.wait();
        go.close_write();  // both see the end of the pipe at once
        for (int r = 0; r < 2; ++r) {
            EXPECT_EQ(kt::wait_child(pids[static_cast<size_t>(r)]), 0) << "reader " << r;
            std::string at;
            for (int i = 0; i < st[r].pages && i < Stores::kNoted; ++i) at += " " + std::to_string(st[r].offset[i]);
            EXPECT_EQ(st[r].pages, 0) << "reader " << r << " stored into the segment at offsets" << at;
            if (past_the_pool) EXPECT_GT(st[r].file_reads, 500u) << "reader " << r;
            else EXPECT_EQ(st[r].file_reads, 0u) << "reader " << r;
        }
        EXPECT_EQ(nisclose(fd), 0);
    }
};

// Every page of the file in the pool.
TEST_F(ReaderScale, TwoReadersOfThePoolStoreNothingShared) { two_readers(1200, false); }

// Most pages past the pool, read in the file's mapping: no load, no lock, nothing shared.
TEST_F(ReaderScale, TwoReadersPastThePoolStoreNothingShared) { two_readers(40, true); }

}  // namespace
