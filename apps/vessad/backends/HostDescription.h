// A host as a YAML text describes it.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "apps/vessad/backends/Backend.h"
#include "apps/vessad/backends/YamlMistakes.h"

namespace Vessad {

// Returns the host that `text` describes; `name` is its name in messages. Its mistakes go to `mistakes`. A
// name of a datastore that does not exist is tolerated; all others make the description unusable, and the
// host is not complete when one was collected.
std::shared_ptr<const Inventory> ReadHost(std::string_view text, const std::string& name,
                                          Yaml::Mistakes& mistakes);
// The same; throws Yaml::Error at the first mistake that is not tolerated.
std::shared_ptr<const Inventory> ReadHost(std::string_view text, const std::string& name);

// Returns the content of a file with a description. Throws std::runtime_error when it cannot be read: no
// regular file, or larger than 64 MiB.
std::string ReadHostFile(const std::filesystem::path& file);

}  // namespace Vessad
