// Makes calls of the C library and of operator new fail, or return what a test wants.
//
// Works on the calls that the linked objects themselves make, in programs linked with the `snmp_test_support`
// target; shared libraries keep calling the real functions, except operator new.
#pragma once

#include <cstddef>
#include <ctime>
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
    void SetTime(std::time_t now);

    // The nth call from now on fails, once. For calloc only calls with this element size count; 0 counts all.
    void FailCalloc(std::size_t elementSize, int nth = 1);
    void FailStrdup(int nth = 1);
    void FailNew(int nth = 1, int times = 1);  // `times` in a row, with std::bad_alloc

    // stat64 of exactly this path succeeds, or fails with ENOENT, from now on.
    void SetExists(const std::string& path, bool exists);
    // stat64 of exactly this path fails with that error number from now on.
    void FailStat64(const std::string& path, int error);

    // The number of stat64 calls for that path.
    int Stat64Calls() const;
};

}  // namespace TestSupport
