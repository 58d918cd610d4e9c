// A TLS server on the loopback address that runs a test's script.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "runtime/tessim/file_descriptor.h"

struct evp_pkey_st;
struct ssl_ctx_st;
struct ssl_st;
struct x509_st;

namespace KelvTest {

// A new private key and its self-signed certificate, also in PEM.
struct Identity {
    Identity();

    std::unique_ptr<evp_pkey_st, void (*)(evp_pkey_st*)> key;
    std::unique_ptr<x509_st, void (*)(x509_st*)> x509;
    std::string privateKey;
    std::string certificate;
};

// How the bytes of one connection reach the client, whatever they mean.
struct Wire {
    std::size_t limit = SIZE_MAX;               // so many bytes are sent, then the connection is cut
    bool reset = false;                         // cut by a reset instead of an orderly end
    std::chrono::microseconds byteInterval{0};  // when not 0: one byte at a time, this far apart
};

// One accepted connection, as the script sees it. The operations block; they return quietly once the
// connection is gone or the server stops.
class ServedConnection {
  public:
    ServedConnection(ssl_ctx_st* context, int descriptor);
    ServedConnection(const ServedConnection&) = delete;
    ServedConnection& operator=(const ServedConnection&) = delete;
    // Closes nothing; a reset takes effect when the descriptor is closed.
    ~ServedConnection();

    void SetWire(const Wire& changed) { wire = changed; }
    // Up to and with that byte; shorter when the connection ended before.
    std::string ReadUntil(char last);
    std::string ReadLine() { return ReadUntil('\n'); }
    // Returns whether all of it was sent.
    bool Send(std::string_view text);
    // Handshake, the client's line, and the reply "200 /connection/1". Returns whether all of it was sent.
    bool Serve();
    // Sends bytes outside TLS. Returns whether all of them were sent.
    bool SendRaw(std::string_view bytes);
    // Waits until the client closes the connection. Reads nothing.
    void StaySilent();

    std::size_t GetSentBytes() const { return sent; }
    ssl_st* GetNative() const { return tls.get(); }

  private:
    std::unique_ptr<ssl_st, void (*)(ssl_st*)> tls;
    int descriptor;
    Wire wire;
    std::size_t sent = 0;
    bool gone = false;
};

class TlsTestServer {
  public:
    using Script = std::function<void(ServedConnection&)>;

    // Listens on a free port and runs `script` in a thread of its own for each connection, one after the
    // other. `newestVersion` is one of OpenSSL's TLS..._VERSION; 0 for the newest there is.
    explicit TlsTestServer(Script script, int newestVersion = 0);
    TlsTestServer(const TlsTestServer&) = delete;
    TlsTestServer& operator=(const TlsTestServer&) = delete;
    // Ends the scripts.
    ~TlsTestServer();

    std::uint16_t GetPort() const { return port; }
    const std::string& GetCertificate() const { return identity.certificate; }
    // How many connections were accepted.
    int GetAccepted() const { return accepted; }
    // Waits until the script has ended `count` times.
    void WaitForScripts(int count) const;

  private:
    void Run();

    Script script;
    Identity identity;
    std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)> context;
    std::uint16_t port = 0;
    Tessim::FileDescriptor listener;
    std::mutex mutex;
    Tessim::FileDescriptor connection;  // the one that is served; guarded by the mutex
    bool stopping = false;              // guarded by the mutex
    std::atomic<int> accepted{0};
    std::atomic<int> ended{0};
    std::thread thread;
};

// A TCP socket on a free port, which it puts into `port`, of the loopback address of `family`, AF_INET or
// AF_INET6. It does not listen yet. None when the host has no such address.
Tessim::FileDescriptor BindLoopback(std::uint16_t& port, int family = AF_INET);

// A loopback port that nobody listens on.
std::uint16_t FreePort();

}  // namespace KelvTest
