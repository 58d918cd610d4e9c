// The daemon's --check.
#pragma once

#include <filesystem>
#include <ostream>

namespace Vessad {

// Validates the host that `file` describes, and returns the exit code. 0: prints what the host has to
// `summary`. 1: prints every mistake, at most 100 of them and the number of the others, or why the file
// cannot be read, to `mistakes`.
int CheckHost(const std::filesystem::path& file, std::ostream& summary, std::ostream& mistakes);

}  // namespace Vessad
