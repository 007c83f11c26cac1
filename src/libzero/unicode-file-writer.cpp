#include "libzero/unicode-file-writer.h"

#include <cstring>

namespace {

int writeStdio(void* context, uint8_t byte) {
    return putc(byte, static_cast<FILE*>(context)) == EOF ? -1 : 0;
}

inline int put(utrans_writer* w, uint8_t byte) { return w->_write(w->_context, byte); }

int putBytes(utrans_writer* w, const uint8_t* bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (put(w, bytes[i]) != 0) return -1;
    }
    return 0;
}

int put16(utrans_writer* w, uint32_t unit) {
    const uint8_t hi = static_cast<uint8_t>(unit >> 8), lo = static_cast<uint8_t>(unit);
    const uint8_t bytes[2] = {w->_encoding == UTRANS_UTF16BE ? hi : lo,
                              w->_encoding == UTRANS_UTF16BE ? lo : hi};
    return putBytes(w, bytes, 2);
}

// `cp` is a valid code point.
int encode(utrans_writer* w, uint32_t cp) {
    switch (w->_encoding) {
        case UTRANS_UTF16LE:
        case UTRANS_UTF16BE:
            if (cp < 0x10000) return put16(w, cp);
            cp -= 0x10000;
            if (put16(w, 0xD800 | cp >> 10) != 0) return -1;
            return put16(w, 0xDC00 | (cp & 0x3FF));
        case UTRANS_UTF32LE: {
            const uint8_t bytes[4] = {uint8_t(cp), uint8_t(cp >> 8), uint8_t(cp >> 16), 0};
            return putBytes(w, bytes, 4);
        }
        case UTRANS_UTF32BE: {
            const uint8_t bytes[4] = {0, uint8_t(cp >> 16), uint8_t(cp >> 8), uint8_t(cp)};
            return putBytes(w, bytes, 4);
        }
        default: {
            if (cp < 0x80) return put(w, static_cast<uint8_t>(cp));
            uint8_t bytes[4];
            size_t n;
            if (cp < 0x800) {
                bytes[0] = uint8_t(0xC0 | cp >> 6);
                n = 2;
            } else if (cp < 0x10000) {
                bytes[0] = uint8_t(0xE0 | cp >> 12);
                n = 3;
            } else {
                bytes[0] = uint8_t(0xF0 | cp >> 18);
                n = 4;
            }
            for (size_t i = n - 1; i > 0; --i, cp >>= 6) bytes[i] = uint8_t(0x80 | (cp & 0x3F));
            return putBytes(w, bytes, n);
        }
    }
}

int replacement(utrans_writer* w) {
    ++w->_invalid;
    return encode(w, UTRANS_REPLACEMENT_CHARACTER);
}

// Bytes a sequence with this lead byte takes; 0 for a byte that leads none.
inline size_t sequenceLength(uint8_t lead) {
    if (lead < 0xC2 || lead > 0xF4) return 0;
    return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

// Whether `b` may stand at position `pos` (1 to 3) after `lead`.
inline bool continues(uint8_t lead, size_t pos, uint8_t b) {
    uint8_t lo = 0x80, hi = 0xBF;
    if (pos == 1) {
        if (lead == 0xE0) lo = 0xA0;
        if (lead == 0xED) hi = 0x9F;
        if (lead == 0xF0) lo = 0x90;
        if (lead == 0xF4) hi = 0x8F;
    }
    return b >= lo && b <= hi;
}

uint32_t decodeWhole(const uint8_t* s, size_t n) {
    uint32_t cp = s[0] & (n == 2 ? 0x1F : n == 3 ? 0x0F : 0x07);
    for (size_t i = 1; i < n; ++i) cp = cp << 6 | (s[i] & 0x3F);
    return cp;
}

}  // namespace

void utrans_write_start(utrans_writer* w, int encoding, utrans_write_function write,
                        void* context) {
    memset(w, 0, sizeof *w);
    w->_write = write;
    w->_context = context;
    encoding &= UTRANS_ENCODING_MASK;
    w->_encoding =
        encoding >= UTRANS_UTF16LE && encoding <= UTRANS_UTF32BE ? encoding : UTRANS_UTF8;
}

void utrans_write_start_stdio_file(utrans_writer* w, int encoding, FILE* file) {
    utrans_write_start(w, encoding, writeStdio, file);
}

int utrans_write_bom(utrans_writer* w) { return encode(w, UTRANS_BYTE_ORDER_MARK); }

int utrans_write_rawbyte(utrans_writer* w, uint8_t byte) { return put(w, byte); }

int utrans_write_codepoint(utrans_writer* w, uint32_t codepoint) {
    if (codepoint > 0x10FFFF || (codepoint >= 0xD800 && codepoint <= 0xDFFF)) {
        return replacement(w);
    }
    return encode(w, codepoint);
}

int utrans_write_utf8(utrans_writer* w, const char* data, size_t length) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(data);
    const uint8_t* const end = p + length;
    while (p < end) {
        if (w->_partial_len) {
            const uint8_t lead = w->_partial[0];
            if (!continues(lead, w->_partial_len, *p)) {
                // The byte is read again as the start of what follows.
                w->_partial_len = 0;
                if (replacement(w) != 0) return -1;
                continue;
            }
            w->_partial[w->_partial_len++] = *p++;
            const size_t n = sequenceLength(lead);
            if (w->_partial_len == n) {
                w->_partial_len = 0;
                if (encode(w, decodeWhole(w->_partial, n)) != 0) return -1;
            }
            continue;
        }
        if (*p < 0x80) {
            if (encode(w, *p++) != 0) return -1;
            continue;
        }
        const size_t n = sequenceLength(*p);
        if (n == 0) {
            ++p;
            if (replacement(w) != 0) return -1;
            continue;
        }
        if (static_cast<size_t>(end - p) >= n && continues(*p, 1, p[1]) &&
            (n < 3 || (p[2] & 0xC0) == 0x80) && (n < 4 || (p[3] & 0xC0) == 0x80)) {
            if (encode(w, decodeWhole(p, n)) != 0) return -1;
            p += n;
            continue;
        }
        // Broken, or cut off at the end of the data: byte by byte.
        w->_partial[0] = *p++;
        w->_partial_len = 1;
    }
    return 0;
}

int utrans_write_end(utrans_writer* w) {
    if (w->_partial_len == 0) return 0;
    w->_partial_len = 0;
    return replacement(w);
}
