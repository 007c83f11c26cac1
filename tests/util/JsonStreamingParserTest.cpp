#include "util/JsonStreamingParser.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "support/JsonEvents.h"
#include "support/TestSupport.h"
#include "util/AppendStr.h"

namespace {

using jsontest::byteByByte;
using jsontest::Options;
using jsontest::splitAt;
using jsontest::whole;

// Every way of cutting the text gives the same outcome; returns it.
std::string sameWhateverTheChunks(const std::string& text, const Options& o = Options(),
                                  size_t maxSplits = 2000) {
    const std::string expected = whole(text, o);
    EXPECT_EQ(byteByByte(text, o), expected) << "byte by byte: " << text.substr(0, 80);
    const size_t stride = std::max<size_t>(1, text.size() / maxSplits);
    for (size_t at = 0; at <= text.size(); at += stride) {
        const std::string got = splitAt(text, at, o);
        if (got != expected) {
            ADD_FAILURE() << "split at " << at << ": " << text.substr(0, 80) << "\n  " << got
                          << "\n  " << expected;
            break;
        }
    }
    return expected;
}

TEST(JsonStreamingParser, EventsAndErrorsWhereverTheChunksEnd) {
    struct Case {
        std::string text;
        std::string expected;
    };
    const std::vector<Case> cases = {
        // Values and the default extensions.
        {"[1,2,]", "< [ #1 #2 ] > | OK"},
        {"{\"a\":1,}", "< { ka #1 } > | OK"},
        {" [true,false,null] ", "< [ t f n ] > | OK"},
        {"{}{}", "< { } > < { } > | OK"},
        {"[] 1", "< [ ] > #1 | OK"},
        {"1", "#1 | OK"},
        {"-0.5e+10", "#-0.5e+10 | OK"},
        {"0E-0", "#0E-0 | OK"},
        {"\"\" \t\r\n", "s | OK"},
        {"", " | OK"},
        {"// line\n[1/*a**/,/**/2]// end\n", "< [ #1 #2 ] > | OK"},
        {"[]// a comment is open until its line ends", "< [ ] > | ERR 42 Unexpected EOF"},
        {"{\"k\"/*c*/:/*d*/1}", "< { kk #1 } > | OK"},
        // Strings and escapes.
        {"\"\\b\\f\\n\\r\\t\\/\\\\\\\"\"", "s\\x08\\x0c\\x0a\\x0d\\x09/\\x5c\" | OK"},
        {"\"\\u00e9\\u20AC\\ud83d\\ude00\"", "s\\xc3\\xa9\\xe2\\x82\\xac\\xf0\\x9f\\x98\\x80 | OK"},
        {"\"\\u0000x\"", "s\\x00x | OK"},
        {"\"\xC3\xA9\xFF\x80\"", "s\\xc3\\xa9\\xff\\x80 | OK"},
        {"[\"0123456789abcdef0123456789\\\"abcdef\"]",
         "< [ s0123456789abcdef0123456789\"abcdef ] > | OK"},
        // Errors, their contexts and positions.
        {"[,]", "< [ | ERR 1 Unexpected character while looking for value: ','"},
        {"{\"a\":}", "< { ka | ERR 5 Unexpected character while looking for value: '}'"},
        {"[}", "< [ | ERR 1 Unexpected character: '}'"},
        {"[1]]", "< [ #1 ] > | ERR 3 Unexpected character while looking for value: ']'"},
        {"1 2", "#1 | ERR 2 Unexpected character: '2'"},
        {"1,", "#1 | ERR 1 Unexpected character: ','"},
        {"01", "#0 | ERR 1 Unexpected character: '1'"},
        {"1.", " | ERR 2 Unexpected EOF"},
        {"1.e5", " | ERR 2 Unexpected character after decimal point: 'e'"},
        {"-a", " | ERR 1 Unexpected character after minus sign: 'a'"},
        {"1e", " | ERR 2 Unexpected EOF"},
        {"1e+x", " | ERR 3 Unexpected character after exponent: 'x'"},
        {"+1", " | ERR 0 Unexpected character while looking for value: '+'"},
        {"tru", " | ERR 3 Unexpected EOF"},
        {"trUe", " | ERR 2 Unexpected character while parsing literal token: 'U'"},
        {"[1", "< [ #1 | ERR 2 Unexpected EOF"},
        {"{\"a\" 1}", "< { ka | ERR 5 Unexpected character while expecting ':': '1'"},
        {"{1:2}", "< { | ERR 1 Unexpected character while expecting '\\\"': '1'"},
        {"\"a\tb\"", " | ERR 2 Unexpected character in string: '\\09'"},
        {"\"\\x\"", " | ERR 2 Unexpected character while parsing backslash escape: 'x'"},
        {"\"\\u12G4\"", " | ERR 5 Unexpected character inside \\u escape: 'G'"},
        {"'", " | ERR 0 Unexpected character while looking for value: '\\''"},
        {"\x01", " | ERR 0 Unexpected character while looking for value: '\\01'"},
        {"\xEF\xBB\xBF{}", " | ERR 0 Unexpected character while looking for value: '\\EF'"},
        // Surrogates: the position names the backslash of the pair's start.
        {"\"\\ude00\"", " | ERR 1 Bare surrogate pair in string"},
        {"\"ab\\ud83dx\"", " | ERR 3 Bare surrogate pair in string"},
        {"\"\\ud83d\\x\"", " | ERR 1 Bare surrogate pair in string"},
        {"\"\\ud83d\\u0041\"", " | ERR 1 Bare surrogate pair in string"},
        {"\"\\ud83d\\ud83d\"", " | ERR 1 Bare surrogate pair in string"},
        // A slash that opens no comment is reported at the slash.
        {"/x", " | ERR 0 Unexpected character: '/'"},
        {"[1 /x]", "< [ #1 | ERR 3 Unexpected character: '/'"},
        {"/* open", " | ERR 7 Unexpected EOF"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(sameWhateverTheChunks(c.text), c.expected) << c.text;
    }
}

TEST(JsonStreamingParser, HooksDecide) {
    struct Case {
        std::string text;
        Options options;
        std::string expected;
    };
    Options refuseA;
    refuseA.refusedKeys = {"a"};
    Options refuseArrays;
    refuseArrays.refuseArrays = true;
    Options onlyOne;
    onlyOne.endOfBlock = 0;
    Options needValue;
    needValue.minSeen = JsonStreamingParser::AT_FINISH_NEED_VALUE;
    Options needBlock;
    needBlock.minSeen = JsonStreamingParser::AT_FINISH_NEED_BLOCK;
    Options allowRaw;
    const std::vector<Case> cases = {
        {"[1,]", jsontest::strict(),
         "< [ #1 | ERR 3 Unexpected character while looking for value: ']'"},
        {"{\"a\":1,}", jsontest::strict(),
         "< { ka #1 | ERR 7 Unexpected character while expecting '\\\"': '}'"},
        {"[/**/]", jsontest::strict(),
         "< [ | ERR 1 Unexpected character while looking for value: '/'"},
        {"{}/", jsontest::strict(),
         "< { } > | ERR 2 Unexpected character while expecting EOF: '/'"},
        {"{}{}", onlyOne, "< { } > | ERR 2 Unexpected character while expecting EOF: '{'"},
        {"{} \n", onlyOne, "< { } > | OK"},
        {"", needValue, " | ERR 0 Unexpected EOF"},
        {"1", needBlock, "#1 | ERR 1 Unexpected EOF"},
        // After a refused key its value yields nothing, however nested.
        {"{\"a\":{\"b\":[1,\"x\"]},\"c\":2,\"a\":3}", refuseA, "< { ka kc #2 ka } > | OK"},
        {"[[1,[2]],3]", refuseArrays, "< [ > | OK"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(sameWhateverTheChunks(c.text, c.options), c.expected) << c.text;
    }
}

TEST(JsonStreamingParser, NestingLimit) {
    const std::string ok = std::string(501, '[') + std::string(501, ']');
    EXPECT_NE(whole(ok).find("| OK"), std::string::npos);
    const std::string deep = std::string(502, '[');
    const std::string got = whole(deep);
    EXPECT_EQ(got.substr(got.find('|')), "| ERR 501 Nesting too deep");
    Options shallow;
    shallow.maxDepth = 1;
    EXPECT_EQ(whole("[[]]", shallow), "< [ [ ] ] > | OK");
    EXPECT_EQ(whole("[[[", shallow), "< [ [ | ERR 2 Nesting too deep");
}

// Limits bound what earlier chunks piled up, not a token inside one chunk.
TEST(JsonStreamingParser, LengthLimitsApplyAcrossChunks) {
    const std::string big = "\"" + std::string(1000000, 'a') + "\"";
    EXPECT_EQ(whole(big).substr(0, 3), "saa");
    {
        jsontest::Recorder r;
        r.parse(big.data(), 600000);
        try {
            r.parse(big.data() + 600000, big.size() - 600000);
            FAIL() << "no limit";
        } catch (const JsonStreamingParser::error& e) {
            EXPECT_STREQ(e.what(), "String value too long. valueSize=599999, maxValueSize=524288");
            EXPECT_EQ(e.position(), static_cast<long>(big.size()));
        }
    }
    {  // Dropped instead: null stands for it and parsing goes on.
        Options o;
        o.ignoreOverlength = true;
        jsontest::Recorder r(o);
        const std::string text = "[" + big + ",\"b\"]";
        r.parse(text.data(), 600000);
        r.parse(text.data() + 600000, text.size() - 600000);
        r.finish();
        EXPECT_EQ(r.events, "< [ n sb ] >");
    }
    struct Limit {
        const char* first;
        const char* second;
        void (JsonStreamingParser::*set)(size_t);
        const char* message;
    };
    const Limit limits[] = {
        {"{\"abcde", "f\":1}", &JsonStreamingParser::setMaxKeyLength, "Key name too long"},
        {"[1234", "5]", &JsonStreamingParser::setMaxNumberLength, "Number too long"},
        {"[1.234", "5]", &JsonStreamingParser::setMaxNumberLength, "Number too long"},
    };
    for (const Limit& l : limits) {
        jsontest::Recorder r;
        (r.*l.set)(3);
        r.parse(l.first, strlen(l.first));
        try {
            r.parse(l.second, strlen(l.second));
            ADD_FAILURE() << l.message;
        } catch (const JsonStreamingParser::error& e) {
            EXPECT_STREQ(e.what(), l.message);
        }
        jsontest::Recorder one;
        (one.*l.set)(3);
        const std::string text = std::string(l.first) + l.second;
        EXPECT_NO_THROW(one.parse(text.data(), text.size())) << text;
    }
}

TEST(JsonStreamingParser, TokenPositions) {
    struct Spy : JsonStreamingParser {
        std::vector<std::pair<long, long>> spans;
        void gotStringLiteral(Str&) override { spans.emplace_back(tokenStart(), tokenEnd()); }
        void gotNumber(Str&) override { spans.emplace_back(tokenStart(), tokenEnd()); }
        void gotBool(bool) override { spans.emplace_back(tokenStart(), tokenEnd()); }
        void gotCloseObject() override { spans.emplace_back(tokenStart(), tokenEnd()); }
    };
    const std::string text = "{\"k\": \"vv\", \"n\": -12, \"b\": true}";
    Spy s;
    for (char c : text) s.parse(&c, 1);
    s.finish();
    const std::vector<std::pair<long, long>> expected = {{7, 9}, {17, 20}, {27, 31}, {27, 32}};
    EXPECT_EQ(s.spans, expected);
}

TEST(JsonStreamingParser, EndOfBlockTwoStopsTheChunk) {
    Options o;
    o.endOfBlock = 2;
    jsontest::Recorder r(o);
    r.parse("{}[", 3);  // the '[' stays unread
    EXPECT_EQ(r.events, "< { } >");
    EXPECT_EQ(r.state(), JsonStreamingParser::AFTER_VALUE);
    r.resetParserState();
    r.parse("[]", 2);
    EXPECT_EQ(r.events, "< { } > < [ ] >");
}

TEST(JsonStreamingParser, ForceEndOfBlockClosesWhatIsOpen) {
    jsontest::Recorder r;
    r.parse("[1,{\"a\":[2", 10);
    r.forceEndOfBlock();
    EXPECT_EQ(r.events, "< [ #1 { ka [ #2 ] } ] >");
    EXPECT_EQ(r.state(), JsonStreamingParser::START_VALUE);
    r.finish();
    jsontest::Recorder idle;
    idle.parse("1 ", 2);
    idle.forceEndOfBlock();
    EXPECT_EQ(idle.events, "#1");
    // Under a refused key the skipped value closes silently, the key's own
    // object with its hook, and nothing stays skipped afterwards.
    Options refuseA;
    refuseA.refusedKeys = {"a"};
    jsontest::Recorder refused(refuseA);
    refused.parse("{\"a\":[1,{", 9);
    refused.forceEndOfBlock();
    refused.parse("[2]", 3);
    EXPECT_EQ(refused.events, "< { ka } > < [ #2 ] >");
}

TEST(JsonStreamingParser, DecodesOneBareString) {
    struct Case {
        std::string text;
        bool ok;
        std::string decoded;
    };
    const std::vector<Case> cases = {
        {"abc", true, "abc"},
        {"", true, ""},
        {"a\\\"b\\u00e9", true, "a\"b\xC3\xA9"},
        {"\\u0000", true, std::string(1, '\0')},
        {"a\"b", false, ""},
        {"ab\\", false, ""},
        {"\\ud83d", false, ""},
        {"tab\there", false, ""},
    };
    for (const Case& c : cases) {
        Str out("unchanged");
        EXPECT_EQ(mem_decode_json_string_into(&out, c.text.data(), c.text.size()), c.ok) << c.text;
        EXPECT_EQ(std::string(out), c.ok ? c.decoded : "unchanged") << c.text;
    }
}

TEST(JsonStreamingParser, ReadsFilesAndBuffers) {
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "a.json", "[1, \"two\"]");
    jsontest::Recorder r;
    r.parse(Pathname(dir / "a.json"));
    EXPECT_EQ(r.events, "< [ #1 stwo ] >");
    jsontest::Recorder missing;
    try {
        missing.parse(Pathname(dir / "none.json"));
        ADD_FAILURE();
    } catch (const JsonStreamingParser::error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "cannot open \"" + (dir / "none.json") + "\": No such file or directory");
    }
    AppendStr text;
    const std::string blanks(AppendStr::CHUNK_SIZE - 2, ' ');
    text.append(blanks.data(), blanks.size());
    text.append("[\"split\"]");
    jsontest::Recorder buffered;
    buffered.parse(text);
    EXPECT_EQ(buffered.events, "< [ ssplit ] >");
    EXPECT_TRUE(mem_parse_into("[]", 2, &buffered));
    EXPECT_FALSE(mem_parse_into(nullptr, 0, &buffered));
}

// The JSONTestSuite cases, through the strict configuration: every y_
// accepted, every n_ refused, and each i_ as decided below.
TEST(JsonStreamingParser, ConformanceSuite) {
    // Accepted: numbers are delivered as text, whatever their range; bytes
    // of strings pass unchecked as UTF-8. Refused: unpaired surrogate
    // escapes, byte order marks and UTF-16.
    const std::map<std::string, bool> implementationDefined = {
        {"i_number_double_huge_neg_exp.json", true},
        {"i_number_huge_exp.json", true},
        {"i_number_neg_int_huge_exp.json", true},
        {"i_number_pos_double_huge_exp.json", true},
        {"i_number_real_neg_overflow.json", true},
        {"i_number_real_pos_overflow.json", true},
        {"i_number_real_underflow.json", true},
        {"i_number_too_big_neg_int.json", true},
        {"i_number_too_big_pos_int.json", true},
        {"i_number_very_big_negative_int.json", true},
        {"i_object_key_lone_2nd_surrogate.json", false},
        {"i_string_1st_surrogate_but_2nd_missing.json", false},
        {"i_string_1st_valid_surrogate_2nd_invalid.json", false},
        {"i_string_UTF-16LE_with_BOM.json", false},
        {"i_string_UTF-8_invalid_sequence.json", true},
        {"i_string_UTF8_surrogate_U+D800.json", true},
        {"i_string_incomplete_surrogate_and_escape_valid.json", false},
        {"i_string_incomplete_surrogate_pair.json", false},
        {"i_string_incomplete_surrogates_escape_valid.json", false},
        {"i_string_invalid_lonely_surrogate.json", false},
        {"i_string_invalid_surrogate.json", false},
        {"i_string_invalid_utf-8.json", true},
        {"i_string_inverted_surrogates_U+1D11E.json", false},
        {"i_string_iso_latin_1.json", true},
        {"i_string_lone_second_surrogate.json", false},
        {"i_string_lone_utf8_continuation_byte.json", true},
        {"i_string_not_in_unicode_range.json", true},
        {"i_string_overlong_sequence_2_bytes.json", true},
        {"i_string_overlong_sequence_6_bytes.json", true},
        {"i_string_overlong_sequence_6_bytes_null.json", true},
        {"i_string_truncated-utf-8.json", true},
        {"i_string_utf16BE_no_BOM.json", false},
        {"i_string_utf16LE_no_BOM.json", false},
        {"i_structure_500_nested_arrays.json", true},
        {"i_structure_UTF-8_BOM_empty_object.json", false},
    };
    const std::string dirName = TARVEX_SOURCE_DIR "/tests/data/json/test_parsing";
    DIR* d = opendir(dirName.c_str());
    ASSERT_NE(d, nullptr);
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        if (strstr(e->d_name, ".json")) names.push_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    size_t counts[3] = {};
    for (const std::string& name : names) {
        const std::string text = testsupport::readFile(dirName + "/" + name);
        bool expected;
        if (name[0] == 'i') {
            const auto it = implementationDefined.find(name);
            ASSERT_NE(it, implementationDefined.end()) << name << " has no decision";
            expected = it->second;
        } else {
            expected = name[0] == 'y';
        }
        ++counts[name[0] == 'y' ? 0 : name[0] == 'n' ? 1 : 2];
        const std::string got = sameWhateverTheChunks(text, jsontest::strict(), 300);
        EXPECT_EQ(got.size() >= 4 && got.compare(got.size() - 4, 4, "| OK") == 0, expected)
            << name << ": " << got.substr(got.find('|'));
    }
    EXPECT_EQ(counts[0], 95u);
    EXPECT_EQ(counts[1], 188u);
    EXPECT_EQ(counts[2], 35u);
}

}  // namespace
