#include "runtime/ordane/zarn_stub_adapter.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <chrono>

#include "runtime/ordane/soap.h"
#include "runtime/ordane/soap_stub_adapter.h"
#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"

namespace Ordane {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

constexpr std::uint32_t maxHeaderBytes = 8U * 1024;
constexpr std::size_t maxReplyBytesBeforeLogin = 64UL * 1024;
constexpr std::chrono::seconds callLimit{5};

// The size of one read, a TLS record. It is also the most that may be read but not yet parsed, so that an
// endless chunk header or trailer takes no memory; hence at least the size of a header.
constexpr std::size_t bufferBytes = 16UL * 1024;
static_assert(bufferBytes >= maxHeaderBytes);

// Adapts a stream to the HTTP library. Failures are the stream's own exceptions.
class HttpStream {
  public:
    explicit HttpStream(Tessim::System::Stream& stream) : stream(stream) {}

    template <class Buffers>
    std::size_t read_some(const Buffers& buffers, beast::error_code& error) {
        error = {};
        for (auto at = asio::buffer_sequence_begin(buffers); at != asio::buffer_sequence_end(buffers); ++at) {
            const asio::mutable_buffer buffer(*at);
            if (buffer.size() > 0) {
                const std::size_t count = stream.Read(buffer.data(), buffer.size());
                if (count == 0) {
                    error = asio::error::eof;
                }
                return count;
            }
        }
        return 0;
    }

    template <class Buffers>
    std::size_t write_some(const Buffers& buffers, beast::error_code& error) {
        error = {};
        std::size_t total = 0;
        for (auto at = asio::buffer_sequence_begin(buffers); at != asio::buffer_sequence_end(buffers); ++at) {
            const asio::const_buffer buffer(*at);
            if (buffer.size() > 0) {
                stream.Write(buffer.data(), buffer.size());
                total += buffer.size();
            }
        }
        return total;
    }

    template <class Buffers>
    std::size_t read_some(const Buffers& buffers) {
        beast::error_code error;
        const std::size_t count = read_some(buffers, error);
        Check(error);
        return count;
    }

    template <class Buffers>
    std::size_t write_some(const Buffers& buffers) {
        beast::error_code error;
        return write_some(buffers, error);
    }

    static void Check(const beast::error_code& error) {
        if (error) {
            throw Tessim::StreamException("the daemon's HTTP reply is unusable: " + error.message());
        }
    }

  private:
    Tessim::System::Stream& stream;
};

class ZarnStubAdapter final : public SoapStubAdapter {
  public:
    ZarnStubAdapter(Tessim::Ref<Tessim::Service::Logger> logger, Tessim::Zarn::Route route)
        : logger(std::move(logger)), route(std::move(route)) {}

    void Close() noexcept override {
        SoapStubAdapter::Close();
        route.stream.Reset();
    }

  protected:
    std::string Exchange(const std::string& request) override {
        const Tessim::TimeBudget budget(callLimit);
        try {
            return Post(request);
        } catch (const Tessim::Exception& failure) {
            Tessim::Service::Log(logger.Get(), Tessim::Service::Logger::LogLevel::Info,
                                 Tessim::PrintFormatter("Connection to the daemon is lost: %1")
                                     << failure.what());
            throw;
        }
    }

  private:
    std::string Post(const std::string& request) {
        HttpStream stream(*route.stream);
        http::request<http::string_body> message(http::verb::post, route.remotePath, 11, request);
        message.set(http::field::host, "localhost");
        message.set(http::field::content_type, "text/xml; charset=utf-8");
        message.set("SOAPAction", "\"urn:ordane\"");
        message.prepare_payload();
        beast::error_code error;
        http::write(stream, message, error);
        HttpStream::Check(error);

        beast::flat_buffer buffer(bufferBytes);
        buffer.reserve(bufferBytes);
        http::response_parser<http::string_body> parser;
        parser.header_limit(maxHeaderBytes);
        parser.body_limit(IsLoggedIn() ? Soap::Limits{}.maxBytes : maxReplyBytesBeforeLogin);
        const std::size_t headerBytes = http::read_header(stream, buffer, parser, error);
        HttpStream::Check(error);
        // The parser's own limit does not count what it parsed of the first piece.
        if (headerBytes > maxHeaderBytes) {
            HttpStream::Check(http::error::header_limit);
        }
        // SOAP over HTTP sends a fault with the status 500.
        const http::status status = parser.get().result();
        if (status != http::status::ok && status != http::status::internal_server_error) {
            throw Tessim::StreamException("the daemon replied with HTTP status " +
                                          std::to_string(parser.get().result_int()));
        }
        http::read(stream, buffer, parser, error);
        HttpStream::Check(error);
        if (buffer.size() > 0) {
            throw Tessim::StreamException("the daemon sent more than its reply");
        }
        if (!parser.keep_alive()) {
            route.stream->Close();
        }
        return std::move(parser.get().body());
    }

    Tessim::Ref<Tessim::Service::Logger> logger;
    Tessim::Zarn::Route route;
};

}  // namespace

void CreateZarnStubAdapter(Tessim::Service::Logger* logger, Tessim::Zarn::ZarnSvc* service,
                           const std::string& path, Tessim::Ref<StubAdapter>& out) {
    out = Tessim::Ref<StubAdapter>(new ZarnStubAdapter(logger, service->Resolve(path)));
}

}  // namespace Ordane
