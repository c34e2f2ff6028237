#include "VEKTlsPolicy.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>

#include "VEKLogText.h"
#include "VEKTlsReason.h"

namespace {

// What ends an item of the library's lists: a separator, or the first character of the next one.
constexpr const char* CIPHER_SEPARATORS = ":,; ";
constexpr const char* CIPHER_ENDS = ":,; !@";
constexpr const char* NAME_SEPARATORS = ":";

// Leaves out the ciphers under which anybody passes for the peer, certificate or not, or may read
// along. The library would still negotiate them at security level 0.
constexpr const char* WITHOUT_UNSAFE = ":!aNULL:!eNULL";

// Words of the cipher list format that may stand for no cipher at all, depending on how the library
// was built. Lists exclude them by habit; to ask for one is an error.
constexpr const char* MAYBE_EMPTY[] = {"RC2",   "RC4",    "IDEA",  "SEED",   "DES",   "3DES",
                                       "LOW",   "MEDIUM", "EXP",   "EXPORT", "GOST",  "aGOST",
                                       "kGOST", "kDH",    "aDH",   "kECDH",  "aECDH", "KRB5",
                                       "kKRB5", "aKRB5",  "SSLv2", "kDHd",   "kDHr"};

std::string Quote(const char* kind, const std::string& value) {
    return std::string(kind) + " \"" + VEK_ESCAPE_TEXT(value) + "\"";
}

// The library would not see what is behind a NUL.
bool CheckText(const char* kind, const std::string& list, std::string& error) {
    if (list.find('\0') == std::string::npos) {
        return true;
    }
    error = Quote(kind, list) + ": holds a NUL";
    return false;
}

// Calls `check` with each item of the list until one fails. Returns that item, or an empty text.
std::string FindBad(const std::string& list, const char* separators, const char* ends,
                    const std::function<bool(const std::string&)>& check) {
    size_t begin = 0;
    while ((begin = list.find_first_not_of(separators, begin)) != std::string::npos) {
        std::string item = list.substr(begin, list.find_first_of(ends, begin + 1) - begin);
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
           SSL_CTX_set_cipher_list(
               context, ("-ALL:" + name + (isExclusion ? "" : WITHOUT_UNSAFE)).c_str()) == 1;
}

bool FailCipher(SSL_CTX* context, const std::string& item, std::string& error) {
    if (SSL_CTX_set_cipher_list(context, ("-ALL:" + item).c_str()) != 1) {
        return VEK_TLS_FAIL(error, Quote("cipher", item));
    }
    error = Quote("cipher", item) + ": without authentication or encryption";
    return false;
}

bool SetCiphers(SSL_CTX* context, const std::string& list, std::string& error) {
    bool isFirst = true;
    const auto check = [&](const std::string& item) {
        const bool isKnown = IsCipherItem(context, item, isFirst);
        isFirst = false;
        return isKnown;
    };
    const std::string bad = FindBad(list, CIPHER_SEPARATORS, CIPHER_ENDS, check);
    if (!bad.empty()) {
        return FailCipher(context, bad, error);
    }
    return SSL_CTX_set_cipher_list(context, (list + WITHOUT_UNSAFE).c_str()) == 1 ||
           VEK_TLS_FAIL(error, Quote("ciphers", list));
}

// Suites and groups: plain lists of names. `set` is the library's setter for such a list.
bool SetNames(SSL_CTX* context, const char* kind, const std::string& list,
              int (*set)(SSL_CTX*, const char*), std::string& error) {
    if (list.empty()) {
        return true;
    }
    const auto check = [&](const std::string& item) { return set(context, item.c_str()) == 1; };
    const std::string bad = FindBad(list, NAME_SEPARATORS, NAME_SEPARATORS, check);
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
    return CheckText("ciphers", ciphers, error) && CheckText("suites", options.suites_, error) &&
           CheckText("groups", options.groups_, error) &&
           SetVersions(context, options.minVersion_, options.maxVersion_, error) &&
           SetCiphers(context, ciphers.empty() ? VEK_TLS_DEFAULT_CIPHERS : ciphers, error) &&
           SetNames(context, "suite", options.suites_, SSL_CTX_set_ciphersuites, error) &&
           SetNames(context, "group", options.groups_, SetGroups, error);
}
