#include "UtlCharAttrib.h"

#include <cstring>

namespace utl {

namespace {

constexpr unsigned int kFailure = ~0u;

// Bytes of the entry of `table` that `text` begins with; 0 when none does.
unsigned int entryLength(const char* text, const CodeEntry* table) {
    unsigned int pos = 0;
    return findCodeTable(text, table, &pos) != nullptr ? pos : 0;
}

// Bytes of the run of entries at `text`, each taken from the first of `tables` (a null-terminated
// list) that has one.
unsigned int runLength(const char* text, const CodeEntry* const* tables) {
    unsigned int pos = 0;
    for (;;) {
        unsigned int length = 0;
        for (const CodeEntry* const* table = tables; *table != nullptr && length == 0; ++table) {
            length = entryLength(text + pos, *table);
        }
        if (length == 0) {
            return pos;
        }
        pos += length;
    }
}

// How one class is recognised: a measuring function and the tables it reads, in the order that
// function expects. Every function returns the block length, or 0 when the class does not match.
struct ClassRule {
    unsigned int (*measure)(const char* text, const CodeEntry* const* tables);
    const CodeEntry* tables[6];
};

unsigned int measureEnd(const char* text, const CodeEntry* const*) {
    return *text == '\0' ? 1 : 0;
}

// tables: the class table.
unsigned int measureEntry(const char* text, const CodeEntry* const* tables) {
    return entryLength(text, tables[0]);
}

// tables: signs, then the digit table(s).
unsigned int measureSigned(const char* text, const CodeEntry* const* tables) {
    const unsigned int sign = entryLength(text, tables[0]);
    if (sign == 0) {
        return 0;
    }
    const unsigned int digits = runLength(text + sign, tables + 1);
    return digits == 0 ? 0 : sign + digits;
}

// tables: prefixes, suffixes, then the digit and letter tables. A prefix is taken whenever the
// text begins with one; there is no retry without it.
unsigned int measureHex(const char* text, const CodeEntry* const* tables) {
    const unsigned int prefix = entryLength(text, tables[0]);
    const unsigned int digits = runLength(text + prefix, tables + 2);
    if (digits == 0) {
        return 0;
    }
    const unsigned int suffix = entryLength(text + prefix + digits, tables[1]);
    if (prefix != 0 && suffix != 0) {
        return 0;
    }
    return prefix + digits + suffix;
}

// tables: precomposed kana, kana without mark, the separate mark, then the small kana.
unsigned int measureSyllable(const char* text, const CodeEntry* const* tables) {
    unsigned int length = entryLength(text, tables[0]);
    if (length == 0) {
        const unsigned int base = entryLength(text, tables[1]);
        const unsigned int mark = base == 0 ? 0 : entryLength(text + base, tables[2]);
        if (mark == 0) {
            return 0;
        }
        length = base + mark;
    }
    return length + runLength(text + length, tables + 3);
}

// The classes of ATTRIB_END to ATTRIB_HANDAKU_HIRA, indexed by bit number. Constant-initialised
// like the tables it points at.
const ClassRule CLASS_RULES[] = {
    {measureEnd, {}},
    {measureEntry, {KAIGYO_TBL}},
    {measureEntry, {TAB_FF_TBL}},
    {measureEntry, {CTL_OTHER_TBL}},
    {measureEntry, {HAN_SPACE_TBL}},
    {measureEntry, {ZEN_SPACE_TBL}},
    {measureEntry, {HAN_MARK_TBL}},
    {measureEntry, {ZEN_MARK_TBL}},
    {measureEntry, {HAN_DIGIT_TBL}},
    {measureEntry, {ZEN_DIGIT_TBL}},
    {measureSigned, {HAN_SIGN_TBL, HAN_DIGIT_TBL}},
    {measureSigned, {ZEN_SIGN_TBL, ZEN_DIGIT_TBL}},
    {measureHex,
     {HAN_HEX_PREFIX_TBL, HAN_HEX_SUFFIX_TBL, HAN_DIGIT_TBL, LOWER_HAN_HEX_ALPHA_TBL,
      UPPER_HAN_HEX_ALPHA_TBL}},
    {measureHex,
     {ZEN_HEX_PREFIX_TBL, ZEN_HEX_SUFFIX_TBL, ZEN_DIGIT_TBL, LOWER_ZEN_HEX_ALPHA_TBL,
      UPPER_ZEN_HEX_ALPHA_TBL}},
    {measureEntry, {LOWER_HAN_HEX_ALPHA_TBL}},
    {measureEntry, {LOWER_ZEN_HEX_ALPHA_TBL}},
    {measureEntry, {LOWER_HAN_NOHEX_ALPHA_TBL}},
    {measureEntry, {LOWER_ZEN_NOHEX_ALPHA_TBL}},
    {measureEntry, {UPPER_HAN_HEX_ALPHA_TBL}},
    {measureEntry, {UPPER_ZEN_HEX_ALPHA_TBL}},
    {measureEntry, {UPPER_HAN_NOHEX_ALPHA_TBL}},
    {measureEntry, {UPPER_ZEN_NOHEX_ALPHA_TBL}},
    {measureEntry, {NODAKU_HAN_KATA_TBL}},
    {measureEntry, {NODAKU_ZEN_KATA_TBL}},
    {measureSyllable,
     {DAKU_HAN_KATA_TBL, NODAKU_HAN_KATA_TBL, HAN_DAKUTEN_TBL, HAN_KATA_YOUSOKU_TBL}},
    {measureSyllable,
     {DAKU_ZEN_KATA_TBL, NODAKU_ZEN_KATA_TBL, ZEN_DAKUTEN_TBL, ZEN_KATA_YOUSOKU_TBL}},
    {measureSyllable,
     {HANDAKU_HAN_KATA_TBL, NODAKU_HAN_KATA_TBL, HAN_HANDAKUTEN_TBL, HAN_KATA_YOUSOKU_TBL}},
    {measureSyllable,
     {HANDAKU_ZEN_KATA_TBL, NODAKU_ZEN_KATA_TBL, ZEN_HANDAKUTEN_TBL, ZEN_KATA_YOUSOKU_TBL}},
    {measureEntry, {NODAKU_HIRA_TBL}},
    {measureSyllable, {DAKU_HIRA_TBL, NODAKU_HIRA_TBL, ZEN_DAKUTEN_TBL, HIRA_YOUSOKU_TBL}},
    {measureSyllable, {HANDAKU_HIRA_TBL, NODAKU_HIRA_TBL, ZEN_HANDAKUTEN_TBL, HIRA_YOUSOKU_TBL}},
};

constexpr unsigned int kClassCount = sizeof CLASS_RULES / sizeof CLASS_RULES[0];
static_assert(kClassCount == 31, "one rule for each class bit below ATTRIB_OTHER");

// One step of a conversion: the bytes to write for the text at the position and how many bytes
// of the text they replace. `length` is `kFailure` for an invalid sequence.
struct ConversionStep {
    const char* piece;
    unsigned int length;
    unsigned int consumed;
};

// The step for the text at `text`: the other side of the first row whose side for `direction`
// begins the text, or else the character itself.
ConversionStep nextStep(const char* text, const PairAttrib* pair, int direction) {
    for (const PairAttrib* row = pair; row->first.mNarrow != nullptr; ++row) {
        const char* matched = direction == 0 ? row->first.mNarrow : row->second.mNarrow;
        // The first byte rules out nearly every row without measuring it.
        const std::size_t matchedLength = matched[0] == text[0] ? std::strlen(matched) : 0;
        if (matchedLength != 0 && std::strncmp(text, matched, matchedLength) == 0) {
            const char* written = direction == 0 ? row->second.mNarrow : row->first.mNarrow;
            return {written, static_cast<unsigned int>(std::strlen(written)),
                    static_cast<unsigned int>(matchedLength)};
        }
    }
    const unsigned int length = t_charlen(text, nullptr);
    return {text, length, length};
}

}  // namespace

template <class T>
T* findCodeTable(const T* text, const CodeEntry* table, unsigned int* pos) {
    if (text == nullptr || table == nullptr || pos == nullptr) {
        return nullptr;
    }
    for (const CodeEntry* entry = table; entry->mNarrow != nullptr; ++entry) {
        const std::size_t length = std::strlen(entry->mNarrow);
        if (std::strncmp(text + *pos, entry->mNarrow, length) == 0) {
            *pos += static_cast<unsigned int>(length);
            return const_cast<T*>(entry->mNarrow);
        }
    }
    return nullptr;
}

template <class T>
unsigned int attribBlockSize(const T* text, int attrib) {
    if (text == nullptr) {
        return kFailure;
    }
    const unsigned int mask = static_cast<unsigned int>(attrib);
    unsigned int result = kFailure;
    // Every selected class is measured and a later match replaces an earlier one, whatever the
    // lengths: the rule is simple to state and callers rely on it.
    for (unsigned int bit = 0; bit < kClassCount; ++bit) {
        if ((mask & (1u << bit)) != 0) {
            const unsigned int length = CLASS_RULES[bit].measure(text, CLASS_RULES[bit].tables);
            if (length != 0) {
                result = length;
            }
        }
    }
    if ((mask & static_cast<unsigned int>(ATTRIB_OTHER)) != 0 &&
        attribBlockSize(text, ATTRIB_CLASSES) == kFailure) {
        result = t_charlen(text, nullptr);
    }
    return result;
}

template <class T>
bool isStrAttribBase(const T* text, int attrib) {
    const T* rest = text != nullptr ? text : "";
    // The first block is measured before the end test, so the empty text needs ATTRIB_END.
    do {
        const unsigned int length = attribBlockSize(rest, attrib);
        if (length == kFailure) {
            return false;
        }
        if (*rest == '\0') {
            return true;
        }
        rest += length;
    } while (*rest != '\0');
    return true;
}

template <class T>
bool isCharAttribBase(const T* ch, int attrib) {
    if (ch == nullptr || *ch == '\0') {
        return isStrAttribBase("", attrib);
    }
    bool bom = false;
    const unsigned int length = t_charlen(ch, &bom);
    if (length == kFailure || bom) {
        return false;
    }
    WorkingBuffer<T> work;
    return work.isUsable() && copyStrBase(work.get(), work.size(), ch, length, 0) != kFailure &&
           isStrAttribBase(work.get(), attrib);
}

template <class T>
unsigned int convertAttrib(T* dst, unsigned int size, const T* src, const PairAttrib* pair,
                           int direction, int truncate) {
    if (src == nullptr || pair == nullptr) {
        return kFailure;
    }
    if (*src == '\0') {
        return copyStrBase(dst, size, src, ~0u, 0);
    }
    // The text is read from a copy, so that `dst` may be `src`.
    WorkingBuffer<T> work;
    if (!work.assign(src)) {
        return kFailure;
    }
    // Terminating `dst` first leaves it a valid text whenever the conversion stops.
    unsigned int length = appendStrBase(dst, size, 0, "", ~0u, truncate);
    for (const T* text = work.get(); length != kFailure && *text != '\0';) {
        const ConversionStep step = nextStep(text, pair, direction);
        if (step.length == kFailure) {
            break;
        }
        const unsigned int before = length;
        length = appendStrBase(dst, size, length, step.piece, step.length, truncate);
        if (length != before + step.length) {
            // Cut or failed: nothing may follow a cut.
            break;
        }
        text += step.consumed;
    }
    return length == kFailure ? kFailure : length + 1;
}

template char* findCodeTable<char>(const char*, const CodeEntry*, unsigned int*);
template unsigned int attribBlockSize<char>(const char*, int);
template bool isStrAttribBase<char>(const char*, int);
template bool isCharAttribBase<char>(const char*, int);
template unsigned int convertAttrib<char>(char*, unsigned int, const char*, const PairAttrib*, int,
                                          int);

}  // namespace utl
