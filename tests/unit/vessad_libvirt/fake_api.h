// A host that a test makes up, in the place of libvirt.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "apps/vessad/backends/libvirt/LibvirtApi.h"

namespace Vessad::Libvirt {

// What the host does; a test changes it while several threads use it.
struct FakeState {
    std::vector<Domain> domains;
    std::map<std::string, Statistics> statistics;  // by UUID
    std::set<std::string> frozen;                  // domains whose statistics do not come
    std::set<std::string> refused;                 // domains whose statistics are an error
    bool down = false;                             // every call fails
    bool permanent = false;                        // and a retry cannot succeed
    bool holdsOpening = false;                     // these calls do not return
    bool holdsPools = false;
    bool holdsDomains = false;
    int breaks = 0;          // counts what broke every connection
    int waiting = 0;         // calls for statistics that have not returned
    int sampled = 0;         // those that returned statistics
    int schedulerCalls = 0;  // one for each description
};

class FakeApi final : public Api {
  public:
    std::unique_ptr<Connection> Open(const std::string&) override;

    // Calls `function` with the state, and returns what it returns.
    template <class Function>
    auto With(Function function) {
        const std::lock_guard lock(shared->mutex);
        shared->changed.notify_all();
        return function(shared->state);
    }
    void SetDown(bool down, bool permanent = false) {
        With([&](FakeState& state) {
            state.down = down;
            state.permanent = permanent;
            ++state.breaks;
        });
    }
    void Hold(bool FakeState::*call, bool held = true) {
        With([&](FakeState& state) { state.*call = held; });
    }
    void SetCpuTime(const std::string& uuid, std::uint64_t milliseconds) {
        With([&](FakeState& state) { state.statistics[uuid] = {{"vcpu.0.time", milliseconds * 1000000}}; });
    }
    void Freeze(const std::string& uuid) {
        With([&](FakeState& state) { state.frozen.insert(uuid); });
    }
    // Lets every call return.
    void Release() {
        With([](FakeState& state) {
            state.frozen.clear();
            state.holdsOpening = state.holdsPools = state.holdsDomains = false;
        });
    }
    int CountWaiting() {
        return With([](FakeState& state) { return state.waiting; });
    }

  private:
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed;
        FakeState state;
    };
    class FakeConnection;

    const std::shared_ptr<Shared> shared = std::make_shared<Shared>();
};

class FakeApi::FakeConnection final : public Connection {
  public:
    explicit FakeConnection(std::shared_ptr<Shared> given) : shared(std::move(given)), state(shared->state) {
        const auto lock = Enter(&FakeState::holdsOpening, true);
    }

    bool IsAlive() override {
        const std::lock_guard lock(shared->mutex);
        return breaks == state.breaks;
    }
    Host GetHost() override { return {"qemu+ssh://fake/system", "QEMU", 7002022, 9000000, 8, 16777216}; }
    std::vector<Domain> GetDomains() override {
        const auto lock = Enter(&FakeState::holdsDomains);
        return state.domains;
    }
    std::vector<std::string> GetPools() override {
        const auto lock = Enter(&FakeState::holdsPools);
        return {"<pool type='dir'><name>default</name><target><path>/pool</path></target></pool>"};
    }
    std::optional<Volume> FindVolume(const std::string&, const std::string&) override { return std::nullopt; }
    std::optional<int> GetCpuShares(const std::string&) override {
        const std::lock_guard lock(shared->mutex);
        ++state.schedulerCalls;
        return std::nullopt;
    }
    Statistics GetStatistics(const std::string& uuid) override {
        std::unique_lock lock(shared->mutex);
        Check();
        ++state.waiting;
        shared->changed.wait(lock, [&] { return !state.frozen.contains(uuid); });
        --state.waiting;
        Check();
        if (state.refused.contains(uuid)) {
            throw ApiError("refused", ApiError::Kind::Temporary);
        }
        ++state.sampled;
        return state.statistics[uuid];
    }

  private:
    // Waits while the host holds the call; returns with the lock. Throws when the connection broke meanwhile.
    std::unique_lock<std::mutex> Enter(bool FakeState::*held, bool opens = false) {
        std::unique_lock lock(shared->mutex);
        shared->changed.wait(lock, [&] { return !(state.*held); });
        breaks = opens ? state.breaks : breaks;
        Check();
        return lock;
    }
    void Check() const {
        if (state.down || breaks != state.breaks) {
            throw ApiError("the host is down",
                           state.permanent ? ApiError::Kind::Permanent : ApiError::Kind::Temporary);
        }
    }

    const std::shared_ptr<Shared> shared;
    FakeState& state;
    int breaks = 0;
};

inline std::unique_ptr<Connection> FakeApi::Open(const std::string&) {
    return std::make_unique<FakeConnection>(shared);
}

}  // namespace Vessad::Libvirt
