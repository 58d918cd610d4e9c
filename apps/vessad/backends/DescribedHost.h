// The described host: an inventory that a YAML file defines, or the built-in sample.
#pragma once

#include <filesystem>
#include <memory>

#include "apps/vessad/backends/Backend.h"

namespace Vessad {

// Returns a backend that serves the host described in `file` and reads the file again on Reload. Throws
// Yaml::Error for a mistake in the file, and std::runtime_error when it cannot be read: no regular file, or
// larger than 64 MiB. Logs a warning for each name of a datastore that does not exist.
std::unique_ptr<Backend> MakeDescribedHost(std::filesystem::path file);

// Returns a backend that serves the built-in sample host. Logs that it does.
std::unique_ptr<Backend> MakeBuiltInHost();

}  // namespace Vessad
