// Str and StrSegment beyond the platform string, and BaseException.

#include "util/BasicConversions.h"
#include "util/Str.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

namespace {

// Read during this file's own static initialisation: the constants must
// already hold their values whatever the order of initialisation.
const bool kConstantsReadyEarly = CharacterClass::DIGITS.contains('5') &&
                                  !CharacterClass::DIGITS.contains('a') &&
                                  Str::LITERAL_TRUE == "true" && Str::EMPTY_STR.empty();

TEST(StrConstants, UsableFromOtherStaticInitialisers) {
    EXPECT_TRUE(kConstantsReadyEarly);
    EXPECT_EQ(Str::LITERAL_FALSE, "false");
    EXPECT_TRUE(StrSegment::EMPTY_STRSEGMENT.empty());
    EXPECT_TRUE(StrlikeTraits::default_trimchars.contains('\t'));
    EXPECT_FALSE(StrlikeTraits::default_trimchars.contains('\n'));
}

// ---------------------------------------------------------------- moving appends

// A string of `len` bytes whose capacity is exactly `capacity`.
Str heapStr(size_t len, char c, size_t capacity) {
    Str s(len, c);
    if (capacity > len) s.reserve(capacity);
    EXPECT_EQ(s.capacity(), std::max<size_t>(capacity, 15));
    return s;
}

TEST(StrAppendMove, BuildsWhereTheResultFits) {
    {  // only `other` can hold the result: the receiver goes in front of it
        Str a = heapStr(20, 'a', 20);
        Str b = heapStr(5, 'b', 100);
        const char* bBuf = b.data();
        a.append(std::move(b));
        EXPECT_EQ(a, std::string(20, 'a') + std::string(5, 'b'));
        EXPECT_EQ(a.data(), bBuf);
    }
    {  // only the receiver can: plain append
        Str a = heapStr(5, 'a', 100);
        Str b = heapStr(20, 'b', 20);
        const char* aBuf = a.data();
        a.append(std::move(b));
        EXPECT_EQ(a, std::string(5, 'a') + std::string(20, 'b'));
        EXPECT_EQ(a.data(), aBuf);
    }
    {  // both can: the shorter is copied, into the longer one
        Str a = heapStr(10, 'a', 100);
        Str b = heapStr(30, 'b', 100);
        const char* bBuf = b.data();
        a.append(std::move(b));
        EXPECT_EQ(a, std::string(10, 'a') + std::string(30, 'b'));
        EXPECT_EQ(a.data(), bBuf);
    }
    {  // both can, receiver strictly longer: append
        Str a = heapStr(30, 'a', 100);
        Str b = heapStr(10, 'b', 100);
        const char* aBuf = a.data();
        a.append(std::move(b));
        EXPECT_EQ(a.data(), aBuf);
        EXPECT_EQ(a.size(), 40u);
    }
    {  // equal lengths, neither fits: inserted into `other`
        Str a = heapStr(20, 'a', 20);
        Str b = heapStr(20, 'b', 20);
        a.append(std::move(b));
        EXPECT_EQ(a, std::string(20, 'a') + std::string(20, 'b'));
    }
}

TEST(StrAppendMove, AnEmptyReceiverEndsUpWithTheOtherBuffer) {
    {
        Str a;  // in-object capacity: a plain swap
        Str b = heapStr(40, 'b', 100);
        const char* bBuf = b.data();
        a.append(std::move(b));
        EXPECT_EQ(a.data(), bBuf);
    }
    {
        // Empty but larger than `other`: both can hold the result, and the
        // shorter (empty) one is the one copied.
        Str a = heapStr(0, 'a', 200);
        Str b = heapStr(40, 'b', 100);
        const char* bBuf = b.data();
        a.append(std::move(b));
        EXPECT_EQ(a.data(), bBuf);
        EXPECT_EQ(a, std::string(40, 'b'));
    }
    {
        Str a("xy");
        a.append(std::move(a));
        EXPECT_EQ(a, "xyxy") << "appending itself";
    }
}

TEST(StrAppendMove, PrependMirrorsAppend) {
    {
        Str a = heapStr(5, 'a', 100);  // only the receiver fits: insert in front
        Str b = heapStr(20, 'b', 20);
        const char* aBuf = a.data();
        a.prepend(std::move(b));
        EXPECT_EQ(a, std::string(20, 'b') + std::string(5, 'a'));
        EXPECT_EQ(a.data(), aBuf);
    }
    {
        Str a = heapStr(20, 'a', 20);  // only `other` fits: append to it, swap
        Str b = heapStr(5, 'b', 100);
        const char* bBuf = b.data();
        a.prepend(std::move(b));
        EXPECT_EQ(a, std::string(5, 'b') + std::string(20, 'a'));
        EXPECT_EQ(a.data(), bBuf);
    }
    Str e;
    e.prepend(Str("tail"));
    EXPECT_EQ(e, "tail");
}

TEST(StrConcat, ExactReservation) {
    Str a(std::string(100, 'a'));
    Str r = a + "bc";
    EXPECT_EQ(r.size(), 102u);
    EXPECT_EQ(r.capacity(), 102u);
    Str s = StrSegment("x", 1) + StrSegment("yz");
    EXPECT_EQ(s, "xyz");
    EXPECT_EQ("<" + Str("a") + '>', "<a>");
    const Str mixed = Str("s") + std::string("t") + Str("u");
    EXPECT_EQ(mixed, "stu");
    EXPECT_EQ(std::string("p") + Str("q"), "pq");
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

// ---------------------------------------------------------------- replacing

TEST(StrReplace, AllForms) {
    Str s("a.b.c");
    EXPECT_EQ(s.replaceAll('.', '/'), 2u);
    EXPECT_EQ(s, "a/b/c");
    EXPECT_EQ(s.replaceAll(CharacterClass::ALPHA, '_'), 3u);
    EXPECT_EQ(s, "_/_/_");

    Str t("aaaa");
    EXPECT_EQ(t.replaceAll(StrSegment("aa"), StrSegment("b")), 2u) << "non-overlapping";
    EXPECT_EQ(t, "bb");
    Str u("abc");
    const char* before = u.data();
    EXPECT_EQ(u.replaceAll(StrSegment("x"), StrSegment("yy")), 0u);
    EXPECT_EQ(u.data(), before) << "no match leaves the string alone";
    EXPECT_EQ(u.replaceAll(StrSegment(""), StrSegment("yy")), 0u);
    Str v("<a><b><c><d>");
    EXPECT_EQ(v.replaceAll(StrSegment("<"), StrSegment("&lt;")), 4u);
    EXPECT_EQ(v, "&lt;a>&lt;b>&lt;c>&lt;d>");
    EXPECT_EQ(v.capacity(), v.size()) << "exactly the final size is reserved";
    Str w("xyx");
    EXPECT_EQ(w.replaceAll(StrSegment("x"), StrSegment("")), 2u);
    EXPECT_EQ(w, "y");
}

// ---------------------------------------------------------------- trimming

TEST(StrTrim, EndsAndClasses) {
    EXPECT_EQ(Str(" \ta b\t ").trim(), "a b");
    EXPECT_EQ(Str(" a ").trim(StrlikeTraits::default_trimchars, true, false), "a ");
    EXPECT_EQ(Str(" a ").trim(StrlikeTraits::default_trimchars, false, true), " a");
    EXPECT_EQ(Str("\na\n").trim(), "\na\n") << "line ends are not trimmed by default";
    Str blank("   ");
    blank.trimInPlace();
    EXPECT_EQ(blank, "");
    Str rightOnly("   ");
    rightOnly.trimInPlace(StrlikeTraits::default_trimchars, false, true);
    EXPECT_EQ(rightOnly, "");
    Str x("--x--");
    x.trimInPlace(CharacterClass("-"), true, true);
    EXPECT_EQ(x, "x");

    StrSegment seg("  b ");
    seg.trimInPlace();
    EXPECT_EQ(seg, StrSegment("b"));
    EXPECT_TRUE(StrSegment("   ").trim().empty());
}

TEST(StrQuotes, StripOnlyMatchingPairs) {
    Str a("\"x\"");
    EXPECT_TRUE(a.stripQuotes());
    EXPECT_EQ(a, "x");
    Str b("\"");
    EXPECT_FALSE(b.stripQuotes());
    Str c("'x\"");
    EXPECT_FALSE(c.stripQuotes('\''));
    Str d("''");
    EXPECT_TRUE(d.stripQuotes('\''));
    EXPECT_EQ(d, "");
    StrSegment s("'ab'");
    EXPECT_TRUE(s.stripQuotes('\''));
    EXPECT_EQ(s, StrSegment("ab"));
}

// ---------------------------------------------------------------- escaping

TEST(StrEscape, EscapedAndWhiteSpace) {
    EXPECT_EQ(Str("a\"b\\c").asEscaped(CharacterClass::SEARCH_ESC), "a\\\"b\\\\c");
    EXPECT_EQ(Str("a,b").asEscaped(CharacterClass(","), '%'), "a%,b");
    EXPECT_EQ(Str("a\nb\rc\td").escapeWhiteSpace(), "a\\nb\\rc\\td");
}

TEST(StrEscape, SafeForLogging) {
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
}

TEST(StrEscape, DroppingControlCharacters) {
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
    EXPECT_EQ(uri.size(), 30u + 90u);
    EXPECT_EQ(uri.substr(30, 6), "%20%20");

    Str ctl(std::string(50, 'x') + "\t");
    ctl.appendDroppingControlCharacters(ctl.data(), ctl.size());
    EXPECT_EQ(ctl, std::string(50, 'x') + "\t" + std::string(50, 'x'));
}

TEST(StrEscape, Csv) {
    Str s;
    s.appendAsCSV("plain", 5);
    s.push_back('|');
    s.appendAsCSV("a,b", 3);
    s.push_back('|');
    s.appendAsCSV("say \"hi\"", 8);
    s.push_back('|');
    s.appendAsCSV("", 0);
    s.push_back('|');
    s.appendAsCSV("line\r\n", 6);
    EXPECT_EQ(s, "plain|\"a,b\"|\"say \"\"hi\"\"\"||\"line\r\n\"");
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

TEST(StrBinaryDeathTest, Base128SlowPathWantsLargeValues) {
    Str s;
    EXPECT_DEATH(s._appendBase128(127), "Assertion `v >= 128' failed");
    EXPECT_DEATH(s._appendUtf8Multibyte('a'), "Assertion `codepoint >= 0x80' failed");
}

TEST(StrUri, EveryByteEscapesByTheTable) {
    for (int b = 0; b < 256; ++b) {
        const char c = static_cast<char>(b);
        Str s;
        s.appendUriEscaped(&c, 1);
        const bool unreserved = isalnum(b) || c == '-' || c == '_' || c == '.' || c == '~';
        if (unreserved) {
            ASSERT_EQ(s, std::string(1, c));
        } else {
            char expect[4];
            snprintf(expect, sizeof expect, "%%%02X", b);
            ASSERT_EQ(s, expect);
        }
    }
    EXPECT_EQ(Str("a b+c").asUriEncoded(), "a%20b%2Bc") << "a blank is %20, never +";
    Str clean("a-b_c.d~e");
    const char* buf = clean.data();
    clean.uriEncode();
    EXPECT_EQ(clean.data(), buf);
    Str dirty("é/");
    dirty.uriEncode();
    EXPECT_EQ(dirty, "%C3%A9%2F");
}

TEST(StrUri, DecodeKeepsBadEscapesAndRefusesBadUtf8) {
    Str a("a%zz+b");
    EXPECT_TRUE(a.uriDecode());
    EXPECT_EQ(a, "a%zz b");
    Str b("%FF");
    EXPECT_FALSE(b.uriDecode());
    EXPECT_EQ(b, "%FF") << "left as it was";
    Str c("%c3%A9%");
    EXPECT_TRUE(c.uriDecode());
    EXPECT_EQ(c, "é%");
    Str d("%4");
    EXPECT_TRUE(d.uriDecode()) << "the look-ahead stops at the terminator";
    EXPECT_EQ(d, "%4");
    Str e("plain\xff");
    EXPECT_FALSE(e.uriDecode()) << "nothing to decode: just the UTF-8 check";

    // Round trip on random bytes that form valid UTF-8.
    std::mt19937 rng(9);
    for (int i = 0; i < 500; ++i) {
        Str s;
        for (int k = rng() % 10; k > 0; --k) s.appendUtf8Codepoint(rng() % 0x800);
        Str enc = s.asUriEncoded();
        ASSERT_TRUE(enc.uriDecode());
        ASSERT_EQ(enc, s);
    }
}

TEST(StrSearchTerm, QuotingRules) {
    EXPECT_EQ(Str("").asEscapedSearchTerm(), "\"\"");
    EXPECT_EQ(Str("abc_1").asEscapedSearchTerm(), "abc_1");
    EXPECT_EQ(Str("abc").asEscapedSearchTerm(true), "\"abc\"");
    EXPECT_EQ(Str("AND").asEscapedSearchTerm(), "\"AND\"");
    EXPECT_EQ(Str("and").asEscapedSearchTerm(), "and");
    EXPECT_EQ(Str("a b").asEscapedSearchTerm(), "\"a b\"");
    EXPECT_EQ(Str("a\"b\\c").asEscapedSearchTerm(), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(Str("a\\c").asEscapedSearchTerm(false, true), "\"a\\c\"");
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

TEST(StrSegmentUtf8, AwareTruncate) {
    StrSegment e("\xC3\xA9");
    EXPECT_EQ(e.utf8_aware_truncate(1), 0u);
    StrSegment f(
        "ab\xE2\x82\xAC"
        "c");
    EXPECT_EQ(StrSegment(f).utf8_aware_truncate(4), 2u);
    EXPECT_EQ(StrSegment(f).utf8_aware_truncate(5), 5u);
    EXPECT_EQ(StrSegment(f).utf8_aware_truncate(99), 6u);
    StrSegment conts("\x80\x80\x80");
    EXPECT_EQ(conts.utf8_aware_truncate(2), 0u) << "continuation bytes all the way down";
}

TEST(StrSegmentUtf8, CharacterCountTruncate) {
    const std::string ascii(40, 'a');
    StrSegment a(ascii);
    EXPECT_EQ(a.utf8_character_count_truncate(33), 33u);
    StrSegment mixed("\xC3\xA9\xC3\xA9\xC3\xA9");
    EXPECT_EQ(mixed.utf8_character_count_truncate(2), 4u);
    StrSegment overrun("ab\xE2\x82");
    EXPECT_EQ(overrun.utf8_character_count_truncate(3), 2u) << "cut off whole";
    StrSegment shortText("abc");
    EXPECT_EQ(shortText.utf8_character_count_truncate(3), 3u);
    const std::string longer = std::string(20, 'x') + "\xF0\x9F\x98\x80" + "yz";
    StrSegment l(longer);
    EXPECT_EQ(l.utf8_character_count_truncate(21), 24u);
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

TEST(StrSegment, SubstrNeverRaises) {
    StrSegment s("hello");
    EXPECT_EQ(s.substr(1, 3), StrSegment("ell"));
    EXPECT_TRUE(s.substr(9).empty());
    EXPECT_EQ(s.substr(2), StrSegment("llo"));
    EXPECT_EQ(s.substr(5).data(), s.data() + 5) << "an empty view at the end";
}

TEST(StrSegmentDeathTest, AdvancePastTheEndIsAFault) {
    StrSegment s("abc");
    EXPECT_DEATH(s.advanceTo(s.data() + 4), "_len >= \\(size_type\\) \\(p - _data\\)");
}

TEST(StrParse, IntoStr) {
    Str s("old");
    EXPECT_FALSE(mem_parse_into(nullptr, 0, &s));
    EXPECT_EQ(s, "old");
    EXPECT_TRUE(mem_parse_into("new", 3, &s));
    EXPECT_EQ(s, "new");
}

// ---------------------------------------------------------------- exceptions

class TestException : public BaseException {
public:
    using BaseException::BaseException;
};

TEST(BaseException, MessagesAndTheirAbsence) {
    BaseException empty;
    EXPECT_STREQ(empty.what(), "BaseException");
    EXPECT_TRUE(empty.what_as_str().empty());

    TestException e("disk full");
    EXPECT_STREQ(e.what(), "disk full");
    Str out("error: ");
    append_stringified(&out, e);
    EXPECT_EQ(out, "error: disk full");

    TestException copy(e);
    EXPECT_EQ(copy.what_as_str(), "disk full");
    try {
        throw TestException("thrown");
    } catch (const BaseException& caught) {
        EXPECT_STREQ(caught.what(), "thrown");
    }
    EXPECT_STREQ(BaseException(nullptr).what(), "BaseException");
}

TEST(BaseException, AFailureToStoreTheMessageLeavesItEmpty) {
    TestException e("before");
    // Longer than any string can be: assigning raises inside, and is swallowed.
    static const char dummy[1] = {0};
    volatile size_t huge = ~size_t{0} / 2;
    e._set_str(dummy, huge);
    EXPECT_STREQ(e.what(), "BaseException");
}

}  // namespace
