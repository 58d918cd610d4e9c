// Where log text goes.
#pragma once

#include <string>

#include "runtime/tessim/object.h"

namespace Tessim {

class Writer : public virtual Object {
  public:
    // Writes `length` bytes of text; a NUL follows them.
    virtual void Write(const char* text, int length) = 0;
    virtual void Close() = 0;
    // A name of the writer for messages.
    virtual std::string ToString() const = 0;
};

}  // namespace Tessim
