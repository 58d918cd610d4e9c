#include "apps/vessad/backends/libvirt/HostReader.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <set>
#include <utility>

#include "apps/vessad/backends/libvirt/DomainXml.h"
#include "apps/vessad/backends/libvirt/Uri.h"

namespace Vessad::Libvirt {
namespace {

Storage ReadStorage(const Host& host, const std::vector<std::string>& poolXmls) {
    std::vector<Pool> pools;
    for (const std::string& xml : poolXmls) {
        if (auto pool = ParsePool(xml)) {
            pools.push_back(std::move(*pool));
        }
    }
    return {IsLocal(host.uri) ? std::optional(ReadMounts()) : std::nullopt, std::move(pools)};
}

// Whether the description is the same with `storage`.
bool IsCurrent(const DomainDescription* description, const Storage& storage) {
    return description == nullptr ||
           std::all_of(description->places.begin(), description->places.end(),
                       [&](const auto& entry) { return storage.Locate(entry.first) == entry.second; });
}

}  // namespace

HostReading HostReader::Read(Connection& connection, const std::vector<std::string>& pools) {
    HostReading reading;
    reading.host = connection.GetHost();
    if (Storage now = ReadStorage(reading.host, pools); now != storage) {
        for (auto& [uuid, entry] : cache) {
            entry.outdated = entry.outdated || !IsCurrent(entry.description.get(), now);
        }
        storage = std::move(now);
    }
    const auto configDirectory = ConfigDirectory(reading.host.uri);
    std::set<std::string> present;
    for (Domain& domain : connection.GetDomains()) {
        std::optional<std::string> configFile;
        if (configDirectory && domain.persistent) {
            configFile = *configDirectory + domain.name + ".xml";
        }
        present.insert(domain.uuid);
        auto description = Describe(connection, domain, std::move(configFile));
        reading.domains.push_back(
            {domain.uuid, domain.name, domain.active, domain.state, std::move(description)});
    }
    std::erase_if(cache, [&](const auto& entry) { return !present.contains(entry.first); });
    return reading;
}

void HostReader::MarkOutdated() {
    guestNames.Clear();
    for (auto& [uuid, entry] : cache) {
        entry.outdated = true;
    }
}

std::shared_ptr<const DomainDescription> HostReader::Describe(Connection& connection, Domain& domain,
                                                              std::optional<std::string> configFile) {
    const auto found = cache.find(domain.uuid);
    if (found != cache.end() &&
        (domain.xml.empty() || (!found->second.outdated && found->second.xml == domain.xml &&
                                found->second.configFile == configFile))) {
        return found->second.description;
    }
    const DescribeContext context{
        storage, guestNames,
        [&](const std::string& pool, const std::string& name) { return connection.FindVolume(pool, name); },
        [&]() -> std::optional<int> {
            try {
                return connection.GetCpuShares(domain.uuid);
            } catch (const ApiError& error) {
                // The domain vanished, or the connection broke, which the next call reports.
                return std::nullopt;
            }
        },
        configFile};
    std::shared_ptr<const DomainDescription> description;
    try {
        description = std::make_shared<const DomainDescription>(DescribeDomain(domain.xml, context));
    } catch (const ApiError&) {
        throw;
    } catch (const std::runtime_error& error) {
        spdlog::error("The XML of VM {} cannot be read, it has no configuration: {}", domain.uuid,
                      error.what());
    }
    const bool outdated = description && description->provisional;
    cache.insert_or_assign(domain.uuid,
                           CacheEntry{std::move(domain.xml), std::move(configFile), description, outdated});
    return description;
}

}  // namespace Vessad::Libvirt
