#include "apps/vessad/backends/libvirt/HostReader.h"

#include <spdlog/spdlog.h>

#include <set>
#include <utility>

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

}  // namespace

HostReading HostReader::Read(Connection& connection, const std::vector<std::string>& pools) {
    HostReading reading;
    reading.host = connection.GetHost();
    // What was described on other storage may lie elsewhere now.
    if (Storage now = ReadStorage(reading.host, pools); now != storage) {
        storage = std::move(now);
        known.clear();
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
    std::erase_if(known, [&](const auto& entry) { return !present.contains(entry.first); });
    return reading;
}

std::shared_ptr<const DomainDescription> HostReader::Describe(Connection& connection, Domain& domain,
                                                              std::optional<std::string> configFile) {
    const auto found = known.find(domain.uuid);
    // One that the host does not describe is what it was.
    if (found != known.end() &&
        (domain.xml.empty() || (found->second.xml == domain.xml && found->second.configFile == configFile))) {
        return found->second.description;
    }
    const Surroundings surroundings{
        storage, guestNames,
        [&](const std::string& pool, const std::string& name) { return connection.FindVolume(pool, name); },
        [&]() -> std::optional<int> {
            try {
                return connection.GetCpuShares(domain.uuid);
            } catch (const ApiError& error) {
                // It vanished; the connection's own end shows in the next call.
                return std::nullopt;
            }
        },
        configFile};
    std::shared_ptr<const DomainDescription> description;
    try {
        description = std::make_shared<const DomainDescription>(DescribeDomain(domain.xml, surroundings));
    } catch (const ApiError&) {
        throw;
    } catch (const std::runtime_error& error) {
        spdlog::error("the XML of machine {} cannot be read: {}", domain.uuid, error.what());
    }
    known.erase(domain.uuid);
    if (!description || !description->provisional) {
        known.emplace(domain.uuid, Known{std::move(domain.xml), std::move(configFile), description});
    }
    return description;
}

}  // namespace Vessad::Libvirt
