// The application object and logging. Not thread-safe.
#pragma once

#include <string>
#include <string_view>

#include "runtime/tessim/object.h"
#include "runtime/tessim/print_formatter.h"
#include "runtime/tessim/writer.h"

namespace Tessim::Service {

// Writes a line per message to one writer.
class Logger : public virtual Object {
  public:
    // The numbers are syslog's.
    enum class LogLevel : int {
        Emergency = 0,
        Alert = 1,
        Critical = 2,
        Error = 3,
        Warning = 4,
        Notice = 5,
        Info = 6,
        Debug = 7,
    };

    virtual const std::string& GetName() const = 0;
    // Writes `text` and a line feed in one Write. Control characters are escaped
    // (StringUtil::EscapeControls), so that the text is one line whatever it quotes. The level is not
    // written.
    virtual void Write(LogLevel level, std::string_view text) = 0;
};

// Reserved: pass null.
class LogManager : public virtual Object {};

// The process's application object: it holds the default logger.
class App : public virtual Object {
  public:
    // Never null: at first a logger named "default" that writes to the standard error output.
    virtual Ref<Logger> GetDefaultLogger() const = 0;
};

// Makes the application object. Throws AlreadyInitializedException when it exists already.
void InitApp();

// The application object, or null before InitApp.
Ref<App> GetApp();

// Puts a new logger into `out`, which keeps `writer`. Throws InvalidArgumentException when `writer` is null.
void CreateLogger(Writer* writer, const std::string& name, LogManager* logManager, Ref<Logger>& out);

// Makes `logger` the application's default. Throws InvalidArgumentException on null or before InitApp.
void SetDefaultLogger(Logger* logger);

// Writes one message; a null logger means the application's default one, and none at all writes nothing.
void Log(Logger* logger, Logger::LogLevel level, std::string_view text);
void Log(Logger* logger, Logger::LogLevel level, const PrintFormatter& text);

}  // namespace Tessim::Service
