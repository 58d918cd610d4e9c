#include "runtime/tessim/exception.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>
#include <string_view>

namespace Tessim {
namespace {

constexpr std::size_t maxFrames = 48;

// The part of a source file's name that is the same for every build: from the tree's last top folder on.
std::string_view PathInTree(std::string_view file) {
    std::size_t best = std::string_view::npos;
    for (const std::string_view root : {"apps/", "runtime/", "tests/"}) {
        for (std::size_t at = file.rfind(root); at != std::string_view::npos; at = file.rfind(root, at - 1)) {
            if (at == 0 || file[at - 1] == '/') {
                best = best == std::string_view::npos ? at : std::max(best, at);
                break;
            }
        }
    }
    return file.substr(best == std::string_view::npos ? file.rfind('/') + 1 : best);
}

std::string Demangle(const char* symbol) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    return name ? name.get() : symbol;
}

std::string DescribeFrame(const void* address) {
    std::ostringstream text;
    Dl_info info{};
    const link_map* module = nullptr;
    if (dladdr1(address, &info, const_cast<void**>(reinterpret_cast<const void**>(&module)),
                RTLD_DL_LINKMAP) != 0 &&
        info.dli_fname != nullptr) {
        const std::string_view file(info.dli_fname);
        text << file.substr(file.rfind('/') + 1) << std::hex;
        const auto value = reinterpret_cast<std::uintptr_t>(address);
        if (info.dli_sname != nullptr) {
            text << '(' << Demangle(info.dli_sname) << "+0x"
                 << value - reinterpret_cast<std::uintptr_t>(info.dli_saddr) << ") ";
        } else {
            text << "(+0x" << value - (module != nullptr ? module->l_addr : 0) << ") ";
        }
    }
    text << '[' << address << ']';
    return text.str();
}

}  // namespace

// Not inlined, so that the frames of the runtime itself end at this constructor's return address.
[[gnu::noinline]] Throwable::Throwable(std::string message, const SourceLocation& where)
    : message(std::move(message)), where(where) {
    std::array<void*, maxFrames> found;
    auto* const end = found.begin() + backtrace(found.data(), static_cast<int>(found.size()));
    auto* const caller = std::find(found.begin(), end, __builtin_return_address(0));
    try {
        frames.assign(caller == end ? found.begin() : caller, end);
    } catch (const std::bad_alloc&) {
        // The message matters more than the way to it.
    }
}

std::vector<std::string> Throwable::GetBacktrace() const {
    std::vector<std::string> lines;
    lines.reserve(frames.size() + 1);
    std::ostringstream first;
    first << PathInTree(where.file_name()) << ':' << where.line() << ' ' << where.function_name();
    lines.push_back(first.str());
    for (const void* frame : frames) {
        lines.push_back(DescribeFrame(frame));
    }
    return lines;
}

}  // namespace Tessim
