// Files of utl: one file of the local file system under an inter-process lock, bytes at a 64-bit
// position, text in Shift_JIS, UTF-8 or UTF-16 exchanged with the caller as UTF-8, and the static
// path and file-system operations (name parts, queries, directories, permissions, move, copy,
// erase, size).
//
// Use `File` wherever several processes may touch the same file: a writer holds an exclusive
// `flock` lock and readers a shared one, both taken without waiting, so a second writer fails at
// once instead of blocking. Positions and sizes are 64-bit on every platform.
//
//   utl::File log("/mnt/sd/logs/today.txt", utl::File::TEXT_UTF8);
//   if (log.open(utl::File::OPEN_APPEND, utl::File::ACCESS_WRITE)) {  // makes /mnt/sd/logs
//       utl::File::AutoClose closer(log);
//       log.writeLine("started");
//   }
#ifndef UTL_FILE_H
#define UTL_FILE_H

#include <cstdint>

#include "UtlArray.h"
#include "UtlSmartPointer.h"
#include "UtlString.h"

namespace utl {

// Calls close() on a file object when it leaves scope. Each file class names its guard
// AutoClose (`utl::File::AutoClose closer(file);`).
template <class Closable>
class AutoCloseGuard {
  public:
    explicit AutoCloseGuard(Closable& file) : mFile(file) {}
    virtual ~AutoCloseGuard() { mFile.close(); }
    AutoCloseGuard(const AutoCloseGuard&) = delete;
    AutoCloseGuard& operator=(const AutoCloseGuard&) = delete;

  private:
    Closable& mFile;
};

// A file addressed by a path, opened under an advisory whole-file lock.
//
// Paths use "/" (a backslash is taken as a slash), are at most 259 bytes long and never hold two
// adjacent separators; an invalid path makes every path operation fail. Every blocking system
// call is bracketed by liveness reports, so a slow medium never trips the thread watchdog.
//
// Thread-safety: a `File` object has no lock of its own; one thread uses it at a time. The static
// operations may be called from any thread. Between processes `flock` gives many readers or one
// writer.
//
// Life cycle:
//   state   | reached by                        | calls in this state
//   Closed  | construction, close(), failed open| open() as described; data calls give -1/false
//   Opened  | open() returning true             | open() gives false; all data calls work
//
// Line reading is buffered: `readLine`, `findNextLineSize` and `nextEOLSize` read the file in
// blocks of BUFFER_BYTES and hand out lines from memory, with exactly the results of scanning it
// one character at a time. The buffer assumes that nobody else changes the file while it is
// opened, which the lock guarantees for every other user of this class.
class File {
  public:
    // Text types: the encoding of the file's text.
    static constexpr int TEXT_SJIS = 0;     // read only: writing text is refused
    static constexpr int TEXT_UTF8 = 1;     // a leading byte order mark is skipped on reading
    static constexpr int TEXT_UTF16BE = 2;  // no byte order mark written or skipped
    static constexpr int TEXT_UTF16LE = 3;  // no byte order mark written or skipped
    // Open modes.
    static constexpr int OPEN_EXISTING = 0;  // open (writers create the file)
    static constexpr int OPEN_APPEND = 1;    // as OPEN_EXISTING, then position at the end
    static constexpr int OPEN_TRUNCATE = 2;  // create or truncate to length 0; writers only
    // Access modes (the access bits of open64).
    static constexpr int ACCESS_READ = 0;
    static constexpr int ACCESS_WRITE = 1;
    static constexpr int ACCESS_READ_WRITE = 2;
    // Origins of `seek`: the library's own numbering, end before current.
    static constexpr int SEEK_FROM_BEGIN = 0;
    static constexpr int SEEK_FROM_END = 1;
    static constexpr int SEEK_FROM_CURRENT = 2;
    // Results of the data calls besides counts.
    static constexpr int FAILED = -1;
    static constexpr int END_OF_FILE = -3;
    // `seekKey`: the key was not found; `from` value that starts at the current position.
    static constexpr long long KEY_NOT_FOUND = -2;
    static constexpr unsigned long long FROM_CURRENT = ~0ULL - 1;
    // Text calls move at most this many bytes minus one per call.
    static constexpr unsigned int TEXT_LIMIT = 5120;
    // Bytes of a path buffer, terminator included.
    static constexpr unsigned int PATH_BYTES = 260;
    // Bytes of the line-reading buffer.
    static constexpr unsigned int BUFFER_BYTES = 16384;

    // Calls close() on the file when it leaves scope.
    using AutoClose = AutoCloseGuard<File>;

    // Stores `path` (null: empty) with backslashes turned into slashes and the text type (not
    // checked here). Opens nothing.
    File(const char* path, int textType);
    // Closes the file (syncing the descriptor when this was its last holder), then syncs the
    // directory that holds the path so that a new directory entry is durable.
    virtual ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Opens with `openMode` (OPEN_*) and `accessMode` (ACCESS_*). False, unlogged, for a
    // directory, an opened file, openMode above 2, a missing file or OPEN_TRUNCATE when reading,
    // and a read-only file when writing. Writers create the missing directories and new files get
    // mode 0777 whatever the umask; the parent directory is made accessible for the call and its
    // mode restored on every path. False, logged at debug level, when another opener holds a
    // conflicting lock (never waits). Descriptor 0 counts as a failed open.
    bool open(int openMode, int accessMode);
    // Lets go of the descriptor (synced and closed by its last holder). True.
    bool close();
    bool isOpened() const;
    // Accepts TEXT_SJIS..TEXT_UTF16LE; false keeps the old type.
    bool setTextType(int type);
    int getTextType() const { return mTextType; }
    // Does nothing: every descriptor is synced when it is closed. True.
    bool flush();

    const char* getPath() const { return mPath.c_str(); }
    // Copies the path; false when it does not fit in `size` bytes.
    bool getPath(char* buffer, unsigned int size) const;
    bool getPath(BasicString<char>* out) const;

    // Moves to `offset` from `origin` (SEEK_FROM_*). The new position, or -1 when closed, for
    // another origin, or when lseek64 fails ("lseek64 Failed. errno[%d]").
    long long seek(long long offset, int origin);
    // The current position; -1 when closed.
    long long position() const;
    // The length of the open file; -1 when closed or fstat fails ("fstat Failed. errno[%d]").
    long long size() const;
    // Length minus position, 0 at or past the end; -1 when closed or a query fails.
    long long availableSize() const;

    // One read(2) of at most `length` bytes: the count read (short reads are not retried),
    // END_OF_FILE at or past the end, -1 when closed, for a null buffer, length 0 or above
    // 0x7FFFFFFF, or a failing read (logged).
    int read(void* buffer, unsigned int length);
    // One write(2) of `length` bytes: the count written; -1 when closed, for null data, length 0
    // or a failing write (logged). When the parent directory was not fully accessible at open
    // it is made so for the call and restored afterwards.
    int write(const void* data, unsigned int length);

    // Writes `text` (UTF-8) in the file's encoding without its terminator and without a byte
    // order mark: the encoded bytes from `offset` on, at most `maxBytes` of them. The count
    // written; -1 when closed, for null text, maxBytes of TEXT_LIMIT or more, Shift_JIS (never
    // written), a failed conversion, or an offset not below the encoded length.
    int writeText(const char* text, unsigned int maxBytes, unsigned int offset);
    // writeText(text) then a single LF in the file's encoding; the sum or -1.
    int writeLine(const char* text);

    // Reads min(fileBytes, available) bytes of text (UTF-16: lowered to an even count; a last
    // odd byte alone counts as the end) and stores them as
    // UTF-8 at out + outOffset, terminated. `*textSize` (may be null) gets the UTF-8 size with
    // terminator. With outSize 0 only measures (the position still advances). Returns the file
    // bytes read; END_OF_FILE when nothing is left; -1 for a bad type, a closed file, fileBytes 0
    // or TEXT_LIMIT or more, a null `out` with outSize > 0, a failed conversion or too small an
    // `out` (the position has then already advanced).
    int readText(char* out, unsigned int outSize, unsigned int fileBytes, unsigned int outOffset,
                 unsigned int* textSize);
    // As above into the string's buffer (a null string measures). A fixed string must already
    // have room for the text.
    int readText(BasicString<char>* out, unsigned int fileBytes, unsigned int outOffset,
                 unsigned int* textSize);

    // Reads the next line as UTF-8 without its line end (LF, CR LF, or a CR before the end of the
    // file; a lone CR inside a line is kept as text) and moves to the start of the next line.
    // `*lineSize` (may be null) gets the UTF-8 size with terminator. Returns the file bytes the
    // line took, line end included; END_OF_FILE when nothing is left; -1 when closed, for
    // outSize of TEXT_LIMIT or more, for a line of TEXT_LIMIT content bytes or more, when `out` is
    // too small or conversion fails: the position then stays at the start of the line.
    int readLine(char* out, unsigned int outSize, unsigned int* lineSize);
    // As above into the string (grown when it is auto-extending).
    int readLine(BasicString<char>* out, unsigned int* lineSize);

    // Scans the line at the position and leaves the position where the scan stopped (after the
    // LF, or at the end). Returns the line's bytes with its end when an LF ended it, 0 when the
    // file ended first; `*contentBytes` and `*eolBytes` (may be null) get the bytes before the
    // line end and of the line end (CR LF: 2, or 4 in UTF-16). -1 when closed (logged) or on a
    // read error. `limit` does not bound the scan. Characters are measured as the text type
    // reads them: UTF-16 by units; Shift_JIS by the conversion's rules (a lead byte takes the next
    // byte with it); UTF-8 with an invalid lead byte and a zero byte as one byte and a cut or
    // malformed sequence as three (which may step over a line end or past the end of the file).
    int findNextLineSize(unsigned int limit, unsigned int* contentBytes, unsigned int* eolBytes);
    // At the position: 2 for CR LF, 1 for a lone CR or LF, 0 at the end of the file and -1
    // otherwise or on error (in the low 32 bits). The position is kept.
    unsigned long long nextEOLSize();

    // Looks for the `keyLength` bytes of `key`, starting at offset `from` (FROM_CURRENT: at the
    // position) and scanning at most `to` bytes. A mismatch restarts the match with the next
    // byte without comparing the mismatching byte again (so "aab" is not found in "aaab").
    // Found: the position of the key's first byte (origin 1: just after the key), where the file
    // is left. KEY_NOT_FOUND keeps the position; -1 when closed, for a null key or length 0, or on
    // a read error (position kept).
    long long seekKey(const unsigned char* key, unsigned int keyLength, unsigned long long from,
                      unsigned long long to, int origin);
    long long seekKey(const char* key, unsigned long long from, unsigned long long to, int origin);

    // Truncates at the position ("ftruncate Failed. Path:%s" on failure).
    bool resize();
    // Truncates to `newSize`; the position is kept when it lies before `newSize`, else it ends at
    // the new end.
    bool resize(unsigned long long newSize);

    // Whether another opener holds `path` locked; `*sharedOnly` (may be null) becomes true when
    // all holders only read and is never set to false, so initialise it. False for a directory,
    // a missing file, or one this process cannot open for reading.
    static bool isOpened(const char* path, bool* sharedOnly);

    // Name parts of `path`, stored in `out` of `size` bytes; false for an invalid path or when the
    // result does not fit. File name: the last component (`a/b/` gives "b"); withoutExtension 1
    // cuts at its last ".". Directory: the path without its last component and trailing
    // separators ("x" and "/x" give ""). Extension: after the last "." of the file name, or "".
    // Volume: the first component ("/mnt/sd/x" gives "mnt").
    static bool extractFileName(char* out, unsigned int size, const char* path,
                                int withoutExtension);
    static bool extractDirectoryPath(char* out, unsigned int size, const char* path);
    static bool extractExtension(char* out, unsigned int size, const char* path);
    static bool extractVolumeName(char* out, unsigned int size, const char* path);

    // stat succeeds (silent).
    static bool exists(const char* path);
    // stat succeeds and names a directory (silent).
    static bool isDirectory(const char* path);
    // The owner-write bit is clear; false (logged) for a null path or a failing stat.
    static bool isReadOnly(const char* path);
    // chmod's the directory holding `path` to `mode` when `mode` differs from its whole st_mode
    // (type bits included, so a permission-only mode always changes it); `*oldMode` (may be null)
    // gets that st_mode. True when chmod ran and succeeded; callers restore with
    // changeParentAccessMode(path, saved, nullptr) after a true result.
    static bool changeParentAccessMode(const char* path, int mode, int* oldMode);
    // Creates `path` and its missing ancestors with mode 0777; true when it already is a
    // directory (also when another process creates it at the same time).
    static bool makeDirectories(const char* path);
    // Appends to `out` the entries of the directory `path` as "path/name", in the order the
    // directory yields them: `kind` 0 files only, 1 directories only, 2 both (by the entry's
    // type); with a non-null `extension` only files with that extension (any case) and
    // directories; at most `maxCount` (0: all). A `path` that is not a directory may end in a
    // pattern ("logs/*.txt", any of *?[] in its last component, matched with fnmatch): its
    // directory is listed and only matching names are taken. The count appended, or -1 for a
    // null or invalid argument, a directory that cannot be read or an append that fails.
    static int children(const char* path, Array<BasicString<char>>* out, int kind,
                        const char* extension, unsigned int maxCount);
    // chmod 0555 / 0777 (logged on failure); recursive: a directory before its contents.
    static bool applyReadOnly(const char* path, int recursive);
    static bool liftReadOnly(const char* path, int recursive);
    // rename(2) after creating the destination's directory. An existing destination file is
    // replaced; a directory source moves only onto a missing or empty directory. No fallback
    // across file systems. Moving a path onto itself succeeds and does nothing.
    static bool move(const char* source, const char* destination);
    // Copies a file that no other opener holds to `destination` (directory created, mode 0777).
    // An existing destination is overwritten in place when `overwrite` is non-zero; otherwise
    // the copy fails and leaves it untouched. Times and ownership are not carried over.
    static bool copy(const char* source, const char* destination, int overwrite);
    // Removes a file, or a directory with everything under it. Without `force` read-only entries
    // (and so the directories holding them) stay; with it they are made writable first.
    static bool erase(const char* path, int force);
    // A file's length, or the sum over everything under a directory; -1 on failure.
    static long long size(const char* path);

    // The same operations on this object's path. move() and erase() refuse an opened file;
    // move() makes the destination this object's path.
    bool getFileName(char* out, unsigned int size, int withoutExtension) const;
    bool getFileName(BasicString<char>* out, int withoutExtension) const;
    bool getDirectoryPath(char* out, unsigned int size) const;
    bool getDirectoryPath(BasicString<char>* out) const;
    bool getExtension(char* out, unsigned int size) const;
    bool getExtension(BasicString<char>* out) const;
    bool getVolumeName(char* out, unsigned int size) const;
    bool getVolumeName(BasicString<char>* out) const;
    bool exists() const;
    bool isDirectory() const;
    bool isReadOnly() const;
    bool makeDirectories();
    int children(Array<BasicString<char>>* out, int kind, const char* extension,
                 unsigned int maxCount) const;
    bool applyReadOnly(int recursive);
    bool liftReadOnly(int recursive);
    bool move(const char* destination);
    bool copy(const char* destination, int overwrite) const;
    bool erase(int force);

  private:
    struct LineScan {
        long long next;             // where the scan stopped
        unsigned int total;         // the result of findNextLineSize
        unsigned int contentBytes;  // bytes before the line end
        unsigned int eolBytes;      // bytes of the line end
    };

    int descriptor() const { return mHandle.get(); }
    long long seekFile(long long offset, int whence) const;
    // Puts the descriptor at the buffered reading position and forgets the buffer.
    bool dropBuffer() const;
    // The bytes at `offset` in the buffer, refilled from there when fewer than `want` are
    // buffered and more are in the file; `*count` gets how many are buffered. Null on a read
    // error.
    const unsigned char* bufferAt(long long offset, unsigned int want, unsigned int* count) const;
    // Bytes of the character at `s` by the line rules of the text type; 0 when it cannot be
    // measured.
    unsigned int characterBytes(const unsigned char* s) const;
    bool scanLine(long long start, LineScan* scan) const;
    // The line's `count` file bytes as UTF-8 text in `out`.
    bool convertLine(const unsigned char* bytes, unsigned int count, char* out,
                     unsigned int outSize, unsigned int* textSize) const;
    // Converts `count` file bytes (followed by two zero bytes) into UTF-8 at out + outOffset,
    // measuring only when outSize is 0. The count, or -1.
    int convertText(unsigned char* bytes, unsigned int count, char* out, unsigned int outSize,
                    unsigned int outOffset, unsigned int* textSize) const;

    BasicString<char> mPath;
    SmartHandle<DestructCloseFile> mHandle;
    int32_t mTextType;
    // Line-reading buffer: bytes [mBufferStart, mBufferStart + mBufferCount) of the file, and
    // the reading position while mBuffered (the descriptor's own position is then stale).
    mutable unsigned char* mBuffer;
    mutable long long mBufferStart;
    mutable unsigned int mBufferCount;
    mutable bool mBufferAtEnd;  // the buffer reaches the end of the file
    mutable long long mCursor;
    mutable bool mBuffered;
    // Whether the parent directory was fully accessible when the file was opened.
    bool mParentAccessible;
};

}  // namespace utl

#endif  // UTL_FILE_H
