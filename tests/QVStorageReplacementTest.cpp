// This program defines its own QVStorage, which must replace the library's weak one: in a static
// build the whole archive is linked, so the library's copy is there and loses to this one.
#include "QVStorage.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

QVStorage::QVStorage() : mState(nullptr) {}
QVStorage::~QVStorage() {}
int QVStorage::Open(const char*, const char*) {
    return 1;
}
int QVStorage::Close() {
    return 5;
}
int QVStorage::IsOpen() const {
    return 7;
}
long long QVStorage::Read(void*, long long length) {
    return 100 + length;
}
long long QVStorage::Write(const void*, long long length) {
    return 200 + length;
}
long long QVStorage::GetSize() const {
    return 300;
}

namespace {

TEST(QVStorageReplacementTest, ApplicationDefinitionsWin) {
    QVStorage storage;
    char buffer[4];
    EXPECT_EQ(storage.Open("/nonexistent/stored.bin", "r"), 1);
    EXPECT_EQ(storage.Write("abc", 3), 203);
    EXPECT_EQ(storage.Read(buffer, 2), 102);
    EXPECT_EQ(storage.GetSize(), 300);
    EXPECT_EQ(storage.IsOpen(), 7);
    EXPECT_EQ(storage.Close(), 5);
}

// Callers inside a shared utl reach the definitions that the dynamic linker resolves: these.
TEST(QVStorageReplacementTest, DynamicLinkerResolvesMembersHere) {
#ifndef UTL_TEST_SHARED_UTL
    GTEST_SKIP() << "utl is linked statically: the static link alone chose the definitions";
#endif
    static int anchor;  // an address in this program
    Dl_info self;
    ASSERT_NE(dladdr(&anchor, &self), 0);
    for (const char* member :
         {"_ZN9QVStorageC1Ev", "_ZN9QVStorageD1Ev", "_ZN9QVStorage4OpenEPKcS1_",
          "_ZN9QVStorage5CloseEv", "_ZNK9QVStorage6IsOpenEv", "_ZN9QVStorage4ReadEPvx",
          "_ZN9QVStorage5WriteEPKvx", "_ZNK9QVStorage7GetSizeEv"}) {
        SCOPED_TRACE(member);
        Dl_info where;
        void* resolved = dlsym(RTLD_DEFAULT, member);
        ASSERT_TRUE(resolved != nullptr && dladdr(resolved, &where) != 0);
        EXPECT_STREQ(where.dli_fname, self.dli_fname);
    }
}

}  // namespace
