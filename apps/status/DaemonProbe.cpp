#include "apps/status/DaemonProbe.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <sstream>
#include <system_error>

#include "apps/status/Names.h"
#include "runtime/hask/host_agent.h"
#include "runtime/hask/local_login.h"
#include "runtime/hask/mo_factory.h"
#include "runtime/ordane/faults.h"
#include "runtime/ordane/zarn_stub_adapter.h"
#include "runtime/tessim/authd.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"
#include "runtime/tessim/zarn.h"

namespace KelvStatus {

namespace {

using Tessim::Ref;

constexpr std::chrono::seconds queryLimit{1};

Ref<Tessim::System::Stream> Connect() {
    Ref<Tessim::Authd::Client> client;
    Tessim::Authd::CreateLocalClient(client);
    Ref<Tessim::System::Stream> stream;
    client->Open(Tessim::Authd::Selector::ManagementApi, "localhost", Hask::HostAgent::port, "", "", stream);
    return stream;
}

// `service` carries the calls of the stubs.
Ref<Hask::MoFactory> MakeStubs(Tessim::System::Stream* stream, Ref<Tessim::Zarn::ZarnSvc>& service) {
    const std::string localPath = "/ordane/";
    Tessim::Zarn::CreateZarnSvc(nullptr, nullptr, service);
    service->Startup();
    service->MapPath(service->GetConnectionPath(stream, 0), Hask::HostAgent::apiPath, localPath);
    Ref<Ordane::StubAdapter> adapter;
    Ordane::CreateZarnStubAdapter(nullptr, service.Get(), localPath, adapter);
    Ref<Hask::MoFactory> stubs;
    Hask::GetMoStubFactory("solo", adapter.Get(), stubs);
    return stubs;
}

Access StatusOf(const std::filesystem::path& path) {
    struct stat status {};
    if (::fstatat(AT_FDCWD, path.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot check the ticket");
    }
    return {status.st_uid, status.st_gid, status.st_mode};
}

Ticket CheckTicket(const std::filesystem::path& path) {
    Ticket ticket{StatusOf(path), StatusOf(path.parent_path()), ""};
    std::ostringstream description;
    description << "user " << UserName(ticket.file.owner) << ", group " << GroupName(ticket.file.group)
                << ", mode 0" << std::oct << (ticket.file.mode & 07777U);
    ticket.description = description.str();
    return ticket;
}

ServiceStatus QueryStatus(Hask::MoFactory& stubs) {
    Ref<Hask::ServiceInstance> instance;
    stubs.GetServiceInstance(instance);
    Ref<Hask::ServiceStatus> status;
    instance->QueryStatus(status);
    if (!status) {
        throw Ordane::Fault::InvalidResponse::Exception("QueryStatus: no result");
    }
    return {status->GetSource(), status->IsConnected(), status->GetLastError(), status->GetSnapshotAge(),
            status->GetVms()};
}

// Stores the text of an exception out of `step` in `failure`, and returns whether there was none.
template <class Step>
bool Try(std::string& failure, Step step) {
    try {
        step();
        return true;
    } catch (const std::exception& error) {
        failure = error.what();
        return false;
    }
}

}  // namespace

DaemonFacts ProbeDaemon() {
    std::optional<Tessim::TimeBudget> budget(Hask::LocalLogin::limit);
    DaemonFacts facts;
    Ref<Tessim::System::Stream> stream;
    try {
        stream = Connect();
    } catch (const Tessim::TimeoutException& failure) {
        facts.connectFailure = failure.what();
        facts.timedOut = true;
        return facts;
    } catch (const Tessim::Exception& failure) {
        facts.connectFailure = failure.what();
        return facts;
    }
    facts.owner = UserName(Tessim::NarrowToType<Tessim::Authd::ServiceStream>(stream)->GetPeerOwner());

    Ref<Tessim::Zarn::ZarnSvc> service;
    const Ref<Hask::MoFactory> stubs = MakeStubs(stream.Get(), service);
    Ref<Hask::SessionManager> sessions;
    stubs->GetSessionManager(sessions);
    Ref<Hask::SessionManager::LocalTicket> ticket;
    const auto requested = std::chrono::system_clock::now();
    if (!Try(facts.ticketFailure, [&] {
            sessions->AcquireLocalTicket(Hask::LocalLogin::user, ticket);
            facts.ticket = CheckTicket(ticket->GetPasswordFilePath());
        })) {
        return facts;
    }
    facts.loggedIn = Try(facts.loginFailure, [&] {
        Ref<Hask::UserSession> session;
        const auto password = Hask::LocalLogin::ReadPassword(ticket->GetPasswordFilePath(), requested);
        if (!password) {
            throw Tessim::InvalidArgumentException("the ticket file is too long");
        }
        sessions->Login(ticket->GetUserName(), *password, Hask::LocalLogin::locale, session);
    });
    if (!facts.loggedIn) {
        return facts;
    }
    budget.reset();
    budget.emplace(queryLimit);
    Try(facts.statusFailure, [&] {
        try {
            facts.status = QueryStatus(*stubs);
        } catch (const Ordane::Fault::InvalidRequest::Exception&) {
            facts.isOlder = true;
        }
        sessions->Logout();
    });
    return facts;
}

}  // namespace KelvStatus
