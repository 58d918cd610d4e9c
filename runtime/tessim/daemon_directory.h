// The management daemon's directory: its owner is the daemon's user.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

#include "runtime/tessim/file_descriptor.h"

namespace Tessim {

class DaemonDirectory {
  public:
    static constexpr std::string_view path = "/run/tovric-vessad";

    // The directory as it is now; not open when it does not exist, is a link, or lies in a /run that others
    // than root can write. Never throws. Thread-safe.
    static DaemonDirectory Open() noexcept;

    // Not open. Trusts no daemon's user.
    DaemonDirectory() = default;

    bool IsOpen() const noexcept { return static_cast<bool>(directory); }
    // For looking up names in the directory; -1 when it is not open.
    int GetDescriptor() const noexcept { return directory.Get(); }
    // Whether what belongs to `user` can come from the daemon: root, this process's effective user, or the
    // directory's owner.
    bool IsTrusted(uid_t user) const noexcept;

  private:
    FileDescriptor directory;
    std::optional<uid_t> owner;
};

}  // namespace Tessim
