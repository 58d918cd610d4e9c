// The scalars' handlers, with the real client and a fake daemon. The client keeps what it has read for the
// process, so the tests need a process each.
#include <algorithm>
#include <cerrno>

#include "apps/snmp/SNMPKelv.h"
#include "apps/snmp/SNMPResCPU.h"
#include "apps/snmp/SNMPResMem.h"
#include "apps/snmp/SNMPSystem.h"
#include "tests/support/fault_injection.h"
#include "tests/unit/snmp/handler_call.h"
#include "tests/unit/snmp_refresh/fixture.h"

namespace {

using TestSupport::TakeDetail;

const std::string processDirectory = "/proc/tovric/vm";

// The answer as text, then the detail that it left.
std::string ToText(const RegisteredVariable& scalar, const Answer& answer) {
    std::string text = "nothing";
    if (answer.answered) {
        const bool right = answer.name == Join(scalar.name, {0}) && answer.writeMethodNull;
        text = answer.Text(scalar.type) + (right ? "" : " of a wrong instance");
    }
    std::string detail = TakeDetail();
    std::replace(detail.begin(), detail.end(), '\n', '|');
    return text + (detail.empty() ? "" : " [" + detail + ']');
}

class Scalars : public RefreshTests::DaemonTest {
  protected:
    Scalars() {
        RegisterGroups();
        TakeDetail();
        // A GET of the scalar's instance, and a GETNEXT that leads to it.
        Add("get", [](const std::string& label) {
            const RegisteredVariable scalar = FindVariable(label);
            return ToText(scalar, scalar.Get({0}));
        });
        Add("next", [](const std::string& label) {
            const RegisteredVariable scalar = FindVariable(label);
            return ToText(scalar, scalar.GetNext({}));
        });
        // Requests that no instance answers.
        Add("beside", [](const std::string& label) {
            const RegisteredVariable scalar = FindVariable(label);
            return ToText(scalar, scalar.Get({})) + ", " + ToText(scalar, scalar.Get({7})) + ", " +
                   ToText(scalar, scalar.GetNext({0}));
        });
        // A GET with another magic.
        Add("magic", [](const std::string& text) {
            const std::size_t blank = text.find(' ');
            RegisteredVariable scalar = FindVariable(text.substr(blank + 1));
            scalar.magic = static_cast<u_char>(std::stoi(text));
            return ToText(scalar, scalar.Get({0}));
        });
        Add("product", [this](const std::string& text) {
            const std::size_t version = text.find('|') + 1;
            const std::size_t build = text.find('|', version) + 1;
            host.content->SetAbout(Tessim::MakeRef<Hask::AboutInfo>());
            host.content->GetAbout()->SetName(text.substr(0, version - 1));
            host.content->GetAbout()->SetVersion(text.substr(version, build - version - 1));
            host.content->GetAbout()->SetBuild(text.substr(build));
        });
        Add("directory",
            [this](const std::string& exists) { faults.SetExists(processDirectory, exists == "exists"); });
        Add("checks", [this] { return faults.Stat64Calls(); });
    }
    bool Shows(const std::string& event) const override { return event.starts_with("call "); }
    bool Shows(const RefreshTests::LogLine& line) const override {
        return line.text.starts_with("SNMP") || line.text.starts_with("Get ");
    }

    TestSupport::FaultInjection faults;
};

TEST_F(Scalars, ReturnTheirValuesAndDetails) {
    RefreshTests::SetCores(host, 32768);
    RefreshTests::SetMemory(host, 285212672, 1862270976);
    // A signed 16-bit count of cores, and reserved memory in bytes on the first request only.
    Check(R"(
product Tovric Kelv Server|3.0.2|13638; directory exists
next prodName; get prodName -> Tovric Kelv Server Tovric Kelv Server (AcquireLocalTicket, Login, RetrieveContent)
next prodVersion; get prodVersion -> 3.0.2 3.0.2
next prodOID; get prodOID -> 1.3.6.1.4.1.32473.60.1.3.0.2 1.3.6.1.4.1.32473.60.1.3.0.2
next prodBuild; get prodBuild -> 13638 13638
get numCpuCores -> -32768 [SNMPResCPU: Unknown variable requested|] (GetHardware)
next numCpuCores -> -32768 [SNMPResCPU: Unknown variable requested|]
get memUnreserved; next memUnreserved -> -283115520 1818624 (GetConsoleReservationInfo)
next memTotal; get memTotal -> 2097152 2097152
next memReserved; get memReserved -> 278528 278528
next kernelLoaded; get kernelLoaded -> yes yes
)");
}

TEST_F(Scalars, HaveInstance0Only) {
    // The product is read before the instance is matched.
    Check(R"(
product name|3.0.2|1; directory exists
beside prodName -> nothing, nothing, nothing (AcquireLocalTicket, Login, RetrieveContent)
beside prodOID -> nothing, nothing, nothing
beside numCpuCores -> nothing, nothing, nothing
beside memTotal -> nothing, nothing, nothing
beside memUnreserved -> nothing, nothing, nothing
beside kernelLoaded -> nothing, nothing, nothing
checks -> 0
)");
}

TEST_F(Scalars, LeaveADetailForAMagicThatNoScalarHas) {
    Check(R"(
product name|3.0.2|1
magic 0 prodName -> nothing [SNMPSystem : Unknown variable requested.|] (AcquireLocalTicket, Login, RetrieveContent)
magic 5 prodName -> nothing [SNMPSystem : Unknown variable requested.|]
magic 1 numCpuCores -> nothing [SNMPResCPU: Unknown variable requested|]
magic 3 numCpuCores -> nothing [SNMPResCPU: Unknown variable requested|]
magic 1 memTotal -> nothing [SNMP_ResMem: Unknown variable requested.|] (GetConsoleReservationInfo)
magic 5 memTotal -> nothing [SNMP_ResMem: Unknown variable requested.|] (GetConsoleReservationInfo)
magic 0 kernelLoaded -> nothing [SNMPKelvNorv: Unknown variable requested.|]
magic 2 kernelLoaded -> nothing [SNMPKelvNorv: Unknown variable requested.|]
)");
}

TEST_F(Scalars, KeepExceptionsFromTheAgent) {
    Check(R"(
throw RetrieveContent; get prodName -> nothing (AcquireLocalTicket, Login)
  3 SNMP_System: not of the runtime
throw GetHardware; get numCpuCores -> nothing
  3 SNMP_ResCPU: not of the runtime
throw GetConsoleReservationInfo; get memTotal -> nothing
  3 SNMP_ResMem: not of the runtime
)");
}

// A reservation below a kilobyte is not cached, so that every request reads it.
TEST_F(Scalars, ComputeUnreservedMemoryOnEveryRequest) {
    RefreshTests::SetMemory(host, 100, 1023900);
    Check(R"(
get memReserved; get memUnreserved -> 100 900 (AcquireLocalTicket, Login, GetConsoleReservationInfo, GetConsoleReservationInfo)
)");
    RefreshTests::SetMemory(host, -1, 2147483647LL * 1024 + 1);
    Check(R"(
get memTotal -> 2147483647 (GetConsoleReservationInfo)
get memReserved -> -1 (GetConsoleReservationInfo)
get memUnreserved -> -2147483648 (GetConsoleReservationInfo)
down; break GetConsoleReservationInfo; get memTotal; get memReserved; get memUnreserved -> 0 0 0 (GetConsoleReservationInfo)
)");
}

TEST_F(Scalars, ReadTheProcessDirectoryOnEveryRequest) {
    // No host that builds this has the directory.
    Check(R"(
get kernelLoaded -> no
directory exists; get kernelLoaded -> yes
directory is gone; get kernelLoaded -> no
directory exists; get kernelLoaded -> yes
checks -> 3
)");
    for (const int error : {EACCES, EIO, ENOTDIR, ELOOP, ENAMETOOLONG, EOVERFLOW, ENOMEM}) {
        faults.FailStat64(processDirectory, error);
        Check("\nget kernelLoaded -> no\n");
    }
}

// The product.

TEST_F(Scalars, ReadTheProductOnce) {
    Check(R"(
product first|3.x.2|1; get prodName -> first (AcquireLocalTicket, Login, RetrieveContent)
  4 Get Product Version: invalid version: x
product second|4.5.6|2; get prodName; get prodVersion; get prodBuild; get prodOID -> first 3.x.2 1 1.3.6.1.4.1.32473.60.1.3.0.2
)");
}

TEST_F(Scalars, ReadAVersionOfTwoOrFourPartsOnEveryRequest) {
    Check(R"(
product name|3.0|1; get prodVersion; get prodOID -> 3.0 1.3.6.1.4.1.32473.60.1.0.0.0 (AcquireLocalTicket, Login, RetrieveContent)
  4 SNMPSystemGetProdInfo: product version 3.0 not in major.minor.revision format.
  4 SNMPSystemGetProdInfo: product version 3.0 not in major.minor.revision format.
)");
}

class VersionOfAnotherShape : public Scalars, public testing::WithParamInterface<const char*> {};

TEST_P(VersionOfAnotherShape, IsReported) {
    const std::string version = GetParam();
    Check("\nproduct name|" + version + "|build\n");
    Check(
        "\nget prodOID -> 1.3.6.1.4.1.32473.60.1.0.0.0 (AcquireLocalTicket, Login, RetrieveContent)\n"
        "  4 SNMPSystemGetProdInfo: product version " +
        version + " not in major.minor.revision format.\n");
}

INSTANTIATE_TEST_SUITE_P(Versions, VersionOfAnotherShape, testing::Values("3.0.2.1", "", "3", "3.0.2."));

TEST_F(Scalars, TakeEveryPartThatIsNoNumberAs0) {
    Check(R"(
product name|a..99999999999|1; get prodOID -> 1.3.6.1.4.1.32473.60.1.0.0.0 (AcquireLocalTicket, Login, RetrieveContent)
  4 Get Product Version: invalid version: a
  4 Get Product Version: invalid version: 
  4 Get Product Version: invalid version: 99999999999
)");
}

TEST_F(Scalars, TakeANegativePartAsItsUnsigned32Bits) {
    Check(R"(
product name|3.-1.2|1; get prodOID -> 1.3.6.1.4.1.32473.60.1.3.4294967295.2 (AcquireLocalTicket, Login, RetrieveContent)
)");
}

TEST_F(Scalars, ReturnEmptyTextsUntilTheProductIsRead) {
    Check(R"(
down; get prodName; get prodOID ->  1.3.6.1.4.1.32473.60.1.0.0.0
  4 SNMPSystemGetProdInfo: Could not acquire ordane client to tovric-vessad.
  4 SNMPSystemGetProdInfo: Could not acquire ordane client to tovric-vessad.
up; fail RetrieveContent; get prodName ->  (AcquireLocalTicket, Login)
  4 SNMPSystemGetProdInfo: Could not fetch service instance content via ordane client.
repair RetrieveContent; product name|3.0.2|1; get prodName -> name (RetrieveContent)
)");
}

TEST_F(Scalars, ReturnEmptyTextsForContentWithoutAProduct) {
    host.content->SetAbout(nullptr);
    Check(R"(
get prodName ->  (AcquireLocalTicket, Login, RetrieveContent)
  4 SNMPSystemGetProdInfo: Could not fetch service instance content via ordane client.
)");
}

// The identifier is made from the whole version.
TEST_F(Scalars, TruncateProductTextsToTheirBuffers) {
    const std::string name(255, 'n');
    Check("\nproduct " + name + "n|1234567890.12.345|0123456789abcdef\n");
    Check("\nget prodName -> " + name + " (AcquireLocalTicket, Login, RetrieveContent)\n" +
          R"(get prodVersion; get prodBuild -> 1234567890.12.3 0123456789abcde
get prodOID -> 1.3.6.1.4.1.32473.60.1.1234567890.12.345
)");
}

TEST_F(Scalars, AskForTheProductUntilItHasAName) {
    Check(R"(
product |3.0.2|1; get prodVersion -> 3.0.2 (AcquireLocalTicket, Login, RetrieveContent)
product name|3.0.2|1; get prodName -> name (RetrieveContent)
get prodName -> name
)");
}

TEST_F(Scalars, ReportAWrongVersionTruncatedAndEscaped) {
    Check(R"(
product name|1234567890.1234567890|1; get prodVersion -> 1234567890.1234 (AcquireLocalTicket, Login, RetrieveContent)
  4 SNMPSystemGetProdInfo: product version 1234567890.1234 not in major.minor.revision format.
)");
}

TEST_F(Scalars, ReportAWrongVersionEscaped) {
    host.content->GetAbout()->SetVersion("1\n2");
    Check(R"(
get prodBuild ->  (AcquireLocalTicket, Login, RetrieveContent)
  4 SNMPSystemGetProdInfo: product version 1\x0a2 not in major.minor.revision format.
)");
}

}  // namespace
