// The open connections, and which of them is evicted for a new one.
//
// Untrusted connections cannot displace sessions: each stage has a limit of its own. A new connection evicts
// the one whose last step forward is oldest: entering the stage or, in a session, its last call. So a client
// that proceeds without delay is served however many others are open. All functions are thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Vessad {

enum class Stage : std::size_t { Preamble, Login, Session };

class ConnectionTable {
  public:
    struct Limits {
        std::size_t preamble = 1024;
        std::size_t login = 512;
        std::size_t session = 2560;

        constexpr std::size_t Total() const { return preamble + login + session; }
    };

    class Entry {
      public:
        Entry() = default;
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        virtual ~Entry() = default;
        // Closes the connection soon; does not block. Called from any thread, never under the table's lock.
        virtual void Evict(std::string_view why) = 0;
    };

    explicit ConnectionTable(const Limits& limits);

    // Adds the connection `number` to a stage, or moves it there, as that stage's newest. When the stage is
    // full, its oldest connection is evicted; when the table is closed, this one is. Does not keep the entry
    // alive. Throws what Evict throws; the connection that was to be evicted is still in the table then.
    void Place(std::uint64_t number, const std::shared_ptr<Entry>& entry, Stage stage);

    // Removes the connection, if it is there.
    void Remove(std::uint64_t number);

    // Evicts the oldest connection that has not logged in, if any; in the preamble stage before the login
    // stage. Throws as Place does.
    void MakeRoom(std::string_view why);

    // Evicts every connection, and each that is placed later. Throws what Evict throws; may be called again
    // then.
    void Close(std::string_view why);

  private:
    struct Position {
        Stage stage;
        std::uint64_t turn;
    };
    struct Queued {
        std::uint64_t number;
        std::weak_ptr<Entry> entry;
    };
    using Queue = std::map<std::uint64_t, Queued>;  // by turn, the oldest first

    Queue& At(Stage stage) { return queues.at(static_cast<std::size_t>(stage)); }
    void RemoveLocked(std::uint64_t number);
    // Evicts the queue's oldest connection and removes it; unlocks meanwhile.
    void EvictOldest(std::unique_lock<std::mutex>& lock, const Queue& queue, std::string_view why);

    const std::array<std::size_t, 3> limits;
    std::mutex mutex;  // guards all below
    std::array<Queue, 3> queues;
    std::unordered_map<std::uint64_t, Position> positions;
    std::uint64_t nextTurn = 0;
    std::optional<std::string> closed;  // why
};

}  // namespace Vessad
