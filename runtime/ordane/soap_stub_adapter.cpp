#include "runtime/ordane/soap_stub_adapter.h"

#include <memory>
#include <string_view>

#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/exception.h"

namespace Ordane {

namespace {

constexpr std::string_view loginMethod = "Login";

// The reply as a message. Throws Tessim::StreamException when it is none or no reply to `method`: the two
// sides are then out of step.
std::unique_ptr<Soap::Message> Parse(const std::string& reply, const MethodInfo& method) {
    std::unique_ptr<Soap::Message> message;
    try {
        message = std::make_unique<Soap::Message>(reply, Soap::Limits{});
    } catch (const Tessim::InvalidArgumentException& refused) {
        throw Tessim::StreamException(std::string("the daemon's reply is unusable: ") + refused.what());
    }
    if (!message->IsReplyTo(method)) {
        throw Tessim::StreamException("the daemon sent " + Xml::EscapeName(message->GetName()) +
                                      " as its reply to " + std::string(method.name));
    }
    return message;
}

}  // namespace

Tessim::Ref<DataObject> SoapStubAdapter::Invoke(const MoRef& target, const MethodInfo& method,
                                                const DataObject& request) {
    if (!brokenBy.empty()) {
        throw Fault::HostCommunication::Exception(brokenBy);
    }
    MethodInfo::CheckSession(&method, loggedIn);
    const std::string text = Soap::EncodeRequest(target, method, request);
    std::unique_ptr<Soap::Message> message;
    // An interrupted exchange, for lack of memory too, leaves its reply in the stream, where the next call
    // would read it as its own.
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
