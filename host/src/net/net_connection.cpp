// One TLS connection: handshake, frame reads into their final buffers, the write queue.
#include "net_connection.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fd_io.h"
#include "net_identity.h"
#include "net_log.h"

namespace QUEX {
namespace Tandra {

namespace {
// Data messages begin with their sender's own 8-byte header; what follows is the payload an
// application gets, so that is what starts on a page of the shared memory.
constexpr size_t DATA_HEADER_KEPT_APART = 8;
// Below this a body is copied on cheaply; above it, it is received into shared memory.
constexpr size_t SHARED_BODY_MIN = 256 * 1024;
// A shared-memory body is decrypted piece by piece into one reused buffer of this size, which
// stays in the caches, and each piece is written on into the memfd by the kernel; a body sent
// from a file is read into another such buffer a piece at a time.
constexpr size_t STAGE_BYTES = 256 * 1024;
}  // namespace

void SendCompletion::Finish(bool ok)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == 0) {
        state_ = ok ? 1 : 2;
        cv_.notify_all();
    }
}

bool SendCompletion::Wait()
{
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return state_ != 0; });
    return state_ == 1;
}

RxBody::~RxBody()
{
    if (release_ && (data_ || shared_)) {
        // The memory goes before the connection hears of it, so it may read the next body.
        shared_.reset();
        release_(std::move(data_), capacity_);
    }
}

struct NetConnection::TxItem {
    uint8_t header[FRAME_HEADER_SIZE];
    const char* body = nullptr;
    size_t len = 0;
    std::unique_ptr<char[]> owned;  // header and body together
    size_t ownedLen = 0;
    std::shared_ptr<SendCompletion> done;
    bool closeMarker = false;
    std::string closeReason;
    // A body read from a file a piece at a time, after owned (frame header and head). The
    // descriptor is the item's own.
    int file = -1;
    size_t fileLen = 0;
    size_t fileDone = 0;   // file bytes written so far
    size_t piece = 0;      // file bytes in the write in flight
    bool fileFailed = false;  // a read failed part-way; the rest went as zeros
    ~TxItem()
    {
        if (file >= 0) {
            close(file);
        }
        if (done) {
            done->Finish(false);
        }
    }
};

NetConnection::NetConnection(asio::io_context& io, asio::ssl::context& ssl, asio::ip::tcp::socket socket, bool dialed,
                             FrameLimits limits, std::chrono::milliseconds writeStall)
    : strand_(asio::make_strand(io)),
      stream_(std::make_shared<TlsStream>(std::move(socket), ssl.native_handle(), strand_)),
      deadline_(io),
      stallTimer_(io),
      writeStall_(writeStall),
      dialed_(dialed),
      limits_(limits)
{
    Touch();
}

NetConnection::~NetConnection() = default;

void NetConnection::Touch()
{
    lastReceivedNs_.store(std::chrono::steady_clock::now().time_since_epoch().count(), std::memory_order_relaxed);
}

std::chrono::steady_clock::time_point NetConnection::LastReceived() const
{
    return std::chrono::steady_clock::time_point(
        std::chrono::steady_clock::duration(lastReceivedNs_.load(std::memory_order_relaxed)));
}

void NetConnection::Start(std::chrono::milliseconds handshakeDeadline, ReadyHandler ready, FrameHandler frame,
                          ClosedHandler closed)
{
    auto self = shared_from_this();
    asio::dispatch(strand_, [self, handshakeDeadline, ready = std::move(ready), frame = std::move(frame),
                             closed = std::move(closed)]() mutable {
        self->onFrame_ = std::move(frame);
        self->onClosed_ = std::move(closed);
        asio::error_code ec;
        auto remote = self->stream_->Socket().remote_endpoint(ec);
        if (!ec) {
            self->remoteAddress_ = remote.address().to_string();
        }
        // Covers the handshake and the hello: a connection that says nothing is dropped.
        self->deadline_.expires_after(handshakeDeadline);
        self->deadline_.async_wait(asio::bind_executor(self->strand_, [self](const asio::error_code& e) {
            if (!e && self->role_ == FrameRole::HANDSHAKE) {
                self->CloseOnStrand("no TLS handshake and hello within the deadline");
            }
        }));
        self->stream_->AsyncHandshake(self->dialed_, [self, ready = std::move(ready)](const asio::error_code& e) {
                if (self->closed_) {
                    return;
                }
                if (e) {
                    self->CloseOnStrand("TLS handshake failed: " + e.message());
                    return;
                }
                X509* cert = SSL_get1_peer_certificate(self->stream_->NativeHandle());
                self->peerFingerprint_ = NetIdentity::FingerprintOf(cert);
                X509_free(cert);
                if (self->peerFingerprint_.empty() || SSL_version(self->stream_->NativeHandle()) != TLS1_3_VERSION) {
                    self->CloseOnStrand("the peer presented no certificate or not TLS 1.3");
                    return;
                }
                self->Touch();
                ready(self);
                if (!self->closed_) {
                    self->ReadHeader();
                }
            });
    });
}

void NetConnection::ReadHeader()
{
    auto self = shared_from_this();
    stream_->AsyncRead(reinterpret_cast<char*>(header_), sizeof header_, nullptr,
                     [self](const asio::error_code& ec, size_t n) {
                         if (self->closed_) {
                             return;
                         }
                         self->bytesIn_.fetch_add(n, std::memory_order_relaxed);
                         if (ec) {
                             bool eof = ec == asio::error::eof;
                             self->CloseOnStrand(eof ? "the peer closed the connection"
                                                     : "read failed: " + ec.message());
                             return;
                         }
                         self->Touch();
                         FrameHeader header;
                         std::string error;
                         if (!DecodeFrameHeader(self->header_, self->role_, self->limits_, &header, &error)) {
                             self->CloseOnStrand("bad frame: " + error);
                             return;
                         }
                         self->ReadBody(header);
                     });
}

std::unique_ptr<char[]> NetConnection::AcquireDataBuffer(size_t len, size_t* capacity)
{
    std::lock_guard<std::mutex> lock(bufferMutex_);
    ++outstanding_;
    // The smallest spare that fits, so that a large one stays for a large body.
    Spare* best = nullptr;
    for (Spare& spare : spares_) {
        if (spare.buffer != nullptr && spare.capacity >= len && (best == nullptr || spare.capacity < best->capacity)) {
            best = &spare;
        }
    }
    if (best != nullptr) {
        *capacity = best->capacity;
        best->capacity = 0;
        return std::move(best->buffer);
    }
    *capacity = len;
    return std::unique_ptr<char[]>(new char[len]);
}

void NetConnection::ReleaseDataBuffer(std::unique_ptr<char[]> buffer, size_t capacity)
{
    {
        std::lock_guard<std::mutex> lock(bufferMutex_);
        --outstanding_;
        // Into an empty slot, else in place of the smallest spare if this one is larger.
        Spare* slot = &spares_[0];
        for (Spare& spare : spares_) {
            if (spare.buffer == nullptr || spare.capacity < slot->capacity) {
                slot = &spare;
                if (spare.buffer == nullptr) {
                    break;
                }
            }
        }
        if (buffer != nullptr && (slot->buffer == nullptr || capacity > slot->capacity)) {
            slot->buffer = std::move(buffer);
            slot->capacity = capacity;
        }
    }
    auto self = shared_from_this();
    asio::post(strand_, [self] {
        if (self->readParked_ && !self->closed_) {
            self->readParked_ = false;
            self->ReadHeader();
        }
    });
}

void NetConnection::ReadBody(const FrameHeader& header)
{
    size_t capacity = header.length;
    char* target = nullptr;
    if (header.type == FrameType::DATA_MESSAGE && limits_.shareableDataBodies && header.length >= SHARED_BODY_MIN) {
        std::string error;
        readingShared_ = Vex::RawDataBuffer::Create(DATA_HEADER_KEPT_APART, header.length - DATA_HEADER_KEPT_APART,
                                                    &error);
        if (readingShared_ == nullptr) {
            TNDR_LINK_LOGE("data message received into the heap: %{public}s", error.c_str());
        } else {
            std::lock_guard<std::mutex> lock(bufferMutex_);
            ++outstanding_;
        }
    }
    if (readingShared_ != nullptr) {
        reading_.reset();
    } else if (header.type == FrameType::DATA_MESSAGE) {
        reading_ = AcquireDataBuffer(header.length, &capacity);
        target = reading_.get();
    } else {
        reading_.reset(header.length == 0 ? nullptr : new char[header.length]);
        target = reading_.get();
    }
    readingCapacity_ = capacity;
    auto self = shared_from_this();
    // The completion condition counts progress before each read, so a long body keeps the link
    // alive and shows in the counters while it arrives; the last read is counted here.
    auto counted = std::make_shared<size_t>(0);
    auto finish = [self, header, counted](const asio::error_code& ec, size_t n) {
        self->bytesIn_.fetch_add(n - std::min(n, *counted), std::memory_order_relaxed);
        if (self->closed_) {
            return;
        }
        if (ec) {
            self->CloseOnStrand("read failed: " + ec.message());
            return;
        }
        std::shared_ptr<RxBody> body;
        bool isData = header.type == FrameType::DATA_MESSAGE;
        if (isData) {
            std::weak_ptr<NetConnection> weak = self;
            RxBody::Release release = [weak](std::unique_ptr<char[]> buffer, size_t capacity) {
                if (auto conn = weak.lock()) {
                    conn->ReleaseDataBuffer(std::move(buffer), capacity);
                }
            };
            if (self->readingShared_ != nullptr) {
                std::string error;
                std::shared_ptr<const Vex::RawDataBlock> block = self->readingShared_->Seal(&error);
                if (block == nullptr && !self->readingShared_->Readable()) {
                    self->CloseOnStrand("received data message lost: " + error);
                    return;
                }
                if (block == nullptr) {
                    // Still readable: its payload is copied on like any other bytes.
                    TNDR_LINK_LOGE("received data message not shareable: %{public}s", error.c_str());
                }
                body = std::make_shared<RxBody>(std::move(self->readingShared_), std::move(block), std::move(release));
            } else {
                body = std::make_shared<RxBody>(std::move(self->reading_), header.length, self->readingCapacity_,
                                                std::move(release));
            }
        } else {
            body = std::make_shared<RxBody>(std::move(self->reading_), header.length, header.length, nullptr);
        }
        if (header.type == FrameType::HELLO) {
            self->deadline_.cancel();
        }
        self->onFrame_(self, header, std::move(body));
        if (self->closed_) {
            return;
        }
        if (isData) {
            std::lock_guard<std::mutex> lock(self->bufferMutex_);
            if (self->outstanding_ >= 2) {
                self->readParked_ = true;
                return;
            }
        }
        self->ReadHeader();
    };
    if (header.length == 0) {
        asio::post(strand_, [finish] { finish(asio::error_code(), 0); });
        return;
    }
    if (readingShared_ != nullptr) {
        if (stage_ == nullptr) {
            stage_.reset(new char[STAGE_BYTES]);
        }
        ReadSharedPiece(header.length, 0, counted, std::move(finish));
        return;
    }
    stream_->AsyncRead(target, header.length, [self, counted](size_t n) { self->CountIn(n, counted.get()); },
                       std::move(finish));
}

void NetConnection::CountIn(size_t n, size_t* counted)
{
    bytesIn_.fetch_add(n - *counted, std::memory_order_relaxed);
    *counted = n;
    Touch();
}

void NetConnection::ReadSharedPiece(size_t total, size_t done, std::shared_ptr<size_t> counted, TlsStream::Done finish)
{
    auto self = shared_from_this();
    const size_t len = std::min(STAGE_BYTES, total - done);
    stream_->AsyncRead(
        stage_.get(), len, [self, counted, done](size_t n) { self->CountIn(done + n, counted.get()); },
        [self, total, done, counted, finish](const asio::error_code& ec, size_t n) {
            if (ec || self->closed_) {
                finish(ec, done + n);
                return;
            }
            std::string error;
            if (!self->readingShared_->Write(done, self->stage_.get(), n, &error)) {
                self->CloseOnStrand("received data message lost: " + error);
                return;
            }
            if (done + n == total) {
                finish(ec, total);
                return;
            }
            self->CountIn(done + n, counted.get());
            self->ReadSharedPiece(total, done + n, counted, finish);
        });
}

void NetConnection::SendBorrowed(const FrameHeader& header, const char* body, size_t len,
                                 std::shared_ptr<SendCompletion> done)
{
    auto item = std::make_unique<TxItem>();
    EncodeFrameHeader(header, item->header);
    item->body = body;
    item->len = len;
    item->done = std::move(done);
    Enqueue(std::move(item));
}

void NetConnection::SendCopy(const FrameHeader& header, const char* body, size_t len)
{
    Enqueue(OwnedItem(header, body, len));
}

std::unique_ptr<NetConnection::TxItem> NetConnection::OwnedItem(const FrameHeader& header, const char* body,
                                                                size_t len)
{
    auto item = std::make_unique<TxItem>();
    item->ownedLen = FRAME_HEADER_SIZE + len;
    item->owned.reset(new char[item->ownedLen]);
    EncodeFrameHeader(header, reinterpret_cast<uint8_t*>(item->owned.get()));
    if (len > 0) {
        std::memcpy(item->owned.get() + FRAME_HEADER_SIZE, body, len);
    }
    return item;
}

void NetConnection::SendFile(const FrameHeader& header, const char* head, size_t headLen, int fd, size_t len,
                             std::shared_ptr<SendCompletion> done)
{
    const int file = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (file < 0) {
        TNDR_LINK_LOGE("cannot send from a file: %{public}s", std::strerror(errno));
        done->Finish(false);
        return;
    }
    std::unique_ptr<TxItem> item = OwnedItem(header, head, headLen);
    item->file = file;
    item->fileLen = len;
    item->done = std::move(done);
    Enqueue(std::move(item));
}

bool NetConnection::ReadFilePiece(TxItem& item)
{
    if (txStage_ == nullptr) {
        txStage_.reset(new char[STAGE_BYTES]);
    }
    char* stage = txStage_.get();
    const size_t len = std::min(STAGE_BYTES, item.fileLen - item.fileDone);
    size_t got = 0;
    if (!item.fileFailed && !Vex::ReadAllAt(item.file, stage, len, static_cast<off_t>(item.fileDone), &got)) {
        if (item.fileDone == 0 && got == 0) {
            TNDR_LINK_LOGE("data message not sent: its file cannot be read: %{public}s", std::strerror(errno));
            return false;
        }
        // The frame has begun and its length was announced: it is completed with zeros, and
        // the sender hears of the failure.
        TNDR_LINK_LOGE("file of a data message unreadable after %{public}zu bytes: %{public}s", item.fileDone + got,
                       std::strerror(errno));
        item.fileFailed = true;
    }
    if (got < len) {
        std::memset(stage + got, 0, len - got);
    }
    item.piece = len;
    return true;
}

void NetConnection::Enqueue(std::unique_ptr<TxItem> item)
{
    auto self = shared_from_this();
    asio::post(strand_, [self, item = std::move(item)]() mutable {
        if (self->closed_) {
            return;  // the item's completion fails as it is destroyed
        }
        self->queue_.push_back(std::move(item));
        self->WriteNext();
    });
}

void NetConnection::WriteNext()
{
    if (writing_ || closed_ || queue_.empty()) {
        return;
    }
    TxItem& item = *queue_.front();
    if (item.closeMarker) {
        CloseOnStrand(item.closeReason);
        return;
    }
    const char* first = reinterpret_cast<const char*>(item.header);
    size_t firstLen = sizeof item.header;
    const char* second = item.body;
    size_t secondLen = item.len;
    if (item.owned) {
        first = item.owned.get();
        firstLen = item.ownedLen;
        second = nullptr;
        secondLen = 0;
    }
    if (item.file >= 0) {
        if (!ReadFilePiece(item)) {
            std::unique_ptr<TxItem> failed = std::move(queue_.front());  // its completion fails
            queue_.pop_front();
            WriteNext();
            return;
        }
        if (item.fileDone > 0) {
            first = nullptr;  // the frame header and head went with the first piece
            firstLen = 0;
        }
        second = txStage_.get();
        secondLen = item.piece;
    }
    writing_ = true;
    auto self = shared_from_this();
    lastWriteProgress_ = std::chrono::steady_clock::now();
    ArmStallTimer();
    auto progress = [self](size_t) { self->lastWriteProgress_ = std::chrono::steady_clock::now(); };
    stream_->AsyncWrite(first, firstLen, second, secondLen, std::move(progress),
                      [self](const asio::error_code& ec, size_t n) {
                          self->writing_ = false;
                          self->bytesOut_.fetch_add(n, std::memory_order_relaxed);
                          if (self->closed_) {
                              self->queue_.clear();
                              return;
                          }
                          if (ec) {
                              self->CloseOnStrand("write failed: " + ec.message());
                              return;
                          }
                          TxItem& front = *self->queue_.front();
                          front.fileDone += front.piece;
                          front.piece = 0;
                          if (front.file >= 0 && front.fileDone < front.fileLen) {
                              self->WriteNext();  // the file's next piece
                              return;
                          }
                          std::unique_ptr<TxItem> done = std::move(self->queue_.front());
                          self->queue_.pop_front();
                          if (done->done) {
                              done->done->Finish(!done->fileFailed);
                          }
                          self->WriteNext();
                      });
}

// One timer per connection, re-armed from the last progress rather than per write, so that a
// stream of small frames does not churn it.
void NetConnection::ArmStallTimer()
{
    if (stallArmed_ || writeStall_.count() <= 0) {
        return;
    }
    stallArmed_ = true;
    stallTimer_.expires_at(lastWriteProgress_ + writeStall_);
    auto self = shared_from_this();
    stallTimer_.async_wait(asio::bind_executor(strand_, [self](const asio::error_code& ec) {
        self->stallArmed_ = false;
        if (ec || self->closed_ || !self->writing_) {
            return;
        }
        auto now = std::chrono::steady_clock::now();
        if (now - self->lastWriteProgress_ < self->writeStall_) {
            self->ArmStallTimer();
            return;
        }
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - self->lastWriteProgress_).count();
        self->CloseOnStrand("the peer stopped reading: no byte written for " + std::to_string(ms) + " ms");
    }));
}

void NetConnection::Close(const std::string& reason)
{
    auto self = shared_from_this();
    asio::post(strand_, [self, reason] { self->CloseOnStrand(reason); });
}

void NetConnection::CloseWhenSent(const std::string& reason)
{
    auto item = std::make_unique<TxItem>();
    item->closeMarker = true;
    item->closeReason = reason;
    Enqueue(std::move(item));
}

void NetConnection::CloseOnStrand(std::string reason)
{
    if (closed_) {
        return;
    }
    closed_ = true;
    deadline_.cancel();
    stallTimer_.cancel();
    // The frame being written stays until its write handler runs: its buffers are in use.
    if (writing_) {
        while (queue_.size() > 1) {
            queue_.pop_back();
        }
    } else {
        queue_.clear();
    }
    ClosedHandler closed = std::move(onClosed_);
    onClosed_ = nullptr;
    onFrame_ = nullptr;
    // The owner hears (and logs) why before the peer can see the socket close.
    if (closed) {
        closed(shared_from_this(), reason);
    }
    asio::error_code ignored;
    stream_->Socket().shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    stream_->Socket().close(ignored);
}

}  // namespace Tandra
}  // namespace QUEX
