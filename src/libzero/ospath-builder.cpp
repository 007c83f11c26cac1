#include "libzero/ospath-builder.h"

#include <cstring>

#include "libzero/int-to-ascii.h"

void string_builder_start(string_builder* b, char* buffer, size_t size) {
    b->_buf = buffer;
    b->_size = size;
    b->_len = 0;
    b->_valid = size > 0;
}

void string_builder_appendn(string_builder* b, const char* text, size_t n) {
    if (!b->_valid) return;
    // One byte always stays free for the terminator.
    if (n >= b->_size - b->_len) {
        b->_valid = false;
        return;
    }
    memcpy(b->_buf + b->_len, text, n);
    b->_len += n;
}

void string_builder_appendz(string_builder* b, const char* text) {
    string_builder_appendn(b, text, strlen(text));
}

void string_builder_append1(string_builder* b, char c) { string_builder_appendn(b, &c, 1); }

size_t utf8_encode_codepoint(uint32_t cp, char out[4]) {
    if (cp < 0x80) {
        out[0] = static_cast<char>(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = static_cast<char>(0xC0 | (cp >> 6));
        out[1] = static_cast<char>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (cp >> 12));
        out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (cp & 0x3F));
        return 3;
    }
    if (cp <= 0x10FFFF) {
        out[0] = static_cast<char>(0xF0 | (cp >> 18));
        out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out[3] = static_cast<char>(0x80 | (cp & 0x3F));
        return 4;
    }
    return 0;
}

void string_builder_append_utf8_codepoint(string_builder* b, uint32_t codepoint) {
    char bytes[4];
    size_t n = utf8_encode_codepoint(codepoint, bytes);
    if (n > 0) string_builder_appendn(b, bytes, n);
}

void string_builder_append_decimal_u64(string_builder* b, uint64_t value) {
    char digits[20];
    string_builder_appendn(b, digits, convertU64ToAscii(value, digits));
}

void string_builder_append_decimal_i64(string_builder* b, int64_t value) {
    char digits[21];
    string_builder_appendn(b, digits, convertI64ToAscii(value, digits));
}

bool string_builder_valid(const string_builder* b) { return b->_valid; }

int string_builder_finish(string_builder* b) {
    if (b->_size == 0) return -1;
    if (!b->_valid) {
        b->_buf[0] = '\0';
        return -1;
    }
    b->_buf[b->_len] = '\0';
    return 0;
}

int ospath_buf_set(ospath_buf* buf, const char* text) {
    size_t n = strlen(text);
    if (n >= OSPATH_BUF_SIZE) return -1;
    memcpy(buf->path, text, n + 1);
    return 0;
}

void ospath_builder_start(ospath_builder* b) {
    string_builder_start(&b->_sb, b->path, OSPATH_BUF_SIZE);
}

void ospath_builder_appendn(ospath_builder* b, const char* text, size_t n) {
    string_builder_appendn(&b->_sb, text, n);
}

void ospath_builder_appendz(ospath_builder* b, const char* text) {
    string_builder_appendz(&b->_sb, text);
}

void ospath_builder_append1(ospath_builder* b, char c) { string_builder_append1(&b->_sb, c); }

void ospath_builder_append_sep(ospath_builder* b) { string_builder_append1(&b->_sb, '/'); }

void ospath_builder_append_decimal_u64(ospath_builder* b, uint64_t value) {
    string_builder_append_decimal_u64(&b->_sb, value);
}

bool ospath_builder_valid(const ospath_builder* b) { return string_builder_valid(&b->_sb); }

int ospath_builder_finish(ospath_builder* b) { return string_builder_finish(&b->_sb); }

int ospath_builder_concat_two_paths(ospath_builder* b, const char* a, const char* c) {
    ospath_builder_start(b);
    ospath_builder_appendz(b, a);
    ospath_builder_appendz(b, c);
    return ospath_builder_finish(b);
}

int ospath_builder_concat_two_paths_with_sep(ospath_builder* b, const char* a, const char* c) {
    ospath_builder_start(b);
    ospath_builder_appendz(b, a);
    ospath_builder_append_sep(b);
    ospath_builder_appendz(b, c);
    return ospath_builder_finish(b);
}
