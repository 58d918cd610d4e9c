#include "tests/support/fake_daemon.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <utility>

#include "runtime/ordane/zarn_stub_adapter.h"
#include "runtime/tessim/authd.h"
#include "runtime/tessim/exception.h"
#include "tests/support/local_adapter.h"

namespace TestSupport {

namespace {

using Tessim::MakeRef;
using Tessim::Ref;

FakeDaemon* current = nullptr;

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

  private:
    static void Count(int change) {
        if (current != nullptr) {
            current->streams += change;
        }
    }

    std::string path;
    pid_t owner = getpid();
};

class FakeClient final : public virtual Tessim::Authd::Client, public Tessim::ObjectImpl {
  public:
    void Open(Tessim::Authd::Selector selector, const std::string& host, std::uint16_t port,
              const std::string& text1, const std::string& text2, Ref<Tessim::System::Stream>& out) override {
        FakeDaemon& daemon = Reach();
        daemon.openings.push_back(
            {static_cast<int>(selector), host, port, text1, text2, Tessim::TimeBudget::Deadline()});
        FakeDaemon::Record("open stream");
        if (!daemon.down.empty()) {
            throw Tessim::StreamException(daemon.down);
        }
        out = MakeRef<FakeStream>(daemon.openings.size());
    }
};

// The host as one connection sees it.
class ConnectionSource final : public Ordane::ObjectSource {
  public:
    explicit ConnectionSource(FakeHost& host) : host(&host) {}

    Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference) override { return host->Find(reference); }
    bool IsLoggedIn() const override { return loggedIn; }
    void SetLoggedIn(bool now) { loggedIn = now; }

  private:
    FakeHost* host;
    bool loggedIn = false;
};

// A local adapter of its own connection, which notes its calls and its end.
class FakeAdapter final : public virtual Ordane::StubAdapter, public Tessim::ObjectImpl {
  public:
    explicit FakeAdapter(FakeDaemon& daemon) : source(daemon.host), adapter(MakeRef<LocalAdapter>(source)) {
        adapter->Watch([](const std::string& method) { Reach().Send(method); });
    }

    Ref<Ordane::DataObject> Invoke(const Ordane::MoRef& target, const Ordane::MethodInfo& method,
                                   const Ordane::DataObject& request) override {
        Reach().Call(std::string(method.name));
        Ref<Ordane::DataObject> answer = adapter->Invoke(target, method, request);
        if (method.name == "Login" || method.name == "Logout") {
            source.SetLoggedIn(method.name == "Login");
        }
        return answer;
    }
    void Close() noexcept override {
        FakeDaemon::Record("close adapter");
        adapter->Close();
    }

  private:
    ConnectionSource source;
    Ref<LocalAdapter> adapter;
};

}  // namespace

FakeDaemon::FakeDaemon() {
    assert(current == nullptr);
    current = this;
}

FakeDaemon::~FakeDaemon() {
    current = nullptr;
}

void FakeDaemon::WhenCalled(const std::string& method, std::function<void()> action) {
    whenCalled[method] = std::move(action);
}

void FakeDaemon::WhenSent(const std::string& method, std::function<void()> action) {
    whenSent[method] = std::move(action);
}

int FakeDaemon::CountCalls(const std::string& method) const {
    return static_cast<int>(std::count(calls.begin(), calls.end(), method));
}

FakeDaemon* FakeDaemon::Current() {
    return current;
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

void FakeDaemon::Call(const std::string& method) {
    Run(whenCalled, method);
}

void FakeDaemon::Send(const std::string& method) {
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

// Where the runtime opens the outside world. The linker takes these and leaves the runtime's own out.

void Tessim::Authd::CreateClient(Ssl::SSLContext* context, Ref<Client>& out) {
    TestSupport::FakeDaemon::Record(context != nullptr ? "create client" : "create client without context");
    out = MakeRef<TestSupport::FakeClient>();
}

void Ordane::CreateZarnStubAdapter(Tessim::Service::Logger* logger, Tessim::Zarn::ZarnSvc* service,
                                   const std::string& path, Tessim::Ref<StubAdapter>& out) {
    const Tessim::Zarn::Route route = service->Resolve(path);
    TestSupport::FakeDaemon::Step("create adapter on " + path + " to " + route.remotePath + " logging to " +
                                  (logger != nullptr ? logger->GetName() : "nothing"));
    out = Tessim::MakeRef<TestSupport::FakeAdapter>(TestSupport::Reach());
}
