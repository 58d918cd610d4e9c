// The daemon's log lines while an object of this class lives.
#pragma once

#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <string>

namespace VessadTest {

class LogLines {
  public:
    LogLines() {
        auto logger = std::make_shared<spdlog::logger>("test", sink);
        logger->set_pattern("%l %v");
        logger->set_level(spdlog::level::debug);
        spdlog::set_default_logger(logger);
    }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;
    ~LogLines() { spdlog::set_default_logger(before); }

    // The last 10,000 lines, each as "level text" with a line feed. Thread-safe.
    std::string GetText() const {
        std::string text;
        for (const std::string& line : sink->last_formatted()) {
            text += line;
        }
        return text;
    }

  private:
    const std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink =
        std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(10'000);
    const std::shared_ptr<spdlog::logger> before = spdlog::default_logger();
};

}  // namespace VessadTest
