#include "runtime/tessim/service.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <utility>

#include "runtime/tessim/exception.h"
#include "runtime/tessim/string_util.h"

namespace Tessim::Service {
namespace {

class StandardErrorWriter final : public virtual Writer, public ObjectImpl {
  public:
    void Write(const char* text, int length) override {
        // There is nowhere to report that the log cannot be written.
        while (length > 0) {
            const ssize_t written = ::write(STDERR_FILENO, text, static_cast<std::size_t>(length));
            if (written > 0) {
                text += written;
                length -= static_cast<int>(written);
            } else if (errno != EINTR) {
                return;
            }
        }
    }
    void Close() override {}
    std::string ToString() const override { return "standard error output"; }
};

class LoggerImpl final : public virtual Logger, public ObjectImpl {
  public:
    LoggerImpl(Writer* writer, std::string name) : writer(writer), name(std::move(name)) {}

    const std::string& GetName() const override { return name; }

    void Write(LogLevel /*level*/, std::string_view text) override {
        std::string line = StringUtil::EscapeControls(text).substr(0, INT_MAX - 1);
        line += '\n';
        writer->Write(line.c_str(), static_cast<int>(line.size()));
    }

  private:
    Ref<Writer> writer;
    std::string name;
};

class AppImpl final : public virtual App, public ObjectImpl {
  public:
    AppImpl() : defaultLogger(MakeRef<LoggerImpl>(MakeRef<StandardErrorWriter>().Get(), "default")) {}

    Ref<Logger> GetDefaultLogger() const override { return defaultLogger; }
    void SetDefaultLogger(Logger* logger) { defaultLogger = logger; }

  private:
    Ref<Logger> defaultLogger;
};

// Never destroyed: log lines may still come from other destructors at the process's end.
Ref<AppImpl>& TheApp() {
    static auto& app = *new Ref<AppImpl>;
    return app;
}

}  // namespace

void InitApp() {
    if (TheApp()) {
        throw AlreadyInitializedException("the application object exists already");
    }
    TheApp() = MakeRef<AppImpl>();
}

Ref<App> GetApp() {
    return TheApp();
}

void CreateLogger(Writer* writer, const std::string& name, LogManager* /*logManager*/, Ref<Logger>& out) {
    if (writer == nullptr) {
        throw InvalidArgumentException("a logger needs a writer");
    }
    out = MakeRef<LoggerImpl>(writer, name);
}

void SetDefaultLogger(Logger* logger) {
    if (logger == nullptr || !TheApp()) {
        throw InvalidArgumentException("a default logger needs a logger and an application object");
    }
    TheApp()->SetDefaultLogger(logger);
}

void Log(Logger* logger, Logger::LogLevel level, std::string_view text) {
    Ref<Logger> target(logger);
    if (!target && TheApp()) {
        target = TheApp()->GetDefaultLogger();
    }
    if (target) {
        target->Write(level, text);
    }
}

void Log(Logger* logger, Logger::LogLevel level, const PrintFormatter& text) {
    Log(logger, level, text.Format());
}

}  // namespace Tessim::Service
