#include "VEKTlsReason.h"

#include <openssl/err.h>

#include <cstring>
#include <new>

#include "VEKLogText.h"

std::string VEK_TLS_REASON_TEXT(unsigned long code, const char* note) {
    if (ERR_SYSTEM_ERROR(code)) {
        return strerror(ERR_GET_REASON(code));  // the note would name the call and the file again
    }
    const char* reason = ERR_reason_error_string(code);
    std::string text = reason == nullptr ? "not accepted" : reason;
    if (note != nullptr && *note != '\0') {
        text.append(" (").append(VEK_ESCAPE_TEXT(note)).append(")");  // options are quoted there
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

CVEKTlsErrorCopy::CVEKTlsErrorCopy() {
    const char* file = nullptr;
    const char* function = nullptr;
    const char* note = nullptr;
    int line = 0;
    int flags = 0;
    try {
        while (const unsigned long code =
                   ERR_get_error_all(&file, &line, &function, &note, &flags)) {
            errors_.push_back({code, file, line, function, note});
        }
    } catch (const std::bad_alloc&) {
        ERR_clear_error();
    }
    Restore();
}

void CVEKTlsErrorCopy::Restore() const {
    ERR_clear_error();
    for (const Error& error : errors_) {
        ERR_new();
        ERR_set_debug(error.file.c_str(), error.line, error.function.c_str());
        ERR_set_error(ERR_GET_LIB(error.code), ERR_GET_REASON(error.code),
                      error.note.empty() ? nullptr : "%s", error.note.c_str());
    }
}
