// TlsStream: TLS over one TCP socket, OpenSSL driven straight on the non-blocking socket.
// asio's ssl::stream passes every record through a 17 KiB pair of buffers, one socket call and
// one handler per record, and two extra copies each way; photos are megabytes, so here OpenSSL
// reads the socket itself, many records per call into a large read-ahead buffer, and writes
// its records into a large buffer that goes to the socket in one call. Per byte that leaves
// what TLS needs: one copy and the cipher pass on each side, besides the kernel's copy.
// Thread-safety: none of its own. Every call and every completion runs on the strand given at
// construction; one read and one write may be outstanding at a time (they may overlap).
#pragma once

#include <asio.hpp>
#include <openssl/ssl.h>

#include <functional>
#include <memory>

namespace QUEX {
namespace Tandra {

class TlsStream : public std::enable_shared_from_this<TlsStream> {
public:
    using Strand = asio::strand<asio::io_context::executor_type>;
    // n: bytes transferred so far by the operation.
    using Progress = std::function<void(size_t n)>;
    using Done = std::function<void(const asio::error_code& ec, size_t n)>;

    // Takes the context's settings (certificate, key, verification) for this connection.
    TlsStream(asio::ip::tcp::socket socket, SSL_CTX* ctx, const Strand& strand);
    ~TlsStream();
    TlsStream(const TlsStream&) = delete;
    TlsStream& operator=(const TlsStream&) = delete;

    // Runs the handshake as client or server; done gets an error in the ssl category
    // (its message is OpenSSL's reason) or from the socket.
    void AsyncHandshake(bool client, std::function<void(const asio::error_code&)> done);
    // Reads exactly len bytes into buffer. progress runs whenever the bytes read so far grow
    // and the operation must wait for the socket; a clean or abrupt end of the peer's stream
    // completes with asio::error::eof.
    void AsyncRead(char* buffer, size_t len, Progress progress, Done done);
    // Writes every byte of the two parts (either may be empty), then flushes to the socket.
    // progress runs whenever bytes reached the socket and the write must wait for room.
    void AsyncWrite(const char* first, size_t firstLen, const char* second, size_t secondLen, Progress progress,
                    Done done);

    SSL* NativeHandle() const { return ssl_; }
    asio::ip::tcp::socket& Socket() { return socket_; }

private:
    struct ReadOp;
    struct WriteOp;
    struct HandshakeOp;
    void RunRead(const std::shared_ptr<ReadOp>& op, bool waited);
    void RunWrite(const std::shared_ptr<WriteOp>& op, bool waited);
    void RunHandshake(const std::shared_ptr<HandshakeOp>& op);
    // Waits for the socket (read or write readiness), then calls again on the strand.
    void Wait(asio::socket_base::wait_type type, std::function<void(const asio::error_code&)> then);
    // Maps the last SSL call's failure to an error code; false means "wait" with *type set.
    bool Failure(int ret, asio::socket_base::wait_type* type, asio::error_code* ec);
    // Pushes buffered records to the socket; false with *type set when it must wait.
    bool Flush(asio::socket_base::wait_type* type, asio::error_code* ec);

    asio::ip::tcp::socket socket_;
    Strand strand_;
    SSL* ssl_ = nullptr;
    BIO* writeBuffer_ = nullptr;  // owned by ssl_
};

}  // namespace Tandra
}  // namespace QUEX
