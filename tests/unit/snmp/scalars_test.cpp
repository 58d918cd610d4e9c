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
        Add("product-missing", [this] { host.content->SetAbout(nullptr); });
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

const bool registered = RefreshTests::RegisterSessions<Scalars>("Scalars", "scalars");

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

// The identifier is made from the whole version.
TEST_F(Scalars, TruncateProductTextsToTheirBuffers) {
    const std::string name(255, 'n');
    Check("\nproduct " + name + "n|1234567890.12.345|0123456789abcdef\n");
    Check("\nget prodName -> " + name + " (AcquireLocalTicket, Login, RetrieveContent)\n" +
          R"(get prodVersion; get prodBuild -> 1234567890.12.3 0123456789abcde
get prodOID -> 1.3.6.1.4.1.32473.60.1.1234567890.12.345
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
