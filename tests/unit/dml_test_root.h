// A fresh TAVEL_ROOT per test for the data-model store tests, so no test
// ever touches the device paths or sees another test's store.
#ifndef DML_TEST_ROOT_H
#define DML_TEST_ROOT_H

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace dmltest
{

class TavelRootTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const char *old = getenv("TAVEL_ROOT");
        hadRoot_ = old != nullptr;
        oldRoot_ = hadRoot_ ? old : "";
        std::string tmpl = ::testing::TempDir() + "tavel-dml-XXXXXX";
        ASSERT_NE(mkdtemp(&tmpl[0]), nullptr);
        root_ = tmpl;
        setenv("TAVEL_ROOT", root_.c_str(), 1);
    }

    void TearDown() override
    {
        if (hadRoot_) {
            setenv("TAVEL_ROOT", oldRoot_.c_str(), 1);
        } else {
            unsetenv("TAVEL_ROOT");
        }
        nftw(
            root_.c_str(),
            [](const char *path, const struct stat *, int, struct FTW *) { return remove(path); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }

    std::string dir() const { return root_ + "/flash/dml"; }
    std::string storeFile() const { return dir() + "/datamodel.conf"; }

    void writeStore(const std::string &text) const
    {
        mkdir((root_ + "/flash").c_str(), 0755);
        mkdir(dir().c_str(), 0755);
        std::ofstream out(storeFile(), std::ios::binary | std::ios::trunc);
        out << text;
        ASSERT_TRUE(out.good());
    }

    std::string readStore() const
    {
        std::ifstream in(storeFile(), std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string root_;

private:
    bool hadRoot_ = false;
    std::string oldRoot_;
};

} // namespace dmltest

#endif
