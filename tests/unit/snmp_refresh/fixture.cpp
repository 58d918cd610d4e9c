#include "tests/unit/snmp_refresh/fixture.h"

#include <algorithm>
#include <array>
#include <exception>
#include <regex>
#include <set>
#include <stdexcept>

#include "tests/support/files.h"

namespace RefreshTests {
namespace {

// The log, indented; a backtrace as its priority behind the line that it belongs to.
std::string Render(const Lines& lines) {
    static const std::regex frame(R"((\S+\.(cpp|h):\d+ .*|.*\[0x[0-9a-f]+\])\n)");
    std::string text;
    for (auto line = lines.begin(); line != lines.end(); ++line) {
        const bool ended = line->text.ends_with('\n');
        text += "  " + std::to_string(line->priority) + ' ' + line->text.substr(0, line->text.size() - ended);
        std::set<int> priorities;
        for (; line + 1 != lines.end() && std::regex_match((line + 1)->text, frame); ++line) {
            priorities.insert((line + 1)->priority);
        }
        for (const int priority : priorities) {
            text += " (" + std::to_string(priority) + " backtrace)";
        }
        text += ended ? "\n" : " (no line feed)\n";
    }
    return text;
}

}  // namespace

std::map<std::string, std::string> ReadSessions(const std::string& file) {
    std::istringstream lines(TestSupport::ReadFile(SESSIONS "/" + file + ".txt"));
    std::map<std::string, std::string> sessions;
    std::string name;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("== ")) {
            name = line.substr(3);
        } else {
            sessions[name] += line + '\n';
        }
    }
    return sessions;
}

DaemonTest::DaemonTest() {
    Add("fail", [this](const std::string& method) { daemon.WhenCalled(method, [this] { throw failure; }); });
    Add("throw", [this](const std::string& method) {
        daemon.WhenCalled(method, [] { throw std::runtime_error("not of the runtime"); });
    });
    Add("repair", [this](const std::string& method) { daemon.WhenCalled(method, nullptr); });
    Add("fault", [this](const std::string& method) {
        host.WhenRequested(method, [] { throw Tessim::Exception("not today, %1 %s"); });
    });
    Add("serve", [this](const std::string& method) { host.WhenRequested(method, nullptr); });
    // Once.
    Add("break", [this](const std::string& method) {
        daemon.WhenSent(method, [this, method] {
            daemon.WhenSent(method, nullptr);
            throw Tessim::StreamException("connection reset");
        });
    });
    Add("down", [this] { daemon.down = "connection refused"; });
    Add("up", [this] { daemon.down.clear(); });
    Add("foreign", [this] { daemon.foreignStreams = true; });
    Add("close", [this] { daemon.closesStreams = true; });
    Add("open", [this] { daemon.closesStreams = false; });
    Add("own", [this] { daemon.foreignStreams = false; });
    Add("ticket", [this](const std::string& path) { host.ticketPath = path; });
    Add("ticket-of",
        [this](const std::string& size) { host.ticketContent = std::string(std::stoul(size), 'x'); });
    Add("product-name", [this](const std::string& name) { host.content->GetAbout()->SetName(name); });
    Add("has-cores", [this](const std::string& cores) {
        host.hardware = MakeRef<Hask::Host::HardwareInfo>();
        if (!cores.empty()) {
            const auto cpu = MakeRef<Hask::Host::CpuInfo>();
            cpu->SetNumCpuCores(std::stoi(cores));
            host.hardware->SetCpuInfo(cpu);
        }
    });
    // The bytes that are reserved and those that are not.
    Add("has-memory", [this](const std::string& bytes) {
        std::size_t blank = 0;
        host.consoleReservation = MakeRef<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>();
        host.consoleReservation->SetServiceConsoleReserved(std::stoll(bytes, &blank));
        host.consoleReservation->SetUnreserved(std::stoll(bytes.substr(blank)));
    });
    // The step of connecting that fails; without an argument, none.
    Add("step", [this](const std::string& step) { daemon.failingStep = step; });
    Add("streams", [this] { return daemon.streams; });
}

bool DaemonTest::Shows(const std::string& event) const {
    const std::array steps{"create service", "start service",  "get connection path",
                           "map ",           "create adapter", "get factory"};
    return std::none_of(steps.begin(), steps.end(),
                        [&](const char* step) { return event.starts_with(step); });
}

// An older daemon is called as often as it must.
bool DaemonTest::Shows(const LogLine& line) const {
    return host.newer || !line.text.starts_with("Making other calls in place of ");
}

void DaemonTest::Check(const std::string& session) {
    std::istringstream lines(session);
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('#')) {
            text += line + '\n';
        } else if (!line.starts_with(' ')) {
            text += Play(line.substr(0, line.find(" -> "))) + '\n';
            Lines shown = log.Take();
            std::erase_if(shown, [this](const LogLine& each) { return !Shows(each); });
            text += Render(shown);
        }
    }
    EXPECT_EQ(text, session);
}

std::string DaemonTest::Play(const std::string& line) {
    daemon.events.clear();
    log.Take();
    std::string result;
    const std::regex separator("; ");
    for (std::sregex_token_iterator at(line.begin(), line.end(), separator, -1), end; at != end; ++at) {
        const std::string command = *at;
        const std::size_t blank = std::min(command.find(' '), command.size());
        try {
            result += command.empty() ? "" : commands.at(command.substr(0, blank))(command.substr(blank));
        } catch (const std::exception& thrown) {
            result += std::string(" throws ") + thrown.what();
        }
    }
    std::string events;
    for (const std::string& event : daemon.events) {
        if (Shows(event)) {
            events += (events.empty() ? " (" : ", ") + event.substr(event.starts_with("call ") ? 5 : 0);
        }
    }
    result += events.empty() ? "" : events + ')';
    return line + (result.empty() ? "" : " ->" + result);
}

ClientTest::ClientTest() {
    Add("init", [this] { return client->Init(nullptr); });
    Add("drop?", [this] { return client->DropUselessConnection(); });
    Add("connected?", [this] { return client->IsInitialized(); });
    Add("list", [this] {
        Ref<VmArray> vms = Array<Hask::VirtualMachine>({Hask::VirtualMachine::MakeStub(nullptr, "old")});
        client->GetAllVM(vms);
        std::string text = vms ? "VMs" : "null";
        for (int i = 0; vms && i < vms->GetLength(); ++i) {
            text += ' ' + (*vms)[i]->GetMoRef()->GetId();
        }
        return text;
    });
    Add("content", [this] {
        auto content = MakeRef<Hask::ServiceInstanceContent>();
        client->GetServiceInstanceContent(content);
        return content ? "content" : "null";
    });
    Add("new", [this] { client = MakeRef<OrdaneClient>(); });
    Add("end", [this] { client.Reset(); });
}

}  // namespace RefreshTests
