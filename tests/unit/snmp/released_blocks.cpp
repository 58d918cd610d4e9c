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
        watching = false;  // the vector releases memory too
        released.push_back(memory);
        watching = true;
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
