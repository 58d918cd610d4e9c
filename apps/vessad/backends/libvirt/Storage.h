// Which datastore a file of the host lies on.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vessad::Libvirt {

// A mounted file system.
struct Mount {
    std::string source;     // a device's path, a server's export, or any word
    std::string directory;  // absolute, without a final slash but for "/"
    std::string type;

    // Whether the files lie on a device of this host: the source is a device, or a dataset of ZFS.
    bool IsBlockBacked() const;

    bool operator==(const Mount&) const = default;
};

// A storage pool that is a directory of files.
struct Pool {
    std::string name;
    std::string type;    // libvirt's: dir, fs, netfs, vstorage
    std::string path;    // the directory, as Mount's
    std::string device;  // of fs: the device it is mounted from

    bool operator==(const Pool&) const = default;
};

// Returns the mounts of this system, those that hide others last. Empty when `table` cannot be read.
std::vector<Mount> ReadMounts(const char* table = "/proc/self/mounts");

// Returns the pool that libvirt's XML describes; nothing for one that is not a
// directory of files, and for a text that is not XML.
std::optional<Pool> ParsePool(const std::string& xml);

// Where a file lies.
struct Place {
    std::string datastoreId;
    std::string datastoreName;
    std::string url;       // the datastore's directory with its final slash
    std::string relative;  // the file within it
    // The device below the datastore; nothing when it lies on no device of the host.
    std::optional<std::string> device;

    bool operator==(const Place&) const = default;
};

// The host's storage at one moment. Immutable, so any thread may use it.
class Storage {
  public:
    // `mounts` is empty for a remote host, whose mounts cannot be seen.
    Storage(std::optional<std::vector<Mount>> mounts, std::vector<Pool> pools);

    // Returns the datastore of a file: the pool whose directory holds it, else the file system. On a remote
    // host a directory without a pool stands for both its datastore and its device.
    //
    // Follows symbolic links, but reads none on a file system that may hang: neither block-backed nor in
    // memory.
    Place Locate(const std::string& file) const;

    bool operator==(const Storage&) const = default;

  private:
    std::string Resolve(const std::string& file) const;
    const Mount* FindMount(std::string_view path) const;
    const Pool* FindPool(std::string_view path) const;

    std::optional<std::vector<Mount>> mounts;
    std::vector<Pool> pools;  // paths resolved
};

}  // namespace Vessad::Libvirt
