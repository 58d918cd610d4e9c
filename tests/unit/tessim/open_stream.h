// Streams to a test server, and what tests of streams check alike.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/tessim/authd.h"
#include "runtime/tessim/stream.h"

namespace Tessim {

// Long enough for any busy host, short enough to distinguish a wait for the budget from a hang.
constexpr std::chrono::seconds soon{20};

inline Ref<Authd::Client> MakeClient() {
    Ref<Authd::Client> client;
    Authd::CreateLocalClient(client);
    return client;
}

inline Ref<System::Stream> OpenStream(std::uint16_t port, const std::string& host = "localhost",
                                      const Ref<Authd::Client>& client = MakeClient(),
                                      const std::string& text1 = "", const std::string& text2 = "") {
    Ref<System::Stream> stream;
    client->Open(Authd::Selector::ManagementApi, host, port, text1, text2, stream);
    return stream;
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

// Expects that `check` returns true in a child of fork.
template <class Check>
void ExpectInChild(Check check) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(check() ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// The open descriptors of this process that have all of the descriptor flags `flags`, without those of a
// server in it that uses `serverPort`.
inline std::vector<int> OpenDescriptors(int flags = 0, std::uint16_t serverPort = 0) {
    std::vector<int> found;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        const bool isServers =
            ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
            address.sin_family == AF_INET && serverPort != 0 && ntohs(address.sin_port) == serverPort;
        const int actual = ::fcntl(descriptor, F_GETFD);
        if (!isServers && actual >= 0 && (actual & flags) == flags) {
            found.push_back(descriptor);
        }
    }
    return found;
}

// Reads until `size` bytes are there or the stream ends.
inline std::string ReadBytes(System::Stream& stream, std::size_t size) {
    std::string text(size, '\0');
    std::size_t have = 0;
    for (std::size_t count = 1; have < size && count > 0; have += count) {
        count = stream.Read(text.data() + have, size - have);
    }
    text.resize(have);
    return text;
}

}  // namespace Tessim
