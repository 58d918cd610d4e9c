// The adapter that carries calls as SOAP messages, whatever carries the messages.
#pragma once

#include <string>

#include "runtime/ordane/soap.h"
#include "runtime/ordane/stub_adapter.h"

namespace Ordane {

class SoapStubAdapter : public virtual StubAdapter, public Tessim::ObjectImpl {
  public:
    Tessim::Ref<DataObject> Invoke(const MoRef& target, const MethodInfo& method,
                                   const DataObject& request) final;
    void Close() noexcept override;

  protected:
    // Sends one request message and answers the reply message. Throws Tessim::StreamException or
    // Tessim::SystemException when it cannot; the adapter is then broken for good.
    virtual std::string Exchange(const std::string& request) = 0;

    // Whether the service took a call of its method "Login". Until then it may be anybody's, and no call that
    // it should answer has a long reply.
    bool IsLoggedIn() const { return loggedIn; }

  private:
    bool loggedIn = false;
    std::string brokenBy;  // why no call can be made any more; empty while it can
};

}  // namespace Ordane
