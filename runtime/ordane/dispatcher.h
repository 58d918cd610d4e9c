// The server's side of a call: from the text of a request to the text of its reply.
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

    // Returns the object of that type and id, or null.
    virtual Tessim::Ref<ManagedObject> Find(const MoRef& reference) = 0;
    // Whether the connection has a session. Without one only the methods marked so may be called.
    virtual bool IsLoggedIn() const = 0;
};

struct Reply {
    std::string text;
    bool fault = false;
};

// Carries out the call in `text`, a SOAP message, and returns the SOAP message to reply with. Throws nothing
// but std::bad_alloc; any other failure is a fault in the reply: what the object throws, as it is or as
// SystemError; InvalidRequest for a text that is no call of the API. Threads may call this at the same time
// for different sources.
Reply HandleCall(std::string_view text, ObjectSource& source, const Soap::Limits& limits = {});

}  // namespace Ordane
