// The shared area: start-up, kisam_config_write, the segment's layout and heap.
#include "open_fixture.h"
#include "is_common.h"
#include "is_heap.h"
#include "isx_area.h"
#include "kisam_test.h"

#include <algorithm>
#include <climits>
#include <gtest/gtest.h>
#include <kisam/ztsupport.h>
#include <map>
#include <random>
#include <string>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using ot::Env;
using ot::read_head;
using ot::stack_code;

namespace {

class IsInit : public Env {
protected:
    void SetUp() override {}
};

// The largest tables that still lay out.
void largest(kt::Config& c) {
    c.maxopen = 16383; c.maxbuf = 4; c.maxusers = 2;
    c.avgalts = 0; c.alenlock = 0; c.anumlock = 0;
}

// Refused before any segment exists, each with its own detail.
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
        {"heap below the tables", [](kt::Config& c) {
             c.maxbuf = 8; c.maxopen = 1; c.maxusers = 1;
             c.avgalts = -100; c.alenlock = 0; c.anumlock = -100;
         }, 10},
        {"heap estimate below zero", [](kt::Config& c) { c.avgalts = -32768; }, 10},
        // Rounded up to 8192 bytes: a heap of 40 bytes, too small for one block.
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

// "ISAMADDR" places the segment at that many megabytes, in each process as it asks.
// (Addresses below 2 GiB: a sanitizer's shadow lies above.)
TEST_F(IsInit, ISAMADDRPlacesTheSegment) {
    start();
    ::setenv("ISAMADDR", "1024", 1);
    const int rc = is_init();
    ::unsetenv("ISAMADDR");
    ASSERT_EQ(rc, 0) << is_errno;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(isam_com), uintptr_t{1024} << 20);
    const int shmid = is_shmid;
    EXPECT_EQ(kt::run_child([shmid] {
                  ot::become_unattached();
                  ::setenv("ISAMADDR", "1536", 1);
                  return is_init() == 0 && is_shmid == shmid && reinterpret_cast<uintptr_t>(isam_com) == uintptr_t{1536} << 20
                             ? 0 : 1;
              }),
              0);
}

// A segment without our extension area is refused (detail 14) and left unchanged.
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

// Enlarged while the old segment is held: detail 4 and a line naming the old segment.
TEST_F(IsInit, AnEnlargedConfigurationNamesTheOldSegment) {
    kt::Config c;
    start(c);
    ASSERT_EQ(is_init(), 0);
    const int old = ::shmget(inst_->key(), 0, 0);
    ASSERT_GE(old, 0);
    kt::Config bigger = c;
    bigger.maxbuf = static_cast<int16_t>(c.maxbuf * 4);
    kt::write_config(inst_->config_path(), bigger);
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

bool exists(const std::string& p) { return ::access(p.c_str(), F_OK) == 0; }
ino_t inode(const std::string& p) {
    struct stat st{};
    return ::stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

class ConfigWrite : public Env {
protected:
    void SetUp() override {
        start();
        cfg_ = inst_->config_path();
        ASSERT_EQ(::unlink(cfg_.c_str()), 0);
        ASSERT_EQ(::unlink((cfg_ + ".lk").c_str()), 0);
    }
    std::string cfg_;
};

// The record written, defaults and every field set, is the one start-up lays out.
TEST_F(ConfigWrite, WritesTheRecordStartUpLaysOut) {
    kisam_settings s = KISAM_SETTINGS_DEFAULT;
    s.files = 12, s.buffers = 40, s.users = 7, s.keys = 9, s.files_per_process = 5, s.avg_alt_keys = 3;
    s.lock_key_len = 20, s.locks_per_file = 4, s.options = KISAM_TRACK_CHANGES | KISAM_CLEAR_ON_RELEASE;
    kt::Config defaults, mine;
    defaults.maxopen = 64, defaults.maxbuf = 256, defaults.maxusers = 32, defaults.maxnkeys = 25;
    defaults.avgalts = 2, defaults.alenlock = 16, defaults.anumlock = 8, defaults.maxfbuf = 256;
    mine.maxopen = 12, mine.maxbuf = 40, mine.maxusers = 7, mine.maxnkeys = 9, mine.avgalts = 3;
    mine.alenlock = 20, mine.anumlock = 4, mine.maxufile = 5, mine.bits = 0x5;
    mine.maxfbuf = 40;   // file_buffers 0 means as many as buffers
    for (auto [settings, want] : {std::pair{static_cast<const kisam_settings*>(nullptr), defaults}, {&s, mine}}) {
        SCOPED_TRACE(settings ? "settings" : "defaults");
        ::unlink(cfg_.c_str()), ::unlink((cfg_ + ".lk").c_str());
        ASSERT_EQ(kisam_config_write(cfg_.c_str(), settings, 0, 0), 0) << std::strerror(errno);
        EXPECT_TRUE(exists(cfg_ + ".lk"));
        std::vector<unsigned char> got = read_head(cfg_);
        ASSERT_EQ(got.size(), 52u);
        is_config rec = kt::to_record(want);
        ASSERT_EQ(sizecomm(&rec), 0);
        for (size_t i = 0; i < sizeof rec; i += 2)
            EXPECT_EQ(kisam::load_at<int16_t>(got.data() + i), kisam::load_at<int16_t>(reinterpret_cast<char*>(&rec) + i))
                << "byte " << i;
    }

    ASSERT_EQ(is_init(), 0);
    EXPECT_EQ((std::vector<long>{isam_com->maxopen, isam_com->maxbufs, isam_com->maxusers, isam_com->maxufile,
                                 static_cast<long>(isam_com->isc_bits & 0xE)}),
              (std::vector<long>{12, 40, 7, 5, 0xA}));
    int lens[10] = {4, 4, 4, 4, 4, 4, 4, 4, 4, 4};
    EXPECT_GE(niscreate(path("nine").c_str(), 9, lens), 0);
    EXPECT_EQ(niscreate(path("ten").c_str(), 10, lens), -1) << "keys caps the keys of a file";
    EXPECT_EQ(is_errno, ISE_NKEYERR);
}

TEST_F(ConfigWrite, RefusesBadSettingsWritingNothing) {
    struct Case {
        const char* what;
        void (*edit)(kisam_settings&);
        int err;
    } cases[] = {
        {"no files", [](kisam_settings& s) { s.files = 0; }, EINVAL},
        {"files past what a buffer can name", [](kisam_settings& s) { s.files = 16384; }, EINVAL},
        {"no buffers", [](kisam_settings& s) { s.buffers = 0; }, EINVAL},
        {"buffers past 16 bits", [](kisam_settings& s) { s.buffers = 32768; }, EINVAL},
        {"no users", [](kisam_settings& s) { s.users = 0; }, EINVAL},
        {"26 keys", [](kisam_settings& s) { s.keys = 26; }, EINVAL},
        {"more per process than in all", [](kisam_settings& s) { s.files_per_process = 65; }, EINVAL},
        {"negative file buffers", [](kisam_settings& s) { s.file_buffers = -1; }, EINVAL},
        {"25 alternate keys", [](kisam_settings& s) { s.avg_alt_keys = 25; }, EINVAL},
        {"negative lock key", [](kisam_settings& s) { s.lock_key_len = -1; }, EINVAL},
        {"locks past 16 bits", [](kisam_settings& s) { s.locks_per_file = 40000; }, EINVAL},
        {"unknown option", [](kisam_settings& s) { s.options = 0x8; }, EINVAL},
        {"sync without tracking", [](kisam_settings& s) { s.options = KISAM_SYNC_ON_MARK; }, EINVAL},
        {"clear without tracking", [](kisam_settings& s) { s.options = KISAM_CLEAR_ON_RELEASE; }, EINVAL},
        {"a heap above the maximum",
         [](kisam_settings& s) { s.files = 16000; s.lock_key_len = s.locks_per_file = 32000; }, ERANGE},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        kisam_settings s = KISAM_SETTINGS_DEFAULT;
        k.edit(s);
        errno = 0;
        EXPECT_EQ(kisam_config_write(cfg_.c_str(), &s, 0, 0), -1);
        EXPECT_EQ(errno, k.err);
        EXPECT_FALSE(exists(cfg_));
        EXPECT_FALSE(exists(cfg_ + ".lk"));
    }
    // Bad names, flags and modes.
    const std::string long_name(PATH_MAX, 'x'), nowhere = inst_->dir() + "/no/such/dir/cfg";
    const struct { const char* name; int flags, mode, err; } calls[] = {
        {nullptr, 0, 0, EINVAL}, {"", 0, 0, EINVAL}, {cfg_.c_str(), 0x2, 0, EINVAL},   // an unknown flag
        {cfg_.c_str(), 0, 010000, EINVAL}, {cfg_.c_str(), 0, 04666, EINVAL},          // no mode, set-id bits
        {long_name.c_str(), 0, 0, ENAMETOOLONG}, {nowhere.c_str(), 0, 0, ENOENT}};
    for (const auto& c : calls) {
        errno = 0;
        EXPECT_EQ(kisam_config_write(c.name, nullptr, c.flags, c.mode), -1) << c.flags << c.mode;
        EXPECT_EQ(errno, c.err) << (c.name ? c.name : "(null)");
    }
    EXPECT_FALSE(exists(cfg_));
}

// A failed write leaves no file; replacing keeps the lock file (and so the key).
TEST_F(ConfigWrite, FailsWithoutATraceAndReplacesOnlyWhenAsked) {
    {
        kt::Faults f;
        f.arm(kt::Faults::kWrite, 1, kt::Faults::kOnce, ENOSPC);
        errno = 0;
        EXPECT_EQ(kisam_config_write(cfg_.c_str(), nullptr, 0, 0), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_TRUE(kt::Faults::hit());
    }
    EXPECT_FALSE(exists(cfg_));
    EXPECT_FALSE(exists(cfg_ + ".lk"));
    const mode_t old = ::umask(0);
    kisam_settings s = KISAM_SETTINGS_DEFAULT;
    EXPECT_EQ(kisam_config_write(cfg_.c_str(), &s, 0, 0640), 0);
    ::umask(old);
    for (const std::string& p : {cfg_, cfg_ + ".lk"}) {
        struct stat st{};
        ASSERT_EQ(::stat(p.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u) << p;
    }
    const ino_t lk = inode(cfg_ + ".lk");
    s.buffers = 99;
    errno = 0;
    EXPECT_EQ(kisam_config_write(cfg_.c_str(), &s, 0, 0), -1);
    EXPECT_EQ(errno, EEXIST);
    is_config c;
    std::memcpy(&c, read_head(cfg_).data(), sizeof c);
    EXPECT_EQ(c.co_maxbuf, 256) << "refused: the old record stays";

    // A longer file (another program's) is cut to the record.
    ot::write_bytes(cfg_, std::string(300, 'z').data(), 300, 0);
    ASSERT_EQ(kisam_config_write(cfg_.c_str(), &s, KISAM_CONFIG_REPLACE, 0), 0);
    std::vector<unsigned char> got = read_head(cfg_);
    ASSERT_EQ(got.size(), 52u);
    std::memcpy(&c, got.data(), sizeof c);
    EXPECT_EQ(c.co_maxbuf, 99);
    EXPECT_EQ(inode(cfg_ + ".lk"), lk) << "the lock file (and so the installation's key) is kept";
}

const Cheader* hdr(RELt off) { return reinterpret_cast<const Cheader*>(is_env.heap_ + off); }
// By value: Csize is only 4-aligned in the heap, so no reference may bind to it.
uint64_t units(RELt off) { return hdr(off)->Csize; }
RELt off_of(const char* p) { return static_cast<RELt>(p - is_env.heap_); }

std::vector<std::pair<RELt, uint64_t>> free_blocks() {
    std::vector<std::pair<RELt, uint64_t>> out;
    for (RELt off = hdr(0)->Cnext; off != 0 && out.size() < 100000; off = hdr(off)->Cnext)
        out.emplace_back(off, units(off));
    return out;
}

class Heap : public ::testing::Test {
protected:
    void attach(const kt::Config& c) {
        inst_ = std::make_unique<kt::Installation>(c);
        ASSERT_EQ(kt::attach_raw(*inst_, c), 0);
    }
    void TearDown() override {
        kt::detach_raw();
        inst_.reset();
    }
    std::unique_ptr<kt::Installation> inst_;
};

}  // namespace

// The worked example: region offsets, initial links, one block cut from the tail.
TEST_F(Heap, WorkedExample) {
    kt::Config c;
    c.maxbuf = 4; c.maxopen = 10; c.maxusers = 5; c.avgalts = 2; c.alenlock = 10; c.anumlock = 4;
    struct is_config rec = kt::to_record(c);
    ASSERT_EQ(sizecomm(&rec), 0);
    EXPECT_EQ(rec.co_comsize, 8192);
    EXPECT_EQ(rec.co_heapbase, 4396);
    attach(c);
    const struct isam_com* h = isam_com;
    EXPECT_EQ((std::vector<long>{h->comsize, h->buf_base, h->pfo_base, h->pid_base, h->need_base, h->heap_base}),
              (std::vector<long>{8192, 156, 4316, 4356, 4376, 4396}));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(is_env.buf_[i].bu_next, i == 3 ? -1 : i + 1);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(is_env.pfo_tbl[i], -1);
    EXPECT_EQ(is_env.pid_[0], ::getpid());
    EXPECT_EQ(hdr(0)->Cnext, 32u);
    EXPECT_EQ(units(32), 235u);
    char* f = allocncom(136);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(off_of(f), 3648u);
    EXPECT_EQ(units(32), 226u);
    EXPECT_EQ(isam_com->free_lock, 0u);  // released
    freencom(f, 136);
    EXPECT_EQ(units(32), 235u);
    EXPECT_EQ(hdr(32)->Cnext, 0u);
}

// Blocks are zeroed and tile the heap with the free list, which stays ordered and merged;
// a refused request fits no free block.
TEST_F(Heap, RandomizedAgainstModel) {
    attach(kt::Config());
    const uint64_t seed = kt::test_seed(20240611);
    SCOPED_TRACE("KISAM_SEED=" + std::to_string(seed));
    std::mt19937_64 rng(seed);
    const RELt first = 32;
    const uint64_t initial = units(first);
    std::map<RELt, std::pair<char*, unsigned>> live;  // offset -> (address, size asked)
    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE(step);
        if (live.empty() || rng() % 100 < 55) {
            unsigned n = static_cast<unsigned>(rng() % 3 == 0 ? rng() % 2000 + 1 : rng() % 200 + 1);
            char* p = allocncom(n);
            if (p == nullptr) {
                for (auto& [off, u] : free_blocks()) ASSERT_LT(u, (n + 15) / 16) << "fits at " << off;
                continue;
            }
            for (unsigned i = 0; i < (n + 15) / 16 * 16; ++i) ASSERT_EQ(p[i], 0);
            ASSERT_EQ(live.count(off_of(p)), 0u) << "handed out twice";
            std::memset(p, 0xC3, n);  // the caller owns every byte, header included
            live[off_of(p)] = {p, n};
        } else {
            auto it = live.begin();
            std::advance(it, static_cast<long>(rng() % live.size()));
            freencom(it->second.first, it->second.second);
            live.erase(it);
        }
        auto fb = free_blocks();
        bool rover_found = isam_com->free_base == 0;
        for (size_t i = 0; i < fb.size(); ++i) {
            if (i + 1 < fb.size()) {
                ASSERT_LT(fb[i].first + fb[i].second * 16, fb[i + 1].first) << "unordered or unmerged";
            }
            rover_found |= fb[i].first == isam_com->free_base;
        }
        ASSERT_TRUE(rover_found);
        for (auto& [off, blk] : live) fb.emplace_back(off, (blk.second + 15) / 16);
        std::sort(fb.begin(), fb.end());
        RELt at = first;
        for (auto& [off, u] : fb) {
            ASSERT_EQ(off, at) << "gap or overlap";
            at = static_cast<RELt>(off + u * 16);
        }
        ASSERT_EQ(at, first + initial * 16);
    }
    std::vector<std::pair<char*, unsigned>> rest;
    for (auto& [off, blk] : live) rest.push_back(blk);
    std::shuffle(rest.begin(), rest.end(), rng);
    for (auto& [p, n] : rest) freencom(p, n);
    ASSERT_EQ(free_blocks(), (std::vector<std::pair<RELt, uint64_t>>{{first, initial}}));
    EXPECT_EQ(isam_com->cursyslocks, 0u);
}
