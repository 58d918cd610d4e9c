#include "apps/status/Judgement.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "runtime/tessim/string_util.h"

namespace KelvStatus {

namespace {

constexpr std::size_t maxShownText = 300;
constexpr const char* recipes =
    "put a recipe of /etc/snmp/snmpd.conf.d/kelv.conf into force for this user or community, then: systemctl "
    "restart snmpd";
constexpr const char* asForSource = "see the remedy of source";
constexpr const char* loadModule =
    "check the line dlmod of the agent's configuration, that /etc/snmp/snmpd.conf has includeDir "
    "/etc/snmp/snmpd.conf.d, and what the agent's log says about SNMPKelv, then: systemctl restart snmpd";

std::string Show(std::string_view text) {
    return Tessim::StringUtil::EscapeUntrusted(text, maxShownText);
}

std::string Seconds(std::int64_t count) {
    return std::to_string(count) + " s";
}

// Whether the permission bits, given as those of others, allow `credentials` the access.
bool Allows(const Access& access, mode_t bits, const Credentials& credentials) {
    if (credentials.user == 0) {
        return true;
    }
    if (credentials.user == access.owner) {
        return (access.mode & (bits << 6U)) != 0;
    }
    if (std::ranges::find(credentials.groups, access.group) != credentials.groups.end()) {
        return (access.mode & (bits << 3U)) != 0;
    }
    return (access.mode & bits) != 0;
}

bool MayRead(const Ticket& ticket, const Credentials& credentials) {
    return Allows(ticket.directory, S_IXOTH, credentials) && Allows(ticket.file, S_IROTH, credentials);
}

Check JudgeDaemon(const DaemonFacts& daemon) {
    if (daemon.owner) {
        return {Result::Ok, "daemon", "accepts connections, belongs to user " + Show(*daemon.owner), ""};
    }
    return {Result::Fail, "daemon", Show(daemon.connectFailure),
            daemon.timedOut
                ? "journalctl -u tovric-vessad says whether it ends at its start, and why; ss -lptn 'sport = "
                  ":902' names another program on its port; where it hangs: systemctl restart tovric-vessad"
                : "systemctl start tovric-vessad.socket tovric-vessad; if that fails, journalctl "
                  "-u tovric-vessad says why, and ss -lptn 'sport = :902' names another program on "
                  "its port"};
}

Check JudgeLogin(const Facts& facts) {
    const DaemonFacts& daemon = facts.daemon;
    if (daemon.loggedIn) {
        return {Result::Ok, "login", "the daemon accepted a ticket", ""};
    }
    if (!daemon.ticket) {
        const bool isNoMember = daemon.ticketFailure.find("cannot set the group") != std::string::npos;
        return {
            Result::Fail, "login", "the daemon issued no ticket: " + Show(daemon.ticketFailure),
            isNoMember
                ? "set TICKET_GROUP in /etc/default/tovric-vessad to the agent's group; if it already is, "
                  "usermod --append --groups GROUP tovric-vessad with that group; then: systemctl "
                  "restart tovric-vessad"
                : "journalctl -u tovric-vessad"};
    }
    if (!MayRead(*daemon.ticket, facts.self)) {
        return {
            Result::Unknown, "login",
            "user " + Show(facts.user) + " may not read tickets (" + Show(daemon.ticket->description) + ")",
            "run kelv-status as root"};
    }
    return {Result::Fail, "login", Show(daemon.loginFailure), "journalctl -u tovric-vessad"};
}

Check JudgeSource(const DaemonFacts& daemon) {
    if (daemon.isOlder) {
        return {Result::Unknown, "source", "unknown, the daemon is older than kelv-status",
                "systemctl restart tovric-vessad, after an update"};
    }
    if (!daemon.status) {
        return {Result::Fail, "source", "unknown, the daemon does not say: " + Show(daemon.statusFailure),
                "journalctl -u tovric-vessad"};
    }
    const ServiceStatus& status = *daemon.status;
    const std::string source = Show(status.source);
    if (status.source == "built-in sample host") {
        return {
            Result::Ok, "source", "the built-in sample host: its VMs do not exist",
            "name the source in /etc/default/tovric-vessad (SOURCE), then: systemctl restart tovric-vessad"};
    }
    if (status.connected) {
        return {Result::Ok, "source", source + " is connected", ""};
    }
    if (!status.lastError && !status.snapshotAge) {
        return {Result::Unknown, "source", source + " has not been read yet", "run kelv-status again"};
    }
    return {
        Result::Fail, "source", source + " cannot be read: " + Show(status.lastError.value_or("unknown")),
        status.source.starts_with("described host ")
            ? "correct the file, which the user tovric-vessad must be able to read, then: systemctl reload "
              "tovric-vessad"
            : "of this host: systemctl status libvirtd virtqemud, the daemon finds it again by itself; where "
              "there is none: install libvirt-daemon-system, or name the source in "
              "/etc/default/tovric-vessad; of another host: "
              "/usr/share/doc/tovric-vessad/examples/remote-libvirt.conf"};
}

Check JudgeSnapshot(const ServiceStatus& status) {
    const std::string vms = std::to_string(status.vms) + (status.vms == 1 ? " VM" : " VMs");
    if (!status.snapshotAge) {
        return status.lastError
                   ? Check{Result::Fail, "snapshot", "none yet, " + vms, asForSource}
                   : Check{Result::Unknown, "snapshot", "none yet, " + vms, "run kelv-status again"};
    }
    const std::string text = vms + ", read " + Seconds(*status.snapshotAge) + " ago";
    if (status.vms > 0) {
        return {Result::Ok, "snapshot", text + (status.connected ? "" : " and still served"), ""};
    }
    if (status.connected) {
        return {Result::Ok, "snapshot", text, "libvirt: virsh -c URI list --all, as root, shows what it has"};
    }
    return {Result::Fail, "snapshot", text + "; an inventory that cannot be renewed is served for 60 s",
            asForSource};
}

std::string Name(const AgentFacts& agent) {
    return "snmpd (process " + std::to_string(agent.process) + ", user " + Show(agent.user) + ")";
}

Check JudgeModule(const AgentFacts& agent) {
    switch (agent.module) {
        case AgentFacts::Module::Loaded:
            return {Result::Ok, "module", Name(agent) + " has loaded it", ""};
        case AgentFacts::Module::Replaced:
            return {Result::Fail, "module", Name(agent) + " runs one whose file was replaced since",
                    "systemctl restart snmpd"};
        case AgentFacts::Module::NotLoaded:
            return {Result::Fail, "module", Name(agent) + " has not loaded it", loadModule};
        case AgentFacts::Module::Unknown:
            break;
    }
    return {Result::Unknown, "module", Name(agent) + " does not show what it has loaded",
            "run kelv-status as root"};
}

Check JudgeTicket(const AgentFacts& agent, const std::optional<Ticket>& ticket) {
    if (!ticket) {
        return {Result::Unknown, "ticket",
                "whether " + Name(agent) + " may read tickets is unknown without one", ""};
    }
    if (MayRead(*ticket, agent.credentials)) {
        return {Result::Ok, "ticket", Name(agent) + " may read tickets", ""};
    }
    const std::string group = Show(agent.group);
    return {Result::Fail, "ticket", Name(agent) + " may not read tickets (" + Show(ticket->description) + ")",
            "usermod --append --groups " + group + " tovric-vessad, and TICKET_GROUP=" + group +
                " in /etc/default/tovric-vessad (option --ticket-group), then: systemctl restart "
                "tovric-vessad"};
}

// Whether the local agents have loaded the module; nothing when they differ or do not show it.
std::optional<bool> IsLoaded(const std::vector<AgentFacts>& agents) {
    using Module = AgentFacts::Module;
    const auto isLoaded = [](const AgentFacts& agent) {
        return agent.module == Module::Loaded || agent.module == Module::Replaced;
    };
    if (std::ranges::all_of(agents, isLoaded)) {
        return agents.empty() ? std::nullopt : std::optional(true);
    }
    const bool none = std::ranges::all_of(
        agents, [](const AgentFacts& agent) { return agent.module == Module::NotLoaded; });
    return none ? std::optional(false) : std::nullopt;
}

Check JudgeMissingObject(const QueryFacts& query, const std::vector<AgentFacts>& agents) {
    const std::string missing = Show(query.agent) + " shows no prodName: ";
    const std::optional<bool> loaded = IsLoaded(agents);
    if (!loaded) {
        return {Result::Fail, "query",
                missing + "the module is not loaded, or the view of this user or community excludes it",
                recipes};
    }
    if (*loaded) {
        return {Result::Fail, "query", missing + "the view of this user or community excludes it", recipes};
    }
    return {Result::Fail, "query", missing + "the module is not loaded", "see the remedy of module"};
}

Check JudgeQuery(const QueryFacts& query, const std::vector<AgentFacts>& agents) {
    const std::string time = std::to_string(query.time.count()) + " ms";
    const std::string agent = Show(query.agent);
    switch (query.outcome) {
        case QueryFacts::Outcome::NotTested:
            break;
        case QueryFacts::Outcome::Answered:
            if (query.text.empty()) {
                return {Result::Fail, "query", "prodName of " + agent + " is empty",
                        "the module does not reach the daemon, or this one never reached its source: the "
                        "agent's log (-LOi) says more"};
            }
            return {Result::Ok, "query", agent + " answers prodName (" + Show(query.text) + ") in " + time,
                    ""};
        case QueryFacts::Outcome::NoSuchObject:
            return JudgeMissingObject(query, agents);
        case QueryFacts::Outcome::NoAccess:
            return {Result::Fail, "query", agent + " gives this user or community no access", recipes};
        case QueryFacts::Outcome::TimedOut:
            return {
                Result::Fail, "query", agent + " does not answer within " + time,
                "systemctl status snmpd says whether the agent runs; it listens where agentaddress says, and "
                "ignores an unknown community and a wrong privacy passphrase"};
        case QueryFacts::Outcome::Failed:
            return {Result::Fail, "query", agent + " refuses it: " + Show(query.text),
                    "check the name of the agent, the user, the level and the passphrases"};
    }
    return {Result::Unknown, "query", "not tested",
            "give the options of snmpget, or as root: SNMPCONFPATH=/etc/snmp/kelv kelv-status"};
}

}  // namespace

Report Judge(const Facts& facts) {
    Report report;
    const DaemonFacts& daemon = facts.daemon;
    report.checks.push_back(JudgeDaemon(daemon));
    if (daemon.owner) {
        report.checks.push_back(JudgeLogin(facts));
    }
    if (daemon.loggedIn) {
        report.checks.push_back(JudgeSource(daemon));
    } else {
        report.checks.push_back({Result::Unknown, "source", "unknown without a login", ""});
    }
    if (daemon.status) {
        report.checks.push_back(JudgeSnapshot(*daemon.status));
        report.source = Show(daemon.status->source);
        report.connected = daemon.status->connected;
        report.vms = daemon.status->vms;
        report.snapshotAge = daemon.status->snapshotAge;
    }
    if (facts.agents.empty()) {
        report.checks.push_back(
            {Result::Fail, "module", "no snmpd runs in this network", "systemctl status snmpd"});
    }
    for (const AgentFacts& agent : facts.agents) {
        report.checks.push_back(JudgeModule(agent));
        report.checks.push_back(JudgeTicket(agent, daemon.ticket));
    }
    report.checks.push_back(JudgeQuery(facts.query, facts.agents));
    if (facts.query.outcome == QueryFacts::Outcome::Answered) {
        report.queryTime = facts.query.time.count();
    }
    return report;
}

}  // namespace KelvStatus
