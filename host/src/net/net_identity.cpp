// Key pair and certificate on disk; fingerprints and pairing codes.
#include "net_identity.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace QUEX {
namespace Tandra {
namespace {

std::string Hex(const unsigned char* data, size_t len)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(len * 2);
    for (size_t i = 0; i < len; ++i) {
        out.push_back(digits[data[i] >> 4]);
        out.push_back(digits[data[i] & 15]);
    }
    return out;
}

// Opens for writing with mode 0600 from the start, so the key is never readable by others.
FILE* OpenPrivate(const std::string& path)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return nullptr;
    }
    (void)::fchmod(fd, 0600);
    FILE* f = ::fdopen(fd, "w");
    if (f == nullptr) {
        ::close(fd);
    }
    return f;
}

bool Create(const std::string& keyPath, const std::string& certPath, const std::string& name, EVP_PKEY** keyOut,
            X509** certOut, std::string* error)
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    bool ok = key != nullptr && cert != nullptr;
    unsigned char serial[8];
    ok = ok && RAND_bytes(serial, sizeof serial) == 1;
    if (ok) {
        serial[0] &= 0x7f;
        BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
        ok = bn != nullptr && BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert)) != nullptr;
        BN_free(bn);
    }
    ok = ok && X509_set_version(cert, 2) == 1;
    ok = ok && X509_gmtime_adj(X509_getm_notBefore(cert), -86400) != nullptr;
    ok = ok && X509_gmtime_adj(X509_getm_notAfter(cert), 20L * 365 * 86400) != nullptr;
    if (ok) {
        X509_NAME* subject = X509_get_subject_name(cert);
        std::string cn = name.empty() ? "tandra device" : name.substr(0, 64);
        ok = X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                        reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0) == 1 &&
             X509_set_issuer_name(cert, subject) == 1;
    }
    ok = ok && X509_set_pubkey(cert, key) == 1 && X509_sign(cert, key, EVP_sha256()) > 0;
    if (!ok) {
        *error = "could not create the device key and certificate (OpenSSL failed)";
    }
    if (ok) {
        FILE* kf = OpenPrivate(keyPath);
        ok = kf != nullptr && PEM_write_PrivateKey(kf, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
        if (kf != nullptr && std::fclose(kf) != 0) {
            ok = false;
        }
        FILE* cf = ok ? OpenPrivate(certPath) : nullptr;
        ok = ok && cf != nullptr && PEM_write_X509(cf, cert) == 1;
        if (cf != nullptr && std::fclose(cf) != 0) {
            ok = false;
        }
        if (!ok) {
            *error = "could not write the device key and certificate to " + keyPath + ": " + std::strerror(errno) +
                     "; check that the state folder is writable";
        }
    }
    if (!ok) {
        EVP_PKEY_free(key);
        X509_free(cert);
        return false;
    }
    *keyOut = key;
    *certOut = cert;
    return true;
}

}  // namespace

NetIdentity::~NetIdentity()
{
    X509_free(cert_);
    EVP_PKEY_free(key_);
}

std::unique_ptr<NetIdentity> NetIdentity::LoadOrCreate(const std::string& stateDir, const std::string& deviceName,
                                                       std::string* error)
{
    if (stateDir.empty()) {
        *error = "no state folder configured for the device identity";
        return nullptr;
    }
    if (::mkdir(stateDir.c_str(), 0700) != 0 && errno != EEXIST) {
        *error = "could not create the state folder " + stateDir + ": " + std::strerror(errno);
        return nullptr;
    }
    std::string keyPath = stateDir + "/device.key";
    std::string certPath = stateDir + "/device.crt";
    std::unique_ptr<NetIdentity> id(new NetIdentity());
    FILE* kf = std::fopen(keyPath.c_str(), "re");
    if (kf == nullptr) {
        if (errno != ENOENT) {
            *error = "could not read " + keyPath + ": " + std::strerror(errno);
            return nullptr;
        }
        if (!Create(keyPath, certPath, deviceName, &id->key_, &id->cert_, error)) {
            return nullptr;
        }
    } else {
        id->key_ = PEM_read_PrivateKey(kf, nullptr, nullptr, nullptr);
        std::fclose(kf);
        FILE* cf = std::fopen(certPath.c_str(), "re");
        if (cf != nullptr) {
            id->cert_ = PEM_read_X509(cf, nullptr, nullptr, nullptr);
            std::fclose(cf);
        }
        if (id->key_ == nullptr || id->cert_ == nullptr || X509_check_private_key(id->cert_, id->key_) != 1) {
            *error = "the device key or certificate in " + stateDir +
                     " is unreadable or they do not match; move them away to create a new identity (peers must "
                     "pair again)";
            return nullptr;
        }
        (void)::chmod(keyPath.c_str(), 0600);
        (void)::chmod(certPath.c_str(), 0600);
    }
    id->fingerprint_ = FingerprintOf(id->cert_);
    return id;
}

std::string NetIdentity::FingerprintOf(X509* cert)
{
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (cert == nullptr || X509_digest(cert, EVP_sha256(), md, &len) != 1) {
        return std::string();
    }
    return Hex(md, len);
}

std::string NetIdentity::PairingCode(const std::string& fingerprintA, const std::string& fingerprintB)
{
    std::string joined = fingerprintA < fingerprintB ? fingerprintA + fingerprintB : fingerprintB + fingerprintA;
    unsigned char md[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(joined.data()), joined.size(), md);
    uint32_t v = (uint32_t{md[0]} << 24) | (uint32_t{md[1]} << 16) | (uint32_t{md[2]} << 8) | uint32_t{md[3]};
    char code[8];
    std::snprintf(code, sizeof code, "%06u", v % 1000000u);
    return code;
}

}  // namespace Tandra
}  // namespace QUEX
