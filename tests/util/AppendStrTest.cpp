// AppendStr: chunk edges, reuse without allocation, the escapers against
// real parsers, Base64 at every split, gzip with the gzip command, moves,
// reads and gather writes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <thread>
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

std::string text(const AppendStr& s) {
    Str out;
    append_stringified(&out, s);
    return out;
}

// An AppendStr whose next byte is `before` bytes short of a chunk boundary.
AppendStr nearBoundary(size_t before) {
    AppendStr s;
    s.append(CHUNK - before, '.');
    return s;
}

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

// Runs python3 with `input` on standard input; its standard output.
std::string python(const std::string& program, const std::string& input, const ScratchDir& dir) {
    writeFile(dir / "py-in", input);
    writeFile(dir / "prog.py", program);
    auto r = runProcess(
        {"/bin/sh", "-c", "python3 '" + dir / "prog.py" + "' < '" + dir / "py-in" + "'"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    return r.out;
}

// ---------------------------------------------------------------- chunks and memory

TEST(AppendStrChunks, SizesAtTheBoundaries) {
    AppendStr s;
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(s._usedChunkCount(), 0u);
    s.append(std::string(CHUNK, 'a').data(), CHUNK);
    EXPECT_EQ(s._usedChunkCount(), 1u);
    s.push_back('b');
    EXPECT_EQ(s._usedChunkCount(), 2u);
    EXPECT_EQ(s.size(), CHUNK + 1);
    EXPECT_EQ(s[CHUNK], 'b');

    AppendStr t;
    t.append(10000, 'x');
    t.resize(CHUNK);  // the last chunk stays full, the second goes to the free list
    EXPECT_EQ(t.size(), CHUNK);
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
        const uint64_t filled = s.size();
        s.clear();
        EXPECT_EQ(scope.allocations(), 0) << "round " << round << ", " << filled << " bytes";
    }
}

// Whatever mix of appends, the bytes are those of a plain string built alike.
TEST(AppendStrChunks, RandomAppendsMatchAStringModel) {
    std::mt19937 rng(7);
    AppendStr s;
    std::string model;
    for (int step = 0; step < 3000; ++step) {
        switch (rng() % 6) {
            case 0: {
                const std::string piece = randomBytes(rng() % 3000, step);
                s.append(piece.data(), piece.size());
                model += piece;
                break;
            }
            case 1:
                s.push_back(char(step));
                model += char(step);
                break;
            case 2: {
                const size_t n = rng() % 9000;
                s.append(n, 'z');
                model.append(n, 'z');
                break;
            }
            case 3: {
                const int64_t v = int64_t((uint64_t(rng()) << 32) | rng());
                s.append_int64(v);
                model += std::to_string(v);
                break;
            }
            case 4: {
                const std::string piece = randomBytes(rng() % 100, step);
                s.appendReversed(piece.data(), piece.size());
                model.append(piece.rbegin(), piece.rend());
                break;
            }
            case 5:
                s.padToAlignment(64, '#');
                model.append((64 - model.size() % 64) % 64, '#');
                break;
        }
        ASSERT_EQ(s.size(), model.size()) << step;
    }
    EXPECT_TRUE(text(s) == model);
}

TEST(AppendStrNumbers, IntegersAcrossTheBoundaryAreTheSameBytes) {
    const int64_t values[] = {0,
                              -1,
                              9,
                              10,
                              -10,
                              std::numeric_limits<int64_t>::min(),
                              std::numeric_limits<int64_t>::max()};
    for (int64_t v : values) {
        for (size_t before = 0; before <= 21; ++before) {
            AppendStr s = nearBoundary(before);
            s.append_int64(v);
            s.append_uint64(uint64_t(v));
            s.append_int32(int32_t(v));
            s.append_uint32(uint32_t(v));
            const std::string want = std::to_string(v) + std::to_string(uint64_t(v)) +
                                     std::to_string(int32_t(v)) + std::to_string(uint32_t(v));
            ASSERT_EQ(text(s).substr(CHUNK - before), want) << v << " at " << before;
        }
    }
}

TEST(AppendStrNumbers, Base128MatchesStrAndTakesSmallValuesToo) {
    for (uint64_t v : {uint64_t(0), uint64_t(127), uint64_t(128), uint64_t(300), UINT64_MAX}) {
        AppendStr a = nearBoundary(1);
        a.appendBase128(v);
        Str s;
        s.appendBase128(v);
        EXPECT_EQ(text(a).substr(CHUNK - 1), s) << v;
    }
}

TEST(AppendStrNumbers, DoublesAreShortestFixedPointThatReadBack) {
    std::mt19937_64 rng(3);
    for (int i = 0; i < 20000; ++i) {
        uint64_t bits = rng();
        double v;
        memcpy(&v, &bits, 8);
        if (!std::isfinite(v)) continue;
        AppendStr s = nearBoundary(i % 40);
        s.append_double(v);
        const std::string t = text(s).substr(CHUNK - i % 40);
        ASSERT_EQ(t.find_first_of("eE"), std::string::npos) << t;
        ASSERT_EQ(strtod(t.c_str(), nullptr), v) << t;
    }
    AppendStr s;
    s.append_double(0.5);
    s.push_back(' ');
    s.append_double(-1e21);
    s.push_back(' ');
    s.append_double(5e-7);
    EXPECT_EQ(text(s), "0.5 -1000000000000000000000 0.0000005");
}

// ---------------------------------------------------------------- views and moves

TEST(AppendStrViews, SubstrViewsOrCopies) {
    AppendStr s;
    const std::string data = randomBytes(3 * CHUNK, 4);
    s.append(data.data(), data.size());
    Str scratch = "untouched";
    StrSegment in = s.substr(10, 100, &scratch);
    EXPECT_EQ(std::string(in), data.substr(10, 100));
    EXPECT_EQ(scratch, "untouched");
    StrSegment across = s.substr(CHUNK - 5, CHUNK + 10, &scratch);
    EXPECT_EQ(std::string(across), data.substr(CHUNK - 5, CHUNK + 10));
    EXPECT_EQ(across.data(), scratch.data());
    EXPECT_EQ(s.substr(3 * CHUNK, 1, &scratch).data(), nullptr);
    EXPECT_EQ(std::string(s.substr(3 * CHUNK - 2, 99, &scratch)), data.substr(3 * CHUNK - 2));
}

TEST(AppendStrMoves, DestructiveAppendJoinsFullChunksWithoutCopying) {
    AppendStr a, b;
    a.append(CHUNK, 'a');
    b.append(CHUNK + 3, 'b');
    const void* bFirst = b.iovec()[0].iov_base;
    a.appendDestructive(&b);
    EXPECT_TRUE(b.empty());
    EXPECT_EQ(a.iovec()[1].iov_base, bFirst);
    EXPECT_EQ(text(a), std::string(CHUNK, 'a') + std::string(CHUNK + 3, 'b'));

    // A short last chunk can't stay in the middle: the bytes move.
    AppendStr c, d;
    c.append(5, 'c');
    d.append(2 * CHUNK, 'd');
    c.appendDestructive(&d);
    EXPECT_TRUE(d.empty());
    EXPECT_EQ(text(c), std::string(5, 'c') + std::string(2 * CHUNK, 'd'));
    EXPECT_EQ(c._usedChunkCount(), 3u);

    AppendStr e;
    e.append("old");
    e.assignDestructive(&c);
    EXPECT_EQ(e.size(), 5 + 2 * CHUNK);
    EXPECT_TRUE(c.empty());
    EXPECT_EQ(e.compare(e), 0);

    AppendStr x, y;
    x.append("abc");
    y.append("abd");
    EXPECT_LT(x.compare(y), 0);
    y.resize(2);
    EXPECT_GT(x.compare(y), 0);  // a prefix sorts first
    EXPECT_FALSE(x == y);
}

// ---------------------------------------------------------------- escapers

TEST(AppendStrEscaping, JsonRoundTripsThroughPython) {
    ScratchDir dir;
    std::mt19937 rng(5);
    std::vector<std::string> samples = {"</script>", "a < b", "\xE2\x80\xA8\xE2\x80\xA9",
                                        std::string("\0\x01\x1F\x7F", 4), "\"\\\t\n\f\r\b"};
    for (int i = 0; i < 200; ++i) {
        std::string s;
        const size_t n = rng() % 60;
        for (size_t k = 0; k < n; ++k) {
            static const char* pieces[] = {"a",    "\"",       "\\",           "<", "/", "\n",
                                           "\x01", "\xC3\xA9", "\xE2\x80\xA8", " "};
            s += pieces[rng() % 10];
        }
        samples.push_back(s);
    }
    std::string lines;
    for (const std::string& s : samples) {
        AppendStr a = nearBoundary(s.size() % 7);
        a.appendJsonEscaped(s.data(), s.size());
        lines += text(a).substr(CHUNK - s.size() % 7) + "\n";
    }
    const std::string back = python(
        "import sys, json\n"
        "for line in sys.stdin.buffer.read().split(b'\\n')[:-1]:\n"
        "    s = json.loads(b'\"' + line + b'\"')\n"
        "    sys.stdout.buffer.write(s.encode('utf-8', 'surrogatepass').hex().encode() + b'\\n')\n",
        lines, dir);
    std::string want;
    for (const std::string& s : samples) {
        static const char* hex = "0123456789abcdef";
        for (unsigned char c : s) want += {hex[c >> 4], hex[c & 15]};
        want += "\n";
    }
    EXPECT_EQ(back, want);

    AppendStr a;
    a.appendJsonEscaped("</script><a>");
    EXPECT_EQ(text(a), "<\\/script><a>");
}

TEST(AppendStrEscaping, XmlAcceptedByXmllint) {
    ScratchDir dir;
    std::string all;
    for (int c = 0; c < 256; ++c) all += char(c);
    all += "\xED\xA0\x80 \xEF\xBF\xBE \xEF\xBF\xBF \xC3\xA9";
    AppendStr doc;
    doc.append("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<r a=\"");
    const std::string latin1 = all.substr(0, 128);  // bytes above 0x7F vary by encoding
    doc.appendXmlEscaped(latin1.data(), latin1.size(), XmlEscaping(XmlEscaping::ATTRIBUTE));
    doc.append("\">");
    doc.appendXmlEscaped(latin1.data(), latin1.size(), XmlEscaping(XmlEscaping::ATTRIBUTE));
    doc.append("</r>\n");
    writeFile(dir / "doc.xml", text(doc));
    auto r = runProcess({"/usr/bin/xmllint", "--noout", dir / "doc.xml"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;

    auto escaped = [](const std::string& s, unsigned flags) {
        AppendStr a;
        a.appendXmlEscaped(s.data(), s.size(), XmlEscaping(flags));
        return text(a);
    };
    EXPECT_EQ(escaped("<&>\"'", 0), "&lt;&amp;&gt;\"'");
    EXPECT_EQ(escaped("\"'", XML_ESCAPE_DOUBLE_QUOTE | XML_ESCAPE_SINGLE_QUOTE), "&quot;&apos;");
    EXPECT_EQ(escaped(std::string("a\0b\x01\t", 5), XML_ESCAPE_CONTROL_AS_CHARREF), "ab&#x1;&#x9;");
    EXPECT_EQ(escaped(std::string("\0\x1F\t", 3), XML_ESCAPE_CONTROL_AS_HEX | XML_KEEP_TAB_LF_CR),
              "\\x00\\x1F\t");
    EXPECT_EQ(escaped("a\xED\xA0\x80z\xEF\xBF\xBF", 0), "az");
    EXPECT_EQ(escaped("\xEF\xBF\xBE", XML_ESCAPE_CONTROL_AS_HEX), "\\xEF\\xBF\\xBE");
    EXPECT_EQ(escaped("\xEF\xBF\xBD\xED\x9F\xBF", 0),
              "\xEF\xBF\xBD\xED\x9F\xBF");  // valid neighbours
}

TEST(AppendStrEscaping, UriQueryMatchesPythonQuotePlus) {
    ScratchDir dir;
    std::string all;
    for (int c = 1; c < 256; ++c) all += char(c);
    AppendStr a;
    a.appendUriEscaped(all.data(), all.size());
    const std::string want = python(
        "import sys, urllib.parse\n"
        "sys.stdout.write(urllib.parse.quote_plus(sys.stdin.buffer.read(), safe='-_.~'))\n",
        all, dir);
    EXPECT_EQ(text(a), want);

    AppendStr q;
    q._append_one_uri_query_param("k y", 3, "v&1", 3);
    q._append_one_uri_query_param("b", 1, "", 0);
    EXPECT_EQ(text(q), "?k+y=v%261&b=");
}

TEST(AppendStrEscaping, CsvHtmlAndControl) {
    auto csv = [](const std::string& s, unsigned flags) {
        AppendStr a;
        a.appendCsvEscaped(s.data(), s.size(), CsvEscaping(flags));
        return text(a);
    };
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
        EXPECT_EQ(csv(c.in, c.flags), c.want) << testing::PrintToString(c.in) << " " << c.flags;
    }

    AppendStr h;
    h.appendHtmlEscaped("<a href=\"x\">'&'</a>");
    EXPECT_EQ(text(h), "&lt;a href=&quot;x&quot;&gt;&#039;&amp;&#039;&lt;/a&gt;");
    AppendStr c;
    c.appendDroppingControlCharacters("a\tb\nc\x1F\x7F", 7);
    EXPECT_EQ(text(c), "abc\x7F");
}

TEST(AppendStrBase64, StreamingAtEverySplitMatchesPython) {
    ScratchDir dir;
    const std::string data = randomBytes(100, 9);
    const std::string want = python(
        "import sys, "
        "base64\nsys.stdout.write(base64.b64encode(sys.stdin.buffer.read()).decode())\n",
        data, dir);
    for (size_t n = 0; n <= 5; ++n) {  // every padding case on short inputs
        AppendStr a;
        AppendStr::Base64EncodeState st;
        a.appendBase64Escaped(st, data.data(), n);
        a.finishBase64Escaping(st);
        Str expected;
        std::string enc = python(
            "import sys, "
            "base64\nsys.stdout.write(base64.b64encode(sys.stdin.buffer.read()).decode())\n",
            data.substr(0, n), dir);
        EXPECT_EQ(text(a), enc) << n;
    }
    for (size_t cut = 0; cut <= data.size(); ++cut) {
        AppendStr a;
        AppendStr::Base64EncodeState st;
        a.appendBase64Escaped(st, data.data(), cut);
        a.appendBase64Escaped(st, data.data() + cut, data.size() - cut);
        a.finishBase64Escaping(st);
        ASSERT_EQ(text(a), want) << cut;

        AppendStr d;
        AppendStr::Base64DecodeState ds;
        ASSERT_TRUE(d.appendBase64Unescaped(ds, want.data(), cut));
        ASSERT_TRUE(d.appendBase64Unescaped(ds, want.data() + cut, want.size() - cut));
        ASSERT_TRUE(text(d) == data) << cut;
    }
}

TEST(AppendStrBase64, DecodingRefusesWhatIsNotBase64) {
    auto decode = [](const std::string& in, std::string* out) {
        AppendStr d;
        AppendStr::Base64DecodeState st;
        const bool ok = d.appendBase64Unescaped(st, in.data(), in.size());
        *out = text(d);
        return ok;
    };
    std::string out;
    EXPECT_TRUE(decode("aGVs\n bG8=\r\n", &out));
    EXPECT_EQ(out, "hello");
    EXPECT_TRUE(decode("aGk==  =", &out));  // padding, white space and more padding
    EXPECT_EQ(out, "hi");
    EXPECT_FALSE(decode("aGk=aGk=", &out));  // data after padding
    EXPECT_FALSE(decode("aGVsbG8*", &out));
    EXPECT_EQ(out, "hello");  // what came before the bad byte stays
}

// ---------------------------------------------------------------- I/O

TEST(AppendStrIo, ManyChunksThroughAPipeAndBackFromFiles) {
    const std::string data = randomBytes(40 * CHUNK + 123, 11);
    AppendStr s;
    for (size_t i = 0; i < data.size(); i += 777)
        s.append(data.data() + i, std::min<size_t>(777, data.size() - i));
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    std::string received;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while ((n = ::read(p[0], buf, sizeof buf)) > 0) received.append(buf, size_t(n));
    });
    EXPECT_EQ(FileDescriptor(p[1]).write(s), ssize_t(data.size()));
    close(p[1]);
    reader.join();
    close(p[0]);
    EXPECT_TRUE(received == data);

    ScratchDir dir;
    writeFile(dir / "f", data);
    AppendStr fromFd;
    fromFd.append("head:");
    const int fd = open((dir / "f").c_str(), O_RDONLY | O_CLOEXEC);
    fromFd << FileDescriptor(fd);
    close(fd);
    EXPECT_TRUE(text(fromFd) == "head:" + data);
    FileStar f(fopen((dir / "f").c_str(), "r"));
    AppendStr fromStar;
    fromStar << f;
    f.close();
    EXPECT_TRUE(text(fromStar) == data);
    FILE* out = fopen((dir / "g").c_str(), "w");
    EXPECT_EQ(fromStar.writeTo(out), data.size());
    fclose(out);
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
    PortableIovec v;
    std::string all;
    for (int i = 0; i < 300; ++i) pieces.push_back(std::to_string(i) + ",");
    for (const std::string& p : pieces) v.push_back(p.data(), p.size()), all += p;
    for (size_t skip : {size_t(1), size_t(600)}) {
        PortableIovecCursor c(v);
        c.skipBytes(skip);
        int p[2];
        ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
        while (!c.finished()) ASSERT_TRUE(c.write(FileDescriptor(p[1])));
        close(p[1]);
        std::string got(all.size(), '\0');
        EXPECT_EQ(FileDescriptor(p[0]).read(got.data(), got.size()), ssize_t(all.size() - skip));
        got.resize(all.size() - skip);
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
    AppendStr source;
    source.append(plain.data(), plain.size());
    z.gzip(source, &out, Z_SYNC_FLUSH);
    z.endFile(&out);
    z.startFile(&out, Timeval(1700000000, 0));
    z.gzip("second", 6, &out);
    z.endFile(&out);
    writeFile(dir / "a.gz", text(out));
    auto r = runProcess({"/bin/sh", "-c", "gzip -dc '" + dir / "a.gz" + "'"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_TRUE(r.out == plain + "second");

    // Members made by the command, in pieces split at every byte of a small one.
    writeFile(dir / "p", "concatenated ");
    writeFile(dir / "q", "members");
    auto two = runProcess(
        {"/bin/sh", "-c", "gzip -c '" + dir / "p" + "'; gzip -9 -c '" + dir / "q" + "'"});
    for (size_t cut = 0; cut <= two.out.size(); ++cut) {
        AppendStrGunzipState g;
        AppendStr back;
        ASSERT_TRUE(g.gunzip(two.out.data(), cut, &back)) << cut;
        ASSERT_TRUE(g.gunzip(two.out.data() + cut, two.out.size() - cut, &back)) << cut;
        ASSERT_EQ(text(back), "concatenated members") << cut;
        EXPECT_TRUE(g.atMemberBoundary());
    }
    AppendStrGunzipState g;
    AppendStr back;
    EXPECT_TRUE(g.gunzip(out, &back));
    EXPECT_TRUE(text(back) == plain + "second");
}

TEST(AppendStrGzip, CorruptTrailerOrDataIsFalseAndTheCursorRewinds) {
    AppendStr gz;
    AppendStrGzipState z(1, 15, 8, 0);
    z.startFile(&gz);
    z.gzip("payload", 7, &gz);
    z.endFile(&gz);
    std::string bytes = text(gz);
    const std::string good = bytes;
    bytes[bytes.size() - 5] ^= 1;  // the length
    AppendStrGunzipState g;
    AppendStr out;
    EXPECT_FALSE(g.gunzip(bytes.data(), bytes.size(), &out));
    EXPECT_EQ(text(out), "payload");

    std::string bad = good + "junk";
    PortableIovec v;
    v.push_back(bad.data(), bad.size());
    PortableIovecCursor c(v);
    AppendStrGunzipState g2;
    AppendStr out2;
    EXPECT_FALSE(g2.gunzip(&c, &out2));
    EXPECT_EQ(c.bytesLeftToWrite(), 4u);  // stopped at the first byte that isn't gzip
}

}  // namespace
