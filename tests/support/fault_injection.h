// Makes calls of the C library and of operator new fail, or return what a test wants.
//
// Works on the calls that the linked objects themselves make, in programs linked with the `snmp_test_support`
// target; shared libraries keep calling the real functions, except operator new.
#pragma once

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <optional>
#include <string>

namespace TestSupport {

// At most one lives at a time. What it was told holds until it goes; then every call is real again.
class FaultInjection {
  public:
    FaultInjection();
    ~FaultInjection();
    FaultInjection(const FaultInjection&) = delete;
    FaultInjection& operator=(const FaultInjection&) = delete;

    // time() returns this from now on.
    void SetTime(std::time_t now) { time = now; }

    // The nth call from now on fails, once.
    void FailCalloc(int nth = 1) { calloc = {nth, 1}; }
    void FailStrdup() { strdup = {1, 1}; }
    void FailNew(int nth = 1, int times = 1) { operatorNew = {nth, times}; }  // `times` in a row

    // stat64 of exactly this path succeeds, or fails with ENOENT, from now on.
    void SetExists(const std::string& checked, bool exists) { FailStat64(checked, exists ? 0 : ENOENT); }
    // stat64 of exactly this path fails with that error number from now on; 0: it succeeds.
    void FailStat64(const std::string& checked, int error) {
        path = checked;
        pathError = error;
    }
    // The number of stat64 calls for that path.
    int Stat64Calls() const { return pathCalls; }

    // What follows is for the calls.

    struct Countdown {
        int left = 0;   // calls until the first that fails, counting it
        int times = 0;  // how many fail

        // Counts a call, and returns whether it fails.
        bool Expires();
    };
    std::optional<std::time_t> time;
    Countdown calloc;
    Countdown strdup;
    Countdown operatorNew;
    std::string path;
    int pathError = 0;
    int pathCalls = 0;
};

}  // namespace TestSupport
