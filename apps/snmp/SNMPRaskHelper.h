// The refresh of the row cache, and the figures that scalars ask for directly.
//
// Everything here runs on the agent's one request thread.
#pragma once

extern "C" {

// Creates the process-wide client. Non-zero when it is connected and logged in; a failure is logged, and the
// next use tries again.
int SNMPRaskHelper_Init();

// Rebuilds the cache when the last rebuild was started more than 20 seconds ago (wall clock). Called by every
// table handler before it looks at its rows. Any exception out of the rebuild empties the cache and makes the
// next call try again at once; a management exception is logged, others pass on.
void SNMPRaskTable_Init();

// Makes the next SNMPRaskTable_Init rebuild the cache, however fresh it is.
void SNMPRaskTable_Expire();

// Empties all ten row collections.
void SNMPRaskTable_Destroy();

// The rebuild itself: empties the collections, then fills them from the management daemon. No client, no VM
// and no memory for the VM rows are logged and leave the collections empty. Throws Tessim::Exception when the
// daemon fails in between.
void SNMPRaskRefreshCache();

// The host's number of CPU cores as a signed 16-bit count; 0 when the daemon cannot be asked.
int GetNumCpu();

// The service console's memory, the low 32 bits of what the client hands out: `total` in kilobytes,
// `reserved` in bytes on a call that asks the daemon and in kilobytes on a later, cached one. Both are 0 when
// the daemon cannot be asked, and both pointers must be non-null.
void GetMemory(long* reserved, long* total);

}  // extern "C"
