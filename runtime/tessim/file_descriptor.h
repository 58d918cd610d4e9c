// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace Tessim {

class FileDescriptor {
  public:
    FileDescriptor() noexcept = default;
    // Takes the descriptor over; -1 is none.
    explicit FileDescriptor(int descriptor) noexcept : descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    ~FileDescriptor() { Close(); }

    int Get() const noexcept { return descriptor; }
    explicit operator bool() const noexcept { return descriptor >= 0; }

    void Close() noexcept {
        if (descriptor >= 0) {
            ::close(std::exchange(descriptor, -1));
        }
    }

  private:
    int descriptor = -1;
};

}  // namespace Tessim
