#pragma once
// Fixed-size text and path builders for code that must not allocate.
//
// An append that does not fit makes the builder invalid for good, so a chain
// of appends is checked once, at finish. An invalid builder finishes as the
// empty text, never as a truncated one: a cut-off path could name a real,
// different file.

#include <cstddef>
#include <cstdint>

constexpr size_t OSPATH_BUF_SIZE = 4096;  // bytes, terminator included

// A caller-supplied buffer.
struct string_builder {
    char* _buf;
    size_t _size;  // of _buf, terminator included
    size_t _len;
    bool _valid;
};

void string_builder_start(string_builder* b, char* buffer, size_t size);
void string_builder_appendn(string_builder* b, const char* text, size_t n);
void string_builder_appendz(string_builder* b, const char* text);
void string_builder_append1(string_builder* b, char c);
// Code points above U+10FFFF append nothing.
void string_builder_append_utf8_codepoint(string_builder* b, uint32_t codepoint);
void string_builder_append_decimal_u64(string_builder* b, uint64_t value);
void string_builder_append_decimal_i64(string_builder* b, int64_t value);
bool string_builder_valid(const string_builder* b);
// Terminates the text; 0, or -1 if anything did not fit.
int string_builder_finish(string_builder* b);

// A path of up to OSPATH_BUF_SIZE - 1 bytes.
struct ospath_buf {
    char path[OSPATH_BUF_SIZE];
};

// Copies a text of up to OSPATH_BUF_SIZE - 1 bytes; -1 if it is longer.
int ospath_buf_set(ospath_buf* buf, const char* text);

struct ospath_builder {
    string_builder _sb;
    char path[OSPATH_BUF_SIZE];
};

void ospath_builder_start(ospath_builder* b);
void ospath_builder_appendn(ospath_builder* b, const char* text, size_t n);
void ospath_builder_appendz(ospath_builder* b, const char* text);
void ospath_builder_append1(ospath_builder* b, char c);
void ospath_builder_append_sep(ospath_builder* b);
void ospath_builder_append_decimal_u64(ospath_builder* b, uint64_t value);
bool ospath_builder_valid(const ospath_builder* b);
int ospath_builder_finish(ospath_builder* b);

// start, append a, append c, finish.
int ospath_builder_concat_two_paths(ospath_builder* b, const char* a, const char* c);
// The same with "/" between the two.
int ospath_builder_concat_two_paths_with_sep(ospath_builder* b, const char* a, const char* c);

// Up to four bytes of UTF-8 for one code point; 0 above U+10FFFF.
size_t utf8_encode_codepoint(uint32_t codepoint, char out[4]);
