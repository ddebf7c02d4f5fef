#include "QVStorage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "FileTestSupport.h"

namespace {

class QVStorageTest : public TempDirTest {};

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
    const std::string name = path("stored.bin");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        put(name, "abc");
        QVStorage storage;
        ASSERT_EQ(storage.Open(name.c_str(), row.mode), 0);
        EXPECT_EQ(storage.Write("XY", 2), row.written);
        char buffer[8] = {};
        EXPECT_EQ(storage.Read(buffer, sizeof(buffer)), row.read);
        EXPECT_EQ(storage.GetSize(),
                  static_cast<long long>(std::strlen(std::strchr(row.after, ' ') + 1)));
        EXPECT_EQ(storage.Close(), 0);
        EXPECT_EQ(std::string(buffer) + " " + get(name), row.after);
    }
}

// Refused opens say why in errno and create nothing; closed, every operation fails; a second
// Open is refused without disturbing the first; Close twice fails the second time.
TEST_F(QVStorageTest, RefusedCallsLeaveTheStorageAsItWas) {
    const std::string name = path("stored.bin");
    const std::string deep = path("no/dir");
    const struct {
        const char* path;
        const char* mode;
        int error;
    } rows[] = {{name.c_str(), "r+", ENOENT}, {deep.c_str(), "w", ENOENT},
                {mDir.c_str(), "r", EISDIR},  {name.c_str(), "w++", EINVAL},
                {name.c_str(), "wt", EINVAL}, {nullptr, "r", EINVAL}};
    QVStorage storage;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        errno = 0;
        EXPECT_EQ(storage.Open(row.path, row.mode), -1);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(storage.IsOpen(), 0);
        EXPECT_EQ(mode(name), -1);
    }
    char buffer[4];
    EXPECT_EQ(storage.Read(buffer, 1) & storage.Write("a", 1) & storage.GetSize(), -1);
    ASSERT_EQ(storage.Open(name.c_str(), "w+"), 0);
    EXPECT_EQ(storage.Open(name.c_str(), "r"), -1);
    EXPECT_EQ(storage.Write("abc", 3), 3);
    EXPECT_EQ(storage.Close(), 0);
    EXPECT_EQ(storage.Close(), -1);
    ASSERT_EQ(storage.Open(name.c_str(), "r"), 0);
    EXPECT_EQ(storage.Read(nullptr, 1) & storage.Read(buffer, -1), -1);
    EXPECT_EQ(storage.Read(buffer, sizeof(buffer)), 3);
    EXPECT_EQ(storage.IsOpen(), 1);
}

// Sizes beyond 32 bits are told exactly, and appending goes past them (a sparse file).
TEST_F(QVStorageTest, SizeAboveFourGibibytes) {
    const long long big = 0x140000000LL;
    const std::string name = path("big.bin");
    put(name, "");
    if (truncate64(name.c_str(), big) != 0) {
        GTEST_SKIP() << "no 5 GiB sparse file here: " << std::strerror(errno);
    }
    QVStorage storage;
    ASSERT_EQ(storage.Open(name.c_str(), "a"), 0);
    EXPECT_EQ(storage.Write("Z", 1), 1);
    EXPECT_EQ(storage.GetSize(), big + 1);
}

}  // namespace
