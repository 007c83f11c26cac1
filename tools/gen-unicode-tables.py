#!/usr/bin/env python3
"""Writes src/util/generated_UnicodeTables.cpp from the Unicode Character Database.

    tools/gen-unicode-tables.py [--ucd DIR] [--output FILE]

The input is Debian's `unicode-data` package (/usr/share/unicode). The version is
pinned: the run fails unless every file that names its version names
UNICODE_VERSION, so that a regenerated file never changes behind a reviewer's
back. The build never runs this; the output is committed.

Characters are looked up by their packed UTF-8 bytes (the bytes of one character
in a 32-bit word, the first byte highest: U+00E9 is 0xC3A9), so every table key
below is a packed value unless it says otherwise.

Flags word of a character from U+0080 on (ASCII is left to the C locale):

  0x80000000 alphabetic    Alphabetic property (DerivedCoreProperties.txt).
  0x60000000 case field    From the simple case mappings, UnicodeData.txt fields
                           12 (upper) and 13 (lower):
             0x20000000    upper case: has a simple lower-case mapping, and the
                           low 24 bits XOR the packed value into that form; or
                           has no mapping and is Uppercase or titlecase (XOR 0).
             0x40000000    lower case: otherwise has a simple upper-case mapping
                           (low 24 bits as above), or has no mapping and is
                           Lowercase (XOR 0).
             0x60000000    alternating range: an even code point is the upper
                           case of the odd one after it (low 24 bits unused).
                           Used wherever it gives exactly the answers above.
                           A titlecase letter (U+01C5 and the like) counts as
                           upper case and maps to its lower-case form; its
                           upper-case mapping is not kept, so upper-casing
                           leaves it as it is.
  0x10000000 digit         General category Nd.
  0x08000000 space         White_Space property (PropList.txt).
  0x04000000 control       General category Cc.
  0x02000000 printable     Graphic or space separator: categories L*, M*, N*,
                           P*, S* and Zs.
  0x01000000 punctuation   As the C locale's ispunct: printable, and neither
                           space, alphabetic nor digit. That is P* and S*, and
                           also the marks and numbers that are not alphabetic
                           (U+0301, U+00B2), so that graphic = alphabetic,
                           digit or punctuation holds everywhere.

Unassigned code points, surrogates and private use get no flags. Ranges hold
runs of consecutive code points with the same flags word; runs with flags 0 are
left out, since a failed lookup means 0. Below U+20000, a block index narrows
the search, and a bitmap of the 64-code-point blocks that hold any character
with another case lets case mapping skip the search everywhere else.

Combining marks: the second characters of the two-character canonical
decompositions of the characters that compose (not Full_Composition_Exclusion).
Their bits follow their packed order; the layout is fixed at U+0300 on bit 0 and
the kana voicing marks U+3099/U+309A on bits 52/53, within 64 bits, and the run
fails if the data no longer fits it.

Composed characters: every composing character whose full canonical
decomposition is a starter followed by distinct marks of that table. It is
keyed by that starter and the set of its marks, and also by every character
(composed or not) that decomposes to the same starter with a part of those
marks, and the rest of the marks: so U+00E2 with U+0301 finds U+1EA5 as "a"
with U+0302 and U+0301 does. A character's own decomposition (a base and one
mark) always finds it. A set has no order, so U with diaeresis and macron is
U+01D5 or U+1E7A by the order of the marks; the table keeps U+01D5/U+01D6 for
it, and any other clash fails the run.

Display width, for every code point: 2 for East Asian Wide and Fullwidth; 0 for
nonspacing and enclosing marks (Mn, Me), format controls (Cf) and controls (Cc);
1 otherwise (unassigned too, unless its block defaults to Wide). Below U+0080
the table follows the C rule of the code: 0 below 0x20, else 1.
"""

import argparse
import os
import sys

UNICODE_VERSION = "15.0.0"

ALPHA = 0x80000000
CASE_UPPER = 0x20000000
CASE_LOWER = 0x40000000
CASE_ALTERNATING = 0x60000000
CASE_FIELD = 0x60000000
DIGIT = 0x10000000
SPACE = 0x08000000
CONTROL = 0x04000000
PRINTABLE = 0x02000000
PUNCT = 0x01000000
XOR_MASK = 0x00FFFFFF

MAX_CODEPOINT = 0x10FFFF
# Code points below this have a block index into the flags ranges.
INDEXED_LIMIT = 0x20000
SURROGATES = range(0xD800, 0xE000)

# Unassigned code points in these blocks are Wide (EastAsianWidth.txt header).
WIDE_DEFAULT_BLOCKS = [(0x3400, 0x4DBF), (0x4E00, 0x9FFF), (0xF900, 0xFAFF),
                       (0x20000, 0x2FFFD), (0x30000, 0x3FFFD)]

# Bits the layout of the marks table promises.
FIXED_MARK_BITS = {0x0300: 0, 0x3099: 52, 0x309A: 53}
MARK_BITS = 64

# The pair a mark set can't tell apart, and which side of it the table keeps.
KNOWN_CLASHES = {frozenset((0x01D5, 0x1E7A)): 0x01D5, frozenset((0x01D6, 0x1E7B)): 0x01D6}


def fail(message):
    sys.exit("gen-unicode-tables: " + message)


def pack(cp):
    """The packed UTF-8 bytes of a code point."""
    b = chr(cp).encode("utf-8", "surrogatepass")
    return int.from_bytes(b, "big")


def check_version(path):
    with open(path, encoding="utf-8") as f:
        head = f.readline()
    if "-" + UNICODE_VERSION + ".txt" not in head:
        fail("%s is not Unicode %s (%s)" % (path, UNICODE_VERSION, head.strip()))


def read_property_file(path, wanted):
    """{property: set of code points} for the properties in `wanted`."""
    check_version(path)
    result = {p: set() for p in wanted}
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.split("#", 1)[0].strip()
            if not line:
                continue
            fields = [x.strip() for x in line.split(";")]
            if fields[1] not in result:
                continue
            lo, _, hi = fields[0].partition("..")
            result[fields[1]].update(range(int(lo, 16), int(hi or lo, 16) + 1))
    return result


class Ucd:
    def __init__(self, directory):
        self.dir = directory
        with open(os.path.join(directory, "ReadMe.txt"), encoding="utf-8") as f:
            if "Version " + UNICODE_VERSION + " " not in f.read():
                fail("%s is not the Unicode %s database" % (directory, UNICODE_VERSION))
        self.category = {}  # code point -> general category; absent means Cn
        self.ccc = {}
        self.decomposition = {}  # canonical only
        self.upper = {}
        self.lower = {}
        self._read_unicode_data()
        props = read_property_file(self.path("DerivedCoreProperties.txt"),
                                   ("Alphabetic", "Uppercase", "Lowercase"))
        self.alphabetic = props["Alphabetic"]
        self.uppercase = props["Uppercase"]
        self.lowercase = props["Lowercase"]
        self.white_space = read_property_file(self.path("PropList.txt"),
                                              ("White_Space",))["White_Space"]
        self.composition_exclusion = read_property_file(
            self.path("DerivedNormalizationProps.txt"),
            ("Full_Composition_Exclusion",))["Full_Composition_Exclusion"]
        self.east_asian_width = self._read_east_asian_width()

    def path(self, name):
        return os.path.join(self.dir, name)

    def _read_unicode_data(self):
        first = None
        with open(self.path("UnicodeData.txt"), encoding="utf-8") as f:
            for line in f:
                fields = line.rstrip("\n").split(";")
                cp = int(fields[0], 16)
                name, category = fields[1], fields[2]
                if name.endswith(", First>"):
                    first = cp
                    continue
                if name.endswith(", Last>"):
                    for c in range(first, cp + 1):
                        self.category[c] = category
                    continue
                self.category[cp] = category
                self.ccc[cp] = int(fields[3])
                if fields[5] and not fields[5].startswith("<"):
                    self.decomposition[cp] = [int(x, 16) for x in fields[5].split()]
                if fields[12]:
                    self.upper[cp] = int(fields[12], 16)
                if fields[13]:
                    self.lower[cp] = int(fields[13], 16)

    def _read_east_asian_width(self):
        path = self.path("EastAsianWidth.txt")
        check_version(path)
        width = {}
        for lo, hi in WIDE_DEFAULT_BLOCKS:
            for c in range(lo, hi + 1):
                width[c] = "W"
        with open(path, encoding="utf-8") as f:
            for line in f:
                line = line.split("#", 1)[0].strip()
                if not line:
                    continue
                rng, value = [x.strip() for x in line.split(";")]
                lo, _, hi = rng.partition("..")
                for c in range(int(lo, 16), int(hi or lo, 16) + 1):
                    width[c] = value
        return width

    def full_decomposition(self, cp):
        parts = self.decomposition.get(cp)
        if parts is None:
            return [cp]
        out = []
        for p in parts:
            out.extend(self.full_decomposition(p))
        return out


# ---------------------------------------------------------------- flags

def case_answers(cp, word):
    """(isUpper, isLower, toUpper, toLower) that the code derives from a flags word."""
    field = word & CASE_FIELD
    if field == CASE_ALTERNATING:
        odd = cp & 1
        return (not odd, bool(odd), cp & ~1, cp | 1)
    if field == CASE_UPPER:
        return (True, False, cp, unpack(pack(cp) ^ (word & XOR_MASK)))
    if field == CASE_LOWER:
        return (False, True, unpack(pack(cp) ^ (word & XOR_MASK)), cp)
    return (False, False, cp, cp)


def unpack(packed):
    n = (packed.bit_length() + 7) // 8
    return ord(packed.to_bytes(max(n, 1), "big").decode("utf-8"))


def case_bits(ucd, cp):
    lower = ucd.lower.get(cp, cp)
    upper = ucd.upper.get(cp, cp)
    if lower != cp:
        delta = pack(cp) ^ pack(lower)
        kind = CASE_UPPER
    elif upper != cp:
        delta = pack(cp) ^ pack(upper)
        kind = CASE_LOWER
    elif cp in ucd.uppercase or ucd.category.get(cp) == "Lt":
        return CASE_UPPER
    elif cp in ucd.lowercase:
        return CASE_LOWER
    else:
        return 0
    if delta > XOR_MASK:
        fail("case pair U+%04X does not fit a 24-bit XOR (0x%X)" % (cp, delta))
    return kind | delta


def flags_word(ucd, cp):
    category = ucd.category.get(cp, "Cn")
    if category in ("Cn", "Cs", "Co"):
        return 0
    word = case_bits(ucd, cp)
    if cp in ucd.alphabetic:
        word |= ALPHA
    if category == "Nd":
        word |= DIGIT
    if cp in ucd.white_space:
        word |= SPACE
    if category == "Cc":
        word |= CONTROL
    if category[0] in "LMNPS" or category == "Zs":
        word |= PRINTABLE
        if not word & (ALPHA | DIGIT | SPACE):
            word |= PUNCT
    # An alternating range answers as the explicit mapping does, or isn't used.
    alternating = (word & ~(CASE_FIELD | XOR_MASK)) | CASE_ALTERNATING
    if word & CASE_FIELD and case_answers(cp, alternating) == case_answers(cp, word):
        word = alternating
    return word


def flag_ranges(ucd):
    ranges = []  # [first cp, last cp, word]
    for cp in range(0x80, MAX_CODEPOINT + 1):
        word = flags_word(ucd, cp)
        if word == 0:
            continue
        if (ranges and ranges[-1][1] == cp - 1 and ranges[-1][2] == word
                and cp not in (0x800, 0x10000)):
            ranges[-1][1] = cp
        else:
            ranges.append([cp, cp, word])
    # A lookup of any packed value from 0xC280 on is safe only while no range
    # holds a surrogate or runs from one encoded length into the next: then
    # over-long and malformed values fall between ranges.
    for first, last, word in ranges:
        if first <= SURROGATES[-1] and last >= SURROGATES[0]:
            fail("a flags range holds a surrogate")
        if len(chr(first).encode()) != len(chr(last).encode()):
            fail("flags range U+%04X..U+%04X changes encoded length" % (first, last))
    return ranges


def flag_block_index(ranges):
    """For each 64-code-point block below INDEXED_LIMIT, and the limit itself:
    the first range that ends at or after the block's first code point."""
    index = []
    i = 0
    for block in range(INDEXED_LIMIT // 64 + 1):
        while i < len(ranges) and ranges[i][1] < block * 64:
            i += 1
        index.append(i)
    if len(ranges) > 0xFFFF:
        fail("too many flags ranges for a 16-bit index")
    return index


def case_block_bits(ranges):
    """One bit for each 64-code-point block below INDEXED_LIMIT: set when a
    character there has another case, so that others skip the search."""
    words = [0] * (INDEXED_LIMIT // 64 // 64)
    for first, last, word in ranges:
        if first >= INDEXED_LIMIT:
            break
        for cp in range(first, min(last + 1, INDEXED_LIMIT)):
            _, _, upper, lower = case_answers(cp, word)
            if upper != cp or lower != cp:
                block = cp >> 6
                words[block >> 6] |= 1 << (block & 63)
    return words


# ---------------------------------------------------------------- combining marks

def combiner_marks(ucd):
    marks = set()
    for cp, parts in ucd.decomposition.items():
        if len(parts) == 2 and cp not in ucd.composition_exclusion:
            marks.add(parts[1])
    ordered = sorted(marks, key=pack)
    if len(ordered) > MARK_BITS:
        fail("%d combining marks do not fit %d bits" % (len(ordered), MARK_BITS))
    for cp, bit in FIXED_MARK_BITS.items():
        if cp not in marks or ordered.index(cp) != bit:
            fail("U+%04X must be combining mark bit %d" % (cp, bit))
    return ordered


def combiners(ucd, marks):
    bit_of = {m: 1 << i for i, m in enumerate(marks)}

    def split(cp):
        """(starter, mark set) of a full decomposition made of distinct marks."""
        full = ucd.full_decomposition(cp)
        rest = full[1:]
        if (ucd.ccc.get(full[0], 0) != 0 or full[0] in bit_of
                or any(m not in bit_of for m in rest) or len(set(rest)) != len(rest)):
            return None
        mask = 0
        for m in rest:
            mask |= bit_of[m]
        return full[0], mask

    by_starter = {}  # starter -> [(mask, character)], the starter itself with mask 0
    composed = []
    for cp in sorted(ucd.decomposition):
        s = split(cp)
        if s is None:
            continue
        starter, mask = s
        by_starter.setdefault(starter, [(0, starter)]).append((mask, cp))
        if cp not in ucd.composition_exclusion and mask:
            composed.append((cp, starter, mask))

    # A character's own decomposition (base, one mark) is exact and comes first;
    # the keys that drop the order of marks only fill what is left.
    exact = {}
    for cp, _, _ in composed:
        base, mark = ucd.decomposition[cp]
        exact[(pack(base), bit_of[mark])] = cp
    derived = {}
    for cp, starter, mask in composed:
        for part, base in by_starter[starter]:
            if part & mask != part or part == mask:
                continue
            key = (pack(base), mask & ~part)
            if key in exact:
                continue
            old = derived.setdefault(key, cp)
            if old != cp:
                keep = KNOWN_CLASHES.get(frozenset((old, cp)))
                if keep is None:
                    fail("U+%04X and U+%04X share a base and mark set" % (old, cp))
                derived[key] = keep
    table = sorted(list(exact.items()) + list(derived.items()))
    # Composing rewrites the text in place, and the marks table must not hold
    # a composed character, or composing twice would differ from once.
    for (base, mask), cp in table:
        marks_length = sum(len(chr(m).encode()) for m in marks if mask & bit_of[m])
        if len(chr(cp).encode()) > (base.bit_length() + 7) // 8 + marks_length:
            fail("U+%04X is longer than its base and marks" % cp)
        if cp in bit_of:
            fail("composed U+%04X is a combining mark" % cp)
    return table


# ---------------------------------------------------------------- display width

def width_of(ucd, cp):
    if cp < 0x80:
        return 1 if cp >= 0x20 else 0
    if ucd.category.get(cp, "Cn") in ("Mn", "Me", "Cf", "Cc"):
        return 0
    if ucd.east_asian_width.get(cp, "N") in ("W", "F"):
        return 2
    return 1


def width_ranges(ucd):
    ranges = []
    for cp in range(0, MAX_CODEPOINT + 1):
        w = width_of(ucd, cp)
        if not ranges or ranges[-1][1] != w:
            ranges.append((cp, w))
    return ranges


# ---------------------------------------------------------------- output

def render(ucd):
    flags = flag_ranges(ucd)
    marks = combiner_marks(ucd)
    composed = combiners(ucd, marks)
    widths = width_ranges(ucd)
    out = []
    w = out.append
    w("// Generated by tools/gen-unicode-tables.py from the Unicode Character Database,")
    w("// version %s. Do not edit: change the generator and run it again." % UNICODE_VERSION)
    w("// The flag bits, the mark layout and the width rules are described there.")
    w("// clang-format off")
    w("")
    w('#include "libzero/codepoint-width.h"')
    w('#include "util/UnicodeCodepoint.h"')
    w("")
    w('constinit const char unicode_tables_version[] = "%s";' % UNICODE_VERSION)
    w("")
    w("// First packed value, flags, end (one past the last packed value).")
    w("constinit const utf8_flag_range utf8_flag_ranges[%d] = {" % len(flags))
    for first, last, word in flags:
        w("    {0x%X, 0x%08X, 0x%X},  // U+%04X..U+%04X" % (pack(first), word, pack(last) + 1,
                                                        first, last))
    w("};")
    w("constinit const size_t utf8_flag_ranges_count = %d;" % len(flags))
    w("")
    index = flag_block_index(flags)
    w("// The first range that ends in or after each 64-code-point block, up to U+%04X." %
      INDEXED_LIMIT)
    w("constinit const uint16_t utf8_flag_block_index[%d] = {" % len(index))
    line = "   "
    for i in index:
        item = " %d," % i
        if len(line) + len(item) > 100:
            w(line)
            line = "   "
        line += item
    w(line)
    w("};")
    w("constinit const uint32_t utf8_flag_block_index_limit = 0x%X;" % INDEXED_LIMIT)
    w("")
    bits = case_block_bits(flags)
    w("// Bit b %% 64 of word b / 64: block b holds a character with another case.")
    w("constinit const uint64_t utf8_case_block_bits[%d] = {" % len(bits))
    for i in range(0, len(bits), 4):
        w("    " + " ".join("0x%016XULL," % x for x in bits[i:i + 4]))
    w("};")
    w("")
    w("constinit const utf8_combiner_mark utf8_combiner_marks[%d] = {" % len(marks))
    for i, m in enumerate(marks):
        w("    {0x%X, 0x%016XULL},  // U+%04X, bit %d" % (pack(m), 1 << i, m, i))
    w("};")
    w("constinit const size_t utf8_combiner_marks_count = %d;" % len(marks))
    w("")
    w("// Base, composed character (both packed), mark bits; by base, then bits.")
    w("constinit const utf8_combiner utf8_combiners[%d] = {" % len(composed))
    for (base, mask), cp in composed:
        w("    {0x%X, 0x%X, 0x%016XULL},  // U+%04X" % (base, pack(cp), mask, cp))
    w("};")
    w("constinit const size_t utf8_combiners_count = %d;" % len(composed))
    w("")
    w("// Width << 21 | first code point of the range.")
    w("constinit const uint32_t codepoint_width_ranges[%d] = {" % len(widths))
    line = "   "
    for cp, width in widths:
        item = " 0x%08X," % (width << 21 | cp)
        if len(line) + len(item) > 100:
            w(line)
            line = "   "
        line += item
    w(line)
    w("};")
    w("constinit const size_t codepoint_width_ranges_count = %d;" % len(widths))
    w("")
    w("// clang-format on")
    return "\n".join(out) + "\n"


def main():
    top = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--ucd", default="/usr/share/unicode")
    parser.add_argument("--output", default=os.path.join(top, "src/util/generated_UnicodeTables.cpp"))
    args = parser.parse_args()
    text = render(Ucd(args.ucd))
    with open(args.output, "w", encoding="utf-8") as f:
        f.write(text)


if __name__ == "__main__":
    main()
