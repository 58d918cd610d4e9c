// Finds the row that answers a request into a table.
//
// A row's instance OID is the column OID followed by the row's index. A GET takes the first row whose
// instance OID equals the request; a GETNEXT takes the row with the smallest instance OID beyond it, the
// first of equals. All instance OIDs of a column start alike, so the request is compared with the column OID
// once, and per row only the index is.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/columns/Column.h"

namespace SNMP {

// The arguments of a handler. `name` has room for MAX_OID_LEN sub-identifiers.
struct Request {
    const variable* vp;
    oid* name;
    std::size_t* length;
    int exact;
    std::size_t* varLen;
    WriteMethod** writeMethod;
};

// A row's index, sub-identifier by sub-identifier.
template <std::size_t Width>
using RowIndex = std::array<oid, Width>;

// The field as a sub-identifier: its 32 bits, unsigned, so that -1 is 4294967295.
inline oid ToSubId(std::int32_t field) noexcept {
    return static_cast<std::uint32_t>(field);
}

// The part of a request that an index of one column is compared with.
template <std::size_t Width>
class RequestedIndex {
  public:
    explicit RequestedIndex(const Request& request) noexcept : exact(request.exact != 0) {
        const std::size_t columnLength = request.vp->namelen;
        const std::size_t length = *request.length;
        const std::size_t shared = std::min(columnLength, length);
        const int order = snmp_oid_compare(request.name, shared, request.vp->name, shared);
        if (columnLength + Width > MAX_OID_LEN) {
            return;  // no instance OID of this column fits a request
        }
        if (exact) {
            reachable = order == 0 && length == columnLength + Width;
        } else {
            reachable = order <= 0;
        }
        if (order == 0 && length > columnLength) {
            tail = std::span<const oid>(request.name, length).subspan(columnLength);
        }
    }

    // Whether any index can answer.
    bool Reachable() const noexcept { return reachable; }

    // GET: whether the index is the requested one. GETNEXT: whether it lies beyond the request.
    bool Admits(const RowIndex<Width>& index) const noexcept {
        const std::size_t shared = std::min(Width, tail.size());
        for (std::size_t i = 0; i < shared; ++i) {
            if (index[i] != tail[i]) {
                return !exact && index[i] > tail[i];
            }
        }
        return exact || Width > tail.size();
    }

  private:
    bool exact;
    bool reachable = false;
    // The request beyond the column OID; empty when it ends within that or precedes it.
    std::span<const oid> tail;
};

// The row that answers the request, or null. On success the request's OID becomes the row's instance OID, the
// answer's length 4 and the write method null.
template <class Row, std::size_t Width>
const Row* FindRow(const Table<Row, Width>& table, const Request& request) {
    constexpr bool isArray = Width == 0;
    constexpr std::size_t indexWidth = isArray ? 1 : Width;
    const RequestedIndex<indexWidth> requested(request);
    if (!requested.Reachable()) {
        return nullptr;
    }
    // Positions ascend, so that the first one beyond a request is the next. Lists come in any order.
    const bool firstIsBest = request.exact != 0 || isArray;
    const Row* best = nullptr;
    RowIndex<indexWidth> bestIndex{};
    Row* row = nullptr;
    table.rewind();
    for (int position = table.next(&row); position != -1; position = table.next(&row)) {
        RowIndex<indexWidth> index{ToSubId(position)};
        for (std::size_t i = 0; i < Width; ++i) {
            index[i] = ToSubId(row->*table.index[i]);
        }
        if (requested.Admits(index) && (best == nullptr || index < bestIndex)) {
            best = row;
            bestIndex = index;
            if (firstIsBest) {
                break;
            }
        }
    }
    if (best == nullptr) {
        return nullptr;
    }
    const std::size_t columnLength = request.vp->namelen;
    std::copy_n(request.vp->name, columnLength, request.name);
    std::copy_n(bestIndex.begin(), indexWidth, request.name + columnLength);
    *request.length = columnLength + indexWidth;
    *request.varLen = 4;
    *request.writeMethod = nullptr;
    return best;
}

}  // namespace SNMP
