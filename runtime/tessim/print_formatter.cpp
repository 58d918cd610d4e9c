#include "runtime/tessim/print_formatter.h"

namespace Tessim {

PrintFormatter& PrintFormatter::operator<<(std::string_view argument) {
    arguments.emplace_back(argument);
    return *this;
}

PrintFormatter& PrintFormatter::operator<<(std::int64_t argument) {
    arguments.push_back(std::to_string(argument));
    return *this;
}

std::string PrintFormatter::Format() const {
    std::string text;
    for (std::size_t i = 0; i < format.size(); ++i) {
        const char next = format[i] == '%' && i + 1 < format.size() ? format[i + 1] : '\0';
        const std::size_t place =
            next >= '1' && next <= '9' ? static_cast<std::size_t>(next - '1') : arguments.size();
        if (place < arguments.size()) {
            text += arguments[place];
            ++i;
        } else {
            text += format[i];
            if (next == '%') {
                ++i;
            }
        }
    }
    return text;
}

}  // namespace Tessim
