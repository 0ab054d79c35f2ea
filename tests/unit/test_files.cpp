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
    // A tree deeper than the walk goes is refused, with the reason.
    std::string deep = "/deep";
    for (int level = 0; level < 40; ++level) {
        deep += "/d";
    }
    ASSERT_EQ(tavel_makeDirs(deep.c_str()), 0);
    EXPECT_EQ(tavel_remove("/deep", true), -1);
    EXPECT_TRUE(tavelTestLogHas("error", "cannot remove " + tavelTestPath("/deep") +
                                             ": Too many levels of symbolic links"));

    // Failures say which path, and why.
    EXPECT_EQ(tavel_touch("/a/none/marker"), -1);
    EXPECT_EQ(tavel_writeFile("/a/none/code", "US\n", 3), -1);
    EXPECT_TRUE(tavelTestLogHas("error", "cannot create marker " + tavelTestPath("/a/none/marker") +
                                             ": No such file or directory"));
    EXPECT_TRUE(tavelTestLogHas("error", "cannot write " + tavelTestPath("/a/none/code") +
                                             ": No such file or directory"));
    EXPECT_TRUE(tavelTestLogHas("error", "cannot create directory " + tavelTestPath("/a/file/d") +
                                             ": Not a directory"));
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

// Another module's lock on a shared file is waited for, but not for ever.
TEST(LockFile, WaitsForAHolderUpToTheLimit)
{
    tavelTestCleanRoot();
    tavelTestWriteFile("/shared", "x");
    const std::string path = tavelTestPath("/shared");
    FdGuard holder(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    FdGuard waiter(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);

    auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(tavel_lockFile(waiter.get(), path.c_str(), 300), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_TRUE(
        tavelTestLogHas("error", "lock of " + path + " still held by another after 300 ms: given up"));

    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        flock(holder.get(), LOCK_UN);
    });
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(tavel_lockFile(waiter.get(), path.c_str(), 5000), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    release.join();
    EXPECT_NE(flock(holder.get(), LOCK_EX | LOCK_NB), 0) << "the waiter holds the lock now";
}

// A directory of the tree swapped for a link to elsewhere while the removal
// walks it: the removal never reaches through the link.
TEST(DeviceFiles, RemovalNeverFollowsALinkSwappedInMidWalk)
{
    tavelTestCleanRoot();
    const std::string victim = tavelTestPath("/victim");
    const std::string sub = victim + "/sub";
    const std::string alt = victim + "/alt";
    for (int i = 0; i < 40; ++i) {
        tavelTestWriteFile("/outside/keep" + std::to_string(i), "k");
    }
    for (int round = 0; round < 150; ++round) {
        for (int i = 0; i < 40; ++i) {
            tavelTestWriteFile("/victim/sub/keep" + std::to_string(i), "x");
        }
        ASSERT_EQ(symlink(tavelTestPath("/outside").c_str(), alt.c_str()), 0);
        std::atomic<bool> done{false};
        std::thread swapper([&] {
            for (int n = 0; n < 1000000 && !done; ++n) {
                renameat2(AT_FDCWD, sub.c_str(), AT_FDCWD, alt.c_str(), RENAME_EXCHANGE);
            }
        });
        tavel_remove("/victim", true); // may fail: the swapper keeps the tree changing
        done = true;
        swapper.join();
        std::filesystem::remove_all(victim);
        for (int i = 0; i < 40; ++i) {
            ASSERT_TRUE(tavelTestExists("/outside/keep" + std::to_string(i))) << "round " << round;
        }
    }
}
