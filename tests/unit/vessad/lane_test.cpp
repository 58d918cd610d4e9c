#include "apps/vessad/Lane.h"

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>

#include "apps/vessad/TlsIdentity.h"
#include "tests/unit/vessad/log_lines.h"
#include "tests/unit/vessad/raw_client.h"
#include "tests/unit/vessad/sample_host.h"
#include "tests/unit/vessad/temporary_directory.h"

namespace Vessad {
namespace {

using boost::asio::ip::tcp;

// Whether the lane has progressed between two checks, having run in between.
bool Progresses(Lane& lane) {
    lane.CheckProgress();
    boost::asio::post(lane.GetExecutor(), boost::asio::use_future([] {})).get();
    return lane.CheckProgress();
}

TEST(Lane, ProgressesWhileItIsAboutToAcceptOrHasNothingToAccept) {
    boost::asio::io_context io;
    tcp::acceptor listener(io, {boost::asio::ip::address_v4::loopback(), 0});
    const std::uint16_t port = listener.local_endpoint().port();
    Lane lane(tcp::v4(), listener.native_handle());
    Lane other(tcp::v4(), listener.native_handle());
    const VessadTest::TemporaryDirectory directory;
    VessadTest::TestBackend backend;
    TicketOptions options;
    options.directory = directory.GetPath() / "tickets";
    TicketStore tickets(options, lane.GetExecutor());
    Services services{backend, tickets};
    ConnectionTable table({});
    boost::asio::ssl::context tls = MakeTlsContext();
    ConnectionContext context{services, table, tls, {}};
    TicketReaders readers({}, Tessim::FileDescriptor());
    Lane::Shared shared{context, readers, context, other};
    lane.Start(shared);
    other.Start(shared);
    EXPECT_TRUE(Progresses(lane));
    EXPECT_TRUE(Progresses(other));
    EXPECT_TRUE(VessadTest::RawClient(port).Open().starts_with("200 "));
    EXPECT_TRUE(Progresses(lane));
    lane.Close();
    Progresses(lane);  // meanwhile the pending accept ends
    EXPECT_FALSE(Progresses(lane));
    other.Close();
    table.Close("the test ends");
    lane.Join();
    other.Join();
}

}  // namespace
}  // namespace Vessad
