// Damage found in a file's pages always has a name: every call that meets it returns -1
// with ISE_BTS and a stack that starts where the damage was found and names each layer
// on the way out.
#include "open_fixture.h"

#include "kcheck.h"

#include <cstdint>
#include <functional>

namespace {

using ot::Env;

constexpr int kKeyLen = 8;

class Damage : public Env {
public:
    // A file with one key: a short record (one segment of a shared page) and a long one
    // (an overflow page and a tail), written, closed everywhere and reopened only after
    // the damage, so that nothing of it is cached.
    void SetUp() override {
        Env::SetUp();
        file_ = path("dmg");
        int fd = create("dmg", {kKeyLen});
        ASSERT_GE(fd, 0);
        short_ = record("00000001", 100);
        long_ = record("00000002", 1500);
        ASSERT_EQ(niswrite(fd, short_.data(), static_cast<int>(short_.size())), 0);
        ASSERT_EQ(niswrite(fd, long_.data(), static_cast<int>(long_.size())), 0);
        ASSERT_EQ(nisclose(fd), 0);
        std::vector<std::string> items;
        std::string err;
        ASSERT_EQ(kisam::check::list_items(file_, 0, &items, &err), 2) << err;
        std::memcpy(&short_addr_, items[0].data() + kKeyLen, 4);
        std::memcpy(&long_addr_, items[1].data() + kKeyLen, 4);
        ASSERT_EQ(short_addr_ & 1, 0u) << "short record in a shared page";
        ASSERT_EQ(long_addr_ & 0x3FF, 1u) << "long record starts in an overflow page";
    }

    static std::string record(const char* key, size_t n) {
        std::string r(key);
        for (size_t i = r.size(); i < n; ++i) r.push_back(static_cast<char>('a' + i % 26));
        return r;
    }
    void poke(off_t off, const void* p, size_t n) { ot::write_bytes(file_, p, n, off); }
    void poke16(off_t off, uint16_t v) { poke(off, &v, 2); }
    void poke32(off_t off, uint32_t v) { poke(off, &v, 4); }

    std::string file_, short_, long_;
    PAGE short_addr_ = 0, long_addr_ = 0;
};

struct Case {
    const char* what;
    std::function<void(Damage&)> damage;
    bool long_record;        // the damaged record is the long one
    int where;               // procedure code at the bottom of the stack
};

// Each case damages one record; reading it, deleting it and replacing it must each fail
// with ISE_BTS, the damage at the bottom of the stack and the operation's own entry
// above it.
TEST_F(Damage, EveryOperationThatMeetsItFailsWithTheDamagedCode) {
    const Case cases[] = {
        {"segment runs off its page",
         [](Damage& d) { d.poke16(d.short_addr_, 0x8000 | 0x3FF); }, false, 0x1103},
        {"continued segment names an odd offset",
         [](Damage& d) {
             d.poke16(d.short_addr_, 0xC000 | 10);
             const unsigned char odd = 3;
             d.poke(d.short_addr_ + 2, &odd, 1);
         }, false, 0x1103},
        {"overflow page links to the control page",
         [](Damage& d) { d.poke32((d.long_addr_ - 1) + 4, 0 + 1); }, true, 0x1101},
        {"overflow page links to an odd address",
         [](Damage& d) { d.poke32((d.long_addr_ - 1) + 4, 2048 + 3); }, true, 0x1101},
    };
    for (const Case& c : cases) {
        for (int op = 0; op < 3; ++op) {
            TearDown();   // a fresh installation and sound file for every operation
            SetUp();
            ASSERT_FALSE(HasFatalFailure());
            SCOPED_TRACE(std::string(c.what) + ", operation " + std::to_string(op));
            c.damage(*this);
            int fd = nisopen(file_.c_str(), ISO_RDWR);
            ASSERT_GE(fd, 0);
            const std::string& rec = c.long_record ? long_ : short_;
            std::vector<char> buf(4096);
            is_errno = 0;
            is_etop = nullptr;
            int r = 0;
            std::vector<int> above;
            if (op == 0) {
                r = nisfind(fd, 0, rec.data(), buf.data(), static_cast<int>(buf.size()));
                above = {0x2302};
            } else if (op == 1) {
                r = nisdelete(fd, rec.data());
                above = {0x2105};
            } else {
                r = nisupdate(fd, rec.data(), static_cast<int>(rec.size()));
                above = {0x2105};
            }
            EXPECT_EQ(r, -1);
            EXPECT_EQ(is_errno, ISE_BTS);
            std::vector<int> want{c.where};
            want.insert(want.end(), above.begin(), above.end());
            if (op != 0 && c.where >> 8 == 0x11) want[0] = (0x15 << 8) | (want[0] & 0xFF);
            EXPECT_EQ(kt::error_stack(), want);
            char msg[200];
            niserrmsgget(msg, sizeof msg);
            EXPECT_NE(std::string(msg).find("ISE_BTS"), std::string::npos) << msg;
            // The sound record still reads.
            const std::string& other = c.long_record ? short_ : long_;
            EXPECT_EQ(nisfind(fd, 0, other.data(), buf.data(), static_cast<int>(buf.size())),
                      static_cast<int>(other.size()));
            EXPECT_EQ(nisclose(fd), 0);
        }
    }
}

// Scanning the whole file in key order stops at the damaged record with the same name,
// and the stack is whole: a stale entry from an earlier failure is never left at its
// bottom.
TEST_F(Damage, ScanStopsWithAWholeStack) {
    poke16(short_addr_, 0x8000 | 0x3FF);
    int fd = nisopen(file_.c_str(), ISO_RDONLY);
    ASSERT_GE(fd, 0);
    std::vector<char> buf(4096);
    // An earlier, unrelated failure.
    EXPECT_EQ(nisread(fd, 7, buf.data(), 10), -1);
    EXPECT_EQ(is_errno, ISE_BADKN);
    EXPECT_EQ(nisread(fd, 0, buf.data(), static_cast<int>(buf.size())), -1);
    EXPECT_EQ(is_errno, ISE_BTS);
    EXPECT_EQ(kt::error_stack(), (std::vector<int>{0x1103, 0x2302}));
    EXPECT_EQ(nisseek(fd, 0, "99999999"), 0);
    EXPECT_EQ(nispread(fd, 0, buf.data(), static_cast<int>(buf.size())), static_cast<int>(long_.size()))
        << "the other record is read from the other end";
    EXPECT_EQ(nisclose(fd), 0);
}

}  // namespace
