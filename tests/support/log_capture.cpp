#include "tests/support/log_capture.h"

#include <net-snmp/net-snmp-config.h>
// The configuration comes first.
#include <net-snmp/net-snmp-includes.h>

#include <ostream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace TestSupport {
namespace {

int OnLogLine(netsnmp_log_handler* handler, int priority, const char* text) {
    static_cast<LogCapture*>(handler->magic)->Add(priority, text);
    return 1;
}

// The handlers of netsnmp_register_loghandler receive only LOG_EMERG in net-snmp 5.9.5; those of the option
// -Lo receive every priority in each release.
netsnmp_log_handler* MakeHandler() {
    std::string option = "o";
    const int failed = snmp_log_options(option.data(), 0, nullptr);
    netsnmp_log_handler* const handler = netsnmp_find_loghandler("stdout");
    if (failed != 0 || handler == nullptr) {
        throw std::runtime_error("the library has no log to standard output");
    }
    return handler;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
    return stream << line.priority << " \"" << line.text << '"';
}

LogCapture::LogCapture() : handler(MakeHandler()) {
    handler->handler = OnLogLine;
    handler->magic = this;
}

LogCapture::~LogCapture() {
    netsnmp_remove_loghandler(handler);
}

std::vector<LogLine> LogCapture::Take() {
    return std::exchange(lines, {});
}

std::string LogCapture::TakeDebugText() {
    std::string text;
    for (const LogLine& line : Take()) {
        if (line.priority == LOG_DEBUG) {
            text += line.text;
        }
    }
    return text;
}

void LogCapture::Add(int priority, const char* text) {
    lines.push_back({priority, text});
}

std::string TakeDetail() {
    // The library appends the detail to its next error text, in brackets, and drops it.
    constexpr std::string_view before = "Generic error (";
    const std::string text = snmp_api_errstring(SNMPERR_GENERR);
    if (!text.starts_with(before)) {
        return "";
    }
    return text.substr(before.size(), text.size() - before.size() - 1);
}

}  // namespace TestSupport
