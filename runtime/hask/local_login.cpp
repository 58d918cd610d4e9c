#include "runtime/hask/local_login.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/stream.h"

namespace Hask::LocalLogin {

namespace {

constexpr std::size_t maxTicketSize = 1023;

}  // namespace

std::optional<std::string> ReadPassword(const std::string& path,
                                        std::chrono::system_clock::time_point requested) {
    Tessim::Ref<Tessim::System::Stream> file;
    Tessim::System::GetSystemFactory()->OpenSecretFile(path, requested, file);
    std::array<char, maxTicketSize + 1> buffer{};
    const std::size_t count = file->Read(buffer.data(), buffer.size());
    file->Close();
    if (count > maxTicketSize) {
        return std::nullopt;
    }
    buffer.at(count) = '\0';
    const std::string password = buffer.data();
    const auto isPrintable = [](char character) { return character > ' ' && character < 0x7f; };
    if (!std::ranges::all_of(password, isPrintable)) {
        throw Tessim::InvalidArgumentException("the ticket file does not hold a password");
    }
    return password;
}

}  // namespace Hask::LocalLogin
