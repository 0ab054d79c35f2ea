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
    const char *missing[] = {"tavel-no-such-command", nullptr};
    EXPECT_EQ(tavel_spawn(missing), -1);
}
