// The version of the programs. The build generates it from the project's version and the commit.
#pragma once

namespace Kelv {

// "VERSION (commit COMMIT)".
extern const char* const version;

}  // namespace Kelv
