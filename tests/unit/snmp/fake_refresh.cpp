#include "tests/unit/snmp/fake_refresh.h"

#include "apps/snmp/refresh/SNMPRaskHelper.h"

namespace FakeRefresh {

State& Get() {
    static State state;
    return state;
}

void Reset() {
    Get() = State();
}

}  // namespace FakeRefresh

int SNMPRaskHelper_Init() {
    FakeRefresh::State& state = FakeRefresh::Get();
    ++state.starts;
    if (state.onStart) {
        state.onStart();
    }
    return 0;
}

void SNMPRaskTable_Init() {
    FakeRefresh::State& state = FakeRefresh::Get();
    ++state.refreshes;
    if (state.onRefresh) {
        state.onRefresh();
    }
}

void SNMPRaskTable_Expire() {
    ++FakeRefresh::Get().expiries;
}

int GetNumCpu() {
    return FakeRefresh::Get().numCpu();
}

void GetMemory(long* reserved, long* total) {
    const FakeRefresh::State& state = FakeRefresh::Get();
    if (state.memoryKnown) {
        *reserved = state.reserved;
        *total = state.total;
    }
}
