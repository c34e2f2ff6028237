#include "VEKTlsPolicy.h"

#include <openssl/err.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>

#include "VEKTlsReason.h"

namespace {

// Item separators of the library's lists.
constexpr const char* CIPHER_SEPARATORS = ":,; ";
constexpr const char* NAME_SEPARATORS = ":";

// Words of the cipher list format that may stand for no cipher at all, depending on how the library
// was built. Lists exclude them by habit; to ask for one is an error.
constexpr const char* MAYBE_EMPTY[] = {
    "RC2",   "RC4",   "IDEA", "SEED", "DES",   "3DES",  "LOW",  "MEDIUM", "EXP",   "EXPORT", "GOST",
    "aGOST", "kGOST", "kDH",  "aDH",  "kECDH", "aECDH", "KRB5", "kKRB5",  "aKRB5", "SSLv2"};

std::string Quote(const char* kind, const std::string& value) {
    return std::string(kind) + " \"" + value + "\"";
}

// Calls `check` with each item of the list until one fails. Returns that item, or an empty text.
std::string FindBad(const std::string& list, const char* separators,
                    const std::function<bool(const std::string&)>& check) {
    size_t begin = 0;
    while ((begin = list.find_first_not_of(separators, begin)) != std::string::npos) {
        std::string item = list.substr(begin, list.find_first_of(separators, begin) - begin);
        if (!check(item)) {
            return item;
        }
        begin += item.size();
    }
    return "";
}

bool SetVersions(SSL_CTX* context, int min, int max, std::string& error) {
    for (const int version : {min, max}) {
        if (version != TLS1_2_VERSION && version != TLS1_3_VERSION) {
            error = "protocol version " + std::to_string(version) +
                    ": HTTP/2 takes TLS 1.2 (771) and TLS 1.3 (772)";
            return false;
        }
    }
    if (min > max) {
        error = "lowest protocol version " + std::to_string(min) + " is above the highest, " +
                std::to_string(max);
        return false;
    }
    return (SSL_CTX_set_min_proto_version(context, min) == 1 &&
            SSL_CTX_set_max_proto_version(context, max) == 1) ||
           VEK_TLS_FAIL(error, "protocol versions");
}

// Whether one item of a cipher list, taken alone, means something. Leaves the context with it.
bool IsCipherItem(SSL_CTX* context, const std::string& item, bool isFirst) {
    if (item[0] == '@') {
        return SSL_CTX_set_cipher_list(context, ("ALL:" + item).c_str()) == 1;
    }
    if (isFirst && item == "DEFAULT") {
        return true;
    }
    const bool isExclusion = item[0] == '!' || item[0] == '-';
    const std::string name = isExclusion || item[0] == '+' ? item.substr(1) : item;
    const bool isMaybeEmpty = std::any_of(std::begin(MAYBE_EMPTY), std::end(MAYBE_EMPTY),
                                          [&](const char* word) { return name == word; });
    // Behind an item that selects nothing, so that "DEFAULT" and what begins so is no special case.
    return (isExclusion && isMaybeEmpty) ||
           SSL_CTX_set_cipher_list(context, ("-ALL:" + name).c_str()) == 1;
}

// Refuses a list with a cipher under which anybody passes for the peer, certificate or not, or may
// read along. From security level 1 on the library never negotiates one: "ALL" is harmless there.
bool CheckCiphers(SSL_CTX* context, const std::string& list, std::string& error) {
    if (SSL_CTX_get_security_level(context) > 0) {
        return true;
    }
    const STACK_OF(SSL_CIPHER)* ciphers = SSL_CTX_get_ciphers(context);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
        const SSL_CIPHER* cipher = sk_SSL_CIPHER_value(ciphers, i);
        const bool isAnonymous = SSL_CIPHER_get_auth_nid(cipher) == NID_auth_null;
        if (isAnonymous || SSL_CIPHER_get_cipher_nid(cipher) == NID_undef) {
            error = Quote("ciphers", list) + ": " + SSL_CIPHER_get_name(cipher) +
                    (isAnonymous ? " authenticates nobody" : " encrypts nothing");
            return false;
        }
    }
    return true;
}

bool SetCiphers(SSL_CTX* context, const std::string& list, std::string& error) {
    bool isFirst = true;
    const std::string bad = FindBad(list, CIPHER_SEPARATORS, [&](const std::string& item) {
        const bool isKnown = IsCipherItem(context, item, isFirst);
        isFirst = false;
        return isKnown;
    });
    if (!bad.empty()) {
        return VEK_TLS_FAIL(error, Quote("cipher", bad));
    }
    if (SSL_CTX_set_cipher_list(context, list.c_str()) != 1) {
        return VEK_TLS_FAIL(error, Quote("ciphers", list));
    }
    return CheckCiphers(context, list, error);
}

// Suites and groups: plain lists of names. `set` is the library's setter for such a list.
bool SetNames(SSL_CTX* context, const char* kind, const std::string& list,
              int (*set)(SSL_CTX*, const char*), std::string& error) {
    if (list.empty()) {
        return true;
    }
    const std::string bad = FindBad(list, NAME_SEPARATORS, [&](const std::string& item) {
        return set(context, item.c_str()) == 1;
    });
    if (!bad.empty()) {
        return VEK_TLS_FAIL(error, Quote(kind, bad));
    }
    return set(context, list.c_str()) == 1 || VEK_TLS_FAIL(error, Quote(kind, list));
}

int SetGroups(SSL_CTX* context, const char* list) {
    return static_cast<int>(SSL_CTX_set1_groups_list(context, list));
}

}  // namespace

bool VEK_TLS_SET_POLICY(SSL_CTX* context, const VEK_ST_TLS_OPTIONS& options, std::string& error) {
    const std::string& ciphers = options.ciphers_;
    return SetVersions(context, options.minVersion_, options.maxVersion_, error) &&
           SetCiphers(context, ciphers.empty() ? VEK_TLS_DEFAULT_CIPHERS : ciphers, error) &&
           SetNames(context, "suite", options.suites_, SSL_CTX_set_ciphersuites, error) &&
           SetNames(context, "group", options.groups_, SetGroups, error);
}
