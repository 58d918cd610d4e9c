#include "runtime/tessim/authd.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/string_util.h"
#include "runtime/tessim/time_budget.h"
#include "runtime/tessim/tls_connection.h"

namespace Tessim::Authd {
namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::size_t statusLength = 4;  // three digits and a blank
constexpr std::size_t maxReason = 200;   // of a refusal, in a message

bool IsPrintable(char c) {
    return c >= ' ' && c <= '~';
}

std::string RequestLine(Selector selector, const std::string& text1, const std::string& text2) {
    for (const std::string* text : {&text1, &text2}) {
        if (!std::all_of(text->begin(), text->end(), [](char c) { return IsPrintable(c) && c != '"'; })) {
            throw InvalidArgumentException("a text for the authentication service is not printable");
        }
    }
    std::string line = "OPEN " + std::to_string(static_cast<int>(selector));
    line.append(" \"").append(text1).append("\" \"").append(text2).append("\"").append(lineEnd);
    if (line.size() > maxPreambleLine) {
        throw InvalidArgumentException("the texts for the authentication service are too long");
    }
    return line;
}

class ServiceStreamImpl final : public virtual ServiceStream, public ObjectImpl {
  public:
    ServiceStreamImpl(const Ssl::SSLContext& context, Peer peer, const std::string& request,
                      Clock::time_point deadline)
        : connection(context, std::move(peer), deadline) {
        connection.Write(request.data(), request.size(), deadline);
        path = ParseReply(ReadLine(deadline));
    }

    const std::string& GetConnectionPath() const override { return path; }

    std::size_t Read(void* buffer, std::size_t size) override {
        return connection.Read(buffer, size, TimeBudget::Deadline());
    }
    void Write(const void* data, std::size_t size) override {
        connection.Write(data, size, TimeBudget::Deadline());
    }
    void Close() noexcept override { connection.Close(); }
    bool IsOwn() const noexcept override { return connection.IsOwn(); }

  private:
    // One byte at a time: what follows the line belongs to the service, and OpenSSL keeps it for the next
    // Read.
    std::string ReadLine(Clock::time_point deadline) {
        std::string line;
        while (!line.ends_with(lineEnd)) {
            if (line.size() == maxPreambleLine) {
                ThrowViolation("its answer is too long");
            }
            char byte = 0;
            if (connection.Read(&byte, 1, deadline) == 0) {
                ThrowViolation("it closed the connection without an answer");
            }
            line += byte;
        }
        line.resize(line.size() - lineEnd.size());
        return line;
    }

    std::string ParseReply(const std::string& line) const {
        const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
        if (line.size() < statusLength || line[statusLength - 1] != ' ' ||
            !std::all_of(line.begin(), line.begin() + statusLength - 1, isDigit)) {
            ThrowViolation("its answer has no status");
        }
        std::string text = line.substr(statusLength);
        if (!line.starts_with("200")) {
            throw StreamException(
                connection.GetPeer().GetName() +
                ": the authentication service refused the stream: " + StringUtil::Printable(line, maxReason));
        }
        if (text.empty() || !std::all_of(text.begin(), text.end(), IsPrintable)) {
            ThrowViolation("its answer has no path");
        }
        return text;
    }

    [[noreturn]] void ThrowViolation(const char* what,
                                     const SourceLocation& where = SourceLocation::current()) const {
        throw StreamException(connection.GetPeer().GetName() + ": no authentication service: " + what, where);
    }

    TlsConnection connection;
    std::string path;
};

class ClientImpl final : public virtual Client, public ObjectImpl {
  public:
    explicit ClientImpl(Ssl::SSLContext* context) : context(context) {}

    void Open(Selector selector, const std::string& host, std::uint16_t port, const std::string& text1,
              const std::string& text2, Ref<System::Stream>& out) override {
        const std::string request = RequestLine(selector, text1, text2);
        Peer peer(host, port);
        peer.CheckPause();
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

}  // namespace Tessim::Authd
