// Waiting for something that another thread does.
#pragma once

#include <chrono>
#include <thread>

namespace Vessad::Libvirt {

// Whether `condition` came true; gives up after a time that only a failure takes.
template <class Condition>
bool WaitFor(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace Vessad::Libvirt
