/* A module that does nothing, to measure what loading and unloading costs the agent itself. */
void init_SNMPKelv(void) {}
void deinit_SNMPKelv(void) {}
