#!/usr/bin/env python3
"""Writes the NFKC forms of the kana and half-width/full-width texts that the pair tables of
utl may hold, as reference data for tests/UtlCharAttribTest.cpp.

    tools/gen_nfkc_pairs.py OUTPUT

Each line is "<code points of a text>;<code points of its NFKC form>", code points in hex
separated by spaces. The texts are every character of U+0020-U+007E, U+3000-U+30FF and
U+FF01-U+FF9F, and every kana (hiragana, full-width and half-width katakana) followed by one of
the voicing marks U+3099, U+309A, U+FF9E, U+FF9F. Only Python's unicodedata is consulted, never
the library's tables.
"""

import sys
import unicodedata

SINGLE_RANGES = [(0x0020, 0x007E), (0x3000, 0x30FF), (0xFF01, 0xFF9F)]
KANA_RANGES = [(0x3041, 0x3096), (0x309D, 0x309D), (0x30A1, 0x30FA), (0x30FD, 0x30FD),
               (0xFF66, 0xFF9D)]
MARKS = [0x3099, 0x309A, 0xFF9E, 0xFF9F]


def code_points(text):
    return " ".join(f"{ord(c):04X}" for c in text)


def texts():
    for first, last in SINGLE_RANGES:
        for c in range(first, last + 1):
            yield chr(c)
    for first, last in KANA_RANGES:
        for c in range(first, last + 1):
            for mark in MARKS:
                yield chr(c) + chr(mark)


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    with open(sys.argv[1], "w", encoding="ascii") as f:
        for text in texts():
            f.write(f"{code_points(text)};{code_points(unicodedata.normalize('NFKC', text))}\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
