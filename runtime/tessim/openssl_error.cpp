#include "runtime/tessim/openssl_error.h"

#include <openssl/err.h>

#include "runtime/tessim/exception.h"

namespace Tessim {

std::string TakeOpenSslErrors() {
    std::string text;
    const char* data = nullptr;
    int flags = 0;
    while (const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) {
        if (!text.empty()) {
            text += "; ";
        }
        const char* reason = ERR_reason_error_string(code);
        text += reason != nullptr ? reason : "error " + std::to_string(code);
        if ((flags & ERR_TXT_STRING) != 0 && data != nullptr && *data != '\0') {
            text.append(" (").append(data).append(")");
        }
    }
    return text.empty() ? "no reason from OpenSSL" : text;
}

void RequireOpenSsl(bool done, const std::string& what) {
    if (!done) {
        throw SystemException("cannot " + what + ": " + TakeOpenSslErrors());
    }
}

}  // namespace Tessim
