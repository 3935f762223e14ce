// NetTrustStore: the fingerprints of the devices this one was paired with, in trusted.json in
// the state folder (mode 0600, replaced atomically on every change).
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <map>
#include <mutex>
#include <string>

namespace QUEX {
namespace Tandra {

class NetTrustStore {
public:
    explicit NetTrustStore(std::string path) : path_(std::move(path)) {}
    NetTrustStore(const NetTrustStore&) = delete;
    NetTrustStore& operator=(const NetTrustStore&) = delete;

    // Reads the file; a missing file is an empty store. False and *error when it is unreadable.
    bool Load(std::string* error);
    bool Contains(const std::string& fingerprint);
    // The name the device had when it was paired, or "".
    std::string NameOf(const std::string& fingerprint);
    // Adds or removes and writes the file; false and *error when it could not be written.
    bool Add(const std::string& fingerprint, const std::string& name, std::string* error);
    bool Remove(const std::string& fingerprint, std::string* error);

private:
    bool SaveLocked(std::string* error);

    const std::string path_;
    std::mutex mutex_;
    std::map<std::string, std::string> trusted_;  // fingerprint -> name
};

}  // namespace Tandra
}  // namespace QUEX
