#include "apps/vessad/Connection.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/hask/host_agent.h"
#include "runtime/ordane/dispatcher.h"
#include "runtime/tessim/preamble.h"
#include "runtime/tessim/string_util.h"

namespace Vessad {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace Authd = Tessim::Authd;
using Clock = std::chrono::steady_clock;
using beast::error_code;

constexpr std::size_t readSize = 16UL * 1024;
constexpr std::chrono::seconds shutdownTimeout{1};
constexpr std::size_t maxShownPreamble = 80;

// Before the login the client is untrusted, and no call that it may make needs more.
struct SizeLimits {
    std::uint32_t header;
    Ordane::Soap::Limits message;
};
constexpr SizeLimits beforeLogin{8 * 1024, {.maxBytes = 16UL * 1024, .maxElements = 100, .maxDepth = 16}};
constexpr SizeLimits afterLogin{8 * 1024,
                                {.maxBytes = 8UL * 1024 * 1024, .maxElements = 400'000, .maxDepth = 64}};

// Everything but Evict runs in the thread of the socket's executor. Each pending operation holds a reference
// to the connection.
class Connection final : public ConnectionTable::Entry, public std::enable_shared_from_this<Connection> {
    // A handler that calls `method`. Defined before its users because its type is deduced.
    template <class Method>
    auto Then(Method method) {
        return beast::bind_front_handler(method, shared_from_this());
    }

    beast::tcp_stream& Lowest() { return beast::get_lowest_layer(stream); }

  public:
    Connection(asio::ip::tcp::socket socket, ConnectionContext& context, std::uint64_t number)
        : context(context),
          number(number),
          stream(std::move(socket), context.tls),
          delayedReply(stream.get_executor()),
          session(context.services, number) {}

    ~Connection() override { context.table.Remove(number); }

    void Start() {
        context.table.Place(number, shared_from_this(), Stage::Preamble);
        SetTimeout(context.timeouts.preamble);
        stream.async_handshake(asio::ssl::stream_base::server, Then(&Connection::OnHandshake));
    }

    void Evict(std::string_view why) override {
        asio::post(stream.get_executor(), [self = shared_from_this(), why = std::string(why)] {
            self->LogClose(why);
            self->Lowest().close();
            self->delayedReply.cancel();
        });
    }

  private:
    const SizeLimits& Limits() const { return session.IsLoggedIn() ? afterLogin : beforeLogin; }

    // The next operations time out after `timeout`, and before the login at the deadline for it.
    void SetTimeout(Clock::duration timeout) {
        const Clock::time_point deadline = Clock::now() + timeout;
        Lowest().expires_at(session.IsLoggedIn() ? deadline : std::min(deadline, loginDeadline));
    }

    // Logs the first reason only.
    void LogClose(std::string_view why) {
        if (!std::exchange(closing, true)) {
            spdlog::debug("Connection {}: closing: {}", number, why);
        }
    }

    void LogTimeout(const char* step) {
        if (!context.services.log.Admit(LogLimit::Kind::Timeout)) {
            return;
        }
        const std::string ticket = session.DescribeUnusedTicket();
        if (ticket.empty()) {
            spdlog::info("Connection {}: {} timed out, closing", number, step);
        } else {
            spdlog::warn("Connection {}: login timed out, closing: {}", number, ticket);
        }
    }

    // Closes the connection by starting no further operation.
    void Fail(const char* step, const error_code& error) {
        if (error == beast::error::timeout && !closing) {
            LogTimeout(step);
        }
        LogClose(std::string(step) + ": " + error.message());
    }

    void OnHandshake(const error_code& error) {
        if (error) {
            Fail("TLS handshake", error);
            return;
        }
        asio::async_read_until(stream, asio::dynamic_buffer(line, Authd::maxPreambleLine),
                               Authd::preambleLineEnd, Then(&Connection::OnPreamble));
    }

    void OnPreamble(const error_code& error, std::size_t size) {
        if (error == asio::error::not_found) {
            RejectPreamble(400, "the line is too long");
            return;
        }
        if (error) {
            Fail("preamble", error);
            return;
        }
        const std::optional<Authd::OpenRequest> request =
            Authd::ParseRequestLine(std::string_view(line).substr(0, size - Authd::preambleLineEnd.size()));
        if (!request) {
            RejectPreamble(400, R"(expected OPEN <selector> "<text>" "<text>")");
        } else if (request->selector != static_cast<int>(Authd::Selector::ManagementApi)) {
            RejectPreamble(404, "no service " + std::to_string(request->selector));
        } else {
            // What follows the line belongs to the first request.
            const std::size_t more = line.size() - size;
            asio::buffer_copy(buffer.prepare(more), asio::buffer(line.data() + size, more));
            buffer.commit(more);
            line = Authd::MakeReplyLine(Authd::statusOpen, "/ordane/connection/" + std::to_string(number));
            asio::async_write(stream, asio::buffer(line), Then(&Connection::OnAccepted));
        }
    }

    void RejectPreamble(int status, const std::string& reason) {
        if (context.services.log.Admit(LogLimit::Kind::Preamble)) {
            spdlog::info("Connection {}: preamble \"{}\" rejected, closing: {} {}", number,
                         Tessim::StringUtil::EscapeUntrusted(line, maxShownPreamble), status, reason);
        }
        line = Authd::MakeReplyLine(status, reason);
        asio::async_write(stream, asio::buffer(line),
                          [self = shared_from_this()](const error_code& /*error*/, std::size_t /*size*/) {
                              self->Shutdown("the preamble was rejected");
                          });
    }

    void OnAccepted(const error_code& error, std::size_t /*size*/) {
        if (error) {
            Fail("preamble reply", error);
            return;
        }
        line = {};
        context.table.Place(number, shared_from_this(), Stage::Login);
        AwaitRequest();
    }

    void AwaitRequest() {
        if (buffer.size() > 0) {
            ReceiveRequest();
            return;
        }
        if (session.IsLoggedIn()) {
            Lowest().expires_never();
        } else {
            SetTimeout(context.timeouts.login);
        }
        stream.async_read_some(buffer.prepare(readSize), Then(&Connection::OnFirstBytes));
    }

    void OnFirstBytes(const error_code& error, std::size_t size) {
        if (error) {
            Fail("wait for a request", error);
            return;
        }
        buffer.commit(size);
        ReceiveRequest();
    }

    void ReceiveRequest() {
        parser.emplace();
        parser->header_limit(Limits().header);
        parser->body_limit(Limits().message.maxBytes);
        SetTimeout(context.timeouts.request);
        http::async_read(stream, buffer, *parser, Then(&Connection::OnRequest));
    }

    void OnRequest(const error_code& error, std::size_t /*size*/) {
        if (error == http::error::end_of_stream) {
            Shutdown("the client closed its stream");
        } else if (error == http::error::header_limit) {
            RejectRequest(http::status::request_header_fields_too_large, error.message());
        } else if (error == http::error::body_limit) {
            RejectRequest(http::status::payload_too_large, error.message());
        } else if (error && error != http::error::partial_message &&
                   error.category() == make_error_code(http::error::end_of_stream).category()) {
            RejectRequest(http::status::bad_request, error.message());
        } else if (error) {
            Fail("request", error);
        } else {
            Dispatch();
        }
    }

    // Closes after the reply, because the start of the next request is unknown.
    void RejectRequest(http::status status, const std::string& why) {
        if (context.services.log.Admit(LogLimit::Kind::Request)) {
            spdlog::info("Connection {}: request rejected, closing: {}", number, why);
        }
        PrepareReply(status, why + "\n", "text/plain");
        response.keep_alive(false);
        Send();
    }

    void PrepareReply(http::status status, std::string body, std::string_view type) {
        response = {};
        response.result(status);
        response.version(11);
        response.set(http::field::content_type, type);
        response.body() = std::move(body);
        response.keep_alive(parser->get().keep_alive());
    }

    void Dispatch() {
        const http::request<http::string_body>& request = parser->get();
        if (request.target() != Hask::HostAgent::apiPath) {
            PrepareReply(http::status::not_found, "The API is at " + Hask::HostAgent::apiPath + "\n",
                         "text/plain");
            Send();
        } else if (request.method() != http::verb::post) {
            PrepareReply(http::status::method_not_allowed, "Calls are POST requests\n", "text/plain");
            response.set(http::field::allow, "POST");
            Send();
        } else {
            Call(request.body());
        }
    }

    void Call(const std::string& body) {
        const bool wasLoggedIn = session.IsLoggedIn();
        try {
            Ordane::Reply reply = Ordane::HandleCall(body, session, Limits().message);
            // SOAP 1.1 over HTTP sends a fault with the status 500.
            PrepareReply(reply.fault ? http::status::internal_server_error : http::status::ok,
                         std::move(reply.text), "text/xml; charset=utf-8");
        } catch (const std::exception& failure) {  // out of memory
            spdlog::error("Connection {}: call failed, closing: {}", number, failure.what());
            LogClose("a call failed");
            return;
        }
        if (session.IsLoggedIn()) {
            context.table.Place(number, shared_from_this(), Stage::Session);
        } else if (wasLoggedIn) {
            loginDeadline = Clock::now() + context.timeouts.login;
            context.table.Place(number, shared_from_this(), Stage::Login);
        }
        if (!session.TakeRejectedLogin()) {
            Send();
            return;
        }
        delayedReply.expires_after(context.timeouts.rejectedLogin);
        delayedReply.async_wait([self = shared_from_this()](const error_code& error) {
            if (!error) {
                self->Send();
            }
        });
    }

    void Send() {
        parser.reset();  // frees the request
        response.prepare_payload();
        SetTimeout(context.timeouts.reply);
        http::async_write(stream, response, Then(&Connection::OnSent));
    }

    void OnSent(const error_code& error, std::size_t /*size*/) {
        if (error) {
            Fail("reply", error);
            return;
        }
        const bool more = response.keep_alive();
        response = {};
        if (more) {
            AwaitRequest();
        } else {
            Shutdown("no request may follow");
        }
    }

    // Sends close_notify and waits for the client's.
    void Shutdown(std::string_view why) {
        LogClose(why);
        SetTimeout(shutdownTimeout);
        stream.async_shutdown([self = shared_from_this()](const error_code& /*error*/) {});
    }

    ConnectionContext& context;
    const std::uint64_t number;
    beast::ssl_stream<beast::tcp_stream> stream;
    asio::steady_timer delayedReply;
    Session session;
    Clock::time_point loginDeadline = Clock::now() + context.timeouts.login;
    bool closing = false;

    std::string line;  // of the preamble
    beast::flat_buffer buffer{readSize + afterLogin.header};
    std::optional<http::request_parser<http::string_body>> parser;
    http::response<http::string_body> response;
};

}  // namespace

void StartConnection(asio::ip::tcp::socket socket, ConnectionContext& context, std::uint64_t number) {
    std::make_shared<Connection>(std::move(socket), context, number)->Start();
}

}  // namespace Vessad
