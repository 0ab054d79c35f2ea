#include "test_env.h"

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
                const auto now = std::chrono::system_clock::now().time_since_epoch();
                std::ofstream(tavelTestPath("/ended"))
                    << std::fixed << std::chrono::duration<double>(now).count();
                tavel_transferEnd();
            }).detach();
            exitTavel();
        },
        ::testing::ExitedWithCode(0), "");
    ASSERT_TRUE(tavelTestExists("/ended")) << "exited before the transfer ended";
    EXPECT_GE(std::stod(tavelTestReadFile("/fw.time")), std::stod(tavelTestReadFile("/ended")))
        << "the rules went under the transfer";
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
    EXPECT_TRUE(
        tavelTestLogHas("error", "1 transfer(s) still in flight after 10 s: abandoned, exiting regardless"));
    EXPECT_TRUE(tavelTestLogHas("error", "stopped by signal 15 !!!!"));
    EXPECT_EQ(tavelTestReadFile("/fw.log"), removed + removed);
}

// A record names the function, the file and the line in front of the message,
// whatever the message's length: one that does not fit the line buffer is
// formatted again on the heap, and nothing of it is lost at the edge.
TEST(Log, EveryRecordCarriesItsPrefixAndTheWholeMessage)
{
    tavelTestCleanRoot();
    auto logAt = [](size_t length) {
        TAVEL_LOG_AS(dmlLogError, "caller", "<%s>", std::string(length, 'x').c_str());
        return __LINE__ - 1;
    };
    const std::string head = "error tavel: [caller test_util.cpp:" + std::to_string(logAt(0)) + "] ";
    std::string expected = head + "<>\n";
    // Lines around the 256-byte buffer (prefix and terminator included); a
    // cut one would lose its '>' (the log adds the line feed itself).
    const size_t prefix = head.size() - strlen("error ");
    for (size_t total : {254, 255, 256, 257, 5000}) {
        logAt(total - prefix - 2);
        expected += head + "<" + std::string(total - prefix - 2, 'x') + ">\n";
    }
    TAVEL_LOGN("notice %d of %s\n", 2, "levels");
    const int noticeLine = __LINE__ - 1;
    expected +=
        "notice tavel: [TestBody test_util.cpp:" + std::to_string(noticeLine) + "] notice 2 of levels\n";
    EXPECT_EQ(tavelTestLog(), expected);
}
