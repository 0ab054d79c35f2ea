#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

#include "dml.h"
#include "store.h"
#include "test_env.h"

using tavel::dml::Change;
using tavel::dml::Store;
using tavel::dml::UpdateResult;

namespace
{

using StoreParse = TavelRootTest;
using StoreUpdate = TavelRootTest;
using StoreRobust = TavelRootTest;
using StoreAtomic = TavelRootTest;
using StoreCache = TavelRootTest;

UpdateResult set(const std::string &name, const std::string &value)
{
    std::string error;
    return tavel::dml::update({Change{name, value}}, nullptr, &error);
}

std::vector<std::string> dirEntries(const std::string &dir)
{
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir)) {
        names.push_back(e.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(StoreParse, ReadsNameValueLinesAndSkipsCommentsAndMalformedLines)
{
    static const char text[] = "# A=from a comment\n"
                               "\n"
                               "A=1\n"
                               "B==x=y\n"
                               "no equals sign here\n"
                               "=orphan value\n"
                               "bad name=x\n"
                               "Nul\0Name=x\n"
                               "Bin=va\0lue\xff\n"
                               "A=second\n"
                               "Empty=\n"
                               "Last=tail";
    writeStore(std::string(text, sizeof(text) - 1));
    Store store;
    std::string error;
    ASSERT_TRUE(store.load(&error)) << error;
    EXPECT_EQ(store.get("A"), "1"); // the first line of a name wins
    EXPECT_EQ(store.get("B"), "=x=y");
    EXPECT_EQ(store.get("Bin"), std::string("va\0lue\xff", 7));
    EXPECT_EQ(store.get("Last"), "tail");
    EXPECT_TRUE(store.has("Empty"));
    EXPECT_FALSE(store.has("bad name"));
    EXPECT_FALSE(store.has("Nul"));
    EXPECT_FALSE(store.has(""));
    EXPECT_FALSE(store.has("Missing"));
    EXPECT_EQ(store.get("Missing"), "");

    std::vector<std::string> names;
    for (const tavel::dml::Param &p : store.params()) {
        names.emplace_back(p.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "Bin", "A", "Empty", "Last"}));
}

TEST_F(StoreParse, ControlBytesAndBackslashesRoundTripOnOneLine)
{
    const std::string value = "a\\b\r\nc\td\\n";
    ASSERT_EQ(set("K", value), UpdateResult::Ok);
    EXPECT_EQ(readStore(), "K=a\\\\b\\r\\nc\\td\\\\n\n");
    Store store;
    ASSERT_TRUE(store.load(nullptr));
    EXPECT_EQ(store.get("K"), value);

    // Hand-written values with escapes the store does not know keep both
    // bytes, a trailing backslash included.
    EXPECT_EQ(tavel::dml::decodeValue("C:\\dir\\x\\"), "C:\\dir\\x\\");
    EXPECT_EQ(tavel::dml::decodeValue("\\\\n\\n"), "\\n\n");
}

TEST_F(StoreUpdate, KeepsEveryOtherLineAndAppendsNewParameters)
{
    writeStore("# device defaults\n"
               "A=1\n"
               "\n"
               "garbage line\n"
               "B=2\n"
               "A=shadowed\n"
               "# end\n"
               "C=3");
    std::string error;
    ASSERT_EQ(
        tavel::dml::update({Change{"B", "two"}, Change{"New", "x\ty"}, Change{"C", "3"}}, nullptr, &error),
        UpdateResult::Ok)
        << error;
    EXPECT_EQ(readStore(), "# device defaults\n"
                           "A=1\n"
                           "\n"
                           "garbage line\n"
                           "B=two\n"
                           "A=shadowed\n"
                           "# end\n"
                           "C=3\n"
                           "New=x\\ty\n");

    ASSERT_EQ(tavel::dml::update({Change{"A", "", true}}, nullptr, &error), UpdateResult::Ok);
    Store store;
    ASSERT_TRUE(store.load(nullptr));
    EXPECT_FALSE(store.has("A")); // unset removes the shadowed copy as well
    EXPECT_EQ(store.get("B"), "two");

    EXPECT_EQ(tavel::dml::update({Change{"bad name", "x"}}, nullptr, &error), UpdateResult::Error);
    EXPECT_EQ(tavel::dml::update({Change{"#A", "x"}}, nullptr, &error), UpdateResult::Error);
}

TEST_F(StoreUpdate, SameValueDoesNotRewriteTheFile)
{
    writeStore("A=1\n");
    struct stat before, after;
    ASSERT_EQ(stat(storeFile().c_str(), &before), 0);
    ASSERT_EQ(set("A", "1"), UpdateResult::Ok);
    ASSERT_EQ(stat(storeFile().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    ASSERT_EQ(set("A", "2"), UpdateResult::Ok);
    ASSERT_EQ(stat(storeFile().c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
}

TEST_F(StoreUpdate, FirstWriteCreatesTheStoreDirectoryPrivately)
{
    ASSERT_EQ(set("Device.X", "v"), UpdateResult::Ok);
    EXPECT_EQ(readStore(), "Device.X=v\n");
    struct stat st;
    ASSERT_EQ(stat(storeFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(StoreRobust, UnreadableStoreFailsReadsAndWrites)
{
    // A directory where the store belongs.
    ASSERT_EQ(mkdir((root_ + "/flash").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir().c_str(), 0755), 0);
    ASSERT_EQ(mkdir(storeFile().c_str(), 0755), 0);
    Store store;
    std::string error;
    EXPECT_FALSE(store.load(&error));
    EXPECT_NE(error.find("datamodel.conf"), std::string::npos) << error;
    EXPECT_EQ(set("A", "1"), UpdateResult::Error);
    struct stat st;
    ASSERT_EQ(stat(storeFile().c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));

    // A regular file where a directory of the path belongs.
    ASSERT_EQ(rmdir(storeFile().c_str()), 0);
    ASSERT_EQ(unlink((storeFile() + ".lock").c_str()), 0);
    ASSERT_EQ(rmdir(dir().c_str()), 0);
    {
        std::ofstream(dir()) << "x";
    }
    EXPECT_FALSE(store.load(&error));
    EXPECT_EQ(set("A", "1"), UpdateResult::Error);

    // Larger than the store may grow: refused without reading it.
    ASSERT_EQ(unlink(dir().c_str()), 0);
    writeStore("A=1\n");
    ASSERT_EQ(truncate(storeFile().c_str(), static_cast<off_t>(tavel::dml::kMaxStoreSize + 1)), 0);
    EXPECT_FALSE(store.load(&error));
    EXPECT_NE(error.find("too large"), std::string::npos) << error;

    if (geteuid() != 0) {
        writeStore("A=1\n");
        ASSERT_EQ(chmod(storeFile().c_str(), 0), 0);
        EXPECT_FALSE(store.load(&error));
        EXPECT_EQ(set("A", "2"), UpdateResult::Error);
    }
}

TEST_F(StoreRobust, HundredThousandLinesAndAMegabyteValueStayFast)
{
    std::string text;
    for (int i = 0; i < 100000; ++i) {
        text += "Device.Param" + std::to_string(i) + "=value " + std::to_string(i) + "\n";
    }
    const std::string big(1 << 20, 'x');
    text += "Big=" + big + "\n";
    writeStore(text);

    auto start = std::chrono::steady_clock::now();
    Store store;
    ASSERT_TRUE(store.load(nullptr));
    EXPECT_EQ(store.get("Device.Param99999"), "value 99999");
    EXPECT_EQ(store.get("Big"), big);
    std::string error;
    ASSERT_EQ(
        tavel::dml::update({Change{"Device.Param50000", "changed"}, Change{"Added", "1"}}, nullptr, &error),
        UpdateResult::Ok)
        << error;
    ASSERT_TRUE(store.load(nullptr));
    auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_EQ(store.get("Device.Param50000"), "changed");
    EXPECT_EQ(store.get("Added"), "1");
    EXPECT_EQ(store.params().size(), 100002u);
    // Linear work stays well below this even in sanitizer builds.
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 2000);
}

TEST_F(StoreAtomic, FailedWriteLeavesTheOldStoreByteIdentical)
{
    const std::string old = "# keep me\nA=1\nB=2\n";
    writeStore(old);
    // A file-size limit makes every write past 4 KiB fail as on a full disk.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit;
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = 4096;
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(set("A", std::string(65536, 'y')) == UpdateResult::Error ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the update did not report the failed write";
    EXPECT_EQ(readStore(), old);
    EXPECT_EQ(dirEntries(dir()), (std::vector<std::string>{"datamodel.conf", "datamodel.conf.lock"}));
}

TEST_F(StoreAtomic, ConcurrentWritersNeitherTearTheFileNorLoseUpdates)
{
    constexpr int kWriters = 4;
    constexpr int kRounds = 40;
    writeStore("# header\nSentinel=ok\n");
    const std::string padding(8192, 'p');

    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            bool ok = true;
            std::string error;
            for (int r = 0; r < kRounds; ++r) {
                ok =
                    ok && tavel::dml::update({Change{"W" + std::to_string(w), std::to_string(r)},
                                              Change{"Pad" + std::to_string(w), padding + std::to_string(r)}},
                                             nullptr, &error) == UpdateResult::Ok;
            }
            _exit(ok ? 0 : 1);
        }
        children.push_back(child);
    }

    // Meanwhile every snapshot a reader sees must be a whole file.
    std::vector<int> statuses(children.size(), -1);
    int torn = 0;
    int snapshots = 0;
    for (size_t left = children.size(); left > 0;) {
        Store store;
        ASSERT_TRUE(store.load(nullptr));
        ++snapshots;
        const std::string &text = store.contents();
        if (text.compare(0, 21, "# header\nSentinel=ok\n") != 0 || text.back() != '\n' ||
            std::count(text.begin(), text.end(), '\n') != 1 + static_cast<long>(store.params().size())) {
            ++torn;
        }
        for (size_t i = 0; i < children.size(); ++i) {
            int status = 0;
            if (statuses[i] == -1 && waitpid(children[i], &status, WNOHANG) == children[i]) {
                statuses[i] = status;
                --left;
            }
        }
    }
    for (int status : statuses) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(torn, 0) << "of " << snapshots << " snapshots";

    Store store;
    ASSERT_TRUE(store.load(nullptr));
    for (int w = 0; w < kWriters; ++w) {
        EXPECT_EQ(store.get("W" + std::to_string(w)), std::to_string(kRounds - 1));
        EXPECT_EQ(store.get("Pad" + std::to_string(w)), padding + std::to_string(kRounds - 1));
    }
    EXPECT_EQ(store.get("Sentinel"), "ok");
}

std::string cachedGet(const std::string &name)
{
    std::string error;
    tavel::dml::CachedStore store(&error);
    return store.ok() ? store->get(name) : "error: " + error;
}

struct timespec mtimeOf(const std::string &path)
{
    struct stat st {
    };
    stat(path.c_str(), &st);
    return st.st_mtim;
}

void setMtime(const std::string &path, struct timespec t)
{
    const struct timespec times[2] = {t, t};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

void inPlace(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

const struct timespec kOld = {1500000000, 100};

// Outside writers that keep the size, each leaving as little of the file's
// identity changed as it can.
TEST_F(StoreCache, ReadsSeeOutsideWritesThatKeepSizeAndSecond)
{
    const std::string path = storeFile();
    struct Writer {
        const char *what;
        bool oldFile; // the file read first was last changed long ago
        std::function<void()> write;
    };
    const Writer writers[] = {
        {"replaced, other nanoseconds", true,
         [&] {
             std::ofstream(path + ".new") << "A=2\n";
             setMtime(path + ".new", {kOld.tv_sec, kOld.tv_nsec + 1});
             ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
         }},
        {"in place, other nanoseconds", true,
         [&] {
             inPlace(path, "A=2\n");
             setMtime(path, {kOld.tv_sec, kOld.tv_nsec + 2});
         }},
        {"in place, the same time as the read file (within one clock tick)", false,
         [&] {
             struct timespec t = mtimeOf(path);
             inPlace(path, "A=2\n");
             setMtime(path, t);
         }},
    };
    for (const auto &[what, oldFile, write] : writers) {
        writeStore("A=1\n");
        if (oldFile) {
            setMtime(path, kOld);
        }
        EXPECT_EQ(cachedGet("A"), "1") << what;
        write();
        EXPECT_EQ(cachedGet("A"), "2") << what;
    }
}

TEST_F(StoreCache, UpdatesWorkOnTheFileAndReleaseDropsTheParse)
{
    const std::string path = storeFile();
    writeStore("A=1\nB=1\n");
    setMtime(path, kOld);
    EXPECT_EQ(cachedGet("A"), "1");
    // An outside write the parse has not seen survives an update.
    inPlace(path, "A=1\nB=2\n");
    setMtime(path, {kOld.tv_sec, kOld.tv_nsec + 1});
    ASSERT_EQ(set("C", "3"), UpdateResult::Ok);
    EXPECT_EQ(readStore(), "A=1\nB=2\nC=3\n");
    // The parse the update kept follows its own edits: later lines shift.
    ASSERT_EQ(set("A", "longer"), UpdateResult::Ok);
    EXPECT_EQ(cachedGet("B"), "2");
    EXPECT_EQ(cachedGet("C"), "3");

    // A file last changed long ago is known by its identity alone: a
    // rewrite that keeps all of it is not seen until the parse is dropped.
    inPlace(path, "A=longer\nB=7\nC=3\n");
    setMtime(path, kOld);
    EXPECT_EQ(cachedGet("B"), "7");
    inPlace(path, "A=longer\nB=8\nC=3\n");
    setMtime(path, kOld);
    EXPECT_EQ(cachedGet("B"), "7");
    dml_releaseCache();
    EXPECT_EQ(cachedGet("B"), "8");
}

} // namespace
