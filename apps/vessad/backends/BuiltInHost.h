// The sample host that is built in, as YAML. The build makes it from hosts/small.yaml.
#pragma once

#include <string_view>

namespace Vessad {

extern const std::string_view builtInHost;

}  // namespace Vessad
