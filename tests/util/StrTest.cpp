// Str and StrSegment beyond the platform string, and BaseException.

#include "util/BasicConversions.h"
#include "util/Str.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>

#include "support/TestSupport.h"

namespace {

// Read during this file's own static initialisation: the constants must
// already hold their values whatever the order of initialisation.
const bool kConstantsReadyEarly = CharacterClass::DIGITS.contains('5') &&
                                  !CharacterClass::DIGITS.contains('a') &&
                                  Str::LITERAL_TRUE == "true" && Str::EMPTY_STR.empty();

TEST(StrConstants, UsableFromOtherStaticInitialisers) { EXPECT_TRUE(kConstantsReadyEarly); }

// ---------------------------------------------------------------- moving appends

// A string of `len` bytes whose capacity is exactly `capacity`.
Str heapStr(size_t len, char c, size_t capacity) {
    Str s(len, c);
    if (capacity > len) s.reserve(capacity);
    EXPECT_EQ(s.capacity(), std::max<size_t>(capacity, 15));
    return s;
}

// A moved string is joined in whichever buffer can hold the result; where
// both can, the shorter text is the one copied.
TEST(StrAppendMove, BuildsWhereTheResultFits) {
    // Lengths and capacities of both, prepending or not, and whose buffer
    // the result is in ('?' for a new one).
    const std::tuple<size_t, size_t, size_t, size_t, bool, char> cases[] = {
        {20, 20, 5, 100, false, 'b'},    // only `other` fits: the receiver goes in front
        {5, 100, 20, 20, false, 'a'},    // only the receiver fits: plain append
        {10, 100, 30, 100, false, 'b'},  // both fit
        {30, 100, 10, 100, false, 'a'}, {20, 20, 20, 20, false, '?'},  // neither
        {0, 0, 40, 100, false, 'b'},    // an empty in-object receiver: a plain swap
        {0, 200, 40, 100, false, 'b'},  // empty and larger: still the shorter is copied
        {5, 100, 20, 20, true, 'a'},    // prepending mirrors appending
        {20, 20, 5, 100, true, 'b'},
    };
    for (const auto& [aLen, aCap, bLen, bCap, prepend, kept] : cases) {
        SCOPED_TRACE(testing::Message() << aLen << "/" << aCap << " " << bLen << "/" << bCap
                                        << (prepend ? " prepend" : " append"));
        Str a = heapStr(aLen, 'a', aCap), b = heapStr(bLen, 'b', bCap);
        const char* bufA = a.data();
        const char* bufB = b.data();
        prepend ? a.prepend(std::move(b)) : a.append(std::move(b));
        const std::string as(aLen, 'a'), bs(bLen, 'b');
        EXPECT_EQ(a, prepend ? bs + as : as + bs);
        if (kept != '?') {
            EXPECT_EQ(a.data(), kept == 'a' ? bufA : bufB);
        }
    }
    Str a("xy");
    a.append(std::move(a));
    EXPECT_EQ(a, "xyxy") << "appending itself";
    Str e;
    e.prepend(Str("tail"));
    EXPECT_EQ(e, "tail");
}

TEST(StrConcat, ExactReservation) {
    Str r = Str(std::string(100, 'a')) + "bc";
    EXPECT_EQ(r.size(), 102u);
    EXPECT_EQ(r.capacity(), 102u);
    // The other overloads forward to this one in a line each.
    EXPECT_EQ(StrSegment("x", 1) + StrSegment("yz"), "xyz");
}

TEST(StrErrors, TheStandardMessages) {
    Str s("abc");
    try {
        (void)s.substr(4);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(),
                     "basic_string::substr: __pos (which is 4) > this->size() (which is 3)");
    }
    EXPECT_EQ(s.max_size(), (size_t{1} << 62) - 1) << "the limit the header states";
    // One byte past the limit, through every road that grows by an outside
    // length: the same error, raised before the input is read.
    volatile size_t over = size_t{1} << 62;  // opaque, so the compiler does not object
    const char* nowhere = reinterpret_cast<const char*>(16);
    const std::pair<const char*, std::function<void(Str&)>> roads[] = {
        {"append", [&](Str& t) { t.append(nowhere, over); }},
        {"segment", [&](Str& t) { t.append(StrSegment(nowhere, over)); }},
        {"fill", [&](Str& t) { t.append(over, 'x'); }},
        {"just over", [&](Str& t) { t.append(nowhere, Str::MAX_LENGTH - 2); }},
        {"concat", [&](Str& t) { t = StrSegment(t) + StrSegment(nowhere, over - 3); }},
        {"csv", [&](Str& t) { t.appendAsCSV(nowhere, over); }},
        {"uri", [&](Str& t) { t.appendUriEscaped(nowhere, over); }},
        {"base64", [&](Str& t) { Base64::encode(t, nowhere, over / 4 * 3); }},
    };
    for (const auto& [name, grow] : roads) {
        Str t("abc");
        try {
            grow(t);
            ADD_FAILURE() << name << ": no exception";
        } catch (const std::length_error& e) {
            EXPECT_STREQ(e.what(), "basic_string::append") << name;
        }
        EXPECT_EQ(t, "abc") << name;
    }
}

// ---------------------------------------------------------------- replacing, trimming, quotes

TEST(StrReplace, AllForms) {
    Str s("a.b.c");
    EXPECT_EQ(s.replaceAll('.', '/'), 2u);
    EXPECT_EQ(s, "a/b/c");
    EXPECT_EQ(s.replaceAll(CharacterClass::ALPHA, '_'), 3u);
    EXPECT_EQ(s, "_/_/_");

    const std::tuple<const char*, const char*, const char*, size_t, const char*> cases[] = {
        {"aaaa", "aa", "b", 2, "bb"},  // non-overlapping
        {"abc", "x", "yy", 0, "abc"},
        {"abc", "", "yy", 0, "abc"},
        {"<a><b><c><d>", "<", "&lt;", 4, "&lt;a>&lt;b>&lt;c>&lt;d>"},
        {"xyx", "x", "", 2, "y"},
    };
    for (const auto& [in, from, to, count, want] : cases) {
        Str t(in);
        const char* before = t.data();
        EXPECT_EQ(t.replaceAll(StrSegment(from), StrSegment(to)), count) << in;
        EXPECT_EQ(t, want) << in;
        if (count == 0) {
            EXPECT_EQ(t.data(), before) << "no match leaves the string alone";
        } else if (strlen(to) > strlen(from)) {
            EXPECT_EQ(t.capacity(), t.size()) << "exactly the final size is reserved";
        }
    }
}

TEST(StrTrim, EndsAndClasses) {
    const CharacterClass& blanks = StrlikeTraits::default_trimchars;
    const std::tuple<const char*, bool, bool, const char*> cases[] = {
        {" \ta b\t ", true, true, "a b"}, {" a ", true, false, "a "}, {" a ", false, true, " a"},
        {"\na\n", true, true, "\na\n"},  // line ends are not trimmed by default
        {"   ", true, true, ""},          {"   ", false, true, ""},
    };
    for (const auto& [in, left, right, want] : cases) {
        EXPECT_EQ(Str(in).trim(blanks, left, right), want) << in;
        Str s(in);
        EXPECT_EQ(s.trimInPlace(blanks, left, right), want) << in;
        StrSegment seg(in);
        EXPECT_EQ(seg.trimInPlace(blanks, left, right), StrSegment(want)) << in;
        EXPECT_EQ(StrSegment(in).trim(blanks, left, right), StrSegment(want)) << in;
    }
    EXPECT_EQ(Str("--x--").trimInPlace(CharacterClass("-"), true, true), "x");
}

TEST(StrQuotes, StripOnlyMatchingPairs) {
    const std::tuple<const char*, char, bool, const char*> cases[] = {
        {"\"x\"", '"', true, "x"}, {"''", '\'', true, ""},        {"'ab'", '\'', true, "ab"},
        {"\"", '"', false, "\""},  {"'x\"", '\'', false, "'x\""},
    };
    for (const auto& [in, quote, stripped, want] : cases) {
        Str s(in);
        StrSegment seg(in);
        EXPECT_EQ(s.stripQuotes(quote), stripped) << in;
        EXPECT_EQ(seg.stripQuotes(quote), stripped) << in;
        EXPECT_EQ(s, want);
        EXPECT_EQ(seg, StrSegment(want));
    }
}

// ---------------------------------------------------------------- escaping

TEST(StrEscape, EscapedWhiteSpaceAndCsv) {
    EXPECT_EQ(Str("a\"b\\c").asEscaped(CharacterClass::SEARCH_ESC), "a\\\"b\\\\c");
    EXPECT_EQ(Str("a,b").asEscaped(CharacterClass(","), '%'), "a%,b");
    EXPECT_EQ(Str("a\nb\rc\td").escapeWhiteSpace(), "a\\nb\\rc\\td");
    Str csv;
    for (const char* field : {"plain", "a,b", "say \"hi\"", "", "line\r\n"})
        csv.appendAsCSV(field, strlen(field)).push_back('|');
    EXPECT_EQ(csv, "plain|\"a,b\"|\"say \"\"hi\"\"\"||\"line\r\n\"|");
}

TEST(StrEscape, SafeForLoggingAndDroppingControls) {
    Str clean("a plain line ~");
    const char* buf = clean.data();
    clean.makeSafeForLogging();
    EXPECT_EQ(clean.data(), buf) << "clean text is left untouched";
    EXPECT_EQ(clean, "a plain line ~");
    Str tab("a\tb");
    tab.makeSafeForLogging();
    EXPECT_EQ(tab, "a b");
    Str ctl(std::string("x\x7f\n\r\x01\xc3\xa9\0", 8));
    ctl.makeSafeForLogging();
    EXPECT_EQ(ctl, "x\\x7F\\n\\r\\x01\\xC3\\xA9\\x00") << "UTF-8 goes byte by byte";

    Str s("<");
    const std::string in("a\tb\nc\x1f\x7f\xc3\xa9");
    s.appendDroppingControlCharacters(in.data(), in.size());
    EXPECT_EQ(s, "<abc\x7f\xc3\xa9");
}

TEST(StrEscape, AppendingFromItselfCopiesFirst) {
    // Each of these grows the string while reading the source: a source
    // inside the string would be read after it moved.
    Str csv(std::string(40, 'q') + ",\"");
    const Str csvBefore = csv;
    csv.appendAsCSV(csv.data(), csv.size());
    EXPECT_EQ(csv, csvBefore + "\"" + std::string(40, 'q') + ",\"\"\"");

    Str uri(std::string(30, ' '));
    uri.appendUriEscaped(uri.data(), uri.size());
    EXPECT_EQ(uri, std::string(30, ' ') + Str(std::string(30, ' ')).asUriEncoded());

    Str ctl(std::string(50, 'x') + "\t");
    ctl.appendDroppingControlCharacters(ctl.data(), ctl.size());
    EXPECT_EQ(ctl, std::string(50, 'x') + "\t" + std::string(50, 'x'));
}

TEST(StrBinary, SwappedEndianAndBase128) {
    Str s;
    s.append4bytesSwappedEndian(0x01020304);
    s.append8bytesSwappedEndian(0x0A0B0C0D0E0F1011ull);
    EXPECT_EQ(s, std::string("\x01\x02\x03\x04\x0A\x0B\x0C\x0D\x0E\x0F\x10\x11", 12));

    // Decoding what was encoded, at every bit length.
    for (int bits = 0; bits <= 64; ++bits) {
        const uint64_t v = bits == 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - (bits > 0);
        Str enc;
        enc.appendBase128(v);
        uint64_t dec = 0;
        size_t i = 0;
        for (int shift = 0; i < enc.size(); shift += 7, ++i) {
            dec |= uint64_t(enc[i] & 0x7F) << shift;
            if (!(enc[i] & 0x80)) break;
        }
        ASSERT_EQ(i + 1, enc.size()) << "only the last byte lacks the top bit";
        ASSERT_EQ(dec, v);
    }
    Str three;
    three.appendBase128(300);
    EXPECT_EQ(three, "\xAC\x02");
}

TEST(StrBinaryDeathTest, SlowPathsWantWhatTheFastOnesLeave) {
    Str s;
    EXPECT_DEATH(s._appendBase128(127), "Assertion `v >= 128' failed");
    EXPECT_DEATH(s._appendUtf8Multibyte('a'), "Assertion `codepoint >= 0x80' failed");
}

// Percent-escapes all but the unreserved bytes, as python3's quote does.
TEST(StrUri, EveryByteAsPythonQuotes) {
    const auto py = testsupport::runProcess(
        {"/usr/bin/python3", "-c",
         "import urllib.parse\nprint(urllib.parse.quote(bytes(range(256)), safe='-_.~'), end='')"});
    ASSERT_EQ(py.exitStatus, 0) << py.err;
    std::string all;
    for (int b = 0; b < 256; ++b) all += char(b);
    EXPECT_EQ(Str().appendUriEscaped(all.data(), all.size()), py.out);
    EXPECT_EQ(Str("a b+c").asUriEncoded(), "a%20b%2Bc") << "a blank is %20, never +";
    Str clean("a-b_c.d~e");
    const char* buf = clean.data();
    clean.uriEncode();
    EXPECT_EQ(clean.data(), buf);
}

TEST(StrUri, DecodeKeepsBadEscapesAndRefusesBadUtf8) {
    // A refused text is left as it was.
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"a%zz+b", true, "a%zz b"},
        {"%FF", false, "%FF"},
        {"%c3%A9%", true, "é%"},
        {"%4", true, "%4"},                 // the look-ahead stops at the terminator
        {"plain\xff", false, "plain\xff"},  // nothing to decode: just the UTF-8 check
    };
    for (const auto& [in, ok, want] : cases) {
        Str s(in);
        EXPECT_EQ(s.uriDecode(), ok) << in;
        EXPECT_EQ(s, want);
    }
}

TEST(StrSearchTerm, QuotingRules) {
    const std::tuple<const char*, bool, bool, const char*> cases[] = {
        {"", false, false, "\"\""},
        {"abc_1", false, false, "abc_1"},
        {"abc", true, false, "\"abc\""},
        {"AND", false, false, "\"AND\""},
        {"and", false, false, "and"},
        {"a b", false, false, "\"a b\""},
        {"a\"b\\c", false, false, "\"a\\\"b\\\\c\""},
        {"a\\c", false, true, "\"a\\c\""},
    };
    for (const auto& [in, alwaysQuote, keepBackslashes, want] : cases)
        EXPECT_EQ(Str(in).asEscapedSearchTerm(alwaysQuote, keepBackslashes), want) << in;
    EXPECT_EQ(Str("a.b").asEscapedSearchTerm(CharacterClass::ALPHA_NUM_UNDER_DOT), "a.b");

    Str u("\"a\\\"b\\\\c\\d\"");
    u.unescapeSearchTerm();
    EXPECT_EQ(u, "a\"b\\c\\d") << "other backslashes stay";
    Str notQuoted("a\\\\b");
    notQuoted.unescapeSearchTerm();
    EXPECT_EQ(notQuoted, "a\\\\b");

    std::mt19937 rng(4);
    for (int i = 0; i < 2000; ++i) {
        Str s;
        for (int k = 1 + rng() % 8; k > 0; --k) s.push_back("ab \"\\x"[rng() % 6]);
        Str round = s.asEscapedSearchTerm();
        round.unescapeSearchTerm();
        ASSERT_EQ(round, s) << s;
    }
}

// ---------------------------------------------------------------- StrSegment

TEST(StrSegmentUtf8, Truncation) {
    const std::string euro = "ab\xE2\x82\xAC" + std::string("c");
    // By characters or by bytes: text, limit, bytes kept.
    const std::tuple<bool, std::string, size_t, size_t> cases[] = {
        {false, "\xC3\xA9", 1, 0},
        {false, euro, 4, 2},
        {false, euro, 5, 5},
        {false, euro, 99, 6},
        {false, "\x80\x80\x80", 2, 0},  // continuation bytes all the way down
        {true, euro, 4, 6},
        {true, std::string(40, 'a'), 33, 33},
        {true, "\xC3\xA9\xC3\xA9\xC3\xA9", 2, 4},
        {true, "ab\xE2\x82", 3, 2},  // a sequence that overruns is cut off whole
        {true, "abc", 3, 3},
        {true, std::string(20, 'x') + "\xF0\x9F\x98\x80" + "yz", 21, 24},
    };
    for (const auto& [chars, text, limit, kept] : cases) {
        StrSegment s(text);
        EXPECT_EQ(chars ? s.utf8_character_count_truncate(limit) : s.utf8_aware_truncate(limit),
                  kept)
            << testing::PrintToString(text);
    }
}

TEST(StrSegmentLines, AccumulateAcrossReads) {
    Str line;
    StrSegment first("ab\r");
    EXPECT_FALSE(first.accumulateLine(&line));
    EXPECT_TRUE(first.empty());
    StrSegment second("\ncd\r\nef");
    EXPECT_TRUE(second.accumulateLine(&line));
    EXPECT_EQ(line, "ab") << "a CR LF split over two reads is one line end";
    line.clear();
    EXPECT_TRUE(second.accumulateLine(&line));
    EXPECT_EQ(line, "cd");
    line.clear();
    EXPECT_FALSE(second.accumulateLine(&line));
    EXPECT_EQ(line, "ef");

    Str kept("x\r");
    StrSegment lf("\n");
    EXPECT_TRUE(lf.accumulateLine(&kept));
    EXPECT_EQ(kept, "x");
}

TEST(StrSegment, SubstrNeverRaisesAndParseIntoStr) {
    StrSegment s("hello");
    EXPECT_EQ(s.substr(1, 3), StrSegment("ell"));
    EXPECT_TRUE(s.substr(9).empty());
    EXPECT_EQ(s.substr(2), StrSegment("llo"));
    EXPECT_EQ(s.substr(5).data(), s.data() + 5) << "an empty view at the end";
    Str p("old");
    EXPECT_FALSE(mem_parse_into(nullptr, 0, &p));
    EXPECT_EQ(p, "old");
    EXPECT_TRUE(mem_parse_into("new", 3, &p));
    EXPECT_EQ(p, "new");
}

TEST(StrSegmentDeathTest, AdvancePastTheEndIsAFault) {
    StrSegment s("abc");
    EXPECT_DEATH(s.advanceTo(s.data() + 4), "_len >= \\(size_type\\) \\(p - _data\\)");
}

// ---------------------------------------------------------------- exceptions

class TestException : public BaseException {
public:
    using BaseException::BaseException;
};

TEST(BaseException, MessagesAndTheirAbsence) {
    EXPECT_STREQ(BaseException().what(), "BaseException");
    EXPECT_TRUE(BaseException().what_as_str().empty());
    EXPECT_STREQ(BaseException(nullptr).what(), "BaseException");
    try {
        throw TestException("disk full");
    } catch (const BaseException& caught) {
        EXPECT_STREQ(caught.what(), "disk full");
        Str out("error: ");
        append_stringified(&out, caught);
        EXPECT_EQ(out, "error: disk full");
        EXPECT_EQ(BaseException(caught).what_as_str(), "disk full");
    }
    // Longer than any string can be: storing it raises inside, and is swallowed.
    TestException e("before");
    static const char dummy[1] = {0};
    volatile size_t huge = ~size_t{0} / 2;
    e._set_str(dummy, huge);
    EXPECT_STREQ(e.what(), "BaseException");
}

}  // namespace
