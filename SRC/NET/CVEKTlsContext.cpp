#include "CVEKTlsContext.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include <cstdlib>
#include <utility>

#include "CVEKTlsIdentities.h"
#include "CVEKTlsKeyLog.h"
#include "CVEKTlsSessions.h"
#include "VEKCommonOpenSSL.h"
#include "VEKTlsFile.h"
#include "VEKTlsPolicy.h"
#include "VEKTlsReason.h"

namespace {

using ContextOwner = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

// RFC 9113, section 9.2.1.
constexpr uint64_t HTTP2_OPTIONS = SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION;

// Sessions of one context are of no use to another: any text does.
constexpr unsigned char SESSION_CONTEXT[] = {'v', 'e', 'k'};

bool StartKeyLog(SSL_CTX* context, const std::string& option, std::string& error) {
    // Null in a program that runs with more rights than its caller, who must not get its secrets.
    const char* variable = secure_getenv("SSLKEYLOGFILE");
    const std::string path = option.empty() && variable != nullptr ? variable : option;
    return path.empty() || CVEKTlsKeyLog::Start(context, path, error);
}

// The part that clients and servers share. Null with the reason in `error`.
ContextOwner NewContext(const SSL_METHOD* method, const VEK_ST_TLS_OPTIONS& options,
                        std::string& error) {
    OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);  // as VEK_SSL_INIT, whoever is first
    ERR_clear_error();  // what an earlier failure has left is not the reason of this one
    ContextOwner context(SSL_CTX_new(method), SSL_CTX_free);
    if (context == nullptr) {
        VEK_TLS_FAIL(error, "TLS context");
        return context;
    }
    SSL_CTX_set_options(context.get(), HTTP2_OPTIONS);
    SSL_CTX_set_mode(context.get(), SSL_MODE_AUTO_RETRY | SSL_MODE_RELEASE_BUFFERS);
    if (!VEK_TLS_SET_POLICY(context.get(), options, error) ||
        !StartKeyLog(context.get(), options.keyLogFile_, error)) {
        context.reset();
    }
    return context;
}

constexpr const char* CA_FILE = "CA file";
constexpr const char* CA_DIRECTORY = "CA directory";

bool LoadAuthorityFile(SSL_CTX* context, const std::string& file, std::string& error) {
    return VEK_TLS_CHECK_FILE(CA_FILE, file, error) &&
           (SSL_CTX_load_verify_file(context, file.c_str()) == 1 ||
            VEK_TLS_FAIL(error, VEK_TLS_FILE_TEXT(CA_FILE, file)));
}

bool UseAuthorityDirectory(SSL_CTX* context, const std::string& path, std::string& error) {
    if (path.find(':') != std::string::npos) {  // the library would trust other directories
        error = VEK_TLS_FILE_TEXT(CA_DIRECTORY, path) + ": \":\" stands between directories";
        return false;
    }
    return VEK_TLS_CHECK_DIRECTORY(CA_DIRECTORY, path, error) &&
           (SSL_CTX_load_verify_dir(context, path.c_str()) == 1 ||
            VEK_TLS_FAIL(error, VEK_TLS_FILE_TEXT(CA_DIRECTORY, path)));
}

bool LoadAuthorities(SSL_CTX* context, const VEK_ST_TLS_OPTIONS& options, std::string& error) {
    const std::string& file = options.caFile_;
    const std::string& path = options.caPath_;
    if (file.empty() && path.empty()) {
        return SSL_CTX_set_default_verify_paths(context) == 1 ||
               VEK_TLS_FAIL(error, "the system's certificate authorities");
    }
    return (file.empty() || LoadAuthorityFile(context, file, error)) &&
           (path.empty() || UseAuthorityDirectory(context, path, error));
}

bool HasPeerName(X509_VERIFY_PARAM* param) {
    const std::unique_ptr<char, void (*)(char*)> address(X509_VERIFY_PARAM_get1_ip_asc(param),
                                                         [](char* text) { OPENSSL_free(text); });
    return address != nullptr || X509_VERIFY_PARAM_get0_host(param, 0) != nullptr;
}

// A name that was forgotten would let every certificate of a trusted authority pass.
int VerifyNamedPeer(X509_STORE_CTX* store, void* /*arg*/) {
    if (!HasPeerName(X509_STORE_CTX_get0_param(store))) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_HOSTNAME_MISMATCH);
        return 0;
    }
    return X509_verify_cert(store) == 1 ? 1 : 0;  // below 0 would read as "ask again"
}

void SetServerVerification(SSL_CTX* context, bool isVerifying, bool isNameDemanded) {
    SSL_CTX_set_verify(context, isVerifying ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
    if (isVerifying && isNameDemanded) {
        SSL_CTX_set_cert_verify_callback(context, VerifyNamedPeer, nullptr);
    }
}

bool LoadClientIdentity(SSL_CTX* context, const VEK_ST_TLS_OPTIONS& options, std::string& error) {
    if (options.identities_.size() > 1) {
        error = VEK_TLS_FILE_TEXT("certificate file", options.identities_[1].certificateFile_) +
                ": a client shows one certificate only";
        return false;
    }
    return options.identities_.empty() ||
           CVEKTlsIdentities::Load(context, options.identities_[0], error);
}

bool LoadServerIdentities(SSL_CTX* context, const VEK_ST_TLS_OPTIONS& options, std::string& error) {
    if (options.identities_.empty()) {
        error = "a server needs a certificate and its key";
        return false;
    }
    return CVEKTlsIdentities::Load(context, options.identities_[0], error) &&
           CVEKTlsIdentities::Start(context, options.identities_, error);
}

// Tells clients whom we trust, where that is a file's worth of names: it helps them to choose.
bool NameAuthorities(SSL_CTX* context, const VEK_ST_TLS_OPTIONS& options, std::string& error) {
    if (options.caFile_.empty() || !options.caPath_.empty()) {
        return true;
    }
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(options.caFile_.c_str());
    if (names == nullptr) {
        return VEK_TLS_FAIL(error, VEK_TLS_FILE_TEXT(CA_FILE, options.caFile_));
    }
    SSL_CTX_set_client_CA_list(context, names);
    return true;
}

bool SetClientVerification(SSL_CTX* context, const VEK_ST_TLS_OPTIONS& options,
                           std::string& error) {
    int mode = SSL_VERIFY_PEER;
    switch (options.clientCertificate_) {
        case VEK_TLS_CLIENT_CERTIFICATE_WANTED:
            break;
        case VEK_TLS_CLIENT_CERTIFICATE_DEMANDED:
            mode |= SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
            break;
        case VEK_TLS_CLIENT_CERTIFICATE_NONE:
            if (!options.caFile_.empty() || !options.caPath_.empty()) {
                error = (options.caFile_.empty() ? VEK_TLS_FILE_TEXT(CA_DIRECTORY, options.caPath_)
                                                 : VEK_TLS_FILE_TEXT(CA_FILE, options.caFile_)) +
                        ": no client certificate is asked for";
                return false;
            }
            return true;
        default:
            error = "client certificate mode " + std::to_string(options.clientCertificate_) +
                    ": none, wanted or demanded (0 to 2)";
            return false;
    }
    SSL_CTX_set_verify(context, mode, nullptr);
    return LoadAuthorities(context, options, error) && NameAuthorities(context, options, error);
}

// Asked only where the client offers protocols. The alert tells it that ours is not among them
// (RFC 7301, section 3.2).
int SelectProtocol(SSL* /*ssl*/, const unsigned char** out, unsigned char* outLen,
                   const unsigned char* in, unsigned int inLen, void* /*arg*/) {
    const int result = SSL_select_next_proto(const_cast<unsigned char**>(out), outLen, ALPN_PROTOS,
                                             sizeof ALPN_PROTOS, in, inLen);
    return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

void SetServerSessions(SSL_CTX* context, bool isResuming) {
    SSL_CTX_set_session_id_context(context, SESSION_CONTEXT, sizeof SESSION_CONTEXT);
    if (!isResuming) {
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);  // the option leaves TLS 1.3 with tickets of its own
    }
}

bool SetClientSessions(SSL_CTX* context, bool isResuming, std::string& error) {
    if (isResuming) {
        return CVEKTlsSessions::Start(context) || VEK_TLS_FAIL(error, "TLS context");
    }
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    return true;
}

bool OfferProtocol(SSL_CTX* context, std::string& error) {
    // This call returns 0 for success.
    return SSL_CTX_set_alpn_protos(context, ALPN_PROTOS, sizeof ALPN_PROTOS) == 0 ||
           VEK_TLS_FAIL(error, "TLS context");
}

}  // namespace

CVEKTlsContext::CVEKTlsContext() : context_(nullptr, SSL_CTX_free) {}

CVEKTlsContext::~CVEKTlsContext() = default;

CVEKTlsContext::CVEKTlsContext(CVEKTlsContext&& other) noexcept = default;

CVEKTlsContext& CVEKTlsContext::operator=(CVEKTlsContext&& other) noexcept = default;

bool CVEKTlsContext::CreateClient(const VEK_ST_TLS_OPTIONS& options, std::string& error) {
    ContextOwner context = NewContext(TLS_client_method(), options, error);
    if (context == nullptr || !LoadAuthorities(context.get(), options, error) ||
        !LoadClientIdentity(context.get(), options, error) ||
        !SetClientSessions(context.get(), options.isClientResuming_, error) ||
        !OfferProtocol(context.get(), error)) {
        return false;
    }
    SetServerVerification(context.get(), options.isVerifying_, options.isNameDemanded_);
    context_ = std::move(context);
    return true;
}

bool CVEKTlsContext::CreateServer(const VEK_ST_TLS_OPTIONS& options, std::string& error) {
    ContextOwner context = NewContext(TLS_server_method(), options, error);
    if (context == nullptr || !LoadServerIdentities(context.get(), options, error) ||
        !SetClientVerification(context.get(), options, error)) {
        return false;
    }
    SSL_CTX_set_options(context.get(), SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_dh_auto(context.get(), 1);  // without it, ciphers with DHE would be dead names
    SSL_CTX_set_alpn_select_cb(context.get(), SelectProtocol, nullptr);
    SetServerSessions(context.get(), options.isServerResuming_);
    context_ = std::move(context);
    return true;
}
