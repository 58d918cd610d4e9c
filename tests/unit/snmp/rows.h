// Makes rows the way the refresh does.
#pragma once

#include <cstdlib>
#include <new>

#include "apps/snmp/collections/Rows.h"

// A zeroed row that the collection will own, linked in at the end of the list.
template <class Row>
Row& Append(Row** head) {
    auto* const row = static_cast<Row*>(std::calloc(1, sizeof(Row)));
    if (row == nullptr) {
        throw std::bad_alloc();
    }
    while (*head != nullptr) {
        head = &(*head)->next;
    }
    *head = row;
    return *row;
}

// `count` zeroed virtual-machine rows, stored in the collection.
vmEntry* MakeVmRows(int count);

// Empties all ten collections.
void DestroyAllRows();
