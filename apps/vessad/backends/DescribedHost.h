// The described host: a YAML file that tells what a host would say, or the sample that is built in.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/YamlTree.h"

namespace Vessad {

// The host that `text` describes; `name` is what messages call the text. Throws Yaml::Error.
std::shared_ptr<const Inventory> ReadHost(std::string_view text, const std::string& name);

// A backend that serves the host described in `file` and reads it again when told to. Throws Yaml::Error for
// a mistake in the file, and std::runtime_error when it cannot be read: no regular file, or larger than 64
// MiB.
std::unique_ptr<Backend> MakeDescribedHost(std::filesystem::path file);

// A backend that serves the built-in sample host.
std::unique_ptr<Backend> MakeBuiltInHost();

}  // namespace Vessad
