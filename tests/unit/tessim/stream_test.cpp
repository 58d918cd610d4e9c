#include "runtime/tessim/stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/peer.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/tls_test_server.h"
#include "tests/unit/tessim/open_stream.h"

namespace Tessim {
namespace {

using namespace std::chrono_literals;
using KelvTest::ServedConnection;
using KelvTest::TlsTestServer;
using ::testing::HasSubstr;

// A server that opens a stream to itself and then runs a script, and the client's end of that stream.
class Connected {
  public:
    explicit Connected(TlsTestServer::Script script = &ServedConnection::StaySilent)
        : server([script = std::move(script)](ServedConnection& connection) {
              connection.Serve();
              script(connection);
          }),
          before(OpenDescriptors(0, server.GetPort())),
          stream(OpenStream(server.GetPort())) {}

    void Read() {
        char byte = 0;
        stream->Read(&byte, 1);
    }
    void Write(const std::string& text) { stream->Write(text.data(), text.size()); }
    // The descriptors that the client's end has.
    std::vector<int> OwnDescriptors() const {
        const auto now = OpenDescriptors(0, server.GetPort());
        std::vector<int> own;
        std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(own));
        return own;
    }

    TlsTestServer server;
    std::vector<int> before;
    Ref<System::Stream> stream;
};

std::string BigText() {
    std::string text;
    for (int i = 0; text.size() < 300000; ++i) {
        text += std::to_string(i) + ",";
    }
    return text;
}

TEST(TlsStream, CarriesEveryByteBothWaysUpToACloseNotify) {
    for (const bool close : {false, true}) {  // by Close, or with the last handle
        std::string received;
        bool notified = false;
        Connected client([&](ServedConnection& connection) {
            connection.Send(BigText());
            received = connection.ReadUntil('\0');
            notified = (SSL_get_shutdown(connection.GetNative()) & SSL_RECEIVED_SHUTDOWN) != 0;
        });
        EXPECT_EQ(ReadBytes(*client.stream, BigText().size()), BigText());
        client.Write(BigText());
        close ? client.stream->Close() : client.stream.Reset();
        client.server.WaitForScripts(1);
        EXPECT_EQ(received, BigText());
        EXPECT_TRUE(notified) << close;
    }
}

TEST(TlsStream, ReadsWhatIsThereUpToTheEndOfTheStream) {
    Connected client([](ServedConnection& connection) {
        connection.Send("abc");
        connection.ReadLine();
        std::this_thread::sleep_for(100ms);  // so that the client has to wait, and asks OpenSSL what for
        SSL_shutdown(connection.GetNative());
    });
    std::string buffer(100, '\0');
    EXPECT_EQ(client.stream->Read(buffer.data(), 0), 0U);
    EXPECT_EQ(client.stream->Read(buffer.data(), buffer.size()), 3U);
    EXPECT_NO_THROW(client.Write(""));
    client.Write("go\n");
    ERR_raise(ERR_LIB_USER, 1);  // an error that somebody else left in the queue
    EXPECT_EQ(client.stream->Read(buffer.data(), buffer.size()), 0U);
    EXPECT_EQ(client.stream->Read(buffer.data(), buffer.size()), 0U);
}

TEST(TlsStream, IsBrokenWhenThePeerEndsItWithoutCloseNotify) {
    for (const bool reset : {false, true}) {
        Connected client([reset](ServedConnection& connection) {
            connection.ReadLine();
            connection.SetWire({.reset = reset});
            connection.Send(reset ? "" : "half");
        });
        client.Write("go\n");
        client.server.WaitForScripts(1);
        EXPECT_THAT(MessageOf<StreamException>([&] { ReadBytes(*client.stream, 100); }),
                    HasSubstr(reset ? "reading: Connection reset by peer"
                                    : "reading: the peer closed the connection"));
        EXPECT_EQ(ERR_peek_error(), 0U);
        EXPECT_THROW(client.Read(), StreamException);
        EXPECT_THROW(client.Write("x"), StreamException);
        client.stream->Close();
    }
}

// A closed peer resets the connection at the next bytes; the bytes after those, or a close_notify, raise a
// SIGPIPE.
TEST(TlsStream, RaisesNoSignalWhenThePeerIsGone) {
    ::signal(SIGPIPE, SIG_DFL);
    for (const bool close : {false, true}) {
        Connected client([](ServedConnection& connection) { connection.ReadLine(); });
        client.Write("go\n");
        client.server.WaitForScripts(1);
        if (close) {
            client.Write("more");
            client.stream->Close();
            EXPECT_EQ(ERR_peek_error(), 0U);
        } else {
            EXPECT_THROW(
                for (int i = 0; i < 100; ++i) { client.Write("more"); }, StreamException);
        }
    }
}

TEST(TlsStream, IsConnectedUntilItIsClosedOrItsEndArrives) {
    Connected client([&](ServedConnection& connection) {
        connection.Send("unread");
        connection.ReadLine();
    });
    EXPECT_TRUE(client.stream->IsConnected());
    client.Write("\n");
    client.server.WaitForScripts(1);
    const auto start = Clock::now();
    while (client.stream->IsConnected() && Clock::now() - start < soon) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_FALSE(client.stream->IsConnected());
    const auto other = OpenStream(client.server.GetPort());
    EXPECT_TRUE(other->IsConnected());
    other->Close();
    EXPECT_FALSE(other->IsConnected());
}

TEST(TlsStream, MayBeClosedTwiceAndIsOfNoUseThen) {
    Connected client;
    EXPECT_EQ(client.OwnDescriptors().size(), 1U);
    client.stream->Close();
    client.stream->Close();
    EXPECT_TRUE(client.OwnDescriptors().empty());
    EXPECT_THAT(MessageOf<StreamException>([&] { client.Read(); }), HasSubstr("closed"));
    EXPECT_THAT(MessageOf<StreamException>([&] { client.Write("x"); }), HasSubstr("closed"));
}

TEST(TlsStream, BelongsToTheProcessThatOpenedIt) {
    std::string line;
    Connected client([&](ServedConnection& connection) {
        line = connection.ReadLine();
        connection.Send("pong");
        connection.StaySilent();
    });
    // Whatever the child does, the parent's connection must not notice.
    ExpectInChild([&] {
        const auto isRefused = [](auto action) {
            return MessageOf<StreamException>(action).find("another process") != std::string::npos;
        };
        const bool refused = isRefused([&] { client.Read(); }) && isRefused([&] { client.Write("x"); });
        const bool own = client.stream->IsOwn();
        client.stream->Close();
        return refused && !own && client.OwnDescriptors().empty();
    });
    EXPECT_TRUE(client.stream->IsOwn());
    client.Write("ping\n");
    EXPECT_EQ(ReadBytes(*client.stream, 4), "pong");
    client.stream->Close();
    client.server.WaitForScripts(1);
    EXPECT_EQ(line, "ping\n");
}

TEST(TlsStream, EndsAnOperationAtTheDeadlineAndStartsTheBackoff) {
    const std::string large(32U << 20U, 'x');  // more than any socket buffers
    for (const bool write : {false, true}) {
        Connected client;
        std::string message;
        {
            const TimeBudget budget(300ms);
            message = MessageOf<TimeoutException>([&] { write ? client.Write(large) : client.Read(); });
            EXPECT_GE(Clock::now(), TimeBudget::Deadline());
        }
        EXPECT_EQ(MessageOf<TimeoutException>([&] { OpenStream(client.server.GetPort()); }), message);
        EXPECT_EQ(client.server.GetAccepted(), 1);
        // What comes now may belong to the request that timed out.
        EXPECT_THROW(client.Read(), StreamException);
    }
}

TEST(TlsStream, WritesNothingInTheBackoff) {
    Connected client;
    EXPECT_THROW(Peer("localhost", client.server.GetPort()).ThrowTimeout("long work"), TimeoutException);
    EXPECT_THAT(MessageOf<TimeoutException>([&] { client.Write("x"); }), HasSubstr("long work"));
}

TEST(TlsStream, ReadsNothingAfterTheDeadlineEvenIfItIsThere) {
    Connected client([](ServedConnection& connection) {
        connection.Send("late");
        connection.StaySilent();
    });
    pollfd arrival{client.OwnDescriptors().at(0), POLLIN, 0};
    ASSERT_EQ(::poll(&arrival, 1, 20000), 1);
    const TimeBudget budget(0s);
    EXPECT_THROW(client.Read(), TimeoutException);
}

TEST(TlsStream, StopsWaitingWhenASignalTellsTheProcessToEnd) {
    static volatile sig_atomic_t ending = 0;
    Connected client;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { ending = 1; };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    TimeBudget::EndWaitsWhen([] { return ending != 0; });

    const auto start = Clock::now();
    std::thread sender([waiting = pthread_self()] {
        std::this_thread::sleep_for(100ms);
        pthread_kill(waiting, SIGUSR1);
    });
    const TimeBudget budget(2 * soon);
    EXPECT_THAT(MessageOf<StreamException>([&] { client.Read(); }), HasSubstr("process is ending"));
    EXPECT_LT(Clock::now() - start, soon);
    sender.join();
    // And does not start another wait.
    EXPECT_THROW(OpenStream(client.server.GetPort()), StreamException);

    TimeBudget::EndWaitsWhen(nullptr);
    sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace Tessim
