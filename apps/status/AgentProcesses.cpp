#include "apps/status/AgentProcesses.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>

#include "apps/status/Names.h"

namespace KelvStatus {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view agentName = "snmpd";
constexpr std::string_view moduleFile = "/SNMPKelv.so";
constexpr std::string_view deleted = " (deleted)";

std::optional<pid_t> ProcessId(const std::string& name) {
    pid_t id = 0;
    const char* const end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data(), end, id);
    return error == std::errc() && rest == end ? std::optional(id) : std::nullopt;
}

bool IsAgent(const fs::path& process) {
    std::string name;
    return std::getline(std::ifstream(process / "comm"), name) && name == agentName;
}

// Only root can tell for the processes of other users; a process that has ended is in none.
bool MayBeInNetwork(const fs::path& process, const fs::path& own) {
    std::error_code error;
    const fs::path network = fs::read_symlink(process / "ns/net", error);
    return error ? error != std::errc::no_such_file_or_directory : network == own;
}

// Nothing when the process has ended.
std::optional<Credentials> ReadCredentials(const fs::path& process) {
    std::ifstream status(process / "status");
    std::optional<Credentials> credentials;
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string key;
        words >> key;
        if (key == "State:") {
            char state = 0;
            words >> state;
            if (state == 'Z' || state == 'X') {
                return std::nullopt;
            }
        } else if (key == "Uid:" || key == "Gid:") {
            // Real, effective, saved, and that of files.
            id_t id = 0;
            words >> id >> id >> id >> id;
            if (key == "Uid:") {
                credentials = Credentials{id, {}};
            } else if (credentials) {
                credentials->groups.push_back(id);
            }
        } else if (key == "Groups:" && credentials) {
            for (gid_t group = 0; words >> group;) {
                credentials->groups.push_back(group);
            }
        }
    }
    return credentials;
}

AgentFacts::Module FindModule(const fs::path& process) {
    std::ifstream maps(process / "maps");
    std::string line;
    if (!std::getline(maps, line)) {
        return AgentFacts::Module::Unknown;
    }
    bool isReplaced = false;
    do {
        if (line.ends_with(moduleFile)) {
            return AgentFacts::Module::Loaded;
        }
        const std::string_view path(line);
        isReplaced = isReplaced || (path.ends_with(deleted) &&
                                    path.substr(0, path.size() - deleted.size()).ends_with(moduleFile));
    } while (std::getline(maps, line));
    return isReplaced ? AgentFacts::Module::Replaced : AgentFacts::Module::NotLoaded;
}

}  // namespace

std::vector<AgentFacts> ListAgents(const fs::path& proc) {
    std::error_code error;
    const fs::path own = fs::read_symlink(proc / "self/ns/net", error);
    std::vector<AgentFacts> agents;
    for (fs::directory_iterator entry(proc, error); entry != fs::directory_iterator();
         entry.increment(error)) {
        const fs::path process = entry->path();
        const auto id = ProcessId(process.filename().string());
        if (!id || !IsAgent(process) || !MayBeInNetwork(process, own)) {
            continue;
        }
        const AgentFacts::Module module = FindModule(process);
        // Last, because it tells whether the process was there when the module was looked for.
        if (const auto credentials = ReadCredentials(process)) {
            agents.push_back({*id, *credentials, UserName(credentials->user),
                              credentials->groups.empty() ? "" : GroupName(credentials->groups.front()),
                              module});
        }
    }
    std::ranges::sort(agents, {}, &AgentFacts::process);
    return agents;
}

}  // namespace KelvStatus
