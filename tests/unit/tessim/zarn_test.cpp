#include "runtime/tessim/zarn.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "runtime/tessim/authd.h"
#include "runtime/tessim/exception.h"

namespace Tessim::Zarn {
namespace {

class PlainStream : public virtual System::Stream, public ObjectImpl {
  public:
    std::size_t Read(void* /*buffer*/, std::size_t /*size*/) override { return 0; }
    void Write(const void* /*data*/, std::size_t /*size*/) override {}
    void Close() noexcept override {}
    bool IsOwn() const noexcept override { return true; }
};

class FakeStream final : public virtual Authd::ServiceStream, public PlainStream {
  public:
    FakeStream(std::string path, int* alive) : path(std::move(path)), alive(alive) { ++*alive; }
    ~FakeStream() override { --*alive; }

    const std::string& GetConnectionPath() const override { return path; }

  private:
    std::string path;
    int* alive;
};

class ZarnSvcTest : public testing::Test {
  protected:
    ZarnSvcTest() {
        CreateZarnSvc(nullptr, nullptr, service);
        service->Startup();
    }

    int alive = 0;
    Ref<ZarnSvc> service;
};

TEST_F(ZarnSvcTest, ResolvesALocalPathByItsLastMapping) {
    EXPECT_THROW(service->MapPath("/c/1", "/far/", "/near/"), InvalidArgumentException);
    EXPECT_THROW(service->Resolve("/near/"), InvalidArgumentException);
    const Ref<FakeStream> stream = MakeRef<FakeStream>("/c/1", &alive);
    EXPECT_EQ(service->GetConnectionPath(stream.Get(), 0), "/c/1");
    service->MapPath("/c/1", "/far/", "/near/");
    const Route route = service->Resolve("/near/");
    EXPECT_EQ(route.stream.Get(), stream.Get());
    EXPECT_EQ(route.remotePath, "/far/");
    service->MapPath("/c/1", "/farther/", "/near/");
    EXPECT_EQ(service->Resolve("/near/").remotePath, "/farther/");
}

TEST_F(ZarnSvcTest, ReplacesAStreamByTheNextOfTheSamePath) {
    service->GetConnectionPath(MakeRef<FakeStream>("/c/1", &alive).Get(), 0);
    EXPECT_EQ(alive, 1);
    service->MapPath("/c/1", "/far/", "/near/");
    const Ref<FakeStream> next = MakeRef<FakeStream>("/c/1", &alive);
    service->GetConnectionPath(next.Get(), 0);
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(service->Resolve("/near/").stream.Get(), next.Get());
}

TEST_F(ZarnSvcTest, AcceptsNoFlagsAndNoStreamWithoutAConnectionPath) {
    EXPECT_THROW(service->GetConnectionPath(MakeRef<PlainStream>().Get(), 0), InvalidArgumentException);
    EXPECT_THROW(service->GetConnectionPath(nullptr, 0), InvalidArgumentException);
    EXPECT_THROW(service->GetConnectionPath(MakeRef<FakeStream>("/c/1", &alive).Get(), 1),
                 InvalidArgumentException);
    EXPECT_EQ(alive, 0);
}

TEST_F(ZarnSvcTest, ReleasesEverythingAtShutdown) {
    service->GetConnectionPath(MakeRef<FakeStream>("/c/1", &alive).Get(), 0);
    service->MapPath("/c/1", "/far/", "/near/");
    service->Shutdown();
    service->Shutdown();
    EXPECT_EQ(alive, 0);
    EXPECT_THROW(service->Resolve("/near/"), InvalidArgumentException);
    service->Startup();
    EXPECT_THROW(service->Resolve("/near/"), InvalidArgumentException);
    EXPECT_THROW(service->MapPath("/c/1", "/far/", "/near/"), InvalidArgumentException);
}

TEST(ZarnSvc, DoesNothingBeforeItsStartup) {
    int alive = 0;
    Ref<ZarnSvc> service;
    CreateZarnSvc(nullptr, nullptr, service);
    EXPECT_THROW(service->GetConnectionPath(MakeRef<FakeStream>("/c/1", &alive).Get(), 0),
                 InvalidArgumentException);
    EXPECT_THROW(service->MapPath("/c/1", "/far/", "/near/"), InvalidArgumentException);
    EXPECT_THROW(service->Resolve("/near/"), InvalidArgumentException);
    EXPECT_NO_THROW(service->Shutdown());
}

}  // namespace
}  // namespace Tessim::Zarn
