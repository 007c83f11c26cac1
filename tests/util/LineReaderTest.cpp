#include "util/LineReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/AllocCounter.h"
#include "support/Oracles.h"
#include "support/TestSupport.h"

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

std::string joined(const Lines& lines) {
    std::string s;
    for (const std::string& line : lines) s += line + "|";
    return s;
}

// The next line, or "<end>".
std::string nextLine(LineReader& r) {
    Str line;
    return r.readline(line) ? std::string(line) : "<end>";
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

std::string gzipped(const std::string& path) {
    EXPECT_EQ(testsupport::runProcess({"/bin/sh", "-c", "gzip -k -f '" + path + "'"}).exitStatus,
              0);
    return path + ".gz";
}

// Every line a reader of type R over `args` gives.
template <class R, class... A>
Lines readAll(A&&... args) {
    R r(args...);
    return drain(r);
}

// A reader of each kind over a file that holds `data`, or over a pipe fed with
// it; a pipe's feeder lives to the end of the read.
using S = const std::string&;
template <class R>
Lines overPath(S, S path) {
    return readAll<R>(Pathname(path));
}
template <class R>
Lines overPipe(S data, S) {
    return readAll<R>(FileDescriptor(PipeFeeder(data).fd()));
}
template <class R>
Lines overPipeStream(S data, S) {
    return readAll<R>(ScopedFileStar(fdopen(dup(PipeFeeder(data).fd()), "r")));
}
struct Kind {
    const char* name;
    bool limited;  // LimitedLineReader keeps CRs
    std::function<Lines(S data, S path)> read;
};
const Kind kKinds[] = {
    {"string", false, [](S data, S) { return readAll<StringLineReader>(StrSegment(data)); }},
    {"FILE* file", false, overPath<FileStarLineReader>},
    {"FILE* pipe", false, overPipeStream<FileStarLineReader>},
    {"descriptor file", false, overPath<FileDescriptorLineReader>},
    {"descriptor pipe", false, overPipe<FileDescriptorLineReader>},
    {"gzip file", false, [](S, S path) { return overPath<GZLineReader>("", gzipped(path)); }},
    {"gzip pipe", false,
     [](S, S path) { return overPipe<GZLineReader>(testsupport::readFile(gzipped(path)), ""); }},
    {"unicode file", false, overPath<ReadableUnicodeFileStarLineReader>},
    {"unicode pipe", false, overPipeStream<ReadableUnicodeFileStarLineReader>},
    {"limited file", true,
     [](S data, S path) {
         return readAll<LimitedLineReader>(ScopedFileDescriptor{Pathname(path)}, data.size());
     }},
    {"limited pipe", true,
     [](S data, S) {
         return readAll<LimitedLineReader>(FileDescriptor(PipeFeeder(data).fd()), data.size());
     }},
};

// ---------------------------------------------------------------- every kind

// LimitedLineReader is held to limitedLines(), the others to the table; random
// texts, reads cut at every size (also between CR and LF) and AppendStr's
// reader held to the string reader are fuzz/line_readers.cpp's.
TEST(LineReaderKinds, EveryKindFollowsTheLineRule) {
    const size_t B = BufferedLineReader::BUFFER_SIZE;
    // The lines each end in "|".
    std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},          {"a", "a|"},         {"a\n", "a|"},     {"a\r\nb", "a|b|"},
        {"a\n\n", "a||"},  {"\r\n", "|"},       {"\n", "|"},       {"\r", "|"},
        {"a\r", "a|"},     {"a\r\r\n", "a\r|"}, {"a\r\r", "a\r|"}, {"a\rb\n", "a\rb|"},
        {"\n\nx", "||x|"},
    };
    // A CR as the last byte of the first buffer and the LF as the first of
    // the next, the same one byte later, and a CR at the very end of a
    // buffer-sized file; a line three buffers long.
    for (size_t crAt : {B - 2, B - 1, B}) {
        const std::string x(crAt, 'x');
        cases.push_back({x + "\r\ny\r", x + "|y|"});
    }
    std::string huge;
    for (size_t i = 0; huge.size() < 3 * B + 17; ++i) huge += static_cast<char>('a' + i % 26);
    cases.push_back({"short\n" + huge + "\r\nlast", "short|" + huge + "|last|"});

    ScratchDir dir;
    for (const auto& [data, lines] : cases) {
        const std::string shown = testing::PrintToString(data.substr(0, 40));
        ASSERT_EQ(joined(expectedLines(data)), lines)
            << "the oracle and the table disagree on " << shown;
        testsupport::writeFile(dir / "input", data);
        for (const Kind& k : kKinds) {
            const Lines got = k.read(data, dir / "input");
            ASSERT_TRUE(joined(got) == (k.limited ? joined(limitedLines(data)) : lines))
                << k.name << " on " << shown;
        }
    }
}

// ---------------------------------------------------------------- buffered reads

std::string numberedLines(int count) {
    std::string data;
    for (int i = 0; i < count; ++i) data += "row " + std::to_string(i) + "\r\n";
    return data;
}

TEST(BufferedLineReader, SeekWithinTheBufferReadsNothing) {
    const std::string data = "0123456789\nabcdef\nghij\n";
    ScriptedReader r(data, {1000});
    ASSERT_EQ(nextLine(r), "0123456789");
    const size_t readsBefore = r.reads;
    EXPECT_TRUE(r.seek_set(r.curPos()));  // where it stands already
    EXPECT_TRUE(r.seek_set(14));          // into "abcdef"
    EXPECT_EQ(r.curPos(), 14);
    EXPECT_EQ(nextLine(r), "def");
    EXPECT_TRUE(r.seek_set(static_cast<file_offset_t>(data.size())));  // the buffer's end
    EXPECT_EQ(r.reads, readsBefore);
    EXPECT_TRUE(r.seeks.empty());
    EXPECT_EQ(nextLine(r), "<end>");
}

// Beyond the buffer through the source and by reading forward are
// FileDescriptorLineReader's (files and pipes); here the source fails, and
// reading forward runs out before the offset.
TEST(BufferedLineReader, SeekBeyondTheBufferFails) {
    ScriptedReader failing(numberedLines(5000), {1000}, ScriptedReader::FAILED);
    EXPECT_FALSE(failing.seek_set(3 * BufferedLineReader::BUFFER_SIZE));
    EXPECT_EQ(failing.seeks, std::vector<file_offset_t>{3 * BufferedLineReader::BUFFER_SIZE});
    ScriptedReader shortOne("abc\n", {1000}, ScriptedReader::UNSUPPORTED);
    EXPECT_FALSE(shortOne.seek_set(BufferedLineReader::BUFFER_SIZE + 5));
    EXPECT_EQ(nextLine(shortOne), "<end>");
}

TEST(BufferedLineReaderDeathTest, SeekingBackwardsFailsAnAssertion) {
    ScriptedReader r("first\nsecond\n", {100});
    ASSERT_EQ(nextLine(r), "first");
    EXPECT_DEATH(r.seek_set(r.curPos() - 1), "offset >= curPos\\(\\)");
}

// ---------------------------------------------------------------- descriptors and streams

// From the first line to a line in the buffer, then to one far beyond it.
void expectSeeks(LineReader& r, const std::string& data, int far) {
    const std::string row = "row " + std::to_string(far);
    const file_offset_t at = static_cast<file_offset_t>(data.find(row + "\r"));
    ASSERT_EQ(nextLine(r), "row 0");
    ASSERT_TRUE(r.seek_set(static_cast<file_offset_t>(data.find("row 10\r"))));
    EXPECT_EQ(nextLine(r), "row 10");
    ASSERT_TRUE(r.seek_set(at));
    EXPECT_EQ(r.curPos(), at);
    EXPECT_EQ(nextLine(r), row);
    EXPECT_EQ(r.curPos(), at + static_cast<file_offset_t>(row.size()) + 2);
}

TEST(FileDescriptorLineReader, SeeksOnFilesAndReadsForwardOnPipes) {
    ScratchDir dir;
    const std::string data = numberedLines(20000);
    const file_offset_t past = static_cast<file_offset_t>(data.size()) + 1;
    testsupport::writeFile(dir / "f", data);
    FileDescriptorLineReader file{Pathname(dir / "f")};
    PipeFeeder feed(data);
    FileDescriptor pipeFd(feed.fd());
    FileDescriptorLineReader pipe(pipeFd);
    expectSeeks(file, data, 15000);
    expectSeeks(pipe, data, 15000);
    EXPECT_FALSE(pipe.seek_set(past));
    EXPECT_FALSE(pipe.rewind());
    EXPECT_TRUE(file.seek_set(past));  // lseek allows it
    EXPECT_EQ(nextLine(file), "<end>");
    ASSERT_TRUE(file.rewind());
    EXPECT_EQ(file.curPos(), 0);
    EXPECT_EQ(drain(file), expectedLines(data));
}

// A lent source is read from where it stands, or from its start when asked;
// closing the reader only forgets it.
TEST(LineReaderLentSources, StayTheLenders) {
    ScratchDir dir;
    testsupport::writeFile(dir / "f", "header\nbody 1\nbody 2\n");
    ScopedFileDescriptor fd{Pathname(dir / "f")};
    ASSERT_TRUE(fd.seek_set(7));
    {
        FileDescriptorLineReader r(fd);
        EXPECT_EQ(r.curPos(), 7);
        EXPECT_EQ(nextLine(r), "body 1");
        EXPECT_EQ(r.curPos(), 14);
        EXPECT_TRUE(r.close());
        EXPECT_FALSE(r.valid());
        EXPECT_EQ(nextLine(r), "<end>");
    }
    EXPECT_NE(fcntl(fd.fd(), F_GETFD), -1);
    FileDescriptorLineReader fromStart(fd, true);
    EXPECT_EQ(drain(fromStart), Lines({"header", "body 1", "body 2"}));

    testsupport::writeFile(dir / "g", "alpha\r\nbeta\ngamma\r");
    FileStar f;
    ASSERT_TRUE(f.open(Pathname(dir / "g"), "r"));
    Str line;
    ASSERT_TRUE(f.readline(line));
    {
        FileStarLineReader fromHere(f);
        EXPECT_EQ(fromHere.curPos(), 7);
        EXPECT_EQ(drain(fromHere), Lines({"beta", "gamma"}));
        FileStarLineReader again(f, true);
        EXPECT_EQ(drain(again), Lines({"alpha", "beta", "gamma"}));
        EXPECT_TRUE(again.seek_set(2));  // backwards
        EXPECT_EQ(nextLine(again), "pha");
        EXPECT_TRUE(again.close());
        EXPECT_EQ(nextLine(again), "<end>");
    }
    EXPECT_TRUE(f.close());
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
    EXPECT_EQ(nextLine(r), "first");
    lineSeen = true;
    EXPECT_EQ(nextLine(r), "sec");
    writer.join();
    EXPECT_TRUE(seenBeforeClose);
    ::close(p[0]);
}

// ---------------------------------------------------------------- gzip

TEST(GZLineReader, ReadsForwardAndRewindsToTheDataStartAndStopsAtBrokenData) {
    ScratchDir dir;
    const std::string data = numberedLines(30000);
    testsupport::writeFile(dir / "f", data);
    const std::string gz = testsupport::readFile(gzipped(dir / "f"));
    // The gzip data after a few bytes of something else, as inside a bigger file.
    testsupport::writeFile(dir / "outer", "junk" + gz);
    ScopedFileDescriptor fd{Pathname(dir / "outer")};
    ASSERT_TRUE(fd.seek_set(4));
    GZLineReader r(fd);
    expectSeeks(r, data, 20000);
    ASSERT_TRUE(r.rewind());
    EXPECT_EQ(r.curPos(), 0);
    const Lines all = drain(r);
    EXPECT_EQ(all, expectedLines(data));
    EXPECT_FALSE(r.seek_set(static_cast<file_offset_t>(data.size()) + 1));

    testsupport::writeFile(dir / "plain", "not gzip at all\nsecond\n");
    GZLineReader plain{Pathname(dir / "plain")};
    EXPECT_TRUE(plain.valid());
    EXPECT_EQ(drain(plain), Lines{});
    // Whole lines up to the break; the last one may be cut short.
    testsupport::writeFile(dir / "cut.gz", gz.substr(0, gz.size() / 2));
    GZLineReader cut{Pathname(dir / "cut.gz")};
    const Lines got = drain(cut);
    ASSERT_GT(got.size(), 100u);
    ASSERT_LT(got.size(), all.size());
    for (size_t i = 0; i + 1 < got.size(); ++i) ASSERT_EQ(got[i], all[i]) << i;
    EXPECT_EQ(all[got.size() - 1].compare(0, got.back().size(), got.back()), 0);
}

// ---------------------------------------------------------------- Unicode

TEST(ReadableUnicodeFileStarLineReader, ReadsEveryEncodingAsUtf8) {
    ScratchDir dir;
    const std::string path = dir / "u";
    const std::string bom = "\xEF\xBB\xBF";
    const std::string text = "caf\xC3\xA9\r\n\xE2\x82\xAC and \xF0\x9F\x98\x80\n\r\nend\r";
    // The decoding of each encoding is libzero/UnicodeFileTest's; without a
    // mark the detection says UTF-8.
    const std::pair<std::string, int> encodings[] = {
        {oracle::fromUtf8(bom + text, "UTF-16BE"), UTRANS_UTF16BE | UTRANS_BOM},
        {oracle::fromUtf8(bom + text, "UTF-32LE"), UTRANS_UTF32LE | UTRANS_BOM},
        {text, UTRANS_UTF8},
    };
    for (const auto& [bytes, encoding] : encodings) {
        SCOPED_TRACE(encoding);
        testsupport::writeFile(path, bytes);
        ReadableUnicodeFileStarLineReader r{Pathname(path)};
        EXPECT_EQ(r.getEncoding(), 0);
        EXPECT_EQ(nextLine(r), "caf\xc3\xa9");
        EXPECT_EQ(r.getEncoding(), encoding);
        EXPECT_EQ(drain(r), Lines({"\xe2\x82\xac and \xf0\x9f\x98\x80", "", "end"}));
        ASSERT_TRUE(r.rewind());
        EXPECT_EQ(nextLine(r), "caf\xc3\xa9");
    }
}

// ---------------------------------------------------------------- memory

// Readers in memory seek anywhere in the text, backwards too, and no further.
void expectMemorySeeks(LineReader& r, size_t size, file_offset_t back, const char* lineThere,
                       const std::string& first) {
    EXPECT_FALSE(r.seek_set(static_cast<file_offset_t>(size) + 1));
    EXPECT_FALSE(r.seek_set(-1));
    ASSERT_TRUE(r.seek_set(back));
    Str line = "stale";
    ASSERT_TRUE(r.readline(line));
    EXPECT_EQ(line, lineThere);
    EXPECT_TRUE(r.rewind());
    EXPECT_EQ(r.curPos(), 0);
    EXPECT_TRUE(nextLine(r) == first);
    EXPECT_TRUE(r.seek_set(static_cast<file_offset_t>(size)));
    EXPECT_FALSE(r.readline(line));
    EXPECT_TRUE(line.empty());
}

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
    expectMemorySeeks(r, text.size(), 2, "rst", "first");
}

TEST(AppendStrLineReader, LinesRunAcrossChunksAndFollowAppends) {
    const size_t C = AppendStr::CHUNK_SIZE;
    AppendStr text;
    // An LF as the last byte of the first chunk, a CR LF split by the
    // second chunk's end, and a line spanning the whole third chunk.
    const std::string a(C - 1, 'a'), b(C - 1, 'b'), spanning(C + 10, 'c');
    for (const std::string& piece :
         {a, std::string("\n"), b, std::string("\r\n"), spanning, std::string("\ntail")}) {
        text.append(piece.data(), piece.size());
    }
    ASSERT_EQ(text.iovec().size(), 4u);

    AppendStrLineReader r(text);
    const std::pair<std::string, file_offset_t> lines[] = {
        {a, C}, {b, 2 * C + 1}, {spanning, 3 * C + 12}, {"tail", 3 * C + 16}};
    for (const auto& [want, pos] : lines) {
        EXPECT_TRUE(nextLine(r) == want);
        EXPECT_EQ(r.curPos(), pos);
    }
    EXPECT_EQ(nextLine(r), "<end>");
    // What is appended after the end is read on, the unfinished line whole.
    text.append(StrSegment(" continued\r\nnext\r"));
    ASSERT_TRUE(r.seek_set(r.curPos() - 4));
    EXPECT_EQ(drain(r), Lines({"tail continued", "next"}));
    expectMemorySeeks(r, text.size(), C - 3, "aa", a);

    AppendStr empty;
    AppendStrLineReader none(empty);
    EXPECT_EQ(nextLine(none), "<end>");
    EXPECT_EQ(none.getEncoding(), UTRANS_UNKNOWN);
}

// ---------------------------------------------------------------- limited

TEST(LimitedLineReader, StopsAtTheLimitInsideALongerFile) {
    ScratchDir dir;
    const std::string body = numberedLines(3000);
    ASSERT_GT(body.size(), 3 * LimitedLineReader::READ_SIZE);
    testsupport::writeFile(dir / "f", "HEAD\n" + body + "after the body\n");
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
    const std::string data = numberedLines(1000);
    ASSERT_GT(data.size(), LimitedLineReader::READ_SIZE + 500);
    testsupport::writeFile(dir / "f", data);
    ScopedFileDescriptor fd{Pathname(dir / "f")};
    LimitedLineReader r(fd, data.size() + 100);
    testing::internal::CaptureStderr();
    const Lines got = drain(r);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(got, limitedLines(data.substr(0, data.rfind('\n', 8191) + 1)));
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
    FileDescriptor none;
    FileStar noStream;
    errno = 0;
    auto first = std::make_unique<FileDescriptorLineReader>(missing);
    EXPECT_EQ(errno, ENOENT);
    std::unique_ptr<LineReader> readers[] = {
        std::move(first),
        std::make_unique<FileStarLineReader>(missing),
        std::make_unique<GZLineReader>(missing),
        std::make_unique<ReadableUnicodeFileStarLineReader>(missing),
        std::make_unique<FileDescriptorLineReader>(none, true),
        std::make_unique<FileStarLineReader>(noStream, true),
        std::make_unique<GZLineReader>(none),
        std::make_unique<ReadableUnicodeFileStarLineReader>(noStream),
        std::make_unique<LimitedLineReader>(none, 100),
    };
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
