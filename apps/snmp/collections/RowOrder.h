// The rows of a list in the order of their indexes, so that a request need not walk the list.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "apps/snmp/collections/Rows.h"

namespace SNMP {

// A row's index, sub-identifier by sub-identifier.
template <std::size_t Width>
using RowIndex = std::array<std::uint32_t, Width>;

// The index of a list's row. A sub-identifier is the field's 32 bits, unsigned, so that -1 is 4294967295.
template <class Row>
RowIndex<indexFields<Row>.size()> IndexOf(const Row& row) noexcept {
    RowIndex<indexFields<Row>.size()> index{};
    std::transform(indexFields<Row>.begin(), indexFields<Row>.end(), index.begin(),
                   [&](auto field) { return static_cast<std::uint32_t>(row.*field); });
    return index;
}

// Made after a rebuild and forgotten when the rows are released. Whoever got the address of the head may link
// or release rows at any later time, so there is no order then for the rest of the process. Used on the
// agent's one request thread.
template <class Row>
class RowOrder {
  public:
    // The order of the list whose head is in `head`.
    constexpr explicit RowOrder(Row* const& head) noexcept : head(head) {}
    RowOrder(const RowOrder&) = delete;
    RowOrder& operator=(const RowOrder&) = delete;

    // Orders the rows that are linked, equal ones as they are linked. Without memory, and after ShareHead,
    // there is no order.
    void Make() noexcept {
        Clear();
        if (headIsShared) {
            return;
        }
        std::size_t count = 0;
        for (const Row* row = head; row != nullptr; row = row->next) {
            ++count;
        }
        try {
            rows.reserve(count);
        } catch (const std::bad_alloc&) {
            return;
        }
        for (Row* row = head; row != nullptr; row = row->next) {
            rows.push_back(row);
        }
        hint = 0;
        std::stable_sort(rows.begin(), rows.end(),
                         [](const Row* left, const Row* right) { return IndexOf(*left) < IndexOf(*right); });
    }

    // There is no order until the next Make. Releases its memory.
    void Clear() noexcept { std::vector<Row*>().swap(rows); }

    // The head's address leaves the module: there is no order from now on, whatever Make does.
    void ShareHead() noexcept {
        Clear();
        headIsShared = true;
    }

    // Whether there is an order.
    bool IsKnown() const noexcept { return !rows.empty(); }

    // The first row in the order that `reaches` holds for, as it must for all later ones; null when it holds
    // for none. There must be an order.
    template <class Predicate>
    const Row* FindFirst(Predicate reaches) noexcept {
        const auto isFirst = [&](std::size_t at) {
            return (at == 0 || !reaches(*rows[at - 1])) && (at == rows.size() || reaches(*rows[at]));
        };
        // A walk goes on with the row of the last request, in another column, or with the one behind it.
        if (!isFirst(hint)) {
            if (hint < rows.size() && isFirst(hint + 1)) {
                ++hint;
            } else {
                const auto found = std::partition_point(rows.begin(), rows.end(),
                                                        [&](const Row* row) { return !reaches(*row); });
                hint = static_cast<std::size_t>(found - rows.begin());
            }
        }
        return hint < rows.size() ? rows[hint] : nullptr;
    }

  private:
    Row* const& head;
    std::vector<Row*> rows;
    std::size_t hint = 0;  // the position that the last request found
    bool headIsShared = false;
};

}  // namespace SNMP
