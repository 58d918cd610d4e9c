// Where log text goes.
#pragma once

#include <string>

#include "runtime/tessim/object.h"

namespace Tessim {

class Writer : public virtual Object {
  public:
    // Writes `length` bytes of text; a NUL follows them. Must not throw, because code that logs expects no
    // failure. Called by one thread at a time.
    virtual void Write(const char* text, int length) = 0;
    // Ends writing. May be called again.
    virtual void Close() = 0;
    // A name of the writer for messages.
    virtual std::string ToString() const = 0;
};

}  // namespace Tessim
