#include "apps/vessad/Background.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

#include "apps/vessad/RequireCall.h"

namespace Vessad {

namespace {

[[noreturn]] void ExitWithChild(pid_t child, int pipe) {
    char byte = 0;
    ssize_t count = 0;
    do {
        count = ::read(pipe, &byte, 1);
    } while (count < 0 && errno == EINTR);
    if (count == 1) {
        ::_exit(EXIT_SUCCESS);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ::_exit(WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : EXIT_FAILURE);
}

}  // namespace

Background::Background() {
    std::array<int, 2> ends{};
    RequireCall(::pipe2(ends.data(), O_CLOEXEC) == 0, "cannot create a pipe");
    Tessim::FileDescriptor reading(ends[0]);
    readyPipe = Tessim::FileDescriptor(ends[1]);
    const pid_t child = ::fork();
    RequireCall(child >= 0, "cannot fork");
    if (child > 0) {
        readyPipe.Close();
        ExitWithChild(child, reading.Get());
    }
    ::setsid();
}

void Background::Ready() {
    const Tessim::FileDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    RequireCall(null && ::chdir("/") == 0, "cannot detach from the terminal");
    for (const int standardStream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(null.Get(), standardStream);
    }
    const char byte = 0;
    RequireCall(::write(readyPipe.Get(), &byte, 1) == 1, "cannot report readiness to the starting process");
    readyPipe.Close();
}

}  // namespace Vessad
