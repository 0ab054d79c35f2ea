#include "test_env.h"

// The same effects as mkdir -p, touch, rm, rm -rf and "> file".
TEST(DeviceFiles, HaveTheShellCommandsEffects)
{
    tavelTestCleanRoot();
    ASSERT_EQ(tavel_makeDirs("/a/b/c"), 0);
    EXPECT_EQ(tavel_makeDirs("/a/b/c"), 0) << "existing directories are no error";
    tavelTestWriteFile("/a/file", "x");
    EXPECT_EQ(tavel_makeDirs("/a/file/d"), -1) << "a file in the way is";

    const std::string marker = tavelTestPath("/a/b/c/marker");
    ASSERT_EQ(tavel_touch("/a/b/c/marker"), 0);
    EXPECT_TRUE(tavelTestExists("/a/b/c/marker"));
    struct timespec old[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, marker.c_str(), old, 0), 0);
    tavelTestWriteFile("/a/b/c/marker", "kept");
    ASSERT_EQ(utimensat(AT_FDCWD, marker.c_str(), old, 0), 0);
    ASSERT_EQ(tavel_touch("/a/b/c/marker"), 0);
    struct stat st;
    ASSERT_EQ(stat(marker.c_str(), &st), 0);
    EXPECT_GT(st.st_mtime, 1000) << "touch renews the time";
    EXPECT_EQ(tavelTestReadFile("/a/b/c/marker"), "kept") << "and keeps the content";

    ASSERT_EQ(tavel_writeFile("/a/b/c/marker", "US\n", 3), 0);
    EXPECT_EQ(tavelTestReadFile("/a/b/c/marker"), "US\n");

    EXPECT_EQ(tavel_remove("/a/missing", false), 0) << "a missing file is not an error";
    EXPECT_EQ(tavel_remove("/a/b", false), -1) << "rm leaves a directory alone";
    EXPECT_TRUE(tavelTestExists("/a/b/c/marker"));
    EXPECT_EQ(tavel_remove("/a/b", true), 0);
    EXPECT_FALSE(tavelTestExists("/a/b"));
    EXPECT_EQ(tavel_remove("/a/file", false), 0);
    EXPECT_FALSE(tavelTestExists("/a/file"));
}

TEST(OpenRegular, RefusesWhatCouldStallOrFloodTheAgent)
{
    tavelTestCleanRoot();
    tavelTestWriteFile("/f", "12345");
    const std::string dir = tavelTestPath("/d");
    const std::string fifo = tavelTestPath("/p");
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    int fd = tavel_openRegular(tavelTestPath("/f").c_str(), 5);
    EXPECT_GE(fd, 0);
    FdGuard guard(fd);
    const struct {
        std::string path;
        size_t max;
        int err;
    } cases[] = {
        {tavelTestPath("/f"), 4, EFBIG},
        {dir, 1 << 20, EINVAL},
        {fifo, 1 << 20, EINVAL},
        {"/dev/zero", 1 << 20, EINVAL},
        {tavelTestPath("/none"), 1 << 20, ENOENT},
    };
    for (const auto &c : cases) {
        errno = 0;
        EXPECT_EQ(tavel_openRegular(c.path.c_str(), c.max), -1) << c.path;
        EXPECT_EQ(errno, c.err) << c.path;
    }
}

// Commands run without a shell: arguments reach the program as they are,
// and the child does not inherit the agent's blocked signals.
TEST(Spawn, PassesArgumentsVerbatimWithSignalsUnblocked)
{
    tavelTestCleanRoot();
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &set, &old);
    const std::string out = tavelTestPath("/out");
    const std::string script = "printf '%s|' \"$@\" > " + out;
    const char *argv[] = {"sh", "-c", script.c_str(), "sh", "a b", "$(x)", ";", nullptr};
    // cp copies its own status: its blocked signals as it started (a shell
    // would reset them itself).
    const std::string status = tavelTestPath("/status");
    const char *copy[] = {"cp", "/proc/self/status", status.c_str(), nullptr};
    int rcArgs = tavel_spawn(argv);
    int rcCopy = tavel_spawn(copy);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    ASSERT_TRUE(WIFEXITED(rcArgs) && WIFEXITED(rcCopy));
    EXPECT_EQ(WEXITSTATUS(rcArgs) | WEXITSTATUS(rcCopy), 0);
    EXPECT_EQ(tavelTestReadFile("/out"), "a b|$(x)|;|");
    const std::string text = tavelTestReadFile("/status");
    size_t at = text.find("SigBlk:");
    ASSERT_NE(at, std::string::npos) << text;
    unsigned long long blocked = strtoull(text.c_str() + at + strlen("SigBlk:"), nullptr, 16);
    EXPECT_EQ(blocked & (1ULL << (SIGTERM - 1)), 0u) << "the child started with SIGTERM blocked";
    const char *missing[] = {"tavel-no-such-command", nullptr};
    EXPECT_EQ(tavel_spawn(missing), -1);
}

// The lock nests per thread and keeps others out; a stray unlock must not
// unbalance the next lock.
TEST(AgentLock, NestsExcludesAndIgnoresAStrayUnlock)
{
    tavel_agentUnlock();
    tavel_agentLock();
    tavel_agentLock();
    std::atomic<bool> entered{false};
    std::thread other([&] {
        AgentLockGuard guard;
        entered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(entered) << "another thread entered while the lock was held";
    int depth = tavel_agentLockRelease();
    EXPECT_EQ(depth, 2);
    other.join();
    EXPECT_TRUE(entered);
    tavel_agentLockRestore(depth);
    tavel_agentUnlock();
    EXPECT_EQ(tavel_agentLockRelease(), 1);
    EXPECT_EQ(tavel_agentLockRelease(), 0);
}

// The exit removes the rules and ends with 0, after a transfer in flight:
// waited out when done (a stop looked for each second), 10 s at most on a stop.
TEST(Exit, WaitsOutATransferWhenDoneAndTenSecondsAtMostWhenStopped)
{
    tavelTestCleanRoot();
    const std::string fw = tavelTestPath("/fw");
    tavelTestWriteFile("/bin/iptables",
                       "#!/bin/sh\ndate +%s.%N >" + fw + ".time\necho \"$*\" >>" + fw + ".log\n");
    chmod(tavelTestPath("/bin/iptables").c_str(), 0755);
    setenv("PATH", (tavelTestPath("/bin") + ":" + getenv("PATH")).c_str(), 1);
    const std::string removed =
        "-D INPUT_FW_LEVEL -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT\n"
        "-D INPUT_WAN_REMOTE_ACCESS -p tcp -m tcp --sport 443 --dport 47777:47780 -j ACCEPT\n";
    EXPECT_EXIT(
        {
            alarm(10); // a wait that never ends fails instead of hanging
            tavel_transferBegin();
            std::thread([] {
                std::this_thread::sleep_for(std::chrono::milliseconds(2500));
                tavelTestWriteFile("/ended", "");
                tavel_transferEnd();
            }).detach();
            exitTavel();
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(tavelTestExists("/ended")) << "exited before the transfer ended";
    EXPECT_EQ(tavelTestReadFile("/fw.log"), removed);

    EXPECT_EXIT(
        {
            alarm(20);
            std::ofstream stopTime(tavelTestPath("/stop.time")); // the root read before the timer thread runs
            initTimerSig();
            tavel_transferBegin(); // never ends
            const auto now = std::chrono::system_clock::now().time_since_epoch();
            stopTime << std::fixed << std::chrono::duration<double>(now).count() << std::flush;
            kill(getpid(), SIGTERM);
            for (;;) {
                pause();
            }
        },
        ::testing::ExitedWithCode(0), "");
    // Stop to rules removed: the sanitizers' slow start and exit stay out.
    const double seconds =
        std::stod(tavelTestReadFile("/fw.time")) - std::stod(tavelTestReadFile("/stop.time"));
    EXPECT_GE(seconds, 10.0);
    EXPECT_LT(seconds, 10.9);
    EXPECT_TRUE(tavelTestLogHas("error", "1 transfer(s) still in flight; exiting regardless"));
    EXPECT_TRUE(tavelTestLogHas("error", "stopped by signal 15 !!!!"));
    EXPECT_EQ(tavelTestReadFile("/fw.log"), removed + removed);
}
