#include "kisam_test.h"

#include <kisam/ztsupport.h>

#include "is_common.h"
#include "is_error.h"
#include "is_file.h"
#include "is_heap.h"
#include "isx_area.h"
#include "kcheck.h"
#include "is_rec.h"
#include "lg.h"
#include "v_pool.h"
#include "os.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

// Every test checks, as each log record is made, that a unit noted every change it made
// to a page: a missing note would otherwise show only at a replay.
namespace {
[[maybe_unused]] const bool noted_checked = (lg_check_noted(true), true);
}  // namespace

namespace kt {

struct is_config to_record(const Config& c) {
    struct is_config r;
    std::memset(&r, 0, sizeof r);
    r.co_maxopen = c.maxopen;
    r.co_maxbuf = c.maxbuf;
    r.co_maxusers = c.maxusers;
    r.co_maxnkeys = c.maxnkeys;
    r.co_avgalts = c.avgalts;
    r.co_alenlock = c.alenlock;
    r.co_anumlock = c.anumlock;
    r.co_maxfbuf = c.maxfbuf ? c.maxfbuf : c.maxbuf;
    r.co_maxufile = c.maxufile;
    r.co_bits = c.bits;
    return r;
}

void write_config(const std::string& path, const Config& c) {
    struct is_config r = to_record(c);
    unsigned char buf[512];
    std::memset(buf, 0, sizeof buf);
    std::memcpy(buf, &r, sizeof r);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(::write(fd, buf, c.length), c.length);
    ::close(fd);
}

Installation::Installation(const Config& c, bool with_lock_file, const std::string& at) : lock_file_(with_lock_file) {
    char tmpl[] = "/tmp/kisam-test-XXXXXX";
    if (!at.empty() && ::mkdir(at.c_str(), 0700) != 0) {
        std::fprintf(stderr, "cannot make %s (it must not exist): %s\n", at.c_str(), std::strerror(errno));
        std::abort();
    }
    char* d = at.empty() ? ::mkdtemp(tmpl) : nullptr;
    if (at.empty() && !d) std::abort();
    dir_ = at.empty() ? std::string(d) : at;
    config_ = dir_ + "/kisamconfig";
    ::mkdir((dir_ + "/home").c_str(), 0777);
    ::mkdir((dir_ + "/q9").c_str(), 0777);
    ::setenv("HOME", (dir_ + "/home").c_str(), 1);
    ::setenv("HOME_Q9", (dir_ + "/q9").c_str(), 1);
    ::setenv("PROFILEQ9ENV", (dir_ + "/home/.Q9.profile").c_str(), 1);
    ::setenv("KISCONFIG", config_.c_str(), 1);
    // The settings store caches a variable at its first lookup: each installation puts its own.
    ZTPutEnv("KISCONFIG", config_.c_str());
    write_config(config_, c);
    if (with_lock_file) {
        int fd = ::open((config_ + ".lk").c_str(), O_RDWR | O_CREAT, 0666);
        if (fd >= 0) ::close(fd);
    }
    // The key keeps 16 bits of the key file's inode: a segment a dead run left (nobody
    // attached) may carry this file's key, and goes.
    const key_t k = key();
    const int id = k == -1 ? -1 : ::shmget(k, 0, 0);
    struct shmid_ds ds;
    if (id >= 0 && ::shmctl(id, IPC_STAT, &ds) == 0 && ds.shm_nattch == 0) {
        std::fprintf(stderr, "removing a shared segment left behind under this installation's key\n");
        ::shmctl(id, IPC_RMID, nullptr);
    }
}

key_t Installation::key() const {
    std::string keyfile = lock_file_ ? config_ + ".lk" : config_;
    return ::ftok(keyfile.c_str(), 1);
}

bool Installation::remove_segment() const {
    key_t k = key();
    if (k == -1) return false;
    int id = ::shmget(k, 0, 0);
    return id >= 0 && ::shmctl(id, IPC_RMID, nullptr) == 0;
}

Installation::~Installation() {
    remove_segment();
    if (keep) return;
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (std::system(cmd.c_str()) != 0) { /* best effort */ }
}

int attach_raw(const Installation& inst, const Config& c) {
    struct is_config conf = to_record(c);
    if (conf.co_maxufile == 0) conf.co_maxufile = conf.co_maxopen;
    if (sizecomm(&conf) != 0) return -1;
    is_lockfd = ::open((inst.config_path() + ".lk").c_str(), O_RDWR);
    if (is_lockfd < 0) return -1;
    const int xsize = static_cast<int>(isx_size(conf.co_maxopen, conf.co_maxusers, conf.co_maxbuf));
    char* base = getcomm(inst.key(), conf.co_comsize + xsize);
    if (base == reinterpret_cast<char*>(-1)) return -1;
    isam_com = reinterpret_cast<struct isam_com*>(base);
    if (is_firstcomf || isam_com->maxopen == 0) {
        is_comlayout(&conf);
        is_heaplayout(&conf);
        isx_layout();
    }
    if (!isx_attach(is_shmsize)) return -1;
    is_setenv();
    is_pid = ::getpid();
    for (int i = 0; i < isam_com->maxusers; ++i) {
        if (is_env.pid_[i] == 0) {
            is_env.pid_[i] = is_pid;
            is_env.useridx = static_cast<int16_t>(i);
            is_env.needs_[i] = 0;
            return 0;
        }
    }
    return -1;
}

void detach_raw() {
    if (!isam_com) return;
    is_env.pid_[is_env.useridx] = 0;
    freecom();
    isam_com = nullptr;
    if (is_lockfd >= 0) ::close(is_lockfd);
    is_lockfd = -1;
}

pid_t start_child(const std::function<int()>& fn) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        int rc = 99;
        try {
            rc = fn();
        } catch (...) {
            rc = 98;
        }
        std::fflush(nullptr);
        ::_exit(rc);
    }
    return pid;
}

int wait_child(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

int run_child(const std::function<int()>& fn) { return wait_child(start_child(fn)); }

Pipe::Pipe() {
    if (::pipe(fd_) != 0) std::abort();
}
Pipe::~Pipe() {
    close_read();
    close_write();
}
void Pipe::signal(char c) {
    if (fd_[1] >= 0 && ::write(fd_[1], &c, 1) != 1) { /* reader gone */ }
}
char Pipe::wait() {
    char c = 0;
    ssize_t n;
    do {
        n = ::read(fd_[0], &c, 1);
    } while (n < 0 && errno == EINTR);
    return n == 1 ? c : 0;
}
void Pipe::close_read() {
    if (fd_[0] >= 0) ::close(fd_[0]);
    fd_[0] = -1;
}
void Pipe::close_write() {
    if (fd_[1] >= 0) ::close(fd_[1]);
    fd_[1] = -1;
}

int stack_code(int i) {
    uint16_t v;
    std::memcpy(&v, &is_estk[i], sizeof v);
    return v;
}

std::vector<int> error_stack() {
    std::vector<int> v;
    for (const is_etrace* e = is_estk; is_etop && e < is_etop; ++e) v.push_back(stack_code(static_cast<int>(e - is_estk)));
    return v;
}

std::string capture_output(int fd, const std::function<void()>& fn) {
    std::fflush(nullptr);
    FILE* tmp = std::tmpfile();
    int saved = ::dup(fd);
    ::dup2(::fileno(tmp), fd);
    fn();
    std::fflush(nullptr);
    ::dup2(saved, fd);
    ::close(saved);
    std::string out;
    std::rewind(tmp);
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, tmp)) > 0) out.append(buf, n);
    std::fclose(tmp);
    return out;
}

namespace {
struct FaultState {
    int counts[Faults::kKinds] = {};
    Faults::Kind kind = Faults::kWrite;
    int at = 0;   // 0: not armed
    Faults::Mode mode = Faults::kOnce;
    int err = EIO;
    bool hit = false;
};
FaultState fs;

// True when this call of kind k must fail (errno set); kills when so armed.
bool fault(Faults::Kind k) {
    int n = ++fs.counts[k];
    if (k == Faults::kWrite || k == Faults::kSync || k == Faults::kLock) {
        const int c = ++fs.counts[Faults::kChanges];
        if (fs.kind == Faults::kChanges) n = c, k = Faults::kChanges;
    }
    if (fs.at == 0 || k != fs.kind) return false;
    if (n == fs.at || (fs.mode == Faults::kFromThenOn && n > fs.at)) {
        fs.hit = true;
        if (fs.mode == Faults::kKill) {
            std::fflush(nullptr);
            ::kill(::getpid(), SIGKILL);
        }
        errno = fs.err;
        return true;
    }
    return false;
}
ssize_t f_pread(int fd, void* b, size_t n, off_t off) {
    return fault(Faults::kRead) ? -1 : kisam::os_real.pread(fd, b, n, off);
}
ssize_t f_pwrite(int fd, const void* b, size_t n, off_t off) {
    return fault(Faults::kWrite) ? -1 : kisam::os_real.pwrite(fd, b, n, off);
}
// A store into a mapped file (the log's records) counts as a write.
int f_mstore(int fd, char* map, off_t off, const void* src, size_t n) {
    return fault(Faults::kWrite) ? -1 : kisam::os_real.mstore(fd, map, off, src, n);
}
int f_fdatasync(int fd) { return fault(Faults::kSync) ? -1 : kisam::os_real.fdatasync(fd); }
int f_fcntl(int fd, int cmd, struct flock* fl) {
    return fault(Faults::kLock) ? -1 : kisam::os_real.fcntl_lock(fd, cmd, fl);
}
int f_fallocate(int fd, off_t off, off_t len) {
    return fault(Faults::kAlloc) ? errno : kisam::os_real.fallocate(fd, off, len);
}
}  // namespace

Faults::Faults() {
    fs = FaultState();
    kisam::os.pread = f_pread;
    kisam::os.pwrite = f_pwrite;
    kisam::os.mstore = f_mstore;
    kisam::os.fdatasync = f_fdatasync;
    kisam::os.fcntl_lock = f_fcntl;
    kisam::os.fallocate = f_fallocate;
}
Faults::~Faults() {
    kisam::os = kisam::os_real;
    fs = FaultState();
}
void Faults::arm(Kind kind, int n, Mode mode, int err) {
    fs = FaultState();
    fs.kind = kind;
    fs.at = n;
    fs.mode = mode;
    fs.err = err;
}
void Faults::disarm() {
    fs.at = 0;
    for (int& c : fs.counts) c = 0;
}
int Faults::calls(Kind kind) { return fs.counts[kind]; }
bool Faults::hit() { return fs.hit; }

void become_unattached() {
    if (isam_com) ::shmdt(isam_com);
    isam_com = nullptr;
}

::testing::AssertionResult sound(const std::string& file) {
    const kisam::check::Report r = kisam::check::check_file(file);
    if (r.ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << file << ": " << r.error;
}

std::string slurp(const std::string& path) {
    std::string s;
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return s;
    char buf[65536];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return s;
}

void spit(const std::string& path, const std::string& bytes, mode_t mode) {
    ::unlink(path.c_str());
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())) << path;
    ::close(fd);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

std::string fd_path(int fd) {
    char link[64], name[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = ::readlink(link, name, sizeof name);
    return n > 0 ? std::string(name, static_cast<size_t>(n)) : std::string();
}

std::string real_path(const std::string& path) {
    char real[PATH_MAX];
    return ::realpath(path.c_str(), real) ? std::string(real) : std::string();
}

bool is_log_fd(int fd) {
    const std::string p = fd_path(fd);
    return p.size() > 3 && p.compare(p.size() - 3, 3, ".w0") == 0;
}

void drop_unwritten(int fd, const std::string& was) {
    struct stat st;
    if (::fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) > was.size()) {
        const std::string zeros(static_cast<size_t>(st.st_size) - was.size(), '\0');
        (void)!::pwrite(fd, zeros.data(), zeros.size(), static_cast<off_t>(was.size()));
    }
    (void)!::pwrite(fd, was.data(), was.size(), 0);
}

bool await(const std::function<bool()>& pred, int ms) {
    for (int i = 0; i < ms; ++i, ::usleep(1000))
        if (pred()) return true;
    return pred();
}

int waiting_for(const volatile unsigned* word) {
    const auto o = static_cast<uint32_t>(kisam::com_offset(word));
    int n = 0;
    for (int i = 0; i < isam_com->maxusers; ++i) n += is_env.pid_[i] != 0 && is_env.needs_[i] == o;
    return n;
}

bool waiting(pid_t pid) {
    for (int i = 0; i < isam_com->maxusers; ++i)
        if (is_env.pid_[i] == pid && is_env.needs_[i] != 0) return true;
    return false;
}

void interrupting_usr1() {
    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGUSR1, &sa, nullptr);
}

int interrupt_until_done(pid_t pid, int seconds) {
    for (int i = 0; i < seconds * 100; ++i) {
        ::kill(pid, SIGUSR1);
        int st;
        if (::waitpid(pid, &st, WNOHANG) == pid) return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        ::usleep(10000);
    }
    ::kill(pid, SIGKILL);
    return wait_child(pid) + 1000;
}

void* shared_memory(size_t n) {
    void* p = ::mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) std::abort();
    return p;
}

void Env::TearDown() {
    for (pid_t p : held_) ::kill(p, SIGKILL);
    for (pid_t p : held_) wait_child(p);
    held_.clear();
    for (auto [p, n] : maps_) ::munmap(p, n);
    maps_.clear();
    ::alarm(0);
    nisunisam();
    inst_.reset();
}

std::string Env::made(const std::string& name, std::vector<int> lens) {
    const int fd = create(name, std::move(lens));
    EXPECT_GE(fd, 0) << name << ": is_errno " << is_errno;
    EXPECT_EQ(nisclose(fd), 0);
    nisunisam();
    return path(name);
}

pid_t Env::hold(const std::function<int()>& fn) {
    Pipe ready;
    const pid_t pid = start_child([&] {
        if (int r = fn(); r != 0) return r;
        ready.signal();
        for (;;) ::pause();
    });
    ready.close_write();
    EXPECT_EQ(ready.wait(), 'x') << "the held child failed";
    held_.push_back(pid);
    return pid;
}

void Env::kill(pid_t pid) {
    ::kill(pid, SIGKILL);
    EXPECT_EQ(wait_child(pid), 128 + SIGKILL);
    std::erase(held_, pid);
}

std::vector<pid_t> Env::spawn(int n, const std::function<int(int)>& fn) {
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) pids.push_back(start_child([&fn, i] { return fn(i); }));
    return pids;
}

std::vector<int> Env::workers(int n, const std::function<int(int)>& fn) {
    std::vector<int> st;
    for (pid_t p : spawn(n, fn)) st.push_back(wait_child(p));
    return st;
}

void Env::bound(unsigned seconds) { ::alarm(seconds); }

uint64_t test_seed(uint64_t fallback) {
    uint64_t seed = fallback;
    if (const char* s = std::getenv("KISAM_SEED")) seed = std::strtoull(s, nullptr, 0);
    std::printf("[ seed     ] KISAM_SEED=%llu\n", static_cast<unsigned long long>(seed));
    return seed;
}

}  // namespace kt

namespace kt {

int write_back() {
    const int u = is_curdb->uniqueid;
    if (v_flush() != 0) return -1;
    return lg_checkpoint(is_curfcp, u, lg_wfd(u));
}

int write_back(int isfd) {
    if (is_isin(PROC(P_ISFLUSH), isfd, 0) < 0) return -1;
    if (is_getctl() != 0) {
        is_isout();
        return -1;
    }
    int rc = write_back();
    if (is_relctl() != 0) rc = -1;
    is_isout();
    return rc;
}

}  // namespace kt
