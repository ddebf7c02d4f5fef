// This program defines its own QVStorage, which must replace the library's weak one: in a static
// build the whole archive is linked, so the library's copy is there and loses to this one. The
// calls are made by SecureFile, inside the library.
#include "QVStorage.h"

#include <gtest/gtest.h>

#include <string>

#include "UtlSecureFile.h"

namespace {

// What the replacement was asked to do.
struct Journal {
    std::string opened;
    std::string mode;
    bool open = false;
    long long written = 0;
};
Journal gJournal;

}  // namespace

QVStorage::QVStorage() : mState(&gJournal) {}
QVStorage::~QVStorage() {}
int QVStorage::Open(const char* path, const char* mode) {
    gJournal = Journal{path, mode, true, 0};
    return 0;
}
int QVStorage::Close() {
    gJournal.open = false;
    return 0;
}
int QVStorage::IsOpen() const {
    return gJournal.open ? 1 : 0;
}
long long QVStorage::Read(void*, long long length) {
    return length - 1;
}
long long QVStorage::Write(const void*, long long length) {
    gJournal.written += length;
    return length;
}
long long QVStorage::GetSize() const {
    return 4000000000LL + gJournal.written;
}

namespace {

TEST(QVStorageReplacementTest, SecureFileReachesTheApplicationsStorage) {
    utl::SecureFile file("/nowhere/stored.bin", utl::File::TEXT_UTF8);
    ASSERT_TRUE(file.open(utl::File::OPEN_APPEND, utl::File::ACCESS_READ_WRITE));
    EXPECT_EQ(gJournal.opened, "/nowhere/stored.bin");  // no such directory: not a plain file
    EXPECT_EQ(gJournal.mode, "a+");
    EXPECT_EQ(file.write("abc", 3), 3);
    char buffer[8];
    EXPECT_EQ(file.read(buffer, sizeof buffer), 7);
    EXPECT_EQ(file.size(), 4000000003LL);
    EXPECT_TRUE(file.close());
    EXPECT_FALSE(gJournal.open);
}

}  // namespace
