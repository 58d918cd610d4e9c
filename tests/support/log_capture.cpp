#include "tests/support/log_capture.h"

#include <net-snmp/net-snmp-config.h>
// The configuration comes first.
#include <net-snmp/net-snmp-includes.h>

#include <ostream>
#include <string_view>
#include <utility>

namespace TestSupport {
namespace {

int OnLogLine(int, int, void* message, void* capture) {
    const auto* const line = static_cast<const snmp_log_message*>(message);
    static_cast<LogCapture*>(capture)->Add(line->priority, line->msg);
    return SNMPERR_SUCCESS;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
    return stream << line.priority << " \"" << line.text << '"';
}

LogCapture::LogCapture() : handler(netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG)) {
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, OnLogLine, this);
}

LogCapture::~LogCapture() {
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, OnLogLine, this, 1);
    netsnmp_remove_loghandler(static_cast<netsnmp_log_handler*>(handler));
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
