// tovric-vessad: the local management daemon of a virtualisation host.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <syslog.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>

#include "apps/vessad/Background.h"
#include "apps/vessad/LogFormat.h"
#include "apps/vessad/Options.h"
#include "apps/vessad/Server.h"
#include "apps/vessad/backends/DescribedHost.h"
#ifdef VESSAD_HAVE_LIBVIRT
#include "apps/vessad/backends/LibvirtBackend.h"
#endif
#ifdef VESSAD_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace {

using Vessad::Options;

constexpr const char* programName = "tovric-vessad";

void NotifyServiceManager([[maybe_unused]] const char* state) {
#ifdef VESSAD_HAVE_SYSTEMD
    ::sd_notify(0, state);
#endif
}

void LogToStandardError(const Options& options) {
    auto logger = spdlog::stderr_logger_mt(programName);
    logger->set_formatter(Vessad::MakeLogFormatter("%Y-%m-%dT%H:%M:%S.%e %l %*", "\n"));
    logger->set_level(spdlog::level::from_str(options.logLevel));
    logger->flush_on(spdlog::level::trace);
    spdlog::set_default_logger(logger);
}

void LogToSyslog(const Options& options) {
    constexpr bool ownFormat = true;
    auto logger = spdlog::syslog_logger_mt("syslog", programName, LOG_PID, LOG_DAEMON, ownFormat);
    logger->set_formatter(Vessad::MakeLogFormatter("%*", ""));
    logger->set_level(spdlog::level::from_str(options.logLevel));
    spdlog::set_default_logger(logger);
}

std::unique_ptr<Vessad::Backend> MakeBackend(const Options& options) {
    if (options.host) {
        return Vessad::MakeDescribedHost(*options.host);
    }
    if (options.libvirt) {
#ifdef VESSAD_HAVE_LIBVIRT
        return Vessad::MakeLibvirtBackend(*options.libvirt, options.stateDirectory);
#else
        throw std::runtime_error("this build of the daemon has no libvirt");
#endif
    }
    return Vessad::MakeBuiltInHost();
}

// Blocks the signals that the daemon acts on, for all threads to come, and answers them.
sigset_t TakeSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGHUP, SIGTERM, SIGINT}) {
        ::sigaddset(&signals, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void Serve(const Options& options) {
    ::umask(077);
    const sigset_t signals = TakeSignals();
    Vessad::ServerOptions serverOptions;
    serverOptions.listen = Vessad::ParseListenAddress(options.listen);
    serverOptions.tickets.directory = options.ticketDirectory;
    serverOptions.tickets.group = options.ticketGroup;
    serverOptions.connections = Vessad::RaiseFileLimit();

    std::optional<Vessad::Background> background;
    if (!options.foreground) {
        background.emplace();
    }
    const std::unique_ptr<Vessad::Backend> backend = MakeBackend(options);
    Vessad::Server server(serverOptions, *backend);
    server.Start();
    if (background) {
        LogToSyslog(options);
        background->Ready();
    }
    const auto endpoint = server.GetEndpoint();
    spdlog::info("Listening on {} port {}", endpoint.address().to_string(), endpoint.port());
    NotifyServiceManager("READY=1");

    for (;;) {
        int number = 0;
        if (::sigwait(&signals, &number) != 0) {
            continue;
        }
        if (number == SIGHUP) {
            spdlog::info("SIGHUP: reading the host again");
            backend->Reload();
            continue;
        }
        spdlog::info("{}: ending", number == SIGTERM ? "SIGTERM" : "SIGINT");
        NotifyServiceManager("STOPPING=1");
        server.Stop();
        return;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Vessad::Parsed parsed = Vessad::ParseCommandLine(argc, argv);
    if (!parsed.options) {
        return parsed.exitCode;
    }
    LogToStandardError(*parsed.options);
    try {
        Serve(*parsed.options);
    } catch (const std::exception& failure) {
        spdlog::critical("{}", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
