#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "apps/snmp/refresh/VMExtraction.h"
#include "runtime/tessim/assertion.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Pair = Hask::Vm::ConfigInfo::DatastoreUrlPair;

std::string_view WithoutBlanks(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The rule, said once more: "[name] relative/path" becomes the name's URL and the relative path.
std::string Expected(const std::vector<std::pair<std::string, std::string>>& pairs, std::string_view path) {
    const std::size_t open = path.find('[');
    const std::size_t close = open == std::string_view::npos ? open : path.find(']', open + 1);
    if (close == std::string_view::npos) {
        return std::string(path);
    }
    const std::string_view name = WithoutBlanks(path.substr(open + 1, close - open - 1));
    std::string relative(WithoutBlanks(path.substr(close + 1)));
    if (name.empty()) {
        return relative;
    }
    for (const auto& [known, url] : pairs) {
        if (known == name) {
            return url + relative;
        }
    }
    return std::string(path);
}

}  // namespace

// An input is a path, a NUL, then names and URLs in turn, each ended by a NUL.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    const auto take = [&rest] {
        const std::size_t end = rest.find('\0');
        std::string part(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        return part;
    };
    const std::string path = take();
    std::vector<std::pair<std::string, std::string>> pairs;
    const auto array = Tessim::MakeRef<Ordane::DataArray<Pair>>();
    while (!rest.empty()) {
        std::string name = take();
        std::string url = take();
        const auto pair = Tessim::MakeRef<Pair>();
        pair->SetName(name);
        pair->SetUrl(url);
        array->Append(pair);
        pairs.emplace_back(std::move(name), std::move(url));
    }
    std::string used = path;
    std::string result = "from an earlier call";
    GetPathFromDsPath(pairs.empty() ? nullptr : array.Get(), used, result);
    Tessim::Assert(result == Expected(pairs, path), "a datastore path resolves by the rule");
    return 0;
}
