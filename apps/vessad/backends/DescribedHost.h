// The described host: an inventory that a YAML file defines, or the built-in sample.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/YamlDocument.h"

namespace Vessad {

// Returns the host that `text` describes; `name` is its name in messages. Throws Yaml::Error.
std::shared_ptr<const Inventory> ReadHost(std::string_view text, const std::string& name);

// Returns a backend that serves the host described in `file` and reads the file again on Reload. Throws
// Yaml::Error for a mistake in the file, and std::runtime_error when it cannot be read: no regular file, or
// larger than 64 MiB.
std::unique_ptr<Backend> MakeDescribedHost(std::filesystem::path file);

// Returns a backend that serves the built-in sample host. Logs that it does.
std::unique_ptr<Backend> MakeBuiltInHost();

}  // namespace Vessad
