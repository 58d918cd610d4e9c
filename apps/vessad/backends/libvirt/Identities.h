// The lasting numbers of machines.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "runtime/tessim/file_descriptor.h"

namespace Vessad::Libvirt {

// Gives every UUID a positive number once, for ever, and keeps them in the file "identities" of a directory.
// Numbers are `step` apart, because the rows of the agent's CPU table are numbered from a machine's number
// on.
//
// The file is text: a heading, the next free number, and a line "NUMBER UUID" for each machine. It is
// replaced as a whole, so it is complete at every moment. The directory is locked as long as this lives. For
// one thread at a time.
class Identities {
  public:
    static constexpr std::int32_t step = 1000;

    // Reads the file, or starts one. A copy of a damaged file is kept beside it, the log says so, its legible
    // lines are taken over, and numbering goes on well behind them. Nothing is written when the file is
    // sound, so known machines are served from a full or read-only directory too.
    //
    // Throws std::runtime_error, and leaves everything as it was, when the directory is another daemon's, or
    // when it or the file cannot be made, read or repaired.
    explicit Identities(const std::filesystem::path& directory);

    // Makes sure that each of the UUIDs has a number that is safe on disk. When that fails, the log says so
    // once, the new UUIDs show no number, and the next call tries again.
    void Admit(const std::vector<std::string>& uuids);

    // The number of `uuid`; 0 when it has none yet.
    std::int32_t Find(const std::string& uuid) const;

  private:
    bool Parse(const std::string& text);
    void Repair();
    void Save() const;

    std::filesystem::path directory;
    std::filesystem::path file;
    Tessim::FileDescriptor folder;  // the directory, open and locked
    std::map<std::string, std::int32_t> numbers;
    std::set<std::string> unsaved;  // have a number that is not safe yet
    std::int64_t next = step;
    bool saveFails = false;
    bool full = false;
};

}  // namespace Vessad::Libvirt
