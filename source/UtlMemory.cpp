#include "UtlMemory.h"

#include <cstring>

namespace utl {

void copyMemory(void* dst, const void* src, unsigned int n) {
    if (dst != nullptr && src != nullptr) {
        std::memcpy(dst, src, n);
    }
}

void moveMemory(void* dst, const void* src, unsigned int n) {
    if (dst != nullptr && src != nullptr) {
        std::memmove(dst, src, n);
    }
}

void fillMemory(void* dst, unsigned int n, unsigned char value) {
    if (dst != nullptr) {
        std::memset(dst, value, n);
    }
}

void zeroMemory(void* dst, unsigned int n) {
    fillMemory(dst, n, 0);
}

bool compareMemory(const void* a, const void* b, unsigned int n) {
    return a != nullptr && b != nullptr && std::memcmp(a, b, n) == 0;
}

}  // namespace utl
