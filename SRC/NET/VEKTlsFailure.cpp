#include "VEKTlsFailure.h"

#include <openssl/err.h>
#include <openssl/sslerr.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "CVEKTlsSessions.h"
#include "VEKCommonOpenSSL.h"
#include "VEKLogText.h"
#include "VEKTlsReason.h"

namespace {

// A number of the library or of the protocol, and what it means here.
struct Meaning {
    long code;
    VEK_TLS_CAUSE cause;
};

constexpr Meaning REASONS[] = {
    {SSL_R_CERTIFICATE_VERIFY_FAILED, VEK_TLS_CAUSE_CERTIFICATE_OTHER},
    {SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE, VEK_TLS_CAUSE_NO_CERTIFICATE},
    {SSL_R_UNSUPPORTED_PROTOCOL, VEK_TLS_CAUSE_NO_COMMON_VERSION},
    {SSL_R_NO_PROTOCOLS_AVAILABLE, VEK_TLS_CAUSE_NO_COMMON_VERSION},
    {SSL_R_WRONG_SSL_VERSION, VEK_TLS_CAUSE_NO_COMMON_VERSION},
    {SSL_R_VERSION_TOO_LOW, VEK_TLS_CAUSE_NO_COMMON_VERSION},
    {SSL_R_NO_SHARED_CIPHER, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_NO_CIPHERS_AVAILABLE, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_WRONG_CIPHER_RETURNED, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_NO_SHARED_GROUPS, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_NO_SUITABLE_GROUPS, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_NO_SUITABLE_KEY_SHARE, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_NO_SUITABLE_SIGNATURE_ALGORITHM, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_NO_SHARED_SIGNATURE_ALGORITHMS, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_R_NO_APPLICATION_PROTOCOL, VEK_TLS_CAUSE_NO_H2},
    {SSL_R_WRONG_VERSION_NUMBER, VEK_TLS_CAUSE_NOT_TLS},  // the first bytes are no record's
    {SSL_R_HTTP_REQUEST, VEK_TLS_CAUSE_NOT_TLS},
    {SSL_R_HTTPS_PROXY_REQUEST, VEK_TLS_CAUSE_NOT_TLS},
    {SSL_R_UNEXPECTED_EOF_WHILE_READING, VEK_TLS_CAUSE_PEER_CLOSED},
};

constexpr Meaning VERDICTS[] = {
    {X509_V_ERR_CERT_HAS_EXPIRED, VEK_TLS_CAUSE_CERTIFICATE_EXPIRED},
    {X509_V_ERR_CERT_NOT_YET_VALID, VEK_TLS_CAUSE_CERTIFICATE_NOT_YET_VALID},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, VEK_TLS_CAUSE_UNKNOWN_ISSUER},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, VEK_TLS_CAUSE_UNKNOWN_ISSUER},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, VEK_TLS_CAUSE_UNKNOWN_ISSUER},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, VEK_TLS_CAUSE_UNKNOWN_ISSUER},
    {X509_V_ERR_CERT_UNTRUSTED, VEK_TLS_CAUSE_UNKNOWN_ISSUER},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, VEK_TLS_CAUSE_SELF_SIGNED},
    {X509_V_ERR_HOSTNAME_MISMATCH, VEK_TLS_CAUSE_WRONG_HOST},
    {X509_V_ERR_IP_ADDRESS_MISMATCH, VEK_TLS_CAUSE_WRONG_HOST},
};

// Alerts that stand for a cause of their own; who gets one knows no more than that.
constexpr Meaning ALERTS[] = {
    {SSL_AD_PROTOCOL_VERSION, VEK_TLS_CAUSE_NO_COMMON_VERSION},
    {SSL_AD_INSUFFICIENT_SECURITY, VEK_TLS_CAUSE_NO_COMMON_CIPHER},
    {SSL_AD_NO_APPLICATION_PROTOCOL, VEK_TLS_CAUSE_NO_H2},
};

template <size_t SIZE>
VEK_TLS_CAUSE Find(const Meaning (&table)[SIZE], long code, VEK_TLS_CAUSE otherwise) {
    const auto* const found = std::find_if(std::begin(table), std::end(table),
                                           [&](const Meaning& row) { return row.code == code; });
    return found == std::end(table) ? otherwise : found->cause;
}

// What goes before the library's words.
const char* Phrase(VEK_TLS_CAUSE cause) {
    switch (cause) {
        case VEK_TLS_CAUSE_CERTIFICATE_EXPIRED:
        case VEK_TLS_CAUSE_CERTIFICATE_NOT_YET_VALID:
        case VEK_TLS_CAUSE_UNKNOWN_ISSUER:
        case VEK_TLS_CAUSE_SELF_SIGNED:
        case VEK_TLS_CAUSE_WRONG_HOST:
        case VEK_TLS_CAUSE_CERTIFICATE_OTHER:
            return "peer certificate refused";
        case VEK_TLS_CAUSE_NO_CERTIFICATE:
            return "client certificate missing";
        case VEK_TLS_CAUSE_NO_COMMON_VERSION:
            return "no common TLS version";
        case VEK_TLS_CAUSE_NO_COMMON_CIPHER:
            return "no common cipher";
        case VEK_TLS_CAUSE_NO_H2:
            return "h2 not agreed";
        case VEK_TLS_CAUSE_ALERT:
            return "peer refused";
        case VEK_TLS_CAUSE_PEER_CLOSED:
            return "peer closed the connection";
        case VEK_TLS_CAUSE_NOT_TLS:
            return "peer does not speak TLS";
        case VEK_TLS_CAUSE_UNFINISHED:
            return "handshake not finished";
        case VEK_TLS_CAUSE_SYSTEM:
            return "system call failed";
        case VEK_TLS_CAUSE_OTHER:
            break;
    }
    return "TLS failed";
}

// The part of a failure that one queued error tells.
VEK_ST_TLS_FAILURE ExplainError(unsigned long code, const char* note) {
    VEK_ST_TLS_FAILURE failure;
    failure.text_ = VEK_TLS_REASON_TEXT(code, note);
    if (ERR_GET_LIB(code) != ERR_LIB_SSL) {
        return failure;
    }
    const int reason = ERR_GET_REASON(code);
    if (reason >= SSL_AD_REASON_OFFSET) {
        failure.alert_ = reason - SSL_AD_REASON_OFFSET;
        failure.cause_ = Find(ALERTS, failure.alert_, VEK_TLS_CAUSE_ALERT);
        failure.text_ = "alert \"" + VEK_TLS_ALERT_NAME(failure.alert_) + "\" received";
        return failure;
    }
    failure.cause_ = Find(REASONS, reason, VEK_TLS_CAUSE_OTHER);
    return failure;
}

// The first queued error that is known for a cause, or else the first, where the root stands.
VEK_ST_TLS_FAILURE ExplainQueue() {
    VEK_ST_TLS_FAILURE first;
    const char* note = nullptr;
    int flags = 0;
    bool isFirst = true;
    while (const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &note, &flags)) {
        VEK_ST_TLS_FAILURE failure =
            ExplainError(code, (flags & ERR_TXT_STRING) != 0 ? note : nullptr);
        if (isFirst || failure.cause_ != VEK_TLS_CAUSE_OTHER) {
            first = failure;
        }
        isFirst = false;
        if (failure.cause_ != VEK_TLS_CAUSE_OTHER) {
            break;
        }
    }
    return first;
}

// The name or address that a certificate had to be for.
std::string WantedName(SSL* ssl) {
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    const char* host = X509_VERIFY_PARAM_get0_host(param, 0);
    if (host != nullptr) {
        return std::string("wanted ") + host;
    }
    char* address = X509_VERIFY_PARAM_get1_ip_asc(param);
    std::string text =
        address == nullptr ? "the peer was given no name" : std::string("wanted ") + address;
    OPENSSL_free(address);
    return text;
}

void ExplainVerdict(SSL* ssl, VEK_ST_TLS_FAILURE& failure) {
    const long verdict = SSL_get_verify_result(ssl);
    failure.cause_ = Find(VERDICTS, verdict, VEK_TLS_CAUSE_CERTIFICATE_OTHER);
    failure.text_ = X509_verify_cert_error_string(verdict);
    if (failure.cause_ == VEK_TLS_CAUSE_WRONG_HOST) {
        failure.text_ += " (" + WantedName(ssl) + ")";
    }
}

std::string ProtocolText(const SSL* ssl) {
    const unsigned char* protocol = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(ssl, &protocol, &length);
    const std::string text(protocol, protocol + length);  // the peer's, which may be anything
    return text.empty() ? "no protocol was chosen" : "\"" + VEK_ESCAPE_TEXT(text) + "\" was chosen";
}

VEK_ST_TLS_FAILURE ExplainSystemError(int systemError) {
    VEK_ST_TLS_FAILURE failure;
    if (systemError == 0) {
        failure.cause_ = VEK_TLS_CAUSE_PEER_CLOSED;
        return failure;
    }
    failure.cause_ = VEK_TLS_CAUSE_SYSTEM;
    failure.systemError_ = systemError;
    failure.text_ = strerror(systemError);
    return failure;
}

VEK_ST_TLS_FAILURE Explain(SSL* ssl, int sslError, int systemError) {
    VEK_ST_TLS_FAILURE failure;
    switch (sslError) {
        case SSL_ERROR_NONE:
            failure.cause_ = VEK_TLS_CAUSE_NO_H2;
            failure.text_ = ProtocolText(ssl);
            return failure;
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
            failure.cause_ = VEK_TLS_CAUSE_UNFINISHED;
            failure.text_ = SSL_state_string_long(ssl);
            return failure;
        case SSL_ERROR_ZERO_RETURN:
            failure.cause_ = VEK_TLS_CAUSE_PEER_CLOSED;
            failure.text_ = "alert \"" + VEK_TLS_ALERT_NAME(SSL_AD_CLOSE_NOTIFY) + "\" received";
            return failure;
        case SSL_ERROR_SYSCALL:
            return ExplainSystemError(systemError);
        default:
            failure = ExplainQueue();
            if (failure.cause_ == VEK_TLS_CAUSE_CERTIFICATE_OTHER) {
                ExplainVerdict(ssl, failure);
            }
            return failure;
    }
}

}  // namespace

VEK_ST_TLS_FAILURE VEK_TLS_EXPLAIN(SSL* ssl, int sslError, int systemError) {
    VEK_ST_TLS_FAILURE failure = Explain(ssl, sslError, systemError);
    const std::string phrase = Phrase(failure.cause_);
    failure.text_ = failure.text_.empty() ? phrase : phrase + ": " + failure.text_;
    if (SSL_get_state(ssl) != TLS_ST_OK || sslError == SSL_ERROR_SSL) {
        CVEKTlsSessions::Forget(ssl);
    }
    ERR_clear_error();
    return failure;
}

std::string VEK_TLS_ALERT_NAME(int alert) {
    switch (alert) {  // those that the library has no name for
        case SSL_AD_INAPPROPRIATE_FALLBACK:
            return "inappropriate fallback";
        case SSL_AD_MISSING_EXTENSION:
            return "missing extension";
        case SSL_AD_CERTIFICATE_REQUIRED:
            return "certificate required";
        default:
            break;
    }
    const std::string name = SSL_alert_desc_string_long(alert);
    return name == "unknown" ? "alert " + std::to_string(alert) : name;
}
