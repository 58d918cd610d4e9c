#include "tests/support/in_process_agent.h"

#include <stdexcept>

namespace TestSupport {
namespace {

const netsnmp_subtree* FindSubtree(const Oid& column) {
    StartAgent();
    const netsnmp_subtree* const subtree = netsnmp_subtree_find(column.data(), column.size(), nullptr, "");
    if (subtree == nullptr ||
        snmp_oid_compare(subtree->name_a, subtree->namelen, column.data(), column.size()) != 0) {
        return nullptr;
    }
    return subtree;
}

}  // namespace

void StartAgent() {
    static const bool started = [] {
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        return init_agent("kelv_test") == 0;
    }();
    if (!started) {
        throw std::runtime_error("the agent library did not start");
    }
}

const variable* FindRegistered(const Oid& column) {
    const netsnmp_subtree* const subtree = FindSubtree(column);
    if (subtree == nullptr || subtree->reginfo == nullptr) {
        return nullptr;
    }
    return static_cast<const variable*>(netsnmp_find_handler_data_by_name(subtree->reginfo, "old_api"));
}

std::string RegistrationName(const Oid& column) {
    const netsnmp_subtree* const subtree = FindSubtree(column);
    return subtree != nullptr && subtree->label_a != nullptr ? subtree->label_a : "";
}

}  // namespace TestSupport
