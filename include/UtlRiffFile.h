// RIFF container files of utl: a 12-byte header ("RIFF", the file length minus 8, a form type of
// four characters) followed by sub-chunks, read and written one sub-chunk at a time.
//
// Use `RiffFile` for any RIFF-based format (WAVE, AVI, custom recordings): it keeps an index from
// sub-chunk number to header offset, so sub-chunks are opened by number without rescanning the
// file. All integers on disk are little-endian. No pad byte follows an odd-sized sub-chunk.
//
//   utl::RiffFile riff("/mnt/sd/rec.bin", 16);
//   if (riff.open(1, 1) == utl::RiffFile::OPEN_SUCCESS) {
//       utl::RiffFile::AutoClose closer(riff);  // brings the sizes in the headers up to date
//       riff.setFormType("DEMO");
//       riff.addSubChunk("data");  // opened for writing
//       riff.write(samples, length);
//   }
#ifndef UTL_RIFF_FILE_H
#define UTL_RIFF_FILE_H

#include <cstdint>

#include "UtlArray.h"
#include "UtlFile.h"
#include "UtlSubChunk.h"
#include "UtlSync.h"

namespace utl {

// A RIFF file on a path, with one sub-chunk cursor.
//
// Sub-chunks are numbered from 0 in file order. The sizes stored in the headers are brought up to
// date only by `closeSubChunk` (the open sub-chunk's size) and `close` (the RIFF size); a file
// abandoned before that keeps zero or stale sizes. Identifiers and the form type are at most 4
// characters, stored padded with blanks and read back trimmed of trailing blanks. Only the last
// sub-chunk can grow: a write past the end of an earlier one is refused, not let into the next.
//
// Thread-safety: every public operation holds the object's lock, so an object may be shared
// between threads; the file itself is held under `File`'s inter-process lock while open.
//
// Life cycle:
//   state          | reached by                            | calls in this state
//   Closed         | construction, close(), failed open    | open(), setFormType() (kept for the
//                  |                                       | header of a new file); others fail
//   Open           | open() giving 0, closeSubChunk()      | addSubChunk(), openSubChunk(), info
//                  |                                       | calls; data calls give -1
//   Sub-chunk open | addSubChunk(), openSubChunk()         | data calls; adding or opening another
//                  |                                       | sub-chunk fails
class RiffFile {
  public:
    // Results of `open`.
    static constexpr int OPEN_SUCCESS = 0;
    static constexpr int OPEN_FAILED = 1;        // bad argument, already open, or File::open failed
    static constexpr int OPEN_NOT_RIFF = 2;      // shorter than 12 bytes or not starting "RIFF"
    static constexpr int OPEN_READ_ERROR = 3;    // a read failed while walking the sub-chunks
    static constexpr int OPEN_INDEX_FAILED = 4;  // the index could not grow (out of memory)
    // Result of `addSubChunk` on failure.
    static constexpr unsigned int INVALID_NUMBER = 0x7FFFFFFF;
    // Bytes of the file header.
    static constexpr unsigned int HEADER_BYTES = 12;

    // Calls close() on the file when it leaves scope.
    using AutoClose = AutoCloseGuard<RiffFile>;

    // Stores the path (text type 1) and makes an index with room for `indexCapacity` sub-chunks
    // that grows exactly as needed beyond that. Opens nothing.
    RiffFile(const char* path, unsigned int indexCapacity);
    // Closes.
    virtual ~RiffFile();
    RiffFile(const RiffFile&) = delete;
    RiffFile& operator=(const RiffFile&) = delete;

    // Opens the file: `create` 1 creates or truncates it, `writable` 1 opens it for reading and
    // writing (else reading only); both must be 0 or 1. A writable empty or new file gets a
    // fresh header (the form type last set or read, else blanks). Any other file is read: its
    // header checked and its sub-chunks walked from offset 12, each stepping to header + 8 +
    // data size, until a header cannot be read completely (trailing bytes are ignored) or a
    // size reaches past the end (that sub-chunk is kept, its reads end with the file).
    // OPEN_SUCCESS, or another OPEN_* code with the file left closed.
    int open(int create, int writable);
    // Closes an open sub-chunk, writes the RIFF size (length minus 8) when it changed and the
    // file is writable, then closes the file. False when closed, when a size cannot be written,
    // or when the length minus 8 exceeds 32 bits (nothing written); the file is closed anyway.
    bool close();
    bool isOpened() const;
    const char* getPath() const;

    // At most 4 characters. While open, written padded at offset 8 (position kept); while
    // closed, kept for the header of a new file. False for a null or longer type or a failed
    // write.
    bool setFormType(const char* type);
    // The form type, trimmed; "" before one was read or set.
    const char* getFormType() const;

    // Appends an empty sub-chunk `id` (1 to 4 characters), opens it for writing and returns its
    // number; INVALID_NUMBER when closed, when a sub-chunk is open, for a bad identifier, an index
    // that cannot grow or a failed write (the file may then hold a partial header).
    unsigned int addSubChunk(const char* id);
    // Opens sub-chunk `number` at the start of its data, or at its end when `append` is 1. False
    // when closed, a sub-chunk is open, for an unknown number, `append` not 0 or 1, or a header
    // that cannot be read.
    bool openSubChunk(unsigned int number, int append);
    // Writes the open sub-chunk's size into its header when it changed and closes the cursor.
    // False when none is open or the size cannot be written.
    bool closeSubChunk();
    // Whether `number` is the open sub-chunk.
    bool isOpenedSubChunk(int number) const;

    // Count of all sub-chunks, or of those with identifier `id` (trimmed as read); 0 when closed.
    unsigned int getSubChunkNumber();
    unsigned int getSubChunkNumber(const char* id);
    // Number, identifier and data size of sub-chunk `number` (the open one reports its tracked
    // size). False when closed, for an unknown number, a null `info` or an unreadable header.
    bool getSubChunkInfo(unsigned int number, SubChunkInfo* info);
    // Stores up to `capacity` descriptions in file order, of all sub-chunks or of those with
    // identifier `id`. Returns the count found, which exceeds `capacity` when the list was too
    // short (so capacity 0 with a null list measures); -1 when closed, for a null `id`, a null
    // list with a capacity above 0, or an unreadable header.
    int getSubChunkInfoList(SubChunkInfo* list, unsigned int capacity);
    int getSubChunkInfoList(const char* id, SubChunkInfo* list, unsigned int capacity);

    // The open sub-chunk's calls (see `SubChunk`); -1 when none is open. Positions and sizes
    // are relative to its data.
    int read(void* buffer, unsigned int length);
    int write(const void* data, unsigned int length);
    long long seek(int origin, long long offset);
    long long position() const;
    long long size() const;

  private:
    // The callers below hold mLock.
    int createHeader();
    int loadRiffInfo();
    int walkSubChunks(long long fileLength);
    bool writeRiffSize();
    int collectInfo(const char* id, SubChunkInfo* list, unsigned int capacity);
    bool readInfo(unsigned int number, unsigned long long headerOffset, SubChunkInfo* info);

    // All members below are guarded by mLock.
    File mFile;
    SubChunk mSubChunk;
    char mFormType[5];
    uint32_t mRiffSize;
    uint32_t mSubChunkCount;
    int32_t mOpenedNumber;
    bool mWritable;
    SyncObject mLock;
    Map<int, unsigned long long> mIndex;
};

}  // namespace utl

#endif  // UTL_RIFF_FILE_H
