// Files of utl whose bytes are kept by the platform's storage layer.
//
// A `SecureFile` is a `File` whose bytes go through `QVStorage` (QVStorage.h) instead of a plain
// descriptor: the application keeps the `File` interface while the storage layer decides how the
// bytes are kept on the medium. Only whole-stream reading and writing are offered; positioning,
// text and line operations are refused.
//
//   utl::SecureFile settings("/data/settings.bin", utl::File::TEXT_UTF8);
//   if (settings.open(utl::File::OPEN_EXISTING, utl::File::ACCESS_WRITE)) {  // mode "w"
//       settings.write(bytes, length);
//       settings.close();
//   }
#ifndef UTL_SECURE_FILE_H
#define UTL_SECURE_FILE_H

#include "QVStorage.h"
#include "UtlFile.h"

namespace utl {

// A file kept through the storage layer. The operations below hide the `File` operations of the
// same names (the static path operations stay reachable). No `flock` lock is taken and no
// directory is made or has its mode changed: the storage layer is responsible for those.
//
// Not thread-safe: one thread at a time uses an object.
class SecureFile : public File {
  public:
    // The path and text type as for `File`, and a storage object of its own; when that cannot be
    // allocated every operation fails.
    SecureFile(const char* path, int textType);
    // Closes the storage, then frees it.
    ~SecureFile() override;

    // Opens the storage with the fopen mode that `accessMode` and `openMode` choose:
    //
    //   accessMode      | openMode 0 (OPEN_EXISTING) | 1 (OPEN_APPEND) | 2 (OPEN_TRUNCATE)
    //   ----------------+----------------------------+-----------------+------------------
    //   0 read          | "r", only if the file exists | refused       | refused
    //   1 write         | "w"                        | "a"             | "w"
    //   2 read-write    | "w+"                       | "a+"            | "w+"
    //
    // Read-write with open mode 0 truncates, unlike `File::open` (kept so). False without a
    // storage object, when open already, for any other mode, or when the storage refuses
    // ("SecureFile::open() Failed. Path:%s", error level).
    bool open(int openMode, int accessMode);
    // Closes the storage; whether it was open.
    bool close();
    // Whether the storage is open.
    bool isOpened() const;
    using File::isOpened;

    // The storage's Read / Write result (count, or -1). -1 without a storage object, when not
    // open, for a null buffer or a length of 0 (for `read` also above 0x7FFFFFFF).
    int read(void* buffer, unsigned int length);
    int write(const void* data, unsigned int length);
    // The stored size; -1 without a storage object.
    long long size() const;
    using File::size;

    // Refused: -1 (false for resize), whatever the state.
    int readText(char* out, unsigned int outSize, unsigned int fileBytes, unsigned int outOffset,
                 unsigned int* used);
    int readLine(char* out, unsigned int outSize, unsigned int* lineSize);
    long long seek(long long offset, int origin);
    long long seekKey(const unsigned char* key, unsigned int keyLength, unsigned long long from,
                      unsigned long long to, int origin);
    long long position() const;
    long long availableSize() const;
    bool resize();
    bool resize(unsigned long long newSize);

  private:
    QVStorage* mStorage;
};

}  // namespace utl

#endif  // UTL_SECURE_FILE_H
