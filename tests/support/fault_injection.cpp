#include "tests/support/fault_injection.h"

#include <sys/stat.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

TestSupport::FaultInjection* faults = nullptr;

}  // namespace

// The linker turns calls of f into calls of __wrap_f, and __real_f into f.
// NOLINTBEGIN(bugprone-reserved-identifier,misc-definitions-in-headers)
extern "C" {

std::time_t __real_time(std::time_t* stored);
void* __real_calloc(std::size_t count, std::size_t size);
char* __real_strdup(const char* text);
int __real_stat64(const char* path, struct stat64* status);

std::time_t __wrap_time(std::time_t* stored) {
    if (faults == nullptr || !faults->time) {
        return __real_time(stored);
    }
    if (stored != nullptr) {
        *stored = *faults->time;
    }
    return *faults->time;
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    if (faults != nullptr && faults->calloc.Expires()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

char* __wrap_strdup(const char* text) {
    if (faults != nullptr && faults->strdup.Expires()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_strdup(text);
}

int __wrap_stat64(const char* path, struct stat64* status) {
    if (faults == nullptr || faults->path.empty() || faults->path != path) {
        return __real_stat64(path, status);
    }
    ++faults->pathCalls;
    if (faults->pathError != 0) {
        errno = faults->pathError;
        return -1;
    }
    std::memset(status, 0, sizeof(*status));
    return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,misc-definitions-in-headers)

// NOLINTBEGIN(cppcoreguidelines-no-malloc,hicpp-no-malloc)
void* operator new(std::size_t size) {
    if (faults != nullptr && faults->operatorNew.Expires()) {
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc,hicpp-no-malloc)

namespace TestSupport {

FaultInjection::FaultInjection() {
    assert(faults == nullptr);
    faults = this;
}

FaultInjection::~FaultInjection() {
    faults = nullptr;
}

bool FaultInjection::Countdown::Expires() {
    if (left > 1) {
        --left;
        return false;
    }
    return left == 1 && times > 0 && times-- > 0;
}

}  // namespace TestSupport
