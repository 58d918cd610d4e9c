// The part of libvirt that the backend uses, narrow enough for a test to stand in for it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace Vessad::Libvirt {

// What libvirt refused, in its own words.
class ApiError : public std::runtime_error {
  public:
    // `permanent`: asking again cannot help. `gone`: the domain that was asked for does not exist any more.
    ApiError(const std::string& text, bool permanent, bool gone)
        : std::runtime_error(text), permanent(permanent), gone(gone) {}

    bool IsPermanent() const { return permanent; }
    bool IsGone() const { return gone; }

  private:
    bool permanent;
    bool gone;
};

enum class DomainState { None, Running, Blocked, Paused, ShuttingDown, ShutOff, Crashed, PmSuspended };

struct Domain {
    std::string uuid;
    std::string name;
    bool active = false;
    bool persistent = false;
    DomainState state = DomainState::None;
    std::string xml;  // the live description of an active domain, else the persistent one; empty: refused
};

struct Host {
    std::string uri;                   // with its aliases resolved
    std::string driver;                // libvirt's name of it, "QEMU"
    unsigned long version = 0;         // of the hypervisor: major × 1000000 + minor × 1000 + release
    unsigned long libvirtVersion = 0;  // of the host's libvirt, made up in the same way
    int cores = 0;
    std::uint64_t memoryKiB = 0;
};

struct Volume {
    std::string path;
    bool block = false;  // a block device or something on the network, not a file
};

// Figures of one domain under the names of `virsh domstats`, whatever the driver. Numbers that are negative
// or no whole numbers are left out.
using Statistics = std::map<std::string, std::variant<std::uint64_t, std::string>, std::less<>>;

// A read-only connection to a host, for one thread at a time. Every operation throws ApiError, and may wait
// for as long as the host makes it wait.
class Connection {
  public:
    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    virtual ~Connection() = default;

    // Whether the connection still stands; one that does not never will again.
    virtual bool IsAlive() = 0;

    virtual Host GetHost() = 0;
    // Every domain; one that vanishes meanwhile is left out, and one that the host refuses to tell of has
    // neither state nor XML. Asks nothing of the domains' own processes.
    virtual std::vector<Domain> GetDomains() = 0;
    // The XML of the active storage pools; none where the driver knows no storage.
    virtual std::vector<std::string> GetPools() = 0;
    // Nothing when there is no such volume.
    virtual std::optional<Volume> FindVolume(const std::string& pool, const std::string& name) = 0;
    // The CPU shares or the weight that the scheduler gives the domain, where it tells.
    virtual std::optional<int> GetCpuShares(const std::string& uuid) = 0;
    // Asks the domain's own process, and waits for it without end.
    virtual Statistics GetStatistics(const std::string& uuid) = 0;
};

// Opens connections; may be used by any thread.
class Api {
  public:
    Api() = default;
    Api(const Api&) = delete;
    Api& operator=(const Api&) = delete;
    virtual ~Api() = default;

    virtual std::unique_ptr<Connection> Open(const std::string& uri) = 0;
};

// The installed libvirt.
std::shared_ptr<Api> MakeApi();

}  // namespace Vessad::Libvirt
