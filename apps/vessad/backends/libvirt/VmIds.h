// The permanent ids of VMs.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "apps/vessad/backends/libvirt/IdentityFile.h"

namespace Vessad::Libvirt {

struct VmIdsOptions {
    std::chrono::days forgetAfter{400};  // how long a VM that is gone keeps its id; 0: for ever
    std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
};

// Assigns every UUID a positive id, and keeps them in the file "identities" of a directory. Ids are `step`
// apart, because the rows of the agent's CPU table are numbered from a VM's id on. A UUID keeps its id until
// it has not been seen for `forgetAfter`; an id is never assigned again.
//
// The file is text: a heading, the next free id, and lines "ID UUID DAY", of which the last one of a UUID
// counts. DAY is the day on which the VM was last seen, counted from 1970. Lines are appended for VMs that
// are new or seen for the first time on a day; from time to time the file is replaced by one that has a line
// for each UUID that is not forgotten. For one thread at a time.
class VmIds {
  public:
    static constexpr std::int32_t step = 1000;

    // Reads the file, or creates it. An incomplete last line, which a crash leaves of a VM that nobody has
    // seen yet, is ignored and logged. A file with other damage is kept beside it under another name and
    // logged; its valid lines are taken over, and new ids start well beyond them. A valid file is not
    // written, so that known VMs are served from a full or read-only directory too.
    //
    // Throws std::runtime_error, and leaves everything as it was, when another daemon has locked the
    // directory, or when the directory or the file cannot be created, read or replaced, belongs to another
    // user, is writable by others, is a symbolic link or, the file, is not regular or larger than any valid
    // one.
    explicit VmIds(const std::filesystem::path& directory, VmIdsOptions options = {});

    // Assigns ids to the UUIDs that have none, saves them, and forgets those that have not been seen for too
    // long. A failure to save is logged once; until a later call has saved them, Find returns 0 for the new
    // UUIDs.
    void Admit(const std::vector<std::string>& uuids);

    // Returns the id of `uuid`, or 0 when it has none that is saved.
    std::int32_t Find(const std::string& uuid) const;

  private:
    struct Identity {
        std::int32_t id = 0;
        std::int32_t day = 0;  // when it was last seen, counted from 1970
    };

    // What the log has said of the latest failures to save.
    enum class Failure { None, OfKnownVms, OfNewVms };

    static std::string Line(const std::string& uuid, const Identity& identity);
    std::int32_t Today() const;
    bool Parse(std::string text);
    bool ParseLine(std::string_view line, std::set<std::int32_t>& taken);
    void Repair();
    void Assign(const std::string& uuid, std::int32_t today);
    std::set<std::string> FindForgotten(std::int32_t today);
    // Saves the unsaved and the `seen` ones and drops the forgotten ones.
    void Save(const std::vector<std::string>& seen, const std::set<std::string>& forgotten);
    void Replace(const std::set<std::string>& forgotten);

    VmIdsOptions options;
    IdentityFile file;
    std::map<std::string, Identity> ids;
    std::set<std::string> unsaved;  // those in `ids` that the file does not have
    std::int64_t next = step;
    std::size_t lines = 0;        // in the file, of VMs
    std::int32_t checkedDay = 0;  // on which no UUID was to be forgotten
    bool outdated = false;        // the file has the older format
    bool incomplete = false;      // the file's last line is
    Failure loggedFailure = Failure::None;
    bool full = false;
};

}  // namespace Vessad::Libvirt
