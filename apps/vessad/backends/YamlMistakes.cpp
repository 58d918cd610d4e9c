#include "apps/vessad/backends/YamlMistakes.h"

#include <algorithm>
#include <string_view>
#include <tuple>

namespace Vessad::Yaml {

namespace {

constexpr std::size_t maxKept = 100;

}  // namespace

Error::Error(const std::string& document, const Place& place, const std::string& what)
    : runtime_error(document + ":" + std::to_string(place.line) + ":" + std::to_string(place.column) + ": " +
                    what),
      place(place) {}

void Mistakes::Refuse(const Error& mistake) {
    if (policy == Policy::Throw) {
        throw Error(mistake);
    }
    Tolerate(mistake);
}

void Mistakes::Tolerate(const Error& mistake) {
    // What an alias repeats is read again, at the same place.
    if (std::ranges::any_of(
            kept, [&](const Error& known) { return std::string_view(known.what()) == mistake.what(); })) {
        return;
    }
    ++count;
    if (kept.size() < maxKept) {
        kept.push_back(mistake);
    }
}

std::vector<std::string> Mistakes::List() const {
    std::vector<Error> ordered = kept;
    std::stable_sort(ordered.begin(), ordered.end(), [](const Error& left, const Error& right) {
        const Place& before = left.GetPlace();
        const Place& after = right.GetPlace();
        return std::tie(before.line, before.column) < std::tie(after.line, after.column);
    });
    std::vector<std::string> lines;
    lines.reserve(ordered.size() + 1);
    for (const Error& mistake : ordered) {
        lines.emplace_back(mistake.what());
    }
    if (count > kept.size()) {
        lines.push_back("and " + std::to_string(count - kept.size()) + " more");
    }
    return lines;
}

}  // namespace Vessad::Yaml
