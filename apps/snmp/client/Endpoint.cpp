#include "apps/snmp/client/Endpoint.h"

#include "runtime/ordane/zarn_stub_adapter.h"
#include "runtime/tessim/authd.h"

namespace SNMP {

namespace {

using Tessim::Ref;

const std::string stubFlavour = "solo";
Endpoint* current = nullptr;

}  // namespace

void Endpoint::CreateService(Tessim::Service::Logger* logger, Ref<Tessim::Zarn::ZarnSvc>& out) {
    Tessim::Zarn::CreateZarnSvc(logger, nullptr, out);
}

void Endpoint::OpenStream(const std::string& host, std::uint16_t port, Ref<Tessim::System::Stream>& out) {
    Ref<Tessim::Authd::Client> client;
    Tessim::Authd::CreateLocalClient(client);
    client->Open(Tessim::Authd::Selector::ManagementApi, host, port, "", "", out);
}

void Endpoint::CreateStubAdapter(Tessim::Service::Logger* logger, Tessim::Zarn::ZarnSvc* service,
                                 const std::string& localPath, Ref<Ordane::StubAdapter>& out) {
    Ordane::CreateZarnStubAdapter(logger, service, localPath, out);
}

void Endpoint::CreateMoFactory(Ordane::StubAdapter* adapter, Ref<Hask::MoFactory>& out) {
    Hask::GetMoStubFactory(stubFlavour, adapter, out);
}

Endpoint& Endpoint::Current() {
    // Never destroyed: the client outlives every static object.
    static Endpoint& ownRuntime = *new Endpoint;
    return current != nullptr ? *current : ownRuntime;
}

void Endpoint::SetCurrent(Endpoint* endpoint) {
    current = endpoint;
}

}  // namespace SNMP
