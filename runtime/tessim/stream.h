// Byte streams: files and TLS connections. A stream is not thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "runtime/tessim/object.h"

namespace Tessim::System {

class Stream : public virtual Object {
  public:
    // Reads at least one and at most `size` bytes (at least 1) and returns how many; 0 at the end of the
    // stream, which on a connection is the peer's close_notify and nothing else.
    // Throws StreamException on a broken peer or a closed stream, TimeoutException at the deadline of the
    // time budget in force or when a connection's peer is silent for 2 s, SystemException when the operating
    // system fails. After any exception a connection is good for nothing but Close.
    virtual std::size_t Read(void* buffer, std::size_t size) = 0;

    // Writes all `size` bytes, on a connection within 2 s. Throws as Read does; on a connection also
    // TimeoutException, at once, in the backoff after a timeout (peer.h).
    virtual void Write(const void* data, std::size_t size) = 0;

    // Closes the stream; may be called again. A connection sends close_notify without waiting, unless another
    // process (a fork's parent) made it: then only this process's descriptor is closed.
    virtual void Close() noexcept = 0;

    // Whether this process made the stream. A child of fork must open its own.
    virtual bool IsOwn() const noexcept = 0;

    // Whether the stream is open and, as far as this process can know without waiting, the peer has neither
    // closed nor reset it.
    virtual bool IsConnected() const noexcept = 0;
};

class SystemFactory : public virtual Object {
  public:
    // Opens a file in which a local service left a secret for this process, for reading, and puts it into
    // `out`. The path is untrusted and this process may be root, so a file is opened only when it is what
    // such a service leaves:
    //  - an absolute path without "..", shorter than PATH_MAX; its last part is no link; a regular file with
    //    one name, not empty, on a file system that stores files (not /proc or /sys);
    //  - written by nobody but its owner, read by nobody but its owner and group;
    //  - owned by root, by this process's user, or by the owner of the directory /run/tovric-vessad when it
    //    lies directly in there;
    //  - made after `notBefore` and not in the future, allowing 2 s for the file system's coarser clock. An
    //    older file that was changed since, such as a log, is refused, and so is one from before the clock
    //    was set back. Only where the file system keeps no time of birth, the time of the last change stands
    //    in for it.
    // Never blocks and follows no link at the end of the path. Throws SystemException with the reason, and
    // leaves `out` unchanged. Thread-safe.
    virtual void OpenSecretFile(const std::string& path, std::chrono::system_clock::time_point notBefore,
                                Ref<Stream>& out) = 0;
};

// Never null.
Ref<SystemFactory> GetSystemFactory();

}  // namespace Tessim::System
