// Where in the source something happened.
#pragma once

#include <version>

#ifdef __cpp_lib_source_location
#include <source_location>
#else
#include <cstdint>
#endif

namespace Tessim {

#ifdef __cpp_lib_source_location
using SourceLocation = std::source_location;
#else
// What this system uses of std::source_location, for compilers (clang before 16) that lack it.
class SourceLocation {
  public:
    static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                            const char* function = __builtin_FUNCTION(),
                                            std::uint_least32_t line = __builtin_LINE()) noexcept {
        return {file, function, line};
    }

    constexpr const char* file_name() const noexcept { return file; }
    constexpr const char* function_name() const noexcept { return function; }
    constexpr std::uint_least32_t line() const noexcept { return lineNumber; }

  private:
    constexpr SourceLocation(const char* file, const char* function, std::uint_least32_t line) noexcept
        : file(file), function(function), lineNumber(line) {}

    const char* file;
    const char* function;
    std::uint_least32_t lineNumber;
};
#endif

}  // namespace Tessim
