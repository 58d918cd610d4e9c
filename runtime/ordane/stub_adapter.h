// What carries the calls of stubs.
#pragma once

#include "runtime/ordane/objects.h"

namespace Ordane {

// Not thread-safe.
class StubAdapter : public virtual Tessim::Object {
  public:
    // Calls `method` of the object `target` with its request object and returns its response object, never
    // null. Throws the exception of a fault in the reply, Fault::InvalidResponse::Exception when the reply
    // does not fit the method, and Fault::HostCommunication::Exception when the connection is broken; every
    // later call then fails the same way. Without a login that the service accepted, a method that needs one
    // is not sent: throws Fault::NotAuthenticated::Exception, as the service would reply.
    virtual Tessim::Ref<DataObject> Invoke(const MoRef& target, const MethodInfo& method,
                                           const DataObject& request) = 0;

    // Whether the connection is broken.
    virtual bool IsBroken() const noexcept = 0;

    // Ends the adapter: every later call throws Fault::HostCommunication::Exception. May be called again.
    virtual void Close() noexcept = 0;
};

}  // namespace Ordane
