#include "apps/vessad/backends/LibvirtBackend.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "apps/vessad/backends/libvirt/Collector.h"
#include "apps/vessad/backends/libvirt/RealLibvirt.h"
#include "apps/vessad/backends/libvirt/Uri.h"
#include "apps/vessad/backends/libvirt/VmIds.h"

namespace Vessad {
namespace {

constexpr std::chrono::seconds firstTimeout{10};

class LibvirtBackend final : public Backend {
  public:
    LibvirtBackend(const std::string& uri, Libvirt::VmIds vmIds)
        : uri(uri), collector(Libvirt::MakeApi(), uri, std::move(vmIds), Libvirt::CollectorOptions{}) {
        const auto failure = collector.WaitForFirst(firstTimeout);
        if (failure && failure->GetKind() == Libvirt::ApiError::Kind::Permanent) {
            throw std::runtime_error("the libvirt URI " + uri + " cannot be used: " + failure->what());
        }
    }

    std::shared_ptr<const Inventory> GetInventory() override { return collector.Get(); }
    SourceStatus GetStatus() override {
        SourceStatus status = collector.GetStatus();
        status.source = "libvirt " + uri;
        return status;
    }
    void Reload() override { collector.CollectNow(); }
    bool IsMakingProgress() override { return collector.IsMakingProgress(); }

  private:
    const std::string uri;
    Libvirt::Collector collector;
};

}  // namespace

std::unique_ptr<Backend> MakeLibvirtBackend(const std::string& uri,
                                            const std::filesystem::path& stateDirectory,
                                            std::chrono::days forgetAfter) {
    if (const auto mistake = Libvirt::FindMistake(uri)) {
        throw std::runtime_error("the libvirt URI " + uri + " cannot be used: " + *mistake);
    }
    return std::make_unique<LibvirtBackend>(uri,
                                            Libvirt::VmIds(stateDirectory, {.forgetAfter = forgetAfter}));
}

}  // namespace Vessad
