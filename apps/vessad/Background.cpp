#include "apps/vessad/Background.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace Vessad {

namespace {

std::system_error Failure(const char* what) {
    return {errno, std::generic_category(), what};
}

[[noreturn]] void AwaitChild(pid_t child, int pipe) {
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
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Failure("cannot make a pipe");
    }
    Tessim::FileDescriptor reading(ends[0]);
    readyPipe = Tessim::FileDescriptor(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) {
        throw Failure("cannot start in the background");
    }
    if (child > 0) {
        readyPipe.Close();
        AwaitChild(child, reading.Get());
    }
    ::setsid();
}

void Background::Ready() {
    const Tessim::FileDescriptor nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!nowhere || ::chdir("/") != 0) {
        throw Failure("cannot leave the terminal");
    }
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(nowhere.Get(), standard);
    }
    const char byte = 0;
    if (::write(readyPipe.Get(), &byte, 1) != 1) {
        throw Failure("cannot tell that the daemon is ready");
    }
    readyPipe.Close();
}

}  // namespace Vessad
