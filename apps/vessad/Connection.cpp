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
constexpr std::chrono::seconds goodbyeLimit{1};
constexpr std::size_t maxShownLine = 80;

// What a request may cost. Before the login it may be anybody's, and no call that is allowed needs more.
struct SizeLimits {
    std::uint32_t header;
    std::uint64_t body;
    Ordane::Soap::Limits message;
};
constexpr SizeLimits beforeLogin{8 * 1024, 16UL * 1024, {.maxElements = 100, .maxDepth = 16}};
constexpr SizeLimits afterLogin{8 * 1024, 8UL * 1024 * 1024, {.maxElements = 400'000, .maxDepth = 64}};

// All of it runs on the socket's strand. Each operation holds the connection; with the last it goes.
class Connection final : public ConnectionTable::Entry, public std::enable_shared_from_this<Connection> {
    // A handler that goes on with `method`. Stands before its users because its type is deduced.
    template <class Method>
    auto Then(Method method) {
        return beast::bind_front_handler(method, shared_from_this());
    }

    beast::tcp_stream& Lowest() { return beast::get_lowest_layer(stream); }

  public:
    Connection(asio::ip::tcp::socket socket, ConnectionContext& context, std::uint64_t number)
        : context(context),
          number(number),
          name("connection " + std::to_string(number)),
          stream(std::move(socket), context.tls),
          lateAnswer(stream.get_executor()),
          session(context.services, number, name) {}

    ~Connection() override { context.table.Remove(number); }

    void Start() {
        context.table.Place(number, shared_from_this(), Stage::Preamble);
        SetDeadline(context.times.preamble);
        stream.async_handshake(asio::ssl::stream_base::server, Then(&Connection::OnHandshake));
    }

    void Evict(std::string_view why) override {
        asio::post(stream.get_executor(), [self = shared_from_this(), why = std::string(why)] {
            self->End(why);
            self->Lowest().close();
            self->lateAnswer.cancel();
        });
    }

  private:
    // Ends the operations to come after `limit`, or at the end of the time for the login.
    void SetDeadline(Clock::duration limit) {
        const Clock::time_point end = Clock::now() + limit;
        Lowest().expires_at(session.IsLoggedIn() ? end : std::min(end, loginEnd));
    }

    // Says once why the connection ends.
    void End(const std::string& why) {
        if (!std::exchange(ended, true)) {
            spdlog::debug("{}: ends: {}", name, why);
        }
    }

    void EndAt(const char* step, const error_code& error) {
        if (error == beast::error::timeout && !ended) {
            spdlog::info("{}: timed out: {}", name, step);
        }
        End(std::string(step) + ": " + error.message());
    }

    void OnHandshake(const error_code& error) {
        if (error) {
            EndAt("TLS handshake", error);
            return;
        }
        asio::async_read_until(stream, asio::dynamic_buffer(line, Authd::maxPreambleLine),
                               Authd::preambleLineEnd, Then(&Connection::OnPreamble));
    }

    void OnPreamble(const error_code& error, std::size_t size) {
        if (error == asio::error::not_found) {
            RefusePreamble(400, "the line is too long");
            return;
        }
        if (error) {
            EndAt("reading the first line", error);
            return;
        }
        const std::optional<Authd::OpenRequest> request =
            Authd::ParseRequestLine(std::string_view(line).substr(0, size - Authd::preambleLineEnd.size()));
        if (!request) {
            RefusePreamble(400, R"(expected OPEN <selector> "<text>" "<text>")");
        } else if (request->selector != static_cast<int>(Authd::Selector::ManagementApi)) {
            RefusePreamble(404, "no service " + std::to_string(request->selector));
        } else {
            // What follows the line is the first request's already.
            const std::size_t more = line.size() - size;
            asio::buffer_copy(buffer.prepare(more), asio::buffer(line.data() + size, more));
            buffer.commit(more);
            line = Authd::MakeReplyLine(Authd::statusOpen, "/ordane/connection/" + std::to_string(number));
            asio::async_write(stream, asio::buffer(line), Then(&Connection::OnAccepted));
        }
    }

    void RefusePreamble(int status, const std::string& reason) {
        spdlog::info("{}: refused the first line \"{}\": {} {}", name,
                     Tessim::StringUtil::EscapeUntrusted(line, maxShownLine), status, reason);
        line = Authd::MakeReplyLine(status, reason);
        asio::async_write(stream, asio::buffer(line),
                          [self = shared_from_this()](const error_code& /*error*/, std::size_t /*size*/) {
                              self->SayGoodbye("the first line was refused");
                          });
    }

    void OnAccepted(const error_code& error, std::size_t /*size*/) {
        if (error) {
            EndAt("answering the first line", error);
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
            SetDeadline(context.times.login);
        }
        stream.async_read_some(buffer.prepare(readSize), Then(&Connection::OnFirstBytes));
    }

    void OnFirstBytes(const error_code& error, std::size_t size) {
        if (error) {
            EndAt("waiting for a request", error);
            return;
        }
        buffer.commit(size);
        ReceiveRequest();
    }

    void ReceiveRequest() {
        const SizeLimits& limits = session.IsLoggedIn() ? afterLogin : beforeLogin;
        parser.emplace();
        parser->header_limit(limits.header);
        parser->body_limit(limits.body);
        SetDeadline(context.times.request);
        http::async_read(stream, buffer, *parser, Then(&Connection::OnRequest));
    }

    void OnRequest(const error_code& error, std::size_t /*size*/) {
        if (error == http::error::end_of_stream) {
            SayGoodbye("the client said goodbye");
        } else if (error == http::error::header_limit) {
            Refuse(http::status::request_header_fields_too_large, error.message());
        } else if (error == http::error::body_limit) {
            Refuse(http::status::payload_too_large, error.message());
        } else if (error && error != http::error::partial_message &&
                   error.category() == make_error_code(http::error::end_of_stream).category()) {
            Refuse(http::status::bad_request, error.message());
        } else if (error) {
            EndAt("reading a request", error);
        } else {
            Answer();
        }
    }

    // Answers what is no HTTP request that can be read, and ends: where the next one begins is unknown.
    void Refuse(http::status status, const std::string& why) {
        spdlog::info("{}: refused a request: {}", name, why);
        Prepare(status, why + "\n", "text/plain");
        response.keep_alive(false);
        Send();
    }

    void Prepare(http::status status, std::string body, std::string_view type) {
        response = {};
        response.result(status);
        response.version(11);
        response.set(http::field::content_type, type);
        response.body() = std::move(body);
        response.keep_alive(parser->get().keep_alive());
    }

    void Answer() {
        const http::request<http::string_body>& request = parser->get();
        if (request.target() != Hask::HostAgent::apiPath) {
            Prepare(http::status::not_found, "The API is at " + Hask::HostAgent::apiPath + "\n",
                    "text/plain");
            Send();
        } else if (request.method() != http::verb::post) {
            Prepare(http::status::method_not_allowed, "Calls are POST requests\n", "text/plain");
            response.set(http::field::allow, "POST");
            Send();
        } else {
            Call(request.body());
        }
    }

    void Call(const std::string& body) {
        const bool before = session.IsLoggedIn();
        try {
            Ordane::Reply reply =
                Ordane::HandleCall(body, session, (before ? afterLogin : beforeLogin).message);
            // SOAP over HTTP answers a fault with the status 500.
            Prepare(reply.fault ? http::status::internal_server_error : http::status::ok,
                    std::move(reply.text), "text/xml; charset=utf-8");
        } catch (const std::exception& failure) {  // out of memory
            spdlog::error("{}: a call failed: {}", name, failure.what());
            End("a call failed");
            return;
        }
        if (session.IsLoggedIn()) {
            context.table.Place(number, shared_from_this(), Stage::Session);
        } else if (before) {
            loginEnd = Clock::now() + context.times.login;
            context.table.Place(number, shared_from_this(), Stage::Login);
        }
        if (!session.TakeRefusal()) {
            Send();
            return;
        }
        lateAnswer.expires_after(context.times.refusedLogin);
        lateAnswer.async_wait([self = shared_from_this()](const error_code& error) {
            if (!error) {
                self->Send();
            }
        });
    }

    void Send() {
        parser.reset();  // and with it the request's memory
        response.prepare_payload();
        SetDeadline(context.times.reply);
        http::async_write(stream, response, Then(&Connection::OnSent));
    }

    void OnSent(const error_code& error, std::size_t /*size*/) {
        if (error) {
            EndAt("sending a reply", error);
            return;
        }
        const bool more = response.keep_alive();
        response = {};
        if (more) {
            AwaitRequest();
        } else {
            SayGoodbye("the exchange is over");
        }
    }

    void SayGoodbye(const char* why) {
        End(why);
        SetDeadline(goodbyeLimit);
        stream.async_shutdown([self = shared_from_this()](const error_code& /*error*/) {});
    }

    ConnectionContext& context;
    const std::uint64_t number;
    const std::string name;
    beast::ssl_stream<beast::tcp_stream> stream;
    asio::steady_timer lateAnswer;
    Session session;
    Clock::time_point loginEnd = Clock::now() + context.times.login;
    bool ended = false;

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
