#include "runtime/tessim/assertion.h"

#include <cstdio>
#include <cstdlib>

namespace Tessim {

void Assert(bool holds, const char* expression, const SourceLocation& where) {
    if (!holds) {
        static_cast<void>(std::fprintf(stderr, "%s:%u: assertion failed: %s\n", where.file_name(),
                                       static_cast<unsigned>(where.line()), expression));
        std::abort();
    }
}

}  // namespace Tessim
