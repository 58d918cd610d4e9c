#include "tests/support/fake_daemon.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <utility>

#include "runtime/ordane/dispatcher.h"
#include "runtime/ordane/soap_stub_adapter.h"
#include "runtime/tessim/authd.h"
#include "runtime/tessim/exception.h"

namespace TestSupport {

namespace {

using Tessim::MakeRef;
using Tessim::Ref;

using Tessim::Zarn::ZarnSvc;

FakeDaemon* current = nullptr;

std::string NameOf(const Tessim::Service::Logger* logger) {
    return logger != nullptr ? logger->GetName() : "nothing";
}

FakeDaemon& Reach() {
    if (current == nullptr) {
        throw Tessim::StreamException("no daemon");
    }
    return *current;
}

// Carries no bytes: the adapter does not need any.
class FakeStream final : public virtual Tessim::Authd::ServiceStream, public Tessim::ObjectImpl {
  public:
    explicit FakeStream(std::size_t number) : path("/connection/" + std::to_string(number)) { Count(1); }
    ~FakeStream() override { Count(-1); }

    const std::string& GetConnectionPath() const override { return path; }
    uid_t GetPeerOwner() const override { return 0; }
    std::size_t Read(void* /*buffer*/, std::size_t /*size*/) override {
        throw Tessim::StreamException("the stream carries nothing");
    }
    void Write(const void* /*data*/, std::size_t /*size*/) override {
        throw Tessim::StreamException("the stream carries nothing");
    }
    void Close() noexcept override { FakeDaemon::Record("close stream " + path); }
    bool IsOwn() const noexcept override {
        return getpid() == owner && (current == nullptr || !current->foreignStreams);
    }
    bool IsConnected() const noexcept override { return current == nullptr || !current->closesStreams; }

  private:
    static void Count(int change) {
        if (current != nullptr) {
            current->streams += change;
        }
    }

    std::string path;
    pid_t owner = getpid();
};

class ObservedZarnSvc final : public virtual ZarnSvc, public Tessim::ObjectImpl {
  public:
    explicit ObservedZarnSvc(Ref<ZarnSvc> service) : service(std::move(service)) {}

    void Startup() override {
        FakeDaemon::Step("start service");
        service->Startup();
    }
    void Shutdown() override {
        FakeDaemon::Record("shut service down");
        service->Shutdown();
    }
    std::string GetConnectionPath(Tessim::System::Stream* stream, int flags) override {
        FakeDaemon::Step("get connection path, flags " + std::to_string(flags));
        return service->GetConnectionPath(stream, flags);
    }
    void MapPath(const std::string& connectionPath, const std::string& remotePath,
                 const std::string& localPath) override {
        FakeDaemon::Step("map " + connectionPath + ", " + remotePath + ", " + localPath);
        service->MapPath(connectionPath, remotePath, localPath);
    }
    Tessim::Zarn::Route Resolve(const std::string& localPath) const override {
        return service->Resolve(localPath);
    }

  private:
    Ref<ZarnSvc> service;
};

// Passes the messages of one connection to the dispatcher that the real daemon uses too.
class LocalAdapter final : public Ordane::SoapStubAdapter, public Ordane::ObjectSource {
  public:
    explicit LocalAdapter(FakeHost& host) : host(&host) {}

    Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference) override { return host->Find(reference); }
    bool IsLoggedIn() const override { return loggedIn; }

  protected:
    std::string Exchange(const std::string& request) override {
        const std::string method = Ordane::Soap::Message(request, {}).GetName();
        Reach().Send(method);
        const Ordane::Reply reply = Ordane::HandleCall(request, *this, {});
        if (!reply.fault && (method == "Login" || method == "Logout")) {
            loggedIn = method == "Login";
        }
        return reply.text;
    }

  private:
    FakeHost* host;
    bool loggedIn = false;
};

// A local adapter that records its calls and its end.
class FakeAdapter final : public virtual Ordane::StubAdapter, public Tessim::ObjectImpl {
  public:
    explicit FakeAdapter(FakeHost& host) : adapter(MakeRef<LocalAdapter>(host)) {}

    Ref<Ordane::DataObject> Invoke(const Ordane::MoRef& target, const Ordane::MethodInfo& method,
                                   const Ordane::DataObject& request) override {
        Reach().Call(std::string(method.name));
        return adapter->Invoke(target, method, request);
    }
    bool IsBroken() const noexcept override { return adapter->IsBroken(); }
    void Close() noexcept override {
        FakeDaemon::Record("close adapter");
        adapter->Close();
    }

  private:
    Ref<LocalAdapter> adapter;
};

}  // namespace

FakeDaemon::FakeDaemon() {
    assert(current == nullptr);
    current = this;
    SetCurrent(this);
}

FakeDaemon::~FakeDaemon() {
    SetCurrent(nullptr);
    current = nullptr;
}

void FakeDaemon::CreateService(Tessim::Service::Logger* logger, Ref<ZarnSvc>& out) {
    Step("create service logging to " + NameOf(logger));
    Ref<ZarnSvc> service;
    Endpoint::CreateService(logger, service);
    out = MakeRef<ObservedZarnSvc>(service);
}

void FakeDaemon::OpenStream(const std::string& host, std::uint16_t port, Ref<Tessim::System::Stream>& out) {
    openings.push_back({host, port, Tessim::TimeBudget::Deadline()});
    Record("open stream");
    if (!down.empty()) {
        throw Tessim::StreamException(down);
    }
    out = MakeRef<FakeStream>(openings.size());
}

void FakeDaemon::CreateStubAdapter(Tessim::Service::Logger* logger, ZarnSvc* service,
                                   const std::string& localPath, Ref<Ordane::StubAdapter>& out) {
    const Tessim::Zarn::Route route = service->Resolve(localPath);
    Step("create adapter on " + localPath + " to " + route.remotePath + " logging to " + NameOf(logger));
    out = MakeAdapter();
}

Ref<Ordane::StubAdapter> FakeDaemon::MakeAdapter() {
    return MakeRef<FakeAdapter>(host);
}

void FakeDaemon::CreateMoFactory(Ordane::StubAdapter* adapter, Ref<Hask::MoFactory>& out) {
    Step("get factory");
    out = factory;
    if (!out) {
        Endpoint::CreateMoFactory(adapter, out);
    }
}

int FakeDaemon::CountCalls(const std::string& method) const {
    return static_cast<int>(std::count(calls.begin(), calls.end(), method));
}

void FakeDaemon::Record(const std::string& event) {
    if (current != nullptr) {
        current->events.push_back(event);
    }
}

void FakeDaemon::Step(const std::string& event) {
    Record(event);
    if (current != nullptr && !current->failingStep.empty() && event.starts_with(current->failingStep)) {
        throw Tessim::Exception(event);
    }
}

void FakeDaemon::Send(const std::string& method) {
    if (!host.Knows(method)) {
        return;
    }
    calls.push_back(method);
    Record("call " + method);
    Run(whenSent, method);
}

void FakeDaemon::Run(const Actions& actions, const std::string& method) {
    const auto action = actions.find(method);
    if (action != actions.end() && action->second) {
        // A copy: the action may replace itself.
        const std::function<void()> running = action->second;
        running();
    }
}

}  // namespace TestSupport
