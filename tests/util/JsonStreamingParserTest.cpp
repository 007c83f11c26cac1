#include "util/JsonStreamingParser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/JsonEvents.h"
#include "support/TestSupport.h"
#include "util/AppendStr.h"

namespace {

using jsontest::byteByByte;
using jsontest::Options;
using jsontest::whole;

const std::string kData = TARVEX_SOURCE_DIR "/tests/data/JsonStreamingParserTest/";

// The lines of a data file but its comments.
std::vector<std::string> linesOf(const std::string& path) {
    std::istringstream in(testsupport::readFile(path));
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] != '#') out.push_back(line);
    return out;
}

// \xHH stands for that byte.
std::string withBytes(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s.compare(i, 2, "\\x") == 0 && i + 3 < s.size() && isxdigit(s[i + 2]) &&
            isxdigit(s[i + 3])) {
            out += char(std::stoi(s.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

// Options with one setting changed.
template <class T, class V>
Options with(T Options::*field, V value) {
    Options o;
    o.*field = T(value);
    return o;
}

// The outcome, the same byte by byte (any other cut is the json fuzz
// target's work).
std::string sameWhateverTheChunks(const std::string& text, const Options& o = Options()) {
    const std::string expected = whole(text, o);
    EXPECT_EQ(byteByByte(text, o), expected) << "byte by byte: " << text.substr(0, 80);
    return expected;
}

// The cases are rows of data/JsonStreamingParserTest/events.tsv.
TEST(JsonStreamingParser, EventsAndErrorsWhereverTheChunksEnd) {
    size_t rows = 0;
    for (const std::string& line : linesOf(kData + "events.tsv")) {
        const size_t tab = line.find('\t');
        ASSERT_NE(tab, std::string::npos) << line;
        const std::string text = withBytes(line.substr(0, tab));
        EXPECT_EQ(sameWhateverTheChunks(text), line.substr(tab + 1)) << line;
        ++rows;
    }
    EXPECT_EQ(rows, 50u);
}

TEST(JsonStreamingParser, HooksDecide) {
    using P = JsonStreamingParser;
    const Options strict = jsontest::strict(), one = with(&Options::endOfBlock, 0);
    const struct {
        std::string text;
        Options options;
        std::string expected;
    } cases[] = {
        {"[1,]", strict, "< [ #1 | ERR 3 Unexpected character while looking for value: ']'"},
        {"{\"a\":1,}", strict,
         "< { ka #1 | ERR 7 Unexpected character while expecting '\\\"': '}'"},
        {"[/**/]", strict, "< [ | ERR 1 Unexpected character while looking for value: '/'"},
        {"{}/", strict, "< { } > | ERR 2 Unexpected character while expecting EOF: '/'"},
        {"{}{}", one, "< { } > | ERR 2 Unexpected character while expecting EOF: '{'"},
        {"{} \n", one, "< { } > | OK"},
        {"", with(&Options::minSeen, P::AT_FINISH_NEED_VALUE), " | ERR 0 Unexpected EOF"},
        {"1", with(&Options::minSeen, P::AT_FINISH_NEED_BLOCK), "#1 | ERR 1 Unexpected EOF"},
        // After a refused key its value yields nothing, however nested.
        {"{\"a\":{\"b\":[1,\"x\"]},\"c\":2,\"a\":3}",
         with(&Options::refusedKeys, std::set<std::string>{"a"}), "< { ka kc #2 ka } > | OK"},
        {"[[1,[2]],3]", with(&Options::refuseArrays, true), "< [ > | OK"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(sameWhateverTheChunks(c.text, c.options), c.expected) << c.text;
}

TEST(JsonStreamingParser, NestingLimit) {
    const std::string ok = std::string(501, '[') + std::string(501, ']');
    EXPECT_NE(whole(ok).find("| OK"), std::string::npos);
    const std::string deep = std::string(502, '[');
    const std::string got = whole(deep);
    EXPECT_EQ(got.substr(got.find('|')), "| ERR 501 Nesting too deep");
    const Options shallow = with(&Options::maxDepth, 1);
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
        jsontest::Recorder r(with(&Options::ignoreOverlength, true));
        const std::string text = "[" + big + ",\"b\"]";
        r.parse(text.data(), 600000);
        r.parse(text.data() + 600000, text.size() - 600000);
        r.finish();
        EXPECT_EQ(r.events, "< [ n sb ] >");
    }
    const struct {
        const char *first, *second;
        void (JsonStreamingParser::*set)(size_t);
        const char* message;
    } limits[] = {
        {"{\"abcde", "f\":1}", &JsonStreamingParser::setMaxKeyLength, "Key name too long"},
        {"[1234", "5]", &JsonStreamingParser::setMaxNumberLength, "Number too long"},
        {"[1.234", "5]", &JsonStreamingParser::setMaxNumberLength, "Number too long"},
    };
    for (const auto& l : limits) {
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
    jsontest::Recorder r(with(&Options::endOfBlock, 2));
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
    jsontest::Recorder refused(with(&Options::refusedKeys, std::set<std::string>{"a"}));
    refused.parse("{\"a\":[1,{", 9);
    refused.forceEndOfBlock();
    refused.parse("[2]", 3);
    EXPECT_EQ(refused.events, "< { ka } > < [ #2 ] >");
}

TEST(JsonStreamingParser, DecodesOneBareString) {
    const struct {
        std::string text;
        bool ok;
        std::string decoded;
    } cases[] = {
        {"abc", true, "abc"},     {"", true, ""},
        {"a\\\"b", true, "a\"b"},  // decoding itself is the events table's work
        {"a\"b", false, ""},       // a quote of its own ends the string early
        {"ab\\", false, ""},       // the closing quote is escaped
    };
    for (const auto& c : cases) {
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
// accepted, every n_ refused, and each i_ as implementation_defined.txt says.
TEST(JsonStreamingParser, ConformanceSuite) {
    std::map<std::string, bool> implementationDefined;
    for (const std::string& line : linesOf(kData + "implementation_defined.txt")) {
        const size_t space = line.find(' ');
        implementationDefined[line.substr(space + 1)] = line.substr(0, space) == "accepted";
    }
    size_t counts[3] = {};
    for (const auto& entry :
         std::filesystem::directory_iterator(TARVEX_SOURCE_DIR "/tests/data/json/test_parsing")) {
        const std::string name = entry.path().filename();
        if (name.find(".json") == std::string::npos) continue;
        bool expected = name[0] == 'y';
        if (name[0] == 'i') {
            ASSERT_TRUE(implementationDefined.count(name)) << name << " has no decision";
            expected = implementationDefined[name];
        }
        ++counts[name[0] == 'y' ? 0 : name[0] == 'n' ? 1 : 2];
        const std::string got =
            sameWhateverTheChunks(testsupport::readFile(entry.path()), jsontest::strict());
        EXPECT_EQ(got.size() >= 4 && got.compare(got.size() - 4, 4, "| OK") == 0, expected)
            << name << ": " << got.substr(got.find('|'));
    }
    EXPECT_EQ(counts[0], 95u);
    EXPECT_EQ(counts[1], 188u);
    EXPECT_EQ(counts[2], 35u);
}

}  // namespace
