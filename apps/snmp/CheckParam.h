// The matcher of scalar variables.
#pragma once

#include <cstddef>

#include "apps/snmp/NetSnmp.h"

// 1 when a request addresses the instance `vp->name`.0: names it (exact), or precedes it (not exact, a
// GETNEXT). Then `name` and `length` become that instance, the answer's length 4 and the write method null.
// Otherwise 0, and nothing changes. `name` has room for MAX_OID_LEN sub-identifiers.
int CheckParam(variable* vp, oid* name, std::size_t* length, int exact, std::size_t* varLen,
               WriteMethod** writeMethod);
