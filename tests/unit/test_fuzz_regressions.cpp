// Replays the fuzzers' seeds and every kept finding (fuzz/regressions)
// through the same entry points the fuzz targets use, so an ordinary
// sanitizer build catches a regression without libFuzzer.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../../fuzz/fuzz_inputs.h"
#include "main.h"
#include "test_env.h"

namespace
{

namespace fs = std::filesystem;

fs::path fuzzDir()
{
    const char *srcDir = getenv("TAVEL_SOURCE_DIR");
    if (srcDir != nullptr && srcDir[0] != '\0') {
        return fs::path(srcDir) / "fuzz";
    }
    return fs::path(__FILE__).parent_path() / ".." / ".." / "fuzz";
}

struct Input {
    std::string name;
    std::vector<uint8_t> bytes;
};

std::vector<Input> inputsOf(const fs::path &dir)
{
    std::vector<Input> out;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(dir, ec)) {
        // Dot files only keep empty directories in version control.
        if (!entry.is_regular_file() || entry.path().filename().string()[0] == '.') {
            continue;
        }
        std::ifstream in(entry.path(), std::ios::binary);
        out.push_back(Input{entry.path().filename().string(),
                            std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {})});
    }
    return out;
}

using Entry = bool (*)(const uint8_t *, size_t);

// Every seed and every finding of the target must pass its checks; returns
// how many findings were replayed.
size_t replay(const std::string &target, Entry entry)
{
    std::vector<Input> seeds = inputsOf(fuzzDir() / "corpus" / target);
    std::vector<Input> findings = inputsOf(fuzzDir() / "regressions" / target);
    EXPECT_FALSE(seeds.empty()) << "no seeds for " << target << " under " << fuzzDir();
    testing::internal::CaptureStdout(); // the debug commands print
    for (const std::vector<Input> *set : {&seeds, &findings}) {
        for (const Input &in : *set) {
            tavelTestCleanRoot();
            EXPECT_TRUE(entry(in.bytes.data(), in.bytes.size())) << target << ": " << in.name;
        }
    }
    testing::internal::GetCapturedStdout();
    return findings.size();
}

} // namespace

TEST(FuzzRegressions, ReplyHeaders)
{
    replay("headers", tavel_fuzz::runHeaders);
}

TEST(FuzzRegressions, TimezoneHeader)
{
    replay("timezone_header", tavel_fuzz::runTimezoneHeader);
}

TEST(FuzzRegressions, TimezoneMapping)
{
    replay("timezone_mapping", tavel_fuzz::runTimezoneMapping);
}

TEST(FuzzRegressions, BusSignals)
{
    replay("signals", tavel_fuzz::runSignals);
    EXPECT_EQ(g_tavelCtrl.statusUpdatePending, 0);
    EXPECT_EQ(g_statusRetryPending, 0);
}

TEST(FuzzRegressions, DataModelStore)
{
    // A country code starting with a NUL byte once came back as an empty code.
    EXPECT_GE(replay("store", tavel_fuzz::runStore), 1u);
}
