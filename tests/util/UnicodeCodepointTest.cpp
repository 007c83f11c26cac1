// Classes, case, caseless order and composition, checked for every code point
// against the Unicode Character Database files read here; the UTF-8 walkers
// against python3's decoder and glibc's encoder.

#include <ctype.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "support/Oracles.h"
#include "support/UcdFiles.h"
#include "util/UnicodeCodepoint.h"

namespace {

const ucd::Database& db() { return ucd::database(); }

std::string utf8(uint32_t cp) {
    utf8_character_buffer b(cp);
    return std::string(b.data(), b.size());
}

std::string hexOf(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "U+%04X", v);
    return buf;
}

// The upper-case form the tables promise: a titlecase letter maps down only.
uint32_t upperForm(uint32_t c) { return db().lowerOf(c) != c ? c : db().upperOf(c); }

// Mismatches over a large loop, reported once with the first few.
struct Mismatches {
    size_t count = 0;
    std::string first;
    void add(uint32_t cp, const char* what) {
        if (count++ < 8) first += " " + hexOf(cp) + ":" + what;
    }
};

// ---------------------------------------------------------------- classes

const struct {
    const char* name;
    bool (UnicodeCodepoint::*is)() const;
    int (*inCLocale)(int);
} kClasses[] = {
    {"alnum", &UnicodeCodepoint::isAlnum, ::isalnum},
    {"alpha", &UnicodeCodepoint::isAlpha, ::isalpha},
    {"cntrl", &UnicodeCodepoint::isCntrl, ::iscntrl},
    {"graph", &UnicodeCodepoint::isGraph, ::isgraph},
    {"print", &UnicodeCodepoint::isPrint, ::isprint},
    {"punct", &UnicodeCodepoint::isPunct, ::ispunct},
    {"space", &UnicodeCodepoint::isSpace, ::isspace},
    {"lower", &UnicodeCodepoint::isLower, ::islower},
    {"upper", &UnicodeCodepoint::isUpper, ::isupper},
};

TEST(UnicodeTables, AreOfTheInstalledDatabaseVersion) {
    EXPECT_EQ(db().version, unicode_tables_version)
        << "the installed database changed: run tools/gen-unicode-tables.py";
}

// ASCII is classed and cased as the C locale. Above, the flags mean:
// alphabetic = Alphabetic; digit = Nd; space = White_Space; control = Cc;
// printable = L, M, N, P, S or Zs; punctuation = printable and none of space,
// alphabetic, digit; graphic = alphabetic, digit or punctuation. Upper case: a
// simple lower-case mapping, or Uppercase or titlecase without any mapping;
// lower case: otherwise a simple upper-case mapping, or Lowercase. A
// titlecase letter maps down only.
TEST(UnicodeCodepoint, EveryCodePointIsClassedAndCasedAsTheDatabaseSays) {
    for (uint32_t c = 0; c < 128; ++c) {
        const UnicodeCodepoint cp(c);
        const int i = static_cast<int>(c);
        for (const auto& k : kClasses) EXPECT_EQ((cp.*k.is)(), k.inCLocale(i) != 0) << k.name << c;
        EXPECT_EQ(cp.toLowercase().value(), static_cast<uint32_t>(tolower(i))) << c;
        EXPECT_EQ(cp.toUppercase().value(), static_cast<uint32_t>(toupper(i))) << c;
    }
    Mismatches bad;
    size_t titlecase = 0;
    for (uint32_t c = 0x80; c < ucd::kCodepoints; ++c) {
        const char m = db().major(c);
        const bool alpha = db().has(c, ucd::kAlphabetic);
        const bool digit = db().is(c, "Nd");
        const bool space = db().has(c, ucd::kWhiteSpace);
        const bool print =
            m == 'L' || m == 'M' || m == 'N' || m == 'P' || m == 'S' || db().is(c, "Zs");
        const bool punct = print && !space && !alpha && !digit;
        const uint32_t lower = db().lowerOf(c), upper = db().upperOf(c);
        const bool mapped = lower != c || upper != c;
        const bool isUpper =
            lower != c || (!mapped && (db().has(c, ucd::kUppercase) || db().is(c, "Lt")));
        const bool isLower = !isUpper && (upper != c || db().has(c, ucd::kLowercase));
        titlecase += lower != c && upper != c;
        const bool want[] = {
            alpha || digit, alpha,   db().is(c, "Cc"), alpha || digit || punct, print, punct,
            space,          isLower, isUpper};
        const UnicodeCodepoint cp(c);
        for (size_t k = 0; k < std::size(want); ++k) {
            if ((cp.*kClasses[k].is)() != want[k]) bad.add(c, kClasses[k].name);
        }
        if (cp.toLowercase().value() != lower) bad.add(c, "toLowercase");
        if (cp.toUppercase().value() != upperForm(c)) bad.add(c, "toUppercase");
    }
    EXPECT_EQ(bad.count, 0u) << bad.first;
    EXPECT_GT(titlecase, 0u) << "the titlecase rule was exercised";
    EXPECT_FALSE(UnicodeCodepoint(0x110000).isPrint());
    EXPECT_FALSE(UnicodeCodepoint(0xFFFFFFFF).isAlpha());
    EXPECT_EQ(UnicodeCodepoint(0x110041).toLowercase().value(), 0x110041u);
}

// ---------------------------------------------------------------- case of texts

// Every code point from U+0080 on, in one text.
std::string allOfUnicode(uint32_t (*map)(uint32_t)) {
    std::string s;
    for (uint32_t c = 0x80; c < ucd::kCodepoints; ++c) {
        if (c < 0xD800 || c > 0xDFFF) s += utf8(map(c));
    }
    return s;
}

TEST(UnicodeCase, TextsOfAllOfUnicodeMapAsTheirCharacters) {
    const Str text(allOfUnicode([](uint32_t c) { return c; }));
    const std::string lower = allOfUnicode([](uint32_t c) { return db().lowerOf(c); });
    const std::string upper = allOfUnicode(upperForm);
    Str out("old contents");
    Str::str_tolower(text, &out);
    EXPECT_TRUE(out == lower);
    Str::str_toupper(text, &out);
    EXPECT_TRUE(out == upper);
    EXPECT_TRUE(text.asLowercase() == lower);
    EXPECT_TRUE(text.asUppercase() == upper);
    Str inPlace = text;
    EXPECT_TRUE(inPlace.toUppercase() == upper);
    Str::str_tolower(inPlace, &inPlace);  // one object on both sides
    EXPECT_TRUE(inPlace == allOfUnicode([](uint32_t c) { return db().lowerOf(upperForm(c)); }));
}

// Characters whose other case is longer in UTF-8 make the output outgrow the
// input; many of them in a row, behind ASCII, grow it again and again. In
// place it maps as into another string: fuzz/unicode_case.cpp.
TEST(UnicodeCase, OutputGrowsPastTheInputLength) {
    for (bool toUpper : {false, true}) {
        std::string text, expected;
        for (uint32_t c = 0x80; c < 0x800; ++c) {
            const uint32_t mapped = toUpper ? upperForm(c) : db().lowerOf(c);
            if (utf8(mapped).size() <= utf8(c).size()) continue;
            for (int i = 0; i < 500; ++i) {
                text += "Ab" + utf8(c);
                expected += (toUpper ? "AB" : "ab") + utf8(mapped);
            }
        }
        ASSERT_FALSE(text.empty());
        Str out;
        (toUpper ? Str::str_toupper : Str::str_tolower)(Str(text), &out);
        EXPECT_TRUE(out == expected) << "toUpper " << toUpper;
    }
}

TEST(UnicodeCase, BytesThatAreNotUtf8AreCopiedThrough) {
    // A lead byte packs every continuation byte after it, up to a word; what
    // is no character then stays as it is.
    const std::pair<std::string, std::string> cases[] = {
        {"A\xFF\x42", "a\xFF\x62"},
        {"\xC3", "\xC3"},
        {"\xC3\x89", "\xC3\xA9"},                  // the valid neighbour maps
        {"\xC3\x89\x80", "\xC3\x89\x80"},          // E-acute with a stray byte: not a character
        {"\xC3\x45", "\xC3\x65"},                  // truncated, then ASCII
        {"\xC1\x81", "\xC1\x81"},                  // over-long "A"
        {"\xE0\x81\x81", "\xE0\x81\x81"},          // over-long "A"
        {"\xED\xA0\x80", "\xED\xA0\x80"},          // surrogate
        {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80"},  // above U+10FFFF
        {"\x80\x80\x80\x80\x80Q", "\x80\x80\x80\x80\x80q"},
        {"\xC3\x89\x80\x80\x80\x80\xC3\x89", "\xC3\x89\x80\x80\x80\x80\xC3\xA9"},
    };
    for (const auto& [in, expected] : cases) {
        Str out;
        Str::str_tolower(Str(in), &out);
        EXPECT_EQ(out, expected) << testing::PrintToString(in);
        Str in16(std::string(20, 'X') + in);  // through the 16-byte path
        EXPECT_EQ(in16.toLowercase(), std::string(20, 'x') + expected);
    }
}

TEST(UnicodeCase, LowerCaseContainerParsesLowered) {
    LStrContainer s;
    s.assign("keep");
    EXPECT_FALSE(mem_parse_into(nullptr, 0, &s));
    EXPECT_EQ(s, "keep");
    const std::string text = "\xC3\x80\x42\x63\xE2\x84\xAA";  // A-grave, B, c, KELVIN SIGN
    EXPECT_TRUE(mem_parse_into(text.data(), text.size(), &s));
    EXPECT_EQ(s, "\xC3\xA0\x62\x63k");
    EXPECT_TRUE(mem_parse_into(s.data(), 2, &s)) << "from its own bytes";
    EXPECT_EQ(s, "\xC3\xA0");
}

// ---------------------------------------------------------------- caseless order

// What random valid texts leave out: titlecase against upper case, and bytes
// that are no character.
TEST(MemCompareCaseless, EdgesOfLengthAndBytes) {
    const std::tuple<std::string, std::string, int> cases[] = {
        {"\xC7\x85", "\xC7\x84", 0},  // titlecase and upper case fold alike
        {"\xC7\x95", "\xC7\x96", 0},
        {"caf\xE9", "caf\xC3\xA9", -1},  // a Latin-1 byte is no e-acute
        {"\xE9", "\xE9", 0},
        {"\x80", "z", 1},                  // an invalid byte sorts above ASCII
        {"\xFF", "\xC2\x80", -1},          // and below every multi-byte character
        {"\xE2\x82", "\xE2\x82\xAC", -1},  // a truncated sequence is its bytes
        {"\xC0\x80", "\xC0\x81", -1},      // over-long forms are bytes
    };
    for (const auto& [a, b, want] : cases) {
        EXPECT_EQ(mem_compare_caseless(a.data(), a.size(), b.data(), b.size()), want)
            << testing::PrintToString(a) << " vs " << testing::PrintToString(b);
        EXPECT_EQ(mem_compare_caseless(b.data(), b.size(), a.data(), a.size()), -want);
    }
}

// For valid text the order is the byte order of the texts lower-cased by the
// database's simple mappings.
TEST(MemCompareCaseless, OrdersAsTheLowerCasedTexts) {
    std::vector<uint32_t> pool = {'a', 'B', 'z', '0', '_', '[', 0xE9, 0xC9, 0x2126, 0x3C9};
    for (uint32_t c = 0x80; c < 0x20000 && pool.size() < 400; c += 37) {
        if (db().lowerOf(c) != c || db().upperOf(c) != c) pool.push_back(c);
    }
    for (uint32_t c : {0x130u, 0x131u, 0x212Au, 0x1E9Eu, 0xDFu, 0x10400u, 0x1C5u}) {
        pool.push_back(c);
    }
    std::mt19937 rng(3);
    auto texts = [](const std::vector<uint32_t>& cps, std::string* text, std::string* lowered) {
        for (uint32_t c : cps) {
            *text += utf8(c);
            *lowered += utf8(db().lowerOf(c));
        }
    };
    int equal = 0;
    for (int i = 0; i < 20000; ++i) {
        std::vector<uint32_t> x(rng() % 5), y(rng() % 5);
        for (uint32_t& c : x) c = pool[rng() % pool.size()];
        for (uint32_t& c : y) c = pool[rng() % pool.size()];
        if (rng() % 4 == 0) {  // often a case variant of the same text
            y = x;
            for (uint32_t& c : y) c = rng() % 2 ? upperForm(c) : db().lowerOf(c);
        }
        std::string a, b, la, lb;
        texts(x, &a, &la);
        texts(y, &b, &lb);
        const int expect = la < lb ? -1 : la > lb ? 1 : 0;
        ASSERT_EQ(mem_compare_caseless(a.data(), a.size(), b.data(), b.size()), expect)
            << testing::PrintToString(a) << " vs " << testing::PrintToString(b);
        ASSERT_EQ(mem_compare_caseless(b.data(), b.size(), a.data(), a.size()), -expect);
        equal += expect == 0;
    }
    EXPECT_GT(equal, 1000);
}

// ---------------------------------------------------------------- combining marks

bool isComposing(uint32_t cp) { return !db().has(cp, ucd::kCompositionExclusion); }

// The second characters of the two-character canonical decompositions of
// composing characters.
std::vector<uint32_t> expectedMarks() {
    std::vector<uint32_t> marks;
    for (const auto& [cp, parts] : db().decomposition) {
        if (parts.size() == 2 && isComposing(cp)) marks.push_back(parts[1]);
    }
    std::sort(marks.begin(), marks.end());
    marks.erase(std::unique(marks.begin(), marks.end()), marks.end());
    return marks;
}

// Each composing character from its base and mark, and from its starter and
// all its marks, in one text with neighbours on both sides: a mark missing
// from the table, or two sharing a bit, leaves some of them apart.
TEST(CombiningMarks, ComposeWhatCanonicalDecompositionsSplit) {
    const std::vector<uint32_t> marks = expectedMarks();
    auto isMark = [&](uint32_t c) { return std::binary_search(marks.begin(), marks.end(), c); };
    std::string pairs, pairsComposed, full, fullComposed;
    size_t fullCount = 0;
    for (const auto& [cp, parts] : db().decomposition) {
        if (parts.size() != 2 || !isComposing(cp) || !isMark(parts[1])) continue;
        pairs += "x" + utf8(parts[0]) + utf8(parts[1]) + "\xE2\x80\x94";
        pairsComposed += "x" + utf8(cp) + "\xE2\x80\x94";
        std::vector<uint32_t> d = db().fullDecomposition(cp);
        std::vector<uint32_t> rest(d.begin() + 1, d.end());
        std::sort(rest.begin(), rest.end());
        if (isMark(d[0]) || db().combiningClass.at(d[0]) != 0 ||
            !std::all_of(rest.begin(), rest.end(), isMark) ||
            std::adjacent_find(rest.begin(), rest.end()) != rest.end()) {
            continue;
        }
        // A mark set has no order: U with macron, then diaeresis, is taken as
        // U+01D5's diaeresis, then macron.
        const uint32_t composed = cp == 0x1E7A ? 0x1D5 : cp == 0x1E7B ? 0x1D6 : cp;
        full += " ";
        fullComposed += " " + utf8(composed);
        for (uint32_t c : d) full += utf8(c);
        ++fullCount;
    }
    EXPECT_GT(fullCount, 900u);
    Str s(pairs);
    EXPECT_TRUE(s.resolveUnicodeCombiningMarks() == pairsComposed);
    Str f(full);
    EXPECT_TRUE(f.resolveUnicodeCombiningMarks() == fullComposed);
}

TEST(CombiningMarks, EdgesOfComposition) {
    // What the database's own orders leave out: marks count as a set.
    const std::pair<std::string, std::string> cases[] = {
        {"a\xCC\x81\xCC\x82", "\xE1\xBA\xA5"},
        {"U\xCC\x84\xCC\x88", "\xC7\x95"},
        // Left as they are.
        {"plain ASCII", "plain ASCII"},
        {"\xCC\x81\x65", "\xCC\x81\x65"},                  // a mark with no base
        {"e\xCC\x81\xCC\x81", "e\xCC\x81\xCC\x81"},        // a mark twice
        {"q\xCC\x81", "q\xCC\x81"},                        // no such character
        {"e\xFF\xCC\x81", "e\xFF\xCC\x81"},                // an invalid byte between
        {"e\xCD\x85\xCC\x81x", "e\xCD\x85\xCC\x81x"},      // a set with no character
        {"\xEA\xB0\x80\xCC\x81", "\xEA\xB0\x80\xCC\x81"},  // Hangul is left alone
        {"e\xCC", "e\xCC"},                                // a truncated mark
    };
    for (const auto& [in, want] : cases) {
        EXPECT_EQ(Str(in).resolveUnicodeCombiningMarks(), want) << testing::PrintToString(in);
    }
    Str ascii("Hello, world, long enough to be on the heap");
    const char* before = ascii.data();
    ascii.resolveUnicodeCombiningMarks();
    EXPECT_EQ(ascii.data(), before);
}

// ---------------------------------------------------------------- UTF-8 walkers

// Python takes surrogates here ("surrogatepass") and refuses over-long forms.
TEST(RemoveFirstCodepoint, AgreesWithPythonOnEveryLeadAndSecondByte) {
    std::vector<std::string> inputs = {""};
    for (int b0 = 0; b0 < 0x100; ++b0) {
        for (int b1 = 0; b1 < 0x100; ++b1) {
            if (b0 < 0x80 && b1 > 0) continue;
            for (const char* tail : {"\x80\x80", "\xBF\xBF", "A\x80", "\x80\x41", "\x80", ""}) {
                inputs.push_back(std::string{static_cast<char>(b0), static_cast<char>(b1)} + tail);
            }
        }
        inputs.push_back(std::string(1, static_cast<char>(b0)));
    }
    const std::vector<std::string> verdicts = oracle::python("utf-8", "first", inputs);
    size_t taken = 0;
    for (size_t i = 0; i < inputs.size(); ++i) {
        StrSegment seg(inputs[i]);
        UnicodeCodepoint cp(0x12345);
        const bool ok = seg.removeFirstCodepoint(&cp);
        char got[32] = "-";
        if (ok) snprintf(got, sizeof got, "%zu:%x", inputs[i].size() - seg.size(), cp.value());
        ASSERT_EQ(got, verdicts[i]) << testing::PrintToString(inputs[i]);
        if (!ok) {
            ASSERT_EQ(seg.data(), inputs[i].data());
            ASSERT_EQ(seg.size(), inputs[i].size());
            ASSERT_EQ(cp.value(), 0x12345u);
        }
        taken += ok;
    }
    EXPECT_GT(taken, 1000u);
    EXPECT_LT(taken, inputs.size() / 2);
}

// Python's decoder, dropping what is invalid, yields the same characters as
// feeding the bytes one by one.
TEST(AccumulateUtf8Byte, YieldsTheCharactersPythonDecodes) {
    const std::vector<std::string> pieces = {"a",
                                             "\xC3\xA9",
                                             "\xE2\x82\xAC",
                                             "\xF0\x9F\x98\x80",
                                             "\x80",
                                             "\xBF",
                                             "\xC2",
                                             "\xE2\x82",
                                             "\xF0\x9F\x98",
                                             "\xED\xA0\x80",
                                             "\xE0\x9F\xBF",
                                             "\xC0",
                                             "\xC1\xBF",
                                             "\xF4\x90\x80\x80",
                                             "\xF5",
                                             "\xFF",
                                             "\xE0\xA0\x80",
                                             "\xF4\x8F\xBF\xBF",
                                             "\xF0\x8F\xBF\xBF"};
    std::mt19937 rng(9);
    std::vector<std::string> inputs;
    for (int i = 0; i < 3000; ++i) {
        std::string s;
        for (int k = rng() % 8; k > 0; --k) s += pieces[rng() % pieces.size()];
        inputs.push_back(s);
    }
    const std::vector<std::string> expected = oracle::python("utf-8", "ignore", inputs);
    for (size_t i = 0; i < inputs.size(); ++i) {
        UnicodeCodepoint acc;
        std::vector<uint32_t> got;
        for (unsigned char b : inputs[i]) {
            if (acc._accumulateUtf8Byte(b)) got.push_back(acc.value());
        }
        ASSERT_EQ(got, oracle::codepoints(expected[i])) << testing::PrintToString(inputs[i]);
    }
    // While a sequence is open, its bytes so far stand on top of the word.
    UnicodeCodepoint acc;
    EXPECT_FALSE(acc._accumulateUtf8Byte(0xE2));
    EXPECT_EQ(acc.value(), 0xE2000000u);
    EXPECT_FALSE(acc._accumulateUtf8Byte(0x82));
    EXPECT_EQ(acc.value(), 0xE2820000u);
}

// The encoder against glibc's, and the packed forms back.
TEST(PackedUtf8, RoundTripsEveryCodePoint) {
    std::string all;
    std::vector<uint32_t> units;
    for (uint32_t c = 0; c < ucd::kCodepoints; ++c) {
        const uint32_t packed = codepoint_to_utf8bytes(c);
        const std::string bytes = utf8(c);
        char stored[4];
        ASSERT_EQ(utf8bytes_store(packed, stored), bytes.size()) << c;
        ASSERT_EQ(std::string(stored, bytes.size()), bytes) << c;
        ASSERT_EQ(utf8bytes_to_codepoint(packed), c);
        if (c < 0xD800 || c > 0xDFFF) {
            all += bytes;
            units.push_back(c);
        }
    }
    EXPECT_TRUE(all == oracle::Iconv("UTF-32LE")
                           .convert(std::string(reinterpret_cast<const char*>(units.data()),
                                                units.size() * 4)));
    EXPECT_EQ(codepoint_to_utf8bytes(0x110000), 0u);

    // The character buffer is reused, and emptied past the last code point.
    utf8_character_buffer b;
    EXPECT_EQ(b.size(), 0u);
    b._set(0x10FFFF);
    EXPECT_EQ(std::string(b.data(), b.size()), "\xF4\x8F\xBF\xBF");
    b._set('A');
    EXPECT_EQ(std::string(b.data(), b.size()), "A");
    b._set(0x110000);
    EXPECT_EQ(b.size(), 0u);
}

// Any byte from 0x80 up with the continuation bytes that follow it may be
// looked up: when they are no well-formed character (over-long, a surrogate,
// too many or too few for the lead) there are no flags and no case form.
TEST(PackedUtf8, MalformedValuesFindNothing) {
    std::mt19937 rng(12);
    size_t found = 0;
    for (int i = 0; i < 2000000; ++i) {
        const size_t n = 2 + rng() % 3;
        char bytes[4] = {static_cast<char>(0x80 + rng() % 0x80)};
        uint32_t v = static_cast<unsigned char>(bytes[0]);
        for (size_t k = 1; k < n; ++k) {
            bytes[k] = static_cast<char>(0x80 + rng() % 0x40);
            v = v << 8 | static_cast<unsigned char>(bytes[k]);
        }
        if (v < UTF8BYTES_MIN_MULTIBYTE) continue;
        const bool wellFormed = mem_is_valid_utf8(bytes, n);
        const uint32_t flags = flags_from_utf8bytes(v);
        found += flags != 0;
        ASSERT_TRUE(wellFormed || flags == 0) << std::hex << v;
        ASSERT_TRUE(wellFormed || replacement_for_utf8bytes(v, false) == v) << std::hex << v;
        ASSERT_TRUE(wellFormed || replacement_for_utf8bytes(v, true) == v) << std::hex << v;
    }
    EXPECT_GT(found, 10000u);
}

TEST(MemDisplayWidth, SumsColumnsByLeadByteAndStopsAtATruncatedEnd) {
    const std::pair<std::string, size_t> cases[] = {
        {"", 0},
        {"ab\x01\x7F", 3},                // C0 controls take none, DEL one
        {"e\xCC\x81", 1},                 // a combining mark takes none
        {"\xE6\x97\xA5\xE6\x9C\xAC", 4},  // two wide ideographs
        {"\xE2\x80\x8B", 0},              // ZERO WIDTH SPACE is a format control
        {"\xE6\x97", 0},                  // a truncated last sequence ends the walk
        {"a\xE4\xB8", 1},
        {"ab\xF0\x9F", 2},
        {"\xFF\xF0\x9F\x98\x80", 3},  // a byte above 0xF4 stands alone, then an emoji
        {"\x80\x80z", 1},             // a stray continuation leads a pair (no column)
    };
    for (const auto& [text, want] : cases) {
        EXPECT_EQ(mem_display_width(text.data(), text.size()), want)
            << testing::PrintToString(text);
    }
}

}  // namespace
