// The file of VM ids on the disk.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/tessim/file_descriptor.h"

namespace Vessad::Libvirt {

// The file "identities" of a directory, which is locked as long as the object lives. What was written is on
// the disk when an operation returns. Operations throw std::runtime_error with a text for the operator. For
// one thread at a time.
class IdentityFile {
  public:
    // Creates the directory when it is missing. Throws when it cannot be used: locked by another daemon, of
    // another user, writable by others, a symbolic link.
    explicit IdentityFile(const std::filesystem::path& directory);

    const std::filesystem::path& GetPath() const { return file; }

    // Returns the content; nothing when there is no such file. Throws when it cannot be trusted: as the
    // directory, or not regular, or larger than `limit` bytes.
    std::optional<std::string> Read(std::int64_t limit);

    // Replaces the whole file, or leaves it as it was.
    void Replace(std::string_view text);

    // Appends to the file as it was read, replaced or appended to last. Returns false, and changes nothing,
    // when it is another one now. When it throws, the file may end with a part of `text`.
    bool Append(std::string_view text);

    // Gives the file a second name, which is returned.
    std::filesystem::path KeepDamaged() const;

  private:
    std::filesystem::path directory;
    std::filesystem::path file;
    Tessim::FileDescriptor lock;  // the directory, open and locked
    std::int64_t size = 0;        // of the file, as it is known
};

}  // namespace Vessad::Libvirt
