// Raw memory helpers of utl.
//
// Thin, null-tolerant wrappers over the C memory functions. Every helper does nothing (or returns
// false) when it is handed a null pointer, so callers that pass through optional buffers need no
// checks of their own. Sizes are byte counts.
//
//   unsigned char header[4];
//   utl::zeroMemory(header, sizeof header);
//   utl::copyMemory(header, "RIFF", 4);
//   bool isRiff = utl::compareMemory(header, "RIFF", 4);  // true
//
// All helpers are thread-safe as long as the callers own the memory they touch.
#ifndef UTL_MEMORY_H
#define UTL_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <new>

namespace utl {

// Copies n bytes from src to dst; the ranges must not overlap. Does nothing if either is null.
void copyMemory(void* dst, const void* src, unsigned int n);

// Copies n bytes from src to dst; the ranges may overlap. Does nothing if either is null.
void moveMemory(void* dst, const void* src, unsigned int n);

// Sets n bytes at dst to value. Does nothing if dst is null.
void fillMemory(void* dst, unsigned int n, unsigned char value);

// Sets n bytes at dst to 0. Does nothing if dst is null.
void zeroMemory(void* dst, unsigned int n);

// True when the first n bytes of a and b are equal (also for n 0); false if either is null.
bool compareMemory(const void* a, const void* b, unsigned int n);

namespace detail {

// Allocates n default-constructed elements with array-new, as the containers keep their storage.
// Null for n 0, for a count whose byte size (with the allocator's element-count header) would
// wrap, or when no memory is left.
template <class T>
T* allocateElements(unsigned int n) {
    constexpr std::size_t maxElements = (SIZE_MAX - 2 * sizeof(std::size_t)) / sizeof(T);
    if (n == 0 || n > maxElements) {
        return nullptr;
    }
    return new (std::nothrow) T[n];
}

// The one object of type T, made on first use in static storage and never destroyed, so that it
// still works while other static objects are being destroyed. Process-wide state of the library
// (the log table, the tick-counter ids) lives here; a static initialiser that calls this for T
// makes the object at load, before application code runs.
template <class T>
T& immortalInstance() {
    alignas(T) static unsigned char storage[sizeof(T)];
    static T* const instance = new (storage) T();
    return *instance;
}

}  // namespace detail

}  // namespace utl

#endif  // UTL_MEMORY_H
