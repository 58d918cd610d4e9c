#include "runtime/tessim/authd.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/time_budget.h"
#include "runtime/tessim/tls_connection.h"

namespace Tessim::Authd {
namespace {

// How long a peer may send or take no byte.
constexpr std::chrono::seconds silenceLimit{2};

Clock::time_point Deadline() {
    return std::min(TimeBudget::Deadline(), Clock::now() + silenceLimit);
}

class ServiceStreamImpl final : public virtual ServiceStream, public ObjectImpl {
  public:
    ServiceStreamImpl(const Ssl::SSLContext& context, Peer peer, const std::string& request,
                      Clock::time_point deadline)
        : connection(context, std::move(peer), deadline) {
        peerOwner = connection.CheckOwner();
        connection.Write(request.data(), request.size(), deadline);
        // One byte at a time: what follows the line belongs to the service, and OpenSSL keeps it for the next
        // Read.
        path = ReadReplyLine(connection.GetPeer().GetName(),
                             [&](char& byte) { return connection.Read(&byte, 1, deadline) == 1; });
    }

    const std::string& GetConnectionPath() const override { return path; }
    uid_t GetPeerOwner() const override { return peerOwner; }

    std::size_t Read(void* buffer, std::size_t size) override {
        return connection.Read(buffer, size, Deadline());
    }
    void Write(const void* data, std::size_t size) override {
        connection.GetPeer().CheckBackoff();
        connection.Write(data, size, Deadline());
    }
    void Close() noexcept override { connection.Close(); }
    bool IsOwn() const noexcept override { return connection.IsOwn(); }
    bool IsConnected() const noexcept override { return connection.IsConnected(); }

  private:
    TlsConnection connection;
    uid_t peerOwner = 0;
    std::string path;
};

class ClientImpl final : public virtual Client, public ObjectImpl {
  public:
    explicit ClientImpl(Ssl::SSLContext* context) : context(context) {}

    void Open(Selector selector, const std::string& host, std::uint16_t port, const std::string& text1,
              const std::string& text2, Ref<System::Stream>& out) override {
        const std::string request = MakeRequestLine({static_cast<int>(selector), text1, text2});
        Peer peer(host, port);
        peer.CheckBackoff();
        out = MakeRef<ServiceStreamImpl>(*context, std::move(peer), request, TimeBudget::Deadline());
    }

  private:
    Ref<Ssl::SSLContext> context;
};

}  // namespace

void CreateClient(Ssl::SSLContext* context, Ref<Client>& out) {
    if (context == nullptr) {
        throw InvalidArgumentException("an authentication client needs a TLS context");
    }
    out = MakeRef<ClientImpl>(context);
}

void CreateLocalClient(Ref<Client>& out) {
    Ref<Crypto::KeyStore> keys;
    Crypto::CreateKeyStore("", "", {}, keys);
    Ssl::InitSSL("");
    Ref<Ssl::SSLContext> context;
    Ssl::CreateSSLContext(keys.Get(), Ssl::SupportedVersion::Tls12OrNewer, context);
    CreateClient(context.Get(), out);
}

}  // namespace Tessim::Authd
