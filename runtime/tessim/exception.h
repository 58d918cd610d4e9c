// Exceptions with a message and a backtrace.
#pragma once

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "runtime/tessim/source_location.h"

namespace Tessim {

// What can be thrown: a message and the place it was thrown from.
class Throwable : public std::exception {
  public:
    // The message, without a line end. Lives as long as the exception.
    const char* what() const noexcept override { return message.c_str(); }

    // One line of text per step, without line ends: the throwing statement first ("file:line function"), then
    // the calling frames from the innermost, as "module(symbol+offset) [address]". Offsets in a module
    // without symbols can be given to addr2line. Never empty.
    std::vector<std::string> GetBacktrace() const;

  protected:
    Throwable(std::string message, const SourceLocation& where);

  private:
    std::string message;
    SourceLocation where;
    std::vector<void*> frames;  // return addresses; turned into text by GetBacktrace only
};

// The base of everything that the runtime and the management API throw.
class Exception : public Throwable {
  public:
    explicit Exception(std::string message, const SourceLocation& where = SourceLocation::current())
        : Throwable(std::move(message), where) {}
};

// Something that may be done once was done again.
class AlreadyInitializedException : public Exception {
  public:
    using Exception::Exception;
};

// An argument has a value that the function does not accept.
class InvalidArgumentException : public Exception {
  public:
    using Exception::Exception;
};

// A call of the operating system or of the TLS library failed; the message names the call and the reason.
class SystemException : public Exception {
  public:
    using Exception::Exception;
};

// The peer closed the stream, reset it, or sent what the protocol does not allow.
class StreamException : public Exception {
  public:
    using Exception::Exception;
};

// The peer did not reply before the deadline, or is in its backoff because it did not.
class TimeoutException : public StreamException {
  public:
    using StreamException::StreamException;
};

}  // namespace Tessim
