// The Zarn service: the table from paths to connections. Not thread-safe.
#pragma once

#include <string>

#include "runtime/tessim/object.h"
#include "runtime/tessim/service.h"
#include "runtime/tessim/stream.h"

namespace Tessim::Zarn {

// Where a local path leads.
struct Route {
    Ref<System::Stream> stream;
    std::string remotePath;  // the path to request on that stream
};

class ZarnSvc : public virtual Object {
  public:
    // Makes the service ready; every other call needs it (InvalidArgumentException before it).
    virtual void Startup() = 0;
    // Releases every connection and mapping; Startup makes the service ready again. May be called in any
    // state, any number of times.
    virtual void Shutdown() = 0;

    // Adds the stream, which the service keeps, and returns its connection path, never empty. A second stream
    // with the same path replaces the first. `flags` is reserved: 0. Throws InvalidArgumentException for
    // other flags and for a stream that no authentication service opened.
    virtual std::string GetConnectionPath(System::Stream* stream, int flags) = 0;

    // Makes `localPath` lead to `remotePath` on the connection `connectionPath`. A second mapping of a local
    // path replaces the first. Throws InvalidArgumentException for an unknown connection.
    virtual void MapPath(const std::string& connectionPath, const std::string& remotePath,
                         const std::string& localPath) = 0;

    // Where `localPath` leads. Throws InvalidArgumentException when it was not mapped.
    virtual Route Resolve(const std::string& localPath) const = 0;
};

// Puts a new service into `out`. `parent` is reserved and null; `logger` may be null: the service throws on
// failure and logs nothing.
void CreateZarnSvc(Service::Logger* logger, Object* parent, Ref<ZarnSvc>& out);

}  // namespace Tessim::Zarn
