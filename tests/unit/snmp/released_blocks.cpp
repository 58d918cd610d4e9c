#include "tests/unit/snmp/released_blocks.h"

#include <utility>

namespace {

std::vector<const void*> released;
bool watching = false;

}  // namespace

// The linker turns calls of f into calls of __wrap_f, and __real_f into f.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" void __real_free(void* memory);
extern "C" void __wrap_free(void* memory) {
    if (watching && memory != nullptr) {
        released.push_back(memory);
    }
    __real_free(memory);
}
// NOLINTEND(bugprone-reserved-identifier)

std::vector<const void*> ReleasedBlocks(void (*action)()) {
    watching = true;
    action();
    watching = false;
    return std::exchange(released, {});
}
