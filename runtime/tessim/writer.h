// Where log text goes.
#pragma once

#include <string>

#include "runtime/tessim/object.h"

namespace Tessim {

class Writer : public virtual Object {
  public:
    // Takes `length` bytes of text, NUL-terminated after them.
    virtual void Write(const char* text, int length) = 0;
    virtual void Close() = 0;
    // What the writer is, for people.
    virtual std::string ToString() const = 0;
};

}  // namespace Tessim
