#include "apps/snmp/client/Connection.h"

#include <chrono>
#include <exception>
#include <optional>

#include "apps/snmp/client/Endpoint.h"
#include "runtime/hask/host_agent.h"
#include "runtime/hask/local_login.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/time_budget.h"

namespace SNMP {

namespace {

using Tessim::Ref;
using Tessim::Service::Log;
using LogLevel = Tessim::Service::Logger::LogLevel;

const std::string sHostname = "localhost";
const std::string localPath = "/ordane/";

}  // namespace

Connection::~Connection() {
    // Logging and logging out allocate; a failed allocation must not end the agent.
    try {
        Disconnect();
    } catch (const std::exception&) {
        path.clear();
    }
    if (zarnSvc) {
        try {
            zarnSvc->Shutdown();
        } catch (const std::exception&) {
            // Its last reference releases it.
        }
        zarnSvc.Reset();
    }
    userSession.Reset();
    moFactory.Reset();
    stubAdapter.Reset();
    path.clear();
    stream.Reset();
    logger.Reset();
}

void Connection::Init(Tessim::Writer* writer) {
    const Tessim::TimeBudget budget(Hask::LocalLogin::limit);
    try {
        Tessim::Service::InitApp();
    } catch (const Tessim::AlreadyInitializedException&) {
        // By an earlier connection of this process.
    }
    if (writer != nullptr) {
        Tessim::Service::CreateLogger(writer, "SNMP", nullptr, logger);
        Tessim::Service::SetDefaultLogger(logger.Get());
    } else {
        logger = Tessim::Service::GetApp()->GetDefaultLogger();
    }
    Endpoint::Current().CreateService(logger.Get(), zarnSvc);
    zarnSvc->Startup();
    Connect();
    Login();
}

void Connection::Connect() {
    if (!path.empty()) {
        Log(logger.Get(), LogLevel::Notice, "Already connected.");
        return;
    }
    Endpoint& endpoint = Endpoint::Current();
    endpoint.OpenStream(sHostname, Hask::HostAgent::port, stream);
    path = zarnSvc->GetConnectionPath(stream.Get(), 0);
    zarnSvc->MapPath(path, Hask::HostAgent::apiPath, localPath);
    endpoint.CreateStubAdapter(logger.Get(), zarnSvc.Get(), localPath, stubAdapter);
    endpoint.CreateMoFactory(stubAdapter.Get(), moFactory);
}

void Connection::Login() {
    if (userSession) {
        Log(logger.Get(), LogLevel::Notice, "Already logged in.");
        return;
    }
    Ref<Hask::SessionManager> sessionManager;
    moFactory->GetSessionManager(sessionManager);
    std::string userName;
    std::optional<std::string> password;
    try {
        const auto requested = std::chrono::system_clock::now();
        Ref<Hask::SessionManager::LocalTicket> ticket;
        sessionManager->AcquireLocalTicket(Hask::LocalLogin::user, ticket);
        userName = ticket->GetUserName();
        password = Hask::LocalLogin::ReadPassword(ticket->GetPasswordFilePath(), requested);
        if (!password) {
            Log(logger.Get(), LogLevel::Error, "Failed to read ticket. Ticket file too long.");
            return;
        }
    } catch (const Tessim::Exception& failure) {
        Log(logger.Get(), LogLevel::Error,
            Tessim::PrintFormatter("Failed to acquire local ticket: %1") << failure.what());
        return;
    }
    sessionManager->Login(userName, *password, Hask::LocalLogin::locale, userSession);
}

void Connection::Logout() {
    if (!userSession) {
        Log(logger.Get(), LogLevel::Notice, "Logout: not logged in.");
        return;
    }
    Ref<Hask::SessionManager> sessionManager;
    moFactory->GetSessionManager(sessionManager);
    sessionManager->Logout();
    userSession.Reset();
}

void Connection::Disconnect() {
    if (path.empty()) {
        Log(logger.Get(), LogLevel::Notice, "Disconnect: not connected.");
        return;
    }
    if (userSession && IsOwn()) {
        try {
            Logout();
        } catch (const std::exception&) {
            // The connection is closed all the same.
        }
    }
    userSession.Reset();
    if (stubAdapter) {
        stubAdapter->Close();
        stubAdapter.Reset();
    }
    if (stream) {
        stream->Close();
        stream.Reset();
    }
    path.clear();
}

void Connection::CheckTimeLeft() {
    constexpr const char* step = "processing its replies";
    Tessim::TimeBudget::CheckEnding(step);
    if (Tessim::Clock::now() >= Tessim::TimeBudget::Deadline()) {
        Tessim::Peer(sHostname, Hask::HostAgent::port).ThrowTimeout(step);
    }
}

bool Connection::IsOwn() const {
    return stream && stream->IsOwn();
}

bool Connection::IsUsable() const {
    return IsOwn() && IsLoggedIn() && !stubAdapter->IsBroken() && stream->IsConnected();
}

}  // namespace SNMP
