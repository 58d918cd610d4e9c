// The permanent ids of VMs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "runtime/tessim/file_descriptor.h"

namespace Vessad::Libvirt {

// Assigns every UUID a positive id, once and permanently, and keeps them in the file "identities" of a
// directory. Ids are `step` apart, because the rows of the agent's CPU table are numbered from a VM's id on.
//
// The file is text: a heading, the next free id, and a line "ID UUID" for each VM. It is replaced as
// a whole, so it is complete at every moment. The directory is locked as long as the object lives. For one
// thread at a time.
class VmIds {
  public:
    static constexpr std::int32_t step = 1000;

    // Reads the file, or creates it. A damaged file is kept beside it under another name and logged; its
    // valid lines are taken over, and new ids start well beyond them. A valid file is not written, so
    // that known VMs are served from a full or read-only directory too.
    //
    // Throws std::runtime_error, and leaves everything as it was, when another daemon has locked the
    // directory, or when the directory or the file cannot be created, read or replaced, belongs to another
    // user, is writable by others, is a symbolic link or, the file, is not regular or larger than any valid
    // one.
    explicit VmIds(const std::filesystem::path& directory);

    // Assigns ids to the UUIDs that have none and saves them. A failure to save is logged once; until a
    // later call has saved them, Find returns 0 for the new UUIDs.
    void Admit(const std::vector<std::string>& uuids);

    // Returns the id of `uuid`, or 0 when it has none that is saved.
    std::int32_t Find(const std::string& uuid) const;

  private:
    bool Parse(const std::string& text);
    void Repair();
    void Save() const;

    std::filesystem::path directory;
    std::filesystem::path file;
    Tessim::FileDescriptor lock;  // the directory, open and locked
    std::map<std::string, std::int32_t> ids;
    std::set<std::string> unsaved;  // those in `ids` that the file does not have
    std::int64_t next = step;
    bool saveFails = false;
    bool full = false;
};

}  // namespace Vessad::Libvirt
