// A management daemon within the test's process: the endpoint that connections reach while one lives.
//
// The stub adapter passes its messages to the fake host's objects through the dispatcher that the real daemon
// uses.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "apps/snmp/client/Endpoint.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/fake_host.h"

namespace TestSupport {

// One attempt to open a stream, refused or not.
struct Opening {
    std::string host;
    std::uint16_t port;
    Tessim::Clock::time_point deadline;  // when it had to be done
};

// One lives at a time; without one, opening a stream fails.
class FakeDaemon final : public SNMP::Endpoint {
  public:
    FakeDaemon();
    ~FakeDaemon() override;
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    FakeHost host;

    // While the daemon is down, opening a stream throws a Tessim::StreamException with this message; empty:
    // it is up.
    std::string down;
    // Every stream says that another process made it.
    bool foreignStreams = false;
    // The end of every stream has arrived.
    bool closesStreams = false;
    // A step of connecting whose event starts with this throws a Tessim::Exception with the event as its
    // message; empty: none does.
    std::string failingStep;

    // Makes each call of that method run `action` before anything is sent. What it throws reaches the caller;
    // the connection stays as it was.
    void WhenCalled(const std::string& method, std::function<void()> action) {
        whenCalled[method] = std::move(action);
    }
    // Makes each call of that method run `action` on its way. What it throws breaks the connection for good.
    void WhenSent(const std::string& method, std::function<void()> action) {
        whenSent[method] = std::move(action);
    }

    std::vector<Opening> openings;
    // The streams that exist, closed or not.
    int streams = 0;
    // Every call of an API method that was sent over any connection, in order, also without a reply.
    std::vector<std::string> calls;
    int CountCalls(const std::string& method) const;
    // Calls of the runtime and of the API, and closings, in order, as text.
    std::vector<std::string> events;

    // A new connection's adapter.
    Tessim::Ref<Ordane::StubAdapter> MakeAdapter();

    // The factory of connections made from now on; null: the runtime's stubs.
    Tessim::Ref<Hask::MoFactory> factory;

    void CreateService(Tessim::Service::Logger* logger, Tessim::Ref<Tessim::Zarn::ZarnSvc>& out) override;
    void OpenStream(const std::string& host, std::uint16_t port,
                    Tessim::Ref<Tessim::System::Stream>& out) override;
    void CreateStubAdapter(Tessim::Service::Logger* logger, Tessim::Zarn::ZarnSvc* service,
                           const std::string& localPath, Tessim::Ref<Ordane::StubAdapter>& out) override;
    void CreateMoFactory(Ordane::StubAdapter* adapter, Tessim::Ref<Hask::MoFactory>& out) override;

    // Adds an event when one lives.
    static void Record(const std::string& event);
    // Adds the event of a step of connecting; throws where `failingStep` says so.
    static void Step(const std::string& event);

    // For the adapters: what happens before and while a call is sent.
    void Call(const std::string& method) { Run(whenCalled, method); }
    void Send(const std::string& method);

  private:
    using Actions = std::map<std::string, std::function<void()>>;
    static void Run(const Actions& actions, const std::string& method);

    Actions whenCalled;
    Actions whenSent;
};

}  // namespace TestSupport
