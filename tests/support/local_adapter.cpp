#include "tests/support/local_adapter.h"

#include <algorithm>

namespace TestSupport {

int LocalAdapter::CountCalls(const std::string& method) const {
    return static_cast<int>(std::count(calls.begin(), calls.end(), method));
}

std::string LocalAdapter::Exchange(const std::string& request) {
    calls.push_back(Ordane::Soap::Message(request, {}).GetName());
    if (watch) {
        watch(calls.back());
    }
    return Ordane::HandleCall(request, *source, limits).text;
}

}  // namespace TestSupport
