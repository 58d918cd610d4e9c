// What the tests of the client and of the refresh share.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "apps/snmp/client/OrdaneClient.h"
#include "runtime/tessim/exception.h"
#include "tests/support/api_objects.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/log_capture.h"

namespace RefreshTests {

using namespace ApiObjects;
using SNMP::OrdaneClient;
using Tessim::MakeRef;
using TestSupport::FakeDaemon;
using TestSupport::FakeHost;
using TestSupport::LogCapture;
using TestSupport::LogLine;

using Lines = std::vector<LogLine>;
using VmArray = Ordane::DataArray<Hask::VirtualMachine>;

// A daemon, and commands whose effects are compared as text.
class DaemonTest : public testing::Test {
  protected:
    DaemonTest();

    // Plays a session and expects that what happens is what it says. A line is
    //     command argument; command argument -> results (calls sent, and connections opened or closed)
    // and what a line logs follows it, indented, with priorities. Lines that start with "#" are comments.
    void Check(const std::string& session);

    // Adds a command. The action may take the argument; its result is what the session shows.
    template <class Action>
    void Add(const std::string& name, Action action) {
        commands[name] = [action](const std::string& argument) {
            const auto run = [&] {
                if constexpr (std::is_invocable_v<Action, std::string>) {
                    return action(argument.empty() ? argument : argument.substr(1));
                } else {
                    return action();
                }
            };
            std::ostringstream text;
            if constexpr (std::is_void_v<decltype(run())>) {
                run();
            } else {
                text << ' ' << std::boolalpha << run();
            }
            return text.str();
        };
    }
    // Whether sessions show that event of the daemon, or that line of the log.
    virtual bool Shows(const std::string& event) const;
    virtual bool Shows(const LogLine& line) const;

    FakeDaemon daemon;
    FakeHost& host = daemon.host;
    LogCapture log;
    const Tessim::Exception failure{"it failed"};

  private:
    std::string Play(const std::string& line);

    std::map<std::string, std::function<std::string(const std::string&)>> commands;
};

// A client of its own, not the process-wide one.
class ClientTest : public DaemonTest {
  protected:
    ClientTest();

    Ref<VmArray> AllVms() const {
        Ref<VmArray> vms = MakeRef<VmArray>();
        client->GetAllVM(vms);
        return vms;
    }

    Ref<OrdaneClient> client = MakeRef<OrdaneClient>();
};

// The text of each session of sessions/`file`.txt by its name: a session follows a line "== NAME". Throws
// std::runtime_error when there is no such file.
std::map<std::string, std::string> ReadSessions(const std::string& file);

// Registers a test of `Fixture` for each session of sessions/`file`.txt that `filter` admits: that it happens
// as it says.
template <class Fixture>
bool RegisterSessions(
    const char* fixture, const std::string& file,
    bool (*filter)(const std::string& session) = [](const std::string&) { return true; }) {
    class Test final : public Fixture {
      public:
        explicit Test(std::string text) : text(std::move(text)) {}
        void TestBody() override { this->Check(text); }

      private:
        std::string text;
    };
    for (const auto& [name, text] : ReadSessions(file)) {
        if (!filter(text)) {
            continue;
        }
        testing::RegisterTest(fixture, name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                              [text = text]() -> Fixture* { return new Test(text); });
    }
    return true;
}

}  // namespace RefreshTests
