// The scanning and UTF-8 members of the mem_ family.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "util/Str.h"

namespace {

constexpr size_t npos = MEM_NPOS;

size_t find(const std::string& d, const std::string& s, size_t off = 0) {
    return mem_find(d.data(), d.size(), s.data(), s.size(), off);
}
size_t rfind(const std::string& d, const std::string& s, size_t off = npos) {
    return mem_rfind(d.data(), d.size(), s.data(), s.size(), off);
}

TEST(MemFind, StringSearchAtTheEdges) {
    EXPECT_EQ(find("", ""), npos) << "empty pattern on empty data";
    EXPECT_EQ(find("abc", "", 2), 2u);
    EXPECT_EQ(find("abc", "", 3), npos) << "empty pattern at the end";
    EXPECT_EQ(find("abc", "abcd"), npos);
    EXPECT_EQ(find("abc", "abc"), 0u);
    EXPECT_EQ(find("abcabc", "abc", 1), 3u);
    EXPECT_EQ(find("abcabc", "bc", 5), npos);
    EXPECT_EQ(find("aaab", "aab"), 1u) << "restart after a partial match";
    EXPECT_EQ(find("xaxbxab", "ab"), 5u);
    EXPECT_EQ(find(std::string("a\0b\0c", 5), std::string("\0c", 2)), 3u);
    EXPECT_EQ(find("abc", "c", 7), npos) << "offset past the end";
}

TEST(MemFind, StringSearchAgreesWithStdOnRandomText) {
    std::mt19937 rng(11);
    for (int i = 0; i < 3000; ++i) {
        std::string hay(rng() % 40, 'a'), needle(rng() % 4, 'a');
        for (char& c : hay) c = static_cast<char>('a' + rng() % 3);
        for (char& c : needle) c = static_cast<char>('a' + rng() % 3);
        const size_t off = rng() % 45;
        size_t expect = hay.find(needle, off);
        if (needle.empty() && off >= hay.size()) expect = npos;  // our rule, not std's
        ASSERT_EQ(find(hay, needle, off), expect) << hay << " / " << needle << " @" << off;

        const size_t roff = rng() % 2 ? npos : rng() % 45;
        size_t rexpect = hay.rfind(needle, roff);
        ASSERT_EQ(rfind(hay, needle, roff), rexpect) << hay << " / " << needle << " @" << roff;
    }
}

TEST(MemFind, ReverseSearchAtTheEdges) {
    EXPECT_EQ(rfind("ab", "abc"), npos) << "pattern longer than the data";
    EXPECT_EQ(rfind("abc", ""), 3u) << "empty pattern: the smaller of length and offset";
    EXPECT_EQ(rfind("abc", "", 1), 1u);
    EXPECT_EQ(rfind("abcabc", "abc"), 3u);
    EXPECT_EQ(rfind("abcabc", "abc", 2), 0u);
    EXPECT_EQ(mem_rfind("", 0, 'a'), npos);
    EXPECT_EQ(mem_rfind("abca", 4, 'a'), 3u);
    EXPECT_EQ(mem_rfind("abca", 4, 'a', 2), 0u);
}

TEST(MemFind, ClassesAndSets) {
    const std::string s = "key = value;";
    EXPECT_EQ(mem_find(s.data(), s.size(), CharacterClass::ALPHA, 0, false), 3u);
    EXPECT_EQ(mem_find(s.data(), s.size(), CharacterClass::ALPHA, 3, true), 6u);
    EXPECT_EQ(mem_rfind(s.data(), s.size(), CharacterClass::ALPHA, npos, true), 10u);
    EXPECT_EQ(mem_rfind(s.data(), s.size(), CharacterClass::ALPHA, 5, false), 5u);
    EXPECT_EQ(mem_find_first_of(s.data(), s.size(), "=;", 2, 2), 4u);
    EXPECT_EQ(mem_find_first_of(s.data(), s.size(), "=;", 2, 5), 11u);
    EXPECT_EQ(mem_find_first_of(s.data(), s.size(), "v", 1, 0), 6u);
    EXPECT_EQ(mem_find_first_not_of(s.data(), s.size(), "key ", 4, 0), 4u);
    EXPECT_EQ(mem_find_first_not_of("aab", 3, 'a'), 2u);
    EXPECT_EQ(mem_find_last_of(s.data(), s.size(), "ey", 2, 4), 2u);
    EXPECT_EQ(mem_find_last_of(s.data(), s.size(), "ey", 2, npos), 10u);
    EXPECT_EQ(mem_find_last_not_of(s.data(), s.size(), ";eu", 3, npos), 8u);
    EXPECT_EQ(mem_find_last_not_of("abb", 3, 'b'), 0u);
    EXPECT_EQ(mem_find_last_not_of("bbb", 3, 'b'), npos);

    // Byte 0 and bytes over 0x7F are ordinary members.
    CharacterClassIncludingNul nul("\xff");
    EXPECT_TRUE(nul.contains('\0'));
    EXPECT_TRUE(nul.contains('\xff'));
    EXPECT_FALSE(nul.contains('\x7f'));
    CharacterClass notDigits("0123456789", false);
    EXPECT_FALSE(notDigits.contains('5'));
    EXPECT_TRUE(notDigits.contains('\x80'));
    EXPECT_TRUE(CharacterClass::ALL_WHITESPACES.contains('\v'));
    EXPECT_FALSE(CharacterClass::ALL_WHITESPACES.contains('\x85'));
}

TEST(MemCompare, PrefixThenLength) {
    EXPECT_EQ(mem_compare_normal("ab", 2, "ab", 2), 0);
    EXPECT_LT(mem_compare_normal("ab", 2, "abc", 3), 0);
    EXPECT_GT(mem_compare_normal("abc", 3, "ab", 2), 0);
    EXPECT_GT(mem_compare_normal("\xff", 1, "a", 1), 0) << "bytes compare unsigned";
    EXPECT_EQ(mem_compare_normal(nullptr, 0, "", 0), 0);
    EXPECT_TRUE(mem_equals_cstring("-l", 2, "-l"));
    EXPECT_FALSE(mem_equals_cstring("-l", 1, "-l"));
    EXPECT_TRUE(mem_equalsIgnoreQuotes("\"'x'\"", 5, "x"));
    EXPECT_TRUE(mem_equalsIgnoreQuotes("'x'", 3, "x"));
    EXPECT_FALSE(mem_equalsIgnoreQuotes("'\"x\"'", 5, "x")) << "double quotes go first";
    EXPECT_FALSE(mem_equalsIgnoreQuotes("\"x", 2, "x"));
}

TEST(MemStartsEnds, AllForms) {
    EXPECT_TRUE(mem_startswith("abc", 3, "ab"));
    EXPECT_TRUE(mem_startswith("abc", 3, ""));
    EXPECT_FALSE(mem_startswith("a", 1, "ab"));
    EXPECT_TRUE(mem_endswith("abc", 3, "bc"));
    EXPECT_FALSE(mem_endswith("c", 1, "bc"));
    EXPECT_TRUE(mem_startswith("1a", 2, CharacterClass::DIGITS));
    EXPECT_FALSE(mem_startswith("", 0, CharacterClass::DIGITS)) << "false on empty data";
    EXPECT_FALSE(mem_endswith("", 0, CharacterClass("", false)));
}

// Block scanners: put the interesting byte at every position of data long
// enough to go through the 16-byte path and the tail.
TEST(MemScan, BlockScannersAtEveryPosition) {
    for (size_t len = 0; len <= 50; ++len) {
        std::string s(len, 'x');
        EXPECT_FALSE(mem_contains_non_ascii(s.data(), s.size()));
        EXPECT_EQ(mem_find_first_cr_or_lf(s.data(), s.size()), npos);
        EXPECT_EQ(mem_linecount(s.data(), s.size()), 1u);
        for (size_t i = 0; i < len; ++i) {
            std::string t = s;
            t[i] = '\x80';
            ASSERT_TRUE(mem_contains_non_ascii(t.data(), t.size())) << len << "@" << i;
            t[i] = (i % 2) ? '\r' : '\n';
            ASSERT_EQ(mem_find_first_cr_or_lf(t.data(), t.size()), i);
            ASSERT_EQ(mem_find_first_cr_or_lf(t.data(), t.size(), i + 1), npos);
            t.assign(len, '\n');
            ASSERT_EQ(mem_linecount(t.data(), t.size()), len + 1);
            ASSERT_EQ(mem_count_char(t.data(), t.size(), '\n', i, 3), std::min<size_t>(3, len - i));
        }
    }
    EXPECT_EQ(mem_count_char("a,b,c", 5, CharacterClass::COMMA_OR_SPACE, 2), 1u);
    // Offsets at or past the end, also the largest one, find nothing.
    const std::string lines(40, '\n');
    EXPECT_EQ(mem_find_first_cr_or_lf(lines.data(), lines.size(), lines.size()), npos);
    EXPECT_EQ(mem_find_first_cr_or_lf(lines.data(), lines.size(), npos), npos);
    EXPECT_EQ(mem_find_first_cr_or_lf(lines.data(), lines.size(), npos - 8), npos);
    EXPECT_TRUE(mem_contains_whitespace("a\fb", 3));
    EXPECT_FALSE(mem_contains_whitespace("a\xa0z", 3));
}

TEST(MemSubstring, BytesForSubstring) {
    EXPECT_EQ(mem_bytes_for_substring(5, 5, 1), 0u);
    EXPECT_EQ(mem_bytes_for_substring(5, 9, npos), 0u);
    EXPECT_EQ(mem_bytes_for_substring(5, 1, npos), 4u);
    EXPECT_EQ(mem_bytes_for_substring(5, 1, 2), 2u);
    EXPECT_EQ(mem_bytes_for_substring(5, 3, npos - 1), 2u) << "no overflow near the top";
}

TEST(MemCopies, CopyPieceNeverOverrunsEitherBuffer) {
    char dest[8] = "#######";
    EXPECT_EQ(mem_copy_piece("abcdef", 6, dest, 3, 2), 3u);
    EXPECT_EQ(std::string(dest, 4), "cde#");
    EXPECT_EQ(mem_copy_piece("abcdef", 6, dest, 7, 4), 2u) << "only the bytes that remain";
    EXPECT_EQ(std::string(dest, 3), "efe");
    EXPECT_EQ(mem_copy_piece("abc", 3, dest, 2, 3), 0u);

    char* m = mem_strdup("a\0b", 3);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(std::string(m, 4), std::string("a\0b\0", 4));
    free(m);
    char* n = mem_copystr("xy", 2);
    EXPECT_STREQ(n, "xy");
    delete[] n;
}

// ---------------------------------------------------------------- UTF-8

// Python's strict decoder is the oracle for validity.
std::vector<int> pythonUtf8Verdicts(const std::vector<std::string>& inputs) {
    testsupport::ScratchDir dir;
    std::string list = dir / "inputs.hex";
    std::string text;
    for (const std::string& s : inputs) {
        static const char hex[] = "0123456789abcdef";
        for (unsigned char c : s) {
            text.push_back(hex[c >> 4]);
            text.push_back(hex[c & 15]);
        }
        text.push_back('\n');
    }
    testsupport::writeFile(list, text);
    auto r = testsupport::runProcess({"/usr/bin/env", "python3", "-c",
                                      "import sys\n"
                                      "for line in open(sys.argv[1]):\n"
                                      "    b = bytes.fromhex(line.strip())\n"
                                      "    try:\n"
                                      "        b.decode('utf-8'); print(1)\n"
                                      "    except UnicodeDecodeError:\n"
                                      "        print(0)\n",
                                      list});
    std::vector<int> verdicts;
    for (char c : r.out) {
        if (c == '0' || c == '1') verdicts.push_back(c - '0');
    }
    return verdicts;
}

std::vector<std::string> utf8Corpus() {
    std::vector<std::string> corpus;
    // Every lead byte with every second byte, plus each as a truncated tail.
    for (int b0 = 0x80; b0 < 0x100; ++b0) {
        for (int b1 = 0; b1 < 0x100; b1 += 0x10) {
            for (int extra : {0, 1, 2}) {
                std::string s;
                s.push_back(static_cast<char>(b0));
                s.push_back(static_cast<char>(b1 | 0x0F));
                s.push_back(static_cast<char>(b1));
                s.append(extra, '\x80');
                corpus.push_back(s);
                corpus.push_back(s.substr(0, 1 + extra));
            }
        }
    }
    // Boundaries: overlong forms, surrogates, the top of Unicode and beyond.
    for (const char* s :
         {"\xC0\x80", "\xC1\xBF", "\xC2\x80", "\xDF\xBF", "\xE0\x80\x80", "\xE0\x9F\xBF",
          "\xE0\xA0\x80", "\xED\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xEE\x80\x80",
          "\xEF\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF",
          "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
        corpus.push_back(s);
    }
    // Random mixtures behind ASCII runs of every alignment, so that the
    // 16-byte path hands over at each position.
    std::mt19937 rng(5);
    const std::vector<std::string> pieces = {
        "a",    "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
        "\x80", "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80"};
    for (int i = 0; i < 4000; ++i) {
        std::string s(rng() % 40, 'x');
        for (int k = rng() % 5; k > 0; --k) s += pieces[rng() % pieces.size()];
        s.append(rng() % 20, 'y');
        corpus.push_back(s);
    }
    return corpus;
}

TEST(MemUtf8, ValidityAgreesWithPythonsStrictDecoder) {
    const std::vector<std::string> corpus = utf8Corpus();
    const std::vector<int> verdicts = pythonUtf8Verdicts(corpus);
    ASSERT_EQ(verdicts.size(), corpus.size()) << "python3 must be installed";
    size_t valid = 0;
    for (size_t i = 0; i < corpus.size(); ++i) {
        const std::string& s = corpus[i];
        ASSERT_EQ(mem_is_valid_utf8(s.data(), s.size()), verdicts[i] == 1) << "input #" << i;
        valid += verdicts[i];
    }
    EXPECT_GT(valid, corpus.size() / 10) << "the corpus must hold both kinds";
    EXPECT_LT(valid, corpus.size() * 9 / 10);
}

// The lead-byte rule, one byte at a time: the model for the fast walkers.
size_t modelCount(const std::string& s) {
    size_t n = 0;
    for (size_t i = 0; i < s.size(); ++n) {
        unsigned char b = s[i];
        i += b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF5 ? 4 : 1;
    }
    return n;
}

TEST(MemUtf8, CountFollowsTheLeadByteRuleOnAnyBytes) {
    EXPECT_EQ(mem_count_utf8_codepoints("", 0), 0u);
    EXPECT_EQ(mem_count_utf8_codepoints("\xE0", 1), 1u) << "an overrunning sequence counts once";
    EXPECT_EQ(mem_count_utf8_codepoints("\x80\x80x", 3), 2u) << "continuation bytes lead pairs";
    EXPECT_EQ(mem_count_utf8_codepoints("\xF5\xFFx", 3), 3u);
    for (const std::string& s : utf8Corpus()) {
        ASSERT_EQ(mem_count_utf8_codepoints(s.data(), s.size()), modelCount(s));
    }
}

TEST(MemUtf8, SubstringByCodePoints) {
    const std::string s =
        "a\xC3\xA9"
        "b\xE2\x82\xAC";  // a é b €: 4 code points, 7 bytes
    size_t b = 99, e = 99;
    ASSERT_TRUE(mem_substr_utf8_codepoints(s.data(), s.size(), 1, 2, &b, &e));
    EXPECT_EQ(b, 1u);
    EXPECT_EQ(e, 4u);
    ASSERT_TRUE(mem_substr_utf8_codepoints(s.data(), s.size(), 3, 100, &b, &e));
    EXPECT_EQ(b, 4u);
    EXPECT_EQ(e, 7u);
    ASSERT_TRUE(mem_substr_utf8_codepoints(s.data(), s.size(), 2, 0, &b, &e));
    EXPECT_EQ(b, 3u);
    EXPECT_EQ(e, 3u) << "count 0: empty range at the start";
    ASSERT_TRUE(mem_substr_utf8_codepoints(s.data(), s.size(), 4, 1, &b, &e));
    EXPECT_EQ(b, 7u);
    EXPECT_EQ(e, 7u);
    EXPECT_FALSE(mem_substr_utf8_codepoints(s.data(), s.size(), 5, 1, &b, &e));
    EXPECT_TRUE(mem_substr_utf8_codepoints("", 0, 0, 3, &b, &e)) << "start 0 never fails";
    EXPECT_EQ(e, 0u);
    // A truncated last sequence ends the range at the data's end.
    ASSERT_TRUE(mem_substr_utf8_codepoints("x\xE2\x82", 3, 1, 1, &b, &e));
    EXPECT_EQ(b, 1u);
    EXPECT_EQ(e, 3u);
}

}  // namespace
