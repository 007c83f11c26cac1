#pragma once
// A push parser for JSON text: feed it chunks of any size, cut anywhere, and
// it calls one virtual hook per token. It keeps no tree (util/JsonParser.h
// builds one on top). On by default and each governed by a hook: several
// top-level values in a stream, trailing commas, comments and top-level
// scalars.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "util/Str.h"

class AppendStr;
class FileDescriptor;
class FileStar;
class Pathname;

class JsonStreamingParser {
public:
    class error : public BaseException {
    public:
        error(long position, const Str& message) noexcept;
        error(long position, Str&& message) noexcept;
        error(long position, const char* message) noexcept;
        // The stream position of the offending byte.
        long position() const noexcept { return _errorPosition; }

    private:
        int64_t _errorPosition;
    };

    enum state_t : uint32_t {
        START_VALUE,
        IN_STRING,
        NUMBER_AFTER_ZERO,
        NUMBER_AFTER_DIGIT,
        GETTING_LITERAL,
        FIRST_ELEMENT,
        AFTER_COMMA,
        AFTER_KEY,
        AFTER_VALUE,
        GOT_BACKSLASH,
        EXPECTING_END_OF_STREAM,
        NUMBER_AFTER_MINUS,
        NUMBER_AFTER_POINT,
        NUMBER_AFTER_DECIMAL,
        NUMBER_AFTER_E,
        NUMBER_AFTER_E_SIGN,
        NUMBER_AFTER_EXPONENT,
        GOT_BACKSLASH_U,
        SURROGATE_WANT_BACKSLASH,
        SURROGATE_WANT_U,
        GOT_SLASH,
        IGNORE_REST_OF_LINE,
        IGNORING_C_COMMENT,
        IGNORING_C_COMMENT_GOT_STAR,
    };
    enum stack_element_t : uint32_t { STACK_LEVEL_OBJECT = 0, STACK_LEVEL_ARRAY = 1 };
    // What finish() demands to have seen.
    enum min_seen_at_finish_t : uint32_t {
        AT_FINISH_NEED_NOTHING = 0,
        AT_FINISH_NEED_VALUE = 1,  // a scalar or a block
        AT_FINISH_NEED_BLOCK = 2,  // an object or an array
    };

    JsonStreamingParser();
    JsonStreamingParser(const JsonStreamingParser&) = delete;
    JsonStreamingParser& operator=(const JsonStreamingParser&) = delete;
    virtual ~JsonStreamingParser();

    // One chunk; throws error.
    void parse(const char* data, size_t length);
    // Each segment of the buffer; does not finish().
    void parse(const AppendStr& text);
    // Read to the end in 16 KiB chunks, then finish().
    void parse(const FileDescriptor& fd);
    void parse(FileStar& f);
    void parse(const Pathname& path);
    // End of input: delivers a number in progress; "Unexpected EOF" when
    // something is left open or what finish demands was not seen.
    void finish();
    // Closes everything open as if the closers had been read.
    void forceEndOfBlock();
    // Back to the start state with an empty stack; limits, the position and
    // the buffer stay.
    void resetParserState();

    void setMaxKeyLength(size_t n) { _maxKeyLength = n; }
    void setMaxValueLength(size_t n) { _maxValueLength = n; }
    void setMaxNumberLength(size_t n) { _maxNumberLength = n; }
    void setMinSeenAtFinish(min_seen_at_finish_t m) { _min_seen_at_finish = m; }
    size_t maxKeyLength() const { return _maxKeyLength; }
    size_t maxValueLength() const { return _maxValueLength; }
    size_t maxNumberLength() const { return _maxNumberLength; }

    // Bytes fed so far (or, after an error, the bad byte's position).
    long position() const { return _position; }
    // Where the current token began: its first byte, or for strings and keys
    // the byte after the opening quote.
    long tokenStart() const { return _tokenStart; }
    // Just behind the token (for strings: the closing quote), set before each
    // value and close hook.
    long tokenEnd() const { return _tokenEnd; }
    state_t state() const { return _state; }
    size_t depth() const { return _stack.size(); }

protected:
    virtual void gotNull();
    virtual void gotBool(bool value);
    // The number's exact text; the hook may take it destructively.
    virtual void gotNumber(Str& text);
    // The decoded value; the hook may take it destructively.
    virtual void gotStringLiteral(Str& value);
    // False skips the contents and the close hook.
    virtual bool gotOpenArray();
    virtual void gotCloseArray();
    virtual bool gotOpenObject();
    virtual void gotCloseObject();
    // False skips the value of this key.
    virtual bool gotObjectKey(Str& key);
    // Before the open hook of a top-level block.
    virtual void gotStartOfBlock();
    // After a top-level block's last close: 1 another value may follow, 0 only
    // whitespace may, 2 parse returns at once leaving the rest of the chunk
    // unread, anything else: as after any value.
    virtual int gotEndOfBlock();
    virtual bool acceptTrailingComma();
    virtual bool acceptComments();
    // True accepts this raw control byte inside a string.
    virtual bool acceptControlCharacter(char c);
    virtual unsigned maxDepth();
    // For \u0000 and an accepted raw NUL; appends a NUL byte.
    virtual void gotNulInString(Str* buffer);
    // True drops an over-long string value (gotNull stands for it) instead
    // of failing.
    virtual bool ignoreOverlengthString();

    // For subclasses that report positions.
    void _setTokenStart(long position) { _tokenStart = position; }
    void _setMinSeenAtFinish(min_seen_at_finish_t m) { _min_seen_at_finish = m; }

private:
    friend struct JsonStreamingParserPeer;
    static constexpr uint32_t IGNORE_NEXT_VALUE = 0x80000000u;

    void checkLimits();
    void deliverPendingNumber();
    void openBlock(const char* p, const char* end, unsigned char c);
    // True when parse must return at once (gotEndOfBlock gave 2).
    bool closeBlock(const char* p, const char* end);
    void endOfValue() {
        _seenScalar = true;
        _state = AFTER_VALUE;
        if (_ignoringLevel == IGNORE_NEXT_VALUE) _ignoringLevel = 0;
    }
    void appendCodepoint(uint32_t cp);
    [[noreturn]] void unexpected(const char* p, const char* end, const char* context);
    [[noreturn]] void throwAt(long position, const char* message);

    state_t _state = START_VALUE;
    uint32_t _ignoringLevel = 0;
    int64_t _position = 0;
    int64_t _tokenStart = 0;
    int64_t _tokenEnd = 0;
    std::vector<stack_element_t> _stack;
    Str _buffer;
    bool _isKey = false;
    // Only one of these is live at a time.
    union {
        const char* _literal;  // the rest of "rue", "alse" or "ull"
        uint32_t _hexWanted;   // digits still wanted in a \u escape
        uint32_t _savedState;  // the state a comment returns to
    };
    uint32_t _codepoint = 0;
    uint32_t _surrogate_cp = 0;
    bool _seenBlock = false;
    bool _seenScalar = false;
    min_seen_at_finish_t _min_seen_at_finish = AT_FINISH_NEED_NOTHING;
    size_t _maxKeyLength = 32768;
    size_t _maxValueLength = 524288;
    size_t _maxNumberLength = 384;
};

// parse then finish; false when the text is null or an error was thrown
// (other exceptions pass through).
bool mem_parse_into(const char* text, size_t length, JsonStreamingParser* parser);
// Decodes the inside of a JSON string literal (without its quotes) into
// `dest`; false, and `dest` untouched, for text that isn't exactly one.
bool mem_decode_json_string_into(Str* dest, const char* text, size_t length);
