// What a TLS context of CVEKTlsContext is made from. A record as it stands gives a client that
// speaks TLS 1.2 and 1.3 and verifies its peer against the system's authorities; a server adds an
// identity of its own. Files are regular ones of up to 16 MiB: no pipes, which may have to be
// waited for.
#ifndef VEK_TLS_OPTION_H
#define VEK_TLS_OPTION_H

#include <openssl/ssl.h>

#include <string>
#include <vector>

// Whether a server asks its clients for a certificate. One that is shown is always verified: a
// client whose certificate does not hold is refused in either mode.
enum VEK_TLS_CLIENT_CERTIFICATE {
    VEK_TLS_CLIENT_CERTIFICATE_NONE = 0,      // is not asked for
    VEK_TLS_CLIENT_CERTIFICATE_WANTED = 1,    // is asked for; a client without one is welcome
    VEK_TLS_CLIENT_CERTIFICATE_DEMANDED = 2,  // a client without one is refused
};

// A certificate of this side with its private key, RSA or ECDSA, both in PEM. The certificate's
// file holds the certificate first, then the intermediate ones up to the root, which may be left
// out. A key that asks for a pass phrase is refused.
struct VEK_ST_TLS_IDENTITY {
    std::string certificateFile_;
    std::string keyFile_;
};

// The ciphers of TLS 1.2 that an empty list stands for: those that HTTP/2 does not prohibit
// (RFC 9113, section 9.2.2), with ephemeral keys on elliptic curves.
constexpr const char* VEK_TLS_DEFAULT_CIPHERS =
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256";

struct VEK_ST_TLS_OPTIONS {
    // Lowest and highest protocol version: TLS1_2_VERSION (771) or TLS1_3_VERSION (772). HTTP/2
    // takes none below (RFC 9113, section 9.2).
    int minVersion_ = TLS1_2_VERSION;
    int maxVersion_ = TLS1_3_VERSION;

    // Best first, with ":" between them; every name must be known. A server's order decides, but of
    // groups in TLS 1.3 the client's, as far as the server takes them.
    //
    // The ciphers of TLS 1.2 come in the library's cipher list format, with its words
    // ("ECDHE+AESGCM", "ALL"), exclusions ("!SHA1", also of words that stand for nothing any more,
    // "!RC4") and commands ("@STRENGTH", "@SECLEVEL=2"), each behind a ":" or right behind another
    // item: "DEFAULT@SECLEVEL=2" is taken. The level counts for keys, certificates and signatures
    // too, at 0 for very weak ones. At no level is there a cipher without authentication or
    // encryption: words leave them out, and to name one is refused.
    std::string ciphers_;  // empty: the default above
    std::string suites_;   // of TLS 1.3, as "TLS_AES_128_GCM_SHA256"; empty: the library's
    std::string groups_;   // of the key exchange, as "X25519:P-256"; empty: the library's

    // The authorities that vouch for the peer: a file of certificates in PEM, a directory with
    // their hashed names (openssl rehash; one, and no ":" in its path), or both. Both empty: the
    // system's. A server that asks for no client certificate takes neither. Whether a certificate
    // was revoked is not looked at.
    std::string caFile_;
    std::string caPath_;

    // Clients: whether a peer whose certificate does not hold is refused. false: it is accepted,
    // and VEK_ST_TLS_INFO says what was wrong.
    bool isVerifying_ = true;
    // Clients that verify: whether a connection without a peer name (VEK_TLS_SET_PEER) is refused
    // as a wrong host. false: any certificate of a trusted authority does there.
    bool isNameDemanded_ = true;

    // This side's own. A client has none or one. A server has at least one; the first serves who
    // names no server or an unknown one. Several for one name (RSA beside ECDSA) are told apart by
    // what the client can verify.
    std::vector<VEK_ST_TLS_IDENTITY> identities_;

    VEK_TLS_CLIENT_CERTIFICATE clientCertificate_ = VEK_TLS_CLIENT_CERTIFICATE_NONE;  // servers

    // Session resumption: a client keeps the last session of each target, for the 1024 latest, and
    // offers it to the next connection there, but none that another context or another peer name
    // has brought: who resumes is not verified again. A server hands out tickets and keeps
    // sessions.
    bool isClientResuming_ = true;
    bool isServerResuming_ = false;

    // A file to which the secrets of every connection are appended, in NSS key log format, for
    // programs that decrypt captures. A file or a character device, no pipe. Empty: the file that
    // the environment variable SSLKEYLOGFILE names (not in a set-user-ID program), or none.
    std::string keyLogFile_;
};

#endif
