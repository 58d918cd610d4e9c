#include "runtime/tessim/zarn.h"

#include <map>
#include <utility>

#include "runtime/tessim/authd.h"
#include "runtime/tessim/exception.h"

namespace Tessim::Zarn {
namespace {

class ZarnSvcImpl final : public virtual ZarnSvc, public ObjectImpl {
  public:
    void Startup() override { ready = true; }

    void Shutdown() override {
        ready = false;
        mappings.clear();
        connections.clear();
    }

    std::string GetConnectionPath(System::Stream* stream, int flags) override {
        CheckReady();
        if (flags != 0) {
            throw InvalidArgumentException("reserved flags of GetConnectionPath are set");
        }
        const auto* service = NarrowToType<Authd::ServiceStream>(stream);
        if (service == nullptr) {
            throw InvalidArgumentException("the stream has no connection path");
        }
        connections[service->GetConnectionPath()] = stream;
        return service->GetConnectionPath();
    }

    void MapPath(const std::string& connectionPath, const std::string& remotePath,
                 const std::string& localPath) override {
        CheckReady();
        FindStream(connectionPath);
        mappings[localPath] = {connectionPath, remotePath};
    }

    Route Resolve(const std::string& localPath) const override {
        CheckReady();
        const auto mapping = mappings.find(localPath);
        if (mapping == mappings.end()) {
            throw InvalidArgumentException("the path \"" + localPath + "\" is not mapped");
        }
        return {FindStream(mapping->second.connectionPath), mapping->second.remotePath};
    }

  private:
    struct Mapping {
        std::string connectionPath;
        std::string remotePath;
    };

    void CheckReady() const {
        if (!ready) {
            throw InvalidArgumentException("the configuration-database service is not started");
        }
    }

    const Ref<System::Stream>& FindStream(const std::string& connectionPath) const {
        const auto connection = connections.find(connectionPath);
        if (connection == connections.end()) {
            throw InvalidArgumentException("no connection has the path \"" + connectionPath + "\"");
        }
        return connection->second;
    }

    bool ready = false;
    std::map<std::string, Ref<System::Stream>> connections;  // by connection path
    std::map<std::string, Mapping> mappings;                 // by local path
};

}  // namespace

void CreateZarnSvc(Service::Logger* /*logger*/, Object* /*parent*/, Ref<ZarnSvc>& out) {
    out = MakeRef<ZarnSvcImpl>();
}

}  // namespace Tessim::Zarn
