// Checks that stay in every build.
#pragma once

#include "runtime/tessim/source_location.h"

namespace Tessim {

// Ends the process, with the place and the text on the standard error output.
[[noreturn]] void AssertionFailed(const char* expression, const SourceLocation& where);

// Ends the process that way unless `holds`. For broken contracts of the program itself only, never for input.
inline void Assert(bool holds, const char* expression,
                   const SourceLocation& where = SourceLocation::current()) {
    if (!holds) {
        AssertionFailed(expression, where);
    }
}

}  // namespace Tessim
