// Storage class of the companion platform library: a stream of bytes kept on the medium.
//
// `utl::SecureFile` stores its bytes through `QVStorage` instead of through a plain descriptor.
// The library ships a working `QVStorage` that keeps the bytes in the plain file at the given
// path; a platform that keeps them some other way (encrypted, on a flash translation layer)
// links its own `QVStorage` in its place.
//
//   QVStorage storage;
//   if (storage.Open("/data/settings.bin", "w+") != 0) { /* errno tells why */ }
//   storage.Write("abc", 3);                        // 3
//   storage.GetSize();                              // 3
//   storage.Close();
//
// Replacing it: include this header and define every member function declared below (the
// constructor, the destructor and the six operations) in the application, with the same
// signatures. The library's definitions are weak symbols, so the application's definitions win
// at link time, against a static and against a shared utl alike; callers inside utl then reach
// the application's code. Define all of them: the library's definitions keep their own state
// behind `mState` and must not be mixed with a replacement's. The class layout is one opaque
// pointer, `mState`, that the replacement may use for its own state (the constructor sets it, the
// destructor releases it); nothing else of the library's implementation is visible here. The
// class has no virtual functions, so that no virtual table ties it to one definition.
#ifndef QV_STORAGE_H
#define QV_STORAGE_H

// One stored file, opened with an fopen mode string and read or written as a stream from the
// start (modes "r", "w", "r+", "w+") or, for writing, at the end ("a", "a+").
//
// Not thread-safe: one thread at a time uses an object (`SecureFile` is used the same way);
// separate objects are independent. Nothing throws; failures are results with errno set.
//
// | state  | Open          | Read, Write                      | GetSize  | Close     | IsOpen |
// |--------|---------------|----------------------------------|----------|-----------|--------|
// | closed | 0, opens      | -1                               | -1       | -1        | 0      |
// | open   | -1, no change | count, from the current position | the size | 0, closes | 1      |
//
// The library's own implementation logs nothing: the caller (`SecureFile::open`) logs failures.
class QVStorage {
  public:
    // A closed storage; allocates nothing.
    QVStorage();
    // Closes the stored file when it is still open.
    ~QVStorage();

    QVStorage(const QVStorage&) = delete;
    QVStorage& operator=(const QVStorage&) = delete;

    // Opens the file at `path` with an fopen mode: "r" reads an existing file, "w" creates or
    // truncates it for writing, "a" creates it and appends every write; "+" adds the other
    // direction ("r+" does not truncate, "w+" does, "a+" reads from the start and appends).
    // A "b" is accepted and ignored; any other character fails. A new file gets mode 0666 less
    // the umask; no directory is created. 0 on success; -1 (errno set, the storage stays as it
    // was) for a null argument, an unknown mode, when already open or when the file cannot be
    // opened. Blocks as long as the file system does.
    int Open(const char* path, const char* mode);

    // Closes the stored file: 0 when it was open and closed cleanly; -1 when it was not open, or
    // when the system reported a failure on closing (the storage is closed all the same).
    int Close();

    // Non-zero (1) while open, 0 otherwise.
    int IsOpen() const;

    // Reads up to `length` bytes at the current position into `buffer` and advances past them;
    // fewer only at the end of the file. The count read (0 at the end or for a length of 0), or
    // -1 (errno set) when not open, for a null buffer or negative length, or when the mode does
    // not allow reading. Blocks until the bytes are read.
    long long Read(void* buffer, long long length);

    // Writes `length` bytes of `data` at the current position (always at the end in the "a"
    // modes). The count written (0 for a length of 0; fewer than `length` only when the medium
    // refused the rest, e.g. full), or -1 (errno set) when not open, for null data or a negative
    // length, when the mode does not allow writing or when the system refused the first bytes.
    long long Write(const void* data, long long length);

    // The size of the open file in bytes (64 bits, files above 4 GiB included); -1 when not
    // open or when the system cannot tell.
    long long GetSize() const;

  private:
    void* mState;  // the implementation's own state; null while closed in the library's one
};

#endif  // QV_STORAGE_H
