// The registrations against the MIB, as net-snmp's parser reads it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>

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

TEST_F(Mib, DescribesEveryRegisteredVariableAndNothingElse) {
    ASSERT_NE(root, nullptr);
    std::map<FindVarMethod*, std::vector<std::string>> indexes;  // of the tables
    ForEachTable([&](const auto& table) {
        for (std::size_t field = 0; field < std::max<std::size_t>(table.indexFields, 1); ++field) {
            indexes[table.handler].emplace_back(table.fields[field].column);
        }
    });
    const std::vector<RegisteredVariable> variables = RegisteredVariables();
    for (const RegisteredVariable& variable : variables) {
        SCOPED_TRACE(variable.label);
        const tree* const node = Find(variable.name);
        ASSERT_NE(node, nullptr);
        EXPECT_STREQ(node->label, variable.label);
        EXPECT_EQ(mib_to_asn_type(node->type), variable.type);
        EXPECT_EQ(node->access, MIB_ACCESS_READONLY);
        EXPECT_EQ(node->child_list, nullptr);
        EXPECT_EQ(IndexOf(*node->parent), indexes[variable.handler]);
    }
    const tree* const enterprise = Find(Enterprise({}));
    ASSERT_NE(enterprise, nullptr);
    EXPECT_EQ(CountReadable(*enterprise), static_cast<int>(variables.size()));
}

}  // namespace
