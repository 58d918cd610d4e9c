// A TLS server on the loopback address that runs a test's script.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct ssl_ctx_st;
struct ssl_st;

namespace KelvTest {

// How the bytes of one connection reach the client, whatever they mean.
struct Wire {
    std::size_t limit = SIZE_MAX;               // so many bytes are sent, then the connection is cut
    bool reset = false;                         // cut by a reset instead of an orderly end
    std::chrono::microseconds byteInterval{0};  // when not 0: one byte at a time, this far apart
};

// One accepted connection, as the script sees it. The operations return quietly once the connection is gone
// or the server stops.
class ServedConnection {
  public:
    ServedConnection(ssl_ctx_st* context, int descriptor, const std::atomic<bool>& stopping);
    ServedConnection(const ServedConnection&) = delete;
    ServedConnection& operator=(const ServedConnection&) = delete;
    ~ServedConnection();

    void SetWire(const Wire& changed) { wire = changed; }
    // Whether the handshake was completed.
    bool Handshake();
    // Up to and with the line feed; shorter when the connection ended before.
    std::string ReadLine();
    // Everything until the client's end of the stream.
    std::string ReadAll();
    void Send(std::string_view text);
    // Handshake, the client's line, and the reply "200 /connection/1", then `after` in the same TLS record.
    // Whether all of it was sent.
    bool Serve(std::string_view after = "");
    // Sends bytes outside TLS.
    void SendRaw(std::string_view bytes);
    // Sends close_notify and waits for nothing.
    void SendCloseNotify();
    // Sends TLS 1.3 session tickets without end: records that the client must read but that carry no data.
    void FloodWithTickets();
    // Waits until the client closes the connection. Reads nothing.
    void StaySilent();

    // Whether the client ended its stream with a close_notify. Known after ReadAll.
    bool GotCloseNotify() const { return gotCloseNotify; }
    std::size_t GetSentBytes() const { return sent; }
    // Whether nothing can be sent any more.
    bool IsGone() const { return gone || stopping; }

  private:
    template <class Call>
    bool Drive(Call call);
    bool Flush();
    bool Fill();
    bool WaitFor(short events) const;
    bool ReadByte(char& byte);

    std::unique_ptr<ssl_st, void (*)(ssl_st*)> tls;
    int descriptor;
    const std::atomic<bool>& stopping;
    Wire wire;
    std::size_t sent = 0;
    bool gone = false;
    bool heldBack = false;  // something was left unsent
    bool gotCloseNotify = false;
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
    // The self-signed certificate and its key, in PEM.
    const std::string& GetCertificate() const { return certificate; }
    const std::string& GetPrivateKey() const { return privateKey; }
    // How many connections were accepted.
    int GetAccepted() const { return accepted; }
    // Waits until the script has ended `count` times.
    void WaitForScripts(int count) const;

  private:
    void Run();

    Script script;
    std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)> context;
    std::string certificate;
    std::string privateKey;
    int listener = -1;
    std::uint16_t port = 0;
    std::atomic<bool> stopping{false};
    std::atomic<int> accepted{0};
    std::atomic<int> ended{0};
    std::thread thread;
};

// A loopback port that nobody listens on.
std::uint16_t FreePort();

}  // namespace KelvTest
