// Test fixtures: a private temporary installation per test, segment clean-up,
// child processes and pipe handshakes.
//
// Every test that touches the engine or the settings store works in its own temporary
// directory: HOME, HOME_Q9 and PROFILEQ9ENV point into it, the configuration file and
// its lock file live in it, and the shared segment keyed on that lock file is removed
// when the fixture ends.
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

// Writes the binary configuration record to path.
void write_config(const std::string& path, const Config& c);
// The record of c as the library would read it (computed fields zero).
struct is_config to_record(const Config& c);

// A temporary installation: directory, settings variables, configuration and lock file.
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
    // Removes the segment created under this installation's key (also called by the
    // destructor); true when there was one.  Safe to call more than once.
    bool remove_segment() const;
    key_t key() const;
    bool keep = false;   // the destructor leaves the directory

private:
    std::string dir_;
    std::string config_;
    bool lock_file_;
};

// Attaches a segment for `c` without the environment store: sizes it, creates or
// attaches it, lays out a new one, sets is_env, opens the lock file as is_lockfd and
// claims a process slot -- the steps start-up runs.  Returns 0 or -1.
int attach_raw(const Installation& inst, const Config& c);
// Detaches what attach_raw attached.
void detach_raw();

// Runs fn in a forked child; returns its exit status, or 128 + signal when killed.
int run_child(const std::function<int()>& fn);
// Starts fn in a forked child and returns its pid (collect it with wait_child).
pid_t start_child(const std::function<int()>& fn);
int wait_child(pid_t pid);

// A one-way pipe for handshakes between a parent and a child.
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

// Procedure code of error-stack entry i (0 is where the failure arose), and the whole
// stack innermost first.
int stack_code(int i = 0);

// Brings the current file (the call frame's, control lock held) up to date on disk, as
// a checkpoint does: what this process changed is committed, and every page of the file
// not yet written back is written.  For tests that look at a file's bytes on disk while
// the library has it open.  0, or -1 with the error raised.
int write_back();
// The same for an open handle, taking and giving back its control lock.
int write_back(int isfd);
std::vector<int> error_stack();

// Runs fn with file descriptor fd (1 or 2) redirected; returns what fn wrote to it.
std::string capture_output(int fd, const std::function<void()>& fn);

// Fault injection at the OS boundary, for sweeps over every system call of a workload.
// Counts the calls of each kind made through the engine's OS table while alive (and,
// with a fault set, makes the nth call fail with err, once or from then on, or kills
// the process with SIGKILL just before the nth call runs).
class Faults {
public:
    // kChanges: writes, syncs and lock calls counted together.
    enum Kind { kRead, kWrite, kSync, kLock, kAlloc, kChanges, kKinds };
    enum Mode { kOnce, kFromThenOn, kKill };
    Faults();   // counting only
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;
    // Arms the fault: the nth call of `kind` from now on.  Counts restart at 0.
    void arm(Kind kind, int n, Mode mode, int err = EIO);
    void disarm();
    // Calls of `kind` made since the last arm (or since construction).
    static int calls(Kind kind);
    // Whether the armed fault has been hit.
    static bool hit();
};

// ---- the multi-process fixture ---------------------------------------------------------

// Turns a forked child of an attached process into one that has never attached: drops
// the inherited mapping, so that its own detach can tell when it is the last.
void become_unattached();

// Polls pred every millisecond for up to ms milliseconds; whether it came true.
bool await(const std::function<bool()>& pred, int ms = 5000);
// How many processes of the installation wait for the lock-file range of a shared word
// (their need entries name it); with pid, whether that process waits for anything.
int waiting_for(const volatile unsigned* word);
bool waiting(pid_t pid);
// Makes SIGUSR1 interrupt system calls (a handler without SA_RESTART), as a program that
// wants its lock waits to end sets it up.
void interrupting_usr1();
// Sends SIGUSR1 to pid every 10 ms until it has ended (a signal that comes before its
// wait has begun is lost); its exit status, or 1000 + status when it had to be killed
// after `seconds`.
int interrupt_until_done(pid_t pid, int seconds = 60);
// Zeroed memory shared with the children forked after it (MAP_SHARED); never null.
void* shared_memory(size_t n);

// The structural checker's verdict on a closed file.
::testing::AssertionResult sound(const std::string& file);

// A file's bytes ("" when it cannot be read); a file made anew with the given bytes and mode.
std::string slurp(const std::string& path);
void spit(const std::string& path, const std::string& bytes, mode_t mode = 0600);

// For the OS-layer hooks that pick out one file: the path an open descriptor names (""
// when it cannot be told), and whether it is a redo log (its name ends in ".w0").
std::string fd_path(int fd);
bool is_log_fd(int fd);
// The absolute path with no link in it, as fd_path gives it ("" when there is no such file).
std::string real_path(const std::string& path);
// Puts the file open at fd back to `was` as a disk that drops what it had not written
// does when a sync fails: its bytes as they were, anything past them zeros.
void drop_unwritten(int fd, const std::string& was);

// A test with its own installation (configuration c, made by start(); SetUp makes the
// default one), its children and a bound on its time.  At the end it kills and reaps
// every child still held, detaches, and removes the segment with the directory.
class Env : public ::testing::Test {
protected:
    void start(const Config& c = Config(), bool lock_file = true) {
        inst_ = std::make_unique<Installation>(c, lock_file);
    }
    void SetUp() override { start(); }
    void TearDown() override;
    std::string path(const std::string& name) const { return inst_->path(name); }
    std::string lock() const { return inst_->config_path() + ".lk"; }
    // Creates a file with the given key lengths and returns its descriptor.
    int create(const std::string& name, std::vector<int> lens) {
        return niscreate(path(name).c_str(), static_cast<int>(lens.size()), lens.data());
    }
    // Creates the file, closes it and detaches (no segment left); its path.
    std::string made(const std::string& name, std::vector<int> lens);
    // Runs fn in a child that, once fn returned 0, stays until it is killed; returns its
    // pid when fn is done (fn's failure ends the child with fn's code).
    pid_t hold(const std::function<int()>& fn);
    // Kills a child with SIGKILL; expects it to die by it.
    void kill(pid_t pid);
    // Starts fn(0) .. fn(n - 1) in n children at once; their pids.
    static std::vector<pid_t> spawn(int n, const std::function<int(int)>& fn);
    // Runs fn(0) .. fn(n - 1) in n children at once; their exit statuses.
    static std::vector<int> workers(int n, const std::function<int(int)>& fn);
    // The test ends by SIGALRM after `seconds` (0: no bound), a hang being a failure.
    void bound(unsigned seconds);
    // A T in memory shared with the children forked after it, value-initialized; it
    // goes (without its destructor) at the end of the test.
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

// Sets KISAM_DURABLE for the life of a scope (read at start-up).
struct Durable {
    explicit Durable(const char* v = "1") { ::setenv("KISAM_DURABLE", v, 1); }
    ~Durable() { ::unsetenv("KISAM_DURABLE"); }
};

// Seed for randomized tests: KISAM_SEED from the environment, else a fixed default.
// The seed is printed so that a failure can be replayed.
uint64_t test_seed(uint64_t fallback);

// A 32-bit mix of two numbers, for records whose contents follow from (id, generation):
// a reader checks what it got without a copy of what was written.
inline uint32_t mix(uint32_t a, uint32_t b) {
    const uint64_t x = (static_cast<uint64_t>(a) << 32 | b) * 0x9E3779B97F4A7C15ull;
    return static_cast<uint32_t>(x >> 29);
}

}  // namespace kt
