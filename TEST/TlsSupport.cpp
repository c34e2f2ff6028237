#include "TlsSupport.h"

#include "VEKCommonOpenSSL.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>
#include <sstream>

namespace tls {

const TempDir& Folder() {
    static const TempDir FOLDER;
    return FOLDER;
}

namespace {

// A certificate "CN=<name>" with one extension and its key, both in <name>.pem, signed by another one or itself.
struct Certificate {
    Certificate(const std::string& name, int extension, const char* value, const Certificate* issuer = nullptr,
                bool isRsa = false, int fromDay = -1, int toDay = 30)
        : key(isRsa ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256"), EVP_PKEY_free), x509(X509_new(), X509_free) {
        issuer = issuer == nullptr ? this : issuer;
        X509* x = x509.get();
        const auto* text = reinterpret_cast<const unsigned char*>(name.c_str());
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC, text, -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(issuer->x509.get()));
        X509_set_version(x, 2);
        X509_time_adj_ex(X509_getm_notBefore(x), fromDay, 0, nullptr);
        X509_time_adj_ex(X509_getm_notAfter(x), toDay, 0, nullptr);
        X509_set_pubkey(x, key.get());
        X509_EXTENSION* added = X509V3_EXT_conf_nid(nullptr, nullptr, extension, value);
        X509_add_ext(x, added, -1);
        X509_EXTENSION_free(added);
        EXPECT_NE(0, X509_sign(x, issuer->key.get(), EVP_sha256()));
        BIO* file = BIO_new_file(Folder().Path(name + ".pem").c_str(), "w");
        EXPECT_EQ(1, PEM_write_bio_X509(file, x));
        EXPECT_EQ(1, PEM_write_bio_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr));
        BIO_free(file);
    }
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key;
    std::unique_ptr<X509, decltype(&X509_free)> x509;
};

}  // namespace

std::string File(const std::string& name) {
    static const int STATUS = [] {
        constexpr int SAN = NID_subject_alt_name, CA = NID_basic_constraints;
        const Certificate root("root", CA, "CA:TRUE"), stranger("stranger", CA, "CA:TRUE");
        const Certificate middle("middle", CA, "CA:TRUE", &root), ec("ec", SAN, "DNS:localhost", &root);
        const Certificate rsa("rsa", SAN, "DNS:localhost", &root, true);
        const Certificate expired("expired", SAN, "DNS:localhost", &root, false, -9, -2);
        const Certificate future("future", SAN, "DNS:localhost", &root, false, 2);
        const Certificate common("localhost", CA, "CA:FALSE", &root);
        const Certificate wildcard("wildcard", SAN, "DNS:*.example.test", &root);
        const Certificate odd("odd", SAN, "DNS:f*.example.test,DNS:*.test", &root);
        const Certificate exact("exact", SAN, "DNS:www.example.test", &root, true);
        const Certificate address("address", SAN, "IP:127.0.0.1,IP:::1", &root);
        const Certificate unknown("unknown", SAN, "DNS:localhost", &stranger), self("self", SAN, "DNS:localhost");
        const Certificate client("client", NID_ext_key_usage, "clientAuth", &root);
        const Certificate chained("chained", SAN, "DNS:localhost", &middle);
        Folder().Write("chain.pem", Folder().Read("chained.pem") + Folder().Read("middle.pem"));
        Folder().Write("hashed/root.pem", Folder().Read("root.pem"));
        Folder().Write("text", "no PEM");
        Folder().Write("cut.pem", Folder().Read("ec.pem").substr(0, 400));
        Folder().Write("tail.pem", Folder().Read("ec.pem") + Folder().Read("cut.pem"));
        Folder().Write("format", "%{http_version}-%{http_code}");
        const std::string lock = "openssl ec -aes128 -passout pass:word -in ec.pem -out locked.pem";
        return RunProgram({"sh", "-c", "cd " + Folder().Path() + " && openssl rehash hashed && " + lock}).status;
    }();
    EXPECT_EQ(0, STATUS);
    return Folder().Path(name);
}

Words Split(const std::string& text) {
    Words words;
    std::istringstream stream(text);
    for (std::string word; stream >> word;) {
        const size_t at = word.find('%');
        words.push_back(at == std::string::npos ? word : word.replace(at, 1, File("")));
    }
    return words;
}

Words Join(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

Service::Service(std::string command, int freePort) : port(freePort) {
    for (size_t at = 0; (at = command.find("PORT")) != std::string::npos;) {
        command.replace(at, 4, std::to_string(port));
    }
    process = std::make_unique<Process>(Split(command));
    EXPECT_TRUE(Eventually([this] { return IsListening(port); })) << command;
}

Options Read(const std::string& text) {
    Options options;
    for (const std::string& word : Split(text)) {
        const std::string name = word.substr(0, word.find('=')), value = word.substr(name.size() + 1);
        const size_t slash = value.find('/');  // none: the second name is the first
        if (name == "min") { options.minVersion_ = stoi(value); }
        if (name == "max") { options.maxVersion_ = stoi(value); }
        if (name == "ciphers") { options.ciphers_ = value; }
        if (name == "suites") { options.suites_ = value; }
        if (name == "groups") { options.groups_ = value; }
        if (name == "ca") { options.caFile_ = value; }
        if (name == "capath") { options.caPath_ = value; }
        if (name == "verify") { options.isVerifying_ = value == "1"; }
        if (name == "name") { options.isNameDemanded_ = value == "1"; }
        if (name == "ask") { options.clientCertificate_ = VEK_TLS_CLIENT_CERTIFICATE(stoi(value)); }
        if (name == "keep") { options.isClientResuming_ = value == "1"; }
        if (name == "resume") { options.isServerResuming_ = value == "1"; }
        if (name == "log") { options.keyLogFile_ = value; }
        if (name != "id") { continue; }
        options.identities_.push_back({File(value.substr(0, slash) + ".pem"), File(value.substr(slash + 1) + ".pem")});
    }
    return options;
}

CVEKTlsContext Make(bool isServer, const std::string& words, std::string* reason) {
    CVEKTlsContext context;
    std::string error;
    const bool isMade = isServer ? context.CreateServer(Read(words), error) : context.CreateClient(Read(words), error);
    EXPECT_EQ(reason == nullptr, isMade) << words << error;
    if (reason != nullptr) { *reason = error; }
    return context;
}
CVEKTlsContext Client(const std::string& words) { return Make(false, "ca=%/root.pem " + words); }
CVEKTlsContext Server(const std::string& words) { return Make(true, words); }

FixedContext FixedClient() { return {VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr), SSL_CTX_free}; }
FixedContext FixedServer() {
    const auto& [key, certificate] = GetIdentity();
    return {VEK_SSL_CREATE_SERVER_CTX(key.c_str(), certificate.c_str(), nullptr), SSL_CTX_free};
}

}  // namespace tls
