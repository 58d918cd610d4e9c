// A host that a test makes up, in the place of libvirt.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// Several threads may talk to it while the test changes it.
class FakeHost {
  public:
    FakeHost() { host = {"qemu+ssh://fake/system", "QEMU", 7002022, 9000000, 8, 16777216}; }

    void SetDomains(std::vector<Domain> given) {
        Change([&] { domains = std::move(given); });
    }
    void SetStatistics(const std::string& uuid, Statistics given) {
        Change([&] { statistics[uuid] = std::move(given); });
    }
    // Makes every call fail and breaks the connections, or lets new ones in again.
    void SetDown(bool given, bool permanent = false) {
        Change([&] {
            down = given;
            downForEver = permanent;
            ++generation;
        });
    }
    // A domain whose figures never come, while it is frozen.
    void Freeze(const std::string& uuid) {
        Change([&] { frozen.insert(uuid); });
    }
    void Thaw(const std::string& uuid) {
        Change([&] { frozen.erase(uuid); });
    }
    // Makes the domain's figures an error.
    void Refuse(const std::string& uuid) {
        Change([&] { refused.insert(uuid); });
    }
    // Keeps new connections waiting, or lets them in.
    void HoldOpening(bool given) {
        Change([&] { openingHeld = given; });
    }
    void HoldPools(bool given) {
        Change([&] { poolsHeld = given; });
    }
    void HoldDomains(bool given) {
        Change([&] { domainsHeld = given; });
    }
    // How many calls for figures have not come back.
    int CountWaiting() {
        const std::lock_guard lock(mutex);
        return waiting;
    }
    int CountDescriptions() {
        const std::lock_guard lock(mutex);
        return schedulerCalls;
    }

  private:
    friend class FakeConnection;
    friend class FakeApi;

    template <class Function>
    void Change(Function function) {
        const std::lock_guard lock(mutex);
        function();
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    Host host;
    std::vector<Domain> domains;
    std::map<std::string, Statistics> statistics;
    std::set<std::string> frozen;
    std::set<std::string> refused;
    bool down = false;
    bool downForEver = false;
    bool openingHeld = false;
    bool poolsHeld = false;
    bool domainsHeld = false;
    int generation = 0;
    int waiting = 0;
    int schedulerCalls = 0;
};

class FakeConnection final : public Connection {
  public:
    explicit FakeConnection(std::shared_ptr<FakeHost> host) : host(std::move(host)) {
        std::unique_lock lock(this->host->mutex);
        this->host->changed.wait(lock, [this] { return !this->host->openingHeld; });
        generation = this->host->generation;
        Check();
    }

    bool IsAlive() override {
        const std::lock_guard lock(host->mutex);
        return generation == host->generation;
    }
    Host GetHost() override {
        const std::lock_guard lock(host->mutex);
        Check();
        return host->host;
    }
    std::vector<Domain> GetDomains() override {
        std::unique_lock lock(host->mutex);
        host->changed.wait(lock, [this] { return !host->domainsHeld; });
        Check();
        return host->domains;
    }
    std::vector<std::string> GetPools() override {
        std::unique_lock lock(host->mutex);
        host->changed.wait(lock, [this] { return !host->poolsHeld; });
        Check();
        return {"<pool type='dir'><name>default</name><target><path>/pool</path></target></pool>"};
    }
    std::optional<Volume> FindVolume(const std::string&, const std::string&) override { return std::nullopt; }
    std::optional<int> GetCpuShares(const std::string&) override {
        const std::lock_guard lock(host->mutex);
        ++host->schedulerCalls;
        return std::nullopt;
    }
    Statistics GetStatistics(const std::string& uuid) override {
        std::unique_lock lock(host->mutex);
        Check();
        ++host->waiting;
        host->changed.wait(lock, [&] { return !host->frozen.contains(uuid); });
        --host->waiting;
        Check();
        if (host->refused.contains(uuid)) {
            throw ApiError("refused", false, false);
        }
        return host->statistics[uuid];
    }

  private:
    void Check() const {
        if (host->down || generation != host->generation) {
            throw ApiError("the host is down", host->downForEver, false);
        }
    }

    std::shared_ptr<FakeHost> host;
    int generation = 0;
};

class FakeApi final : public Api {
  public:
    std::unique_ptr<Connection> Open(const std::string&) override {
        return std::make_unique<FakeConnection>(host);
    }

    const std::shared_ptr<FakeHost> host = std::make_shared<FakeHost>();
};

// A domain with one CPU, 64 MB and nothing else.
inline Domain SmallDomain(const std::string& uuid, const std::string& name,
                          DomainState state = DomainState::Running) {
    return {uuid,
            name,
            state != DomainState::ShutOff,
            true,
            state,
            "<domain><name>" + name + "</name><memory unit='KiB'>65536</memory><vcpu>1</vcpu></domain>"};
}

inline Statistics CpuTime(std::uint64_t milliseconds) {
    return {{"vcpu.0.time", milliseconds * 1000000}};
}

}  // namespace Vessad::Libvirt
