// The tool waiting for a lock that another process holds: it says whom it waits for,
// an interrupt stops it with nothing written and exit status 130, and a hangup that was
// ignored when it started ('nohup') stays ignored.
#include "tool_fixture.h"

#include <signal.h>

#include <chrono>
#include <thread>

namespace {

class ToolWait : public ToolInstallation {
protected:
    pid_t holder = -1;
    int holder_in = -1;

    void SetUp() override {
        ToolInstallation::SetUp();
        ASSERT_EQ(run({"config", "init", cfg, "--buffers", "32", "--files", "8", "--users", "8"}).rc, 0);
        ASSERT_EQ(run({"create", path("f"), "4"}).rc, 0);
    }
    void TearDown() override {
        release();
        ToolInstallation::TearDown();
    }

    void private_env() {
        for (auto [var, sub] : {std::pair{"HOME", "/home"}, {"HOME_Q9", "/q9"}, {"PROFILEQ9ENV", "/home/.Q9.profile"}})
            ::setenv(var, (dir + sub).c_str(), 1);
        ::setenv("KISCONFIG", cfg.c_str(), 1);
    }

    // Starts lock_holder on FILE and returns once it holds the file's control lock.
    void hold(const std::string& file) {
        int in[2], out[2];
        ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);  // the tools started later must not keep them
        ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
        std::fflush(nullptr);
        holder = ::fork();
        if (holder == 0) {
            private_env();
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            for (int f : {in[0], in[1], out[0], out[1]}) ::close(f);
            ::execl(LOCK_HOLDER_PATH, LOCK_HOLDER_PATH, file.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        holder_in = in[1];
        char buf[8] = {};
        ASSERT_EQ(::read(out[0], buf, 5), 5);
        ::close(out[0]);
        ASSERT_EQ(std::string(buf), "held\n");
    }
    // Lets the holder go and collects it.
    void release() {
        if (holder < 0) return;
        ::close(holder_in);
        int st = 0;
        while (::waitpid(holder, &st, 0) < 0 && errno == EINTR) {}
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "the holder failed";
        holder = -1;
    }

    // The tool with `args`, SIGHUP ignored when ignore_hup (as nohup starts it).
    pid_t start_tool(const std::vector<std::string>& args, bool ignore_hup) {
        std::vector<std::string> argv{KISAM_TOOL_PATH, "--config", cfg};
        argv.insert(argv.end(), args.begin(), args.end());
        ::unlink((dir + "/.err").c_str());  // what a command before it said is not its
        std::fflush(nullptr);
        pid_t pid = ::fork();
        if (pid == 0) {
            private_env();
            if (ignore_hup) ::signal(SIGHUP, SIG_IGN);
            exec_with(::open("/dev/null", O_RDONLY),
                      ::open((dir + "/.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666),
                      ::open((dir + "/.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666), argv);
        }
        return pid;
    }

    // Waits (up to 10 s) until the tool's standard error holds `text`.
    bool said(const std::string& text) {
        for (int i = 0; i < 1000; ++i) {
            if (has(slurp(dir + "/.err"), text)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    bool running(pid_t pid) {
        int st;
        return ::waitpid(pid, &st, WNOHANG) == 0;
    }

    std::string waiting_message() const {
        return "waiting for process " + std::to_string(holder) + " (holds the control lock of " + dir + "/f)";
    }
};

TEST_F(ToolWait, AnInterruptDuringAWaitStopsWithNothingWritten) {
    hold(path("f"));
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE("signal " + std::to_string(sig));
        pid_t pid = start_tool({"put", path("f"), "abcdRECORD"}, false);
        ASSERT_TRUE(said(waiting_message())) << slurp(dir + "/.err");
        ASSERT_TRUE(running(pid));
        const auto t0 = std::chrono::steady_clock::now();
        ::kill(pid, sig);
        Result r = finish(pid);
        const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_EQ(r.rc, 130) << r.err;
        EXPECT_TRUE(has(r.err, "kisam put: interrupted")) << r.err;
        EXPECT_LT(secs, 5.0) << "the interrupt waited for the holder";
    }
    release();
    Result r = run({"get", path("f"), "abcd"});
    EXPECT_EQ(r.out, "") << "a record was stored";
    EXPECT_EQ(r.rc, 1);
}

TEST_F(ToolWait, AHangupIgnoredAtTheStartStaysIgnored) {
    hold(path("f"));
    pid_t pid = start_tool({"put", path("f"), "abcdRECORD"}, true);
    ASSERT_TRUE(said(waiting_message())) << slurp(dir + "/.err");
    ::kill(pid, SIGHUP);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(running(pid)) << "a hangup ended a command that started with it ignored";
    release();
    Result r = finish(pid);
    EXPECT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(run({"get", path("f"), "abcd"}).out, "abcdRECORD\n");
}

}  // namespace
