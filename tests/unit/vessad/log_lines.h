// The daemon's log lines while an object of this class lives, and waiting for them or something else.
#pragma once

#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace VessadTest {

// Waits for `condition` up to a time that only a failing test takes; returns whether it came true.
template <class Condition>
bool Await(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

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

    // These are thread-safe, and know the last 10,000 lines.

    // Each line as "level text" with a line feed.
    std::string GetText() const {
        std::string text;
        for (const std::string& line : sink->last_formatted()) {
            text += line;
        }
        return text;
    }
    // Returns how many lines contain `part`.
    int Count(const std::string& part) const {
        int count = 0;
        for (const std::string& line : sink->last_formatted()) {
            count += line.find(part) == std::string::npos ? 0 : 1;
        }
        return count;
    }
    // Waits for a line that contains `part`; returns whether it came.
    bool AwaitLine(const std::string& part) const {
        return Await([&] { return Count(part) > 0; });
    }

  private:
    const std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> sink =
        std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(10'000);
    const std::shared_ptr<spdlog::logger> before = spdlog::default_logger();
};

}  // namespace VessadTest
