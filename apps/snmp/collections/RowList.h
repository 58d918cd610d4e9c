// The mechanics of a list collection: rows chained through `next`, returned one by one.
//
// A table keeps four module-wide variables: the head of its list, the number of rows returned since the last
// rewind, the row to return next, and the order of the rows. Its operations pass them here.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "apps/snmp/collections/RowOrder.h"
#include "apps/snmp/collections/Rows.h"

namespace SNMP {

// Rewinds to the head.
template <class Row>
void RewindRows(Row* head, std::int32_t& returned, Row*& traversal) {
    traversal = head;
    returned = 0;
}

// Stores the next row and returns how many were returned before it; stores null and returns -1 at the end.
template <class Row>
int NextRow(Row** row, std::int32_t& returned, Row*& traversal) {
    *row = traversal;
    if (traversal == nullptr) {
        return -1;
    }
    traversal = traversal->next;
    return returned++;
}

// Releases the strings that `row` owns.
template <class Row>
void FreeStrings(const Row& row) {
    for (const auto string : ownedStrings<Row>) {
        std::free(row.*string);
    }
}

// Releases every row with the strings that it owns, and leaves the list empty. Rows returned before are
// invalid then; count and traversal keep their values until the next rewind, and there is no order.
template <class Row>
void DestroyRows(Row*& head, RowOrder<Row>& order) {
    order.Clear();
    while (head != nullptr) {
        Row* const row = head;
        FreeStrings(*row);
        head = row->next;
        std::free(row);
    }
}

}  // namespace SNMP
