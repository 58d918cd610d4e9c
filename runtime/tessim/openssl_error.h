// OpenSSL's errors as text and as an exception.
#pragma once

#include <string>

namespace Tessim {

// The reasons in the thread's error queue, oldest first. Empties the queue; the text is never empty.
std::string TakeOpenSslErrors();

// Throws SystemException, "cannot `what`" and the reasons, unless a call of OpenSSL was `done`.
void RequireOpenSsl(bool done, const std::string& what);

}  // namespace Tessim
