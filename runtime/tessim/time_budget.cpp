#include "runtime/tessim/time_budget.h"

#include <algorithm>
#include <atomic>
#include <string>

#include "runtime/tessim/exception.h"

namespace Tessim {
namespace {

constexpr Clock::time_point none = Clock::time_point::max();
constexpr std::chrono::seconds limitOutsideBudgets{5};

thread_local Clock::time_point currentEnd = none;

std::atomic<bool (*)()> isProcessEnding{nullptr};

}  // namespace

TimeBudget::TimeBudget(Clock::duration limit) : outerEnd(currentEnd) {
    const Clock::time_point now = Clock::now();
    if (limit < none - now) {
        currentEnd = std::min(currentEnd, now + limit);
    }
}

TimeBudget::~TimeBudget() {
    currentEnd = outerEnd;
}

Clock::time_point TimeBudget::Deadline() {
    return currentEnd == none ? Clock::now() + limitOutsideBudgets : currentEnd;
}

void TimeBudget::EndWaitsWhen(bool (*isEnding)()) noexcept {
    isProcessEnding = isEnding;
}

void TimeBudget::CheckEnding(const char* wait) {
    bool (*const isEnding)() = isProcessEnding;
    if (isEnding != nullptr && isEnding()) {
        throw StreamException(std::string(wait) + ": the process is ending");
    }
}

}  // namespace Tessim
