// A short tour of utl: a sorted map of fixed capacity, a bit stream packing header fields, text
// conversion, logging and an event that one thread waits on with a timeout.
#include <Utl.h>

#include <cstdio>
#include <thread>

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

void showTextConversion() {
    std::printf("-- Text: Shift_JIS to UTF-8, and the full-width digits made half-width\n");
    char utf8[32];
    utl::convertStrFromSjisToUtf8(utf8, sizeof utf8, "\x82\xA0\x82\xA2 \x82\x50\x82\x51");
    char narrow[32];
    utl::convertAttrib(narrow, sizeof narrow, utf8, utl::HANKAKU_ZENKAKU_PAIR, 1, 0);
    std::printf("%s -> %s\n", utf8, narrow);
}

void showLogging() {
    std::printf("-- Logging: a registered type at information level\n");
    registerLogType(100, "[tour] ", 3);
    applog(100, 3, "information passes, %d of them", 1);
    applog(100, 4, "detail is filtered out");
    std::fflush(stdout);
}

void showTimedEvent() {
    std::printf("-- Event: a wait that times out, then one that another thread ends\n");
    utl::Event ready(0, utl::Event::TWO_WAY);
    const int first = ready.waitToOn(50);
    std::thread worker([&ready] { ready.setOn(); });
    const int second = ready.waitToOn(5000);
    worker.join();
    std::printf("first wait %s, second wait %s\n",
                first == utl::Event::WAIT_TIMEOUT ? "timed out" : "did not time out",
                second == utl::Event::WAIT_OK ? "woken" : "failed");
}

}  // namespace

int main() {
    showFixedCapacityMap();
    showBitStream();
    showTextConversion();
    showLogging();
    showTimedEvent();
    return 0;
}
