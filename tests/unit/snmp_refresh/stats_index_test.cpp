#include "apps/snmp/client/StatsIndex.h"

#include <gtest/gtest.h>

#include "tests/support/api_objects.h"

namespace SNMP {
namespace {

using ApiObjects::Metric;
using ApiObjects::Series;

// A line per entity: the samples of counter 1 for any instance, "", "0" and "00", then that of counter -1.
std::string ToText(const StatsIndex& index) {
    const Ordane::MoRef entities[] = {{"VirtualMachine", ""},
                                      {"VirtualMachine", "16"},
                                      {"Other", "16"},
                                      {"VirtualMachine", "1"},
                                      {"VirtualMachine", "32"}};
    std::string text = "\n";
    const auto add = [&](const std::string& name, const Ordane::MoRef* entity) {
        text += name;
        for (const char* const instance : {static_cast<const char*>(nullptr), "", "0", "00"}) {
            const auto sample = index.Find(entity, 1, instance);
            text += ' ' + (sample ? std::to_string(*sample) : "-");
        }
        const auto sample = index.Find(entity, -1, nullptr);
        text += ' ' + (sample ? std::to_string(*sample) : "-") + '\n';
    };
    add("none", nullptr);
    for (const Ordane::MoRef& entity : entities) {
        add(entity.GetType() + " '" + entity.GetId() + "'", &entity);
    }
    return text;
}

TEST(StatsIndex, FindsTheFirstSampleOfTheFirstSeriesThatMatches) {
    StatsIndex index;
    index.Add(*Metric(std::nullopt, {Series(1, "0", {3})}));
    const char* const ofNoEntity = R"(
none 3 - 3 - -
VirtualMachine '' - - - - -
VirtualMachine '16' - - - - -
Other '16' - - - - -
VirtualMachine '1' - - - - -
VirtualMachine '32' - - - - -
)";
    EXPECT_EQ(ToText(index), ofNoEntity);

    const auto withoutId = Series(1, "", {1});
    withoutId->SetId(nullptr);
    const auto ofAnotherKind = Tessim::MakeRef<ApiObjects::Performance::MetricSeries>();
    index.Add(*Metric("16", {withoutId, ofAnotherKind, Series(1, "", {}), Series(2, "", {4})}));
    index.Add(*Metric("", {Series(-1, "", {INT64_MIN}), Series(1, "0", {INT64_MAX})}));
    index.Add(*Metric("32", {Series(-1, "", {5})}));
    index.Add(*Metric("16", {Series(1, "0", {6, 60}), Series(1, "0", {7}), Series(1, "", {8})}));
    index.Add(*Metric("16", {Series(1, "00", {9}), Series(1, "", {10})}));
    EXPECT_EQ(ToText(index), R"(
none 3 - 3 - -
VirtualMachine '' 9223372036854775807 - 9223372036854775807 - -9223372036854775808
VirtualMachine '16' 6 8 6 9 -
Other '16' 6 8 6 9 -
VirtualMachine '1' - - - - -
VirtualMachine '32' - - - - 5
)");

    index.Clear();
    index.Add(*Metric(std::nullopt, {Series(1, "0", {3})}));
    EXPECT_EQ(ToText(index), ofNoEntity);
    index.Clear();
    EXPECT_EQ(index.Find(nullptr, 1, nullptr), std::nullopt);
}

}  // namespace
}  // namespace SNMP
