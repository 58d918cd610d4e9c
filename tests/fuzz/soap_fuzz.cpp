#include <string_view>

#include "runtime/hask/api.h"
#include "runtime/ordane/soap.h"
#include "runtime/tessim/assertion.h"
#include "runtime/tessim/exception.h"
#include "tests/fuzz/fuzz.h"

namespace Soap = Ordane::Soap;

namespace {

void CheckRequest(std::string_view text, const Ordane::MethodInfo& method) {
    const Soap::Message message(text, {});
    const auto target = message.GetTarget();
    const std::string once = Soap::EncodeRequest(*target, method, *message.GetParameters(method));
    const Soap::Message again(once, {});
    Tessim::Assert(Soap::EncodeRequest(*again.GetTarget(), method, *again.GetParameters(method)) == once,
                   "a request that was read is written and read again the same");
}

void CheckResponse(std::string_view text, const Ordane::MethodInfo& method) {
    const std::string once = Soap::EncodeResponse(method, *Soap::Message(text, {}).GetResponse(method));
    Tessim::Assert(Soap::EncodeResponse(method, *Soap::Message(once, {}).GetResponse(method)) == once,
                   "a response that was read is written and read again the same");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) try {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const Soap::Message message(text, {});
    const std::string name = message.GetName();
    for (const Ordane::ManagedType* type : Hask::AllManagedTypes()) {
        for (const Ordane::MethodInfo& method : type->methods) {
            if (method.name == name) {
                CheckRequest(text, method);
            } else if (message.IsReplyTo(method)) {
                CheckResponse(text, method);
            }
        }
    }
    return 0;
} catch (const Tessim::InvalidArgumentException&) {
    return 0;
} catch (const Ordane::Fault::MethodFault::Exception& fault) {
    const std::string once = Soap::EncodeFault(*fault.GetFault());
    Tessim::Assert(!once.empty() && Soap::Message(once, {}).GetName() == "Fault",
                   "a fault is written as one");
    return 0;
}
