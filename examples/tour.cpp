// A short tour of utl: a sorted map of fixed capacity and a bit stream packing header fields.
#include <Utl.h>

#include <cstdio>

namespace {

void showFixedCapacityMap() {
    std::printf("-- Map: three keys fit, the fourth is refused\n");
    utl::Map<int, int> squares(3, 0);
    for (int key : {30, 10, 20, 40}) {
        const bool stored = squares.insert(key, key * key);
        std::printf("insert(%d) -> %s\n", key, stored ? "stored" : "refused (full)");
    }
    squares.insert(10, -1);
    for (unsigned int i = 0; i < squares.getCount(); ++i) {
        const utl::Pair<int, int>& entry = squares.getAt(i);
        std::printf("  key %d value %d\n", entry.mKey, entry.mValue);
    }
}

void showBitStream() {
    std::printf("-- BitStream: a 3-bit version, a 13-bit length and a 16-bit checksum\n");
    unsigned char buffer[4] = {};
    utl::BitStream writer(buffer, sizeof buffer);
    writer.writeBitToUint8(5, 3, -1);
    writer.writeBitToUint16(1234, 13, -1);
    writer.writeBitToUint16(0xBEEF, 16, -1);
    std::printf("bytes %02X %02X %02X %02X, %u bits written\n", buffer[0], buffer[1], buffer[2],
                buffer[3], writer.getBitStreamBitSize());

    utl::BitStream reader(buffer, sizeof buffer);
    const unsigned int version = reader.readBitToUint8(3, -1);
    const unsigned int length = reader.readBitToUint16(13, -1);
    const unsigned int checksum = reader.readBitToUint16(16, -1);
    std::printf("version %u, length %u, checksum %04X\n", version, length, checksum);
}

}  // namespace

int main() {
    showFixedCapacityMap();
    showBitStream();
    return 0;
}
