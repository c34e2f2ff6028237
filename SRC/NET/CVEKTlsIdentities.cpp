#include "CVEKTlsIdentities.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <new>
#include <utility>

#include "VEKTlsAttachment.h"
#include "VEKTlsFile.h"
#include "VEKTlsReason.h"

namespace {

constexpr const char* CERTIFICATE_FILE = "certificate file";
constexpr const char* KEY_FILE = "key file";

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

// In place of the library's own, which would ask on the terminal and wait.
int GiveNoPassPhrase(char* /*buffer*/, int /*size*/, int /*isWriting*/, void* /*arg*/) {
    return -1;
}

Key ReadKey(const std::string& path) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "r"), BIO_free);
    return {file == nullptr
                ? nullptr
                : PEM_read_bio_PrivateKey(file.get(), nullptr, GiveNoPassPhrase, nullptr),
            EVP_PKEY_free};
}

// How well a certificate fits the name: 2 by the name itself, 1 by a wildcard, 0 not at all.
int Rank(X509* certificate, const char* name) {
    if (X509_check_host(certificate, name, 0, X509_CHECK_FLAG_NO_WILDCARDS, nullptr) == 1) {
        return 2;
    }
    return X509_check_host(certificate, name, 0, 0, nullptr) == 1 ? 1 : 0;
}

bool Use(SSL* ssl, SSL_CTX* holder) {
    STACK_OF(X509)* chain = nullptr;
    SSL_CTX_get0_chain_certs(holder, &chain);
    return SSL_use_cert_and_key(ssl, SSL_CTX_get0_certificate(holder),
                                SSL_CTX_get0_privatekey(holder), chain, 1) == 1;
}

}  // namespace

bool CVEKTlsIdentities::Load(SSL_CTX* context, const VEK_ST_TLS_IDENTITY& identity,
                             std::string& error) {
    const std::string& certificateFile = identity.certificateFile_;
    SSL_CTX_set_default_passwd_cb(context, GiveNoPassPhrase);
    if (!VEK_TLS_CHECK_FILE(CERTIFICATE_FILE, certificateFile, error) ||
        !VEK_TLS_CHECK_FILE(KEY_FILE, identity.keyFile_, error)) {
        return false;
    }
    if (SSL_CTX_use_certificate_chain_file(context, certificateFile.c_str()) != 1) {
        return VEK_TLS_FAIL(error, VEK_TLS_FILE_TEXT(CERTIFICATE_FILE, certificateFile));
    }
    const Key key = ReadKey(identity.keyFile_);
    if (key == nullptr) {
        return VEK_TLS_FAIL(error, VEK_TLS_FILE_TEXT(KEY_FILE, identity.keyFile_));
    }
    if (X509_check_private_key(SSL_CTX_get0_certificate(context), key.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, key.get()) != 1) {
        return VEK_TLS_FAIL(error, VEK_TLS_FILE_TEXT(KEY_FILE, identity.keyFile_) + " for " +
                                       VEK_TLS_FILE_TEXT(CERTIFICATE_FILE, certificateFile));
    }
    return true;
}

bool CVEKTlsIdentities::Start(SSL_CTX* context, const std::vector<VEK_ST_TLS_IDENTITY>& identities,
                              std::string& error) {
    auto object = std::make_unique<CVEKTlsIdentities>();
    for (size_t i = 1; i < identities.size(); ++i) {
        object->others_.emplace_back(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
        SSL_CTX* holder = object->others_.back().get();
        if (holder == nullptr) {
            return VEK_TLS_FAIL(error, "TLS context");
        }
        // The first identity's level, lowered or raised by the list of ciphers, is everyone's.
        SSL_CTX_set_security_level(holder, SSL_CTX_get_security_level(context));
        if (!Load(holder, identities[i], error)) {
            return false;
        }
    }
    SSL_CTX_set_tlsext_servername_callback(context, Choose);
    SSL_CTX_set_tlsext_servername_arg(context, object.get());
    return VEK_TLS_ATTACH(context, std::move(object)) || VEK_TLS_FAIL(error, "TLS context");
}

int CVEKTlsIdentities::Choose(SSL* ssl, int* alert, void* object) {
    const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    if (name == nullptr) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    std::vector<SSL_CTX*> holders;
    try {
        holders = static_cast<CVEKTlsIdentities*>(object)->Find(SSL_get_SSL_CTX(ssl), name);
    } catch (const std::bad_alloc&) {  // the library's own frames are between us and our callers
        *alert = SSL_AD_INTERNAL_ERROR;
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    }
    if (holders.empty()) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    SSL_certs_clear(ssl);
    // Backwards: of two with the same kind of key, the one named first stays.
    for (auto holder = holders.rbegin(); holder != holders.rend(); ++holder) {
        if (!Use(ssl, *holder)) {
            *alert = SSL_AD_INTERNAL_ERROR;
            return SSL_TLSEXT_ERR_ALERT_FATAL;
        }
    }
    return SSL_TLSEXT_ERR_OK;
}

// All that fit the name best.
std::vector<SSL_CTX*> CVEKTlsIdentities::Find(SSL_CTX* context, const char* name) const {
    std::vector<SSL_CTX*> found;
    int best = 1;
    const auto compare = [&](SSL_CTX* holder) {
        const int rank = Rank(SSL_CTX_get0_certificate(holder), name);
        if (rank > best) {
            found.clear();
            best = rank;
        }
        if (rank == best) {
            found.push_back(holder);
        }
    };
    compare(context);
    for (const auto& other : others_) {
        compare(other.get());
    }
    return found;
}
