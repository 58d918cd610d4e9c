#include "apps/snmp/columns/Registration.h"

#include <algorithm>
#include <array>

namespace SNMP {
namespace {

// Whether the agent serves exactly `column` through `handler`. The agent keeps its own copy of a registered
// entry as the data of its "old_api" handler; subtrees of one OID are chained by priority.
bool IsServedBy(const oid* column, std::size_t length, FindVarMethod* handler) {
    const netsnmp_subtree* subtree = netsnmp_subtree_find(column, length, nullptr, "");
    for (; subtree != nullptr; subtree = subtree->children) {
        if (snmp_oid_compare(subtree->name_a, subtree->namelen, column, length) != 0 ||
            subtree->reginfo == nullptr) {
            continue;
        }
        const auto* served =
            static_cast<const variable*>(netsnmp_find_handler_data_by_name(subtree->reginfo, "old_api"));
        if (served != nullptr && served->findVar == handler) {
            return true;
        }
    }
    return false;
}

}  // namespace

Registration* Registration::firstListed = nullptr;

const variable* Registration::Entry(std::size_t position) const noexcept {
    return reinterpret_cast<const variable*>(entries + position * entrySize);
}

void Registration::Register() noexcept {
    if (!listed) {
        listed = true;
        nextListed = firstListed;
        firstListed = this;
    }
    if (register_mib(name, Entry(0), entrySize, Count(), base, baseLength) != MIB_REGISTERED_OK &&
        snmp_get_do_debugging() != 0) {
        debugmsgtoken("trace", "%s(): %s, %d\n", function, unit, line);
        debugmsg("trace", "%s(): %s, %d\n", function, unit, line);
        debugmsgtoken("register_mib", "%s registration failed\n", name);
        debugmsg("register_mib", "%s registration failed\n", name);
    }
}

void Registration::Unregister() const noexcept {
    std::array<oid, MAX_OID_LEN> column;
    std::copy_n(base, baseLength, column.begin());
    for (std::size_t position = 0; position < Count(); ++position) {
        const variable* const entry = Entry(position);
        const std::size_t length = baseLength + entry->namelen;
        std::copy_n(entry->name, entry->namelen, column.begin() + static_cast<std::ptrdiff_t>(baseLength));
        if (IsServedBy(column.data(), length, entry->findVar)) {
            unregister_mib(column.data(), length);
        }
    }
}

void Registration::UnregisterAll() noexcept {
    for (const Registration* registration = firstListed; registration != nullptr;
         registration = registration->nextListed) {
        registration->Unregister();
    }
}

}  // namespace SNMP
