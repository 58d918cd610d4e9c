// An exception for a failed system call.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace Vessad {

// Returns the exception for the current errno. Its text is `what` and the error's message.
inline std::system_error ErrnoException(const std::string& what) {
    return {errno, std::generic_category(), what};
}

}  // namespace Vessad
