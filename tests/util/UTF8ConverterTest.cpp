// UTF8Converter against other people's converters: glibc's iconv(3) for
// every set it has, Python's codecs and Perl's Encode for the vendor tables
// glibc lacks or has in an older form.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/Oracles.h"
#include "util/UTF8Converter.h"

namespace {

using oracle::codepoints;
using oracle::Iconv;
using oracle::utf8;

std::string mark(unsigned char b) {
    char buf[8];
    snprintf(buf, sizeof buf, "\\x%02X", b);
    return buf;
}

// The bytes a text has marked.
size_t marksIn(const std::string& text) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find("\\x", at)) != std::string::npos; at += 2) {
        n += text.size() - at >= 4 && isxdigit(text[at + 2]) && isxdigit(text[at + 3]);
    }
    return n;
}

std::string normalised(const std::string& name) {
    std::string key;
    for (char c : name) {
        if (c >= 'A' && c <= 'Z') key.push_back(static_cast<char>(c + 32));
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) key.push_back(c);
    }
    return key;
}

struct Result {
    bool worked;       // what the engine returned
    std::string text;  // the UTF-8 text: the output, or the input kept
    size_t invalid;
};

Result ours(const std::string& charset, const std::string& in) {
    UTF8Converter c;
    EXPECT_TRUE(c.choose(charset)) << charset;
    if (!c.hasEngine()) return {false, "", 0};
    Str out("untouched");
    const bool worked = c.convert(&out, in.data(), in.data() + in.size());
    if (!worked) {
        EXPECT_EQ(out, "untouched") << charset << ": output written without work";
    }
    return {worked, worked ? out.substr(9) : in, c.invalidBytes()};
}

const UTF8Converter::spec* specOf(const std::string& name) {
    static UTF8Converter::spec s;
    return UTF8Converter::find_engine(&s, name.c_str()) ? &s : nullptr;
}

std::vector<std::string> pythonDecode(const std::string& codec,
                                      const std::vector<std::string>& inputs) {
    return oracle::python(codec, "strict", inputs);
}

std::vector<std::string> eachByte() {
    std::vector<std::string> bytes;
    for (int b = 1; b < 256; ++b) bytes.emplace_back(1, static_cast<char>(b));
    return bytes;
}

std::string allBytes() {
    std::string s;
    for (const std::string& b : eachByte()) s += b;
    return s;
}

// ---------------------------------------------------------------- names

TEST(UTF8ConverterNames, SpellingsOfOneNameFindOneEngine) {
    for (const char* name : {"UTF-8", "utf_8", "Utf8", "UTF 8", "-u-t-f-8-"}) {
        const UTF8Converter::spec* s = specOf(name);
        ASSERT_NE(s, nullptr) << name;
        EXPECT_EQ(s->engine, utf8_converter_utf8) << name;
    }
    UTF8Converter::spec s{};
    EXPECT_FALSE(UTF8Converter::find_engine(&s, "UTF-8X"));
    EXPECT_FALSE(UTF8Converter::find_engine(&s, ""));
    EXPECT_FALSE(UTF8Converter::find_engine(&s, "utf", 3));
    // The length bounds the name, and a zero byte ends it before that.
    ASSERT_TRUE(UTF8Converter::find_engine(&s, "ISO-8859-15", 10));
    EXPECT_STREQ(s.name, "iso88591");
    ASSERT_TRUE(UTF8Converter::find_engine(&s, "latin1\0junk", 11));
    EXPECT_STREQ(s.name, "latin1");
    // A name too long for the stack buffer still normalises to a short key.
    std::string longName(500, '-');
    longName += "Shift_JIS";
    ASSERT_TRUE(UTF8Converter::find_engine(&s, longName.data(), longName.size()));
    EXPECT_STREQ(s.name, "shiftjis");
    EXPECT_FALSE(UTF8Converter::find_engine(&s, std::string(300, 'a').c_str()));
}

TEST(UTF8ConverterNames, EveryNameOfTheTableResolvesToItsOwnEntry) {
    ASSERT_EQ(utf8_converter_spec_count, 275u);
    for (size_t i = 0; i < utf8_converter_spec_count; ++i) {
        const UTF8Converter::spec& entry = utf8_converter_specs[i];
        EXPECT_EQ(normalised(entry.name), entry.name) << "not a normalised name";
        EXPECT_TRUE(i == 0 || strcmp(utf8_converter_specs[i - 1].name, entry.name) < 0);
        const UTF8Converter::spec* found = specOf(std::string("-") + entry.name + "-");
        ASSERT_NE(found, nullptr) << entry.name;
        EXPECT_EQ(found->name, entry.name);
        EXPECT_EQ(found->engine, entry.engine);
        EXPECT_EQ(found->data, entry.data);
    }
}

// ---------------------------------------------------------------- single-byte sets

// How each single-byte table is checked: against glibc, except where the
// vendor's published table (through Python's codecs) differs from glibc's and
// we follow the vendor; sets glibc lacks go to Python or Perl.
struct SingleByteOracle {
    std::string table;
    std::string glibc;  // empty where glibc lacks the set
    const char* python = nullptr;
    const char* perl = nullptr;
    std::vector<int> vendor = {};  // bytes where glibc and the vendor disagree
};

// Sets glibc has as the vendor does, by glibc's name, which is one of ours too.
const char* const kGlibcSingleByte[] = {
    "CP874",     "IBM850",    "IBM862",           "IBM866",           "KOI8-R",    "KOI8-U",
    "KOI8-T",    "ARMSCII-8", "GEORGIAN-ACADEMY", "GEORGIAN-PS",      "HP-ROMAN8", "ISO646-CN",
    "ISO646-JP", "TIS-620",   "VISCII",           "MAC-CENTRALEUROPE"};

const std::vector<SingleByteOracle>& singleByteOracles() {
    static const std::vector<SingleByteOracle> oracles = [] {
        std::vector<SingleByteOracle> v = {
            // Apple's current tables: INCREMENT (not DELTA) and the Apple logo
            // at U+F8FF (not U+E01E) in Mac OS Roman, the euro sign in Mac
            // Cyrillic, and Mac Icelandic's letters, which glibc's MAC-IS has
            // elsewhere.
            {"macintosh", "MACINTOSH", "mac_roman", nullptr, {0xC6, 0xF0}},
            {"maccyrillic", "MAC-CYRILLIC", "mac_cyrillic", nullptr, {0xFF}},
            {"maciceland",
             "MAC-IS",
             "mac_iceland",
             nullptr,
             {0xA0, 0xC6, 0xD0, 0xD1, 0xD7, 0xDB, 0xDC, 0xDD, 0xE0, 0xF0, 0xF6, 0xF7}},
            {"maccroatian", "", "mac_croatian"},
            {"macgreek", "", "mac_greek"},
            {"macromania", "", "mac_romanian"},
            {"macturkish", "", "mac_turkish"},
            {"macarabic", "", "mac_arabic"},
            {"machebrew", "", nullptr, "MacHebrew"},
            {"macthai", "", nullptr, "MacThai"},
            {"nextstep", "", nullptr, "nextstep"},
            // glibc has no JIS X 0201 converter: its lower half is ISO646-JP
            // and its katakana are EUC-JP's single-shifted ones.
            {"jisx0201", ""},
            {"macukraine", "MAC-UK"},
        };
        for (const char* name : kGlibcSingleByte) v.push_back({name, name});
        for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 14, 15, 16}) {
            v.push_back({"ISO-8859-" + std::to_string(n), "ISO-8859-" + std::to_string(n)});
        }
        for (int n = 1250; n <= 1258; ++n)
            v.push_back({"CP" + std::to_string(n), "CP" + std::to_string(n)});
        return v;
    }();
    return oracles;
}

// The oracle's code point for each byte 1-255 (0 for an unmapped byte).
std::vector<uint32_t> oracleTable(const SingleByteOracle& o) {
    std::vector<uint32_t> table(256, 0);
    auto fromIconv = [&](const char* charset, const std::string& prefix, int lo, int hi) {
        Iconv toUtf32(charset, "UTF-32LE");
        for (int b = lo; b <= hi; ++b) {
            const auto s = toUtf32.convert(prefix + static_cast<char>(b));
            if (s && s->size() == 4) table[b] = *reinterpret_cast<const uint32_t*>(s->data());
        }
    };
    if (!o.glibc.empty()) {
        fromIconv(o.glibc.c_str(), "", 1, 255);
    } else if (o.table == "jisx0201") {
        fromIconv("ISO646-JP", "", 1, 0x7F);
        fromIconv("EUC-JP", "\x8E", 0xA0, 0xFF);
    }
    if (o.python) {
        const auto lines = pythonDecode(o.python, eachByte());
        for (int b = 1; b < 256; ++b) {
            const auto cps = codepoints(lines[b - 1]);
            if (o.glibc.empty() || std::count(o.vendor.begin(), o.vendor.end(), b)) {
                table[b] = cps.size() == 1 ? cps[0] : 0;
            }
        }
    }
    if (o.perl) {
        const auto lines = oracle::runOverHex(
            {"/usr/bin/env", "perl", "-MEncode", "-e",
             "open(F, $ARGV[1]) or die; while (<F>) { chomp;"
             " my $s = eval { decode($ARGV[0], pack('H*', $_), Encode::FB_CROAK) };"
             " print defined $s ? join(',', map { sprintf('%x', ord) } split //, $s)"
             " : '-', \"\\n\" }",
             o.perl},
            eachByte());
        for (int b = 1; b < 256; ++b) {
            auto cps = codepoints(lines[b - 1]);
            // Apple's Hebrew and Thai tables give some bytes as a character
            // with rendering hints in the private use area, or with a mark;
            // a single code value keeps the first real character. They give
            // the ASCII bytes with direction hints Encode won't take alone.
            std::erase_if(
                cps, [&](uint32_t cp) { return cp >= 0xE000 && cp <= 0xF8FF && cps.size() > 1; });
            if (lines[b - 1] == "-" && b < 0x80) cps = {static_cast<uint32_t>(b)};
            table[b] = cps.empty() || cps[0] == 0xFFFD ? 0 : cps[0];
        }
    }
    return table;
}

TEST(UTF8ConverterSingleByte, EveryTableAgreesWithItsOracleOnEveryByte) {
    std::set<const void*> checked;
    for (const SingleByteOracle& o : singleByteOracles()) {
        SCOPED_TRACE(o.table);
        const UTF8Converter::spec* s = specOf(o.table);
        ASSERT_NE(s, nullptr);
        ASSERT_EQ(s->engine, utf8_converter_engine_onebyte);
        checked.insert(s->data);
        const std::vector<uint32_t> table = oracleTable(o);
        std::vector<std::string> want(256);
        std::string expected;
        size_t unmapped = 0;
        for (int b = 1; b < 256; ++b) {
            want[b] = table[b] ? utf8({table[b]}) : mark(static_cast<unsigned char>(b));
            expected += want[b];
            unmapped += table[b] == 0;
        }
        EXPECT_LE(unmapped, 255u - 94) << "the oracle knows too little";
        const Result r = ours(o.table, allBytes());
        EXPECT_TRUE(r.worked);
        EXPECT_EQ(r.text, expected);
        EXPECT_EQ(r.invalid, unmapped);
        // Long texts take another path.
        std::string longText, longWant;
        for (int k = 0; k < 8; ++k) {
            longText += allBytes() + std::string(k, 'a');
            longWant += expected + std::string(k, 'a');
        }
        const Result l = ours(o.table, longText);
        EXPECT_EQ(l.text, longWant);
        EXPECT_EQ(l.invalid, 8 * unmapped);
        // Byte by byte too: the two passes must agree on a lone byte.
        for (int b : {0x41, 0x7E, 0x80, 0xA4, 0xFF}) {
            EXPECT_EQ(ours(o.table, std::string(1, static_cast<char>(b))).text, want[b]) << b;
        }
    }
    for (size_t i = 0; i < utf8_converter_spec_count; ++i) {
        const UTF8Converter::spec& e = utf8_converter_specs[i];
        if (e.engine == utf8_converter_engine_onebyte) {
            EXPECT_TRUE(checked.count(e.data)) << e.name << ": a table with no oracle";
        }
    }
}

TEST(UTF8ConverterSingleByte, PlainAsciiIsNoWorkUnlessTheSetRemapsIt) {
    const std::string ascii = "GET /index.html HTTP/1.1 {ok} [200] ~user $5 \\path";
    const Result latin1 = ours("ISO-8859-1", ascii);
    EXPECT_FALSE(latin1.worked);
    EXPECT_EQ(latin1.invalid, 0u);
    EXPECT_FALSE(ours("latin1", "").worked);
    // ISO 646-CN has the yuan sign for "$" and an overline for "~".
    EXPECT_TRUE(ours("ISO646-CN", ascii).worked);
    // A byte that maps to a character below 0x80 is still work.
    EXPECT_EQ(ours("MacHebrew", "\xA0").text, " ");
}

// ---------------------------------------------------------------- aliases

// Every name of ours that glibc also knows reads like glibc's converter of
// that name: all 255 bytes for a single-byte set (bar the vendor bytes
// above), a text of many scripts, as glibc writes it, for the others.
TEST(UTF8ConverterNames, NamesGlibcKnowsDecodeAsGlibcDoes) {
    const testsupport::ProcessResult list = testsupport::runProcess({"/usr/bin/iconv", "-l"});
    std::map<std::string, std::string> glibcNames;
    size_t at = 0;
    for (size_t end; (end = list.out.find_first_of(", \n", at)) != std::string::npos;
         at = end + 1) {
        std::string n = list.out.substr(at, end - at);
        while (!n.empty() && n.back() == '/') n.pop_back();
        if (!n.empty()) glibcNames.emplace(normalised(n), n);
    }
    ASSERT_GT(glibcNames.size(), 500u);

    std::vector<uint32_t> sample;
    for (uint32_t cp = 0x20; cp < 0x3000; cp += (cp < 0x600 ? 1 : 7)) sample.push_back(cp);
    for (uint32_t cp = 0x3000; cp < 0x3100; ++cp) sample.push_back(cp);
    for (uint32_t cp = 0x4E00; cp < 0xA000; cp += 37) sample.push_back(cp);
    for (uint32_t cp = 0xAC00; cp < 0xD7A4; cp += 29) sample.push_back(cp);
    for (uint32_t cp = 0xFF01; cp < 0xFFE0; cp += 3) sample.push_back(cp);
    for (uint32_t cp : {0x20AC, 0x2122, 0x1F600, 0x20001, 0x10FFFD}) sample.push_back(cp);

    std::map<const void*, const SingleByteOracle*> oracleOf;
    for (const SingleByteOracle& o : singleByteOracles()) oracleOf[specOf(o.table)->data] = &o;

    size_t compared = 0;
    for (size_t i = 0; i < utf8_converter_spec_count; ++i) {
        const UTF8Converter::spec& e = utf8_converter_specs[i];
        const auto g = glibcNames.find(e.name);
        if (g == glibcNames.end()) continue;
        // glibc's UCS-2 is in the machine's byte order; ours, as the
        // standard has it, big-endian (see the UTF-16 tests).
        if (g->second == "UCS-2" || g->second == "ISO-10646/UCS2") continue;
        SCOPED_TRACE(std::string(e.name) + " (glibc " + g->second + ")");
        Iconv decoder(g->second);
        ASSERT_TRUE(decoder.ok());
        ++compared;
        if (e.engine == utf8_converter_engine_onebyte) {
            const SingleByteOracle* o = oracleOf.at(e.data);
            for (int b = 1; b < 256; ++b) {
                if (std::count(o->vendor.begin(), o->vendor.end(), b)) continue;
                const std::string byte(1, static_cast<char>(b));
                const auto want = decoder.convert(byte);
                EXPECT_EQ(ours(e.name, byte).text,
                          want ? *want : mark(static_cast<unsigned char>(b)))
                    << "byte " << b;
            }
            continue;
        }
        Iconv encoder("UTF-32LE", g->second);
        std::string text;
        for (uint32_t cp : sample) {
            const std::string unit(reinterpret_cast<const char*>(&cp), 4);
            if (const auto bytes = encoder.convert(unit)) text += *bytes;
        }
        ASSERT_GE(text.size(), 95u);
        const auto want = decoder.convert(text);
        ASSERT_TRUE(want);
        EXPECT_EQ(ours(e.name, text).text, *want);
    }
    EXPECT_GT(compared, 200u);
}

// ---------------------------------------------------------------- double-byte sets

struct DbcsOracle {
    const char* table;
    const char* glibc;
};
const DbcsOracle kDbcs[] = {
    {"big5", "BIG5"},       {"big5hkscs", "BIG5-HKSCS"}, {"gb2312", "EUC-CN"}, {"gbk", "GBK"},
    {"gb18030", "GB18030"}, {"eucjp", "EUC-JP"},         {"sjis", "SJIS"},     {"cp932", "CP932"},
    {"euckr", "EUC-KR"},    {"cp949", "CP949"},          {"johab", "JOHAB"},   {"euctw", "EUC-TW"},
};

// The codes of a set as glibc reads them: every byte that stands alone, and
// every two-byte code, EUC three- and four-byte code and (partly) GB18030
// four-byte code glibc accepts; `refused` gets the two-byte candidates with a
// non-ASCII second byte that it refuses.
struct Codes {
    std::vector<std::string> valid;
    std::vector<std::string> refused;
};

// Calls f on every string whose k-th byte lies in ranges[k].
template <class F>
void forEachCode(const std::vector<std::pair<int, int>>& ranges, F f, std::string code = "") {
    if (code.size() == ranges.size()) return f(code);
    for (int b = ranges[code.size()].first; b <= ranges[code.size()].second; ++b) {
        forEachCode(ranges, f, code + static_cast<char>(b));
    }
}

Codes codesOf(const std::string& charset) {
    Codes codes;
    Iconv cd(charset);
    auto probe = [&](const std::string& code, bool keepRefused) {
        // glibc's CP949 takes 0xA2E8 (U+327E in EUC-KR) and gives nothing,
        // then refuses whatever follows: a fault of glibc's, not a code.
        const auto text = cd.convert(code);
        if (text && !text->empty()) {
            codes.valid.push_back(code);
        } else if (keepRefused) {
            codes.refused.push_back(code);
        }
    };
    std::vector<bool> alone(256, false);
    for (int b = 1; b < 256; ++b) {
        alone[b] = cd.convert(std::string(1, static_cast<char>(b))).has_value();
        if (alone[b]) codes.valid.emplace_back(1, static_cast<char>(b));
    }
    auto byte = [](const std::string& code, size_t i) { return static_cast<uint8_t>(code[i]); };
    forEachCode({{0x80, 0xFF}, {0x21, 0xFE}}, [&](const std::string& code) {
        if (!alone[byte(code, 0)]) probe(code, byte(code, 1) >= 0x80);
    });
    // EUC's single-shifted planes: the last two bytes in A1-FE.
    auto euc = [&](const std::string& code) {
        probe(code, byte(code, code.size() - 2) == 0xA1 || byte(code, code.size() - 1) == 0xFE);
    };
    if (charset == "EUC-JP") forEachCode({{0x8F, 0x8F}, {0xA1, 0xFE}, {0xA1, 0xFE}}, euc);
    if (charset == "EUC-TW") {
        forEachCode({{0x8E, 0x8E}, {0xA1, 0xB0}, {0xA1, 0xFE}, {0xA1, 0xFE}}, euc);
    }
    if (charset == "GB18030") {
        // All of the BMP part, and a stride through the rest.
        forEachCode({{0x81, 0xFE}, {0x30, 0x39}, {0x81, 0xFE}, {0x30, 0x39}},
                    [&](const std::string& c) {
                        const int a = byte(c, 0), b = byte(c, 1), c2 = byte(c, 2), d = byte(c, 3);
                        if (a <= 0x84 || (a * 7 + b * 5 + c2 * 3 + d) % 53 == 0) {
                            probe(c, a <= 0x84 || (a + c2) % 7 == 0);
                        }
                    });
    }
    return codes;
}

// Where glibc stops at a byte it refuses, we must have marked that byte,
// and the text between must agree. After our marks, glibc starts again.
void expectSameUpToMarks(const std::string& charset, const std::string& table,
                         const std::string& input) {
    const Result r = ours(table, input);
    Iconv cd(charset);
    size_t pos = 0, outPos = 0, marks = 0;
    while (pos < input.size()) {
        std::string good;
        const size_t stop = cd.convertPrefix(input, pos, &good);
        ASSERT_EQ(r.text.substr(outPos, good.size()), good)
            << "differs from glibc within bytes " << pos << "-" << stop << " of "
            << testing::PrintToString(input);
        outPos += good.size();
        pos = stop;
        if (pos == input.size()) break;
        ASSERT_EQ(r.text.compare(outPos, 4, mark(input[pos])), 0)
            << "glibc refuses byte " << pos << " but it is not marked";
        do {
            outPos += 4;
            ++pos;
            ++marks;
        } while (pos < input.size() && r.text.compare(outPos, 4, mark(input[pos])) == 0);
    }
    EXPECT_EQ(outPos, r.text.size());
    EXPECT_EQ(r.invalid, marks);
}

TEST(UTF8ConverterDoubleByte, CodesReadAndBrokenSequencesAreMarkedAsGlibcDoes) {
    std::mt19937 rng(7);
    for (const DbcsOracle& o : kDbcs) {
        SCOPED_TRACE(o.table);
        const Codes codes = codesOf(o.glibc);
        ASSERT_GT(codes.valid.size(), 7000u);
        std::string corpus;
        for (const std::string& code : codes.valid) corpus += code;
        const Result r = ours(o.table, corpus);
        EXPECT_TRUE(r.worked);
        EXPECT_EQ(r.invalid, 0u);
        const std::string want = *Iconv(o.glibc).convert(corpus);
        if (r.text != want) {
            // Name the first code that differs.
            for (const std::string& code : codes.valid) {
                ASSERT_EQ(ours(o.table, code).text, *Iconv(o.glibc).convert(code))
                    << "code " << testing::PrintToString(code);
            }
        }
        EXPECT_EQ(r.text, want);
        // What glibc refuses is never read as a character.
        for (const std::string& code : codes.refused) {
            ASSERT_EQ(ours(o.table, code).text.compare(0, 4, mark(code[0])), 0)
                << "refused code read: " << testing::PrintToString(code);
        }
        for (int i = 0; i < 300; ++i) {
            std::string input;
            for (int k = rng() % 12; k >= 0; --k) {
                switch (rng() % 4) {
                    case 0:  // a stray byte, but never a backslash: marks are made of them
                        input.push_back(static_cast<char>(0x80 + rng() % 0x80));
                        break;
                    case 1:  // a code cut short
                        input += codes.valid[rng() % codes.valid.size()].substr(0, 1);
                        break;
                    default:
                        input += codes.valid[rng() % codes.valid.size()];
                }
            }
            std::erase(input, '\\');
            for (size_t at; (at = input.find("\xA2\xE8")) != std::string::npos;) input.erase(at, 1);
            expectSameUpToMarks(o.glibc, o.table, input);
        }
    }
}

TEST(UTF8ConverterDoubleByte, TheRulesOfMarking) {
    const struct {
        const char* name;
        std::string in, want;
        const char* glibcRefuses;  // the oracle for the expectation, where it has one
    } cases[] = {
        // A lead byte before a byte it can't pair with, or before an ASCII
        // byte that makes no code with it: only the lead is marked, and the
        // next byte is read afresh.
        {"big5", "\xA4\x30\xA4", mark(0xA4) + "0" + mark(0xA4), nullptr},
        {"sjis", "\x82Y", mark(0x82) + "Y", "SJIS"},
        // A well-formed but unmapped pair with a non-ASCII trail is marked whole.
        {"euc-kr", "\xC9\xA1x", mark(0xC9) + mark(0xA1) + "x", "EUC-KR"},
        // A GB18030 four-byte code beyond U+10FFFF is marked whole; a broken
        // one costs its first byte.
        {"gb18030", "\xE3\x32\x9A\x36", mark(0xE3) + mark(0x32) + mark(0x9A) + mark(0x36), nullptr},
        {"gb18030", "\x81\x30\x20", mark(0x81) + "0 ", nullptr},
        // Big5-HKSCS has characters of two code points.
        {"big5-hkscs", "\x88\x62", utf8({0xCA, 0x304}), nullptr},
        // Shift_JIS has the yen sign and an overline in place of backslash
        // and tilde.
        {"Shift_JIS", "a\\b~", "a" + utf8({0xA5}) + "b" + utf8({0x203E}), nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.in));
        const Result r = ours(c.name, c.in);
        EXPECT_EQ(r.text, c.want);
        EXPECT_EQ(r.invalid, marksIn(c.want));
        EXPECT_FALSE(c.glibcRefuses && Iconv(c.glibcRefuses).convert(c.in).has_value());
    }
    // Plain ASCII is no work, but for sets that remap it.
    EXPECT_FALSE(ours("gbk", "plain text").worked);
    EXPECT_FALSE(ours("Shift_JIS", "plain text").worked);
}

// The raw 94x94 sets take the codes EUC-JP has after its high bits, in
// seven-bit and eight-bit form; control bytes stand alone.
TEST(UTF8ConverterDoubleByte, RawJisSetsAreEucJpWithoutTheShifts) {
    const Codes codes = codesOf("EUC-JP");
    Iconv eucjp("EUC-JP");
    size_t x0208 = 0, x0212 = 0;
    std::string gl0208, gl0212, gr0208, want0208, want0212;
    for (const std::string& code : codes.valid) {
        if (code.size() == 1) continue;
        const std::string pair = code.substr(code.size() - 2);
        const std::string gl = {static_cast<char>(pair[0] & 0x7F),
                                static_cast<char>(pair[1] & 0x7F)};
        if (code.size() == 2 && static_cast<unsigned char>(code[0]) >= 0xA1) {
            gr0208 += pair;
            gl0208 += gl;
            want0208 += *eucjp.convert(code);
            ++x0208;
        } else if (code.size() == 3) {
            gl0212 += gl;
            want0212 += *eucjp.convert(code);
            ++x0212;
        }
    }
    EXPECT_GT(x0208, 6800u);
    EXPECT_GT(x0212, 6000u);
    EXPECT_EQ(ours("JIS_X0208", gl0208).text, want0208);
    EXPECT_EQ(ours("JIS_X0208", gr0208).text, want0208);
    EXPECT_EQ(ours("JIS_X0212-1990", gl0212).text, want0212);
    EXPECT_EQ(ours("JIS_X0208", "\x30\x21\r\n \x30\x22").text,
              *eucjp.convert("\xB0\xA1\r\n \xB0\xA2"));
    EXPECT_FALSE(ours("iso-ir-87", "\r\n\t ").worked);
    EXPECT_EQ(ours("x0208", "\x30").text, mark(0x30)) << "a lone byte of a pair";
}

TEST(UTF8ConverterDoubleByte, HzAgreesWithPython) {
    const Codes gb = codesOf("EUC-CN");
    std::vector<std::string> inputs;
    std::mt19937 rng(3);
    for (int i = 0; i < 400; ++i) {
        std::string s;
        for (int k = rng() % 6; k >= 0; --k) {
            switch (rng() % 4) {
                case 0:
                    s += "ab ~~ c";
                    break;
                case 1:
                    s += "x~\ny";
                    break;
                default:
                    s += "~{";
                    for (int n = 1 + rng() % 5; n > 0; --n) {
                        const std::string& code = gb.valid[128 + rng() % (gb.valid.size() - 128)];
                        s += {static_cast<char>(code[0] & 0x7F), static_cast<char>(code[1] & 0x7F)};
                    }
                    s += "~}";
            }
        }
        inputs.push_back(s);
    }
    // What Python refuses: a stray "~", and a line end in GB mode, which we
    // keep and let end GB mode, so that a missing "~}" spoils one line.
    const std::string zhong = utf8({0x4E2D});
    const std::vector<std::pair<std::string, std::string>> broken = {
        {"a~x", "a" + mark('~') + "x"},
        {"~{VP\nVP", zhong + "\nVP"},
        {"~{VP~~VP~}", zhong + mark('~') + mark('~') + zhong},
        {"b\x80", "b" + mark(0x80)},
    };
    for (const auto& [in, want] : broken) inputs.push_back(in);
    const auto lines = pythonDecode("hz", inputs);
    for (size_t i = 0; i < inputs.size(); ++i) {
        SCOPED_TRACE(testing::PrintToString(inputs[i]));
        if (i < 400) {
            ASSERT_NE(lines[i], "-");
            EXPECT_EQ(ours("HZ-GB-2312", inputs[i]).text, utf8(codepoints(lines[i])));
        } else {
            EXPECT_EQ(lines[i], "-");
            EXPECT_EQ(ours("hz", inputs[i]).text, broken[i - 400].second);
        }
    }
    EXPECT_FALSE(ours("hz", "no shifts here").worked);
}

// ---------------------------------------------------------------- Unicode forms

std::vector<uint32_t> randomCodepoints(std::mt19937& rng, size_t n) {
    std::vector<uint32_t> cps;
    while (cps.size() < n) {
        static const uint32_t from[] = {0x20, 0x80, 0x800, 0x10000, 0x10000};
        static const uint32_t span[] = {0x5F, 0x780, 0xF800, 0x100000, 0x100000};
        const size_t k = rng() % 5;
        const uint32_t cp = from[k] + rng() % span[k];
        if ((cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFEFF || cp == 0xFFFE) continue;
        cps.push_back(cp);
    }
    return cps;
}

std::string encodeAs(const char* charset, const std::vector<uint32_t>& cps) {
    const std::string units(reinterpret_cast<const char*>(cps.data()), cps.size() * 4);
    return Iconv("UTF-32LE", charset).convert(units).value_or("?");
}

// Without a mark, "UTF-16", "UTF-32" and "UCS-2" are big-endian, as RFC 2781
// and ISO 10646 have them (glibc takes the machine's order); a mark decides
// either way, also against the order a name gives.
TEST(UTF8ConverterUnicode, Utf16AndUcs4WithAndWithoutByteOrderMarks) {
    std::mt19937 rng(16);
    for (int i = 0; i < 200; ++i) {
        const auto cps = randomCodepoints(rng, 1 + rng() % 40);
        const std::string want = utf8(cps);
        const std::string be = encodeAs("UTF-16BE", cps), le = encodeAs("UTF-16LE", cps);
        const std::string be4 = encodeAs("UTF-32BE", cps), le4 = encodeAs("UTF-32LE", cps);
        const std::pair<const char*, std::string> cases[] = {
            {"UTF-16BE", be},
            {"UTF-16LE", le},
            {"UTF-16", be},
            {"UTF-16", "\xFE\xFF" + be},
            {"UTF-16", "\xFF\xFE" + le},
            {"UTF-16LE", "\xFE\xFF" + be},
            {"UnicodeBig", "\xFF\xFE" + le},
            {"UCS-4", be4},
            {"UTF-32LE", le4},
            {"UTF-32", be4},
            {"UTF-32", std::string("\0\0\xFE\xFF", 4) + be4},
            {"UTF-32", std::string("\xFF\xFE\0\0", 4) + le4},
        };
        for (const auto& [name, in] : cases) {
            ASSERT_EQ(ours(name, in).text, want) << name << " " << testing::PrintToString(in);
        }
    }
    EXPECT_FALSE(ours("UTF-16", "").worked);
    EXPECT_TRUE(ours("UTF-16", "\xFE\xFF").worked) << "an empty text is still a conversion";
    EXPECT_EQ(ours("UTF-16", "\xFE\xFF").text, "");
    EXPECT_EQ(ours("UTF-16", std::string("\x00\x41", 2)).text, "A");
    EXPECT_EQ(ours("UTF-16BE", std::string("\xFE\xFF\x00\x41", 4)).text, "A");
    EXPECT_EQ(ours("UCS-2", std::string("\x00\x41", 2)).text, "A");
}

TEST(UTF8ConverterUnicode, BadUnitsAreMarkedInInputOrder) {
    const std::string tail("\0\0\0A\0\0", 6);
    const struct {
        std::string name, in, want;
    } cases[] = {
        {"UTF-16BE", std::string("\xD8\x3D\x00\x41", 4), mark(0xD8) + mark(0x3D) + "A"},
        {"UTF-16LE", std::string("\x3D\xD8\x41\x00", 4), mark(0x3D) + mark(0xD8) + "A"},
        {"UTF-16BE", std::string("\xDE\x00\xD8\x3D", 4),
         mark(0xDE) + mark(0x00) + mark(0xD8) + mark(0x3D)},
        {"UTF-16BE", std::string("\xD8\x00\xD8\x00\xDC\x00", 6),
         mark(0xD8) + mark(0x00) + utf8({0x10000})},
        {"UTF-16BE", std::string("\x00\x41\x00", 3), "A" + mark(0x00)},
        // Beyond U+10FFFF, and a surrogate.
        {"UTF-32BE", std::string("\x00\x11\x00\x00", 4) + tail,
         mark(0) + mark(0x11) + mark(0) + mark(0) + "A" + mark(0) + mark(0)},
        {"UTF-32BE", std::string("\x00\x00\xD8\x00", 4) + tail,
         mark(0) + mark(0) + mark(0xD8) + mark(0) + "A" + mark(0) + mark(0)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.in));
        EXPECT_FALSE(Iconv(c.name).convert(c.in)) << "glibc should refuse this too";
        const Result r = ours(c.name, c.in);
        EXPECT_EQ(r.text, c.want);
        EXPECT_EQ(r.invalid, marksIn(c.want));
    }
}

TEST(UTF8ConverterUnicode, Utf7ReadsTheRfcExamplesAndWhatOthersWrite) {
    // The examples of RFC 2152.
    EXPECT_EQ(ours("UTF-7", "A+ImIDkQ.").text, utf8({'A', 0x2262, 0x391, '.'}));
    EXPECT_EQ(ours("UTF-7", "Hi Mom -+Jjo--!").text, "Hi Mom -" + utf8({0x263A}) + "-!");
    EXPECT_EQ(ours("UTF-7", "+ZeVnLIqe-").text, utf8({0x65E5, 0x672C, 0x8A9E}));
    EXPECT_EQ(ours("UTF-7", "Item 3 is +AKM-1.").text, "Item 3 is " + utf8({0xA3}) + "1.");

    // glibc's encoder, Python's decoder.
    std::mt19937 rng(7);
    std::vector<std::string> encoded;
    std::vector<std::string> wants;
    for (int i = 0; i < 300; ++i) {
        auto cps = randomCodepoints(rng, 1 + rng() % 20);
        for (uint32_t cp : {'+', '-', '~', '\\', ' '}) {
            if (rng() % 3 == 0) cps.insert(cps.begin() + rng() % cps.size(), cp);
        }
        encoded.push_back(encodeAs("UTF-7", cps));
        wants.push_back(utf8(cps));
    }
    const auto python = pythonDecode("utf-7", encoded);
    for (size_t i = 0; i < encoded.size(); ++i) {
        EXPECT_EQ(utf8(codepoints(python[i])), wants[i]) << encoded[i];
        const Result r = ours("UNICODE-1-1-UTF-7", encoded[i]);
        EXPECT_EQ(r.text, wants[i]) << encoded[i];
        EXPECT_EQ(r.invalid, 0u);
    }
    EXPECT_FALSE(ours("UTF-7", "no shift, no high bytes: ~\\").worked);
    EXPECT_EQ(ours("UTF-7", "1+-1=2").text, "1+1=2");
    // Padding bits, fewer than six, are dropped whatever they hold.
    EXPECT_EQ(ours("UTF-7", "+AGF-").text, "a");
}

TEST(UTF8ConverterUnicode, Utf7MarksWhatCantBeDecoded) {
    const std::pair<std::string, std::string> cases[] = {
        {"+!", mark('+') + "!"},       // "+" before neither "-" nor base64
        {"a+AGEx", "aa" + mark('x')},  // base64 digits that never reach a whole unit
        // Lone surrogates, as their two big-endian bytes.
        {"+2D0-", mark(0xD8) + mark(0x3D)},
        {"+2D0AQQ-", mark(0xD8) + mark(0x3D) + "A"},
        {"\xC3\xA9", mark(0xC3) + mark(0xA9)},
    };
    const auto python = pythonDecode("utf-7", {cases[0].first, cases[1].first});
    EXPECT_EQ(python, (std::vector<std::string>{"-", "-"}));
    for (const auto& [in, want] : cases) {
        const Result r = ours("UTF-7", in);
        EXPECT_EQ(r.text, want) << in;
        EXPECT_EQ(r.invalid, marksIn(want)) << in;
    }
}

TEST(UTF8ConverterUnicode, UtfEbcdicRoundTripsThroughIbm1047) {
    // The byte map: C0, ASCII and C1 where IBM-1047 has them; the other
    // intermediate bytes, 0xA0 to 0xFF, in the remaining positions in order.
    Iconv toEbcdic("UTF-32LE", "IBM1047");
    uint8_t i8ToEbcdic[256];
    std::vector<bool> used(256, false);
    for (uint32_t u = 0; u < 0xA0; ++u) {
        const auto b = toEbcdic.convert(std::string(reinterpret_cast<const char*>(&u), 4));
        ASSERT_TRUE(b && b->size() == 1);
        i8ToEbcdic[u] = static_cast<uint8_t>((*b)[0]);
        used[i8ToEbcdic[u]] = true;
    }
    for (int e = 0, i8 = 0xA0; e < 256; ++e) {
        if (!used[e]) i8ToEbcdic[i8++] = static_cast<uint8_t>(e);
    }
    auto encode = [&](const std::vector<uint32_t>& cps) {
        std::string s;
        for (uint32_t cp : cps) {
            int n = cp < 0xA0 ? 1 : cp < 0x400 ? 2 : cp < 0x4000 ? 3 : cp < 0x40000 ? 4 : 5;
            static const uint8_t lead[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8};
            uint8_t bytes[5];
            for (int k = n - 1; k > 0; --k, cp >>= 5)
                bytes[k] = static_cast<uint8_t>(0xA0 | (cp & 0x1F));
            bytes[0] = static_cast<uint8_t>(lead[n] | cp);
            for (int k = 0; k < n; ++k) s.push_back(static_cast<char>(i8ToEbcdic[bytes[k]]));
        }
        return s;
    };
    std::mt19937 rng(1047);
    for (int i = 0; i < 300; ++i) {
        auto cps = randomCodepoints(rng, 1 + rng() % 20);
        cps.push_back(0x85);  // NEL: a C1 control, a single byte
        EXPECT_EQ(ours("UTF-EBCDIC", encode(cps)).text, utf8(cps));
    }
    EXPECT_EQ(ours("UTF-EBCDIC", "\xC1\xC2\xC3").text, "ABC");
    EXPECT_EQ(ours("UTF-EBCDIC", "\x80\x41").text, utf8({0xA0})) << "U+00A0 is 80 41";
    // A trailing byte alone; a lead cut short; an overlong form.
    const std::string trail(1, static_cast<char>(i8ToEbcdic[0xA0]));
    const std::string lead2(1, static_cast<char>(i8ToEbcdic[0xC5]));
    const std::string overlong = std::string(1, static_cast<char>(i8ToEbcdic[0xC1])) + trail;
    EXPECT_EQ(ours("UTF-EBCDIC", trail + "\xC1").text, mark(trail[0]) + "A");
    EXPECT_EQ(ours("UTF-EBCDIC", lead2 + "\xC1").text, mark(lead2[0]) + "A");
    const Result r = ours("UTF-EBCDIC", overlong);
    EXPECT_EQ(r.text, mark(overlong[0]) + mark(overlong[1]));
    EXPECT_EQ(r.invalid, 2u);
}

TEST(UTF8ConverterUnicode, JavaAndC99Escapes) {
    std::mt19937 rng(99);
    for (const char* name : {"JAVA", "C99"}) {
        const bool java = name[0] == 'J';
        for (int i = 0; i < 200; ++i) {
            const auto cps = randomCodepoints(rng, 1 + rng() % 20);
            std::string escaped;
            for (uint32_t cp : cps) {
                char buf[32];
                const char* hex = rng() % 2 ? "\\u%04X" : "\\u%04x";
                if (cp < 0x80 && cp != '\\') {
                    escaped.push_back(static_cast<char>(cp));
                    continue;
                }
                if (cp < 0x10000) {
                    snprintf(buf, sizeof buf, hex, cp);
                } else if (java) {
                    const uint32_t v = cp - 0x10000;
                    snprintf(buf, sizeof buf, "\\u%04X\\u%04x", 0xD800 + (v >> 10),
                             0xDC00 + (v & 0x3FF));
                } else {
                    snprintf(buf, sizeof buf, "\\U%08X", cp);
                }
                escaped += buf;
            }
            const Result r = ours(name, escaped);
            EXPECT_EQ(r.text, utf8(cps)) << escaped;
            EXPECT_EQ(r.invalid, 0u);
        }
    }
    // An even run of backslashes escapes itself; an odd one starts an escape.
    EXPECT_FALSE(ours("java", "C:\\\\u0041 \\n \\u004 \\x").worked);
    const struct {
        const char* name;
        std::string in, want;
    } cases[] = {
        {"java", "\\\\\\u0041", "\\\\A"},
        {"java", "\\uuu0041", "A"},
        {"c99", "\\U0001F600", utf8({0x1F600})},
        // Lone surrogates and values past U+10FFFF: the backslash is marked.
        {"java", "\\uD800x", mark('\\') + "uD800x"},
        {"java", "\\uDE00", mark('\\') + "uDE00"},
        {"java", "\\uD83D\\\\uDE00", mark('\\') + "uD83D\\\\uDE00"},
        {"c99", "\\U00110000", mark('\\') + "U00110000"},
        {"c99", "\xC3\xA9", mark(0xC3) + mark(0xA9)},
    };
    for (const auto& c : cases) {
        const Result r = ours(c.name, c.in);
        EXPECT_EQ(r.text, c.want) << c.in;
        EXPECT_EQ(r.invalid, marksIn(c.want)) << c.in;
    }
}

TEST(UTF8ConverterUnicode, Utf8MarksWhatPythonEscapes) {
    // Python's decoder with backslashreplace writes "\xhh" for the same
    // bytes; only the case of the digits differs.
    std::mt19937 rng(8);
    const std::vector<std::string> pieces = {
        "a",        "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
        "\x80",     "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80",
        "\xC0\xAF", "\xFF",     "\xF0\x9F\x98"};
    std::vector<std::string> inputs;
    for (int i = 0; i < 1000; ++i) {
        std::string s(rng() % 20, 'x');
        for (int k = rng() % 6; k > 0; --k) s += pieces[rng() % pieces.size()];
        inputs.push_back(s);
    }
    const auto lines = oracle::python("utf-8", "backslashreplace", inputs);
    size_t invalid = 0;
    for (size_t i = 0; i < inputs.size(); ++i) {
        const Result r = ours("UTF-8", inputs[i]);
        const std::string want = utf8(codepoints(lines[i]));
        EXPECT_EQ(r.text, want) << testing::PrintToString(inputs[i]);
        EXPECT_EQ(r.worked, want != inputs[i]);
        invalid += r.invalid;
    }
    EXPECT_GT(invalid, 500u);
    // CESU-8's surrogate pairs are joined, where Python and glibc refuse them.
    const std::string cesu = "\xED\xA0\xBD\xED\xB8\x80";
    EXPECT_EQ(pythonDecode("utf-8", {cesu})[0], "-");
    EXPECT_EQ(ours("CESU-8", cesu).text, utf8({0x1F600}));
    EXPECT_EQ(ours("utf8", "\xED\xB8\x80\xED\xA0\xBD").invalid, 6u) << "low before high";
    Str text("caf\xE9");
    UTF8Converter latin1;
    ASSERT_TRUE(latin1.choose("latin1"));
    latin1.convertInPlace(&text);
    EXPECT_EQ(text, "caf\xC3\xA9");
}

// ---------------------------------------------------------------- long texts

// Texts far longer than the engines' staging buffer, with runs of every
// length: the whole must read as its self-contained pieces do.
TEST(UTF8ConverterLongTexts, WholeTextReadsAsItsPiecesDo) {
    struct Engine {
        const char* name;
        std::vector<std::string> pieces;
    };
    const std::vector<Engine> engines = {
        {"java", {"\\u00e9", "\\U0001F600", "\x80", "\\uD800", "plain", "\\\\u0041"}},
        {"utf-7", {"+AOk-", "+2D3eAA-", "\x80", "+!", "plain", "+-"}},
        {"utf-8", {"\xC3\xA9", "\xF0\x9F\x98\x80", "\x80", "\xED\xA0\xBD\xED\xB8\x80", "plain"}},
        {"hz", {"~{VP~}", "~~", "\x80", "~x", "plain", "~{VPVP\n"}},
        {"utf-ebcdic", {"\xC1", "\x80\x41", "\x41"}},
        {"sjis", {"\x82\xA0", "\xA0", "\\", "plain", "\xB1"}},
        {"gb18030", {"\x81\x30\x81\x30", "\x95\x32\x82\x36", "\xFF", "plain", "\xB0\xA1"}},
        {"latin1", {"\xE9", "plain"}},
    };
    // ASCII runs of assorted lengths, so that steps end at every distance
    // from the end of the buffer.
    const std::vector<std::string> runs = {"q", "qr", "qrs", "0123456", std::string(33, 'z')};
    std::mt19937 rng(4096);
    for (Engine e : engines) {
        if (e.name != std::string("utf-ebcdic"))
            e.pieces.insert(e.pieces.end(), runs.begin(), runs.end());
        std::string whole, want;
        size_t invalid = 0;
        while (whole.size() < 50000) {
            const std::string& piece = e.pieces[rng() % e.pieces.size()];
            const size_t times = rng() % 3 == 0 ? 1 + rng() % 300 : 1;
            const Result one = ours(e.name, piece);
            for (size_t k = 0; k < times; ++k) {
                whole += piece;
                want += one.text;
                invalid += one.invalid;
            }
        }
        const Result r = ours(e.name, whole);
        EXPECT_EQ(r.text, want) << e.name;
        EXPECT_EQ(r.invalid, invalid) << e.name;
    }
}

// Marks (four bytes out for one in) right up to and past the end of the
// staging buffer, each run of them followed by plain text to copy: the
// copy must see how little room a step across the end left.
TEST(UTF8ConverterLongTexts, TextAfterAStepAcrossTheBufferEnd) {
    const std::string tail(100, 'z');
    for (size_t phase = 0; phase < 4; ++phase) {
        for (size_t k = 1500; k < 2600; ++k) {
            const std::string input = std::string(phase, 'y') + std::string(k, '\x80') + tail;
            std::string want(phase, 'y');
            for (size_t i = 0; i < k; ++i) want += "\\x80";
            const Result r = ours("utf-8", input);
            ASSERT_EQ(r.text, want + tail) << "phase " << phase << ", " << k << " marks";
        }
    }
}

}  // namespace
