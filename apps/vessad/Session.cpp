#include "apps/vessad/Session.h"

#include <spdlog/spdlog.h>

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "apps/vessad/HostObjects.h"
#include "runtime/hask/host_agent.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/string_util.h"

namespace Vessad {

namespace {

namespace Fault = Ordane::Fault;

// The only user of the API.
constexpr std::string_view onlyUser = "root";
constexpr std::size_t maxShownName = 40;
constexpr std::size_t maxShownText = 1000;

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

    void QueryStatus(Tessim::Ref<Hask::ServiceStatus>& out) override {
        // Paths and the texts of libraries can hold what XML cannot carry.
        const auto escape = [](const std::string& text) {
            return Tessim::StringUtil::EscapeUntrusted(text, maxShownText);
        };
        const SourceStatus status = session.services.backend.GetStatus();
        out = Tessim::MakeRef<Hask::ServiceStatus>();
        out->SetSource(escape(status.source));
        out->SetConnected(status.connected);
        if (status.lastError) {
            out->SetLastError(escape(*status.lastError));
        }
        if (status.age) {
            out->SetSnapshotAge(status.age->count());
        }
        out->SetVms(static_cast<std::int32_t>(session.services.backend.GetInventory()->vms.size()));
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
        if (userName != onlyUser) {
            throw Fault::InvalidArgument::Exception("tickets are for the user " + std::string(onlyUser) +
                                                    " only");
        }
        try {
            out = Tessim::MakeRef<LocalTicket>();
            out->SetUserName(userName);
            out->SetPasswordFilePath(session.services.tickets.Issue(session.connection));
        } catch (const std::exception& failure) {
            if (session.services.log.Admit(LogLimit::Kind::Ticket)) {
                spdlog::error("Connection {}: cannot issue a ticket: {}", session.connection, failure.what());
            }
            throw;
        }
    }

    void Login(const std::string& userName, const std::string& password,
               const std::optional<std::string>& locale, Tessim::Ref<Hask::UserSession>& out) override {
        const bool ticketValid = session.services.tickets.Redeem(session.connection, password);
        if (!ticketValid || userName != onlyUser) {
            session.loginRejected = true;
            if (session.services.log.Admit(LogLimit::Kind::Login)) {
                spdlog::warn("Connection {}: login of \"{}\" rejected: {}", session.connection,
                             Tessim::StringUtil::EscapeUntrusted(userName, maxShownName),
                             ticketValid ? "unknown user" : "not the password of this connection's ticket");
            }
            throw Fault::InvalidLogin::Exception("the user name or the password is wrong");
        }
        session.loggedIn = true;
        spdlog::info("Connection {}: {} logged in", session.connection, userName);
        out = Tessim::MakeRef<Hask::UserSession>();
        out->SetKey("connection " + std::to_string(session.connection));
        out->SetUserName(userName);
        out->SetLocale(locale);
    }

    void Logout() override {
        session.loggedIn = false;
        spdlog::info("Connection {}: logged out", session.connection);
    }

  private:
    Session& session;
};

Session::Session(Services& services, std::uint64_t connection) : services(services), connection(connection) {}

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
    return FindHostObject(services.backend.GetInventory(), services.changes, reference,
                          std::chrono::steady_clock::now() - services.started);
}

std::string Session::DescribeUnusedTicket() const {
    return services.tickets.Describe(connection);
}

bool Session::TakeRejectedLogin() {
    return std::exchange(loginRejected, false);
}

}  // namespace Vessad
