// The scanning and UTF-8 members of the mem_ family.

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/Oracles.h"
#include "util/Str.h"

namespace {

constexpr size_t npos = MEM_NPOS;

// std::string's searches, but for an empty pattern at or past the end,
// which finds nothing forward.
TEST(MemFind, StringSearchesAgreeWithStd) {
    std::mt19937 rng(11);
    for (int i = 0; i < 5000; ++i) {
        std::string hay(rng() % 40, 'a'), needle(rng() % 4, 'a');
        for (char& c : hay) c = "ab\0"[rng() % 3];
        for (char& c : needle) c = "ab\0"[rng() % 3];
        const size_t off = rng() % 45, roff = rng() % 2 ? npos : rng() % 45;
        SCOPED_TRACE(testing::PrintToString(hay) + " / " + testing::PrintToString(needle) + " @" +
                     std::to_string(off) + ", back from " + std::to_string(roff));
        size_t expect = hay.find(needle, off);
        if (needle.empty() && off >= hay.size()) expect = npos;
        ASSERT_EQ(mem_find(hay.data(), hay.size(), needle.data(), needle.size(), off), expect);
        ASSERT_EQ(mem_rfind(hay.data(), hay.size(), needle.data(), needle.size(), roff),
                  hay.rfind(needle, roff));
    }
}

TEST(MemFind, BytesClassesAndSets) {
    const std::string s = "key = value;";
    const char* d = s.data();
    const size_t n = s.size();
    const std::pair<size_t, size_t> cases[] = {
        {mem_rfind("", 0, 'a'), npos},
        {mem_rfind("abca", 4, 'a'), 3},
        {mem_rfind("abca", 4, 'a', 2), 0},
        {mem_find(d, n, CharacterClass::ALPHA, 0, false), 3},
        {mem_find(d, n, CharacterClass::ALPHA, 3, true), 6},
        {mem_rfind(d, n, CharacterClass::ALPHA, npos, true), 10},
        {mem_rfind(d, n, CharacterClass::ALPHA, 5, false), 5},
        {mem_find_first_of(d, n, "=;", 2, 2), 4},
        {mem_find_first_of(d, n, "=;", 2, 5), 11},
        {mem_find_first_of(d, n, "v", 1, 0), 6},
        {mem_find_first_not_of(d, n, "key ", 4, 0), 4},
        {mem_find_first_not_of("aab", 3, 'a'), 2},
        {mem_find_last_of(d, n, "ey", 2, 4), 2},
        {mem_find_last_of(d, n, "ey", 2, npos), 10},
        {mem_find_last_not_of(d, n, ";eu", 3, npos), 8},
        {mem_find_last_not_of("abb", 3, 'b'), 0},
        {mem_find_last_not_of("bbb", 3, 'b'), npos},
        {mem_count_char("a,b,c", 5, CharacterClass::COMMA_OR_SPACE, 2), 1},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << i;

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

TEST(MemCompare, PrefixesQuotesAndEnds) {
    const bool cases[][2] = {
        {mem_compare_normal("ab", 2, "ab", 2) == 0, true},
        {mem_compare_normal("ab", 2, "abc", 3) < 0, true},
        {mem_compare_normal("abc", 3, "ab", 2) > 0, true},
        {mem_compare_normal("\xff", 1, "a", 1) > 0, true},  // bytes compare unsigned
        {mem_compare_normal(nullptr, 0, "", 0) == 0, true},
        {mem_equals_cstring("-l", 2, "-l"), true},
        {mem_equals_cstring("-l", 1, "-l"), false},
        {mem_equalsIgnoreQuotes("\"'x'\"", 5, "x"), true},
        {mem_equalsIgnoreQuotes("'x'", 3, "x"), true},
        {mem_equalsIgnoreQuotes("'\"x\"'", 5, "x"), false},  // double quotes go first
        {mem_equalsIgnoreQuotes("\"x", 2, "x"), false},
        {mem_startswith("abc", 3, "ab"), true},
        {mem_startswith("abc", 3, ""), true},
        {mem_startswith("a", 1, "ab"), false},
        {mem_endswith("abc", 3, "bc"), true},
        {mem_endswith("c", 1, "bc"), false},
        {mem_startswith("1a", 2, CharacterClass::DIGITS), true},
        {mem_startswith("", 0, CharacterClass::DIGITS), false},  // false on empty data
        {mem_endswith("", 0, CharacterClass("", false)), false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i][0], cases[i][1]) << i;
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
    // Offsets at or past the end, also the largest one, find nothing.
    const std::string lines(40, '\n');
    for (size_t off : {lines.size(), npos, npos - 8}) {
        EXPECT_EQ(mem_find_first_cr_or_lf(lines.data(), lines.size(), off), npos) << off;
    }
    EXPECT_TRUE(mem_contains_whitespace("a\fb", 3));
    EXPECT_FALSE(mem_contains_whitespace("a\xa0z", 3));
}

TEST(MemCopies, PiecesAndDuplicatesNeverOverrun) {
    EXPECT_EQ(mem_bytes_for_substring(5, 5, 1), 0u);
    EXPECT_EQ(mem_bytes_for_substring(5, 9, npos), 0u);
    EXPECT_EQ(mem_bytes_for_substring(5, 1, npos), 4u);
    EXPECT_EQ(mem_bytes_for_substring(5, 1, 2), 2u);
    EXPECT_EQ(mem_bytes_for_substring(5, 3, npos - 1), 2u) << "no overflow near the top";

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
    char* c = mem_copystr("xy", 2);
    EXPECT_STREQ(c, "xy");
    delete[] c;
}

// ---------------------------------------------------------------- UTF-8

std::vector<std::string> utf8Corpus() {
    std::vector<std::string> corpus;
    // Every lead byte with every second byte, plus each as a truncated tail.
    for (int b0 = 0x80; b0 < 0x100; ++b0) {
        for (int b1 = 0; b1 < 0x100; b1 += 0x10) {
            for (int extra : {0, 1, 2}) {
                std::string s = {static_cast<char>(b0), static_cast<char>(b1 | 0x0F),
                                 static_cast<char>(b1)};
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

// Validity as Python's strict decoder has it; the count by the lead-byte
// rule, whatever the bytes.
TEST(MemUtf8, ValidityAgreesWithPythonAndCountFollowsTheLeadBytes) {
    const std::vector<std::string> corpus = utf8Corpus();
    const std::vector<std::string> verdicts = oracle::python("utf-8", "strict", corpus);
    size_t valid = 0;
    for (size_t i = 0; i < corpus.size(); ++i) {
        const std::string& s = corpus[i];
        ASSERT_EQ(mem_is_valid_utf8(s.data(), s.size()), verdicts[i] != "-")
            << testing::PrintToString(s);
        valid += verdicts[i] != "-";
        size_t count = 0;
        for (size_t at = 0; at < s.size(); ++count) {
            const unsigned char b = s[at];
            at += b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF5 ? 4 : 1;
        }
        ASSERT_EQ(mem_count_utf8_codepoints(s.data(), s.size()), count)
            << testing::PrintToString(s);
    }
    EXPECT_GT(valid, corpus.size() / 10) << "the corpus must hold both kinds";
    EXPECT_LT(valid, corpus.size() * 9 / 10);
    EXPECT_EQ(mem_count_utf8_codepoints("", 0), 0u);
    EXPECT_EQ(mem_count_utf8_codepoints("\xE0", 1), 1u) << "an overrunning sequence counts once";
    EXPECT_EQ(mem_count_utf8_codepoints("\x80\x80x", 3), 2u) << "continuation bytes lead pairs";
    EXPECT_EQ(mem_count_utf8_codepoints("\xF5\xFFx", 3), 3u);
}

TEST(MemUtf8, SubstringByCodePoints) {
    const char* s = "a\xC3\xA9\x62\xE2\x82\xAC";  // a é b €: 4 code points, 7 bytes
    // Text, length, start, count; whether it succeeds, and the range found.
    const std::tuple<const char*, size_t, size_t, size_t, bool, size_t, size_t> cases[] = {
        {s, 7, 1, 2, true, 1, 4},
        {s, 7, 3, 100, true, 4, 7},
        {s, 7, 2, 0, true, 3, 3},  // count 0: empty range at the start
        {s, 7, 4, 1, true, 7, 7},
        {s, 7, 5, 1, false, 99, 99},
        {"", 0, 0, 3, true, 0, 0},  // start 0 never fails
        // A truncated last sequence ends the range at the data's end.
        {"x\xE2\x82", 3, 1, 1, true, 1, 3},
    };
    for (const auto& [text, len, start, count, ok, begin, end] : cases) {
        size_t b = 99, e = 99;
        EXPECT_EQ(mem_substr_utf8_codepoints(text, len, start, count, &b, &e), ok)
            << start << "+" << count;
        EXPECT_EQ(std::make_pair(b, e),
                  ok ? std::make_pair(begin, end) : std::make_pair(99ul, 99ul))
            << start << "+" << count;
    }
}

}  // namespace
