// Reaches an object source in this process, through the messages and the dispatcher that the daemon uses too.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "runtime/ordane/dispatcher.h"
#include "runtime/ordane/soap_stub_adapter.h"

namespace TestSupport {

class LocalAdapter final : public Ordane::SoapStubAdapter {
  public:
    // Calls the objects of `source`, which must outlive the adapter.
    explicit LocalAdapter(Ordane::ObjectSource& source, const Ordane::Soap::Limits& limits = {})
        : source(&source), limits(limits) {}

    // Makes the adapter call `watcher` with the method's name before each call. What the watcher throws takes
    // the place of the reply: a Tessim::StreamException is a broken connection, for good.
    void Watch(std::function<void(const std::string& method)> watcher) { watch = std::move(watcher); }

    // The names of the methods called so far, in order, also without a reply.
    const std::vector<std::string>& GetCalls() const { return calls; }
    // How often the method was called.
    int CountCalls(const std::string& method) const;

  protected:
    std::string Exchange(const std::string& request) override;

  private:
    Ordane::ObjectSource* source;
    Ordane::Soap::Limits limits;
    std::function<void(const std::string&)> watch;
    std::vector<std::string> calls;
};

}  // namespace TestSupport
