#include "VEKTlsConnection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <cstring>
#include <ctime>
#include <memory>

#include "CVEKTlsSessions.h"
#include "VEKLogText.h"
#include "VEKTlsReason.h"

namespace {

// "f*.example" and the subject's common name identify nobody any more (RFC 9525, sections 2 and
// 6.3).
constexpr unsigned int HOST_FLAGS =
    X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT;
constexpr const char* NAME_CHARACTERS =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
constexpr size_t TIME_SIZE = sizeof "CCYY-MM-DD hh:mm:ss";

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// The address that the text spells, in every form in which a connect would take it; null for a
// name. Nothing is looked up.
AddressList ParseAddress(const std::string& text) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(text.c_str(), nullptr, &hints, &found);
    return {result == 0 ? found : nullptr, freeaddrinfo};
}

bool CheckAddress(SSL* ssl, const sockaddr* address) {
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    if (address->sa_family == AF_INET6) {
        const in6_addr& bytes = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
        return X509_VERIFY_PARAM_set1_ip(param, bytes.s6_addr, sizeof bytes.s6_addr) == 1;
    }
    const in_addr& bytes = reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    return X509_VERIFY_PARAM_set1_ip(param, reinterpret_cast<const unsigned char*>(&bytes),
                                     sizeof bytes) == 1;
}

// What RFC 6066, section 3, lets a client send, of names in use: underscores are. A leading dot
// would make the check one of the domain only.
bool IsHostName(const std::string& name) {
    return !name.empty() && name.front() != '.' && name.back() != '.' &&
           name.find("..") == std::string::npos &&
           name.find_first_not_of(NAME_CHARACTERS) == std::string::npos;
}

std::string NameText(const std::string& name) {
    return "peer name \"" + VEK_ESCAPE_TEXT(name) + "\"";
}

bool SetName(SSL* ssl, const std::string& name, std::string& error) {
    if (!IsHostName(name)) {
        error = NameText(name) + ": not a host name";
        return false;
    }
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    X509_VERIFY_PARAM_set_hostflags(param, HOST_FLAGS);
    return (SSL_set_tlsext_host_name(ssl, name.c_str()) == 1 &&
            X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size()) == 1) ||
           VEK_TLS_FAIL(error, NameText(name));
}

// Without the dot that ends a complete name.
std::string StripDot(const std::string& name) {
    return !name.empty() && name.back() == '.' ? name.substr(0, name.size() - 1) : name;
}

// Without the brackets of an address. A name takes none.
std::string StripBrackets(const std::string& name) {
    const bool isBracketed = name.size() > 2 && name.front() == '[' && name.back() == ']';
    return isBracketed ? name.substr(1, name.size() - 2) : name;
}

std::string SubjectText(const X509_NAME* name) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> stream(BIO_new(BIO_s_mem()), BIO_free);
    if (stream == nullptr || X509_NAME_print_ex(stream.get(), name, 0, XN_FLAG_RFC2253) < 0) {
        return "";
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(stream.get(), &text);
    return {text, static_cast<size_t>(length)};
}

std::string TimeText(const ASN1_TIME* time) {
    tm fields{};
    char text[TIME_SIZE] = "";
    if (ASN1_TIME_to_tm(time, &fields) == 1) {
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
    }
    return text;
}

std::string GroupText(SSL* ssl) {
    const int group = static_cast<int>(SSL_get_negotiated_group(ssl));
    const char* name = group == NID_undef ? nullptr : OBJ_nid2sn(group);
    return name == nullptr ? "" : name;
}

}  // namespace

bool VEK_TLS_SET_PEER(SSL* ssl, const char* name, const char* target, std::string& error) {
    ERR_clear_error();
    const std::string peer = StripDot(name == nullptr ? "" : name);
    const bool isNamed = name != nullptr && *name != '\0';
    const AddressList address =
        isNamed ? ParseAddress(StripBrackets(peer)) : AddressList(nullptr, freeaddrinfo);
    if (address != nullptr) {
        if (!CheckAddress(ssl, address->ai_addr)) {
            return VEK_TLS_FAIL(error, "peer address " + peer);
        }
    } else if (isNamed && !SetName(ssl, peer, error)) {
        return false;
    }
    // With the name in the key: who resumes a session is not verified again, so one that was made
    // under another name must not serve.
    return target == nullptr || CVEKTlsSessions::Join(ssl, std::string(target) + '\n' + peer) ||
           VEK_TLS_FAIL(error, "session of " + VEK_ESCAPE_TEXT(target));
}

VEK_ST_TLS_INFO VEK_TLS_DESCRIBE(SSL* ssl) {
    VEK_ST_TLS_INFO info;
    info.version_ = SSL_get_version(ssl);
    info.cipher_ = SSL_get_cipher_name(ssl);
    info.group_ = GroupText(ssl);
    info.isResumed_ = SSL_session_reused(ssl) == 1;
    const unsigned char* protocol = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(ssl, &protocol, &length);
    info.protocol_.assign(protocol, protocol + length);
    const X509* certificate = SSL_get0_peer_certificate(ssl);
    if (certificate != nullptr) {
        info.peerSubject_ = SubjectText(X509_get_subject_name(certificate));
        info.peerIssuer_ = SubjectText(X509_get_issuer_name(certificate));
        info.peerExpiry_ = TimeText(X509_get0_notAfter(certificate));
        info.peerVerdict_ = X509_verify_cert_error_string(SSL_get_verify_result(ssl));
    }
    return info;
}
