#include "UtlSecureFile.h"

#include <gtest/gtest.h>

#include <string>

#include "FileTestSupport.h"
#include "LogCapture.h"

namespace {

using utl::File;
using utl::SecureFile;

class SecureFileTest : public TempDirTest {};

TEST_F(SecureFileTest, ModesChooseHowTheStorageOpens) {
    const std::string name = path("kept.bin");
    SecureFile file(name.c_str(), File::TEXT_UTF8);
    // Reading needs an existing file, and only open mode 0 reads.
    EXPECT_FALSE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));
    EXPECT_FALSE(file.open(File::OPEN_APPEND, File::ACCESS_READ));
    EXPECT_FALSE(file.open(3, File::ACCESS_WRITE));
    EXPECT_FALSE(file.open(File::OPEN_EXISTING, 3));
    EXPECT_FALSE(file.isOpened());

    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_WRITE));  // "w"
    EXPECT_FALSE(file.open(File::OPEN_EXISTING, File::ACCESS_WRITE));
    EXPECT_EQ(file.write("hello", 5), 5);
    EXPECT_EQ(file.write("x", 0), -1);
    EXPECT_EQ(file.write(nullptr, 1), -1);
    EXPECT_TRUE(file.close());
    EXPECT_FALSE(file.close());

    ASSERT_TRUE(file.open(File::OPEN_APPEND, File::ACCESS_WRITE));  // "a"
    EXPECT_EQ(file.write(" you", 4), 4);
    EXPECT_EQ(file.size(), 9);
    file.close();
    EXPECT_EQ(get(name), "hello you");

    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));  // "r"
    char buffer[16] = {};
    EXPECT_EQ(file.read(buffer, 0x80000000u), -1);
    EXPECT_EQ(file.read(buffer, sizeof buffer), 9);
    EXPECT_STREQ(buffer, "hello you");
    file.close();

    // Read-write with open mode 0 truncates (File::open would not).
    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ_WRITE));  // "w+"
    EXPECT_EQ(file.size(), 0);
}

TEST_F(SecureFileTest, PositionTextAndLineOperationsAreRefusedEvenWhenOpen) {
    const std::string name = path("text.txt");
    put(name, "line\n");
    SecureFile file(name.c_str(), File::TEXT_UTF8);
    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));
    char out[16];
    unsigned int used = 0;
    EXPECT_EQ(file.readText(out, sizeof out, 5, 0, &used), -1);
    EXPECT_EQ(file.readLine(out, sizeof out, &used), -1);
    EXPECT_EQ(file.seek(0, File::SEEK_FROM_BEGIN), -1);
    EXPECT_EQ(file.seekKey(reinterpret_cast<const unsigned char*>("line"), 4, 0, 5, 0), -1);
    EXPECT_EQ(file.position(), -1);
    EXPECT_EQ(file.availableSize(), -1);
    EXPECT_FALSE(file.resize());
    EXPECT_FALSE(file.resize(1));
    EXPECT_EQ(get(name), "line\n");
}

TEST_F(SecureFileTest, StorageThatRefusesIsLogged) {
    const std::string name = path("missing/dir/file.bin");
    SecureFile file(name.c_str(), File::TEXT_UTF8);
    LogCapture log;
    EXPECT_FALSE(file.open(File::OPEN_EXISTING, File::ACCESS_WRITE));
    EXPECT_TRUE(log.contains("SecureFile::open() Failed. Path:" + name));
    EXPECT_FALSE(File::exists(path("missing").c_str()));  // no directory made
}

}  // namespace
