// One of the threads that accept and serve connections.
#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <thread>

#include "apps/vessad/Connection.h"
#include "apps/vessad/TicketReaders.h"

namespace Vessad {

// Serves its connections from accept to close. Each lane has a descriptor of its own for the one listening
// socket, so that a lane that is busy leaves new connections to the others. Handlers run one at a time, which
// needs no strand: a strand that runs out of memory while it takes a handler never runs another, or ends the
// process.
//
// Users who cannot log in, outsiders, are served by a lane of their own: however many handshakes they begin,
// the others accept at once and have no work but for users who can.
//
// An exception that leaves a handler is logged, and accepting goes on; the connection whose handler it was is
// closed.
class Lane {
  public:
    using Executor = boost::asio::io_context::executor_type;

    static constexpr std::chrono::milliseconds retryDelay{50};  // where files or memory are missing
    static constexpr unsigned maxWaitingOutsiders = 32;         // of a lane; each has a descriptor

    // What the lanes share. Must outlive their threads.
    struct Shared {
        ConnectionContext& context;
        TicketReaders& ticketReaders;
        ConnectionContext& outsiders;
        Lane& outsiderLane;
        std::atomic<std::uint64_t> accepted = 0;
        std::atomic<bool> exhausted = false;  // whether the last accept ran out of files or memory
    };

    // Makes its own descriptor for `listener`. Throws std::system_error.
    Lane(const boost::asio::ip::tcp& protocol, int listener);
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;
    ~Lane() { Join(); }

    // May be used before Start, and from any thread.
    Executor GetExecutor() { return io.get_executor(); }

    boost::asio::ip::tcp::endpoint GetEndpoint() const { return acceptor.local_endpoint(); }

    // Serves from now on, and accepts unless it is the outsiders' lane. Call it once. Throws
    // std::system_error when there is no thread.
    void Start(Shared& given);

    // Returns whether the thread has run a handler since the previous call, true at the first, and was then
    // about to accept, unless the lane accepts nothing itself. Starts the next check. Throws std::bad_alloc.
    bool CheckProgress();

    // Ends accepting soon. Throws std::bad_alloc.
    void Close();

    // Waits for the end of the connections, if the lane was started.
    void Join();

  private:
    void Run();
    void Accept();
    void Resume();
    void OnAccept(const boost::system::error_code& error, boost::asio::ip::tcp::socket socket);
    void RetryLater(const boost::system::error_code& error);
    void Admit(boost::asio::ip::tcp::socket socket);
    void Queue(boost::asio::ip::tcp::socket outsider, const boost::asio::ip::tcp& protocol);
    void Serve(boost::asio::ip::tcp::socket socket, ConnectionContext& context);

    std::atomic<unsigned> waiting = 0;  // accepted outsiders whom the thread has not begun to serve
    boost::asio::io_context io{1};
    boost::asio::executor_work_guard<Executor> work{io.get_executor()};
    boost::asio::ip::tcp::acceptor acceptor;
    boost::asio::steady_timer timer{io};
    Shared* shared = nullptr;
    std::atomic<bool> responded = true;  // to the latest check
    // Of the thread:
    bool accepting = false;  // an accept is pending
    bool retrying = false;   // the timer for the next one is
    bool stopping = false;
    std::thread thread;
};

}  // namespace Vessad
