// The adapter that carries calls as SOAP messages; a derived class transports the messages.
#pragma once

#include <string>

#include "runtime/ordane/soap.h"
#include "runtime/ordane/stub_adapter.h"

namespace Ordane {

class SoapStubAdapter : public virtual StubAdapter, public Tessim::ObjectImpl {
  public:
    Tessim::Ref<DataObject> Invoke(const MoRef& target, const MethodInfo& method,
                                   const DataObject& request) final;
    bool IsBroken() const noexcept override { return !brokenBy.empty(); }
    void Close() noexcept override;

  protected:
    // Sends one request message and returns the reply message. Throws Tessim::StreamException or
    // Tessim::SystemException when it cannot; the adapter is then broken for good.
    virtual std::string Exchange(const std::string& request) = 0;

    // Whether a call of the method "Login" has succeeded. Until then the service is untrusted: no call has a
    // long reply, and none that needs a login is made.
    bool IsLoggedIn() const { return loggedIn; }

  private:
    bool loggedIn = false;
    std::string brokenBy;  // why no more calls are possible; empty while they are
};

}  // namespace Ordane
