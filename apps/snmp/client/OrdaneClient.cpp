#include "apps/snmp/client/OrdaneClient.h"

#include "apps/snmp/agent/Backtrace.h"
#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/client/SNMPWriter.h"
#include "apps/snmp/client/WrappingSum.h"
#include "runtime/ordane/faults.h"
#include "runtime/tessim/exception.h"

namespace SNMP {

namespace {

using Tessim::Ref;

constexpr std::int64_t bytesPerKilobyte = 1024;

// A daemon that has not reached its hypervisor yet does not know its product.
bool IsComplete(const Hask::ServiceInstanceContent* content) {
    const Hask::AboutInfo* const about = content != nullptr ? content->GetAbout() : nullptr;
    return about != nullptr && !about->GetName().empty();
}

}  // namespace

OrdaneClient::~OrdaneClient() {
    statsIndex.Clear();
    entityMetrics.Reset();
    serviceContent.Reset();
    connection.Reset();
}

bool OrdaneClient::IsInitialized() const {
    return initialized && connection->IsOwn();
}

bool OrdaneClient::DropUselessConnection() {
    if (!initialized || connection->IsUsable()) {
        return false;
    }
    DropConnection();
    return true;
}

bool OrdaneClient::Init(Tessim::Writer* writer) {
    if (IsInitialized()) {
        return true;
    }
    initialized = false;
    connection = Tessim::MakeRef<Connection>();
    try {
        connection->Init(writer);
        initialized = true;
    } catch (const Tessim::Exception& failure) {
        connection.Reset();
        snmp_log(LOG_WARNING, "OrdaneClient::Init: :%s\n", failure.what());
        LogBacktrace(failure, LOG_DEBUG);
    }
    return initialized;
}

void OrdaneClient::DropConnection() {
    initialized = false;
    connection.Reset();
}

// Runs `query` on the connection's factory. A management exception becomes a log line that names `name`; a
// broken connection one that names `brokenName` (null: none), and the next query makes a new connection.
template <class Query>
void OrdaneClient::RunQuery(const char* name, const char* brokenName, Query query) {
    try {
        query(*connection->GetMoFactory());
    } catch (const Ordane::Fault::HostCommunication::Exception&) {
        if (brokenName != nullptr) {
            snmp_log(LOG_WARNING, "%s: connection to tovric-vessad is broken.\n", brokenName);
        }
        DropConnection();
    } catch (const Tessim::Exception& failure) {
        snmp_log(LOG_WARNING, "OrdaneClient::%s: :%s\n", name, failure.what());
        LogBacktrace(failure, LOG_DEBUG);
    }
}

void OrdaneClient::GetAllVM(Ref<Ordane::DataArray<Hask::VirtualMachine>>& out) {
    out.Reset();
    if (!Init(nullptr)) {
        return;
    }
    RunQuery("GetAllVM", nullptr, [&](Hask::MoFactory& factory) {
        Ref<Hask::Folder> folder;
        factory.GetVmFolder(folder);
        Ref<Ordane::DataArray<Ordane::MoRef>> children;
        folder->GetChildEntity(children);
        if (!children) {
            return;
        }
        out = Tessim::MakeRef<Ordane::DataArray<Hask::VirtualMachine>>();
        out->Reserve(children->GetLength());
        for (const Ref<Ordane::MoRef>& child : *children) {
            Ref<Hask::VirtualMachine> vm;
            factory.GetVirtualMachine(child->GetId(), vm);
            out->Append(vm);
        }
    });
}

void OrdaneClient::GetServiceInstanceContent(Ref<Hask::ServiceInstanceContent>& out) {
    if (serviceContent) {
        out = serviceContent;
        return;
    }
    out.Reset();
    if (!Init(nullptr)) {
        return;
    }
    RunQuery("GetServiceInstanceContent", "GetServiceInstanceContent", [&](Hask::MoFactory& factory) {
        Ref<Hask::ServiceInstance> instance;
        factory.GetServiceInstance(instance);
        instance->RetrieveContent(out);
        if (connection->IsLoggedIn() && IsComplete(out.Get())) {
            serviceContent = out;
        }
    });
}

void OrdaneClient::GetDatastoreInfo(const std::string& datastore, Ref<Hask::Datastore::Info>& out) {
    out.Reset();
    if (!Init(nullptr)) {
        return;
    }
    RunQuery("GetDatastoreInfo", "GetDatastoreInfo", [&](Hask::MoFactory& factory) {
        Ref<Hask::Datastore> store;
        factory.GetDatastore(datastore, store);
        store->GetInfo(out);
    });
}

int OrdaneClient::GetNumCpuCores() {
    static std::int16_t numCpuCores = 0;
    if (numCpuCores != 0) {
        return numCpuCores;
    }
    if (!Init(nullptr)) {
        return 0;
    }
    RunQuery("GetNumCpuCores", "GetNumCpuCores", [&](Hask::MoFactory& factory) {
        Ref<Hask::HostSystem> host;
        factory.GetHostSystem(host);
        Ref<Hask::Host::HardwareInfo> hardware;
        host->GetHardware(hardware);
        if (hardware && hardware->GetCpuInfo() != nullptr) {
            numCpuCores = static_cast<std::int16_t>(hardware->GetCpuInfo()->GetNumCpuCores());
        }
    });
    return numCpuCores;
}

std::int64_t OrdaneClient::GetMemoryReservation(std::int64_t& reserved) {
    static std::int64_t s_total = 0;
    static std::int64_t s_reserved = 0;
    if (s_total != 0 && s_reserved != 0) {
        reserved = s_reserved;
        return s_total;
    }
    reserved = 0;
    s_reserved = 0;
    s_total = 0;
    if (!Init(nullptr)) {
        return s_total;
    }
    // A broken connection is reported under another query's name; monitoring rules match that text.
    RunQuery("GetMemory", "GetNumCpuCores", [&](Hask::MoFactory& factory) {
        Ref<Hask::Host::MemoryManagerSystem> memory;
        factory.GetMemoryManagerSystem(memory);
        Ref<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo> info;
        memory->GetConsoleReservationInfo(info);
        if (!info) {
            return;
        }
        reserved = info->GetServiceConsoleReserved();
        s_reserved = reserved / bytesPerKilobyte;
        s_total = WrappingSum(info->GetUnreserved(), reserved) / bytesPerKilobyte;
    });
    return s_total;
}

OrdaneClient* GetOrdaneClient() {
    static OrdaneClient* _clnt_ = nullptr;
    if (_clnt_ == nullptr) {
        _clnt_ = new OrdaneClient;
        _clnt_->IncRef();
    }
    if (_clnt_->IsInitialized()) {
        return _clnt_;
    }
    const Ref<SNMPWriter> writer = Tessim::MakeRef<SNMPWriter>();
    if (_clnt_->Init(writer.Get())) {
        return _clnt_;
    }
    snmp_log(LOG_WARNING, "Could not init ordane client to tovric-vessad.\n");
    return nullptr;
}

}  // namespace SNMP
