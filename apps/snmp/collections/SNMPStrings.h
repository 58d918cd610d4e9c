// Copies of the texts that rows hold. Used on the agent's one request thread.
#pragma once

// Returns a heap copy of `source`, or of "SNMP Error" when `source` is null. The caller releases it with
// free(). Returns null, after a warning in the log, when there is no memory.
char* SNMPAllocString(const char* source);

// The same as a lasting string, for rows whose strings outlive their collection. Equal texts share one copy,
// so memory grows with the number of distinct texts only, and to 16 MiB at most: beyond, every further text
// reads as "SNMP Error", which a warning says once. Returns null, after the same warning as above, when there
// is no memory.
const char* SNMPLastingString(const char* source);
