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

    // Whether the files lie on a device of this host: its source is one, or ZFS, which names its own.
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

// This machine's mounts, those that hide others last. Empty when the table cannot be read.
std::vector<Mount> ReadMounts(const char* table = "/proc/self/mounts");

// The pool that libvirt's XML describes, or nothing for one that is no directory of files.
std::optional<Pool> ParsePool(const std::string& xml);

// Where a file lies.
struct Place {
    std::string datastoreId;
    std::string datastoreName;
    std::string url;       // the datastore's directory with its final slash
    std::string relative;  // the file within it
    // The device under the datastore; nothing for one that lies on no device of its host.
    std::optional<std::string> device;
};

// The host's storage at one moment. Immutable.
class Storage {
  public:
    // `mounts` is null for the storage of another machine, whose mounts cannot be seen.
    Storage(std::optional<std::vector<Mount>> mounts, std::vector<Pool> pools);

    // The datastore of a file: the pool whose directory holds it, else the file system. On another machine
    // a directory without a pool stands for both its datastore and its device.
    //
    // Symbolic links are followed, but never into a file system that is not block-backed: one that hangs must
    // not hang the caller.
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
