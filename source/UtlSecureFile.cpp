#include "UtlSecureFile.h"

#include <cstdint>
#include <new>

#include "UtlLibraryLog.h"

namespace utl {

namespace {

// The fopen mode of each access mode (rows) and open mode (columns); null: refused.
const char* const kModes[3][3] = {
    {"r", nullptr, nullptr},
    {"w", "a", "w"},
    {"w+", "a+", "w+"},
};

constexpr unsigned int kMaxReadLength = 0x7FFFFFFF;

}  // namespace

SecureFile::SecureFile(const char* path, int textType)
    : File(path, textType), mStorage(new (std::nothrow) QVStorage) {}

SecureFile::~SecureFile() {
    close();
    delete mStorage;
}

bool SecureFile::open(int openMode, int accessMode) {
    if (mStorage == nullptr || mStorage->IsOpen() != 0 || openMode < 0 || openMode >= 3 ||
        accessMode < 0 || accessMode >= 3) {
        return false;
    }
    const char* mode = kModes[accessMode][openMode];
    if (mode == nullptr || (accessMode == ACCESS_READ && !exists(getPath()))) {
        return false;
    }
    if (mStorage->Open(getPath(), mode) != 0) {
        UTL_LOG(LEVEL_ERROR, "SecureFile::open() Failed. Path:%s", getPath());
        return false;
    }
    return true;
}

bool SecureFile::close() {
    if (!isOpened()) {
        return false;
    }
    mStorage->Close();
    return true;
}

bool SecureFile::isOpened() const {
    return mStorage != nullptr && mStorage->IsOpen() != 0;
}

int SecureFile::read(void* buffer, unsigned int length) {
    if (!isOpened() || buffer == nullptr || length == 0 || length > kMaxReadLength) {
        return -1;
    }
    return static_cast<int>(mStorage->Read(buffer, length));
}

int SecureFile::write(const void* data, unsigned int length) {
    if (!isOpened() || data == nullptr || length == 0) {
        return -1;
    }
    return static_cast<int>(mStorage->Write(data, length));
}

long long SecureFile::size() const {
    return mStorage != nullptr ? mStorage->GetSize() : -1;
}

int SecureFile::readText(char*, unsigned int, unsigned int, unsigned int, unsigned int*) {
    return -1;
}

int SecureFile::readLine(char*, unsigned int, unsigned int*) {
    return -1;
}

long long SecureFile::seek(long long, int) {
    return -1;
}

long long SecureFile::seekKey(const unsigned char*, unsigned int, unsigned long long,
                              unsigned long long, int) {
    return -1;
}

long long SecureFile::position() const {
    return -1;
}

long long SecureFile::availableSize() const {
    return -1;
}

bool SecureFile::resize() {
    return false;
}

bool SecureFile::resize(unsigned long long) {
    return false;
}

}  // namespace utl
