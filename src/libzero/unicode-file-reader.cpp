#include "libzero/unicode-file-reader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libzero/assertion.h"
#include "libzero/ospath-builder.h"

int utrans_detect_encoding(const void* bytes, size_t n) {
    const uint8_t* b = static_cast<const uint8_t*>(bytes);
    if (n == 0) return UTRANS_UNKNOWN;

    if (n >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) return UTRANS_UTF8 | UTRANS_BOM;
    if (n >= 4 && b[0] == 0x00 && b[1] == 0x00 && b[2] == 0xFE && b[3] == 0xFF) {
        return UTRANS_UTF32BE | UTRANS_BOM;
    }
    // FF FE 00 00 is also a UTF-16LE mark before a U+0000, so UTF-32LE must
    // prove itself on the units that follow.
    if (n >= 8 && b[0] == 0xFF && b[1] == 0xFE && b[2] == 0x00 && b[3] == 0x00) {
        bool plausible = true;
        for (size_t i = 4; i + 4 <= n; i += 4) {
            const uint32_t unit = uint32_t{b[i]} | uint32_t{b[i + 1]} << 8 |
                                  uint32_t{b[i + 2]} << 16 | uint32_t{b[i + 3]} << 24;
            if (unit > 0x10FFFF || (i == 4 && unit == 0)) {
                plausible = false;
                break;
            }
        }
        if (plausible) return UTRANS_UTF32LE | UTRANS_BOM;
    }
    if (n >= 2 && b[0] == 0xFE && b[1] == 0xFF) return UTRANS_UTF16BE | UTRANS_BOM;
    if (n >= 2 && b[0] == 0xFF && b[1] == 0xFE) return UTRANS_UTF16LE | UTRANS_BOM;

    if (n < 8) return UTRANS_UTF8;

    size_t evenZeros = 0, oddZeros = 0;
    for (size_t i = 0; i < n; ++i) {
        if (b[i] == 0) ++(i % 2 ? oddZeros : evenZeros);
    }
    // Odd positions are only half of the text, so the first test never holds.
    if (oddZeros * 3 > n * 2 && evenZeros * 2 < n) return UTRANS_UTF16LE;
    return UTRANS_UTF8;
}

namespace {

int readStdio(void* context) {
    const int c = getc(static_cast<FILE*>(context));
    return c == EOF ? UTRANS_EOF : c;
}

void fillLookahead(utrans_reader* r) {
    while (r->_lookahead_len < UTRANS_LOOKAHEAD_SIZE) {
        const int c = r->_read(r->_context);
        if (c < 0) break;
        r->_lookahead[r->_lookahead_len++] = static_cast<uint8_t>(c);
    }
    r->_encoding = utrans_detect_encoding(r->_lookahead, r->_lookahead_len);
}

inline void ensureDetected(utrans_reader* r) {
    if (r->_encoding == 0) fillLookahead(r);
}

inline int32_t invalid(utrans_reader* r) {
    ++r->_invalid;
    return static_cast<int32_t>(UTRANS_REPLACEMENT_CHARACTER);
}

int32_t readUtf8(utrans_reader* r) {
    const int b0 = utrans_read_rawbyte(r);
    if (b0 < 0x80) return b0;  // ASCII, or the end
    if (b0 < 0xC2 || b0 > 0xF4) return invalid(r);

    int need;
    int32_t cp;
    uint8_t lo = 0x80, hi = 0xBF;  // the allowed range of the second byte
    if (b0 < 0xE0) {
        need = 1;
        cp = b0 & 0x1F;
    } else if (b0 < 0xF0) {
        need = 2;
        cp = b0 & 0x0F;
        if (b0 == 0xE0) lo = 0xA0;  // overlong
        if (b0 == 0xED) hi = 0x9F;  // surrogates
    } else {
        need = 3;
        cp = b0 & 0x07;
        if (b0 == 0xF0) lo = 0x90;  // overlong
        if (b0 == 0xF4) hi = 0x8F;  // over U+10FFFF
    }
    for (int i = 0; i < need; ++i) {
        const int b = utrans_read_rawbyte(r);
        if (b < 0) return invalid(r);
        if (b < lo || b > hi) {
            put_rawbyte_back_on_stack(r, static_cast<uint8_t>(b));
            return invalid(r);
        }
        cp = cp << 6 | (b & 0x3F);
        lo = 0x80;
        hi = 0xBF;
    }
    return cp;
}

// One 16-bit unit: 2 when whole, 1 when the text ends after one byte, 0 at
// the end.
int readUnit16(utrans_reader* r, bool bigEndian, int* b0, int* b1, uint32_t* unit) {
    *b0 = utrans_read_rawbyte(r);
    if (*b0 < 0) return 0;
    *b1 = utrans_read_rawbyte(r);
    if (*b1 < 0) return 1;
    *unit = bigEndian ? uint32_t(*b0) << 8 | uint32_t(*b1) : uint32_t(*b1) << 8 | uint32_t(*b0);
    return 2;
}

int32_t readUtf16(utrans_reader* r, bool bigEndian) {
    int b0, b1;
    uint32_t high, low;
    const int got = readUnit16(r, bigEndian, &b0, &b1, &high);
    if (got == 0) return UTRANS_EOF;
    if (got == 1) return invalid(r);
    if (high < 0xD800 || high > 0xDFFF) return static_cast<int32_t>(high);
    if (high >= 0xDC00) return invalid(r);  // a low surrogate first

    switch (readUnit16(r, bigEndian, &b0, &b1, &low)) {
        case 0:
        case 1:
            return invalid(r);  // cut off at the end: one replacement for all of it
        default:
            break;
    }
    if (low < 0xDC00 || low > 0xDFFF) {
        // The unit after a lone high surrogate is a character of its own.
        put_rawbyte_back_on_stack(r, static_cast<uint8_t>(b1));
        put_rawbyte_back_on_stack(r, static_cast<uint8_t>(b0));
        return invalid(r);
    }
    return static_cast<int32_t>(0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00));
}

int32_t readUtf32(utrans_reader* r, bool bigEndian) {
    uint32_t unit = 0;
    for (int i = 0; i < 4; ++i) {
        const int b = utrans_read_rawbyte(r);
        if (b < 0) return i == 0 ? UTRANS_EOF : invalid(r);
        unit = bigEndian ? unit << 8 | uint32_t(b) : unit | uint32_t(b) << (8 * i);
    }
    if (unit > 0x10FFFF || (unit >= 0xD800 && unit <= 0xDFFF)) return invalid(r);
    return static_cast<int32_t>(unit);
}

// Room for a byte at `index`, by doubling.
bool growLine(utrans_reader* r, size_t index) {
    if (index < r->_line_capacity) return true;
    size_t capacity = r->_line_capacity ? r->_line_capacity * 2 : UTRANS_LINE_INITIAL_CAPACITY;
    if (capacity < r->_line_capacity) capacity = 0;  // wrapped around
    char* line = capacity ? static_cast<char*>(realloc(r->_line, capacity)) : nullptr;
    if (line == nullptr) {
        r->_out_of_memory = true;
        errno = ENOMEM;
        return false;
    }
    r->_line = line;
    r->_line_capacity = capacity;
    return true;
}

}  // namespace

void utrans_read_start(utrans_reader* r, utrans_read_function read, void* context) {
    memset(r, 0, sizeof *r);
    r->_read = read;
    r->_context = context;
}

void utrans_read_start_stdio_file(utrans_reader* r, FILE* file) {
    utrans_read_start(r, readStdio, file);
}

int utrans_read_rawbyte(utrans_reader* r) {
    if (r->_rawstack_len) return r->_rawstack[--r->_rawstack_len];
    ensureDetected(r);
    if (r->_lookahead_pos < r->_lookahead_len) return r->_lookahead[r->_lookahead_pos++];
    const int c = r->_read(r->_context);
    return c < 0 ? UTRANS_EOF : c;
}

void put_rawbyte_back_on_stack(utrans_reader* r, uint8_t byte) {
    ASSERT(r->_rawstack_len < UTRANS_RAWBYTE_STACK_SIZE);
    r->_rawstack[r->_rawstack_len++] = byte;
}

int32_t utrans_read_codepoint(utrans_reader* r) {
    ensureDetected(r);
    switch (r->_encoding & UTRANS_ENCODING_MASK) {
        case UTRANS_UTF16LE:
            return readUtf16(r, false);
        case UTRANS_UTF16BE:
            return readUtf16(r, true);
        case UTRANS_UTF32LE:
            return readUtf32(r, false);
        case UTRANS_UTF32BE:
            return readUtf32(r, true);
        default:
            return readUtf8(r);
    }
}

int utrans_getc_utf8(utrans_reader* r) {
    if (r->_utf8stack_len) return static_cast<uint8_t>(r->_utf8stack[--r->_utf8stack_len]);
    int32_t cp;
    do {
        cp = utrans_read_codepoint(r);
    } while (cp == static_cast<int32_t>(UTRANS_BYTE_ORDER_MARK));
    if (cp < 0x80) return cp;  // ASCII, or the end

    char bytes[4];
    const size_t n = utf8_encode_codepoint(static_cast<uint32_t>(cp), bytes);
    for (size_t i = n; i > 1; --i) r->_utf8stack[r->_utf8stack_len++] = bytes[i - 1];
    return static_cast<uint8_t>(bytes[0]);
}

char* utrans_readline_utf8(utrans_reader* r, size_t* length) {
    r->_out_of_memory = false;
    size_t n = 0;
    bool any = false;
    for (;;) {
        const int c = utrans_getc_utf8(r);
        if (c == UTRANS_EOF) break;
        any = true;
        if (c == '\n') {
            // A CR can't stand inside a multi-byte sequence, so a CR last in
            // the line came right before this LF.
            if (n > 0 && r->_line[n - 1] == '\r') {
                --n;
                ++r->_crlf_lines;
            } else {
                ++r->_lf_lines;
            }
            // Any CRLF line makes the ends mixed, or all CRLF: either way a
            // writer should end its lines in CRLF.
            r->_crlf = r->_crlf_lines > 0;
            break;
        }
        if (!growLine(r, n)) return nullptr;
        r->_line[n++] = static_cast<char>(c);
    }
    if (!any) return nullptr;
    if (!growLine(r, n)) return nullptr;
    r->_line[n] = '\0';
    if (length) *length = n;
    return r->_line;
}

void utrans_read_end(utrans_reader* r) {
    free(r->_line);
    r->_line = nullptr;
    r->_line_capacity = 0;
    r->_utf8stack_len = 0;
    r->_rawstack_len = 0;
}
