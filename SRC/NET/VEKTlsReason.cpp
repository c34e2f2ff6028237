#include "VEKTlsReason.h"

#include <openssl/err.h>

#include <cstring>

std::string VEK_TLS_REASON_TEXT(unsigned long code, const char* note) {
    if (ERR_SYSTEM_ERROR(code)) {
        return strerror(ERR_GET_REASON(code));  // the note would name the call and the file again
    }
    const char* reason = ERR_reason_error_string(code);
    std::string text = reason == nullptr ? "not accepted" : reason;
    if (note != nullptr && *note != '\0') {
        text.append(" (").append(note).append(")");
    }
    return text;
}

bool VEK_TLS_FAIL(std::string& error, const std::string& what) {
    const char* note = nullptr;
    int flags = 0;
    const unsigned long code = ERR_peek_error_all(nullptr, nullptr, nullptr, &note, &flags);
    const bool isText = (flags & ERR_TXT_STRING) != 0;
    error = what + ": " + VEK_TLS_REASON_TEXT(code, isText ? note : nullptr);
    ERR_clear_error();
    return false;
}
