// Several processes write, update, delete and read one file at once: each owns a key
// range that only it changes, and all of them fight over a shared range.  Afterwards a
// fresh process must find exactly the owned records each writer reported, only
// well-formed records in the shared range, and the checker must find no damage.
#include "kisam_test.h"

#include "kcheck.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kKey0 = 8;
constexpr int kKey1 = 4;
constexpr int kWriters = 4;
constexpr int kOwned = 250;      // ids per writer
constexpr unsigned kShared = 9000;
constexpr int kSharedIds = 60;

std::string key0_of(unsigned id) {
    std::string k(kKey0, '\0');
    for (int i = 0; i < 4; ++i) k[static_cast<size_t>(i)] = static_cast<char>(id >> (24 - 8 * i));
    for (int i = 4; i < kKey0; ++i) k[static_cast<size_t>(i)] = static_cast<char>(0xA0 + i);
    return k;
}

uint32_t fnv(const char* p, size_t n) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(p[i])) * 16777619u;
    return h;
}

// key 0, key 1, payload, and a checksum over everything before it in the last 4 bytes.
std::string make_record(unsigned id, std::mt19937& rng) {
    std::string r = key0_of(id);
    static const char* vals[] = {"aaaa", "bbbb", "\x80\x80\x80\x80", "zz\xff\xff"};
    r += vals[rng() % 4];
    size_t len = 4 + (rng() % 10 == 0 ? rng() % 4000 : rng() % 200);
    for (size_t i = 0; i < len; ++i) r += static_cast<char>(rng());
    uint32_t h = fnv(r.data(), r.size());
    r.append(reinterpret_cast<const char*>(&h), 4);
    return r;
}

bool well_formed(const char* p, int n) {
    if (n < kKey0 + kKey1 + 4) return false;
    uint32_t h;
    std::memcpy(&h, p + n - 4, 4);
    return h == fnv(p, static_cast<size_t>(n - 4));
}

class ConcurrentRecords : public ::testing::Test {
protected:
    void SetUp() override {
        path_ = inst_.path("shared.ism");
        int lens[2] = {kKey0, kKey1};
        ASSERT_EQ(kt::run_child([&] {
                      if (is_init() != 0) return 1;
                      int fd = niscreate(path_.c_str(), 2, lens);
                      if (fd < 0) return 2;
                      nisclose(fd);
                      return nisunisam() == 0 ? 0 : 3;
                  }),
                  0);
    }

    // One writer: random changes to its own range and the shared one, scans along key 1
    // in between.  Its final view of its own range goes to a file for the parent.
    int writer(int w) {
        int fd = nisopen(path_.c_str(), ISO_RDWR);
        if (fd < 0) return 10;
        std::mt19937 rng(1000u + static_cast<unsigned>(w));
        std::map<std::string, std::string> mine;
        std::vector<char> buf(70000);
        for (int step = 0; step < 1500; ++step) {
            unsigned op = rng() % 100;
            bool shared = rng() % 4 == 0;
            unsigned id = shared ? kShared + rng() % kSharedIds : 1000u * (w + 1) + rng() % kOwned;
            std::string rec = make_record(id, rng);
            std::string k0 = key0_of(id);
            bool had = mine.count(k0) != 0;
            int n = static_cast<int>(rec.size());
            if (op < 35) {
                int r = niswrite(fd, rec.data(), n);
                if (r < 0 || (!shared && r != (had ? 1 : 0))) return 20;
                if (!shared && !had) mine[k0] = rec;
            } else if (op < 50) {
                if (nisfwrite(fd, rec.data(), n) != 0) return 21;
                if (!shared) mine[k0] = rec;
            } else if (op < 62) {
                int r = nisupdate(fd, rec.data(), n);
                if (!shared && r != (had ? 0 : -1)) return 22;
                if (r < 0 && is_errno != ISE_NOKEY) return 23;
                if (!shared && had) mine[k0] = rec;
            } else if (op < 75) {
                int r = nisdelete(fd, k0.data());
                if (!shared && r != (had ? 0 : -1)) return 24;
                if (r < 0 && is_errno != ISE_NOKEY) return 25;
                mine.erase(k0);
            } else {
                // Own records read back exactly, whatever the others do meanwhile.
                int r = nisfind(fd, 0, k0.data(), buf.data(), static_cast<int>(buf.size()));
                if (!shared) {
                    if (had != (r > 0)) return 26;
                    if (had && std::string(buf.data(), static_cast<size_t>(r)) != mine[k0]) return 27;
                } else if (r > 0 && !well_formed(buf.data(), r)) {
                    return 28;
                }
            }
        }
        if (nisclose(fd) != 0) return 40;
        FILE* f = std::fopen(inst_.path("owned." + std::to_string(w)).c_str(), "wb");
        if (!f) return 41;
        for (auto& [k, r] : mine) {
            uint32_t n = static_cast<uint32_t>(r.size());
            std::fwrite(&n, 4, 1, f);
            std::fwrite(r.data(), 1, n, f);
        }
        std::fclose(f);
        return nisunisam() == 0 ? 0 : 42;
    }

    std::map<std::string, std::string> owned(int w) {
        std::map<std::string, std::string> m;
        FILE* f = std::fopen(inst_.path("owned." + std::to_string(w)).c_str(), "rb");
        if (!f) return m;
        uint32_t n;
        while (std::fread(&n, 4, 1, f) == 1) {
            std::string r(n, '\0');
            if (std::fread(r.data(), 1, n, f) != n) break;
            m[r.substr(0, kKey0)] = r;
        }
        std::fclose(f);
        return m;
    }

    // A small pool, so that the writers take slots from each other all the time.
    static kt::Config small_pool() { kt::Config c; c.maxbuf = 24; return c; }
    kt::Installation inst_{small_pool()};
    std::string path_;
};

TEST_F(ConcurrentRecords, WritersKeepTheirOwnRangesAndTheIndexesWhole) {
    // Two writers attach on their own, two inherit the parent's attachment through fork;
    // all start at once.
    kt::Pipe go;
    std::vector<pid_t> pids;
    for (int w = 0; w < 2; ++w)
        pids.push_back(kt::start_child([&, w] {
            if (is_init() != 0) return 50;
            go.wait();
            return writer(w);
        }));
    ASSERT_EQ(is_init(), 0);
    for (int w = 2; w < kWriters; ++w)
        pids.push_back(kt::start_child([&, w] {
            if (is_chinit() != 0) return 51;
            go.wait();
            return writer(w);
        }));
    for (int w = 0; w < kWriters; ++w) go.signal();
    for (size_t i = 0; i < pids.size(); ++i) EXPECT_EQ(kt::wait_child(pids[i]), 0) << "writer " << i;
    ASSERT_EQ(nisunisam(), 0);
    ASSERT_FALSE(HasFailure());

    std::map<std::string, std::string> want;
    for (int w = 0; w < kWriters; ++w) {
        auto m = owned(w);
        want.insert(m.begin(), m.end());
    }
    ASSERT_FALSE(want.empty());

    // A fresh process scans key 0 from end to end.
    EXPECT_EQ(kt::run_child([&] {
                  if (is_init() != 0) return 1;
                  int fd = nisopen(path_.c_str(), ISO_RDONLY);
                  if (fd < 0) return 2;
                  std::vector<char> buf(70000);
                  size_t mine = 0;
                  int r;
                  while ((r = nisread(fd, 0, buf.data(), static_cast<int>(buf.size()))) > 0) {
                      std::string rec(buf.data(), static_cast<size_t>(r));
                      unsigned id = 0;
                      for (int i = 0; i < 4; ++i) id = (id << 8) | static_cast<unsigned char>(rec[static_cast<size_t>(i)]);
                      auto it = want.find(rec.substr(0, kKey0));
                      if (id < kShared) {
                          // An owned id: exactly what its writer last stored.
                          if (it == want.end() || it->second != rec) return 3;
                          ++mine;
                      } else if (!well_formed(rec.data(), r)) {
                          return 5;
                      }
                  }
                  if (r < 0) return 6;
                  if (mine != want.size()) return 7;
                  nisclose(fd);
                  return nisunisam() == 0 ? 0 : 8;
              }),
              0);

    kisam::check::Report rep = kisam::check::check_file(path_);
    EXPECT_TRUE(rep.ok) << rep.error;
    EXPECT_TRUE(rep.data_accounted);
    EXPECT_GE(rep.records, static_cast<long>(want.size()));
}

}  // namespace
