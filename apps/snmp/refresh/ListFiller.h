// Appending rows to a list whose last row is known.
//
// A cursor is the address of a row pointer: the list's head while the list is empty, afterwards a variable
// that holds its last row. A filler appends after it and returns the last row; the refresh keeps that row and
// points the cursor at it. No append walks the list.
#pragma once

#include <cstdlib>
#include <memory>
#include <utility>

namespace SNMP {

struct FreeRow {
    void operator()(void* row) const noexcept { std::free(row); }
};

// A row that no list owns yet.
template <class Row>
using RowPtr = std::unique_ptr<Row, FreeRow>;

// A zeroed row, or null when there is no memory.
template <class Row>
RowPtr<Row> AllocateRow() {
    return RowPtr<Row>(static_cast<Row*>(std::calloc(1, sizeof(Row))));
}

// Appends for a filler.
template <class Row>
class ListFiller {
  public:
    explicit ListFiller(Row** cursor) : cursor(cursor), last(*cursor) {}

    // Links the row, which the list owns from then on.
    void Append(RowPtr<Row> row) {
        if (last != nullptr) {
            last->next = row.get();
        } else {
            *cursor = row.get();
        }
        last = row.release();
    }
    // Links a new, zeroed row and returns it; returns null when there is no memory.
    Row* AppendNew() {
        RowPtr<Row> row = AllocateRow<Row>();
        if (!row) {
            return nullptr;
        }
        Append(std::move(row));
        return last;
    }
    // The list's last row; null while the list is empty.
    Row* Last() const { return last; }

  private:
    Row** cursor;
    Row* last;
};

// A list's cursor, which the refresh keeps between fillers.
template <class Row>
class TailCursor {
  public:
    explicit TailCursor(Row** head) : cursor(head) {}
    TailCursor(const TailCursor&) = delete;
    TailCursor& operator=(const TailCursor&) = delete;

    Row** Get() { return cursor; }
    // Takes what a filler returned.
    void Advance(Row* filled) {
        if (filled != nullptr) {
            last = filled;
            cursor = &last;
        }
    }

  private:
    Row** cursor;
    Row* last = nullptr;
};

}  // namespace SNMP
