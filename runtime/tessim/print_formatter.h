// Messages with numbered places: PrintFormatter("no %2 in %1") << file << key.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tessim {

class PrintFormatter {
  public:
    explicit PrintFormatter(std::string_view format) : format(format) {}

    // The next argument, for %1, %2, … %9 in turn.
    PrintFormatter& operator<<(std::string_view argument);
    PrintFormatter& operator<<(std::int64_t argument);

    // Returns the text with every place filled. A place without an argument stays as written; "%%" gives "%".
    // An argument's own text is never searched for places.
    std::string Format() const;

  private:
    std::string format;
    std::vector<std::string> arguments;
};

}  // namespace Tessim
