#include "tests/support/fake_host.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

#include "runtime/hask/host_agent.h"
#include "runtime/ordane/faults.h"

namespace TestSupport {

namespace {

using Ordane::DataArray;
using Ordane::DataObject;
using Ordane::MoRef;
using Tessim::MakeRef;
using Tessim::Ref;

using QuerySpec = Hask::PerformanceManager::QuerySpec;
using Objects = std::vector<Ref<Ordane::Any>>;

// A managed object of the API that takes its replies from the host.
class FakeObject final : public Ordane::ManagedObject {
  public:
    FakeObject(FakeHost& host, const MoRef& reference)
        : ManagedObject(MakeRef<MoRef>(reference.GetType(), reference.GetId())), host(&host) {}

    const Ordane::ManagedType* GetManagedType() const override {
        const auto types = Hask::AllManagedTypes();
        return *std::find_if(types.begin(), types.end(),
                             [&](const auto* type) { return type->name == GetMoRef()->GetType(); });
    }
    Ref<DataObject> Dispatch(const Ordane::MethodInfo& method, const DataObject& request) override {
        return host->Reply(GetMoRef()->GetId(), method, request);
    }

  private:
    FakeHost* host;
};

Objects ReferencesOf(const std::vector<FakeVm>& vms) {
    Objects references;
    for (const FakeVm& vm : vms) {
        references.emplace_back(MakeRef<MoRef>("VirtualMachine", vm.id));
    }
    return references;
}

}  // namespace

FakeHost::FakeHost()
    : content(MakeRef<Hask::ServiceInstanceContent>()),
      counters(MakeRef<DataArray<Hask::PerformanceManager::CounterInfo>>()),
      metrics(MakeRef<DataArray<Hask::PerformanceManager::EntityMetricBase>>()) {
    content->SetSessionManager(MakeRef<MoRef>("SessionManager", Hask::HostAgent::moid_sessionmanager));
    content->SetAbout(MakeRef<Hask::AboutInfo>());
    content->GetAbout()->SetName("Product");
    content->SetPerfManager(MakeRef<MoRef>("PerformanceManager", Hask::HostAgent::moid_perfmanager));
    std::string name = (std::filesystem::temp_directory_path() / "tickets.XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    folder = name;
}

FakeHost::~FakeHost() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

Ref<Ordane::ManagedObject> FakeHost::Find(const MoRef& reference) {
    namespace Ids = Hask::HostAgent;
    const std::string& type = reference.GetType();
    const std::string& id = reference.GetId();
    const std::set<std::pair<std::string, std::string>> managers = {
        {"ServiceInstance", Ids::moid_serviceinstance},
        {"SessionManager", Ids::moid_sessionmanager},
        {"Folder", Ids::moid_vmfolder},
        {"HostSystem", Ids::moid_hostsystem},
        {"PerformanceManager", Ids::moid_perfmanager},
        {"MemoryManagerSystem", Ids::moid_memorymanagersystem}};
    const bool known = managers.contains({type, id}) || (type == "Datastore" && datastores.contains(id)) ||
                       (type == "VirtualMachine" && FindVm(id).id == id);
    return known ? MakeRef<FakeObject>(*this, reference) : nullptr;
}

bool FakeHost::Knows(const std::string& method) const {
    return newer || (method != "RetrieveChanges" && method != "QueryLatest");
}

Ref<Hask::Folder::Changes> FakeHost::MakeChanges() const {
    auto changes = MakeRef<Hask::Folder::Changes>();
    changes->SetVersion("1");
    changes->SetComplete(true);
    changes->SetReset(true);
    auto objects = MakeRef<Hask::Folder::Objects>();
    for (const FakeVm& vm : vms) {
        auto state = MakeRef<Hask::Vm::State>();
        state->SetEntity(MakeRef<MoRef>("VirtualMachine", vm.id));
        state->SetConfig(vm.config);
        state->SetRuntime(vm.runtime);
        state->SetGuest(vm.guest);
        changes->GetVm()->Append(state);
        objects->GetVm()->Append(state->GetEntity());
    }
    for (const auto& [id, info] : datastores) {
        auto state = MakeRef<Hask::Datastore::State>();
        state->SetEntity(MakeRef<MoRef>("Datastore", id));
        state->SetInfo(info);
        changes->GetDatastore()->Append(state);
        objects->GetDatastore()->Append(state->GetEntity());
    }
    changes->SetObjects(objects);
    return changes;
}

Ref<Hask::PerformanceManager::LatestSamples> FakeHost::MakeSamples(const DataObject& query) const {
    using Performance = Hask::PerformanceManager;
    auto latest = MakeRef<Performance::LatestSamples>();
    std::map<std::pair<int, std::string>, int> numbers;
    std::vector<std::string> texts;
    int position = 0;
    query.GetDataObjectType()->ownMembers[0].forEach(query, [&](const Ordane::Value& value) {
        const auto& entity = static_cast<const MoRef&>(*std::get<Ordane::Any*>(value));
        for (const auto& element : *metrics) {
            const auto* const metric = Tessim::NarrowToType<Performance::EntityMetric>(element);
            if (metric->GetEntity()->GetId() != entity.GetId()) {
                continue;
            }
            std::string& text = texts.emplace_back(std::to_string(position));
            for (const auto& each : *metric->GetValue()) {
                const auto* const series = Tessim::NarrowToType<Performance::IntSeries>(each);
                const auto [number, added] = numbers.try_emplace(
                    {series->GetId()->GetCounterId(), series->GetId()->GetInstance()}, numbers.size());
                if (added) {
                    latest->GetSeries()->Append(series->GetId());
                }
                text += ' ' + std::to_string(number->second) + ' ' + std::to_string(series->GetValue().at(0));
            }
        }
        ++position;
    });
    latest->SetSamples(texts);
    return latest;
}

FakeVm FakeHost::FindVm(const std::string& id) const {
    const auto vm = std::find_if(vms.begin(), vms.end(), [&](const FakeVm& each) { return each.id == id; });
    return vm != vms.end() ? *vm : FakeVm{};
}

Ref<DataObject> FakeHost::Reply(const std::string& id, const Ordane::MethodInfo& method,
                                const DataObject& request) {
    const std::string name(method.name);
    if (!Knows(name)) {
        throw Ordane::Fault::InvalidRequest::Exception(name);
    }
    const FakeVm vm = FindVm(id);
    Record(name, request);
    if (const auto action = actions.find(name); action != actions.end() && action->second) {
        action->second();
    }
    const std::map<std::string, std::function<Objects()>> results = {
        {"RetrieveContent", [&] { return Objects{content}; }},
        {"AcquireLocalTicket", [&] { return Objects{MakeTicket()}; }},
        {"Login", [&] { return Objects{MakeRef<Hask::UserSession>()}; }},
        {"Logout", [] { return Objects{}; }},
        {"GetChildEntity", [&] { return ReferencesOf(vms); }},
        {"GetConfig", [&] { return Objects{vm.config}; }},
        {"GetRuntime", [&] { return Objects{vm.runtime}; }},
        {"GetGuest", [&] { return Objects{vm.guest}; }},
        {"GetInfo", [&] { return Objects{datastores.at(id)}; }},
        {"GetHardware", [&] { return Objects{hardware}; }},
        {"GetConsoleReservationInfo", [&] { return Objects{consoleReservation}; }},
        {"GetPerfCounter", [&] { return Objects(counters->begin(), counters->end()); }},
        {"QueryPerf", [&] { return Objects(metrics->begin(), metrics->end()); }},
        {"RetrieveChanges", [&] { return Objects{MakeChanges()}; }},
        {"QueryLatest", [&] { return Objects{MakeSamples(request)}; }}};
    Ref<DataObject> response = method.response->create();
    for (const Ref<Ordane::Any>& result : results.at(name)()) {
        if (result) {
            method.response->ownMembers[0].append(*response, Ordane::Value(result.Get()));
        }
    }
    return response;
}

void FakeHost::Record(const std::string& method, const DataObject& request) {
    std::vector<std::string>& sent = texts[method].emplace_back();
    auto specs = MakeRef<DataArray<QuerySpec>>();
    for (const Ordane::Member& parameter : request.GetDataObjectType()->ownMembers) {
        parameter.forEach(request, [&](const Ordane::Value& value) {
            if (const auto* text = std::get_if<std::string_view>(&value)) {
                sent.emplace_back(*text);
            } else {
                specs->Append(Tessim::NarrowToType<QuerySpec>(std::get<Ordane::Any*>(value)));
            }
        });
    }
    if (method == "QueryPerf") {
        queries.push_back(specs);
    }
}

Ref<Hask::SessionManager::LocalTicket> FakeHost::MakeTicket() {
    auto ticket = MakeRef<Hask::SessionManager::LocalTicket>();
    ticket->SetUserName(ticketUser);
    ticket->SetPasswordFilePath(ticketPath ? *ticketPath : MakeTicketFile());
    return ticket;
}

std::string FakeHost::MakeTicketFile() {
    const std::filesystem::path path = folder / std::to_string(++ticketCount);
    std::ofstream(path, std::ios::binary) << ticketContent;
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
        throw std::runtime_error("no ticket file");
    }
    return path.string();
}

}  // namespace TestSupport
