// What the tests of the client and of the refresh share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
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
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::FakeDaemon;
using TestSupport::FakeHost;
using TestSupport::LogCapture;
using TestSupport::LogLine;

using Lines = std::vector<LogLine>;
using VmArray = Ordane::DataArray<Hask::VirtualMachine>;

// The lines of these warnings.
inline Lines Warnings(const std::vector<std::string>& texts) {
    Lines lines;
    for (const std::string& text : texts) {
        lines.push_back({4, text});
    }
    return lines;
}

// The warnings about statistics that the last collection does not have.
inline Lines MissingStatistics(const std::vector<std::string>& names) {
    Lines lines;
    for (const std::string& name : names) {
        lines.push_back({4, "OrdaneClient::RetrieveStats: couldn't find stats for " + name + "\n"});
    }
    return lines;
}

// The texts of the lines with that priority.
inline std::vector<std::string> TextsOf(const Lines& lines, int priority) {
    std::vector<std::string> texts;
    for (const LogLine& line : lines) {
        if (line.priority == priority) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

// What a report of `failure` looks like: the message line at priority 4, then its backtrace at `priority`.
inline Lines Report(const std::string& message, const Tessim::Exception& failure, int priority) {
    Lines lines = {{4, message}};
    for (const std::string& line : failure.GetBacktrace()) {
        lines.push_back({priority, line + "\n"});
    }
    return lines;
}

inline void SetCores(FakeHost& host, int cores) {
    const auto cpu = MakeRef<Hask::Host::CpuInfo>();
    cpu->SetNumCpuCores(cores);
    host.hardware = MakeRef<Hask::Host::HardwareInfo>();
    host.hardware->SetCpuInfo(cpu);
}

// In bytes.
inline void SetMemory(FakeHost& host, std::int64_t reserved, std::int64_t unreserved) {
    host.consoleReservation = MakeRef<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>();
    host.consoleReservation->SetServiceConsoleReserved(reserved);
    host.consoleReservation->SetUnreserved(unreserved);
}

// A daemon, and the lines that reach the agent's log.
class DaemonTest : public testing::Test {
  protected:
    // Makes the connection break at that call, once.
    void BreakAt(const std::string& method) {
        daemon.WhenSent(method, [this, method] {
            daemon.WhenSent(method, nullptr);
            throw Tessim::StreamException("connection reset");
        });
    }
    // Makes that call fail, or work again.
    void FailAt(const std::string& method) {
        daemon.WhenCalled(method, [this] { throw failure; });
    }
    void Repair(const std::string& method) { daemon.WhenCalled(method, nullptr); }

    FakeDaemon daemon;
    FakeHost& host = daemon.host;
    LogCapture log;
    const Tessim::Exception failure{"it failed"};
};

// A client of its own, not the process-wide one.
class ClientTest : public DaemonTest {
  protected:
    Ref<VmArray> AllVms() {
        Ref<VmArray> vms = MakeRef<VmArray>();
        client->GetAllVM(vms);
        return vms;
    }

    Ref<OrdaneClient> client = MakeRef<OrdaneClient>();
};

}  // namespace RefreshTests
