#pragma once
// The one convention by which values turn into text and back:
//
//   append_stringified(Str* dest, const T& value)   appends the debug text
//   mem_parse_into(const char* p, size_t n, T* dest) true when all n bytes are a
//                                                    valid text of T; dest is
//                                                    left alone otherwise
//
// A type joins by adding the two overloads; classes that must describe
// themselves in a crash add crashlog_write (util/CrashLog.h) with the same
// wording. This file has the basic types, byte sizes, Base64, the hex dump
// and environment variables.

#include <cstddef>
#include <cstdint>
#include <string>

#include "util/Str.h"

class CrashLogWriteHandler;
class Logger;
class StrVector;

// ---------------------------------------------------------------- basic types

void append_stringified(Str* dest, bool v);  // "1" or "0"
void append_stringified(Str* dest, char v);  // the byte itself
void append_stringified(Str* dest, signed char v);
void append_stringified(Str* dest, unsigned char v);
void append_stringified(Str* dest, short v);
void append_stringified(Str* dest, unsigned short v);
void append_stringified(Str* dest, int v);
void append_stringified(Str* dest, unsigned v);
void append_stringified(Str* dest, long v);
void append_stringified(Str* dest, unsigned long v);
void append_stringified(Str* dest, long long v);
void append_stringified(Str* dest, unsigned long long v);
// Shortest digits, fixed point, never an exponent; "NaN", "-NaN",
// "Infinity", "-Infinity" for the rest.
void append_stringified(Str* dest, double v);
void append_stringified(Str* dest, const char* v);  // "(null)" for null
void append_stringified(Str* dest, StrSegment v);
void append_stringified(Str* dest, const std::string& v);
void append_stringified(Str* dest, const void* v);  // as %p

// Exactly "0", "f", "false", "no" / "1", "t", "true", "yes", letters in
// either case.
bool mem_parse_into(const char* p, size_t n, bool* dest);
// Base 10 only: blanks and tabs around, a "-" (then blanks again) for the
// signed types, never a "+", no overflow.
bool mem_parse_into(const char* p, size_t n, short* dest);
bool mem_parse_into(const char* p, size_t n, unsigned short* dest);
bool mem_parse_into(const char* p, size_t n, int* dest);
bool mem_parse_into(const char* p, size_t n, unsigned* dest);
bool mem_parse_into(const char* p, size_t n, long* dest);
bool mem_parse_into(const char* p, size_t n, unsigned long* dest);
bool mem_parse_into(const char* p, size_t n, long long* dest);
bool mem_parse_into(const char* p, size_t n, unsigned long long* dest);
// The whole text one finite number.
bool mem_parse_into(const char* p, size_t n, double* dest);

// Stores `v` only if it is exactly an integer of the type. The 64-bit forms
// refuse what a double can no longer tell from its neighbours: from 2^53
// up (and, for the signed ones, from -2^53 - 2 down).
bool set_integer_from_distinct_double(short* dest, double v);
bool set_integer_from_distinct_double(unsigned short* dest, double v);
bool set_integer_from_distinct_double(int* dest, double v);
bool set_integer_from_distinct_double(unsigned* dest, double v);
bool set_integer_from_distinct_double(long* dest, double v);
bool set_integer_from_distinct_double(long long* dest, double v);
bool set_integer_from_distinct_double(unsigned long* dest, double v);
bool set_integer_from_distinct_double(unsigned long long* dest, double v);

// ---------------------------------------------------------------- byte sizes

struct ByteSizeWithUnits {
    unsigned long bytes = 0;
};

// "2kb", "2 KiB", "4096": digits, then a unit of kb/kib/mb/mib/gb/gib/tb/tib
// in any case. "kb" is 1000 with decimalUnits, 1024 without; "kib" is 1024
// either way. The product is not checked for overflow.
bool parse_sizeBytes_string(const Str& text, unsigned long& result, bool decimalUnits);
// With binary units.
bool mem_parse_into(const char* p, size_t n, ByteSizeWithUnits* dest);
void append_stringified(Str* dest, const ByteSizeWithUnits& v);

// A byte count for people: "1025 (0.0MB)", "5368709120 (5120MB,5GB)".
struct sizeBytes_to_verbose {
    unsigned long bytes;
};
void append_stringified(Str* dest, const sizeBytes_to_verbose& v);

// ---------------------------------------------------------------- Base64

class Base64 {
public:
    // Standard alphabet, "=" padding, no line breaks; appends.
    static void encode(Str& dest, const void* data, size_t length);
    // Appends; false (with dest as it was) for a character outside the
    // alphabet, or anything but "=" after a "=" (which may only stand third
    // or fourth in a group). A group cut short without padding still gives
    // its complete bytes. No white space is skipped.
    static bool decode(Str& dest, const void* data, size_t length);
};

// ---------------------------------------------------------------- hex dump

// Lines of "offset  16 hex bytes  |ascii|" as `hexdump -C -v` prints them,
// then the total length alone; an empty input gives just "00000000".
class HexDumper {
public:
    virtual ~HexDumper();
    // One finished line, without a line feed.
    virtual void accept_line(const char* line, size_t length) = 0;

    // An exception from accept_line ends the dump quietly.
    void do_dump(const void* data, size_t length) noexcept;

    static void dumpTo(Str* dest, const void* data, size_t length);
    static void dumpTo(StrVector* dest, const void* data, size_t length);
    static void dumpTo(CrashLogWriteHandler& dest, const void* data, size_t length);
    static void dumpTo(const Logger* dest, const void* data, size_t length);
};

// Each line and a line feed.
class HexDumper_to_Str : public HexDumper {
public:
    explicit HexDumper_to_Str(Str* dest) : _dest(dest) {}
    void accept_line(const char* line, size_t length) override;

private:
    Str* _dest;
};

// One element a line.
class HexDumper_to_StrVector : public HexDumper {
public:
    explicit HexDumper_to_StrVector(StrVector* dest) : _dest(dest) {}
    void accept_line(const char* line, size_t length) override;

private:
    StrVector* _dest;
};

// Each line and a line feed, through the handler: no allocation.
class HexDumper_to_CrashLog : public HexDumper {
public:
    explicit HexDumper_to_CrashLog(CrashLogWriteHandler& dest) : _dest(dest) {}
    void accept_line(const char* line, size_t length) override;

private:
    CrashLogWriteHandler& _dest;
};

// Each line as one message of `logger` at `level` (debug by default).
class HexDumper_to_Logger : public HexDumper {
public:
    explicit HexDumper_to_Logger(const Logger* logger, int level = 0)
        : _logger(logger), _level(level) {}
    void accept_line(const char* line, size_t length) override;

private:
    const Logger* _logger;
    int _level;
};

// ---------------------------------------------------------------- environment

// One getenv() result, taken at construction; holds only the pointer.
class EnvironmentVariable {
public:
    explicit EnvironmentVariable(const char* name);

    const char* value() const { return _value; }  // null when unset
    bool isSet() const { return _value != nullptr && _value[0] != '\0'; }

    // By the first character only: 0 unset or empty; 2 false ("0", "F", "f",
    // "N", "n"); 3 true ("1", "T", "t", "Y", "y"); 4 anything else.
    enum ParsedBool { BOOL_UNSET = 0, BOOL_FALSE = 2, BOOL_TRUE = 3, BOOL_INVALID = 4 };
    ParsedBool parseBool() const;

    // Prints as "$" and the name, for messages about the variable.
    struct describe {
        const char* name;
    };

    // A copy of an environment block, for code that must not call getenv()
    // while another thread may change the environment. Null until set.
    static void setGlobalCache(const char* const* environment);
    static const char* const* getGlobalCache();

private:
    const char* _value;
};

// The value, or nothing when unset.
void append_stringified(Str* dest, const EnvironmentVariable& v);
void append_stringified(Str* dest, const EnvironmentVariable::describe& d);
void crashlog_write(CrashLogWriteHandler& h, const EnvironmentVariable& v);
void crashlog_write(CrashLogWriteHandler& h, const EnvironmentVariable::describe& d);
