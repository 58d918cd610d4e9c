// The text of OpenSSL's errors. Internal to the runtime.
#pragma once

#include <string>

namespace Tessim {

// The reasons in the thread's error queue, oldest first. Empties the queue; the text is never empty.
std::string TakeOpenSslErrors();

}  // namespace Tessim
