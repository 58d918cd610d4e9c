// Directories and files that nobody else may have prepared.
#pragma once

#include <sys/stat.h>

#include <string>

namespace Vessad {

// Returns the status of the open file or directory. Throws std::runtime_error, whose text starts with `name`,
// when it belongs to another user than the process or when others may write to it; std::system_error when it
// has no status.
struct stat CheckPrivate(int descriptor, const std::string& name);

}  // namespace Vessad
