// kelv-status: says which parts of the chain from the virtualisation host to a manager work.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <cstddef>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "apps/status/AgentProcesses.h"
#include "apps/status/DaemonProbe.h"
#include "apps/status/Judgement.h"
#include "apps/status/Names.h"
#include "apps/status/TestQuery.h"
#include "apps/version/Version.h"

namespace {

constexpr int cannotTell = 2;

KelvStatus::Credentials OwnCredentials() {
    std::vector<gid_t> groups(NGROUPS_MAX);
    groups.resize(static_cast<std::size_t>(std::max(::getgroups(NGROUPS_MAX, groups.data()), 0)));
    groups.push_back(::getegid());
    return {::geteuid(), groups};
}

int Run(int argc, const char* const* argv) {
    bool json = false;
    CLI::App app{"Says what works between this virtualisation host and its managers.", "kelv-status"};
    app.add_flag("--json", json, "Print one JSON object");
    app.set_version_flag("--version", std::string("kelv-status ") + Kelv::version,
                         "Print the version and its commit and exit");
    app.prefix_command();
    app.footer(
        "Further arguments are those of snmpget: [SNMP OPTIONS] [AGENT]; see kelv-status(8).\n"
        "Exit code: 0 everything works, 1 something fails, 2 something cannot be told.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& stop) {
        return app.exit(stop) == 0 ? 0 : cannotTell;
    }
    std::vector<std::string> arguments = app.remaining();
    json = std::erase(arguments, "--json") > 0 || json;
    KelvStatus::TestQuery query(arguments);
    if (query.GetExitCode()) {
        return *query.GetExitCode();
    }
    KelvStatus::Facts facts;
    facts.self = OwnCredentials();
    facts.user = KelvStatus::UserName(facts.self.user);
    facts.daemon = KelvStatus::ProbeDaemon();
    facts.agents = KelvStatus::ListAgents();
    facts.query = query.Run();
    const KelvStatus::Report report = Judge(facts);
    std::cout << (json ? ToJson(report) : ToText(report)) << std::flush;
    return ExitCode(report);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& failure) {
        std::cerr << "kelv-status: " << failure.what() << "\n";
        return cannotTell;
    }
}
