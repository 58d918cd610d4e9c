// Stands in for the refresh and the management client behind the handlers.
#pragma once

#include <functional>

namespace FakeRefresh {

// What the handlers see; Reset puts everything back: no rows made, nothing thrown, figures 0.
struct State {
    int starts = 0;                   // calls of SNMPRaskHelper_Init
    std::function<void()> onStart;    // run by each of them
    int refreshes = 0;                // calls of SNMPRaskTable_Init
    std::function<void()> onRefresh;  // run by each of them
    int expiries = 0;                 // calls of SNMPRaskTable_Expire
    std::function<int()> numCpu = [] { return 0; };
    bool memoryKnown = false;  // GetMemory stores nothing while the daemon is out of reach
    long reserved = 0;
    long total = 0;
};

State& Get();
void Reset();

}  // namespace FakeRefresh
