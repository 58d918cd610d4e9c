// The part of libvirt that the backend uses, as an interface that tests can implement.
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

// A failed libvirt call, with libvirt's own message.
class ApiError : public std::runtime_error {
  public:
    enum class Kind {
        Temporary,  // a retry may succeed
        Permanent,  // a retry cannot succeed
        Gone,       // the domain does not exist any more
    };

    ApiError(const std::string& text, Kind kind) : std::runtime_error(text), kind(kind) {}

    Kind GetKind() const { return kind; }

  private:
    Kind kind;
};

enum class DomainState { None, Running, Blocked, Paused, ShuttingDown, ShutOff, Crashed, PmSuspended };

struct Domain {
    std::string uuid;
    std::string name;
    bool active = false;
    bool persistent = false;
    DomainState state = DomainState::None;
    std::string xml;  // the live one of an active domain, else the persistent one; empty: not readable
};

struct Host {
    std::string uri;                   // with its aliases resolved
    std::string driver;                // libvirt's name of it, "QEMU"
    unsigned long version = 0;         // of the hypervisor: major × 1000000 + minor × 1000 + release
    unsigned long libvirtVersion = 0;  // of the host's libvirt, encoded in the same way
    int cores = 0;
    std::uint64_t memoryKiB = 0;
};

struct Volume {
    std::string path;
    bool block = false;  // a block device or something on the network, not a file
};

// One sample of a domain's statistics, under the names of `virsh domstats` whatever the driver. Numbers that
// are negative or not integers are omitted.
using Statistics = std::map<std::string, std::variant<std::uint64_t, std::string>, std::less<>>;

// A read-only connection to a host, for one thread at a time. Every operation throws ApiError and may block
// without limit.
class Connection {
  public:
    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    virtual ~Connection() = default;

    // Returns whether the connection is usable; a broken one stays broken.
    virtual bool IsAlive() = 0;

    virtual Host GetHost() = 0;
    // Returns every domain. One that vanishes meanwhile is skipped; one that cannot be read has neither
    // state nor XML. Does not wait for the domains' processes.
    virtual std::vector<Domain> GetDomains() = 0;
    // Returns the XML of the active storage pools; none where the driver has no storage.
    virtual std::vector<std::string> GetPools() = 0;
    // Returns nothing when there is no such volume.
    virtual std::optional<Volume> FindVolume(const std::string& pool, const std::string& name) = 0;
    // Returns the CPU shares or the weight of the domain's scheduler parameters, where it has either.
    virtual std::optional<int> GetCpuShares(const std::string& uuid) = 0;
    // Waits for the domain's process without limit.
    virtual Statistics GetStatistics(const std::string& uuid) = 0;
};

// Opens connections. May be used by several threads at once.
class Api {
  public:
    Api() = default;
    Api(const Api&) = delete;
    Api& operator=(const Api&) = delete;
    virtual ~Api() = default;

    // Throws ApiError; may block as long as the host does.
    virtual std::unique_ptr<Connection> Open(const std::string& uri) = 0;
};

}  // namespace Vessad::Libvirt
