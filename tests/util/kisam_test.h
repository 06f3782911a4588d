// Test fixtures.  Every test that touches the engine or the settings store works in its
// own temporary installation (HOME, HOME_Q9 and PROFILEQ9ENV point into it); the segment
// keyed on its lock file is removed when the fixture ends.
#pragma once

#include <gtest/gtest.h>
#include <kisam/kisam.h>

#include <sys/types.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace kt {

// Settings of a test configuration file (the binary 52-byte record).
struct Config {
    int16_t maxopen = 16;
    int16_t maxbuf = 64;
    int16_t maxusers = 16;
    int16_t maxnkeys = 25;
    int16_t avgalts = 2;
    int16_t alenlock = 16;
    int16_t anumlock = 16;
    int16_t maxfbuf = 0;     // 0 means: as many as maxbuf
    int16_t maxufile = 0;
    uint32_t bits = 0;
    int length = 52;         // bytes written to the file
};

void write_config(const std::string& path, const Config& c);
struct is_config to_record(const Config& c);

// `at`: a directory to make (it must not exist) instead of a new temporary one.
class Installation {
public:
    explicit Installation(const Config& c = Config(), bool with_lock_file = true, const std::string& at = "");
    ~Installation();
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    const std::string& dir() const { return dir_; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    const std::string& config_path() const { return config_; }
    // True when there was a segment to remove; idempotent.
    bool remove_segment() const;
    key_t key() const;
    bool keep = false;   // the destructor leaves the directory

private:
    std::string dir_;
    std::string config_;
    bool lock_file_;
};

// The steps of start-up without the environment store (segment, is_env, is_lockfd,
// process slot); 0 or -1.
int attach_raw(const Installation& inst, const Config& c);
void detach_raw();

// Exit status of fn run in a forked child, or 128 + signal when killed.
int run_child(const std::function<int()>& fn);
pid_t start_child(const std::function<int()>& fn);
int wait_child(pid_t pid);

class Pipe {
public:
    Pipe();
    ~Pipe();
    void signal(char c = 'x');   // write one byte
    char wait();                 // read one byte (0 at end of file)
    void close_read();
    void close_write();
private:
    int fd_[2];
};

// Procedure code of error-stack entry i (0: where it arose); the whole stack innermost first.
int stack_code(int i = 0);

// Brings the call frame's file (control lock held) up to date on disk, as a checkpoint
// does; the handle form takes and gives back the lock.  0, or -1 with the error raised.
int write_back();
int write_back(int isfd);
std::vector<int> error_stack();

// What fn wrote to fd (1 or 2).
std::string capture_output(int fd, const std::function<void()>& fn);

// Counts the calls of each kind through the engine's OS table while alive; armed, makes
// the nth fail with err (once or from then on) or SIGKILLs the process just before it.
class Faults {
public:
    // kChanges: writes, syncs and lock calls counted together.
    enum Kind { kRead, kWrite, kSync, kLock, kAlloc, kChanges, kKinds };
    enum Mode { kOnce, kFromThenOn, kKill };
    Faults();   // counting only
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;
    // Counts restart at 0.
    void arm(Kind kind, int n, Mode mode, int err = EIO);
    void disarm();
    static int calls(Kind kind);
    static bool hit();
};

// ---- the multi-process fixture ---------------------------------------------------------

// Makes a forked child of an attached process one that never attached (drops the mapping).
void become_unattached();

bool await(const std::function<bool()>& pred, int ms = 5000);
// Processes waiting for a shared word's lock-file range; whether pid waits for anything.
int waiting_for(const volatile unsigned* word);
bool waiting(pid_t pid);
// SIGUSR1 interrupts system calls (a handler without SA_RESTART).
void interrupting_usr1();
// SIGUSR1 to pid every 10 ms until it ends (one sent before its wait would be lost); its
// exit status, or 1000 + status when it had to be killed after `seconds`.
int interrupt_until_done(pid_t pid, int seconds = 60);
// Zeroed MAP_SHARED memory; never null.
void* shared_memory(size_t n);

::testing::AssertionResult sound(const std::string& file);

// A file's bytes ("" when unreadable); a file made anew with them.
std::string slurp(const std::string& path);
void spit(const std::string& path, const std::string& bytes, mode_t mode = 0600);

// For OS-layer hooks that pick out one file: an open descriptor's path, whether it is a log.
std::string fd_path(int fd);
bool is_log_fd(int fd);
std::string real_path(const std::string& path);
// As a disk that drops what it had not written when a sync fails: fd's file back to
// `was`, zeros past it.
void drop_unwritten(int fd, const std::string& was);

// A test with its own installation (start(c); SetUp makes the default one), children
// and time bound.  TearDown kills and reaps the children, detaches, removes the segment.
class Env : public ::testing::Test {
protected:
    void start(const Config& c = Config(), bool lock_file = true) {
        inst_ = std::make_unique<Installation>(c, lock_file);
    }
    void SetUp() override { start(); }
    void TearDown() override;
    std::string path(const std::string& name) const { return inst_->path(name); }
    std::string lock() const { return inst_->config_path() + ".lk"; }
    int create(const std::string& name, std::vector<int> lens) {
        return niscreate(path(name).c_str(), static_cast<int>(lens.size()), lens.data());
    }
    // Created, closed and detached (no segment left); its path.
    std::string made(const std::string& name, std::vector<int> lens);
    // A child that runs fn and, when it returned 0, stays until killed; its pid once fn is done.
    pid_t hold(const std::function<int()>& fn);
    void kill(pid_t pid);
    // fn(0) .. fn(n - 1) in n children at once: their pids, or their exit statuses.
    static std::vector<pid_t> spawn(int n, const std::function<int(int)>& fn);
    static std::vector<int> workers(int n, const std::function<int(int)>& fn);
    // A hang past `seconds` (0: no bound) ends the test by SIGALRM.
    void bound(unsigned seconds);
    // A value-initialized T shared with later children; unmapped (not destroyed) at the end.
    template <class T>
    T& shared() {
        void* m = shared_memory(sizeof(T));
        maps_.emplace_back(m, sizeof(T));
        return *new (m) T{};
    }
    std::unique_ptr<Installation> inst_;
    std::vector<pid_t> held_;
    std::vector<std::pair<void*, size_t>> maps_;
};

// KISAM_DURABLE for the life of a scope (read at start-up).
struct Durable {
    explicit Durable(const char* v = "1") { ::setenv("KISAM_DURABLE", v, 1); }
    ~Durable() { ::unsetenv("KISAM_DURABLE"); }
};

// KISAM_SEED, else the fallback; printed so that a failure can be replayed.
uint64_t test_seed(uint64_t fallback);

// For records whose bytes follow from (id, generation): checked without a copy.
inline uint32_t mix(uint32_t a, uint32_t b) {
    const uint64_t x = (static_cast<uint64_t>(a) << 32 | b) * 0x9E3779B97F4A7C15ull;
    return static_cast<uint32_t>(x >> 29);
}

}  // namespace kt
