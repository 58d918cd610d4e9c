// Finds the row that answers a request into a table.
//
// A row's instance OID is the column OID followed by the row's index. A GET takes the first row whose
// instance OID equals the request; a GETNEXT takes the row with the smallest instance OID beyond it, the
// first of equals. All instance OIDs of a column start alike, so the request is compared with the column OID
// once, and per row only the index is.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "apps/snmp/agent/NetSnmp.h"
#include "apps/snmp/collections/RowOrder.h"
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
        return exact ? Compare(index) == 0 : Compare(index) > 0;
    }

    // Whether the index is admitted, or larger than an admitted one.
    bool Reaches(const RowIndex<Width>& index) const noexcept {
        return exact ? Compare(index) >= 0 : Compare(index) > 0;
    }

    // The smallest index that may be admitted, of one sub-identifier, as a position.
    std::int32_t FirstPosition() const noexcept {
        constexpr oid largest = std::numeric_limits<std::int32_t>::max();
        if (tail.empty()) {
            return 0;
        }
        return static_cast<std::int32_t>(exact ? std::min(tail[0], largest)
                                               : std::min(tail[0], largest - 1) + 1);
    }

  private:
    // Below, at (0) or above what is requested.
    int Compare(const RowIndex<Width>& index) const noexcept {
        const std::size_t shared = std::min(Width, tail.size());
        for (std::size_t i = 0; i < shared; ++i) {
            if (index[i] != tail[i]) {
                return index[i] < tail[i] ? -1 : 1;
            }
        }
        return Width == tail.size() ? 0 : Width < tail.size() ? -1 : 1;
    }

    bool exact;
    bool reachable = false;
    // The request beyond the column OID; empty when it ends within that or precedes it.
    std::span<const oid> tail;
};

// A row and its index.
template <class Row>
struct IndexedRow {
    static constexpr std::size_t width = std::max<std::size_t>(indexFields<Row>.size(), 1);

    const Row* row = nullptr;
    RowIndex<width> index{};
};

// The answering row of a list by its definition, whatever the order of the list; null when there is none.
template <class Row>
IndexedRow<Row> FindByWalk(const ListAccess<Row>& rows,
                           const RequestedIndex<IndexedRow<Row>::width>& requested) {
    IndexedRow<Row> best;
    Row* row = nullptr;
    rows.rewind();
    while (rows.next(&row) != -1) {
        const auto index = IndexOf(*row);
        if (requested.Admits(index) && (best.row == nullptr || index < best.index)) {
            best = {row, index};
        }
    }
    return best;
}

// The same row, by the order of the list where it is known.
template <class Row>
IndexedRow<Row> FindRow(const ListAccess<Row>& rows,
                        const RequestedIndex<IndexedRow<Row>::width>& requested) {
    if (!rows.order.IsKnown()) {
        return FindByWalk(rows, requested);
    }
    const Row* const row =
        rows.order.FindFirst([&](const Row& each) { return requested.Reaches(IndexOf(each)); });
    if (row == nullptr || !requested.Admits(IndexOf(*row))) {
        return {};
    }
    return {row, IndexOf(*row)};
}

// The answering row of an array; null when there is none.
template <class Row>
IndexedRow<Row> FindRow(const ArrayAccess<Row>& rows, const RequestedIndex<1>& requested) {
    Row* row = nullptr;
    rows.position = requested.FirstPosition();
    const int position = rows.next(&row);
    return {row, {static_cast<std::uint32_t>(position)}};
}

// The row that answers the request, or null. On success the request's OID becomes the row's instance OID, the
// answer's length 4 and the write method null. Allocates nothing.
template <class Row>
const Row* FindRow(const Table<Row>& table, const Request& request) {
    const RequestedIndex<IndexedRow<Row>::width> requested(request);
    if (!requested.Reachable()) {
        return nullptr;
    }
    const IndexedRow<Row> found = FindRow(table.rows, requested);
    if (found.row == nullptr) {
        return nullptr;
    }
    const std::size_t columnLength = request.vp->namelen;
    std::copy_n(request.vp->name, columnLength, request.name);
    std::copy(found.index.begin(), found.index.end(), request.name + columnLength);
    *request.length = columnLength + found.index.size();
    *request.varLen = 4;
    *request.writeMethod = nullptr;
    return found.row;
}

}  // namespace SNMP
