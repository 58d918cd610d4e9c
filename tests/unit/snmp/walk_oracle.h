// The definition of the row that answers a request, for tests of walks.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "tests/support/in_process_agent.h"

// The position of the answering row among rows with these instance OIDs: the first whose OID is the request
// (exact), or the first of those with the smallest OID beyond it.
inline std::optional<std::size_t> FindAnsweringRow(const std::vector<TestSupport::Oid>& instances,
                                                   const TestSupport::Oid& requested, bool exact) {
    std::optional<std::size_t> best;
    for (std::size_t row = 0; row < instances.size(); ++row) {
        if ((exact ? instances[row] == requested : instances[row] > requested) &&
            (!best || instances[row] < instances[*best])) {
            best = row;
        }
    }
    return best;
}
