// The measure of a walk: net-snmp's own in-memory container table in the same agent, with the columns and the
// rows of the module's network table.
//
// The agent preloads this library, and loads it as a module. The wall clock of the agent stands still at the
// seconds in the file that KELV_BENCH_CLOCK names, so that the module's tables are rebuilt when the benchmark
// wants it; KELV_BENCH_MODULE names the module. The table is 1.3.6.1.4.1.32473.99.4. A
// GET of 1.3.6.1.4.1.32473.99.9.0 copies the rows of the module's table, which must be filled, and returns
// their number.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/collections/Rows.h"

namespace {

// A row as the container wants it: the index first.
struct ContainerRow {
    netsnmp_index index;
    oid subId;
    resNetNode values;
};

std::vector<std::unique_ptr<ContainerRow>> rows;
netsnmp_container* container = nullptr;

const volatile std::time_t* MapClock() {
    const char* const path = std::getenv("KELV_BENCH_CLOCK");
    const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) {
        return nullptr;
    }
    void* const map = mmap(nullptr, sizeof(std::time_t), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    return map != MAP_FAILED ? static_cast<const volatile std::time_t*>(map) : nullptr;
}

void SetInteger(netsnmp_request_info* request, std::int32_t number) {
    const long value = number;
    snmp_set_var_typed_value(request->requestvb, ASN_INTEGER, &value, sizeof(value));
}

void SetText(netsnmp_request_info* request, const char* text) {
    snmp_set_var_typed_value(request->requestvb, ASN_OCTET_STR, text, std::strlen(text));
}

void SetCounter(netsnmp_request_info* request, std::uint64_t count) {
    const counter64 value{static_cast<u_long>(count >> 32U), static_cast<u_long>(count & 0xffffffffU)};
    snmp_set_var_typed_value(request->requestvb, ASN_COUNTER64, &value, sizeof(value));
}

void SetColumn(netsnmp_request_info* request, const resNetNode& row, unsigned column) {
    switch (column) {
        case 1:
            return SetInteger(request, row.netIdx);
        case 2:
            return SetText(request, row.netName);
        case 3:
            return SetInteger(request, row.netVMID);
        case 4:
            return SetText(request, row.netMac);
        case 5:
            return SetInteger(request, 0);
        case 6:
            return SetInteger(request, row.netPktTx);
        case 7:
            return SetInteger(request, row.netTx);
        case 8:
            return SetInteger(request, row.netPktRx);
        case 9:
            return SetInteger(request, row.netRx);
        case 10:
            return SetCounter(request, row.netHCPktTx);
        case 11:
            return SetCounter(request, row.netHCTx);
        case 12:
            return SetCounter(request, row.netHCPktRx);
        default:
            return SetCounter(request, row.netHCRx);
    }
}

int HandleTable(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                netsnmp_agent_request_info* agentRequest, netsnmp_request_info* requests) {
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        if (request->processed != 0) {
            continue;
        }
        const auto* const row =
            static_cast<const ContainerRow*>(netsnmp_container_table_row_extract(request));
        const netsnmp_table_request_info* const info = netsnmp_extract_table_info(request);
        if (row == nullptr || info == nullptr) {
            netsnmp_set_request_error(agentRequest, request, SNMP_NOSUCHINSTANCE);
        } else {
            SetColumn(request, row->values, info->colnum);
        }
    }
    return SNMP_ERR_NOERROR;
}

// Copies the module's rows into the container.
void CopyRows() {
    CONTAINER_CLEAR(container, nullptr, nullptr);
    rows.clear();
    void* const module = dlopen(std::getenv("KELV_BENCH_MODULE"), RTLD_NOW | RTLD_NOLOAD);
    if (module == nullptr) {
        return;
    }
    const auto rewind = reinterpret_cast<void (*)()>(dlsym(module, "SNMPResNetTable_Init"));
    const auto next = reinterpret_cast<int (*)(resNetNode**)>(dlsym(module, "SNMPResNetTable_GetNext"));
    resNetNode* row = nullptr;
    for (rewind(); next(&row) != -1;) {
        auto& copy = *rows.emplace_back(std::make_unique<ContainerRow>());
        copy.values = *row;
        copy.subId = static_cast<oid>(row->netIdx);
        copy.index = {1, &copy.subId};
        CONTAINER_INSERT(container, &copy);
    }
    dlclose(module);
}

int HandleCopy(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
               netsnmp_agent_request_info* agentRequest, netsnmp_request_info* requests) {
    if (agentRequest->mode == MODE_GET) {
        CopyRows();
        SetInteger(requests, static_cast<std::int32_t>(rows.size()));
    }
    return SNMP_ERR_NOERROR;
}

}  // namespace

extern "C" {

// In place of the C library's.
__attribute__((visibility("default"))) std::time_t time(std::time_t* stored) noexcept {
    static const volatile std::time_t* const clock = MapClock();
    const std::time_t now = clock != nullptr ? *clock : 0;
    if (stored != nullptr) {
        *stored = now;
    }
    return now;
}

// The agent calls this after loading.
__attribute__((visibility("default"))) void init_yardstick() {
    const oid scalar[] = {1, 3, 6, 1, 4, 1, 32473, 99, 9};
    const oid table[] = {1, 3, 6, 1, 4, 1, 32473, 99, 4};
    constexpr unsigned columns = 13;
    container = netsnmp_container_find("yardstick:table_container");
    auto* const info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    netsnmp_table_helper_add_indexes(info, ASN_INTEGER, 0);
    info->min_column = 1;
    info->max_column = columns;
    netsnmp_container_table_register(
        netsnmp_create_handler_registration("yardstick", HandleTable, table, OID_LENGTH(table),
                                            HANDLER_CAN_RONLY),
        info, container, TABLE_CONTAINER_KEY_NETSNMP_INDEX);
    netsnmp_register_read_only_scalar(netsnmp_create_handler_registration(
        "yardstickCopy", HandleCopy, scalar, OID_LENGTH(scalar), HANDLER_CAN_RONLY));
}

}  // extern "C"
