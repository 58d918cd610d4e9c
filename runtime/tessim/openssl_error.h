// What OpenSSL says about its failures. Internal to the runtime.
#pragma once

#include <string>

namespace Tessim {

// The reasons in the thread's error queue, oldest first, for people. Empties the queue. Never empty.
std::string TakeOpenSslErrors();

}  // namespace Tessim
