// A running server of the sample host, and its clients.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "apps/vessad/Server.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace VessadTest {

class ServerTest : public ::testing::Test {
  protected:
    ServerTest() {
        options.listen = Vessad::ParseListenAddress("127.0.0.1:0");
        options.tickets.directory = directory.GetPath() / "tickets";
        StartServer();
    }

    // Replaces the server by one with the options given, which rejects logins without a delay unless
    // `timeouts` says otherwise.
    void StartServer(const Vessad::Timeouts& timeouts = {.rejectedLogin = {}},
                     const Vessad::ConnectionTable::Limits& connections = {}) {
        options.timeouts = timeouts;
        options.connections = connections;
        server.reset();
        server = std::make_unique<Vessad::Server>(options, backend);
        server->Start();
        port = server->GetEndpoint().port();
    }

    std::vector<std::string> TicketFiles() const { return FilesIn(options.tickets.directory); }

    // A client whose preamble has been accepted.
    std::unique_ptr<RawClient> Opened() const {
        auto client = std::make_unique<RawClient>(port);
        EXPECT_TRUE(client->Open().starts_with("200 /ordane/connection/"));
        return client;
    }

    std::unique_ptr<RawClient> LoggedIn() const {
        auto client = Opened();
        EXPECT_EQ(client->LogIn(client->AcquireTicket()).status, 200);
        return client;
    }

    // Returns the status of the response.
    static int ListVms(RawClient& client) {
        return client.Call("Folder", "ha-folder-vm", "GetChildEntity").status;
    }

    LogLines log;
    TemporaryDirectory directory;
    TestBackend backend;
    Vessad::ServerOptions options;
    std::unique_ptr<Vessad::Server> server;
    std::uint16_t port = 0;
};

}  // namespace VessadTest
