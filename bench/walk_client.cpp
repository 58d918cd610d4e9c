// Walks the module's network table and the yardstick's, first one or the other in turn, for each line of its
// standard input, and prints nanoseconds: of a variable of each, of the refresh before the walks and of one
// whole walk of the yardstick's. At first it prints those of the agent's first refresh: walk_client CLOCK
//
// CLOCK is the file with the agent's time, which is advanced before each round so that the module rebuilds
// its tables outside of the walks. Fails when a walk returns anything but the rows that the yardstick copied.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/snmp/agent/NetSnmp.h"

namespace {

using Oid = std::vector<oid>;

constexpr std::size_t maxRepetitions = 50;
constexpr std::size_t columns = 13;
constexpr std::size_t leastVariables = 200'000;  // of a round
constexpr std::time_t rebuildInterval = 30;      // seconds, more than the module's

const Oid ours{1, 3, 6, 1, 4, 1, 32473, 3, 4, 1};
const Oid theirs{1, 3, 6, 1, 4, 1, 32473, 99, 4, 1};
const Oid copyRows{1, 3, 6, 1, 4, 1, 32473, 99, 9, 0};

using Response = std::unique_ptr<netsnmp_pdu, decltype(&snmp_free_pdu)>;

// A v2c session with the agent on this host.
class Session {
  public:
    Session() {
        netsnmp_session session;
        snmp_sess_init(&session);
        std::string peer = "udp:127.0.0.1:161";
        std::string community = "public";
        session.version = SNMP_VERSION_2c;
        session.peername = peer.data();
        session.community = reinterpret_cast<u_char*>(community.data());
        session.community_len = community.size();
        session.timeout = 30'000'000;  // microseconds
        session.retries = 0;
        handle = snmp_sess_open(&session);
        if (handle == nullptr) {
            throw std::runtime_error("no session with the agent");
        }
    }
    ~Session() { snmp_sess_close(handle); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The response to a request; `repetitions` are those of a GETBULK.
    Response Request(int type, const Oid& name, std::size_t repetitions = 0) {
        netsnmp_pdu* const request = snmp_pdu_create(type);
        if (type == SNMP_MSG_GETBULK) {
            request->non_repeaters = 0;
            request->max_repetitions = static_cast<long>(repetitions);
        }
        snmp_add_null_var(request, name.data(), name.size());
        netsnmp_pdu* response = nullptr;
        const int status = snmp_sess_synch_response(handle, request, &response);
        Response owner(response, snmp_free_pdu);
        if (status != STAT_SUCCESS || response == nullptr || response->errstat != SNMP_ERR_NOERROR) {
            throw std::runtime_error("the agent does not answer");
        }
        return owner;
    }

  private:
    void* handle = nullptr;
};

// What a walk returned, and how long it took.
struct Walk {
    std::size_t variables = 0;
    std::uint64_t hash = 14695981039346656037U;  // FNV-1a, of types, columns, indexes and values
    std::chrono::nanoseconds time{0};

    void Add(const void* bytes, std::size_t count) {
        for (std::size_t at = 0; at < count; ++at) {
            hash = (hash ^ static_cast<const u_char*>(bytes)[at]) * 1099511628211U;
        }
    }
    void Add(const Walk& other) {
        variables += other.variables;
        time += other.time;
    }
    double PerVariable() const { return static_cast<double>(time.count()) / static_cast<double>(variables); }
};

// The first `count` variables of a table. The hash is left out where it would be measured.
Walk WalkTable(Session& session, const Oid& entry, std::size_t count, bool hashed) {
    Walk walk;
    Oid at = entry;
    const auto start = std::chrono::steady_clock::now();
    while (walk.variables < count) {
        const Response response =
            session.Request(SNMP_MSG_GETBULK, at, std::min(maxRepetitions, count - walk.variables));
        const netsnmp_variable_list* last = nullptr;
        for (const auto* each = response->variables; each != nullptr; each = each->next_variable) {
            if (each->name_length <= entry.size() || !std::equal(entry.begin(), entry.end(), each->name)) {
                return walk;
            }
            ++walk.variables;
            if (hashed) {
                walk.Add(&each->type, sizeof(each->type));
                walk.Add(each->name + entry.size(), (each->name_length - entry.size()) * sizeof(oid));
                walk.Add(each->val.string, each->val_len);
            }
            last = each;
        }
        if (last == nullptr) {
            return walk;
        }
        at.assign(last->name, last->name + last->name_length);
    }
    walk.time = std::chrono::steady_clock::now() - start;
    return walk;
}

// The agent's time.
class Clock {
  public:
    explicit Clock(const char* path) {
        const int file = open(path, O_RDWR | O_CLOEXEC);
        void* const map = mmap(nullptr, sizeof(std::time_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (map == MAP_FAILED) {
            throw std::runtime_error("no clock");
        }
        now = static_cast<volatile std::time_t*>(map);
    }
    void Advance(std::time_t seconds) { *now = *now + seconds; }

  private:
    volatile std::time_t* now;
};

// Makes the module rebuild its tables, and returns how long that takes.
std::chrono::nanoseconds Refresh(Session& session, Clock& clock) {
    clock.Advance(rebuildInterval);
    const auto start = std::chrono::steady_clock::now();
    session.Request(SNMP_MSG_GETNEXT, ours);
    return std::chrono::steady_clock::now() - start;
}

// The number of variables in either table, which are copied anew.
std::size_t CopyTable(Session& session) {
    const Response copied = session.Request(SNMP_MSG_GET, copyRows);
    return static_cast<std::size_t>(*copied->variables->val.integer) * columns;
}

// A pair of walks, one right after the other. `count` variables are asked for, and `variables` must be there.
void WalkBoth(Session& session, std::size_t variables, std::size_t count, bool oursFirst, bool hashed,
              Walk& own, Walk& container) {
    Walk first = WalkTable(session, oursFirst ? ours : theirs, count, hashed);
    Walk second = WalkTable(session, oursFirst ? theirs : ours, count, hashed);
    if (variables == 0 || first.variables != variables || second.variables != variables ||
        first.hash != second.hash) {
        throw std::runtime_error(std::to_string(first.variables) + " and " +
                                 std::to_string(second.variables) + " variables instead of " +
                                 std::to_string(variables) + ", or different ones");
    }
    own.Add(oursFirst ? first : second);
    container.Add(oursFirst ? second : first);
}

// The round before the measured ones: asks for one variable more than there are, and compares the values.
void Check(Session& session, Clock& clock) {
    const std::chrono::nanoseconds refresh = Refresh(session, clock);
    const std::size_t variables = CopyTable(session);
    Walk own;
    Walk container;
    WalkBoth(session, variables, variables + 1, true, true, own, container);
    std::cout << refresh.count() << std::endl;
}

// A small table is walked again and again, so that each round takes as long as with a large one.
void Measure(Session& session, Clock& clock, bool oursFirst) {
    const std::chrono::nanoseconds refresh = Refresh(session, clock);
    const std::size_t variables = CopyTable(session);
    Walk own;
    Walk container;
    for (; container.variables < leastVariables; oursFirst = !oursFirst) {
        WalkBoth(session, variables, variables, oursFirst, false, own, container);
    }
    std::cout << own.PerVariable() << ' ' << container.PerVariable() << ' ' << refresh.count() << ' '
              << container.PerVariable() * static_cast<double>(variables) << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: walk_client CLOCK\n";
        return 2;
    }
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    init_snmp("walk_client");
    try {
        Clock clock(argv[1]);
        Session session;
        Check(session, clock);
        std::string line;
        for (bool oursFirst = true; std::getline(std::cin, line); oursFirst = !oursFirst) {
            Measure(session, clock, oursFirst);
        }
    } catch (const std::exception& failure) {
        std::cerr << "walk_client: " << failure.what() << '\n';
        return 1;
    }
    return 0;
}
