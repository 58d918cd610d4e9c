// The registrations against the MIB, as net-snmp's parser reads it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "tests/support/log_capture.h"
#include "tests/unit/snmp/tables.h"

namespace {

// The root of the MIB tree.
tree* ReadMib() {
    ::setenv("MIBS", "", 1);
    ::setenv("MIBDIRS", MIB_FOLDERS, 1);
    netsnmp_init_mib();
    return read_module("TOVRIC-KELV-MIB");
}

std::vector<std::string> IndexOf(const tree& entry) {
    std::vector<std::string> labels;
    for (const index_list* index = entry.indexes; index != nullptr; index = index->next) {
        labels.emplace_back(index->ilabel);
    }
    return labels;
}

int CountReadable(const tree& node) {
    int count = node.access == MIB_ACCESS_READONLY ? 1 : 0;
    for (const tree* child = node.child_list; child != nullptr; child = child->next_peer) {
        count += CountReadable(*child);
    }
    return count;
}

class Mib : public testing::Test {
  protected:
    Mib() {
        RegisterGroups();
        log.Take();
    }
    const tree* Find(const Oid& name) const {
        const tree* const found = get_tree(name.data(), name.size(), root);
        return found != nullptr && found->subid == name.back() ? found : nullptr;
    }

    TestSupport::LogCapture log;
    tree* root = ReadMib();
};

TEST_F(Mib, DescribesEveryRegisteredVariable) {
    ASSERT_NE(root, nullptr);
    for (const RegisteredVariable& variable : RegisteredVariables()) {
        SCOPED_TRACE(variable.label);
        const tree* const node = Find(variable.name);
        ASSERT_NE(node, nullptr);
        EXPECT_STREQ(node->label, variable.label);
        EXPECT_EQ(mib_to_asn_type(node->type), variable.type);
        EXPECT_EQ(node->access, MIB_ACCESS_READONLY);
        EXPECT_EQ(variable.access, RONLY);
        EXPECT_EQ(node->child_list, nullptr);
    }
}

TEST_F(Mib, DescribesNothingElse) {
    ASSERT_NE(root, nullptr);
    const tree* const enterprise = Find(Enterprise({}));
    ASSERT_NE(enterprise, nullptr);
    EXPECT_EQ(CountReadable(*enterprise), static_cast<int>(RegisteredVariables().size()));
}

TEST_F(Mib, IndexesEveryTableAsItsHandlerDoes) {
    ASSERT_NE(root, nullptr);
    std::size_t columns = 0;
    ForEachTable([&](const auto& table) {
        std::vector<std::string> expected;
        for (std::size_t field = 0; field < std::max<std::size_t>(table.indexFields, 1); ++field) {
            expected.emplace_back(table.fields[field].column);
        }
        for (const RegisteredVariable& column : VariablesOf(table.handler)) {
            const tree* const node = Find(column.name);
            ASSERT_NE(node, nullptr);
            EXPECT_EQ(IndexOf(*node->parent), expected) << column.label;
            ++columns;
        }
    });
    // The others are scalars.
    for (const RegisteredVariable& variable : RegisteredVariables()) {
        columns += Find(variable.name)->parent->indexes == nullptr ? 1 : 0;
    }
    EXPECT_EQ(columns, RegisteredVariables().size());
}

}  // namespace
