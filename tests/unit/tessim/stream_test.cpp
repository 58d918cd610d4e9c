#include "runtime/tessim/stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/time_budget.h"
#include "tests/support/tls_test_server.h"
#include "tests/unit/tessim/open_stream.h"

namespace Tessim {
namespace {

using namespace std::chrono_literals;
using KelvTest::ServedConnection;
using KelvTest::TlsTestServer;
using ::testing::HasSubstr;

constexpr auto soon = 20s;

std::string BigText() {
    std::string text;
    for (int i = 0; text.size() < 300000; ++i) {
        text += std::to_string(i) + ",";
    }
    return text;
}

// The message of the exception that `action` throws.
template <class Expected, class Action>
std::string MessageOf(Action action) {
    try {
        action();
    } catch (const Expected& thrown) {
        return thrown.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

TEST(TlsStream, CarriesEveryByteBothWays) {
    std::string received;
    bool goodbye = false;
    TlsTestServer server([&](ServedConnection& connection) {
        connection.Serve();
        connection.Send(BigText());
        received = connection.ReadAll();
        goodbye = connection.HeardGoodbye();
    });
    const auto stream = OpenStream(server.GetPort());
    EXPECT_EQ(ReadBytes(*stream, BigText().size()), BigText());
    stream->Write(BigText().data(), BigText().size());
    stream->Close();
    server.WaitForScripts(1);
    EXPECT_EQ(received, BigText());
    EXPECT_TRUE(goodbye);
}

TEST(TlsStream, ReadsWhatIsThere) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve("abc");
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    std::string buffer(100, '\0');
    EXPECT_EQ(stream->Read(buffer.data(), buffer.size()), 3U);
}

TEST(TlsStream, MovesNothingWhenAskedForNothing) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    char byte = 0;
    EXPECT_EQ(stream->Read(&byte, 0), 0U);
    EXPECT_NO_THROW(stream->Write(&byte, 0));
}

TEST(TlsStream, EndsWithThePeersGoodbye) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve("last");
        connection.SayGoodbye();
    });
    const auto stream = OpenStream(server.GetPort());
    EXPECT_EQ(ReadBytes(*stream, 100), "last");
    char byte = 0;
    EXPECT_EQ(stream->Read(&byte, 1), 0U);
}

TEST(TlsStream, IsBrokenWhenThePeerGoesWithoutGoodbye) {
    TlsTestServer server([](ServedConnection& connection) { connection.Serve("half"); });
    const auto stream = OpenStream(server.GetPort());
    EXPECT_THAT(MessageOf<StreamException>([&] { ReadBytes(*stream, 100); }),
                HasSubstr("reading: the peer closed the connection"));
    EXPECT_EQ(ERR_peek_error(), 0U);
    char byte = 0;
    EXPECT_THROW(stream->Read(&byte, 1), StreamException);
    EXPECT_THROW(stream->Write(&byte, 1), StreamException);
    stream->Close();
}

TEST(TlsStream, IsBrokenWhenThePeerResets) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.ReadLine();
        connection.SetWire({.reset = true});
    });
    const auto stream = OpenStream(server.GetPort());
    stream->Write("go\n", 3);
    server.WaitForScripts(1);
    char byte = 0;
    EXPECT_THAT(MessageOf<StreamException>([&] { stream->Read(&byte, 1); }),
                HasSubstr("Connection reset by peer"));
}

// A peer that has closed in order answers the next bytes with a reset, and the bytes after those make a
// SIGPIPE.
Ref<System::Stream> OpenToOneWhoIsGone(TlsTestServer& server) {
    ::signal(SIGPIPE, SIG_DFL);
    auto stream = OpenStream(server.GetPort());
    stream->Write("go\n", 3);
    server.WaitForScripts(1);
    return stream;
}

void AnswerAndGo(ServedConnection& connection) {
    connection.Serve();
    connection.ReadLine();
}

TEST(TlsStream, RaisesNoSignalWhenThePeerIsGone) {
    TlsTestServer server(AnswerAndGo);
    const auto stream = OpenToOneWhoIsGone(server);
    EXPECT_THROW(
        for (int i = 0; i < 100; ++i) { stream->Write("more", 4); }, StreamException);
}

TEST(TlsStream, RaisesNoSignalWhenItSaysGoodbyeToAPeerThatIsGone) {
    TlsTestServer server(AnswerAndGo);
    const auto stream = OpenToOneWhoIsGone(server);
    stream->Write("more", 4);
    stream->Close();
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(TlsStream, IsClosedOnceAndForAll) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve("x");
        connection.StaySilent();
    });
    const auto before = OpenDescriptors(0, server.GetPort());
    const auto stream = OpenStream(server.GetPort());
    stream->Close();
    stream->Close();
    EXPECT_EQ(OpenDescriptors(0, server.GetPort()), before);
    char byte = 0;
    EXPECT_THAT(MessageOf<StreamException>([&] { stream->Read(&byte, 1); }), HasSubstr("closed"));
    EXPECT_THAT(MessageOf<StreamException>([&] { stream->Write(&byte, 1); }), HasSubstr("closed"));
}

TEST(TlsStream, SaysGoodbyeWithItsLastHandle) {
    bool goodbye = false;
    TlsTestServer server([&](ServedConnection& connection) {
        connection.Serve();
        connection.ReadAll();
        goodbye = connection.HeardGoodbye();
    });
    OpenStream(server.GetPort());
    server.WaitForScripts(1);
    EXPECT_TRUE(goodbye);
}

TEST(TlsStream, BelongsToTheProcessThatOpenedIt) {
    bool goodbyeTooEarly = false;
    TlsTestServer server([&](ServedConnection& connection) {
        connection.Serve();
        goodbyeTooEarly = connection.ReadLine() != "ping\n";
        connection.Send("pong");
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    const pid_t child = ::fork();
    if (child == 0) {
        // Whatever the child does, the parent's connection must not notice.
        int failures = stream->IsOwn() ? 1 : 0;
        char byte = 'x';
        for (const bool write : {false, true}) {
            try {
                write ? stream->Write(&byte, 1) : void(stream->Read(&byte, 1));
                ++failures;
            } catch (const StreamException& thrown) {
                failures += std::string(thrown.what()).find("another process") == std::string::npos ? 1 : 0;
            }
        }
        const auto before = OpenDescriptors().size();
        stream->Close();
        failures += OpenDescriptors().size() == before - 1 ? 0 : 1;
        ::_exit(failures);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(stream->IsOwn());
    stream->Write("ping\n", 5);
    EXPECT_EQ(ReadBytes(*stream, 4), "pong");
    stream->Close();
    server.WaitForScripts(1);
    EXPECT_FALSE(goodbyeTooEarly);
}

TEST(TlsStream, StopsReadingAtTheDeadlineAndPausesThePeer) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    std::string message;
    {
        const TimeBudget budget(100ms);
        char byte = 0;
        message = MessageOf<TimeoutException>([&] { stream->Read(&byte, 1); });
        EXPECT_GE(Clock::now(), TimeBudget::Deadline());
    }
    EXPECT_EQ(MessageOf<TimeoutException>([&] { OpenStream(server.GetPort()); }), message);
    EXPECT_EQ(server.GetAccepted(), 1);
    // It is good for nothing any more: an answer that comes now may belong to the request given up.
    char byte = 0;
    EXPECT_THROW(stream->Read(&byte, 1), StreamException);
}

TEST(TlsStream, TakesNothingAfterTheDeadlineEvenIfItIsThere) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.Send("late");
        connection.StaySilent();
    });
    const auto before = OpenDescriptors(0, server.GetPort());
    const auto stream = OpenStream(server.GetPort());
    const auto after = OpenDescriptors(0, server.GetPort());
    std::vector<int> own;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(own));
    ASSERT_EQ(own.size(), 1U);
    pollfd arrival{own.front(), POLLIN, 0};
    ASSERT_EQ(::poll(&arrival, 1, 20000), 1);
    const TimeBudget budget(0s);
    char byte = 0;
    EXPECT_THROW(stream->Read(&byte, 1), TimeoutException);
}

TEST(TlsStream, IgnoresErrorsThatSomebodyElseLeftInTheQueue) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        std::this_thread::sleep_for(100ms);  // so that the client has to wait, and asks OpenSSL what for
        connection.Send("x");
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    ERR_raise(ERR_LIB_USER, 1);
    EXPECT_EQ(ReadBytes(*stream, 1), "x");
}

TEST(TlsStream, StopsWritingAtTheDeadlineAndPausesThePeer) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    const std::string text(32U << 20U, 'x');  // more than any socket takes in
    std::string message;
    {
        const TimeBudget budget(500ms);
        message = MessageOf<TimeoutException>([&] { stream->Write(text.data(), text.size()); });
    }
    EXPECT_EQ(MessageOf<TimeoutException>([&] { OpenStream(server.GetPort()); }), message);
    EXPECT_EQ(server.GetAccepted(), 1);
}

TEST(TlsStream, IsNotKeptReadingByAPeerThatDribbles) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.SetWire({.byteInterval = 20ms});
        while (!connection.IsGone()) {
            connection.Send("x");
        }
    });
    const auto stream = OpenStream(server.GetPort());
    const auto start = Clock::now();
    const TimeBudget budget(1s);
    EXPECT_THROW(ReadBytes(*stream, 1000000), TimeoutException);
    EXPECT_LT(Clock::now() - start, soon);
}

TEST(TlsStream, IsNotKeptReadingByAPeerThatSendsWithoutEnd) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        while (!connection.IsGone()) {
            connection.Send(std::string(16000, 'x'));
        }
    });
    const auto stream = OpenStream(server.GetPort());
    const auto start = Clock::now();
    const TimeBudget budget(300ms);
    char buffer[16000];
    EXPECT_THROW(
        while (Clock::now() - start < soon) { stream->Read(buffer, sizeof buffer); }, TimeoutException);
}

TEST(TlsStream, HasFiveSecondsForAnOperationOutsideABudget) {
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
    const auto start = Clock::now();
    char byte = 0;
    EXPECT_THROW(stream->Read(&byte, 1), TimeoutException);
    EXPECT_GE(Clock::now() - start, 5s);
    EXPECT_LT(Clock::now() - start, soon);
}

TEST(TlsStream, StopsWaitingWhenASignalTellsTheProcessToEnd) {
    static volatile sig_atomic_t ending = 0;
    TlsTestServer server([](ServedConnection& connection) {
        connection.Serve();
        connection.StaySilent();
    });
    const auto stream = OpenStream(server.GetPort());
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
    char byte = 0;
    EXPECT_THAT(MessageOf<StreamException>([&] { stream->Read(&byte, 1); }), HasSubstr("told to end"));
    EXPECT_LT(Clock::now() - start, soon);
    sender.join();
    // And does not start another wait.
    EXPECT_THROW(OpenStream(server.GetPort()), StreamException);

    TimeBudget::EndWaitsWhen(nullptr);
    sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace Tessim
