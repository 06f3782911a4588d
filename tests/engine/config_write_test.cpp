// kisam_config_write: the record it writes is the one start-up lays out, bad settings
// are refused with nothing written, an existing installation is replaced only when
// asked.
#include "open_fixture.h"

#include <sys/stat.h>

#include <climits>
#include <string>

#include "is_common.h"

namespace {

using ot::Env;
using ot::read_head;

bool exists(const std::string& p) { return ::access(p.c_str(), F_OK) == 0; }
ino_t inode(const std::string& p) {
    struct stat st{};
    return ::stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

class ConfigWrite : public Env {
protected:
    // The installation's own configuration goes; the tests write theirs in its place.
    void SetUp() override {
        start();
        cfg_ = inst_->config_path();
        ASSERT_EQ(::unlink(cfg_.c_str()), 0);
        ASSERT_EQ(::unlink((cfg_ + ".lk").c_str()), 0);
    }
    std::string cfg_;
};

// The record written, for the defaults (null settings) and for settings of every field,
// is the one start-up lays out, computed fields included; start-up then takes it.
TEST_F(ConfigWrite, WritesTheRecordStartUpLaysOut) {
    kisam_settings s = KISAM_SETTINGS_DEFAULT;
    s.files = 12;
    s.buffers = 40;
    s.users = 7;
    s.keys = 9;
    s.files_per_process = 5;
    s.avg_alt_keys = 3;
    s.lock_key_len = 20;
    s.locks_per_file = 4;
    s.options = KISAM_TRACK_CHANGES | KISAM_CLEAR_ON_RELEASE;
    kt::Config defaults, mine;
    defaults.maxopen = 64, defaults.maxbuf = 256, defaults.maxusers = 32, defaults.maxnkeys = 25;
    defaults.avgalts = 2, defaults.alenlock = 16, defaults.anumlock = 8, defaults.maxfbuf = 256;
    mine.maxopen = 12, mine.maxbuf = 40, mine.maxusers = 7, mine.maxnkeys = 9, mine.avgalts = 3;
    mine.alenlock = 20, mine.anumlock = 4, mine.maxufile = 5, mine.bits = 0x5;
    mine.maxfbuf = 40;   // file_buffers 0 means as many as buffers
    for (auto [settings, want] : {std::pair{static_cast<const kisam_settings*>(nullptr), defaults}, {&s, mine}}) {
        SCOPED_TRACE(settings ? "settings" : "defaults");
        ::unlink(cfg_.c_str());
        ::unlink((cfg_ + ".lk").c_str());
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
    EXPECT_EQ(isam_com->maxopen, 12);
    EXPECT_EQ(isam_com->maxbufs, 40);
    EXPECT_EQ(isam_com->maxusers, 7);
    EXPECT_EQ(isam_com->maxufile, 5);
    EXPECT_EQ(isam_com->isc_bits & 0xE, 0xA);
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
    errno = 0;
    EXPECT_EQ(kisam_config_write(nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kisam_config_write("", nullptr, 0, 0), -1);
    EXPECT_EQ(kisam_config_write(cfg_.c_str(), nullptr, 0x2, 0), -1) << "unknown flag";
    EXPECT_EQ(kisam_config_write(cfg_.c_str(), nullptr, 0, 010000), -1) << "not a mode";
    EXPECT_EQ(kisam_config_write(cfg_.c_str(), nullptr, 0, 04666), -1) << "no set-id bits";
    EXPECT_EQ(errno, EINVAL);
    std::string long_name(PATH_MAX, 'x');
    EXPECT_EQ(kisam_config_write(long_name.c_str(), nullptr, 0, 0), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(kisam_config_write((inst_->dir() + "/no/such/dir/cfg").c_str(), nullptr, 0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(cfg_));
}

TEST_F(ConfigWrite, ReplacesOnlyWhenAskedAndKeepsTheLockFile) {
    kisam_settings s = KISAM_SETTINGS_DEFAULT;
    ASSERT_EQ(kisam_config_write(cfg_.c_str(), &s, 0, 0), 0);
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

TEST_F(ConfigWrite, GivesNewFilesTheModeAsked) {
    mode_t old = ::umask(0);
    EXPECT_EQ(kisam_config_write(cfg_.c_str(), nullptr, 0, 0640), 0);
    ::umask(old);
    struct stat st{};
    ASSERT_EQ(::stat(cfg_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    ASSERT_EQ(::stat((cfg_ + ".lk").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(ConfigWrite, AFailedWriteLeavesNoFile) {
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
    EXPECT_EQ(kisam_config_write(cfg_.c_str(), nullptr, 0, 0), 0);
}

}  // namespace
