// Copies of the texts that rows hold.
#pragma once

// A heap copy of `source`, or of "SNMP Error" when `source` is null. The caller owns it and releases it with
// free(). Null, with a warning in the log, when there is no memory.
char* SNMPAllocString(const char* source);

// The same text in a copy that lives as long as the process, for rows whose strings outlive their collection.
// Equal texts share one copy, so asking again for a text costs no memory. Null, with the same warning, when
// there is no memory.
const char* SNMPLastingString(const char* source);
