// Test support for files: a fresh temporary directory per test, and whole-file helpers.
#ifndef UTL_TESTS_FILE_TEST_SUPPORT_H
#define UTL_TESTS_FILE_TEST_SUPPORT_H

#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

// A fresh directory under TMPDIR (or /tmp), removed with everything in it afterwards.
class TempDirTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/utlfile.XXXXXX";
        ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
        mDir = pattern;
    }
    void TearDown() override {
        nftw(
            mDir.c_str(),
            [](const char* p, const struct stat*, int, FTW*) { return chmod(p, 0700); }, 16,
            FTW_PHYS);
        nftw(
            mDir.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); },
            16, FTW_DEPTH | FTW_PHYS);
    }
    std::string path(const std::string& name) const { return mDir + "/" + name; }
    static void put(const std::string& file, const std::string& bytes) {
        std::ofstream(file, std::ios::binary) << bytes;
    }
    static std::string get(const std::string& file) {
        std::ostringstream s;
        s << std::ifstream(file, std::ios::binary).rdbuf();
        return s.str();
    }
    static int mode(const std::string& file) {
        struct stat info;
        return stat(file.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
    }
    std::string mDir;
};

#endif  // UTL_TESTS_FILE_TEST_SUPPORT_H
