// NetIdentity: this device's key pair and self-signed certificate, kept in the state folder
// (device.key and device.crt, mode 0600), created on first start. The device's network id and
// UDID are the certificate's SHA-256 fingerprint in upper-case hex, so any peer can check whom
// it talks to from the TLS handshake alone. Also the pairing code both sides show the user.
// Thread-safety: immutable after LoadOrCreate; any thread may use it.
#pragma once

#include <memory>
#include <string>

typedef struct x509_st X509;
typedef struct evp_pkey_st EVP_PKEY;

namespace QUEX {
namespace Tandra {

class NetIdentity {
public:
    ~NetIdentity();
    NetIdentity(const NetIdentity&) = delete;
    NetIdentity& operator=(const NetIdentity&) = delete;

    // Loads the identity from stateDir, or creates it there (the folder too, mode 0700).
    // deviceName goes into a new certificate's subject only. Null and *error on failure.
    static std::unique_ptr<NetIdentity> LoadOrCreate(const std::string& stateDir, const std::string& deviceName,
                                                     std::string* error);

    const std::string& Fingerprint() const { return fingerprint_; }
    X509* Certificate() const { return cert_; }
    EVP_PKEY* Key() const { return key_; }

    static std::string FingerprintOf(X509* cert);
    // Six digits from both fingerprints, the same on both sides whatever the order.
    static std::string PairingCode(const std::string& fingerprintA, const std::string& fingerprintB);

private:
    NetIdentity() = default;
    X509* cert_ = nullptr;
    EVP_PKEY* key_ = nullptr;
    std::string fingerprint_;
};

}  // namespace Tandra
}  // namespace QUEX
