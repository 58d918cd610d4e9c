// The daemon's version. The build generates it from the project's version and the commit.
#pragma once

namespace Vessad {

// "tovric-vessad VERSION (commit COMMIT)".
extern const char* const version;

}  // namespace Vessad
