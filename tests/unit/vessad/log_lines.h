// The daemon's log lines while an object of this class lives.
#pragma once

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <mutex>
#include <string>

namespace VessadTest {

class LogLines {
  public:
    LogLines() : sink(std::make_shared<Sink>()), before(spdlog::default_logger()) {
        auto logger = std::make_shared<spdlog::logger>("test", sink);
        logger->set_pattern("%l %v");
        logger->set_level(spdlog::level::debug);
        spdlog::set_default_logger(logger);
    }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;
    ~LogLines() { spdlog::set_default_logger(before); }

    // The lines so far, each as "level text" with a line feed.
    std::string GetText() const { return sink->GetText(); }

  private:
    class Sink final : public spdlog::sinks::base_sink<std::mutex> {
      public:
        std::string GetText() {
            const std::lock_guard lock(mutex_);
            return text;
        }

      protected:
        void sink_it_(const spdlog::details::log_msg& message) override {
            spdlog::memory_buf_t line;
            formatter_->format(message, line);
            text.append(line.data(), line.size());
        }
        void flush_() override {}

      private:
        std::string text;
    };

    std::shared_ptr<Sink> sink;
    std::shared_ptr<spdlog::logger> before;
};

}  // namespace VessadTest
