// WAVE sound files of utl: a RIFF file (UtlRiffFile.h) of form type "WAVE" holding a format
// sub-chunk "fmt" and a sample sub-chunk "data".
//
// Use `WaveFile` to write PCM samples with their format, or to read the format and samples of an
// existing file. Samples are moved through one open sub-chunk at a time; the sizes in the headers
// are brought up to date by `closeSubChunk` and `close`.
//
//   utl::WaveFile wave("/mnt/sd/voice.wav");
//   if (wave.open(1, 1) == utl::WaveFile::OPEN_OK) {
//       utl::WaveFile::AutoClose closer(wave);
//       wave.setFmtChunkData(16000, 1, 16, 1);  // 16 kHz mono 16-bit PCM
//       wave.openSubChunk(0, utl::WaveFile::CHUNK_DATA);
//       wave.write(samples, sampleBytes);
//   }
#ifndef UTL_WAVE_FILE_H
#define UTL_WAVE_FILE_H

#include <cstdint>

#include "UtlRiffFile.h"
#include "UtlSync.h"

namespace utl {

// One WAVE file: its format fields kept in memory, its samples read and written through the RIFF
// sub-chunk cursor.
//
// Any thread may call any operation; every public operation holds the object's lock, so calls
// from several threads are serialised (a read and a seek by two threads still interleave at
// call granularity).
//
//   state            | open          | setFmtChunkData / openSubChunk | read, write, seek ...
//   -----------------+---------------+--------------------------------+----------------------
//   Closed           | Open or fails | false                          | -1
//   Open             | 1             | works                          | -1 (no sub-chunk open)
//   Sub-chunk open   | 1             | false (one sub-chunk at a time)| works on that sub-chunk
//
// The format sub-chunk is written with byte rate = rate x channels x bits and block align =
// channels x bits (not divided by 8), and `getBytePerSec` / `getBlockAlign` compute the same;
// this is how the library has always written them and is kept. Readers that check those two
// fields may find them eight times too large.
class WaveFile {
  public:
    // Results of `open`.
    static constexpr int OPEN_OK = 0;
    static constexpr int OPEN_FAILED = 1;
    static constexpr int OPEN_NOT_WAVE = 2;  // not a RIFF file, or form type not "WAVE"
    static constexpr int OPEN_NO_FMT = 3;
    static constexpr int OPEN_NO_DATA = 4;

    // The `chunk` argument of the sub-chunk operations.
    static constexpr int CHUNK_FMT = 0;
    static constexpr int CHUNK_DATA = 1;

    // Bytes of the format sub-chunk's data as written.
    static constexpr unsigned int FMT_BYTES = 16;

    // Calls close() on the wave file when it leaves scope.
    using AutoClose = AutoCloseGuard<WaveFile>;

    // Opens nothing; the format fields start at 0.
    explicit WaveFile(const char* path);
    // Closes.
    virtual ~WaveFile();

    WaveFile(const WaveFile&) = delete;
    WaveFile& operator=(const WaveFile&) = delete;

    // `create` and `writable` are 0 or 1 (else OPEN_FAILED), as for `RiffFile::open`. A new
    // writable file (create 1, or the file did not exist) gets form type "WAVE" and no
    // sub-chunks yet. Otherwise the format is read from the first "fmt" sub-chunk: OPEN_NOT_WAVE
    // when not RIFF or not "WAVE", OPEN_NO_FMT / OPEN_NO_DATA when a sub-chunk is missing,
    // OPEN_FAILED when the file cannot be opened, a sub-chunk header cannot be read or the format
    // data is shorter than 16 bytes.
    // Every non-zero result leaves the file closed.
    int open(int create, int writable);
    // Closes an open sub-chunk, updates the sizes in the headers and closes the file; false when
    // the RIFF file refuses (not open, or longer than 4 GiB + 8).
    bool close();
    bool isOpened();
    const char* getPath() const;

    // Writes the 16-byte format data, overwriting an existing format sub-chunk from its start or
    // adding one; then the four values are kept in memory. False when not open, when a
    // sub-chunk is open, or when the write fails (memory unchanged then).
    bool setFmtChunkData(unsigned int samplingRate, unsigned short channel,
                         unsigned short bitsWidth, unsigned short formatId);

    unsigned int getSamplingRate();
    unsigned short getChannel();
    unsigned short getBitsWidth();
    unsigned short getFormatId();
    // samplingRate x channel x bitsWidth, 32-bit product (bits, not bytes; see above).
    unsigned int getBytePerSec();
    // channel x bitsWidth, low 16 bits (bits, not bytes; see above).
    unsigned short getBlockAlign();

    // Opens the sub-chunk `chunk` (CHUNK_FMT or CHUNK_DATA) at the start of its data, or at its
    // end with `append` 1. A missing one is added (empty, open for writing). False when not open,
    // for any other `chunk` or `append`, when a sub-chunk is open already, and for CHUNK_DATA
    // while there is no format sub-chunk yet.
    bool openSubChunk(int append, int chunk);
    // Closes the open sub-chunk, writing its size into its header; false when none is open.
    bool closeSubChunk();
    // Whether `chunk` exists and is the open sub-chunk.
    bool isOpenedSubChunk(int chunk);
    // The data size of `chunk` (the growing size while it is open for writing). -1 for a `chunk`
    // other than CHUNK_FMT or CHUNK_DATA, when not open, and for a sub-chunk that does not exist
    // yet (so that "absent" stays distinguishable from "empty").
    long long getChunkDataSize(int chunk) const;

    // Forwarded to the open sub-chunk (see `RiffFile`): counts, positions and sizes relative to
    // its data; -1 when no sub-chunk is open; `read` returns -4 at the end of the data. `seek`
    // origins: 0 from the start, 1 from the end, 2 from the current position.
    int read(void* buffer, unsigned int length);
    int write(const void* data, unsigned int length);
    long long seek(int origin, long long offset);
    long long position() const;
    long long size() const;

  private:
    // Number of a sub-chunk that is absent.
    static constexpr uint32_t NO_CHUNK = 0xFFFFFFFF;

    int loadWaveInfo() UTL_REQUIRES(mLock);
    bool readFmtData() UTL_REQUIRES(mLock);
    uint32_t* chunkNumberSlot(int chunk) UTL_REQUIRES(mLock);
    uint32_t chunkNumber(int chunk) const UTL_REQUIRES(mLock);

    // mRiff is mutable because the RIFF file's header queries are not const, while
    // getChunkDataSize is.
    mutable RiffFile mRiff UTL_GUARDED_BY(mLock);
    uint32_t mFmtChunk UTL_GUARDED_BY(mLock);
    uint32_t mDataChunk UTL_GUARDED_BY(mLock);
    uint32_t mSamplingRate UTL_GUARDED_BY(mLock);
    uint16_t mChannel UTL_GUARDED_BY(mLock);
    uint16_t mBitsWidth UTL_GUARDED_BY(mLock);
    uint16_t mFormatId UTL_GUARDED_BY(mLock);
    SyncObject mLock;
};

}  // namespace utl

#endif  // UTL_WAVE_FILE_H
