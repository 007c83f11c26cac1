#pragma once
// Message digests through OpenSSL's EVP interface, and the fixed-size
// results with their text forms. Every OpenSSL call that can fail is
// checked; a failure raises MessageDigestException with the step it was in.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "util/Str.h"

typedef struct evp_md_st EVP_MD;
typedef struct evp_md_ctx_st EVP_MD_CTX;

class AppendStr;
class CrashLogWriteHandler;
class FileDescriptor;
class PortableIovec;
class PortableIovecCursor;
class SerializedResult;

// "Error <step> message digest: <OpenSSL's error text>"; with a null step
// the message is the text alone.
class MessageDigestException : public BaseException {
public:
    explicit MessageDigestException(const char* step) noexcept;
    MessageDigestException(const char* step, const char* text) noexcept;
};

// One owned digest context. Copying duplicates the context, state and all.
class EvpMdContext {
public:
    explicit EvpMdContext(const EVP_MD* md);
    EvpMdContext(const EvpMdContext& other);
    EvpMdContext& operator=(const EvpMdContext& other);
    ~EvpMdContext();

    // Starts over, with this digest.
    void evpClear(const EVP_MD* md);
    void update(const void* data, size_t length);
    // Everything the cursor has left; the cursor ends finished.
    void update(PortableIovecCursor* cursor);
    EvpMdContext& operator<<(const AppendStr& s);
    EvpMdContext& operator<<(const PortableIovec& v);
    EvpMdContext& operator<<(const SerializedResult& r);
    EvpMdContext& operator<<(StrSegment s) {
        update(s._data, s._len);
        return *this;
    }
    // Writes the digest (its size is the digest's) and leaves the context
    // to be cleared before another use.
    void evpFinalize(unsigned char* out);

    size_t digestSize() const;
    // PKCS5_PBKDF2_HMAC with this context's digest; an empty salt is passed
    // as none.
    void pbkdf2_genkey(const Str& password, unsigned char* out, size_t outLength, const Str& salt,
                       int iterations) const;

private:
    EVP_MD_CTX* _ctx = nullptr;
};

// A digest's bytes, computed at construction.
template <size_t N>
class HashResultBytes {
public:
    static constexpr size_t SIZE = N;
    unsigned char bytes[N] = {};

    const unsigned char* data() const { return bytes; }
    static constexpr size_t size() { return N; }
    // Lowercase hexadecimal, appended.
    void appendHex(Str* dest) const;
    Str hex() const {
        Str s;
        appendHex(&s);
        return s;
    }
    // Standard Base64 of the bytes.
    Str base64() const;
    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

    friend bool operator==(const HashResultBytes& a, const HashResultBytes& b) {
        return memcmp(a.bytes, b.bytes, N) == 0;
    }
};

class SHA1HashResult : public HashResultBytes<20> {
public:
    SHA1HashResult() = default;
    SHA1HashResult(const void* data, size_t length);
};
class SHA256HashResult : public HashResultBytes<32> {
public:
    SHA256HashResult() = default;
    SHA256HashResult(const void* data, size_t length);
    explicit SHA256HashResult(const AppendStr& s);
    explicit SHA256HashResult(const SerializedResult& r);
};
class SHA384HashResult : public HashResultBytes<48> {
public:
    SHA384HashResult() = default;
    SHA384HashResult(const void* data, size_t length);
};
class SHA512HashResult : public HashResultBytes<64> {
public:
    SHA512HashResult() = default;
    SHA512HashResult(const void* data, size_t length);
};
class MD5HashResult : public HashResultBytes<16> {
public:
    MD5HashResult() = default;
    MD5HashResult(const void* data, size_t length);
};

template <size_t N>
void append_stringified(Str* dest, const HashResultBytes<N>& v) {
    v.appendHex(dest);
}

// One digest family: its OpenSSL digest, its result type, and the
// operations over a whole input.
template <class Result>
struct HashShortcut {
    using result_type = Result;
    static const EVP_MD* md();
    static Result of(const void* data, size_t length) { return Result(data, length); }
    static Result of(StrSegment s) { return Result(s._data, s._len); }
    // The hex digest of everything up to end of file, read 4096 bytes at a
    // time; a read error ends the input.
    static void streamHashHex(const FileDescriptor& fd, Str* out);
};
using SHA1Hash = HashShortcut<SHA1HashResult>;
using SHA256Hash = HashShortcut<SHA256HashResult>;
using SHA384Hash = HashShortcut<SHA384HashResult>;
using SHA512Hash = HashShortcut<SHA512HashResult>;
using MD5Hash = HashShortcut<MD5HashResult>;

template <>
const EVP_MD* HashShortcut<SHA1HashResult>::md();
template <>
const EVP_MD* HashShortcut<SHA256HashResult>::md();
template <>
const EVP_MD* HashShortcut<SHA384HashResult>::md();
template <>
const EVP_MD* HashShortcut<SHA512HashResult>::md();
template <>
const EVP_MD* HashShortcut<MD5HashResult>::md();
