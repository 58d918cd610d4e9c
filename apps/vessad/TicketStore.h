// One-time login tickets: a random password each, in a file that only a legitimate local user can read.
//
// A ticket belongs to the connection that requested it and is valid on no other. Passwords are compared with
// those in memory, so a file that outlives the daemon is worthless. All functions are thread-safe.
#pragma once

#include <sys/types.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

struct TicketOptions {
    std::filesystem::path directory;
    std::string group;  // may read the files too; empty: none
    std::chrono::milliseconds lifetime = std::chrono::seconds(30);
};

class TicketStore {
  public:
    // Creates the directory if it is missing (mode 0711, or 0750 for the group) and removes the ticket files
    // that a killed daemon left in it. Expired tickets are removed on `executor`. Throws std::runtime_error
    // when the directory cannot be created or is not private to this user, or when there is no such group.
    TicketStore(TicketOptions options, const boost::asio::any_io_executor& executor);
    TicketStore(const TicketStore&) = delete;
    TicketStore& operator=(const TicketStore&) = delete;
    // Removes every ticket. The executor must have stopped.
    ~TicketStore();

    // Returns the group that may read the tickets too, if any.
    std::optional<gid_t> GetGroup() const { return group; }

    // Creates a ticket for the connection `owner` and returns the path of its file, whose content is the
    // password without a line end. It replaces the connection's previous ticket. Throws std::system_error
    // when the file cannot be written completely, and after Close; no file is left then.
    std::string Issue(std::uint64_t owner);

    // Removes the connection's ticket and returns whether it had one that had not expired and `password` is
    // its password. The comparison takes constant time.
    bool Redeem(std::uint64_t owner, std::string_view password);

    // Returns which ticket the connection has and who can read it, for the log; empty when it has none.
    std::string Describe(std::uint64_t owner) const;

    // Removes the connection's ticket, if any.
    void Drop(std::uint64_t owner);

    // Removes every ticket; Issue fails from then on.
    void Close();

  private:
    using Clock = std::chrono::steady_clock;
    struct Ticket {
        std::string file;  // within the directory
        std::string password;
        Clock::time_point expiry;
    };

    using Tickets = std::map<std::uint64_t, Ticket>;  // by connection

    void OpenDirectory();
    void RemoveStale() const;
    void WriteFile(const std::string& file, std::string_view password) const;
    void RemoveFile(const std::string& file) const;
    // Without the mutex, because they may log.
    void Remove(Tickets::node_type ticket) const;
    void RemoveAll(Tickets removed) const;
    // Returns the connection's ticket, empty when there is none, which the caller is to remove.
    Tickets::node_type Take(std::uint64_t owner);
    // With the mutex; for the first expiry of the tickets and `latest`.
    void ArmTimer(Clock::time_point latest);
    void RemoveExpired();

    const TicketOptions options;
    const std::optional<gid_t> group;
    Tessim::FileDescriptor directory;

    mutable std::mutex mutex;  // guards all below
    Tickets tickets;
    boost::asio::steady_timer timer;
    bool timerArmed = false;
    bool closed = false;
};

}  // namespace Vessad
