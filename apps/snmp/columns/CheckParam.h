// The matcher of scalar variables. Used on the agent's one request thread.
#pragma once

#include <cstddef>

#include "apps/snmp/agent/NetSnmp.h"

// Returns 1 when a request addresses the instance `vp->name`.0: names it (exact), or precedes it (not exact,
// a GETNEXT). Then `name` and `length` become that instance OID, the answer's length 4 and the write method
// null. Otherwise returns 0 and changes nothing. `name` has room for MAX_OID_LEN sub-identifiers.
int CheckParam(variable* vp, oid* name, std::size_t* length, int exact, std::size_t* varLen,
               WriteMethod** writeMethod);
