// Arbitrary bytes as Shift_JIS, UTF-8 and UTF-16 text, into heap buffers of the queried sizes;
// round trips give back their input and UTF-8 -> UTF-16 agrees with a strCharBytesBase walk.
#include "UtlCharConvert.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "UtlString.h"

namespace {

template <class Unit>
using Text = std::basic_string<Unit>;

// Aborts, which libFuzzer reports as a crash, unless `condition` holds.
#define REQUIRE(condition) ((condition) ? void() : std::abort())

// The output of `convert` on `src` into a buffer of the size the size query answers (exact, or
// an upper bound when `exact` is false), then into one of the size written and, failing, into one
// unit less. Failure must be reported through `ok` when given, else it is a fault.
template <class Unit, class Char>
Text<Unit> convertText(unsigned int (*convert)(Unit*, unsigned int, const Char*),
                       const Text<Char>& src, bool* ok = nullptr, bool exact = true) {
    const unsigned int query = convert(nullptr, 0, src.c_str());
    std::vector<Unit> first(query == ~0u ? 1 : query);
    const unsigned int written = query == ~0u ? ~0u : convert(first.data(), query, src.c_str());
    REQUIRE((ok != nullptr || written != ~0u) && (written != ~0u || query == ~0u || !exact));
    if (ok != nullptr && !(*ok = written != ~0u)) {
        return Text<Unit>();
    }
    REQUIRE(written <= query && (written == query || !exact) && first[written - 1] == 0);
    std::vector<Unit> fits(written), tooSmall(written - 1);
    REQUIRE(convert(fits.data(), written, src.c_str()) == written);
    REQUIRE(written == 1 || convert(tooSmall.data(), written - 1, src.c_str()) == ~0u);
    return Text<Unit>(first.data(), written - 1);
}

void shiftJis(const std::string& sjis) {
    const std::string utf8 = convertText(utl::convertStrFromSjisToUtf8, sjis);
    convertText(utl::convertStrFromSjisToUtf16, sjis);
    // Without unmapped codes, UTF-8 -> Shift_JIS -> UTF-8 gives the same UTF-8.
    if (utf8.find('\0') == std::string::npos) {
        const std::string back = convertText(utl::convertStrFromUtf8ToSjis, utf8);
        REQUIRE(convertText(utl::convertStrFromSjisToUtf8, back) == utf8);
    }
}

void utf8(const std::string& text) {
    convertText(utl::convertStrFromUtf8ToSjis, text);
    // Character by character as strCharBytesBase measures them, up to one of length 0 or ~0u.
    Text<unsigned short> expected;
    unsigned int n = 0;
    for (const char* p = text.c_str(); *p != 0 && (n = utl::strCharBytesBase(p, nullptr)) - 1 < 4;
         p += n) {
        unsigned short unit = 0x203B;
        REQUIRE(n == 4 || utl::convertCharFromUtf8ToUtf16(&unit, p, nullptr) == 1);
        expected += unit;
    }
    bool ok = false;
    const Text<unsigned short> units = convertText(utl::convertStrFromUtf8ToUtf16, text, &ok);
    REQUIRE(ok == (n != ~0u) && (!ok || units == expected));
    const Text<wchar_t> wide = convertText(utl::convertStrFromTcharToWchar, text, &ok, false);
    REQUIRE(!ok || convertText(utl::convertStrFromWcharToTchar, wide, nullptr, false) == text);
}

void utf16(const std::string& bytes) {
    Text<unsigned short> units(bytes.size() / 2 + 1, 0);
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned int count = static_cast<unsigned int>(units.size() - 1);
    REQUIRE(utl::convertBinFromUint8ToDchar(&units[0], count + 1, data, count * 2, 1) == count);
    units = units.c_str();  // Up to the first zero unit.
    bool ok = false;
    const std::string text = convertText(utl::convertStrFromUtf16ToUtf8, units, &ok);
    REQUIRE(ok == (units.find_first_of({0xFEFF, 0xFFFE}) == Text<unsigned short>::npos));
    REQUIRE(!ok || convertText(utl::convertStrFromUtf8ToUtf16, text) == units);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size <= 4096) {
        const std::string text(reinterpret_cast<const char*>(data), size);
        shiftJis(text.c_str());
        utf8(text.c_str());
        utf16(text);
    }
    return 0;
}
