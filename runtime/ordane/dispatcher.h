// The server's side of a call: from a request's text to an answer's text.
#pragma once

#include <string>
#include <string_view>

#include "runtime/ordane/objects.h"
#include "runtime/ordane/soap.h"

namespace Ordane {

// The objects that one connection can reach.
class ObjectSource {
  public:
    ObjectSource() = default;
    ObjectSource(const ObjectSource&) = delete;
    ObjectSource& operator=(const ObjectSource&) = delete;
    virtual ~ObjectSource() = default;

    // The object of that type and id, or null.
    virtual Tessim::Ref<ManagedObject> Find(const MoRef& reference) = 0;
    // Whether the connection has a session. Without one only the methods marked so may be called.
    virtual bool IsLoggedIn() const = 0;
};

struct Reply {
    std::string text;
    bool fault = false;
};

// Carries out the call that `text` holds. Never throws anything but std::bad_alloc, every other failure is
// answered as a fault: what the object throws, as it is or as SystemError; a text that is no call of the API,
// as InvalidRequest. Any number of threads may call this for different sources.
Reply HandleCall(std::string_view text, ObjectSource& source, const Soap::Limits& limits = {});

}  // namespace Ordane
