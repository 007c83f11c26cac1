#include "util/HttpException.h"

#include <cerrno>
#include <cstdarg>

#include "libzero/assertion.h"

http_status_code_t http_status_code_from_portable_errno(int err) {
    // Indexed by errno - 1; the numbers are Linux's, stable across its ABIs.
    static const uint16_t table[40] = {
        403,  // EPERM
        404,  // ENOENT
        400,  // ESRCH
        400,  // EINTR
        500,  // EIO
        400,  // ENXIO
        414,  // E2BIG
        404,  // ENOEXEC
        500,  // EBADF
        400,  // ECHILD
        400,  // EAGAIN
        500,  // ENOMEM
        403,  // EACCES
        400,  // EFAULT
        400,  // ENOTBLK
        400,  // EBUSY
        400,  // EEXIST
        400,  // EXDEV
        404,  // ENODEV
        404,  // ENOTDIR
        404,  // EISDIR
        400,  // EINVAL
        500,  // ENFILE
        500,  // EMFILE
        400,  // ENOTTY
        400,  // ETXTBSY
        400,  // EFBIG
        500,  // ENOSPC
        400,  // ESPIPE
        403,  // EROFS
        404,  // EMLINK
        400,  // EPIPE
        400,  // EDOM
        400,  // ERANGE
        400,  // EDEADLK
        414,  // ENAMETOOLONG
        400,  // ENOLCK
        400,  // ENOSYS
        400,  // ENOTEMPTY
        404,  // ELOOP
    };
    static_assert(EPERM == 1 && EROFS == 30 && ENAMETOOLONG == 36 && ELOOP == 40);
    if (err < 1 || err > 40) return 400;
    return table[err - 1];
}

HttpException::HttpException(http_status_code_t status) : _status(status) {
    ASSERT(status >= 100 && status <= 599);
}

HttpException::HttpException(http_status_code_t status, const Str& message) : _status(status) {
    ASSERT(status >= 100 && status <= 599);
    _set_str(message.data(), message.size());
}

HttpException::HttpException(http_status_code_t status, Str&& message) : _status(status) {
    ASSERT(status >= 100 && status <= 599);
    _message.swap(message);
}

HttpException::HttpException(http_status_code_t status, const char* message)
    : BaseException(message), _status(status) {
    ASSERT(status >= 100 && status <= 599);
}

HttpGenericRedirectException::HttpGenericRedirectException(http_status_code_t status,
                                                           const Str& dest)
    : HttpException(status), _dest(dest) {
    ASSERT(status >= 300 && status <= 399);
}

HttpExceptionFromErrno::HttpExceptionFromErrno(const char* text)
    : HttpExceptionFromErrno(errno, text) {}

HttpExceptionFromErrno::HttpExceptionFromErrno(int err, const char* text)
    : HttpException(http_status_code_from_portable_errno(err)) {
    _format(err, "%s: %m", text);
}

void HttpExceptionFromErrno::_format(int err, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vformat(err, nullptr, format, args);
    va_end(args);
}
