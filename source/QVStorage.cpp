#include "QVStorage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "UtlKeepAlive.h"

// Every member definition below is weak: an application that defines the members itself replaces
// them at link time (see the header). The members share code through file-local helpers rather
// than by calling each other, so the library's copies never run on a replacement's state.

namespace {

constexpr const char* kSource = "source/QVStorage";

// One system call transfers at most this much, well below the 32-bit SSIZE_MAX.
constexpr long long kMaxChunk = 0x40000000;

static_assert(sizeof(long long) == 8, "sizes and counts are 64 bits wide");
static_assert(sizeof(static_cast<struct stat64*>(nullptr)->st_size) == 8,
              "file sizes above 4 GiB are told exactly");

// The library's state behind QVStorage::mState while a file is open.
struct OpenFile {
    int fd;
};

OpenFile* openFile(void* state) {
    return static_cast<OpenFile*>(state);
}

int failWith(int error) {
    errno = error;
    return -1;
}

// The open(2) flags of an fopen mode: a leading 'r', 'w' or 'a', then at most one '+' and at most
// one 'b' in either order. False for anything else.
bool openFlags(const char* mode, int* flags) {
    int create;
    int access;  // without '+'
    switch (mode[0]) {
        case 'r':
            create = 0;
            access = O_RDONLY;
            break;
        case 'w':
            create = O_CREAT | O_TRUNC;
            access = O_WRONLY;
            break;
        case 'a':
            create = O_CREAT | O_APPEND;
            access = O_WRONLY;
            break;
        default:
            return false;
    }
    bool plus = false;
    bool binary = false;
    for (const char* c = mode + 1; *c != '\0'; ++c) {
        if (*c == '+' && !plus) {
            plus = true;
        } else if (*c == 'b' && !binary) {
            binary = true;
        } else {
            return false;
        }
    }
    *flags = create | (plus ? O_RDWR : access) | O_CLOEXEC;
    return true;
}

// The descriptor of `path`, or -1 with errno set. A directory opens read-only like any file but
// holds no bytes to read, so it is refused.
int openRegular(const char* path, int flags) {
    int fd;
    {
        utl::detail::BlockingCall call(kSource, "QVStorage::Open", __LINE__);
        do {
            fd = open64(path, flags, 0666);
        } while (fd < 0 && errno == EINTR);
    }
    if (fd < 0) {
        return -1;
    }
    struct stat64 info;
    int error = 0;
    if (fstat64(fd, &info) != 0) {
        error = errno;
    } else if (S_ISDIR(info.st_mode)) {
        error = EISDIR;
    }
    if (error != 0) {
        close(fd);
        return failWith(error);
    }
    return fd;
}

int closeFile(void* state) {
    OpenFile* file = openFile(state);
    int result;
    {
        utl::detail::BlockingCall call(kSource, "QVStorage::Close", __LINE__);
        result = close(file->fd);  // the descriptor is released even when close reports EINTR
    }
    delete file;
    return result == 0 ? 0 : -1;
}

// Moves up to `length` bytes for `function` with repeated calls of `step(offset, size)`, a read or
// write that returns a count or -1, retrying after signals. A regular file moves fewer bytes than
// asked only at its end or when its medium is full, so the first step that moves nothing ends the
// transfer; a short one does not, for devices and pipes. The count moved, or -1 when nothing was
// and the step failed.
template <class Step>
long long transfer(const char* function, long long length, Step step) {
    long long done = 0;
    utl::detail::BlockingCall call(kSource, function, __LINE__);
    while (done < length) {
        const ssize_t count = step(done, static_cast<size_t>(std::min(length - done, kMaxChunk)));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count < 0 && done == 0 ? -1 : done;
        }
        done += count;
    }
    return done;
}

}  // namespace

__attribute__((weak)) QVStorage::QVStorage() : mState(nullptr) {}

__attribute__((weak)) QVStorage::~QVStorage() {
    if (mState != nullptr) {
        closeFile(mState);
    }
}

__attribute__((weak)) int QVStorage::Open(const char* path, const char* mode) {
    int flags;
    if (path == nullptr || mode == nullptr || !openFlags(mode, &flags)) {
        return failWith(EINVAL);
    }
    if (mState != nullptr) {
        return failWith(EBUSY);
    }
    // The state comes first so that running out of memory cannot strand an open descriptor.
    OpenFile* file = new (std::nothrow) OpenFile;
    if (file == nullptr) {
        return failWith(ENOMEM);
    }
    file->fd = openRegular(path, flags);
    if (file->fd < 0) {
        const int error = errno;
        delete file;
        return failWith(error);
    }
    mState = file;
    return 0;
}

__attribute__((weak)) int QVStorage::Close() {
    if (mState == nullptr) {
        return failWith(EBADF);
    }
    const int result = closeFile(mState);
    mState = nullptr;
    return result;
}

__attribute__((weak)) int QVStorage::IsOpen() const {
    return mState != nullptr ? 1 : 0;
}

__attribute__((weak)) long long QVStorage::Read(void* buffer, long long length) {
    if (mState == nullptr) {
        return failWith(EBADF);
    }
    if (buffer == nullptr || length < 0) {
        return failWith(EINVAL);
    }
    const int fd = openFile(mState)->fd;
    char* bytes = static_cast<char*>(buffer);
    return transfer("QVStorage::Read", length,
                    [&](long long offset, size_t size) { return read(fd, bytes + offset, size); });
}

__attribute__((weak)) long long QVStorage::Write(const void* data, long long length) {
    if (mState == nullptr) {
        return failWith(EBADF);
    }
    if (data == nullptr || length < 0) {
        return failWith(EINVAL);
    }
    const int fd = openFile(mState)->fd;
    const char* bytes = static_cast<const char*>(data);
    return transfer("QVStorage::Write", length,
                    [&](long long offset, size_t size) { return write(fd, bytes + offset, size); });
}

__attribute__((weak)) long long QVStorage::GetSize() const {
    if (mState == nullptr) {
        return failWith(EBADF);
    }
    struct stat64 info;
    if (fstat64(openFile(mState)->fd, &info) != 0) {
        return -1;
    }
    return static_cast<long long>(info.st_size);
}
