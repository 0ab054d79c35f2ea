#include "test_env.h"

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
}

// A command past its limit goes with everything it started, and is reaped;
// every failure is logged with the command.
TEST(Spawn, KillsAHungCommandWithItsChildrenAndLogsEveryFailure)
{
    tavelTestCleanRoot();
    const std::string pidFile = tavelTestPath("/grandchild");
    const std::string script = "sleep 30 & echo $! > " + pidFile + "; wait";
    const char *hung[] = {"sh", "-c", script.c_str(), nullptr};
    const auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(tavel_spawn(hung, 300), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(300));
    EXPECT_LT(took, std::chrono::seconds(3));
    EXPECT_TRUE(tavelTestLogHas("error", "'sh -c " + script + "' still running after 300 ms: killed"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left unreaped";
    const pid_t grandchild = std::stoi(tavelTestReadFile("/grandchild"));
    // Killed with its parent; once orphaned, init reaps it.
    bool gone = false;
    for (int i = 0; i < 200 && !gone; ++i) {
        std::string stat = tavelTestSlurp("/proc/" + std::to_string(grandchild) + "/stat");
        gone = stat.empty() || stat.find(") Z ") != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(gone) << "the command's own child outlived it";

    const char *failing[] = {"sh", "-c", "exit 3", nullptr};
    const char *missing[] = {"tavel-no-such-command", nullptr};
    int rc = tavel_spawn(failing);
    EXPECT_TRUE(WIFEXITED(rc) && WEXITSTATUS(rc) == 3);
    EXPECT_EQ(tavel_spawn(missing), -1);
    EXPECT_TRUE(tavelTestLogHas("notice", "'sh -c exit 3' exited with status 3"));
    EXPECT_TRUE(tavelTestLogHas("error", "cannot run 'tavel-no-such-command': No such file or directory"));
}
