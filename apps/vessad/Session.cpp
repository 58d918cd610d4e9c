#include "apps/vessad/Session.h"

#include <spdlog/spdlog.h>

#include <exception>
#include <optional>
#include <string_view>
#include <utility>

#include "apps/vessad/HostObjects.h"
#include "runtime/hask/host_agent.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/string_util.h"

namespace Vessad {

namespace {

namespace Fault = Ordane::Fault;

// The one user of this API.
constexpr std::string_view userNameOfAll = "root";
constexpr std::size_t maxShownName = 40;

template <class Object>
Tessim::Ref<Ordane::MoRef> MakeReference(const std::string& id) {
    return Tessim::MakeRef<Ordane::MoRef>(std::string(Object::staticType.name), id);
}

}  // namespace

class Session::ServiceInstanceObject final : public Hask::ServiceInstance {
  public:
    explicit ServiceInstanceObject(Session& session)
        : ServiceInstance(MakeReference<Hask::ServiceInstance>(Hask::HostAgent::moid_serviceinstance)),
          session(session) {}

    void RetrieveContent(Tessim::Ref<Hask::ServiceInstanceContent>& out) override {
        out = Tessim::MakeRef<Hask::ServiceInstanceContent>();
        out->SetAbout(session.services.backend.GetInventory()->about);
        out->SetSessionManager(MakeReference<Hask::SessionManager>(Hask::HostAgent::moid_sessionmanager));
        out->SetPerfManager(MakeReference<Hask::PerformanceManager>(Hask::HostAgent::moid_perfmanager));
    }

  private:
    Session& session;
};

class Session::SessionManagerObject final : public Hask::SessionManager {
  public:
    explicit SessionManagerObject(Session& session)
        : SessionManager(MakeReference<Hask::SessionManager>(Hask::HostAgent::moid_sessionmanager)),
          session(session) {}

    void AcquireLocalTicket(const std::string& userName, Tessim::Ref<LocalTicket>& out) override {
        if (userName != userNameOfAll) {
            throw Fault::InvalidArgument::Exception("tickets are for the user " + std::string(userNameOfAll) +
                                                    " only");
        }
        try {
            out = Tessim::MakeRef<LocalTicket>();
            out->SetUserName(userName);
            out->SetPasswordFilePath(session.services.tickets.Issue(session.connection));
        } catch (const std::exception& failure) {
            spdlog::error("{}: no ticket: {}", session.name, failure.what());
            throw;
        }
    }

    void Login(const std::string& userName, const std::string& password,
               const std::optional<std::string>& locale, Tessim::Ref<Hask::UserSession>& out) override {
        const bool right = session.services.tickets.Redeem(session.connection, password);
        if (!right || userName != userNameOfAll) {
            session.refused = true;
            spdlog::warn("{}: refused the login of \"{}\": {}", session.name,
                         Tessim::StringUtil::EscapeUntrusted(userName, maxShownName),
                         right ? "unknown user" : "not the password of this connection's ticket");
            throw Fault::InvalidLogin::Exception("the user name or the password is wrong");
        }
        session.loggedIn = true;
        spdlog::info("{}: {} logged in", session.name, userName);
        out = Tessim::MakeRef<Hask::UserSession>();
        out->SetKey(session.name);
        out->SetUserName(userName);
        out->SetLocale(locale);
    }

    void Logout() override {
        session.loggedIn = false;
        spdlog::info("{}: logged out", session.name);
    }

  private:
    Session& session;
};

Session::Session(Services& services, std::uint64_t connection, std::string name)
    : services(services), connection(connection), name(std::move(name)) {}

Session::~Session() {
    services.tickets.Drop(connection);
}

Tessim::Ref<Ordane::ManagedObject> Session::Find(const Ordane::MoRef& reference) {
    if (IsReferenceTo<Hask::ServiceInstance>(reference, Hask::HostAgent::moid_serviceinstance)) {
        return Tessim::MakeRef<ServiceInstanceObject>(*this);
    }
    if (IsReferenceTo<Hask::SessionManager>(reference, Hask::HostAgent::moid_sessionmanager)) {
        return Tessim::MakeRef<SessionManagerObject>(*this);
    }
    return FindHostObject(services.backend.GetInventory(), reference,
                          std::chrono::steady_clock::now() - services.started);
}

bool Session::TakeRefusal() {
    return std::exchange(refused, false);
}

}  // namespace Vessad
