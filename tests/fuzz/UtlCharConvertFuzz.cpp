// Feeds arbitrary bytes to the string conversions, as Shift_JIS, UTF-8 and UTF-16 text. Every
// output goes into a heap buffer of exactly the size the size query answered (AddressSanitizer
// catches a write beyond it), must fill it, and must fail with one unit less. On top:
// Shift_JIS -> UTF-8 -> Shift_JIS -> UTF-8 reproduces the first UTF-8 for text without unmapped
// codes; UTF-16 -> UTF-8 -> UTF-16 and UTF-8 -> wchar_t -> UTF-8 reproduce their input; the
// UTF-8 -> UTF-16 string form agrees with a character-by-character walk with strCharBytesBase.
#include "UtlCharConvert.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "UtlString.h"

namespace {

template <class Unit>
using Text = std::basic_string<Unit>;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// The output of `convert(dst, size)` into a buffer of the size the size query answers, which
// must be exact unless `exactQuery` is false (the wide conversions answer an upper bound); then
// into one of exactly the size written, and one unit less, which must fail. `ok` is false when
// the conversion fails.
template <class Unit, class Convert>
Text<Unit> convertChecked(Convert convert, bool exactQuery, bool* ok) {
    const unsigned int query = convert(nullptr, 0);
    std::unique_ptr<Unit[]> first(new Unit[query == ~0u ? 1 : query]);
    const unsigned int written = query == ~0u ? ~0u : convert(first.get(), query);
    *ok = written != ~0u;
    if (!*ok) {
        require(query == ~0u || !exactQuery);
        return Text<Unit>();
    }
    require(written <= query && (written == query || !exactQuery) && first[written - 1] == 0);
    std::unique_ptr<Unit[]> exact(new Unit[written]);
    require(convert(exact.get(), written) == written);
    if (written > 1) {
        std::unique_ptr<Unit[]> tooSmall(new Unit[written - 1]);
        require(convert(tooSmall.get(), written - 1) == ~0u);
    }
    return Text<Unit>(first.get(), written - 1);
}

template <class Unit, class Char>
Text<Unit> convertText(unsigned int (*convert)(Unit*, unsigned int, const Char*),
                       const Text<Char>& src, bool* ok, bool exactQuery = true) {
    return convertChecked<Unit>(
        [&](Unit* dst, unsigned int size) { return convert(dst, size, src.c_str()); }, exactQuery,
        ok);
}

// The UTF-8 -> UTF-16 conversion as written down: strCharBytesBase measures each character.
Text<unsigned short> utf16ByCharacters(const std::string& utf8, bool* ok) {
    Text<unsigned short> out;
    *ok = true;
    for (const char* p = utf8.c_str(); *p != 0;) {
        const unsigned int length = utl::strCharBytesBase(p, nullptr);
        if (length == ~0u) {
            *ok = false;
            return out;
        }
        if (length == 0) {
            break;
        }
        unsigned short unit = 0x203B;
        require(length == 4 || utl::convertCharFromUtf8ToUtf16(&unit, p, nullptr) == 1);
        out += unit;
        p += length;
    }
    return out;
}

void shiftJis(const std::string& sjis) {
    bool ok = false;
    const std::string utf8 = convertText(utl::convertStrFromSjisToUtf8, sjis, &ok);
    require(ok);
    convertText(utl::convertStrFromSjisToUtf16, sjis, &ok);
    require(ok);
    if (utf8.find('\0') == std::string::npos) {
        const std::string back = convertText(utl::convertStrFromUtf8ToSjis, utf8, &ok);
        require(ok && convertText(utl::convertStrFromSjisToUtf8, back, &ok) == utf8);
    }
}

void utf8(const std::string& text) {
    bool ok = false;
    convertText(utl::convertStrFromUtf8ToSjis, text, &ok);
    require(ok);
    bool walked = false;
    const Text<unsigned short> expected = utf16ByCharacters(text, &walked);
    const Text<unsigned short> units = convertText(utl::convertStrFromUtf8ToUtf16, text, &ok);
    require(ok == walked && (!ok || units == expected));

    const Text<wchar_t> wide = convertText(utl::convertStrFromTcharToWchar, text, &ok, false);
    if (ok) {
        require(convertText(utl::convertStrFromWcharToTchar, wide, &ok, false) == text && ok);
    }
}

void utf16(const std::string& bytes) {
    Text<unsigned short> units(bytes.size() / 2, 0);
    const unsigned int count = static_cast<unsigned int>(units.size());
    require(utl::convertBinFromUint8ToDchar(&units[0], count + 1,
                                            reinterpret_cast<const unsigned char*>(bytes.data()),
                                            count * 2, 1) == count);
    units = units.c_str();  // Up to the first zero unit.
    bool ok = false;
    const std::string text = convertText(utl::convertStrFromUtf16ToUtf8, units, &ok);
    const bool marked = units.find_first_of({0xFEFF, 0xFFFE}) != Text<unsigned short>::npos;
    require(ok != marked);
    if (ok) {
        require(convertText(utl::convertStrFromUtf8ToUtf16, text, &ok) == units && ok);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > 4096) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    shiftJis(text.c_str());
    utf8(text.c_str());
    utf16(text);
    return 0;
}
