// TLS on a non-blocking socket: OpenSSL does the socket calls, asio only says when to retry.
#include "tls_stream.h"

#include <openssl/err.h>
#include <sys/socket.h>

#include <asio/ssl/error.hpp>
#include <cerrno>

namespace QUEX {
namespace Tandra {

namespace {
// Records are written here and reach the socket in calls of this size.
constexpr long WRITE_BUFFER = 256 * 1024;
// OpenSSL reads ahead into a buffer this large: many records per socket call.
constexpr size_t READ_BUFFER = 256 * 1024;
// An operation gives the strand up after moving this much, so that the other direction (a
// heartbeat, a cancel) is not held up behind a photo.
constexpr size_t TURN_BYTES = 1u << 20;

// The socket end of the write chain: send() with MSG_NOSIGNAL, so that a peer that went away
// gives an error rather than SIGPIPE to the whole process.
int SinkWrite(BIO* bio, const char* data, int len)
{
    BIO_clear_retry_flags(bio);
    ssize_t n = ::send(BIO_get_fd(bio, nullptr), data, static_cast<size_t>(len), MSG_NOSIGNAL);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(n);
}

long SinkCtrl(BIO* bio, int cmd, long num, void* ptr)
{
    switch (cmd) {
        case BIO_C_SET_FD:
            BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(*static_cast<int*>(ptr))));
            BIO_set_init(bio, 1);
            return 1;
        case BIO_C_GET_FD:
            if (ptr != nullptr) {
                *static_cast<int*>(ptr) = static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
            }
            return static_cast<long>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
        case BIO_CTRL_FLUSH:
            return 1;
        default:
            (void)num;
            return 0;
    }
}

BIO_METHOD* SinkMethod()
{
    static BIO_METHOD* method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tandra socket sink");
        BIO_meth_set_write(m, SinkWrite);
        BIO_meth_set_ctrl(m, SinkCtrl);
        return m;
    }();
    return method;
}

asio::error_code SslError(unsigned long code)
{
    return asio::error_code(static_cast<int>(code), asio::error::get_ssl_category());
}
}  // namespace

struct TlsStream::ReadOp {
    char* buffer;
    size_t len;
    size_t done = 0;
    size_t reported = 0;
    Progress progress;
    Done complete;
};

struct TlsStream::WriteOp {
    const char* part[2];
    size_t partLen[2];
    size_t done = 0;
    size_t reported = 0;
    size_t reportedPending = 0;
    Progress progress;
    Done complete;
};

struct TlsStream::HandshakeOp {
    std::function<void(const asio::error_code&)> complete;
};

TlsStream::TlsStream(asio::ip::tcp::socket socket, SSL_CTX* ctx, const Strand& strand)
    : socket_(std::move(socket)), strand_(strand)
{
    asio::error_code ignored;
    socket_.non_blocking(true, ignored);
    int fd = socket_.native_handle();
    ssl_ = SSL_new(ctx);
    BIO* in = BIO_new_socket(fd, BIO_NOCLOSE);
    BIO* sink = BIO_new(SinkMethod());
    BIO_set_fd(sink, fd, BIO_NOCLOSE);
    writeBuffer_ = BIO_new(BIO_f_buffer());
    BIO_set_write_buffer_size(writeBuffer_, WRITE_BUFFER);
    BIO_push(writeBuffer_, sink);
    SSL_set_bio(ssl_, in, writeBuffer_);
    SSL_set_read_ahead(ssl_, 1);
    SSL_set_default_read_buffer_len(ssl_, READ_BUFFER);
    SSL_set_mode(ssl_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

TlsStream::~TlsStream()
{
    SSL_free(ssl_);
}

void TlsStream::Wait(asio::socket_base::wait_type type, std::function<void(const asio::error_code&)> then)
{
    auto self = shared_from_this();
    socket_.async_wait(type, asio::bind_executor(strand_, [self, then = std::move(then)](const asio::error_code& ec) {
                           then(ec);
                       }));
}

bool TlsStream::Failure(int ret, asio::socket_base::wait_type* type, asio::error_code* ec)
{
    int savedErrno = errno;
    switch (SSL_get_error(ssl_, ret)) {
        case SSL_ERROR_WANT_READ:
            *type = asio::socket_base::wait_read;
            return false;
        case SSL_ERROR_WANT_WRITE:
            *type = asio::socket_base::wait_write;
            return false;
        case SSL_ERROR_ZERO_RETURN:
            *ec = asio::error::eof;
            return true;
        case SSL_ERROR_SYSCALL: {
            unsigned long code = ERR_get_error();
            if (code != 0) {
                *ec = SslError(code);
            } else if (savedErrno != 0) {
                *ec = asio::error_code(savedErrno, asio::system_category());
            } else {
                *ec = asio::error::eof;
            }
            return true;
        }
        default: {
            unsigned long code = ERR_get_error();
            // The peer's TCP stream ended without TLS's own close: for us the same as an end.
            if (ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
                *ec = asio::error::eof;
            } else {
                *ec = code != 0 ? SslError(code) : asio::error_code(asio::error::fault);
            }
            return true;
        }
    }
}

bool TlsStream::Flush(asio::socket_base::wait_type* type, asio::error_code* ec)
{
    if (BIO_wpending(writeBuffer_) == 0) {
        return true;
    }
    errno = 0;
    if (BIO_flush(writeBuffer_) > 0) {
        return true;
    }
    if (BIO_should_retry(writeBuffer_)) {
        *type = asio::socket_base::wait_write;
        return false;
    }
    *ec = asio::error_code(errno != 0 ? errno : EPIPE, asio::system_category());
    return true;
}

void TlsStream::AsyncHandshake(bool client, std::function<void(const asio::error_code&)> done)
{
    if (client) {
        SSL_set_connect_state(ssl_);
    } else {
        SSL_set_accept_state(ssl_);
    }
    auto op = std::make_shared<HandshakeOp>();
    op->complete = std::move(done);
    auto self = shared_from_this();
    asio::post(strand_, [self, op] { self->RunHandshake(op); });
}

void TlsStream::RunHandshake(const std::shared_ptr<HandshakeOp>& op)
{
    if (!socket_.is_open()) {
        op->complete(asio::error::operation_aborted);
        return;
    }
    asio::socket_base::wait_type type = asio::socket_base::wait_read;
    asio::error_code ec;
    ERR_clear_error();
    int ret = SSL_do_handshake(ssl_);
    bool finished = ret == 1 ? Flush(&type, &ec) : Failure(ret, &type, &ec);
    if (finished) {
        op->complete(ec);
        return;
    }
    auto self = shared_from_this();
    Wait(type, [self, op](const asio::error_code& e) {
        if (e) {
            op->complete(e);
        } else {
            self->RunHandshake(op);
        }
    });
}

void TlsStream::AsyncRead(char* buffer, size_t len, Progress progress, Done done)
{
    auto op = std::make_shared<ReadOp>();
    op->buffer = buffer;
    op->len = len;
    op->progress = std::move(progress);
    op->complete = std::move(done);
    RunRead(op, false);
}

void TlsStream::RunRead(const std::shared_ptr<ReadOp>& op, bool waited)
{
    auto self = shared_from_this();
    size_t turnStart = op->done;
    asio::error_code ec;
    // The BIOs hold the bare descriptor: once the socket is closed its number may already
    // belong to another connection, so nothing may read or write through them any more.
    if (!socket_.is_open()) {
        ec = asio::error::operation_aborted;
    }
    while (!ec && op->done < op->len) {
        if (op->done - turnStart >= TURN_BYTES) {
            // Progress is reported at every turn: a body that streams in without a pause must
            // still show in the counters and keep the link alive while it arrives.
            if (op->progress) {
                op->reported = op->done;
                op->progress(op->done);
            }
            asio::post(strand_, [self, op] { self->RunRead(op, true); });
            return;
        }
        size_t n = 0;
        ERR_clear_error();
        errno = 0;
        int ret = SSL_read_ex(ssl_, op->buffer + op->done, op->len - op->done, &n);
        if (ret == 1) {
            op->done += n;
            continue;
        }
        asio::socket_base::wait_type type = asio::socket_base::wait_read;
        if (Failure(ret, &type, &ec)) {
            break;
        }
        if (op->progress && op->done > op->reported) {
            op->reported = op->done;
            op->progress(op->done);
        }
        Wait(type, [self, op](const asio::error_code& e) {
            if (e) {
                op->complete(e, op->done);
            } else {
                self->RunRead(op, true);
            }
        });
        return;
    }
    // A first call that completes at once still completes as a handler: callers chain reads
    // from their completions, and an unbroken chain must not grow the stack.
    if (waited) {
        op->complete(ec, op->done);
    } else {
        asio::post(strand_, [op, ec] { op->complete(ec, op->done); });
    }
}

void TlsStream::AsyncWrite(const char* first, size_t firstLen, const char* second, size_t secondLen,
                           Progress progress, Done done)
{
    auto op = std::make_shared<WriteOp>();
    op->part[0] = first;
    op->partLen[0] = firstLen;
    op->part[1] = second;
    op->partLen[1] = secondLen;
    op->progress = std::move(progress);
    op->complete = std::move(done);
    RunWrite(op, false);
}

void TlsStream::RunWrite(const std::shared_ptr<WriteOp>& op, bool waited)
{
    auto self = shared_from_this();
    const size_t total = op->partLen[0] + op->partLen[1];
    size_t turnStart = op->done;
    asio::error_code ec;
    asio::socket_base::wait_type type = asio::socket_base::wait_write;
    bool finished = !socket_.is_open();  // see RunRead
    if (finished) {
        ec = asio::error::operation_aborted;
    }
    while (!finished) {
        if (op->done < total) {
            if (op->done - turnStart >= TURN_BYTES) {
                if (op->progress) {
                    op->reported = op->done;
                    op->progress(op->done);
                }
                asio::post(strand_, [self, op] { self->RunWrite(op, true); });
                return;
            }
            size_t at = op->done;
            int part = at < op->partLen[0] ? 0 : 1;
            size_t offset = part == 0 ? at : at - op->partLen[0];
            size_t n = 0;
            ERR_clear_error();
            errno = 0;
            int ret = SSL_write_ex(ssl_, op->part[part] + offset, op->partLen[part] - offset, &n);
            if (ret == 1) {
                op->done += n;
                continue;
            }
            finished = Failure(ret, &type, &ec);
        } else {
            errno = 0;
            finished = Flush(&type, &ec);
        }
        if (finished) {
            break;
        }
        // Progress is bytes taken from the caller or bytes gone from the buffer to the socket:
        // the last half megabyte may drain slowly over a slow link, and that is progress too.
        size_t pending = BIO_wpending(writeBuffer_);
        if (op->progress && (op->done > op->reported || pending < op->reportedPending)) {
            op->reported = op->done;
            op->progress(op->done);
        }
        op->reportedPending = pending;
        Wait(type, [self, op](const asio::error_code& e) {
            if (e) {
                op->complete(e, op->done);
            } else {
                self->RunWrite(op, true);
            }
        });
        return;
    }
    if (waited) {
        op->complete(ec, op->done);
    } else {
        asio::post(strand_, [op, ec] { op->complete(ec, op->done); });
    }
}

}  // namespace Tandra
}  // namespace QUEX
