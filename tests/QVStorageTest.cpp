#include "QVStorage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

class QVStorageTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/QVStorageTest.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        mDir = dir;
        mPath = mDir + "/stored.bin";
    }
    void TearDown() override { std::filesystem::remove_all(mDir); }
    std::string stored() const {
        std::ifstream file(mPath);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    std::string mDir;
    std::string mPath;
};

// Each mode writes and reads where fopen would: from the start, at the end, or not at all.
TEST_F(QVStorageTest, ModesWriteAndReadWhereFopenWould) {
    const struct {
        const char* mode;
        long long written;  // of "XY"
        long long read;     // of up to 8 bytes after the write
        const char* after;  // the bytes read, a space, the file
    } rows[] = {{"r", -1, 3, "abc abc"}, {"rb", -1, 3, "abc abc"}, {"r+", 2, 1, "c XYc"},
                {"rb+", 2, 1, "c XYc"},  {"w", 2, -1, " XY"},      {"w+b", 2, 0, " XY"},
                {"a", 2, -1, " abcXY"},  {"a+", 2, 0, " abcXY"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        std::ofstream(mPath) << "abc";
        QVStorage storage;
        ASSERT_EQ(storage.Open(mPath.c_str(), row.mode), 0);
        EXPECT_EQ(storage.Write("XY", 2), row.written);
        char buffer[8] = {};
        EXPECT_EQ(storage.Read(buffer, sizeof(buffer)), row.read);
        EXPECT_EQ(storage.GetSize(),
                  static_cast<long long>(std::strlen(std::strchr(row.after, ' ') + 1)));
        EXPECT_EQ(storage.Close(), 0);
        EXPECT_EQ(std::string(buffer) + " " + stored(), row.after);
    }
}

// Refused opens leave the storage closed, say why in errno and create nothing.
TEST_F(QVStorageTest, RefusedOpensLeaveItClosed) {
    const std::string deep = mDir + "/no/dir";
    const struct {
        const char* path;
        const char* mode;
        int error;
    } rows[] = {{mPath.c_str(), "r+", ENOENT}, {deep.c_str(), "w", ENOENT},
                {mDir.c_str(), "r", EISDIR},   {mPath.c_str(), "w++", EINVAL},
                {mPath.c_str(), "wt", EINVAL}, {nullptr, "r", EINVAL}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        QVStorage storage;
        EXPECT_EQ(storage.Open(row.path, row.mode), -1);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(storage.IsOpen(), 0);
        EXPECT_FALSE(std::filesystem::exists(mPath));
    }
}

// Closed, every operation fails; a second Open is refused without disturbing the first; Close
// twice fails the second time.
TEST_F(QVStorageTest, LifeCycle) {
    char buffer[4];
    QVStorage storage;
    EXPECT_EQ(storage.Read(buffer, 1) & storage.Write("a", 1) & storage.GetSize(), -1);
    ASSERT_EQ(storage.Open(mPath.c_str(), "w+"), 0);
    EXPECT_EQ(storage.Open(mPath.c_str(), "r"), -1);
    EXPECT_EQ(storage.Write("abc", 3), 3);
    EXPECT_EQ(storage.Close(), 0);
    EXPECT_EQ(storage.Close(), -1);
    ASSERT_EQ(storage.Open(mPath.c_str(), "r"), 0);
    EXPECT_EQ(storage.Read(nullptr, 1) & storage.Read(buffer, -1), -1);
    EXPECT_EQ(storage.Read(buffer, sizeof(buffer)), 3);
    EXPECT_EQ(storage.IsOpen(), 1);
}

// Sizes beyond 32 bits are told exactly, and appending goes past them (a sparse file).
TEST_F(QVStorageTest, SizeAboveFourGibibytes) {
    const long long big = 0x140000000LL;
    std::ofstream(mPath).close();
    if (truncate64(mPath.c_str(), big) != 0) {
        GTEST_SKIP() << "no 5 GiB sparse file here: " << std::strerror(errno);
    }
    QVStorage storage;
    ASSERT_EQ(storage.Open(mPath.c_str(), "a"), 0);
    EXPECT_EQ(storage.Write("Z", 1), 1);
    EXPECT_EQ(storage.GetSize(), big + 1);
}

}  // namespace
