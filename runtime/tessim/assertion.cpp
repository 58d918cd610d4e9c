#include "runtime/tessim/assertion.h"

#include <cstdio>
#include <cstdlib>

namespace Tessim {

void AssertionFailed(const char* expression, const SourceLocation& where) {
    static_cast<void>(std::fprintf(stderr, "%s:%u: assertion failed: %s\n", where.file_name(),
                                   static_cast<unsigned>(where.line()), expression));
    std::abort();
}

}  // namespace Tessim
