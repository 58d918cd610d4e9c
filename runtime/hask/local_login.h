// What every client of the local daemon logs in with: a user name and the password of a ticket file. Any
// thread may call.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Hask::LocalLogin {

inline const std::string user = "root";
inline const std::string locale = "en";
// For connecting and logging in together: the agent serves no other request meanwhile.
inline constexpr std::chrono::seconds limit{1};

// Returns the password in the ticket file at `path`, whose ticket was requested at `requested`: its text up
// to the first NUL, without white space and control characters. Returns nothing when the file is longer than
// any ticket. Throws as Tessim::System::Factory::OpenSecretFile does, and InvalidArgumentException when the
// file holds anything but a password: what was not written as a ticket is never sent.
std::optional<std::string> ReadPassword(const std::string& path,
                                        std::chrono::system_clock::time_point requested);

}  // namespace Hask::LocalLogin
