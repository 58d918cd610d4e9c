// The daemon's threads while the system grants no memory or no further thread.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "apps/vessad/Server.h"
#include "apps/vessad/backends/libvirt/Collector.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"
#include "tests/unit/vessad_libvirt/description.h"
#include "tests/unit/vessad_libvirt/fake_api.h"

namespace {

// Memory is refused to every thread but the test's own: always, or once after so many allocations.
std::atomic<bool> refusesMemory = false;
std::atomic<int> allocationsLeft = 0;
std::atomic<bool> refusesThreads = false;
std::atomic<int> refusals = 0;
thread_local bool isTestThread = false;

}  // namespace

#ifndef __clang_analyzer__  // It takes memory that a delete in a library frees for leaked.
void* operator new(std::size_t size) {
    if (!isTestThread && (refusesMemory || (allocationsLeft > 0 && --allocationsLeft == 0))) {
        ++refusals;
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

// Not inlined, because the compiler takes the free that it then sees for a mistake.
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
#endif

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*function)(void*),
                                                                     void* argument) {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
    if (refusesThreads) {
        ++refusals;
        return EAGAIN;
    }
    return create(thread, attributes, function, argument);
}

namespace Vessad {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using VessadTest::RawClient;

class ExhaustionTest : public testing::Test {
  protected:
    ExhaustionTest() { isTestThread = true; }
    ~ExhaustionTest() override {
        refusesMemory = refusesThreads = false;
        allocationsLeft = 0;
    }

    // Waits until so many requests have been refused since `before`.
    static bool AwaitRefusals(int before, int count) {
        return VessadTest::Await([&] { return refusals >= before + count; });
    }

    VessadTest::TemporaryDirectory directory;
};

// Each allocation that a client causes fails once.
TEST_F(ExhaustionTest, OfMemoryClosesOneConnectionAtMost) {
    VessadTest::TestBackend backend;
    ServerOptions options;
    options.listen = ParseListenAddress("127.0.0.1:0");
    options.tickets.directory = directory.GetPath() / "tickets";
    Server server(options, backend);
    server.Start();
    const auto serve = [port = server.GetEndpoint().port()] {
        RawClient client(port);
        client.Open();
        return client.LogIn(client.AcquireTicket()).status;
    };
    for (int allocation = 1; allocationsLeft == 0; ++allocation) {
        allocationsLeft = allocation;
        const auto begun = std::chrono::steady_clock::now();
        serve();
        EXPECT_LT(std::chrono::steady_clock::now() - begun, 1s) << "allocation " << allocation;
        const int left = allocationsLeft.exchange(0);
        ASSERT_EQ(serve(), 200) << "allocation " << allocation;
        allocationsLeft = left;
    }
}

class ExhaustedCollectorTest : public ExhaustionTest {
  protected:
    void Start() {
        Libvirt::CollectorOptions options;
        options.interval = 20ms;
        collector = std::make_unique<Libvirt::Collector>(
            api, "qemu+ssh://fake/system", Libvirt::VmIds(directory.GetPath() / "state"), options);
    }

    void AddDomain(const std::string& uuid) {
        api->With([&](Libvirt::FakeState& state) {
            state.domains.push_back({uuid, uuid, true, true, Libvirt::DomainState::Running,
                                     "<domain type='kvm'><name>n</name></domain>"});
            state.statistics[uuid] = {{"vcpu.0.time", std::uint64_t{1000000}}};
        });
    }

    bool AwaitVms(std::size_t wanted) const {
        return VessadTest::Await([&] { return collector->Get()->vms.size() == wanted; });
    }

    std::shared_ptr<Libvirt::FakeApi> api = std::make_shared<Libvirt::FakeApi>();
    std::unique_ptr<Libvirt::Collector> collector;
};

TEST_F(ExhaustedCollectorTest, CollectsAgainOnceThereIsMemory) {
    AddDomain(Libvirt::uuidA);
    Start();
    ASSERT_TRUE(AwaitVms(1));
    const int before = refusals;
    refusesMemory = true;
    EXPECT_TRUE(AwaitRefusals(before, 20));
    refusesMemory = false;
    AddDomain(Libvirt::uuidB);
    EXPECT_TRUE(AwaitVms(2));
    EXPECT_TRUE(VessadTest::Await([&] { return !collector->Get()->vms.at(1)->series.empty(); }));
}

TEST_F(ExhaustedCollectorTest, SamplesOnceThereAreThreads) {
    const VessadTest::LogLines log;
    AddDomain(Libvirt::uuidA);
    Libvirt::SampleWorkers workers(api, "fake", {});
    const std::vector<Libvirt::SampledDomain> domains{{Libvirt::uuidA, "a"}};
    refusesThreads = true;
    EXPECT_TRUE(workers.Sample(domains).empty());
    EXPECT_THAT(log.GetText(), HasSubstr("error No further thread for statistics"));
    refusesThreads = false;
    EXPECT_EQ(workers.Sample(domains).size(), 1U);
}

// The log blocks the collector's thread, which the host cannot.
class BlockingSink final : public spdlog::sinks::base_sink<std::mutex> {
  public:
    std::atomic<bool> blocks = true;

  private:
    void sink_it_(const spdlog::details::log_msg& /*message*/) override {
        while (blocks) {
            std::this_thread::sleep_for(1ms);
        }
    }
    void flush_() override {}
};

TEST_F(ExhaustedCollectorTest, MakesProgressUnlessItsOwnThreadStandsStill) {
    Libvirt::CollectorOptions options;
    options.interval = 20ms;
    options.progress = 500ms;
    options.readingTimeout = 2s;
    api->With([](Libvirt::FakeState& state) { state.holdsDomains = true; });
    const auto before = spdlog::default_logger();
    const auto sink = std::make_shared<BlockingSink>();
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("test", sink));
    Libvirt::Collector waiting(api, "fake", Libvirt::VmIds(directory.GetPath() / "state"), options);
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(waiting.IsMakingProgress()) << "although the host does not reply";
    EXPECT_TRUE(VessadTest::Await([&] { return !waiting.IsMakingProgress(); })) << "it is about to log that";
    sink->blocks = false;
    EXPECT_TRUE(VessadTest::Await([&] { return waiting.IsMakingProgress(); }));
    api->Release();
    spdlog::set_default_logger(before);
}

}  // namespace
}  // namespace Vessad
