// What carries the calls of stubs.
#pragma once

#include "runtime/ordane/objects.h"

namespace Ordane {

class StubAdapter : public virtual Tessim::Object {
  public:
    // Calls `method` of the object `target` and answers the method's response object, never null. Throws the
    // fault's exception when the call is answered by a fault, Fault::InvalidResponse::Exception when the
    // answer does not fit, and Fault::HostCommunication::Exception when the connection is broken; every
    // later call then fails the same way.
    virtual Tessim::Ref<DataObject> Invoke(const MoRef& target, const MethodInfo& method,
                                           const DataObject& request) = 0;

    // No call can be made any more. May be called again.
    virtual void Close() noexcept = 0;
};

}  // namespace Ordane
