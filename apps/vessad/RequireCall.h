// The check of a system call.
#pragma once

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

namespace Vessad {

// Unless a system call was `done`, throws std::system_error with errno, whose text is `what` and the error's
// message.
inline void RequireCall(bool done, std::string_view what) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), std::string(what));
    }
}

}  // namespace Vessad
