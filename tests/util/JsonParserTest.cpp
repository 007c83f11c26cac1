#include "util/JsonParser.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "util/AppendStr.h"
#include "util/CrashLog.h"
#include "util/StrVector.h"

namespace {

const std::string kSuite = TARVEX_SOURCE_DIR "/tests/data/json/test_parsing/";
const std::string kDocs = TARVEX_SOURCE_DIR "/tests/data/json/bench/";

JsonDocument parse(const std::string& text) { return JsonDocument(text.data(), text.size()); }

std::string compact(const JsonDocument& doc) {
    AppendStr out;
    doc.renderTo(&out);
    return Str::from(out);
}

std::string toHex(const AppendStr& bytes) {
    std::string hex;
    for (unsigned char c : Str::from(bytes))
        hex += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    return hex;
}

// Same shape, keys, order and values; numbers compared as doubles.
::testing::AssertionResult sameTree(const JsonNode& a, const JsonNode& b,
                                    const std::string& at = "$") {
    if (a.type() != b.type()) return ::testing::AssertionFailure() << at << ": types differ";
    if ((a.isBool() && a.asBool() != b.asBool()) || (a.isString() && a.asString() != b.asString()))
        return ::testing::AssertionFailure() << at;
    if (a.isNumber() && a.asNumber() != b.asNumber())
        return ::testing::AssertionFailure()
               << at << ": " << a.asNumber() << " vs " << b.asNumber();
    JsonNode x = a.firstChild(), y = b.firstChild();
    for (unsigned i = 0; x.valid() && y.valid(); ++i, x = x.nextSibling(), y = y.nextSibling()) {
        if (x.key() != y.key()) return ::testing::AssertionFailure() << at << ": key " << x.key();
        auto r =
            sameTree(x, y, at + "/" + (a.isObject() ? std::string(x.key()) : std::to_string(i)));
        if (!r) return r;
    }
    if (x.valid() || y.valid()) return ::testing::AssertionFailure() << at << ": lengths differ";
    return ::testing::AssertionSuccess();
}

bool hasDuplicateKeys(const JsonNode& n) {
    for (JsonNode c = n.firstChild(); c.valid(); c = c.nextSibling()) {
        if (n.isObject() && n.find(c.key().c_str()) != c) return true;
        if (hasDuplicateKeys(c)) return true;
    }
    return false;
}

TEST(JsonDocument, KeepsOrderAndDuplicateKeys) {
    const JsonDocument doc = parse(R"( {"b":[true,null,"x"], "a":1, "a":2} )");
    EXPECT_EQ(compact(doc), R"({"b":[true,null,"x"],"a":1,"a":2})");
    EXPECT_EQ(doc.root().find("a").asNumber(), 1);
    EXPECT_EQ(doc.root().childCount(), 3u);
    EXPECT_EQ(doc.root().find("b")[2].asString(), "x");
    EXPECT_FALSE(doc.root().find("b")[3].valid());
    EXPECT_FALSE(doc.root().find("zz").valid());
    EXPECT_FALSE(doc.root().find("b").find("a").valid());  // not an object
    EXPECT_FALSE(JsonNode().find("a").valid());
}

TEST(JsonDocument, RefusesWhatIsNotOneBlock) {
    const struct {
        const char* text;
        long position;
        const char* message;
    } cases[] = {
        {"123", 3, "Unexpected EOF"},
        {"", 0, "Unexpected EOF"},
        {"{} {}", 3, "expected EOF"},
        {"[] 1", 3, "expected EOF"},
        {"[1,", 3, "Unexpected EOF"},
        {"[1,x]", 3, "Unexpected character while looking for value: 'x'"},
    };
    for (const auto& c : cases) {
        try {
            parse(c.text);
            ADD_FAILURE() << c.text;
        } catch (const JsonStreamingParser::error& e) {
            EXPECT_STREQ(e.what(), c.message) << c.text;
            EXPECT_EQ(e.position(), c.position) << c.text;
        }
    }
    // The non-throwing form keeps what it built.
    JsonDocument doc = parse("{\"old\":1}");
    EXPECT_FALSE(mem_parse_into("[1,2,x", 6, &doc));
    EXPECT_EQ(compact(doc), "[1,2]");
    EXPECT_FALSE(mem_parse_into(nullptr, 0, &doc));
}

TEST(JsonDocument, RendersCompactBinaryAndIndented) {
    const struct {
        const char *text, *compact, *cbor, *indented;
    } cases[] = {
        {"{}", "{}", "90", "{}\n"},
        {"[ ]", "[]", "80", "[]\n"},
        {"{\"a\":true}", "{\"a\":true}", "916161F5", "{\n  \"a\": true\n}\n"},
        {"[-1, 1.5, 0, 23, 24, -25]", "[-1,1.5,0,23,24,-25]",
         "8620 FB3FF8000000000000 00 17 1818 3818", nullptr},
        {"[255,256,65535,65536,4294967295,4294967296]",
         "[255,256,65535,65536,4294967295,4294967296]",
         "86 18FF 190100 19FFFF 1A00010000 1AFFFFFFFF 1B0000000100000000", nullptr},
        {"[9007199254740991,-9007199254740992,9007199254740992]", nullptr,
         "83 1B001FFFFFFFFFFFFF 3B001FFFFFFFFFFFFF FB4340000000000000", nullptr},
        {"[\"\\u00e9\\n\",null,false]", "[\"\xC3\xA9\\n\",null,false]", "8363C3A90AF6F4",
         "[\n  \"\xC3\xA9\\n\",\n  null,\n  false\n]\n"},
        {"{\"a\":[1,[]],\"b\":{}}", "{\"a\":[1,[]],\"b\":{}}", nullptr,
         "{\n  \"a\": [\n    1,\n    []\n  ],\n  \"b\": {}\n}\n"},
        {"[0.1,-0.0,1e21,12.5e-3]", "[0.1,-0,1000000000000000000000,0.0125]", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        const JsonDocument doc = parse(c.text);
        if (c.compact) {
            EXPECT_EQ(compact(doc), c.compact) << c.text;
        }
        if (c.cbor) {
            AppendStr bin;
            doc.renderCborTo(&bin);
            std::string expected = c.cbor;
            expected.erase(std::remove(expected.begin(), expected.end(), ' '), expected.end());
            EXPECT_EQ(toHex(bin), expected) << c.text;
        }
        if (c.indented) {
            AppendStr pretty;
            JsonPrettyPrinter printer(&pretty, 2);
            printer.parse(c.text, strlen(c.text));
            printer.finish();
            EXPECT_EQ(Str::from(pretty), c.indented) << c.text;
        }
    }
}

TEST(JsonDocument, CrashLogFormIsBounded) {
    EXPECT_EQ(testsupport::crashText(parse("{\"a\":[1,\"x\"],\"b\":null}")),
              "{\n    \"a\": [\n        1,\n        \"x\"\n    ],\n    \"b\": null\n}\n");
    EXPECT_EQ(testsupport::crashText(JsonDocument()), "<empty>");
    EXPECT_EQ(testsupport::crashText(JsonNode()), "<unset>");
    JsonDocument doc;
    JsonNode root = doc.addObject();
    JsonNode arr = root.addArray("a");
    for (int i = 0; i < 22; ++i) arr.addNumber(i);
    for (int i = 0; i < 101; ++i) root.addNull(Str::fromFormat("k%d", i));
    const std::string text = testsupport::crashText(doc);
    EXPECT_NE(text.find("        20,\n        ...[1 more elements]\n    ],"), std::string::npos);
    EXPECT_EQ(text.find("        21,"), std::string::npos);
    EXPECT_NE(text.find("\"k99\": null,\n    ...[1 more keys]\n}\n"), std::string::npos) << text;
}

TEST(JsonNode, EditsInPlace) {
    JsonDocument doc = parse(R"({"a":1,"b":[1,2,3],"c":"s","d":{"x":1,"y":{"z":2}}})");
    JsonNode root = doc.root();
    JsonNode a = root.find("a");
    a.setString("t");  // a new node takes the place; the handle follows
    EXPECT_TRUE(a.isString());
    EXPECT_EQ(a.key(), "a");
    root.find("b")[1].remove();
    JsonNode c = root.find("c");
    EXPECT_FALSE(c.setNumber(std::numeric_limits<double>::infinity()));
    EXPECT_FALSE(root.addNumber("nan", std::nan("")));
    EXPECT_TRUE(c.isString());
    c.setBool(true);
    JsonNode d = root.find("d");
    d.replaceWithChild(d.find("y"));  // y's subtree takes d's place and key
    EXPECT_EQ(d.key(), "d");
    EXPECT_EQ(compact(doc), R"({"a":"t","b":[1,3],"c":true,"d":{"z":2}})");

    JsonNode b = root.find("b");
    b.prependStrings(StrVector("p", "q", nullptr));
    b.addStrings(StrVector("r", "s", nullptr));
    b.prependNull();
    JsonNode tree = b.addTree(root.find("d"));
    tree.addBool("copy", false);  // the copy is independent
    EXPECT_EQ(
        compact(doc),
        R"({"a":"t","b":[null,"q","p",1,3,"r","s",{"z":2,"copy":false}],"c":true,"d":{"z":2}})");
    root.find("b").clear();
    root.find("c").replace(root.find("d"));
    JsonNode gone = root.find("a");
    gone.replace(JsonNode());
    EXPECT_FALSE(gone.valid());
    EXPECT_EQ(compact(doc), R"({"b":[],"c":{"z":2},"d":{"z":2}})");

    JsonDocument sorted = parse(R"({"b":1,"a":2,"c":{"y":1,"x":1},"b":0,"a":1,"":3})");
    sorted.root().sortChildrenByKey();
    EXPECT_EQ(compact(sorted), R"({"":3,"a":2,"a":1,"b":1,"b":0,"c":{"y":1,"x":1}})");
    EXPECT_EQ(sorted.root().lastChild().key(), "c");  // back links rebuilt
    EXPECT_EQ(sorted.root().lastChild().prevSibling().key(), "b");
}

TEST(JsonNode, SwapsPositions) {
    const char* text = R"({"a":[1,2,3],"b":{"x":true},"c":"s"})";
    const struct {
        const char *first, *second;  // each: a member key, then an index or key in it
        const char* expected;
    } cases[] = {
        {"a", "b", R"({"a":{"x":true},"b":[1,2,3],"c":"s"})"},
        {"b", "a", R"({"a":{"x":true},"b":[1,2,3],"c":"s"})"},
        {"a", "c", R"({"a":"s","b":{"x":true},"c":[1,2,3]})"},
        {"a0", "a1", R"({"a":[2,1,3],"b":{"x":true},"c":"s"})"},
        {"a2", "bx", R"({"a":[1,2,true],"b":{"x":3},"c":"s"})"},
        {"a0", "c", R"({"a":["s",2,3],"b":{"x":true},"c":1})"},
        {"c", "c", text},
    };
    for (const auto& k : cases) {
        JsonDocument doc = parse(text);
        const auto at = [&](const char* path) {
            JsonNode n = doc.root().find(std::string(1, path[0]).c_str());
            if (path[1] == 'x') return n.find("x");
            if (path[1] == '\0') return n;
            return n[static_cast<unsigned>(path[1] - '0')];
        };
        JsonNode x = at(k.first), y = at(k.second);
        x.swapPositionWithNonDirectDescendant(y);
        EXPECT_EQ(compact(doc), k.expected) << k.first << " " << k.second;
        // Walking backwards sees the same order.
        std::string back;
        for (JsonNode n = doc.root().lastChild(); n.valid(); n = n.prevSibling()) back += n.key();
        EXPECT_EQ(back, "cba");
    }
}

TEST(JsonDocument, RootOperations) {
    JsonDocument doc = parse(R"({"only":[1,2]})");
    JsonNode child = doc.root().find("only");
    doc.replaceWithChild(child);
    EXPECT_EQ(doc.root(), child);
    EXPECT_TRUE(child.key().empty());
    EXPECT_EQ(compact(doc), "[1,2]");
    JsonDocument copy = doc;  // deep
    JsonDocument moved = std::move(doc);
    EXPECT_TRUE(doc.empty());
    moved.root().addNumber(3);
    EXPECT_EQ(compact(moved), "[1,2,3]");
    EXPECT_EQ(compact(copy), "[1,2]");
    JsonDocument str;
    str.addString("q\"");
    EXPECT_EQ(Str::from(str) + "|" + Str::from(str.root()), "\"q\\\"\"|q\"");
    EXPECT_FALSE(JsonDocument().addNumber(NAN));
}

TEST(JsonNode, ReadsIntegersOnlyWhenExact) {
    const JsonDocument doc = parse("[1.5, 3e10, -1, 42, \"7\", 65536]");
    const JsonNode r = doc.root();
    int i = 0;
    long l = 0;
    unsigned u = 0;
    unsigned short us = 0;
    EXPECT_FALSE(r[0].parseInto(&i));
    EXPECT_FALSE(r[1].parseInto(&i));
    EXPECT_TRUE(r[1].parseInto(&l));
    EXPECT_EQ(l, 30000000000L);
    EXPECT_FALSE(r[2].parseInto(&u));
    EXPECT_TRUE(r[3].parseInto(&u));
    EXPECT_EQ(u, 42u);
    EXPECT_FALSE(r[4].parseInto(&i));
    EXPECT_FALSE(r[5].parseInto(&us));
    EXPECT_FALSE(r[9].parseInto(&i));
    try {
        r[4].asNumber();
        ADD_FAILURE();
    } catch (const UnexpectedJSON& e) {
        EXPECT_STREQ(e.what(), "\"string\": unexpected JSON node type; expected \"number\"");
    }
    StrVector v;
    EXPECT_FALSE(r.getStrings(&v));
    EXPECT_TRUE(parse("[\"a\",\"b\"]").root().getStrings(&v));
    EXPECT_EQ(v.size(), 2u);
}

TEST(JsonDocument, DestroysDeepTreesWithoutRecursion) {
    JsonDocument doc;
    JsonNode n = doc.addArray();
    for (int i = 0; i < 1000000; ++i) n = n.addArray();
    doc._destroy();
    EXPECT_TRUE(doc.empty());
}

#if defined(__SANITIZE_ADDRESS__)
// Removed nodes wait in a per-thread cache for reuse; AddressSanitizer must
// still see a stale handle's access.
TEST(JsonNodeDeathTest, StaleHandleIsCaughtInTheNodeCache) {
    EXPECT_DEATH(
        {
            JsonDocument doc = parse("[1,{\"a\":2}]");
            JsonNode stale = doc.root()[1];
            JsonNode(stale).remove();
            fprintf(stderr, "%zu\n", stale.childCount());
        },
        "use-after-poison");
    JsonNode::releaseCachedNodes();
}
#endif

TEST(JsonStreamingDocumentParser, HandsOverEachDocument) {
    struct Collect : JsonStreamingDocumentParser {
        std::vector<std::string> seen;
        void gotDocument(JsonDocument& doc) override {
            seen.push_back(std::to_string(tokenStart()) + ":" + compact(doc));
        }
    };
    Collect c;
    const std::string text = " {\"a\":1}\n[2] {}";
    for (char ch : text) c.parse(&ch, 1);
    c.finish();
    const std::vector<std::string> expected = {"1:{\"a\":1}", "9:[2]", "13:{}"};
    EXPECT_EQ(c.seen, expected);

    // A document that failed halfway leaves nothing behind for the next one,
    // and neither does a gotDocument that throws.
    struct Picky : Collect {
        void gotDocument(JsonDocument& doc) override {
            if (doc.root().isArray()) throw UnexpectedJSON(JsonNode::array, JsonNode::object);
            Collect::gotDocument(doc);
        }
    };
    Picky p;
    EXPECT_FALSE(mem_parse_into("{\"a\":[1,}", 9, static_cast<JsonStreamingParser*>(&p)));
    p.resetParserState();
    EXPECT_THROW(p.parse("[1]", 3), UnexpectedJSON);
    p.resetParserState();
    p.parse("{\"b\":2}", 7);
    EXPECT_EQ(p.seen.back(), "11:{\"b\":2}");  // positions go on from the bad byte
    EXPECT_THROW(p.parse(" 7 ", 3), JsonStreamingParser::error);  // a value outside a block
}

std::vector<std::string> filesIn(const std::string& dir, const char* prefix) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        const std::string name = e.path().filename();
        if (name.rfind(prefix, 0) == 0 && name.find(".json") != std::string::npos)
            names.push_back(dir + name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// jq reads the same values (that printing and parsing again is a fixpoint is
// the json fuzz target's work).
TEST(JsonDocument, RoundTripsAgreeWithJq) {
    if (access("/usr/bin/jq", X_OK) != 0) GTEST_SKIP() << "jq not installed";
    std::vector<std::string> files = filesIn(kSuite, "y_");
    const std::vector<std::string> docs = filesIn(kDocs, "");
    files.insert(files.end(), docs.begin(), docs.end());
    size_t checked = 0;
    for (const std::string& path : files) {
        JsonDocument doc;
        const std::string text = testsupport::readFile(path);
        if (!mem_parse_into(text.data(), text.size(), &doc)) continue;  // a top-level scalar
        if (hasDuplicateKeys(doc.root())) continue;  // jq keeps the last of equal keys
        const testsupport::ProcessResult jq =
            testsupport::runProcess({"/usr/bin/jq", "-c", ".", path});
        ASSERT_EQ(jq.exitStatus, 0) << path << jq.err;
        EXPECT_TRUE(sameTree(parse(jq.out).root(), doc.root())) << path;
        ++checked;
    }
    EXPECT_GE(checked, 80u);
}

}  // namespace
