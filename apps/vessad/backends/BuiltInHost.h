// The built-in sample host as YAML. The build generates it from hosts/small.yaml.
#pragma once

#include <string_view>

namespace Vessad {

extern const std::string_view builtInHost;

}  // namespace Vessad
