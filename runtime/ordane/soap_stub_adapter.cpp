#include "runtime/ordane/soap_stub_adapter.h"

#include <memory>
#include <string_view>

#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/exception.h"

namespace Ordane {

namespace {

constexpr std::string_view loginMethod = "Login";

// The reply as a message that answers `method`. Anything else means that the two sides are out of step.
std::unique_ptr<Soap::Message> Parse(const std::string& reply, const MethodInfo& method) {
    std::unique_ptr<Soap::Message> message;
    try {
        message = std::make_unique<Soap::Message>(reply, Soap::Limits{});
    } catch (const Tessim::InvalidArgumentException& refused) {
        throw Tessim::StreamException(std::string("the daemon's reply is unusable: ") + refused.what());
    }
    if (!message->Answers(method)) {
        throw Tessim::StreamException("the daemon answered " + Xml::Shown(message->GetName()) +
                                      " to the call " + std::string(method.name));
    }
    return message;
}

}  // namespace

Tessim::Ref<DataObject> SoapStubAdapter::Invoke(const MoRef& target, const MethodInfo& method,
                                                const DataObject& request) {
    if (!brokenBy.empty()) {
        throw Fault::HostCommunication::Exception(brokenBy);
    }
    const std::string text = Soap::EncodeRequest(target, method, request);
    std::unique_ptr<Soap::Message> message;
    // An exchange that anything interrupts, a lack of memory too, leaves its reply in the stream, where the
    // next call would take it for its own.
    brokenBy = "an earlier call was interrupted";
    try {
        message = Parse(Exchange(text), method);
    } catch (const Tessim::StreamException& failure) {
        brokenBy = failure.what();
    } catch (const Tessim::SystemException& failure) {
        brokenBy = failure.what();
    }
    if (!message) {
        throw Fault::HostCommunication::Exception(brokenBy);
    }
    brokenBy.clear();
    try {
        auto response = message->GetResponse(method);
        loggedIn = loggedIn || method.name == loginMethod;
        return response;
    } catch (const Tessim::InvalidArgumentException& refused) {
        throw Fault::InvalidResponse::Exception(std::string(method.name) + ": " + refused.what());
    }
}

void SoapStubAdapter::Close() noexcept {
    if (brokenBy.empty()) {
        brokenBy = "the connection is closed";
    }
}

}  // namespace Ordane
