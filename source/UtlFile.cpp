#include "UtlFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "UtlCharConvert.h"
#include "UtlKeepAlive.h"
#include "UtlLibraryLog.h"

namespace utl {

namespace {

const char* const kSource = "source/UtlFile";
constexpr unsigned int kPathBytes = File::PATH_BYTES;
// The largest UTF-8 text that TEXT_LIMIT file bytes convert to (a half-width Shift_JIS katakana
// byte becomes three UTF-8 bytes), with its terminator.
constexpr unsigned int kTextBytes = File::TEXT_LIMIT * 3 + 1;
constexpr int kModeAll = 0777;
constexpr int kModeReadOnly = 0555;
// Zero bytes kept after the data in the line buffer.
constexpr unsigned int kBufferPadding = 8;

// Runs a blocking system call between two liveness reports, keeping the call's errno.
template <class Call>
auto blocking(const char* operation, unsigned int line, Call call) -> decltype(call()) {
    int savedErrno = 0;
    auto result = [&] {
        detail::BlockingCall report(kSource, operation, line);
        auto value = call();
        savedErrno = errno;
        return value;
    }();
    errno = savedErrno;
    return result;
}

#define UTL_FILE_CALL(operation, expression) \
    blocking(operation, __LINE__, [&] { return expression; })

// A descriptor that a failed operation gives back: synced and closed like every other.
void releaseDescriptor(int fd) {
    SmartHandle<DestructCloseFile> handle;
    handle.set(fd);
}

bool isOpenedDescriptor(int fd) {
    return static_cast<unsigned int>(fd + 1) > 1u;
}

// Copies `path` into `out` with backslashes as slashes; false for null, 260 bytes or more, or
// two adjacent separators.
bool normalizePath(char (&out)[kPathBytes], const char* path) {
    if (path == nullptr) {
        return false;
    }
    unsigned int length = 0;
    for (; path[length] != '\0'; ++length) {
        if (length + 1 >= kPathBytes) {
            return false;
        }
        const char c = path[length] == '\\' ? '/' : path[length];
        if (c == '/' && length > 0 && out[length - 1] == '/') {
            return false;
        }
        out[length] = c;
    }
    out[length] = '\0';
    return true;
}

bool copyOut(char* out, unsigned int size, const char* text) {
    const std::size_t length = std::strlen(text);
    if (out == nullptr || length + 1 > size) {
        return false;
    }
    std::memcpy(out, text, length + 1);
    return true;
}

void trimTrailingSeparators(char* path) {
    std::size_t length = std::strlen(path);
    while (length > 0 && path[length - 1] == '/') {
        path[--length] = '\0';
    }
}

// The last component of a normalised path, in place.
void keepFileName(char (&work)[kPathBytes]) {
    trimTrailingSeparators(work);
    const char* slash = std::strrchr(work, '/');
    if (slash != nullptr) {
        std::memmove(work, slash + 1, std::strlen(slash + 1) + 1);
    }
}

void keepDirectory(char (&work)[kPathBytes]) {
    trimTrailingSeparators(work);
    char* slash = std::strrchr(work, '/');
    if (slash == nullptr) {
        work[0] = '\0';
        return;
    }
    *slash = '\0';
    trimTrailingSeparators(work);
}

void keepExtension(char (&work)[kPathBytes]) {
    keepFileName(work);
    const char* dot = std::strrchr(work, '.');
    if (dot == nullptr) {
        work[0] = '\0';
    } else {
        std::memmove(work, dot + 1, std::strlen(dot + 1) + 1);
    }
}

bool statPath(const char* operation, unsigned int line, const char* path, struct stat64* info) {
    return blocking(operation, line, [&] { return stat64(path, info); }) == 0;
}

constexpr int kVisitFail = -1;
constexpr int kVisitStop = 0;
constexpr int kVisitGoOn = 1;

// Calls `visit(fullPath, isDirectoryEntry)` for the entries of `directory` other than "." and
// ".."; `visit` returns kVisitGoOn, kVisitStop to end the listing, or kVisitFail to end it in
// failure. False when the directory cannot be read or `visit` failed.
template <class Visit>
bool forEachEntry(const char* directory, Visit visit) {
    DIR* dir = UTL_FILE_CALL("children", opendir(directory));
    if (dir == nullptr) {
        return false;
    }
    bool ok = true;
    for (;;) {
        const struct dirent64* entry = UTL_FILE_CALL("children", readdir64(dir));
        if (entry == nullptr) {
            break;
        }
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
            continue;
        }
        char full[kPathBytes + sizeof(entry->d_name) + 1];
        std::snprintf(full, sizeof(full), "%s/%s", directory, name);
        const int next = visit(full, entry->d_type == DT_DIR);
        if (next != kVisitGoOn) {
            ok = next == kVisitStop;
            break;
        }
    }
    UTL_FILE_CALL("children", closedir(dir));
    return ok;
}

// The first byte in [s, stop) that is not a one-byte character other than CR and LF (that is:
// 0, CR, LF or 80-FF), or `stop`. Such bytes are whole characters in Shift_JIS and UTF-8 alike;
// they are stepped over eight at a time.
const unsigned char* skipPlainAscii(const unsigned char* s, const unsigned char* stop) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    constexpr uint64_t kOnes = 0x0101010101010101ULL;
    constexpr uint64_t kHighs = 0x8080808080808080ULL;
    // High bit set in every zero byte of `w`; bytes above the lowest one may be flagged falsely,
    // so only the lowest flag is used.
    const auto zeros = [](uint64_t w) { return (w - kOnes) & ~w & kHighs; };
    while (stop - s >= 8) {
        uint64_t word;
        std::memcpy(&word, s, sizeof(word));
        const uint64_t stops = (word & kHighs) | zeros(word) | zeros(word ^ (kOnes * '\n')) |
                               zeros(word ^ (kOnes * '\r'));
        if (stops != 0) {
            return s + __builtin_ctzll(stops) / 8;
        }
        s += 8;
    }
#endif
    while (s < stop && *s - 1u < 0x7Fu && *s != '\n' && *s != '\r') {
        ++s;
    }
    return s;
}

// memcpy for the short copies of lines: compilers tend to inline a variable-length memcpy as a
// string instruction whose start-up cost dominates at line lengths.
void copyShort(char* dst, const unsigned char* src, unsigned int count) {
    unsigned int i = 0;
    for (; i + 8 <= count; i += 8) {
        std::memcpy(dst + i, src + i, 8);
    }
    for (; i < count; ++i) {
        dst[i] = static_cast<char>(src[i]);
    }
}

// Decodes a UTF-16 unit from two file bytes.
uint16_t unitAt(const unsigned char* bytes, int textType) {
    return textType == File::TEXT_UTF16BE ? static_cast<uint16_t>(bytes[0] << 8 | bytes[1])
                                          : static_cast<uint16_t>(bytes[1] << 8 | bytes[0]);
}

// Appends `bytes` bytes of `text` at `*total` when there is room (dst null: only counts).
bool put(char* dst, unsigned int size, unsigned int* total, const char* text, unsigned int bytes) {
    if (dst != nullptr) {
        if (size - *total <= bytes) {
            return false;
        }
        std::memcpy(dst + *total, text, bytes);
    }
    *total += bytes;
    return true;
}

// UTF-16 units (zero-terminated) into UTF-8. ASCII units are copied directly and runs of other
// units (surrogate pairs stay together) go through the library's conversion; a byte order mark,
// which that conversion refuses, is delivered as its own UTF-8 form. Size 0 or a null `dst`
// measures; ~0u on failure or when the text does not fit.
unsigned int utf16ToUtf8(char* dst, unsigned int size, uint16_t* units) {
    if (dst == nullptr) {
        size = 0;
    }
    unsigned int total = 0;
    for (uint16_t* unit = units; *unit != 0;) {
        if (*unit < 0x80) {
            const char c = static_cast<char>(*unit++);
            if (!put(dst, size, &total, &c, 1)) {
                return ~0u;
            }
            continue;
        }
        if (*unit == 0xFEFF || *unit == 0xFFFE) {
            if (!put(dst, size, &total, *unit++ == 0xFEFF ? "\xEF\xBB\xBF" : "\xEF\xBF\xBE", 3)) {
                return ~0u;
            }
            continue;
        }
        uint16_t* end = unit;
        while (*end >= 0x80 && *end != 0xFEFF && *end != 0xFFFE) {
            ++end;
        }
        const uint16_t saved = *end;
        *end = 0;
        const unsigned int bytes = dst == nullptr
                                       ? convertStrFromUtf16ToUtf8(nullptr, 0, unit)
                                       : convertStrFromUtf16ToUtf8(dst + total, size - total, unit);
        *end = saved;
        if (bytes == ~0u || bytes == 0) {
            return ~0u;
        }
        total += bytes - 1;
        unit = end;
    }
    if (dst != nullptr) {
        if (total >= size) {
            return ~0u;
        }
        dst[total] = '\0';
    }
    return total + 1;
}

}  // namespace

File::File(const char* path, int textType)
    : mPath(path, 0, 1),
      mTextType(textType),
      mBuffer(nullptr),
      mBufferStart(0),
      mBufferCount(0),
      mBufferAtEnd(false),
      mCursor(0),
      mBuffered(false),
      mParentAccessible(true) {
    mPath.replace("\\", "/", 0);
}

File::~File() {
    close();
    delete[] mBuffer;
    char directory[kPathBytes];
    if (extractDirectoryPath(directory, sizeof(directory), mPath.c_str()) && directory[0] != '\0') {
        // Syncing the directory makes the entry of a file just created durable.
        const int fd = UTL_FILE_CALL("~File", open64(directory, O_RDONLY));
        if (fd > 0) {
            UTL_FILE_CALL("~File", (releaseDescriptor(fd), 0));
        }
    }
}

bool File::open(int openMode, int accessMode) {
    const char* path = mPath.c_str();
    if (isDirectory(path) || isOpened() || openMode < 0 || openMode > OPEN_TRUNCATE ||
        accessMode < ACCESS_READ || accessMode > ACCESS_READ_WRITE) {
        return false;
    }
    int fd = -1;
    int lock = LOCK_SH;
    bool parentChanged = false;
    int oldMode = kModeAll;
    if (accessMode == ACCESS_READ) {
        if (openMode == OPEN_TRUNCATE || !exists(path)) {
            return false;
        }
        fd = UTL_FILE_CALL("open", open64(path, O_RDONLY, kModeReadOnly));
        if (!isOpenedDescriptor(fd)) {
            UTL_LOG(LEVEL_ERROR, "open() Failed. errno[%d] Path:%s", errno, path);
            return false;
        }
    } else {
        char directory[kPathBytes];
        if (!extractDirectoryPath(directory, sizeof(directory), path) ||
            (directory[0] != '\0' && !makeDirectories(directory))) {
            return false;
        }
        const bool existed = exists(path);
        if (existed && isReadOnly(path)) {
            struct stat64 info;
            if (!statPath("open", __LINE__, path, &info)) {
                UTL_LOG(LEVEL_ERROR, "is isReadOnly func stat Failed. errno[%d] Path:%s", errno,
                        path);
            }
            return false;
        }
        parentChanged = changeParentAccessMode(path, kModeAll, &oldMode);
        const int flags = accessMode | O_CREAT | (openMode == OPEN_TRUNCATE ? O_TRUNC : 0);
        fd = UTL_FILE_CALL("open", open64(path, flags, kModeAll));
        if (!isOpenedDescriptor(fd)) {
            const int error = errno;
            if (parentChanged) {
                changeParentAccessMode(path, oldMode, nullptr);
            }
            UTL_LOG(LEVEL_ERROR, "open() Failed. errno[%d] Path:%s", error, path);
            return false;
        }
        if (!existed) {
            UTL_FILE_CALL("open", chmod(path, kModeAll));
        }
        lock = LOCK_EX;
    }
    const auto fail = [&](const char* format) {
        const int error = errno;
        if (parentChanged) {
            changeParentAccessMode(path, oldMode, nullptr);
        }
        UTL_LOG(LEVEL_DETAIL, format, error, path);
        UTL_FILE_CALL("open", (releaseDescriptor(fd), 0));
        return false;
    };
    if (UTL_FILE_CALL("open", flock(fd, lock | LOCK_NB)) != 0) {
        return fail("Other process is opening. errno[%d] Path:%s");
    }
    if (openMode == OPEN_APPEND &&
        blocking("seekFile", __LINE__, [&] { return lseek64(fd, 0, SEEK_END); }) < 0) {
        return fail("seekFile in open Failed. errno[%d] Path:%s");
    }
    mBufferCount = 0;
    mBuffered = false;
    mParentAccessible = (oldMode & kModeAll) == kModeAll;
    const bool held = mHandle.set(fd);
    if (parentChanged) {
        changeParentAccessMode(path, oldMode, nullptr);
    }
    return held;
}

bool File::close() {
    mBuffered = false;
    mBufferCount = 0;
    mHandle.release();
    return true;
}

bool File::isOpened() const {
    return isOpenedDescriptor(descriptor());
}

bool File::setTextType(int type) {
    if (type < TEXT_SJIS || type > TEXT_UTF16LE) {
        return false;
    }
    mTextType = type;
    return true;
}

bool File::flush() {
    return true;
}

bool File::getPath(char* buffer, unsigned int size) const {
    return copyOut(buffer, size, mPath.c_str());
}

bool File::getPath(BasicString<char>* out) const {
    return out != nullptr && out->copy(mPath.c_str(), ~0u, 0);
}

long long File::seekFile(long long offset, int whence) const {
    const long long result =
        UTL_FILE_CALL("seekFile", static_cast<long long>(lseek64(descriptor(), offset, whence)));
    if (result < 0) {
        UTL_LOG(LEVEL_ERROR, "lseek64 Failed. errno[%d]", errno);
        return -1;
    }
    return result;
}

bool File::dropBuffer() const {
    mBufferCount = 0;
    mBufferAtEnd = false;
    if (!mBuffered) {
        return true;
    }
    mBuffered = false;
    return seekFile(mCursor, SEEK_SET) >= 0;
}

long long File::seek(long long offset, int origin) {
    static const int kWhence[] = {SEEK_SET, SEEK_END, SEEK_CUR};
    if (!isOpened() || origin < SEEK_FROM_BEGIN || origin > SEEK_FROM_CURRENT || !dropBuffer()) {
        return -1;
    }
    return seekFile(offset, kWhence[origin]);
}

long long File::position() const {
    if (!isOpened()) {
        return -1;
    }
    return mBuffered ? mCursor : seekFile(0, SEEK_CUR);
}

long long File::size() const {
    if (!isOpened()) {
        return -1;
    }
    struct stat64 info;
    if (UTL_FILE_CALL("fileSize", fstat64(descriptor(), &info)) != 0) {
        UTL_LOG(LEVEL_ERROR, "fstat Failed. errno[%d]", errno);
        return -1;
    }
    return info.st_size;
}

long long File::availableSize() const {
    if (!isOpened()) {
        return -1;
    }
    const long long length = size();
    if (length < 0) {
        UTL_LOG(LEVEL_ERROR, "fileSize Failed. Path:%s", mPath.c_str());
        return -1;
    }
    const long long at = position();
    if (at < 0) {
        return -1;
    }
    return at >= length ? 0 : length - at;
}

int File::read(void* buffer, unsigned int length) {
    if (!isOpened()) {
        UTL_LOG(LEVEL_ERROR, "in read func file is not opened");
        return FAILED;
    }
    if (buffer == nullptr || length == 0 || length > 0x7FFFFFFFu || !dropBuffer()) {
        return FAILED;
    }
    const long long length64 = size();
    if (length64 < 0) {
        UTL_LOG(LEVEL_ERROR, "in read func now size func error");
        return FAILED;
    }
    const long long at = position();
    if (at < 0) {
        UTL_LOG(LEVEL_ERROR, "in read func now seekFile func error");
        return FAILED;
    }
    if (at >= length64) {
        return END_OF_FILE;
    }
    const ssize_t count = UTL_FILE_CALL("readFile", ::read(descriptor(), buffer, length));
    if (count < 0) {
        UTL_LOG(LEVEL_ERROR, "ReadFile Failed. errno[%d]", errno);
        UTL_LOG(LEVEL_ERROR, "in read func readFile Failed. Path:%s", mPath.c_str());
        return FAILED;
    }
    return static_cast<int>(count);
}

int File::write(const void* data, unsigned int length) {
    if (!isOpened() || !dropBuffer()) {
        return FAILED;
    }
    // The parent is opened up for the write only when it was not fully accessible at open:
    // otherwise the three extra calls would cost more than many a write itself.
    int oldMode = kModeAll;
    const bool parentChanged =
        !mParentAccessible && changeParentAccessMode(mPath.c_str(), kModeAll, &oldMode);
    int result = FAILED;
    if (data != nullptr && length != 0) {
        const ssize_t count = UTL_FILE_CALL("writeFile", ::write(descriptor(), data, length));
        if (count < 0) {
            UTL_LOG(LEVEL_ERROR, "WriteFile Failed. errno[%d]", errno);
        } else {
            result = static_cast<int>(count);
        }
    }
    if (parentChanged) {
        changeParentAccessMode(mPath.c_str(), oldMode, nullptr);
    }
    if (result < 0) {
        UTL_LOG(LEVEL_ERROR, "writeFile Failed. Path:%s", mPath.c_str());
    }
    return result;
}

int File::writeText(const char* text, unsigned int maxBytes, unsigned int offset) {
    if (!isOpened() || text == nullptr || maxBytes >= TEXT_LIMIT) {
        return FAILED;
    }
    if (mTextType == TEXT_UTF8) {
        const std::size_t length = std::strlen(text);
        if (offset >= length) {
            return FAILED;
        }
        const std::size_t count = length - offset;
        return write(text + offset, static_cast<unsigned int>(count < maxBytes ? count : maxBytes));
    }
    if (mTextType != TEXT_UTF16BE && mTextType != TEXT_UTF16LE) {
        return FAILED;
    }
    const unsigned int units = convertStrFromUtf8ToUtf16(nullptr, 0, text);
    if (units == ~0u || units == 0) {
        return FAILED;
    }
    unsigned short* encoded = new (std::nothrow) unsigned short[units];
    if (encoded == nullptr || convertStrFromUtf8ToUtf16(encoded, units, text) == ~0u) {
        delete[] encoded;
        return FAILED;
    }
    // The file's byte order is fixed by the text type, whatever the host's.
    const unsigned int length = (units - 1) * 2;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(encoded);
    for (unsigned int i = 0; i + 1 < units; ++i) {
        const unsigned short unit = encoded[i];
        const bool bigEndian = mTextType == TEXT_UTF16BE;
        bytes[2 * i] = static_cast<unsigned char>(bigEndian ? unit >> 8 : unit & 0xFF);
        bytes[2 * i + 1] = static_cast<unsigned char>(bigEndian ? unit & 0xFF : unit >> 8);
    }
    int result = FAILED;
    if (offset < length) {
        const unsigned int count = length - offset;
        result = write(bytes + offset, count < maxBytes ? count : maxBytes);
    }
    delete[] encoded;
    return result;
}

int File::writeLine(const char* text) {
    // An empty line writes only its end, though writeText refuses an empty text.
    const int written = text != nullptr && text[0] == '\0' ? 0 : writeText(text, TEXT_LIMIT - 1, 0);
    if (written < 0) {
        return FAILED;
    }
    const int end = writeText("\n", TEXT_LIMIT - 1, 0);
    return end < 0 ? FAILED : written + end;
}

int File::convertText(unsigned char* bytes, unsigned int count, char* out, unsigned int outSize,
                      unsigned int outOffset, unsigned int* textSize) const {
    // `bytes` has two zero bytes after `count`.
    const char* text = reinterpret_cast<const char*>(bytes);
    uint16_t units[TEXT_LIMIT / 2 + 1];
    const bool wide = mTextType == TEXT_UTF16BE || mTextType == TEXT_UTF16LE;
    if (wide) {
        for (unsigned int i = 0; i < count / 2; ++i) {
            units[i] = unitAt(bytes + 2 * i, mTextType);
        }
        units[count / 2] = 0;
    }
    // With room for the longest possible result the text is converted in one pass, straight into
    // `out`; otherwise it is measured first.
    const unsigned int worst = (wide ? count / 2 : count) * 3 + 1;
    if (mTextType != TEXT_UTF8 && outSize != 0 && outOffset <= outSize &&
        outSize - outOffset >= worst) {
        char* target = out + outOffset;
        const unsigned int converted = wide ? utf16ToUtf8(target, worst, units)
                                            : convertStrFromSjisToUtf8(target, worst, text);
        if (converted == ~0u) {
            return FAILED;
        }
        if (textSize != nullptr) {
            *textSize = converted;
        }
        return static_cast<int>(count);
    }
    unsigned int measured = ~0u;
    switch (mTextType) {
        case TEXT_SJIS:
            measured = convertStrFromSjisToUtf8(nullptr, 0, text);
            break;
        case TEXT_UTF8:
            if (count >= 3 && std::memcmp(bytes, "\xEF\xBB\xBF", 3) == 0) {
                text += 3;
            }
            measured = static_cast<unsigned int>(std::strlen(text) + 1);
            break;
        default:
            measured = utf16ToUtf8(nullptr, 0, units);
            break;
    }
    if (measured == ~0u) {
        return FAILED;
    }
    if (outSize == 0) {
        if (textSize != nullptr) {
            *textSize = measured;
        }
        return static_cast<int>(count);
    }
    if (outOffset > outSize || outSize - outOffset < measured) {
        return FAILED;
    }
    char* target = out + outOffset;
    unsigned int converted = measured;
    if (mTextType == TEXT_SJIS) {
        converted = convertStrFromSjisToUtf8(target, measured, text);
    } else if (mTextType == TEXT_UTF8) {
        std::memcpy(target, text, measured);
    } else {
        converted = utf16ToUtf8(target, measured, units);
    }
    if (converted == ~0u) {
        return FAILED;
    }
    if (textSize != nullptr) {
        *textSize = converted;
    }
    return static_cast<int>(count);
}

int File::readText(char* out, unsigned int outSize, unsigned int fileBytes, unsigned int outOffset,
                   unsigned int* textSize) {
    if (mTextType < TEXT_SJIS || mTextType > TEXT_UTF16LE || !isOpened()) {
        return FAILED;
    }
    if (mTextType >= TEXT_UTF16BE) {
        fileBytes &= ~1u;
    }
    if (fileBytes == 0 || (outSize != 0 && out == nullptr) || fileBytes >= TEXT_LIMIT ||
        !dropBuffer()) {
        return FAILED;
    }
    const long long available = availableSize();
    if (available <= 0) {
        return available == 0 ? END_OF_FILE : FAILED;
    }
    unsigned int want = available < fileBytes ? static_cast<unsigned int>(available) : fileBytes;
    if (mTextType >= TEXT_UTF16BE) {
        // A last odd byte is no unit: it is left unread, and alone it counts as the end.
        want &= ~1u;
        if (want == 0) {
            return END_OF_FILE;
        }
    }
    unsigned char bytes[TEXT_LIMIT + 2];
    const ssize_t count = UTL_FILE_CALL("readFile", ::read(descriptor(), bytes, want));
    if (count <= 0) {
        return count == 0 ? END_OF_FILE : FAILED;
    }
    bytes[count] = 0;
    bytes[count + 1] = 0;
    return convertText(bytes, static_cast<unsigned int>(count), out, outSize, outOffset, textSize);
}

int File::readText(BasicString<char>* out, unsigned int fileBytes, unsigned int outOffset,
                   unsigned int* textSize) {
    if (out == nullptr) {
        return readText(static_cast<char*>(nullptr), 0, fileBytes, outOffset, textSize);
    }
    const unsigned int prefix = out->getLength() < outOffset ? out->getLength() : outOffset;
    char* text = new (std::nothrow) char[prefix + kTextBytes];
    if (text == nullptr) {
        return FAILED;
    }
    std::memcpy(text, out->c_str(), prefix);
    int result = readText(text, prefix + kTextBytes, fileBytes, prefix, textSize);
    if (result >= 0 && !out->copy(text, ~0u, 0)) {
        result = FAILED;
    }
    delete[] text;
    return result;
}

const unsigned char* File::bufferAt(long long offset, unsigned int want,
                                    unsigned int* count) const {
    const long long end = mBufferStart + mBufferCount;
    const bool inside = mBuffer != nullptr && offset >= mBufferStart && offset <= end;
    if (!inside || (end - offset < want && !mBufferAtEnd)) {
        if (mBuffer == nullptr) {
            mBuffer = new (std::nothrow) unsigned char[BUFFER_BYTES + kBufferPadding];
            if (mBuffer == nullptr) {
                return nullptr;
            }
        }
        unsigned int filled = 0;
        while (filled < BUFFER_BYTES) {
            const ssize_t got = UTL_FILE_CALL(
                "readFile",
                pread64(descriptor(), mBuffer + filled, BUFFER_BYTES - filled, offset + filled));
            if (got < 0) {
                mBufferCount = 0;
                mBufferAtEnd = false;
                return nullptr;
            }
            if (got == 0) {
                break;
            }
            filled += static_cast<unsigned int>(got);
        }
        // Zeros after the data let a character at the end of the file be measured in place.
        std::memset(mBuffer + filled, 0, kBufferPadding);
        mBufferStart = offset;
        mBufferCount = filled;
        mBufferAtEnd = filled < BUFFER_BYTES;
    }
    *count = static_cast<unsigned int>(mBufferStart + mBufferCount - offset);
    return mBuffer + (offset - mBufferStart);
}

unsigned int File::characterBytes(const unsigned char* s) const {
    const unsigned char c = s[0];
    if (c - 1u < 0x7Fu) {
        return 1;
    }
    if (mTextType == TEXT_SJIS) {
        char utf8[6];
        unsigned int used = 1;
        if (convertCharFromSjisToUtf8(utf8, sizeof(utf8), reinterpret_cast<const char*>(s),
                                      &used) == ~0u) {
            UTL_LOG(LEVEL_ERROR, "in findNextLineSize func convertSjisToUtf8 error");
            return 0;
        }
        return used == 0 ? 1 : used;
    }
    if (c == 0) {
        return 1;
    }
    // The common well-formed two- and three-byte forms are measured here; everything else, the
    // forms with range restrictions included, by the library's own rules.
    const bool follows1 = (s[1] & 0xC0) == 0x80;
    if (c >= 0xC2 && c <= 0xDF && follows1) {
        return 2;
    }
    if (((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF) && follows1 && (s[2] & 0xC0) == 0x80) {
        return 3;
    }
    const unsigned int length = strCharBytesBase(reinterpret_cast<const char*>(s), nullptr);
    // An invalid lead byte is one byte; a cut or bad sequence is taken as three.
    return length == ~0u ? 1 : length == 0 ? 3 : length;
}

bool File::scanLine(long long start, LineScan* scan) const {
    const bool wide = mTextType == TEXT_UTF16BE || mTextType == TEXT_UTF16LE;
    const unsigned int window = wide ? 2 : 6;
    long long at = start;
    unsigned int eol = 0;
    bool found = false;
    while (!found) {
        unsigned int left = 0;
        const unsigned char* bytes = bufferAt(at, window, &left);
        if (bytes == nullptr) {
            if (wide) {
                UTL_LOG(LEVEL_ERROR, "in findNextLineSize func file read error 2byte");
            } else {
                UTL_LOG(LEVEL_ERROR, "in findNextLineSize func file read error %dbyte", 6);
            }
            return false;
        }
        if (left < (wide ? 2u : 1u)) {
            break;
        }
        // Characters are taken from memory while a whole window is buffered (or the rest of the
        // file is); then the buffer is refilled from the next character on.
        const unsigned char* end = bytes + left;
        const unsigned char* stop = mBufferAtEnd ? end : end - (window - 1);
        const unsigned char* s = bytes;
        while (s < stop && !found) {
            if (!wide) {
                const unsigned char* plain = skipPlainAscii(s, stop);
                if (plain != s) {
                    eol = 0;
                    s = plain;
                    if (s >= stop) {
                        break;
                    }
                }
            }
            unsigned int length = 2;
            unsigned int code = 0;
            if (wide) {
                const unsigned char* plain = s;
                while (end - plain >= 2 && (code = unitAt(plain, mTextType)) != '\n' &&
                       code != '\r') {
                    plain += 2;
                }
                if (plain != s) {
                    eol = 0;
                    s = plain;
                    continue;
                }
                if (end - s < 2) {
                    break;
                }
                code = unitAt(s, mTextType);
            } else {
                length = characterBytes(s);
                if (length == 0) {
                    return false;
                }
                code = length == 1 ? s[0] : 0x80;
            }
            s += length;
            if (code == '\r') {
                eol += length;
            } else if (code == '\n') {
                eol += length;
                found = true;
            } else {
                eol = 0;
            }
        }
        at += s - bytes;
        if (mBufferAtEnd && s >= end - (wide ? 1 : 0) && !found) {
            break;
        }
    }
    const unsigned int total = static_cast<unsigned int>(at - start);
    scan->next = at;
    scan->total = found ? total : 0;
    scan->contentBytes = total - eol;
    scan->eolBytes = eol;
    return true;
}

int File::findNextLineSize(unsigned int limit, unsigned int* contentBytes, unsigned int* eolBytes) {
    static_cast<void>(limit);
    if (!isOpened()) {
        UTL_LOG(LEVEL_ERROR, "in findNextLineSize func file is not opened");
        return FAILED;
    }
    LineScan scan;
    const long long start = position();
    if (mTextType < TEXT_SJIS || mTextType > TEXT_UTF16LE || start < 0 || !scanLine(start, &scan)) {
        return FAILED;
    }
    mCursor = scan.next;
    mBuffered = true;
    if (contentBytes != nullptr) {
        *contentBytes = scan.contentBytes;
    }
    if (eolBytes != nullptr) {
        *eolBytes = scan.eolBytes;
    }
    return static_cast<int>(scan.total);
}

bool File::convertLine(const unsigned char* bytes, unsigned int count, char* out,
                       unsigned int outSize, unsigned int* textSize) const {
    unsigned char copy[TEXT_LIMIT + 2];
    std::memcpy(copy, bytes, count);
    copy[count] = 0;
    copy[count + 1] = 0;
    return convertText(copy, count, out, outSize, 0, textSize) >= 0;
}

int File::readLine(char* out, unsigned int outSize, unsigned int* lineSize) {
    if (outSize >= TEXT_LIMIT || !isOpened() || mTextType < TEXT_SJIS || mTextType > TEXT_UTF16LE) {
        return FAILED;
    }
    LineScan scan;
    const long long start = position();
    if (start < 0 || !scanLine(start, &scan)) {
        return FAILED;
    }
    if (scan.next == start) {
        return END_OF_FILE;
    }
    if (scan.contentBytes >= TEXT_LIMIT || out == nullptr || outSize == 0) {
        return FAILED;
    }
    unsigned int text = 1;
    if (scan.contentBytes == 0) {
        out[0] = '\0';
    } else {
        unsigned int count = 0;
        const unsigned char* bytes = bufferAt(start, scan.contentBytes, &count);
        if (bytes == nullptr) {
            return FAILED;
        }
        count = count < scan.contentBytes ? count : scan.contentBytes;
        if (mTextType == TEXT_UTF8) {
            // UTF-8 needs no conversion: the text (up to a zero byte, after a byte order mark)
            // goes straight from the buffer into `out`.
            if (count >= 3 && std::memcmp(bytes, "\xEF\xBB\xBF", 3) == 0) {
                bytes += 3;
                count -= 3;
            }
            const void* zero = std::memchr(bytes, 0, count);
            if (zero != nullptr) {
                count = static_cast<unsigned int>(static_cast<const unsigned char*>(zero) - bytes);
            }
            if (count >= outSize) {
                return FAILED;
            }
            copyShort(out, bytes, count);
            out[count] = '\0';
            text = count + 1;
        } else if (!convertLine(bytes, count, out, outSize, &text)) {
            return FAILED;
        }
    }
    if (lineSize != nullptr) {
        *lineSize = text;
    }
    mCursor = start + scan.contentBytes + scan.eolBytes;
    mBuffered = true;
    return static_cast<int>(scan.contentBytes + scan.eolBytes);
}

int File::readLine(BasicString<char>* out, unsigned int* lineSize) {
    if (out == nullptr) {
        return FAILED;
    }
    char* text = new (std::nothrow) char[kTextBytes];
    if (text == nullptr) {
        return FAILED;
    }
    const long long start = position();
    int result = readLine(text, TEXT_LIMIT - 1, lineSize);
    if (result >= 0 && !out->copy(text, ~0u, 0)) {
        mCursor = start;
        result = FAILED;
    }
    delete[] text;
    return result;
}

unsigned long long File::nextEOLSize() {
    constexpr unsigned long long kFailed = 0xFFFFFFFFu;
    const long long at = position();
    if (at < 0) {
        return kFailed;
    }
    unsigned int count = 0;
    const unsigned char* bytes = bufferAt(at, 2, &count);
    if (bytes == nullptr) {
        return kFailed;
    }
    mCursor = at;
    mBuffered = true;
    if (count == 0) {
        return 0;
    }
    if (bytes[0] == '\r' && count >= 2 && bytes[1] == '\n') {
        return 2;
    }
    return bytes[0] == '\r' || bytes[0] == '\n' ? 1 : kFailed;
}

long long File::seekKey(const unsigned char* key, unsigned int keyLength, unsigned long long from,
                        unsigned long long to, int origin) {
    if (!isOpened() || key == nullptr || keyLength == 0 || !dropBuffer()) {
        return -1;
    }
    const long long saved = position();
    if (saved < 0 ||
        (from != FROM_CURRENT && seekFile(static_cast<long long>(from), SEEK_SET) < 0)) {
        return -1;
    }
    long long at = from == FROM_CURRENT ? saved : static_cast<long long>(from);
    unsigned char chunk[4096];
    unsigned int chunkCount = 0;
    unsigned int chunkIndex = 0;
    unsigned int matched = 0;
    for (unsigned long long scanned = 0; scanned < to; ++scanned, ++at) {
        if (chunkIndex == chunkCount) {
            const ssize_t got =
                UTL_FILE_CALL("readFile", ::read(descriptor(), chunk, sizeof(chunk)));
            if (got <= 0) {
                seekFile(saved, SEEK_SET);
                return got == 0 ? KEY_NOT_FOUND : -1;
            }
            chunkCount = static_cast<unsigned int>(got);
            chunkIndex = 0;
        }
        // A mismatch starts over with the next byte; the mismatching byte is not tried as the
        // key's first byte.
        matched = chunk[chunkIndex++] == key[matched] ? matched + 1 : 0;
        if (matched == keyLength) {
            const long long keyStart = at + 1 - keyLength;
            return seekFile(origin == 1 ? at + 1 : keyStart, SEEK_SET);
        }
    }
    seekFile(saved, SEEK_SET);
    return KEY_NOT_FOUND;
}

long long File::seekKey(const char* key, unsigned long long from, unsigned long long to,
                        int origin) {
    if (key == nullptr) {
        return -1;
    }
    return seekKey(reinterpret_cast<const unsigned char*>(key),
                   static_cast<unsigned int>(std::strlen(key)), from, to, origin);
}

bool File::resize() {
    if (!isOpened() || !dropBuffer()) {
        return false;
    }
    const long long at = position();
    if (at < 0) {
        return false;
    }
    if (UTL_FILE_CALL("resize", ftruncate64(descriptor(), at)) != 0) {
        UTL_LOG(LEVEL_ERROR, "ftruncate Failed. Path:%s", mPath.c_str());
        return false;
    }
    return true;
}

bool File::resize(unsigned long long newSize) {
    if (!isOpened() || !dropBuffer()) {
        return false;
    }
    const long long at = position();
    const long long target = static_cast<long long>(newSize);
    if (at < 0 || seekFile(target, SEEK_SET) < 0 || !resize()) {
        return false;
    }
    return at >= target || seekFile(at, SEEK_SET) >= 0;
}

// static
bool File::isOpened(const char* path, bool* sharedOnly) {
    if (path == nullptr) {
        return false;
    }
    BasicString<char> normal(path, 0, 1);
    normal.replace("\\", "/", 0);
    if (isDirectory(normal.c_str()) || !exists(normal.c_str())) {
        return false;
    }
    const int fd = UTL_FILE_CALL("isOpened", open64(normal.c_str(), O_RDONLY, kModeAll));
    if (!isOpenedDescriptor(fd)) {
        return false;
    }
    bool held = false;
    if (UTL_FILE_CALL("isOpened", flock(fd, LOCK_EX | LOCK_NB)) != 0) {
        held = true;
        if (UTL_FILE_CALL("isOpened", flock(fd, LOCK_SH | LOCK_NB)) == 0 && sharedOnly != nullptr) {
            *sharedOnly = true;
        }
    }
    UTL_FILE_CALL("isOpened", (releaseDescriptor(fd), 0));
    return held;
}

// static
bool File::extractFileName(char* out, unsigned int size, const char* path, int withoutExtension) {
    char work[kPathBytes];
    if (!normalizePath(work, path)) {
        return false;
    }
    keepFileName(work);
    if (withoutExtension == 1) {
        if (char* dot = std::strrchr(work, '.')) {
            *dot = '\0';
        }
    }
    return copyOut(out, size, work);
}

// static
bool File::extractDirectoryPath(char* out, unsigned int size, const char* path) {
    char work[kPathBytes];
    if (!normalizePath(work, path)) {
        return false;
    }
    keepDirectory(work);
    return copyOut(out, size, work);
}

// static
bool File::extractExtension(char* out, unsigned int size, const char* path) {
    char work[kPathBytes];
    if (!normalizePath(work, path)) {
        return false;
    }
    keepExtension(work);
    return copyOut(out, size, work);
}

// static
bool File::extractVolumeName(char* out, unsigned int size, const char* path) {
    char work[kPathBytes];
    if (!normalizePath(work, path)) {
        return false;
    }
    const char* start = work + std::strspn(work, "/");
    const std::size_t length = std::strcspn(start, "/");
    std::memmove(work, start, length);
    work[length] = '\0';
    return copyOut(out, size, work);
}

// static
bool File::exists(const char* path) {
    char work[kPathBytes];
    struct stat64 info;
    return normalizePath(work, path) && statPath("exists", __LINE__, work, &info);
}

// static
bool File::isDirectory(const char* path) {
    char work[kPathBytes];
    struct stat64 info;
    return normalizePath(work, path) && statPath("isDirectory", __LINE__, work, &info) &&
           (info.st_mode & S_IFMT) == S_IFDIR;
}

// static
bool File::isReadOnly(const char* path) {
    if (path == nullptr) {
        UTL_LOG(LEVEL_ERROR, "isReadOnly func 0 == npPath false");
        return false;
    }
    char work[kPathBytes];
    if (!normalizePath(work, path)) {
        return false;
    }
    struct stat64 info;
    if (!statPath("isReadOnly", __LINE__, work, &info)) {
        UTL_LOG(LEVEL_ERROR, "is isReadOnly func stat Failed. errno[%d] Path:%s", errno, work);
        return false;
    }
    return (info.st_mode & S_IWUSR) == 0;
}

// static
bool File::changeParentAccessMode(const char* path, int mode, int* oldMode) {
    char directory[kPathBytes];
    if (path == nullptr || path[0] == '\0' ||
        !extractDirectoryPath(directory, sizeof(directory), path) || directory[0] == '\0') {
        return false;
    }
    struct stat64 info;
    if (!statPath("changeParentAccessMode", __LINE__, directory, &info)) {
        UTL_LOG(LEVEL_DETAIL, "is changeParentAccessMode func stat Failed. errno[%d] Path:%s",
                errno, directory);
        return false;
    }
    if (oldMode != nullptr) {
        *oldMode = static_cast<int>(info.st_mode);
    }
    // The whole st_mode, type bits included, is compared on purpose: a permission-only mode
    // always differs, so the change always runs and callers always restore.
    if (static_cast<unsigned int>(mode) == info.st_mode) {
        return false;
    }
    return UTL_FILE_CALL("changeParentAccessMode", chmod(directory, static_cast<mode_t>(mode))) ==
           0;
}

// static
bool File::makeDirectories(const char* path) {
    char work[kPathBytes];
    if (!normalizePath(work, path)) {
        return false;
    }
    if (exists(work)) {
        return isDirectory(work);
    }
    const std::size_t length = std::strlen(work);
    for (std::size_t end = 1; end <= length; ++end) {
        if (end < length && work[end] != '/') {
            continue;
        }
        char prefix[kPathBytes];
        std::memcpy(prefix, work, end);
        prefix[end] = '\0';
        if (exists(prefix)) {
            continue;
        }
        int saved = kModeAll;
        const bool changed = changeParentAccessMode(prefix, kModeAll, &saved);
        const bool made = UTL_FILE_CALL("makeDirectories", mkdir(prefix, kModeAll)) == 0;
        const int error = errno;
        if (made) {
            UTL_FILE_CALL("makeDirectories", chmod(prefix, kModeAll));
        }
        if (changed) {
            changeParentAccessMode(prefix, saved, nullptr);
        }
        if (!made && error != EEXIST) {
            UTL_LOG(LEVEL_ERROR, "CreateDirectory Failed. errno[%d] Path:%s(%s)", error, work,
                    prefix);
            return false;
        }
        if (!made && !isDirectory(prefix)) {
            return false;
        }
    }
    return true;
}

namespace {

// Applies `change` to `path` and, when recursive, to everything under it, each directory before
// its contents.
bool changeTree(const char* path, int recursive, int mode, const char* operation,
                const char* failure) {
    bool ok = UTL_FILE_CALL(operation, chmod(path, static_cast<mode_t>(mode))) == 0;
    if (!ok) {
        UTL_LOG(LEVEL_ERROR, failure, path);
    }
    if (recursive != 0 && File::isDirectory(path)) {
        const bool listed = forEachEntry(path, [&](const char* entry, bool) {
            ok = changeTree(entry, recursive, mode, operation, failure) && ok;
            return kVisitGoOn;
        });
        ok = ok && listed;
    }
    return ok;
}

}  // namespace

namespace {

// A path that is no directory may end in a pattern: `work` keeps the directory to list and
// `pattern` receives the last component. False when it has none.
bool splitPattern(char (&work)[kPathBytes], char (&pattern)[kPathBytes]) {
    char* slash = std::strrchr(work, '/');
    const char* last = slash != nullptr ? slash + 1 : work;
    if (std::strpbrk(last, "*?[]") == nullptr || slash == nullptr) {
        return false;
    }
    std::memcpy(pattern, last, std::strlen(last) + 1);
    *slash = '\0';
    return true;
}

bool hasExtension(const char* entry, const char* extension) {
    char found[kPathBytes];
    return File::extractExtension(found, sizeof found, entry) &&
           compareStrNoCase(found, extension, ~0u) == 0;
}

}  // namespace

// static
int File::children(const char* path, Array<BasicString<char>>* out, int kind, const char* extension,
                   unsigned int maxCount) {
    char work[kPathBytes];
    char pattern[kPathBytes] = "";
    if (out == nullptr || !normalizePath(work, path) ||
        (!isDirectory(work) && !splitPattern(work, pattern))) {
        return -1;
    }
    unsigned int count = 0;
    const bool listed = forEachEntry(work, [&](const char* entry, bool isDirectoryEntry) {
        const char* name = std::strrchr(entry, '/') + 1;
        if ((kind == 0 && isDirectoryEntry) || (kind == 1 && !isDirectoryEntry) ||
            (!isDirectoryEntry && extension != nullptr && !hasExtension(entry, extension)) ||
            (pattern[0] != '\0' && fnmatch(pattern, name, FNM_NOESCAPE) != 0)) {
            return kVisitGoOn;
        }
        if (!out->insertAt(out->getCount(), BasicString<char>(entry, 0, 1))) {
            return kVisitFail;
        }
        ++count;
        return maxCount != 0 && count >= maxCount ? kVisitStop : kVisitGoOn;
    });
    return listed ? static_cast<int>(count) : -1;
}

// static
bool File::applyReadOnly(const char* path, int recursive) {
    char work[kPathBytes];
    return normalizePath(work, path) && changeTree(work, recursive, kModeReadOnly, "applyReadOnly",
                                                   "applyReadOnly can't change %s");
}

// static
bool File::liftReadOnly(const char* path, int recursive) {
    char work[kPathBytes];
    return normalizePath(work, path) &&
           changeTree(work, recursive, kModeAll, "liftReadOnly", "liftReadOnly can't change %s");
}

// static
bool File::move(const char* source, const char* destination) {
    char from[kPathBytes];
    char to[kPathBytes];
    char directory[kPathBytes];
    if (!normalizePath(from, source) || !normalizePath(to, destination) || !exists(from)) {
        return false;
    }
    if (std::strcmp(from, to) == 0) {
        return true;
    }
    if (!extractDirectoryPath(directory, sizeof(directory), to) ||
        (directory[0] != '\0' && !makeDirectories(directory))) {
        return false;
    }
    if (UTL_FILE_CALL("move", rename(from, to)) != 0) {
        UTL_LOG(LEVEL_ERROR, "rename Failed. errno[%d] Source:%s  Dest:%s", errno, from, to);
        return false;
    }
    return true;
}

// static
bool File::copy(const char* source, const char* destination, int overwrite) {
    char from[kPathBytes];
    char to[kPathBytes];
    char directory[kPathBytes];
    if (!normalizePath(from, source) || !normalizePath(to, destination) || !exists(from) ||
        isDirectory(from) || !extractDirectoryPath(directory, sizeof(directory), to) ||
        (directory[0] != '\0' && !makeDirectories(directory)) || isOpened(from, nullptr)) {
        return false;
    }
    const bool existed = exists(to);
    if (existed && overwrite == 0) {
        return false;
    }
    SmartHandle<DestructCloseFile> input;
    if (!input.set(UTL_FILE_CALL("copy", open64(from, O_RDONLY))) ||
        !isOpenedDescriptor(input.get())) {
        return false;
    }
    struct stat64 info;
    if (UTL_FILE_CALL("copy", fstat64(input.get(), &info)) != 0) {
        UTL_LOG(LEVEL_ERROR, "in copy func stat Failed. errno[%d] Path:%s", errno, from);
        return false;
    }
    // Overwriting truncates, so that the copy never keeps a tail of the old contents.
    const int flags = existed ? O_WRONLY | O_CREAT | O_TRUNC : O_WRONLY | O_CREAT | O_EXCL;
    SmartHandle<DestructCloseFile> output;
    if (!output.set(UTL_FILE_CALL("copy", open64(to, flags, info.st_mode & 07777))) ||
        !isOpenedDescriptor(output.get())) {
        return false;
    }
    UTL_FILE_CALL("copy", chmod(to, kModeAll));
    char block[1024];
    for (;;) {
        const ssize_t got = UTL_FILE_CALL("copy", ::read(input.get(), block, sizeof(block)));
        if (got <= 0) {
            return got == 0;
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put =
                UTL_FILE_CALL("copy", ::write(output.get(), block + done, got - done));
            if (put <= 0) {
                return false;
            }
            done += put;
        }
    }
}

// static
bool File::erase(const char* path, int force) {
    char work[kPathBytes];
    if (!normalizePath(work, path) || !exists(work)) {
        return false;
    }
    const bool directory = isDirectory(work);
    bool ok = true;
    if (directory) {
        const bool listed = forEachEntry(work, [&](const char* entry, bool) {
            ok = erase(entry, force) && ok;
            return kVisitGoOn;
        });
        ok = ok && listed;
    }
    if (force != 0) {
        if (!liftReadOnly(work, 0)) {
            UTL_LOG(LEVEL_ERROR, "Can't erase force because Not Permited:%s", work);
            return false;
        }
    } else if (isReadOnly(work)) {
        return false;
    }
    if (directory) {
        if (UTL_FILE_CALL("erase", rmdir(work)) != 0) {
            UTL_LOG(LEVEL_ERROR, "rmdir Failed.Path:%s errno[%d]", work, errno);
            return false;
        }
    } else if (UTL_FILE_CALL("erase", unlink(work)) != 0) {
        UTL_LOG(LEVEL_ERROR, "remove failed. errno[%d] Path:%s", errno, work);
        return false;
    }
    return ok;
}

// static
long long File::size(const char* path) {
    char work[kPathBytes];
    if (!normalizePath(work, path)) {
        return -1;
    }
    if (isDirectory(work)) {
        long long total = 0;
        const bool listed = forEachEntry(work, [&](const char* entry, bool) {
            const long long part = size(entry);
            if (part < 0) {
                return kVisitFail;
            }
            total += part;
            return kVisitGoOn;
        });
        return listed ? total : -1;
    }
    SmartHandle<DestructCloseFile> handle;
    const int fd = UTL_FILE_CALL("size", open64(work, O_RDONLY));
    if (!isOpenedDescriptor(fd) || !handle.set(fd)) {
        UTL_LOG(LEVEL_ERROR, "in size func open Failed. Path:%s errno[%d]", work, errno);
        return -1;
    }
    struct stat64 info;
    if (UTL_FILE_CALL("size", fstat64(fd, &info)) != 0) {
        UTL_LOG(LEVEL_ERROR, "fstat Failed. errno[%d]", errno);
        return -1;
    }
    return info.st_size;
}

bool File::getFileName(char* out, unsigned int size, int withoutExtension) const {
    return extractFileName(out, size, mPath.c_str(), withoutExtension);
}

bool File::getFileName(BasicString<char>* out, int withoutExtension) const {
    char part[kPathBytes];
    return out != nullptr && getFileName(part, sizeof(part), withoutExtension) &&
           out->copy(part, ~0u, 0);
}

bool File::getDirectoryPath(char* out, unsigned int size) const {
    return extractDirectoryPath(out, size, mPath.c_str());
}

bool File::getDirectoryPath(BasicString<char>* out) const {
    char part[kPathBytes];
    return out != nullptr && getDirectoryPath(part, sizeof(part)) && out->copy(part, ~0u, 0);
}

bool File::getExtension(char* out, unsigned int size) const {
    return extractExtension(out, size, mPath.c_str());
}

bool File::getExtension(BasicString<char>* out) const {
    char part[kPathBytes];
    return out != nullptr && getExtension(part, sizeof(part)) && out->copy(part, ~0u, 0);
}

bool File::getVolumeName(char* out, unsigned int size) const {
    return extractVolumeName(out, size, mPath.c_str());
}

bool File::getVolumeName(BasicString<char>* out) const {
    char part[kPathBytes];
    return out != nullptr && getVolumeName(part, sizeof(part)) && out->copy(part, ~0u, 0);
}

bool File::exists() const {
    return exists(mPath.c_str());
}

bool File::isDirectory() const {
    return isDirectory(mPath.c_str());
}

bool File::isReadOnly() const {
    return isReadOnly(mPath.c_str());
}

bool File::makeDirectories() {
    return makeDirectories(mPath.c_str());
}

int File::children(Array<BasicString<char>>* out, int kind, const char* extension,
                   unsigned int maxCount) const {
    return children(mPath.c_str(), out, kind, extension, maxCount);
}

bool File::applyReadOnly(int recursive) {
    return applyReadOnly(mPath.c_str(), recursive);
}

bool File::liftReadOnly(int recursive) {
    return liftReadOnly(mPath.c_str(), recursive);
}

bool File::move(const char* destination) {
    if (!isOpened() && move(mPath.c_str(), destination)) {
        mPath.copy(destination, ~0u, 0);
        mPath.replace("\\", "/", 0);
        return true;
    }
    return false;
}

bool File::copy(const char* destination, int overwrite) const {
    return copy(mPath.c_str(), destination, overwrite);
}

bool File::erase(int force) {
    return !isOpened() && erase(mPath.c_str(), force);
}

}  // namespace utl
