#include "apps/vessad/backends/libvirt/RealLibvirt.h"

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>
#include <spdlog/spdlog.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "apps/vessad/backends/libvirt/EventLoop.h"
#include "apps/vessad/backends/libvirt/LegacyStatistics.h"
#include "apps/vessad/backends/libvirt/LibvirtError.h"

namespace Vessad::Libvirt {
namespace {

// A host that replies to no probe for 15 s counts as gone: seconds between probes × probes.
constexpr int keepAliveInterval = 5;
constexpr unsigned keepAliveCount = 3;

constexpr int busyRetries = 2;
constexpr std::chrono::milliseconds busyRetryInterval{100};

template <auto Free>
struct Freer {
    template <class T>
    void operator()(T* object) const {
        Free(object);
    }
};
using DomainHandle = std::unique_ptr<virDomain, Freer<virDomainFree>>;
using PoolHandle = std::unique_ptr<virStoragePool, Freer<virStoragePoolFree>>;
using VolumeHandle = std::unique_ptr<virStorageVol, Freer<virStorageVolFree>>;
using CString = std::unique_ptr<char, Freer<std::free>>;

template <class Handle, class Raw>
std::vector<Handle> TakeList(Raw* list, int count) {
    std::vector<Handle> handles;
    handles.reserve(static_cast<std::size_t>(count));
    for (int index = 0; index < count; ++index) {
        handles.emplace_back(list[index]);
    }
    std::free(list);
    return handles;
}

DomainState StateOf(int state) {
    switch (state) {
        case VIR_DOMAIN_RUNNING:
            return DomainState::Running;
        case VIR_DOMAIN_BLOCKED:
            return DomainState::Blocked;
        case VIR_DOMAIN_PAUSED:
            return DomainState::Paused;
        case VIR_DOMAIN_SHUTDOWN:
            return DomainState::ShuttingDown;
        case VIR_DOMAIN_SHUTOFF:
            return DomainState::ShutOff;
        case VIR_DOMAIN_CRASHED:
            return DomainState::Crashed;
        case VIR_DOMAIN_PMSUSPENDED:
            return DomainState::PmSuspended;
        default:
            return DomainState::None;
    }
}

// Whether a domain has a process. `id` is the domain's, -1 for an inactive one. It was read before the state,
// so it decides only where the state does not.
bool IsActive(DomainState state, unsigned id) {
    switch (state) {
        case DomainState::ShutOff:
            return false;
        case DomainState::None:
        case DomainState::Crashed:
            return id != UINT_MAX;
        default:
            return true;
    }
}

std::optional<std::uint64_t> WholeNumber(const virTypedParameter& parameter) {
    const auto fromSigned = [](long long value) {
        return value < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(value));
    };
    switch (parameter.type) {
        case VIR_TYPED_PARAM_INT:
            return fromSigned(parameter.value.i);
        case VIR_TYPED_PARAM_UINT:
            return parameter.value.ui;
        case VIR_TYPED_PARAM_LLONG:
            return fromSigned(parameter.value.l);
        case VIR_TYPED_PARAM_ULLONG:
            return parameter.value.ul;
        default:
            return std::nullopt;
    }
}

Statistics StatisticsOf(const virDomainStatsRecord& record) {
    Statistics statistics;
    for (int index = 0; index < record.nparams; ++index) {
        const virTypedParameter& parameter = record.params[index];
        if (parameter.type == VIR_TYPED_PARAM_STRING) {
            statistics[parameter.field] = std::string(parameter.value.s);
        } else if (const auto number = WholeNumber(parameter)) {
            statistics[parameter.field] = *number;
        }
    }
    return statistics;
}

class RealConnection final : public Connection {
  public:
    explicit RealConnection(const std::string& uri) : handle(virConnectOpenReadOnly(uri.c_str())) {
        if (!handle) {
            const ApiError error = LastError();
            // What libvirt takes for an alias that it does not have.
            const bool isUnknownAlias = uri.find(':') == std::string::npos && HasCode(VIR_ERR_NO_CONNECT);
            throw ApiError(error.what(), isUnknownAlias ? ApiError::Kind::Permanent : error.GetKind());
        }
        // Fails where the driver runs in this process, which needs no probes.
        virConnectSetKeepAlive(handle.get(), keepAliveInterval, keepAliveCount);
    }

    bool IsAlive() override { return virConnectIsAlive(handle.get()) == 1; }

    Host GetHost() override {
        Host host;
        const CString uri(virConnectGetURI(handle.get()));
        const char* driver = virConnectGetType(handle.get());
        virNodeInfo node{};
        Check(uri && driver != nullptr);
        Check(virConnectGetVersion(handle.get(), &host.version) >= 0);
        Check(virConnectGetLibVersion(handle.get(), &host.libvirtVersion) >= 0);
        Check(virNodeGetInfo(handle.get(), &node) >= 0);
        host.uri = uri.get();
        host.driver = driver;
        host.cores = static_cast<int>(node.nodes * node.sockets * node.cores);
        host.memoryKiB = node.memory;
        return host;
    }

    std::vector<Domain> GetDomains() override {
        virDomainPtr* list = nullptr;
        const int count = virConnectListAllDomains(handle.get(), &list, 0);
        Check(count >= 0);
        std::vector<Domain> domains;
        for (const DomainHandle& domain : TakeList<DomainHandle>(list, count)) {
            Domain described = Identify(domain.get());
            try {
                Describe(domain.get(), described);
            } catch (const ApiError& error) {
                if (error.GetKind() == ApiError::Kind::Gone) {
                    continue;
                }
                if (!IsAlive()) {
                    throw;
                }
                spdlog::debug("VM {} cannot be described: {}", described.uuid, error.what());
            }
            domains.push_back(std::move(described));
        }
        return domains;
    }

    std::vector<std::string> GetPools() override {
        virStoragePoolPtr* list = nullptr;
        const int count =
            virConnectListAllStoragePools(handle.get(), &list, VIR_CONNECT_LIST_STORAGE_POOLS_ACTIVE);
        if (count < 0 && IsUnsupported()) {
            return {};
        }
        Check(count >= 0);
        std::vector<std::string> pools;
        for (const PoolHandle& pool : TakeList<PoolHandle>(list, count)) {
            // A pool that vanished meanwhile has none.
            if (const CString xml(virStoragePoolGetXMLDesc(pool.get(), 0)); xml) {
                pools.emplace_back(xml.get());
            }
        }
        return pools;
    }

    std::optional<Volume> FindVolume(const std::string& pool, const std::string& name) override {
        const PoolHandle found(virStoragePoolLookupByName(handle.get(), pool.c_str()));
        const VolumeHandle volume(found ? virStorageVolLookupByName(found.get(), name.c_str()) : nullptr);
        const CString path(volume ? virStorageVolGetPath(volume.get()) : nullptr);
        virStorageVolInfo info{};
        if (!path || virStorageVolGetInfo(volume.get(), &info) < 0) {
            return std::nullopt;
        }
        return Volume{path.get(), info.type == VIR_STORAGE_VOL_BLOCK || info.type == VIR_STORAGE_VOL_NETWORK};
    }

    std::optional<int> GetCpuShares(const std::string& uuid) override {
        const DomainHandle domain = Find(uuid);
        int count = 0;
        const CString type(virDomainGetSchedulerType(domain.get(), &count));
        if (!type || count <= 0) {
            return std::nullopt;
        }
        std::vector<virTypedParameter> parameters(static_cast<std::size_t>(count));
        if (virDomainGetSchedulerParameters(domain.get(), parameters.data(), &count) < 0) {
            return std::nullopt;
        }
        std::optional<int> shares;
        for (int index = 0; index < count; ++index) {
            const virTypedParameter& parameter = parameters[static_cast<std::size_t>(index)];
            const std::string_view field = parameter.field;
            const auto number = WholeNumber(parameter);
            if ((field == VIR_DOMAIN_SCHEDULER_CPU_SHARES || field == VIR_DOMAIN_SCHEDULER_WEIGHT) &&
                number && *number <= INT_MAX) {
                shares = static_cast<int>(*number);
            }
        }
        virTypedParamsClear(parameters.data(), count);
        return shares;
    }

    Statistics GetStatistics(const std::string& uuid) override {
        const DomainHandle domain = Find(uuid);
        Statistics statistics = DomainStatistics(domain.get());
        // Another program's job on the domain is short as a rule.
        for (int retry = 0; retry < busyRetries && IsPartial(statistics); ++retry) {
            std::this_thread::sleep_for(busyRetryInterval);
            statistics = DomainStatistics(domain.get());
        }
        return statistics.empty() ? LegacyStatistics(domain.get()) : statistics;
    }

  private:
    // What the handle knows without a call to the host.
    static Domain Identify(virDomainPtr handle) {
        Domain domain;
        std::array<char, VIR_UUID_STRING_BUFLEN> uuid{};
        Check(virDomainGetUUIDString(handle, uuid.data()) >= 0);
        domain.uuid = uuid.data();
        domain.name = virDomainGetName(handle);
        domain.active = IsActive(domain.state, virDomainGetID(handle));
        return domain;
    }

    // Sets the other members, or none when it throws.
    static void Describe(virDomainPtr handle, Domain& domain) {
        int state = 0;
        int reason = 0;
        Check(virDomainGetState(handle, &state, &reason, 0) >= 0);
        const int persistent = virDomainIsPersistent(handle);
        Check(persistent >= 0);
        const CString xml(virDomainGetXMLDesc(handle, 0));
        Check(xml != nullptr);
        domain.persistent = persistent == 1;
        domain.state = StateOf(state);
        domain.active = IsActive(domain.state, virDomainGetID(handle));
        domain.xml = xml.get();
    }

    // Returns nothing where the driver has no such statistics. Does not wait for other programs' jobs on the
    // domain, where the host knows that flag: then what a job holds is missing.
    Statistics DomainStatistics(virDomainPtr domain) {
        constexpr unsigned groups = VIR_DOMAIN_STATS_BALLOON | VIR_DOMAIN_STATS_VCPU |
                                    VIR_DOMAIN_STATS_INTERFACE | VIR_DOMAIN_STATS_BLOCK;
        std::array<virDomainPtr, 2> domains{domain, nullptr};
        virDomainStatsRecordPtr* records = nullptr;
        int count = virDomainListGetStats(domains.data(), groups, &records, waitFlags);
        if (count < 0 && waitFlags != 0 && HasCode(VIR_ERR_INVALID_ARG)) {
            waitFlags = 0;
            count = virDomainListGetStats(domains.data(), groups, &records, waitFlags);
        }
        Check(count >= 0 || IsUnsupported());
        Statistics statistics;
        if (count > 0) {
            statistics = StatisticsOf(**records);
        }
        virDomainStatsRecordListFree(records);
        return statistics;
    }

    // Whether the statistics lack what only the domain's process knows. The one that is always read together
    // with them is the process's resident memory.
    bool IsPartial(const Statistics& statistics) const {
        return waitFlags != 0 && !statistics.empty() && !statistics.contains("balloon.rss");
    }

    DomainHandle Find(const std::string& uuid) {
        DomainHandle domain(virDomainLookupByUUIDString(handle.get(), uuid.c_str()));
        Check(domain != nullptr);
        return domain;
    }

    std::unique_ptr<virConnect, Freer<virConnectClose>> handle;
    unsigned waitFlags = VIR_CONNECT_GET_ALL_DOMAINS_STATS_NOWAIT;  // or none, where the host knows no flag
};

// Returns the process's one event loop, which lives as long as anybody holds it.
std::shared_ptr<EventLoop> SharedEventLoop() {
    static std::mutex mutex;
    static std::weak_ptr<EventLoop> shared;
    const std::lock_guard lock(mutex);
    auto loop = shared.lock();
    if (!loop) {
        loop = std::make_shared<EventLoop>();
        shared = loop;
    }
    return loop;
}

class RealApi final : public Api {
  public:
    RealApi() {
        // The default handler writes every error to standard error.
        virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
        Check(virInitialize() >= 0);
        loop = SharedEventLoop();
    }

    std::unique_ptr<Connection> Open(const std::string& uri) override {
        return std::make_unique<RealConnection>(uri);
    }

  private:
    std::shared_ptr<EventLoop> loop;
};

}  // namespace

std::shared_ptr<Api> MakeApi() {
    return std::make_shared<RealApi>();
}

}  // namespace Vessad::Libvirt
