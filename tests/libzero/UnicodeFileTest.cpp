#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "libzero/unicode-file-reader.h"
#include "libzero/unicode-file-writer.h"
#include "support/Oracles.h"

namespace {

using oracle::fromUtf8;
using oracle::hex;
using Lines = std::vector<std::string>;

struct MemorySource {
    std::string data;
    size_t pos = 0;

    static int read(void* self) {
        MemorySource* s = static_cast<MemorySource*>(self);
        return s->pos < s->data.size() ? static_cast<unsigned char>(s->data[s->pos++]) : -1;
    }
};

// A reader over a byte string or a stdio file, ended on destruction.
struct Reader {
    MemorySource source;
    utrans_reader r;
    explicit Reader(std::string bytes) : source{std::move(bytes)} {
        utrans_read_start(&r, MemorySource::read, &source);
    }
    explicit Reader(FILE* f) { utrans_read_start_stdio_file(&r, f); }
    ~Reader() { utrans_read_end(&r); }

    Lines lines() {
        Lines out;
        size_t n = 0;
        while (const char* line = utrans_readline_utf8(&r, &n)) out.emplace_back(line, n);
        return out;
    }
    std::string allUtf8() {
        std::string out;
        for (int c; (c = utrans_getc_utf8(&r)) != UTRANS_EOF;) out.push_back(static_cast<char>(c));
        return out;
    }
};

// Text with one-, two-, three- and four-byte characters, mixed line ends and
// marks in the middle.
const std::string kSample =
    "plain ASCII\ncaf\xC3\xA9 \xE2\x82\xAC 5\r\n"
    "\xE6\x97\xA5\xE6\x9C\xAC\xEF\xBB\xBF\xE8\xAA\x9E \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF\n\n"
    "last, no line end \xC3\xBF";
const Lines kSampleLines = {
    "plain ASCII", "caf\xC3\xA9 \xE2\x82\xAC 5",
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF", "",
    "last, no line end \xC3\xBF"};

// ---------------------------------------------------------------- detection

TEST(UnicodeDetectEncoding, MarksInOrderAndNothingWithoutOne) {
    using namespace std::string_literals;
    const std::string le32 = "\xFF\xFE\0\0"s, ab32 = "A\0\0\0B\0\0\0"s;
    const int bom = UTRANS_BOM;
    const std::pair<std::string, int> cases[] = {
        {"", UTRANS_UNKNOWN},
        {"\xEF\xBB\xBF", UTRANS_UTF8 | bom},
        {"\xEF\xBB", UTRANS_UTF8},  // half a mark
        {"\0\0\xFE\xFF"s, UTRANS_UTF32BE | bom},
        {"\xFE\xFF", UTRANS_UTF16BE | bom},
        {"\xFF\xFE", UTRANS_UTF16LE | bom},
        // UTF-32 little-endian must prove itself: eight bytes at least,
        // every whole unit at most U+10FFFF, the first not 0.
        {le32 + "A\0\0\0"s, UTRANS_UTF32LE | bom},
        {le32 + "\xFF\xFF\x10\0"s, UTRANS_UTF32LE | bom},
        {le32 + "A\0\0\0B\0"s, UTRANS_UTF32LE | bom},       // the tail is not checked
        {le32 + "A\0\0\0\0\0\0\0"s, UTRANS_UTF32LE | bom},  // a later unit of 0 is fine
        {le32, UTRANS_UTF16LE | bom},                       // too short
        {le32 + "A\0\0"s, UTRANS_UTF16LE | bom},
        {le32 + "\0\0\0\0"s, UTRANS_UTF16LE | bom},  // the first unit 0
        {le32 + "\0\0\x11\0"s, UTRANS_UTF16LE | bom},
        {le32 + ab32 + "\0\0\0\x01"s, UTRANS_UTF16LE | bom},
        // Without a mark, always UTF-8.
        {"A\0B\0C\0D\0"s, UTRANS_UTF8},
        {std::string(64, '\0'), UTRANS_UTF8},
        {fromUtf8("plain old text", "UTF-32BE"), UTRANS_UTF8},
    };
    for (const auto& [bytes, want] : cases) {
        EXPECT_EQ(utrans_detect_encoding(bytes.data(), bytes.size()), want) << hex(bytes);
    }
}

// ---------------------------------------------------------------- reading

TEST(UnicodeFileReader, ReadsWhatIconvWrites) {
    // The mark is written by iconv itself, from a leading U+FEFF.
    const std::string withMark = "\xEF\xBB\xBF" + kSample;
    const std::tuple<const char*, const std::string&, int> cases[] = {
        {"UTF-8", withMark, UTRANS_UTF8 | UTRANS_BOM},
        {"UTF-8", kSample, UTRANS_UTF8},
        {"UTF-16LE", withMark, UTRANS_UTF16LE | UTRANS_BOM},
        {"UTF-16BE", withMark, UTRANS_UTF16BE | UTRANS_BOM},
        {"UTF-32LE", withMark, UTRANS_UTF32LE | UTRANS_BOM},
        {"UTF-32BE", withMark, UTRANS_UTF32BE | UTRANS_BOM},
    };
    for (const auto& [iconvName, input, expected] : cases) {
        SCOPED_TRACE(iconvName);
        Reader reader(fromUtf8(input, iconvName));
        EXPECT_EQ(reader.lines(), kSampleLines);
        EXPECT_EQ(reader.r._encoding, expected);
        EXPECT_EQ(reader.r._invalid, 0u);
        EXPECT_EQ(reader.r._lf_lines, 3u);
        EXPECT_EQ(reader.r._crlf_lines, 1u);
    }
}

TEST(UnicodeFileReader, RawBytesPassThroughLookaheadAndStack) {
    std::string bytes;
    for (int i = 0; i < 200; ++i) bytes.push_back(static_cast<char>(i * 7));
    Reader reader(bytes);
    std::string got;
    for (int i = 0; i < 100; ++i) got.push_back(static_cast<char>(utrans_read_rawbyte(&reader.r)));
    // The first read took exactly the look-ahead from the source.
    EXPECT_EQ(reader.source.pos, UTRANS_LOOKAHEAD_SIZE + 36);
    for (char c : {'x', 'y', 'z'}) put_rawbyte_back_on_stack(&reader.r, c);
    for (char c : {'z', 'y', 'x'}) EXPECT_EQ(utrans_read_rawbyte(&reader.r), c);
    for (int c; (c = utrans_read_rawbyte(&reader.r)) != UTRANS_EOF;) got.push_back(char(c));
    EXPECT_EQ(got, bytes);

    Reader empty("");
    EXPECT_EQ(utrans_getc_utf8(&empty.r), UTRANS_EOF);
    EXPECT_EQ(empty.r._encoding, UTRANS_UNKNOWN);
    EXPECT_EQ(utrans_readline_utf8(&empty.r, nullptr), nullptr);
    EXPECT_FALSE(empty.r._out_of_memory);
}

TEST(UnicodeFileReader, LineEndsAndTheCrlfFlag) {
    // A CR without LF stays in the line, also at the very end.
    Reader reader("a\nb\r\nc\rd\n\r\n\r\xEF\xBB\xBF\n\re\r");
    size_t n = 99;
    Lines got;
    std::vector<bool> flags;
    while (const char* line = utrans_readline_utf8(&reader.r, &n)) {
        got.emplace_back(line, n);
        EXPECT_EQ(strlen(line), n);  // zero-terminated
        flags.push_back(reader.r._crlf);
    }
    EXPECT_EQ(got, (Lines{"a", "b", "c\rd", "", "", "\re\r"}));
    EXPECT_EQ(flags, (std::vector<bool>{false, true, true, true, true, true}));
    EXPECT_EQ(reader.r._lf_lines, 2u);
    EXPECT_EQ(reader.r._crlf_lines, 3u);  // the mark between CR and LF is not there

    // A final LF ends the last line; marks alone make no line.
    Reader lf("one\ntwo\n\nthree\n"), marks("\xEF\xBB\xBF\xEF\xBB\xBF");
    EXPECT_EQ(lf.lines(), (Lines{"one", "two", "", "three"}));
    EXPECT_EQ(marks.lines(), Lines{});
}

TEST(UnicodeFileReader, LineBufferDoublesFrom128) {
    // Lengths just under, at and over what the buffer held: it doubles as
    // far as needed and stays there. The text is UTF-16, and ends in a
    // stray byte.
    std::string text;
    Lines expected;
    for (size_t length : {127u, 128u, 129u, 255u, 256u, 1000u, 5000u, 10u}) {
        std::string line;
        while (line.size() + 3 <= length) line += "\xE2\x82\xAC";
        line.append(length - line.size(), 'x');
        expected.push_back(line);
        text += line + "\n";
    }
    const size_t capacities[] = {128, 256, 256, 256, 512, 1024, 8192, 8192};
    Reader utf16("\xFF\xFE" + fromUtf8(text, "UTF-16LE") + "x");
    size_t n = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        const char* line = utrans_readline_utf8(&utf16.r, &n);
        ASSERT_NE(line, nullptr) << i;
        EXPECT_EQ(std::string(line, n), expected[i]) << i;
        EXPECT_EQ(utf16.r._line_capacity, capacities[i]) << i;
    }
    EXPECT_STREQ(utrans_readline_utf8(&utf16.r, &n), "\xEF\xBF\xBD");
    EXPECT_EQ(utrans_readline_utf8(&utf16.r, &n), nullptr);
    EXPECT_EQ(utf16.r._line_capacity, 8192u);
    EXPECT_EQ(utf16.r._invalid, 1u);
}

// What Python's "replace" decoding makes of each input, with every U+FEFF
// dropped, and how many replacements it made.
std::vector<std::pair<std::string, size_t>> pythonReplaced(const std::string& codec,
                                                           const std::vector<std::string>& inputs) {
    std::vector<std::pair<std::string, size_t>> out;
    for (const std::string& line : oracle::python(codec, "replace", inputs)) {
        std::vector<uint32_t> cps = oracle::codepoints(line);
        std::erase(cps, 0xFEFF);
        out.emplace_back(oracle::utf8(cps), std::count(cps.begin(), cps.end(), 0xFFFD));
    }
    return out;
}

// Broken input of every encoding, reached through its mark, against Python's
// "replace" decoding; the replacements are counted.
TEST(UnicodeFileReader, BrokenInputAsPythonReplacesIt) {
    using namespace std::string_literals;
    // Python's codec, the mark, and the pieces of text.
    const std::vector<std::tuple<const char*, std::string, std::vector<std::string>>> encodings = {
        {"utf-8",
         "",
         {"a", "\n", "\r\n", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\x80", "\xC0\xAF",
          "\xE0\x80\x80", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xED\x9F\xBF", "\xF0\x8F\xBF\xBF",
          "\xF4\x90\x80\x80", "\xF5\x80", "\xFF", "\xE2\x82", "\xF0\x9F\x98", "\xEF\xBB\xBF"}},
        {"utf-16-le",
         "\xFF\xFE",
         {"a\0"s, "\n\0"s, "\xE9\0"s, "\x00\xD8"s, "\x00\xDC"s, "\x3D\xD8\x00\xDE"s, "\xFF\xDB"s,
          "\xFF\xDF"s, "\xFF\xFE"s, "\xFE\xFF"s}},
        {"utf-16-be",
         "\xFE\xFF",
         {"\0a"s, "\0\n"s, "\xD8\x00"s, "\xDC\x00"s, "\xD8\x3D\xDE\x00"s, "\xDB\xFF"s, "\xDF\xFF"s,
          "\xFE\xFF"s}},
        {"utf-32-be",
         "\0\0\xFE\xFF"s,
         {"\0\0\0a"s, "\0\0\0\n"s, "\0\x01\xF6\x00"s, "\0\0\xD8\x00"s, "\0\x11\0\0"s,
          "\xFF\xFF\xFF\xFF"s, "\0\x10\xFF\xFF"s}},
        // Units over U+10FFFF in the look-ahead would make this UTF-16, so
        // they come after 64 bytes of good text.
        {"utf-32-le",
         "\xFF\xFE\0\0"s + fromUtf8(std::string(15, 'b'), "UTF-32LE"),
         {"a\0\0\0"s, "\n\0\0\0"s, "\x00\xF6\x01\0"s, "\0\xD8\0\0"s, "\0\0\x11\0"s,
          "\xFF\xFF\xFF\xFF"s, "\xFF\xFF\x10\0"s}},
    };
    for (const auto& [codec, mark, pieces] : encodings) {
        SCOPED_TRACE(codec);
        std::mt19937 rng(7);
        std::vector<std::string> inputs;
        for (int i = 0; i < 300; ++i) {
            std::string s;
            for (int k = rng() % 12; k > 0; --k) s += pieces[rng() % pieces.size()];
            // Cut some anywhere, also inside a unit.
            if (i % 3 == 0 && !s.empty()) s.resize(rng() % s.size());
            inputs.push_back(mark + s);
        }
        const auto expected = pythonReplaced(codec, inputs);
        for (size_t i = 0; i < inputs.size(); ++i) {
            Reader reader(inputs[i]);
            ASSERT_EQ(hex(reader.allUtf8()), hex(expected[i].first)) << "input " << hex(inputs[i]);
            ASSERT_EQ(reader.r._invalid, expected[i].second);
        }
    }
}

// ---------------------------------------------------------------- writing

struct MemorySink {
    std::string data;
    static int write(void* self, uint8_t byte) {
        static_cast<MemorySink*>(self)->data.push_back(static_cast<char>(byte));
        return 0;
    }
};

// What a writer makes of UTF-8 text written in pieces of the given size, and
// how much of it it replaced.
std::string written(int encoding, const std::string& text, size_t piece, bool bom = false,
                    uint64_t* invalid = nullptr) {
    MemorySink sink;
    utrans_writer w;
    utrans_write_start(&w, encoding, MemorySink::write, &sink);
    EXPECT_EQ(bom ? utrans_write_bom(&w) : 0, 0);
    for (size_t i = 0; i < text.size(); i += piece) {
        EXPECT_EQ(utrans_write_utf8(&w, text.data() + i, std::min(piece, text.size() - i)), 0);
    }
    EXPECT_EQ(utrans_write_end(&w), 0);
    if (invalid) *invalid = w._invalid;
    return sink.data;
}

TEST(UnicodeFileWriter, EachEncodingAsIconvWritesIt) {
    const std::pair<int, const char*> cases[] = {
        {UTRANS_UTF8, "UTF-8"},       {UTRANS_UTF16LE, "UTF-16LE"},
        {UTRANS_UTF16BE, "UTF-16BE"}, {UTRANS_UTF32LE, "UTF-32LE"},
        {UTRANS_UTF32BE, "UTF-32BE"}, {UTRANS_UTF16LE | UTRANS_BOM, "UTF-16LE"}};
    for (const auto& [encoding, iconvName] : cases) {
        SCOPED_TRACE(iconvName);
        const std::string expected = fromUtf8("\xEF\xBB\xBF" + kSample, iconvName);
        // In one piece and byte by byte, the held sequences joined up.
        for (size_t piece : {kSample.size(), size_t{1}, size_t{2}}) {
            uint64_t invalid = 99;
            EXPECT_EQ(hex(written(encoding, kSample, piece, true, &invalid)), hex(expected));
            EXPECT_EQ(invalid, 0u);
        }
        // Code points give the same bytes.
        MemorySink sink;
        utrans_writer w;
        utrans_write_start(&w, encoding, MemorySink::write, &sink);
        Reader source("\xEF\xBB\xBF" + kSample);
        for (int32_t cp; (cp = utrans_read_codepoint(&source.r)) != UTRANS_EOF;) {
            ASSERT_EQ(utrans_write_codepoint(&w, static_cast<uint32_t>(cp)), 0);
        }
        EXPECT_EQ(hex(sink.data), hex(expected));
    }
    // Unknown and nonsense encodings write UTF-8.
    EXPECT_EQ(written(UTRANS_UNKNOWN, "\xC3\xA9", 1), "\xC3\xA9");
    EXPECT_EQ(written(0x47, "\xC3\xA9", 1), "\xC3\xA9");
}

TEST(UnicodeFileWriter, WhatCantBeEncodedIsReplaced) {
    MemorySink sink;
    utrans_writer w;
    utrans_write_start(&w, UTRANS_UTF16BE, MemorySink::write, &sink);
    for (uint32_t cp : {0xD800u, 0xDFFFu, 0x110000u, 0xFFFFFFFFu, 0x10FFFFu, 0u}) {
        ASSERT_EQ(utrans_write_codepoint(&w, cp), 0);
    }
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(hex(sink.data),
              hex(fromUtf8(fffd + fffd + fffd + fffd + "\xF4\x8F\xBF\xBF" + '\0', "UTF-16BE")));
    EXPECT_EQ(w._invalid, 4u);

    // Broken UTF-8 in any pieces gives what Python's "replace" makes of it.
    std::mt19937 rng(11);
    const std::vector<std::string> pieces = {
        "a",        "\xC3\xA9",     "\xF0\x9F\x98\x80", "\x80",    "\xC0\xAF",
        "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF0\x9F"};
    std::vector<std::string> inputs;
    for (int i = 0; i < 300; ++i) {
        std::string s;
        for (int k = rng() % 8; k > 0; --k) s += pieces[rng() % pieces.size()];
        inputs.push_back(s);
    }
    const auto expected = pythonReplaced("utf-8", inputs);
    for (size_t i = 0; i < inputs.size(); ++i) {
        for (size_t piece : {size_t{1}, size_t{3}, size_t{64}}) {
            uint64_t invalid = 0;
            ASSERT_EQ(hex(written(UTRANS_UTF8, inputs[i], piece, false, &invalid)),
                      hex(expected[i].first))
                << hex(inputs[i]) << " in pieces of " << piece;
            ASSERT_EQ(invalid, expected[i].second) << hex(inputs[i]);
        }
    }
}

TEST(UnicodeFileWriter, StdioFilesBothWays) {
    testsupport::ScratchDir dir;
    const std::string path = dir / "f";
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    utrans_writer w;
    utrans_write_start_stdio_file(&w, UTRANS_UTF16BE | UTRANS_BOM, f);
    EXPECT_EQ(utrans_write_bom(&w), 0);
    EXPECT_EQ(utrans_write_utf8(&w, kSample.data(), kSample.size()), 0);
    EXPECT_EQ(utrans_write_end(&w), 0);
    ASSERT_EQ(fclose(f), 0);
    EXPECT_EQ(hex(testsupport::readFile(path)),
              hex(fromUtf8("\xEF\xBB\xBF" + kSample, "UTF-16BE")));

    f = fopen(path.c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(Reader(f).lines(), kSampleLines);
    fclose(f);
}

}  // namespace
