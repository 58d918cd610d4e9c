#include "runtime/tessim/zarn.h"

#include <gtest/gtest.h>

#include <memory>

#include "runtime/tessim/exception.h"
#include "tests/support/memory_stream.h"

namespace Tessim::Zarn {
namespace {

using TestSupport::MemoryStream;

constexpr const char* path = "/connection/1";  // of every MemoryStream

class PlainStream final : public virtual System::Stream, public ObjectImpl {
  public:
    std::size_t Read(void* /*buffer*/, std::size_t /*size*/) override { return 0; }
    void Write(const void* /*data*/, std::size_t /*size*/) override {}
    void Close() noexcept override {}
    bool IsOwn() const noexcept override { return true; }
    bool IsConnected() const noexcept override { return true; }
};

class ZarnSvcTest : public testing::Test {
  protected:
    ZarnSvcTest() { CreateZarnSvc(nullptr, nullptr, service); }

    // A new stream, of which `alive` counts those that are not deleted yet.
    Ref<MemoryStream> MakeStream() {
        auto stream = MakeRef<MemoryStream>();
        ++alive;
        stream->atEnd = [counted = std::shared_ptr<int>(&alive, [](int* count) { --*count; })] {
            return std::size_t{0};
        };
        return stream;
    }

    void ExpectNothingIsMapped() {
        EXPECT_THROW(service->Resolve("/near/"), InvalidArgumentException);
        EXPECT_THROW(service->MapPath(path, "/far/", "/near/"), InvalidArgumentException);
    }

    int alive = 0;
    Ref<ZarnSvc> service;
};

TEST_F(ZarnSvcTest, ResolvesALocalPathByItsLastMapping) {
    service->Startup();
    ExpectNothingIsMapped();
    const auto stream = MakeStream();
    EXPECT_EQ(service->GetConnectionPath(stream.Get(), 0), path);
    for (const char* remotePath : {"/far/", "/farther/"}) {
        service->MapPath(path, remotePath, "/near/");
        const Route route = service->Resolve("/near/");
        EXPECT_EQ(route.stream.Get(), stream.Get());
        EXPECT_EQ(route.remotePath, remotePath);
    }
}

TEST_F(ZarnSvcTest, ReplacesAStreamByTheNextOfTheSamePath) {
    service->Startup();
    service->GetConnectionPath(MakeStream().Get(), 0);
    EXPECT_EQ(alive, 1);
    service->MapPath(path, "/far/", "/near/");
    const auto next = MakeStream();
    service->GetConnectionPath(next.Get(), 0);
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(service->Resolve("/near/").stream.Get(), next.Get());
}

TEST_F(ZarnSvcTest, AcceptsNoFlagsAndNoStreamWithoutAConnectionPath) {
    service->Startup();
    EXPECT_THROW(service->GetConnectionPath(MakeRef<PlainStream>().Get(), 0), InvalidArgumentException);
    EXPECT_THROW(service->GetConnectionPath(nullptr, 0), InvalidArgumentException);
    EXPECT_THROW(service->GetConnectionPath(MakeStream().Get(), 1), InvalidArgumentException);
    EXPECT_EQ(alive, 0);
}

TEST_F(ZarnSvcTest, HoldsNothingBeforeStartupAndAfterShutdown) {
    EXPECT_THROW(service->GetConnectionPath(MakeStream().Get(), 0), InvalidArgumentException);
    ExpectNothingIsMapped();
    EXPECT_NO_THROW(service->Shutdown());
    service->Startup();
    service->GetConnectionPath(MakeStream().Get(), 0);
    service->MapPath(path, "/far/", "/near/");
    service->Shutdown();
    service->Shutdown();
    EXPECT_EQ(alive, 0);
    ExpectNothingIsMapped();
    service->Startup();
    ExpectNothingIsMapped();
}

}  // namespace
}  // namespace Tessim::Zarn
