#include "UtlArray.h"

namespace utl {

namespace {

// Byte-wise packing keeps the wire order little-endian on any host and needs no alignment.
template <class U>
bool packLittleEndian(U value, unsigned char* out) {
    if (out == nullptr) {
        return false;
    }
    for (unsigned int i = 0; i < sizeof(U); ++i) {
        out[i] = static_cast<unsigned char>(value >> (8 * i));
    }
    return true;
}

template <class U>
bool unpackLittleEndian(const unsigned char* in, U* value) {
    if (in == nullptr || value == nullptr) {
        return false;
    }
    U result = 0;
    for (unsigned int i = sizeof(U); i-- > 0;) {
        result = static_cast<U>((result << 8) | in[i]);
    }
    *value = result;
    return true;
}

}  // namespace

bool serialize(unsigned short value, unsigned char* out) {
    return packLittleEndian(value, out);
}

bool serialize(unsigned int value, unsigned char* out) {
    return packLittleEndian(value, out);
}

bool unserialize(const unsigned char* in, unsigned short* value) {
    return unpackLittleEndian(in, value);
}

bool unserialize(const unsigned char* in, unsigned int* value) {
    return unpackLittleEndian(in, value);
}

template class Array<int>;
template class Map<int, int>;
template class Map<unsigned int, unsigned int>;
template class Map<int, unsigned long long>;

}  // namespace utl
