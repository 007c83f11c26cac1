// The one place that speaks to OpenSSL's digest API. OpenSSL 3.0 names:
// EVP_MD_CTX_new/_free, EVP_MD_get_size; everything else is EVP_Digest*.
#include "util/SHA.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <new>

#include "util/AppendStr.h"
#include "util/BasicConversions.h"
#include "util/CrashLog.h"
#include "util/FileDescriptor.h"
#include "util/SerializedResult.h"

namespace {

EVP_MD_CTX* newContext() {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    if (ctx == nullptr) throw std::bad_alloc();
    return ctx;
}

void check(int rc, const char* step) {
    if (rc != 1) throw MessageDigestException(step);
}

// In a constructor the destructor won't run: the context goes first.
void checkOrFree(EVP_MD_CTX** ctx, int rc, const char* step) {
    if (rc == 1) return;
    MessageDigestException e(step);
    EVP_MD_CTX_free(*ctx);
    *ctx = nullptr;
    throw e;
}

}  // namespace

// ---------------------------------------------------------------- MessageDigestException

MessageDigestException::MessageDigestException(const char* step) noexcept {
    char text[256];
    const unsigned long e = ERR_get_error();
    if (e != 0) {
        ERR_error_string_n(e, text, sizeof text);
    } else {
        strcpy(text, "unknown error");
    }
    ERR_clear_error();
    try {
        Str m;
        m.appendFormat("Error %s message digest: %s", step, text);
        _set_str(m.data(), m.size());
    } catch (...) {}
}

MessageDigestException::MessageDigestException(const char* step, const char* text) noexcept {
    try {
        Str m;
        if (step != nullptr) {
            m.appendFormat("Error %s message digest: %s", step, text);
        } else {
            m.append(text);
        }
        _set_str(m.data(), m.size());
    } catch (...) {}
}

// ---------------------------------------------------------------- EvpMdContext

EvpMdContext::EvpMdContext(const EVP_MD* md) : _ctx(newContext()) {
    checkOrFree(&_ctx, EVP_DigestInit_ex(_ctx, md, nullptr), "initializing");
}

EvpMdContext::EvpMdContext(const EvpMdContext& other) : _ctx(newContext()) {
    if (other._ctx == nullptr) {
        EVP_MD_CTX_free(_ctx);
        throw MessageDigestException(nullptr, "Context not initialized");
    }
    checkOrFree(&_ctx, EVP_MD_CTX_copy_ex(_ctx, other._ctx), "initializing duplicate");
}

EvpMdContext& EvpMdContext::operator=(const EvpMdContext& other) {
    if (this == &other) return *this;
    if (other._ctx == nullptr) throw MessageDigestException(nullptr, "Context not initialized");
    if (_ctx == nullptr) _ctx = newContext();
    check(EVP_MD_CTX_copy_ex(_ctx, other._ctx), "copying");
    return *this;
}

EvpMdContext::~EvpMdContext() { EVP_MD_CTX_free(_ctx); }

void EvpMdContext::evpClear(const EVP_MD* md) {
    if (_ctx == nullptr) throw MessageDigestException(nullptr, "Context not initialized");
    check(EVP_DigestInit_ex(_ctx, md, nullptr), "re-initializing");
}

void EvpMdContext::update(const void* data, size_t length) {
    if (_ctx == nullptr) throw MessageDigestException(nullptr, "Context not initialized");
    check(EVP_DigestUpdate(_ctx, data, length), "updating");
}

void EvpMdContext::update(PortableIovecCursor* cursor) {
    StrSegment seg;
    while (cursor->getSeg(&seg)) update(seg._data, seg._len);
}

EvpMdContext& EvpMdContext::operator<<(const AppendStr& s) {
    PortableIovecCursor c;
    c.start(s);
    update(&c);
    return *this;
}

EvpMdContext& EvpMdContext::operator<<(const PortableIovec& v) {
    PortableIovecCursor c(v);
    update(&c);
    return *this;
}

EvpMdContext& EvpMdContext::operator<<(const SerializedResult& r) {
    PortableIovecCursor c;
    c.start(r);
    update(&c);
    return *this;
}

void EvpMdContext::evpFinalize(unsigned char* out) {
    if (_ctx == nullptr) throw MessageDigestException(nullptr, "Context not initialized");
    unsigned int n = 0;
    check(EVP_DigestFinal_ex(_ctx, out, &n), "finalizing");
}

size_t EvpMdContext::digestSize() const {
    return _ctx == nullptr ? 0 : size_t(EVP_MD_get_size(EVP_MD_CTX_get0_md(_ctx)));
}

void EvpMdContext::pbkdf2_genkey(const Str& password, unsigned char* out, size_t outLength,
                                 const Str& salt, int iterations) const {
    if (_ctx == nullptr) throw MessageDigestException(nullptr, "Context not initialized");
    const unsigned char* s = salt.empty() ? nullptr : (const unsigned char*)salt.data();
    check(PKCS5_PBKDF2_HMAC(password.data(), int(password.size()), s, int(salt.size()), iterations,
                            EVP_MD_CTX_get0_md(_ctx), int(outLength), out),
          "initializing");
}

// ---------------------------------------------------------------- results

template <size_t N>
void HashResultBytes<N>::appendHex(Str* dest) const {
    static const char digits[] = "0123456789abcdef";
    char text[2 * N];
    for (size_t i = 0; i < N; i++) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 15];
    }
    dest->append(text, sizeof text);
}

template <size_t N>
Str HashResultBytes<N>::base64() const {
    Str s;
    Base64::encode(s, bytes, N);
    return s;
}

template <size_t N>
void HashResultBytes<N>::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    static const char digits[] = "0123456789abcdef";
    char text[2 * N];
    for (size_t i = 0; i < N; i++) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 15];
    }
    h.write(text, sizeof text);
}

template class HashResultBytes<16>;
template class HashResultBytes<20>;
template class HashResultBytes<32>;
template class HashResultBytes<48>;
template class HashResultBytes<64>;

namespace {

template <class R>
void digestInto(R* r, const EVP_MD* md, const void* data, size_t length) {
    EvpMdContext c(md);
    c.update(data, length);
    c.evpFinalize(r->bytes);
}

}  // namespace

SHA1HashResult::SHA1HashResult(const void* data, size_t length) {
    digestInto(this, EVP_sha1(), data, length);
}
SHA256HashResult::SHA256HashResult(const void* data, size_t length) {
    digestInto(this, EVP_sha256(), data, length);
}
SHA256HashResult::SHA256HashResult(const AppendStr& s) {
    EvpMdContext c(EVP_sha256());
    c << s;
    c.evpFinalize(bytes);
}
SHA256HashResult::SHA256HashResult(const SerializedResult& r) {
    EvpMdContext c(EVP_sha256());
    c << r;
    c.evpFinalize(bytes);
}
SHA384HashResult::SHA384HashResult(const void* data, size_t length) {
    digestInto(this, EVP_sha384(), data, length);
}
SHA512HashResult::SHA512HashResult(const void* data, size_t length) {
    digestInto(this, EVP_sha512(), data, length);
}
MD5HashResult::MD5HashResult(const void* data, size_t length) {
    digestInto(this, EVP_md5(), data, length);
}

template <>
const EVP_MD* HashShortcut<SHA1HashResult>::md() {
    return EVP_sha1();
}
template <>
const EVP_MD* HashShortcut<SHA256HashResult>::md() {
    return EVP_sha256();
}
template <>
const EVP_MD* HashShortcut<SHA384HashResult>::md() {
    return EVP_sha384();
}
template <>
const EVP_MD* HashShortcut<SHA512HashResult>::md() {
    return EVP_sha512();
}
template <>
const EVP_MD* HashShortcut<MD5HashResult>::md() {
    return EVP_md5();
}

template <class Result>
void HashShortcut<Result>::streamHashHex(const FileDescriptor& fd, Str* out) {
    EvpMdContext c(md());
    char buf[4096];
    FileDescriptor reader(fd.fd());
    for (;;) {
        const ssize_t n = reader.read(buf, sizeof buf);
        if (n <= 0) break;
        c.update(buf, size_t(n));
        if (size_t(n) < sizeof buf) break;
    }
    Result r;
    c.evpFinalize(r.bytes);
    r.appendHex(out);
}

template struct HashShortcut<SHA1HashResult>;
template struct HashShortcut<SHA256HashResult>;
template struct HashShortcut<SHA384HashResult>;
template struct HashShortcut<SHA512HashResult>;
template struct HashShortcut<MD5HashResult>;
