#include "UtlSecureFile.h"

#include <gtest/gtest.h>

#include <string>

#include "FileTestSupport.h"
#include "LogCapture.h"

namespace {

using utl::File;
using utl::SecureFile;

class SecureFileTest : public TempDirTest {};

TEST_F(SecureFileTest, ModesChooseHowTheStorageOpensAndOnlyStreamsAreOffered) {
    SecureFile file(path("kept.bin").c_str(), File::TEXT_UTF8);
    // Reading needs an existing file, only open mode 0 reads, and unknown modes are refused.
    EXPECT_FALSE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));
    EXPECT_FALSE(file.open(File::OPEN_APPEND, File::ACCESS_READ));
    EXPECT_FALSE(file.open(3, File::ACCESS_WRITE) || file.open(File::OPEN_EXISTING, 3));

    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_WRITE));  // "w"
    EXPECT_FALSE(file.open(File::OPEN_EXISTING, File::ACCESS_WRITE));
    EXPECT_EQ(file.write("hello", 5), 5);
    EXPECT_EQ(file.write("x", 0) & file.write(nullptr, 1), -1);
    EXPECT_TRUE(file.close());
    EXPECT_FALSE(file.close());

    ASSERT_TRUE(file.open(File::OPEN_APPEND, File::ACCESS_WRITE));  // "a"
    EXPECT_EQ(file.write(" you", 4), 4);
    EXPECT_EQ(file.size(), 9);
    file.close();

    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));  // "r"
    // No File descriptor stands behind the storage: positions, text and lines stay refused.
    char buffer[16] = {};
    EXPECT_EQ(file.readText(buffer, 16, 5, 0, nullptr) & file.readLine(buffer, 16, nullptr), -1);
    EXPECT_EQ(file.seek(0, File::SEEK_FROM_BEGIN) & file.position() & file.availableSize() &
                  file.seekKey(reinterpret_cast<const unsigned char*>("hello"), 5, 0, 9, 0),
              -1);
    EXPECT_FALSE(file.resize() || file.resize(1));
    EXPECT_EQ(file.read(buffer, 0x80000000u), -1);
    EXPECT_EQ(file.read(buffer, sizeof buffer), 9);
    EXPECT_STREQ(buffer, "hello you");
    file.close();
    // Read-write with open mode 0 truncates (File::open would not).
    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ_WRITE));  // "w+"
    EXPECT_EQ(file.size(), 0);
}

TEST_F(SecureFileTest, StorageThatRefusesIsLoggedAndGetsNoDirectory) {
    const std::string name = path("missing/dir/file.bin");
    SecureFile file(name.c_str(), File::TEXT_UTF8);
    LogCapture log;
    EXPECT_FALSE(file.open(File::OPEN_EXISTING, File::ACCESS_WRITE));
    EXPECT_TRUE(log.contains("SecureFile::open() Failed. Path:" + name));
    EXPECT_FALSE(File::exists(path("missing").c_str()));
}

}  // namespace
