#include <optional>
#include <string>

#include "runtime/hask/api.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/zarn_stub_adapter.h"
#include "runtime/tessim/assertion.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/memory_stream.h"

namespace {

// The product that a daemon names that sends `reply` in pieces of that size; nothing when it is refused. A
// broken connection must stay broken.
std::optional<std::string> Ask(const std::string& reply, std::size_t pieceSize) {
    const auto stream = Tessim::MakeRef<TestSupport::MemoryStream>();
    stream->replies = {reply, reply};
    stream->pieceSize = pieceSize;
    Tessim::Ref<Ordane::StubAdapter> adapter;
    Ordane::CreateZarnStubAdapter(nullptr, TestSupport::MakeService(*stream, "/api/", "/api/").Get(), "/api/",
                                  adapter);
    const auto instance = Hask::ServiceInstance::MakeStub(adapter, "ServiceInstance");
    Tessim::Ref<Hask::ServiceInstanceContent> content;
    try {
        instance->RetrieveContent(content);
        return content->GetAbout() != nullptr ? content->GetAbout()->GetName() : "";
    } catch (const Ordane::Fault::HostCommunication::Exception&) {
        const std::string sent = stream->written;
        try {
            instance->RetrieveContent(content);
            Tessim::Assert(false, "a broken connection returns nothing");
        } catch (const Ordane::Fault::HostCommunication::Exception&) {
            Tessim::Assert(stream->written == sent, "a broken connection is asked nothing");
        }
    } catch (const Ordane::Fault::MethodFault::Exception&) {
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string reply(reinterpret_cast<const char*>(data), size);
    const auto whole = Ask(reply, size + 1);
    const auto byByte = Ask(reply, 1);
    // Only data behind the reply may go unnoticed when it comes late.
    Tessim::Assert(!whole || whole == byByte, "the pieces of a reply do not matter");
    return 0;
}
