#include "runtime/tessim/service.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/file_descriptor.h"

namespace Tessim::Service {
namespace {

using ::testing::ElementsAre;

static_assert(static_cast<int>(Logger::LogLevel::Error) == 3, "as in syslog");
static_assert(static_cast<int>(Logger::LogLevel::Notice) == 5, "as in syslog");
static_assert(static_cast<int>(Logger::LogLevel::Debug) == 7, "as in syslog");

class Lines final : public virtual Writer, public ObjectImpl {
  public:
    void Write(const char* text, int length) override {
        EXPECT_EQ(text[length], '\0');
        written.emplace_back(text, static_cast<std::size_t>(length));
    }
    void Close() override {}
    std::string ToString() const override { return "lines"; }

    std::vector<std::string> written;
};

Ref<Logger> MakeLogger(Writer* writer) {
    Ref<Logger> logger;
    CreateLogger(writer, "SNMP", nullptr, logger);
    return logger;
}

TEST(App, IsMadeOnceAndLogsToStandardErrorAtFirst) {
    const Ref<Lines> lines = MakeRef<Lines>();
    const Ref<Logger> logger = MakeLogger(lines.Get());
    ASSERT_FALSE(GetApp());
    EXPECT_THROW(SetDefaultLogger(logger.Get()), InvalidArgumentException);
    testing::internal::CaptureStderr();
    Log(nullptr, Logger::LogLevel::Error, "nobody listens");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(GetApp());

    InitApp();
    const Ref<App> app = GetApp();
    EXPECT_THROW(InitApp(), AlreadyInitializedException);
    EXPECT_EQ(GetApp().Get(), app.Get());
    EXPECT_EQ(app->GetDefaultLogger()->GetName(), "default");
    testing::internal::CaptureStderr();
    Log(nullptr, Logger::LogLevel::Error, "to everybody");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to everybody\n");
    // A log that cannot be written holds nobody up.
    const FileDescriptor kept(::dup(STDERR_FILENO));
    ASSERT_GE(::dup2(FileDescriptor(::open("/dev/full", O_WRONLY)).Get(), STDERR_FILENO), 0);
    Log(nullptr, Logger::LogLevel::Error, "to nobody");
    ASSERT_GE(::dup2(kept.Get(), STDERR_FILENO), 0);

    SetDefaultLogger(logger.Get());
    EXPECT_THROW(SetDefaultLogger(nullptr), InvalidArgumentException);
    EXPECT_EQ(GetApp()->GetDefaultLogger().Get(), logger.Get());
    Log(nullptr, Logger::LogLevel::Info, "one");
    Log(nullptr, Logger::LogLevel::Info, PrintFormatter("%1") << 2);
    EXPECT_THAT(lines->written, ElementsAre("one\n", "2\n"));
}

TEST(Logger, WritesEachMessageAsOneLine) {
    const Ref<Lines> lines = MakeRef<Lines>();
    const Ref<Logger> logger = MakeLogger(lines.Get());
    EXPECT_EQ(logger->GetName(), "SNMP");
    Log(logger.Get(), Logger::LogLevel::Notice, "Already connected.");
    Log(logger.Get(), Logger::LogLevel::Error, PrintFormatter("Failed: %1") << "why");
    Log(logger.Get(), Logger::LogLevel::Error, "");
    Log(logger.Get(), Logger::LogLevel::Error, "why\nroot logged in\x1b[2K" + std::string(1, '\0') + "end");
    EXPECT_THAT(lines->written, ElementsAre("Already connected.\n", "Failed: why\n", "\n",
                                            "why\\x0aroot logged in\\x1b[2K\\x00end\n"));
}

TEST(Logger, NeedsAWriterAndKeepsItAlive) {
    Ref<Logger> logger;
    EXPECT_THROW(CreateLogger(nullptr, "SNMP", nullptr, logger), InvalidArgumentException);
    EXPECT_FALSE(logger);
    Ref<Lines> lines = MakeRef<Lines>();
    Lines* const observed = lines.Get();
    logger = MakeLogger(lines.Get());
    lines.Reset();
    logger->Write(Logger::LogLevel::Info, "still here");
    EXPECT_THAT(observed->written, ElementsAre("still here\n"));
}

}  // namespace
}  // namespace Tessim::Service
