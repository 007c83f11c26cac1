#include "util/LineReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/AllocCounter.h"
#include "support/TestSupport.h"

using testsupport::runProcess;
using testsupport::ScratchDir;
using Lines = std::vector<std::string>;

namespace {

// ---------------------------------------------------------------- oracles

struct Collector : StrSegmentTokenAcceptor {
    Lines lines;
    void accept(StrSegment token) override { lines.emplace_back(token._data, token._len); }
};

// The line rule from the library's own splitter, which keeps a CR at the very
// end that the readers drop.
Lines expectedLines(const std::string& data) {
    Collector c;
    mem_split_lines(data.data(), data.size(), c);
    if (!data.empty() && data.back() != '\n' && !c.lines.empty() && !c.lines.back().empty() &&
        c.lines.back().back() == '\r') {
        c.lines.back().pop_back();
    }
    return c.lines;
}

// LimitedLineReader's rule: cut at each LF, CRs kept, a last piece when not empty.
Lines limitedLines(const std::string& data) {
    Lines out;
    size_t from = 0;
    for (size_t nl; (nl = data.find('\n', from)) != std::string::npos; from = nl + 1) {
        out.push_back(data.substr(from, nl - from));
    }
    if (from < data.size()) out.push_back(data.substr(from));
    return out;
}

Lines drain(LineReader& r) {
    Lines out;
    Str line;
    while (r.readline(line)) out.push_back(line);
    EXPECT_TRUE(line.empty());
    EXPECT_FALSE(r.readline(line)) << "a line after the end";
    return out;
}

// ---------------------------------------------------------------- sources

// Hands out the data through a pipe, in pieces of assorted sizes, most of
// them tiny, so that the reader sees short reads at arbitrary places.
class PipeFeeder {
public:
    explicit PipeFeeder(std::string data) : _data(std::move(data)) {
        EXPECT_EQ(pipe2(_p, O_CLOEXEC), 0);
        _writer = std::thread([this] {
            static const size_t pieces[] = {1, 7, 3, 2, 300, 5, 9, 4099, 1, 2, 16500};
            size_t at = 0;
            for (size_t i = 0; at < _data.size(); ++i) {
                const size_t n = std::min(pieces[i % std::size(pieces)], _data.size() - at);
                if (write(_p[1], _data.data() + at, n) != static_cast<ssize_t>(n)) break;
                at += n;
            }
            ::close(_p[1]);
        });
    }
    ~PipeFeeder() {
        // Unblocks a writer the test stopped reading from.
        ::close(_p[0]);
        _writer.join();
    }
    int fd() const { return _p[0]; }

private:
    std::string _data;
    int _p[2] = {-1, -1};
    std::thread _writer;
};

// A buffered reader over memory whose reads come in the given sizes, in turn.
class ScriptedReader : public BufferedLineReader {
public:
    ScriptedReader(std::string data, std::vector<size_t> sizes, int seekResult = SEEK_UNSUPPORTED)
        : _data(std::move(data)), _sizes(std::move(sizes)), _seekResult(seekResult) {}

    size_t reads = 0;
    std::vector<file_offset_t> seeks;

    static constexpr int UNSUPPORTED = SEEK_UNSUPPORTED;
    static constexpr int FAILED = SEEK_FAILED;
    static constexpr int MOVED = SEEK_MOVED;

protected:
    ssize_t do_read(void* buf, size_t size) override {
        const size_t n = std::min({size, _sizes[reads++ % _sizes.size()], _data.size() - _at});
        memcpy(buf, _data.data() + _at, n);
        _at += n;
        return static_cast<ssize_t>(n);
    }
    int seekDirectly(file_offset_t offset) override {
        seeks.push_back(offset);
        if (_seekResult == SEEK_MOVED) _at = static_cast<size_t>(offset);
        return _seekResult;
    }

private:
    std::string _data;
    std::vector<size_t> _sizes;
    int _seekResult;
    size_t _at = 0;
};

void gzipFile(const std::string& path) {
    ASSERT_EQ(runProcess({"/bin/sh", "-c", "gzip -k -f '" + path + "'"}).exitStatus, 0);
}

enum class Kind {
    String,
    FileStarFile,
    FileStarPipe,
    DescriptorFile,
    DescriptorPipe,
    ShortReads,
    GzipFile,
    GzipPipe,
    UnicodeFile,
    UnicodePipe,
    LimitedFile,
    LimitedPipe,
    Chunks,
};

constexpr Kind ALL_KINDS[] = {
    Kind::String,         Kind::FileStarFile, Kind::FileStarPipe, Kind::DescriptorFile,
    Kind::DescriptorPipe, Kind::ShortReads,   Kind::GzipFile,     Kind::GzipPipe,
    Kind::UnicodeFile,    Kind::UnicodePipe,  Kind::LimitedFile,  Kind::LimitedPipe,
    Kind::Chunks,
};

const char* nameOf(Kind k) {
    static const char* const names[] = {
        "string",          "FILE* file",   "FILE* pipe",   "descriptor file",
        "descriptor pipe", "short reads",  "gzip file",    "gzip pipe",
        "unicode file",    "unicode pipe", "limited file", "limited pipe",
        "AppendStr",
    };
    return names[static_cast<int>(k)];
}

bool isLimited(Kind k) { return k == Kind::LimitedFile || k == Kind::LimitedPipe; }

// Every line that reader kind `k` gives for `data`.
Lines readWith(Kind k, const std::string& data, const ScratchDir& dir) {
    const std::string path = dir / "input";
    testsupport::writeFile(path, data);
    switch (k) {
        case Kind::String: {
            StringLineReader r{StrSegment(data)};
            return drain(r);
        }
        case Kind::FileStarFile: {
            FileStarLineReader r{Pathname(path)};
            return drain(r);
        }
        case Kind::FileStarPipe: {
            PipeFeeder feed(data);
            ScopedFileStar f(fdopen(dup(feed.fd()), "r"));
            FileStarLineReader r(f);
            return drain(r);
        }
        case Kind::DescriptorFile: {
            FileDescriptorLineReader r{Pathname(path)};
            return drain(r);
        }
        case Kind::DescriptorPipe: {
            PipeFeeder feed(data);
            FileDescriptor fd(feed.fd());
            FileDescriptorLineReader r(fd);
            return drain(r);
        }
        case Kind::ShortReads: {
            ScriptedReader r(data, {1, 5, 16384, 2, 700, 3});
            return drain(r);
        }
        case Kind::GzipFile: {
            gzipFile(path);
            GZLineReader r{Pathname(path + ".gz")};
            return drain(r);
        }
        case Kind::GzipPipe: {
            gzipFile(path);
            PipeFeeder feed(testsupport::readFile(path + ".gz"));
            GZLineReader r{FileDescriptor(feed.fd())};
            return drain(r);
        }
        case Kind::UnicodeFile: {
            ReadableUnicodeFileStarLineReader r{Pathname(path)};
            return drain(r);
        }
        case Kind::UnicodePipe: {
            PipeFeeder feed(data);
            ScopedFileStar f(fdopen(dup(feed.fd()), "r"));
            ReadableUnicodeFileStarLineReader r(f);
            return drain(r);
        }
        case Kind::LimitedFile: {
            ScopedFileDescriptor fd{Pathname(path)};
            LimitedLineReader r(fd, data.size());
            return drain(r);
        }
        case Kind::LimitedPipe: {
            PipeFeeder feed(data);
            LimitedLineReader r(FileDescriptor(feed.fd()), data.size());
            return drain(r);
        }
        case Kind::Chunks: {
            AppendStr text;
            text.append(data.data(), data.size());
            AppendStrLineReader r(text);
            return drain(r);
        }
    }
    return {};
}

// Random text of lines ending in LF, CR LF or lone CRs, some much longer
// than a buffer; UTF-8 and NUL bytes inside, no byte-order mark.
std::string randomText(std::mt19937& rng, size_t lines) {
    static const std::string pieces[] = {
        "a", "xyz", " ", "\r", "\xc3\xa9", "\xe2\x82\xac", std::string(1, '\0'), "\t"};
    std::string out;
    for (size_t i = 0; i < lines; ++i) {
        const size_t length = rng() % 10 == 0 ? 16000 + rng() % 40000 : rng() % 120;
        const size_t before = out.size();
        while (out.size() - before < length) out += pieces[rng() % std::size(pieces)];
        switch (rng() % 4) {
            case 0:
                out += "\r\n";
                break;
            case 3:
                if (i + 1 == lines) break;  // the last line may lack its end
                [[fallthrough]];
            default:
                out += "\n";
        }
    }
    return out;
}

// ---------------------------------------------------------------- every kind

struct Case {
    std::string data;
    Lines lines;         // every reader but LimitedLineReader
    Lines limitedLines;  // which keeps CRs
};

const Case CASES[] = {
    {"", {}, {}},
    {"a", {"a"}, {"a"}},
    {"a\n", {"a"}, {"a"}},
    {"a\r\nb", {"a", "b"}, {"a\r", "b"}},
    {"a\n\n", {"a", ""}, {"a", ""}},
    {"\r\n", {""}, {"\r"}},
    {"\n", {""}, {""}},
    {"\r", {""}, {"\r"}},
    {"a\r", {"a"}, {"a\r"}},
    {"a\r\r\n", {"a\r"}, {"a\r\r"}},
    {"a\r\r", {"a\r"}, {"a\r\r"}},
    {"a\rb\n", {"a\rb"}, {"a\rb"}},
    {"\n\nx", {"", "", "x"}, {"", "", "x"}},
    {"one\r\n\r\ntwo\n", {"one", "", "two"}, {"one\r", "\r", "two"}},
    {std::string("nul\0inside\n", 11),
     {std::string("nul\0inside", 10)},
     {std::string("nul\0inside", 10)}},
    {"caf\xc3\xa9 \xe2\x82\xac\r\n", {"caf\xc3\xa9 \xe2\x82\xac"}, {"caf\xc3\xa9 \xe2\x82\xac\r"}},
};

TEST(LineReaderKinds, EveryKindFollowsTheLineRule) {
    ScratchDir dir;
    for (const Case& c : CASES) {
        // The oracle and the table must agree before the readers are judged.
        ASSERT_EQ(expectedLines(c.data), c.lines) << testing::PrintToString(c.data);
        ASSERT_EQ(limitedLines(c.data), c.limitedLines) << testing::PrintToString(c.data);
        for (Kind k : ALL_KINDS) {
            EXPECT_EQ(readWith(k, c.data, dir), isLimited(k) ? c.limitedLines : c.lines)
                << nameOf(k) << " on " << testing::PrintToString(c.data);
        }
    }
}

TEST(LineReaderKinds, EveryKindAgreesOnLongRandomTexts) {
    ScratchDir dir;
    std::mt19937 rng(20240611);
    for (int round = 0; round < 6; ++round) {
        const std::string data = randomText(rng, 40 + rng() % 200);
        const Lines expected = expectedLines(data);
        const Lines limited = limitedLines(data);
        for (Kind k : ALL_KINDS) {
            const Lines got = readWith(k, data, dir);
            const Lines& want = isLimited(k) ? limited : expected;
            ASSERT_EQ(got.size(), want.size()) << nameOf(k) << " round " << round;
            for (size_t i = 0; i < got.size(); ++i) {
                ASSERT_EQ(got[i], want[i]) << nameOf(k) << " round " << round << " line " << i;
            }
        }
    }
}

TEST(LineReaderKinds, ALineEndSplitAcrossTheBufferIsOneEnd) {
    ScratchDir dir;
    const size_t B = BufferedLineReader::BUFFER_SIZE;
    // CR as the last byte of the first buffer, LF as the first of the next;
    // then the same one byte later, and a CR at the very end of a buffer-sized file.
    for (size_t crAt : {B - 1, B, B - 2}) {
        std::string data(crAt, 'x');
        data += "\r\ny\r";
        for (Kind k : ALL_KINDS) {
            if (isLimited(k)) continue;
            EXPECT_EQ(readWith(k, data, dir), Lines({std::string(crAt, 'x'), "y"}))
                << nameOf(k) << " CR at " << crAt;
        }
    }
    // Read sizes that end a read between the CR and the LF, again and again.
    std::string data;
    for (int i = 0; i < 200; ++i) data += std::string(i % 7, 'q') + "\r\n";
    for (size_t size : {1u, 2u, 3u, 5u}) {
        ScriptedReader r(data, {size});
        EXPECT_EQ(drain(r), expectedLines(data)) << "reads of " << size;
    }
}

TEST(LineReaderKinds, ALineLongerThanTheBufferComesBackWhole) {
    ScratchDir dir;
    std::string huge;
    for (size_t i = 0; huge.size() < 3 * BufferedLineReader::BUFFER_SIZE + 17; ++i) {
        huge += static_cast<char>('a' + i % 26);
    }
    const std::string data = "short\n" + huge + "\r\nlast";
    for (Kind k : ALL_KINDS) {
        const Lines got = readWith(k, data, dir);
        ASSERT_EQ(got.size(), 3u) << nameOf(k);
        EXPECT_EQ(got[1].size(), huge.size() + (isLimited(k) ? 1 : 0)) << nameOf(k);
        EXPECT_EQ(got[1].substr(0, huge.size()), huge) << nameOf(k);
        EXPECT_EQ(got[2], "last") << nameOf(k);
    }
}

// ---------------------------------------------------------------- buffered reads

TEST(BufferedLineReader, SeekWithinTheBufferReadsNothing) {
    const std::string data = "0123456789\nabcdef\nghij\n";
    ScriptedReader r(data, {1000});
    Str line;
    ASSERT_TRUE(r.readline(line));
    const size_t readsBefore = r.reads;
    EXPECT_TRUE(r.seek_set(r.curPos()));  // where it stands already
    EXPECT_TRUE(r.seek_set(14));          // into "abcdef"
    EXPECT_EQ(r.curPos(), 14);
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, "def");
    EXPECT_TRUE(r.seek_set(static_cast<file_offset_t>(data.size())));  // the buffer's end
    EXPECT_EQ(r.reads, readsBefore);
    EXPECT_TRUE(r.seeks.empty());
    EXPECT_FALSE(r.readline(line));
}

TEST(BufferedLineReader, SeekBeyondTheBufferByTheSourceOrByReadingForward) {
    std::string data;
    for (int i = 0; i < 5000; ++i) data += "line " + std::to_string(i) + "\n";
    const file_offset_t target = static_cast<file_offset_t>(data.find("line 4000\n"));
    ASSERT_GT(target, static_cast<file_offset_t>(2 * BufferedLineReader::BUFFER_SIZE));

    for (int how : {ScriptedReader::MOVED, ScriptedReader::UNSUPPORTED}) {
        ScriptedReader r(data, {1000}, how);
        Str line;
        ASSERT_TRUE(r.readline(line));
        ASSERT_TRUE(r.seek_set(target + 2)) << how;
        EXPECT_EQ(r.seeks, std::vector<file_offset_t>{target + 2});
        EXPECT_EQ(r.curPos(), target + 2);
        ASSERT_TRUE(r.readline(line));
        EXPECT_EQ(line, "ne 4000");
        ASSERT_TRUE(r.readline(line));
        EXPECT_EQ(line, "line 4001");
    }

    ScriptedReader failing(data, {1000}, ScriptedReader::FAILED);
    EXPECT_FALSE(failing.seek_set(target));

    // Past the end of the data: reading forward runs out.
    ScriptedReader shortOne("abc\n", {1000}, ScriptedReader::UNSUPPORTED);
    EXPECT_FALSE(shortOne.seek_set(BufferedLineReader::BUFFER_SIZE + 5));
    Str line;
    EXPECT_FALSE(shortOne.readline(line));
}

TEST(BufferedLineReaderDeathTest, SeekingBackwardsFailsAnAssertion) {
    ScriptedReader r("first\nsecond\n", {100});
    Str line;
    ASSERT_TRUE(r.readline(line));
    EXPECT_DEATH(r.seek_set(r.curPos() - 1), "offset >= curPos\\(\\)");
}

// ---------------------------------------------------------------- descriptors

std::string numberedLines(int count) {
    std::string data;
    for (int i = 0; i < count; ++i) data += "row " + std::to_string(i) + "\r\n";
    return data;
}

TEST(FileDescriptorLineReader, SeeksOnFilesAndReadsForwardOnPipes) {
    ScratchDir dir;
    const std::string data = numberedLines(20000);
    testsupport::writeFile(dir / "f", data);
    const file_offset_t inBuffer = static_cast<file_offset_t>(data.find("row 10\r"));
    const file_offset_t far = static_cast<file_offset_t>(data.find("row 15000\r"));

    FileDescriptorLineReader file{Pathname(dir / "f")};
    PipeFeeder feed(data);
    FileDescriptor pipeFd(feed.fd());
    FileDescriptorLineReader pipe(pipeFd);
    for (LineReader* r : {static_cast<LineReader*>(&file), static_cast<LineReader*>(&pipe)}) {
        Str line;
        ASSERT_TRUE(r->readline(line));
        EXPECT_EQ(line, "row 0");
        ASSERT_TRUE(r->seek_set(inBuffer));
        ASSERT_TRUE(r->readline(line));
        EXPECT_EQ(line, "row 10");
        ASSERT_TRUE(r->seek_set(far));
        EXPECT_EQ(r->curPos(), far);
        ASSERT_TRUE(r->readline(line));
        EXPECT_EQ(line, "row 15000");
        EXPECT_EQ(r->curPos(), far + 11);
    }
    EXPECT_FALSE(pipe.seek_set(static_cast<file_offset_t>(data.size()) + 1));
    EXPECT_FALSE(pipe.rewind());
    EXPECT_TRUE(file.seek_set(static_cast<file_offset_t>(data.size()) + 1));  // lseek allows it
    Str line;
    EXPECT_FALSE(file.readline(line));
    ASSERT_TRUE(file.rewind());
    EXPECT_EQ(file.curPos(), 0);
    EXPECT_EQ(drain(file), expectedLines(data));
}

TEST(FileDescriptorLineReader, ALentDescriptorIsReadFromWhereItStands) {
    ScratchDir dir;
    testsupport::writeFile(dir / "f", "header\nbody 1\nbody 2\n");
    ScopedFileDescriptor fd{Pathname(dir / "f")};
    ASSERT_TRUE(fd.seek_set(7));
    {
        FileDescriptorLineReader r(fd);
        EXPECT_EQ(r.curPos(), 7);
        Str line;
        ASSERT_TRUE(r.readline(line));
        EXPECT_EQ(line, "body 1");
        EXPECT_EQ(r.curPos(), 14);
        EXPECT_TRUE(r.close());
        EXPECT_FALSE(r.valid());
        EXPECT_FALSE(r.readline(line));
    }
    // Closing the reader only forgot the descriptor.
    EXPECT_NE(fcntl(fd.fd(), F_GETFD), -1);
    FileDescriptorLineReader fromStart(fd, true);
    EXPECT_EQ(drain(fromStart), Lines({"header", "body 1", "body 2"}));
}

TEST(FileDescriptorLineReader, ALineFromAPipeComesBeforeTheWriterCloses) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    std::atomic<bool> lineSeen{false};
    bool seenBeforeClose = false;
    std::thread writer([&] {
        EXPECT_EQ(write(p[1], "first\nsec", 9), 9);
        // Waits for the reader, but not for ever: a reader that waits for a
        // full buffer gets its line once the pipe closes, and fails below.
        seenBeforeClose = testsupport::waitUntil([&] { return lineSeen.load(); }, 20);
        ::close(p[1]);
    });
    FileDescriptor fd(p[0]);
    FileDescriptorLineReader r(fd);
    Str line;
    EXPECT_TRUE(r.readline(line));
    lineSeen = true;
    EXPECT_EQ(line, "first");
    EXPECT_TRUE(r.readline(line));
    EXPECT_EQ(line, "sec");
    writer.join();
    EXPECT_TRUE(seenBeforeClose);
    ::close(p[0]);
}

TEST(FileStarLineReader, RewindsSeeksAndKeepsALentStream) {
    ScratchDir dir;
    testsupport::writeFile(dir / "f", "alpha\r\nbeta\ngamma\r");
    FileStar f;
    ASSERT_TRUE(f.open(Pathname(dir / "f"), "r"));
    Str line;
    ASSERT_TRUE(f.readline(line));
    {
        FileStarLineReader fromHere(f);
        EXPECT_EQ(fromHere.curPos(), 7);
        EXPECT_EQ(drain(fromHere), Lines({"beta", "gamma"}));
        FileStarLineReader again(f, true);
        EXPECT_EQ(drain(again), Lines({"alpha", "beta", "gamma"}));
        EXPECT_TRUE(again.seek_set(2));
        ASSERT_TRUE(again.readline(line));
        EXPECT_EQ(line, "pha");
        EXPECT_TRUE(again.close());
        EXPECT_FALSE(again.readline(line));
    }
    EXPECT_TRUE(f.close());  // still open: the readers only borrowed it
}

// ---------------------------------------------------------------- gzip

TEST(GZLineReader, ReadsForwardAndRewindsToTheDataStart) {
    ScratchDir dir;
    const std::string data = numberedLines(30000);
    testsupport::writeFile(dir / "f", data);
    gzipFile(dir / "f");
    const file_offset_t far = static_cast<file_offset_t>(data.find("row 20000\r"));

    // The gzip data after a few bytes of something else, as inside a bigger file.
    const std::string gz = testsupport::readFile(dir / "f.gz");
    testsupport::writeFile(dir / "outer", "junk" + gz);
    ScopedFileDescriptor fd{Pathname(dir / "outer")};
    ASSERT_TRUE(fd.seek_set(4));
    GZLineReader r(fd);
    Str line;
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, "row 0");
    ASSERT_TRUE(r.seek_set(far));
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, "row 20000");
    EXPECT_EQ(r.curPos(), far + 11);
    ASSERT_TRUE(r.rewind());
    EXPECT_EQ(r.curPos(), 0);
    EXPECT_EQ(drain(r), expectedLines(data));
    EXPECT_FALSE(r.seek_set(static_cast<file_offset_t>(data.size()) + 1));
}

TEST(GZLineReader, BrokenDataEndsTheLines) {
    ScratchDir dir;
    testsupport::writeFile(dir / "plain", "not gzip at all\nsecond\n");
    GZLineReader plain{Pathname(dir / "plain")};
    EXPECT_TRUE(plain.valid());
    EXPECT_EQ(drain(plain), Lines{});

    const std::string data = numberedLines(20000);
    testsupport::writeFile(dir / "f", data);
    gzipFile(dir / "f");
    const std::string gz = testsupport::readFile(dir / "f.gz");
    testsupport::writeFile(dir / "cut.gz", gz.substr(0, gz.size() / 2));
    GZLineReader cut{Pathname(dir / "cut.gz")};
    const Lines got = drain(cut);
    ASSERT_GT(got.size(), 100u);
    const Lines all = expectedLines(data);
    ASSERT_LT(got.size(), all.size());
    // Whole lines up to the break; the last one may be cut short.
    for (size_t i = 0; i + 1 < got.size(); ++i) ASSERT_EQ(got[i], all[i]) << i;
    EXPECT_EQ(all[got.size() - 1].compare(0, got.back().size(), got.back()), 0);
}

// ---------------------------------------------------------------- Unicode

std::string python(const std::string& script) {
    const auto r = runProcess({"/usr/bin/python3", "-c", script});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    return r.out;
}

TEST(ReadableUnicodeFileStarLineReader, ReadsEveryEncodingAsUtf8) {
    ScratchDir dir;
    const std::string path = dir / "u";
    struct Encoded {
        const char* codec;
        int encoding;
    };
    // Python writes a mark for "utf-16" and "utf-32" (native order), none
    // for "utf-16-be", where one is put in front: without a mark the
    // detection says UTF-8.
    const Encoded encodings[] = {
        {"utf-16", UTRANS_UTF16LE | UTRANS_BOM}, {"utf-16-be", UTRANS_UTF16BE | UTRANS_BOM},
        {"utf-32", UTRANS_UTF32LE | UTRANS_BOM}, {"utf-32-be", UTRANS_UTF32BE | UTRANS_BOM},
        {"utf-8-sig", UTRANS_UTF8 | UTRANS_BOM}, {"utf-8", UTRANS_UTF8},
    };
    const std::string text = "caf\\u00e9\\r\\n\\u20ac and \\U0001f600\\n\\r\\nend\\r";
    for (const Encoded& e : encodings) {
        const std::string codec = e.codec;
        const std::string mark = codec.ends_with("-be") ? "'\\ufeff' + " : "";
        python("open('" + path + "', 'wb').write((" + mark + "'" + text + "').encode('" + codec +
               "'))");
        ReadableUnicodeFileStarLineReader r{Pathname(path)};
        EXPECT_EQ(r.getEncoding(), 0);
        Str line;
        ASSERT_TRUE(r.readline(line));
        EXPECT_EQ(r.getEncoding(), e.encoding) << e.codec;
        EXPECT_EQ(line, "caf\xc3\xa9") << e.codec;
        EXPECT_EQ(drain(r), Lines({"\xe2\x82\xac and \xf0\x9f\x98\x80", "", "end"})) << e.codec;
        ASSERT_TRUE(r.rewind());
        ASSERT_TRUE(r.readline(line));
        EXPECT_EQ(line, "caf\xc3\xa9") << e.codec;
    }
    StringLineReader bytes{StrSegment("x")};
    EXPECT_EQ(bytes.getEncoding(), UTRANS_UNKNOWN);
}

// ---------------------------------------------------------------- strings

TEST(StringLineReader, SegmentsPointIntoTheTextWithoutAllocating) {
    const std::string text = "first\r\n\nthird\r";
    StringLineReader r{StrSegment(text)};
    StrSegment line;
    std::vector<std::pair<size_t, size_t>> spans;
    spans.reserve(8);
    {
        alloccounter::Scope scope;
        while (r.readline(line)) spans.emplace_back(line._data - text.data(), line._len);
        if (alloccounter::available()) {
            EXPECT_EQ(scope.allocations(), 0);
        }
    }
    EXPECT_EQ(spans, (std::vector<std::pair<size_t, size_t>>{{0, 5}, {7, 0}, {8, 5}}));
    EXPECT_FALSE(r.seek_set(static_cast<file_offset_t>(text.size()) + 1));
    EXPECT_FALSE(r.seek_set(-1));
    ASSERT_TRUE(r.seek_set(2));  // backwards is fine in memory
    Str copy = "stale";
    ASSERT_TRUE(r.readline(copy));
    EXPECT_EQ(copy, "rst");
    EXPECT_TRUE(r.rewind());
    EXPECT_EQ(r.curPos(), 0);
    EXPECT_TRUE(r.seek_set(static_cast<file_offset_t>(text.size())));
    EXPECT_FALSE(r.readline(copy));
    EXPECT_TRUE(copy.empty());
}

// ---------------------------------------------------------------- AppendStr

TEST(AppendStrLineReader, LinesRunAcrossChunksAndFollowAppends) {
    const size_t C = AppendStr::CHUNK_SIZE;
    AppendStr text;
    // An LF as the last byte of the first chunk, a CR LF split by the
    // second chunk's end, and a line spanning the whole third chunk.
    text.append(std::string(C - 1, 'a').data(), C - 1);
    text.append("\n", 1);
    text.append(std::string(C - 1, 'b').data(), C - 1);
    text.append("\r\n", 2);
    const std::string spanning = std::string(C + 10, 'c');
    text.append(spanning.data(), spanning.size());
    text.append("\ntail", 5);
    ASSERT_EQ(text.iovec().size(), 4u);

    AppendStrLineReader r(text);
    Str line;
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, std::string(C - 1, 'a'));
    EXPECT_EQ(r.curPos(), static_cast<file_offset_t>(C));
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, std::string(C - 1, 'b'));
    EXPECT_EQ(r.curPos(), static_cast<file_offset_t>(2 * C + 1));
    ASSERT_TRUE(r.readline(line));
    EXPECT_TRUE(line == spanning) << line.size();
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, "tail");
    EXPECT_FALSE(r.readline(line));

    // What is appended after the end is read on, the unfinished line whole.
    text.append(StrSegment(" continued\r\nnext\r"));
    ASSERT_TRUE(r.seek_set(r.curPos() - 4));
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, "tail continued");
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, "next");
    EXPECT_FALSE(r.readline(line));
    EXPECT_TRUE(line.empty());

    EXPECT_FALSE(r.seek_set(static_cast<file_offset_t>(text.size()) + 1));
    EXPECT_FALSE(r.seek_set(-1));
    ASSERT_TRUE(r.seek_set(static_cast<file_offset_t>(C - 3)));  // backwards
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, "aa");
    EXPECT_TRUE(r.rewind());
    EXPECT_EQ(r.curPos(), 0);
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line.size(), C - 1);

    AppendStr empty;
    AppendStrLineReader none(empty);
    EXPECT_FALSE(none.readline(line));
    EXPECT_EQ(none.getEncoding(), UTRANS_UNKNOWN);
}

// ---------------------------------------------------------------- limited

TEST(LimitedLineReader, StopsAtTheLimitInsideALongerFile) {
    ScratchDir dir;
    std::string body;
    for (int i = 0; body.size() < 3 * LimitedLineReader::READ_SIZE; ++i) {
        body += "body line " + std::to_string(i) + "\r\n";
    }
    const std::string data = "HEAD\n" + body + "after the body\n";
    testsupport::writeFile(dir / "f", data);
    for (size_t cut : {body.size(), body.size() - 3, LimitedLineReader::READ_SIZE,
                       LimitedLineReader::READ_SIZE + 1, size_t{0}}) {
        ScopedFileDescriptor fd{Pathname(dir / "f")};
        ASSERT_TRUE(fd.seek_set(5));
        LimitedLineReader r(fd, cut);
        EXPECT_EQ(drain(r), limitedLines(body.substr(0, cut))) << cut;
        // Exactly the limit was taken: the rest of the file follows.
        EXPECT_EQ(fd.curPos(), static_cast<long>(5 + cut)) << cut;
    }
}

TEST(LimitedLineReader, AShortSourceIsAnError) {
    ScratchDir dir;
    std::string data;
    for (int i = 0; data.size() < LimitedLineReader::READ_SIZE + 500; ++i) {
        data += "entry " + std::to_string(i) + "\n";
    }
    testsupport::writeFile(dir / "f", data);
    ScopedFileDescriptor fd{Pathname(dir / "f")};
    LimitedLineReader r(fd, data.size() + 100);
    const Lines inFirstRead = limitedLines(data.substr(0, data.rfind('\n', 8191) + 1));
    testing::internal::CaptureStderr();
    const Lines got = drain(r);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(got, inFirstRead);
    const size_t secondRead = data.size() + 100 - LimitedLineReader::READ_SIZE;
    EXPECT_NE(err.find("ERROR"), std::string::npos) << err;
    EXPECT_NE(
        err.find("failed to read bytes=" + std::to_string(secondRead) + " from underlying reader"),
        std::string::npos)
        << err;
}

// ---------------------------------------------------------------- invalid sources

TEST(LineReaderSources, InvalidSourcesGiveNoLines) {
    ScratchDir dir;
    const Pathname missing(dir / "missing");
    std::vector<std::unique_ptr<LineReader>> readers;
    errno = 0;
    readers.push_back(std::make_unique<FileDescriptorLineReader>(missing));
    EXPECT_EQ(errno, ENOENT);
    readers.push_back(std::make_unique<FileStarLineReader>(missing));
    readers.push_back(std::make_unique<GZLineReader>(missing));
    readers.push_back(std::make_unique<ReadableUnicodeFileStarLineReader>(missing));
    FileDescriptor none;
    FileStar noStream;
    readers.push_back(std::make_unique<FileDescriptorLineReader>(none, true));
    readers.push_back(std::make_unique<FileStarLineReader>(noStream, true));
    readers.push_back(std::make_unique<GZLineReader>(none));
    readers.push_back(std::make_unique<ReadableUnicodeFileStarLineReader>(noStream));
    readers.push_back(std::make_unique<LimitedLineReader>(none, 100));
    for (auto& r : readers) {
        EXPECT_FALSE(r->valid());
        Str line = "stale";
        EXPECT_FALSE(r->readline(line));
        EXPECT_TRUE(line.empty());
        Timeval t;
        EXPECT_FALSE(r->getMtime(&t));
        EXPECT_FALSE(r->rewind());
        EXPECT_TRUE(r->close());
    }
}

}  // namespace
