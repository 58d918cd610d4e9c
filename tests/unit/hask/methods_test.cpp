// Each method from the stub's call to the object's and back, held to the golden messages on the way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/ordane/dispatcher.h"
#include "runtime/ordane/soap_stub_adapter.h"
#include "tests/unit/hask/golden.h"

namespace Hask {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::Optional;
using testing::StrictMock;

template <class T>
using Out = Tessim::Ref<T>&;
template <class T>
using OutList = Tessim::Ref<Ordane::DataArray<T>>&;

struct MockServiceInstance : ServiceInstance {
    using ServiceInstance::ServiceInstance;
    MOCK_METHOD(void, RetrieveContent, (Out<ServiceInstanceContent>), (override));
};

struct MockSessionManager : SessionManager {
    using SessionManager::SessionManager;
    MOCK_METHOD(void, AcquireLocalTicket, (const std::string&, Out<LocalTicket>), (override));
    MOCK_METHOD(void, Login,
                (const std::string&, const std::string&, const std::optional<std::string>&, Out<UserSession>),
                (override));
    MOCK_METHOD(void, Logout, (), (override));
};

struct MockFolder : Folder {
    using Folder::Folder;
    MOCK_METHOD(void, GetChildEntity, (OutList<Ordane::MoRef>), (override));
};

struct MockVirtualMachine : VirtualMachine {
    using VirtualMachine::VirtualMachine;
    MOCK_METHOD(void, GetConfig, (Out<Vm::ConfigInfo>), (override));
    MOCK_METHOD(void, GetRuntime, (Out<Vm::RuntimeInfo>), (override));
    MOCK_METHOD(void, GetGuest, (Out<Vm::GuestInfo>), (override));
};

struct MockDatastore : Datastore {
    using Datastore::Datastore;
    MOCK_METHOD(void, GetInfo, (Out<Info>), (override));
};

struct MockHostSystem : HostSystem {
    using HostSystem::HostSystem;
    MOCK_METHOD(void, GetHardware, (Out<Host::HardwareInfo>), (override));
};

struct MockMemoryManagerSystem : Host::MemoryManagerSystem {
    using MemoryManagerSystem::MemoryManagerSystem;
    MOCK_METHOD(void, GetConsoleReservationInfo, (Out<ServiceConsoleReservationInfo>), (override));
};

struct MockPerformanceManager : PerformanceManager {
    using PerformanceManager::PerformanceManager;
    MOCK_METHOD(void, GetPerfCounter, (OutList<CounterInfo>), (override));
    MOCK_METHOD(void, QueryPerf, (Ordane::DataArray<QuerySpec>*, OutList<EntityMetricBase>), (override));
};

// Carries calls to one object and keeps the last messages.
class RecordingAdapter final : public Ordane::SoapStubAdapter, private Ordane::ObjectSource {
  public:
    explicit RecordingAdapter(Tessim::Ref<Ordane::ManagedObject> object) : object(std::move(object)) {}

    std::string request;
    std::string reply;

  protected:
    std::string Exchange(const std::string& text) override {
        request = text;
        reply = Ordane::HandleCall(text, *this).text;
        return reply;
    }

  private:
    Tessim::Ref<Ordane::ManagedObject> Find(const Ordane::MoRef& reference) override {
        const Ordane::MoRef& own = *object->GetMoRef();
        const bool same = reference.GetType() == own.GetType() && reference.GetId() == own.GetId();
        return same ? object : nullptr;
    }
    bool IsLoggedIn() const override { return true; }

    Tessim::Ref<Ordane::ManagedObject> object;
};

// Sets the result of the golden response.
template <class T>
void Take(const Ordane::Value& value, Tessim::Ref<T>& out) {
    out = Tessim::NarrowToType<T>(std::get<Ordane::Any*>(value));
}
template <class T>
void Take(const Ordane::Value& value, Tessim::Ref<Ordane::DataArray<T>>& out) {
    out->Append(Tessim::NarrowToType<T>(std::get<Ordane::Any*>(value)));
}

// One object as the server has it, the stub that reaches it, and the golden call between them.
template <class Object, class Mock>
struct Exchanged {
    explicit Exchanged(const std::string& method)
        : call{&Object::staticType, Object::staticType.FindMethod(method)} {
        const auto target = Ordane::Soap::Message(call.ReadRequest(), {}).GetTarget();
        object = Tessim::MakeRef<StrictMock<Mock>>(target);
        adapter = Tessim::MakeRef<RecordingAdapter>(Tessim::Ref<Ordane::ManagedObject>(object));
        stub = Object::MakeStub(Tessim::Ref<Ordane::StubAdapter>(adapter), target->GetId());
    }
    ~Exchanged() {
        EXPECT_EQ(adapter->request, call.ReadRequest());
        EXPECT_EQ(adapter->reply, call.ReadResponse());
    }
    Exchanged(const Exchanged&) = delete;
    Exchanged& operator=(const Exchanged&) = delete;

    // What the object answers: the golden response.
    template <class Result>
    void Answer(Result& out) const {
        const auto response = Ordane::Soap::Message(call.ReadResponse(), {}).GetResponse(*call.method);
        response->GetDataObjectType()->ownMembers[0].forEach(
            *response, [&](const Ordane::Value& value) { Take(value, out); });
    }

    HaskTest::Call call;
    Tessim::Ref<StrictMock<Mock>> object;
    Tessim::Ref<RecordingAdapter> adapter;
    Tessim::Ref<Object> stub;
};

TEST(HaskMethods, ServiceInstanceRetrievesItsContent) {
    const Exchanged<ServiceInstance, MockServiceInstance> exchanged("RetrieveContent");
    EXPECT_CALL(*exchanged.object, RetrieveContent).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<ServiceInstanceContent> content;
    exchanged.stub->RetrieveContent(content);
    EXPECT_EQ(content->GetAbout()->GetName(), "Tovric Kelv Server");
    EXPECT_EQ(content->GetAbout()->GetVersion(), "3.0.2");
    EXPECT_EQ(content->GetAbout()->GetBuild(), "13638");
    EXPECT_EQ(content->GetSessionManager()->GetId(), "ha-sessionmgr");
    EXPECT_EQ(content->GetPerfManager()->GetId(), "ha-perfmgr");
}

TEST(HaskMethods, SessionManagerAcquiresATicket) {
    const Exchanged<SessionManager, MockSessionManager> exchanged("AcquireLocalTicket");
    EXPECT_CALL(*exchanged.object, AcquireLocalTicket("root", _)).WillOnce([&](auto&, auto& out) {
        exchanged.Answer(out);
    });
    Tessim::Ref<SessionManager::LocalTicket> ticket;
    exchanged.stub->AcquireLocalTicket("root", ticket);
    EXPECT_EQ(ticket->GetUserName(), "root");
    EXPECT_EQ(ticket->GetPasswordFilePath(), "/run/tovric-vessad/ticket-8Zq1");
}

TEST(HaskMethods, SessionManagerLogsIn) {
    const Exchanged<SessionManager, MockSessionManager> exchanged("Login");
    EXPECT_CALL(*exchanged.object, Login("root", "s3cret <&> \"words\"", Optional(std::string("en")), _))
        .WillOnce([&](auto&, auto&, auto&, auto& out) { exchanged.Answer(out); });
    Tessim::Ref<UserSession> session;
    exchanged.stub->Login("root", "s3cret <&> \"words\"", "en", session);
    EXPECT_EQ(session->GetKey(), "session-17");
    EXPECT_EQ(session->GetUserName(), "root");
    EXPECT_EQ(session->GetLocale(), "en");
}

TEST(HaskMethods, SessionManagerLogsOut) {
    const Exchanged<SessionManager, MockSessionManager> exchanged("Logout");
    EXPECT_CALL(*exchanged.object, Logout);
    exchanged.stub->Logout();
}

TEST(HaskMethods, FolderListsItsChildren) {
    const Exchanged<Folder, MockFolder> exchanged("GetChildEntity");
    EXPECT_CALL(*exchanged.object, GetChildEntity).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<Ordane::DataArray<Ordane::MoRef>> children;
    exchanged.stub->GetChildEntity(children);
    ASSERT_EQ(children->GetLength(), 2);
    EXPECT_EQ((*children)[0]->GetId(), "16");
    EXPECT_EQ((*children)[1]->GetId(), "32");
}

TEST(HaskMethods, VirtualMachineTellsItsConfiguration) {
    const Exchanged<VirtualMachine, MockVirtualMachine> exchanged("GetConfig");
    EXPECT_CALL(*exchanged.object, GetConfig).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<Vm::ConfigInfo> config;
    exchanged.stub->GetConfig(config);
    EXPECT_EQ(config->GetName(), "web-1");
    EXPECT_EQ(config->GetGuestFullName(), "Debian GNU/Linux 12 (64-bit)");
    EXPECT_EQ(config->GetFiles()->GetVmPathName(), "[storage1] web-1/web-1.cfg");
    EXPECT_EQ((*config->GetDatastoreUrl())[1]->GetUrl(), "/volumes/77/");
    EXPECT_EQ(config->GetHardware()->GetNumCPU(), 2);
    EXPECT_EQ(config->GetHardware()->GetMemoryMB(), 512);
    EXPECT_EQ(config->GetCpuAllocation()->GetShares()->GetShares(), 2000);
    EXPECT_EQ(config->GetMemoryAllocation()->GetShares()->GetShares(), 5120);
    const auto* devices = config->GetHardware()->GetDevice();
    const auto* disk = Tessim::NarrowToType<Vm::Device::VirtualDisk>((*devices)[0]);
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->GetKey(), 2000);
    EXPECT_EQ(disk->GetControllerKey(), 1000);
    EXPECT_EQ(disk->GetUnitNumber(), 3);
    EXPECT_TRUE(disk->GetConnectable()->IsConnected());
    const auto* file = Tessim::NarrowToType<Vm::Device::VirtualDevice::FileBackingInfo>(disk->GetBacking());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->GetFileName(), "[storage1] web-1/web-1.dsk");
    EXPECT_EQ(file->GetDatastore()->GetId(), "ds-1");
    const auto* card = Tessim::NarrowToType<Vm::Device::VirtualEthernetCard>((*devices)[1]);
    ASSERT_NE(card, nullptr);
    EXPECT_EQ(card->GetMacAddress(), "00:16:3e:00:00:01");
}

TEST(HaskMethods, VirtualMachineTellsWhetherItRuns) {
    const Exchanged<VirtualMachine, MockVirtualMachine> exchanged("GetRuntime");
    EXPECT_CALL(*exchanged.object, GetRuntime).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<Vm::RuntimeInfo> runtime;
    exchanged.stub->GetRuntime(runtime);
    EXPECT_EQ(runtime->GetPowerState(), VirtualMachine::PowerState::suspended);
}

TEST(HaskMethods, VirtualMachineTellsOfItsGuest) {
    const Exchanged<VirtualMachine, MockVirtualMachine> exchanged("GetGuest");
    EXPECT_CALL(*exchanged.object, GetGuest).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<Vm::GuestInfo> guest;
    exchanged.stub->GetGuest(guest);
    EXPECT_EQ(guest->GetGuestState(), "running");
}

TEST(HaskMethods, DatastoreTellsItsKind) {
    const Exchanged<Datastore, MockDatastore> exchanged("GetInfo");
    EXPECT_CALL(*exchanged.object, GetInfo).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<Datastore::Info> info;
    exchanged.stub->GetInfo(info);
    const auto* drell = Tessim::NarrowToType<Host::DrellDatastoreInfo>(info);
    ASSERT_NE(drell, nullptr);
    EXPECT_EQ((*drell->GetDrell()->GetExtent())[1]->GetDiskName(), "disk-0:1");
}

TEST(HaskMethods, HostSystemTellsItsHardware) {
    const Exchanged<HostSystem, MockHostSystem> exchanged("GetHardware");
    EXPECT_CALL(*exchanged.object, GetHardware).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<Host::HardwareInfo> hardware;
    exchanged.stub->GetHardware(hardware);
    EXPECT_EQ(hardware->GetCpuInfo()->GetNumCpuCores(), 8);
}

TEST(HaskMethods, MemoryManagerSystemTellsTheConsolesShare) {
    const Exchanged<Host::MemoryManagerSystem, MockMemoryManagerSystem> exchanged(
        "GetConsoleReservationInfo");
    EXPECT_CALL(*exchanged.object, GetConsoleReservationInfo).WillOnce([&](auto& out) {
        exchanged.Answer(out);
    });
    Tessim::Ref<Host::MemoryManagerSystem::ServiceConsoleReservationInfo> info;
    exchanged.stub->GetConsoleReservationInfo(info);
    EXPECT_EQ(info->GetServiceConsoleReserved(), 285212672);
    EXPECT_EQ(info->GetUnreserved(), INT64_MAX);
}

TEST(HaskMethods, PerformanceManagerTellsItsCounters) {
    const Exchanged<PerformanceManager, MockPerformanceManager> exchanged("GetPerfCounter");
    EXPECT_CALL(*exchanged.object, GetPerfCounter).WillOnce([&](auto& out) { exchanged.Answer(out); });
    Tessim::Ref<Ordane::DataArray<PerformanceManager::CounterInfo>> counters;
    exchanged.stub->GetPerfCounter(counters);
    ASSERT_EQ(counters->GetLength(), 2);
    EXPECT_EQ((*counters)[0]->GetKey(), 7);
    EXPECT_EQ((*counters)[0]->GetGroupInfo()->GetKey(), "cpu");
    EXPECT_EQ((*counters)[0]->GetNameInfo()->GetKey(), "used");
    EXPECT_EQ((*counters)[0]->GetRollupType(), PerformanceManager::RollupType::summation);
}

Tessim::Ref<PerformanceManager::MetricId> MakeMetric(int counter, const std::string& instance) {
    auto metric = Tessim::MakeRef<PerformanceManager::MetricId>();
    metric->SetCounterId(counter);
    metric->SetInstance(instance);
    return metric;
}

Tessim::Ref<PerformanceManager::QuerySpec> MakeQuery(const std::string& machine, int interval) {
    auto query = Tessim::MakeRef<PerformanceManager::QuerySpec>();
    query->SetEntity(Tessim::MakeRef<Ordane::MoRef>("VirtualMachine", machine));
    query->GetMetricId()->Append(MakeMetric(7, "disk-0:0"));
    query->GetMetricId()->Append(MakeMetric(11, "*"));
    query->SetIntervalId(interval);
    return query;
}

TEST(HaskMethods, PerformanceManagerAnswersAQuery) {
    const Exchanged<PerformanceManager, MockPerformanceManager> exchanged("QueryPerf");
    EXPECT_CALL(*exchanged.object, QueryPerf).WillOnce([&](auto* queries, auto& out) {
        ASSERT_EQ(queries->GetLength(), 2);
        EXPECT_EQ((*queries)[1]->GetEntity()->GetId(), "32");
        EXPECT_EQ((*(*queries)[1]->GetMetricId())[1]->GetInstance(), "*");
        EXPECT_EQ((*queries)[0]->GetIntervalId(), 20);
        exchanged.Answer(out);
    });
    const auto queries = Tessim::MakeRef<Ordane::DataArray<PerformanceManager::QuerySpec>>();
    queries->Append(MakeQuery("16", 20));
    queries->Append(MakeQuery("32", 0));
    Tessim::Ref<Ordane::DataArray<PerformanceManager::EntityMetricBase>> metrics;
    exchanged.stub->QueryPerf(queries.Get(), metrics);
    ASSERT_EQ(metrics->GetLength(), 2);
    const auto* metric = Tessim::NarrowToType<PerformanceManager::EntityMetric>((*metrics)[1]);
    ASSERT_NE(metric, nullptr);
    EXPECT_EQ(metric->GetEntity()->GetId(), "32");
    const auto* series = Tessim::NarrowToType<PerformanceManager::IntSeries>((*metric->GetValue())[1]);
    ASSERT_NE(series, nullptr);
    EXPECT_EQ(series->GetId()->GetCounterId(), 11);
    EXPECT_THAT(series->GetValue(), ElementsAre(181000, -1));
}

TEST(HaskMethods, NeedNoLoginForTicketLoginAndServiceContentOnly) {
    std::vector<std::string> free;
    for (const HaskTest::Call& call : HaskTest::AllCalls()) {
        if (call.method->beforeLogin) {
            free.push_back(call.GetName());
        }
    }
    EXPECT_THAT(free, ElementsAre("ServiceInstance.RetrieveContent", "SessionManager.AcquireLocalTicket",
                                  "SessionManager.Login"));
}

}  // namespace
}  // namespace Hask
