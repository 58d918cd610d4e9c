// The scalars' handlers, with the real client and a fake daemon. The client keeps what it has read for the
// process, so the tests need a process each.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <stdexcept>

#include "apps/snmp/SNMPKelv.h"
#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPSystem.h"
#include "tests/support/fake_daemon.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/handler_call.h"

namespace {

using Tessim::MakeRef;
using TestSupport::LogLine;
using TestSupport::TakeDetail;

const std::string processDirectory = "/proc/tovric/vm";
const LogLine noClient{4, "SNMPSystemGetProdInfo: Could not acquire ordane client to tovric-vessad.\n"};
const LogLine noContent{
    4, "SNMPSystemGetProdInfo: Could not fetch service instance content via ordane client.\n"};

LogLine WrongFormat(const std::string& version) {
    return {4,
            "SNMPSystemGetProdInfo: product version " + version + " not in major.minor.revision format.\n"};
}

class Scalars : public testing::Test {
  protected:
    Scalars() {
        RegisterGroups();
        log.Take();
        TakeDetail();
    }

    void SetProduct(const std::string& name, const std::string& version, const std::string& build) {
        auto about = MakeRef<Hask::AboutInfo>();
        about->SetName(name);
        about->SetVersion(version);
        about->SetBuild(build);
        daemon.host.content->SetAbout(about);
    }
    void SetCores(int cores) {
        auto cpu = MakeRef<Hask::Host::CpuInfo>();
        cpu->SetNumCpuCores(cores);
        daemon.host.hardware = MakeRef<Hask::Host::HardwareInfo>();
        daemon.host.hardware->SetCpuInfo(cpu);
    }
    // In bytes.
    void SetMemory(std::int64_t reserved, std::int64_t unreserved) {
        auto& info = daemon.host.consoleReservation;
        info = MakeRef<Hask::Host::MemoryManagerSystem::ServiceConsoleReservationInfo>();
        info->SetServiceConsoleReserved(reserved);
        info->SetUnreserved(unreserved);
    }

    // The answer to a GET of the scalar's instance, as text.
    static std::string Read(const std::string& label) {
        const RegisteredVariable scalar = FindVariable(label);
        const Answer answer = scalar.Get({0});
        EXPECT_TRUE(answer.answered) << label;
        return answer.Text(scalar.type);
    }

    // The product's scalars; the version identifier without its prefix.
    static std::vector<std::string> ReadProduct() {
        const std::string versionId = Read("prodOID");
        const std::string prefix = "1.3.6.1.4.1.32473.60.1.";
        EXPECT_TRUE(versionId.starts_with(prefix)) << versionId;
        return {Read("prodName"), Read("prodVersion"), Read("prodBuild"), versionId.substr(prefix.size())};
    }

    TestSupport::LogCapture log;
    TestSupport::FakeDaemon daemon;
    TestSupport::FaultInjection faults;
};

using Texts = std::vector<std::string>;

struct Handler {
    FindVarMethod* handler;
    const char* detail;  // of a request for a magic that no scalar has
    bool always;         // left after every answer
};
const Handler handlers[] = {{SNMP_System, "SNMPSystem : Unknown variable requested.\n", false},
                            {SNMP_ResCPU, "SNMPResCPU: Unknown variable requested\n", true},
                            {SNMP_ResMem, "SNMP_ResMem: Unknown variable requested.\n", false},
                            {SNMP_KelvNorv, "SNMPKelvNorv: Unknown variable requested.\n", false}};

TEST_F(Scalars, ReturnTheirValues) {
    SetProduct("Tovric Kelv Server", "3.0.2", "13638");
    SetCores(8);
    SetMemory(285212672, 1862270976);
    faults.SetExists(processDirectory, true);
    Read("memTotal");  // the later requests read the reserved memory in kilobytes
    const std::map<std::string, std::string> values{{"prodName", "Tovric Kelv Server"},
                                                    {"prodVersion", "3.0.2"},
                                                    {"prodOID", "1.3.6.1.4.1.32473.60.1.3.0.2"},
                                                    {"prodBuild", "13638"},
                                                    {"numCpuCores", "8"},
                                                    {"memTotal", "2097152"},
                                                    {"memReserved", "278528"},
                                                    {"memUnreserved", "1818624"},
                                                    {"kernelLoaded", "yes"}};
    std::size_t count = 0;
    for (const Handler& handler : handlers) {
        TakeDetail();
        for (const RegisteredVariable& scalar : VariablesOf(handler.handler)) {
            SCOPED_TRACE(scalar.label);
            ++count;
            for (const Answer& answer : {scalar.Get({0}), scalar.GetNext({})}) {
                ASSERT_TRUE(answer.answered);
                EXPECT_EQ(answer.Text(scalar.type), values.at(scalar.label));
                EXPECT_EQ(answer.name, Join(scalar.name, {0}));
                EXPECT_TRUE(answer.writeMethodNull);
            }
            EXPECT_EQ(TakeDetail(), handler.always ? handler.detail : "");
        }
    }
    EXPECT_EQ(count, values.size());
    EXPECT_EQ(daemon.CountCalls("GetChildEntity"), 0);
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST_F(Scalars, HaveInstance0Only) {
    SetProduct("name", "3.0.2", "build");
    faults.SetExists(processDirectory, true);
    for (const Handler& handler : handlers) {
        for (const RegisteredVariable& scalar : VariablesOf(handler.handler)) {
            EXPECT_FALSE(scalar.Get({}).answered);
            EXPECT_FALSE(scalar.Get({1}).answered);
            EXPECT_FALSE(scalar.GetNext({0}).answered);
        }
    }
    EXPECT_EQ(TakeDetail(), "");
    EXPECT_EQ(faults.Stat64Calls(), 0);
    EXPECT_EQ(daemon.CountCalls("GetHardware"), 0);
    EXPECT_EQ(daemon.CountCalls("GetConsoleReservationInfo"), 0);
}

TEST_F(Scalars, LeaveADetailForAMagicThatNoScalarHas) {
    SetProduct("name", "3.0.2", "build");
    for (const Handler& handler : handlers) {
        const std::vector<RegisteredVariable> scalars = VariablesOf(handler.handler);
        for (const int magic : {0, scalars.front().magic - 1, scalars.back().magic + 1, 255}) {
            RegisteredVariable unknown = scalars[0];
            unknown.magic = static_cast<u_char>(magic);
            EXPECT_FALSE(unknown.Get({0}).answered);
            EXPECT_EQ(TakeDetail(), handler.detail);
        }
    }
}

TEST_F(Scalars, KeepExceptionsFromTheAgent) {
    const struct {
        const char* scalar;
        const char* method;
        const char* handlerName;
    } cases[] = {{"prodName", "RetrieveContent", "SNMP_System"},
                 {"numCpuCores", "GetHardware", "SNMP_ResCPU"},
                 {"memTotal", "GetConsoleReservationInfo", "SNMP_ResMem"}};
    for (const auto& each : cases) {
        daemon.WhenCalled(each.method, [] { throw std::runtime_error("stop"); });
        EXPECT_FALSE(FindVariable(each.scalar).Get({0}).answered);
        EXPECT_EQ(log.Take(), (std::vector<LogLine>{{3, std::string(each.handlerName) + ": stop\n"}}));
    }
}

// The number of CPU cores.

class Cores : public Scalars, public testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(Cores, AreASigned16BitCount) {
    SetCores(GetParam().first);
    EXPECT_EQ(Read("numCpuCores"), std::to_string(GetParam().second));
    EXPECT_EQ(Read("numCpuCores"), std::to_string(GetParam().second));
}

INSTANTIATE_TEST_SUITE_P(Limits, Cores,
                         testing::Values(std::pair(32767, 32767), std::pair(32768, -32768),
                                         std::pair(65535, -1), std::pair(65536, 0), std::pair(65537, 1),
                                         std::pair(-1, -1), std::pair(0, 0)));

TEST_F(Scalars, ReadTheNumberOfCoresUntilItIsKnown) {
    EXPECT_EQ(Read("numCpuCores"), "0");
    SetCores(8);
    EXPECT_EQ(Read("numCpuCores"), "8");
    EXPECT_EQ(daemon.CountCalls("GetHardware"), 2);
}

// The service console's memory. A reservation below a kilobyte is not cached, so that every request reads it.

TEST_F(Scalars, ReturnReservedMemoryInBytesOnTheFirstRequestOnly) {
    SetMemory(285212672, 1862270976);
    EXPECT_EQ(Read("memUnreserved"), std::to_string(2097152 - 285212672));
    EXPECT_EQ(Read("memUnreserved"), "1818624");
    EXPECT_EQ(Read("memReserved"), "278528");
}

TEST_F(Scalars, ComputeUnreservedMemoryOnEveryRequest) {
    SetMemory(100, 1023900);
    EXPECT_EQ(Read("memReserved"), "100");
    EXPECT_EQ(Read("memUnreserved"), "900");
    EXPECT_EQ(Read("memUnreserved"), "900");
    EXPECT_EQ(Read("memReserved"), "100");
    SetMemory(400, 1023600);
    EXPECT_EQ(Read("memUnreserved"), "600");
}

TEST_F(Scalars, WrapUnreservedMemoryAround) {
    SetMemory(-1, 2147483647LL * 1024 + 1);
    EXPECT_EQ(Read("memTotal"), "2147483647");
    EXPECT_EQ(Read("memReserved"), "-1");
    EXPECT_EQ(Read("memUnreserved"), "-2147483648");
}

TEST_F(Scalars, ReturnNoMemoryWhileTheDaemonIsDown) {
    SetMemory(100, 1023900);
    EXPECT_EQ(Read("memReserved"), "100");
    daemon.WhenSent("GetConsoleReservationInfo", [] { throw Tessim::StreamException("connection reset"); });
    EXPECT_EQ(Read("memTotal"), "0");
    daemon.down = "connection refused";
    for (const char* const scalar : {"memTotal", "memReserved", "memUnreserved"}) {
        EXPECT_EQ(Read(scalar), "0");
    }
}

// The kernel module's process directory.

TEST_F(Scalars, ReadTheProcessDirectoryOnEveryRequest) {
    EXPECT_EQ(Read("kernelLoaded"), "no");  // no host that builds this has the directory
    for (const bool exists : {true, false, true}) {
        faults.SetExists(processDirectory, exists);
        EXPECT_EQ(Read("kernelLoaded"), exists ? "yes" : "no");
    }
    EXPECT_EQ(faults.Stat64Calls(), 3);
    for (const int error : {ENOENT, EACCES, EIO, ENOTDIR, ELOOP, ENAMETOOLONG, EOVERFLOW, ENOMEM}) {
        faults.FailStat64(processDirectory, error);
        EXPECT_EQ(Read("kernelLoaded"), "no") << error;
    }
    EXPECT_EQ(faults.Stat64Calls(), 11);
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

// The product.

TEST_F(Scalars, ReadTheProductOnce) {
    SetProduct("first", "3.x.2", "1");
    EXPECT_EQ(Read("prodName"), "first");
    EXPECT_EQ(log.Take(), (std::vector<LogLine>{{4, "Get Product Version: invalid version: x\n"}}));
    SetProduct("second", "4.5.6", "2");
    EXPECT_EQ(ReadProduct(), (Texts{"first", "3.x.2", "1", "3.0.2"}));
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});  // not read again, and not parsed again
    EXPECT_EQ(daemon.CountCalls("RetrieveContent"), 1);
}

TEST_F(Scalars, ReadTheProductBeforeTheInstanceIsMatched) {
    SetProduct("name", "3.0.2", "1");
    EXPECT_FALSE(FindVariable("prodName").Get({7}).answered);
    EXPECT_EQ(daemon.CountCalls("RetrieveContent"), 1);
}

class VersionOfTwoOrFourParts : public Scalars, public testing::WithParamInterface<const char*> {};

TEST_P(VersionOfTwoOrFourParts, IsReportedOnEveryRequest) {
    SetProduct("name", GetParam(), "build");
    EXPECT_EQ(ReadProduct(), (Texts{"name", GetParam(), "build", "0.0.0"}));
    EXPECT_EQ(log.Take(), std::vector(4, WrongFormat(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Versions, VersionOfTwoOrFourParts,
                         testing::Values("3.0", "3.0.2.1", "", "3", "3.0.2."));

TEST_F(Scalars, TakeEveryPartThatIsNoNumberAs0) {
    SetProduct("name", "a..99999999999", "build");
    EXPECT_EQ(ReadProduct().back(), "0.0.0");
    EXPECT_EQ(log.Take(), (std::vector<LogLine>{{4, "Get Product Version: invalid version: a\n"},
                                                {4, "Get Product Version: invalid version: \n"},
                                                {4, "Get Product Version: invalid version: 99999999999\n"}}));
}

TEST_F(Scalars, TakeANegativePartAsItsUnsigned32Bits) {
    SetProduct("name", "3.-1.2", "build");
    EXPECT_EQ(ReadProduct().back(), "3.4294967295.2");
}

TEST_F(Scalars, ReturnEmptyTextsUntilTheDaemonIsReached) {
    daemon.down = "connection refused";
    SetProduct("name", "3.0.2", "build");
    EXPECT_EQ(ReadProduct(), (Texts{"", "", "", "0.0.0"}));
    const std::vector<LogLine> lines = log.Take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), noClient), 4);
    EXPECT_EQ(lines.back(), noClient);
    EXPECT_EQ(daemon.openings.size(), 4U);
    daemon.down = "";
    EXPECT_EQ(Read("prodName"), "name");
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST_F(Scalars, ReturnEmptyTextsUntilTheContentIsRead) {
    SetProduct("name", "3.0.2", "build");
    daemon.WhenCalled("RetrieveContent", [] { throw Tessim::Exception("busy"); });
    EXPECT_EQ(Read("prodName"), "");
    EXPECT_EQ(log.Take().back(), noContent);
    daemon.WhenCalled("RetrieveContent", nullptr);
    EXPECT_EQ(Read("prodName"), "name");
    EXPECT_EQ(log.Take(), std::vector<LogLine>{});
}

TEST_F(Scalars, ReturnEmptyTextsForContentWithoutAProduct) {
    EXPECT_EQ(Read("prodName"), "");
    EXPECT_EQ(log.Take(), std::vector{noContent});
}

TEST_F(Scalars, TruncateProductTextsToTheirBuffers) {
    SetProduct(std::string(256, 'n'), "1234567890.12.345", "0123456789abcdef");
    // The identifier is made from the whole version.
    EXPECT_EQ(ReadProduct(),
              (Texts{std::string(255, 'n'), "1234567890.12.3", "0123456789abcde", "1234567890.12.345"}));
}

TEST_F(Scalars, ReportAWrongVersionTruncated) {
    SetProduct("name", "1234567890.1234567890", "build");
    EXPECT_EQ(Read("prodVersion"), "1234567890.1234");
    EXPECT_EQ(log.Take(), std::vector{WrongFormat("1234567890.1234")});
}

}  // namespace
