// Finds the row that answers a request into a table.
//
// A row's full name is the column's name followed by the row's index. A GET takes the first row whose full
// name equals the request; a GETNEXT takes the row with the smallest full name beyond it, the first of
// equals. All full names of one column start alike, so the request is compared with the column's name once,
// and per row only the index is.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "apps/snmp/NetSnmp.h"

namespace SNMP {

// What the agent hands to a handler. `name` has room for MAX_OID_LEN sub-identifiers.
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
            return;  // no full name of this column fits a request
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
    // The request beyond the column's name; empty when it ends within that or lies before it.
    std::span<const oid> tail;
};

// Whether rows come in ascending order of their index, so that the first beyond a request is the next.
enum class RowOrder : std::uint8_t { Ascending, Any };

// The row that answers the request, or null. Rows come from `next` (a GetNext operation) after `rewind`, and
// `indexOf(row, position)` tells a row's index. On success the request's name becomes the row's full name,
// the answer's length 4 and the write method null.
template <std::size_t Width, class Row, class IndexOf>
const Row* FindRow(const Request& request, RowOrder order, void (*rewind)(), int (*next)(Row**),
                   IndexOf indexOf) {
    const RequestedIndex<Width> requested(request);
    if (!requested.Reachable()) {
        return nullptr;
    }
    const bool firstIsBest = request.exact != 0 || order == RowOrder::Ascending;
    const Row* best = nullptr;
    RowIndex<Width> bestIndex{};
    Row* row = nullptr;
    rewind();
    for (int position = next(&row); position != -1; position = next(&row)) {
        const RowIndex<Width> index = indexOf(*row, position);
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
    std::copy_n(bestIndex.begin(), Width, request.name + columnLength);
    *request.length = columnLength + Width;
    *request.varLen = 4;
    *request.writeMethod = nullptr;
    return best;
}

// FindRow for rows in an array, whose index is their position.
template <class Row>
const Row* FindArrayRow(const Request& request, void (*rewind)(), int (*next)(Row**)) {
    return FindRow<1>(request, RowOrder::Ascending, rewind, next,
                      [](const Row&, int position) { return RowIndex<1>{ToSubId(position)}; });
}

// FindRow for rows in a list of any order, whose index is made of the fields `index`.
template <class Row, class... Fields>
const Row* FindListRow(const Request& request, void (*rewind)(), int (*next)(Row**), Fields Row::*... index) {
    return FindRow<sizeof...(index)>(request, RowOrder::Any, rewind, next, [=](const Row& row, int) {
        return RowIndex<sizeof...(index)>{ToSubId(row.*index)...};
    });
}

}  // namespace SNMP
