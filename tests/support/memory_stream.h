// A connection in memory to a daemon with prepared replies; what is written to it is kept.
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <utility>

#include "runtime/tessim/authd.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/zarn.h"

namespace TestSupport {

class MemoryStream final : public virtual Tessim::Authd::ServiceStream, public Tessim::ObjectImpl {
  public:
    // The daemon's replies, one for each request.
    std::deque<std::string> replies;
    // How many bytes a read returns at most.
    std::size_t pieceSize = 4096;
    // What a read returns when there is nothing left: the end of the stream by default.
    std::function<std::size_t()> atEnd = [] { return std::size_t{0}; };

    // Everything that was written.
    std::string written;
    // How many bytes of the current reply are not read yet.
    std::size_t GetUnread() const { return current.size() - position; }
    bool IsClosed() const { return closed; }

    std::size_t Read(void* buffer, std::size_t size) override {
        CheckOpen();
        if (std::exchange(asked, false) && !replies.empty()) {
            current = std::move(replies.front());
            replies.pop_front();
            position = 0;
        }
        const std::size_t count = std::min({size, pieceSize, GetUnread()});
        if (count == 0) {
            return atEnd();
        }
        std::memcpy(buffer, current.data() + position, count);
        position += count;
        return count;
    }
    void Write(const void* data, std::size_t size) override {
        CheckOpen();
        written.append(static_cast<const char*>(data), size);
        asked = true;
    }
    void Close() noexcept override { closed = true; }
    bool IsOwn() const noexcept override { return true; }
    bool IsConnected() const noexcept override { return !closed; }
    const std::string& GetConnectionPath() const override { return path; }
    uid_t GetPeerOwner() const override { return 0; }

  private:
    void CheckOpen() const {
        if (closed) {
            throw Tessim::StreamException("the stream is closed");
        }
    }

    std::string path = "/connection/1";
    std::string current;
    std::size_t position = 0;
    bool asked = false;
    bool closed = false;
};

// A configuration-database service in which `localPath` leads to `remotePath` on `stream`.
inline Tessim::Ref<Tessim::Zarn::ZarnSvc> MakeService(MemoryStream& stream, const std::string& remotePath,
                                                      const std::string& localPath) {
    Tessim::Ref<Tessim::Zarn::ZarnSvc> service;
    Tessim::Zarn::CreateZarnSvc(nullptr, nullptr, service);
    service->Startup();
    service->MapPath(service->GetConnectionPath(&stream, 0), remotePath, localPath);
    return service;
}

}  // namespace TestSupport
