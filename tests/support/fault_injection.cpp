#include "tests/support/fault_injection.h"

#include <sys/stat.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>

namespace {

// Counts down to the calls that fail.
struct Countdown {
    int left = 0;   // calls until the first of them, counting it
    int times = 0;  // how many fail

    bool Expires() {
        if (left > 1) {
            --left;
            return false;
        }
        return left == 1 && times > 0 && times-- > 0;
    }
};

struct Faults {
    std::optional<std::time_t> time;
    std::size_t callocElementSize = 0;
    Countdown calloc;
    Countdown strdup;
    Countdown operatorNew;
    std::string path;
    int pathError = 0;  // 0: the path exists
    int pathCalls = 0;
};

std::optional<Faults> faults;

}  // namespace

// The linker turns calls of f into calls of __wrap_f, and __real_f into f.
// NOLINTBEGIN(bugprone-reserved-identifier,misc-definitions-in-headers)
extern "C" {

std::time_t __real_time(std::time_t* stored);
void* __real_calloc(std::size_t count, std::size_t size);
char* __real_strdup(const char* text);
int __real_stat64(const char* path, struct stat64* status);

std::time_t __wrap_time(std::time_t* stored) {
    if (!faults || !faults->time) {
        return __real_time(stored);
    }
    if (stored != nullptr) {
        *stored = *faults->time;
    }
    return *faults->time;
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    if (faults && (faults->callocElementSize == 0 || faults->callocElementSize == size) &&
        faults->calloc.Expires()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

char* __wrap_strdup(const char* text) {
    if (faults && faults->strdup.Expires()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_strdup(text);
}

int __wrap_stat64(const char* path, struct stat64* status) {
    if (!faults || faults->path.empty() || faults->path != path) {
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
    if (faults && faults->operatorNew.Expires()) {
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
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
    assert(!faults);
    faults.emplace();
}

FaultInjection::~FaultInjection() {
    faults.reset();
}

void FaultInjection::SetTime(std::time_t now) {
    faults->time = now;
}

void FaultInjection::FailCalloc(std::size_t elementSize, int nth) {
    faults->callocElementSize = elementSize;
    faults->calloc = {nth, 1};
}

void FaultInjection::FailStrdup(int nth) {
    faults->strdup = {nth, 1};
}

void FaultInjection::FailNew(int nth, int times) {
    faults->operatorNew = {nth, times};
}

void FaultInjection::SetExists(const std::string& path, bool exists) {
    FailStat64(path, exists ? 0 : ENOENT);
}

void FaultInjection::FailStat64(const std::string& path, int error) {
    faults->path = path;
    faults->pathError = error;
}

int FaultInjection::Stat64Calls() const {
    return faults->pathCalls;
}

}  // namespace TestSupport
