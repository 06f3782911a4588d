// Who may use an installation: segment, journals and logs follow the lock file's owner,
// group and mode; what another user planted is refused.  Runs as root; other users are
// nobody (65534) and daemon (1).
#include "../engine/open_fixture.h"

#include "is_access.h"
#include "kcheck.h"
#include "os.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <functional>

namespace {

constexpr uid_t kDaemon = 1;
constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;
const char kSecret[] = "S0000001TOPSECRET-PAYROLL-DATA";
const char kSecretData[] = "TOPSECRET-PAYROLL-DATA";  // the record's bytes after its key

// fn in a forked child, detached, as uid/gid with the given supplementary groups.
pid_t start_as(uid_t uid, gid_t gid, std::vector<gid_t> groups, std::function<int()> fn) {
    return kt::start_child([=] {
        ot::become_unattached();
        if (::setgroups(groups.size(), groups.data()) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) return 97;
        ::umask(007);
        return fn();
    });
}
int run_as(uid_t uid, gid_t gid, std::vector<gid_t> groups, std::function<int()> fn) {
    return kt::wait_child(start_as(uid, gid, std::move(groups), std::move(fn)));
}

struct shmid_ds segment_stat(key_t key) {
    struct shmid_ds ds {};
    if (const int id = ::shmget(key, 0, 0); id >= 0) ::shmctl(id, IPC_STAT, &ds);
    return ds;
}

using kt::slurp;

// Rewrites in place: the inode, which logs and journals name, is kept.
void rewrite_file(const std::string& path, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(bytes.size())), 0);
    ::close(fd);
}

// Byte for byte, but for the control page's count of processes (bytes 84-85).
::testing::AssertionResult same_file(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes " << a.size() << " and " << b.size();
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && i != 84 && i != 85)
            return ::testing::AssertionFailure() << "first difference at byte " << i;
    return ::testing::AssertionSuccess();
}

// A 40-byte record: id in 8 digits, then c; put, and looked up: 0 found whole, 1 missing.
std::string rec(int id, char c) {
    char r[40];
    std::snprintf(r, sizeof r, "%08d", id);
    std::memset(r + 8, c, sizeof r - 8);
    return std::string(r, sizeof r);
}
int put(int fd, int id, char c) { return niswrite(fd, rec(id, c).data(), 40); }
int look(int fd, int id, char c) {
    const std::string want = rec(id, c);
    std::string got(40, '\0');
    const int n = nisfind(fd, 0, const_cast<char*>(want.data()), got.data(), 40);
    return n == 40 && got == want ? 0 : n == 0 ? 1 : 2;
}
int leave(int fd) {
    nisclose(fd);
    return nisunisam(), 0;
}

const struct Planted {
    const char* what;
    uid_t owner;
    mode_t mode;
    bool own;
} kPlanted[] = {
    {"owned by another user", kNobody, 0600, false},
    {"wider than the lock file", 0, 0666, false},
    {"readable by others", 0, 0604, false},
    {"the installation's own", 0, 0600, true},
};

class Access : public ot::Env {
protected:
    void SetUp() override {
        ot::Env::SetUp();
        bound(120);
        struct passwd* pw = ::getpwuid(kNobody);
        if (::geteuid() != 0 || !pw || pw->pw_gid != kNogroup || !::getpwuid(kDaemon))
            GTEST_SKIP() << "needs root and the users nobody (65534, group 65534) and daemon (1)";
        ASSERT_EQ(::chmod(inst_->dir().c_str(), 0755), 0);
        ASSERT_EQ(::chmod(inst_->config_path().c_str(), 0644), 0);
    }
    void lock_mode(uid_t uid, gid_t gid, mode_t mode) {
        ASSERT_EQ(::chown(lock().c_str(), uid, gid), 0);
        ASSERT_EQ(::chmod(lock().c_str(), mode), 0);
    }
};

TEST(AccessRule, SharedModeIsWhatTheLockFileLetsOpenReadWrite) {
    const std::pair<mode_t, mode_t> cases[] = {{0666, 0666}, {0664, 0660}, {0660, 0660}, {0644, 0600},
                                               {0640, 0600}, {0600, 0600}, {0622, 0600}, {0606, 0606},
                                               {0777, 0666}, {0400, 0}};
    for (auto [lk, want] : cases) EXPECT_EQ(is_shared_mode(lk), want) << std::oct << lk;
}

// Another user tries to attach the segment (to find a pooled record), read the journals,
// or attach through the library, while the owner is attached: refused at every step, for
// a user and a group mode.
TEST_F(Access, OtherUsersReachNeitherTheSegmentNorTheJournals) {
    for (auto [mode, gid] : {std::pair<mode_t, gid_t>{0600, 0}, {0660, kDaemon}}) {
        SCOPED_TRACE(mode);
        lock_mode(0, gid, mode);
        const key_t key = inst_->key();
        const std::string journal = lock() + ".u0";
        const int fd = create("payroll", {8});
        ASSERT_GE(fd, 0) << is_errno;
        ASSERT_EQ(::chmod(path("payroll").c_str(), 0600), 0);
        ASSERT_EQ(niswrite(fd, const_cast<char*>(kSecret), sizeof kSecret - 1), 0);
        char got[sizeof kSecret] = {};
        ASSERT_EQ(nisfind(fd, 0, const_cast<char*>(kSecret), got, sizeof kSecret - 1), int(sizeof kSecret - 1));
        ASSERT_NE(::memmem(isam_com, static_cast<size_t>(isam_com->comsize), kSecretData, sizeof kSecretData - 1), nullptr);
        const struct shmid_ds ds = segment_stat(key);
        EXPECT_EQ(ds.shm_perm.mode & 0777, mode);
        EXPECT_EQ(ds.shm_perm.uid, 0u);
        EXPECT_EQ(ds.shm_perm.gid, gid);
        struct stat st;
        ASSERT_EQ(::stat(journal.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, mode);
        EXPECT_EQ(st.st_gid, gid);
        EXPECT_EQ(run_as(kNobody, kNogroup, {kNogroup}, [&] {
                      const int id = ::shmget(key, 0, 0);
                      if (id < 0) return 91;  // it is there: the owner is attached
                      for (int flags : {SHM_RDONLY, 0}) {
                          void* p = ::shmat(id, nullptr, flags);
                          if (p != reinterpret_cast<void*>(-1))
                              return ::memmem(p, ds.shm_segsz, kSecretData, sizeof kSecretData - 1) ? 93 : 94;
                          if (errno != EACCES) return 95;
                      }
                      struct shmid_ds seen;
                      if (::shmctl(id, IPC_STAT, &seen) == 0 || errno != EACCES) return 92;
                      if (::shmget(key, 0, 0400) >= 0) return 96;
                      if (::open(journal.c_str(), O_RDONLY) >= 0 || errno != EACCES) return 80;
                      if (is_init() != -1 || is_errno != ISE_INITERR || kt::stack_code() != 0x220D) return 81;
                      return 0;
                  }),
                  0);
        EXPECT_EQ(nisclose(fd), 0);
        nisunisam();
        EXPECT_LT(::shmget(key, 0, 0), 0);
        ::unlink(journal.c_str());
    }
}

// A segment at the key that is not the installation's is refused (0x2210, a message
// naming it and how to remove it) and left alone.
TEST_F(Access, SegmentsFoundAtTheKeyMustBeTheInstallations) {
    const key_t key = inst_->key();
    const size_t size = 1 << 20;
    // Made by creator with mode (and given to set_owner, unless -1); met by the lock
    // file's owner `victim` with the lock file's group and mode; what the refusal says.
    struct Case {
        const char* what;
        uid_t creator;
        mode_t mode;
        uid_t set_owner, victim;
        gid_t group;
        mode_t lkmode;
        const char* said;
    } cases[] = {
        {"created first by another user", kNobody, 0600, uid_t(-1), 0, 0, 0600, "created by uid 65534"},
        {"created by another user and given to the owner", kNobody, 0600, 0, 0, 0, 0600,
         "created by uid 65534, owned by uid 0"},
        {"created by the owner, wider than the lock file", 0, 0666, uid_t(-1), 0, 0, 0600, "mode 0666"},
        {"created by the owner, readable by others", 0, 0604, uid_t(-1), 0, 0, 0600, "mode 0604"},
        {"created by the owner for another group", 0, 0660, uid_t(-1), 0, kDaemon, 0660, "gid 0 with mode 0660"},
        {"that the owner may not even look at", kNobody, 0600, uid_t(-1), kDaemon, kDaemon, 0600,
         "may not even look at it"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        lock_mode(c.victim, c.group, c.lkmode);
        int id = -1;
        auto squat = [&] {
            id = ::shmget(key, size, IPC_CREAT | IPC_EXCL | c.mode);
            if (id < 0) return 1;
            char* p = static_cast<char*>(::shmat(id, nullptr, 0));
            if (p == reinterpret_cast<char*>(-1)) return 2;
            std::memcpy(p, "SQUAT", 5);
            ::shmdt(p);
            if (c.set_owner != uid_t(-1)) {
                struct shmid_ds ds;
                if (::shmctl(id, IPC_STAT, &ds) != 0) return 3;
                ds.shm_perm.uid = c.set_owner;
                if (::shmctl(id, IPC_SET, &ds) != 0) return 4;
            }
            return 0;
        };
        ASSERT_EQ(c.creator == 0 ? squat() : run_as(c.creator, c.creator, {}, squat), 0);
        id = ::shmget(key, 0, 0);
        ASSERT_GE(id, 0);
        const std::string said = c.said, remove = "ipcrm -m " + std::to_string(id);
        EXPECT_EQ(run_as(c.victim, c.victim, {}, [&] {
                      std::string err = kt::capture_output(2, [] { is_init(); });
                      if (isam_com || is_errno != ISE_INITERR || kt::stack_code() != 0x2210) return 1;
                      if (err.find(said) == std::string::npos || err.find(remove) == std::string::npos) {
                          std::fprintf(stderr, "message: %s", err.c_str());
                          return 2;
                      }
                      return 0;
                  }),
                  0);
        struct shmid_ds ds;
        ASSERT_EQ(::shmctl(id, IPC_STAT, &ds), 0) << "the refused segment is left alone";
        EXPECT_EQ(ds.shm_nattch, 0u);
        char* p = static_cast<char*>(::shmat(id, nullptr, SHM_RDONLY));
        ASSERT_NE(p, reinterpret_cast<char*>(-1));
        EXPECT_EQ(std::memcmp(p, "SQUAT", 5), 0);
        ::shmdt(p);
        ::shmctl(id, IPC_RMID, nullptr);
    }

    // A 0666 installation takes another user's segment, and makes its own 0666.
    lock_mode(0, 0, 0666);
    ASSERT_EQ(run_as(kNobody, kNogroup, {}, [&] { return ::shmget(key, size, IPC_CREAT | 0666) >= 0 ? 0 : 1; }), 0);
    ASSERT_EQ(is_init(), 0) << is_errno;
    EXPECT_EQ(segment_stat(key).shm_perm.uid, kNobody);
    nisunisam();
    inst_->remove_segment();
    ASSERT_EQ(is_init(), 0) << is_errno;
    struct shmid_ds ds = segment_stat(key);
    EXPECT_EQ(ds.shm_perm.mode & 0777, 0666u);
    EXPECT_EQ(ds.shm_perm.cuid, 0u);
    ASSERT_EQ(put(create("f", {4}), 1, 'r'), 0);
    struct stat st;
    ASSERT_EQ(::stat((lock() + ".u0").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
}

// A journal or log that is a link, or not the installation's, is neither written nor
// replayed, and what it names stays as it was; the same bytes, the installation's own,
// are settled.
TEST_F(Access, PlantedJournalsAndLogsAreRefused) {
    lock_mode(0, 0, 0600);
    const std::string victim = path("victim"), original(8192, 'v'), u0 = lock() + ".u0", w0 = lock() + ".w0";
    for (const std::string& at : {u0, w0}) {
        for (bool symbolic : {true, false}) {
            SCOPED_TRACE(at + (symbolic ? ": symbolic link" : ": hard link"));
            for (const std::string& f : {u0, w0, path("f")}) ::unlink(f.c_str());
            kt::spit(victim, original);
            ASSERT_EQ(symbolic ? ::symlink(victim.c_str(), at.c_str()) : ::link(victim.c_str(), at.c_str()), 0);
            int rc = 0, code = 0;
            const std::string err = kt::capture_output(2, [&] {
                const int fd = create("f", {4});   // opens the log; its first write, the journal
                if (at == w0) rc = fd < 0 ? -1 : 0;
                else rc = fd < 0 ? -2 : niswrite(fd, const_cast<char*>("0001rest"), 8);
                code = is_errno;
            });
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(code, ISE_OPENF);
            EXPECT_NE(err.find(symbolic ? "symbolic link" : "links 2"), std::string::npos) << err;
            EXPECT_TRUE(slurp(victim) == original);
            nisunisam();
        }
    }
    for (const std::string& f : {u0, w0, path("f")}) ::unlink(f.c_str());

    // A killed writer's log of 20 calls, and an active journal naming the victim (no
    // uncommitted page reaches a file, so the victim never changes).
    const std::string file = made("data", {8});
    kill(hold([&] {
        const int fd = nisopen(file.c_str(), ISO_RDWR);
        for (int i = 0; i < 20; ++i)
            if (fd < 0 || put(fd, i, 'w') != 0) return 1;
        return 0;
    }));
    inst_->remove_segment();
    const std::string clean = slurp(file), log = slurp(w0), u3 = lock() + ".u3";
    ASSERT_GT(log.size(), 1024u);
    struct stat vs;
    ASSERT_EQ(::stat(victim.c_str(), &vs), 0);
    std::string j(4096 + 1032, '\0');
    auto put32 = [&](size_t at, uint32_t v) { std::memcpy(&j[at], &v, 4); };
    auto put64 = [&](size_t at, uint64_t v) { std::memcpy(&j[at], &v, 8); };
    put32(0, 0x324E4A4Bu);  // magic
    put32(4, 1);            // ACTIVE
    put64(16, vs.st_dev);
    put64(24, vs.st_ino);
    put32(32, 1);           // one image
    put32(36, 1);
    std::snprintf(&j[608], 256, "%s", victim.c_str());
    put32(4096, 1024);      // of page 1024
    std::memset(&j[4096 + 8], 'X', 1024);
    for (const Planted& c : kPlanted) {
        SCOPED_TRACE(c.what);
        rewrite_file(victim, original);
        rewrite_file(file, clean);
        for (const auto& [at, bytes] : {std::pair{u3, j}, {w0, log}}) {
            kt::spit(at, bytes, c.mode);
            EXPECT_EQ(::chown(at.c_str(), c.owner, 0), 0);
        }
        inst_->remove_segment();
        const std::string err = kt::capture_output(2, [] { EXPECT_EQ(is_init(), 0) << is_errno; });
        EXPECT_TRUE(slurp(victim) == original);
        const std::string now = slurp(u3);
        ASSERT_GE(now.size(), 8u);
        struct kisam_recovery r;
        ASSERT_EQ(kisam_last_recovery(&r), 0);
        if (c.own) {
            EXPECT_EQ(kisam::load_at<uint32_t>(&now[4]), 0u) << "the journal was not a live one: the test proves nothing\n" << err;
            EXPECT_FALSE(slurp(file) == clean) << "the log was not a live one: the test proves nothing\n" << err;
            EXPECT_EQ(r.calls, 20);
            EXPECT_TRUE(kt::sound(file));
            EXPECT_EQ(kisam::check::check_file(file).records, 20);
        } else {
            EXPECT_TRUE(now == j) << "a journal that is not the installation's was written";
            EXPECT_TRUE(slurp(file) == clean);
            EXPECT_TRUE(slurp(w0) == log) << "a log that is not the installation's was written";
            EXPECT_EQ(r.logs, 0);
            for (const std::string& at : {u3, w0})
                EXPECT_NE(err.find(at + " is not this installation's"), std::string::npos) << err;
        }
        nisunisam();
        inst_->remove_segment();
    }
}

// A group installation: either member makes the segment, reads the other's records, and
// rolls back the other's killed call (by takeover, and at attach).
TEST_F(Access, AGroupInstallationServesEveryMember) {
    lock_mode(kDaemon, kNogroup, 0660);
    ASSERT_EQ(::chown(inst_->dir().c_str(), kDaemon, kNogroup), 0);
    ASSERT_EQ(::chmod(inst_->dir().c_str(), 0770), 0);
    const std::string file = path("shared");
    using Start = std::function<pid_t(std::function<int()>)>;
    Start as_daemon = [&](std::function<int()> fn) { return start_as(kDaemon, kDaemon, {kDaemon, kNogroup}, fn); };
    Start as_nobody = [&](std::function<int()> fn) { return start_as(kNobody, kNogroup, {kNogroup}, fn); };
    // A child that does `first`, signals on up, and on the parent's word (down) does `then`.
    auto in_two_steps = [](Start as, kt::Pipe& up, kt::Pipe& down, std::function<int(int*)> first,
                           std::function<int(int)> then) {
        const pid_t pid = as([&, first, then] {
            down.close_write();
            int fd = -1;
            if (int rc = first(&fd); rc != 0) return rc;
            up.signal();
            return down.wait() == 'x' ? then(fd) : 99;
        });
        up.close_write();
        EXPECT_EQ(up.wait(), 'x');
        return pid;
    };

    kt::Pipe made, done;
    const pid_t maker = in_two_steps(
        as_nobody, made, done,
        [&](int* fd) { return (*fd = niscreate(file.c_str(), 1, std::vector<int>{8}.data())) < 0 || put(*fd, 1, 'a') ? 1 : 0; },
        [&](int fd) { return look(fd, 2, 'b') ? 3 : leave(fd); });
    struct shmid_ds ds = segment_stat(inst_->key());
    EXPECT_EQ(ds.shm_perm.cuid, kNobody);
    EXPECT_EQ(ds.shm_perm.uid, kDaemon);
    EXPECT_EQ(ds.shm_perm.gid, kNogroup);
    EXPECT_EQ(ds.shm_perm.mode & 0777, 0660u);
    EXPECT_EQ(kt::wait_child(as_daemon([&] {
                  const int fd = nisopen(file.c_str(), ISO_RDWR);
                  if (fd < 0) return 10 + is_errno % 100;
                  return look(fd, 1, 'a') || put(fd, 2, 'b') ? 2 : leave(fd);
              })),
              0);
    done.signal();
    EXPECT_EQ(kt::wait_child(maker), 0);
    struct stat st;
    for (const char* j : {".u0", ".u1", ".w0"}) {
        ASSERT_EQ(::stat((lock() + j).c_str(), &st), 0) << j;
        EXPECT_EQ(st.st_mode & 0777, 0660u) << j;
        EXPECT_EQ(st.st_gid, kNogroup) << j << ": the group is given";
    }

    for (bool survivor_attached : {true, false}) {
        SCOPED_TRACE(survivor_attached ? "taken over" : "found at attach");
        const int id = survivor_attached ? 3 : 4;
        const Start victim_of = survivor_attached ? as_nobody : as_daemon;
        const Start survivor_of = survivor_attached ? as_daemon : as_nobody;
        const std::string before = slurp(file);
        auto check = [&](int) {   // the killed write left nothing
            const int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 20;
            return look(fd, 1, 'a') || look(fd, 2, 'b') ? 21 : look(fd, id, 'c') != 1 ? 22 : leave(fd);
        };
        kt::Pipe ready, killed;
        const pid_t survivor = survivor_attached
            ? in_two_steps(survivor_of, ready, killed, [](int*) { return is_init() ? 30 : 0; }, check) : -1;
        const pid_t victim = victim_of([&] {
            const int fd = nisopen(file.c_str(), ISO_RDWR);
            if (fd < 0) return 40;
            // Killed at the call's one write: before its commit point.
            kt::Faults f;
            f.arm(kt::Faults::kWrite, 1, kt::Faults::kKill);
            put(fd, id, 'c');
            return 41;  // not killed
        });
        EXPECT_EQ(kt::wait_child(victim), 128 + SIGKILL);
        if (survivor_attached) killed.signal();
        EXPECT_EQ(kt::wait_child(survivor_attached ? survivor : survivor_of([&] { return check(-1); })), 0);
        EXPECT_TRUE(same_file(slurp(file), before));
        EXPECT_TRUE(kt::sound(file));
    }
    EXPECT_EQ(segment_stat(inst_->key()).shm_nattch, 0u);
}

}  // namespace
