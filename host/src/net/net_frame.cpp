// Frame header layout and checks, and the bodies of the structured frames.
#include "net_frame.h"

#include <json/json.h>

#include "json_text.h"

#include <cstring>
#include <memory>

namespace QUEX {
namespace Tandra {
namespace {

void PutU32(uint8_t* out, uint32_t v)
{
    out[0] = static_cast<uint8_t>(v >> 24);
    out[1] = static_cast<uint8_t>(v >> 16);
    out[2] = static_cast<uint8_t>(v >> 8);
    out[3] = static_cast<uint8_t>(v);
}

uint32_t GetU32(const uint8_t* in)
{
    return (uint32_t{in[0]} << 24) | (uint32_t{in[1]} << 16) | (uint32_t{in[2]} << 8) | uint32_t{in[3]};
}

// The largest body a frame type may carry on a connection of the role, or -1 when the type is
// not allowed there at all.
int64_t BodyLimit(FrameType type, FrameRole role, const FrameLimits& limits)
{
    switch (type) {
        case FrameType::HELLO:
            return role == FrameRole::HANDSHAKE ? int64_t{FrameLimits::MAX_META_BODY} : -1;
        case FrameType::HEARTBEAT:
            return role == FrameRole::HANDSHAKE ? int64_t{-1} : 0;
        case FrameType::ABILITIES:
            return role == FrameRole::CONTROL ? int64_t{FrameLimits::MAX_META_BODY} : -1;
        case FrameType::PAIR_REQUEST:
        case FrameType::PAIR_CONFIRM:
        case FrameType::OPEN_RESULT:
        case FrameType::CLOSE_SESSION:
            return role == FrameRole::CONTROL ? int64_t{0} : -1;
        case FrameType::OPEN_SESSION:
        case FrameType::CTRL_MESSAGE:
            return role == FrameRole::CONTROL ? int64_t{limits.maxControlBody} : -1;
        case FrameType::OPEN_CHANNEL:
        case FrameType::CLOSE_CHANNEL:
            return role == FrameRole::DATA ? int64_t{0} : -1;
        case FrameType::DATA_MESSAGE:
            return role == FrameRole::DATA ? int64_t{limits.maxDataBody} : -1;
    }
    return -1;
}

bool ParseJson(const char* data, size_t len, Json::Value* root, std::string* error)
{
    Vex::JsonRules rules;
    rules.depthLimit = 32;
    rules.rejectDuplicateKeys = true;
    std::string errs;
    if (!Vex::ParseJsonText(data, len, root, &errs, rules)) {
        *error = "malformed JSON: " + errs.substr(0, 120);
        return false;
    }
    return true;
}

std::string WriteJson(const Json::Value& root)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, root);
}

bool GetString(const Json::Value& v, const char* key, std::string* out)
{
    const Json::Value& item = v[key];
    if (item.isNull()) {
        out->clear();
        return true;
    }
    if (!item.isString()) {
        return false;
    }
    *out = item.asString();
    return true;
}

}  // namespace

void EncodeFrameHeader(const FrameHeader& header, uint8_t* out)
{
    out[0] = 'T';
    out[1] = 'N';
    out[2] = 'L';
    out[3] = FRAME_VERSION;
    out[4] = static_cast<uint8_t>(header.type);
    out[5] = header.flags;
    out[6] = 0;
    out[7] = 0;
    PutU32(out + 8, header.a);
    PutU32(out + 12, header.b);
    PutU32(out + 16, header.c);
    PutU32(out + 20, header.length);
}

bool DecodeFrameHeader(const uint8_t* in, FrameRole role, const FrameLimits& limits, FrameHeader* out,
                       std::string* error)
{
    if (in[0] != 'T' || in[1] != 'N' || in[2] != 'L') {
        *error = "not a link frame (bad magic)";
        return false;
    }
    if (in[3] != FRAME_VERSION) {
        *error = "unsupported frame version " + std::to_string(in[3]);
        return false;
    }
    if (in[6] != 0 || in[7] != 0) {
        *error = "reserved header bytes are not zero";
        return false;
    }
    FrameHeader h;
    h.type = static_cast<FrameType>(in[4]);
    h.flags = in[5];
    h.a = GetU32(in + 8);
    h.b = GetU32(in + 12);
    h.c = GetU32(in + 16);
    h.length = GetU32(in + 20);
    int64_t limit = BodyLimit(h.type, role, limits);
    if (limit < 0) {
        *error = "frame type " + std::to_string(in[4]) + " not allowed on this connection";
        return false;
    }
    if (h.length > limit) {
        *error = "frame body of " + std::to_string(h.length) + " bytes exceeds the limit of " + std::to_string(limit);
        return false;
    }
    uint8_t allowedFlags = h.type == FrameType::DATA_MESSAGE ? (FRAME_FLAG_FIRST | FRAME_FLAG_RECEIVER_CHANNEL) : 0;
    if ((h.flags & ~allowedFlags) != 0) {
        *error = "unknown frame flags";
        return false;
    }
    *out = h;
    return true;
}

std::string EncodeHello(const HelloInfo& hello)
{
    Json::Value root;
    root["name"] = hello.deviceName;
    root["type"] = hello.deviceType;
    root["port"] = hello.port;
    root["role"] = hello.dataRole ? "data" : "control";
    root["pair"] = hello.pairing;
    return WriteJson(root);
}

bool ParseHello(const char* data, size_t len, HelloInfo* out, std::string* error)
{
    Json::Value root;
    if (!ParseJson(data, len, &root, error)) {
        return false;
    }
    if (!root.isObject() || !root["type"].isUInt() || !root["port"].isUInt() || root["port"].asUInt() > 65535 ||
        !root["role"].isString() || !root["pair"].isBool()) {
        *error = "hello lacks type, port, role or pair";
        return false;
    }
    HelloInfo h;
    if (!GetString(root, "name", &h.deviceName) || h.deviceName.size() > 256) {
        *error = "hello has a bad device name";
        return false;
    }
    h.deviceType = root["type"].asUInt();
    h.port = static_cast<uint16_t>(root["port"].asUInt());
    std::string role = root["role"].asString();
    if (role != "data" && role != "control") {
        *error = "hello names an unknown role";
        return false;
    }
    h.dataRole = role == "data";
    h.pairing = root["pair"].asBool();
    *out = h;
    return true;
}

std::string EncodeAbilities(const std::vector<AbilityInfo>& abilities)
{
    Json::Value root(Json::arrayValue);
    for (const AbilityInfo& a : abilities) {
        Json::Value item;
        item["bundle"] = a.bundleName;
        item["ability"] = a.abilityName;
        item["module"] = a.moduleName;
        item["action"] = a.action;
        item["type"] = a.abilityType;
        root.append(item);
    }
    return WriteJson(root);
}

bool ParseAbilities(const char* data, size_t len, std::vector<AbilityInfo>* out, std::string* error)
{
    Json::Value root;
    if (!ParseJson(data, len, &root, error)) {
        return false;
    }
    if (!root.isArray()) {
        *error = "ability list is not an array";
        return false;
    }
    std::vector<AbilityInfo> result;
    for (const Json::Value& item : root) {
        AbilityInfo a;
        if (!item.isObject() || !GetString(item, "bundle", &a.bundleName) || !GetString(item, "ability", &a.abilityName) ||
            !GetString(item, "module", &a.moduleName) || !GetString(item, "action", &a.action) ||
            !GetString(item, "type", &a.abilityType)) {
            *error = "malformed ability record";
            return false;
        }
        result.push_back(std::move(a));
    }
    *out = std::move(result);
    return true;
}

std::string EncodeOpenSession(const std::string& name, const std::string& commandText)
{
    std::string out(4, '\0');
    PutU32(reinterpret_cast<uint8_t*>(&out[0]), static_cast<uint32_t>(name.size()));
    out += name;
    out += commandText;
    return out;
}

bool ParseOpenSession(const char* data, size_t len, std::string* name, std::string* commandText, std::string* error)
{
    if (len < 4) {
        *error = "session opening shorter than its name length";
        return false;
    }
    uint32_t nameLen = GetU32(reinterpret_cast<const uint8_t*>(data));
    if (nameLen == 0 || nameLen > 256 || nameLen > len - 4) {
        *error = "session opening has a bad name length " + std::to_string(nameLen);
        return false;
    }
    name->assign(data + 4, nameLen);
    commandText->assign(data + 4 + nameLen, len - 4 - nameLen);
    return true;
}

bool FrameDecoder::Feed(const char* data, size_t len, std::vector<Frame>* frames)
{
    if (!error_.empty()) {
        return false;
    }
    while (len > 0 || (inBody_ && bodyHave_ == current_.body.size())) {
        if (!inBody_) {
            size_t take = std::min(len, FRAME_HEADER_SIZE - headerHave_);
            std::memcpy(header_ + headerHave_, data, take);
            headerHave_ += take;
            data += take;
            len -= take;
            if (headerHave_ < FRAME_HEADER_SIZE) {
                return true;
            }
            headerHave_ = 0;
            if (!DecodeFrameHeader(header_, role_, limits_, &current_.header, &error_)) {
                return false;
            }
            current_.body.resize(current_.header.length);
            bodyHave_ = 0;
            inBody_ = true;
        }
        size_t take = std::min(len, current_.body.size() - bodyHave_);
        if (take > 0) {
            std::memcpy(current_.body.data() + bodyHave_, data, take);
        }
        bodyHave_ += take;
        data += take;
        len -= take;
        if (bodyHave_ < current_.body.size()) {
            return true;
        }
        inBody_ = false;
        if (current_.header.type == FrameType::HELLO) {
            HelloInfo hello;
            if (!ParseHello(current_.body.data(), current_.body.size(), &hello, &error_)) {
                return false;
            }
            role_ = hello.dataRole ? FrameRole::DATA : FrameRole::CONTROL;
        }
        frames->push_back(std::move(current_));
        current_ = Frame();
    }
    return true;
}

}  // namespace Tandra
}  // namespace QUEX
