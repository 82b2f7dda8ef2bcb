#include "selfsigned.h"

#include <arpa/inet.h>
#include <cstdio>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace kelvara {

namespace {

std::string opensslError(const char *what)
{
    const unsigned long code = ERR_get_error();
    char buf[256] = {};
    if (code != 0) {
        ERR_error_string_n(code, buf, sizeof buf);
    }
    return std::string(what) + (code ? std::string(": ") + buf : std::string());
}

bool isIpAddress(const std::string &host)
{
    unsigned char buf[16];
    return inet_pton(AF_INET, host.c_str(), buf) == 1 ||
           inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

} // namespace

bool makeSelfSigned(const std::string &extraHost, SelfSigned &out, std::string &error)
{
    std::unique_ptr<EVP_PKEY, PkeyDeleter> key(EVP_EC_gen("P-256"));
    if (!key) {
        error = opensslError("cannot make a key");
        return false;
    }
    std::unique_ptr<X509, X509Deleter> cert(X509_new());
    if (!cert) {
        error = opensslError("cannot make a certificate");
        return false;
    }
    X509_set_version(cert.get(), 2); // v3

    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) {
        error = opensslError("no random numbers");
        return false;
    }
    serial[0] &= 0x7F; // keep it positive
    BIGNUM *bn = BN_bin2bn(serial, sizeof serial, nullptr);
    const bool serialOk = bn && BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get()));
    BN_free(bn);
    if (!serialOk) {
        error = opensslError("cannot set the serial number");
        return false;
    }

    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 60L * 60 * 24 * 365);
    X509_set_pubkey(cert.get(), key.get());

    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("kelvara-local"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);

    std::string san = "DNS:localhost,IP:127.0.0.1,IP:::1";
    if (!extraHost.empty() && extraHost != "localhost" && extraHost != "127.0.0.1" &&
        extraHost != "::1") {
        san += (isIpAddress(extraHost) ? ",IP:" : ",DNS:") + extraHost;
    }
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert.get(), cert.get(), nullptr, nullptr, 0);
    const std::pair<int, std::string> extensions[] = {
        {NID_subject_alt_name, san},
        {NID_basic_constraints, "critical,CA:FALSE"},
        {NID_key_usage, "critical,digitalSignature"},
        {NID_ext_key_usage, "serverAuth"},
    };
    for (const auto &[nid, value] : extensions) {
        X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
        if (!ext || !X509_add_ext(cert.get(), ext, -1)) {
            X509_EXTENSION_free(ext);
            error = opensslError("cannot add a certificate extension");
            return false;
        }
        X509_EXTENSION_free(ext);
    }
    if (X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) {
        error = opensslError("cannot sign the certificate");
        return false;
    }

    BIO *bio = BIO_new(BIO_s_mem());
    if (!bio || !PEM_write_bio_X509(bio, cert.get())) {
        BIO_free(bio);
        error = opensslError("cannot write the certificate");
        return false;
    }
    char *data = nullptr;
    const long len = BIO_get_mem_data(bio, &data);
    out.certificatePem.assign(data, static_cast<std::size_t>(len));
    BIO_free(bio);

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    X509_digest(cert.get(), EVP_sha256(), digest, &digestLen);
    out.sha256Fingerprint.clear();
    for (unsigned int i = 0; i < digestLen; ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, i ? ":%02X" : "%02X", digest[i]);
        out.sha256Fingerprint += hex;
    }
    out.certificate = std::move(cert);
    out.key = std::move(key);
    return true;
}

} // namespace kelvara
