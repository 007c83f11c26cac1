// The Unicode file reader on arbitrary bytes, behind each byte-order mark:
// it ends, hands out only valid UTF-8 lines and code points, and what it
// decoded reads back the same after the writer encodes it again.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "libzero/unicode-file-reader.h"
#include "libzero/unicode-file-writer.h"
#include "util/Str.h"

namespace {

struct Source {
    const std::string* data;
    size_t pos = 0;
    static int read(void* self) {
        Source* s = static_cast<Source*>(self);
        return s->pos < s->data->size() ? static_cast<uint8_t>((*s->data)[s->pos++]) : -1;
    }
};

struct Sink {
    std::string data;
    static int write(void* self, uint8_t byte) {
        static_cast<Sink*>(self)->data.push_back(static_cast<char>(byte));
        return 0;
    }
};

std::vector<int32_t> codepoints(const std::string& bytes, int* encoding) {
    Source source{&bytes};
    utrans_reader r;
    utrans_read_start(&r, Source::read, &source);
    std::vector<int32_t> out;
    for (int32_t cp; (cp = utrans_read_codepoint(&r)) != UTRANS_EOF;) {
        FUZZ_CHECK(cp >= 0 && cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF));
        out.push_back(cp);
        FUZZ_CHECK(out.size() <= bytes.size());
    }
    *encoding = r._encoding;
    utrans_read_end(&r);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const marks[] = {"",         "\xEF\xBB\xBF", "\xFF\xFE",
                                        "\xFE\xFF", "\xFF\xFE\0\0", "\0\0\xFE\xFF"};
    static const size_t markLengths[] = {0, 3, 2, 2, 4, 4};
    if (size < 1) return 0;
    const unsigned m = data[0] % 6;
    std::string bytes(marks[m], markLengths[m]);
    bytes.append(reinterpret_cast<const char*>(data) + 1, size - 1);

    // Lines: each takes at least one byte, none holds a LF, all are valid.
    Source source{&bytes};
    utrans_reader r;
    utrans_read_start(&r, Source::read, &source);
    size_t lines = 0, total = 0, n = 0;
    while (const char* line = utrans_readline_utf8(&r, &n)) {
        FUZZ_CHECK(++lines <= bytes.size());
        FUZZ_CHECK(mem_is_valid_utf8(line, n));
        FUZZ_CHECK(memchr(line, '\n', n) == nullptr && line[n] == '\0');
        total += n;
    }
    FUZZ_CHECK(!r._out_of_memory && total <= 3 * bytes.size());
    FUZZ_CHECK(r._lf_lines + r._crlf_lines <= lines);
    FUZZ_CHECK(r._crlf == (r._crlf_lines > 0));
    utrans_read_end(&r);

    // Encoded again in the same encoding, the code points read back alike,
    // unless the new text happens to look like another encoding.
    int encoding = 0;
    const std::vector<int32_t> first = codepoints(bytes, &encoding);
    Sink sink;
    utrans_writer w;
    utrans_write_start(&w, encoding, Sink::write, &sink);
    for (int32_t cp : first) FUZZ_CHECK(utrans_write_codepoint(&w, static_cast<uint32_t>(cp)) == 0);
    FUZZ_CHECK(w._invalid == 0);
    int again = 0;
    const std::vector<int32_t> second = codepoints(sink.data, &again);
    if ((again & UTRANS_ENCODING_MASK) == (encoding & UTRANS_ENCODING_MASK)) {
        FUZZ_CHECK(second == first);
    }
    return 0;
}
