#include "apps/status/Judgement.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace KelvStatus {
namespace {

using Module = AgentFacts::Module;
using Outcome = QueryFacts::Outcome;

constexpr uid_t daemonUser = 997;
constexpr uid_t agentUser = 112;
constexpr gid_t agentGroup = 119;

const Ticket ticketOfTheGroup{{daemonUser, agentGroup, 0100640},
                              {daemonUser, daemonUser, 040755},
                              "user tovric-vessad, group Debian-snmp, mode 0640"};

// Of a host on which everything works.
Facts Good() {
    Facts facts;
    facts.user = "root";
    facts.daemon.owner = "tovric-vessad";
    facts.daemon.ticket = ticketOfTheGroup;
    facts.daemon.loggedIn = true;
    facts.daemon.status = ServiceStatus{"libvirt qemu:///system", true, {}, 4, 3};
    facts.agents = {{812, {agentUser, {agentGroup}}, "Debian-snmp", "Debian-snmp", Module::Loaded}};
    facts.query = {Outcome::Answered, "localhost", "Tovric Kelv Server", std::chrono::milliseconds(2)};
    return facts;
}

const std::string works =
    "ok    daemon: accepts connections, belongs to user tovric-vessad\n"
    "ok    login: the daemon accepted a ticket\n"
    "ok    source: libvirt qemu:///system is connected\n"
    "ok    snapshot: 3 VMs, read 4 s ago\n"
    "ok    module: snmpd (process 812, user Debian-snmp) has loaded it\n"
    "ok    ticket: snmpd (process 812, user Debian-snmp) may read tickets\n"
    "ok    query: localhost answers prodName (Tovric Kelv Server) in 2 ms\n";

TEST(Report, IsTextOrOneJsonObject) {
    Facts facts = Good();
    EXPECT_EQ(ToText(Judge(facts)), works);
    EXPECT_EQ(ExitCode(Judge(facts)), 0);
    facts.daemon.status->source = "libvirt \"x\\\x1b\xff";
    facts.query = {};
    facts.agents.clear();
    EXPECT_EQ(
        ToJson(Judge(facts)),
        R"({"exitCode":1,"checks":[)"
        R"({"check":"daemon","result":"ok","text":"accepts connections, belongs to user tovric-vessad"},)"
        R"({"check":"login","result":"ok","text":"the daemon accepted a ticket"},)"
        R"({"check":"source","result":"ok","text":"libvirt \"x\\\\x1b\\xff is connected"},)"
        R"({"check":"snapshot","result":"ok","text":"3 VMs, read 4 s ago"},)"
        R"({"check":"module","result":"fail","text":"no snmpd runs in this network","remedy":"systemctl status snmpd"},)"
        R"({"check":"query","result":"unknown","text":"not tested","remedy":"give the options of snmpget, or as root: )"
        R"(SNMPCONFPATH=/etc/snmp/kelv kelv-status"}],)"
        R"("source":"libvirt \"x\\\\x1b\\xff","connected":true,"vms":3,"snapshotAge":4})"
        "\n");
}

// What of the report differs from that of a host on which everything works, and the exit code.
std::string Difference(const Facts& facts) {
    const Report report = Judge(facts);
    Report changed;
    for (const Check& check : report.checks) {
        EXPECT_TRUE(check.result != Result::Fail || !check.remedy.empty()) << check.text;
        if (works.find(ToText({{check}, {}, {}, {}, {}, {}})) == std::string::npos) {
            changed.checks.push_back(check);
        }
    }
    return ToText(changed) + std::to_string(ExitCode(report));
}

struct Case {
    std::function<void(Facts&)> change;
    std::string difference;
};

void Expect(const std::vector<Case>& cases) {
    for (const Case& each : cases) {
        Facts facts = Good();
        each.change(facts);
        EXPECT_EQ(Difference(facts), each.difference);
    }
}

TEST(Judgement, OfTheDaemon) {
    const std::string unknown =
        "?     source: unknown without a login\n"
        "?     ticket: whether snmpd (process 812, user Debian-snmp) may read tickets is unknown without "
        "one\n1";
    Expect({
        {[](Facts& facts) {
             facts.daemon = {};
             facts.daemon.connectFailure = "cannot connect to localhost:902: Connection refused";
         },
         "FAIL  daemon: cannot connect to localhost:902: Connection refused\n"
         "      systemctl start tovric-vessad.socket tovric-vessad; if that fails, journalctl -u "
         "tovric-vessad "
         "says why, and ss -lptn 'sport = :902' names another program on its port\n" +
             unknown},
        {[](Facts& facts) {
             facts.daemon = {};
             facts.daemon.connectFailure = "localhost:902: TLS handshake timed out";
             facts.daemon.timedOut = true;
         },
         "FAIL  daemon: localhost:902: TLS handshake timed out\n"
         "      journalctl -u tovric-vessad says whether it ends at its start, and why; ss -lptn 'sport = "
         ":902' names another program on its port; where it hangs: systemctl restart tovric-vessad\n" +
             unknown},
        {[](Facts& facts) {
             facts.daemon = {};
             facts.daemon.owner = "root";
             facts.daemon.ticketFailure = "no\nspace";
         },
         "ok    daemon: accepts connections, belongs to user root\n"
         "FAIL  login: the daemon issued no ticket: no\\x0aspace\n"
         "      journalctl -u tovric-vessad\n" +
             unknown},
        {[](Facts& facts) {
             facts.daemon = {};
             facts.daemon.owner = "tovric-vessad";
             facts.daemon.ticketFailure = "cannot set the group of a ticket file: Operation not permitted";
         },
         "FAIL  login: the daemon issued no ticket: cannot set the group of a ticket file: Operation not "
         "permitted\n"
         "      set TICKET_GROUP in /etc/default/tovric-vessad to the agent's group; if it already is, "
         "usermod --append --groups GROUP tovric-vessad with that group; then: systemctl restart "
         "tovric-vessad\n" +
             unknown},
    });
}

TEST(Judgement, OfTheLogin) {
    const auto reject = [](Facts& facts) {
        facts.daemon.loggedIn = false;
        facts.daemon.loginFailure = "the ticket is from the future";
        facts.daemon.status.reset();
    };
    Expect({
        {reject,
         "FAIL  login: the ticket is from the future\n"
         "      journalctl -u tovric-vessad\n"
         "?     source: unknown without a login\n1"},
        // A member of the ticket's group may do what root does here.
        {[&](Facts& facts) {
             reject(facts);
             facts.self = {1000, {1000, agentGroup}};
         },
         "FAIL  login: the ticket is from the future\n"
         "      journalctl -u tovric-vessad\n"
         "?     source: unknown without a login\n1"},
        {[&](Facts& facts) {
             reject(facts);
             facts.self = {1000, {1000}};
             facts.user = "alice";
         },
         "?     login: user alice may not read tickets (user tovric-vessad, group Debian-snmp, mode 0640)\n"
         "      run kelv-status as root\n"
         "?     source: unknown without a login\n2"},
    });
}

TEST(Judgement, OfTheSourceAndItsSnapshot) {
    const auto status = [](const ServiceStatus& status) {
        return [=](Facts& facts) { facts.daemon.status = status; };
    };
    const std::string unreadable =
        "FAIL  source: libvirt x cannot be read: no reply in time\n"
        "      of this host: systemctl status libvirtd virtqemud, the daemon finds it again by itself; where "
        "there is none: install libvirt-daemon-system, or name the source in /etc/default/tovric-vessad; of "
        "another host: /usr/share/doc/tovric-vessad/examples/remote-libvirt.conf\n";
    Expect({
        {status({"described host /h.yaml", true, {}, 86400, 1}),
         "ok    source: described host /h.yaml is connected\n"
         "ok    snapshot: 1 VM, read 86400 s ago\n0"},
        {status({"built-in sample host", true, {}, 0, 2}),
         "ok    source: the built-in sample host: its VMs do not exist\n"
         "      name the source in /etc/default/tovric-vessad (SOURCE), then: systemctl restart "
         "tovric-vessad\n"
         "ok    snapshot: 2 VMs, read 0 s ago\n0"},
        {status({"libvirt qemu:///system", true, {}, 0, 0}),
         "ok    snapshot: 0 VMs, read 0 s ago\n"
         "      libvirt: virsh -c URI list --all, as root, shows what it has\n0"},
        {status({"libvirt x", false, "no reply in time", 40, 3}),
         unreadable + "ok    snapshot: 3 VMs, read 40 s ago and still served\n1"},
        {status({"libvirt x", false, "no reply in time", 95, 0}),
         unreadable + "FAIL  snapshot: 0 VMs, read 95 s ago; an inventory that cannot be renewed is served "
                      "for 60 s\n"
                      "      see the remedy of source\n1"},
        {status({"libvirt x", false, "no reply in time", {}, 0}), unreadable +
                                                                      "FAIL  snapshot: none yet, 0 VMs\n"
                                                                      "      see the remedy of source\n1"},
        {status({"libvirt x", false, {}, {}, 0}),
         "?     source: libvirt x has not been read yet\n"
         "      run kelv-status again\n"
         "?     snapshot: none yet, 0 VMs\n"
         "      run kelv-status again\n2"},
        {status({"described host /h.yaml", false, "/h.yaml: expected", 40, 3}),
         "FAIL  source: described host /h.yaml cannot be read: /h.yaml: expected\n"
         "      correct the file, which the user tovric-vessad must be able to read, then: systemctl reload "
         "tovric-vessad\n"
         "ok    snapshot: 3 VMs, read 40 s ago and still served\n1"},
        {[](Facts& facts) {
             facts.daemon.status.reset();
             facts.daemon.isOlder = true;
         },
         "?     source: unknown, the daemon is older than kelv-status\n"
         "      systemctl restart tovric-vessad, after an update\n2"},
        {[](Facts& facts) {
             facts.daemon.status.reset();
             facts.daemon.statusFailure = "broken";
         },
         "FAIL  source: unknown, the daemon does not say: broken\n"
         "      journalctl -u tovric-vessad\n1"},
    });
}

TEST(Judgement, OfTheModuleInEachAgent) {
    const auto agent = [](const char* user, Module module) {
        return AgentFacts{7, {0, {0}}, user, "root", module};
    };
    const std::string may = "ok    ticket: snmpd (process 7, user root) may read tickets\n";
    Expect({
        {[&](Facts& facts) { facts.agents.push_back(agent("root", Module::NotLoaded)); },
         "FAIL  module: snmpd (process 7, user root) has not loaded it\n"
         "      check the line dlmod of the agent's configuration, that /etc/snmp/snmpd.conf has includeDir "
         "/etc/snmp/snmpd.conf.d, and what the agent's log says about SNMPKelv, then: systemctl restart "
         "snmpd\n" +
             may + "1"},
        {[&](Facts& facts) { facts.agents.push_back(agent("root", Module::Replaced)); },
         "FAIL  module: snmpd (process 7, user root) runs one whose file was replaced since\n"
         "      systemctl restart snmpd\n" +
             may + "1"},
        {[&](Facts& facts) { facts.agents.push_back(agent("root", Module::Unknown)); },
         "?     module: snmpd (process 7, user root) does not show what it has loaded\n"
         "      run kelv-status as root\n" +
             may + "2"},
    });
}

TEST(Judgement, OfWhoMayReadTickets) {
    const Credentials root{0, {0}};
    const Credentials daemon{daemonUser, {daemonUser}};
    const Credentials agent{agentUser, {5, agentGroup}};
    const Credentials other{agentUser, {5}};
    const Access open{daemonUser, daemonUser, 040711};
    const Access ofTheGroup{daemonUser, agentGroup, 040750};
    const Access forTheGroup{daemonUser, agentGroup, 0100640};
    const Access forTheOwner{daemonUser, agentGroup, 0100600};
    const std::vector<std::tuple<Credentials, Access, Access, bool>> cases = {
        {root, ofTheGroup, forTheOwner, true},
        {daemon, open, forTheOwner, true},
        {daemon, open, {daemonUser, 1, 0}, false},
        {agent, open, forTheGroup, true},
        {agent, ofTheGroup, forTheGroup, true},
        {agent, open, forTheOwner, false},
        {other, open, forTheGroup, false},
        {other, ofTheGroup, {daemonUser, 5, 0100640}, false},
        // Those of the owner alone count for the owner.
        {agent, open, {agentUser, agentGroup, 0100040}, false},
    };
    for (const auto& [credentials, directory, file, allowed] : cases) {
        Facts facts = Good();
        facts.agents.front().credentials = credentials;
        facts.daemon.ticket = Ticket{file, directory, "user A, group B, mode C"};
        EXPECT_EQ(
            Difference(facts),
            allowed
                ? "0"
                : "FAIL  ticket: snmpd (process 812, user Debian-snmp) may not read tickets (user A, group "
                  "B, mode C)\n"
                  "      usermod --append --groups Debian-snmp tovric-vessad, and TICKET_GROUP=Debian-snmp "
                  "in /etc/default/tovric-vessad (option --ticket-group), "
                  "then: systemctl restart tovric-vessad\n1");
    }
}

TEST(Judgement, OfTheQuery) {
    const auto query = [](Outcome outcome, const char* text = "") {
        return [=](Facts& facts) {
            facts.query = {outcome, "ho\tst", text, std::chrono::milliseconds(2001)};
        };
    };
    const std::string recipes =
        "      put a recipe of /etc/snmp/snmpd.conf.d/kelv.conf into force for this user or community, then: "
        "systemctl "
        "restart snmpd\n1";
    const auto missing = [&](Module module) {
        return [=](Facts& facts) {
            query(Outcome::NoSuchObject)(facts);
            facts.agents.front().module = module;
        };
    };
    Expect({
        {query(Outcome::Answered, "a\nb"), "ok    query: ho\\x09st answers prodName (a\\x0ab) in 2001 ms\n0"},
        {query(Outcome::Answered),
         "FAIL  query: prodName of ho\\x09st is empty\n"
         "      the module does not reach the daemon, or this one never reached its source: the agent's log "
         "(-LOi) "
         "says more\n1"},
        {query(Outcome::NotTested),
         "?     query: not tested\n"
         "      give the options of snmpget, or as root: SNMPCONFPATH=/etc/snmp/kelv kelv-status\n2"},
        {query(Outcome::NoAccess),
         "FAIL  query: ho\\x09st gives this user or community no access\n" + recipes},
        {query(Outcome::TimedOut),
         "FAIL  query: ho\\x09st does not answer within 2001 ms\n"
         "      systemctl status snmpd says whether the agent runs; it listens where agentaddress says, and "
         "ignores an unknown community and a wrong privacy passphrase\n1"},
        {query(Outcome::Failed, "Unknown user name"),
         "FAIL  query: ho\\x09st refuses it: Unknown user name\n"
         "      check the name of the agent, the user, the level and the passphrases\n1"},
        {query(Outcome::NoSuchObject),
         "FAIL  query: ho\\x09st shows no prodName: the view of this user or community excludes it\n" +
             recipes},
        {missing(Module::NotLoaded),
         "FAIL  module: snmpd (process 812, user Debian-snmp) has not loaded it\n"
         "      check the line dlmod of the agent's configuration, that /etc/snmp/snmpd.conf has includeDir "
         "/etc/snmp/snmpd.conf.d, and what the agent's log says about SNMPKelv, then: systemctl restart "
         "snmpd\n"
         "FAIL  query: ho\\x09st shows no prodName: the module is not loaded\n"
         "      see the remedy of module\n1"},
        {missing(Module::Unknown),
         "?     module: snmpd (process 812, user Debian-snmp) does not show what it has loaded\n"
         "      run kelv-status as root\n"
         "FAIL  query: ho\\x09st shows no prodName: the module is not loaded, or the view of this user or "
         "community "
         "excludes it\n" +
             recipes},
    });
}

}  // namespace
}  // namespace KelvStatus
