// Sub-chunks of RIFF container files: the cursor through which `RiffFile` reads, writes and
// appends the data of one sub-chunk, and the description of a sub-chunk handed to callers.
//
// A sub-chunk is an identifier of four characters (shorter ones padded on the right with blanks),
// a 32-bit little-endian data size that does not count these 8 header bytes, and the data. No pad
// byte follows a sub-chunk of odd size: the next header starts right after the data.
//
//   utl::SubChunk chunk;
//   if (chunk.open(&file, headerOffset, 0)) {  // position at the start of the data
//       int got = chunk.read(buffer, sizeof(buffer));  // -4 at the end of the data
//       chunk.close();  // writes the data size into the header when it changed
//   }
#ifndef UTL_SUB_CHUNK_H
#define UTL_SUB_CHUNK_H

#include <cstdint>

#include "UtlFile.h"
#include "UtlSync.h"

namespace utl {

// One sub-chunk as a caller sees it: its number in the file (0 for the first after the RIFF
// header), its identifier trimmed of trailing blanks, and its data size. A plain value.
class SubChunkInfo {
  public:
    SubChunkInfo() : mNumber(0), mId(), mSize(0) {}
    // Copies at most 4 characters of `id` (null: empty).
    SubChunkInfo(unsigned int number, const char* id, unsigned int size);
    SubChunkInfo(const SubChunkInfo&) = default;
    SubChunkInfo& operator=(const SubChunkInfo&) = default;
    virtual ~SubChunkInfo() = default;

    unsigned int getNumber() const { return mNumber; }
    const char* getId() const { return mId; }
    unsigned int getSize() const { return mSize; }

    uint32_t mNumber;
    char mId[5];
    uint32_t mSize;
};

// The cursor over the data of one sub-chunk of a file it does not own.
//
// All positions are relative to the start of the sub-chunk's data. The data size is tracked in
// memory while the cursor is open (writing past the end grows it) and written into the header
// only by `close`, so a file abandoned while a sub-chunk is open keeps a stale size.
//
// Thread-safety: every operation holds the cursor's own lock, so one cursor may be shared, but
// the `File` it works on must not be used by anybody else while it is open.
//
// Life cycle:
//   state   | reached by                              | calls in this state
//   Closed  | construction, close(), failed add/open  | add(), open(); data calls give -1
//   Opened  | add() or open() returning true          | add()/open() give false; data calls work
class SubChunk {
  public:
    // Results of the data calls besides counts.
    static constexpr int FAILED = -1;
    static constexpr int END_OF_DATA = -4;
    // Origins of `seek`, numbered as for `File::seek`.
    static constexpr int SEEK_FROM_BEGIN = 0;
    static constexpr int SEEK_FROM_END = 1;
    static constexpr int SEEK_FROM_CURRENT = 2;
    // Bytes of a sub-chunk header and of a stored identifier.
    static constexpr unsigned int HEADER_BYTES = 8;
    static constexpr unsigned int ID_BYTES = 4;

    // Calls close() on the cursor when it leaves scope.
    using AutoClose = AutoCloseGuard<SubChunk>;

    // Closed, with everything zero.
    SubChunk();
    // Closes (bringing the header's size up to date).
    virtual ~SubChunk();
    SubChunk(const SubChunk&) = delete;
    SubChunk& operator=(const SubChunk&) = delete;

    // Appends an empty sub-chunk `id` (1 to 4 characters) at the end of `file` and opens it for
    // writing at its (empty) data. False for a null argument, a bad identifier, an open cursor or
    // a failed write (the file may then hold a partial header).
    bool add(File* file, const char* id);
    // Opens the sub-chunk whose header is at `headerOffset`: the position is left at the start of
    // the data, or at its end when `append` is 1. False for a null file, `append` not 0 or 1, an
    // open cursor, or a header that cannot be read completely.
    bool open(File* file, unsigned long long headerOffset, int append);
    // Writes the tracked data size into the header when the stored one differs, then closes.
    // False when the cursor was closed or the size could not be written (it is closed anyway).
    bool close();
    bool isOpened() const;

    // Reads at most `length` bytes at the position, shortened to the end of the data. The count;
    // END_OF_DATA at or past the end of the data or of the file; -1 for a null buffer, length 0
    // or above 0x7FFFFFFF, a closed cursor or a failing read.
    int read(void* buffer, unsigned int length);
    // Writes `length` bytes at the position; writing past the end of the data grows the tracked
    // data size (while it fits in 32 bits). Only the last sub-chunk of the file can grow: a write
    // that would run into the next sub-chunk's header is refused. The count, or -1 when closed,
    // for such a write or when the write fails.
    int write(const void* data, unsigned int length);
    // Moves to `offset` from `origin` (SEEK_FROM_*): from the beginning the offset is not
    // negative, from the end not positive. A target outside [0, data size] or another origin
    // gives -1 and keeps the position. The new position relative to the start of the data.
    long long seek(int origin, long long offset);
    // The position relative to the start of the data; -1 when closed.
    long long position() const;
    // The identifier, trimmed; "" when closed.
    const char* getSubChunkId() const;
    // The tracked data size; 0 when closed.
    unsigned int getDataSize() const;

    // Reads the header at `headerOffset` of an open `file` into `id` (the identifier trimmed of
    // trailing blanks, `idSize` at least 5) and `*dataSize`, restoring the file's position.
    // 0 on success, -1 for a bad argument or a failed seek or read, END_OF_DATA when the file
    // ends before the 8 header bytes.
    static int readHeader(File* file, unsigned long long headerOffset, char* id,
                          unsigned int idSize, unsigned int* dataSize);
    // Writes `id` padded with blanks to 4 bytes at the file's position. False for a null
    // argument, an identifier longer than 4 or a failed write.
    bool writeSubChunKId(const char* id, File* file);

  private:
    // The file offset just past the data; the caller holds mLock.
    unsigned long long dataEnd() const UTL_REQUIRES(mLock);
    bool wouldOverrunNextSubChunk(unsigned int length) const UTL_REQUIRES(mLock);
    unsigned long long dataStart() const UTL_REQUIRES(mLock) {
        return mHeaderOffset + HEADER_BYTES;
    }
    void reset() UTL_REQUIRES(mLock);

    File* mFile UTL_GUARDED_BY(mLock);
    char mId[5] UTL_GUARDED_BY(mLock);
    uint32_t mDataSize UTL_GUARDED_BY(mLock);
    uint64_t mHeaderOffset UTL_GUARDED_BY(mLock);
    bool mOpened UTL_GUARDED_BY(mLock);
    SyncObject mLock;
};

}  // namespace utl

#endif  // UTL_SUB_CHUNK_H
