// One-time login tickets: a random password each, in a file that only a legitimate local user can read.
//
// A ticket belongs to the connection that asked for it; nobody else can use it. Passwords are held in memory
// only, so a file that outlives the daemon opens nothing. Every operation may be called from any thread.
#pragma once

#include <sys/types.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "runtime/tessim/file_descriptor.h"

namespace Vessad {

struct TicketOptions {
    std::filesystem::path directory;
    std::string group;  // who else may read the files; empty: nobody
    std::chrono::milliseconds life = std::chrono::seconds(30);
};

class TicketStore {
  public:
    // Makes the directory where there is none (mode 0711, or 0750 for the group), removes the files that a
    // killed daemon left in it, and removes tickets that expire on `executor`. Throws std::runtime_error when
    // the directory cannot be made or does not belong to this user alone, or when there is no such group.
    TicketStore(TicketOptions options, const boost::asio::any_io_executor& executor);
    TicketStore(const TicketStore&) = delete;
    TicketStore& operator=(const TicketStore&) = delete;
    // Removes every ticket. Nothing may run on the executor any more.
    ~TicketStore();

    // Makes a ticket for the connection `owner` and answers the path of its file, whose content is the
    // password without a line end. It replaces the connection's earlier ticket. Throws std::system_error when
    // the file cannot be made and written whole, and after Close; nothing is left of it then.
    std::string Issue(std::uint64_t owner);

    // Uses the connection's ticket up, whatever comes of it, and answers whether `password` is its password.
    // The comparison takes the same time wherever they differ.
    bool Redeem(std::uint64_t owner, std::string_view password);

    // Removes the connection's ticket, if it has one.
    void Drop(std::uint64_t owner);

    // Removes every ticket, and makes no more.
    void Close();

    // How many tickets can be used now.
    std::size_t Count() const;

  private:
    using Clock = std::chrono::steady_clock;
    struct Ticket {
        std::string file;  // within the directory
        std::string password;
        Clock::time_point end;
    };

    void OpenDirectory();
    void RemoveStale() const;
    void WriteFile(const std::string& file, std::string_view password) const;
    void RemoveFile(const std::string& file) const;
    void Remove(std::map<std::uint64_t, Ticket>::iterator ticket);
    void ArmTimer();
    void RemoveExpired();

    const TicketOptions options;
    gid_t group = static_cast<gid_t>(-1);
    Tessim::FileDescriptor directory;

    mutable std::mutex mutex;  // of all below
    std::map<std::uint64_t, Ticket> tickets;
    boost::asio::steady_timer timer;
    bool timerArmed = false;
    bool closed = false;
};

}  // namespace Vessad
