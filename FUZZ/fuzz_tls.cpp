// Both ends' set-up with TLS, and between them somebody who hands on what they say in pieces of any
// size: it succeeds then. Where a byte was changed on the way, it ends somehow.
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <filesystem>

#include "CVEKHttp2Setup.h"
#include "CVEKTlsContext.h"
#include "FuzzPeer.h"

namespace {

// A certificate that vouches for itself, and its key, in one file.
std::string MakeIdentity() {
    const std::string path = std::filesystem::temp_directory_path() / ("fuzz_tls." + std::to_string(getpid()));
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* x = X509_new();
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(x, X509_get_subject_name(x));
    X509_gmtime_adj(X509_getm_notBefore(x), -1000);
    X509_gmtime_adj(X509_getm_notAfter(x), 1000000);
    X509_set_version(x, 2);
    X509_set_pubkey(x, key);
    X509_EXTENSION* names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "DNS:localhost");
    X509_add_ext(x, names, -1);
    X509_EXTENSION_free(names);
    Require(X509_sign(x, key, EVP_sha256()) > 0);
    BIO* file = BIO_new_file(path.c_str(), "w");
    Require(PEM_write_bio_X509(file, x) == 1 &&
            PEM_write_bio_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
    BIO_free(file), X509_free(x), EVP_PKEY_free(key);
    return path;
}

struct Contexts {
    explicit Contexts(int version) {
        static const std::string FILE = MakeIdentity();
        VEK_ST_TLS_OPTIONS options;
        std::string error;
        options.maxVersion_ = version;
        options.caFile_ = FILE;
        Require(client.CreateClient(options, error));
        options.caFile_.clear();
        options.identities_ = {{FILE, FILE}};
        Require(server.CreateServer(options, error));
    }
    CVEKTlsContext client, server;
};

// A connection's end, and the descriptor from which its bytes are handed on.
struct End {
    End() : setup(transport, "fuzz") { Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) == 0); }
    ~End() { close(fds[1]); }
    void Advance() { result = result == VEK_HTTP2_STEP_WAIT ? setup.AdvanceTransport() : result; }
    // Returns whether there was something.
    bool HandOn(const End& to, size_t room, bool isChanged) const {
        char bytes[4096];
        const ssize_t size = recv(fds[1], bytes, std::min(room, sizeof bytes), 0);
        if (size <= 0) { return false; }
        bytes[size - 1] ^= isChanged ? 1 : 0;
        return send(to.fds[1], bytes, static_cast<size_t>(size), MSG_NOSIGNAL) > 0;
    }
    int fds[2];
    CVEKSocketNew transport;
    CVEKHttp2Setup setup;
    int result = VEK_HTTP2_STEP_WAIT;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Contexts contexts[] = {Contexts(TLS1_2_VERSION), Contexts(TLS1_3_VERSION)};
    FuzzPeer script(data, size);
    Contexts& used = contexts[script.Take() & 1];
    End client, server;
    Require(client.setup.SetPeer("localhost", "localhost", 443));
    Require(client.setup.StartConnected(client.fds[0], used.client.GetContext()));
    Require(server.setup.StartAccepted(server.fds[0], used.server.GetContext()));
    bool hasChanged = false;
    // A step says whose bytes go on, how many, and (the largest number) that the last one changes.
    while (!script.IsAtEnd()) {
        client.Advance(), server.Advance();
        const uint8_t step = script.Take(), count = step & 0x7f;
        const bool isServers = (step & 0x80) != 0;
        hasChanged |= (isServers ? server : client).HandOn(isServers ? client : server, count + 1, count == 0x7f) &&
                      count == 0x7f;
    }
    for (bool isBusy = true; isBusy;) {
        client.Advance(), server.Advance();
        isBusy = client.HandOn(server, SIZE_MAX, false);
        isBusy |= server.HandOn(client, SIZE_MAX, false);
    }
    Require(hasChanged || (client.result == VEK_HTTP2_STEP_DONE && server.result == VEK_HTTP2_STEP_DONE));
    return 0;
}
