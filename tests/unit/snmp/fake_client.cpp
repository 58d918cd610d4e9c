#include "tests/unit/snmp/fake_client.h"

#include "apps/snmp/client/OrdaneClient.h"

namespace FakeClient {

State& Get() {
    static State state;
    return state;
}

Tessim::Ref<Hask::ServiceInstanceContent> MakeContent(const std::string& name, const std::string& version,
                                                      const std::string& build) {
    auto about = Tessim::MakeRef<Hask::AboutInfo>();
    about->SetName(name);
    about->SetVersion(version);
    about->SetBuild(build);
    auto content = Tessim::MakeRef<Hask::ServiceInstanceContent>();
    content->SetAbout(about);
    return content;
}

}  // namespace FakeClient

namespace SNMP {

OrdaneClient::~OrdaneClient() = default;

OrdaneClient* GetOrdaneClient() {
    static const auto client = Tessim::MakeRef<OrdaneClient>();
    ++FakeClient::Get().asked;
    return FakeClient::Get().reachable ? client.Get() : nullptr;
}

void OrdaneClient::GetServiceInstanceContent(Tessim::Ref<Hask::ServiceInstanceContent>& out) {
    out = FakeClient::Get().content;
}

void OrdaneClient::GetQueryMetricIds(
    Tessim::Ref<Ordane::DataArray<Hask::PerformanceManager::MetricId>>& /*out*/) {}
void OrdaneClient::AddResult(Hask::PerformanceManager::EntityMetric* /*metric*/) {}

}  // namespace SNMP
