// UTF8Converter against other people's converters: glibc's iconv(3) for
// every set it has, Python's codecs and Perl's Encode for the vendor tables
// glibc lacks or has in an older form.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/Oracles.h"
#include "util/UTF8Converter.h"

namespace {

using namespace std::string_literals;
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

std::vector<std::string> eachByte() {
    std::vector<std::string> bytes;
    for (int b = 1; b < 256; ++b) bytes.emplace_back(1, static_cast<char>(b));
    return bytes;
}
const std::string kAllBytes = [] {
    std::string s;
    for (const std::string& b : eachByte()) s += b;
    return s;
}();

// ---------------------------------------------------------------- names

TEST(UTF8ConverterNames, NormalisedNamesFindTheirOwnEntry) {
    UTF8Converter::spec s{};
    for (const char* name : {"UTF-8", "utf_8", "Utf8", "UTF 8", "-u-t-f-8-"}) {
        ASSERT_TRUE(UTF8Converter::find_engine(&s, name)) << name;
        EXPECT_EQ(s.engine, utf8_converter_utf8) << name;
    }
    for (const std::string& bad : {"UTF-8X"s, ""s, std::string(300, 'a')})
        EXPECT_FALSE(UTF8Converter::find_engine(&s, bad.c_str())) << bad;
    // The length bounds the name, and a zero byte ends it before that; a name
    // too long for the stack buffer still normalises to a short key.
    const std::string longName = std::string(500, '-') + "Shift_JIS";
    const std::tuple<const char*, size_t, const char*> bounded[] = {
        {"ISO-8859-15", 10, "iso88591"},
        {"latin1\0junk", 11, "latin1"},
        {longName.c_str(), longName.size(), "shiftjis"}};
    for (const auto& [name, length, key] : bounded) {
        ASSERT_TRUE(UTF8Converter::find_engine(&s, name, length)) << key;
        EXPECT_STREQ(s.name, key);
    }

    ASSERT_EQ(utf8_converter_spec_count, 275u);
    for (size_t i = 0; i < utf8_converter_spec_count; ++i) {
        const UTF8Converter::spec& entry = utf8_converter_specs[i];
        EXPECT_EQ(normalised(entry.name), entry.name) << "not a normalised name";
        EXPECT_TRUE(i == 0 || strcmp(utf8_converter_specs[i - 1].name, entry.name) < 0);
        const UTF8Converter::spec* f = specOf(std::string("-") + entry.name + "-");
        EXPECT_TRUE(f && f->name == entry.name && f->engine == entry.engine &&
                    f->data == entry.data)
            << entry.name;
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
        const auto lines = oracle::python(o.python, "strict", eachByte());
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
        std::string want;
        size_t unmapped = 0;
        for (int b = 1; b < 256; ++b) {
            want += table[b] ? utf8({table[b]}) : mark(static_cast<unsigned char>(b));
            unmapped += table[b] == 0;
        }
        EXPECT_LE(unmapped, 255u - 94) << "the oracle knows too little";
        const Result r = ours(o.table, kAllBytes);
        EXPECT_TRUE(r.worked);
        EXPECT_EQ(r.text, want);
        EXPECT_EQ(r.invalid, unmapped);
        // Long texts take another path; the ASCII between shifts the alignment.
        std::string longText, longWant;
        for (int k = 0; k < 8; ++k) {
            longText += kAllBytes + std::string(k, 'a');
            longWant += want + std::string(k, 'a');
        }
        const Result l = ours(o.table, longText);
        EXPECT_EQ(l.text, longWant);
        EXPECT_EQ(l.invalid, 8 * unmapped);
    }
    for (size_t i = 0; i < utf8_converter_spec_count; ++i) {
        const UTF8Converter::spec& e = utf8_converter_specs[i];
        EXPECT_TRUE(e.engine != utf8_converter_engine_onebyte || checked.count(e.data))
            << e.name << ": a table with no oracle";
    }
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

    std::vector<uint32_t> sample = {0x20AC, 0x2122, 0x1F600, 0x20001, 0x10FFFD};
    for (uint32_t cp = 0x20; cp < 0x3000; cp += (cp < 0x600 ? 1 : 7)) sample.push_back(cp);
    for (uint32_t cp = 0x3000; cp < 0x3100; ++cp) sample.push_back(cp);
    for (uint32_t cp = 0x4E00; cp < 0xA000; cp += 37) sample.push_back(cp);
    for (uint32_t cp = 0xAC00; cp < 0xD7A4; cp += 29) sample.push_back(cp);
    for (uint32_t cp = 0xFF01; cp < 0xFFE0; cp += 3) sample.push_back(cp);

    std::map<const void*, const SingleByteOracle*> oracleOf;
    for (const SingleByteOracle& o : singleByteOracles()) oracleOf[specOf(o.table)->data] = &o;

    size_t compared = 0;
    for (size_t i = 0; i < utf8_converter_spec_count; ++i) {
        const UTF8Converter::spec& e = utf8_converter_specs[i];
        const auto g = glibcNames.find(e.name);
        // glibc's UCS-2 is in the machine's byte order; ours big-endian.
        if (g == glibcNames.end() || g->second == "UCS-2" || g->second == "ISO-10646/UCS2")
            continue;
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
                EXPECT_EQ(ours(e.name, byte).text, want ? *want : mark(b)) << "byte " << b;
            }
            continue;
        }
        Iconv encoder("UTF-32LE", g->second);
        std::string text;
        for (uint32_t cp : sample) {
            if (const auto bytes = encoder.convert(std::string(reinterpret_cast<char*>(&cp), 4)))
                text += *bytes;
        }
        ASSERT_GE(text.size(), 95u);
        const auto want = decoder.convert(text);
        ASSERT_TRUE(want);
        EXPECT_EQ(ours(e.name, text).text, *want);
    }
    EXPECT_GT(compared, 200u);
}

// ---------------------------------------------------------------- double-byte sets

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
    const std::pair<const char*, const char*> sets[] = {
        {"big5", "BIG5"},   {"big5hkscs", "BIG5-HKSCS"}, {"gb2312", "EUC-CN"},
        {"gbk", "GBK"},     {"gb18030", "GB18030"},      {"eucjp", "EUC-JP"},
        {"sjis", "SJIS"},   {"cp932", "CP932"},          {"euckr", "EUC-KR"},
        {"cp949", "CP949"}, {"johab", "JOHAB"},          {"euctw", "EUC-TW"},
    };
    std::mt19937 rng(7);
    for (const auto& [table, glibc] : sets) {
        SCOPED_TRACE(table);
        const Codes codes = codesOf(glibc);
        ASSERT_GT(codes.valid.size(), 7000u);
        std::string corpus;
        for (const std::string& code : codes.valid) corpus += code;
        const Result r = ours(table, corpus);
        EXPECT_TRUE(r.worked);
        EXPECT_EQ(r.invalid, 0u);
        EXPECT_EQ(r.text, *Iconv(glibc).convert(corpus));
        // What glibc refuses is never read as a character.
        for (const std::string& code : codes.refused) {
            ASSERT_EQ(ours(table, code).text.compare(0, 4, mark(code[0])), 0)
                << "refused code read: " << testing::PrintToString(code);
        }
        for (int i = 0; i < 300; ++i) {
            std::string input;
            for (int k = rng() % 12; k >= 0; --k) {
                const std::string& code = codes.valid[rng() % codes.valid.size()];
                switch (rng() % 4) {
                    case 0:  // a stray byte, but never a backslash: marks are made of them
                        input.push_back(static_cast<char>(0x80 + rng() % 0x80));
                        break;
                    case 1:  // a code cut short
                        input += code.substr(0, 1);
                        break;
                    default:
                        input += code;
                }
            }
            std::erase(input, '\\');
            for (size_t at; (at = input.find("\xA2\xE8")) != std::string::npos;) input.erase(at, 1);
            expectSameUpToMarks(glibc, table, input);
        }
    }
}

// The raw 94x94 sets take the codes EUC-JP has after its high bits, in
// seven-bit and eight-bit form.
TEST(UTF8ConverterDoubleByte, RawJisSetsAreEucJpWithoutTheShifts) {
    Iconv eucjp("EUC-JP");
    std::string gl0208, gr0208, gl0212, want0208, want0212;
    for (const std::string& code : codesOf("EUC-JP").valid) {
        const bool x0212 = code.size() == 3;
        if (code.size() == 1 || (!x0212 && static_cast<unsigned char>(code[0]) < 0xA1)) continue;
        const std::string pair = code.substr(code.size() - 2);
        (x0212 ? gl0212 : gl0208) +=
            {static_cast<char>(pair[0] & 0x7F), static_cast<char>(pair[1] & 0x7F)};
        if (!x0212) gr0208 += pair;
        (x0212 ? want0212 : want0208) += *eucjp.convert(code);
    }
    EXPECT_GT(gl0208.size(), 2 * 6800u);
    EXPECT_GT(gl0212.size(), 2 * 6000u);
    EXPECT_EQ(ours("JIS_X0208", gl0208).text, want0208);
    EXPECT_EQ(ours("JIS_X0208", gr0208).text, want0208);
    EXPECT_EQ(ours("JIS_X0212-1990", gl0212).text, want0212);
}

TEST(UTF8ConverterDoubleByte, HzAgreesWithPython) {
    const Codes gb = codesOf("EUC-CN");
    std::vector<std::string> inputs;
    std::mt19937 rng(3);
    for (int i = 0; i < 400; ++i) {
        std::string s;
        for (int k = rng() % 6; k >= 0; --k) {
            const unsigned kind = rng() % 4;
            if (kind < 2) {
                s += kind == 0 ? "ab ~~ c" : "x~\ny";
                continue;
            }
            s += "~{";
            for (int n = 1 + rng() % 5; n > 0; --n) {
                const std::string& code = gb.valid[128 + rng() % (gb.valid.size() - 128)];
                s += {static_cast<char>(code[0] & 0x7F), static_cast<char>(code[1] & 0x7F)};
            }
            s += "~}";
        }
        inputs.push_back(s);
    }
    const auto lines = oracle::python("hz", "strict", inputs);
    for (size_t i = 0; i < inputs.size(); ++i) {
        ASSERT_NE(lines[i], "-") << testing::PrintToString(inputs[i]);
        EXPECT_EQ(ours("HZ-GB-2312", inputs[i]).text, utf8(codepoints(lines[i])))
            << testing::PrintToString(inputs[i]);
    }
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

// Random texts as glibc's encoders write them, as UTF-EBCDIC maps them over
// IBM-1047, and as Java and C99 escape them. Without a mark, "UTF-16",
// "UTF-32" and "UCS-2" are big-endian (glibc takes the machine's order); a
// mark decides either way, also against the order a name gives.
TEST(UTF8ConverterUnicode, RandomTextsInEveryForm) {
    // UTF-EBCDIC's byte map: C0, ASCII and C1 where IBM-1047 has them; the
    // other intermediate bytes, 0xA0 to 0xFF, in the remaining positions.
    Iconv toEbcdic("UTF-32LE", "IBM1047");
    uint8_t i8ToEbcdic[256];
    std::vector<bool> used(256, false);
    for (uint32_t u = 0; u < 0xA0; ++u) {
        const auto b = toEbcdic.convert(std::string(reinterpret_cast<const char*>(&u), 4));
        ASSERT_TRUE(b && b->size() == 1);
        used[i8ToEbcdic[u] = static_cast<uint8_t>((*b)[0])] = true;
    }
    for (int e = 0, i8 = 0xA0; e < 256; ++e) {
        if (!used[e]) i8ToEbcdic[i8++] = static_cast<uint8_t>(e);
    }
    std::mt19937 rng(16);
    auto ebcdic = [&](std::vector<uint32_t> cps) {
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
    auto escaped = [&](const std::vector<uint32_t>& cps, bool java) {
        std::string s;
        for (uint32_t cp : cps) {
            char buf[32] = {static_cast<char>(cp)};
            const uint32_t v = cp - 0x10000;
            if (cp >= 0x10000 && java) {
                snprintf(buf, sizeof buf, "\\u%04X\\u%04x", 0xD800 + (v >> 10),
                         0xDC00 + (v & 0x3FF));
            } else if (cp >= 0x10000) {
                snprintf(buf, sizeof buf, "\\U%08X", cp);
            } else if (cp >= 0x80 || cp == '\\') {
                snprintf(buf, sizeof buf, rng() % 2 ? "\\u%04X" : "\\u%04x", cp);
            }
            s += buf;
        }
        return s;
    };
    for (int i = 0; i < 300; ++i) {
        auto cps = randomCodepoints(rng, 1 + rng() % 30);
        // What UTF-7 treats apart, and NEL: a C1 control, one byte in UTF-EBCDIC.
        for (uint32_t cp : std::initializer_list<uint32_t>{'+', '-', '~', '\\', ' ', 0x85}) {
            if (rng() % 3 == 0) cps.insert(cps.begin() + rng() % cps.size(), cp);
        }
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
            {"UTF-32", "\0\0\xFE\xFF"s + be4},
            {"UTF-32", "\xFF\xFE\0\0"s + le4},
            {"UNICODE-1-1-UTF-7", encodeAs("UTF-7", cps)},
            {"UTF-EBCDIC", ebcdic(cps)},
            {"JAVA", escaped(cps, true)},
            {"C99", escaped(cps, false)},
        };
        for (const auto& [name, in] : cases) {
            const Result r = ours(name, in);
            ASSERT_EQ(r.text, utf8(cps)) << name << " " << testing::PrintToString(in);
            ASSERT_EQ(r.invalid, 0u) << name;
        }
    }
}

// Python's decoder with backslashreplace writes "\xhh" for the same bytes;
// only the case of the digits differs.
TEST(UTF8ConverterUnicode, Utf8MarksWhatPythonEscapes) {
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
}

// ---------------------------------------------------------------- hand-picked texts

// The data file's C escapes: \xHH and \\ (so a mark is "\\xHH" there).
std::string unescaped(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\') {
            out += s[i];
        } else if (s[++i] == 'x') {
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

TEST(UTF8ConverterEdges, MarksAndWhatIsLeftAlone) {
    std::istringstream lines(
        testsupport::readFile(TARVEX_SOURCE_DIR "/tests/data/UTF8ConverterTest/edges.txt"));
    size_t rows = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        const size_t tab1 = line.find('\t'), tab2 = line.find('\t', tab1 + 1);
        ASSERT_NE(tab2, std::string::npos) << line;
        const std::string name = line.substr(0, tab1);
        const std::string in = unescaped(line.substr(tab1 + 1, tab2 - tab1 - 1));
        const std::string want = unescaped(line.substr(tab2 + 1));
        SCOPED_TRACE(line);
        const Result r = ours(name, in);
        EXPECT_EQ(r.text, want);
        EXPECT_EQ(r.invalid, marksIn(want));
        EXPECT_EQ(r.worked, want != in);
        ++rows;
    }
    EXPECT_EQ(rows, 51u);
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
    const std::vector<std::pair<const char*, std::vector<std::string>>> engines = {
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
    for (auto [name, pieces] : engines) {
        if (name != std::string("utf-ebcdic"))
            pieces.insert(pieces.end(), runs.begin(), runs.end());
        std::string whole, want;
        size_t invalid = 0;
        while (whole.size() < 50000) {
            const std::string& piece = pieces[rng() % pieces.size()];
            const size_t times = rng() % 3 == 0 ? 1 + rng() % 300 : 1;
            const Result one = ours(name, piece);
            for (size_t k = 0; k < times; ++k) whole += piece, want += one.text;
            invalid += times * one.invalid;
        }
        const Result r = ours(name, whole);
        EXPECT_EQ(r.text, want) << name;
        EXPECT_EQ(r.invalid, invalid) << name;
    }
}

// Marks (four bytes out for one in) right up to and past the end of the
// staging buffer, each run of them followed by plain text to copy: the
// copy must see how little room a step across the end left.
TEST(UTF8ConverterLongTexts, TextAfterAStepAcrossTheBufferEnd) {
    const std::string tail(100, 'z');
    for (size_t phase = 0; phase < 4; ++phase) {
        for (size_t k = 1500; k < 2600; ++k) {
            std::string want(phase, 'y');
            for (size_t i = 0; i < k; ++i) want += "\\x80";
            ASSERT_EQ(ours("utf-8", std::string(phase, 'y') + std::string(k, '\x80') + tail).text,
                      want + tail)
                << "phase " << phase << ", " << k << " marks";
        }
    }
}

}  // namespace
