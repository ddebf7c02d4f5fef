#!/usr/bin/env python3
"""Writes source/UtlCharAttribTables.cpp, the character class and pair tables of utl.

    tools/gen_char_attrib_tables.py source/UtlCharAttribTables.cpp          # regenerate
    tools/gen_char_attrib_tables.py --check source/UtlCharAttribTables.cpp  # fail if stale

The rows come from the explicit character lists below, not from the Unicode database, so that the
tests can check them against Python's unicodedata independently.

Class decisions:
- Line breaks are CR LF, CR and LF; tab and form feed are HT, VT and FF; the other controls are
  the remaining C0 controls after the terminator, DEL, and the C1 controls U+0080-U+009F.
- Marks are punctuation and symbols: all ASCII punctuation and the half-width CJK punctuation
  U+FF61-U+FF65; in full width the forms of those, the other CJK punctuation and brackets, the
  full-width symbols U+FF5F-U+FF60, U+FFE0-U+FFE6, and the minus sign U+2212.
- Signs are also marks: a sign alone is a mark, and the signed-number class, a composite with a
  higher bit, wins for a sign followed by digits. Small kana are also kana without a voicing mark;
  the small-kana tables only extend voiced syllables. The hex suffixes are letters too. Every
  other pair of classes is disjoint, which is checked below.
- The voicing marks (spacing U+309B/U+309C and combining U+3099/U+309A, half-width
  U+FF9E/U+FF9F) belong to the mark tables of the syllable classes only, not to the punctuation.
- The prolonged sound mark (U+30FC, U+FF70) and the iteration marks (U+30FD, U+309D) are kana
  without a voicing mark; the voiced iteration marks U+30FE and U+309E are voiced kana.
- Half-width katakana have no precomposed voiced forms: their voiced and semi-voiced tables list
  the base followed by the half-width mark.

Pair decisions:
- The half-width voicing marks pair with the spacing marks first (direction 0 writes those) and
  then with the combining ones, so that both convert to half-width. The half-width/hiragana table
  has these mark rows too, and pairs the half-width prolonged sound mark with U+30FC, which
  hiragana text uses as well.
- Full-width kana without a half-width or hiragana form (ヮ ヰ ヱ ヵ ヶ ヸ ヹ, ヷ ヺ in hiragana) have
  no row and are copied unchanged.
- The voicing tables pair every kana with a voiced form; direction 0 therefore also voices a kana
  that already carries a separate mark.

Pair rows: the first row whose compared side begins the text wins, so a row whose compared side
is a proper prefix of a later row's would hide it; the script refuses such an order in either
direction. Base-plus-mark rows therefore precede the rows of their bases.
"""

import string
import sys

import generated_source

# Half-width katakana U+FF66-U+FF9D and their full-width forms, in the same order.
HAN_KATA = "".join(chr(c) for c in range(0xFF66, 0xFF9E))
ZEN_OF_HAN = (
    "ヲァィゥェォャュョッーアイウエオカキクケコサシスセソタチツテトナニヌネノハヒフヘホマミムメモ"
    "ヤユヨラリルレロワン"
)
HAN_DAKUTEN = "\uFF9E"
HAN_HANDAKUTEN = "\uFF9F"
ZEN_DAKUTEN = "\u309B\u3099"
ZEN_HANDAKUTEN = "\u309C\u309A"

# Full-width katakana and their voiced / semi-voiced forms, two characters per pair.
DAKUON = (
    "カガキギクグケゲコゴサザシジスズセゼソゾタダチヂツヅテデトドハバヒビフブヘベホボ"
    "ウヴワヷヰヸヱヹヲヺヽヾ"
)
HANDAKUON = "ハパヒピフプヘペホポ"
ZEN_YOUSOKU = "ァィゥェォッャュョヮヵヶ"
HAN_YOUSOKU = "".join(chr(c) for c in range(0xFF67, 0xFF70))

ZEN_KATA = [chr(c) for c in range(0x30A1, 0x30FB)] + ["ー", "ヽ", "ヾ"]


def pairs(text):
    return [(text[i], text[i + 1]) for i in range(0, len(text), 2)]


def char_range(first, last):
    return [chr(c) for c in range(ord(first), ord(last) + 1)]


def zen(c):
    """The full-width form of an ASCII character."""
    return chr(ord(c) + 0xFEE0)


def hira(k):
    """The hiragana of a full-width katakana, or None (U+30A1-U+30F6 and U+30FD-U+30FE have one)."""
    c = ord(k)
    return chr(c - 0x60) if 0x30A1 <= c <= 0x30F6 or 0x30FD <= c <= 0x30FE else None


HAN_OF_ZEN = dict(zip(ZEN_OF_HAN, HAN_KATA))
VOICED = pairs(DAKUON)
SEMI_VOICED = pairs(HANDAKUON)
MARKED_KATA = {v for _, v in VOICED + SEMI_VOICED}

ASCII_MARKS = (char_range("!", "/") + char_range(":", "@") + char_range("[", "`")
               + char_range("{", "~"))
HAN_CJK_MARKS = "｡｢｣､･"
ZEN_CJK_MARKS = "。「」、・"
DIGITS = char_range("0", "9")
LOWER_HEX, LOWER_NOHEX = char_range("a", "f"), char_range("g", "z")
UPPER_HEX, UPPER_NOHEX = char_range("A", "F"), char_range("G", "Z")

NODAKU_ZEN_KATA = [k for k in ZEN_KATA if k not in MARKED_KATA]


def half_voiced(base_marks, mark):
    """Half-width base followed by `mark` for each pair whose base has a half-width form."""
    return [(HAN_OF_ZEN[b], HAN_OF_ZEN[b] + mark, v) for b, v in base_marks if b in HAN_OF_ZEN]


def hiragana_of(katakana):
    """The hiragana of those of `katakana` that have one."""
    return [hira(k) for k in katakana if hira(k)]


CODE_TABLES = [
    ("KAIGYO_TBL", ["\r\n", "\r", "\n"]),
    ("TAB_FF_TBL", ["\t", "\v", "\f"]),
    ("CTL_OTHER_TBL", [chr(c) for c in list(range(0x01, 0x20)) + list(range(0x7F, 0xA0))
                       if chr(c) not in "\t\n\v\f\r"]),
    ("HAN_SPACE_TBL", [" "]),
    ("ZEN_SPACE_TBL", ["\u3000"]),
    ("HAN_MARK_TBL", ASCII_MARKS + list(HAN_CJK_MARKS)),
    ("ZEN_MARK_TBL", [zen(c) for c in ASCII_MARKS] + char_range("\u3001", "\u3003")
     + char_range("\u3008", "\u3011") + char_range("\u3014", "\u301F") + ["\u30FB"]
     + ["\uFF5F", "\uFF60"] + char_range("\uFFE0", "\uFFE6") + ["\u2212"]),
    ("HAN_DIGIT_TBL", DIGITS),
    ("ZEN_DIGIT_TBL", [zen(c) for c in DIGITS]),
    ("HAN_SIGN_TBL", ["+", "-"]),
    ("ZEN_SIGN_TBL", ["\uFF0B", "\uFF0D", "\u2212"]),
    ("HAN_HEX_PREFIX_TBL", ["0x", "0X"]),
    ("ZEN_HEX_PREFIX_TBL", [zen("0") + zen("x"), zen("0") + zen("X")]),
    ("HAN_HEX_SUFFIX_TBL", ["h", "H"]),
    ("ZEN_HEX_SUFFIX_TBL", [zen("h"), zen("H")]),
    ("LOWER_HAN_HEX_ALPHA_TBL", LOWER_HEX),
    ("LOWER_ZEN_HEX_ALPHA_TBL", [zen(c) for c in LOWER_HEX]),
    ("UPPER_HAN_HEX_ALPHA_TBL", UPPER_HEX),
    ("UPPER_ZEN_HEX_ALPHA_TBL", [zen(c) for c in UPPER_HEX]),
    ("LOWER_HAN_NOHEX_ALPHA_TBL", LOWER_NOHEX),
    ("LOWER_ZEN_NOHEX_ALPHA_TBL", [zen(c) for c in LOWER_NOHEX]),
    ("UPPER_HAN_NOHEX_ALPHA_TBL", UPPER_NOHEX),
    ("UPPER_ZEN_NOHEX_ALPHA_TBL", [zen(c) for c in UPPER_NOHEX]),
    ("NODAKU_HAN_KATA_TBL", list(HAN_KATA)),
    ("NODAKU_ZEN_KATA_TBL", NODAKU_ZEN_KATA),
    ("NODAKU_HIRA_TBL", hiragana_of(NODAKU_ZEN_KATA)),
    ("DAKU_HAN_KATA_TBL", [h for _, h, _ in half_voiced(VOICED, HAN_DAKUTEN)]),
    ("DAKU_ZEN_KATA_TBL", sorted(v for _, v in VOICED)),
    ("DAKU_HIRA_TBL", sorted(hiragana_of(v for _, v in VOICED))),
    ("HANDAKU_HAN_KATA_TBL", [h for _, h, _ in half_voiced(SEMI_VOICED, HAN_HANDAKUTEN)]),
    ("HANDAKU_ZEN_KATA_TBL", [v for _, v in SEMI_VOICED]),
    ("HANDAKU_HIRA_TBL", hiragana_of(v for _, v in SEMI_VOICED)),
    ("HAN_DAKUTEN_TBL", [HAN_DAKUTEN]),
    ("ZEN_DAKUTEN_TBL", list(ZEN_DAKUTEN)),
    ("HAN_HANDAKUTEN_TBL", [HAN_HANDAKUTEN]),
    ("ZEN_HANDAKUTEN_TBL", list(ZEN_HANDAKUTEN)),
    ("HAN_KATA_YOUSOKU_TBL", list(HAN_YOUSOKU)),
    ("ZEN_KATA_YOUSOKU_TBL", list(ZEN_YOUSOKU)),
    ("HIRA_YOUSOKU_TBL", hiragana_of(ZEN_YOUSOKU)),
]

# The tables that are classes of their own and must not share an entry.
DISJOINT_CLASSES = [
    "KAIGYO_TBL", "TAB_FF_TBL", "CTL_OTHER_TBL", "HAN_SPACE_TBL", "ZEN_SPACE_TBL", "HAN_MARK_TBL",
    "ZEN_MARK_TBL", "HAN_DIGIT_TBL", "ZEN_DIGIT_TBL", "LOWER_HAN_HEX_ALPHA_TBL",
    "LOWER_ZEN_HEX_ALPHA_TBL", "LOWER_HAN_NOHEX_ALPHA_TBL", "LOWER_ZEN_NOHEX_ALPHA_TBL",
    "UPPER_HAN_HEX_ALPHA_TBL", "UPPER_ZEN_HEX_ALPHA_TBL", "UPPER_HAN_NOHEX_ALPHA_TBL",
    "UPPER_ZEN_NOHEX_ALPHA_TBL", "NODAKU_HAN_KATA_TBL", "NODAKU_ZEN_KATA_TBL", "NODAKU_HIRA_TBL",
    "DAKU_ZEN_KATA_TBL", "DAKU_HIRA_TBL", "HANDAKU_ZEN_KATA_TBL", "HANDAKU_HIRA_TBL",
    "HAN_DAKUTEN_TBL", "ZEN_DAKUTEN_TBL", "HAN_HANDAKUTEN_TBL", "ZEN_HANDAKUTEN_TBL",
]

MARK_ROWS = [(HAN_DAKUTEN, "\u309B"), (HAN_HANDAKUTEN, "\u309C"), (HAN_DAKUTEN, "\u3099"),
             (HAN_HANDAKUTEN, "\u309A")]


def voicing_pair(base_marks, mark):
    """Unvoiced / voiced rows: full-width katakana, hiragana, half-width katakana."""
    return (list(base_marks) + [(hira(b), hira(v)) for b, v in base_marks if hira(v)]
            + [(h, hv) for h, hv, _ in half_voiced(base_marks, mark)])


# Half-width base and mark, with the precomposed full-width kana, of every voiced and semi-voiced
# katakana that has a half-width base.
HALF_MARKED = half_voiced(VOICED, HAN_DAKUTEN) + half_voiced(SEMI_VOICED, HAN_HANDAKUTEN)


PAIR_TABLES = [
    ("HANKAKU_ZENKAKU_PAIR",
     [(hv, v) for _, hv, v in HALF_MARKED]
     + [(c, zen(c)) for c in char_range("!", "~")] + [(" ", "\u3000")]
     + list(zip(HAN_CJK_MARKS, ZEN_CJK_MARKS)) + list(zip(HAN_KATA, ZEN_OF_HAN)) + MARK_ROWS),
    ("HANKATA_HIRAGANA_PAIR",
     [(hv, hira(v)) for _, hv, v in HALF_MARKED if hira(v)]
     + [(h, hira(k) or k) for h, k in zip(HAN_KATA, ZEN_OF_HAN)] + MARK_ROWS),
    ("ZENKATA_HIRAGANA_PAIR", [(k, hira(k)) for k in ZEN_KATA if hira(k)]),
    ("LOWER_UPPER_PAIR", [(c, c.upper()) for c in char_range("a", "z")]
     + [(zen(c), zen(c.upper())) for c in char_range("a", "z")]),
    ("NODAKUON_DAKUON_PAIR", voicing_pair(VOICED, HAN_DAKUTEN)),
    ("NODAKUON_HANDAKUON_PAIR", voicing_pair(SEMI_VOICED, HAN_HANDAKUTEN)),
]


def check_tables():
    """Raises ValueError for an empty entry, an entry hidden by an earlier one, or an entry in two
    classes that must be disjoint."""
    for name, entries in CODE_TABLES:
        check_reachable(name, entries)
    tables = dict(CODE_TABLES)
    owner = {}
    for name in DISJOINT_CLASSES:
        for entry in tables[name]:
            if entry in owner:
                raise ValueError(f"{entry!r} is in both {owner[entry]} and {name}")
            owner[entry] = name
    for name, rows in PAIR_TABLES:
        check_reachable(name + " (direction 0)", [a for a, _ in rows], allow_repeats=True)
        check_reachable(name + " (direction 1)", [b for _, b in rows], allow_repeats=True)


def check_reachable(name, entries, allow_repeats=False):
    for i, entry in enumerate(entries):
        if not entry:
            raise ValueError(f"{name}: empty entry")
        for earlier in entries[:i]:
            if entry.startswith(earlier) and (entry != earlier or not allow_repeats):
                raise ValueError(f"{name}: {entry!r} is hidden by {earlier!r}")


def literal_body(units, width, split):
    """Printable ASCII as it is, every other unit as a \\x escape. The literal is split (`split`
    closes it and opens the next) where a hex digit would otherwise extend the escape before it."""
    out = ""
    escaped = False
    for unit in units:
        if 0x20 <= unit < 0x7F:
            char = chr(unit)
            if escaped and char in string.hexdigits:
                out += split
            out += "\\" + char if char in '"\\' else char
            escaped = False
        else:
            out += f"\\x{unit:0{width}X}"
            escaped = True
    return out


def narrow(text):
    return '"' + literal_body(text.encode("utf-8"), 2, '" "') + '"'


def wide(text):
    return 'L"' + literal_body([ord(c) for c in text], 4, '" L"') + '"'


def shown(text):
    """How a string reads in a comment: visible characters as they are, the others as U+XXXX."""
    parts = []
    for c in text:
        # A backslash would end a comment line with a line continuation.
        visible = ((0x20 < ord(c) < 0x7F and c != "\\")
                   or (ord(c) > 0xA0 and c not in "\u3000\u3099\u309A"))
        parts.append(c if visible else f"U+{ord(c):04X}")
    return " ".join(parts) if any(len(p) > 1 for p in parts) else "".join(parts)


def render():
    lines = [
        "// Generated by tools/gen_char_attrib_tables.py from its character lists; edit the script",
        "// and run it again rather than editing this file.",
        '#include "UtlCharAttrib.h"',
        "",
        "namespace utl {",
        "",
        "// clang-format off",
    ]
    for name, entries in CODE_TABLES:
        lines.append(f"const CodeEntry {name}[] = {{")
        for entry in entries:
            lines.append(f"    {{{narrow(entry)}, {wide(entry)}}},  // {shown(entry)}")
        lines += ["    {},", "};", ""]
    for name, rows in PAIR_TABLES:
        lines.append(f"const PairAttrib {name}[] = {{")
        for a, b in rows:
            row = f"{narrow(a)}, {wide(a)}, {narrow(b)}, {wide(b)}"
            lines.append(f"    {{{row}}},  // {shown(a)} {shown(b)}")
        lines += ["    {},", "};", ""]
    lines += ["// clang-format on", "", "}  // namespace utl", ""]
    return "\n".join(lines)


def checked_render():
    check_tables()
    return render()


def main():
    return generated_source.write_or_check(__doc__.splitlines()[0], checked_render)


if __name__ == "__main__":
    sys.exit(main())
