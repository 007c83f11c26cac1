#!/usr/bin/env python3
"""Generates the character set tables of UTF8Converter.

    tools/gen-charset-tables.py [OUTDIR]     (default: src/util)

Writes generated_UTF8FindEngine.cpp (the name table), and the single-byte,
Chinese, Japanese and Korean table files beside it. The outputs are committed;
the build never runs this.

Sources, all on a stock Debian machine:
  - glibc's charmaps in /usr/share/i18n/charmaps (package "locales"): every
    table that has one, unless the vendor's published table says otherwise;
  - glibc's own converter, through iconv(3): the decode-only codes of the
    double-byte sets (duplicates such as CP932's NEC-selected IBM rows), which
    a charmap can't list because it must map both ways;
  - Python's codecs (generated from the vendors' published mapping files) for
    the sets glibc lacks or maps differently from the vendor: the Apple sets
    and Windows-874;
  - Perl's Encode for MacHebrew and MacThai, which Python lacks.
"""

import codecs
import ctypes
import gzip
import os
import re
import subprocess
import sys

CHARMAPS = "/usr/share/i18n/charmaps/"
UNMAPPED = 0xFFFF

# ---------------------------------------------------------------- names

ENGINES = {}  # normalised name -> (engine function, data symbol or None)


def names(engine, data, *aliases):
    for a in aliases:
        assert re.fullmatch(r"[a-z0-9]+", a), a
        assert a not in ENGINES, a
        ENGINES[a] = (engine, data)


names("utf8", None, "ansix341968", "ansix341986", "ascii", "cesu8", "cp367", "csascii", "ibm367",
      "iso646irv1991", "iso646us", "isoir6", "us", "usascii", "utf8")
names("utf16be", None, "csunicode", "csunicode11", "iso10646ucs2", "ucs2", "ucs2be", "ucs2swapped",
      "unicode11", "unicodebig", "utf16", "utf16be")
names("utf16le", None, "ucs2internal", "ucs2le", "unicodelittle", "utf16le")
names("ucs4", "utf8_ucs4_big_endian", "csucs4", "iso10646ucs4", "ucs4", "ucs4be", "ucs4swapped",
      "utf32", "utf32be")
names("ucs4", "utf8_ucs4_little_endian", "ucs4internal", "ucs4le", "utf32le")
names("utf7", None, "csunicode11utf7", "unicode11utf7", "utf7")
names("utfebcdic", None, "utfebcdic")
names("java_c99", None, "c99", "java")


def dbcs(key, *aliases):
    names("rulebased", "utf8_dbcs_" + key, *aliases)


dbcs("big5", "big5", "bigfive", "cnbig5", "cp950", "csbig5")
dbcs("big5hkscs", "big5hkscs", "big5hkscs2001")
# The raw GB 2312 names ("GB_2312-80", "iso-ir-58", "chinese") label EUC-CN
# text in practice, so they share its table.
dbcs("gb2312", "gb2312", "euccn", "cngb", "csgb2312", "gb231280", "chinese", "csiso58gb231280",
     "isoir58")
dbcs("gbk", "gbk", "cp936", "ms936", "windows936")
dbcs("gb18030", "gb18030")
dbcs("hz", "hz", "hzgb2312")
dbcs("eucjp", "eucjp", "cseucpkdfmtjapanese", "extendedunixcodepackedformatforjapanese")
dbcs("sjis", "shiftjis", "sjis", "csshiftjis", "mskanji")
dbcs("cp932", "cp932")
dbcs("jisx0208", "jisx0208", "jisx02081983", "jisx02081990", "jis0208", "jisc62261983", "x0208",
     "isoir87", "csiso87jisx0208")
dbcs("jisx0212", "jisx0212", "jisx02121990", "jisx021219900", "x0212", "isoir159",
     "csiso159jisx02121990")
# Likewise the KS C 5601 names label EUC-KR text.
dbcs("euckr", "euckr", "cseuckr", "ksc5601", "ksc56011987", "ksc56011989", "korean",
     "csksc56011987", "isoir149")
dbcs("cp949", "cp949", "uhc")
dbcs("johab", "cp1361", "johab")
dbcs("euctw", "euctw", "cseuctw")


def onebyte(key, *aliases):
    names("engine_onebyte", "utf8_onebyte_" + key, *aliases)


onebyte("iso88591", "iso88591", "iso885911987", "isoir100", "cp819", "ibm819", "latin1", "l1",
        "csisolatin1")
onebyte("iso88592", "iso88592", "iso885921987", "isoir101", "latin2", "l2", "csisolatin2")
onebyte("iso88593", "iso88593", "iso885931988", "isoir109", "latin3", "l3", "csisolatin3")
onebyte("iso88594", "iso88594", "iso885941988", "isoir110", "latin4", "l4", "csisolatin4")
onebyte("iso88595", "iso88595", "iso885951988", "isoir144", "cyrillic", "csisolatincyrillic")
onebyte("iso88596", "iso88596", "iso885961987", "isoir127", "ecma114", "asmo708", "arabic",
        "csisolatinarabic")
onebyte("iso88597", "iso88597", "iso885971987", "iso885972003", "isoir126", "ecma118", "elot928",
        "greek8", "greek", "csisolatingreek")
onebyte("iso88598", "iso88598", "iso885981988", "isoir138", "hebrew", "csisolatinhebrew")
onebyte("iso88599", "iso88599", "iso885991989", "isoir148", "latin5", "l5", "csisolatin5")
onebyte("iso885910", "iso885910", "iso8859101992", "isoir157", "latin6", "l6", "csisolatin6")
onebyte("iso885911", "iso885911")
onebyte("iso885913", "iso885913", "isoir179", "latin7", "l7")
onebyte("iso885914", "iso885914", "iso8859141998", "isoir199", "latin8", "l8", "isoceltic")
onebyte("iso885915", "iso885915", "iso8859151998", "isoir203", "latin9")
onebyte("iso885916", "iso885916", "iso8859162001", "isoir226", "latin10", "l10")
for page, ms in [(1250, "msee"), (1251, "mscyrl"), (1252, "msansi"), (1253, "msgreek"),
                 (1254, "msturk"), (1255, "mshebr"), (1256, "msarab"), (1257, "winbaltrim"),
                 (1258, None)]:
    onebyte("cp%d" % page, "cp%d" % page, "windows%d" % page, *([ms] if ms else []))
onebyte("cp874", "cp874", "windows874")
onebyte("cp850", "cp850", "ibm850", "850", "cspc850multilingual")
onebyte("cp862", "cp862", "ibm862", "862", "cspc862latinhebrew")
onebyte("cp866", "cp866", "ibm866", "866", "csibm866")
onebyte("koi8r", "koi8r", "cskoi8r")
onebyte("koi8u", "koi8u")
onebyte("koi8t", "koi8t")
onebyte("macintosh", "macintosh", "mac", "macroman", "csmacintosh")
for mac in ["maccentraleurope", "maccroatian", "maccyrillic", "macgreek", "machebrew",
            "maciceland", "macromania", "macthai", "macturkish", "macukraine", "macarabic"]:
    onebyte(mac, mac)
onebyte("armscii8", "armscii8")
onebyte("georgianacademy", "georgianacademy")
onebyte("georgianps", "georgianps")
onebyte("hproman8", "hproman8", "roman8", "r8", "cshproman8")
onebyte("nextstep", "nextstep")
onebyte("iso646cn", "iso646cn", "gb198880", "isoir57", "cn", "csiso57gb1988")
onebyte("iso646jp", "iso646jp", "jisc62201969ro", "isoir14", "jp", "csiso14jisc6220ro")
onebyte("jisx0201", "jisx0201", "jisx02011976", "x0201", "cshalfwidthkatakana")
onebyte("tis620", "tis620", "tis6200", "tis62025291", "tis62025330", "tis62025331", "isoir166")
onebyte("viscii", "viscii", "viscii111", "csviscii")

# ---------------------------------------------------------------- sources

CHARMAP_LINE = re.compile(r"^%?((?:<U[0-9A-Fa-f]+>)+)\s+((?:/x[0-9a-fA-F]{2})+)(?:\s|$)")


def charmap(name):
    """bytes -> tuple of code points. Lines commented out with a leading "%"
    that still have the mapping form are the sequences a charmap can't hold
    (Big5-HKSCS's two-code-point characters); they are read too."""
    result = {}
    with gzip.open(CHARMAPS + name + ".gz", "rt", encoding="latin-1") as f:
        for line in f:
            if line.startswith("%") and not line.startswith("%<U"):
                continue
            m = CHARMAP_LINE.match(line)
            if not m:
                continue
            cps = tuple(int(x, 16) for x in re.findall(r"<U([0-9A-Fa-f]+)>", m.group(1)))
            code = bytes(int(x, 16) for x in re.findall(r"/x([0-9a-fA-F]{2})", m.group(2)))
            result.setdefault(code, cps)
    return result


class Iconv:
    """glibc's converter, to UTF-32LE."""
    libc = ctypes.CDLL("libc.so.6", use_errno=True)
    libc.iconv_open.restype = ctypes.c_void_p
    libc.iconv_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
    libc.iconv.restype = ctypes.c_size_t
    libc.iconv.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_void_p),
                           ctypes.POINTER(ctypes.c_size_t), ctypes.POINTER(ctypes.c_void_p),
                           ctypes.POINTER(ctypes.c_size_t)]

    def __init__(self, name):
        self.cd = self.libc.iconv_open(b"UTF-32LE", name.encode())
        assert self.cd not in (None, ctypes.c_void_p(-1).value), name
        self.out = ctypes.create_string_buffer(256)

    def decode(self, data):
        """The code points, or None when glibc refuses the bytes."""
        fail = ctypes.c_size_t(-1).value
        self.libc.iconv(self.cd, None, None, None, None)
        inbuf = ctypes.create_string_buffer(data, len(data))
        inp = ctypes.c_void_p(ctypes.addressof(inbuf))
        inleft = ctypes.c_size_t(len(data))
        outp = ctypes.c_void_p(ctypes.addressof(self.out))
        outleft = ctypes.c_size_t(len(self.out))
        if self.libc.iconv(self.cd, ctypes.byref(inp), ctypes.byref(inleft), ctypes.byref(outp),
                           ctypes.byref(outleft)) == fail:
            return None
        if self.libc.iconv(self.cd, None, None, ctypes.byref(outp), ctypes.byref(outleft)) == fail:
            return None
        n = len(self.out) - outleft.value
        raw = self.out.raw[:n]
        return tuple(int.from_bytes(raw[i:i + 4], "little") for i in range(0, n, 4))


def python_table(codec):
    table = [UNMAPPED] * 256
    for b in range(256):
        try:
            s = bytes([b]).decode(codec)
        except UnicodeDecodeError:
            continue
        assert len(s) == 1, (codec, b)
        table[b] = ord(s)
    return table


def is_pua(cp):
    return 0xE000 <= cp <= 0xF8FF


def perl_table(encoding):
    """Apple's Hebrew and Thai tables map some bytes to a character plus
    rendering hints in the private use area, or to a base with its mark;
    one code value can hold only the first real character, which is kept.
    They also give the ASCII range with direction hints that Encode can't
    decode alone; those bytes are ASCII."""
    script = r'''
        use Encode;
        for my $b (0 .. 255) {
            my $s = eval { decode($ARGV[0], chr($b), Encode::FB_CROAK) };
            print $b, " ", (defined $s ? join(",", map { ord } split //, $s) : "-"), "\n";
        }'''
    text = subprocess.run(["perl", "-e", script, encoding], check=True, capture_output=True,
                          text=True).stdout
    table = [UNMAPPED] * 256
    for line in text.splitlines():
        b, v = line.split(" ")
        b = int(b)
        if v == "-":
            if b < 0x80:
                table[b] = b
            continue
        cps = [int(x) for x in v.split(",")]
        real = [c for c in cps if not is_pua(c)]
        table[b] = real[0] if real else cps[0]
    return table


def charmap_table(name):
    table = [UNMAPPED] * 256
    for code, cps in charmap(name).items():
        if len(code) == 1:
            assert len(cps) == 1
            table[code[0]] = cps[0]
    return table


def jis_x0201(table):
    """glibc's JIS_X0201 charmap gives the katakana as full-width forms and
    adds the C1 controls; JIS X 0201 has neither, and glibc's own EUC-JP and
    Shift_JIS converters read its katakana as the half-width forms, U+FF61 to
    U+FF9F."""
    for b in range(0x80, 0x100):
        table[b] = 0xFF61 + b - 0xA1 if 0xA1 <= b <= 0xDF else UNMAPPED
    return table


# Where a single-byte table comes from. glibc's charmap unless noted:
#  - Windows-874: glibc has the converter but no charmap.
#  - Mac OS Roman: Apple's table has U+2206 at 0xC6 and U+F8FF (the Apple
#    logo) at 0xF0, where glibc has U+0394 and U+E01E.
#  - Mac Cyrillic: Apple's table has the euro sign at 0xFF (glibc U+00A4).
#  - Mac Icelandic: glibc's MAC-IS differs from Apple's table in 12 places.
#  - the other Apple sets: glibc has none.
SINGLE_BYTE_SOURCES = {
    "cp874": lambda: python_table("cp874"),
    "macintosh": lambda: python_table("mac_roman"),
    "maccentraleurope": lambda: charmap_table("MAC-CENTRALEUROPE"),
    "maccroatian": lambda: python_table("mac_croatian"),
    "maccyrillic": lambda: python_table("mac_cyrillic"),
    "macgreek": lambda: python_table("mac_greek"),
    "machebrew": lambda: perl_table("MacHebrew"),
    "maciceland": lambda: python_table("mac_iceland"),
    "macromania": lambda: python_table("mac_romanian"),
    "macthai": lambda: perl_table("MacThai"),
    "macturkish": lambda: python_table("mac_turkish"),
    "macukraine": lambda: charmap_table("MAC-UK"),
    "macarabic": lambda: python_table("mac_arabic"),
    "jisx0201": lambda: jis_x0201(charmap_table("JIS_X0201")),
}
CHARMAP_OF = {
    "cp850": "IBM850", "cp862": "IBM862", "cp866": "IBM866", "koi8r": "KOI8-R",
    "koi8u": "KOI8-U", "koi8t": "KOI8-T", "armscii8": "ARMSCII-8",
    "georgianacademy": "GEORGIAN-ACADEMY", "georgianps": "GEORGIAN-PS", "hproman8": "HP-ROMAN8",
    "nextstep": "NEXTSTEP", "iso646cn": "GB_1988-80", "iso646jp": "JIS_C6220-1969-RO",
    "tis620": "TIS-620", "viscii": "VISCII",
}


def single_byte_table(key):
    if key in SINGLE_BYTE_SOURCES:
        table = SINGLE_BYTE_SOURCES[key]()
    elif key in CHARMAP_OF:
        table = charmap_table(CHARMAP_OF[key])
    elif key.startswith("iso8859"):
        table = charmap_table("ISO-8859-" + key[7:])
    elif key.startswith("cp"):
        table = charmap_table("CP" + key[2:])
    else:
        raise KeyError(key)
    assert table[0] == 0, key
    for b in range(1, 256):
        v = table[b]
        assert v != 0 and not 0xD800 <= v <= 0xDFFF and v <= 0xFFFF, (key, b)
    return table


def utfebcdic_table():
    """UTF-EBCDIC's byte map: the 160 single-byte characters (C0, ASCII, C1)
    sit where IBM-1047 has them; the other 96 byte values of the intermediate
    form, 0xA0 to 0xFF, fill the remaining EBCDIC positions in ascending
    order. Returned as EBCDIC byte -> intermediate byte."""
    ibm1047 = charmap_table("IBM1047")
    assert sorted(ibm1047) == list(range(256))
    i8_to_ebcdic = [0] * 256
    for b, cp in enumerate(ibm1047):
        if cp < 0xA0:
            i8_to_ebcdic[cp] = b
    rest = [b for b in range(256) if ibm1047[b] >= 0xA0]
    for k, b in enumerate(rest):
        i8_to_ebcdic[0xA0 + k] = b
    table = [0] * 256
    for i8, e in enumerate(i8_to_ebcdic):
        table[e] = i8
    assert sorted(table) == list(range(256))
    return table


# ---------------------------------------------------------------- double-byte sets


class Multibyte:
    """The codes of one double-byte set: code bytes -> code points."""

    def __init__(self, charmap_name, iconv_name):
        self.codes = {}
        self.single = [UNMAPPED] * 256
        for code, cps in charmap(charmap_name).items():
            if len(code) == 1:
                self.single[code[0]] = cps[0]
            else:
                self.codes[code] = cps
        self.iconv_name = iconv_name

    def add_decode_only(self):
        """Adds the two-byte codes glibc's converter reads but its charmap,
        which has to map both ways, does not list."""
        cd = Iconv(self.iconv_name)
        leads = range(0x81, 0xFF)
        added = 0
        for lead in leads:
            if lead < 0x80 or self.single[lead] != UNMAPPED:
                continue
            for trail in range(0x21, 0xFF):
                code = bytes([lead, trail])
                if code in self.codes:
                    continue
                cps = cd.decode(code)
                if cps and len(cps) <= 2 and cps != (trail,):
                    self.codes[code] = cps
                    added += 1
        if added:
            print("  %s: %d decode-only codes from glibc's converter" % (self.iconv_name, added))
        return added


class Values:
    """The code-value array of one generated file, shared by its tables:
    a row that already occurs in it (another table's, or the tail of a wider
    row) is not stored again."""

    def __init__(self):
        self.values = []
        self.packed = bytearray()
        self.extras = []

    def place(self, seq):
        needle = b"".join(v.to_bytes(2, "little") for v in seq)
        at = self.packed.find(needle)
        while at >= 0 and at % 2:
            at = self.packed.find(needle, at + 1)
        if at >= 0:
            return at // 2
        offset = len(self.values)
        self.values.extend(seq)
        self.packed.extend(needle)
        return offset


class Row:
    def __init__(self, prefix=False, plane=0, trails=None):
        self.prefix = prefix
        self.plane = plane
        self.trails = trails or {}  # trail byte -> code points
        self.offset = 0
        self.extra = 0
        self.lo = 1
        self.hi = 0


def encode_code(cps, extras_of_row):
    if len(cps) == 1 and cps[0] <= 0xFFFF:
        assert cps[0] != UNMAPPED and not 0xD800 <= cps[0] <= 0xDFFF
        return cps[0]
    if len(cps) == 1:
        value = cps[0]
    else:
        assert len(cps) == 2 and cps[0] < 0x8000 and cps[1] <= 0xFFFF, cps
        value = 0x80000000 | (cps[0] << 16) | cps[1]
    extras_of_row.append(value)
    assert len(extras_of_row) <= 0x800
    return 0xD800 + len(extras_of_row) - 1


class Table:
    """One dbcs_table: planes of rows, then laid out into a Values."""

    def __init__(self, key, single, kind="DBCS_PLAIN"):
        self.key = key
        self.single = single
        self.kind = kind
        self.planes = [{}]  # plane index -> {byte: Row}
        self.ranges = []
        self.shared_planes = None  # another table's planes, used as they are

    def add(self, plane, code, cps):
        """Adds a code whose bytes, after those that chose `plane`, are `code`."""
        rows = self.planes[plane]
        if len(code) == 2:
            row = rows.setdefault(code[0], Row())
            assert not row.prefix
            row.trails[code[1]] = cps
            return
        row = rows.get(code[0])
        if row is None:
            self.planes.append({})
            row = rows[code[0]] = Row(prefix=True, plane=len(self.planes) - 1)
        assert row.prefix
        self.add(row.plane, code[1:], cps)

    def layout(self, values):
        for b in self.planes[0]:
            assert self.single[b] == UNMAPPED, (self.key, b)
        for rows in self.planes:
            for row in sorted(rows.values(), key=lambda r: -len(r.trails)):
                if row.prefix:
                    continue
                self.lay_row(row, values)

    @staticmethod
    def lay_row(row, values):
        row.lo, row.hi = min(row.trails), max(row.trails)
        extras = []
        seq = [encode_code(row.trails[t], extras) if t in row.trails else UNMAPPED
               for t in range(row.lo, row.hi + 1)]
        if extras:
            # Escapes are relative to the row, so such a row is never shared.
            row.extra = len(values.extras)
            values.extras.extend(extras)
            row.offset = len(values.values)
            values.values.extend(seq)
            values.packed.extend(b"".join(v.to_bytes(2, "little") for v in seq))
        else:
            row.offset = values.place(seq)


def gb18030_linear(code):
    return (((code[0] - 0x81) * 10 + code[1] - 0x30) * 126 + code[2] - 0x81) * 10 + code[3] - 0x30


GB18030_SUPPLEMENTARY_BASE = gb18030_linear(b"\x90\x30\x81\x30")


def gb18030_ranges(codes):
    """Runs of four-byte BMP codes whose linear index and code point both
    step by one. Codes above the BMP are arithmetic (U+10000 at 90 30 81 30)
    and are checked against the charmap here, not stored."""
    bmp = []
    for code, cps in codes.items():
        if len(code) != 4:
            continue
        linear = gb18030_linear(code)
        if cps[0] > 0xFFFF:
            assert linear - GB18030_SUPPLEMENTARY_BASE == cps[0] - 0x10000, code
        else:
            bmp.append((linear, cps[0]))
    bmp.sort()
    runs = []
    for linear, cp in bmp:
        if runs and runs[-1][0] + runs[-1][2] == linear and runs[-1][1] + runs[-1][2] == cp:
            runs[-1][2] += 1
        else:
            runs.append([linear, cp, 1])
    return runs


def charmap_ranges(name):
    """The "<Uxxxx>..<Uyyyy> /xAA/xBB/xCC/xDD" lines of GB18030's charmap,
    expanded (supplementary code points only; the last byte steps 0x30-0x39)."""
    result = {}
    rx = re.compile(r"^<U([0-9A-F]+)>\.\.<U([0-9A-F]+)>\s+((?:/x[0-9a-f]{2}){4})")
    with gzip.open(CHARMAPS + name + ".gz", "rt", encoding="latin-1") as f:
        for line in f:
            m = rx.match(line)
            if not m:
                continue
            first, last = int(m.group(1), 16), int(m.group(2), 16)
            code = bytes(int(x, 16) for x in re.findall(r"/x([0-9a-f]{2})", m.group(3)))
            for k in range(last - first + 1):
                result[code[:3] + bytes([code[3] + k])] = (first + k,)
                assert code[3] + k <= 0x39
    return result


def build_chinese():
    tables = []
    big5 = Multibyte("BIG5", "BIG5")
    hkscs = Multibyte("BIG5-HKSCS", "BIG5-HKSCS")
    gb2312 = Multibyte("GB2312", "EUC-CN")
    gbk = Multibyte("GBK", "GBK")
    gb18030 = Multibyte("GB18030", "GB18030")
    euctw = Multibyte("EUC-TW", "EUC-TW")
    for m in (big5, hkscs, gb2312, gbk, gb18030, euctw):
        m.add_decode_only()
    # CNS plane 1 has a four-byte form too, 8E A1 before the two bytes; the
    # charmap lists only the short one.
    for code, cps in list(euctw.codes.items()):
        if len(code) == 2:
            euctw.codes.setdefault(b"\x8e\xa1" + code, cps)
    supplementary = charmap_ranges("GB18030")
    gb18030_ranges({**gb18030.codes, **supplementary})  # checks the arithmetic
    for key, m in [("big5", big5), ("big5hkscs", hkscs), ("gbk", gbk), ("gb2312", gb2312),
                   ("gb18030", gb18030), ("euctw", euctw)]:
        t = Table(key, m.single, "DBCS_GB18030" if key == "gb18030" else "DBCS_PLAIN")
        for code, cps in m.codes.items():
            if len(code) == 4 and key == "gb18030":
                continue
            t.add(0, code, cps)
        if key == "gb18030":
            t.ranges = gb18030_ranges(m.codes)
        tables.append(t)
    hz_single = [b if b < 0x80 and b != ord("~") else UNMAPPED for b in range(256)]
    hz = Table("hz", hz_single, "DBCS_HZ")
    hz.shared_planes = "gb2312"
    tables.append(hz)
    return tables


def build_japanese():
    eucjp = Multibyte("EUC-JP", "EUC-JP")
    sjis = Multibyte("SHIFT_JIS", "SJIS")
    cp932 = Multibyte("WINDOWS-31J", "CP932")
    for m in (eucjp, sjis, cp932):
        m.add_decode_only()
    tables = []
    for key, m in [("cp932", cp932), ("eucjp", eucjp), ("sjis", sjis)]:
        t = Table(key, m.single)
        for code, cps in m.codes.items():
            t.add(0, code, cps)
        tables.append(t)
    # The raw 94x94 sets take pairs of seven-bit bytes, and pairs of
    # eight-bit ones (the same codes with the high bits set, as in EUC);
    # control bytes, space and DEL stand alone.
    raw_single = [b if b <= 0x20 or b == 0x7F else UNMAPPED for b in range(256)]
    x0208 = Table("jisx0208", raw_single)
    x0212 = Table("jisx0212", raw_single)
    for code, cps in eucjp.codes.items():
        if len(code) == 2 and code[0] >= 0xA1:
            target, pair = x0208, code
        elif len(code) == 3:
            target, pair = x0212, code[1:]
        else:
            continue
        target.add(0, pair, cps)
        target.add(0, bytes([pair[0] - 0x80, pair[1] - 0x80]), cps)
    tables += [x0208, x0212]
    return tables


def build_korean():
    tables = []
    for key, cm, ic in [("cp949", "CP949", "CP949"), ("euckr", "EUC-KR", "EUC-KR"),
                        ("johab", "JOHAB", "JOHAB")]:
        m = Multibyte(cm, ic)
        m.add_decode_only()
        t = Table(key, m.single)
        for code, cps in m.codes.items():
            t.add(0, code, cps)
        tables.append(t)
    return tables


# ---------------------------------------------------------------- output

HEADER = """\
// Generated by tools/gen-charset-tables.py from glibc's charmaps and the
// vendors' published tables. Do not edit; run the generator.
// clang-format off
"""


def hex_list(values, width, per_line):
    lines = []
    for i in range(0, len(values), per_line):
        lines.append("    " + " ".join("0x%0*X," % (width, v) for v in values[i:i + per_line]))
    return "\n".join(lines)


def write_dbcs_file(path, title, tables):
    values = Values()
    by_key = {t.key: t for t in tables}
    # Widest rows first, so that narrower ones can be found inside them.
    for t in sorted(tables, key=lambda t: -sum(len(r.trails) for p in t.planes for r in p.values())):
        if t.shared_planes is None:
            t.layout(values)
    out = [HEADER, "// %s.\n" % title, '#include "util/UTF8Converter.h"\n']
    out.append("namespace {\n")
    out.append("const uint16_t values[%d] = {\n%s\n};\n" %
               (len(values.values), hex_list(values.values, 4, 12)))
    extras = values.extras or [0]
    out.append("const uint32_t extras[%d] = {\n%s\n};\n" % (len(extras), hex_list(extras, 8, 8)))
    for t in tables:
        k = t.key
        out.append("const uint16_t %s_single[256] = {\n%s\n};\n" % (k, hex_list(t.single, 4, 12)))
        if t.shared_planes is None:
            for i, rows in enumerate(t.planes):
                first, last = min(rows), max(rows)
                items = []
                for b in range(first, last + 1):
                    r = rows.get(b)
                    if r is None:
                        items.append("{0, 0, 1, 0, 0}")
                    elif r.prefix:
                        items.append("{%d, 0, 1, 0, 1}" % r.plane)
                    else:
                        items.append("{%d, %d, 0x%02X, 0x%02X, 0}" % (r.offset, r.extra, r.lo, r.hi))
                out.append("const UTF8Converter::dbcs_row %s_rows%d[%d] = {\n" %
                           (k, i, last - first + 1))
                for j in range(0, len(items), 4):
                    out.append("    " + ", ".join(items[j:j + 4]) + ",\n")
                out.append("};\n")
            planes = []
            for i, rows in enumerate(t.planes):
                planes.append("{%s_rows%d, 0x%02X, 0x%02X}" % (k, i, min(rows), max(rows)))
            out.append("const UTF8Converter::dbcs_plane %s_planes[%d] = {\n    %s,\n};\n" %
                       (k, len(planes), ",\n    ".join(planes)))
        if t.ranges:
            flat = [x for r in t.ranges for x in r]
            out.append("const uint32_t %s_ranges[%d] = {\n%s\n};\n" %
                       (k, len(flat), hex_list(flat, 5, 9)))
    out.append("}  // namespace\n\n")
    for t in tables:
        out.append("extern const UTF8Converter::dbcs_table utf8_dbcs_%s;\n" % t.key)
    out.append("\n")
    for t in tables:
        k = t.key
        planes = (t.shared_planes or k) + "_planes"
        ranges = ("%s_ranges, %d" % (k, len(t.ranges))) if t.ranges else "nullptr, 0"
        ascii_identity = all(t.single[b] == b for b in range(0x80))
        out.append("const UTF8Converter::dbcs_table utf8_dbcs_%s = {\n"
                   "    %s_single, %s, values, extras, %s,\n"
                   "    UTF8Converter::%s, %s};\n" %
                   (k, k, planes, ranges, t.kind, "true" if ascii_identity else "false"))
    assert all(t.shared_planes is None or t.shared_planes in by_key for t in tables)
    write(path, "".join(out))
    return len(values.values), len(values.extras)


def write_onebyte_file(path):
    keys = sorted({d[len("utf8_onebyte_"):] for e, d in ENGINES.values() if e == "engine_onebyte"})
    out = [HEADER, "// The single-byte sets: 256 code values each, 0xFFFF where a byte is "
           "unmapped.\n", '#include "util/UTF8Converter.h"\n\n']
    for k in keys:
        out.append("extern const uint16_t utf8_onebyte_%s[256];\n" % k)
    out.append("\n")
    for k in keys:
        out.append("const uint16_t utf8_onebyte_%s[256] = {\n%s\n};\n" %
                   (k, hex_list(single_byte_table(k), 4, 12)))
    out.append("\nconst uint8_t utf8_utfebcdic_to_i8[256] = {\n%s\n};\n" %
               hex_list(utfebcdic_table(), 2, 16))
    write(path, "".join(out))
    return len(keys)


def write_names_file(path):
    out = [HEADER, "// Every character set name, normalised and sorted, with its engine.\n",
           '#include "util/UTF8Converter.h"\n\n']
    data = sorted({d for e, d in ENGINES.values() if d})
    for d in data:
        if d.startswith("utf8_onebyte_"):
            out.append("extern const uint16_t %s[256];\n" % d)
        elif d.startswith("utf8_dbcs_"):
            out.append("extern const UTF8Converter::dbcs_table %s;\n" % d)
        else:
            out.append("extern const UTF8Converter::ucs4_reader %s;\n" % d)
    out.append("\nconst UTF8Converter::spec utf8_converter_specs[%d] = {\n" % len(ENGINES))
    for name in sorted(ENGINES):
        engine, d = ENGINES[name]
        if d is None:
            arg = "nullptr"
        elif d.startswith("utf8_onebyte_"):
            arg = d
        else:
            arg = "&" + d
        out.append('    {"%s", utf8_converter_%s, %s},\n' % (name, engine, arg))
    out.append("};\n\nconst size_t utf8_converter_spec_count = %d;\n" % len(ENGINES))
    write(path, "".join(out))


def write(path, text):
    with open(path, "w") as f:
        f.write(text)
    print("wrote %s (%d bytes)" % (path, len(text)))


def main():
    outdir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "..", "src", "util")
    base = os.path.join(outdir, "generated_UTF8FindEngine")
    assert len(ENGINES) == 275, len(ENGINES)
    write_names_file(base + ".cpp")
    print("  %d single-byte tables" % write_onebyte_file(base + "_onebyte.cpp"))
    for part, title, build in [("chinese", "Big5, Big5-HKSCS, GB 2312, GBK, GB18030, HZ, EUC-TW",
                                build_chinese),
                               ("japanese", "EUC-JP, Shift_JIS, CP932, JIS X 0208 and 0212",
                                build_japanese),
                               ("korean", "EUC-KR, CP949 (UHC), Johab", build_korean)]:
        n, x = write_dbcs_file("%s_%s.cpp" % (base, part), title, build())
        print("  %s: %d code values, %d extras" % (part, n, x))


if __name__ == "__main__":
    main()
