// How the client reaches the management daemon. The one place where a test stands in for the daemon.
//
// Used on the agent's one request thread. Every operation throws Tessim::Exception on failure and leaves
// `out` as it was.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/hask/mo_factory.h"
#include "runtime/tessim/service.h"
#include "runtime/tessim/stream.h"
#include "runtime/tessim/zarn.h"

namespace SNMP {

class Endpoint {
  public:
    Endpoint() = default;
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    virtual ~Endpoint() = default;

    // The service that maps paths to connections, not yet started.
    virtual void CreateService(Tessim::Service::Logger* logger, Tessim::Ref<Tessim::Zarn::ZarnSvc>& out);
    // Opens a TLS stream to the management API at `host`:`port`, within the time budget in force.
    virtual void OpenStream(const std::string& host, std::uint16_t port,
                            Tessim::Ref<Tessim::System::Stream>& out);
    // The adapter that sends calls over the connection that `service` maps to `localPath`.
    virtual void CreateStubAdapter(Tessim::Service::Logger* logger, Tessim::Zarn::ZarnSvc* service,
                                   const std::string& localPath, Tessim::Ref<Ordane::StubAdapter>& out);
    // The factory of stubs that call through `adapter`.
    virtual void CreateMoFactory(Ordane::StubAdapter* adapter, Tessim::Ref<Hask::MoFactory>& out);

    // The endpoint of connections made from now on. Set it before the first request; null restores the
    // runtime's own. The caller keeps ownership.
    static Endpoint& Current();
    static void SetCurrent(Endpoint* endpoint);
};

}  // namespace SNMP
