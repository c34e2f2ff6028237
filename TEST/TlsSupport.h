// Certificates and contexts for the tests of TLS.
#ifndef TLS_SUPPORT_H
#define TLS_SUPPORT_H

#include <memory>
#include <string>
#include <vector>

#include "CVEKTlsContext.h"
#include "TestSupport.h"

namespace tls {

using Words = std::vector<std::string>;
using Options = VEK_ST_TLS_OPTIONS;

// The folder of the files.
const TempDir& Folder();
// Makes every certificate that the tests use. Returns the path of one of its files.
std::string File(const std::string& name);
// The words of a text, in which "%" stands for the folder of the files.
Words Split(const std::string& text);
Words Join(Words words, const Words& more);
// Options from words "key=value". "id" adds an identity, with one name for certificate and key, or two and a slash.
Options Read(const std::string& text);

// Make a context from options, or get the reason why there is none.
CVEKTlsContext Make(bool isServer, const std::string& words, std::string* reason = nullptr);
CVEKTlsContext Client(const std::string& words = "");  // trusts root
CVEKTlsContext Server(const std::string& words = "id=ec");

// A server in a process of its own, once it listens. "PORT" in the words of its command stands for its port.
struct Service {
    explicit Service(std::string command, int freePort = FreePort());
    int port;
    std::unique_ptr<Process> process;
};

// Contexts of the fixed policy.
using FixedContext = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
FixedContext FixedClient();
FixedContext FixedServer();

}  // namespace tls

#endif
