// A throw-away TLS identity for kelvara-local --tls without --cert/--key.
#pragma once

#include <memory>
#include <string>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace kelvara {

struct X509Deleter
{
    void operator()(X509 *cert) const { X509_free(cert); }
};
struct PkeyDeleter
{
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};

struct SelfSigned
{
    std::unique_ptr<X509, X509Deleter> certificate;
    std::unique_ptr<EVP_PKEY, PkeyDeleter> key;
    std::string certificatePem;
    std::string sha256Fingerprint; // "AB:CD:..."
};

// Makes a P-256 key and a certificate valid for localhost, 127.0.0.1, ::1
// and extraHost (if not empty), signed by itself. The key never leaves
// memory. Returns nothing and sets error on failure.
bool makeSelfSigned(const std::string &extraHost, SelfSigned &out, std::string &error);

} // namespace kelvara
