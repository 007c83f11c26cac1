// AppendStr: chunk edges, reuse without allocation, the escapers against
// real parsers, Base64 at every split, gzip with the gzip command, moves,
// reads and gather writes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/AllocCounter.h"
#include "support/TestSupport.h"
#include "util/AppendStr.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"

namespace {

using testsupport::runProcess;
using testsupport::ScratchDir;
using testsupport::writeFile;
constexpr size_t CHUNK = AppendStr::CHUNK_SIZE;

std::string text(const AppendStr& s) { return Str::from(s); }

// What `add` appends to an AppendStr whose next byte is `before` bytes short
// of a chunk boundary.
std::string nearBoundary(size_t before, const std::function<void(AppendStr&)>& add) {
    AppendStr s;
    s.append(CHUNK - before, '.');
    add(s);
    return text(s).substr(CHUNK - before);
}

// The text of a fresh AppendStr after `add`.
std::string made(const std::function<void(AppendStr&)>& add) { return nearBoundary(CHUNK, add); }

AppendStr of(const std::string& bytes) {
    AppendStr s;
    s.append(bytes.data(), bytes.size());
    return s;
}

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

std::string hex(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return out;
}

// What python3 prints running `program` with `d` holding the bytes of `input`.
std::string python(const std::string& program, const std::string& input) {
    auto r = runProcess({"/usr/bin/python3", "-c",
                         "import sys\nd = bytes.fromhex(sys.argv[1])\n" + program, hex(input)});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    return r.out;
}

// ---------------------------------------------------------------- chunks and memory

TEST(AppendStrChunks, SizesAtTheBoundaries) {
    AppendStr s;
    s.append(std::string(CHUNK, 'a').data(), CHUNK);
    EXPECT_EQ(s._usedChunkCount(), 1u);
    s.push_back('b');
    EXPECT_EQ(s._usedChunkCount(), 2u);
    EXPECT_EQ(s[CHUNK], 'b');
    EXPECT_EQ(text(s), std::string(CHUNK, 'a') + "b");

    AppendStr t;
    t.append(10000, 'x');
    t.resize(CHUNK);  // the last chunk stays full, the second goes to the free list
    EXPECT_EQ(t._usedChunkCount(), 1u);
    EXPECT_EQ(t._freeChunkCount(), 1u);
    t.resize(CHUNK + 5);  // growing is not resize's job
    EXPECT_EQ(t.size(), CHUNK);
    t.resize(100);
    EXPECT_EQ(text(t), std::string(100, 'x'));
    t.resize(0);
    EXPECT_TRUE(t.empty());
    EXPECT_EQ(t._freeChunkCount(), 2u);
}

TEST(AppendStrChunks, ReuseAfterClearAllocatesNothing) {
    if (!alloccounter::available()) GTEST_SKIP() << "allocations can't be counted here";
    const std::string piece = randomBytes(1000, 1);
    AppendStr s;
    s.reserve(200000);
    for (int round = 0; round < 3; ++round) {
        alloccounter::Scope scope;
        for (int i = 0; i < 200; ++i) {
            s.append(piece.data(), piece.size());
            s.append_int64(-i);
            s.push_back('\n');
        }
        s.clear();
        EXPECT_EQ(scope.allocations(), 0) << "round " << round;
    }
}

// Whatever mix of appends, the bytes are those of a plain string built alike.
TEST(AppendStrChunks, RandomAppendsMatchAStringModel) {
    std::mt19937 rng(7);
    AppendStr s;
    std::string m, piece;
    size_t n = 0;
    int64_t v = 0;
    const std::function<void()> ops[] = {
        [&] { s.append(piece.data(), piece.size()), m += piece; },
        [&] { s.push_back(char(n)), m += char(n); },
        [&] { s.append(n, 'z'), m.append(n, 'z'); },
        [&] { s.append_int64(v), m += std::to_string(v); },
        [&] {
            const size_t k = piece.size() % 100;
            s.appendReversed(piece.data(), k), m.append(piece.rend() - k, piece.rend());
        },
        [&] { s.padToAlignment(64, '#'), m.append((64 - m.size() % 64) % 64, '#'); },
    };
    for (int step = 0; step < 3000; ++step) {
        piece = randomBytes(rng() % 3000, step);
        n = rng() % 9000;
        v = int64_t((uint64_t(rng()) << 32) | rng());
        ops[rng() % 6]();
        ASSERT_EQ(s.size(), m.size()) << step;
    }
    EXPECT_TRUE(text(s) == m);
}

TEST(AppendStrNumbers, IntegersAcrossTheBoundaryAreTheSameBytes) {
    for (int64_t v : {int64_t(0), int64_t(-1), int64_t(9), int64_t(10), int64_t(-10),
                      std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
        const std::string want = std::to_string(v) + std::to_string(uint64_t(v)) +
                                 std::to_string(int32_t(v)) + std::to_string(uint32_t(v));
        auto all = [&](AppendStr& s) {
            s.append_int64(v), s.append_uint64(uint64_t(v));
            s.append_int32(int32_t(v)), s.append_uint32(uint32_t(v));
        };
        for (size_t before = 0; before <= 21; ++before)
            ASSERT_EQ(nearBoundary(before, all), want) << v << " at " << before;
    }
    for (uint64_t v : {uint64_t(0), uint64_t(127), uint64_t(128), uint64_t(300), UINT64_MAX}) {
        Str s;
        s.appendBase128(v);
        EXPECT_EQ(nearBoundary(1, [&](AppendStr& a) { a.appendBase128(v); }), s) << v;
    }
}

TEST(AppendStrNumbers, DoublesAreShortestFixedPointThatReadBack) {
    std::mt19937_64 rng(3);
    for (int i = 0; i < 20000; ++i) {
        uint64_t bits = rng();
        double v;
        memcpy(&v, &bits, 8);
        if (!std::isfinite(v)) continue;
        const std::string t = nearBoundary(i % 40, [&](AppendStr& s) { s.append_double(v); });
        ASSERT_EQ(t.find_first_of("eE"), std::string::npos) << t;
        ASSERT_EQ(strtod(t.c_str(), nullptr), v) << t;
    }
    AppendStr s;
    for (double v : {0.5, -1e21, 5e-7, -0.0, 0.0, -3.0, 9007199254740991.0, 9007199254740992.0})
        s.append_double(v), s.push_back(' ');
    EXPECT_EQ(text(s),
              "0.5 -1000000000000000000000 0.0000005 -0 0 -3 9007199254740991 9007199254740992 ");
}

// ---------------------------------------------------------------- views and moves

TEST(AppendStrViews, SubstrViewsOrCopies) {
    const std::string data = randomBytes(3 * CHUNK, 4);
    const AppendStr s = of(data);
    Str scratch = "untouched";
    EXPECT_EQ(std::string(s.substr(10, 100, &scratch)), data.substr(10, 100));
    EXPECT_EQ(scratch, "untouched");
    StrSegment across = s.substr(CHUNK - 5, CHUNK + 10, &scratch);
    EXPECT_EQ(std::string(across), data.substr(CHUNK - 5, CHUNK + 10));
    EXPECT_EQ(across.data(), scratch.data());
    EXPECT_EQ(s.substr(3 * CHUNK, 1, &scratch).data(), nullptr);
    EXPECT_EQ(std::string(s.substr(3 * CHUNK - 2, 99, &scratch)), data.substr(3 * CHUNK - 2));
}

TEST(AppendStrMoves, DestructiveAppendJoinsFullChunksWithoutCopying) {
    AppendStr a = of(std::string(CHUNK, 'a')), b = of(std::string(CHUNK + 3, 'b'));
    const void* bFirst = b.iovec()[0].iov_base;
    a.appendDestructive(&b);
    EXPECT_TRUE(b.empty());
    EXPECT_EQ(a.iovec()[1].iov_base, bFirst);
    EXPECT_EQ(text(a), std::string(CHUNK, 'a') + std::string(CHUNK + 3, 'b'));

    // A short last chunk can't stay in the middle: the bytes move.
    AppendStr c = of("ccccc"), d = of(std::string(2 * CHUNK, 'd'));
    c.appendDestructive(&d);
    EXPECT_TRUE(d.empty());
    EXPECT_EQ(text(c), std::string(5, 'c') + std::string(2 * CHUNK, 'd'));
    EXPECT_EQ(c._usedChunkCount(), 3u);

    AppendStr e = of("old");
    e.assignDestructive(&c);
    EXPECT_EQ(e.size(), 5 + 2 * CHUNK);
    EXPECT_TRUE(c.empty());

    AppendStr x = of("abc"), y = of("abd");
    EXPECT_LT(x.compare(y), 0);
    y.resize(2);
    EXPECT_GT(x.compare(y), 0);  // a prefix sorts first
    EXPECT_FALSE(x == y);
}

// ---------------------------------------------------------------- escapers

TEST(AppendStrEscaping, JsonRoundTripsThroughPython) {
    std::mt19937 rng(5);
    std::vector<std::string> samples = {"</script>", "a < b", "\xE2\x80\xA8\xE2\x80\xA9",
                                        std::string("\0\x01\x1F\x7F", 4), "\"\\\t\n\f\r\b"};
    static const char* pieces[] = {"a",    "\"",       "\\",           "<", "/", "\n",
                                   "\x01", "\xC3\xA9", "\xE2\x80\xA8", " "};
    for (int i = 0; i < 200; ++i) {
        std::string s;
        for (size_t k = rng() % 60; k > 0; --k) s += pieces[rng() % 10];
        samples.push_back(s);
    }
    std::string lines, want;
    for (const std::string& s : samples) {
        auto escape = [&](AppendStr& a) { a.appendJsonEscaped(s.data(), s.size()); };
        lines += nearBoundary(s.size() % 7, escape) + "\n";
        want += hex(s) + "\n";
    }
    EXPECT_EQ(
        python(
            "import json\nfor line in d.split(b'\\n')[:-1]:\n"
            "    print(json.loads(b'\"' + line + b'\"').encode('utf-8', 'surrogatepass').hex())\n",
            lines),
        want);
    EXPECT_EQ(made([](AppendStr& a) { a.appendJsonEscaped("</script><a>"); }), "<\\/script><a>");
}

TEST(AppendStrEscaping, XmlAcceptedByXmllint) {
    ScratchDir dir;
    std::string ascii;  // bytes above 0x7F vary by encoding
    for (int c = 0; c < 128; ++c) ascii += char(c);
    const XmlEscaping attribute(XmlEscaping::ATTRIBUTE);
    AppendStr doc;
    doc.append("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<r a=\"");
    doc.appendXmlEscaped(ascii.data(), ascii.size(), attribute);
    doc.append("\">");
    doc.appendXmlEscaped(ascii.data(), ascii.size(), attribute);
    doc.append("</r>\n");
    writeFile(dir / "doc.xml", text(doc));
    auto r = runProcess({"/usr/bin/xmllint", "--noout", dir / "doc.xml"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;

    const struct {
        std::string in;
        unsigned flags;
        const char* want;
    } cases[] = {
        {"<&>\"'", 0, "&lt;&amp;&gt;\"'"},
        {"\"'", XML_ESCAPE_DOUBLE_QUOTE | XML_ESCAPE_SINGLE_QUOTE, "&quot;&apos;"},
        {std::string("a\0b\x01\t", 5), XML_ESCAPE_CONTROL_AS_CHARREF, "ab&#x1;&#x9;"},
        {std::string("\0\x1F\t", 3), XML_ESCAPE_CONTROL_AS_HEX | XML_KEEP_TAB_LF_CR,
         "\\x00\\x1F\t"},
        {"a\xED\xA0\x80z\xEF\xBF\xBF", 0, "az"},
        {"\xEF\xBF\xBE", XML_ESCAPE_CONTROL_AS_HEX, "\\xEF\\xBF\\xBE"},
        {"\xEF\xBF\xBD\xED\x9F\xBF", 0, "\xEF\xBF\xBD\xED\x9F\xBF"},  // valid neighbours
    };
    for (const auto& c : cases) {
        AppendStr a;
        a.appendXmlEscaped(c.in.data(), c.in.size(), XmlEscaping(c.flags));
        EXPECT_EQ(text(a), c.want) << testing::PrintToString(c.in) << " " << c.flags;
    }
}

TEST(AppendStrEscaping, UriQueryMatchesPythonQuotePlus) {
    std::string all;
    for (int c = 1; c < 256; ++c) all += char(c);
    const std::string want =
        python("import urllib.parse\nprint(urllib.parse.quote_plus(d, safe='-_.~'), end='')", all);
    EXPECT_EQ(made([&](AppendStr& a) { a.appendUriEscaped(all.data(), all.size()); }), want);
    AppendStr q;
    q._append_one_uri_query_param("k y", 3, "v&1", 3);
    q._append_one_uri_query_param("b", 1, "", 0);
    EXPECT_EQ(text(q), "?k+y=v%261&b=");
}

TEST(AppendStrEscaping, CsvHtmlAndControl) {
    const struct {
        std::string in;
        unsigned flags;
        std::string want;
    } cases[] = {
        {"", 0, "\"\""},
        {"abc123", 0, "abc123"},
        {"abc,d", 0, "abc\",d\""},
        {"say \"hi\"", 0, "say\" \"\"hi\"\"\""},
        {"a\r\nb", 0, "a\"\r\nb\""},
        {"a\r\nb", CSV_REMOVE_CR, "a\"\nb\""},
        {"a\rb", 0, "a\"\rb\""},
        // A removed CR is gone: it neither quotes nor stays.
        {"a\rb", CSV_REMOVE_CR, "ab"},
        {"abc\r", CSV_REMOVE_CR, "abc"},
        {"\r", CSV_REMOVE_CR, "\"\""},
        {"a\r,\rb", CSV_REMOVE_CR, "a\",b\""},
    };
    for (const auto& c : cases) {
        AppendStr a;
        a.appendCsvEscaped(c.in.data(), c.in.size(), CsvEscaping(c.flags));
        EXPECT_EQ(text(a), c.want) << testing::PrintToString(c.in) << " " << c.flags;
    }

    EXPECT_EQ(made([](AppendStr& h) { h.appendHtmlEscaped("<a href=\"x\">'&'</a>"); }),
              "&lt;a href=&quot;x&quot;&gt;&#039;&amp;&#039;&lt;/a&gt;");
    EXPECT_EQ(made([](AppendStr& c) { c.appendDroppingControlCharacters("a\tb\nc\x1F\x7F", 7); }),
              "abc\x7F");
}

// Decoding cut anywhere is the fuzz target's work; here the encoder.
TEST(AppendStrBase64, StreamingAtEverySplitMatchesPython) {
    const std::string data = randomBytes(100, 9);
    // The whole, then every padding case on short prefixes.
    const std::string lines = python(
        "import base64\nfor n in [100, 0, 1, 2, 3, 4, 5]: "
        "print(base64.b64encode(d[:n]).decode())\n",
        data);
    std::vector<std::string> want;
    for (size_t at = 0, eol; (eol = lines.find('\n', at)) != std::string::npos; at = eol + 1)
        want.push_back(lines.substr(at, eol - at));
    ASSERT_EQ(want.size(), 7u);
    auto encode = [&](size_t n, size_t cut) {
        AppendStr a;
        AppendStr::Base64EncodeState st;
        a.appendBase64Escaped(st, data.data(), cut);
        a.appendBase64Escaped(st, data.data() + cut, n - cut);
        a.finishBase64Escaping(st);
        return text(a);
    };
    for (size_t n = 0; n <= 5; ++n) EXPECT_EQ(encode(n, n), want[n + 1]) << n;
    for (size_t cut = 0; cut <= data.size(); ++cut)
        ASSERT_EQ(encode(data.size(), cut), want[0]) << cut;
    AppendStr d;
    AppendStr::Base64DecodeState ds;
    ASSERT_TRUE(d.appendBase64Unescaped(ds, want[0].data(), want[0].size()));
    EXPECT_TRUE(text(d) == data);
}

TEST(AppendStrBase64, DecodingRefusesWhatIsNotBase64) {
    const struct {
        const char* in;
        bool ok;
        const char* out;
    } cases[] = {
        {"aGVs\n bG8=\r\n", true, "hello"},
        {"aGk==  =", true, "hi"},      // padding, white space and more padding
        {"aGk=aGk=", false, "hi"},     // data after padding
        {"aGVsbG8*", false, "hello"},  // what came before the bad byte stays
    };
    for (const auto& c : cases) {
        AppendStr d;
        AppendStr::Base64DecodeState st;
        EXPECT_EQ(d.appendBase64Unescaped(st, c.in, strlen(c.in)), c.ok) << c.in;
        EXPECT_EQ(text(d), c.out) << c.in;
    }
}

// ---------------------------------------------------------------- I/O

TEST(AppendStrIo, ManyChunksToAndFromFiles) {
    ScratchDir dir;
    const std::string data = randomBytes(40 * CHUNK + 123, 11);
    AppendStr s;
    for (size_t i = 0; i < data.size(); i += 777)
        s.append(data.data() + i, std::min<size_t>(777, data.size() - i));
    const Pathname f(dir / "f");
    ScopedFileDescriptor out{FileDescriptor(f.openCreateOnly(Pathname::CREATE_PRIVATE))};
    EXPECT_EQ(out.write(s), ssize_t(data.size()));
    EXPECT_TRUE(testsupport::readFile(f) == data);
    AppendStr fromFd;
    fromFd.append("head:");
    fromFd << ScopedFileDescriptor(f);
    EXPECT_TRUE(text(fromFd) == "head:" + data);
    ScopedFileStar star(fopen(f.c_str(), "r"));
    AppendStr fromStar;
    fromStar << star;
    EXPECT_TRUE(text(fromStar) == data);
    FILE* g = fopen((dir / "g").c_str(), "w");
    EXPECT_EQ(fromStar.writeTo(g), data.size());
    fclose(g);
    EXPECT_TRUE(testsupport::readFile(dir / "g") == data);
}

TEST(AppendStrCursor, SkipRewindAndConsolidate) {
    PortableIovec v;
    v.push_back("abc", 3);
    v.push_back("", 0);
    v.push_back("defg", 4);
    v.push_back("h", 1);
    PortableIovecCursor c(v);
    EXPECT_EQ(c.bytesLeftToWrite(), 8u);
    c.skipBytes(3);  // onto the element after the empty one
    StrSegment seg;
    ASSERT_TRUE(c.peekSeg(&seg));
    EXPECT_EQ(std::string(seg), "defg");
    c.skipBytes(2);
    char buf[16];
    EXPECT_EQ(c.optimisticallyConsolidateInto(buf, sizeof buf), 3u);
    EXPECT_EQ(std::string(buf, 3), "fgh");
    EXPECT_EQ(c.optimisticallyConsolidateInto(buf, 2), 0u);  // the first doesn't leave room
    c.rewindBytes(3);                                        // back over the empty element
    ASSERT_TRUE(c.getSeg(&seg));
    EXPECT_EQ(std::string(seg), "c");
    EXPECT_FALSE(c.getSegIfOnlyOneLeft(&seg));
    ASSERT_TRUE(c.getSeg(&seg));
    EXPECT_TRUE(c.getSegIfOnlyOneLeft(&seg));
    EXPECT_EQ(std::string(seg), "h");
    EXPECT_TRUE(c.finished());
    EXPECT_DEATH(c.skipBytes(1), "!finished\\(\\)");
    PortableIovecCursor d(v);
    EXPECT_DEATH(d.rewindBytes(1), "_elem > 0");
}

// More than 128 elements with the first partly written takes its own path.
TEST(AppendStrCursor, WritesManyElementsAfterAPartialFirst) {
    std::vector<std::string> pieces;
    for (int i = 0; i < 300; ++i) pieces.push_back(std::to_string(i) + ",");
    PortableIovec v;
    std::string all;
    for (const std::string& p : pieces) v.push_back(p.data(), p.size()), all += p;
    for (size_t skip : {size_t(1), size_t(600)}) {
        PortableIovecCursor c(v);
        c.skipBytes(skip);
        int p[2];
        ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
        while (!c.finished()) ASSERT_TRUE(c.write(FileDescriptor(p[1])));
        close(p[1]);
        std::string got(all.size(), '\0');
        got.resize(std::max<ssize_t>(0, FileDescriptor(p[0]).read(got.data(), got.size())));
        close(p[0]);
        EXPECT_EQ(got, all.substr(skip));
    }
}

// ---------------------------------------------------------------- gzip

TEST(AppendStrGzip, MembersTheGzipCommandReadsAndBack) {
    ScratchDir dir;
    const std::string plain = randomBytes(3 * CHUNK, 12) + std::string(50000, 'q');
    AppendStr out;
    AppendStrGzipState z(6, 15, 9, 0);
    z.startFile(&out, Timeval(-5, 0));  // before 1970: MTIME 0
    EXPECT_EQ(text(out).substr(4, 4), std::string(4, '\0'));
    z.gzip(of(plain), &out, Z_SYNC_FLUSH);
    z.endFile(&out);
    z.startFile(&out, Timeval(1700000000, 0));
    z.gzip("second", 6, &out);
    z.endFile(&out);
    writeFile(dir / "a.gz", text(out));
    auto r = runProcess({"/bin/sh", "-c", "gzip -dc '" + dir / "a.gz" + "'"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_TRUE(r.out == plain + "second");
    AppendStrGunzipState g;
    AppendStr back;
    EXPECT_TRUE(g.gunzip(out, &back));
    EXPECT_TRUE(text(back) == plain + "second");

    // Members made by the command (reading them cut anywhere is the fuzz target's work).
    auto two = runProcess(
        {"/bin/sh", "-c", "printf 'concatenated ' | gzip -c; printf members | gzip -9 -c"});
    AppendStrGunzipState g2;
    AppendStr back2;
    ASSERT_TRUE(g2.gunzip(two.out.data(), two.out.size(), &back2));
    EXPECT_EQ(text(back2), "concatenated members");
    EXPECT_TRUE(g2.atMemberBoundary());
}

TEST(AppendStrGzip, CorruptTrailerOrDataIsFalseAndTheCursorRewinds) {
    AppendStr gz;
    AppendStrGzipState z(1, 15, 8, 0);
    z.startFile(&gz);
    z.gzip("payload", 7, &gz);
    z.endFile(&gz);
    const std::string good = text(gz);
    std::string bytes = good;
    bytes[bytes.size() - 5] ^= 1;  // the length
    AppendStrGunzipState g;
    AppendStr out;
    EXPECT_FALSE(g.gunzip(bytes.data(), bytes.size(), &out));
    EXPECT_EQ(text(out), "payload");

    const std::string bad = good + "junk";
    PortableIovec v;
    v.push_back(bad.data(), bad.size());
    PortableIovecCursor c(v);
    AppendStrGunzipState g2;
    AppendStr out2;
    EXPECT_FALSE(g2.gunzip(&c, &out2));
    EXPECT_EQ(c.bytesLeftToWrite(), 4u);  // stopped at the first byte that isn't gzip
}

}  // namespace
