#include "apps/vessad/LogFormat.h"

#include <spdlog/pattern_formatter.h>

#include <utility>

#include "runtime/tessim/string_util.h"

namespace Vessad {

namespace {

constexpr char escapedText = '*';

class EscapedTextFlag final : public spdlog::custom_flag_formatter {
  public:
    void format(const spdlog::details::log_msg& message, const std::tm& /*time*/,
                spdlog::memory_buf_t& out) override {
        const std::string text =
            Tessim::StringUtil::EscapeControls({message.payload.data(), message.payload.size()});
        out.append(text.data(), text.data() + text.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override {
        return std::make_unique<EscapedTextFlag>();
    }
};

}  // namespace

std::unique_ptr<spdlog::formatter> MakeLogFormatter(const std::string& pattern, const std::string& lineEnd) {
    auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::local, lineEnd);
    formatter->add_flag<EscapedTextFlag>(escapedText).set_pattern(pattern);
    return formatter;
}

}  // namespace Vessad
