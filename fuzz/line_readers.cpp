// Every line reader over the same arbitrary bytes, cut into arbitrary reads:
// all hand out the lines StringLineReader finds (the limited reader by its
// own rule, which keeps CRs), seeking forward lands on the same place in each,
// and nothing breaks on data that is not gzip or not UTF-8.
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "util/LineReader.h"

namespace {

using Lines = std::vector<std::string>;

// A buffered reader over memory whose reads come in the given sizes, in
// turn; it can't seek, so seek_set reads forward.
class PieceReader : public BufferedLineReader {
public:
    PieceReader(const std::string& data, const std::vector<size_t>& sizes)
        : _data(data), _sizes(sizes) {}

protected:
    ssize_t do_read(void* buf, size_t size) override {
        FUZZ_CHECK(size > 0 && size <= BUFFER_SIZE);
        const size_t n = std::min({size, _sizes[_reads++ % _sizes.size()], _data.size() - _at});
        memcpy(buf, _data.data() + _at, n);
        _at += n;
        return static_cast<ssize_t>(n);
    }
    int seekDirectly(file_offset_t) override { return SEEK_UNSUPPORTED; }

private:
    const std::string& _data;
    const std::vector<size_t>& _sizes;
    size_t _reads = 0;
    size_t _at = 0;
};

Lines drain(LineReader& r, size_t bound) {
    Lines out;
    Str line;
    while (r.readline(line)) {
        out.push_back(line);
        FUZZ_CHECK(out.size() <= bound);
    }
    FUZZ_CHECK(line.empty());
    FUZZ_CHECK(!r.readline(line));
    return out;
}

Lines limitedLines(const std::string& data) {
    Lines out;
    size_t from = 0;
    for (size_t nl; (nl = data.find('\n', from)) != std::string::npos; from = nl + 1) {
        out.push_back(data.substr(from, nl - from));
    }
    if (from < data.size()) out.push_back(data.substr(from));
    return out;
}

// A descriptor on an anonymous file holding `data`, at offset 0.
int memoryFile(const std::string& data) {
    const int fd = memfd_create("line_readers", MFD_CLOEXEC);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(FileDescriptor(fd).write(data.data(), data.size()) ==
               static_cast<ssize_t>(data.size()));
    FUZZ_CHECK(lseek(fd, 0, SEEK_SET) == 0);
    return fd;
}

// The lines after seeking to `offset` once the first line has been read.
Lines afterSeek(LineReader& r, file_offset_t offset, size_t bound) {
    Str line;
    if (!r.readline(line)) return {};
    const file_offset_t to = std::max(offset, r.curPos());
    FUZZ_CHECK(r.seek_set(to));
    FUZZ_CHECK(r.curPos() == to);
    return drain(r, bound);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Header: copies of the text, a seek offset, a limit, then the read sizes.
    if (size < 5) return 0;
    const size_t copies = data[0] % 8 + 1;
    const size_t seekSelector = data[1] | size_t{data[2]} << 8;
    const size_t limitSelector = data[3] | size_t{data[4]} << 8;
    const size_t sizeCount = size > 5 ? data[5] % 8 + 1 : 1;
    std::vector<size_t> sizes;
    size_t at = 6;
    for (; sizes.size() < sizeCount && at < size; ++at) {
        // 0 asks for as much as the buffer takes.
        sizes.push_back(data[at] == 0 ? BufferedLineReader::BUFFER_SIZE : data[at]);
    }
    if (sizes.empty()) sizes.push_back(1);
    std::string text;
    for (size_t i = 0; i < copies; ++i) {
        text.append(reinterpret_cast<const char*>(data) + std::min(at, size),
                    size - std::min(at, size));
    }
    const size_t bound = text.size() + 1;

    StringLineReader reference{StrSegment(text)};
    Lines expected;
    for (StrSegment seg; reference.readline(seg);) {
        FUZZ_CHECK(seg._data >= text.data() && seg._data + seg._len <= text.data() + text.size());
        expected.emplace_back(seg._data, seg._len);
        FUZZ_CHECK(expected.size() <= bound);
    }
    FUZZ_CHECK(reference.curPos() == static_cast<file_offset_t>(text.size()));
    FUZZ_CHECK(reference.rewind());
    FUZZ_CHECK(drain(reference, bound) == expected);

    PieceReader pieces(text, sizes);
    FUZZ_CHECK(drain(pieces, bound) == expected);
    FUZZ_CHECK(pieces.curPos() == static_cast<file_offset_t>(text.size()));

    AppendStr chunks;
    chunks.append(text.data(), text.size());
    AppendStrLineReader inChunks(chunks);
    FUZZ_CHECK(drain(inChunks, bound) == expected);
    FUZZ_CHECK(inChunks.curPos() == static_cast<file_offset_t>(text.size()));

    const int fd = memoryFile(text);
    {
        FileDescriptor lent(fd);
        FileDescriptorLineReader r(lent);
        FUZZ_CHECK(drain(r, bound) == expected);
        FUZZ_CHECK(r.rewind());
        FUZZ_CHECK(drain(r, bound) == expected);
    }

    // Seeking forward: through the source, by reading forward, in memory.
    const file_offset_t offset = static_cast<file_offset_t>(seekSelector % (text.size() + 1));
    {
        StringLineReader s{StrSegment(text)};
        const Lines want = afterSeek(s, offset, bound);
        FileDescriptor lent(fd);
        FileDescriptorLineReader r(lent, true);
        FUZZ_CHECK(afterSeek(r, offset, bound) == want);
        PieceReader p(text, sizes);
        FUZZ_CHECK(afterSeek(p, offset, bound) == want);
        FUZZ_CHECK(inChunks.rewind());
        FUZZ_CHECK(afterSeek(inChunks, offset, bound) == want);
    }

    if (!text.empty()) {
        FILE* f = fmemopen(text.data(), text.size(), "r");
        FUZZ_CHECK(f != nullptr);
        ScopedFileStar star(f);
        FileStarLineReader r(star);
        FUZZ_CHECK(drain(r, bound) == expected);

        FUZZ_CHECK(fseek(f, 0, SEEK_SET) == 0);
        ReadableUnicodeFileStarLineReader u(star);
        const Lines decoded = drain(u, bound);
        for (const std::string& line : decoded) {
            FUZZ_CHECK(mem_is_valid_utf8(line.data(), line.size()));
        }
        // Valid UTF-8 without a byte-order mark reads as the bytes.
        const bool plain = mem_is_valid_utf8(text.data(), text.size()) &&
                           text.find("\xef\xbb\xbf") == std::string::npos;
        if (plain) FUZZ_CHECK(decoded == expected);
    }

    // The text compressed, and the text taken for gzip as it stands.
    {
        const int gz = memfd_create("line_readers_gz", MFD_CLOEXEC);
        FUZZ_CHECK(gz >= 0);
        {
            WritableGzipFileDescriptor w(FileDescriptor(gz), 1, 4096);
            FUZZ_CHECK(w.write(text.data(), text.size()));
            FUZZ_CHECK(w.finish());
        }
        FUZZ_CHECK(lseek(gz, 0, SEEK_SET) == 0);
        GZLineReader r{FileDescriptor(gz)};
        FUZZ_CHECK(drain(r, bound) == expected);
        FUZZ_CHECK(r.rewind());
        FUZZ_CHECK(drain(r, bound) == expected);
        close(gz);

        FUZZ_CHECK(lseek(fd, 0, SEEK_SET) == 0);
        GZLineReader raw{FileDescriptor(fd)};
        drain(raw, bound * 1100);  // deflate expands at most 1032:1
    }

    // Up to the limit by the limited reader's rule; past the end of the data,
    // the lines of the reads that came whole, then the end.
    {
        const size_t limit = limitSelector % (text.size() + 2 * LimitedLineReader::READ_SIZE);
        FUZZ_CHECK(lseek(fd, 0, SEEK_SET) == 0);
        LimitedLineReader r(FileDescriptor(fd), limit);
        if (limit <= text.size()) {
            FUZZ_CHECK(drain(r, bound) == limitedLines(text.substr(0, limit)));
            FUZZ_CHECK(lseek(fd, 0, SEEK_CUR) == static_cast<off_t>(limit));
        } else {
            // The short read complains on standard error.
            const int savedStderr = dup(STDERR_FILENO);
            const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(devnull, STDERR_FILENO);
            const Lines got = drain(r, bound);
            dup2(savedStderr, STDERR_FILENO);
            close(savedStderr);
            close(devnull);
            const size_t whole =
                text.size() / LimitedLineReader::READ_SIZE * LimitedLineReader::READ_SIZE;
            const std::string complete = text.substr(0, whole);
            const size_t end = complete.rfind('\n');
            Lines want;
            if (end != std::string::npos) want = limitedLines(complete.substr(0, end + 1));
            FUZZ_CHECK(got == want);
        }
    }

    close(fd);
    return 0;
}
