// NetConnection: one TLS connection of the device link. It owns its stream on one strand (the
// only place SSL_read/SSL_write run), reads frame after frame (header checked, then the body
// read straight into its buffer) and writes frames from a queue, one write in flight.
// Received data-message bodies: when the limits ask for it, a large one goes into a memfd
// (RawDataBuffer, its first 8 bytes - the message's own header - kept apart) and is sealed once
// complete, so that its payload travels on to an application as that memfd without a copy and
// never counts in this process's resident set; it is decrypted piece by piece into one reused
// staging buffer and written on by the kernel, because a fresh writable mapping of megabytes
// costs more than that copy. Otherwise a body goes into a per-connection heap buffer that is
// reused. While two bodies wait for delivery, reading pauses (so a peer cannot make us buffer
// more). Copies per received byte: one (the decryption), plus the kernel's for a memfd body.
// A write that makes no progress for the stall deadline (the peer stopped reading) closes the
// connection, so a sender never waits for ever on a peer that still answers heartbeats.
// Thread-safety: Send, Close and the counters may be called from any thread; handlers run on
// the strand.
#pragma once

#include <asio.hpp>
#include <asio/ssl/context.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "net_frame.h"
#include "raw_data_buffer.h"
#include "tls_stream.h"

namespace QUEX {
namespace Tandra {

// Completion of one queued frame; the sender may wait for it.
class SendCompletion {
public:
    void Finish(bool ok);
    // True when the frame was written to the socket.
    bool Wait();

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int state_ = 0;  // 0 pending, 1 written, 2 failed
};

// A received body. Data-message bodies go back to their connection when released: a heap
// buffer for reuse, a shared one (release gets null) to let reading go on.
class RxBody {
public:
    using Release = std::function<void(std::unique_ptr<char[]>, size_t)>;
    RxBody() = default;
    RxBody(std::unique_ptr<char[]> data, size_t len, size_t capacity, Release release)
        : data_(std::move(data)), len_(len), capacity_(capacity), release_(std::move(release))
    {
    }
    // A body read into shared memory; block (may be null) is its sealed payload, kept alive
    // while the body is so that a parcel written from data() finds it.
    RxBody(std::unique_ptr<Vex::RawDataBuffer> shared, std::shared_ptr<const Vex::RawDataBlock> block, Release release)
        : len_(shared->Size()), shared_(std::move(shared)), block_(std::move(block)), release_(std::move(release))
    {
    }
    ~RxBody();
    RxBody(RxBody&&) = default;
    RxBody& operator=(RxBody&&) = delete;
    RxBody(const RxBody&) = delete;
    const char* data() const
    {
        return shared_ != nullptr ? reinterpret_cast<const char*>(shared_->Data()) : data_.get();
    }
    size_t size() const { return len_; }

private:
    std::unique_ptr<char[]> data_;
    size_t len_ = 0;
    size_t capacity_ = 0;
    std::unique_ptr<Vex::RawDataBuffer> shared_;
    std::shared_ptr<const Vex::RawDataBlock> block_;
    Release release_;
};

class NetConnection : public std::enable_shared_from_this<NetConnection> {
public:
    using ReadyHandler = std::function<void(const std::shared_ptr<NetConnection>&)>;
    using FrameHandler = std::function<void(const std::shared_ptr<NetConnection>&, const FrameHeader&,
                                            std::shared_ptr<RxBody>)>;
    // reason is empty for a local Close without a reason.
    using ClosedHandler = std::function<void(const std::shared_ptr<NetConnection>&, const std::string& reason)>;

    // writeStall: how long a pending write may go without a byte written; zero = no limit.
    NetConnection(asio::io_context& io, asio::ssl::context& ssl, asio::ip::tcp::socket socket, bool dialed,
                  FrameLimits limits, std::chrono::milliseconds writeStall);
    ~NetConnection();

    // Handshakes (within the deadline), then reads frames until closed. Handlers run on the
    // strand; closed runs exactly once.
    void Start(std::chrono::milliseconds handshakeDeadline, ReadyHandler ready, FrameHandler frame,
               ClosedHandler closed);
    // Queues a frame whose body is borrowed: it must stay valid until done finishes.
    void SendBorrowed(const FrameHeader& header, const char* body, size_t len, std::shared_ptr<SendCompletion> done);
    // Queues a frame with a body it copies once (header and body in one TLS write).
    void SendCopy(const FrameHeader& header, const char* body, size_t len);
    // Queues a frame whose body is head (copied) then len bytes of the file fd from offset 0,
    // read a piece at a time into a reused buffer while the frame is written, so that a photo
    // is never held whole; zeros stand in where the file ends early. done fails when the file
    // cannot be read (nothing is sent if that shows before the first byte). fd is duplicated.
    // The reads run on the I/O thread, between writes: meant for a file in the page cache (a
    // photo just written), not for slow storage, which would hold every link's I/O back.
    void SendFile(const FrameHeader& header, const char* head, size_t headLen, int fd, size_t len,
                  std::shared_ptr<SendCompletion> done);
    // Closes the socket; queued frames fail. reason goes to the closed handler.
    void Close(const std::string& reason);
    // Closes once every frame queued before this call is written.
    void CloseWhenSent(const std::string& reason);
    // REQUIRES: on the strand (inside a handler). Frames from now on are checked for this role.
    void SetRole(FrameRole role) { role_ = role; }

    bool Dialed() const { return dialed_; }
    // Set once the handshake is done.
    const std::string& PeerFingerprint() const { return peerFingerprint_; }
    const std::string& RemoteAddress() const { return remoteAddress_; }
    uint64_t BytesIn() const { return bytesIn_.load(std::memory_order_relaxed); }
    uint64_t BytesOut() const { return bytesOut_.load(std::memory_order_relaxed); }
    std::chrono::steady_clock::time_point LastReceived() const;

private:
    struct TxItem;
    void ReadHeader();
    void ReadBody(const FrameHeader& header);
    // Reads a shared-memory body from done on, a staging buffer at a time, then finishes.
    void ReadSharedPiece(size_t total, size_t done, std::shared_ptr<size_t> counted, TlsStream::Done finish);
    // Counts the bytes of the body being read that arrived since the last count (n so far).
    void CountIn(size_t n, size_t* counted);
    // An item whose frame header and body (len bytes, copied) are its own, for one TLS write.
    static std::unique_ptr<TxItem> OwnedItem(const FrameHeader& header, const char* body, size_t len);
    void Enqueue(std::unique_ptr<TxItem> item);
    // Reads the file item's next piece into txStage_; false when nothing was sent yet and the
    // file cannot be read.
    bool ReadFilePiece(TxItem& item);
    void WriteNext();
    void ArmStallTimer();
    void CloseOnStrand(std::string reason);  // by value: the queue it clears may hold it
    void Touch();
    std::unique_ptr<char[]> AcquireDataBuffer(size_t len, size_t* capacity);
    void ReleaseDataBuffer(std::unique_ptr<char[]> buffer, size_t capacity);

    asio::strand<asio::io_context::executor_type> strand_;
    std::shared_ptr<TlsStream> stream_;
    asio::steady_timer deadline_;
    asio::steady_timer stallTimer_;
    const std::chrono::milliseconds writeStall_;
    bool stallArmed_ = false;
    std::chrono::steady_clock::time_point lastWriteProgress_;  // on the strand
    const bool dialed_;
    const FrameLimits limits_;
    FrameRole role_ = FrameRole::HANDSHAKE;
    std::string peerFingerprint_;
    std::string remoteAddress_;
    FrameHandler onFrame_;
    ClosedHandler onClosed_;
    uint8_t header_[FRAME_HEADER_SIZE] = {};
    std::deque<std::unique_ptr<TxItem>> queue_;
    bool writing_ = false;
    bool closed_ = false;
    bool readParked_ = false;

    // Data buffers: spares kept for reuse and how many are out waiting for delivery. As many
    // spares as bodies may be out at once, so that two released together both stay.
    struct Spare {
        std::unique_ptr<char[]> buffer;
        size_t capacity = 0;
    };
    std::mutex bufferMutex_;
    Spare spares_[2];
    int outstanding_ = 0;
    std::unique_ptr<char[]> reading_;  // the body being read (heap)
    size_t readingCapacity_ = 0;
    std::unique_ptr<Vex::RawDataBuffer> readingShared_;  // the body being read (shared memory)
    std::unique_ptr<char[]> stage_;                      // its pieces pass through here
    std::unique_ptr<char[]> txStage_;                    // pieces of a body sent from a file

    std::atomic<uint64_t> bytesIn_{0};
    std::atomic<uint64_t> bytesOut_{0};
    std::atomic<int64_t> lastReceivedNs_{0};
};

}  // namespace Tandra
}  // namespace QUEX
