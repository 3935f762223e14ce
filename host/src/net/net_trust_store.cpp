// The paired devices' fingerprints as a small JSON file.
#include "net_trust_store.h"

#include <fcntl.h>
#include <json/json.h>

#include "json_text.h"
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace QUEX {
namespace Tandra {

bool NetTrustStore::Load(std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    trusted_.clear();
    std::ifstream in(path_);
    if (!in) {
        return errno == ENOENT || (*error = "could not read " + path_ + ": " + std::strerror(errno), false);
    }
    std::stringstream text;
    text << in.rdbuf();
    Json::Value root;
    std::string errs;
    if (!Vex::ParseJsonText(text.str(), &root, &errs) || !root.isArray()) {
        *error = path_ + " is not a list of paired devices; fix or delete it (then pair again)";
        return false;
    }
    for (const Json::Value& item : root) {
        if (item.isObject() && item["fingerprint"].isString()) {
            trusted_[item["fingerprint"].asString()] = item["name"].isString() ? item["name"].asString() : "";
        }
    }
    return true;
}

bool NetTrustStore::Contains(const std::string& fingerprint)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return trusted_.count(fingerprint) != 0;
}

std::string NetTrustStore::NameOf(const std::string& fingerprint)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = trusted_.find(fingerprint);
    return it == trusted_.end() ? std::string() : it->second;
}

bool NetTrustStore::Add(const std::string& fingerprint, const std::string& name, std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    trusted_[fingerprint] = name;
    return SaveLocked(error);
}

bool NetTrustStore::Remove(const std::string& fingerprint, std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (trusted_.erase(fingerprint) == 0) {
        return true;
    }
    return SaveLocked(error);
}

bool NetTrustStore::SaveLocked(std::string* error)
{
    Json::Value root(Json::arrayValue);
    for (const auto& entry : trusted_) {
        Json::Value item;
        item["fingerprint"] = entry.first;
        item["name"] = entry.second;
        root.append(item);
    }
    Json::StreamWriterBuilder builder;
    std::string text = Json::writeString(builder, root) + "\n";
    std::string tmp = path_ + ".tmp";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0) {
        ok = ::fsync(fd) == 0 && ok;
        ok = ::close(fd) == 0 && ok;
    }
    ok = ok && std::rename(tmp.c_str(), path_.c_str()) == 0;
    if (!ok) {
        *error = "could not save the paired devices to " + path_ + ": " + std::strerror(errno);
    }
    return ok;
}

}  // namespace Tandra
}  // namespace QUEX
