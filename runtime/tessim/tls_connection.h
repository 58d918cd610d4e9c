// A TLS connection of the client side that waits only until a deadline. Internal to the runtime.
//
// It needs no thread, timer or signal: the socket is non-blocking and every wait is a poll. It raises no
// SIGPIPE. It belongs to the process that made it: in a child of fork it can only be closed, and then nothing
// is sent.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "runtime/tessim/file_descriptor.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/ssl.h"
#include "runtime/tessim/time_budget.h"

struct ssl_st;  // OpenSSL's SSL

namespace Tessim {

class TlsConnection {
  public:
    // Connects and does the TLS handshake. The operations throw, `deadline` being absolute:
    //  - TimeoutException when it has passed, which starts the peer's backoff (peer.h);
    //  - StreamException when the peer is not there, closes or resets the connection, or breaks the protocol;
    //  - SystemException when the operating system or OpenSSL fails.
    // After an exception the connection is good for nothing but Close.
    TlsConnection(const Ssl::SSLContext& context, Peer peer, Clock::time_point deadline);
    TlsConnection(const TlsConnection&) = delete;
    TlsConnection& operator=(const TlsConnection&) = delete;
    ~TlsConnection() { Close(); }

    // Reads at least one and at most `size` bytes (at least 1); 0 when the peer has sent close_notify.
    std::size_t Read(void* buffer, std::size_t size, Clock::time_point deadline);
    // Writes all.
    void Write(const void* data, std::size_t size, Clock::time_point deadline);
    // Sends close_notify, without waiting, on a connection that works, and closes it.
    void Close() noexcept;

    // Returns the user whose process is at the other end. Throws SystemException unless the daemon can be
    // that user's (daemon_directory.h): until then anybody may have the port, and nothing that was read can
    // be trusted. StreamException when no process of this host holds that end any more.
    uid_t CheckOwner() const;

    bool IsOwn() const noexcept;
    // Whether the connection works and its end has not arrived yet. Does not wait.
    bool IsConnected() const noexcept;
    const Peer& GetPeer() const noexcept { return peer; }

    // What OpenSSL reads from and writes to.
    struct Socket {
        FileDescriptor descriptor;
        Clock::time_point deadline;  // no byte is moved after it, however fast the peer sends
        int error = 0;               // of the last failed system call
        bool ended = false;          // the peer closed its side
    };

  private:
    struct Freer {
        void operator()(ssl_st* tls) const noexcept;
    };

    void Connect();
    bool TryToConnect();
    void MakeTls(const Ssl::SSLContext& context);
    void CheckUsable() const;
    template <class Call>
    bool Drive(const char* step, Call call);
    void Wait(short events, const char* step) const;
    bool WaitUntil(Clock::time_point end, short events, const char* step) const;
    std::string ReasonOfFailure() const;
    [[noreturn]] void ThrowBroken(const char* step, const std::string& reason) const;

    const Peer peer;
    const pid_t owner;
    Socket socket;
    std::unique_ptr<ssl_st, Freer> tls;
    bool usable = false;  // between the handshake and the first failure
};

}  // namespace Tessim
