#include "apps/status/Report.h"

#include <algorithm>
// The library, which is built here.
#include <boost/json/src.hpp>

namespace KelvStatus {

namespace {

bool Has(const Report& report, Result result) {
    return std::ranges::any_of(report.checks, [&](const Check& check) { return check.result == result; });
}

template <class Value>
void Add(boost::json::object& object, const char* name, const std::optional<Value>& value) {
    if (value) {
        object[name] = *value;
    }
}

}  // namespace

int ExitCode(const Report& report) {
    constexpr int failed = 1;
    constexpr int unknown = 2;
    if (Has(report, Result::Fail)) {
        return failed;
    }
    return Has(report, Result::Unknown) ? unknown : 0;
}

std::string ToText(const Report& report) {
    constexpr const char* indent = "      ";
    std::string text;
    for (const Check& check : report.checks) {
        switch (check.result) {
            case Result::Ok:
                text += "ok    ";
                break;
            case Result::Fail:
                text += "FAIL  ";
                break;
            case Result::Unknown:
                text += "?     ";
                break;
        }
        text += check.name + ": " + check.text + "\n";
        if (!check.remedy.empty()) {
            text += indent + check.remedy + "\n";
        }
    }
    return text;
}

std::string ToJson(const Report& report) {
    boost::json::object object;
    object["exitCode"] = ExitCode(report);
    boost::json::array checks;
    for (const Check& check : report.checks) {
        boost::json::object entry;
        entry["check"] = check.name;
        entry["result"] = check.result == Result::Ok     ? "ok"
                          : check.result == Result::Fail ? "fail"
                                                         : "unknown";
        entry["text"] = check.text;
        if (!check.remedy.empty()) {
            entry["remedy"] = check.remedy;
        }
        checks.push_back(std::move(entry));
    }
    object["checks"] = std::move(checks);
    Add(object, "source", report.source);
    Add(object, "connected", report.connected);
    Add(object, "vms", report.vms);
    Add(object, "snapshotAge", report.snapshotAge);
    Add(object, "queryTime", report.queryTime);
    return boost::json::serialize(object) + "\n";
}

}  // namespace KelvStatus
