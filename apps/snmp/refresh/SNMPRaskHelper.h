// The refresh of the row cache, and the host values that scalars read directly.
//
// Everything here runs on the agent's one request thread.
#pragma once

extern "C" {

// Creates the process-wide client. Returns non-zero when it is connected and logged in; a failure is logged,
// and the next use retries.
int SNMPRaskHelper_Init();

// Rebuilds the cache when the last rebuild was started more than 20 seconds ago (wall clock). Called by every
// table handler before it reads rows. An exception out of the rebuild empties the cache and makes the next
// call retry at once; a management exception is logged, others are rethrown.
void SNMPRaskTable_Init();

// Makes the next SNMPRaskTable_Init rebuild the cache, however fresh it is.
void SNMPRaskTable_Expire();

// Empties all ten row collections.
void SNMPRaskTable_Destroy();

// Rebuilds the cache: empties the collections, then fills them from the daemon. No client, no VM
// and no memory for the VM rows are logged and leave the collections empty. Throws Tessim::Exception when the
// daemon fails during the rebuild.
void SNMPRaskRefreshCache();

// Returns the host's number of CPU cores as a signed 16-bit count; 0 when the daemon cannot be reached.
int GetNumCpu();

// Stores the service console's memory, the low 32 bits of each value: `total` in kilobytes, `reserved` in
// bytes on the call that fetches it and in kilobytes on the later, cached ones. Both are 0 when the daemon
// cannot be reached. Both pointers must be non-null.
void GetMemory(long* reserved, long* total);

}  // extern "C"
