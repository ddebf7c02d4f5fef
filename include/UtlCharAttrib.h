// Character classes of utl for Japanese text entry and display, and conversions between paired
// classes.
//
// A class is a table of strings (`*_TBL`, each entry in narrow UTF-8 and wide form); a set of
// classes is an attribute mask of the ATTRIB_* bits. `attribBlockSize` measures the block of text
// at a position that belongs to one of the selected classes, `isStrAttribBase` asks whether a
// whole text is made of such blocks, and `convertAttrib` rewrites a text through a table of
// pairs (`*_PAIR`): half-width and full-width forms, katakana and hiragana, case, voicing marks.
//
//   utl::isStrAttribBase("0x1F", utl::ATTRIB_HAN_HEX);                    // true
//   utl::attribBlockSize("-12ab", utl::ATTRIB_HAN_SIGNED);                // 3
//   char out[16];
//   utl::convertAttrib(out, sizeof out, "Ｘ１２", utl::HANKAKU_ZENKAKU_PAIR, 1, 0);  // "X12", 4
//   utl::convertAttrib(out, sizeof out, "ガ", utl::HANKAKU_ZENKAKU_PAIR, 1, 0);      // "ｶﾞ", 7
//
// The tables are constant-initialised, so they are ready before any static initialiser runs and
// may be read from any thread. The functions keep no state; `isCharAttribBase` and
// `convertAttrib` take an area of the shared work buffer and block while another thread holds it.
#ifndef UTL_CHAR_ATTRIB_H
#define UTL_CHAR_ATTRIB_H

#include "UtlString.h"

namespace utl {

// One entry of a code table: a string in narrow (UTF-8) and wide form. A table ends with an
// entry whose pointers are null.
using CodeEntry = DualType<const char*, const wchar_t*>;

// One row of a pair table: the same text in two classes, `first` in the class that the table's
// name gives first. A pair table ends with a row whose `first.mNarrow` is null. Rows are not
// changed once made, so any thread may read them.
class PairAttrib {
  public:
    constexpr PairAttrib() : first(), second() {}
    constexpr PairAttrib(const char* firstNarrow, const wchar_t* firstWide,
                         const char* secondNarrow, const wchar_t* secondWide)
        : first(firstNarrow, firstWide), second(secondNarrow, secondWide) {}
    virtual ~PairAttrib() = default;

    CodeEntry first;
    CodeEntry second;
};

// The class bits of an attribute mask. A class made of table entries matches when the text
// begins with one of them; the composite classes are described at their bits.
constexpr int ATTRIB_END = 0x00000001;        // The terminator itself; a block of 1.
constexpr int ATTRIB_KAIGYO = 0x00000002;     // KAIGYO_TBL
constexpr int ATTRIB_TAB_FF = 0x00000004;     // TAB_FF_TBL
constexpr int ATTRIB_CTL_OTHER = 0x00000008;  // CTL_OTHER_TBL
constexpr int ATTRIB_HAN_SPACE = 0x00000010;  // HAN_SPACE_TBL
constexpr int ATTRIB_ZEN_SPACE = 0x00000020;  // ZEN_SPACE_TBL
constexpr int ATTRIB_HAN_MARK = 0x00000040;   // HAN_MARK_TBL
constexpr int ATTRIB_ZEN_MARK = 0x00000080;   // ZEN_MARK_TBL
constexpr int ATTRIB_HAN_DIGIT = 0x00000100;  // HAN_DIGIT_TBL
constexpr int ATTRIB_ZEN_DIGIT = 0x00000200;  // ZEN_DIGIT_TBL
// A sign followed by one or more digits: HAN_SIGN_TBL + HAN_DIGIT_TBL+ (ZEN_* for full-width).
constexpr int ATTRIB_HAN_SIGNED = 0x00000400;
constexpr int ATTRIB_ZEN_SIGNED = 0x00000800;
// An optional prefix, one or more digits or hex letters of either case, an optional suffix;
// prefix and suffix together are refused, as is a prefix without a digit after it ("0xg").
constexpr int ATTRIB_HAN_HEX = 0x00001000;
constexpr int ATTRIB_ZEN_HEX = 0x00002000;
constexpr int ATTRIB_LOWER_HAN_HEX_ALPHA = 0x00004000;    // LOWER_HAN_HEX_ALPHA_TBL
constexpr int ATTRIB_LOWER_ZEN_HEX_ALPHA = 0x00008000;    // LOWER_ZEN_HEX_ALPHA_TBL
constexpr int ATTRIB_LOWER_HAN_NOHEX_ALPHA = 0x00010000;  // LOWER_HAN_NOHEX_ALPHA_TBL
constexpr int ATTRIB_LOWER_ZEN_NOHEX_ALPHA = 0x00020000;  // LOWER_ZEN_NOHEX_ALPHA_TBL
constexpr int ATTRIB_UPPER_HAN_HEX_ALPHA = 0x00040000;    // UPPER_HAN_HEX_ALPHA_TBL
constexpr int ATTRIB_UPPER_ZEN_HEX_ALPHA = 0x00080000;    // UPPER_ZEN_HEX_ALPHA_TBL
constexpr int ATTRIB_UPPER_HAN_NOHEX_ALPHA = 0x00100000;  // UPPER_HAN_NOHEX_ALPHA_TBL
constexpr int ATTRIB_UPPER_ZEN_NOHEX_ALPHA = 0x00200000;  // UPPER_ZEN_NOHEX_ALPHA_TBL
constexpr int ATTRIB_NODAKU_HAN_KATA = 0x00400000;        // NODAKU_HAN_KATA_TBL
constexpr int ATTRIB_NODAKU_ZEN_KATA = 0x00800000;        // NODAKU_ZEN_KATA_TBL
// A voiced or semi-voiced syllable: the precomposed kana, or a kana without mark followed by the
// separate mark; then any number of small kana. Half-width katakana use the HAN_* marks,
// full-width katakana and hiragana the ZEN_* marks.
constexpr int ATTRIB_DAKU_HAN_KATA = 0x01000000;
constexpr int ATTRIB_DAKU_ZEN_KATA = 0x02000000;
constexpr int ATTRIB_HANDAKU_HAN_KATA = 0x04000000;
constexpr int ATTRIB_HANDAKU_ZEN_KATA = 0x08000000;
constexpr int ATTRIB_NODAKU_HIRA = 0x10000000;  // NODAKU_HIRA_TBL
constexpr int ATTRIB_DAKU_HIRA = 0x20000000;
constexpr int ATTRIB_HANDAKU_HIRA = 0x40000000;
// Every class above.
constexpr int ATTRIB_CLASSES = 0x7FFFFFFF;
// One valid character that belongs to none of the classes above.
constexpr int ATTRIB_OTHER = static_cast<int>(0x80000000u);

// Line breaks: "\r\n" (listed first), "\r", "\n".
extern const CodeEntry KAIGYO_TBL[];
// Horizontal tab, vertical tab, form feed.
extern const CodeEntry TAB_FF_TBL[];
// The other C0 controls (not the terminator), DEL and the C1 controls U+0080-U+009F.
extern const CodeEntry CTL_OTHER_TBL[];
// " " / U+3000.
extern const CodeEntry HAN_SPACE_TBL[];
extern const CodeEntry ZEN_SPACE_TBL[];
// The ASCII punctuation and symbols (signs included) and the half-width CJK punctuation
// U+FF61-U+FF65.
extern const CodeEntry HAN_MARK_TBL[];
// Their full-width forms (U+FF01-U+FF5E that are no letter or digit, U+3001, U+3002, U+300C,
// U+300D, U+30FB), the other CJK punctuation and brackets (U+3003, U+3008-U+3011,
// U+3014-U+301F), U+FF5F, U+FF60, U+FFE0-U+FFE6 and U+2212. The voicing marks are not marks.
extern const CodeEntry ZEN_MARK_TBL[];
// "0"-"9" / U+FF10-U+FF19.
extern const CodeEntry HAN_DIGIT_TBL[];
extern const CodeEntry ZEN_DIGIT_TBL[];
// "+", "-" / U+FF0B, U+FF0D, U+2212. Signs are marks as well; alone they form no number.
extern const CodeEntry HAN_SIGN_TBL[];
extern const CodeEntry ZEN_SIGN_TBL[];
// "0x", "0X" / their full-width forms.
extern const CodeEntry HAN_HEX_PREFIX_TBL[];
extern const CodeEntry ZEN_HEX_PREFIX_TBL[];
// "h", "H" / their full-width forms.
extern const CodeEntry HAN_HEX_SUFFIX_TBL[];
extern const CodeEntry ZEN_HEX_SUFFIX_TBL[];
// a-f, A-F and g-z, G-Z, half-width and full-width.
extern const CodeEntry LOWER_HAN_HEX_ALPHA_TBL[];
extern const CodeEntry LOWER_ZEN_HEX_ALPHA_TBL[];
extern const CodeEntry UPPER_HAN_HEX_ALPHA_TBL[];
extern const CodeEntry UPPER_ZEN_HEX_ALPHA_TBL[];
extern const CodeEntry LOWER_HAN_NOHEX_ALPHA_TBL[];
extern const CodeEntry LOWER_ZEN_NOHEX_ALPHA_TBL[];
extern const CodeEntry UPPER_HAN_NOHEX_ALPHA_TBL[];
extern const CodeEntry UPPER_ZEN_NOHEX_ALPHA_TBL[];
// Kana without a voicing mark, small kana included: half-width U+FF66-U+FF9D (with the
// prolonged sound mark U+FF70); full-width U+30A1-U+30FA and U+30FC-U+30FD less the voiced and
// semi-voiced ones; hiragana U+3041-U+3096 and U+309D less the voiced and semi-voiced ones.
extern const CodeEntry NODAKU_HAN_KATA_TBL[];
extern const CodeEntry NODAKU_ZEN_KATA_TBL[];
extern const CodeEntry NODAKU_HIRA_TBL[];
// Voiced kana: the precomposed full-width katakana and hiragana (U+30F4 and U+30F7-U+30FA, U+3094
// and the iteration marks U+30FE, U+309E included); half-width katakana have no precomposed form,
// so their table lists each voiceable base followed by U+FF9E.
extern const CodeEntry DAKU_HAN_KATA_TBL[];
extern const CodeEntry DAKU_ZEN_KATA_TBL[];
extern const CodeEntry DAKU_HIRA_TBL[];
// Semi-voiced kana, laid out as the voiced ones (half-width: base followed by U+FF9F).
extern const CodeEntry HANDAKU_HAN_KATA_TBL[];
extern const CodeEntry HANDAKU_ZEN_KATA_TBL[];
extern const CodeEntry HANDAKU_HIRA_TBL[];
// The voicing mark: U+FF9E / U+309B and the combining U+3099.
extern const CodeEntry HAN_DAKUTEN_TBL[];
extern const CodeEntry ZEN_DAKUTEN_TBL[];
// The semi-voicing mark: U+FF9F / U+309C and the combining U+309A.
extern const CodeEntry HAN_HANDAKUTEN_TBL[];
extern const CodeEntry ZEN_HANDAKUTEN_TBL[];
// Small kana: U+FF67-U+FF6F / ァィゥェォッャュョヮヵヶ / ぁぃぅぇぉっゃゅょゎゕゖ. They are
// also kana without a voicing mark.
extern const CodeEntry HAN_KATA_YOUSOKU_TBL[];
extern const CodeEntry ZEN_KATA_YOUSOKU_TBL[];
extern const CodeEntry HIRA_YOUSOKU_TBL[];

// Half-width / full-width: ASCII 21-7E and U+FF01-U+FF5E, " " and U+3000, the half-width CJK
// punctuation and katakana with their full-width forms. A voiced or semi-voiced full-width
// katakana pairs with the half-width base and U+FF9E or U+FF9F; the half-width marks pair with
// the spacing marks and, in later rows, with the combining ones.
extern const PairAttrib HANKAKU_ZENKAKU_PAIR[];
// Half-width katakana / hiragana, voiced kana as base and mark, and the voicing marks.
extern const PairAttrib HANKATA_HIRAGANA_PAIR[];
// Full-width katakana / hiragana (U+30A1-U+30F6 and U+30FD-U+30FE, which have hiragana forms).
extern const PairAttrib ZENKATA_HIRAGANA_PAIR[];
// a-z / A-Z, half-width and full-width.
extern const PairAttrib LOWER_UPPER_PAIR[];
// Unvoiced / voiced kana, in all three scripts (half-width voiced: base and U+FF9E). Direction 0
// voices every voiceable kana, also one that already carries a separate mark.
extern const PairAttrib NODAKUON_DAKUON_PAIR[];
// Unvoiced / semi-voiced kana, laid out as NODAKUON_DAKUON_PAIR.
extern const PairAttrib NODAKUON_HANDAKUON_PAIR[];

// The entry of `table` that the text at byte `*pos` of `text` begins with (earlier entries win),
// and `*pos` advanced past it. Null, `*pos` unchanged, when none matches or an argument is null.
// The result points into the read-only table: it is not const for the sake of existing callers,
// but must never be written through.
template <class T>
T* findCodeTable(const T* text, const CodeEntry* table, unsigned int* pos);

// Bytes of the block at the start of `text` that belongs to one of the classes in `attrib`;
// `~0u` when none does or `text` is null. The classes are tried in ascending bit order and the
// last one that matches decides, not the longest (with ATTRIB_HAN_DIGIT | ATTRIB_HAN_HEX, "1ab"
// is a block of 3). ATTRIB_OTHER gives the length of one valid character that no class claims.
template <class T>
unsigned int attribBlockSize(const T* text, int attrib);

// True when the whole of `text` splits into blocks of the classes in `attrib`. The empty (or
// null) text is true only with ATTRIB_END in `attrib`.
template <class T>
bool isStrAttribBase(const T* text, int attrib);

// `isStrAttribBase` on the first character of `ch` alone (an empty or null `ch` as the empty
// text); false for a byte-order mark or an invalid sequence.
template <class T>
bool isCharAttribBase(const T* ch, int attrib);

// Writes `src` into `dst` of `size` bytes, replacing each block that begins with a row's string
// by the row's other string: direction 0 replaces `first` by `second`, any other direction
// `second` by `first`; the first matching row wins, other characters are copied. `dst` may be
// `src`. Returns the bytes written with the terminator. An invalid sequence in `src` ends the
// text there (still a success). `~0u` for a null `src`, `dst` or `pair`, a `src` of 10240 bytes
// or more, or a result that does not fit (with `truncate` 1 it is cut at a character instead);
// an empty `src` behaves as `copyStrBase(dst, size, src, ~0u, 0)`.
template <class T>
unsigned int convertAttrib(T* dst, unsigned int size, const T* src, const PairAttrib* pair,
                           int direction, int truncate);

}  // namespace utl

#endif  // UTL_CHAR_ATTRIB_H
