// The mechanics of a list collection: rows chained through `next`, returned one by one.
//
// A table keeps three module-wide variables: the head of its list, the number of rows returned since the last
// rewind, and the row to return next. Its operations pass them here.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace SNMP {

// Rewinds to the head.
template <class Row>
void RewindRows(Row* head, std::int32_t& index, Row*& traversal) {
    traversal = head;
    index = 0;
}

// Stores the next row and returns how many were returned before it; stores null and returns -1 at the end.
template <class Row>
int NextRow(Row** row, std::int32_t& index, Row*& traversal) {
    *row = traversal;
    if (traversal == nullptr) {
        return -1;
    }
    traversal = traversal->next;
    return index++;
}

// Releases every row and its `owned` strings, and leaves the list empty. Rows returned before are invalid
// then; index and traversal keep their values until the next rewind.
template <class Row, class... Strings>
void DestroyRows(Row*& head, Strings Row::*... owned) {
    while (head != nullptr) {
        Row* const row = head;
        (std::free(row->*owned), ...);
        head = row->next;
        std::free(row);
    }
}

}  // namespace SNMP
