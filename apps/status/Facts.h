// What kelv-status finds out; how it is judged is in Judgement.h.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KelvStatus {

// What a process is to its kernel when it opens a file.
struct Credentials {
    uid_t user = 0;
    std::vector<gid_t> groups;
};

// Who may use a file or a directory.
struct Access {
    uid_t owner = 0;
    gid_t group = 0;
    mode_t mode = 0;
};

struct Ticket {
    Access file;
    Access directory;
    std::string description;  // of `file`: its owner, group and mode
};

struct ServiceStatus {
    std::string source;
    bool connected = false;
    std::optional<std::string> lastError;
    std::optional<std::int64_t> snapshotAge;  // in seconds
    std::int32_t vms = 0;
};

// Each failure is why the member before it is missing, where it is known.
struct DaemonFacts {
    std::optional<std::string> owner;  // of the daemon's process; none: no connection was made
    std::string connectFailure;
    bool timedOut = false;  // that is why there is no connection
    std::optional<Ticket> ticket;
    std::string ticketFailure;
    bool loggedIn = false;
    std::string loginFailure;
    std::optional<ServiceStatus> status;
    std::string statusFailure;
    bool isOlder = false;  // than the call that returns the status
};

struct AgentFacts {
    enum class Module { Loaded, Replaced, NotLoaded, Unknown };

    pid_t process = 0;
    Credentials credentials;
    std::string user;
    std::string group;  // the first one
    Module module = Module::Unknown;
};

// Of a test query for prodName.0.
struct QueryFacts {
    enum class Outcome { NotTested, Answered, NoSuchObject, NoAccess, TimedOut, Failed };

    Outcome outcome = Outcome::NotTested;
    std::string agent;                 // its address, as given
    std::string text;                  // the value of an answer, or why the query failed
    std::chrono::milliseconds time{};  // how long the agent took, or was waited for
};

struct Facts {
    Credentials self;  // of this process
    std::string user;  // its user
    DaemonFacts daemon;
    std::vector<AgentFacts> agents;
    QueryFacts query;
};

}  // namespace KelvStatus
