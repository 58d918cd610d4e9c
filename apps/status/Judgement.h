// From facts to what an operator is told.
#pragma once

#include "apps/status/Facts.h"
#include "apps/status/Report.h"

namespace KelvStatus {

// Judges each fact, in the order in which they depend on each other. Text of peers is escaped.
Report Judge(const Facts& facts);

}  // namespace KelvStatus
