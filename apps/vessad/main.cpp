// tovric-vessad: the local management daemon of a virtualisation host.
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "apps/version/Version.h"
#include "apps/vessad/Background.h"
#include "apps/vessad/LogFormat.h"
#include "apps/vessad/Options.h"
#include "apps/vessad/Server.h"
#include "apps/vessad/backends/DescribedHost.h"
#include "apps/vessad/backends/HostCheck.h"
#ifdef VESSAD_HAVE_LIBVIRT
#include "apps/vessad/backends/LibvirtBackend.h"
#endif
#ifdef VESSAD_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace {

using Vessad::Options;
using Clock = std::chrono::steady_clock;

constexpr const char* programName = "tovric-vessad";
constexpr std::chrono::minutes reportInterval{1};  // without a watchdog

void NotifyServiceManager([[maybe_unused]] const char* state) {
#ifdef VESSAD_HAVE_SYSTEMD
    ::sd_notify(0, state);
#endif
}

// Takes over the sockets that the service manager passed: one to listen on, one for diagnostics.
void TakePassedSockets([[maybe_unused]] Vessad::ServerOptions& options) {
#ifdef VESSAD_HAVE_SYSTEMD
    const int count = ::sd_listen_fds(1);
    if (count < 0) {
        throw std::system_error(-count, std::generic_category(), "cannot take over the passed sockets");
    }
    for (int passed = SD_LISTEN_FDS_START; passed < SD_LISTEN_FDS_START + count; ++passed) {
        int& place = ::sd_is_socket(passed, AF_NETLINK, 0, -1) > 0 ? options.diagnostics : options.listener;
        if (std::exchange(place, passed) >= 0) {
            throw std::runtime_error("more than one socket is passed to listen on, or for diagnostics");
        }
    }
#endif
}

// Returns how often the service manager is to be told that the daemon makes progress; nothing: never.
std::optional<std::chrono::microseconds> WatchdogInterval() {
#ifdef VESSAD_HAVE_SYSTEMD
    constexpr std::uint64_t reportsPerTimeout = 4;
    std::uint64_t timeout = 0;
    if (::sd_watchdog_enabled(0, &timeout) > 0) {
        return std::chrono::microseconds(timeout / reportsPerTimeout);
    }
#endif
    return std::nullopt;
}

// Where the log goes. Threads may use the logger at any time, so it stays and its sinks are replaced.
using LogDestination = spdlog::sinks::dist_sink_mt;

std::shared_ptr<LogDestination> LogToStandardError() {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    sink->set_formatter(Vessad::MakeLogFormatter("%Y-%m-%dT%H:%M:%S.%e %l %*", "\n"));
    auto destination = std::make_shared<LogDestination>();
    destination->set_sinks({sink});
    auto logger = std::make_shared<spdlog::logger>(programName, destination);
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

// Tells the service manager that the daemon makes progress, where it does.
void ReportProgress(Vessad::Server& server, Vessad::Backend& backend) {
    try {
        const bool serves = server.CheckProgress();
        if (serves && backend.IsMakingProgress()) {
            NotifyServiceManager("WATCHDOG=1");
        } else {
            spdlog::error(
                "{} makes no progress; the service manager will restart the daemon unless it resumes",
                serves ? "The collector" : "A thread that accepts and serves");
        }
    } catch (const std::exception& failure) {
        spdlog::error("No progress is reported to the service manager: {}", failure.what());
    }
}

// Waits for one of the signals until `end`; returns its number, 0 at the end.
int WaitForSignal(const sigset_t& signals, Clock::time_point end) {
    const auto left = std::max<std::chrono::nanoseconds>(end - Clock::now(), std::chrono::nanoseconds(0));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec timeout{seconds.count(), (left - seconds).count()};
    return std::max(0, ::sigtimedwait(&signals, nullptr, &timeout));
}

void Serve(const Options& options, LogDestination& log) {
    ::umask(077);
    const sigset_t signals = BlockSignals();
    Vessad::ServerOptions serverOptions;
    TakePassedSockets(serverOptions);
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

    const auto watchdog = WatchdogInterval();
    auto nextReport = Clock::now();
    for (;;) {
        if (Clock::now() >= nextReport) {
            if (watchdog) {
                ReportProgress(server, *backend);
            }
            server.FlushLog();
            nextReport = Clock::now() + watchdog.value_or(reportInterval);
        }
        const int number = WaitForSignal(signals, nextReport);
        if (number == 0) {
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
    const auto log = LogToStandardError();
    try {
        const Vessad::Parsed parsed =
            Vessad::ParseCommandLine(argc, argv, std::string("tovric-vessad ") + Kelv::version);
        if (!parsed.options) {
            return parsed.exitCode;
        }
        if (parsed.options->check) {
            return Vessad::CheckHost(*parsed.options->check, std::cout, std::cerr);
        }
        spdlog::set_level(spdlog::level::from_str(parsed.options->logLevel));
        Serve(*parsed.options, *log);
    } catch (const std::exception& failure) {
        spdlog::critical("Exiting: {}", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
