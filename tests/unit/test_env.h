/* util.cpp reads TAVEL_ROOT once per process, so the whole unit-test binary runs under one
 * temporary root, which tests that touch device paths empty first (tavelTestCleanRoot()).
 * TAVEL_TIME_SCALE 1000, unless set, turns the agent's waits into milliseconds. */
#ifndef TAVEL_TEST_ENV_H
#define TAVEL_TEST_ENV_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "cfgm_intf.h"
#include "dml.h"
#include "files.h"
#include "main.h"
#include "process.h"
#include "reply_fields.h"
#include "tavel_curl.h"
#include "tavel_externalinft.h"
#include "tavel_signal.h"
#include "util.h"

using namespace std::string_literals;

inline const std::string &tavelTestRoot()
{
    static char dir[] = "/tmp/tavel-unit-XXXXXX";
    static const std::string root = [] {
        if (mkdtemp(dir) == nullptr) {
            abort(); /* never run tests against the real device paths */
        }
        setenv("TAVEL_ROOT", dir, 1);
        setenv("TAVEL_TIME_SCALE", "1000", 0);
        /* At exit, so that listing the tests leaves no root behind either;
         * only by its maker, not by a death test's child leaving by exit(). */
        static const pid_t owner = getpid();
        atexit([] {
            std::error_code ec;
            if (getpid() == owner) {
                std::filesystem::remove_all(dir, ec);
            }
        });
        return std::string(dir);
    }();
    return root;
}

/* In place during static initialisation, before anything can read TAVEL_ROOT. */
inline const bool g_tavelTestRootReady = !tavelTestRoot().empty();

inline const std::string kTavelTestStore =
    "/flash/dml/datamodel.conf"; // the dml stand-in's file (sim builds)

inline std::string tavelTestPath(const std::string &devicePath)
{
    return tavelTestRoot() + devicePath;
}

/* Removes everything under the root, leaving the root itself. */
inline void tavelTestCleanRoot()
{
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(tavelTestRoot(), ec)) {
        std::filesystem::remove_all(entry.path(), ec);
    }
}

inline void tavelTestWriteFile(const std::string &devicePath, const std::string &content)
{
    std::string path = tavelTestPath(devicePath);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string tavelTestSlurp(const std::string &path) // "" when absent
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
inline std::string tavelTestReadFile(const std::string &devicePath)
{
    return tavelTestSlurp(tavelTestPath(devicePath));
}

inline bool tavelTestExists(const std::string &devicePath)
{
    return access(tavelTestPath(devicePath).c_str(), F_OK) == 0;
}

inline std::string tavelTestLog()
{
    return tavelTestReadFile("/var/log/tavel.log");
}

/* A record of the level ("debug", "notice", "error") whose text after the
 * agent's log prefix is exactly text (without the message's line feed). */
inline bool tavelTestLogHas(const std::string &level, const std::string &text)
{
    std::istringstream in(tavelTestLog());
    const std::string head = level + " tavel: [", tail = "] " + text;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(head, 0) == 0 && line.size() >= tail.size() &&
            line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
            return true;
        }
    }
    return false;
}

inline int tavelTestCount(const std::string &s, const std::string &text)
{
    int n = 0;
    for (size_t pos = s.find(text); pos != std::string::npos; pos = s.find(text, pos + text.size())) {
        ++n;
    }
    return n;
}

/* Unterminated, of exactly their size, as libcurl and the bus hand data over:
 * the sanitizer builds catch a read past the end. */
inline std::unique_ptr<char[]> tavelTestBlock(const std::string &bytes)
{
    std::unique_ptr<char[]> block(new char[bytes.size()]);
    memcpy(block.get(), bytes.data(), bytes.size());
    return block;
}

/* The state of a fresh reply: every received value empty, under the test root. */
inline void tavelTestFreshReply()
{
    ASSERT_STREQ(tavel_root(), tavelTestRoot().c_str()) << "TAVEL_ROOT must be in place before the state";
    tavel_resetServerData();
}

#endif
