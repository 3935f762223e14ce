// An application's callback object as the messages and events tests see it: a stub under the
// callback interface that decodes the callback envelope (token, service type, sub-service
// type, three more Uint32) and records each call: events (service type 101: code,
// collaboration id, text) and photos (102: status, collaboration id, size, raw bytes).
// Thread-safety: calls may arrive on any thread; the accessors copy under the lock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "camera_msg_header.h"
#include "iremote_stub.h"

namespace QUEX {
namespace Tandra {
namespace MessagesTesting {

constexpr std::chrono::milliseconds AWAIT{5000};

struct AppCall {
    uint32_t serviceType = 0;
    uint32_t subServiceType = 0;
    uint32_t code = 0;  // event code, or photo status
    uint32_t collaborationId = 0;
    std::string text;   // events
    uint32_t size = 0;  // photos
    std::string bytes;  // photos
    bool rawReadable = false;
};

class AppCallback : public Vex::IPCObjectStub {
public:
    AppCallback() : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback") {}

    int OnRemoteRequest(uint32_t, Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption&) override
    {
        AppCall call;
        if (data.ReadInterfaceToken() != u"quex.ITandra.ITandraCallback") {
            reply.WriteInt32(-1);
            return 0;
        }
        call.serviceType = data.ReadUint32();
        call.subServiceType = data.ReadUint32();
        for (int i = 0; i < 3; ++i) {
            data.ReadUint32();
        }
        call.code = data.ReadUint32();
        call.collaborationId = data.ReadUint32();
        if (call.serviceType == 102) {
            call.size = data.ReadUint32();
            const void* raw = data.ReadRawData(call.size);
            call.rawReadable = raw != nullptr || call.size == 0;
            if (raw != nullptr) {
                call.bytes.assign(static_cast<const char*>(raw), call.size);
            }
        } else {
            call.text = data.ReadString();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(call);
        cv_.notify_all();
        reply.WriteInt32(0);
        return 0;
    }

    std::vector<AppCall> Calls() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    std::vector<AppCall> Events() const
    {
        return Filter([](const AppCall& call) { return call.serviceType == 101; });
    }

    std::vector<AppCall> Photos() const
    {
        return Filter([](const AppCall& call) { return call.serviceType == 102; });
    }

    // Waits (real time) until at least count calls have arrived.
    bool AwaitCalls(size_t count, std::chrono::milliseconds timeout = AWAIT)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [&]() { return calls_.size() >= count; });
    }

    // Waits (real time) for a call with the code.
    bool AwaitCode(uint32_t code, std::chrono::milliseconds timeout = AWAIT)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [&]() {
            for (const auto& call : calls_) {
                if (call.code == code) {
                    return true;
                }
            }
            return false;
        });
    }

private:
    std::vector<AppCall> Filter(const std::function<bool(const AppCall&)>& keep) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<AppCall> out;
        for (const auto& call : calls_) {
            if (keep(call)) {
                out.push_back(call);
            }
        }
        return out;
    }

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<AppCall> calls_;
};

// A peer message: the 8-byte header followed by the payload.
inline std::string CameraMessage(uint32_t code, uint32_t size, const std::string& payload = std::string())
{
    CameraMsgHeader header{code, size};
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    return bytes + payload;
}

// Photo content whose every byte depends on its position and on the seed.
inline std::string PhotoBytes(size_t length, uint8_t seed)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>((i * 31 + seed) & 0xFF);
    }
    return bytes;
}

inline std::string IdText(uint32_t collaborationId)
{
    char buffer[16];
    std::snprintf(buffer, sizeof(buffer), "%011u", collaborationId);
    return buffer;
}

}  // namespace MessagesTesting
}  // namespace Tandra
}  // namespace QUEX
