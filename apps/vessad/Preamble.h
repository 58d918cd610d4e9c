// The line that a client sends before anything else, and the answers to it (see runtime/tessim/authd.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vessad {

struct OpenRequest {
    int selector = 0;
    std::string text1;
    std::string text2;
};

// The request that `line` is, given without its line end, or nothing when it is none.
std::optional<OpenRequest> ParseOpenRequest(std::string_view line);

}  // namespace Vessad
