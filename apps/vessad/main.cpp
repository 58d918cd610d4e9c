// tovric-vessad: the local management daemon of a virtualisation host.
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <syslog.h>

#include <chrono>
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

// Where the log goes. Threads may use the logger at any time, so it stays and its sinks are replaced.
using LogDestination = spdlog::sinks::dist_sink_mt;

std::shared_ptr<LogDestination> LogToStandardError(const Options& options) {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    sink->set_formatter(Vessad::MakeLogFormatter("%Y-%m-%dT%H:%M:%S.%e %l %*", "\n"));
    auto destination = std::make_shared<LogDestination>();
    destination->set_sinks({sink});
    auto logger = std::make_shared<spdlog::logger>(programName, destination);
    logger->set_level(spdlog::level::from_str(options.logLevel));
    logger->flush_on(spdlog::level::trace);
    spdlog::set_default_logger(logger);
    return destination;
}

void LogToSyslog(LogDestination& destination) {
    constexpr bool ownFormat = true;
    auto sink = std::make_shared<spdlog::sinks::syslog_sink_mt>(programName, LOG_PID, LOG_DAEMON, ownFormat);
    sink->set_formatter(Vessad::MakeLogFormatter("%*", ""));
    destination.set_sinks({sink});
}

std::unique_ptr<Vessad::Backend> MakeBackend(const Options& options) {
    if (options.host) {
        return Vessad::MakeDescribedHost(*options.host);
    }
    if (options.libvirt) {
#ifdef VESSAD_HAVE_LIBVIRT
        return Vessad::MakeLibvirtBackend(*options.libvirt, options.stateDirectory,
                                          std::chrono::days(options.forgetAfterDays));
#else
        throw std::runtime_error("this build of the daemon has no libvirt");
#endif
    }
    return Vessad::MakeBuiltInHost();
}

// Blocks the signals that the daemon waits for, in this thread and those that it starts, and returns them.
sigset_t BlockSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGHUP, SIGTERM, SIGINT}) {
        ::sigaddset(&signals, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void Serve(const Options& options, LogDestination& log) {
    ::umask(077);
    const sigset_t signals = BlockSignals();
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
        LogToSyslog(log);
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
            spdlog::info("SIGHUP received, reloading the host");
            backend->Reload();
            continue;
        }
        spdlog::info("{} received, stopping", number == SIGTERM ? "SIGTERM" : "SIGINT");
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
    const auto log = LogToStandardError(*parsed.options);
    try {
        Serve(*parsed.options, *log);
    } catch (const std::exception& failure) {
        spdlog::critical("Exiting: {}", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
