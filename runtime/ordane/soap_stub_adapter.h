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

  private:
    std::string brokenBy;  // why no call can be made any more; empty while it can
};

}  // namespace Ordane
